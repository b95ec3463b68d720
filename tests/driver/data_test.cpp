// Reading, locking and listing through the front door, and the requests that only the memory manager or a nested caller
// makes.

#include "open_volume.h"

#include <nthost/debug.h>
#include <nthost/user_memory.h>

#include "frame/records.h"

namespace opening {
namespace {

struct ReadResult {
    NTSTATUS Status;
    std::string Text;
};

class Data : public VolumeTest {
protected:
    static ReadResult ReadAt(HANDLE file, LONGLONG offset, ULONG length)
    {
        std::vector<char> buffer(length + 1);
        LARGE_INTEGER position;
        position.QuadPart = offset;
        IO_STATUS_BLOCK statusBlock = {};
        const NTSTATUS status = NtReadFile(file, nullptr, nullptr, nullptr, &statusBlock, buffer.data(), length,
                                           offset < 0 ? nullptr : &position, nullptr);
        return {status, NT_SUCCESS(status) ? std::string(buffer.data(), statusBlock.Information) : std::string()};
    }

    static NTSTATUS Lock(HANDLE file, LONGLONG offset, LONGLONG length, bool exclusive)
    {
        LARGE_INTEGER position, size;
        position.QuadPart = offset;
        size.QuadPart = length;
        IO_STATUS_BLOCK statusBlock = {};
        return NtLockFile(file, nullptr, nullptr, nullptr, &statusBlock, &position, &size, 0, TRUE, exclusive);
    }

