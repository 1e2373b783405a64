// The colour options of pxf convert (--display, --primaries, --luminance,
// --image, --normalize) and the statistics of pxf info --stats: each a thin
// use of the library's stages.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tool.h"

namespace pxftool {
namespace {

struct NamedPrimaries {
    const char *name;
    float xy[8];  // red, green, blue, white: x, y
};

constexpr NamedPrimaries kPrimaries[] = {
    {"srgb", {0.64f, 0.33f, 0.30f, 0.60f, 0.15f, 0.06f, 0.3127f, 0.3290f}},
    {"rec709", {0.64f, 0.33f, 0.30f, 0.60f, 0.15f, 0.06f, 0.3127f, 0.3290f}},
    {"rec2020", {0.708f, 0.292f, 0.170f, 0.797f, 0.131f, 0.046f, 0.3127f, 0.3290f}},
    {"p3", {0.680f, 0.320f, 0.265f, 0.690f, 0.150f, 0.060f, 0.3127f, 0.3290f}},
    {"adobe", {0.64f, 0.33f, 0.21f, 0.71f, 0.15f, 0.06f, 0.3127f, 0.3290f}},
    {"ntsc", {0.67f, 0.33f, 0.21f, 0.71f, 0.14f, 0.08f, 0.31f, 0.316f}},
};

// The encoding of what --display delivers.
constexpr float kDisplayGamma = 2.2f;

std::vector<std::string> split(const std::string &text, char separator) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (;;) {
        std::size_t at = text.find(separator, start);
        parts.push_back(text.substr(start, at - start));
        if (at == std::string::npos) return parts;
        start = at + 1;
    }
}

float to_float(const std::string &text, const std::string &option) {
    char *end = nullptr;
    float v = std::strtof(text.c_str(), &end);
    if (text.empty() || *end || !std::isfinite(v)) throw UsageError(option + ": \"" + text + "\" is not a number");
    return v;
}

const std::string &value_after(const std::vector<std::string> &args, std::size_t &i) {
    if (i + 1 >= args.size()) throw UsageError(args[i] + " needs a value");
    return args[++i];
}

void parse_primaries(const std::string &text, ReadOptions &options) {
    for (const NamedPrimaries &p : kPrimaries)
        if (text == p.name) {
            std::memcpy(options.primaries, p.xy, sizeof p.xy);
            options.has_primaries = true;
            return;
        }
    std::vector<std::string> parts = split(text, ',');
    if (parts.size() != 8) {
        std::string names;
        for (const NamedPrimaries &p : kPrimaries) names += std::string(names.empty() ? "" : ", ") + p.name;
        throw UsageError("--primaries: expected one of " + names + ", or eight numbers rx,ry,gx,gy,bx,by,wx,wy");
    }
    for (int k = 0; k < 8; ++k) {
        float v = to_float(parts[std::size_t(k)], "--primaries");
        if (!(v > 0.0f && v < 1.0f)) throw UsageError("--primaries: chromaticities lie between 0 and 1");
        options.primaries[k] = v;
    }
    options.has_primaries = true;
}

// Whether a colour stage re-encoded the rows (they then carry `curve`).
bool reencoded(PXF_IMAGE *image, void *below) {
    for (auto *op = static_cast<PXF_OPERATOR *>(image->private_data[0]); op && op != below;
         op = static_cast<PXF_OPERATOR *>(op->saved_private))
        switch (op->tag) {
            case PXF_OP_GAMMA: case PXF_OP_RGB_RGB: case PXF_OP_XYZ_RGB: case PXF_OP_SAMP_RGB:
            case PXF_OP_RGB_Y: case PXF_OP_XYZ_Y: case PXF_OP_SAMP_Y: return true;
            default: break;
        }
    return false;
}

}  // namespace

bool parse_colour_option(const std::vector<std::string> &args, std::size_t &i, ReadOptions &options) {
    const std::string &a = args[i];
    if (a == "--display") {
        options.display = true;
    } else if (a == "--luminance") {
        options.luminance = true;
    } else if (a == "--primaries") {
        parse_primaries(value_after(args, i), options);
    } else if (a == "--image") {
        const std::string &v = value_after(args, i);
        char *end = nullptr;
        long n = std::strtol(v.c_str(), &end, 10);
        if (v.empty() || *end || n < 0 || n > 1000000) throw UsageError("--image: expected an image number from 0");
        options.image = int(n);
    } else if (a == "--normalize") {
        std::vector<std::string> parts = split(value_after(args, i), ',');
        if (parts.size() != 2) throw UsageError("--normalize: expected LOW,HIGH");
        options.normalize[0] = to_float(parts[0], a);
        options.normalize[1] = to_float(parts[1], a);
        if (!(options.normalize[1] > options.normalize[0])) throw UsageError("--normalize: HIGH must be above LOW");
        options.has_normalize = true;
    } else {
        return false;
    }
    return true;
}

