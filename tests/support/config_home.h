// A temporary HOME holding the configuration file under test; shared by the
// configuration and colour tests.
#pragma once

#include <cstdlib>
#include <string>
#include <vector>

#include <pxf/cfg.h>
#include <pxf/clr.h>
#include <pxf/fmt.h>

#include "support/test_support.h"

namespace pxf::test {

class ConfigHome {
public:
    // Points HOME at a fresh directory and unsets QV_ROOT; with contents,
    // writes them as the configuration file.
    ConfigHome() {
        setenv("HOME", dir_.path().c_str(), 1);
        unsetenv("QV_ROOT");
    }
    explicit ConfigHome(const std::string &contents) : ConfigHome() { write(contents); }
    // Every database that read the file forgets it.
    ~ConfigHome() {
        FMT_exit();
        FB_exit();
        CLR_exit();
        CFG_exit();
    }
    void write(const std::string &contents) const { write_file(path(), contents); }
    std::string path() const { return dir_.file(".pxfrc"); }
    // The syntax error report for a line of this file.
    std::string syntax(int line) const {
        return path() + ": Invalid configuration file syntax, line " + std::to_string(line);
    }
    // The texts of the reports captured so far.
    static std::vector<std::string> texts(const ReportCapture &reports) {
        std::vector<std::string> out;
        for (const auto &r : reports.reports()) out.push_back(r.text);
        return out;
    }

private:
    TempDir dir_;
};

}  // namespace pxf::test
