// Makes a kernel service of any plugin: its volume is mounted as the driver starts, and unmounted as it is unloaded.
// Compiled together with the plugin, whose GvndGetPlugin it calls. The values of the service key, all of them REG_SZ
// and none of them needed: DeviceName (\Device\Gv and the plugin's name), LinkName (\??\ and the name), BackingPath
// (\Device\Null), Sddl, and Arguments for the plugin.
//
// The list of instances has a lock of its own; in the kernel it has one entry, in a process that hosts several services
// from this code there are more.
#include <gvnd/plugin_entry.h>

namespace {

constexpr ULONG kPoolTag = 0x65707667; // "gvpe" in memory order

template <typename T>
T* Allocate(POOL_TYPE pool, SIZE_T bytes)
{
    void* const block = ExAllocatePoolWithTag(pool, bytes, kPoolTag);
    if (block) RtlZeroMemory(block, bytes);
    return static_cast<T*>(block);
}

// --- settings

// The text of one setting, in a block of its own. Never longer than a counted string can be.
class Setting {
public:
    Setting() = default;
    Setting(const Setting&) = delete;
    Setting& operator=(const Setting&) = delete;
    ~Setting()
    {
        if (text_.Buffer) ExFreePoolWithTag(text_.Buffer, kPoolTag);
    }

    // prefix, and behind it the name in ASCII.
    [[nodiscard]] NTSTATUS Compose(PCWSTR prefix, const char* name)
    {
        USHORT characters = 0, letters = 0;
        while (prefix[characters]) ++characters;
        while (name[letters]) ++letters;
        if (const NTSTATUS status = Reserve((characters + letters) * sizeof(WCHAR)); !NT_SUCCESS(status)) return status;
        for (USHORT i = 0; i < characters; ++i) text_.Buffer[i] = prefix[i];
        for (USHORT i = 0; i < letters; ++i) text_.Buffer[characters + i] = static_cast<WCHAR>(name[i]);
        return STATUS_SUCCESS;
    }

    // Takes the value's text instead, if there is one. STATUS_OBJECT_TYPE_MISMATCH for another type than REG_SZ.
    [[nodiscard]] NTSTATUS Read(HANDLE key, PCWSTR name);

    // Null for an empty text.
    PUNICODE_STRING Get() { return text_.Length != 0 ? &text_ : nullptr; }

private:
    [[nodiscard]] NTSTATUS Reserve(SIZE_T bytes)
    {
        if (text_.Buffer) ExFreePoolWithTag(text_.Buffer, kPoolTag);
        text_ = {};
        if (bytes == 0) return STATUS_SUCCESS;
        text_.Buffer = Allocate<WCHAR>(PagedPool, bytes);
        if (!text_.Buffer) return STATUS_INSUFFICIENT_RESOURCES;
        text_.Length = text_.MaximumLength = static_cast<USHORT>(bytes);
        return STATUS_SUCCESS;
    }

