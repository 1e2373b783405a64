// Name-syntax parsing shared by the pattern functions and the pathname builders.
#pragma once

#include <pxf/pxf.h>

namespace pxf::naming {

inline constexpr int kErrNoKey = -9;
inline constexpr int kErrMalformed = -11;
inline constexpr int kErrNoMatch = -12;
inline constexpr int kErrEmptySyntax = -13;
inline constexpr int kErrTooLong = -14;
inline constexpr int kErrEmptyPath = -15;
inline constexpr int kErrNoOutput = -17;

// Frees the matched texts of a token array, then the array.
void free_tokens(PXF_NS_TOKEN *tokens) noexcept;

}  // namespace pxf::naming
