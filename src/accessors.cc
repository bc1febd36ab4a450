// The per-field methods.  One XSUB per family and operation serves every field
// of that family: each registered CV carries its field's operations in
// CvXSUBANY, so a family's rules (conversion, order of checks, empty-handle
// result) are written once here.  register_accessors() installs them from the
// field tables, four methods per field in field-number order.
#include "accessors.h"

#include <cstring>

#include "convert.h"
#include "families.h"

namespace qel {
namespace {

template <class Ops> inline const Ops &field_ops(CV *cv) {
    return *static_cast<const Ops *>(CvXSUBANY(cv).any_ptr);
}

// ---- every singular field ------------------------------------------------

template <class Msg> XS_INTERNAL(xs_has) {
    dXSARGS;
    if (items != 1)
        croak_xs_usage(cv, "svTHIS");
    dXSTARG;  // prepared before the type test, as for every integer result
    const auto &f = field_ops<Presence<Msg>>(cv);
    const Msg &m = live_message_from_handle<Msg>(aTHX_ ST(0));
    XSprePUSH;
    PUSHi(f.has(m) ? 1 : 0);
    XSRETURN(1);
}

template <class Msg> XS_INTERNAL(xs_clear) {
    dXSARGS;
    if (items != 1)
        croak_xs_usage(cv, "svTHIS");
    field_ops<Presence<Msg>>(cv).clear(live_message_from_handle<Msg>(aTHX_ ST(0)));
    XSRETURN_EMPTY;
}

// Getters read the value whether or not the field is present (an absent field
// reads as its default) and return nothing for an empty handle.
template <class Msg, SV *(*to_sv)(pTHX_ CV *, const Msg &)> XS_INTERNAL(xs_get) {
    dXSARGS;
    if (items != 1)
        croak_xs_usage(cv, "svTHIS");
    const Msg *m = message_from_handle<Msg>(aTHX_ ST(0));
    if (!m)
        XSRETURN_EMPTY;
    ST(0) = sv_2mortal(to_sv(aTHX_ cv, *m));
    XSRETURN(1);
}

template <class Ops, class Msg> SV *field_value(pTHX_ CV *cv, const Msg &m) {
    return value_to_sv(aTHX_ field_ops<Ops>(cv).get(m));
}

// A plain string's bytes, read without running any Perl code; null when
// reading VAL needs its get-magic or a conversion (which may run FETCH or an
// overload, and those may free the record).
inline const char *string_arg(pTHX_ SV *val, STRLEN &len) {
    if (!SvPOK_nog(val))
        return nullptr;
    len = SvCUR(val);
    return SvPVX(val);
}

// String setters check THIS before touching VAL; the number and flag setters
// convert VAL first, so a tied VAL is fetched even when THIS is wrong.  Both
// orders are intended.  The message is read after VAL's conversion whenever
// that conversion may run Perl code.
template <class Msg> XS_INTERNAL(xs_string_set) {
    dXSARGS;
    if (items != 2)
        croak_xs_usage(cv, "svTHIS, svVAL");
    Msg *m = message_from_handle<Msg>(aTHX_ ST(0));
    STRLEN len;
    const char *bytes = string_arg(aTHX_ ST(1), len);
    if (!bytes)  // VAL ran Perl code: the message may be gone
        bytes = SvPV(ST(1), len), m = message_from_handle<Msg>(aTHX_ ST(0));
    if (!m)
        croak("%s", Binding<Msg>::kEmpty);
    set_bytes(field_ops<StringField<Msg>>(cv).mut(*m), bytes, len);
    XSRETURN_EMPTY;
}

template <class Msg, class T> XS_INTERNAL(xs_number_set) {
    dXSARGS;
    if (items != 2)
        croak_xs_usage(cv, "svTHIS, svVAL");
    const T value = sv_to_value<T>(aTHX_ ST(1));
    Msg &m = live_message_from_handle<Msg>(aTHX_ ST(0));
    field_ops<NumberField<Msg, T>>(cv).set(m, value);
    XSRETURN_EMPTY;
}

// ---- address sub-records -------------------------------------------------

// Returns a new quillon_event_log::IPAddr holding a copy: changing it never
// changes the record.  An absent address reads as an empty one, never undef.
SV *address_object(pTHX_ CV *cv, const Record &m) {
    HV *stash = gv_stashpvn(kAddressClass, sizeof kAddressClass - 1, GV_ADD);
    return make_handle(aTHX_ stash, new Address(field_ops<AddressField>(cv).get(m)));
}

XS_INTERNAL(xs_address_set) {
    dXSARGS;
    if (items != 2)
        croak_xs_usage(cv, "svTHIS, svVAL");
    live_message_from_handle<Record>(aTHX_ ST(0));
    SV *val = fetched_once(aTHX_ ST(1));
    if (!is_object_of(aTHX_ val, kAddressClass, sizeof kAddressClass - 1))
        croak("%s", kValNotAddress);
    const Address *from = message_of<Address>(aTHX_ val, kForgedValAddress);
    if (!from)
        XSRETURN_EMPTY;  // an empty address handle leaves the field as it was
    // VAL's FETCH may have run Perl code that freed the record: read it again.
    Record &m = live_message_from_handle<Record>(aTHX_ ST(0));
    field_ops<AddressField>(cv).mut(m)->CopyFrom(*from);
    XSRETURN_EMPTY;
}

// ---- repeated strings ----------------------------------------------------

XS_INTERNAL(xs_list_size) {
    dXSARGS;
    if (items != 1)
        croak_xs_usage(cv, "svTHIS");
    dXSTARG;
    const Record &m = live_message_from_handle<Record>(aTHX_ ST(0));
    XSprePUSH;
    PUSHi(field_ops<StringListField>(cv).size(m));
    XSRETURN(1);
}

XS_INTERNAL(xs_list_clear) {
    dXSARGS;
    if (items != 1)
        croak_xs_usage(cv, "svTHIS");
    field_ops<StringListField>(cv).clear(live_message_from_handle<Record>(aTHX_ ST(0)));
    XSRETURN_EMPTY;
}

// With no index: every element as a list.  With one index: that element, or
// undef when it is negative or past the end (a negative index does not count
// from the end).  The index keeps the low 32 bits of its integer value.
XS_INTERNAL(xs_list_get) {
    dXSARGS;
    if (items < 1)
        croak_xs_usage(cv, "svTHIS, ...");
    const auto &f = field_ops<StringListField>(cv);
    const Record *m = record_from_handle(aTHX_ ST(0));
    if (items > 2)
        croak("%s", f.index_usage);
    if (items == 2) {
        const auto index = static_cast<int32_t>(static_cast<uint32_t>(SvIV(ST(1))));
        m = record_from_handle(aTHX_ ST(0));  // the index's FETCH may have freed the record
        if (!m)
            XSRETURN_EMPTY;
        if (index < 0 || index >= f.size(*m))
            XSRETURN_UNDEF;
        ST(0) = sv_2mortal(value_to_sv(aTHX_ f.get(*m, index)));
        XSRETURN(1);
    }
    if (!m)
        XSRETURN_EMPTY;
    const int count = f.size(*m);
    SP -= items;
    EXTEND(SP, count);
    for (int i = 0; i < count; ++i)
        PUSHs(sv_2mortal(value_to_sv(aTHX_ f.get(*m, i))));
    XSRETURN(count);
}

XS_INTERNAL(xs_list_add) {
    dXSARGS;
    if (items != 2)
        croak_xs_usage(cv, "svTHIS, svVAL");
    Record *m = record_from_handle(aTHX_ ST(0));
    STRLEN len;
    const char *bytes = string_arg(aTHX_ ST(1), len);
    if (!bytes)  // VAL ran Perl code: the record may be gone
        bytes = SvPV(ST(1), len), m = record_from_handle(aTHX_ ST(0));
    if (!m)
        croak("%s", kEmptyRecord);
    set_bytes(field_ops<StringListField>(cv).add(*m), bytes, len);
    XSRETURN_EMPTY;
}

// ---- registration --------------------------------------------------------

// One method of a family: its name is prefix + field + suffix.
struct MethodShape {
    const char *prefix;
    const char *suffix;
    XSUBADDR_t xsub;
    const char *proto;
};

// The four methods of a family whose getter and setter follow the field type.
template <class Msg, class Ops, XSUBADDR_t setter> struct ScalarShapes {
    static constexpr MethodShape kShapes[4] = {
        {"has_", "", xs_has<Msg>, "$"},
        {"clear_", "", xs_clear<Msg>, "$"},
        {"", "", xs_get<Msg, field_value<Ops, Msg>>, "$"},
        {"set_", "", setter, "$$"}};
};

template <class Msg, class T>
using NumberShapes = ScalarShapes<Msg, NumberField<Msg, T>, xs_number_set<Msg, T>>;

constexpr MethodShape kAddressShapes[4] = {
    {"has_", "", xs_has<Record>, "$"},
    {"clear_", "", xs_clear<Record>, "$"},
    {"", "", xs_get<Record, address_object>, "$"},
    {"set_", "", xs_address_set, "$$"}};

constexpr MethodShape kStringListShapes[4] = {
    {"", "_size", xs_list_size, "$"},
    {"clear_", "", xs_list_clear, "$"},
    {"", "", xs_list_get, "$;@"},
    {"add_", "", xs_list_add, "$$"}};

template <class Msg> const MethodShape *shapes_of(Family family) {
    switch (family) {
    case Family::String: return ScalarShapes<Msg, StringField<Msg>, xs_string_set<Msg>>::kShapes;
    case Family::UInt32: return NumberShapes<Msg, uint32_t>::kShapes;
    case Family::UInt64: return NumberShapes<Msg, uint64_t>::kShapes;
    case Family::Bool: return NumberShapes<Msg, bool>::kShapes;
    case Family::Address: return kAddressShapes;
    case Family::StringList: return kStringListShapes;
    }
    return nullptr;
}

template <class Msg, size_t N>
void register_fields(pTHX_ const FieldInfo<Msg> (&fields)[N], const char *cls, const char *file) {
    char name[256];
    for (const auto &f : fields) {
        const MethodShape *shapes = shapes_of<Msg>(f.family);
        for (size_t i = 0; i < 4; ++i) {
            const MethodShape &s = shapes[i];
            snprintf(name, sizeof name, "%s::%s%s%s", cls, s.prefix, f.name, s.suffix);
            CV *cv = newXS_flags(name, s.xsub, file, s.proto, 0);
            CvXSUBANY(cv).any_ptr = const_cast<void *>(f.ops);
        }
    }
}

}  // namespace

void register_accessors(pTHX_ const char *file) {
    register_fields(aTHX_ kRecordFields, kRecordClass, file);
}

void register_address_accessors(pTHX_ const char *file) {
    register_fields(aTHX_ kAddressFields, kAddressClass, file);
}

}  // namespace qel
