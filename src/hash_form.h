// The hash form of a record: one Perl hash keyed by field name, written by
// to_hashref and read back by new, copy_from and merge_from (hash_form.cc).
#ifndef QEL_HASH_FORM_H
#define QEL_HASH_FORM_H

#include "binding.h"

namespace qel {

// Computes the hash values of every key once per process (they depend only on
// the process-wide hash seed); called from the boot.
void init_hash_keys(pTHX);

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
