// The driver registry: plug-in libraries handed over by the application's
// enumerator, checked and turned into type entries, plus the built-in drivers.
#include "core/registry.h"

#include <dlfcn.h>

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include <pxf/dst.h>
#include <pxf/frames.h>
#include <pxf/plugin.h>
#include <pxf/rla.h>
#include <pxf/str.h>

#include "core/core_util.h"
#include "core/defaults.h"

PXF_TYPE *pxf__type_list_dso = nullptr;
int pxf__num_pxf_types_dso = 0;

namespace pxf {

pthread_mutex_t open_lock = PTHREAD_MUTEX_INITIALIZER;

namespace {

std::atomic<bool> initialised{false};
DST_LL *records = nullptr;        // type records: plug-ins, then built-ins
PXF_TYPE *remembered = nullptr;   // last record that answered PXF_is_file_type
// Keys of the drivers marked unavailable (private copies), `off_count` of
// them in an array of `off_room`.  Changed and read under the open lock, or
// by the thread that owns the registry, like the list itself.
char **off_keys = nullptr;
int off_count = 0, off_room = 0;

enum class Kind { string, string_or_empty, pointer, integer, boolean, function };
enum class Need { optional, always, when_reads, when_writes };

struct Symbol {
    int number;  // in catalogue set 900
    const char *name;
    Kind kind;
    std::size_t offset;
    Need need;
    long fallback;
    const char *fallback_text;
};

#define PXF_FIELD(f) offsetof(PXF_TYPE, f)
// In the order they are read; "version" and "imageInit" are handled first.
const Symbol kSymbols[] = {
    {1, PXF_SYM_KEY, Kind::string, PXF_FIELD(key), Need::always, 0, nullptr},
    {2, PXF_SYM_EXTENSION, Kind::string_or_empty, PXF_FIELD(extension), Need::optional, 0, ""},
    {3, PXF_SYM_NAME, Kind::string, PXF_FIELD(name), Need::always, 0, nullptr},
    {4, PXF_SYM_DESCRIPTION, Kind::string, PXF_FIELD(description), Need::optional, 0, nullptr},
    {6, PXF_SYM_FORMAT_STRING, Kind::string, PXF_FIELD(format_string), Need::optional, 0, "%s.%04.4d%s"},
    {7, PXF_SYM_NAME_SYNTAX, Kind::pointer, PXF_FIELD(name_syntax), Need::optional, 0, nullptr},
    {8, PXF_SYM_ADD_EXTENSION, Kind::integer, PXF_FIELD(add_extension), Need::optional, 1, nullptr},
    {10, PXF_SYM_USAGE, Kind::integer, PXF_FIELD(usage), Need::optional, 1, nullptr},
    {11, PXF_SYM_ORIENTATION, Kind::integer, PXF_FIELD(orientation), Need::always, 0, nullptr},
    {28, PXF_SYM_BITS_PER_PALETTE_ENTRY, Kind::integer, PXF_FIELD(bits_per_palette_entry), Need::optional, 0, nullptr},
    {12, PXF_SYM_NUMBER_OF_CHANNELS, Kind::integer, PXF_FIELD(number_of_channels), Need::optional, 3, nullptr},
    {13, PXF_SYM_BITS_PER_CHANNEL, Kind::integer, PXF_FIELD(bits_per_channel), Need::optional, 128, nullptr},
    {14, PXF_SYM_NUMBER_OF_MATTES, Kind::integer, PXF_FIELD(number_of_mattes), Need::optional, 0, nullptr},
    {15, PXF_SYM_BITS_PER_MATTE, Kind::integer, PXF_FIELD(bits_per_matte), Need::optional, 0, nullptr},
    {16, PXF_SYM_NUMBER_OF_Z_CHANNELS, Kind::integer, PXF_FIELD(number_of_z_channels), Need::optional, 0, nullptr},
    {17, PXF_SYM_BITS_PER_Z_CHANNEL, Kind::integer, PXF_FIELD(bits_per_z_channel), Need::optional, 0, nullptr},
    {19, PXF_SYM_SUPPORTS_ACTIVE_WINDOW, Kind::integer, PXF_FIELD(supports_active_window), Need::optional, 0, nullptr},
    {18, PXF_SYM_ACCESS, Kind::integer, PXF_FIELD(access), Need::optional, 12, nullptr},
    {9, PXF_SYM_MULTI_FRAME, Kind::integer, PXF_FIELD(multi_frame), Need::optional, 0, nullptr},
    {30, PXF_SYM_HARD_LINK_DUPLICATES, Kind::boolean, PXF_FIELD(hard_link_duplicates), Need::optional, 1, nullptr},
    {31, PXF_SYM_SUPPORT_REMOTE_ACCESS, Kind::boolean, PXF_FIELD(supports_remote_access), Need::optional, 0, nullptr},
    {21, PXF_SYM_CAPABILITY, Kind::function, PXF_FIELD(capability), Need::optional, 0, nullptr},
    {33, PXF_SYM_CAPS_AVAIL_UPDATE, Kind::function, PXF_FIELD(caps_avail_update), Need::optional, 0, nullptr},
    {22, PXF_SYM_READ_OPEN, Kind::function, PXF_FIELD(read_open), Need::when_reads, 0, nullptr},
    {5, PXF_SYM_WRITE_OPEN, Kind::function, PXF_FIELD(write_open), Need::when_writes, 0, nullptr},
    {29, PXF_SYM_DONE, Kind::function, PXF_FIELD(done), Need::optional, 0, nullptr},
    {32, PXF_SYM_IS_FILE, Kind::function, PXF_FIELD(is_file), Need::optional, 0, nullptr},
    {34, PXF_SYM_PRIVATE_UI_POPUP, Kind::function, PXF_FIELD(private_ui_popup), Need::optional, 0, nullptr},
    {35, PXF_SYM_PRIVATE_UI_POPDOWN, Kind::function, PXF_FIELD(private_ui_popdown), Need::optional, 0, nullptr},
};
#undef PXF_FIELD

const char *symbol_name(int number, const char *name) { return text(kSetSymbols, number, name); }

void report_missing(const char *library, const char *symbol) {
    report(kSetMessages, 121, "%s: %s must be defined", library, symbol);
}

// Fills one field from its symbol (or its default); false when a required
// symbol is missing.
bool read_symbol(void *library, const char *library_name, const Symbol &s, PXF_TYPE &entry) {
    const char *name = symbol_name(s.number, s.name);
    void *address = dlsym(library, name);
    char *field = reinterpret_cast<char *>(&entry) + s.offset;
    bool needed = s.need == Need::always || (s.need == Need::when_reads && (entry.access & PXF_ACCESS_READ)) ||
                  (s.need == Need::when_writes && (entry.access & PXF_ACCESS_WRITE));
    if (!address && needed) {
        report_missing(library_name, name);
        return false;
    }
    switch (s.kind) {
    case Kind::string:
    case Kind::string_or_empty:
    case Kind::pointer: {
        const char *value = address ? *static_cast<const char *const *>(address) : s.fallback_text;
        if (!value && s.kind == Kind::string_or_empty) value = "";
        std::memcpy(field, &value, sizeof value);
        break;
    }
    case Kind::integer: {
        int32_t value = address ? *static_cast<const int *>(address) : int32_t(s.fallback);
        std::memcpy(field, &value, sizeof value);
        break;
    }
    case Kind::boolean: {
        uint8_t value = address ? *static_cast<const unsigned char *>(address) : uint8_t(s.fallback);
        *reinterpret_cast<uint8_t *>(field) = value;
        break;
    }
    case Kind::function:
        // dlsym hands functions back as object pointers; POSIX makes them interchangeable.
        std::memcpy(field, &address, sizeof address);
        break;
    }
    return true;
}

// Entries collected during PXF_init, in registration order.
struct Collected {
    PXF_TYPE **items = nullptr;
    int count = 0;
    int capacity = 0;

