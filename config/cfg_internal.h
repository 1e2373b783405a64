// Shared by the defaults readers: reporting through the configuration
// catalogue and the small conversions every reader needs.
#pragma once

#include <pxf/cfg.h>
#include <pxf/err.h>

#include "foundation/report.h"

namespace pxf::cfg {

inline constexpr int kMsgBadNumber = 1;
inline constexpr int kMsgSyntax = 2;
inline constexpr int kMsgBadMatching = 3;
inline constexpr int kMsgBadRange = 4;
inline constexpr int kMsgBadResolution = 5;
inline constexpr int kMsgLazyInit = 6;
inline constexpr int kMsgNoMemory = 7;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
template <class... Args>
inline void report(int severity, int number, const char *text, Args... args) noexcept {
    ERR_report_cat(cfg__msg_cat, kSetConfig, number, severity, text, args...);
}
#pragma GCC diagnostic pop

inline void report_syntax(int line) noexcept {
    report(ERR_ERROR, kMsgSyntax, "%s: Invalid configuration file syntax, line %d",
           cfg_filename ? cfg_filename : "", line);
}

inline void report_no_memory() noexcept {
    report(ERR_ERROR, kMsgNoMemory, "No more internal memory");
}

// The severity-0 notice of a database initialised by a query.
inline void report_lazy_init(const char *database, const char *request) noexcept {
    report(ERR_DEBUG, kMsgLazyInit, "%s, initializing database for %s request", database, request);
}

// CFG_init for a defaults reader: false only when memory ran out (a missing
// file just leaves the built-in values).
bool open_lines(nl_catd catalog) noexcept;

// Heap copy of a string, or null after reporting 903/7.
char *save_string(const char *text) noexcept;

// Decimal integer as strtol reads it, clamped to the int range.
int to_int(const char *text) noexcept;

// Whether the line is a comment (first token begins with '#').
inline bool is_comment(const CFG_LINE *line) noexcept {
    return line->count > 0 && line->tokens[0][0] == '#';
}

}  // namespace pxf::cfg
