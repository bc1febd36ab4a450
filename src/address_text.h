// Addresses as text: "203.0.113.45", "2001:db8::1", each with "%N" appended
// for a non-zero route domain.  Shared by quillon_event_log::IPAddr's
// from_string/as_string and the codec's text addresses.
#ifndef QEL_ADDRESS_TEXT_H
#define QEL_ADDRESS_TEXT_H

#include <cstddef>
#include <cstdint>

namespace qel {

// The five numbers of an address, in field order: ip0..ip3 (ip0 holds the
// most significant 32 bits of an IPv6 address; IPv4 sits in ip3 with ip0..ip2
// zero), then rtdom_id.
struct AddressWords {
    uint32_t ip[4];
    uint32_t rtdom_id;
};

// Longest text format_address_text writes, with its terminating NUL.
constexpr size_t kAddressTextMax = 64;

// Parses `len` bytes of text (not NUL-terminated); false on anything that is
// not one address in the documented forms.
bool parse_address_text(const char *text, size_t len, AddressWords &out);

// Writes the text of `a` into `out` (NUL-terminated) and returns its length.
size_t format_address_text(const AddressWords &a, char (&out)[kAddressTextMax]);

}  // namespace qel

#endif
