/*
 * Image files: description, driver registry, open, scan, seek and close.
 */
#ifndef PXF_PXF_H
#define PXF_PXF_H

#include <nl_types.h>

#include "common.h"

PXF_BEGIN_DECLS

/* Reason for the last failure: a negative code (see the codes below). */
PXF_API extern int pxf__err;
/* The message catalogue handed to PXF_init; null means the built-in texts. */
PXF_API extern nl_catd pxf__msg_cat;

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
                               char *out, char *name_out, const char **key_out, void **record_out);
PXF_API int PXF_pathname_build_from_name_syntax(const char *syntax, const char *pathname,
                                                const char *key, const char *extension, int mode,
                                                int *frame, char *out, char *name_out,
                                                void **record_out, unsigned char flag);
PXF_API int PXF_pathname_build_no_name_syntax(const char *pathname, const char *key, int mode,
                                              unsigned char flag, int *frame, char *out,
                                              char *name_out, const char **key_out,
                                              void **record_out);

PXF_END_DECLS

#endif /* PXF_PXF_H */
