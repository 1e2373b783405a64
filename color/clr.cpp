// The colour defaults database: primaries, wavelength range, tristimulus
// table and sample bins, read from the configuration file.
#include <pxf/clr.h>

#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>

#include <pxf/dst.h>
#include <pxf/rfl.h>
#include <pxf/utl.h>

#include "color/clr_tables.h"
#include "color/linalg.h"
#include "config/cfg_internal.h"
#include "foundation/alloc.h"

float rfl__def_red_pri[3] = {0.67f, 0.33f, 0.0f};
float rfl__def_green_pri[3] = {0.21f, 0.71f, 0.08f};
float rfl__def_blue_pri[3] = {0.14f, 0.08f, 0.78f};
float rfl__def_white_pt[3] = {0.31f, 0.316f, 0.374f};
int rfl__def_color_samp = 3;
const float (*rfl__xyz_func)[3] = rfl__def_xyz_func;

namespace {

using pxf::clr::kMaxWavelength;
using pxf::clr::kMinWavelength;

// Limits that keep hostile files from asking for absurd amounts of memory
// or time; anything beyond is reported like any other bad value.
constexpr int kMaxBins = 1024;
constexpr int kMaxTableRes = 1000000;
constexpr double kMaxWavelengthLimit = 100000.0;

struct BinNode {
    BinNode *next;
    CLR_BINS bins;
    // The four arrays of `bins` follow in the same block.
};

struct PointNode {
    PointNode *next;
    float point[4];  // wavelength, x bar, y bar, z bar
};

float min_wavelength = kMinWavelength;
float max_wavelength = kMaxWavelength;
int table_res = CLR_XYZ_TAB_RES;
bool initialised = false;
DST_LL bin_list{};
DST_LL point_list{};
float (*made_table)[3] = nullptr;

void restore_builtins() {
    constexpr float red[3] = {0.67f, 0.33f, 0.0f}, green[3] = {0.21f, 0.71f, 0.08f},
                    blue[3] = {0.14f, 0.08f, 0.78f}, white[3] = {0.31f, 0.316f, 0.374f};
    std::memcpy(rfl__def_red_pri, red, sizeof red);
    std::memcpy(rfl__def_green_pri, green, sizeof green);
    std::memcpy(rfl__def_blue_pri, blue, sizeof blue);
    std::memcpy(rfl__def_white_pt, white, sizeof white);
    rfl__def_color_samp = 3;
    min_wavelength = kMinWavelength;
    max_wavelength = kMaxWavelength;
    table_res = CLR_XYZ_TAB_RES;
}

int clamp_int(double v) {
    if (v >= INT_MAX) return INT_MAX;
    if (v <= INT_MIN) return INT_MIN;
    return static_cast<int>(v);
}

BinNode *new_bins(int n) {
    size_t floats = static_cast<size_t>(n + 1) + n + 3 * n + 3 * n;
    auto *node = static_cast<BinNode *>(ERR_malloc(static_cast<uint32_t>(sizeof(BinNode) + floats * sizeof(float))));
    if (!node) return nullptr;
    auto *data = reinterpret_cast<float *>(node + 1);
    std::memset(data, 0, floats * sizeof(float));
    node->next = nullptr;
    node->bins.n = n;
    node->bins.uniform = 0;
    node->bins.bounds = data;
    node->bins.inv_width = data + n + 1;
    node->bins.samp_to_xyz = data + 2 * n + 1;
    node->bins.xyz_to_samp = data + 5 * n + 1;
    return node;
}

int by_count(void *existing, void *element, int) {
    return static_cast<BinNode *>(existing)->bins.n - static_cast<BinNode *>(element)->bins.n;
}

int by_wavelength(void *existing, void *element, int) {
    float a = static_cast<PointNode *>(existing)->point[0];
    float b = static_cast<PointNode *>(element)->point[0];
    return a < b ? -1 : a > b ? 1 : 0;
}

// Puts `node` in N order, dropping the entry it replaces.
void insert_bins(BinNode *node) {
    for (auto *at = static_cast<BinNode *>(DST_ll_first(&bin_list)); at; at = at->next) {
        if (at->bins.n == node->bins.n) {
            DST_ll_rem(&bin_list, at);
            ERR_free(at);
            break;
        }
    }
    DST_ll_addo(&bin_list, node, by_count, 1);
}

enum class Key {
    Samples, Red, Green, Blue, White, MinWavelength, MaxWavelength, Bins, Tristimulus,
    EndTristimulus, TableRes,
};

struct Keyword {
    const char *name;
    int tokens;  // -1: any number
    Key key;
};

constexpr Keyword keywords[] = {
    {"clr__default_samples", 2, Key::Samples},
    {"clr__default_red_primary", 4, Key::Red},
    {"clr__default_green_primary", 4, Key::Green},
    {"clr__default_blue_primary", 4, Key::Blue},
    {"clr__default_white_point", 4, Key::White},
    {"clr__min_wavelength", 2, Key::MinWavelength},
    {"clr__max_wavelength", 2, Key::MaxWavelength},
    {"clr__sample_bins", -1, Key::Bins},
    {"clr__tristimulus", 1, Key::Tristimulus},
    {"end__tristimulus", 1, Key::EndTristimulus},
    {"clr__tristimulus_tab_res", 2, Key::TableRes},
};

const Keyword *lookup(const char *token) {
    for (const auto &k : keywords)
        if (std::strcmp(k.name, token) == 0) return &k;
    return nullptr;
}

// Everything the walk over the file learns.
struct Reading {
    bool changed = false;
    bool block_begun = false;
    bool block_complete = false;
    bool in_block = false;
    int line = 0;
};

// A failed reading has been reported; the caller tears down.
constexpr bool kFailed = false;

bool number(const char *token, int line, double *value) {
    if (UTL_cnv_atof(token, value)) return true;
    pxf::cfg::report(ERR_ERROR, pxf::cfg::kMsgBadNumber,
                     "Invalid configuration file syntax, line %d; expecting a number", line);
    return false;
}

bool numbers(const CFG_LINE *cfg, int line, float *out, int count) {
    for (int i = 0; i < count; ++i) {
        double v;
        if (!number(cfg->tokens[1 + i], line, &v)) return false;
        out[i] = static_cast<float>(v);
    }
    return true;
}

// "clr__sample_bins N uniform" or "clr__sample_bins N b0 b1 ... bN", the
// boundaries continued over lines ending in a lone backslash.
bool read_bins(const CFG_LINE *cfg, Reading *r) {
    if (cfg->count < 3) {
        pxf::cfg::report_syntax(r->line);
        return true;
    }
    double count;
    if (!number(cfg->tokens[1], r->line, &count)) return kFailed;
    if (count < 1 || count > kMaxBins) {
        pxf::cfg::report_syntax(r->line);
        return true;
    }
    int n = static_cast<int>(count);
    BinNode *node = new_bins(n);
    if (!node) return kFailed;
    if (std::strcmp(cfg->tokens[2], "uniform") == 0) {
        node->bins.uniform = 1;
    } else {
        int have = 0, at = 2;
        while (have < n + 1) {
            if (at >= cfg->count) {
                pxf::cfg::report_syntax(r->line);
                ERR_free(node);
                return kFailed;
            }
            const char *token = cfg->tokens[at++];
            if (std::strcmp(token, "\\") == 0) {
                cfg = CFG_info();
                ++r->line;
                at = 0;
                if (!cfg) {
                    pxf::cfg::report_syntax(r->line - 1);
                    ERR_free(node);
                    return kFailed;
                }
                continue;
            }
            double v;
            if (!number(token, r->line, &v)) {
                ERR_free(node);
                return kFailed;
            }
            node->bins.bounds[have++] = static_cast<float>(v);
        }
        for (int k = 0; k < n; ++k) {
            if (!(node->bins.bounds[k] < node->bins.bounds[k + 1])) {
                // Bins must not be empty or reversed.
                pxf::cfg::report_syntax(r->line);
                ERR_free(node);
                return true;
            }
        }
    }
    insert_bins(node);
    r->changed = true;
    return true;
}

bool read_point(const CFG_LINE *cfg, const Reading &r) {
    if (cfg->count != 4) {
        pxf::cfg::report_syntax(r.line);
        return true;
    }
    float p[4];
    for (int i = 0; i < 4; ++i) {
        double v;
        if (!number(cfg->tokens[i], r.line, &v)) return kFailed;
        p[i] = static_cast<float>(v);
    }
    auto *node = static_cast<PointNode *>(ERR_malloc(sizeof(PointNode)));
    if (!node) return kFailed;
    node->next = nullptr;
    std::memcpy(node->point, p, sizeof p);
    DST_ll_addo(&point_list, node, by_wavelength, 1);
    return true;
}

bool apply(const Keyword &k, const CFG_LINE *cfg, Reading *r) {
    double v;
    switch (k.key) {
    case Key::Samples:
        if (!number(cfg->tokens[1], r->line, &v)) return kFailed;
        rfl__def_color_samp = clamp_int(v);
        return true;
    case Key::Red: return numbers(cfg, r->line, rfl__def_red_pri, 3);
    case Key::Green: return numbers(cfg, r->line, rfl__def_green_pri, 3);
    case Key::Blue: return numbers(cfg, r->line, rfl__def_blue_pri, 3);
    case Key::White: return numbers(cfg, r->line, rfl__def_white_pt, 3);
    case Key::MinWavelength:
    case Key::MaxWavelength: {
        if (!number(cfg->tokens[1], r->line, &v)) return kFailed;
        float value = static_cast<float>(v);
        bool is_min = k.key == Key::MinWavelength;
        (is_min ? min_wavelength : max_wavelength) = value;
        if (value != (is_min ? kMinWavelength : kMaxWavelength)) r->changed = true;
        return true;
    }
    case Key::Bins: return read_bins(cfg, r);
    case Key::Tristimulus:
        r->in_block = r->block_begun = true;
        return true;
    case Key::EndTristimulus:
        if (r->in_block) r->block_complete = true;
        r->in_block = false;
        return true;
    case Key::TableRes:
        if (!number(cfg->tokens[1], r->line, &v)) return kFailed;
        table_res = clamp_int(v);
        if (table_res != CLR_XYZ_TAB_RES) r->changed = true;
        return true;
    }
    return true;
}

bool read_file(nl_catd catalog, Reading *r) {
    if (!pxf::cfg::open_lines(catalog)) return kFailed;
    while (const CFG_LINE *cfg = CFG_info()) {
        ++r->line;
        if (cfg->count == 0 || pxf::cfg::is_comment(cfg)) continue;
        const Keyword *k = lookup(cfg->tokens[0]);
        if (!k) {
            if (r->in_block && !read_point(cfg, *r)) return kFailed;
            continue;
        }
        if (k->tokens >= 0 && cfg->count != k->tokens) {
            pxf::cfg::report_syntax(r->line);
            continue;
        }
        if (!apply(*k, cfg, r)) return kFailed;
    }
    return true;
}

// Linear interpolation of `points` (ascending wavelengths) at `w`; zero
// outside the points.  `at` carries the search position between calls made
// with rising wavelengths.
void interpolate(const float (*points)[4], int count, double w, int *at, double out[3]) {
    while (*at + 1 < count && points[*at + 1][0] <= w) ++*at;
    const float *p0 = points[*at];
    out[0] = out[1] = out[2] = 0.0;
    if (w < p0[0]) return;
    if (*at + 1 >= count) {
        if (w == p0[0])
            for (int c = 0; c < 3; ++c) out[c] = p0[c + 1];
        return;
    }
    const float *p1 = points[*at + 1];
    double t = (w - p0[0]) / (double(p1[0]) - p0[0]);
    for (int c = 0; c < 3; ++c) out[c] = p0[c + 1] + t * (double(p1[c + 1]) - p0[c + 1]);
}

// Builds the tristimulus table from the points; false after reporting.
bool build_table(const Reading &r) {
    const float (*points)[4] = pxf::clr::kObserver;
    int count = pxf::clr::kObserverRows;
    pxf::HeapPtr<float> copied;
    if (r.block_begun) {
        count = static_cast<int>(DST_ll_length(&point_list));
        if (count > 0) {
            copied.reset(static_cast<float *>(ERR_malloc(static_cast<uint32_t>(count * 4 * sizeof(float)))));
            if (!copied) return kFailed;
            float *to = copied.get();
            for (auto *p = static_cast<PointNode *>(DST_ll_first(&point_list)); p; p = p->next, to += 4)
                std::memcpy(to, p->point, sizeof p->point);
        }
        points = reinterpret_cast<const float(*)[4]>(copied.get());
    }
    made_table = static_cast<float(*)[3]>(ERR_malloc(static_cast<uint32_t>(table_res * sizeof(float[3]))));
    if (!made_table) return kFailed;
    double step = (double(max_wavelength) - min_wavelength) / (table_res - 1);
    double integral[3] = {};
    int at = 0;
    for (int i = 0; i < table_res; ++i) {
        double v[3] = {};
        if (count > 0) interpolate(points, count, min_wavelength + i * step, &at, v);
        for (int c = 0; c < 3; ++c) {
            made_table[i][c] = static_cast<float>(v[c]);
            integral[c] += v[c] * step;
        }
    }
    for (double s : integral) {
        if (s == 0.0 || !std::isfinite(s)) {
            pxf::cfg::report(ERR_ERROR, pxf::cfg::kMsgBadMatching,
                             "Invalid matching function (check the configuration file color matching function)");
            return kFailed;
        }
    }
    for (int i = 0; i < table_res; ++i)
        for (int c = 0; c < 3; ++c) made_table[i][c] = static_cast<float>(made_table[i][c] / integral[c]);
    rfl__xyz_func = made_table;
    return true;
}

// Boundaries of uniform bins, inverse widths and the two conversion tables.
void derive_bins() {
    double step = (double(max_wavelength) - min_wavelength) / (table_res - 1);
    for (auto *node = static_cast<BinNode *>(DST_ll_first(&bin_list)); node; node = node->next) {
        CLR_BINS &b = node->bins;
        if (b.uniform) {
            for (int k = 0; k < b.n; ++k)
                b.bounds[k] = static_cast<float>(min_wavelength + k * (double(max_wavelength) - min_wavelength) / b.n);
            b.bounds[b.n] = max_wavelength;
        }
        for (int k = 0; k < b.n; ++k) b.inv_width[k] = static_cast<float>(1.0 / (double(b.bounds[k + 1]) - b.bounds[k]));
        // Each row of the table belongs to the bin [b_k, b_k+1); the last
        // bin includes its upper boundary.
        double sum[3] = {};
        int bin = 0;
        auto flush = [&](int k) {
            for (int c = 0; c < 3; ++c) {
                b.samp_to_xyz[k * 3 + c] = static_cast<float>(sum[c]);
                sum[c] = 0.0;
            }
        };
        for (int i = 0; i < table_res; ++i) {
            double w = min_wavelength + i * step;
            if (w < b.bounds[0]) continue;
            while (bin < b.n - 1 && w >= b.bounds[bin + 1]) flush(bin++);
            if (bin == b.n - 1 && w > b.bounds[b.n]) break;
            for (int c = 0; c < 3; ++c) sum[c] += double(rfl__xyz_func[i][c]) * step;
        }
        flush(bin);
        // A bin set that cannot be inverted leaves a zero table.
        pxf::clr::undo_table(b.samp_to_xyz, b.xyz_to_samp, b.n);
    }
}

// Validation and derivation after the file; false after reporting.
bool finish(const Reading &r) {
    if (!(min_wavelength > 0) || !(max_wavelength > 0) || !(min_wavelength < max_wavelength) ||
        max_wavelength > kMaxWavelengthLimit) {
        pxf::cfg::report(ERR_ERROR, pxf::cfg::kMsgBadRange,
                         "Invalid wavelength sampling range, (%f, %f); (check the configuration file)",
                         double(min_wavelength), double(max_wavelength));
        return kFailed;
    }
    if (table_res < 2 || table_res > kMaxTableRes) {
        pxf::cfg::report(ERR_ERROR, pxf::cfg::kMsgBadResolution,
                         "Invalid table resolution (%d); (check the configuration file)", table_res);
        return kFailed;
    }
    bool file_points = r.block_complete && DST_ll_length(&point_list) > 0;
    if ((r.changed || file_points) && !build_table(r)) return kFailed;
    derive_bins();
    return true;
}

bool init_bins() {
    for (const auto &builtin : pxf::clr::kBuiltinBins) {
        BinNode *node = new_bins(builtin.n);
        if (!node) return false;
        std::memcpy(node->bins.bounds, builtin.bounds, sizeof(float) * (builtin.n + 1));
        DST_ll_addt(&bin_list, node);
    }
    return true;
}

void lazy_init(const char *request) {
    if (initialised) return;
    CLR_init(nullptr);
    pxf::cfg::report_lazy_init("clr", request);
}

}  // namespace

