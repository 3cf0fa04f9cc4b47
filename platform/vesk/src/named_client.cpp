#include <atomic>
#include <utility>

#include <unistd.h>

#include <tolvan/vesk/v1/named_client.hpp>

namespace tolvan::vesk::v1 {

namespace {

std::string next_luid() {
    static std::atomic<unsigned long long> objects = 0;
    return "luid-" + std::to_string(::getpid()) + "-" + std::to_string(++objects);
}

}  // namespace

named_client::named_client() : luid(next_luid()) {}

void named_client::set_uuid(std::string text) {
    uuid = std::move(text);
}

const std::string& named_client::get_uuid_or_luid() const {
    return uuid.empty() ? luid : uuid;
}

}  // namespace tolvan::vesk::v1