    struct ListResult {
        NTSTATUS Status;
        Lines Names;
    };
    static ListResult List(HANDLE directory, const std::string& pattern, ULONG length, bool single, bool restart)
    {
        std::vector<uint64_t> buffer(length / sizeof(uint64_t) + 1);
        IO_STATUS_BLOCK statusBlock = {};
        Text expression(pattern);
        ListResult result;
        result.Status =
            NtQueryDirectoryFile(directory, nullptr, nullptr, nullptr, &statusBlock, buffer.data(), length,
                                 FileNamesInformation, single, pattern.empty() ? nullptr : expression.Get(), restart);
        if (!NT_SUCCESS(result.Status)) return result;
        const char* record = reinterpret_cast<const char*>(buffer.data());
        for (;;) {
            const auto* const names = reinterpret_cast<const FILE_NAMES_INFORMATION*>(record);
            UNICODE_STRING name = {static_cast<USHORT>(names->FileNameLength),
                                   static_cast<USHORT>(names->FileNameLength), const_cast<PWCH>(names->FileName)};
            result.Names.push_back(nthost::ToUtf8(&name));
            if (names->NextEntryOffset == 0) return result;
            EXPECT_EQ(names->NextEntryOffset % 8, 0u);
            record += names->NextEntryOffset;
        }
    }
};

constexpr OpenRequest kDirectory = {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE};

TEST_F(Data, ReadsByPositionAndMovesOnlyASynchronousHandle)
{
    Handle file = OpenOrFail("\\file");
    EXPECT_EQ(ReadAt(file.Get(), -1, 4).Text, "0123");
    EXPECT_EQ(ReadAt(file.Get(), -1, 4).Text, "4567");
    EXPECT_EQ(ReadAt(file.Get(), 2, 3).Text, "234");
    EXPECT_EQ(ReadAt(file.Get(), -1, 100).Text, "56789"); // short at the end: the plugin's decision
    EXPECT_STATUS(STATUS_END_OF_FILE, ReadAt(file.Get(), -1, 1).Status);
    EXPECT_EQ(ReadAt(file.Get(), 0, 1).Text, "0");
    Handle directory = OpenOrFail("\\dir", kDirectory);
    EXPECT_STATUS(STATUS_OBJECT_TYPE_MISMATCH, ReadAt(directory.Get(), 0, 1).Status);
    EXPECT_TRUE(Trace().Contains("is not a 'file'\n"));
}

TEST_F(Data, LocksStopOthersButNotPaging)
{
    Handle owner = OpenOrFail("\\file");
    Handle other = OpenOrFail("\\file");
    ASSERT_STATUS(STATUS_SUCCESS, Lock(owner.Get(), 2, 3, true));
    EXPECT_STATUS(STATUS_FILE_LOCK_CONFLICT, ReadAt(other.Get(), 4, 1).Status);
    EXPECT_EQ(ReadAt(other.Get(), 5, 1).Text, "5");
    EXPECT_EQ(ReadAt(owner.Get(), 2, 3).Text, "234");
    EXPECT_STATUS(STATUS_LOCK_NOT_GRANTED, Lock(other.Get(), 4, 4, false));

    alignas(PAGE_SIZE) static char page[PAGE_SIZE];
    const FileReference reference(other.Get());
    const PMDL mdl = IoAllocateMdl(page, 10, FALSE, FALSE, nullptr);
    MmProbeAndLockPages(mdl, KernelMode, IoWriteAccess);
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK statusBlock = {};
    LARGE_INTEGER offset = {};
    const LONGLONG position = reference->CurrentByteOffset.QuadPart;
    EXPECT_STATUS(STATUS_SUCCESS, IoPageRead(reference.Get(), mdl, &offset, &event, &statusBlock));
    EXPECT_EQ(std::string(page, 10), "0123456789");
    EXPECT_EQ(reference->CurrentByteOffset.QuadPart, position);
    MmUnlockPages(mdl);
    IoFreeMdl(mdl);

    owner.Close(); // cleanup takes the locks of that handle with it
    EXPECT_EQ(ReadAt(other.Get(), 4, 1).Text, "4");
    Handle directory = OpenOrFail("\\dir", kDirectory);
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, Lock(directory.Get(), 0, 1, true));
}

TEST_F(Data, ListsByPatternAndResumes)
{
    Handle all = OpenOrFail("\\", kDirectory);
    EXPECT_EQ(List(all.Get(), "", 4096, false, false).Names, (Lines{"dir", "empty", "file", "link", "readonly"}));
    EXPECT_STATUS(STATUS_NO_MORE_FILES, List(all.Get(), "", 4096, false, false).Status);
    EXPECT_EQ(List(all.Get(), "", 4096, true, true).Names, (Lines{"dir"}));
    EXPECT_EQ(List(all.Get(), "", 64, false, false).Names, (Lines{"empty", "file"}));
    EXPECT_EQ(List(all.Get(), "", 64, false, false).Names.front(), "link");

    Handle matched = OpenOrFail("\\", kDirectory);
    EXPECT_EQ(List(matched.Get(), "*E*", 4096, true, false).Names, (Lines{"empty"}));
    // The handle keeps its first pattern.
    EXPECT_EQ(List(matched.Get(), "dir", 4096, false, false).Names, (Lines{"file", "readonly"}));
    Handle none = OpenOrFail("\\", kDirectory);
    EXPECT_STATUS(STATUS_NO_SUCH_FILE, List(none.Get(), "z*", 4096, false, false).Status);
    EXPECT_STATUS(STATUS_NO_MORE_FILES, List(none.Get(), "", 4096, false, false).Status);
}

TEST_F(Data, ListingSurvivesWhatGoesWrong)
{
    Handle directory = OpenOrFail("\\", kDirectory);
    // "readonly" needs 16 + 16 bytes; nothing is placed, and the entry stays where it is.
    EXPECT_EQ(List(directory.Get(), "", 4096, true, false).Names, (Lines{"dir"}));
    EXPECT_STATUS(STATUS_BUFFER_OVERFLOW, List(directory.Get(), "", 16, false, false).Status);
    EXPECT_EQ(List(directory.Get(), "", 4096, true, false).Names, (Lines{"empty"}));
    // A deletion shifts the ordinals: the scan starts over rather than skip an entry.
    Find("\\")->ChildDeleteCount = 1;
    EXPECT_EQ(List(directory.Get(), "", 4096, true, false).Names, (Lines{"dir"}));
    EXPECT_TRUE(Trace().Contains("resetting dir-list scan-index\n"));
    // What was placed before a failure stays in the buffer, but the status is the plugin's.
    Plugin().Fail("ReadDirEntry", STATUS_IO_DEVICE_ERROR, 2);
    EXPECT_STATUS(STATUS_IO_DEVICE_ERROR, List(directory.Get(), "", 4096, false, false).Status);
    EXPECT_EQ(List(directory.Get(), "", 4096, true, false).Names, (Lines{"file"}));

    OpenRequest kernel = kDirectory;
    kernel.Kernel = true;
    Handle trusted = OpenOrFail("\\", kernel);
    nthost::UserMemory memory(PAGE_SIZE);
    memory.Unmap();
    IO_STATUS_BLOCK statusBlock = {};
    EXPECT_STATUS(STATUS_ACCESS_VIOLATION,
                  ZwQueryDirectoryFile(trusted.Get(), nullptr, nullptr, nullptr, &statusBlock, memory.Address(), 4096,
                                       FileNamesInformation, FALSE, nullptr, FALSE));
    EXPECT_TRUE(Trace().Contains("EXCEPTION: 0xc0000005, (2) bad user-buffer\n"));
    memory.Map(); // the entry has not been passed over
    EXPECT_STATUS(STATUS_SUCCESS,
                  ZwQueryDirectoryFile(trusted.Get(), nullptr, nullptr, nullptr, &statusBlock, memory.Address(), 4096,
                                       FileNamesInformation, TRUE, nullptr, FALSE));
    EXPECT_EQ(reinterpret_cast<FILE_NAMES_INFORMATION*>(memory.Address())->FileIndex, 0u);
}

TEST_F(Data, RefusesChangeNotification)
{
    Handle directory = OpenOrFail("\\dir", kDirectory);
    Handle file = OpenOrFail("\\file");
    char buffer[64];
    IO_STATUS_BLOCK statusBlock = {};
    const auto notify = [&](HANDLE handle) {
        return NtNotifyChangeDirectoryFile(handle, nullptr, nullptr, nullptr, &statusBlock, buffer, sizeof buffer,
                                           FILE_NOTIFY_CHANGE_FILE_NAME, FALSE);
    };
    EXPECT_STATUS(STATUS_NOT_SUPPORTED, notify(directory.Get()));
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, notify(file.Get()));
}

// A close inside other file-system work has no lock of its own; the holder further up has one more reference.
TEST_F(Data, NestedCloseReleasesWhatIsNotTheLast)
{
    Handle holder = OpenOrFail("\\file");
    Handle nested = OpenOrFail("\\file");
    FileReference reference(nested.Get());
    nested.Close();
    EXPECT_EQ(Find("\\file")->HandleCount, 1);
    EXPECT_EQ(Find("\\file")->OpenCount, 2);
    IoSetTopLevelIrp(reinterpret_cast<PIRP>(FSRTL_FSP_TOP_LEVEL_IRP));
    reference.Drop();
    IoSetTopLevelIrp(nullptr);
    EXPECT_EQ(Find("\\file")->OpenCount, 1);
    EXPECT_EQ(Find("\\file")->RefCount, 1);
}

} // namespace
} // namespace opening