    bool push(PXF_TYPE *entry) {
        if (count == capacity) {
            int grown = capacity ? capacity * 2 : 20;
            auto **bigger = static_cast<PXF_TYPE **>(heap_realloc(items, grown * sizeof *items));
            if (!bigger) return false;
            items = bigger;
            capacity = grown;
        }
        items[count++] = entry;
        return true;
    }
    void drop_key(const char *key) {
        for (int i = 0; i < count; ++i)
            if (same(items[i]->key, key)) {
                heap_free(items[i]);
                std::memmove(items + i, items + i + 1, (count - i - 1) * sizeof *items);
                --count;
                return;
            }
    }
    void release() {
        for (int i = 0; i < count; ++i) heap_free(items[i]);
        heap_free(items);
        items = nullptr;
        count = capacity = 0;
    }
};

// One plug-in library; returns -1 when the registry must give up (memory),
// 0 when the library was skipped or loaded.
int load_library(void *library, const char *library_name, Collected &collected) {
    if (!library_name) library_name = "";
    const char *version_name = symbol_name(27, PXF_SYM_VERSION);
    auto *version = static_cast<const char *const *>(dlsym(library, version_name));
    if (!version) {
        report_missing(library_name, version_name);
        return 0;
    }
    if (!same(*version, PXF_PLUGIN_PROTOCOL)) {
        report(kSetMessages, 196,
               "%s: the version protocol of this plug-in (\"%s\") is not supported; expecting version "
               "\"%s\" but found \"%s\"",
               library_name, *version ? *version : "", PXF_PLUGIN_PROTOCOL, *version ? *version : "");
        return 0;
    }
    auto *entry = static_cast<PXF_TYPE *>(alloc_zeroed(sizeof(PXF_TYPE)));
    if (!entry) return -1;
    entry->version = *version;
    if (void *init = dlsym(library, symbol_name(20, PXF_SYM_INIT))) {
        PXF_INIT_FN init_fn;
        std::memcpy(&init_fn, &init, sizeof init);
        if (init_fn() == 0) {  // the plug-in declines: skipped without a word
            heap_free(entry);
            return 0;
        }
    }
    for (const Symbol &s : kSymbols)
        if (!read_symbol(library, library_name, s, *entry)) {
            heap_free(entry);
            return 0;
        }
    if (entry->capability) {
        // The counts say how many input and output settings the driver offers;
        // the list it hands back stays the driver's.
        PXF_CAP_SETTING **settings = nullptr;
        int inputs = 0, outputs = 0, unused = 0;
        entry->capability(&settings, &inputs, &outputs, &unused);
        if (inputs > pxf__specific_input_max) pxf__specific_input_max = inputs;
        if (outputs > pxf__specific_output_max) pxf__specific_output_max = outputs;
    }
    collected.drop_key(entry->key);  // a later library replaces an earlier one's key
    if (!collected.push(entry)) {
        heap_free(entry);
        report_no_memory();
        return -1;
    }
    return 0;
}

bool add_record(const PXF_TYPE &entry, bool builtin) {
    auto *record = static_cast<PXF_TYPE *>(alloc(sizeof(PXF_TYPE)));
    if (!record) return false;
    *record = entry;
    record->next = nullptr;
    record->builtin = builtin;
    if (entry.text_number) record->description = text(entry.text_set, entry.text_number, entry.description);
    DST_ll_addt(records, record);
    return true;
}

int give_up(Collected &collected) {
    collected.release();
    PXF_exit();
    pxf__err = kErrNoMemory;
    return -1;
}

template <class Match>
PXF_TYPE *find_record(Match match) {
    if (!records) return nullptr;
    for (auto *r = static_cast<PXF_TYPE *>(DST_ll_first(records)); r; r = r->next)
        if (match(*r)) return r;
    return nullptr;
}

// Complaints of the query functions go straight to standard error.
void say(const char *text) { std::fputs(text, stderr); }

bool plugins_loaded(bool and_say_none) {
    if (pxf__num_pxf_types_dso > 0) return true;
    say("Plugins not loaded, so Load!!\n\n");
    if (and_say_none) say("No Plugins!\n");
    return false;
}

PXF_TYPE *plugin_named(const char *name) {
    for (int i = 0; i < pxf__num_pxf_types_dso; ++i)
        if (same(pxf__type_list_dso[i].name, name)) return &pxf__type_list_dso[i];
    return nullptr;
}

}  // namespace

bool registry_initialised() noexcept { return initialised.load(std::memory_order_acquire); }

bool ensure_registry(const char *who) noexcept {
    if (registry_initialised()) return true;
    if (PXF_init(nullptr, nullptr) != 0) return false;
    report_sev(ERR_DEBUG, kSetMessages, 30, "%s, initializing database for %s request", "pxf", who);
    return true;
}

bool ends_with(const char *path, const char *ext) noexcept {
    if (!path || !ext) return false;
    std::size_t n = std::strlen(path), m = std::strlen(ext);
    return m <= n && std::memcmp(path + n - m, ext, m) == 0;
}

bool available(const PXF_TYPE *driver) noexcept {
    if (!driver) return false;
    for (int i = 0; i < off_count; ++i)
        if (same(off_keys[i], driver->key)) return false;
    return true;
}

PXF_TYPE *plugin_by_key(const char *key) noexcept {
    for (int i = 0; i < pxf__num_pxf_types_dso; ++i)
        if (same(pxf__type_list_dso[i].key, key) && available(&pxf__type_list_dso[i])) return &pxf__type_list_dso[i];
    return nullptr;
}

PXF_TYPE *plugin_by_extension(const char *ext) noexcept {
    for (int i = 0; i < pxf__num_pxf_types_dso; ++i)
        if (same(pxf__type_list_dso[i].extension, ext) && available(&pxf__type_list_dso[i]))
            return &pxf__type_list_dso[i];
    return nullptr;
}

PXF_TYPE *plugin_by_path(const char *path) noexcept {
    for (int i = 0; i < pxf__num_pxf_types_dso; ++i) {
        const char *ext = pxf__type_list_dso[i].extension;
        // An empty extension would claim every name.
        if (ext && *ext && ends_with(path, ext) && available(&pxf__type_list_dso[i])) return &pxf__type_list_dso[i];
    }
    return nullptr;
}

const PXF_TYPE *builtin_by_key(const char *key) noexcept {
    for (int i = 0; i < builtin_driver_count; ++i)
        if (same(builtin_drivers[i]->key, key) && available(builtin_drivers[i])) return builtin_drivers[i];
    return nullptr;
}

const PXF_TYPE *builtin_by_extension(const char *ext) noexcept {
    for (int i = 0; i < builtin_driver_count; ++i)
        if (same(builtin_drivers[i]->extension, ext) && available(builtin_drivers[i])) return builtin_drivers[i];
    return nullptr;
}

const PXF_TYPE *builtin_by_path(const char *path) noexcept {
    for (int i = 0; i < builtin_driver_count; ++i) {
        const char *ext = builtin_drivers[i]->extension;
        if (ext && *ext && ends_with(path, ext) && available(builtin_drivers[i])) return builtin_drivers[i];
    }
    return nullptr;
}

}  // namespace pxf

