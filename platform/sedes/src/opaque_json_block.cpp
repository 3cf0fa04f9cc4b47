#include <tolvan/sedes/v1/opaque_json_block.hpp>

namespace tolvan::sedes::v1 {

opaque_json_block opaque_json_block::from_string(const std::string& text) {
    return opaque_json_block{Variant::fromJson(text)};
}

std::string opaque_json_block::to_string() const {
    return json.toJson();
}

}  // namespace tolvan::sedes::v1
