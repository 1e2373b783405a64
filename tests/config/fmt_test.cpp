// Format defaults and the aspect table.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <pxf/cfg.h>
#include <pxf/fmt.h>
#include <pxf/pxf.h>

#include "config_env.h"
#include "foundation/alloc.h"

namespace {

using pxf::test::ConfigHome;
using pxf::test::ReportCapture;

std::vector<std::string> aspect_names() {
    std::vector<std::string> names;
    FMT_init(nullptr);  // restarts the walk
    while (FMT_ASPECT *a = FMT_info()) names.emplace_back(a->name);
    return names;
}

TEST(FormatDefaults, LazyInitialisationIsADebugNotice) {
    ConfigHome home;
    ReportCapture reports;
    ERR_unmask_s(ERR_DEBUG);
    FMT_def_gamma();
    FMT_def_gamma();  // already initialised: no second notice
    ERR_mask_s(ERR_DEBUG);
    EXPECT_EQ(ConfigHome::texts(reports), (std::vector<std::string>{"fmt, initializing database for FMT_def_gamma request"}));
    EXPECT_EQ(reports.reports()[0].severity, ERR_DEBUG);
}

TEST(FormatDefaults, KeysOverrideValues) {
    ConfigHome home(
        "fmt__gamma_default 1.8\n"
        "fmt__input_gamma_default 2.5\n"
        "fmt__gamma_table_res 1024\n"
        "fmt__key_default tiff\n"
        "fmt__name_default frame\n"
        "fmt__chan_default xyz\n"
        "fmt__dominance even\n"
        "fmt__frame_rate 25\n"
        "fmt__swatch_size 64\n"
        "unrelated_key whatever it says\n");
    ASSERT_EQ(FMT_init(nullptr), 0);
    EXPECT_FLOAT_EQ(fmt__def_gamma, 1.8f);
    EXPECT_FLOAT_EQ(fmt__def_input_gamma, 2.5f);
    EXPECT_EQ(fmt__gamma_tab_res, 1024);
    EXPECT_STREQ(pxf__default, "tiff");
    EXPECT_STREQ(pxf__def_name, "frame");
    EXPECT_STREQ(fmt__def_chan_type, "xyz");
    EXPECT_EQ(fmt__def_dominance, 0);
    EXPECT_EQ(fmt__def_frame_rate, 25);
    EXPECT_EQ(FMT_def_swatch(), 64);
}

TEST(FormatDefaults, OutOfRangeValuesAreIgnoredOrClamped) {
    ConfigHome home("fmt__frame_rate 0\nfmt__swatch_size -5\n");
    EXPECT_EQ(FMT_def_frame_rate(), 30);
    EXPECT_EQ(FMT_def_swatch(), 0);
}

TEST(FormatDefaults, WrongTokenCountsAreSyntaxErrorsWithTheirLine) {
    ConfigHome home(
        "# comment\n"
        "fmt__gamma_default\n"
        "\n"
        "fmt__frame_rate 24 25\n"
        "fmt__gamma_default abc\n"
        "fmt__aspect_table extra\n");
    ReportCapture reports;
    ASSERT_EQ(FMT_init(nullptr), 0);
    EXPECT_FLOAT_EQ(fmt__def_gamma, 2.2f);
    EXPECT_EQ(ConfigHome::texts(reports),
              (std::vector<std::string>{home.syntax(2), home.syntax(4), home.syntax(5), home.syntax(6)}));
    EXPECT_EQ(reports.reports()[0].severity, ERR_ERROR);
}

TEST(AspectTable, RowsReplaceByNameAndMoveToTheEnd) {
    ConfigHome home(
        "hd 1920 1080 1.78\n"  // outside the block: ignored
        "fmt__aspect_table\n"
        "# name x y aspect\n"
        "hd 1920 1080 1.78\n"
        "ntsc_640 720 486 1.0\n"
        "broken 1 2\n"
        "end_aspect_table\n"
        "fmt__aspect_default hd\n");
    ReportCapture reports;
    ASSERT_EQ(FMT_init(nullptr), 0);
    EXPECT_EQ(reports.last(), home.syntax(6));
    EXPECT_EQ(aspect_names(), (std::vector<std::string>{"hd", "ntsc_640"}));
    EXPECT_EQ(FMT_find("ntsc_640")->x_res, 720);
    EXPECT_STREQ(FMT_def_aspect(), "hd");
}

TEST(AspectTable, DefaultMustNameAnExistingRow) {
    ConfigHome home("fmt__aspect_default hd\n");
    EXPECT_STREQ(FMT_def_aspect(), "ntsc_640");
    FMT_exit();
    // Applied after the whole file: the row may come later.
    home.write("fmt__aspect_default pal\nfmt__aspect_table\npal 768 576 1.33\nend_aspect_table\n");
    EXPECT_STREQ(FMT_def_aspect(), "pal");
}

TEST(AspectTable, FindKeepsOrRestoresTheWalk) {
    ConfigHome home("fmt__aspect_table\na 1 1 1\nb 2 2 1\nc 3 3 1\nend_aspect_table\n");
    ASSERT_EQ(FMT_init(nullptr), 0);
    EXPECT_STREQ(FMT_info()->name, "ntsc_640");
    EXPECT_STREQ(FMT_info()->name, "a");
    EXPECT_EQ(FMT_find("missing"), nullptr);
    EXPECT_STREQ(FMT_info()->name, "b");  // a miss leaves the walk where it was
    ASSERT_NE(FMT_find("a"), nullptr);
    EXPECT_STREQ(FMT_info()->name, "b");  // a hit continues behind the entry
    EXPECT_STREQ(FMT_info()->name, "c");
    EXPECT_EQ(FMT_info(), nullptr);
}

TEST(FormatDefaults, OutOfMemoryTearsDown) {
    ConfigHome home(
        "fmt__key_default tiff\nfmt__aspect_table\nhd 1920 1080 1.78\nntsc_640 720 486 1\n"
        "end_aspect_table\nfmt__aspect_default hd\nfmt__name_default x\n");
    ReportCapture reports;
    pxf::test::for_each_allocation_failure(
        [] {
            // A configuration that could not be read leaves the built-in values.
            bool ok = FMT_init(nullptr) == 0 && std::string(pxf__default) == "tiff" &&
                      std::string(fmt__def_aspect) == "hd" && FMT_find("hd") != nullptr;
            FMT_exit();
            return ok;
        },
        [&](int) {
            EXPECT_STREQ(pxf__default, "rla");
            EXPECT_STREQ(fmt__def_aspect, "ntsc_640");
            EXPECT_TRUE(reports.saw("No more internal memory"));
            reports.clear();
        });
}

TEST(FormatDefaults, StringCopyFailureGivesMinusTen) {
    ConfigHome home("fmt__key_default tiff\n");
    ASSERT_EQ(CFG_init(nullptr), 0);  // lines already read: the next allocations are the reader's
    ReportCapture reports;
    pxf::fault::arm(2);  // the built-in node, then the copy of "tiff"
    EXPECT_EQ(FMT_init(nullptr), -10);
    pxf::fault::disarm();
    EXPECT_EQ(pxf__err, -10);
    EXPECT_EQ(reports.last(), "No more internal memory");
}

}  // namespace
