/*
 * TIFF image driver on libtiff: grey or RGB with 8, 16 or 32-bit unsigned
 * integer or 32-bit float samples, stored in strips, interleaved or in
 * planes.  Extra samples marked as alpha are the matte channels, the other
 * extra samples the auxiliary channels.  Written files are interleaved,
 * uncompressed or LZW, Deflate or PackBits compressed; LZW and Deflate
 * strips go through the horizontal (integer) or floating-point predictor
 * when it encodes a sample of the first strip smaller than no predictor,
 * or as told ("lzw;predictor=none"), and Deflate takes a level
 * ("deflate;level=9").  On a machine of more than one core, LZW and Deflate
 * strips are encoded on helper threads, one per core (at most 4, or as many
 * as "threads=N" says), while the caller fills the next strip; "threads=1"
 * keeps all the work on the caller's thread.  The file is the same byte for
 * byte either way.
 */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <math.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <tiffio.h>
#include <time.h>
#include <unistd.h>

#include <pxf/err.h>
#include <pxf/plugin.h>
#include <pxf/utl.h>

#include "../compression_text.h"

const char *version = PXF_PLUGIN_PROTOCOL;
const char *imageKey = "tiff";
const char *imageExtension = ".tif";
const char *imageName = "Tagged Image File Format";
const char *imageDescription =
    "grey/RGB + extra channels; 8/16/32-bit integer, 32-bit float; none, LZW, Deflate, PackBits; predictors";
int imageOrientation = 0; /* scanlines top down */
/* Rows are read in any order: each comes from its strip, decoded on demand. */
int imageAccess = PXF_ACCESS_READ | PXF_ACCESS_WRITE | PXF_ACCESS_RANDOM;
int imageNumberOfChannels = 3;
int imageBitsPerChannel = 32;
int imageNumberOfMattes = 4;
int imageBitsPerMatte = 32;
int imageNumberOfZChannels = 16;
int imageBitsPerZChannel = 32;

#define MAX_SAMPLES 64
#define MAX_ENCODERS 4 /* strips encoded at once, at most */

/* A file in memory, for encoding one strip away from the real file. */
typedef struct {
    unsigned char *data;
    size_t size, capacity, at;
    int failed; /* a write could not grow it */
} memory_file;

/* A strip handed to a helper thread: its rows, and once it is joined, the
 * encoded bytes (inside `out`) or the reason they are missing.  The helper
 * encodes into `encoder`, a TIFF of the same shape and coding whose file in
 * memory holds only the strip of the moment. */
typedef struct {
    TIFF *encoder;
    pthread_t thread;
    int running;
    uint32_t strip;
    unsigned char *rows;
    tmsize_t bytes;
    memory_file out;
    const unsigned char *encoded;
    tmsize_t encoded_bytes;
    char why[200];
} strip_job;

/* How a written file is compressed: method, predictor and Deflate level
 * (0: libtiff's own), and whether strips may be encoded on a helper thread. */
typedef struct {
    int compression, predictor, level, threads;
    int trial; /* the predictor is the driver's to choose: none or `predictor` */
} tiff_coding;

typedef struct tiff_file {
    TIFF *tif;
    char *path;
    UTL_OUTPUT *output; /* when writing: renamed over the name only when complete */
    int writing;
    int failed;         /* a write failed: the file is abandoned at close */
    int width, height;
    int samples;          /* samples per pixel in the file */
    int bytes;            /* bytes per sample: 1, 2 or 4 */
    int is_float;         /* the file's samples are IEEE floats */
    int planar;           /* samples stored in separate planes */
    int order[MAX_SAMPLES]; /* file sample -> caller's channel */
    PXF_CHAN_GROUP groups[3]; /* caller's colour, matte and aux shapes (writing) */
    double gamma;             /* of the caller's integer colour (writing) */
    int next_row;
    /* Reading decodes whole strips (compressed strips cannot be entered in
     * the middle), one cached strip per plane; writing gathers one strip. */
    unsigned char *strips;
    tmsize_t strip_bytes, line_bytes;
    uint32_t rows_per_strip;
    uint32_t cached[MAX_SAMPLES]; /* strip held per plane, or UINT32_MAX */
    /* Writing on several threads: rows gather in `strips` while helpers
     * encode earlier strips, each from its job's own buffer.  Jobs are
     * taken in turn, so the next one is always the oldest. */
    tiff_coding coding;
    int photometric;
    int encoders; /* jobs in use; 0: strips are encoded by the caller */
    int next_job;
    strip_job jobs[MAX_ENCODERS];
} tiff_file;

/* libtiff's complaints go to one handler for the whole process; each thread
 * keeps the first one of its current request. */
/* Not a __thread buffer: static TLS in a loaded module is allocated by the
 * dynamic loader, which aborts the process when that allocation fails.  A
 * thread's buffer is made on first use; without one, complaints are lost
 * and the callers' fallback texts stand. */
#define PROBLEM_SIZE 200
static pthread_key_t problem_key;
static int problem_key_made;

static char *problem_buffer(void) {
    char *buffer;
    if (!problem_key_made) return NULL;
    buffer = (char *)pthread_getspecific(problem_key);
    if (!buffer && (buffer = (char *)calloc(1, PROBLEM_SIZE)) && pthread_setspecific(problem_key, buffer) != 0) {
        free(buffer);
        buffer = NULL;
    }
    return buffer;
}

static void clear_problem(void) {
    char *buffer = problem_key_made ? (char *)pthread_getspecific(problem_key) : NULL;
    if (buffer) buffer[0] = '\0';
}

static int has_problem(void) {
    char *buffer = problem_key_made ? (char *)pthread_getspecific(problem_key) : NULL;
    return buffer && buffer[0];
}

static void tiff_complaint(const char *module, const char *format, va_list args) {
    char *buffer = problem_buffer();
    (void)module;
    if (!buffer || buffer[0]) return;
    vsnprintf(buffer, PROBLEM_SIZE, format, args);
}

static void tiff_quiet(const char *module, const char *format, va_list args) {
    (void)module;
    (void)format;
    (void)args; /* unknown tags and the like: not worth a report */
}

int imageInit(void) {
    if (!problem_key_made) problem_key_made = pthread_key_create(&problem_key, free) == 0;
    TIFFSetErrorHandler(tiff_complaint);
    TIFFSetWarningHandler(tiff_quiet);
    return 1;
}

static int report(const char *path, const char *what) {
    ERR_printf(ERR_ERROR, "%s: %s", path, what);
    return 0;
}

static const char *problem(const char *fallback) {
    return has_problem() ? (const char *)pthread_getspecific(problem_key) : fallback;
}

int imageIsFile(const char *path, void *stream) {
    unsigned char head[4];
    FILE *f = stream ? (FILE *)stream : fopen(path, "rb");
    int yes;
    if (!f) return 0;
    if (stream) rewind(f);
    yes = fread(head, 1, 4, f) == 4 &&
          ((head[0] == 'I' && head[1] == 'I' && (head[2] == 42 || head[2] == 43) && head[3] == 0) ||
           (head[0] == 'M' && head[1] == 'M' && head[2] == 0 && (head[3] == 42 || head[3] == 43)));
    if (!stream) fclose(f);
    return yes;
}

