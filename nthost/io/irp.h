// The record in front of every request packet: its life, who waits for it, and what the checks know of it. A record
// belongs to one owner at a time (driver or I/O manager); what both can reach is atomic. Records are never unmapped, so
// a late touch of a request that has ended meets a record that says so.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include <ntifs.h>

#include "check/stack.h"
#include "io/completion_port.h"
#include "ke/apc.h"

namespace nthost::io {

enum class IrpState : uint32_t {
    Free,
    Live,
    Ended // completion has passed the topmost location
};

// Who finishes the request.
enum class Issue : uint8_t {
    ByDriver,    // a completion routine takes it back; nobody else does
    Waited,      // the issuing thread, which waits for it
    Asynchronous // whoever comes last: the issuing thread leaving its dispatch routine, or the completing thread
};

// Completion and the issuing thread's return from the dispatch routine meet here; the later one acts.
enum Meeting : uint32_t { InDispatch, Completed, Left };

// What the checks remember of one stack location.
struct LocationTrace {
    std::atomic<uint32_t> Ended; // completion has passed it
    bool MarkedPending;
    bool PassedDown; // its dispatch routine sent the request on, so the lower one answers for the rules
    NTSTATUS Status;
};

constexpr int TracedLocations = 4;

struct IrpRecord {
    std::atomic<IrpState> State;
    std::atomic<uint32_t> Holds; // the owner's, and one for each routine that must find the memory in place
    IrpRecord* NextFree;         // under the lock of the free list that has it
    int Capacity;                // stack locations there is room for
    CapturedStack AllocatedAt;   // with checks on

    Issue How;
    std::atomic<PDEVICE_OBJECT> Device; // whose location is current; for a cancel that meets completion
    std::atomic<uint32_t> Met;          // Meeting
    KEVENT Done;                        // Waited: initialised before the issuer says that it left
    std::atomic<uint64_t> Number;       // in the order of sending; for observers, like the next
    std::atomic<PFILE_OBJECT> SentFor;
    uint64_t SentAt; // for the recorder, like the next two
    uint32_t SentBy;
    UCHAR SentMajor;
    PEPROCESS Requestor;            // process the request was made for
    PFILE_OBJECT File;              // of a service's request; an asynchronous one has a reference of its own
    LIST_ENTRY FileEntry;           // in the file object's list, under its lock
    bool OnThreadList;              // written under the file object's lock once the request is on its list
    bool OnFileList;                // the owner's alone
    ULONG OutputLength;             // room in UserBuffer for a buffered request's output
    std::atomic<const void*> Queue; // the semaphore that it was pended with, if that is known; with checks on
    WORK_QUEUE_ITEM Drop;
    // How the caller is told of the end beyond its events: one of the two. The record is held until it has been.
    ke::Apc Apc;
    CompletionPacket Packet;
    LocationTrace Trace[TracedLocations];

    alignas(16) IRP Irp; // the stack locations follow
};

inline IrpRecord* RecordOf(PIRP irp) { return CONTAINING_RECORD(irp, IrpRecord, Irp); }

// Keeps the memory of a record from being used again; not the request from ending.
void HoldRecord(IrpRecord* record);
void ReleaseRecord(IrpRecord* record);

// The location's memory of the checks; null when the location is not traced.
LocationTrace* TraceOf(IrpRecord* record, int location);

// "irp 0x..., major 3, device 0x..., file 0x...": for findings. Only of a live request.
std::string DescribeIrp(PIRP irp);

struct OutstandingIrp {
    PDEVICE_OBJECT Device; // where it is; null if nowhere. May be gone
    std::string Text;
    std::string Stack;
};
// Requests that are allocated now; with sentTo, those whose last device is one of these. They are described without a
// lock, so nothing may run that moves them; other devices' requests are not looked into.
std::vector<OutstandingIrp> OutstandingIrps(const std::vector<PDEVICE_OBJECT>* sentTo = nullptr);
// Takes what is outstanding out of later reports.
void AbandonOutstandingIrps();

} // namespace nthost::io