using namespace pxf;

int PXF_init(nl_catd catalog, PXF_ENUMERATOR enumerator) {
    pxf__err = 0;
    if (registry_initialised()) {
        DST_ll_initl(records);
        return 0;
    }
    pxf__msg_cat = catalog;
    if (FMT_init(catalog) != 0) return -1;
    if (CLR_init(catalog) != 0) {
        FMT_exit();
        return -1;
    }
    initialised.store(true, std::memory_order_release);  // from here PXF_exit undoes the defaults too
    records = DST_ll_new();
    pxf__specific_input_max = 0;
    pxf__specific_output_max = 0;
    Collected collected;
    if (!records) return give_up(collected);
    DST_ll_init(records);

    if (enumerator) {
        void *library = nullptr;
        const char *name = nullptr;
        while (enumerator(&library, &name)) {
            if (library && load_library(library, name, collected) < 0) return give_up(collected);
            library = nullptr;
            name = nullptr;
        }
    }

    if (collected.count > 0) {
        pxf__type_list_dso = static_cast<PXF_TYPE *>(alloc(collected.count * sizeof(PXF_TYPE)));
        if (!pxf__type_list_dso) return give_up(collected);
        for (int i = 0; i < collected.count; ++i) pxf__type_list_dso[i] = *collected.items[i];
        pxf__num_pxf_types_dso = collected.count;
    }
    collected.release();
    for (int i = 0; i < pxf__num_pxf_types_dso; ++i)
        if (!add_record(pxf__type_list_dso[i], false)) return give_up(collected);
    for (int i = 0; i < builtin_driver_count; ++i)
        if (!add_record(*builtin_drivers[i], true)) return give_up(collected);
    DST_ll_initl(records);
    return 0;
}

