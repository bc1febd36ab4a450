// Checks the generated message classes quillon_event_log::IPAddr and
// quillon_event_log::QuillonEventLog through their public C++ API: presence,
// defaults, string storage, Clear, MergeFrom, CopyFrom, Swap, the default
// instances and descriptors, the wire encoding and decoding, the self-merge
// check and the runtime's shutdown.
//
// Prints TAP on stdout ("ok N - name", "not ok N - name", details of a failure
// as "# " lines, "1..N" at the end) and exits non-zero if any check failed.
// t/15_message_classes.t builds and runs it.

#include "quillon_event_log.pb.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/message.h>
#include <google/protobuf/stubs/common.h>
#include <google/protobuf/unknown_field_set.h>

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iomanip>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tap.h"

namespace pb = google::protobuf;
using quillon_event_log::IPAddr;
using quillon_event_log::QuillonEventLog;
using Q = QuillonEventLog;

// ---------------------------------------------------------------------------
// Checks of byte strings and pointers (the rest of the TAP output is tap.h)

// "0A 01 61" -> the three bytes.
static std::string unhex(const std::string &text) {
    std::string out;
    std::istringstream in(text);
    std::string byte;
    while (in >> byte)
        out.push_back(static_cast<char>(std::stoul(byte, nullptr, 16)));
    return out;
}

static bool is_ptr(const void *got, const void *want, const std::string &name) {
    return is(got, want, name);
}

static bool is_hex(const std::string &got, const std::string &want_hex, const std::string &name) {
    const bool cond = (got == unhex(want_hex));
    if (!ok(cond, name))
        diag("     got: " + hex(got) + "\nexpected: " + hex(unhex(want_hex)));
    return cond;
}

static const std::string &empty_string() { return pb::internal::GetEmptyString(); }

// ---------------------------------------------------------------------------
// The record's fields as the schema declares them, in declaration order, with
// the bytes of each field's tag on the wire.

enum Kind { STR, U32, U64, BOOL, ADDR, LIST };

struct Row {
    int number;
    const char *name;
    Kind kind;
    const char *tag;
};

static const Row kRecordFields[] = {
    {1, "bot_name", STR, "0A"},
    {2, "profile_name", STR, "12"},
    {3, "virtual_server_name", STR, "1A"},
    {4, "client_ip", ADDR, "22"},
    {5, "dest_ip", ADDR, "2A"},
    {7, "request_uri", STR, "3A"},
    {8, "http_request", STR, "42"},
    {9, "bot_signature", STR, "4A"},
    {10, "microservice_name", STR, "52"},
    {11, "microservice_matched_wildcard_url", STR, "5A"},
    {12, "configured_mitigation_action_reason", STR, "62"},
    {13, "actual_mitigation_action_reason", STR, "6A"},
    {14, "actual_verification_action_reason", STR, "72"},
    {15, "reason", STR, "7A"},
    {16, "mobile_app_display_name", STR, "82 01"},
    {17, "mobile_app_version", STR, "8A 01"},
    {18, "mobile_imei", STR, "92 01"},
    {19, "src_port", U32, "98 01"},
    {20, "dest_port", U32, "A0 01"},
    {21, "device_id", U64, "A8 01"},
    {22, "session_id", U64, "B0 01"},
    {23, "support_id", U64, "B8 01"},
    {24, "previous_support_id", U64, "C0 01"},
    {25, "mobile_is_app", BOOL, "C8 01"},
    {26, "mobile_is_human_behaviour", STR, "D2 01"},
    {27, "request_time", U32, "D8 01"},
    {28, "previous_request_time", U32, "E0 01"},
    {29, "http_method", STR, "EA 01"},
    {30, "country_code", STR, "F2 01"},
    {32, "classification", STR, "82 02"},
    {33, "bot_signature_category", STR, "8A 02"},
    {34, "microservice_type", STR, "92 02"},
    {35, "captcha_status", STR, "9A 02"},
    {36, "browser_verification_status", STR, "A2 02"},
    {37, "device_id_status", STR, "AA 02"},
    {38, "device_id_action", STR, "B2 02"},
    {39, "previous_initiated_action", STR, "BA 02"},
    {40, "previous_initiated_action_status", STR, "C2 02"},
    {41, "mobile_os_id", STR, "CA 02"},
    {42, "mobile_app_emulation_mode", STR, "D2 02"},
    {43, "mobile_app_jailbroken_rooted", STR, "DA 02"},
    {44, "anomaly_categories", LIST, "E2 02"},
    {45, "anomalies", LIST, "EA 02"},
    {46, "configured_mitigation_action", STR, "F2 02"},
    {47, "actual_mitigation_action", STR, "FA 02"},
    {48, "browser_configured_verification_action", STR, "82 03"},
    {49, "browser_actual_verification_action", STR, "8A 03"},
    {50, "is_https_request", BOOL, "90 03"},
    {51, "additional_signatures", STR, "9A 03"},
    {52, "slot_number", U32, "A0 03"},
    {53, "host", STR, "AA 03"},
    {54, "request_status", STR, "B2 03"},
    {55, "microservice_matched_wildcard_host", STR, "BA 03"},
    {56, "enforced_by", STR, "C2 03"},
    {57, "primary_anomaly_category", STR, "CA 03"},
    {58, "mobile_debugger_enabled_device", STR, "D2 03"},
    {59, "is_update_request", BOOL, "D8 03"},
    {60, "challenge_failure_reason", STR, "E2 03"},
    {61, "http_protocol_info", STR, "EA 03"},
};
static constexpr int kRecordFieldCount = sizeof kRecordFields / sizeof kRecordFields[0];
static_assert(kRecordFieldCount == 59, "the record has 59 fields");

static const Row kAddrFields[] = {
    {1, "ip0", U32, "08"},
    {2, "ip1", U32, "10"},
    {3, "ip2", U32, "18"},
    {4, "ip3", U32, "20"},
    {5, "rtdom_id", U32, "28"},
};
static constexpr int kAddrFieldCount = sizeof kAddrFields / sizeof kAddrFields[0];

static pb::FieldDescriptor::Type type_of(Kind k) {
    switch (k) {
    case STR:
    case LIST:
        return pb::FieldDescriptor::TYPE_STRING;
    case U32:
        return pb::FieldDescriptor::TYPE_UINT32;
    case U64:
        return pb::FieldDescriptor::TYPE_UINT64;
    case BOOL:
        return pb::FieldDescriptor::TYPE_BOOL;
    case ADDR:
        return pb::FieldDescriptor::TYPE_MESSAGE;
    }
    return pb::FieldDescriptor::TYPE_GROUP;
}

static pb::FieldDescriptor::Label label_of(Kind k) {
    return k == LIST ? pb::FieldDescriptor::LABEL_REPEATED : pb::FieldDescriptor::LABEL_OPTIONAL;
}

// ---------------------------------------------------------------------------
// The generated accessors of every field, family by family.

struct StringField {
    const char *name;
    const std::string &(*get)(const Q &);
    bool (*has)(const Q &);
    std::string *(*mut)(Q &);
    void (*set)(Q &, const std::string &);
    void (*clear)(Q &);
};

