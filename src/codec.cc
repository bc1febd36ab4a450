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

// The option bits of a codec object, or a croak for anything else.  A
// subclass's objects count; the referent must be what new makes.
unsigned options_of(pTHX_ SV *self) {
    if (SvROK(self)) {
        SV *obj = SvRV(self);
        if (SvOBJECT(obj) && SvREADONLY(obj) && SvIOK(obj) && !SvROK(obj) && SvTYPE(obj) < SVt_PVAV &&
            SvIVX(obj) >= 0 && SvIVX(obj) <= static_cast<IV>(kAllOptions) &&
            sv_derived_from(self, kCodecClass))
            return static_cast<unsigned>(SvIVX(obj));
    }
    croak("%s", kNotCodec);
}

bool is_string(pTHX_ SV *sv, const char *text) {
    if (SvROK(sv) || !SvOK(sv))
        return false;
    STRLEN len;
    const char *s = SvPV(sv, len);
    return len == std::strlen(text) && std::memcmp(s, text, len) == 0;
}

XS_INTERNAL(xs_encode_event) {
    dXSARGS;
    if (items != 1)
        croak_xs_usage(cv, "hashref");
    ST(0) = encode_hash(aTHX_ ST(0), 0);
    XSRETURN(1);
}

XS_INTERNAL(xs_decode_event) {
    dXSARGS;
    if (items != 1)
        croak_xs_usage(cv, "bytes");
    ST(0) = decode_bytes(aTHX_ ST(0), 0);
    XSRETURN(1);
}

XS_INTERNAL(xs_encode) {
    dXSARGS;
    if (items != 2)
        croak_xs_usage(cv, "self, hashref");
    ST(0) = encode_hash(aTHX_ ST(1), options_of(aTHX_ ST(0)));
    XSRETURN(1);
}

XS_INTERNAL(xs_decode) {
    dXSARGS;
    if (items != 2)
        croak_xs_usage(cv, "self, bytes");
    ST(0) = decode_bytes(aTHX_ ST(1), options_of(aTHX_ ST(0)));
    XSRETURN(1);
}

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
    const unsigned bits = options_of(aTHX_ ST(0));
    switch (which) {
    case Accessor::Characters: ST(0) = sv_2mortal(newSViv(bits & kCharacters ? 1 : 0)); break;
    case Accessor::Addresses: ST(0) = sv_2mortal(newSVpv(bits & kTextAddresses ? "text" : "hash", 4)); break;
    case Accessor::UnknownFields: ST(0) = sv_2mortal(newSVpv(bits & kDropUnknown ? "drop" : "keep", 4)); break;
    }
    XSRETURN(1);
}

}  // namespace

void register_codec(pTHX_ const char *file) {
    init_codec_tables(aTHX);
    // No prototypes: the functions take their one argument like any sub, so
    // a wrong count reaches the usage message.
    newXS_flags("quillon_event_log::Codec::encode_event", xs_encode_event, file, nullptr, 0);
    newXS_flags("quillon_event_log::Codec::decode_event", xs_decode_event, file, nullptr, 0);
    newXS_flags("quillon_event_log::Codec::new", xs_new, file, nullptr, 0);
    newXS_flags("quillon_event_log::Codec::encode", xs_encode, file, nullptr, 0);
    newXS_flags("quillon_event_log::Codec::decode", xs_decode, file, nullptr, 0);
    newXS_flags("quillon_event_log::Codec::characters", xs_option<Accessor::Characters>, file, nullptr, 0);
    newXS_flags("quillon_event_log::Codec::addresses", xs_option<Accessor::Addresses>, file, nullptr, 0);
    newXS_flags("quillon_event_log::Codec::unknown_fields", xs_option<Accessor::UnknownFields>, file, nullptr, 0);
}

}  // namespace qel
