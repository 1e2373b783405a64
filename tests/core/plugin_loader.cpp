#include <dlfcn.h>

#include <gtest/gtest.h>

#include "core_test_util.h"

namespace pxf::test {
namespace {

std::vector<void *> libraries;
std::vector<std::string> library_names;
std::size_t next_library = 0;

int enumerate(void **library, const char **name) {
    if (next_library >= libraries.size()) return 0;
    *library = libraries[next_library];
    *name = library_names[next_library].c_str();
    ++next_library;
    return 1;
}

}  // namespace

int init_with_plugins(const std::vector<std::string> &names, nl_catd catalog) {
    libraries.clear();
    library_names.clear();
    next_library = 0;
    for (const std::string &name : names) {
        std::string path = std::string(PLUGIN_DIR) + "/" + name + ".so";
        void *library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        EXPECT_NE(library, nullptr) << dlerror();
        libraries.push_back(library);
        library_names.push_back(name);
    }
    return PXF_init(catalog, enumerate);
}

}  // namespace pxf::test
