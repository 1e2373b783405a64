/*
 * Image files: description, driver registry, open, scan, seek and close.
 *
 * An application describes an image in a PXF_INFO (always start with
 * PXF_info_init or PXF_info_alloc), opens it with PXF_open in mode "r" or
 * "w", moves scanlines with PXF_scan_read / PXF_scan_write and closes it
 * with PXF_close.  Drivers come from plug-in libraries handed to PXF_init
 * (PXF_load_plugins loads them from directories) and from the drivers built
 * into the library ("pipe", "mem", ...).
 *
 * Scanlines.  A scanline number is a row of the image's window, in window
 * coordinates: window.bottom is the lowest row and window.top the highest
 * (with the default window, 0 is the bottom row).  The order in which a
 * driver stores rows is bit 0 of PXF_IMAGE_DESC.orientation (also the
 * driver record's `orientation`): 0 means its files run top down (window.top
 * first), 1 bottom up (window.bottom first).  Writers take every row of the
 * window once, in the driver's order.  Readers of the built-in "rla" and
 * "mem" drivers and of the shipped "tiff" plug-in take rows in any order;
 * other plug-in readers may read only in order (the shipped "png", "jpeg"
 * and "exr" readers do) - stack PXF__raster for
 * random access, or PXF_seek back.  A driver record with both
 * PXF_ACCESS_READ and PXF_ACCESS_RANDOM (<pxf/plugin.h>) reads in any
 * order.
 *
 * Failures.  A call that fails returns a negative code (or null), reports
 * through the ERR_ handler chain and leaves the code in pxf__err.  -2
 * (PXF_E_BAD_SCANLINE) means the scanline was refused: outside the window,
 * out of the driver's order, or unreadable in the file; a refusal is always
 * reported with a message naming the row.
 *
 * Threads.  The library starts no thread.  PXF_init (or PXF_load_plugins)
 * must return before other threads call the library; afterwards:
 *   - PXF_open and PXF_close of different images may run at once: they are
 *     serialised by the process-wide open lock, which also guards the
 *     registry while a driver is chosen.
 *   - Scans on different images run concurrently; scans on one image are
 *     serialised by the image's own lock (held for the whole scan, operators
 *     included).  Lock order: an image's lock, then the open lock.
 *   - Installing or removing operators on an image, PXF_info / PXF_find
 *     (they share one list position), the name-syntax and pathname
 *     functions (one scratch buffer), pxf__build_handle (a static buffer),
 *     the defaults databases (FMT_, FB_, CLR_) and the configuration reader
 *     (CFG_) are not guarded: one thread at a time.
 *   - pxf__err is one process-wide variable that every failing thread
 *     writes; a threaded application reads PXF_last_error instead, which
 *     holds the calling thread's own code and message.
 *   - ERR_ reports are serialised only when the application lends a mutex
 *     through ERR_report_mp; handlers run on the reporting thread.
 */
#ifndef PXF_PXF_H
#define PXF_PXF_H

#include <nl_types.h>
#include <pthread.h>

#include "common.h"

PXF_BEGIN_DECLS

/* The version of these headers; PXF_version() gives the library's. */
#define PXF_VERSION_MAJOR 0
#define PXF_VERSION_MINOR 1
#define PXF_VERSION_PATCH 0
/* One number for comparisons: 10000 * major + 100 * minor + patch. */
#define PXF_VERSION_NUMBER (PXF_VERSION_MAJOR * 10000 + PXF_VERSION_MINOR * 100 + PXF_VERSION_PATCH)

/* "MAJOR.MINOR.PATCH" of the library actually loaded (a static string). */
PXF_API const char *PXF_version(void);

/* Reason for the last failure of any thread: a negative code (see the codes
 * below).  Process-wide: another thread may overwrite it at any time. */
PXF_API extern int pxf__err;
/* The message catalogue handed to PXF_init; null means the built-in texts. */
PXF_API extern nl_catd pxf__msg_cat;

/* Codes left in pxf__err. */
#define PXF_E_FIELD_MISMATCH (-1)
#define PXF_E_BAD_SCANLINE (-2)
#define PXF_E_UNKNOWN_TYPE (-4)
#define PXF_E_MISSING_FIELD (-5)
#define PXF_E_NO_MEMORY (-10)
#define PXF_E_CANNOT_DO (-16)
#define PXF_E_FLUSH (-20)

/*
 * The calling thread's last error: its code (0 when this thread has had no
 * error since it started or since PXF_clear_last_error) and, when `message`
 * is not null, its text in *message ("" when none; the text belongs to the
 * library and stays valid on this thread until its next error report).
 * Every error report the thread makes (severity ERROR or FATAL, masked or
 * not) replaces it; successful calls leave it alone.  When a failure was
 * reported without a code of its own, the code is the one pxf__err holds at
 * the time of the first PXF_last_error call after it.
 */
PXF_API int PXF_last_error(const char **message);
PXF_API void PXF_clear_last_error(void);

/* Element types of a channel group. */
#define PXF_C_INTEGER 1 /* unsigned integer of `width` bits in 1, 2 or 4 bytes */
#define PXF_C_FLOAT 2   /* 32-bit float */
#define PXF_C_DOUBLE 3  /* 64-bit float */

/* init_magic of an initialised PXF_INFO. */
#define PXF_INFO_MAGIC 22839

/* PXF_IMAGE.mode */
#define PXF_MODE_READ 4
#define PXF_MODE_WRITE 8

/* Response curve kinds. */
#define PXF_CURVE_GAMMA 1 /* analytic: a gamma exponent */
#define PXF_CURVE_TABLE 2 /* one lookup table per channel */

/* Capability setting codes. */
#define PXF_CAP_INTEGER 0
#define PXF_CAP_FLOAT 1
#define PXF_CAP_NONE 65535

struct PXF_IMAGE;
struct PXF_TYPE;

