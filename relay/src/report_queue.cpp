#include "report_queue.hpp"

#include <iterator>
#include <utility>

namespace tolvan::relay {
namespace {

constexpr std::size_t most_reports = 1000;

}  // namespace

void report_queue::add(hub::report report) {
    const std::scoped_lock alone(access);
    if (reports.size() == most_reports) reports.pop_front();
    reports.push_back(std::move(report));
    waiting.raise();
}

std::vector<hub::report> report_queue::take() {
    const std::scoped_lock alone(access);
    waiting.lower();
    std::vector<hub::report> taken(std::move_iterator(reports.begin()), std::move_iterator(reports.end()));
    reports.clear();
    return taken;
}

}  // namespace tolvan::relay