#define QEL_STRING_FIELDS(X)                                                                       \
    X(bot_name) X(profile_name) X(virtual_server_name) X(request_uri) X(http_request)             \
    X(bot_signature) X(microservice_name) X(microservice_matched_wildcard_url)                    \
    X(configured_mitigation_action_reason) X(actual_mitigation_action_reason)                     \
    X(actual_verification_action_reason) X(reason) X(mobile_app_display_name)                     \
    X(mobile_app_version) X(mobile_imei) X(mobile_is_human_behaviour) X(http_method)              \
    X(country_code) X(classification) X(bot_signature_category) X(microservice_type)              \
    X(captcha_status) X(browser_verification_status) X(device_id_status) X(device_id_action)      \
    X(previous_initiated_action) X(previous_initiated_action_status) X(mobile_os_id)              \
    X(mobile_app_emulation_mode) X(mobile_app_jailbroken_rooted) X(configured_mitigation_action)  \
    X(actual_mitigation_action) X(browser_configured_verification_action)                         \
    X(browser_actual_verification_action) X(additional_signatures) X(host) X(request_status)      \
    X(microservice_matched_wildcard_host) X(enforced_by) X(primary_anomaly_category)              \
    X(mobile_debugger_enabled_device) X(challenge_failure_reason) X(http_protocol_info)

