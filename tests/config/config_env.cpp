#include "config_env.h"

#include <cstdlib>

#include <pxf/cfg.h>
#include <pxf/clr.h>
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
    CLR_exit();
    CFG_exit();
}

std::vector<std::string> ConfigHome::texts(const ReportCapture &reports) {
    std::vector<std::string> out;
    for (const auto &r : reports.reports()) out.push_back(r.text);
    return out;
}

void ConfigHome::write(const std::string &contents) const { write_file(path(), contents); }

}  // namespace pxf::test
