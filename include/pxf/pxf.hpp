/*
 * A C++20 layer over the C interface, header-only: images that close
 * themselves, a description builder, typed row views and exceptions.  It
 * adds no behaviour of its own; every call is the C function it names.
 *
 *   pxf::Image out = pxf::Image::create("out.rla", pxf::Description(64, 32).colour(3, pxf::Element::u8));
 *   pxf::Rows rows = out.rows();
 *   for (int line = out.top(); line >= out.bottom(); --line) {
 *       for (auto &v : rows.channel<std::uint8_t>(0)) v = 200;
 *       out.write(line, rows);
 *   }
 *   out.close();                                  // or let the destructor close it
 *   pxf::Image in = pxf::Image::open("out.rla");
 *   in.cast();                                    // operators stack on the image
 *   std::span<const float> red = in.read(in.top()).channel<float>(0);
 *
 * Failures throw pxf::Error, which carries the library's first error
 * report of the call (its text) and the code left in pxf__err.  Each
 * throwing call has a non-throwing twin taking a pxf::Status & last.
 * Reports still reach the application's handlers as before: the layer only
 * listens.  An Image belongs to one thread at a time, like the handle it
 * holds.
 */
#ifndef PXF_PXF_HPP
#define PXF_PXF_HPP

#include <pxf/err.h>
#include <pxf/pxf.h>

#include <cstdint>
#include <cstring>
#include <span>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

namespace pxf {

/* The library's report and code of a failed call. */
class Error : public std::runtime_error {
public:
    Error(const std::string &message, int code) : std::runtime_error(message), code_(code) {}
    int code() const noexcept { return code_; }

private:
    int code_;
};

/* The outcome of a non-throwing call: ok() or a message and code. */
struct Status {
    int code = 0;
    std::string message;
    bool ok() const noexcept { return code == 0 && message.empty(); }
    explicit operator bool() const noexcept { return ok(); }
};

namespace detail {

inline thread_local std::string first_report;

// Notes the first error report of the current call and passes it on.
inline int listen(const char *, int severity, const char *text, ERR_DESCRIPTOR *, void *) {
    if (severity >= ERR_ERROR && first_report.empty() && text) first_report = text;
    return 1;
}

inline void begin() {
    static const bool listening = ERR_dcl_handler(nullptr, listen, nullptr) >= 0;
    (void)listening;
    first_report.clear();
}

inline Status failure(const char *what) {
    Status s;
    s.code = pxf__err < 0 ? pxf__err : -1;
    s.message = first_report.empty() ? std::string(what) : first_report;
    return s;
}

inline void raise(const Status &s) {
    if (!s.ok()) throw Error(s.message, s.code);
}

} // namespace detail

/* Element types of a channel group: integers of 8, 16 or 32 bits, halves
 * (read as 4-byte floats; the width records the file's 16 bits), floats
 * and doubles. */
enum class Element { u8, u16, u32, f16, f32, f64 };

/* Builds a PXF_IMAGE_DESC: window 0..width-1 x 0..height-1, no channels. */
class Description {
public:
    Description(int width, int height) {
        d_.image_kind = 1;
        d_.curve.kind = PXF_CURVE_GAMMA;
        d_.curve.gamma = 1.0f;
        d_.window = d_.active_window = {0, width - 1, 0, height - 1};
        d_.x_res = width;
        d_.y_res = height;
        d_.aspect_ratio = height > 0 ? float(width) / float(height) : 1.0f;
        d_.step = d_.orientation = 1;
        for (PXF_CHAN_GROUP *g : {&d_.chan, &d_.matte, &d_.aux}) *g = {nullptr, 0, PXF_C_INTEGER, 8, 0};
        d_.index = {nullptr, 0, PXF_C_INTEGER, 16, 0};
    }
    Description &colour(int count, Element e) { return group(d_.chan, count, e); }
    Description &matte(int count, Element e) { return group(d_.matte, count, e); }
    Description &aux(int count, Element e) { return group(d_.aux, count, e); }
    Description &gamma(float g) {
        d_.curve.gamma = g;
        return *this;
    }
    Description &window(PXF_BOUNDS w) {
        d_.window = w;
        return *this;
    }
    Description &active_window(PXF_BOUNDS w) {
        d_.active_window = w;
        return *this;
    }
    const PXF_IMAGE_DESC &get() const noexcept { return d_; }

private:
    Description &group(PXF_CHAN_GROUP &g, int count, Element e) {
        static const int types[] = {PXF_C_INTEGER, PXF_C_INTEGER, PXF_C_INTEGER, PXF_C_FLOAT, PXF_C_FLOAT, PXF_C_DOUBLE};
        static const int widths[] = {8, 16, 32, 16, 32, 64};
        g.count = count;
        g.type = types[int(e)];
        g.width = widths[int(e)];
        return *this;
    }
    PXF_IMAGE_DESC d_{};
};

/* Channel-row pointers of one scanline: typed views of each channel, in
 * group order (colour, matte, auxiliary).  Either owns a channel buffer
 * (Image::rows) or views the rows a read delivered. */
class Rows {
public:
    Rows() = default;
    Rows(const Rows &) = delete;
    Rows &operator=(const Rows &) = delete;
    Rows(Rows &&o) noexcept { *this = std::move(o); }
    Rows &operator=(Rows &&o) noexcept {
        if (this != &o) {
            free();
            owned_ = std::exchange(o.owned_, nullptr);
            rows_ = std::exchange(o.rows_, nullptr);
            desc_ = o.desc_;
            width_ = o.width_;
        }
        return *this;
    }
    ~Rows() { free(); }

