// What the pathname builders need to know of the registered drivers.
#pragma once

#include <pxf/pxf.h>

namespace pxf::naming {

struct DriverNames {
    const char *key = nullptr;
    const char *extension = nullptr;      // with its leading '.', or ""
    const char *name_syntax = nullptr;    // may be null or empty
    const char *format_string = nullptr;  // such as "%s.%04.4d%s"
    PXF_TYPE *record = nullptr;            // the registry's type record
};

// The driver registered under `key`, as PXF_find sees it.
bool driver_by_key(const char *key, DriverNames *out) noexcept;

// The driver whose extension ends `pathname`: the default driver first, then
// every plug-in driver in registration order.
bool driver_by_pathname(const char *pathname, DriverNames *out) noexcept;

}  // namespace pxf::naming