    UNICODE_STRING text_ = {};
};

NTSTATUS QueryValue(HANDLE key, PCWSTR name, KEY_VALUE_PARTIAL_INFORMATION** value)
{
    UNICODE_STRING valueName;
    RtlInitUnicodeString(&valueName, name);
    ULONG length = 0;
    *value = nullptr;
    NTSTATUS status = ZwQueryValueKey(key, &valueName, KeyValuePartialInformation, nullptr, 0, &length);
    if (status == STATUS_OBJECT_NAME_NOT_FOUND) return STATUS_SUCCESS;
    if (status != STATUS_BUFFER_TOO_SMALL && status != STATUS_BUFFER_OVERFLOW) return status;
    auto* const block = Allocate<KEY_VALUE_PARTIAL_INFORMATION>(PagedPool, length);
    if (!block) return STATUS_INSUFFICIENT_RESOURCES;
    status = ZwQueryValueKey(key, &valueName, KeyValuePartialInformation, block, length, &length);
    if (NT_SUCCESS(status))
        *value = block;
    else
        ExFreePoolWithTag(block, kPoolTag);
    return status;
}

NTSTATUS Setting::Read(HANDLE key, PCWSTR name)
{
    KEY_VALUE_PARTIAL_INFORMATION* value;
    NTSTATUS status = QueryValue(key, name, &value);
    if (!NT_SUCCESS(status) || !value) return status;
    if (value->Type == REG_SZ && value->DataLength <= MAXUSHORT) {
        const WCHAR* const text = reinterpret_cast<const WCHAR*>(value->Data);
        ULONG characters = value->DataLength / sizeof(WCHAR);
        while (characters != 0 && text[characters - 1] == 0) --characters; // a REG_SZ ends in a NUL, or does not
        status = Reserve(characters * sizeof(WCHAR));
        if (NT_SUCCESS(status) && characters != 0) RtlCopyMemory(text_.Buffer, text, characters * sizeof(WCHAR));
    } else {
        status = STATUS_OBJECT_TYPE_MISMATCH;
    }
    ExFreePoolWithTag(value, kPoolTag);
    return status;
}

struct Settings {
    Setting DeviceName, LinkName, BackingPath, Sddl, Arguments;
};

NTSTATUS ReadSettings(PUNICODE_STRING registryPath, const char* name, Settings* settings)
{
    const struct {
        PCWSTR Value;
        Setting* Target;
        PCWSTR Default;
        const char* Name;
    } rows[] = {
        {L"DeviceName", &settings->DeviceName, L"\\Device\\Gv", name},
        {L"LinkName", &settings->LinkName, L"\\??\\", name},
        {L"BackingPath", &settings->BackingPath, L"\\Device\\Null", ""},
        {L"Sddl", &settings->Sddl, L"", ""},
        {L"Arguments", &settings->Arguments, L"", ""},
    };
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, registryPath, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE key;
    NTSTATUS status = ZwOpenKey(&key, KEY_QUERY_VALUE, &attributes);
    if (!NT_SUCCESS(status)) return status;
    for (const auto& row : rows) {
        status = row.Target->Compose(row.Default, row.Name);
        if (NT_SUCCESS(status)) status = row.Target->Read(key, row.Value);
        if (!NT_SUCCESS(status)) break;
    }
    ZwClose(key);
    return status;
}

// --- arguments, which the registry has as 16-bit text and a plugin takes as UTF-8

ULONG NextCharacter(const UNICODE_STRING& text, ULONG* at)
{
    const ULONG end = text.Length / sizeof(WCHAR);
    const ULONG unit = static_cast<USHORT>(text.Buffer[(*at)++]);
    if (unit < 0xd800 || unit >= 0xe000) return unit;
    const ULONG next = *at < end ? static_cast<USHORT>(text.Buffer[*at]) : 0;
    if (unit >= 0xdc00 || next < 0xdc00 || next >= 0xe000) return 0xfffd; // half of a pair
    ++*at;
    return 0x10000 + ((unit - 0xd800) << 10) + (next - 0xdc00);
}

ULONG PutUtf8(ULONG character, char* to)
{
    if (character < 0x80) {
        to[0] = static_cast<char>(character);
        return 1;
    }
    const ULONG following = character < 0x800 ? 1 : character < 0x10000 ? 2 : 3;
    constexpr ULONG kLead[] = {0, 0xc0, 0xe0, 0xf0};
    to[0] = static_cast<char>(kLead[following] | character >> (6 * following));
    for (ULONG i = 1; i <= following; ++i)
        to[i] = static_cast<char>(0x80 | (character >> (6 * (following - i)) & 0x3f));
    return following + 1;
}

NTSTATUS CreateVolume(const GvndPlugin& plugin, PUNICODE_STRING arguments, PluginOps** ops)
{
    if (!arguments) return plugin.Create("", ops);
    // No unit takes more than three bytes.
    char* const text = Allocate<char>(PagedPool, arguments->Length / sizeof(WCHAR) * 3 + 1);
    if (!text) return STATUS_INSUFFICIENT_RESOURCES;
    ULONG bytes = 0;
    for (ULONG at = 0; at < arguments->Length / sizeof(WCHAR);)
        bytes += PutUtf8(NextCharacter(*arguments, &at), text + bytes);
    const NTSTATUS status = plugin.Create(text, ops);
    ExFreePoolWithTag(text, kPoolTag);
    return status;
}

// --- the service

struct Instance {
    Instance* Next;
    PDRIVER_OBJECT Driver;
    const GvServices* Services;
    PluginOps* Ops;
    PDEVICE_OBJECT Device;
};

KSPIN_LOCK InstancesLock; // zero is a free lock
Instance* Instances;

void AddInstance(Instance* instance)
{
    KIRQL irql;
    KeAcquireSpinLock(&InstancesLock, &irql);
    instance->Next = Instances;
    Instances = instance;
    KeReleaseSpinLock(&InstancesLock, irql);
}

Instance* TakeInstance(PDRIVER_OBJECT driver)
{
    KIRQL irql;
    KeAcquireSpinLock(&InstancesLock, &irql);
    Instance** link = &Instances;
    while ((*link)->Driver != driver) link = &(*link)->Next;
    Instance* const found = *link;
    *link = found->Next;
    KeReleaseSpinLock(&InstancesLock, irql);
    return found;
}

// The table of services outlives the handle.
NTSTATUS FetchServices(const GvServices** services)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, GVND_CONTROL_DEVICE_NAME);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    IO_STATUS_BLOCK result;
    HANDLE device;
    NTSTATUS status =
        ZwCreateFile(&device, FILE_READ_DATA | FILE_WRITE_DATA | SYNCHRONIZE, &attributes, &result, nullptr, 0,
                     FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    if (!NT_SUCCESS(status)) return status;
    status = ZwDeviceIoControlFile(device, nullptr, nullptr, nullptr, &result, IOCTL_GVND_GET_SERVICE_TABLE, nullptr, 0,
                                   services, sizeof(*services));
    ZwClose(device);
    return status;
}

