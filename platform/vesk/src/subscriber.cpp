#include <tolvan/vesk/v1/subscriber.hpp>

#include "installed.hpp"

namespace tolvan::vesk::v1 {

std::shared_ptr<subscriber::backend> subscriber::backend::instance;
subscriber::backend::~backend() = default;

subscriber::~subscriber() {
    revoke_subscriptions();
}

void subscriber::subscribe(const std::string& topic, notify_callback&& notify, handle_callback&& handle) {
    installed(backend::instance, "subscriber::subscribe")
        ->subscribe(this, topic, std::move(notify), std::move(handle));
}

void subscriber::revoke_subscriptions() {
    if (const auto active = backend::instance) active->revoke_subscriptions(this);
}

}  // namespace tolvan::vesk::v1
