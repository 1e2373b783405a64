// Building, copying and freeing image handles, and the checks that 8-bit
// drivers run on them.
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <pxf/pxf.h>

#include "core/core_util.h"
#include "core/defaults.h"

namespace {

using pxf::kSetMessages;
using pxf::kSetNames;

// The info's strings from `handle` to `compression`.
void info_strings(PXF_INFO &info, char **out[11]) {
    char **fields[] = {&info.handle, &info.name,   &info.ext,    &info.desc,   &info.program,    &info.machine,
                       &info.user,   &info.date,   &info.text_a, &info.text_b, &info.compression};
    for (int i = 0; i < 11; ++i) out[i] = fields[i];
}

// Stores a copy of `value`, or of the catalogue default when it is null.
bool set_string(char *&field, const char *value, int number) {
    char *copy = pxf::dup_string(value ? value : pxf::text(kSetNames, number, "unknown"));
    if (!copy) return false;
    pxf::heap_free(field);
    field = copy;
    return true;
}

bool host_name(char *&field) {
    char host[255 + 1] = {};
    if (gethostname(host, 255) == 0 && host[0]) return set_string(field, host, 0);
    return set_string(field, nullptr, 141);
}

bool login_name(char *&field) {
    const passwd *pw = getpwuid(getuid());
    if (pw && pw->pw_name) return set_string(field, pw->pw_name, 0);
    return set_string(field, nullptr, 149);
}

bool date_string(char *&field) {
    errno = 0;
    time_t now = time(nullptr);
    if (now == time_t(-1)) ERR_report_errno(errno, __FILE__);  // the value is used anyway
    char text[32];
    std::snprintf(text, sizeof text, "{%u}", unsigned(now));
    return set_string(field, text, 0);
}

bool no_memory() {
    pxf__err = pxf::kErrNoMemory;
    return false;
}

// Deep copy of a table curve.
bool copy_table_curve(PXF_RESPONSE_CURVE &to, const PXF_RESPONSE_CURVE &from) {
    to = from;
    to.tables = nullptr;
    if (!from.tables || from.channels <= 0 || from.entries <= 0) return true;
    std::size_t element = from.type == PXF_C_FLOAT ? 4 : from.bits <= 8 ? 1 : 2;
    std::size_t per_channel = std::size_t(from.entries) * element;
    auto **tables = static_cast<void **>(pxf::alloc(std::size_t(from.channels) * sizeof(void *)));
    auto *block = static_cast<unsigned char *>(pxf::alloc(per_channel * std::size_t(from.channels)));
    if (!tables || !block) {
        pxf::heap_free(tables);
        pxf::heap_free(block);
        return no_memory();
    }
    for (int c = 0; c < from.channels; ++c) {
        tables[c] = block + c * per_channel;
        std::memcpy(tables[c], from.tables[c], per_channel);
    }
    to.tables = tables;
    return true;
}

void copy_group_shape(PXF_CHAN_GROUP &to, const PXF_CHAN_GROUP &from) {
    to.count = from.count;
    to.type = from.type;
    to.width = from.width;
    to.extra = from.extra;  // the matte's association, what the colour's file left unsaid
}

}  // namespace

int pxf__init_obj(PXF_IMAGE *image, int mode) {
    std::memset(image, 0, sizeof *image);
    PXF_info_init(&image->info);
    image->mode = mode;
    image->current_line = -1;
    pthread_mutex_init(&image->lock, nullptr);
    return 1;
}

int pxf__build_obj(PXF_IMAGE *image, PXF_INFO *info) {
    PXF_INFO &to = image->info;
    if (info->key && !set_string(to.key, info->key, 0)) return no_memory();
    if (!set_string(to.handle, info->handle, 139) || !set_string(to.name, info->name, 143) ||
        !set_string(to.desc, info->desc, 32) || !set_string(to.program, info->program, 145))
        return no_memory();
    if (!(info->machine ? set_string(to.machine, info->machine, 141) : host_name(to.machine))) return no_memory();
    if (!(info->user ? set_string(to.user, info->user, 149) : login_name(to.user))) return no_memory();
    if (!(info->date ? set_string(to.date, info->date, 0) : date_string(to.date))) return no_memory();
    if (!set_string(to.text_a, info->text_a, 147) || !set_string(to.text_b, info->text_b, 137) ||
        !set_string(to.compression, info->compression, 125))
        return no_memory();
    if (info->specific && info->specific[0]) {
        pxf::free_settings(to.specific);
        to.specific = pxf::copy_settings(info->specific);
        if (!to.specific) return no_memory();
    }
    to.option_flag = info->option_flag;
    to.value_b = info->value_b;
    to.frame = info->frame;
    to.frame_extra = info->frame_extra;
    std::memcpy(to.red_pri, info->red_pri, sizeof to.red_pri);
    std::memcpy(to.green_pri, info->green_pri, sizeof to.green_pri);
    std::memcpy(to.blue_pri, info->blue_pri, sizeof to.blue_pri);
    std::memcpy(to.white_pt, info->white_pt, sizeof to.white_pt);
    to.frame_step = info->frame_step;
    to.frame_rate = info->frame_rate;
    to.field_a = info->field_a;
    to.field_b = info->field_b;
    to.field_c = info->field_c;
    to.value_c = info->value_c;
    to.value_d = info->value_d;
    to.value_e = info->value_e;
    to.job_num = info->job_num;
    if (to.job_num == 0)
        if (const char *job = std::getenv("QV_JOB_NUM")) to.job_num = int32_t(std::strtol(job, nullptr, 10));
    return 1;
}

