// ListEa, GetEa, SetEa, DeleteEa. An EA is an extended attribute user.<name>. NT names of EAs are upper case, so that
// is how they are shown; but where two Linux names differ in case alone, one of them keeps its own spelling. A name
// means the attribute that is spelled that way, else the first that differs in case only. Setting one keeps its
// spelling on Linux, also over the removal that the driver puts before each setting: the handle remembers it
// (OpenObject.EaLock).
#include "operations.h"

#include "errors.h"
#include "volume.h"

#include <algorithm>
#include <cstring>

namespace posixfs {
namespace {

std::string Upcased(std::string name)
{
    std::transform(name.begin(), name.end(), name.begin(),
                   [](char byte) { return byte >= 'a' && byte <= 'z' ? static_cast<char>(byte - 32) : byte; });
    return name;
}

bool IsOwn(std::string_view upcasedName) { return upcasedName.starts_with("GVND."); }

// What follows the prefix in the names of attributes that are EAs, in byte order.
NTSTATUS ListSpellings(const Node& object, std::vector<std::string>* spellings)
{
    std::string list;
    if (const int error = object.ListXattrs(&list); error != 0) return StatusOf(error);
    for (size_t at = 0; at < list.size(); at += std::strlen(&list[at]) + 1) {
        const std::string_view name = &list[at];
        if (!name.starts_with(kUserPrefix) || name.size() == kUserPrefix.size()) continue;
        std::string spelling(name.substr(kUserPrefix.size()));
        if (!IsOwn(Upcased(spelling))) spellings->push_back(std::move(spelling));
    }
    std::sort(spellings->begin(), spellings->end());
    return STATUS_SUCCESS;
}

std::string ShownAs(const std::string& spelling, const std::vector<std::string>& all)
{
    std::string upcased = Upcased(spelling);
    // In byte order upper case comes first, so the first of several is the one that an upper-case name means.
    const auto first =
        std::find_if(all.begin(), all.end(), [&](const auto& other) { return Upcased(other) == upcased; });
    return *first == spelling ? upcased : spelling;
}

// How Linux spells the EA that a name means; STATUS_NONEXISTENT_EA_ENTRY if there is none.
NTSTATUS FindSpelling(const Node& object, const std::string& name, std::string* spelling)
{
    std::vector<std::string> all;
    const NTSTATUS status = ListSpellings(object, &all);
    if (!NT_SUCCESS(status)) return status == STATUS_NOT_SUPPORTED ? STATUS_NONEXISTENT_EA_ENTRY : status;
    auto found = std::find(all.begin(), all.end(), name);
    if (found == all.end()) {
        found =
            std::find_if(all.begin(), all.end(), [&](const auto& other) { return Upcased(other) == Upcased(name); });
    }
    if (found == all.end()) return STATUS_NONEXISTENT_EA_ENTRY;
    *spelling = *found;
    return STATUS_SUCCESS;
}

std::string XattrName(const std::string& spelling) { return std::string(kUserPrefix) + spelling; }

NTSTATUS FindObject(const Volume& volume, PluginFd fd, OpenObjectRef* object)
{
    *object = volume.Find(fd);
    if (!*object) return STATUS_INVALID_HANDLE;
    return (*object)->Kind == Kind::Link ? STATUS_NOT_SUPPORTED : STATUS_SUCCESS;
}

NTSTATUS FindObjectToChange(const Volume& volume, PluginFd fd, const char* name, OpenObjectRef* object)
{
    if (const NTSTATUS status = volume.CheckWritable(); !NT_SUCCESS(status)) return status;
    if (!*name || IsOwn(Upcased(name))) return STATUS_INVALID_EA_NAME;
    return FindObject(volume, fd, object);
}

NTSTATUS List(const Volume& volume, PluginFd fd, char** names, ULONG* count)
{
    OpenObjectRef object;
    if (const NTSTATUS status = FindObject(volume, fd, &object); !NT_SUCCESS(status)) return status;
    std::vector<std::string> spellings;
    if (const NTSTATUS status = ListSpellings(*object->At, &spellings); !NT_SUCCESS(status)) return status;
    *count = static_cast<ULONG>(spellings.size());
    if (spellings.empty()) return STATUS_SUCCESS;

    std::string block;
    for (const std::string& spelling : spellings) block += ShownAs(spelling, spellings) + '\0';
    *names = AllocateRecord<char>(block.size());
    if (!*names) return STATUS_INSUFFICIENT_RESOURCES;
    std::memcpy(*names, block.data(), block.size());
    return STATUS_SUCCESS;
}

NTSTATUS Get(const Volume& volume, PluginFd fd, const char* name, void** value, ULONG* length)
{
    OpenObjectRef object;
    if (const NTSTATUS status = FindObject(volume, fd, &object); !NT_SUCCESS(status)) return status;
    std::string spelling;
    if (const NTSTATUS status = FindSpelling(*object->At, name, &spelling); !NT_SUCCESS(status)) return status;
    std::string found;
    if (const int error = ReadXattr(*object->At, XattrName(spelling), &found); error != 0) return StatusOf(error);

    *length = static_cast<ULONG>(found.size());
    if (found.empty()) return STATUS_SUCCESS;
    *value = AllocateRecord<char>(found.size());
    if (!*value) return STATUS_INSUFFICIENT_RESOURCES;
    std::memcpy(*value, found.data(), found.size());
    return STATUS_SUCCESS;
}

NTSTATUS Set(const Volume& volume, PluginFd fd, const char* name, std::string_view value)
{
    OpenObjectRef object;
    if (const NTSTATUS status = FindObjectToChange(volume, fd, name, &object); !NT_SUCCESS(status)) return status;
    const std::lock_guard guard(object->EaLock);
    std::string spelling = name;
    const NTSTATUS status = FindSpelling(*object->At, name, &spelling);
    if (!NT_SUCCESS(status) && status != STATUS_NONEXISTENT_EA_ENTRY) return status;
    const auto remembered = object->EaSpellings.find(Upcased(name));
    if (!NT_SUCCESS(status) && remembered != object->EaSpellings.end()) spelling = remembered->second;

    const int error = object->At->SetXattr(XattrName(spelling).c_str(), value);
    if (error == EOPNOTSUPP) return STATUS_EAS_NOT_SUPPORTED;
    return error == 0 ? STATUS_SUCCESS : StatusOf(error);
}

NTSTATUS Remove(const Volume& volume, PluginFd fd, const char* name)
{
    OpenObjectRef object;
    if (const NTSTATUS status = FindObjectToChange(volume, fd, name, &object); !NT_SUCCESS(status)) return status;
    const std::lock_guard guard(object->EaLock);
    std::string spelling;
    if (const NTSTATUS status = FindSpelling(*object->At, name, &spelling); !NT_SUCCESS(status)) return status;
    const int error = object->At->RemoveXattr(XattrName(spelling).c_str());
    if (error != 0) return StatusOf(error);
    object->EaSpellings[Upcased(name)] = spelling;
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS NTAPI ListEa(void* context, PKEVENT, PluginFd fd, char** names, ULONG* count)
{
    return Contained([&] { return List(Volume::From(context), fd, names, count); });
}

NTSTATUS NTAPI GetEa(void* context, PKEVENT, PluginFd fd, const char* name, void** value, ULONG* length)
{
    return Contained([&] { return Get(Volume::From(context), fd, name, value, length); });
}

NTSTATUS NTAPI SetEa(void* context, PKEVENT, PluginFd fd, const char* name, const void* value, ULONG length)
{
    return Contained([&] {
        return Set(Volume::From(context), fd, name, std::string_view(static_cast<const char*>(value), length));
    });
}

NTSTATUS NTAPI DeleteEa(void* context, PKEVENT, PluginFd fd, const char* name)
{
    return Contained([&] { return Remove(Volume::From(context), fd, name); });
}

} // namespace posixfs
