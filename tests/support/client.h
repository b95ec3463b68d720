// An NT program's view: handles that close themselves, opens in one line, the calls that tests make most.
#pragma once

#include <string>
#include <utility>

#include <gvnd/plugin.h>

namespace support {

// UTF-8 in, 16-bit text out; the string lives as long as the object.
class Text {
public:
    explicit Text(const std::string& utf8);
    PUNICODE_STRING Get() { return &string_; }
    operator PUNICODE_STRING() { return &string_; }

private:
    std::u16string text_;
    UNICODE_STRING string_;
};

class Handle {
public:
    Handle() = default;
    explicit Handle(HANDLE handle) : handle_(handle) {}
    Handle(Handle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    Handle& operator=(Handle&& other) noexcept
    {
        Close();
        handle_ = std::exchange(other.handle_, nullptr);
        return *this;
    }
    ~Handle() { Close(); }
    HANDLE Get() const { return handle_; }
    HANDLE* Out()
    {
        Close();
        return &handle_;
    }
    // The status of NtClose; STATUS_SUCCESS for none.
    NTSTATUS Close();

private:
    HANDLE handle_ = nullptr;
};

// How an open asks; the defaults are those of a plain synchronous reader that shares everything.
struct OpenRequest {
    ACCESS_MASK Access = FILE_GENERIC_READ;
    ULONG Share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    ULONG Disposition = FILE_OPEN;
    ULONG Options = FILE_SYNCHRONOUS_IO_NONALERT;
    ULONG Attributes = 0;
    HANDLE Root = nullptr;
    bool Kernel = false; // Zw, with a kernel handle
};

struct OpenResult {
    NTSTATUS Status;
    ULONG_PTR Information;
    Handle File;
};

OpenResult Open(const std::string& path, const OpenRequest& request = {});

} // namespace support
