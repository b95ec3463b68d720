// IRP_MJ_QUERY_EA: by a list of names, by an index, or by the handle's own position. Every request asks the plugin
// anew and writes into the caller's buffer; a fault there becomes STATUS_UNSUCCESSFUL. Queries of an object share its
// lock, so the position of a handle is a bare word: two scans of one handle may disturb each other.

#include "ea/ea.h"

#include "frame/guard.h"
#include "frame/plugincall.h"
#include "frame/requests.h"
#include "frame/resource.h"
#include "objects/util.h"

namespace {

constexpr char kName[] = "GvDoQueryEa";
constexpr char kByIndex[] = "GvQueryEaByIndex";
constexpr ULONG kFirstIndex = 1;

struct EaQuery {
    Fcb* Object;
    ::Ccb* Ccb;
    UCHAR* Buffer;
    ULONG Length;
    bool ReturnSingleEntry;
    bool* Faulted; // an exception in the caller's buffer has ended the request
};

GvEaList StartOf(const EaQuery& query)
{
    return {.Cursor = query.Buffer, .Previous = nullptr, .Remaining = query.Length};
}

ULONG Placed(const char* function, const EaQuery& query, const GvEaList& list)
{
    const ULONG bytes = query.Length - list.Remaining;
    GV_TRACE_AS(function, GvTraceFlow, "returning %d bytes of data\n", bytes);
    return bytes;
}

// An append into memory that the caller can take away.
[[nodiscard]] NTSTATUS Append(const EaQuery& query, const char* name, ULONG nameLength, const GvEaValue& value,
                              GvEaList* list)
{
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    *query.Faulted = !GvGuarded(
        [&] { status = GvAppendEaNameValueToFullEaInfo(name, nameLength, value.Value.Get(), value.Length, list); });
    if (!*query.Faulted) return status;
    GV_TRACE_AS(kName, GvTraceError, "EXCEPTION, EXCEPTION!!!, err: 0x%x\n", STATUS_UNSUCCESSFUL);
    return STATUS_UNSUCCESSFUL;
}

[[nodiscard]] NTSTATUS CheckIndex(const Fcb* fcb, ULONG index, ULONG count)
{
    if (count == 0) {
        GV_TRACE_AS(kByIndex, GvTraceError, "no ea's on file: 0x%x\n", fcb);
        return STATUS_NO_EAS_ON_FILE;
    }
    if (index <= count) return STATUS_SUCCESS;
    if (index == count + 1) {
        GV_TRACE_AS(kByIndex, GvTraceNotable, "done traversing ea's, index: %d\n", index);
        return STATUS_NO_MORE_EAS;
    }
    GV_TRACE_AS(kByIndex, GvTraceError, "bad ea-index %d specified\n", index);
    return STATUS_NONEXISTENT_EA_ENTRY;
}

// The attributes from index on, whose first name is given. The position moves past each record that went through.
[[nodiscard]] NTSTATUS FillFrom(IrpContext* context, const EaQuery& query, const char* name, ULONG left,
                                ULONG* information)
{
    GvEaList list = StartOf(query);
    for (; left; --left) {
        GvEaValue value;
        NTSTATUS status = GvGetEaFromPlugin(context, GvHandleOf(query.Object), name, &value);
        if (!NT_SUCCESS(status)) {
            GV_TRACE_AS(kByIndex, GvTraceError, "unable to query ea: %s, err: 0x%x\n", name, status);
            return status;
        }
        const ULONG nameLength = GvEaNameLength(name);
        status = Append(query, name, nameLength, value, &list);
        if (*query.Faulted) return status;
        if (!NT_SUCCESS(status)) {
            if (status == STATUS_BUFFER_OVERFLOW) *information = query.Length - list.Remaining;
            GV_TRACE_AS(kByIndex, GvTraceError, "GvAppendEaNameValToFullEaInfo(): 0x%x, len: %d\n", status,
                        value.Length);
            return status;
        }
        GvStore(query.Ccb->EaScanIndex, GvLoad(query.Ccb->EaScanIndex) + 1);
        if (query.ReturnSingleEntry) break;
        name += nameLength + 1;
    }
    *information = Placed(kByIndex, query, list);
    return STATUS_SUCCESS;
}

[[nodiscard]] NTSTATUS GvQueryEaByIndex(IrpContext* context, const EaQuery& query, ULONG index, ULONG* information)
{
    if (index == 0) {
        GV_TRACE(GvTraceError, "bad ea-index 0 specified\n");
        return STATUS_NONEXISTENT_EA_ENTRY;
    }
    GvEaNames names;
    NTSTATUS status = GvListEaFromPlugin(context, GvHandleOf(query.Object), &names);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvQueryEaListFromPlugin", status);
        return status;
    }
    status = CheckIndex(query.Object, index, names.Count);
    if (!NT_SUCCESS(status)) return status;
    const char* name = names.Names.Get();
    for (ULONG i = kFirstIndex; i < index; ++i) name += GvEaNameLength(name) + 1;
    GvStore(query.Ccb->EaScanIndex, index);
    return FillFrom(context, query, name, names.Count - index + 1, information);
}

