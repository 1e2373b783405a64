/*
 * OpenEXR image driver on the OpenEXR library: scanline and tiled files,
 * single or multi-part, half, float and unsigned-int channels.
 *
 * Channels.  R, G and B are the colour group (Y alone is grey), A is the
 * matte, and every other channel (Z, layered names such as N.x) is an
 * auxiliary channel; the auxiliary group's format holds their names, joined
 * with commas, in file order.  A group whose channels are all half reads as
 * PXF_C_FLOAT rows (4-byte floats) with width 16, so the caller sees floats
 * and still knows the file held halves; all float gives width 32, all
 * unsigned int PXF_C_INTEGER width 32, a mixture float width 32.  Writing
 * goes the other way: float width 16 is stored as half, other floats and
 * doubles as float, 32-bit integers as unsigned int, and narrower integers
 * as half fractions of their largest value (colour decoded by the image's
 * gamma, since EXR holds linear light).
 *
 * Windows.  The data window (the pixels the file holds) is the image
 * window, the display window the active window.  EXR counts rows down and
 * the image window counts them up, so rows are mirrored about the middle
 * of the display window: a display window of 0..w-1 x 0..h-1 keeps its
 * coordinates, and negative origins and overscan survive a round trip.
 *
 * Each part of a multi-part file is one image of the handle; image i is
 * scanned through private_data[i].  Writing more than one image description
 * writes a multi-part file.  A file is written under a temporary name and
 * renamed into place when it is complete, so a failed write leaves an
 * existing file alone.  Writing tiled files: an integer setting (code 0)
 * in info.specific gives the tile size; without it files are scanlines.
 */
#include <errno.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <string.h>
#include <strings.h>
#include <time.h>
#include <unistd.h>

#include <Imath/half.h>
#include <ImfChannelList.h>
#include <ImfChromaticitiesAttribute.h>
#include <ImfCompressionAttribute.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfInputPart.h>
#include <ImfMultiPartInputFile.h>
#include <ImfMultiPartOutputFile.h>
#include <ImfOutputPart.h>
#include <ImfPartType.h>
#include <ImfStandardAttributes.h>
#include <ImfStringAttribute.h>
#include <ImfTiledOutputPart.h>
#include <exr_alias.h>
#include <openexr.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include <pxf/err.h>
#include <pxf/plugin.h>
#include <pxf/utl.h>

extern "C" {
const char *version = PXF_PLUGIN_PROTOCOL;
const char *imageKey = "exr";
const char *imageExtension = ".exr";
const char *imageName = "OpenEXR";
const char *imageDescription =
    "half/float/uint channels, scanline or tiled, multi-part; none, RLE, ZIPS, ZIP, PIZ, PXR24, B44, B44A, DWAA, DWAB";
int imageOrientation = 0; /* scanlines top down */
int imageAccess = PXF_ACCESS_READ | PXF_ACCESS_WRITE;
int imageNumberOfChannels = 3;
int imageBitsPerChannel = 32;
int imageNumberOfMattes = 1;
int imageBitsPerMatte = 32;
int imageNumberOfZChannels = 64;
int imageBitsPerZChannel = 32;
int imageSupportsActiveWindow = 1;
int imageReadOpen(PXF_IMAGE *image);
int imageWriteOpen(PXF_IMAGE *image);
int imageIsFile(const char *path, void *stream);
}