#define QEL_STRING_ROW(f)                                                                          \
    {#f,                                                                                           \
     [](const Q &m) -> const std::string & { return m.f(); },                                     \
     [](const Q &m) { return m.has_##f(); },                                                       \
     [](Q &m) { return m.mutable_##f(); },                                                         \
     [](Q &m, const std::string &v) { m.set_##f(v); },                                             \
     [](Q &m) { m.clear_##f(); }},

static const StringField kStrings[] = {QEL_STRING_FIELDS(QEL_STRING_ROW)};
static constexpr int kStringCount = sizeof kStrings / sizeof kStrings[0];
static_assert(kStringCount == 43, "43 singular string fields");

template <typename T> struct NumberField {
    const char *name;
    T (*get)(const Q &);
    bool (*has)(const Q &);
    void (*set)(Q &, T);
    void (*clear)(Q &);
};

#define QEL_NUMBER_ROW(T, f)                                                                       \
    {#f, [](const Q &m) -> T { return m.f(); }, [](const Q &m) { return m.has_##f(); },            \
     [](Q &m, T v) { m.set_##f(v); }, [](Q &m) { m.clear_##f(); }},

static const NumberField<uint32_t> kUint32s[] = {
    QEL_NUMBER_ROW(uint32_t, src_port) QEL_NUMBER_ROW(uint32_t, dest_port)
    QEL_NUMBER_ROW(uint32_t, request_time) QEL_NUMBER_ROW(uint32_t, previous_request_time)
    QEL_NUMBER_ROW(uint32_t, slot_number)};
static const NumberField<uint64_t> kUint64s[] = {
    QEL_NUMBER_ROW(uint64_t, device_id) QEL_NUMBER_ROW(uint64_t, session_id)
    QEL_NUMBER_ROW(uint64_t, support_id) QEL_NUMBER_ROW(uint64_t, previous_support_id)};
static const NumberField<bool> kBools[] = {
    QEL_NUMBER_ROW(bool, mobile_is_app) QEL_NUMBER_ROW(bool, is_https_request)
    QEL_NUMBER_ROW(bool, is_update_request)};

struct AddrAccess {
    const char *name;
    uint32_t (*get)(const IPAddr &);
    bool (*has)(const IPAddr &);
    void (*set)(IPAddr &, uint32_t);
};
#define QEL_ADDR_ROW(f)                                                                            \
    {#f, [](const IPAddr &a) -> uint32_t { return a.f(); },                                       \
     [](const IPAddr &a) { return a.has_##f(); }, [](IPAddr &a, uint32_t v) { a.set_##f(v); }},
static const AddrAccess kAddr[] = {QEL_ADDR_ROW(ip0) QEL_ADDR_ROW(ip1) QEL_ADDR_ROW(ip2)
                                       QEL_ADDR_ROW(ip3) QEL_ADDR_ROW(rtdom_id)};

// ---------------------------------------------------------------------------
// Reflection walks

// Names of the fields that reflection reports present: HasField for singular
// fields, a non-zero FieldSize for repeated ones.
static std::vector<std::string> present_fields(const pb::Message &m) {
    std::vector<std::string> out;
    const pb::Descriptor *d = m.GetDescriptor();
    const pb::Reflection *r = m.GetReflection();
    for (int i = 0; i < d->field_count(); ++i) {
        const pb::FieldDescriptor *f = d->field(i);
        const bool present = f->is_repeated() ? r->FieldSize(m, f) != 0 : r->HasField(m, f);
        if (present)
            out.push_back(f->name());
    }
    return out;
}

static std::string join(const std::vector<std::string> &v) {
    std::string s;
    for (const auto &x : v)
        s += (s.empty() ? "" : ",") + x;
    return s;
}

static bool none_present(const pb::Message &m, const std::string &name) {
    return is(join(present_fields(m)), std::string(), name);
}

static bool addr_is(const IPAddr &a, uint32_t ip0, uint32_t ip1, uint32_t ip2, uint32_t ip3,
                    uint32_t rtdom, const std::string &name) {
    std::ostringstream got, want;
    got << a.ip0() << ' ' << a.ip1() << ' ' << a.ip2() << ' ' << a.ip3() << ' ' << a.rtdom_id();
    want << ip0 << ' ' << ip1 << ' ' << ip2 << ' ' << ip3 << ' ' << rtdom;
    return is(got.str(), want.str(), name);
}

static std::string list_of(const pb::RepeatedPtrField<std::string> &l) {
    std::string s = "[";
    for (int i = 0; i < l.size(); ++i)
        s += (i ? ",\"" : "\"") + l.Get(i) + "\"";
    return s + "]";
}

static Q parsed(const std::string &hex_bytes) {
    Q m;
    if (!m.ParseFromString(unhex(hex_bytes)))
        diag("could not parse " + hex_bytes);
    return m;
}

// One check: hex_bytes, parsed into a new record, fail the parse.
static bool parse_fails(const std::string &hex_bytes, const std::string &name) {
    Q m;
    return ok(!m.ParseFromString(unhex(hex_bytes)), name);
}

// ---------------------------------------------------------------------------
// A new record

static void test_new_record() {
    const pb::Descriptor *d = Q::descriptor();
    is(d->field_count(), 59, "the record's descriptor has 59 fields");
    is(IPAddr::descriptor()->field_count(), 5, "the address's descriptor has 5 fields");

    Q m;
    none_present(m, "new record: no field is present (walk over every field)");
    {
        std::string set;
        for (const auto &s : kStrings)
            if (s.has(m))
                set += std::string(s.name) + ",";
        is(set, std::string(), "new record: every has_ of the 43 string fields is false");
    }
    {
        bool all = true;
        for (const auto &f : kUint32s) all = all && !f.has(m) && f.get(m) == 0;
        for (const auto &f : kUint64s) all = all && !f.has(m) && f.get(m) == 0;
        for (const auto &f : kBools) all = all && !f.has(m) && f.get(m) == false;
        ok(all, "new record: every number and flag is absent and reads 0 / false");
    }
    is(m.has_client_ip(), false, "new record: has_client_ip is false");
    is(m.has_dest_ip(), false, "new record: has_dest_ip is false");
    is_ptr(&m.bot_name(), &empty_string(), "new record: bot_name() is the shared empty string itself");
    {
        std::string bad;
        for (const auto &s : kStrings)
            if (&s.get(m) != &empty_string())
                bad += std::string(bad.empty() ? "" : ",") + s.name;
        is(bad, std::string(), "new record: every string getter returns the shared empty string itself");
    }
    {
        // Reflection reads every string field too, and still allocates nothing.
        std::string bad;
        const pb::Reflection *r = m.GetReflection();
        for (int i = 0; i < d->field_count(); ++i) {
            const pb::FieldDescriptor *f = d->field(i);
            if (f->type() != pb::FieldDescriptor::TYPE_STRING || f->is_repeated())
                continue;
            std::string scratch;
            const std::string &v = r->GetStringReference(m, f, &scratch);
            if (!v.empty())
                bad += f->name() + ",";
        }
        is(bad, std::string(), "new record: reflection reads every string field as \"\"");
    }
    none_present(m, "new record: reading every field leaves every field absent");
    is_ptr(&m.bot_name(), &empty_string(), "new record: after the reads bot_name() still names the shared empty string");
    is_ptr(&m.client_ip(), &IPAddr::default_instance(), "new record: client_ip() is IPAddr::default_instance()");
    is_ptr(&m.dest_ip(), &IPAddr::default_instance(), "new record: dest_ip() is IPAddr::default_instance()");
    addr_is(m.client_ip(), 0, 0, 0, 0, 0, "new record: client_ip() has five zero fields");
    none_present(m.client_ip(), "new record: client_ip() has no field present");
    is(m.has_client_ip(), false, "new record: reading client_ip() does not make it present");
    is(m.anomalies_size(), 0, "new record: anomalies_size() is 0");
    is(m.anomaly_categories_size(), 0, "new record: anomaly_categories_size() is 0");
    is(m.unknown_fields().field_count(), 0, "new record: no unknown fields");
    is(m.IsInitialized(), true, "new record: IsInitialized() is true");
    is(m.GetCachedSize(), 0, "new record: cached size is 0");

    IPAddr a;
    none_present(a, "new address: no field is present");
    addr_is(a, 0, 0, 0, 0, 0, "new address: five zero fields");
    is(a.IsInitialized(), true, "new address: IsInitialized() is true");

    std::unique_ptr<Q> n(m.New());
    ok(n && n.get() != &m && n->GetDescriptor() == d, "New() makes another record of the same class");
    none_present(*n, "New() makes an empty record");
}

// ---------------------------------------------------------------------------
// mutable_ and clear_ of single fields

static void test_mutable_and_clear_field() {
    Q m;
    IPAddr *p = m.mutable_client_ip();
    is(m.has_client_ip(), true, "mutable_client_ip() makes has_client_ip true");
    ok(p != nullptr && p != &IPAddr::default_instance(), "mutable_client_ip() allocates an address of the record's own");
    is_ptr(&m.client_ip(), p, "client_ip() then returns that address");
    is_ptr(m.mutable_client_ip(), p, "a second mutable_client_ip() returns the same address");
    is(join(present_fields(m)), std::string("client_ip"), "only client_ip is present after mutable_client_ip()");
    none_present(*p, "the new address has no field present");
    is(m.has_dest_ip(), false, "mutable_client_ip() leaves dest_ip absent");

    p->set_ip0(7);
    m.clear_client_ip();
    is(m.has_client_ip(), false, "clear_client_ip() makes has_client_ip false");
    is_ptr(&m.client_ip(), p, "clear_client_ip() keeps the address object");
    is(p->has_ip0(), false, "clear_client_ip() clears the kept address");
    is(p->ip0(), 0u, "clear_client_ip() zeroes the kept address");
    is_ptr(m.mutable_client_ip(), p, "mutable_client_ip() after clear_client_ip() reuses the address");

    std::string *s = m.mutable_bot_name();
    is(m.has_bot_name(), true, "mutable_bot_name() makes has_bot_name true");
    ok(s != &empty_string(), "mutable_bot_name() gives a string of the record's own");
    s->assign(100, 'q');
    const size_t cap = s->capacity();
    m.clear_bot_name();
    is(m.has_bot_name(), false, "clear_bot_name() makes has_bot_name false");
    is(m.bot_name(), std::string(), "clear_bot_name() empties the string");
    is_ptr(&m.bot_name(), s, "clear_bot_name() keeps the string object");
    is(s->capacity(), cap, "clear_bot_name() keeps the string's capacity");
    m.clear_profile_name();
    is_ptr(&m.profile_name(), &empty_string(), "clear_ of a never-set string leaves it naming the shared empty string");

    m.set_src_port(443);
    m.set_device_id(UINT64_MAX);
    m.set_mobile_is_app(true);
    m.clear_src_port();
    m.clear_device_id();
    m.clear_mobile_is_app();
    ok(!m.has_src_port() && m.src_port() == 0 && !m.has_device_id() && m.device_id() == 0 &&
           !m.has_mobile_is_app() && !m.mobile_is_app(),
       "clear_ of a number or flag unsets it and makes it 0 / false");
    m.add_anomalies("x");
    m.add_anomalies("y");
    m.clear_anomalies();
    is(m.anomalies_size(), 0, "clear_anomalies() empties the list");
}

// ---------------------------------------------------------------------------
// Clear

static void test_clear() {
    Q m;
    std::vector<std::string *> ptrs;
    std::vector<size_t> caps;
    for (const auto &s : kStrings) {
        std::string *p = s.mut(m);
        p->assign(std::string(64, 'v') + s.name);
        ptrs.push_back(p);
        caps.push_back(p->capacity());
    }
    for (const auto &f : kUint32s) f.set(m, 4000000000u);
    for (const auto &f : kUint64s) f.set(m, UINT64_MAX);
    for (const auto &f : kBools) f.set(m, true);
    m.mutable_client_ip()->set_ip3(3);
    m.mutable_dest_ip()->set_rtdom_id(5);
    IPAddr *cip = m.mutable_client_ip();
    IPAddr *dip = m.mutable_dest_ip();
    m.add_anomalies("a");
    m.add_anomaly_categories("c");
    m.mutable_unknown_fields()->AddVarint(6, 5);
    is(static_cast<int>(present_fields(m).size()), 59, "a fully set record has all 59 fields present");

    m.Clear();
    none_present(m, "Clear(): every field is absent");
    {
        std::string bad;
        for (const auto &s : kStrings)
            if (s.has(m) || !s.get(m).empty())
                bad += std::string(s.name) + ",";
        is(bad, std::string(), "Clear(): every string has_ is false and every string getter is \"\"");
    }
    {
        std::string moved;
        for (int i = 0; i < kStringCount; ++i)
            if (&kStrings[i].get(m) != ptrs[i])
                moved += std::string(kStrings[i].name) + ",";
        is(moved, std::string(), "Clear(): every string keeps its storage object");
        std::string shrunk;
        for (int i = 0; i < kStringCount; ++i)
            if (ptrs[i]->capacity() != caps[i])
                shrunk += std::string(kStrings[i].name) + ",";
        is(shrunk, std::string(), "Clear(): every string keeps its capacity");
    }
    {
        bool all = true;
        for (const auto &f : kUint32s) all = all && f.get(m) == 0;
        for (const auto &f : kUint64s) all = all && f.get(m) == 0;
        for (const auto &f : kBools) all = all && f.get(m) == false;
        ok(all, "Clear(): every number and flag reads 0 / false");
    }
    is_ptr(&m.client_ip(), cip, "Clear(): client_ip keeps its address object");
    is_ptr(&m.dest_ip(), dip, "Clear(): dest_ip keeps its address object");
    addr_is(m.client_ip(), 0, 0, 0, 0, 0, "Clear(): the kept client_ip is zeroed");
    none_present(m.dest_ip(), "Clear(): the kept dest_ip has no field present");
    is(m.anomalies_size() + m.anomaly_categories_size(), 0, "Clear(): both lists are empty");
    is(m.unknown_fields().field_count(), 0, "Clear(): unknown fields are gone");
    is(m.SerializeAsString(), std::string(), "Clear(): the record encodes to zero bytes");

    std::string *bn = m.mutable_bot_name();
    is_ptr(bn, ptrs[0], "mutable_bot_name() after Clear() returns the string from before");
    is(bn->capacity(), caps[0], "mutable_bot_name() after Clear() keeps the capacity");
    m.set_host("x");
    int host_index = -1;
    for (int i = 0; i < kStringCount; ++i)
        if (std::strcmp(kStrings[i].name, "host") == 0)
            host_index = i;
    is_ptr(&m.host(), ptrs[host_index], "set_host() after Clear() reuses the kept string");
    is(m.host(), std::string("x"), "set_host() after Clear() stores the new value");

    // mobile_imei and src_port: only the string is set, then both.
    Q g;
    g.set_mobile_imei("356938035643809");
    g.Clear();
    ok(!g.has_mobile_imei() && g.mobile_imei().empty(), "Clear() with only mobile_imei set unsets it");
    ok(!g.has_src_port() && g.src_port() == 0, "Clear() with only mobile_imei set leaves src_port 0 and absent");
    none_present(g, "Clear() with only mobile_imei set: every field stays absent");
    is_ptr(&g.bot_name(), &empty_string(), "Clear() with only mobile_imei set: untouched strings still name the shared empty string");
    g.set_mobile_imei("1");
    g.set_src_port(8080);
    g.Clear();
    ok(!g.has_src_port() && g.src_port() == 0, "Clear() zeroes src_port set beside mobile_imei");

    IPAddr a;
    for (const auto &f : kAddr) f.set(a, 0xFFFFFFFFu);
    a.mutable_unknown_fields()->AddVarint(9, 1);
    a.Clear();
    none_present(a, "IPAddr::Clear(): every field is absent");
    addr_is(a, 0, 0, 0, 0, 0, "IPAddr::Clear(): every field reads 0");
    is(a.unknown_fields().field_count(), 0, "IPAddr::Clear(): unknown fields are gone");
}

// ---------------------------------------------------------------------------
// MergeFrom, CopyFrom, Swap

static void test_merge() {
    Q to, from;
    to.add_anomalies("b");
    from.add_anomalies("a");
    to.add_anomaly_categories("y");
    from.add_anomaly_categories("x");
    from.add_anomaly_categories("z");
    to.MergeFrom(from);
    is(list_of(to.anomalies()), std::string("[\"b\",\"a\"]"), "MergeFrom: anomalies [\"b\"] + [\"a\"] = [\"b\",\"a\"]");
    is(list_of(to.anomaly_categories()), std::string("[\"y\",\"x\",\"z\"]"), "MergeFrom: anomaly_categories are appended in order");
    is(list_of(from.anomalies()), std::string("[\"a\"]"), "MergeFrom: the source's list is unchanged");

    Q t2, f2;
    IPAddr *kept = t2.mutable_client_ip();
    kept->set_ip1(4);
    f2.mutable_client_ip()->set_ip0(9);
    t2.MergeFrom(f2);
    addr_is(t2.client_ip(), 9, 4, 0, 0, 0, "MergeFrom: address ip1=4 merged with ip0=9 holds both");
    ok(t2.client_ip().has_ip0() && t2.client_ip().has_ip1() && !t2.client_ip().has_ip2() &&
           !t2.client_ip().has_ip3() && !t2.client_ip().has_rtdom_id(),
       "MergeFrom: the merged address has exactly ip0 and ip1 present");
    is_ptr(&t2.client_ip(), kept, "MergeFrom: the address is merged into the existing object");

    Q t3, f3;
    f3.mutable_dest_ip()->set_rtdom_id(12);
    t3.MergeFrom(f3);
    ok(t3.has_dest_ip() && t3.dest_ip().rtdom_id() == 12 && &t3.dest_ip() != &f3.dest_ip(),
       "MergeFrom: an address absent here is made and filled from the source");
    Q t3b, f3b;
    f3b.mutable_dest_ip();
    t3b.MergeFrom(f3b);
    ok(t3b.has_dest_ip(), "MergeFrom: a present but empty address in the source makes it present here");

    Q t4, f4;
    t4.set_bot_name("x");
    t4.set_src_port(1);
    t4.set_device_id(2);
    t4.set_mobile_is_app(true);
    t4.set_host("kept");
    f4.set_bot_name("y");
    f4.set_src_port(2);
    f4.set_device_id(UINT64_MAX);
    f4.set_mobile_is_app(false);
    t4.MergeFrom(f4);
    is(t4.bot_name(), std::string("y"), "MergeFrom: a string overwrites");
    is(t4.src_port(), 2u, "MergeFrom: a uint32 overwrites");
    is(t4.device_id(), static_cast<uint64_t>(UINT64_MAX), "MergeFrom: a uint64 overwrites");
    ok(t4.has_mobile_is_app() && !t4.mobile_is_app(), "MergeFrom: a present false flag overwrites true");
    is(t4.host(), std::string("kept"), "MergeFrom: a field absent in the source keeps its value");

    Q t5 = parsed("0A 01 61 30 05");
    Q f5 = parsed("30 07 F8 01 01");
    t5.MergeFrom(f5);
    is(t5.unknown_fields().field_count(), 3, "MergeFrom: unknown fields are appended (1 + 2)");
    is_hex(t5.SerializeAsString(), "0A 01 61 30 05 30 07 F8 01 01",
           "MergeFrom: the appended unknown fields are written after the known ones, in order");

    // The generic overload, with a record and with a message of another class
    // built from the same descriptor.
    Q t6;
    t6.add_anomalies("b");
    const pb::Message &generic = from;
    t6.MergeFrom(generic);
    is(list_of(t6.anomalies()), std::string("[\"b\",\"a\"]"), "MergeFrom(const Message&) appends lists too");
    {
        pb::DynamicMessageFactory factory;
        std::unique_ptr<pb::Message> dyn(factory.GetPrototype(Q::descriptor())->New());
        ok(dyn->ParseFromString(unhex("0A 01 7A 22 02 08 05 EA 02 01 71")), "a dynamic message of the record's type parses");
        Q t7;
        t7.set_bot_name("a");
        t7.add_anomalies("p");
        t7.MergeFrom(*dyn);
        is_hex(t7.SerializeAsString(), "0A 01 7A 22 02 08 05 EA 02 01 70 EA 02 01 71",
               "MergeFrom(const Message&) of another class merges field by field");
    }

    IPAddr ia, ib;
    ia.set_ip1(4);
    ia.set_ip3(1);
    ib.set_ip0(9);
    ib.set_ip3(2);
    ia.MergeFrom(ib);
    addr_is(ia, 9, 4, 0, 2, 0, "IPAddr::MergeFrom: present fields overwrite, absent ones stay");
}

static void test_copy() {
    Q m;
    std::string *s = m.mutable_bot_name();
    s->assign("self");
    m.add_anomalies("a");
    m.mutable_client_ip()->set_ip0(1);
    m.mutable_unknown_fields()->AddVarint(6, 5);
    const std::string before = m.SerializeAsString();
    m.CopyFrom(m);
    is(m.SerializeAsString(), before, "CopyFrom(*this) changes nothing");
    is_ptr(&m.bot_name(), s, "CopyFrom(*this) keeps the string object");
    const pb::Message &self = m;
    m.CopyFrom(self);
    is(m.SerializeAsString(), before, "CopyFrom(const Message&) with itself changes nothing");
    is(m.anomalies_size(), 1, "CopyFrom(*this) does not double the list");

    Q to, from;
    to.set_bot_name("old");
    to.set_src_port(80);
    to.add_anomalies("old");
    to.mutable_dest_ip()->set_ip2(2);
    to.mutable_unknown_fields()->AddVarint(31, 1);
    from.set_host("new");
    from.add_anomalies("new");
    from.mutable_client_ip()->set_ip0(9);
    to.CopyFrom(from);
    is(join(present_fields(to)), std::string("client_ip,anomalies,host"), "CopyFrom clears first: only the source's fields are present");
    is(to.bot_name(), std::string(), "CopyFrom clears first: bot_name is \"\"");
    is(list_of(to.anomalies()), std::string("[\"new\"]"), "CopyFrom clears first: the list is replaced, not appended");
    is(to.unknown_fields().field_count(), 0, "CopyFrom clears first: old unknown fields are gone");
    is(to.SerializeAsString(), from.SerializeAsString(), "CopyFrom: the copy encodes like the source");

    Q to2;
    to2.set_bot_name("old");
    const pb::Message &generic = from;
    to2.CopyFrom(generic);
    is(to2.SerializeAsString(), from.SerializeAsString(), "CopyFrom(const Message&) clears first and copies");

    Q copy(from);
    is(copy.SerializeAsString(), from.SerializeAsString(), "the copy constructor copies every field");
    ok(&copy.host() != &from.host() && &copy.client_ip() != &from.client_ip(), "the copy constructor copies into storage of its own");
}

static void test_swap() {
    Q a, b;
    IPAddr *p = a.mutable_client_ip();
    p->set_ip0(1);
    std::string *s = a.mutable_bot_name();
    s->assign("a-name");
    a.set_src_port(1);
    a.add_anomalies("a1");
    a.mutable_unknown_fields()->AddVarint(6, 1);
    b.set_host("b-host");
    b.set_device_id(2);
    b.add_anomalies("b1");
    b.add_anomalies("b2");
    const std::string a_bytes = a.SerializeAsString();
    const std::string b_bytes = b.SerializeAsString();

    a.Swap(&b);
    is(b.has_client_ip(), true, "Swap: the other record now has client_ip");
    is_ptr(&b.client_ip(), p, "Swap: the address object moved to the other record");
    is_ptr(b.mutable_client_ip(), p, "Swap: mutable_client_ip() of the other record is the moved object");
    is(a.has_client_ip(), false, "Swap: this record no longer has client_ip");
    is_ptr(&a.client_ip(), &IPAddr::default_instance(), "Swap: this record's client_ip() is the default instance again");
    is_ptr(&b.bot_name(), s, "Swap: the string object moved, not its contents");
    is(b.SerializeAsString(), a_bytes, "Swap: the other record encodes as this one did");
    is(a.SerializeAsString(), b_bytes, "Swap: this record encodes as the other one did");
    is(b.unknown_fields().field_count(), 1, "Swap: unknown fields move too");

    a.Swap(&a);
    is(a.SerializeAsString(), b_bytes, "Swap with itself changes nothing");
}

// ---------------------------------------------------------------------------
// Default instances, descriptors, registration

static void test_defaults_and_descriptors() {
    const Q &di = Q::default_instance();
    is_ptr(&Q::default_instance(), &di, "default_instance() is one object");
    is_ptr(&di.client_ip(), &IPAddr::default_instance(), "default_instance().client_ip() is IPAddr::default_instance()");
    is_ptr(&di.dest_ip(), &IPAddr::default_instance(), "default_instance().dest_ip() is IPAddr::default_instance()");
    is(di.has_client_ip(), false, "default_instance().has_client_ip() is false");
    none_present(di, "the record's default instance has no field present");
    none_present(IPAddr::default_instance(), "the address's default instance has no field present");
    is(di.SerializeAsString(), std::string(), "the record's default instance encodes to zero bytes");

    const pb::Descriptor *ad = IPAddr::descriptor();
    const pb::Descriptor *rd = Q::descriptor();
    is(ad->name(), std::string("IPAddr"), "IPAddr::descriptor()->name() is IPAddr");
    is(ad->full_name(), std::string("quillon_event_log.IPAddr"), "IPAddr::descriptor()->full_name() is quillon_event_log.IPAddr");
    is(rd->name(), std::string("QuillonEventLog"), "QuillonEventLog::descriptor()->name() is QuillonEventLog");
    is(rd->full_name(), std::string("quillon_event_log.QuillonEventLog"), "the record's full name is quillon_event_log.QuillonEventLog");
    is_ptr(Q::descriptor(), rd, "descriptor() returns the same descriptor every time");
    const pb::FileDescriptor *file = rd->file();
    is(file->name(), std::string("quillon_event_log.proto"), "the record's file is quillon_event_log.proto");
    is(file->package(), std::string("quillon_event_log"), "the file's package is quillon_event_log");
    is(file->message_type_count(), 2, "the file declares two messages");
    is_ptr(file->message_type(1), rd, "QuillonEventLog is message type 1 of the file");
    is_ptr(file->message_type(0), ad, "IPAddr is message type 0 of the file");
    is_ptr(ad->file(), file, "both messages are in the same file");
    is(file->dependency_count(), 0, "the file imports nothing");
    ok(file->syntax() == pb::FileDescriptor::SYNTAX_PROTO2, "the file is proto2");
    is(file->options().ByteSizeLong() + rd->options().ByteSizeLong() + ad->options().ByteSizeLong(),
       static_cast<size_t>(0), "the file and its messages set no options");
    is_ptr(pb::DescriptorPool::generated_pool()->FindFileByName("quillon_event_log.proto"), file,
           "the generated pool finds the file by name");
    is_ptr(pb::DescriptorPool::generated_pool()->FindFileByName("quillon_event_log.proto"), file,
           "a second lookup of the file finds the same descriptor");
    is_ptr(pb::DescriptorPool::generated_pool()->FindMessageTypeByName("quillon_event_log.IPAddr"), ad,
           "the generated pool finds quillon_event_log.IPAddr");
    is_ptr(pb::MessageFactory::generated_factory()->GetPrototype(rd), &Q::default_instance(),
           "the generated factory hands out the record's default instance as prototype");
    is_ptr(pb::MessageFactory::generated_factory()->GetPrototype(ad), &IPAddr::default_instance(),
           "the generated factory hands out the address's default instance as prototype");

    Q m;
    is_ptr(m.GetDescriptor(), rd, "GetDescriptor() is descriptor()");
    ok(m.GetReflection() != nullptr, "GetReflection() is not null");
    is(m.GetTypeName(), std::string("quillon_event_log.QuillonEventLog"), "GetTypeName() is the full name");
    is(IPAddr().GetTypeName(), std::string("quillon_event_log.IPAddr"), "IPAddr GetTypeName() is the full name");

    // Every field against the table: name, number, type, label, no default,
    // no options, and the address type of the two address fields.
    for (int i = 0; i < kRecordFieldCount; ++i) {
        const Row &row = kRecordFields[i];
        const pb::FieldDescriptor *f = i < rd->field_count() ? rd->field(i) : nullptr;
        std::ostringstream got, want;
        if (f)
            got << f->name() << ' ' << f->number() << ' ' << f->type_name() << ' ' << f->label()
                << (f->has_default_value() ? " default" : "") << (f->options().ByteSizeLong() ? " options" : "")
                << (f->message_type() ? " " + f->message_type()->full_name() : "");
        want << row.name << ' ' << row.number << ' ' << pb::FieldDescriptor::TypeName(type_of(row.kind)) << ' '
             << label_of(row.kind) << (row.kind == ADDR ? " quillon_event_log.IPAddr" : "");
        is(got.str(), want.str(), "record field " + std::to_string(i) + ": " + want.str());
    }
    for (int i = 0; i < kAddrFieldCount; ++i) {
        const Row &row = kAddrFields[i];
        const pb::FieldDescriptor *f = i < ad->field_count() ? ad->field(i) : nullptr;
        std::ostringstream got, want;
        if (f)
            got << f->name() << ' ' << f->number() << ' ' << f->type_name() << ' ' << f->label()
                << (f->has_default_value() ? " default" : "");
        want << row.name << ' ' << row.number << " uint32 " << pb::FieldDescriptor::LABEL_OPTIONAL;
        is(got.str(), want.str(), "address field " + std::to_string(i) + ": " + want.str());
    }
    ok(rd->FindFieldByNumber(6) == nullptr && rd->FindFieldByNumber(31) == nullptr, "field numbers 6 and 31 are unused");
    ok(rd->extension_range_count() == 0 && rd->oneof_decl_count() == 0 && rd->nested_type_count() == 0 &&
           rd->enum_type_count() == 0,
       "the record has no extensions, oneofs, nested types or enums");

    // The schema registered in the pool is exactly the one built from the tables.
    pb::FileDescriptorProto want;
    want.set_name("quillon_event_log.proto");
    want.set_package("quillon_event_log");
    pb::DescriptorProto *ip = want.add_message_type();
    ip->set_name("IPAddr");
    for (const Row &row : kAddrFields) {
        pb::FieldDescriptorProto *f = ip->add_field();
        f->set_name(row.name);
        f->set_number(row.number);
        f->set_label(pb::FieldDescriptorProto::LABEL_OPTIONAL);
        f->set_type(pb::FieldDescriptorProto::TYPE_UINT32);
    }
    pb::DescriptorProto *rec = want.add_message_type();
    rec->set_name("QuillonEventLog");
    for (const Row &row : kRecordFields) {
        pb::FieldDescriptorProto *f = rec->add_field();
        f->set_name(row.name);
        f->set_number(row.number);
        f->set_label(static_cast<pb::FieldDescriptorProto::Label>(label_of(row.kind)));
        f->set_type(static_cast<pb::FieldDescriptorProto::Type>(type_of(row.kind)));
        if (row.kind == ADDR)
            f->set_type_name(".quillon_event_log.IPAddr");
    }
    pb::FileDescriptorProto got;
    file->CopyTo(&got);
    const std::string got_bytes = got.SerializeAsString(), want_bytes = want.SerializeAsString();
    if (!is(got_bytes == want_bytes, true, "the registered schema is exactly the file built from the field tables"))
        diag("registered:\n" + got.DebugString() + "\nexpected:\n" + want.DebugString());
    is(got_bytes.size(), want_bytes.size(),
       "the registered schema serialises to " + std::to_string(want_bytes.size()) + " bytes");
}

// ---------------------------------------------------------------------------
// Encoding and decoding

// Sets one field through reflection to a small value: "a", 1, true, an empty
// address, or a one-element list ["a"].
static void set_one(pb::Message &m, const pb::FieldDescriptor *f) {
    const pb::Reflection *r = m.GetReflection();
    if (f->is_repeated()) {
        r->AddString(&m, f, "a");
        return;
    }
    switch (f->type()) {
    case pb::FieldDescriptor::TYPE_STRING: r->SetString(&m, f, "a"); break;
    case pb::FieldDescriptor::TYPE_UINT32: r->SetUInt32(&m, f, 1); break;
    case pb::FieldDescriptor::TYPE_UINT64: r->SetUInt64(&m, f, 1); break;
    case pb::FieldDescriptor::TYPE_BOOL: r->SetBool(&m, f, true); break;
    case pb::FieldDescriptor::TYPE_MESSAGE: r->MutableMessage(&m, f); break;
    default: break;
    }
}

static std::string value_hex(Kind k) {
    switch (k) {
    case STR:
    case LIST:
        return "01 61";
    case U32:
    case U64:
    case BOOL:
        return "01";
    case ADDR:
        return "00";
    }
    return "";
}

static void test_encoding() {
    Q m;
    is(m.SerializeAsString(), std::string(), "an empty record encodes to zero bytes");
    is(m.ByteSizeLong(), static_cast<size_t>(0), "an empty record's ByteSizeLong() is 0");

    Q a;
    a.set_bot_name("a");
    is_hex(a.SerializeAsString(), "0A 01 61", "bot_name \"a\" encodes as 0A 01 61");
    Q b;
    b.set_mobile_is_app(true);
    is_hex(b.SerializeAsString(), "C8 01 01", "mobile_is_app true encodes as C8 01 01");
    Q c;
    c.mutable_client_ip();
    is_hex(c.SerializeAsString(), "22 00", "a present empty client_ip encodes as 22 00");
    c.clear_client_ip();
    is(c.SerializeAsString(), std::string(), "a cleared client_ip is not written");
    Q d;
    d.set_mobile_app_display_name("x");
    is(d.ByteSizeLong(), static_cast<size_t>(4), "ByteSizeLong() of mobile_app_display_name \"x\" is 4");
    is(d.GetCachedSize(), 4, "ByteSizeLong() stores 4 as the cached size");
    is_hex(d.SerializeAsString(), "82 01 01 78", "mobile_app_display_name \"x\" encodes as 82 01 01 78");
    Q e;
    e.add_anomalies("p");
    e.add_anomalies("q");
    is_hex(e.SerializeAsString(), "EA 02 01 70 EA 02 01 71", "anomalies p, q encode as EA 02 01 70 EA 02 01 71");
    Q f;
    f.mutable_client_ip()->set_ip0(300);
    is(f.ByteSizeLong(), static_cast<size_t>(5), "ByteSizeLong() of client_ip with ip0 300 is 5");
    is(f.client_ip().GetCachedSize(), 3, "ByteSizeLong() of the record refreshes the address's cached size");
    is_hex(f.SerializeAsString(), "22 03 08 AC 02", "client_ip with ip0 300 encodes as 22 03 08 AC 02");
    Q g;
    g.set_device_id(UINT64_MAX);
    is_hex(g.SerializeAsString(), "A8 01 FF FF FF FF FF FF FF FF FF 01", "device_id 2**64-1 encodes as a ten-byte varint");
    IPAddr ip;
    for (const auto &x : kAddr) x.set(ip, 1);
    is_hex(ip.SerializeAsString(), "08 01 10 01 18 01 20 01 28 01", "an address with every field 1 encodes in field order");

    // Each field alone, with the tag of the table.
    const pb::Descriptor *rd = Q::descriptor();
    for (const Row &row : kRecordFields) {
        Q one;
        const pb::FieldDescriptor *fd = rd->FindFieldByNumber(row.number);
        if (!fd) {
            ok(false, std::string(row.name) + " alone encodes with tag " + row.tag);
            continue;
        }
        set_one(one, fd);
        is_hex(one.SerializeAsString(), std::string(row.tag) + " " + value_hex(row.kind),
               std::string(row.name) + " alone encodes as " + row.tag + " " + value_hex(row.kind));
    }

    // Every field at once: written in field-number order, and read back along
    // the same order to the same bytes.
    Q all;
    std::string want;
    for (const Row &row : kRecordFields) {
        set_one(all, rd->FindFieldByNumber(row.number));
        want += std::string(want.empty() ? "" : " ") + row.tag + " " + value_hex(row.kind);
    }
    all.mutable_unknown_fields()->AddVarint(6, 5);
    want += " 30 05";
    is_hex(all.SerializeAsString(), want, "a full record encodes every field in number order, unknown fields last");
    is(all.ByteSizeLong(), unhex(want).size(), "ByteSizeLong() of the full record matches its encoding");
    Q back;
    ok(back.ParseFromString(all.SerializeAsString()), "the full record parses");
    is(static_cast<int>(present_fields(back).size()), 59, "the parsed full record has all 59 fields present");
    is_hex(back.SerializeAsString(), want, "the parsed full record encodes to the same bytes");
}

static void test_decoding() {
    Q m;
    m.set_bot_name("keep");
    ok(m.MergeFromString(std::string()), "merging an empty input succeeds");
    is_hex(m.SerializeAsString(), "0A 04 6B 65 65 70", "merging an empty input leaves the record unchanged");
    ok(m.ParseFromString(std::string()), "parsing an empty input succeeds");
    none_present(m, "parsing an empty input gives an empty record");

    Q a;
    ok(a.ParseFromString(unhex("0A 03 61 62 63")), "0A 03 61 62 63 parses");
    is(a.bot_name(), std::string("abc"), "0A 03 61 62 63 gives bot_name abc");
    is(a.has_bot_name(), true, "0A 03 61 62 63 makes has_bot_name true");
    Q a2;
    ok(a2.ParseFromString(unhex("0A 03 61 62 63 0A 03 61 62 63")), "0A 03 61 62 63 twice parses");
    is(a2.bot_name(), std::string("abc"), "0A 03 61 62 63 twice gives abc once");
    Q a3 = parsed("0A 01 78 0A 01 79");
    is(a3.bot_name(), std::string("y"), "a later string replaces the earlier one");
    Q a4 = parsed("98 01 05 98 01 07");
    is(a4.src_port(), 7u, "a later number replaces the earlier one");
    Q a5 = parsed("C8 01 05");
    ok(a5.has_mobile_is_app() && a5.mobile_is_app(), "a flag read as varint 5 is true");
    is_hex(a5.SerializeAsString(), "C8 01 01", "a flag read as varint 5 is written as 1");
    Q a6 = parsed("EA 02 01 70 EA 02 01 71");
    is(list_of(a6.anomalies()), std::string("[\"p\",\"q\"]"), "EA 02 01 70 EA 02 01 71 gives anomalies p, q");

    Q u;
    ok(u.ParseFromString(unhex("30 05 0A 01 61")), "a field 6 varint parses");
    is(u.unknown_fields().field_count(), 1, "field 6 is kept as one unknown field");
    if (u.unknown_fields().field_count() == 1) {
        const pb::UnknownField &uf = u.unknown_fields().field(0);
        ok(uf.number() == 6 && uf.type() == pb::UnknownField::TYPE_VARINT && uf.varint() == 5,
           "the unknown field is number 6, varint 5");
    } else {
        ok(false, "the unknown field is number 6, varint 5");
    }
    is_hex(u.SerializeAsString(), "0A 01 61 30 05", "field 6 is written again after the known fields");
    Q u31 = parsed("F8 01 09 EA 03 01 7A");
    is_hex(u31.SerializeAsString(), "EA 03 01 7A F8 01 09", "field 31 is kept and written after the last known field");

    Q w;
    ok(w.ParseFromString(unhex("08 01")), "field 1 as varint (08 01) parses");
    is(w.has_bot_name(), false, "field 1 as varint leaves bot_name unset");
    is_ptr(&w.bot_name(), &empty_string(), "field 1 as varint leaves bot_name on the shared empty string");
    is(w.unknown_fields().field_count(), 1, "field 1 as varint goes to the unknown fields");
    is_hex(w.SerializeAsString(), "08 01", "field 1 as varint is written back unchanged");
    Q w4 = parsed("20 07");
    ok(!w4.has_client_ip() && w4.unknown_fields().field_count() == 1, "client_ip as varint goes to the unknown fields");

    Q two;
    ok(two.ParseFromString(unhex("22 02 08 09 22 02 10 04")), "two client_ip occurrences parse");
    addr_is(two.client_ip(), 9, 4, 0, 0, 0, "two client_ip occurrences (ip0, then ip1) merge into one address");
    is_hex(two.SerializeAsString(), "22 04 08 09 10 04", "the merged address is written once");

    parse_fails("22 05 08 01", "a client_ip whose length runs past the input fails the parse");
    parse_fails("22 01 08", "a client_ip that does not end at its length fails the parse");
    parse_fails("0A 05 61", "a string whose length runs past the input fails the parse");
    parse_fails("98 01 FF FF FF FF FF FF FF FF FF FF 01", "a varint longer than ten bytes fails the parse");
    parse_fails("0F 01", "a field of wire type 7 fails the parse");
    parse_fails("0A 01 61 0C", "an end-of-group tag at the top fails the whole-message parse");
    parse_fails("33 08 01", "a group of field 6 that never ends fails the parse");

    const std::string invalid = unhex("0A 02 FF FE EA 02 03 61 C3 28");
    Q inv;
    ok(inv.ParseFromString(invalid), "invalid UTF-8 in a string and a list element parses");
    is(inv.bot_name(), unhex("FF FE"), "invalid UTF-8 is kept in bot_name byte for byte");
    is(inv.anomalies_size() == 1 ? inv.anomalies(0) : std::string(), unhex("61 C3 28"),
       "invalid UTF-8 is kept in the list element byte for byte");
    is_hex(inv.SerializeAsString(), "0A 02 FF FE EA 02 03 61 C3 28", "invalid UTF-8 serialises unchanged");
    Q inv2;
    inv2.set_host(unhex("80"));
    is_hex(inv2.SerializeAsString(), "AA 03 01 80", "an invalid UTF-8 string set by a setter serialises unchanged");
}

// ---------------------------------------------------------------------------
// Child processes

struct ChildResult {
    int status = 0;
    std::string err;
};

// Runs body in a child process with its stderr sent into a pipe; returns the
// child's wait status and everything it wrote there.
template <typename F> static ChildResult in_child(F body) {
    ChildResult r;
    int fds[2];
    if (pipe(fds) != 0) {
        r.err = std::string("pipe: ") + std::strerror(errno);
        return r;
    }
    std::fflush(stdout);
    std::fflush(stderr);
    const pid_t pid = fork();
    if (pid < 0) {
        r.err = std::string("fork: ") + std::strerror(errno);
        return r;
    }
    if (pid == 0) {
        close(fds[0]);
        dup2(fds[1], 2);
        close(fds[1]);
        body();
        std::fflush(stderr);
        _exit(0);
    }
    close(fds[1]);
    char buf[4096];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR))
        if (n > 0)
            r.err.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    while (waitpid(pid, &r.status, 0) < 0 && errno == EINTR) {
    }
    return r;
}

static bool died(int status) {
    return WIFSIGNALED(status) || (WIFEXITED(status) && WEXITSTATUS(status) != 0);
}

// Invalid UTF-8 is reported through the runtime's log, once when parsing and
// once when serialising, naming the field; nothing else happens.
static void test_utf8_report() {
    const ChildResult r = in_child([] {
        Q m;
        std::fputs(m.ParseFromString(unhex("0A 01 FF")) ? "parse: true\n" : "parse: false\n", stderr);
        std::fputs(m.SerializeAsString() == unhex("0A 01 FF") ? "serialise: unchanged\n" : "serialise: changed\n",
                   stderr);
    });
    std::vector<std::string> lines;
    {
        std::istringstream in(r.err);
        std::string line;
        while (std::getline(in, line))
            lines.push_back(line);
    }
    const std::string field = "String field 'quillon_event_log.QuillonEventLog.bot_name' contains invalid UTF-8 data when ";
    const bool shape = WIFEXITED(r.status) && WEXITSTATUS(r.status) == 0 && lines.size() == 4 &&
                       lines[0].find(field + "parsing") != std::string::npos && lines[1] == "parse: true" &&
                       lines[2].find(field + "serializing") != std::string::npos &&
                       lines[3] == "serialise: unchanged";
    if (!ok(shape, "invalid UTF-8 in bot_name is logged once on parsing and once on serialising, and nothing fails"))
        diag("child " + describe_status(r.status) + " wrote: " + r.err);
}

// ---------------------------------------------------------------------------
// Merging a record into itself

// The record class's own check, as logged by the runtime: the generated
// source file, a line number, then the failed condition.
static const char kSelfMergeLog[] = "[libprotobuf FATAL src/quillon_event_log.pb.cc:";
static const char kSelfMergeText[] = "] CHECK failed: (&from) != (_this): ";

static void check_self_merge_child(const ChildResult &r, const std::string &what) {
    if (!ok(died(r.status), what + " ends the process"))
        diag("child: " + describe_status(r.status));
    const size_t at = r.err.find(kSelfMergeLog);
    bool shape = false;
    if (at != std::string::npos) {
        size_t i = at + sizeof kSelfMergeLog - 1;
        const size_t digits = i;
        while (i < r.err.size() && r.err[i] >= '0' && r.err[i] <= '9')
            ++i;
        shape = i > digits && r.err.compare(i, sizeof kSelfMergeText - 1, kSelfMergeText) == 0;
    }
    if (!ok(shape, what + " logs \"CHECK failed: (&from) != (_this): \" at fatal level from src/quillon_event_log.pb.cc"))
        diag("child wrote: " + r.err);
    diag(what + ": child " + describe_status(r.status) + ", message: " + r.err.substr(0, r.err.find('\n')));
}

static void test_self_merge() {
    check_self_merge_child(in_child([] {
                               Q m;
                               m.set_bot_name("a");
                               m.MergeFrom(m);
                           }),
                           "QuillonEventLog::MergeFrom(*this)");
    check_self_merge_child(in_child([] {
                               Q m;
                               const pb::Message &self = m;
                               m.MergeFrom(self);
                           }),
                           "MergeFrom(const Message&) with the record itself");
    check_self_merge_child(in_child([] {
                               IPAddr a;
                               a.MergeFrom(a);
                           }),
                           "IPAddr::MergeFrom(*this)");

    // The check throws the runtime's FatalException; the process ends only
    // because nothing catches it. Caught, it leaves the record untouched.
    const ChildResult r = in_child([] {
        Q m;
        m.add_anomalies("a");
        m.set_bot_name("b");
        const std::string before = m.SerializeAsString();
        try {
            m.MergeFrom(m);
            std::fputs("merged\n", stderr);
        } catch (const pb::FatalException &e) {
            std::fprintf(stderr, "caught: %s|unchanged: %d\n", e.message().c_str(),
                         m.SerializeAsString() == before ? 1 : 0);
        }
    });
    const bool caught = r.err.find("caught: CHECK failed: (&from) != (_this): |unchanged: 1\n") != std::string::npos;
    if (!ok(caught, "the self-merge check throws google::protobuf::FatalException before anything is merged"))
        diag("child " + describe_status(r.status) + " wrote: " + r.err);
}

// ---------------------------------------------------------------------------

int main() {
    test_new_record();
    test_mutable_and_clear_field();
    test_clear();
    test_merge();
    test_copy();
    test_swap();
    test_defaults_and_descriptors();
    test_encoding();
    test_decoding();
    test_utf8_report();
    test_self_merge();

    // Every record above is gone; the runtime now frees the default
    // instances, descriptors and reflection objects.
    google::protobuf::ShutdownProtobufLibrary();
    ok(true, "ShutdownProtobufLibrary() returns");

    return done_testing();
}
