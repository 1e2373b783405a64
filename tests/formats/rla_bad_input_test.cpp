// Damaged RLA files: every one gives a clear message and code, never a crash.
#include <string>

#include <pxf/rla.h>

#include "rla_file_util.h"

namespace {

using pxf::test::image_desc;
using pxf::test::numbered;
using pxf::test::read_file;
using pxf::test::ReportCapture;
using pxf::test::write_file;

void put16(std::string &s, std::size_t at, int v) {
    s[at] = char(v >> 8);
    s[at + 1] = char(v);
}
void put32(std::string &s, std::size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) s[at + i] = char(v >> (24 - 8 * i));
}
uint32_t get32(const std::string &s, std::size_t at) {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v = v << 8 | uint8_t(s[at + i]);
    return v;
}

class RlaBadInput : public pxf::test::RlaFile {
protected:
    // A valid file: 6 x 4, RGB and a matte, 8 bits; with `second`, a second image 3 x 2.
    std::string valid(bool second = false) {
        std::vector<PXF_IMAGE_DESC> images = {image_desc(6, 4, 3, PXF_C_INTEGER, 8, 1)};
        if (second) images.push_back(image_desc(3, 2, 1, PXF_C_INTEGER, 16));
        describe(images);
        std::string path = dir_.file("valid.rla");
        EXPECT_TRUE(write(path));
        return read_file(path);
    }

    // Opens `bytes` as a file and reads every scanline of every image; the
    // messages said, or "" when everything went through.
    std::string attempt(const std::string &bytes, int *code = nullptr) {
        std::string path = dir_.file("damaged.rla");
        write_file(path, bytes);
        ReportCapture capture;
        PXF_IMAGE *image = open(path, "r");
        int err = 0;
        if (image) {
            for (int i = 0; i < image->info.num_images; ++i) {
                const PXF_IMAGE_DESC &d = image->info.images[i];
                for (int y = d.window.bottom; y <= d.window.top; ++y) {
                    void **rows = nullptr;
                    if (image->scan(image->private_data[i], y, &rows, image->private_data) != 0 && !err)
                        err = pxf__err;
                }
            }
            EXPECT_EQ(PXF_close(image), 0);
        } else {
            err = pxf__err;
        }
        if (code) *code = err;
        std::string said;
        for (const auto &r : capture.reports()) said += (said.empty() ? "" : "\n") + r.text;
        return said;
    }

    std::string not_rla() { return numbered(59, dir_.file("damaged.rla") + ": This does not appear to be a Quorvalen file"); }
    std::string cannot_read() { return numbered(54, "Cannot read from " + dir_.file("damaged.rla") + "; unexpected end of file"); }
};

TEST_F(RlaBadInput, TruncationAnywhereIsReported) {
    std::string bytes = valid();
    std::size_t table_end = 740 + 4 * 4;
    std::vector<std::size_t> lengths = {0, 1, 26, 300, 612};
    for (std::size_t length = 730; length < bytes.size(); ++length) lengths.push_back(length);
    for (std::size_t length : lengths) {
        int code = 0;
        std::string said = attempt(bytes.substr(0, length), &code);
        SCOPED_TRACE("length " + std::to_string(length));
        if (length < 740) {
            EXPECT_EQ(said, not_rla());
            EXPECT_EQ(code, -4);
        } else if (length < table_end) {
            EXPECT_EQ(said, cannot_read());
            EXPECT_EQ(code, -4);
        } else {
            // Opens; the scanlines whose data is cut off cannot be read.
            ASSERT_FALSE(said.empty());
            std::size_t at = 0;
            for (std::size_t next; at != std::string::npos; at = next == std::string::npos ? next : next + 1) {
                next = said.find('\n', at);
                EXPECT_EQ(said.compare(at, 26, "[55] Cannot read scanline "), 0) << said;
            }
            EXPECT_EQ(code, -2);
        }
    }
    EXPECT_EQ(attempt(bytes), "");
}

TEST_F(RlaBadInput, OffsetsOutsideTheDataAreRefused) {
    std::string bytes = valid();
    for (uint32_t offset : {0u, 100u, 755u, uint32_t(bytes.size()), uint32_t(bytes.size()) - 3, 0xfffffff0u}) {
        std::string damaged = bytes;
        put32(damaged, 740 + 4 * 2, offset);
        int code = 0;
        EXPECT_EQ(attempt(damaged, &code), numbered(55, "Cannot read scanline 2; offset out of range")) << offset;
        EXPECT_EQ(code, -2);
    }
}

