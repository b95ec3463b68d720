// The explorer itself, on faults small enough to know: what it finds, that a failure comes again, and how small it
// gets.
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nthost/host.h>
#include <nthost/schedule.h>

namespace {

using nthost::ExploreOptions;
using nthost::Schedule;
using nthost::ScheduleExplorer;
using nthost::ScheduleFailure;
using nthost::Strategy;

class Booted {
public:
    Booted() { nthost::Boot(); }
    ~Booted() { nthost::Shutdown(); }
};

// Two threads that add to a number in two steps, and a third that has nothing to do with it.
void LosesAnUpdate(Schedule& schedule)
{
    const Booted host;
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    int number = 0, added = 0;
    const auto locked = [&lock](auto step) {
        KIRQL before;
        KeAcquireSpinLock(&lock, &before);
        step();
        KeReleaseSpinLock(&lock, before);
    };
    const auto add = [&] {
        int seen = 0;
        locked([&] { seen = number; });
        locked([&] { number = seen + 1, ++added; });
    };
    schedule.Run({add, add, [&] { locked([] {}); }});
    if (number != added) schedule.Fail("an update is lost");
}

void TakesTwoInBothOrders(Schedule& schedule)
{
    const Booted host;
    KEVENT first, second;
    for (KEVENT* event : {&first, &second}) KeInitializeEvent(event, SynchronizationEvent, TRUE);
    const auto both = [](KEVENT* one, KEVENT* other) {
        for (KEVENT* event : {one, other}) (void)KeWaitForSingleObject(event, Executive, KernelMode, FALSE, nullptr);
        for (KEVENT* event : {one, other}) KeSetEvent(event, IO_NO_INCREMENT, FALSE);
    };
    schedule.Run({[&] { both(&first, &second); }, [&] { both(&second, &first); }});
}

TEST(Schedules, FindALostUpdateByEachStrategyAndTellTheLeastOfIt)
{
    for (const Strategy how : {Strategy::Mixed, Strategy::Walk, Strategy::Priority, Strategy::Bounded}) {
        ScheduleExplorer explorer(LosesAnUpdate);
        const auto failure = explorer.Explore({.FirstSeed = 0, .Count = 500, .How = how});
        ASSERT_TRUE(failure);
        EXPECT_EQ(failure->What, "an update is lost");
        EXPECT_EQ(failure->Bodies.size(), 3u);
        const auto again = explorer.Explore({.FirstSeed = failure->Seed, .Count = 1, .How = how});
        ASSERT_TRUE(again);
        ASSERT_EQ(again->Switches.size(), failure->Switches.size());
        for (size_t i = 0; i < again->Switches.size(); ++i) {
            EXPECT_EQ(again->Switches[i].Choice, failure->Switches[i].Choice);
            EXPECT_EQ(again->Switches[i].Thread, failure->Switches[i].Thread);
        }
        const ScheduleFailure least = explorer.Shrink(*failure);
        EXPECT_EQ(least.Bodies, (std::vector<unsigned>{0, 1}));
        EXPECT_LE(least.Switches.size(), 2u);
        EXPECT_TRUE(explorer.Replay(least));
    }
}

TEST(Schedules, AHangShowsWhatEachThreadWaitsFor)
{
    const auto failure = ScheduleExplorer(TakesTwoInBothOrders).Explore({.Count = 500});
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->What, "nthost: hang: no thread can run");
    size_t waits = 0;
    for (size_t at = 0; (at = failure->Report.find("waits for an object", at)) != std::string::npos; ++at) ++waits;
    EXPECT_GE(waits, 2u);
}

TEST(Schedules, TimePassesWhenNobodyCanRun)
{
    const auto failure = ScheduleExplorer([](Schedule& schedule) {
                             const Booted host;
                             KEVENT never;
                             KeInitializeEvent(&never, NotificationEvent, FALSE);
                             schedule.Run({[&] {
                                 LARGE_INTEGER hour = {};
                                 hour.QuadPart = -36'000'000'000;
                                 LARGE_INTEGER before, after;
                                 KeQuerySystemTime(&before);
                                 const NTSTATUS status =
                                     KeWaitForSingleObject(&never, Executive, KernelMode, FALSE, &hour);
                                 KeQuerySystemTime(&after);
                                 if (status != STATUS_TIMEOUT) schedule.Fail("no timeout");
                                 if (after.QuadPart - before.QuadPart < 36'000'000'000)
                                     schedule.Fail("the clock stands");
                             }});
                         }).Explore({.Count = 3});
    EXPECT_FALSE(failure) << failure->Text();
}

TEST(Schedules, AnExceptionAndACrashAreFailures)
{
    const auto thrown = ScheduleExplorer([](Schedule& schedule) {
                            const Booted host;
                            schedule.Run({[] { throw std::runtime_error("thrown"); }});
                        }).Explore({.Count = 1});
    ASSERT_TRUE(thrown);
    EXPECT_EQ(thrown->What, "thrown");
    const auto ended = ScheduleExplorer([](Schedule&) { abort(); }).Explore({.Count = 1});
    ASSERT_TRUE(ended);
    EXPECT_EQ(ended->What, "ended by Aborted");
}

} // namespace
