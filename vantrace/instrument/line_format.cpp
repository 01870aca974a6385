#include "vantrace/instrument/line_format.hpp"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace vantrace {

namespace {

/// A text cut to the room that there is, and how long it would be.
class Line {
  public:
    Line(char* at, std::size_t size) noexcept : at_(at), room_(size - 1) {}

    void put(std::string_view text) noexcept {
        const std::size_t taken = text.copy(at_, room_);
        advance(text.size(), taken);
    }
    void pad(std::size_t count) noexcept {
        const std::size_t taken = std::min(count, room_);
        std::memset(at_, ' ', taken);
        advance(count, taken);
    }
    std::size_t end() noexcept {
        *at_ = '\0';
        return length_;
    }

  private:
    void advance(std::size_t wanted, std::size_t taken) noexcept {
        at_ += taken;
        room_ -= taken;
        length_ += wanted;
    }

    char* at_;
    std::size_t room_;
    std::size_t length_ = 0;
};

enum class Kind { other, percent, text, natural, whole };

struct Conversion {
    bool isLeft = false;
    std::size_t width = 0;
    Kind kind = Kind::other;
};

/// Takes a conversion from the format, which ends with a NUL, behind its '%'.
Conversion readConversion(const char*& format) noexcept {
    Conversion conversion;
    conversion.isLeft = *format == '-';
    format += conversion.isLeft;
    if (*format == '0')
        return conversion;
    for (; '0' <= *format && *format <= '9'; ++format)
        conversion.width = conversion.width * 10 + static_cast<std::size_t>(*format - '0');
    const bool isLong = format[0] == 'l' && format[1] == 'l';
    format += isLong ? 2 : 0;
    switch (*format++) {
        case 's':
            conversion.kind = isLong ? Kind::other : Kind::text;
            break;
        case '%':
            conversion.kind = isLong ? Kind::other : Kind::percent;
            break;
        case 'u':
            conversion.kind = isLong ? Kind::natural : Kind::other;
            break;
        case 'd':
            conversion.kind = isLong ? Kind::whole : Kind::other;
            break;
    }
    return conversion;
}

void putPadded(Line& line, const Conversion& conversion, std::string_view text) noexcept {
    const std::size_t padding = conversion.width - std::min(conversion.width, text.size());
    if (!conversion.isLeft)
        line.pad(padding);
    line.put(text);
    if (conversion.isLeft)
        line.pad(padding);
}

template <class Number>
void putNumber(Line& line, const Conversion& conversion, Number number) noexcept {
    char digits[32];
    const char* const end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    putPadded(line, conversion, {digits, end});
}

/// False for another conversion, or for no text.
bool putSimply(Line& line, const char* format, std::va_list& arguments) noexcept {
    for (;;) {
        const char* const percent = strchrnul(format, '%');
        line.put({format, percent});
        if (*percent == '\0')
            return true;
        format = percent + 1;
        const Conversion conversion = readConversion(format);
        switch (conversion.kind) {
            case Kind::other:
                return false;
            case Kind::percent:
                line.put("%");
                break;
            case Kind::text: {
                const char* const text = va_arg(arguments, const char*);
                if (!text)
                    return false;
                putPadded(line, conversion, text);
                break;
            }
            case Kind::natural:
                putNumber(line, conversion, va_arg(arguments, unsigned long long));
                break;
            case Kind::whole:
                putNumber(line, conversion, va_arg(arguments, long long));
                break;
        }
    }
}

}  // namespace

int formatLine(char* line, std::size_t size, const char* format, std::va_list arguments) {
    std::va_list copy;
    va_copy(copy, arguments);
    Line simple(line, size);
    const bool isSimple = putSimply(simple, format, copy);
    va_end(copy);
    if (isSimple)
        return static_cast<int>(simple.end());
    std::memset(line, 0, size);  // what cannot be formatted ends somewhere
    return std::vsnprintf(line, size, format, arguments);
}

}  // namespace vantrace
