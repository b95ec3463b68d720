// The plugin that the user chose, mounted, and what is done with its links.
#include "gvnd/session.h"

#include <checker/checker.h>
#include <fmt/format.h>
#include <gvnd/memfs.h>
#include <hostfs/hostfs.h>
#include <nthost/requests.h>
#include <workbench/plugin_table.h>

#include "gvnd/client.h"
#include "gvnd/eas.h"
#include "gvnd/status.h"

namespace tool {

namespace {

constexpr char kName[] = "Gvnd";

} // namespace

Session::Session(bool trace, const std::string& image)
{
    SetTrace(trace ? workbench::TracePrinting::Everything : workbench::TracePrinting::Off);
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

void Session::SetTrace(workbench::TracePrinting what) { workbench::PrintTrace(what); }

uint64_t Session::Requests() const { return nthost::RequestsSent(); }

void Session::MakePlugin(const VolumeChoice& choice)
{
    plugin_ = ChoosePlugin(choice.Plugin);
    std::string arguments = plugin_.Arguments;
    if (plugin_.Plugin == GvMemfsPlugin() && choice.Capacity) {
        if (!arguments.empty()) arguments += ',';
        arguments += fmt::format("capacity={}", choice.Capacity);
    }
    if (plugin_.Plugin == GvHostfsPlugin() && choice.ReadOnly) arguments = "ro:" + arguments;
    Require(fmt::format("make a volume of {}", choice.Plugin), plugin_.Plugin->Create(arguments.c_str(), &operations_));
}

void Session::DestroyPlugin()
{
    volume_.reset();
    verifier_.reset();
    if (operations_) plugin_.Plugin->Destroy(operations_);
    operations_ = nullptr;
}

void Session::Mount(const VolumeChoice& choice)
{
    MakePlugin(choice);
    try {
        PluginOps* table = operations_;
        if (choice.Verify) {
            verifier_ = std::make_unique<checker::Verifier>(operations_, [this](const checker::Breach& breach) {
                atFault_ = true;
                fmt::print(stderr, "{}", checker::AsText(breach));
            });
            table = verifier_->Table();
        }
        volume_.emplace(host_, table, workbench::MountOptions{.Name = kName, .Sddl = choice.Sddl});
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

// The boundary knows how to follow links and not how to make them, so each plugin does it its own way: hostfs in its
// directory, memfs by an extended attribute; others do not say.
void Session::MakeLink(const std::string& path, const std::string& target)
{
    Text text(VolumePath(target));
    if (plugin_.Plugin == GvHostfsPlugin()) {
        Text name(VolumePath(path));
        return Require("make the link " + path, HostFsMakeLink(operations_, name.Get(), text.Get()));
    }
    if (plugin_.Plugin != GvMemfsPlugin()) throw Failure("make the link " + path, STATUS_NOT_SUPPORTED);
    const std::string eas = EaList({{MEMFS_LINK_EA_NAME, std::string(text.Bytes())}});
    OpenFile(NtPath(path), {.Access = FILE_WRITE_DATA | FILE_WRITE_EA | SYNCHRONIZE,
                            .Disposition = FILE_CREATE,
                            .Options = FILE_NON_DIRECTORY_FILE,
                            .Eas = &eas});
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
