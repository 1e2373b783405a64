// One element of a channel row, by its group's type and width.
#pragma once

#include <cstdint>

#include <pxf/pxf.h>

namespace pxf::test {

// Element x of a row as a double; stores `*v` there first when given.
inline double element(void *row, int x, const PXF_CHAN_GROUP &g, const double *v = nullptr) {
    if (g.type == PXF_C_FLOAT) return v ? static_cast<float *>(row)[x] = float(*v) : static_cast<float *>(row)[x];
    if (g.type == PXF_C_DOUBLE) return v ? static_cast<double *>(row)[x] = *v : static_cast<double *>(row)[x];
    if (g.width <= 8) return v ? static_cast<uint8_t *>(row)[x] = uint8_t(*v) : static_cast<uint8_t *>(row)[x];
    if (g.width <= 16) return v ? static_cast<uint16_t *>(row)[x] = uint16_t(*v) : static_cast<uint16_t *>(row)[x];
    return v ? static_cast<uint32_t *>(row)[x] = uint32_t(*v) : static_cast<uint32_t *>(row)[x];
}

// The group of channel c, channels counted colour, matte, auxiliary.
template <class Groups>
const PXF_CHAN_GROUP &group_of(const Groups &d, int c) {
    return c < d.chan.count ? d.chan : c < d.chan.count + d.matte.count ? d.matte : d.aux;
}

}  // namespace pxf::test
