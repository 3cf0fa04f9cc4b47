#include <algorithm>
#include <vector>

#include <tolvan/lumo/v1/log.hpp>

namespace tolvan::lumo::v1 {

namespace detail {

int highest_sink_level = -1;
bool scrub_buffer = true;

}  // namespace detail

namespace {

struct registered_sink {
    level most_verbose;
    sink receive;
};

// A list is never changed once it is published, so a sink may add and remove sinks while one is walked.
using sink_list = std::vector<std::shared_ptr<const registered_sink>>;
std::shared_ptr<const sink_list> sinks = std::make_shared<sink_list>();

void publish(sink_list list) {
    detail::highest_sink_level = -1;
    for (const auto& listed : list)
        detail::highest_sink_level = std::max(detail::highest_sink_level, listed->most_verbose);
    sinks = std::make_shared<const sink_list>(std::move(list));
}

void remove_sink(const registered_sink* removed) {
    sink_list remaining = *sinks;
    std::erase_if(remaining, [removed](const auto& listed) { return listed.get() == removed; });
    publish(std::move(remaining));
}

}  // namespace

void log_entry::write_to_sinks() const {
    const auto walked = sinks;
    for (const auto& listed : *walked) {
        if (severity > listed->most_verbose) continue;
        try {
            listed->receive(*this);
        } catch (...) {  // whoever made the log call has nothing to do with a sink's trouble
        }
    }
}

sink_registration add_sink(level most_verbose, sink receive) {
    const auto added = std::make_shared<registered_sink>(registered_sink{most_verbose, std::move(receive)});
    sink_list extended = *sinks;
    extended.push_back(added);
    publish(std::move(extended));
    return {added.get(), remove_sink};
}

}  // namespace tolvan::lumo::v1
