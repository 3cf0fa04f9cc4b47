#pragma once

#include <string>

#include <sys/types.h>

namespace tolvan::vesk::tool {

/// Whether this process is a member of the group.
bool is_in_group(gid_t group);

/// The name of the group, or its number when it has none.
std::string name_of_group(gid_t group);

/// The group of that name or number. Throws std::runtime_error when there is none, or this process
/// may not give files to it.
gid_t group_of_mine(const std::string& name);

}  // namespace tolvan::vesk::tool
