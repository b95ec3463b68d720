// Mounting, and the storage seen and changed through its own table.

#include "volume.h"

#include <cstdlib>
#include <random>

#include <nthost/debug.h>

#include "names.h"
#include "objects/fcb.h"
#include "volume/volume.h"

namespace model {
namespace {

#if defined(__SANITIZE_THREAD__)
constexpr unsigned kOperations = 20'000;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
constexpr unsigned kOperations = 20'000;
#else
constexpr unsigned kOperations = 100'000;
#endif
#else
constexpr unsigned kOperations = 100'000;
#endif

unsigned FromEnvironment(const char* name, unsigned otherwise)
{
    const char* const given = std::getenv(name);
    return given ? static_cast<unsigned>(std::strtoul(given, nullptr, 0)) : otherwise;
}

} // namespace

const char* const kVolume = "\\??\\Model";

void ModelVolume::SetUp()
{
    HostFixture::SetUp();
    KeInitializeEvent(&cancel_, SynchronizationEvent, FALSE);
    ASSERT_STATUS(STATUS_SUCCESS, MemFsCreate(nullptr, &storage_));
    LoadGvndOrFail();
    ASSERT_STATUS(STATUS_SUCCESS, GvMount(support::Text("\\Device\\Null"), support::Text("\\Device\\Model"),
                                          support::Text(kVolume), nullptr, storage_, &device_));
    nthost::SetDebugSink({});
}

void ModelVolume::TearDown()
{
    if (device_) {
        EXPECT_STATUS(STATUS_SUCCESS, GvUnmountRequest(std::exchange(device_, nullptr)));
        MemFsWaitUntilUnmounted(storage_);
    }
    if (storage_) MemFsDestroy(std::exchange(storage_, nullptr));
    UnloadGvnd();
    HostFixture::TearDown();
}

void ModelVolume::MakeStored(const std::string& path, bool isDirectory, const std::string& linkTarget, LONGLONG size)
{
    PluginFd fd = 0;
    const auto create = isDirectory ? storage_->CreateDir : storage_->Create;
    ASSERT_STATUS(STATUS_SUCCESS, create(storage_->PluginContext, &cancel_, support::Text(path), &fd)) << path;
    if (size) {
        EXPECT_STATUS(STATUS_SUCCESS, storage_->SetFileSize(storage_->PluginContext, &cancel_, fd, &size, &size));
    }
    if (!linkTarget.empty()) {
        support::Text text(linkTarget);
        EXPECT_STATUS(STATUS_SUCCESS, storage_->SetEa(storage_->PluginContext, &cancel_, fd, MEMFS_LINK_EA_NAME,
                                                      text.Get()->Buffer, text.Get()->Length));
    }
    EXPECT_STATUS(STATUS_SUCCESS, storage_->Close(storage_->PluginContext, &cancel_, fd));
}

// The entries' paths, and whether each is a directory; a line for each goes to *text.
std::vector<std::pair<std::string, bool>> ModelVolume::StoredEntries(const std::string& directory,
                                                                     const std::string& indent, std::string* text)
{
    std::vector<std::pair<std::string, bool>> entries;
    PluginFd fd = 0;
    EXPECT_STATUS(STATUS_SUCCESS,
                  storage_->OpenDir(storage_->PluginContext, &cancel_, support::Text(directory), GVND_ACCESS_READ, &fd))
        << directory;
    PluginDirEntry* entry;
    for (ULONG i = 0; NT_SUCCESS(storage_->ReadDirEntry(storage_->PluginContext, &cancel_, fd, i, &entry)); ++i) {
        const std::string name = nthost::ToUtf8(entry->FileName, entry->FileNameLength / sizeof(WCHAR));
        if (name != "." && name != "..") {
            entries.emplace_back(Join(directory, name), (entry->FileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0);
            *text += indent + name + " " + std::to_string(entry->FileAttributes) + " " +
                     std::to_string(entry->EndOfFile) + "\n";
            if (entries.back().second) DescribeStored(entries.back().first, indent + "  ", text);
        }
        ExFreePoolWithTag(entry, 0);
    }
    EXPECT_STATUS(STATUS_SUCCESS, storage_->Close(storage_->PluginContext, &cancel_, fd));
    return entries;
}

void ModelVolume::DescribeStored(const std::string& directory, const std::string& indent, std::string* text)
{
    (void)StoredEntries(directory, indent, text);
}

std::string ModelVolume::StoredTree()
{
    std::string text;
    DescribeStored("\\", "", &text);
    return text;
}

void ModelVolume::WipeBelow(const std::string& directory)
{
    std::string unused;
    for (const auto& [path, isDirectory] : StoredEntries(directory, "", &unused)) {
        if (isDirectory) WipeBelow(path);
        EXPECT_STATUS(STATUS_SUCCESS, storage_->Delete(storage_->PluginContext, &cancel_, support::Text(path))) << path;
    }
}

// The root stays, so what a sequence made of its attributes is undone.
void ModelVolume::Wipe()
{
    WipeBelow("\\");
    PluginFd fd = 0;
    (void)storage_->OpenDir(storage_->PluginContext, &cancel_, support::Text("\\"), GVND_ACCESS_READ, &fd);
    EXPECT_STATUS(STATUS_SUCCESS, storage_->SetAttr(storage_->PluginContext, &cancel_, fd, FILE_ATTRIBUTE_DIRECTORY));
    (void)storage_->Close(storage_->PluginContext, &cancel_, fd);
}

ULONG ModelVolume::ControlBlocks() const { return GvFcbGetFcbCount(GvVcbOf(device_)->FcbTables); }

unsigned Seed() { return FromEnvironment("GVND_TEST_SEED", std::random_device()()); }

unsigned OperationCount() { return FromEnvironment("GVND_TEST_OPERATIONS", kOperations); }

} // namespace model
