// Free-list pools and regions.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include <pxf/dst.h>

#include "foundation/alloc.h"
#include "support/test_support.h"

namespace {

TEST(Pool, FreedBlocksAreReusedWhateverTheSize) {
    void *pool = nullptr;
    void *a = DST_malloc(&pool, 32);
    void *b = DST_malloc(&pool, 32);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    pool = DST_free(a, pool);
    pool = DST_free(b, pool);
    EXPECT_EQ(DST_free(nullptr, pool), pool);
    EXPECT_EQ(DST_malloc(&pool, 4096), b);  // last freed, first out; size not checked
    EXPECT_EQ(DST_malloc(&pool, 1), a);
    EXPECT_EQ(pool, nullptr);
    pool = DST_free(a, DST_free(b, pool));
    EXPECT_EQ(DST_purge(pool), 0);
}

TEST(Region, ChunkSizeRoundingAndEightByteBlocks) {
    DST_MEM *small = DST_mem_init(4);
    EXPECT_EQ(small->chunk_size, 512u);
    DST_mem_free(small);

    DST_MEM *region = DST_mem_init(100);
    ASSERT_NE(region, nullptr);
    EXPECT_EQ(region->chunk_size, 112u);  // 104 rounded, plus the link
    char *one = static_cast<char *>(DST_mem_ptr(region, 1));
    char *eight = static_cast<char *>(DST_mem_ptr(region, 8));
    EXPECT_EQ(eight - one, 8);
    EXPECT_EQ(region->left, 104u - 16u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(one) % 8, 0u);

    // Too big for the rest of the chunk: a new chunk, the remainder abandoned.
    char *big = static_cast<char *>(DST_mem_ptr(region, 96));
    EXPECT_EQ(region->left, 8u);
    std::memset(big, 0xab, 96);
    // Larger than a chunk: a chunk of its own size.
    char *huge = static_cast<char *>(DST_mem_ptr(region, 1000));
    ASSERT_NE(huge, nullptr);
    std::memset(huge, 0xcd, 1000);
    EXPECT_EQ(region->left, 0u);
    EXPECT_STREQ(DST_mem_str_ptr(region, "region string"), "region string");
    EXPECT_EQ(DST_ll_length(DST_ll_new_mem(region)), 0u);
    DST_mem_free(region);
}

TEST(PoolAndRegion, HeapFailureGivesNull) {
    pxf::test::ReportCapture capture;
    void *pool = nullptr;
    pxf::fault::arm(1);
    EXPECT_EQ(DST_malloc(&pool, 16), nullptr);
    EXPECT_EQ(capture.last(), "No more internal memory");
    pxf::fault::arm(1);
    EXPECT_EQ(DST_mem_init(64), nullptr);
    pxf::fault::disarm();
    DST_MEM *region = DST_mem_init(64);
    pxf::fault::arm(1);
    EXPECT_EQ(DST_mem_ptr(region, 8), nullptr);
    pxf::fault::disarm();
    EXPECT_NE(DST_mem_ptr(region, 8), nullptr);
    DST_mem_free(region);
}

}  // namespace
