// The subcommands: formats, info, convert and make-sample.
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include <pxf/frames.h>
#include <pxf/utl.h>

#include "tool.h"

namespace pxftool {
namespace {

double parse_number(const std::string &text, const std::string &option) {
    char *end = nullptr;
    double v = std::strtod(text.c_str(), &end);
    if (text.empty() || *end || !std::isfinite(v) || v <= 0.0)
        throw UsageError(option + ": expected a positive number, got \"" + text + "\"");
    return v;
}

void reject_option(const std::string &arg) {
    if (arg.size() > 1 && arg[0] == '-') throw UsageError("unknown option " + arg);
}

// ---- JSON and text output ----

std::string json_string(const char *s) {
    if (!s) return "null";
    // Header texts may hold Latin-1: JSON is UTF-8.
    const std::string text = as_utf8(s);
    std::string out = "\"";
    for (const unsigned char *c = reinterpret_cast<const unsigned char *>(text.c_str()); *c; ++c) {
        switch (*c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\t': out += "\\t"; break;
        case '\r': out += "\\r"; break;
        default:
            if (*c < 0x20) {
                char hex[8];
                std::snprintf(hex, sizeof hex, "\\u%04x", *c);
                out += hex;
            } else {
                out += char(*c);
            }
        }
    }
    return out + "\"";
}

std::string number(double v) {
    char text[32];
    std::snprintf(text, sizeof text, "%.6g", v);
    return text;
}

std::string bounds_json(const PXF_BOUNDS &b) {
    return "{\"left\": " + std::to_string(b.left) + ", \"right\": " + std::to_string(b.right) +
           ", \"bottom\": " + std::to_string(b.bottom) + ", \"top\": " + std::to_string(b.top) + "}";
}

std::string group_json(const PXF_CHAN_GROUP &g) {
    return "{\"count\": " + std::to_string(g.count) + ", \"type\": \"" + type_name(g.type) +
           "\", \"width\": " + std::to_string(g.width) + ", \"format\": " + json_string(g.count ? g.format : nullptr) +
           "}";
}

std::string group_text(const PXF_CHAN_GROUP &g) {
    if (g.count <= 0) return "none";
    std::string s = std::to_string(g.count) + " x " + type_name(g.type) + " " + std::to_string(g.width) + "-bit";
    if (g.format && *g.format) s += std::string(" (") + g.format + ")";
    return s;
}

struct Text {
    const char *key;
    const char *value;
};

std::vector<Text> texts_of(const PXF_INFO &info) {
    std::vector<Text> all = {{"name", info.name},       {"description", info.desc}, {"program", info.program},
                             {"machine", info.machine}, {"user", info.user},        {"date", info.date},
                             {"text_a", info.text_a},   {"text_b", info.text_b}};
    std::vector<Text> set;
    // "unknown" is the library's filler for texts nobody gave.
    for (const Text &t : all)
        if (t.value && *t.value && std::strcmp(t.value, "unknown") != 0) set.push_back(t);
    return set;
}

std::string describe_json(const std::string &path, const FileSource &file) {
    const PXF_INFO &info = *file.info();
    const PXF_IMAGE_DESC &d = file.desc();
    PXF_TYPE *driver = find_driver(file.driver_key());
    const Layout &l = file.layout();
    std::string s = "  {\n";
    s += "    \"file\": " + json_string(path.c_str()) + ",\n";
    s += "    \"format\": {\"key\": " + json_string(file.driver_key().c_str()) +
         ", \"name\": " + json_string(driver ? driver->name : nullptr) + "},\n";
    s += "    \"width\": " + std::to_string(l.width) + ", \"height\": " + std::to_string(l.height) + ",\n";
    s += "    \"window\": " + bounds_json(d.window) + ",\n";
    s += "    \"active_window\": " + bounds_json(d.active_window) + ",\n";
    s += "    \"orientation\": \"" + std::string(d.orientation & 1 ? "bottom-up" : "top-down") + "\",\n";
    s += "    \"channels\": {\"colour\": " + group_json(d.chan) + ",\n                 \"matte\": " +
         group_json(d.matte) + ",\n                 \"auxiliary\": " + group_json(d.aux) + "},\n";
    s += "    \"gamma\": " + (d.curve.kind == PXF_CURVE_GAMMA ? number(d.curve.gamma) : std::string("null")) + ",\n";
    // What the file left unsaid, and whether colour is premultiplied by the matte.
    s += "    \"gamma_assumed\": " + std::string(d.chan.extra & PXF_CHAN_GAMMA_ASSUMED ? "true" : "false") +
         ", \"primaries_assumed\": " + (d.chan.extra & PXF_CHAN_PRIMARIES_ASSUMED ? "true" : "false") +
         ", \"premultiplied\": " +
         (d.matte.count <= 0 ? "null" : d.matte.extra == PXF_MATTE_UNASSOCIATED ? "false" : "true") + ",\n";
    auto xy = [](const float *p) { return "[" + number(p[0]) + ", " + number(p[1]) + "]"; };
    s += "    \"primaries\": {\"red\": " + xy(info.red_pri) + ", \"green\": " + xy(info.green_pri) +
         ", \"blue\": " + xy(info.blue_pri) + ", \"white\": " + xy(info.white_pt) + "},\n";
    s += "    \"frame\": " + std::to_string(info.frame) + ",\n";
    s += "    \"compression\": " + json_string(info.compression) + ",\n";
    // The stored date stays among the texts; here it is in ISO 8601 (null when unreadable).
    const std::string iso = iso_date(info.date);
    s += "    \"date_iso8601\": " + json_string(iso.empty() ? nullptr : iso.c_str()) + ",\n";
    s += "    \"texts\": {";
    bool first = true;
    for (const Text &t : texts_of(info)) {
        s += std::string(first ? "" : ", ") + "\"" + t.key + "\": " + json_string(t.value);
        first = false;
    }
    return s + "}\n  }";
}

void describe_text(const std::string &path, const FileSource &file) {
    const PXF_INFO &info = *file.info();
    const PXF_IMAGE_DESC &d = file.desc();
    PXF_TYPE *driver = find_driver(file.driver_key());
    const Layout &l = file.layout();
    auto bounds = [](const PXF_BOUNDS &b) {
        return "left " + std::to_string(b.left) + ", right " + std::to_string(b.right) + ", bottom " +
               std::to_string(b.bottom) + ", top " + std::to_string(b.top);
    };
    auto xy = [](const float *p) { return "(" + number(p[0]) + ", " + number(p[1]) + ")"; };
    std::printf("%s\n", path.c_str());
    std::printf("  format       %s (%s)\n", file.driver_key().c_str(), driver && driver->name ? driver->name : "?");
    std::printf("  size         %d x %d, %s\n", l.width, l.height, d.orientation & 1 ? "bottom-up" : "top-down");
    std::printf("  window       %s\n", bounds(d.window).c_str());
    std::printf("  active       %s\n", bounds(d.active_window).c_str());
    std::printf("  colour       %s\n", group_text(d.chan).c_str());
    std::printf("  matte        %s%s\n", group_text(d.matte).c_str(),
                d.matte.count <= 0                            ? ""
                : d.matte.extra == PXF_MATTE_UNASSOCIATED ? ", colour not premultiplied"
                                                          : ", colour premultiplied");
    std::printf("  auxiliary    %s\n", group_text(d.aux).c_str());
    if (d.curve.kind == PXF_CURVE_GAMMA)
        std::printf("  gamma        %s%s\n", number(d.curve.gamma).c_str(),
                    d.chan.extra & PXF_CHAN_GAMMA_ASSUMED ? " (assumed: the file does not say)" : "");
    else
        std::printf("  gamma        response curve of %d entries\n", d.curve.entries);
    std::printf("  primaries    red %s, green %s, blue %s, white %s\n", xy(info.red_pri).c_str(),
                xy(info.green_pri).c_str(), xy(info.blue_pri).c_str(), xy(info.white_pt).c_str());
    std::printf("  frame        %d\n", info.frame);
    std::printf("  compression  %s\n", info.compression ? info.compression : "unknown");
    for (const Text &t : texts_of(info)) {
        const std::string iso = t.value == info.date ? iso_date(t.value) : "";
        std::printf("  %-12s %s%s\n", t.key, t.value, iso.empty() ? "" : (" (" + iso + ")").c_str());
    }
}

// The frame numbers of a multi-frame image as ranges: "1-40, 42, 50-60".
void describe_frames(PXF_IMAGE *image) {
    int n = PXF_multiframe_count(image);
    std::string list;
    for (int i = 0, start = 0, previous = 0, f = 0; i <= n; ++i) {
        bool more = i < n && PXF_multiframe_frame(image, i, &f) == 0;
        if (i && (!more || f != previous + 1)) {
            list += (list.empty() ? "" : ", ") + std::to_string(start);
            if (previous != start) list += "-" + std::to_string(previous);
        }
        if (!more) break;
        if (!i || f != previous + 1) start = f;
        previous = f;
    }
    const PXF_IMAGE_DESC &d = image->info.images[0];
    std::printf("  frames       %d of %dx%d: %s\n", n, d.window.right - d.window.left + 1,
                d.window.top - d.window.bottom + 1, list.empty() ? "none" : list.c_str());
}

// ---- Frame sequences ----

void parse_frames(const std::string &text, int &first, int &last) {
    std::size_t dash = text.find('-', 1);
    first = int(parse_integer(text.substr(0, dash), "--frames", 0, 99999999));
    last = dash == std::string::npos ? first : int(parse_integer(text.substr(dash + 1), "--frames", 0, 99999999));
    if (last < first) throw UsageError("--frames: the range " + text + " runs backwards");
}

bool is_container(const std::string &path) {
    return path.size() > 4 && path.compare(path.size() - 4, 4, ".mpc") == 0;
}

// Frames of a multi-frame IN: one (`frame`), or each of first..last (all
// when last < first), to OUT's frame field.
int convert_frames(const std::string &in, const std::string &out, const ReadOptions &read, WriteOptions write,
                   const Crop &crop, int frame, int first, int last, bool quiet) {
    FileSource source(in, read);
    PXF_IMAGE *image = source.image();
    if (!PXF_multiframe_is(image)) throw UsageError("convert: " + in + " has no frames to choose from");
    std::vector<int> chosen;
    for (int i = 0, n = PXF_multiframe_count(image), f = 0; i < n; ++i)
        if (PXF_multiframe_frame(image, i, &f) == 0 && (frame >= 0 ? f == frame : last < first || (f >= first && f <= last)))
            chosen.push_back(f);
    if (chosen.empty()) throw Failure(in + ": no such frame");
    if (chosen.size() > 1 && !Sequence::is_pattern(out))
        throw UsageError("convert: OUT needs a frame field, as in name.####.ext, or give --frame N");
    // A note about one frame is a note about them all: say it once, of OUT.
    std::vector<std::string> names;
    for (int f : chosen) names.push_back(Sequence::is_pattern(out) ? Sequence(out).frame(f) : out);
    std::size_t current = 0;
    NoteGroup once([&](const std::string &text) {
        const std::string &to = names[current];
        if (text.compare(0, to.size() + 2, to + ": ") == 0) return out + text.substr(to.size());
        return text;
    });
    Progress bar("convert", !quiet);
    int done = 0;
    for (int f : chosen) {
        take_report();
        if (PXF_set_frame(image, f) != 0) fail_with_report(in, "cannot read frame " + std::to_string(f));
        write.frame = f;
        const std::string &to = names[current = std::size_t(done)];
        if (crop.set) write_cropped(source, crop, to, write);
        else write_image(source, to, write, nullptr);
        bar.update(++done, int(chosen.size()));
    }
    bar.finish();
    return kExitOk;
}

const char *kConvertHelp =
    "usage: pxf convert IN OUT [options]\n"
    "\n"
    "Reads IN through the requested operators and writes OUT, in the format\n"
    "named by OUT's extension or by --key.\n"
    "\n"
    "  --key KEY          output format key (see pxf formats)\n"
    "  --float            cast integer channels to normalised 32-bit float\n"
    "  --gamma G          correct 8-bit colour channels to gamma G\n"
    "  --quantize BITS    turn float colour and matte channels into BITS-bit\n"
    "                     integers (use after --float, or on float files)\n"
    "  --field            pair two field files (name.NNNN) into one frame\n"
    "  --image N          read image N (from 0) of a file holding several\n"
    "  --normalize LOW,HIGH  map float colour from LOW..HIGH onto 0..1, clipped\n"
    "  --display          any image (float, 16-bit, XYZ, spectral) to 8-bit\n"
    "                     for viewing, encoded for a gamma 2.2 display\n"
    "  --primaries P      8-bit RGB to other primaries: srgb, rec709, rec2020,\n"
    "                     p3, adobe, ntsc, or rx,ry,gx,gy,bx,by,wx,wy\n"
    "  --luminance        one channel of luminance (Y) instead of colour\n"
    "  --resize WxH|N%    scale to W x H pixels, or by N percent\n"
    "  --filter NAME      resampling filter: box, triangle, catmull-rom,\n"
    "                     mitchell (default), lanczos3, gaussian\n"
    "  --compression C    compression where the format offers a choice\n"
    "                     (tiff: none, lzw (default), deflate, packbits;\n"
    "                     png: rle (default: fast, small for photographs and\n"
    "                     renders), deflate (smaller for flat graphics and\n"
    "                     text, slower), huffman, none; exr: none, rle,\n"
    "                     zips, zip, piz, pxr24, b44, b44a, dwaa, dwab;\n"
    "                     jpeg: baseline, progressive)\n"
    "  --level N          deflate effort: png 0 (stored) to 9 (default 6;\n"
    "                     it tells with --compression deflate); tiff with\n"
    "                     deflate 1 to 9\n"
    "  --png-filter F     png row filter: none, sub, up, average, paeth, or\n"
    "                     adaptive (default: the best of them for each row)\n"
    "  --predictor P      tiff with lzw or deflate: none, horizontal (integers)\n"
    "                     or float (float samples); by default the one of\n"
    "                     none and the other that packs a sample smaller\n"
    "  --quality Q        quality of lossy formats, 1 to 100 (jpeg)\n"
    "  --frames LIST      frames of name.####.ext sequences: 1-100, 1-100x2\n"
    "                     (every 2nd), 1,5,9; without it, the frames on disk;\n"
    "                     with OUT a .mpc container, pack them into it\n"
    "  --crop X,Y,W,H     write only that rectangle (X, Y from the window's\n"
    "                     left and bottom), clipped to the image\n"
    "  --frame N          take frame N of a multi-frame IN (a .mpc container);\n"
    "                     a multi-frame IN and an OUT with a frame field\n"
    "                     unpack every frame (or those of --frames)\n"
    "  --jobs N, -j N     convert up to N frames at once (default 1; one image is\n"
    "                     read on a second thread while it is written, and tiff\n"
    "                     strips are compressed on every core, unless --jobs\n"
    "                     is given)\n"
    "  --quiet, -q        no progress bar and no notes\n"
    "  --verbose, -v      say what is loaded and written\n"
    "  --attrib NAME=VALUE  set a text of the description (name, description,\n"
    "                     program, machine, user, date, text_a, text_b)\n"
    "  --strip            leave out the input's texts\n"
    "  --ch LIST          channels to keep, in order: R,G,B (Y alone), A for\n"
    "                     the matte, Z for depth; as in --ch B,G,R or --ch R,G,B,A\n"
    "  --stamp            record this user and host names in OUT (not done\n"
    "                     unless asked)\n"
    "\n"
    "A sequence is named with #### (one # per digit), %04d or @@@@.  IN may\n"
    "be - for standard input; OUT - writes standard output, in the format\n"
    "of --key (default rla).  --opt=value works for every option.\n";

const char *kInfoHelp =
    "usage: pxf info [--json] [--stats] FILE...\n"
    "\n"
    "Describes each image file: format (found by content, then extension),\n"
    "size and windows, channel groups with types and widths, gamma,\n"
    "primaries, frame, texts and compression.\n"
    "\n"
    "  --json    one JSON array of descriptions, for scripts\n"
    "  --stats   also each channel's minimum and maximum (reads every pixel)\n"
    "\n"
    "FILE may be a sequence (name.####.ext, name.%04d.ext): every frame on\n"
    "disk is described.  - reads standard input.\n";

const char *kFormatsHelp =
    "usage: pxf formats\n"
    "\n"
    "Lists every registered image format: key, extension, name, and whether\n"
    "it reads (r) and writes (w).  Plug-ins come from PXF_PLUGIN_PATH.\n";

const char *kSampleHelp =
    "usage: pxf make-sample OUT [options]\n"
    "\n"
    "Writes the built-in sample image: colour bars, grey and hue ramps, a\n"
    "soft matte and a depth channel (formats without a place for a channel\n"
    "group leave it out, and say so).\n"
    "\n"
    "  --size WxH         image size (default 320x240)\n"
    "  --key KEY          output format key (default: from OUT's extension)\n"
    "  --compression C    compression where the format offers a choice\n"
    "  --level N, --png-filter F, --predictor P   as for convert\n"
    "  --attrib NAME=VALUE  set a text of the description\n"
    "  --stamp            record this user and host names in OUT\n";

}  // namespace

int run_formats(const std::vector<std::string> &args) {
    if (wants_help(args)) return std::fputs(kFormatsHelp, stdout), kExitOk;
    for (const std::string &a : args) {
        reject_option(a);
        throw UsageError("formats takes no arguments");
    }
    std::printf("%-8s %-10s %-4s %s\n", "KEY", "EXTENSION", "R/W", "NAME");
    for (PXF_TYPE *d : all_drivers()) {
        std::string rw = std::string(d->access & 4 ? "r" : "-") + (d->access & 8 ? "w" : "-");
        std::printf("%-8s %-10s %-4s %s%s\n", d->key ? d->key : "", d->extension ? d->extension : "", rw.c_str(),
                    d->name ? d->name : "", d->builtin ? " (built in)" : "");
    }
    return kExitOk;
}

int run_info(const std::vector<std::string> &args) {
    if (wants_help(args)) return std::fputs(kInfoHelp, stdout), kExitOk;
    bool json = false, stats = false;
    std::vector<std::string> files;
    for (const std::string &a : args) {
        if (a == "--json") json = true;
        else if (a == "--stats") stats = true;
        else reject_option(a), files.push_back(a);
    }
    if (files.empty()) throw UsageError("info needs at least one FILE");
    int status = kExitOk;
    std::vector<std::string> entries;
    StandardStreams streams;
    // A pattern stands for the frames of its sequence found on disk.
    std::vector<std::string> expanded;
    for (const std::string &path : files) {
        if (!Sequence::is_pattern(path)) {
            expanded.push_back(path);
            continue;
        }
        Sequence sequence(path);
        std::vector<int> frames = sequence.discover();
        if (frames.empty()) {
            std::fprintf(stderr, "pxf: %s: no files of this sequence were found\n", path.c_str());
            status = kExitFailed;
            continue;
        }
        if (!json)
            std::printf("%s: %zu frame%s, %s\n", path.c_str(), frames.size(), frames.size() == 1 ? "" : "s",
                        describe_frames(frames).c_str());
        for (int f : frames) expanded.push_back(sequence.frame(f));
    }
    for (const std::string &path : expanded) {
        try {
            FileSource file(streams.input(path), ReadOptions{});
            if (json) entries.push_back(describe_json(path, file));
            else describe_text(path, file);
            if (stats) {
                std::string ranges;
                print_stats(file.image(), path, json, &ranges);
                // The object's closing "\n  }" makes way for the ranges.
                if (json) entries.back().insert(entries.back().size() - 4, ",\n    \"stats\": " + ranges);
            }
            if (!json && PXF_multiframe_is(file.image())) describe_frames(file.image());
        } catch (const Failure &e) {
            std::fflush(stdout);
            std::fprintf(stderr, "pxf: %s\n", e.what());
            status = kExitFailed;
        }
    }
    if (json) {
        std::printf("[\n");
        for (std::size_t i = 0; i < entries.size(); ++i)
            std::printf("%s%s\n", entries[i].c_str(), i + 1 < entries.size() ? "," : "");
        std::printf("]\n");
    }
    return status;
}

int run_convert(const std::vector<std::string> &args) {
    if (wants_help(args)) return std::fputs(kConvertHelp, stdout), kExitOk;
    ReadOptions read;
    WriteOptions write;
    std::vector<std::string> paths;
    std::string frames, channels;
    int one_frame = -1;
    Crop crop;
    int jobs = 0;  // 0: not given
    bool quiet = global_options().quiet;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        if (a == "--key") write.key = next_value(args, i);
        else if (a == "--float") read.to_float = true;
        else if (a == "--gamma") read.gamma = float(parse_number(next_value(args, i), a));
        else if (a == "--quantize") read.quantize = int(parse_integer(next_value(args, i), a, 1, 32));
        else if (a == "--field") read.field = true;
        else if (a == "--resize") parse_resize(next_value(args, i), read);
        else if (a == "--filter") read.filter = checked_filter(next_value(args, i));
        else if (a == "--compression") write.compression = next_value(args, i);
        else if (a == "--quality") write.quality = int(parse_integer(next_value(args, i), a, 1, 100));
        else if (a == "--frames") frames = next_value(args, i);
        else if (a == "--crop") crop = parse_crop(next_value(args, i));
        else if (a == "--frame") one_frame = int(parse_integer(next_value(args, i), a, 0, 99999999));
        else if (a == "--jobs") jobs = int(parse_integer(next_value(args, i), a, 1, 256));
        else if (a == "--quiet") quiet = true;
        else if (a == "--attrib") add_attribute(write.texts, next_value(args, i));
        else if (a == "--strip") write.texts.strip = true;
        else if (a == "--ch") channels = next_value(args, i);
        else if (a == "--stamp") write.texts.stamp = true;
        else if (parse_colour_option(args, i, read)) continue;
        else if (parse_codec_option(args, i, write)) continue;
        else reject_option(a), paths.push_back(a);
    }
    if (paths.size() != 2) throw UsageError("convert needs IN and OUT");
    // Frames converted side by side keep the cores busy already; --jobs 1
    // asks for one thread.
    if (jobs > 0) write.pipeline = false;
    const std::string &in = paths[0], &out = paths[1];
    bool in_sequence = Sequence::is_pattern(in), out_sequence = Sequence::is_pattern(out);

