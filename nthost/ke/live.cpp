// A table beside the objects: their own memory may be freed without a delete, and that has to be told, not followed.
// One lock, taken last but for the findings' own.
#include "ke/live.h"

#include <map>
#include <mutex>

#include <nthost/check.h>

#include "ke/lock_order.h"
#include "check/stack.h"
#include "check/text.h"
#include "ke/clock.h"

namespace nthost::ke {

namespace {

struct Live {
    LiveKind Kind;
    CapturedStack Stack;
};

struct KindTexts {
    const char* Name;
    const char* Rule;
    const char* NotEnded;
    const char* Begun;
};

constexpr KindTexts kTexts[] = {
    {"resource", "resource-not-deleted", "not deleted", "initialised"},
    {"lookaside list", "lookaside-list-not-deleted", "not deleted", "initialised"},
    {"timer", "timer-not-cancelled", "still set", "set"},
};

std::mutex liveLock;

using Table = std::map<uintptr_t, Live>;

Table& Objects()
{
    static Table objects;
    return objects;
}

uintptr_t KeyOf(const void* address) { return reinterpret_cast<uintptr_t>(address); }

const KindTexts& TextsOf(const Live& live) { return kTexts[static_cast<size_t>(live.Kind)]; }

// Takes the objects in [begin, end) out of the table.
Table TakeRange(uintptr_t begin, uintptr_t end)
{
    Table taken;
    const std::lock_guard lock(liveLock);
    auto object = Objects().lower_bound(begin);
    while (object != Objects().end() && object->first < end) taken.insert(Objects().extract(object++));
    return taken;
}

} // namespace

void NoteLiveObject(LiveKind kind, const void* object)
{
    Live live{kind, {}};
    CaptureStack(live.Stack);
    std::lock_guard lock(liveLock);
    Objects()[KeyOf(object)] = live;
}

void ForgetLiveObject(const void* object)
{
    std::lock_guard lock(liveLock);
    Objects().erase(KeyOf(object));
}

void CheckNothingLiveIn(const void* memory, size_t size)
{
    for (const auto& [address, live] : TakeRange(KeyOf(memory), KeyOf(memory) + size)) {
        const KindTexts& texts = TextsOf(live);
        ReportFinding(texts.Rule, Format("the memory of a %s is freed; it was %s at\n", texts.Name, texts.Begun) +
                                      StackText(live.Stack));
        if (live.Kind == LiveKind::Timer) ForgetTimersIn(reinterpret_cast<void*>(address), 1);
    }
}

void ReportLive(std::vector<std::string>& lines)
{
    for (const auto& [address, live] : TakeRange(0, UINTPTR_MAX)) {
        const KindTexts& texts = TextsOf(live);
        lines.push_back(std::string(texts.Name) + " " + LockText(reinterpret_cast<void*>(address)) + " " +
                        texts.NotEnded + ", " + texts.Begun + " at\n" + StackText(live.Stack));
    }
    ForgetAllTimers();
}

} // namespace nthost::ke
