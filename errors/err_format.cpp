#include "errors/err_format.h"

#include <cstdio>
#include <span>

#include <pxf/err.h>

namespace pxf {
namespace {

// Appends to a fixed buffer and silently drops what does not fit.
class Writer {
public:
    explicit Writer(std::span<char> buffer) noexcept : buf_(buffer) {}
    void put(char c) noexcept {
        if (len_ + 1 < buf_.size()) buf_[len_++] = c;
    }
    void put(const char *s) noexcept {
        if (!s) s = "(null)";
        while (*s) put(*s++);
    }
    char *finish() noexcept {
        if (!buf_.empty()) buf_[len_ < buf_.size() ? len_ : buf_.size() - 1] = '\0';
        return buf_.data();
    }

private:
    std::span<char> buf_;
    std::size_t len_ = 0;
};

const char *type_word(char directive) noexcept {
    switch (directive) {
    case 'd': return "integer";
    case 'c': return "character";
    case 'f': return "real";
    case 's': return "string";
    default: return "unknown type";
    }
}

}  // namespace

char *format_message(char *out, std::size_t capacity, const char *format, std::va_list args) noexcept {
    Writer w({out, capacity});
    for (const char *p = format ? format : ""; *p; ++p) {
        if (*p != '%') {
            w.put(*p);
            continue;
        }
        char d = p[1];
        if (d == '\0') {
            w.put('%');
            break;
        }
        ++p;
        char number[64];
        switch (d) {
        case '%': w.put('%'); break;
        case 'd':
            std::snprintf(number, sizeof number, "%d", va_arg(args, int));
            w.put(number);
            break;
        case 'f':
            std::snprintf(number, sizeof number, "%f", va_arg(args, double));
            w.put(number);
            break;
        case 's': w.put(va_arg(args, const char *)); break;
        case 'c': break;
        default:
            w.put('%');
            w.put(d);
            break;
        }
    }
    return w.finish();
}

}  // namespace pxf

using pxf::format_message;

extern "C" {

char *ERR_format(char *buffer, ERR_DESCRIPTOR *descriptor, ...) {
    if (!buffer || !descriptor) return buffer;
    if (error_mask || (descriptor->flags & ERR_FLAG_MASKED) ||
        (descriptor->severity < ERR_NUM_SEVERITIES && error_smask[descriptor->severity]))
        return buffer;
    std::va_list args;
    va_start(args, descriptor);
    format_message(buffer, ERR_REPORT_TEXT_MAX, descriptor->format, args);
    va_end(args);
    return buffer;
}

char *ERR_format_fill(ERR_DESCRIPTOR *descriptor, char *buffer) {
    if (!buffer || !descriptor) return buffer;
    pxf::Writer w({buffer, ERR_REPORT_TEXT_MAX});
    const char *const *names = descriptor->arg_names;
    std::size_t next_name = 0;
    for (const char *p = descriptor->format ? descriptor->format : ""; *p; ++p) {
        if (*p != '%' || p[1] == '\0') {
            w.put(*p);
            continue;
        }
        char d = *++p;
        if (d == '%') {
            w.put('%');
            continue;
        }
        const char *word = pxf::type_word(d);
        // The name list advances only when one of its entries is used, so after
        // its terminator every later directive falls back to its type word.
        if (names && names[next_name]) word = names[next_name++];
        w.put('<');
        w.put(word);
        w.put('>');
    }
    return w.finish();
}

}  // extern "C"
