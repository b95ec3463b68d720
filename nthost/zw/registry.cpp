// The tree of keys, its start, and the interface for tests, tools and the loader. RegistryLock guards the tree; it is a
// leaf and no object is referenced or dropped under it.
#include "zw/registry.h"

#include <mutex>

#include "ob/object.h"
#include "zw/services.h"
#include <nthost/debug.h>
#include <nthost/registry.h>

namespace nthost::zw {

namespace {

using Text = std::u16string_view;

constexpr Text RootName = u"\\REGISTRY";

Key* g_root;        // under the lock
void* g_rootObject; // a reference, boot to shutdown

// What follows the first component of the path, without the backslash; false if that is not the registry's name.
bool BelowRoot(Text path, Text* below)
{
    const Text first = path.substr(0, RootName.size());
    if (NameLess()(first, RootName) || NameLess()(RootName, first)) return false;
    *below = path.substr(RootName.size());
    if (below->empty()) return true;
    if (below->front() != u'\\') return false;
    below->remove_prefix(1);
    return true;
}

template <typename Step>
Key* Walk(Key* key, Text path, Step step)
{
    while (key && !path.empty()) {
        const Text component = path.substr(0, path.find(u'\\'));
        key = component.empty() ? nullptr : step(key, component);
        path = component.size() == path.size() ? Text() : path.substr(component.size() + 1);
    }
    return key;
}

Key* Subkey(Key* key, Text name)
{
    const auto found = key->Subkeys.find(name);
    return found == key->Subkeys.end() ? nullptr : found->second.get();
}

NTSTATUS SyntaxOf(Text path, Text* below)
{
    if (path.empty() || path.front() != u'\\' || path.back() == u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
    return g_root && BelowRoot(path, below) ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND;
}

NTSTATUS KeyAt(std::string_view path, bool create, Key** key)
{
    const std::u16string text = FromUtf8(path);
    Text below;
    if (const NTSTATUS status = SyntaxOf(text, &below); !NT_SUCCESS(status)) return status;
    *key = create ? MakeKey(g_root, below) : FindKey(g_root, below);
    return *key ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND;
}

} // namespace

bool NameLess::operator()(Text a, Text b) const
{
    const size_t common = a.size() < b.size() ? a.size() : b.size();
    for (size_t i = 0; i < common; ++i) {
        if (a[i] == b[i]) continue;
        const WCHAR x = RtlUpcaseUnicodeChar(static_cast<WCHAR>(a[i])),
                    y = RtlUpcaseUnicodeChar(static_cast<WCHAR>(b[i]));
        if (x != y) return x < y;
    }
    return a.size() < b.size();
}

std::shared_mutex& RegistryLock()
{
    static std::shared_mutex lock;
    return lock;
}

Key* FindKey(Key* key, Text path) { return Walk(key, path, Subkey); }

Key* MakeKey(Key* key, Text path)
{
    return Walk(key, path, [](Key* at, Text name) {
        std::unique_ptr<Key>& slot = at->Subkeys[std::u16string(name)];
        if (!slot) slot = std::make_unique<Key>();
        return slot.get();
    });
}

Key* RootKey() { return g_root; }

void BootRegistry()
{
    g_root = new Key;
    MakeKey(g_root, u"MACHINE\\SYSTEM\\CurrentControlSet\\Services");
    g_rootObject = NewKeyObject(g_root);
    ob::MarkOfBoot(g_rootObject);
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"\\REGISTRY");
    (void)ob::InsertName(&name, g_rootObject);
}

void ShutdownRegistry()
{
    ob::RemoveName(g_rootObject);
    ObDereferenceObject(g_rootObject);
    const std::lock_guard hold(RegistryLock());
    delete g_root;
    g_root = nullptr;
}

void Boot() { BootRegistry(); }

void Shutdown() { ShutdownRegistry(); }

} // namespace nthost::zw

namespace nthost {

using namespace zw;

NTSTATUS CreateRegistryKey(std::string_view path)
{
    const std::lock_guard hold(RegistryLock());
    Key* key;
    return KeyAt(path, true, &key);
}

NTSTATUS SetRegistryValue(std::string_view path, std::string_view name, ULONG type, const void* data, size_t size)
{
    const auto* bytes = static_cast<const unsigned char*>(data);
    const std::lock_guard hold(RegistryLock());
    Key* key;
    if (const NTSTATUS status = KeyAt(path, true, &key); !NT_SUCCESS(status)) return status;
    key->Values.insert_or_assign(FromUtf8(name), KeyValue{type, {bytes, bytes + size}});
    return STATUS_SUCCESS;
}

NTSTATUS SetRegistryDword(std::string_view path, std::string_view name, ULONG value)
{
    return SetRegistryValue(path, name, REG_DWORD, &value, sizeof value);
}

NTSTATUS DeleteRegistryValue(std::string_view path, std::string_view name)
{
    const std::lock_guard hold(RegistryLock());
    Key* key;
    if (const NTSTATUS status = KeyAt(path, false, &key); !NT_SUCCESS(status)) return status;
    const auto found = key->Values.find(FromUtf8(name));
    if (found == key->Values.end()) return STATUS_OBJECT_NAME_NOT_FOUND;
    key->Values.erase(found);
    return STATUS_SUCCESS;
}

std::optional<RegistryValue> GetRegistryValue(std::string_view path, std::string_view name)
{
    const std::shared_lock hold(RegistryLock());
    Key* key;
    if (!NT_SUCCESS(KeyAt(path, false, &key))) return std::nullopt;
    const auto found = key->Values.find(FromUtf8(name));
    if (found == key->Values.end()) return std::nullopt;
    return RegistryValue{found->second.Type, found->second.Data};
}

} // namespace nthost