int pxf__init_ifd(PXF_IMAGE *image) {
    int resolution = FMT_def_gamma_tab_res();
    int depth = 0;  // log2 of the resolution, truncated
    while (depth < 30 && (1 << (depth + 1)) <= resolution) ++depth;
    for (int i = 0; i < image->info.num_images; ++i) {
        PXF_IMAGE_DESC &d = image->info.images[i];
        std::memset(&d, 0, sizeof d);
        d.image_kind = 1;
        d.curve.kind = PXF_CURVE_GAMMA;
        d.curve.gamma = FMT_def_gamma();
        d.curve.channels = 1;
        d.curve.entries = 256;
        d.curve.type = PXF_C_INTEGER;
        d.curve.bits = depth;
        d.step = 1;
        d.orientation = 1;
        for (PXF_CHAN_GROUP *g : {&d.chan, &d.matte, &d.aux, &d.index}) {
            g->count = 0;
            g->type = PXF_C_INTEGER;
            g->width = 8;
        }
        d.index.width = 16;
    }
    return 1;
}

int pxf__build_ifd(PXF_IMAGE *image, PXF_INFO *info) {
    if (image->info.num_images > 0 && !info->images)
        return pxf::fail(0, pxf::kErrMissingField, kSetMessages, 88, "Required field, %s, uninitialized", "images");
    for (int i = 0; i < image->info.num_images; ++i) {
        PXF_IMAGE_DESC &to = image->info.images[i];
        const PXF_IMAGE_DESC &from = info->images[i];
        if (from.curve.kind == PXF_CURVE_TABLE) {
            if (!copy_table_curve(to.curve, from.curve)) return 0;
        } else {
            to.curve = from.curve;
        }
        to.image_kind = from.image_kind;
        to.window = from.window;
        to.active_window = from.active_window;
        to.aspect_ratio = from.aspect_ratio;
        to.x_res = from.x_res;
        to.y_res = from.y_res;
        to.step = from.step;
        to.orientation = from.orientation;
        copy_group_shape(to.chan, from.chan);
        copy_group_shape(to.matte, from.matte);
        copy_group_shape(to.aux, from.aux);
        copy_group_shape(to.index, from.index);
        if (!set_string(to.aspect, from.aspect, 133) || !set_string(to.chan.format, from.chan.format, 131) ||
            !set_string(to.matte.format, from.matte.format, 131) ||
            !set_string(to.aux.format, from.aux.format, 131) ||
            !set_string(to.index.format, from.index.format, 131))
            return no_memory();
    }
    return 1;
}

int pxf__dupl_obj(PXF_IMAGE *copy, PXF_IMAGE *image) {
    // `copy` comes from pxf__init_obj: it keeps its own (fresh) lock and mode.
    PXF_INFO &to = copy->info;
    const PXF_INFO &from = image->info;
    char **to_strings[11], **from_strings[11];
    info_strings(to, to_strings);
    info_strings(const_cast<PXF_INFO &>(from), from_strings);
    if (from.key && !set_string(to.key, from.key, 0)) return no_memory();
    for (int i = 0; i < 11; ++i)
        if (*from_strings[i] && !set_string(*to_strings[i], *from_strings[i], 0)) return no_memory();
    to.option_flag = from.option_flag;
    to.flag_b = from.flag_b;
    to.open_flag = from.open_flag;
    to.value_b = from.value_b;
    to.value_c = from.value_c;
    to.value_d = from.value_d;
    to.value_e = from.value_e;
    to.frame = from.frame;
    to.frame_extra = from.frame_extra;
    to.frame_step = from.frame_step;
    to.frame_rate = from.frame_rate;
    to.field_a = from.field_a;
    to.field_b = from.field_b;
    to.field_c = from.field_c;
    to.job_num = from.job_num;
    std::memcpy(to.red_pri, from.red_pri, sizeof to.red_pri);
    std::memcpy(to.green_pri, from.green_pri, sizeof to.green_pri);
    std::memcpy(to.blue_pri, from.blue_pri, sizeof to.blue_pri);
    std::memcpy(to.white_pt, from.white_pt, sizeof to.white_pt);
    to.num_images = 0;
    to.images = nullptr;
    copy->private_data = nullptr;
    copy->lut_read = image->lut_read;
    copy->scan = image->scan;
    copy->close = image->close;
    copy->get_region = image->get_region;
    return 1;
}

