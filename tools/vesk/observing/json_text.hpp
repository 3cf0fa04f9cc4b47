#pragma once

#include <string>
#include <string_view>

#include <tolvan/wire/hub_message.hpp>

namespace tolvan::vesk::tool {

/// Appends `"name":"text"`; of a text that is not UTF-8 `"name_base64":"..."` with its bytes. `name` needs no
/// escapes.
void append_json_member(std::string& to, std::string_view name, std::string_view text);

/// Appends the members `topic`, `data` and `age_ms` of a message that has come in just now.
void append_json_members(std::string& to, const wire::hub_message& message);

}  // namespace tolvan::vesk::tool