static void drop_memory_tiff(TIFF *m);

static void release(tiff_file *p) {
    int k;
    for (k = 0; k < MAX_ENCODERS; ++k) {
        strip_job *j = &p->jobs[k];
        if (j->running) pthread_join(j->thread, NULL);
        j->running = 0;
        if (j->encoder) drop_memory_tiff(j->encoder);
        free(j->out.data);
        free(j->rows);
        memset(j, 0, sizeof *j);
    }
    p->encoders = 0;
    /* A file being abandoned is not flushed: after a failed set-up libtiff's
     * state may be half made, and the data goes anyway. */
    if (p->tif && p->writing) TIFFSetMode(p->tif, O_RDONLY);
    if (p->tif) TIFFClose(p->tif);
    UTL_output_abandon(p->output); /* never committed: the temporary file goes */
    p->output = NULL;
    free(p->strips);
    free(p->path);
    p->tif = NULL;
    p->strips = NULL;
    p->path = NULL;
}

static int open_failed(tiff_file *p, const char *what) {
    report(p->path, what);
    release(p);
    return 0;
}

static int tiff_close(PXF_IMAGE *image);

static tiff_file *attach(PXF_IMAGE *image, const char *path) {
    tiff_file *p = (tiff_file *)calloc(1, sizeof *p);
    void **table = (void **)malloc(sizeof *table);
    if (!p || !table || !(p->path = strdup(path))) {
        if (p) free(p->path);
        free(p);
        free(table);
        pxf__err = PXF_E_NO_MEMORY;
        report(path, "out of memory");
        return NULL;
    }
    table[0] = p;
    image->private_data = table;
    image->close = tiff_close;
    return p;
}

static int bad_scanline(void) {
    pxf__err = PXF_E_BAD_SCANLINE;
    return PXF_E_BAD_SCANLINE;
}

static const char *compression_name(int code) {
    switch (code) {
    case COMPRESSION_NONE: return "none";
    case COMPRESSION_LZW: return "LZW";
    case COMPRESSION_ADOBE_DEFLATE:
    case COMPRESSION_DEFLATE: return "Deflate";
    case COMPRESSION_PACKBITS: return "PackBits";
    case COMPRESSION_JPEG: return "JPEG";
    case COMPRESSION_CCITTFAX4: return "CCITT group 4";
    default: return NULL;
    }
}

/* ---- Reading ---- */

static void copy_sample(const tiff_file *p, const unsigned char *src, int stride, void *dst) {
    int x;
    if (p->bytes == 1)
        for (x = 0; x < p->width; ++x) ((uint8_t *)dst)[x] = src[(size_t)x * stride];
    else if (p->bytes == 2)
        for (x = 0; x < p->width; ++x) ((uint16_t *)dst)[x] = ((const uint16_t *)src)[(size_t)x * stride];
    else
        for (x = 0; x < p->width; ++x) ((uint32_t *)dst)[x] = ((const uint32_t *)src)[(size_t)x * stride];
}

/* The file scanline `row` of plane `plane`, from the strip cache. */
static const unsigned char *plane_row(tiff_file *p, int row, int plane) {
    uint32_t strip = TIFFComputeStrip(p->tif, (uint32_t)row, (uint16_t)plane);
    uint32_t first = (uint32_t)row - (uint32_t)row % p->rows_per_strip;
    uint32_t lines = (uint32_t)p->height - first < p->rows_per_strip ? (uint32_t)p->height - first : p->rows_per_strip;
    unsigned char *buffer = p->strips + (size_t)plane * (size_t)p->strip_bytes;
    if (p->cached[plane] != strip) {
        p->cached[plane] = UINT32_MAX;
        /* A short strip is damage, not zeros. */
        if (TIFFReadEncodedStrip(p->tif, strip, buffer, p->strip_bytes) < (tmsize_t)lines * p->line_bytes) return NULL;
        p->cached[plane] = strip;
    }
    return buffer + (size_t)((uint32_t)row - first) * (size_t)p->line_bytes;
}

static int tiff_read_scan(void *data, int line, void ***rows, void **table) {
    tiff_file *p = (tiff_file *)data;
    int row = p->height - 1 - line, plane, s;
    (void)table;
    if (row < 0 || row >= p->height) return bad_scanline();
    clear_problem();
    for (plane = 0; plane < (p->planar ? p->samples : 1); ++plane) {
        const unsigned char *src = plane_row(p, row, plane);
        if (!src) {
            report(p->path, problem("damaged TIFF data"));
            return bad_scanline();
        }
        if (p->planar)
            copy_sample(p, src, 1, (*rows)[p->order[plane]]);
        else
            for (s = 0; s < p->samples; ++s) copy_sample(p, src + (size_t)s * p->bytes, p->samples, (*rows)[p->order[s]]);
    }
    return 0;
}

static void set_group(PXF_CHAN_GROUP *g, const char *format, int count, int type, int width) {
    g->format = format && count ? strdup(format) : NULL;
    g->count = count;
    g->type = type;
    g->width = width;
}

static void take_text(char **field, TIFF *tif, uint32_t tag) {
    char *text = NULL, *copy;
    if (!TIFFGetField(tif, tag, &text) || !text || !text[0]) return;
    copy = strdup(text);
    if (!copy) return;
    free(*field);
    *field = copy;
}

/* What a file of `bytes` bytes can justify allocating.  A decoded strip is
 * at most the file's bytes times the largest ratio of the codecs that read
 * here (LZW inflates by less than 4096:1, deflate by 1032:1, PackBits by
 * 128:1), plus room for small files; the same bound caps any single
 * allocation inside libtiff (tag arrays, strip tables).  0: size unknown. */
#define INFLATE_RATIO 4096.0
#define SMALL_FILE_ROOM ((double)(1 << 20))

static double justified(size_t bytes) { return bytes ? (double)bytes * INFLATE_RATIO + SMALL_FILE_ROOM : 0.0; }

static TIFF *open_bounded(const char *path, size_t *file_bytes) {
    struct stat st;
    TIFFOpenOptions *options;
    TIFF *tif;
    *file_bytes = stat(path, &st) == 0 && S_ISREG(st.st_mode) ? (size_t)st.st_size : 0;
    options = TIFFOpenOptionsAlloc();
    if (!options) return NULL;
    if (*file_bytes && justified(*file_bytes) < (double)((tmsize_t)1 << 40))
        TIFFOpenOptionsSetMaxSingleMemAlloc(options, (tmsize_t)justified(*file_bytes));
    /* "m": no memory map of the file; strips are read as they are needed,
     * so a large file does not sit in the address space (nor in the
     * resident size) while it is read. */
    tif = TIFFOpenExt(path, "rm", options);
    TIFFOpenOptionsFree(options);
    return tif;
}

