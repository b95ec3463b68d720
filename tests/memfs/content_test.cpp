// Data: what reads see after writes, growth and truncation, and how the space is counted.

#include <nthost/user_memory.h>

#include "volume.h"

namespace memfs_tests {

constexpr LONGLONG kChunk = 64 * 1024;

class ContentTest : public MemFsTest {
protected:
    void SetUp() override
    {
        MemFsTest::SetUp();
        file = fs->Create(u"\\f");
    }
    PluginFd file = 0;
};

// Each row writes a few bytes at a place of a new file, perhaps cuts it there, and looks at all of it.
TEST_F(ContentTest, WhatWasNeverWrittenIsZero)
{
    for (const LONGLONG offset :
         {LONGLONG{0}, LONGLONG{511}, LONGLONG{513}, kChunk - 2, kChunk, kChunk + 1, 3 * kChunk - 1, 9 * kChunk + 77}) {
        for (const LONGLONG cut : {LONGLONG{0}, LONGLONG{1}, LONGLONG{3}}) {
            SCOPED_TRACE(testing::Message() << "offset " << offset << ", cut by " << cut);
            ASSERT_EQ(fs->Resize(file, 0), STATUS_SUCCESS);
            ASSERT_EQ(fs->Write(file, offset, "abcd"), STATUS_SUCCESS);
            std::string expected = std::string(static_cast<size_t>(offset), '\0') + "abcd";
            if (cut != 0) {
                ASSERT_EQ(fs->Resize(file, offset + 4 - cut), STATUS_SUCCESS);
                ASSERT_EQ(fs->Resize(file, offset + 4), STATUS_SUCCESS);
                expected.replace(expected.size() - static_cast<size_t>(cut), static_cast<size_t>(cut),
                                 static_cast<size_t>(cut), '\0');
            }
            EXPECT_TRUE(fs->ReadAll(file) == expected);
            ASSERT_EQ(fs->Write(file, 0, "xy"), STATUS_SUCCESS); // and the first chunk grows without losing any
            expected.replace(0, 2, "xy");
            EXPECT_TRUE(fs->ReadAll(file) == expected);
        }
    }
}

TEST_F(ContentTest, SmallWritesAppend)
{
    std::string expected;
    for (int i = 0; i < 9000; ++i) {
        const std::string piece = std::to_string(i) + ',';
        ASSERT_EQ(fs->Write(file, static_cast<LONGLONG>(expected.size()), piece), STATUS_SUCCESS);
        expected += piece;
    }
    EXPECT_TRUE(fs->ReadAll(file) == expected);
}

struct SizeRow {
    LONGLONG Size, Allocation;
    NTSTATUS Status;
    LONGLONG SizeAfter, AllocationAfter;
};

// In a volume of 64 units, one step after the other on one file.
constexpr SizeRow kSizeRows[] = {
    {0, 1, STATUS_SUCCESS, 0, 4096},
    {10, 0, STATUS_SUCCESS, 10, 4096},
    {4097, 4096, STATUS_SUCCESS, 4097, 8192}, // the data itself has to fit
    {100, 64 * 4096, STATUS_SUCCESS, 100, 64 * 4096},
    {100, 64 * 4096 + 1, STATUS_DISK_FULL, 100, 64 * 4096},
    {64 * 4096 + 1, 0, STATUS_DISK_FULL, 100, 64 * 4096},
    {0x7fffffffffffffff, 0, STATUS_DISK_FULL, 100, 64 * 4096}, // no rounding past the end of the numbers
    {-1, 0, STATUS_INVALID_PARAMETER, 100, 64 * 4096},
    {0, -1, STATUS_INVALID_PARAMETER, 100, 64 * 4096},
    {64 * 4096, 0, STATUS_SUCCESS, 64 * 4096, 64 * 4096},
    {0, 0, STATUS_SUCCESS, 0, 0},
};

TEST_F(ContentTest, SizesAreChargedToTheVolume)
{
    Volume small(64 * 4096 + 4095);
    const PluginFd fd = small.Create(u"\\f");
    for (const SizeRow& row : kSizeRows) {
        SCOPED_TRACE(testing::Message() << row.Size << ", " << row.Allocation);
        EXPECT_EQ(small.Resize(fd, row.Size, row.Allocation), row.Status);
        const PluginFileInfo info = small.Info(fd);
        EXPECT_EQ(info.EndOfFile, row.SizeAfter);
        EXPECT_EQ(info.AllocationSize, row.AllocationAfter);
        EXPECT_EQ(small.FreeUnits(), 64u - static_cast<ULONGLONG>(row.AllocationAfter / 4096));
    }
}

TEST_F(ContentTest, AWriteThatDoesNotFitChangesNothing)
{
    Volume small(2 * 4096);
    const PluginFd fd = small.Create(u"\\f"), other = small.Create(u"\\g");
    ASSERT_EQ(small.Write(fd, 0, "kept"), STATUS_SUCCESS);
    ASSERT_EQ(small.Resize(other, 0, 4096), STATUS_SUCCESS);
    const LONGLONG written = small.Info(fd).LastWriteTime;
    EXPECT_EQ(small.Write(fd, 2, std::string(4095, 'x')), STATUS_DISK_FULL);
    EXPECT_EQ(small.Write(fd, 0x7fffffffffffffff, "x"), STATUS_DISK_FULL);
    EXPECT_EQ(small.ReadAll(fd), "kept");
    EXPECT_EQ(small.Info(fd).LastWriteTime, written);
    EXPECT_EQ(small.Write(fd, 2, std::string(4094, 'x')), STATUS_SUCCESS); // up to the last byte
    small.Close(other);
    ASSERT_EQ(small.Call(&PluginOps::Delete, Text(u"\\g")), STATUS_SUCCESS);
    EXPECT_EQ(small.Write(fd, 4096, "x"), STATUS_SUCCESS);
}

// The lock must come back, and the file stay as it was: a caller may take its memory away at any moment.
TEST_F(ContentTest, ABadBufferIsRefusedWithTheFileIntact)
{
    ASSERT_EQ(fs->Write(file, 0, "kept"), STATUS_SUCCESS);
    const ULONGLONG before = fs->FreeUnits();
    nthost::UserMemory memory(2 * PAGE_SIZE);
    memory.Unmap();
    ULONG length = 2 * PAGE_SIZE;
    EXPECT_EQ(fs->Call(&PluginOps::Write, file, 0ll, &length, static_cast<const void*>(memory.Address())),
              STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(fs->Call(&PluginOps::Read, file, 0ll, &length, static_cast<void*>(memory.Address())),
              STATUS_ACCESS_VIOLATION);
    memory.Map();
    memory.Protect(true, false); // found out under the lock only
    EXPECT_EQ(fs->Call(&PluginOps::Read, file, 0ll, &length, static_cast<void*>(memory.Address())),
              STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(fs->ReadAll(file), "kept");
    EXPECT_EQ(fs->FreeUnits(), before);
    EXPECT_EQ(fs->Write(file, 0, "more"), STATUS_SUCCESS);
}

TEST_F(ContentTest, DirectoriesHaveNoContents)
{
    const PluginFd root = fs->OpenDir(u"\\");
    std::string bytes;
    EXPECT_EQ(fs->Read(root, 0, 1, &bytes), STATUS_FILE_IS_A_DIRECTORY);
    EXPECT_EQ(fs->Write(root, 0, "x"), STATUS_FILE_IS_A_DIRECTORY);
    EXPECT_EQ(fs->Resize(root, 1), STATUS_FILE_IS_A_DIRECTORY);
    EXPECT_EQ(fs->Call(&PluginOps::FlushFile, root), STATUS_SUCCESS);
    EXPECT_EQ(fs->Call(&PluginOps::FlushVol), STATUS_SUCCESS);
}

} // namespace memfs_tests
