// Reading a record from its wire bytes.  `new($bytes)` and `unpack` come
// here; writing stays with the generated classes (output_stream.cc).
#ifndef QEL_WIRE_READER_H
#define QEL_WIRE_READER_H

#include <cstddef>

#include "families.h"

namespace qel {

// Inputs longer than this fail part-way, as a guard against hostile sizes.
constexpr int kMaxWireBytes = 64 << 20;

// Replaces the contents of `m` with the record read from `len` bytes and says
// whether the bytes were a clean encoding.  On failure `m` keeps what was read
// before the fault.  The count is taken as a signed 32-bit number, as the
// wire format's own limit: longer input is cut to its low 32 bits, and a count
// that turns negative fails at once.
bool parse_record(Record &m, const char *bytes, size_t len);

// The same through the general reader alone.  parse_record reads the common
// input (known fields, each with its own wire type, UTF-8 strings, nothing cut
// short) straight from memory and hands everything else to this one; the
// tests hold the two against each other.
bool parse_record_general(Record &m, const char *bytes, size_t len);

}  // namespace qel

#endif
