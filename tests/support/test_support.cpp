#include "support/test_support.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "foundation/alloc.h"

namespace pxf::test {

ReportCapture::ReportCapture() { ERR_dcl_handler(nullptr, &ReportCapture::handler, this); }

ReportCapture::~ReportCapture() { ERR_can_handler(nullptr); }

int ReportCapture::handler(const char *, int severity, const char *text, ERR_DESCRIPTOR *, void *data) {
    static_cast<ReportCapture *>(data)->reports_.push_back({severity, text ? text : ""});
    return 0;
}

bool ReportCapture::saw(const std::string &text) const {
    for (const auto &r : reports_)
        if (r.text == text) return true;
    return false;
}

std::string ReportCapture::last() const { return reports_.empty() ? "" : reports_.back().text; }

int for_each_allocation_failure(const std::function<bool()> &action, const std::function<void(int)> &check) {
    for (int n = 1; n < 100000; ++n) {
        fault::arm(n);
        bool ok = action();
        bool fired = fault::fired();
        fault::disarm();
        if (!fired) {
            EXPECT_TRUE(ok) << "the run without an injected failure failed";
            return n - 1;
        }
        EXPECT_FALSE(ok) << "allocation " << n << " failed but the call reported success";
        if (check) check(n);
    }
    ADD_FAILURE() << "allocation-failure loop did not end";
    return -1;
}

StderrCapture::StderrCapture() {
    char name[] = "/tmp/pxf-stderr-XXXXXX";
    int fd = mkstemp(name);
    path_ = name;
    std::fflush(stderr);
    saved_ = dup(2);
    dup2(fd, 2);
    close(fd);
}

std::string StderrCapture::finish() {
    if (done_) return {};
    done_ = true;
    std::fflush(stderr);
    dup2(saved_, 2);
    close(saved_);
    std::string text = read_file(path_);
    std::remove(path_.c_str());
    return text;
}

StderrCapture::~StderrCapture() { finish(); }

TempDir::TempDir() {
    char name[] = "/tmp/pxf-test-XXXXXX";
    path_ = mkdtemp(name);
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void write_file(const std::string &path, const std::string &contents) {
    std::ofstream out(path, std::ios::binary);
    out << contents;
}

}  // namespace pxf::test
