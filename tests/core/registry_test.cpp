// Loading real driver plug-ins and asking the registry about them.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include <pxf/plugin.h>
#include <pxf/pxf.h>

#include "core_test_util.h"
#include "naming/drivers.h"
#include "support/test_support.h"

namespace {

using namespace pxf::test;

using Registry = Numbered;

TEST_F(Registry, BrokenPluginsAreSkippedAndTheOthersLoad) {
    ReportCapture capture;
    ASSERT_EQ(init_with_plugins({"raw_no_key", "raw_plugin", "raw_old_protocol", "raw_declines", "raw_no_writer",
                                 "top_plugin"}, catalog_), 0);
    ASSERT_EQ(capture.reports().size(), 3u);
    EXPECT_EQ(capture.reports()[0].text, numbered(121, "raw_no_key: imageKey must be defined"));
    EXPECT_EQ(capture.reports()[1].text,
              numbered(196, "raw_old_protocol: the version protocol of this plug-in (\"3.1\") is not supported; "
                            "expecting version \"3.2\" but found \"3.1\""));
    EXPECT_EQ(capture.reports()[2].text, numbered(121, "raw_no_writer: imageWriteOpen must be defined"));  // promised
    ASSERT_EQ(pxf__num_pxf_types_dso, 2);
    EXPECT_STREQ(pxf__type_list_dso[0].key, "raw");
    EXPECT_STREQ(pxf__type_list_dso[1].key, "top");
    EXPECT_EQ(PXF_find("declined"), nullptr);  // imageInit said no
}

TEST_F(Registry, RecordsListPluginsWithDefaultsThenBuiltInsAndALaterKeyReplaces) {
    ASSERT_EQ(init_with_plugins({"raw_plugin", "top_plugin", "raw_second"}, catalog_), 0);
    ASSERT_EQ(pxf__num_pxf_types_dso, 2);
    EXPECT_STREQ(pxf__type_list_dso[1].name, "raw pixels, second");
    EXPECT_STREQ(PXF_find("raw")->extension, ".raw2");
    EXPECT_EQ(PXF_find(".raw"), nullptr);
    EXPECT_EQ(pxf__type_list_dso[0].number_of_channels, 3);  // absent symbols take their defaults
    EXPECT_STREQ(pxf__type_list_dso[0].format_string, "%s.%04.4d%s");
    EXPECT_EQ(pxf__type_list_dso[1].number_of_channels, 4);
    EXPECT_STREQ(PXF_info()->key, "top");
    EXPECT_STREQ(PXF_info()->key, "raw");
    EXPECT_EQ(PXF_info(), nullptr);  // built-in records are passed over
    ASSERT_EQ(PXF_init(nullptr, nullptr), 0);  // rewinds
    EXPECT_STREQ(PXF_info()->key, "top");
    ASSERT_NE(PXF_find("pipe"), nullptr);
    EXPECT_TRUE(PXF_find("pipe")->builtin);
    EXPECT_EQ(PXF_find("pipe")->next, PXF_find(".mem"));
    EXPECT_STREQ(PXF_find(".top")->key, "top");
}

TEST_F(Registry, ContentProbeDecidesTheFileType) {
    ASSERT_EQ(init_with_plugins({"raw_plugin", "top_plugin"}, catalog_), 0);
    TempDir dir;
    std::string picture = dir.file("picture.dat"), noise = dir.file("noise.dat");
    write_file(picture, "PXTOP1\nabc");
    write_file(noise, "nothing here");
    int decided = -1;
    EXPECT_STREQ(PXF_get_file_type(picture.c_str(), nullptr, &decided), "top");
    EXPECT_EQ(decided, 1);
    EXPECT_STREQ(PXF_get_file_type(noise.c_str(), nullptr, &decided), PXF_LITERAL_HARD_KEY_none);
    EXPECT_EQ(decided, 1);
    EXPECT_EQ(PXF_is_file_type(picture.c_str(), nullptr, "raw", &decided), nullptr);
    FILE *stream = fopen(picture.c_str(), "rb");
    EXPECT_STREQ(PXF_is_file_type("ignored", stream, "top", &decided), "top");
    fclose(stream);

    PXF_find("raw")->is_file = nullptr;  // a record without a probe leaves the type undecided
    EXPECT_EQ(PXF_get_file_type(noise.c_str(), nullptr, &decided), nullptr);
    EXPECT_EQ(decided, 0);
    EXPECT_EQ(PXF_is_file_type(noise.c_str(), nullptr, "raw", &decided), nullptr);
    EXPECT_EQ(decided, 0);
}

TEST_F(Registry, UnavailableDriversArePassedOverUntilMarkedBack) {
    ASSERT_EQ(init_with_plugins({"raw_plugin", "top_plugin"}, catalog_), 0);
    TempDir dir;
    std::string picture = dir.file("picture.top");
    write_file(picture, "PXTOP1\nabc");
    int decided = -1;
    ASSERT_EQ(PXF_set_available(".top", 0), 0);  // by extension, as PXF_find looks up
    ASSERT_EQ(PXF_set_available("top", 0), 0);   // twice is harmless
    EXPECT_EQ(PXF_find("top"), nullptr);
    EXPECT_EQ(PXF_find(".top"), nullptr);
    EXPECT_EQ(PXF_hasReadSupport("top"), 0);
    EXPECT_STREQ(PXF_info()->key, "raw");
    EXPECT_EQ(PXF_info(), nullptr);
    EXPECT_STREQ(PXF_get_file_type(picture.c_str(), nullptr, &decided), PXF_LITERAL_HARD_KEY_none);
    EXPECT_EQ(PXF_is_file_type(picture.c_str(), nullptr, "top", &decided), nullptr);
    EXPECT_EQ(pxf__num_pxf_types_dso, 2);  // the plug-in table still lists it
    {
        ReportCapture capture;
        Request request;
        EXPECT_EQ(request.set("top", picture.c_str()).open("r"), nullptr);
        EXPECT_EQ(pxf__err, -4);
        ASSERT_EQ(PXF_set_available("mem", 0), 0);  // built-ins too
        EXPECT_EQ(request.set("mem", "x").open("r"), nullptr);
        EXPECT_EQ(PXF_set_available("nothing", 0), -1);
        EXPECT_EQ(pxf__err, -4);
        EXPECT_EQ(capture.last(), numbered(902, "Unknown file type key (\"nothing\") was specified; "
                                                 "Ensure that the plug-in for this type is defined"));
    }
    ASSERT_EQ(PXF_set_available("top", 1), 0);
    ASSERT_EQ(PXF_set_available("mem", 1), 0);
    EXPECT_STREQ(PXF_find(".top")->key, "top");
    EXPECT_STREQ(PXF_get_file_type(picture.c_str(), nullptr, &decided), "top");
    ASSERT_EQ(PXF_init(nullptr, nullptr), 0);
    EXPECT_STREQ(PXF_info()->key, "raw");
    EXPECT_STREQ(PXF_info()->key, "top");

    ReportCapture quiet;
    for_each_allocation_failure([] { return PXF_set_available("raw", 0) == 0; },
                                [](int) { EXPECT_NE(PXF_find("raw"), nullptr); });
    EXPECT_EQ(PXF_find("raw"), nullptr);
}

TEST_F(Registry, QueryFunctionsCopyNamesKeysAndExtensions) {
    ASSERT_EQ(init_with_plugins({"top_plugin", "raw_read_only", "raw_second"}, catalog_), 0);
    const char *keys[4] = {};
    EXPECT_EQ(PXF_getFormatKeys(keys), 3);
    EXPECT_STREQ(keys[2], "raw");
    char *names[4] = {};
    EXPECT_EQ(PXF_getPluginNames(names), 3);
    EXPECT_STREQ(names[0], "top-down pixels");
    for (char *n : names) free(n);

    char buffer[512];
    PXF_getOnlyExtensions(buffer);
    EXPECT_STREQ(buffer, "*.top;*.rro;*.raw2;");
    pxf__type_list_dso[2].extension = ".a-very-long-extension-name";  // too long to show beside the name
    PXF_getPluginNamesWithFilters(buffer);
    const char expected[] = "top-down pixels (*.top)\0*.top\0raw pixels (*.rro)\0*.rro\0"
                            "raw pixels, second (all formats)\0*.a-very-long-extension-name";
    EXPECT_EQ(std::memcmp(buffer, expected, sizeof expected), 0);

    char out[64];
    EXPECT_EQ(PXF_getPluginNameFromKey("nosuch", out), -1);
    EXPECT_EQ(PXF_getKeyFromPluginName("top-down pixels", out), 0);
    EXPECT_STREQ(out, "top");
    EXPECT_TRUE(PXF_hasReadSupport("rawro"));
    EXPECT_FALSE(PXF_hasWriteSupport("rawro"));
    EXPECT_TRUE(PXF_hasWriteSupport("mem"));
    EXPECT_TRUE(PXF_isMultiFrameFormat("raw"));
    EXPECT_FALSE(PXF_isMultiFrameFormat("top"));
}

TEST_F(Registry, QueriesComplainOnStandardError) {
    ASSERT_EQ(PXF_init(catalog_, nullptr), 0);
    StderrCapture err;
    EXPECT_EQ(PXF_getFormatKeys(nullptr), 0);
    const char *keys[1];
    EXPECT_EQ(PXF_getFormatKeys(keys), 0);
    char buffer[16] = "junk";
    PXF_getOnlyExtensions(buffer);
    EXPECT_STREQ(buffer, "");
    PXF_getPluginNamesWithFilters(nullptr);
    EXPECT_EQ(PXF_getPluginNameFromKey(nullptr, buffer), -1);
    EXPECT_EQ(PXF_isMultiFrameFormat(nullptr), 0);
    EXPECT_EQ(PXF_getKeyFromPluginName(nullptr, buffer), -1);
    PXF_symbols();
    const std::string none = "Plugins not loaded, so Load!!\n\nNo Plugins!\n";
    EXPECT_EQ(err.finish(), "NULL pointer passed\n" + none + none + "NULL pointer passed!\nNULL key passed in\n"
                            "NULL key passed in\nNULL pluginName passed in\n"
                            "PXF_symbols: should not be called by the application\n");

    ReportCapture capture;
    EXPECT_STREQ(PXF_name_from_key("nosuch"), "nosuch");
    EXPECT_EQ(capture.last(),
              numbered(902, "Unknown file type key (\"nosuch\") was specified; Ensure that the plug-in for "
                            "this type is defined"));
}

TEST_F(Registry, NamingFindsRegisteredDriversByPathnameAndKey) {
    ASSERT_EQ(init_with_plugins({"raw_plugin", "top_plugin"}, catalog_), 0);
    pxf::naming::DriverNames names;
    ASSERT_TRUE(pxf::naming::driver_by_pathname("/shots/frame.0001.top", &names));
    EXPECT_EQ(names.record, PXF_find("top"));
    EXPECT_FALSE(pxf::naming::driver_by_pathname("/shots/frame.0001.tif", &names));
    ASSERT_TRUE(pxf::naming::driver_by_key("mem", &names));
    EXPECT_STREQ(names.name_syntax, "Name.####.Ext");
    EXPECT_FALSE(pxf::naming::driver_by_key("nosuch", &names));
}

TEST_F(Registry, FirstUseInitialisesAndSaysSoAtDebugLevel) {
    ERR_unmask_s(ERR_DEBUG);
    ReportCapture capture;
    EXPECT_NE(PXF_find("mem"), nullptr);
    EXPECT_NE(PXF_find("pipe"), nullptr);
    ERR_mask_s(ERR_DEBUG);
    ASSERT_EQ(capture.reports().size(), 1u);
    EXPECT_EQ(capture.reports()[0].severity, ERR_DEBUG);
    EXPECT_EQ(capture.last(), "pxf, initializing database for PXF_find request");  // lazily: no catalogue
}

TEST_F(Registry, CatalogueRenamesPluginSymbols) {
    nl_catd renamed = catopen(RENAMED_CATALOG, 0);
    ASSERT_NE(renamed, reinterpret_cast<nl_catd>(-1));
    ASSERT_EQ(init_with_plugins({"raw_plugin"}, renamed), 0);
    EXPECT_STREQ(pxf__type_list_dso[0].name, "raw 8-bit pixels");  // read from "imageDescription"
    PXF_exit();
    catclose(renamed);
}

}  // namespace
