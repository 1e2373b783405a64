// Shared pieces of the pxf command: failures, plug-in loading, image
// layouts and row conversion, the writer used by convert and make-sample.
#pragma once

#include <pxf/pxf.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace pxftool {

enum ExitStatus { kExitOk = 0, kExitFailed = 1, kExitUsage = 2 };

// Bad command line: exit status 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};
// Bad input or failed I/O: exit status 1.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// ---- Library reports (errors.cpp) ----

// Routes the library's reports through the tool: warnings are printed at
// once, errors are kept (per thread) until the tool names the failure.
void capture_reports();
// The first error reported on this thread since the last call, or "".
std::string take_report();
// Throws Failure("what: <library's reason>") or Failure("what: fallback").
[[noreturn]] void fail_with_report(const std::string &what, const std::string &fallback);
void warn(const std::string &text);
// Information the user should see ("pxf: note: ..."), not a problem.
void note_that(const std::string &text);
// Drops this thread's reports while it lives (clean-up after a failure).
class QuietReports {
public:
    QuietReports();
    ~QuietReports();

private:
    bool was_;
};

// ---- Plug-ins (plugins.cpp) ----

// Loads every plug-in of PXF_PLUGIN_PATH (or the default directory) and
// initialises the library with them.
void load_plugins(const char *argv0);
// Every registered driver record: plug-ins first, then the built-ins.
std::vector<PXF_TYPE *> all_drivers();
// The driver record for a key or an extension, or null.
PXF_TYPE *find_driver(const std::string &key_or_extension);
std::string extension_of(const std::string &path);

// ---- Layouts and rows (pixels.cpp) ----

// Shape of one channel group.
struct Group {
    int count = 0;
    int type = PXF_C_INTEGER;
    int width = 8;
};
enum { kColour = 0, kMatte = 1, kAux = 2 };

struct Layout {
    Group group[3];
    int width = 0;  // pixels per row
    int height = 0; // scanlines
    int channels() const { return group[0].count + group[1].count + group[2].count; }
};

Layout layout_of(const PXF_IMAGE_DESC &desc);
void apply_layout(PXF_IMAGE_DESC &desc, const Layout &layout);
const char *type_name(int type);
// Rows of `to` from rows of `from` (channel-row arrays in group order).
void convert_rows(void *const *from_rows, const Layout &from, void *const *to_rows, const Layout &to);
// The layout a driver can store, closest to `from`.
Layout fit_to_driver(const Layout &from, const PXF_TYPE &driver, std::vector<std::string> &notes);

// One channel buffer that owns its block.
class ChannelBuffer {
public:
    ChannelBuffer() = default;
    ChannelBuffer(const Layout &layout, int pixels);
    ChannelBuffer(const ChannelBuffer &) = delete;
    ChannelBuffer &operator=(const ChannelBuffer &) = delete;
    ChannelBuffer(ChannelBuffer &&other) noexcept : rows_(other.rows_) { other.rows_ = nullptr; }
    ChannelBuffer &operator=(ChannelBuffer &&other) noexcept;
    ~ChannelBuffer();
    void **rows() const { return rows_; }

private:
    void **rows_ = nullptr;
};

// ---- Sources and the writer (write.cpp) ----

// Something that delivers scanlines of one layout.
class RowSource {
public:
    virtual ~RowSource() = default;
    virtual const Layout &layout() const = 0;
    virtual const PXF_IMAGE_DESC &desc() const = 0; // window, curve, orientation
    virtual const PXF_INFO *info() const = 0;       // texts and primaries, or null
    virtual bool bottom_up() const = 0;
    // Rows of scanline `line` (window coordinates), valid until the next call.
    virtual void *const *row(int line) = 0;
};

struct WriteOptions {
    std::string key;         // output driver; empty: from the file name
    std::string compression; // passed to the driver in info.compression
    int quality = 0;         // lossy drivers' quality 1..100 (a float setting); 0: the driver's default
    std::string program = "pxf";
    int frame = -1;      // frame number to record, -1: the source's
    bool append = false; // add to an existing multi-frame container
};

