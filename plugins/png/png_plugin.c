/*
 * PNG image driver: 8 and 16-bit grey, grey + alpha, RGB and RGBA, read
 * and written through libpng.  Alpha travels as one matte channel, never
 * premultiplied in the file; gAMA, cHRM and the common text keys travel
 * with the description.  Writing takes a matching method, a level and a
 * row filter from the compression text ("deflate;level=9;filter=paeth").
 *
 * libpng reports fatal errors by longjmp back into the function that set
 * the jump buffer, so every libpng call is made from a function whose
 * frame holds nothing that needs cleaning up, and the state that must
 * survive the jump lives in the driver record.
 */
#include <errno.h>
#include <math.h>
#include <png.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <zlib.h> /* the strategies' names */
#include <time.h>

#include <pxf/err.h>
#include <pxf/plugin.h>
#include <pxf/utl.h>

#include "../compression_text.h"

const char *version = PXF_PLUGIN_PROTOCOL;
const char *imageKey = "png";
const char *imageExtension = ".png";
const char *imageName = "Portable Network Graphics";
const char *imageDescription = "8/16-bit grey, grey+alpha, RGB, RGBA; deflate (rle, deflate, huffman matching)";
int imageOrientation = 0; /* scanlines top down */
int imageAccess = PXF_ACCESS_READ | PXF_ACCESS_WRITE;
int imageNumberOfChannels = 3;
int imageBitsPerChannel = 16;
int imageNumberOfMattes = 1;
int imageBitsPerMatte = 16;
int imageNumberOfZChannels = 0;
int imageBitsPerZChannel = 0;

/* How the pixels are compressed: zlib's matching strategy and level, and
 * libpng's row filters. */
typedef struct {
    int strategy, level, filters;
} png_coding;

typedef struct {
    FILE *file;
    UTL_OUTPUT *output; /* when writing: renamed over the name only when complete */
    char *path;
    png_structp png;
    png_infop info;
    int writing;
    int failed;       /* a write failed: the file is abandoned at close */
    int width, height;
    int colours;      /* 1 or 3 */
    int alpha;        /* 0 or 1 */
    int bytes;        /* 1 or 2 per sample */
    int colour_bits;  /* caller's widths when writing, for rescaling */
    int matte_bits;
    int divide;       /* the caller's colour is premultiplied: PNG's is not */
    int next_row;     /* file row (0 = top) of the next scanline */
    png_bytep row;    /* one interleaved row */
    png_bytep pixels; /* the whole image, for interlaced files */
    size_t file_bytes; /* size of the file being read */
    int refused;       /* a size check ended the read: its message stands */
    png_coding coding; /* when writing */
    char message[200];
} png_file;

static void png_failed(png_structp png, png_const_charp text) {
    png_file *p = (png_file *)png_get_error_ptr(png);
    snprintf(p->message, sizeof p->message, "%s", text);
    png_longjmp(png, 1);
}

static void png_warned(png_structp png, png_const_charp text) {
    /* Benign chunk complaints are not worth a report, but libpng only warns
     * about a chunk longer than the chunk limit (limit_chunks) and then
     * allocates it all the same: that one ends the read. */
    if (strstr(text, "chunk data is too large")) {
        png_file *p = (png_file *)png_get_error_ptr(png);
        snprintf(p->message, sizeof p->message, "%.60s for this file (damaged chunk length?)", text);
        p->refused = 1;
        png_longjmp(png, 1);
    }
}

static int report(const png_file *p, const char *path, const char *what) {
    ERR_printf(ERR_ERROR, "%s: %s", path ? path : p->path, what);
    return 0;
}

/* A row that could not be written: the file cannot be completed. */
static int write_failed(png_file *p) {
    p->failed = 1;
    report(p, NULL, p->message[0] ? p->message : "write failed");
    pxf__err = PXF_E_FLUSH;
    return PXF_E_FLUSH;
}

static int scan_failed(png_file *p) {
    if (p->file && feof(p->file)) snprintf(p->message, sizeof p->message, "the file ends early (truncated?)");
    report(p, NULL, p->message[0] ? p->message : "damaged PNG data");
    pxf__err = PXF_E_BAD_SCANLINE;
    return PXF_E_BAD_SCANLINE;
}

