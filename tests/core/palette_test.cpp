// Palette files: round trips through the three forms, files as other programs
// write them, damaged and hostile files (each refused with its message and
// never read past its end), memory failures and failed writes.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include <pxf/palette.h>

#include "support/test_support.h"

namespace {

using namespace pxf::test;

struct Lut {
    PXF_LUT *p;
    explicit Lut(PXF_LUT *lut) : p(lut) {}
    ~Lut() { PXF_lut_free(p); }
    PXF_LUT *operator->() const { return p; }
};

// 300 entries with 16-bit components, a locked entry, highest used index 257.
PXF_LUT *sample_palette() {
    PXF_LUT *lut = PXF_lut_alloc(300);
    for (uint32_t i = 0; i < lut->count; ++i)
        lut->entries[i] = {uint16_t(i * 211), uint16_t(65535 - i * 97), uint16_t(i * 257 % 65536), 0};
    lut->entries[3].flags = PXF_LUT_LOCKED;
    lut->maximum = 257;
    lut->gamma = 2.2f;
    return lut;
}

std::vector<unsigned char> bytes_of(const PXF_LUT *lut, PXF_LUT_FORMAT format) {
    size_t size = 0;
    void *data = PXF_lut_format(lut, format, "test", &size);
    EXPECT_NE(data, nullptr);
    std::vector<unsigned char> out(static_cast<unsigned char *>(data), static_cast<unsigned char *>(data) + size);
    ERR_free(data);
    return out;
}

// Parses from a block of exactly the data's size, so that any read past its
// end is an overflow the sanitizers see.
PXF_LUT *parse(const std::string &text, PXF_LUT_FORMAT format = PXF_LUT_ANY) {
    std::vector<char> exact(text.begin(), text.end());
    return PXF_lut_parse(exact.empty() ? nullptr : exact.data(), exact.size(), "p", format);
}

TEST(Palette, BinaryFormKeepsEveryField) {
    Lut lut(sample_palette());
    std::vector<unsigned char> bytes = bytes_of(lut.p, PXF_LUT_BINARY);
    ASSERT_EQ(bytes.size(), 56u + 8 * 300);
    EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 36), std::string(PXF_LITERAL_HARD_LUT_version) + "\n");
    EXPECT_EQ(PXF_lut_format_of(bytes.data(), bytes.size()), PXF_LUT_BINARY);
    // Big-endian fields at their documented places.
    EXPECT_EQ(bytes[42] << 8 | bytes[43], 300);
    EXPECT_EQ(bytes[46] << 8 | bytes[47], 257);
    EXPECT_EQ(bytes[56 + 8 * 3 + 7], 1) << "flags of entry 3";
    Lut back(PXF_lut_parse(bytes.data(), bytes.size(), "b", PXF_LUT_ANY));
    ASSERT_NE(back.p, nullptr);
    EXPECT_EQ(back->count, 300u);
    EXPECT_EQ(back->maximum, 257);
    EXPECT_FLOAT_EQ(back->gamma, 2.2f);
    EXPECT_EQ(std::memcmp(back->entries, lut->entries, 300 * sizeof(PXF_LUT_ENTRY)), 0);
}

TEST(Palette, TextFormsKeepTheUsedColoursRounded) {
    Lut lut(sample_palette());
    for (PXF_LUT_FORMAT format : {PXF_LUT_GPL, PXF_LUT_JASC}) {
        SCOPED_TRACE(PXF_lut_format_name(format));
        std::vector<unsigned char> bytes = bytes_of(lut.p, format);
        EXPECT_EQ(PXF_lut_format_of(bytes.data(), bytes.size()), format);
        Lut back(PXF_lut_parse(bytes.data(), bytes.size(), "t", PXF_LUT_ANY));
        ASSERT_NE(back.p, nullptr);
        ASSERT_EQ(back->count, 258u) << "entries 0 to the highest used index";
        EXPECT_EQ(back->maximum, 257);
        EXPECT_EQ(back->gamma, 1.0f);
        for (uint32_t i = 0; i < back->count; ++i) {
            const PXF_LUT_ENTRY &a = lut->entries[i], &b = back->entries[i];
            ASSERT_EQ(b.red, std::lround(a.red / 257.0) * 257) << i;
            ASSERT_EQ(b.green, std::lround(a.green / 257.0) * 257) << i;
            ASSERT_EQ(b.blue, std::lround(a.blue / 257.0) * 257) << i;
            ASSERT_EQ(b.flags, 0) << i;
        }
        // 8-bit palettes come back exactly, bytes and all.
        std::vector<unsigned char> again = bytes_of(back.p, format);
        Lut third(PXF_lut_parse(again.data(), again.size(), "t", format));
        ASSERT_NE(third.p, nullptr);
        EXPECT_EQ(std::memcmp(third->entries, back->entries, 258 * sizeof(PXF_LUT_ENTRY)), 0);
        EXPECT_EQ(bytes_of(third.p, format), again);
    }
}

