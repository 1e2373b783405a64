/*
 * Small utilities shared by the library and its applications.
 */
#ifndef PXF_UTL_H
#define PXF_UTL_H

#include <stdio.h>

#include "common.h"

PXF_BEGIN_DECLS

/* Converts the whole of `text` (surrounding blanks allowed) to a finite
 * number in *value.  Returns 1 when it converted, 0 otherwise (*value is then 0). */
PXF_API int UTL_cnv_atof(const char *text, double *value);

/* ---- Files ----
 *
 * These helpers report nothing themselves: failures return -1 (or null) and
 * leave the reason in errno, for the caller to report in its own words.
 * Names that do not exist, and null names, are simply "no". */

/* 1 when `path` names an existing file of any kind (links followed), else 0. */
PXF_API int UTL_file_exists(const char *path);
/* 1 when `path` is a regular file this process may read, else 0. */
PXF_API int UTL_file_readable(const char *path);
/* The size in bytes of the regular file `path`, or -1 (no such file, or not
 * a regular file). */
PXF_API int64_t UTL_file_size(const char *path);
/* 1 when `a` and `b` both exist and name the same file (same device and
 * inode, so links and different spellings count), else 0. */
PXF_API int UTL_same_file(const char *a, const char *b);
/* Copies the regular file `from` to `to` through UTL_output_open, so `to` is
 * replaced only by a complete copy.  0, or -1 with errno set; copying a
 * file onto itself fails with EINVAL and touches nothing. */
PXF_API int UTL_file_copy(const char *from, const char *to);

/* Creates a new, empty file in `dir` ("" or null: the current directory)
 * whose name is ".~" followed by six random characters, a dot and `base`
 * (so it keeps base's extension and stays hidden), opened for reading and
 * writing with O_EXCL and mode 0666 less the umask.  The full name goes to
 * `name` (`size` bytes).  Returns the descriptor, or -1 with errno set.  The
 * file is not registered for UTL_tmp_cleanup: UTL_output_open is the safe
 * way to write a file. */
PXF_API int UTL_tmp_file(const char *dir, const char *base, char *name, size_t size);

/* An output file being written.  UTL_output_open(path) prepares to replace
 * `path` safely:
 *   - when `path` does not exist or is a regular file (a symbolic link is
 *     followed to its file), the data goes to a new temporary file in the
 *     same directory (UTL_tmp_file), with the mode of the file it replaces;
 *     UTL_output_commit renames it over `path` at once, so readers see
 *     either the old file or the complete new one, and UTL_output_abandon
 *     removes it, leaving `path` untouched;
 *   - when `path` is anything else (a terminal, pipe or device such as
 *     /dev/stdout or /dev/null), it is opened for writing as it is and never
 *     truncated, renamed or removed.
 * Returns null with errno set when the file cannot be created.  Temporary
 * files are registered for UTL_tmp_cleanup until committed or abandoned.
 * Safe to use from several threads, one output per thread at a time. */
typedef struct UTL_OUTPUT UTL_OUTPUT;
PXF_API UTL_OUTPUT *UTL_output_open(const char *path);
/* The stream to write (opened for update on a temporary file, so it may be
 * read back and repositioned).  Close it only through commit or abandon. */
PXF_API FILE *UTL_output_stream(UTL_OUTPUT *out);
/* The name actually being written: the temporary file, or the target. */
PXF_API const char *UTL_output_name(const UTL_OUTPUT *out);
/* 1 when the output goes through a temporary file, 0 when it streams. */
PXF_API int UTL_output_is_temporary(const UTL_OUTPUT *out);
/* Flushes and closes the stream, then renames the temporary file over the
 * target.  0 on success; -1 with errno when anything failed, in which case
 * the temporary file is removed and the target left as it was.  Frees `out`
 * either way (null: -1, EINVAL). */
PXF_API int UTL_output_commit(UTL_OUTPUT *out);
/* Closes the stream and removes the temporary file (nothing is removed when
 * the output streams); frees `out`.  Null is a harmless no-op. */
PXF_API void UTL_output_abandon(UTL_OUTPUT *out);
/* Removes every temporary file of outputs still open in this process.
 * Async-signal-safe: meant for an application's SIGINT/SIGTERM handler,
 * which then ends the process (the outputs are not usable afterwards). */
PXF_API void UTL_tmp_cleanup(void);

PXF_END_DECLS

#endif /* PXF_UTL_H */

/* The debugging allocator (UTL_debug_malloc, UTL_malloc, ...). */
#include "utl_debug.h"
