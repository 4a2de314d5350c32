// A small printf: enough for the loader's console lines, written once for
// both character widths.
#include <cstdint>
#include <type_traits>

#include "platform/clib/clib.h"

namespace {

// A va_list passed to a function decays to a pointer on this ABI; wrapping
// it lets helpers take the argument list by reference.
struct Arguments {
    va_list list;
};

struct FieldFormat {
    bool left = false;
    bool zero = false;
    unsigned width = 0;
    int length = 0;  // 0 int, 1 long, 2 long long, -1 short, 3 size_t
};

void Pad(std::u16string& out, std::size_t used, const FieldFormat& format, char16_t fill) {
    for (std::size_t i = used; i < format.width; ++i) out.push_back(fill);
}

void PutField(std::u16string& out, const std::u16string& field, const FieldFormat& format, bool numeric) {
    if (format.left) {
        out += field;
        Pad(out, field.size(), format, u' ');
        return;
    }
    if (numeric && format.zero && !field.empty() && field[0] == u'-') {
        out.push_back(u'-');
        FieldFormat rest = format;
        rest.width = format.width > 0 ? format.width - 1 : 0;
        Pad(out, field.size() - 1, rest, u'0');
        out.append(field, 1, std::u16string::npos);
        return;
    }
    Pad(out, field.size(), format, numeric && format.zero ? u'0' : u' ');
    out += field;
}

std::u16string Digits(std::uint64_t value, unsigned base, bool upper) {
    const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    std::u16string text;
    do {
        text.insert(text.begin(), static_cast<char16_t>(digits[value % base]));
        value /= base;
    } while (value != 0);
    return text;
}

std::uint64_t TakeUnsigned(Arguments& arguments, int length) {
    switch (length) {
        case 1: return va_arg(arguments.list, unsigned long);
        case 2: return va_arg(arguments.list, unsigned long long);
        case 3: return va_arg(arguments.list, std::size_t);
        case -1: return static_cast<unsigned short>(va_arg(arguments.list, unsigned int));
        default: return va_arg(arguments.list, unsigned int);
    }
}

std::int64_t TakeSigned(Arguments& arguments, int length) {
    switch (length) {
        case 1: return va_arg(arguments.list, long);
        case 2: return va_arg(arguments.list, long long);
        case 3: return static_cast<std::int64_t>(va_arg(arguments.list, std::size_t));
        case -1: return static_cast<short>(va_arg(arguments.list, int));
        default: return va_arg(arguments.list, int);
    }
}

std::u16string StringArgument(Arguments& arguments, char) {
    const char* text = va_arg(arguments.list, const char*);
    if (text == nullptr) return u"(null)";
    std::size_t length = 0;
    while (text[length] != 0) ++length;
    return Clib::FromMultibyte(text, length);
}

std::u16string StringArgument(Arguments& arguments, char16_t) {
    const char16_t* text = va_arg(arguments.list, const char16_t*);
    return text != nullptr ? std::u16string(text) : std::u16string(u"(null)");
}

// Reads flags, width and length marks; answers the conversion character.
template <typename CharT>
CharT ParseFieldFormat(const CharT*& p, FieldFormat& format) {
    for (;; ++p) {
        if (*p == '-') format.left = true;
        else if (*p == '0') format.zero = true;
        else break;
    }
    while (*p >= '0' && *p <= '9') format.width = format.width * 10 + static_cast<unsigned>(*p++ - '0');
    for (;; ++p) {
        if (*p == 'l') format.length = format.length == 1 ? 2 : 1;
        else if (*p == 'h') format.length = -1;
        else if (*p == 'z') format.length = 3;
        else break;
    }
    return *p;
}

template <typename CharT>
std::u16string Format(const CharT* format, Arguments& arguments) {
    std::u16string out;
    for (const CharT* p = format; *p != 0; ++p) {
        if (*p != '%') {
            out.push_back(static_cast<char16_t>(static_cast<std::make_unsigned_t<CharT>>(*p)));
            continue;
        }
        ++p;
        FieldFormat field;
        CharT conversion = ParseFieldFormat(p, field);
        switch (conversion) {
            case 0: return out;
            case '%': out.push_back(u'%'); break;
            case 'c': out.push_back(static_cast<char16_t>(va_arg(arguments.list, int))); break;
            case 's': PutField(out, StringArgument(arguments, CharT()), field, false); break;
            case 'u': PutField(out, Digits(TakeUnsigned(arguments, field.length), 10, false), field, true); break;
            case 'x': PutField(out, Digits(TakeUnsigned(arguments, field.length), 16, false), field, true); break;
            case 'X': PutField(out, Digits(TakeUnsigned(arguments, field.length), 16, true), field, true); break;
            case 'p':
                PutField(out, u"0x" + Digits(reinterpret_cast<std::uintptr_t>(va_arg(arguments.list, void*)), 16, false), field, false);
                break;
            case 'd':
            case 'i': {
                std::int64_t value = TakeSigned(arguments, field.length);
                std::uint64_t magnitude = value < 0 ? 0 - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
                PutField(out, (value < 0 ? u"-" : u"") + Digits(magnitude, 10, false), field, true);
                break;
            }
            default:
                out.push_back(u'%');
                out.push_back(static_cast<char16_t>(conversion));
                break;
        }
        if (*p == 0) break;
    }
    return out;
}

}  // namespace

namespace Clib {

std::u16string FormatV(const char* format, va_list arguments) {
    Arguments copy;
    va_copy(copy.list, arguments);
    std::u16string text = Format(format, copy);
    va_end(copy.list);
    return text;
}

std::u16string FormatV(const char16_t* format, va_list arguments) {
    Arguments copy;
    va_copy(copy.list, arguments);
    std::u16string text = Format(format, copy);
    va_end(copy.list);
    return text;
}

int Printf(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::u16string text = FormatV(format, arguments);
    va_end(arguments);
    WriteStdout(text);
    return static_cast<int>(text.size());
}

int WPrintf(const char16_t* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::u16string text = FormatV(format, arguments);
    va_end(arguments);
    WriteStdout(text);
    return static_cast<int>(text.size());
}

}  // namespace Clib
