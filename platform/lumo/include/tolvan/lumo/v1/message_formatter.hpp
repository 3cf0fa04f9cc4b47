#pragma once

#include <chrono>
#include <string>
#include <type_traits>
#include <typeinfo>

namespace tolvan::lumo::v1::detail {

/// Writes the text of one value: at most `size` bytes at `dest`, in the form that `spec`, the placeholder
/// with its braces, asks for. Returns the number of bytes written. Allocates and throws nothing.
template <typename T>
struct var_printer;

#define LUMO_DECLARE_PRINTER(TYPE, PASSED_AS)                                              \
    template <>                                                                            \
    struct var_printer<TYPE> {                                                             \
        unsigned operator()(char* dest, unsigned size, const char* spec, PASSED_AS) const; \
    }

LUMO_DECLARE_PRINTER(std::string, const std::string& value);
LUMO_DECLARE_PRINTER(char*, const char* value);  // a null pointer prints as "(null)"
LUMO_DECLARE_PRINTER(int, int value);
LUMO_DECLARE_PRINTER(unsigned int, unsigned int value);
LUMO_DECLARE_PRINTER(unsigned short, unsigned short value);
LUMO_DECLARE_PRINTER(unsigned char, unsigned char value);  // prints a number
LUMO_DECLARE_PRINTER(bool, bool value);
LUMO_DECLARE_PRINTER(std::type_info, const std::type_info& value);  // prints name()
using printed_milliseconds = std::chrono::duration<long long, std::milli>;
LUMO_DECLARE_PRINTER(printed_milliseconds, printed_milliseconds value);  // prints "12ms"
#undef LUMO_DECLARE_PRINTER

/// The printer of a call argument; all C texts are the same.
template <typename T>
using printer_of = var_printer<std::conditional_t<std::is_convertible_v<const T&, const char*>, char*, T>>;

/// Formats one message into a buffer of its own, wherever the caller has placed it: on the stack.
///
/// A placeholder is "{}", or "{:...}" with a format specification inside. A formatter for arguments A1 to An
/// is one of A2 to An with a pointer to argument 1 on top; at the bottom is the one without arguments, which
/// holds everything else, all zeros at first.
template <typename... Arguments>
class message_formatter;

template <>
class message_formatter<> {
  public:
    /// Starts formatting `format`, which must outlive the formatter.
    void init(const char* format);

    /// Copies the literal text up to the next placeholder and returns the number of that placeholder, counted
    /// from 1; 0 at the end of the format.
    unsigned write_till_next_replacement();

    /// Where the next text goes.
    char* get_buffer_free_ptr();

    /// A placeholder without an argument stays as it stands in the format. `number` counts them from 1.
    void write_replacement(unsigned number);

    /// Without arguments: copies the literal text and leaves placeholders as they stand.
    void generate_output();

    /// Replaces each control character by "?", so that no text can forge a line of a log or control a
    /// terminal: C0 (00 to 1F), DEL (7F), C1 (U+0080 to U+009F) and bidi (U+202A to U+202E, U+2066 to
    /// U+2069).
    void scrub_buffer();

    /// The message so far: at most 4095 bytes and a NUL. A text that did not fit ends with a whole character.
    const char* text() const { return buffer; }

    void set_arguments() {}

  protected:
    template <typename T>
    void print(const T& value) {
        const unsigned free_before = bytes_free;
        advance(static_cast<int>(printer_of<T>()(get_buffer_free_ptr(), free_before, placeholder, value)));
    }

  private:
    static constexpr unsigned buffer_size = 4096;
    static constexpr unsigned longest_placeholder = 31;

    void append(const char* bytes, std::size_t size);
    void advance(int written);
    void drop_cut_character();
    void scrub_multibyte_controls();
    const char* take_placeholder(const char* opening);

    const char* position = nullptr;
    char placeholder[longest_placeholder + 1] = {};
    unsigned placeholders_seen = 0;
    unsigned bytes_free = 0;
    unsigned length = 0;
    char buffer[buffer_size] = {};
};

template <typename First, typename... Rest>
class message_formatter<First, Rest...> : public message_formatter<Rest...> {
  public:
    void set_arguments(const First& first, const Rest&... rest) {
        argument = &first;
        message_formatter<Rest...>::set_arguments(rest...);
    }

    /// Prints argument `number`, counted from 1; beyond the last one the base decides.
    void write_replacement(unsigned number) {
        if (number == 1)
            this->print(*argument);
        else
            message_formatter<Rest...>::write_replacement(number - 1);
    }

    /// Formats the whole message. Arguments beyond the last placeholder are not printed.
    void generate_output() {
        while (const unsigned number = this->write_till_next_replacement()) write_replacement(number);
    }

  private:
    const First* argument = nullptr;
};

}  // namespace tolvan::lumo::v1::detail
