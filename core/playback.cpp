// Playback over a multi-frame image: a cache of decoded frames within a byte
// budget.  Two locks: `lock` guards the cache and the playhead and is never
// held while a frame decodes; `decode` serialises the use of the image (set
// the frame, read its scanlines), and is taken before the image's own lock.
#include <pthread.h>

#include <cmath>
#include <cstring>

#include <pxf/fmt.h>
#include <pxf/frames.h>

#include "core/core_util.h"
#include "core/multiframe.h"
#include "formats/mpc_format.h"

namespace {

struct Slot {
    int pos;        // index in the frame list, -1 when empty
    bool busy;      // being decoded
    unsigned char *pixels;
};

constexpr int kMaxChannels = 64;

int element_bytes(const PXF_CHAN_GROUP &g) {
    if (g.type == PXF_C_FLOAT) return 4;
    if (g.type == PXF_C_DOUBLE) return 8;
    return g.width <= 8 ? 1 : g.width <= 16 ? 2 : 4;
}

}  // namespace

struct PXF_PLAYBACK {
    PXF_IMAGE *image;
    pthread_mutex_t lock;
    pthread_mutex_t decode;
    pthread_cond_t decoded;
    int *frames;
    int count;
    int pos;
    int direction;
    int mode;
    float rate;
    double carry;  // part of a frame left over by advance
    PXF_IMAGE_DESC desc;
    int width, height, channels;
    int channel_bytes[kMaxChannels];  // row bytes per channel
    std::size_t line_bytes, frame_bytes;
    Slot *slots;
    int slot_count;
    void **scratch;  // rows for decoding, used under `decode`
    void **own_rows; // handed out when the caller passes none
};

namespace {

// Forward distance from the playhead in the direction of play.
int distance(const PXF_PLAYBACK &p, int pos) {
    int d = (pos - p.pos) * (p.direction < 0 ? -1 : 1);
    if (p.mode == PXF_PLAY_LOOP) d = ((d % p.count) + p.count) % p.count;
    else if (d < 0) d = p.count + -d;  // behind the playhead: dropped first
    return d;
}

Slot *cached(PXF_PLAYBACK &p, int pos) {
    for (int i = 0; i < p.slot_count; ++i)
        if (p.slots[i].pos == pos) return &p.slots[i];
    return nullptr;
}

// An empty slot, else the ready one farthest from the playhead if it lies
// farther than `pos`; null when every slot holds something nearer or busy.
Slot *victim(PXF_PLAYBACK &p, int pos) {
    Slot *best = nullptr;
    int far = distance(p, pos);
    for (int i = 0; i < p.slot_count; ++i) {
        Slot &s = p.slots[i];
        if (s.pos < 0 && !s.busy) return &s;
        if (!s.busy && distance(p, s.pos) > far) far = distance(p, s.pos), best = &s;
    }
    return best;
}

// Decodes frame `pos` into `pixels` under the decode lock.
int decode(PXF_PLAYBACK &p, int pos, unsigned char *pixels) {
    pthread_mutex_lock(&p.decode);
    int result = PXF_set_frame(p.image, p.frames[pos]);
    for (int y = 0; result == 0 && y < p.height; ++y) {
        int line = (p.desc.orientation & 1) ? p.desc.window.bottom + y : p.desc.window.top - y;
        void **rows = p.scratch;
        if ((result = PXF_scan_read(p.image, line, &rows)) != 0) break;
        unsigned char *to = pixels + std::size_t(line - p.desc.window.bottom) * p.line_bytes;
        for (int c = 0; c < p.channels; ++c) {
            std::memcpy(to, rows[c], std::size_t(p.channel_bytes[c]));
            to += p.channel_bytes[c];
        }
    }
    pthread_mutex_unlock(&p.decode);
    return result;
}

// Claims a slot for `pos`, decodes into it, and publishes it.  Called and
// returns with `lock` held; releases it while decoding.
int fill(PXF_PLAYBACK &p, Slot &s, int pos) {
    s.pos = pos;
    s.busy = true;
    pthread_mutex_unlock(&p.lock);
    int result = decode(p, pos, s.pixels);
    pthread_mutex_lock(&p.lock);
    s.busy = false;
    if (result != 0) s.pos = -1;
    pthread_cond_broadcast(&p.decoded);
    return result;
}

int moved(PXF_PLAYBACK &p, int steps) {
    if (!p.count) return -1;
    if (steps) p.direction = steps < 0 ? -1 : 1;
    long target = long(p.pos) + steps;
    int result;
    if (p.mode == PXF_PLAY_LOOP) {
        p.pos = int(((target % p.count) + p.count) % p.count);
        result = p.frames[p.pos];
    } else if (target < 0 || target >= p.count) {
        p.pos = target < 0 ? 0 : p.count - 1;
        result = -1;
    } else {
        p.pos = int(target);
        result = p.frames[p.pos];
    }
    return result;
}

}  // namespace

