// What an NT program asks, one call a line, with the status that came back: opening, reading and writing, information,
// listings, locks. Reads and locks wait for their request on a handle of either kind; the rest is for synchronous
// handles, where each call returns when the request has ended. file.h has the same with exceptions.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "workbench/handle.h"
#include "workbench/text.h"

namespace workbench {

constexpr ULONG kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// How an open asks; the defaults are those of a plain synchronous reader that shares everything.
struct OpenRequest {
    ACCESS_MASK Access = FILE_GENERIC_READ;
    ULONG Share = kShareAll;
    ULONG Disposition = FILE_OPEN;
    ULONG Options = FILE_SYNCHRONOUS_IO_NONALERT;
    ULONG Attributes = 0;
    HANDLE Root = nullptr;
    bool Kernel = false; // Zw, with a kernel handle
    LONGLONG AllocationSize = 0;
    const std::string* Eas = nullptr; // a list, see EaList in ea.h
};

struct OpenResult {
    NTSTATUS Status;
    ULONG_PTR Information;
    Handle File;
};

// The whole NT path, as in "\??\Name\a\b", or relative to the root.
OpenResult Open(const Text& path, const OpenRequest& request = {});

struct Outcome {
    NTSTATUS Status;
    ULONG_PTR Information;
};

constexpr LONGLONG kAtPosition = -2; // FILE_USE_FILE_POINTER_POSITION
constexpr LONGLONG kAtEnd = -1;      // FILE_WRITE_TO_END_OF_FILE

Outcome Read(HANDLE file, void* buffer, ULONG length, LONGLONG offset);
// The text read; the status by name in angle brackets after a failure.
std::string ReadText(HANDLE file, ULONG length, LONGLONG offset = 0);
Outcome Write(HANDLE file, std::string_view data, LONGLONG offset = kAtPosition);
NTSTATUS Flush(HANDLE file);

Outcome Query(HANDLE file, FILE_INFORMATION_CLASS infoClass, void* buffer, ULONG length);
Outcome Set(HANDLE file, FILE_INFORMATION_CLASS infoClass, const void* buffer, ULONG length);
Outcome QueryVolume(HANDLE file, FS_INFORMATION_CLASS infoClass, void* buffer, ULONG length);
Outcome SetVolume(HANDLE file, FS_INFORMATION_CLASS infoClass, const void* buffer, ULONG length);
// Without buffers.
Outcome FsControl(HANDLE file, ULONG code);

template <typename Info>
Info QueryAs(HANDLE file, FILE_INFORMATION_CLASS infoClass, NTSTATUS* status)
{
    Info info = {};
    *status = Query(file, infoClass, &info, sizeof info).Status;
    return info;
}

NTSTATUS SetSize(HANDLE file, LONGLONG endOfFile);
NTSTATUS SetAllocation(HANDLE file, LONGLONG allocation);
NTSTATUS SetDelete(HANDLE file, bool deleteIt);
// attributes 0 leaves them alone, times 0 likewise.
NTSTATUS SetBasic(HANDLE file, ULONG attributes, LONGLONG creation = 0, LONGLONG access = 0, LONGLONG write = 0,
                  LONGLONG change = 0);
NTSTATUS Rename(HANDLE file, const Text& name, bool replace = false, HANDLE root = nullptr);
// The name as FileNameInformation tells it; a status in angle brackets after a failure.
std::string NameOf(HANDLE file);

// Fails at once when the range is held.
NTSTATUS Lock(HANDLE file, LONGLONG offset, LONGLONG length, bool exclusive = true);
NTSTATUS Unlock(HANDLE file, LONGLONG offset, LONGLONG length);

struct Listing {
    NTSTATUS Status; // of the last call: STATUS_NO_MORE_FILES after a whole listing
    std::vector<std::string> Names;
};
// From the start to the end, in buffers of that many bytes. The handle's first pattern stays its pattern.
Listing List(HANDLE directory, const std::string& pattern = {}, ULONG bufferLength = 4096);

// One request on a handle of either kind. Start gives what the service returned; Wait, once after a successful or
// pending Start, the request's own status. The object must outlive the request.
class Request {
public:
    NTSTATUS StartRead(HANDLE file, void* buffer, ULONG length, LONGLONG offset);
    enum class Lock { Shared, Exclusive };
    enum class IfHeld { Fail, Wait };
    NTSTATUS StartLock(HANDLE file, LONGLONG offset, LONGLONG length, Lock lock = Lock::Exclusive,
                       IfHeld ifHeld = IfHeld::Fail);
    NTSTATUS Wait();
    bool IsDone() const { return done_.Poll(); }
    // Of this request alone; STATUS_NOT_FOUND when it is not out any more.
    NTSTATUS Cancel(HANDLE file);
    ULONG_PTR Information() const { return statusBlock_.Information; }

private:
    IO_STATUS_BLOCK statusBlock_ = {};
    Event done_;
};

// All requests of this process on the file.
NTSTATUS CancelAll(HANDLE file);

// Each record of a chain that is linked by NextEntryOffset.
template <typename Record, typename Each>
void EachRecord(const void* first, Each each)
{
    for (auto* at = static_cast<const char*>(first);;) {
        const auto& record = *reinterpret_cast<const Record*>(at);
        each(record);
        if (record.NextEntryOffset == 0) return;
        at += record.NextEntryOffset;
    }
}

// A record with a fixed part of size bytes and a counted text in it, as renames and labels take it; 8-aligned.
std::vector<uint64_t> RecordWithText(size_t size, size_t lengthAt, size_t textAt, std::string_view bytes);

} // namespace workbench
