// Memory images: a written image kept in process memory, readable by name
// through other handles while its writer is open.
#include <cstring>

#include <pxf/dst.h>
#include <pxf/err.h>
#include <pxf/pxf.h>

#include "core/core_util.h"
#include "core/registry.h"

namespace {

using CopyFn = int (*)(void **, void **, int, int);

// The driver's record, one per image; the handle's private data points at them.
struct MemImage {
    uint32_t image_count;
    uint32_t matte_count;
    uint32_t aux_count;
    CopyFn copy_image;
    CopyFn copy_matte;
    CopyFn copy_aux;
    int32_t width;
    int32_t height;
    void **read_buffer;
    void ***rows;  // height channel buffer sets
};

// Open memory writers.
struct Writer {
    Writer *next;
    PXF_IMAGE *image;
};
DST_LL *writers = nullptr;
bool writers_exist = false;

CopyFn copier_for(int width) {
    if (width >= 17) return pxf__chan_copy_long;
    if (width >= 9) return pxf__chan_copy_short;
    return pxf__chan_copy_byte;
}

void choose_copiers(MemImage &m, const PXF_IMAGE_DESC &d) {
    m.copy_image = copier_for(d.chan.width);
    m.copy_matte = m.matte_count ? copier_for(d.matte.width) : nullptr;
    m.copy_aux = m.aux_count ? copier_for(d.aux.width) : nullptr;
}

// Copies every group of one scanline from `src` to `dst`.
void copy_line(const MemImage &m, void **dst, void **src) {
    m.copy_image(dst, src, int(m.image_count), m.width);
    if (m.copy_matte) m.copy_matte(dst + m.image_count, src + m.image_count, int(m.matte_count), m.width);
    if (m.copy_aux) {
        uint32_t at = m.image_count + m.matte_count;
        m.copy_aux(dst + at, src + at, int(m.aux_count), m.width);
    }
}

int bad_row(int row) {
    return pxf::fail(pxf::kErrBadScanline, pxf::kErrBadScanline, pxf::kSetMessages, 53,
                     "Bad scanline: %d (out of range, or not in sequence if a sequential file)", row);
}

int write_scan(void *data, int row, void ***rows, void **) {
    auto *m = static_cast<MemImage *>(data);
    if (row < 0 || row >= m->height) return bad_row(row);
    copy_line(*m, m->rows[row], *rows);
    pxf__err = 0;
    return 0;
}

int read_scan(void *data, int row, void ***rows, void **) {
    auto *m = static_cast<MemImage *>(data);
    if (row < 0 || row >= m->height) return bad_row(row);
    copy_line(*m, m->read_buffer, m->rows[row]);
    *rows = m->read_buffer;
    pxf__err = 0;
    return 0;
}

// Releases every image's rows and row table.  Each image frees its own
// table: freeing the first image's table once per image would free it twice.
void free_rows(PXF_IMAGE *image) {
    if (!image->private_data) return;
    for (int i = 0; i < image->info.num_images; ++i) {
        auto *m = static_cast<MemImage *>(image->private_data[i]);
        if (!m || !m->rows) continue;
        for (int r = 0; r < m->height; ++r)
            if (m->rows[r]) pxf__chan_free(m->rows[r]);
        ERR_free(m->rows);
        m->rows = nullptr;
    }
}

// The list lives only while it has entries.
void drop_empty_list() {
    if (writers_exist && DST_ll_length(writers) == 0) {
        DST_ll_free(writers);
        writers = nullptr;
        writers_exist = false;
    }
}

// Removes the closing writer's own entry.  Removing the first entry of the
// same name instead would, with two writers of one name, leave an entry for
// a freed handle behind.
void forget_writer(PXF_IMAGE *image) {
    if (!writers_exist) return;
    DST_ll_initl(writers);
    while (auto *w = static_cast<Writer *>(DST_ll_nextl(writers)))
        if (w->image == image) {
            DST_ll_rem(writers, w);
            pxf::heap_free(w);
            break;
        }
    drop_empty_list();
}

int write_close(PXF_IMAGE *image) {
    forget_writer(image);
    free_rows(image);
    pxf__free_obj(image);
    pxf__err = 0;
    return 0;
}

int read_close(PXF_IMAGE *image) {
    if (image->private_data)
        for (int i = 0; i < image->info.num_images; ++i) {
            auto *m = static_cast<MemImage *>(image->private_data[i]);
            pxf__chan_free(m->read_buffer);
            m->read_buffer = nullptr;
        }
    // The rest belongs to the writer.
    image->private_data = nullptr;
    image->info.num_images = 0;
    image->info.images = nullptr;
    pxf__free_obj(image);
    pxf__err = 0;
    return 0;
}

int no_memory() {
    pxf__err = pxf::kErrNoMemory;
    return 0;
}

}  // namespace

int PXF_mem_is_file(const char *, void *) { return 0; }

