// The plugins of the project keep to the contract.
#include <filesystem>
#include <fstream>

#include <checker/checker.h>
#include <gtest/gtest.h>
#include <gvnd/memfs.h>
#include <hostfs/hostfs.h>

namespace {

using namespace checker;

void ExpectAllHold(const Report& report) { EXPECT_TRUE(report.AllHold()) << AsText(report); }

// What a volume may leave out: links, and data that outlives it.
unsigned NotTried(const Report& report)
{
    unsigned count = 0;
    for (const Result& result : report.Results) count += result.Outcome == Verdict::NotTried;
    return count;
}

TEST(Plugins, MemfsKeepsToTheContract)
{
    const Report report = Check(*GvMemfsPlugin(), "");
    ExpectAllHold(report);
    EXPECT_LE(NotTried(report), 3u) << AsText(report);
}

TEST(Plugins, HostfsKeepsToTheContractAndItsData)
{
    std::string root = (std::filesystem::temp_directory_path() / "gvnd-check-XXXXXX").string();
    ASSERT_NE(mkdtemp(root.data()), nullptr);
    std::ofstream(root + "/file") << "content";
    std::filesystem::create_symlink("file", root + "/link");
    const Report report = Check(*GvHostfsPlugin(), root, {.Keeps = true});
    ExpectAllHold(report);
    EXPECT_LE(NotTried(report), 3u) << AsText(report);

    Report readOnly = Check(*GvHostfsPlugin(), "ro:" + root, {.ReadOnly = true});
    ExpectAllHold(readOnly);
    const auto left = std::filesystem::directory_iterator(root);
    EXPECT_EQ(std::distance(begin(left), end(left)), 2);
    std::filesystem::remove_all(root);
}

} // namespace
