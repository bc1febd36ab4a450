// Placeholder until the runtime log lands: the runtime prints as it always did.
#include "runtime_log.h"

namespace qel {

void init_runtime_log(pTHX_ const char *file) { PERL_UNUSED_VAR(file); }

void flush_runtime_log(pTHX) {}

}  // namespace qel
