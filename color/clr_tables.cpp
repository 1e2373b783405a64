// Built-in colour tables.
#include "color/clr_tables.h"

#include <pxf/clr.h>

namespace pxf::clr {

// CIE 1931 2-degree standard colorimetric observer, 380-780 nm in 5 nm
// steps, as published by the CIE (rounded to four decimals).
constexpr float kObserver[kObserverRows][4] = {
    {380, 0.0014f, 0.0000f, 0.0065f}, {385, 0.0022f, 0.0001f, 0.0105f},
    {390, 0.0042f, 0.0001f, 0.0201f}, {395, 0.0076f, 0.0002f, 0.0362f},
    {400, 0.0143f, 0.0004f, 0.0679f}, {405, 0.0232f, 0.0006f, 0.1102f},
    {410, 0.0435f, 0.0012f, 0.2074f}, {415, 0.0776f, 0.0022f, 0.3713f},
    {420, 0.1344f, 0.0040f, 0.6456f}, {425, 0.2148f, 0.0073f, 1.0391f},
    {430, 0.2839f, 0.0116f, 1.3856f}, {435, 0.3285f, 0.0168f, 1.6230f},
    {440, 0.3483f, 0.0230f, 1.7471f}, {445, 0.3481f, 0.0298f, 1.7826f},
    {450, 0.3362f, 0.0380f, 1.7721f}, {455, 0.3187f, 0.0480f, 1.7441f},
    {460, 0.2908f, 0.0600f, 1.6692f}, {465, 0.2511f, 0.0739f, 1.5281f},
    {470, 0.1954f, 0.0910f, 1.2876f}, {475, 0.1421f, 0.1126f, 1.0419f},
    {480, 0.0956f, 0.1390f, 0.8130f}, {485, 0.0580f, 0.1693f, 0.6162f},
    {490, 0.0320f, 0.2080f, 0.4652f}, {495, 0.0147f, 0.2586f, 0.3533f},
    {500, 0.0049f, 0.3230f, 0.2720f}, {505, 0.0024f, 0.4073f, 0.2123f},
    {510, 0.0093f, 0.5030f, 0.1582f}, {515, 0.0291f, 0.6082f, 0.1117f},
    {520, 0.0633f, 0.7100f, 0.0782f}, {525, 0.1096f, 0.7932f, 0.0573f},
    {530, 0.1655f, 0.8620f, 0.0422f}, {535, 0.2257f, 0.9149f, 0.0298f},
    {540, 0.2904f, 0.9540f, 0.0203f}, {545, 0.3597f, 0.9803f, 0.0134f},
    {550, 0.4334f, 0.9950f, 0.0087f}, {555, 0.5121f, 1.0000f, 0.0057f},
    {560, 0.5945f, 0.9950f, 0.0039f}, {565, 0.6784f, 0.9786f, 0.0027f},
    {570, 0.7621f, 0.9520f, 0.0021f}, {575, 0.8425f, 0.9154f, 0.0018f},
    {580, 0.9163f, 0.8700f, 0.0017f}, {585, 0.9786f, 0.8163f, 0.0014f},
    {590, 1.0263f, 0.7570f, 0.0011f}, {595, 1.0567f, 0.6949f, 0.0010f},
    {600, 1.0622f, 0.6310f, 0.0008f}, {605, 1.0456f, 0.5668f, 0.0006f},
    {610, 1.0026f, 0.5030f, 0.0003f}, {615, 0.9384f, 0.4412f, 0.0002f},
    {620, 0.8544f, 0.3810f, 0.0002f}, {625, 0.7514f, 0.3210f, 0.0001f},
    {630, 0.6424f, 0.2650f, 0.0000f}, {635, 0.5419f, 0.2170f, 0.0000f},
    {640, 0.4479f, 0.1750f, 0.0000f}, {645, 0.3608f, 0.1382f, 0.0000f},
    {650, 0.2835f, 0.1070f, 0.0000f}, {655, 0.2187f, 0.0816f, 0.0000f},
    {660, 0.1649f, 0.0610f, 0.0000f}, {665, 0.1212f, 0.0446f, 0.0000f},
    {670, 0.0874f, 0.0320f, 0.0000f}, {675, 0.0636f, 0.0232f, 0.0000f},
    {680, 0.0468f, 0.0170f, 0.0000f}, {685, 0.0329f, 0.0119f, 0.0000f},
    {690, 0.0227f, 0.0082f, 0.0000f}, {695, 0.0158f, 0.0057f, 0.0000f},
    {700, 0.0114f, 0.0041f, 0.0000f}, {705, 0.0081f, 0.0029f, 0.0000f},
    {710, 0.0058f, 0.0021f, 0.0000f}, {715, 0.0041f, 0.0015f, 0.0000f},
    {720, 0.0029f, 0.0010f, 0.0000f}, {725, 0.0020f, 0.0007f, 0.0000f},
    {730, 0.0014f, 0.0005f, 0.0000f}, {735, 0.0010f, 0.0004f, 0.0000f},
    {740, 0.0007f, 0.0002f, 0.0000f}, {745, 0.0005f, 0.0002f, 0.0000f},
    {750, 0.0003f, 0.0001f, 0.0000f}, {755, 0.0002f, 0.0001f, 0.0000f},
    {760, 0.0002f, 0.0001f, 0.0000f}, {765, 0.0001f, 0.0000f, 0.0000f},
    {770, 0.0001f, 0.0000f, 0.0000f}, {775, 0.0001f, 0.0000f, 0.0000f},
    {780, 0.0000f, 0.0000f, 0.0000f},
};

// Bin boundaries (nm) for 1 to 10 samples per pixel.
constexpr BinBoundaries kBuiltinBins[kBuiltinBinCount] = {
    {1, {545, 666}},
    {2, {399, 540, 699}},
    {3, {414, 492, 568, 657}},
    {4, {416, 486, 538, 577, 656}},
    {5, {417, 478, 512, 556, 583, 651}},
    {6, {417, 476, 502, 536, 566, 588, 652}},
    {7, {418, 474, 499, 532, 564, 586, 643, 650}},
    {8, {419, 460, 488, 516, 547, 569, 589, 644, 650}},
    {9, {419, 458, 484, 505, 529, 555, 573, 591, 644, 650}},
    {10, {417, 444, 474, 492, 515, 542, 562, 577, 592, 643, 649}},
};

namespace {

struct XyzTable {
    float rows[CLR_XYZ_TAB_RES][3];
};

// The 5 nm observer interpolated linearly to 1 nm, each column scaled so
// that its values sum to 1.
constexpr XyzTable make_xyz_table() {
    XyzTable table{};
    double raw[CLR_XYZ_TAB_RES][3]{};
    double sum[3]{};
    for (int i = 0; i < CLR_XYZ_TAB_RES; ++i) {
        int j = i / 5;
        double t = (i % 5) / 5.0;
        for (int c = 0; c < 3; ++c) {
            double a = kObserver[j][c + 1];
            double b = j + 1 < kObserverRows ? kObserver[j + 1][c + 1] : a;
            raw[i][c] = a + t * (b - a);
            sum[c] += raw[i][c];
        }
    }
    for (int i = 0; i < CLR_XYZ_TAB_RES; ++i)
        for (int c = 0; c < 3; ++c) table.rows[i][c] = static_cast<float>(raw[i][c] / sum[c]);
    return table;
}

constexpr XyzTable kXyzTable = make_xyz_table();

}  // namespace
}  // namespace pxf::clr

