#include <pxf/dst.h>
#include <pxf/err.h>
#include <pxf/pxf.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "errors/err_format.h"
#include "foundation/alloc.h"
#include "foundation/last_error.h"
#include "foundation/report.h"
#include "resources/rsc_errors.h"

extern "C" {

int error_mask = 0;
unsigned char error_smask[ERR_NUM_SEVERITIES] = {1, 0, 0, 0, 0};  // DEBUG is quiet from the start
uint32_t error_count[ERR_NUM_SEVERITIES] = {0, 0, 0, 0, 0};
ERR_DESCRIPTOR *last_error[ERR_LAST_RING] = {};
int error_index = ERR_LAST_RING - 1;  // so that the first report lands in slot 0
const char *ERR_msg_header[ERR_NUM_SEVERITIES] = {"DEBUG", "INFORMATION", "WARNING", "ERROR",
                                                  "FATAL"};
ERR_HANDLER_NODE *handler_list = nullptr;
void *handler_freelist = nullptr;
int err_mp_locking_used = 0;
pthread_mutex_t *err_mp_lock = nullptr;

}  // extern "C"

namespace {

// Holds the application's lent mutex, if reports are to be serialised.
class ReportLock {
public:
    ReportLock() noexcept : mutex_(err_mp_locking_used ? err_mp_lock : nullptr) {
        if (mutex_) pthread_mutex_lock(mutex_);
    }
    ~ReportLock() {
        if (mutex_) pthread_mutex_unlock(mutex_);
    }
    ReportLock(const ReportLock &) = delete;
    ReportLock &operator=(const ReportLock &) = delete;

private:
    pthread_mutex_t *mutex_;
};

bool valid_severity(int severity) noexcept {
    return static_cast<unsigned>(severity) < ERR_NUM_SEVERITIES;
}

// Severities outside 0..4 are neither counted nor masked by severity: the
// per-severity tables have no slot for them.
bool severity_masked(int severity) noexcept {
    return valid_severity(severity) && error_smask[severity] != 0;
}

void count_severity(int severity) noexcept {
    if (valid_severity(severity)) ++error_count[severity];
}

void remember(ERR_DESCRIPTOR *descriptor) noexcept {
    error_index = (error_index + 1) % ERR_LAST_RING;
    last_error[error_index] = descriptor;
}

// The internal descriptor and text buffer behind ERR_report_cat or ERR_printf.
struct TextReport {
    ERR_DESCRIPTOR descriptor{1, ERR_ERROR, 0, nullptr, nullptr, 0, nullptr, nullptr, 0, 0, nullptr};
    char text[ERR_CAT_TEXT_MAX] = {};
};
TextReport cat_report;
TextReport plain_report;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
void report_text(TextReport &entry, int severity, const char *caller_format, const char *format,
                 std::va_list args) noexcept {
    std::vsnprintf(entry.text, sizeof entry.text, format ? format : "", args);
    entry.descriptor.severity = static_cast<uint8_t>(severity);
    entry.descriptor.name = caller_format;
    entry.descriptor.format = entry.text;
    // Counted only here, after the masks: suppressed catalogue and plain reports are not counted.
    count_severity(severity);
    remember(&entry.descriptor);
    ERR_traverse_handlers(&entry.descriptor, entry.text);
}
#pragma GCC diagnostic pop

ERR_HANDLER_NODE **handler_head(ERR_DESCRIPTOR *descriptor) noexcept {
    return descriptor ? &descriptor->handler_list : &handler_list;
}

// Calls each node of a chain; the next node is read first because a handler may cancel itself.
bool run_chain(ERR_HANDLER_NODE *node, const char *name, int severity, const char *text,
               ERR_DESCRIPTOR *descriptor, bool pass_data) noexcept {
    while (node) {
        ERR_HANDLER_NODE *next = node->next;
        if (node->handler && node->handler(name, severity, text, descriptor, pass_data ? node->data : nullptr) == 0)
            return true;
        node = next;
    }
    return false;
}

}  // namespace

