// Checks qel::OutputStream, the zero-copy output stream that pack serialises
// through, and pack_record(), inside an embedded Perl interpreter.
//
// pack sizes the first block so the serialiser needs only one; this program
// drives the stream in every other way the ZeroCopyOutputStream contract
// allows: the serialiser with the smallest first block (many Next calls, its
// own patch buffer for the small ones), odd first blocks, hand-driven Next /
// BackUp sequences, BackUp without any Next, targets whose buffer is larger
// than asked for and targets that already hold bytes.
//
// Prints TAP on stdout ("ok N - name", "not ok N - name", details of a failure
// as "# " lines, "1..N" at the end) and exits non-zero if any check failed.
// A check marked "# TODO reason" is a known gap: it is reported but does not
// fail the run.  t/32_output_stream.t builds and runs it.

#include <google/protobuf/descriptor.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream.h>
#include <google/protobuf/message.h>
#include <google/protobuf/stubs/common.h>

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iomanip>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "output_stream.h"  // the message classes, then perl.h
#include "tap.h"

namespace pb = google::protobuf;
using quillon_event_log::QuillonEventLog;
using Q = QuillonEventLog;

static PerlInterpreter *my_perl;  // the Perl API macros below find it here

// ---------------------------------------------------------------------------
// Checks of byte strings, and many checks behind one TAP line (the rest of
// the TAP output is tap.h)

// Where two byte strings differ, for a diagnostic line.
static std::string difference(const std::string &got, const std::string &want) {
    size_t i = 0;
    while (i < got.size() && i < want.size() && got[i] == want[i])
        ++i;
    const size_t from = i > 8 ? i - 8 : 0;
    std::ostringstream out;
    out << "lengths " << got.size() << " (got) and " << want.size() << " (expected); first difference at offset "
        << i << "\n  got      ..." << hex(got, from, 24) << "\n  expected ..." << hex(want, from, 24);
    return out.str();
}

static bool bytes_is(const std::string &got, const std::string &want, const std::string &name,
                     const std::string &todo = "") {
    const bool cond = (got == want);
    if (!ok(cond, name, todo))
        diag(difference(got, want));
    return cond;
}

// Many checks behind one TAP line: the failures are counted and the first
// few are kept for the diagnostics.
struct Tally {
    long checked = 0;
    long failed = 0;
    std::vector<std::string> first;

    void check(bool cond, const std::string &what) {
        ++checked;
        if (!cond) {
            ++failed;
            if (first.size() < 5)
                first.push_back(what);
        }
    }
    bool report(const std::string &name) const {
        const bool cond = failed == 0 && checked > 0;
        if (!ok(cond, name)) {
            diag(show(failed) + " of " + show(checked) + " checks failed" + (checked ? "" : " (none ran)"));
            for (const std::string &f : first)
                diag(f);
        }
        return cond;
    }
};

// ---------------------------------------------------------------------------
// Checks in a child process: a stream that writes into memory it does not own
// can corrupt the heap, and the crash must not take the remaining checks with
// it.

static int g_report_fd = -1;  // in such a child: where findings go

// In a child of run_isolated, sends one line of findings to the parent (so
// they arrive even when the child dies afterwards); elsewhere does nothing.
static void report_line(const std::string &text) {
    if (g_report_fd < 0)
        return;
    std::string line = text;
    for (char &c : line)
        if (c == '\n')
            c = '\x1F';  // one line per report; the parent turns it back
    line += '\n';
    for (size_t at = 0; at < line.size();) {
        const ssize_t n = write(g_report_fd, line.data() + at, line.size() - at);
        if (n <= 0)
            return;
        at += static_cast<size_t>(n);
    }
}

// Runs `body` in a child process.  Returns "" when the child ran it to the
// end, it found nothing wrong and the child exited 0; otherwise what it found
// and how the child ended.
static std::string run_isolated(const std::function<std::string()> &body) {
    std::fflush(stdout);
    std::fflush(stderr);
    int fd[2];
    if (pipe(fd) != 0)
        return "pipe() failed";
    const pid_t pid = fork();
    if (pid < 0) {
        close(fd[0]);
        close(fd[1]);
        return "fork() failed";
    }
    if (pid == 0) {
        close(fd[0]);
        g_report_fd = fd[1];
        const std::string found = body();
        report_line("=" + found);
        close(fd[1]);
        _exit(0);
    }
    close(fd[1]);
    std::string text;
    char buf[4096];
    for (ssize_t n; (n = read(fd[0], buf, sizeof buf)) > 0;)
        text.append(buf, static_cast<size_t>(n));
    close(fd[0]);
    int status = 0;
    waitpid(pid, &status, 0);

    std::string notes, found;
    bool done = false;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        for (char &c : line)
            if (c == '\x1F')
                c = '\n';
        if (!line.empty() && line[0] == '=') {
            done = true;
            found = line.substr(1);
        } else {
            notes += line + "\n";
        }
    }
    if (done && WIFEXITED(status) && WEXITSTATUS(status) == 0)
        return found;
    return (done ? found + "\n" : notes) + "the child process ended (" + describe_status(status) + ") " +
           (done ? "after its checks" : "before the end of its checks");
}

// ---------------------------------------------------------------------------
// Perl strings

static std::string contents(SV *sv) { return std::string(SvPVX(sv), SvCUR(sv)); }

// Length, bytes and terminating NUL of `sv` against `want`; "" when all agree,
// otherwise what is wrong.
static std::string string_problem(SV *sv, const std::string &want) {
    if (!SvPVX(sv))
        return "the string has no buffer";
    if (SvCUR(sv) != want.size())
        return "SvCUR is " + show(SvCUR(sv)) + ", expected " + show(want.size());
    if (std::memcmp(SvPVX(sv), want.data(), want.size()) != 0)
        return "bytes differ: " + difference(contents(sv), want);
    if (SvLEN(sv) <= SvCUR(sv))
        return "SvLEN " + show(SvLEN(sv)) + " leaves no room for the NUL after SvCUR " + show(SvCUR(sv));
    if (SvPVX(sv)[SvCUR(sv)] != '\0')
        return "no NUL after the last byte";
    return "";
}

static SV *new_target(const std::string &prefix, size_t pregrow = 0) {
    SV *t = newSVpvn(prefix.data(), prefix.size());
    if (pregrow)
        sv_grow(t, pregrow);
    return t;
}