TEST_F(RlaBadInput, BlocksAndPacketsMustFitTheirRows) {
    std::string bytes = valid();
    uint32_t last = get32(bytes, 740 + 4 * 3);
    std::string longer = bytes;
    put16(longer, last, 0xffff);
    EXPECT_EQ(attempt(longer), numbered(55, "Cannot read scanline 3; unexpected end of file"));

    uint32_t first = get32(bytes, 740);
    std::string overflow = bytes;
    overflow[first + 2] = 0x7f;  // a run of 128 in a row of 6
    int code = 0;
    EXPECT_EQ(attempt(overflow, &code), numbered(58, "Cannot decode scanline 0"));
    EXPECT_EQ(code, -2);

    std::string shorter = bytes;
    put16(shorter, first, 1);  // the packets no longer fit the block
    EXPECT_EQ(attempt(shorter), numbered(58, "Cannot decode scanline 0"));
}

TEST_F(RlaBadInput, HeaderFieldsOutOfRange) {
    std::string bytes = valid();
    struct {
        std::size_t at;
        int value;
        std::string message;
    } cases[] = {
        {2, 0, not_rla()},                                              // inverted window
        {20, 4, not_rla()},                                             // four image channels
        {24, -1, not_rla()},                                            // negative auxiliary count
        {22, 30000, cannot_read()},                                     // mattes the file cannot hold
        {14, 30000, not_rla()},                                         // active window past the window
        {18, 9, numbered(72, "rla cannot handle image channel type")},  // unknown storage type
        {658, 40, numbered(73, "rla cannot handle image channel width")},
        {660, 6, numbered(79, "rla cannot handle matte channel type")},
        {662, 33, numbered(80, "rla cannot handle matte channel width")},
    };
    for (const auto &c : cases) {
        std::string damaged = bytes;
        put16(damaged, c.at, c.value);
        EXPECT_EQ(attempt(damaged), c.message) << "offset " << c.at;
    }
    // A tall active window: the offset table would run past the end.
    std::string tall = bytes;
    put16(tall, 6, 30000);
    put16(tall, 14, 30000);
    EXPECT_EQ(attempt(tall), cannot_read());
}

TEST_F(RlaBadInput, RowsTheFileCannotJustifyAreRefused) {
    // Thousands of double auxiliary channels over a window 32768 wide: a
    // scanline buffer of 786 MB announced by a file of a few kilobytes.
    std::string bytes = valid();
    put16(bytes, 2, 32767);
    put16(bytes, 24, 3000);
    put16(bytes, 664, 5);
    bytes += std::string(30000, '\0');
    EXPECT_EQ(attempt(bytes), not_rla());
}

TEST_F(RlaBadInput, HugeWindowsWithSmallActiveAreasStillRead) {
    PXF_IMAGE_DESC d = image_desc(1, 1, 1, PXF_C_INTEGER, 8);
    d.window = {0, 32767, 0, 19};
    d.active_window = {32760, 32767, 10, 10};
    describe({d});
    std::string path = dir_.file("huge.rla");
    ASSERT_TRUE(write(path));
    EXPECT_LT(read_file(path).size(), 800u);
    expect_read_back(path);
}

TEST_F(RlaBadInput, HeaderChainsMustMoveForward) {
    std::string bytes = valid(true);
    uint32_t second = get32(bytes, 736);
    ASSERT_GT(second, 740u);
    EXPECT_EQ(attempt(bytes), "");

    std::string loop = bytes;
    put32(loop, second + 736, second);
    int code = 0;
    EXPECT_EQ(attempt(loop, &code), not_rla()) << "a header naming itself";
    EXPECT_EQ(code, -4);
    std::string back = bytes;
    put32(back, second + 736, 0x10);
    EXPECT_EQ(attempt(back), not_rla()) << "a header naming an earlier one";
    std::string inside = bytes;
    put32(inside, 736, 744);
    EXPECT_EQ(attempt(inside), not_rla()) << "a header inside the first offset table";
    std::string past = bytes;
    put32(past, 736, uint32_t(bytes.size()) - 100);
    EXPECT_EQ(attempt(past), cannot_read());
    std::string garbage = bytes;
    put32(garbage, 736, 760);
    EXPECT_EQ(attempt(garbage), not_rla()) << "scanline data is no header";
}

}  // namespace
