// What meets in a file system. Each scenario says what may happen by what it expects afterwards; the rest is nthost's
// checks, the sanitizers and the hang report.
#include <set>

#include <nthost/sections.h>
#include <workbench/view.h>

#include "schedule/stage.h"

namespace schedule {

namespace {

using nthost::Schedule;
using workbench::Read;
using workbench::Request;
using workbench::View;
using workbench::Write;

void OpenAgainstDeletion(Schedule& schedule)
{
    Stage stage(schedule);
    schedule.Run({[&] { stage.Remove("\\a\\file"); },
                  [&] {
                      workbench::OpenResult opened = stage.Open("\\a\\file", kReadWrite);
                      if (NT_SUCCESS(opened.Status)) (void)Write(opened.File.Get(), "new", 0);
                  },
                  [&] { stage.RenameTo("\\a\\file", "\\b\\file"); }});
}

void DeletionAgainstUnmount(Schedule& schedule)
{
    Stage stage(schedule);
    Handle doomed = stage.Get("\\a\\file", kDeleting);
    PDEVICE_OBJECT const device = stage.Volume().Device();
    stage.Volume().Forget();
    schedule.Run({[&] { (void)doomed.Close(); },
                  [&] { workbench::Require("unmount", stage.Host().RequestUnmount(device)); },
                  [&] { (void)stage.Open("\\b\\file"); }});
}

void OpenAgainstUnmount(Schedule& schedule)
{
    Stage stage(schedule);
    Handle open = stage.Get("\\a\\file", kReadWrite);
    PDEVICE_OBJECT const device = stage.Volume().Device();
    stage.Volume().Forget();
    schedule.Run({[&] { (void)stage.Open(""); },
                  [&] { workbench::Require("unmount", stage.Host().RequestUnmount(device)); },
                  [&] { (void)Read(open.Get(), std::string(8, 0).data(), 8, 0), (void)open.Close(); }});
}

void LockAgainstCleanup(Schedule& schedule)
{
    Stage stage(schedule);
    Handle witness = stage.Get("\\a\\file", kReadWrite);
    Handle locker = stage.Get("\\a\\file", kAsync);
    Request request;
    schedule.Run({[&] {
                      const NTSTATUS status = request.StartLock(locker.Get(), 0, 8);
                      (void)locker.Close();
                      if (NT_SUCCESS(status)) (void)request.Wait();
                  },
                  [&] { (void)Write(witness.Get(), "witness", 0); }});
    stage.Expect(workbench::Lock(witness.Get(), 0, 8) == STATUS_SUCCESS, "a closed handle holds a lock");
    (void)workbench::Unlock(witness.Get(), 0, 8);
}

void LockAgainstLastClose(Schedule& schedule)
{
    Stage stage(schedule);
    Handle locker = stage.Get("\\a\\file", kAsync);
    Request request;
    schedule.Run({[&] {
                      const NTSTATUS status = request.StartLock(locker.Get(), 0, 8);
                      (void)locker.Close();
                      if (NT_SUCCESS(status)) (void)request.Wait();
                  },
                  [&] { stage.Remove("\\a\\file"); }});
}

// The lock that is asked for has to wait: it is granted, cancelled or refused, and ends either way.
void LockAgainstCancel(Schedule& schedule)
{
    Stage stage(schedule);
    Handle owner = stage.Get("\\a\\file", kReadWrite);
    Handle locker = stage.Get("\\a\\file", kAsync);
    workbench::Require("lock", workbench::Lock(owner.Get(), 0, 8));
    Request request;
    schedule.Run({[&] {
                      const NTSTATUS status = request.StartLock(locker.Get(), 0, 8);
                      if (!NT_SUCCESS(status)) return;
                      (void)request.Cancel(locker.Get());
                      (void)request.Wait();
                  },
                  [&] { (void)workbench::Unlock(owner.Get(), 0, 8); },
                  [&] { (void)workbench::CancelAll(locker.Get()); }});
}

// One entry a call, so that both threads take turns.
void ListPart(HANDLE directory, std::set<std::string>* names)
{
    for (;;) {
        alignas(8) char buffer[128];
        IO_STATUS_BLOCK block = {};
        const workbench::Event done;
        NTSTATUS status = NtQueryDirectoryFile(directory, done.Get(), nullptr, nullptr, &block, buffer, sizeof buffer,
                                               FileNamesInformation, TRUE, nullptr, FALSE);
        if (status == STATUS_PENDING) {
            done.Wait();
            status = block.Status;
        }
        if (!NT_SUCCESS(status)) return;
        const auto& entry = *reinterpret_cast<const FILE_NAMES_INFORMATION*>(buffer);
        std::string name;
        for (ULONG i = 0; i < entry.FileNameLength / sizeof(WCHAR); ++i) name += static_cast<char>(entry.FileName[i]);
        names->insert(name);
    }
}

void ListingAgainstListing(Schedule& schedule)
{
    Stage stage(schedule);
    Handle directory = stage.Get("\\a", {.Access = FILE_LIST_DIRECTORY, .Options = FILE_DIRECTORY_FILE});
    std::set<std::string> first, second;
    schedule.Run({[&] { ListPart(directory.Get(), &first); }, [&] { ListPart(directory.Get(), &second); }});
    first.merge(second);
    for (const char* name : {"file", "other"}) stage.Expect(first.contains(name), std::string("not listed: ") + name);
}

void ListingAgainstDeletion(Schedule& schedule)
{
    Stage stage(schedule);
    Handle directory = stage.Get("\\a", {.Access = FILE_LIST_DIRECTORY, .Options = FILE_DIRECTORY_FILE});
    std::set<std::string> names;
    schedule.Run({[&] { ListPart(directory.Get(), &names); }, [&] { stage.Remove("\\a\\file"); }});
    stage.Expect(names.contains("other"), "a listing misses what stayed");
}

void CancelAgainstCompletion(Schedule& schedule)
{
    Stage stage(schedule);
    Handle file = stage.Get("\\file", kAsync);
    char buffer[2][16];
    Request reads[2];
    schedule.Run({[&] {
                      const NTSTATUS status = reads[0].StartRead(file.Get(), buffer[0], sizeof buffer[0], 0);
                      if (NT_SUCCESS(status)) (void)reads[0].Wait();
                  },
                  [&] {
                      const NTSTATUS status = reads[1].StartRead(file.Get(), buffer[1], sizeof buffer[1], 0);
                      if (!NT_SUCCESS(status)) return;
                      (void)reads[1].Cancel(file.Get());
                      (void)reads[1].Wait();
                  },
                  [&] { (void)workbench::CancelAll(file.Get()); }});
}

void CancelAgainstClose(Schedule& schedule)
{
    Stage stage(schedule);
    Handle file = stage.Get("\\file", kAsync);
    char buffer[16];
    Request read;
    PDEVICE_OBJECT const device = stage.Volume().Device();
    stage.Volume().Forget();
    schedule.Run({[&] {
                      const NTSTATUS status = read.StartRead(file.Get(), buffer, sizeof buffer, 0);
                      (void)read.Cancel(file.Get());
                      (void)file.Close();
                      if (NT_SUCCESS(status)) (void)read.Wait();
                  },
                  [&] { workbench::Require("unmount", stage.Host().RequestUnmount(device)); }});
}

void WriteAgainstPages(Schedule& schedule)
{
    Stage stage(schedule);
    Handle file = stage.Get("\\file", kReadWrite);
    Handle other = stage.Get("\\file", kReadWrite);
    const View view(file.Get());
    schedule.Run({[&] {
                      IO_STATUS_BLOCK block = {};
                      LARGE_INTEGER zero = {};
                      (void)NtWriteFile(other.Get(), nullptr, nullptr, nullptr, &block, view.Address() + PAGE_SIZE, 64,
                                        &zero, nullptr);
                  },
                  [&] { (void)view.Text(PAGE_SIZE, 1), (void)view.Text(0, 1); },
                  [&] { (void)view.Put(2 * PAGE_SIZE, "dirty"), (void)view.Flush(); }});
}

void ReopenAgainstPages(Schedule& schedule)
{
    Stage stage(schedule);
    Handle file = stage.Get("\\file");
    const View view(file.Get(), View::Kind::ReadOnly);
    schedule.Run({[&] { stage.Expect(view.Text(0, 1) == "f", "a page does not come: " + view.Text(0, 1)); },
                  [&] { (void)stage.Open("\\file", kReadWrite); }, [&] { stage.RenameTo("\\file", "\\b\\moved"); }});
}

// Pages that come in under a write of another file are read without a lock, while the handle that reads them is
// replaced.
void SwitchAgainstNestedPages(Schedule& schedule)
{
    Stage stage(schedule);
    Handle file = stage.Get("\\file");
    Handle other = stage.Get("\\b\\file", kReadWrite);
    const View view(file.Get(), View::Kind::ReadOnly);
    schedule.Run({[&] {
                      for (const size_t page : {0, 1, 2}) {
                          IO_STATUS_BLOCK block = {};
                          LARGE_INTEGER zero = {};
                          const NTSTATUS status = NtWriteFile(other.Get(), nullptr, nullptr, nullptr, &block,
                                                              view.Address() + page * PAGE_SIZE, 64, &zero, nullptr);
                          stage.Expect(NT_SUCCESS(status), "a page does not come for a write");
                      }
                  },
                  [&] { (void)stage.Open("\\file", kReadWrite); }, [&] { stage.RenameTo("\\file", "\\b\\moved"); }});
}

void PageWriterAgainstAll(Schedule& schedule)
{
    Stage stage(schedule);
    Handle file = stage.Get("\\file", kReadWrite);
    Handle async = stage.Get("\\file", kAsync);
    PVOID object = nullptr;
    workbench::Require("reference",
                       ObReferenceObjectByHandle(file.Get(), 0, IoFileObjectType, KernelMode, &object, nullptr));
    {
        const View view(file.Get());
        char buffer[16];
        Request read;
        schedule.Run({[&] {
                          (void)view.Put(0, "dirty");
                          (void)nthost::StepModifiedPageWriter(static_cast<PFILE_OBJECT>(object));
                      },
                      [&] {
                          if (NT_SUCCESS(read.StartRead(async.Get(), buffer, sizeof buffer, 0))) (void)read.Wait();
                          (void)workbench::SetSize(file.Get(), PAGE_SIZE + 1);
                      },
                      [&] { (void)Write(file.Get(), "written", PAGE_SIZE), (void)nthost::TrimSections(); }});
    }
    ObDereferenceObject(object);
}

void IdleSectionAgainstWrite(Schedule& schedule)
{
    Stage stage(schedule);
    Handle writer = stage.Get("\\file", kAsync);
    {
        Handle mapped = stage.Get("\\file", kReadWrite);
        const View view(mapped.Get());
        (void)view.Put(PAGE_SIZE, "view");
    }
    schedule.Run({[&] {
                      char data[] = "write";
                      IO_STATUS_BLOCK block = {};
                      LARGE_INTEGER zero = {};
                      const workbench::Event done;
                      if (NtWriteFile(writer.Get(), done.Get(), nullptr, nullptr, &block, data, 5, &zero, nullptr) ==
                          STATUS_PENDING)
                          done.Wait();
                  },
                  [&] { (void)stage.Open("\\file", kReadWrite); }, [&] { (void)nthost::TrimSections(); }});
}

void MountAgainstOpen(Schedule& schedule)
{
    Stage stage(schedule);
    PluginOps* second = nullptr;
    workbench::Require("memfs", MemFsCreate(nullptr, &second));
    {
        std::optional<workbench::Volume> volume;
        schedule.Run({[&] { volume.emplace(stage.Host(), second, workbench::MountOptions{.Name = "Second"}); },
                      [&] { (void)workbench::Open("\\??\\Second\\", {.Options = FILE_DIRECTORY_FILE}); },
                      [&] { (void)workbench::Open("\\Device\\Second\\x", {.Disposition = FILE_OPEN}); }});
        if (volume) volume->Unmount();
        (void)stage.Host().Services();
        // The layer is the volume's: what follows OnUnmounted must be over.
        workbench::OpenResult gone = workbench::Open("\\??\\Second\\");
        stage.Expect(!NT_SUCCESS(gone.Status), "an unmounted volume opens");
    }
    MemFsDestroy(second);
}

void TwoRenames(Schedule& schedule)
{
    Stage stage(schedule);
    schedule.Run({[&] { stage.RenameTo("\\a\\file", "\\b\\moved"); },
                  [&] { stage.RenameTo("\\b\\file", "\\a\\moved"); }, [&] { stage.RenameTo("\\a", "\\b\\a"); }});
}

} // namespace

const NamedScenario kScenarios[] = {
    {"OpenAgainstDeletion", OpenAgainstDeletion},
    {"DeletionAgainstUnmount", DeletionAgainstUnmount},
    {"OpenAgainstUnmount", OpenAgainstUnmount},
    {"LockAgainstCleanup", LockAgainstCleanup},
    {"LockAgainstLastClose", LockAgainstLastClose},
    {"LockAgainstCancel", LockAgainstCancel},
    {"ListingAgainstListing", ListingAgainstListing},
    {"ListingAgainstDeletion", ListingAgainstDeletion},
    {"CancelAgainstCompletion", CancelAgainstCompletion},
    {"CancelAgainstClose", CancelAgainstClose},
    {"WriteAgainstPages", WriteAgainstPages},
    {"ReopenAgainstPages", ReopenAgainstPages},
    {"SwitchAgainstNestedPages", SwitchAgainstNestedPages},
    {"PageWriterAgainstAll", PageWriterAgainstAll},
    {"IdleSectionAgainstWrite", IdleSectionAgainstWrite},
    {"MountAgainstOpen", MountAgainstOpen},
    {"TwoRenames", TwoRenames},
};
const size_t kScenarioCount = sizeof kScenarios / sizeof kScenarios[0];

} // namespace schedule
