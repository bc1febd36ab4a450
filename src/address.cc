// The methods of quillon_event_log::IPAddr that are not per field: new,
// from_string, as_string, to_hashref and DESTROY.  Address objects use the
// record's handle layout; the client_ip/dest_ip getters hand them out, DESTROY
// here frees them.
#include "address.h"

#include <cstring>

#include "address_text.h"
#include "hash_form.h"

namespace qel {
namespace {

// How much of a refused text its message shows: this many bytes, each
// outside 0x20..0x7E as \xHH, then "..." when the text was longer.
constexpr size_t kShownTextMax = 64;

// AddressWords holds the address fields in field order (ip0..ip3, then
// rtdom_id), so the field table's i-th field is the i-th word.
static_assert(kAddressFieldCount == 5, "AddressWords has one word per address field");

uint32_t &word_of(AddressWords &w, size_t i) { return i < 4 ? w.ip[i] : w.rtdom_id; }

// Absent fields read as 0, as their getters do.
AddressWords words_of(const Address &a) {
    AddressWords w;
    for (size_t i = 0; i < kAddressFieldCount; ++i)
        word_of(w, i) = ops_of<UInt32Field<Address>>(kAddressFields[i]).get(a);
    return w;
}

// Sets every field, 0 included, so all of them are present.
void set_words(Address &a, AddressWords w) {
    for (size_t i = 0; i < kAddressFieldCount; ++i)
        ops_of<UInt32Field<Address>>(kAddressFields[i]).set(a, word_of(w, i));
}

// Croaks with the text shown as the message shows it.  Only trivial locals
// here and in the caller, since croak unwinds through both.  A UTF-8 string
// is shown by its characters when they all fit in a byte, so the same Perl
// string gives the same message with or without the flag; other wide strings
// show their UTF-8 bytes.
[[noreturn]] void croak_invalid_text(pTHX_ SV *sv) {
    if (SvUTF8(sv)) {
        sv = sv_mortalcopy(sv);
        sv_utf8_downgrade(sv, TRUE);
    }
    STRLEN len;
    const char *text = SvPV(sv, len);
    char shown[kShownTextMax * 4 + sizeof "..."];
    size_t n = 0;
    for (size_t i = 0; i < len && i < kShownTextMax; ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c >= 0x20 && c <= 0x7E)
            shown[n++] = static_cast<char>(c);
        else
            n += static_cast<size_t>(snprintf(shown + n, sizeof shown - n, "\\x%02x", c));
    }
    if (len > kShownTextMax) {
        std::memcpy(shown + n, "...", 3);
        n += 3;
    }
    shown[n] = '\0';
    croak(kInvalidAddressText, shown);
}

// new(CLASS) or new(CLASS, \%address): the hash is read as an address hash in
// the record's hash form; any other second argument gives an empty address.
XS_INTERNAL(xs_address_new) {
    dXSARGS;
    if (items < 1)
        croak_xs_usage(cv, "CLASS, ...");
    const char *cls = SvPV_nolen(ST(0));
    if (std::strcmp(cls, kAddressClass) != 0)  // subclass names too, as for records
        croak(kInvalidClass, cls);
    Address *a = new Address;
    SV *handle = new_handle(aTHX_ class_stash(aTHX_ cv, kAddressClass), a);  // frees `a` should filling die
    if (items == 2) {
        SV *arg = fetched_once(aTHX_ ST(1));
        if (is_hash_ref(arg))
            fill_address(aTHX_ *a, reinterpret_cast<HV *>(SvRV(arg)));
    }
    ST(0) = handle;
    XSRETURN(1);
}

// from_string(CLASS, text): a new address with all five fields present
// (rtdom_id 0 when the text has no "%N").  The text is checked before the
// address is made, so a refusal leaves nothing to free.
XS_INTERNAL(xs_address_from_string) {
    dXSARGS;
    if (items != 2)
        croak_xs_usage(cv, "CLASS, text");
    const char *cls = SvPV_nolen(ST(0));
    if (std::strcmp(cls, kAddressClass) != 0)
        croak(kInvalidClass, cls);
    SV *arg = fetched_once(aTHX_ ST(1));
    if (SvROK(arg))  // overloaded objects too: a text is a plain string
        croak("%s", kInvalidAddressTextRef);
    if (!SvOK(arg))
        croak("%s", kInvalidAddressTextUndef);
    STRLEN len;
    const char *text = SvPV(arg, len);
    AddressWords w;
    if (!parse_address_text(text, len, w))
        croak_invalid_text(aTHX_ arg);
    Address *a = new Address;
    SV *handle = new_handle(aTHX_ class_stash(aTHX_ cv, kAddressClass), a);
    set_words(*a, w);
    ST(0) = handle;
    XSRETURN(1);
}

// as_string(THIS): the address as text; undef for an empty handle.
XS_INTERNAL(xs_address_as_string) {
    dXSARGS;
    if (items != 1)
        croak_xs_usage(cv, "svTHIS");
    const Address *a = message_from_handle<Address>(aTHX_ ST(0));
    if (!a)
        XSRETURN_UNDEF;
    char text[kAddressTextMax];
    const size_t len = format_address_text(words_of(*a), text);
    ST(0) = sv_2mortal(newSVpvn(text, len));
    XSRETURN(1);
}

XS_INTERNAL(xs_address_to_hashref) {
    dXSARGS;
    if (items != 1)
        croak_xs_usage(cv, "svTHIS");
    const Address *a = message_from_handle<Address>(aTHX_ ST(0));
    if (!a)
        XSRETURN_UNDEF;
    ST(0) = sv_2mortal(newRV_noinc(reinterpret_cast<SV *>(address_to_hash(aTHX_ *a))));
    XSRETURN(1);
}

XS_INTERNAL(xs_address_destroy) {
    dXSARGS;
    if (items != 1)
        croak_xs_usage(cv, "svTHIS");
    destroy_handle<Address>(aTHX_ ST(0));
    XSRETURN_EMPTY;
}

}  // namespace

void register_address_class(pTHX_ const char *file) {
    newXS_flags("quillon_event_log::IPAddr::new", xs_address_new, file, "$;@", 0);
    newXS_flags("quillon_event_log::IPAddr::DESTROY", xs_address_destroy, file, "$", 0);
    newXS_flags("quillon_event_log::IPAddr::to_hashref", xs_address_to_hashref, file, "$", 0);
    newXS_flags("quillon_event_log::IPAddr::from_string", xs_address_from_string, file, "$$", 0);
    newXS_flags("quillon_event_log::IPAddr::as_string", xs_address_as_string, file, "$", 0);
    register_address_accessors(aTHX_ file);
}

}  // namespace qel
