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

}  // namespace qel

// ---- the keys as shared strings ----------------------------------------------
//
// Perl keeps every hash key once, in the interpreter's table of shared
// strings.  Storing a key given as text looks it up there each time; a key
// given as a scalar that already is such a shared string is just counted once
// more, and a new hash's bucket is searched by comparing pointers.  So the
// keys to_hashref stores are made once per interpreter as shared-string
// scalars.  The table of shared strings belongs to one interpreter, so these
// scalars do too: a new thread's interpreter, which starts with its parent's
// pointer to them, makes its own on first use.
#define MY_CXT_KEY "quillon_event_log::QuillonEventLog::_keys" XS_VERSION

typedef struct {
    PerlInterpreter *owner;  // the interpreter that made the scalars below
    SV *record[qel::kRecordFieldCount];
    SV *address[qel::kAddressFieldCount];
} my_cxt_t;

START_MY_CXT

namespace qel {
namespace {

template <class Msg, size_t N>
void share_keys(pTHX_ const FieldInfo<Msg> (&fields)[N], const U32 (&hashes)[N], SV *(&out)[N]) {
    for (size_t i = 0; i < N; ++i)
        out[i] = newSVpvn_share(fields[i].name, static_cast<I32>(fields[i].len), hashes[i]);
}

void make_shared_keys(pTHX_ my_cxt_t *cxt) {
    cxt->owner = aTHX;
    share_keys(aTHX_ kRecordFields, record_key_hash, cxt->record);
    share_keys(aTHX_ kAddressFields, address_key_hash, cxt->address);
}

// The shared keys of the running interpreter.
inline const my_cxt_t &shared_keys(pTHX) {
    if (my_cxt_index >= 0 && my_cxt_index < PL_my_cxt_size) {
        const auto *cxt = static_cast<const my_cxt_t *>(PL_my_cxt_list[my_cxt_index]);
        if (cxt && cxt->owner == aTHX)
            return *cxt;
    }
    // A thread's interpreter: its slot still points at its parent's keys.
    MY_CXT_INIT;
    make_shared_keys(aTHX_ &MY_CXT);
    return MY_CXT;
}

// Stores `value` under a shared key; the hash takes over the reference.
inline void store_shared(pTHX_ HV *hv, SV *key, SV *value) { hv_store_ent(hv, key, value, 0); }

// The record's field names by key hash value, for reading a plain hash by
// its own entries: open addressing over twice as many slots as fields, each
// slot holding a field index + 1 (0: empty).  Filled with the key hashes.
constexpr size_t kNameSlots = 128;
static_assert(kNameSlots >= 2 * kRecordFieldCount, "the name table needs room to stay sparse");
unsigned char name_slot[kNameSlots];

void fill_name_slots() {
    for (size_t i = 0; i < kRecordFieldCount; ++i) {
        size_t s = record_key_hash[i] & (kNameSlots - 1);
        while (name_slot[s])
            s = (s + 1) & (kNameSlots - 1);
        name_slot[s] = static_cast<unsigned char>(i + 1);
    }
}

// Whether `len` bytes at `a` and `b` are equal: words, the last one
// overlapping, instead of a call to memcmp for names of a few words.
inline bool same_bytes(const char *a, const char *b, size_t len) {
    if (len < 8)
        return std::memcmp(a, b, len) == 0;
    uint64_t x, y, diff = 0;
    for (size_t i = 0; i + 8 < len; i += 8) {
        std::memcpy(&x, a + i, 8);
        std::memcpy(&y, b + i, 8);
        diff |= x ^ y;
    }
    std::memcpy(&x, a + len - 8, 8);
    std::memcpy(&y, b + len - 8, 8);
    return (diff | (x ^ y)) == 0;
}

// The field index of a hash entry's key, or -1 for any other key.
inline int field_of_entry(const HE *he) {
    const U32 hash = HeHASH(he);
    for (size_t s = hash & (kNameSlots - 1);; s = (s + 1) & (kNameSlots - 1)) {
        const unsigned k = name_slot[s];
        if (!k)
            return -1;
        const auto &fi = kRecordFields[k - 1];
        if (record_key_hash[k - 1] == hash && HeKLEN(he) == static_cast<I32>(fi.len) && !HeKUTF8(he) &&
            same_bytes(HeKEY(he), fi.name, fi.len))
            return static_cast<int>(k - 1);
    }
}

// Whether converting `v` can run no Perl code: no get-magic, no reference
// (an overloaded object), no warning (a __WARN__ handler is Perl code).  As
// text: any defined plain string or number.  As a number: an integer, a
// floating-point value, or plain decimal digits; other text may warn that it
// is not numeric.
inline bool plain_scalar(SV *v) {
    return !SvGMAGICAL(v) && !SvROK(v) && SvTYPE(v) <= SVt_PVMG && (SvFLAGS(v) & (SVf_POK | SVf_IOK | SVf_NOK));
}
inline bool reads_quietly_as_text(SV *v) { return plain_scalar(v); }
inline bool reads_quietly_as_number(SV *v) {
    if (!plain_scalar(v))
        return false;
    if (SvIOK(v) || SvNOK(v))
        return true;
    uint64_t n;
    return plain_decimal(SvPVX(v), SvCUR(v), n);
}

template <class Msg, size_t N> void hash_keys(const FieldInfo<Msg> (&fields)[N], U32 (&out)[N]) {
    for (size_t i = 0; i < N; ++i)
        PERL_HASH(out[i], fields[i].name, fields[i].len);
}

template <class Ops> SV *list_to_sv(pTHX_ const Ops &f, const Record &m, int count) {
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
// element may run Perl code.  Returns whether no Perl code could have run.
template <class Ops> bool fill_list(pTHX_ const Ops &f, Record &m, AV *av) {
    bool quiet = !SvMAGICAL(av);
    for (SSize_t i = 0; i <= av_len(av); ++i) {
        SV **elem = av_fetch(av, i, 0);
        if (!elem)
            continue;
        quiet = quiet && reads_quietly_as_text(*elem);
        STRLEN len;  // SvPV fetches a tied element once
        const char *bytes = SvPV(*elem, len);
        set_bytes(f.add(m), bytes, len);
    }
    return quiet;
}

}  // namespace

void init_hash_keys(pTHX) {
    hash_keys(kRecordFields, record_key_hash);
    hash_keys(kAddressFields, address_key_hash);
    fill_name_slots();
    MY_CXT_INIT;
    make_shared_keys(aTHX_ &MY_CXT);
}

namespace {

HV *address_to_hash(pTHX_ const Address &a, const my_cxt_t &keys) {
    HV *hv = newHV();
    each_address_field([&](size_t i, auto, const auto &ops) {
        if (ops.presence.has(a))
            store_shared(aTHX_ hv, keys.address[i], value_to_sv(aTHX_ ops.get(a)));
    });
    return hv;
}

}  // namespace

HV *address_to_hash(pTHX_ const Address &a) { return address_to_hash(aTHX_ a, shared_keys(aTHX)); }

// One pass over the fields makes the values of the present ones; the hash is
// then sized once for them and filled.
HV *record_to_hash(pTHX_ const Record &m) {
    const my_cxt_t &keys = shared_keys(aTHX);
    SV *values[kRecordFieldCount];
    size_t index[kRecordFieldCount];
    size_t count = 0;
    each_record_field([&](size_t i, auto family, const auto &ops) {
        constexpr Family F = decltype(family)::value;
        SV *value;
        if constexpr (F == Family::StringList) {
            // A list has a key only when it holds an element.
            const int n = ops.size(m);
            if (!n)
                return;
            value = list_to_sv(aTHX_ ops, m, n);
        } else {
            if (!ops.presence.has(m))
                return;
            if constexpr (F == Family::Address)
                // A present address always gets its key, with an empty hash
                // when none of its own fields is set.
                value = newRV_noinc(reinterpret_cast<SV *>(address_to_hash(aTHX_ ops.get(m), keys)));
            else
                value = value_to_sv(aTHX_ ops.get(m));
        }
        values[count] = value;
        index[count++] = i;
    });
    HV *hv = newHV();
    if (count > 7)
        hv_ksplit(hv, count);
    for (size_t k = 0; k < count; ++k)
        store_shared(aTHX_ hv, keys.record[index[k]], values[k]);
    return hv;
}

namespace {

// fill_address, saying whether no Perl code could have run.
bool fill_address_quietly(pTHX_ Address &a, HV *hv) {
    bool quiet = !SvMAGICAL(hv) && !SvREADONLY(hv);
    for (size_t i = 0; i < kAddressFieldCount; ++i) {
        const auto &fi = kAddressFields[i];
        if (SV *value = fetch_key(aTHX_ hv, fi.name, fi.len, address_key_hash[i])) {
            quiet = quiet && reads_quietly_as_number(value);
            const auto &f = ops_of<UInt32Field<Address>>(fi);
            f.set(a, sv_to_value<uint32_t>(aTHX_ fetched_once(aTHX_ value)));
        }
    }
    return quiet;
}

}  // namespace

void fill_address(pTHX_ Address &a, HV *hv) { fill_address_quietly(aTHX_ a, hv); }

namespace {

// Sets one field from its hash value, converted as its setter converts;
// returns whether no Perl code could have run.
struct SetField {
    PerlInterpreter *my_perl;
    Record &m;
    SV *value;

