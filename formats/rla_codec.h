// The run-length codec behind the rla__ entry points, over the element type.
#pragma once

#include <cstddef>
#include <cstdint>

namespace pxf::rla {

// Packets never hold more than this many elements.
inline constexpr size_t kMaxPacket = 128;
// Shorter stretches of equal bytes stay in literal packets.
inline constexpr size_t kMinRun = 3;

// Bytes the encoder may write for n elements of type T.
template <typename T>
constexpr uint64_t encoded_max(uint64_t n) {
    return sizeof(T) * (n + (n + kMaxPacket - 1) / kMaxPacket);
}

// Run-length encodes n unsigned integer elements as sizeof(T) byte planes, most
// significant first; returns the bytes written to out.
template <typename T>
size_t encode(const T *elements, size_t n, uint8_t *out);

// Decodes n elements written by encode<T> from the `length` bytes at block.  False when
// the block is damaged or not consumed exactly; dest may then hold partial data.
template <typename T>
bool decode(const uint8_t *block, size_t length, T *dest, size_t n);

// Floating-point channels are stored as their bytes.
template <typename T>
size_t store(const T *elements, size_t n, uint8_t *out);
template <typename T>
bool load(const uint8_t *block, size_t length, T *dest, size_t n);

// The byte-plane decoder without wide vectors, which decode<uint8_t> falls back on where
// the processor lacks them.  Returns the input position after the plane, or null.
const uint8_t *decode_byte_plane_portable(const uint8_t *in, const uint8_t *end, uint8_t *o, size_t n);

}  // namespace pxf::rla
