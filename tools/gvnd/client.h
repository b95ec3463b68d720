// The tool's side of the front door: handles, reads and listings by the native services, failures as exceptions.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <ntifs.h>

namespace tool {

class File {
public:
    File() = default;
    File(HANDLE handle, std::string path) : handle_(handle), path_(std::move(path)) {}
    File(File&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)), path_(std::move(other.path_)) {}
    File& operator=(File&& other) noexcept
    {
        Close();
        handle_ = std::exchange(other.handle_, nullptr);
        path_ = std::move(other.path_);
        return *this;
    }
    ~File() { Close(); }

    HANDLE Handle() const { return handle_; }
    const std::string& Path() const { return path_; }
    void Close();

    // Bytes read, 0 at the end of the file.
    size_t Read(uint64_t offset, void* buffer, size_t length) const;
    // STATUS_LOCK_NOT_GRANTED rather than wait.
    void Lock(uint64_t offset, uint64_t length, bool exclusive) const;
    void Unlock(uint64_t offset, uint64_t length) const;

private:
    HANDLE handle_ = nullptr;
    std::string path_;
};

struct OpenHow {
    ACCESS_MASK Access = FILE_READ_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE;
    ULONG Share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    ULONG Options = 0; // beside FILE_SYNCHRONOUS_IO_NONALERT
};

// The full NT path, as in "\??\Gvnd\a\b".
File OpenFile(const std::string& path, const OpenHow& how = {});

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

// Each entry of the directory but "." and ".."; a pattern or "".
void ListDirectory(const File& directory, const std::string& pattern, const std::function<void(const Entry&)>& each);

// 100 ns since 1601 as "2026-11-24 13:05:00" UTC; "-" for 0.
std::string TimeText(int64_t time);
// "RHSDAL" with dashes for what is not set.
std::string AttributeText(ULONG attributes);

} // namespace tool
