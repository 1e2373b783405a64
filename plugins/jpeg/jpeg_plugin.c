/*
 * JPEG image driver on libjpeg(-turbo): reads baseline and progressive
 * 8-bit grey, RGB (YCbCr) and CMYK files, writes grey and RGB.
 *
 * CMYK (and YCCK) files are converted to RGB on reading, and a note says
 * so.  The comment marker is the description's text (info.desc).  The EXIF
 * orientation is applied when the reader is asked to (an integer setting,
 * code 0, that is not zero in info.specific); the image then reads as it
 * should be shown.  On writing, a float setting (code 1) in info.specific is
 * the quality, 1 to 100 (default 90), and the compression "progressive"
 * writes a progressive file ("baseline" is the default).  An ICC profile
 * has no place in the description: it is left out on reading.
 *
 * libjpeg reports fatal errors through a longjmp back to the function that
 * set the jump buffer; every such function keeps nothing in its frame that
 * needs releasing, and the state lives in the driver record.
 */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <setjmp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <jpeglib.h>
#include <jerror.h>

#include <pxf/err.h>
#include <pxf/plugin.h>
#include <pxf/utl.h>

const char *version = PXF_PLUGIN_PROTOCOL;
const char *imageKey = "jpeg";
const char *imageExtension = ".jpg";
const char *imageName = "JPEG";
const char *imageDescription = "8-bit grey, RGB and (read) CMYK; baseline or progressive";
int imageOrientation = 0; /* scanlines top down */
int imageAccess = PXF_ACCESS_READ | PXF_ACCESS_WRITE;
int imageNumberOfChannels = 3;
int imageBitsPerChannel = 8;
int imageNumberOfMattes = 0;
int imageBitsPerMatte = 0;
int imageNumberOfZChannels = 0;
int imageBitsPerZChannel = 0;

/* Memory libjpeg may use for one image (progressive files and the whole
 * image kept for an orientation); hostile headers ask for far more. */
#define MEMORY_LIMIT (512L << 20)

typedef struct {
    struct jpeg_error_mgr err; /* first: libjpeg hands it back to us */
    jmp_buf jump;
    char message[JMSG_LENGTH_MAX + 40];
    int writing;
    int started; /* compression or decompression under way */
    struct jpeg_decompress_struct in;
    struct jpeg_compress_struct out;
    FILE *file;
    char *path;
    UTL_OUTPUT *output; /* when writing: renamed over the name only when complete */
    int width, height;     /* as delivered (after any orientation) */
    int file_width, file_height;
    int components;        /* in the file's decoded rows: 1, 3 or 4 */
    int channels;          /* delivered: 1 or 3 */
    int adobe_inverted;    /* CMYK stored inverted (Adobe) */
    int orientation;       /* EXIF orientation applied, 1 = none */
    int next_row;
    int bits;              /* caller's bits per element (writing) */
    JSAMPLE *row;          /* one decoded or encoded row */
    JSAMPLE *whole;        /* the whole image, when an orientation is applied */
    unsigned char *planes; /* delivered rows, one per channel */
    void *rows[3];
} jpeg_file;

static void fatal(j_common_ptr cinfo) {
    jpeg_file *p = (jpeg_file *)cinfo->err;
    char text[JMSG_LENGTH_MAX];
    (*cinfo->err->format_message)(cinfo, text);
    snprintf(p->message, sizeof p->message, "%s", text);
    longjmp(p->jump, 1);
}

/* Warnings are ignored, except data that ends early or breaks off: libjpeg
 * would pad the image with grey, so a few bytes could pass for a huge
 * picture, and a truncated file is damage. */
static void warned(j_common_ptr cinfo, int level) {
    int code = cinfo->err->msg_code;
    if (level < 0 && (code == JWRN_JPEG_EOF || code == JWRN_HIT_MARKER || code == JWRN_MUST_RESYNC ||
                      code == JWRN_NOT_SEQUENTIAL))
        fatal(cinfo);
}

static int report(const char *path, const char *what) {
    ERR_printf(ERR_ERROR, "%s: %s", path, what);
    return 0;
}

