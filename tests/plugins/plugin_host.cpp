#include "plugin_host.h"

#include <dirent.h>
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/core_test_util.h"
#include "support/elements.h"

namespace pxf::test {
namespace {

// exr and jpeg are built only when their libraries are installed.
const char *const kModules[] = {"png", "tiff", "exr", "jpeg"};
void *handles[4];

int enumerate(void **library, const char **name) {
    static int next = 0;
    if (next >= 4) return 0;
    *library = handles[next];
    *name = kModules[next++];
    return 1;
}

}  // namespace

void load_drivers() {
    static bool loaded = false;
    if (loaded) return;
    for (int i = 0; i < 4; ++i) {
        std::string path = std::string(PLUGIN_DIR) + "/" + kModules[i] + ".so";
        if (i >= 2 && access(path.c_str(), F_OK) != 0) continue;  // a null handle is skipped
        handles[i] = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(handles[i], nullptr) << dlerror();
    }
    ASSERT_EQ(PXF_init(nullptr, enumerate), 0);
    loaded = true;
}

Pixels::Pixels(int w, int h, int colours, int mattes, int auxes, int type, int bits, const Pattern &f)
    : width(w), height(h), chan{nullptr, colours, type, bits, 0}, matte{nullptr, mattes, type, bits, 0},
      aux{nullptr, auxes, type, bits, 0}, values(std::size_t(colours + mattes + auxes), std::vector<double>(w * h)) {
    for (std::size_t c = 0; c < values.size(); ++c)
        for (int i = 0; i < w * h; ++i) values[c][i] = f(int(c), i % w, i / w);
}

int Pixels::mismatches(const Pattern &f) const {
    int wrong = 0;
    for (std::size_t c = 0; c < values.size(); ++c)
        for (int i = 0; i < width * height; ++i) wrong += values[c][i] != f(int(c), i % width, i / width);
    return wrong;
}

bool read_image(const std::string &path, const char *key, Pixels &out) {
    Request request;
    PXF_IMAGE *image = request.set(key, path.c_str()).open("r");
    if (!image) return false;
    PXF_IMAGE_DESC &d = image->info.images[0];
    out.width = d.window.right - d.window.left + 1;
    out.height = d.window.top - d.window.bottom + 1;
    out.chan = d.chan, out.matte = d.matte, out.aux = d.aux;
    out.chan.format = out.matte.format = out.aux.format = nullptr;  // they go with the image
    out.gamma = d.curve.gamma;
    out.compression = image->info.compression ? image->info.compression : "";
    out.values.assign(std::size_t(d.chan.count + d.matte.count + d.aux.count), std::vector<double>(out.width * out.height));
    void **buffer = pxf__chan_alloc(&d, out.width, "test");
    bool ok = buffer != nullptr;
    for (int y = 0; ok && y < out.height; ++y) {
        void **rows = buffer;
        ok = PXF_scan_read(image, d.window.top - y, &rows) == 0;
        for (int c = 0; ok && c < int(out.values.size()); ++c)
            for (int x = 0; x < out.width; ++x) out.values[c][y * out.width + x] = element(rows[c], x, group_of(out, c));
    }
    pxf__chan_free(buffer);
    PXF_close(image);
    return ok;
}

bool write_image(const std::string &path, const char *key, const Pixels &in, void (*setup)(PXF_INFO &)) {
    PXF_IMAGE_DESC d = describe(in.width, in.height, 0, 8);
    d.curve.gamma = in.gamma > 0 ? in.gamma : 2.2f;
    d.chan = in.chan, d.matte = in.matte, d.aux = in.aux;
    Request request;
    request.set(key, path.c_str(), &d);
    if (setup) setup(request.info);
    PXF_IMAGE *image = request.open("w");
    if (!image) return false;
    void **buffer = pxf__chan_alloc(&d, in.width, "test");
    bool ok = buffer != nullptr;
    for (int y = 0; ok && y < in.height; ++y) {
        for (int c = 0; c < int(in.values.size()); ++c)
            for (int x = 0; x < in.width; ++x) element(buffer[c], x, group_of(in, c), &in.values[c][y * in.width + x]);
        void **rows = buffer;
        ok = PXF_scan_write(image, in.height - 1 - y, &rows) == 0;
    }
    pxf__chan_free(buffer);
    return PXF_close(image) == 0 && ok;
}

void expect_damage_reported(const std::string &path, const char *key, const std::vector<std::string> &files) {
    for (std::size_t i = 0; i < files.size(); ++i) {
        SCOPED_TRACE("damaged file " + std::to_string(i));
        write_file(path, files[i]);
        ReportCapture reports;
        Pixels p;
        EXPECT_FALSE(read_image(path, key, p));
        ASSERT_FALSE(reports.reports().empty());
        EXPECT_NE(reports.reports().front().text.find(path), std::string::npos) << reports.reports().front().text;
    }
}

void expect_writes_replace_whole_files(TempDir &dir, const char *key, const char *ext, const Pixels &in) {
    const std::string target = dir.file(std::string("target.") + ext), link = dir.file(std::string("link.") + ext);
    write_file(target, "old");
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
    ASSERT_TRUE(write_image(link, key, in));
    struct stat st;
    ASSERT_EQ(lstat(link.c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    EXPECT_NE(read_file(target), "old");
    Pixels back;
    EXPECT_TRUE(read_image(target, key, back));
    ASSERT_TRUE(write_image("/dev/null", key, in));
    ASSERT_EQ(stat("/dev/null", &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    DIR *d = opendir(dir.path().c_str());
    ASSERT_NE(d, nullptr);
    int entries = 0;
    while (const dirent *e = readdir(d)) entries += e->d_name[0] != '.';
    closedir(d);
    EXPECT_EQ(entries, 2) << "only the target and the link";
}

}  // namespace pxf::test
