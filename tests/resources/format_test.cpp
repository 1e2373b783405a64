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
    std::string expected = std::string("\0\0\0\1\0\0\0\0", 8) + std::string("\0\0\0\1\0\0\0\0", 8) +
                           std::string("\0\0\0\x31\0\0\0\0", 8) + "Hi" + std::string("\0\5", 2) + "hello" +
                           std::string("\0\0\0\x18\0\0\0\0", 8) + std::string("\0\0\0\2\0\0\0\0", 8) + "TEXT" +
                           std::string(4, '\0') + std::string("\0\0\0\1\0\0\0\0", 8) +
                           std::string("\0\0\0\x1a\0\0\0\0", 8);
    EXPECT_EQ(read_file(path), expected);

    ASSERT_EQ(RSC_file_open(path.c_str()), 1);
    RSC_TYPE types[4];
    ASSERT_EQ(RSC_type_listc(types, 4), 1);
    EXPECT_STREQ(types[0].code, "TEXT");
    uint32_t size = 0;
    void *data = RSC_rsrc_getc("TEXT", "hello", &size);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(text_of(data, size), "Hi");
    EXPECT_EQ(RSC_rsrc_availablec("GONE", "old"), 0);
    RSC_exit();
}

TEST(ResourceFormat, EmptyCreatedFileIsJustAHeader) {
    TempDir dir;
    std::string path = dir.file("empty.rsc");
    ASSERT_EQ(RSC_file_create(path.c_str()), 1);
    ASSERT_EQ(RSC_exit(), 1);
    EXPECT_EQ(read_file(path), header(0, 24));
    ASSERT_EQ(RSC_file_open(path.c_str()), 1);
    EXPECT_EQ(RSC_type_countc(), 0);
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
    EXPECT_STREQ(names[0], "a");
    EXPECT_STREQ(names[1], "c");
    EXPECT_STREQ(names[2], "d");
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
    uint16_t s = 0x1234;
    uint32_t l = 0x4552524F;
    EXPECT_EQ(std::memcmp(rsc__mio(&s, 1), "\x12\x34", 2), 0);
    EXPECT_EQ(std::memcmp(rsc__mio(&l, 2), "ERRO", 4), 0);
    EXPECT_EQ(std::memcmp(rsc__mio(&l, 3), &l, 4), 0);
    EXPECT_EQ(rsc__mio(&l, 4), nullptr);

    uint16_t s_in = 0;
    EXPECT_EQ(rsc__mii(&s_in, "\xff\xfe", 1), 1);
    EXPECT_EQ(s_in, 0xfffe);
    uint32_t words[2] = {0, 0xaaaaaaaa};
    EXPECT_EQ(rsc__mii(&words[0], "ERRO", 2), 1);
    EXPECT_EQ(words[0], 0x4552524Fu);
    EXPECT_EQ(words[1], 0xaaaaaaaau);  // exactly four bytes written
    EXPECT_EQ(rsc__mii(&words[0], "ERRO", 0), 0);
}

TEST(ResourceBuffers, ClassesAndFreeLists) {
    using namespace pxf::rsc;
    EXPECT_EQ(buffer_capacity(0), 64u);
    EXPECT_EQ(buffer_capacity(64), 64u);
    EXPECT_EQ(buffer_capacity(65), 128u);
    EXPECT_EQ(buffer_capacity(2048), 2048u);
    EXPECT_EQ(buffer_capacity(2049), 2049u);

    // A freed buffer is handed to the next resource of its class only.
    TempDir dir;
    std::string path = dir.file("buffers.rsc");
    std::string b64(64, 'x'), b65(65, 'y'), b40(40, 'z');
    ASSERT_EQ(RSC_file_create(path.c_str()), 1);
    RSC_rsrc_addc("DATA", "64", b64.data(), 64);
    RSC_rsrc_addc("DATA", "65", b65.data(), 65);
    RSC_rsrc_addc("DATA", "40", b40.data(), 40);
    ASSERT_EQ(RSC_file_close(nullptr), 1);
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
