// Strings and pointer arrays.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <pxf/str.h>

#include "foundation/alloc.h"
#include "support/test_support.h"

namespace {

void *as_pointer(uintptr_t v) { return reinterpret_cast<void *>(v); }

TEST(String, CopiesArePrivateAndConcatenationGrows) {
    char source[] = "frame";
    char *copy = STR_define(source);
    source[0] = 'X';
    EXPECT_STREQ(copy, "frame");
    EXPECT_EQ(STR_define(nullptr), nullptr);
    char *part = STR_ndefine("shot.0001.rla", 4);
    EXPECT_STREQ(part, "shot");
    char *whole = STR_ndefine("ab", 100);  // stops at the terminator, reads no further
    EXPECT_STREQ(whole, "ab");
    char *both = STR_concat("shot", nullptr);
    EXPECT_STREQ(both, "shot");
    char *grown = nullptr;
    for (int i = 0; i < 100; ++i) grown = STR_append(grown, "ab");
    EXPECT_EQ(std::strlen(grown), 200u);
    for (char *p : {copy, part, whole, both, grown}) EPTR_free(p);

    pxf::test::ReportCapture capture;
    char *kept = STR_define("kept");
    pxf::fault::arm(1);
    EXPECT_EQ(STR_append(kept, "more"), nullptr);
    pxf::fault::arm(1);
    EXPECT_EQ(STR_define("x"), nullptr);
    pxf::fault::disarm();
    EXPECT_STREQ(kept, "kept");  // the old string survives a failed growth
    EXPECT_TRUE(capture.saw("No more internal memory"));
    EPTR_free(kept);
}

TEST(String, BoundedCopyAndAppendNeverOverrun) {
    char buffer[8];
    EXPECT_EQ(STR_copy(buffer, sizeof buffer, "1234567"), 0);
    EXPECT_EQ(STR_copy(buffer, sizeof buffer, "12345678"), -1);
    EXPECT_STREQ(buffer, "1234567");
    EXPECT_EQ(STR_copy(buffer, 4, "abc"), 0);
    EXPECT_EQ(STR_cat(buffer, 6, "de"), 0);
    EXPECT_STREQ(buffer, "abcde");
    EXPECT_EQ(STR_cat(buffer, 6, "f"), -1);
    EXPECT_STREQ(buffer, "abcde");
    EXPECT_EQ(STR_cat(buffer, 8, "fgh"), -1);
    EXPECT_STREQ(buffer, "abcdefg");
    std::memset(buffer, 'z', sizeof buffer);
    EXPECT_EQ(STR_cat(buffer, sizeof buffer, "a"), -1);  // no terminator inside the buffer
    EXPECT_EQ(STR_copy(buffer, 0, "a"), -1);
    EXPECT_EQ(STR_copy(buffer, 1, nullptr), 0);
    EXPECT_STREQ(buffer, "");
}

TEST(String, TailsAndExtensions) {
    const struct {
        const char *path, *tail, *extension;
    } cases[] = {
        {"/img/shot.0001.rla", "shot.0001.rla", ".rla"},
        {"shot", "shot", ""},
        {"dir.d/shot", "shot", ""},
        {"/home/u/.pxfrc", ".pxfrc", ""},
        {"dir/", "", ""},
        {"a.tar.gz", "a.tar.gz", ".gz"},
        {"name.", "name.", "."},
        {"", "", ""},
    };
    for (const auto &c : cases) {
        EXPECT_STREQ(STR_tail(c.path), c.tail) << c.path;
        EXPECT_STREQ(STR_extension(c.path), c.extension) << c.path;
    }
    EXPECT_EQ(STR_tail(nullptr), nullptr);
    EXPECT_EQ(STR_extension(nullptr), nullptr);
}

TEST(PointerArray, NullTerminatedArraysGrowAndFreeTheirElements) {
    void **array = nullptr;
    for (int i = 0; i < 50; ++i) {
        void **grown = EPTR_append(array, STR_define("element"));
        ASSERT_NE(grown, nullptr);
        array = grown;
    }
    EXPECT_EQ(EPTR_length(array), 50u);
    EXPECT_EQ(array[50], nullptr);
    EXPECT_EQ(EPTR_append(array, nullptr), nullptr);

    pxf::test::ReportCapture capture;
    char *extra = STR_define("extra");
    pxf::fault::arm(1);
    EXPECT_EQ(EPTR_append(array, extra), nullptr);
    pxf::fault::disarm();
    EXPECT_EQ(EPTR_length(array), 50u);
    EPTR_free(extra);
    EPTR_free_all(array, nullptr);  // under the sanitizers, a missed element is a leak

    int freed = 0;
    static int *counter;
    counter = &freed;
    void **two = EPTR_append(EPTR_append(nullptr, as_pointer(1)), as_pointer(2));
    EPTR_free_all(two, [](void *) { ++*counter; });
    EXPECT_EQ(freed, 2);
    EXPECT_EQ(EPTR_length(nullptr), 0u);
    EPTR_free_all(nullptr, nullptr);
}

TEST(PointerArray, CountedArraysAgainstVectorWithFailingGrowth) {
    PTR_ARRAY a;
    PTR_init(&a);
    std::vector<void *> ref;
    std::mt19937 rng(12);
    pxf::test::ReportCapture capture;
    for (int i = 0; i < 5000; ++i) {
        if (rng() % 3) {
            void *item = as_pointer(rng());
            bool fail = a.count == a.capacity && rng() % 2;  // a growth that will not get its memory
            if (fail) pxf::fault::arm(1);
            int r = PTR_add(&a, item);
            pxf::fault::disarm();
            ASSERT_EQ(r, fail ? -1 : 0);
            if (!fail) ref.push_back(item);
        } else if (!ref.empty()) {
            uint32_t at = static_cast<uint32_t>(rng() % ref.size());
            ASSERT_EQ(PTR_remove(&a, at), ref[at]);
            ref.erase(ref.begin() + at);
        }
        ASSERT_EQ(a.count, ref.size());
    }
    for (uint32_t i = 0; i < a.count; ++i) ASSERT_EQ(PTR_get(&a, i), ref[i]);
    EXPECT_EQ(PTR_get(&a, a.count), nullptr);
    EXPECT_EQ(PTR_remove(&a, a.count), nullptr);
    EXPECT_EQ(PTR_reserve(&a, 10), 0);
    PTR_free(&a, nullptr);
    EXPECT_EQ(a.count, 0u);

    ASSERT_EQ(PTR_add(&a, STR_define("owned")), 0);
    PTR_free(&a, EPTR_free);
}

}  // namespace