    // Frames of a multi-frame IN (a container): one of them, or each to OUT's frame field.
    if (!in_sequence && (one_frame >= 0 || out_sequence)) {
        int first = 0, last = -1;
        if (!frames.empty()) parse_frames(frames, first, last);
        return convert_frames(in, out, read, write, crop, one_frame, first, last, quiet);
    }
    if (!in_sequence) {
        if (!frames.empty()) throw UsageError("--frames: IN needs a frame field, as in name.####.ext");
        if (in != "-" && out != "-") refuse_same_file(in, out);
        StandardStreams streams;
        std::string out_path = streams.output(out, write);
        Progress bar("convert", !quiet);
        FileSource file(streams.input(in), read);
        if (crop.set) {
            write_cropped(file, crop, out_path, write);
        } else {
            std::optional<ChannelSelect> picked;
            if (!channels.empty()) picked.emplace(file, channels);
            RowSource &source = picked ? static_cast<RowSource &>(*picked) : file;
            write_image(source, out_path, write, [&](int done, int total) { bar.update(done, total); });
        }
        bar.finish();
        streams.finish();
        tell("wrote " + out);
        return kExitOk;
    }

    Sequence input(in);
    std::vector<int> numbers = frames.empty() ? input.discover() : parse_frame_ranges(frames);
    if (numbers.empty()) throw Failure(in + ": no files of this sequence were found");
    if (frames.empty()) {
        tell(in + ": frames " + describe_frames(numbers));
        // Numbers missing between the first and the last frame found.
        std::vector<int> missing;
        for (std::size_t i = 1; i < numbers.size(); ++i)
            for (int f = numbers[i - 1] + 1; f < numbers[i] && missing.size() < 1000; ++f) missing.push_back(f);
        if (!missing.empty()) warn(in + ": frames missing from the sequence: " + describe_frames(missing));
    }
    if (!out_sequence && is_container(out)) {
        // Pack the sequence into one container, each frame under its file's
        // number.  The container is built under a temporary name and takes
        // OUT's place only when every frame is in it.
        errno = 0;
        std::unique_ptr<UTL_OUTPUT, void (*)(UTL_OUTPUT *)> staged(UTL_output_open(out.c_str()), UTL_output_abandon);
        if (!staged) throw Failure(out + ": cannot write: " + std::strerror(errno ? errno : EIO));
        const std::string building = UTL_output_name(staged.get());
        // One writer takes every frame, so the index is written once.
        struct Container {
            PXF_IMAGE *image = nullptr;
            ~Container() {
                QuietReports quiet;
                if (image) PXF_close(image);
            }
        } container;
        write.container = &container.image;
        Progress bar("convert", !quiet);
        int done = 0;
        for (int f : numbers) {
            FileSource source(input.frame(f), read);
            write.frame = f;
            write_image(source, building, write, nullptr);
            bar.update(++done, int(numbers.size()));
        }
        bar.finish();
        take_report();
        PXF_IMAGE *image = container.image;
        container.image = nullptr;
        if (PXF_close(image) != 0) fail_with_report(out, "cannot finish writing");
        errno = 0;
        if (UTL_output_commit(staged.release()) != 0)
            throw Failure(out + ": cannot write: " + std::strerror(errno ? errno : EIO));
        return kExitOk;
    }
    if (!out_sequence && numbers.size() > 1)
        throw UsageError("OUT needs a frame field, as in name.####.ext, to hold " + std::to_string(numbers.size()) +
                         " frames");
    if (out == "-") throw UsageError("a sequence cannot go to standard output");
    StandardStreams checks;
    checks.output(out, write);  // refuses what pxf cannot write, before any frame is read
    std::optional<Sequence> output;
    if (out_sequence) output.emplace(out);
    struct Job {
        std::string from, to;
    };
    std::vector<Job> jobs_list;
    for (int f : numbers) jobs_list.push_back({input.frame(f), output ? output->frame(f) : out});
    int count = int(jobs_list.size());
    // A note about one frame is a note about them all: say it once, of the pattern.
    NoteGroup once([&](const std::string &text) {
        for (const Job &j : jobs_list)
            if (text.compare(0, j.to.size() + 2, j.to + ": ") == 0) return out + text.substr(j.to.size());
        return text;
    });
    std::atomic<int> next{0}, done{0}, failed{0};
    std::mutex print;
    Progress bar("convert", !quiet);
    auto worker = [&] {
        for (int i; (i = next++) < count;) {
            try {
                const Job &job = jobs_list[std::size_t(i)];
                refuse_same_file(job.from, job.to);
                FileSource file(job.from, read);
                std::optional<ChannelSelect> picked;
                if (!channels.empty()) picked.emplace(file, channels);
                RowSource &source = picked ? static_cast<RowSource &>(*picked) : file;
                write_image(source, job.to, write, nullptr);
                tell("wrote " + job.to);
            } catch (const std::exception &e) {
                ++failed;
                bar.finish();
                std::lock_guard<std::mutex> hold(print);
                std::fprintf(stderr, "pxf: %s\n", e.what());
            }
            bar.update(++done, count);
        }
    };
    std::vector<std::thread> pool;
    for (int j = 1; j < std::min(std::max(jobs, 1), count); ++j) pool.emplace_back(worker);
    worker();
    for (std::thread &t : pool) t.join();
    bar.finish();
    if (failed) throw Failure(std::to_string(failed.load()) + " of " + std::to_string(count) + " frames failed");
    return kExitOk;
}

