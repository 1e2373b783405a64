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

// Command-line helpers shared by the subcommands (args.cpp): whether the
// arguments ask for help; the value after option args[i] (i moves on to it);
// a whole number from low to high, or UsageError naming the option.
bool wants_help(const std::vector<std::string> &args);
std::string next_value(const std::vector<std::string> &args, std::size_t &i);
long parse_integer(const std::string &text, const std::string &option, long low, long high);

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
// While one lives, notes are renamed by `rename` (a frame's file name to its
// sequence's, say) and each text is said once.
class NoteGroup {
public:
    explicit NoteGroup(std::function<std::string(const std::string &)> rename);
    ~NoteGroup();
    NoteGroup(const NoteGroup &) = delete;
    NoteGroup &operator=(const NoteGroup &) = delete;
    std::function<std::string(const std::string &)> rename_;
};
// Drops this thread's reports while it lives (clean-up after a failure).
class QuietReports {
public:
    QuietReports();
    ~QuietReports();

private:
    bool was_;
};

// ---- Command-line conventions (args.cpp) ----

// Options of the command as a whole, wherever they stand.
struct GlobalOptions {
    bool quiet = false;   // -q, --quiet: no progress bar, no notes
    bool verbose = false; // -v, --verbose: say what is loaded and written
};
const GlobalOptions &global_options();
// The arguments in the one form the subcommands' parsers read: --opt=value
// becomes --opt value, short forms (-q, -v, -jN, -j N, -h) their long
// options, "--" ends the options; --quiet and --verbose are taken out into
// global_options().
std::vector<std::string> normalise_arguments(const std::vector<std::string> &args);
// Says what is being done, with --verbose only.
void tell(const std::string &text);

// ---- Plug-ins (plugins.cpp) ----

// Loads every plug-in of PXF_PLUGIN_PATH (or the default directory) and
// initialises the library with them.
void load_plugins(const char *argv0);
// Every registered driver record: plug-ins first, then the built-ins.
std::vector<PXF_TYPE *> all_drivers();
// The driver record for a key or an extension, or null.  Extensions match
// in any case and in their usual spellings (.tiff, .TIF, .jpeg, .jpg).
PXF_TYPE *find_driver(const std::string &key_or_extension);
// The keys of the readers that recognise files by content, for messages.
std::string probing_formats();
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
// Bytes of one element of the group.
int element_size(const Group &g);
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

// ---- Options that change nothing, and dates (notes.cpp) ----

// Says so when --quantize left the colour and matte as they were.
void note_unchanged_quantize(const std::string &path, int bits, const Layout &before, const Layout &after);
// Says so when the output format has no choice of compression, or not the
// one asked for; true when the method is then left out.
bool note_unused_compression(const PXF_TYPE &driver, const std::string &path, const std::string &compression);
// A stored date ("{seconds}", "YYYY:MM:DD HH:MM:SS", an RFC 1123 date) in
// ISO 8601, or "" when the text is none of these.
std::string iso_date(const char *text);
// Text of a file's header as valid UTF-8: bytes that are not UTF-8 are
// taken as Latin-1.
std::string as_utf8(const char *text);

// ---- Sources and the writer (write.cpp) ----

// Something that delivers scanlines of one layout.
class RowSource {
public:
    virtual ~RowSource() = default;
    virtual const Layout &layout() const = 0;
    virtual const PXF_IMAGE_DESC &desc() const = 0; // window, curve, orientation
    virtual const PXF_INFO *info() const = 0;       // texts and primaries, or null
    virtual bool bottom_up() const = 0;
    // Whether row() takes lines in any order (else only in bottom_up() order).
    virtual bool random_access() const { return false; }
    // Rows of scanline `line` (window coordinates), valid until the next call.
    virtual void *const *row(int line) = 0;
};

// --ch: some of a source's channels, in a given order (channels.cpp).
// Names: R, G, B (Y for a single colour channel), A for the matte, Z for
// the auxiliary channel; C0, A1, Z2 ... in groups of other sizes.
class ChannelSelect : public RowSource {
public:
    ChannelSelect(RowSource &inner, const std::string &names);
    const Layout &layout() const override { return layout_; }
    const PXF_IMAGE_DESC &desc() const override { return inner_.desc(); }
    const PXF_INFO *info() const override { return inner_.info(); }
    bool bottom_up() const override { return inner_.bottom_up(); }
    bool random_access() const override { return inner_.random_access(); }
    void *const *row(int line) override;

private:
    RowSource &inner_;
    Layout layout_;
    std::vector<int> order_; // source channel of each output channel
    std::vector<void *> rows_;
};

