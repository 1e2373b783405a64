/*
 * The debugging allocator.
 *
 * When switched on, every allocation of the library (ERR_malloc and the
 * rest) and of UTL_malloc gets guard zones on both sides and is tracked
 * until it is freed.  The allocator then writes to standard error, naming
 * the block's size and where it was allocated (file and line for
 * UTL_malloc, else the calling code's addresses):
 *   - a block freed twice (the second free is ignored),
 *   - a write before the start or past the end of a block (found when the
 *     block is freed or reallocated, or by UTL_debug_check),
 *   - the blocks still allocated, by UTL_debug_leaks, and at exit when the
 *     allocator was switched on by the environment.
 * Setting the environment variable PXF_DEBUG_MALLOC to anything but "" or
 * "0" switches it on when the library is loaded.  Freed blocks are held back
 * (up to 16 MB) before their memory is reused, so that a second free is
 * recognised; one freed long before may go unnoticed. */
#ifndef PXF_UTL_DEBUG_H
#define PXF_UTL_DEBUG_H

#include "common.h"

PXF_BEGIN_DECLS

/* Switches the debugging allocator on (1) or off (0) for new allocations;
 * blocks allocated while it was on stay tracked.  Returns the previous state. */
PXF_API int UTL_debug_malloc(int on);
/* Allocates, reallocates and frees like ERR_malloc, ERR_realloc and
 * ERR_free, recording `file` and `line` as the allocation site when the
 * debugging allocator is on.  UTL_free accepts null. */
PXF_API void *UTL_malloc(uint32_t size, const char *file, int line);
PXF_API void *UTL_realloc(void *pointer, uint32_t size, const char *file, int line);
PXF_API void UTL_free(void *pointer, const char *file, int line);
/* The same with the caller's file and line filled in. */
#define UTL_MALLOC(size) UTL_malloc((size), __FILE__, __LINE__)
#define UTL_REALLOC(pointer, size) UTL_realloc((pointer), (size), __FILE__, __LINE__)
#define UTL_FREE(pointer) UTL_free((pointer), __FILE__, __LINE__)
/* Checks the guard zones of every tracked block, writing each damaged one
 * to standard error; returns how many were damaged. */
PXF_API int UTL_debug_check(void);
/* Writes every tracked block still allocated to standard error as a leak;
 * returns how many there are. */
PXF_API int UTL_debug_leaks(void);

PXF_END_DECLS

#endif /* PXF_UTL_DEBUG_H */
