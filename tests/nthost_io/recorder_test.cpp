// The recorder: what it keeps of requests, of calls inside of them and of waits, and that it can be read meanwhile.
#include "probe.h"

#include <algorithm>

#include <nthost/recorder.h>
#include <nthost/requests.h>

using namespace probe;
using nthost::RecordedSpan;
using nthost::SpanKind;

namespace {

class Recorder : public IoTest {
protected:
    // Of requests sent since the fixture began; others of the process are left out. Times of one reading only compare.
    std::vector<RecordedSpan> Spans(SpanKind kind, const std::string& name,
                                    std::vector<RecordedSpan> spans = nthost::RecordedSpans()) const
    {
        std::erase_if(spans, [&](const RecordedSpan& span) {
            return span.Request <= before_ || span.Kind != kind || span.Name != name;
        });
        return spans;
    }

private:
    const uint64_t before_ = nthost::RequestsSent();
};

nthost::SpanCounts CountsOf(SpanKind kind, const std::string& name)
{
    for (const nthost::SpanCounts& counts : nthost::RecordedCounts())
        if (counts.Kind == kind && counts.Name == name) return counts;
    return {};
}

uint64_t Failed(const nthost::SpanCounts& counts, NTSTATUS status)
{
    for (const auto& [failure, count] : counts.Failures)
        if (failure == status) return count;
    return 0;
}

TEST_F(Recorder, KeepsRequestsAndTheCallsInThem)
{
    const nthost::SpanName call = nthost::NameSpans(SpanKind::Call, "a call of this test");
    EXPECT_EQ(nthost::NameSpans(SpanKind::Call, std::string("a call of this test").c_str()), call);
    Driver().Majors[IRP_MJ_READ] = [&](PDEVICE_OBJECT, PIRP irp) {
        const uint64_t begun = nthost::SpanClock();
        nthost::NoteCall(call, begun, STATUS_SUCCESS, 5);
        return Complete(irp, STATUS_SUCCESS, 3);
    };
    Driver().Majors[IRP_MJ_WRITE] = [](PDEVICE_OBJECT, PIRP irp) { return Complete(irp, STATUS_DISK_FULL, 3); };
    const nthost::SpanCounts reads = CountsOf(SpanKind::Request, "IRP_MJ_READ"),
                             writes = CountsOf(SpanKind::Request, "IRP_MJ_WRITE");

    const Opened file = Open();
    char buffer[8] = {};
    IO_STATUS_BLOCK block;
    NtReadFile(file.Handle, nullptr, nullptr, nullptr, &block, buffer, sizeof buffer, nullptr, nullptr);
    NtWriteFile(file.Handle, nullptr, nullptr, nullptr, &block, buffer, sizeof buffer, nullptr, nullptr);
    NtClose(file.Handle);

    const std::vector<RecordedSpan> all = nthost::RecordedSpans();
    const auto creates = Spans(SpanKind::Request, "IRP_MJ_CREATE", all),
               read = Spans(SpanKind::Request, "IRP_MJ_READ", all),
               cleanups = Spans(SpanKind::Request, "IRP_MJ_CLEANUP", all),
               closes = Spans(SpanKind::Request, "IRP_MJ_CLOSE", all),
               calls = Spans(SpanKind::Call, "a call of this test", all);
    ASSERT_EQ((std::vector{creates.size(), read.size(), cleanups.size(), closes.size(), calls.size()}),
              (std::vector<size_t>{1, 1, 1, 1, 1}));
    EXPECT_EQ(calls[0].Request, read[0].Request);
    EXPECT_EQ(calls[0].Value, 5u);
    EXPECT_LE(read[0].Begin, calls[0].Begin);
    EXPECT_GE(read[0].Begin + read[0].Length, calls[0].Begin + calls[0].Length);
    EXPECT_EQ(read[0].Value, 3u);
    EXPECT_EQ(read[0].BegunBy, read[0].Thread);
    EXPECT_LE(creates[0].Begin + creates[0].Length, read[0].Begin);
    EXPECT_EQ(cleanups[0].Begin + cleanups[0].Length, closes[0].Begin);

    EXPECT_EQ(CountsOf(SpanKind::Request, "IRP_MJ_READ").Count, reads.Count + 1);
    EXPECT_EQ(CountsOf(SpanKind::Request, "IRP_MJ_READ").Bytes, reads.Bytes + 3);
    const nthost::SpanCounts after = CountsOf(SpanKind::Request, "IRP_MJ_WRITE");
    EXPECT_EQ(after.Bytes, writes.Bytes); // nothing was written
    EXPECT_EQ(Failed(after, STATUS_DISK_FULL), Failed(writes, STATUS_DISK_FULL) + 1);
}

// A file that a mapping or a reference keeps is closed long after its cleanup: the close did not take that long.
TEST_F(Recorder, ACloseThatComesLaterBeginsLater)
{
    const Opened file = Open();
    const PFILE_OBJECT object = FileOf(file.Handle);
    ObReferenceObject(object);
    NtClose(file.Handle);
    const uint64_t between = nthost::SpanClock();
    while (nthost::SpanClock() - between < 10'000'000) {}
    ObDereferenceObject(object);
    const std::vector<RecordedSpan> all = nthost::RecordedSpans();
    const auto cleanup = Spans(SpanKind::Request, "IRP_MJ_CLEANUP", all),
               close = Spans(SpanKind::Request, "IRP_MJ_CLOSE", all);
    ASSERT_EQ(cleanup.size() + close.size(), 2u);
    EXPECT_GT(close[0].Begin, cleanup[0].Begin + cleanup[0].Length + std::chrono::microseconds(100));
}

TEST_F(Recorder, RequestsMayEndElsewhere)
{
    Parked parked;
    Driver().Majors[IRP_MJ_FLUSH_BUFFERS] = parked.Routine();
    const Opened file = Open();
    parked.CompleteOnOtherThread(STATUS_SUCCESS);
    IO_STATUS_BLOCK block;
    EXPECT_EQ(NtFlushBuffersFile(file.Handle, &block), STATUS_SUCCESS);
    NtClose(file.Handle);
    const auto flushes = Spans(SpanKind::Request, "IRP_MJ_FLUSH_BUFFERS");
    ASSERT_EQ(flushes.size(), 1u);
    EXPECT_NE(flushes[0].Thread, flushes[0].BegunBy);
    EXPECT_EQ(nthost::RecordedThreadName(flushes[0].BegunBy),
              nthost::RecordedThreadName(Spans(SpanKind::Request, "IRP_MJ_CREATE")[0].Thread));
}

TEST_F(Recorder, WaitsAreSeenWhileTheyLastAndAfterwards)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    Driver().Majors[IRP_MJ_FLUSH_BUFFERS] = [&](PDEVICE_OBJECT, PIRP irp) {
        KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
        return Complete(irp, STATUS_SUCCESS);
    };
    const Opened file = Open();
    std::thread waiter = nthost::StartThread(nthost::HostProcess(), [&] {
        IO_STATUS_BLOCK block;
        EXPECT_EQ(NtFlushBuffersFile(file.Handle, &block), STATUS_SUCCESS);
    });
    const auto ours = [&](const nthost::WaitNow& wait) { return wait.Address == &event; };
    nthost::WaitNow seen = {};
    while (!seen.Address) {
        for (const nthost::WaitNow& wait : nthost::WaitsNow())
            if (ours(wait)) seen = wait;
        std::this_thread::yield();
    }
    EXPECT_STREQ(seen.What, "an object");
    KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
    waiter.join();
    NtClose(file.Handle);
    const auto now = nthost::WaitsNow();
    EXPECT_TRUE(std::none_of(now.begin(), now.end(), ours));
    const auto flushes = Spans(SpanKind::Request, "IRP_MJ_FLUSH_BUFFERS"), waits = Spans(SpanKind::Wait, "an object");
    ASSERT_EQ(flushes.size(), 1u);
    const auto wait = std::find_if(waits.begin(), waits.end(), [&](const RecordedSpan& span) {
        return span.Value == reinterpret_cast<uint64_t>(&event);
    });
    ASSERT_NE(wait, waits.end());
    EXPECT_EQ(wait->Request, flushes[0].Request);
    EXPECT_EQ(seen.Request, flushes[0].Request);
    EXPECT_EQ(wait->Thread, seen.Thread);
}

