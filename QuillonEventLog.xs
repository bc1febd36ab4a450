/* The Perl class quillon_event_log::QuillonEventLog: its whole-record methods.
 * xsubpp registers these first; BOOT then adds the per-field accessors
 * (src/accessors.cc) in field-number order and the quillon_event_log::IPAddr
 * class (src/address.cc).  Each object is a blessed reference to a scalar
 * holding the address of the record it owns. */
#include "binding.h"

#include <cstring>

#include <google/protobuf/stubs/logging.h>

#include "accessors.h"
#include "address.h"
#include "codec.h"
#include "families.h"
#include "hash_form.h"
#include "output_stream.h"
#include "runtime_log.h"
#include "stream.h"
#include "wire_reader.h"

using namespace qel;

namespace {

/* Merging a record into itself is a broken precondition of the message class:
 * it ends the process through protobuf's fatal log, even inside eval, before
 * anything is merged.  The generated classes check this only in debug builds,
 * so the check is made here. */
[[noreturn]] void die_self_merge() {
    try {
        google::protobuf::internal::LogFinisher() =
            google::protobuf::internal::LogMessage(google::protobuf::LOGLEVEL_FATAL,
                                                   "src/quillon_event_log.pb", 3632)
            << "CHECK failed: (&from) != (this): ";
    } catch (...) {
    }
    std::abort();
}

void release_record(pTHX_ void *record) { free_record(static_cast<Record *>(record)); }

enum class SourceOp { Copy, Merge };

/* copy_from/merge_from: the source is a record object or a hash in the hash
 * form; anything else is ignored.  A source handle holding no record counts
 * as an empty record.  Reading the source may run Perl code (a tied source's
 * FETCH, tied values in the hash) that can free or replace the target's
 * record, so the target is taken from its handle only afterwards. */
void apply_source(pTHX_ SV *handle, SV *source, SourceOp op) {
    if (!record_from_handle(aTHX_ handle))
        return;
    source = fetched_once(aTHX_ source);
    if (is_object_of(aTHX_ source, kRecordClass, sizeof kRecordClass - 1)) {
        const Record *from = message_of<Record>(aTHX_ source, kForgedSource);
        Record *m = record_from_handle(aTHX_ handle);
        if (!m)
            return;
        if (op == SourceOp::Copy) {
            if (from)
                m->CopyFrom(*from);
            else
                m->Clear();
        } else if (from) {
            if (from == m)
                die_self_merge();
            m->MergeFrom(*from);
        }
        return;
    }
    if (!is_hash_ref(source))
        return;
    /* The temporary record is freed by the scope, also when reading the hash
     * dies (a tied value's FETCH). */
    ENTER;
    Record *from = new_record();
    SAVEDESTRUCTOR_X(release_record, from);
    fill_record(aTHX_ *from, reinterpret_cast<HV *>(SvRV(source)));
    if (Record *m = record_from_handle(aTHX_ handle)) {
        if (op == SourceOp::Copy)
            m->CopyFrom(*from);
        else
            m->MergeFrom(*from);
    }
    LEAVE;
}

/* Text form results; the empty string for an empty handle. */
template <std::string (google::protobuf::Message::*print)() const>
SV *text_form(pTHX_ SV *handle) {
    const Record *m = record_from_handle(aTHX_ handle);
    if (!m)
        return newSVpvn("", 0);
    const std::string text = (m->*print)();
    return newSVpvn(text.data(), text.size());
}

// ---- freeing a record without the DESTROY call ---------------------------
//
// Perl calls DESTROY through a full sub call inside an eval scope, which
// costs as much as making a small record.  For a handle of exactly this
// class, whose DESTROY is still this module's own, the call would do nothing
// the handle's mark does not do anyway when the scalar is freed a moment
// later (free_marked frees the record).  Perl asks PL_destroyhook whether an
// object is to be destroyed before it looks for DESTROY; this hook answers no
// for those handles, so they are freed by their mark alone.  Anything else
// takes the ordinary way: other classes and subclasses, a DESTROY replaced or
// wrapped (Perl's cache of the class's DESTROY then holds another sub, or is
// stale until the ordinary way refreshes it), handles made by other means, and
// every object at global destruction, where Perl does not free the scalars
// themselves and DESTROY is what frees the records.

destroyable_proc_t next_destroy_hook;  // the hook this one was put in front of
XSUBADDR_t record_destroy_xsub;        // the XSUB behind this class's DESTROY

bool freed_by_mark_alone(pTHX_ SV *sv) {
    if (SvTYPE(sv) != SVt_PVMG || PL_phase == PERL_PHASE_DESTRUCT || !mark_of<Record>(sv))
        return false;
    HV *stash = SvSTASH(sv);
    if (!stash || !SvOOK(stash) || HvNAMELEN(stash) != sizeof kRecordClass - 1 ||
        std::memcmp(HvNAME(stash), kRecordClass, sizeof kRecordClass - 1) != 0)
        return false;
    const struct mro_meta *meta = HvAUX(stash)->xhv_mro_meta;
    if (!meta || !meta->destroy_gen || meta->destroy_gen != PL_sub_generation)
        return false;
    const CV *destroy = meta->destroy;
    return destroy && CvISXSUB(destroy) && CvXSUB(destroy) == record_destroy_xsub;
}

bool destroyable(pTHX_ SV *sv) {
    return !freed_by_mark_alone(aTHX_ sv) && next_destroy_hook(aTHX_ sv);
}

void install_destroy_hook(pTHX) {
    CV *destroy = get_cv("quillon_event_log::QuillonEventLog::DESTROY", 0);
    if (!destroy || !CvISXSUB(destroy) || PL_destroyhook == destroyable)
        return;
    record_destroy_xsub = CvXSUB(destroy);
    next_destroy_hook = PL_destroyhook;
    PL_destroyhook = destroyable;
}

}  // namespace