/* How stored values relate to light: a gamma, or a table per channel. */
typedef struct PXF_RESPONSE_CURVE {
    int32_t kind;     /* PXF_CURVE_GAMMA or PXF_CURVE_TABLE */
    float gamma;
    void *reserved;
    int32_t channels; /* number of tables */
    int32_t entries;  /* table length */
    int32_t type;     /* PXF_C_INTEGER or PXF_C_FLOAT: element type of the tables */
    int32_t bits;     /* bits per integer value */
    void **tables;    /* one per channel, all in one block owned by tables[0] */
} PXF_RESPONSE_CURVE;

/* One channel group of an image. */
typedef struct PXF_CHAN_GROUP {
    char *format;  /* channel format name ("rgb", "xyz", ...) */
    int32_t count; /* number of channels */
    int32_t type;  /* PXF_C_INTEGER, PXF_C_FLOAT or PXF_C_DOUBLE */
    int32_t width; /* bits per element */
    int32_t extra; /* how to take the values: PXF_MATTE_* of the matte group,
                      PXF_CHAN_* bits of the colour group; 0 elsewhere */
} PXF_CHAN_GROUP;

/*
 * Mattes.  A matte is coverage, and the colour of a pixel is by convention
 * premultiplied by it (associated): a pixel half covered by red holds 0.5
 * red and matte 0.5, as renderers deliver it.  `matte.extra` says which
 * meaning an image's colour has; 0 (unspecified) is taken as associated.
 * Readers set it from the file (TIFF's extra-sample tag; PNG files are
 * always unassociated; RLA files associated) and writers store it or
 * convert: the PNG writer divides associated colour by the matte, leaving
 * the colour of a pixel whose matte is 0 as it is; the TIFF writer labels
 * the mattes to match.  Auxiliary channels are never touched.
 */
#define PXF_MATTE_UNSPECIFIED 0  /* not said: associated */
#define PXF_MATTE_ASSOCIATED 1   /* colour premultiplied by the matte */
#define PXF_MATTE_UNASSOCIATED 2 /* colour independent of the matte */

/*
 * What the file did not say.  A reader that fills in a default for a
 * property its file left out sets these bits in `chan.extra` (the PNG
 * reader assumes gamma 2.2 without gAMA and the default primaries without
 * cHRM); a writer does not record a property whose bit is set, so a
 * conversion does not stamp defaults on a file that had none.  Whoever
 * changes the property (a gamma correction, other primaries) clears the
 * bit.
 */
#define PXF_CHAN_GAMMA_ASSUMED 1     /* curve.gamma is a default */
#define PXF_CHAN_PRIMARIES_ASSUMED 2 /* the info's primaries and white are defaults */

/* Inclusive bounds: width = right - left + 1. */
typedef struct PXF_BOUNDS {
    int32_t left, right, bottom, top;
} PXF_BOUNDS;

/* One image of a file. */
typedef struct PXF_IMAGE_DESC {
    int32_t image_kind; /* 1 for the first image of a file, 2 for the others */
    PXF_RESPONSE_CURVE curve;
    char *aspect;       /* format name in the format defaults */
    int32_t x_res, y_res;
    float aspect_ratio;
    PXF_BOUNDS window;
    PXF_BOUNDS active_window;
    int32_t step;
    int32_t orientation; /* bit 0: scanlines come bottom up */
    PXF_CHAN_GROUP chan;
    PXF_CHAN_GROUP matte;
    PXF_CHAN_GROUP aux;
    PXF_CHAN_GROUP index;
} PXF_IMAGE_DESC;

/* A type-specific setting: an integer (code 0) or a float (code 1). */
typedef struct PXF_CAP_SETTING {
    uint16_t code;
    union {
        int32_t integer;
        float real;
    } value;
} PXF_CAP_SETTING;

/* One palette entry. */
typedef struct PXF_LUT_ENTRY {
    uint16_t red, green, blue, flags;
} PXF_LUT_ENTRY;

typedef struct PXF_LUT {
    PXF_LUT_ENTRY *entries;
    int32_t maximum; /* highest used index */
    uint32_t count;  /* allocated entries */
    float gamma;
} PXF_LUT;

/* The image description. */
typedef struct PXF_INFO {
    char *key;           /* driver key; null: chosen by the file name */
    char *handle;        /* file name */
    uint8_t option_flag;
    char *name;
    char *ext;
    char *desc;
    char *program;
    char *machine;
    char *user;
    char *date;
    char *text_a;
    char *text_b;
    char *compression;
    PXF_CAP_SETTING **specific; /* null-terminated settings list */
    uint8_t flag_b;
    uint64_t value_b;
    int32_t job_num;     /* 0: taken from QV_JOB_NUM */
    int32_t frame;
    int32_t frame_extra;
    uint32_t init_magic; /* PXF_INFO_MAGIC while initialised */
    float red_pri[3];
    float green_pri[3];
    float blue_pri[3];
    float white_pt[3];
    int32_t num_images;
    PXF_IMAGE_DESC *images;
    int32_t frame_step;
    float frame_rate;
    int32_t field_a, field_b, field_c;
    uint8_t open_flag;
    uint64_t value_c, value_d, value_e;
    uint8_t reserved[16];
} PXF_INFO;

/*
 * Scan function: private data, scanline, pointer to the caller's array of
 * channel-row pointers, the handle's private-data array.  0 or negative.
 */
typedef int (*PXF_SCAN_FN)(void *private_data, int line, void ***rows, void **private_table);
typedef int (*PXF_CLOSE_FN)(struct PXF_IMAGE *image);
typedef int (*PXF_SEEK_FN)(void *private_data, int line);
typedef int (*PXF_LUT_READ_FN)(void *private_data, PXF_LUT **lut);
typedef int (*PXF_DIRECT_SCAN_FN)(void *private_data, int line, void *buffer, int64_t arg,
                                  int count, float value);
/* A slot whose signature belongs to the layer that fills it. */
typedef void (*PXF_SLOT_FN)(void);

