// The image description and the records every driver and operator uses
// around it: channel buffers, palettes and type-specific settings.
#include <cmath>
#include <cstdio>
#include <cstring>

#include <pxf/err.h>
#include <pxf/pxf.h>
#include <pxf/str.h>

#include "core/core_util.h"
#include "core/defaults.h"

int chan_alloc_size = 0;
int pxf__specific_input_max = 0;
int pxf__specific_output_max = 0;

namespace {

void copy3(float *to, const float *from) {
    if (from) std::memcpy(to, from, 3 * sizeof(float));
}

void free_group_format(PXF_CHAN_GROUP &group) { pxf::free_string(group.format); }

// Bytes per element of a group, or 0 when the group's type or width is unusable.
enum class GroupFault { none, type, width };
GroupFault element_size(const PXF_CHAN_GROUP &group, std::size_t &size) {
    switch (group.type) {
    case PXF_C_INTEGER:
        if (group.width > 32) return GroupFault::width;
        size = group.width <= 8 ? 1 : group.width <= 16 ? 2 : 4;
        return GroupFault::none;
    case PXF_C_FLOAT:
        size = 4;
        return GroupFault::none;
    case PXF_C_DOUBLE:
        size = 8;
        return GroupFault::none;
    default:
        return GroupFault::type;
    }
}

std::size_t round8(std::size_t n) { return (n + 7) & ~std::size_t{7}; }
std::size_t count_of(const PXF_CHAN_GROUP &group) { return group.count > 0 ? std::size_t(group.count) : 0; }

template <class Element>
int copy_channels(void **dst, void **src, int channels, int elements) {
    if (elements <= 0) return 0;
    for (int c = channels - 1; c >= 0; --c)
        std::memcpy(dst[c], src[c], std::size_t(elements) * sizeof(Element));
    return 0;
}

}  // namespace

void pxf::free_settings(PXF_CAP_SETTING **settings) noexcept {
    EPTR_free_all(reinterpret_cast<void **>(settings), nullptr);
}

void PXF_info_init(PXF_INFO *info) {
    if (!info) return;
    std::memset(info, 0, offsetof(PXF_INFO, reserved));
    info->job_num = -1;
    info->frame = 1;
    info->init_magic = PXF_INFO_MAGIC;
    copy3(info->red_pri, CLR_def_red_primary());
    copy3(info->green_pri, CLR_def_green_primary());
    copy3(info->blue_pri, CLR_def_blue_primary());
    copy3(info->white_pt, CLR_def_white_point());
    info->frame_step = 1;
    info->frame_rate = 29.97f;
    info->open_flag = 1;
}

PXF_INFO *PXF_info_alloc(void) {
    auto *info = static_cast<PXF_INFO *>(pxf::heap_alloc(sizeof(PXF_INFO)));
    if (!info) return nullptr;
    std::memset(info, 0, sizeof *info);
    PXF_info_init(info);
    return info;
}

void PXF_info_cleanup(PXF_INFO *info, int free_fields) {
    if (!info) return;
    if (info->init_magic != PXF_INFO_MAGIC) {
        std::fputs("PXF_info_cleanup: application programming error.\n", stderr);
        std::fprintf(stderr, "The PXF_INFO structure being freed has either been %s",
                     "freed already or else was never initialised.\n");
    }
    info->init_magic = 0;
    if (!free_fields) return;
    char **strings[] = {&info->key,     &info->handle,  &info->name,   &info->ext,
                        &info->desc,    &info->program, &info->machine, &info->user,
                        &info->date,    &info->text_a,  &info->text_b, &info->compression};
    for (char **s : strings) pxf::free_string(*s);
    if (info->images) {
        // The aspect name and the response curve stay with the application.
        for (int i = 0; i < info->num_images; ++i) {
            PXF_IMAGE_DESC &d = info->images[i];
            free_group_format(d.chan);
            free_group_format(d.matte);
            free_group_format(d.aux);
            free_group_format(d.index);
        }
        pxf::heap_free(info->images);
        info->images = nullptr;
    }
}

PXF_INFO *PXF_info_free(PXF_INFO *info, int free_fields) {
    if (!info) return nullptr;
    PXF_info_cleanup(info, free_fields);
    pxf::heap_free(info);
    return nullptr;
}

void PXF_info_num_specific(int *input, int *output) {
    if (input) *input = pxf__specific_input_max;
    if (output) *output = pxf__specific_output_max;
}

void PXF_info_get_specific(const char *key, PXF_TYPE *entry, PXF_CAP_SETTING ***settings, int *a,
                           int *b, int *c) {
    if (key) {
        entry = PXF_find(key);
        if (!entry) {
            pxf::report(pxf::kSetMessages, 902,
                        "Unknown file type key (\"%s\") was specified; Ensure that the plug-in "
                        "for this type is defined",
                        key);
            return;
        }
    }
    if (!entry || !entry->capability) {
        if (settings) *settings = nullptr;
        if (a) *a = 0;
        if (b) *b = 0;
        if (c) *c = 0;
        return;
    }
    entry->capability(settings, a, b, c);
}

