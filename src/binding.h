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
// A handle of the right class that this module did not make (a copied integer,
// an object evaluated back from Data::Dumper, an address blessed into the
// record class, a shared_clone, a blessed hash).
constexpr char kForgedRecord[] = "THIS is not a quillon_event_log::QuillonEventLog handle made by this module";
constexpr char kForgedAddress[] = "THIS is not a quillon_event_log::IPAddr handle made by this module";
constexpr char kForgedSource[] = "sv is not a quillon_event_log::QuillonEventLog handle made by this module";
constexpr char kForgedValAddress[] = "VAL is not a quillon_event_log::IPAddr handle made by this module";

// from_string's refusals.
constexpr char kInvalidAddressText[] = "invalid address text \"%s\"";
constexpr char kInvalidAddressTextUndef[] = "invalid address text (undef)";
constexpr char kInvalidAddressTextRef[] = "invalid address text (a reference)";

// Ties a C++ message type to its Perl class and its error texts, so the
// family XSUBs and the handle helpers serve records and addresses alike.
template <class Msg> struct Binding;
template <> struct Binding<Record> {
    static constexpr const char *kClass = kRecordClass;
    static constexpr const char *kNotOfType = kThisNotRecord;
    static constexpr const char *kEmpty = kEmptyRecord;
    static constexpr const char *kForged = kForgedRecord;
};
template <> struct Binding<Address> {
    static constexpr const char *kClass = kAddressClass;
    static constexpr const char *kNotOfType = kThisNotAddress;
    static constexpr const char *kEmpty = kEmptyAddress;
    static constexpr const char *kForged = kForgedAddress;
};

// Where records come from and go to (record_pool.cc): new() takes an empty
// record from new_record(), DESTROY hands it back to free_record(), which
// clears it and keeps it, with the storage of its strings, sub-records and
// list elements, for the next new_record() of this thread.
Record *new_record();
void free_record(Record *m);

// Ends a message owned by a handle.
inline void free_message(Record *m) { free_record(m); }
inline void free_message(Address *a) { delete a; }

// ---- the mark on a handle --------------------------------------------------
//
// Every handle this module makes is a reference to a scalar that carries ext
// magic with the class's own vtable, and the magic holds the message.  Perl
// code can copy the scalar's integer, evaluate a dump back or bless anything
// into the class, but it cannot make that magic, so only the module's own
// handles reach a message.  The scalar's integer still holds the address, as
// it always has, but nothing reads it back.
//
// The scalar refuses assignment through its set magic rather than the
// READONLY flag, on purpose: Perl's bless refuses a read-only referent, and
// reblessing an object into a subclass must keep working.

// The magic dies with the scalar: it frees a message that DESTROY never saw
// (an object reblessed into a class without DESTROY).
template <class Msg> int free_marked(pTHX_ SV *, MAGIC *mg) {
    if (mg->mg_ptr) {
        free_message(reinterpret_cast<Msg *>(mg->mg_ptr));
        mg->mg_ptr = nullptr;
    }
    return 0;
}

// `$$obj = 5`, `$$obj++`: the value is put back and the write refused with
// Perl's own read-only message.  bless runs the set magic too (for every ext
// magic), and that one is let through.
int refuse_write(pTHX_ SV *referent, MAGIC *mg);

// A copy of the scalar in a new interpreter (a thread started while an object
// sat in a class without CLONE_SKIP) must not own the same message: the copy
// keeps the mark and loses the message, so it reads as an empty handle.
inline int dup_marked(pTHX_ MAGIC *mg, CLONE_PARAMS *) {
    mg->mg_ptr = nullptr;
    return 0;
}

template <class Msg> struct Mark {
    static inline const MGVTBL vtbl = {nullptr, refuse_write, nullptr,    nullptr,
                                       free_marked<Msg>, nullptr, dup_marked, nullptr};
};

// The mark of `Msg` on a handle's referent, or null.
template <class Msg> inline MAGIC *mark_of(SV *referent) {
    if (SvTYPE(referent) >= SVt_PVMG) {
        for (MAGIC *mg = SvMAGIC(referent); mg; mg = mg->mg_moremagic)
            if (mg->mg_virtual == &Mark<Msg>::vtbl && mg->mg_type == PERL_MAGIC_ext)
                return mg;
    }
    return nullptr;
}

