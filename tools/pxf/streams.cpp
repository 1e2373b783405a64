// "-" for standard input and output, and the outputs pxf cannot make.
//
// Standard input is copied into a scratch file first, so that every driver
// (most need to seek) reads it and the format is found by content.  An
// image for standard output is written to a scratch file and copied out
// once complete, so that a failure never leaves half an image in a pipe;
// only the pipe driver, whose packets are made for standard output, writes
// there directly.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tool.h"

namespace pxftool {
namespace {

bool copy_stream(int from, int to) {
    char buffer[1 << 16];
    for (;;) {
        ssize_t n = read(from, buffer, sizeof buffer);
        if (n == 0) return true;
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        for (ssize_t done = 0; done < n;) {
            ssize_t w = write(to, buffer + done, std::size_t(n - done));
            if (w < 0) {
                if (errno == EINTR) continue;
                return false;
            }
            done += w;
        }
    }
}

}  // namespace

StandardStreams::~StandardStreams() {
    // Only the files this run made in its own scratch directory go.
    for (const std::string &f : made_) unlink(f.c_str());
    if (!dir_.empty()) rmdir(dir_.c_str());
}

std::string StandardStreams::scratch(const std::string &name) {
    if (dir_.empty()) {
        const char *tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/pxf-XXXXXX";
        if (!mkdtemp(pattern.data())) throw Failure("cannot make a scratch directory: " + std::string(std::strerror(errno)));
        dir_ = pattern;
    }
    std::string path = dir_ + "/" + name;
    made_.push_back(path);
    return path;
}

std::string StandardStreams::input(const std::string &path) {
    if (path != "-") return path;
    if (stdin_used_) throw UsageError("standard input (-) can be read only once");
    stdin_used_ = true;
    std::string copy = scratch("stdin");
    int fd = open(copy.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
    if (fd < 0) throw Failure("cannot keep standard input: " + std::string(std::strerror(errno)));
    bool ok = copy_stream(0, fd);
    int saved = errno;
    if (close(fd) != 0 && ok) ok = false, saved = errno;
    if (!ok) throw Failure("cannot read standard input: " + std::string(std::strerror(saved)));
    struct stat st;
    if (stat(copy.c_str(), &st) == 0 && st.st_size == 0) throw Failure("standard input is empty");
    return copy;
}

std::string StandardStreams::output(const std::string &path, WriteOptions &options) {
    PXF_TYPE *driver = find_driver(options.key.empty() ? extension_of(path) : options.key);
    if (path == "-") {
        // A name says nothing about the format: --key does, else the default.
        if (options.key.empty()) options.key = PXF_def_key();
        driver = find_driver(options.key);
    }
    std::string key = driver && driver->key ? driver->key : "";
    if (key == "mem")
        throw UsageError("the mem format keeps images in a program's memory; pxf cannot write one that lasts");
    if (key == "pipe" && path != "-")
        throw UsageError("the pipe format writes scanline packets to standard output: give - as OUT");
    if (path != "-") return path;
    if (stdout_file_.empty() == false) throw UsageError("standard output (-) can be written only once");
    // The pipe driver writes to standard output itself; the name is unused.
    // With the driver's extension: some drivers add it to a name without one.
    std::string ext = driver && driver->extension ? driver->extension : "";
    stdout_file_ = scratch((key == "pipe" ? "pipe-output" : "stdout") + ext);
    direct_ = key == "pipe";
    return stdout_file_;
}

void StandardStreams::finish() {
    if (stdout_file_.empty() || direct_) return;
    std::fflush(stdout);
    int fd = open(stdout_file_.c_str(), O_RDONLY);
    if (fd < 0 || !copy_stream(fd, 1)) {
        int saved = errno;
        if (fd >= 0) close(fd);
        throw Failure("cannot write to standard output: " + std::string(std::strerror(saved)));
    }
    close(fd);
}

}  // namespace pxftool
