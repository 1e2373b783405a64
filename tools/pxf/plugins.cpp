// Finding and loading the driver plug-ins.  The library never loads a
// library itself: the tool dlopens every module of the plug-in path and
// hands the handles over through PXF_init's enumerator.
#include <dirent.h>
#include <dlfcn.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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

struct Loaded {
    void *handle;
    std::string name;
};
std::vector<Loaded> loaded;
std::size_t next_loaded = 0;

int enumerate(void **library, const char **name) {
    if (next_loaded >= loaded.size()) return 0;
    *library = loaded[next_loaded].handle;
    *name = loaded[next_loaded].name.c_str();
    ++next_loaded;
    return 1;
}

bool is_directory(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::vector<std::string> split_path(const char *list) {
    std::vector<std::string> dirs;
    std::string item;
    for (const char *c = list;; ++c) {
        if (*c == ':' || *c == '\0') {
            if (!item.empty()) dirs.push_back(item);
            item.clear();
            if (!*c) break;
        } else {
            item += *c;
        }
    }
    return dirs;
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

void load_directory(const std::string &dir) {
    DIR *d = opendir(dir.c_str());
    if (!d) return;
    std::vector<std::string> names;
    while (dirent *e = readdir(d)) {
        std::string name = e->d_name;
        if (name.size() > 3 && name.compare(name.size() - 3, 3, ".so") == 0) names.push_back(name);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    for (const std::string &name : names) {
        std::string path = dir + "/" + name;
        void *handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!handle) {
            const char *why = dlerror();
            warn("cannot load plug-in " + path + ": " + (why ? why : "unknown reason"));
            continue;
        }
        loaded.push_back({handle, name.substr(0, name.size() - 3)});
    }
}

}  // namespace

void load_plugins(const char *argv0) {
    const char *list = std::getenv("PXF_PLUGIN_PATH");
    std::vector<std::string> dirs = list ? split_path(list) : default_dirs(argv0);
    for (const std::string &dir : dirs) load_directory(dir);
    next_loaded = 0;
    if (PXF_init(nullptr, enumerate) != 0) fail_with_report("pxf", "cannot initialise the image library");
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
    return PXF_find(key_or_extension.c_str());
}

std::string extension_of(const std::string &path) {
    std::size_t slash = path.rfind('/');
    std::size_t dot = path.rfind('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
    return path.substr(dot);
}

}  // namespace pxftool
