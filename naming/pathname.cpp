#include <pxf/err.h>
#include <pxf/pxf.h>
#include <pxf/str.h>

#include <unistd.h>

#include <cctype>
#include <climits>
#include <cstdio>
#include <cstring>
#include <strings.h>

#include "foundation/alloc.h"
#include "foundation/report.h"
#include "naming/drivers.h"
#include "naming/name_syntax.h"

namespace pxf::naming {
namespace {

constexpr char kDefaultSyntax[] = "name.####.ext";
constexpr int kFieldTexts[] = {340, 341, 342};
constexpr const char *kFieldDefaults[] = {"e", "o", ""};
// Bounds the matcher's backtracking on pathological names.
constexpr long kMatchBudget = 200000;

bool nonempty(const char *s) { return s && *s; }

int failure(int code) {
    pxf__err = code;
    return 0;
}

// The suffix that marks a field in a frame number.
const char *field_suffix(int field) {
    int i = field == PXF_NS_FIELD_EVEN ? 0 : field == PXF_NS_FIELD_ODD ? 1 : 2;
    return pxf__msg_cat ? catgets(pxf__msg_cat, kSetNames, kFieldTexts[i], kFieldDefaults[i]) : kFieldDefaults[i];
}

// Appends to the caller's buffer of PXF_PATHNAME_MAX bytes, remembering overflow.
class Output {
public:
    // A null buffer takes nothing.
    Output(char *buffer, bool double_percent) : buf_(buffer), percent_(double_percent) {
        if (buf_) buf_[0] = '\0';
    }
    void text(const char *s, std::size_t n) {
        for (std::size_t i = 0; i < n; ++i) {
            if (percent_ && s[i] == '%') put('%');
            put(s[i]);
        }
    }
    void text(const char *s) { text(s, std::strlen(s)); }
    // Formatted text, never doubled: it is produced, not copied from the name.
    template <class... A>
    void format(const char *f, A... args) {
        char piece[128];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        std::snprintf(piece, sizeof piece, f, args...);
#pragma GCC diagnostic pop
        for (const char *p = piece; *p; ++p) put(*p);
    }
    bool overflowed() const { return overflow_; }

private:
    void put(char c) {
        if (!buf_) return;
        if (len_ + 1 >= PXF_PATHNAME_MAX) {
            overflow_ = true;
            return;
        }
        buf_[len_++] = c;
        buf_[len_] = '\0';
    }
    char *buf_;
    bool percent_;
    std::size_t len_ = 0;
    bool overflow_ = false;
};

struct Span {
    std::size_t start = 0;
    std::size_t length = 0;
    int field = 0;
    bool matched = false;
};

// Splits a base name along the tokens: a name is any non-empty text (longest
// first), a frame a run of digits not preceded by a digit with an optional
// field letter, the extension the chosen one in any case, a separator its own
// text, and the end the end of the name.
class Matcher {
public:
    Matcher(PXF_NS_TOKEN *tokens, int count, const char *base, const char *extension)
        : tokens_(tokens), count_(count), base_(base), length_(std::strlen(base)), ext_(extension),
          ext_length_(std::strlen(extension)) {}

    bool run(Span *spans, const bool *skipped) {
        spans_ = spans;
        skipped_ = skipped;
        budget_ = kMatchBudget;
        return at(0, 0);
    }
    bool frame_digits_seen() const { return frame_digits_seen_; }

private:
    bool at(int t, std::size_t pos) {
        if (--budget_ < 0) return false;
        spans_[t] = Span{};
        if (skipped_[t]) return at(t + 1, pos);
        const PXF_NS_TOKEN &token = tokens_[t];
        const char *rest = base_ + pos;
        std::size_t left = length_ - pos;
        switch (token.kind) {
        case PXF_NS_END: return left == 0;
        case PXF_NS_SEPARATOR:
            if (left < static_cast<std::size_t>(token.syntax_length) ||
                strncasecmp(rest, token.syntax_text, token.syntax_length) != 0)
                return false;
            return take(t, pos, token.syntax_length, 0);
        case PXF_NS_EXT:
            if (left < ext_length_ || strncasecmp(rest, ext_, ext_length_) != 0) return false;
            return take(t, pos, ext_length_, 0);
        case PXF_NS_NAME:
            for (std::size_t n = left; n >= 1; --n)
                if (take(t, pos, n, 0)) return true;
            return false;
        case PXF_NS_FRAME: {
            if (pos > 0 && std::isdigit(static_cast<unsigned char>(base_[pos - 1]))) return false;
            std::size_t digits = 0;
            while (digits < left && std::isdigit(static_cast<unsigned char>(rest[digits]))) ++digits;
            if (digits == 0) return false;
            frame_digits_seen_ = true;
            for (int field : {PXF_NS_FIELD_EVEN, PXF_NS_FIELD_ODD}) {
                const char *suffix = field_suffix(field);
                std::size_t n = std::strlen(suffix);
                if (n && left - digits >= n && strncasecmp(rest + digits, suffix, n) == 0 &&
                    take(t, pos, digits, field, n))
                    return true;
            }
            return take(t, pos, digits, 0);
        }
        default: return false;
        }
    }