int imageIsFile(const char *path, void *stream) {
    unsigned char head[8];
    FILE *f = stream ? (FILE *)stream : fopen(path, "rb");
    int yes;
    if (!f) return 0;
    if (stream) rewind(f);
    yes = fread(head, 1, 8, f) == 8 && png_sig_cmp(head, 0, 8) == 0;
    if (!stream) fclose(f);
    return yes;
}

static void release(png_file *p) {
    if (p->png) {
        if (p->writing)
            png_destroy_write_struct(&p->png, &p->info);
        else
            png_destroy_read_struct(&p->png, &p->info, NULL);
    }
    if (p->output)
        UTL_output_abandon(p->output); /* never committed: the temporary file goes */
    else if (p->file)
        fclose(p->file);
    p->output = NULL;
    free(p->row);
    free(p->pixels);
    free(p->path);
    p->png = NULL;
    p->file = NULL;
    p->row = p->pixels = NULL;
    p->path = NULL;
}

/* ---- Reading ---- */

static int read_rows_until(png_file *p, int row) {
    if (setjmp(png_jmpbuf(p->png))) return 0;
    while (p->next_row <= row) {
        png_read_row(p->png, p->row, NULL);
        ++p->next_row;
    }
    return 1;
}

static int png_read_scan(void *data, int line, void ***rows, void **table) {
    png_file *p = (png_file *)data;
    int row = p->height - 1 - line, x, c, n = p->colours + p->alpha;
    const png_byte *src;
    (void)table;
    if (row < 0 || row >= p->height || (!p->pixels && row < p->next_row - 1)) {
        pxf__err = PXF_E_BAD_SCANLINE;
        return PXF_E_BAD_SCANLINE;
    }
    if (p->pixels) {
        src = p->pixels + (size_t)row * p->width * n * p->bytes;
    } else {
        if (row >= p->next_row && !read_rows_until(p, row)) return scan_failed(p);
        src = p->row;
    }
    for (c = 0; c < n; ++c) {
        void *dst = (*rows)[c];
        if (p->bytes == 1)
            for (x = 0; x < p->width; ++x) ((uint8_t *)dst)[x] = src[x * n + c];
        else
            for (x = 0; x < p->width; ++x) ((uint16_t *)dst)[x] = ((const uint16_t *)src)[x * n + c];
    }
    return 0;
}

static void set_group(PXF_CHAN_GROUP *g, const char *format, int count, int width) {
    g->format = format ? strdup(format) : NULL;
    g->count = count;
    g->type = PXF_C_INTEGER;
    g->width = width;
}

static void take_text(char **field, const char *text) {
    char *copy = strdup(text);
    if (!copy) return;
    free(*field);
    *field = copy;
}

/* What a file of `file_bytes` bytes can justify allocating.  No stored
 * chunk is longer than the file that holds it; compressed text and profiles
 * may inflate, so small files keep 64 KiB for them, and nothing buffered
 * whole exceeds 64 MiB.  Pixels are streamed, but deflate inflates by at
 * most 1032:1, so an image larger than that many times its file cannot be
 * real and is refused before its rows are allocated. */
#define CHUNK_FLOOR ((size_t)64 << 10)
#define CHUNK_CEILING ((size_t)64 << 20)
#define DEFLATE_RATIO 1032

static void limit_chunks(png_file *p) {
    size_t most = !p->file_bytes ? CHUNK_CEILING : p->file_bytes < CHUNK_FLOOR ? CHUNK_FLOOR : p->file_bytes > CHUNK_CEILING ? CHUNK_CEILING : p->file_bytes;
    png_set_chunk_malloc_max(p->png, most);
    png_set_chunk_cache_max(p->png, 1000); /* ancillary chunks kept: texts and unknowns */
}

