// The library's own small message formatter (used by ERR_report, ERR_format
// and resource reports): %d, %f, %s and %%; %c takes nothing and writes
// nothing; anything else, widths included, is copied unchanged.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace pxf {

// Formats into out (capacity bytes, always terminated); returns out.
char *format_message(char *out, std::size_t capacity, const char *format, std::va_list args) noexcept;

}  // namespace pxf
