// Record streams: records one after another, each preceded by its length as
// a base-128 varint, read and written in large blocks through the runtime's
// zero-copy, coded and gzip streams.  The Perl classes are
// quillon_event_log::Stream::Reader and quillon_event_log::Stream::Writer;
// lib/quillon_event_log/Stream.pm opens paths and passes on file handles.
#ifndef QEL_STREAM_H
#define QEL_STREAM_H

#include <memory>
#include <string>

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/gzip_stream.h>
#include <zlib.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>

#include "binding.h"

namespace qel {
namespace stream {

namespace pio = google::protobuf::io;

// Where a reader's bytes come from.  The first two bytes can be looked at
// before anything is handed on, to recognise gzip whatever the file is called.
class Source : public pio::CopyingInputStream {
  public:
    int Read(void *buffer, int size) override;
    bool starts_with_gzip_magic();
    int error() const { return error_; }  // errno of a failed read, or 0
    uint64_t bytes_read() const { return bytes_read_; }

  protected:
    // Up to `size` bytes into `buffer`: the count, 0 at the end, -1 with
    // error_ set on failure.
    virtual int read_raw(char *buffer, int size) = 0;
    int error_ = 0;

  private:
    char peeked_[2];
    int peeked_len_ = 0;
    int peeked_pos_ = 0;
    uint64_t bytes_read_ = 0;
};

// gzip data decompressed as a zero-copy stream.  Unlike the runtime's own
// gzip input stream, it hands on what it decompressed before a fault, so
// every record before a corruption is read, and it tells a truncated stream
// from a complete one.  Members written one after another (`cat a.gz b.gz`)
// read as one stream.
class GunzipStream final : public pio::ZeroCopyInputStream {
  public:
    enum class Status { Ok, End, Truncated, Corrupt };
    explicit GunzipStream(pio::ZeroCopyInputStream *sub);
    ~GunzipStream() override;
    bool Next(const void **data, int *size) override;
    void BackUp(int count) override;
    bool Skip(int count) override;
    int64_t ByteCount() const override { return byte_count_; }
    Status status() const { return status_; }
    const char *message() const { return message_; }

  private:
    pio::ZeroCopyInputStream *sub_;
    z_stream z_;
    std::unique_ptr<Bytef[]> out_;
    int produced_ = 0;    // bytes of out_ handed out by the last Next
    int backed_up_ = 0;   // of which given back
    int64_t byte_count_ = 0;
    bool in_member_ = false;
    Status status_ = Status::Ok;
    const char *message_ = nullptr;
};

// Why a stream or one of its records could not be read.  Frame problems
// end the stream; record problems skip one record.
enum class Problem {
    None,
    ReadError,         // the source failed (errno in `error`)
    GzipError,         // the compressed data is corrupt or truncated
    TruncatedPrefix,   // the data ends inside a length prefix
    MalformedPrefix,   // a length prefix longer than 10 bytes
    TruncatedRecord,   // fewer bytes left than the prefix announced
    TooLong,           // a record longer than the reader's limit (skipped)
    Malformed,         // a record whose bytes do not decode (skipped)
    Refused,           // a record the runtime does not parse (skipped)
};

class Reader {
  public:
    Reader(pTHX_ std::unique_ptr<Source> source, SV *name, SV *on_error, unsigned options, uint64_t max_record);
    ~Reader();

    enum class Step { Record, End, Frame, Skip };
    // The next frame: its bytes in `buffer`; `problem` and `detail` say what
    // went wrong otherwise.  Never calls back into Perl code.
    Step read_frame();

    PerlInterpreter *perl;
    std::unique_ptr<Source> source;
    std::unique_ptr<pio::CopyingInputStreamAdaptor> raw;
    std::unique_ptr<GunzipStream> gzip;
    std::unique_ptr<pio::CodedInputStream> coded;
    pio::ZeroCopyInputStream *in;
    int64_t base = 0;    // bytes (decompressed) consumed before `coded` was made
    SV *name;            // the stream's name in messages
    SV *on_error;        // a code reference, or null: problems croak
    SV *buffer;          // the bytes of the last record
    unsigned options;    // of the codec that makes hashes
    bool selective = false;                          // next decodes only ...
    uint64_t only[(kRecordFieldCount + 63) / 64] = {};  // ... these fields
    uint64_t max_record;
    // Record striping for workers sharing one stream: next and its kin
    // deliver only the records whose number, from 0, is `stripe_at` modulo
    // `stripe_of`, and report problems of those records only; a problem that
    // ends the stream is reported by stripe 0 alone.
    UV stripe_of = 1;
    UV stripe_at = 0;
    UV index = 0;        // the number of the last record, from 1
    int64_t offset = -1; // where its length prefix starts
    bool ended = false;
    bool canonical = false;        // whether the last hash encodes back to its bytes ...
    bool canonical_known = false;  // ... when next made it from the last frame
    Problem problem = Problem::None;
    uint64_t detail[2] = {0, 0};  // numbers for the problem's text
};

// Where a writer's bytes go.
class Sink : public pio::CopyingOutputStream {
  public:
    Sink(pTHX_ IO *io);
    ~Sink() override;
    bool Write(const void *buffer, int size) override;
    bool flush_handle();
    int error() const { return error_; }

  private:
    PerlInterpreter *perl_;
    IO *io_;
    int error_ = 0;
};

class Writer {
  public:
    Writer(pTHX_ IO *io, SV *name, unsigned options, int gzip_level);
    ~Writer();

    // Everything written so far down to the file handle, and with `last`
    // the end of the gzip data, after which the writer takes no more; false
    // on failure.
    bool drain(bool last);
    bool flush() { return drain(false); }
    bool finish() { return drain(true); }

    PerlInterpreter *perl;
    std::unique_ptr<Sink> sink;
    std::unique_ptr<pio::CopyingOutputStreamAdaptor> raw;
    std::unique_ptr<pio::GzipOutputStream> gzip;
    std::unique_ptr<pio::CodedOutputStream> coded;
    SV *name;
    unsigned options;
    UV count = 0;        // records written
    std::string scratch; // write_record's encoding of the record being written
    bool finished = false;
};

// Ends a reader or writer owned by a handle (found by the handle mark's free
// hook through argument-dependent lookup, hence here).
inline void free_message(Reader *r) { delete r; }
inline void free_message(Writer *w) { delete w; }

}  // namespace stream

constexpr char kReaderClass[] = "quillon_event_log::Stream::Reader";
constexpr char kWriterClass[] = "quillon_event_log::Stream::Writer";

template <> struct Binding<stream::Reader> {
    static constexpr const char *kClass = kReaderClass;
    static constexpr const char *kNotOfType = "THIS is not of type quillon_event_log::Stream::Reader";
    static constexpr const char *kEmpty = "the reader is closed";
    static constexpr const char *kForged = "THIS is not a quillon_event_log::Stream::Reader made by this module";
};
template <> struct Binding<stream::Writer> {
    static constexpr const char *kClass = kWriterClass;
    static constexpr const char *kNotOfType = "THIS is not of type quillon_event_log::Stream::Writer";
    static constexpr const char *kEmpty = "the writer is closed";
    static constexpr const char *kForged = "THIS is not a quillon_event_log::Stream::Writer made by this module";
};

// Boot: registers the XSUBs of both classes.
void register_stream(pTHX_ const char *file);

}  // namespace qel

#endif