// ---- Channel buffers ----

namespace {

void **alloc_channels(PXF_IMAGE_DESC *desc, int pixels, const char *name, int *size) {
    if (!desc) return nullptr;
    std::size_t total = count_of(desc->chan) + count_of(desc->matte) + count_of(desc->aux);
    bool indexed = desc->chan.count == 0;
    if (indexed) total += count_of(desc->index);
    else if (desc->index.count) desc->index.count = 0;  // colour channels and an index exclude each other

    struct Check {
        const PXF_CHAN_GROUP &group;
        int type_number;
        const char *type_text;
        int width_number;
        const char *width_text;
    };
    const Check checks[] = {
        {desc->chan, 72, "%s cannot handle image channel type", 73, "%s cannot handle image channel width"},
        {desc->matte, 79, "%s cannot handle matte channel type", 80, "%s cannot handle matte channel width"},
        {desc->aux, 70, "%s cannot handle auxiliary channel type", 71,
         "%s cannot handle auxiliary channel width"},
    };
    std::size_t sizes[3] = {};
    for (int g = 0; g < 3; ++g) {
        GroupFault fault = element_size(checks[g].group, sizes[g]);
        if (fault == GroupFault::type)
            return pxf::fail<void **>(nullptr, pxf::kErrCannotDo, pxf::kSetMessages, checks[g].type_number,
                                      checks[g].type_text, name);
        if (fault == GroupFault::width)
            return pxf::fail<void **>(nullptr, pxf::kErrCannotDo, pxf::kSetMessages, checks[g].width_number,
                                      checks[g].width_text, name);
    }
    if (desc->index.type != PXF_C_INTEGER)
        return pxf::fail<void **>(nullptr, pxf::kErrCannotDo, pxf::kSetMessages, 132,
                                  "%s cannot handle color index channel type", name);
    if (desc->index.width > 16)
        return pxf::fail<void **>(nullptr, pxf::kErrCannotDo, pxf::kSetMessages, 133,
                                  "%s cannot handle color index channel width", name);

    std::size_t px = pixels > 0 ? std::size_t(pixels) : 0;
    std::size_t rows[4] = {round8(px * sizes[0]), round8(px * sizes[1]), round8(px * sizes[2]), round8(px * 2)};
    std::size_t counts[4] = {count_of(desc->chan), count_of(desc->matte), count_of(desc->aux),
                             indexed ? count_of(desc->index) : 0};
    std::size_t block_size = 0;
    for (int g = 0; g < 4; ++g) block_size += counts[g] * rows[g];

    auto **buffer = static_cast<void **>(pxf::heap_alloc((total ? total : 1) * sizeof(void *)));
    auto *block = static_cast<unsigned char *>(pxf::heap_alloc(block_size));
    if (!buffer || !block) {
        pxf::heap_free(buffer);
        pxf::heap_free(block);
        pxf__err = pxf::kErrNoMemory;
        return nullptr;
    }
    *size = int(block_size);
    // Process-wide like pxf__err; stored atomically so that threads allocating
    // buffers at once do not race on it.
    __atomic_store_n(&chan_alloc_size, int(block_size), __ATOMIC_RELAXED);
    std::memset(block, 0, block_size);
    buffer[0] = block;  // also the start of the block when there are no channels
    std::size_t at = 0, offset = 0;
    for (int g = 0; g < 4; ++g)
        for (std::size_t c = 0; c < counts[g]; ++c, offset += rows[g]) buffer[at++] = block + offset;
    return buffer;
}

}  // namespace

void **pxf__chan_alloc(PXF_IMAGE_DESC *desc, int pixels, const char *name) {
    int size = 0;
    return alloc_channels(desc, pixels, name, &size);
}

void **PXF_chan_alloc(PXF_IMAGE_DESC *desc, int pixels, const char *name, int *size) {
    int block = 0;
    void **buffer = alloc_channels(desc, pixels, name, &block);
    if (buffer && size) *size = block;
    return buffer;
}

int pxf__chan_free(void **buffer) {
    if (buffer) {
        pxf::heap_free(buffer[0]);
        pxf::heap_free(buffer);
    }
    return 1;
}

int PXF_chan_free(void **buffer) { return pxf__chan_free(buffer); }

int pxf__chan_copy_byte(void **dst, void **src, int channels, int elements) {
    return copy_channels<uint8_t>(dst, src, channels, elements);
}
int pxf__chan_copy_short(void **dst, void **src, int channels, int elements) {
    return copy_channels<uint16_t>(dst, src, channels, elements);
}
int pxf__chan_copy_long(void **dst, void **src, int channels, int elements) {
    return copy_channels<uint32_t>(dst, src, channels, elements);
}

// ---- Palettes ----

