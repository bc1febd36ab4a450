// The protobuf runtime's log lines (invalid UTF-8 in a string field, input
// over the size limit) under the caller's control, per interpreter: printed
// on stderr as the runtime does (the default), raised as Perl warnings after
// the C++ call has returned, or silenced and counted.  The Perl side is the
// package quillon_event_log::RuntimeLog.
#ifndef QEL_RUNTIME_LOG_H
#define QEL_RUNTIME_LOG_H

#include "binding.h"

namespace qel {

// Boot: installs the log handler (once per process), sets this interpreter's
// mode from QUILLON_EVENT_LOG_RUNTIME_LOG and registers the functions of
// quillon_event_log::RuntimeLog.
void init_runtime_log(pTHX_ const char *file);

// Raises the lines queued in "warn" mode as Perl warnings.  Call it after the
// C++ work of a method is done, from a frame that holds no C++ object with a
// destructor: a $SIG{__WARN__} handler may die, and that unwinds with longjmp.
void flush_runtime_log(pTHX);

}  // namespace qel

#endif
