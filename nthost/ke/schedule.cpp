// The turn, and who gets it next. One lock guards the table of threads; a thread without the turn sleeps on a word of
// its own. Nothing here allocates: it is called from the fault handler.
#include "ke/schedule.h"

#include <cstdio>
#include <cstdlib>
#include <linux/futex.h>
#include <mutex>
#include <sys/syscall.h>
#include <unistd.h>

#include "check/fatal.h"
#include "check/stack.h"
#include "ke/park.h"
#include "ke/schedule_strategy.h"

namespace nthost::ke {

namespace {

constexpr unsigned kThreads = 256;
constexpr uint64_t kMostSteps = 2'000'000; // of one schedule; tens of thousands are usual
constexpr int64_t kStepTime = 100;         // nanoseconds

enum class State : uint8_t { Free, Ready, Parked };
enum Turn : uint32_t { Wait, Go, Describe };

struct Slot {
    std::atomic<uint32_t> Turn;
    State Now;
    bool TimedOut;
    std::atomic<uint32_t>* Word;
    int64_t Deadline;
    uint64_t ParkedAt; // in order
    const char* Where;
    const char* WaitsFor;
    const void* Object;
    pthread_t Native;
    bool IsNamed;
};

std::mutex g_lock;
Slot g_slots[kThreads];
unsigned g_used; // tickets up to here have been given; they are not given again
unsigned g_running;
uint64_t g_steps, g_parks;
std::atomic<int64_t> g_time;
ScheduleStrategy g_strategy;
bool g_choosing;

thread_local unsigned t_ticket = kNoTicket;

void Sleep(std::atomic<uint32_t>& word, uint32_t value)
{
    syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, value, nullptr, nullptr, 0);
}

void Give(std::atomic<uint32_t>& word, uint32_t value)
{
    word.store(value, std::memory_order_release);
    syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

void DescribeThread(unsigned ticket)
{
    const Slot& slot = g_slots[ticket];
    fprintf(stderr, "thread %u: ", ticket);
    if (slot.Now == State::Parked)
        fprintf(stderr, "waits for %s %p\n", slot.WaitsFor ? slot.WaitsFor : "a word", slot.Object);
    else
        fprintf(stderr, "can run, at %s\n", slot.Where ? slot.Where : "its start");
    fputs(ThreadReport().c_str(), stderr);
    fputs(CurrentStackText().c_str(), stderr);
}

void AwaitTurn(unsigned ticket)
{
    std::atomic<uint32_t>& turn = g_slots[ticket].Turn;
    for (;;) {
        const uint32_t now = turn.load(std::memory_order_acquire);
        if (now == Go) break;
        if (now == Describe) {
            DescribeThread(ticket);
            Give(turn, Wait); // whoever asked looks for it
        }
        Sleep(turn, Wait);
    }
    turn.store(Wait, std::memory_order_relaxed);
}

// Whose time comes first, if somebody waits for time.
unsigned FirstDeadline()
{
    unsigned first = kNoTicket;
    for (unsigned i = 0; i < g_used; ++i)
        if (g_slots[i].Now == State::Parked && g_slots[i].Deadline != NoDeadline &&
            (first == kNoTicket || g_slots[i].Deadline < g_slots[first].Deadline))
            first = i;
    return first;
}

void Expire(unsigned ticket)
{
    Slot& slot = g_slots[ticket];
    if (slot.Deadline > g_time.load(std::memory_order_relaxed)) g_time.store(slot.Deadline, std::memory_order_relaxed);
    slot.TimedOut = true;
    slot.Now = State::Ready;
}

unsigned FindReady(unsigned* ready)
{
    unsigned count = 0;
    for (unsigned i = 0; i < g_used; ++i)
        if (g_slots[i].Now == State::Ready) ready[count++] = i;
    return count;
}

// kNoTicket when everybody waits for somebody else.
unsigned Next(unsigned self, bool givesWay)
{
    unsigned ready[kThreads];
    unsigned count = FindReady(ready);
    if (count == 0) {
        const unsigned first = FirstDeadline();
        if (first == kNoTicket) return kNoTicket;
        Expire(first);
        count = FindReady(ready);
    }
    // Without a choice whoever runs goes on, and after him the next in turn.
    unsigned usual = ready[0];
    for (unsigned i = count; i-- > 0;)
        if (ready[i] > self) usual = ready[i];
    if (g_slots[self].Now == State::Ready && !givesWay) usual = self;
    if (!g_choosing || count == 1) return usual;
    return g_strategy.Choose({ready, count, self, usual, givesWay});
}

// Passes the turn on; with the lock, which it gives up. The caller gets it back, unless it has left.
void PassTurn(std::unique_lock<std::mutex>& hold, unsigned self, bool givesWay)
{
    const bool stays = g_slots[self].Now != State::Free;
    if (++g_steps > kMostSteps) {
        hold.unlock();
        ReportHang("the schedule does not end");
    }
    g_time.fetch_add(kStepTime, std::memory_order_relaxed);
    const unsigned next = Next(self, givesWay);
    if (next == kNoTicket) {
        hold.unlock();
        ReportHang("hang: no thread can run");
    }
    g_running = next;
    hold.unlock();
    if (next == self) return;
    Give(g_slots[next].Turn, Go);
    if (stays) AwaitTurn(self);
}

unsigned FindNamed(pthread_t native)
{
    for (unsigned i = 0; i < g_used; ++i)
        if (g_slots[i].Now != State::Free && g_slots[i].IsNamed && pthread_equal(g_slots[i].Native, native)) return i;
    return kNoTicket;
}

void Switch(const char* where, bool givesWay)
{
    const unsigned self = t_ticket;
    if (self == kNoTicket) return;
    std::unique_lock hold(g_lock);
    g_slots[self].Where = where;
    PassTurn(hold, self, givesWay);
}

} // namespace

void BeginSchedule()
{
    for (Slot& slot : g_slots) {
        slot.Turn.store(Wait);
        slot.Now = State::Free;
        slot.WaitsFor = nullptr;
    }
    g_used = g_running = 0;
    g_steps = g_parks = 0;
    g_time = 1'000'000'000;
    g_choosing = false;
    scheduled = true;
    t_ticket = AnnounceThread();
}

void EndSchedule()
{
    scheduled = false;
    t_ticket = kNoTicket;
}

void BeginChoices(const SchedulePlan& plan, ScheduleLog* log)
{
    const std::lock_guard hold(g_lock);
    g_strategy.Begin(plan, log);
    g_choosing = true;
}

void EndChoices()
{
    const std::lock_guard hold(g_lock);
    g_choosing = false;
}

bool TakesPart() { return scheduled.load(std::memory_order_relaxed) && t_ticket != kNoTicket; }

unsigned CurrentTicket() { return TakesPart() ? t_ticket : kNoTicket; }

unsigned AnnounceThread()
{
    if (!scheduled.load(std::memory_order_relaxed)) return kNoTicket;
    const std::lock_guard hold(g_lock);
    if (g_used == kThreads) Fatal("a schedule has more than %u threads", kThreads);
    Slot& slot = g_slots[g_used];
    slot.Now = State::Ready;
    slot.Where = nullptr;
    slot.IsNamed = false;
    return g_used++;
}

void WithdrawThread(unsigned ticket)
{
    if (ticket == kNoTicket) return;
    const std::lock_guard hold(g_lock);
    g_slots[ticket].Now = State::Free;
}

void EnterSchedule(unsigned ticket)
{
    t_ticket = ticket;
    if (ticket != kNoTicket) AwaitTurn(ticket);
}

void LeaveSchedule()
{
    const unsigned self = t_ticket;
    if (self == kNoTicket) return;
    t_ticket = kNoTicket;
    std::unique_lock hold(g_lock);
    g_slots[self].Now = State::Free;
    for (unsigned i = 0; i < g_used; ++i)
        if (g_slots[i].Now == State::Parked && g_slots[i].Object == &g_slots[self]) g_slots[i].Now = State::Ready;
    PassTurn(hold, self, false);
}

void NameThread(unsigned ticket, pthread_t native)
{
    if (ticket == kNoTicket) return;
    const std::lock_guard hold(g_lock);
    g_slots[ticket].Native = native;
    g_slots[ticket].IsNamed = true;
}

void AwaitLeft(pthread_t native)
{
    if (!TakesPart()) return;
    for (;;) {
        std::unique_lock hold(g_lock);
        const unsigned ticket = FindNamed(native);
        if (ticket == kNoTicket) return;
        Slot& slot = g_slots[t_ticket];
        slot.Now = State::Parked;
        slot.Word = nullptr;
        slot.Deadline = NoDeadline;
        slot.WaitsFor = "the end of a thread";
        slot.Object = &g_slots[ticket];
        PassTurn(hold, t_ticket, false);
        slot.WaitsFor = nullptr;
        slot.Object = nullptr;
    }
}

bool ScheduledPark(std::atomic<uint32_t>* word, uint32_t expected, int64_t deadline)
{
    std::unique_lock hold(g_lock);
    if (word->load() != expected) return true;
    Slot& slot = g_slots[t_ticket];
    slot.Now = State::Parked;
    slot.Word = word;
    slot.Deadline = deadline;
    slot.TimedOut = false;
    slot.ParkedAt = ++g_parks;
    if (!slot.WaitsFor) slot.Object = word;
    PassTurn(hold, t_ticket, false);
    slot.WaitsFor = nullptr;
    return !slot.TimedOut;
}

void ScheduledUnpark(std::atomic<uint32_t>* word, unsigned count)
{
    const std::lock_guard hold(g_lock);
    for (; count > 0; --count) {
        Slot* first = nullptr;
        for (unsigned i = 0; i < g_used; ++i)
            if (g_slots[i].Now == State::Parked && g_slots[i].Word == word &&
                (!first || g_slots[i].ParkedAt < first->ParkedAt))
                first = &g_slots[i];
        if (!first) return;
        first->Now = State::Ready;
        first->Word = nullptr;
    }
}

void NoteWaitFor(const char* what, const void* object)
{
    if (!TakesPart()) return;
    g_slots[t_ticket].WaitsFor = what;
    g_slots[t_ticket].Object = object;
}

void SwitchHere(const char* where) { Switch(where, false); }

void SwitchAway() { Switch("a delay of nothing", true); }

int64_t ScheduleTime() { return g_time.load(std::memory_order_relaxed); }

void ReportHang(const char* what)
{
    fprintf(stderr, "nthost: %s\n", what);
    for (unsigned i = 0; i < g_used; ++i) {
        if (g_slots[i].Now == State::Free) continue;
        if (i == t_ticket) {
            DescribeThread(i);
            continue;
        }
        Give(g_slots[i].Turn, Describe);
        while (g_slots[i].Turn.load(std::memory_order_acquire) == Describe) usleep(100);
    }
    fflush(stderr);
    _exit(kHangExit);
}

} // namespace nthost::ke
