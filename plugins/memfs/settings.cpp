// Reading the service key: DeviceName, LinkName, BackingPath, Sddl, Label (REG_SZ) and Capacity (REG_QWORD). Runs in
// DriverEntry alone.

#include "settings.h"

namespace memfs {
namespace {

class OwnedKey {
public:
    OwnedKey() = default;
    OwnedKey(const OwnedKey&) = delete;
    OwnedKey& operator=(const OwnedKey&) = delete;
    ~OwnedKey()
    {
        if (handle_) ZwClose(handle_);
    }
    HANDLE Get() const { return handle_; }
    HANDLE* Out() { return &handle_; }

private:
    HANDLE handle_ = nullptr;
};

// The value in a block for the caller to free; null, with success, if there is no such value.
NTSTATUS QueryValue(HANDLE key, PCWSTR name, KEY_VALUE_PARTIAL_INFORMATION** value)
{
    UNICODE_STRING valueName;
    RtlInitUnicodeString(&valueName, name);
    ULONG length = 0;
    *value = nullptr;
    NTSTATUS status = ZwQueryValueKey(key, &valueName, KeyValuePartialInformation, nullptr, 0, &length);
    if (status == STATUS_OBJECT_NAME_NOT_FOUND) return STATUS_SUCCESS;
    if (status != STATUS_BUFFER_TOO_SMALL && status != STATUS_BUFFER_OVERFLOW) return status;

    Block<KEY_VALUE_PARTIAL_INFORMATION> block(Allocate<KEY_VALUE_PARTIAL_INFORMATION>(PagedPool, length));
    if (!block) return STATUS_INSUFFICIENT_RESOURCES;
    status = ZwQueryValueKey(key, &valueName, KeyValuePartialInformation, block.Get(), length, &length);
    if (NT_SUCCESS(status)) *value = block.Release();
    return status;
}

USHORT TextBytes(const KEY_VALUE_PARTIAL_INFORMATION& value)
{
    const WCHAR* const text = reinterpret_cast<const WCHAR*>(value.Data);
    ULONG characters = value.DataLength / sizeof(WCHAR);
    while (characters != 0 && text[characters - 1] == 0) --characters; // a REG_SZ ends in a NUL, or does not
    return static_cast<USHORT>(characters * sizeof(WCHAR));
}

NTSTATUS ReadNumber(HANDLE key, PCWSTR name, ULONGLONG* number)
{
    KEY_VALUE_PARTIAL_INFORMATION* value;
    if (const NTSTATUS status = QueryValue(key, name, &value); !NT_SUCCESS(status)) return status;
    if (!value) return STATUS_SUCCESS;
    const Block<KEY_VALUE_PARTIAL_INFORMATION> block(value);
    if (value->Type != REG_QWORD || value->DataLength != sizeof(*number)) return STATUS_OBJECT_TYPE_MISMATCH;
    RtlCopyMemory(number, value->Data, sizeof(*number));
    return STATUS_SUCCESS;
}

} // namespace

SettingString::SettingString(PCWSTR standard) { RtlInitUnicodeString(&text_, standard); }

NTSTATUS SettingString::Read(HANDLE key, PCWSTR name)
{
    KEY_VALUE_PARTIAL_INFORMATION* value;
    if (const NTSTATUS status = QueryValue(key, name, &value); !NT_SUCCESS(status) || !value) return status;
    Block<KEY_VALUE_PARTIAL_INFORMATION> block(value);
    if (value->Type != REG_SZ || value->DataLength > MAXUSHORT) return STATUS_OBJECT_TYPE_MISMATCH;
    Free(block_);
    block_ = block.Release();
    const USHORT bytes = TextBytes(*block_);
    text_ = {bytes, bytes, reinterpret_cast<WCHAR*>(block_->Data)};
    return STATUS_SUCCESS;
}

NTSTATUS ReadSettings(PUNICODE_STRING registryPath, Settings* settings)
{
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, registryPath, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    OwnedKey key;
    if (const NTSTATUS status = ZwOpenKey(key.Out(), KEY_QUERY_VALUE, &attributes); !NT_SUCCESS(status)) return status;
    const struct {
        PCWSTR Name;
        SettingString* Setting;
    } strings[] = {
        {L"DeviceName", &settings->DeviceName},
        {L"LinkName", &settings->LinkName},
        {L"BackingPath", &settings->BackingPath},
        {L"Sddl", &settings->Sddl},
        {L"Label", &settings->Label},
    };
    for (const auto& string : strings) {
        if (const NTSTATUS status = string.Setting->Read(key.Get(), string.Name); !NT_SUCCESS(status)) return status;
    }
    return ReadNumber(key.Get(), L"Capacity", &settings->Capacity);
}

} // namespace memfs
