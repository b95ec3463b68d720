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
    ASSERT_STATUS(STATUS_SUCCESS, MemFsCreate(nullptr, &storage_));
    table_.emplace(storage_);
    LoadGvndOrFail();
    ASSERT_STATUS(STATUS_SUCCESS, Host().Mount({.Name = "Model"}, storage_, &device_));
    nthost::SetDebugSink({});
}

void ModelVolume::TearDown()
{
    if (device_) {
        EXPECT_STATUS(STATUS_SUCCESS, Host().RequestUnmount(std::exchange(device_, nullptr)));
        MemFsWaitUntilUnmounted(storage_);
    }
    if (storage_) MemFsDestroy(std::exchange(storage_, nullptr));
    UnloadGvnd();
    HostFixture::TearDown();
}

void ModelVolume::MakeStored(const std::string& path, bool isDirectory, const std::string& linkTarget, LONGLONG size)
{
    if (isDirectory) {
        ASSERT_STATUS(STATUS_SUCCESS, table_->MakeDir(path)) << path;
        return;
    }
    const support::Text target(linkTarget);
    const workbench::PluginTable::EaValue link = {MEMFS_LINK_EA_NAME, target.Bytes()};
    ASSERT_STATUS(STATUS_SUCCESS, table_->MakeFile(path, {}, linkTarget.empty() ? nullptr : &link)) << path;
    if (!size) return;
    const auto [status, fd] = table_->Open(path);
    ASSERT_STATUS(STATUS_SUCCESS, status) << path;
    EXPECT_STATUS(STATUS_SUCCESS, table_->Resize(fd, size, size));
    EXPECT_STATUS(STATUS_SUCCESS, table_->Close(fd));
}

// The entries' paths, and whether each is a directory; a line for each goes to *text.
std::vector<std::pair<std::string, bool>> ModelVolume::StoredEntries(const std::string& directory,
                                                                     const std::string& indent, std::string* text)
{
    std::vector<std::pair<std::string, bool>> entries;
    const auto [status, fd] = table_->OpenDir(directory);
    EXPECT_STATUS(STATUS_SUCCESS, status) << directory;
    for (ULONG i = 0;; ++i) {
        const workbench::ListedEntry entry = table_->EntryAt(fd, i);
        if (!NT_SUCCESS(entry.Status)) break;
        const std::string name = support::Text(entry.Name).Utf8();
        if (name == "." || name == "..") continue;
        const PluginDirEntry& record = entry.Record;
        entries.emplace_back(Join(directory, name), (record.FileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0);
        *text +=
            indent + name + " " + std::to_string(record.FileAttributes) + " " + std::to_string(record.EndOfFile) + "\n";
        if (entries.back().second) DescribeStored(entries.back().first, indent + "  ", text);
    }
    EXPECT_STATUS(STATUS_SUCCESS, table_->Close(fd));
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
        EXPECT_STATUS(STATUS_SUCCESS, table_->Delete(path)) << path;
    }
}

// The root stays, so what a sequence made of its attributes is undone.
void ModelVolume::Wipe()
{
    WipeBelow("\\");
    EXPECT_STATUS(STATUS_SUCCESS, table_->SetAttributes("\\", FILE_ATTRIBUTE_DIRECTORY));
}

ULONG ModelVolume::ControlBlocks() const { return GvFcbGetFcbCount(GvVcbOf(device_)->FcbTables); }

unsigned Seed() { return FromEnvironment("GVND_TEST_SEED", std::random_device()()); }

unsigned OperationCount() { return FromEnvironment("GVND_TEST_OPERATIONS", kOperations); }

} // namespace model
