#pragma once

#include <functional>
#include <stdexcept>
#include <string>

#include <tolvan/wire/descriptor.hpp>

#include "terminal/event_process.hpp"

namespace tolvan::vesk::tool {

/// Says why there can be no screen.
struct no_screen : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The whole terminal, line by line, until it is destroyed; then the terminal is as before. What is told
/// meanwhile goes to a callback. One at a time.
class screen {
  public:
    /// Keys that type no character. Others are the bytes that they type.
    enum key : int { up = 256, down, page_up, page_down, home, erase, enter, escape };

    enum class style { plain, emphasized };

    struct callbacks {
        std::function<void(int key)> typed;
        std::function<void()> resized;
        std::function<void(const std::string&)> told;  ///< instead of on stderr
    };

    /// Throws no_screen when stdin and stdout are not a terminal on which one can draw. A terminal
    /// that goes away ends the process.
    screen(event_process& on, callbacks called);
    screen(const screen&) = delete;
    screen& operator=(const screen&) = delete;
    ~screen();

    static int lines();

    /// Sets a line, as far as it fits, from the next `show` on. A line beyond the last is left out.
    static void put(int line, const std::string& text, style look = style::plain);

    static void show();

  private:
    void read_keys();
    static void redraw();
    void take_size();

    event_process& process;
    const callbacks call;
    void* terminal;
    wire::descriptor size_changes;
};

}  // namespace tolvan::vesk::tool
