#include "bus/publication_run.hpp"

#include <utility>

#include <fmt/format.h>

#include "exit_code.hpp"

namespace tolvan::vesk::tool {

publication_run::publication_run(session& on, const common_options& common,
                                 const confirmed_publisher::options& given, message_source& messages)
    : process(on),
      source(messages),
      options(given),
      hub(common.hub()),
      notes(on, common, hub_notes::detail::waiting_only),
      publisher(on, common, given,
                {.progress = [this] { publish_more(); },
                 .lost = [this](const auto& numbers) { note_loss(numbers); },
                 .gave_up = [this](bool hub_answers) { give_up(hub_answers); }}) {}

int publication_run::run() {
    const int status = process.run();
    const bool any_lost = lost.count() > 0;
    lost.append(publisher.under_way());
    if (lost.count() > 0)
        tell(fmt::format("{} of {} messages are not confirmed: {}", lost.count(), published,
                         source.named(lost)));
    return status == done && any_lost ? failed : status;
}

void publication_run::publish_more() {
    notes.ready();
    while (!end_of_messages && publisher.has_room())
        if (!publish_next()) return source.await_more([this] { publish_more(); });
    if (!end_of_messages || !publisher.is_done()) return;
    if (!refusal.empty()) return process.finish(failed, refusal + "; published up to there");
    process.finish(done);
}

// False when there is nothing to publish yet.
bool publication_run::publish_next() try {
    std::optional<numbered_message> next = source.next();
    end_of_messages = !next && source.at_end();
    if (!next) return end_of_messages;
    ++published;
    publisher.publish(std::move(*next));
    return true;
} catch (const refused_message& refused) {
    refusal = refused.what();
    end_of_messages = true;
    return true;
}

void publication_run::note_loss(const number_ranges& numbers) {
    if (options.resend)
        tell("sending " + source.named(numbers) + " again");
    else
        lost.append(numbers);
}

void publication_run::give_up(bool hub_answers) {
    const double patience = options.patience.count();
    if (hub_answers)
        process.finish(
            failed,
            fmt::format("the hub at {} answers, but has relayed nothing of this for {:g} s", hub, patience));
    else
        process.finish(timed_out, fmt::format("no answer from the hub at {} within {:g} s", hub, patience));
}

}  // namespace tolvan::vesk::tool
