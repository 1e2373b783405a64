// The bytes of resource files, the byte-order helpers and the data buffers.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include <pxf/rsc.h>

#include "resources/rsc_bytes.h"
#include "resources/rsc_internal.h"
#include "support/test_support.h"

namespace {

using namespace pxf::test;

std::string text_of(const void *data, uint32_t size) { return {static_cast<const char *>(data), size}; }

TEST(ResourceFormat, GoldenFileWithOneTypeLeftEmpty) {
    TempDir dir;
    std::string path = dir.file("golden.rsc");
    ASSERT_EQ(RSC_file_create(path.c_str()), 1);
    ASSERT_EQ(RSC_rsrc_addc("GONE", "old", "xyz", 3), 1);
    ASSERT_EQ(RSC_rsrc_addc("TEXT", "hello", "Hi", 2), 1);
    ASSERT_EQ(RSC_rsrc_deletec("GONE", "old"), 1);
    EXPECT_EQ(RSC_type_countc(), 1);
    ASSERT_EQ(RSC_file_close(nullptr), 1);

    // Header (one type, table at 49), the data "Hi", the TEXT table at 26,
    // nothing for GONE, and the type table.
    std::string expected = header(1, 49) + "Hi" + resource_entry("hello", 24, 2) + type_entry("TEXT", 1, 26);
    EXPECT_EQ(read_file(path), expected);

    ASSERT_EQ(RSC_file_open(path.c_str()), 1);
    EXPECT_EQ(RSC_type_countc(), 1);
    uint32_t size = 0;
    void *data = RSC_rsrc_getc("TEXT", "hello", &size);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(text_of(data, size), "Hi");
    EXPECT_EQ(RSC_rsrc_availablec("GONE", "old"), 0);
    RSC_exit();
}

TEST(ResourceFormat, RewriteKeepsPlacesAppendsNewAndShrinksTheFile) {
    TempDir dir;
    std::string path = dir.file("order.rsc");
    std::string big(3000, 'b');
    ASSERT_EQ(RSC_file_create(path.c_str()), 1);
    RSC_rsrc_addc("NAME", "a", "1", 1);
    RSC_rsrc_addc("NAME", "b", big.data(), static_cast<uint32_t>(big.size()));
    RSC_rsrc_addc("NAME", "c", "3", 1);
    RSC_rsrc_addc("OTHR", "x", "xx", 2);
    ASSERT_EQ(RSC_file_close(nullptr), 1);
    std::size_t old_size = read_file(path).size();

    ASSERT_EQ(RSC_file_open(path.c_str()), 1);
    ASSERT_EQ(RSC_rsrc_addc("NAME", "a", "one", 3), 1);  // replaced in place
    ASSERT_EQ(RSC_rsrc_deletec("NAME", "b"), 1);
    ASSERT_EQ(RSC_rsrc_addc("NAME", "d", "4", 1), 1);
    ASSERT_EQ(RSC_rsrc_addc("NEWT", "n", "", 0), 1);
    ASSERT_EQ(RSC_file_close(nullptr), 1);
    EXPECT_LT(read_file(path).size(), old_size - 2900);

    ASSERT_EQ(RSC_file_open(path.c_str()), 1);
    const char *names[8];
    ASSERT_EQ(RSC_rsrc_listc("NAME", names, 8), 3);
    EXPECT_EQ(std::string(names[0]) + names[1] + names[2], "acd");
    RSC_TYPE types[4];
    ASSERT_EQ(RSC_type_listc(types, 4), 3);
    EXPECT_STREQ(types[2].code, "NEWT");
    uint32_t size = 99;
    void *data = RSC_rsrc_getc("NAME", "a", &size);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(text_of(data, size), "one");
    EXPECT_NE(RSC_rsrc_getc("NEWT", "n", &size), nullptr);
    EXPECT_EQ(size, 0u);
    RSC_exit();
}

TEST(ResourceFormat, ByteOrderHelpers) {
    uint32_t code = 0x4552524F;
    EXPECT_EQ(std::memcmp(rsc__mio(&code, 2), "ERRO", 4), 0);
    EXPECT_EQ(rsc__mio(&code, 4), nullptr);
    uint32_t words[2] = {0, 0xaaaaaaaa};
    EXPECT_EQ(rsc__mii(&words[0], "ERRO", 2), 1);
    EXPECT_EQ(words[0], code);
    EXPECT_EQ(words[1], 0xaaaaaaaau);  // exactly four bytes written
}

TEST(ResourceBuffers, ClassesAndFreeLists) {
    using namespace pxf::rsc;
    EXPECT_EQ(buffer_capacity(65), 128u);
    EXPECT_EQ(buffer_capacity(2049), 2049u);

    // A freed buffer is handed to the next resource of its class only.
    TempDir dir;
    std::string path = dir.file("buffers.rsc");
    std::string b40(40, 'z');
    make_file(path, {{"64", std::string(64, 'x')}, {"65", std::string(65, 'y')}, {"40", b40}}, "DATA");
    ASSERT_EQ(RSC_file_open(path.c_str()), 1);
    void *first = RSC_rsrc_getc("DATA", "64", nullptr);
    ASSERT_EQ(RSC_rsrc_freec("DATA", "64"), 1);
    EXPECT_NE(RSC_rsrc_getc("DATA", "65", nullptr), first);
    void *reused = RSC_rsrc_getc("DATA", "40", nullptr);
    EXPECT_EQ(reused, first);
    EXPECT_EQ(std::string(static_cast<char *>(reused), 40), b40);
    RSC_exit();
}

}  // namespace
