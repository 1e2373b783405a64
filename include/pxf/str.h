/*
 * Strings, counted pointer arrays (PTR_) and null-terminated pointer arrays
 * (EPTR_) on the library's heap.
 *
 * Every function measures what it copies: a result that would not fit a
 * 32-bit size, or a caller's buffer, is refused rather than cut short
 * silently.  Functions that allocate report "No more internal memory" and
 * return null or -1 when the heap is exhausted, leaving their inputs valid.
 */
#ifndef PXF_STR_H
#define PXF_STR_H

#include "common.h"

PXF_BEGIN_DECLS

/* A private heap copy of `text` (free with EPTR_free); null for null text or no memory. */
PXF_API char *STR_define(const char *text);
/* A private copy of the first `length` bytes of `text` (fewer if it ends sooner), terminated. */
PXF_API char *STR_ndefine(const char *text, uint32_t length);
/* A new heap string `a` followed by `b` (a null part counts as empty). */
PXF_API char *STR_concat(const char *a, const char *b);
/* Appends `more` to the heap string `string` (null starts a new one),
 * growing it; returns the possibly moved string, or null (the old one
 * still valid and unchanged) when out of memory. */
PXF_API char *STR_append(char *string, const char *more);
/* Grows (or shrinks) a heap string buffer to `size` bytes, keeping its
 * contents; a null string allocates a fresh buffer.  On failure reports
 * "No more internal memory" and returns null, leaving the old buffer valid. */
PXF_API char *STR_more(char *string, uint32_t size);
/* Copies `text` into the buffer of `size` bytes: 0, or -1 when it does not
 * fit (the buffer then holds as much as fits, terminated, when size > 0). */
PXF_API int STR_copy(char *buffer, uint32_t size, const char *text);
/* Appends `text` to the string in the buffer of `size` bytes: 0, or -1 when
 * it does not fit (the buffer then holds as much as fits, terminated). */
PXF_API int STR_cat(char *buffer, uint32_t size, const char *text);
/* The last component of a path: what follows its last '/' (the whole path
 * when there is none; "" after a trailing '/'). */
PXF_API const char *STR_tail(const char *path);
/* The extension of a path's last component, from its last '.' on (".rla"),
 * or "" (the end of the path) when it has none; a leading dot (".pxfrc")
 * starts a name, not an extension.  Null for null. */
PXF_API const char *STR_extension(const char *path);

/* Frees a pointer taken from the library's allocator; null is harmless. */
PXF_API void EPTR_free(void *pointer);
/* The number of elements of a null-terminated pointer array (0 for null). */
PXF_API uint32_t EPTR_length(void *const *array);
/* Appends `item` (not null) to the null-terminated heap array `array` (null
 * starts a new one); returns the possibly moved array, or null (the old one
 * still valid) when out of memory or item is null. */
PXF_API void **EPTR_append(void **array, void *item);
/* Frees every element (with `free_item`, or EPTR_free when it is null),
 * then the array itself; null is harmless. */
PXF_API void EPTR_free_all(void **array, void (*free_item)(void *));

/* A counted array of pointers that grows as items are added. */
typedef struct PTR_ARRAY {
    void **items;
    uint32_t count;
    uint32_t capacity;
} PTR_ARRAY;

/* Empties an array record the caller keeps (nothing is freed). */
PXF_API void PTR_init(PTR_ARRAY *array);
/* Makes room for at least `capacity` items: 0, or -1 when out of memory. */
PXF_API int PTR_reserve(PTR_ARRAY *array, uint32_t capacity);
/* Appends item (null allowed): 0, or -1 when out of memory (the array unchanged). */
PXF_API int PTR_add(PTR_ARRAY *array, void *item);
/* The item at index, or null past the end. */
PXF_API void *PTR_get(const PTR_ARRAY *array, uint32_t index);
/* Removes and returns the item at index, keeping the order of the others; null past the end. */
PXF_API void *PTR_remove(PTR_ARRAY *array, uint32_t index);
/* Frees every item (with `free_item`, or not at all when it is null) and the
 * array's storage; the record is left empty and usable. */
PXF_API void PTR_free(PTR_ARRAY *array, void (*free_item)(void *));

PXF_END_DECLS

#endif /* PXF_STR_H */