TEST(Palette, FilesAsOtherProgramsWriteThem) {
    Lut gimp(parse("GIMP Palette\r\nName: Muted\r\nColumns: 4\r\n#\r\n# a comment\r\n\r\n"
                   "  0   0   0\tBlack\r\n255 255 255  White and bright\r\n 12\t34  56\n7 8 9"));
    ASSERT_NE(gimp.p, nullptr);
    ASSERT_EQ(gimp->count, 4u);
    EXPECT_EQ(gimp->entries[1].green, 65535);
    EXPECT_EQ(gimp->entries[2].blue, 56 * 257);
    EXPECT_EQ(gimp->entries[3].red, 7 * 257) << "last line without its end";

    Lut jasc(parse("JASC-PAL\r\n0100\r\n3\r\n255 0 0\r\n0 255 0 128\r\n0 0 255\r\nextra text is ignored\r\n"));
    ASSERT_NE(jasc.p, nullptr);
    ASSERT_EQ(jasc->count, 3u);
    EXPECT_EQ(jasc->maximum, 2);
    EXPECT_EQ(jasc->entries[1].green, 65535) << "the alpha column is ignored";
    EXPECT_EQ(jasc->entries[2].blue, 65535);
}

TEST(Palette, DamagedAndHostileDataIsRefusedByName) {
    const std::string valid_binary = [] {
        Lut lut(PXF_lut_alloc(4));
        auto b = bytes_of(lut.p, PXF_LUT_BINARY);
        return std::string(b.begin(), b.end());
    }();
    auto patched = [&](std::size_t at, std::initializer_list<unsigned char> with) {
        std::string s = valid_binary;
        for (unsigned char c : with) s[at++] = char(c);
        return s;
    };
    struct Case {
        const char *what;
        std::string data;
        const char *message;
    };
    const Case cases[] = {
        {"empty", "", "p: This does not appear to be a palette file"},
        {"an image", "\x89PNG\r\n\x1a\n", "p: This does not appear to be a palette file"},
        {"gimp value above 255", "GIMP Palette\n1 2 3\n4 256 6\n", "p: palette line 3 is not understood"},
        {"gimp short line", "GIMP Palette\n#\n1 2\n", "p: palette line 3 is not understood"},
        {"gimp letters", "GIMP Palette\n1 2 3x\n", "p: palette line 2 is not understood"},
        {"gimp huge number", "GIMP Palette\n99999999999999999999999 2 3\n", "p: palette line 2 is not understood"},
        {"gimp without colours", "GIMP Palette\nName: x\n", "p: the palette has no entries"},
        {"jasc version", "JASC-PAL\n0200\n1\n0 0 0\n", "p: palette version 0200 is not supported"},
        {"jasc missing lines", "JASC-PAL\n0100\n3\n0 0 0\n1 1 1\n", "p: the palette is damaged or truncated"},
        {"jasc count beyond the text", "JASC-PAL\n0100\n60000\n0 0 0\n", "p: the palette is damaged or truncated"},
        {"jasc count beyond an index", "JASC-PAL\n0100\n65537\n",
         "p: a palette of 65537 entries is more than a colour index can address"},
        {"jasc no colours", "JASC-PAL\n0100\n0\n", "p: the palette has no entries"},
        {"jasc cut in the header", "JASC-PAL\n01", "p: palette version 01 is not supported"},
        {"binary cut in its first line", valid_binary.substr(0, 34), "p: the palette is damaged or truncated"},
        {"binary version", patched(32, {'2'}), "p: palette version 2.0 is not supported"},
        {"binary one byte short", valid_binary.substr(0, valid_binary.size() - 1),
         "p: the palette is damaged or truncated"},
        {"binary one byte long", valid_binary + "x", "p: the palette is damaged or truncated"},
        {"binary count beyond the file", patched(40, {0, 0, 1, 0}), "p: the palette is damaged or truncated"},
        {"binary count beyond an index", patched(40, {0xff, 0xff, 0xff, 0xff}),
         "p: a palette of 4294967295 entries is more than a colour index can address"},
        {"binary maximum beyond the entries", patched(44, {0, 0, 0, 4}), "p: the palette is damaged or truncated"},
        {"binary negative maximum", patched(44, {0xff, 0xff, 0xff, 0xfe}), "p: the palette is damaged or truncated"},
        {"binary gamma not a number", patched(48, {0x7f, 0xc0, 0, 0}), "p: the palette is damaged or truncated"},
        {"binary gamma zero", patched(48, {0, 0, 0, 0}), "p: the palette is damaged or truncated"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        ReportCapture reports;
        pxf__err = 0;
        EXPECT_EQ(parse(c.data), nullptr);
        EXPECT_EQ(pxf__err, -4);
        EXPECT_EQ(reports.last(), c.message);
    }
    // Every cut of a valid file of each form is refused or read, never overrun.
    Lut lut(sample_palette());
    for (PXF_LUT_FORMAT format : {PXF_LUT_GPL, PXF_LUT_JASC, PXF_LUT_BINARY}) {
        std::vector<unsigned char> bytes = bytes_of(lut.p, format);
        ReportCapture quiet;
        for (std::size_t n = 0; n < bytes.size(); n += format == PXF_LUT_BINARY ? 1 : 7) {
            std::vector<unsigned char> cut(bytes.begin(), bytes.begin() + std::ptrdiff_t(n));
            PXF_LUT *back = PXF_lut_parse(cut.data(), n, "cut", format);
            if (format == PXF_LUT_BINARY) {
                EXPECT_EQ(back, nullptr) << n;
            }
            PXF_lut_free(back);
        }
    }
}

TEST(Palette, FilesAreWrittenWholeOrNotAtAll) {
    TempDir dir;
    Lut lut(sample_palette());
    const std::string names[] = {dir.file("a.gpl"), dir.file("b.PAL"), dir.file("c.lut")};
    const PXF_LUT_FORMAT forms[] = {PXF_LUT_GPL, PXF_LUT_JASC, PXF_LUT_BINARY};
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(PXF_lut_save(lut.p, names[i].c_str(), PXF_LUT_ANY), 0);
        PXF_LUT_FORMAT found = PXF_LUT_ANY;
        Lut back(PXF_lut_load(names[i].c_str(), PXF_LUT_ANY, &found));
        ASSERT_NE(back.p, nullptr);
        EXPECT_EQ(found, forms[i]) << "the extension chose the form, the contents found it";
    }
    EXPECT_NE(read_file(names[0]).find("Name: a\n"), std::string::npos);

    // A palette that cannot be written in a form leaves the file as it was.
    const std::string before = read_file(names[0]);
    lut->maximum = -1;
    ReportCapture reports;
    EXPECT_EQ(PXF_lut_save(lut.p, names[0].c_str(), PXF_LUT_ANY), -16);
    EXPECT_EQ(reports.last(), "a: the palette has no entries");
    EXPECT_EQ(read_file(names[0]), before);
    lut->maximum = 257;
    EXPECT_EQ(PXF_lut_save(lut.p, "/dev/full", PXF_LUT_BINARY), -20);
    EXPECT_NE(reports.last().find("Cannot write to /dev/full"), std::string::npos) << reports.last();
    EXPECT_EQ(PXF_lut_save(lut.p, dir.file("no/such/dir.lut").c_str(), PXF_LUT_ANY), -20);
    EXPECT_EQ(PXF_lut_save(lut.p, names[2].c_str(), PXF_LUT_FORMAT(9)), -16);
    EXPECT_EQ(reports.last(), "Unknown palette format 9");
    EXPECT_EQ(PXF_lut_load(dir.file("missing.gpl").c_str(), PXF_LUT_ANY, nullptr), nullptr);
    EXPECT_NE(reports.last().find("Cannot open file"), std::string::npos);
    EXPECT_EQ(PXF_lut_load(dir.path().c_str(), PXF_LUT_ANY, nullptr), nullptr);
    EXPECT_NE(reports.last().find("Cannot read from"), std::string::npos) << "a directory";
}