static int bad_scanline(void) {
    pxf__err = PXF_E_BAD_SCANLINE;
    return PXF_E_BAD_SCANLINE;
}

int imageIsFile(const char *path, void *stream) {
    unsigned char head[3];
    FILE *f = stream ? (FILE *)stream : fopen(path, "rb");
    int yes;
    if (!f) return 0;
    if (stream) rewind(f);
    yes = fread(head, 1, 3, f) == 3 && head[0] == 0xff && head[1] == 0xd8 && head[2] == 0xff;
    if (!stream) fclose(f);
    return yes;
}

static void release(jpeg_file *p) {
    if (p->writing) {
        if (p->started) jpeg_destroy_compress(&p->out);
    } else if (p->started) {
        jpeg_destroy_decompress(&p->in);
    }
    p->started = 0;
    if (p->output)
        UTL_output_abandon(p->output); /* never committed: the temporary file goes */
    else if (p->file)
        fclose(p->file);
    p->output = NULL;
    p->file = NULL;
    free(p->row);
    free(p->whole);
    free(p->planes);
    free(p->path);
    p->path = NULL;
    p->row = p->whole = NULL;
    p->planes = NULL;
}

static int jpeg_close(PXF_IMAGE *image);

static int open_failed(jpeg_file *p, const char *what) {
    report(p->path, what);
    release(p);
    return 0;
}

static jpeg_file *attach(PXF_IMAGE *image, const char *path) {
    jpeg_file *p = (jpeg_file *)calloc(1, sizeof *p);
    void **table = (void **)malloc(sizeof *table);
    if (!p || !table || !(p->path = strdup(path))) {
        free(p);
        free(table);
        pxf__err = PXF_E_NO_MEMORY;
        report(path, "out of memory");
        return NULL;
    }
    table[0] = p;
    image->private_data = table;
    image->close = jpeg_close;
    return p;
}

/* ---- Reading ---- */

static unsigned get16(const unsigned char *b, int little) { return little ? b[0] | b[1] << 8 : b[0] << 8 | b[1]; }

static unsigned get32(const unsigned char *b, int little) {
    return little ? (unsigned)b[0] | (unsigned)b[1] << 8 | (unsigned)b[2] << 16 | (unsigned)b[3] << 24
                  : (unsigned)b[0] << 24 | (unsigned)b[1] << 16 | (unsigned)b[2] << 8 | (unsigned)b[3];
}

/* The orientation tag of IFD0 of an EXIF block, 1 when there is none. */
static int exif_orientation(const unsigned char *data, unsigned size) {
    unsigned ifd, count, i;
    int little;
    if (size < 14 || memcmp(data, "Exif\0\0", 6) != 0) return 1;
    data += 6;
    size -= 6;
    if (data[0] == 'I' && data[1] == 'I') little = 1;
    else if (data[0] == 'M' && data[1] == 'M') little = 0;
    else return 1;
    ifd = get32(data + 4, little);
    if (ifd > size - 2 || size < 2) return 1;
    count = get16(data + ifd, little);
    for (i = 0; i < count; ++i) {
        unsigned at = ifd + 2 + 12 * i, value;
        if (at > size - 12) break;
        if (get16(data + at, little) != 0x0112) continue;
        value = get16(data + at + 8, little);
        return value >= 1 && value <= 8 ? (int)value : 1;
    }
    return 1;
}

static int wants_orientation(const PXF_INFO *info) {
    PXF_CAP_SETTING **s;
    if (!info->specific) return 0;
    for (s = info->specific; *s; ++s)
        if ((*s)->code == 0) return (*s)->value.integer != 0;
    return 0;
}

