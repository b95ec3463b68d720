// A record is a ring of the last spans and counts of all, in memory of its own that is touched as it fills. One thread
// writes it, with plain stores that are atomic for those who look; when the thread ends, the next that begins goes on
// in it, so counts are never lost and records are as many as threads were at once.
#include "ke/recorder.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>

#include <nthost/calls.h>
#include <nthost/requests.h>
#include <sys/mman.h>

#include "ke/wait.h"

namespace nthost::ke {

namespace {

using Word = std::atomic<uint64_t>;

// The one writer's.
void Add(Word& word, uint64_t value)
{
    word.store(word.load(std::memory_order_relaxed) + value, std::memory_order_relaxed);
}

// --- names

constexpr size_t kMaxNames = 128;
constexpr const char* kRequests[] = {
    "IRP_MJ_CREATE",
    "IRP_MJ_CREATE_NAMED_PIPE",
    "IRP_MJ_CLOSE",
    "IRP_MJ_READ",
    "IRP_MJ_WRITE",
    "IRP_MJ_QUERY_INFORMATION",
    "IRP_MJ_SET_INFORMATION",
    "IRP_MJ_QUERY_EA",
    "IRP_MJ_SET_EA",
    "IRP_MJ_FLUSH_BUFFERS",
    "IRP_MJ_QUERY_VOLUME_INFORMATION",
    "IRP_MJ_SET_VOLUME_INFORMATION",
    "IRP_MJ_DIRECTORY_CONTROL",
    "IRP_MJ_FILE_SYSTEM_CONTROL",
    "IRP_MJ_DEVICE_CONTROL",
    "IRP_MJ_INTERNAL_DEVICE_CONTROL",
    "IRP_MJ_SHUTDOWN",
    "IRP_MJ_LOCK_CONTROL",
    "IRP_MJ_CLEANUP",
    "IRP_MJ_CREATE_MAILSLOT",
    "IRP_MJ_QUERY_SECURITY",
    "IRP_MJ_SET_SECURITY",
    "IRP_MJ_POWER",
    "IRP_MJ_SYSTEM_CONTROL",
    "IRP_MJ_DEVICE_CHANGE",
    "IRP_MJ_QUERY_QUOTA",
    "IRP_MJ_SET_QUOTA",
    "IRP_MJ_PNP",
};
static_assert(std::size(kRequests) == IRP_MJ_MAXIMUM_FUNCTION + 1);

struct NamedSpan {
    SpanKind Kind;
    const char* Name;
};

// Behind "others" the requests, so that theirs need no look-up, then those that move pages.
class Names {
public:
    static constexpr SpanName FirstRequest = 1, PagingRead = FirstRequest + std::size(kRequests),
                              PagingWrite = PagingRead + 1;