int imageReadOpen(PXF_IMAGE *image) {
    const char *path = image->info.handle;
    uint32_t width = 0, height = 0;
    uint16_t spp = 1, bps = 1, format = SAMPLEFORMAT_UINT, photometric = PHOTOMETRIC_MINISBLACK;
    uint16_t planar = PLANARCONFIG_CONTIG, compression = COMPRESSION_NONE, extra_count = 0, *extra = NULL;
    uint16_t predictor = PREDICTOR_NONE;
    size_t file_bytes = 0;
    int colours, mattes = 0, auxes = 0, s, next_matte, next_aux, type;
    float *values;
    PXF_IMAGE_DESC *d;
    tiff_file *p;
    char text[120];
    if (!path) return report("tiff", "no file name");
    p = attach(image, path);
    if (!p) return 0;
    d = (PXF_IMAGE_DESC *)calloc(1, sizeof *d);
    if (!d) return open_failed(p, "out of memory");
    image->info.images = d;
    image->info.num_images = 1;

    clear_problem();
    if (!imageIsFile(path, NULL)) {
        FILE *f = fopen(path, "rb");
        if (!f) return open_failed(p, strerror(errno));
        fclose(f);
        return open_failed(p, "not a TIFF file");
    }
    p->tif = open_bounded(path, &file_bytes);
    if (!p->tif) return open_failed(p, problem("damaged TIFF header"));
    if (TIFFIsTiled(p->tif)) return open_failed(p, "tiled TIFF files are not supported");
    TIFFGetField(p->tif, TIFFTAG_IMAGEWIDTH, &width);
    TIFFGetField(p->tif, TIFFTAG_IMAGELENGTH, &height);
    TIFFGetFieldDefaulted(p->tif, TIFFTAG_SAMPLESPERPIXEL, &spp);
    TIFFGetFieldDefaulted(p->tif, TIFFTAG_BITSPERSAMPLE, &bps);
    TIFFGetFieldDefaulted(p->tif, TIFFTAG_SAMPLEFORMAT, &format);
    TIFFGetFieldDefaulted(p->tif, TIFFTAG_PLANARCONFIG, &planar);
    TIFFGetFieldDefaulted(p->tif, TIFFTAG_COMPRESSION, &compression);
    if (compression == COMPRESSION_LZW || compression == COMPRESSION_ADOBE_DEFLATE || compression == COMPRESSION_DEFLATE)
        TIFFGetFieldDefaulted(p->tif, TIFFTAG_PREDICTOR, &predictor);
    TIFFGetFieldDefaulted(p->tif, TIFFTAG_EXTRASAMPLES, &extra_count, &extra);
    if (!TIFFGetField(p->tif, TIFFTAG_PHOTOMETRIC, &photometric))
        photometric = spp - extra_count >= 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK;

    if (width < 1 || height < 1 || width > 0x7fffffffu / 8 || height > 0x7fffffffu)
        return open_failed(p, "bad image size");
    if (photometric != PHOTOMETRIC_RGB && photometric != PHOTOMETRIC_MINISBLACK) {
        snprintf(text, sizeof text, "photometric interpretation %u is not supported (grey and RGB are)", photometric);
        return open_failed(p, text);
    }
    if (format == SAMPLEFORMAT_IEEEFP && bps == 32) {
        type = PXF_C_FLOAT;
    } else if ((format == SAMPLEFORMAT_UINT || format == SAMPLEFORMAT_VOID) && (bps == 8 || bps == 16 || bps == 32)) {
        type = PXF_C_INTEGER;
    } else {
        snprintf(text, sizeof text, "%u-bit %s samples are not supported", bps,
                 format == SAMPLEFORMAT_IEEEFP ? "float" : format == SAMPLEFORMAT_INT ? "signed" : "integer");
        return open_failed(p, text);
    }
    colours = photometric == PHOTOMETRIC_RGB ? 3 : 1;
    if (spp > MAX_SAMPLES || extra_count > spp || spp - extra_count != colours)
        return open_failed(p, "inconsistent samples per pixel");

    p->width = (int)width;
    p->height = (int)height;
    p->samples = spp;
    p->bytes = bps / 8;
    p->is_float = type == PXF_C_FLOAT;
    p->planar = planar == PLANARCONFIG_SEPARATE && spp > 1;
    for (s = 0; s < extra_count; ++s) {
        if (extra[s] == EXTRASAMPLE_ASSOCALPHA || extra[s] == EXTRASAMPLE_UNASSALPHA) ++mattes;
        else ++auxes;
    }
    /* The caller's rows come in group order: colour, matte, auxiliary. */
    next_matte = colours;
    next_aux = colours + mattes;
    for (s = 0; s < spp; ++s) {
        if (s < colours) p->order[s] = s;
        else if (extra[s - colours] == EXTRASAMPLE_ASSOCALPHA || extra[s - colours] == EXTRASAMPLE_UNASSALPHA)
            p->order[s] = next_matte++;
        else
            p->order[s] = next_aux++;
    }
    {
        uint32_t rps = 0;
        TIFFGetFieldDefaulted(p->tif, TIFFTAG_ROWSPERSTRIP, &rps);
        p->rows_per_strip = rps < 1 || rps > height ? height : rps;
        p->line_bytes = TIFFScanlineSize(p->tif);
        if ((double)p->line_bytes * p->rows_per_strip * (p->planar ? spp : 1) >
            (file_bytes ? justified(file_bytes) : (double)((tmsize_t)1 << 40))) {
            snprintf(text, sizeof text, "strips of %.0f bytes cannot come from a file of %lu bytes (damaged size?)",
                     (double)p->line_bytes * p->rows_per_strip, (unsigned long)file_bytes);
            return open_failed(p, text);
        }
        p->strip_bytes = p->line_bytes * (tmsize_t)p->rows_per_strip;
        if (p->line_bytes < (tmsize_t)p->width * (p->planar ? 1 : spp) * p->bytes)
            return open_failed(p, "inconsistent scanline size");
        for (s = 0; s < MAX_SAMPLES; ++s) p->cached[s] = UINT32_MAX;
        p->strips = (unsigned char *)malloc((size_t)p->strip_bytes * (size_t)(p->planar ? spp : 1) + 16);
        if (!p->strips) return open_failed(p, "out of memory");
    }

    d->image_kind = 1;
    d->curve.kind = PXF_CURVE_GAMMA;
    d->curve.gamma = type == PXF_C_FLOAT ? 1.0f : 2.2f; /* TIFF has no gamma tag */
    d->window.right = p->width - 1;
    d->window.top = p->height - 1;
    d->active_window = d->window;
    d->x_res = p->width;
    d->y_res = p->height;
    d->aspect_ratio = (float)p->width / (float)p->height;
    d->step = 1;
    d->orientation = 0;
    set_group(&d->chan, colours == 3 ? "rgb" : "grey", colours, type, bps);
    set_group(&d->matte, "alpha", mattes, type, bps);
    /* One association for the image: the first alpha sample's. */
    for (s = 0; s < extra_count; ++s)
        if (extra[s] == EXTRASAMPLE_ASSOCALPHA || extra[s] == EXTRASAMPLE_UNASSALPHA) {
            d->matte.extra = extra[s] == EXTRASAMPLE_ASSOCALPHA ? PXF_MATTE_ASSOCIATED : PXF_MATTE_UNASSOCIATED;
            break;
        }
    set_group(&d->aux, "extra", auxes, type, bps);
    set_group(&d->index, NULL, 0, PXF_C_INTEGER, 16);

    /* TIFF has no gamma tag; primaries are optional.  What the file does not
     * say is marked, so that a conversion does not write the defaults. */
    d->chan.extra |= PXF_CHAN_GAMMA_ASSUMED;
    if (!TIFFGetField(p->tif, TIFFTAG_PRIMARYCHROMATICITIES, &values) || !values) {
        d->chan.extra |= PXF_CHAN_PRIMARIES_ASSUMED;
    } else {
        PXF_INFO *info = &image->info;
        float *pri[3] = {info->red_pri, info->green_pri, info->blue_pri};
        for (s = 0; s < 3; ++s) {
            pri[s][0] = values[2 * s];
            pri[s][1] = values[2 * s + 1];
            pri[s][2] = 1.0f - values[2 * s] - values[2 * s + 1];
        }
    }
    if (TIFFGetField(p->tif, TIFFTAG_WHITEPOINT, &values) && values) {
        image->info.white_pt[0] = values[0];
        image->info.white_pt[1] = values[1];
        image->info.white_pt[2] = 1.0f - values[0] - values[1];
    }
    take_text(&image->info.name, p->tif, TIFFTAG_DOCUMENTNAME);
    take_text(&image->info.desc, p->tif, TIFFTAG_IMAGEDESCRIPTION);
    take_text(&image->info.program, p->tif, TIFFTAG_SOFTWARE);
    take_text(&image->info.user, p->tif, TIFFTAG_ARTIST);
    take_text(&image->info.machine, p->tif, TIFFTAG_HOSTCOMPUTER);
    take_text(&image->info.date, p->tif, TIFFTAG_DATETIME);
    {
        const char *name = compression_name(compression);
        char *copy;
        if (!name) snprintf(text, sizeof text, "compression %u", compression);
        else snprintf(text, sizeof text, "%s%s", name,
                      predictor == PREDICTOR_HORIZONTAL      ? ", horizontal predictor"
                      : predictor == PREDICTOR_FLOATINGPOINT ? ", float predictor"
                                                             : "");
        copy = strdup(text);
        if (copy) {
            free(image->info.compression);
            image->info.compression = copy;
        }
    }
    image->scan = tiff_read_scan;
    return 1;
}

