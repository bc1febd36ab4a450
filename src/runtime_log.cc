// Where the protobuf runtime's log lines go.  One handler, installed once per
// process, sends each line to the state of the interpreter whose thread wrote
// it: printed by the runtime's own handler ("stderr", the default), queued and
// raised as Perl warnings once the C++ call has returned ("warn"), or counted
// ("silent").  The Perl side is quillon_event_log::RuntimeLog.
#include "runtime_log.h"

#include <cstring>
#include <mutex>
#include <string>

#include <google/protobuf/stubs/logging.h>

#define MY_CXT_KEY "quillon_event_log::RuntimeLog::_guts" XS_VERSION

namespace qel {
namespace {

enum Mode : int { kStderr, kWarn, kSilent };

constexpr const char *kModeNames[] = {"stderr", "warn", "silent"};
constexpr char kEnvName[] = "QUILLON_EVENT_LOG_RUNTIME_LOG";
constexpr char kCategory[] = "quillon_event_log::RuntimeLog";
constexpr char kUnknownMode[] = "unknown runtime log mode \"%s\" (expected stderr, warn or silent)";
constexpr char kUnknownEnvMode[] =
    "QUILLON_EVENT_LOG_RUNTIME_LOG: unknown runtime log mode \"%s\" (expected stderr, warn or silent); "
    "using stderr\n";  // at load time Perl would name its own loader as the place

}  // namespace
}  // namespace qel

// Per interpreter; a new thread's interpreter gets its own copy (CLONE below).
typedef struct {
    int mode;
    UV silenced;
    AV *pending;  // lines queued in warn mode, raised by flush_runtime_log
    IV category_bit;  // the category's bit in a warnings mask, -1 until looked up
} my_cxt_t;

START_MY_CXT

