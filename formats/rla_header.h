// The on-disk header of an RLA image and what the reader and writer share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include <pxf/pxf.h>
#include <pxf/rla.h>
#include <pxf/wmi.h>

namespace pxf::rla {

inline constexpr std::size_t kHeaderSize = 740;
inline constexpr std::size_t kTimeOffset = 614;
inline constexpr std::size_t kNextOffset = 736;
// The image channels' storage type; a file being written holds kUnfinished
// there until its last byte is in place (the probe refuses negative types).
inline constexpr std::size_t kTypeOffset = 18;
inline constexpr int kUnfinished = -1;
inline constexpr int kRevision = -2;
// Scanline blocks carry 16-bit lengths.
inline constexpr std::size_t kMaxBlock = 65535;
// Window coordinates are 16-bit signed and never negative.
inline constexpr int kMaxCoordinate = 32767;

// Storage types of a channel group.
inline constexpr int kStoreInteger = 0;
inline constexpr int kStoreFloat = 4;
inline constexpr int kStoreDouble = 5;

// Message numbers (set 902) of the driver.
inline constexpr int kMsgCannotOpen = 52;
inline constexpr int kMsgBadScanline = 53;
inline constexpr int kMsgCannotRead = 54;
inline constexpr int kMsgCannotReadScanline = 55;
inline constexpr int kMsgCannotWrite = 56;
inline constexpr int kMsgCannotWriteScanline = 57;
inline constexpr int kMsgCannotDecode = 58;
inline constexpr int kMsgNotRla = 59;
inline constexpr int kMsgBadWindow = 60;
inline constexpr int kMsgBlockLimit = 241;
inline constexpr int kMsgEndOfFile = 89;
inline constexpr int kMsgBadOffset = 90;
inline constexpr int kMsgIncomplete = 97;
inline constexpr int kMsgFilled = 98;
inline constexpr int kMsgNotKept = 99;

inline constexpr const char *kDriverName = "rla";

// The header's fields; texts are NUL-terminated (one byte longer than on disk).
struct Header {
    PXF_BOUNDS window;
    PXF_BOUNDS active;
    int frame;
    int chan_type, chan_count, matte_count, aux_count, revision;
    char gamma[17];
    char red[25], green[25], blue[25], white[25];
    int32_t job;
    char name[129], desc[129], program[65], machine[33], user[33], date[21];
    char aspect[25], aspect_ratio[9], chan_format[33];
    int field;
    char time[13];
    char filter[33];
    int chan_bits, matte_type, matte_bits, aux_type, aux_bits;
    char aux_format[33];
    uint32_t next;
};

void pack(const Header &h, unsigned char out[kHeaderSize]) noexcept;
void unpack(const unsigned char in[kHeaderSize], Header &h) noexcept;
// Whether the bytes look like the first header of an RLA file.
bool plausible(const unsigned char in[kHeaderSize]) noexcept;

// Storage type of an element type (0 for anything unknown), and back (0 when unknown).
int storage_type(int element_type) noexcept;
int element_type(int storage) noexcept;

// Header fields and offsets are big-endian.
inline void put16(unsigned char *p, int v) noexcept { WMI_put_u16(p, static_cast<uint16_t>(v), WMI_BIG_ENDIAN); }
inline void put32(unsigned char *p, uint32_t v) noexcept { WMI_put_u32(p, v, WMI_BIG_ENDIAN); }
inline unsigned get16u(const unsigned char *p) noexcept { return WMI_get_u16(p, WMI_BIG_ENDIAN); }
inline int get16(const unsigned char *p) noexcept { return WMI_get_i16(p, WMI_BIG_ENDIAN); }
inline uint32_t get32(const unsigned char *p) noexcept { return WMI_get_u32(p, WMI_BIG_ENDIAN); }

// How one channel is stored: its encoder, decoders and element size.
struct Codec {
    RLA_ENCODER encode;
    RLA_DECODER decode;
    RLA_INACT_DECODER clear;
    int bytes;  // per element in memory
    int bits;   // width recorded for float and double, 0 to keep the caller's
};
enum class Fault { none, type, width };
// The codec of an element type and width; null with `fault` set when there is none.
const Codec *codec_for(int type, int width, Fault &fault) noexcept;

// The three channel groups in file order, with their messages.
struct Group {
    PXF_CHAN_GROUP PXF_IMAGE_DESC::*member;
    int type_number;
    const char *type_text;
    int width_number;
    const char *width_text;
};
extern const Group kGroups[3];

// Opens an RLA image from `stream`, which the handle owns from then on
// (closed by the close routine, or here on failure unless it is stdin).
// `path` names the file in messages.  The body of PXF_rla_r_open.
int read_open_stream(PXF_IMAGE *image, std::FILE *stream, const char *path) noexcept;

}  // namespace pxf::rla

namespace pxf {
extern const PXF_TYPE rla_driver_type;
}