// The description's texts of a written file (metadata.cpp).
struct TextOptions {
    bool strip = false; // --strip: no texts from the input
    bool stamp = false; // --stamp: record this user and host
    std::vector<std::pair<std::string, std::string>> set; // --attrib NAME=VALUE, in order
};
void add_attribute(TextOptions &texts, const std::string &assignment);
// Applies the options to the info about to be written (which may then
// borrow their strings).
void apply_texts(PXF_INFO &info, const TextOptions &texts);

struct WriteOptions {
    std::string key;         // output driver; empty: from the file name
    std::string compression; // passed to the driver in info.compression
    int quality = 0;         // lossy drivers' quality 1..100 (a float setting); 0: the driver's default
    // Compressor settings, sent after the method in info.compression; empty or -1: the driver's default.
    std::string predictor;  // --predictor (tiff)
    std::string png_filter; // --png-filter
    int level = -1;         // --level 0..9
    std::string program = "pxf";
    TextOptions texts;
    // Packing frames: null, the first frame opens the container and leaves it
    // here; later frames go into it; the caller closes it.
    PXF_IMAGE **container = nullptr;
    int frame = -1;      // frame number to record, -1: the source's
    bool append = false; // add to an existing multi-frame container
    bool pipeline = true; // decode on a second thread while rows are encoded
};

// --predictor, --png-filter and --level (codec.cpp): true when args[i] was
// one of them (its value taken); the text info.compression carries.
bool parse_codec_option(const std::vector<std::string> &args, std::size_t &i, WriteOptions &options);
std::string compression_text(const WriteOptions &options);

// Writes every scanline of `source` to `path`; `progress` gets lines done
// out of lines total.  Removes a partly written file on failure.
// Fails when `out` names the same file as `in`: writing it would destroy the input.
void refuse_same_file(const std::string &in, const std::string &out);
void write_image(RowSource &source, const std::string &path, const WriteOptions &options,
                 const std::function<void(int, int)> &progress);

// ---- Frame sequences (sequence.cpp) ----

// Files name.####.ext, name.%04d.ext or name.@@@@.ext (the field's width is
// the least number of digits).  File names come from the library's pathname
// builder under a name syntax made from the pattern.
class Sequence {
public:
    static bool is_pattern(const std::string &path);
    explicit Sequence(const std::string &pattern);
    const std::string &pattern() const { return pattern_; }
    std::string frame(int number) const;
    // The frames whose files exist, in ascending order.
    std::vector<int> discover() const;

private:
    std::string build(int frame, int mode) const;
    std::string pattern_, syntax_, example_, key_, extension_;
};
// "1-100x2,200": frames in the order given, each once.
std::vector<int> parse_frame_ranges(const std::string &text);
// The frames again in that notation ("1-9x2, 12").
std::string describe_frames(const std::vector<int> &frames);

// ---- Standard input and output (streams.cpp) ----

// Stands in files for "-": input() gives a file holding standard input,
// output() the file to write for standard output (and refuses outputs pxf
// cannot make: mem, and pipe other than to "-"), finish() copies it out.
// Its scratch files go when it does.
class StandardStreams {
public:
    StandardStreams() = default;
    StandardStreams(const StandardStreams &) = delete;
    StandardStreams &operator=(const StandardStreams &) = delete;
    ~StandardStreams();
    std::string input(const std::string &path);
    std::string output(const std::string &path, WriteOptions &options);
    void finish();

private:
    std::string scratch(const std::string &name);
    std::string dir_;
    std::vector<std::string> made_;
    std::string stdout_file_;
    bool stdin_used_ = false;
    bool direct_ = false;
};

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
    bool random_access() const override { return random_; }
    void *const *row(int line) override;
    PXF_IMAGE *image() const { return image_; }
    const std::string &driver_key() const { return driver_key_; }

private:
    std::string path_;
    std::string driver_key_;
    PXF_IMAGE *image_ = nullptr;
    bool random_ = false;
    Layout layout_;
    ChannelBuffer buffer_;
    void **rows_ = nullptr;
};

// The built-in sample: 3 colour channels, a matte and a depth channel.
std::unique_ptr<RowSource> make_sample(int width, int height);

// ---- Manual page and completion (docs.cpp), made from the help texts ----

int print_manual(const std::string &main_help);
int print_completion();

// ---- Subcommands ----

int run_formats(const std::vector<std::string> &args);
int run_info(const std::vector<std::string> &args);
int run_convert(const std::vector<std::string> &args);
int run_make_sample(const std::vector<std::string> &args);
int run_mipmap(const std::vector<std::string> &args);
int run_swatch(const std::vector<std::string> &args);
int run_palette(const std::vector<std::string> &args);  // palette.cpp

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