TEST(Palette, EveryMemoryFailureIsReportedAndReleased) {
    TempDir dir;
    Lut lut(sample_palette());
    for (PXF_LUT_FORMAT format : {PXF_LUT_GPL, PXF_LUT_JASC, PXF_LUT_BINARY}) {
        const std::string path = dir.file(std::string("p.") + PXF_lut_format_name(format));
        ASSERT_EQ(PXF_lut_save(lut.p, path.c_str(), format), 0);
        ReportCapture reports;
        int made = for_each_allocation_failure(
            [&] {
                pxf__err = 0;
                PXF_LUT *back = PXF_lut_load(path.c_str(), PXF_LUT_ANY, nullptr);
                if (!back) {
                    EXPECT_EQ(pxf__err, -10);
                }
                PXF_lut_free(back);
                return back != nullptr;
            },
            [&](int n) { EXPECT_EQ(reports.last(), "No more internal memory") << n; });
        EXPECT_GE(made, 3);
        TempDir other;  // the same name elsewhere: the GIMP form names the palette after its file
        const std::string copy = other.file(std::string("p.") + PXF_lut_format_name(format));
        for_each_allocation_failure([&] {
            pxf__err = 0;
            int result = PXF_lut_save(lut.p, copy.c_str(), format);
            if (result) {
                EXPECT_EQ(result, -10);
            }
            return result == 0;
        });
        EXPECT_TRUE(read_file(copy) == read_file(path)) << "the same bytes once every allocation succeeds";
    }
}

TEST(Palette, ColourIndexGroupIsWideEnoughForTheHighestIndex) {
    Lut lut(PXF_lut_alloc(PXF_LUT_MAX_ENTRIES));
    PXF_CHAN_GROUP group = {};
    for (auto [maximum, bits] : {std::pair{0, 1}, {1, 1}, {15, 4}, {255, 8}, {256, 9}, {65535, 16}}) {
        lut->maximum = maximum;
        EXPECT_EQ(PXF_lut_index_group(lut.p, &group), bits) << maximum;
        EXPECT_EQ(group.count, 1);
        EXPECT_EQ(group.type, PXF_C_INTEGER);
        EXPECT_EQ(group.width, bits);
    }
    EXPECT_EQ(PXF_lut_index_group(nullptr, &group), -1);
}

}  // namespace
