// Built-in colour data: the standard observer and the sample-bin boundaries.
#pragma once

namespace pxf::clr {

inline constexpr int kObserverRows = 81;
inline constexpr int kBuiltinBinCount = 10;
inline constexpr float kMinWavelength = 380.0f;
inline constexpr float kMaxWavelength = 780.0f;

// Wavelength (nm), x bar, y bar, z bar.
extern const float kObserver[kObserverRows][4];

struct BinBoundaries {
    int n;
    float bounds[kBuiltinBinCount + 1];  // n + 1 used
};
extern const BinBoundaries kBuiltinBins[kBuiltinBinCount];

}  // namespace pxf::clr
