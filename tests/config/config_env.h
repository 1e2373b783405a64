// A temporary HOME holding the configuration file under test.
#pragma once

#include <string>
#include <vector>

#include "support/test_support.h"

namespace pxf::test {

class ConfigHome {
public:
    // Points HOME at a fresh directory and unsets QV_ROOT; with contents,
    // writes them as the configuration file.
    ConfigHome();
    explicit ConfigHome(const std::string &contents);
    ~ConfigHome();
    void write(const std::string &contents) const;
    // The texts of the reports captured so far.
    static std::vector<std::string> texts(const ReportCapture &reports);
    std::string path() const { return dir_.file(".pxfrc"); }
    // The syntax error report for a line of this file.
    std::string syntax(int line) const {
        return path() + ": Invalid configuration file syntax, line " + std::to_string(line);
    }

private:
    TempDir dir_;
};

}  // namespace pxf::test
