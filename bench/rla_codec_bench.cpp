// Throughput of the run-length codec on 8-bit planes, next to libtiff's PackBits
// codec on the same rows and next to a plain memcpy.
//
// PackBits is driven through libtiff's public interface on an in-memory client whose
// cost is kept out of the figures: the encoder rewrites the strip in place into a
// client that discards what it is given, and the decoder reads a memory-mapped client
// file, so libtiff hands its decoder the packets where they lie without copying them.
// What remains besides the codec is libtiff's per-strip bookkeeping.
#include <benchmark/benchmark.h>

#include <tiffio.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <pxf/rla.h>

namespace {

constexpr size_t kWidth = 4096;
constexpr size_t kRows = 16;  // distinct rows per kind, used in turn

using Row = std::vector<uint8_t>;

struct Kind {
    const char *name;
    std::vector<Row> rows;
};

uint8_t clamp8(double v) { return static_cast<uint8_t>(std::clamp(std::lround(v), 0L, 255L)); }

std::vector<Kind> make_kinds() {
    std::mt19937 rng(20240521);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    std::normal_distribution<double> gauss(0.0, 1.0);
    std::vector<Kind> kinds{{"gradient", {}}, {"flat", {}}, {"noise", {}}, {"photo", {}}};
    for (size_t r = 0; r < kRows; ++r) {
        Row gradient(kWidth), flat(kWidth), noise(kWidth), photo(kWidth);
        // A smooth ramp: runs of 5 to 30 equal values.
        const double slope = 0.035 + 0.16 * unit(rng), offset = 255 * unit(rng);
        for (size_t i = 0; i < kWidth; ++i) gradient[i] = clamp8(std::fmod(offset + slope * i, 256.0) - 0.5);
        // Flat areas of 32 to 1024 pixels.
        for (size_t i = 0; i < kWidth;) {
            const size_t n = std::min(kWidth - i, 32 + static_cast<size_t>(rng() % 993));
            std::fill_n(flat.begin() + i, n, static_cast<uint8_t>(rng()));
            i += n;
        }
        for (auto &b : noise) b = static_cast<uint8_t>(rng());
        // Smooth shading with sensor noise that varies by region, clipped highlights
        // and a few hard edges.
        static const double sigmas[] = {0.3, 1.0, 2.5, 6.0};
        double phase = 6.3 * unit(rng), edge = 0, sigma = 1;
        for (size_t i = 0; i < kWidth; ++i) {
            if (i % 256 == 0) {
                sigma = sigmas[rng() % 4];
                if (rng() % 3 == 0) edge = 80 * (unit(rng) - 0.5);
            }
            const double shade = 140 + 110 * std::sin(i / 700.0 + phase) + 25 * std::sin(i / 53.0) + edge;
            photo[i] = clamp8(shade + sigma * gauss(rng));
        }
        kinds[0].rows.push_back(gradient);
        kinds[1].rows.push_back(flat);
        kinds[2].rows.push_back(noise);
        kinds[3].rows.push_back(photo);
    }
    return kinds;
}

const std::vector<Kind> &kinds() {
    static const std::vector<Kind> k = make_kinds();
    return k;
}

void set_throughput(benchmark::State &state, size_t packed) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kWidth));
    state.counters["ratio"] = static_cast<double>(packed) / (kRows * kWidth);
}

// ---------------------------------------------------------------------------
// This codec

void rla_encode(benchmark::State &state, const Kind *kind) {
    std::vector<uint8_t> out(RLA_ENCODED_MAX(kWidth, 1));
    size_t r = 0;
    for (auto _ : state) {
        const int n = rla__enc_byte(kind->rows[r].data(), 0, kWidth, out.data());
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
        r = (r + 1) % kRows;
    }
    size_t packed = 0;
    for (const Row &row : kind->rows) packed += rla__enc_byte(row.data(), 0, kWidth, out.data());
    set_throughput(state, packed);
}

void rla_decode(benchmark::State &state, const Kind *kind) {
    std::vector<Row> blocks;
    size_t packed = 0;
    for (const Row &row : kind->rows) {
        Row block(RLA_ENCODED_MAX(kWidth, 1));
        block.resize(rla__enc_byte(row.data(), 0, kWidth, block.data()));
        packed += block.size();
        blocks.push_back(block);
    }
    Row dest(kWidth);
    size_t r = 0;
    for (auto _ : state) {
        const int n = rla__dec_byte(blocks[r].data(), static_cast<int>(blocks[r].size()), dest.data(), kWidth, 0, 0);
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
        r = (r + 1) % kRows;
    }
    for (size_t i = 0; i < kRows; ++i) {
        if (rla__dec_byte(blocks[i].data(), static_cast<int>(blocks[i].size()), dest.data(), kWidth, 0, 0) !=
                static_cast<int>(kWidth) ||
            dest != kind->rows[i])
            state.SkipWithError("round trip failed");
    }
    set_throughput(state, packed);
}

// ---------------------------------------------------------------------------
// libtiff's PackBits, on an in-memory client

struct MemFile {
    std::vector<uint8_t> data;
    uint64_t pos = 0;
    bool discard = false;  // count writes without storing them
};

