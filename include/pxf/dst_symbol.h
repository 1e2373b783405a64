/*
 * Symbol tables: keys mapped to data by hashing, with insert, find and
 * delete in constant time on average, and iteration over every entry.
 *
 * The key kind is chosen when the table is made: strings (the table keeps
 * its own copy of each key) or pointers (compared by address, never
 * followed).  Data are the caller's pointers and are never freed by the
 * table.  DST_symbol_ functions work on the table, DST_sym_ functions on
 * one entry.  Inserting or deleting may invalidate entry pointers.
 */
#ifndef PXF_DST_SYMBOL_H
#define PXF_DST_SYMBOL_H

#include "common.h"

PXF_BEGIN_DECLS

typedef struct DST_SYMBOL DST_SYMBOL; /* a table */
typedef struct DST_SYM DST_SYM;       /* one entry */

/* Key kinds. */
#define DST_SYMBOL_STRING 0  /* NUL-terminated strings, copied into the table */
#define DST_SYMBOL_POINTER 1 /* pointers compared by address */

/* A new empty table for keys of `kind`, sized for about `expected` entries
 * (0 for a small start; it grows as needed).  Null for an unknown kind, or
 * when out of memory (reported). */
PXF_API DST_SYMBOL *DST_symbol_new(int kind, uint32_t expected);
/* Frees the table and its key copies (not the data); null is harmless. */
PXF_API void DST_symbol_free(DST_SYMBOL *table);
/* Adds key with data: 1 when added, 0 when the key is present (nothing
 * changes), -1 for a null string key or when out of memory (reported). */
PXF_API int DST_symbol_insert(DST_SYMBOL *table, const void *key, void *data);
/* The data of key, or null when absent. */
PXF_API void *DST_symbol_find(const DST_SYMBOL *table, const void *key);
/* The entry of key, or null when absent. */
PXF_API DST_SYM *DST_symbol_lookup(const DST_SYMBOL *table, const void *key);
/* Removes key: 1 when it was present (its data in *data when data is not
 * null), 0 when absent. */
PXF_API int DST_symbol_delete(DST_SYMBOL *table, const void *key, void **data);
/* The number of entries. */
PXF_API uint32_t DST_symbol_count(const DST_SYMBOL *table);

/* The first entry of an iteration over the table (in no particular order),
 * and the one after `sym`; null at the end. */
PXF_API DST_SYM *DST_sym_first(const DST_SYMBOL *table);
PXF_API DST_SYM *DST_sym_next(const DST_SYMBOL *table, const DST_SYM *sym);
/* An entry's key (the table's copy for string keys) and data. */
PXF_API const void *DST_sym_key(const DST_SYM *sym);
PXF_API void *DST_sym_data(const DST_SYM *sym);
/* Replaces an entry's data. */
PXF_API void DST_sym_set_data(DST_SYM *sym, void *data);

PXF_END_DECLS

#endif /* PXF_DST_SYMBOL_H */
