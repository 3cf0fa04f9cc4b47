#include <nlohmann/json.hpp>

#include <tolvan/Variant.hpp>

namespace tolvan {

using nlohmann::ordered_json;

namespace {

ordered_json document_of(const Variant& value);

ordered_json document_of_integer(const Variant& value) {
    if (const auto number = value.as_integer<std::int64_t>()) return *number;
    return *value.as_integer<std::uint64_t>();
}

ordered_json document_of_array(const Variant::array_t& elements) {
    ordered_json::array_t documents;
    documents.reserve(elements.size());
    for (const Variant& element : elements) documents.push_back(document_of(element));
    return documents;
}

ordered_json document_of_object(const Variant::object_t& members) {
    ordered_json::object_t documents;
    documents.reserve(members.size());
    // Straight to the end: the keys are distinct, and to insert one would look at all before it.
    for (const auto& [key, member] : members) documents.emplace_back(key, document_of(member));
    return documents;
}

ordered_json document_of(const Variant& value) {
    switch (value.kind()) {
        case Variant::kind_t::null:
            return nullptr;
        case Variant::kind_t::boolean:
            return *value.as_boolean();
        case Variant::kind_t::integer:
            return document_of_integer(value);
        case Variant::kind_t::number:
            return *value.as_number();
        case Variant::kind_t::string:
            return *value.as_string();
        case Variant::kind_t::array:
            return document_of_array(*value.as_array());
        case Variant::kind_t::object:
            return document_of_object(*value.as_object());
    }
    return nullptr;
}

}  // namespace

std::string Variant::toJson() const {
    constexpr int compact = -1;
    return document_of(*this).dump(compact, ' ', false, ordered_json::error_handler_t::replace);
}

}  // namespace tolvan
