// Record streams: the reader and the writer behind
// quillon_event_log::Stream::Reader and ::Writer.  The runtime does the block
// I/O, the varints and gzip; this file frames records, keeps count of where
// each one stood, and turns problems into reports.  Everything C++ lives in
// the heap objects owned by the Perl handles, so the XSUBs can croak and call
// back into Perl code at any point without skipping a destructor.
#include "stream.h"

#include <cerrno>
#include <climits>
#include <cstring>

#include "codec.h"
#include "codec_common.h"
#include "output_stream.h"
#include "runtime_log.h"

namespace qel {
namespace stream {
namespace {

// Texts of the problems; each report reads "NAME: record N at byte OFFSET: REASON".
constexpr char kReport[] = "%" SVf ": record %" UVuf " at byte %" IVdf ": %" SVf;
constexpr char kReadError[] = "read error: %s";
constexpr char kGzipError[] = "corrupt gzip data: %s";
constexpr char kGzipTruncated[] = "truncated gzip data";
constexpr char kTruncatedPrefix[] = "truncated length prefix";
constexpr char kMalformedPrefix[] = "malformed length prefix (longer than 10 bytes)";
constexpr char kTruncatedRecord[] = "truncated record: the prefix announces %" UVuf " bytes, %" UVuf " follow";
constexpr char kTooLong[] = "record of %" UVuf " bytes is longer than the limit of %" UVuf " bytes";
constexpr char kMalformedAt[] = "%" SVf " at byte %" UVuf " of the record";
constexpr char kRefused[] = "the protocol-buffer runtime does not parse the record";
constexpr char kWriteError[] = "%" SVf ": write error: %s";
constexpr char kWriteErrorDestroy[] = "%" SVf ": write error while closing: %s";
constexpr char kNotHandle[] = "%s: expected a file handle";
constexpr char kWideScalar[] = "the scalar to read holds wide characters: encode it to bytes first";
constexpr char kNoRecord[] = "write_record: the object holds no record";
constexpr char kRecordTooLong[] = "write_record: the record is %" UVuf " bytes, longer than 2147483647";
constexpr char kBytesTooLong[] = "write_bytes: %" UVuf " bytes is longer than 2147483647";
constexpr char kWideBytes[] = "write_bytes: wide character in the bytes to write";
constexpr char kExpectedBytes[] = "write_bytes: expected a byte string";

// Blocks between the file handle and the runtime's streams.
constexpr int kBlock = 1 << 16;
// The coded stream counts in int: a new one is made, at a record boundary,
// long before its count could overflow.
constexpr int kRenewAfter = 1 << 30;
constexpr uint64_t kMaxLength = 2147483647;

// ---- sources ------------------------------------------------------------------

// A Perl file handle, read through its PerlIO.  The IO is held, not its
// PerlIO: a handle closed behind the reader's back reads as an error, not as
// freed memory.
class HandleSource final : public Source {
  public:
    HandleSource(pTHX_ IO *io) : perl_(aTHX), io_(reinterpret_cast<IO *>(SvREFCNT_inc_simple_NN(io))) {}
    ~HandleSource() override {
        dTHXa(perl_);
        SvREFCNT_dec(io_);
    }

  protected:
    int read_raw(char *buffer, int size) override {
        dTHXa(perl_);
        PerlIO *fp = IoIFP(io_);
        if (!fp) {
            error_ = EBADF;
            return -1;
        }
        const SSize_t n = PerlIO_read(fp, buffer, static_cast<Size_t>(size));
        if (n > 0)
            return static_cast<int>(n);
        if (n < 0 || PerlIO_error(fp)) {
            error_ = errno ? errno : EIO;
            return -1;
        }
        return 0;
    }

  private:
    PerlInterpreter *perl_;
    IO *io_;
};

// A byte string.  The reader holds its own copy (shared with the caller's
// buffer until either changes), so changing the caller's scalar meanwhile
// changes nothing here.
class ScalarSource final : public Source {
  public:
    ScalarSource(pTHX_ SV *bytes) : perl_(aTHX), bytes_(bytes) {}
    ~ScalarSource() override {
        dTHXa(perl_);
        SvREFCNT_dec(bytes_);
    }

