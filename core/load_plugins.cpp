// A convenience beside PXF_init for applications: load the driver modules
// of a list of directories and hand them over through the enumerator.
// PXF_init itself never loads anything; only this helper calls dlopen.
#include <dirent.h>
#include <dlfcn.h>
#include <pthread.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <pxf/pxf.h>

#include "core/core_util.h"
#include "core/registry.h"
#include "foundation/alloc.h"

namespace {

using pxf::kSetMessages;

// Loaded modules waiting for the enumerator: library handles and paths.
struct Pending {
    void **handles = nullptr;
    char **paths = nullptr;
    int count = 0;
    int capacity = 0;
    int next = 0;  // the enumerator's position
};

// The enumerator takes no context, so the list it walks is module state,
// guarded for the length of one PXF_load_plugins call.
pthread_mutex_t loader_lock = PTHREAD_MUTEX_INITIALIZER;
Pending *pending = nullptr;

int enumerate(void **library, const char **name) {
    if (!pending || pending->next >= pending->count) return 0;
    *library = pending->handles[pending->next];
    *name = pending->paths[pending->next];
    ++pending->next;
    return 1;
}

bool grow(Pending &p) {
    int capacity = p.capacity ? p.capacity * 2 : 16;
    auto *handles = static_cast<void **>(pxf::heap_alloc(sizeof(void *) * std::size_t(capacity)));
    auto *paths = static_cast<char **>(pxf::heap_alloc(sizeof(char *) * std::size_t(capacity)));
    if (!handles || !paths) {
        pxf::heap_free(handles);
        pxf::heap_free(paths);
        return false;
    }
    if (p.count) {
        std::memcpy(handles, p.handles, sizeof(void *) * std::size_t(p.count));
        std::memcpy(paths, p.paths, sizeof(char *) * std::size_t(p.count));
    }
    pxf::heap_free(p.handles);
    pxf::heap_free(p.paths);
    p.handles = handles;
    p.paths = paths;
    p.capacity = capacity;
    return true;
}

void release(Pending &p) {
    for (int i = 0; i < p.count; ++i) pxf::heap_free(p.paths[i]);
    pxf::heap_free(p.handles);
    pxf::heap_free(p.paths);
    p = Pending{};
}

char *join(const char *dir, std::size_t dir_length, const char *name) {
    std::size_t name_length = std::strlen(name);
    auto *path = static_cast<char *>(pxf::heap_alloc(dir_length + 1 + name_length + 1));
    if (!path) return nullptr;
    std::memcpy(path, dir, dir_length);
    path[dir_length] = '/';
    std::memcpy(path + dir_length + 1, name, name_length + 1);
    return path;
}

bool is_module_name(const char *name) {
    std::size_t n = std::strlen(name);
    return n > 3 && name[0] != '.' && std::strcmp(name + n - 3, ".so") == 0;
}

int by_name(const struct dirent **a, const struct dirent **b) { return std::strcmp((*a)->d_name, (*b)->d_name); }
int module_filter(const struct dirent *e) { return is_module_name(e->d_name); }

// Loads the modules of one directory, in name order.  False only when
// memory runs out; a directory that cannot be read or a module that does
// not load is reported as a warning and passed over; a missing directory
// is passed over silently.
bool load_directory(const char *dir, std::size_t length, Pending &p) {
    if (length == 0) return true;
    char *copy = static_cast<char *>(pxf::heap_alloc(length + 1));
    if (!copy) return false;
    std::memcpy(copy, dir, length);
    copy[length] = '\0';
    struct dirent **entries = nullptr;
    int n = scandir(copy, &entries, module_filter, by_name);
    if (n < 0) {
        // A directory that is not there is an empty one, as in PATH.
        if (errno != ENOENT) pxf::warn(kSetMessages, 263, "Cannot read the plug-in directory %s", copy);
        pxf::heap_free(copy);
        return true;
    }
    bool ok = true;
    for (int i = 0; i < n; ++i) {
        if (ok) {
            char *path = join(copy, length, entries[i]->d_name);
            if (!path || (p.count == p.capacity && !grow(p))) {
                pxf::heap_free(path);
                ok = false;
            } else if (void *handle = dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
                p.handles[p.count] = handle;
                p.paths[p.count++] = path;
            } else {
                const char *why = dlerror();
                pxf::warn(kSetMessages, 262, "Cannot load the plug-in %s: %s", path, why ? why : "unknown reason");
                pxf::heap_free(path);
            }
        }
        std::free(entries[i]);  // scandir's own allocations
    }
    std::free(entries);
    pxf::heap_free(copy);
    return ok;
}

bool load_list(const char *list, Pending &p) {
    if (!list) return true;
    for (const char *start = list;;) {
        const char *end = std::strchr(start, ':');
        std::size_t length = end ? std::size_t(end - start) : std::strlen(start);
        if (!load_directory(start, length, p)) return false;
        if (!end) return true;
        start = end + 1;
    }
}

}  // namespace

int PXF_load_plugins(nl_catd catalog, const char *directories) {
    pxf__err = 0;
    if (pxf::registry_initialised()) return PXF_init(catalog, nullptr);  // too late to add drivers
    pthread_mutex_lock(&loader_lock);
    pxf__msg_cat = catalog;  // so that the loader's own warnings use it too
    Pending p;
    // The environment's directories come last: a later module replaces an
    // earlier one of the same key, so PXF_PLUGIN_PATH overrides the list.
    bool ok = load_list(directories, p) && load_list(std::getenv("PXF_PLUGIN_PATH"), p);
    int result = -1;
    if (!ok) {
        pxf::report_no_memory();
        pxf__err = pxf::kErrNoMemory;
        pxf::note_error_code(pxf::kErrNoMemory);
        // Nothing was handed over: the modules go back.
        for (int i = 0; i < p.count; ++i) dlclose(p.handles[i]);
    } else {
        pending = &p;
        result = PXF_init(catalog, enumerate);
        pending = nullptr;
    }
    // Handed-over modules stay loaded for the life of the process: the
    // registry keeps their entry points, and PXF_exit does not unload them.
    release(p);
    pthread_mutex_unlock(&loader_lock);
    return result;
}
