// Serialises records again with the protobuf runtime's own serialiser, for
// t/31_pack_runtime.t to compare with what `pack` wrote.
//
// Standard input: a sequence of records, each a 4-byte little-endian length
// followed by that many bytes.  Every record is parsed with ParseFromString
// into a fresh quillon_event_log::QuillonEventLog and written again with
// SerializeAsString().
//
// Standard output, per record in input order: one byte, '1' when the parse
// succeeded and '0' when it failed, then the runtime's serialisation in the
// same framing (4-byte little-endian length, the bytes).  The serialisation
// is written even after a failed parse: it is whatever the parse left behind.
//
// Exit status 0 when the input was read to its end, 2 when it ends inside a
// record or cannot be read, 3 when the output cannot be written.  Input is
// read and output written in binary, with no translation of any byte.

#include "quillon_event_log.pb.h"

#include <google/protobuf/stubs/common.h>

#include <cstdint>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <string>

namespace {

uint32_t get_u32le(const std::string &buf, size_t at) {
    return static_cast<uint32_t>(static_cast<unsigned char>(buf[at])) |
           static_cast<uint32_t>(static_cast<unsigned char>(buf[at + 1])) << 8 |
           static_cast<uint32_t>(static_cast<unsigned char>(buf[at + 2])) << 16 |
           static_cast<uint32_t>(static_cast<unsigned char>(buf[at + 3])) << 24;
}

void put_u32le(std::string &out, uint32_t n) {
    for (int shift = 0; shift < 32; shift += 8)
        out.push_back(static_cast<char>((n >> shift) & 0xFF));
}

}  // namespace

int main() {
    GOOGLE_PROTOBUF_VERIFY_VERSION;

    std::ios::sync_with_stdio(false);
    const std::string input((std::istreambuf_iterator<char>(std::cin)), std::istreambuf_iterator<char>());
    if (std::cin.bad()) {
        std::fprintf(stderr, "reserialise: cannot read standard input\n");
        return 2;
    }

    size_t at = 0;
    for (unsigned long index = 0; at < input.size(); ++index) {
        if (input.size() - at < 4) {
            std::fprintf(stderr, "reserialise: record %lu: %zu bytes left, too few for a length\n", index,
                         input.size() - at);
            return 2;
        }
        const uint32_t length = get_u32le(input, at);
        at += 4;
        if (input.size() - at < length) {
            std::fprintf(stderr, "reserialise: record %lu: length %lu, but only %zu bytes left\n", index,
                         static_cast<unsigned long>(length), input.size() - at);
            return 2;
        }

        quillon_event_log::QuillonEventLog record;
        const bool parsed = record.ParseFromString(input.substr(at, length));
        at += length;
        const std::string again = record.SerializeAsString();

        std::string frame;
        frame.reserve(5 + again.size());
        frame.push_back(parsed ? '1' : '0');
        put_u32le(frame, static_cast<uint32_t>(again.size()));
        frame += again;
        if (std::fwrite(frame.data(), 1, frame.size(), stdout) != frame.size()) {
            std::fprintf(stderr, "reserialise: cannot write record %lu\n", index);
            return 3;
        }
    }
    if (std::fflush(stdout) != 0) {
        std::fprintf(stderr, "reserialise: cannot write standard output\n");
        return 3;
    }

    google::protobuf::ShutdownProtobufLibrary();
    return 0;
}