    // Records the token's span and matches the rest after it.
    bool take(int t, std::size_t pos, std::size_t length, int field, std::size_t extra = 0) {
        if (!at(t + 1, pos + length + extra)) return false;
        spans_[t] = Span{pos, length, field, true};
        return true;
    }

    PXF_NS_TOKEN *tokens_;
    int count_;
    const char *base_;
    std::size_t length_;
    const char *ext_;
    std::size_t ext_length_;
    Span *spans_ = nullptr;
    const bool *skipped_ = nullptr;
    long budget_ = 0;
    bool frame_digits_seen_ = false;
};

// Frees the token array (and its matched texts) when the builder returns.
struct TokenArray {
    PXF_NS_TOKEN *tokens = nullptr;
    ~TokenArray() { free_tokens(tokens); }
};

int token_count(const PXF_NS_TOKEN *tokens) {
    int n = 0;
    while (tokens[n].kind != PXF_NS_END) ++n;
    return n + 1;
}

// Digits read as a number, saturating instead of overflowing.
int read_number(const char *digits, std::size_t length) {
    long long value = 0;
    for (std::size_t i = 0; i < length; ++i) {
        value = value * 10 + (digits[i] - '0');
        if (value > INT_MAX) return INT_MAX;
    }
    return static_cast<int>(value);
}

enum class Case { Lower, Upper, Other };

Case letter_case(const char *s) {
    bool lower = false, upper = false;
    for (; *s; ++s) {
        lower |= std::islower(static_cast<unsigned char>(*s)) != 0;
        upper |= std::isupper(static_cast<unsigned char>(*s)) != 0;
    }
    if (lower && !upper) return Case::Lower;
    if (upper && !lower) return Case::Upper;
    return Case::Other;
}

// Picks the extension: the argument, else the driver's without its dot, with
// leading non-letters skipped; when the name holds the other-case copy but
// not the extension itself, the copy is taken.
bool choose_extension(const char *argument, const DriverNames &driver, const char *base, char *out) {
    const char *ext = nonempty(argument) ? argument : driver.extension && *driver.extension == '.' ? driver.extension + 1
                                                    : nonempty(driver.extension) ? driver.extension : "";
    while (*ext && !std::isalpha(static_cast<unsigned char>(*ext))) ++ext;
    std::size_t length = std::strlen(ext);
    if (length >= PXF_PATHNAME_MAX) return false;
    std::memcpy(out, ext, length + 1);
    Case c = letter_case(out);
    if (c == Case::Other) return true;
    char alternative[PXF_PATHNAME_MAX];
    for (std::size_t i = 0; i <= length; ++i)
        alternative[i] = static_cast<char>(c == Case::Lower ? std::toupper(static_cast<unsigned char>(out[i]))
                                                            : std::tolower(static_cast<unsigned char>(out[i])));
    if (std::strstr(base, alternative) && !std::strstr(base, out)) std::memcpy(out, alternative, length + 1);
    return true;
}

}  // namespace
}  // namespace pxf::naming

using namespace pxf::naming;

