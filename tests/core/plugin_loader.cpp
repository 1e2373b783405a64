#include <dlfcn.h>

#include <gtest/gtest.h>

#include <utility>

#include "core_test_util.h"

namespace pxf::test {
namespace {

std::vector<std::pair<void *, std::string>> loaded;  // library, name
std::size_t next_library = 0;

int enumerate(void **library, const char **name) {
    if (next_library >= loaded.size()) return 0;
    *library = loaded[next_library].first;
    *name = loaded[next_library++].second.c_str();
    return 1;
}

}  // namespace

int init_with_plugins(const std::vector<std::string> &names, nl_catd catalog) {
    loaded.clear();
    next_library = 0;
    for (const std::string &name : names) {
        void *library = dlopen((std::string(PLUGIN_DIR) + "/" + name + ".so").c_str(), RTLD_NOW | RTLD_LOCAL);
        EXPECT_NE(library, nullptr) << dlerror();
        loaded.emplace_back(library, name);
    }
    return PXF_init(catalog, enumerate);
}

}  // namespace pxf::test
