// Options that tune a format's compressor: they travel to the driver as
// settings after the method in info.compression ("deflate;level=9").
#include <string>
#include <vector>

#include "tool.h"

namespace pxftool {
namespace {

const std::string &value_of(const std::vector<std::string> &args, std::size_t &i) {
    if (i + 1 >= args.size()) throw UsageError(args[i] + " needs a value");
    return args[++i];
}

std::string one_of(const std::string &option, const std::string &value, const std::vector<std::string> &names) {
    for (const std::string &n : names)
        if (value == n) return value;
    std::string list;
    for (const std::string &n : names) list += (list.empty() ? "" : ", ") + n;
    throw UsageError(option + ": \"" + value + "\" is not one of " + list);
}

}  // namespace

bool parse_codec_option(const std::vector<std::string> &args, std::size_t &i, WriteOptions &options) {
    const std::string &a = args[i];
    if (a == "--predictor") {
        options.predictor = one_of(a, value_of(args, i), {"none", "horizontal", "float"});
    } else if (a == "--png-filter") {
        options.png_filter = one_of(a, value_of(args, i), {"none", "sub", "up", "average", "paeth", "adaptive"});
    } else if (a == "--level") {
        const std::string &v = value_of(args, i);
        if (v.size() != 1 || v[0] < '0' || v[0] > '9')
            throw UsageError(a + ": expected a whole number from 0 to 9, got \"" + v + "\"");
        options.level = v[0] - '0';
    } else {
        return false;
    }
    return true;
}

std::string compression_text(const WriteOptions &options) {
    std::string text = options.compression;
    if (text.find(';') != std::string::npos)
        throw UsageError("--compression: \"" + text + "\" is a method name; give settings with their own options");
    if (!options.predictor.empty()) text += ";predictor=" + options.predictor;
    if (options.level >= 0) text += ";level=" + std::to_string(options.level);
    if (!options.png_filter.empty()) text += ";filter=" + options.png_filter;
    return text;
}

}  // namespace pxftool