// ---------------------------------------------------------------------------
// Pattern bytes: 0..127 (valid UTF-8) in a pseudo-random order that repeats
// every 4096 bytes.

static const std::string &pattern_block() {
    static const std::string block = [] {
        std::string b;
        uint64_t x = 1;
        for (int i = 0; i < 4096; ++i) {
            x = (x * 1103515245 + 12345) % 2147483648u;
            b.push_back(static_cast<char>((x >> 16) & 0x7F));
        }
        return b;
    }();
    return block;
}

static std::string pattern(size_t n, size_t offset) {
    const std::string &b = pattern_block();
    std::string out;
    out.reserve(n);
    for (size_t i = 0; i < n; ++i)
        out.push_back(b[(offset + i) % b.size()]);
    return out;
}

// A small seeded generator (splitmix64): the same seed gives the same
// sequence everywhere.
struct Rng {
    uint64_t state;
    explicit Rng(uint64_t seed) : state(seed) {}
    uint64_t next() {
        uint64_t z = (state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    uint64_t below(uint64_t n) { return n ? next() % n : 0; }
};

// ---------------------------------------------------------------------------
// Records of a given encoded length

static size_t vlen(uint64_t n) {
    size_t l = 1;
    while (n >>= 7)
        ++l;
    return l;
}

// The byte count n for which a string field with a tag of `taglen` bytes
// encodes to exactly `len` bytes; -1 when there is none.
static long string_fit(size_t len, size_t taglen) {
    for (size_t vl = 1; vl <= 4; ++vl) {
        if (len < taglen + vl)
            continue;
        const size_t n = len - taglen - vl;
        if (vlen(n) == vl)
            return static_cast<long>(n);
    }
    return -1;
}

// The singular string fields of the record, in field-number order.
static const std::vector<const pb::FieldDescriptor *> &string_fields() {
    static const std::vector<const pb::FieldDescriptor *> fields = [] {
        std::vector<const pb::FieldDescriptor *> v;
        const pb::Descriptor *d = Q::descriptor();
        for (int i = 0; i < d->field_count(); ++i) {
            const pb::FieldDescriptor *f = d->field(i);
            if (f->type() == pb::FieldDescriptor::TYPE_STRING && !f->is_repeated())
                v.push_back(f);
        }
        return v;
    }();
    return fields;
}

// Sets a string field not in `used`, tried from position `pick` on, to pattern
// bytes so that it encodes to exactly `len` bytes.  False when none fits.
static bool set_string_of_length(Q &m, size_t len, size_t pick, const std::set<std::string> &used,
                                 size_t offset) {
    const auto &fields = string_fields();
    for (size_t k = 0; k < fields.size(); ++k) {
        const pb::FieldDescriptor *f = fields[(pick + k) % fields.size()];
        if (used.count(f->name()))
            continue;
        const long n = string_fit(len, vlen(static_cast<uint64_t>(f->number()) << 3 | 2));
        if (n < 0)
            continue;
        m.GetReflection()->SetString(&m, f, pattern(static_cast<size_t>(n), offset));
        return true;
    }
    return false;
}

struct PoolEntry {
    const char *field;
    std::function<void(Q &)> set;
    size_t size;
};

// What a mixed record takes its fields from: every family, the largest uint32
// and uint64 values, zeros, both bool values, lists with empty elements and
// one whose element needs a two-byte length, and a present but empty address.
static std::vector<PoolEntry> &mixed_pool() {
    static std::vector<PoolEntry> pool = [] {
        const uint32_t u32max = 0xFFFFFFFFu;
        const uint64_t u64max = 0xFFFFFFFFFFFFFFFFull;
        std::vector<PoolEntry> p = {
            {"client_ip",
             [=](Q &m) {
                 auto *a = m.mutable_client_ip();
                 a->set_ip0(u32max);
                 a->set_ip1(0);
                 a->set_ip2(127);
                 a->set_ip3(128);
                 a->set_rtdom_id(u32max);
             },
             0},
            {"src_port", [](Q &m) { m.set_src_port(65535); }, 0},
            {"device_id", [=](Q &m) { m.set_device_id(u64max); }, 0},
            {"anomalies",
             [](Q &m) {
                 m.add_anomalies("");
                 m.add_anomalies("scraper");
                 m.add_anomalies(std::string("\x00\x7F", 2));
                 m.add_anomalies(std::string(130, 'x'));
             },
             0},
            {"mobile_is_app", [](Q &m) { m.set_mobile_is_app(true); }, 0},
            {"dest_ip", [](Q &m) { m.mutable_dest_ip(); }, 0},
            {"session_id", [=](Q &m) { m.set_session_id(u64max); }, 0},
            {"request_time", [](Q &m) { m.set_request_time(1700000000u); }, 0},
            {"anomaly_categories",
             [](Q &m) {
                 m.add_anomaly_categories("automation");
                 m.add_anomaly_categories("");
             },
             0},
            {"is_https_request", [](Q &m) { m.set_is_https_request(false); }, 0},
            {"http_method", [](Q &m) { m.set_http_method("POST"); }, 0},
            {"slot_number", [=](Q &m) { m.set_slot_number(u32max); }, 0},
            {"is_update_request", [](Q &m) { m.set_is_update_request(true); }, 0},
            {"support_id", [](Q &m) { m.set_support_id(0); }, 0},
            {"country_code", [](Q &m) { m.set_country_code("NZ"); }, 0},
            {"previous_support_id", [=](Q &m) { m.set_previous_support_id(u64max); }, 0},
            {"reason", [](Q &m) { m.set_reason(""); }, 0},
            {"host", [](Q &m) { m.set_host("www.example.test"); }, 0},
            {"previous_request_time", [](Q &m) { m.set_previous_request_time(0); }, 0},
            {"http_protocol_info", [](Q &m) { m.set_http_protocol_info("HTTP/1.1"); }, 0},
        };
        for (PoolEntry &e : p) {
            Q one;
            e.set(one);
            e.size = one.ByteSizeLong();
        }
        return p;
    }();
    return pool;
}

enum Shape { ONE_STRING, MIXED };
static const char *shape_name(Shape s) { return s == ONE_STRING ? "one string" : "mixed"; }

// Fills `m` (cleared first) so that its encoding is exactly `len` bytes, len
// at least 2.  ONE_STRING: one string field chosen by len.  MIXED: the pool
// entries that fit, from a place in the pool that moves with len, then one
// string field for the rest.  False when that did not come out at len bytes.
static bool build_record(Q &m, size_t len, Shape shape) {
    m.Clear();
    if (shape == ONE_STRING) {
        if (!set_string_of_length(m, len, len * 3, {}, len % 101))
            return false;
    } else {
        std::vector<PoolEntry> &pool = mixed_pool();
        std::set<std::string> used;
        size_t rest = len;
        for (size_t k = 0; k < pool.size(); ++k) {
            const PoolEntry &e = pool[(len + k) % pool.size()];
            // A string field takes at least 2 bytes: never leave 1 to fill.
            if (!(e.size == rest || e.size + 2 <= rest))
                continue;
            e.set(m);
            used.insert(e.field);
            rest -= e.size;
        }
        if (rest && !set_string_of_length(m, rest, len * 7, used, len % 89))
            return false;
    }
    return m.ByteSizeLong() == len;
}

// Every length from 2 to 3000 and every length within 3 bytes of a power of
// two up to 2^20, ascending.
static std::vector<size_t> sweep_lengths() {
    std::set<size_t> s;
    for (size_t n = 2; n <= 3000; ++n)
        s.insert(n);
    for (int k = 1; k <= 20; ++k)
        for (long d = -3; d <= 3; ++d) {
            const long n = (1L << k) + d;
            if (n >= 2)
                s.insert(static_cast<size_t>(n));
        }
    return std::vector<size_t>(s.begin(), s.end());
}

// ---------------------------------------------------------------------------
// A stream that passes every call on to an OutputStream and checks each
// answer against the contract and against where this stream writes: a block
// lies right after the bytes written so far (the target's buffer, past its
// prefix), inside the buffer with room for the NUL, and ByteCount moves by
// exactly what Next handed out and BackUp gave back.

class Probe final : public pb::io::ZeroCopyOutputStream {
  public:
    Probe(qel::OutputStream &inner, SV *target, size_t prefix) : inner_(inner), target_(target), prefix_(prefix) {}

    bool Next(void **data, int *size) override {
        const int64_t before = inner_.ByteCount();
        const bool r = inner_.Next(data, size);
        ++nexts;
        last_size_ = *size;
        after_next_ = true;
        char *want = SvPVX(target_) + prefix_ + before;
        if (!r)
            fault("Next #" + show(nexts) + " returned false");
        else if (*size <= 0)
            fault("Next #" + show(nexts) + " handed out " + show(*size) + " bytes");
        else if (static_cast<char *>(*data) != want)
            fault("Next #" + show(nexts) + " handed out a block that does not start after the bytes written");
        else if (static_cast<size_t>(static_cast<char *>(*data) + *size - SvPVX(target_)) >= SvLEN(target_))
            fault("Next #" + show(nexts) + " handed out a block that leaves no room for the NUL in the buffer");
        if (inner_.ByteCount() != before + *size)
            fault("ByteCount after Next #" + show(nexts) + " is " + show(inner_.ByteCount()) + ", expected " +
                  show(before + *size));
        return r;
    }

    void BackUp(int count) override {
        const int64_t before = inner_.ByteCount();
        if (after_next_) {
            if (count > last_size_)
                fault("the serialiser backed up " + show(count) + " of a block of " + show(last_size_));
        } else {
            ++backups_without_next;
            if (count != 0)
                fault("the serialiser backed up " + show(count) + " bytes without a Next");
        }
        inner_.BackUp(count);
        ++backups;
        after_next_ = false;
        if (inner_.ByteCount() != before - count)
            fault("ByteCount after BackUp(" + show(count) + ") is " + show(inner_.ByteCount()) + ", expected " +
                  show(before - count));
    }

    int64_t ByteCount() const override { return inner_.ByteCount(); }

    int nexts = 0;
    int backups = 0;
    int backups_without_next = 0;
    std::string problem;  // the first fault, "" when none

  private:
    void fault(const std::string &what) {
        if (problem.empty())
            problem = what;
    }
    qel::OutputStream &inner_;
    SV *target_;
    size_t prefix_;
    int last_size_ = 0;
    bool after_next_ = false;
};

// ---------------------------------------------------------------------------
// The length sweep

struct Serialised {
    bool returned = false;
    int64_t count_before_finish = -1;
    int64_t count_after_finish = -1;
    std::string problem;  // string_problem() of the result
    int nexts = 0;
    int backups = 0;
    int backups_without_next = 0;
    std::string probe_problem;
};

// Serialises `m` with SerializePartialToZeroCopyStream into a new target
// holding `prefix` (pre-grown to `pregrow` bytes when not 0) through an
// OutputStream with the given first block, through a Probe when `probe`.
static Serialised serialise(const Q &m, const std::string &want, size_t first_block, bool probe,
                            const std::string &prefix = "", size_t pregrow = 0) {
    Serialised r;
    SV *t = new_target(prefix, pregrow);
    {
        qel::OutputStream stream(aTHX_ t, first_block);
        if (probe) {
            Probe p(stream, t, prefix.size());
            r.returned = m.SerializePartialToZeroCopyStream(&p);
            r.nexts = p.nexts;
            r.backups = p.backups;
            r.backups_without_next = p.backups_without_next;
            r.probe_problem = p.problem;
        } else {
            r.returned = m.SerializePartialToZeroCopyStream(&stream);
        }
        r.count_before_finish = stream.ByteCount();
        stream.finish();
        r.count_after_finish = stream.ByteCount();
    }
    r.problem = string_problem(t, prefix + want);
    SvREFCNT_dec(t);
    return r;
}

struct SweepTallies {
    Tally returned, length, bytes, nul, count;
};

static void tally_serialised(SweepTallies &t, const Serialised &r, size_t len, const std::string &where) {
    t.returned.check(r.returned, where + ": the serialiser reported failure");
    const bool len_ok = r.problem.compare(0, 5, "SvCUR") != 0 && r.problem != "the string has no buffer";
    t.length.check(len_ok, where + ": " + r.problem);
    t.bytes.check(len_ok && r.problem.compare(0, 5, "bytes") != 0, where + ": " + r.problem);
    t.nul.check(r.problem.empty() || r.problem.compare(0, 5, "bytes") == 0 || !len_ok, where + ": " + r.problem);
    t.count.check(r.count_before_finish == static_cast<int64_t>(len) && r.count_after_finish == static_cast<int64_t>(len),
                  where + ": ByteCount " + show(r.count_before_finish) + " before finish, " +
                      show(r.count_after_finish) + " after, expected " + show(len));
}

static void test_sweep() {
    struct Variant {
        std::string name;
        long first_block;  // -1: size + 16 (pack's shape)
        bool probe;
    };
    const std::vector<Variant> variants = {
        {"first block 16", 16, false},
        {"first block 16, every call checked", 16, true},
        {"first block size+16", -1, false},
        {"first block 1", 1, false},
        {"first block 17", 17, false},
        {"first block 4095", 4095, false},
    };
    const std::vector<size_t> lengths = sweep_lengths();

    for (Shape shape : {ONE_STRING, MIXED}) {
        const std::string sname = shape_name(shape);
        Tally built;
        std::vector<SweepTallies> tallies(variants.size());
        Tally probe_calls, many_nexts;
        SweepTallies packed;
        Tally packed_plain;
        Q m;
        for (size_t len : lengths) {
            const std::string where_len = show(len) + " bytes";
            const bool b = build_record(m, len, shape);
            built.check(b, where_len + ": built to " + show(m.ByteSizeLong()) + " bytes");
            if (!b)
                continue;
            const std::string want = m.SerializeAsString();
            for (size_t v = 0; v < variants.size(); ++v) {
                const Variant &var = variants[v];
                const size_t fb = var.first_block < 0 ? len + 16 : static_cast<size_t>(var.first_block);
                const Serialised r = serialise(m, want, fb, var.probe);
                tally_serialised(tallies[v], r, len, where_len);
                if (var.probe) {
                    probe_calls.check(r.probe_problem.empty(), where_len + ": " + r.probe_problem);
                    // Blocks at least double, from 16 bytes on: a record of
                    // 64 bytes or more cannot fit in fewer than 3.
                    if (len >= 64)
                        many_nexts.check(r.nexts >= 3, where_len + ": only " + show(r.nexts) + " Next calls");
                }
            }
            // pack_record: pack's own call, a new string holding exactly the
            // runtime's encoding.
            SV *p = qel::pack_record(aTHX_ m);
            if (!p) {
                packed.length.check(false, where_len + ": pack_record returned null");
                continue;
            }
            const std::string problem = string_problem(p, want);
            Serialised r;
            r.returned = true;
            r.problem = problem;
            r.count_before_finish = r.count_after_finish = static_cast<int64_t>(len);
            tally_serialised(packed, r, len, where_len);
            packed_plain.check(SvPOK(p) && !SvUTF8(p) && SvREFCNT(p) == 1 && !SvOOK(p) && !SvIsCOW(p),
                               where_len + ": flags " + show(SvFLAGS(p)) + ", refcount " + show(SvREFCNT(p)));
            SvREFCNT_dec(p);
        }
        const std::string n = show(lengths.size());
        built.report(sname + ": the C++ records are built to every one of the " + n + " lengths");
        for (size_t v = 0; v < variants.size(); ++v) {
            const std::string pre = sname + ", " + variants[v].name + ", " + n + " lengths: ";
            tallies[v].returned.report(pre + "SerializePartialToZeroCopyStream returns true");
            tallies[v].length.report(pre + "SvCUR equals ByteSizeLong");
            tallies[v].bytes.report(pre + "the bytes equal SerializeAsString()");
            tallies[v].nul.report(pre + "a NUL follows the last byte");
            tallies[v].count.report(pre + "ByteCount equals the length, before and after finish");
        }
        probe_calls.report(sname + ", first block 16: every Next and BackUp of the serialiser keeps the contract");
        many_nexts.report(sname + ", first block 16: records of 64 bytes and more take 3 or more Next calls");
        const std::string pre = sname + ", pack_record, " + n + " lengths: ";
        packed.length.report(pre + "SvCUR equals ByteSizeLong");
        packed.bytes.report(pre + "the bytes equal SerializeAsString()");
        packed.nul.report(pre + "a NUL follows the last byte");
        packed_plain.report(pre + "a plain byte string (POK, not UTF-8, refcount 1, not shared, not offset)");
    }
}

// ---------------------------------------------------------------------------
// The empty record: the serialiser backs up 0 bytes without calling Next.

static void test_empty_record() {
    Q empty;
    is(empty.ByteSizeLong(), size_t(0), "empty record: ByteSizeLong is 0");
    for (size_t fb : {size_t(16), size_t(1), size_t(4095)}) {
        const std::string name = "empty record, first block " + show(fb) + ": ";
        Serialised r = serialise(empty, "", fb, true);
        ok(r.returned, name + "SerializePartialToZeroCopyStream returns true");
        if (!is(r.nexts, 0, name + "the serialiser calls no Next"))
            diag("the BackUp-without-Next path is not what the serialiser takes here");
        if (!ok(r.backups_without_next >= 1, name + "the serialiser calls BackUp without a Next"))
            diag("BackUp calls: " + show(r.backups));
        is(r.probe_problem, std::string(), name + "BackUp(0) without Next keeps ByteCount at 0");
        is(r.problem, std::string(), name + "the result is the empty string, NUL-terminated");
        is(r.count_after_finish, int64_t(0), name + "ByteCount is 0 after finish");
    }
    {
        Serialised r = serialise(empty, "", 16, false);
        if (!ok(r.returned && r.problem.empty() && r.count_after_finish == 0,
                "empty record straight into the stream: SvCUR 0, NUL, ByteCount 0"))
            diag(r.problem);
    }
    {
        Serialised r = serialise(empty, "", 16, true, "prefix");
        if (!ok(r.returned && r.nexts == 0 && r.probe_problem.empty() && r.problem.empty() &&
                    r.count_after_finish == 0,
                "empty record after a prefix: the target still holds just the prefix, ByteCount 0"))
            diag(r.problem + r.probe_problem + " nexts " + show(r.nexts));
    }
    {
        // A target with no buffer at all (a bare SVt_PV): finish gives it one.
        SV *t = newSV_type(SVt_PV);
        {
            qel::OutputStream stream(aTHX_ t, 16);
            stream.BackUp(0);
            stream.finish();
            is(stream.ByteCount(), int64_t(0), "a target with no buffer, BackUp(0), finish: ByteCount 0");
        }
        ok(SvPVX(t) && SvCUR(t) == 0 && SvLEN(t) > 0 && SvPVX(t)[0] == '\0',
           "a target with no buffer, BackUp(0), finish: an empty NUL-terminated buffer");
        SvREFCNT_dec(t);
    }
}

// ---------------------------------------------------------------------------
// Hand-driven call sequences

// The bytes written into blocks: a running sequence over all 256 values, so
// a block that lands in the wrong place or a lost block shows.
struct Filler {
    uint64_t n = 0;
    void fill(char *p, size_t size) {
        for (size_t i = 0; i < size; ++i, ++n)
            p[i] = static_cast<char>((n * 131 + (n >> 8) * 7 + 3) & 0xFF);
    }
};

struct Op {
    enum Kind { NEXT, BACKUP } kind;
    int arg;  // BACKUP: the count; NEXT: the size handed out (filled in)
};

static std::string describe(const std::vector<Op> &ops) {
    std::ostringstream out;
    for (size_t i = 0; i < ops.size(); ++i) {
        if (i)
            out << ", ";
        if (ops[i].kind == Op::NEXT)
            out << "Next->" << ops[i].arg;
        else
            out << "BackUp(" << ops[i].arg << ")";
    }
    return out.str();
}

// The target of a sequence: holding `prefix`, its buffer grown to `pregrow`
// bytes when not 0.  Or, with `cut` not 0, the prefix is what is left of a
// longer string after `cut` bytes were cut off its front (an offset buffer
// with room to spare); with `shared`, the target is a copy of a string
// holding the prefix that shares its buffer (copy-on-write).
struct Target {
    std::string prefix;
    size_t pregrow;
    size_t first_block;
    size_t cut = 0;
    bool shared = false;
};

// Makes the target; `*other` is the string a shared target shares its buffer
// with (null otherwise), for the caller to check and free.
static SV *make_target(const Target &tg, SV **other) {
    *other = nullptr;
    if (tg.cut) {
        SV *t = newSV(tg.cut + tg.prefix.size() + 1000);
        const std::string whole = pattern(tg.cut, 1) + tg.prefix;
        sv_setpvn(t, whole.data(), whole.size());
        sv_chop(t, SvPVX(t) + tg.cut);
        return t;
    }
    if (tg.shared) {
        // Perl shares a buffer when little of it is free: 60 bytes here.
        SV *a = newSV(tg.prefix.size() + 60);
        sv_setpvn(a, tg.prefix.data(), tg.prefix.size());
        SV *t = newSV(0);
        sv_setsv_flags(t, a, SV_GMAGIC | SV_COW_SHARED_HASH_KEYS);  // as Perl's own assignment does
        *other = a;
        return t;
    }
    return new_target(tg.prefix, tg.pregrow);
}

// What follows each Next of a sequence: no BackUp, or BackUp of 0 bytes, of
// the whole block, of a random part of it (the whole block's half without a
// generator), of 1 byte, of all but 1 byte.
enum BackUpChoice { BACK_NONE = 0, BACK_ZERO, BACK_ALL, BACK_SOME, BACK_ONE, BACK_ALL_BUT_ONE };

// The calls a sequence made, and what broke ("" when everything held).
struct Sequence {
    std::vector<Op> ops;
    std::string problem;
};

// Runs one sequence on a new target: BackUp(0) first when `backup_first`,
// then for each step a Next, a pattern written into the whole block and the
// step's BackUp choice, then finish().  Every block must start right after
// the bytes kept so far, fit in the buffer with room for the NUL, and move
// ByteCount by its size; the string must end up as the prefix and the bytes
// kept, in order.  Ends early once 1 MiB is kept.
static Sequence run_sequence(const Target &tg, const std::vector<int> &steps, Rng *rng, bool backup_first) {
    Sequence s;
    SV *other;
    SV *t = make_target(tg, &other);
    std::string kept = tg.prefix;
    std::string pending;  // the last block as written, less what was backed up
    int64_t count = 0;
    Filler filler;
    auto fault = [&](const std::string &what) {
        if (s.problem.empty())
            s.problem = what;
    };
    {
        qel::OutputStream stream(aTHX_ t, tg.first_block);
        if (backup_first) {
            stream.BackUp(0);
            s.ops.push_back({Op::BACKUP, 0});
            if (stream.ByteCount() != 0)
                fault("ByteCount " + show(stream.ByteCount()) + " after BackUp(0) without Next");
        }
        bool first = true;
        // Every block is at least as large as all the bytes kept before it:
        // the sequence ends once 1 MiB is kept, before the blocks get huge.
        for (size_t i = 0; i < steps.size() && s.problem.empty() && count < (1 << 20); ++i) {
            // Next, then perhaps BackUp.
            kept += pending;
            pending.clear();
            void *data = nullptr;
            int size = -1;
            const bool r = stream.Next(&data, &size);
            s.ops.push_back({Op::NEXT, size});
            if (!r) {
                fault("Next returned false");
                break;
            }
            if (size <= 0) {
                fault("Next handed out " + show(size) + " bytes");
                break;
            }
            if (first && static_cast<size_t>(size) < tg.first_block)
                fault("the first block has " + show(size) + " bytes, less than the " + show(tg.first_block) +
                      " asked for");
            first = false;
            if (static_cast<char *>(data) != SvPVX(t) + tg.prefix.size() + count)
                fault("the block does not start right after the bytes written so far");
            if (static_cast<size_t>(static_cast<char *>(data) + size - SvPVX(t)) >= SvLEN(t))
                fault("the block reaches past the buffer or leaves no room for the NUL");
            count += size;
            if (stream.ByteCount() != count)
                fault("ByteCount " + show(stream.ByteCount()) + " after Next, expected " + show(count));
            if (!s.problem.empty())
                break;
            filler.fill(static_cast<char *>(data), static_cast<size_t>(size));
            pending.assign(static_cast<char *>(data), static_cast<size_t>(size));

            const int choice = steps[i];
            int back = 0;
            switch (choice) {
            case BACK_NONE:
                continue;
            case BACK_ZERO: back = 0; break;
            case BACK_ALL: back = size; break;
            case BACK_ONE: back = 1; break;
            case BACK_ALL_BUT_ONE: back = size - 1; break;
            default: back = rng ? static_cast<int>(rng->below(static_cast<uint64_t>(size) + 1)) : size / 2; break;
            }
            stream.BackUp(back);
            s.ops.push_back({Op::BACKUP, back});
            pending.resize(pending.size() - static_cast<size_t>(back));
            count -= back;
            if (stream.ByteCount() != count)
                fault("ByteCount " + show(stream.ByteCount()) + " after BackUp(" + show(back) + "), expected " +
                      show(count));
        }
        kept += pending;
        if (s.problem.empty()) {
            stream.finish();
            if (stream.ByteCount() != count)
                fault("ByteCount " + show(stream.ByteCount()) + " after finish, expected " + show(count));
            if (count != static_cast<int64_t>(kept.size() - tg.prefix.size()))
                fault("test bug: " + show(count) + " bytes counted, " + show(kept.size() - tg.prefix.size()) + " kept");
            const std::string p = string_problem(t, kept);
            if (!p.empty())
                fault("after finish: " + p);
        }
    }
    if (other) {
        const std::string p = string_problem(other, tg.prefix);
        if (!p.empty())
            fault("the string the target shared its buffer with: " + p);
    }
    report_line("checked: " + (s.problem.empty() ? std::string("all held") : s.problem) + "; calls: " + describe(s.ops) +
                "; now freeing the strings");
    if (other)
        SvREFCNT_dec(other);
    SvREFCNT_dec(t);
    return s;
}

static bool sequence_ok(const Target &tg, const std::vector<int> &steps, bool backup_first, const std::string &name,
                        const std::string &todo = "") {
    if (tg.cut || tg.shared) {
        const std::string problem = run_isolated([&] {
            Sequence s = run_sequence(tg, steps, nullptr, backup_first);
            return s.problem.empty() ? std::string() : s.problem + "; calls: " + describe(s.ops);
        });
        if (!ok(problem.empty(), name, todo))
            diag(problem);
        return problem.empty();
    }
    Sequence s = run_sequence(tg, steps, nullptr, backup_first);
    if (!ok(s.problem.empty(), name, todo))
        diag(s.problem + "\ncalls: " + describe(s.ops));
    return s.problem.empty();
}

static void test_hand_driven() {
    const Target plain{"", 0, 16};
    sequence_ok(plain, {}, true, "BackUp(0) without Next, then finish: the empty string");
    sequence_ok(plain, {}, false, "finish without any call: the empty string");
    sequence_ok(plain, {BACK_ALL}, false, "Next, BackUp(all of it), finish: the empty string");
    sequence_ok(plain, {BACK_ZERO}, false, "Next, BackUp(0), finish: the whole block");
    sequence_ok(plain, {BACK_NONE}, false, "Next, finish: the whole block");
    sequence_ok(plain, {BACK_ONE}, false, "Next, BackUp(1), finish: all but the last byte");
    sequence_ok(plain, {BACK_ALL_BUT_ONE}, false, "Next, BackUp(all but one), finish: one byte");
    sequence_ok(plain, {BACK_NONE, BACK_NONE, BACK_NONE, BACK_NONE}, false, "four Next calls: four whole blocks in order");
    sequence_ok(plain, {BACK_ZERO, BACK_ZERO, BACK_ZERO}, false, "Next and BackUp(0), three times");
    sequence_ok(plain, {BACK_ALL, BACK_ALL, BACK_ALL, BACK_NONE}, false,
                "Next and BackUp(all) three times, then Next: the last block only");
    sequence_ok(plain, {BACK_ALL_BUT_ONE, BACK_ALL_BUT_ONE, BACK_ALL_BUT_ONE, BACK_ALL_BUT_ONE, BACK_ALL_BUT_ONE},
                false, "five times Next and BackUp(all but one): five bytes");
    sequence_ok(plain, {BACK_SOME, BACK_NONE, BACK_ONE, BACK_ALL, BACK_NONE, BACK_SOME}, true,
                "BackUp(0) without Next, then a mixed sequence");
    for (int k = 0; k < 12; ++k)
        sequence_ok(plain, std::vector<int>(static_cast<size_t>(k) + 1, BACK_ONE), false,
                    show(k + 1) + " times Next and BackUp(1): every block but its last byte, the buffer grown in between");
    const Target pre{"prefix", 0, 16};
    sequence_ok(pre, {}, true, "after a prefix: BackUp(0) without Next, then finish: the prefix");
    sequence_ok(pre, {BACK_ALL}, false, "after a prefix: Next, BackUp(all), finish: the prefix");
    sequence_ok(pre, {BACK_NONE, BACK_SOME, BACK_ONE, BACK_NONE, BACK_NONE, BACK_NONE}, false,
                "after a prefix: a mixed sequence that grows the buffer");

    // An offset buffer: "prefix" left after 5000 bytes were cut off the front,
    // with some 1000 bytes free after it.
    const Target cut{"prefix", 0, 16, 5000};
    sequence_ok(cut, {}, true, "offset target: BackUp(0) without Next, finish: the prefix");
    sequence_ok(cut, {BACK_NONE}, false, "offset target: Next (a block that fits), finish");
    sequence_ok(cut, {BACK_NONE, BACK_NONE}, false, "offset target: Next, Next (the buffer grows), finish");
    sequence_ok(cut, {BACK_ONE, BACK_ONE}, false, "offset target: Next, BackUp(1), Next, BackUp(1), finish");
    // A shared buffer: the target is a copy of a 1000-byte string.
    const Target shared{pattern(1000, 9), 0, 16, 0, true};
    sequence_ok(shared, {}, true, "shared target: BackUp(0) without Next, finish: the prefix, the other string intact");
    sequence_ok(shared, {BACK_NONE}, false, "shared target: Next, finish");
    sequence_ok(shared, {BACK_NONE, BACK_NONE}, false, "shared target: Next, Next (the buffer grows), finish");

    // First blocks of other sizes.
    for (size_t fb : {size_t(0), size_t(1), size_t(15), size_t(17), size_t(4095), size_t(65536)}) {
        const Target tg{"", 0, fb};
        sequence_ok(tg, {BACK_SOME, BACK_NONE, BACK_ALL, BACK_ONE, BACK_NONE}, false,
                    "first block " + show(fb) + ": a mixed sequence");
    }

    // Random sequences, seeded: Next and a pattern into the whole block, then
    // BackUp of none, 0, all, 1, all but one or a random part of it.
    struct Config {
        const char *name;
        Target tg;
    };
    const std::vector<Config> configs = {
        {"first block 16", {"", 0, 16}},
        {"first block 1", {"", 0, 1}},
        {"first block 100", {"", 0, 100}},
        {"first block 4095", {"", 0, 4095}},
        {"after a 6-byte prefix, first block 16", {"prefix", 0, 16}},
        {"after a 5000-byte prefix, first block 100", {pattern(5000, 7), 0, 100}},
        {"target pre-grown to 64 KiB, first block 16", {"", 1 << 16, 16}},
        {"6-byte prefix in a target pre-grown to 64 KiB, first block 16", {"prefix", 1 << 16, 16}},
    };
    const int seeds = 60;
    for (const Config &c : configs) {
        Tally tally;
        long calls = 0;
        for (int seed = 1; seed <= seeds; ++seed) {
            Rng rng(static_cast<uint64_t>(seed) * 7919 + c.tg.first_block + c.tg.prefix.size());
            const size_t n = 1 + rng.below(24);
            std::vector<int> steps;
            for (size_t i = 0; i < n; ++i) {
                const uint64_t r = rng.below(12);
                steps.push_back(r < 3 ? BACK_NONE : r < 5 ? BACK_ZERO : r < 7 ? BACK_ALL : r < 8 ? BACK_ONE
                                : r < 9 ? BACK_ALL_BUT_ONE : BACK_SOME);
            }
            const bool backup_first = rng.below(3) == 0;
            Sequence s = run_sequence(c.tg, steps, &rng, backup_first);
            calls += static_cast<long>(s.ops.size());
            tally.check(s.problem.empty(), "seed " + show(seed) + ": " + s.problem + "\n  calls: " + describe(s.ops));
        }
        tally.report(std::string(c.name) + ": " + show(seeds) + " random sequences (" + show(calls) +
                     " calls) keep every byte written and not backed up, in order");
    }
}

// ---------------------------------------------------------------------------
// Targets whose buffer is larger than asked for

static void test_pregrown() {
    SV *t = newSVpvn("", 0);
    sv_grow(t, 1 << 16);
    const size_t len_before = SvLEN(t);
    char *buf = SvPVX(t);
    {
        qel::OutputStream stream(aTHX_ t, 16);
        void *data = nullptr;
        int size = 0;
        stream.Next(&data, &size);
        ok(static_cast<char *>(data) == buf, "pre-grown target: the first block starts at the buffer");
        is(static_cast<size_t>(size), len_before - 1, "pre-grown target: the first block is the whole free space but the NUL's byte");
        is(SvPVX(t), buf, "pre-grown target: no reallocation for the first block");
        stream.BackUp(size);
        stream.finish();
    }
    ok(SvCUR(t) == 0 && SvPVX(t)[0] == '\0', "pre-grown target: Next, BackUp(all), finish: the empty string");
    SvREFCNT_dec(t);

    Q m;
    for (Shape shape : {ONE_STRING, MIXED})
        for (size_t len : {size_t(2), size_t(17), size_t(1000), size_t(65000), size_t(65534), size_t(65535),
                           size_t(65536), size_t(100000)}) {
            const std::string name = "pre-grown 64 KiB target, " + std::string(shape_name(shape)) + ", " + show(len) +
                                     " bytes, first block 16";
            if (!build_record(m, len, shape)) {
                ok(false, name + ": record built");
                continue;
            }
            const std::string want = m.SerializeAsString();
            Serialised r = serialise(m, want, 16, true, "", 1 << 16);
            if (!ok(r.returned && r.problem.empty() && r.probe_problem.empty() &&
                        r.count_after_finish == static_cast<int64_t>(len),
                    name + ": exact bytes, NUL, ByteCount"))
                diag(r.problem + " " + r.probe_problem + " ByteCount " + show(r.count_after_finish));
            // With the whole free space as the first block, a record that fits
            // takes a single Next.
            if (len < 65000)
                is(r.nexts, 1, name + ": one Next call");
        }
}

// ---------------------------------------------------------------------------
// Targets that already hold bytes

static void test_prefix() {
    Q m;
    const std::vector<std::string> prefixes = {"prefix", std::string("\0\xFF\0", 3), pattern(5000, 3)};
    for (const std::string &prefix : prefixes)
        for (Shape shape : {ONE_STRING, MIXED})
            for (size_t len : {size_t(2), size_t(15), size_t(16), size_t(17), size_t(100), size_t(5000),
                               size_t(1) << 20})
                for (long fb : {16L, -1L}) {
                    const size_t first = fb < 0 ? len + 16 : static_cast<size_t>(fb);
                    const std::string name = show(prefix.size()) + "-byte prefix, " + shape_name(shape) + ", " +
                                             show(len) + " bytes, first block " + (fb < 0 ? "size+16" : "16");
                    if (!build_record(m, len, shape)) {
                        ok(false, name + ": record built");
                        continue;
                    }
                    const std::string want = m.SerializeAsString();
                    Serialised r = serialise(m, want, first, true, prefix);
                    if (!ok(r.returned && r.problem.empty() && r.probe_problem.empty(),
                            name + ": the prefix, then exactly the record's bytes, NUL-terminated"))
                        diag(r.problem + " " + r.probe_problem);
                    is(r.count_after_finish, static_cast<int64_t>(len), name + ": ByteCount counts the new bytes only");
                }
    {
        // A prefix in a pre-grown buffer.
        build_record(m, 3000, MIXED);
        const std::string want = m.SerializeAsString();
        Serialised r = serialise(m, want, 16, true, "prefix", 1 << 16);
        if (!ok(r.returned && r.problem.empty() && r.probe_problem.empty() && r.count_after_finish == 3000 &&
                    r.nexts == 1,
                "6-byte prefix in a target pre-grown to 64 KiB: prefix and record, one Next, ByteCount 3000"))
            diag(r.problem + " " + r.probe_problem + " nexts " + show(r.nexts));
    }
}

// Targets as Perl code leaves them: a string whose start was cut off (the
// buffer offset, SvOOK) and a string sharing its buffer with another
// (copy-on-write).  Writing starts at the end of what the target holds, and
// the other string keeps its value.

static void test_perl_targets() {
    {
        // 50000 bytes cut off the front of a 50006-byte string: "prefix" is
        // left in a buffer with some 50000 bytes free, so the serialiser's
        // first block fits without growing and a later one grows it.
        const std::string problem = run_isolated([] {
            Q m;
            build_record(m, 60000, MIXED);
            const std::string want = m.SerializeAsString();
            SV *t = newSV(100000);
            sv_setpvn(t, (pattern(50000, 11) + "prefix").data(), 50006);
            sv_chop(t, SvPVX(t) + 50000);
            std::string found = SvOOK(t) ? "" : "(sv_chop left no offset buffer) ";
            {
                qel::OutputStream stream(aTHX_ t, 16);
                Probe p(stream, t, 6);
                m.SerializePartialToZeroCopyStream(&p);
                stream.finish();
                if (stream.ByteCount() != 60000)
                    found += "ByteCount " + show(stream.ByteCount()) + " ";
                found += p.problem;
            }
            found += string_problem(t, "prefix" + want);
            report_line("checked: " + found + "; now freeing the string");
            SvREFCNT_dec(t);
            return found;
        });
        if (!ok(problem.empty(), "a target whose front was cut off (offset buffer), 60000-byte record: prefix and record, exactly"))
            diag(problem);
    }
    // A 1000-byte string in a buffer with some 60 bytes to spare, copied:
    // Perl shares the buffer (it does when little of it is free), and the
    // copy is the target.
    for (size_t len : {size_t(40), size_t(100), size_t(60000)}) {
        const std::string problem = run_isolated([len] {
            Q m;
            build_record(m, len, MIXED);
            const std::string want = m.SerializeAsString();
            const std::string prefix = pattern(1000, 5);
            SV *a = newSV(1060);
            sv_setpvn(a, prefix.data(), prefix.size());
            SV *t = newSV(0);
            sv_setsv_flags(t, a, SV_GMAGIC | SV_COW_SHARED_HASH_KEYS);  // as Perl's own assignment does
            std::string found = SvIsCOW(t) && SvPVX(t) == SvPVX(a) ? "" : "(sv_setsv did not share the buffer) ";
            {
                qel::OutputStream stream(aTHX_ t, 16);
                Probe p(stream, t, prefix.size());
                m.SerializePartialToZeroCopyStream(&p);
                stream.finish();
                found += p.problem;
            }
            const std::string pt = string_problem(t, prefix + want);
            if (!pt.empty())
                found += "the target: " + pt + "\n";
            const std::string pa = string_problem(a, prefix);
            if (!pa.empty())
                found += "the string it shared the buffer with: " + pa;
            report_line("checked: " + found + "; now freeing the strings");
            SvREFCNT_dec(t);
            SvREFCNT_dec(a);
            return found;
        });
        if (!ok(problem.empty(),
                "a target sharing its buffer (copy-on-write), " + show(len) +
                    "-byte record: prefix and record, the other string unchanged, both freed"))
            diag(problem);
    }
}

// ---------------------------------------------------------------------------
// pack_record

static void test_pack_record() {
    {
        Q empty;
        SV *p = qel::pack_record(aTHX_ empty);
        if (ok(p != nullptr, "pack_record of the empty record returns a string")) {
            is(SvCUR(p), size_t(16), "pack_record of the empty record: 16 bytes");
            bytes_is(contents(p), std::string(16, '\0'), "pack_record of the empty record: all zero");
            ok(SvLEN(p) > 16 && SvPVX(p)[16] == '\0', "pack_record of the empty record: NUL-terminated");
            ok(SvPOK(p) && !SvUTF8(p) && SvREFCNT(p) == 1, "pack_record of the empty record: a plain byte string, refcount 1");
            SvREFCNT_dec(p);
        }
    }
    struct Case {
        const char *name;
        std::function<void(Q &)> set;
    };
    const std::vector<Case> cases = {
        {"bot_name \"a\"", [](Q &m) { m.set_bot_name("a"); }},
        {"an empty client_ip", [](Q &m) { m.mutable_client_ip(); }},
        {"one empty list element", [](Q &m) { m.add_anomalies(""); }},
        {"mobile_is_app false", [](Q &m) { m.set_mobile_is_app(false); }},
        {"device_id 2^64-1", [](Q &m) { m.set_device_id(0xFFFFFFFFFFFFFFFFull); }},
        {"every byte 0..255 in host", [](Q &m) {
             std::string s;
             for (int i = 0; i < 256; ++i)
                 s.push_back(static_cast<char>(i));
             m.set_host(s);
         }},
        {"unknown fields around known ones", [](Q &m) {
             const std::string wire("\x30\x05\x0A\x01\x61\xF8\x01\x07\x32\x03\x61\x62\x63", 13);
             m.ParseFromString(wire);
         }},
        {"a 1 MiB request_uri", [](Q &m) { m.set_request_uri(pattern(1 << 20, 0)); }},
    };
    for (const Case &c : cases) {
        Q m;
        c.set(m);
        const std::string want = m.SerializeAsString();
        SV *p = qel::pack_record(aTHX_ m);
        if (!ok(p != nullptr && !want.empty(), std::string("pack_record of ") + c.name + " returns a string"))
            continue;
        const std::string problem = string_problem(p, want);
        if (!ok(problem.empty(), std::string("pack_record of ") + c.name + ": exactly SerializeAsString(), NUL-terminated"))
            diag(problem);
        SvREFCNT_dec(p);
    }
}

// ---------------------------------------------------------------------------

int main(int argc, char **argv, char **env) {
    PERL_SYS_INIT3(&argc, &argv, &env);
    my_perl = perl_alloc();
    perl_construct(my_perl);
    PL_exit_flags |= PERL_EXIT_DESTRUCT_END;
    PL_perl_destruct_level = 1;  // free everything at the end (for valgrind)
    char arg0[] = "", arg1[] = "-e", arg2[] = "0";
    char *args[] = {arg0, arg1, arg2, nullptr};
    if (perl_parse(my_perl, nullptr, 3, args, nullptr) != 0 || perl_run(my_perl) != 0) {
        std::printf("Bail out! the embedded perl did not start\n");
        return 2;
    }

    test_empty_record();
    test_hand_driven();
    test_pregrown();
    test_prefix();
    test_perl_targets();
    test_pack_record();
    test_sweep();

    perl_destruct(my_perl);
    perl_free(my_perl);
    PERL_SYS_TERM();
    google::protobuf::ShutdownProtobufLibrary();
    ok(true, "the interpreter is destructed and ShutdownProtobufLibrary() returns");

    return done_testing();
}
