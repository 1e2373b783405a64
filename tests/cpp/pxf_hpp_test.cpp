// The C++ layer: a round trip through the built-in RLA driver, the errors
// it turns into exceptions or statuses, and handles that close themselves.
#include <gtest/gtest.h>

#include <pxf/pxf.hpp>

#include <cmath>

#include "support/test_support.h"

namespace pxf::test {
namespace {

TEST(CppInterface, RoundTripWithTypedRowsOperatorsAndSelfClosingImages) {
    TempDir dir;
    const std::string path = dir.file("card.rla");
    {
        Image out = Image::create(path, Description(7, 5).colour(3, Element::u8).aux(1, Element::f32).gamma(1.0f));
        Image moved = std::move(out);
        EXPECT_FALSE(out);
        Rows rows = moved.rows();
        ASSERT_EQ(rows.count(), 4);
        for (int line = moved.bottom(); line <= moved.top(); ++line) {  // RLA files grow upwards
            for (int c = 0; c < 3; ++c)
                for (int x = 0; x < 7; ++x) rows.channel<std::uint8_t>(c)[x] = std::uint8_t(10 * x + line + c);
            for (int x = 0; x < 7; ++x) rows.channel<float>(3)[x] = 0.5f * x - line;
            moved.write(line, rows);
        }
        EXPECT_THROW(rows.channel<float>(0), Error);  // colour holds bytes
        // Leaving the scope closes the file.
    }
    Image in = Image::open(path);
    EXPECT_EQ(in.width(), 7);
    Image &same = in.cast();
    EXPECT_EQ(&same, &in);
    EXPECT_EQ(in.desc().chan.type, PXF_C_FLOAT);
    int wrong = 0;
    for (int line = 0; line < 5; ++line) {  // the RLA reader takes any order
        const Rows &got = in.read(line);
        for (int x = 0; x < 7; ++x) {
            wrong += std::abs(got.channel<const float>(1)[x] - float(10 * x + line + 1) / 255.0f) > 1e-6f;
            wrong += got.channel<const float>(3)[x] != 0.5f * x - line;
        }
    }
    EXPECT_EQ(wrong, 0);
    in.close();
    EXPECT_FALSE(in);
}

TEST(CppInterface, FailuresCarryTheLibraryReportAndCodeOrComeBackAsStatus) {
    TempDir dir;
    ReportCapture quiet;
    const std::string missing = dir.file("missing.rla");
    try {
        Image::open(missing);
        FAIL() << "no exception";
    } catch (const Error &e) {
        EXPECT_LT(e.code(), 0);
        EXPECT_NE(std::string(e.what()).find("missing.rla"), std::string::npos) << e.what();
    }
    Status status;
    Image none = Image::open(missing, {}, status);
    EXPECT_FALSE(none);
    EXPECT_FALSE(status.ok());
    EXPECT_NE(status.message.find("missing.rla"), std::string::npos) << status.message;

    Image out = Image::create(dir.file("small.rla"), Description(2, 2).colour(1, Element::u8));
    Rows rows = out.rows();
    out.write(0, rows, status);
    EXPECT_TRUE(status.ok());
    out.write(7, rows, status);  // outside the window
    EXPECT_EQ(status.code, PXF_E_BAD_SCANLINE);
    EXPECT_THROW(out.write(-3, rows), Error);
    EXPECT_THROW(Image::create(dir.file("x.rla"), Description(2, 2).colour(1, Element::u8), {"no-such-key", ""}), Error);
}

}  // namespace
}  // namespace pxf::test
