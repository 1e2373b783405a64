/*
 * Resource files: files of typed, named blobs of data.
 *
 * Every resource has a type (four characters, for example "ERRO"), a name
 * (up to 65535 bytes, no null byte) and up to 16777215 bytes of data.  Open
 * files are held in memory; an updated file is rewritten when it is closed.
 *
 * File layout, every field big-endian.  A "slot" is 8 bytes holding a 32-bit
 * value in its first four bytes and zero in the other four; readers take the
 * first four bytes only.
 *   0   slot   version (RSC_VERSION)
 *   8   slot   number of types in the type table
 *   16  slot   file offset of the type table
 *   24  ...    resource data, then one resource table per type, then the
 *              type table
 *   type table entry:     slot type code, slot resource count,
 *                         slot offset of the type's resource table
 *   resource table entry: 2-byte name length n, the n name bytes,
 *                         slot data offset, slot data size
 * Rewriting drops deleted resources and types left without resources; new
 * resources follow the existing ones of their type in the order added, and
 * a replaced or marked resource keeps its place.
 *
 * Naming files.  RSC_file_open and RSC_file_create make the file current.
 * Functions taking a file name accept the name given when the file was
 * opened, or the path it was found at; a null file name means the current
 * file.  Closing the current file makes the most recently opened remaining
 * file current.
 *
 * Variants.  The plain resource and type functions search every open file:
 * the current file first, then the others, most recently opened first; the
 * first file holding a resource wins, and lists and counts name each type
 * or resource once.  The "c" variants work on the current file only, the
 * "f" variants on the named file.  Resources are added and deleted only in
 * one file, so those have no plain form.
 *
 * Search path.  RSC_file_open tries the name as given (mode "r+", then "r"),
 * then, unless the name is absolute, each directory added with RSC_add_path
 * in the order added.  A file found only for reading can be read but not
 * changed.
 *
 * Results: 1 for success and 0 for failure, counts and list lengths (-1 for
 * failure), or a pointer that is null on failure.  A missing resource is not
 * an error: it gives 0 or null and reports nothing.  Other failures are
 * reported through ERR_report_cat (library catalogue, set 902, severity 3)
 * and leave a code in pxf__err: -10 out of memory ("No more internal memory",
 * 902/94), RSC_ERR_FILE for an unusable or damaged file, RSC_ERR_REQUEST for
 * a request that cannot be carried out.  Message numbers of set 902:
 *   600  the file cannot be opened or found along the search path
 *   601  the file is shorter than its header
 *   602  the file's version is not supported
 *   603  the type table lies past the end of the file
 *   604  a resource table lies past the end of the file
 *   605  a resource name runs past the end of the file
 *   606  a resource's data lies past the end of the file
 *   607  the header and tables overlap
 *   608  a type code holds a null byte or is listed twice
 *   609  a resource name holds a null byte
 *   610  reading the file failed
 *   611  writing the file failed
 *   612  there is no current file
 *   613  the file was opened for reading only and cannot be changed
 *   614  a type is not four characters
 *   615  resource data too large, or missing
 *   616  a resource name is missing or too long
 *   617  no open file has that name
 *   618  the file cannot be created
 *   619  the file cannot be removed
 *   620  the file is already open
 *
 * Returned data and names belong to the library.  Data stays valid until the
 * resource is freed, replaced or deleted or its file closed; names until the
 * file is closed.  Nothing here is locked: callers serialise.
 */
#ifndef PXF_RSC_H
#define PXF_RSC_H

#include <stdio.h>

#include "common.h"

PXF_BEGIN_DECLS

#define RSC_VERSION 1
#define RSC_MAX_SIZE 0xFFFFFFu
#define RSC_MAX_NAME 65535

/* pxf__err codes of this family besides -10. */
#define RSC_ERR_FILE (-30)
#define RSC_ERR_REQUEST (-31)

/* A type code as a string of four characters. */
typedef struct RSC_TYPE {
    char code[5];
} RSC_TYPE;

/* Files.  RSC_init is optional (the state is ready at load time); RSC_exit
   closes every file, rewriting updated ones, forgets the search path and
   frees the data buffers; it returns 0 if a rewrite failed. */
PXF_API int RSC_init(void);
PXF_API int RSC_exit(void);
PXF_API int RSC_add_path(const char *directory);
/* Opening a file that is already open only makes it current. */
PXF_API int RSC_file_open(const char *name);
/* Creates an empty file at the name as given (replacing any old file). */
PXF_API int RSC_file_create(const char *name);
/* Rewrites the file if it was updated, then closes it.  A failed rewrite
   still closes the file and returns 0. */
