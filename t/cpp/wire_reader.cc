// The module's wire reader (src/wire_reader.cc) against the protobuf
// runtime's own parser, ParseFromArray, over deterministic mutations of a few
// valid encodings, and on the cases where the two are meant to differ.
//
// For every input: whatever the runtime reads cleanly, the reader reads
// cleanly to the same record (same bytes when written again); whatever the
// reader refuses, the runtime refuses too; and where the reader accepts what
// the runtime refuses, the reason is one of the two differences on purpose: a
// field number 0 (kept as an unknown field) or a tag written in more than
// five bytes (read as its low 32 bits, like every 32-bit varint).  Every record the reader accepts writes bytes the
// reader reads back to the same bytes.
//
// parse_record reads most input straight from memory and hands the rest to
// the general reader (parse_record_general): on every input, the two give
// the same result, the same record (also what a failed read kept) and the
// same log lines.
//
// Arguments: [mutations per seed encoding] [PRNG seed]; defaults 20000 and 1.

#include "wire_format.h"
#include "wire_reader.h"

#include <google/protobuf/stubs/logging.h>
#include <google/protobuf/unknown_field_set.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "tap.h"

namespace {

using qel::Address;
using qel::Record;
using google::protobuf::UnknownField;
using google::protobuf::UnknownFieldSet;

// splitmix64: the same sequence on every machine for a seed.
struct Random {
    uint64_t state;
    uint64_t next() {
        uint64_t z = (state += 0x9E3779B97F4A7C15ULL);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        return z ^ (z >> 31);
    }
    size_t below(size_t n) { return n ? static_cast<size_t>(next() % n) : 0; }
};

std::string varint(uint64_t v) {
    std::string out;
    while (v >= 0x80) {
        out.push_back(static_cast<char>((v & 0x7F) | 0x80));
        v >>= 7;
    }
    out.push_back(static_cast<char>(v));
    return out;
}
std::string tag(uint32_t number, uint32_t wire_type) { return varint(number << 3 | wire_type); }
std::string delimited(uint32_t number, const std::string &payload) {
    return tag(number, 2) + varint(payload.size()) + payload;
}

// Reads a varint of at most ten bytes at `at`; false when it is malformed or
// cut short.  `length` receives the number of bytes it took.
bool walk_varint(const std::string &s, size_t &at, uint64_t &value, size_t &length) {
    value = 0;
    for (length = 1; length <= 10 && at < s.size(); ++length) {
        const auto byte = static_cast<unsigned char>(s[at++]);
        value |= static_cast<uint64_t>(byte & 0x7F) << (7 * (length - 1));
        if (byte < 0x80)
            return true;
    }
    return false;
}

// What walk_fields found: a tag with field number 0 or a tag written in more
// than five bytes (Odd), the end of its range or group (End), or a malformed
// spot before either (Bad).  The runtime refuses those two tags, while the
// record's codec reads them: a field number 0 is kept as an unknown field, a
// long tag is cut to its low 32 bits like any 32-bit varint.
enum class Walk { Odd, End, Bad };

// Walks the fields of `s` from `at` to `end`, into client_ip, dest_ip and
// groups; inside a group (`in_group`) it stops after the end-group tag.
Walk walk_fields(const std::string &s, size_t &at, size_t end, bool in_group, bool top) {
    while (at < end) {
        uint64_t tag, value;
        size_t length;
        if (!walk_varint(s, at, tag, length) || at > end)
            return Walk::Bad;
        tag &= 0xFFFFFFFF;
        const uint64_t number = tag >> 3;
        if (tag == 0)
            return Walk::Bad;
        if ((number == 0 && (tag & 7) != 4) || length > 5)
            return Walk::Odd;
        switch (tag & 7) {
        case 0:
            if (!walk_varint(s, at, value, length))
                return Walk::Bad;
            break;
        case 1: at += 8; break;
        case 5: at += 4; break;
        case 2: {
            if (!walk_varint(s, at, value, length) || value > end - at)
                return Walk::Bad;
            size_t inner = at;
            if (top && (number == 4 || number == 5)) {
                const Walk w = walk_fields(s, inner, at + value, false, false);
                if (w != Walk::End)
                    return w;
            }
            at += value;
            break;
        }
        case 3: {
            const Walk w = walk_fields(s, at, end, true, false);
            if (w != Walk::End)
                return w;
            break;
        }
        case 4:
            return in_group ? Walk::End : Walk::Bad;
        default:
            return Walk::Bad;
        }
        if (at > end)
            return Walk::Bad;
    }
    return in_group ? Walk::Bad : Walk::End;
}

bool has_odd_tag(const std::string &s) {
    size_t at = 0;
    return walk_fields(s, at, s.size(), false, true) == Walk::Odd;
}

// The record the traffic processor writes for a blocked request, as far as
// this test needs: ASCII and other UTF-8 strings, varints of every length,
// two-byte tags, a field given twice (the later one counts) and an address
// given twice (the two merge).
std::string typical_encoding() {
    Record r;
    r.set_bot_name("curl");
    r.set_request_uri("/caf\xc3\xa9?q=\xe2\x82\xac");
    r.mutable_client_ip()->set_ip3(0xcb00712d);
    r.mutable_dest_ip()->set_ip3(0x0a000005);
    r.mutable_dest_ip()->set_rtdom_id(2);
    r.set_src_port(51234);
    r.set_session_id(18446744073709551557ull);
    r.set_request_time(1795000000);
    r.add_anomalies("Missing Accept-Language header");
    r.add_anomalies("Known bot User-Agent");
    r.set_actual_mitigation_action("block");
    r.set_is_https_request(true);
    r.set_host("shop.example.com");
    return r.SerializeAsString() + delimited(1, "wget") + delimited(4, tag(5, 0) + varint(7));
}

// Valid encodings to mutate: a record with every family, one with unknown
// fields of every wire type at both levels, and a small one.
std::vector<std::string> seed_encodings() {
    std::vector<std::string> seeds;
    Record full;
    full.set_bot_name("curl/8.0");
    full.set_profile_name(std::string("p\0f", 3));
    full.mutable_client_ip()->set_ip0(1);
    full.mutable_client_ip()->set_rtdom_id(4294967295u);
    full.mutable_dest_ip();
    full.set_request_uri("/login?a=\xff\xfe");
    full.set_src_port(65535);
    full.set_device_id(18446744073709551615ull);
    full.set_mobile_is_app(true);
    full.add_anomaly_categories("");
    full.add_anomalies("Missing Accept");
    full.add_anomalies("x");
    full.set_slot_number(7);
    full.set_is_update_request(false);
    full.set_http_protocol_info("HTTP/2");
    seeds.push_back(full.SerializeAsString());

    std::string unknown = seeds[0];
    unknown += tag(6, 0) + varint(300);
    unknown += tag(31, 1) + std::string("\x01\x02\x03\x04\x05\x06\x07\x08", 8);
    unknown += delimited(6, "unknown");
    unknown += tag(31, 3) + tag(1, 0) + varint(5) + tag(2, 3) + tag(3, 5) + "abcd" + tag(2, 4) + tag(31, 4);
    unknown += tag(6, 5) + "wxyz";
    unknown += delimited(4, tag(6, 0) + varint(1) + tag(1, 0) + varint(9) + tag(7, 3) + tag(7, 4));
    seeds.push_back(unknown);

    seeds.push_back(delimited(1, "abc") + tag(19, 0) + varint(443) + delimited(45, "q"));
    seeds.push_back(typical_encoding());
    return seeds;
}

std::string mutate(Random &rnd, const std::string &seed) {
    std::string s = seed;
    const int rounds = 1 + static_cast<int>(rnd.below(3));
    for (int r = 0; r < rounds; ++r) {
        const size_t at = rnd.below(s.size() + 1);
        switch (rnd.below(9)) {
        case 0:  // truncate
            s.resize(at);
            break;
        case 1:  // flip a bit
            if (!s.empty())
                s[rnd.below(s.size())] ^= static_cast<char>(1 << rnd.below(8));
            break;
        case 2:  // insert a random byte
            s.insert(at, 1, static_cast<char>(rnd.below(256)));
            break;
        case 3:  // delete a few bytes
            s.erase(at, 1 + rnd.below(4));
            break;
        case 4: {  // duplicate a slice
            const size_t from = rnd.below(s.size() + 1);
            s.insert(at, s.substr(from, rnd.below(12)));
            break;
        }
        case 5:  // a field of a random number and wire type, 0 and 6/7 included
            s.insert(at, tag(static_cast<uint32_t>(rnd.below(64)), static_cast<uint32_t>(rnd.below(8))) +
                             varint(rnd.below(4)));
            break;
        case 6:  // an inflated length or value: a varint of up to ten bytes
            s.insert(at, varint(rnd.next() >> rnd.below(64)));
            break;
        case 7:  // a zero byte where a tag may be
            s.insert(at, 1, '\0');
            break;
        default:  // groups, balanced or not
            s.insert(at, tag(static_cast<uint32_t>(rnd.below(40)), 3 + static_cast<uint32_t>(rnd.below(2))));
            break;
        }
    }
    return s;
}

// Parses `bytes` both ways and checks the agreement rules.  Returns false at
// the first broken rule, with a diagnostic.
struct Tally {
    long both = 0, neither = 0, reader_only = 0, failures = 0;
};

std::string log_lines;
void keep_log_line(google::protobuf::LogLevel, const char *, int, const std::string &message) {
    log_lines += message + "\n";
}

// parse_record or parse_record_general of `bytes` into `m`, with the log
// lines it wrote.
bool parse_logged(bool general, Record &m, const std::string &bytes, std::string &lines) {
    log_lines.clear();
    google::protobuf::LogHandler *before = google::protobuf::SetLogHandler(keep_log_line);
    const bool result = general ? qel::parse_record_general(m, bytes.data(), bytes.size())
                                : qel::parse_record(m, bytes.data(), bytes.size());
    google::protobuf::SetLogHandler(before);
    lines = log_lines;
    return result;
}

bool compare(const std::string &bytes, Tally &tally) {
    Record ours, general, theirs;
    std::string ours_log, general_log;
    const bool ours_ok = parse_logged(false, ours, bytes, ours_log);
    const bool general_ok = parse_logged(true, general, bytes, general_log);
    const bool theirs_ok = theirs.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()));
    std::string problem;
    if (ours_ok != general_ok || ours.SerializeAsString() != general.SerializeAsString())
        problem = "parse_record and the general reader differ";
    else if (ours_log != general_log)
        problem = "parse_record and the general reader log differently:\n" + ours_log + "against\n" + general_log;
    else if (theirs_ok && !ours_ok)
        problem = "the runtime reads it, the reader refuses it";
    else if (theirs_ok && ours.SerializeAsString() != theirs.SerializeAsString())
        problem = "both read it, to different records";
    else if (ours_ok && !theirs_ok && !has_odd_tag(bytes))
        problem = "the reader accepts it, the runtime refuses it, and no field number 0 or long tag explains it";
    if (problem.empty() && ours_ok) {
        const std::string again = ours.SerializeAsString();
        Record back;
        if (!qel::parse_record(back, again.data(), again.size()) || back.SerializeAsString() != again)
            problem = "what the reader read does not read back";
    }
    if (!problem.empty()) {
        ++tally.failures;
        if (tally.failures <= 5)
            diag(problem + "\ninput: " + hex(bytes, 0, 200) + "\n  ours: " + hex(ours.SerializeAsString(), 0, 200) +
                 "\ntheirs: " + hex(theirs.SerializeAsString(), 0, 200));
        return false;
    }
    if (ours_ok && theirs_ok)
        ++tally.both;
    else if (ours_ok)
        ++tally.reader_only;
    else
        ++tally.neither;
    return true;
}

