// The manual page and the bash completion, both made from the help texts
// the subcommands print, so that every option documented there (present
// or future) appears in them without a second list to keep.
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <set>

#include "tool.h"

namespace pxftool {
namespace {

const char *const kCommands[] = {"formats", "info", "convert", "make-sample"};

// What `pxf ARGS` prints: the help texts come from the program itself.
std::string run_self(const std::string &args) {
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) throw Failure("cannot find the pxf program");
    self[n] = '\0';
    std::string command = "'" + std::string(self) + "' " + args + " 2>/dev/null";
    FILE *p = popen(command.c_str(), "r");
    if (!p) throw Failure("cannot run " + command);
    std::string out;
    char buffer[4096];
    for (std::size_t got; (got = std::fread(buffer, 1, sizeof buffer, p)) > 0;) out.append(buffer, got);
    pclose(p);
    return out;
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::size_t start = 0;
    for (std::size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1)
        lines.push_back(text.substr(start, nl - start));
    if (start < text.size()) lines.push_back(text.substr(start));
    return lines;
}

std::string roff(const std::string &text) {
    std::string out;
    for (char c : text) {
        if (c == '\\') out += "\\e";
        else if (c == '-') out += "\\-";
        else out += c;
    }
    if (!out.empty() && (out[0] == '.' || out[0] == '\'')) out = "\\&" + out;
    return out;
}

std::string trim(const std::string &s) {
    std::size_t a = s.find_first_not_of(' ');
    return a == std::string::npos ? "" : s.substr(a);
}

// One help text as man sections: option lines ("  --opt ARG   text") become
// tagged paragraphs, the rest running text.
void print_help(const std::string &help) {
    bool in_option = false;
    for (const std::string &line : lines_of(help)) {
        if (line.compare(0, 7, "usage: ") == 0) {
            std::printf(".PP\n.B %s\n.PP\n", roff(line.substr(7)).c_str());
            continue;
        }
        if (trim(line).empty()) {
            std::printf(".PP\n");
            in_option = false;
            continue;
        }
        std::string body = trim(line);
        std::size_t indent = line.size() - body.size();
        if (indent >= 2 && body[0] == '-' && indent < 6) {
            std::size_t gap = body.find("  ");
            std::printf(".TP\n.B %s\n%s\n", roff(body.substr(0, gap)).c_str(),
                        gap == std::string::npos ? "" : roff(trim(body.substr(gap))).c_str());
            in_option = true;
        } else {
            std::printf("%s\n", roff(in_option ? body : body).c_str());
        }
    }
}

// The long options a help text lists.
std::set<std::string> options_of(const std::string &help) {
    std::set<std::string> options;
    for (const std::string &line : lines_of(help)) {
        std::string body = trim(line);
        if (body.size() < 3 || body.compare(0, 2, "--") != 0) continue;
        std::size_t end = body.find_first_of(" ,=");
        options.insert(body.substr(0, end));
    }
    options.insert("--help");
    return options;
}

}  // namespace

int print_manual(const std::string &main_help) {
    std::printf(".TH PXF 1 \"\" \"pxf %d.%d.%d\" \"User Commands\"\n", PXF_VERSION_MAJOR, PXF_VERSION_MINOR,
                PXF_VERSION_PATCH);
    std::printf(".SH NAME\npxf \\- look at, convert and make image files\n.SH SYNOPSIS\n");
    print_help(main_help);
    std::printf(".SH COMMON OPTIONS\n.TP\n.B \\-q, \\-\\-quiet\nno progress bar and no notes\n"
                ".TP\n.B \\-v, \\-\\-verbose\nsay which plug-ins are loaded and which files are written\n"
                ".TP\n.B \\-\\-version\nthe version of pxf and of the library\n"
                ".TP\n.B \\-\\-opt=value\nevery option also takes its value after '='\n"
                ".TP\n.B \\-\\-\nthe arguments after it are file names\n");
    std::printf(".SH COMMANDS\n");
    for (const char *command : kCommands) {
        std::printf(".SS %s\n", command);
        print_help(run_self(std::string(command) + " --help"));
    }
    std::printf(".SH ENVIRONMENT\n.TP\n.B PXF_PLUGIN_PATH\ndirectories of format plug-ins, separated by ':'\n");
    return kExitOk;
}

int print_completion() {
    std::printf("# bash completion for pxf (made by: pxf --completion bash)\n");
    std::printf("_pxf() {\n  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]} cmd=\"\" w\n");
    std::printf("  for w in \"${COMP_WORDS[@]:1:COMP_CWORD-1}\"; do case $w in -*) ;; *) cmd=$w; break;; esac; done\n");
    std::printf("  if [ \"$prev\" = --key ]; then\n"
                "    COMPREPLY=($(compgen -W \"$(pxf formats 2>/dev/null | awk 'NR > 1 && $1 != \"mem\" {print $1}')\" -- \"$cur\"))\n"
                "    return\n  fi\n");
    std::printf("  case $cmd in\n");
    std::printf("  \"\") COMPREPLY=($(compgen -W \"");
    for (const char *command : kCommands) std::printf("%s ", command);
    std::printf("--help --version --quiet --verbose\" -- \"$cur\")); return;;\n");
    for (const char *command : kCommands) {
        std::printf("  %s) local opts=\"", command);
        for (const std::string &o : options_of(run_self(std::string(command) + " --help"))) std::printf("%s ", o.c_str());
        std::printf("--quiet --verbose\";;\n");
    }
    std::printf("  *) return;;\n  esac\n");
    std::printf("  if [[ $cur == -* ]]; then COMPREPLY=($(compgen -W \"$opts\" -- \"$cur\")); "
                "else COMPREPLY=($(compgen -f -- \"$cur\")); fi\n}\ncomplete -o filenames -F _pxf pxf\n");
    return kExitOk;
}

}  // namespace pxftool
