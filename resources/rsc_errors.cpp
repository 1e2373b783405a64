#include "resources/rsc_errors.h"

#include "resources/rsc_internal.h"

namespace pxf {

// Searched like RSC_rsrc_get, but quietly: a missing resource or a bad name
// must not itself produce a report.
bool find_error_resource(const char *name, const unsigned char **data, std::size_t *size) noexcept {
    if (!name) return false;
    const uint32_t code = rsc::code_of("ERRO");
    rsc::Type *type = nullptr;
    rsc::Resource *resource = nullptr;
    rsc::File *file = rsc::search_files(
        [&](rsc::File *f) { return (resource = rsc::find_live(f, code, name, &type)) != nullptr; });
    if (!file) return false;
    const unsigned char *bytes = rsc::load(file, type, resource);
    if (!bytes) return false;
    *data = bytes;
    *size = resource->size();
    return true;
}

}  // namespace pxf
