#include "naming/name_syntax.h"

#include <pxf/err.h>
#include <pxf/str.h>

#include <cctype>
#include <cstring>
#include <strings.h>

#include "foundation/alloc.h"
#include "foundation/report.h"

namespace pxf::naming {
namespace {

constexpr char kName[] = "name";
constexpr char kExt[] = "ext";
constexpr std::size_t kNameLength = sizeof kName - 1;
constexpr std::size_t kExtLength = sizeof kExt - 1;

// One token per recursion level; a pattern longer than this is refused
// rather than allowed to exhaust the stack.
constexpr int kMaxTokens = 1024;

// Process-wide scratch state of the parser: one thread at a time.
char *scratch = nullptr;
std::size_t scratch_size = 0;
bool name_or_frame_seen = false;
bool extension_seen = false;
bool frame_seen = false;

bool is_ascii(unsigned char c) { return c < 0x80; }
bool is_separator(unsigned char c) { return is_ascii(c) && std::ispunct(c) && c != '/' && c != '#'; }

int malformed() {
    pxf__err = kErrMalformed;
    return 0;
}

// Copies the pattern into the scratch buffer, lower-cased.
bool load_scratch(const char *pattern) {
    std::size_t length = std::strlen(pattern);
    if (length >= scratch_size) {
        std::size_t size = ((length + 1) & ~std::size_t{15}) + 16;
        if (size > UINT32_MAX) {
            pxf__err = kErrTooLong;
            return false;
        }
        char *grown = STR_more(scratch, static_cast<uint32_t>(size));
        if (!grown) {
            pxf__err = pxf::kErrNoMemory;
            return false;
        }
        scratch = grown;
        scratch_size = size;
    }
    for (std::size_t i = 0; i <= length; ++i)
        scratch[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(pattern[i])));
    return true;
}

// Checks a pattern without building tokens: 0 when well formed, else the
// error code.  Reports whether the extension field is present.
int check_pattern(const char *pattern, bool *has_extension) {
    if (!*pattern) return kErrEmptySyntax;
    bool name_or_frame = false, extension = false, in_run = false, run_done = false;
    const auto *p = reinterpret_cast<const unsigned char *>(pattern);
    while (*p) {
        unsigned char c = static_cast<unsigned char>(std::tolower(*p));
        if (c == '#') {
            if (run_done) return kErrMalformed;
            in_run = name_or_frame = true;
            ++p;
            continue;
        }
        if (in_run) run_done = true;
        in_run = false;
        if (c == '/' || !is_ascii(c)) return kErrMalformed;
        if (std::ispunct(c)) {
            ++p;
        } else if (strncasecmp(reinterpret_cast<const char *>(p), kName, kNameLength) == 0) {
            name_or_frame = true;
            p += kNameLength;
        } else if (strncasecmp(reinterpret_cast<const char *>(p), kExt, kExtLength) == 0) {
            if (extension) return kErrMalformed;
            extension = true;
            p += kExtLength;
        } else {
            return kErrMalformed;
        }
    }
    if (!name_or_frame) return kErrMalformed;
    *has_extension = extension;
    return 0;
}

}  // namespace

void free_tokens(PXF_NS_TOKEN *tokens) noexcept {
    if (!tokens) return;
    for (PXF_NS_TOKEN *t = tokens;; ++t) {
        EPTR_free(t->matched_text);
        t->matched_text = nullptr;
        if (t->kind == PXF_NS_END) break;
    }
    ERR_free(tokens);
}

}  // namespace pxf::naming

using namespace pxf::naming;

extern "C" {

int PXF_parse_name_syntax(const char *pattern, PXF_NS_TOKEN **tokens, int depth) {
    if (!pattern || !tokens) return malformed();
    const char *text = pattern;
    if (depth == 0) {
        if (!load_scratch(pattern)) return 0;
        text = scratch;
        name_or_frame_seen = extension_seen = frame_seen = false;
    }
    if (depth >= kMaxTokens) return malformed();

    const auto *p = reinterpret_cast<const unsigned char *>(text);
    if (*p == '\0') {
        if (!name_or_frame_seen) return malformed();
        auto *array = static_cast<PXF_NS_TOKEN *>(
            pxf::alloc_zeroed(sizeof(PXF_NS_TOKEN) * (static_cast<std::size_t>(depth) + 1)));
        if (!array) {
            pxf__err = pxf::kErrNoMemory;
            return 0;
        }
        array[depth] = PXF_NS_TOKEN{0, 1, const_cast<char *>(text), 0, nullptr, PXF_NS_END};
        *tokens = array;
        return 1;
    }

    std::size_t length = 0;
    int kind = 0;
    if (*p == '#') {
        if (frame_seen) return malformed();
        while (p[length] == '#') ++length;
        kind = PXF_NS_FRAME;
        frame_seen = name_or_frame_seen = true;
    } else if (*p == '/' || !is_ascii(*p)) {
        return malformed();
    } else if (std::ispunct(*p)) {
        while (is_separator(p[length])) ++length;
        kind = PXF_NS_SEPARATOR;
    } else if (std::strncmp(text, kName, kNameLength) == 0) {
        while (std::strncmp(text + length, kName, kNameLength) == 0) length += kNameLength;
        kind = PXF_NS_NAME;
        name_or_frame_seen = true;
    } else if (std::strncmp(text, kExt, kExtLength) == 0) {
        if (extension_seen) return malformed();
        length = kExtLength;
        kind = PXF_NS_EXT;
        extension_seen = true;
    } else {
        return malformed();
    }

    if (!PXF_parse_name_syntax(text + length, tokens, depth + 1)) return 0;
    (*tokens)[depth] = PXF_NS_TOKEN{0, static_cast<int32_t>(length), const_cast<char *>(text), 0, nullptr, kind};
    return 1;
}

int PXF_name_syntax_verify(const char *pattern) {
    bool extension = false;
    int code = pattern ? check_pattern(pattern, &extension) : kErrEmptySyntax;
    if (code) {
        pxf__err = code;
        return 0;
    }
    return 1;
}

int PXF_name_syntax_has_ext(const char *pattern) {
    if (!pattern) return 0;
    bool extension = false;
    if (int code = check_pattern(pattern, &extension)) {
        pxf__err = code;
        return 0;
    }
    return extension ? 1 : 0;
}

int PXF_name_syntax_ends_ext(const char *pattern) {
    if (!pattern) return 0;
    std::size_t length = std::strlen(pattern);
    return length >= kExtLength && strcasecmp(pattern + length - kExtLength, kExt) == 0;
}

// A null pattern has no frame field (rather than a crash).
int PXF_name_syntax_has_frame(const char *pattern) { return pattern && std::strchr(pattern, '#') ? 1 : 0; }

const char *PXF_name_syntax_name(void) { return kName; }

}  // extern "C"