void PXF_exit(void) {
    if (records) {
        while (void *record = DST_ll_remh(records)) heap_free(record);
        DST_ll_free(records);
        records = nullptr;
    }
    for (int i = 0; i < pxf__num_pxf_types_dso; ++i)
        if (pxf__type_list_dso[i].done) pxf__type_list_dso[i].done(nullptr);
    heap_free(pxf__type_list_dso);
    pxf__type_list_dso = nullptr;
    pxf__num_pxf_types_dso = 0;
    remembered = nullptr;
    for (int i = 0; i < off_count; ++i) free_string(off_keys[i]);
    heap_free(off_keys);
    off_keys = nullptr;
    off_count = off_room = 0;
    if (initialised.exchange(false)) {
        CLR_exit();
        FMT_exit();
    }
}

PXF_TYPE *PXF_find(const char *key) {
    if (!ensure_registry("PXF_find") || !key) return nullptr;
    if (PXF_TYPE *r = find_record([&](const PXF_TYPE &t) { return same(t.key, key) && available(&t); })) return r;
    return find_record([&](const PXF_TYPE &t) { return same(t.extension, key) && available(&t); });
}

PXF_TYPE *PXF_info(void) {
    if (!ensure_registry("PXF_info")) return nullptr;
    while (auto *r = static_cast<PXF_TYPE *>(DST_ll_nextl(records)))
        if (!r->builtin && available(r)) return r;
    return nullptr;
}