static void check_pixel_bytes(png_file *p, size_t row_bytes, png_uint_32 height) {
    double can_hold = (double)p->file_bytes * DEFLATE_RATIO + (double)CHUNK_FLOOR;
    if (p->file_bytes && (double)(row_bytes + 1) * (double)height > can_hold) {
        snprintf(p->message, sizeof p->message, "%lu x %lu pixels cannot come from a file of %lu bytes (damaged size?)",
                 (unsigned long)p->width, (unsigned long)height, (unsigned long)p->file_bytes);
        p->refused = 1;
        png_longjmp(p->png, 1);
    }
}

/* Everything libpng does while opening, apart from allocation. */
static int read_header(png_file *p, PXF_IMAGE *image) {
    png_uint_32 width, height;
    int depth, colour_type, interlace, i, passes, count;
    double file_gamma;
    png_textp texts;
    if (setjmp(png_jmpbuf(p->png))) return 0;
    png_init_io(p->png, p->file);
    limit_chunks(p);
    png_read_info(p->png, p->info);
    png_get_IHDR(p->png, p->info, &width, &height, &depth, &colour_type, &interlace, NULL, NULL);
    if (width > 0x7fffffffu / 8 || height > 0x7fffffffu) png_error(p->png, "image too large");
    png_set_expand(p->png); /* palette to RGB, low-bit grey to 8 bits, tRNS to alpha */
    if (depth == 16) png_set_swap(p->png);
    passes = png_set_interlace_handling(p->png);
    png_read_update_info(p->png, p->info);

    p->width = (int)width;
    p->height = (int)height;
    p->bytes = png_get_bit_depth(p->png, p->info) == 16 ? 2 : 1;
    colour_type = png_get_color_type(p->png, p->info);
    p->colours = (colour_type & PNG_COLOR_MASK_COLOR) ? 3 : 1;
    p->alpha = (colour_type & PNG_COLOR_MASK_ALPHA) ? 1 : 0;
    if ((int)png_get_channels(p->png, p->info) != p->colours + p->alpha) png_error(p->png, "unexpected channel layout");

    if (png_get_gAMA(p->png, p->info, &file_gamma) && file_gamma > 0.0)
        /* gAMA holds five digits: 45455 means 2.2, not 2.19998. */
        image->info.images->curve.gamma = (float)(floor(1000.0 / file_gamma + 0.5) / 1000.0);
    else
        image->info.images->chan.extra |= PXF_CHAN_GAMMA_ASSUMED;
    if (!png_get_valid(p->png, p->info, PNG_INFO_cHRM)) {
        image->info.images->chan.extra |= PXF_CHAN_PRIMARIES_ASSUMED;
    } else {
        double wx, wy, rx, ry, gx, gy, bx, by;
        PXF_INFO *info = &image->info;
        png_get_cHRM(p->png, p->info, &wx, &wy, &rx, &ry, &gx, &gy, &bx, &by);
        info->red_pri[0] = (float)rx, info->red_pri[1] = (float)ry, info->red_pri[2] = (float)(1 - rx - ry);
        info->green_pri[0] = (float)gx, info->green_pri[1] = (float)gy, info->green_pri[2] = (float)(1 - gx - gy);
        info->blue_pri[0] = (float)bx, info->blue_pri[1] = (float)by, info->blue_pri[2] = (float)(1 - bx - by);
        info->white_pt[0] = (float)wx, info->white_pt[1] = (float)wy, info->white_pt[2] = (float)(1 - wx - wy);
    }
    count = png_get_text(p->png, p->info, &texts, NULL);
    for (i = 0; i < count; ++i) {
        const char *k = texts[i].key, *t = texts[i].text;
        if (!t) continue;
        if (!strcmp(k, "Title")) take_text(&image->info.name, t);
        else if (!strcmp(k, "Description")) take_text(&image->info.desc, t);
        else if (!strcmp(k, "Software")) take_text(&image->info.program, t);
        else if (!strcmp(k, "Author")) take_text(&image->info.user, t);
        else if (!strcmp(k, "Creation Time")) take_text(&image->info.date, t);
        else if (!strcmp(k, "Source")) take_text(&image->info.machine, t);
        else if (!strcmp(k, "Comment")) take_text(&image->info.text_a, t);
    }
    take_text(&image->info.compression, passes > 1 ? "deflate, interlaced" : "deflate");

    check_pixel_bytes(p, png_get_rowbytes(p->png, p->info), height);
    p->row = (png_bytep)malloc(png_get_rowbytes(p->png, p->info) + 8);
    if (!p->row) png_error(p->png, "out of memory");
    if (passes > 1) {
        /* Interlaced rows arrive in passes: decode the whole image now. */
        size_t row_bytes = png_get_rowbytes(p->png, p->info);
        png_bytepp row_list = (png_bytepp)malloc(sizeof(png_bytep) * (size_t)height);
        if (!row_list) png_error(p->png, "out of memory");
        p->pixels = (png_bytep)malloc(row_bytes * height);
        if (!p->pixels) {
            free(row_list);
            png_error(p->png, "out of memory");
        }
        for (i = 0; i < (int)height; ++i) row_list[i] = p->pixels + row_bytes * (size_t)i;
        /* A longjmp out of png_read_image would leak row_list: free it here
         * from the error path of the next frame instead. */
        if (setjmp(png_jmpbuf(p->png))) {
            free(row_list);
            return 0;
        }
        png_read_image(p->png, row_list);
        free(row_list);
    }
    return 1;
}

