// Requests through the system services; views are touched as a program touches memory.

#include "content_driver.h"

#include <cstring>
#include <vector>

#include <gtest/gtest.h>
#include <nthost/sections.h>

#include "volume.h"

namespace model {
namespace {

constexpr ACCESS_MASK kReadWrite = FILE_READ_DATA | FILE_WRITE_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE;
constexpr ULONG kMostBytes = 1 << 20;

std::string FilePath() { return std::string(kVolume) + "\\content"; }

support::Handle OpenFile(ACCESS_MASK access, ULONG options)
{
    support::OpenRequest request;
    request.Access = access;
    request.Disposition = FILE_OPEN_IF;
    request.Options = options;
    support::OpenResult opened = support::Open(FilePath(), request);
    EXPECT_STATUS(STATUS_SUCCESS, opened.Status);
    return std::move(opened.File);
}

// The offset as a service wants it: a mark for the position and for the end.
LARGE_INTEGER OffsetOf(const ContentOperation& operation)
{
    LARGE_INTEGER offset;
    offset.QuadPart = operation.Offset;
    if (operation.At == At::Offset) return offset;
    offset.u.HighPart = -1;
    offset.u.LowPart = operation.At == At::End ? FILE_WRITE_TO_END_OF_FILE : FILE_USE_FILE_POINTER_POSITION;
    return offset;
}

// Waits for the request, if it was taken.
template <typename Service>
ContentOutcome Await(Service service)
{
    support::Event done;
    IO_STATUS_BLOCK statusBlock = {};
    NTSTATUS status = service(done.Get(), &statusBlock);
    if (status == STATUS_PENDING) {
        done.Wait();
        status = statusBlock.Status;
    }
    return {status, NT_SUCCESS(status) ? statusBlock.Information : 0, {}, 0};
}

} // namespace

void ContentDriver::Open()
{
    synchronous_ = OpenFile(kReadWrite, FILE_SYNCHRONOUS_IO_NONALERT);
    asynchronous_ = OpenFile(kReadWrite, 0);
    appending_ = OpenFile(FILE_APPEND_DATA | SYNCHRONIZE, FILE_SYNCHRONOUS_IO_NONALERT);
    EXPECT_STATUS(STATUS_SUCCESS, Overwrite().Status);
}

void ContentDriver::Close()
{
    for (View& view : views_) {
        if (view.Base) (void)Unmap(&view);
    }
    // A dormant section would keep the file open.
    if (synchronous_.Get()) EXPECT_STATUS(STATUS_SUCCESS, Overwrite().Status);
    for (support::Handle* handle : {&synchronous_, &asynchronous_, &appending_}) (void)handle->Close();
}

HANDLE ContentDriver::HandleFor(const ContentOperation& operation) const
{
    switch (operation.Through) {
    case Through::Synchronous: return synchronous_.Get();
    case Through::Asynchronous: return asynchronous_.Get();
    default: return appending_.Get();
    }
}

ContentOutcome ContentDriver::Read(const ContentOperation& read)
{
    std::string data(std::max<ULONG>(read.Length, 1), '\0');
    LARGE_INTEGER offset = OffsetOf(read);
    ContentOutcome outcome = Await([&](HANDLE event, IO_STATUS_BLOCK* result) {
        return NtReadFile(HandleFor(read), event, nullptr, nullptr, result, data.data(), read.Length, &offset, nullptr);
    });
    if (NT_SUCCESS(outcome.Status)) outcome.Bytes = data.substr(0, outcome.Information);
    return outcome;
}

ContentOutcome ContentDriver::Write(const ContentOperation& write, const char* data)
{
    LARGE_INTEGER offset = OffsetOf(write);
    return Await([&](HANDLE event, IO_STATUS_BLOCK* result) {
        return NtWriteFile(HandleFor(write), event, nullptr, nullptr, result, const_cast<char*>(data), write.Length,
                           &offset, nullptr);
    });
}

ContentOutcome ContentDriver::Overwrite()
{
    support::OpenRequest request;
    request.Access = FILE_WRITE_DATA | SYNCHRONIZE;
    request.Disposition = FILE_OVERWRITE;
    return {support::Open(FilePath(), request).Status, 0, {}, 0};
}

ContentOutcome ContentDriver::Set(FILE_INFORMATION_CLASS infoClass, LONGLONG value)
{
    LARGE_INTEGER size; // the one field of all the records that are set here
    size.QuadPart = value;
    IO_STATUS_BLOCK statusBlock = {};
    return {NtSetInformationFile(synchronous_.Get(), &statusBlock, &size, sizeof(size), infoClass), 0, {}, 0};
}

ContentOutcome ContentDriver::QueryEnd()
{
    FILE_STANDARD_INFORMATION standard = {};
    IO_STATUS_BLOCK statusBlock = {};
    const NTSTATUS status =
        NtQueryInformationFile(synchronous_.Get(), &statusBlock, &standard, sizeof(standard), FileStandardInformation);
    return {status, 0, {}, standard.EndOfFile.QuadPart};
}

ContentOutcome ContentDriver::QueryPosition()
{
    FILE_POSITION_INFORMATION position = {};
    IO_STATUS_BLOCK statusBlock = {};
    const NTSTATUS status =
        NtQueryInformationFile(synchronous_.Get(), &statusBlock, &position, sizeof(position), FilePositionInformation);
    return {status, 0, {}, position.CurrentByteOffset.QuadPart};
}

ContentOutcome ContentDriver::Map(View* view)
{
    NTSTATUS status = NtCreateSection(view->Section.Out(), SECTION_MAP_READ | SECTION_MAP_WRITE, nullptr, nullptr,
                                      PAGE_READWRITE, SEC_COMMIT, synchronous_.Get());
    if (!NT_SUCCESS(status)) return {status, 0, {}, 0};
    PVOID base = nullptr;
    SIZE_T size = 0;
    status = NtMapViewOfSection(view->Section.Get(), NtCurrentProcess(), &base, 0, 0, nullptr, &size, ViewUnmap, 0,
                                PAGE_READWRITE);
    view->Base = static_cast<char*>(base);
    return {status, 0, {}, 0};
}

ContentOutcome ContentDriver::Unmap(View* view)
{
    const NTSTATUS status = NtUnmapViewOfSection(NtCurrentProcess(), std::exchange(view->Base, nullptr));
    EXPECT_STATUS(STATUS_SUCCESS, view->Section.Close());
    return {status, 0, {}, 0};
}

ContentOutcome ContentDriver::ReadView(const ContentOperation& read)
{
    std::string data(read.Length, '\0');
    const NTSTATUS status = nthost::GuardedCopy(data.data(), views_[read.View].Base + read.ViewOffset, read.Length);
    return {status, 0, data, 0};
}

ContentOutcome ContentDriver::WriteView(const ContentOperation& write)
{
    const std::string data = Noise(write.Fill, write.Length);
    return {nthost::GuardedCopy(views_[write.View].Base + write.ViewOffset, data.data(), write.Length), 0, {}, 0};
}

ContentOutcome ContentDriver::FlushView(const ContentOperation& flush)
{
    PVOID base = views_[flush.View].Base + flush.ViewOffset;
    SIZE_T size = flush.Length;
    IO_STATUS_BLOCK statusBlock = {};
    return {NtFlushVirtualMemory(NtCurrentProcess(), &base, &size, &statusBlock), 0, {}, 0};
}

ContentOutcome ContentDriver::WriteBack()
{
    PVOID file = nullptr;
    const NTSTATUS status =
        ObReferenceObjectByHandle(synchronous_.Get(), 0, IoFileObjectType, KernelMode, &file, nullptr);
    if (!NT_SUCCESS(status)) return {status, 0, {}, 0};
    const NTSTATUS written = nthost::StepModifiedPageWriter(static_cast<PFILE_OBJECT>(file));
    ObDereferenceObject(file);
    return {written, 0, {}, 0};
}

ContentOutcome ContentDriver::Apply(const ContentOperation& operation)
{
    View& view = views_[operation.View];
    switch (operation.Verb) {
    case ContentVerb::Read: return Read(operation);
    case ContentVerb::Write: return Write(operation, Noise(operation.Fill, operation.Length).c_str());
    case ContentVerb::WriteFromView: return Write(operation, view.Base + operation.ViewOffset);
    case ContentVerb::SetEnd: return Set(FileEndOfFileInformation, operation.Offset);
    case ContentVerb::SetAllocation: return Set(FileAllocationInformation, operation.Offset);
    case ContentVerb::SetPosition: return Set(FilePositionInformation, operation.Offset);
    case ContentVerb::Overwrite: return Overwrite();
    case ContentVerb::Flush: {
        IO_STATUS_BLOCK statusBlock = {};
        return {NtFlushBuffersFile(synchronous_.Get(), &statusBlock), 0, {}, 0};
    }
    case ContentVerb::QueryEnd: return QueryEnd();
    case ContentVerb::QueryPosition: return QueryPosition();
    case ContentVerb::WriteBack: return WriteBack();
    case ContentVerb::Trim: (void)nthost::TrimSections(); return {};
    case ContentVerb::Map: return Map(&view);
    case ContentVerb::Unmap: return Unmap(&view);
    case ContentVerb::ReadView: return ReadView(operation);
    case ContentVerb::WriteView: return WriteView(operation);
    default: return FlushView(operation);
    }
}

ContentOutcome ContentDriver::Contents()
{
    return Read({.Verb = ContentVerb::Read,
                 .Through = Through::Asynchronous,
                 .At = At::Offset,
                 .Offset = 0,
                 .Length = kMostBytes,
                 .Fill = 0,
                 .View = 0,
                 .ViewOffset = 0});
}

} // namespace model
