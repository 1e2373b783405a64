// Writing an image: pick the driver, fit the layout to it, stream the rows.
#include <fcntl.h>
#include <pxf/utl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>

#include <pxf/fmt.h>
#include <pxf/frames.h>

#include "tool.h"

namespace pxftool {
namespace {

const char *format_name(int group, int count) {
    if (group == kColour) return count == 3 ? "rgb" : count == 1 ? "grey" : "raw";
    if (group == kMatte) return "alpha";
    return "depth";
}

// The image is written under a temporary name beside the output and renamed
// over it only when complete, so a failure (or Ctrl-C) leaves an old file
// as it was.  Devices, pipes and terminals are written directly and never
// removed.
struct OpenOutput {
    PXF_IMAGE *image = nullptr;
    UTL_OUTPUT *staged = nullptr;
    std::string path;
    std::string written;  // the name the driver writes, when it is not the staged one
    ~OpenOutput() {
        if (image) {
            QuietReports quiet;  // the real reason has been thrown already
            PXF_close(image);
        }
        if (!written.empty()) unlink(written.c_str());  // a name made unique by the staged file
        UTL_output_abandon(staged);  // removes only the temporary file
    }
};

// Rows of a source that reads only in the order opposite to the writer's
// wait here: an unnamed file (removed from its directory at once, so it goes
// with the process whatever happens), one fixed-size record per row.  The
// heap holds one row whatever the image size.
class SpillFile {
public:
    SpillFile(const std::string &output, bool regular_output, const Layout &layout) {
        for (int k = 0; k < 3; ++k)
            for (int c = 0; c < layout.group[k].count; ++c)
                sizes_.push_back(std::size_t(layout.width) * std::size_t(element_size(layout.group[k])));
        for (std::size_t n : sizes_) record_ += n;
        parts_.resize(sizes_.size());
        // $TMPDIR when set, else beside a file output (the disk that takes
        // the output has room for its rows; /tmp is often memory), else /tmp.
        std::string dir = "/tmp";
        if (const char *tmp = std::getenv("TMPDIR"); tmp && *tmp) dir = tmp;
        else if (regular_output) {
            std::size_t slash = output.rfind('/');
            dir = slash == std::string::npos ? "." : slash == 0 ? "/" : output.substr(0, slash);
        }
        std::string name = dir + "/.~pxf-rows-XXXXXX";
        fd_ = mkstemp(name.data());
        if (fd_ < 0) throw Failure(dir + ": cannot make a temporary file for the rows: " + std::strerror(errno));
        unlink(name.c_str());
    }
    SpillFile(const SpillFile &) = delete;
    SpillFile &operator=(const SpillFile &) = delete;
    ~SpillFile() { close(fd_); }
    std::size_t record() const { return record_; }

    void put(std::size_t index, void *const *rows) { move(index, rows, true); }
    void get(std::size_t index, void *const *rows) { move(index, rows, false); }

private:
    void move(std::size_t index, void *const *rows, bool out) {
        std::vector<iovec> &parts = parts_;
        for (std::size_t c = 0; c < sizes_.size(); ++c) parts[c] = {rows[c], sizes_[c]};
        off_t at = off_t(index * record_);
        std::size_t left = record_, first = 0;
        while (left > 0) {
            ssize_t n = out ? pwritev(fd_, parts.data() + first, int(parts.size() - first), at)
                            : preadv(fd_, parts.data() + first, int(parts.size() - first), at);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0)
                throw Failure(std::string("temporary file of the rows: cannot ") + (out ? "write" : "read") + ": " +
                              std::strerror(n < 0 ? errno : EIO));
            left -= std::size_t(n);
            at += n;
            for (std::size_t done = std::size_t(n); done > 0;) {
                std::size_t step = std::min(done, parts[first].iov_len);
                parts[first].iov_base = static_cast<char *>(parts[first].iov_base) + step;
                parts[first].iov_len -= step;
                done -= step;
                if (parts[first].iov_len == 0) ++first;
            }
        }
    }
    int fd_ = -1;
    std::vector<std::size_t> sizes_;
    std::vector<iovec> parts_;  // one row's pieces, reused for every row
    std::size_t record_ = 0;
};

// Decoding and encoding on two threads.  A reading thread converts rows
// into a ring of blocks; the caller's thread writes them in the same order.
// The ring bounds the rows in flight, and a failure on either side stops
// both.
class RowPipeline {
public:
    static constexpr int kBlock = 16, kBlocks = 4, kRing = kBlock * kBlocks;

