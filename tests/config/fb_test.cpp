// Framebuffer descriptions.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <pxf/fmt.h>

#include "config_env.h"

namespace {

using pxf::test::ConfigHome;
using pxf::test::ReportCapture;

std::vector<std::string> device_names() {
    std::vector<std::string> names;
    FB_init(nullptr);
    while (FB_ENTRY *fb = FB_info()) names.emplace_back(fb->name);
    return names;
}

TEST(Framebuffers, BuiltInWithoutFile) {
    ConfigHome home;
    FB_ENTRY *pal = FB_find("pal");
    ASSERT_NE(pal, nullptr);
    EXPECT_EQ(pal->x_res, 780);
    EXPECT_EQ(device_names(), (std::vector<std::string>{"full", "ntsc", "pal"}));
    EXPECT_STREQ(FB_def_framebuffer(), "full");
}

TEST(Framebuffers, BlocksStartFromFullAndReplaceByName) {
    ConfigHome home(
        "framebuffer studio\n"
        "resolution 1920 1080\n"
        "aspect 1.78\n"
        "gamma 2.4\n"
        "red_primary 0.64 0.33 0.03\n"
        "end_framebuffer\n"
        "framebuffer ntsc\n"
        "white_point 0.3127 0.329 0.3583\n"
        "end_framebuffer\n"
        "framebuffer never_ended\n"
        "resolution 1 1\n");
    ASSERT_EQ(FB_init(nullptr), 0);
    EXPECT_EQ(device_names(), (std::vector<std::string>{"full", "pal", "studio", "ntsc"}));
    FB_ENTRY *studio = FB_find("studio");
    ASSERT_NE(studio, nullptr);
    EXPECT_EQ(studio->x_res, 1920);
    EXPECT_FLOAT_EQ(studio->aspect, 1.78f);
    EXPECT_FLOAT_EQ(studio->gamma, 2.4f);
    EXPECT_FLOAT_EQ(studio->red[0], 0.64f);
    EXPECT_FLOAT_EQ(studio->green[1], 0.71f);  // from "full"
    FB_ENTRY *ntsc = FB_find("ntsc");
    ASSERT_NE(ntsc, nullptr);
    EXPECT_EQ(ntsc->x_res, 1280);  // a new block starts from "full", not from the old entry
    EXPECT_FLOAT_EQ(ntsc->white[0], 0.3127f);
    EXPECT_EQ(FB_find("never_ended"), nullptr);
}

TEST(Framebuffers, DefaultIsTakenUnchecked) {
    ConfigHome home("fb__default nothing\n");
    EXPECT_STREQ(FB_def_framebuffer(), "nothing");
    EXPECT_EQ(FB_find("nothing"), nullptr);
}

TEST(Framebuffers, SyntaxErrorsEvenOutsideBlocks) {
    ConfigHome home("aspect 1.0 2.0\nresolution 5 5\nframebuffer x\ngamma abc\nred_primary 1 2\nend_framebuffer\n");
    ReportCapture reports;
    ASSERT_EQ(FB_init(nullptr), 0);
    EXPECT_EQ(ConfigHome::texts(reports), (std::vector<std::string>{home.syntax(1), home.syntax(4), home.syntax(5)}));
    ASSERT_NE(FB_find("x"), nullptr);
    EXPECT_FLOAT_EQ(FB_find("x")->gamma, 2.2f);
}

TEST(Framebuffers, OutOfMemoryTearsDown) {
    ConfigHome home("fb__default studio\nframebuffer studio\nend_framebuffer\nframebuffer full\nend_framebuffer\n");
    ReportCapture reports;
    pxf::test::for_each_allocation_failure(
        [] {
            bool ok = FB_init(nullptr) == 0 && std::string(fb__default) == "studio" &&
                      FB_find("studio") != nullptr;
            FB_exit();
            return ok;
        },
        [&](int) {
            EXPECT_STREQ(fb__default, "full");
            EXPECT_FALSE(reports.reports().empty());
            reports.clear();
        });
    // Memory back: the same file reads fully.
    EXPECT_STREQ(FB_def_framebuffer(), "studio");
}

}  // namespace
