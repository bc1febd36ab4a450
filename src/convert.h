// Conversions between Perl values and field values, shared by the accessors
// and by the hash form so both directions follow the same rules everywhere.
#ifndef QEL_CONVERT_H
#define QEL_CONVERT_H

#include <charconv>
#include <cstdlib>

#include "binding.h"

namespace qel {

// Field values to new Perl scalars, one overload per field type, shared by the
// getters and the hash form.

// Strings are bytes: the UTF-8 flag is ignored on the way in and never set on
// the way out.
inline SV *value_to_sv(pTHX_ const std::string &s) { return newSVpvn(s.data(), s.size()); }

inline SV *value_to_sv(pTHX_ uint32_t v) { return newSVuv(v); }

// uint64 values leave as decimal text, never as numbers, so no precision is
// lost on any Perl.
inline SV *value_to_sv(pTHX_ uint64_t v) {
    char digits[20];
    const auto end = std::to_chars(digits, digits + sizeof digits, v).ptr;
    return newSVpvn(digits, end - digits);
}

inline SV *value_to_sv(pTHX_ bool v) { return newSViv(v ? 1 : 0); }

// Perl scalars to number and flag values, one specialisation per field type.
template <class T> T sv_to_value(pTHX_ SV *sv);

// uint32 values wrap modulo 2**32 after Perl's unsigned conversion.
template <> inline uint32_t sv_to_value<uint32_t>(pTHX_ SV *sv) { return static_cast<uint32_t>(SvUV(sv)); }

// uint64 values arrive as text parsed like C's strtoull with base 0: leading
// blanks, a sign, "0x" hex or "0" octal; it stops at the first character that
// does not fit, gives 0 without digits and saturates when too large.  Numbers
// pass through Perl's string form of them, so 1e19 reads as 1 ("1e+19").
template <> inline uint64_t sv_to_value<uint64_t>(pTHX_ SV *sv) {
    const char *text = SvPV_nolen(sv);
    return std::strtoull(text ? text : "", nullptr, 0);
}

// Flags follow the integer value, not Perl truth: 0.5 and "0 but true" are false.
template <> inline bool sv_to_value<bool>(pTHX_ SV *sv) { return SvIV(sv) != 0; }

}  // namespace qel

#endif