    constexpr Names()
    {
        names_[0] = {SpanKind::Call, "others"};
        for (size_t i = 0; i < std::size(kRequests); ++i) names_[FirstRequest + i] = {SpanKind::Request, kRequests[i]};
        names_[PagingRead] = {SpanKind::Request, "IRP_MJ_READ (paging)"};
        names_[PagingWrite] = {SpanKind::Request, "IRP_MJ_WRITE (paging)"};
    }
    SpanName Of(SpanKind kind, const char* name)
    {
        const std::lock_guard lock(mutex_);
        const size_t count = Count();
        for (size_t i = 1; i < count; ++i)
            if (names_[i].Kind == kind && !std::strcmp(names_[i].Name, name)) return static_cast<SpanName>(i);
        if (count == kMaxNames) return 0;
        names_[count] = {kind, name};
        count_.store(count + 1, std::memory_order_release);
        return static_cast<SpanName>(count);
    }
    size_t Count() const { return count_.load(std::memory_order_acquire); }
    const NamedSpan& At(size_t name) const { return names_[name]; }

private:
    std::mutex mutex_;
    std::atomic<size_t> count_{PagingWrite + 1};
    NamedSpan names_[kMaxNames]{};
};

constinit Names g_names; // named spans come before any constructor has run

// --- time

struct Moment {
    uint64_t Ticks = SpanClock();
    int64_t Nanoseconds = MonotonicNow();
};
const Moment origin;

// How long a tick is, from what has gone by since the process began; the first moments of that say too little.
class TickLength {
public:
    TickLength()
    {
        while (MonotonicNow() - origin.Nanoseconds < 20'000'000)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        const Moment now;
        length_ =
            static_cast<double>(now.Nanoseconds - origin.Nanoseconds) / static_cast<double>(now.Ticks - origin.Ticks);
    }
    std::chrono::nanoseconds operator()(uint64_t ticks) const
    {
        return std::chrono::nanoseconds(static_cast<int64_t>(static_cast<double>(ticks) * length_));
    }

private:
    double length_;
};

// --- lengths, counted by size: four steps to each doubling

constexpr unsigned kSteps = 4, kShortest = 5; // all under 32 ticks are one
constexpr size_t kBuckets = 40 * kSteps;

size_t BucketOf(uint64_t ticks)
{
    const auto width = static_cast<unsigned>(std::bit_width(ticks));
    if (width <= kShortest) return 0;
    const size_t step = (ticks >> (width - 3)) & (kSteps - 1);
    return std::min((width - kShortest) * kSteps + step, kBuckets - 1);
}

uint64_t TicksOf(size_t bucket)
{
    if (bucket < kSteps) return 1U << (kShortest - 1);
    const unsigned width = static_cast<unsigned>(bucket / kSteps) + kShortest;
    // Its middle.
    return ((kSteps + bucket % kSteps) << (width - 3)) + (uint64_t{1} << (width - 3)) / 2;
}

struct Counts {
    Word Bytes, Ticks;
    Word Buckets[kBuckets];
};

struct Failure {
    Word Key; // name, then status; 0 is free
    Word Count;
};

constexpr size_t kFailures = 48; // the last one is for those that find no room

} // namespace

struct Span {
    SpanName Name;
    uint32_t BegunBy;
    uint64_t Request, Begin, End;
    NTSTATUS Status;
    uint64_t Value;
};

class Record {
public:
    explicit Record(size_t size) : size_(size) {}

    void Note(const Span& span, uint64_t bytes);

    // --- the wait that the thread is in
    Word WaitSince, WaitRequest;
    std::atomic<const void*> WaitAddress;
    std::atomic<const char*> WaitWhat; // null: none

    std::atomic<uint32_t> Thread;
    Record* NextFree = nullptr; // under the lock of the list

    size_t Size() const { return size_; }
    const Counts& CountsOf(size_t name) const { return counts_[name]; }
    const Failure* Failures() const { return failures_; }
    template <typename Each>
    void ForEachSpan(Each each) const;

    static size_t Bytes(size_t size) { return sizeof(Record) + size * sizeof(Slot); }

private:
    static constexpr size_t kWords = 6;
    struct Slot {
        Word Words[kWords];
    };

    void CountFailure(SpanName name, NTSTATUS status);
    Slot* Slots() { return reinterpret_cast<Slot*>(this + 1); }
    const Slot* Slots() const { return reinterpret_cast<const Slot*>(this + 1); }

