// Conversions between Perl values and field values, shared by the accessors
// and by the hash form so both directions follow the same rules everywhere.
#ifndef QEL_CONVERT_H
#define QEL_CONVERT_H

#include <cstdlib>
#include <cstring>

#include "binding.h"

namespace qel {

// Field values to new Perl scalars, one overload per field type, shared by the
// getters and the hash form.

// Strings are bytes: the UTF-8 flag is ignored on the way in and never set on
// the way out.
inline SV *value_to_sv(pTHX_ const std::string &s) { return newSVpvn(s.data(), s.size()); }

inline SV *value_to_sv(pTHX_ uint32_t v) { return newSVuv(v); }

// The decimal digits of `v`, written backwards so that they end at `end`;
// returns where they start (at most 20 bytes before `end`).  Two digits per
// step from a table, eight digits at a time in 32-bit arithmetic: a 20-digit
// value takes two 64-bit divisions, where a digit-pair loop over the whole
// value takes nine.
inline char *put_decimal(char *end, uint64_t v) {
    static constexpr char kPairs[] =
        "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
        "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
        "8081828384858687888990919293949596979899";
    char *p = end;
    while (v >= 100000000) {
        auto low = static_cast<uint32_t>(v % 100000000);
        v /= 100000000;
        for (int k = 0; k < 4; ++k, low /= 100) {
            p -= 2;
            std::memcpy(p, kPairs + 2 * (low % 100), 2);
        }
    }
    auto w = static_cast<uint32_t>(v);
    for (; w >= 100; w /= 100) {
        p -= 2;
        std::memcpy(p, kPairs + 2 * (w % 100), 2);
    }
    if (w >= 10) {
        p -= 2;
        std::memcpy(p, kPairs + 2 * w, 2);
    } else {
        *--p = static_cast<char>('0' + w);
    }
    return p;
}

// uint64 values leave as decimal text, never as numbers, so no precision is
// lost on any Perl.
inline SV *value_to_sv(pTHX_ uint64_t v) {
    char digits[20];
    const char *start = put_decimal(digits + sizeof digits, v);
    return newSVpvn(start, static_cast<STRLEN>(digits + sizeof digits - start));
}

inline SV *value_to_sv(pTHX_ bool v) { return newSViv(v ? 1 : 0); }

// Perl scalars to number and flag values, one specialisation per field type.
template <class T> T sv_to_value(pTHX_ SV *sv);

// uint32 values wrap modulo 2**32 after Perl's unsigned conversion.  An
// integer without get-magic is read as it is (what sv_2uv would return for
// it, without the call).
template <> inline uint32_t sv_to_value<uint32_t>(pTHX_ SV *sv) {
    if (SvIOK_nog(sv))
        return static_cast<uint32_t>(static_cast<UV>(SvIVX(sv)));
    return static_cast<uint32_t>(SvUV(sv));
}

// Plain decimal text of 1 to 20 digits, the common form of a uint64 value,
// read without strtoull, with strtoull's result: twenty digits past the range
// saturate, as strtoull does.  False for anything else, a leading zero
// included (octal for strtoull).
inline bool plain_decimal(const char *s, size_t len, uint64_t &out) {
    if (len == 0 || len > 20 || (s[0] == '0' && len > 1))
        return false;
    uint64_t n = 0;
    const size_t safe = len < 19 ? len : 19;  // 19 digits cannot overflow
    for (size_t i = 0; i < safe; ++i) {
        const unsigned d = static_cast<unsigned char>(s[i]) - '0';
        if (d > 9)
            return false;
        n = n * 10 + d;
    }
    if (len == 20) {
        const unsigned d = static_cast<unsigned char>(s[19]) - '0';
        if (d > 9)
            return false;
        constexpr uint64_t kMax = UINT64_MAX;
        n = n > (kMax - d) / 10 ? kMax : n * 10 + d;
    }
    out = n;
    return true;
}

// uint64 values arrive as text parsed like C's strtoull with base 0: leading
// blanks, a sign, "0x" hex or "0" octal; it stops at the first character that
// does not fit, gives 0 without digits and saturates when too large.  Numbers
// pass through Perl's string form of them, so 1e19 reads as 1 ("1e+19").
template <> inline uint64_t sv_to_value<uint64_t>(pTHX_ SV *sv) {
    STRLEN len;
    const char *text = SvPV(sv, len);
    uint64_t n;
    if (text && plain_decimal(text, len, n))
        return n;
    return std::strtoull(text ? text : "", nullptr, 0);
}

// Flags follow the integer value, not Perl truth: 0.5 and "0 but true" are false.
template <> inline bool sv_to_value<bool>(pTHX_ SV *sv) { return SvIV(sv) != 0; }

}  // namespace qel

#endif