/* ---- Writing ---- */

static double top_of(int width) { return width >= 32 ? 4294967295.0 : (double)((1ull << width) - 1); }

static double load(const void *row, const PXF_CHAN_GROUP *g, int x) {
    if (g->type == PXF_C_FLOAT) return ((const float *)row)[x];
    if (g->type == PXF_C_DOUBLE) return ((const double *)row)[x];
    if (g->width <= 8) return ((const uint8_t *)row)[x];
    if (g->width <= 16) return ((const uint16_t *)row)[x];
    return ((const uint32_t *)row)[x];
}

/* Puts one caller row into sample s of the interleaved file row `out`,
 * converting to the file's sample type when the group's differs. */
static void put_sample(tiff_file *p, unsigned char *out, const PXF_CHAN_GROUP *g, const void *src, int s,
                       double gamma) {
    int x, n = p->samples, bits = p->bytes * 8;
    int same = p->is_float ? g->type == PXF_C_FLOAT : (g->type == PXF_C_INTEGER && g->width == bits);
    double scale = 1.0;
    if (!same) scale = (g->type == PXF_C_INTEGER ? 1.0 / top_of(g->width) : 1.0) * (p->is_float ? 1.0 : top_of(bits));
    for (x = 0; x < p->width; ++x) {
        size_t at = (size_t)x * n + s;
        if (same) {
            if (p->bytes == 1) out[at] = ((const uint8_t *)src)[x];
            else if (p->bytes == 2) ((uint16_t *)out)[at] = ((const uint16_t *)src)[x];
            else ((uint32_t *)out)[at] = ((const uint32_t *)src)[x];
        } else if (p->is_float) {
            double v = load(src, g, x) * scale;
            /* Float TIFF files hold linear values (there is no gamma tag):
             * encoded integer colour is decoded on the way. */
            if (gamma != 1.0 && v > 0.0) v = pow(v, gamma);
            ((float *)out)[at] = (float)v;
        } else {
            double v = load(src, g, x) * scale + 0.5, top = top_of(bits);
            v = v < 0.0 ? 0.0 : v > top ? top : v;
            if (p->bytes == 1) out[at] = (uint8_t)v;
            else if (p->bytes == 2) ((uint16_t *)out)[at] = (uint16_t)v;
            else ((uint32_t *)out)[at] = (uint32_t)v;
        }
    }
}

/* Where the next file row goes: rows gather into whole strips, handed to
 * libtiff in one call each, so that its codecs see a strip at once (its
 * Deflate takes the faster one-shot compressor only then). */
static unsigned char *next_line(tiff_file *p) {
    return p->strips + (size_t)((uint32_t)p->next_row % p->rows_per_strip) * (size_t)p->line_bytes;
}

/* ---- Strips encoded on a helper thread ----
 * The helper writes each strip into a TIFF in memory of the same shape and
 * coding; the caller's thread copies the encoded bytes into the real file
 * as a raw strip, in strip order.  libtiff's codecs start afresh on every
 * strip, so the bytes are those it would have written itself.  The memory
 * TIFF is used by one thread at a time: each strip's thread is joined
 * before the next one starts. */

static tmsize_t memory_read(thandle_t h, void *buffer, tmsize_t size) {
    memory_file *m = (memory_file *)h;
    size_t n = m->at < m->size ? m->size - m->at : 0;
    if ((size_t)size < n) n = (size_t)size;
    memcpy(buffer, m->data + m->at, n);
    m->at += n;
    return (tmsize_t)n;
}
static tmsize_t memory_write(thandle_t h, void *buffer, tmsize_t size) {
    memory_file *m = (memory_file *)h;
    size_t end = m->at + (size_t)size;
    if (!buffer && size > 0) return -1;
    if (end > m->capacity) {
        size_t capacity = m->capacity ? m->capacity : 1u << 16;
        unsigned char *bigger;
        while (capacity < end) capacity *= 2;
        if (!(bigger = (unsigned char *)realloc(m->data, capacity))) {
            m->failed = 1;
            return -1;
        }
        m->data = bigger;
        m->capacity = capacity;
    }
    if (m->at > m->size) memset(m->data + m->size, 0, m->at - m->size);
    memcpy(m->data + m->at, buffer, (size_t)size);
    m->at = end;
    if (end > m->size) m->size = end;
    return size;
}
static toff_t memory_seek(thandle_t h, toff_t offset, int whence) {
    memory_file *m = (memory_file *)h;
    uint64_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? m->at : m->size;
    if (offset > (toff_t)1 << 40) return (toff_t)-1; /* strips are megabytes */
    m->at = (size_t)(base + offset);
    return (toff_t)m->at;
}
static int memory_close(thandle_t h) {
    (void)h;
    return 0;
}
static toff_t memory_size(thandle_t h) { return (toff_t)((memory_file *)h)->size; }
static int no_map(thandle_t h, void **base, toff_t *size);
static void no_unmap(thandle_t h, void *base, toff_t size);