/* Reads the header and starts decompression. */
static int start_reading(jpeg_file *p) {
    if (setjmp(p->jump)) return 0;
    jpeg_create_decompress(&p->in);
    p->started = 1;
    p->in.mem->max_memory_to_use = MEMORY_LIMIT;
    jpeg_stdio_src(&p->in, p->file);
    jpeg_save_markers(&p->in, JPEG_COM, 0xffff);
    jpeg_save_markers(&p->in, JPEG_APP0 + 1, 0xffff);
    jpeg_read_header(&p->in, TRUE);
    switch (p->in.jpeg_color_space) {
    case JCS_GRAYSCALE: p->in.out_color_space = JCS_GRAYSCALE; break;
    case JCS_CMYK:
    case JCS_YCCK: p->in.out_color_space = JCS_CMYK; break;
    default: p->in.out_color_space = JCS_RGB; break;
    }
    jpeg_start_decompress(&p->in);
    return 1;
}

static int read_rows(jpeg_file *p, JSAMPLE *into, int count, size_t stride) {
    int i;
    if (setjmp(p->jump)) return 0;
    for (i = 0; i < count; ++i) {
        JSAMPROW row = into + (size_t)i * stride;
        if (jpeg_read_scanlines(&p->in, &row, 1) != 1) {
            snprintf(p->message, sizeof p->message, "the file ends early (truncated?)");
            return 0;
        }
    }
    return 1;
}

/* Decoded file row `src` (components per pixel) to the delivered planes. */
static void deliver(jpeg_file *p, const JSAMPLE *src) {
    int x, c, n = p->components;
    if (n < 4) {
        for (c = 0; c < n; ++c) {
            unsigned char *dst = p->planes + (size_t)c * (size_t)p->width;
            for (x = 0; x < p->width; ++x) dst[x] = src[(size_t)x * (size_t)n + (size_t)c];
        }
        return;
    }
    for (x = 0; x < p->width; ++x) {
        const JSAMPLE *px = src + (size_t)x * (size_t)n;
        if (n == 4) {
            /* CMYK to RGB: each ink takes away its share of the light. */
            unsigned k = p->adobe_inverted ? px[3] : 255u - px[3];
            for (c = 0; c < 3; ++c) {
                unsigned ink = p->adobe_inverted ? px[c] : 255u - px[c];
                p->planes[(size_t)c * (size_t)p->width + (size_t)x] = (unsigned char)((ink * k + 127) / 255);
            }
        } else {
            for (c = 0; c < n; ++c) p->planes[(size_t)c * (size_t)p->width + (size_t)x] = px[c];
        }
    }
}

static int jpeg_read_scan(void *data, int line, void ***rows, void **table) {
    jpeg_file *p = (jpeg_file *)data;
    int row = p->height - 1 - line, c;
    (void)table;
    if (row < 0 || row >= p->height) return bad_scanline();
    if (p->whole) {
        /* Oriented: out(x, y) comes from the file's pixel given by the EXIF rule. */
        int W = p->file_width, H = p->file_height, o = p->orientation, x;
        size_t n = (size_t)p->components;
        for (x = 0; x < p->width; ++x) {
            int sx, sy;
            switch (o) {
            case 2: sx = W - 1 - x, sy = row; break;
            case 3: sx = W - 1 - x, sy = H - 1 - row; break;
            case 4: sx = x, sy = H - 1 - row; break;
            case 5: sx = row, sy = x; break;
            case 6: sx = row, sy = H - 1 - x; break;
            case 7: sx = W - 1 - row, sy = H - 1 - x; break;
            default: sx = W - 1 - row, sy = x; break; /* 8 */
            }
            memcpy(p->row + (size_t)x * n, p->whole + ((size_t)sy * (size_t)W + (size_t)sx) * n, n);
        }
        deliver(p, p->row);
    } else {
        if (row != p->next_row) return bad_scanline(); /* the file reads in one pass */
        if (!read_rows(p, p->row, 1, 0)) {
            report(p->path, p->message);
            return bad_scanline();
        }
        ++p->next_row;
        deliver(p, p->row);
    }
    /* The caller gets our rows: its own array is left as it was. */
    for (c = 0; c < p->channels; ++c) p->rows[c] = p->planes + (size_t)c * (size_t)p->width;
    *rows = p->rows;
    return 0;
}

static void take_text(char **field, const char *text) {
    char *copy = strdup(text);
    if (!copy) return;
    free(*field);
    *field = copy;
}

