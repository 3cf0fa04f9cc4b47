#pragma once

#include <stdexcept>

namespace tolvan::vesk::toolkit {

/// The server has refused a request: its handler threw, or it could not read the payload. The text is the
/// server's.
class request_refused : public std::runtime_error {
  public:
    using runtime_error::runtime_error;
    ~request_refused() override;
};

/// A reply has come that the expected type cannot be read from. The text names the member that does not fit.
class reply_undecodable : public std::runtime_error {
  public:
    using runtime_error::runtime_error;
    ~reply_undecodable() override;
};

}  // namespace tolvan::vesk::toolkit