static int png_close(PXF_IMAGE *image);

/* A failed open reports, then releases what the driver holds; the library
 * frees the handle (and with it the record). */
static int open_failed(png_file *p, const char *what) {
    report(p, NULL, what);
    release(p);
    return 0;
}

static png_file *attach(PXF_IMAGE *image, const char *path) {
    png_file *p = (png_file *)calloc(1, sizeof *p);
    void **table = (void **)malloc(sizeof *table);
    if (!p || !table || !(p->path = strdup(path))) {
        free(p ? p->path : NULL);
        free(p);
        free(table);
        pxf__err = PXF_E_NO_MEMORY;
        ERR_printf(ERR_ERROR, "%s: out of memory", path);
        return NULL;
    }
    table[0] = p;
    image->private_data = table;
    image->close = png_close;
    return p;
}

int imageReadOpen(PXF_IMAGE *image) {
    const char *path = image->info.handle;
    PXF_IMAGE_DESC *d;
    png_file *p;
    if (!path) return report(NULL, "png", "no file name");
    p = attach(image, path);
    if (!p) return 0;
    d = (PXF_IMAGE_DESC *)calloc(1, sizeof *d);
    if (!d) return open_failed(p, "out of memory");
    image->info.images = d;
    image->info.num_images = 1;
    d->curve.kind = PXF_CURVE_GAMMA;
    d->curve.gamma = 2.2f; /* no gAMA chunk: assume the usual display encoding */

    p->file = fopen(path, "rb");
    if (!p->file) return open_failed(p, strerror(errno));
    if (!imageIsFile(path, p->file)) return open_failed(p, "not a PNG file");
    {
        struct stat st;
        /* 0: not a regular file, size unknown (only the fixed ceilings apply) */
        p->file_bytes = fstat(fileno(p->file), &st) == 0 && S_ISREG(st.st_mode) ? (size_t)st.st_size : 0;
    }
    rewind(p->file);
    p->png = png_create_read_struct(PNG_LIBPNG_VER_STRING, p, png_failed, png_warned);
    if (p->png) p->info = png_create_info_struct(p->png);
    if (!p->info) return open_failed(p, "out of memory");
    if (!read_header(p, image)) {
        if (feof(p->file) && !p->refused)
            snprintf(p->message, sizeof p->message, "the file ends early (truncated?)");
        return open_failed(p, p->message);
    }

    d->image_kind = 1;
    d->window.right = p->width - 1;
    d->window.top = p->height - 1;
    d->active_window = d->window;
    d->x_res = p->width;
    d->y_res = p->height;
    d->aspect_ratio = p->height > 0 ? (float)p->width / (float)p->height : 1.0f;
    d->step = 1;
    d->orientation = 0;
    set_group(&d->chan, p->colours == 3 ? "rgb" : "grey", p->colours, 8 * p->bytes);
    set_group(&d->matte, p->alpha ? "alpha" : NULL, p->alpha, 8 * p->bytes);
    if (p->alpha) d->matte.extra = PXF_MATTE_UNASSOCIATED;
    set_group(&d->aux, NULL, 0, 8);
    set_group(&d->index, NULL, 0, 16);
    image->scan = png_read_scan;
    return 1;
}

