// One place where the library's reports start: every message goes through
// ERR_report_cat with the library catalogue, and failures leave their code
// in pxf__err and in the calling thread's last error (PXF_last_error).
#pragma once

#include <pxf/err.h>
#include <pxf/pxf.h>

#include "foundation/last_error.h"

namespace pxf {

// Catalogue sets.
inline constexpr int kSetSymbols = 900;   // plug-in symbol names
inline constexpr int kSetNames = 901;     // operator names and default strings
inline constexpr int kSetMessages = 902;  // the library's messages
inline constexpr int kSetConfig = 903;    // configuration and defaults messages

// pxf__err codes.
inline constexpr int kErrFieldMismatch = -1;
inline constexpr int kErrBadScanline = -2;
inline constexpr int kErrUnknownType = -4;
inline constexpr int kErrMissingField = -5;
inline constexpr int kErrNoKey = -9;          // name building: no driver for the key or name
inline constexpr int kErrNoMemory = -10;
inline constexpr int kErrMalformed = -11;     // name syntax or format string
inline constexpr int kErrNoMatch = -12;       // pathname does not fit the name syntax
inline constexpr int kErrEmptySyntax = -13;
inline constexpr int kErrTooLong = -14;       // pathname too long
inline constexpr int kErrEmptyPath = -15;
inline constexpr int kErrCannotDo = -16;
inline constexpr int kErrNoOutput = -17;      // no frame or output buffer
inline constexpr int kErrFlush = -20;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

// Reports a message of the library catalogue with the given severity.
template <class... Args>
inline void report_sev(int severity, int set, int number, const char *text, Args... args) noexcept {
    ERR_report_cat(pxf__msg_cat, set, number, severity, text, args...);
}

// An error (severity 3) from the library catalogue.
template <class... Args>
inline void report(int set, int number, const char *text, Args... args) noexcept {
    report_sev(ERR_ERROR, set, number, text, args...);
}

// A warning (severity 2) from the library catalogue.
template <class... Args>
inline void warn(int set, int number, const char *text, Args... args) noexcept {
    report_sev(ERR_WARNING, set, number, text, args...);
}

// Reports an error, leaves `code` in pxf__err and returns `result`.
template <class R, class... Args>
inline R fail(R result, int code, int set, int number, const char *text, Args... args) noexcept {
    report(set, number, text, args...);
    pxf__err = code;
    note_error_code(code);  // the calling thread's own copy (PXF_last_error)
    return result;
}

#pragma GCC diagnostic pop

// 902/94, the one report of an exhausted heap.
inline void report_no_memory() noexcept { report(kSetMessages, 94, "No more internal memory"); }

}  // namespace pxf