MODULE = quillon_event_log::QuillonEventLog    PACKAGE = quillon_event_log::QuillonEventLog

PROTOTYPES: ENABLE

void
new(CLASS, ...)
    SV *CLASS
  PROTOTYPE: $;@
  PPCODE:
    const char *cls = SvPV_nolen(CLASS);
    /* On purpose only the exact class name: subclasses are refused here,
     * although every instance method accepts subclass objects. */
    if (std::strcmp(cls, kRecordClass) != 0)
        croak(kInvalidClass, cls);
    Record *m = new_record();
    /* The mortal handle owns the record from here on, so a hash whose reading
     * dies frees it. */
    SV *handle = new_handle(aTHX_ class_stash(aTHX_ cv, kRecordClass), m);
    if (items == 2) {
        SV *arg = fetched_once(aTHX_ ST(1));
        if (is_hash_ref(arg)) {
            fill_record(aTHX_ *m, reinterpret_cast<HV *>(SvRV(arg)));
        } else {
            /* Anything else is taken as wire bytes, an object of this class
             * included (its text form is parsed); a bad parse is not reported. */
            STRLEN len;
            const char *bytes = SvPV(arg, len);
            parse_record(*m, bytes, len);
            flush_runtime_log(aTHX);
        }
    }
    PUSHs(handle);

void
DESTROY(svTHIS)
    SV *svTHIS
  PROTOTYPE: $
  CODE:
    destroy_handle<Record>(aTHX_ svTHIS);

void
copy_from(svTHIS, sv)
    SV *svTHIS
    SV *sv
  PROTOTYPE: $$
  CODE:
    apply_source(aTHX_ svTHIS, sv, SourceOp::Copy);

void
merge_from(svTHIS, sv)
    SV *svTHIS
    SV *sv
  PROTOTYPE: $$
  CODE:
    apply_source(aTHX_ svTHIS, sv, SourceOp::Merge);

