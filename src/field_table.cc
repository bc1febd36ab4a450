// The field tables of both messages, expanded from fields.h: one operations
// struct per field and one FieldInfo row pointing at it.  All of it is
// constant-initialised; nothing runs when the module loads.
#include "families.h"

namespace qel {
namespace {

#define QEL_DEFINE_OPS(M, f, family) constexpr auto ops_##f = QEL_##family##_OPS(M, f);
#define QEL_RECORD_OPS(f, family) QEL_DEFINE_OPS(Record, f, family)
#define QEL_ADDRESS_OPS(f, family) QEL_DEFINE_OPS(Address, f, family)
QEL_RECORD_FIELDS(QEL_RECORD_OPS)
QEL_ADDRESS_FIELDS(QEL_ADDRESS_OPS)

}  // namespace

#define QEL_FIELD_ROW(f, family) {#f, sizeof(#f) - 1, Family::family, &ops_##f},
const FieldInfo<Record> kRecordFields[kRecordFieldCount] = {QEL_RECORD_FIELDS(QEL_FIELD_ROW)};
const FieldInfo<Address> kAddressFields[kAddressFieldCount] = {QEL_ADDRESS_FIELDS(QEL_FIELD_ROW)};

}  // namespace qel
