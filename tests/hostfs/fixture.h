// A volume over a fresh directory of the machine, driven through its table as the driver would drive it. The outer
// directory holds the root and, beside it, what must never be reached. Teardown asserts that no pool block is left.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <hostfs/hostfs.h>
#include <workbench/plugin_table.h>

#include "support/host.h"

namespace hostfs_tests {

using NtString = workbench::Text;
using Found = workbench::FoundObject;
using Opened = workbench::PluginHandle;
using Entry = workbench::ListedEntry;

// The operations, with statuses that must be successes given to the test.
class Table : public workbench::PluginTable {
public:
    explicit Table(const HostFsOptions& options) : Table(Made(options)) {}
    ~Table() { HostFsDestroy(Ops); }

    std::vector<std::u16string> List(PluginFd fd) const;
    std::vector<std::string> Eas(PluginFd fd) const;
    std::optional<std::string> Ea(PluginFd fd, const char* name) const;
    // Opens, reads all that fits 100 bytes, closes; the bytes or the status's name.
    std::string Contents(const NtString& path) const;

    PluginOps* const Ops;

private:
    explicit Table(PluginOps* operations) : PluginTable(operations), Ops(operations) {}
    static PluginOps* Made(const HostFsOptions& options);
};

class HostFs : public support::BootedTest {
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

} // namespace hostfs_tests