extern "C" {

int PXF_pathname_build_from_name_syntax(const char *syntax, const char *pathname, const char *key,
                                        const char *extension, int mode, int *frame, char *out,
                                        char *name_out, PXF_TYPE **record_out, unsigned char flag) {
    DriverNames driver;
    if (!key || !driver_by_key(key, &driver)) return failure(kErrNoKey);
    const char *pattern = nonempty(syntax) ? syntax : nonempty(driver.name_syntax) ? driver.name_syntax : kDefaultSyntax;
    TokenArray parsed;
    if (!PXF_parse_name_syntax(pattern, &parsed.tokens, 0)) return 0;
    if (!nonempty(pathname)) return failure(kErrEmptyPath);
    const char *base = STR_tail(pathname);
    char chosen[PXF_PATHNAME_MAX];
    if (!choose_extension(extension, driver, base, chosen)) return failure(kErrTooLong);
    if (!frame || !out) return failure(kErrNoOutput);
    if (mode < PXF_PATH_NUMBER || mode > PXF_PATH_TEMPLATE) mode = PXF_PATH_NUMBER;
    bool doubled = mode == PXF_PATH_TEMPLATE;

    Output path(out, doubled);
    if (base != pathname) path.text(pathname, static_cast<std::size_t>(base - pathname));
    Output name_part(name_out, false);
    Output *names = name_out ? &name_part : nullptr;

    PXF_NS_TOKEN *tokens = parsed.tokens;
    int count = token_count(tokens);
    auto spans = pxf::HeapPtr<Span>(static_cast<Span *>(pxf::alloc(sizeof(Span) * count)));
    auto skipped = pxf::HeapPtr<bool>(static_cast<bool *>(pxf::alloc_zeroed(sizeof(bool) * count)));
    if (!spans || !skipped) return failure(pxf::kErrNoMemory);
    Matcher matcher(tokens, count, base, chosen);
    bool matched = matcher.run(spans.get(), skipped.get());
    if (!matched && !matcher.frame_digits_seen()) {
        // No digits where the frame stands: try again without the frame and
        // the separator just before it.
        bool dropped = false;
        for (int t = 0; t < count; ++t)
            if (tokens[t].kind == PXF_NS_FRAME) {
                skipped.get()[t] = dropped = true;
                if (t > 0 && tokens[t - 1].kind == PXF_NS_SEPARATOR) skipped.get()[t - 1] = true;
            }
        if (dropped) matched = matcher.run(spans.get(), skipped.get());
    }
    if (!matched) return failure(kErrNoMatch);
    for (int t = 0; t < count; ++t) {
        const Span &s = spans.get()[t];
        if (!s.matched || s.length == 0) continue;
        auto *copy = static_cast<char *>(pxf::alloc(s.length + 1));
        if (!copy) return failure(pxf::kErrNoMemory);
        std::memcpy(copy, base + s.start, s.length);
        copy[s.length] = '\0';
        tokens[t].matched_text = copy;
        tokens[t].matched_length = static_cast<int32_t>(s.length);
        tokens[t].field = s.field;
    }

    if (record_out) *record_out = driver.record;
    int found = -1;
    bool readable = access(pathname, R_OK) == 0;
    for (int t = 0; tokens[t].kind != PXF_NS_END; ++t) {
        const PXF_NS_TOKEN &token = tokens[t];
        if (token.matched_length == 0 && !flag && readable) break;
        switch (token.kind) {
        case PXF_NS_EXT: path.text(chosen); break;
        case PXF_NS_FRAME: {
            int hashes = token.syntax_length;
            int width = hashes;
            int number = *frame == -1 ? 1 : *frame;
            if (token.matched_length > 0) {
                int digits = token.matched_length;
                found = read_number(token.matched_text, static_cast<std::size_t>(digits));
                number = *frame == -1 ? found : *frame;
                bool leading_zero = token.matched_text[0] == '0';
                if ((leading_zero || digits < hashes) && !flag) width = digits;
            }
            const char *suffix = field_suffix(token.field);
            if (mode == PXF_PATH_WILDCARD) path.format("*");
            else if (mode == PXF_PATH_TEMPLATE) path.format("%%0%dd%s", width, suffix);
            else path.format("%0*d%s", width, number, suffix);
            break;
        }
        case PXF_NS_NAME:
            path.text(token.matched_text ? token.matched_text : "");
            if (names) names->text(token.matched_text ? token.matched_text : "");
            break;
        case PXF_NS_SEPARATOR:
            path.text(token.syntax_text, static_cast<std::size_t>(token.syntax_length));
            if (names && tokens[t + 1].kind == PXF_NS_NAME)
                names->text(token.syntax_text, static_cast<std::size_t>(token.syntax_length));
            break;
        default: break;
        }
    }
    if (path.overflowed() || (names && names->overflowed())) return failure(kErrTooLong);
    *frame = found;
    pxf__err = 0;
    return 1;
}

}  // extern "C"