std::string nested_groups(int depth) {
    std::string s;
    for (int i = 0; i < depth; ++i)
        s += tag(31, 3);
    for (int i = 0; i < depth; ++i)
        s += tag(31, 4);
    return s;
}

bool reads(const std::string &bytes, std::string *written = nullptr) {
    Record m;
    const bool result = qel::parse_record(m, bytes.data(), bytes.size());
    if (written)
        *written = m.SerializeAsString();
    return result;
}

}  // namespace

// The varint reader against the definition, byte by byte: every length from
// one to eleven bytes, cut short at every byte, with 0 to 12 bytes after it
// (whether the reader has a word's or ten bytes' room decides its route),
// and random bytes.  Same end, same value, same fault and fault position.
struct VarintTally {
    long inputs = 0;
    long failures = 0;
};

void compare_varint(const std::string &s, VarintTally &t) {
    ++t.inputs;
    const auto *begin = reinterpret_cast<const unsigned char *>(s.data());
    const auto *end = begin + s.size();
    // The definition: up to ten bytes of 7 bits each, low group first; bits
    // past the 64th are dropped; an eleventh byte or the end is a fault.
    uint64_t want = 0;
    size_t want_len = 0;
    qel::wire::Reason want_reason = qel::wire::Reason::TruncatedVarint;
    for (size_t i = 0;; ++i) {
        if (i == 10) {
            want_reason = qel::wire::Reason::VarintTooLong;
            break;
        }
        if (i == s.size())
            break;
        const auto b = static_cast<unsigned char>(s[i]);
        if (i < 10)
            want |= i * 7 < 64 ? static_cast<uint64_t>(b & 0x7F) << (i * 7) : 0;
        if (!(b & 0x80)) {
            want_len = i + 1;
            break;
        }
    }
    uint64_t got = 0;
    qel::wire::WireError e{};
    const unsigned char *q = qel::wire::read_varint(begin, end, got, e);
    bool same;
    if (want_len)
        same = q == begin + want_len && got == want;
    else
        same = !q && e.at == begin && e.reason == want_reason;
    if (!same && ++t.failures <= 5)
        diag("varint " + hex(s) + ": read " + (q ? std::to_string(q - begin) + " bytes, " + std::to_string(got)
                                                 : "a fault " + std::to_string(static_cast<int>(e.reason))));
}