/* An open image. */
typedef struct PXF_IMAGE {
    void **private_data; /* element 0 goes to every driver function */
    PXF_INFO info;
    int32_t mode;        /* PXF_MODE_READ or PXF_MODE_WRITE */
    PXF_LUT_READ_FN lut_read;
    PXF_SCAN_FN scan;
    PXF_CLOSE_FN close;
    PXF_SLOT_FN get_region;
    PXF_SLOT_FN get_frame;
    PXF_SLOT_FN set_frame;
    PXF_SLOT_FN playback;
    PXF_SLOT_FN field;
    PXF_SLOT_FN slot_f;
    PXF_SLOT_FN slot_g;
    PXF_SLOT_FN slot_h;
    PXF_SLOT_FN slot_i;
    PXF_SEEK_FN seek;
    int32_t current_line; /* last scanline read or written */
    struct PXF_TYPE *driver;
    PXF_DIRECT_SCAN_FN direct_scan;
    pthread_mutex_t lock;
} PXF_IMAGE;

/* Driver functions. */
typedef int (*PXF_INIT_FN)(void);
typedef int (*PXF_OPEN_FN)(PXF_IMAGE *image);
typedef int (*PXF_IS_FILE_FN)(const char *path, void *arg);
typedef int (*PXF_CAPABILITY_FN)(PXF_CAP_SETTING ***settings, int *a, int *b, int *c);
typedef int (*PXF_DRIVER_FN)(void *arg);

/*
 * One driver: a plug-in's image... symbols, or a built-in driver.  The same
 * record is used for the entries of pxf__type_list_dso and for the records
 * of the registry list (where `next` links them).
 */
typedef struct PXF_TYPE {
    struct PXF_TYPE *next;
    int32_t builtin;
    const char *version;
    const char *key;
    const char *extension;
    const char *name;
    const char *description;
    const char *format_string;
    const char *name_syntax;
    int32_t add_extension;
    int32_t usage;
    int32_t orientation;
    int32_t bits_per_palette_entry;
    int32_t number_of_channels;
    int32_t bits_per_channel;
    int32_t number_of_mattes;
    int32_t bits_per_matte;
    int32_t number_of_z_channels;
    int32_t bits_per_z_channel;
    int32_t supports_active_window;
    int32_t access;
    int32_t multi_frame;
    uint8_t hard_link_duplicates;
    uint8_t supports_remote_access;
    PXF_CAPABILITY_FN capability;
    PXF_DRIVER_FN caps_avail_update;
    PXF_OPEN_FN read_open;
    PXF_OPEN_FN write_open;
    PXF_DRIVER_FN done;
    PXF_IS_FILE_FN is_file;
    PXF_DRIVER_FN private_ui_popup;
    PXF_DRIVER_FN private_ui_popdown;
    /* When text_number is non-zero the description is catalogue text
     * (text_set, text_number) with `description` as its default. */
    int32_t text_set;
    int32_t text_number;
} PXF_TYPE;

/* Enumerator: delivers one loaded plug-in library per call (its dlopen handle
 * and a name used in messages, which need only last until the next call) and
 * returns non-zero; returns 0 when there are no more.  A null handle is
 * passed over. */
typedef int (*PXF_ENUMERATOR)(void **library, const char **name);

/* ---- Image description ---- */

/* Byte size of the data block of the most recent pxf__chan_alloc. */
PXF_API extern int chan_alloc_size;
/* Largest number of type-specific input / output settings of any driver. */
PXF_API extern int pxf__specific_input_max;
PXF_API extern int pxf__specific_output_max;

PXF_API void PXF_info_init(PXF_INFO *info);
PXF_API PXF_INFO *PXF_info_alloc(void);
PXF_API void PXF_info_cleanup(PXF_INFO *info, int free_fields);
/* Always returns null: info = PXF_info_free(info, 1). */
PXF_API PXF_INFO *PXF_info_free(PXF_INFO *info, int free_fields);
PXF_API void PXF_info_num_specific(int *input, int *output);
PXF_API void PXF_info_get_specific(const char *key, PXF_TYPE *entry, PXF_CAP_SETTING ***settings,
                                   int *a, int *b, int *c);

/* Channel buffers: one row pointer per channel (image, matte, aux, index)
 * over one zero-filled block; rows are padded to 8 bytes. */
PXF_API void **pxf__chan_alloc(PXF_IMAGE_DESC *desc, int pixels, const char *name);
PXF_API void **PXF_chan_alloc(PXF_IMAGE_DESC *desc, int pixels, const char *name, int *size);
PXF_API int pxf__chan_free(void **buffer);
PXF_API int PXF_chan_free(void **buffer);
PXF_API int pxf__chan_copy_byte(void **dst, void **src, int channels, int elements);
PXF_API int pxf__chan_copy_short(void **dst, void **src, int channels, int elements);
PXF_API int pxf__chan_copy_long(void **dst, void **src, int channels, int elements);

PXF_API PXF_LUT *PXF_lut_alloc(uint32_t count);
PXF_API PXF_LUT *PXF_lut_free(PXF_LUT *lut);
PXF_API PXF_LUT *PXF_lut_copy(const PXF_LUT *lut);
PXF_API PXF_LUT *PXF_lut_realloc(PXF_LUT *lut, uint32_t count);
PXF_API int PXF_lut_read(PXF_IMAGE *image, PXF_LUT **lut);

PXF_API PXF_CAP_SETTING *PXF_cap_setting_alloc(int count);
PXF_API PXF_CAP_SETTING **PXF_cap_setting_copy(PXF_CAP_SETTING **settings);
PXF_API int PXF_cap_setting_compare(PXF_CAP_SETTING **a, PXF_CAP_SETTING **b);


/* ---- Open, scan, seek and close ---- */

/* Opens info->handle ("r") or creates it ("w") through the driver named by
 * info->key, else by the name's extension, else the default key.  Null on
 * failure, with the reason reported and in pxf__err. */
PXF_API PXF_IMAGE *PXF_open(PXF_INFO *info, const char *mode);
/* One scanline (window coordinates, see the top of this header).  `rows`
 * points at the caller's array of channel-row pointers (PXF_chan_alloc); a
 * read may replace the array with the driver's or an operator's own rows,
 * valid until the next scan.  0, or a negative code (-2: refused row). */
