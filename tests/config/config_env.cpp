#include "config_env.h"

#include <cstdlib>

#include <pxf/cfg.h>
#include <pxf/fmt.h>

namespace pxf::test {

ConfigHome::ConfigHome() {
    setenv("HOME", dir_.path().c_str(), 1);
    unsetenv("QV_ROOT");
}

ConfigHome::ConfigHome(const std::string &contents) : ConfigHome() { write(contents); }

ConfigHome::~ConfigHome() {
    FMT_exit();
    FB_exit();
    CFG_exit();
}

void ConfigHome::write(const std::string &contents) const { write_file(path(), contents); }

}  // namespace pxf::test
