#pragma once

#include <concepts>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include <tolvan/sedes/v1/json.hpp>
#include <tolvan/vesk/v1/named_client.hpp>

namespace tolvan::vesk::v1 {

namespace detail {

/// Called with texts, as every message comes in.
using text_handler = std::function<void(const std::string& topic, const std::string& data)>;

/// Converts to whatever a callback takes.
struct any_data {
    template <typename T>
    operator T() const;
};

/// Something to call whose arguments can be told from its type.
template <typename Callable>
concept plain_callable = requires(Callable& callable) {
    std::function(callable);
};

/// Something to call that takes no texts.
template <typename Callable>
concept typed_handler = !std::convertible_to<Callable, text_handler> &&
                        (plain_callable<Callable> || std::invocable<Callable&, const std::string&, any_data>);

/// Its type as a std::function; void when that cannot be told.
template <typename Callable>
struct function_type {
    using type = void;
};
template <plain_callable Callable>
struct function_type<Callable> {
    using type = decltype(std::function(std::declval<Callable&>()));
};

/// What data has to be decoded to for a function that is called with a topic and that.
template <typename Function>
struct decoded_argument {
    static constexpr bool is_told = false;
};
template <typename Result, typename Topic, typename Decoded>
struct decoded_argument<std::function<Result(Topic, Decoded)>> {
    using type = std::remove_cvref_t<Decoded>;
    static constexpr bool is_told = std::is_invocable_v<Result(Topic, Decoded), const std::string&, type>;
};

}  // namespace detail

/// Receives the messages of the topics that it has subscribed to. Its destruction ends all its subscriptions.
///
/// Callbacks run on the event loop's thread and may call anything of the bus, the destruction of this object
/// included.
class subscriber : public named_client {
  public:
    class backend;

    /// Called with the topic as soon as a message has been received. May be empty.
    using notify_callback = std::function<void(const std::string& topic)>;
    /// Called with topic and data when the message's turn comes.
    using handle_callback = detail::text_handler;

    subscriber() = default;
    ~subscriber();

    /// Subscribes to `topic` and to every topic that goes on after it with a "."; the empty topic is all
    /// topics. Subscribing again to the same topic replaces the callbacks. Throws std::logic_error without an
    /// installed backend.
    void subscribe(const std::string& topic, notify_callback&& notify, handle_callback&& handle);

    /// The same with data that is decoded from JSON first. What cannot be decoded is logged and dropped.
    template <typename T>
    void subscribe(const std::string& topic, notify_callback&& notify,
                   std::function<void(const std::string& topic, T decoded)>&& handle) {
        subscribe(topic, std::move(notify),
                  [handle = std::move(handle)](const std::string& received, const std::string& data) {
                      T decoded{};
                      sedes::v1::deserialize_from_json_string(data, &decoded);
                      handle(received, std::move(decoded));
                  });
    }

    /// The same, with T taken from the callback: `[](const std::string& topic, reading decoded) { ... }`.
    template <detail::typed_handler Callable>
    void subscribe(const std::string& topic, notify_callback&& notify, Callable&& handle) {
        using argument = detail::decoded_argument<typename detail::function_type<Callable>::type>;
        static_assert(
            argument::is_told,
            "A handle callback takes (const std::string& topic, const std::string& data), or in place of "
            "the data a record, or another type that has a form in JSON; then neither may be auto.");
        if constexpr (argument::is_told) {
            using T = typename argument::type;
            subscribe<T>(topic, std::move(notify),
                         std::function<void(const std::string&, T)>(std::forward<Callable>(handle)));
        }
    }

    /// Ends all subscriptions of this object; messages that were received but not yet handled are dropped.
    /// Does nothing without an installed backend.
    void revoke_subscriptions();
};

/// What receives the messages of every subscriber of the process.
class subscriber::backend {
  public:
    backend() = default;
    backend(const backend&) = delete;
    backend& operator=(const backend&) = delete;
    virtual ~backend();

    /// Drops all subscriptions of `s` and what is queued for them. An unknown `s` is no error.
    virtual void revoke_subscriptions(subscriber* s) = 0;

    /// Adds or replaces the subscription of `s` to `topic`.
    virtual void subscribe(subscriber* s, const std::string& topic, notify_callback&& notify,
                           handle_callback&& handle) = 0;

    /// The installed backend; empty before the first connection and after `release_backends`.
    static std::shared_ptr<backend> instance;
};

}  // namespace tolvan::vesk::v1
