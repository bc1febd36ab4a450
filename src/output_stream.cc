// pack: the record is sized once, then serialised through OutputStream
// straight into the buffer of the Perl string that pack returns.
#include "output_stream.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include <google/protobuf/io/coded_stream.h>

#include "convert.h"

namespace qel {

namespace {
// The serialiser keeps this many bytes of slack past its current block; a
// first block that large beyond the encoding lets it write everything in place.
constexpr size_t kSerialiserSlop = 16;
// What pack returns for a record without fields (see pack_record).
constexpr size_t kEmptyPackLength = 16;
}  // namespace

OutputStream::OutputStream(pTHX_ SV *target, size_t first_block)
    : my_perl(aTHX), target_(target), start_(0), end_(0),
      next_block_(std::max<size_t>(first_block, 16)) {
    // Blocks are written before the string's length covers them, so the
    // buffer must be the target's own and start at its beginning: a shared
    // (copy-on-write) buffer is copied, and an offset start moved back, now,
    // while the length still covers every byte that counts.
    if (SvIsCOW(target_))
        sv_force_normal_flags(target_, 0);
    if (SvOOK(target_))
        SvOOK_off(target_);
    start_ = end_ = SvCUR(target_);
}

bool OutputStream::Next(void **data, int *size) {
    // Keep one byte past the block for the string's terminating NUL.
    size_t capacity = SvLEN(target_) ? SvLEN(target_) - 1 : 0;
    if (capacity < end_ + next_block_) {
        sv_grow(target_, end_ + next_block_ + 1);
        capacity = SvLEN(target_) - 1;
    }
    const size_t block = std::min<size_t>(capacity - end_, INT_MAX);
    *data = SvPVX(target_) + end_;
    *size = static_cast<int>(block);
    end_ += block;
    next_block_ = std::max(next_block_, end_ - start_);  // grow geometrically
    return true;
}

void OutputStream::BackUp(int count) { end_ -= static_cast<size_t>(count); }

int64_t OutputStream::ByteCount() const { return static_cast<int64_t>(end_ - start_); }

void OutputStream::finish() {
    if (!SvPVX(target_))
        sv_grow(target_, end_ + 1);
    SvCUR_set(target_, end_);
    *SvEND(target_) = '\0';
}

SV *pack_record(pTHX_ const Record &m) {
    if (!m.IsInitialized()) {
        // Cannot happen while the schema has no required field.  The text is
        // copied into a mortal first: croak does not unwind C++ objects.
        SV *missing = sv_2mortal(value_to_sv(aTHX_ m.InitializationErrorString()));
        croak(kMissingRequired, SvPV_nolen(missing));
    }
    const size_t size = m.ByteSizeLong();
    if (size > INT_MAX)
        return nullptr;
    SV *out = newSVpvn("", 0);
    if (size == 0) {
        // On purpose: an empty record packs to 16 zero bytes, not to the empty
        // string, while length() says 0.
        sv_grow(out, kEmptyPackLength + 1);
        std::memset(SvPVX(out), 0, kEmptyPackLength + 1);
        SvCUR_set(out, kEmptyPackLength);
        return out;
    }
    OutputStream stream(aTHX_ out, size + kSerialiserSlop);
    {
        google::protobuf::io::CodedOutputStream coded(&stream);
        m.SerializeWithCachedSizes(&coded);
    }  // the coded stream gives back its unused tail here
    stream.finish();
    return out;
}

}  // namespace qel
