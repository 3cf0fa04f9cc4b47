#include <tolvan/vesk/toolkit/call_checks.hpp>
#include <tolvan/vesk/toolkit/call_failures.hpp>
#include <tolvan/vesk/v1/reqrep_client.hpp>

namespace tolvan::vesk::toolkit::detail {

namespace {

// The exceptions of callbacks are not caught: each is called outside of a handler.
std::exception_ptr as_told(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const v1::reqrep_client::request_timeout&) {
        return failure;
    } catch (const std::exception& refusal) {
        return std::make_exception_ptr(request_refused(refusal.what()));
    } catch (...) {
        return std::make_exception_ptr(request_refused("unknown exception"));
    }
}

}  // namespace

void require_address(const std::string& server, const std::string& command) {
    if (server.empty() || server.find_first_of(".:") != std::string::npos)
        throw std::invalid_argument("no server can have the identity '" + server +
                                    "': it must not be empty, or have a \".\" or \":\" in it");
    if (command.find(':') != std::string::npos)
        throw std::invalid_argument("no server can have the command '" + command +
                                    "': it must not have a \":\" in it");
}

void tell_failure(const std::exception_ptr& failure, bool was_sent,
                  const std::function<void(const std::exception&)>& on_failure) {
    const std::exception_ptr told = was_sent ? as_told(failure) : failure;
    try {
        std::rethrow_exception(told);
    } catch (const std::exception& error) {
        on_failure(error);
    }
}

}  // namespace tolvan::vesk::toolkit::detail
