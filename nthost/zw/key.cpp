// The services on registry keys. Values are copied to the caller from a private copy, since the caller's memory may
// fault and nothing may be held or owned then.
#include <algorithm>
#include <cstring>
#include <mutex>

#include "ke/apc.h"
#include "ob/handle.h"
#include "ob/capture.h"
#include "zw/registry.h"
#include <nthost/faults.h>

namespace nthost::zw {

namespace {

OBJECT_TYPE g_keyType{.Name = "Key",
                      .Mapping = {KEY_READ, KEY_WRITE, KEY_READ, KEY_ALL_ACCESS},
                      .ValidAccess = KEY_ALL_ACCESS | SYNCHRONIZE,
                      .UsesDispatcherHeader = false,
                      .WaitOffset = 0,
                      .Close = nullptr,
                      .Delete = nullptr,
                      .Live = {}};

// The key that a name is relative to, and the rest of the name. An absolute name leads through the namespace.
NTSTATUS StartOf(const ob::CapturedAttributes& attributes, KPROCESSOR_MODE mode, Key** start, std::u16string* rest)
{
    void* body;
    const std::u16string_view name = attributes.Name.View();
    if (!attributes.RootDirectory) {
        if (const NTSTATUS status = ob::LookupPath(attributes.Name.Get(), &body, rest); !NT_SUCCESS(status))
            return status;
        if (!rest->empty()) rest->erase(0, 1);
    } else {
        if (!name.empty() && name.front() == u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
        const NTSTATUS status = ob::ReferenceObjectByHandle(attributes.RootDirectory, 0, KeyType, mode, &body, nullptr);
        if (!NT_SUCCESS(status)) return status;
        *rest = name;
    }
    const bool isKey = ob::TypeOf(body) == KeyType;
    if (isKey) *start = static_cast<KeyBody*>(body)->Node;
    ObDereferenceObject(body); // keys outlive their objects
    return isKey ? STATUS_SUCCESS : STATUS_OBJECT_TYPE_MISMATCH;
}

NTSTATUS OpenKey(KPROCESSOR_MODE mode, PHANDLE handle, ACCESS_MASK desired, POBJECT_ATTRIBUTES objectAttributes)
{
    if (const NTSTATUS status = ob::ProbeUser(handle, mode); !NT_SUCCESS(status)) return status;
    ob::CapturedAttributes attributes;
    NTSTATUS status = ob::CaptureObjectAttributes(objectAttributes, mode, &attributes);
    if (!NT_SUCCESS(status)) return status;
    const ACCESS_MASK granted = ob::MapAccess(desired, KeyType, KEY_ALL_ACCESS);
    if (granted & ~KeyType->ValidAccess) return STATUS_ACCESS_DENIED;

    Key* key;
    std::u16string rest;
    status = StartOf(attributes, mode, &key, &rest);
    if (!NT_SUCCESS(status)) return status;
    {
        const std::shared_lock hold(RegistryLock());
        key = FindKey(key, rest);
    }
    if (!key) return STATUS_OBJECT_NAME_NOT_FOUND;

    void* const body = NewKeyObject(key);
    if (!body) return STATUS_INSUFFICIENT_RESOURCES;
    status = ob::ReturnHandle(body, granted, attributes.Attributes, mode, handle);
    ObDereferenceObject(body);
    return status;
}

// One value as a class gives it: everything in `image`, of which the first `fixed` bytes must fit the caller's buffer.
struct ValueImage {
    std::vector<unsigned char> Bytes;
    size_t Fixed = 0;
};

template <typename Record>
Record* Start(ValueImage* image, size_t fixed, size_t total)
{
    image->Bytes.resize(std::max(total, sizeof(Record)));
    image->Fixed = fixed;
    return reinterpret_cast<Record*>(image->Bytes.data());
}

void BasicImage(const std::u16string& name, const KeyValue& value, ValueImage* image)
{
    const size_t nameBytes = name.size() * sizeof(WCHAR), fixed = offsetof(KEY_VALUE_BASIC_INFORMATION, Name);
    auto* const record = Start<KEY_VALUE_BASIC_INFORMATION>(image, fixed, fixed + nameBytes);
    record->Type = value.Type;
    record->NameLength = static_cast<ULONG>(nameBytes);
    memcpy(record->Name, name.data(), nameBytes);
    image->Bytes.resize(fixed + nameBytes);
}

void FullImage(const std::u16string& name, const KeyValue& value, ValueImage* image)
{
    const size_t nameBytes = name.size() * sizeof(WCHAR), fixed = offsetof(KEY_VALUE_FULL_INFORMATION, Name);
    const size_t dataOffset = (fixed + nameBytes + sizeof(ULONG) - 1) & ~(sizeof(ULONG) - 1);
    const size_t total = value.Data.empty() ? fixed + nameBytes : dataOffset + value.Data.size();
    auto* const record = Start<KEY_VALUE_FULL_INFORMATION>(image, fixed, total);
    record->Type = value.Type;
    record->DataOffset = static_cast<ULONG>(dataOffset);
    record->DataLength = static_cast<ULONG>(value.Data.size());
    record->NameLength = static_cast<ULONG>(nameBytes);
    memcpy(record->Name, name.data(), nameBytes);
    std::copy(value.Data.begin(), value.Data.end(), image->Bytes.begin() + static_cast<ptrdiff_t>(dataOffset));
    image->Bytes.resize(total);
}

void PartialImage(const std::u16string&, const KeyValue& value, ValueImage* image)
{
    const size_t fixed = offsetof(KEY_VALUE_PARTIAL_INFORMATION, Data), total = fixed + value.Data.size();
    auto* const record = Start<KEY_VALUE_PARTIAL_INFORMATION>(image, fixed, total);
    record->Type = value.Type;
    record->DataLength = static_cast<ULONG>(value.Data.size());
    std::copy(value.Data.begin(), value.Data.end(), record->Data);
    image->Bytes.resize(total);
}

using MakeImage = void (*)(const std::u16string& name, const KeyValue& value, ValueImage* image);
constexpr MakeImage kImages[] = {BasicImage, FullImage, PartialImage}; // by KEY_VALUE_INFORMATION_CLASS

NTSTATUS ReadValue(Key* key, std::u16string_view name, MakeImage make, ValueImage* image)
{
    const std::shared_lock hold(RegistryLock());
    const auto found = key->Values.find(name);
    if (found == key->Values.end()) return STATUS_OBJECT_NAME_NOT_FOUND;
    make(found->first, found->second, image);
    return STATUS_SUCCESS;
}

NTSTATUS ReturnImage(const ValueImage& image, PVOID to, ULONG length, PULONG resultLength, KPROCESSOR_MODE mode)
{
    NTSTATUS status = ob::WriteUser(resultLength, static_cast<ULONG>(image.Bytes.size()), mode);
    if (!NT_SUCCESS(status)) return status;
    if (length < image.Fixed) return STATUS_BUFFER_TOO_SMALL;
    const size_t fits = std::min<size_t>(length, image.Bytes.size());
    status = ob::CopyToUser(to, image.Bytes.data(), fits, sizeof(ULONG), mode);
    if (!NT_SUCCESS(status)) return status;
    return fits < image.Bytes.size() ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

NTSTATUS QueryValueKey(KPROCESSOR_MODE mode, HANDLE handle, PUNICODE_STRING valueName,
                       KEY_VALUE_INFORMATION_CLASS infoClass, PVOID to, ULONG length, PULONG resultLength)
{
    const auto index = static_cast<size_t>(infoClass);
    if (index >= std::size(kImages)) return STATUS_INVALID_PARAMETER;
    if (const NTSTATUS status = ob::ProbeUserForWrite(to, length, sizeof(ULONG), mode); !NT_SUCCESS(status))
        return status;
    if (const NTSTATUS status = ob::ProbeUser(resultLength, mode); !NT_SUCCESS(status)) return status;
    ob::CapturedString name;
    NTSTATUS status = ob::CaptureUnicodeString(valueName, mode, &name);
    if (!NT_SUCCESS(status)) return status;

    void* body;
    status = ob::ReferenceObjectByHandle(handle, KEY_QUERY_VALUE, KeyType, mode, &body, nullptr);
    if (!NT_SUCCESS(status)) return status;
    ValueImage image;
    status = ReadValue(static_cast<KeyBody*>(body)->Node, name.View(), kImages[index], &image);
    ObDereferenceObject(body);
    return NT_SUCCESS(status) ? ReturnImage(image, to, length, resultLength, mode) : status;
}

} // namespace

OBJECT_TYPE* const KeyType = &g_keyType;

void* NewKeyObject(Key* key)
{
    void* const body = ob::CreateObject(KeyType, sizeof(KeyBody));
    if (body) static_cast<KeyBody*>(body)->Node = key;
    return body;
}

} // namespace nthost::zw

using namespace nthost::zw;

NTSTATUS NTAPI NtOpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes)
{
    return nthost::ke::LeaveService(OpenKey(ExGetPreviousMode(), KeyHandle, DesiredAccess, ObjectAttributes));
}

NTSTATUS NTAPI ZwOpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes)
{
    if (nthost::FaultInjected("ZwOpenKey")) return STATUS_INSUFFICIENT_RESOURCES;
    return OpenKey(KernelMode, KeyHandle, DesiredAccess, ObjectAttributes);
}

NTSTATUS NTAPI NtQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                               KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass, PVOID KeyValueInformation,
                               ULONG Length, PULONG ResultLength)
{
    return nthost::ke::LeaveService(QueryValueKey(ExGetPreviousMode(), KeyHandle, ValueName, KeyValueInformationClass,
                                                  KeyValueInformation, Length, ResultLength));
}

NTSTATUS NTAPI ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                               KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass, PVOID KeyValueInformation,
                               ULONG Length, PULONG ResultLength)
{
    if (nthost::FaultInjected("ZwQueryValueKey")) return STATUS_INSUFFICIENT_RESOURCES;
    return QueryValueKey(KernelMode, KeyHandle, ValueName, KeyValueInformationClass, KeyValueInformation, Length,
                         ResultLength);
}
