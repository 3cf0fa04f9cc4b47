#include <tolvan/vesk/toolkit/call_failures.hpp>

namespace tolvan::vesk::toolkit {

request_refused::~request_refused() = default;
reply_undecodable::~reply_undecodable() = default;

}  // namespace tolvan::vesk::toolkit