int PXF_set_available(const char *key, int on) {
    if (!ensure_registry("PXF_set_available")) return -1;
    const PXF_TYPE *r = key ? find_record([&](const PXF_TYPE &t) { return same(t.key, key); }) : nullptr;
    if (!r && key) r = find_record([&](const PXF_TYPE &t) { return same(t.extension, key); });
    if (!r || !r->key)
        return fail(-1, kErrUnknownType, kSetMessages, 902,
                    "Unknown file type key (\"%s\") was specified; Ensure that the plug-in for this type is defined",
                    key ? key : "");
    pthread_mutex_lock(&open_lock);
    int result = 0;
    if (on) {
        for (int i = 0; i < off_count; ++i)
            if (same(off_keys[i], r->key)) {
                free_string(off_keys[i]);
                off_keys[i--] = off_keys[--off_count];
            }
    } else if (available(r)) {
        if (off_count == off_room) {
            int room = off_room ? 2 * off_room : 4;
            auto *grown = static_cast<char **>(alloc(std::size_t(room) * sizeof(char *)));
            if (grown) {
                for (int i = 0; i < off_count; ++i) grown[i] = off_keys[i];
                heap_free(off_keys);
                off_keys = grown;
                off_room = room;
            }
        }
        char *copy = off_count < off_room ? dup_string(r->key) : nullptr;
        if (copy) off_keys[off_count++] = copy;
        else result = -1;
    }
    if (remembered && !available(remembered)) remembered = nullptr;
    pthread_mutex_unlock(&open_lock);
    if (result) {
        report_no_memory();
        pxf__err = kErrNoMemory;
    }
    return result;
}

char *PXF_def_key(void) {
    ensure_registry("PXF_def_key");
    return pxf__default;
}

char *PXF_def_base_name(void) {
    ensure_registry("PXF_def_base_name");
    return pxf__def_name;
}

