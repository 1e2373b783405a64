// The calling thread's last error, kept beside the process-wide pxf__err so
// that a threaded application reads its own failure, not another thread's.
#pragma once

#include <cstdarg>

namespace pxf {

// Every report of severity ERROR or worse lands here, whatever the masks and
// handlers then do with it.  The code is filled in by pxf::fail and by the
// scan and open paths; a report that nobody gave a code takes the
// process-wide pxf__err when PXF_last_error is asked.
void note_error_report(int severity, const char *format, std::va_list args) noexcept;
void note_error_text(int severity, const char *text) noexcept;
void note_error_code(int code) noexcept;
// Number of error reports made on this thread so far: a caller compares two
// readings to learn whether a call it made reported anything.
unsigned long error_reports_on_thread() noexcept;

}  // namespace pxf
