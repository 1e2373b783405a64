/*
 * The configuration file: found once per process, split into lines of
 * tokens and kept in memory for the defaults readers to walk.
 *
 * Search order: $HOME/.pxfrc, then $QV_ROOT/userconfig/.pxfrc, then the
 * install root's userconfig/.pxfrc.  Lines are read 254 characters at a
 * time and lose their last character (normally the newline).
 */
#ifndef PXF_CFG_H
#define PXF_CFG_H

#include <nl_types.h>

#include "common.h"

PXF_BEGIN_DECLS

/* Token slots of one line, the terminating null included.  A line keeps at
 * most CFG_MAX_TOKENS - 1 tokens; whatever follows them is dropped. */
#define CFG_MAX_TOKENS 16

/* One configuration line as the readers see it. */
typedef struct CFG_LINE {
    int count;                     /* number of tokens */
    char *tokens[CFG_MAX_TOKENS];  /* null-terminated */
} CFG_LINE;

/* Path of the configuration file tried last (the one read, if any). */
PXF_API extern char *cfg_filename;
/* The catalogue given to CFG_init; the defaults readers report through it. */
PXF_API extern nl_catd cfg__msg_cat;

/* Reads the file on the first call; later calls rewind to the first line.
 * 0, or -1 when no file could be opened or memory ran out. */
PXF_API int CFG_init(nl_catd catalog);
/* The next line, or null after the last one. */
PXF_API CFG_LINE *CFG_info(void);
/* Discards every line; the next CFG_init reads the file again.  Returns 0. */
PXF_API int CFG_exit(void);
/* Splits `line` in place into at most max + 1 tokens stored in `tokens`
 * (which needs max + 2 slots) followed by a null; returns the count.
 * Double quotes, single quotes and ESC (27) quote a token verbatim. */
PXF_API int CFG_lex(int max, char *line, char **tokens);

PXF_END_DECLS

#endif /* PXF_CFG_H */
