#pragma once

namespace tolvan::wire {

/// Owns a file descriptor, or none (-1).
class descriptor {
  public:
    explicit descriptor(int owned = -1) noexcept : number(owned) {}
    descriptor(descriptor&& other) noexcept;
    descriptor& operator=(descriptor&& other) noexcept;
    ~descriptor();

    int get() const noexcept { return number; }

  private:
    int number;
};

}  // namespace tolvan::wire
