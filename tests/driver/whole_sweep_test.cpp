// One compact workload that touches every request of a volume, run with one failure injected at each place in turn:
// nothing crashes, nothing leaks, every request ends, no lock stays, and the same work then succeeds. Each run has a
// directory of its own, since what a failed run has made on the plugin stays there.

#include <nthost/faults.h>

#include "open_volume.h"
#include "support/file.h"
#include "support/handmade.h"

namespace opening {
namespace {

class WholeSweep : public VolumeTest {
protected:
    using Failures = std::vector<std::string>;

    // One run of everything. Requests go on after a failure as far as there are handles for them.
    class Run {
    public:
        Run(WholeSweep& test, std::string directory) : test_(test), directory_(std::move(directory)) {}

        Failures All()
        {
            Create();
            Transfer();
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
            if (!NT_SUCCESS(status)) failures_.push_back(std::string(what) + " " + std::to_string(ULONG(status)));
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
            support::Request read;
            Note("read", read.StartRead(file_, data, sizeof data, 0));
            support::Request lock;
            const NTSTATUS locked = lock.StartLock(file_, 10, 10);
            Note("lock", locked);
            if (NT_SUCCESS(locked)) Note("unlock", support::Unlock(file_, 10, 10));
            Note("flush", support::Flush(file_));
            if (other_) WriteAndReadByWorker();
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
            support::Request read;
            status = read.StartRead(other_, data, 4, 0);
            Note("pended read", status == STATUS_PENDING ? read.Wait() : status);
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
            const support::Listing listing = support::List(handles_.front().Get(), "*");
            if (listing.Status != STATUS_NO_MORE_FILES) Note("list", listing.Status);
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
            if (!volume.File.Get()) return;
            uint64_t buffer[16];
            Note("query volume",
                 support::QueryVolume(volume.File.Get(), FileFsVolumeInformation, buffer, sizeof buffer).Status);
            struct {
                ULONG Length;
                WCHAR Text[2];
            } label = {4, {L'A', L'B'}};
            Note("label", support::SetVolume(volume.File.Get(), FileFsLabelInformation, &label, sizeof label).Status);
            Note("flush volume", support::Flush(volume.File.Get()));
            IO_STATUS_BLOCK block = {};
            Note("mounted", NtFsControlFile(volume.File.Get(), nullptr, nullptr, nullptr, &block,
                                            0x90028 /* FSCTL_IS_VOLUME_MOUNTED */, nullptr, 0, nullptr, 0));
        }

        void Delete()
        {
            if (other_) Note("delete", support::SetDelete(other_, true));
            Open("delete on close", "\\temporary",
                 {.Access = kEverything, .Disposition = FILE_OPEN_IF, .Options = kSynchronous | FILE_DELETE_ON_CLOSE});
        }

        WholeSweep& test_;
        std::string directory_;
        std::vector<Handle> handles_;
        HANDLE file_ = nullptr;
        HANDLE other_ = nullptr;
        Failures failures_;
    };

    Failures Work() { return Run(*this, "\\run" + std::to_string(++runs_)).All(); }

    void WaitUntilIdle() GV_NO_ANALYSIS
    {
        Vcb* const vcb = Volume();
        while (FcbCount() != 0 || GvLoad(vcb->PinCount) != 0 || GvLoad(vcb->PluginCallCount) != 0)
            std::this_thread::yield();
    }

    void ExpectNothingLeft()
    {
        WaitUntilIdle();
        EXPECT_EQ(Work(), Failures{});
        WaitUntilIdle();
    }

private:
    unsigned runs_ = 0;
};

TEST_F(WholeSweep, SucceedsUndisturbed) { ExpectNothingLeft(); }

TEST_F(WholeSweep, OverEveryPluginCall)
{
    unsigned sites = 0;
    for (const char* operation :
         {"Lookup",    "Open",       "OpenDir",      "AccessCheck", "Create",      "CreateDir",
          "Read",      "Write",      "ReadDirEntry", "GetInfo",     "SetFileSize", "SetAttr",
          "SetTime",   "GetVolInfo", "SetVolLabel",  "Rename",      "Delete",      "FlushVol",
          "FlushFile", "ListEa",     "GetEa",        "SetEa",       "DeleteEa",    "ReadLink"}) {
        for (unsigned n = 1;; ++n) {
            SCOPED_TRACE(operation + (" " + std::to_string(n)));
            Plugin().Clear();
            Plugin().Fail(operation, STATUS_DISK_CORRUPT_ERROR, n);
            (void)Work();
            WaitUntilIdle();
            const bool reached = Plugin().Count(operation) >= n;
            if (!reached) {
                (void)Work(); // uses up what no call has had
                break;
            }
            ++sites;
        }
        ExpectNothingLeft();
    }
    RecordProperty("sites", static_cast<int>(sites));
    std::printf("%u plugin calls failed in turn\n", sites);
    EXPECT_GT(sites, 80u);
}

TEST_F(WholeSweep, OverEveryAllocation)
{
    const unsigned sites = nthost::SweepFaults("ExAllocatePoolWithTag", [this](unsigned n) {
        SCOPED_TRACE(n);
        (void)Work();
        WaitUntilIdle();
    });
    ExpectNothingLeft();
    std::printf("%u allocations failed in turn\n", sites);
    EXPECT_GT(sites, 80u);
}

} // namespace
} // namespace opening