TEST_F(Recorder, KeepsTheLastOfEachThread)
{
    constexpr unsigned kKept = 1024, kSent = 3000;
    const uint64_t before = CountsOf(SpanKind::Request, "IRP_MJ_FLUSH_BUFFERS").Count;
    const Opened file = Open();
    IO_STATUS_BLOCK block;
    for (unsigned i = 0; i < kSent; ++i) NtFlushBuffersFile(file.Handle, &block);
    const uint64_t last = nthost::RequestsSent();
    const auto flushes = Spans(SpanKind::Request, "IRP_MJ_FLUSH_BUFFERS");
    EXPECT_LE(flushes.size(), kKept);
    EXPECT_GE(flushes.size(), kKept - 1); // one may be in the writing
    EXPECT_EQ(flushes.back().Request, last);
    EXPECT_EQ(CountsOf(SpanKind::Request, "IRP_MJ_FLUSH_BUFFERS").Count, before + kSent);
    NtClose(file.Handle);
}

// Under the thread sanitizer, too; and no span that is read is put together from two.
TEST_F(Recorder, IsReadWhileItIsWritten)
{
    const nthost::SpanName call = nthost::NameSpans(SpanKind::Call, "a call that tells its length");
    std::atomic<bool> over{false};
    const auto write = [&] {
        for (uint64_t i = 1; !over; ++i)
            nthost::NoteCall(call, nthost::SpanClock() - i % 1000, static_cast<NTSTATUS>(i), i);
    };
    std::thread writers[] = {nthost::StartThread(nthost::HostProcess(), write),
                             nthost::StartThread(nthost::HostProcess(), write)};
    unsigned seen = 0;
    for (uint64_t count = 0, round = 0; round < 30 || seen < 1000; ++round) {
        for (const RecordedSpan& span : nthost::RecordedSpans()) {
            if (std::string(span.Name) != "a call that tells its length") continue;
            ++seen;
            EXPECT_EQ(static_cast<uint32_t>(span.Status), static_cast<uint32_t>(span.Value));
        }
        const uint64_t counted = CountsOf(SpanKind::Call, "a call that tells its length").Count;
        EXPECT_GE(counted, count);
        count = counted;
    }
    over = true;
    for (std::thread& writer : writers) writer.join();
}

} // namespace
