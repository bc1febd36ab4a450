// Placeholder: address text parsing and printing.
#include "address_text.h"

namespace qel {

bool parse_address_text(const char *, size_t, AddressWords &) { return false; }

size_t format_address_text(const AddressWords &, char (&out)[kAddressTextMax]) {
    out[0] = '\0';
    return 0;
}

}  // namespace qel