/* The tags that decide how strips are laid out and encoded. */
static int strip_shape(TIFF *tif, const tiff_file *p) {
    const tiff_coding *c = &p->coding;
    return TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, (uint32_t)p->width) &&
           TIFFSetField(tif, TIFFTAG_IMAGELENGTH, (uint32_t)p->height) &&
           TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, (uint16_t)p->samples) &&
           TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, (uint16_t)(p->bytes * 8)) &&
           TIFFSetField(tif, TIFFTAG_SAMPLEFORMAT, (uint16_t)(p->is_float ? SAMPLEFORMAT_IEEEFP : SAMPLEFORMAT_UINT)) &&
           TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, (uint16_t)p->photometric) &&
           TIFFSetField(tif, TIFFTAG_PLANARCONFIG, (uint16_t)PLANARCONFIG_CONTIG) &&
           TIFFSetField(tif, TIFFTAG_COMPRESSION, (uint16_t)c->compression) &&
           (c->predictor == PREDICTOR_NONE || TIFFSetField(tif, TIFFTAG_PREDICTOR, (uint16_t)c->predictor)) &&
           (!c->level || TIFFSetField(tif, TIFFTAG_ZIPQUALITY, c->level)) &&
           TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, p->rows_per_strip);
}

/* Closes a TIFF in memory without writing its directory. */
static void drop_memory_tiff(TIFF *m) {
    TIFFSetMode(m, O_RDONLY); /* nothing more goes into the memory file */
    TIFFClose(m);
}

/* A TIFF writing into `out`, shaped like `p`; NULL when it cannot be made. */
static TIFF *memory_tiff(memory_file *out, const tiff_file *p) {
    TIFF *m = TIFFClientOpen("memory", "w", (thandle_t)out, memory_read, memory_write, memory_seek, memory_close,
                             memory_size, no_map, no_unmap);
    if (m && !strip_shape(m, p)) {
        drop_memory_tiff(m);
        m = NULL;
    }
    return m;
}

static void *encode_strip(void *data) {
    strip_job *j = (strip_job *)data;
    uint64_t *offsets = NULL, *counts = NULL;
    /* The last strip was taken: the file shrinks back to its 8-byte header.
     * (A strip must not start at offset 0: libtiff takes that for "not yet
     * placed" and would move a strip it flushes in several pieces.) */
    j->out.size = j->out.at = 8;
    j->out.failed = 0;
    j->encoded = NULL;
    clear_problem();
    if (TIFFWriteEncodedStrip(j->encoder, j->strip, j->rows, j->bytes) >= 0 && !j->out.failed &&
        TIFFGetField(j->encoder, TIFFTAG_STRIPOFFSETS, &offsets) &&
        TIFFGetField(j->encoder, TIFFTAG_STRIPBYTECOUNTS, &counts) && offsets && counts &&
        offsets[j->strip] <= j->out.size && counts[j->strip] <= j->out.size - offsets[j->strip]) {
        j->encoded = j->out.data + offsets[j->strip];
        j->encoded_bytes = (tmsize_t)counts[j->strip];
    } else {
        snprintf(j->why, sizeof j->why, "%s", problem(j->out.failed ? "out of memory" : "write failed"));
    }
    return NULL;
}

/* Helper threads pay when there is a codec to run and more than one strip:
 * as many as asked for, else one per core; as many as the image has strips
 * beyond the first, and as many as memory allows.  None: the caller's
 * thread encodes. */
static void start_encoders(tiff_file *p, size_t line_bytes) {
    long cores = sysconf(_SC_NPROCESSORS_ONLN);
    uint32_t strips = ((uint32_t)p->height + p->rows_per_strip - 1) / p->rows_per_strip;
    int k, wanted = p->coding.threads              ? p->coding.threads
                    : cores > MAX_ENCODERS ? MAX_ENCODERS
                    : cores < 1            ? 1
                                           : (int)cores;
    if (p->coding.compression != COMPRESSION_LZW && p->coding.compression != COMPRESSION_ADOBE_DEFLATE) return;
    if ((uint32_t)wanted > strips - 1) wanted = (int)(strips - 1);
    if (wanted < 2) return;
    for (k = 0; k < wanted; ++k) {
        strip_job *j = &p->jobs[k];
        if (!(j->rows = (unsigned char *)malloc(line_bytes * p->rows_per_strip + 16)) ||
            !(j->encoder = memory_tiff(&j->out, p)))
            break;
    }
    p->encoders = k >= 2 ? k : 0;
}

/* Writes the strip the job encoded.  0: failed, with the reason where
 * problem() finds it. */
static int write_encoded(tiff_file *p, const strip_job *j) {
    clear_problem();
    if (!j->encoded) {
        char *buffer = problem_buffer();
        if (buffer) snprintf(buffer, PROBLEM_SIZE, "%s", j->why);
        return 0;
    }
    return TIFFWriteRawStrip(p->tif, j->strip, (void *)j->encoded, j->encoded_bytes) >= 0;
}

/* Waits for the job's strip, if it has one, and writes it. */
static int finish_strip(tiff_file *p, strip_job *j) {
    if (!j->running) return 1;
    pthread_join(j->thread, NULL);
    j->running = 0;
    return write_encoded(p, j);
}

/* Writes every strip still on a helper thread, oldest first. */
static int finish_strips(tiff_file *p) {
    int k, ok = 1;
    for (k = 0; k < p->encoders; ++k) ok = finish_strip(p, &p->jobs[(p->next_job + k) % p->encoders]) && ok;
    return ok;
}

/* The size `lines` rows take encoded with `predictor`, or 0 when they
 * could not be encoded.  The rows are copied: the predictor works in place. */
static size_t trial_size(const tiff_file *p, int predictor, const unsigned char *rows, uint32_t lines) {
    tiff_file shape = *p;
    memory_file out = {0};
    uint64_t *counts = NULL;
    size_t size = 0, bytes = (size_t)lines * (size_t)p->line_bytes;
    unsigned char *copy = (unsigned char *)malloc(bytes);
    TIFF *m;
    shape.height = (int)lines;
    shape.rows_per_strip = lines;
    shape.coding.predictor = predictor;
    m = copy ? memory_tiff(&out, &shape) : NULL;
    if (m && (memcpy(copy, rows, bytes), TIFFWriteEncodedStrip(m, 0, copy, (tmsize_t)bytes) >= 0) && !out.failed &&
        TIFFGetField(m, TIFFTAG_STRIPBYTECOUNTS, &counts) && counts)
        size = (size_t)counts[0];
    if (m) drop_memory_tiff(m);
    free(out.data);
    free(copy);
    return size;
}

