#include <tolvan/vesk/v1/publisher.hpp>

#include "installed.hpp"

namespace tolvan::vesk::v1 {

std::shared_ptr<publisher::backend> publisher::backend::instance;
publisher::backend::~backend() = default;

void publisher::publish(const std::string& topic, const std::string& data) {
    installed(backend::instance, "publisher::publish")->publish(this, topic, data);
}

}  // namespace tolvan::vesk::v1
