// A volume in memory whose operations are called straight through its table, and the fixture that boots the kernel
// interface around it. The fixture's end asserts that the volume leaves no pool block and that nothing was found.
#pragma once

#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <gvnd/memfs.h>
#include <nthost/check.h>
#include <nthost/debug.h>
#include <nthost/host.h>

namespace memfs_tests {

// A counted string for the time of a call.
class Text {
public:
    Text(const char16_t* text) : Text(std::u16string(text)) {}
    Text(std::u16string text) : text_(std::move(text))
    {
        const auto bytes = static_cast<USHORT>(text_.size() * sizeof(WCHAR));
        string_ = {bytes, bytes, reinterpret_cast<WCHAR*>(text_.data())};
    }
    Text(const Text& other) : Text(other.text_) {}
    operator PCUNICODE_STRING() const { return &string_; }
    const std::u16string& Value() const { return text_; }

private:
    std::u16string text_;
    UNICODE_STRING string_;
};

struct FreePool {
    void operator()(void* block) const { ExFreePoolWithTag(block, 0); }
};
// What an operation handed back.
template <typename T>
using Owned = std::unique_ptr<T, FreePool>;

class Volume {
public:
    explicit Volume(ULONGLONG capacity = 0)
    {
        MemFsOptions options = {};
        options.CapacityBytes = capacity;
        EXPECT_EQ(MemFsCreate(&options, &ops_), STATUS_SUCCESS);
        KeInitializeEvent(&cancel_, SynchronizationEvent, FALSE);
    }
    ~Volume() { MemFsDestroy(ops_); }
    Volume(const Volume&) = delete;
    Volume& operator=(const Volume&) = delete;

    template <typename Slot, typename... Args>
    NTSTATUS Call(Slot PluginOps::*slot, Args... args)
    {
        return (ops_->*slot)(ops_->PluginContext, &cancel_, args...);
    }

    // The handle, or 0 after a failure that the test then reports. Created handles stay open.
    PluginFd Create(const Text& path) { return Open(&PluginOps::Create, path); }
    PluginFd CreateDir(const Text& path) { return Open(&PluginOps::CreateDir, path); }
    PluginFd Open(const Text& path, PluginAccessMask wanted = GVND_ACCESS_READ)
    {
        return Opened([&](PluginFd* fd) { return Call(&PluginOps::Open, path, wanted, fd); });
    }
    PluginFd OpenDir(const Text& path)
    {
        return Opened([&](PluginFd* fd) { return Call(&PluginOps::OpenDir, path, GVND_ACCESS_READ, fd); });
    }
    void Close(PluginFd fd) { EXPECT_EQ(Call(&PluginOps::Close, fd), STATUS_SUCCESS); }
    // Makes it and closes the handle.
    void Make(const Text& path) { Close(Create(path)); }
    void MakeDir(const Text& path) { Close(CreateDir(path)); }

    NTSTATUS Lookup(const Text& path, PluginFileInfo* info = nullptr, PluginAccessMask* access = nullptr)
    {
        PluginFileInfo* block = nullptr;
        PluginAccessMask ignored;
        const NTSTATUS status = Call(&PluginOps::Lookup, path, &block, access ? access : &ignored);
        return Take(status, block, info);
    }
    PluginFileInfo Info(PluginFd fd)
    {
        PluginFileInfo *block = nullptr, info = {};
        EXPECT_EQ(Take(Call(&PluginOps::GetInfo, fd, &block), block, &info), STATUS_SUCCESS);
        return info;
    }

    NTSTATUS Write(PluginFd fd, LONGLONG offset, const std::string& bytes)
    {
        ULONG length = static_cast<ULONG>(bytes.size());
        const NTSTATUS status = Call(&PluginOps::Write, fd, offset, &length, static_cast<const void*>(bytes.data()));
        if (NT_SUCCESS(status)) { EXPECT_EQ(length, bytes.size()); }
        return status;
    }
    NTSTATUS Read(PluginFd fd, LONGLONG offset, ULONG length, std::string* bytes)
    {
        bytes->assign(length, '?');
        const NTSTATUS status = Call(&PluginOps::Read, fd, offset, &length, static_cast<void*>(bytes->data()));
        bytes->resize(NT_SUCCESS(status) ? length : 0);
        return status;
    }
    std::string ReadAll(PluginFd fd)
    {
        std::string bytes;
        const auto size = static_cast<ULONG>(Info(fd).EndOfFile);
        const NTSTATUS status = Read(fd, 0, size, &bytes);
        EXPECT_EQ(status, STATUS_SUCCESS); // of an empty file, too: nothing is asked for
        return bytes;
    }
    NTSTATUS Resize(PluginFd fd, LONGLONG size, LONGLONG allocation = 0)
    {
        return Call(&PluginOps::SetFileSize, fd, &size, &allocation);
    }

    // The name of the entry at an index; empty at the end of the listing.
    std::u16string NameAt(PluginFd fd, ULONG index)
    {
        PluginDirEntry* block = nullptr;
        const NTSTATUS status = Call(&PluginOps::ReadDirEntry, fd, index, &block);
        const Owned<PluginDirEntry> entry(block);
        EXPECT_EQ(status, entry ? STATUS_SUCCESS : STATUS_NO_MORE_FILES);
        if (!entry) return {};
        return {reinterpret_cast<const char16_t*>(entry->FileName), entry->FileNameLength / sizeof(WCHAR)};
    }

    Owned<PluginVolInfo> VolumeInfo()
    {
        PluginVolInfo* block = nullptr;
        EXPECT_EQ(Call(&PluginOps::GetVolInfo, &block), STATUS_SUCCESS);
        return Owned<PluginVolInfo>(block);
    }
    ULONGLONG FreeUnits() { return VolumeInfo()->AvailableAllocationUnits; }

private:
    template <typename OpenCall>
    static PluginFd Opened(OpenCall open)
    {
        PluginFd fd = 0;
        EXPECT_EQ(open(&fd), STATUS_SUCCESS);
        EXPECT_NE(fd, 0u);
        return fd;
    }
    PluginFd Open(PluginCreateFn PluginOps::*slot, const Text& path)
    {
        return Opened([&](PluginFd* fd) { return Call(slot, path, fd); });
    }
    static NTSTATUS Take(NTSTATUS status, PluginFileInfo* block, PluginFileInfo* info)
    {
        const Owned<PluginFileInfo> owned(block);
        EXPECT_EQ(NT_SUCCESS(status), block != nullptr);
        if (block && info) *info = *block;
        return status;
    }

    PluginOps* ops_ = nullptr;
    KEVENT cancel_;
};

class HostTest : public ::testing::Test {
protected:
    HostTest() { nthost::Boot(); }
    ~HostTest() override
    {
        for (const std::string& leak : nthost::Shutdown().Lines) ADD_FAILURE() << leak;
        for (const nthost::Finding& finding : nthost::TakeFindings()) ADD_FAILURE() << finding.Rule << finding.Detail;
    }
};

// A host and one volume.
class MemFsTest : public HostTest {
protected:
    void SetUp() override { fs = std::make_unique<Volume>(); }
    void TearDown() override { fs.reset(); }
    std::unique_ptr<Volume> fs;
};

} // namespace memfs_tests
