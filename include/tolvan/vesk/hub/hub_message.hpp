#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

namespace tolvan::vesk::hub {

/// The third frame of a hub message, byte for byte. (The first two are its topic and its data, as text
/// without NUL bytes.)
struct metadata_t {
    static constexpr std::uint8_t current_version = 1;

    std::uint8_t version = current_version;
    std::uint8_t reserved[7] = {};
    std::int64_t timestamp_ms = 0;  ///< the sender's steady clock when the message was built, in milliseconds
};

static_assert(sizeof(metadata_t) == 16 && offsetof(metadata_t, timestamp_ms) == 8);
static_assert(std::endian::native == std::endian::little, "the wire is little-endian");

}  // namespace tolvan::vesk::hub
