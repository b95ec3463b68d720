// What others may know of the calls that a thread makes into driver code.
#include <nthost/calls.h>

#include "ke/callout.h"

namespace nthost {

namespace {

thread_local ExceptionWatch* innermost;

} // namespace

ExceptionWatch::ExceptionWatch(PNT_GUARD guard, ExceptionNote* note) : outer_(innermost), guard_(guard), note_(note)
{
    innermost = this;
}

ExceptionWatch::~ExceptionWatch() { innermost = outer_; }

ExceptionNote* ExceptionWatch::NoteOf(PNT_GUARD guard)
{
    return innermost && innermost->guard_ == guard ? innermost->note_ : nullptr;
}

void RunAsDriver(const std::function<void()>& body)
{
    CallDriver(MustRestore::Nothing, "driver code", [&] { body(); });
}

} // namespace nthost
