// The configuration file reader: one file per process, read once, kept as a
// list of tokenised lines that every defaults reader walks from the start.
#include <pxf/cfg.h>

#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <pxf/dst.h>

#include "config/cfg_internal.h"
#include "foundation/alloc.h"

char *cfg_filename = nullptr;
nl_catd cfg__msg_cat = nullptr;

namespace {

constexpr const char *kFileName = ".pxfrc";
// The install root keeps a trailing slash, so the site path has a double
// slash behind it; that is the path we try and show.
constexpr const char *kInstallRoot = PXF_INSTALL_ROOT "/";
// Line buffer: at most 254 characters and the terminator.
constexpr int kLineLimit = 255;

struct Record {
    Record *next;
    char *text;  // private copy; the tokens point into it
    CFG_LINE view;
};

DST_LL lines{};
bool initialised = false;
bool out_of_memory = false;  // the last CFG_init failed for lack of memory

void set_filename(char *path) {
    pxf::heap_free(cfg_filename);
    cfg_filename = path;
}

// Forms "format" with two strings into a fresh heap block and records it as
// the path tried last.  False when the copy could not be made.
bool try_path(const char *format, const char *dir, std::FILE **file) {
    int length = std::snprintf(nullptr, 0, format, dir, kFileName);
    if (length < 0) return false;
    char *path = static_cast<char *>(pxf::heap_alloc(static_cast<size_t>(length) + 1));
    if (!path) {
        pxf::cfg::report_no_memory();
        return false;
    }
    std::snprintf(path, static_cast<size_t>(length) + 1, format, dir, kFileName);
    set_filename(path);
    *file = std::fopen(path, "r");
    return true;
}

// The file to read, or null; *failed when memory ran out on the way.
std::FILE *open_file(bool *failed) {
    std::FILE *file = nullptr;
    *failed = false;
    if (const char *home = std::getenv("HOME")) {
        if (!try_path("%s/%s", home, &file)) return *failed = true, nullptr;
        if (file) return file;
    }
    if (const char *root = std::getenv("QV_ROOT")) {
        if (!try_path("%s/userconfig/%s", root, &file)) return *failed = true, nullptr;
        if (file) return file;
    }
    if (!try_path("%s/userconfig/%s", kInstallRoot, &file)) return *failed = true, nullptr;
    return file;
}

int read_lines(std::FILE *file) {
    char buffer[kLineLimit];
    for (;;) {
        // Read as fgets would, but count the bytes so that a NUL inside the
        // line does not hide where it ends.
        size_t read = 0;
        int c = 0;
        while (read < kLineLimit - 1 && (c = std::getc(file)) != EOF) {
            buffer[read++] = static_cast<char>(c);
            if (c == '\n') break;
        }
        if (read == 0) break;
        // The last character read goes, whatever it is: normally the newline.
        buffer[read - 1] = '\0';
        size_t length = std::strlen(buffer);

        auto *record = static_cast<Record *>(ERR_malloc(sizeof(Record)));
        if (!record) {
            std::fclose(file);
            CFG_exit();
            return -1;
        }
        record->next = nullptr;
        record->text = static_cast<char *>(pxf::heap_alloc(length + 1));
        if (!record->text) {
            pxf::cfg::report_no_memory();
            ERR_free(record);
            std::fclose(file);
            CFG_exit();
            return -1;
        }
        std::memcpy(record->text, buffer, length + 1);
        // Two slots fewer than the record holds: CFG_lex may store max + 1
        // tokens and the terminator.
        record->view.count = CFG_lex(CFG_MAX_TOKENS - 2, record->text, record->view.tokens);
        DST_ll_addt(&lines, record);
    }
    std::fclose(file);
    DST_ll_initl(&lines);
    return 0;
}

}  // namespace

extern "C" {

int CFG_init(nl_catd catalog) {
    cfg__msg_cat = catalog;
    out_of_memory = false;
    if (initialised) {
        DST_ll_initl(&lines);
        return 0;
    }
    std::FILE *file = open_file(&out_of_memory);
    if (out_of_memory) return -1;
    DST_ll_init(&lines);
    initialised = true;
    if (!file) return -1;
    if (read_lines(file) == 0) return 0;
    out_of_memory = true;
    return -1;
}

CFG_LINE *CFG_info(void) {
    auto *record = static_cast<Record *>(DST_ll_nextl(&lines));
    return record ? &record->view : nullptr;
}

int CFG_exit(void) {
    if (!initialised) return 0;
    while (auto *record = static_cast<Record *>(DST_ll_remh(&lines))) {
        pxf::heap_free(record->text);
        ERR_free(record);
    }
    DST_ll_init(&lines);
    initialised = false;
    // Cleared rather than left dangling once freed.
    set_filename(nullptr);
    return 0;
}

int CFG_lex(int max, char *line, char **tokens) {
    int count = 0;
    char *at = line;
    for (;;) {
        while (*at && std::isspace(static_cast<unsigned char>(*at))) ++at;
        if (count > max) break;
        char c = *at;
        if (c == '"' || c == '\'' || c == 27) {
            tokens[count++] = ++at;
            char *close = std::strchr(at, c);
            if (!close) break;  // an unterminated quote takes the rest of the line
            *close = '\0';
            at = close + 1;
            continue;
        }
        if (!c) break;
        tokens[count++] = at;
        while (std::isgraph(static_cast<unsigned char>(*at))) ++at;
        if (!*at) break;
        *at++ = '\0';
    }
    tokens[count] = nullptr;
    return count;
}

}  // extern "C"

namespace pxf::cfg {

bool open_lines(nl_catd catalog) noexcept { return CFG_init(catalog) == 0 || !out_of_memory; }

char *save_string(const char *text) noexcept {
    size_t length = std::strlen(text) + 1;
    char *copy = static_cast<char *>(heap_alloc(length));
    if (!copy) {
        report_no_memory();
        return nullptr;
    }
    std::memcpy(copy, text, length);
    return copy;
}

int to_int(const char *text) noexcept {
    long value = std::strtol(text, nullptr, 10);
    if (value > INT_MAX) return INT_MAX;
    if (value < INT_MIN) return INT_MIN;
    return static_cast<int>(value);
}

}  // namespace pxf::cfg
