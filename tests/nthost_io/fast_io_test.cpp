// Fast I/O: which services ask the driver before they make a packet, with what, and what they do with its answer.
#include "probe.h"

#include <cstring>

using namespace probe;

namespace {

// What the table's routines do and see. A routine that declines leaves the rest to the packet.
struct Fast {
    BOOLEAN Takes = TRUE;
    NTSTATUS Status = STATUS_SUCCESS;
    std::vector<std::string> Calls;
};
Fast* fast;

BOOLEAN Answer(const char* call, PIO_STATUS_BLOCK result, ULONG_PTR information = 0)
{
    fast->Calls.push_back(call);
    *result = {{fast->Status}, information};
    return fast->Takes;
}

BOOLEAN NTAPI Read(PFILE_OBJECT file, PLARGE_INTEGER offset, ULONG length, BOOLEAN wait, ULONG key, PVOID buffer,
                   PIO_STATUS_BLOCK result, PDEVICE_OBJECT target)
{
    EXPECT_TRUE(wait);
    EXPECT_EQ(target, device);
    EXPECT_EQ(key, 7u);
    EXPECT_EQ(offset->QuadPart, file->CurrentByteOffset.QuadPart);
    if (fast->Takes) memset(buffer, 'f', length);
    if (fast->Takes) file->CurrentByteOffset.QuadPart += length;
    return Answer("read", result, length);
}

BOOLEAN NTAPI Write(PFILE_OBJECT, PLARGE_INTEGER offset, ULONG length, BOOLEAN, ULONG, PVOID, PIO_STATUS_BLOCK result,
                    PDEVICE_OBJECT)
{
    EXPECT_EQ(offset->QuadPart, -1); // to the end
    return Answer("write", result, length);
}

BOOLEAN NTAPI QueryBasic(PFILE_OBJECT, BOOLEAN, PFILE_BASIC_INFORMATION info, PIO_STATUS_BLOCK result, PDEVICE_OBJECT)
{
    info->FileAttributes = 0x20;
    return Answer("basic", result, sizeof *info);
}

BOOLEAN NTAPI QueryStandard(PFILE_OBJECT, BOOLEAN, PFILE_STANDARD_INFORMATION info, PIO_STATUS_BLOCK result,
                            PDEVICE_OBJECT)
{
    info->NumberOfLinks = 3;
    return Answer("standard", result, sizeof *info);
}

BOOLEAN NTAPI QueryNetwork(PFILE_OBJECT, BOOLEAN, PFILE_NETWORK_OPEN_INFORMATION info, PIO_STATUS_BLOCK result,
                           PDEVICE_OBJECT)
{
    info->FileAttributes = 0x80;
    return Answer("network", result, sizeof *info);
}

BOOLEAN NTAPI Lock(PFILE_OBJECT, PLARGE_INTEGER offset, PLARGE_INTEGER length, PEPROCESS process, ULONG key,
                   BOOLEAN failImmediately, BOOLEAN exclusive, PIO_STATUS_BLOCK result, PDEVICE_OBJECT)
{
    EXPECT_EQ(offset->QuadPart, 10);
    EXPECT_EQ(length->QuadPart, 20);
    EXPECT_EQ(process, PsGetCurrentProcess());
    EXPECT_EQ(key, 7u);
    EXPECT_TRUE(failImmediately);
    EXPECT_FALSE(exclusive);
    return Answer("lock", result);
}

BOOLEAN NTAPI UnlockSingle(PFILE_OBJECT, PLARGE_INTEGER, PLARGE_INTEGER, PEPROCESS, ULONG, PIO_STATUS_BLOCK result,
                           PDEVICE_OBJECT)
{
    return Answer("unlock", result);
}

PEPROCESS unlockedAll;

BOOLEAN NTAPI UnlockAll(PFILE_OBJECT, PEPROCESS process, PIO_STATUS_BLOCK result, PDEVICE_OBJECT)
{
    unlockedAll = process;
    return Answer("unlock all", result);
}

BOOLEAN NTAPI FastControl(PFILE_OBJECT, BOOLEAN, PVOID, ULONG inputLength, PVOID output, ULONG outputLength, ULONG code,
                          PIO_STATUS_BLOCK result, PDEVICE_OBJECT)
{
    EXPECT_EQ(inputLength, 2u);
    EXPECT_EQ(code, Code(METHOD_BUFFERED));
    if (fast->Takes) memset(output, 'c', outputLength);
    return Answer("control", result, 77); // no more than a number here
}

class FastIo : public IoTest {
protected:
    void SetUp() override
    {
        IoTest::SetUp();
        fast = &fast_;
        table_.SizeOfFastIoDispatch = sizeof table_;
        table_.FastIoRead = Read;
        table_.FastIoWrite = Write;
        table_.FastIoQueryBasicInfo = QueryBasic;
        table_.FastIoQueryStandardInfo = QueryStandard;
        table_.FastIoQueryNetworkOpenInfo = QueryNetwork;
        table_.FastIoLock = Lock;
        table_.FastIoUnlockSingle = UnlockSingle;
        table_.FastIoUnlockAll = UnlockAll;
        table_.FastIoDeviceControl = FastControl;
        Object()->FastIoDispatch = &table_;
    }
    std::vector<std::string> TakeCalls() { return std::exchange(fast_.Calls, {}); }
    // The services that have a fast form, each once.
    void RunAll(HANDLE file);

