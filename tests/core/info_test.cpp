// The image description and its records: layout, defaults, channel buffers,
// palettes and type-specific settings.
#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstring>

#include <pxf/pxf.h>

#include "core_test_util.h"
#include "foundation/alloc.h"
#include "support/test_support.h"

// The layout applications and plug-ins compile against.
static_assert(sizeof(PXF_RESPONSE_CURVE) == 40 && offsetof(PXF_RESPONSE_CURVE, tables) == 32);
static_assert(sizeof(PXF_CHAN_GROUP) == 24 && offsetof(PXF_CHAN_GROUP, width) == 16);
static_assert(offsetof(PXF_IMAGE_DESC, curve) == 8 && offsetof(PXF_IMAGE_DESC, aspect) == 48);
static_assert(offsetof(PXF_IMAGE_DESC, window) == 68 && offsetof(PXF_IMAGE_DESC, active_window) == 84);
static_assert(offsetof(PXF_IMAGE_DESC, orientation) == 104 && offsetof(PXF_IMAGE_DESC, chan) == 112);
static_assert(offsetof(PXF_IMAGE_DESC, index) == 184 && sizeof(PXF_IMAGE_DESC) == 208);
static_assert(sizeof(PXF_CAP_SETTING) == 8 && offsetof(PXF_CAP_SETTING, value) == 4);
static_assert(sizeof(PXF_LUT) == 24 && offsetof(PXF_LUT, gamma) == 16);
static_assert(offsetof(PXF_INFO, option_flag) == 16 && offsetof(PXF_INFO, specific) == 104);
static_assert(offsetof(PXF_INFO, value_b) == 120 && offsetof(PXF_INFO, init_magic) == 140);
static_assert(offsetof(PXF_INFO, red_pri) == 144 && offsetof(PXF_INFO, num_images) == 192);
static_assert(offsetof(PXF_INFO, images) == 200 && offsetof(PXF_INFO, open_flag) == 228);
static_assert(offsetof(PXF_INFO, value_c) == 232 && sizeof(PXF_INFO) == 272);
static_assert(offsetof(PXF_IMAGE, info) == 8 && offsetof(PXF_IMAGE, mode) == 280);
static_assert(offsetof(PXF_IMAGE, scan) == 296 && offsetof(PXF_IMAGE, seek) == 384);
static_assert(offsetof(PXF_IMAGE, current_line) == 392 && offsetof(PXF_IMAGE, direct_scan) == 408);
static_assert(offsetof(PXF_IMAGE, lock) == 416);
static_assert(offsetof(PXF_TYPE, next) == 0);