    template <class Tag, class Ops> bool operator()(size_t, Tag, const Ops &ops) const {
        constexpr Family F = Tag::value;
        SV *v = value;
        bool quiet;
        if constexpr (F == Family::String || F == Family::UInt64)
            quiet = reads_quietly_as_text(v);
        else if constexpr (F == Family::UInt32 || F == Family::Bool)
            quiet = reads_quietly_as_number(v);
        else
            quiet = !SvGMAGICAL(v);  // the nested hash or array says the rest
        v = fetched_once(aTHX_ v);
        if constexpr (F == Family::String) {
            STRLEN len;
            const char *bytes = SvPV(v, len);
            set_bytes(ops.mut(m), bytes, len);
        } else if constexpr (F == Family::UInt32) {
            ops.set(m, sv_to_value<uint32_t>(aTHX_ v));
        } else if constexpr (F == Family::UInt64) {
            ops.set(m, sv_to_value<uint64_t>(aTHX_ v));
        } else if constexpr (F == Family::Bool) {
            ops.set(m, sv_to_value<bool>(aTHX_ v));
        } else if constexpr (F == Family::Address) {
            // The key alone makes the address present, whatever its value;
            // only a nested hash fills it.
            Address *a = ops.mut(m);
            if (is_hash_ref(v))
                quiet = fill_address_quietly(aTHX_ *a, reinterpret_cast<HV *>(SvRV(v))) && quiet;
        } else {
            if (SvROK(v) && SvTYPE(SvRV(v)) == SVt_PVAV)
                quiet = fill_list(aTHX_ ops, m, reinterpret_cast<AV *>(SvRV(v))) && quiet;
        }
        return quiet;
    }
};

bool set_field(pTHX_ Record &m, size_t i, SV *value) {
    bool quiet = true;
    with_record_field(i, [&](size_t index, auto tag, const auto &ops) {
        quiet = SetField{aTHX, m, value}(index, tag, ops);
    });
    return quiet;
}

constexpr size_t kFoundWords = (kRecordFieldCount + 63) / 64;

}  // namespace

// A plain hash is read by its own entries: one walk over them finds the
// values of the fields it holds, whatever else it holds, and the fields are
// then set in field-number order (the order of any warnings and FETCHes).
// Setting a field may run Perl code (a tied value, an overloaded object, a
// __WARN__ handler) that changes the hash; from the first field that could,
// every later field is looked up again, as a magical hash always is.
void fill_record(pTHX_ Record &m, HV *hv) {
    size_t next = 0;  // the first field not yet done
    if (!SvMAGICAL(hv) && !SvREADONLY(hv)) {
        SV *found[kRecordFieldCount];
        uint64_t present[kFoundWords] = {};
        if (HE **buckets = HvARRAY(hv)) {
            STRLEN left = HvTOTALKEYS(hv);
            for (STRLEN b = 0; left && b <= HvMAX(hv); ++b) {
                for (const HE *he = buckets[b]; he; he = HeNEXT(he), --left) {
                    const int i = field_of_entry(he);
                    if (i >= 0 && HeVAL(he) != &PL_sv_placeholder) {
                        found[i] = HeVAL(he);
                        present[i / 64] |= uint64_t(1) << (i % 64);
                    }
                }
            }
        }
        next = kRecordFieldCount;
        for (size_t w = 0; w < kFoundWords && next == kRecordFieldCount; ++w) {
            for (uint64_t bits = present[w]; bits; bits &= bits - 1) {
                const size_t i = w * 64 + static_cast<size_t>(__builtin_ctzll(bits));
                if (!set_field(aTHX_ m, i, found[i])) {
                    next = i + 1;
                    break;
                }
            }
        }
    }
    for (size_t i = next; i < kRecordFieldCount; ++i) {
        const auto &fi = kRecordFields[i];
        if (SV *value = fetch_key(aTHX_ hv, fi.name, fi.len, record_key_hash[i]))
            set_field(aTHX_ m, i, value);
    }
}

}  // namespace qel
