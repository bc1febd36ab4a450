// Where records come from and go to.  DESTROY hands its record back here;
// new() takes one from here.  A record given back is cleared and kept, with
// the storage of its strings, sub-records and list elements, so the next
// record built from a hash or parsed from bytes reuses that storage instead
// of allocating it anew field by field (record_pool.cc).
#ifndef QEL_RECORD_POOL_H
#define QEL_RECORD_POOL_H

#include "binding.h"

namespace qel {

// An empty record, owned by the caller.
Record *new_record();

// Ends a record made by new_record() (or by new Record).
void free_record(Record *m);

}  // namespace qel

#endif