    RowPipeline(const Layout &layout, int total, std::function<void(int, void *const *)> produce)
        : total_(total), produce_(std::move(produce)) {
        for (int i = 0; i < kRing; ++i) ring_.emplace_back(layout, layout.width);
        reader_ = std::thread([this] { read(); });
    }
    ~RowPipeline() {
        {
            std::lock_guard<std::mutex> hold(lock_);
            stop_ = true;
        }
        changed_.notify_all();
        reader_.join();
    }
    RowPipeline(const RowPipeline &) = delete;
    RowPipeline &operator=(const RowPipeline &) = delete;

    // Row i (0, 1, ... in order) once the reader has made it; rethrows its failure.
    void *const *take(int i) {
        if (i > 0 && i % kBlock == 0) release(i);
        if (i >= seen_) {
            std::unique_lock<std::mutex> hold(lock_);
            changed_.wait(hold, [&] { return ready_ > i || error_; });
            if (ready_ <= i) std::rethrow_exception(error_);
            seen_ = ready_;
        }
        return ring_[std::size_t(i % kRing)].rows();
    }

private:
    void release(int freed) {
        {
            std::lock_guard<std::mutex> hold(lock_);
            freed_ = freed;
        }
        changed_.notify_all();
    }
    void read() {
        try {
            for (int i = 0; i < total_; ++i) {
                if (i % kBlock == 0) {
                    std::unique_lock<std::mutex> hold(lock_);
                    changed_.wait(hold, [&] { return i - freed_ < kRing || stop_; });
                    if (stop_) return;
                }
                produce_(i, ring_[std::size_t(i % kRing)].rows());
                if ((i + 1) % kBlock == 0 || i + 1 == total_) {
                    {
                        std::lock_guard<std::mutex> hold(lock_);
                        ready_ = i + 1;
                    }
                    changed_.notify_all();
                }
            }
        } catch (...) {
            {
                std::lock_guard<std::mutex> hold(lock_);
                error_ = std::current_exception();
            }
            changed_.notify_all();
        }
    }

    const int total_;
    std::function<void(int, void *const *)> produce_;
    std::vector<ChannelBuffer> ring_;
    std::mutex lock_;
    std::condition_variable changed_;
    int ready_ = 0, freed_ = 0, seen_ = 0;  // seen_: the writer's own copy of ready_
    bool stop_ = false;
    std::exception_ptr error_;
    std::thread reader_;
};

// Whether the output goes through a temporary file: a regular file or a new name.
bool staged_output(const std::string &path) {
    return !UTL_file_exists(path.c_str()) || UTL_file_size(path.c_str()) >= 0;
}

// Whether a frame fits the container the first frame opened.
bool same_frame_layout(const PXF_IMAGE_DESC &a, const PXF_IMAGE_DESC &b) {
    auto same = [](const PXF_BOUNDS &x, const PXF_BOUNDS &y) {
        return x.left == y.left && x.right == y.right && x.bottom == y.bottom && x.top == y.top;
    };
    auto group = [](const PXF_CHAN_GROUP &x, const PXF_CHAN_GROUP &y) {
        return x.count == y.count && (!x.count || (x.type == y.type && x.width == y.width));
    };
    return same(a.window, b.window) && same(a.active_window, b.active_window) && group(a.chan, b.chan) &&
           group(a.matte, b.matte) && group(a.aux, b.aux);
}

}  // namespace

