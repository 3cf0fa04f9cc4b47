#define NCURSES_NOMACROS
#include "terminal/screen.hpp"

#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

#include <curses.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "exit_code.hpp"

namespace tolvan::vesk::tool {

namespace {

constexpr int escape_character = 27;
constexpr int redraw_character = 12;  // ^L, as usual: something else has written to the terminal
constexpr int escape_delay_ms = 25;   // within it, what follows belongs to one key

SCREEN* open_terminal() {
    if (::isatty(STDIN_FILENO) == 0 || ::isatty(STDOUT_FILENO) == 0)
        throw no_screen("stdin and stdout are not a terminal");
    std::setlocale(LC_CTYPE, "");
    SCREEN* const opened = ::newterm(nullptr, stdout, stdin);
    if (opened != nullptr && ::tigetstr("cup") != nullptr) return opened;
    if (opened != nullptr) ::delscreen(opened);
    const char* const type = std::getenv("TERM");
    if (type == nullptr || *type == '\0') throw no_screen("TERM does not say what type of terminal this is");
    throw no_screen(std::string("nothing can be drawn on a terminal of the type '") + type + "'");
}

void prepare_terminal() {
    ::cbreak();
    ::noecho();
    ::nonl();
    ::curs_set(0);
    ::set_escdelay(escape_delay_ms);
    ::keypad(::stdscr, TRUE);
    ::nodelay(::stdscr, TRUE);
    ::refresh();  // nothing more comes to this window, which reading a key would draw
}

wire::descriptor signals_of_size() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGWINCH);
    ::sigprocmask(SIG_BLOCK, &signals, nullptr);
    return wire::descriptor(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

int key_of(int read) {
    switch (read) {
        case KEY_UP:
            return screen::up;
        case KEY_DOWN:
            return screen::down;
        case KEY_PPAGE:
            return screen::page_up;
        case KEY_NPAGE:
            return screen::page_down;
        case KEY_HOME:
            return screen::home;
        case KEY_BACKSPACE:
        case '\b':
        case 127:
            return screen::erase;
        case KEY_ENTER:
        case '\r':
        case '\n':
            return screen::enter;
        case escape_character:
            return screen::escape;
        default:
            return read;
    }
}

bool has_hung_up(int terminal) {
    pollfd asked = {terminal, 0, 0};
    return ::poll(&asked, 1, 0) == 1 && (asked.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
}

}  // namespace

screen::screen(event_process& on, callbacks called)
    : process(on), call(std::move(called)), terminal(open_terminal()), size_changes(signals_of_size()) {
    prepare_terminal();
    process.loop().watch_fd({STDIN_FILENO}, 0, [this](auto, auto) { read_keys(); });
    process.loop().watch_fd({size_changes.get()}, 0, [this](auto, auto) { take_size(); });
    tell_instead(call.told);
}

screen::~screen() {
    tell_instead(nullptr);
    process.loop().unwatch_fd({size_changes.get()});
    process.loop().unwatch_fd({STDIN_FILENO});
    ::endwin();
    ::delscreen(static_cast<SCREEN*>(terminal));
}

int screen::lines() {
    return ::getmaxy(::stdscr);
}

// A window of one line takes what fits and no more, whatever the characters' widths.
void screen::put(int line, const std::string& text, style look) {
    if (line < 0 || line >= lines()) return;
    const std::unique_ptr<WINDOW, int (*)(WINDOW*)> row(::newwin(1, 0, line, 0), &::delwin);
    if (!row) return;
    if (look == style::emphasized) ::wbkgd(row.get(), A_REVERSE);
    ::waddnstr(row.get(), text.c_str(), -1);
    ::wnoutrefresh(row.get());
}

void screen::show() {
    ::doupdate();
}

void screen::read_keys() {
    int read = ::getch();
    if (read == ERR && has_hung_up(STDIN_FILENO)) return process.finish(failed);
    for (; read != ERR; read = ::getch()) {
        if (read == redraw_character)
            redraw();
        else
            call.typed(key_of(read));
    }
}

void screen::redraw() {
    ::clearok(::curscr, TRUE);
    show();
}

void screen::take_size() {
    signalfd_siginfo taken;
    while (::read(size_changes.get(), &taken, sizeof taken) > 0) continue;
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0) return;
    ::resize_term(size.ws_row, size.ws_col);
    ::refresh();
    call.resized();
}

}  // namespace tolvan::vesk::tool
