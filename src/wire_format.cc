// The slow paths of the wire primitives (wire_format.h).
#include "wire_format.h"

#include <endian.h>

#include <cstring>

namespace qel {
namespace wire {

namespace {

// A varint byte by byte, each byte checked against the end.
const unsigned char *read_varint_bytewise(const unsigned char *p, const unsigned char *end, uint64_t &out,
                                          WireError &e) {
    uint64_t v = 0;
    for (int i = 0; i < 10; ++i) {
        if (p + i >= end)
            return fail(e, p, Reason::TruncatedVarint);
        const unsigned b = p[i];
        v |= static_cast<uint64_t>(b & 0x7f) << (7 * i);
        if (!(b & 0x80)) {
            out = v;
            return p + i + 1;
        }
    }
    return fail(e, p, Reason::VarintTooLong);
}

}  // namespace

// With eight bytes left, the varint's first eight bytes are read as one
// little-endian word: the first byte without its high bit ends the varint,
// the bytes after it are masked off, and the 7-bit groups are packed together
// in three shift-and-merge steps instead of a loop per byte.  Varints of nine
// and ten bytes (large uint64 values) add their last bytes one by one.  What
// is read and what is refused are exactly those of the byte-by-byte loop.
const unsigned char *read_varint_slow(const unsigned char *p, const unsigned char *end, uint64_t &out,
                                      WireError &e) {
    if (end - p < 8)
        return read_varint_bytewise(p, end, out, e);
    uint64_t w;
    std::memcpy(&w, p, 8);
    w = le64toh(w);
    const uint64_t stops = ~w & 0x8080808080808080ull;  // the high bit of each byte that ends
    if (stops)
        w &= stops ^ (stops - 1);  // the bytes up to the first end, that one included
    else if (end - p < 10)
        return read_varint_bytewise(p, end, out, e);
    w &= 0x7f7f7f7f7f7f7f7full;
    w = (w & 0x007f007f007f007full) | ((w & 0x7f007f007f007f00ull) >> 1);
    w = (w & 0x00003fff00003fffull) | ((w & 0x3fff00003fff0000ull) >> 2);
    w = (w & 0x000000000fffffffull) | ((w & 0x0fffffff00000000ull) >> 4);
    if (stops) {
        out = w;
        return p + __builtin_ctzll(stops) / 8 + 1;
    }
    // Nine or ten bytes: of the tenth, only the lowest bit is within 64 bits.
    w |= static_cast<uint64_t>(p[8] & 0x7f) << 56;
    if (p[8] < 0x80) {
        out = w;
        return p + 9;
    }
    if (p[9] >= 0x80)
        return fail(e, p, Reason::VarintTooLong);
    out = w | static_cast<uint64_t>(p[9]) << 63;
    return p + 10;
}

const unsigned char *read_tag_slow(const unsigned char *p, const unsigned char *end, uint32_t &tag,
                                   WireError &e) {
    uint64_t v = 0;
    const unsigned char *q = p;
    for (int i = 0;; ++i) {
        if (i == 5)
            return fail(e, p, Reason::TagTooLong);
        if (q >= end)
            return fail(e, p, Reason::TruncatedVarint);
        const unsigned b = *q++;
        v |= static_cast<uint64_t>(b & 0x7f) << (7 * i);
        if (!(b & 0x80))
            break;
    }
    if (v > 0xFFFFFFFFu)
        return fail(e, p, Reason::TagTooLong);
    if ((v >> 3) == 0)
        return fail(e, p, Reason::FieldNumberZero);
    if ((v & 7) >= 6) {
        fail(e, p, Reason::WireType);
        e.wire_type = static_cast<unsigned>(v & 7);
        return nullptr;
    }
    tag = static_cast<uint32_t>(v);
    return q;
}

}  // namespace wire
}  // namespace qel
