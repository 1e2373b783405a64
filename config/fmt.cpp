// Format defaults and the aspect table.
#include <pxf/fmt.h>

#include <cstring>

#include <pxf/pxf.h>
#include <pxf/utl.h>

#include "config/cfg_internal.h"
#include "config/named_list.h"

namespace {

// Built-in strings live in writable arrays so that the exported pointers can
// be plain `char *`; a pointer that differs from its built-in owns a copy.
char builtin_aspect_default[] = "ntsc_640";
char builtin_chan_type[] = "rgb";
char builtin_key[] = "rla";
char builtin_name[] = "im";
char builtin_ntsc_name[] = "ntsc_640";

FMT_ASPECT builtin_ntsc = {builtin_ntsc_name, 640, 486, 1.33f};

unsigned int swatch_size = 0;
bool initialised = false;
pxf::cfg::NamedList<FMT_ASPECT> table;

}  // namespace

float fmt__def_gamma = 2.2f;
float fmt__def_input_gamma = 1.0f;
int fmt__gamma_tab_res = 4096;
int fmt__def_frame_rate = 30;
int fmt__def_dominance = 1;
char *fmt__def_aspect = builtin_aspect_default;
char *fmt__def_chan_type = builtin_chan_type;
char *pxf__default = builtin_key;
char *pxf__def_name = builtin_name;

const FMT_CHAN_TYPE fmt__chan_type[] = {{"rgb", 3}, {"sampled", -1}, {"xyz", 3}, {"raw", -1}};
const int fmt__num_chan_type = 4;

namespace {

struct SavedString {
    char **slot;
    char *builtin;
};
const SavedString saved_strings[] = {
    {&fmt__def_aspect, builtin_aspect_default},
    {&fmt__def_chan_type, builtin_chan_type},
    {&pxf__default, builtin_key},
    {&pxf__def_name, builtin_name},
};

void restore_string(char **slot, char *builtin) {
    if (*slot != builtin) pxf::heap_free(*slot);
    *slot = builtin;
}

// Replaces a saved string with a copy of `value`; false after reporting.
bool save_into(char **slot, const char *value) {
    char *copy = pxf::cfg::save_string(value);
    if (!copy) return false;
    for (const auto &s : saved_strings)
        if (s.slot == slot) restore_string(slot, s.builtin);
    *slot = copy;
    return true;
}

void restore_builtins() {
    for (const auto &s : saved_strings) restore_string(s.slot, s.builtin);
    fmt__def_gamma = 2.2f;
    fmt__def_input_gamma = 1.0f;
    fmt__gamma_tab_res = 4096;
    fmt__def_frame_rate = 30;
    fmt__def_dominance = 1;
    swatch_size = 0;
}

enum class Key {
    AspectDefault, AspectTable, EndAspectTable, GammaTableRes, GammaDefault, InputGammaDefault,
    KeyDefault, NameDefault, ChanDefault, Dominance, FrameRate, SwatchSize,
};

struct Keyword {
    const char *name;
    int tokens;
    Key key;
};

constexpr Keyword keywords[] = {
    {"fmt__aspect_default", 2, Key::AspectDefault},
    {"fmt__aspect_table", 1, Key::AspectTable},
    {"end_aspect_table", 1, Key::EndAspectTable},
    {"fmt__gamma_table_res", 2, Key::GammaTableRes},
    {"fmt__gamma_default", 2, Key::GammaDefault},
    {"fmt__input_gamma_default", 2, Key::InputGammaDefault},
    {"fmt__key_default", 2, Key::KeyDefault},
    {"fmt__name_default", 2, Key::NameDefault},
    {"fmt__chan_default", 2, Key::ChanDefault},
    {"fmt__dominance", 2, Key::Dominance},
    {"fmt__frame_rate", 2, Key::FrameRate},
    {"fmt__swatch_size", 2, Key::SwatchSize},
};

const Keyword *lookup(const char *token) {
    for (const auto &k : keywords)
        if (std::strcmp(k.name, token) == 0) return &k;
    return nullptr;
}

enum class Outcome { Ok, NoRecord, NoString };

// One row of the aspect table: name, x and y resolution, aspect.
Outcome add_aspect_row(const CFG_LINE *line, int number) {
    double aspect;
    if (line->count != 4 || !UTL_cnv_atof(line->tokens[3], &aspect)) {
        pxf::cfg::report_syntax(number);
        return Outcome::Ok;
    }
    auto *entry = static_cast<FMT_ASPECT *>(ERR_malloc(sizeof(FMT_ASPECT)));
    if (!entry) return Outcome::NoRecord;
    entry->name = pxf::cfg::save_string(line->tokens[0]);
    if (!entry->name) {
        ERR_free(entry);
        return Outcome::NoString;
    }
    entry->x_res = pxf::cfg::to_int(line->tokens[1]);
    entry->y_res = pxf::cfg::to_int(line->tokens[2]);
    entry->aspect = static_cast<float>(aspect);
    if (!table.append_replacing(entry)) {
        pxf::cfg::free_entry(entry);
        return Outcome::NoRecord;
    }
    return Outcome::Ok;
}

Outcome apply(const Keyword &k, const CFG_LINE *line, int number, bool *in_table,
              const char **aspect_default) {
    const char *value = line->tokens[1];
    double real;
    switch (k.key) {
    case Key::AspectDefault: *aspect_default = value; break;
    case Key::AspectTable: *in_table = true; break;
    case Key::EndAspectTable: *in_table = false; break;
    case Key::GammaTableRes: fmt__gamma_tab_res = pxf::cfg::to_int(value); break;
    case Key::GammaDefault:
    case Key::InputGammaDefault:
        if (!UTL_cnv_atof(value, &real)) {
            pxf::cfg::report_syntax(number);
            break;
        }
        (k.key == Key::GammaDefault ? fmt__def_gamma : fmt__def_input_gamma) = static_cast<float>(real);
        break;
    case Key::KeyDefault:
        if (!save_into(&pxf__default, value)) return Outcome::NoString;
        break;
    case Key::NameDefault:
        if (!save_into(&pxf__def_name, value)) return Outcome::NoString;
        break;
    case Key::ChanDefault:
        if (!save_into(&fmt__def_chan_type, value)) return Outcome::NoString;
        break;
    case Key::Dominance: fmt__def_dominance = std::strcmp(value, "even") == 0 ? 0 : 1; break;
    case Key::FrameRate: {
        int rate = pxf::cfg::to_int(value);
        if (rate > 0) fmt__def_frame_rate = rate;
        break;
    }
    case Key::SwatchSize: {
        int size = std::strcmp(value, "none") == 0 ? 0 : pxf::cfg::to_int(value);
        swatch_size = size < 0 ? 0u : static_cast<unsigned int>(size);
        break;
    }
    }
    return Outcome::Ok;
}

Outcome read_file(nl_catd catalog) {
    if (!pxf::cfg::open_lines(catalog)) return Outcome::NoRecord;
    bool in_table = false;
    const char *aspect_default = nullptr;  // a token of the configuration lines
    int number = 0;
    while (const CFG_LINE *line = CFG_info()) {
        ++number;
        if (line->count == 0) continue;
        const Keyword *k = lookup(line->tokens[0]);
        if (!k) {
            if (in_table && !pxf::cfg::is_comment(line)) {
                Outcome o = add_aspect_row(line, number);
                if (o != Outcome::Ok) return o;
            }
            continue;
        }
        if (line->count != k->tokens) {
            pxf::cfg::report_syntax(number);
            continue;
        }
        Outcome o = apply(*k, line, number, &in_table, &aspect_default);
        if (o != Outcome::Ok) return o;
    }
    // The aspect default only counts if the table has that row now.
    if (aspect_default && table.find(aspect_default)) {
        if (!save_into(&fmt__def_aspect, aspect_default)) return Outcome::NoString;
    }
    return Outcome::Ok;
}

void lazy_init(const char *request) {
    if (!initialised && FMT_init(nullptr) == 0) pxf::cfg::report_lazy_init("fmt", request);
}

}  // namespace

