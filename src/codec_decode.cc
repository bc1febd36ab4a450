// decode: wire bytes straight to a hash in the hash form.  One bounds-checked
// pass over the input notes where each field's last value is (strings are
// not copied until the end, so a repeated field costs nothing), collects list
// elements and unknown runs in mortal arrays, and croaks with the offset of
// the faulty item; only then is the hash built, pre-sized, with precomputed
// key hashes.  A croak never leaves a partial hash behind.
#include <charconv>

#include <google/protobuf/wire_format_lite.h>

#include "address_text.h"
#include "codec_common.h"
#include "convert.h"
#include "runtime_log.h"

namespace qel {
namespace codec {
namespace {

using namespace codec_text;
using google::protobuf::internal::WireFormatLite;
using Byte = unsigned char;

constexpr uint64_t kMaxInput = 2147483647;

// What was read of one address (all its occurrences merged).
struct AddressState {
    uint32_t word[32];
    uint32_t present;  // bit j: field j of the address level
    size_t known;      // known values read: the positions of its runs
    AV *unknown;       // mortal, or null
};

// The last value of a singular field, or the elements of a list.
union Value {
    struct {
        const Byte *p;
        size_t len;
    } s;
    uint64_t n;
    AV *list;
};

// A string read that is not UTF-8, reported once the whole decode succeeded.
struct Bad {
    const char *full_name;
    const Byte *p;
    size_t len;
};

struct Dec {
    const Byte *begin;
    unsigned options;
    uint64_t present[(kRecordFieldCount + 63) / 64];
    Value value[kRecordFieldCount];
    AddressState address[kRecordAddressCount ? kRecordAddressCount : 1];
    AV *unknown;  // top-level runs: mortal, or null
    SV *bad;      // array of Bad in a mortal buffer, or null
    const uint64_t *only;  // the fields to decode (bit per field index), or null for all
    bool canonical;        // so far, encode would give the input back byte for byte
    WireError err;
};

inline bool bit(const uint64_t *bits, size_t i) { return bits[i / 64] >> (i % 64) & 1; }
inline bool is_present(const Dec &d, size_t i) { return bit(d.present, i); }
inline void set_present(Dec &d, size_t i) { d.present[i / 64] |= uint64_t(1) << (i % 64); }

// A run of consecutive unknown fields as "POS:HEX" at the end of `*av`.
void add_run(pTHX_ AV **av, size_t pos, const Byte *from, const Byte *to) {
    static const char digits[] = "0123456789abcdef";
    if (!*av)
        *av = reinterpret_cast<AV *>(sv_2mortal(reinterpret_cast<SV *>(newAV())));
    const size_t len = static_cast<size_t>(to - from);
    SV *sv = newSV(24 + 2 * len);
    char *p = SvPVX(sv);
    p = std::to_chars(p, p + 20, pos).ptr;
    *p++ = ':';
    for (const Byte *b = from; b < to; ++b) {
        *p++ = digits[*b >> 4];
        *p++ = digits[*b & 15];
    }
    *p = '\0';
    SvCUR_set(sv, static_cast<STRLEN>(p - SvPVX(sv)));
    SvPOK_only(sv);
    av_push(*av, sv);
}

// A string value as a new scalar: bytes, or with the characters option,
// characters when they are UTF-8 and surrogate escapes (U+DC80..U+DCFF) for
// each byte that is not part of a valid sequence.
SV *string_sv(pTHX_ Dec &d, const Field &f, const Byte *p, size_t len) {
    const Utf8 kind = classify_utf8(p, len);
    if (kind == Utf8::Ascii)
        return newSVpvn(reinterpret_cast<const char *>(p), len);
    if (kind == Utf8::Invalid) {
        if (!d.bad)
            d.bad = sv_2mortal(newSVpvs(""));
        const Bad bad{f.full_name, p, len};
        sv_catpvn(d.bad, reinterpret_cast<const char *>(&bad), sizeof bad);
    }
    if (!(d.options & kCharacters))
        return newSVpvn(reinterpret_cast<const char *>(p), len);
    if (kind == Utf8::Valid) {
        SV *sv = newSVpvn(reinterpret_cast<const char *>(p), len);
        SvUTF8_on(sv);
        return sv;
    }
    SV *sv = newSV(3 * len + 1);  // an escape takes three bytes
    char *out = SvPVX(sv);
    const Byte *end = p + len;
    while (p < end) {
        const size_t n = utf8_sequence(p, end);
        if (n) {
            std::memcpy(out, p, n);
            out += n;
            p += n;
        } else {  // U+DC00 + byte, as Perl's internal UTF-8
            const unsigned cp = 0xDC00u + *p++;
            *out++ = static_cast<char>(0xE0 | (cp >> 12));
            *out++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            *out++ = static_cast<char>(0x80 | (cp & 0x3F));
        }
    }
    *out = '\0';
    SvCUR_set(sv, static_cast<STRLEN>(out - SvPVX(sv)));
    SvPOK_only(sv);
    SvUTF8_on(sv);
    return sv;
}

// Whether the varint or tag that ended at `q`, begun at `p`, is the one
// encode writes for its value: a longer one ends in a zero byte, and a
// tenth byte holds only bit 63 (the reader drops anything above).
inline bool minimal(const Byte *p, const Byte *q) {
    return q - p == 1 || (q[-1] != 0 && (q - p < 10 || q[-1] == 1));
}

// A length-delimited value: its bytes, checked against the end.
inline const Byte *read_length(Dec &d, const Byte *p, const Byte *end, const Field *f, uint32_t number,
                               const char *context, size_t &len) {
    uint64_t n;
    const Byte *q = read_varint(p, end, n, d.err);
    if (!q)
        return nullptr;
    if (!minimal(p, q))
        d.canonical = false;
    if (n > static_cast<uint64_t>(end - q))
        return fail(d.err, p, Reason::LengthPastEnd, number, f ? f->name : nullptr, context);
    len = static_cast<size_t>(n);
    return q;
}

// The fields of one occurrence of an address, `p`..`end`.
bool read_address(pTHX_ Dec &d, const Byte *p, const Byte *end, AddressState &a, const Field &outer) {
    const Level &level = *levels().address;
    const bool keep = !(d.options & kDropUnknown);
    const Byte *run = nullptr;
    size_t run_pos = 0;
    // Encode writes each word once, in field order, each value as its
    // shortest varint below 2^32.
    if (a.known)
        d.canonical = false;  // a second occurrence: encode writes one
    size_t next = 0;
    while (p < end) {
        const Byte *at = p;
        uint32_t tag;
        if (!(p = read_tag(p, end, tag, d.err))) {
            d.err.context = outer.name;
            return false;
        }
        const Field *f = level.find(tag >> 3);
        if (f && (tag & 7) == f->wire_type) {
            const Byte *v_at = p;
            uint64_t v;
            if (!(p = read_varint(p, end, v, d.err)))
                return false;
            if (run) {
                add_run(aTHX_ &a.unknown, run_pos, run, at);
                run = nullptr;
            }
            const size_t j = static_cast<size_t>(f - level.fields);
            if (j < next || !minimal(at, v_at) || !minimal(v_at, p) || v > UINT32_MAX)
                d.canonical = false;
            next = j + 1;
            a.word[j] = static_cast<uint32_t>(v);  // the low 32 bits, as the runtime keeps
            a.present |= uint32_t(1) << j;
            ++a.known;
            continue;
        }
        if (!(p = skip_value(at, p, end, tag, &level, outer.name, 1, d.err)))
            return false;
        if (keep && !run) {
            run = at;
            run_pos = a.known;
        }
    }
    if (run)
        add_run(aTHX_ &a.unknown, run_pos, run, end);
    return true;
}

// The whole input; false with d.err set on malformed input.
bool read_record(pTHX_ Dec &d, const Byte *p, const Byte *end) {
    const Level &level = *levels().record;
    const bool keep = !(d.options & kDropUnknown);
    const Byte *run = nullptr;
    size_t run_pos = 0, known = 0;
    // Encode writes the fields in field order, each once (a list's elements
    // one after another), with the shortest tags and varints.
    size_t next = 0;
    while (p < end) {
        const Byte *at = p;
        uint32_t tag;
        if (!(p = read_tag(p, end, tag, d.err)))
            return false;
        const Field *f = level.find(tag >> 3);
        if (f && d.only && !bit(d.only, static_cast<size_t>(f - level.fields))) {
            // A field the caller did not ask for: passed over like a dropped
            // unknown field.
            if (!(p = skip_value(at, p, end, tag, &level, nullptr, 0, d.err)))
                return false;
            continue;
        }
        if (f && (tag & 7) == f->wire_type) {
            const size_t i = static_cast<size_t>(f - level.fields);
            Value &value = d.value[i];
            if ((i < next && !(i + 1 == next && f->family == Family::StringList)) || !minimal(at, p))
                d.canonical = false;
            next = i + 1;
            const Byte *v_at = p;
            switch (f->family) {
            case Family::String: {
                size_t len;
                if (!(p = read_length(d, p, end, f, f->number, nullptr, len)))
                    return false;
                value.s.p = p;  // the last one wins
                value.s.len = len;
                p += len;
                break;
            }
            case Family::UInt32:
            case Family::UInt64:
            case Family::Bool:
                if (!(p = read_varint(p, end, value.n, d.err)))
                    return false;
                if (!minimal(v_at, p) || (f->family == Family::UInt32 && value.n > UINT32_MAX) ||
                    (f->family == Family::Bool && value.n > 1))
                    d.canonical = false;
                break;
            case Family::Address: {
                size_t len;
                if (!(p = read_length(d, p, end, f, f->number, nullptr, len)))
                    return false;
                AddressState &a = d.address[f->slot];
                if (!is_present(d, i)) {
                    a.present = 0;
                    a.known = 0;
                    a.unknown = nullptr;
                }
                // Occurrences merge; each counts one level of nesting.
                if (!read_address(aTHX_ d, p, p + len, a, *f))
                    return false;
                p += len;
                break;
            }
            case Family::StringList: {
                size_t len;
                if (!(p = read_length(d, p, end, f, f->number, nullptr, len)))
                    return false;
                if (!is_present(d, i))
                    value.list = reinterpret_cast<AV *>(sv_2mortal(reinterpret_cast<SV *>(newAV())));
                av_push(value.list, string_sv(aTHX_ d, *f, p, len));
                p += len;
                break;
            }
            }
            set_present(d, i);
            if (run) {
                add_run(aTHX_ &d.unknown, run_pos, run, at);
                run = nullptr;
            }
            ++known;
            continue;
        }
        if (!(p = skip_value(at, p, end, tag, &level, nullptr, 0, d.err)))
            return false;
        if (keep && !run) {
            run = at;
            run_pos = known;
        }
    }
    if (run)
        add_run(aTHX_ &d.unknown, run_pos, run, end);
    return true;
}

inline void store(pTHX_ HV *hv, const char *key, size_t len, U32 hash, SV *value) {
    hv_common_key_len(hv, key, static_cast<I32>(len), HV_FETCH_ISSTORE | HV_FETCH_JUST_SV, value, hash);
}

SV *address_value(pTHX_ const Dec &d, const AddressState &a) {
    const Level &level = *levels().address;
    const uint32_t all = static_cast<uint32_t>((uint64_t(1) << level.count) - 1);
    if ((d.options & kTextAddresses) && a.present == all && !a.unknown) {
        AddressWords words;
        for (size_t j = 0; j < 4; ++j)
            words.ip[j] = a.word[j];
        words.rtdom_id = a.word[4];
        char text[kAddressTextMax];
        const size_t len = format_address_text(words, text);
        return newSVpvn(text, len);
    }
    HV *hv = newHV();
    for (size_t j = 0; j < level.count; ++j) {
        if (a.present >> j & 1) {
            const Field &f = level.fields[j];
            store(aTHX_ hv, f.name, f.len, level.hashes[j], newSVuv(a.word[j]));
        }
    }
    if (a.unknown)
        store(aTHX_ hv, kUnknownKey, kUnknownKeyLen, unknown_key_hash, newRV_inc(reinterpret_cast<SV *>(a.unknown)));
    return newRV_noinc(reinterpret_cast<SV *>(hv));
}

HV *build_hash(pTHX_ Dec &d) {
    const Level &level = *levels().record;
    size_t count = d.unknown ? 1 : 0;
    for (const uint64_t word : d.present)
        count += static_cast<size_t>(__builtin_popcountll(word));
    HV *hv = newHV();
    if (count > 7)
        hv_ksplit(hv, count);
    for (size_t i = 0; i < level.count; ++i) {
        if (!is_present(d, i))
            continue;
        const Field &f = level.fields[i];
        const Value &value = d.value[i];
        SV *sv;
        switch (f.family) {
        case Family::String: sv = string_sv(aTHX_ d, f, value.s.p, value.s.len); break;
        case Family::UInt32: sv = newSVuv(static_cast<uint32_t>(value.n)); break;
        case Family::UInt64: sv = value_to_sv(aTHX_ static_cast<uint64_t>(value.n)); break;
        case Family::Bool: sv = newSViv(value.n != 0); break;
        case Family::Address: sv = address_value(aTHX_ d, d.address[f.slot]); break;
        case Family::StringList: sv = newRV_inc(reinterpret_cast<SV *>(value.list)); break;
        default: sv = newSV(0); break;
        }
        store(aTHX_ hv, f.name, f.len, level.hashes[i], sv);
    }
    if (d.unknown)
        store(aTHX_ hv, kUnknownKey, kUnknownKeyLen, unknown_key_hash, newRV_inc(reinterpret_cast<SV *>(d.unknown)));
    return hv;
}

}  // namespace

SV *decode_bytes(pTHX_ SV *arg, unsigned options) {
    arg = fetched_once(aTHX_ arg);
    if (SvROK(arg) || isGV_with_GP(arg) || !SvOK(arg))
        croak(kExpectedBytes, describe(aTHX_ arg));
    const char *bytes;
    STRLEN len;
    if (SvPOK(arg) && !SvUTF8(arg)) {
        bytes = SvPVX(arg);
        len = SvCUR(arg);
    } else {  // a copy: the caller's value stays as it is
        SV *copy = sv_mortalcopy(arg);
        bytes = SvPV(copy, len);
        if (SvUTF8(copy)) {
            if (!sv_utf8_downgrade(copy, TRUE))
                croak("%s", kWideInBytes);
            bytes = SvPV(copy, len);
        }
    }
    if (len > kMaxInput)
        croak(kInputTooLong, static_cast<UV>(len));
    Fault fault;
    SV *result = decode_buffer(aTHX_ bytes, len, options, fault);
    if (!result)
        croak(kMalformedRecord, static_cast<UV>(fault.at), SvPVX(fault.reason));
    return result;
}

SV *decode_buffer(pTHX_ const char *bytes, size_t len, unsigned options, Fault &fault, const uint64_t *only,
                  bool *canonical) {
    Dec d;
    d.only = only;
    d.canonical = true;
    d.begin = reinterpret_cast<const Byte *>(bytes);
    d.options = options;
    std::memset(d.present, 0, sizeof d.present);
    d.unknown = nullptr;
    d.bad = nullptr;
    if (!read_record(aTHX_ d, d.begin, d.begin + len)) {
        fault.at = static_cast<size_t>(d.err.at - d.begin);
        fault.reason = reason_text(aTHX_ d.err);
        return nullptr;
    }
    SV *result = sv_2mortal(newRV_noinc(reinterpret_cast<SV *>(build_hash(aTHX_ d))));
    if (canonical)
        *canonical = d.canonical;
    if (d.bad) {
        // The runtime's own report, in input order (list elements were read
        // before the singular fields).
        Bad *bad = reinterpret_cast<Bad *>(SvPVX(d.bad));
        const size_t n = SvCUR(d.bad) / sizeof(Bad);
        for (size_t i = 1; i < n; ++i)
            for (size_t j = i; j > 0 && bad[j].p < bad[j - 1].p; --j) {
                const Bad t = bad[j];
                bad[j] = bad[j - 1];
                bad[j - 1] = t;
            }
        for (size_t i = 0; i < n; ++i)
            WireFormatLite::VerifyUtf8String(reinterpret_cast<const char *>(bad[i].p), static_cast<int>(bad[i].len),
                                             WireFormatLite::PARSE, bad[i].full_name);
        flush_runtime_log(aTHX);
    }
    return result;
}

}  // namespace codec
}  // namespace qel
