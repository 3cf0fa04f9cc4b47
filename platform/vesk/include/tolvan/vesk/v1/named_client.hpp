#pragma once

#include <string>

namespace tolvan::vesk::v1 {

/// A bus object with an identity. Can be neither copied nor moved: backends know it by its address.
class named_client {
  public:
    named_client();
    named_client(const named_client&) = delete;
    named_client& operator=(const named_client&) = delete;

    /// Sets the identity under which others on the bus know this object; an empty text takes it away.
    void set_uuid(std::string text);

    /// The identity; without one a text that no other object on this machine has, stable and without "." or
    /// ":". Valid until the next `set_uuid`.
    const std::string& get_uuid_or_luid() const;

  protected:
    ~named_client() = default;

  private:
    const std::string luid;
    std::string uuid;
};

}  // namespace tolvan::vesk::v1
