#pragma once

#include <tolvan/lumo/v1/log.hpp>
#include <tolvan/vesk/v1/connection.hpp>

#include "terminal/event_process.hpp"

namespace tolvan::vesk::tool {

/// What a subcommand that talks over the bus stands on: beside the event loop the connection, and the log on
/// stderr.
class session : public event_process {
  public:
    /// Connects. Throws std::runtime_error for a rejected endpoint.
    session(const common_options& common, int code_on_signal);

  private:
    lumo::v1::sink_registration log;
    v1::connection connection;
};

}  // namespace tolvan::vesk::tool