// An unmarked handle still counts as empty when its scalar holds plain 0, so
// `bless \(my $x = 0), CLASS` keeps giving the empty-handle results.
inline bool holds_zero(SV *referent) {
    if (SvROK(referent) || SvTYPE(referent) > SVt_PVMG || SvGMAGICAL(referent))
        return false;
    if (SvIOK(referent))
        return SvIVX(referent) == 0;
    if (SvNOK(referent))
        return SvNVX(referent) == 0.0;
    return SvPOK(referent) && SvCUR(referent) == 1 && *SvPVX(referent) == '0';
}

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

// The message held by a handle that passed is_object_of: null for an empty
// handle (one whose message was freed, or an unmarked one holding 0); any
// other unmarked handle croaks with `forged`.
template <class Msg> inline Msg *message_of(pTHX_ SV *handle, const char *forged = Binding<Msg>::kForged) {
    SV *referent = SvRV(handle);
    if (MAGIC *mg = mark_of<Msg>(referent))
        return reinterpret_cast<Msg *>(mg->mg_ptr);
    if (!holds_zero(referent))
        croak("%s", forged);
    return nullptr;
}

// The type test: croaks with the class's "THIS is not of type" text.
template <class Msg> inline void check_type(pTHX_ SV *sv) {
    constexpr const char *cls = Binding<Msg>::kClass;
    if (!is_object_of(aTHX_ sv, cls, std::char_traits<char>::length(cls)))
        croak("%s", Binding<Msg>::kNotOfType);
}

// Type test and message read: croaks as check_type does or, for a handle this
// module did not make, with its "made by this module" text; returns null for
// an empty handle.
template <class Msg> inline Msg *message_from_handle(pTHX_ SV *sv) {
    check_type<Msg>(aTHX_ sv);
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

// A new reference (refcount 1), blessed into `stash`, to a new scalar holding
// `m` and carrying its class's mark; the handle owns `m`.
//
// The referent is made a PVMG at once, the type its magic needs, rather than
// grown to it in two upgrades.  The magic is what sv_magicext would make for
// it (one ext magic with a pointer and no length, on a scalar without other
// magic), allocated with Newx instead of that function's zeroing calloc,
// which costs several times a malloc: every field is set below.  Perl frees
// it with Safefree like any magic.
template <class Msg> inline SV *make_handle(pTHX_ HV *stash, Msg *m) {
    SV *referent = newSV_type(SVt_PVMG);
    SvIV_set(referent, PTR2IV(m));
    SvIOK_on(referent);
    SV *handle = newRV_noinc(referent);
    sv_bless(handle, stash);  // before the mark: bless runs the set magic of ext magic
    MAGIC *mg;
    Newx(mg, 1, MAGIC);
    mg->mg_moremagic = nullptr;
    mg->mg_virtual = const_cast<MGVTBL *>(&Mark<Msg>::vtbl);
    mg->mg_private = 0;
    mg->mg_type = PERL_MAGIC_ext;
    mg->mg_flags = MGf_DUP;
    mg->mg_len = 0;
    mg->mg_obj = nullptr;
    mg->mg_ptr = reinterpret_cast<char *>(m);
    SvMAGIC_set(referent, mg);
    // Set magic, from the vtable's set entry, as mg_magical would say.  And
    // "r" magic: it marks the scalar as one to think twice about before
    // changing (Perl's fast path for a postfix ++ whose value is used skips
    // set magic, but not on such a scalar).
    SvSMAGICAL_on(referent);
    SvRMAGICAL_on(referent);
    return handle;
}

// The same, mortal: a constructor that dies while filling `m` frees it.
template <class Msg> inline SV *new_handle(pTHX_ HV *stash, Msg *m) {
    return sv_2mortal(make_handle(aTHX_ stash, m));
}

// The stash of the class a constructor XSUB was installed in, without a
// symbol-table lookup per call.
inline HV *class_stash(pTHX_ CV *cv, const char *cls) {
    HV *stash = GvSTASH(CvGV(cv));
    return stash ? stash : gv_stashpv(cls, GV_ADD);
}

// DESTROY: frees the message and empties the handle, so a second DESTROY (an
// explicit call followed by the automatic one) finds nothing to free.  A
// handle without the mark owns nothing: DESTROY leaves it alone, quietly,
// since it runs wherever the object happens to die.
template <class Msg> inline void destroy_handle(pTHX_ SV *sv) {
    check_type<Msg>(aTHX_ sv);
    SV *referent = SvRV(sv);
    MAGIC *mg = mark_of<Msg>(referent);
    if (!mg || !mg->mg_ptr)
        return;
    Msg *m = reinterpret_cast<Msg *>(mg->mg_ptr);
    mg->mg_ptr = nullptr;
    free_message(m);
    sv_setiv(referent, 0);  // no set magic: this write is ours
}

}  // namespace qel

#endif
