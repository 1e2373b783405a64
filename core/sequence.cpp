// placeholder
#include "core/multiframe.h"
namespace pxf {
PXF_IMAGE *sequence_open(const char *, bool &claimed) noexcept { claimed = false; return nullptr; }
}
