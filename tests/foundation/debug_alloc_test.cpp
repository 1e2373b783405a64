// The debugging allocator, in child processes so that its state and planted
// faults stay out of the test program.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include <pxf/err.h>
#include <pxf/str.h>
#include <pxf/utl.h>

namespace {

std::string read_all(int fd) {
    std::string text;
    char buffer[4096];
    ssize_t n;
    while ((n = read(fd, buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<std::size_t>(n));
    return text;
}

// Runs body in a child with the allocator switched on; returns what it wrote to standard error.
std::string in_child(const std::function<void()> &body) {
    int fds[2];
    if (pipe(fds) != 0) return "pipe failed";
    pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], 2);
        close(fds[0]);
        UTL_debug_malloc(1);
        body();
        std::fflush(stderr);
        _exit(0);
    }
    close(fds[1]);
    std::string text = read_all(fds[0]);
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << text;
    return text;
}

std::string here(int line) { return std::string(__FILE__) + ":" + std::to_string(line); }

TEST(DebugAllocator, CatchesPlantedFaultsWithSizeAndSite) {
    int line = __LINE__ + 2;  // the allocation, in the child
    std::string out = in_child([&] {
        char *p = static_cast<char *>(UTL_MALLOC(24));
        UTL_FREE(p);
        UTL_FREE(p);
    });
    EXPECT_NE(out.find("freed twice: block of 24 bytes"), std::string::npos) << out;
    EXPECT_NE(out.find("allocated at " + here(line)), std::string::npos) << out;

    line = __LINE__ + 2;  // the allocation, in the child
    out = in_child([&] {
        char *p = static_cast<char *>(UTL_MALLOC(10));
        p[10] = 'x';  // one byte past the end
        UTL_FREE(p);
    });
    EXPECT_NE(out.find("written past its end: block of 10 bytes"), std::string::npos) << out;
    EXPECT_NE(out.find(here(line)), std::string::npos) << out;
    EXPECT_EQ(out.find("before its start"), std::string::npos) << out;

    out = in_child([&] {
        char *p = static_cast<char *>(UTL_MALLOC(7));
        p[-1] = 'x';  // one byte before the start
        UTL_FREE(p);
    });
    EXPECT_NE(out.find("written before its start: block of 7 bytes"), std::string::npos) << out;
    EXPECT_EQ(out.find("past its end"), std::string::npos) << out;

    line = __LINE__ + 2;  // the allocation, in the child
    out = in_child([&] {
        UTL_MALLOC(33);
        char *live = static_cast<char *>(UTL_MALLOC(5));
        live[5] = 1;
        std::fprintf(stderr, "damaged %d leaks %d\n", UTL_debug_check(), UTL_debug_leaks());
    });
    EXPECT_NE(out.find("leak: block of 33 bytes"), std::string::npos) << out;
    EXPECT_NE(out.find(here(line)), std::string::npos) << out;
    EXPECT_NE(out.find("damaged 1 leaks 2"), std::string::npos) << out;
}

TEST(DebugAllocator, CoversTheLibraryHeapAndStaysQuietOnCleanUse) {
    std::string out = in_child([] {
        // The library's own allocations are tracked: a second ERR_free is caught.
        void *p = ERR_malloc(12);
        ERR_free(p);
        ERR_free(p);
    });
    EXPECT_NE(out.find("freed twice: block of 12 bytes"), std::string::npos) << out;

    out = in_child([] {
        UTL_debug_malloc(0);
        void *plain = ERR_malloc(8);  // untracked: handed back to the C library when freed
        UTL_debug_malloc(1);
        char *s = STR_define("grow");
        for (int i = 0; i < 200; ++i) s = STR_append(s, "0123456789");
        if (std::strncmp(s, "grow0123456789", 14) != 0) std::fprintf(stderr, "content lost\n");
        void **array = nullptr;
        for (int i = 0; i < 100; ++i) array = EPTR_append(array, STR_define("x"));
        EPTR_free_all(array, nullptr);
        EPTR_free(s);
        UTL_FREE(UTL_REALLOC(UTL_MALLOC(3), 300));
        UTL_free(nullptr, nullptr, 0);
        ERR_free(plain);
        std::fprintf(stderr, "leaks %d damaged %d\n", UTL_debug_leaks(), UTL_debug_check());
    });
    EXPECT_EQ(out, "leaks 0 damaged 0\n");
}

// Run again by the next test with the environment set: leaks on purpose.
TEST(DebugAllocator, LeakOnPurposeWhenAsked) {
    if (!std::getenv("PXF_DEBUG_MALLOC")) GTEST_SKIP() << "run by EnvironmentSwitchesItOn";
    UTL_MALLOC(77);
}

TEST(DebugAllocator, EnvironmentSwitchesItOnAndListsLeaksAtExit) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], 2);
        dup2(fds[1], 1);
        close(fds[0]);
        setenv("PXF_DEBUG_MALLOC", "1", 1);
        setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
        execl("/proc/self/exe", "test", "--gtest_filter=DebugAllocator.LeakOnPurposeWhenAsked", nullptr);
        _exit(127);
    }
    close(fds[1]);
    std::string out = read_all(fds[0]);
    close(fds[0]);
    waitpid(pid, nullptr, 0);
    EXPECT_NE(out.find("leak: block of 77 bytes"), std::string::npos) << out;
}

}  // namespace
