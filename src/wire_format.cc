// The slow paths of the wire primitives (wire_format.h).
#include "wire_format.h"

namespace qel {
namespace wire {

const unsigned char *read_varint_slow(const unsigned char *p, const unsigned char *end, uint64_t &out,
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