namespace {

namespace Imath = IMATH_NAMESPACE;

// Damaged or hostile headers must not make us allocate without bound: sides
// beyond this are refused, and so is a decoding block beyond kMaxBlockBytes.
constexpr int kMaxSide = 1 << 20;
constexpr size_t kMaxBlockBytes = size_t(512) << 20;
constexpr int kMaxChannels = 1024;

enum Group { kColour, kMatte, kAux };

struct Channel {
    std::string name;
    Group group;
    int index;                 // caller's row index (colour, matte, aux order)
    exrlib::PixelType file_type;  // as stored
    exrlib::PixelType slice_type; // as held in our block (FLOAT or UINT)
};

struct File;

// One part: one image of the handle.
struct Part {
    File *file = nullptr;
    int number = 0;
    Imath::Box2i data, display;
    int width = 0, height = 0;
    long long mirror = 0; // our line = mirror - EXR row
    bool tiled = false;
    int block_lines = 1;  // rows decoded or encoded together
    std::vector<Channel> channels;
    std::vector<char> block; // per channel: block_lines rows of width 4-byte elements
    std::vector<void *> rows; // row pointers handed to the caller
    int block_first = 0, block_last = -1; // EXR rows held in `block` (reading)
    int tiles_across = 0, tile_width = 0;
    exr_decode_pipeline_t decoder = EXR_DECODE_PIPELINE_INITIALIZER;
    bool decoder_ready = false;
    std::unique_ptr<exrlib::InputPart> input; // DWA parts (see read_part)
    std::unique_ptr<exrlib::OutputPart> output;
    std::unique_ptr<exrlib::TiledOutputPart> tiled_output;
    // Writing.
    PXF_CHAN_GROUP groups[3]{};
    double gamma = 1.0;
    bool premultiply = false; // the caller's colour is unassociated
    int next_row = 0; // next EXR row expected
    size_t plane_bytes() const { return size_t(block_lines) * size_t(width) * 4; }
};

struct File {
    std::string path;
    UTL_OUTPUT *staged = nullptr; // writing: renamed over path only when complete
    bool writing = false;
    exr_context_t core = nullptr; // reading
    std::unique_ptr<exrlib::MultiPartInputFile> dwa_input;
    std::unique_ptr<exrlib::MultiPartOutputFile> output;
    std::vector<std::unique_ptr<Part>> parts;
};

int report(const std::string &path, const std::string &what) {
    // One printable line: damaged files put anything into the names the
    // library quotes.
    std::string line = what;
    for (char &c : line)
        if (static_cast<unsigned char>(c) < 32 || static_cast<unsigned char>(c) > 126) c = c == '\n' ? ' ' : '?';
    ERR_printf(ERR_ERROR, "%s: %s", path.c_str(), line.c_str());
    return 0;
}

int scan_error(int code) {
    pxf__err = code;
    return code;
}

int lines_per_chunk(exrlib::Compression c) {
    switch (c) {
    case exrlib::ZIP_COMPRESSION:
    case exrlib::PXR24_COMPRESSION: return 16;
    case exrlib::PIZ_COMPRESSION:
    case exrlib::B44_COMPRESSION:
    case exrlib::B44A_COMPRESSION:
    case exrlib::DWAA_COMPRESSION: return 32;
    case exrlib::DWAB_COMPRESSION: return 256;
    default: return 1;
    }
}

bool usable_text(const char *s) { return s && s[0] && strcmp(s, "unknown") != 0; }

void take_text(char *&field, const std::string &text) {
    char *copy = strdup(text.c_str());
    if (!copy) return;
    free(field);
    field = copy;
}

// Points every slice of `fb` at the block so that EXR rows first..first +
// block_lines - 1 land in it.
exrlib::FrameBuffer frame_buffer(Part &p, int first) {
    exrlib::FrameBuffer fb;
    const ptrdiff_t row = ptrdiff_t(p.width) * 4;
    for (size_t c = 0; c < p.channels.size(); ++c) {
        char *plane = p.block.data() + c * p.plane_bytes();
        // The library addresses pixel (x, y) at base + x * 4 + y * row: the
        // base lies outside the block, as its interface requires.
        ptrdiff_t step = p.channels[c].slice_type == exrlib::HALF ? 2 : 4;
        char *base = reinterpret_cast<char *>(reinterpret_cast<uintptr_t>(plane) -
                                              uintptr_t(ptrdiff_t(p.data.min.x) * step + ptrdiff_t(first) * row));
        exrlib::PixelType type = p.channels[c].slice_type;
        fb.insert(p.channels[c].name, exrlib::Slice(type, base, type == exrlib::HALF ? 2 : 4, size_t(row)));
    }
    return fb;
}

// ---- Reading ----
//
// Reading goes through the library's C core, whose header and chunk parsers
// check every size against the file: damaged files fail cleanly instead of
// asking for gigabytes.

thread_local std::string core_complaint;

void complain(exr_const_context_t, exr_result_t, const char *message) {
    if (core_complaint.empty() && message) core_complaint = message;
}

std::string core_failure(exr_result_t result) {
    return core_complaint.empty() ? std::string(exr_get_default_error_message(result)) : core_complaint;
}

// Decodes the chunk described by `chunk` into the block, whose first row is EXR row `first`.
exr_result_t decode_chunk(Part &p, const exr_chunk_info_t &chunk, int first) {
    exr_context_t core = p.file->core;
    exr_result_t rc = p.decoder_ready ? exr_decoding_update(core, p.number, &chunk, &p.decoder)
                                      : exr_decoding_initialize(core, p.number, &chunk, &p.decoder);
    if (rc != EXR_ERR_SUCCESS) return rc;
    p.decoder_ready = true;
    if (p.decoder.channel_count != int(p.channels.size())) return EXR_ERR_CORRUPT_CHUNK;
    const size_t row = size_t(p.width) * 4;
    long long x0 = (long long)chunk.start_x - p.data.min.x, y0 = (long long)chunk.start_y - first;
    if (x0 < 0 || y0 < 0 || x0 + chunk.width > p.width || y0 + chunk.height > p.block_lines) return EXR_ERR_CORRUPT_CHUNK;
    for (int c = 0; c < p.decoder.channel_count; ++c) {
        exr_coding_channel_info_t &ch = p.decoder.channels[c];
        ch.decode_to_ptr = reinterpret_cast<uint8_t *>(p.block.data() + size_t(c) * p.plane_bytes() +
                                                       size_t(y0) * row + size_t(x0) * 4);
        ch.user_pixel_stride = 4;
        ch.user_line_stride = int32_t(row);
        ch.user_bytes_per_element = 4;
        ch.user_data_type = p.channels[size_t(c)].slice_type == exrlib::UINT ? EXR_PIXEL_UINT : EXR_PIXEL_FLOAT;
    }
    rc = exr_decoding_choose_default_routines(core, p.number, &p.decoder);
    if (rc == EXR_ERR_SUCCESS) rc = exr_decoding_run(core, p.number, &p.decoder);
    return rc;
}

// Decodes the chunk (or row of tiles) holding EXR row `row` into the block.
bool load_block(Part &p, int row) {
    int first = p.data.min.y + (row - p.data.min.y) / p.block_lines * p.block_lines;
    int last = std::min(first + p.block_lines - 1, p.data.max.y);
    exr_chunk_info_t chunk;
    exr_result_t rc = EXR_ERR_SUCCESS;
    core_complaint.clear();
    p.block_first = 0, p.block_last = -1;
    if (p.input) {
        try {
            p.input->setFrameBuffer(frame_buffer(p, first));
            p.input->readPixels(first, last);
        } catch (const std::exception &e) {
            report(p.file->path, e.what());
            return false;
        }
    } else if (p.tiled) {
        int ty = (first - p.data.min.y) / p.block_lines;
        for (int tx = 0; tx < p.tiles_across && rc == EXR_ERR_SUCCESS; ++tx) {
            rc = exr_read_tile_chunk_info(p.file->core, p.number, tx, ty, 0, 0, &chunk);
            if (rc == EXR_ERR_SUCCESS) {
                // Library versions differ on whether tile positions are in
                // pixels or in tiles: the tile's place is known anyway.
                chunk.start_x = p.data.min.x + tx * p.tile_width;
                chunk.start_y = first;
                rc = decode_chunk(p, chunk, first);
            }
        }
    } else {
        rc = exr_read_scanline_chunk_info(p.file->core, p.number, first, &chunk);
        if (rc == EXR_ERR_SUCCESS) rc = decode_chunk(p, chunk, first);
    }
    if (rc != EXR_ERR_SUCCESS) {
        report(p.file->path, core_failure(rc));
        return false;
    }
    p.block_first = first, p.block_last = last;
    return true;
}

int read_scan(void *data, int line, void ***rows, void **) {
    Part &p = *static_cast<Part *>(data);
    long long y = p.mirror - line;
    if (y < p.data.min.y || y > p.data.max.y) return scan_error(PXF_E_BAD_SCANLINE);
    int row = int(y);
    if ((row < p.block_first || row > p.block_last) && !load_block(p, row)) return scan_error(PXF_E_BAD_SCANLINE);
    size_t offset = size_t(row - p.block_first) * size_t(p.width) * 4;
    for (size_t c = 0; c < p.channels.size(); ++c)
        p.rows[p.channels[c].index] = p.block.data() + c * p.plane_bytes() + offset;
    *rows = p.rows.data();
    return 0;
}

void set_group(PXF_CHAN_GROUP &g, const std::string &format, int count, int type, int width) {
    g.format = count && !format.empty() ? strdup(format.c_str()) : nullptr;
    g.count = count;
    g.type = type;
    g.width = width;
}

// The group's element type and width from its channels' pixel types.
void describe_group(const std::vector<Channel> &channels, Group group, const std::string &format,
                    PXF_CHAN_GROUP &g) {
    int count = 0, halves = 0, uints = 0;
    for (const Channel &c : channels) {
        if (c.group != group) continue;
        ++count;
        halves += c.file_type == exrlib::HALF;
        uints += c.file_type == exrlib::UINT;
    }
    if (count && uints == count) set_group(g, format, count, PXF_C_INTEGER, 32);
    else set_group(g, format, count, PXF_C_FLOAT, count && halves == count ? 16 : 32);
}

// Sorts the part's channels (in the file's order) into groups; false with
// `why` when they cannot be read.
bool classify(Part &p, const exr_attr_chlist_t &list, std::string &why, std::string &aux_names) {
    auto has = [&](const char *name) {
        for (int i = 0; i < list.num_channels; ++i)
            if (!strcmp(list.entries[i].name.str, name)) return true;
        return false;
    };
    bool has_rgb = has("R") && has("G") && has("B");
    int counts[3] = {0, 0, 0};
    if (list.num_channels > kMaxChannels) {
        why = "too many channels";
        return false;
    }
    for (int i = 0; i < list.num_channels; ++i) {
        const exr_attr_chlist_entry_t &ch = list.entries[i];
        std::string name(ch.name.str, size_t(ch.name.length));
        if (ch.x_sampling != 1 || ch.y_sampling != 1) {
            why = "channel " + name + " is subsampled (not supported)";
            return false;
        }
        exrlib::PixelType type = ch.pixel_type == EXR_PIXEL_HALF    ? exrlib::HALF
                              : ch.pixel_type == EXR_PIXEL_FLOAT ? exrlib::FLOAT
                                                                 : exrlib::UINT;
        Group g = kAux;
        if (has_rgb ? (name == "R" || name == "G" || name == "B") : name == "Y") g = kColour;
        else if (name == "A") g = kMatte;
        p.channels.push_back({name, g, 0, type, exrlib::FLOAT});
        ++counts[g];
    }
    // Rows in group order; colour as R, G, B.
    int next_aux = counts[kColour] + counts[kMatte];
    for (Channel &c : p.channels) {
        if (c.group == kColour) c.index = has_rgb ? (c.name == "R" ? 0 : c.name == "G" ? 1 : 2) : 0;
        else if (c.group == kMatte) c.index = counts[kColour];
        else {
            c.index = next_aux++;
            aux_names += (aux_names.empty() ? "" : ",") + c.name;
        }
    }
    return true;
}

void take_attribute(exr_context_t core, const char *name, char *&field) {
    int32_t length = 0;
    const char *text = nullptr;
    if (exr_attr_get_string(core, 0, name, &length, &text) == EXR_ERR_SUCCESS && text && length > 0)
        take_text(field, std::string(text, size_t(length)));
}

// The C++ reader (DWA parts) reads each header attribute by its type and
// allocates what the attribute claims before reading it.  Its headers are
// walked here first, attribute by attribute as that reader will, and every
// claim must fit the attribute and the file.
bool fits_cpp_reader(const std::string &path, std::string &why) {
    std::unique_ptr<FILE, int (*)(FILE *)> file(fopen(path.c_str(), "rb"), fclose);
    FILE *f = file.get();
    struct stat st;
    unsigned char head[8];
    if (!f || fstat(fileno(f), &st) != 0 || fread(head, 1, 8, f) != 8) {
        why = f ? "damaged header" : strerror(errno);
        return false;
    }
    const long long file_size = (long long)st.st_size;
    why = "damaged header";
    auto text = [&](std::string &out) {
        int c;
        out.clear();
        while ((c = fgetc(f)) > 0 && out.size() < 255) out += char(c);
        return c == 0;
    };
    auto le32 = [](const unsigned char *b) {
        return uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
    };
    static const struct {
        const char *type;
        int size;
    } fixed[] = {{"box2i", 16}, {"box2f", 16}, {"compression", 1}, {"lineOrder", 1}, {"envmap", 1},
                 {"deepImageState", 1}, {"float", 4}, {"double", 8}, {"int", 4}, {"v2i", 8}, {"v2f", 8},
                 {"v2d", 16}, {"v3i", 12}, {"v3f", 12}, {"v3d", 24}, {"m33f", 36}, {"m33d", 72}, {"m44f", 64},
                 {"m44d", 128}, {"chromaticities", 32}, {"rational", 8}, {"keycode", 28}, {"timecode", 8},
                 {"tiledesc", 9}};
    const bool multi = (head[5] & 0x10) != 0;
    for (int header = 0; header <= kMaxChannels; ++header) {
        int attributes = 0;
        for (;;) {
            std::string name, type;
            unsigned char b[8];
            if (!text(name)) return false;
            if (name.empty()) break;
            if (!text(type) || fread(b, 1, 4, f) != 4) return false;
            long long size = (long long)(int32_t)le32(b), at = (long long)ftell(f);
            if (size < 0 || size > file_size - at) {
                why = "attribute \"" + name + "\" claims more bytes than the file holds";
                return false;
            }
            for (const auto &k : fixed)
                if (type == k.type && size != k.size) return false;
            if (type == "preview") {
                if (size < 8 || fread(b, 1, 8, f) != 8 || 8 + 4ll * le32(b) * le32(b + 4) != size) return false;
            } else if (type == "chlist") {
                // Entries up to a terminating empty name, exactly filling the attribute.
                std::vector<unsigned char> list(static_cast<size_t>(size));
                if (size && fread(list.data(), 1, list.size(), f) != list.size()) return false;
                size_t i = 0;
                for (;;) {
                    size_t start = i;
                    while (i < list.size() && list[i]) ++i;
                    if (i >= list.size()) return false;
                    if (i++ == start) break;
                    i += 16;
                }
                if (i != list.size()) return false;
            }
            if (fseek(f, long(at + size), SEEK_SET) != 0) return false;
            ++attributes;
        }
        if (!multi || attributes == 0) return true;
    }
    return false;
}

bool read_part(File &f, int number, PXF_INFO &info, PXF_IMAGE_DESC &d, std::string &why) {
    auto part = std::make_unique<Part>();
    Part &p = *part;
    p.file = &f;
    p.number = number;
    exr_context_t core = f.core;
    exr_storage_t storage = EXR_STORAGE_LAST_TYPE;
    exr_attr_box2i_t data{}, display{};
    exr_compression_t compression = EXR_COMPRESSION_NONE;
    const exr_attr_chlist_t *list = nullptr;
    float pixel_aspect = 1.0f;
    exr_result_t rc = exr_get_storage(core, number, &storage);
    if (rc == EXR_ERR_SUCCESS) rc = exr_get_data_window(core, number, &data);
    if (rc == EXR_ERR_SUCCESS) rc = exr_get_display_window(core, number, &display);
    if (rc == EXR_ERR_SUCCESS) rc = exr_get_compression(core, number, &compression);
    if (rc == EXR_ERR_SUCCESS) rc = exr_get_channels(core, number, &list);
    if (rc != EXR_ERR_SUCCESS || !list) {
        why = core_failure(rc);
        return false;
    }
    if (exr_get_pixel_aspect_ratio(core, number, &pixel_aspect) != EXR_ERR_SUCCESS) pixel_aspect = 1.0f;
    if (storage != EXR_STORAGE_SCANLINE && storage != EXR_STORAGE_TILED) {
        why = "deep data is not supported";
        return false;
    }
    p.data = Imath::Box2i(Imath::V2i(data.min.x, data.min.y), Imath::V2i(data.max.x, data.max.y));
    p.display = Imath::Box2i(Imath::V2i(display.min.x, display.min.y), Imath::V2i(display.max.x, display.max.y));
    long long w = (long long)p.data.max.x - p.data.min.x + 1, hgt = (long long)p.data.max.y - p.data.min.y + 1;
    if (w < 1 || hgt < 1 || w > kMaxSide || hgt > kMaxSide || p.display.max.x < p.display.min.x ||
        p.display.max.y < p.display.min.y) {
        why = "bad data or display window";
        return false;
    }
    p.width = int(w), p.height = int(hgt);
    p.mirror = (long long)p.display.min.y + p.display.max.y;
    long long corners[2] = {p.mirror - p.data.min.y, p.mirror - p.data.max.y};
    for (long long v : corners)
        if (v < INT32_MIN || v > INT32_MAX) {
            why = "bad data or display window";
            return false;
        }
    p.tiled = storage == EXR_STORAGE_TILED;
    if (p.tiled) {
        uint32_t tw = 0, th = 0;
        exr_tile_level_mode_t level;
        exr_tile_round_mode_t round;
        if (exr_get_tile_descriptor(core, number, &tw, &th, &level, &round) != EXR_ERR_SUCCESS || tw < 1 || th < 1) {
            why = "bad tile description";
            return false;
        }
        p.block_lines = int(std::min<uint32_t>(th, uint32_t(p.height)));
        p.tiles_across = int((uint64_t(p.width) + tw - 1) / tw);
        p.tile_width = int(std::min<uint32_t>(tw, uint32_t(p.width)));
    } else {
        int32_t lines = 1;
        if (exr_get_scanlines_per_chunk(core, number, &lines) != EXR_ERR_SUCCESS || lines < 1) lines = 1;
        p.block_lines = std::min(int(lines), p.height);
    }
    std::string aux_names;
    if (!classify(p, *list, why, aux_names)) return false;
    if (p.channels.empty()) {
        why = "the image has no channels";
        return false;
    }
    for (Channel &c : p.channels)
        if (c.file_type == exrlib::UINT) {
            // A group of unsigned ints stays integer; one mixed with floats reads as float.
            int uints = 0, count = 0;
            for (const Channel &o : p.channels)
                if (o.group == c.group) ++count, uints += o.file_type == exrlib::UINT;
            c.slice_type = uints == count ? exrlib::UINT : exrlib::FLOAT;
        }
    if (double(p.plane_bytes()) * double(p.channels.size()) > double(kMaxBlockBytes)) {
        why = "the image is too large";
        return false;
    }
    if (compression == EXR_COMPRESSION_DWAA || compression == EXR_COMPRESSION_DWAB ||
        compression == EXR_COMPRESSION_PIZ) {
        // This version of the core cannot decode DWA data, and decodes PIZ
        // at half the speed: the library's C++ reader does these, on a file
        // whose headers both we and the core have checked.
        if (!f.dwa_input && !fits_cpp_reader(f.path, why)) return false;
        if (!f.dwa_input) f.dwa_input = std::make_unique<exrlib::MultiPartInputFile>(f.path.c_str());
        p.input = std::make_unique<exrlib::InputPart>(*f.dwa_input, number);
    }
    p.block.resize(p.plane_bytes() * p.channels.size());
    p.rows.resize(p.channels.size());

    d.image_kind = number == 0 ? 1 : 2;
    d.curve.kind = PXF_CURVE_GAMMA;
    d.curve.gamma = 1.0f; // scene-linear
    d.window = {p.data.min.x, p.data.max.x, int(p.mirror - p.data.max.y), int(p.mirror - p.data.min.y)};
    d.active_window = {p.display.min.x, p.display.max.x, p.display.min.y, p.display.max.y};
    d.x_res = int(std::min<long long>((long long)p.display.max.x - p.display.min.x + 1, INT32_MAX));
    d.y_res = int(std::min<long long>((long long)p.display.max.y - p.display.min.y + 1, INT32_MAX));
    d.aspect_ratio = float(double(d.x_res) / double(d.y_res) * double(pixel_aspect));
    if (!std::isfinite(d.aspect_ratio) || d.aspect_ratio <= 0.0f) d.aspect_ratio = 1.0f;
    d.step = 1;
    d.orientation = 0;
    int colours = 0;
    for (const Channel &c : p.channels) colours += c.group == kColour;
    describe_group(p.channels, kColour, colours == 3 ? "rgb" : "grey", d.chan);
    describe_group(p.channels, kMatte, "alpha", d.matte);
    if (d.matte.count > 0) d.matte.extra = PXF_MATTE_ASSOCIATED; // EXR colour is premultiplied
    describe_group(p.channels, kAux, aux_names, d.aux);
    set_group(d.index, "", 0, PXF_C_INTEGER, 16);

    if (number == 0) {
        // Rec. 709 primaries and D65 white unless the file says otherwise.
        exr_attr_chromaticities_t c{0.64f, 0.33f, 0.30f, 0.60f, 0.15f, 0.06f, 0.3127f, 0.3290f};
        exr_attr_get_chromaticities(core, 0, "chromaticities", &c);
        const float xy[4][2] = {{c.red_x, c.red_y}, {c.green_x, c.green_y}, {c.blue_x, c.blue_y}, {c.white_x, c.white_y}};
        float *to[4] = {info.red_pri, info.green_pri, info.blue_pri, info.white_pt};
        for (int i = 0; i < 4; ++i) to[i][0] = xy[i][0], to[i][1] = xy[i][1], to[i][2] = 1.0f - xy[i][0] - xy[i][1];
        take_attribute(core, "comments", info.desc);
        take_attribute(core, "owner", info.user);
        take_attribute(core, "capDate", info.date);
        take_attribute(core, "software", info.program);
        take_attribute(core, "hostComputer", info.machine);
        take_attribute(core, "name", info.name);
        static const char *const names[] = {"none", "RLE", "ZIPS", "ZIP", "PIZ", "PXR24", "B44", "B44A", "DWAA", "DWAB"};
        std::string method = compression < EXR_COMPRESSION_LAST_TYPE ? names[compression] : "unknown";
        take_text(info.compression, method + (p.tiled ? ", tiled" : ""));
    }
    f.parts.push_back(std::move(part));
    return true;
}

int exr_close(PXF_IMAGE *image);

// Frees the driver's records; the temporary file of an unfinished write goes too.
void release(File *f) {
    if (!f) return;
    for (auto &part : f->parts)
        if (part->decoder_ready) exr_decoding_destroy(f->core, &part->decoder);
    f->parts.clear();
    f->dwa_input.reset();
    if (f->core) exr_finish(&f->core);
    f->output.reset();
    UTL_output_abandon(f->staged); // never committed: the temporary file goes
    delete f;
}

int open_failed(File *f, PXF_IMAGE *image, const std::string &why) {
    report(f->path, why);
    release(f);
    if (image->private_data) image->private_data[0] = nullptr; // the library frees the table
    return 0;
}

// ---- Writing ----

// Default channel names of a group, or the caller's names from the group's
// format when it names every channel.
std::vector<std::string> names_for(const PXF_CHAN_GROUP &g, Group group) {
    std::vector<std::string> names;
    if (g.format && g.count > 1) {
        std::string list = g.format;
        size_t start = 0;
        for (;;) {
            size_t comma = list.find(',', start);
            names.push_back(list.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
            if (comma == std::string::npos) break;
            start = comma + 1;
        }
        bool ok = int(names.size()) == g.count;
        for (const std::string &n : names) ok = ok && !n.empty();
        if (ok) return names;
    }
    names.clear();
    if (group == kColour) {
        if (g.count == 3) return {"R", "G", "B"};
        if (g.count == 1) return {"Y"};
    }
    if (group == kAux && g.count == 1 && g.format && usable_text(g.format) && strcmp(g.format, "depth") &&
        strcmp(g.format, "extra") && !strchr(g.format, ','))
        return {g.format};
    const char *stem = group == kColour ? "C" : group == kMatte ? "A" : "Z";
    for (int i = 0; i < g.count; ++i) names.push_back(i == 0 ? stem : stem + std::to_string(i));
    return names;
}

bool parse_compression(const char *text, exrlib::Compression &c) {
    static const struct {
        const char *name;
        exrlib::Compression value;
    } table[] = {{"none", exrlib::NO_COMPRESSION},     {"rle", exrlib::RLE_COMPRESSION},
                 {"zips", exrlib::ZIPS_COMPRESSION},   {"zip", exrlib::ZIP_COMPRESSION},
                 {"piz", exrlib::PIZ_COMPRESSION},     {"pxr24", exrlib::PXR24_COMPRESSION},
                 {"b44", exrlib::B44_COMPRESSION},     {"b44a", exrlib::B44A_COMPRESSION},
                 {"dwaa", exrlib::DWAA_COMPRESSION},   {"dwab", exrlib::DWAB_COMPRESSION}};
    c = exrlib::ZIP_COMPRESSION; // what the library leaves when the caller chose nothing
    if (!usable_text(text)) return true;
    for (const auto &e : table)
        if (!strcasecmp(text, e.name)) {
            c = e.value;
            return true;
        }
    return false;
}

exrlib::PixelType file_type_of(const PXF_CHAN_GROUP &g) {
    if (g.type == PXF_C_FLOAT && g.width == 16) return exrlib::HALF;
    if (g.type == PXF_C_INTEGER && g.width == 32) return exrlib::UINT;
    if (g.type == PXF_C_INTEGER) return exrlib::HALF;
    return exrlib::FLOAT;
}

// "{seconds}", the library's own date, as EXR's "YYYY:MM:DD HH:MM:SS".
std::string cap_date(const char *date) {
    if (!usable_text(date)) return "";
    if (strlen(date) == 19 && date[4] == ':' && date[10] == ' ') return date;
    if (date[0] != '{') return "";
    time_t seconds = time_t(strtoll(date + 1, nullptr, 10));
    struct tm when;
    char stamp[32];
    if (!localtime_r(&seconds, &when) || strftime(stamp, sizeof stamp, "%Y:%m:%d %H:%M:%S", &when) != 19) return "";
    return stamp;
}

int tile_size(const PXF_INFO &info) {
    if (!info.specific) return 0;
    for (PXF_CAP_SETTING **s = info.specific; *s; ++s)
        if ((*s)->code == 0) return (*s)->value.integer;
    return 0;
}

bool check_group(const PXF_CHAN_GROUP &g, const char *what, std::string &why) {
    if (g.count < 0 || g.count > kMaxChannels) {
        why = std::string("bad number of ") + what + " channels";
        return false;
    }
    if (g.count && g.type != PXF_C_FLOAT && g.type != PXF_C_DOUBLE &&
        (g.type != PXF_C_INTEGER || g.width < 1 || g.width > 32)) {
        why = std::string("EXR cannot store these ") + what + " channels (float, double or 1 to 32-bit integer)";
        return false;
    }
    return true;
}

bool plan_part(File &f, int number, const PXF_INFO &info, const PXF_IMAGE_DESC &d, exrlib::Header &h,
               std::string &why) {
    auto part = std::make_unique<Part>();
    Part &p = *part;
    p.file = &f;
    p.number = number;
    if (!check_group(d.chan, "colour", why) || !check_group(d.matte, "matte", why) ||
        !check_group(d.aux, "auxiliary", why))
        return false;
    if (d.chan.count + d.matte.count + d.aux.count < 1) {
        why = "the image has no channels";
        return false;
    }
    const PXF_BOUNDS &w = d.window;
    PXF_BOUNDS a = d.active_window;
    if (a.right < a.left || a.top < a.bottom) a = w; // no active window given
    long long width = (long long)w.right - w.left + 1, height = (long long)w.top - w.bottom + 1;
    if (width < 1 || height < 1 || width > kMaxSide || height > kMaxSide) {
        why = "bad image window";
        return false;
    }
    p.width = int(width), p.height = int(height);
    p.mirror = (long long)a.bottom + a.top;
    long long ymin = p.mirror - w.top, ymax = p.mirror - w.bottom;
    if (ymin < INT32_MIN || ymax > INT32_MAX) {
        why = "bad image window";
        return false;
    }
    p.data = Imath::Box2i(Imath::V2i(w.left, int(ymin)), Imath::V2i(w.right, int(ymax)));
    p.display = Imath::Box2i(Imath::V2i(a.left, a.bottom), Imath::V2i(a.right, a.top));
    p.groups[kColour] = d.chan, p.groups[kMatte] = d.matte, p.groups[kAux] = d.aux;
    p.gamma = d.curve.kind == PXF_CURVE_GAMMA && d.curve.gamma > 0.0f ? d.curve.gamma : 1.0;
    p.premultiply = d.matte.extra == PXF_MATTE_UNASSOCIATED && d.chan.count > 0 && d.matte.count > 0;

    exrlib::Compression compression;
    if (!parse_compression(info.compression, compression)) {
        why = std::string("unknown EXR compression \"") + info.compression +
              "\" (none, rle, zips, zip, piz, pxr24, b44, b44a, dwaa, dwab)";
        return false;
    }
    h = exrlib::Header(p.display, p.data, 1.0f, Imath::V2f(0, 0), 1.0f, exrlib::INCREASING_Y, compression);
    if (d.aspect_ratio > 0.0f && d.x_res > 0 && d.y_res > 0) {
        float pixel = float(double(d.aspect_ratio) * d.y_res / d.x_res);
        if (std::isfinite(pixel) && pixel > 1e-6f && std::fabs(pixel - 1.0f) > 0.005f) h.pixelAspectRatio() = pixel;
    }
    const PXF_CHAN_GROUP *groups[3] = {&d.chan, &d.matte, &d.aux};
    int index = 0;
    for (int g = 0; g < 3; ++g) {
        std::vector<std::string> names = names_for(*groups[g], Group(g));
        for (const std::string &name : names) {
            if (h.channels().findChannel(name)) {
                why = "channel name \"" + name + "\" given twice";
                return false;
            }
            exrlib::PixelType type = file_type_of(*groups[g]);
            h.channels().insert(name, exrlib::Channel(type));
            // The library writes a channel only from a slice of its own type.
            p.channels.push_back({name, Group(g), index++, type, type});
        }
    }
    int tile = tile_size(info);
    if (tile < 0 || tile > 4096) {
        why = "tile size must be 1 to 4096";
        return false;
    }
    p.tiled = tile > 0;
    if (p.tiled) h.setTileDescription(exrlib::TileDescription(unsigned(tile), unsigned(tile), exrlib::ONE_LEVEL));
    p.block_lines = p.tiled ? std::min(tile, p.height) : lines_per_chunk(compression);
    if (double(p.plane_bytes()) * double(p.channels.size()) > double(kMaxBlockBytes)) {
        why = "the image is too large";
        return false;
    }
    p.block.assign(p.plane_bytes() * p.channels.size(), 0);
    p.next_row = p.data.min.y;
    // Parts of one file must agree on these.
    exrlib::Chromaticities chroma(Imath::V2f(info.red_pri[0], info.red_pri[1]),
                               Imath::V2f(info.green_pri[0], info.green_pri[1]),
                               Imath::V2f(info.blue_pri[0], info.blue_pri[1]),
                               Imath::V2f(info.white_pt[0], info.white_pt[1]));
    if (info.white_pt[1] > 0.0f && info.red_pri[1] > 0.0f) exrlib::addChromaticities(h, chroma);
    if (number == 0) {
        if (usable_text(info.desc)) exrlib::addComments(h, info.desc);
        if (usable_text(info.user)) exrlib::addOwner(h, info.user);
        std::string date = cap_date(info.date);
        if (!date.empty()) exrlib::addCapDate(h, date);
        if (usable_text(info.program)) h.insert("software", exrlib::StringAttribute(info.program));
        if (usable_text(info.machine)) h.insert("hostComputer", exrlib::StringAttribute(info.machine));
    }
    h.setType(p.tiled ? exrlib::TILEDIMAGE : exrlib::SCANLINEIMAGE);
    if (info.num_images > 1)
        h.setName(number == 0 && usable_text(info.name) ? std::string(info.name) : "image" + std::to_string(number + 1));
    f.parts.push_back(std::move(part));
    return true;
}

double top_of(int width) { return width >= 32 ? 4294967295.0 : double((1ull << width) - 1); }

// One caller row into the channel's row of the block, in the file's type.
void put_row(const Part &p, const Channel &c, const void *src, char *dst) {
    const PXF_CHAN_GROUP &g = p.groups[c.group];
    if (c.slice_type == exrlib::UINT || (c.slice_type == exrlib::FLOAT && g.type == PXF_C_FLOAT)) {
        memcpy(dst, src, size_t(p.width) * 4);
        return;
    }
    auto put = [&](int x, float v) {
        if (c.slice_type == exrlib::HALF) reinterpret_cast<Imath::half *>(dst)[x] = Imath::half(v);
        else reinterpret_cast<float *>(dst)[x] = v;
    };
    if (g.type == PXF_C_FLOAT) {
        const float *in = static_cast<const float *>(src);
        Imath::half *out = reinterpret_cast<Imath::half *>(dst); // the only other case: halves
        for (int x = 0; x < p.width; ++x) out[x] = Imath::half(in[x]);
        return;
    }
    if (g.type == PXF_C_DOUBLE) {
        for (int x = 0; x < p.width; ++x) put(x, float(static_cast<const double *>(src)[x]));
        return;
    }
    // Integer fractions to linear light.
    double scale = 1.0 / top_of(g.width), gamma = c.group == kColour ? p.gamma : 1.0;
    for (int x = 0; x < p.width; ++x) {
        double v = g.width <= 8    ? static_cast<const uint8_t *>(src)[x]
                   : g.width <= 16 ? static_cast<const uint16_t *>(src)[x]
                                   : static_cast<const uint32_t *>(src)[x];
        v *= scale;
        put(x, float(gamma != 1.0 && v > 0.0 ? std::pow(v, gamma) : v));
    }
}

// EXR colour is premultiplied: unassociated colour is multiplied by the
// first matte channel once it is in the block (auxiliary channels never are).
void premultiply(Part &p, size_t offset) {
    auto at = [&](const Channel &c, const char *plane, int x) {
        return c.slice_type == exrlib::HALF ? float(reinterpret_cast<const Imath::half *>(plane)[x])
                                            : reinterpret_cast<const float *>(plane)[x];
    };
    size_t m = 0;
    while (m < p.channels.size() && p.channels[m].index != p.groups[kColour].count) ++m;
    if (m == p.channels.size() || p.channels[m].slice_type == exrlib::UINT) return;
    const char *matte = p.block.data() + m * p.plane_bytes() + offset;
    for (size_t c = 0; c < p.channels.size(); ++c) {
        const Channel &ch = p.channels[c];
        if (ch.group != kColour || ch.slice_type == exrlib::UINT) continue;
        char *plane = p.block.data() + c * p.plane_bytes() + offset;
        for (int x = 0; x < p.width; ++x) {
            float v = at(ch, plane, x) * at(p.channels[m], matte, x);
            if (ch.slice_type == exrlib::HALF) reinterpret_cast<Imath::half *>(plane)[x] = Imath::half(v);
            else reinterpret_cast<float *>(plane)[x] = v;
        }
    }
}

// Hands the block's rows to the library once it holds a whole chunk or tile row.
void flush_block(Part &p) {
    int first = p.data.min.y + (p.next_row - 1 - p.data.min.y) / p.block_lines * p.block_lines;
    if (p.tiled) {
        p.tiled_output->setFrameBuffer(frame_buffer(p, first));
        int ty = (first - p.data.min.y) / p.block_lines;
        p.tiled_output->writeTiles(0, p.tiled_output->numXTiles(0) - 1, ty, ty);
    } else {
        p.output->setFrameBuffer(frame_buffer(p, first));
        p.output->writePixels(p.next_row - first);
    }
}

bool block_full(const Part &p) {
    return p.next_row > p.data.max.y || (p.next_row - p.data.min.y) % p.block_lines == 0;
}

int write_scan(void *data, int line, void ***rows, void **) {
    Part &p = *static_cast<Part *>(data);
    if (p.mirror - line != p.next_row || p.next_row > p.data.max.y) return scan_error(PXF_E_BAD_SCANLINE);
    size_t offset = size_t((p.next_row - p.data.min.y) % p.block_lines) * size_t(p.width) * 4;
    for (size_t c = 0; c < p.channels.size(); ++c)
        put_row(p, p.channels[c], (*rows)[p.channels[c].index], p.block.data() + c * p.plane_bytes() + offset);
    if (p.premultiply) premultiply(p, offset);
    ++p.next_row;
    if (!block_full(p)) return 0;
    try {
        flush_block(p);
    } catch (const std::exception &e) {
        report(p.file->path, e.what());
        return scan_error(PXF_E_FLUSH);
    }
    return 0;
}

void **attach(PXF_IMAGE *image, File *f, int count) {
    void **table = static_cast<void **>(calloc(size_t(count), sizeof(void *)));
    if (!table) return nullptr;
    table[0] = f->parts.empty() ? nullptr : f->parts[0].get();
    for (int i = 0; i < count && i < int(f->parts.size()); ++i) table[i] = f->parts[size_t(i)].get();
    image->private_data = table;
    image->close = exr_close;
    return table;
}

int exr_close(PXF_IMAGE *image) {
    Part *first = image->private_data ? static_cast<Part *>(image->private_data[0]) : nullptr;
    File *f = first ? first->file : nullptr;
    int status = 0;
    if (f && f->writing) {
        try {
            for (auto &part : f->parts) {
                Part &p = *part;
                if (p.next_row <= p.data.max.y) {
                    // Stopped early: finish with zero rows so that the file stays whole.
                    ERR_printf(ERR_WARNING, "%s: %d scanlines not written, filled with zero", f->path.c_str(),
                               p.data.max.y - p.next_row + 1);
                    while (p.next_row <= p.data.max.y) {
                        size_t offset = size_t((p.next_row - p.data.min.y) % p.block_lines) * size_t(p.width) * 4;
                        for (size_t c = 0; c < p.channels.size(); ++c)
                            memset(p.block.data() + c * p.plane_bytes() + offset, 0, size_t(p.width) * 4);
                        ++p.next_row;
                        if (block_full(p)) flush_block(p);
                    }
                }
            }
            for (auto &part : f->parts) part->output.reset(), part->tiled_output.reset();
            f->output.reset(); // writes the offset tables and closes the file
            UTL_OUTPUT *staged = f->staged; // commit closes and frees it, even when failing
            f->staged = nullptr;
            errno = 0;
            if (UTL_output_commit(staged) != 0) throw std::runtime_error(strerror(errno ? errno : EIO));
        } catch (const std::exception &e) {
            report(f->path, e.what());
            status = -1;
        }
    }
    release(f);
    if (image->private_data) image->private_data[0] = nullptr;
    pxf__free_obj(image);
    if (status) pxf__err = PXF_E_FLUSH;
    return status;
}

} // namespace

int imageIsFile(const char *path, void *stream) {
    unsigned char head[4];
    FILE *f = stream ? static_cast<FILE *>(stream) : fopen(path, "rb");
    if (!f) return 0;
    if (stream) rewind(f);
    int yes = fread(head, 1, 4, f) == 4 && head[0] == 0x76 && head[1] == 0x2f && head[2] == 0x31 && head[3] == 0x01;
    if (!stream) fclose(f);
    return yes;
}

int imageReadOpen(PXF_IMAGE *image) {
    const char *path = image->info.handle;
    if (!path) return report("exr", "no file name");
    File *f = new (std::nothrow) File;
    if (!f) return report(path, "out of memory");
    f->path = path;
    try {
        FILE *probe = fopen(path, "rb");
        if (!probe) return open_failed(f, image, strerror(errno));
        fclose(probe);
        if (!imageIsFile(path, nullptr)) return open_failed(f, image, "not an OpenEXR file");
        exr_context_initializer_t init = EXR_DEFAULT_CONTEXT_INITIALIZER;
        init.error_handler_fn = complain;
        init.max_image_width = init.max_image_height = kMaxSide;
        init.max_tile_width = init.max_tile_height = kMaxSide;
        core_complaint.clear();
        exr_result_t rc = exr_start_read(&f->core, path, &init);
        int parts = 0;
        if (rc == EXR_ERR_SUCCESS) rc = exr_get_count(f->core, &parts);
        if (rc != EXR_ERR_SUCCESS) return open_failed(f, image, core_failure(rc));
        if (parts < 1) return open_failed(f, image, "the file holds no image");
        auto *descs = static_cast<PXF_IMAGE_DESC *>(calloc(size_t(parts), sizeof(PXF_IMAGE_DESC)));
        if (!descs) return open_failed(f, image, "out of memory");
        image->info.images = descs;
        image->info.num_images = parts;
        std::string why;
        for (int i = 0; i < parts; ++i)
            if (!read_part(*f, i, image->info, descs[i], why)) {
                if (parts > 1) why = "part " + std::to_string(i) + ": " + why;
                return open_failed(f, image, why);
            }
        if (!attach(image, f, parts)) return open_failed(f, image, "out of memory");
    } catch (const std::exception &e) {
        return open_failed(f, image, e.what());
    }
    image->scan = read_scan;
    return 1;
}

int imageWriteOpen(PXF_IMAGE *image) {
    const char *path = image->info.handle;
    if (!path) return report("exr", "no file name");
    if (image->info.num_images < 1 || !image->info.images) return report(path, "no image description");
    File *f = new (std::nothrow) File;
    if (!f) return report(path, "out of memory");
    f->path = path;
    f->writing = true;
    try {
        int count = image->info.num_images;
        std::vector<exrlib::Header> headers(static_cast<size_t>(count));
        std::string why;
        for (int i = 0; i < count; ++i)
            if (!plan_part(*f, i, image->info, image->info.images[i], headers[size_t(i)], why)) {
                pxf__err = PXF_E_CANNOT_DO;
                if (count > 1) why = "image " + std::to_string(i) + ": " + why;
                return open_failed(f, image, why);
            }
        errno = 0;
        f->staged = UTL_output_open(f->path.c_str());
        if (!f->staged) return open_failed(f, image, strerror(errno ? errno : EIO));
        // The image library writes the staged file by its name.
        f->output =
            std::make_unique<exrlib::MultiPartOutputFile>(UTL_output_name(f->staged), headers.data(), count);
        for (int i = 0; i < count; ++i) {
            Part &p = *f->parts[size_t(i)];
            if (p.tiled) p.tiled_output = std::make_unique<exrlib::TiledOutputPart>(*f->output, i);
            else p.output = std::make_unique<exrlib::OutputPart>(*f->output, i);
        }
        if (!attach(image, f, count)) return open_failed(f, image, "out of memory");
    } catch (const std::exception &e) {
        return open_failed(f, image, e.what());
    }
    image->scan = write_scan;
    return 1;
}