PXF_API int PXF_scan_read(PXF_IMAGE *image, int line, void ***rows);
PXF_API int PXF_scan_write(PXF_IMAGE *image, int line, void ***rows);
PXF_API int PXF_direct_scan_read(PXF_IMAGE *image, int line, void *buffer, int64_t arg, int count,
                                 float value);
PXF_API int PXF_direct_scan_write(PXF_IMAGE *image, int line, void *buffer, int64_t arg, int count,
                                  float value);
/* -1 is the start of the image; *image may be replaced (or nulled). */
PXF_API int PXF_seek(PXF_IMAGE **image, int line);
/* Closing an image opened for writing finishes its file.  The rla driver and
 * the shipped png and tiff plug-ins write a named file under a temporary
 * name in the same directory and rename it over the name here, so an old
 * file of that name is replaced only by a complete one.  Scanlines the
 * caller left out are written as zero, with a warning.  When a scanline
 * write or the closing writes failed (disk full, I/O error), the file is
 * not kept, the old one stays as it was, and PXF_close returns -20 with
 * pxf__err -20; a failed scanline write returns -20 too.  Terminals, pipes
 * and devices (such as /dev/stdout) are written in place and never removed. */
PXF_API int PXF_close(PXF_IMAGE *image);
PXF_API int PXF_close_do_it(PXF_IMAGE *image);

PXF_API int pxf__init_obj(PXF_IMAGE *image, int mode);
PXF_API int pxf__build_obj(PXF_IMAGE *image, PXF_INFO *info);
PXF_API int pxf__dupl_obj(PXF_IMAGE *copy, PXF_IMAGE *image);
PXF_API int pxf__init_ifd(PXF_IMAGE *image);
PXF_API int pxf__build_ifd(PXF_IMAGE *image, PXF_INFO *info);
PXF_API int pxf__free_obj(PXF_IMAGE *image);
/* Returns a static buffer overwritten by the next call. */
PXF_API char *pxf__build_handle(const char *dir, const char *name, const char *ext);
PXF_API int pxf__image_verify(const char *name, PXF_IMAGE *image, int index);
PXF_API int pxf__matte_verify(const char *name, PXF_IMAGE *image, int index);
PXF_API int pxf__aux_verify(const char *name, PXF_IMAGE *image, int index);

/* Multi-frame layer hooks of the open and close paths. */
PXF_API PXF_IMAGE *PXF_multiframe_open(PXF_INFO *info, const char *mode);
PXF_API int PXF_multiframe_add(PXF_IMAGE *image);
PXF_API int PXF_multiframe_used(PXF_IMAGE *image);
PXF_API int PXF_multiframe_set_closed(PXF_IMAGE *image);

/* ---- Driver registry ---- */

PXF_API extern PXF_TYPE *pxf__type_list_dso;
PXF_API extern int pxf__num_pxf_types_dso;

/*
 * Builds the registry: stores the catalogue (null: the built-in texts),
 * reads the format and colour defaults, then calls the enumerator (may be
 * null) until it returns 0 and registers the image... symbols of each
 * library handle it delivers; the built-in drivers follow.  It never loads a
 * library itself.  Returns 0 on success (also when the registry already
 * exists: it then only rewinds the list position of PXF_info and calls no
 * enumerator) and -1 when the defaults cannot be read or memory runs out.
 * A library that fails its checks is reported and passed over; that is not
 * a failure of PXF_init.  PXF_open, PXF_find and PXF_info call
 * PXF_init(NULL, NULL) themselves when the application has not.
 */
PXF_API int PXF_init(nl_catd catalog, PXF_ENUMERATOR enumerator);
/*
 * Loads driver plug-ins and builds the registry with them: every module
 * "*.so" of the directories in `directories` (':'-separated, may be null)
 * and then of those in the environment variable PXF_PLUGIN_PATH, each
 * directory in name order, is opened with dlopen(RTLD_NOW | RTLD_LOCAL) and
 * handed to PXF_init(catalog, enumerator) in that order; a later module
 * replaces an earlier one of the same key, so PXF_PLUGIN_PATH overrides the
 * application's list.  A missing directory is passed over; one that cannot
 * be read, or a module that does not load, is reported as a warning and
 * passed over.  The modules stay
 * loaded for the life of the process (PXF_exit does not unload them).
 * When the registry already exists nothing is loaded (call PXF_exit first).
 * Returns what PXF_init returns, or -1 with pxf__err -10 when memory runs
 * out.  Same threading rule as PXF_init.
 */
PXF_API int PXF_load_plugins(nl_catd catalog, const char *directories);
/* Releases the registry (calling each plug-in's imageDone) and the defaults. */
PXF_API void PXF_exit(void);
PXF_API PXF_TYPE *PXF_find(const char *key);
PXF_API PXF_TYPE *PXF_info(void);
PXF_API char *PXF_def_key(void);
PXF_API char *PXF_def_base_name(void);
PXF_API const char *PXF_get_file_type(const char *path, void *arg, int *decided);
PXF_API const char *PXF_is_file_type(const char *path, void *arg, const char *key, int *decided);
PXF_API int PXF_getFormatKeys(const char **keys);
PXF_API int PXF_getPluginNames(char **names);
PXF_API void PXF_getPluginNamesWithFilters(char *buffer);
PXF_API void PXF_getOnlyExtensions(char *buffer);
PXF_API int PXF_getPluginNameFromKey(const char *key, char *name);
PXF_API int PXF_isMultiFrameFormat(const char *key);
PXF_API int PXF_hasWriteSupport(const char *key);
PXF_API int PXF_hasReadSupport(const char *key);
PXF_API const char *PXF_name_from_key(const char *key);
PXF_API int PXF_capabilities_available(PXF_TYPE *record);
/*
 * Marks the registered driver named by `key` (its key, else its extension,
 * as PXF_find looks them up) available (non-zero) or not (0).  A driver
 * that is not available is passed over by PXF_open (a request naming it
 * fails as an unknown type; names and probes fall through to the others)
 * and by PXF_find, PXF_info, PXF_get_file_type, PXF_is_file_type and the
 * functions built on PXF_find; the plug-in table and its listing functions
 * (PXF_getFormatKeys and the like) still show every loaded plug-in.  Every
 * driver is available after PXF_init; PXF_exit forgets the marks.  Returns
 * 0, or -1 for an unknown key (reported, pxf__err -4) or when memory runs
 * out (pxf__err -10).
 */
