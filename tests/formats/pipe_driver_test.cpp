// Pipe images, checked from the reading end: a child process writes through
// the driver to its standard output and the test reads the packets.
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include <pxf/pxf.h>

#include "core/core_test_util.h"
#include "support/test_support.h"

namespace {

using namespace pxf::test;

// Runs `body` in a child whose standard output is a pipe; what the child
// wrote, then its exit status in brackets.
std::string run_child(const std::function<int()> &body) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], 1);
        close(fds[0]);
        close(fds[1]);
        _exit(body());
    }
    close(fds[1]);
    std::string output;
    char buffer[4096];
    for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;) output.append(buffer, std::size_t(n));
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    return output + "[" + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1) + "]";
}

// Writes rows 0..lines-1 of a width-pixel image of height 2 whose channel c
// holds 'a' + c; with `broken`, standard output is closed first and the write
// must fail.
int write_rows(int width, int lines, int channels, bool broken = false) {
    PXF_IMAGE_DESC d = describe(width, 2, channels, 8);
    Request request;
    PXF_IMAGE *image = request.set(nullptr, "out.pipe", &d).open("w");
    if (!image) return 10;
    if (broken) close(1);
    void **rows = pxf__chan_alloc(&d, width, "test");
    for (int c = 0; c < channels; ++c) std::memset(rows[c], 'a' + c, std::size_t(width));
    for (int line = 0; line < lines; ++line) {
        const int result = PXF_scan_write(image, line, &rows);
        if (broken) return result == PXF_E_FLUSH && pxf__err == PXF_E_FLUSH ? 0 : 1;
        if (result != 0) return 20 + line;
    }
    pxf__chan_free(rows);
    return PXF_close(image) == 0 ? 0 : 30;
}

std::string packet(int width, int channels) {
    const int32_t head[2] = {2, width};
    std::string p(reinterpret_cast<const char *>(head), 8);
    for (int c = 0; c < channels; ++c) p += std::string(std::size_t(width), char('a' + c));
    return p;
}

TEST(Pipe, PacketsPerRowUpToTheHeightWithThreeOrFourChannels) {
    pipe_number = 0;  // row 2 is at the height: nothing
    EXPECT_EQ(run_child([] { return write_rows(10, 3, 4); }), packet(10, 3) + packet(10, 3) + "[0]");
    pipe_number = 4;  // pipe number four carries the matte too
    EXPECT_EQ(run_child([] { return write_rows(5, 1, 4); }), packet(5, 4) + "[0]");
    pipe_number = 0;  // a failed flush is reported
    EXPECT_EQ(run_child([] { return write_rows(4, 1, 3, true); }), "[0]");
}

using PipeMessages = Numbered;

TEST_F(PipeMessages, OnlyOneImagePerPipe) {
    ASSERT_EQ(PXF_init(catalog_, nullptr), 0);
    PXF_IMAGE_DESC d[2] = {describe(4, 2, 3, 8), describe(4, 2, 3, 8)};
    Request request;
    ReportCapture capture;
    EXPECT_EQ(request.set("pipe", "stream", d, 2).open("w"), nullptr);
    EXPECT_EQ(capture.last(), numbered(61, "pipe cannot store multiple images"));
}

}  // namespace
