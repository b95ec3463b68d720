// Directories, symbolic links and the walk along a path. One lock guards every directory; it is never held while an
// object is deleted, so references that fall under it are dropped after it.
#include <mutex>
#include <new>
#include <shared_mutex>
#include <string_view>
#include <unordered_map>
#include <utility>

#include <nthost/debug.h>

#include "ob/header.h"
#include "ob/object.h"

namespace nthost::ob {

namespace {

using Text = std::u16string_view;

constexpr unsigned MaximumLinks = 32;
constexpr size_t MaximumPath = MAXUSHORT / sizeof(WCHAR);

char16_t Fold(char16_t c)
{
    if (c < 0x80) return c >= u'a' && c <= u'z' ? static_cast<char16_t>(c - 0x20) : c;
    return static_cast<char16_t>(RtlUpcaseUnicodeChar(static_cast<WCHAR>(c)));
}

struct FoldedHash {
    using is_transparent = void;
    size_t operator()(Text text) const
    {
        size_t hash = 0xcbf29ce484222325ull;
        for (const char16_t c : text) hash = (hash ^ Fold(c)) * 0x100000001b3ull;
        return hash;
    }
};

struct FoldedEqual {
    using is_transparent = void;
    bool operator()(Text a, Text b) const
    {
        if (a.size() != b.size()) return false;
        for (size_t i = 0; i < a.size(); ++i)
            if (a[i] != b[i] && Fold(a[i]) != Fold(b[i])) return false;
        return true;
    }
};

struct Directory {
    // Each entry holds a reference on its object.
    std::unordered_map<std::u16string, void*, FoldedHash, FoldedEqual> Entries;
};

struct SymbolicLink {
    std::u16string Target;
};

template <typename Body>
void Destroy(void* body)
{
    static_cast<Body*>(body)->~Body();
}

OBJECT_TYPE g_directoryType{.Name = "Directory",
                            .Mapping = {},
                            .ValidAccess = STANDARD_RIGHTS_REQUIRED | 0xf,
                            .UsesDispatcherHeader = false,
                            .WaitOffset = 0,
                            .Close = nullptr,
                            .Delete = Destroy<Directory>,
                            .Live = {}};
OBJECT_TYPE g_linkType{.Name = "SymbolicLink",
                       .Mapping = {},
                       .ValidAccess = STANDARD_RIGHTS_REQUIRED | 0x1,
                       .UsesDispatcherHeader = false,
                       .WaitOffset = 0,
                       .Close = nullptr,
                       .Delete = Destroy<SymbolicLink>,
                       .Live = {}};

std::shared_mutex g_lock;
Directory* g_root; // a reference; null while not booted

Text View(PCUNICODE_STRING text)
{
    return {reinterpret_cast<const char16_t*>(text->Buffer), text->Length / sizeof(WCHAR)};
}

void* Find(const Directory* directory, Text name)
{
    const auto found = directory->Entries.find(name);
    return found == directory->Entries.end() ? nullptr : found->second;
}

// Where a walk without links ended.
struct Position {
    void* Body = nullptr;
    Text Rest; // unused part, with its leading backslash
};

// Stops at the first object that is no directory. The lock is held.
NTSTATUS WalkDirectories(Text path, Position* position)
{
    if (path.empty() || path[0] != u'\\' || !g_root) return STATUS_OBJECT_PATH_SYNTAX_BAD;
    *position = {g_root, path == u"\\" ? Text() : path};
    while (!position->Rest.empty() && TypeOf(position->Body) == &g_directoryType) {
        const Text tail = position->Rest.substr(1);
        const Text component = tail.substr(0, tail.find(u'\\'));
        if (component.empty()) return STATUS_OBJECT_NAME_INVALID;
        position->Rest = tail.substr(component.size());
        position->Body = Find(static_cast<Directory*>(position->Body), component);
        if (!position->Body)
            return position->Rest.empty() ? STATUS_OBJECT_NAME_NOT_FOUND : STATUS_OBJECT_PATH_NOT_FOUND;
    }
    return STATUS_SUCCESS;
}

// The same through links. `expanded` holds the text that the position's rest points into once a link was met.
NTSTATUS Walk(Text path, std::u16string* expanded, Position* position)
{
    for (unsigned links = 0;; ++links) {
        const NTSTATUS status = WalkDirectories(path, position);
        if (!NT_SUCCESS(status) || TypeOf(position->Body) != &g_linkType) return status;
        if (links == MaximumLinks) return STATUS_OBJECT_NAME_INVALID;
        const std::u16string& target = static_cast<SymbolicLink*>(position->Body)->Target;
        if (target.size() + position->Rest.size() > MaximumPath) return STATUS_NAME_TOO_LONG;
        std::u16string next;
        next.reserve(target.size() + position->Rest.size());
        next.append(target).append(position->Rest); // the rest may point into the text that this replaces
        *expanded = std::move(next);
        path = *expanded;
    }
}

// The directory that a path's last component stands in. The lock is held.
NTSTATUS WalkToParent(Text path, Directory** parent, Text* name)
{
    const size_t last = path.rfind(u'\\');
    if (last == Text::npos || path[0] != u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
    *name = path.substr(last + 1);
    if (name->empty()) return STATUS_OBJECT_NAME_INVALID;

    std::u16string expanded;
    Position position;
    const NTSTATUS status = Walk(last ? path.substr(0, last) : Text(u"\\"), &expanded, &position);
    if (status == STATUS_OBJECT_NAME_NOT_FOUND) return STATUS_OBJECT_PATH_NOT_FOUND;
    if (!NT_SUCCESS(status)) return status;
    if (TypeOf(position.Body) != &g_directoryType) return STATUS_OBJECT_PATH_NOT_FOUND;
    *parent = static_cast<Directory*>(position.Body);
    return STATUS_SUCCESS;
}

// The lock is held exclusively. Gives the directory's reference to the caller.
void* TakeName(Header* header)
{
    if (!header->Name) return nullptr;
    Directory* const parent = static_cast<Directory*>(header->Parent);
    parent->Entries.erase(parent->Entries.find(*header->Name));
    header->Name = nullptr;
    header->Parent = nullptr;
    return BodyOf(header);
}

Directory* NewDirectory()
{
    void* const body = CreateObject(&g_directoryType, sizeof(Directory));
    if (!body) throw std::bad_alloc();
    MarkOfBoot(body);
    return new (body) Directory;
}

void MakeBootDirectory(std::u16string_view name)
{
    Directory* const directory = NewDirectory();
    UNICODE_STRING path{static_cast<USHORT>(name.size() * 2), static_cast<USHORT>(name.size() * 2),
                        reinterpret_cast<WCHAR*>(const_cast<char16_t*>(name.data()))};
    (void)InsertName(&path, directory);
    ObDereferenceObject(directory);
}

// A second name of a directory, which does not become its own.
void MakeAlias(std::u16string name, const char16_t* of)
{
    void* const directory = Find(g_root, of);
    ObReferenceObject(directory);
    g_root->Entries.emplace(std::move(name), directory);
}

// Empties the directory and those below; the references gathered are the caller's. The lock is held exclusively.
void TakeAllNames(Directory* directory, std::vector<void*>* bodies)
{
    for (auto& [name, body] : directory->Entries) {
        Header* const header = HeaderOf(body);
        if (header->Name == &name) header->Name = nullptr, header->Parent = nullptr;
        bodies->push_back(body);
        if (TypeOf(body) == &g_directoryType) TakeAllNames(static_cast<Directory*>(body), bodies);
    }
    directory->Entries.clear();
}

} // namespace

NTSTATUS InsertName(PCUNICODE_STRING path, void* body)
{
    const std::lock_guard hold(g_lock);
    Directory* parent;
    Text name;
    if (const NTSTATUS status = WalkToParent(View(path), &parent, &name); !NT_SUCCESS(status)) return status;
    Header* const header = HeaderOf(body);
    if (header->Name) return STATUS_INVALID_PARAMETER;
    const auto [entry, inserted] = parent->Entries.try_emplace(std::u16string(name), body);
    if (!inserted) return STATUS_OBJECT_NAME_COLLISION;
    ObReferenceObject(body);
    header->Parent = parent;
    header->Name = &entry->first;
    return STATUS_SUCCESS;
}

void RemoveName(void* body)
{
    void* taken;
    {
        const std::lock_guard hold(g_lock);
        taken = TakeName(HeaderOf(body));
    }
    if (taken) ObDereferenceObject(taken);
}

std::u16string NameOf(void* body)
{
    const std::shared_lock hold(g_lock);
    std::u16string path;
    for (const Header* header = HeaderOf(body); header->Name; header = HeaderOf(header->Parent))
        path = u"\\" + *header->Name + path;
    return path;
}

std::string NameText(void* body)
{
    const std::u16string name = NameOf(body);
    return ToUtf8(reinterpret_cast<const WCHAR*>(name.data()), name.size());
}

NTSTATUS CreateSymbolicLink(PCUNICODE_STRING path, PCUNICODE_STRING target)
{
    void* const body = CreateObject(&g_linkType, sizeof(SymbolicLink));
    if (!body) return STATUS_INSUFFICIENT_RESOURCES;
    new (body) SymbolicLink{std::u16string(View(target))};
    const NTSTATUS status = InsertName(path, body);
    ObDereferenceObject(body);
    return status;
}

NTSTATUS DeleteSymbolicLink(PCUNICODE_STRING path)
{
    void* taken;
    {
        const std::lock_guard hold(g_lock);
        Directory* parent;
        Text name;
        if (const NTSTATUS status = WalkToParent(View(path), &parent, &name); !NT_SUCCESS(status)) return status;
        void* const body = Find(parent, name);
        if (!body) return STATUS_OBJECT_NAME_NOT_FOUND;
        if (TypeOf(body) != &g_linkType) return STATUS_OBJECT_TYPE_MISMATCH;
        taken = TakeName(HeaderOf(body));
    }
    if (taken) ObDereferenceObject(taken);
    return STATUS_SUCCESS;
}

NTSTATUS LookupPath(PCUNICODE_STRING path, void** body, std::u16string* remaining)
{
    const std::shared_lock hold(g_lock);
    std::u16string expanded;
    Position position;
    if (const NTSTATUS status = Walk(View(path), &expanded, &position); !NT_SUCCESS(status)) return status;
    // The rest ends where the expanded text ends, and most paths go through a link: its memory serves again.
    const bool inExpanded = !expanded.empty();
    if (inExpanded) {
        expanded.erase(0, expanded.size() - position.Rest.size());
        *remaining = std::move(expanded);
    } else {
        remaining->assign(position.Rest);
    }
    ObReferenceObject(position.Body);
    *body = position.Body;
    return STATUS_SUCCESS;
}

void BootNamespace()
{
    g_root = NewDirectory();
    for (const char16_t* name : {u"\\Device", u"\\GLOBAL??", u"\\Driver", u"\\FileSystem", u"\\BaseNamedObjects"})
        MakeBootDirectory(name);
    MakeAlias(u"??", u"GLOBAL??");
    MakeAlias(u"DosDevices", u"GLOBAL??");
}

void ShutdownNamespace()
{
    std::vector<void*> bodies;
    {
        const std::lock_guard hold(g_lock);
        TakeAllNames(g_root, &bodies);
        bodies.push_back(g_root);
        g_root = nullptr;
    }
    for (void* body : bodies) ObDereferenceObject(body);
}

} // namespace nthost::ob
