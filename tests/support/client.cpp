// The plain program's calls.

#include "support/client.h"

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
    const auto create = request.Kernel ? ZwCreateFile : NtCreateFile;
    const NTSTATUS status = create(&handle, request.Access, &attributes, &statusBlock, nullptr, request.Attributes,
                                   request.Share, request.Disposition, request.Options, nullptr, 0);
    return {status, statusBlock.Information, Handle(NT_SUCCESS(status) ? handle : nullptr)};
}

} // namespace support
