// One compact workload that touches every request of a volume, run with one failure injected at each place in turn:
// nothing crashes, nothing leaks, every request ends, no lock stays, what comes back first is the failure itself, and
// the same work then succeeds. Each run has a directory of its own, since what a failed run has made on the plugin
// stays there.

#include <algorithm>
#include <optional>

#include <nthost/faults.h>

#include "open_requests.h"

namespace opening {
namespace {

class Sweep : public VolumeTest {
protected:
    struct Failure {
        const char* What;
        NTSTATUS Status;
    };
    using Failures = std::vector<Failure>;

    // One run of everything. Requests go on after a failure as far as there are handles for them.
    class Run {
    public:
        Run(Sweep& test, std::string directory) : test_(test), directory_(std::move(directory)) {}

        Failures All()
        {
            Create();
            Transfer();
            OpenAgain();
            Query();
            Change();
            Names();
            Volume();
            Delete();
            handles_.clear();
            return failures_;
        }

    private:
        static constexpr ACCESS_MASK kEverything = FILE_GENERIC_READ | FILE_GENERIC_WRITE | DELETE;

        void Note(const char* what, NTSTATUS status)
        {
            if (!NT_SUCCESS(status)) failures_.push_back({what, status});
        }

        HANDLE Open(const char* what, const std::string& name, const OpenRequest& request)
        {
            OpenResult opened = test_.Open(directory_ + name, request);
            Note(what, opened.Status);
            handles_.push_back(std::move(opened.File));
            return handles_.back().Get();
        }

        void Create()
        {
            Open("mkdir", "",
                 {.Access = FILE_GENERIC_READ,
                  .Disposition = FILE_OPEN_IF,
                  .Options = kSynchronous | FILE_DIRECTORY_FILE});
            OpenRequest full = {
                .Access = kEverything, .Disposition = FILE_OVERWRITE_IF, .Attributes = FILE_ATTRIBUTE_HIDDEN};
            full.AllocationSize = 5000;
            const std::string eas = support::EaList().Add("FIRST", "1").Add("SECOND", "22").Bytes();
            full.Eas = &eas;
            file_ = Open("create", "\\file", full);
            Open("overwrite", "\\file", full);
            other_ =
                Open("create other", "\\other", {.Access = kEverything, .Disposition = FILE_OPEN_IF, .Options = 0});
        }

        void Transfer()
        {
            if (!file_) return;
            Note("write", support::Write(file_, std::string(70000, 'w'), 0).Status);
            char data[100];
            Note("read", Read(file_, data, sizeof data, 0).Status);
            LockAndUnlock(file_, {10, 10});
            Note("flush", support::Flush(file_));
            if (other_) WriteAndReadByWorker();
        }

        void LockAndUnlock(HANDLE file, Range range)
        {
            const NTSTATUS locked = Lock(file, range);
            Note("lock", locked);
            if (NT_SUCCESS(locked)) Note("unlock", Unlock(file, range));
        }

        // On the asynchronous handle.
        void WriteAndReadByWorker()
        {
            char data[] = "by a worker";
            IO_STATUS_BLOCK block = {};
            LARGE_INTEGER offset = {};
            support::Event done;
            NTSTATUS status =
                NtWriteFile(other_, done.Get(), nullptr, nullptr, &block, data, sizeof data, &offset, nullptr);
            if (status == STATUS_PENDING) done.Wait(), status = block.Status;
            Note("pended write", status);
            Note("pended read", Read(other_, data, 4, 0).Status);
        }

        // A name that the plugin normalises; for reading, and then for writing, which has its handle opened again. Each
        // use has a range of its own: a lock that cannot be given up stays until the close.
        void OpenAgain()
        {
            OpenRequest make = {.Access = FILE_GENERIC_READ, .Disposition = FILE_OPEN_IF};
            if (!Open("create accented", "\\caf\xc3\xa9", make)) return;
            handles_.back().Close();
            for (const HandleKind& kind : kHandleKinds) {
                OpenRequest request = kind.Request;
                for (const ACCESS_MASK more : {0u, FILE_WRITE_DATA}) {
                    request.Access |= more;
                    const HANDLE file = Open("accented", "\\cafe\xcc\x81", request);
                    if (file) LockAndUnlock(file, {static_cast<LONGLONG>(handles_.size()), 1});
                }
            }
        }

        void Query()
        {
            if (!file_) return;
            uint64_t buffer[128];
            for (const FILE_INFORMATION_CLASS infoClass :
                 {FileBasicInformation, FileStandardInformation, FileInternalInformation, FileEaInformation,
                  FileNameInformation, FileAllInformation, FileNetworkOpenInformation}) {
                Note("query", support::Query(file_, infoClass, buffer, sizeof buffer).Status);
            }
            Note("query ea", support::QueryEas(file_, {.Restart = true}).Status);
            Note("query ea by name", support::QueryEas(file_, {.Names = {"SECOND", "NONE"}}).Status);
            for (const char* pattern : {"*", "*\xc3\xa9"}) {
                const HANDLE directory = Open("open to list", "", {});
                if (!directory) continue;
                const support::Listing listing = support::List(directory, pattern, 64);
                if (listing.Status != STATUS_NO_MORE_FILES) Note("list", listing.Status);
            }
        }