static void set_group(PXF_CHAN_GROUP *g, const char *format, int count, int width) {
    g->format = format && count ? strdup(format) : NULL;
    g->count = count;
    g->type = PXF_C_INTEGER;
    g->width = width;
}

int imageReadOpen(PXF_IMAGE *image) {
    const char *path = image->info.handle;
    jpeg_saved_marker_ptr m;
    PXF_IMAGE_DESC *d;
    jpeg_file *p;
    char text[200];
    if (!path) return report("jpeg", "no file name");
    p = attach(image, path);
    if (!p) return 0;
    d = (PXF_IMAGE_DESC *)calloc(1, sizeof *d);
    if (!d) return open_failed(p, "out of memory");
    image->info.images = d;
    image->info.num_images = 1;
    p->file = fopen(path, "rb");
    if (!p->file) return open_failed(p, strerror(errno));
    if (!imageIsFile(path, p->file)) return open_failed(p, "not a JPEG file");
    rewind(p->file);
    p->in.err = jpeg_std_error(&p->err);
    p->err.error_exit = fatal;
    p->err.emit_message = warned;
    if (!start_reading(p)) return open_failed(p, p->message);
    if (p->in.data_precision != 8) return open_failed(p, "only 8-bit JPEG files are supported");
    {
        /* Every 8 x 8 block costs at least one bit of coded data, so a file
         * holds at most 512 pixels per byte; a frame far beyond that is a
         * damaged header, which libjpeg would fill with grey at length. */
        struct stat st;
        double pixels = (double)p->in.image_width * (double)p->in.image_height;
        if (fstat(fileno(p->file), &st) == 0 && pixels > 1024.0 * (double)st.st_size + 1048576.0)
            return open_failed(p, "the frame is larger than the file's data could hold (damaged header?)");
    }
    p->components = p->in.output_components;
    p->channels = p->components == 1 ? 1 : 3;
    p->adobe_inverted = p->components == 4 && p->in.saw_Adobe_marker;
    p->file_width = (int)p->in.output_width;
    p->file_height = (int)p->in.output_height;
    p->orientation = 1;
    for (m = p->in.marker_list; m; m = m->next) {
        if (m->marker == JPEG_COM && m->data_length > 0) {
            size_t n = m->data_length;
            char *comment = (char *)malloc(n + 1);
            if (!comment) continue;
            memcpy(comment, m->data, n);
            comment[n] = '\0';
            while (n > 0 && (comment[n - 1] == '\0' || comment[n - 1] == '\n')) comment[--n] = '\0';
            if (n) take_text(&image->info.desc, comment);
            free(comment);
        } else if (m->marker == JPEG_APP0 + 1 && wants_orientation(&image->info)) {
            p->orientation = exif_orientation(m->data, m->data_length);
        }
    }
    p->width = p->orientation >= 5 ? p->file_height : p->file_width;
    p->height = p->orientation >= 5 ? p->file_width : p->file_height;
    p->row = (JSAMPLE *)malloc((size_t)(p->width > p->file_width ? p->width : p->file_width) * (size_t)p->components + 16);
    p->planes = (unsigned char *)malloc((size_t)p->width * (size_t)p->channels + 16);
    if (!p->row || !p->planes) return open_failed(p, "out of memory");
    if (p->orientation != 1) {
        size_t bytes = (size_t)p->file_width * (size_t)p->file_height * (size_t)p->components;
        if (bytes > (size_t)MEMORY_LIMIT) return open_failed(p, "the image is too large to turn upright");
        p->whole = (JSAMPLE *)malloc(bytes);
        if (!p->whole) return open_failed(p, "out of memory");
        if (!read_rows(p, p->whole, p->file_height, (size_t)p->file_width * (size_t)p->components))
            return open_failed(p, p->message);
    }

    d->image_kind = 1;
    d->curve.kind = PXF_CURVE_GAMMA;
    d->curve.gamma = 2.2f; /* JPEG has no gamma: the usual display encoding */
    d->window.right = p->width - 1;
    d->window.top = p->height - 1;
    d->active_window = d->window;
    d->x_res = p->width;
    d->y_res = p->height;
    d->aspect_ratio = (float)p->width / (float)p->height;
    if (p->in.X_density > 0 && p->in.Y_density > 0 && p->in.X_density != p->in.Y_density)
        d->aspect_ratio *= p->orientation >= 5 ? (float)p->in.X_density / (float)p->in.Y_density
                                               : (float)p->in.Y_density / (float)p->in.X_density;
    d->step = 1;
    d->orientation = 0;
    set_group(&d->chan, p->channels == 3 ? "rgb" : "grey", p->channels, 8);
    set_group(&d->matte, NULL, 0, 8);
    set_group(&d->aux, NULL, 0, 8);
    set_group(&d->index, NULL, 0, 16);
    snprintf(text, sizeof text, "%s%s", jpeg_has_multiple_scans(&p->in) ? "progressive" : "baseline",
             p->components == 4 ? ", CMYK converted to RGB" : "");
    take_text(&image->info.compression, text);
    if (p->components == 4) ERR_printf(ERR_WARNING, "%s: CMYK converted to RGB", path);
    image->scan = jpeg_read_scan;
    return 1;
}

