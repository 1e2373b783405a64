// Damaged resource files: each is refused with its own message and leaves
// nothing open.
#include <gtest/gtest.h>

#include <string>

#include <pxf/pxf.h>
#include <pxf/rsc.h>

#include "resources/rsc_bytes.h"
#include "support/test_support.h"

namespace {

using namespace pxf::test;

// A sound file: "abc" as TEST/n, its table at 27, the type table at 46.
std::string sound(uint32_t name_length = 1, uint32_t data_size = 3, uint32_t count = 1) {
    return header(1, 46) + "abc" + be16(name_length) + "n" + slot(24) + slot(data_size) +
           type_entry("TEST", count, 27);
}

struct Damage {
    const char *what;
    std::string bytes;
    std::string message;  // after "Resource file <path>"
};

TEST(DamagedResourceFiles, EachIsRefusedWithItsMessage) {
    std::string twice = header(2, 46) + "abc" + resource_entry("n", 24, 3) + type_entry("TEST", 1, 27) +
                        type_entry("TEST", 1, 27);
    std::string shared = header(2, 46) + "abc" + resource_entry("n", 24, 3) + type_entry("TEST", 1, 27) +
                         type_entry("MORE", 1, 27);
    std::string null_name = header(1, 46) + "abc" + be16(1) + std::string(1, '\0') + slot(24) + slot(3) +
                            type_entry("TEST", 1, 27);
    const Damage cases[] = {
        {"truncated header", sound().substr(0, 20), " is too short for its header (20 bytes)"},
        {"unknown version", header(1, 46, 2) + sound().substr(24), " has version 2; only version 1 is supported"},
        {"type table past the end", header(1, 60) + sound().substr(24),
         ": its type table (1 types at offset 60) lies past the end of the file"},
        {"huge type count", header(0x10000000, 46) + sound().substr(24),
         ": its type table (268435456 types at offset 46) lies past the end of the file"},
        {"resource table past the end", sound(1, 3, 5),
         ": the resource table of type TEST (5 resources at offset 27) lies past the end of the file"},
        {"name length past the end", sound(0x100), ": the name of resource 0 of type TEST runs past the end of the file"},
        {"data past the end", sound(1, 100), ": the data of resource n of type TEST lies past the end of the file"},
        {"type table in the header", header(1, 8) + sound().substr(24), ": its tables overlap"},
        {"two types sharing a table", shared, ": its tables overlap"},
        {"type listed twice", twice, " lists type TEST twice"},
        {"null byte in a name", null_name, ": a resource name of type TEST holds a null byte"},
    };
    TempDir dir;
    ReportCapture capture;
    for (const Damage &d : cases) {
        SCOPED_TRACE(d.what);
        std::string path = dir.file("damaged.rsc");
        write_file(path, d.bytes);
        capture.clear();
        EXPECT_EQ(RSC_file_open(path.c_str()), 0);
        EXPECT_EQ(pxf__err, RSC_ERR_FILE);
        EXPECT_EQ(capture.last(), "Resource file " + path + d.message);
        EXPECT_EQ(RSC_file_count(), 0);
    }
    write_file(dir.file("sound.rsc"), sound());
    EXPECT_EQ(RSC_file_open(dir.file("sound.rsc").c_str()), 1);
    RSC_exit();
}

TEST(DamagedResourceFiles, FileCutShortAfterOpeningFailsTheRead) {
    TempDir dir;
    std::string path = dir.file("cut.rsc");
    write_file(path, sound());
    ASSERT_EQ(RSC_file_open(path.c_str()), 1);
    write_file(path, sound().substr(0, 25));
    ReportCapture capture;
    EXPECT_EQ(RSC_rsrc_get("TEST", "n", nullptr), nullptr);
    EXPECT_EQ(capture.last(), "Cannot read resource n of type TEST from resource file " + path);
    RSC_exit();
}

}  // namespace
