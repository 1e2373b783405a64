// Feeds arbitrary bytes to the palette reader in each form and, for what it
// accepts, writes every form back and reads it again.
#include <cstdint>
#include <cstdlib>
#include <initializer_list>

#include <pxf/err.h>
#include <pxf/palette.h>

namespace {

int swallow(const char *, int, const char *, ERR_DESCRIPTOR *, void *) { return 0; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool quiet = ERR_dcl_handler(nullptr, swallow, nullptr) >= 0;
    (void)quiet;
    for (PXF_LUT_FORMAT format : {PXF_LUT_ANY, PXF_LUT_GPL, PXF_LUT_JASC, PXF_LUT_BINARY}) {
        PXF_LUT *lut = PXF_lut_parse(data, size, "fuzz", format);
        if (!lut) continue;
        if (lut->count == 0 || lut->count > PXF_LUT_MAX_ENTRIES || lut->maximum >= int32_t(lut->count)) std::abort();
        for (PXF_LUT_FORMAT to : {PXF_LUT_GPL, PXF_LUT_JASC, PXF_LUT_BINARY}) {
            size_t n = 0;
            void *bytes = PXF_lut_format(lut, to, "fuzz", &n);
            if (!bytes) continue;
            PXF_LUT *back = PXF_lut_parse(bytes, n, "again", to);
            // What we write we read back, with the same number of used entries.
            if (!back || (to == PXF_LUT_BINARY && back->count != lut->count)) std::abort();
            PXF_lut_free(back);
            ERR_free(bytes);
        }
        PXF_lut_free(lut);
    }
    return 0;
}
