// pxf palette: describes palette files and converts them between their forms.
#include <pxf/palette.h>

#include <cstdio>

#include "tool.h"

namespace pxftool {

namespace {

const char *kPaletteHelp =
    "usage: pxf palette IN [OUT] [options]\n"
    "Describes a palette file (GIMP .gpl, JASC .pal or the library's binary\n"
    ".lut) and the colour-index channel it serves, or converts it to OUT, whose\n"
    "form follows OUT's extension.\n"
    "\n"
    "  --to FORM     the form of OUT: gpl, jasc or binary\n"
    "  --list        also list every colour (8 bits a component)\n";

const char *describe(PXF_LUT_FORMAT format) {
    switch (format) {
    case PXF_LUT_GPL: return "GIMP palette";
    case PXF_LUT_JASC: return "JASC palette";
    default: return "binary palette";
    }
}

PXF_LUT_FORMAT form_named(const std::string &name) {
    for (PXF_LUT_FORMAT f : {PXF_LUT_GPL, PXF_LUT_JASC, PXF_LUT_BINARY})
        if (name == PXF_lut_format_name(f)) return f;
    throw UsageError("--to: unknown palette form \"" + name + "\" (gpl, jasc or binary)");
}

struct Palette {
    PXF_LUT *lut;
    ~Palette() { PXF_lut_free(lut); }
};

}  // namespace

int run_palette(const std::vector<std::string> &args) {
    if (wants_help(args)) return std::fputs(kPaletteHelp, stdout), kExitOk;
    std::vector<std::string> paths;
    PXF_LUT_FORMAT to = PXF_LUT_ANY;
    bool list = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        if (a == "--to") to = form_named(next_value(args, i));
        else if (a == "--list") list = true;
        else if (a.size() > 1 && a[0] == '-') throw UsageError("unknown option " + a + " (see --help)");
        else paths.push_back(a);
    }
    if (paths.empty() || paths.size() > 2) throw UsageError("palette needs IN and at most one OUT");
    if (to != PXF_LUT_ANY && paths.size() != 2) throw UsageError("--to needs OUT");
    PXF_LUT_FORMAT found = PXF_LUT_ANY;
    Palette palette{PXF_lut_load(paths[0].c_str(), PXF_LUT_ANY, &found)};
    if (!palette.lut) fail_with_report(paths[0], "cannot read the palette");
    if (paths.size() == 2) {
        if (PXF_lut_save(palette.lut, paths[1].c_str(), to) != 0) fail_with_report(paths[1], "cannot write the palette");
        return kExitOk;
    }
    const PXF_LUT &lut = *palette.lut;
    PXF_CHAN_GROUP index = {};
    int bits = PXF_lut_index_group(&lut, &index);
    std::printf("%s: %s, %u entries (highest index used %d), gamma %g\n", paths[0].c_str(), describe(found), lut.count,
                lut.maximum, double(lut.gamma));
    std::printf("  colour index: %d channel, integer, %d bit%s (2 bytes an element)\n", index.count, bits,
                bits == 1 ? "" : "s");
    if (list)
        for (uint32_t i = 0; i < lut.count; ++i) {
            const PXF_LUT_ENTRY &e = lut.entries[i];
            std::printf("  %5u  %3u %3u %3u%s\n", unsigned(i), (e.red + 128u) / 257u, (e.green + 128u) / 257u,
                        (e.blue + 128u) / 257u, e.flags & PXF_LUT_LOCKED ? "  locked" : "");
        }
    return kExitOk;
}

}  // namespace pxftool
