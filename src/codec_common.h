// Shared ground of the codec's two directions (codec_encode.cc,
// codec_decode.cc) and its XSUBs (codec.cc): the option bits, the field
// tables as the wire sees them (numbers and tags from the descriptor), the
// skipping of unknown values and the text of a wire fault (the primitives
// themselves are in wire_format.h), UTF-8 classification, and the texts that
// describe Perl values in error messages.  Nothing here owns memory with a
// destructor, so any of it may sit in a frame that croaks.
#ifndef QEL_CODEC_COMMON_H
#define QEL_CODEC_COMMON_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "binding.h"
#include "codec_texts.h"
#include "families.h"
#include "wire_format.h"

namespace qel {
namespace codec {

// The wire primitives (wire_format.h), which the record class's reader shares.
using wire::fail;
using wire::kEndGroup;
using wire::kFixed32;
using wire::kFixed64;
using wire::kLengthDelimited;
using wire::kStartGroup;
using wire::kVarint;
using wire::put_varint;
using wire::read_tag;
using wire::read_varint;
using wire::Reason;
using wire::varint_size;
using wire::WireError;

// The option bits a codec object holds (its referent is this number).
enum : unsigned {
    kCharacters = 1u,      // strings are characters on the Perl side
    kTextAddresses = 2u,   // whole addresses decode as text; encode accepts text
    kDropUnknown = 4u,     // unknown fields are left out / `_unknown` ignored
    kAllOptions = 7u,
};

// The most levels of sub-records and groups the wire data may nest, as the
// protobuf runtime's default recursion limit.
constexpr int kMaxDepth = 100;

// The reserved key of the unknown fields, at both levels.
constexpr char kUnknownKey[] = "_unknown";
constexpr size_t kUnknownKeyLen = sizeof kUnknownKey - 1;

// One field as the codec sees it: the field table's row plus what the
// descriptor knows (number, full name) and the tag bytes with its own wire
// type, written once at boot.
struct Field {
    const char *name;
    size_t len;
    Family family;
    unsigned wire_type;
    uint32_t number;
    const char *full_name;  // for the runtime's UTF-8 report
    size_t slot;            // addresses: which of the record's address slots
    unsigned tag_len;
    unsigned char tag[5];
};

// One message: its fields in field-table order, their key hash values, and
// field number -> position + 1 (0: no such field).
struct Level {
    const Field *fields;
    size_t count;
    const U32 *hashes;
    const uint16_t *by_number;
    uint32_t numbers;  // size of by_number

    const Field *find(uint32_t number) const {
        if (number >= numbers)
            return nullptr;
        const unsigned i = by_number[number];
        return i ? &fields[i - 1] : nullptr;
    }

    // The field named by the `len` bytes at `key`, or null.
    const Field *find_name(const char *key, size_t len) const {
        for (size_t i = 0; i < count; ++i)
            if (fields[i].len == len && std::memcmp(fields[i].name, key, len) == 0)
                return &fields[i];
        return nullptr;
    }
};

#define QEL_COUNT_ADDRESS_FIELD(f, family) +(Family::family == Family::Address)
constexpr size_t kRecordAddressCount = 0 QEL_RECORD_FIELDS(QEL_COUNT_ADDRESS_FIELD);
#undef QEL_COUNT_ADDRESS_FIELD

// The record's and the address's tables, built on the first codec call of the
// process (not at load: building them assigns the descriptors, which a
// program that never calls the codec need not pay for).
struct Levels {
    const Level *record;
    const Level *address;
};
const Levels &levels();

// The hash value of `_unknown`, set by init_codec_tables (from the boot).
extern U32 unknown_key_hash;

void init_codec_tables(pTHX);

// The reason as text, in a new mortal scalar.
SV *reason_text(pTHX_ const WireError &e);

// Skips the value of a field whose tag (at `at`) was read, `p` pointing past
// the tag; groups are read to their end tag, each one level deeper than
// `depth`.  `level` names the field numbers in the reasons (null inside a
// group), `context` is the address the data sits in (or null).  An end-group
// tag is the caller's to handle.
const unsigned char *skip_value(const unsigned char *at, const unsigned char *p, const unsigned char *end,
                                uint32_t tag, const Level *level, const char *context, int depth,
                                WireError &e);

// ---- UTF-8 -------------------------------------------------------------------

enum class Utf8 { Ascii, Valid, Invalid };

// Length of the well-formed UTF-8 sequence at `p` (1 to 4), or 0: no
// overlong forms, no surrogates, nothing above U+10FFFF (the runtime's rule).
size_t utf8_sequence(const unsigned char *p, const unsigned char *end);

// Whether `n` bytes are pure ASCII, other valid UTF-8, or not UTF-8.  Pure
// ASCII is told by all_ascii (families.h), 64 bytes a step.
Utf8 classify_utf8(const unsigned char *p, size_t n);

// ---- Perl values in messages -------------------------------------------------

// A key path: "bot_name", "client_ip.ip0", "anomalies[3]", "client_ip._unknown[1]".
struct Path {
    const char *outer;  // the enclosing address, or null
    const char *name;
    SSize_t index;      // element of a list, or -1
};

// The path as text (pointer into a mortal scalar).
const char *path_text(pTHX_ const Path &path);

// DESC of a value of the wrong kind: "undef", "a string", "an array
// reference", "a Foo::Bar object", ...
const char *describe(pTHX_ SV *sv);

// A value as shown in messages: Perl's string form in double quotes, bytes
// outside 0x20..0x7E as \xhh (lower case, as IPAddr's messages), cut to
// `max` bytes + "..."; undef unquoted.
const char *display_value(pTHX_ SV *sv, size_t max = 40);
const char *display_bytes(pTHX_ const char *s, size_t len, size_t max = 40);

// The nearest known key of `level` (its field names and `_unknown`) for the
// suggestion of an unknown-key error, or null when none is close enough.
const char *nearest_name(const char *key, size_t len, const Level &level);

// Whether `key` is a key of `level`.
bool is_known_key(const char *key, size_t len, const Level &level);

// ---- the two directions --------------------------------------------------------

// encode: a new mortal byte string, or a croak.  Reports invalid UTF-8 through
// the runtime and flushes its log before returning.
SV *encode_hash(pTHX_ SV *arg, unsigned options);

// decode: a new mortal hash reference, or a croak; reports like encode.
SV *decode_bytes(pTHX_ SV *arg, unsigned options);

// Where and why a record does not decode: the offset in its bytes and the
// reason as text (a mortal scalar).
struct Fault {
    size_t at;
    SV *reason;
};

// decode without the croak, for readers of many records: the hash reference
// (mortal), or null with `fault` set.  The input's length is at most
// 2147483647 bytes.  `only`, when given, is a bit per field index of the
// fields to decode: the others are passed over unchecked, and unknown fields
// should then be dropped (kDropUnknown), since their positions would count
// only the chosen fields.  `canonical`, when given, is set to whether encode
// with the same options (unknown fields kept, all fields) gives the input
// back byte for byte.
SV *decode_buffer(pTHX_ const char *bytes, size_t len, unsigned options, Fault &fault,
                  const uint64_t *only = nullptr, bool *canonical = nullptr);

}  // namespace codec
}  // namespace qel

#endif
