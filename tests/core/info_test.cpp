// The image description and its records: layout, defaults, channel buffers,
// palettes and type-specific settings.
#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstring>

#include <pxf/pxf.h>

#include "core/core_util.h"
#include "core_test_util.h"
#include "foundation/alloc.h"
#include "support/test_support.h"

// The layout applications and plug-ins compile against.
static_assert(sizeof(PXF_RESPONSE_CURVE) == 40 && sizeof(PXF_CHAN_GROUP) == 24 && sizeof(PXF_LUT) == 24);
static_assert(offsetof(PXF_IMAGE_DESC, window) == 68 && offsetof(PXF_IMAGE_DESC, chan) == 112);
static_assert(offsetof(PXF_IMAGE_DESC, index) == 184 && sizeof(PXF_IMAGE_DESC) == 208);
static_assert(offsetof(PXF_INFO, specific) == 104 && offsetof(PXF_INFO, init_magic) == 140);
static_assert(offsetof(PXF_INFO, images) == 200 && sizeof(PXF_INFO) == 272);
static_assert(offsetof(PXF_IMAGE, mode) == 280 && offsetof(PXF_IMAGE, scan) == 296);
static_assert(offsetof(PXF_IMAGE, current_line) == 392 && offsetof(PXF_IMAGE, lock) == 416);

