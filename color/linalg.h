// Small dense matrices for the colour code, row-major, in double precision.
#pragma once

namespace pxf::clr {

// The table that undoes `a` (n rows of 3): for n >= 3, x (3 x n) with
// x * a = I, so XYZ -> samples -> XYZ is exact; for n < 3, x with a * x = I,
// so samples -> XYZ -> samples is exact.  False (x zeroed) when `a` has no
// such inverse.
bool undo_table(const float *a, float *x, int n) noexcept;

}  // namespace pxf::clr
