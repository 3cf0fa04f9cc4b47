#include <tolvan/sedes/v1/missing_value.hpp>

namespace tolvan::sedes::v1 {

missing_value::missing_value() : std::logic_error{"reading a member that is missing"} {}

missing_value::~missing_value() = default;

void missing_value::throw_one() {
    throw missing_value{};
}

}  // namespace tolvan::sedes::v1
