// A temporary HOME holding the configuration file under test.
#pragma once

#include <string>

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
    std::string path() const { return dir_.file(".pxfrc"); }

private:
    TempDir dir_;
};

}  // namespace pxf::test
