// Colour conversions and the process-wide conversion setup.
#include <pxf/rfl.h>

#include <climits>
#include <cmath>
#include <cstring>

#include <pxf/clr.h>
#include <pxf/err.h>
#include <pxf/mx.h>
#include <pxf/pxf.h>

#include "color/linalg.h"
#include "foundation/alloc.h"

int rfl_samples = 0;
float *rfl__samp_wl = nullptr;
float *rfl__samp_mg = nullptr;
float *rfl__samp_to_xyz_ptr = nullptr;
float *rfl__xyz_to_samp_ptr = nullptr;

namespace {

// x, y of red, green, blue and white.
constexpr float kBuiltinPrimaries[8] = {0.67f, 0.33f, 0.21f, 0.71f, 0.14f, 0.08f, 0.31f, 0.316f};

float primaries[8] = {0.67f, 0.33f, 0.21f, 0.71f, 0.14f, 0.08f, 0.31f, 0.316f};
float rgb_to_xyz[9];
float xyz_to_rgb[9];
float *samp_to_rgb = nullptr;  // N rows of 3
float *rgb_to_samp = nullptr;  // 3 rows of N

// RGB -> XYZ for primaries and white given as x, y: each primary scaled so
// that full RGB gives the white with Y = 1.
bool derive_rgb_xyz(const double xy[8], float out[9]) {
    double p[9];
    for (int i = 0; i < 3; ++i) {
        p[i * 3 + 0] = xy[i * 2];
        p[i * 3 + 1] = xy[i * 2 + 1];
        p[i * 3 + 2] = 1.0 - xy[i * 2] - xy[i * 2 + 1];
    }
    double wx = xy[6], wy = xy[7];
    if (wy == 0.0) return false;
    double white[3] = {wx / wy, 1.0, (1.0 - wx - wy) / wy};
    double inverse[9];
    if (MXND_invert(p, inverse, 3) != 0) return false;
    for (int i = 0; i < 3; ++i) {
        double intensity = 0.0;
        for (int k = 0; k < 3; ++k) intensity += white[k] * inverse[k * 3 + i];
        for (int c = 0; c < 3; ++c) out[i * 3 + c] = static_cast<float>(intensity * p[i * 3 + c]);
    }
    return true;
}

// out (rows x cols) = a (rows x inner) * b (inner x cols)
void multiply(const float *a, const float *b, float *out, int rows, int inner, int cols) {
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) {
            double sum = 0.0;
            for (int k = 0; k < inner; ++k) sum += double(a[r * inner + k]) * b[k * cols + c];
            out[r * cols + c] = static_cast<float>(sum);
        }
}

float *copy_matrix(const float *from, float *to, int count) {
    std::memcpy(to, from, sizeof(float) * static_cast<size_t>(count));
    return to;
}

int whole_nm(double v) {
    if (v >= INT_MAX) return INT_MAX;
    if (v <= INT_MIN) return INT_MIN;
    return static_cast<int>(v);
}

constexpr float kEncode[9] = {0.299f, 0.596f, 0.212f, 0.587f, -0.275f, -0.523f, 0.114f, -0.321f, 0.311f};
constexpr float kDecode[9] = {1.0f, 1.0f, 1.0f, 0.955688f, -0.271582f, -1.108177f,
                              0.619858f, -0.646874f, 1.705065f};
constexpr float kXyzYiq[9] = {-0.000542f, 1.390337f, 0.938101f, 1.001212f, -0.829271f, -1.195519f,
                              -0.000575f, -0.451751f, 0.232548f};
constexpr float kYiqXyz[9] = {0.981013f, 1.0f, 1.183544f, 0.310722f, -0.000553f, -1.256298f,
                              0.606037f, 0.001397f, 1.862613f};

}  // namespace

