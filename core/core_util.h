// Small helpers shared by the image core and the built-in drivers.
#pragma once

#include <cstring>

#include <nl_types.h>

#include <pxf/str.h>

#include "foundation/alloc.h"
#include "foundation/report.h"

namespace pxf {

// A text of the library catalogue, or `fallback` when there is none.
inline const char *text(int set, int number, const char *fallback) noexcept {
    nl_catd cat = pxf__msg_cat;
    if (!cat || cat == reinterpret_cast<nl_catd>(-1)) return fallback;
    return catgets(cat, set, number, fallback);
}

// A heap copy of `s` (null for null); reports 902/94 when memory runs out.
inline char *dup_string(const char *s) noexcept { return STR_define(s); }

// Frees *s and nulls it.
inline void free_string(char *&s) noexcept {
    heap_free(s);
    s = nullptr;
}

inline bool same(const char *a, const char *b) noexcept { return a && b && std::strcmp(a, b) == 0; }

// Frees a settings list made by PXF_cap_setting_copy.
void free_settings(PXF_CAP_SETTING **settings) noexcept;
// A complete copy of a non-empty settings list, or null (nothing kept) when
// memory ran out part of the way.
PXF_CAP_SETTING **copy_settings(PXF_CAP_SETTING **settings) noexcept;

}  // namespace pxf
