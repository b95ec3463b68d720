// Listings by number: what a number means while others change the directory.
#include "fixture.h"

#include <nthost/process.h>

#include <algorithm>
#include <set>
#include <thread>

#include <sys/stat.h>
#include <unistd.h>

namespace hostfs_tests {
namespace {

class Listing : public HostFs {
protected:
    using Names = std::vector<std::u16string>;

    void SetUp() override
    {
        HostFs::SetUp();
        directory_ = Fs().CreateDir(u"\\dir").Fd;
        for (const char* name : {"b", "d", "f"}) Put(std::string("dir/") + name, name);
    }
    PluginFd directory_ = 0;
};

TEST_F(Listing, DotsStandInAllDirectoriesButTheRoot)
{
    EXPECT_EQ((Names{u".", u"..", u"b", u"d", u"f"}), Fs().List(directory_));
    EXPECT_EQ((Names{u"dir"}), Fs().List(Fs().OpenDir(u"\\").Fd));
    EXPECT_STATUS(STATUS_NO_MORE_FILES, Fs().EntryAt(directory_, 1000).Status);
    EXPECT_STATUS(STATUS_INVALID_DEVICE_REQUEST, Fs().EntryAt(Fs().Open(u"\\dir\\b").Fd, 0).Status);
}

TEST_F(Listing, ANumberKeepsItsNameWhileNothingIsDeleted)
{
    EXPECT_EQ((Names{u".", u"..", u"b", u"d", u"f"}), Fs().List(directory_));
    Put("dir/a", "");
    Put("dir/c", "");
    EXPECT_STATUS(STATUS_NO_MORE_FILES, Fs().EntryAt(directory_, 5).Status); // this listing began before
    const PluginFd other = Fs().OpenDir(u"\\dir").Fd;
    EXPECT_EQ((Names{u".", u"..", u"b", u"d", u"f", u"a", u"c"}), Fs().List(other));
    EXPECT_EQ(u"d", Fs().EntryAt(directory_, 3).Name); // the other's restart moved nothing
    // A handle that takes over in the middle goes on where the old one was.
    EXPECT_STATUS(STATUS_SUCCESS, Fs().Close(directory_));
    EXPECT_EQ(u"a", Fs().EntryAt(Fs().OpenDir(u"\\dir").Fd, 5).Name);
}

TEST_F(Listing, WhatIsGoneLeavesNoGap)
{
    EXPECT_EQ(u".", Fs().EntryAt(directory_, 0).Name);
    unlink(At("dir/b").c_str());
    unlink(At("dir/d").c_str());
    EXPECT_EQ(u"f", Fs().EntryAt(directory_, 2).Name);
    EXPECT_STATUS(STATUS_NO_MORE_FILES, Fs().EntryAt(directory_, 3).Status);
    unlink(At("dir/f").c_str());
    ASSERT_EQ(0, mkfifo(At("dir/f").c_str(), 0644)); // as good as gone
    EXPECT_STATUS(STATUS_NO_MORE_FILES, Fs().EntryAt(directory_, 2).Status);
    EXPECT_EQ((Names{u".", u".."}), Fs().List(directory_));
}

TEST_F(Listing, BigDirectoriesAreListedOnceEach)
{
    constexpr int kCount = 20000;
    for (int i = 0; i < kCount; ++i) {
        if (symlink("x", At("dir/n" + std::to_string(i)).c_str()) != 0) FAIL() << i;
    }
    const Names names = Fs().List(directory_);
    EXPECT_EQ(kCount + 5u, names.size());
    EXPECT_EQ(names.size(), std::set<std::u16string>(names.begin(), names.end()).size());
}

// Readers list while files come and go; what was there all the time is seen each time.
TEST_F(Listing, SurvivesChangesBesideIt)
{
    const auto lists = [&] {
        for (int round = 0; round < 200; ++round) {
            Names names = Fs().List(directory_);
            EXPECT_EQ(1, std::count(names.begin(), names.end(), u"b"));
        }
    };
    std::thread reader = nthost::StartThread(nthost::HostProcess(), lists);
    for (int round = 0; round < 300; ++round) {
        // Behind the names that stay, so that their numbers stay as well.
        const std::u16string path = u"\\dir\\x" + std::u16string(1, static_cast<char16_t>(u'0' + round % 10));
        const Opened made = Fs().Create(path);
        EXPECT_STATUS(STATUS_SUCCESS, made.Status);
        EXPECT_STATUS(STATUS_SUCCESS, Fs().Close(made.Fd));
        EXPECT_STATUS(STATUS_SUCCESS, Fs().Delete(path));
    }
    reader.join();
}

} // namespace
} // namespace hostfs_tests