void select_image(PXF_IMAGE *image, const ReadOptions &options, const std::string &path) {
    if (options.image < 0) return;
    int count = image->info.num_images;
    if (options.image >= count)
        throw Failure(path + ": no image " + std::to_string(options.image) + " (the file holds " +
                      std::to_string(count) + (count == 1 ? " image, numbered 0)" : " images, numbered from 0)"));
    if (count > 1) PXF__select(image, options.image);
}

void stack_colour_stages(PXF_IMAGE *&image, const ReadOptions &options, const std::string &path) {
    PXF_IMAGE_DESC &d = image->info.images[0];
    if (options.has_normalize) {
        void *before = image->private_data[0];
        image = PXF__normalize(image, options.normalize, nullptr, nullptr);
        if (image->private_data[0] == before)
            throw Failure(path + ": --normalize works on float colour channels (add --float for integer files)");
    }
    if (!options.display && !options.luminance && !options.has_primaries) return;
    int request = options.luminance ? PXF_DISPLAY_LUMINANCE : PXF_DISPLAY_RED | PXF_DISPLAY_GREEN | PXF_DISPLAY_BLUE;
    if (d.matte.count == 1) request |= PXF_DISPLAY_MATTE;
    if (d.aux.count == 1) request |= PXF_DISPLAY_AUX;
    // Viewing wants a display's encoding; a plain conversion keeps the file's.
    PXF_RESPONSE_CURVE curve{};
    curve.kind = PXF_CURVE_GAMMA;
    curve.gamma = kDisplayGamma;
    PXF_RESPONSE_CURVE *wanted = options.display ? &curve : nullptr;
    void *below = image->private_data[0];
    take_report();
    pxf__err = 0;
    PXF_IMAGE *result = PXF__display(image, request, options.has_primaries ? options.primaries : nullptr, wanted);
    if (!result) fail_with_report(path, "cannot prepare the image for display");
    image = result;
    if (pxf__err == PXF_E_UNKNOWN_TYPE) {
        // The 8-bit stages are in place; only the colour step had no rule.
        std::string why = take_report();
        if (options.luminance || options.has_primaries) throw Failure(path + ": " + why);
        note_that(path + ": " + why + "; shown as stored");
    } else if (pxf__err < 0) {
        fail_with_report(path, "cannot prepare the image for display");
    }
    // What was chosen here is stated in the output, not taken as a default.
    PXF_CHAN_GROUP &colour = image->info.images[0].chan;
    if (options.has_primaries) colour.extra &= ~PXF_CHAN_PRIMARIES_ASSUMED;
    if (wanted && reencoded(image, below)) image->info.images[0].curve.gamma = kDisplayGamma;
    if (wanted) colour.extra &= ~PXF_CHAN_GAMMA_ASSUMED;  // made for a display of that gamma
}

void print_stats(PXF_IMAGE *image, const std::string &path, bool json, std::string *json_out) {
    void *below = image->private_data[0];
    take_report();
    PXF__minmax_init(image, nullptr);
    if (image->private_data[0] == below) fail_with_report(path, "cannot read the image for statistics");
    const PXF_IMAGE_DESC &d = image->info.images[0];
    const char *groups[3] = {"colour", "matte", "auxiliary"};
    const int counts[3] = {d.chan.count, d.matte.count, d.aux.count};
    std::string s;
    int c = 0;
    if (!json) std::printf("  statistics   minimum and maximum per channel\n");
    for (int g = 0; g < 3; ++g)
        for (int k = 0; k < counts[g]; ++k, ++c) {
            float low = 0, high = 0;
            PXF__minmax_range(image, c, &low, &high);
            char line[160];
            if (json) {
                std::snprintf(line, sizeof line, "%s{\"group\": \"%s\", \"channel\": %d, \"min\": %.9g, \"max\": %.9g}",
                              c ? ", " : "", groups[g], k, double(low), double(high));
                s += line;
            } else {
                std::printf("    %-9s %d  min %.9g  max %.9g\n", groups[g], k, double(low), double(high));
            }
        }
    PXF__minmax_done(image);
    if (json_out) *json_out = "[" + s + "]";
}

}  // namespace pxftool