// Spelled out row by row so that the exported C array is constant-initialised.
#define PXF_XYZ_ROW(i) {pxf::clr::kXyzTable.rows[i][0], pxf::clr::kXyzTable.rows[i][1], pxf::clr::kXyzTable.rows[i][2]},
#define PXF_XYZ_ROW10(i)                                                                       \
    PXF_XYZ_ROW((i) * 10 + 0) PXF_XYZ_ROW((i) * 10 + 1) PXF_XYZ_ROW((i) * 10 + 2)             \
    PXF_XYZ_ROW((i) * 10 + 3) PXF_XYZ_ROW((i) * 10 + 4) PXF_XYZ_ROW((i) * 10 + 5)             \
    PXF_XYZ_ROW((i) * 10 + 6) PXF_XYZ_ROW((i) * 10 + 7) PXF_XYZ_ROW((i) * 10 + 8)             \
    PXF_XYZ_ROW((i) * 10 + 9)
#define PXF_XYZ_ROW100(i)                                                                      \
    PXF_XYZ_ROW10((i) * 10 + 0) PXF_XYZ_ROW10((i) * 10 + 1) PXF_XYZ_ROW10((i) * 10 + 2)       \
    PXF_XYZ_ROW10((i) * 10 + 3) PXF_XYZ_ROW10((i) * 10 + 4) PXF_XYZ_ROW10((i) * 10 + 5)       \
    PXF_XYZ_ROW10((i) * 10 + 6) PXF_XYZ_ROW10((i) * 10 + 7) PXF_XYZ_ROW10((i) * 10 + 8)       \
    PXF_XYZ_ROW10((i) * 10 + 9)

static_assert(CLR_XYZ_TAB_RES == 401);
const float rfl__def_xyz_func[CLR_XYZ_TAB_RES][3] = {
    PXF_XYZ_ROW100(0) PXF_XYZ_ROW100(1) PXF_XYZ_ROW100(2) PXF_XYZ_ROW100(3) PXF_XYZ_ROW(400)
};

#undef PXF_XYZ_ROW
#undef PXF_XYZ_ROW10
#undef PXF_XYZ_ROW100
