// Lookup of "ERRO" resources for ERR_report_rsc.
#pragma once

#include <cstddef>

namespace pxf {

// Finds the "ERRO" resource `name` in the open resource files; on success
// points data at its bytes (severity, then the format text) and returns true.
bool find_error_resource(const char *name, const unsigned char **data, std::size_t *size) noexcept;

}  // namespace pxf