namespace {

using namespace pxf::test;

using CatalogueTest = Numbered;

TEST(Info, CleanupWarnsWhenFreedTwiceOrNeverInitialised) {
    PXF_INFO info;
    std::memset(&info, 0x5a, sizeof info);
    PXF_info_init(&info);
    EXPECT_FLOAT_EQ(info.red_pri[0], 0.67f);  // from the colour database
    info.key = strdup("mem");
    info.num_images = 2;
    info.images = static_cast<PXF_IMAGE_DESC *>(calloc(2, sizeof(PXF_IMAGE_DESC)));
    info.images[1].aux.format = strdup("z");
    const std::string warning = "PXF_info_cleanup: application programming error.\nThe PXF_INFO structure being "
                                "freed has either been freed already or else was never initialised.\n";
    StderrCapture err;
    PXF_info_cleanup(&info, 1);  // silent
    EXPECT_EQ(info.images, nullptr);
    PXF_info_cleanup(&info, 1);
    EXPECT_EQ(PXF_info_free(static_cast<PXF_INFO *>(calloc(1, sizeof(PXF_INFO))), 0), nullptr);  // freed all the same
    EXPECT_EQ(err.finish(), warning + warning);
}

TEST(ChannelBuffer, RowsArePaddedToEightBytesInGroupOrder) {
    PXF_IMAGE_DESC d = describe(5, 1, 3, 8, 1, 2);
    d.aux.type = PXF_C_FLOAT;
    void **rows = pxf__chan_alloc(&d, 5, "test");
    ASSERT_NE(rows, nullptr);
    EXPECT_EQ(chan_alloc_size, 3 * 8 + 8 + 2 * 24);
    auto *base = static_cast<unsigned char *>(rows[0]);
    std::ptrdiff_t expected[] = {0, 8, 16, 24, 32, 56};
    for (int c = 0; c < 6; ++c) EXPECT_EQ(static_cast<unsigned char *>(rows[c]) - base, expected[c]) << c;
    for (int i = 0; i < chan_alloc_size; ++i) ASSERT_EQ(base[i], 0);
    EXPECT_EQ(pxf__chan_free(rows), 1);
}

TEST(ChannelBuffer, SizeFollowsWidthAndIndexOnlyWithoutColour) {
    struct Case { int channels, bits, indices, size; };
    const Case cases[] = {{1, 0, 0, 8},  {1, 8, 0, 8},  {1, 9, 0, 16}, {1, 16, 0, 16}, {1, 17, 0, 32},
                          {1, 32, 0, 32}, {3, 8, 2, 24}, {0, 8, 2, 32}};  // indices are 16 bits wide
    for (const Case &c : cases) {
        PXF_IMAGE_DESC d = describe(8, 1, c.channels, c.bits);
        d.index.count = c.indices;
        int size = -1;
        PXF_chan_free(PXF_chan_alloc(&d, 8, "test", &size));
        EXPECT_EQ(size, c.size) << c.channels << " x " << c.bits;
        EXPECT_EQ(d.index.count, c.channels ? 0 : c.indices);  // dropped beside colour channels
    }
}

TEST_F(CatalogueTest, EveryGroupFaultHasItsNumber) {
    // The number for a bad width follows the one for a bad type.
    struct Group { PXF_CHAN_GROUP PXF_IMAGE_DESC::*member; const char *name; int bad_type, bad_width, type_number; };
    const Group groups[] = {{&PXF_IMAGE_DESC::chan, "image", 0, 33, 72},
                            {&PXF_IMAGE_DESC::matte, "matte", 4, 40, 79},
                            {&PXF_IMAGE_DESC::aux, "auxiliary", 0, 33, 70},
                            {&PXF_IMAGE_DESC::index, "color index", PXF_C_FLOAT, 17, 132}};
    for (const Group &g : groups)
        for (int width : {0, 1}) {
            PXF_IMAGE_DESC d = describe(4, 1, 1, 8);
            if (width) (d.*g.member).width = g.bad_width;
            else (d.*g.member).type = g.bad_type;
            ReportCapture capture;
            pxf__err = 0;
            EXPECT_EQ(pxf__chan_alloc(&d, 4, "drv"), nullptr) << g.name;
            EXPECT_EQ(pxf__err, PXF_E_CANNOT_DO);
            ASSERT_EQ(capture.reports().size(), 1u);
            EXPECT_EQ(capture.reports()[0].severity, ERR_ERROR);
            std::string text = std::string("drv cannot handle ") + g.name + " channel " + (width ? "width" : "type");
            EXPECT_EQ(capture.last(), numbered(g.type_number + width, text));
        }
}

TEST(ChannelBuffer, OutOfMemorySetsCodeWithoutMessage) {
    PXF_IMAGE_DESC d = describe(4, 1, 3, 8);
    ReportCapture capture;
    for_each_allocation_failure([&] {
        pxf__err = 0;
        void **rows = pxf__chan_alloc(&d, 4, "test");
        bool made = rows != nullptr;
        EXPECT_EQ(pxf__err, made ? 0 : PXF_E_NO_MEMORY);
        pxf__chan_free(rows);
        return made;
    });
    EXPECT_TRUE(capture.reports().empty());
}

TEST(Lut, CopyAndGrowKeepTheEntriesAndAFailedGrowFreesTheRecord) {
    PXF_LUT *lut = PXF_lut_alloc(16);
    ASSERT_NE(lut, nullptr);
    for (uint32_t i = 0; i < 16; ++i) lut->entries[i] = {uint16_t(i), 1, 2, 3};
    PXF_LUT *copy = PXF_lut_copy(lut);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(std::memcmp(copy->entries, lut->entries, 16 * sizeof(PXF_LUT_ENTRY)), 0);
    lut = PXF_lut_realloc(lut, 32);
    ASSERT_NE(lut, nullptr);
    EXPECT_EQ(lut->maximum, 15);
    EXPECT_EQ(lut->entries[15].red, 15);
    for (uint32_t i = 16; i < 32; ++i) EXPECT_EQ(lut->entries[i].red | lut->entries[i].flags, 0);
    PXF_lut_free(lut);

    ReportCapture capture;
    pxf::fault::arm(1);
    EXPECT_EQ(PXF_lut_realloc(copy, 64), nullptr);  // the copy is gone too (ASan would see a leak)
    pxf::fault::disarm();
    EXPECT_EQ(capture.last(), "No more internal memory");
    for (int n = 1; n <= 2; ++n) {
        pxf::fault::arm(n);
        EXPECT_EQ(PXF_lut_alloc(8), nullptr);
        pxf::fault::disarm();
    }
}

// A settings list built from (code, value) pairs; value is an integer or a float by code.
struct Settings {
    std::vector<PXF_CAP_SETTING> items;
    std::vector<PXF_CAP_SETTING *> list;
    Settings(std::initializer_list<std::pair<int, double>> pairs) {
        for (auto [code, value] : pairs) {
            items.push_back({uint16_t(code), {code == 1 ? 0 : int32_t(value)}});
            if (code == 1) items.back().value.real = float(value);
        }
        for (auto &s : items) list.push_back(&s);
        list.push_back(nullptr);
    }
    PXF_CAP_SETTING **get() { return list.data(); }
};

TEST_F(CatalogueTest, SettingsCompareInOrder) {
    Settings a{{0, 3}, {1, 0.5}}, swapped{{1, 0.5}, {0, 3}}, wider{{0, 3}, {2, 7}, {1, 0.5}};
    Settings other{{0, 4}, {1, 0.5}}, nan{{1, NAN}}, empty{}, odd{{7, 1}};
    const struct { PXF_CAP_SETTING **x, **y; bool same; } cases[] = {
        {a.get(), swapped.get(), false},  {a.get(), wider.get(), true}, {a.get(), other.get(), false},
        {nan.get(), nan.get(), false},    {nullptr, nullptr, true},     {nullptr, empty.get(), true},
        {empty.get(), empty.get(), true}, {nullptr, a.get(), false},    {a.get(), empty.get(), false}};
    for (const auto &c : cases) EXPECT_EQ(bool(PXF_cap_setting_compare(c.x, c.y)), c.same) << "case " << &c - cases;
    ReportCapture capture;
    EXPECT_FALSE(PXF_cap_setting_compare(odd.get(), odd.get()));
    ASSERT_EQ(capture.reports().size(), 1u);
    EXPECT_EQ(capture.reports()[0].severity, ERR_WARNING);
    EXPECT_EQ(capture.last(),
              numbered(92, "Unknown type-specific capability code (7) specified when trying to open image file"));
}

TEST(Settings, CopyIsDeepAndStopsWhereMemoryEnds) {
    Settings a{{0, 3}, {1, 0.5}, {0, 9}};
    PXF_CAP_SETTING **copy = PXF_cap_setting_copy(a.get());
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy[0], a.get()[0]);
    EXPECT_TRUE(PXF_cap_setting_compare(copy, a.get()));
    EXPECT_EQ(copy[3], nullptr);
    pxf::free_settings(copy);

