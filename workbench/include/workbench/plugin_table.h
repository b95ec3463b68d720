// A plugin's operations called as the driver calls them, one by one and with no driver there: for tests of the plugin
// itself, and to fill a volume, or look into it, behind the driver's back.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gvnd/plugin.h>

#include "workbench/text.h"

namespace workbench {

struct FreePool {
    void operator()(void* block) const { ExFreePoolWithTag(block, 0); }
};
// What an operation handed back.
template <typename T>
using PoolOwned = std::unique_ptr<T, FreePool>;

struct FoundObject {
    NTSTATUS Status;
    PluginFileInfo Info;
    PluginAccessMask Access;
};

struct PluginHandle {
    NTSTATUS Status;
    PluginFd Fd;
};

struct ListedEntry {
    NTSTATUS Status;
    std::u16string Name;
    PluginDirEntry Record; // without its name
};

// Success without the record that is owed is STATUS_UNSUCCESSFUL, as for the driver. Records and strings are freed
// here, also those that come with a failure.
class PluginTable {
public:
    // The table stays the caller's. Pool and events must be there: nthost booted.
    explicit PluginTable(const PluginOps* operations);
    PluginTable(const PluginTable&) = delete;
    PluginTable& operator=(const PluginTable&) = delete;

    const PluginOps* Operations() const { return operations_; }
    // Any operation, with context and cancel event filled in.
    template <typename Slot, typename... Args>
    NTSTATUS Call(Slot PluginOps::*slot, Args... args) const
    {
        return (operations_->*slot)(operations_->PluginContext, &cancel_, args...);
    }

    FoundObject Lookup(const Text& path) const;
    FoundObject Info(PluginFd fd) const;
    PluginHandle Open(const Text& path, PluginAccessMask wanted = GVND_ACCESS_READ) const;
    PluginHandle OpenDir(const Text& path, PluginAccessMask wanted = GVND_ACCESS_READ) const;
    PluginHandle Create(const Text& path) const;
    PluginHandle CreateDir(const Text& path) const;
    NTSTATUS Close(PluginFd fd) const { return Call(&PluginOps::Close, fd); }

    // STATUS_UNSUCCESSFUL also when fewer bytes were written than given.
    NTSTATUS Write(PluginFd fd, LONGLONG offset, std::string_view data) const;
    // The bytes; none after a failure.
    std::string Read(PluginFd fd, LONGLONG offset, ULONG length, NTSTATUS* status) const;
    // STATUS_UNSUCCESSFUL also when the size that came back is another.
    NTSTATUS Resize(PluginFd fd, LONGLONG size, LONGLONG allocation) const;
    NTSTATUS SetAttr(PluginFd fd, ULONG attributes) const { return Call(&PluginOps::SetAttr, fd, attributes); }
    NTSTATUS Rename(const Text& from, const Text& to) const;
    NTSTATUS Delete(const Text& path) const { return Call(&PluginOps::Delete, path.Get()); }

    ListedEntry EntryAt(PluginFd directory, ULONG index) const;
    // Until STATUS_NO_MORE_FILES, which is success here.
    std::vector<std::u16string> List(PluginFd directory, NTSTATUS* status) const;
    PoolOwned<PluginVolInfo> VolumeInfo(NTSTATUS* status) const;
    std::u16string ReadLink(const Text& path, NTSTATUS* status) const;

    std::vector<std::string> Eas(PluginFd fd, NTSTATUS* status) const;
    // Nothing for STATUS_NONEXISTENT_EA_ENTRY, which is success here.
    std::optional<std::string> Ea(PluginFd fd, const char* name, NTSTATUS* status) const;
    NTSTATUS SetEa(PluginFd fd, const char* name, std::string_view value) const;
    NTSTATUS DeleteEa(PluginFd fd, const char* name) const { return Call(&PluginOps::DeleteEa, fd, name); }

    // Whole objects, their handles closed again. A file may get an extended attribute too.
    NTSTATUS MakeDir(const Text& path) const;
    struct EaValue {
        const char* Name;
        std::string_view Value;
    };
    NTSTATUS MakeFile(const Text& path, std::string_view content = {}, const EaValue* ea = nullptr) const;
    NTSTATUS SetAttributes(const Text& path, ULONG attributes) const;

private:
    PluginHandle Opened(PluginOpenFn PluginOps::*slot, const Text& path, PluginAccessMask wanted) const;
    PluginHandle Created(PluginCreateFn PluginOps::*slot, const Text& path) const;

    const PluginOps* operations_;
    mutable KEVENT cancel_;
};

} // namespace workbench
