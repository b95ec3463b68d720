// The plain program's calls.

#include "support/client.h"

#include <cstring>

#include <gtest/gtest.h>
#include <nthost/debug.h>

namespace support {

Text::Text(const std::string& utf8) : text_(nthost::FromUtf8(utf8))
{
    string_.Buffer = reinterpret_cast<PWCH>(text_.data());
    string_.Length = string_.MaximumLength = static_cast<USHORT>(text_.size() * sizeof(WCHAR));
}

NTSTATUS Handle::Close()
{
    const HANDLE handle = std::exchange(handle_, nullptr);
    if (!handle) return STATUS_SUCCESS;
    const bool isKernelHandle = reinterpret_cast<LONG_PTR>(handle) < 0;
    return isKernelHandle ? ZwClose(handle) : NtClose(handle);
}

OpenResult Open(const std::string& path, const OpenRequest& request)
{
    Text name(path);
    OBJECT_ATTRIBUTES attributes;
    const ULONG flags = OBJ_CASE_INSENSITIVE | (request.Kernel ? OBJ_KERNEL_HANDLE : 0);
    InitializeObjectAttributes(&attributes, name, flags, request.Root, nullptr);
    IO_STATUS_BLOCK statusBlock = {};
    HANDLE handle = nullptr;
    LARGE_INTEGER allocation;
    allocation.QuadPart = request.AllocationSize;
    const std::string list = request.Eas ? *request.Eas : std::string();
    std::vector<uint64_t> eas(list.size() / sizeof(uint64_t) + 1); // aligned
    std::memcpy(eas.data(), list.data(), list.size());
    const auto create = request.Kernel ? ZwCreateFile : NtCreateFile;
    const NTSTATUS status = create(&handle, request.Access, &attributes, &statusBlock, &allocation, request.Attributes,
                                   request.Share, request.Disposition, request.Options,
                                   list.empty() ? nullptr : eas.data(), static_cast<ULONG>(list.size()));
    return {status, statusBlock.Information, Handle(NT_SUCCESS(status) ? handle : nullptr)};
}

Event::Event()
{
    const NTSTATUS status = NtCreateEvent(handle_.Out(), EVENT_ALL_ACCESS, nullptr, SynchronizationEvent, FALSE);
    EXPECT_EQ(status, STATUS_SUCCESS);
}

void Event::Wait() const { EXPECT_EQ(NtWaitForSingleObject(handle_.Get(), FALSE, nullptr), STATUS_SUCCESS); }

bool Event::Poll() const
{
    LARGE_INTEGER now = {};
    return NtWaitForSingleObject(handle_.Get(), FALSE, &now) == STATUS_SUCCESS;
}

namespace {

LARGE_INTEGER Large(LONGLONG value)
{
    LARGE_INTEGER large;
    large.QuadPart = value;
    return large;
}

} // namespace

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

std::string ReadText(HANDLE file, ULONG length, LONGLONG offset)
{
    std::string text(length, '\0');
    Request read;
    NTSTATUS status = read.StartRead(file, text.data(), length, offset);
    if (NT_SUCCESS(status)) status = read.Wait();
    if (!NT_SUCCESS(status)) return "<" + nthost::StatusName(status) + ">";
    text.resize(read.Information());
    return text;
}

NTSTATUS Unlock(HANDLE file, LONGLONG offset, LONGLONG length)
{
    LARGE_INTEGER position = Large(offset);
    LARGE_INTEGER size = Large(length);
    IO_STATUS_BLOCK statusBlock = {};
    return NtUnlockFile(file, &statusBlock, &position, &size, 0);
}

NTSTATUS CancelAll(HANDLE file)
{
    IO_STATUS_BLOCK outcome = {};
    return NtCancelIoFileEx(file, nullptr, &outcome);
}

namespace {

void AddNames(const char* record, std::vector<std::string>* names)
{
    for (;;) {
        const auto* const entry = reinterpret_cast<const FILE_NAMES_INFORMATION*>(record);
        names->push_back(nthost::ToUtf8(entry->FileName, entry->FileNameLength / sizeof(WCHAR)));
        if (entry->NextEntryOffset == 0) return;
        record += entry->NextEntryOffset;
    }
}

} // namespace

Listing List(HANDLE directory, const std::string& pattern, ULONG bufferLength)
{
    std::vector<uint64_t> buffer(bufferLength / sizeof(uint64_t) + 1);
    Text expression(pattern);
    Listing listing = {};
    for (BOOLEAN restart = TRUE;; restart = FALSE) {
        IO_STATUS_BLOCK statusBlock = {};
        listing.Status =
            NtQueryDirectoryFile(directory, nullptr, nullptr, nullptr, &statusBlock, buffer.data(), bufferLength,
                                 FileNamesInformation, FALSE, pattern.empty() ? nullptr : expression.Get(), restart);
        if (listing.Status != STATUS_SUCCESS) return listing;
        AddNames(reinterpret_cast<const char*>(buffer.data()), &listing.Names);
    }
}

} // namespace support