extern "C" {

int FMT_init(nl_catd catalog) {
    if (initialised) {
        table.rewind();
        return 0;
    }
    table.reset();
    initialised = true;
    Outcome outcome = table.append(&builtin_ntsc, 1) ? read_file(catalog) : Outcome::NoRecord;
    if (outcome == Outcome::Ok) {
        table.rewind();
        return 0;
    }
    FMT_exit();
    if (outcome == Outcome::NoString) {
        pxf__err = pxf::kErrNoMemory;
        return pxf::kErrNoMemory;
    }
    return -1;
}

int FMT_exit(void) {
    table.clear();
    restore_builtins();
    initialised = false;
    CFG_exit();
    return 0;
}

FMT_ASPECT *FMT_find(const char *name) {
    if (!initialised) {
        if (FMT_init(nullptr) != 0) return nullptr;
        pxf::cfg::report_lazy_init("fmt", "FMT_find");
    }
    return name ? table.find(name) : nullptr;
}

FMT_ASPECT *FMT_info(void) {
    if (!initialised) {
        if (FMT_init(nullptr) != 0) return nullptr;
        pxf::cfg::report_lazy_init("fmt", "FMT_info");
    }
    return table.next();
}

int FMT_def_dominance(void) {
    lazy_init("FMT_def_dominance");
    return fmt__def_dominance;
}

int FMT_def_frame_rate(void) {
    lazy_init("FMT_def_frame_rate");
    return fmt__def_frame_rate;
}

int FMT_def_gamma_tab_res(void) {
    lazy_init("FMT_def_gamma_tab_res");
    return fmt__gamma_tab_res;
}

int FMT_def_swatch(void) {
    lazy_init("FMT_def_swatch");
    return static_cast<int>(swatch_size);
}

float FMT_def_gamma(void) {
    lazy_init("FMT_def_gamma");
    return fmt__def_gamma;
}

float FMT_def_input_gamma(void) {
    lazy_init("FMT_def_input_gamma");
    return fmt__def_input_gamma;
}

char *FMT_def_aspect(void) {
    lazy_init("FMT_def_aspect");
    return fmt__def_aspect;
}

char *FMT_def_image_data(void) {
    lazy_init("FMT_def_image_data");
    return fmt__def_chan_type;
}

}  // extern "C"
