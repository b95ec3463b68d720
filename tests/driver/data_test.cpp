// Reading and locking through the front door, and the requests that only the memory manager or a nested caller makes.

#include "open_requests.h"

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
    ASSERT_STATUS(STATUS_SUCCESS, Lock(owner.Get(), {2, 3}));
    EXPECT_STATUS(STATUS_FILE_LOCK_CONFLICT, ReadAt(other.Get(), 4, 1).Status);
    EXPECT_EQ(ReadAt(other.Get(), 5, 1).Text, "5");
    EXPECT_EQ(ReadAt(owner.Get(), 2, 3).Text, "234");
    EXPECT_STATUS(STATUS_LOCK_NOT_GRANTED, Lock(other.Get(), {4, 4}, Request::Lock::Shared));

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
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, Lock(directory.Get(), {0, 1}));
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
