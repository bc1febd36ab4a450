// A small per-thread pool of cleared records.  Clearing keeps every string,
// sub-record and list element a record has allocated, so a pooled record is
// refilled without a malloc per field.  Only records whose content is small
// are kept, so the pool holds a bounded amount of memory; it is per thread,
// so no lock is needed, and it is freed when the thread ends.
#include "binding.h"

namespace qel {
namespace {

constexpr int kPoolSize = 16;
constexpr size_t kLargestPooled = 64 * 1024;  // encoded bytes

struct Pool {
    Record *records[kPoolSize];
    int count = 0;
    bool open = true;  // off once the thread is ending: records are then just freed
    ~Pool() {
        open = false;
        while (count > 0)
            delete records[--count];
    }
};

thread_local Pool pool;

}  // namespace

Record *new_record() {
    return pool.count > 0 ? pool.records[--pool.count] : new Record;
}

void free_record(Record *m) {
    if (!pool.open || pool.count == kPoolSize || m->ByteSizeLong() > kLargestPooled) {
        delete m;
        return;
    }
    m->Clear();
    pool.records[pool.count++] = m;
}

// Perl's bless runs the set magic of every ext magic; that is the one call
// that is not a write.  Everything else puts the address back and refuses.
int refuse_write(pTHX_ SV *referent, MAGIC *mg) {
    if (PL_op && PL_op->op_type == OP_BLESS)
        return 0;
    sv_setiv(referent, PTR2IV(mg->mg_ptr));
    croak_no_modify();
}

}  // namespace qel
