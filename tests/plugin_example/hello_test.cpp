// The plugin of the guide does what the guide says.

#include "hello_plugin.h"

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
        ASSERT_STATUS(STATUS_SUCCESS, Host().Load("hello", HelloDriverEntry));
    }
};

TEST_F(HelloPlugin, ReadsItsFileToTheEnd)
{
    const auto file = Open("\\??\\Hello\\HELLO.txt");
    ASSERT_STATUS(STATUS_SUCCESS, file.Status);
    EXPECT_EQ(support::ReadText(file.File.Get(), 64), "Hello, volume.\n");
    EXPECT_EQ(support::ReadText(file.File.Get(), 64, 15), "<STATUS_END_OF_FILE>");
}

TEST_F(HelloPlugin, ListsIt)
{
    const auto root = Open("\\??\\Hello\\", {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE});
    ASSERT_STATUS(STATUS_SUCCESS, root.Status);
    const support::Listing listing = support::List(root.File.Get());
    EXPECT_EQ(listing.Names, std::vector<std::string>{"hello.txt"});
    EXPECT_STATUS(STATUS_NO_MORE_FILES, listing.Status);
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