/* ---- Writing ---- */

static int start_writing(jpeg_file *p, int quality, int progressive, const char *comment) {
    if (setjmp(p->jump)) return 0;
    jpeg_create_compress(&p->out);
    p->started = 1;
    jpeg_stdio_dest(&p->out, p->file);
    p->out.image_width = (JDIMENSION)p->width;
    p->out.image_height = (JDIMENSION)p->height;
    p->out.input_components = p->channels;
    p->out.in_color_space = p->channels == 3 ? JCS_RGB : JCS_GRAYSCALE;
    jpeg_set_defaults(&p->out);
    jpeg_set_quality(&p->out, quality, TRUE);
    if (progressive) jpeg_simple_progression(&p->out);
    jpeg_start_compress(&p->out, TRUE);
    if (comment) jpeg_write_marker(&p->out, JPEG_COM, (const JOCTET *)comment, (unsigned)strlen(comment));
    return 1;
}

static int write_row(jpeg_file *p) {
    JSAMPROW row = p->row;
    if (setjmp(p->jump)) return 0;
    jpeg_write_scanlines(&p->out, &row, 1);
    ++p->next_row;
    return 1;
}

static int finish(jpeg_file *p) {
    if (setjmp(p->jump)) return 0;
    jpeg_finish_compress(&p->out);
    return 1;
}

static unsigned to_byte(const void *row, int bits, int x) {
    uint32_t v = bits <= 8 ? ((const uint8_t *)row)[x] : ((const uint16_t *)row)[x];
    uint32_t top = (1u << bits) - 1;
    if (bits == 8) return v;
    if (v > top) v = top;
    return (unsigned)((v * 255u + top / 2) / top);
}

static int jpeg_write_scan(void *data, int line, void ***rows, void **table) {
    jpeg_file *p = (jpeg_file *)data;
    int x, c;
    (void)table;
    if (p->height - 1 - line != p->next_row) return bad_scanline();
    if (p->bits == 8 && p->channels == 3) {
        /* The common case in one pass. */
        const uint8_t *r = (const uint8_t *)(*rows)[0], *g = (const uint8_t *)(*rows)[1], *b = (const uint8_t *)(*rows)[2];
        JSAMPLE *dst = p->row;
        for (x = 0; x < p->width; ++x, dst += 3) dst[0] = r[x], dst[1] = g[x], dst[2] = b[x];
    } else {
        for (c = 0; c < p->channels; ++c) {
            JSAMPLE *dst = p->row + c;
            for (x = 0; x < p->width; ++x) dst[x * p->channels] = (JSAMPLE)to_byte((*rows)[c], p->bits, x);
        }
    }
    if (!write_row(p)) {
        report(p->path, p->message);
        pxf__err = PXF_E_FLUSH;
        return PXF_E_FLUSH;
    }
    return 0;
}

