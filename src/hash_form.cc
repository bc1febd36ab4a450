// Record <-> Perl hash.  Both directions walk the field tables of
// field_table.cc, so the keys and their order are the field list itself, and
// convert values with the accessors' own rules (convert.h).  Key hash values
// are computed once, so no key is hashed again per call.
#include "hash_form.h"

#include <cstring>

#include "convert.h"
#include "families.h"

namespace qel {

U32 record_key_hash[kRecordFieldCount];
U32 address_key_hash[kAddressFieldCount];

namespace {

template <class Msg, size_t N> void hash_keys(const FieldInfo<Msg> (&fields)[N], U32 (&out)[N]) {
    for (size_t i = 0; i < N; ++i)
        PERL_HASH(out[i], fields[i].name, fields[i].len);
}

inline void store(pTHX_ HV *hv, const char *key, size_t len, U32 hash, SV *value) {
    hv_store(hv, key, static_cast<I32>(len), value, hash);
}

SV *list_to_sv(pTHX_ const StringListField &f, const Record &m, int count) {
    AV *av = newAV();
    av_extend(av, count - 1);
    SV **slots = AvARRAY(av);
    for (int i = 0; i < count; ++i)
        slots[i] = value_to_sv(aTHX_ f.get(m, i));
    AvFILLp(av) = count - 1;
    return newRV_noinc(reinterpret_cast<SV *>(av));
}

// Appends one element per existing array element; holes add nothing.  The
// array's length is asked again before each element, since converting an
// element may run Perl code.
void fill_list(pTHX_ const StringListField &f, Record &m, AV *av) {
    for (SSize_t i = 0; i <= av_len(av); ++i) {
        SV **elem = av_fetch(av, i, 0);
        if (!elem)
            continue;
        STRLEN len;  // SvPV fetches a tied element once
        const char *bytes = SvPV(*elem, len);
        f.add(m)->assign(bytes, len);
    }
}

// The value of a present scalar field as a new scalar, or null when absent.
template <class Ops, class Msg> SV *present_value(pTHX_ const FieldInfo<Msg> &fi, const Msg &m) {
    const auto &f = ops_of<Ops>(fi);
    return f.presence.has(m) ? value_to_sv(aTHX_ f.get(m)) : nullptr;
}

// Sets a number or flag field from a Perl value, converted as its setter does.
template <class Ops, class Msg> void set_value(pTHX_ const FieldInfo<Msg> &fi, Msg &m, SV *value) {
    const auto &f = ops_of<Ops>(fi);
    f.set(m, sv_to_value<decltype(f.get(m))>(aTHX_ value));
}

// Present fields, counted to size the hash once instead of splitting it as
// it fills.
size_t count_present(const Record &m) {
    size_t count = 0;
    for (const auto &fi : kRecordFields) {
        if (fi.family == Family::StringList)
            count += ops_of<StringListField>(fi).size(m) != 0;
        else  // every singular family's ops begin with its Presence
            count += static_cast<const Presence<Record> *>(fi.ops)->has(m);
    }
    return count;
}

}  // namespace

void init_hash_keys(pTHX) {
    hash_keys(kRecordFields, record_key_hash);
    hash_keys(kAddressFields, address_key_hash);
}

HV *address_to_hash(pTHX_ const Address &a) {
    HV *hv = newHV();
    for (size_t i = 0; i < kAddressFieldCount; ++i) {
        const auto &fi = kAddressFields[i];
        if (SV *value = present_value<UInt32Field<Address>>(aTHX_ fi, a))
            store(aTHX_ hv, fi.name, fi.len, address_key_hash[i], value);
    }
    return hv;
}

HV *record_to_hash(pTHX_ const Record &m) {
    HV *hv = newHV();
    if (const size_t count = count_present(m); count > 7)
        hv_ksplit(hv, count);
    for (size_t i = 0; i < kRecordFieldCount; ++i) {
        const auto &fi = kRecordFields[i];
        SV *value = nullptr;
        switch (fi.family) {
        case Family::String: value = present_value<StringField<Record>>(aTHX_ fi, m); break;
        case Family::UInt32: value = present_value<UInt32Field<Record>>(aTHX_ fi, m); break;
        case Family::UInt64: value = present_value<UInt64Field<Record>>(aTHX_ fi, m); break;
        case Family::Bool: value = present_value<BoolField<Record>>(aTHX_ fi, m); break;
        case Family::Address: {
            // A present address always gets its key, with an empty hash when
            // none of its own fields is set.
            const auto &f = ops_of<AddressField>(fi);
            if (f.presence.has(m))
                value = newRV_noinc(reinterpret_cast<SV *>(address_to_hash(aTHX_ f.get(m))));
            break;
        }
        case Family::StringList: {
            // A list has a key only when it holds an element.
            const auto &f = ops_of<StringListField>(fi);
            if (const int count = f.size(m))
                value = list_to_sv(aTHX_ f, m, count);
            break;
        }
        }
        if (value)
            store(aTHX_ hv, fi.name, fi.len, record_key_hash[i], value);
    }
    return hv;
}

void fill_address(pTHX_ Address &a, HV *hv) {
    for (size_t i = 0; i < kAddressFieldCount; ++i) {
        const auto &fi = kAddressFields[i];
        if (SV *value = fetch_key(aTHX_ hv, fi.name, fi.len, address_key_hash[i]))
            set_value<UInt32Field<Address>>(aTHX_ fi, a, fetched_once(aTHX_ value));
    }
}

void fill_record(pTHX_ Record &m, HV *hv) {
    for (size_t i = 0; i < kRecordFieldCount; ++i) {
        const auto &fi = kRecordFields[i];
        SV *value = fetch_key(aTHX_ hv, fi.name, fi.len, record_key_hash[i]);
        if (!value)
            continue;
        value = fetched_once(aTHX_ value);
        switch (fi.family) {
        case Family::String: {
            STRLEN len;
            const char *bytes = SvPV(value, len);
            ops_of<StringField<Record>>(fi).mut(m)->assign(bytes, len);
            break;
        }
        case Family::UInt32: set_value<UInt32Field<Record>>(aTHX_ fi, m, value); break;
        case Family::UInt64: set_value<UInt64Field<Record>>(aTHX_ fi, m, value); break;
        case Family::Bool: set_value<BoolField<Record>>(aTHX_ fi, m, value); break;
        case Family::Address: {
            // The key alone makes the address present, whatever its value;
            // only a nested hash fills it.
            Address *a = ops_of<AddressField>(fi).mut(m);
            if (is_hash_ref(value))
                fill_address(aTHX_ *a, reinterpret_cast<HV *>(SvRV(value)));
            break;
        }
        case Family::StringList:
            if (SvROK(value) && SvTYPE(SvRV(value)) == SVt_PVAV)
                fill_list(aTHX_ ops_of<StringListField>(fi), m, reinterpret_cast<AV *>(SvRV(value)));
            break;
        }
    }
}

}  // namespace qel
