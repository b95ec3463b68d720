// Requests of these tests: an NT program's reads, listings and locks in one line each, whatever kind of handle, and
// requests made by hand for what no service of the front door sends.
#pragma once

#include "open_volume.h"

namespace opening {

struct Outcome {
    NTSTATUS Status;
    ULONG_PTR Information;
};

// An event handle, and the wait for a request that went pending on it.
class Event {
public:
    Event();
    HANDLE Get() const { return handle_.Get(); }
    void Wait() const;
    bool IsSet() const;

private:
    Handle handle_;
};

// offset below 0: the handle's own position.
Outcome Read(HANDLE file, void* buffer, ULONG length, LONGLONG offset);
// What a read of that length gives; the status in angle brackets after a failure.
std::string ReadText(HANDLE file, ULONG length, LONGLONG offset);

struct Range {
    LONGLONG Offset;
    LONGLONG Length;
};
NTSTATUS Lock(HANDLE file, Range range, bool exclusive = true);
NTSTATUS Unlock(HANDLE file, Range range);

struct Query {
    FILE_INFORMATION_CLASS Class = FileNamesInformation;
    ULONG Length = 4096;
    bool Single = false;
    bool Restart = false;
    std::string Pattern; // empty: none is sent
};

struct Listed {
    NTSTATUS Status;
    ULONG_PTR Information;
    Lines Names;
    std::vector<ULONG> Indexes;
};
Listed List(HANDLE directory, const Query& query = {});
Outcome ListInto(HANDLE directory, const Query& query, void* buffer);
// Names and indexes of records, by their links.
void Decode(const UCHAR* buffer, ULONG_PTR information, FILE_INFORMATION_CLASS infoClass, Listed* listed);
// Every name of the directory from here on, call by call, until the listing says that it has ended.
Lines ListAll(HANDLE directory, const Query& query = {});

// One request made by hand, sent once and waited for.
class HandMade {
public:
    HandMade(PDEVICE_OBJECT device, PFILE_OBJECT file, UCHAR major, UCHAR minor = 0);
    HandMade(const HandMade&) = delete;
    HandMade& operator=(const HandMade&) = delete;
    ~HandMade();
    PIRP Irp() { return irp_; }
    PIO_STACK_LOCATION Stack() { return IoGetNextIrpStackLocation(irp_); }
    Outcome Send();

private:
    static NTSTATUS NTAPI Completed(PDEVICE_OBJECT, PIRP, PVOID context);

    PDEVICE_OBJECT device_;
    PIRP irp_;
    KEVENT done_;
};

// The thread is inside other file-system work while this lives.
class InsideOtherWork {
public:
    InsideOtherWork() { IoSetTopLevelIrp(reinterpret_cast<PIRP>(FSRTL_FSP_TOP_LEVEL_IRP)); }
    InsideOtherWork(const InsideOtherWork&) = delete;
    InsideOtherWork& operator=(const InsideOtherWork&) = delete;
    ~InsideOtherWork() { IoSetTopLevelIrp(nullptr); }
};

} // namespace opening