NTSTATUS Mount(const GvndPlugin& plugin, Settings& settings, Instance* instance)
{
    if (const NTSTATUS status = FetchServices(&instance->Services); !NT_SUCCESS(status)) return status;
    const NTSTATUS created = CreateVolume(plugin, settings.Arguments.Get(), &instance->Ops);
    if (!NT_SUCCESS(created)) return created;
    const NTSTATUS status =
        instance->Services->Mount(settings.BackingPath.Get(), settings.DeviceName.Get(), settings.LinkName.Get(),
                                  settings.Sddl.Get(), instance->Ops, &instance->Device);
    if (!NT_SUCCESS(status)) plugin.Destroy(instance->Ops);
    return status;
}

// The volume goes when its last file is closed, and its table and this code are in use until then: so the unload waits.
VOID NTAPI Unload(PDRIVER_OBJECT driver)
{
    Instance* const instance = TakeInstance(driver);
    const GvndPlugin& plugin = *GvndGetPlugin();
    (void)instance->Services->UnmountRequest(instance->Device); // can only refuse above PASSIVE_LEVEL
    plugin.WaitUntilUnmounted(instance->Ops);
    plugin.Destroy(instance->Ops);
    ExFreePoolWithTag(instance, kPoolTag);
}

} // namespace

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath)
{
    const GvndPlugin& plugin = *GvndGetPlugin();
    Settings settings;
    if (const NTSTATUS status = ReadSettings(registryPath, plugin.Name, &settings); !NT_SUCCESS(status)) return status;
    auto* const instance = Allocate<Instance>(NonPagedPoolNx, sizeof(Instance));
    if (!instance) return STATUS_INSUFFICIENT_RESOURCES;
    instance->Driver = driver;
    if (const NTSTATUS status = Mount(plugin, settings, instance); !NT_SUCCESS(status)) {
        ExFreePoolWithTag(instance, kPoolTag);
        return status;
    }
    driver->DriverUnload = Unload;
    AddInstance(instance);
    return STATUS_SUCCESS;
}
