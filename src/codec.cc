// The XSUBs of quillon_event_log::Codec: the two default-option functions, the
// codec object (a blessed reference to a read-only scalar holding its option
// bits, so a call reads its options with one flag test) and its methods.  The
// work itself is in codec_encode.cc and codec_decode.cc.
#include "codec.h"

#include "codec_common.h"

namespace qel {
namespace {

using namespace codec;
using namespace codec_text;

constexpr char kCodecClass[] = "quillon_event_log::Codec";

}  // namespace

unsigned codec_options(pTHX_ SV *self) {
    if (SvROK(self)) {
        SV *obj = SvRV(self);
        if (SvOBJECT(obj) && SvREADONLY(obj) && SvIOK(obj) && !SvROK(obj) && SvTYPE(obj) < SVt_PVAV &&
            SvIVX(obj) >= 0 && SvIVX(obj) <= static_cast<IV>(kAllOptions) &&
            sv_derived_from(self, kCodecClass))
            return static_cast<unsigned>(SvIVX(obj));
    }
    croak("%s", kNotCodec);
}

namespace {

bool is_string(pTHX_ SV *sv, const char *text) {
    if (SvROK(sv) || !SvOK(sv))
        return false;
    STRLEN len;
    const char *s = SvPV(sv, len);
    return len == std::strlen(text) && std::memcmp(s, text, len) == 0;
}

// encode_event, decode_event, encode and decode: the work, and whether a codec
// object comes first (else the default options); the CV carries its usage.
template <SV *(*work)(pTHX_ SV *, unsigned), bool kMethod> XS_INTERNAL(xs_convert) {
    dXSARGS;
    if (items != (kMethod ? 2 : 1))
        croak_xs_usage(cv, static_cast<const char *>(CvXSUBANY(cv).any_ptr));
    const unsigned options = kMethod ? codec_options(aTHX_ ST(0)) : 0;
    ST(0) = work(aTHX_ ST(items - 1), options);
    XSRETURN(1);
}

struct Entry {
    const char *name;
    XSUBADDR_t xsub;
    const char *usage;
};

constexpr Entry kEntries[] = {
    {"quillon_event_log::Codec::encode_event", xs_convert<encode_hash, false>, "hashref"},
    {"quillon_event_log::Codec::decode_event", xs_convert<decode_bytes, false>, "bytes"},
    {"quillon_event_log::Codec::encode", xs_convert<encode_hash, true>, "self, hashref"},
    {"quillon_event_log::Codec::decode", xs_convert<decode_bytes, true>, "self, bytes"},
};

// new(CLASS, name => value, ...): later pairs win over earlier ones.
XS_INTERNAL(xs_new) {
    dXSARGS;
    if (items < 1)
        croak_xs_usage(cv, "CLASS, ...");
    if ((items - 1) % 2)
        croak("%s", kOddOptions);
    unsigned bits = 0;
    for (I32 i = 1; i < items; i += 2) {
        SV *name = fetched_once(aTHX_ ST(i));
        SV *value = fetched_once(aTHX_ ST(i + 1));
        if (is_string(aTHX_ name, "characters")) {
            bits = SvTRUE(value) ? bits | kCharacters : bits & ~kCharacters;
        } else if (is_string(aTHX_ name, "addresses")) {
            if (is_string(aTHX_ value, "text"))
                bits |= kTextAddresses;
            else if (is_string(aTHX_ value, "hash"))
                bits &= ~kTextAddresses;
            else
                croak(kBadAddressesOption, display_value(aTHX_ value));
        } else if (is_string(aTHX_ name, "unknown_fields")) {
            if (is_string(aTHX_ value, "drop"))
                bits |= kDropUnknown;
            else if (is_string(aTHX_ value, "keep"))
                bits &= ~kDropUnknown;
            else
                croak(kBadUnknownOption, display_value(aTHX_ value));
        } else {
            croak(kUnknownOption, display_value(aTHX_ name));
        }
    }
    SV *cls = ST(0);
    HV *stash = SvROK(cls) && SvOBJECT(SvRV(cls)) ? SvSTASH(SvRV(cls)) : gv_stashsv(cls, GV_ADD);
    SV *bits_sv = newSVuv(bits);
    SV *self = sv_2mortal(sv_bless(newRV_noinc(bits_sv), stash));
    SvREADONLY_on(bits_sv);  // after blessing, which refuses a read-only referent
    ST(0) = self;
    XSRETURN(1);
}

enum class Accessor { Characters, Addresses, UnknownFields };

template <Accessor which> XS_INTERNAL(xs_option) {
    dXSARGS;
    if (items != 1)
        croak_xs_usage(cv, "self");
    const unsigned bits = codec_options(aTHX_ ST(0));
    switch (which) {
    case Accessor::Characters: ST(0) = sv_2mortal(newSViv(bits & kCharacters ? 1 : 0)); break;
    case Accessor::Addresses: ST(0) = sv_2mortal(newSVpv(bits & kTextAddresses ? "text" : "hash", 4)); break;
    case Accessor::UnknownFields: ST(0) = sv_2mortal(newSVpv(bits & kDropUnknown ? "drop" : "keep", 4)); break;
    }
    XSRETURN(1);
}

// The name of each family in field_types.
const char *family_name(Family f) {
    switch (f) {
    case Family::String: return "string";
    case Family::UInt32: return "uint32";
    case Family::UInt64: return "uint64";
    case Family::Bool: return "bool";
    case Family::Address: return "address";
    case Family::StringList: return "string list";
    }
    return "";
}

// field_types(): field name => type of every field of the record, from the
// field table, for programs that treat values by type (JSON booleans,
// numeric comparisons).
XS_INTERNAL(xs_field_types) {
    dXSARGS;
    if (items > 1)
        croak_xs_usage(cv, "");
    const Level &level = *levels().record;
    HV *hv = newHV();
    for (size_t i = 0; i < level.count; ++i)
        hv_store(hv, level.fields[i].name, static_cast<I32>(level.fields[i].len),
                 newSVpv(family_name(level.fields[i].family), 0), level.hashes[i]);
    ST(0) = sv_2mortal(newRV_noinc(reinterpret_cast<SV *>(hv)));
    XSRETURN(1);
}

}  // namespace

void register_codec(pTHX_ const char *file) {
    init_codec_tables(aTHX);
    // No prototypes: the functions take their one argument like any sub, so
    // a wrong count reaches the usage message.
    for (const Entry &e : kEntries)
        CvXSUBANY(newXS_flags(e.name, e.xsub, file, nullptr, 0)).any_ptr = const_cast<char *>(e.usage);
    newXS_flags("quillon_event_log::Codec::new", xs_new, file, nullptr, 0);
    newXS_flags("quillon_event_log::Codec::field_types", xs_field_types, file, nullptr, 0);
    newXS_flags("quillon_event_log::Codec::characters", xs_option<Accessor::Characters>, file, nullptr, 0);
    newXS_flags("quillon_event_log::Codec::addresses", xs_option<Accessor::Addresses>, file, nullptr, 0);
    newXS_flags("quillon_event_log::Codec::unknown_fields", xs_option<Accessor::UnknownFields>, file, nullptr, 0);
}

}  // namespace qel
