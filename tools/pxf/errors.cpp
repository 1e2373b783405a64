// The library reports through a handler chain; the tool takes the reports
// over so that each failure ends up as one line on standard error.
#include <pxf/err.h>

#include <cstdio>
#include <mutex>
#include <set>

#include "tool.h"

namespace pxftool {
namespace {

// A plain buffer: a thread-local object with a destructor needs an
// allocation at first use, and glibc aborts when that one fails.
thread_local char first_error[512];
thread_local bool quiet = false;
std::mutex print_lock;

// Called from inside the library: nothing may be thrown through it.
int tool_handler(const char *, int severity, const char *text, ERR_DESCRIPTOR *, void *) {
    if (!text || quiet) return 0;
    if (severity >= ERR_ERROR) {
        if (!first_error[0]) std::snprintf(first_error, sizeof first_error, "%s", text);
    } else if (severity == ERR_WARNING) {
        std::lock_guard<std::mutex> hold(print_lock);
        std::fprintf(stderr, "pxf: warning: %s\n", text);
    }
    return 0;  // handled: the default handler would print a second line
}

pthread_mutex_t report_mutex = PTHREAD_MUTEX_INITIALIZER;

}  // namespace

void capture_reports() {
    ERR_report_mp(&report_mutex, 1);
    ERR_dcl_handler(nullptr, tool_handler, nullptr);
}

std::string take_report() {
    std::string text = first_error;
    first_error[0] = '\0';
    return text;
}

void fail_with_report(const std::string &what, const std::string &fallback) {
    std::string reason = take_report();
    if (reason.empty()) reason = fallback;
    // Drivers name the file themselves; avoid saying it twice.
    if (reason.compare(0, what.size() + 2, what + ": ") == 0) throw Failure(reason);
    throw Failure(what + ": " + reason);
}

QuietReports::QuietReports() : was_(quiet) { quiet = true; }
QuietReports::~QuietReports() { quiet = was_; }

namespace {
NoteGroup *note_group = nullptr;
std::set<std::string> notes_said;
}  // namespace

NoteGroup::NoteGroup(std::function<std::string(const std::string &)> rename) : rename_(std::move(rename)) {
    std::lock_guard<std::mutex> hold(print_lock);
    note_group = this;
    notes_said.clear();
}

NoteGroup::~NoteGroup() {
    std::lock_guard<std::mutex> hold(print_lock);
    note_group = nullptr;
}

void note_that(const std::string &given) {
    if (global_options().quiet) return;
    std::lock_guard<std::mutex> hold(print_lock);
    std::string text = given;
    if (note_group) {
        text = note_group->rename_(given);
        if (!notes_said.insert(text).second) return;
    }
    std::fprintf(stderr, "pxf: note: %s\n", text.c_str());
}

void tell(const std::string &text) {
    if (!global_options().verbose) return;
    std::lock_guard<std::mutex> hold(print_lock);
    std::fprintf(stderr, "pxf: %s\n", text.c_str());
}

void warn(const std::string &text) {
    std::lock_guard<std::mutex> hold(print_lock);
    std::fprintf(stderr, "pxf: warning: %s\n", text.c_str());
}

}  // namespace pxftool
