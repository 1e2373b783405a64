// The container's on-disk records (laid out in pxf/frames.h) and the
// helpers its reader and writer share.
#pragma once

#include <cstdint>
#include <cstring>

#include <pxf/frames.h>

#include "formats/rla_header.h"

namespace pxf::mpc {

inline constexpr char kMagic[8] = {'P', 'X', 'F', 'M', 'P', 'C', '\r', '\n'};
inline constexpr char kIndexMagic[8] = {'M', 'P', 'C', 'I', 'N', 'D', 'E', 'X'};
inline constexpr char kFrameMagic[4] = {'M', 'P', 'C', 'F'};
inline constexpr int kVersion = 1;
inline constexpr std::size_t kHeaderSize = 256;
inline constexpr std::size_t kIndexHead = 16;
inline constexpr std::size_t kEntrySize = 24;
inline constexpr std::size_t kFrameHead = 16;

// Message numbers (set 902).
inline constexpr int kMsgNotMpc = 700;
inline constexpr int kMsgVersion = 701;
inline constexpr int kMsgBadIndex = 702;
inline constexpr int kMsgBadEntry = 703;
inline constexpr int kMsgUnordered = 704;
inline constexpr int kMsgFrameMismatch = 705;
inline constexpr int kMsgNoFrame = 706;
inline constexpr int kMsgNoFrames = 707;
inline constexpr int kMsgIncomplete = 708;
inline constexpr int kMsgCannotAppend = 709;
inline constexpr int kMsgNotMultiFrame = 710;
inline constexpr int kMsgMissingFrames = 711;
inline constexpr int kMsgNoSequence = 712;
inline constexpr int kMsgSequenceMismatch = 713;
inline constexpr int kMsgBadDescription = 714;
inline constexpr int kMsgBudget = 715;
inline constexpr int kMsgChannels = 716;

inline constexpr const char *kDriverName = "mpc";

struct GroupShape {
    int32_t count, type, width;
};

// The header's fields; texts NUL-terminated.
struct Header {
    int version;
    int header_size;
    uint32_t frames;
    uint64_t index;
    PXF_BOUNDS window, active;
    GroupShape groups[3];  // colour, matte, auxiliary
    float gamma, aspect_ratio, frame_rate;
    float primaries[8];
    char chan_format[33], aux_format[33], aspect[25];
};

struct Entry {
    int32_t frame;
    uint64_t offset, length;
};

inline void put64(unsigned char *p, uint64_t v) noexcept {
    rla::put32(p, uint32_t(v >> 32));
    rla::put32(p + 4, uint32_t(v));
}
inline uint64_t get64(const unsigned char *p) noexcept { return uint64_t(rla::get32(p)) << 32 | rla::get32(p + 4); }
inline void putf(unsigned char *p, float f) noexcept {
    uint32_t v;
    std::memcpy(&v, &f, 4);
    rla::put32(p, v);
}
inline float getf(const unsigned char *p) noexcept {
    uint32_t v = rla::get32(p);
    float f;
    std::memcpy(&f, &v, 4);
    return f;
}

void pack(const Header &h, unsigned char out[kHeaderSize]) noexcept;
// False when the magic is wrong; the version is the caller's to check.
bool unpack(const unsigned char in[kHeaderSize], Header &h) noexcept;

// The layout every frame shares, worked out from a description.
struct Layout {
    PXF_BOUNDS window, active;
    int width, leading, active_width, trailing, active_height, channels;
    const rla::Codec *codecs[3];  // per group; null for an empty group
    int counts[3];
    uint64_t row_bytes;           // one window row of every channel in memory
};
// False when a group's type or width has no codec or the windows are
// inverted, the active window outside the window, or the sizes absurd;
// `group` then tells which group failed (-1: the windows).
bool layout_of(const PXF_BOUNDS &window, const PXF_BOUNDS &active, const GroupShape groups[3], Layout &out,
               int &group, rla::Fault &fault) noexcept;
// The codec of channel c.
inline const rla::Codec *codec_of(const Layout &l, int c) noexcept {
    return c < l.counts[0] ? l.codecs[0] : c < l.counts[0] + l.counts[1] ? l.codecs[1] : l.codecs[2];
}

// Whether the first bytes of a file are a container's.
bool plausible(const unsigned char *bytes, std::size_t n) noexcept;

}  // namespace pxf::mpc

namespace pxf::mpc {
// Reads and checks the header and index of the container open on `fd`
// (`size` bytes); the index is the caller's to free.  False after a report.
bool load_index(int fd, const char *path, uint64_t size, Header &h, Layout &layout, Entry *&index,
                uint32_t &count) noexcept;
}  // namespace pxf::mpc