tsize_t mem_read(thandle_t h, tdata_t buf, tsize_t size) {
    auto *f = static_cast<MemFile *>(h);
    const uint64_t n = std::min<uint64_t>(size, f->data.size() - std::min<uint64_t>(f->pos, f->data.size()));
    if (n) std::memcpy(buf, f->data.data() + f->pos, n);
    f->pos += n;
    return static_cast<tsize_t>(n);
}

tsize_t mem_write(thandle_t h, tdata_t buf, tsize_t size) {
    auto *f = static_cast<MemFile *>(h);
    if (!f->discard) {
        if (f->data.size() < f->pos + size) f->data.resize(f->pos + size);
        std::memcpy(f->data.data() + f->pos, buf, size);
    }
    f->pos += size;
    return size;
}

toff_t mem_seek(thandle_t h, toff_t off, int whence) {
    auto *f = static_cast<MemFile *>(h);
    if (whence == SEEK_SET) f->pos = off;
    else if (whence == SEEK_CUR) f->pos += off;
    else f->pos = f->data.size() + off;
    return f->pos;
}

int mem_close(thandle_t) { return 0; }
toff_t mem_size(thandle_t h) { return static_cast<MemFile *>(h)->data.size(); }

int mem_map(thandle_t h, tdata_t *base, toff_t *size) {
    auto *f = static_cast<MemFile *>(h);
    *base = f->data.data();
    *size = f->data.size();
    return 1;
}

void mem_unmap(thandle_t, tdata_t, toff_t) {}

TIFF *open_mem(MemFile &f, const char *mode) {
    f.pos = 0;
    return TIFFClientOpen("bench", mode, &f, mem_read, mem_write, mem_seek, mem_close, mem_size, mem_map,
                          mem_unmap);
}

// A 4096 x 16 grey image, one row per strip, every strip written once.
TIFF *write_packbits(MemFile &f, const Kind &kind) {
    TIFF *tif = open_mem(f, "w");
    if (!tif) return nullptr;
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, static_cast<uint32_t>(kWidth));
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, static_cast<uint32_t>(kRows));
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tif, TIFFTAG_COMPRESSION, COMPRESSION_PACKBITS);
    TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, 1);
    for (size_t r = 0; r < kRows; ++r) {
        Row copy = kind.rows[r];
        if (TIFFWriteEncodedStrip(tif, static_cast<uint32_t>(r), copy.data(), kWidth) < 0) {
            TIFFClose(tif);
            return nullptr;
        }
    }
    return tif;
}

void packbits_encode(benchmark::State &state, const Kind *kind) {
    MemFile f;
    TIFF *tif = write_packbits(f, *kind);
    if (!tif) {
        state.SkipWithError("libtiff could not write");
        return;
    }
    f.discard = true;  // every rewrite fits where the strip already is
    std::vector<Row> rows = kind->rows;
    uint32_t r = 0;
    for (auto _ : state) {
        const tsize_t n = TIFFWriteEncodedStrip(tif, r, rows[r].data(), kWidth);
        benchmark::DoNotOptimize(n);
        r = (r + 1) % kRows;
    }
    TIFFClose(tif);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kWidth));
}

void packbits_decode(benchmark::State &state, const Kind *kind) {
    MemFile f;
    TIFF *w = write_packbits(f, *kind);
    if (!w) {
        state.SkipWithError("libtiff could not write");
        return;
    }
    TIFFClose(w);
    TIFF *tif = open_mem(f, "r");
    if (!tif) {
        state.SkipWithError("libtiff could not read");
        return;
    }
    Row dest(kWidth);
    size_t packed = 0;
    for (uint32_t r = 0; r < kRows; ++r) {
        packed += TIFFRawStripSize(tif, r);
        if (TIFFReadEncodedStrip(tif, r, dest.data(), kWidth) != static_cast<tsize_t>(kWidth) ||
            dest != kind->rows[r])
            state.SkipWithError("PackBits round trip failed");
    }
    uint32_t r = 0;
    for (auto _ : state) {
        const tsize_t n = TIFFReadEncodedStrip(tif, r, dest.data(), kWidth);
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
        r = (r + 1) % kRows;
    }
    TIFFClose(tif);
    set_throughput(state, packed);
}

// ---------------------------------------------------------------------------

void copy(benchmark::State &state, const Kind *kind) {
    Row dest(kWidth);
    size_t r = 0;
    for (auto _ : state) {
        std::memcpy(dest.data(), kind->rows[r].data(), kWidth);
        benchmark::DoNotOptimize(dest.data());
        benchmark::ClobberMemory();
        r = (r + 1) % kRows;
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kWidth));
}

int register_all() {
    TIFFSetWarningHandler(nullptr);
    const struct {
        const char *name;
        void (*fn)(benchmark::State &, const Kind *);
    } runs[] = {{"rla_encode", rla_encode},
                {"packbits_encode", packbits_encode},
                {"rla_decode", rla_decode},
                {"packbits_decode", packbits_decode},
                {"memcpy", copy}};
    for (const Kind &kind : kinds())
        for (const auto &run : runs)
            benchmark::RegisterBenchmark((std::string(run.name) + "/" + kind.name).c_str(), run.fn, &kind);
    return 0;
}

const int registered = register_all();

}  // namespace
