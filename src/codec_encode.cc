// encode: a hash in the hash form straight to wire bytes, in one pass over the
// field table.  Each key is looked up once with its precomputed hash value,
// each value checked strictly and written at once into the buffer of the
// result string; the first problem croaks (the result is a mortal, so nothing
// leaks).  Unknown keys are detected by counting the keys found against the
// hash's key count, so a clean hash is never iterated.
#include <cmath>

#include <google/protobuf/wire_format_lite.h>

#include "address_text.h"
#include "codec_common.h"
#include "hash_form.h"
#include "runtime_log.h"

namespace qel {
namespace codec {
namespace {

using namespace codec_text;
using google::protobuf::internal::WireFormatLite;

constexpr char kMaxUInt32Text[] = "4294967295";
constexpr char kMaxUInt64Text[] = "18446744073709551615";

// Room for the bytes of a typical record before the first growth.
constexpr size_t kFirstSize = 512;

// The result string, written through `p`; `lim` keeps one byte for the NUL.
struct Out {
    SV *sv;
    char *p;
    char *lim;
};

void grow(pTHX_ Out &o, size_t need) {
    const size_t used = static_cast<size_t>(o.p - SvPVX(o.sv));
    size_t want = used + need + 1;
    if (want < 2 * SvLEN(o.sv))
        want = 2 * SvLEN(o.sv);  // geometric, so a long record costs few copies
    SvCUR_set(o.sv, used);
    char *base = SvGROW(o.sv, want);
    o.p = base + used;
    o.lim = base + SvLEN(o.sv) - 1;
}

inline void reserve(pTHX_ Out &o, size_t n) {
    if (static_cast<size_t>(o.lim - o.p) < n)
        grow(aTHX_ o, n);
}

inline size_t offset(const Out &o) { return static_cast<size_t>(o.p - SvPVX(o.sv)); }

inline void put_tag(Out &o, const Field &f) {
    std::memcpy(o.p, f.tag, f.tag_len);
    o.p += f.tag_len;
}

// The runs of `_unknown` of one level: their bytes, already checked, and
// where each goes (before the known value number `pos`).
struct Run {
    size_t pos;
    size_t off;
    size_t len;
};

struct Runs {
    SV *bytes;  // mortal buffers, or null when there are none
    SV *list;
    size_t count;
    size_t next;
};

// A string written that is not UTF-8, reported once the whole encoding
// succeeded (a croak later on must not leave a report behind).
struct Bad {
    const char *full_name;
    size_t off;
    size_t len;
};

struct Enc {
    Out out;
    unsigned options;
    SV *bad;  // array of Bad in a mortal buffer, or null
};

void put_runs_upto(pTHX_ Out &o, Runs &r, size_t k) {
    while (r.next < r.count) {
        const Run &run = reinterpret_cast<const Run *>(SvPVX(r.list))[r.next];
        if (run.pos > k)
            return;
        reserve(aTHX_ o, run.len);
        std::memcpy(o.p, SvPVX(r.bytes) + run.off, run.len);
        o.p += run.len;
        ++r.next;
    }
}

// The runs whose position is `k` (known values written so far) go here.
inline void runs_before(pTHX_ Out &o, Runs &r, size_t k) {
    if (r.next < r.count)
        put_runs_upto(aTHX_ o, r, k);
}

// An array element, fetched once; null for a hole.
SV *element(pTHX_ AV *av, SSize_t i) {
    SV *e;
    if (!SvMAGICAL(av)) {
        e = i <= AvFILLp(av) ? AvARRAY(av)[i] : nullptr;
    } else {
        SV **ep = av_fetch(av, i, 0);
        e = ep ? *ep : nullptr;
    }
    return e ? fetched_once(aTHX_ e) : nullptr;
}

inline bool is_array_ref(SV *sv) { return SvROK(sv) && SvTYPE(SvRV(sv)) == SVt_PVAV; }

// The string form of a defined non-reference value without changing it: a
// number is stringified in a copy.
struct Text {
    const char *s;
    STRLEN len;
    bool utf8;
};

inline Text text_of(pTHX_ SV *v) {
    if (SvPOK(v))
        return Text{SvPVX(v), SvCUR(v), SvUTF8(v) != 0};
    SV *copy = sv_mortalcopy(v);
    STRLEN len;
    const char *s = SvPV(copy, len);
    return Text{s, len, SvUTF8(copy) != 0};
}

inline int hex_digit(unsigned c) {
    if (c >= '0' && c <= '9')
        return static_cast<int>(c - '0');
    c |= 0x20;
    if (c >= 'a' && c <= 'f')
        return static_cast<int>(c - 'a' + 10);
    return -1;
}

// Reads `_unknown` of one level: "POS:HEX" strings, positions in order, the
// bytes whole wire fields none of which has a key of its own.  `depth` is
// the level's nesting (1 inside an address), so groups are limited as in
// decode.
void parse_unknown(pTHX_ SV *value, const Level &level, const char *outer, int depth, Runs &r) {
    Path path{outer, kUnknownKey, -1};
    if (!is_array_ref(value))
        croak(kExpectedArray, path_text(aTHX_ path), describe(aTHX_ value));
    AV *av = reinterpret_cast<AV *>(SvRV(value));
    r.bytes = sv_2mortal(newSVpvs(""));
    r.list = sv_2mortal(newSVpvs(""));
    size_t previous = 0;
    const SSize_t n = av_top_index(av) + 1;
    for (SSize_t i = 0; i < n; ++i) {
        path.index = i;
        SV *e = element(aTHX_ av, i);
        if (!e || (!SvOK(e) && !isGV_with_GP(e)))
            croak(kExpectedString, path_text(aTHX_ path), kDescUndef);
        if (SvROK(e) || isGV_with_GP(e))
            croak(kExpectedString, path_text(aTHX_ path), describe(aTHX_ e));
        const Text t = text_of(aTHX_ e);
        size_t j = 0, pos = 0;
        for (; j < t.len && t.s[j] >= '0' && t.s[j] <= '9'; ++j) {
            const size_t d = static_cast<size_t>(t.s[j] - '0');
            pos = pos > (~size_t(0) - d) / 10 ? ~size_t(0) : pos * 10 + d;  // a huge one just goes last
        }
        bool ok = j > 0 && j < t.len && t.s[j] == ':';
        const size_t hex_at = j + 1;
        const size_t hex_len = ok ? t.len - hex_at : 0;
        ok = ok && hex_len > 0 && hex_len % 2 == 0;
        for (size_t k = 0; ok && k < hex_len; ++k)
            ok = hex_digit(static_cast<unsigned char>(t.s[hex_at + k])) >= 0;
        if (!ok)
            croak(kNotPositionHex, path_text(aTHX_ path), display_value(aTHX_ e));
        if (pos < previous)
            croak(kPositionsDecrease, path_text(aTHX_ path));
        previous = pos;

        const size_t off = SvCUR(r.bytes), len = hex_len / 2;
        auto *dst = reinterpret_cast<unsigned char *>(SvGROW(r.bytes, off + len + 1)) + off;
        for (size_t k = 0; k < len; ++k)
            dst[k] = static_cast<unsigned char>(
                hex_digit(static_cast<unsigned char>(t.s[hex_at + 2 * k])) << 4 |
                hex_digit(static_cast<unsigned char>(t.s[hex_at + 2 * k + 1])));
        SvCUR_set(r.bytes, off + len);

        const unsigned char *q = dst, *end = dst + len;
        WireError err;
        while (q < end) {
            const unsigned char *at = q;
            uint32_t tag;
            q = read_tag(q, end, tag, err);
            if (q) {
                const Field *f = level.find(tag >> 3);
                if (f && (tag & 7) == f->wire_type)
                    croak(kOwnKey, path_text(aTHX_ path), static_cast<UV>(f->number), f->name);
                q = skip_value(at, q, end, tag, &level, nullptr, depth, err);
            }
            if (!q)
                croak(kMalformedWireData, path_text(aTHX_ path), static_cast<UV>(err.at - dst),
                      SvPVX(reason_text(aTHX_ err)));
        }
        const Run run{pos, off, len};
        sv_catpvn(r.list, reinterpret_cast<const char *>(&run), sizeof run);
        ++r.count;
    }
}

// Looks up `_unknown` of a level (a known key even when it is ignored) and
// reads it unless unknown fields are dropped.  Returns 1 when the key exists.
size_t take_unknown(pTHX_ HV *hv, unsigned options, const Level &level, const char *outer, int depth,
                    Runs &r) {
    SV *u = fetch_key(aTHX_ hv, kUnknownKey, kUnknownKeyLen, unknown_key_hash);
    if (!u)
        return 0;
    if (!(options & kDropUnknown)) {
        u = fetched_once(aTHX_ u);
        if (SvOK(u) || isGV_with_GP(u))
            parse_unknown(aTHX_ u, level, outer, depth, r);
    }
    return 1;
}

// Croaks on the first key of `hv` (in sorted order) that is not a key of
// `level`.  A plain hash is searched only when the keys found do not account
// for all of its keys; a magical (tied) one is always iterated.
void check_unknown_keys(pTHX_ HV *hv, size_t matched, const Level &level, const char *outer) {
    if (!SvMAGICAL(hv) && matched == HvUSEDKEYS(hv))
        return;
    const char *best = nullptr;
    STRLEN best_len = 0;
    auto consider = [&](const char *key, STRLEN len, SV *owner) {
        if (is_known_key(key, len, level))
            return;
        if (best) {
            const int c = std::memcmp(key, best, len < best_len ? len : best_len);
            if (c > 0 || (c == 0 && len >= best_len))
                return;
        }
        if (owner) {  // a tied hash's key lives only until the next one
            SV *copy = sv_mortalcopy(owner);
            key = SvPV(copy, len);
        }
        best = key;
        best_len = len;
    };
    if (!SvMAGICAL(hv)) {
        if (HE **array = HvARRAY(hv)) {
            for (STRLEN b = 0; b <= HvMAX(hv); ++b)
                for (HE *he = array[b]; he; he = HeNEXT(he))
                    if (HeVAL(he) != &PL_sv_placeholder)
                        consider(HeKEY(he), static_cast<STRLEN>(HeKLEN(he)), nullptr);
        }
    } else {
        hv_iterinit(hv);
        while (HE *he = hv_iternext(hv)) {
            SV *key = hv_iterkeysv(he);
            STRLEN len;
            const char *s = SvPV(key, len);
            consider(s, len, key);
        }
    }
    if (!best)
        return;  // the extra keys came and went while values were fetched
    SV *msg = outer ? newSVpvf(kUnknownFieldIn, outer, display_bytes(aTHX_ best, best_len))
                    : newSVpvf(kUnknownField, display_bytes(aTHX_ best, best_len));
    sv_2mortal(msg);
    if (const char *near = nearest_name(best, best_len, level))
        sv_catpvf(msg, kDidYouMean, near);
    croak("%" SVf, SVfARG(msg));
}

// ---- values ----------------------------------------------------------------------

[[noreturn]] void out_of_range(pTHX_ SV *v, const Path &path, const char *max_text) {
    croak(kOutOfRange, path_text(aTHX_ path), display_value(aTHX_ v), max_text);
}

uint64_t parse_decimal(pTHX_ SV *v, const char *s, STRLEN len, uint64_t max, const char *max_text,
                       const Path &path) {
    if (len == 0)
        croak(kNotDecimal, path_text(aTHX_ path), display_value(aTHX_ v));
    uint64_t n = 0;
    bool over = false;
    for (STRLEN i = 0; i < len; ++i) {
        const unsigned d = static_cast<unsigned char>(s[i]) - '0';
        if (d > 9)
            croak(kNotDecimal, path_text(aTHX_ path), display_value(aTHX_ v));
        if (n > (max - d) / 10)
            over = true;
        else
            n = n * 10 + d;
    }
    if (over)
        out_of_range(aTHX_ v, path, max_text);
    return n;
}

// uint32 and uint64: the string form first when there is one, then the
// integer, then the floating-point value.
uint64_t number_value(pTHX_ SV *v, uint64_t max, const char *max_text, const Path &path) {
    if (SvROK(v) || isGV_with_GP(v))
        croak(kExpectedInteger, path_text(aTHX_ path), describe(aTHX_ v));
    if (SvPOK(v))
        return parse_decimal(aTHX_ v, SvPVX(v), SvCUR(v), max, max_text, path);
    if (SvIOK(v)) {
        if (SvIsUV(v)) {
            if (SvUVX(v) > max)
                out_of_range(aTHX_ v, path, max_text);
            return SvUVX(v);
        }
        const IV i = SvIVX(v);
        if (i < 0 || static_cast<uint64_t>(i) > max)
            out_of_range(aTHX_ v, path, max_text);
        return static_cast<uint64_t>(i);
    }
    if (SvNOK(v)) {
        const NV nv = SvNVX(v);
        if (std::isnan(nv) || std::isinf(nv) || nv != std::floor(nv))
            croak(kNotInteger, path_text(aTHX_ path), display_value(aTHX_ v));
        // 2**32 and 2**64 are exact as doubles; -0.0 is 0.
        const NV limit = max == UINT64_MAX ? 18446744073709551616.0 : static_cast<NV>(max) + 1.0;
        if (nv < 0 || nv >= limit)
            out_of_range(aTHX_ v, path, max_text);
        return static_cast<uint64_t>(nv);
    }
    const Text t = text_of(aTHX_ v);
    return parse_decimal(aTHX_ v, t.s, t.len, max, max_text, path);
}

bool is_boolean_object(SV *target) {
    if (!SvOBJECT(target) || SvTYPE(target) >= SVt_PVAV)
        return false;
    const char *name = HvNAME(SvSTASH(target));
    return name && (std::strcmp(name, "JSON::PP::Boolean") == 0 ||
                    std::strcmp(name, "Types::Serialiser::Boolean") == 0 || std::strcmp(name, "boolean") == 0);
}

// Flags: 1, 0, "" (Perl's own booleans are "1" and ""), or a JSON boolean
// object.  On purpose the numbers 1.0 and 0.0 pass too: refusing them would
// show them as "1" and "0" in the message.
bool flag_value(pTHX_ SV *v, const Path &path) {
    if (SvROK(v)) {
        SV *target = SvRV(v);
        if (is_boolean_object(target))
            return SvTRUE(target);
        croak(kExpectedFlag, path_text(aTHX_ path), describe(aTHX_ v));
    }
    if (isGV_with_GP(v))
        croak(kExpectedFlag, path_text(aTHX_ path), describe(aTHX_ v));
    if (SvPOK(v)) {
        const STRLEN len = SvCUR(v);
        const char *s = SvPVX(v);
        if (len == 0 || (len == 1 && *s == '0'))
            return false;
        if (len == 1 && *s == '1')
            return true;
    } else if (SvIOK(v)) {
        if (SvIVX(v) == 0 || (SvIVX(v) == 1 && !SvIsUV(v)))
            return SvIVX(v) != 0;
    } else if (SvNOK(v)) {
        if (SvNVX(v) == 0.0 || SvNVX(v) == 1.0)
            return SvNVX(v) != 0.0;
    }
    croak(kNotFlag, path_text(aTHX_ path), display_value(aTHX_ v));
}

// The code point of the character at `p` in Perl's internal UTF-8, and its
// length.  The standard forms are decoded here; Perl's extended forms (above
// U+1FFFFF) and anything malformed go to Perl's own decoder.
UV perl_char(pTHX_ const unsigned char *p, const unsigned char *end, STRLEN &n) {
    const unsigned b0 = p[0];
    const size_t left = static_cast<size_t>(end - p);
    auto cont = [&](size_t i) { return i < left && (p[i] & 0xC0) == 0x80; };
    if (b0 >= 0xC2 && b0 < 0xE0 && cont(1)) {
        n = 2;
        return (static_cast<UV>(b0 & 0x1F) << 6) | (p[1] & 0x3F);
    }
    if (b0 >= 0xE0 && b0 < 0xF0 && cont(1) && cont(2)) {
        const UV cp = (static_cast<UV>(b0 & 0x0F) << 12) | (static_cast<UV>(p[1] & 0x3F) << 6) | (p[2] & 0x3F);
        if (cp >= 0x800) {
            n = 3;
            return cp;
        }
    }
    if (b0 >= 0xF0 && b0 < 0xF8 && cont(1) && cont(2) && cont(3)) {
        const UV cp = (static_cast<UV>(b0 & 0x07) << 18) | (static_cast<UV>(p[1] & 0x3F) << 12) |
                      (static_cast<UV>(p[2] & 0x3F) << 6) | (p[3] & 0x3F);
        if (cp >= 0x10000) {
            n = 4;
            return cp;
        }
    }
    const UV cp = utf8n_to_uvchr(p, left, &n, UTF8_ALLOW_ANY);
    if (n == 0 || n == static_cast<STRLEN>(-1))
        n = 1;
    return cp;
}

inline char *put_utf8(char *p, UV cp) {
    if (cp < 0x80) {
        *p++ = static_cast<char>(cp);
    } else if (cp < 0x800) {
        *p++ = static_cast<char>(0xC0 | (cp >> 6));
        *p++ = static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        *p++ = static_cast<char>(0xE0 | (cp >> 12));
        *p++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        *p++ = static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        *p++ = static_cast<char>(0xF0 | (cp >> 18));
        *p++ = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        *p++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        *p++ = static_cast<char>(0x80 | (cp & 0x3F));
    }
    return p;
}

// Characters of Perl's internal UTF-8 to bytes: without the characters
// option each must be a byte (<= 0xFF); with it, U+DC80..U+DCFF are the bytes
// that decode could not read as UTF-8 and everything else is written as
// UTF-8.  Returns the end of what was written (never longer than the input).
char *put_characters(pTHX_ char *dst, const Text &t, bool characters, const Path &path) {
    const auto *p = reinterpret_cast<const unsigned char *>(t.s);
    const unsigned char *end = p + t.len;
    while (p < end) {
        if (*p < 0x80) {
            *dst++ = static_cast<char>(*p++);
            continue;
        }
        STRLEN n;
        const UV cp = perl_char(aTHX_ p, end, n);
        p += n;
        if (!characters) {
            if (cp > 0xFF)
                croak(kWideCharacter, path_text(aTHX_ path), cp);
            *dst++ = static_cast<char>(cp);
        } else if (cp >= 0xDC80 && cp <= 0xDCFF) {
            *dst++ = static_cast<char>(cp - 0xDC00);
        } else if ((cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) {
            croak(kNotWritable, path_text(aTHX_ path), cp);
        } else {
            dst = put_utf8(dst, cp);
        }
    }
    return dst;
}

void note_bad(pTHX_ Enc &enc, const Field &f, size_t off, size_t len) {
    if (!enc.bad)
        enc.bad = sv_2mortal(newSVpvs(""));
    const Bad bad{f.full_name, off, len};
    sv_catpvn(enc.bad, reinterpret_cast<const char *>(&bad), sizeof bad);
}

// A string field's value or a list element: tag, length, bytes.
void put_string(pTHX_ Enc &enc, const Field &f, SV *v, const Path &path) {
    if (SvROK(v) || isGV_with_GP(v))
        croak(kExpectedString, path_text(aTHX_ path), describe(aTHX_ v));
    const Text t = text_of(aTHX_ v);
    const bool characters = enc.options & kCharacters;
    Out &o = enc.out;
    if (!t.utf8) {
        size_t high = 0;
        if (characters) {  // Latin-1 characters: each byte above 0x7F takes two
            for (STRLEN i = 0; i < t.len; ++i)
                high += static_cast<unsigned char>(t.s[i]) >> 7;
        }
        const size_t len = t.len + high;
        reserve(aTHX_ o, f.tag_len + 10 + len);
        put_tag(o, f);
        o.p = put_varint(o.p, len);
        if (!high) {
            std::memcpy(o.p, t.s, t.len);
        } else {
            char *d = o.p;
            for (STRLEN i = 0; i < t.len; ++i)
                d = put_utf8(d, static_cast<unsigned char>(t.s[i]));
        }
        // Bytes are written as they are; characters always make valid UTF-8.
        if (!characters && classify_utf8(reinterpret_cast<const unsigned char *>(o.p), len) == Utf8::Invalid)
            note_bad(aTHX_ enc, f, offset(o), len);
        o.p += len;
        return;
    }
    // From Perl's internal UTF-8 the result is never longer than the input:
    // room for the longest length is kept, and the bytes moved down when the
    // length takes fewer.
    const size_t room = varint_size(t.len);
    reserve(aTHX_ o, f.tag_len + room + t.len);
    put_tag(o, f);
    char *body = o.p + room;
    char *body_end = put_characters(aTHX_ body, t, characters, path);
    const size_t len = static_cast<size_t>(body_end - body);
    char *after_len = put_varint(o.p, len);
    if (after_len != body)
        std::memmove(after_len, body, len);
    o.p = after_len;
    if (classify_utf8(reinterpret_cast<const unsigned char *>(o.p), len) == Utf8::Invalid)
        note_bad(aTHX_ enc, f, offset(o), len);
    o.p += len;
}

void put_list(pTHX_ Enc &enc, const Field &f, SV *v, Runs &runs, size_t &count) {
    if (!is_array_ref(v))
        croak(kExpectedArray, f.name, describe(aTHX_ v));
    AV *av = reinterpret_cast<AV *>(SvRV(v));
    const SSize_t n = av_top_index(av) + 1;
    for (SSize_t i = 0; i < n; ++i) {
        const Path path{nullptr, f.name, i};
        SV *e = element(aTHX_ av, i);
        if (!e || (!SvOK(e) && !isGV_with_GP(e)))
            croak(kExpectedString, path_text(aTHX_ path), kDescUndef);
        runs_before(aTHX_ enc.out, runs, count);
        put_string(aTHX_ enc, f, e, path);
        ++count;
    }
}

// The length of a sub-record written after its body: one byte was kept for
// it; a longer one moves the body up.
void put_length_at(pTHX_ Out &o, size_t len_at) {
    const size_t body = offset(o) - len_at - 1;
    const size_t size = varint_size(body);
    if (size > 1) {
        reserve(aTHX_ o, size - 1);
        char *base = SvPVX(o.sv);
        std::memmove(base + len_at + size, base + len_at + 1, body);
        o.p += size - 1;
    }
    put_varint(SvPVX(o.sv) + len_at, body);
}

void put_address_hash(pTHX_ Enc &enc, const Field &f, HV *hv) {
    const Level &level = *levels().address;
    Runs runs{};
    size_t matched = take_unknown(aTHX_ hv, enc.options, level, f.name, 1, runs);
    Out &o = enc.out;
    reserve(aTHX_ o, f.tag_len + 1);
    put_tag(o, f);
    const size_t len_at = offset(o);
    *o.p++ = 0;
    size_t count = 0;
    for (size_t j = 0; j < level.count; ++j) {
        const Field &af = level.fields[j];
        SV *v = fetch_key(aTHX_ hv, af.name, af.len, level.hashes[j]);
        if (!v)
            continue;
        ++matched;
        v = fetched_once(aTHX_ v);
        if (!SvOK(v) && !isGV_with_GP(v))
            continue;
        const uint64_t word = number_value(aTHX_ v, UINT32_MAX, kMaxUInt32Text, Path{f.name, af.name, -1});
        runs_before(aTHX_ o, runs, count);
        reserve(aTHX_ o, af.tag_len + 5);
        put_tag(o, af);
        o.p = put_varint(o.p, word);
        ++count;
    }
    put_runs_upto(aTHX_ o, runs, ~size_t(0));
    check_unknown_keys(aTHX_ hv, matched, level, f.name);
    put_length_at(aTHX_ o, len_at);
}

// An address given as text writes all five of its numbers.
static_assert(sizeof(AddressWords) == kAddressFieldCount * sizeof(uint32_t),
              "the text form of an address covers every address field");

void put_address(pTHX_ Enc &enc, const Field &f, SV *v) {
    if (is_hash_ref(v)) {
        put_address_hash(aTHX_ enc, f, reinterpret_cast<HV *>(SvRV(v)));
        return;
    }
    if (!(enc.options & kTextAddresses))
        croak(kExpectedAddressHash, f.name, describe(aTHX_ v));
    if (SvROK(v) || isGV_with_GP(v))
        croak(kExpectedAddress, f.name, describe(aTHX_ v));
    const Text t = text_of(aTHX_ v);
    AddressWords words;
    if (!parse_address_text(t.s, t.len, words))
        croak(kFieldInvalidAddressText, f.name, display_value(aTHX_ v, 64));
    const Level &level = *levels().address;
    Out &o = enc.out;
    reserve(aTHX_ o, f.tag_len + 1 + kAddressFieldCount * 10);
    put_tag(o, f);
    const size_t len_at = offset(o);
    *o.p++ = 0;
    for (size_t j = 0; j < level.count; ++j) {
        put_tag(o, level.fields[j]);
        o.p = put_varint(o.p, j < 4 ? words.ip[j] : words.rtdom_id);
    }
    put_length_at(aTHX_ o, len_at);
}

}  // namespace

SV *encode_hash(pTHX_ SV *arg, unsigned options) {
    arg = fetched_once(aTHX_ arg);
    if (!is_hash_ref(arg))
        croak(kExpectedHash, describe(aTHX_ arg));
    HV *hv = reinterpret_cast<HV *>(SvRV(arg));
    const Level &level = *levels().record;
    // On purpose `_unknown` is checked before the fields: its runs are
    // written between them.
    Runs runs{};
    size_t matched = take_unknown(aTHX_ hv, options, level, nullptr, 0, runs);

    SV *out = sv_2mortal(newSV(kFirstSize));
    SvPOK_only(out);
    Enc enc{Out{out, SvPVX(out), SvPVX(out) + SvLEN(out) - 1}, options, nullptr};
    Out &o = enc.out;
    size_t count = 0;  // known values written: the positions of `_unknown`
    for (size_t i = 0; i < level.count; ++i) {
        const Field &f = level.fields[i];
        SV *v = fetch_key(aTHX_ hv, f.name, f.len, level.hashes[i]);
        if (!v)
            continue;
        ++matched;
        v = fetched_once(aTHX_ v);
        if (!SvOK(v) && !isGV_with_GP(v))
            continue;  // undef: the field is absent
        const Path path{nullptr, f.name, -1};
        switch (f.family) {
        case Family::String:
            runs_before(aTHX_ o, runs, count);
            put_string(aTHX_ enc, f, v, path);
            ++count;
            break;
        case Family::UInt32:
        case Family::UInt64: {
            const uint64_t n = f.family == Family::UInt32
                                   ? number_value(aTHX_ v, UINT32_MAX, kMaxUInt32Text, path)
                                   : number_value(aTHX_ v, UINT64_MAX, kMaxUInt64Text, path);
            runs_before(aTHX_ o, runs, count);
            reserve(aTHX_ o, f.tag_len + 10);
            put_tag(o, f);
            o.p = put_varint(o.p, n);
            ++count;
            break;
        }
        case Family::Bool: {
            const bool b = flag_value(aTHX_ v, path);
            runs_before(aTHX_ o, runs, count);
            reserve(aTHX_ o, f.tag_len + 1);
            put_tag(o, f);
            *o.p++ = b ? 1 : 0;
            ++count;
            break;
        }
        case Family::Address:
            runs_before(aTHX_ o, runs, count);
            put_address(aTHX_ enc, f, v);
            ++count;
            break;
        case Family::StringList:
            put_list(aTHX_ enc, f, v, runs, count);
            break;
        }
    }
    put_runs_upto(aTHX_ o, runs, ~size_t(0));
    check_unknown_keys(aTHX_ hv, matched, level, nullptr);
    SvCUR_set(out, offset(o));
    *o.p = '\0';
    if (enc.bad) {
        // The runtime's own report, as pack makes it.
        const Bad *bad = reinterpret_cast<const Bad *>(SvPVX(enc.bad));
        const size_t n = SvCUR(enc.bad) / sizeof(Bad);
        for (size_t i = 0; i < n; ++i)
            WireFormatLite::VerifyUtf8String(SvPVX(out) + bad[i].off, static_cast<int>(bad[i].len),
                                             WireFormatLite::SERIALIZE, bad[i].full_name);
        flush_runtime_log(aTHX);
    }
    return out;
}

}  // namespace codec
}  // namespace qel
