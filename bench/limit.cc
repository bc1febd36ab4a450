// The protobuf runtime's own speed on the records the Perl benchmark times:
// what parsing and serialising them costs in C++ with nothing of Perl in the
// way, the limit any binding can approach.  bench/speed.pl builds it with
// g++ -O2 against protoc's output in src/ and runs it once per round.
//
//   limit FILE MILLISECONDS
//
// FILE holds named records, each as a 4-byte little-endian length and that
// many bytes of name, then a 4-byte little-endian length and that many bytes
// of the record's wire encoding.  For every record, three loops each run for
// about MILLISECONDS of CPU time:
//   parse      ParseFromString into one message reused by every call
//   parse_new  a message made, ParseFromString into it, and destroyed
//   serialize  SerializeToString of the parsed record into one std::string
//              reused by every call
// Output, one line per record: NAME PARSE_NS PARSE_NEW_NS SERIALIZE_NS SAME,
// nanoseconds per call, SAME being 1 when the runtime's serialisation equals
// the bytes it was given, else 0.  Exit status 0, or 2 when the file cannot
// be read, is cut short, or holds a record the runtime refuses to parse.

#include "quillon_event_log.pb.h"

#include <google/protobuf/stubs/common.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

namespace {

using Record = quillon_event_log::QuillonEventLog;

// CPU time of the process, like the Perl side's clock, so that time the
// scheduler gives to other programs on the shared cores is not counted.
double cpu_seconds() {
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// Keeps the compiler from dropping work whose result nobody reads.
volatile size_t g_sink;

bool read_u32le(const std::string &buf, size_t &at, uint32_t &out) {
    if (buf.size() - at < 4) return false;
    out = static_cast<uint32_t>(static_cast<unsigned char>(buf[at])) |
          static_cast<uint32_t>(static_cast<unsigned char>(buf[at + 1])) << 8 |
          static_cast<uint32_t>(static_cast<unsigned char>(buf[at + 2])) << 16 |
          static_cast<uint32_t>(static_cast<unsigned char>(buf[at + 3])) << 24;
    at += 4;
    return true;
}

bool read_chunk(const std::string &buf, size_t &at, std::string &out) {
    uint32_t len;
    if (!read_u32le(buf, at, len) || buf.size() - at < len) return false;
    out.assign(buf, at, len);
    at += len;
    return true;
}

// Runs body(n) with a growing n until one run takes a tenth of the budget,
// then once more with n scaled to fill the budget; nanoseconds per call of
// that last run.
template <typename Body>
double ns_per_call(double budget, Body body) {
    long n = 1;
    double took = 0;
    for (;;) {
        const double t0 = cpu_seconds();
        body(n);
        took = cpu_seconds() - t0;
        if (took >= budget / 10 || n >= (1L << 30)) break;
        n *= took > 0 ? std::min(10.0, std::max(2.0, budget / 10 / took * 1.2)) : 10;
    }
    long scaled = static_cast<long>(n * (budget / (took > 0 ? took : budget)));
    if (scaled < 1) scaled = 1;
    const double t0 = cpu_seconds();
    body(scaled);
    return (cpu_seconds() - t0) / static_cast<double>(scaled) * 1e9;
}

}  // namespace

int main(int argc, char **argv) {
    GOOGLE_PROTOBUF_VERIFY_VERSION;
    if (argc != 3) {
        std::fprintf(stderr, "usage: limit FILE MILLISECONDS\n");
        return 2;
    }
    std::ifstream in(argv[1], std::ios::binary);
    const std::string input((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!in.good() && !in.eof()) {
        std::fprintf(stderr, "limit: cannot read %s\n", argv[1]);
        return 2;
    }
    const double budget = std::atof(argv[2]) / 1000;

    std::vector<std::pair<std::string, std::string>> records;
    for (size_t at = 0; at < input.size();) {
        std::string name, bytes;
        if (!read_chunk(input, at, name) || !read_chunk(input, at, bytes)) {
            std::fprintf(stderr, "limit: %s is cut short\n", argv[1]);
            return 2;
        }
        records.emplace_back(std::move(name), std::move(bytes));
    }

    for (const auto &rec : records) {
        const std::string &bytes = rec.second;
        Record reused;
        if (!reused.ParseFromString(bytes)) {
            std::fprintf(stderr, "limit: the runtime refuses the record %s\n", rec.first.c_str());
            return 2;
        }
        std::string out;
        reused.SerializeToString(&out);
        const int same = out == bytes;

        const double parse = ns_per_call(budget, [&](long n) {
            for (long i = 0; i < n; ++i) reused.ParseFromString(bytes);
            g_sink = reused.ByteSizeLong();
        });
        const double parse_new = ns_per_call(budget, [&](long n) {
            size_t total = 0;
            for (long i = 0; i < n; ++i) {
                Record fresh;
                fresh.ParseFromString(bytes);
                total += fresh.bot_name().size();
            }
            g_sink = total;
        });
        const double serialize = ns_per_call(budget, [&](long n) {
            for (long i = 0; i < n; ++i) reused.SerializeToString(&out);
            g_sink = out.size();
        });
        std::printf("%s %.1f %.1f %.1f %d\n", rec.first.c_str(), parse, parse_new, serialize, same);
    }
    return 0;
}