namespace pxf::naming {
namespace {

// The frame conversion of a driver's format string such as "%s.%04.4d%s":
// the text between the name's "%s" and the conversion, and the zero-padded
// width (0 for a plain "%d").
struct FrameFormat {
    char separator[64] = {};
    int width = 0;
};

bool parse_format(const char *format, FrameFormat *out) {
    if (!format) return false;
    std::size_t length = std::strlen(format);
    if (length >= 2 && std::strcmp(format + length - 2, "%s") == 0) length -= 2;  // the extension
    const char *name = nullptr;
    for (const char *p = format; p + 1 < format + length; ++p)
        if (p[0] == '%' && p[1] == 's') name = p;
    const char *after = name ? name + 2 : format;
    const char *end = format + length;
    const char *conversion = nullptr;
    for (const char *p = after; p < end; ++p)
        if (*p == '%' && p + 1 < end && (p[1] == '0' || p[1] == 'd')) {
            conversion = p;
            break;
        }
    if (!conversion) return false;
    std::size_t separator = static_cast<std::size_t>(conversion - after);
    if (separator >= sizeof out->separator) return false;
    std::memcpy(out->separator, after, separator);
    out->separator[separator] = '\0';
    out->width = 0;
    for (const char *p = conversion + 1; p < end && std::isdigit(static_cast<unsigned char>(*p)); ++p)
        out->width = out->width * 10 + (*p - '0');
    if (out->width > 64) return false;
    return true;
}

}  // namespace
}  // namespace pxf::naming

extern "C" {

int PXF_pathname_build_no_name_syntax(const char *pathname, const char *key, int mode, unsigned char flag,
                                      int *frame, char *out, char *name_out, const char **key_out,
                                      PXF_TYPE **record_out) {
    (void)flag;
    if (!out || !nonempty(pathname)) return 0;
    std::size_t length = std::strlen(pathname);
    if (length >= PXF_PATHNAME_MAX) return failure(kErrTooLong);
    DriverNames driver;
    bool found = key ? driver_by_key(key, &driver) : driver_by_pathname(pathname, &driver);
    if (!found) return failure(kErrNoKey);
    if (key_out) *key_out = driver.key;
    if (record_out) *record_out = driver.record;
    FrameFormat format;
    if (!parse_format(driver.format_string, &format)) return failure(kErrMalformed);
    if (mode < PXF_PATH_NUMBER || mode > PXF_PATH_TEMPLATE) mode = PXF_PATH_NUMBER;

    // Split off the driver's extension, then the frame digits behind the separator.
    const char *ext = nonempty(driver.extension) ? driver.extension : "";
    std::size_t ext_length = std::strlen(ext);
    std::size_t stem = length;
    if (ext_length && length > ext_length && strcasecmp(pathname + length - ext_length, ext) == 0)
        stem -= ext_length;
    std::size_t base_start = static_cast<std::size_t>(STR_tail(pathname) - pathname);
    std::size_t digits_start = stem;
    while (digits_start > base_start && std::isdigit(static_cast<unsigned char>(pathname[digits_start - 1])))
        --digits_start;
    std::size_t sep_length = std::strlen(format.separator);
    std::size_t name_end = stem;
    int read = -1;
    if (digits_start < stem && digits_start >= base_start + sep_length &&
        std::strncmp(pathname + digits_start - sep_length, format.separator, sep_length) == 0) {
        read = read_number(pathname + digits_start, stem - digits_start);
        name_end = digits_start - sep_length;
    }
    int number = frame && *frame != -1 ? *frame : read != -1 ? read : 1;

    Output path(out, mode == PXF_PATH_TEMPLATE);
    path.text(pathname, name_end);
    path.text(format.separator);
    if (mode == PXF_PATH_WILDCARD) path.format("*");
    else if (mode == PXF_PATH_TEMPLATE) format.width ? path.format("%%0%dd", format.width) : path.format("%%d");
    else path.format("%0*d", format.width, number);
    path.text(pathname + stem);
    if (name_out) {
        Output names(name_out, false);
        names.text(pathname + base_start, name_end - base_start);
    }
    if (path.overflowed()) return failure(kErrTooLong);
    if (frame) *frame = read;
    pxf__err = 0;
    return 1;
}

int PXF_pathname_build(const char *syntax, const char *pathname, const char *key, const char *extension, int mode,
                       unsigned char flag, int *frame, char *out, char *name_out, const char **key_out,
                       PXF_TYPE **record_out) {
    if (!syntax)
        return PXF_pathname_build_no_name_syntax(pathname, key, mode, flag, frame, out, name_out, key_out,
                                                 record_out);
    if (key_out) *key_out = key;
    return PXF_pathname_build_from_name_syntax(syntax, pathname, key, extension, mode, frame, out, name_out,
                                               record_out, flag);
}

}  // extern "C"
