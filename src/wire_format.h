// The wire format's primitives, bounds-checked, that say where and why input
// is malformed: varints, tags, and the reasons of a fault.  No Perl in it: the
// codec and the record class's reader (wire_reader.cc) both read with these.
#ifndef QEL_WIRE_FORMAT_H
#define QEL_WIRE_FORMAT_H

#include <cstddef>
#include <cstdint>

namespace qel {
namespace wire {

enum : unsigned { kVarint = 0, kFixed64 = 1, kLengthDelimited = 2, kStartGroup = 3, kEndGroup = 4, kFixed32 = 5 };

enum class Reason : unsigned char {
    TruncatedVarint,
    VarintTooLong,
    FieldNumberZero,
    TagTooLong,
    WireType,
    LengthPastEnd,
    TruncatedFixed32,
    TruncatedFixed64,
    EndGroupWithoutStart,
    GroupNotClosed,
    TooDeep,
};

// Where and why wire data is malformed.  The field of the reason is its
// number, its name when the number is a field of the level it sits at, and
// the address it sits in, if any.
struct WireError {
    const unsigned char *at;
    Reason reason;
    uint32_t number;
    const char *name;
    const char *context;
    unsigned wire_type;
};

inline const unsigned char *fail(WireError &e, const unsigned char *at, Reason r, uint32_t number = 0,
                                 const char *name = nullptr, const char *context = nullptr) {
    e.at = at;
    e.reason = r;
    e.number = number;
    e.name = name;
    e.context = context;
    return nullptr;
}

const unsigned char *read_varint_slow(const unsigned char *p, const unsigned char *end, uint64_t &out,
                                      WireError &e);

// A varint of up to 10 bytes (bits past the 64th are dropped, as the runtime
// does); null and `e` set when it is cut off or longer.
inline const unsigned char *read_varint(const unsigned char *p, const unsigned char *end, uint64_t &out,
                                        WireError &e) {
    if (p < end && *p < 0x80) {
        out = *p;
        return p + 1;
    }
    return read_varint_slow(p, end, out, e);
}

const unsigned char *read_tag_slow(const unsigned char *p, const unsigned char *end, uint32_t &tag,
                                   WireError &e);

// A tag: at most 5 bytes and 32 bits, a field number other than 0, a wire
// type other than 6 and 7.  `p` < `end`.  Tags of one byte and the shortest
// two-byte tags (field numbers 16 to 2047) are read inline: the second byte
// of such a tag is not 0, so its field number is at least 16.
inline const unsigned char *read_tag(const unsigned char *p, const unsigned char *end, uint32_t &tag,
                                     WireError &e) {
    if (*p < 0x80) {
        if (*p >= 8 && (*p & 7) < 6) {
            tag = *p;
            return p + 1;
        }
    } else if (end - p >= 2 && p[1] < 0x80 && p[1] != 0 && (*p & 7) < 6) {
        tag = (p[0] & 0x7fu) | static_cast<uint32_t>(p[1]) << 7;
        return p + 2;
    }
    return read_tag_slow(p, end, tag, e);
}

inline char *put_varint(char *p, uint64_t v) {
    while (v >= 0x80) {
        *p++ = static_cast<char>(v | 0x80);
        v >>= 7;
    }
    *p++ = static_cast<char>(v);
    return p;
}

inline size_t varint_size(uint64_t v) {
    size_t n = 1;
    while (v >= 0x80) {
        v >>= 7;
        ++n;
    }
    return n;
}

}  // namespace wire
}  // namespace qel

#endif
