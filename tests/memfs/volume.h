// A volume in memory whose operations are called straight through its table, and the fixture that boots the kernel
// interface around it. The fixture's end asserts that the volume leaves no pool block and that nothing was found.
#pragma once

#include <memory>
#include <string>

#include <gvnd/memfs.h>
#include <nthost/debug.h>
#include <workbench/plugin_table.h>

#include "support/host.h"

namespace memfs_tests {

using workbench::Text;
template <typename T>
using Owned = workbench::PoolOwned<T>;

// An empty volume. Calls that must succeed give what they are for, and the failure to the test.
class Volume {
public:
    explicit Volume(ULONGLONG capacity = 0) : ops_(Made(capacity)), table_(ops_) {}
    ~Volume() { MemFsDestroy(ops_); }
    Volume(const Volume&) = delete;
    Volume& operator=(const Volume&) = delete;

    template <typename Slot, typename... Args>
    NTSTATUS Call(Slot PluginOps::*slot, Args... args)
    {
        return table_.Call(slot, args...);
    }

    // Created handles stay open.
    PluginFd Create(const Text& path) { return Good(table_.Create(path)); }
    PluginFd CreateDir(const Text& path) { return Good(table_.CreateDir(path)); }
    PluginFd Open(const Text& path, PluginAccessMask wanted = GVND_ACCESS_READ)
    {
        return Good(table_.Open(path, wanted));
    }
    PluginFd OpenDir(const Text& path) { return Good(table_.OpenDir(path)); }
    void Close(PluginFd fd) { EXPECT_STATUS(STATUS_SUCCESS, table_.Close(fd)); }
    // Makes it and closes the handle.
    void Make(const Text& path) { EXPECT_STATUS(STATUS_SUCCESS, table_.MakeFile(path)); }
    void MakeDir(const Text& path) { EXPECT_STATUS(STATUS_SUCCESS, table_.MakeDir(path)); }

    NTSTATUS Lookup(const Text& path, PluginFileInfo* info = nullptr, PluginAccessMask* access = nullptr)
    {
        const workbench::FoundObject found = table_.Lookup(path);
        if (info && NT_SUCCESS(found.Status)) *info = found.Info;
        if (access) *access = found.Access;
        return found.Status;
    }
    PluginFileInfo Info(PluginFd fd)
    {
        const workbench::FoundObject found = table_.Info(fd);
        EXPECT_STATUS(STATUS_SUCCESS, found.Status);
        return found.Info;
    }

    NTSTATUS Write(PluginFd fd, LONGLONG offset, const std::string& bytes) { return table_.Write(fd, offset, bytes); }
    NTSTATUS Read(PluginFd fd, LONGLONG offset, ULONG length, std::string* bytes)
    {
        NTSTATUS status;
        *bytes = table_.Read(fd, offset, length, &status);
        return status;
    }
    std::string ReadAll(PluginFd fd)
    {
        std::string bytes;
        EXPECT_STATUS(STATUS_SUCCESS, Read(fd, 0, static_cast<ULONG>(Info(fd).EndOfFile), &bytes)); // an empty one, too
        return bytes;
    }
    NTSTATUS Resize(PluginFd fd, LONGLONG size, LONGLONG allocation = 0) { return table_.Resize(fd, size, allocation); }

    // The name of the entry at an index; empty at the end of the listing.
    std::u16string NameAt(PluginFd fd, ULONG index)
    {
        workbench::ListedEntry entry = table_.EntryAt(fd, index);
        if (entry.Status != STATUS_NO_MORE_FILES) EXPECT_STATUS(STATUS_SUCCESS, entry.Status);
        return std::move(entry.Name);
    }

    Owned<PluginVolInfo> VolumeInfo()
    {
        NTSTATUS status;
        auto info = table_.VolumeInfo(&status);
        EXPECT_STATUS(STATUS_SUCCESS, status);
        return info;
    }
    ULONGLONG FreeUnits() { return VolumeInfo()->AvailableAllocationUnits; }

private:
    static PluginOps* Made(ULONGLONG capacity)
    {
        MemFsOptions options = {};
        options.CapacityBytes = capacity;
        PluginOps* made = nullptr;
        EXPECT_STATUS(STATUS_SUCCESS, MemFsCreate(&options, &made));
        return made;
    }
    static PluginFd Good(const workbench::PluginHandle& handle)
    {
        EXPECT_STATUS(STATUS_SUCCESS, handle.Status);
        return handle.Fd;
    }

    PluginOps* ops_;
    workbench::PluginTable table_;
};

using HostTest = support::BootedTest;

// A host and one volume.
class MemFsTest : public HostTest {
protected:
    void SetUp() override
    {
        HostTest::SetUp();
        fs = std::make_unique<Volume>();
    }
    void TearDown() override
    {
        fs.reset();
        HostTest::TearDown();
    }
    std::unique_ptr<Volume> fs;
};

} // namespace memfs_tests
