// The fixture's plumbing: the machine's side with std::filesystem, the volume's side through the table.
#include "fixture.h"

#include <nthost/debug.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace hostfs_tests {

std::string Name(NTSTATUS status) { return nthost::StatusName(status); }

PluginOps* Table::Made(const HostFsOptions& options)
{
    PluginOps* operations = nullptr;
    EXPECT_STATUS(STATUS_SUCCESS, HostFsCreate(options, &operations));
    return operations;
}

std::vector<std::u16string> Table::List(PluginFd fd) const
{
    NTSTATUS status;
    auto names = PluginTable::List(fd, &status);
    EXPECT_STATUS(STATUS_SUCCESS, status);
    return names;
}

std::vector<std::string> Table::Eas(PluginFd fd) const
{
    NTSTATUS status;
    auto names = PluginTable::Eas(fd, &status);
    EXPECT_STATUS(STATUS_SUCCESS, status);
    return names;
}

std::optional<std::string> Table::Ea(PluginFd fd, const char* name) const
{
    NTSTATUS status;
    auto value = PluginTable::Ea(fd, name, &status);
    EXPECT_STATUS(STATUS_SUCCESS, status);
    return value;
}

std::string Table::Contents(const NtString& path) const
{
    const auto file = Open(path);
    if (!NT_SUCCESS(file.Status)) return Name(file.Status);
    NTSTATUS status = STATUS_SUCCESS;
    std::string data = Read(file.Fd, 0, 100, &status);
    EXPECT_STATUS(STATUS_SUCCESS, Close(file.Fd));
    return NT_SUCCESS(status) ? data : Name(status);
}

void HostFs::SetUp()
{
    BootedTest::SetUp();
    std::string pattern = std::filesystem::temp_directory_path() / "gvnd-hostfs-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern.data()));
    outer_ = pattern;
    rootText_ = Root();
    std::filesystem::create_directory(Root());
    Mount(Options());
}

void HostFs::TearDown()
{
    table_.reset();
    std::filesystem::remove_all(outer_);
    BootedTest::TearDown();
}

HostFsOptions HostFs::Options() const
{
    HostFsOptions options = {};
    options.Root = rootText_.c_str();
    return options;
}

void HostFs::Mount(const HostFsOptions& options)
{
    table_.reset();
    table_.emplace(options);
}

void HostFs::Put(const std::string& name, const std::string& text) const { std::ofstream(At(name)) << text; }

std::string HostFs::Peek(const std::string& name) const
{
    std::ifstream file(At(name));
    return {std::istreambuf_iterator<char>(file), {}};
}

} // namespace hostfs_tests
