// A volume over a fresh directory of the machine, driven through its table as the driver would drive it. The outer
// directory holds the root and, beside it, what must never be reached. Teardown asserts that no pool block is left.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "../../plugins/hostfs/hostfs.h"

namespace hostfs_tests {

// A counted string over a literal's text; the text must outlive it.
class NtString {
public:
    NtString(std::u16string_view text);
    PCUNICODE_STRING Get() const { return &string_; }

private:
    UNICODE_STRING string_;
};

struct Found {
    NTSTATUS Status;
    PluginFileInfo Info;
    PluginAccessMask Access;
};

struct Opened {
    NTSTATUS Status;
    PluginFd Fd;
};

struct Entry {
    NTSTATUS Status;
    std::u16string Name;
    PluginDirEntry Record;
};

// The operations, with what they allocate taken over and freed.
class Table {
public:
    explicit Table(const HostFsOptions& options);
    ~Table() { HostFsDestroy(Ops); }
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;

    Found Lookup(std::u16string_view path) const;
    Opened Open(std::u16string_view path, PluginAccessMask wanted = GVND_ACCESS_READ) const;
    Opened OpenDir(std::u16string_view path, PluginAccessMask wanted = GVND_ACCESS_READ) const;
    Opened Create(std::u16string_view path) const;
    Opened CreateDir(std::u16string_view path) const;
    NTSTATUS Close(PluginFd fd) const { return Ops->Close(Ops->PluginContext, nullptr, fd); }
    NTSTATUS Write(PluginFd fd, LONGLONG offset, std::string_view data) const;
    // The bytes, or the failure.
    std::string Read(PluginFd fd, LONGLONG offset, ULONG length, NTSTATUS* status) const;
    NTSTATUS Resize(PluginFd fd, LONGLONG size, LONGLONG allocation) const;
    Found Info(PluginFd fd) const;
    Entry EntryAt(PluginFd fd, ULONG index) const;
    std::vector<std::u16string> List(PluginFd fd) const;
    NTSTATUS Rename(std::u16string_view from, std::u16string_view to) const;
    NTSTATUS Delete(std::u16string_view path) const;
    NTSTATUS SetAttr(PluginFd fd, ULONG attributes) const;
    // The target, or the failure in readable form.
    std::u16string ReadLink(std::u16string_view path, NTSTATUS* status) const;
    std::vector<std::string> Eas(PluginFd fd) const;
    std::optional<std::string> Ea(PluginFd fd, const char* name) const;
    NTSTATUS SetEa(PluginFd fd, const char* name, std::string_view value) const;
    NTSTATUS DeleteEa(PluginFd fd, const char* name) const
    {
        return Ops->DeleteEa(Ops->PluginContext, nullptr, fd, name);
    }
    // Opens, reads all that fits 100 bytes, closes; the bytes or the status's name.
    std::string Contents(std::u16string_view path) const;

    PluginOps* Ops = nullptr;
};

class HostFs : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Mounts anew; the volume over Root() is there from the start.
    void Mount(const HostFsOptions& options);
    Table& Fs() { return *table_; }
    HostFsOptions Options() const;

    std::string Outer() const { return outer_; }
    std::string Root() const { return outer_ + "/root"; }
    std::string At(const std::string& name) const { return Root() + '/' + name; }
    void Put(const std::string& name, const std::string& text) const; // a file, beneath the root
    std::string Peek(const std::string& name) const;

private:
    std::string outer_;
    std::string rootText_;
    std::optional<Table> table_;
};

// For comparison of statuses by name.
std::string Name(NTSTATUS status);
#define EXPECT_STATUS(expected, actual) EXPECT_EQ(hostfs_tests::Name(expected), hostfs_tests::Name(actual))

} // namespace hostfs_tests