PXF_API int PXF_set_available(const char *key, int available);
PXF_API int PXF_private_ui_popup(const char *key, void *arg);
PXF_API int PXF_private_ui_popdown(const char *key, void *arg);
PXF_API void PXF_symbols(void);
PXF_API int PXF_getPluginExtensions(const char **extensions);
PXF_API int PXF_getKeyFromPluginName(const char *name, char *key);
PXF_API int PXF_getExtFromPluginName(const char *name, char *ext);
PXF_API int PXF_getExtFromFormatKey(const char *key, char *ext);

/* Words every party spells the same way. */
PXF_API extern const char PXF_LITERAL_HARD_KEY_none[];
PXF_API extern const char PXF_LITERAL_HARD_KEY_img[];
PXF_API extern const char PXF_LITERAL_HARD_KEY_frame_proc[];
PXF_API extern const char PXF_LITERAL_HARD_KEY_dir[];
PXF_API extern const char PXF_LITERAL_HARD_FORMAT_TYPE_XYZ[];
PXF_API extern const char PXF_LITERAL_HARD_FORMAT_TYPE_SAMPLED[];
PXF_API extern const char PXF_LITERAL_HARD_FORMAT_TYPE_RGB[];
PXF_API extern const char PXF_LITERAL_HARD_FORMAT_TYPE_RAW[];
PXF_API extern const char PXF_LITERAL_HARD_NS_Name[];
PXF_API extern const char PXF_LITERAL_HARD_NS_Field[];
PXF_API extern const char PXF_LITERAL_HARD_NS_Ext[];
PXF_API extern const char PXF_LITERAL_HARD_NS_Default[];
PXF_API extern const char PXF_LITERAL_HARD_LUT_version[];
PXF_API extern const char PXF_LITERAL_HARD_LUT_reserved[];
PXF_API extern const char PXF_LITERAL_HARD_LUT_maximum[];
PXF_API extern const char PXF_LITERAL_HARD_LUT_locked[];
PXF_API extern const char PXF_LITERAL_HARD_LUT_gamma[];
PXF_API extern const char PXF_LITERAL_HARD_LUT_entry[];
PXF_API extern const char PXF_LITERAL_HARD_LUT_entries[];

/* ---- Built-in drivers ---- */

/* 4: the pipe carries 4 channels per scanline, otherwise 3. */
PXF_API extern int pipe_number;
PXF_API int PXF_pipe_is_file(const char *path, void *arg);
PXF_API int PXF_pipe_r_open(PXF_IMAGE *image);
PXF_API int PXF_pipe_w_open(PXF_IMAGE *image);
PXF_API int PXF_mem_is_file(const char *path, void *arg);
PXF_API int PXF_mem_r_open(PXF_IMAGE *image);
PXF_API int PXF_mem_w_open(PXF_IMAGE *image);

/* ---- Operators ----
 *
 * Stages stacked on an open image: each install function returns the image
 * (unchanged when the operator has nothing to do or cannot be installed);
 * the image's PXF_INFO then describes what the outermost stage delivers.
 * Remove functions return 1 when they removed their record or found none,
 * 0 when another operator is on top (stages come off last in, first out).
 * Closing the image removes every stage, outermost first, then closes the
 * driver.  Row pointers handed back by a read belong to the outermost stage
 * and are valid until the next scan.
 */

/* Operator tags (the numbers missing here belong to no operator). */
#define PXF_OP_SELECT 1
#define PXF_OP_GAMMA 2
#define PXF_OP_RGB_RGB 4
#define PXF_OP_XYZ_RGB 5
#define PXF_OP_SAMP_RGB 6
#define PXF_OP_RGB_Y 8
#define PXF_OP_XYZ_Y 9
#define PXF_OP_SAMP_Y 10
#define PXF_OP_SCALE 11
#define PXF_OP_SHIFT 13
#define PXF_OP_FIELD 14
#define PXF_OP_MINMAX 15
#define PXF_OP_CAST 17
#define PXF_OP_COLOR_CLIP 18
#define PXF_OP_DISPLAY 19
#define PXF_OP_NORMALIZE 21
#define PXF_OP_QUANTIZE 22
#define PXF_OP_SAMP_TO_RGB 23
#define PXF_OP_SAMP_TO_XYZ 24
#define PXF_OP_SSFILTER 25

/* The start of every operator's record: while an operator is on top of an
 * image's chain, the image's private data element 0 points at it. */
typedef struct PXF_OPERATOR {
    int32_t tag;
    PXF_SCAN_FN saved_scan;   /* the image's scan function before installation */
    PXF_CLOSE_FN saved_close; /* its close function */
    void *saved_private;      /* its private data element 0 */
} PXF_OPERATOR;

/* A requested element type and width for one channel group; type 0 leaves
 * the group as it is. */
typedef struct PXF_CHAN_TYPE {
    int32_t type;
    int32_t bits;
} PXF_CHAN_TYPE;

/* Quick gamma tables: 256 entries for 8-bit input (btof, btos), R entries
 * for input of the configured gamma-table resolution R (tob, tof).  Null
 * when memory runs out; free them with PXF_gamma_done. */
PXF_API float *PXF_gamma_btof(float gamma);
PXF_API uint16_t *PXF_gamma_btos(float gamma);
PXF_API uint8_t *PXF_gamma_tob(float gamma);
PXF_API float *PXF_gamma_tof(float gamma);
PXF_API int PXF_gamma_done(void *table);

/* Response curves.  init builds the tables of a curve whose channels,
 * entries, type, bits and gamma are filled in; copy is a deep copy; comp
 * makes result = outer applied after inner.  0 on success, -1 on failure. */
