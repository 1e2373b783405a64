// Finding and loading the driver plug-ins through the library's loader
// (PXF_load_plugins: PXF_PLUGIN_PATH, else the directory beside the program).
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "tool.h"

#ifndef PXF_TOOL_PLUGIN_DIR
#define PXF_TOOL_PLUGIN_DIR "/usr/local/lib/pxf/plugins"
#endif
#ifndef PXF_TOOL_PLUGIN_DIR_FROM_BIN
#define PXF_TOOL_PLUGIN_DIR_FROM_BIN "../lib/pxf/plugins"
#endif

namespace pxftool {
namespace {

bool is_directory(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Without PXF_PLUGIN_PATH: the plug-in directory beside the program (so a
// build tree or a moved installation finds its own), else the configured one.
std::vector<std::string> default_dirs(const char *argv0) {
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    std::string program = n > 0 ? std::string(self, std::size_t(n)) : std::string(argv0 ? argv0 : "");
    std::size_t slash = program.rfind('/');
    if (slash != std::string::npos) {
        std::string beside = program.substr(0, slash) + "/" + PXF_TOOL_PLUGIN_DIR_FROM_BIN;
        if (is_directory(beside)) return {beside};
    }
    return {PXF_TOOL_PLUGIN_DIR};
}

}  // namespace

void load_plugins(const char *argv0) {
    // PXF_PLUGIN_PATH replaces the default directory rather than adding to it.
    const char *list = std::getenv("PXF_PLUGIN_PATH");
    std::string dirs;
    if (!list)
        for (const std::string &dir : default_dirs(argv0)) dirs += (dirs.empty() ? "" : ":") + dir;
    if (PXF_load_plugins(nullptr, list ? nullptr : dirs.c_str()) != 0)
        fail_with_report("pxf", "cannot initialise the image library");
    if (global_options().verbose) {
        std::string keys;
        for (PXF_TYPE *d : all_drivers())
            if (!d->builtin) keys += (keys.empty() ? "" : ", ") + std::string(d->key ? d->key : "?");
        tell("plug-ins from " + std::string(list ? list : dirs.c_str()) + ": " + (keys.empty() ? "none" : keys));
    }
}

std::vector<PXF_TYPE *> all_drivers() {
    // The registry is one list, plug-ins first; PXF_info hands out its first
    // plug-in record, and the built-in records follow the last plug-in.
    std::vector<PXF_TYPE *> drivers;
    PXF_init(nullptr, nullptr);  // rewinds the shared list position
    PXF_TYPE *first = PXF_info();
    if (!first) first = PXF_find("pipe");
    for (PXF_TYPE *r = first; r; r = r->next) drivers.push_back(r);
    PXF_init(nullptr, nullptr);
    return drivers;
}

PXF_TYPE *find_driver(const std::string &key_or_extension) {
    if (key_or_extension.empty()) return nullptr;
    if (PXF_TYPE *d = PXF_find(key_or_extension.c_str())) return d;
    std::string lower = key_or_extension;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    if (PXF_TYPE *d = PXF_find(lower.c_str())) return d;
    if (lower[0] != '.') return nullptr;
    // ".tiff" names the driver whose key is "tiff"; the usual spellings of
    // an extension name the driver of the other.
    if (PXF_TYPE *d = PXF_find(lower.c_str() + 1)) return d;
    static const char *const kSpellings[][3] = {
        {".tif", ".tiff", nullptr}, {".jpg", ".jpeg", ".jpe"}, {".rla", ".rlb", nullptr}, {".exr", ".sxr", nullptr}};
    for (const auto &group : kSpellings) {
        bool member = false;
        for (const char *e : group) member = member || (e && lower == e);
        if (!member) continue;
        for (const char *e : group)
            if (e && lower != e)
                if (PXF_TYPE *d = PXF_find(e)) return d;
    }
    return nullptr;
}

std::string probing_formats() {
    std::string keys;
    for (PXF_TYPE *d : all_drivers())
        if (d->is_file && d->key && (d->access & 4)) keys += (keys.empty() ? "" : ", ") + std::string(d->key);
    return keys;
}

std::string extension_of(const std::string &path) {
    std::size_t slash = path.rfind('/');
    std::size_t dot = path.rfind('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
    return path.substr(dot);
}

}  // namespace pxftool
