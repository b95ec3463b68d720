// The plugin as a whole: short of memory, on many threads, with cancelled requests, and behind the driver.
#include "trial.h"

#include <algorithm>
#include <thread>
#include <vector>

#include <nthost/calls.h>
#include <nthost/debug.h>
#include <nthost/faults.h>
#include <nthost/process.h>
#include <workbench/volume.h>

namespace checker {

namespace {

constexpr char kKept[] = "\\gvnd-check-kept";
constexpr char kContent[] = "kept over a mount";

// One of the calls may have met the failing allocation; made again it has to do its work.
class ShortOfMemory {
public:
    ShortOfMemory(Trial& trial, unsigned nth) : trial_(trial), plan_("ExAllocatePoolWithTag", nth) {}

    // The last status.
    template <typename Call>
    NTSTATUS Twice(Call call)
    {
        const unsigned before = plan_.Injected();
        const NTSTATUS status = call();
        if (NT_SUCCESS(status) || plan_.Injected() == before) return status;
        const NTSTATUS second = call();
        trial_.Check("memory.status", NT_SUCCESS(second),
                     nthost::StatusName(status) + " when memory was short, and then " + nthost::StatusName(second));
        return second;
    }
    bool Met() const { return plan_.Injected() != 0; }

private:
    Trial& trial_;
    nthost::FaultPlan plan_;
};

// The operations that need memory.
void UseMemory(Trial& trial, const std::string& place, ShortOfMemory& memory)
{
    const workbench::PluginTable& calls = trial.Calls();
    const std::string path = place + "\\file";
    workbench::PluginHandle made = {};
    (void)memory.Twice([&] { return (made = calls.Create(path)).Status; });
    Opened file(trial, made);
    if (!file.Works()) return;
    (void)memory.Twice([&] { return calls.Write(file.Fd, 0, std::string(5000, 'm')); });
    (void)memory.Twice([&] { return calls.Info(file.Fd).Status; });
    if (trial.Has(&PluginOps::SetEa)) (void)memory.Twice([&] { return calls.SetEa(file.Fd, "CHECK", "value"); });
    file.Close();
    (void)memory.Twice([&] { return calls.Lookup(path).Status; });
    workbench::PluginHandle opened = {};
    (void)memory.Twice([&] { return (opened = calls.OpenDir(place)).Status; });
    Opened directory(trial, opened);
    if (directory.Works()) (void)memory.Twice([&] { return calls.EntryAt(directory.Fd, 0).Status; });
    directory.Close();
    if (trial.Has(&PluginOps::Rename)) (void)memory.Twice([&] { return calls.Rename(path, path + "2"); });
    if (trial.Has(&PluginOps::Delete)) {
        (void)memory.Twice([&] {
            const NTSTATUS status = calls.Delete(path + "2");
            return status == STATUS_OBJECT_NAME_NOT_FOUND ? calls.Delete(path) : status;
        });
    }
}

void WorkAlone(Trial& trial, const std::string& place, const std::string& shared)
{
    const workbench::PluginTable& calls = trial.Calls();
    for (unsigned round = 0; round < 25; ++round) {
        const std::string path = place + "\\" + NumberText(round);
        const NTSTATUS made = calls.MakeFile(path, "content " + NumberText(round));
        if (!trial.Check("threads.work", NT_SUCCESS(made), nthost::StatusName(made))) return;
        {
            const Opened mine(trial, calls.Open(path)), common(trial, calls.Open(shared));
            NTSTATUS status;
            trial.Check("threads.work", calls.Read(mine.Fd, 0, 100, &status) == "content " + NumberText(round),
                        "other content than this thread wrote");
            trial.Check("threads.work", calls.Read(common.Fd, 0, 100, &status) == "shared",
                        "other content than was there");
        }
        if (trial.Has(&PluginOps::Rename))
            trial.Check("threads.work", NT_SUCCESS(calls.Rename(path, path + " moved")), Verifier::LastOutcome());
        const Opened directory(trial, calls.OpenDir(place));
        trial.Check("threads.work", NT_SUCCESS(calls.EntryAt(directory.Fd, 0).Status), Verifier::LastOutcome());
    }
}

// The requests of NT programs on a mounted volume, with all that is between them and the plugin.
class Requests {
public:
    Requests(Trial& trial, workbench::Volume& volume) : trial_(trial), volume_(volume) {}

