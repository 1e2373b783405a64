// Command-line conventions around the subcommands' own parsers: the
// arguments are rewritten into the one form those parsers read, so that
// every option, present or future, accepts the usual spellings.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tool.h"

namespace pxftool {
namespace {

GlobalOptions global;

// Short forms of the common flags and the long option each stands for.
struct Short {
    char letter;
    const char *long_form;
    bool takes_value;
};
constexpr Short kShortForms[] = {
    {'q', "--quiet", false},  // taken by the command as a whole, like --verbose
    {'v', "--verbose", false},
    {'j', "--jobs", true},
    {'h', "--help", false},
};

const Short *short_form(char letter) {
    for (const Short &s : kShortForms)
        if (s.letter == letter) return &s;
    return nullptr;
}

}  // namespace

const GlobalOptions &global_options() { return global; }

std::vector<std::string> normalise_arguments(const std::vector<std::string> &args) {
    std::vector<std::string> out;
    bool options_ended = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        if (options_ended) {
            // Names that start with '-' get "./" so that no parser takes them for options.
            out.push_back(a.size() > 1 && a[0] == '-' ? "./" + a : a);
            continue;
        }
        if (a == "-" || a.size() < 2 || a[0] != '-') {
            out.push_back(a);
            continue;
        }
        if (a == "--") {
            options_ended = true;
            continue;
        }
        if (a[1] == '-') {
            // --opt=value is --opt value.
            std::size_t eq = a.find('=');
            std::string name = eq == std::string::npos ? a : a.substr(0, eq);
            if (name == "--quiet") global.quiet = true;
            else if (name == "--verbose") global.verbose = true;
            if (name == "--quiet" || name == "--verbose") {
                if (eq != std::string::npos) throw UsageError(name + " takes no value");
                continue;
            }
            out.push_back(name);
            if (eq != std::string::npos) out.push_back(a.substr(eq + 1));
            continue;
        }
        // Bundled short flags (-qv) and short options with their value
        // attached (-j4) or following (-j 4).
        for (std::size_t k = 1; k < a.size(); ++k) {
            const Short *s = short_form(a[k]);
            if (!s) throw UsageError("unknown option -" + std::string(1, a[k]) + (a.size() > 2 ? " in " + a : ""));
            if (s->letter == 'q' || s->letter == 'v') {
                (s->letter == 'q' ? global.quiet : global.verbose) = true;
                continue;
            }
            out.push_back(s->long_form);
            if (s->takes_value) {
                if (k + 1 < a.size()) out.push_back(a.substr(k + (a[k + 1] == '=' ? 2 : 1)));
                else if (i + 1 < args.size()) out.push_back(args[++i]);
                else throw UsageError(std::string(s->long_form) + " needs a value");
                break;
            }
        }
    }
    return out;
}

bool wants_help(const std::vector<std::string> &args) {
    for (const std::string &a : args)
        if (a == "--help" || a == "-h") return true;
    return false;
}

std::string next_value(const std::vector<std::string> &args, std::size_t &i) {
    if (i + 1 >= args.size()) throw UsageError(args[i] + " needs a value");
    return args[++i];
}

long parse_integer(const std::string &text, const std::string &option, long low, long high) {
    char *end = nullptr;
    errno = 0;
    long v = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end || errno || v < low || v > high)
        throw UsageError(option + ": expected a whole number from " + std::to_string(low) + " to " +
                         std::to_string(high) + ", got \"" + text + "\"");
    return v;
}

}  // namespace pxftool
