// The stacking protocol: pull order, removal only from the top, closing
// outside in, the missing-record report, and the raster stage.
#include "images.h"
#include "operators/chain.h"

namespace {

using namespace pxf::test;

constexpr int W = 40, H = 4;

// A stage of the tests' own: passes scans on and, when closed, logs what the
// description says at that moment.
struct Probe {
    PXF_OPERATOR head;
    char name;
};

int probe_scan(void *data, int line, void ***rows, void **table) {
    auto *p = static_cast<Probe *>(data);
    return p->head.saved_scan(p->head.saved_private, line, rows, table);
}

int probe_close(PXF_IMAGE *image) {
    auto *p = static_cast<Probe *>(image->private_data[0]);
    const PXF_CHAN_GROUP &g = image->info.images[0].chan;
    event_log.push_back(p->name + std::string(g.type == PXF_C_FLOAT ? " float" : " int") + std::to_string(g.width));
    pxf::ops::pop(image, &p->head);
    delete p;
    return PXF_close_do_it(image);
}

void probe(PXF_IMAGE *image, char name) {
    pxf::ops::push(image, &(new Probe{{}, name})->head, 3, probe_scan, probe_close);
}

TEST(Chain, ThreeStagesConvertInOrderAndCloseOutsideIn) {
    PXF_IMAGE *image = synthetic_image(synthetic_desc(W, H, 3, PXF_C_INTEGER, 8), PXF_MODE_READ);
    PXF_RESPONSE_CURVE wanted{PXF_CURVE_GAMMA, 2.2f, nullptr, 0, 0, 0, 0, nullptr};
    const PXF_CHAN_TYPE bytes[3] = {{PXF_C_INTEGER, 8}, {0, 0}, {0, 0}};
    probe(image, 'A');
    PXF__gamma(image, &wanted);
    probe(image, 'B');
    PXF__cast(image);
    probe(image, 'C');
    PXF__quantize(image, bytes);

    // The driver's bytes through the gamma table, to floats and back to bytes.
    expect_rows<uint8_t>(image, 3, [](int l, int x, int c) {
        return uint8_t(std::pow(integer_pixel(l, x, c, 8) / 255.0, double(1.0f / 2.2f)) * 255 + 0.5);
    });
    // Only the top stage comes off.
    EXPECT_EQ(PXF__cast_done(image) + PXF__gamma_done(image), 0);

    event_log.clear();
    EXPECT_EQ(PXF_close(image), 0);
    // Quantize came off first (C still sees the cast's floats), then cast,
    // then gamma, then the driver closed.
    EXPECT_EQ(event_log, (std::vector<std::string>{"C float32", "B int8", "A int8", "close"}));
}

TEST(Chain, MissingRecordsAndInnerFailures) {
    PXF_IMAGE *image = synthetic_image(synthetic_desc(W, H, 1, PXF_C_INTEGER, 8), PXF_MODE_READ);
    PXF__cast(image);
    ReportCapture capture;
    void **rows = nullptr;
    EXPECT_EQ(image->scan(nullptr, 0, &rows, image->private_data), -1);
    EXPECT_EQ(capture.last(), "Cannot access sub image (attempted to access a locked sub image)");
    EXPECT_EQ(capture.reports().at(0).severity, 2);
    EXPECT_EQ(PXF_scan_read(image, H + 5, &rows), -2);  // the driver's status, untouched rows
    EXPECT_EQ(rows, nullptr);
    PXF_close(image);
}

int driver_close(PXF_IMAGE *image) {
    pxf__free_obj(image);
    return 0;
}

// With nothing stacked, the driver's record is on top.  Here it is a lone int
// that holds the operator's own tag: a remove function that trusted the tag
// would read an operator record past its end and free what it found there.
TEST(Chain, RemoveFunctionsLeaveADriversRecordAlone) {
    const struct {
        int tag;
        int (*remove)(PXF_IMAGE *);
    } removes[] = {{PXF_OP_CAST, PXF__cast_done},     {PXF_OP_GAMMA, PXF__gamma_done},
                   {PXF_OP_QUANTIZE, PXF__quantize_done}, {PXF_OP_FIELD, PXF__field_done},
                   {0, PXF__raster_done}};
    for (const auto &r : removes) {
        auto *image = static_cast<PXF_IMAGE *>(std::malloc(sizeof(PXF_IMAGE)));
        pxf__init_obj(image, PXF_MODE_READ);
        image->private_data = static_cast<void **>(std::malloc(sizeof(void *)));
        auto *record = static_cast<int32_t *>(std::malloc(sizeof(int32_t)));
        *record = r.tag;
        image->private_data[0] = record;
        image->close = driver_close;
        EXPECT_LE(r.remove(image), 0) << r.tag;
        EXPECT_EQ(image->private_data[0], record) << r.tag;
        EXPECT_EQ(image->close, driver_close) << r.tag;
        EXPECT_EQ(PXF_close(image), 0);
    }
}

TEST(Raster, ServesScanlinesInAnyOrderFromOnePass) {
    PXF_IMAGE *image = synthetic_image(synthetic_desc(W, H, 2, PXF_C_INTEGER, 16, 1), PXF_MODE_READ);
    expect_clean_failures(image, [&] { PXF__raster(image); }, PXF__raster_done);
    PXF__raster(image);
    PXF__cast(image);  // converts the raster's copy, not the raster
    EXPECT_EQ(PXF__raster_done(image), 0);
    scan_count = 0;
    expect_rows<float>(
        image, 3, [](int l, int x, int c) { return float(integer_pixel(l, x, c, 16)) * float(1.0 / 65535); },
        {2, 0, 3, 1, 2, 2});
    EXPECT_EQ(scan_count, H);
    event_log.clear();
    PXF_close(image);
    EXPECT_EQ(event_log, std::vector<std::string>{"close"});
}

}  // namespace
