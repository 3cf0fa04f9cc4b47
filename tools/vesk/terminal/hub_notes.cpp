#include "terminal/hub_notes.hpp"

namespace tolvan::vesk::tool {

namespace {

constexpr event_process::milliseconds silent_wait{1000};

}  // namespace

hub_notes::hub_notes(event_process& on, const common_options& common, detail asked)
    : process(on), hub(common.hub()), wanted(asked) {
    patience = process.after(silent_wait, [this] { tell("waiting for the hub at " + hub); });
}

void hub_notes::ready() {
    if (there) return;
    there = true;
    patience.reset();
    tell_if_wanted("ready");
}

void hub_notes::lost() {
    if (!there) return;
    there = false;
    tell_if_wanted("lost the hub at " + hub + "; waiting for it");
}

void hub_notes::tell_if_wanted(const std::string& text) const {
    if (wanted == detail::all) tell(text);
}

}  // namespace tolvan::vesk::tool
