// Requests of these tests: an NT program's reads, listings and locks in one line each, whatever kind of handle; and a
// context for driver routines that want to be called from inside a request.
#pragma once

#include "frame/records.h"
#include "open_volume.h"
#include "support/handmade.h"

namespace opening {

using support::HandMade;
using support::InsideOtherWork;
using support::Outcome;
using support::Read;
using support::ReadText;
using support::Request;

// The two kinds of handle that most rules must hold for.
struct HandleKind {
    const char* Name;
    OpenRequest Request;
};
inline const HandleKind kHandleKinds[] = {
    {"synchronous", {.Access = FILE_READ_DATA | SYNCHRONIZE}},
    {"asynchronous", {.Access = FILE_READ_DATA, .Options = 0}},
};

struct Range {
    LONGLONG Offset;
    LONGLONG Length;
};
// Fails at once when the range is held.
inline NTSTATUS Lock(HANDLE file, Range range, Request::Lock kind = Request::Lock::Exclusive)
{
    return support::Lock(file, range.Offset, range.Length, kind == Request::Lock::Exclusive);
}
inline NTSTATUS Unlock(HANDLE file, Range range) { return support::Unlock(file, range.Offset, range.Length); }

struct Query {
    FILE_INFORMATION_CLASS Class = FileNamesInformation;
    ULONG Length = 4096;
    bool Single = false;
    bool Restart = false;
    std::string Pattern = {}; // empty: none is sent
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

// A request that a worker serves, without a packet: the context that routines of the driver expect, under the volume's
// lock, held exclusively while this lives.
class ServedRequest {
public:
    explicit ServedRequest(PDEVICE_OBJECT device);
    ServedRequest(const ServedRequest&) = delete;
    ServedRequest& operator=(const ServedRequest&) = delete;
    ~ServedRequest();
    IrpContext* Context() { return &context_; }

private:
    IrpContext context_ = {};
};

} // namespace opening
