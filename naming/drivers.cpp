#include "naming/drivers.h"

#include <pxf/fmt.h>
#include <pxf/pxf.h>

#include "core/registry.h"

namespace pxf::naming {
namespace {

bool describe(const PXF_TYPE *driver, DriverNames *out) {
    if (!driver) return false;
    if (out) {
        out->key = driver->key;
        out->extension = driver->extension ? driver->extension : "";
        out->name_syntax = driver->name_syntax;
        out->format_string = driver->format_string;
        out->record = const_cast<PXF_TYPE *>(driver);
    }
    return true;
}

bool claims(const PXF_TYPE *driver, const char *pathname) {
    return driver && driver->extension && *driver->extension && ends_with(pathname, driver->extension);
}

}  // namespace

bool driver_by_key(const char *key, DriverNames *out) noexcept { return key && describe(PXF_find(key), out); }

bool driver_by_pathname(const char *pathname, DriverNames *out) noexcept {
    if (!pathname || !ensure_registry("PXF_find")) return false;
    PXF_TYPE *fallback = PXF_find(pxf__default);
    if (claims(fallback, pathname)) return describe(fallback, out);
    for (int i = 0; i < pxf__num_pxf_types_dso; ++i)
        if (claims(&pxf__type_list_dso[i], pathname)) return describe(PXF_find(pxf__type_list_dso[i].key), out);
    return false;
}

}  // namespace pxf::naming