PXF_PLAYBACK *PXF_playback_open(PXF_IMAGE *image, size_t budget) {
    pxf__err = 0;
    pxf::Frames *f = pxf::frames_of(image);
    if (!f || !image->info.images || image->info.num_images < 1)
        return pxf::fail<PXF_PLAYBACK *>(nullptr, pxf::kErrCannotDo, pxf::kSetMessages, pxf::mpc::kMsgNotMultiFrame,
                                         "%s is not a multi-frame image",
                                         image && image->info.handle ? image->info.handle : "image");
    auto *p = static_cast<PXF_PLAYBACK *>(pxf::alloc_zeroed(sizeof(PXF_PLAYBACK)));
    if (!p) return pxf__err = pxf::kErrNoMemory, nullptr;
    pthread_mutex_init(&p->lock, nullptr);
    pthread_mutex_init(&p->decode, nullptr);
    pthread_cond_init(&p->decoded, nullptr);
    p->image = image;
    p->desc = image->info.images[0];
    const PXF_IMAGE_DESC &d = p->desc;
    p->width = d.window.right - d.window.left + 1;
    p->height = d.window.top - d.window.bottom + 1;
    const PXF_CHAN_GROUP *groups[] = {&d.chan, &d.matte, &d.aux};
    if (d.chan.count + d.matte.count + d.aux.count > kMaxChannels) {
        PXF_playback_close(p);
        return pxf::fail<PXF_PLAYBACK *>(nullptr, pxf::kErrCannotDo, pxf::kSetMessages, pxf::mpc::kMsgChannels,
                                         "Playback cannot hold images of more than %d channels", kMaxChannels);
    }
    for (const PXF_CHAN_GROUP *g : groups)
        for (int i = 0; i < g->count; ++i) p->channel_bytes[p->channels++] = p->width * element_bytes(*g);
    for (int c = 0; c < p->channels; ++c) p->line_bytes += std::size_t(p->channel_bytes[c]);
    p->frame_bytes = p->line_bytes * std::size_t(p->height);
    p->direction = 1;
    int rate = FMT_def_frame_rate();
    p->rate = rate > 0 ? float(rate) : image->info.frame_rate > 0 ? image->info.frame_rate : 24.0f;
    if (!p->frame_bytes || budget < p->frame_bytes) {
        pxf::fail(0, pxf::kErrCannotDo, pxf::kSetMessages, pxf::mpc::kMsgBudget,
                  "Playback cache budget of %lu bytes cannot hold one frame of %lu bytes", (unsigned long)budget,
                  (unsigned long)p->frame_bytes);
        PXF_playback_close(p);
        return nullptr;
    }
    pthread_mutex_lock(&image->lock);
    p->count = f->ops->count(f->self);
    int current = f->ops->current(f->self);
    pthread_mutex_unlock(&image->lock);
    p->slot_count = int(std::min<std::size_t>(budget / p->frame_bytes, std::size_t(p->count ? p->count : 1)));
    p->frames = pxf::alloc_array<int>(std::size_t(p->count ? p->count : 1));
    p->slots = pxf::alloc_array<Slot>(std::size_t(p->slot_count));
    p->scratch = pxf__chan_alloc(&p->desc, p->width, "PXF_playback_open");
    bool ok = p->frames && p->slots && p->scratch;
    for (int i = 0; ok && i < p->slot_count; ++i) {
        p->slots[i].pos = -1;
        ok = (p->slots[i].pixels = static_cast<unsigned char *>(pxf::alloc(p->frame_bytes))) != nullptr;
    }
    for (int i = 0; ok && i < p->count; ++i) {
        pthread_mutex_lock(&image->lock);
        p->frames[i] = f->ops->frame_at(f->self, i);
        pthread_mutex_unlock(&image->lock);
        if (p->frames[i] == current) p->pos = i;
    }
    if (!ok) {
        PXF_playback_close(p);
        pxf__err = pxf::kErrNoMemory;
        return nullptr;
    }
    return p;
}

void PXF_playback_close(PXF_PLAYBACK *p) {
    if (!p) return;
    for (int i = 0; p->slots && i < p->slot_count; ++i) pxf::heap_free(p->slots[i].pixels);
    pxf::heap_free(p->slots);
    pxf::heap_free(p->frames);
    pxf__chan_free(p->scratch);
    pxf__chan_free(p->own_rows);
    pthread_mutex_destroy(&p->lock);
    pthread_mutex_destroy(&p->decode);
    pthread_cond_destroy(&p->decoded);
    pxf::heap_free(p);
}

void PXF_playback_set_mode(PXF_PLAYBACK *p, int mode) {
    if (!p) return;
    pthread_mutex_lock(&p->lock);
    p->mode = mode == PXF_PLAY_LOOP ? PXF_PLAY_LOOP : PXF_PLAY_ONCE;
    pthread_mutex_unlock(&p->lock);
}

