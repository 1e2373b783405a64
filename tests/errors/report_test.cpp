// Reports, handler chains, masks, counters and the ring of recent errors.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include <pxf/dst.h>
#include <pxf/err.h>

#include "foundation/alloc.h"
#include "support/test_support.h"

namespace {

using pxf::test::ReportCapture;
using pxf::test::StderrCapture;

ERR_DESCRIPTOR make_descriptor(const char *name, const char *format, int severity = ERR_ERROR) {
    ERR_DESCRIPTOR d{};
    d.severity = static_cast<uint8_t>(severity);
    d.name = name;
    d.format = format;
    return d;
}

TEST(ErrorState, StartsWithDebugMaskedAndInformationPrinted) {
    // Each test runs in its own process under CTest: this sees the load-time state.
    EXPECT_EQ(error_index, 15);
    EXPECT_EQ(std::memcmp(error_smask, "\1\0\0\0\0", 5), 0);
    StderrCapture err;
    ERR_printf(ERR_DEBUG, "hidden %d", 1);
    ERR_printf(ERR_INFORMATION, "shown %d", 2);
    EXPECT_EQ(err.finish(), "INFORMATION, shown 2\n");
}

TEST(ErrorState, RingWrapsAfterSixteenReports) {
    std::vector<ERR_DESCRIPTOR> ds;
    ds.reserve(17);
    ReportCapture capture;
    int start = error_index;
    for (int i = 0; i < 17; ++i) {
        ds.push_back(make_descriptor("ring", "n"));
        ERR_report(&ds.back());
    }
    EXPECT_EQ(ERR_last(0), &ds[16]);
    EXPECT_EQ(ERR_last(15), &ds[1]);
    EXPECT_EQ(last_error[(start + 17) % 16], &ds[16]);
}

TEST(ErrorReport, CountersAndMasksDifferBetweenDescriptorAndCatalogueReports) {
    ReportCapture capture;
    ERR_DESCRIPTOR d = make_descriptor("masked", "text");
    uint32_t errors = ERR_stats(ERR_ERROR);
    EXPECT_EQ(ERR_mask(&d), 0);
    ERR_report(&d);
    EXPECT_EQ(d.count, 1u);                        // counted although masked
    EXPECT_EQ(ERR_stats(ERR_ERROR), errors + 1);
    EXPECT_TRUE(capture.reports().empty());
    EXPECT_EQ(ERR_unmask(&d), 1);

    EXPECT_EQ(ERR_mask_s(ERR_ERROR), 0);
    ERR_report_cat(nullptr, 902, 1, ERR_ERROR, "suppressed");
    ERR_printf(ERR_ERROR, "suppressed too");
    EXPECT_EQ(ERR_stats(ERR_ERROR), errors + 1);  // suppressed catalogue reports count nothing
    ERR_report(&d);
    EXPECT_EQ(ERR_stats(ERR_ERROR), errors + 2);  // but descriptor reports still count
    EXPECT_EQ(ERR_unmask_s(ERR_ERROR), 1);
    EXPECT_TRUE(capture.reports().empty());

    EXPECT_EQ(ERR_mask(nullptr), 0);
    EXPECT_EQ(ERR_mask(nullptr), 1);
    ERR_printf(ERR_WARNING, "global mask");
    EXPECT_EQ(ERR_unmask(nullptr), 1);
    EXPECT_TRUE(capture.reports().empty());

    ERR_report(&d);
    EXPECT_EQ(capture.last(), "text");
    EXPECT_EQ(d.count, 3u);
    uint32_t sum = 0;
    for (int s = 0; s < 5; ++s) sum += ERR_stats(s);
    EXPECT_EQ(ERR_stats(-1), sum);
    EXPECT_EQ(ERR_stats(5) + ERR_stats(-2), 0u);  // out of range
    EXPECT_EQ(ERR_mask_s(5) + ERR_mask_s(-1) + ERR_unmask_s(7), 0);
    EXPECT_EQ(std::memcmp(error_smask, "\1\0\0\0\0", 5), 0);
}

struct Trace {
    std::vector<std::string> calls;
    int result = 1;
};

int traced(const char *tag, Trace *trace) {
    trace->calls.push_back(tag);
    return trace->result;
}
int handler_a(const char *, int, const char *, ERR_DESCRIPTOR *, void *data) {
    return traced("A", static_cast<Trace *>(data));
}
int handler_b(const char *, int, const char *, ERR_DESCRIPTOR *, void *data) {
    return traced("B", static_cast<Trace *>(data));
}
Trace *fixed_trace;
int handler_fixed(const char *, int, const char *, ERR_DESCRIPTOR *, void *data) {
    EXPECT_EQ(data, nullptr);
    return traced("fixed", fixed_trace);
}

TEST(HandlerChain, PerErrorThenFixedThenGlobalThenDefault) {
    Trace local, global, fixed;
    fixed_trace = &fixed;
    ERR_DESCRIPTOR d = make_descriptor("chain", "chain %d");
    d.handler = handler_fixed;
    ERR_dcl_handler(nullptr, handler_a, &global);
    ERR_dcl_handler(nullptr, handler_b, &global);
    ERR_dcl_handler(&d, handler_a, &local);
    ERR_dcl_handler(&d, handler_b, &local);

    StderrCapture err;
    ERR_report(&d, 7);
    EXPECT_EQ(err.finish(), "ERROR, chain 7\n");
    EXPECT_EQ(local.calls, (std::vector<std::string>{"B", "A"}));  // last declared runs first
    EXPECT_EQ(fixed.calls, (std::vector<std::string>{"fixed"}));
    EXPECT_EQ(global.calls, (std::vector<std::string>{"B", "A"}));

    // A global handler that says "handled" stops the chain before A and the default.
    global.calls.clear();
    global.result = 0;
    StderrCapture quiet;
    ERR_report(&d, 8);
    EXPECT_EQ(quiet.finish(), "");
    EXPECT_EQ(global.calls, (std::vector<std::string>{"B"}));

    // A per-error handler that handles stops everything after it.
    local.calls.clear();
    global.calls.clear();
    fixed.calls.clear();
    local.result = 0;
    ERR_report(&d, 9);
    EXPECT_EQ(local.calls, (std::vector<std::string>{"B"}));
    EXPECT_TRUE(fixed.calls.empty());
    EXPECT_TRUE(global.calls.empty());

    EXPECT_EQ(ERR_can_handler(&d), handler_b);
    EXPECT_EQ(ERR_can_handler(&d), handler_a);
    EXPECT_EQ(ERR_can_handler(&d), nullptr);
    EXPECT_EQ(ERR_can_handler(nullptr), handler_b);
    EXPECT_EQ(ERR_can_handler(nullptr), handler_a);
    EXPECT_EQ(ERR_can_handler(nullptr), nullptr);
}

TEST(HandlerChain, DeclarationFailsCleanlyWithoutMemory) {
    DST_purge(handler_freelist);
    handler_freelist = nullptr;
    Trace t;
    StderrCapture err;
    pxf::fault::arm(1);
    EXPECT_EQ(ERR_dcl_handler(nullptr, handler_a, &t), 0);
    pxf::fault::disarm();
    EXPECT_EQ(handler_list, nullptr);
    EXPECT_EQ(err.finish(), "ERROR, No more internal memory\n");
}

TEST(ErrorReport, ErrnoReports) {
    ReportCapture capture;
    ERR_report_errno(0, "file");
    EXPECT_TRUE(capture.reports().empty());
    const struct {
        int number;
        const char *prefix;
        std::string text;
    } cases[] = {{2, "file", std::string("file: ") + std::strerror(2)}, {-3, "file", "file: error -3"},
                 {2, "", std::strerror(2)}, {-3, nullptr, "error -3"}};
    for (const auto &c : cases) {
        ERR_report_errno(c.number, c.prefix);
        EXPECT_EQ(capture.last(), c.text);
        EXPECT_EQ(capture.reports().back().severity, ERR_ERROR);
    }
}

TEST(ErrorReport, LongCatalogueTextIsTruncatedNotOverflowed) {
    ReportCapture capture;
    std::string big(ERR_CAT_TEXT_MAX * 2, 'x');
    ERR_printf(ERR_ERROR, "%s", big.c_str());
    EXPECT_EQ(capture.last().size(), static_cast<size_t>(ERR_CAT_TEXT_MAX - 1));
    ERR_DESCRIPTOR d = make_descriptor("long", "%s%s");
    ERR_report(&d, big.c_str(), "tail");
    EXPECT_EQ(capture.last().size(), static_cast<size_t>(ERR_REPORT_TEXT_MAX - 1));
}

TEST(ErrorReport, CompareMatchesPrefixesAndSkipsFive) {
    ERR_DESCRIPTOR d = make_descriptor("abcdef", "");
    EXPECT_EQ(ERR_compare("abc", &d, 0), 0);
    EXPECT_NE(ERR_compare("abcdefg", &d, 0), 0);
    EXPECT_EQ(ERR_compare("abcdef", &d, 0), 0);
    EXPECT_LT(ERR_compare("abb", &d, 0), 0);
    EXPECT_EQ(ERR_compare("f", &d, 1), 0);
    EXPECT_GT(ERR_compare("g", &d, 1), 0);
    ERR_DESCRIPTOR shorty = make_descriptor("abc", "");
    EXPECT_EQ(ERR_compare("", &shorty, 1), 0);
}

TEST(ErrorReport, LentMutexIsHeldWhileHandlersRun) {
    static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    static bool held = false;
    auto probe = [](const char *, int, const char *, ERR_DESCRIPTOR *, void *) {
        held = pthread_mutex_trylock(&mutex) != 0;
        if (!held) pthread_mutex_unlock(&mutex);
        return 0;
    };
    EXPECT_EQ(ERR_report_mp(&mutex, 1), 1);
    ERR_dcl_handler(nullptr, probe, nullptr);
    ERR_printf(ERR_ERROR, "locked");
    EXPECT_TRUE(held);
    ERR_DESCRIPTOR d = make_descriptor("d", "locked too");
    held = false;
    ERR_report(&d);
    EXPECT_TRUE(held);

    // Same flag: only the pointer changes.  Flag off: both are replaced.
    pthread_mutex_t other = PTHREAD_MUTEX_INITIALIZER;
    ERR_report_mp(&other, 1);
    EXPECT_EQ(err_mp_lock, &other);
    ERR_report_mp(nullptr, 0);
    EXPECT_EQ(err_mp_locking_used, 0);
    ERR_printf(ERR_ERROR, "unlocked");
    EXPECT_FALSE(held);
    ERR_can_handler(nullptr);
}

TEST(ErrorReport, FatalEndsTheProcessUnlessAHandlerTakesIt) {
    EXPECT_EXIT(ERR_printf(ERR_FATAL, "disk %s gone", "d0"), ::testing::ExitedWithCode(1),
                "^FATAL, disk d0 gone\n$");
    ERR_DESCRIPTOR d = make_descriptor("fatal", "fatal %d", ERR_FATAL);
    EXPECT_EXIT(ERR_report(&d, 3), ::testing::ExitedWithCode(1), "FATAL, fatal 3");
    ReportCapture capture;
    ERR_printf(ERR_FATAL, "survived");
    EXPECT_EQ(capture.last(), "survived");
}

TEST(Allocation, WrappersReportAndReturnNull) {
    ReportCapture capture;
    void *p = ERR_malloc(32);
    ASSERT_NE(p, nullptr);
    pxf::fault::arm(1);
    EXPECT_EQ(ERR_realloc(p, 64), nullptr);  // the old block stays valid
    pxf::fault::disarm();
    EXPECT_EQ(capture.last(), "No more internal memory");
    EXPECT_EQ(ERR_free(ERR_realloc(p, 64)), 1);
}

}  // namespace