const char *PXF_get_file_type(const char *path, void *arg, int *decided) {
    if (!ensure_registry("PXF_find")) return nullptr;
    int sure = 1;
    const char *key = nullptr;
    pthread_mutex_lock(&open_lock);
    for (PXF_TYPE *r = static_cast<PXF_TYPE *>(DST_ll_first(records)); r; r = r->next) {
        if (!available(r)) continue;
        if (!r->is_file) {
            sure = 0;
            continue;
        }
        if (r->is_file(path, arg) == 1) {
            key = r->key;
            break;
        }
    }
    pthread_mutex_unlock(&open_lock);
    if (decided) *decided = sure;
    if (key) return key;
    return sure ? PXF_LITERAL_HARD_KEY_none : nullptr;
}

const char *PXF_is_file_type(const char *path, void *arg, const char *key, int *decided) {
    if (!key) return PXF_get_file_type(path, arg, decided);
    if (!ensure_registry("PXF_find")) return nullptr;
    if (decided) *decided = 1;
    if (remembered && same(remembered->key, key) && remembered->is_file && remembered->is_file(path, arg))
        return remembered->key;
    if (!records) return nullptr;
    for (PXF_TYPE *r = static_cast<PXF_TYPE *>(DST_ll_first(records)); r; r = r->next) {
        if (!same(r->key, key) || !available(r)) continue;
        if (!r->is_file) {
            if (decided) *decided = 0;
            continue;
        }
        if (r->is_file(path, arg)) {
            remembered = r;
            return r->key;
        }
    }
    return nullptr;
}

int PXF_getFormatKeys(const char **keys) {
    if (!keys) {
        say("NULL pointer passed\n");
        return 0;
    }
    if (!plugins_loaded(true)) return 0;
    for (int i = 0; i < pxf__num_pxf_types_dso; ++i) keys[i] = pxf__type_list_dso[i].key;
    return pxf__num_pxf_types_dso;
}

int PXF_getPluginExtensions(const char **extensions) {
    if (!extensions) {
        say("NULL pointer passed\n");
        return 0;
    }
    if (!plugins_loaded(true)) return 0;
    for (int i = 0; i < pxf__num_pxf_types_dso; ++i) extensions[i] = pxf__type_list_dso[i].extension;
    return pxf__num_pxf_types_dso;
}

int PXF_getPluginNames(char **names) {
    if (!names) {
        say("NULL pointer passed\n");
        return 0;
    }
    if (!plugins_loaded(true)) return 0;
    for (int i = 0; i < pxf__num_pxf_types_dso; ++i) names[i] = dup_string(pxf__type_list_dso[i].name);
    return pxf__num_pxf_types_dso;
}

void PXF_getPluginNamesWithFilters(char *buffer) {
    if (!buffer) {
        say("NULL pointer passed!\n");
        return;
    }
    if (!plugins_loaded(false)) return;
    char *at = buffer;
    auto put = [&](const char *s) {
        std::size_t n = std::strlen(s);
        std::memcpy(at, s, n);
        at += n;
    };
    for (int i = 0; i < pxf__num_pxf_types_dso; ++i) {
        const PXF_TYPE &t = pxf__type_list_dso[i];
        std::size_t ext_len = t.extension ? std::strlen(t.extension) : 0;
        bool long_pattern = 1 + ext_len >= 25;
        put(t.name ? t.name : "");
        put(" (");
        if (long_pattern) put("all formats");
        else {
            put("*");
            put(t.extension ? t.extension : "");
        }
        put(")");
        *at++ = '\0';
        put("*");
        put(t.extension ? t.extension : "");
        *at++ = '\0';
    }
    *at = '\0';
}

void PXF_getOnlyExtensions(char *buffer) {
    if (!buffer) {
        say("NULL buffer passed in\n");
        return;
    }
    buffer[0] = '\0';
    if (!plugins_loaded(true)) return;
    for (int i = 0; i < pxf__num_pxf_types_dso; ++i) {
        std::strcat(buffer, "*");
        std::strcat(buffer, pxf__type_list_dso[i].extension ? pxf__type_list_dso[i].extension : "");
        std::strcat(buffer, ";");
    }
}

