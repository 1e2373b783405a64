// The library's own formatter behind ERR_report and ERR_format, and ERR_format_fill.
#include <gtest/gtest.h>

#include <string>

#include <pxf/err.h>

namespace {

ERR_DESCRIPTOR descriptor(const char *format, const char *const *names = nullptr) {
    ERR_DESCRIPTOR d{};
    d.severity = ERR_ERROR;
    d.name = "fmt";
    d.format = format;
    d.arg_names = names;
    return d;
}

TEST(Formatter, KnownDirectivesTakeArgumentsOthersPassThrough) {
    char out[ERR_REPORT_TEXT_MAX];
    ERR_DESCRIPTOR d = descriptor("%s has %d of %f%% [%c] %5d %x %");
    EXPECT_STREQ(ERR_format(out, &d, "pool", 3, 0.5), "pool has 3 of 0.500000% [] %5d %x %");
    d = descriptor("%5d then %d");  // a width directive takes no argument
    EXPECT_STREQ(ERR_format(out, &d, 42), "%5d then 42");
    std::string long_arg(1000, 'y');
    d = descriptor("%s");
    ERR_format(out, &d, long_arg.c_str());
    EXPECT_EQ(std::string(out).size(), static_cast<size_t>(ERR_REPORT_TEXT_MAX - 1));
}

TEST(Formatter, SuppressedReportLeavesBufferUntouched) {
    char out[ERR_REPORT_TEXT_MAX] = "untouched";
    ERR_DESCRIPTOR d = descriptor("changed");
    ERR_mask(&d);
    EXPECT_STREQ(ERR_format(out, &d), "untouched");
    ERR_unmask(&d);
    ERR_mask_s(ERR_ERROR);
    EXPECT_STREQ(ERR_format(out, &d), "untouched");
    ERR_unmask_s(ERR_ERROR);
    ERR_mask(nullptr);
    EXPECT_STREQ(ERR_format(out, &d), "untouched");
    ERR_unmask(nullptr);
    EXPECT_STREQ(ERR_format(out, &d), "changed");
}

TEST(FormatFill, NamesUsedUntilTheListEndsThenTypeWords) {
    char out[ERR_REPORT_TEXT_MAX];
    const char *names[] = {"file", nullptr};
    ERR_DESCRIPTOR d = descriptor("open %s at %d: %f%% %c %q", names);
    EXPECT_STREQ(ERR_format_fill(&d, out),
                 "open <file> at <integer>: <real>% <character> <unknown type>");
    ERR_DESCRIPTOR bare = descriptor("%s/%d");
    EXPECT_STREQ(ERR_format_fill(&bare, out), "<string>/<integer>");
}

}  // namespace