        void Change()
        {
            if (!file_) return;
            Note("set ea", support::SetEas(file_, support::EaList().Add("FIRST", "").Add("THIRD", "3").Bytes()).Status);
            Note("set basic", support::SetBasic(file_, FILE_ATTRIBUTE_ARCHIVE, 0, 0, 5000));
            Note("truncate", support::SetSize(file_, 1000));
            Note("allocate", support::SetAllocation(file_, 9000));
        }

        void Names()
        {
            if (!file_) return;
            Note("rename", support::Rename(file_, "renamed"));
            Note("rename case", support::Rename(file_, "RENAMED"));
            Open("victim", "\\victim", {.Access = kEverything, .Disposition = FILE_OPEN_IF});
            handles_.back().Close();
            Note("move over", support::Rename(file_, "\\??\\Opening" + directory_ + "\\victim", true));
            OpenResult link = test_.Open("\\link");
            Note("link", link.Status);
        }

        void Volume()
        {
            OpenResult volume = test_.Open("", {.Access = FILE_GENERIC_READ | FILE_GENERIC_WRITE});
            Note("open volume", volume.Status);
            const HANDLE handle = volume.File.Get();
            if (!handle) return;
            uint64_t buffer[16];
            Note("query volume", support::QueryVolume(handle, FileFsVolumeInformation, buffer, sizeof buffer).Status);
            struct {
                ULONG Length;
                WCHAR Text[2];
            } label = {4, {L'A', L'B'}};
            Note("label", support::SetVolume(handle, FileFsLabelInformation, &label, sizeof label).Status);
            Note("flush volume", support::Flush(handle));
            Note("mounted", workbench::FsControl(handle, 0x90028 /* FSCTL_IS_VOLUME_MOUNTED */).Status);
        }

        void Delete()
        {
            if (other_) Note("delete", support::SetDelete(other_, true));
            Open("delete on close", "\\temporary",
                 {.Access = kEverything, .Disposition = FILE_OPEN_IF, .Options = kSynchronous | FILE_DELETE_ON_CLOSE});
        }

        Sweep& test_;
        std::string directory_;
        std::vector<Handle> handles_;
        HANDLE file_ = nullptr;
        HANDLE other_ = nullptr;
        Failures failures_;
    };

    // The last reference on an asynchronous handle's file object may be dropped by a system worker, so the close can
    // still be under way when the handle is gone.
    void WaitUntilIdle() GV_NO_ANALYSIS
    {
        Vcb* const vcb = Volume();
        while (FcbCount() != 0 || GvLoad(vcb->PinCount) != 0 || GvLoad(vcb->PluginCallCount) != 0)
            std::this_thread::yield();
    }

    Failures Work()
    {
        Failures failures = Run(*this, "\\run" + std::to_string(++runs_)).All();
        WaitUntilIdle();
        return failures;
    }

    // What follows from a failure may be another; the first is the one that was made. Two are turned into another on
    // the way: an entry whose name cannot be normalised matches nothing, and a destination that cannot be looked at is
    // the plugin's to refuse.
    static bool IsTurned(const Failure& failure)
    {
        const std::string what = failure.What;
        return (what == "list" && failure.Status == STATUS_NO_SUCH_FILE) ||
               (what == "move over" && failure.Status == STATUS_OBJECT_NAME_COLLISION);
    }

    void ExpectFirst(const Failures& failures, const std::vector<NTSTATUS>& expected)
    {
        if (failures.empty() || IsTurned(failures.front())) return;
        if (std::ranges::find(expected, failures.front().Status) != expected.end()) return;
        EXPECT_STATUS(expected.front(), failures.front().Status) << failures.front().What;
    }

    void ExpectNothingLeft()
    {
        {
            GvHeldSpinLock lock(Volume()->QueueLock);
            EXPECT_EQ(Volume()->PendedCount, 0u);
            for (const LIST_ENTRY& list : Volume()->PendedList) EXPECT_TRUE(IsListEmpty(&list));
            EXPECT_TRUE(IsListEmpty(&Volume()->ActiveList));
        }
        for (const Failure& failure : Work()) ADD_FAILURE() << failure.What << " " << std::hex << failure.Status;
    }

