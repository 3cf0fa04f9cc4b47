#include <tolvan/event_loop_v1.hpp>

namespace tolvan {

timer_impl_base::~timer_impl_base() = default;
event_loop_v1::~event_loop_v1() = default;

}  // namespace tolvan