    void Look()
    {
        Try("list the root", [&] { (void)volume_.List("/"); });
        Try("open the root", [&] { (void)volume_.Open("/", workbench::kListing); });
    }

    void Change()
    {
        Try("make a file, write it, and read it back", [&] {
            const workbench::File file = Create(kKept);
            file.Write(0, kContent, sizeof kContent - 1);
            file.Flush();
            ExpectContent(file);
        });
        Try("open it again", [&] { ExpectContent(volume_.Open(kKept)); });
        if (trial_.Has(&PluginOps::Rename)) Try("rename a file onto another one", [&] { Replace(); });
        if (trial_.Has(&PluginOps::Delete)) Try("delete a file", [&] { Delete(std::string(kKept) + "-to"); });
        if (!trial_.Choice().Keeps && trial_.Has(&PluginOps::Delete)) Try("delete a file", [&] { Delete(kKept); });
    }

    // Whether an open of the volume works. Nobody has asked for the unmount yet.
    bool StillMounted()
    {
        const NTSTATUS status = workbench::Open(volume_.NtPath("/"), workbench::kListing).Status;
        return trial_.CheckAt("mount.works", "the volume, after all requests",
                              NT_SUCCESS(status) && volume_.Plugin().Unmounted() == 0,
                              nthost::StatusName(status) + ": somebody has unmounted it");
    }

private:
    void Try(const char* what, const std::function<void()>& request)
    {
        std::string got;
        try {
            request();
        } catch (const std::exception& failure) {
            got = failure.what();
        }
        trial_.TakeFindings();
        trial_.CheckAt("mount.requests", what, got.empty(), got);
    }
    workbench::File Create(const std::string& path)
    {
        return volume_.Open(path, {.Access = FILE_GENERIC_READ | FILE_GENERIC_WRITE | DELETE,
                                   .Disposition = FILE_OVERWRITE_IF,
                                   .Options = FILE_NON_DIRECTORY_FILE});
    }
    static void ExpectContent(const workbench::File& file)
    {
        std::string bytes(100, '\0');
        bytes.resize(file.Read(0, bytes.data(), bytes.size()));
        if (bytes != kContent) throw std::runtime_error("'" + bytes + "' is read and not what was written");
    }
    void Replace()
    {
        const std::string from = std::string(kKept) + "-from", to = std::string(kKept) + "-to";
        {
            const workbench::File there = Create(to);
        }
        const workbench::File file = Create(from);
        workbench::Require("rename", workbench::Rename(file.Handle(), volume_.NtPath(to), true));
    }
    void Delete(const std::string& path)
    {
        {
            const workbench::File file = volume_.Open(path, {.Access = DELETE | SYNCHRONIZE});
            workbench::Require("delete", workbench::SetDelete(file.Handle(), true));
        }
        const NTSTATUS status = workbench::Open(volume_.NtPath(path)).Status;
        if (status != STATUS_OBJECT_NAME_NOT_FOUND)
            throw std::runtime_error("after the deletion an open gives " + nthost::StatusName(status));
    }

    Trial& trial_;
    workbench::Volume& volume_;
};

} // namespace

void CheckMemory(Trial& trial)
{
    const std::string place = trial.MakePlace("memory");
    if (place.empty()) return;
    constexpr unsigned kMost = 200;
    nthost::RunAsDriver([&] {
        bool met = true;
        for (unsigned nth = 1; met && nth <= kMost; ++nth) {
            ShortOfMemory memory(trial, nth);
            UseMemory(trial, place, memory);
            met = memory.Met();
        }
    });
    trial.Held("memory.status");
    trial.Remove(place);
}

void CheckThreads(Trial& trial)
{
    const std::string place = trial.MakePlace("threads");
    if (place.empty()) return;
    (void)trial.Calls().MakeFile(place + "\\shared", "shared");
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < trial.Choice().Threads; ++i) {
        const std::string own = place + "\\" + NumberText(i);
        (void)trial.Calls().MakeDir(own);
        threads.push_back(nthost::StartThread(
            nthost::HostProcess(), [&trial, own, shared = place + "\\shared"] { WorkAlone(trial, own, shared); }));
    }
    for (std::thread& thread : threads) thread.join();
    trial.Remove(place);
}

