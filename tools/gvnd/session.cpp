// The plugin that the user chose, mounted, and what is done with its links.
#include "gvnd/session.h"

#include <fmt/format.h>
#include <gvnd/memfs.h>
#include <hostfs/hostfs.h>
#include <nthost/requests.h>
#include <workbench/plugin_table.h>
#include <workbench/trace.h>

#include "gvnd/client.h"
#include "gvnd/eas.h"
#include "gvnd/status.h"

namespace tool {

namespace {

constexpr char kName[] = "Gvnd";

} // namespace

Session::Session(bool trace, const std::string& image)
{
    SetTrace(trace);
    Require("load the driver " + image, host_.LoadGvnd(image));
}

Session::~Session()
{
    try {
        Finish();
    } catch (const std::exception& error) {
        fmt::print(stderr, "gvnd: {}\n", error.what());
    }
}

void Session::SetTrace(bool on) { workbench::PrintTrace(on); }

uint64_t Session::Requests() const { return nthost::RequestsSent(); }

void Session::MakeMemFs(const VolumeChoice& choice)
{
    MemFsOptions options{};
    options.CapacityBytes = choice.Capacity;
    Require("make an in-memory file system", MemFsCreate(&options, &operations_));
    destroy_ = [](PluginOps* operations) { MemFsDestroy(operations); };
    makeLink_ = [this](const std::string& path, const std::string& target) {
        const Text text(target);
        const std::string eas = EaList({{MEMFS_LINK_EA_NAME, std::string(text.Bytes())}});
        OpenFile(NtPath(path), {.Access = FILE_WRITE_DATA | FILE_WRITE_EA | SYNCHRONIZE,
                                .Disposition = FILE_CREATE,
                                .Options = FILE_NON_DIRECTORY_FILE,
                                .Eas = &eas});
    };
}

void Session::MakeHostFs(const VolumeChoice& choice, const std::string& root)
{
    HostFsOptions options{};
    options.Root = root.c_str();
    options.ReadOnly = choice.ReadOnly;
    Require(fmt::format("serve the directory '{}'", root), HostFsCreate(options, &operations_));
    destroy_ = HostFsDestroy;
    makeLink_ = [this](const std::string& path, const std::string& target) {
        Text name(path);
        Text text(target);
        Require("make the link " + path, HostFsMakeLink(operations_, name.Get(), text.Get()));
    };
}

void Session::MakePlugin(const VolumeChoice& choice)
{
    const std::string hostPrefix = "hostfs:";
    if (choice.Plugin == "memfs") {
        MakeMemFs(choice);
    } else if (choice.Plugin.starts_with(hostPrefix)) {
        MakeHostFs(choice, choice.Plugin.substr(hostPrefix.size()));
    } else {
        throw Usage(fmt::format("unknown plugin '{}'; there are memfs and hostfs:DIR", choice.Plugin));
    }
}

void Session::DestroyPlugin()
{
    volume_.reset();
    if (operations_) destroy_(operations_);
    operations_ = nullptr;
}

void Session::Mount(const VolumeChoice& choice)
{
    MakePlugin(choice);
    try {
        volume_.emplace(host_, operations_, workbench::MountOptions{.Name = kName, .Sddl = choice.Sddl});
    } catch (const Failure& failure) {
        DestroyPlugin();
        throw Failure("mount " + choice.Plugin, failure.Status());
    }
}

void Session::Unmount()
{
    if (!volume_) return;
    volume_->Unmount();
    DestroyPlugin();
}

std::string Session::NtPath(const std::string& path) const { return VolumeName() + VolumePath(path); }

std::string Session::VolumeName() const { return std::string("\\??\\") + kName; }

void Session::MakeLink(const std::string& path, const std::string& target)
{
    makeLink_(VolumePath(path), VolumePath(target));
}

std::string Session::ReadLink(const std::string& path)
{
    NTSTATUS status;
    const std::u16string target = workbench::PluginTable(Plugin().Table()).ReadLink(VolumePath(path), &status);
    Require("read the link " + path, status);
    return Text(target).Utf8();
}

void Session::RemoveLink(const std::string& path)
{
    Require("remove the link " + path, workbench::PluginTable(Plugin().Table()).Delete(VolumePath(path)));
}

workbench::Report Session::Finish()
{
    Unmount();
    return host_.Finish();
}

} // namespace tool
