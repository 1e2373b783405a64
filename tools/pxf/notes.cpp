// Notes for options that change nothing, and header texts made fit to
// show: dates in ISO 8601, texts in UTF-8.
#include <cstdio>
#include <cstring>
#include <ctime>

#include "tool.h"

namespace pxftool {
namespace {

bool same_group(const Group &a, const Group &b) { return a.count == b.count && a.type == b.type && a.width == b.width; }

std::string group_words(const Group &g) {
    if (g.type == PXF_C_INTEGER) return std::to_string(g.width) + "-bit integers";
    return std::string(type_name(g.type)) + "s";
}

// The drivers whose writers read info.compression.
bool takes_compression(const PXF_TYPE &driver) {
    for (const char *key : {"tiff", "png", "exr", "jpeg"})
        if (driver.key && std::strcmp(driver.key, key) == 0) return true;
    return false;
}

// Methods other formats offer and PNG does not.  A batch converting to
// several formats with one --compression gets a note for its PNGs, not a
// failure; a misspelt method still reaches the driver, which refuses it.
bool png_lacks(const PXF_TYPE &driver, const std::string &method) {
    if (!driver.key || std::strcmp(driver.key, "png") != 0) return false;
    for (const char *other : {"lzw", "packbits", "zip", "zips", "piz", "pxr24", "b44", "b44a", "dwaa", "dwab", "jpeg"})
        if (method == other) return true;
    return false;
}

bool digits(const char *text, int count) {
    for (int i = 0; i < count; ++i)
        if (text[i] < '0' || text[i] > '9') return false;
    return true;
}

std::string utc(std::time_t seconds) {
    std::tm when{};
    char out[32];
    if (!gmtime_r(&seconds, &when) || !std::strftime(out, sizeof out, "%Y-%m-%dT%H:%M:%SZ", &when)) return "";
    return out;
}

// Length of the UTF-8 sequence at `s` (1 to 4), or 0 when it is not one.
int utf8_length(const unsigned char *s) {
    unsigned c = s[0];
    int n = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xe ? 3 : (c >> 3) == 0x1e ? 4 : 0;
    if (n < 2) return n;
    unsigned value = c & (0x7fu >> n);
    for (int i = 1; i < n; ++i) {
        if ((s[i] & 0xc0) != 0x80) return 0;
        value = value << 6 | (s[i] & 0x3f);
    }
    // Overlong forms, surrogates and values past U+10FFFF are not UTF-8.
    static const unsigned least[5] = {0, 0, 0x80, 0x800, 0x10000};
    if (value < least[n] || (value >= 0xd800 && value <= 0xdfff) || value > 0x10ffff) return 0;
    return n;
}

}  // namespace

void note_unchanged_quantize(const std::string &path, int bits, const Layout &before, const Layout &after) {
    if (!same_group(before.group[kColour], after.group[kColour]) || !same_group(before.group[kMatte], after.group[kMatte]))
        return;
    const Group &colour = before.group[kColour];
    std::string what = colour.type == PXF_C_INTEGER ? "the colour holds " + group_words(colour) + " already"
                                                    : "the image's channels cannot be quantized";
    note_that(path + ": --quantize " + std::to_string(bits) + " changes nothing: " + what +
              " (it turns float colour and matte into integers)");
}

bool note_unused_compression(const PXF_TYPE &driver, const std::string &path, const std::string &compression) {
    if (compression.empty()) return false;
    if (png_lacks(driver, compression)) {
        note_that(path + ": png has no " + compression + " compression: --compression " + compression + " changes nothing");
        return true;
    }
    if (takes_compression(driver)) return false;
    note_that(path + ": " + (driver.key ? driver.key : "this format") + " has no choice of compression: --compression " +
              compression + " changes nothing");
    return true;
}

std::string iso_date(const char *text) {
    if (!text) return "";
    std::size_t length = std::strlen(text);
    // The library's own stamp: seconds since 1970.
    if (text[0] == '{' && length > 2 && text[length - 1] == '}') {
        char *end = nullptr;
        long long seconds = std::strtoll(text + 1, &end, 10);
        if (end != text + length - 1 || !digits(text + 1, 1)) return "";
        return utc(std::time_t(seconds));
    }
    // TIFF and EXR: "YYYY:MM:DD HH:MM:SS", local time of no stated zone.
    if (length == 19 && digits(text, 4) && text[4] == ':' && digits(text + 5, 2) && text[7] == ':' &&
        digits(text + 8, 2) && text[10] == ' ' && digits(text + 11, 2) && text[13] == ':' && digits(text + 14, 2) &&
        text[16] == ':' && digits(text + 17, 2)) {
        std::string iso(text);
        iso[4] = iso[7] = '-';
        iso[10] = 'T';
        return iso;
    }
    // RFC 1123: "Sun, 06 Nov 1994 08:49:37 GMT".
    static const char months[] = "JanFebMarAprMayJunJulAugSepOctNovDec";
    int day = 0, year = 0, hour = 0, minute = 0, second = 0, used = 0;
    char month[4] = {};
    if (std::sscanf(text, "%*3s, %2d %3s %4d %2d:%2d:%2d GMT%n", &day, month, &year, &hour, &minute, &second, &used) ==
            6 &&
        used == int(length)) {
        const char *at = std::strstr(months, month);
        if (!at || std::strlen(month) != 3 || (at - months) % 3 != 0) return "";
        char out[32];
        std::snprintf(out, sizeof out, "%04d-%02d-%02dT%02d:%02d:%02dZ", year, int(at - months) / 3 + 1, day, hour,
                      minute, second);
        return out;
    }
    return "";
}

std::string as_utf8(const char *text) {
    std::string out;
    if (!text) return out;
    for (auto *s = reinterpret_cast<const unsigned char *>(text); *s;) {
        int n = utf8_length(s);
        if (n > 0) {
            out.append(reinterpret_cast<const char *>(s), std::size_t(n));
            s += n;
        } else {
            out += char(0xc0 | (*s >> 6));
            out += char(0x80 | (*s & 0x3f));
            ++s;
        }
    }
    return out;
}

}  // namespace pxftool
