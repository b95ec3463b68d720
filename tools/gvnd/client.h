// The tool's side of the front door: handles and what is done with them by the native services. A failure is an
// exception that names the request; the path in it is the one that the user would give.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <ntifs.h>

namespace tool {

// Text and its counted header; the 16-bit text lives in it.
class NtText {
public:
    explicit NtText(const std::string& utf8);
    NtText(const NtText&) = delete;
    NtText& operator=(const NtText&) = delete;
    PUNICODE_STRING Get() { return &string_; }
    std::string_view Bytes() const { return {reinterpret_cast<const char*>(string_.Buffer), string_.Length}; }

private:
    std::u16string text_;
    UNICODE_STRING string_{};
};

// The path as the user gave it: without the link, which is the same for all.
std::string ShownPath(const std::string& ntPath);

// A fixed part of size bytes with a counted text behind it, as renames and labels take it; 8-aligned.
std::vector<uint64_t> RecordWithText(size_t size, size_t lengthAt, size_t textAt, std::string_view bytes);

class File {
public:
    File() = default;
    File(HANDLE handle, std::string path, ULONG_PTR outcome = 0)
        : handle_(handle), path_(std::move(path)), outcome_(outcome)
    {}
    File(File&& other) noexcept
        : handle_(std::exchange(other.handle_, nullptr)), path_(std::move(other.path_)), outcome_(other.outcome_)
    {}
    File& operator=(File&& other) noexcept
    {
        Close();
        handle_ = std::exchange(other.handle_, nullptr);
        path_ = std::move(other.path_);
        outcome_ = other.outcome_;
        return *this;
    }
    ~File() { Close(); }

    HANDLE Handle() const { return handle_; }
    const std::string& Path() const { return path_; }
    // FILE_OPENED, FILE_CREATED or FILE_OVERWRITTEN.
    ULONG_PTR Outcome() const { return outcome_; }
    void Close();

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
    HANDLE handle_ = nullptr;
    std::string path_;
    ULONG_PTR outcome_ = 0;
};

constexpr ULONG kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

struct OpenHow {
    ACCESS_MASK Access = FILE_READ_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE;
    ULONG Share = kShareAll;
    ULONG Options = 0; // beside FILE_SYNCHRONOUS_IO_NONALERT
    ULONG Disposition = FILE_OPEN;
    ULONG Attributes = FILE_ATTRIBUTE_NORMAL;
    std::vector<uint64_t> Eas = {}; // EaList's result (eas.h)
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

inline const OpenHow kListing = {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE, .Options = FILE_DIRECTORY_FILE};

// Each entry of the directory but "." and ".."; a pattern or "".
void ListDirectory(const File& directory, const std::string& pattern, const std::function<void(const Entry&)>& each);

} // namespace tool