extern "C" {

int RFL_init(int samples, int use_given, double red_x, double red_y, double green_x, double green_y,
             double blue_x, double blue_y, double white_x, double white_y) {
    if (rfl_samples) return rfl_samples;
    if (CLR_init(pxf__msg_cat) != 0) return 0;
    CLR_BINS *bins = CLR_find(samples);
    if (!bins) return 0;
    double xy[8] = {red_x, red_y, green_x, green_y, blue_x, blue_y, white_x, white_y};
    if (!use_given) {
        const float *def[4] = {rfl__def_red_pri, rfl__def_green_pri, rfl__def_blue_pri, rfl__def_white_pt};
        for (int i = 0; i < 4; ++i) {
            xy[i * 2] = def[i][0];
            xy[i * 2 + 1] = def[i][1];
        }
    }
    float to_xyz[9], to_rgb[9];
    if (!derive_rgb_xyz(xy, to_xyz) || !RFL_trans_inv(to_xyz, to_rgb)) return 0;

    int n = bins->n;
    pxf::HeapPtr<float> s2r(static_cast<float *>(ERR_malloc(static_cast<uint32_t>(sizeof(float) * 3 * n))));
    pxf::HeapPtr<float> r2s(static_cast<float *>(ERR_malloc(static_cast<uint32_t>(sizeof(float) * 3 * n))));
    if (!s2r || !r2s) return 0;
    multiply(bins->samp_to_xyz, to_rgb, s2r.get(), n, 3, 3);
    multiply(to_xyz, bins->xyz_to_samp, r2s.get(), 3, 3, n);

    std::memcpy(rgb_to_xyz, to_xyz, sizeof rgb_to_xyz);
    std::memcpy(xyz_to_rgb, to_rgb, sizeof xyz_to_rgb);
    for (int i = 0; i < 8; ++i) primaries[i] = static_cast<float>(xy[i]);
    rfl__samp_wl = bins->bounds;
    rfl__samp_mg = bins->inv_width;
    rfl__samp_to_xyz_ptr = bins->samp_to_xyz;
    rfl__xyz_to_samp_ptr = bins->xyz_to_samp;
    samp_to_rgb = s2r.release();
    rgb_to_samp = r2s.release();
    rfl_samples = n;
    return n;
}

int RFL_done(void) {
    if (!rfl_samples) return 0;
    ERR_free(samp_to_rgb);
    ERR_free(rgb_to_samp);
    samp_to_rgb = rgb_to_samp = nullptr;
    rfl__samp_wl = rfl__samp_mg = rfl__samp_to_xyz_ptr = rfl__xyz_to_samp_ptr = nullptr;
    std::memcpy(primaries, kBuiltinPrimaries, sizeof primaries);
    rfl_samples = 0;
    return 1;
}

int RFL_status(float *red_x, float *red_y, float *green_x, float *green_y, float *blue_x, float *blue_y,
               float *white_x, float *white_y) {
    if (!rfl_samples) return 0;
    float *out[8] = {red_x, red_y, green_x, green_y, blue_x, blue_y, white_x, white_y};
    for (int i = 0; i < 8; ++i)
        if (out[i]) *out[i] = primaries[i];
    return rfl_samples;
}

float *RFL_rgb_xyz_mat(float *matrix) { return rfl_samples ? copy_matrix(rgb_to_xyz, matrix, 9) : nullptr; }

float *RFL_xyz_rgb_mat(float *matrix) { return rfl_samples ? copy_matrix(xyz_to_rgb, matrix, 9) : nullptr; }

float *RFL_rgb_rgb_mat(float *matrix, double red_x, double red_y, double green_x, double green_y,
                       double blue_x, double blue_y, double white_x, double white_y) {
    if (!rfl_samples) return nullptr;
    double xy[8] = {red_x, red_y, green_x, green_y, blue_x, blue_y, white_x, white_y};
    float other_to_xyz[9], xyz_to_other[9];
    if (!derive_rgb_xyz(xy, other_to_xyz) || !RFL_trans_inv(other_to_xyz, xyz_to_other)) return nullptr;
    multiply(rgb_to_xyz, xyz_to_other, matrix, 3, 3, 3);
    return matrix;
}

float *RFL_samp_xyz_mat(float *matrix) {
    return rfl_samples ? copy_matrix(rfl__samp_to_xyz_ptr, matrix, 3 * rfl_samples) : nullptr;
}

float *RFL_samp_rgb_mat(float *matrix) {
    return rfl_samples ? copy_matrix(samp_to_rgb, matrix, 3 * rfl_samples) : nullptr;
}

float *RFL_rgb_samp_mat(float *matrix) {
    return rfl_samples ? copy_matrix(rgb_to_samp, matrix, 3 * rfl_samples) : nullptr;
}

int RFL_xyz_samp(const float *xyz, float *samples) {
    if (!rfl_samples) return 0;
    multiply(xyz, rfl__xyz_to_samp_ptr, samples, 1, 3, rfl_samples);
    return 1;
}

int RFL_rgb_samp(const float *rgb, float *samples) {
    if (!rfl_samples) return 0;
    multiply(rgb, rgb_to_samp, samples, 1, 3, rfl_samples);
    return 1;
}

int RFL_samp_spectral(const float *samples, float *spectrum) {
    if (!rfl_samples) return 0;
    int first = whole_nm(CLR_def_min_wavelength());
    int last = whole_nm(CLR_def_max_wavelength());
    int at = first;
    for (int i = 0; i < rfl_samples; ++i) {
        int upper = whole_nm(rfl__samp_wl[i + 1]);
        for (; at <= upper && at <= last; ++at) spectrum[at - first] = samples[i];
    }
    for (; at <= last; ++at) spectrum[at - first] = 0.0f;
    return 1;
}

int RFL_xyz_lab(const float *xyz, float *lab) {
    double y = xyz[1];
    if (y < 0.01 || y > 1.0) return 0;
    // Fixed reference white on the 0..100 scale, whatever the current white.
    double fy = std::cbrt(y);
    lab[0] = static_cast<float>(25.0 * std::cbrt(100.0 * y) - 16.0);
    lab[1] = static_cast<float>(500.0 * (std::cbrt(100.0 * xyz[0] / 98.1) - fy));
    lab[2] = static_cast<float>(200.0 * (fy - std::cbrt(100.0 * xyz[2] / 120.65)));
    return 1;
}

int RFL_xyz_luv(const float *xyz, float *luv) {
    double y = xyz[1];
    if (y < 0.01 || y > 1.0) return 0;
    double x1 = 100.0 * xyz[0], y1 = 100.0 * y, z1 = 100.0 * xyz[2];
    double d = x1 + 15.0 * y1 + 3.0 * z1;
    if (d == 0.0) return 0;
    double l = 25.0 * std::cbrt(y1) - 16.0;
    luv[0] = static_cast<float>(l);
    luv[1] = static_cast<float>(13.0 * l * (4.0 * x1 / d - 0.2002));
    luv[2] = static_cast<float>(13.0 * l * (9.0 * y1 / d - 0.4592));
    return 1;
}

float *RFL_xyz_yiq_mat(float *matrix) { return copy_matrix(kXyzYiq, matrix, 9); }
float *RFL_yiq_xyz_mat(float *matrix) { return copy_matrix(kYiqXyz, matrix, 9); }
float *RFL_encode_mat(float *matrix) { return copy_matrix(kEncode, matrix, 9); }
float *RFL_decode_mat(float *matrix) { return copy_matrix(kDecode, matrix, 9); }

int RFL_clip_rgb(const float *in, float *out, double maximum) {
    bool inside = true;
    for (int i = 0; i < 3; ++i)
        if (in[i] < 0.0 || in[i] > maximum) inside = false;
    if (inside) {
        std::memcpy(out, in, 3 * sizeof(float));
        return 1;
    }
    double eps = maximum * 0.0001;
    double grey = (double(in[0]) + in[1] + in[2]) * 0.333333;
    if (eps >= grey) {
        out[0] = out[1] = out[2] = 0.0f;
        return 1;
    }
    if (grey >= maximum - eps) {
        out[0] = out[1] = out[2] = static_cast<float>(maximum);
        return 1;
    }
    double t = 1.0;
    for (int i = 0; i < 3; ++i) {
        double c = in[i];
        if (c > maximum) t = std::fmin(t, (maximum - eps - grey) / (c - grey));
        else if (c < 0.0) t = std::fmin(t, (eps - grey) / (c - grey));
    }
    double components[3] = {in[0], in[1], in[2]};
    for (int i = 0; i < 3; ++i) out[i] = static_cast<float>(grey + t * (components[i] - grey));
    return 1;
}

int RFL_trans_inv(const float *matrix, float *inverse) {
    double m[9], inv[9];
    for (int i = 0; i < 9; ++i) m[i] = matrix[i];
    if (MXND_invert(m, inv, 3) != 0) return 0;
    for (int i = 0; i < 9; ++i) inverse[i] = static_cast<float>(inv[i]);
    return 1;
}

}  // extern "C"