/* Left to choose, the predictor is the one that encodes a sample of the
 * first strip smaller: up to 128 rows (and 256 KiB) spread over it.
 * Smooth pictures shrink under the predictor; noise, clipped or flat
 * graphics often do better without.  Set on every TIFF that encodes.
 * 0 when the trial could not be made: a file does not change with the
 * memory at hand, so the write fails instead. */
static int choose_predictor(tiff_file *p, const unsigned char *rows, uint32_t lines) {
    uint32_t room = (uint32_t)((size_t)1 << 18) / (uint32_t)p->line_bytes, take = lines, k;
    size_t with, without;
    unsigned char *sample;
    int chosen, ok = 1;
    if (take > 128) take = 128;
    if (take > room) take = room ? room : 1;
    if (!(sample = (unsigned char *)malloc((size_t)take * (size_t)p->line_bytes))) {
        char *buffer = problem_buffer();
        if (buffer) snprintf(buffer, PROBLEM_SIZE, "out of memory");
        return 0;
    }
    for (k = 0; k < take; ++k)
        memcpy(sample + (size_t)k * (size_t)p->line_bytes,
               rows + (size_t)((uint64_t)k * lines / take) * (size_t)p->line_bytes, (size_t)p->line_bytes);
    with = trial_size(p, p->coding.predictor, sample, take);
    without = trial_size(p, PREDICTOR_NONE, sample, take);
    free(sample);
    p->coding.trial = 0;
    if (!with || !without) {
        char *buffer = problem_buffer();
        if (buffer && !buffer[0]) snprintf(buffer, PROBLEM_SIZE, "out of memory");
        return 0;
    }
    if (with <= without) return 1;
    chosen = p->coding.predictor = PREDICTOR_NONE;
    ok = TIFFSetField(p->tif, TIFFTAG_PREDICTOR, (uint16_t)chosen);
    for (k = 0; k < (uint32_t)p->encoders; ++k)
        ok = ok && TIFFSetField(p->jobs[k].encoder, TIFFTAG_PREDICTOR, (uint16_t)chosen);
    return ok;
}

/* Counts the row just put; writes the strip it completes, or hands it to
 * the helper thread.  0: failed. */
static int row_done(tiff_file *p) {
    uint32_t row = (uint32_t)p->next_row++, first = row - row % p->rows_per_strip;
    strip_job *j = &p->jobs[p->next_job];
    unsigned char *full = p->strips;
    if (row + 1 - first < p->rows_per_strip && p->next_row < p->height) return 1;
    clear_problem();
    if (p->coding.trial && !choose_predictor(p, p->strips, row + 1 - first)) return 0;
    if (!p->encoders) {
        clear_problem();
        return TIFFWriteEncodedStrip(p->tif, row / p->rows_per_strip, p->strips,
                                     (tmsize_t)(row + 1 - first) * p->line_bytes) >= 0;
    }
    if (!finish_strip(p, j)) return 0;
    p->strips = j->rows; /* the next rows gather in the buffer the job is done with */
    j->rows = full;
    p->next_job = (p->next_job + 1) % p->encoders;
    j->strip = row / p->rows_per_strip;
    j->bytes = (tmsize_t)(row + 1 - first) * p->line_bytes;
    if (pthread_create(&j->thread, NULL, encode_strip, j) == 0) {
        j->running = 1;
        return 1;
    }
    encode_strip(j); /* no thread to be had: encode it here */
    return write_encoded(p, j);
}

static int tiff_write_scan(void *data, int line, void ***rows, void **table) {
    tiff_file *p = (tiff_file *)data;
    int k, c, s = 0;
    (void)table;
    if (p->height - 1 - line != p->next_row) return bad_scanline();
    for (k = 0; k < 3; ++k)
        for (c = 0; c < p->groups[k].count; ++c, ++s)
            put_sample(p, next_line(p), &p->groups[k], (*rows)[s], s,
                       k == 0 && p->groups[k].type == PXF_C_INTEGER ? p->gamma : 1.0);
    if (p->failed || !row_done(p)) {
        p->failed = 1;
        report(p->path, problem("write failed"));
        pxf__err = PXF_E_FLUSH;
        return PXF_E_FLUSH;
    }
    return 0;
}

static int compression_code(const char *name) {
    /* "unknown" is what the library puts in when the caller chose nothing. */
    if (!name || !name[0] || !strcmp(name, "unknown") || !strcasecmp(name, "lzw")) return COMPRESSION_LZW;
    if (!strcasecmp(name, "none")) return COMPRESSION_NONE;
    if (!strcasecmp(name, "deflate") || !strcasecmp(name, "zip")) return COMPRESSION_ADOBE_DEFLATE;
    if (!strcasecmp(name, "packbits")) return COMPRESSION_PACKBITS;
    return -1;
}

/* Reads the caller's compression text; 0 with the reason in `why` when it
 * asks for something this driver cannot do.  Without a choice, LZW and
 * Deflate strips may go through the predictor that suits the samples: it
 * turns smooth ramps into runs of small differences, which both codecs
 * shrink to a fraction of the plain strip for little time.  Whether it
 * does is tried on the first strip (choose_predictor). */
static int choose_coding(const char *text, int is_float, tiff_coding *c, char *why, size_t why_size) {
    compression_text parsed;
    int k, predicting;
    if (!compression_parse(text, &parsed, why, why_size)) return 0;
    c->compression = compression_code(parsed.method);
    if (c->compression < 0) {
        snprintf(why, why_size, "unknown TIFF compression \"%s\" (none, lzw, deflate, packbits)", parsed.method);
        return 0;
    }
    predicting = c->compression == COMPRESSION_LZW || c->compression == COMPRESSION_ADOBE_DEFLATE;
    c->predictor = !predicting ? PREDICTOR_NONE : is_float ? PREDICTOR_FLOATINGPOINT : PREDICTOR_HORIZONTAL;
    c->trial = predicting;
    c->level = 0;
    c->threads = 0; /* as many as pay */
    for (k = 0; k < parsed.count; ++k) {
        const char *key = parsed.settings[k].key, *value = parsed.settings[k].value;
        if (!strcmp(key, "predictor")) {
            c->trial = 0;
            if (!strcasecmp(value, "none") || !strcmp(value, "1")) c->predictor = PREDICTOR_NONE;
            else if (!strcasecmp(value, "horizontal") || !strcmp(value, "2")) c->predictor = PREDICTOR_HORIZONTAL;
            else if (!strcasecmp(value, "float") || !strcmp(value, "3")) c->predictor = PREDICTOR_FLOATINGPOINT;
            else {
                snprintf(why, why_size, "unknown TIFF predictor \"%s\" (none, horizontal, float)", value);
                return 0;
            }
            if (c->predictor != PREDICTOR_NONE && !predicting) {
                snprintf(why, why_size, "a TIFF predictor needs LZW or Deflate compression");
                return 0;
            }
            if (c->predictor == PREDICTOR_FLOATINGPOINT && !is_float) {
                snprintf(why, why_size, "the float predictor needs float samples (use horizontal)");
                return 0;
            }
        } else if (!strcmp(key, "level")) {
            c->level = compression_integer(value, 1, 9);
            if (c->level < 0 || c->compression != COMPRESSION_ADOBE_DEFLATE) {
                snprintf(why, why_size, c->level < 0 ? "TIFF Deflate levels are 1 to 9, not \"%s\""
                                                     : "only TIFF Deflate takes a level (\"%s\")", value);
                return 0;
            }
        } else if (!strcmp(key, "threads")) {
            c->threads = compression_integer(value, 1, MAX_ENCODERS);
            if (c->threads < 0) {
                snprintf(why, why_size, "TIFF strips are encoded on 1 to %d threads, not \"%s\"", MAX_ENCODERS, value);
                return 0;
            }
        } else {
            snprintf(why, why_size, "TIFF has no compression setting \"%s\" (predictor, level, threads)", key);
            return 0;
        }
    }
    return 1;
}

