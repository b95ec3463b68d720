// The calls of open_requests.h.

#include "open_requests.h"

#include <cstring>

#include <nthost/debug.h>

#include "dirctl/records.h"

namespace opening {

void Decode(const UCHAR* buffer, ULONG_PTR information, FILE_INFORMATION_CLASS infoClass, Listed* listed)
{
    const DirectoryClass* const layout = GvDirectoryClassOf(infoClass);
    ASSERT_NE(layout, nullptr);
    const ULONG lengthOffset = infoClass == FileNamesInformation ? offsetof(FILE_NAMES_INFORMATION, FileNameLength)
                                                                 : offsetof(FILE_DIRECTORY_INFORMATION, FileNameLength);
    for (ULONG at = 0; at < information;) {
        const auto* const head = reinterpret_cast<const FILE_NAMES_INFORMATION*>(buffer + at);
        ULONG nameBytes;
        std::memcpy(&nameBytes, buffer + at + lengthOffset, sizeof nameBytes);
        ASSERT_LE(at + layout->NameOffset + nameBytes, information);
        listed->Names.push_back(nthost::ToUtf8(reinterpret_cast<const WCHAR*>(buffer + at + layout->NameOffset),
                                               nameBytes / sizeof(WCHAR)));
        listed->Indexes.push_back(head->FileIndex);
        if (head->NextEntryOffset == 0) return;
        ASSERT_EQ(head->NextEntryOffset % 8, 0u);
        at += head->NextEntryOffset;
    }
}

// The driver lists in the caller's thread, so the service waits for nothing, whatever the handle.
Outcome ListInto(HANDLE directory, const Query& query, void* buffer)
{
    Text pattern(query.Pattern);
    IO_STATUS_BLOCK block = {};
    const NTSTATUS status =
        NtQueryDirectoryFile(directory, nullptr, nullptr, nullptr, &block, buffer, query.Length, query.Class,
                             query.Single, query.Pattern.empty() ? nullptr : pattern.Get(), query.Restart);
    EXPECT_NE(status, STATUS_PENDING);
    return {status, block.Information};
}

Listed List(HANDLE directory, const Query& query)
{
    std::vector<uint64_t> buffer(query.Length / sizeof(uint64_t) + 1);
    const Outcome outcome = ListInto(directory, query, buffer.data());
    Listed listed{outcome.Status, outcome.Information, {}, {}};
    if (NT_SUCCESS(outcome.Status)) {
        Decode(reinterpret_cast<const UCHAR*>(buffer.data()), outcome.Information, query.Class, &listed);
    }
    return listed;
}

Lines ListAll(HANDLE directory, const Query& query)
{
    Lines names;
    for (;;) {
        const Listed part = List(directory, query);
        if (part.Status == STATUS_NO_MORE_FILES) return names;
        EXPECT_STATUS(STATUS_SUCCESS, part.Status);
        if (!NT_SUCCESS(part.Status)) return names;
        names.insert(names.end(), part.Names.begin(), part.Names.end());
    }
}

ServedRequest::ServedRequest(PDEVICE_OBJECT device)
{
    context_.DeviceObject = device;
    context_.Vcb = GvVcbOf(device);
    context_.IsPended = 1; // its plugin calls are not cancellable
    KeInitializeEvent(&context_.PluginCallContext, SynchronizationEvent, FALSE);
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(&context_.Vcb->Resource, TRUE);
}

ServedRequest::~ServedRequest()
{
    ExReleaseResourceLite(&context_.Vcb->Resource);
    KeLeaveCriticalRegion();
}

} // namespace opening
