// Every allocation fails once. The operation that met it must say so and change nothing: the same call, made again,
// then does all of its work, and nothing is left over at the end.

#include <functional>

#include <nthost/faults.h>

#include "volume.h"

namespace memfs_tests {

namespace {

std::function<void()> g_scenario;

// Only calls that are made by driver code can be made to fail, so the scenario is one. Its failure is its unloading.
NTSTATUS NTAPI ScenarioEntry(PDRIVER_OBJECT, PUNICODE_STRING)
{
    g_scenario();
    return STATUS_CANCELLED;
}

void RunAsDriver(std::function<void()> scenario)
{
    g_scenario = std::move(scenario);
    PDRIVER_OBJECT driver = nullptr;
    EXPECT_EQ(nthost::LoadDriver("scenario", ScenarioEntry, &driver), STATUS_CANCELLED);
}

// The call's result, or that of a second one if the first had no memory.
template <typename Call>
NTSTATUS TwiceIfNeeded(Call call)
{
    const NTSTATUS status = call();
    return status == STATUS_INSUFFICIENT_RESOURCES ? call() : status;
}

// The operations that need memory, one after the other on a volume of their own.
class Scenario {
public:
    void Run()
    {
        ASSERT_EQ(TwiceIfNeeded([&] { return MemFsCreate(nullptr, &ops_); }), STATUS_SUCCESS);
        MakeTree();
        Fill();
        Attributes();
        Listing();
        MemFsDestroy(ops_);
    }

private:
    template <typename Slot, typename... Args>
    void Expect(NTSTATUS expected, Slot PluginOps::*slot, Args... args)
    {
        EXPECT_EQ(TwiceIfNeeded([&] { return (ops_->*slot)(ops_->PluginContext, &cancel_, args...); }), expected);
    }
    template <typename Slot, typename T, typename... Args>
    void ExpectBlock(Slot PluginOps::*slot, T** out, Args... args)
    {
        Expect(STATUS_SUCCESS, slot, args...);
        ExFreePoolWithTag(*out, 0);
        *out = nullptr;
    }

    void MakeTree()
    {
        PluginFd fd = 0;
        Expect(STATUS_SUCCESS, &PluginOps::CreateDir, Text(u"\\d"), &fd);
        Expect(STATUS_SUCCESS, &PluginOps::Create, Text(u"\\d\\f"), &file_);
        Expect(STATUS_OBJECT_NAME_COLLISION, &PluginOps::Create, Text(u"\\d\\F"), &fd);
        Expect(STATUS_SUCCESS, &PluginOps::Rename, Text(u"\\d\\f"), Text(u"\\d\\longer"));
        for (int i = 0; i < 40; ++i) { // until the table of handles grows
            Expect(STATUS_SUCCESS, &PluginOps::Open, Text(u"\\d\\longer"), GVND_ACCESS_READ, &fd);
        }
    }

    void Fill()
    {
        const std::string bytes(200000, 'x');
        std::string seen(bytes.size(), '?');
        ULONG length = 10;
        Expect(STATUS_SUCCESS, &PluginOps::Write, file_, 0ll, &length, static_cast<const void*>(bytes.data()));
        length = static_cast<ULONG>(bytes.size());
        Expect(STATUS_SUCCESS, &PluginOps::Write, file_, 5ll, &length, static_cast<const void*>(bytes.data()));
        Expect(STATUS_SUCCESS, &PluginOps::Read, file_, 5ll, &length, static_cast<void*>(seen.data()));
        EXPECT_TRUE(seen == bytes);
    }

    void Attributes()
    {
        const std::u16string target = u"\\d";
        void* value = nullptr;
        char* names = nullptr;
        PUNICODE_STRING link = nullptr, other = nullptr;
        ULONG length = 0, count = 0;
        Expect(STATUS_SUCCESS, &PluginOps::SetEa, file_, MEMFS_LINK_EA_NAME, static_cast<const void*>(target.data()),
               4u);
        Expect(STATUS_SUCCESS, &PluginOps::SetEa, file_, MEMFS_LINK_EA_NAME, static_cast<const void*>(target.data()),
               4u);
        ExpectBlock(&PluginOps::GetEa, &value, file_, MEMFS_LINK_EA_NAME, &value, &length);
        ExpectBlock(&PluginOps::ListEa, &names, file_, &names, &count);
        EXPECT_EQ(count, 1u);
        ExpectBlock(&PluginOps::ReadLink, &link, Text(u"\\d\\longer"), &link, &other);
        ExpectBlock(&PluginOps::GetNormalizedPath, &link, Text(u"e\u0301"), &link);
    }

    void Listing()
    {
        PluginDirEntry* entry = nullptr;
        PluginFileInfo* info = nullptr;
        PluginVolInfo* volume = nullptr;
        PluginAccessMask access = 0;
        PluginFd directory = 0;
        Expect(STATUS_SUCCESS, &PluginOps::OpenDir, Text(u"\\d"), GVND_ACCESS_READ, &directory);
        ExpectBlock(&PluginOps::ReadDirEntry, &entry, directory, 2u, &entry);
        Expect(STATUS_NO_MORE_FILES, &PluginOps::ReadDirEntry, directory, 3u, &entry); // no second copy of the file
        ExpectBlock(&PluginOps::Lookup, &info, Text(u"\\d\\longer"), &info, &access);
        ExpectBlock(&PluginOps::GetInfo, &info, file_, &info);
        ExpectBlock(&PluginOps::GetVolInfo, &volume, &volume);
    }

    PluginOps* ops_ = nullptr;
    PluginFd file_ = 0;
    KEVENT cancel_ = {};
};

} // namespace

TEST_F(HostTest, EachRoutineMayFailOnce)
{
    for (const char* routine : {"ExAllocatePoolWithTag", "ExInitializeResourceLite"}) {
        const unsigned sites = nthost::SweepFaults(routine, [](unsigned n) {
            SCOPED_TRACE(n);
            RunAsDriver([] { Scenario().Run(); });
        });
        EXPECT_GE(sites, 3u) << routine; // or nothing has been injected at all
    }
}

} // namespace memfs_tests
