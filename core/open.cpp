// Opening an image through its driver, moving scanlines, seeking and closing.
#include <cstdio>
#include <cstring>

#include <pxf/plugin.h>
#include <pxf/pxf.h>

#include "core/core_util.h"
#include "core/defaults.h"
#include "core/registry.h"

namespace {

using pxf::kSetMessages;

const char *kUnknownType =
    "Invalid type %s (either the output file format type or the channel type stored in the file is incorrect)";

// Holds the open lock for one scope.
class OpenLock {
public:
    OpenLock() { pthread_mutex_lock(&pxf::open_lock); }
    ~OpenLock() { pthread_mutex_unlock(&pxf::open_lock); }
    OpenLock(const OpenLock &) = delete;
    OpenLock &operator=(const OpenLock &) = delete;
};

PXF_IMAGE *out_of_memory(PXF_IMAGE *image) {
    if (image) pxf__free_obj(image);
    pxf::report_no_memory();
    pxf__err = pxf::kErrNoMemory;
    return nullptr;
}

PXF_IMAGE *new_handle(int mode) {
    auto *image = static_cast<PXF_IMAGE *>(pxf::heap_alloc(sizeof(PXF_IMAGE)));
    if (!image) return nullptr;
    pxf__init_obj(image, mode);
    return image;
}

struct Choice {
    const PXF_TYPE *entry = nullptr;
    bool by_key = false;  // the caller's key named it exactly
};

Choice choose_driver(const char *key, const char *path) {
    Choice c;
    if (!key) {
        if ((c.entry = pxf::plugin_by_path(path))) return c;
        if ((c.entry = pxf::builtin_by_path(path))) return c;
        const char *fallback = pxf__default;
        if ((c.entry = pxf::plugin_by_key(fallback)) || (c.entry = pxf::builtin_by_key(fallback)) ||
            (c.entry = pxf::plugin_by_extension(fallback)) || (c.entry = pxf::builtin_by_extension(fallback)))
            return c;
        return c;
    }
    c.by_key = true;
    if ((c.entry = pxf::plugin_by_key(key)) || (c.entry = pxf::builtin_by_key(key))) return c;
    c.by_key = false;
    c.entry = pxf::plugin_by_extension(key);
    return c;
}

PXF_IMAGE *open_locked(PXF_INFO *info, const char *mode) {
    if (info->init_magic != PXF_INFO_MAGIC) {
        std::fputs("PXF_open: application programming error.\n", stderr);
        std::fputs("The application must call PXF_info_init or PXF_info_alloc\n", stderr);
        std::fputs("on the info structure before passing it to PXF_open.\n", stderr);
        // Its strings and counts are whatever the memory held: reading them
        // could crash or run wild, so the warning is also a refusal.
        pxf__err = pxf::kErrMissingField;
        return nullptr;
    }
    bool reading = mode && std::strcmp(mode, "r") == 0;
    bool writing = mode && std::strcmp(mode, "w") == 0;
    if (!reading && !writing) {
        pxf::report(kSetMessages, 44, "File open mode (\"%s\") not recognized; expecting \"r\" or \"w\"",
                    mode ? mode : "");
        return nullptr;
    }

    PXF_IMAGE *image = nullptr;
    if (reading) {
        if ((image = PXF_multiframe_open(info, mode))) goto opened;
        if (pxf__err) return nullptr;  // the layer claimed the name and has reported
        if (!(image = new_handle(PXF_MODE_READ))) return out_of_memory(nullptr);
        PXF_INFO &to = image->info;
        if ((info->key && !(to.key = pxf::dup_string(info->key))) ||
            (info->handle && !(to.handle = pxf::dup_string(info->handle))))
            return out_of_memory(image);
        if (info->specific && info->specific[0] && !(to.specific = pxf::copy_settings(info->specific))) return out_of_memory(image);
        to.option_flag = info->option_flag;
        to.open_flag = info->open_flag;
    } else {
        if (!info->handle)
            return pxf::fail<PXF_IMAGE *>(nullptr, pxf::kErrMissingField, kSetMessages, 88,
                                          "Required field, %s, uninitialized", "handle");
        if (!(image = new_handle(PXF_MODE_WRITE))) return out_of_memory(nullptr);
        if (!pxf__build_obj(image, info)) return out_of_memory(image);
        int count = info->num_images > 0 ? info->num_images : 0;
        if (count) {
            image->info.images = static_cast<PXF_IMAGE_DESC *>(pxf::heap_alloc(count * sizeof(PXF_IMAGE_DESC)));
            if (!image->info.images) return out_of_memory(image);
        }
        image->info.num_images = count;
        pxf__init_ifd(image);
        if (!pxf__build_ifd(image, info)) {
            pxf__free_obj(image);
            return nullptr;
        }
    }

    {
        Choice choice = choose_driver(info->key, info->handle);
        if (!choice.entry) {
            pxf__free_obj(image);
            return pxf::fail<PXF_IMAGE *>(nullptr, pxf::kErrUnknownType, kSetMessages, 51, kUnknownType,
                                          pxf__default);
        }
        PXF_INFO &to = image->info;
        if (!choice.by_key) {
            pxf::free_string(to.key);
            if (!(to.key = pxf::dup_string(choice.entry->key))) return out_of_memory(image);
        }
        pxf::free_string(to.ext);
        if (!(to.ext = pxf::dup_string(choice.entry->extension))) return out_of_memory(image);
        PXF_OPEN_FN open = reading ? choice.entry->read_open : choice.entry->write_open;
        if (!open) {
            pxf__free_obj(image);
            return pxf::fail<PXF_IMAGE *>(nullptr, pxf::kErrCannotDo, kSetMessages, 87,
                                          "%s cannot handle the requested action",
                                          info->key ? info->key : choice.entry->key);
        }
        if (!open(image)) {
            pxf__free_obj(image);
            return nullptr;
        }
        if (reading) PXF_multiframe_add(image);
    }

opened:
    if (reading && image->info.images && image->info.num_images > 0) {
        const PXF_IMAGE_DESC &d = image->info.images[0];
        image->current_line = (d.orientation & 1) ? -1 : d.window.top + 1;
    }
    pxf__err = 0;
    image->driver = PXF_find(image->info.key);
    return image;
}

// A driver that refuses a row without a word (plug-ins often just return
// -2) still gets its refusal explained, so that the user sees why.
void explain_silent_failure(PXF_IMAGE *image, int line, int result) {
    const char *name = image->info.handle ? image->info.handle : "the image";
    if (result != pxf::kErrBadScanline || !image->info.images || image->info.num_images < 1) {
        pxf::note_error_code(result);
        return;
    }
    const PXF_IMAGE_DESC &d = image->info.images[0];
    if (line < d.window.bottom || line > d.window.top) {
        pxf::report(kSetMessages, 260, "Bad scanline: %d of %s (outside the window, rows %d to %d)", line, name,
                    d.window.bottom, d.window.top);
    } else {
        const char *key = image->info.key ? image->info.key : "image";
        bool writing = (image->mode & PXF_MODE_WRITE) != 0;
        pxf::report(kSetMessages, 261,
                    "Bad scanline: %d of %s (the %s driver %s rows only in order, %s, each once)", line, name, key,
                    writing ? "writes" : "reads", (d.orientation & 1) ? "bottom row first" : "top row first");
    }
    pxf__err = result;
    pxf::note_error_code(result);
}

int scan_locked(PXF_IMAGE *image, int line, void ***rows) {
    if (!image) {
        pxf__err = pxf::kErrCannotDo;
        return pxf::kErrCannotDo;
    }
    pthread_mutex_lock(&image->lock);
    if (!image->scan || !image->private_data || !image->private_data[0]) {
        pthread_mutex_unlock(&image->lock);
        pxf__err = pxf::kErrCannotDo;
        return pxf::kErrCannotDo;
    }
    unsigned long reports = pxf::error_reports_on_thread();
    int result = image->scan(image->private_data[0], line, rows, image->private_data);
    if (result == 0) image->current_line = line;
    else if (pxf::error_reports_on_thread() == reports) explain_silent_failure(image, line, result);
    else pxf::note_error_code(result);
    pthread_mutex_unlock(&image->lock);
    return result;
}

int direct_scan_locked(PXF_IMAGE *image, int line, void *buffer, int64_t arg, int count, float value) {
    if (!image) {
        pxf__err = pxf::kErrCannotDo;
        return pxf::kErrCannotDo;
    }
    pthread_mutex_lock(&image->lock);
    if (!image->direct_scan || !image->private_data || !image->private_data[0]) {
        pthread_mutex_unlock(&image->lock);
        pxf__err = pxf::kErrCannotDo;
        return pxf::kErrCannotDo;
    }
    int result = image->direct_scan(image->private_data[0], line, buffer, arg, count, value);
    if (result == 0) image->current_line = line;
    pthread_mutex_unlock(&image->lock);
    return result;
}

}  // namespace

