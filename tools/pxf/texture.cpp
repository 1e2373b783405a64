// Resizing on the way through convert, swatches and mipmapped textures.
#include <pxf/imp.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tool.h"

namespace pxftool {
namespace {

const char *const kFilterNames[] = {"box", "triangle", "catmull-rom", "mitchell", "lanczos3", "gaussian"};

const char *kMipmapHelp =
    "usage: pxf mipmap IN OUT.rla [options]\n"
    "\n"
    "Writes a mipmapped texture of IN: every level from the image itself down\n"
    "to 1x1, each half the size of the one before (sizes rounded down), as the\n"
    "chained images of one RLA file (image 0 is the full size).\n"
    "\n"
    "  --kind K        colour (default): every channel group as it is;\n"
    "                  scalar: the first channel alone;\n"
    "                  bump: the first channel as a height, stored as three\n"
    "                  float channels: height, dh/du, dh/dv (u and v run from\n"
    "                  0 to 1 across the level, v from the bottom scanline up)\n"
    "  --filter NAME   box, triangle, catmull-rom, mitchell (default),\n"
    "                  lanczos3 or gaussian\n"
    "  --quiet         no progress bar\n";

const char *kSwatchHelp =
    "usage: pxf swatch IN OUT --size N [options]\n"
    "\n"
    "Writes a small preview of IN whose longer side is N pixels (the\n"
    "proportions are kept), in the format of OUT's extension or --key.\n"
    "\n"
    "  --size N        the longer side, 1 to 1000000\n"
    "  --filter NAME   box, triangle, catmull-rom, mitchell (default),\n"
    "                  lanczos3 or gaussian\n"
    "  --key KEY       output format key (see pxf formats)\n"
    "  --quiet         no progress bar\n";

}  // namespace

std::string checked_filter(const std::string &name) {
    for (const char *known : kFilterNames)
        if (name == known) return name;
    throw UsageError("--filter: unknown filter \"" + name +
                     "\" (box, triangle, catmull-rom, mitchell, lanczos3, gaussian)");
}

void parse_resize(const std::string &text, ReadOptions &options) {
    if (!text.empty() && text.back() == '%') {
        char *end = nullptr;
        double p = std::strtod(text.c_str(), &end);
        if (end != text.c_str() + text.size() - 1 || !(p > 0.0) || p > 1e6)
            throw UsageError("--resize: expected WxH or a percentage above 0, got \"" + text + "\"");
        options.resize_percent = p;
        return;
    }
    std::size_t x = text.find('x');
    if (x == std::string::npos) throw UsageError("--resize: expected WxH or N%, got \"" + text + "\"");
    options.resize_width = int(parse_integer(text.substr(0, x), "--resize", 1, 1000000));
    options.resize_height = int(parse_integer(text.substr(x + 1), "--resize", 1, 1000000));
}

PXF_IMAGE *apply_resize(PXF_IMAGE *image, const ReadOptions &options, const std::string &path) {
    const PXF_IMAGE_DESC &d = image->info.images[0];
    const long w = d.window.right - d.window.left + 1, h = d.window.top - d.window.bottom + 1;
    long tw = options.resize_width, th = options.resize_height;
    if (options.resize_percent > 0.0) {
        tw = std::lround(double(w) * options.resize_percent / 100.0);
        th = std::lround(double(h) * options.resize_percent / 100.0);
    } else if (options.fit_size > 0) {
        long side = w > h ? w : h;
        tw = (w * options.fit_size + side / 2) / side;
        th = (h * options.fit_size + side / 2) / side;
    }
    tw = tw < 1 ? 1 : tw;
    th = th < 1 ? 1 : th;
    if (tw > 1000000 || th > 1000000)
        throw Failure(path + ": the resized image would be " + std::to_string(tw) + "x" + std::to_string(th) +
                      " (at most 1000000 on a side)");
    if (tw == w && th == h) return image;
    PXF_CLOSE_FN before = image->close;
    take_report();
    image = PXF__scale_init(image, int(tw), int(th), options.filter.empty() ? nullptr : options.filter.c_str());
    if (image->close == before)
        fail_with_report(path, "cannot resize to " + std::to_string(tw) + "x" + std::to_string(th));
    return image;
}

int run_mipmap(const std::vector<std::string> &args) {
    if (wants_help(args)) return std::fputs(kMipmapHelp, stdout), kExitOk;
    IMP_OPTIONS options;
    IMP_options_init(&options);
    std::string filter;
    std::vector<std::string> paths;
    bool quiet = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        if (a == "--kind") {
            std::string kind = next_value(args, i);
            if (kind == "colour" || kind == "color") options.kind = PXF_TEXTURE_COLOUR;
            else if (kind == "scalar") options.kind = PXF_TEXTURE_SCALAR;
            else if (kind == "bump") options.kind = PXF_TEXTURE_BUMP;
            else throw UsageError("--kind: expected colour, scalar or bump, got \"" + kind + "\"");
        } else if (a == "--filter") filter = checked_filter(next_value(args, i));
        else if (a == "--quiet") quiet = true;
        else if (a.size() > 1 && a[0] == '-') throw UsageError("unknown option " + a + " (see --help)");
        else paths.push_back(a);
    }
    if (paths.size() != 2) throw UsageError("mipmap needs IN and OUT.rla");
    const std::string &in = paths[0], &out = paths[1];
    options.filter = filter.empty() ? nullptr : filter.c_str();
    Progress bar("mipmap", !quiet);
    options.progress = [](void *data, long done, long total) { static_cast<Progress *>(data)->update(done, total); };
    options.progress_data = &bar;

    FileSource source(in, ReadOptions{});
    PXF_INFO info;
    PXF_info_init(&info);
    std::string key = "rla", program = "pxf";
    info.key = key.data();  // the one format that chains images
    info.handle = const_cast<char *>(out.c_str());
    info.program = program.data();
    info.name = source.image()->info.name;
    info.desc = source.image()->info.desc;
    take_report();
    int status = IMP_run(IMP_MIPMAP, source.image(), &info, &options);
    PXF_info_cleanup(&info, 0);
    bar.finish();
    if (status != 0) fail_with_report(out, "cannot write the texture");
    return kExitOk;
}

int run_swatch(const std::vector<std::string> &args) {
    if (wants_help(args)) return std::fputs(kSwatchHelp, stdout), kExitOk;
    ReadOptions read;
    WriteOptions write;
    std::vector<std::string> paths;
    bool quiet = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        if (a == "--size") read.fit_size = int(parse_integer(next_value(args, i), a, 1, 1000000));
        else if (a == "--filter") read.filter = checked_filter(next_value(args, i));
        else if (a == "--key") write.key = next_value(args, i);
        else if (a == "--quiet") quiet = true;
        else if (a.size() > 1 && a[0] == '-') throw UsageError("unknown option " + a + " (see --help)");
        else paths.push_back(a);
    }
    if (paths.size() != 2) throw UsageError("swatch needs IN and OUT");
    if (read.fit_size <= 0) throw UsageError("swatch needs --size N");
    Progress bar("swatch", !quiet);
    FileSource source(paths[0], read);
    write_image(source, paths[1], write, [&](int done, int total) { bar.update(done, total); });
    bar.finish();
    return kExitOk;
}

}  // namespace pxftool
