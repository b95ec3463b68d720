// Stack traces: captured cheaply while running, turned into text only for a report.
#pragma once

#include <cstdint>
#include <string>

#include <nthost/calls.h>

namespace nthost {

constexpr unsigned kMaximumFrames = 12;

// Return addresses of the callers, innermost first, by following frame pointers; what was compiled without them ends
// the walk. Tens of nanoseconds, no allocation. Zero-filled up to the maximum.
struct CapturedStack {
    void* Frames[kMaximumFrames];
};
void CaptureStack(CapturedStack& stack);
std::string StackText(const CapturedStack& stack);

// The whole current stack, by unwind tables; also through a signal frame.
std::string CurrentStackText();

// Code that is not the compiler's of this process: who knows it says so here.
struct StackPosition {
    void* ReturnAddress;
    uint64_t StackPointer, FramePointer; // in the frame that it returns to
};
struct StackHooks {
    bool (*Wanted)(); // nothing else is asked otherwise
    bool (*AddressText)(void* address, std::string* text);
    bool (*Step)(StackPosition* position); // to the caller's frame; false where it knows nothing
};
void SetStackHooks(const StackHooks* hooks);

} // namespace nthost