// A caller's list of names, which the I/O manager has brought into the system; checked entry by entry as it is walked.
struct NameList {
    const UCHAR* Entry;
    const UCHAR* End;

    ULONG Left() const { return static_cast<ULONG>(End - Entry); }
    ULONG NextEntryOffset() const
    {
        ULONG offset;
        RtlCopyMemory(&offset, Entry, sizeof(offset));
        return offset;
    }
    ULONG NameLength() const { return Entry[FIELD_OFFSET(FILE_GET_EA_INFORMATION, EaNameLength)]; }
    const UCHAR* Name() const { return Entry + kNameOffset; }

    static constexpr ULONG kNameOffset = FIELD_OFFSET(FILE_GET_EA_INFORMATION, EaName);
    static constexpr ULONG kLeast = kNameOffset + 1;
};

constexpr char kByList[] = "GvQueryEaByUserEaList";

[[nodiscard]] NTSTATUS CheckRoomForEntry(const NameList& list)
{
    if (list.Left() >= NameList::kLeast) return STATUS_SUCCESS;
    GV_TRACE_AS(kByList, GvTraceError, "get-ea-info buf too small\n");
    return STATUS_INVALID_PARAMETER;
}

[[nodiscard]] NTSTATUS CopyName(const NameList& list, GvBlock<char>* name)
{
    const ULONG length = list.NameLength();
    if (length == 0 || length > list.Left() - NameList::kNameOffset) {
        GV_TRACE_AS(kByList, GvTraceError, "malformed 'get-ea-info', bad name-len: %d\n", length);
        return STATUS_INVALID_PARAMETER;
    }
    name->Reset(static_cast<char*>(GvAllocate(PagedPool, length + 1)));
    if (!*name) {
        GV_TRACE_AS(kByList, GvTraceError, "out-of-mem\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyMemory(name->Get(), list.Name(), length);
    return STATUS_SUCCESS;
}

// One entry of the list. An attribute that the object lacks comes back as a record with an empty value.
[[nodiscard]] NTSTATUS AppendEntry(IrpContext* context, const EaQuery& query, const NameList& entry, GvEaList* output)
{
    GvBlock<char> name;
    NTSTATUS status = CopyName(entry, &name);
    if (!NT_SUCCESS(status)) return status;
    GvEaValue value;
    status = GvGetEaFromPlugin(context, GvHandleOf(query.Object), name.Get(), &value);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_AS(kByList, GvTraceNotable, "unable to query ea: %s, 0x%x\n", name.Get(), status);
        value.Value.Reset();
        value.Length = 0;
    }
    status = Append(query, name.Get(), entry.NameLength(), value, output);
    if (!NT_SUCCESS(status) && !*query.Faulted)
        GV_TRACE_AS(kByList, GvTraceError, "couldn't append, ea: %s\n", name.Get());
    return status;
}

[[nodiscard]] NTSTATUS MoveToNext(NameList* list)
{
    const ULONG next = list->NextEntryOffset();
    if (next >= list->Left()) {
        GV_TRACE_AS(kByList, GvTraceError, "get-ea-info buffer overrun\n");
        return STATUS_INVALID_PARAMETER;
    }
    list->Entry += next;
    return CheckRoomForEntry(*list);
}

// All or nothing: a failure reports no bytes, whatever was written before it.
[[nodiscard]] NTSTATUS GvQueryEaByUserEaList(IrpContext* context, const EaQuery& query, const void* eaList,
                                             ULONG eaListLength, ULONG* information)
{
    if (eaListLength == 0) {
        GV_TRACE(GvTraceError, "bad get-ea-info buf len: %d\n", eaListLength);
        return STATUS_INVALID_PARAMETER;
    }
    const auto* const start = static_cast<const UCHAR*>(eaList);
    NameList list = {.Entry = start, .End = start + eaListLength};
    GvEaList output = StartOf(query);
    NTSTATUS status = CheckRoomForEntry(list);
    while (NT_SUCCESS(status)) {
        status = AppendEntry(context, query, list, &output);
        if (!NT_SUCCESS(status)) break;
        if (query.ReturnSingleEntry || list.NextEntryOffset() == 0) {
            *information = Placed(__func__, query, output);
            return status;
        }
        status = MoveToNext(&list);
    }
    return status;
}

[[nodiscard]] NTSTATUS MapBuffer(PIRP irp, ULONG length, void** buffer)
{
    const NTSTATUS status = GvUtlMapProbedBuffer(irp, length, IoWriteAccess, buffer);
    if (status == STATUS_ACCESS_VIOLATION) {
        GV_TRACE_AS(kName, GvTraceError, "EXCEPTION, EXCEPTION!!!, err: 0x%x\n", STATUS_UNSUCCESSFUL);
        return STATUS_UNSUCCESSFUL;
    }
    if (NT_SUCCESS(status)) return status;
    // A query without any buffer is told that its buffer is too small.
    GV_TRACE_AS(kName, GvTraceError, "GvUtlMapBufferForIo(): failed: 0x%x\n", STATUS_BUFFER_OVERFLOW);
    return STATUS_BUFFER_OVERFLOW;
}

[[nodiscard]] NTSTATUS QueryInForm(IrpContext* context, const IO_STACK_LOCATION* stack, const EaQuery& query,
                                   ULONG* information)
{
    const auto& parameters = stack->Parameters.QueryEa;
    if (parameters.EaList) {
        GV_TRACE_AS(kName, GvTraceFlow, "querying ea by user-ea-list\n");
        return GvQueryEaByUserEaList(context, query, parameters.EaList, parameters.EaListLength, information);
    }
    if (stack->Flags & SL_INDEX_SPECIFIED) {
        GV_TRACE_AS(kName, GvTraceFlow, "querying ea by user specified index: %d\n", parameters.EaIndex);
        return GvQueryEaByIndex(context, query, parameters.EaIndex, information);
    }
    const bool restart = (stack->Flags & SL_RESTART_SCAN) != 0;
    const ULONG position = GvLoad(query.Ccb->EaScanIndex);
    GV_TRACE_AS(kName, GvTraceFlow, "querying ea by ccb-index: %d, restart: %d\n", position,
                static_cast<ULONG>(restart));
    return GvQueryEaByIndex(context, query, restart ? kFirstIndex : position, information);
}

} // namespace

