// One step on the content of a single file, as plain data: requests through three handles, and touches of up to two
// views of the whole file. A step on a view that is not there is passed over, and one that reaches beyond it is cut to
// fit, by the model for both sides.
#pragma once

#include <random>
#include <string>

#include <gvnd/plugin.h>

namespace model {

constexpr unsigned kViews = 2;

enum class ContentVerb {
    Read,
    Write,
    SetEnd,
    SetAllocation,
    Overwrite,
    Flush,
    QueryEnd,
    QueryPosition,
    SetPosition,
    Map,
    Unmap,
    ReadView,
    WriteView,
    FlushView,
    WriteBack,     // the modified-page writer's step
    Trim,          // unused sections go
    WriteFromView, // a write to the file whose data is the view
};

enum class Through { Synchronous, Asynchronous, Appending };
enum class At { Offset, Position, End };

struct ContentOperation {
    ContentVerb Verb;
    model::Through Through;
    model::At At;
    LONGLONG Offset; // or size
    ULONG Length;
    ULONG Fill;       // where in the noise the data begins
    unsigned View;    // which view
    ULONG ViewOffset; // in the view
};

struct ContentOutcome {
    NTSTATUS Status = STATUS_SUCCESS;
    ULONG_PTR Information = 0;
    std::string Bytes;  // read
    LONGLONG Value = 0; // asked for

    bool operator==(const ContentOutcome&) const = default;
};

ContentOperation DrawContent(std::mt19937* random);
std::string Describe(const ContentOperation& operation);
std::string Describe(const ContentOutcome& outcome);
// Data for a write: the same for the same fill, different almost everywhere for another.
std::string Noise(ULONG fill, ULONG length);

} // namespace model
