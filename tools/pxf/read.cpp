// Reading an image file through the operators the command asked for.
#include <pxf/plugin.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include "tool.h"

namespace pxftool {
namespace {

// Stacking and removing operators is not locked by the library: frames
// converted in parallel take turns here.
std::mutex chain_lock;

// The driver that claims the file by its content, else none (the library
// then goes by the extension).
std::string probe(const std::string &path) {
    int decided = 1;
    const char *key = PXF_get_file_type(path.c_str(), nullptr, &decided);
    if (!key || std::strcmp(key, PXF_LITERAL_HARD_KEY_none) == 0) return "";
    return key;
}

}  // namespace

FileSource::FileSource(const std::string &path, const ReadOptions &options) : path_(path) {
    if (access(path.c_str(), R_OK) != 0) throw Failure(path + ": " + std::strerror(errno));
    driver_key_ = probe(path);
    if (driver_key_.empty()) {
        PXF_TYPE *by_name = find_driver(extension_of(path));
        if (!by_name)
            throw Failure(path + ": unknown image format: no driver recognises its content (tried " +
                          probing_formats() + ") and no driver has the extension \"" + extension_of(path) + "\"");
        driver_key_ = by_name->key;
    }
    PXF_INFO info;
    PXF_info_init(&info);
    info.key = driver_key_.data();
    info.handle = path_.data();
    take_report();
    {
        std::lock_guard<std::mutex> hold(chain_lock);
        image_ = PXF_open(&info, "r");
    }
    PXF_info_cleanup(&info, 0);
    if (!image_) fail_with_report(path, "cannot read as " + driver_key_);
    if (image_->info.num_images < 1 || !image_->info.images) {
        PXF_close(image_);
        image_ = nullptr;
        throw Failure(path + ": the file holds no image");
    }
    // Operators read their input row by row as asked, so the stack takes
    // rows in any order when the driver does; two fields make a new image.
    constexpr int kRandomRead = PXF_ACCESS_READ | PXF_ACCESS_RANDOM;
    random_ = image_->driver && (image_->driver->access & kRandomRead) == kRandomRead && !options.field;
    try {
        std::lock_guard<std::mutex> hold(chain_lock);
        select_image(image_, options, path);
    } catch (...) {
        std::lock_guard<std::mutex> hold(chain_lock);
        PXF_close(image_);
        image_ = nullptr;
        throw;
    }
    // The caller's rows receive the driver's own layout; operators hand
    // back rows of their own.  8-byte elements fit every element type.
    Layout native = layout_of(image_->info.images[0]);
    Layout roomy = native;
    for (Group &g : roomy.group) g.type = PXF_C_DOUBLE;
    try {
        std::lock_guard<std::mutex> hold(chain_lock);
        if (options.field) {
            PXF_IMAGE *frame = PXF__field_init(image_);
            if (frame == image_) fail_with_report(path, "no partner field to pair with (name.NNNN fields)");
            image_ = frame;
            native = layout_of(image_->info.images[0]);
            roomy = native;
            for (Group &g : roomy.group) g.type = PXF_C_DOUBLE;
        }
        if (options.resize_width > 0 || options.resize_percent > 0.0 || options.fit_size > 0)
            image_ = apply_resize(image_, options, path);
        if (options.gamma > 0.0f) {
            PXF_RESPONSE_CURVE wanted{};
            wanted.kind = PXF_CURVE_GAMMA;
            wanted.gamma = options.gamma;
            pxf__err = 0;
            PXF_CLOSE_FN before = image_->close;
            image_ = PXF__gamma(image_, &wanted);
            if (pxf__err < 0) fail_with_report(path, "cannot correct the gamma of this image");
            // The operator leaves the described gamma alone; the rows now
            // carry the requested one, and later stages (cast, the writer)
            // must see that.
            if (image_->close != before) {
                image_->info.images[0].curve.gamma = options.gamma;
                image_->info.images[0].chan.extra &= ~PXF_CHAN_GAMMA_ASSUMED;
            }
        }
        if (options.to_float) image_ = PXF__cast(image_);
        if (options.quantize > 0) {
            // Colour and matte only: depth values lie outside 0..1 and the
            // operator does not clip.
            const PXF_CHAN_TYPE request[3] = {{PXF_C_INTEGER, options.quantize}, {PXF_C_INTEGER, options.quantize}, {0, 0}};
            const Layout before = layout_of(image_->info.images[0]);
            image_ = PXF__quantize(image_, request);
            note_unchanged_quantize(path, options.quantize, before, layout_of(image_->info.images[0]));
        }
        stack_colour_stages(image_, options, path);
    } catch (...) {
        std::lock_guard<std::mutex> hold(chain_lock);
        PXF_close(image_);
        image_ = nullptr;
        throw;
    }
    layout_ = layout_of(image_->info.images[0]);
    buffer_ = ChannelBuffer(roomy, native.width);
}

FileSource::~FileSource() {
    if (!image_) return;
    std::lock_guard<std::mutex> hold(chain_lock);
    PXF_close(image_);
}

void *const *FileSource::row(int line) {
    void **rows = buffer_.rows();
    if (PXF_scan_read(image_, line, &rows) < 0) fail_with_report(path_, "cannot read scanline " + std::to_string(line));
    return rows;
}

}  // namespace pxftool