// A cancelled request's event is set, and the plugin may look at it or not.
void CheckCancel(Trial& trial)
{
    KEVENT cancel;
    const PluginOps* const table = trial.Table();
    const auto cancelled = [&](auto PluginOps::*slot, auto... args) {
        if (!(table->*slot)) return;
        KeInitializeEvent(&cancel, SynchronizationEvent, TRUE);
        const NTSTATUS first = (table->*slot)(table->PluginContext, &cancel, args...);
        const NTSTATUS second = trial.Calls().Call(slot, args...);
        trial.Check("cancel.survives", NT_SUCCESS(second),
                    nthost::StatusName(second) + " behind a cancelled one with " + nthost::StatusName(first));
    };
    const Text root("\\");
    PluginFileInfo* infos[2] = {};
    PluginAccessMask access = 0;
    const auto freeBoth = [](auto** blocks) {
        if (*blocks) ExFreePoolWithTag(*blocks, 0);
        *blocks = nullptr;
    };
    const auto look = [&](void* context, PKEVENT event) {
        const NTSTATUS status = table->Lookup(context, event, root.Get(), &infos[0], &access);
        freeBoth(&infos[0]);
        return status;
    };
    KeInitializeEvent(&cancel, SynchronizationEvent, TRUE);
    (void)look(table->PluginContext, &cancel);
    trial.Check("cancel.survives", NT_SUCCESS(trial.Calls().Lookup("\\").Status), Verifier::LastOutcome());
    const Opened directory(trial, trial.Calls().OpenDir("\\"));
    if (directory.Works() && trial.Has(&PluginOps::GetInfo)) {
        KeInitializeEvent(&cancel, SynchronizationEvent, TRUE);
        (void)table->GetInfo(table->PluginContext, &cancel, directory.Fd, &infos[1]);
        freeBoth(&infos[1]);
        trial.Check("cancel.survives", NT_SUCCESS(trial.Calls().Info(directory.Fd).Status), Verifier::LastOutcome());
    }
    if (!trial.CanChange()) return;
    const std::string place = trial.MakePlace("cancel");
    if (place.empty()) return;
    {
        const Opened file(trial, trial.Calls().Create(place + "\\file"));
        char bytes[100] = "content";
        ULONG length = sizeof bytes;
        cancelled(&PluginOps::Write, file.Fd, LONGLONG(0), &length, static_cast<const void*>(bytes));
        cancelled(&PluginOps::Read, file.Fd, LONGLONG(0), &length, static_cast<void*>(bytes));
        cancelled(&PluginOps::FlushFile, file.Fd);
    }
    trial.Remove(place);
}

void CheckMounted(Trial& trial, workbench::Host& host)
{
    nthost::SetDebugSink([&trial](std::string_view text) {
        // The driver's refusal of an open that is nested in other file-system work, on the thread that opens.
        if (Verifier::InOperation() && text.find("Create async:") != text.npos)
            trial.Verified().Break("call.no-reentry", Verifier::LastCall(), "opens on the volume that it serves");
    });
    std::unique_ptr<workbench::Volume> volume;
    std::string got;
    try {
        volume = std::make_unique<workbench::Volume>(host, trial.Table(), workbench::MountOptions{.Name = "Checked"});
    } catch (const std::exception& failure) {
        got = failure.what();
    }
    if (trial.CheckAt("mount.works", "the mount", got.empty(), got)) {
        Requests requests(trial, *volume);
        requests.Look();
        if (trial.CanChange() && trial.Has(&PluginOps::Write)) requests.Change();
        trial.Held("call.no-reentry");
        if (!requests.StillMounted()) volume->Forget();
        volume.reset();
    }
    nthost::SetDebugSink({});
    // Waits for what the driver has still to do after the plugin's last call, so that none of that counts as left.
    (void)host.UnloadDrivers();
}

void CheckKept(Trial& trial)
{
    const Opened file(trial, trial.Calls().Open(kKept));
    NTSTATUS status = file.Status;
    const std::string bytes = file.Works() ? trial.Calls().Read(file.Fd, 0, 100, &status) : std::string();
    trial.Check("remount.keeps", bytes == kContent, Verifier::LastOutcome() + ", content '" + bytes + "'");
    trial.Remove(kKept);
}

} // namespace checker