namespace qel {
namespace {

google::protobuf::LogHandler *runtime_handler = nullptr;  // the runtime's own, which prints
std::once_flag handler_installed;

// The state of the interpreter running on this thread, if it has loaded the
// module.  Another library in the process may make the runtime log from an
// interpreter that never did, or from a thread with no interpreter at all.
my_cxt_t *state_of_this_thread() {
    PerlInterpreter *my_perl = static_cast<PerlInterpreter *>(PERL_GET_THX);
    if (!my_perl || my_cxt_index < 0 || my_cxt_index >= PL_my_cxt_size || !PL_my_cxt_list)
        return nullptr;
    return static_cast<my_cxt_t *>(PL_my_cxt_list[my_cxt_index]);
}

void handle_line(google::protobuf::LogLevel level, const char *filename, int line, const std::string &message) {
    my_cxt_t *cxt = level == google::protobuf::LOGLEVEL_FATAL ? nullptr : state_of_this_thread();
    if (!cxt || cxt->mode == kStderr) {
        runtime_handler(level, filename, line, message);
        return;
    }
    if (cxt->mode == kSilent) {
        ++cxt->silenced;
        return;
    }
    // The runtime ends its lines with a blank; Perl's " at FILE line N." follows.
    size_t len = message.size();
    while (len > 0 && (message[len - 1] == ' ' || message[len - 1] == '\n'))
        --len;
    dTHX;
    av_push(cxt->pending, newSVpvn(message.data(), len));
}

int mode_named(const char *name) {
    for (int m = kStderr; m <= kSilent; ++m)
        if (std::strcmp(name, kModeNames[m]) == 0)
            return m;
    return -1;
}

enum class Raise { Not, Warn, Die };

// What the caller's lexical warnings make of the category.  It is on unless
// switched off: with no warnings pragma in scope it warns (-X silences
// everything); `use warnings FATAL => ...` makes it die.  A scope compiled
// before the category existed has a mask too short to hold its bits, so
// "all" decides there.
Raise how_to_raise(pTHX_ my_cxt_t *cxt) {
    if (PL_dowarn & G_WARN_ALL_OFF)
        return Raise::Not;
    if (PL_dowarn & G_WARN_ALL_ON)
        return Raise::Warn;
    const STRLEN *mask = PL_curcop->cop_warnings;
    if (mask == pWARN_STD || mask == pWARN_ALL)
        return Raise::Warn;
    if (mask == pWARN_NONE)
        return Raise::Not;
    if (cxt->category_bit < 0) {
        HV *offsets = get_hv("warnings::Offsets", 0);
        SV **bit = offsets ? hv_fetch(offsets, kCategory, sizeof kCategory - 1, 0) : nullptr;
        if (!bit)
            return Raise::Warn;  // not registered: only `no warnings` silences
        cxt->category_bit = SvIV(*bit);
    }
    STRLEN bit = static_cast<STRLEN>(cxt->category_bit);
    if (bit / 8 >= *mask)
        bit = 0;  // the "all" category
    const U8 *bits = reinterpret_cast<const U8 *>(mask + 1);
    const auto is_set = [bits](STRLEN b) { return (bits[b / 8] & (1u << (b % 8))) != 0; };
    if (!is_set(bit))
        return Raise::Not;
    return is_set(bit + 1) ? Raise::Die : Raise::Warn;  // each category's fatal bit follows it
}

// quillon_event_log::RuntimeLog::mode([NEW]): the mode in effect before the call.
XS_INTERNAL(xs_mode) {
    dXSARGS;
    dMY_CXT;
    if (items > 1)
        croak_xs_usage(cv, "[mode]");
    const int previous = MY_CXT.mode;
    if (items == 1) {
        const char *name = SvPV_nolen(ST(0));
        const int mode = mode_named(name);
        if (mode < 0)
            croak(kUnknownMode, name);
        MY_CXT.mode = mode;
    }
    ST(0) = sv_2mortal(newSVpv(kModeNames[previous], 0));
    XSRETURN(1);
}

XS_INTERNAL(xs_silenced) {
    dXSARGS;
    dMY_CXT;
    if (items != 0)
        croak_xs_usage(cv, "");
    ST(0) = sv_2mortal(newSVuv(MY_CXT.silenced));
    XSRETURN(1);
}

XS_INTERNAL(xs_reset_silenced) {
    dXSARGS;
    dMY_CXT;
    if (items != 0)
        croak_xs_usage(cv, "");
    const UV count = MY_CXT.silenced;
    MY_CXT.silenced = 0;
    ST(0) = sv_2mortal(newSVuv(count));
    XSRETURN(1);
}

// A new thread's interpreter starts with its parent's mode, a zero count and
// nothing queued.
XS_INTERNAL(xs_clone) {
    dXSARGS;
    PERL_UNUSED_VAR(items);
    MY_CXT_CLONE;  // a copy of the parent's state, mode included
    MY_CXT.silenced = 0;
    MY_CXT.pending = newAV();
    MY_CXT.category_bit = -1;
    XSRETURN_EMPTY;
}

}  // namespace

void init_runtime_log(pTHX_ const char *file) {
    std::call_once(handler_installed,
                   [] { runtime_handler = google::protobuf::SetLogHandler(handle_line); });
    MY_CXT_INIT;
    MY_CXT.mode = kStderr;
    MY_CXT.silenced = 0;
    MY_CXT.pending = newAV();
    MY_CXT.category_bit = -1;

    newXS_flags("quillon_event_log::RuntimeLog::mode", xs_mode, file, nullptr, 0);
    newXS_flags("quillon_event_log::RuntimeLog::silenced", xs_silenced, file, nullptr, 0);
    newXS_flags("quillon_event_log::RuntimeLog::reset_silenced", xs_reset_silenced, file, nullptr, 0);
    newXS_flags("quillon_event_log::RuntimeLog::CLONE", xs_clone, file, nullptr, 0);

    HV *environment = PL_envgv ? GvHV(PL_envgv) : nullptr;
    SV **env = environment ? hv_fetch(environment, kEnvName, sizeof kEnvName - 1, 0) : nullptr;
    if (env && SvOK(*env)) {
        const char *name = SvPV_nolen(*env);
        const int mode = mode_named(name);
        if (mode < 0)
            warn(kUnknownEnvMode, name);
        else
            MY_CXT.mode = mode;
    }
}

void flush_runtime_log(pTHX) {
    dMY_CXT;
    if (AvFILLp(MY_CXT.pending) < 0)
        return;
    // The queue is swapped out before anything is raised: a __WARN__ handler
    // that dies leaves an empty queue behind and the batch to the mortals.
    AV *batch = MY_CXT.pending;
    MY_CXT.pending = newAV();
    sv_2mortal(reinterpret_cast<SV *>(batch));
    const Raise raise = how_to_raise(aTHX_ &MY_CXT);
    if (raise == Raise::Die)
        croak("%" SVf, SVfARG(AvARRAY(batch)[0]));
    if (raise == Raise::Warn)
        for (SSize_t i = 0; i <= AvFILLp(batch); ++i)
            warn("%" SVf, SVfARG(AvARRAY(batch)[i]));
}

}  // namespace qel
