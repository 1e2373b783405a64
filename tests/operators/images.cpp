#include "images.h"

#include <cstdlib>

namespace pxf::test {
namespace {

struct Synthetic {
    PXF_IMAGE_DESC desc;  // as opened
    void **rows;
};

int width_of(const PXF_IMAGE_DESC &d) { return d.window.right - d.window.left + 1; }

int read_scan(void *data, int line, void ***rows, void **) {
    auto *s = static_cast<Synthetic *>(data);
    ++scan_count;
    if (line < s->desc.window.bottom || line > s->desc.window.top) return -2;
    int c = 0;
    for (const PXF_CHAN_GROUP *g : {&s->desc.chan, &s->desc.matte, &s->desc.aux})
        for (int end = c + g->count; c < end; ++c)
            for (int x = 0, w = width_of(s->desc); x < w; ++x) {
                void *row = s->rows[c];
                uint32_t v = integer_pixel(line, x, c, g->width);
                if (g->type == PXF_C_FLOAT) static_cast<float *>(row)[x] = float_pixel(line, x, c);
                else if (g->width <= 8) static_cast<uint8_t *>(row)[x] = uint8_t(v);
                else if (g->width <= 16) static_cast<uint16_t *>(row)[x] = uint16_t(v);
                else static_cast<uint32_t *>(row)[x] = v;
            }
    *rows = s->rows;
    return 0;
}

int write_scan(void *data, int line, void ***rows, void **) {
    auto *s = static_cast<Synthetic *>(data);
    std::vector<uint8_t> &bytes = written_lines[line] = {};
    for (int c = 0; c < s->desc.chan.count; ++c) {
        auto *row = static_cast<const uint8_t *>((*rows)[c]);
        bytes.insert(bytes.end(), row, row + width_of(s->desc));
    }
    return 0;
}

int close_image(PXF_IMAGE *image) {
    event_log.push_back("close");
    auto *s = static_cast<Synthetic *>(image->private_data[0]);
    pxf__chan_free(s->rows);
    delete s;
    image->private_data[0] = nullptr;
    return pxf__free_obj(image) ? 0 : -1;
}

}  // namespace

PXF_IMAGE_DESC synthetic_desc(int width, int height, int channels, int type, int bits, int mattes, int aux) {
    PXF_IMAGE_DESC d;
    std::memset(&d, 0, sizeof d);
    d.curve = {PXF_CURVE_GAMMA, 1.0f, nullptr, 1, 256, PXF_C_INTEGER, 12, nullptr};
    d.aspect_ratio = 1.0f;
    d.window = {0, width - 1, 0, height - 1};
    d.active_window = d.window;
    d.chan = {nullptr, channels, type, bits, 0};
    d.matte = {nullptr, mattes, type, bits, 0};
    d.aux = {nullptr, aux, type, bits, 0};
    d.index = {nullptr, 0, PXF_C_INTEGER, 16, 0};
    return d;
}

uint32_t integer_pixel(int line, int x, int c, int bits) {
    uint64_t v = uint64_t(line) * 977u + uint64_t(x) * 131u + uint64_t(c) * 53u;
    return bits >= 32 ? uint32_t(v * 2654435761u) : uint32_t(v % (uint64_t{1} << bits));
}

float float_pixel(int line, int x, int c) { return float((line * 37 + x * 11 + c * 5) % 101) / 100.0f; }

PXF_IMAGE *synthetic_image(const PXF_IMAGE_DESC &desc, int mode) {
    auto *image = static_cast<PXF_IMAGE *>(std::malloc(sizeof(PXF_IMAGE)));
    pxf__init_obj(image, mode);
    image->info.num_images = 1;
    image->info.images = static_cast<PXF_IMAGE_DESC *>(std::malloc(sizeof(PXF_IMAGE_DESC)));
    image->info.images[0] = desc;
    PXF_IMAGE_DESC shape = desc;
    image->private_data = static_cast<void **>(std::malloc(sizeof(void *)));
    image->private_data[0] = new Synthetic{desc, pxf__chan_alloc(&shape, width_of(desc), "synthetic")};
    image->scan = mode == PXF_MODE_READ ? read_scan : write_scan;
    image->close = close_image;
    return image;
}

PXF_IMAGE *open_mem(const std::string &name, PXF_IMAGE_DESC *desc, const std::function<uint8_t(int, int, int)> &value,
                    const std::function<void(PXF_INFO &)> &adjust) {
    PXF_INFO info;
    PXF_info_init(&info);
    info.key = const_cast<char *>("mem");
    info.handle = const_cast<char *>(name.c_str());
    info.num_images = desc ? 1 : 0;
    info.images = desc;
    if (adjust) adjust(info);
    PXF_IMAGE *image = PXF_open(&info, desc ? "w" : "r");
    if (!image || !desc) return image;
    int width = width_of(*desc);
    void **rows = pxf__chan_alloc(desc, width, "test");
    for (int line = desc->window.bottom; line <= desc->window.top; ++line) {
        for (int c = 0; c < desc->chan.count; ++c)
            for (int x = 0; x < width; ++x) static_cast<uint8_t *>(rows[c])[x] = value(line, x, c);
        void **given = rows;
        EXPECT_EQ(PXF_scan_write(image, line, &given), 0);
    }
    pxf__chan_free(rows);
    return image;
}

void expect_clean_failures(PXF_IMAGE *image, const std::function<void()> &install, int (*remove)(PXF_IMAGE *),
                           int error) {
    PXF_IMAGE_DESC before = image->info.images[0];
    void *driver = image->private_data[0];
    FMT_def_gamma_tab_res();  // the defaults are read before, not during, the loop
    ReportCapture capture;
    for_each_allocation_failure(
        [&] {
            install();
            return image->private_data[0] != driver && remove(image) == 1;
        },
        [&](int) {
            EXPECT_EQ(image->private_data[0], driver);
            EXPECT_EQ(std::memcmp(&image->info.images[0], &before, sizeof before), 0);
            if (error) {
                EXPECT_EQ(pxf__err, error);
            }
        });
}

}  // namespace pxf::test
