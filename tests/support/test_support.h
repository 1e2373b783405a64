// Helpers shared by the tests.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <pxf/err.h>

namespace pxf::test {

// Records every report that reaches the global handler chain and stops it
// there, so that tests can look at what was said.  Declared on construction,
// cancelled on destruction.
class ReportCapture {
public:
    struct Report {
        int severity;
        std::string text;
    };
    ReportCapture();
    ~ReportCapture();
    ReportCapture(const ReportCapture &) = delete;
    ReportCapture &operator=(const ReportCapture &) = delete;

    const std::vector<Report> &reports() const { return reports_; }
    bool saw(const std::string &text) const;
    // The text of the last report, or "" when none came.
    std::string last() const;
    void clear() { reports_.clear(); }

private:
    static int handler(const char *, int severity, const char *text, ERR_DESCRIPTOR *, void *data);
    std::vector<Report> reports_;
};

// Runs `action` once with the 1st allocation failing, then the 2nd, and so
// on, until a run completes with no injected failure.  `action` returns
// whether it succeeded; `check` is called after each failed run with the
// number of the failing allocation, to verify the failure left things clean.
// Returns how many allocations the successful run made.
int for_each_allocation_failure(const std::function<bool()> &action,
                                const std::function<void(int)> &check = nullptr);

// Captures what the code under test writes to standard error.
class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture();
    std::string finish();

private:
    int saved_ = -1;
    std::string path_;
    bool done_ = false;
};

// A fresh temporary directory, removed with its contents on destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &contents);

}  // namespace pxf::test
