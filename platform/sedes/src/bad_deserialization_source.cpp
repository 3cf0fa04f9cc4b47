#include <tolvan/sedes/v1/bad_deserialization_source.hpp>

namespace tolvan::sedes::v1 {

bad_deserialization_source::bad_deserialization_source(const std::string& what) : std::runtime_error{what} {}

bad_deserialization_source::~bad_deserialization_source() = default;

}  // namespace tolvan::sedes::v1
