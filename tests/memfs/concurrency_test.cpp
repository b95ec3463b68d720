// Many threads on one volume. The thread sanitizer finds what is shared without a lock; the checks here find what a
// lock failed to keep together.

#include <atomic>
#include <thread>
#include <vector>

#include <nthost/process.h>

#include "volume.h"

namespace memfs_tests {

constexpr int kThreads = 4;

class ConcurrencyTest : public MemFsTest {
protected:
    template <typename Body>
    void InThreads(Body body)
    {
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.push_back(nthost::StartThread(nthost::HostProcess(), [body, i] { body(i); }));
        }
        for (std::thread& thread : threads) thread.join();
    }

    std::u16string Name(const char16_t* prefix, int i)
    {
        return prefix + std::u16string(1, static_cast<char16_t>(u'0' + i));
    }
};

TEST_F(ConcurrencyTest, WritesOfOneFileAreWhole)
{
    const PluginFd fd = fs->Create(u"\\f");
    ASSERT_EQ(fs->Write(fd, 0, std::string(100000, 'a')), STATUS_SUCCESS);
    InThreads([&](int thread) {
        const std::string mine(100000, static_cast<char>('a' + thread));
        for (int i = 0; i < 50; ++i) {
            std::string seen;
            EXPECT_EQ(fs->Write(fd, 0, mine), STATUS_SUCCESS);
            EXPECT_EQ(fs->Read(fd, 0, 100000, &seen), STATUS_SUCCESS);
            EXPECT_EQ(seen, std::string(seen.size(), seen[0]));
        }
    });
}

// Each name goes to one thread at a time, whatever the others do around it.
TEST_F(ConcurrencyTest, ANameIsWonByOne)
{
    fs->MakeDir(u"\\d");
    std::atomic<int> created{0}, deleted{0};
    InThreads([&](int thread) {
        for (int i = 0; i < 300; ++i) {
            PluginFd fd = 0;
            const Text contested(Name(u"\\d\\n", i % 3)), own(Name(u"\\d\\own", thread));
            if (NT_SUCCESS(fs->Call(&PluginOps::Create, contested, &fd))) {
                ++created;
                EXPECT_EQ(fs->Write(fd, i, "x"), STATUS_SUCCESS); // it may be deleted by now
                EXPECT_EQ(fs->Info(fd).EndOfFile, i + 1);
                fs->Close(fd);
            }
            if (NT_SUCCESS(fs->Call(&PluginOps::Rename, contested, own))) {
                EXPECT_EQ(fs->Call(&PluginOps::Delete, own), STATUS_SUCCESS);
                ++deleted;
            }
            if (NT_SUCCESS(fs->Call(&PluginOps::Delete, contested))) ++deleted;
        }
    });
    int left = 0;
    for (const PluginFd fd = fs->OpenDir(u"\\d"); !fs->NameAt(fd, static_cast<ULONG>(2 + left)).empty();) ++left;
    EXPECT_EQ(created, deleted + left);
}

TEST_F(ConcurrencyTest, EverythingElseAtOnce)
{
    const PluginFd shared = fs->Create(u"\\shared"), root = fs->OpenDir(u"\\");
    InThreads([&](int thread) {
        const std::u16string path = Name(u"\\t", thread);
        for (int i = 0; i < 200; ++i) {
            const PluginFd fd = fs->Create(path);
            const std::string value(static_cast<size_t>(1 + i), 'v');
            void* block = nullptr;
            ULONG length = 0;
            EXPECT_EQ(fs->Resize(shared, i, i * 7), STATUS_SUCCESS);
            EXPECT_EQ(fs->Call(&PluginOps::SetEa, shared, "N", static_cast<const void*>(value.data()), 1u + i),
                      STATUS_SUCCESS);
            EXPECT_EQ(fs->Call(&PluginOps::GetEa, shared, "n", &block, &length), STATUS_SUCCESS);
            EXPECT_EQ(static_cast<char*>(block)[length - 1], 'v');
            ExFreePoolWithTag(block, 0);
            EXPECT_EQ(fs->Call(&PluginOps::SetAttr, shared, FILE_ATTRIBUTE_HIDDEN), STATUS_SUCCESS);
            EXPECT_EQ(fs->Call(&PluginOps::SetVolLabel, Text(path)), STATUS_SUCCESS);
            EXPECT_FALSE(fs->NameAt(root, 1).empty()); // at least this thread's file and the shared one
            EXPECT_EQ(fs->VolumeInfo()->VolumeLabelLength, 6u);
            EXPECT_EQ(fs->Call(&PluginOps::Delete, Text(path)), STATUS_SUCCESS);
            fs->Close(fd);
        }
    });
    EXPECT_EQ(fs->Call(&PluginOps::Delete, Text(u"\\shared")), STATUS_SUCCESS);
    fs->Close(shared);
    EXPECT_EQ(fs->FreeUnits(), fs->VolumeInfo()->TotalAllocationUnits);
}

} // namespace memfs_tests
