#include <algorithm>
#include <array>
#include <numeric>
#include <stdexcept>

#include <tolvan/Variant.hpp>

namespace tolvan {

struct Variant::array_node {
    array_t elements;
    std::size_t depth;
};

struct Variant::object_node {
    object_t members;
    std::size_t depth;
};

namespace {

using member_places = std::vector<std::size_t>;

// Sorting rather than hashing: no choice of keys makes it slow.
member_places places_by_key(const Variant::object_t& members) {
    member_places places(members.size());
    std::iota(places.begin(), places.end(), std::size_t{0});
    std::stable_sort(places.begin(), places.end(),
                     [&](std::size_t a, std::size_t b) { return members[a].first < members[b].first; });
    return places;
}

// Gives the first member of each key the value of the last; the places of the others, in ascending order.
member_places merge_repeated_keys(Variant::object_t& members) {
    member_places repeated;
    std::size_t first = 0;
    for (const std::size_t place : places_by_key(members)) {
        if (place == first || members[place].first != members[first].first) {
            first = place;
            continue;
        }
        members[first].second = std::move(members[place].second);
        repeated.push_back(place);
    }
    std::sort(repeated.begin(), repeated.end());
    return repeated;
}

void drop_repeated_keys(Variant::object_t& members) {
    const member_places repeated = merge_repeated_keys(members);
    if (repeated.empty()) return;
    Variant::object_t kept;
    kept.reserve(members.size() - repeated.size());
    auto next = repeated.begin();
    for (std::size_t place = 0; place < members.size(); ++place) {
        if (next != repeated.end() && *next == place)
            ++next;
        else
            kept.push_back(std::move(members[place]));
    }
    members = std::move(kept);
}

}  // namespace

Variant Variant::boolean(bool flag) {
    return Variant{value_t{flag}};
}

Variant Variant::integer(std::int64_t number) {
    return Variant{value_t{number}};
}

Variant Variant::unsigned_integer(std::uint64_t number) {
    return Variant{value_t{number}};
}

Variant Variant::number(double number) {
    return Variant{value_t{number}};
}

Variant Variant::string(std::string text) {
    return Variant{value_t{std::make_shared<const std::string>(std::move(text))}};
}

Variant Variant::array(array_t elements) {
    std::size_t deepest = 0;
    for (const Variant& element : elements) deepest = std::max(deepest, element.depth());
    return Variant{
        value_t{std::make_shared<const array_node>(array_node{std::move(elements), depth_around(deepest)})}};
}

Variant Variant::object(object_t members) {
    drop_repeated_keys(members);
    std::size_t deepest = 0;
    for (const auto& [key, member] : members) deepest = std::max(deepest, member.depth());
    return Variant{
        value_t{std::make_shared<const object_node>(object_node{std::move(members), depth_around(deepest)})}};
}

Variant::kind_t Variant::kind() const noexcept {
    constexpr std::array<kind_t, std::variant_size_v<value_t>> kinds{
        kind_t::null,   kind_t::boolean, kind_t::integer, kind_t::integer,
        kind_t::number, kind_t::string,  kind_t::array,   kind_t::object};
    return kinds[value.index()];
}

const char* Variant::kind_name() const noexcept {
    switch (kind()) {
        case kind_t::null:
            return "null";
        case kind_t::boolean:
            return "a boolean";
        case kind_t::integer:
            return "an integer";
        case kind_t::number:
            return "a number";
        case kind_t::string:
            return "a string";
        case kind_t::array:
            return "an array";
        case kind_t::object:
            return "an object";
    }
    return "unknown";
}

std::optional<bool> Variant::as_boolean() const noexcept {
    const auto* flag = std::get_if<bool>(&value);
    return flag ? std::optional{*flag} : std::nullopt;
}

const std::string* Variant::as_string() const noexcept {
    const auto* text = std::get_if<text_pointer>(&value);
    return text ? text->get() : nullptr;
}

const Variant::array_t* Variant::as_array() const noexcept {
    const auto* node = std::get_if<array_pointer>(&value);
    return node ? &(*node)->elements : nullptr;
}

const Variant::object_t* Variant::as_object() const noexcept {
    const auto* node = std::get_if<object_pointer>(&value);
    return node ? &(*node)->members : nullptr;
}

std::optional<double> Variant::as_number() const noexcept {
    if (const auto* number = std::get_if<double>(&value)) return *number;
    if (const auto* number = std::get_if<std::int64_t>(&value)) return static_cast<double>(*number);
    if (const auto* number = std::get_if<std::uint64_t>(&value)) return static_cast<double>(*number);
    return std::nullopt;
}

const Variant* Variant::find(std::string_view key) const noexcept {
    const object_t* members = as_object();
    if (!members) return nullptr;
    const auto found = std::find_if(members->begin(), members->end(),
                                    [key](const auto& member) { return member.first == key; });
    return found == members->end() ? nullptr : &found->second;
}

void Variant::set(std::string key, Variant member) {
    if (!is_null() && !as_object())
        throw std::logic_error{"cannot set member \"" + key + "\" of " + kind_name()};
    object_t members = is_null() ? object_t{} : *as_object();
    members.emplace_back(std::move(key), std::move(member));
    *this = object(std::move(members));
}

std::size_t Variant::depth() const noexcept {
    if (const auto* node = std::get_if<array_pointer>(&value)) return (*node)->depth;
    if (const auto* node = std::get_if<object_pointer>(&value)) return (*node)->depth;
    return 0;
}

std::size_t Variant::depth_around(std::size_t deepest_child) {
    if (deepest_child >= max_depth)
        throw std::length_error{"value nested deeper than " + std::to_string(max_depth) + " levels"};
    return deepest_child + 1;
}

}  // namespace tolvan
