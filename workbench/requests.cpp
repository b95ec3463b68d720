// The services behind each call, with their buffers.
#include "workbench/requests.h"

#include <algorithm>
#include <cstring>

#include <nthost/debug.h>

namespace workbench {

namespace {

LARGE_INTEGER Large(LONGLONG value)
{
    LARGE_INTEGER large;
    large.QuadPart = value;
    return large;
}

Outcome Ended(NTSTATUS status, const IO_STATUS_BLOCK& block) { return {status, block.Information}; }

std::string InBrackets(NTSTATUS status) { return "<" + nthost::StatusName(status) + ">"; }

template <typename Info>
NTSTATUS SetAs(HANDLE file, FILE_INFORMATION_CLASS infoClass, const Info& info)
{
    return Set(file, infoClass, &info, sizeof info).Status;
}

} // namespace

OpenResult Open(const Text& path, const OpenRequest& request)
{
    OBJECT_ATTRIBUTES attributes;
    const ULONG flags = OBJ_CASE_INSENSITIVE | (request.Kernel ? OBJ_KERNEL_HANDLE : 0);
    InitializeObjectAttributes(&attributes, const_cast<PUNICODE_STRING>(path.Get()), flags, request.Root, nullptr);
    IO_STATUS_BLOCK block = {};
    HANDLE handle = nullptr;
    LARGE_INTEGER allocation = Large(request.AllocationSize);
    const std::string list = request.Eas ? *request.Eas : std::string();
    std::vector<uint64_t> eas(list.size() / sizeof(uint64_t) + 1); // aligned
    std::memcpy(eas.data(), list.data(), list.size());
    const auto create = request.Kernel ? ZwCreateFile : NtCreateFile;
    const NTSTATUS status = create(&handle, request.Access, &attributes, &block, &allocation, request.Attributes,
                                   request.Share, request.Disposition, request.Options,
                                   list.empty() ? nullptr : eas.data(), static_cast<ULONG>(list.size()));
    return {status, block.Information, Handle(NT_SUCCESS(status) ? handle : nullptr)};
}

Outcome Read(HANDLE file, void* buffer, ULONG length, LONGLONG offset)
{
    Request read;
    const NTSTATUS status = read.StartRead(file, buffer, length, offset);
    return {NT_SUCCESS(status) ? read.Wait() : status, read.Information()};
}

std::string ReadText(HANDLE file, ULONG length, LONGLONG offset)
{
    std::string text(length, '\0');
    const Outcome outcome = Read(file, text.data(), length, offset);
    if (!NT_SUCCESS(outcome.Status)) return InBrackets(outcome.Status);
    text.resize(outcome.Information);
    return text;
}

Outcome Write(HANDLE file, std::string_view data, LONGLONG offset)
{
    LARGE_INTEGER position = Large(offset);
    IO_STATUS_BLOCK block = {};
    const NTSTATUS status =
        NtWriteFile(file, nullptr, nullptr, nullptr, &block, const_cast<char*>(data.data()),
                    static_cast<ULONG>(data.size()), offset == kAtPosition ? nullptr : &position, nullptr);
    return Ended(status, block);
}

NTSTATUS Flush(HANDLE file)
{
    IO_STATUS_BLOCK block = {};
    return NtFlushBuffersFile(file, &block);
}

Outcome Query(HANDLE file, FILE_INFORMATION_CLASS infoClass, void* buffer, ULONG length)
{
    IO_STATUS_BLOCK block = {};
    return Ended(NtQueryInformationFile(file, &block, buffer, length, infoClass), block);
}

Outcome Set(HANDLE file, FILE_INFORMATION_CLASS infoClass, const void* buffer, ULONG length)
{
    IO_STATUS_BLOCK block = {};
    return Ended(NtSetInformationFile(file, &block, const_cast<void*>(buffer), length, infoClass), block);
}

Outcome QueryVolume(HANDLE file, FS_INFORMATION_CLASS infoClass, void* buffer, ULONG length)
{
    IO_STATUS_BLOCK block = {};
    return Ended(NtQueryVolumeInformationFile(file, &block, buffer, length, infoClass), block);
}

Outcome SetVolume(HANDLE file, FS_INFORMATION_CLASS infoClass, const void* buffer, ULONG length)
{
    IO_STATUS_BLOCK block = {};
    return Ended(NtSetVolumeInformationFile(file, &block, const_cast<void*>(buffer), length, infoClass), block);
}

Outcome FsControl(HANDLE file, ULONG code)
{
    IO_STATUS_BLOCK block = {};
    return Ended(NtFsControlFile(file, nullptr, nullptr, nullptr, &block, code, nullptr, 0, nullptr, 0), block);
}

NTSTATUS SetSize(HANDLE file, LONGLONG endOfFile)
{
    return SetAs(file, FileEndOfFileInformation, FILE_END_OF_FILE_INFORMATION{.EndOfFile = Large(endOfFile)});
}

NTSTATUS SetAllocation(HANDLE file, LONGLONG allocation)
{
    return SetAs(file, FileAllocationInformation, FILE_ALLOCATION_INFORMATION{.AllocationSize = Large(allocation)});
}

NTSTATUS SetDelete(HANDLE file, bool deleteIt)
{
    FILE_DISPOSITION_INFORMATION info;
    info.DeleteFile = deleteIt;
    return SetAs(file, FileDispositionInformation, info);
}

NTSTATUS SetBasic(HANDLE file, ULONG attributes, LONGLONG creation, LONGLONG access, LONGLONG write, LONGLONG change)
{
    FILE_BASIC_INFORMATION info = {};
    info.CreationTime = Large(creation);
    info.LastAccessTime = Large(access);
    info.LastWriteTime = Large(write);
    info.ChangeTime = Large(change);
    info.FileAttributes = attributes;
    return SetAs(file, FileBasicInformation, info);
}

std::vector<uint64_t> RecordWithText(size_t size, size_t lengthAt, size_t textAt, std::string_view bytes)
{
    std::vector<uint64_t> record((std::max(size, textAt + bytes.size()) + 7) / 8);
    auto* const raw = reinterpret_cast<char*>(record.data());
    const auto length = static_cast<ULONG>(bytes.size());
    std::memcpy(raw + lengthAt, &length, sizeof length);
    std::memcpy(raw + textAt, bytes.data(), bytes.size());
    return record;
}

NTSTATUS Rename(HANDLE file, const Text& name, bool replace, HANDLE root)
{
    constexpr size_t kNameOffset = FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName);
    const std::string_view bytes = name.Bytes();
    std::vector<uint64_t> record = RecordWithText(
        sizeof(FILE_RENAME_INFORMATION), FIELD_OFFSET(FILE_RENAME_INFORMATION, FileNameLength), kNameOffset, bytes);
    auto* const info = reinterpret_cast<PFILE_RENAME_INFORMATION>(record.data());
    info->ReplaceIfExists = replace;
    info->RootDirectory = root;
    const size_t length = std::max(kNameOffset + bytes.size(), sizeof(FILE_RENAME_INFORMATION));
    return Set(file, FileRenameInformation, info, static_cast<ULONG>(length)).Status;
}

