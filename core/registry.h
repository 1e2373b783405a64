// The driver registry as the open path and the built-in drivers see it.
#pragma once

#include <pthread.h>

#include <pxf/pxf.h>

namespace pxf {

// Serialises PXF_open, PXF_close and the registry.
extern pthread_mutex_t open_lock;

bool registry_initialised() noexcept;
// Initialises the registry when the application has not; `who` names the
// request in the debug report.  False when initialisation failed.
bool ensure_registry(const char *who) noexcept;

// Plug-in entries, in registration order.
PXF_TYPE *plugin_by_key(const char *key) noexcept;
PXF_TYPE *plugin_by_extension(const char *ext) noexcept;
// The first plug-in whose extension ends `path` (empty extensions never match).
PXF_TYPE *plugin_by_path(const char *path) noexcept;
// Built-in drivers, in table order.
const PXF_TYPE *builtin_by_key(const char *key) noexcept;
const PXF_TYPE *builtin_by_extension(const char *ext) noexcept;
const PXF_TYPE *builtin_by_path(const char *path) noexcept;

// False for a driver marked unavailable with PXF_set_available.
bool available(const PXF_TYPE *driver) noexcept;

// Whether `path` ends with `ext`; safe for extensions longer than the path.
bool ends_with(const char *path, const char *ext) noexcept;

// The built-in drivers, one row each, in registration order.
extern const PXF_TYPE pipe_driver_type;
extern const PXF_TYPE mem_driver_type;
extern const PXF_TYPE rla_driver_type;
extern const PXF_TYPE mpc_driver_type;
extern const PXF_TYPE *const builtin_drivers[];
extern const int builtin_driver_count;

}  // namespace pxf
