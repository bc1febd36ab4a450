// Addresses as text, both ways.  glibc's inet_pton/inet_ntop do the address
// part (so the IPv6 text is RFC 5952's, as glibc prints it); this file only
// picks IPv4 or IPv6 from the words and handles the "%N" route domain.  No
// Perl here: the callers croak, so nothing in this file may.
#include "address_text.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdio>
#include <cstring>

namespace qel {
namespace {

// Longer than any address part inet_pton accepts (45 characters for
// "ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255"), so refusing longer text
// before copying it never refuses a valid address.
constexpr size_t kAddressPartMax = 63;

// Most digits of a route domain: 4294967295 has ten.
constexpr size_t kRouteDomainDigitsMax = 10;

uint32_t word_at(const unsigned char *bytes) {
    return (uint32_t{bytes[0]} << 24) | (uint32_t{bytes[1]} << 16) | (uint32_t{bytes[2]} << 8) |
           uint32_t{bytes[3]};
}

void put_word(unsigned char *bytes, uint32_t w) {
    bytes[0] = static_cast<unsigned char>(w >> 24);
    bytes[1] = static_cast<unsigned char>(w >> 16);
    bytes[2] = static_cast<unsigned char>(w >> 8);
    bytes[3] = static_cast<unsigned char>(w);
}

// "%N" without its '%': 1 to 10 decimal digits, leading zeros allowed, at
// most 4294967295.
bool parse_route_domain(const char *digits, size_t len, uint32_t &out) {
    if (len == 0 || len > kRouteDomainDigitsMax)
        return false;
    uint64_t value = 0;  // ten digits fit in 64 bits with room to spare
    for (size_t i = 0; i < len; ++i) {
        const char c = digits[i];
        if (c < '0' || c > '9')
            return false;
        value = value * 10 + static_cast<uint64_t>(c - '0');
    }
    if (value > UINT32_MAX)
        return false;
    out = static_cast<uint32_t>(value);
    return true;
}

}  // namespace

bool parse_address_text(const char *text, size_t len, AddressWords &out) {
    // The route domain starts at the first '%'; a second '%' then sits among
    // its digits and is refused there.
    const char *percent = static_cast<const char *>(std::memchr(text, '%', len));
    const size_t addr_len = percent ? static_cast<size_t>(percent - text) : len;
    uint32_t rtdom_id = 0;
    if (percent && !parse_route_domain(percent + 1, len - addr_len - 1, rtdom_id))
        return false;

    // inet_pton wants a NUL-terminated string: copy into a bounded buffer.
    // A NUL inside the text would end it early and let "1.2.3.4\0junk"
    // through, so NUL bytes are refused first.
    if (addr_len == 0 || addr_len > kAddressPartMax || std::memchr(text, '\0', addr_len))
        return false;
    char buf[kAddressPartMax + 1];
    std::memcpy(buf, text, addr_len);
    buf[addr_len] = '\0';

    unsigned char bytes[16];
    if (inet_pton(AF_INET, buf, bytes) == 1) {
        out.ip[0] = out.ip[1] = out.ip[2] = 0;
        out.ip[3] = word_at(bytes);
    } else if (inet_pton(AF_INET6, buf, bytes) == 1) {
        for (int i = 0; i < 4; ++i)
            out.ip[i] = word_at(bytes + 4 * i);
    } else {
        return false;
    }
    out.rtdom_id = rtdom_id;
    return true;
}

size_t format_address_text(const AddressWords &a, char (&out)[kAddressTextMax]) {
    static_assert(INET6_ADDRSTRLEN + 1 + kRouteDomainDigitsMax <= kAddressTextMax,
                  "the longest text fits");
    unsigned char bytes[16];
    const char *done;
    // Plain IPv4 only when the top 96 bits are zero: the mapped range
    // (ip2 == 0xffff) stays IPv6 ("::ffff:1.2.3.4"), so parsing the text
    // gives back the same words.  On purpose "::1" therefore prints as
    // "0.0.0.1": it is the same four words.
    if (a.ip[0] == 0 && a.ip[1] == 0 && a.ip[2] == 0) {
        put_word(bytes, a.ip[3]);
        done = inet_ntop(AF_INET, bytes, out, kAddressTextMax);
    } else {
        for (int i = 0; i < 4; ++i)
            put_word(bytes + 4 * i, a.ip[i]);
        done = inet_ntop(AF_INET6, bytes, out, kAddressTextMax);
    }
    if (!done) {  // cannot happen with a buffer this size; keep `out` a string anyway
        out[0] = '\0';
        return 0;
    }
    size_t len = std::strlen(out);
    if (a.rtdom_id != 0)
        len += static_cast<size_t>(
            std::snprintf(out + len, kAddressTextMax - len, "%%%lu", static_cast<unsigned long>(a.rtdom_id)));
    return len;
}

}  // namespace qel