    int count() const noexcept { return desc_.chan.count + desc_.matte.count + desc_.aux.count; }
    int width() const noexcept { return width_; }
    /* The group of channel c. */
    const PXF_CHAN_GROUP &group(int c) const noexcept {
        return c < desc_.chan.count ? desc_.chan : c < desc_.chan.count + desc_.matte.count ? desc_.matte : desc_.aux;
    }
    /* Channel c as elements of T, which must be the group's element type. */
    template <class T>
    std::span<T> channel(int c) const {
        if (c < 0 || c >= count()) throw Error("no channel " + std::to_string(c), PXF_E_CANNOT_DO);
        if (!fits<std::remove_const_t<T>>(group(c)))
            throw Error("channel " + std::to_string(c) + " holds another element type", PXF_E_FIELD_MISMATCH);
        return std::span<T>(static_cast<T *>(rows_[c]), std::size_t(width_));
    }
    /* The C array, for PXF_scan_read and PXF_scan_write. */
    void **data() const noexcept { return rows_; }

private:
    friend class Image;
    template <class T>
    static bool fits(const PXF_CHAN_GROUP &g) {
        if (g.type == PXF_C_FLOAT) return std::is_same_v<T, float>;
        if (g.type == PXF_C_DOUBLE) return std::is_same_v<T, double>;
        if (g.width <= 8) return std::is_same_v<T, std::uint8_t>;
        if (g.width <= 16) return std::is_same_v<T, std::uint16_t>;
        return std::is_same_v<T, std::uint32_t>;
    }
    void free() noexcept {
        if (owned_) PXF_chan_free(owned_);
        owned_ = rows_ = nullptr;
    }
    void **owned_ = nullptr;
    void **rows_ = nullptr;
    PXF_IMAGE_DESC desc_{};
    int width_ = 0;
};

/* Settings of PXF_INFO that open and create take besides the file name. */
struct Options {
    std::string key;         /* driver key; empty: chosen by the file name */
    std::string compression; /* writing: the driver's compression name */
};

/* An open image.  Move-only; the destructor closes it (and so removes
 * every operator stacked on it). */
class Image {
public:
    Image() = default;
    explicit Image(PXF_IMAGE *image) noexcept : image_(image) {}
    Image(const Image &) = delete;
    Image &operator=(const Image &) = delete;
    Image(Image &&o) noexcept : image_(std::exchange(o.image_, nullptr)), scratch_(std::move(o.scratch_)) {}
    Image &operator=(Image &&o) noexcept {
        if (this != &o) {
            if (image_) PXF_close(image_);
            image_ = std::exchange(o.image_, nullptr);
            scratch_ = std::move(o.scratch_);
        }
        return *this;
    }
    ~Image() {
        if (image_) PXF_close(image_);
    }

    /* PXF_open(..., "r"). */
    static Image open(const std::string &path, const Options &options = {}) {
        Status s;
        Image image = open(path, options, s);
        detail::raise(s);
        return image;
    }
    static Image open(const std::string &path, const Options &options, Status &status) noexcept {
        return start(path, options, nullptr, 0, "r", status);
    }
    /* PXF_open(..., "w") with one image description. */
    static Image create(const std::string &path, const Description &d, const Options &options = {}) {
        Status s;
        Image image = create(path, d, options, s);
        detail::raise(s);
        return image;
    }
    static Image create(const std::string &path, const Description &d, const Options &options,
                        Status &status) noexcept {
        return start(path, options, &d.get(), 1, "w", status);
    }

    explicit operator bool() const noexcept { return image_ != nullptr; }
    PXF_IMAGE *get() const noexcept { return image_; }
    PXF_IMAGE *release() noexcept { return std::exchange(image_, nullptr); }
    const PXF_INFO &info() const noexcept { return image_->info; }
    const PXF_IMAGE_DESC &desc(int i = 0) const noexcept { return image_->info.images[i]; }
    int width() const noexcept { return desc().window.right - desc().window.left + 1; }
    int height() const noexcept { return desc().window.top - desc().window.bottom + 1; }
    int top() const noexcept { return desc().window.top; }
    int bottom() const noexcept { return desc().window.bottom; }

