// The record writers: pack_record() for pack, serialise_record() for the
// stream writer's write_record, and the zero-copy output stream through which
// pack lets the protobuf serialiser write straight into a Perl string.
#ifndef QEL_OUTPUT_STREAM_H
#define QEL_OUTPUT_STREAM_H

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream.h>

#include <string>

#include "binding.h"

namespace qel {

// Hands out the free space of a Perl string's buffer as blocks, growing the
// buffer when the space runs out.  It keeps the ZeroCopyOutputStream contract
// for any call pattern: BackUp may come without a Next (the serialiser does
// that for an empty message), and blocks are whatever the buffer really holds,
// which may be more than was asked for.  The string's length is set by
// finish(), once the serialiser is done with the stream.
class OutputStream final : public google::protobuf::io::ZeroCopyOutputStream {
  public:
    // `target` must be a string scalar; writing starts at its current end.
    // `first_block` is the size of the first block Next hands out.
    OutputStream(pTHX_ SV *target, size_t first_block);

    bool Next(void **data, int *size) override;
    void BackUp(int count) override;
    int64_t ByteCount() const override;

    // Sets the target's length to the bytes written and terminates it.
    void finish();

  private:
    tTHX my_perl;  // the Perl API macros inside the methods find it here
    SV *target_;
    size_t start_;          // the target's length before writing
    size_t end_;            // end of the bytes written so far (offset in the buffer)
    size_t next_block_;     // the least size of the next block
};

// The wire encoding of `m` as a new plain byte string (refcount 1), or null
// when the record is too large for the wire format.  An empty record gives 16
// zero bytes on purpose: existing readers expect that form of "no fields".
SV *pack_record(pTHX_ const Record &m);

// Writes the encoding of `m` to `out`, its ByteSizeLong() of `size` bytes
// having just been taken.  A record the direct writer can take, of 256 bytes
// to 64 KiB, is written into `scratch` (kept by the caller from one record to
// the next) and from there in one raw write; any other, by the runtime's
// serialiser.  The bytes and any runtime log lines are the same either way.
void serialise_record(google::protobuf::io::CodedOutputStream &out, const Record &m, size_t size,
                      std::string &scratch);

}  // namespace qel

#endif
