// Listing a directory: one plugin call per entry, by an ordinal kept in the Ccb. Vcb.Resource is held shared, then the
// directory's lock: exclusive when the request carries a name, the only case in which the pattern can be installed.

#include "dirctl/dirctl.h"

#include "create/create.h"
#include "dirctl/records.h"
#include "frame/plugincall.h"
#include "frame/resource.h"

namespace {

struct DirectoryQuery {
    PIRP Irp;
    Fcb* Directory;
    ::Ccb* Ccb;
    ULONG Flags;
    ULONG Length;
    PUNICODE_STRING FileName; // or null
    ULONG FileIndex;
    const DirectoryClass* Class;
};

constexpr char kName[] = "GvPerformQueryDir";

DirectoryQuery ReadQuery(PIRP irp)
{
    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(irp);
    const auto& query = stack->Parameters.QueryDirectory;
    return {
        .Irp = irp,
        .Directory = GvFcbOf(stack->FileObject),
        .Ccb = GvCcbOf(stack->FileObject),
        .Flags = stack->Flags,
        .Length = query.Length,
        .FileName = query.FileName,
        .FileIndex = query.FileIndex,
        .Class = GvDirectoryClassOf(query.FileInformationClass),
    };
}

[[nodiscard]] NTSTATUS MapBuffer(const DirectoryQuery& query, void** buffer)
{
    const NTSTATUS status = GvUtlMapProbedBuffer(query.Irp, query.Length, IoWriteAccess, buffer);
    if (status == STATUS_ACCESS_VIOLATION) {
        GV_TRACE_AS(kName, GvTraceError, "EXCEPTION: 0x%x, (1) bad user-buffer\n", status);
    } else if (!NT_SUCCESS(status)) {
        GV_TRACE_AS(kName, GvTraceError, "GvUtlMapBufferForIo(): failed: 0x%x\n", status);
    }
    return status;
}

// The name in the form that is matched: the plugin's, or as it stands. holder owns what the plugin gave.
[[nodiscard]] NTSTATUS NormalizedName(IrpContext* context, PCUNICODE_STRING name, GvString* holder,
                                      PCUNICODE_STRING* result)
{
    const NTSTATUS status = GvPnGetNormalizedPathFromPlugin(context, name, holder->Out());
    if (!NT_SUCCESS(status) && status != STATUS_NOT_SUPPORTED) return status;
    *result = NT_SUCCESS(status) && *holder ? holder->Get() : name;
    return STATUS_SUCCESS;
}

// Once set, a pattern stays for the life of the handle.
[[nodiscard]] NTSTATUS InstallPattern(IrpContext* context, const DirectoryQuery& query, bool* installed)
{
    if (!query.FileName || query.Ccb->DirSearchPattern) return STATUS_SUCCESS;
    GvString normalized;
    PCUNICODE_STRING name = nullptr;
    NTSTATUS status = NormalizedName(context, query.FileName, &normalized, &name);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_AS(kName, GvTraceError, "GvPnGetNormalizedPathFromPlugin(): failed: 0x%x\n", status);
        return status;
    }
    GvStore(query.Ccb->DirScanIndex, 0);
    GvString pattern(GvUtlAllocUnicodeString(PagedPool, name->Length));
    if (!pattern) {
        GV_TRACE_AS(kName, GvTraceError, "out-of-mem\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    status = RtlUpcaseUnicodeString(pattern.Get(), name, FALSE);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED_AS(kName, "RtlUpcaseUnicodeString", status);
        return status;
    }
    query.Ccb->DirSearchPattern = pattern.Release();
    *installed = true;
    return STATUS_SUCCESS;
}

// Indexes are ordinals: a deletion below the current one would make a plain resume skip an entry, so the scan starts
// over. From here on the query counts by itself, and leaves behind where it has ended: two at once on one handle may
// list an entry twice, but lose none between them.
ULONG StartOfScan(const DirectoryQuery& query)
{
    Ccb* const ccb = query.Ccb;
    const LONG generation = GvLoad(query.Directory->ChildDeleteCount);
    auto index = static_cast<ULONG>(GvLoad(ccb->DirScanIndex));
    bool reset = false;
    if (index == 0) {
        GvStore(ccb->DirGeneration, generation);
    } else if (GvLoad(ccb->DirGeneration) != generation) {
        GvStore(ccb->DirGeneration, generation);
        index = 0;
        reset = true;
        GV_TRACE_AS(kName, GvTraceNotable,
                    "entries deleted from dir, during dir-list, resetting dir-list scan-index\n");
    }
    if (query.Flags & SL_RESTART_SCAN) return 0;
    return (query.Flags & SL_INDEX_SPECIFIED) && !reset ? query.FileIndex + 1 : index;
}

// Ignoring case, the match may need memory for the name in upper case, and raises when there is none.
[[nodiscard]] NTSTATUS Matches(PUNICODE_STRING pattern, PCUNICODE_STRING name, bool* matches)
{
    *matches = RtlCompareUnicodeString(pattern, name, TRUE) == 0;
    if (*matches) return STATUS_SUCCESS;
    if (GvGuarded([&] {
            *matches = FsRtlIsNameInExpression(pattern, const_cast<PUNICODE_STRING>(name), TRUE, nullptr) != FALSE;
        })) {
        return STATUS_SUCCESS;
    }
    GV_TRACE_FAILED_AS("GvDoesDirEntryMatchQuery", "FsRtlIsNameInExpression", STATUS_INSUFFICIENT_RESOURCES);
    return STATUS_INSUFFICIENT_RESOURCES;
}

// An entry whose name cannot be normalised does not match. A failure leaves open whether it does: passing it over would
// make an entry vanish from the listing.
[[nodiscard]] NTSTATUS GvDoesDirEntryMatchQuery(IrpContext* context, const Ccb* ccb, const PluginDirEntry* entry,
                                                bool* matches)
{
    const PUNICODE_STRING pattern = ccb->DirSearchPattern;
    *matches = !pattern;
    if (!pattern) return STATUS_SUCCESS;
    const auto length = static_cast<USHORT>(entry->FileNameLength);
    const UNICODE_STRING plain = {length, length, const_cast<PWCH>(entry->FileName)};
    GvString normalized;
    PCUNICODE_STRING name = nullptr;
    if (const NTSTATUS status = NormalizedName(context, &plain, &normalized, &name); !NT_SUCCESS(status)) {
        GV_TRACE(GvTraceError, "GvPnGetNormalizedPathFromPlugin(): failed: 0x%x\n", status);
        return STATUS_SUCCESS;
    }
    const NTSTATUS status = Matches(pattern, name, matches);
    if (NT_SUCCESS(status)) GV_TRACE(GvTraceFlow, "%wZ %S %wZ\n", pattern, *matches ? L"==" : L"!=", &plain);
    return status;
}

// The buffer of one query while it fills.
struct Listing {
    UCHAR* Buffer;
    UCHAR* Previous; // last record placed, or null
    ULONG Remaining;
    ULONG Index; // of the entry that comes next
};

enum class Placed { Yes, NoRoom, Faulted };

Placed Place(const DirectoryQuery& query, const PluginDirEntry* entry, Listing* listing)
{
    const ULONGLONG size = GvDirEntrySize(query.Class, entry);
    if (listing->Remaining < size) return Placed::NoRoom;
    UCHAR* const destination = listing->Buffer + (query.Length - listing->Remaining);
    if (!GvGuarded([&] { GvFillDirEntryInfo(query.Class, entry, listing->Index, listing->Previous, destination); })) {
        GV_TRACE_AS(kName, GvTraceError, "EXCEPTION: 0x%x, (2) bad user-buffer\n", STATUS_ACCESS_VIOLATION);
        return Placed::Faulted;
    }
    ++listing->Index;
    listing->Remaining -= static_cast<ULONG>(size);
    listing->Previous = destination;
    return Placed::Yes;
}

[[nodiscard]] NTSTATUS EndOfListing(const Listing& listing, bool patternInstalled)
{
    GV_TRACE_AS(kName, GvTraceFlow, "all done\n");
    if (listing.Previous) return STATUS_SUCCESS;
    // Only the first query of a scan says that nothing matches; later ones say that nothing more does.
    return patternInstalled ? STATUS_NO_SUCH_FILE : STATUS_NO_MORE_FILES;
}

[[nodiscard]] NTSTATUS FillListing(IrpContext* context, const DirectoryQuery& query, bool patternInstalled,
                                   Listing* listing)
{
    GV_ASSERT_HELD(query.Directory->Header.Resource);
    NTSTATUS status = STATUS_SUCCESS;
    GvBlock<PluginDirEntry> entry;
    while (listing->Remaining != 0) {
        status = GvReadDirEntryFromPlugin(context, query.Directory, listing->Index, &entry);
        if (status == STATUS_NO_MORE_FILES) return EndOfListing(*listing, patternInstalled);
        if (!NT_SUCCESS(status)) {
            GV_TRACE_AS(kName, GvTraceFlow, "ReadDirEntry(): 0x%x\n", status);
            return status;
        }
        bool matches;
        status = GvDoesDirEntryMatchQuery(context, query.Ccb, entry.Get(), &matches);
        if (!NT_SUCCESS(status)) return status;
        if (!matches) {
            ++listing->Index;
            continue;
        }
        switch (Place(query, entry.Get(), listing)) {
        case Placed::NoRoom: return listing->Previous ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW;
        case Placed::Faulted: return STATUS_ACCESS_VIOLATION;
        case Placed::Yes: break;
        }
        if (query.Flags & SL_RETURN_SINGLE_ENTRY) return STATUS_SUCCESS;
    }
    return status;
}

[[nodiscard]] NTSTATUS GvPerformQueryDir(IrpContext* context, const DirectoryQuery& query, ULONG* information)
{
    GV_ASSERT_HELD(&context->Vcb->Resource);
    *information = 0;
    Listing listing = {.Buffer = nullptr, .Previous = nullptr, .Remaining = query.Length, .Index = 0};
    void* buffer = nullptr;
    NTSTATUS status = MapBuffer(query, &buffer);
    if (!NT_SUCCESS(status)) return status;
    listing.Buffer = static_cast<UCHAR*>(buffer);

    GvHeldResource lock;
    status = query.FileName ? lock.Exclusive(query.Directory->Header.Resource)
                            : lock.Shared(query.Directory->Header.Resource);
    if (!NT_SUCCESS(status)) return status;
    bool patternInstalled = false;
    status = InstallPattern(context, query, &patternInstalled);
    if (!NT_SUCCESS(status)) return status;
    listing.Index = StartOfScan(query);
    const LONG generation = GvLoad(query.Ccb->DirGeneration);
    status = FillListing(context, query, patternInstalled, &listing);
    // Unless another query has started the scan over meanwhile: its place is the right one then.
    if (GvLoad(query.Ccb->DirGeneration) == generation) GvStore(query.Ccb->DirScanIndex, listing.Index);
    *information = query.Length - listing.Remaining;
    return status;
}

void TraceQuery(const DirectoryQuery& query, ULONG infoClass)
{
    constexpr char kCaller[] = "GvDoQueryDirectory";
    if (query.FileName) {
        GV_TRACE_AS(kCaller, GvTraceFlow,
                    "(query): flags: 0x%x, class: 0x%x, file-index: 0x%x, file-name: %wZ, len: 0x%x\n", query.Flags,
                    infoClass, query.FileIndex, query.FileName, query.Length);
    } else {
        GV_TRACE_AS(kCaller, GvTraceFlow,
                    "(query): flags: 0x%x, class: 0x%x, file-index: 0x%x, file-name: NONE, len: 0x%x\n", query.Flags,
                    infoClass, query.FileIndex, query.Length);
    }
}

} // namespace

NTSTATUS GvDoQueryDirectory(IrpContext* context, ULONG* information)
{
    const DirectoryQuery query = ReadQuery(context->Irp);
    const auto infoClass =
        static_cast<ULONG>(IoGetCurrentIrpStackLocation(context->Irp)->Parameters.QueryDirectory.FileInformationClass);
    TraceQuery(query, infoClass);
    GvHeldResource lock;
    if (const NTSTATUS status = lock.Shared(&context->Vcb->Resource); !NT_SUCCESS(status)) return status;
    if (!query.Class) {
        GV_TRACE(GvTraceError, "unsupported info-class: %d\n", infoClass);
        return STATUS_INVALID_INFO_CLASS;
    }
    const NTSTATUS status = GvPerformQueryDir(context, query, information);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED("GvPerformQueryDir", status);
    return status;
}