/* Strips of about this many bytes.  Each one starts its codec afresh, so
 * small strips cost size (at 64 KiB, LZW files of rendered pictures are 2%
 * larger, Deflate files 1%; at 1 MiB, 0.15% larger than at 2 MiB) while
 * bigger ones cost no time.  2 MiB still keeps a reader's strip buffer,
 * and the writer's few (one per helper thread), small. */
#define STRIP_BYTES ((size_t)1 << 21)

static int put_text(TIFF *tif, uint32_t tag, const char *text) {
    if (text && text[0] && strcmp(text, "unknown") != 0) return TIFFSetField(tif, tag, text);
    return 1;
}

/* libtiff writes through the output's stream; the output owns it, so
 * closing the TIFF closes nothing. */
static tmsize_t stream_read(thandle_t h, void *buffer, tmsize_t size) {
    return (tmsize_t)fread(buffer, 1, (size_t)size, (FILE *)h);
}
static tmsize_t stream_write(thandle_t h, void *buffer, tmsize_t size) {
    size_t n;
    /* libtiff passes a null buffer when an allocation failed inside it. */
    if (!buffer && size > 0) return -1;
    n = fwrite(buffer, 1, (size_t)size, (FILE *)h);
    return n == (size_t)size ? size : -1;
}
static toff_t stream_seek(thandle_t h, toff_t offset, int whence) {
    FILE *f = (FILE *)h;
    if (fseeko(f, (off_t)offset, whence) != 0) return (toff_t)-1;
    return (toff_t)ftello(f);
}
static int stream_close(thandle_t h) {
    (void)h;
    return 0;
}
static toff_t stream_size(thandle_t h) {
    struct stat st;
    FILE *f = (FILE *)h;
    if (fflush(f) != 0 || fstat(fileno(f), &st) != 0) return 0;
    return (toff_t)st.st_size;
}
static int no_map(thandle_t h, void **base, toff_t *size) {
    (void)h, (void)base, (void)size;
    return 0;
}
static void no_unmap(thandle_t h, void *base, toff_t size) { (void)h, (void)base, (void)size; }

