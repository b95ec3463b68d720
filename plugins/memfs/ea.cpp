// The list of extended attributes, and what makes a link of a file. Relies on Node.Lock, held by the caller.

#include "ea.h"

#include <gvnd/memfs.h>
#include "volume.h"

namespace memfs {
namespace {

constexpr ULONG kMaxNameLength = 255;

char Upcase(char character)
{
    return character >= 'a' && character <= 'z' ? static_cast<char>(character - ('a' - 'A')) : character;
}

// kept is in upper case already.
bool SameName(const char* kept, const char* name)
{
    while (*kept && *kept == Upcase(*name)) ++kept, ++name;
    return *kept == 0 && *name == 0;
}

// 0 if it is too long to be a name.
ULONG NameLength(const char* name)
{
    ULONG length = 0;
    while (name[length] && length <= kMaxNameLength) ++length;
    return length <= kMaxNameLength ? length : 0;
}

// The link that holds the entry, or the one at the end of the list.
Ea** FindLink(Node* node, const char* name)
{
    Ea** link = &node->Eas;
    while (*link && !SameName((*link)->Name, name)) link = &(*link)->Next;
    return link;
}

ULONG WireBytes(ULONG nameLength, ULONG valueLength) { return (8 + nameLength + 1 + valueLength + 3) & ~3u; }

ULONG WireBytesWithout(const Node* node, const Ea* replaced)
{
    ULONG bytes = 0;
    for (const Ea* ea = node->Eas; ea; ea = ea->Next) {
        if (ea != replaced) bytes += WireBytes(ea->NameLength, ea->ValueLength);
    }
    return bytes;
}

Ea* EaCreate(const char* name, ULONG nameLength, const void* value, ULONG length)
{
    Ea* const ea = Allocate<Ea>(PagedPool, sizeof(Ea) + nameLength + length);
    if (!ea) return nullptr;
    ea->ValueLength = length;
    ea->NameLength = static_cast<UCHAR>(nameLength);
    for (ULONG i = 0; i < nameLength; ++i) ea->Name[i] = Upcase(name[i]);
    RtlCopyMemory(ea->Name + nameLength + 1, value, length);
    return ea;
}

NTSTATUS CheckLinkTarget(const Node* node, const void* value, ULONG length)
{
    if (node->Kind != NodeKind::File) return STATUS_FILE_IS_A_DIRECTORY;
    WCHAR first = 0;
    if (length >= sizeof(WCHAR) && length % sizeof(WCHAR) == 0) RtlCopyMemory(&first, value, sizeof(first));
    return first == '\\' && length < MAXUSHORT ? STATUS_SUCCESS : STATUS_OBJECT_PATH_SYNTAX_BAD;
}

} // namespace

Ea* EaFind(const Node* node, const char* name) { return *FindLink(const_cast<Node*>(node), name); }

const void* EaValue(const Ea* ea) { return ea->Name + ea->NameLength + 1; }

bool EaIsLink(const Ea* ea) { return SameName(ea->Name, MEMFS_LINK_EA_NAME); }

NTSTATUS EaSet(Node* node, const char* name, const void* value, ULONG length)
{
    const ULONG nameLength = NameLength(name);
    if (nameLength == 0) return STATUS_INVALID_EA_NAME;
    if (length == 0) return STATUS_INVALID_PARAMETER;
    Ea** const link = FindLink(node, name);
    Ea* const old = *link;
    if (length > kMaxEaBytes || WireBytesWithout(node, old) + WireBytes(nameLength, length) > kMaxEaBytes) {
        return STATUS_EA_TOO_LARGE;
    }
    const bool isLink = SameName(MEMFS_LINK_EA_NAME, name);
    if (const NTSTATUS status = isLink ? CheckLinkTarget(node, value, length) : STATUS_SUCCESS; !NT_SUCCESS(status)) {
        return status;
    }
    Ea* const made = EaCreate(name, nameLength, value, length);
    if (!made) return STATUS_INSUFFICIENT_RESOURCES;
    made->Next = old ? old->Next : nullptr;
    *link = made;
    Free(old);
    if (isLink) NodeSetLink(node, IsLink::Yes);
    return STATUS_SUCCESS;
}

NTSTATUS EaDelete(Node* node, const char* name)
{
    Ea** const link = FindLink(node, name);
    Ea* const ea = *link;
    if (!ea) return STATUS_NONEXISTENT_EA_ENTRY;
    if (EaIsLink(ea)) NodeSetLink(node, IsLink::No);
    *link = ea->Next;
    Free(ea);
    return STATUS_SUCCESS;
}

void EaFreeAll(Node* node)
{
    while (Ea* const ea = node->Eas) {
        node->Eas = ea->Next;
        Free(ea);
    }
}

} // namespace memfs
