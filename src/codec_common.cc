// The codec's tables, built once from the field tables and the descriptor,
// the skipping of values it does not keep, UTF-8 classification, and the texts
// that describe values and key paths in its error messages.
#include "codec_common.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/stubs/logging.h>

#include "hash_form.h"

namespace qel {
namespace codec {

U32 unknown_key_hash = 0;

namespace {

// Field numbers and full names come from the descriptor (descriptor_of).
// The tables live for the whole process.
template <class Msg, size_t N> const Level *build_level(const FieldInfo<Msg> (&fields)[N], const U32 *hashes) {
    auto *out = new Field[N];
    uint32_t numbers = 0;
    size_t address_slot = 0;
    for (size_t i = 0; i < N; ++i) {
        const google::protobuf::FieldDescriptor &fd = descriptor_of(fields[i]);
        Field &f = out[i];
        f.name = fields[i].name;
        f.len = fields[i].len;
        f.family = fields[i].family;
        f.wire_type = wire_type_of(f.family);
        f.number = static_cast<uint32_t>(fd.number());
        f.full_name = fd.full_name().c_str();
        f.slot = f.family == Family::Address ? address_slot++ : 0;
        const uint64_t tag = (static_cast<uint64_t>(f.number) << 3) | f.wire_type;
        f.tag_len = static_cast<unsigned>(put_varint(reinterpret_cast<char *>(f.tag), tag) -
                                          reinterpret_cast<char *>(f.tag));
        if (f.number + 1 > numbers)
            numbers = f.number + 1;
    }
    auto *by_number = new uint16_t[numbers]();
    for (size_t i = 0; i < N; ++i)
        by_number[out[i].number] = static_cast<uint16_t>(i + 1);
    return new Level{out, N, hashes, by_number, numbers};
}

Levels build_levels() {
    const Levels built{build_level(kRecordFields, record_key_hash), build_level(kAddressFields, address_key_hash)};
    // The address hash holds numbers only, and the decoder keeps its
    // presence bits in one word.
    for (size_t i = 0; i < built.address->count; ++i)
        GOOGLE_CHECK(built.address->fields[i].family == Family::UInt32)
            << "address field " << built.address->fields[i].name << " is not a uint32";
    GOOGLE_CHECK(built.address->count <= 32);
    return built;
}

}  // namespace

const Levels &levels() {
    static const Levels built = build_levels();  // once per process, thread-safe
    return built;
}

void init_codec_tables(pTHX) { PERL_HASH(unknown_key_hash, kUnknownKey, kUnknownKeyLen); }

// ---- skipping values -----------------------------------------------------------

const unsigned char *skip_value(const unsigned char *at, const unsigned char *p, const unsigned char *end,
                                uint32_t tag, const Level *level, const char *context, int depth,
                                WireError &e) {
    const uint32_t number = tag >> 3;
    auto name = [&]() -> const char * {
        const Field *f = level ? level->find(number) : nullptr;
        return f ? f->name : nullptr;
    };
    switch (tag & 7) {
    case kVarint: {
        uint64_t v;
        return read_varint(p, end, v, e);
    }
    case kFixed64:
        if (end - p < 8)
            return fail(e, p, Reason::TruncatedFixed64, number, name(), context);
        return p + 8;
    case kFixed32:
        if (end - p < 4)
            return fail(e, p, Reason::TruncatedFixed32, number, name(), context);
        return p + 4;
    case kLengthDelimited: {
        uint64_t len;
        const unsigned char *q = read_varint(p, end, len, e);
        if (!q)
            return nullptr;
        if (len > static_cast<uint64_t>(end - q))
            return fail(e, p, Reason::LengthPastEnd, number, name(), context);
        return q + len;
    }
    case kStartGroup:
        if (depth + 1 > kMaxDepth)
            return fail(e, at, Reason::TooDeep);
        for (;;) {
            if (p >= end)
                return fail(e, at, Reason::GroupNotClosed, number, name(), context);
            const unsigned char *inner_at = p;
            uint32_t inner;
            p = read_tag(p, end, inner, e);
            if (!p)
                return nullptr;
            if ((inner & 7) == kEndGroup) {
                if ((inner >> 3) == number)
                    return p;
                return fail(e, inner_at, Reason::EndGroupWithoutStart, inner >> 3, nullptr, context);
            }
            p = skip_value(inner_at, p, end, inner, nullptr, context, depth + 1, e);
            if (!p)
                return nullptr;
        }
    default:  // an end-group tag: the caller's
        return fail(e, at, Reason::EndGroupWithoutStart, number, name(), context);
    }
}

SV *reason_text(pTHX_ const WireError &e) {
    SV *field = sv_2mortal(newSVpvf("%" UVuf, static_cast<UV>(e.number)));
    if (e.name)
        sv_catpvf(field, " (%s)", e.name);
    if (e.context)
        sv_catpvf(field, " in %s", e.context);
    const char *f = SvPVX(field);
    using namespace codec_text;
    switch (e.reason) {
    case Reason::TruncatedVarint: return sv_2mortal(newSVpv(kTruncatedVarint, 0));
    case Reason::VarintTooLong: return sv_2mortal(newSVpv(kVarintTooLong, 0));
    case Reason::FieldNumberZero: return sv_2mortal(newSVpv(kFieldNumberZero, 0));
    case Reason::TagTooLong: return sv_2mortal(newSVpv(kTagTooLong, 0));
    case Reason::WireType: return sv_2mortal(newSVpvf(kWireType, e.wire_type));
    case Reason::LengthPastEnd: return sv_2mortal(newSVpvf(kLengthPastEnd, f));
    case Reason::TruncatedFixed32: return sv_2mortal(newSVpvf(kTruncatedFixed32, f));
    case Reason::TruncatedFixed64: return sv_2mortal(newSVpvf(kTruncatedFixed64, f));
    case Reason::EndGroupWithoutStart: return sv_2mortal(newSVpvf(kEndGroupWithoutStart, f));
    case Reason::GroupNotClosed: return sv_2mortal(newSVpvf(kGroupNotClosed, f));
    case Reason::TooDeep: return sv_2mortal(newSVpv(kTooDeep, 0));
    }
    return sv_2mortal(newSVpvs(""));
}

// ---- UTF-8 ---------------------------------------------------------------------

size_t utf8_sequence(const unsigned char *p, const unsigned char *end) {
    const unsigned b0 = p[0];
    if (b0 < 0x80)
        return 1;
    const size_t left = static_cast<size_t>(end - p);
    auto cont = [&](size_t i) { return i < left && (p[i] & 0xC0) == 0x80; };
    if (b0 >= 0xC2 && b0 <= 0xDF)
        return cont(1) ? 2 : 0;
    if (b0 >= 0xE0 && b0 <= 0xEF) {
        if (left < 2)
            return 0;
        const unsigned b1 = p[1];
        const bool ok = b0 == 0xE0 ? (b1 >= 0xA0 && b1 <= 0xBF)
                      : b0 == 0xED ? (b1 >= 0x80 && b1 <= 0x9F)  // no surrogates
                                   : (b1 & 0xC0) == 0x80;
        return ok && cont(2) ? 3 : 0;
    }
    if (b0 >= 0xF0 && b0 <= 0xF4) {
        if (left < 2)
            return 0;
        const unsigned b1 = p[1];
        const bool ok = b0 == 0xF0 ? (b1 >= 0x90 && b1 <= 0xBF)
                      : b0 == 0xF4 ? (b1 >= 0x80 && b1 <= 0x8F)  // nothing above U+10FFFF
                                   : (b1 & 0xC0) == 0x80;
        return ok && cont(2) && cont(3) ? 4 : 0;
    }
    return 0;
}

Utf8 classify_utf8(const unsigned char *p, size_t n) {
    // Pure ASCII, nearly every string, is told by all_ascii (64 bytes a step).
    if (all_ascii(reinterpret_cast<const char *>(p), n))
        return Utf8::Ascii;
    const unsigned char *end = p + n;
    while (p < end) {
        if (*p < 0x80) {
            ++p;
            continue;
        }
        const size_t len = utf8_sequence(p, end);
        if (!len)
            return Utf8::Invalid;
        p += len;
    }
    return Utf8::Valid;
}

// ---- Perl values in messages -----------------------------------------------------

const char *path_text(pTHX_ const Path &path) {
    SV *out = sv_2mortal(newSVpvs(""));
    if (path.outer)
        sv_catpvf(out, "%s.", path.outer);
    sv_catpv(out, path.name);
    if (path.index >= 0)
        sv_catpvf(out, "[%" IVdf "]", static_cast<IV>(path.index));
    return SvPVX(out);
}

const char *describe(pTHX_ SV *sv) {
    using namespace codec_text;
    if (isGV_with_GP(sv))
        return kDescGlob;
    if (!SvOK(sv))
        return kDescUndef;
    if (!SvROK(sv)) {
        return !SvPOK(sv) && (SvIOK(sv) || SvNOK(sv)) ? kDescNumber : kDescString;
    }
    SV *target = SvRV(sv);
    if (SvOBJECT(target))
        return SvPVX(sv_2mortal(newSVpvf(kDescObject, sv_reftype(target, TRUE))));
    switch (SvTYPE(target)) {
    case SVt_PVAV: return kDescArray;
    case SVt_PVHV: return kDescHash;
    case SVt_PVCV: return kDescCode;
    case SVt_PVGV:
    case SVt_PVLV:
    case SVt_PVIO:
    case SVt_PVFM: return kDescRef;
    default: return SvROK(target) ? kDescRef : kDescScalarRef;
    }
}

const char *display_bytes(pTHX_ const char *s, size_t len, size_t max) {
    SV *out = sv_2mortal(newSV(len < max ? len * 4 + 8 : max * 4 + 8));
    sv_setpvs(out, "\"");
    const size_t shown = len < max ? len : max;
    for (size_t i = 0; i < shown; ++i) {
        const auto c = static_cast<unsigned char>(s[i]);
        if (c >= 0x20 && c <= 0x7E)
            sv_catpvn(out, s + i, 1);
        else
            sv_catpvf(out, "\\x%02x", c);
    }
    sv_catpvs(out, "\"");
    if (len > max)
        sv_catpvs(out, "...");
    return SvPVX(out);
}

const char *display_value(pTHX_ SV *sv, size_t max) {
    if (!SvOK(sv) && !isGV_with_GP(sv))
        return codec_text::kDescUndef;
    // A copy, so that stringifying a number does not change the caller's
    // value.  A UTF-8 string is shown by its characters when they all fit in
    // a byte, so the same Perl string gives the same message with or without
    // the flag (as IPAddr's from_string shows text); other wide strings show
    // their UTF-8 bytes.
    if (!SvPOK(sv) || SvUTF8(sv)) {
        sv = sv_mortalcopy(sv);
        if (SvUTF8(sv))
            sv_utf8_downgrade(sv, TRUE);
    }
    STRLEN len;
    const char *s = SvPV(sv, len);
    return display_bytes(aTHX_ s, len, max);
}

namespace {

// Levenshtein distance over bytes; both strings at most kMaxName bytes.
constexpr size_t kMaxName = 96;

size_t distance(const char *a, size_t la, const char *b, size_t lb) {
    size_t row[kMaxName + 1];
    for (size_t j = 0; j <= lb; ++j)
        row[j] = j;
    for (size_t i = 1; i <= la; ++i) {
        size_t diag = row[0];
        row[0] = i;
        for (size_t j = 1; j <= lb; ++j) {
            const size_t up = row[j];
            const size_t cost = a[i - 1] == b[j - 1] ? 0 : 1;
            size_t best = diag + cost;
            if (up + 1 < best)
                best = up + 1;
            if (row[j - 1] + 1 < best)
                best = row[j - 1] + 1;
            row[j] = best;
            diag = up;
        }
    }
    return row[lb];
}

}  // namespace

const char *nearest_name(const char *key, size_t len, const Level &level) {
    if (len > kMaxName)
        return nullptr;  // farther than any suggestion from every name
    const char *best = nullptr;
    size_t best_distance = ~size_t(0);
    auto consider = [&](const char *name, size_t name_len) {
        if (name_len > kMaxName)
            return;
        const size_t d = distance(key, len, name, name_len);
        if (d < best_distance) {
            best_distance = d;
            best = name;
        }
    };
    for (size_t i = 0; i < level.count; ++i)
        consider(level.fields[i].name, level.fields[i].len);
    consider(kUnknownKey, kUnknownKeyLen);
    if (best_distance > 3 || 2 * best_distance > len)
        return nullptr;
    return best;
}

bool is_known_key(const char *key, size_t len, const Level &level) {
    return (len == kUnknownKeyLen && std::memcmp(key, kUnknownKey, len) == 0) || level.find_name(key, len);
}

}  // namespace codec
}  // namespace qel
