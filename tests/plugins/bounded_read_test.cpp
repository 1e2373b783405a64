// A damaged length field must not make a driver allocate more than its file
// could ever justify.  Each file is read in a child process whose data
// segment may grow by 64 MiB only: a driver that believed the damaged field
// would fail there (or be killed) instead of naming the damage.
#include <png.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>

#include "plugin_host.h"

namespace pxf::test {
namespace {

using BoundedRead = DriverTest;

long data_segment_bytes() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmData:", 0) == 0) return std::stol(line.substr(7)) * 1024;
    return -1;
}

// The first report of reading `path` in a child limited as above; "crashed"
// when the child did not exit normally.
std::string first_report_when_limited(const std::string &path, const char *key) {
    int fds[2];
    if (pipe(fds) != 0) return "no pipe";
    std::fflush(nullptr);
    pid_t child = fork();
    if (child == 0) {
        close(fds[0]);
        long now = data_segment_bytes();
        struct rlimit limit = {rlim_t(now + (64l << 20)), rlim_t(now + (64l << 20))};
        if (now < 0 || setrlimit(RLIMIT_DATA, &limit) != 0) _exit(3);
        ReportCapture reports;
        Pixels p;
        bool read = read_image(path, key, p);
        std::string text = read ? "read" : reports.reports().empty() ? "no report" : reports.reports().front().text;
        if (write(fds[1], text.data(), text.size()) < 0) _exit(4);
        _exit(0);
    }
    close(fds[1]);
    std::string text;
    char buffer[256];
    for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;) text.append(buffer, std::size_t(n));
    close(fds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? text : "crashed";
}

// A 16 x 12 grey PNG with texts, as the pxf command writes them.
std::string small_png(const std::string &path) {
    FILE *f = std::fopen(path.c_str(), "wb");
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_init_io(png, f);
    png_set_IHDR(png, info, 16, 12, 8, PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    png_text texts[2] = {};
    texts[0].compression = texts[1].compression = PNG_TEXT_COMPRESSION_NONE;
    texts[0].key = const_cast<char *>("Software"), texts[0].text = const_cast<char *>("pxf");
    texts[1].key = const_cast<char *>("Author"), texts[1].text = const_cast<char *>("someone");
    png_set_text(png, info, texts, 2);
    png_write_info(png, info);
    png_byte row[16] = {};
    for (int y = 0; y < 12; ++y) png_write_row(png, row);
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    std::fclose(f);
    return read_file(path);
}

void put16(std::string &s, unsigned v) { s += char(v & 0xff), s += char(v >> 8); }
void put32(std::string &s, unsigned v) { put16(s, v & 0xffff), put16(s, v >> 16); }

// A little-endian TIFF of one deflate strip whose size fields claim a
// 100000 x 100000 grey image: a 10 GB strip behind 16 bytes of data.
std::string huge_claim_tiff() {
    std::string s = "II*";
    s += '\0';
    put32(s, 24);
    s += std::string(16, '\x78');
    const unsigned entries[][4] = {{256, 4, 1, 100000}, {257, 4, 1, 100000}, {258, 3, 1, 8}, {259, 3, 1, 8},
                                   {262, 3, 1, 1},      {273, 4, 1, 8},      {277, 3, 1, 1}, {279, 4, 1, 16}};
    put16(s, 8);
    for (const auto &e : entries) put16(s, e[0]), put16(s, e[1]), put32(s, e[2]), put32(s, e[3]);
    put32(s, 0);
    return s;
}

TEST_F(BoundedRead, DamagedLengthFieldsAreRefusedBeforeTheyAllocate) {
    // One flipped bit makes the first text chunk claim a gigabyte.
    std::string png = small_png(dir.file("good.png"));
    std::size_t text_chunk = png.find("tEXt") - 4;
    png[text_chunk] = char(png[text_chunk] ^ 0x40);
    write_file(dir.file("flipped.png"), png);
    std::string report = first_report_when_limited(dir.file("flipped.png"), "png");
    EXPECT_NE(report.find("chunk data is too large"), std::string::npos) << report;

    const std::string tiff = huge_claim_tiff();
    write_file(dir.file("huge.tif"), tiff);
    report = first_report_when_limited(dir.file("huge.tif"), "tiff");
    EXPECT_NE(report.find("cannot come from a file of " + std::to_string(tiff.size()) + " bytes"), std::string::npos)
        << report;
}

}  // namespace
}  // namespace pxf::test
