// Test pictures for bench/compare.sh, written as RLA through the library:
//
//   compare_pictures KIND BITS SIZE OUT.rla
//
// KIND "render" looks like a rendered frame (a sky that is transparent, a
// checkered floor seen in perspective, shaded spheres with soft edges, a
// little sampling grain); KIND "noise" is uniform noise in every channel,
// the worst case for every codec.  BITS is 8 or 16; the pictures are square
// RGBA, the same scene at every size, and the same bytes on every run.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <pxf/pxf.h>

namespace {

uint64_t mix(uint64_t v) {  // splitmix64's finaliser: a cheap, well-spread hash
    v += 0x9e3779b97f4a7c15ull;
    v = (v ^ (v >> 30)) * 0xbf58476d1ce4e5b9ull;
    v = (v ^ (v >> 27)) * 0x94d049bb133111ebull;
    return v ^ (v >> 31);
}

struct Sphere {
    double x, y, r;  // centre and radius in units of the picture's width
    double red, green, blue;
};

const Sphere kSpheres[] = {
    {0.22, 0.58, 0.14, 0.85, 0.25, 0.20}, {0.50, 0.50, 0.18, 0.25, 0.55, 0.85}, {0.78, 0.60, 0.12, 0.30, 0.80, 0.35},
    {0.36, 0.78, 0.08, 0.95, 0.80, 0.30}, {0.66, 0.80, 0.07, 0.80, 0.80, 0.85}, {0.10, 0.84, 0.05, 0.60, 0.35, 0.75},
};

double clamp01(double v) { return v < 0.0 ? 0.0 : v > 1.0 ? 1.0 : v; }

// Colour (premultiplied) and coverage of the scene at (u, v), v down.
void render(double u, double v, double pixel, double out[4]) {
    const double horizon = 0.42;
    double r = 0.0, g = 0.0, b = 0.0, a = 0.0;
    if (v > horizon) {  // the floor: checkers shrinking towards the horizon, darker far away
        double depth = 0.08 / (v - horizon);
        double fx = (u - 0.5) * depth * 6.0, fz = depth * 6.0;
        int check = (int(std::floor(fx)) + int(std::floor(fz))) & 1;
        double shade = clamp01(1.2 - depth * 0.6);
        double base = check ? 0.75 : 0.35;
        r = base * shade, g = base * shade * 0.95, b = base * shade * 0.85;
        a = 1.0;
    }
    for (const Sphere &s : kSpheres) {
        double dx = (u - s.x) / s.r, dy = (v - s.y) / s.r, d2 = dx * dx + dy * dy;
        double edge = (1.0 - std::sqrt(d2)) * s.r / pixel;  // pixels inside the rim
        if (edge <= -1.0) continue;
        double cover = clamp01(edge + 0.5);
        double nz = std::sqrt(std::max(0.0, 1.0 - d2));
        double lambert = clamp01(-0.5 * dx - 0.6 * dy + 0.62 * nz);
        double specular = std::pow(clamp01(-0.35 * dx - 0.45 * dy + 0.82 * nz), 40.0);
        double sr = clamp01(0.08 + s.red * lambert + specular), sg = clamp01(0.08 + s.green * lambert + specular),
               sb = clamp01(0.1 + s.blue * lambert + specular);
        r = r * (1 - cover) + sr * cover, g = g * (1 - cover) + sg * cover, b = b * (1 - cover) + sb * cover;
        a = a * (1 - cover) + cover;
    }
    out[0] = r, out[1] = g, out[2] = b, out[3] = a;
}

int usage() {
    std::fprintf(stderr, "usage: compare_pictures render|noise 8|16 SIZE OUT.rla\n");
    return 2;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 5) return usage();
    const std::string kind = argv[1];
    const int bits = std::atoi(argv[2]), size = std::atoi(argv[3]);
    if ((kind != "render" && kind != "noise") || (bits != 8 && bits != 16) || size < 16 || size > 65535)
        return usage();

    PXF_IMAGE_DESC desc;
    std::memset(&desc, 0, sizeof desc);
    desc.image_kind = 1;
    desc.curve.kind = PXF_CURVE_GAMMA;
    desc.curve.gamma = 2.2f;
    desc.window.right = desc.window.top = size - 1;
    desc.active_window = desc.window;
    desc.x_res = desc.y_res = size;
    desc.aspect_ratio = 1.0f;
    desc.step = 1;
    desc.chan.count = 3;
    desc.matte.count = 1;
    desc.chan.type = desc.matte.type = desc.aux.type = desc.index.type = PXF_C_INTEGER;
    desc.chan.width = desc.matte.width = bits;
    desc.aux.width = 8;
    desc.index.width = 16;
    char rgb[] = "rgb", alpha[] = "alpha", key[] = "rla";
    desc.chan.format = rgb;
    desc.matte.format = alpha;

    PXF_INFO info;
    PXF_info_init(&info);
    info.handle = argv[4];
    info.key = key;
    info.num_images = 1;
    info.images = &desc;
    PXF_IMAGE *out = PXF_open(&info, "w");
    if (!out) return 1;  // the library has said why
    void **rows = PXF_chan_alloc(&desc, size, "compare_pictures", nullptr);
    if (!rows) return 1;
    const bool bottom_up = out->driver && (out->driver->orientation & 1);
    const double top = bits == 8 ? 255.0 : 65535.0, pixel = 1.0 / size;
    for (int i = 0; i < size; ++i) {
        const int line = bottom_up ? i : size - 1 - i, y = size - 1 - line;  // y counts down from the top
        for (int x = 0; x < size; ++x) {
            uint64_t h = mix(uint64_t(y) * 65536u + uint64_t(x) + (bits == 16 ? 1ull << 40 : 0));
            double v[4];
            if (kind == "noise") {
                for (int c = 0; c < 4; ++c) v[c] = double((h >> (16 * c)) & 0xffff) / 65535.0;
            } else {
                render((x + 0.5) * pixel, (y + 0.5) * pixel, pixel, v);
                // Sampling grain: a fraction of a percent where something was drawn.
                for (int c = 0; c < 3; ++c)
                    if (v[3] > 0.0) v[c] = clamp01(v[c] + (double((h >> (16 * c)) & 0xff) - 127.5) / 127.5 * 0.004);
            }
            for (int c = 0; c < 4; ++c) {
                double q = std::floor(v[c] * top + 0.5);
                if (bits == 8) static_cast<uint8_t *>(rows[c])[x] = uint8_t(q);
                else static_cast<uint16_t *>(rows[c])[x] = uint16_t(q);
            }
        }
        if (PXF_scan_write(out, line, &rows) != 0) return 1;
    }
    int status = PXF_close(out) == 0 ? 0 : 1;
    PXF_chan_free(rows);
    return status;
}
