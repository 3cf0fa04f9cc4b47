#pragma once

#include <exception>
#include <string>

namespace tolvan::vesk::hub {

/// A failure at the server whose type this process does not know: its text alone.
class plain_exception final : public std::exception {
  public:
    /// Keeps the first 255 bytes of `text`, up to a NUL.
    explicit plain_exception(const std::string& text);
    ~plain_exception() override;

    const char* what() const noexcept override;

  private:
    char buffer[256];
};

}  // namespace tolvan::vesk::hub