std::string NameOf(HANDLE file)
{
    std::vector<uint64_t> buffer(0x2100); // the longest name and its header
    auto* const info = reinterpret_cast<PFILE_NAME_INFORMATION>(buffer.data());
    const NTSTATUS status =
        Query(file, FileNameInformation, info, static_cast<ULONG>(buffer.size() * sizeof(uint64_t))).Status;
    return NT_SUCCESS(status) ? Utf8(info->FileName, info->FileNameLength) : InBrackets(status);
}

NTSTATUS Lock(HANDLE file, LONGLONG offset, LONGLONG length, bool exclusive)
{
    Request lock;
    const NTSTATUS status =
        lock.StartLock(file, offset, length, exclusive ? Request::Lock::Exclusive : Request::Lock::Shared);
    return NT_SUCCESS(status) ? lock.Wait() : status;
}

NTSTATUS Unlock(HANDLE file, LONGLONG offset, LONGLONG length)
{
    LARGE_INTEGER position = Large(offset);
    LARGE_INTEGER size = Large(length);
    IO_STATUS_BLOCK block = {};
    return NtUnlockFile(file, &block, &position, &size, 0);
}

Listing List(HANDLE directory, const std::string& pattern, ULONG bufferLength)
{
    std::vector<uint64_t> buffer(bufferLength / sizeof(uint64_t) + 1);
    Text expression(pattern);
    Listing listing = {};
    for (BOOLEAN restart = TRUE;; restart = FALSE) {
        IO_STATUS_BLOCK block = {};
        listing.Status =
            NtQueryDirectoryFile(directory, nullptr, nullptr, nullptr, &block, buffer.data(), bufferLength,
                                 FileNamesInformation, FALSE, pattern.empty() ? nullptr : expression.Get(), restart);
        if (listing.Status != STATUS_SUCCESS) return listing;
        EachRecord<FILE_NAMES_INFORMATION>(buffer.data(), [&](const FILE_NAMES_INFORMATION& record) {
            listing.Names.push_back(Utf8(record.FileName, record.FileNameLength));
        });
    }
}

NTSTATUS Request::StartRead(HANDLE file, void* buffer, ULONG length, LONGLONG offset)
{
    LARGE_INTEGER position = Large(offset);
    return NtReadFile(file, done_.Get(), nullptr, nullptr, &statusBlock_, buffer, length, &position, nullptr);
}

NTSTATUS Request::StartLock(HANDLE file, LONGLONG offset, LONGLONG length, Lock lock, IfHeld ifHeld)
{
    LARGE_INTEGER position = Large(offset);
    LARGE_INTEGER size = Large(length);
    return NtLockFile(file, done_.Get(), nullptr, nullptr, &statusBlock_, &position, &size, 0, ifHeld == IfHeld::Fail,
                      lock == Lock::Exclusive);
}

NTSTATUS Request::Wait()
{
    done_.Wait();
    return statusBlock_.Status;
}

NTSTATUS Request::Cancel(HANDLE file)
{
    IO_STATUS_BLOCK outcome = {};
    return NtCancelIoFileEx(file, &statusBlock_, &outcome);
}

NTSTATUS CancelAll(HANDLE file)
{
    IO_STATUS_BLOCK outcome = {};
    return NtCancelIoFileEx(file, nullptr, &outcome);
}

} // namespace workbench