void PXF_playback_set_rate(PXF_PLAYBACK *p, float fps) {
    if (!p || !(fps > 0)) return;
    pthread_mutex_lock(&p->lock);
    p->rate = fps;
    pthread_mutex_unlock(&p->lock);
}

float PXF_playback_rate(PXF_PLAYBACK *p) {
    if (!p) return 0;
    pthread_mutex_lock(&p->lock);
    float rate = p->rate;
    pthread_mutex_unlock(&p->lock);
    return rate;
}

int PXF_playback_step(PXF_PLAYBACK *p, int frames) {
    if (!p) return -1;
    pthread_mutex_lock(&p->lock);
    int result = moved(*p, frames);
    pthread_mutex_unlock(&p->lock);
    return result;
}

int PXF_playback_advance(PXF_PLAYBACK *p, double seconds) {
    if (!p) return -1;
    pthread_mutex_lock(&p->lock);
    double exact = p->carry + seconds * double(p->rate);
    double whole = std::trunc(exact);
    p->carry = exact - whole;
    int steps = std::fabs(whole) > 1e9 ? (whole < 0 ? -1000000000 : 1000000000) : int(whole);
    int result = steps ? moved(*p, steps) : (p->count ? p->frames[p->pos] : -1);
    pthread_mutex_unlock(&p->lock);
    return result;
}

int PXF_playback_frame(PXF_PLAYBACK *p) {
    if (!p) return -1;
    pthread_mutex_lock(&p->lock);
    int frame = p->count ? p->frames[p->pos] : -1;
    pthread_mutex_unlock(&p->lock);
    return frame;
}

int PXF_playback_read(PXF_PLAYBACK *p, int line, void ***rows) {
    if (!p || !rows) return pxf__err = pxf::kErrCannotDo;
    const PXF_BOUNDS &w = p->desc.window;
    if (line < w.bottom || line > w.top)
        return pxf::fail(pxf::kErrBadScanline, pxf::kErrBadScanline, pxf::kSetMessages, 53,
                         "Bad scanline: %d (out of range, or not in sequence if a sequential file)", line);
    pthread_mutex_lock(&p->lock);
    int result = 0;
    if (!p->count) {
        result = pxf::fail(PXF_E_NO_FRAME, PXF_E_NO_FRAME, pxf::kSetMessages, pxf::mpc::kMsgNoFrames,
                           "%s: the container holds no frames", p->image->info.handle);
    }
    Slot *s = nullptr;
    while (!result) {
        int pos = p->pos;
        s = cached(*p, pos);
        if (s && s->busy) {
            pthread_cond_wait(&p->decoded, &p->lock);
            continue;
        }
        if (s) break;
        // Not cached: decode it here, in place of the frame farthest away.
        Slot *v = victim(*p, pos);
        if (!v) {  // every slot is being decoded by someone else
            pthread_cond_wait(&p->decoded, &p->lock);
            continue;
        }
        result = fill(*p, *v, pos);
    }
    if (!result) {
        void **dest = *rows;
        if (!dest) {
            if (!p->own_rows && !(p->own_rows = pxf__chan_alloc(&p->desc, p->width, "PXF_playback_read"))) {
                pthread_mutex_unlock(&p->lock);
                pxf::report_no_memory();
                return pxf__err = pxf::kErrNoMemory;
            }
            dest = *rows = p->own_rows;
        }
        const unsigned char *from = s->pixels + std::size_t(line - w.bottom) * p->line_bytes;
        for (int c = 0; c < p->channels; ++c) {
            std::memcpy(dest[c], from, std::size_t(p->channel_bytes[c]));
            from += p->channel_bytes[c];
        }
    }
    pthread_mutex_unlock(&p->lock);
    return result;
}

int PXF_playback_prefetch(PXF_PLAYBACK *p, int count) {
    if (!p) return pxf__err = pxf::kErrCannotDo;
    pthread_mutex_lock(&p->lock);
    int done = 0, result = 0;
    for (int k = 0; k <= count && k < p->count; ++k) {
        long target = long(p->pos) + long(k) * p->direction;
        if (p->mode == PXF_PLAY_LOOP) target = ((target % p->count) + p->count) % p->count;
        else if (target < 0 || target >= p->count) break;
        int pos = int(target);
        if (cached(*p, pos)) continue;
        Slot *v = victim(*p, pos);
        if (!v) break;  // the budget is full of nearer frames
        if ((result = fill(*p, *v, pos)) != 0) break;
        ++done;
    }
    pthread_mutex_unlock(&p->lock);
    return result ? result : done;
}

int PXF_playback_cached(PXF_PLAYBACK *p, size_t *bytes) {
    if (!p) return 0;
    pthread_mutex_lock(&p->lock);
    int n = 0;
    for (int i = 0; i < p->slot_count; ++i) n += p->slots[i].pos >= 0 && !p->slots[i].busy;
    pthread_mutex_unlock(&p->lock);
    if (bytes) *bytes = std::size_t(n) * p->frame_bytes;
    return n;
}
