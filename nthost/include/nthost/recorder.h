// The recorder: what each thread did last and for how long, and counts of everything since it began. Always on: a span
// costs two readings of the processor's time stamp and a few stores into memory that its thread alone writes; nobody is
// waited for. Spans are noted when they end, so one that an exception jumped over is not there.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <ntifs.h>

namespace nthost {

enum class SpanKind : uint8_t {
    Request, // from the sending to its completion, on whatever thread that was
    Call,    // of code that a driver calls, as noted by who stands in between: a plugin's operation
    Wait     // inside of a request: of a thread that slept
};

// --- for those who note

// A kind and a name, for as long as the process lives. The same pair is the same number; when there is no more room,
// 0, "others".
using SpanName = uint16_t;
SpanName NameSpans(SpanKind kind, const char* name);

inline uint64_t SpanClock() { return __builtin_ia32_rdtsc(); }

// A call by the current thread that began at that reading of SpanClock and ends now. Nothing on a thread that is not
// attached.
void NoteCall(SpanName name, uint64_t begun, NTSTATUS status, uint64_t bytes = 0);

// --- for those who look; from any thread, beside everything

struct RecordedSpan {
    SpanKind Kind;
    const char* Name;
    uint32_t Thread;                // on which it ended; threads are numbered in the order in which they began
    uint32_t BegunBy;               // the thread that sent the request; for others the same
    uint64_t Request;               // its number, or that of the request around it; 0: none
    std::chrono::nanoseconds Begin; // since the recorder began
    std::chrono::nanoseconds Length;
    NTSTATUS Status;
    uint64_t Value; // bytes of a request or a call; the address that a wait was for
};
// What is still there of all threads, by their beginnings.
std::vector<RecordedSpan> RecordedSpans();

struct SpanCounts {
    SpanKind Kind;
    const char* Name;
    uint64_t Count;
    uint64_t Bytes;                                      // of those that succeeded
    std::chrono::nanoseconds Total, Median, P99;         // the latter two to a fifth of their value
    std::vector<std::pair<NTSTATUS, uint64_t>> Failures; // errors by status; status 0 is those that found no room
};
// Of every name that was noted, in the order of naming.
std::vector<SpanCounts> RecordedCounts();

struct WaitNow {
    uint32_t Thread;
    const char* What; // "a resource", "an object"
    const void* Address;
    uint64_t Request;
    std::chrono::nanoseconds Since;
};
// Threads that sleep inside of a request now, the longest first.
std::vector<WaitNow> WaitsNow();

// "gvnd 3", "GvWorker 12": the process or the start routine, and the number.
std::string RecordedThreadName(uint32_t thread);

// How many spans are kept of each thread that begins from now on, rounded up to a power of two; 1024 unless told.
void KeepSpans(size_t perThread);

} // namespace nthost
