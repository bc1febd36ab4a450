// The field families and their typed operations.  Each field of fields.h
// becomes one constant struct of function pointers, filled from protoc's own
// accessors by captureless lambdas, so the shared family XSUBs (accessors.cc)
// and the hash conversions (hash_form.cc) reach every field without reflection
// and without code of their own per field.
#ifndef QEL_FAMILIES_H
#define QEL_FAMILIES_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/stubs/logging.h>
#include <google/protobuf/wire_format_lite.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "fields.h"
#include "quillon_event_log.pb.h"

namespace qel {

using Record = quillon_event_log::QuillonEventLog;
using Address = quillon_event_log::IPAddr;

enum class Family : unsigned char { String, UInt32, UInt64, Bool, Address, StringList };

// Presence test and clear, common to every singular field.  It is the first
// member of every singular family's struct, so a pointer to the struct is also
// a pointer to its Presence: the has_ and clear_ XSUBs serve all families.
template <class Msg> struct Presence {
    bool (*has)(const Msg &);
    void (*clear)(Msg &);
};

// Strings are written through the mutable accessor (which sets the has-bit)
// and assigned in place, so a setter needs no temporary std::string.
template <class Msg> struct StringField {
    Presence<Msg> presence;
    const std::string &(*get)(const Msg &);
    std::string *(*mut)(Msg &);
};

template <class Msg, class T> struct NumberField {
    Presence<Msg> presence;
    T (*get)(const Msg &);
    void (*set)(Msg &, T);
};
template <class Msg> using UInt32Field = NumberField<Msg, uint32_t>;
template <class Msg> using UInt64Field = NumberField<Msg, uint64_t>;
template <class Msg> using BoolField = NumberField<Msg, bool>;

struct AddressField {
    Presence<Record> presence;
    const Address &(*get)(const Record &);  // never null: the default instance when unset
    Address *(*mut)(Record &);              // sets the has-bit, creates the address if needed
};

struct StringListField {
    int (*size)(const Record &);
    void (*clear)(Record &);
    const std::string &(*get)(const Record &, int);
    std::string *(*add)(Record &);
    const char *index_usage;  // the getter's message for more than one index
};

// One field of a message: its name (the Perl method stem and hash key), its
// family, and its operations (a pointer to one of the structs above).
template <class Msg> struct FieldInfo {
    const char *name;
    size_t len;
    Family family;
    const void *ops;
};

template <class Ops, class Msg> inline const Ops &ops_of(const FieldInfo<Msg> &f) {
    return *static_cast<const Ops *>(f.ops);
}

#define QEL_PRESENCE(M, f) {[](const M &m) { return m.has_##f(); }, [](M &m) { m.clear_##f(); }}

#define QEL_String_OPS(M, f)                                          \
    ::qel::StringField<M>{QEL_PRESENCE(M, f),                         \
                          [](const M &m) -> const std::string & { return m.f(); }, \
                          [](M &m) { return m.mutable_##f(); }}

#define QEL_NUMBER_OPS(M, T, f)                                       \
    ::qel::NumberField<M, T>{QEL_PRESENCE(M, f),                      \
                             [](const M &m) -> T { return m.f(); },   \
                             [](M &m, T v) { m.set_##f(v); }}
#define QEL_UInt32_OPS(M, f) QEL_NUMBER_OPS(M, uint32_t, f)
#define QEL_UInt64_OPS(M, f) QEL_NUMBER_OPS(M, uint64_t, f)
#define QEL_Bool_OPS(M, f) QEL_NUMBER_OPS(M, bool, f)

#define QEL_Address_OPS(M, f)                                         \
    ::qel::AddressField{QEL_PRESENCE(M, f),                           \
                        [](const M &m) -> const ::qel::Address & { return m.f(); }, \
                        [](M &m) { return m.mutable_##f(); }}

#define QEL_StringList_OPS(M, f)                                      \
    ::qel::StringListField{                                           \
        [](const M &m) { return m.f##_size(); },                      \
        [](M &m) { m.clear_##f(); },                                  \
        [](const M &m, int i) -> const std::string & { return m.f(i); }, \
        [](M &m) { return m.add_##f(); },                             \
        "Usage: quillon_event_log::QuillonEventLog::" #f "(CLASS, [index])"}

// ---- the fields as constants -------------------------------------------------
//
// The operations of every field, one constant per field, expanded from
// fields.h (record fields in `record_ops`, address fields in `address_ops`).
// The field tables point at these, and the hot paths reach them directly
// through the visitors below: a field's operations are then constants the
// compiler sees, so a has-test or a setter is inlined instead of being an
// indirect call.
namespace record_ops {
#define QEL_RECORD_OPS_CONSTANT(f, family) inline constexpr auto f = QEL_##family##_OPS(Record, f);
QEL_RECORD_FIELDS(QEL_RECORD_OPS_CONSTANT)
#undef QEL_RECORD_OPS_CONSTANT
}  // namespace record_ops

namespace address_ops {
#define QEL_ADDRESS_OPS_CONSTANT(f, family) inline constexpr auto f = QEL_##family##_OPS(Address, f);
QEL_ADDRESS_FIELDS(QEL_ADDRESS_OPS_CONSTANT)
#undef QEL_ADDRESS_OPS_CONSTANT
}  // namespace address_ops

// A field's position in its table, by name: kRecordField_bot_name, ...
enum RecordFieldIndex : size_t {
#define QEL_RECORD_INDEX(f, family) kRecordField_##f,
    QEL_RECORD_FIELDS(QEL_RECORD_INDEX)
#undef QEL_RECORD_INDEX
};
enum AddressFieldIndex : size_t {
#define QEL_ADDRESS_INDEX(f, family) kAddressField_##f,
    QEL_ADDRESS_FIELDS(QEL_ADDRESS_INDEX)
#undef QEL_ADDRESS_INDEX
};

// A family as a type, so that visitor code chooses per family at compile time
// (`if constexpr (decltype(family)::value == Family::String)`).
template <Family F> using FamilyTag = std::integral_constant<Family, F>;

// Calls fn(index, FamilyTag, ops) for every field, in table order, unrolled.
template <class Fn> inline void each_record_field(Fn &&fn) {
#define QEL_VISIT_RECORD(f, family) fn(kRecordField_##f, FamilyTag<Family::family>{}, record_ops::f);
    QEL_RECORD_FIELDS(QEL_VISIT_RECORD)
#undef QEL_VISIT_RECORD
}
template <class Fn> inline void each_address_field(Fn &&fn) {
#define QEL_VISIT_ADDRESS(f, family) fn(kAddressField_##f, FamilyTag<Family::family>{}, address_ops::f);
    QEL_ADDRESS_FIELDS(QEL_VISIT_ADDRESS)
#undef QEL_VISIT_ADDRESS
}

// The same call for the one field at `index`, through a switch.
template <class Fn> inline void with_record_field(size_t index, Fn &&fn) {
    switch (index) {
#define QEL_CASE_RECORD(f, family) \
    case kRecordField_##f: fn(kRecordField_##f, FamilyTag<Family::family>{}, record_ops::f); break;
        QEL_RECORD_FIELDS(QEL_CASE_RECORD)
#undef QEL_CASE_RECORD
    default: break;
    }
}

// The wire type a field of `family` is written with: varint (0) for numbers
// and flags, length-delimited (2) for strings, addresses and list elements.
constexpr unsigned wire_type_of(Family family) {
    return family == Family::UInt32 || family == Family::UInt64 || family == Family::Bool ? 0 : 2;
}

// A field's descriptor, found by its name.  Field numbers and full names are
// taken from there, so the .proto stays the one place they are written.
template <class Msg> const google::protobuf::FieldDescriptor &descriptor_of(const FieldInfo<Msg> &f) {
    const google::protobuf::Descriptor *message = Msg::descriptor();
    const google::protobuf::FieldDescriptor *fd = message->FindFieldByName(f.name);
    GOOGLE_CHECK(fd != nullptr) << "no field " << f.name << " in " << message->full_name();
    return *fd;
}

#define QEL_COUNT_FIELD(f, family) +1
constexpr size_t kRecordFieldCount = 0 QEL_RECORD_FIELDS(QEL_COUNT_FIELD);
constexpr size_t kAddressFieldCount = 0 QEL_ADDRESS_FIELDS(QEL_COUNT_FIELD);

// The field tables, in field-number order (field_table.cc).
extern const FieldInfo<Record> kRecordFields[kRecordFieldCount];
extern const FieldInfo<Address> kAddressFields[kAddressFieldCount];

// Replaces the bytes of a field's string, which never overlap `p`.  clear()
// and append() instead of assign(): assign's general replace also handles a
// source inside the string itself, and costs about three times as much for
// the short values of a record.  The string keeps its room, as with assign.
inline void set_bytes(std::string *s, const char *p, size_t n) {
    s->clear();
    s->append(p, n);
}

// ---- UTF-8 of string fields ---------------------------------------------------

// True when none of the `n` bytes at `p` has its high bit set.  Nearly every
// string of a record is ASCII, and ASCII is always valid UTF-8, so this test
// lets the UTF-8 checks below skip the runtime's full validator.  Sixty-four
// bytes are tested per step where SSE2 is there (every x86-64), eight
// otherwise.
inline bool all_ascii(const char *p, size_t n) {
    const char *end = p + n;
#if defined(__SSE2__)
    while (end - p >= 64) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 16));
        const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 32));
        const __m128i d = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 48));
        if (_mm_movemask_epi8(_mm_or_si128(_mm_or_si128(a, b), _mm_or_si128(c, d))))
            return false;
        p += 64;
    }
#endif
    // The rest in words; the last word may overlap bytes already tested.
    constexpr uint64_t kHigh = 0x8080808080808080ull;
    const size_t left = static_cast<size_t>(end - p);
    uint64_t any = 0;
    if (left >= 8) {
        uint64_t w;
        for (; end - p > 8; p += 8) {
            std::memcpy(&w, p, 8);
            any |= w;
        }
        std::memcpy(&w, end - 8, 8);
        any |= w;
    } else if (left >= 4) {
        uint32_t a, b;
        std::memcpy(&a, p, 4);
        std::memcpy(&b, end - 4, 4);
        any = a | b;
    } else {
        for (; p < end; ++p)
            any |= static_cast<unsigned char>(*p);
    }
    return (any & kHigh) == 0;
}

// The runtime's UTF-8 check of a string field's value, as the generated
// classes make it when they parse or serialise: a value that is not UTF-8 is
// logged with the field's full name, never refused.  ASCII values, which the
// runtime would pass without a word, skip it.
inline void check_utf8(const char *p, size_t n, google::protobuf::internal::WireFormatLite::Operation op,
                       const char *full_name) {
    if (!all_ascii(p, n))
        google::protobuf::internal::WireFormatLite::VerifyUtf8String(p, static_cast<int>(n), op, full_name);
}

}  // namespace qel

#endif
