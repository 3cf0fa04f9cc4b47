#pragma once

// Calling application code.
//
// A callback may call anything of the bus, and it takes effect at once. While it runs, its own subscription
// may be replaced or revoked, other subscriptions may come and go, and the backend that calls it may be
// destroyed, by a second initialisation for example. The backends keep to three rules, the same ones
// everywhere:
//
// 1. What runs stands still. A callback is stored as `shareable(callback)` and called through `call_out`,
//    which holds on to the callable until it has returned, whatever happens to the stored one meanwhile.
//
// 2. After a call, look again. A backend takes `const auto self = weak_from_this()` before it calls out. When
//    `self.expired()` afterwards, also after an exception, it returns at once and touches nothing. Otherwise
//    it looks up again whatever it was walking.
//
// 3. Unlink first, destroy last. Destroying a callback destroys what it has captured, and that may call the
//    bus too: callbacks are moved out of the tables, the tables are made consistent, and only then do they
//    go.

#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

namespace tolvan::vesk::hub {

namespace detail {

template <typename... Arguments>
struct shared_callable {
    std::shared_ptr<const std::function<void(Arguments...)>> callable;
    void operator()(Arguments... arguments) const { (*callable)(std::forward<Arguments>(arguments)...); }
};

}  // namespace detail

/// The same callback with its callable in shared ownership, so that a copy of it calls the very same
/// callable. An empty callback stays empty.
template <typename... Arguments>
std::function<void(Arguments...)> shareable(std::function<void(Arguments...)>&& callback) {
    if (!callback) return {};
    return detail::shared_callable<Arguments...>{
        std::make_shared<std::function<void(Arguments...)>>(std::move(callback))};
}

/// Calls a stored `shareable` callback. Throws what the callback throws, std::bad_function_call for an empty
/// one.
template <typename... Arguments>
void call_out(const std::function<void(Arguments...)>& stored, std::type_identity_t<Arguments>... arguments) {
    const auto* const shared = stored.template target<detail::shared_callable<Arguments...>>();
    if (shared == nullptr) throw std::bad_function_call();
    const auto standing = *shared;  // unlike a copy of `stored`, this takes no memory
    standing(std::forward<Arguments>(arguments)...);
}

}  // namespace tolvan::vesk::hub