PXF_API int RSC_file_close(const char *file);
/* Closes the file without rewriting it and removes it from the disk. */
PXF_API int RSC_file_delete(const char *file);
PXF_API int RSC_file_count(void);
/* Stores up to max names of open files (as given to open), most recently
   opened first; returns how many were stored. */
PXF_API int RSC_file_list(const char **names, int max);
/* Status dumps, written to stream (null: standard output).  RSC_status
   shows the search path and the number of open files; RSC_status_all adds
   every file's dump. */
PXF_API int RSC_file_status(const char *file, FILE *stream);
PXF_API int RSC_status(FILE *stream);
PXF_API int RSC_status_all(FILE *stream);
PXF_API int RSC_set_current(const char *file);
/* The name the current file was opened with, or null. */
PXF_API const char *RSC_get_current(void);

/* Types that have at least one resource. */
PXF_API int RSC_type_count(void);
PXF_API int RSC_type_countc(void);
PXF_API int RSC_type_countf(const char *file);
PXF_API int RSC_type_list(RSC_TYPE *types, int max);
PXF_API int RSC_type_listc(RSC_TYPE *types, int max);
PXF_API int RSC_type_listf(const char *file, RSC_TYPE *types, int max);

/* The resource's data, read on first use; size (may be null) receives its
   size.  The bytes may be changed in place and then marked. */
PXF_API void *RSC_rsrc_get(const char *type, const char *name, uint32_t *size);
PXF_API void *RSC_rsrc_getc(const char *type, const char *name, uint32_t *size);
PXF_API void *RSC_rsrc_getf(const char *file, const char *type, const char *name, uint32_t *size);
/* Adds a copy of the data, replacing (or reviving) a resource of that name. */
PXF_API int RSC_rsrc_addc(const char *type, const char *name, const void *data, uint32_t size);
PXF_API int RSC_rsrc_addf(const char *file, const char *type, const char *name, const void *data,
                          uint32_t size);
/* Marks the resource deleted; it disappears when the file is rewritten. */
PXF_API int RSC_rsrc_deletec(const char *type, const char *name);
PXF_API int RSC_rsrc_deletef(const char *file, const char *type, const char *name);
/* Marks the resource changed (its data was modified in place): the file is
   rewritten on close and the data is kept in memory until then. */
PXF_API int RSC_rsrc_mark(const char *type, const char *name);
PXF_API int RSC_rsrc_markc(const char *type, const char *name);
PXF_API int RSC_rsrc_markf(const char *file, const char *type, const char *name);
/* Releases the in-memory copy of the data; new or changed data that is not
   yet in the file is kept.  1 when the resource exists. */
PXF_API int RSC_rsrc_free(const char *type, const char *name);
PXF_API int RSC_rsrc_freec(const char *type, const char *name);
PXF_API int RSC_rsrc_freef(const char *file, const char *type, const char *name);
/* 1 when the resource exists (and is not deleted). */
PXF_API int RSC_rsrc_available(const char *type, const char *name);
PXF_API int RSC_rsrc_availablec(const char *type, const char *name);
PXF_API int RSC_rsrc_availablef(const char *file, const char *type, const char *name);
PXF_API int RSC_rsrc_count(const char *type);
PXF_API int RSC_rsrc_countc(const char *type);
PXF_API int RSC_rsrc_countf(const char *file, const char *type);
/* Stores up to max resource names of the type; returns how many. */
PXF_API int RSC_rsrc_list(const char *type, const char **names, int max);
PXF_API int RSC_rsrc_listc(const char *type, const char **names, int max);
PXF_API int RSC_rsrc_listf(const char *file, const char *type, const char **names, int max);

/* Byte-order helpers.  Modes: 1 a 16-bit value, big-endian; 2 a 32-bit
   value, big-endian; 3 four bytes unchanged.  rsc__mio converts the value
   at `value` into one static 4-byte buffer and returns it (null for an
   unknown mode); rsc__mii converts the bytes at `source` into the 16- or
   32-bit object at `destination` (exactly 2 or 4 bytes are written) and
   returns 1, or 0 for an unknown mode. */
PXF_API unsigned char *rsc__mio(const void *value, int mode);
PXF_API int rsc__mii(void *destination, const void *source, int mode);

PXF_END_DECLS

#endif /* PXF_RSC_H */
