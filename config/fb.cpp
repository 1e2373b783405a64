// Framebuffer descriptions.
#include <cstdio>
#include <cstring>

#include <pxf/fmt.h>
#include <pxf/utl.h>

#include "config/cfg_internal.h"
#include "config/named_list.h"

namespace {

char builtin_default[] = "full";
char name_full[] = "full";
char name_ntsc[] = "ntsc";
char name_pal[] = "pal";

// 1953 NTSC primaries with illuminant C for the workstation screen; the
// broadcast phosphors and whites for the video devices.
FB_ENTRY builtin_full = {name_full, 0, 0, 1280, 1024, 1.33f,
                         {0.67f, 0.33f, 0.0f}, {0.21f, 0.71f, 0.08f}, {0.14f, 0.08f, 0.78f},
                         {0.31f, 0.316f, 0.374f}, 2.2f, 0.0f};
FB_ENTRY builtin_ntsc = {name_ntsc, 0, 0, 640, 486, 1.33f,
                         {0.598f, 0.363f, 0.039f}, {0.312f, 0.586f, 0.102f}, {0.145f, 0.059f, 0.796f},
                         {0.319f, 0.344f, 0.337f}, 2.2f, 0.0f};
FB_ENTRY builtin_pal = {name_pal, 0, 0, 780, 576, 1.33f,
                        {0.64f, 0.33f, 0.03f}, {0.29f, 0.60f, 0.11f}, {0.15f, 0.06f, 0.79f},
                        {0.313f, 0.329f, 0.358f}, 2.2f, 0.0f};

bool initialised = false;
pxf::cfg::NamedList<FB_ENTRY> devices;

enum class Key { Framebuffer, Resolution, Aspect, Gamma, Red, Green, Blue, White, End, Default };

struct Keyword {
    const char *name;
    int tokens;
    Key key;
};

constexpr Keyword keywords[] = {
    {"framebuffer", 2, Key::Framebuffer}, {"resolution", 3, Key::Resolution},
    {"aspect", 2, Key::Aspect},           {"gamma", 2, Key::Gamma},
    {"red_primary", 4, Key::Red},         {"green_primary", 4, Key::Green},
    {"blue_primary", 4, Key::Blue},       {"white_point", 4, Key::White},
    {"end_framebuffer", 1, Key::End},     {"fb__default", 2, Key::Default},
};

const Keyword *lookup(const char *token) {
    for (const auto &k : keywords)
        if (std::strcmp(k.name, token) == 0) return &k;
    return nullptr;
}

// Reads `count` numbers from the tokens behind the keyword; false when one
// does not convert.
bool numbers(const CFG_LINE *line, float *out, int count) {
    for (int i = 0; i < count; ++i) {
        double value;
        if (!UTL_cnv_atof(line->tokens[1 + i], &value)) return false;
        out[i] = static_cast<float>(value);
    }
    return true;
}

// False on an allocation failure (already reported).
bool read_file(nl_catd catalog) {
    if (!pxf::cfg::open_lines(catalog)) return false;
    FB_ENTRY *open = nullptr;  // the block being read
    bool ok = true;
    int number = 0;
    while (const CFG_LINE *line = CFG_info()) {
        ++number;
        if (line->count == 0) continue;
        const Keyword *k = lookup(line->tokens[0]);
        if (!k) continue;
        if (line->count != k->tokens) {
            pxf::cfg::report_syntax(number);
            continue;
        }
        if (k->key == Key::Default) {
            char *copy = pxf::cfg::save_string(line->tokens[1]);
            if (!copy) {
                ok = false;
                break;
            }
            if (fb__default != builtin_default) pxf::heap_free(fb__default);
            fb__default = copy;
            continue;
        }
        if (k->key == Key::Framebuffer) {
            pxf::cfg::free_entry(open);  // an unfinished block adds nothing
            open = static_cast<FB_ENTRY *>(ERR_malloc(sizeof(FB_ENTRY)));
            if (!open) {
                ok = false;
                break;
            }
            *open = builtin_full;
            open->name = pxf::cfg::save_string(line->tokens[1]);
            if (!open->name) {
                ERR_free(open);
                open = nullptr;
                ok = false;
                break;
            }
            continue;
        }
        if (!open) continue;  // the other keywords belong inside a block
        float v[3];
        bool converted = true;
        switch (k->key) {
        case Key::Resolution:
            open->x_res = pxf::cfg::to_int(line->tokens[1]);
            open->y_res = pxf::cfg::to_int(line->tokens[2]);
            break;
        case Key::Aspect:
            if ((converted = numbers(line, v, 1))) open->aspect = v[0];
            break;
        case Key::Gamma:
            if ((converted = numbers(line, v, 1))) open->gamma = v[0];
            break;
        case Key::Red:
            if ((converted = numbers(line, v, 3))) std::memcpy(open->red, v, sizeof v);
            break;
        case Key::Green:
            if ((converted = numbers(line, v, 3))) std::memcpy(open->green, v, sizeof v);
            break;
        case Key::Blue:
            if ((converted = numbers(line, v, 3))) std::memcpy(open->blue, v, sizeof v);
            break;
        case Key::White:
            if ((converted = numbers(line, v, 3))) std::memcpy(open->white, v, sizeof v);
            break;
        case Key::End:
            if (!devices.append_replacing(open)) {
                ok = false;
                break;
            }
            open = nullptr;
            break;
        default: break;
        }
        if (!ok) break;
        if (!converted) pxf::cfg::report_syntax(number);
    }
    pxf::cfg::free_entry(open);
    return ok;
}

void lazy_init_notice(const char *request) { pxf::cfg::report_lazy_init("fb", request); }

}  // namespace

char *fb__default = builtin_default;

extern "C" {

int FB_init(nl_catd catalog) {
    if (initialised) {
        devices.rewind();
        return 0;
    }
    devices.reset();
    initialised = true;
    bool ok = devices.append(&builtin_full, 1) && devices.append(&builtin_ntsc, 1) &&
              devices.append(&builtin_pal, 1) && read_file(catalog);
    if (!ok) {
        FB_exit();
        return -1;
    }
    devices.rewind();
    return 0;
}

int FB_exit(void) {
    devices.clear();
    if (fb__default != builtin_default) pxf::heap_free(fb__default);
    fb__default = builtin_default;
    initialised = false;
    CFG_exit();
    return 0;
}

FB_ENTRY *FB_find(const char *name) {
    if (!initialised) {
        if (FB_init(nullptr) != 0) return nullptr;
        lazy_init_notice("FB_find");
    }
    return name ? devices.find(name) : nullptr;
}

FB_ENTRY *FB_info(void) {
    if (!initialised) {
        if (FB_init(nullptr) != 0) return nullptr;
        lazy_init_notice("FB_info");
    }
    return devices.next();
}

char *FB_def_framebuffer(void) {
    if (!initialised && FB_init(nullptr) == 0) lazy_init_notice("FB_def_framebuffer");
    return fb__default;
}

void FB_symbols(void) { std::fputs("FB_symbols: should not be called by the application\n", stderr); }

}  // extern "C"