namespace {
// The lookups from one entry field to another.
int copy_field(const char *given, const char *complaint, char *out, PXF_TYPE *(*lookup)(const char *),
               const char *PXF_TYPE::*field) {
    if (!given) {
        say(complaint);
        return -1;
    }
    if (!plugins_loaded(false)) return -1;
    PXF_TYPE *entry = lookup(given);
    if (!entry || !out) return -1;
    const char *value = entry->*field;
    std::strcpy(out, value ? value : "");
    return 0;
}
PXF_TYPE *by_key(const char *key) { return plugin_by_key(key); }
PXF_TYPE *by_name(const char *name) { return plugin_named(name); }
}  // namespace

int PXF_getPluginNameFromKey(const char *key, char *name) {
    return copy_field(key, "NULL key passed in\n", name, by_key, &PXF_TYPE::name);
}

int PXF_getExtFromFormatKey(const char *key, char *ext) {
    return copy_field(key, "NULL key passed in\n", ext, by_key, &PXF_TYPE::extension);
}

int PXF_getKeyFromPluginName(const char *name, char *key) {
    return copy_field(name, "NULL pluginName passed in\n", key, by_name, &PXF_TYPE::key);
}

int PXF_getExtFromPluginName(const char *name, char *ext) {
    return copy_field(name, "NULL pluginName passed in\n", ext, by_name, &PXF_TYPE::extension);
}

int PXF_isMultiFrameFormat(const char *key) {
    if (!key) {
        say("NULL key passed in\n");
        return 0;
    }
    if (!plugins_loaded(true)) return 0;
    PXF_TYPE *entry = plugin_by_key(key);
    return entry && entry->multi_frame >= 2;
}

int PXF_hasWriteSupport(const char *key) {
    PXF_TYPE *r = key ? PXF_find(key) : nullptr;
    return r && (r->access & PXF_ACCESS_WRITE) ? 1 : 0;
}

int PXF_hasReadSupport(const char *key) {
    PXF_TYPE *r = key ? PXF_find(key) : nullptr;
    return r && (r->access & PXF_ACCESS_READ) ? 1 : 0;
}

const char *PXF_name_from_key(const char *key) {
    PXF_TYPE *r = PXF_find(key);
    if (!r) {
        report(kSetMessages, 902,
               "Unknown file type key (\"%s\") was specified; Ensure that the plug-in for this type is defined",
               key ? key : "");
        return key;
    }
    return r->name ? r->name : key;
}

int PXF_capabilities_available(PXF_TYPE *record) {
    if (!record || !record->caps_avail_update) return 0;
    return record->caps_avail_update(record);
}

int PXF_private_ui_popup(const char *key, void *arg) {
    PXF_TYPE *r = key ? PXF_find(key) : nullptr;
    return r && r->private_ui_popup ? r->private_ui_popup(arg) : 0;
}

int PXF_private_ui_popdown(const char *key, void *arg) {
    PXF_TYPE *r = key ? PXF_find(key) : nullptr;
    return r && r->private_ui_popdown ? r->private_ui_popdown(arg) : 0;
}

void PXF_symbols(void) {
    say("PXF_symbols: should not be called by the application\n");
    // Only the references matter: they keep these entry points in every link.
    static void *volatile keep[] = {reinterpret_cast<void *>(&DST_malloc), reinterpret_cast<void *>(&DST_free),
                                    reinterpret_cast<void *>(&PXF_mem_r_open),
                                    reinterpret_cast<void *>(&PXF_pipe_w_open),
                                    reinterpret_cast<void *>(&PXF_rla_r_open),
                                    reinterpret_cast<void *>(&PXF_rla_w_open),
                                    reinterpret_cast<void *>(&STR_define),
                                    reinterpret_cast<void *>(&STR_extension),
                                    reinterpret_cast<void *>(&STR_tail),
                                    reinterpret_cast<void *>(&PXF_mpc_r_open)};
    (void)keep;
}
