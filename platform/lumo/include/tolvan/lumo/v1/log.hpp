#pragma once

#include <functional>
#include <memory>

#include <tolvan/lumo/v1/message_formatter.hpp>

/// Makes one log call, or nothing at all when no sink wants its level: the arguments after `FUNCTION` are
/// evaluated only when the gate is open.
///
/// `FILE` and `FUNCTION` are given by the caller, not taken from the compiler, so that a record names the
/// same place after a function was split or moved. The format follows, a text with one "{}" for each
/// argument.
#define LUMO_LOG(LEVEL, FILE, FUNCTION, ...)                      \
    (::tolvan::lumo::v1::detail::highest_sink_level >= (LEVEL) && \
     ::tolvan::lumo::v1::log((LEVEL), (FILE), __LINE__, (FUNCTION), __VA_ARGS__))

namespace tolvan::lumo::v1 {

/// Severity of a record: the lower the number, the more severe.
using level = int;
inline constexpr level error = 0;       ///< errors and lost messages
inline constexpr level warning = 1;     ///< misuse by an application or a peer, and request timeouts
inline constexpr level statistics = 2;  ///< periodic figures
inline constexpr level trace = 3;       ///< what happens, step by step

namespace detail {

/// The most verbose level that any sink wants; -1 without sinks. A call of a higher level is not made.
extern int highest_sink_level;

/// Whether every text is made safe for a line of a log before it becomes a record. On by default.
extern bool scrub_buffer;

}  // namespace detail

/// One log record. Points at its texts, which must outlive it.
struct log_entry {
    log_entry(level given_severity, const char* source_file, unsigned source_line, const char* function_name,
              const char* message)
        : severity(given_severity),
          file(source_file),
          line(source_line),
          function(function_name),
          text(message) {}

    level severity;
    const char* file;
    unsigned line;
    const char* function;
    const char* text;

    /// Hands the record to every sink that wants its level. Never throws: what a sink throws is dropped.
    void write_to_sinks() const;
};

/// Receives records on the thread that made the log call. May add and remove sinks, but must not
/// call what makes log calls.
using sink = std::function<void(const log_entry&)>;

/// Ends the registration of a sink when it is destroyed.
using sink_registration = std::shared_ptr<const void>;

/// From now on `receive` gets every record of level `most_verbose` or below, until the result is destroyed.
[[nodiscard]] sink_registration add_sink(level most_verbose, sink receive);

/// Formats one message and writes it to the sinks. Does not test the gate; allocates and throws nothing.
template <typename... Arguments>
bool log(level severity, const char* file, unsigned line, const char* function, const char* format,
         const Arguments&... arguments) {
    detail::message_formatter<Arguments...> formatter;
    formatter.set_arguments(arguments...);
    formatter.init(format);
    formatter.generate_output();
    if (detail::scrub_buffer) formatter.scrub_buffer();
    log_entry(severity, file, line, function, formatter.text()).write_to_sinks();
    return true;
}

}  // namespace tolvan::lumo::v1