    /* A zeroed channel buffer shaped like the image's first description. */
    Rows rows() const {
        Rows r;
        r.desc_ = desc();
        r.width_ = width();
        r.owned_ = r.rows_ = PXF_chan_alloc(&r.desc_, r.width_, "pxf.hpp", nullptr);
        if (!r.owned_) throw Error("no memory for a scanline buffer", PXF_E_NO_MEMORY);
        return r;
    }

    /* PXF_scan_read into `into` (which afterwards views the delivered rows;
     * they stay valid until the next read). */
    void read(int line, Rows &into) {
        Status s;
        read(line, into, s);
        detail::raise(s);
    }
    void read(int line, Rows &into, Status &status) noexcept {
        detail::begin();
        void **rows = into.rows_;
        into.desc_ = desc(); // operators may have changed the shape
        into.width_ = width();
        status = PXF_scan_read(image_, line, &rows) < 0 ? detail::failure("cannot read the scanline") : Status{};
        if (status.ok()) into.rows_ = rows;
    }
    /* Reads into a buffer of its own; the views stay valid until the next read. */
    const Rows &read(int line) {
        if (!scratch_.owned_) scratch_ = rows();
        scratch_.rows_ = scratch_.owned_;
        read(line, scratch_);
        return scratch_;
    }

    /* PXF_scan_write. */
    void write(int line, const Rows &from) {
        Status s;
        write(line, from, s);
        detail::raise(s);
    }
    void write(int line, const Rows &from, Status &status) noexcept {
        detail::begin();
        void **rows = from.rows_;
        status = PXF_scan_write(image_, line, &rows) < 0 ? detail::failure("cannot write the scanline") : Status{};
    }

    /* Operators: each stacks on this image and returns it. */
    Image &cast() {
        prepare();
        return stage(PXF__cast(image_), "cannot stack the cast operator");
    }
    Image &gamma(float g) {
        prepare();
        PXF_RESPONSE_CURVE wanted{};
        wanted.kind = PXF_CURVE_GAMMA;
        wanted.gamma = g;
        return stage(PXF__gamma(image_, &wanted), "cannot stack the gamma operator");
    }
    Image &quantize(int bits) {
        prepare();
        const PXF_CHAN_TYPE request[3] = {{PXF_C_INTEGER, bits}, {PXF_C_INTEGER, bits}, {PXF_C_INTEGER, bits}};
        return stage(PXF__quantize(image_, request), "cannot stack the quantize operator");
    }
    Image &raster() {
        prepare();
        return stage(PXF__raster(image_), "cannot stack the raster operator");
    }

    /* PXF_close; throws when the driver could not finish the file. */
    void close() {
        Status s;
        close(s);
        detail::raise(s);
    }
    void close(Status &status) noexcept {
        detail::begin();
        scratch_ = Rows();
        PXF_IMAGE *image = std::exchange(image_, nullptr);
        status = image && PXF_close(image) != 0 ? detail::failure("cannot close the image") : Status{};
    }

private:
    static Image start(const std::string &path, const Options &options, const PXF_IMAGE_DESC *d, int count,
                       const char *mode, Status &status) noexcept {
        detail::begin();
        PXF_IMAGE_DESC copy{};
        if (d) copy = *d;
        PXF_INFO info;
        PXF_info_init(&info);
        info.key = options.key.empty() ? nullptr : const_cast<char *>(options.key.c_str());
        info.handle = const_cast<char *>(path.c_str());
        info.compression = options.compression.empty() ? nullptr : const_cast<char *>(options.compression.c_str());
        info.images = d ? &copy : nullptr;
        info.num_images = count;
        Image image(PXF_open(&info, mode)); // copies what it keeps
        PXF_info_cleanup(&info, 0);
        status = image ? Status{} : detail::failure("cannot open the image");
        return image;
    }
    void prepare() {
        if (!image_) throw Error("no open image", PXF_E_CANNOT_DO);
        detail::begin();
        pxf__err = 0;
    }
    Image &stage(PXF_IMAGE *result, const char *what) {
        // Operators return the image they were given, changed or not; a
        // failure leaves a negative pxf__err.
        if (!result || pxf__err < 0) detail::raise(detail::failure(what));
        image_ = result;
        scratch_ = Rows();
        return *this;
    }

    PXF_IMAGE *image_ = nullptr;
    Rows scratch_;
};

} // namespace pxf

#endif /* PXF_PXF_HPP */