  protected:
    int read_raw(char *buffer, int size) override {
        const size_t left = SvCUR(bytes_) - pos_;
        const size_t n = left < static_cast<size_t>(size) ? left : static_cast<size_t>(size);
        std::memcpy(buffer, SvPVX(bytes_) + pos_, n);
        pos_ += n;
        return static_cast<int>(n);
    }

  private:
    PerlInterpreter *perl_;
    SV *bytes_;
    size_t pos_ = 0;
};

}  // namespace

int Source::Read(void *buffer, int size) {
    if (peeked_pos_ < peeked_len_) {
        int n = peeked_len_ - peeked_pos_;
        if (n > size)
            n = size;
        std::memcpy(buffer, peeked_ + peeked_pos_, static_cast<size_t>(n));
        peeked_pos_ += n;
        return n;
    }
    const int n = read_raw(static_cast<char *>(buffer), size);
    if (n > 0)
        bytes_read_ += static_cast<uint64_t>(n);
    return n;
}

bool Source::starts_with_gzip_magic() {
    while (peeked_len_ < 2) {
        const int n = read_raw(peeked_ + peeked_len_, 2 - peeked_len_);
        if (n <= 0)
            break;
        peeked_len_ += n;
        bytes_read_ += static_cast<uint64_t>(n);
    }
    return peeked_len_ == 2 && static_cast<unsigned char>(peeked_[0]) == 0x1f &&
           static_cast<unsigned char>(peeked_[1]) == 0x8b;
}

// ---- gzip -------------------------------------------------------------------------

GunzipStream::GunzipStream(pio::ZeroCopyInputStream *sub) : sub_(sub), z_(), out_(new Bytef[kBlock]) {
    // 16 + window bits: gzip headers and trailers, checked.
    if (inflateInit2(&z_, 16 + MAX_WBITS) != Z_OK) {
        status_ = Status::Corrupt;
        message_ = "cannot start zlib";
    }
}

GunzipStream::~GunzipStream() { inflateEnd(&z_); }

bool GunzipStream::Next(const void **data, int *size) {
    if (backed_up_) {
        *data = out_.get() + (produced_ - backed_up_);
        *size = backed_up_;
        byte_count_ += backed_up_;
        backed_up_ = 0;
        return true;
    }
    produced_ = 0;
    if (status_ != Status::Ok)
        return false;
    z_.next_out = out_.get();
    z_.avail_out = kBlock;
    while (z_.avail_out == static_cast<uInt>(kBlock)) {
        if (z_.avail_in == 0) {
            const void *in;
            int n;
            if (!sub_->Next(&in, &n)) {
                status_ = in_member_ ? Status::Truncated : Status::End;
                break;
            }
            z_.next_in = static_cast<Bytef *>(const_cast<void *>(in));
            z_.avail_in = static_cast<uInt>(n);
            continue;
        }
        if (!in_member_) {  // the next member of concatenated gzip data
            inflateReset(&z_);
            in_member_ = true;
        }
        const int r = inflate(&z_, Z_NO_FLUSH);
        if (r == Z_STREAM_END) {
            in_member_ = false;
        } else if (r != Z_OK && r != Z_BUF_ERROR) {
            status_ = Status::Corrupt;
            message_ = z_.msg ? z_.msg : "unknown zlib error";
            break;
        }
    }
    produced_ = kBlock - static_cast<int>(z_.avail_out);
    if (!produced_)
        return false;
    *data = out_.get();
    *size = produced_;
    byte_count_ += produced_;
    return true;
}

void GunzipStream::BackUp(int count) {
    backed_up_ = count;
    byte_count_ -= count;
}

bool GunzipStream::Skip(int count) {
    const void *data;
    int size;
    while (count > 0) {
        if (!Next(&data, &size))
            return false;
        if (size > count) {
            BackUp(size - count);
            return true;
        }
        count -= size;
    }
    return true;
}

// ---- the reader -----------------------------------------------------------------

Reader::Reader(pTHX_ std::unique_ptr<Source> src, SV *name_sv, SV *on_error_sv, unsigned opts, uint64_t max)
    : perl(aTHX), source(std::move(src)), name(name_sv), on_error(on_error_sv), options(opts), max_record(max) {
    raw.reset(new pio::CopyingInputStreamAdaptor(source.get(), kBlock));
    in = raw.get();
    if (source->starts_with_gzip_magic()) {
        gzip.reset(new GunzipStream(raw.get()));
        in = gzip.get();
    }
    buffer = newSV(256);
    SvPOK_only(buffer);
}

Reader::~Reader() {
    dTHXa(perl);
    coded.reset();  // gives unread bytes back before the streams under it go
    gzip.reset();
    raw.reset();
    SvREFCNT_dec(name);
    SvREFCNT_dec(on_error);
    SvREFCNT_dec(buffer);
}

Reader::Step Reader::read_frame() {
    dTHXa(perl);
    if (ended)
        return Step::End;
    if (coded && coded->CurrentPosition() > kRenewAfter) {
        base += coded->CurrentPosition();
        coded.reset();
    }
    if (!coded) {
        coded.reset(new pio::CodedInputStream(in));
        coded->SetTotalBytesLimit(INT_MAX);
    }
    problem = Problem::None;
    canonical_known = false;
    const void *data;
    int size;
    const int64_t at = base + coded->CurrentPosition();
    // Why the data ran out: the source, gzip, or simply the end.
    auto out_of_data = [&](Problem at_end) {
        if (source->error())
            problem = Problem::ReadError;
        else if (gzip && gzip->status() != GunzipStream::Status::End)
            problem = Problem::GzipError;
        else
            problem = at_end;
        ended = true;
        return problem == Problem::None ? Step::End : Step::Frame;
    };
    if (!coded->GetDirectBufferPointer(&data, &size)) {
        const Step s = out_of_data(Problem::None);
        if (s == Step::Frame) {
            offset = at;
            ++index;
        }
        return s;
    }
    offset = at;
    ++index;
    uint64_t len;
    if (!coded->ReadVarint64(&len)) {
        if (coded->GetDirectBufferPointer(&data, &size)) {
            problem = Problem::MalformedPrefix;
            ended = true;
            return Step::Frame;
        }
        return out_of_data(Problem::TruncatedPrefix);
    }
    // The bytes, block by block: memory grows with the data that is there,
    // not with what a hostile prefix announces.  A record over the limit is
    // read past without keeping it.
    const bool keep = len <= max_record;
    SvCUR_set(buffer, 0);
    uint64_t got = 0;
    while (got < len) {
        if (!coded->GetDirectBufferPointer(&data, &size)) {
            detail[0] = len;
            detail[1] = got;
            return out_of_data(Problem::TruncatedRecord);
        }
        const uint64_t n = static_cast<uint64_t>(size) < len - got ? static_cast<uint64_t>(size) : len - got;
        if (keep) {
            char *dst = SvGROW(buffer, static_cast<STRLEN>(got + n + 1));
            std::memcpy(dst + got, data, static_cast<size_t>(n));
            SvCUR_set(buffer, static_cast<STRLEN>(got + n));
        }
        coded->Skip(static_cast<int>(n));
        got += n;
    }
    if (!keep) {
        detail[0] = len;
        detail[1] = max_record;
        problem = Problem::TooLong;
        return Step::Skip;
    }
    return Step::Record;
}

// ---- the writer -----------------------------------------------------------------

Sink::Sink(pTHX_ IO *io) : perl_(aTHX), io_(reinterpret_cast<IO *>(SvREFCNT_inc_simple_NN(io))) {}

Sink::~Sink() {
    dTHXa(perl_);
    SvREFCNT_dec(io_);
}

bool Sink::Write(const void *buffer, int size) {
    dTHXa(perl_);
    PerlIO *fp = IoOFP(io_);
    if (!fp) {
        error_ = EBADF;
        return false;
    }
    const char *p = static_cast<const char *>(buffer);
    while (size > 0) {
        const SSize_t n = PerlIO_write(fp, p, static_cast<Size_t>(size));
        if (n <= 0) {
            error_ = errno ? errno : EIO;
            return false;
        }
        p += n;
        size -= static_cast<int>(n);
    }
    return true;
}

bool Sink::flush_handle() {
    dTHXa(perl_);
    PerlIO *fp = IoOFP(io_);
    if (!fp) {
        error_ = EBADF;
        return false;
    }
    if (PerlIO_flush(fp) != 0) {
        error_ = errno ? errno : EIO;
        return false;
    }
    return true;
}

Writer::Writer(pTHX_ IO *io, SV *name_sv, unsigned opts, int gzip_level)
    : perl(aTHX), sink(new Sink(aTHX_ io)), name(name_sv), options(opts) {
    raw.reset(new pio::CopyingOutputStreamAdaptor(sink.get(), kBlock));
    pio::ZeroCopyOutputStream *out = raw.get();
    if (gzip_level >= 0) {
        pio::GzipOutputStream::Options o;
        o.format = pio::GzipOutputStream::GZIP;
        o.compression_level = gzip_level;
        o.buffer_size = kBlock;
        gzip.reset(new pio::GzipOutputStream(raw.get(), o));
        out = gzip.get();
    }
    coded.reset(new pio::CodedOutputStream(out));
}

Writer::~Writer() {
    dTHXa(perl);
    coded.reset();
    gzip.reset();
    raw.reset();
    sink.reset();
    SvREFCNT_dec(name);
}

bool Writer::drain(bool last) {
    if (finished)
        return true;
    coded->Trim();
    bool ok = !coded->HadError();
    if (last)
        coded.reset();
    if (gzip)
        ok = (last ? gzip->Close() : gzip->Flush()) && ok;
    ok = ok && raw->Flush() && sink->flush_handle();
    finished = last;
    return ok;
}

namespace {

// ---- XSUBs -----------------------------------------------------------------------

// The IO of a file handle argument (a glob, a glob reference, an IO::Handle).
IO *io_of(pTHX_ SV *handle, const char *what) {
    SV *sv = SvROK(handle) ? SvRV(handle) : handle;
    IO *io = nullptr;
    if (isGV_with_GP(sv))
        io = GvIO(reinterpret_cast<GV *>(sv));
    else if (SvTYPE(sv) == SVt_PVIO)
        io = reinterpret_cast<IO *>(sv);
    if (!io)
        croak(kNotHandle, what);
    return io;
}

// Reports a problem of the reader behind `handle`: to on_error when there is
// one (a hash of file, index, offset, reason, message and fatal), else as a
// croak.  On return the caller must read the reader from the handle again:
// the callback may have closed it.
void report(pTHX_ SV *handle, Reader *r, SV *reason, bool fatal) {
    SV *message = sv_2mortal(newSVpvf(kReport, SVfARG(r->name), r->index, static_cast<IV>(r->offset), SVfARG(reason)));
    if (!r->on_error)
        croak_sv(message);
    HV *info = newHV();
    SV *info_ref = sv_2mortal(newRV_noinc(reinterpret_cast<SV *>(info)));
    hv_stores(info, "file", newSVsv(r->name));
    hv_stores(info, "index", newSVuv(r->index));
    hv_stores(info, "offset", newSViv(static_cast<IV>(r->offset)));
    hv_stores(info, "reason", newSVsv(reason));
    hv_stores(info, "message", newSVsv(message));
    hv_stores(info, "fatal", newSViv(fatal ? 1 : 0));
    SV *callback = sv_2mortal(newSVsv(r->on_error));
    // The object lives until the statement ends, whatever the callback does.
    sv_2mortal(SvREFCNT_inc_simple_NN(SvRV(handle)));
    dSP;
    PUSHMARK(SP);
    XPUSHs(info_ref);
    PUTBACK;
    call_sv(callback, G_DISCARD | G_VOID);
}

SV *frame_reason(pTHX_ Reader &r) {
    switch (r.problem) {
    case Problem::ReadError: return sv_2mortal(newSVpvf(kReadError, std::strerror(r.source->error())));
    case Problem::GzipError:
        if (r.gzip->status() == GunzipStream::Status::Truncated)
            return sv_2mortal(newSVpv(kGzipTruncated, 0));
        return sv_2mortal(newSVpvf(kGzipError, r.gzip->message()));
    case Problem::TruncatedPrefix: return sv_2mortal(newSVpv(kTruncatedPrefix, 0));
    case Problem::MalformedPrefix: return sv_2mortal(newSVpv(kMalformedPrefix, 0));
    case Problem::TruncatedRecord:
        return sv_2mortal(newSVpvf(kTruncatedRecord, static_cast<UV>(r.detail[0]), static_cast<UV>(r.detail[1])));
    case Problem::TooLong:
        return sv_2mortal(newSVpvf(kTooLong, static_cast<UV>(r.detail[0]), static_cast<UV>(r.detail[1])));
    default: return sv_2mortal(newSVpv(kRefused, 0));
    }
}

// Why a record does not decode, with where in the record.
SV *fault_reason(pTHX_ const codec::Fault &fault) {
    return sv_2mortal(newSVpvf(kMalformedAt, SVfARG(fault.reason), static_cast<UV>(fault.at)));
}

enum class Kind { Hash, Record, Bytes };

// next, next_record, next_bytes: the next record that reads, skipping (and
// reporting) those that do not; undef at the end or after a frame problem.
template <Kind kind> XS_INTERNAL(xs_next) {
    dXSARGS;
    if (items != 1)
        croak_xs_usage(cv, "self");
    SV *handle = ST(0);
    // A callback may change the variable that held the reader: the loop
    // keeps its own reference.
    if (live_message_from_handle<Reader>(aTHX_ handle).on_error)
        handle = sv_2mortal(newSVsv(handle));
    for (;;) {
        // Read from the handle each time: a callback may have closed it.
        Reader *r = message_from_handle<Reader>(aTHX_ handle);
        if (!r)
            XSRETURN_UNDEF;
        const Reader::Step step = r->read_frame();
        if (step == Reader::Step::End)
            XSRETURN_UNDEF;
        if (step == Reader::Step::Frame) {
            if (r->stripe_at == 0)
                report(aTHX_ handle, r, frame_reason(aTHX_ *r), true);
            XSRETURN_UNDEF;
        }
        if ((r->index - 1) % r->stripe_of != r->stripe_at)
            continue;  // another stripe's record
        if (step == Reader::Step::Skip) {
            report(aTHX_ handle, r, frame_reason(aTHX_ *r), false);
            continue;
        }
        const char *bytes = SvPVX(r->buffer);
        const STRLEN len = SvCUR(r->buffer);
        if (kind == Kind::Bytes) {
            ST(0) = sv_2mortal(newSVpvn(bytes, len));
            XSRETURN(1);
        }
        codec::Fault fault;
        if (kind == Kind::Hash) {
            if (SV *hash = codec::decode_buffer(aTHX_ bytes, len, r->options, fault, r->selective ? r->only : nullptr,
                                                &r->canonical)) {
                r->canonical_known = !r->selective && !(r->options & codec::kDropUnknown);
                ST(0) = hash;
                XSRETURN(1);
            }
            r->problem = Problem::Malformed;
            report(aTHX_ handle, r, fault_reason(aTHX_ fault), false);
            continue;
        }
        Record *m = new_record();
        SV *object = new_handle(aTHX_ gv_stashpv(kRecordClass, GV_ADD), m);
        const bool parsed = m->ParseFromArray(bytes, static_cast<int>(len));
        flush_runtime_log(aTHX);
        if (parsed) {
            ST(0) = object;
            XSRETURN(1);
        }
        // The codec says why, when it can.
        r->problem = Problem::Refused;
        const bool decodes = codec::decode_buffer(aTHX_ bytes, len, codec::kDropUnknown, fault);
        report(aTHX_ handle, r, decodes ? sv_2mortal(newSVpv(kRefused, 0)) : fault_reason(aTHX_ fault), false);
    }
}

// What the reader's accessors tell.
enum class ReaderInfo { Index, Offset, Name, BytesIn, Compressed, LastBytes, Canonical };

template <ReaderInfo which> XS_INTERNAL(xs_reader_info) {
    dXSARGS;
    if (items != 1)
        croak_xs_usage(cv, "self");
    const Reader &r = live_message_from_handle<Reader>(aTHX_ ST(0));
    switch (which) {
    case ReaderInfo::Index: ST(0) = r.index ? sv_2mortal(newSVuv(r.index)) : &PL_sv_undef; break;
    case ReaderInfo::Offset:
        ST(0) = r.offset >= 0 ? sv_2mortal(newSViv(static_cast<IV>(r.offset))) : &PL_sv_undef;
        break;
    case ReaderInfo::Name: ST(0) = sv_2mortal(newSVsv(r.name)); break;
    case ReaderInfo::BytesIn: ST(0) = sv_2mortal(newSVuv(static_cast<UV>(r.source->bytes_read()))); break;
    case ReaderInfo::Compressed: ST(0) = r.gzip ? &PL_sv_yes : &PL_sv_no; break;
    case ReaderInfo::LastBytes: ST(0) = r.index ? sv_2mortal(newSVsv(r.buffer)) : &PL_sv_undef; break;
    case ReaderInfo::Canonical:
        ST(0) = !r.canonical_known ? &PL_sv_undef : r.canonical ? &PL_sv_yes : &PL_sv_no;
        break;
    }
    XSRETURN(1);
}

// _open(CLASS, SOURCE, NAME, CODEC, ON_ERROR, MAX_RECORD, FIELDS, STRIPE_AT,
// STRIPE_OF): SOURCE is a file handle or a reference to a byte string; CODEC
// the codec object next decodes with; FIELDS an array of the field names next
// decodes, or undef for all.
XS_INTERNAL(xs_reader_open) {
    dXSARGS;
    if (items != 9)
        croak_xs_usage(cv, "class, source, name, codec, on_error, max_record, fields, stripe_at, stripe_of");
    unsigned options = codec_options(aTHX_ ST(3));
    const UV stripe_at = SvUV(ST(7));
    const UV stripe_of = SvUV(ST(8));
    if (stripe_of == 0 || stripe_at >= stripe_of)
        croak("stripe %" UVuf " of %" UVuf " does not exist", stripe_at, stripe_of);
    uint64_t only[(kRecordFieldCount + 63) / 64] = {};
    const bool selective = SvROK(ST(6)) && SvTYPE(SvRV(ST(6))) == SVt_PVAV;
    if (selective) {
        AV *names = reinterpret_cast<AV *>(SvRV(ST(6)));
        const codec::Level &level = *codec::levels().record;
        for (SSize_t k = 0; k <= av_len(names); ++k) {
            SV **name = av_fetch(names, k, 0);
            STRLEN len = 0;
            const char *text = name ? SvPV(*name, len) : "";
            const codec::Field *f = level.find_name(text, len);
            if (!f)
                croak("unknown field \"%s\"", text);
            const size_t i = static_cast<size_t>(f - level.fields);
            only[i / 64] |= uint64_t(1) << (i % 64);
        }
        options |= codec::kDropUnknown;  // unknown fields go with the fields not asked for
    }
    SV *src = ST(1);
    std::unique_ptr<Source> source;
    SV *bytes = nullptr;
    if (SvROK(src) && !SvOBJECT(SvRV(src)) && SvTYPE(SvRV(src)) < SVt_PVAV && !isGV_with_GP(SvRV(src))) {
        SV *referent = SvRV(src);
        if (SvPOK(referent) && !SvUTF8(referent) && !SvGMAGICAL(referent)) {
            bytes = newSVsv(referent);
        } else {
            SV *copy = sv_mortalcopy(referent);
            STRLEN len;
            SvPV(copy, len);
            if (SvUTF8(copy) && !sv_utf8_downgrade(copy, TRUE))
                croak("%s", kWideScalar);
            bytes = newSVsv(copy);
        }
        SvPV_force_nolen(bytes);
    } else {
        (void)io_of(aTHX_ src, "source");
    }
    // From here on nothing croaks until the object owns everything.
    if (bytes)
        source.reset(new ScalarSource(aTHX_ bytes));
    else
        source.reset(new HandleSource(aTHX_ io_of(aTHX_ src, "source")));
    SV *on_error = SvOK(ST(4)) ? newSVsv(ST(4)) : nullptr;
    Reader *r = new Reader(aTHX_ std::move(source), newSVsv(ST(2)), on_error,
                           options, static_cast<uint64_t>(SvUV(ST(5))));
    r->selective = selective;
    std::memcpy(r->only, only, sizeof only);
    r->stripe_at = stripe_at;
    r->stripe_of = stripe_of;
    ST(0) = new_handle(aTHX_ gv_stashsv(ST(0), GV_ADD), r);
    XSRETURN(1);
}

// _open(CLASS, HANDLE, NAME, CODEC, GZIP_LEVEL): CODEC is the codec object
// write_event encodes with; GZIP_LEVEL -1 writes plain records.
XS_INTERNAL(xs_writer_open) {
    dXSARGS;
    if (items != 5)
        croak_xs_usage(cv, "class, handle, name, codec, gzip_level");
    const unsigned options = codec_options(aTHX_ ST(3));
    IO *io = io_of(aTHX_ ST(1), "destination");
    const IV level = SvIV(ST(4));
    Writer *w = new Writer(aTHX_ io, newSVsv(ST(2)), options,
                           level < -1 ? -1 : level > 9 ? 9 : static_cast<int>(level));
    ST(0) = new_handle(aTHX_ gv_stashsv(ST(0), GV_ADD), w);
    XSRETURN(1);
}

[[noreturn]] void write_failed(pTHX_ Writer &w) {
    croak(kWriteError, SVfARG(w.name), std::strerror(w.sink->error() ? w.sink->error() : EIO));
}

Writer &open_writer(pTHX_ SV *handle) {
    Writer &w = live_message_from_handle<Writer>(aTHX_ handle);
    if (w.finished)
        croak("%s", Binding<Writer>::kEmpty);
    return w;
}

void put_frame(pTHX_ Writer &w, const char *bytes, size_t len) {
    w.coded->WriteVarint32(static_cast<uint32_t>(len));
    w.coded->WriteRaw(bytes, static_cast<int>(len));
    if (w.coded->HadError())
        write_failed(aTHX_ w);
    ++w.count;
}

XS_INTERNAL(xs_write_event) {
    dXSARGS;
    if (items != 2)
        croak_xs_usage(cv, "self, hashref");
    const unsigned options = open_writer(aTHX_ ST(0)).options;
    SV *bytes = codec::encode_hash(aTHX_ ST(1), options);
    Writer &w = open_writer(aTHX_ ST(0));  // a tied value may have closed it
    put_frame(aTHX_ w, SvPVX(bytes), SvCUR(bytes));
    XSRETURN_EMPTY;
}

XS_INTERNAL(xs_write_bytes) {
    dXSARGS;
    if (items != 2)
        croak_xs_usage(cv, "self, bytes");
    SV *arg = fetched_once(aTHX_ ST(1));
    if (SvROK(arg) || !SvOK(arg))
        croak("%s", kExpectedBytes);
    STRLEN len;
    const char *p = SvPV(arg, len);
    if (SvUTF8(arg)) {
        SV *copy = sv_mortalcopy(arg);
        if (!sv_utf8_downgrade(copy, TRUE))
            croak("%s", kWideBytes);
        p = SvPV(copy, len);
    }
    if (len > kMaxLength)
        croak(kBytesTooLong, static_cast<UV>(len));
    put_frame(aTHX_ open_writer(aTHX_ ST(0)), p, len);
    XSRETURN_EMPTY;
}

// A record object is written as its true encoding, whatever the class's pack
// gives for it (an empty record is a zero length and no bytes).
XS_INTERNAL(xs_write_record) {
    dXSARGS;
    if (items != 2)
        croak_xs_usage(cv, "self, record");
    open_writer(aTHX_ ST(0));
    check_type<Record>(aTHX_ ST(1));
    const Record *m = message_of<Record>(aTHX_ ST(1), kForgedSource);
    if (!m)
        croak("%s", kNoRecord);
    const size_t size = m->ByteSizeLong();
    if (size > kMaxLength)
        croak(kRecordTooLong, static_cast<UV>(size));
    Writer &w = open_writer(aTHX_ ST(0));
    w.coded->WriteVarint32(static_cast<uint32_t>(size));
    serialise_record(*w.coded, *m, size, w.scratch);
    flush_runtime_log(aTHX);
    if (w.coded->HadError())
        write_failed(aTHX_ w);
    ++w.count;
    XSRETURN_EMPTY;
}

XS_INTERNAL(xs_writer_flush) {
    dXSARGS;
    if (items != 1)
        croak_xs_usage(cv, "self");
    Writer &w = open_writer(aTHX_ ST(0));
    if (!w.flush())
        write_failed(aTHX_ w);
    XSRETURN_EMPTY;
}

// _finish: the rest of the data and the end of the gzip stream; the writer
// takes no more records.  The file handle stays open (close, in Perl, closes
// a file the writer opened itself).
XS_INTERNAL(xs_writer_close) {
    dXSARGS;
    if (items != 1)
        croak_xs_usage(cv, "self");
    Writer &w = live_message_from_handle<Writer>(aTHX_ ST(0));
    if (!w.finish())
        write_failed(aTHX_ w);
    XSRETURN_EMPTY;
}

enum class WriterInfo { Count, Name };

template <WriterInfo which> XS_INTERNAL(xs_writer_info) {
    dXSARGS;
    if (items != 1)
        croak_xs_usage(cv, "self");
    const Writer &w = live_message_from_handle<Writer>(aTHX_ ST(0));
    switch (which) {
    case WriterInfo::Count: ST(0) = sv_2mortal(newSVuv(w.count)); break;
    case WriterInfo::Name: ST(0) = sv_2mortal(newSVsv(w.name)); break;
    }
    XSRETURN(1);
}

// DESTROY of a writer finishes it; a failure then can only be a warning.
XS_INTERNAL(xs_writer_destroy) {
    dXSARGS;
    if (items != 1)
        croak_xs_usage(cv, "self");
    check_type<Writer>(aTHX_ ST(0));
    MAGIC *mg = mark_of<Writer>(SvRV(ST(0)));
    if (!mg || !mg->mg_ptr)
        XSRETURN_EMPTY;
    Writer *w = reinterpret_cast<Writer *>(mg->mg_ptr);
    const bool ok = w->finish();
    const int error = w->sink->error();
    SV *name = sv_2mortal(newSVsv(w->name));
    destroy_handle<Writer>(aTHX_ ST(0));
    if (!ok)
        Perl_warn(aTHX_ kWriteErrorDestroy, SVfARG(name), std::strerror(error ? error : EIO));
    XSRETURN_EMPTY;
}

template <class T> XS_INTERNAL(xs_destroy) {
    dXSARGS;
    if (items != 1)
        croak_xs_usage(cv, "self");
    destroy_handle<T>(aTHX_ ST(0));
    XSRETURN_EMPTY;
}

struct Entry {
    const char *name;
    XSUBADDR_t xsub;
};

constexpr Entry kEntries[] = {
    {"quillon_event_log::Stream::Reader::_open", xs_reader_open},
    {"quillon_event_log::Stream::Reader::next", xs_next<Kind::Hash>},
    {"quillon_event_log::Stream::Reader::next_record", xs_next<Kind::Record>},
    {"quillon_event_log::Stream::Reader::next_bytes", xs_next<Kind::Bytes>},
    {"quillon_event_log::Stream::Reader::index", xs_reader_info<ReaderInfo::Index>},
    {"quillon_event_log::Stream::Reader::offset", xs_reader_info<ReaderInfo::Offset>},
    {"quillon_event_log::Stream::Reader::name", xs_reader_info<ReaderInfo::Name>},
    {"quillon_event_log::Stream::Reader::bytes_in", xs_reader_info<ReaderInfo::BytesIn>},
    {"quillon_event_log::Stream::Reader::compressed", xs_reader_info<ReaderInfo::Compressed>},
    {"quillon_event_log::Stream::Reader::last_bytes", xs_reader_info<ReaderInfo::LastBytes>},
    {"quillon_event_log::Stream::Reader::canonical", xs_reader_info<ReaderInfo::Canonical>},
    {"quillon_event_log::Stream::Reader::close", xs_destroy<Reader>},
    {"quillon_event_log::Stream::Reader::DESTROY", xs_destroy<Reader>},
    {"quillon_event_log::Stream::Writer::_open", xs_writer_open},
    {"quillon_event_log::Stream::Writer::write_event", xs_write_event},
    {"quillon_event_log::Stream::Writer::write_bytes", xs_write_bytes},
    {"quillon_event_log::Stream::Writer::write_record", xs_write_record},
    {"quillon_event_log::Stream::Writer::flush", xs_writer_flush},
    {"quillon_event_log::Stream::Writer::_finish", xs_writer_close},
    {"quillon_event_log::Stream::Writer::count", xs_writer_info<WriterInfo::Count>},
    {"quillon_event_log::Stream::Writer::name", xs_writer_info<WriterInfo::Name>},
    {"quillon_event_log::Stream::Writer::_destroy", xs_writer_destroy},
};

}  // namespace
}  // namespace stream

void register_stream(pTHX_ const char *file) {
    for (const stream::Entry &e : stream::kEntries)
        newXS_flags(e.name, e.xsub, file, nullptr, 0);
}

}  // namespace qel