PXF_LUT *PXF_lut_alloc(uint32_t count) {
    auto *lut = static_cast<PXF_LUT *>(ERR_malloc(sizeof(PXF_LUT)));
    if (!lut) return nullptr;
    lut->count = count;
    lut->maximum = int32_t(count) - 1;
    lut->gamma = 1.0f;
    lut->entries = static_cast<PXF_LUT_ENTRY *>(ERR_malloc(uint32_t(count * sizeof(PXF_LUT_ENTRY))));
    if (!lut->entries) {
        ERR_free(lut);
        return nullptr;
    }
    std::memset(lut->entries, 0, count * sizeof(PXF_LUT_ENTRY));
    return lut;
}

PXF_LUT *PXF_lut_free(PXF_LUT *lut) {
    if (lut) {
        ERR_free(lut->entries);
        ERR_free(lut);
    }
    return nullptr;
}

PXF_LUT *PXF_lut_copy(const PXF_LUT *lut) {
    if (!lut) return nullptr;
    PXF_LUT *copy = PXF_lut_alloc(lut->count);
    if (!copy) return nullptr;
    std::memcpy(copy->entries, lut->entries, lut->count * sizeof(PXF_LUT_ENTRY));
    copy->maximum = lut->maximum;
    copy->gamma = lut->gamma;
    return copy;
}

PXF_LUT *PXF_lut_realloc(PXF_LUT *lut, uint32_t count) {
    if (!lut) return nullptr;
    auto *entries = static_cast<PXF_LUT_ENTRY *>(
        ERR_realloc(lut->entries, uint32_t(count * sizeof(PXF_LUT_ENTRY))));
    if (!entries) {
        PXF_lut_free(lut);
        return nullptr;
    }
    if (count > lut->count)
        std::memset(entries + lut->count, 0, (count - lut->count) * sizeof(PXF_LUT_ENTRY));
    lut->entries = entries;
    lut->count = count;  // maximum stays: the palette's highest used index is unchanged
    return lut;
}

int PXF_lut_read(PXF_IMAGE *image, PXF_LUT **lut) {
    if (lut) *lut = nullptr;
    if (!image || !image->lut_read) return 1;  // no palette is not an error
    return image->lut_read(image->private_data ? image->private_data[0] : nullptr, lut) != 0;
}

// ---- Type-specific settings ----

PXF_CAP_SETTING *PXF_cap_setting_alloc(int count) {
    if (count <= 0) return nullptr;
    auto *settings = static_cast<PXF_CAP_SETTING *>(pxf::alloc(std::size_t(count) * sizeof(PXF_CAP_SETTING)));
    if (!settings) return nullptr;
    for (int i = 0; i < count; ++i) {
        settings[i].code = PXF_CAP_NONE;
        settings[i].value.integer = 0;
    }
    return settings;
}

namespace {
std::size_t settings_length(PXF_CAP_SETTING **list) { return EPTR_length(reinterpret_cast<void *const *>(list)); }
}  // namespace

PXF_CAP_SETTING **PXF_cap_setting_copy(PXF_CAP_SETTING **settings) {
    std::size_t n = settings_length(settings);
    if (n == 0) return nullptr;
    auto **copy = static_cast<PXF_CAP_SETTING **>(pxf::alloc((n + 1) * sizeof(PXF_CAP_SETTING *)));
    if (!copy) return nullptr;
    std::size_t i = 0;
    for (; i < n; ++i) {
        copy[i] = PXF_cap_setting_alloc(1);
        if (!copy[i]) break;  // the partial list is handed back
        copy[i]->code = settings[i]->code;
        copy[i]->value = settings[i]->value;
    }
    copy[i] = nullptr;
    return copy;
}

PXF_CAP_SETTING **pxf::copy_settings(PXF_CAP_SETTING **settings) noexcept {
    PXF_CAP_SETTING **copy = PXF_cap_setting_copy(settings);
    if (copy && settings_length(copy) != settings_length(settings)) {
        free_settings(copy);
        return nullptr;
    }
    return copy;
}

int PXF_cap_setting_compare(PXF_CAP_SETTING **a, PXF_CAP_SETTING **b) {
    std::size_t na = settings_length(a), nb = settings_length(b);
    if (na == 0 || nb == 0) return na == 0 && nb == 0;
    std::size_t j = 0;
    for (std::size_t i = 0; i < na; ++i) {
        while (j < nb && b[j]->code != a[i]->code) ++j;
        if (j == nb) return 0;
        switch (a[i]->code) {
        case PXF_CAP_INTEGER:
            if (a[i]->value.integer != b[j]->value.integer) return 0;
            break;
        case PXF_CAP_FLOAT:
            if (!(a[i]->value.real == b[j]->value.real)) return 0;
            break;
        default:
            pxf::warn(pxf::kSetMessages, 92,
                      "Unknown type-specific capability code (%d) specified when trying to open image file",
                      int(a[i]->code));
            return 0;
        }
    }
    return 1;
}
