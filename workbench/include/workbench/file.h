// An open file, for programs that want to go on or stop: each failure is an exception that names the request and the
// path as its user would give it, without the volume's link. For statuses as they come, requests.h.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "workbench/failure.h"
#include "workbench/requests.h"

namespace workbench {

// "\a\b" of "\??\Name\a\b", "the volume" of "\??\Name".
std::string ShownPath(const std::string& ntPath);

class File {
public:
    File() = default;
    File(workbench::Handle handle, std::string path, ULONG_PTR outcome = 0)
        : handle_(std::move(handle)), path_(std::move(path)), outcome_(outcome)
    {}

    HANDLE Handle() const { return handle_.Get(); }
    const std::string& Path() const { return path_; }
    // FILE_OPENED, FILE_CREATED or FILE_OVERWRITTEN.
    ULONG_PTR Outcome() const { return outcome_; }
    void Close() { (void)handle_.Close(); }

    // Bytes read, 0 at the end of the file.
    size_t Read(uint64_t offset, void* buffer, size_t length) const;
    // All of it, or a failure.
    void Write(uint64_t offset, const void* buffer, size_t length) const;
    void Append(const void* buffer, size_t length) const;
    void Flush() const;
    // STATUS_LOCK_NOT_GRANTED rather than wait.
    void Lock(uint64_t offset, uint64_t length, bool exclusive) const;
    void Unlock(uint64_t offset, uint64_t length) const;

    template <typename Info>
    Info Query(FILE_INFORMATION_CLASS infoClass, const char* what) const
    {
        Info info{};
        QueryRaw(infoClass, &info, sizeof info, what);
        return info;
    }
    void QueryRaw(FILE_INFORMATION_CLASS infoClass, void* info, size_t length, const char* what) const;
    template <typename Info>
    void Set(FILE_INFORMATION_CLASS infoClass, Info info, const char* what) const
    {
        SetRaw(infoClass, &info, sizeof info, what);
    }
    void SetRaw(FILE_INFORMATION_CLASS infoClass, void* info, size_t length, const char* what) const;
    void QueryVolume(FS_INFORMATION_CLASS infoClass, void* info, size_t length, const char* what) const;
    void SetVolume(FS_INFORMATION_CLASS infoClass, void* info, size_t length, const char* what) const;
    void FsControl(ULONG code, const char* what) const;

private:
    workbench::Handle handle_;
    std::string path_;
    ULONG_PTR outcome_ = 0;
};

// What reading a file takes, and no more.
constexpr ACCESS_MASK kReading = FILE_READ_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE;

// The full NT path, as in "\??\Name\a\b". The handle is synchronous, whatever the options.
File OpenFile(const std::string& path, OpenRequest how = {.Access = kReading});

struct Entry {
    std::string Name;
    ULONG Attributes;
    uint64_t Size;
    uint64_t Allocation;
    int64_t Creation, LastAccess, LastWrite, Change;
    ULONG ReparseTag;
    bool IsDirectory() const { return Attributes & FILE_ATTRIBUTE_DIRECTORY; }
    bool IsLink() const { return Attributes & FILE_ATTRIBUTE_REPARSE_POINT; }
};

inline const OpenRequest kListing = {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE, .Options = FILE_DIRECTORY_FILE};

// Each entry of the directory but "." and ".."; a pattern or "".
void ListDirectory(const File& directory, const std::string& pattern, const std::function<void(const Entry&)>& each);

} // namespace workbench