/* ---- Writing ---- */

/* Matching only runs of one repeated byte ("rle") is the default: on
 * filtered rows of photographs and rendered frames, whose grain leaves few
 * longer repeats, it makes files as small as full matching at level 7 (or
 * smaller) in a fifth of the time.  Flat graphics and text, which repeat
 * longer strings, shrink more with "deflate". */
static int choose_coding(const char *text, png_coding *c, char *why, size_t why_size) {
    static const struct {
        const char *name;
        int filters;
    } filters[] = {{"none", PNG_FILTER_NONE}, {"sub", PNG_FILTER_SUB},     {"up", PNG_FILTER_UP},
                   {"average", PNG_FILTER_AVG}, {"paeth", PNG_FILTER_PAETH}, {"adaptive", PNG_ALL_FILTERS}};
    compression_text parsed;
    int k, f;
    if (!compression_parse(text, &parsed, why, why_size)) return 0;
    /* "unknown" is what the library puts in when the caller chose nothing. */
    if (!parsed.method[0] || !strcmp(parsed.method, "unknown") || !strcmp(parsed.method, "rle"))
        c->strategy = Z_RLE;
    else if (!strcmp(parsed.method, "deflate"))
        c->strategy = Z_FILTERED; /* libpng's choice for filtered rows */
    else if (!strcmp(parsed.method, "huffman") || !strcmp(parsed.method, "none"))
        c->strategy = Z_HUFFMAN_ONLY;
    else {
        snprintf(why, why_size, "unknown PNG compression \"%s\" (rle, deflate, huffman, none)", parsed.method);
        return 0;
    }
    c->level = !strcmp(parsed.method, "none") ? 0 : 6; /* "none": stored deflate blocks */
    c->filters = PNG_ALL_FILTERS;
    for (k = 0; k < parsed.count; ++k) {
        const char *key = parsed.settings[k].key, *value = parsed.settings[k].value;
        if (!strcmp(key, "level")) {
            if ((c->level = compression_integer(value, 0, 9)) < 0) {
                snprintf(why, why_size, "PNG levels are 0 to 9, not \"%s\"", value);
                return 0;
            }
        } else if (!strcmp(key, "filter")) {
            for (f = 0; f < (int)(sizeof filters / sizeof filters[0]) && strcmp(value, filters[f].name); ++f) {
            }
            if (f == (int)(sizeof filters / sizeof filters[0])) {
                snprintf(why, why_size, "unknown PNG filter \"%s\" (none, sub, up, average, paeth, adaptive)", value);
                return 0;
            }
            c->filters = filters[f].filters;
        } else {
            snprintf(why, why_size, "PNG has no compression setting \"%s\" (level, filter)", key);
            return 0;
        }
    }
    return 1;
}

static int start_file(png_file *p, const PXF_INFO *info, int colour_type, png_text *texts, int n);

/* "Creation Time" holds an RFC 1123 date.  The library's own dates are
 * "{seconds}" and TIFF's "YYYY:MM:DD HH:MM:SS" (local time); any other text
 * is kept as it is. */
static const char *creation_time(const char *text, char *out, size_t size) {
    static const char days[7][4] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char months[12][4] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    struct tm when;
    time_t seconds;
    char *end = NULL;
    if (!text) return NULL;
    memset(&when, 0, sizeof when);
    if (text[0] == '{') {
        long long value = strtoll(text + 1, &end, 10);
        if (end == text + 1 || strcmp(end, "}") != 0) return text;
        seconds = (time_t)value;
    } else if (strlen(text) == 19 && text[4] == ':' && text[7] == ':' && text[10] == ' ' &&
               sscanf(text, "%4d:%2d:%2d %2d:%2d:%2d", &when.tm_year, &when.tm_mon, &when.tm_mday, &when.tm_hour,
                      &when.tm_min, &when.tm_sec) == 6) {
        when.tm_year -= 1900;
        when.tm_mon -= 1;
        when.tm_isdst = -1;
        seconds = mktime(&when);
        if (seconds == (time_t)-1) return text;
    } else {
        return text;
    }
    /* Day and month names are English whatever the locale. */
    if (!gmtime_r(&seconds, &when) || when.tm_wday < 0 || when.tm_wday > 6 || when.tm_mon < 0 || when.tm_mon > 11)
        return text;
    snprintf(out, size, "%s, %02d %s %04d %02d:%02d:%02d GMT", days[when.tm_wday], when.tm_mday, months[when.tm_mon],
             when.tm_year + 1900, when.tm_hour, when.tm_min, when.tm_sec);
    return out;
}

