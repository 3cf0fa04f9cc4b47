// Any text as JSON: what can be read is written in one way, and what was written reads back as the same.
#include <cstdint>
#include <string>

#include <tolvan/sedes/v1/json.hpp>
#include <tolvan/sedes/v1/opaque_json_block.hpp>

#include "require.hpp"

namespace {

using namespace tolvan;
using namespace tolvan::sedes::v1;

struct record_t {
    float real = 0;
    std::vector<std::uint8_t> bytes;
    optional<opaque_json_block> block;
    optional<std::shared_ptr<record_t>> inner;

    static constexpr auto description() {
        return composite(plain("real", &record_t::real), plain("bytes", &record_t::bytes),
                         optional_member("block", &record_t::block),
                         optional_member("inner", &record_t::inner));
    }
};

// Whether it can be read as a T; then it must survive being written and read again.
template <typename T>
bool survives(const std::string& text) {
    T first{};
    try {
        deserialize_from_json_string(text, &first);
    } catch (const bad_deserialization_source& refused) {
        fuzz::require(std::string(refused.what()).size() < 1000, "a refusal of bounded length");
        return false;
    }
    const std::string written = serialize_to_json_string(first);
    T second{};
    deserialize_from_json_string(written, &second);
    fuzz::require(serialize_to_json_string(second) == written, "written and read again it is the same");
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const bool json = survives<Variant>(text);
    fuzz::require(json || !survives<record_t>(text), "a record is JSON");
    fuzz::require(survives<std::string>(Variant::string(text).toJson()), "any text can be written as JSON");
    return 0;
}
