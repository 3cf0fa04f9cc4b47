#include "options/user_group.hpp"

#include <algorithm>
#include <charconv>
#include <optional>
#include <stdexcept>
#include <vector>

#include <grp.h>
#include <unistd.h>

namespace tolvan::vesk::tool {

namespace {

std::optional<gid_t> number_in(const std::string& text) {
    gid_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc{} || rest != end || number == static_cast<gid_t>(-1)) return std::nullopt;
    return number;
}

std::optional<gid_t> group_called(const std::string& name) {
    const struct group* const entry = ::getgrnam(name.c_str());
    if (entry == nullptr) return std::nullopt;
    return entry->gr_gid;
}

std::vector<gid_t> further_groups() {
    std::vector<gid_t> groups(static_cast<std::size_t>(std::max(0, ::getgroups(0, nullptr))));
    groups.resize(
        static_cast<std::size_t>(std::max(0, ::getgroups(static_cast<int>(groups.size()), groups.data()))));
    return groups;
}

}  // namespace

bool is_in_group(gid_t group) {
    if (::getegid() == group) return true;
    const auto groups = further_groups();
    return std::find(groups.begin(), groups.end(), group) != groups.end();
}

std::string name_of_group(gid_t group) {
    const struct group* const entry = ::getgrgid(group);
    return entry == nullptr ? std::to_string(group) : entry->gr_name;
}

gid_t group_of_mine(const std::string& name) {
    const auto named = group_called(name);
    const auto group = named ? named : number_in(name);
    if (!group) throw std::runtime_error("there is no group " + name);
    if (::geteuid() != 0 && !is_in_group(*group))
        throw std::runtime_error("you are not in the group " + name);
    return *group;
}

}  // namespace tolvan::vesk::tool