/* Collects the texts worth keeping, then starts the file. */
static int write_header(png_file *p, PXF_IMAGE *image, int colour_type) {
    PXF_INFO *info = &image->info;
    struct {
        const char *key;
        const char *text;
    } keys[7];
    png_text texts[7];
    char date[40];
    int i, n = 0;
    keys[0].key = "Title", keys[0].text = info->name;
    keys[1].key = "Description", keys[1].text = info->desc;
    keys[2].key = "Software", keys[2].text = info->program;
    keys[3].key = "Author", keys[3].text = info->user;
    keys[4].key = "Creation Time", keys[4].text = creation_time(info->date, date, sizeof date);
    keys[5].key = "Source", keys[5].text = info->machine;
    keys[6].key = "Comment", keys[6].text = info->text_a;
    for (i = 0; i < 7; ++i) {
        /* "unknown" is the library's filler for fields the caller left empty. */
        if (!keys[i].text || !keys[i].text[0] || !strcmp(keys[i].text, "unknown")) continue;
        memset(&texts[n], 0, sizeof texts[n]);
        texts[n].compression = PNG_TEXT_COMPRESSION_NONE;
        texts[n].key = (png_charp)keys[i].key;
        texts[n].text = (png_charp)keys[i].text;
        ++n;
    }
    return start_file(p, info, colour_type, texts, n);
}