int run_make_sample(const std::vector<std::string> &args) {
    if (wants_help(args)) return std::fputs(kSampleHelp, stdout), kExitOk;
    WriteOptions write;
    std::vector<std::string> paths;
    int width = 320, height = 240;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        if (a == "--key") write.key = next_value(args, i);
        else if (a == "--compression") write.compression = next_value(args, i);
        else if (a == "--attrib") add_attribute(write.texts, next_value(args, i));
        else if (a == "--stamp") write.texts.stamp = true;
        else if (parse_codec_option(args, i, write)) continue;
        else if (a == "--size") {
            std::string size = next_value(args, i);
            std::size_t x = size.find('x');
            if (x == std::string::npos) throw UsageError("--size: expected WxH, got \"" + size + "\"");
            width = int(parse_integer(size.substr(0, x), a, 1, 65535));
            height = int(parse_integer(size.substr(x + 1), a, 1, 65535));
        } else {
            reject_option(a), paths.push_back(a);
        }
    }
    if (paths.size() != 1) throw UsageError("make-sample needs one OUT file");
    StandardStreams streams;
    std::string out_path = streams.output(paths[0], write);
    auto sample = make_sample(width, height);
    write_image(*sample, out_path, write, nullptr);
    streams.finish();
    tell("wrote " + paths[0]);
    return kExitOk;
}

}  // namespace pxftool
