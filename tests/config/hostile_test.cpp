// Damaged and oversized configuration files: every reader survives them and
// names the offending line.
#include <gtest/gtest.h>

#include <string>

#include <pxf/clr.h>
#include <pxf/fmt.h>

#include "config_env.h"

namespace {

using pxf::test::ConfigHome;
using pxf::test::ReportCapture;

TEST(HostileConfig, HundredThousandLinesWithBadKeywordsNearTheEnd) {
    std::string text;
    for (int i = 0; i < 100000; ++i) text += "filler " + std::to_string(i) + " \"quoted words\"\n";
    text += "fmt__frame_rate\n";              // line 100001
    text += "resolution 1\n";                 // line 100002
    text += "clr__default_white_point 1 2\n"; // line 100003
    text += "fmt__frame_rate 24";             // no newline: reads as "2"
    ConfigHome home(text);
    ReportCapture reports;
    ASSERT_EQ(FMT_init(nullptr), 0);
    EXPECT_EQ(reports.last(), home.syntax(100001));
    EXPECT_EQ(FMT_def_frame_rate(), 2);
    ASSERT_EQ(FB_init(nullptr), 0);
    EXPECT_EQ(reports.last(), home.syntax(100002));
    ASSERT_EQ(CLR_init(nullptr), 0);
    EXPECT_EQ(reports.last(), home.syntax(100003));
    EXPECT_EQ(reports.reports().size(), 3u);
}

TEST(HostileConfig, BinaryGarbageNulBytesAndLongLines) {
    std::string text = "fmt__gamma_default 1.5\n";
    for (int i = 0; i < 20000; ++i) text += static_cast<char>((i * 2654435761u) >> 24);
    text += "\n";
    text += std::string("fmt__key_default tiff\0 ignored after the nul\n", 45);
    text += std::string(1000, 'x') + " " + std::string(600, '"') + "\n";
    text += "framebuffer \x01\x02\x03\nend_framebuffer\n";
    text += "clr__sample_bins 3 \"400\" '500' \x1b" "600\x1b 700\n";
    ConfigHome home(text);
    ReportCapture reports;
    ASSERT_EQ(FMT_init(nullptr), 0);
    EXPECT_FLOAT_EQ(FMT_def_gamma(), 1.5f);
    EXPECT_STREQ(pxf__default, "tiff");
    ASSERT_EQ(FB_init(nullptr), 0);
    ASSERT_EQ(CLR_init(nullptr), 0);
    ASSERT_NE(CLR_find(3), nullptr);
    EXPECT_FLOAT_EQ(CLR_find(3)->bounds[2], 600.0f);  // quoted numbers are numbers
}

TEST(HostileConfig, AbsurdColourSizesAreRefused) {
    ConfigHome home;
    for (const char *file : {"clr__tristimulus_tab_res 1e12\n", "clr__max_wavelength 1e30\n"}) {
        home.write(file);
        ReportCapture reports;
        EXPECT_EQ(CLR_init(nullptr), -1) << file;
        EXPECT_EQ(reports.reports().size(), 1u) << file;
        CLR_exit();
    }
    home.write("clr__sample_bins 100000 uniform\nclr__sample_bins nan uniform\n");
    ReportCapture reports;
    EXPECT_EQ(CLR_init(nullptr), -1);  // nan is no number
    EXPECT_EQ(reports.reports().front().text, home.syntax(1));
}

}  // namespace