NTSTATUS GvDoQueryEa(IrpContext* context, GvOutcome* outcome)
{
    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(context->Irp);
    Fcb* const fcb = GvFcbOf(stack->FileObject);
    NTSTATUS status = GvScreenEaRequest(context, fcb, __func__, "ERR: query-ea must be a top-level request\n");
    if (!NT_SUCCESS(status)) return status;
    if (context->IsAsync) return GvPendIrpContext(context);

    GvHeldResource lock;
    status = lock.Shared(fcb->Header.Resource);
    if (!NT_SUCCESS(status)) return status;
    const ULONG length = stack->Parameters.QueryEa.Length;
    void* buffer = nullptr;
    status = MapBuffer(context->Irp, length, &buffer);
    if (!NT_SUCCESS(status)) return status;
    bool faulted = false;
    const EaQuery query = {
        .Object = fcb,
        .Ccb = GvCcbOf(stack->FileObject),
        .Buffer = static_cast<UCHAR*>(buffer),
        .Length = length,
        .ReturnSingleEntry = (stack->Flags & SL_RETURN_SINGLE_ENTRY) != 0,
        .Faulted = &faulted,
    };
    status = QueryInForm(context, stack, query, &outcome->Information);
    if (!NT_SUCCESS(status) && !faulted) GV_TRACE(GvTraceError, "GvQueryEaByXx(): failed 0x%x\n", status);
    return status;
}