    const size_t size_; // a power of two
    Word next_;         // spans noted ever
    Counts counts_[kMaxNames];
    Failure failures_[kFailures];
};

void Record::Note(const Span& span, uint64_t bytes)
{
    const uint64_t next = next_.load(std::memory_order_relaxed);
    const uint64_t words[kWords] = {
        span.Begin,
        span.End,
        span.Request << 16 | span.Name,
        uint64_t{Thread.load(std::memory_order_relaxed)} << 32 | static_cast<uint32_t>(span.Status),
        span.BegunBy,
        span.Value,
    };
    Slot& slot = Slots()[next & (size_ - 1)];
    // Whoever reads one of these words also sees that the slot's former span is over.
    for (size_t i = 0; i < kWords; ++i) slot.Words[i].store(words[i], std::memory_order_release);
    next_.store(next + 1, std::memory_order_release);

    Counts& counts = counts_[span.Name];
    const uint64_t ticks = span.End - span.Begin;
    Add(counts.Ticks, ticks);
    Add(counts.Buckets[BucketOf(ticks)], 1);
    if (NT_ERROR(span.Status))
        CountFailure(span.Name, span.Status);
    else
        Add(counts.Bytes, bytes);
}

void Record::CountFailure(SpanName name, NTSTATUS status)
{
    const uint64_t key = uint64_t{name} << 32 | static_cast<uint32_t>(status);
    Failure* failure = failures_;
    while (failure != failures_ + kFailures - 1) {
        const uint64_t there = failure->Key.load(std::memory_order_relaxed);
        if (there == key) break;
        if (there == 0) {
            failure->Key.store(key, std::memory_order_relaxed);
            break;
        }
        ++failure;
    }
    Add(failure->Count, 1);
}

// The writer goes on meanwhile: what it may have written over is left out.
template <typename Each>
void Record::ForEachSpan(Each each) const
{
    const uint64_t end = next_.load(std::memory_order_acquire);
    for (uint64_t at = end > size_ ? end - size_ : 0; at < end; ++at) {
        const Slot& slot = Slots()[at & (size_ - 1)];
        uint64_t words[kWords];
        for (size_t i = 0; i < kWords; ++i) words[i] = slot.Words[i].load(std::memory_order_acquire);
        if (next_.load(std::memory_order_relaxed) >= at + size_) continue;
        each(Span{static_cast<SpanName>(words[2]), static_cast<uint32_t>(words[4]), words[2] >> 16, words[0], words[1],
                  static_cast<NTSTATUS>(words[3]), words[5]},
             static_cast<uint32_t>(words[3] >> 32));
    }
}

namespace {

// --- all records

struct Registry {
    std::mutex Mutex;
    std::vector<Record*> All; // never unmapped
    Record* Free = nullptr;
    size_t Size = 1024;
    uint32_t LastThread = 0;
    struct Origin {
        std::string Process;
        PKSTART_ROUTINE Start; // null: not the kernel's own
    };
    std::map<uint32_t, Origin> Threads; // the last ones
};

constexpr size_t kThreadsKept = 4096;

Registry& TheRegistry()
{
    static auto* const registry = new Registry; // threads may outlive what is destroyed at the process's end
    return *registry;
}

Record* NewRecord(Registry& registry)
{
    void* const memory = mmap(nullptr, Record::Bytes(registry.Size), PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) return nullptr;
    registry.All.push_back(new (memory) Record(registry.Size));
    return registry.All.back();
}

template <typename Each>
void ForEachRecord(Each each)
{
    Registry& registry = TheRegistry();
    const std::lock_guard lock(registry.Mutex);
    for (const Record* const record : registry.All) each(*record);
}

struct Sums {
    uint64_t Count = 0, Bytes = 0, Ticks = 0;
    uint64_t Buckets[kBuckets] = {};
};

uint64_t TicksUnder(const Sums& sums, double share)
{
    const auto wanted = static_cast<uint64_t>(static_cast<double>(sums.Count) * share);
    uint64_t seen = 0;
    for (size_t i = 0; i < kBuckets; ++i)
        if ((seen += sums.Buckets[i]) > wanted) return TicksOf(i);
    return 0;
}

Sums SumsOf(size_t name)
{
    Sums sums;
    ForEachRecord([&](const Record& record) {
        const Counts& counts = record.CountsOf(name);
        sums.Bytes += counts.Bytes.load(std::memory_order_relaxed);
        sums.Ticks += counts.Ticks.load(std::memory_order_relaxed);
        for (size_t i = 0; i < kBuckets; ++i) sums.Buckets[i] += counts.Buckets[i].load(std::memory_order_relaxed);
    });
    for (const uint64_t count : sums.Buckets) sums.Count += count;
    return sums;
}

std::map<uint64_t, uint64_t> FailuresByKey()
{
    std::map<uint64_t, uint64_t> failures;
    ForEachRecord([&](const Record& record) {
        for (size_t i = 0; i < kFailures; ++i)
            if (const uint64_t count = record.Failures()[i].Count.load(std::memory_order_relaxed))
                failures[record.Failures()[i].Key.load(std::memory_order_relaxed)] += count;
    });
    return failures;
}

SpanName WaitName(const char* what) { return NameSpans(SpanKind::Wait, what); }

} // namespace

Record* TakeRecord(const _ETHREAD* thread)
{
    Registry& registry = TheRegistry();
    const std::lock_guard lock(registry.Mutex);
    Record** link = &registry.Free;
    while (*link && (*link)->Size() != registry.Size) link = &(*link)->NextFree;
    Record* record = *link;
    if (record)
        *link = record->NextFree;
    else
        record = NewRecord(registry);
    if (!record) return nullptr;
    record->Thread.store(++registry.LastThread, std::memory_order_relaxed);
    registry.Threads[registry.LastThread] = {thread->Process->Name, thread->StartRoutine};
    if (registry.Threads.size() > kThreadsKept) registry.Threads.erase(registry.Threads.begin());
    return record;
}

void GiveRecord(Record* record)
{
    if (!record) return;
    Registry& registry = TheRegistry();
    const std::lock_guard lock(registry.Mutex);
    record->NextFree = registry.Free;
    registry.Free = record;
}

uint32_t RecordedNumber(const _ETHREAD* thread)
{
    return thread->Record ? thread->Record->Thread.load(std::memory_order_relaxed) : 0;
}

void NoteRequest(const RequestEnd& end)
{
    _ETHREAD* const thread = CurrentThreadOrNull();
    if (!thread || !thread->Record) return;
    const uint64_t now = SpanClock();
    if (end.Major == IRP_MJ_CLEANUP && end.SentBy == RecordedNumber(thread)) thread->CleanupEnded = now;
    auto name = static_cast<SpanName>(Names::FirstRequest + end.Major);
    if (end.IsPaging && end.Major == IRP_MJ_READ) name = Names::PagingRead;
    if (end.IsPaging && end.Major == IRP_MJ_WRITE) name = Names::PagingWrite;
    const uint64_t bytes = end.Major == IRP_MJ_CREATE ? 0 : end.Information; // there it says what was done
    thread->Record->Note({name, end.SentBy, end.Number, end.SentAt, now, end.Status, bytes}, bytes);
}

RecordedWait::RecordedWait(const char* what, const void* address) : record_(nullptr)
{
    const uint64_t request = CurrentRequest().Number;
    Record* const record = CurrentThread()->Record;
    if (!request || !record) return;
    record_ = record;
    record->WaitSince.store(SpanClock(), std::memory_order_relaxed);
    record->WaitRequest.store(request, std::memory_order_relaxed);
    record->WaitAddress.store(address, std::memory_order_relaxed);
    record->WaitWhat.store(what, std::memory_order_release);
}

RecordedWait::~RecordedWait()
{
    if (!record_) return;
    const char* const what = record_->WaitWhat.exchange(nullptr, std::memory_order_relaxed);
    record_->Note({WaitName(what), record_->Thread.load(std::memory_order_relaxed),
                   record_->WaitRequest.load(std::memory_order_relaxed),
                   record_->WaitSince.load(std::memory_order_relaxed), SpanClock(), STATUS_SUCCESS,
                   reinterpret_cast<uint64_t>(record_->WaitAddress.load())},
                  0);
}

} // namespace nthost::ke