static int start_file(png_file *p, const PXF_INFO *info, int colour_type, png_text *texts, int n) {
    const PXF_IMAGE_DESC *d = info->images;
    if (setjmp(png_jmpbuf(p->png))) return 0;
    png_init_io(p->png, p->file);
    png_set_IHDR(p->png, p->info, (png_uint_32)p->width, (png_uint_32)p->height, 8 * p->bytes, colour_type,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    /* What the source file did not say is not said here either. */
    if (d->curve.kind == PXF_CURVE_GAMMA && d->curve.gamma > 0.0f && !(d->chan.extra & PXF_CHAN_GAMMA_ASSUMED))
        png_set_gAMA(p->png, p->info, 1.0 / d->curve.gamma);
    if (!(d->chan.extra & PXF_CHAN_PRIMARIES_ASSUMED) && info->white_pt[1] > 0.0f && info->red_pri[1] > 0.0f &&
        info->green_pri[1] > 0.0f && info->blue_pri[1] > 0.0f)
        png_set_cHRM(p->png, p->info, info->white_pt[0], info->white_pt[1], info->red_pri[0], info->red_pri[1],
                     info->green_pri[0], info->green_pri[1], info->blue_pri[0], info->blue_pri[1]);
    if (n) png_set_text(p->png, p->info, texts, n);
    png_set_compression_strategy(p->png, p->coding.strategy);
    png_set_compression_level(p->png, p->coding.level);
    png_set_filter(p->png, PNG_FILTER_TYPE_BASE, p->coding.filters);
    /* The largest hash table, and IDAT chunks of 128 KiB rather than 8 KiB:
     * a little faster, and 12 bytes of chunk framing fewer per chunk. */
    png_set_compression_mem_level(p->png, 9);
    png_set_compression_buffer_size(p->png, (size_t)128 << 10);
    png_write_info(p->png, p->info);
    if (p->bytes == 2) png_set_swap(p->png);
    return 1;
}

static int write_row(png_file *p) {
    if (setjmp(png_jmpbuf(p->png))) return 0;
    png_write_row(p->png, p->row);
    ++p->next_row;
    /* libpng does not look at fwrite's result: the stream says. */
    if (ferror(p->file)) {
        snprintf(p->message, sizeof p->message, "write failed (%s)", errno ? strerror(errno) : "I/O error");
        return 0;
    }
    return 1;
}

static int finish(png_file *p) {
    if (setjmp(png_jmpbuf(p->png))) return 0;
    png_write_end(p->png, NULL);
    return 1;
}

/* Rescales a value of `from` bits to `to` bits (to is 8 or 16). */
static unsigned rescale(uint32_t v, int from, int to) {
    uint32_t top = (1u << to) - 1;
    if (from == to) return v & top;
    if (from >= 32) return (unsigned)(v >> (32 - to));
    {
        uint64_t max_in = (1ull << from) - 1;
        if (v > max_in) v = (uint32_t)max_in;
        return (unsigned)(((uint64_t)v * top + max_in / 2) / max_in);
    }
}

static uint32_t element(const void *row, int bits, int x) {
    if (bits <= 8) return ((const uint8_t *)row)[x];
    if (bits <= 16) return ((const uint16_t *)row)[x];
    return ((const uint32_t *)row)[x];
}

/* Colour value v of `bits` bits divided by the matte fraction a / a_top,
 * as a value of `to` bits.  Where the matte is 0 the division means nothing
 * and the colour stays; colour above its matte (not a valid premultiplied
 * pixel) is clipped to the largest value. */
static unsigned unpremultiply(uint32_t v, int bits, uint32_t a, double a_top, int to) {
    double top = (double)((1u << to) - 1), c_top = bits >= 32 ? 4294967295.0 : (double)((1ull << bits) - 1), out;
    if (a == 0 || (double)a >= a_top) return rescale(v, bits, to);
    out = (double)v / c_top * a_top / (double)a * top;
    return out >= top ? (unsigned)top : (unsigned)(out + 0.5);
}

static int png_write_scan(void *data, int line, void ***rows, void **table) {
    png_file *p = (png_file *)data;
    int n = p->colours + p->alpha, x, c, bits;
    const void *matte = p->alpha ? (*rows)[p->colours] : NULL;
    double a_top = p->matte_bits >= 32 ? 4294967295.0 : (double)((1ull << p->matte_bits) - 1);
    (void)table;
    if (p->height - 1 - line != p->next_row) {
        pxf__err = PXF_E_BAD_SCANLINE;
        return PXF_E_BAD_SCANLINE;
    }
    for (c = 0; c < n; ++c) {
        const void *src = (*rows)[c];
        int divide = p->divide && c < p->colours;
        bits = c < p->colours ? p->colour_bits : p->matte_bits;
        if (p->bytes == 1)
            for (x = 0; x < p->width; ++x)
                p->row[x * n + c] = (png_byte)(divide ? unpremultiply(element(src, bits, x), bits,
                                                                      element(matte, p->matte_bits, x), a_top, 8)
                                                      : rescale(element(src, bits, x), bits, 8));
        else
            for (x = 0; x < p->width; ++x)
                ((uint16_t *)p->row)[x * n + c] =
                    (uint16_t)(divide ? unpremultiply(element(src, bits, x), bits, element(matte, p->matte_bits, x), a_top, 16)
                                      : rescale(element(src, bits, x), bits, 16));
    }
    if (p->failed || !write_row(p)) return write_failed(p);
    return 0;
}

static int check_group(const char *path, const PXF_CHAN_GROUP *g, const char *what, int allowed) {
    char text[160];
    if (g->count > allowed) {
        snprintf(text, sizeof text, "PNG cannot store %d %s channel%s", g->count, what, g->count == 1 ? "" : "s");
        return report(NULL, path, text);
    }
    if (g->count > 0 && (g->type != PXF_C_INTEGER || g->width < 1 || g->width > 16)) {
        snprintf(text, sizeof text, "PNG stores 1 to 16-bit integer %s channels only", what);
        return report(NULL, path, text);
    }
    return 1;
}

int imageWriteOpen(PXF_IMAGE *image) {
    const char *path = image->info.handle;
    const PXF_IMAGE_DESC *d = image->info.images;
    int colour_type;
    png_file *p;
    png_coding coding;
    char why[160];
    if (!path) return report(NULL, "png", "no file name");
    if (image->info.num_images < 1 || !d) return report(NULL, path, "no image description");
    if (!choose_coding(image->info.compression, &coding, why, sizeof why)) {
        pxf__err = PXF_E_CANNOT_DO;
        return report(NULL, path, why);
    }
    if (d->chan.count != 1 && d->chan.count != 3) {
        pxf__err = PXF_E_CANNOT_DO;
        return report(NULL, path, "PNG stores 1 (grey) or 3 (RGB) colour channels");
    }
    if (!check_group(path, &d->chan, "colour", 3) || !check_group(path, &d->matte, "matte", 1) ||
        !check_group(path, &d->aux, "auxiliary", 0)) {
        pxf__err = PXF_E_CANNOT_DO;
        return 0;
    }
    p = attach(image, path);
    if (!p) return 0;
    p->writing = 1;
    p->coding = coding;
    p->width = d->window.right - d->window.left + 1;
    p->height = d->window.top - d->window.bottom + 1;
    if (p->width < 1 || p->height < 1) return open_failed(p, "empty image window");
    p->colours = d->chan.count;
    p->alpha = d->matte.count;
    p->colour_bits = d->chan.width;
    p->matte_bits = d->matte.width;
    p->divide = p->alpha && d->matte.extra != PXF_MATTE_UNASSOCIATED;
    p->bytes = (d->chan.width > 8 || (p->alpha && d->matte.width > 8)) ? 2 : 1;
    colour_type = (p->colours == 3 ? PNG_COLOR_MASK_COLOR : 0) | (p->alpha ? PNG_COLOR_MASK_ALPHA : 0);
    p->row = (png_bytep)malloc((size_t)p->width * (size_t)(p->colours + p->alpha) * (size_t)p->bytes + 8);
    p->png = png_create_write_struct(PNG_LIBPNG_VER_STRING, p, png_failed, png_warned);
    if (p->png) p->info = png_create_info_struct(p->png);
    if (!p->row || !p->info) {
        pxf__err = PXF_E_NO_MEMORY;
        return open_failed(p, "out of memory");
    }
    /* Created last, after everything that can fail without touching a file. */
    errno = 0;
    p->output = UTL_output_open(path);
    if (!p->output) {
        pxf__err = PXF_E_MISSING_FIELD;
        return open_failed(p, strerror(errno ? errno : EIO));
    }
    p->file = UTL_output_stream(p->output);
    if (!write_header(p, image, colour_type)) {
        pxf__err = PXF_E_FLUSH;
        return open_failed(p, p->message[0] ? p->message : "write failed");
    }
    image->scan = png_write_scan;
    return 1;
}

static int png_close(PXF_IMAGE *image) {
    png_file *p = image->private_data ? (png_file *)image->private_data[0] : NULL;
    int status = 0;
    if (p && p->writing && p->png && p->failed) {
        report(p, NULL, "an earlier write failed; the file was not kept");
        status = -1;
    } else if (p && p->writing && p->png) {
        if (p->next_row < p->height) {
            /* The caller stopped early: finish with black rows so that the
             * file stays readable, and say so. */
            ERR_printf(ERR_WARNING, "%s: %d scanlines not written, filled with zero", p->path,
                       p->height - p->next_row);
            memset(p->row, 0, (size_t)p->width * (size_t)(p->colours + p->alpha) * (size_t)p->bytes);
            while (p->next_row < p->height)
                if (!write_row(p)) break;
        }
        if (p->next_row < p->height || !finish(p)) {
            report(p, NULL, p->message[0] ? p->message : "write failed");
            status = -1;
        }
        if (!status) {
            UTL_OUTPUT *output = p->output; /* commit closes and frees it, even when failing */
            p->output = NULL;
            p->file = NULL;
            errno = 0;
            if (UTL_output_commit(output) != 0) {
                report(p, NULL, errno ? strerror(errno) : "write failed");
                status = -1;
            }
        }
    }
    if (p) release(p);
    pxf__free_obj(image);
    if (!status) return 0;
    pxf__err = PXF_E_FLUSH;
    return PXF_E_FLUSH;
}
