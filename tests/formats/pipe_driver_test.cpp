// Pipe images, checked from the reading end: a child process writes through
// the driver to its standard output and the test reads the packets.
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <pxf/pxf.h>

#include "core/core_test_util.h"
#include "support/test_support.h"

namespace {

using pxf::test::describe;
using pxf::test::numbered;
using pxf::test::ReportCapture;
using pxf::test::set_text;

struct ChildResult {
    std::string output;
    int status;
};

// Runs `body` in a child whose standard output is a pipe; the child exits
// with body's result.
ChildResult run_child(const std::function<int()> &body) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    std::fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], 1);
        close(fds[0]);
        close(fds[1]);
        _exit(body());
    }
    close(fds[1]);
    ChildResult result{{}, -1};
    char buffer[4096];
    ssize_t n;
    while ((n = read(fds[0], buffer, sizeof buffer)) > 0) result.output.append(buffer, std::size_t(n));
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

// Writes rows 0..lines-1 of a width-pixel image whose channel c holds 'a' + c.
int write_rows(int width, int lines, int channels_in_buffer) {
    PXF_INFO info;
    PXF_info_init(&info);
    set_text(info.handle, "out.pipe");
    PXF_IMAGE_DESC d = describe(width, 2, channels_in_buffer, 8);
    info.images = &d;
    info.num_images = 1;
    PXF_IMAGE *image = PXF_open(&info, "w");
    if (!image) return 10;
    void **rows = pxf__chan_alloc(&d, width, "test");
    for (int c = 0; c < channels_in_buffer; ++c) std::memset(rows[c], 'a' + c, std::size_t(width));
    for (int line = 0; line < lines; ++line)
        if (PXF_scan_write(image, line, &rows) != 0) return 20 + line;
    pxf__chan_free(rows);
    return PXF_close(image) == 0 ? 0 : 30;
}

std::string packet(int width, int channels) {
    int32_t head[2] = {2, width};
    std::string p(reinterpret_cast<const char *>(head), 8);
    for (int c = 0; c < channels; ++c) p += std::string(std::size_t(width), char('a' + c));
    return p;
}

TEST(Pipe, ThreeChannelPacketsPerRowUpToTheHeight) {
    pipe_number = 0;
    ChildResult r = run_child([] { return write_rows(10, 3, 4); });  // row 2 is at the height: nothing
    EXPECT_EQ(r.status, 0);
    ASSERT_EQ(r.output.size(), 2 * (8 + 30u));
    EXPECT_EQ(r.output, packet(10, 3) + packet(10, 3));
}

TEST(Pipe, PipeNumberFourCarriesFourChannels) {
    pipe_number = 4;
    ChildResult r = run_child([] { return write_rows(5, 1, 4); });
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.output, packet(5, 4));
    pipe_number = 0;
}

TEST(Pipe, FailedFlushIsReported) {
    ChildResult r = run_child([] {
        PXF_INFO info;
        PXF_info_init(&info);
        set_text(info.handle, "out.pipe");
        PXF_IMAGE_DESC d = describe(4, 2, 3, 8);
        info.images = &d;
        info.num_images = 1;
        PXF_IMAGE *image = PXF_open(&info, "w");
        if (!image) return 10;
        close(1);
        void **rows = pxf__chan_alloc(&d, 4, "test");
        int result = PXF_scan_write(image, 0, &rows);
        return result == PXF_E_FLUSH && pxf__err == PXF_E_FLUSH ? 0 : 1;
    });
    EXPECT_EQ(r.status, 0);
}

TEST(Pipe, OnlyOneImagePerPipe) {
    nl_catd catalog = pxf::test::numbered_catalog();
    ASSERT_EQ(PXF_init(catalog, nullptr), 0);
    PXF_INFO info;
    PXF_info_init(&info);
    set_text(info.key, "pipe");
    set_text(info.handle, "stream");
    PXF_IMAGE_DESC d[2] = {describe(4, 2, 3, 8), describe(4, 2, 3, 8)};
    info.images = d;
    info.num_images = 2;
    ReportCapture capture;
    EXPECT_EQ(PXF_open(&info, "w"), nullptr);
    EXPECT_EQ(pxf__err, PXF_E_CANNOT_DO);
    EXPECT_EQ(capture.last(), numbered(61, "pipe cannot store multiple images"));
    info.images = nullptr;
    info.num_images = 0;
    PXF_info_cleanup(&info, 1);
    PXF_exit();
    catclose(catalog);
    pxf__msg_cat = nullptr;
}

}  // namespace
