// The field tables of both messages, expanded from fields.h: one FieldInfo row
// per field, pointing at the field's operations (families.h).  All of it is
// constant-initialised; nothing runs when the module loads.
#include "families.h"

namespace qel {

#define QEL_RECORD_ROW(f, family) {#f, sizeof(#f) - 1, Family::family, &record_ops::f},
#define QEL_ADDRESS_ROW(f, family) {#f, sizeof(#f) - 1, Family::family, &address_ops::f},
const FieldInfo<Record> kRecordFields[kRecordFieldCount] = {QEL_RECORD_FIELDS(QEL_RECORD_ROW)};
const FieldInfo<Address> kAddressFields[kAddressFieldCount] = {QEL_ADDRESS_FIELDS(QEL_ADDRESS_ROW)};

}  // namespace qel
