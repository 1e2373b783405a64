// Name-syntax parsing shared by the pattern functions and the pathname builders.
#pragma once

#include <pxf/pxf.h>

#include "foundation/report.h"

namespace pxf::naming {

using pxf::kErrEmptyPath;
using pxf::kErrEmptySyntax;
using pxf::kErrMalformed;
using pxf::kErrNoKey;
using pxf::kErrNoMatch;
using pxf::kErrNoOutput;
using pxf::kErrTooLong;

// Frees the matched texts of a token array, then the array.
void free_tokens(PXF_NS_TOKEN *tokens) noexcept;

}  // namespace pxf::naming
