// An NT program's view: handles that close themselves, opens in one line, the calls that tests make most.
#pragma once

#include <string>
#include <utility>
#include <vector>

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
    LONGLONG AllocationSize = 0;
    const std::string* Eas = nullptr; // a list, see EaList in support/file.h
};

struct OpenResult {
    NTSTATUS Status;
    ULONG_PTR Information;
    Handle File;
};

OpenResult Open(const std::string& path, const OpenRequest& request = {});

// An auto-reset event.
class Event {
public:
    Event();
    HANDLE Get() const { return handle_.Get(); }
    void Wait() const;
    // Takes the signal if it is there.
    bool Poll() const;

private:
    Handle handle_;
};

// One request on a handle of either kind. Start gives what the service returned; Wait, once after a successful or
// pending Start, the request's own status. The object must outlive the request.
class Request {
public:
    NTSTATUS StartRead(HANDLE file, void* buffer, ULONG length, LONGLONG offset);
    enum class Lock { Shared, Exclusive };
    enum class IfHeld { Fail, Wait };
    NTSTATUS StartLock(HANDLE file, LONGLONG offset, LONGLONG length, Lock lock = Lock::Exclusive,
                       IfHeld ifHeld = IfHeld::Fail);
    NTSTATUS Wait();
    bool IsDone() const { return done_.Poll(); }
    // Of this request alone; STATUS_NOT_FOUND when it is not out any more.
    NTSTATUS Cancel(HANDLE file);
    ULONG_PTR Information() const { return statusBlock_.Information; }

private:
    IO_STATUS_BLOCK statusBlock_ = {};
    Event done_;
};

// Waited for, whatever the handle. The text read; the status by name in angle brackets after a failure.
std::string ReadText(HANDLE file, ULONG length, LONGLONG offset = 0);
NTSTATUS Unlock(HANDLE file, LONGLONG offset, LONGLONG length);
// All requests of this process on the file.
NTSTATUS CancelAll(HANDLE file);

struct Listing {
    NTSTATUS Status; // of the last call: STATUS_NO_MORE_FILES after a whole listing
    std::vector<std::string> Names;
};
// From the start to the end, in buffers of that many bytes. The handle's first pattern stays its pattern.
Listing List(HANDLE directory, const std::string& pattern = {}, ULONG bufferLength = 4096);

} // namespace support
