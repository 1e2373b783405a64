#include "foundation/last_error.h"

#include <pxf/err.h>
#include <pxf/pxf.h>

#include <cstdio>
#include <cstring>

namespace {

// Plain data only: a thread_local without a destructor costs nothing at exit.
struct LastError {
    int code;
    bool code_known;  // false: the report came without a code of its own
    unsigned long reports;
    char text[1024];
};
thread_local LastError last = {0, true, 0, {}};

}  // namespace

namespace pxf {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
void note_error_report(int severity, const char *format, std::va_list args) noexcept {
    if (severity < ERR_ERROR || !format) return;
    std::va_list copy;
    va_copy(copy, args);
    std::vsnprintf(last.text, sizeof last.text, format, copy);
    va_end(copy);
    last.code_known = false;
    ++last.reports;
}
#pragma GCC diagnostic pop

void note_error_text(int severity, const char *text) noexcept {
    if (severity < ERR_ERROR || !text) return;
    std::snprintf(last.text, sizeof last.text, "%s", text);
    last.code_known = false;
    ++last.reports;
}

void note_error_code(int code) noexcept {
    if (code >= 0) return;
    last.code = code;
    last.code_known = true;
}

unsigned long error_reports_on_thread() noexcept { return last.reports; }

}  // namespace pxf

extern "C" {

int PXF_last_error(const char **message) {
    if (!last.code_known) {
        // Reported without a code of its own: the failing call left its code in the shared variable.
        int shared = pxf__err;
        last.code = shared < 0 ? shared : -1;
        last.code_known = true;
    }
    if (message) *message = last.text;
    return last.code;
}

void PXF_clear_last_error(void) {
    last.code = 0;
    last.code_known = true;
    last.text[0] = '\0';
}

}  // extern "C"