int pxf__free_obj(PXF_IMAGE *image) {
    if (!image) return 1;
    PXF_INFO &info = image->info;
    char **strings[11];
    info_strings(info, strings);
    for (char **s : strings) pxf::free_string(*s);
    pxf::free_string(info.key);
    pxf::free_settings(info.specific);
    info.specific = nullptr;
    if (info.images) {
        for (int i = 0; i < info.num_images; ++i) {
            PXF_IMAGE_DESC &d = info.images[i];
            PXF_response_curve_done(&d.curve);
            pxf::free_string(d.aspect);
            pxf::free_string(d.chan.format);
            pxf::free_string(d.matte.format);
            pxf::free_string(d.aux.format);
            pxf::free_string(d.index.format);
        }
        pxf::heap_free(info.images);
        info.images = nullptr;
    }
    if (image->private_data) {
        pxf::heap_free(image->private_data[0]);
        pxf::heap_free(image->private_data);
        image->private_data = nullptr;
    }
    pthread_mutex_destroy(&image->lock);
    pxf::heap_free(image);
    return 1;
}

char *pxf__build_handle(const char *dir, const char *name, const char *ext) {
    static char path[4096];
    if (!name) name = "";
    if (!ext) ext = "";
    std::size_t at = 0;
    auto put = [&](const char *s) {
        std::size_t n = std::strlen(s);
        if (n > sizeof path - 1 - at) n = sizeof path - 1 - at;  // truncate, never overflow
        std::memcpy(path + at, s, n);
        at += n;
        path[at] = '\0';
    };
    path[0] = '\0';
    if (name[0] == '/' || std::strncmp(name, "./", 2) == 0 || !dir) {
        put(name);
    } else {
        put(dir);
        if (dir[0] && dir[std::strlen(dir) - 1] != '/') put("/");
        put(name);
    }
    std::size_t n = std::strlen(path), m = std::strlen(ext);
    if (!(m <= n && std::strcmp(path + n - m, ext) == 0)) {
        if (n > 0 && path[n - 1] == '.' && ext[0]) put(ext + 1);
        else put(ext);
    }
    return path;
}

namespace {

struct GroupCheck {
    PXF_CHAN_GROUP PXF_IMAGE_DESC::*group;
    int type_number;
    const char *type_text;
    int width_number;
    const char *width_text;
};

int verify(const GroupCheck &check, const char *name, PXF_IMAGE *image, int index) {
    int result = 0;
    if (index >= image->info.num_images) {
        pxf::fail(0, pxf::kErrCannotDo, kSetMessages, 61, "%s cannot store multiple images", name);
        result = pxf::kErrCannotDo;
    }
    int at = index >= 0 && index < image->info.num_images ? index : 0;
    if (!image->info.images || image->info.num_images <= 0) return pxf::kErrCannotDo;
    const PXF_CHAN_GROUP &group = image->info.images[at].*check.group;
    if (group.type != PXF_C_INTEGER)
        return pxf::fail(pxf::kErrCannotDo, pxf::kErrCannotDo, kSetMessages, check.type_number, check.type_text, name);
    if (group.width > 8)
        return pxf::fail(pxf::kErrCannotDo, pxf::kErrCannotDo, kSetMessages, check.width_number, check.width_text,
                         name);
    return result;
}

}  // namespace

int pxf__image_verify(const char *name, PXF_IMAGE *image, int index) {
    static const GroupCheck check{&PXF_IMAGE_DESC::chan, 72, "%s cannot handle image channel type", 73,
                                  "%s cannot handle image channel width"};
    return verify(check, name, image, index);
}

int pxf__matte_verify(const char *name, PXF_IMAGE *image, int index) {
    static const GroupCheck check{&PXF_IMAGE_DESC::matte, 79, "%s cannot handle matte channel type", 80,
                                  "%s cannot handle matte channel width"};
    return verify(check, name, image, index);
}

int pxf__aux_verify(const char *name, PXF_IMAGE *image, int index) {
    static const GroupCheck check{&PXF_IMAGE_DESC::aux, 70, "%s cannot handle auxiliary channel type", 71,
                                  "%s cannot handle auxiliary channel width"};
    return verify(check, name, image, index);
}