namespace {

using pxf::test::describe;
using pxf::test::numbered;
using pxf::test::ReportCapture;
using pxf::test::StderrCapture;

class CatalogueTest : public ::testing::Test {
protected:
    void SetUp() override {
        pxf__msg_cat = pxf::test::numbered_catalog();
        ASSERT_NE(pxf__msg_cat, reinterpret_cast<nl_catd>(-1));
    }
    void TearDown() override {
        catclose(pxf__msg_cat);
        pxf__msg_cat = nullptr;
    }
};

TEST(Info, InitSetsDefaultsFromTheColourDatabase) {
    PXF_INFO info;
    std::memset(&info, 0x5a, sizeof info);
    PXF_info_init(&info);
    EXPECT_EQ(info.key, nullptr);
    EXPECT_EQ(info.job_num, -1);
    EXPECT_EQ(info.init_magic, 22839u);
    uint32_t rate_bits;
    std::memcpy(&rate_bits, &info.frame_rate, 4);
    EXPECT_EQ(rate_bits, 0x41EFC28Fu);
    EXPECT_EQ(info.open_flag, 1);
    EXPECT_FLOAT_EQ(info.red_pri[0], 0.67f);
    EXPECT_FLOAT_EQ(info.white_pt[1], 0.316f);
}

TEST(Info, CleanupFreesOwnedStringsAndWarnsOnSecondCall) {
    PXF_INFO info;
    PXF_info_init(&info);
    info.key = strdup("mem");
    info.compression = strdup("none");
    info.num_images = 2;
    info.images = static_cast<PXF_IMAGE_DESC *>(calloc(2, sizeof(PXF_IMAGE_DESC)));
    info.images[1].aux.format = strdup("z");
    StderrCapture err;
    PXF_info_cleanup(&info, 1);
    EXPECT_EQ(info.key, nullptr);
    EXPECT_EQ(info.images, nullptr);
    EXPECT_EQ(info.init_magic, 0u);
    EXPECT_EQ(err.finish(), "");

    StderrCapture again;
    PXF_info_cleanup(&info, 1);
    EXPECT_EQ(again.finish(),
              "PXF_info_cleanup: application programming error.\n"
              "The PXF_INFO structure being freed has either been freed already or else was never initialised.\n");
}

TEST(Info, FreeOfUninitialisedRecordWarnsAndStillFrees) {
    auto *info = static_cast<PXF_INFO *>(calloc(1, sizeof(PXF_INFO)));
    StderrCapture err;
    EXPECT_EQ(PXF_info_free(info, 0), nullptr);
    EXPECT_NE(err.finish().find("application programming error"), std::string::npos);
    PXF_INFO *fresh = PXF_info_alloc();
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(fresh->init_magic, 22839u);
    EXPECT_EQ(PXF_info_free(fresh, 1), nullptr);
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
    EXPECT_EQ(pxf__chan_free(nullptr), 1);
}

TEST(ChannelBuffer, ElementSizeFollowsWidth) {
    const int widths[] = {0, 8, 9, 16, 17, 32};
    const int bytes[] = {1, 1, 2, 2, 4, 4};
    for (int i = 0; i < 6; ++i) {
        PXF_IMAGE_DESC d = describe(1, 1, 1, widths[i]);
        int size = -1;
        void **rows = PXF_chan_alloc(&d, 8, "test", &size);
        ASSERT_NE(rows, nullptr);
        EXPECT_EQ(size, 8 * bytes[i]) << "width " << widths[i];
        PXF_chan_free(rows);
    }
    PXF_IMAGE_DESC d = describe(1, 1, 1, 32, 0, 1, PXF_C_DOUBLE);
    void **rows = pxf__chan_alloc(&d, 3, "test");
    EXPECT_EQ(chan_alloc_size, 24 + 24);
    pxf__chan_free(rows);
}

TEST(ChannelBuffer, ColourIndexOnlyWithoutColourChannels) {
    PXF_IMAGE_DESC d = describe(5, 1, 3, 8);
    d.index.count = 2;
    void **rows = pxf__chan_alloc(&d, 5, "test");
    ASSERT_NE(rows, nullptr);
    EXPECT_EQ(d.index.count, 0);
    EXPECT_EQ(chan_alloc_size, 3 * 8);
    pxf__chan_free(rows);

    PXF_IMAGE_DESC indexed = describe(5, 1, 0, 8);
    indexed.index.count = 2;
    rows = pxf__chan_alloc(&indexed, 5, "test");
    ASSERT_NE(rows, nullptr);
    EXPECT_EQ(chan_alloc_size, 2 * 16);
    EXPECT_EQ(static_cast<char *>(rows[1]) - static_cast<char *>(rows[0]), 16);
    pxf__chan_free(rows);
}

struct GroupFault {
    PXF_CHAN_GROUP PXF_IMAGE_DESC::*group;
    int type, width, number;
    const char *text;
};

TEST_F(CatalogueTest, EveryGroupFaultHasItsNumber) {
    const GroupFault faults[] = {
        {&PXF_IMAGE_DESC::chan, 0, 8, 72, "drv cannot handle image channel type"},
        {&PXF_IMAGE_DESC::chan, PXF_C_INTEGER, 33, 73, "drv cannot handle image channel width"},
        {&PXF_IMAGE_DESC::matte, 4, 8, 79, "drv cannot handle matte channel type"},
        {&PXF_IMAGE_DESC::matte, PXF_C_INTEGER, 40, 80, "drv cannot handle matte channel width"},
        {&PXF_IMAGE_DESC::aux, 0, 8, 70, "drv cannot handle auxiliary channel type"},
        {&PXF_IMAGE_DESC::aux, PXF_C_INTEGER, 33, 71, "drv cannot handle auxiliary channel width"},
        {&PXF_IMAGE_DESC::index, PXF_C_FLOAT, 16, 132, "drv cannot handle color index channel type"},
        {&PXF_IMAGE_DESC::index, PXF_C_INTEGER, 17, 133, "drv cannot handle color index channel width"},
    };
    for (const GroupFault &f : faults) {
        PXF_IMAGE_DESC d = describe(4, 1, 1, 8);
        (d.*f.group).type = f.type;
        (d.*f.group).width = f.width;
        ReportCapture capture;
        pxf__err = 0;
        EXPECT_EQ(pxf__chan_alloc(&d, 4, "drv"), nullptr) << f.number;
        EXPECT_EQ(pxf__err, PXF_E_CANNOT_DO);
        EXPECT_EQ(capture.last(), numbered(f.number, f.text));
        ASSERT_EQ(capture.reports().size(), 1u);
        EXPECT_EQ(capture.reports()[0].severity, ERR_ERROR);
    }
}

TEST(ChannelBuffer, OutOfMemorySetsCodeWithoutMessage) {
    PXF_IMAGE_DESC d = describe(4, 1, 3, 8);
    ReportCapture capture;
    pxf::test::for_each_allocation_failure(
        [&] {
            pxf__err = 0;
            void **rows = pxf__chan_alloc(&d, 4, "test");
            if (!rows) {
                EXPECT_EQ(pxf__err, PXF_E_NO_MEMORY);
                return false;
            }
            pxf__chan_free(rows);
            return true;
        });
    EXPECT_TRUE(capture.reports().empty());
}

template <class T>
void check_copier(int (*copy)(void **, void **, int, int)) {
    T a0[6], a1[6], b0[6] = {}, b1[6] = {};
    for (int i = 0; i < 6; ++i) {
        a0[i] = T(0x11111111u * (i + 1));
        a1[i] = T(0x01010101u * (i + 7));
    }
    void *src[] = {a0, a1}, *dst[] = {b0, b1};
    EXPECT_EQ(copy(dst, src, 2, 5), 0);
    EXPECT_EQ(std::memcmp(a0, b0, 5 * sizeof(T)), 0);
    EXPECT_EQ(std::memcmp(a1, b1, 5 * sizeof(T)), 0);
    EXPECT_EQ(b0[5], T(0));  // nothing beyond the given count
}

TEST(ChannelBuffer, CopiersCopyWholeElements) {
    check_copier<uint8_t>(pxf__chan_copy_byte);
    check_copier<uint16_t>(pxf__chan_copy_short);
    check_copier<uint32_t>(pxf__chan_copy_long);
}

TEST(Lut, GrowKeepsMaximumAndZeroesNewEntries) {
    PXF_LUT *lut = PXF_lut_alloc(16);
    ASSERT_NE(lut, nullptr);
    EXPECT_EQ(lut->maximum, 15);
    EXPECT_EQ(lut->count, 16u);
    EXPECT_EQ(lut->gamma, 1.0f);
    for (uint32_t i = 0; i < 16; ++i) lut->entries[i] = {uint16_t(i), 1, 2, 3};
    lut->gamma = 2.2f;
    PXF_LUT *copy = PXF_lut_copy(lut);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(std::memcmp(copy->entries, lut->entries, 16 * sizeof(PXF_LUT_ENTRY)), 0);
    EXPECT_EQ(copy->gamma, 2.2f);

    lut = PXF_lut_realloc(lut, 32);
    ASSERT_NE(lut, nullptr);
    EXPECT_EQ(lut->maximum, 15);
    EXPECT_EQ(lut->count, 32u);
    EXPECT_EQ(lut->entries[15].red, 15);
    for (uint32_t i = 16; i < 32; ++i) EXPECT_EQ(lut->entries[i].red | lut->entries[i].flags, 0);
    EXPECT_EQ(PXF_lut_free(lut), nullptr);
    EXPECT_EQ(PXF_lut_free(copy), nullptr);
}

TEST(Lut, FailedGrowFreesTheRecord) {
    PXF_LUT *lut = PXF_lut_alloc(4);
    ReportCapture capture;
    pxf::fault::arm(1);
    EXPECT_EQ(PXF_lut_realloc(lut, 64), nullptr);  // the record is gone (ASan would see a leak)
    pxf::fault::disarm();
    EXPECT_EQ(capture.last(), "No more internal memory");
    for (int n = 1; n <= 2; ++n) {
        pxf::fault::arm(n);
        EXPECT_EQ(PXF_lut_alloc(8), nullptr);
        pxf::fault::disarm();
    }
}

TEST(Lut, ReadWithoutPaletteReaderIsNoError) {
    PXF_IMAGE image;
    std::memset(&image, 0, sizeof image);
    PXF_LUT *lut = reinterpret_cast<PXF_LUT *>(&image);
    EXPECT_EQ(PXF_lut_read(&image, &lut), 1);
    EXPECT_EQ(lut, nullptr);
    void *data[1] = {&image};
    image.private_data = data;
    image.lut_read = [](void *, PXF_LUT **out) {
        *out = PXF_lut_alloc(2);
        return 0;
    };
    EXPECT_EQ(PXF_lut_read(&image, &lut), 0);
    PXF_lut_free(lut);
}

// A settings list built from (code, value) pairs; value is an integer or a float by code.
struct Settings {
    std::vector<PXF_CAP_SETTING> items;
    std::vector<PXF_CAP_SETTING *> list;
    Settings(std::initializer_list<std::pair<int, double>> pairs) {
        for (auto [code, value] : pairs) {
            PXF_CAP_SETTING s{uint16_t(code), {0}};
            if (code == 1) s.value.real = float(value);
            else s.value.integer = int32_t(value);
            items.push_back(s);
        }
        for (auto &s : items) list.push_back(&s);
        list.push_back(nullptr);
    }
    PXF_CAP_SETTING **get() { return list.data(); }
};

TEST_F(CatalogueTest, SettingsCompareInOrder) {
    Settings a{{0, 3}, {1, 0.5}};
    Settings swapped{{1, 0.5}, {0, 3}};
    Settings wider{{0, 3}, {2, 7}, {1, 0.5}};
    Settings other{{0, 4}, {1, 0.5}};
    Settings nan{{1, NAN}};
    Settings empty{};
    EXPECT_FALSE(PXF_cap_setting_compare(a.get(), swapped.get()));
    EXPECT_TRUE(PXF_cap_setting_compare(a.get(), wider.get()));
    EXPECT_FALSE(PXF_cap_setting_compare(a.get(), other.get()));
    EXPECT_FALSE(PXF_cap_setting_compare(nan.get(), nan.get()));
    EXPECT_TRUE(PXF_cap_setting_compare(nullptr, nullptr));
    EXPECT_TRUE(PXF_cap_setting_compare(nullptr, empty.get()));
    EXPECT_TRUE(PXF_cap_setting_compare(empty.get(), empty.get()));
    EXPECT_FALSE(PXF_cap_setting_compare(nullptr, a.get()));
    EXPECT_FALSE(PXF_cap_setting_compare(a.get(), empty.get()));

    Settings odd{{7, 1}};
    ReportCapture capture;
    EXPECT_FALSE(PXF_cap_setting_compare(odd.get(), odd.get()));
    ASSERT_EQ(capture.reports().size(), 1u);
    EXPECT_EQ(capture.reports()[0].severity, ERR_WARNING);
    EXPECT_EQ(capture.last(),
              numbered(92, "Unknown type-specific capability code (7) specified when trying to open image file"));
}

void free_list(PXF_CAP_SETTING **list) {
    for (PXF_CAP_SETTING **s = list; s && *s; ++s) free(*s);
    free(list);
}

TEST(Settings, CopyIsDeepAndStopsWhereMemoryEnds) {
    PXF_CAP_SETTING *fresh = PXF_cap_setting_alloc(2);
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(fresh[1].code, PXF_CAP_NONE);
    EXPECT_EQ(fresh[1].value.integer, 0);
    free(fresh);

    Settings a{{0, 3}, {1, 0.5}, {0, 9}};
    PXF_CAP_SETTING **copy = PXF_cap_setting_copy(a.get());
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy[0], a.get()[0]);
    EXPECT_TRUE(PXF_cap_setting_compare(copy, a.get()));
    EXPECT_EQ(copy[3], nullptr);
    free_list(copy);
    Settings empty{};
    EXPECT_EQ(PXF_cap_setting_copy(empty.get()), nullptr);

