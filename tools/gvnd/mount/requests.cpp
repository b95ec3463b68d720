// The services that the bridge uses. Handles are for synchronous I/O: each request has ended when its routine returns,
// on the thread that asked.
#include "gvnd/mount/requests.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include <nthost/process.h>

namespace tool::mount {

namespace {

constexpr std::u16string_view kVolume = u"\\??\\Gvnd";

thread_local std::unique_ptr<nthost::ThreadAttachment> attachment;
thread_local Errand* current = nullptr;

LARGE_INTEGER Large(uint64_t value)
{
    LARGE_INTEGER large;
    large.QuadPart = static_cast<LONGLONG>(value);
    return large;
}

} // namespace

UNICODE_STRING Counted(std::u16string_view text)
{
    const auto bytes = static_cast<USHORT>(std::min<size_t>(text.size() * sizeof(WCHAR), 0xfffe));
    return {bytes, bytes, reinterpret_cast<WCHAR*>(const_cast<char16_t*>(text.data()))};
}

void AttachThisThread()
{
    if (!attachment) attachment = std::make_unique<nthost::ThreadAttachment>(nthost::HostProcess());
}

Errand::Errand() { current = this; }

Errand::~Errand() { current = nullptr; }

Errand* Errand::Current() { return current; }

// A cancel that comes before the driver has armed the request, or between two, goes unheard, as on any NT machine: a
// program whose timer rings would otherwise see changes fail that no other file system interrupts.
void Errand::Cancel()
{
    const std::lock_guard lock(mutex_);
    IO_STATUS_BLOCK statusBlock{};
    if (running_) (void)NtCancelIoFileEx(handle_, running_, &statusBlock);
}

// Marks the errand's request as running, under its status block.
class Running {
public:
    Running(HANDLE handle, IO_STATUS_BLOCK* statusBlock) : errand_(current)
    {
        if (!errand_) return;
        const std::lock_guard lock(errand_->mutex_);
        errand_->handle_ = handle;
        errand_->running_ = statusBlock;
    }
    ~Running()
    {
        if (!errand_) return;
        const std::lock_guard lock(errand_->mutex_);
        errand_->running_ = nullptr;
    }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

private:
    Errand* const errand_;
};

namespace {

// Sends one request on a handle: send gets the status block.
template <typename Send>
NTSTATUS Request(HANDLE handle, IO_STATUS_BLOCK* statusBlock, const Send& send)
{
    const Running running(handle, statusBlock);
    return send(statusBlock);
}

} // namespace

void Handle::Close()
{
    if (handle_) (void)NtClose(std::exchange(handle_, nullptr));
}

NTSTATUS Open(const NtName& path, const OpenRequest& request, Handle* handle, ULONG_PTR* information)
{
    if ((kVolume.size() + path.size()) * sizeof(WCHAR) > 0xfffe) return STATUS_NAME_TOO_LONG;
    NtName full(kVolume);
    full += path;
    UNICODE_STRING name = Counted(full);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK statusBlock{};
    HANDLE made = nullptr;
    auto* const eas = request.Eas && !request.Eas->empty() ? const_cast<char*>(request.Eas->data()) : nullptr;
    const ULONG easLength = eas ? static_cast<ULONG>(request.Eas->size()) : 0;
    const NTSTATUS status = NtCreateFile(&made, request.Access | SYNCHRONIZE, &attributes, &statusBlock, nullptr,
                                         request.Attributes, request.Share, request.Disposition,
                                         request.Options | FILE_SYNCHRONOUS_IO_NONALERT, eas, easLength);
    if (!NT_SUCCESS(status)) return status;
    *handle = Handle(made);
    if (information) *information = statusBlock.Information;
    return status;
}

NTSTATUS Read(HANDLE file, uint64_t offset, void* buffer, size_t length, size_t* done)
{
    *done = 0;
    while (*done < length) {
        LARGE_INTEGER at = Large(offset + *done);
        IO_STATUS_BLOCK statusBlock{};
        const NTSTATUS status = Request(file, &statusBlock, [&](IO_STATUS_BLOCK* block) {
            return NtReadFile(file, nullptr, nullptr, nullptr, block, static_cast<char*>(buffer) + *done,
                              static_cast<ULONG>(length - *done), &at, nullptr);
        });
        if (status == STATUS_END_OF_FILE) break;
        if (!NT_SUCCESS(status)) return *done ? STATUS_SUCCESS : status;
        if (statusBlock.Information == 0) break;
        *done += statusBlock.Information;
    }
    return STATUS_SUCCESS;
}

NTSTATUS Write(HANDLE file, uint64_t offset, const void* buffer, size_t length, size_t* done)
{
    *done = 0;
    while (*done < length) {
        LARGE_INTEGER at = Large(offset + *done);
        IO_STATUS_BLOCK statusBlock{};
        void* const from = const_cast<char*>(static_cast<const char*>(buffer) + *done);
        const NTSTATUS status = Request(file, &statusBlock, [&](IO_STATUS_BLOCK* block) {
            return NtWriteFile(file, nullptr, nullptr, nullptr, block, from, static_cast<ULONG>(length - *done), &at,
                               nullptr);
        });
        if (!NT_SUCCESS(status)) return *done ? STATUS_SUCCESS : status;
        if (statusBlock.Information == 0) return *done ? STATUS_SUCCESS : STATUS_DISK_FULL;
        *done += statusBlock.Information;
    }
    return STATUS_SUCCESS;
}

NTSTATUS Flush(HANDLE file)
{
    IO_STATUS_BLOCK statusBlock{};
    return Request(file, &statusBlock, [&](IO_STATUS_BLOCK* block) { return NtFlushBuffersFile(file, block); });
}

NTSTATUS QueryRaw(HANDLE file, FILE_INFORMATION_CLASS infoClass, void* buffer, size_t length)
{
    IO_STATUS_BLOCK statusBlock{};
    return Request(file, &statusBlock, [&](IO_STATUS_BLOCK* block) {
        return NtQueryInformationFile(file, block, buffer, static_cast<ULONG>(length), infoClass);
    });
}

NTSTATUS SetRaw(HANDLE file, FILE_INFORMATION_CLASS infoClass, void* buffer, size_t length)
{
    IO_STATUS_BLOCK statusBlock{};
    return Request(file, &statusBlock, [&](IO_STATUS_BLOCK* block) {
        return NtSetInformationFile(file, block, buffer, static_cast<ULONG>(length), infoClass);
    });
}

NTSTATUS QueryVolume(HANDLE file, FS_INFORMATION_CLASS infoClass, void* buffer, size_t length)
{
    IO_STATUS_BLOCK statusBlock{};
    return Request(file, &statusBlock, [&](IO_STATUS_BLOCK* block) {
        return NtQueryVolumeInformationFile(file, block, buffer, static_cast<ULONG>(length), infoClass);
    });
}

// The buffer grows until the answer fits; no records leave it empty.
NTSTATUS QueryEas(HANDLE file, std::vector<uint64_t>* buffer, const std::vector<uint64_t>* names)
{
    auto* const list = names ? const_cast<uint64_t*>(names->data()) : nullptr;
    const ULONG listLength = names ? static_cast<ULONG>(names->size() * 8) : 0;
    for (buffer->resize(512);; buffer->resize(buffer->size() * 4)) {
        IO_STATUS_BLOCK statusBlock{};
        const NTSTATUS status = Request(file, &statusBlock, [&](IO_STATUS_BLOCK* block) {
            return NtQueryEaFile(file, block, buffer->data(), static_cast<ULONG>(buffer->size() * 8), FALSE, list,
                                 listLength, nullptr, TRUE);
        });
        constexpr size_t kMost = 1 << 20; // words; attributes are far smaller
        const bool tooSmall = status == STATUS_BUFFER_OVERFLOW || status == STATUS_BUFFER_TOO_SMALL;
        if (tooSmall && buffer->size() < kMost) continue;
        if (!NT_SUCCESS(status) || statusBlock.Information == 0) buffer->clear();
        return status;
    }
}

NTSTATUS SetEas(HANDLE file, const std::string& list)
{
    IO_STATUS_BLOCK statusBlock{};
    return Request(file, &statusBlock, [&](IO_STATUS_BLOCK* block) {
        return NtSetEaFile(file, block, const_cast<char*>(list.data()), static_cast<ULONG>(list.size()));
    });
}

NTSTATUS Lock(HANDLE file, uint64_t offset, uint64_t length, bool exclusive)
{
    LARGE_INTEGER at = Large(offset);
    LARGE_INTEGER bytes = Large(length);
    IO_STATUS_BLOCK statusBlock{};
    return NtLockFile(file, nullptr, nullptr, nullptr, &statusBlock, &at, &bytes, 0, TRUE, exclusive);
}

NTSTATUS Unlock(HANDLE file, uint64_t offset, uint64_t length)
{
    LARGE_INTEGER at = Large(offset);
    LARGE_INTEGER bytes = Large(length);
    IO_STATUS_BLOCK statusBlock{};
    return NtUnlockFile(file, &statusBlock, &at, &bytes, 0);
}

NTSTATUS Rename(HANDLE file, const NtName& target, bool replace)
{
    const NtName full = NtName(kVolume) + target;
    if (full.size() * sizeof(WCHAR) > 0xfffe) return STATUS_NAME_TOO_LONG;
    constexpr size_t kText = FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName);
    std::vector<uint64_t> record((kText + full.size() * sizeof(WCHAR)) / 8 + 1);
    auto* const info = reinterpret_cast<FILE_RENAME_INFORMATION*>(record.data());
    info->ReplaceIfExists = replace;
    info->FileNameLength = static_cast<ULONG>(full.size() * sizeof(WCHAR));
    std::memcpy(reinterpret_cast<char*>(info) + kText, full.data(), full.size() * sizeof(WCHAR));
    return SetRaw(file, FileRenameInformation, record.data(), record.size() * 8);
}

NTSTATUS QueryDirectory(HANDLE directory, void* buffer, size_t length, bool restart)
{
    IO_STATUS_BLOCK statusBlock{};
    return Request(directory, &statusBlock, [&](IO_STATUS_BLOCK* block) {
        return NtQueryDirectoryFile(directory, nullptr, nullptr, nullptr, block, buffer, static_cast<ULONG>(length),
                                    FileDirectoryInformation, FALSE, nullptr, restart);
    });
}

} // namespace tool::mount
