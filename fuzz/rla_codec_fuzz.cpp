// Arbitrary blocks through every run-length decoder, and arbitrary rows through every
// encoder and back.
//
// Input: byte 0 picks the codec, bytes 1-2 the element count, byte 3 the leading and
// trailing counts; the rest is the block (read where libFuzzer put it, so reading past
// its end is caught) and, for the round trip, the row.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <pxf/rla.h>

namespace {

struct Codec {
    RLA_ENCODER encode;
    RLA_DECODER decode;
    RLA_INACT_DECODER inactive;
    size_t size;
    bool packed;  // run-length packets rather than the elements' bytes
};

const Codec kCodecs[] = {
    {rla__enc_byte, rla__dec_byte, rla__inact_dec_byte, 1, true},
    {rla__enc_short, rla__dec_short, rla__inact_dec_short, 2, true},
    {rla__enc_word, rla__dec_word, rla__inact_dec_word, 4, true},
    {rla__enc_float, rla__dec_float, rla__inact_dec_float, 4, false},
    {rla__enc_double, rla__dec_double, rla__inact_dec_double, 8, false},
};

void check(bool ok) {
    if (!ok) std::abort();
}

bool all_zero(const uint8_t *p, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (p[i]) return false;
    return true;
}

// Encodes `count` elements of bytes into an exactly worst-case-sized buffer, decodes them
// back and checks they came back unchanged.
void round_trip(const Codec &c, const uint8_t *bytes, size_t count) {
    std::unique_ptr<uint8_t[]> aligned(new uint8_t[count * c.size + 1]);
    if (count) std::memcpy(aligned.get(), bytes, count * c.size);
    const uint8_t *row = aligned.get();
    const size_t worst = RLA_ENCODED_MAX(count, c.size);
    std::unique_ptr<uint8_t[]> packed(new uint8_t[worst + 1]);
    const int n = c.encode(row, 0, static_cast<unsigned>(count), packed.get());
    check(n >= 0 && static_cast<size_t>(n) <= worst);
    check(c.packed || static_cast<size_t>(n) == count * c.size);
    std::unique_ptr<uint8_t[]> back(new uint8_t[count * c.size + 1]);
    check(c.decode(packed.get(), n, back.get(), static_cast<int>(count), 0, 0) == static_cast<int>(count));
    check(count == 0 || std::memcmp(back.get(), row, count * c.size) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 4) return 0;
    const Codec &c = kCodecs[data[0] % 5];
    const size_t count = (data[1] | data[2] << 8) % 2048;
    const unsigned leading = data[3] & 7;
    const size_t trailing = data[3] >> 5;
    const uint8_t *block = data + 4;
    const size_t length = size - 4;

    const size_t total = leading + count + trailing;
    std::unique_ptr<uint8_t[]> dest(new uint8_t[total * c.size + 1]);
    std::memset(dest.get(), 0xA5, total * c.size);
    const int r = c.decode(block, static_cast<int>(length), dest.get(), static_cast<int>(count), leading,
                           static_cast<int>(trailing));
    if (r == 0) {
        check(all_zero(dest.get(), total * c.size));
    } else {
        check(r == static_cast<int>(total));
        check(all_zero(dest.get(), leading * c.size));
        check(all_zero(dest.get() + (leading + count) * c.size, trailing * c.size));
        // Whatever decoded must survive being encoded and decoded again.
        round_trip(c, dest.get() + leading * c.size, count);
    }

    // The block read as a row.
    round_trip(c, block, length / c.size);

    std::memset(dest.get(), 0xA5, total * c.size);
    check(c.inactive(dest.get(), static_cast<int>(total)) == 0);
    check(all_zero(dest.get(), total * c.size));
    return 0;
}