PXF_API int PXF_response_curve_init(PXF_RESPONSE_CURVE *curve);
PXF_API int PXF_response_curve_copy(PXF_RESPONSE_CURVE *dst, const PXF_RESPONSE_CURVE *src);
PXF_API int PXF_response_curve_comp(PXF_RESPONSE_CURVE *outer, PXF_RESPONSE_CURVE *inner,
                                    PXF_RESPONSE_CURVE *result);
/* Frees the tables of a table curve; always 1. */
PXF_API int PXF_response_curve_done(PXF_RESPONSE_CURVE *curve);

/* Integer channels to normalised floats (reading). */
PXF_API PXF_IMAGE *PXF__cast(PXF_IMAGE *image);
PXF_API int PXF__cast_done(PXF_IMAGE *image);

/* 8-bit image channels from the file's curve to `requested` (reading), or
 * from `requested` to the file's curve (writing: the caller then supplies
 * values of the gamma-table depth in 16-bit elements, converted in place).
 * Analytic curves get their table descriptions filled in. */
PXF_API PXF_IMAGE *PXF__gamma(PXF_IMAGE *image, PXF_RESPONSE_CURVE *requested);
PXF_API int PXF__gamma_done(PXF_IMAGE *image);

/* Float channels to integers (reading): request[0] image, [1] matte,
 * [2] auxiliary channels.  No clipping. */
PXF_API PXF_IMAGE *PXF__quantize(PXF_IMAGE *image, const PXF_CHAN_TYPE request[3]);
PXF_API int PXF__quantize_done(PXF_IMAGE *image);

/* Two field files name.NNNN (odd) and name.NNNN+1 (even) read as one frame of
 * twice the height.  Returns a new image over both fields, or `image`
 * unchanged; PXF_close on the frame (or PXF__field_done) closes both. */
PXF_API PXF_IMAGE *PXF__field_init(PXF_IMAGE *image);
PXF_API int PXF__field_done(PXF_IMAGE *frame);

/* Holds the whole image in memory so that scanlines can be read in any
 * order and more than once (reading). */
PXF_API PXF_IMAGE *PXF__raster(PXF_IMAGE *image);
PXF_API int PXF__raster_done(PXF_IMAGE *image);

/* A stage that does nothing: returns `image`; its remove returns 1. */
PXF_API PXF_IMAGE *PXF__debug(PXF_IMAGE *image);
PXF_API int PXF__debug_done(PXF_IMAGE *image);

/* Colour transforms (reading, 8-bit integer image channels, in place over
 * the active span).  Each stored value is linearised through a table built
 * from the image's curve (its gamma, or a copy of its tables, giving values
 * of log2 R bits for the gamma-table resolution R), multiplied by a
 * fixed-point matrix and re-encoded through a table for `requested` (an
 * analytic curve of gamma g encodes as light^(1/g); a table curve needs
 * 2^(input bits) 8-bit entries per channel; null encodes with the image's
 * own gamma).  Values at or above the top of the linear range give 255,
 * negative ones 0.  Precision is at most 14 bits: a deeper table is used
 * with its low bits dropped (message 83, a warning).
 *
 * The matrices come from the colour setup of rfl.h: a stage that needs a
 * setup and finds none makes one for the image's channel count and
 * primaries (RFL_init) and ends it (RFL_done) when it is removed.
 * rgb_rgb converts to the primaries of the current setup (call RFL_init
 * with the target's primaries first; without a setup nothing is installed)
 * and writes them into the info; xyz_rgb and samp_rgb deliver RGB of the
 * setup's primaries and write them into the info too.  The luminance
 * stages deliver one channel (the info's image channel count becomes 1;
 * matte and auxiliary rows follow it); samp_rgb takes N sample channels
 * and delivers 3.  Images without exactly the channels a stage takes are
 * returned unchanged and silently; wider or non-integer channels are
 * refused with messages 72/73.  xyz_Y installs PXF__gamma with `requested`
 * first and hands on the Y row; its remove takes the gamma stage off too. */
PXF_API PXF_IMAGE *PXF__rgb_rgb_init(PXF_IMAGE *image, PXF_RESPONSE_CURVE *requested);
PXF_API int PXF__rgb_rgb_done(PXF_IMAGE *image);
PXF_API PXF_IMAGE *PXF__xyz_rgb_init(PXF_IMAGE *image, PXF_RESPONSE_CURVE *requested);
PXF_API int PXF__xyz_rgb_done(PXF_IMAGE *image);
PXF_API PXF_IMAGE *PXF__samp_rgb_init(PXF_IMAGE *image, PXF_RESPONSE_CURVE *requested);
PXF_API int PXF__samp_rgb_done(PXF_IMAGE *image);
PXF_API PXF_IMAGE *PXF__rgb_Y_init(PXF_IMAGE *image, PXF_RESPONSE_CURVE *requested);
PXF_API int PXF__rgb_Y_done(PXF_IMAGE *image);
PXF_API PXF_IMAGE *PXF__xyz_Y_init(PXF_IMAGE *image, PXF_RESPONSE_CURVE *requested);
PXF_API int PXF__xyz_Y_done(PXF_IMAGE *image);
PXF_API PXF_IMAGE *PXF__samp_Y_init(PXF_IMAGE *image, PXF_RESPONSE_CURVE *requested);
PXF_API int PXF__samp_Y_done(PXF_IMAGE *image);

/* Spectral samples written as RGB or XYZ (writing).  The file holds three
 * float colour channels; afterwards the caller writes `samples` float
 * channels per pixel (the info's image channel count says so) and each
 * pixel's channels go down as out = samples x M, M being `samples` rows of
 * 3: RFL_samp_xyz_mat for XYZ, RFL_samp_rgb_mat times the matrix from the
 * setup's RGB to the file's primaries for RGB.  With 3 or more samples the
 * results replace the caller's first three rows; with fewer they go down in
 * rows of the stage's own.  Installed only when the handle's info has
 * open_flag 0 (float data outside the 0..1 model; set it on the handle
 * after opening) and the file's channel format is not "sampled". */
PXF_API PXF_IMAGE *PXF__samp_to_rgb(PXF_IMAGE *image, int samples);
PXF_API int PXF__samp_to_rgb_done(PXF_IMAGE *image);
PXF_API PXF_IMAGE *PXF__samp_to_xyz(PXF_IMAGE *image, int samples);
PXF_API int PXF__samp_to_xyz_done(PXF_IMAGE *image);

