// File utilities: outputs replace a file only when committed, and nothing but
// their own temporary file is ever removed.
#include <pxf/utl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/test_support.h"

namespace {

using namespace pxf::test;
namespace fs = std::filesystem;

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void spit(const std::string &path, const std::string &text) { std::ofstream(path, std::ios::binary) << text; }

int entries(const TempDir &dir) { return int(std::distance(fs::directory_iterator(dir.path()), {})); }

TEST(Files, OutputsReplaceOnlyWhenCommitted) {
    TempDir dir;
    const std::string target = dir.file("out.bin");
    spit(target, "old");
    chmod(target.c_str(), 0640);

    UTL_OUTPUT *out = UTL_output_open(target.c_str());
    ASSERT_NE(out, nullptr);
    EXPECT_TRUE(UTL_output_is_temporary(out));
    EXPECT_EQ(fs::path(UTL_output_name(out)).parent_path(), fs::path(target).parent_path());
    std::fputs("new", UTL_output_stream(out));
    UTL_output_abandon(out);
    EXPECT_EQ(slurp(target), "old");
    EXPECT_EQ(entries(dir), 1) << "the temporary file is gone";

    out = UTL_output_open(target.c_str());
    std::fputs("new", UTL_output_stream(out));
    std::fflush(UTL_output_stream(out));
    EXPECT_EQ(slurp(target), "old") << "untouched until commit";
    EXPECT_EQ(UTL_output_commit(out), 0);
    EXPECT_EQ(slurp(target), "new");
    EXPECT_EQ(fs::status(target).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    EXPECT_EQ(entries(dir), 1);

    // A link is followed: the file it points at is replaced, the link stays.
    fs::create_symlink(target, dir.file("link"));
    out = UTL_output_open(dir.file("link").c_str());
    std::fputs("via link", UTL_output_stream(out));
    EXPECT_EQ(UTL_output_commit(out), 0);
    EXPECT_TRUE(fs::is_symlink(dir.file("link")));
    EXPECT_EQ(slurp(target), "via link");

    // Signal clean-up removes open outputs' temporary files, and only those.
    out = UTL_output_open(target.c_str());
    std::string temporary = UTL_output_name(out);
    EXPECT_TRUE(fs::exists(temporary));
    UTL_tmp_cleanup();
    EXPECT_FALSE(fs::exists(temporary));
    EXPECT_EQ(slurp(target), "via link");
    UTL_output_abandon(out);

    EXPECT_EQ(UTL_output_open(dir.file("no/such/dir/x").c_str()), nullptr);
    EXPECT_EQ(UTL_output_commit(nullptr), -1);
    UTL_output_abandon(nullptr);
}

TEST(Files, DevicesAreWrittenInPlaceAndNeverRemoved) {
    TempDir dir;
    fs::create_symlink("/dev/null", dir.file("null"));
    UTL_OUTPUT *out = UTL_output_open(dir.file("null").c_str());
    ASSERT_NE(out, nullptr);
    EXPECT_FALSE(UTL_output_is_temporary(out));
    std::fputs("gone", UTL_output_stream(out));
    UTL_output_abandon(out);
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
    EXPECT_TRUE(fs::is_symlink(dir.file("null")));

    // /dev/full: the failure shows at commit, and nothing is removed.
    out = UTL_output_open("/dev/full");
    ASSERT_NE(out, nullptr);
    std::fputs("no room", UTL_output_stream(out));
    EXPECT_EQ(UTL_output_commit(out), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_TRUE(fs::is_character_file("/dev/full"));
}

TEST(Files, QuestionsSameFileAndCopy) {
    TempDir dir;
    const std::string a = dir.file("a"), b = dir.file("b");
    spit(a, "twelve bytes");
    EXPECT_TRUE(UTL_file_exists(a.c_str()));
    EXPECT_TRUE(UTL_file_readable(a.c_str()));
    EXPECT_EQ(UTL_file_size(a.c_str()), 12);
    EXPECT_FALSE(UTL_file_exists(b.c_str()));
    EXPECT_EQ(UTL_file_size(b.c_str()), -1);
    EXPECT_EQ(UTL_file_size(dir.path().c_str()), -1) << "a directory has no file size";
    EXPECT_FALSE(UTL_file_readable(dir.path().c_str()));
    EXPECT_FALSE(UTL_file_exists(nullptr));

    fs::create_hard_link(a, dir.file("hard"));
    EXPECT_TRUE(UTL_same_file(a.c_str(), dir.file("hard").c_str()));
    EXPECT_TRUE(UTL_same_file(a.c_str(), (dir.path() + "/./a").c_str()));
    EXPECT_FALSE(UTL_same_file(a.c_str(), b.c_str()));

    EXPECT_EQ(UTL_file_copy(a.c_str(), b.c_str()), 0);
    EXPECT_EQ(slurp(b), "twelve bytes");
    EXPECT_EQ(UTL_file_copy(a.c_str(), dir.file("hard").c_str()), -1) << "a copy onto itself would empty it";
    EXPECT_EQ(slurp(a), "twelve bytes");
    EXPECT_EQ(UTL_file_copy(dir.file("missing").c_str(), b.c_str()), -1);
    EXPECT_EQ(slurp(b), "twelve bytes");

    char name[64];
    EXPECT_EQ(UTL_tmp_file(dir.path().c_str(), "x/y", name, sizeof name), -1) << "a base is one name";
    EXPECT_EQ(UTL_tmp_file(dir.path().c_str(), "base.rla", name, 8), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

}  // namespace
