// The hash form of a record: one Perl hash keyed by field name, written by
// to_hashref and read back by new, copy_from and merge_from (hash_form.cc).
#ifndef QEL_HASH_FORM_H
#define QEL_HASH_FORM_H

#include <cstring>

#include "binding.h"

namespace qel {

// Computes the hash values of every key once per process (they depend only on
// the process-wide hash seed); called from the boot.
void init_hash_keys(pTHX);

// Those hash values, by position in kRecordFields / kAddressFields; the codec
// reads them too.
extern U32 record_key_hash[kRecordFieldCount];
extern U32 address_key_hash[kAddressFieldCount];

// A plain hash (no magic, not restricted) is read by walking the key's bucket
// with the precomputed hash, which is what hv_fetch does for it, minus its
// generality.  A tied hash answers every fetch with a proxy and a restricted
// one dies on a key it does not allow, so for those (and any other magical
// hash) the key's existence is asked first (a tied hash's EXISTS), then the
// value fetched.  Either way a lookup only reads: no key is ever added.
inline SV *fetch_key(pTHX_ HV *hv, const char *key, size_t len, U32 hash) {
    if (SvMAGICAL(hv) || SvREADONLY(hv)) {
        const auto klen = static_cast<I32>(len);
        if (!hv_common_key_len(hv, key, klen, HV_FETCH_ISEXISTS, nullptr, hash))
            return nullptr;
        SV **svp = static_cast<SV **>(hv_common_key_len(hv, key, klen, HV_FETCH_JUST_SV, nullptr, hash));
        return svp ? *svp : nullptr;
    }
    if (!HvARRAY(hv))
        return nullptr;
    for (HE *he = HvARRAY(hv)[hash & HvMAX(hv)]; he; he = HeNEXT(he)) {
        if (HeHASH(he) == hash && HeKLEN(he) == static_cast<I32>(len) && !HeKUTF8(he) &&
            std::memcmp(HeKEY(he), key, len) == 0)
            return HeVAL(he) == &PL_sv_placeholder ? nullptr : HeVAL(he);
    }
    return nullptr;
}

// A new hash holding every present field of `m` (refcount 1, owned by the caller).
HV *record_to_hash(pTHX_ const Record &m);
HV *address_to_hash(pTHX_ const Address &a);

// True when `sv` is a reference to a hash (blessed or not): the one test of
// "a hash was given" used wherever a hash form is accepted.
inline bool is_hash_ref(SV *sv) { return SvROK(sv) && SvTYPE(SvRV(sv)) == SVt_PVHV; }

// Sets the fields named in `hv` on `m`, in field-number order, each key looked
// up once and each value converted once; unknown keys are never looked at and
// nothing is added to the caller's hash.  Values of the wrong kind are
// converted the way the accessors convert them, or skipped for the nested
// hash and the arrays.  Never dies on its own, but a value's get-magic may.
void fill_record(pTHX_ Record &m, HV *hv);
void fill_address(pTHX_ Address &a, HV *hv);

}  // namespace qel

#endif