static int quality_of(const PXF_INFO *info) {
    PXF_CAP_SETTING **s;
    if (info->specific)
        for (s = info->specific; *s; ++s)
            if ((*s)->code == 1) return (*s)->value.real >= 1.0f && (*s)->value.real <= 100.0f ? (int)((*s)->value.real + 0.5f) : -1;
    return 90;
}

static int usable_text(const char *s) { return s && s[0] && strcmp(s, "unknown") != 0; }

int imageWriteOpen(PXF_IMAGE *image) {
    const char *path = image->info.handle;
    const PXF_IMAGE_DESC *d = image->info.images;
    const char *compression = image->info.compression;
    int quality, progressive;
    jpeg_file *p;
    if (!path) return report("jpeg", "no file name");
    if (image->info.num_images < 1 || !d) return report(path, "no image description");
    pxf__err = PXF_E_CANNOT_DO;
    if (d->chan.count != 1 && d->chan.count != 3) return report(path, "JPEG stores 1 (grey) or 3 (RGB) colour channels");
    if (d->chan.type != PXF_C_INTEGER || d->chan.width < 1 || d->chan.width > 16)
        return report(path, "JPEG stores 1 to 16-bit integer colour channels only (scaled to 8 bits)");
    if (d->matte.count > 0 || d->aux.count > 0) return report(path, "JPEG has no place for matte or auxiliary channels");
    quality = quality_of(&image->info);
    if (quality < 0) return report(path, "JPEG quality must be 1 to 100");
    progressive = usable_text(compression) && !strcasecmp(compression, "progressive");
    if (usable_text(compression) && !progressive && strcasecmp(compression, "baseline") != 0)
        return report(path, "unknown JPEG compression (baseline, progressive)");
    pxf__err = 0;
    p = attach(image, path);
    if (!p) return 0;
    p->writing = 1;
    p->width = d->window.right - d->window.left + 1;
    p->height = d->window.top - d->window.bottom + 1;
    if (p->width < 1 || p->height < 1 || p->width > JPEG_MAX_DIMENSION || p->height > JPEG_MAX_DIMENSION)
        return open_failed(p, "JPEG sides are 1 to 65500 pixels");
    p->channels = d->chan.count;
    p->bits = d->chan.width;
    p->row = (JSAMPLE *)malloc((size_t)p->width * (size_t)p->channels + 16);
    if (!p->row) return open_failed(p, "out of memory");
    /* Written under a temporary name, renamed into place when complete. */
    errno = 0;
    p->output = UTL_output_open(path);
    if (!p->output) return open_failed(p, strerror(errno ? errno : EIO));
    p->file = UTL_output_stream(p->output);
    p->out.err = jpeg_std_error(&p->err);
    p->err.error_exit = fatal;
    p->err.emit_message = warned;
    if (!start_writing(p, quality, progressive, usable_text(image->info.desc) ? image->info.desc : NULL))
        return open_failed(p, p->message);
    image->scan = jpeg_write_scan;
    return 1;
}

static int jpeg_close(PXF_IMAGE *image) {
    jpeg_file *p = image->private_data ? (jpeg_file *)image->private_data[0] : NULL;
    int status = 0;
    if (p && p->writing && p->started) {
        if (p->next_row < p->height) {
            ERR_printf(ERR_WARNING, "%s: %d scanlines not written, filled with zero", p->path, p->height - p->next_row);
            memset(p->row, 0, (size_t)p->width * (size_t)p->channels);
            while (p->next_row < p->height)
                if (!write_row(p)) break;
        }
        int ok = p->next_row == p->height && finish(p);
        ok = fflush(p->file) == 0 && ok;
        if (!ok) {
            report(p->path, p->message[0] ? p->message : "write failed");
            status = -1;
        } else {
            UTL_OUTPUT *output = p->output; /* commit closes and frees it, even when failing */
            p->output = NULL;
            p->file = NULL;
            errno = 0;
            if (UTL_output_commit(output) != 0) {
                report(p->path, errno ? strerror(errno) : "write failed");
                status = -1;
            }
        }
    }
    if (p) release(p);
    pxf__free_obj(image);
    if (status) pxf__err = PXF_E_FLUSH;
    return status;
}