    ReportCapture capture;
    pxf::fault::arm(3);  // the list and the first setting succeed
    copy = PXF_cap_setting_copy(a.get());
    pxf::fault::disarm();
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy[0], nullptr);
    EXPECT_EQ(copy[1], nullptr);
    EXPECT_EQ(capture.last(), "No more internal memory");
    pxf::free_settings(copy);
}

TEST_F(CatalogueTest, SpecificSettingsComeFromTheDriver) {
    ASSERT_EQ(PXF_init(catalog_, nullptr), 0);
    PXF_TYPE entry{};
    entry.capability = [](PXF_CAP_SETTING ***settings, int *a, int *b, int *c) {
        static PXF_CAP_SETTING s{0, {5}}, *list[] = {&s, nullptr};
        *settings = list;
        *a = *b = *c = 3;
        return 1;
    };
    PXF_CAP_SETTING **list = nullptr;
    int a = 9, b = 9, c = 9;
    PXF_info_get_specific(nullptr, &entry, &list, &a, &b, &c);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list[0]->value.integer, 5);
    EXPECT_EQ(a + b + c, 9);
    ReportCapture capture;
    a = 42;
    PXF_info_get_specific("nosuch", nullptr, &list, &a, &b, &c);  // unknown key: outputs untouched
    EXPECT_EQ(a, 42);
    EXPECT_TRUE(capture.last().rfind("[902] ", 0) == 0);
}

}  // namespace
