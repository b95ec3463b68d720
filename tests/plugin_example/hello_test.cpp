// The plugin of the guide does what the guide says.

#include "hello_plugin.h"

#include <nthost/debug.h>
#include <nthost/user_memory.h>

#include "support/client.h"
#include "support/host.h"

namespace {

using support::Open;

class HelloPlugin : public support::HostFixture {
protected:
    void SetUp() override
    {
        HostFixture::SetUp();
        LoadGvndOrFail();
        ASSERT_STATUS(STATUS_SUCCESS, nthost::LoadDriver("hello", HelloDriverEntry, &hello_));
    }
    void TearDown() override
    {
        nthost::LeakReport leaks;
        if (hello_) EXPECT_STATUS(STATUS_SUCCESS, nthost::UnloadDriver(hello_, &leaks));
        EXPECT_TRUE(leaks.Clean()) << support::Join(leaks.Lines);
        HostFixture::TearDown();
    }

private:
    PDRIVER_OBJECT hello_ = nullptr;
};

TEST_F(HelloPlugin, ReadsItsFileToTheEnd)
{
    const auto file = Open("\\??\\Hello\\HELLO.txt");
    ASSERT_STATUS(STATUS_SUCCESS, file.Status);
    char buffer[64] = {};
    IO_STATUS_BLOCK result = {};
    const auto read = [&] {
        return NtReadFile(file.File.Get(), nullptr, nullptr, nullptr, &result, buffer, sizeof buffer, nullptr, nullptr);
    };
    ASSERT_STATUS(STATUS_SUCCESS, read());
    EXPECT_EQ(std::string(buffer, result.Information), "Hello, volume.\n");
    EXPECT_STATUS(STATUS_END_OF_FILE, read());
}

TEST_F(HelloPlugin, ListsIt)
{
    const auto root = Open("\\??\\Hello\\", {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE});
    ASSERT_STATUS(STATUS_SUCCESS, root.Status);
    alignas(8) char buffer[256];
    IO_STATUS_BLOCK result = {};
    const auto list = [&] {
        return NtQueryDirectoryFile(root.File.Get(), nullptr, nullptr, nullptr, &result, buffer, sizeof buffer,
                                    FileNamesInformation, FALSE, nullptr, FALSE);
    };
    ASSERT_STATUS(STATUS_SUCCESS, list());
    const auto* const names = reinterpret_cast<const FILE_NAMES_INFORMATION*>(buffer);
    EXPECT_EQ(names->NextEntryOffset, 0u);
    EXPECT_EQ(nthost::ToUtf8(names->FileName, names->FileNameLength / sizeof(WCHAR)), "hello.txt");
    EXPECT_STATUS(STATUS_NO_MORE_FILES, list());
}

// What the operations do not offer the driver refuses by itself.
TEST_F(HelloPlugin, RefusesTheRest)
{
    EXPECT_STATUS(STATUS_ACCESS_DENIED, Open("\\??\\Hello\\hello.txt", {.Access = FILE_GENERIC_WRITE}).Status);
    EXPECT_STATUS(STATUS_OBJECT_NAME_NOT_FOUND, Open("\\??\\Hello\\other.txt").Status);
}

// An address that cannot be written to costs the request, and nobody else. A kernel caller's is not probed on the way,
// so that the fault is the plugin's.
TEST_F(HelloPlugin, SurvivesABadBuffer)
{
    const auto file = Open("\\??\\Hello\\hello.txt", {.Kernel = true});
    nthost::UserMemory memory(4096);
    memory.Unmap();
    IO_STATUS_BLOCK result = {};
    EXPECT_STATUS(STATUS_ACCESS_VIOLATION, ZwReadFile(file.File.Get(), nullptr, nullptr, nullptr, &result,
                                                      memory.Address(), 64, nullptr, nullptr));
    EXPECT_TRUE(Trace().Contains("EXCEPTION!!! in plugin call"));
    EXPECT_STATUS(STATUS_SUCCESS, Open("\\??\\Hello\\hello.txt").Status);
}

} // namespace
