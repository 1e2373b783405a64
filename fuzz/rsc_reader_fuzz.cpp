// Resource-file reader: any bytes on disk either open cleanly or are refused
// with a report.  A file that opens lists and reads every resource, and once
// rewritten it must open again with the same resources.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <pxf/err.h>
#include <pxf/rsc.h>

namespace {

std::string path;
FILE *null_out;

int quiet(const char *, int, const char *, ERR_DESCRIPTOR *, void *) { return 0; }

struct Item {
    std::string type, name, data;
};

// Every live resource of the current file, in list order.
std::vector<Item> read_all() {
    std::vector<Item> items;
    int n_types = RSC_type_countc();
    if (n_types < 0) std::abort();
    std::vector<RSC_TYPE> types(static_cast<std::size_t>(n_types) + 1);
    if (RSC_type_listc(types.data(), n_types) != n_types) std::abort();
    for (int t = 0; t < n_types; ++t) {
        const char *type = types[t].code;
        int n = RSC_rsrc_countc(type);
        if (n <= 0) std::abort();  // listed types have resources
        std::vector<const char *> names(static_cast<std::size_t>(n));
        if (RSC_rsrc_listc(type, names.data(), n) != n) std::abort();
        for (const char *name : names) {
            uint32_t size = 0;
            void *data = RSC_rsrc_getc(type, name, &size);
            // Data lies inside the file, so reading it can only fail on I/O.
            if (!data) std::abort();
            items.push_back({type, name, std::string(static_cast<char *>(data), size)});
            RSC_rsrc_freec(type, name);
        }
    }
    return items;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    ERR_dcl_handler(nullptr, quiet, nullptr);
    char name[] = "/tmp/rsc-fuzz-XXXXXX";
    int fd = mkstemp(name);
    if (fd < 0) std::abort();
    close(fd);
    path = name;
    null_out = std::fopen("/dev/null", "w");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, std::size_t size) {
    FILE *f = std::fopen(path.c_str(), "wb");
    if (!f) std::abort();
    if (size) std::fwrite(bytes, 1, size, f);
    std::fclose(f);

    if (RSC_file_open(path.c_str())) {
        std::vector<Item> before = read_all();
        RSC_file_status(nullptr, null_out);
        bool rewrite = !before.empty() && RSC_rsrc_markc(before[0].type.c_str(), before[0].name.c_str());
        if (!RSC_file_close(nullptr)) std::abort();
        if (rewrite) {
            if (!RSC_file_open(path.c_str())) std::abort();
            std::vector<Item> after = read_all();
            if (after.size() != before.size()) std::abort();
            for (std::size_t i = 0; i < after.size(); ++i)
                if (after[i].type != before[i].type || after[i].name != before[i].name ||
                    after[i].data != before[i].data)
                    std::abort();
            RSC_file_close(nullptr);
        }
    }
    RSC_exit();
    return 0;
}
