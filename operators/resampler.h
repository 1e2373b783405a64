// The separable resampling engine shared by the symmetric filter, the scale
// stage and the mipmap generator: a filter kernel is sampled once into a
// weight table per axis, each source row is filtered horizontally as it
// arrives and kept in a ring of rows, and each output row is the vertical
// weighted sum of the ring rows it needs.
#pragma once

#include <cstddef>
#include <cstdint>

#include <pxf/pxf.h>

namespace pxf::ops {

// A symmetric filter kernel: its value at a distance in pixels, zero from
// `radius` on.
struct Kernel {
    const char *name;
    double radius;
    double (*value)(double x);
};

// The kernel of a filter name ("box", "triangle", "catmull-rom", "mitchell",
// "lanczos3", "gaussian"), or null.  A null name gives the default.
const Kernel *find_kernel(const char *name) noexcept;
inline constexpr const char *kDefaultFilter = "mitchell";
// The names, separated by ", ", for messages and help texts.
const char *kernel_names() noexcept;

// Largest side of a resampled image.
inline constexpr int kMaxSide = 1000000;

// The sampled filter of one axis: for output pixel i, `taps` weights from
// source pixel first[i] on.  Taps that fall outside the source are folded
// onto its edge pixels (the edge is extended), and each pixel's weights sum
// to 1.
struct Axis {
    int32_t source, target;
    int32_t taps;    // per output pixel, a multiple of 8 (trailing weights 0)
    int32_t span;    // largest number of source pixels one output pixel uses
    int32_t *first;  // target entries
    float *weights;  // target x taps
};

// Fills `axis` for `source` to `target` pixels.  `stretch` widens the
// kernel (1: as it is); when minifying it is widened further by the
// reduction so that the output does not alias.  False when memory runs out
// (the axis then holds nothing to free).
bool axis_init(Axis &axis, int source, int target, const Kernel &kernel, double stretch) noexcept;
void axis_free(Axis &axis) noexcept;

struct Resampler;

// An engine that turns images of `source` into images of `target` (whose
// window gives the output size; groups, types and widths must be the
// source's).  Colour is filtered premultiplied by the first matte channel
// when there is one.  Null when memory runs out.
Resampler *resampler_new(const PXF_IMAGE_DESC &source, const PXF_IMAGE_DESC &target, const Kernel &kernel,
                         double stretch, const char *label) noexcept;
void resampler_free(Resampler *r) noexcept;

// Output scanline `line` (of the target's window): pulls the source rows it
// needs through `below` / `below_data` (each at most once while the output
// is read in either direction) and stores the operator's rows in *rows.
int resampler_read(Resampler &r, int line, PXF_SCAN_FN below, void *below_data, void ***rows,
                   void **table) noexcept;

// Checks a requested size: 1 to kMaxSide on each side.  Reports with the
// operator's name and sets pxf__err otherwise.
bool size_ok(int width, int height, const char *name) noexcept;
// The kernel of `filter`, or null after reporting an unknown name.
const Kernel *kernel_or_report(const char *filter, const char *name) noexcept;

// A description of `source` at another size: window, active window,
// resolution and display aspect follow the new size (the pixel shape is
// kept).  The caller's `target` receives the fields that change.
void resize_desc(PXF_IMAGE_DESC &target, const PXF_IMAGE_DESC &source, int width, int height) noexcept;

// Element types the engine handles: integers of 1 to 32 bits, floats, doubles.
bool groups_ok(const PXF_IMAGE_DESC &d) noexcept;

}  // namespace pxf::ops
