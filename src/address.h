// The Perl class quillon_event_log::IPAddr (address.cc).
#ifndef QEL_ADDRESS_H
#define QEL_ADDRESS_H

#include "accessors.h"

namespace qel {

// new, DESTROY, to_hashref and the four methods of each address field.
void register_address_class(pTHX_ const char *file);

}  // namespace qel

#endif
