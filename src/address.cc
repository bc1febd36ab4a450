// The methods of quillon_event_log::IPAddr that are not per field: new,
// to_hashref and DESTROY.  Address objects use the record's handle layout; the
// client_ip/dest_ip getters hand them out, DESTROY here frees them.
#include "address.h"

#include <cstring>

#include "hash_form.h"

namespace qel {
namespace {

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
    register_address_accessors(aTHX_ file);
}

}  // namespace qel