    ReportCapture capture;
    pxf::fault::arm(3);  // the list and the first setting succeed
    copy = PXF_cap_setting_copy(a.get());
    pxf::fault::disarm();
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy[0], nullptr);
    EXPECT_EQ(copy[1], nullptr);
    EXPECT_EQ(capture.last(), "No more internal memory");
    free_list(copy);
}

int capability(PXF_CAP_SETTING ***settings, int *a, int *b, int *c) {
    static PXF_CAP_SETTING s{0, {5}};
    static PXF_CAP_SETTING *list[] = {&s, nullptr};
    *settings = list;
    *a = 1;
    *b = 2;
    *c = 3;
    return 1;
}

TEST_F(CatalogueTest, SpecificSettingsComeFromTheDriver) {
    ASSERT_EQ(PXF_init(pxf__msg_cat, nullptr), 0);
    PXF_TYPE entry{};
    PXF_CAP_SETTING **list = reinterpret_cast<PXF_CAP_SETTING **>(&entry);
    int a = 9, b = 9, c = 9;
    PXF_info_get_specific(nullptr, &entry, &list, &a, &b, &c);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(a + b + c, 0);
    entry.capability = capability;
    PXF_info_get_specific(nullptr, &entry, &list, &a, &b, &c);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list[0]->value.integer, 5);
    EXPECT_EQ(c, 3);

    ReportCapture capture;
    a = 42;
    PXF_info_get_specific("nosuch", nullptr, &list, &a, &b, &c);
    EXPECT_EQ(a, 42);
    EXPECT_EQ(capture.last(),
              numbered(902, "Unknown file type key (\"nosuch\") was specified; Ensure that the plug-in for "
                            "this type is defined"));
    PXF_exit();
}

}  // namespace
