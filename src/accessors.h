// Installs the per-field methods of both classes (accessors.cc).
#ifndef QEL_ACCESSORS_H
#define QEL_ACCESSORS_H

#include "binding.h"

namespace qel {

// Four methods per record field, in field-number order, under
// quillon_event_log::QuillonEventLog::.  `file` is the file name every CV carries.
void register_accessors(pTHX_ const char *file);

// The same for the five fields of quillon_event_log::IPAddr.
void register_address_accessors(pTHX_ const char *file);

}  // namespace qel

#endif
