// The description's texts of a written file: --attrib NAME=VALUE, --strip,
// and the user and host names, which go into a file only with --stamp.
#include <cstring>

#include "tool.h"

namespace pxftool {
namespace {

struct TextField {
    const char *name;
    const char *alias;
    char *PXF_INFO::*field;
};
constexpr TextField kFields[] = {
    {"name", nullptr, &PXF_INFO::name},       {"description", "desc", &PXF_INFO::desc},
    {"program", nullptr, &PXF_INFO::program}, {"machine", "host", &PXF_INFO::machine},
    {"user", nullptr, &PXF_INFO::user},       {"date", nullptr, &PXF_INFO::date},
    {"text_a", nullptr, &PXF_INFO::text_a},   {"text_b", nullptr, &PXF_INFO::text_b},
};

const TextField *field_named(const std::string &name) {
    for (const TextField &f : kFields)
        if (name == f.name || (f.alias && name == f.alias)) return &f;
    return nullptr;
}

char empty_text[] = "";

}  // namespace

void add_attribute(TextOptions &texts, const std::string &assignment) {
    std::size_t eq = assignment.find('=');
    std::string name = assignment.substr(0, eq);
    if (eq == std::string::npos || !field_named(name)) {
        std::string names;
        for (const TextField &f : kFields) names += (names.empty() ? "" : ", ") + std::string(f.name);
        throw UsageError("--attrib: expected NAME=VALUE with NAME one of " + names + "; got \"" + assignment + "\"");
    }
    texts.set.emplace_back(name, assignment.substr(eq + 1));
}

void apply_texts(PXF_INFO &info, const TextOptions &texts) {
    if (texts.strip)
        for (const TextField &f : kFields) info.*f.field = empty_text;
    // Left null, the library would fill in this user and this host: only on request.
    for (char *PXF_INFO::*f : {&PXF_INFO::user, &PXF_INFO::machine}) {
        if (texts.stamp) info.*f = nullptr;
        else if (!(info.*f)) info.*f = empty_text;
    }
    for (const auto &[name, value] : texts.set) info.*field_named(name)->field = const_cast<char *>(value.c_str());
}

}  // namespace pxftool