void write_image(RowSource &source, const std::string &path, const WriteOptions &options,
                 const std::function<void(int, int)> &progress) {
    std::string ext = extension_of(path);
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    PXF_TYPE *driver = find_driver(options.key.empty() ? ext : options.key);
    if (!driver) {
        if (!options.key.empty()) throw Failure("unknown format key \"" + options.key + "\" (see pxf formats)");
        throw Failure(path + ": no format for the extension \"" + ext + "\" (give --key; see pxf formats)");
    }
    if (!(driver->access & 8) || !driver->write_open)
        throw Failure(path + ": the " + driver->key + " format cannot be written");

    std::vector<std::string> notes;
    const Layout &from = source.layout();
    Layout to = fit_to_driver(from, *driver, notes);
    for (const std::string &note : notes) note_that(path + ": " + note);
    WriteOptions coding = options;
    if (note_unused_compression(*driver, path, options.compression)) coding.compression.clear();
    if (to.group[kColour].count < 1) throw Failure(path + ": the image has no colour channels");

    PXF_IMAGE_DESC desc = source.desc();
    desc.aspect = nullptr;
    if (desc.curve.kind != PXF_CURVE_GAMMA) desc.curve = {PXF_CURVE_GAMMA, 1.0f, nullptr, 1, 256, PXF_C_INTEGER, 8, nullptr};
    // Linear float colour (EXR, float TIFF) stored as integers is encoded
    // with the default display gamma, as integer image files expect.
    const float encode = from.group[kColour].type != PXF_C_INTEGER && to.group[kColour].type == PXF_C_INTEGER &&
                                 desc.curve.gamma == 1.0f
                             ? FMT_def_gamma()
                             : 1.0f;
    if (encode != 1.0f) desc.curve.gamma = encode, desc.chan.extra &= ~PXF_CHAN_GAMMA_ASSUMED;
    ChannelBuffer encoded = encode != 1.0f ? ChannelBuffer(from, from.width) : ChannelBuffer();
    desc.curve.tables = nullptr;
    desc.image_kind = 1;
    desc.step = 1;
    desc.orientation = driver->orientation;
    apply_layout(desc, to);
    desc.chan.format = const_cast<char *>(format_name(kColour, to.group[kColour].count));
    desc.matte.format = const_cast<char *>(format_name(kMatte, to.group[kMatte].count));
    // Auxiliary channels keep their names (an EXR's Z, N.x, ...) when all of them go along.
    const char *aux_names = source.desc().aux.format;
    desc.aux.format = aux_names && aux_names[0] && to.group[kAux].count == from.group[kAux].count
                          ? const_cast<char *>(aux_names)
                          : const_cast<char *>(format_name(kAux, to.group[kAux].count));
    desc.index.format = nullptr;

    // PXF_open copies everything it keeps, so the info may borrow strings.
    PXF_INFO info;
    PXF_info_init(&info);
    if (const PXF_INFO *in = source.info()) {
        info.name = in->name;
        info.desc = in->desc;
        info.user = in->user;
        info.machine = in->machine;
        info.date = in->date;
        info.text_a = in->text_a;
        info.text_b = in->text_b;
        std::memcpy(info.red_pri, in->red_pri, sizeof info.red_pri);
        std::memcpy(info.green_pri, in->green_pri, sizeof info.green_pri);
        std::memcpy(info.blue_pri, in->blue_pri, sizeof info.blue_pri);
        std::memcpy(info.white_pt, in->white_pt, sizeof info.white_pt);
        info.frame = in->frame;
    }
    if (options.frame >= 0) info.frame = options.frame;
    info.option_flag = options.append;
    std::string key = driver->key;
    info.key = key.data();
    info.handle = const_cast<char *>(path.c_str());
    info.program = const_cast<char *>(options.program.c_str());
    std::string compression = compression_text(coding);
    // The TIFF driver encodes strips on helper threads of its own unless
    // told to keep to one; --jobs asks for that.
    if (!options.pipeline && key == "tiff") compression += ";threads=1";
    info.compression = compression.empty() ? nullptr : const_cast<char *>(compression.c_str());
    apply_texts(info, options.texts);
    info.num_images = 1;
    info.images = &desc;
    // The quality goes to the driver as its float setting.
    PXF_CAP_SETTING quality{};
    PXF_CAP_SETTING *settings[2] = {&quality, nullptr};
    if (options.quality > 0) {
        quality.code = 1;
        quality.value.real = float(options.quality);
        info.specific = settings;
    }

    take_report();
    OpenOutput out;
    out.path = path;
    // Frames added to a container go into it in place: the driver keeps its
    // old frames readable until the new ones are complete.
    if (!options.append && !options.container && staged_output(path)) {
        errno = 0;
        if (!(out.staged = UTL_output_open(path.c_str())))
            throw Failure(path + ": cannot write: " + std::strerror(errno ? errno : EIO));
        info.handle = const_cast<char *>(UTL_output_name(out.staged));
        // A driver that adds its extension to names without it would write
        // beside the staged file: give it that name, renamed back at the end.
        std::string staged = info.handle, ext = driver->extension ? driver->extension : "";
        if (driver->add_extension && !ext.empty() &&
            (staged.size() < ext.size() || staged.compare(staged.size() - ext.size(), ext.size(), ext) != 0)) {
            out.written = staged + ext;
            info.handle = out.written.data();
        }
    }
    // Packing: frames after the first go into the container the first opened.
    PXF_IMAGE *container = options.container ? *options.container : nullptr;
    bool frame_refused = false;
    if (container) {
        *options.container = nullptr;  // closed here should this frame fail
        out.image = container;
        if (!same_frame_layout(container->info.images[0], desc))
            throw Failure(path + ": frame " + std::to_string(info.frame) +
                          " differs in size or layout from the first frame");
        take_report();
        frame_refused = PXF_set_frame(container, info.frame) != 0;
    } else {
        out.image = PXF_open(&info, "w");
    }
    PXF_info_cleanup(&info, 0);
    // Reports name the file the driver writes; the user knows it by `path`.
    auto failed = [&](const std::string &fallback) {
        std::string reason = take_report();
        for (const std::string &name : {out.written, std::string(out.staged ? UTL_output_name(out.staged) : "")})
            for (std::size_t at; !name.empty() && (at = reason.find(name)) != std::string::npos;)
                reason.replace(at, name.size(), path);
        if (reason.empty()) reason = fallback;
        if (reason.compare(0, path.size() + 2, path + ": ") == 0) throw Failure(reason);
        throw Failure(path + ": " + reason);
    };
    if (!out.image) failed("cannot write");
    if (frame_refused) failed("cannot start frame " + std::to_string(options.frame));

    const Layout &stored = to;
    ChannelBuffer rows(stored, stored.width);
    const PXF_BOUNDS &w = desc.window;
    bool writer_up = (driver->orientation & 1) != 0;
    int total = stored.height, done = 0;
    auto line_at = [&](int i, bool up) { return up ? w.bottom + i : w.top - i; };
    // Source rows in the stored layout.
    auto convert = [&](void *const *src_rows, void *const *dst_rows) {
        if (encode != 1.0f) {
            convert_rows(src_rows, from, encoded.rows(), from);
            for (int c = 0; c < from.group[kColour].count; ++c)
                for (int x = 0; x < from.width; ++x) {
                    if (from.group[kColour].type == PXF_C_DOUBLE) {
                        double &v = static_cast<double *>(encoded.rows()[c])[x];
                        v = v > 0.0 ? std::pow(v, 1.0 / encode) : 0.0;
                    } else {
                        float &v = static_cast<float *>(encoded.rows()[c])[x];
                        v = v > 0.0f ? std::pow(v, 1.0f / encode) : 0.0f;
                    }
                }
            src_rows = encoded.rows();
        }
        convert_rows(src_rows, from, dst_rows, stored);
    };
    auto emit = [&](int line, void *const *stored_rows) {
        void **r = const_cast<void **>(stored_rows);
        if (PXF_scan_write(out.image, line, &r) < 0)
            failed("cannot write scanline " + std::to_string(line));
        if (progress) progress(++done, total);
    };
    if (source.bottom_up() == writer_up || source.random_access()) {
        // Rows go straight through, read in the writer's order; with room
        // for a second thread, reading and writing overlap.
        if (options.pipeline && total >= 2 * RowPipeline::kBlock && std::thread::hardware_concurrency() > 1) {
            RowPipeline pipeline(stored, total, [&](int i, void *const *dst) {
                convert(source.row(line_at(i, writer_up)), dst);
            });
            for (int i = 0; i < total; ++i) emit(line_at(i, writer_up), pipeline.take(i));
        } else {
            for (int i = 0; i < total; ++i) {
                int line = line_at(i, writer_up);
                convert(source.row(line), rows.rows());
                emit(line, rows.rows());
            }
        }
    } else {
        // The input reads only in the other direction: its rows wait in a
        // temporary file, not in memory.
        SpillFile spill(path, out.staged != nullptr, stored);
        note_that(path + ": the input reads only " + (source.bottom_up() ? "bottom" : "top") + " row first and " +
                  driver->key + " writes " + (writer_up ? "bottom" : "top") +
                  " row first: the rows wait in a temporary file (" +
                  std::to_string((spill.record() * std::size_t(total) + (1u << 20) - 1) >> 20) + " MiB)");
        for (int i = 0; i < total; ++i) {
            convert(source.row(line_at(i, source.bottom_up())), rows.rows());
            spill.put(std::size_t(i), rows.rows());
        }
        for (int i = 0; i < total; ++i) {
            int line = line_at(i, writer_up);
            // Record i holds the i-th row in the input's order.
            spill.get(std::size_t(total - 1 - i), rows.rows());
            emit(line, rows.rows());
        }
    }
    PXF_IMAGE *image = out.image;
    out.image = nullptr;
    if (options.container) {
        *options.container = image;  // left open for the next frame
        return;
    }
    if (PXF_close(image) != 0) failed("cannot finish writing");
    if (!out.written.empty()) {
        if (std::rename(out.written.c_str(), UTL_output_name(out.staged)) != 0)
            throw Failure(path + ": cannot finish writing: " + std::strerror(errno));
        out.written.clear();
    }
    if (out.staged) {
        UTL_OUTPUT *staged = out.staged;
        out.staged = nullptr;
        errno = 0;
        if (UTL_output_commit(staged) != 0)
            throw Failure(path + ": cannot finish writing: " + std::strerror(errno ? errno : EIO));
    }
}

void refuse_same_file(const std::string &in, const std::string &out) {
    if (UTL_same_file(in.c_str(), out.c_str()))
        throw Failure(out + ": is the input file; write to another name (the input would be lost)");
}

}  // namespace pxftool
