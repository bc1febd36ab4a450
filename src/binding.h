// Common ground of every binding source: the include order, the two class
// names, the fixed error texts and the handle helpers that turn a Perl object
// into the C++ message it owns.  Everything that touches Perl includes this.
#ifndef QEL_BINDING_H
#define QEL_BINDING_H

// protobuf and the standard library first: perl.h defines macros that break
// protobuf's headers when it comes before them.
#include <cstddef>
#include <cstdint>
#include <string>

#include "families.h"  // Record, Address and the field table; no Perl in it

#define PERL_NO_GET_CONTEXT
extern "C" {
#include "EXTERN.h"
#include "perl.h"
#include "XSUB.h"
}

namespace qel {

// Perl class names; each is the bless target, the type-test name and the only
// name its `new` accepts.
constexpr char kRecordClass[] = "quillon_event_log::QuillonEventLog";
constexpr char kAddressClass[] = "quillon_event_log::IPAddr";

// Fixed error texts.  No trailing newline: Perl appends " at FILE line N.".
constexpr char kThisNotRecord[] = "THIS is not of type quillon_event_log::QuillonEventLog";
constexpr char kThisNotAddress[] = "THIS is not of type quillon_event_log::IPAddr";
constexpr char kValNotAddress[] = "VAL is not of type quillon_event_log::IPAddr";
constexpr char kInvalidClass[] = "invalid class %s";
constexpr char kMissingRequired[] =
    "Can't serialize message of type 'quillon_event_log::QuillonEventLog' "
    "because it is missing required fields: %s";
constexpr char kEmptyRecord[] = "THIS holds no quillon_event_log::QuillonEventLog record";
constexpr char kEmptyAddress[] = "THIS holds no quillon_event_log::IPAddr address";

// Ties a C++ message type to its Perl class and its error texts, so the
// family XSUBs and the handle helpers serve records and addresses alike.
template <class Msg> struct Binding;
template <> struct Binding<Record> {
    static constexpr const char *kClass = kRecordClass;
    static constexpr const char *kNotOfType = kThisNotRecord;
    static constexpr const char *kEmpty = kEmptyRecord;
};
template <> struct Binding<Address> {
    static constexpr const char *kClass = kAddressClass;
    static constexpr const char *kNotOfType = kThisNotAddress;
    static constexpr const char *kEmpty = kEmptyAddress;
};

// True when `sv` is a reference to an object of `cls` or of a class derived
// from it.  The stash name comparison is only a shortcut for the common case;
// sv_derived_from decides everything else.  A plain string naming the class
// passes sv_derived_from but has no handle behind it, so it is refused.
inline bool is_object_of(pTHX_ SV *sv, const char *cls, size_t cls_len) {
    if (!SvROK(sv))
        return false;
    SV *obj = SvRV(sv);
    if (SvOBJECT(obj)) {
        HV *stash = SvSTASH(obj);
        if (stash && HvNAMELEN(stash) == (I32)cls_len && memcmp(HvNAME(stash), cls, cls_len) == 0)
            return true;
    }
    return sv_derived_from(sv, cls);
}

// The message address held by a handle that passed is_object_of (may be null).
template <class Msg> inline Msg *message_of(pTHX_ SV *handle) {
    return INT2PTR(Msg *, SvIV(SvRV(handle)));
}

// Type test and address read: croaks with the class's "THIS is not of type"
// text; returns null for an empty handle.
template <class Msg> inline Msg *message_from_handle(pTHX_ SV *sv) {
    constexpr const char *cls = Binding<Msg>::kClass;
    if (!is_object_of(aTHX_ sv, cls, std::char_traits<char>::length(cls)))
        croak("%s", Binding<Msg>::kNotOfType);
    return message_of<Msg>(aTHX_ sv);
}

inline Record *record_from_handle(pTHX_ SV *sv) { return message_from_handle<Record>(aTHX_ sv); }

// For the methods that change or count: an empty handle has no message to act
// on, so they refuse it instead of dereferencing nothing.
template <class Msg> inline Msg &live_message_from_handle(pTHX_ SV *sv) {
    Msg *m = message_from_handle<Msg>(aTHX_ sv);
    if (!m)
        croak("%s", Binding<Msg>::kEmpty);
    return *m;
}

// A value with get-magic (a tied scalar, a tied hash's element, $1) fetched
// once into a plain mortal copy: its kind can then be tested and it is read
// without running FETCH again.  Other values are returned as they are.
inline SV *fetched_once(pTHX_ SV *sv) { return SvGMAGICAL(sv) ? sv_mortalcopy(sv) : sv; }

// A new mortal reference, blessed into `stash`, to a new scalar holding `ptr`.
inline SV *new_handle(pTHX_ HV *stash, void *ptr) {
    SV *handle = sv_newmortal();
    sv_setiv(newSVrv(handle, nullptr), PTR2IV(ptr));
    return sv_bless(handle, stash);
}

// The stash of the class a constructor XSUB was installed in, without a
// symbol-table lookup per call.
inline HV *class_stash(pTHX_ CV *cv, const char *cls) {
    HV *stash = GvSTASH(CvGV(cv));
    return stash ? stash : gv_stashpv(cls, GV_ADD);
}

// Where records come from and go to (record_pool.cc): new() takes an empty
// record from new_record(), DESTROY hands it back to free_record(), which
// clears it and keeps it, with the storage of its strings, sub-records and
// list elements, for the next new_record() of this thread.
Record *new_record();
void free_record(Record *m);

// Ends a message owned by a handle.
inline void free_message(Record *m) { free_record(m); }
inline void free_message(Address *a) { delete a; }

// DESTROY: frees the message and zeroes the handle, so a second DESTROY (an
// explicit call followed by the automatic one) finds nothing to free.
template <class Msg> inline void destroy_handle(pTHX_ SV *sv) {
    Msg *m = message_from_handle<Msg>(aTHX_ sv);
    if (!m)
        return;
    free_message(m);
    SV *referent = SvRV(sv);
    const bool readonly = SvREADONLY(referent);
    SvREADONLY_off(referent);
    sv_setiv(referent, 0);
    if (readonly)
        SvREADONLY_on(referent);
}

}  // namespace qel

#endif