/* Display requests. */
#define PXF_DISPLAY_RED 1
#define PXF_DISPLAY_GREEN 2
#define PXF_DISPLAY_BLUE 4
#define PXF_DISPLAY_MATTE 8
#define PXF_DISPLAY_LUMINANCE 16 /* luminance instead of colour */
#define PXF_DISPLAY_AUX 32

/* Builds the chain that turns the image into 8-bit data for viewing
 * (reading): colour clip, normalize (the auxiliary channel over 1 to 10000),
 * quantize and shift to 8 bits, then, by the image's channel format ("rgb",
 * "xyz", "sampled" or "raw"), a luminance stage or a colour stage towards
 * `target` (8 floats: red, green, blue and white x, y; null keeps the
 * image's primaries) encoded for `curve`.  An image description whose
 * image_kind is 8 or 16 is taken as already laid out for such a display and
 * gets no colour stage.  Messages 49 (unknown channel format), 69 and 78
 * (more than one auxiliary or matte channel), 81 and 82 (none).  Returns the
 * image, or null when a member stage returns null.  PXF__display_done takes
 * the whole chain off. */
PXF_API PXF_IMAGE *PXF__display(PXF_IMAGE *image, int request, const float *target, PXF_RESPONSE_CURVE *curve);
PXF_API int PXF__display_done(PXF_IMAGE *image);

/* One image (0-based `index`) of a handle holding several (a file with
 * chained images) made to look like a single-image handle; handles with one
 * image are returned unchanged; an index out of range sets pxf__err to -16. */
PXF_API PXF_IMAGE *PXF__select(PXF_IMAGE *image, int index);
PXF_API int PXF__select_done(PXF_IMAGE *image);

/* Float colour pulled inside the matte (first matte channel): a pixel whose
 * channels all lie within [0, matte] is kept; otherwise it moves towards
 * its mean (black when the mean is not above 0, the matte when the mean is
 * above it) just far enough to fit.  Float or double image and matte
 * channels of the same type; reading or writing (the caller's rows are
 * clipped in place). */
PXF_API PXF_IMAGE *PXF__color_clip(PXF_IMAGE *image);
PXF_API int PXF__color_clip_done(PXF_IMAGE *image);

/* Float groups mapped from [low, high] onto [0, 1], clipped at both ends, in
 * place.  Each range is 2 floats or null (group left alone); a range for a
 * group that is not float, or that is empty, installs nothing.  Requires
 * the info's open_flag to be 1. */
PXF_API PXF_IMAGE *PXF__normalize(PXF_IMAGE *image, const float *image_range, const float *matte_range,
                                  const float *aux_range);
PXF_API int PXF__normalize_done(PXF_IMAGE *image);

/* Integer groups converted to another bit depth (reading): request[0]
 * image, [1] matte, [2] auxiliary, each PXF_C_INTEGER with 1 to 32 bits or
 * type 0 (left as it is).  Narrowing keeps the top bits (65535 -> 255);
 * widening repeats the bits (255 -> 65535). */
PXF_API PXF_IMAGE *PXF__shift(PXF_IMAGE *image, const PXF_CHAN_TYPE request[3]);
PXF_API int PXF__shift_done(PXF_IMAGE *image);

/* Every channel mapped linearly from its range [min, max] onto [0, 1], as
 * 32-bit floats (reading; integer values are taken as their codes).
 * `ranges` gives 2 floats (min, max) per channel, image channels first, then
 * matte, then auxiliary; values outside are clipped.  With null ranges the
 * stage reads the whole image once while it is installed, keeps it, and
 * uses each channel's observed minimum and maximum (a read failure installs
 * nothing).  A channel with min equal to max reads as 0. */
PXF_API PXF_IMAGE *PXF__minmax_init(PXF_IMAGE *image, const float *ranges);
PXF_API int PXF__minmax_done(PXF_IMAGE *image);
/* The range in use for `channel` while the min-max stage is on top: 1, or 0
 * (outputs untouched) when it is not or the channel does not exist. */
PXF_API int PXF__minmax_range(PXF_IMAGE *image, int channel, float *min, float *max);
/* Resampling (reading).  Filters are named: "box", "triangle",
 * "catmull-rom", "mitchell" (the default, for a null name), "lanczos3",
 * "gaussian"; rows beyond the image repeat its edge pixels.  Premultiplied
 * colour (a matte labelled associated or unspecified) is filtered as it is.
 * Straight colour (PXF_MATTE_UNASSOCIATED) is filtered premultiplied by the
 * first matte channel (so that a pixel of matte 0 lends no colour to its
 * neighbours) and delivered divided by the filtered matte again.  Source
 * rows are read once each, in the direction the output is read, so a
 * driver that reads only in sequence can sit below.  Groups keep their element types:
 * integers are rounded and clamped to their range, floats are not clamped.
 * Arithmetic is single precision (32-bit integers keep 24 significant bits).
 * Messages (set 902): 230 "%s: unknown filter %s (known: %s)",
 * 231 "%s: bad size %d x %d (each side 1 to %d pixels)",
 * 232 "%s: bad radius %g (above 0, at most %g)"; pxf__err -16.
 *
 * PXF__scale_init delivers the image at width x height (1 to 1000000 each;
 * x and y independent), scanline by scanline in any order, from a ring of
 * the few source rows each output row needs.  When minifying, the filter is
 * widened by the reduction so that the result does not alias.  The window
 * keeps its origin, the active window is mapped to the new size and the
 * display aspect follows the new proportions (pixels keep their shape).
 * Returns the image, unchanged when the size is the same, on bad arguments
 * (reported) and when memory runs out. */
PXF_API PXF_IMAGE *PXF__scale_init(PXF_IMAGE *image, int width, int height, const char *filter);
PXF_API int PXF__scale_done(PXF_IMAGE *image);

/* A symmetric blur: the named filter stretched so that its support reaches
 * `radius` pixels (above 0, at most 1000) along x and y; the size stays. */
