// NT requests as the bridge sends them: statuses instead of exceptions, 16-bit paths, and each of them can be cancelled
// from another thread while it runs.
//
// A thread that serves the mount is attached to the host's process on its first request, and detached as it ends.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <ntifs.h>

namespace tool::mount {

using NtName = std::u16string;

// Borrowed text as NT takes it.
UNICODE_STRING Counted(std::u16string_view text);

// Attaches the calling thread, until it ends. Again and again is fine.
void AttachThisThread();

// What the thread does for one program. Another thread may cancel it: the NT request that runs is cancelled.
class Errand {
public:
    Errand();
    ~Errand();
    Errand(const Errand&) = delete;
    Errand& operator=(const Errand&) = delete;
    // Callable from any attached thread.
    void Cancel();

    // The calling thread's, or null.
    static Errand* Current();

private:
    friend class Running;
    std::mutex mutex_;
    HANDLE handle_ = nullptr;
    IO_STATUS_BLOCK* running_ = nullptr;
};

class Handle {
public:
    Handle() = default;
    explicit Handle(HANDLE handle) : handle_(handle) {}
    Handle(Handle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    Handle& operator=(Handle&& other) noexcept
    {
        if (this != &other) {
            Close();
            handle_ = std::exchange(other.handle_, nullptr);
        }
        return *this;
    }
    ~Handle() { Close(); }
    HANDLE Get() const { return handle_; }
    explicit operator bool() const { return handle_ != nullptr; }
    void Close();

private:
    HANDLE handle_ = nullptr;
};

constexpr ULONG kShareEverything = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

struct OpenRequest {
    ACCESS_MASK Access = FILE_READ_ATTRIBUTES; // SYNCHRONIZE is added
    ULONG Options = 0;                         // FILE_SYNCHRONOUS_IO_NONALERT is added
    ULONG Disposition = FILE_OPEN;
    ULONG Share = kShareEverything;
    ULONG Attributes = FILE_ATTRIBUTE_NORMAL;
    const std::string* Eas = nullptr; // EaList's result
};

// path is one of the volume, from its root. information: FILE_OPENED or FILE_CREATED.
[[nodiscard]] NTSTATUS Open(const NtName& path, const OpenRequest& request, Handle* handle,
                            ULONG_PTR* information = nullptr);

// Bytes up to the end of the file; fewer than asked for only there.
[[nodiscard]] NTSTATUS Read(HANDLE file, uint64_t offset, void* buffer, size_t length, size_t* done);
[[nodiscard]] NTSTATUS Write(HANDLE file, uint64_t offset, const void* buffer, size_t length, size_t* done);
[[nodiscard]] NTSTATUS Flush(HANDLE file);
[[nodiscard]] NTSTATUS QueryRaw(HANDLE file, FILE_INFORMATION_CLASS infoClass, void* buffer, size_t length);
[[nodiscard]] NTSTATUS SetRaw(HANDLE file, FILE_INFORMATION_CLASS infoClass, void* buffer, size_t length);
[[nodiscard]] NTSTATUS QueryVolume(HANDLE file, FS_INFORMATION_CLASS infoClass, void* buffer, size_t length);
[[nodiscard]] NTSTATUS QueryEas(HANDLE file, std::vector<uint64_t>* buffer, const std::vector<uint64_t>* names);
[[nodiscard]] NTSTATUS SetEas(HANDLE file, const std::string& list);
[[nodiscard]] NTSTATUS Lock(HANDLE file, uint64_t offset, uint64_t length, bool exclusive);
[[nodiscard]] NTSTATUS Unlock(HANDLE file, uint64_t offset, uint64_t length);
// target is a path of the volume. A file in the way is replaced if asked for, a directory never.
[[nodiscard]] NTSTATUS Rename(HANDLE file, const NtName& target, bool replace);

template <typename Info>
[[nodiscard]] NTSTATUS Set(HANDLE file, FILE_INFORMATION_CLASS infoClass, Info info)
{
    return SetRaw(file, infoClass, &info, sizeof info);
}

// One page of a listing: records of FILE_DIRECTORY_INFORMATION. STATUS_NO_MORE_FILES behind the last.
[[nodiscard]] NTSTATUS QueryDirectory(HANDLE directory, void* buffer, size_t length, bool restart);

} // namespace tool::mount