extern "C" {

int ERR_report(ERR_DESCRIPTOR *descriptor, ...) {
    if (!descriptor) return 0;
    ReportLock lock;
    // Both counts rise even when the report is then suppressed.
    ++descriptor->count;
    count_severity(descriptor->severity);
    if (error_mask || severity_masked(descriptor->severity) || (descriptor->flags & ERR_FLAG_MASKED))
        return 0;
    char text[ERR_REPORT_TEXT_MAX];
    std::va_list args;
    va_start(args, descriptor);
    pxf::format_message(text, sizeof text, descriptor->format, args);
    va_end(args);
    pxf::note_error_text(descriptor->severity, text);
    remember(descriptor);
    ERR_traverse_handlers(descriptor, text);
    return 0;
}

int ERR_report_cat(nl_catd catalog, int set, int number, int severity, const char *format, ...) {
    const char *text = catalog ? catgets(catalog, set, number, format) : format;
    std::va_list args;
    va_start(args, format);
    // The thread's last error is kept even when the masks silence the report.
    pxf::note_error_report(severity, text, args);
    ReportLock lock;
    if (!error_mask && !severity_masked(severity)) report_text(cat_report, severity, format, text, args);
    va_end(args);
    return 0;
}

int ERR_printf(int severity, const char *format, ...) {
    std::va_list args;
    va_start(args, format);
    pxf::note_error_report(severity, format, args);
    ReportLock lock;
    if (!error_mask && !severity_masked(severity)) report_text(plain_report, severity, format, format, args);
    va_end(args);
    return 0;
}

void ERR_report_errno(int error_number, const char *name) {
    if (error_number == 0) return;
    bool named = name && *name;
    if (named && error_number > 0)
        ERR_printf(ERR_ERROR, "%s: %s", name, std::strerror(error_number));
    else if (named)
        ERR_printf(ERR_ERROR, "%s: error %d", name, error_number);
    else if (error_number > 0)
        ERR_printf(ERR_ERROR, "%s", std::strerror(error_number));
    else
        ERR_printf(ERR_ERROR, "error %d", error_number);
}

// Deliberately outside the lock, the masks, the counters and the ring.
int ERR_report_rsc(void *, const char *name, ...) {
    const unsigned char *data = nullptr;
    std::size_t size = 0;
    if (!name || !pxf::find_error_resource(name, &data, &size) || size < 2) return 0;
    int severity = static_cast<int16_t>(static_cast<uint16_t>((data[0] << 8) | data[1]));
    // The stored text need not be terminated inside the resource: take a bounded copy.
    char format[ERR_RSC_TEXT_MAX];
    std::size_t length = std::min(size - 2, sizeof format - 1);
    std::size_t end = 0;
    while (end < length && data[2 + end]) ++end;
    std::memcpy(format, data + 2, end);
    format[end] = '\0';
    char text[ERR_RSC_TEXT_MAX];
    std::va_list args;
    va_start(args, name);
    pxf::format_message(text, sizeof text, format, args);
    va_end(args);
    pxf::note_error_text(severity, text);
    if (run_chain(handler_list, name, severity, text, nullptr, false)) return 0;
    ERR_def_handler(name, severity, text, nullptr);
    return 0;
}

int ERR_report_mp(pthread_mutex_t *mutex, int use_locking) {
    if ((use_locking != 0) != (err_mp_locking_used != 0)) {
        err_mp_lock = mutex;
        err_mp_locking_used = use_locking;
    } else if (mutex != err_mp_lock) {
        err_mp_lock = mutex;
    }
    return 1;
}

int ERR_traverse_handlers(ERR_DESCRIPTOR *descriptor, const char *text) {
    if (!descriptor) return ERR_def_handler(nullptr, ERR_ERROR, text, nullptr);
    const char *name = descriptor->name;
    int severity = descriptor->severity;
    if (run_chain(descriptor->handler_list, name, severity, text, descriptor, true)) return 0;
    if (descriptor->handler && descriptor->handler(name, severity, text, descriptor, nullptr) == 0)
        return 0;
    if (run_chain(handler_list, name, severity, text, descriptor, true)) return 0;
    return ERR_def_handler(name, severity, text, descriptor);
}

int ERR_def_handler(const char *, int severity, const char *text, ERR_DESCRIPTOR *) {
    std::fprintf(stderr, "%s, %s\n", ERR_type(severity), text ? text : "");
    std::fflush(stderr);
    if (severity == ERR_FATAL) std::exit(1);
    return 0;
}

void ERR_query(ERR_DESCRIPTOR *descriptor, int *severity, int *masked, uint32_t *count,
               const char **name, const char **format, uint64_t *user1, uint64_t *user2) {
    if (!descriptor) return;
    if (severity) *severity = descriptor->severity;
    if (masked) *masked = descriptor->flags & ERR_FLAG_MASKED;
    if (count) *count = descriptor->count;
    if (name) *name = descriptor->name;
    if (format) *format = descriptor->format;
    if (user1) *user1 = descriptor->user1;
    if (user2) *user2 = descriptor->user2;
}

uint32_t ERR_stats(int severity) {
    if (severity == -1) {
        uint32_t sum = 0;
        for (uint32_t c : error_count) sum += c;
        return sum;
    }
    return valid_severity(severity) ? error_count[severity] : 0;
}

static int set_mask(ERR_DESCRIPTOR *descriptor, bool on) {
    if (!descriptor) {
        int previous = error_mask;
        error_mask = on ? 1 : 0;
        return previous;
    }
    int previous = descriptor->flags & ERR_FLAG_MASKED;
    if (on) descriptor->flags |= ERR_FLAG_MASKED;
    else descriptor->flags &= static_cast<uint8_t>(~ERR_FLAG_MASKED);
    return previous;
}

static int set_severity_mask(int severity, bool on) {
    if (!valid_severity(severity)) return 0;
    int previous = error_smask[severity];
    error_smask[severity] = on ? 1 : 0;
    return previous;
}

int ERR_mask(ERR_DESCRIPTOR *descriptor) { return set_mask(descriptor, true); }
int ERR_unmask(ERR_DESCRIPTOR *descriptor) { return set_mask(descriptor, false); }
int ERR_mask_s(int severity) { return set_severity_mask(severity, true); }
int ERR_unmask_s(int severity) { return set_severity_mask(severity, false); }

ERR_DESCRIPTOR *ERR_last(int n) {
    int slot = error_index - n;
    if (slot < 0) slot += ERR_LAST_RING;
    // n is meant to lie in 0..15; anything else would read outside the ring.
    if (slot < 0 || slot >= ERR_LAST_RING) return nullptr;
    return last_error[slot];
}

int ERR_dcl_handler(ERR_DESCRIPTOR *descriptor, ERR_HANDLER handler, void *data) {
    auto *node = static_cast<ERR_HANDLER_NODE *>(DST_malloc(&handler_freelist, sizeof(ERR_HANDLER_NODE)));
    if (!node) return 0;
    ERR_HANDLER_NODE **head = handler_head(descriptor);
    node->next = *head;
    node->handler = handler;
    node->data = data;
    *head = node;
    return 1;
}

ERR_HANDLER ERR_can_handler(ERR_DESCRIPTOR *descriptor) {
    ERR_HANDLER_NODE **head = handler_head(descriptor);
    ERR_HANDLER_NODE *node = *head;
    if (!node) return nullptr;
    *head = node->next;
    ERR_HANDLER handler = node->handler;
    handler_freelist = DST_free(node, handler_freelist);
    return handler;
}

int ERR_compare(const char *key, const ERR_DESCRIPTOR *descriptor, int skip_prefix) {
    const char *name = descriptor && descriptor->name ? descriptor->name : "";
    if (skip_prefix) name += strnlen(name, 5);  // a name shorter than the prefix compares as empty
    std::size_t key_length = std::strlen(key ? key : "");
    if (key_length < std::strlen(name)) return std::strncmp(key, name, key_length);
    return std::strcmp(key ? key : "", name);
}

const char *ERR_type(int severity) {
    // Out-of-range severities have no word; give a printable one rather than read past the table.
    return valid_severity(severity) ? ERR_msg_header[severity] : "UNKNOWN";
}

void *ERR_malloc(uint32_t size) { return pxf::alloc(size); }

void *ERR_realloc(void *pointer, uint32_t size) {
    void *p = pxf::heap_realloc(pointer, size);
    if (!p) pxf::report_no_memory();
    return p;
}

int ERR_free(void *pointer) {
    pxf::heap_free(pointer);
    return 1;
}

}  // extern "C"
