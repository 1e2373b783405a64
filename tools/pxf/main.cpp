// pxf: look at, convert and make image files through the library's drivers.
#include <pxf/utl.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <new>

#include <pxf/plugin.h>

#include "tool.h"

namespace {

const char *kHelp =
    "usage: pxf COMMAND [options]\n"
    "\n"
    "Commands:\n"
    "  formats            list the image formats that are available\n"
    "  info FILE...       describe image files (--json for scripts)\n"
    "  convert IN OUT     convert an image, or a frame sequence, to another format\n"
    "  make-sample OUT    write the built-in sample image\n"
    "  mipmap IN OUT.rla  write a mipmapped texture (every level in one file)\n"
    "  swatch IN OUT      write a small preview (--size N)\n"
    "  palette IN [OUT]   describe a palette file, or convert it (.gpl, .pal, .lut)\n"
    "\n"
    "'pxf COMMAND --help' shows the options of a command.  Format plug-ins are\n"
    "loaded from the directories of PXF_PLUGIN_PATH (separated by ':').\n"
    "Exit status: 0 done, 1 bad input or failed I/O, 2 bad command line.\n"
    "\n"
    "  --version          the versions of pxf and of the library\n"
    "  --man              print the manual page (troff)\n"
    "  --completion bash  print the bash completion script\n";

// Ctrl-C or a kill: remove the temporary files of unfinished outputs, then
// end the way the signal would have.
extern "C" void interrupted(int signal) {
    UTL_tmp_cleanup();
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

int run(int argc, char **argv);

}  // namespace

int main(int argc, char **argv) {
    struct sigaction on_signal = {};
    on_signal.sa_handler = interrupted;
    sigemptyset(&on_signal.sa_mask);
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &on_signal, nullptr);
    // Nothing may end in abort: however early memory runs out, one line and 1.
    try {
        return run(argc, argv);
    } catch (const std::bad_alloc &) {
        std::fputs("pxf: out of memory\n", stderr);
    } catch (...) {
        std::fputs("pxf: unexpected failure\n", stderr);
    }
    return pxftool::kExitFailed;
}

namespace {

int run(int argc, char **argv) {
    using namespace pxftool;
    std::vector<std::string> args;
    try {
        args = normalise_arguments(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const UsageError &e) {
        std::fprintf(stderr, "pxf: %s\n", e.what());
        return kExitUsage;
    }
    if (args.empty()) {
        std::fputs(kHelp, stderr);
        return kExitUsage;
    }
    std::string command = args.front();
    args.erase(args.begin());
    if (command == "--help" || command == "-h" || command == "help") {
        std::fputs(kHelp, stdout);
        return kExitOk;
    }
    try {
        if (command == "--man") return print_manual(kHelp);
        if (command == "--completion") {
            if (args.size() != 1 || args[0] != "bash") throw UsageError("--completion: only bash is offered");
            return print_completion();
        }
    } catch (const std::exception &e) {
        std::fprintf(stderr, "pxf: %s\n", e.what());
        return kExitUsage;
    }
    if (command == "--version" || command == "-V") {
        // The headers the command was built with, then the library it runs with.
        std::printf("pxf %d.%d.%d (libPXFbase %s, plug-in protocol %s)\n", PXF_VERSION_MAJOR, PXF_VERSION_MINOR,
                    PXF_VERSION_PATCH, PXF_version(), PXF_PLUGIN_PROTOCOL);
        return kExitOk;
    }
    try {
        int (*run)(const std::vector<std::string> &) = nullptr;
        if (command == "formats") run = run_formats;
        else if (command == "info") run = run_info;
        else if (command == "convert") run = run_convert;
        else if (command == "make-sample") run = run_make_sample;
        else if (command == "mipmap") run = run_mipmap;
        else if (command == "swatch") run = run_swatch;
        else if (command == "palette") run = run_palette;
        else throw UsageError("unknown command \"" + command + "\" (see pxf --help)");
        capture_reports();
        load_plugins(argv[0]);
        int status = run(args);
        std::fflush(stdout);
        return status;
    } catch (const UsageError &e) {
        std::fprintf(stderr, "pxf: %s\n", e.what());
        return kExitUsage;
    } catch (const Failure &e) {
        std::fflush(stdout);
        std::fprintf(stderr, "pxf: %s\n", e.what());
        return kExitFailed;
    } catch (const std::bad_alloc &) {
        std::fflush(stdout);
        std::fputs("pxf: out of memory\n", stderr);
        return kExitFailed;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "pxf: %s\n", e.what());
        return kExitFailed;
    }
}

}  // namespace