namespace nthost {

using namespace ke;

SpanName NameSpans(SpanKind kind, const char* name) { return g_names.Of(kind, name); }

void NoteCall(SpanName name, uint64_t begun, NTSTATUS status, uint64_t bytes)
{
    const _ETHREAD* const thread = CurrentThreadOrNull();
    if (!thread || !thread->Record) return;
    thread->Record->Note({name, RecordedNumber(thread), CurrentRequest().Number, begun, SpanClock(), status, bytes},
                         bytes);
}

std::vector<RecordedSpan> RecordedSpans()
{
    const TickLength lengthOf;
    std::vector<RecordedSpan> spans;
    ForEachRecord([&](const Record& record) {
        record.ForEachSpan([&](const Span& span, uint32_t thread) {
            const NamedSpan& named = g_names.At(span.Name);
            // Spans that abut do so to the nanosecond.
            const std::chrono::nanoseconds begin = lengthOf(span.Begin - origin.Ticks);
            spans.push_back({named.Kind, named.Name, thread, span.BegunBy, span.Request, begin,
                             lengthOf(span.End - origin.Ticks) - begin, span.Status, span.Value});
        });
    });
    std::stable_sort(spans.begin(), spans.end(),
                     [](const RecordedSpan& a, const RecordedSpan& b) { return a.Begin < b.Begin; });
    return spans;
}

std::vector<SpanCounts> RecordedCounts()
{
    const TickLength lengthOf;
    const std::map<uint64_t, uint64_t> failures = FailuresByKey();
    std::vector<SpanCounts> all;
    for (size_t name = 0; name < g_names.Count(); ++name) {
        const Sums sums = SumsOf(name);
        // Failures that found no room are shown with "others", whether or not there are any.
        if (!sums.Count && (name != 0 || !failures.contains(0))) continue;
        const NamedSpan& named = g_names.At(name);
        SpanCounts counts = {named.Kind,
                             named.Name,
                             sums.Count,
                             sums.Bytes,
                             lengthOf(sums.Ticks),
                             lengthOf(TicksUnder(sums, 0.5)),
                             lengthOf(TicksUnder(sums, 0.99)),
                             {}};
        for (const auto& [key, count] : failures)
            if (key >> 32 == name) counts.Failures.emplace_back(static_cast<NTSTATUS>(key), count);
        all.push_back(std::move(counts));
    }
    return all;
}

std::vector<WaitNow> WaitsNow()
{
    const TickLength lengthOf;
    const uint64_t now = SpanClock();
    std::vector<WaitNow> waits;
    ForEachRecord([&](const Record& record) {
        const char* const what = record.WaitWhat.load(std::memory_order_acquire);
        if (!what) return;
        const uint64_t since = record.WaitSince.load(std::memory_order_relaxed);
        waits.push_back({record.Thread.load(std::memory_order_relaxed), what,
                         record.WaitAddress.load(std::memory_order_relaxed),
                         record.WaitRequest.load(std::memory_order_relaxed), lengthOf(now > since ? now - since : 0)});
    });
    std::sort(waits.begin(), waits.end(), [](const WaitNow& a, const WaitNow& b) { return a.Since > b.Since; });
    return waits;
}

std::string RecordedThreadName(uint32_t thread)
{
    Registry& registry = TheRegistry();
    Registry::Origin origin = {"thread", nullptr};
    {
        const std::lock_guard lock(registry.Mutex);
        if (const auto found = registry.Threads.find(thread); found != registry.Threads.end()) origin = found->second;
    }
    std::string name = origin.Process;
    if (origin.Start) {
        name = FrameText(reinterpret_cast<char*>(origin.Start) + 1);
        name.resize(std::min(name.find_first_of(" ("), name.size()));
    }
    return name + " " + std::to_string(thread);
}

void KeepSpans(size_t perThread)
{
    Registry& registry = TheRegistry();
    const std::lock_guard lock(registry.Mutex);
    registry.Size = std::bit_ceil(std::max<size_t>(perThread, 2));
}

} // namespace nthost
