/*
 * Error reporting: severities, error descriptors, handler chains, masks,
 * counters, the ring of recent reports and the allocation wrappers.
 *
 * Text capacities (longer texts are truncated, never overflowed):
 *   ERR_report, ERR_format, ERR_format_fill   256 bytes with the terminator
 *   ERR_report_rsc                           1024 bytes
 *   ERR_report_cat, ERR_printf             131072 bytes
 * The buffer given to ERR_format and ERR_format_fill must hold 256 bytes.
 */
#ifndef PXF_ERR_H
#define PXF_ERR_H

#include <nl_types.h>
#include <pthread.h>

#include "common.h"

PXF_BEGIN_DECLS

/* Severities. */
#define ERR_DEBUG 0
#define ERR_INFORMATION 1
#define ERR_WARNING 2
#define ERR_ERROR 3
#define ERR_FATAL 4

#define ERR_NUM_SEVERITIES 5
#define ERR_LAST_RING 16

/* Bit 0 of ERR_DESCRIPTOR.flags: the error is masked. */
#define ERR_FLAG_MASKED 0x01

/* Capacities of the report texts. */
#define ERR_REPORT_TEXT_MAX 256
#define ERR_RSC_TEXT_MAX 1024
#define ERR_CAT_TEXT_MAX 131072

struct ERR_DESCRIPTOR;

/* Returns 0 when the report is handled (the chain stops), non-zero to pass it on. */
typedef int (*ERR_HANDLER)(const char *name, int severity, const char *text,
                           struct ERR_DESCRIPTOR *descriptor, void *data);

typedef struct ERR_HANDLER_NODE {
    struct ERR_HANDLER_NODE *next;
    ERR_HANDLER handler;
    void *data;
} ERR_HANDLER_NODE;

typedef struct ERR_DESCRIPTOR {
    uint8_t kind;
    uint8_t severity;
    uint8_t flags;
    const char *name;
    const char *format;
    uint32_t count;
    ERR_HANDLER handler;
    ERR_HANDLER_NODE *handler_list;
    uint64_t user1;
    uint64_t user2;
    const char *const *arg_names;
} ERR_DESCRIPTOR;

/* Process-wide state, ready at load time. */
PXF_API extern int error_mask;
PXF_API extern unsigned char error_smask[ERR_NUM_SEVERITIES];
PXF_API extern uint32_t error_count[ERR_NUM_SEVERITIES];
PXF_API extern ERR_DESCRIPTOR *last_error[ERR_LAST_RING];
PXF_API extern int error_index;
PXF_API extern const char *ERR_msg_header[ERR_NUM_SEVERITIES];
PXF_API extern ERR_HANDLER_NODE *handler_list;
PXF_API extern void *handler_freelist;
PXF_API extern int err_mp_locking_used;
PXF_API extern pthread_mutex_t *err_mp_lock;

PXF_API int ERR_report(ERR_DESCRIPTOR *descriptor, ...);
PXF_API int ERR_report_cat(nl_catd catalog, int set, int number, int severity,
                           const char *format, ...);
PXF_API int ERR_printf(int severity, const char *format, ...);
PXF_API void ERR_report_errno(int error_number, const char *name);
PXF_API int ERR_report_rsc(void *unused, const char *name, ...);
PXF_API int ERR_report_mp(pthread_mutex_t *mutex, int use_locking);

PXF_API char *ERR_format(char *buffer, ERR_DESCRIPTOR *descriptor, ...);
PXF_API char *ERR_format_fill(ERR_DESCRIPTOR *descriptor, char *buffer);
PXF_API void ERR_query(ERR_DESCRIPTOR *descriptor, int *severity, int *masked,
                       uint32_t *count, const char **name, const char **format,
                       uint64_t *user1, uint64_t *user2);
PXF_API uint32_t ERR_stats(int severity);

PXF_API int ERR_mask(ERR_DESCRIPTOR *descriptor);
PXF_API int ERR_unmask(ERR_DESCRIPTOR *descriptor);
PXF_API int ERR_mask_s(int severity);
PXF_API int ERR_unmask_s(int severity);
PXF_API ERR_DESCRIPTOR *ERR_last(int n);

PXF_API int ERR_dcl_handler(ERR_DESCRIPTOR *descriptor, ERR_HANDLER handler, void *data);
PXF_API ERR_HANDLER ERR_can_handler(ERR_DESCRIPTOR *descriptor);
PXF_API int ERR_def_handler(const char *name, int severity, const char *text,
                            ERR_DESCRIPTOR *descriptor);
PXF_API int ERR_traverse_handlers(ERR_DESCRIPTOR *descriptor, const char *text);
PXF_API int ERR_compare(const char *key, const ERR_DESCRIPTOR *descriptor, int skip_prefix);
PXF_API const char *ERR_type(int severity);

PXF_API void *ERR_malloc(uint32_t size);
PXF_API void *ERR_realloc(void *pointer, uint32_t size);
PXF_API int ERR_free(void *pointer);

PXF_END_DECLS

#endif /* PXF_ERR_H */