namespace {
int write_open(PXF_IMAGE *image) {
    if (!writers_exist) {
        if (!(writers = DST_ll_new())) return no_memory();
        DST_ll_init(writers);
        writers_exist = true;
    }
    int count = image->info.num_images;
    if (count <= 0 || !image->info.images)
        return pxf::fail(0, pxf::kErrMissingField, pxf::kSetMessages, 88, "Required field, %s, uninitialized",
                         "num_images");
    auto **table = static_cast<void **>(pxf::heap_alloc(count * sizeof(void *)));
    if (!table) return no_memory();
    auto *records = static_cast<MemImage *>(pxf::heap_alloc(count * sizeof(MemImage)));
    if (!records) {
        pxf::heap_free(table);
        return no_memory();
    }
    std::memset(records, 0, count * sizeof(MemImage));
    table[0] = records;
    // The handle owns the table and records from here: pxf__free_obj releases both.
    image->private_data = table;
    for (int i = count - 1; i >= 0; --i) {
        MemImage &m = records[i];
        PXF_IMAGE_DESC &d = image->info.images[i];
        table[i] = &m;
        m.image_count = uint32_t(d.chan.count > 0 ? d.chan.count : 0);
        m.matte_count = uint32_t(d.matte.count > 0 ? d.matte.count : 0);
        m.aux_count = uint32_t(d.aux.count > 0 ? d.aux.count : 0);
        m.width = d.window.right - d.window.left + 1;
        m.height = d.window.top - d.window.bottom + 1;
        if (m.height < 0) m.height = 0;
        m.rows = static_cast<void ***>(ERR_malloc(uint32_t((m.height ? m.height : 1) * sizeof(void **))));
        if (!m.rows) {
            pxf__err = pxf::kErrNoMemory;
            free_rows(image);
            return 0;
        }
        std::memset(m.rows, 0, (m.height ? m.height : 1) * sizeof(void **));
        for (int r = m.height - 1; r >= 0; --r)
            if (!(m.rows[r] = pxf__chan_alloc(&d, m.width, image->info.key))) {
                free_rows(image);
                return 0;
            }
        choose_copiers(m, d);
    }
    image->scan = write_scan;
    image->close = write_close;
    auto *node = static_cast<Writer *>(pxf::heap_alloc(sizeof(Writer)));
    if (!node) {
        free_rows(image);
        return no_memory();
    }
    node->next = nullptr;
    node->image = image;
    DST_ll_addt(writers, node);
    return 1;
}
}  // namespace

int PXF_mem_w_open(PXF_IMAGE *image) {
    int result = write_open(image);
    if (!result) drop_empty_list();  // a failed first open leaves no empty list behind
    return result;
}

int PXF_mem_r_open(PXF_IMAGE *image) {
    if (!writers_exist) return 0;
    PXF_IMAGE *writer = nullptr;
    DST_ll_initl(writers);
    while (auto *w = static_cast<Writer *>(DST_ll_nextl(writers)))
        if (pxf::same(w->image->info.handle, image->info.handle)) {
            writer = w->image;
            break;
        }
    if (!writer) return 0;
    char *strings[] = {image->info.key,    image->info.handle, image->info.name,   image->info.ext,
                       image->info.desc,   image->info.program, image->info.machine, image->info.user,
                       image->info.date,   image->info.text_a, image->info.text_b, image->info.compression};
    for (char *s : strings) pxf::heap_free(s);
    image->info.key = image->info.handle = image->info.name = image->info.ext = image->info.desc = nullptr;
    image->info.program = image->info.machine = image->info.user = image->info.date = nullptr;
    image->info.text_a = image->info.text_b = image->info.compression = nullptr;
    if (!pxf__dupl_obj(image, writer)) return 0;
    image->private_data = writer->private_data;
    image->info.num_images = writer->info.num_images;
    image->info.images = writer->info.images;
    for (int i = image->info.num_images - 1; i >= 0; --i) {
        auto *m = static_cast<MemImage *>(image->private_data[i]);
        PXF_IMAGE_DESC &d = image->info.images[i];
        m->read_buffer = pxf__chan_alloc(&d, d.window.right - d.window.left + 1, image->info.key);
        if (!m->read_buffer) {
            for (int j = 0; j < image->info.num_images; ++j) {
                auto *other = static_cast<MemImage *>(image->private_data[j]);
                pxf__chan_free(other->read_buffer);
                other->read_buffer = nullptr;
            }
            // Hand the writer's data back before the open path frees this handle.
            image->private_data = nullptr;
            image->info.num_images = 0;
            image->info.images = nullptr;
            return 0;
        }
        choose_copiers(*m, d);
    }
    image->scan = read_scan;
    image->close = read_close;
    return 1;
}

namespace pxf {

const PXF_TYPE mem_driver_type = {
    .next = nullptr,
    .builtin = 1,
    .version = "3.2",
    .key = "mem",
    .extension = ".mem",
    .name = "memory",
    .description = nullptr,
    .format_string = "%s.%04.4d%s",
    .name_syntax = "Name.####.Ext",
    .add_extension = 1,
    .usage = 255,
    .orientation = 1,
    .bits_per_palette_entry = 0,
    .number_of_channels = 32767,
    .bits_per_channel = -1,
    .number_of_mattes = 32767,
    .bits_per_matte = -1,
    .number_of_z_channels = 32767,
    .bits_per_z_channel = -1,
    .supports_active_window = 1,
    .access = 60,
    .multi_frame = 0,
    .hard_link_duplicates = 0,
    .supports_remote_access = 0,
    .capability = nullptr,
    .caps_avail_update = nullptr,
    .read_open = PXF_mem_r_open,
    .write_open = PXF_mem_w_open,
    .done = nullptr,
    .is_file = PXF_mem_is_file,
    .private_ui_popup = nullptr,
    .private_ui_popdown = nullptr,
    .text_set = 0,
    .text_number = 0,
};

}  // namespace pxf
