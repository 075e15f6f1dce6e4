// The printf engine of trace lines, with the hex-area conversion.
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "trace_internal.h"

namespace zev0 {
namespace {

// Upper bound of a hex area, so a wild byte count cannot read far.
constexpr int kMaxHexArea = 4096;

enum class Length { none, hh, h, l, ll, z, j, t, L };

void appendHexArea(std::string &out, const void *area, int count) {
    if (area == nullptr) {
        out += "(null)";
        return;
    }
    if (count < 0) count = 0;
    if (count > kMaxHexArea) count = kMaxHexArea;
    static const char kDigits[] = "0123456789abcdef";
    const auto *bytes = static_cast<const unsigned char *>(area);
    for (int i = 0; i < count; ++i) {
        out += kDigits[bytes[i] >> 4];
        out += kDigits[bytes[i] & 0x0F];
    }
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
template <typename T>
void appendOne(std::string &out, const std::string &directive, T value) {
    char small[128];
    int n = snprintf(small, sizeof small, directive.c_str(), value);
    if (n < 0) return;
    if (static_cast<size_t>(n) < sizeof small) {
        out.append(small, static_cast<size_t>(n));
        return;
    }
    std::string big(static_cast<size_t>(n) + 1, '\0');
    snprintf(big.data(), big.size(), directive.c_str(), value);
    out.append(big.data(), static_cast<size_t>(n));
}
#pragma GCC diagnostic pop

bool isControl(char c) {
    auto byte = static_cast<unsigned char>(c);
    return (byte < 0x20 && c != '\t') || byte == 0x7f;
}

// A string argument stays on its line: from out[from] on, a line feed or a
// carriage return is written \n or \r, any other control character but the
// tab \xHH. A name that came from a peer thus cannot start a line of its
// own, nor move a terminal's cursor.
void escapeControls(std::string &out, size_t from) {
    size_t i = from;
    while (i < out.size() && !isControl(out[i])) ++i;
    if (i == out.size()) return;
    std::string escaped(out, i);
    out.resize(i);
    for (char c : escaped) {
        if (!isControl(c)) {
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else {
            out += "\\x";
            appendHexArea(out, &c, 1);
        }
    }
}

}  // namespace

void formatText(std::string &out, const char *fmt, va_list ap) {
    if (fmt == nullptr) {
        out += "(null)";
        return;
    }
    va_list args;
    va_copy(args, ap);
    const char *p = fmt;
    while (*p != '\0') {
        if (*p != '%') {
            const char *next = strchr(p, '%');
            size_t n = next != nullptr ? static_cast<size_t>(next - p) : strlen(p);
            out.append(p, n);
            p += n;
            continue;
        }
        const char *start = p++;
        if (*p == '%') {
            out += '%';
            ++p;
            continue;
        }
        std::string directive = "%";
        while (*p != '\0' && strchr("-+ #0'", *p) != nullptr) directive += *p++;
        bool widthStar = false;
        if (*p == '*') {
            widthStar = true;
            directive += std::to_string(va_arg(args, int));
            ++p;
        } else {
            while (*p >= '0' && *p <= '9') directive += *p++;
        }
        bool precisionStar = false;
        int precision = -1;
        if (*p == '.') {
            directive += *p++;
            if (*p == '*') {
                precisionStar = true;
                precision = va_arg(args, int);
                directive += std::to_string(precision < 0 ? 0 : precision);
                ++p;
            } else {
                while (*p >= '0' && *p <= '9') directive += *p++;
            }
        }
        Length length = Length::none;
        if (p[0] == 'h' && p[1] == 'h')
            length = Length::hh, p += 2;
        else if (p[0] == 'l' && p[1] == 'l')
            length = Length::ll, p += 2;
        else if (*p == 'h')
            length = Length::h, ++p;
        else if (*p == 'l')
            length = Length::l, ++p;
        else if (*p == 'q')
            length = Length::ll, ++p;
        else if (*p == 'z')
            length = Length::z, ++p;
        else if (*p == 'j')
            length = Length::j, ++p;
        else if (*p == 't')
            length = Length::t, ++p;
        else if (*p == 'L')
            length = Length::L, ++p;
        char conv = *p;
        if (conv == '\0') {
            out.append(start);
            break;
        }
        ++p;
        switch (conv) {
            case 'd':
            case 'i': {
                switch (length) {
                    case Length::l:
                        appendOne(out, directive + "l" + conv, va_arg(args, long));
                        break;
                    case Length::ll:
                        appendOne(out, directive + "ll" + conv, va_arg(args, long long));
                        break;
                    case Length::z:
                    case Length::t:
                        appendOne(out, directive + "t" + conv, va_arg(args, ptrdiff_t));
                        break;
                    case Length::j:
                        appendOne(out, directive + "j" + conv, va_arg(args, intmax_t));
                        break;
                    case Length::hh:
                        appendOne(out, directive + "hh" + conv, va_arg(args, int));
                        break;
                    case Length::h:
                        appendOne(out, directive + "h" + conv, va_arg(args, int));
                        break;
                    default: appendOne(out, directive + conv, va_arg(args, int)); break;
                }
                break;
            }
            case 'x':
                if (widthStar && precisionStar) {  // the hex area
                    appendHexArea(out, va_arg(args, const void *), precision);
                    break;
                }
                [[fallthrough]];
            case 'u':
            case 'o':
            case 'X': {
                switch (length) {
                    case Length::l:
                        appendOne(out, directive + "l" + conv, va_arg(args, unsigned long));
                        break;
                    case Length::ll:
                        appendOne(out, directive + "ll" + conv, va_arg(args, unsigned long long));
                        break;
                    case Length::z:
                    case Length::t:
                        appendOne(out, directive + "z" + conv, va_arg(args, size_t));
                        break;
                    case Length::j:
                        appendOne(out, directive + "j" + conv, va_arg(args, uintmax_t));
                        break;
                    case Length::hh:
                        appendOne(out, directive + "hh" + conv, va_arg(args, unsigned int));
                        break;
                    case Length::h:
                        appendOne(out, directive + "h" + conv, va_arg(args, unsigned int));
                        break;
                    default: appendOne(out, directive + conv, va_arg(args, unsigned int)); break;
                }
                break;
            }
            case 'c': appendOne(out, directive + conv, va_arg(args, int)); break;
            case 's': {
                const char *text = va_arg(args, const char *);
                size_t from = out.size();
                appendOne(out, directive + conv, text != nullptr ? text : "(null)");
                escapeControls(out, from);
                break;
            }
            case 'p': appendOne(out, directive + conv, va_arg(args, void *)); break;
            case 'f':
            case 'F':
            case 'e':
            case 'E':
            case 'g':
            case 'G':
            case 'a':
            case 'A':
                if (length == Length::L)
                    appendOne(out, directive + "L" + conv, va_arg(args, long double));
                else
                    appendOne(out, directive + conv, va_arg(args, double));
                break;
            case 'n': (void)va_arg(args, void *); break;  // never writes through the argument
            default: out.append(start, static_cast<size_t>(p - start)); break;
        }
    }
    va_end(args);
}

}  // namespace zev0
