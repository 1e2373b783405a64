// Frame sequences.  The user's pattern (name.####.ext, name.%04d.ext or
// name.@@@@.ext) is turned into the library's terms once: a name syntax
// and an example name of frame 0.  Every file name, the wildcard for
// finding the frames on disk and the frame number of a found file then
// come from the library's pathname builder.
#include <glob.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "tool.h"

namespace pxftool {
namespace {

// The library's name-syntax scratch state serves one thread at a time.
std::mutex naming_lock;

struct Field {
    std::size_t start = 0, end = 0;  // within the whole path
    int width = 0;
};

bool is_separator(char c) { return std::ispunct(static_cast<unsigned char>(c)) && c != '#' && c != '/' && c != '%'; }

// Where the frame field of the base name stands, if anywhere.
bool find_field(const std::string &path, Field &field) {
    std::size_t slash = path.rfind('/');
    std::size_t base = slash == std::string::npos ? 0 : slash + 1;
    int found = 0;
    for (std::size_t i = base; i < path.size();) {
        char c = path[i];
        if (c == '#' || c == '@') {
            std::size_t end = path.find_first_not_of(c, i);
            if (end == std::string::npos) end = path.size();
            field = {i, end, int(end - i)};
            ++found;
            i = end;
        } else if (c == '%') {
            // %d or %0Nd; "%%" is a literal percent sign.
            std::size_t j = i + 1;
            if (j < path.size() && path[j] == '%') {
                i = j + 1;
                continue;
            }
            std::size_t digits = j;
            while (digits < path.size() && std::isdigit(static_cast<unsigned char>(path[digits]))) ++digits;
            if (digits >= path.size() || path[digits] != 'd') throw UsageError(path + ": only %d and %0Nd may stand for the frame");
            int width = digits > j ? std::atoi(path.substr(j, digits - j).c_str()) : 1;
            if (width < 1 || width > 18) throw UsageError(path + ": the frame width must be 1 to 18 digits");
            field = {i, digits + 1, width};
            ++found;
            i = digits + 1;
        } else {
            ++i;
        }
    }
    if (found > 1) throw UsageError(path + ": more than one frame field");
    return found == 1;
}

}  // namespace

bool Sequence::is_pattern(const std::string &path) {
    Field f;
    return find_field(path, f);
}

Sequence::Sequence(const std::string &pattern) : pattern_(pattern) {
    Field f;
    if (!find_field(pattern, f)) throw UsageError(pattern + ": no frame field (####, %04d or @@@@)");
    std::size_t slash = pattern.rfind('/');
    std::size_t base = slash == std::string::npos ? 0 : slash + 1;
    std::string prefix = pattern.substr(base, f.start - base);
    std::string suffix = pattern.substr(f.end);
    if (!prefix.empty() && std::isdigit(static_cast<unsigned char>(prefix.back())))
        throw UsageError(pattern + ": a digit right before the frame field hides where the frame number starts");

    // The syntax: a name, the separator next to the field, the field, and
    // what follows it (a separator, a name, the extension).
    std::size_t sep = prefix.size();
    while (sep > 0 && is_separator(prefix[sep - 1])) --sep;
    syntax_ = (sep > 0 ? "name" : "") + prefix.substr(sep) + std::string(std::size_t(f.width), '#');
    std::size_t lead = 0;
    while (lead < suffix.size() && is_separator(suffix[lead])) ++lead;
    syntax_ += suffix.substr(0, lead);
    std::string rest = suffix.substr(lead);
    std::size_t dot = rest.rfind('.');
    if (dot != std::string::npos) {
        extension_ = rest.substr(dot + 1);
        std::string before = rest.substr(0, dot);
        std::size_t trail = before.size();
        while (trail > 0 && is_separator(before[trail - 1])) --trail;
        if (trail > 0) syntax_ += "name";
        syntax_ += before.substr(trail) + "." + (extension_.empty() ? "" : "ext");
    } else if (!rest.empty()) {
        syntax_ += "name";
    }
    if (syntax_.back() == '.') syntax_.pop_back();

    // The key only lends its driver record; the extension is given as it stands.
    PXF_TYPE *driver = find_driver(extension_.empty() ? std::string() : "." + extension_);
    key_ = driver && driver->key ? driver->key : PXF_def_key();
    example_ = pattern.substr(0, f.start) + std::string(std::size_t(f.width), '0') + suffix;
    for (std::size_t p = example_.find("%%"); p != std::string::npos; p = example_.find("%%", p + 1))
        example_.erase(p, 1);
    std::string first = build(0, PXF_PATH_NUMBER);
    if (first != example_) throw UsageError(pattern + ": cannot tell the frame number from this name");
}

std::string Sequence::build(int frame, int mode) const {
    std::lock_guard<std::mutex> hold(naming_lock);
    char out[PXF_PATHNAME_MAX];
    int number = frame;
    if (!PXF_pathname_build(syntax_.c_str(), example_.c_str(), key_.c_str(), extension_.c_str(), mode, 1, &number,
                            out, nullptr, nullptr, nullptr))
        throw UsageError(pattern_ + ": not a usable sequence name (code " + std::to_string(pxf__err) + ")");
    return out;
}

std::string Sequence::frame(int number) const { return build(number, PXF_PATH_NUMBER); }

std::vector<int> Sequence::discover() const {
    std::string wildcard = build(0, PXF_PATH_WILDCARD);
    glob_t found{};
    std::vector<int> frames;
    if (glob(wildcard.c_str(), 0, nullptr, &found) == 0) {
        std::lock_guard<std::mutex> hold(naming_lock);
        for (std::size_t i = 0; i < found.gl_pathc; ++i) {
            const char *path = found.gl_pathv[i];
            char out[PXF_PATHNAME_MAX];
            int number = -1;
            // A file belongs to the sequence when the library reads a frame
            // number from it and writes that frame's name back unchanged.
            if (PXF_pathname_build(syntax_.c_str(), path, key_.c_str(), extension_.c_str(), PXF_PATH_NUMBER, 1,
                                   &number, out, nullptr, nullptr, nullptr) &&
                number >= 0 && std::strcmp(out, path) == 0)
                frames.push_back(number);
        }
    }
    globfree(&found);
    std::sort(frames.begin(), frames.end());
    frames.erase(std::unique(frames.begin(), frames.end()), frames.end());
    return frames;
}

std::vector<int> parse_frame_ranges(const std::string &text) {
    // A,B-C,D-ExSTEP: single frames and ranges with an optional step.
    auto number = [&](const std::string &s) {
        char *end = nullptr;
        errno = 0;
        long v = std::strtol(s.c_str(), &end, 10);
        if (s.empty() || *end || errno || v < 0 || v > 99999999 || !std::isdigit(static_cast<unsigned char>(s[0])))
            throw UsageError("--frames: expected frames such as 1-100, 1-100x2 or 1,5,9; got \"" + text + "\"");
        return int(v);
    };
    std::vector<int> frames;
    std::size_t start = 0;
    for (;;) {
        std::size_t comma = text.find(',', start);
        std::string item = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        std::size_t x = item.find_first_of("x:");
        int step = x == std::string::npos ? 1 : number(item.substr(x + 1));
        std::string range = item.substr(0, x);
        std::size_t dash = range.find('-', 1);
        int first = number(range.substr(0, dash));
        int last = dash == std::string::npos ? first : number(range.substr(dash + 1));
        if (step < 1) throw UsageError("--frames: the step of " + item + " must be 1 or more");
        if (last < first) throw UsageError("--frames: the range " + item + " runs backwards");
        if (long(last - first) / step + frames.size() > 1000000) throw UsageError("--frames: too many frames");
        for (long f = first; f <= last; f += step) frames.push_back(int(f));
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    std::vector<int> seen;
    std::vector<int> unique;
    for (int f : frames)
        if (std::find(unique.begin(), unique.end(), f) == unique.end()) unique.push_back(f);
    return unique;
}

std::string describe_frames(const std::vector<int> &frames) {
    // 1-5, 7, 9-13x2
    std::string out;
    for (std::size_t i = 0; i < frames.size();) {
        std::size_t j = i + 1;
        int step = j < frames.size() ? frames[j] - frames[i] : 1;
        while (j < frames.size() && frames[j] - frames[j - 1] == step && step > 0) ++j;
        if (j - i < 3) j = i + 1, step = 1;
        out += (out.empty() ? "" : ", ") + std::to_string(frames[i]);
        if (j - i > 1) out += "-" + std::to_string(frames[j - 1]) + (step > 1 ? "x" + std::to_string(step) : "");
        i = j;
    }
    return out;
}

}  // namespace pxftool
