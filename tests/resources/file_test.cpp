// Opening along the search path, the current file, the plain/c/f variants,
// changing resources, status dumps and out-of-memory paths.
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include <pxf/pxf.h>
#include <pxf/rsc.h>

#include "foundation/alloc.h"
#include "support/test_support.h"

namespace {

using namespace pxf::test;

std::string get(const char *file, const char *type, const char *name) {
    uint32_t size = 0;
    void *data = file ? RSC_rsrc_getf(file, type, name, &size) : RSC_rsrc_get(type, name, &size);
    return data ? std::string(static_cast<char *>(data), size) : "<none>";
}

// Writes a file holding the given TEST resources (name, text pairs).
void make_file(const std::string &path, std::initializer_list<std::pair<const char *, const char *>> items) {
    ASSERT_EQ(RSC_file_create(path.c_str()), 1);
    for (auto &[name, text] : items)
        ASSERT_EQ(RSC_rsrc_addc("TEST", name, text, static_cast<uint32_t>(std::strlen(text))), 1);
    ASSERT_EQ(RSC_file_close(nullptr), 1);
}

TEST(ResourceFiles, SearchPathInOrderAddedAfterTheNameItself) {
    TempDir a, b, here;
    make_file(a.file("shared.rsc"), {{"from", "a"}});
    make_file(b.file("shared.rsc"), {{"from", "b"}});
    make_file(b.file("only_b.rsc"), {{"from", "only b"}});
    ReportCapture capture;
    EXPECT_EQ(RSC_file_open("shared.rsc"), 0);
    EXPECT_EQ(pxf__err, RSC_ERR_FILE);
    ASSERT_EQ(RSC_add_path(a.path().c_str()), 1);
    ASSERT_EQ(RSC_add_path((b.path() + "/").c_str()), 1);
    ASSERT_EQ(RSC_file_open("shared.rsc"), 1);
    EXPECT_EQ(get(nullptr, "TEST", "from"), "a");
    ASSERT_EQ(RSC_file_open("only_b.rsc"), 1);
    EXPECT_EQ(get("only_b.rsc", "TEST", "from"), "only b");
    EXPECT_EQ(get((b.path() + "/only_b.rsc").c_str(), "TEST", "from"), "only b");  // by path as well
    // An absolute name is not looked up along the path.
    EXPECT_EQ(RSC_file_open((here.path() + "/shared.rsc").c_str()), 0);
    EXPECT_EQ(RSC_file_count(), 2);

    std::FILE *out = std::tmpfile();
    RSC_status(out);
    std::rewind(out);
    char text[512] = {};
    std::fread(text, 1, sizeof text - 1, out);
    std::fclose(out);
    EXPECT_EQ(std::string(text), "Number of pathnames      : 2\n\tpathname           : " + a.path() +
                                     "\n\tpathname           : " + b.path() + "/\nNumber of resource files : 2\n");
    RSC_exit();
}

TEST(ResourceFiles, VariantsSearchCurrentThenMostRecent) {
    TempDir dir;
    std::string one = dir.file("one.rsc"), two = dir.file("two.rsc"), three = dir.file("three.rsc");
    make_file(one, {{"same", "one"}, {"first", "1"}});
    make_file(two, {{"same", "two"}, {"second", "2"}});
    make_file(three, {{"same", "three"}});
    ASSERT_EQ(RSC_file_open(one.c_str()), 1);
    ASSERT_EQ(RSC_file_open(two.c_str()), 1);
    ASSERT_EQ(RSC_file_open(three.c_str()), 1);
    ASSERT_EQ(RSC_set_current(one.c_str()), 1);
    EXPECT_EQ(get(nullptr, "TEST", "same"), "one");           // current first
    EXPECT_EQ(get(nullptr, "TEST", "second"), "2");           // then the others
    EXPECT_EQ(get(two.c_str(), "TEST", "same"), "two");
    EXPECT_EQ(RSC_rsrc_availablec("TEST", "second"), 0);
    EXPECT_EQ(RSC_rsrc_available("TEST", "second"), 1);
    EXPECT_EQ(RSC_rsrc_count("TEST"), 3);                     // each name once
    EXPECT_EQ(RSC_rsrc_countf(two.c_str(), "TEST"), 2);
    const char *names[2];
    EXPECT_EQ(RSC_rsrc_list("TEST", names, 2), 2);
    EXPECT_STREQ(names[0], "same");
    EXPECT_EQ(RSC_type_count(), 1);

    const char *files[4];
    ASSERT_EQ(RSC_file_list(files, 4), 3);
    EXPECT_EQ(files[0], three);
    // Closing the current file makes the most recently opened one current.
    ASSERT_EQ(RSC_file_close(nullptr), 1);
    EXPECT_EQ(RSC_get_current(), three);
    EXPECT_EQ(get(nullptr, "TEST", "same"), "three");
    // Opening an open file only makes it current.
    ASSERT_EQ(RSC_file_open(two.c_str()), 1);
    EXPECT_EQ(RSC_file_count(), 2);
    EXPECT_EQ(RSC_get_current(), two);
    RSC_exit();
    EXPECT_EQ(RSC_get_current(), nullptr);
}

TEST(ResourceFiles, MarkFreeDeleteAndExitRewrite) {
    TempDir dir;
    std::string path = dir.file("edit.rsc");
    make_file(path, {{"word", "hello"}, {"gone", "bye"}});
    ASSERT_EQ(RSC_file_open(path.c_str()), 1);
    auto *data = static_cast<char *>(RSC_rsrc_getc("TEST", "word", nullptr));
    ASSERT_NE(data, nullptr);
    data[0] = 'j';
    ASSERT_EQ(RSC_rsrc_markc("TEST", "word"), 1);
    EXPECT_EQ(RSC_rsrc_freec("TEST", "word"), 1);  // changed data is kept until written
    EXPECT_EQ(get(nullptr, "TEST", "word"), "jello");
    EXPECT_EQ(RSC_rsrc_deletef(path.c_str(), "TEST", "gone"), 1);
    EXPECT_EQ(RSC_rsrc_deletec("TEST", "gone"), 0);
    EXPECT_EQ(RSC_rsrc_markc("TEST", "missing"), 0);
    ASSERT_EQ(RSC_exit(), 1);

    ASSERT_EQ(RSC_file_open(path.c_str()), 1);
    EXPECT_EQ(get(nullptr, "TEST", "word"), "jello");
    EXPECT_EQ(RSC_rsrc_countc("TEST"), 1);
    ASSERT_EQ(RSC_rsrc_addc("TEST", "gone", "back", 4), 1);  // revives the name
    EXPECT_EQ(RSC_file_delete(nullptr), 1);
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    EXPECT_EQ(RSC_file_count(), 0);
    RSC_exit();
}

TEST(ResourceFiles, StatusDump) {
    TempDir dir;
    std::string path = dir.file("status.rsc");
    make_file(path, {{"a", "12345"}});
    ASSERT_EQ(RSC_file_open(path.c_str()), 1);
    ASSERT_EQ(RSC_rsrc_addc("TEST", "b", "x", 1), 1);
    ASSERT_EQ(RSC_rsrc_deletec("TEST", "a"), 1);
    std::FILE *out = std::tmpfile();
    ASSERT_EQ(RSC_file_status(nullptr, out), 1);
    std::rewind(out);
    char text[1024] = {};
    std::fread(text, 1, sizeof text - 1, out);
    std::fclose(out);
    EXPECT_EQ(std::string(text), "Resource file\n\tFile spec      : " + path + "\n\tFile name      : " + path +
                                     "\n\tversion        : 1\n\tnTypes         : 1\n"
                                     "\tTYPE\n\t\tcode           : TEST\n\t\tnResources     : 2\n"
                                     "\t\tRESOURCE (DELETED)\n\t\t\tname           : a\n\t\t\toffset         : 24\n"
                                     "\t\t\tsize           : 5\n"
                                     "\t\tRESOURCE\n\t\t\tname           : b\n\t\t\toffset         : 0\n"
                                     "\t\t\tsize           : 1\n");
    RSC_exit();
}

TEST(ResourceFiles, RequestsThatCannotBeCarriedOut) {
    TempDir dir;
    std::string path = dir.file("ro.rsc");
    make_file(path, {{"a", "1"}});
    ReportCapture capture;
    EXPECT_EQ(RSC_rsrc_getc("TEST", "a", nullptr), nullptr);
    EXPECT_TRUE(capture.saw("No current resource file"));
    EXPECT_EQ(RSC_type_countc(), -1);
    EXPECT_EQ(RSC_rsrc_countf("nowhere.rsc", "TEST"), -1);
    EXPECT_TRUE(capture.saw("No open resource file is named nowhere.rsc"));

    chmod(path.c_str(), 0444);
    ASSERT_EQ(RSC_file_open(path.c_str()), 1);
    if (geteuid() != 0) {  // root may write anyway
        capture.clear();
        EXPECT_EQ(RSC_rsrc_addc("TEST", "b", "2", 1), 0);
        EXPECT_EQ(pxf__err, RSC_ERR_REQUEST);
        EXPECT_EQ(capture.last(), "Resource file " + path + " was opened for reading only and cannot be changed");
        EXPECT_EQ(get(nullptr, "TEST", "a"), "1");
    }
    capture.clear();
    EXPECT_EQ(RSC_rsrc_getc("TOOLONG", "a", nullptr), nullptr);
    EXPECT_EQ(capture.last(), "Bad resource type \"TOOLONG\"; a type is four characters");
    EXPECT_EQ(RSC_rsrc_getc("TEST", "missing", nullptr), nullptr);  // a miss says nothing
    EXPECT_EQ(capture.reports().size(), 1u);
    EXPECT_EQ(RSC_file_create(path.c_str()), 0);
    RSC_exit();

    std::string fresh = dir.file("new.rsc");
    ASSERT_EQ(RSC_file_create(fresh.c_str()), 1);
    EXPECT_EQ(RSC_rsrc_addc("TEST", "big", "", RSC_MAX_SIZE + 1), 0);
    EXPECT_EQ(RSC_rsrc_addc("TEST", "null", nullptr, 4), 0);
    EXPECT_EQ(RSC_rsrc_addc("TEST", std::string(70000, 'n').c_str(), "", 0), 0);
    EXPECT_EQ(RSC_type_countc(), 0);
    RSC_exit();
}

TEST(ResourceFiles, ShortWriteFailsTheClose) {
    TempDir dir;
    std::string path = dir.file("full.rsc");
    make_file(path, {{"a", "1"}});
    // In a child: a file-size limit makes the rewrite come up short.
    auto child = [&] {
        std::signal(SIGXFSZ, SIG_IGN);
        struct rlimit limit = {200, 200};
        setrlimit(RLIMIT_FSIZE, &limit);
        std::string big(300, 'b');
        ReportCapture capture;
        bool added = RSC_file_open(path.c_str()) == 1 && RSC_rsrc_addc("TEST", "b", big.data(), 300) == 1;
        bool closed = RSC_file_close(nullptr) == 1;
        bool reported = capture.last() == "Cannot write resource file " + path + "; File too large";
        std::exit(added && !closed && reported && RSC_file_count() == 0 ? 0 : 1);
    };
    EXPECT_EXIT(child(), ::testing::ExitedWithCode(0), "");
}

TEST(ResourceFiles, AllocationFailuresReportAndLeaveNothingBehind) {
    TempDir dir;
    std::string path = dir.file("oom.rsc");
    std::string big(5000, 'q');
    make_file(path, {{"a", "1"}, {"b", big.c_str()}});
    ReportCapture capture;
    // Reading: every table, name and buffer allocation.
    for_each_allocation_failure(
        [&] {
            bool ok = RSC_file_open(path.c_str()) == 1 && RSC_rsrc_get("TEST", "b", nullptr) != nullptr;
            RSC_exit();
            return ok;
        },
        [&](int) { EXPECT_EQ(capture.last(), "No more internal memory"); });
    // Changing: a file, a new type, a resource, its buffer; the file on disk survives.
    std::string before = read_file(path);
    for_each_allocation_failure(
        [&] {
            bool ok = RSC_file_open(path.c_str()) == 1 && RSC_rsrc_addc("NEWT", "n", big.data(), 3000) == 1;
            ok = RSC_exit() == 1 && ok;
            if (!ok) {
                EXPECT_EQ(read_file(path), before);
            }
            return ok;
        },
        [&](int) { EXPECT_EQ(pxf__err, -10); });
    ASSERT_EQ(RSC_file_open(path.c_str()), 1);
    EXPECT_EQ(RSC_type_countc(), 2);
    RSC_exit();
}

}  // namespace
