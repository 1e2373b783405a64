#include "resources/rsc_errors.h"

namespace pxf {

// No resource file can be open yet, so no "ERRO" resource is ever found.
bool find_error_resource(const char *, const unsigned char **, std::size_t *) noexcept { return false; }

}  // namespace pxf