    Fast fast_;
    FAST_IO_DISPATCH table_{};
    std::vector<NTSTATUS> statuses_;
    IO_STATUS_BLOCK block_{};
    char buffer_[8] = {};
    FILE_BASIC_INFORMATION basic_{};
    FILE_STANDARD_INFORMATION standard_{};
    FILE_NETWORK_OPEN_INFORMATION network_{};
};

void FastIo::RunAll(HANDLE file)
{
    LARGE_INTEGER offset, length, end;
    offset.QuadPart = 10;
    length.QuadPart = 20;
    end.QuadPart = -1;
    ULONG key = 7;
    char input[] = "in";
    const HANDLE none = nullptr;
    statuses_ = {
        NtReadFile(file, none, nullptr, nullptr, &block_, buffer_, 4, nullptr, &key),
        NtWriteFile(file, none, nullptr, nullptr, &block_, buffer_, 4, &end, nullptr),
        NtQueryInformationFile(file, &block_, &basic_, sizeof basic_, FileBasicInformation),
        NtQueryInformationFile(file, &block_, &standard_, sizeof standard_, FileStandardInformation),
        NtQueryInformationFile(file, &block_, &network_, sizeof network_, FileNetworkOpenInformation),
        NtLockFile(file, none, nullptr, nullptr, &block_, &offset, &length, key, TRUE, FALSE),
        NtUnlockFile(file, &block_, &offset, &length, key),
        NtDeviceIoControlFile(file, none, nullptr, nullptr, &block_, Code(METHOD_BUFFERED), input, 2, buffer_, 4),
    };
}

using Names = std::vector<std::string>;
const Names kAll = {"read", "write", "basic", "standard", "network", "lock", "unlock", "control"};
constexpr ULONG kReadAttributes = FILE_READ_ATTRIBUTES | FILE_READ_DATA | FILE_WRITE_DATA | SYNCHRONIZE;

TEST_F(FastIo, AnswersInPlaceOfPackets)
{
    const Opened opened = Open({.Access = kReadAttributes});
    FileOf(opened.Handle)->PrivateCacheMap = this; // the file system says that it caches
    const auto before = Seen(IRP_MJ_CREATE);
    RunAll(opened.Handle);
    EXPECT_EQ(statuses_, std::vector<NTSTATUS>(kAll.size(), STATUS_SUCCESS));
    EXPECT_EQ(TakeCalls(), kAll);
    EXPECT_EQ(block_.Information, 77u);
    EXPECT_EQ(std::string(buffer_, 4), "cccc");
    EXPECT_EQ(basic_.FileAttributes, 0x20u);
    EXPECT_EQ(standard_.NumberOfLinks, 3u);
    EXPECT_EQ(network_.FileAttributes, 0x80u);
    EXPECT_EQ(FileOf(opened.Handle)->CurrentByteOffset.QuadPart, 4);
    for (UCHAR major = IRP_MJ_CLOSE; major <= IRP_MJ_LOCK_CONTROL; ++major) EXPECT_EQ(Seen(major), 0u) << int(major);
    EXPECT_EQ(Seen(IRP_MJ_CREATE), before);
    NtClose(opened.Handle);
}

TEST_F(FastIo, DeclinedLeavesItToThePacket)
{
    fast_.Takes = FALSE;
    fast_.Status = STATUS_ACCESS_DENIED; // of no interest then
    const Opened opened = Open({.Access = kReadAttributes});
    FileOf(opened.Handle)->PrivateCacheMap = this;
    RunAll(opened.Handle);
    EXPECT_EQ(statuses_, std::vector<NTSTATUS>(kAll.size(), STATUS_SUCCESS));
    EXPECT_EQ(TakeCalls(), kAll);
    EXPECT_EQ(Seen(IRP_MJ_READ), 1u);
    EXPECT_EQ(Seen(IRP_MJ_WRITE), 1u);
    EXPECT_EQ(Seen(IRP_MJ_QUERY_INFORMATION), 3u);
    EXPECT_EQ(Seen(IRP_MJ_LOCK_CONTROL), 2u);
    EXPECT_EQ(Seen(IRP_MJ_DEVICE_CONTROL), 1u);
    NtClose(opened.Handle);
}

// Data goes that way only to and from a cache and for synchronous I/O; a short table ends where it says.
TEST_F(FastIo, IsNotAskedWhereItDoesNotApply)
{
    const Opened uncached = Open({.Access = kReadAttributes});
    RunAll(uncached.Handle);
    EXPECT_EQ(TakeCalls(), Names(kAll.begin() + 2, kAll.end()));
    EXPECT_EQ(Seen(IRP_MJ_READ), 1u);
    NtClose(uncached.Handle);

    const Opened asynchronous = Open({.Access = kReadAttributes, .Options = 0});
    FileOf(asynchronous.Handle)->PrivateCacheMap = this;
    LARGE_INTEGER offset{};
    EXPECT_EQ(NtReadFile(asynchronous.Handle, nullptr, nullptr, nullptr, &block_, buffer_, 4, &offset, nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(TakeCalls(), Names{});
    // An APC has to come with a packet.
    const PIO_APC_ROUTINE apc = [](PVOID, PIO_STATUS_BLOCK, ULONG) NTAPI {};
    EXPECT_EQ(NtDeviceIoControlFile(asynchronous.Handle, nullptr, apc, nullptr, &block_, Code(METHOD_BUFFERED), nullptr,
                                    0, nullptr, 0),
              STATUS_SUCCESS);
    EXPECT_EQ(TakeCalls(), Names{});
    EXPECT_EQ(NtTestAlert(), STATUS_SUCCESS);

    table_.SizeOfFastIoDispatch = FIELD_OFFSET(FAST_IO_DISPATCH, FastIoDeviceControl);
    RunAll(asynchronous.Handle);
    EXPECT_EQ(TakeCalls(), (Names{"basic", "standard", "lock", "unlock"})); // network stands behind control
    NtClose(asynchronous.Handle);
}

// What the outcome of a read or write may be, and what becomes of errors elsewhere.
TEST_F(FastIo, OutcomesAndEvents)
{
    const struct {
        NTSTATUS Status;
        bool ReadIsFinal;
    } rows[] = {{STATUS_END_OF_FILE, true}, {STATUS_BUFFER_OVERFLOW, true}, {STATUS_FILE_LOCK_CONFLICT, false}};
    const Opened opened = Open({.Access = kReadAttributes});
    FileOf(opened.Handle)->PrivateCacheMap = this;
    HANDLE event;
    ASSERT_EQ(NtCreateEvent(&event, EVENT_ALL_ACCESS, nullptr, SynchronizationEvent, FALSE), STATUS_SUCCESS);
    ULONG key = 7;
    LARGE_INTEGER now{};
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        fast_.Status = row.Status;
        const unsigned packets = Seen(IRP_MJ_READ);
        EXPECT_EQ(NtReadFile(opened.Handle, event, nullptr, nullptr, &block_, buffer_, 4, nullptr, &key),
                  row.ReadIsFinal ? row.Status : STATUS_SUCCESS);
        EXPECT_EQ(Seen(IRP_MJ_READ) - packets, row.ReadIsFinal ? 0u : 1u);
        EXPECT_EQ(NtWaitForSingleObject(event, FALSE, &now), STATUS_SUCCESS);
    }
    TakeCalls();
    fast_.Status = STATUS_LOCK_NOT_GRANTED;
    RunAll(opened.Handle);
    EXPECT_EQ(TakeCalls(), kAll);
    EXPECT_EQ(statuses_[2], STATUS_LOCK_NOT_GRANTED); // a query
    EXPECT_EQ(statuses_[5], STATUS_LOCK_NOT_GRANTED); // a lock
    EXPECT_EQ(statuses_[7], STATUS_LOCK_NOT_GRANTED); // a control
    EXPECT_EQ(Seen(IRP_MJ_LOCK_CONTROL), 0u);
    NtClose(event);
    NtClose(opened.Handle);
}

// A process's locks go with its last handle, though others still have the file object open.
TEST_F(FastIo, LastHandleOfAProcessUnlocksAll)
{
    Driver().Majors[IRP_MJ_LOCK_CONTROL] = [](PDEVICE_OBJECT, PIRP irp) {
        EXPECT_EQ(IoGetCurrentIrpStackLocation(irp)->MinorFunction, IRP_MN_UNLOCK_ALL);
        return Complete(irp, STATUS_SUCCESS);
    };
    nthost::Process other("other");
    for (const bool takes : {true, false}) {
        const Opened opened = Open();
        const auto duplicate = [&] {
            HANDLE copy, process;
            EXPECT_EQ(ObOpenObjectByPointer(other.Object(), OBJ_KERNEL_HANDLE, nullptr, PROCESS_DUP_HANDLE,
                                            PsProcessType, KernelMode, &process),
                      STATUS_SUCCESS);
            EXPECT_EQ(ZwDuplicateObject(NtCurrentProcess(), opened.Handle, process, &copy, 0, 0, DUPLICATE_SAME_ACCESS),
                      STATUS_SUCCESS);
            EXPECT_EQ(ZwClose(process), STATUS_SUCCESS);
            return copy;
        };
        const auto closeThere = [&](HANDLE copy) {
            const nthost::ActAs as(other.Object());
            EXPECT_EQ(NtClose(copy), STATUS_SUCCESS);
        };
        unlockedAll = nullptr;
        closeThere(duplicate());
        EXPECT_EQ(TakeCalls(), Names{}); // nobody has locked anything
        fast_.Takes = TRUE;
        LARGE_INTEGER offset, length;
        offset.QuadPart = 10;
        length.QuadPart = 20;
        EXPECT_EQ(NtLockFile(opened.Handle, nullptr, nullptr, nullptr, &block_, &offset, &length, 7, TRUE, FALSE),
                  STATUS_SUCCESS);
        const HANDLE first = duplicate(), second = duplicate();
        fast_.Takes = takes;
        closeThere(first);
        EXPECT_EQ(TakeCalls(), Names{"lock"});
        closeThere(second);
        EXPECT_EQ(TakeCalls(), Names{"unlock all"});
        EXPECT_EQ(unlockedAll, other.Object());
        EXPECT_EQ(Seen(IRP_MJ_LOCK_CONTROL), takes ? 0u : 1u);
        EXPECT_EQ(Seen(IRP_MJ_CLEANUP), takes ? 0u : 1u);
        NtClose(opened.Handle);
        EXPECT_EQ(TakeCalls(), Names{}); // the cleanup is told enough
    }
}

} // namespace