void check_varints(Random &rnd) {
    VarintTally t;
    for (size_t len = 1; len <= 11; ++len)
        for (int round = 0; round < 200; ++round) {
            std::string v;
            for (size_t i = 0; i < len; ++i) {
                auto b = static_cast<unsigned char>(rnd.next());
                b = i + 1 < len ? (b | 0x80) : (b & 0x7F);
                v.push_back(static_cast<char>(b));
            }
            for (size_t after = 0; after <= 12; ++after) {
                std::string tail;
                for (size_t i = 0; i < after; ++i)
                    tail.push_back(static_cast<char>(rnd.next()));
                compare_varint(v + tail, t);
                for (size_t cut = 0; cut < len; ++cut)
                    compare_varint(v.substr(0, cut), t);
            }
        }
    for (int round = 0; round < 100000; ++round) {
        std::string s;
        for (size_t i = 0, n = rnd.below(15); i < n; ++i)
            s.push_back(static_cast<char>(rnd.next() | (rnd.below(4) ? 0x80 : 0)));
        compare_varint(s, t);
    }
    if (!ok(t.failures == 0, "read_varint agrees with the definition on " + std::to_string(t.inputs) + " inputs"))
        diag(std::to_string(t.failures) + " disagreements");
}

int main(int argc, char **argv) {
    const long per_seed = argc > 1 ? std::atol(argv[1]) : 20000;
    Random rnd{argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 1};

    // ---- the documented differences and limits, exactly ----------------------
    std::string written;
    // (Field number 0 with wire type 0 is the tag 0, the zero byte: no field.)
    for (uint32_t wt : {1u, 2u, 5u}) {
        std::string field0 = tag(0, wt) + (wt == 1 ? std::string(8, '\x11') : wt == 2 ? varint(2) + "hi"
                                                                                   : std::string(4, '\x22'));
        const bool result = reads(field0, &written);
        if (!ok(result && written == field0, "field number 0, wire type " + std::to_string(wt) + ", is kept and written again"))
            diag("wrote " + hex(written));
    }
    {
        const std::string group0 = tag(0, 3) + tag(1, 0) + varint(1) + tag(0, 4);
        ok(reads(group0, &written) && written == group0, "a group with field number 0 is kept and written again");
        const std::string inside = delimited(4, tag(0, 5) + "abcd");
        ok(reads(inside, &written) && written == inside, "field number 0 inside client_ip is kept there");
    }
    ok(!reads(std::string("\x00", 1)), "a zero byte where a tag should be fails");
    ok(!reads(tag(0, 4)), "an end-group tag with field number 0 at the top fails");
    {
        // bot_name's tag 0x0A written in six bytes: read as bot_name, as the
        // runtime's general varint read cuts any 32-bit varint to 32 bits.
        const std::string long_tag = std::string("\x8A\x80\x80\x80\x80\x00", 6) + varint(1) + "z";
        ok(reads(long_tag, &written) && written == delimited(1, "z"), "a tag of six bytes is read as its low 32 bits");
    }
    ok(!reads(tag(1, 6)) && !reads(tag(1, 7)), "wire types 6 and 7 fail");
    ok(reads(nested_groups(100)), "100 nested unknown groups are read");
    ok(!reads(nested_groups(101)), "101 nested unknown groups exceed the recursion limit");
    ok(reads(delimited(4, nested_groups(99))), "99 nested groups inside client_ip are read");
    ok(!reads(delimited(4, nested_groups(100))), "100 nested groups inside client_ip exceed the recursion limit");
    ok(!reads(tag(4, 2) + varint(5) + tag(1, 0) + varint(1)), "a client_ip whose length runs past the input fails");
    ok(!reads(delimited(4, tag(1, 0) + varint(1) + tag(2, 4))), "a client_ip ending on an end-group tag fails");
    {
        // bot_name filling the input up to the size limit exactly (a one-byte
        // tag and a four-byte length), then the same with one more field.
        const size_t limit = qel::kMaxWireBytes;
        const std::string at_limit = tag(1, 2) + varint(limit - 5) + std::string(limit - 5, 'a');
        is(at_limit.size(), limit, "the input at the limit is 64 MiB long");
        ok(reads(at_limit), "an input of exactly 64 MiB is read");
        ok(!reads(at_limit + tag(19, 0) + varint(1)), "an input of 64 MiB and 3 bytes fails");
    }

    check_varints(rnd);

    // ---- mutations of valid encodings -----------------------------------------
    Tally tally;
    const std::vector<std::string> seeds = seed_encodings();
    for (const std::string &seed : seeds)
        ok(reads(seed), "seed encoding of " + std::to_string(seed.size()) + " bytes is read");
    long inputs = 0;
    for (const std::string &seed : seeds)
        for (long i = 0; i < per_seed; ++i, ++inputs)
            compare(mutate(rnd, seed), tally);
    if (!ok(tally.failures == 0, "reader and runtime agree on " + std::to_string(inputs) + " mutated inputs"))
        diag(std::to_string(tally.failures) + " disagreements");
    diag("both read " + std::to_string(tally.both) + ", neither " + std::to_string(tally.neither) +
         ", only the reader (field number 0, long tags) " + std::to_string(tally.reader_only));
    ok(tally.both > inputs / 20 && tally.neither > inputs / 20 && tally.reader_only > 0,
       "the mutations reach clean reads, failures and the differences alike");
    return done_testing();
}
