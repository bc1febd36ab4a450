// The wire reader.  It reads fields in any order and by number, keeps every
// field it does not know (including field number 0, which the protobuf
// runtime's own parsers refuse) in the message's unknown-field set so that
// `pack` writes it out again, and stops with a failure on malformed input:
// a bad varint or tag, a length running past the input or past its enclosing
// sub-record, a sub-record that does not end at its length, nesting deeper
// than the stream's recursion limit, unbalanced groups, wire types 6 and 7,
// or more than kMaxWireBytes of input.  Strings are checked for UTF-8 the way
// the generated classes do (logged, never refused).
#include "wire_reader.h"

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/stubs/logging.h>
#include <google/protobuf/unknown_field_set.h>
#include <google/protobuf/stubs/common.h>
#include <google/protobuf/wire_format_lite.h>

#include "wire_format.h"

namespace qel {
namespace {

using google::protobuf::UnknownFieldSet;
using google::protobuf::io::CodedInputStream;
using WireFormatLite = google::protobuf::internal::WireFormatLite;

// One known field, found by its number: its family, its operations (from the
// field table) and its full name for the UTF-8 report.
struct Slot {
    Family family = Family::String;
    const void *ops = nullptr;  // null: no field has this number
    const char *full_name = nullptr;
    size_t index = 0;  // the field's position in its table
};

// The field numbers come from the message's descriptor, so the .proto stays
// the one place where they are written; the table is built once per process,
// on the first parse.
template <class Msg, size_t N> std::vector<Slot> slots_by_number(const FieldInfo<Msg> (&fields)[N]) {
    std::vector<Slot> slots;
    for (size_t i = 0; i < N; ++i) {
        const FieldInfo<Msg> &f = fields[i];
        const google::protobuf::FieldDescriptor &fd = descriptor_of(f);
        const auto number = static_cast<size_t>(fd.number());
        if (slots.size() <= number)
            slots.resize(number + 1);
        slots[number] = Slot{f.family, f.ops, fd.full_name().c_str(), i};
    }
    return slots;
}

// The table of a message's fields, built on first use (one per message type).
template <class Msg, size_t N> const std::vector<Slot> &slots_of(const FieldInfo<Msg> (&fields)[N]) {
    static const std::vector<Slot> table = slots_by_number(fields);
    return table;
}

// A length-delimited value.  The common case, a value wholly inside the
// buffer, is one assign; the stream's own read handles the rest (it keeps
// what it could read of a value running past the input).
bool read_bytes(CodedInputStream &in, std::string *s) {
    uint32_t length;
    if (!in.ReadVarint32(&length))
        return false;
    const void *data;
    int available;
    in.GetDirectBufferPointerInline(&data, &available);
    if (length <= static_cast<uint32_t>(available)) {
        set_bytes(s, static_cast<const char *>(data), length);
        return in.Skip(static_cast<int>(length));
    }
    return in.ReadString(s, static_cast<int>(length));
}

bool read_string(CodedInputStream &in, std::string *s, const char *full_name) {
    if (!read_bytes(in, s))
        return false;
    check_utf8(s->data(), s->size(), WireFormatLite::PARSE, full_name);
    return true;
}

bool skip_field(CodedInputStream &in, uint32_t tag, UnknownFieldSet *unknown);

// The fields of a group, up to its end tag (left as the stream's last tag for
// the caller to match) or the end of the input.
bool skip_group_body(CodedInputStream &in, UnknownFieldSet *unknown) {
    for (;;) {
        const uint32_t tag = in.ReadTag();
        if (tag == 0 || WireFormatLite::GetTagWireType(tag) == WireFormatLite::WIRETYPE_END_GROUP)
            return true;
        if (!skip_field(in, tag, unknown))
            return false;
    }
}

// Keeps an unknown field.  The field is added before its value is read, so a
// failure leaves what was read of it, as the known fields do.
bool skip_field(CodedInputStream &in, uint32_t tag, UnknownFieldSet *unknown) {
    const int number = WireFormatLite::GetTagFieldNumber(tag);
    switch (WireFormatLite::GetTagWireType(tag)) {
    case WireFormatLite::WIRETYPE_VARINT: {
        uint64_t value;
        if (!in.ReadVarint64(&value))
            return false;
        unknown->AddVarint(number, value);
        return true;
    }
    case WireFormatLite::WIRETYPE_FIXED64: {
        uint64_t value;
        if (!in.ReadLittleEndian64(&value))
            return false;
        unknown->AddFixed64(number, value);
        return true;
    }
    case WireFormatLite::WIRETYPE_LENGTH_DELIMITED: {
        return read_bytes(in, unknown->AddLengthDelimited(number));
    }
    case WireFormatLite::WIRETYPE_START_GROUP: {
        if (!in.IncrementRecursionDepth())
            return false;
        if (!skip_group_body(in, unknown->AddGroup(number)))
            return false;
        in.DecrementRecursionDepth();
        return in.LastTagWas(WireFormatLite::MakeTag(number, WireFormatLite::WIRETYPE_END_GROUP));
    }
    case WireFormatLite::WIRETYPE_FIXED32: {
        uint32_t value;
        if (!in.ReadLittleEndian32(&value))
            return false;
        unknown->AddFixed32(number, value);
        return true;
    }
    default:  // an end-group tag here, or wire types 6 and 7
        return false;
    }
}

template <class Msg> bool read_message(CodedInputStream &in, Msg &m, const std::vector<Slot> &table);

// A sub-record: its length, then its fields inside a limit of that length,
// one level deeper.  A length beyond the input fails at once.
bool read_address(CodedInputStream &in, Address &a) {
    uint32_t length;
    if (!in.ReadVarint32(&length))
        return false;
    if (const int left = in.BytesUntilLimit(); left >= 0 && length > static_cast<uint32_t>(left))
        return false;
    if (!in.IncrementRecursionDepth())
        return false;
    const CodedInputStream::Limit limit = in.PushLimit(static_cast<int>(length));
    if (!read_message(in, a, slots_of(kAddressFields)) || !in.ConsumedEntireMessage())
        return false;
    in.PopLimit(limit);
    in.DecrementRecursionDepth();
    return true;
}

// The value of one known field whose tag carried the field's own wire type.
// A later occurrence of a singular field replaces the earlier value; a later
// address merges into the earlier one; list elements are appended.
template <class Msg> bool read_value(CodedInputStream &in, Msg &m, const Slot &slot) {
    switch (slot.family) {
    case Family::String:
        return read_string(in, static_cast<const StringField<Msg> *>(slot.ops)->mut(m), slot.full_name);
    case Family::UInt32: {
        uint32_t value;
        if (!in.ReadVarint32(&value))
            return false;
        static_cast<const UInt32Field<Msg> *>(slot.ops)->set(m, value);
        return true;
    }
    case Family::UInt64: {
        uint64_t value;
        if (!in.ReadVarint64(&value))
            return false;
        static_cast<const UInt64Field<Msg> *>(slot.ops)->set(m, value);
        return true;
    }
    case Family::Bool: {  // any non-zero varint is true
        uint64_t value;
        if (!in.ReadVarint64(&value))
            return false;
        static_cast<const BoolField<Msg> *>(slot.ops)->set(m, value != 0);
        return true;
    }
    case Family::Address:
        if constexpr (std::is_same_v<Msg, Record>)
            return read_address(in, *static_cast<const AddressField *>(slot.ops)->mut(m));
        return false;
    case Family::StringList:
        if constexpr (std::is_same_v<Msg, Record>)
            return read_string(in, static_cast<const StringListField *>(slot.ops)->add(m), slot.full_name);
        return false;
    }
    return false;
}

// Fields up to the end of the input or of the current limit (true), an
// end-group tag (true, the caller decides), or a fault (false).  A known
// number with another wire type is kept as an unknown field.
template <class Msg> bool read_message(CodedInputStream &in, Msg &m, const std::vector<Slot> &table) {
    for (;;) {
        // Tags of one and two bytes, all of this schema's, are read inline.
        const uint32_t tag = in.ReadTagWithCutoff(16383).first;
        if (tag == 0)
            return true;
        const auto number = static_cast<size_t>(WireFormatLite::GetTagFieldNumber(tag));
        if (number < table.size()) {
            const Slot &slot = table[number];
            if (slot.ops && static_cast<unsigned>(WireFormatLite::GetTagWireType(tag)) == wire_type_of(slot.family)) {
                if (!read_value(in, m, slot))
                    return false;
                continue;
            }
        }
        if (WireFormatLite::GetTagWireType(tag) == WireFormatLite::WIRETYPE_END_GROUP)
            return true;
        if (!skip_field(in, tag, m.mutable_unknown_fields()))
            return false;
    }
}

// ---- the common input, straight from memory ------------------------------
//
// Nearly every input is a clean record whose fields are all known, each with
// its own wire type, and whose strings are UTF-8.  read_plain reads such input
// with raw pointers, the field's operations inlined through the field switch,
// and no stream in between.  On anything else (an unknown field, a known one
// with another wire type, a string that is not UTF-8, a group, input cut
// short, a sub-record that does not end at its length) it stops at once,
// without a log line, leaving the record part-filled: parse_record then clears
// it and reads the input again with the general reader above, which keeps,
// logs and fails exactly as it always does.

// The wire format's own primitives (wire_format.h); a fault's reason is not
// needed here, the general reader reads such input again.
inline const unsigned char *plain_varint(const unsigned char *p, const unsigned char *end, uint64_t &out) {
    wire::WireError ignored;
    return wire::read_varint(p, end, out, ignored);
}
inline const unsigned char *plain_tag(const unsigned char *p, const unsigned char *end, uint32_t &tag) {
    wire::WireError ignored;
    return wire::read_tag(p, end, tag, ignored);
}

// A string value: its length, then its bytes wholly inside [p, end), UTF-8 by
// the runtime's own test (whose failure the general reader logs).
inline const unsigned char *plain_bytes(const unsigned char *p, const unsigned char *end, const char *&data,
                                        size_t &len) {
    uint64_t n;
    if (!(p = plain_varint(p, end, n)) || n > static_cast<uint64_t>(end - p))
        return nullptr;
    data = reinterpret_cast<const char *>(p);
    len = static_cast<size_t>(n);
    if (!all_ascii(data, len) && !google::protobuf::internal::IsStructurallyValidUTF8(data, static_cast<int>(len)))
        return nullptr;
    return p + len;
}

// One level's fields in [p, end): each found by its number in `table`, its
// wire type checked, its value read by `read` through the field switch
// `with_field`.  Returns whether every field was read.
template <class With, class Read>
bool read_plain_fields(const unsigned char *p, const unsigned char *end, const std::vector<Slot> &table,
                       With with_field, Read read) {
    while (p < end) {
        uint32_t tag;
        if (!(p = plain_tag(p, end, tag)))
            return false;
        const size_t number = tag >> 3;
        if (number >= table.size())
            return false;
        const Slot &slot = table[number];
        if (!slot.ops || (tag & 7) != wire_type_of(slot.family))
            return false;
        with_field(slot.index, [&](size_t, auto family, const auto &ops) { p = read(p, end, family, ops); });
        if (!p)
            return false;
    }
    return true;
}

// Every address field is a uint32, so the address needs no field switch.
#define QEL_ADDRESS_FIELD_IS_UINT32(f, family) \
    static_assert(Family::family == Family::UInt32, "address field " #f " is not a uint32");
QEL_ADDRESS_FIELDS(QEL_ADDRESS_FIELD_IS_UINT32)
#undef QEL_ADDRESS_FIELD_IS_UINT32

bool read_plain_address(Address &a, const unsigned char *p, const unsigned char *end) {
    return read_plain_fields(
        p, end, slots_of(kAddressFields),
        [](size_t i, auto &&fn) {
            fn(i, FamilyTag<Family::UInt32>{}, ops_of<UInt32Field<Address>>(kAddressFields[i]));
        },
        [&a](const unsigned char *q, const unsigned char *stop, auto,
             const auto &ops) -> const unsigned char * {
            uint64_t v;
            if ((q = plain_varint(q, stop, v)))
                ops.set(a, static_cast<uint32_t>(v));  // bits past the 32nd dropped, as the runtime does
            return q;
        });
}

bool read_plain(Record &m, const unsigned char *p, const unsigned char *end) {
    return read_plain_fields(
        p, end, slots_of(kRecordFields), [](size_t i, auto &&fn) { with_record_field(i, fn); },
        [&m](const unsigned char *q, const unsigned char *stop, auto family,
             const auto &ops) -> const unsigned char * {
            constexpr Family F = decltype(family)::value;
            if constexpr (F == Family::String || F == Family::StringList) {
                const char *data;
                size_t len;
                if (!(q = plain_bytes(q, stop, data, len)))
                    return nullptr;
                if constexpr (F == Family::String)
                    set_bytes(ops.mut(m), data, len);
                else
                    set_bytes(ops.add(m), data, len);
                return q;
            } else if constexpr (F == Family::Address) {
                // A later occurrence merges into the earlier one.
                uint64_t n;
                if (!(q = plain_varint(q, stop, n)) || n > static_cast<uint64_t>(stop - q) ||
                    !read_plain_address(*ops.mut(m), q, q + n))
                    return nullptr;
                return q + n;
            } else {
                uint64_t v;
                if (!(q = plain_varint(q, stop, v)))
                    return nullptr;
                if constexpr (F == Family::Bool)
                    ops.set(m, v != 0);  // any non-zero varint is true
                else if constexpr (F == Family::UInt32)
                    ops.set(m, static_cast<uint32_t>(v));
                else
                    ops.set(m, v);
                return q;
            }
        });
}

}  // namespace

bool parse_record(Record &m, const char *bytes, size_t len) {
    m.Clear();
    if (len <= static_cast<size_t>(kMaxWireBytes)) {
        const auto *p = reinterpret_cast<const unsigned char *>(bytes);
        if (read_plain(m, p, p + len))
            return true;
    }
    return parse_record_general(m, bytes, len);
}

bool parse_record_general(Record &m, const char *bytes, size_t len) {
    m.Clear();
    const auto count = static_cast<int32_t>(static_cast<uint32_t>(len));
    if (count < 0)
        return false;
    CodedInputStream in(reinterpret_cast<const uint8_t *>(bytes), count);
    in.SetTotalBytesLimit(kMaxWireBytes);
    // A clean end is the end of the input itself: not a zero byte where a tag
    // should be, not an end-group tag, not the size limit.
    return read_message(in, m, slots_of(kRecordFields)) && in.ConsumedEntireMessage();
}

}  // namespace qel