    // How many calls of the operation were made to fail, one in each run.
    unsigned OverCalls(const std::string& operation, bool raises)
    {
        for (unsigned n = 1;; ++n) {
            SCOPED_TRACE(operation + " " + std::to_string(n) + (raises ? " raises" : " fails"));
            Plugin().Clear();
            raises ? Plugin().Raise(operation, STATUS_DISK_CORRUPT_ERROR, n)
                   : Plugin().Fail(operation, STATUS_DISK_CORRUPT_ERROR, n);
            ExpectFirst(Work(), {raises ? STATUS_ACCESS_VIOLATION : STATUS_DISK_CORRUPT_ERROR});
            if (Plugin().Count(operation) >= n) continue;
            (void)Work(); // uses up what no call has had
            return n - 1;
        }
    }

private:
    unsigned runs_ = 0;
};

TEST_F(Sweep, OverEveryPluginCall)
{
    ExpectNothingLeft(); // undisturbed
    for (const bool raises : {false, true}) {
        unsigned sites = 0;
        for (const char* operation : {"GetNormalizedPath",
                                      "Lookup",
                                      "Open",
                                      "OpenDir",
                                      "AccessCheck",
                                      "Create",
                                      "CreateDir",
                                      "Read",
                                      "Write",
                                      "Close",
                                      "ReadDirEntry",
                                      "GetInfo",
                                      "SetFileSize",
                                      "SetAttr",
                                      "SetTime",
                                      "GetVolInfo",
                                      "SetVolLabel",
                                      "Rename",
                                      "Delete",
                                      "FlushVol",
                                      "FlushFile",
                                      "ListEa",
                                      "GetEa",
                                      "SetEa",
                                      "DeleteEa",
                                      "ReadLink"}) {
            const unsigned calls = OverCalls(operation, raises);
            EXPECT_GT(calls, 0u) << operation;
            sites += calls;
            ExpectNothingLeft();
        }
        EXPECT_GT(sites, 100u);
    }
}

struct RoutineRow {
    const char* Routine;
    std::vector<NTSTATUS> Expected; // by what asked; nothing need fail where there is another way
    unsigned LeastSites;
};

TEST_F(Sweep, OverEveryRoutineThatCanFail)
{
    const RoutineRow rows[] = {
        {"ExAllocatePoolWithTag", {STATUS_INSUFFICIENT_RESOURCES}, 80},
        {"ExInitializeResourceLite", {STATUS_INSUFFICIENT_RESOURCES}, 8},
        {"IoAllocateMdl", {STATUS_INSUFFICIENT_RESOURCES}, 2},
        {"MmMapLockedPagesSpecifyCache", {STATUS_UNSUCCESSFUL}, 2},
        {"FsRtlPrivateLock", {STATUS_INSUFFICIENT_RESOURCES}, 5},
        {"FsRtlIsNameInExpression", {STATUS_INSUFFICIENT_RESOURCES}, 2},
        {"IoReplaceFileObjectName", {STATUS_INSUFFICIENT_RESOURCES}, 1},
        {"MmProbeAndLockPages", {STATUS_ACCESS_VIOLATION}, 2},
        {"CcFlushCache", {STATUS_UNEXPECTED_IO_ERROR}, 2},
        {"CcPurgeCacheSection", {STATUS_UNSUCCESSFUL}, 2},
        {"MmFlushImageSection", {STATUS_SHARING_VIOLATION, STATUS_CANNOT_DELETE, STATUS_ACCESS_DENIED}, 3},
        {"MmCanFileBeTruncated", {STATUS_USER_MAPPED_FILE}, 1},
    };
    for (const RoutineRow& row : rows) {
        const unsigned sites = nthost::SweepFaults(row.Routine, [&](unsigned n) {
            SCOPED_TRACE(row.Routine + (" " + std::to_string(n)));
            ExpectFirst(Work(), row.Expected);
        });
        EXPECT_GE(sites, row.LeastSites) << row.Routine;
        ExpectNothingLeft();
    }
}

// A plugin that writes a handle and then fails: the value is no handle, whether the object is opened for the first time
// or again.
struct HandleInFailure {
    static inline unsigned Calls;
    static NTSTATUS NTAPI Open(void*, PKEVENT, PCUNICODE_STRING, PluginAccessMask, PluginFd* fd)
    {
        ++Calls;
        *fd = 0x1234;
        return STATUS_IO_DEVICE_ERROR;
    }
};

TEST_F(Sweep, ClosesNoHandleOfAFailedOpen)
{
    const auto open = Plugin().Table()->Open;
    const auto failing = [&](const OpenRequest& request) {
        HandleInFailure::Calls = 0;
        Plugin().Table()->Open = HandleInFailure::Open;
        EXPECT_STATUS(STATUS_IO_DEVICE_ERROR, Open("\\file", request).Status);
        Plugin().Table()->Open = open;
        EXPECT_EQ(HandleInFailure::Calls, 1u);
    };
    Handle root = OpenOrFail("\\"); // which would be closed with the rest
    TakeCalls();
    failing({});
    EXPECT_EQ(Plugin().Count("Close"), 0u);
    Handle reader = OpenOrFail("\\file");
    TakeCalls();
    failing({.Access = FILE_WRITE_DATA | SYNCHRONIZE});
    EXPECT_EQ(TakeCalls(), (Lines{"Lookup \\file"}));
    EXPECT_EQ(ReadText(reader.Get(), 3), "012"); // the old handle stands
}

} // namespace
} // namespace opening