/* "Sun, 06 Nov 1994 08:49:37 GMT" as seconds since 1970. */
static int rfc1123_seconds(const char *text, time_t *seconds) {
    static const char months[] = "JanFebMarAprMayJunJulAugSepOctNovDec";
    int day, year, hour, minute, second, used = 0, m;
    long long y, days;
    char month[4] = {0};
    const char *at;
    if (sscanf(text, "%*3s, %2d %3s %4d %2d:%2d:%2d GMT%n", &day, month, &year, &hour, &minute, &second, &used) != 6 ||
        used != (int)strlen(text) || strlen(month) != 3 || !(at = strstr(months, month)) || (at - months) % 3)
        return 0;
    m = (int)(at - months) / 3 + 1;
    /* Days from 1970-01-01 to the civil date (proleptic Gregorian). */
    y = year - (m <= 2);
    days = 365 * y + y / 4 - y / 100 + y / 400 + (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + day - 1 - 719468;
    *seconds = (time_t)(days * 86400 + hour * 3600 + minute * 60 + second);
    return 1;
}

/* A write open that failed after the allocations: the code, then the report. */
static int setup_failed(tiff_file *p, int code, const char *what) {
    pxf__err = code;
    return open_failed(p, what);
}

int imageWriteOpen(PXF_IMAGE *image) {
    const char *path = image->info.handle;
    const PXF_IMAGE_DESC *d = image->info.images;
    const PXF_INFO *info = &image->info;
    uint16_t extra[MAX_SAMPLES];
    int k, s, bits = 8, any_float = 0, ok;
    tiff_coding coding;
    size_t line_bytes;
    time_t rfc_seconds = 0;
    tiff_file *p;
    char text[120];
    if (!path) return report("tiff", "no file name");
    if (image->info.num_images < 1 || !d) return report(path, "no image description");
    if (d->chan.count != 1 && d->chan.count != 3) {
        pxf__err = PXF_E_CANNOT_DO;
        return report(path, "TIFF stores 1 (grey) or 3 (RGB) colour channels");
    }
    if (d->chan.count + d->matte.count + d->aux.count > MAX_SAMPLES || d->matte.count < 0 || d->aux.count < 0) {
        pxf__err = PXF_E_CANNOT_DO;
        return report(path, "too many channels for TIFF");
    }
    for (k = 0; k < 3; ++k) {
        const PXF_CHAN_GROUP *g = k == 0 ? &d->chan : k == 1 ? &d->matte : &d->aux;
        if (g->count && (g->type == PXF_C_FLOAT || g->type == PXF_C_DOUBLE)) any_float = 1;
    }
    if (!choose_coding(info->compression, any_float, &coding, text, sizeof text)) {
        pxf__err = PXF_E_CANNOT_DO;
        return report(path, text);
    }
    p = attach(image, path);
    if (!p) return 0;
    p->writing = 1;
    p->groups[0] = d->chan;
    p->groups[1] = d->matte;
    p->groups[2] = d->aux;
    /* One sample type for the whole file: float when any group is float,
     * else the widest integer. */
    for (k = 0; k < 3; ++k) {
        const PXF_CHAN_GROUP *g = &p->groups[k];
        if (!g->count) continue;
        if (g->type == PXF_C_FLOAT || g->type == PXF_C_DOUBLE) any_float = 1;
        else if (g->type != PXF_C_INTEGER || g->width < 1 || g->width > 32) return open_failed(p, "bad channel type");
        else if (g->width > bits) bits = g->width > 16 ? 32 : 16;
    }
    p->is_float = any_float;
    p->gamma = d->curve.kind == PXF_CURVE_GAMMA && d->curve.gamma > 0.0f ? d->curve.gamma : 1.0;
    p->bytes = any_float ? 4 : bits / 8;
    p->width = d->window.right - d->window.left + 1;
    p->height = d->window.top - d->window.bottom + 1;
    p->samples = d->chan.count + d->matte.count + d->aux.count;
    if (p->width < 1 || p->height < 1) return open_failed(p, "empty image window");
    line_bytes = (size_t)p->width * (size_t)p->samples * (size_t)p->bytes;
    p->line_bytes = (tmsize_t)line_bytes;
    p->rows_per_strip = line_bytes >= STRIP_BYTES                       ? 1u
                        : STRIP_BYTES / line_bytes >= (size_t)p->height ? (uint32_t)p->height
                                                                        : (uint32_t)(STRIP_BYTES / line_bytes);
    p->strips = (unsigned char *)malloc(line_bytes * p->rows_per_strip + 16);
    if (!p->strips) return setup_failed(p, PXF_E_NO_MEMORY, "out of memory");
    p->coding = coding;
    p->photometric = d->chan.count == 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK;
    start_encoders(p, line_bytes);

    errno = 0;
    p->output = UTL_output_open(path);
    if (!p->output) return setup_failed(p, PXF_E_MISSING_FIELD, strerror(errno ? errno : EIO));
    clear_problem();
    p->tif = TIFFClientOpen(path, "w", (thandle_t)UTL_output_stream(p->output), stream_read, stream_write,
                            stream_seek, stream_close, stream_size, no_map, no_unmap);
    if (!p->tif) return setup_failed(p, PXF_E_NO_MEMORY, problem("cannot start the TIFF file (out of memory?)"));
    /* Any tag libtiff could not take (it allocates for most) fails the open:
     * a file with a tag missing would say something else than the image. */
    ok = strip_shape(p->tif, p) && TIFFSetField(p->tif, TIFFTAG_ORIENTATION, (uint16_t)ORIENTATION_TOPLEFT);
    if (ok && d->matte.count + d->aux.count > 0) {
        for (s = 0; s < d->matte.count + d->aux.count; ++s)
            extra[s] = s >= d->matte.count                          ? EXTRASAMPLE_UNSPECIFIED
                       : d->matte.extra == PXF_MATTE_UNASSOCIATED ? EXTRASAMPLE_UNASSALPHA
                                                                  : EXTRASAMPLE_ASSOCALPHA;
        ok = TIFFSetField(p->tif, TIFFTAG_EXTRASAMPLES, (uint16_t)(d->matte.count + d->aux.count), extra);
        /* libtiff reports success even when it could not copy the values:
         * read them back, or the mattes would be written as unspecified. */
        if (ok) {
            uint16_t count = 0, *stored = NULL;
            ok = TIFFGetField(p->tif, TIFFTAG_EXTRASAMPLES, &count, &stored) &&
                 count == (uint16_t)(d->matte.count + d->aux.count) && stored &&
                 memcmp(stored, extra, count * sizeof *stored) == 0;
        }
    }
    if (ok && d->chan.count == 3 && info->white_pt[1] > 0.0f && !(d->chan.extra & PXF_CHAN_PRIMARIES_ASSUMED)) {
        float primaries[6] = {info->red_pri[0],   info->red_pri[1],  info->green_pri[0],
                              info->green_pri[1], info->blue_pri[0], info->blue_pri[1]};
        float white[2] = {info->white_pt[0], info->white_pt[1]};
        ok = TIFFSetField(p->tif, TIFFTAG_PRIMARYCHROMATICITIES, primaries) &&
             TIFFSetField(p->tif, TIFFTAG_WHITEPOINT, white);
    }
    ok = ok && put_text(p->tif, TIFFTAG_DOCUMENTNAME, info->name) &&
         put_text(p->tif, TIFFTAG_IMAGEDESCRIPTION, info->desc) && put_text(p->tif, TIFFTAG_SOFTWARE, info->program) &&
         put_text(p->tif, TIFFTAG_ARTIST, info->user) && put_text(p->tif, TIFFTAG_HOSTCOMPUTER, info->machine);
    /* DateTime has a fixed form, "YYYY:MM:DD HH:MM:SS" in local time; the
     * library's own dates are "{seconds}", PNG's RFC 1123 dates. */
    if (!ok) {
    } else if (info->date && rfc1123_seconds(info->date, &rfc_seconds)) {
        char stamp[32];
        struct tm when;
        if (localtime_r(&rfc_seconds, &when) && strftime(stamp, sizeof stamp, "%Y:%m:%d %H:%M:%S", &when) == 19)
            ok = TIFFSetField(p->tif, TIFFTAG_DATETIME, stamp);
    } else if (info->date && strlen(info->date) == 19 && info->date[4] == ':' && info->date[10] == ' ') {
        ok = TIFFSetField(p->tif, TIFFTAG_DATETIME, info->date);
    } else if (info->date && info->date[0] == '{') {
        char stamp[32];
        struct tm when;
        time_t seconds = (time_t)strtoll(info->date + 1, NULL, 10);
        if (localtime_r(&seconds, &when) && strftime(stamp, sizeof stamp, "%Y:%m:%d %H:%M:%S", &when) == 19)
            ok = TIFFSetField(p->tif, TIFFTAG_DATETIME, stamp);
    }
    if (!ok || has_problem()) {
        /* libtiff (4.5) can leave a directory it cannot free when a tag's
         * allocation fails: freeing it crashes.  Out of memory at this
         * point, the structure is left behind rather than the process. */
        if (!ok) p->tif = NULL;
        return setup_failed(p, PXF_E_NO_MEMORY, problem("cannot set the TIFF tags (out of memory?)"));
    }
    image->scan = tiff_write_scan;
    return 1;
}

static int tiff_close(PXF_IMAGE *image) {
    tiff_file *p = image->private_data ? (tiff_file *)image->private_data[0] : NULL;
    int status = 0;
    if (p && p->writing && p->tif && p->failed) {
        report(p->path, "an earlier write failed; the file was not kept");
        status = -1;
    } else if (p && p->writing && p->tif) {
        if (p->next_row < p->height) {
            /* Stopped early: finish with zero rows so that the file stays whole. */
            ERR_printf(ERR_WARNING, "%s: %d scanlines not written, filled with zero", p->path,
                       p->height - p->next_row);
            while (p->next_row < p->height) {
                memset(next_line(p), 0, (size_t)p->line_bytes);
                if (!row_done(p)) break;
            }
        }
        clear_problem();
        if (p->next_row < p->height || !finish_strips(p) || !TIFFFlush(p->tif)) {
            report(p->path, problem("write failed"));
            status = -1;
        } else {
            UTL_OUTPUT *output = p->output; /* commit closes and frees it, even when failing */
            TIFFClose(p->tif);
            p->tif = NULL;
            p->output = NULL;
            errno = 0;
            if (UTL_output_commit(output) != 0) {
                report(p->path, errno ? strerror(errno) : "write failed");
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