PXF_IMAGE *PXF_open(PXF_INFO *info, const char *mode) {
    pxf__err = 0;
    if (!pxf::ensure_registry("PXF_open")) return nullptr;
    if (!info) return nullptr;
    unsigned long reports = pxf::error_reports_on_thread();
    PXF_IMAGE *image = nullptr;
    {
        OpenLock lock;
        image = open_locked(info, mode);
    }
    if (!image && pxf::error_reports_on_thread() != reports) pxf::note_error_code(pxf__err);
    return image;
}

int PXF_scan_read(PXF_IMAGE *image, int line, void ***rows) { return scan_locked(image, line, rows); }

int PXF_scan_write(PXF_IMAGE *image, int line, void ***rows) { return scan_locked(image, line, rows); }

int PXF_direct_scan_read(PXF_IMAGE *image, int line, void *buffer, int64_t arg, int count, float value) {
    return direct_scan_locked(image, line, buffer, arg, count, value);
}

int PXF_direct_scan_write(PXF_IMAGE *image, int line, void *buffer, int64_t arg, int count, float value) {
    return direct_scan_locked(image, line, buffer, arg, count, value);
}

int PXF_seek(PXF_IMAGE **handle, int line) {
    pxf__err = 0;
    if (!handle || !*handle) {
        pxf__err = pxf::kErrCannotDo;
        return pxf__err;
    }
    PXF_IMAGE *image = *handle;
    if (image->seek) {
        pthread_mutex_lock(&image->lock);
        image->seek(image->private_data ? image->private_data[0] : nullptr, line);
        pthread_mutex_unlock(&image->lock);
        return pxf__err;
    }
    int both = PXF_ACCESS_READ | PXF_ACCESS_RANDOM;
    if (image->driver && (image->driver->access & both) == both) return pxf__err;
    if (!image->info.images || image->info.num_images <= 0) return pxf__err;

    // Sequential driver: reopen when the line has gone by, then skip to it.
    const PXF_IMAGE_DESC &d = image->info.images[0];
    bool bottom_up = d.orientation & 1;
    if (line == -1) line = bottom_up ? d.window.bottom : d.window.top;
    bool passed = bottom_up ? line <= image->current_line : line >= image->current_line;
    if (passed) {
        PXF_INFO again;
        PXF_info_init(&again);
        again.key = pxf::dup_string(image->driver ? image->driver->key : image->info.key);
        again.handle = pxf::dup_string(image->info.handle);
        again.option_flag = 1;
        again.open_flag = 0;
        again.specific = image->info.specific;  // moved to the new handle
        image->info.specific = nullptr;
        PXF_close(image);
        image = (again.key && again.handle) ? PXF_open(&again, "r") : nullptr;
        pxf::free_settings(again.specific);
        again.specific = nullptr;
        PXF_info_cleanup(&again, 1);
        *handle = image;
        if (!image) return pxf__err;
        bool still_past = bottom_up ? line <= image->current_line : line >= image->current_line;
        if (still_past) std::fputs("PXF_seek: did not advance image pointer correctly\n", stderr);
    }
    const PXF_IMAGE_DESC &now = image->info.images[0];
    int width = now.window.right - now.window.left + 1;
    PXF_IMAGE_DESC shape = now;
    void **scratch = pxf__chan_alloc(&shape, width, "PXF_seek");
    if (!scratch) return pxf__err;
    int step = bottom_up ? 1 : -1;
    for (int l = image->current_line + step; bottom_up ? l < line : l > line; l += step) {
        void **rows = scratch;
        if (PXF_scan_read(image, l, &rows) != 0) break;
    }
    pxf__chan_free(scratch);
    *handle = image;
    return pxf__err;
}

int PXF_close_do_it(PXF_IMAGE *image) {
    if (!image || !image->close) {
        pxf__err = pxf::kErrCannotDo;
        return pxf::kErrCannotDo;
    }
    return image->close(image);
}

int PXF_close(PXF_IMAGE *image) {
    if (!image) {
        pxf__err = pxf::kErrCannotDo;
        return pxf::kErrCannotDo;
    }
    pthread_mutex_lock(&image->lock);
    OpenLock lock;
    // With both locks held no scan is running; the handle lock is released
    // before the close function frees the handle, since a held mutex must
    // not be destroyed.
    pthread_mutex_unlock(&image->lock);
    if (PXF_multiframe_used(image)) return PXF_multiframe_set_closed(image);
    return PXF_close_do_it(image);
}
