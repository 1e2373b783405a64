// ERR_report_cat with a real catalogue made by gencat.
#include <gtest/gtest.h>
#include <nl_types.h>

#include <pxf/err.h>
#include <pxf/pxf.h>

#include "foundation/alloc.h"
#include "support/test_support.h"

namespace {

class CatalogTest : public ::testing::Test {
protected:
    void SetUp() override {
        catalog_ = catopen(TEST_CATALOG, 0);
        ASSERT_NE(catalog_, reinterpret_cast<nl_catd>(-1)) << TEST_CATALOG;
    }
    void TearDown() override { catclose(catalog_); }
    nl_catd catalog_{};
};

TEST_F(CatalogTest, TranslatedTextIsTakenBySetAndNumber) {
    pxf::test::ReportCapture capture;
    ERR_report_cat(catalog_, 902, 7, ERR_ERROR, "File %s not found (%d)", "a.rla", 3);
    EXPECT_EQ(capture.last(), "Fichier a.rla introuvable (3)");
    // The internal descriptor is named by the built-in text, and its format is the finished text.
    ERR_DESCRIPTOR *d = ERR_last(0);
    ASSERT_NE(d, nullptr);
    EXPECT_STREQ(d->name, "File %s not found (%d)");
    EXPECT_STREQ(d->format, "Fichier a.rla introuvable (3)");
    EXPECT_EQ(d->severity, ERR_ERROR);
    EXPECT_EQ(d->kind, 1);
}

TEST_F(CatalogTest, DefaultTextWhenMessageMissingOrCatalogueNull) {
    pxf::test::ReportCapture capture;
    ERR_report_cat(catalog_, 902, 8, ERR_WARNING, "no such message %d", 8);
    EXPECT_EQ(capture.last(), "no such message 8");
    ERR_report_cat(catalog_, 905, 1, ERR_WARNING, "no such set");
    EXPECT_EQ(capture.last(), "no such set");
    ERR_report_cat(nullptr, 902, 7, ERR_ERROR, "File %s not found (%d)", "b", 4);
    EXPECT_EQ(capture.last(), "File b not found (4)");
    ASSERT_EQ(capture.reports().size(), 3u);
    EXPECT_EQ(capture.reports()[0].severity, ERR_WARNING);
}

TEST_F(CatalogTest, OutOfMemoryReportUsesLibraryCatalogue) {
    pxf::test::ReportCapture capture;
    nl_catd saved = pxf__msg_cat;
    pxf__msg_cat = catalog_;
    pxf::fault::arm(1);
    EXPECT_EQ(ERR_malloc(16), nullptr);
    pxf::fault::disarm();
    pxf__msg_cat = saved;
    EXPECT_EQ(capture.last(), "Plus de memoire interne");
}

}  // namespace
