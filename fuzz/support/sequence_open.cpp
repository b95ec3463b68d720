// Opening by name, relative to a handle, with extended attributes, and what else takes names.
#include <gvnd/memfs.h>
#include <workbench/ea.h>

#include "support/sequence.h"

namespace fuzz {

OBJECT_ATTRIBUTES Sequence::Attributes(HostileString& name, bool relative)
{
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, name.Get(), OBJ_CASE_INSENSITIVE, relative ? Any() : nullptr, nullptr);
    return attributes;
}

std::string Sequence::EaList()
{
    static const std::string kNames[] = {"A", "a", "B", "LONG", MEMFS_LINK_EA_NAME, "", "a*b", std::string(254, 'e')};
    workbench::EaList list;
    for (unsigned count = input_.Byte() % 4; count; --count) {
        const std::string& name = input_.Pick(kNames);
        list.Add(name, input_.Bytes(input_.Sometimes(16) ? 0x4000 : 24), input_.Sometimes(32) ? input_.Byte() : 0);
    }
    std::string bytes = list.Bytes();
    Spoil(input_, bytes.data(), bytes.size());
    return bytes;
}

void Sequence::Create()
{
    static constexpr ACCESS_MASK kAccess[] = {FILE_GENERIC_READ | FILE_GENERIC_WRITE | DELETE,
                                              FILE_GENERIC_READ,
                                              FILE_GENERIC_WRITE | DELETE,
                                              MAXIMUM_ALLOWED,
                                              FILE_APPEND_DATA | SYNCHRONIZE,
                                              DELETE | SYNCHRONIZE,
                                              FILE_EXECUTE | FILE_READ_DATA | SYNCHRONIZE,
                                              GENERIC_ALL,
                                              FILE_READ_ATTRIBUTES | SYNCHRONIZE};
    static constexpr ULONG kOptions[] = {
        FILE_DIRECTORY_FILE,  FILE_NON_DIRECTORY_FILE,     FILE_WRITE_THROUGH,
        FILE_DELETE_ON_CLOSE, FILE_OPEN_REPARSE_POINT,     FILE_NO_INTERMEDIATE_BUFFERING,
        FILE_OPEN_BY_FILE_ID, FILE_COMPLETE_IF_OPLOCKED,   FILE_NO_EA_KNOWLEDGE,
        FILE_RANDOM_ACCESS,   FILE_OPEN_FOR_BACKUP_INTENT, FILE_SEQUENTIAL_ONLY};
    static constexpr ULONG kShare[] = {FILE_SHARE_READ, FILE_SHARE_WRITE, FILE_SHARE_DELETE};
    static constexpr ULONG kAttributes[] = {FILE_ATTRIBUTE_READONLY,      FILE_ATTRIBUTE_HIDDEN,
                                            FILE_ATTRIBUTE_DIRECTORY,     FILE_ATTRIBUTE_TEMPORARY,
                                            FILE_ATTRIBUTE_REPARSE_POINT, 0x80000000};
    Slot& slot = AnySlot();
    const uint8_t how = input_.Byte();
    const bool relative = how & 1;
    slot.Synchronous = how & 2;
    const ULONG synchronous = slot.Synchronous ? FILE_SYNCHRONOUS_IO_NONALERT : 0;
    const ACCESS_MASK access = how & 4 ? input_.Raw<ACCESS_MASK>() : input_.Pick(kAccess);
    const ULONG share = how & 8 ? input_.Bits(kShare) : FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    const ULONG options = synchronous | (how & 16 ? input_.Bits(kOptions) : 0);
    const ULONG attributes = how & 32 ? input_.Bits(kAttributes) : 0;
    LARGE_INTEGER allocation;
    allocation.QuadPart = how & 64 ? input_.Number() : 0;
    std::u16string path = relative ? Path(input_) : AnyPath();
    if (relative && !path.empty()) path.erase(0, 1);
    HostileString name(input_, path);
    OBJECT_ATTRIBUTES object = Attributes(name, relative);
    const std::string eas = how & 128 ? EaList() : std::string();
    Buffer list(input_, eas.size(), eas.data());
    IO_STATUS_BLOCK block = {};
    HANDLE handle = nullptr;
    const NTSTATUS status =
        NtCreateFile(&handle, access | (slot.Synchronous ? SYNCHRONIZE : 0), &object, &block, &allocation, attributes,
                     share, input_.Byte() % 7, options, eas.empty() ? nullptr : list.Address(), list.Length());
    slot.File = workbench::Handle(NT_SUCCESS(status) ? handle : nullptr);
}

void Sequence::ByName()
{
    const uint8_t how = input_.Byte();
    const std::u16string path = how & 4 ? Path(input_) : AnyPath();
    HostileString name(input_, path);
    OBJECT_ATTRIBUTES object = Attributes(name, how & 4);
    switch (how % 3) {
    case 0: (void)NtDeleteFile(&object); break;
    case 1: {
        Buffer info(input_, sizeof(FILE_BASIC_INFORMATION));
        (void)NtQueryAttributesFile(&object, static_cast<PFILE_BASIC_INFORMATION>(info.Address()));
        break;
    }
    default: {
        Buffer info(input_, sizeof(FILE_NETWORK_OPEN_INFORMATION));
        (void)NtQueryFullAttributesFile(&object, static_cast<PFILE_NETWORK_OPEN_INFORMATION>(info.Address()));
        break;
    }
    }
}

void Sequence::Close() { (void)AnySlot().File.Close(); }

void Sequence::Duplicate()
{
    Slot& from = AnySlot();
    Slot& to = AnySlot();
    if (!from.File.Get()) return;
    HANDLE handle = nullptr;
    const NTSTATUS status = NtDuplicateObject(NtCurrentProcess(), from.File.Get(), NtCurrentProcess(), &handle,
                                              input_.Raw<ACCESS_MASK>(), 0, input_.Byte() & DUPLICATE_SAME_ACCESS);
    to.Synchronous = from.Synchronous;
    to.File = workbench::Handle(NT_SUCCESS(status) ? handle : nullptr);
}

} // namespace fuzz