void
clear(svTHIS)
    SV *svTHIS
  PROTOTYPE: $
  CODE:
    if (Record *m = record_from_handle(aTHX_ svTHIS))
        m->Clear();

int
is_initialized(svTHIS)
    SV *svTHIS
  PROTOTYPE: $
  CODE:
    const Record *m = record_from_handle(aTHX_ svTHIS);
    RETVAL = m && m->IsInitialized() ? 1 : 0;
  OUTPUT:
    RETVAL

SV *
error_string(svTHIS)
    SV *svTHIS
  PROTOTYPE: $
  CODE:
    RETVAL = text_form<&Record::InitializationErrorString>(aTHX_ svTHIS);
  OUTPUT:
    RETVAL

void
discard_unkown_fields(svTHIS)
    SV *svTHIS
  PROTOTYPE: $
  CODE:
    /* The misspelt name is the public one. */
    if (Record *m = record_from_handle(aTHX_ svTHIS))
        m->DiscardUnknownFields();

SV *
debug_string(svTHIS)
    SV *svTHIS
  PROTOTYPE: $
  CODE:
    RETVAL = text_form<&Record::DebugString>(aTHX_ svTHIS);
  OUTPUT:
    RETVAL

SV *
short_debug_string(svTHIS)
    SV *svTHIS
  PROTOTYPE: $
  CODE:
    RETVAL = text_form<&Record::ShortDebugString>(aTHX_ svTHIS);
  OUTPUT:
    RETVAL

int
unpack(svTHIS, arg)
    SV *svTHIS
    SV *arg
  PROTOTYPE: $$
  CODE:
    /* Replaces the contents; on a failed parse the record keeps what was
     * read before the fault. */
    RETVAL = 0;
    if (record_from_handle(aTHX_ svTHIS)) {
        STRLEN len;
        const char *bytes = SvPV(arg, len);
        /* Reading the argument may have run Perl code that freed the record. */
        if (Record *m = record_from_handle(aTHX_ svTHIS))
            RETVAL = parse_record(*m, bytes, len);
        flush_runtime_log(aTHX);
    }
  OUTPUT:
    RETVAL

void
pack(svTHIS)
    SV *svTHIS
  PROTOTYPE: $
  PPCODE:
    const Record *m = record_from_handle(aTHX_ svTHIS);
    SV *bytes = m ? pack_record(aTHX_ *m) : nullptr;
    if (bytes)
        sv_2mortal(bytes);
    flush_runtime_log(aTHX);
    XPUSHs(bytes ? bytes : &PL_sv_undef);

IV
length(svTHIS)
    SV *svTHIS
  PROTOTYPE: $
  CODE:
    /* The wire format counts in signed 32 bits. */
    const Record *m = record_from_handle(aTHX_ svTHIS);
    RETVAL = m ? static_cast<int32_t>(m->ByteSizeLong()) : 0;
  OUTPUT:
    RETVAL

void
fields(svTHIS)
    SV *svTHIS
  PROTOTYPE: $
  PPCODE:
    /* No type test: it answers on the class name or any value. */
    PERL_UNUSED_VAR(svTHIS);
    EXTEND(SP, kRecordFieldCount);
    for (const auto &f : kRecordFields)
        mPUSHp(f.name, f.len);

void
to_hashref(svTHIS)
    SV *svTHIS
  PROTOTYPE: $
  PPCODE:
    const Record *m = record_from_handle(aTHX_ svTHIS);
    /* On purpose an empty handle gives a null result, not undef or {}. */
    EXTEND(SP, 1);
    PUSHs(m ? sv_2mortal(newRV_noinc(reinterpret_cast<SV *>(record_to_hash(aTHX_ *m)))) : nullptr);

BOOT:
    init_runtime_log(aTHX_ file);
    init_hash_keys(aTHX);
    register_accessors(aTHX_ file);
    register_address_class(aTHX_ file);
    register_codec(aTHX_ file);
    register_stream(aTHX_ file);
    install_destroy_hook(aTHX);
