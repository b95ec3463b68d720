// Copies between services and their callers. No locks; every routine here may be called at PASSIVE_LEVEL only, since
// user memory may fault.
#include "ob/capture.h"

#include <cstring>

#include "ob/object.h"

namespace nthost::ob {

using ke::Guarded;

namespace {

constexpr ULONG ValidAttributes = OBJ_INHERIT | OBJ_PERMANENT | OBJ_EXCLUSIVE | OBJ_CASE_INSENSITIVE | OBJ_OPENIF |
                                  OBJ_OPENLINK | OBJ_KERNEL_HANDLE | OBJ_FORCE_ACCESS_CHECK;

} // namespace

NTSTATUS CopyFromUser(void* to, const void* from, size_t length, ULONG alignment, KPROCESSOR_MODE mode)
{
    if (mode == KernelMode) {
        memcpy(to, from, length);
        return STATUS_SUCCESS;
    }
    // Nothing is ever mapped there, and memcpy takes a null as a promise.
    if (!from) return length ? STATUS_ACCESS_VIOLATION : STATUS_SUCCESS;
    return Guarded([&] {
        ProbeForRead(from, length, alignment);
        memcpy(to, from, length);
    });
}

NTSTATUS CopyToUser(void* to, const void* from, size_t length, ULONG alignment, KPROCESSOR_MODE mode)
{
    if (mode == KernelMode) {
        memcpy(to, from, length);
        return STATUS_SUCCESS;
    }
    if (!to) return length ? STATUS_ACCESS_VIOLATION : STATUS_SUCCESS;
    return Guarded([&] {
        // The range only: the copy itself finds out whether the pages can be written.
        ProbeForRead(to, length, alignment);
        memcpy(to, from, length);
    });
}

NTSTATUS ProbeUserForRead(const void* address, size_t length, ULONG alignment, KPROCESSOR_MODE mode)
{
    if (mode == KernelMode) return STATUS_SUCCESS;
    return Guarded([&] { ProbeForRead(address, length, alignment); });
}

NTSTATUS ProbeUserForWrite(void* address, size_t length, ULONG alignment, KPROCESSOR_MODE mode)
{
    if (mode == KernelMode) return STATUS_SUCCESS;
    return Guarded([&] { ProbeForWrite(address, length, alignment); });
}

WCHAR* CapturedString::Reserve(size_t bytes)
{
    if (bytes <= sizeof inline_) return inline_;
    heap_ = std::make_unique<WCHAR[]>(bytes / sizeof(WCHAR));
    return heap_.get();
}

NTSTATUS CaptureUnicodeString(PCUNICODE_STRING from, KPROCESSOR_MODE mode, CapturedString* to)
{
    to->text_ = {};
    if (!from) return STATUS_SUCCESS;

    // The header is read once: the caller may change it meanwhile.
    UNICODE_STRING text;
    if (const NTSTATUS status = ReadUser(from, &text, mode); !NT_SUCCESS(status)) return status;
    if (text.Length % sizeof(WCHAR)) return STATUS_OBJECT_NAME_INVALID;
    if (mode != KernelMode && text.Length) {
        WCHAR* const copy = to->Reserve(text.Length);
        const NTSTATUS status = CopyFromUser(copy, text.Buffer, text.Length, alignof(WCHAR), mode);
        if (!NT_SUCCESS(status)) return status;
        text.Buffer = copy;
    }
    text.MaximumLength = text.Length;
    to->text_ = text;
    return STATUS_SUCCESS;
}

NTSTATUS CaptureObjectAttributes(POBJECT_ATTRIBUTES from, KPROCESSOR_MODE mode, CapturedAttributes* to)
{
    if (!from) return STATUS_SUCCESS;

    OBJECT_ATTRIBUTES attributes;
    if (const NTSTATUS status = ReadUser(from, &attributes, mode); !NT_SUCCESS(status)) return status;
    if (attributes.Length != sizeof(OBJECT_ATTRIBUTES) || (attributes.Attributes & ~ValidAttributes))
        return STATUS_INVALID_PARAMETER;

    to->RootDirectory = attributes.RootDirectory;
    to->Attributes = attributes.Attributes;
    if (mode != KernelMode) to->Attributes &= ~OBJ_KERNEL_HANDLE;
    to->HasName = attributes.ObjectName != nullptr;
    return CaptureUnicodeString(attributes.ObjectName, mode, &to->Name);
}

NTSTATUS ReturnHandle(void* body, ACCESS_MASK granted, ULONG attributes, KPROCESSOR_MODE mode, PHANDLE to)
{
    const PEPROCESS process = PsGetCurrentProcess();
    HANDLE handle;
    NTSTATUS status = ob::InsertHandle(body, process, granted, attributes, &handle);
    if (!NT_SUCCESS(status)) return status;

    status = WriteUser(to, handle, mode);
    if (!NT_SUCCESS(status)) (void)ob::CloseHandle(process, handle, KernelMode);
    return status;
}

} // namespace nthost::ob
