/*
 * Preloaded into a program to make one heap allocation fail:
 *   PXF_FAIL_ALLOC=N     the Nth call of malloc, calloc or realloc (counted
 *                        from process start) returns null with ENOMEM
 *   PXF_COUNT_ALLOC=FILE at exit, the number of calls is written to FILE
 * Counting covers every library of the process (libpng, libtiff, the C++
 * runtime), which the library's own allocation hook cannot reach.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>

extern void *__libc_malloc(size_t);
extern void *__libc_calloc(size_t, size_t);
extern void *__libc_realloc(void *, size_t);

static atomic_long calls;
static long fail_at = -1; /* -1: not read yet, 0: never */

static int should_fail(void) {
    long n = atomic_fetch_add(&calls, 1) + 1;
    if (fail_at < 0) {
        /* getenv allocates nothing. */
        const char *text = getenv("PXF_FAIL_ALLOC");
        fail_at = text ? atol(text) : 0;
    }
    return fail_at > 0 && n == fail_at;
}

void *malloc(size_t size) {
    if (should_fail()) {
        errno = ENOMEM;
        return NULL;
    }
    return __libc_malloc(size);
}

void *calloc(size_t count, size_t size) {
    if (should_fail()) {
        errno = ENOMEM;
        return NULL;
    }
    return __libc_calloc(count, size);
}

void *realloc(void *pointer, size_t size) {
    if (should_fail()) {
        errno = ENOMEM;
        return NULL;
    }
    return __libc_realloc(pointer, size);
}

__attribute__((destructor)) static void report_count(void) {
    const char *path = getenv("PXF_COUNT_ALLOC");
    if (path) {
        FILE *f = fopen(path, "w");
        if (f) {
            fprintf(f, "%ld\n", (long)atomic_load(&calls));
            fclose(f);
        }
    }
}