extern "C" {

int CLR_init(nl_catd catalog) {
    if (initialised) {
        DST_ll_initl(&bin_list);
        DST_ll_initl(&point_list);
        return 0;
    }
    DST_ll_init(&bin_list);
    DST_ll_init(&point_list);
    initialised = true;
    Reading reading;
    if (!init_bins() || !read_file(catalog, &reading) || !finish(reading)) {
        CLR_exit();
        return -1;
    }
    DST_ll_initl(&bin_list);
    DST_ll_initl(&point_list);
    return 0;
}

int CLR_exit(void) {
    // The conversion setup points into the bins about to go.
    RFL_done();
    while (void *node = DST_ll_remh(&bin_list)) ERR_free(node);
    while (void *node = DST_ll_remh(&point_list)) ERR_free(node);
    DST_ll_init(&bin_list);
    DST_ll_init(&point_list);
    rfl__xyz_func = rfl__def_xyz_func;
    ERR_free(made_table);
    made_table = nullptr;
    restore_builtins();
    initialised = false;
    CFG_exit();
    return 0;
}

CLR_BINS *CLR_find(int n) {
    if (!initialised) {
        if (CLR_init(nullptr) != 0) return nullptr;
        pxf::cfg::report_lazy_init("clr", "CLR_find");
    }
    void *saved = DST_ll_getl(&bin_list);
    DST_ll_initl(&bin_list);
    while (auto *node = static_cast<BinNode *>(DST_ll_nextl(&bin_list)))
        if (node->bins.n == n) return &node->bins;
    DST_ll_setl(&bin_list, saved);
    return nullptr;
}

int CLR_def_color_samp(void) {
    lazy_init("CLR_def_color_samp");
    return rfl__def_color_samp;
}

float CLR_def_min_wavelength(void) {
    lazy_init("CLR_def_min_wavelength");
    return min_wavelength;
}

float CLR_def_max_wavelength(void) {
    lazy_init("CLR_def_max_wavelength");
    return max_wavelength;
}

int CLR_def_xyz_tab_res(void) {
    lazy_init("CLR_def_xyz_tab_res");
    return table_res;
}

float *CLR_def_red_primary(void) {
    lazy_init("CLR_def_red_primary");
    return rfl__def_red_pri;
}

float *CLR_def_green_primary(void) {
    lazy_init("CLR_def_green_primary");
    return rfl__def_green_pri;
}

float *CLR_def_blue_primary(void) {
    lazy_init("CLR_def_blue_primary");
    return rfl__def_blue_pri;
}

float *CLR_def_white_point(void) {
    lazy_init("CLR_def_white_point");
    return rfl__def_white_pt;
}

void CLR_symbols(void) { std::fputs("CLR_symbols: should not be called by the application\n", stderr); }

}  // extern "C"
