// What the colour transform operators share: 8-bit channels linearised
// through an input table, multiplied by a fixed-point matrix and re-encoded
// through an output table, in the caller's rows.
#pragma once

#include <cstdint>

#include <pxf/pxf.h>

#include "operators/chain.h"

namespace pxf::ops::colour {

// The matrix operators' record (rgb to rgb, rgb/xyz/samples to rgb or luminance).
struct Matrix {
    PXF_OPERATOR head;
    Area area;
    int32_t in_channels;   // colour channels read
    int32_t out_channels;  // colour channels written: 3, or 1 for luminance
    int32_t passed;        // matte and auxiliary rows handed on behind them
    int32_t saved_count;   // the info's image channel count before installation
    PXF_RESPONSE_CURVE input;   // stored values -> linear values of `bits` bits
    PXF_RESPONSE_CURVE output;  // linear values -> 8-bit codes
    int32_t bits, shift, drop;  // input depth, s = min(bits, 14), d = bits - s
    bool per_channel;           // the output curve has a table per channel
    bool owns_setup;            // installation made the colour setup: remove ends it
    bool primaries_set;         // the info's primaries now name the output's
    float saved_primaries[12];
    int32_t *coefficients;  // in_channels rows of out_channels, scaled by 2^s
    int64_t *products;      // per (input, output) pair: coefficient x (input table >> d), 256 codes
    void **rows;            // the row array handed up
    void **own;             // rows of its own when the output does not fit in place
    void **below;           // rows offered to the stage below, in its layout
};

// What an operator asks of the common installation.
struct Request {
    int tag;
    int in_channels, out_channels;
    // The float matrix, in_channels rows of out_channels, row vector on the left.
    const float *matrix;
    bool owns_setup;
    bool primaries_from_setup;  // the output is RGB of the current colour setup
};

// Installs a matrix operator on an image whose checks the caller has made.
// Returns the image; unchanged (and `owns_setup` honoured: RFL_done) on failure.
PXF_IMAGE *install(PXF_IMAGE *image, PXF_RESPONSE_CURVE *requested, const Request &request);

// The common remove; the operator passes its tag.
int remove(PXF_IMAGE *image, int tag);

// Whether the image can take a matrix operator with `channels` colour
// channels: a reading handle whose first image holds that many 8-bit
// channels.  Messages only for the element checks.
bool accepts(PXF_IMAGE *image, int tag, int channels);

// Sets up colour arithmetic for `samples` channels with the image's
// primaries unless a setup is current.  True when a setup for `samples`
// channels is current afterwards; `made` tells whether this call made it.
bool setup(const PXF_IMAGE &image, int samples, bool &made);

// Column `column` of a rows x 3 matrix.
void column_of(const float *matrix, int rows, int column, float *out);

}  // namespace pxf::ops::colour
