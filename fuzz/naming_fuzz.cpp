// Name syntaxes and pathname building on arbitrary bytes: every call either
// succeeds with a bounded, terminated result or fails with a name-building
// code; the parsed tokens always cover the whole pattern.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <pxf/err.h>
#include <pxf/pxf.h>

namespace {

int quiet(const char *, int, const char *, ERR_DESCRIPTOR *, void *) { return 0; }

void check_tokens(const std::string &pattern) {
    PXF_NS_TOKEN *tokens = nullptr;
    int ok = PXF_parse_name_syntax(pattern.c_str(), &tokens, 0);
    int parse_error = pxf__err;
    int verified = PXF_name_syntax_verify(pattern.c_str());
    if (!ok) {
        if (parse_error != -10 && parse_error != -11 && parse_error != -14) std::abort();
        return;
    }
    // The checker and the parser accept the same patterns.
    if (!verified) std::abort();
    std::size_t covered = 0;
    PXF_NS_TOKEN *t = tokens;
    for (; t->kind != PXF_NS_END; ++t) {
        if (t->syntax_length <= 0) std::abort();
        covered += static_cast<std::size_t>(t->syntax_length);
    }
    if (covered != pattern.size()) std::abort();
    ERR_free(tokens);
}

void check_build(const char *syntax, const std::string &path, const char *key, const std::string &ext, int mode,
                 unsigned char flag, int frame) {
    char out[PXF_PATHNAME_MAX + 1], name[PXF_PATHNAME_MAX + 1];
    out[PXF_PATHNAME_MAX] = name[PXF_PATHNAME_MAX] = 'X';  // canaries past the documented size
    const char *key_out = nullptr;
    PXF_TYPE *record = nullptr;
    int ok = PXF_pathname_build(syntax, path.c_str(), key, ext.c_str(), mode, flag, &frame, out, name, &key_out,
                                &record);
    if (out[PXF_PATHNAME_MAX] != 'X' || name[PXF_PATHNAME_MAX] != 'X') std::abort();
    if (ok && (std::strlen(out) >= PXF_PATHNAME_MAX || std::strlen(name) >= PXF_PATHNAME_MAX)) std::abort();
    if (!ok && pxf__err != 0 && (pxf__err > -9 || pxf__err < -17)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool ready = [] {
        ERR_dcl_handler(nullptr, quiet, nullptr);
        return PXF_init(nullptr, nullptr) == 0;
    }();
    if (!ready || size < 2) return 0;
    int mode = data[0] % 4;
    unsigned char flag = data[0] & 0x80;
    int frame = static_cast<int8_t>(data[1]);
    // The rest: pattern NUL pathname NUL extension.
    std::string parts[3];
    int part = 0;
    for (size_t i = 2; i < size; ++i) {
        if (data[i] == 0 && part < 2) ++part;
        else parts[part] += static_cast<char>(data[i] ? data[i] : '_');
    }
    check_tokens(parts[0]);
    PXF_name_syntax_has_ext(parts[0].c_str());
    PXF_name_syntax_ends_ext(parts[0].c_str());
    PXF_name_syntax_has_frame(parts[0].c_str());
    check_build(parts[0].c_str(), parts[1], "mem", parts[2], mode, flag, frame);
    check_build(nullptr, parts[1], (data[0] & 1) ? "mem" : nullptr, parts[2], mode, flag, frame);
    return 0;
}
