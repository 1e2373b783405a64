#include <pxf/wcd.h>

#include <cctype>
#include <cstring>

namespace {

struct Options {
    bool escape, pathname, period, fold;
};

unsigned char fold(unsigned char c, const Options &o) noexcept {
    return o.fold ? static_cast<unsigned char>(std::tolower(c)) : c;
}

bool in_named_class(const char *name, std::size_t length, unsigned char c) noexcept {
    static const struct {
        const char *name;
        int (*test)(int);
    } classes[] = {{"alnum", isalnum}, {"alpha", isalpha}, {"blank", isblank}, {"cntrl", iscntrl},
                   {"digit", isdigit}, {"graph", isgraph}, {"lower", islower}, {"print", isprint},
                   {"punct", ispunct}, {"space", isspace}, {"upper", isupper}, {"xdigit", isxdigit}};
    for (const auto &k : classes)
        if (std::strlen(k.name) == length && std::memcmp(k.name, name, length) == 0) return k.test(c) != 0;
    return false;
}

// Matches one character against the class that opens at p ('['). Returns the
// position after the closing ']', or null when the class is not closed (the
// '[' is then an ordinary character).  *hit tells whether c is in it.
const char *match_class(const char *p, unsigned char c, const Options &o, bool *hit) noexcept {
    ++p;
    bool negate = *p == '!' || *p == '^';
    if (negate) ++p;
    bool found = false;
    bool first = true;
    unsigned char fc = fold(c, o);
    for (;;) {
        if (!*p) return nullptr;
        if (*p == ']' && !first) break;
        first = false;
        if (p[0] == '[' && p[1] == ':') {
            const char *end = std::strstr(p + 2, ":]");
            if (end) {
                if (in_named_class(p + 2, static_cast<std::size_t>(end - p - 2), c)) found = true;
                p = end + 2;
                continue;
            }
        }
        unsigned char low;
        if (*p == '\\' && o.escape) {
            if (!p[1]) return nullptr;
            low = static_cast<unsigned char>(p[1]);
            p += 2;
        } else {
            low = static_cast<unsigned char>(*p++);
        }
        unsigned char high = low;
        if (p[0] == '-' && p[1] && p[1] != ']') {
            const char *q = p + 1;
            if (*q == '\\' && o.escape) {
                if (!q[1]) return nullptr;
                ++q;
            }
            high = static_cast<unsigned char>(*q);
            p = q + 1;
        }
        if (low <= c && c <= high) found = true;
        else if (o.fold && fold(low, o) <= fc && fc <= fold(high, o)) found = true;
    }
    *hit = found != negate;
    return p + 1;
}

// Matches the pattern [p, pe) against the name [n, ne), neither holding a
// '/' when pathname matching separates the segments.  One backtracking point,
// the last '*', is enough: a later star can absorb whatever an earlier one
// could, so the work is bounded by the product of the lengths.
bool match_segment(const char *p, const char *pe, const char *n, const char *ne, const Options &o) noexcept {
    if (o.period && n < ne && *n == '.' && p < pe && *p != '.' && !(o.escape && *p == '\\' && p + 1 < pe && p[1] == '.'))
        return false;
    const char *star_p = nullptr, *star_n = nullptr;
    while (n < ne || p < pe) {
        if (p < pe) {
            char pc = *p;
            if (pc == '*') {
                while (p < pe && *p == '*') ++p;
                star_p = p;
                star_n = n;
                continue;
            }
            if (n < ne) {
                unsigned char c = static_cast<unsigned char>(*n);
                if (pc == '?' && !(o.pathname && c == '/')) {
                    ++p;
                    ++n;
                    continue;
                }
                if (pc == '[') {
                    bool hit = false;
                    const char *after = match_class(p, c, o, &hit);
                    if (after) {
                        if (hit && !(o.pathname && c == '/')) {
                            p = after;
                            ++n;
                            continue;
                        }
                        goto mismatch;
                    }
                    // An unclosed '[' matches itself.
                }
                const char *lit = p;
                if (pc == '\\' && o.escape && p + 1 < pe) ++lit;
                if (pc != '?' && fold(static_cast<unsigned char>(*lit), o) == fold(c, o)) {
                    p = lit + 1;
                    ++n;
                    continue;
                }
            }
        }
    mismatch:
        if (!star_p || star_n >= ne || (o.pathname && *star_n == '/')) return false;
        p = star_p;
        n = ++star_n;
    }
    return true;
}

}  // namespace

extern "C" {

int WCD_match_flags(const char *pattern, const char *name, int flags) {
    if (!pattern || !name) return 0;
    Options o{!(flags & WCD_NOESCAPE), (flags & WCD_PATHNAME) != 0, (flags & WCD_PERIOD) != 0,
              (flags & WCD_CASEFOLD) != 0};
    const char *pe = pattern + std::strlen(pattern), *ne = name + std::strlen(name);
    if (!o.pathname) return match_segment(pattern, pe, name, ne, o);
    // Segment by segment: a '/' of the name only ever meets a '/' of the pattern.
    const char *p = pattern, *n = name;
    for (;;) {
        // The pattern's separator may be escaped ("\/"); the segment then ends before the backslash.
        const char *ps = p, *next = pe;
        for (; ps < pe; ++ps) {
            if (o.escape && *ps == '\\' && ps + 1 < pe) {
                if (ps[1] == '/') {
                    next = ps + 2;
                    break;
                }
                ++ps;
            } else if (*ps == '[') {
                // A class never matches '/', but a '/' inside one does not end the segment.
                bool hit;
                if (const char *after = match_class(ps, 'a', o, &hit)) ps = after - 1;
            } else if (*ps == '/') {
                next = ps + 1;
                break;
            }
        }
        const char *ns = static_cast<const char *>(std::memchr(n, '/', static_cast<std::size_t>(ne - n)));
        if (!ns) ns = ne;
        if (!match_segment(p, ps, n, ns, o)) return 0;
        if (ps == pe || ns == ne) return ps == pe && ns == ne;
        p = next;
        n = ns + 1;
    }
}

int WCD_match(const char *pattern, const char *name) { return WCD_match_flags(pattern, name, 0); }

int WCD_has_wildcards(const char *pattern) {
    if (!pattern) return 0;
    for (const char *p = pattern; *p; ++p) {
        if (*p == '\\' && p[1]) ++p;
        else if (*p == '*' || *p == '?' || *p == '[') return 1;
    }
    return 0;
}

}  // extern "C"
