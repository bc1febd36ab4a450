// Every error text of quillon_event_log::Codec, in one table.  Texts have no
// trailing newline: Perl appends " at FILE line N.".  FIELD arguments are key
// paths ("bot_name", "client_ip.ip0", "anomalies[3]", "_unknown[0]"); quoted
// values come from display_value (codec_common.cc).
#ifndef QEL_CODEC_TEXTS_H
#define QEL_CODEC_TEXTS_H

#include "binding.h"  // UVuf and UVXf come from perl.h

namespace qel {
namespace codec_text {

// The codec object and its options.
constexpr char kNotCodec[] = "self is not a quillon_event_log::Codec object";
constexpr char kOddOptions[] = "odd number of options";
constexpr char kUnknownOption[] = "unknown option %s (known options: addresses, characters, unknown_fields)";
constexpr char kBadAddressesOption[] = "option addresses must be \"hash\" or \"text\", not %s";
constexpr char kBadUnknownOption[] = "option unknown_fields must be \"keep\" or \"drop\", not %s";

// encode
constexpr char kExpectedHash[] = "expected a hash reference, got %s";
constexpr char kUnknownField[] = "unknown field %s";                       // the key, quoted
constexpr char kUnknownFieldIn[] = "%s: unknown field %s";                 // inside an address
constexpr char kDidYouMean[] = " (did you mean \"%s\"?)";
constexpr char kExpectedString[] = "%s: expected a string, got %s";
constexpr char kWideCharacter[] = "%s: wide character U+%04" UVXf " in a byte string (use the characters option)";
constexpr char kNotWritable[] = "%s: character U+%04" UVXf " cannot be written as UTF-8";
constexpr char kExpectedInteger[] = "%s: expected an integer, got %s";
constexpr char kNotDecimal[] = "%s: %s is not a decimal integer";
constexpr char kOutOfRange[] = "%s: %s is out of range (0..%s)";
constexpr char kNotInteger[] = "%s: %s is not an integer";
constexpr char kNotFlag[] = "%s: %s is not a flag (1, 0, \"\" or a JSON boolean)";
constexpr char kExpectedFlag[] = "%s: expected a flag (1, 0, \"\" or a JSON boolean), got %s";
constexpr char kExpectedAddressHash[] = "%s: expected a hash reference, got %s";
constexpr char kExpectedAddress[] = "%s: expected an address text or a hash reference, got %s";
constexpr char kInvalidAddressText[] = "%s: invalid address text %s";
constexpr char kExpectedArray[] = "%s: expected an array reference, got %s";
constexpr char kNotPositionHex[] = "%s: %s is not POSITION:HEX";
constexpr char kPositionsDecrease[] = "%s: positions must not decrease";
constexpr char kMalformedWireData[] = "%s: malformed wire data at byte %" UVuf ": %s";
constexpr char kOwnKey[] = "%s: field %" UVuf " (%s) belongs in its own key";

// decode
constexpr char kExpectedBytes[] = "expected a byte string, got %s";
constexpr char kWideInBytes[] = "wide character in the bytes to decode";
constexpr char kInputTooLong[] = "input of %" UVuf " bytes is longer than 2147483647";
constexpr char kMalformedRecord[] = "malformed record at byte %" UVuf ": %s";

// The reasons of malformed wire data; F is a field as "8 (http_request)",
// "9" or "1 (ip0) in client_ip".
constexpr char kTruncatedVarint[] = "truncated varint";
constexpr char kVarintTooLong[] = "varint longer than 10 bytes";
constexpr char kFieldNumberZero[] = "field number 0";
constexpr char kTagTooLong[] = "tag longer than 5 bytes";
constexpr char kWireType[] = "wire type %u";
constexpr char kLengthPastEnd[] = "length of field %s runs past the end";
constexpr char kTruncatedFixed32[] = "truncated fixed32 in field %s";
constexpr char kTruncatedFixed64[] = "truncated fixed64 in field %s";
constexpr char kEndGroupWithoutStart[] = "end-group tag of field %s without a start";
constexpr char kGroupNotClosed[] = "group of field %s is not closed";
constexpr char kTooDeep[] = "nesting deeper than 100 levels";

// Descriptions of a value of the wrong kind (DESC); a blessed reference is
// "a CLASS object".
constexpr char kDescUndef[] = "undef";
constexpr char kDescString[] = "a string";
constexpr char kDescNumber[] = "a number";
constexpr char kDescArray[] = "an array reference";
constexpr char kDescHash[] = "a hash reference";
constexpr char kDescCode[] = "a code reference";
constexpr char kDescScalarRef[] = "a scalar reference";
constexpr char kDescRef[] = "a reference";
constexpr char kDescObject[] = "a %s object";
constexpr char kDescGlob[] = "a glob";

}  // namespace codec_text
}  // namespace qel

#endif