PXF_API PXF_IMAGE *PXF__ssfilter(PXF_IMAGE *image, const char *filter, float radius);
PXF_API int PXF__ssfilter_done(PXF_IMAGE *image);

/* Mipmap textures.  Level n of a width x height image is max(1, width >> n)
 * x max(1, height >> n), each level filtered from the one above it; the
 * chain of levels ends at 1 x 1. */
#define PXF_TEXTURE_COLOUR 0 /* every group as it is */
#define PXF_TEXTURE_SCALAR 1 /* the first image channel alone, format "scalar" */
#define PXF_TEXTURE_BUMP 2   /* the first image channel as a height; see below */

typedef struct PXF_MIPMAP_REQUEST {
    int32_t level;           /* 0: the image itself, n: n halvings */
    int32_t kind;            /* PXF_TEXTURE_COLOUR, _SCALAR or _BUMP */
    const char *filter;      /* a filter name, null for the default */
    PXF_CHAN_TYPE output[3]; /* image, matte, aux: float groups become these
                                integers (clamped to 0..1 first); type 0
                                leaves a group as it is */
    int32_t random_access;   /* non-zero: the image can already be read in any
                                order (a memory image), so no raster copy */
} PXF_MIPMAP_REQUEST;

/* Number of levels from width x height down to 1 x 1 (1 + log2 of the
 * longer side, rounded down); 0 for an empty size. */
PXF_API int PXF_mipmap_levels(int width, int height);

/* Delivers one level of a texture made from the image (reading).  Stacks a
 * raster copy of the image (unless random_access), one halving scale stage
 * per level, the stage of the texture kind and, for integer output of float
 * data, the quantize operator.  Bump textures deliver three float channels
 * (format "bump"): the height (the first image channel, integers normalised
 * to 0..1), then its slopes dh/du and dh/dv, where u runs from 0 to 1 across
 * the level's width (left to right) and v from 0 to 1 across its height
 * (from the window's bottom scanline up); slopes are central differences,
 * one-sided at the edges, so a height ramp gives the same slope at every
 * level.  The halving stages filter every channel of the image (colour
 * weighted by the matte) before the kind's channels are taken; the image
 * processes instead filter a scalar or height channel alone.  Returns the
 * image, unchanged on bad requests (reported: an
 * unknown filter or kind, a level beyond the 1 x 1 one, 902/231 and
 * 902/233 "%s: bad texture request (%s)") and when memory runs out.
 * PXF__mipmap_done removes every stage PXF__mipmap stacked; 0 when another
 * operator is on top of them. */
PXF_API PXF_IMAGE *PXF__mipmap(PXF_IMAGE *image, const PXF_MIPMAP_REQUEST *request);
PXF_API int PXF__mipmap_done(PXF_IMAGE *image);
/* ---- File names with frame numbers ---------------------------------- */

/* Token kinds of a parsed name syntax. */
#define PXF_NS_END 0
#define PXF_NS_EXT 1
#define PXF_NS_FRAME 3
#define PXF_NS_NAME 4
#define PXF_NS_SEPARATOR 5

/* Frame field letters found after the digits: 2 even field, 3 odd field. */
#define PXF_NS_FIELD_EVEN 2
#define PXF_NS_FIELD_ODD 3

/* Pathname build modes. */
#define PXF_PATH_NUMBER 0   /* the frame as a number */
#define PXF_PATH_WILDCARD 1 /* the frame field as "*" */
#define PXF_PATH_TEMPLATE 2 /* a printf template; other '%' doubled */

/* Output buffers given to the pathname builders must hold this many bytes;
 * a longer result fails with pxf__err -14. */
#define PXF_PATHNAME_MAX 4096

/* One token of a parsed name syntax; the array ends with a PXF_NS_END token.
 * syntax_text points into the library's lower-cased copy of the pattern,
 * which the next parse overwrites. */
typedef struct PXF_NS_TOKEN {
    int32_t field;
    int32_t syntax_length;
    char *syntax_text;
    int32_t matched_length;
    char *matched_text;
    int32_t kind;
} PXF_NS_TOKEN;

/* Parses a name syntax such as "Name.####.Ext" (call with depth 0); the
 * caller frees *tokens with ERR_free.  1, or 0 with pxf__err set. */
PXF_API int PXF_parse_name_syntax(const char *pattern, PXF_NS_TOKEN **tokens, int depth);
PXF_API int PXF_name_syntax_verify(const char *pattern);
PXF_API int PXF_name_syntax_has_ext(const char *pattern);
PXF_API int PXF_name_syntax_ends_ext(const char *pattern);
PXF_API int PXF_name_syntax_has_frame(const char *pattern);
PXF_API const char *PXF_name_syntax_name(void);

/* Builds a pathname from an existing one, a driver key and a frame number
 * (see the PXF_PATH_ modes).  With a null syntax the driver's format string
 * is used instead of a name syntax.  `frame` gives the number to write (-1:
 * the one in the name) and receives the number found in the name, or -1.
 * `out` (and `name_out`, the name part, when given) must hold
 * PXF_PATHNAME_MAX bytes.  `flag` non-zero keeps the syntax's frame width and
 * builds the whole name even when the pathname exists.  1, or 0 with pxf__err
 * set. */
PXF_API int PXF_pathname_build(const char *syntax, const char *pathname, const char *key,
                               const char *extension, int mode, unsigned char flag, int *frame,
                               char *out, char *name_out, const char **key_out, PXF_TYPE **record_out);
PXF_API int PXF_pathname_build_from_name_syntax(const char *syntax, const char *pathname,
                                                const char *key, const char *extension, int mode,
                                                int *frame, char *out, char *name_out,
                                                PXF_TYPE **record_out, unsigned char flag);
PXF_API int PXF_pathname_build_no_name_syntax(const char *pathname, const char *key, int mode,
                                              unsigned char flag, int *frame, char *out,
                                              char *name_out, const char **key_out,
                                              PXF_TYPE **record_out);

PXF_END_DECLS

#endif /* PXF_PXF_H */
