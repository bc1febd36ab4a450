// quillon_event_log::Codec: the strict one-call codec between the hash form of
// a record and its wire bytes, with no record object in between.
#ifndef QEL_CODEC_H
#define QEL_CODEC_H

#include "binding.h"

namespace qel {

// The option bits of a codec object, or a croak for anything else.  A
// subclass's objects count; the referent must be what new makes.
unsigned codec_options(pTHX_ SV *codec);

// Boot: registers the XSUBs of quillon_event_log::Codec.
void register_codec(pTHX_ const char *file);

}  // namespace qel

#endif
