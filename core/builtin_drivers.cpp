// The drivers built into the library, appended to the registry after the
// plug-ins in this order.  A new built-in driver is one more row.
#include "core/registry.h"

namespace pxf {

const PXF_TYPE *const builtin_drivers[] = {
    &pipe_driver_type,
    &mem_driver_type,
    &rla_driver_type,
    &mpc_driver_type,
};
const int builtin_driver_count = sizeof builtin_drivers / sizeof builtin_drivers[0];

}  // namespace pxf