// Writes every scanline of `source` to `path`; `progress` gets lines done
// out of lines total.  Removes a partly written file on failure.
// Fails when `out` names the same file as `in`: writing it would destroy the input.
void refuse_same_file(const std::string &in, const std::string &out);
void write_image(RowSource &source, const std::string &path, const WriteOptions &options,
                 const std::function<void(int, int)> &progress);

// ---- Reading (read.cpp) ----

struct ReadOptions {
    bool to_float = false;
    float gamma = 0.0f; // 0: leave the gamma alone
    int quantize = 0;   // 0: no quantizing
    bool field = false;
    // Colour options (colour.cpp).
    int image = -1;     // -1: the first image, as the file has it
    bool display = false;
    bool luminance = false;
    bool has_primaries = false;
    float primaries[8] = {};  // red, green, blue, white: x, y
    bool has_normalize = false;
    float normalize[2] = {};  // low, high
    // Resizing (texture.cpp): a size, a percentage or a longer side.
    int resize_width = 0, resize_height = 0;
    double resize_percent = 0.0;
    int fit_size = 0;
    std::string filter;  // empty: the library's default
};

// ---- Colour options (colour.cpp) ----

// Takes --display, --luminance, --primaries, --image and --normalize (with
// their values) at args[i]; false for any other argument.
bool parse_colour_option(const std::vector<std::string> &args, std::size_t &i, ReadOptions &options);
// --image: the chosen image of a file holding several.
void select_image(PXF_IMAGE *image, const ReadOptions &options, const std::string &path);
// --normalize, then --display / --luminance / --primaries.
void stack_colour_stages(PXF_IMAGE *&image, const ReadOptions &options, const std::string &path);
// Per-channel minimum and maximum through the min-max stage: printed, or as
// a JSON array into json_out.
void print_stats(PXF_IMAGE *image, const std::string &path, bool json, std::string *json_out);

// An image file opened for reading, with the requested operators stacked.
class FileSource : public RowSource {
public:
    FileSource(const std::string &path, const ReadOptions &options);
    ~FileSource() override;
    const Layout &layout() const override { return layout_; }
    const PXF_IMAGE_DESC &desc() const override { return image_->info.images[0]; }
    const PXF_INFO *info() const override { return &image_->info; }
    bool bottom_up() const override { return (desc().orientation & 1) != 0; }
    void *const *row(int line) override;
    PXF_IMAGE *image() const { return image_; }
    const std::string &driver_key() const { return driver_key_; }

private:
    std::string path_;
    std::string driver_key_;
    PXF_IMAGE *image_ = nullptr;
    Layout layout_;
    ChannelBuffer buffer_;
    void **rows_ = nullptr;
};

// The built-in sample: 3 colour channels, a matte and a depth channel.
std::unique_ptr<RowSource> make_sample(int width, int height);

// ---- Subcommands ----

int run_formats(const std::vector<std::string> &args);
int run_info(const std::vector<std::string> &args);
int run_convert(const std::vector<std::string> &args);
int run_make_sample(const std::vector<std::string> &args);
int run_mipmap(const std::vector<std::string> &args);
int run_swatch(const std::vector<std::string> &args);

// ---- Resizing (texture.cpp) ----

// --resize WxH or N%; throws UsageError.
void parse_resize(const std::string &text, ReadOptions &options);
// A known filter name, or UsageError.
std::string checked_filter(const std::string &name);
// Stacks the scale operator for the options' size (if any) on `image`.
PXF_IMAGE *apply_resize(PXF_IMAGE *image, const ReadOptions &options, const std::string &path);

// ---- Progress (progress.cpp) ----

// A bar on standard error when it is a terminal; silent otherwise.
class Progress {
public:
    Progress(std::string label, bool enabled);
    ~Progress();
    void update(long done, long total);
    void finish();

private:
    std::string label_;
    bool enabled_;
    int last_percent_ = -1;
    bool shown_ = false;
};

// --crop X,Y,W,H: from the window's left and bottom, in pixels.
struct Crop {
    bool set = false;
    int x = 0, y = 0, width = 0, height = 0;
};
Crop parse_crop(const std::string &text);
// Writes the rectangle of `source` (clipped to its window) to `path`.
void write_cropped(FileSource &source, const Crop &crop, const std::string &path, const WriteOptions &options);

}  // namespace pxftool
