#include <uuid/uuid.h>

#include <tolvan/uuid_v1.hpp>

namespace tolvan {

void uuid_v1::randomize() {
    uuid_generate_random(bytes.data());
}

}  // namespace tolvan

std::string std::to_string(const tolvan::uuid_v1& id) {
    std::array<char, UUID_STR_LEN> text{};
    uuid_unparse_lower(id.bytes.data(), text.data());
    return text.data();
}
