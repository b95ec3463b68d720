// Counted strings and path tests.

#include "frame/trace.h"
#include "objects/util.h"

PUNICODE_STRING GvUtlAllocUnicodeString(POOL_TYPE pool, ULONG capacity)
{
    if (capacity >= MAXUSHORT) {
        GV_TRACE(GvTraceError, "bad param: 0x%x\n", capacity);
        return nullptr;
    }
    auto* const text = static_cast<PUNICODE_STRING>(GvAllocate(pool, sizeof(UNICODE_STRING) + capacity));
    if (!text) {
        GV_TRACE(GvTraceError, "out-of-mem\n");
        return nullptr;
    }
    text->MaximumLength = static_cast<USHORT>(capacity);
    text->Buffer = reinterpret_cast<PWCH>(text + 1);
    return text;
}

NTSTATUS GvUtlUniStrRChr(PCUNICODE_STRING text, WCHAR character, USHORT* index)
{
    if (text->Length < sizeof(WCHAR))
        return GV_REFUSE(STATUS_INVALID_PARAMETER, "invalid parameter, str-len: %d\n", text->Length);
    for (USHORT i = text->Length / sizeof(WCHAR); i-- > 0;) {
        if (text->Buffer[i] != character) continue;
        *index = i;
        return STATUS_SUCCESS;
    }
    return STATUS_UNSUCCESSFUL;
}

bool GvUtlEndsInBackslash(PCUNICODE_STRING path)
{
    return path->Length >= sizeof(WCHAR) && path->Buffer[path->Length / sizeof(WCHAR) - 1] == L'\\';
}

bool GvUtlIsRootPath(PCUNICODE_STRING path) { return path->Length == sizeof(WCHAR) && path->Buffer[0] == L'\\'; }

namespace {

ULONG LengthOf(const WCHAR* text)
{
    ULONG length = 0;
    while (text[length]) ++length;
    return length;
}

bool HasBackslash(const WCHAR* text)
{
    for (; *text; ++text)
        if (*text == L'\\') return true;
    return false;
}

// The first place at or after text where component stands; null if none. Both NUL-terminated.
const WCHAR* Find(const WCHAR* text, const WCHAR* component, ULONG length)
{
    for (; *text; ++text) {
        ULONG i = 0;
        while (i < length && text[i] == component[i]) ++i;
        if (i == length) return text;
    }
    return nullptr;
}

bool HasWholeComponent(const WCHAR* path, const WCHAR* component)
{
    const ULONG length = LengthOf(component);
    for (const WCHAR* hit = Find(path, component, length); hit; hit = Find(hit + length, component, length)) {
        const bool beginsWhole = hit > path && hit[-1] == L'\\';
        const bool endsWhole = hit[length] == L'\\' || !hit[length];
        if (beginsWhole && endsWhole) return true;
    }
    return false;
}

} // namespace

NTSTATUS GvUtlDoesPathHaveComponent(PCUNICODE_STRING path, const WCHAR* component, bool* found)
{
    if (path->Length == 0 || path->Length % sizeof(WCHAR) != 0 || path->Buffer[0] != L'\\')
        return GV_REFUSE(STATUS_INVALID_PARAMETER, "ERR: illegal path\n");
    if (!*component || HasBackslash(component))
        return GV_REFUSE(STATUS_INVALID_PARAMETER, "ERR: illegal component: '%S'\n", component);
    // Zeroed, so the copy is terminated.
    const GvBlock<WCHAR> copy(static_cast<WCHAR*>(GvAllocate(PagedPool, path->Length + sizeof(WCHAR))));
    if (!copy) return GV_REFUSE(STATUS_INSUFFICIENT_RESOURCES, "out-of-memory\n");
    RtlCopyMemory(copy.Get(), path->Buffer, path->Length);
    *found = HasWholeComponent(copy.Get(), component);
    return STATUS_SUCCESS;
}

NTSTATUS GvEnsurePathCharsAreLegal(PCUNICODE_STRING path)
{
    for (ULONG i = 0; i < path->Length / sizeof(WCHAR); ++i) {
        const WCHAR character = path->Buffer[i];
        if (character >= 0x80 || character == L'\\') continue;
        if (FsRtlLegalAnsiCharacterArray[character] & FSRTL_NTFS_LEGAL) continue;
        return GV_REFUSE(STATUS_OBJECT_NAME_INVALID, "FsRtlIsAnsiCharacterLegalNtfs(): failed, char: 0x%x\n",
                         character);
    }
    return STATUS_SUCCESS;
}

NTSTATUS GvCheckLeaf(PCUNICODE_STRING leaf)
{
    const ULONG length = leaf->Length / sizeof(WCHAR);
    bool dots = length == 1 || length == 2;
    bool separator = length == 0 || leaf->Length % sizeof(WCHAR) != 0;
    for (ULONG i = 0; i < length; ++i) {
        dots &= leaf->Buffer[i] == L'.';
        separator |= leaf->Buffer[i] == L'\\';
    }
    if (dots) return GV_REFUSE(STATUS_OBJECT_PATH_SYNTAX_BAD, "ERR: the new name is '.' or '..'\n");
    if (separator) return GV_REFUSE(STATUS_OBJECT_NAME_INVALID, "ERR: the new name is not one component\n");
    const NTSTATUS status = GvEnsurePathCharsAreLegal(leaf);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED("GvEnsurePathCharsAreLegal", status);
    return status;
}
