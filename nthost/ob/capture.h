// What system services do with their caller's pointers. For user-mode callers every access is probed and runs under a
// guard, so a bad address becomes a status; kernel-mode callers are trusted and their memory is used where it stands.
// The bodies that run under a guard own nothing: an exception runs no destructors.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

#include <ntifs.h>

#include "ke/guarded.h"

namespace nthost::ob {

[[nodiscard]] NTSTATUS CopyFromUser(void* to, const void* from, size_t length, ULONG alignment, KPROCESSOR_MODE mode);
[[nodiscard]] NTSTATUS CopyToUser(void* to, const void* from, size_t length, ULONG alignment, KPROCESSOR_MODE mode);

// Only says whether the range could be read or written now; it can still go bad later.
[[nodiscard]] NTSTATUS ProbeUserForRead(const void* address, size_t length, ULONG alignment, KPROCESSOR_MODE mode);
[[nodiscard]] NTSTATUS ProbeUserForWrite(void* address, size_t length, ULONG alignment, KPROCESSOR_MODE mode);

// Single values. Alignments above 4 are not asked of callers.
template <typename T>
constexpr ULONG UserAlignment = alignof(T) < 4 ? alignof(T) : 4;

template <typename T>
[[nodiscard]] NTSTATUS ReadUser(const T* from, T* value, KPROCESSOR_MODE mode)
{
    return CopyFromUser(value, from, sizeof(T), UserAlignment<T>, mode);
}

template <typename T>
[[nodiscard]] NTSTATUS WriteUser(T* to, const T& value, KPROCESSOR_MODE mode)
{
    return CopyToUser(to, &value, sizeof(T), UserAlignment<T>, mode);
}

template <typename T>
[[nodiscard]] NTSTATUS ProbeUser(T* to, KPROCESSOR_MODE mode)
{
    return ProbeUserForWrite(to, sizeof(T), UserAlignment<T>, mode);
}

// A counted string of the caller: a copy for user mode, the caller's own text for kernel mode.
class CapturedString {
public:
    CapturedString() = default;
    CapturedString(const CapturedString&) = delete;
    CapturedString& operator=(const CapturedString&) = delete;

    PCUNICODE_STRING Get() const { return &text_; }
    bool Empty() const { return text_.Length == 0; }
    std::u16string_view View() const
    {
        return {reinterpret_cast<const char16_t*>(text_.Buffer), text_.Length / sizeof(WCHAR)};
    }

private:
    friend NTSTATUS CaptureUnicodeString(PCUNICODE_STRING, KPROCESSOR_MODE, CapturedString*);
    WCHAR* Reserve(size_t bytes);

    static constexpr size_t InlineCharacters = 128;
    UNICODE_STRING text_{};
    std::unique_ptr<WCHAR[]> heap_;
    WCHAR inline_[InlineCharacters];
};

// STATUS_ACCESS_VIOLATION, STATUS_DATATYPE_MISALIGNMENT, STATUS_OBJECT_NAME_INVALID for an odd length. A null pointer
// gives the empty string.
[[nodiscard]] NTSTATUS CaptureUnicodeString(PCUNICODE_STRING from, KPROCESSOR_MODE mode, CapturedString* to);

// Security descriptor and quality of service are not taken over.
struct CapturedAttributes {
    HANDLE RootDirectory = nullptr;
    ULONG Attributes = 0; // OBJ_KERNEL_HANDLE only for kernel-mode callers
    bool HasName = false; // an ObjectName was given, even if it is empty
    CapturedString Name;
};

// STATUS_INVALID_PARAMETER for a wrong Length or unknown attributes. Null attributes are nameless ones.
[[nodiscard]] NTSTATUS CaptureObjectAttributes(POBJECT_ATTRIBUTES from, KPROCESSOR_MODE mode, CapturedAttributes* to);

// Puts the object into the caller's table (or the kernel's, by OBJ_KERNEL_HANDLE) and gives the value to the caller.
// The caller of this keeps its own reference. If the value cannot be written the handle is taken back.
[[nodiscard]] NTSTATUS ReturnHandle(void* body, ACCESS_MASK granted, ULONG attributes, KPROCESSOR_MODE mode,
                                    PHANDLE to);

} // namespace nthost::ob
