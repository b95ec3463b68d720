// Boot, load, mount, and the way back. A volume is mounted the way a kernel plugin mounts it: through the control
// device.
#include "gvnd/session.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include <fmt/format.h>

#include <gvnd/driver.h>
#include <hostfs/hostfs.h>
#include <gvnd/memfs.h>
#include <nthost/check.h>
#include <nthost/debug.h>
#include <nthost/host.h>
#include <nthost/requests.h>
#include <nthost/sections.h>

#include "gvnd/client.h"
#include "gvnd/eas.h"
#include "gvnd/status.h"

namespace tool {

namespace {

constexpr char kLink[] = "\\??\\Gvnd";

template <size_t N>
UNICODE_STRING Literal(const WCHAR (&text)[N])
{
    return {static_cast<USHORT>((N - 1) * sizeof(WCHAR)), static_cast<USHORT>(N * sizeof(WCHAR)),
            const_cast<WCHAR*>(text)};
}

void PrintTrace(std::string_view text) { std::fwrite(text.data(), 1, text.size(), stderr); }

} // namespace

Session::Session(bool trace)
{
    nthost::Boot();
    running_ = true;
    SetTrace(trace);
    Require("load the driver", nthost::LoadDriver("gvnd", GvndDriverEntry, &driver_));
}

Session::~Session()
{
    try {
        Finish();
    } catch (const std::exception& error) {
        fmt::print(stderr, "gvnd: {}\n", error.what());
    }
}

void Session::SetTrace(bool on) { nthost::SetDebugSink(on ? nthost::DebugSink(PrintTrace) : nthost::DebugSink()); }

uint64_t Session::Requests() const { return nthost::RequestsSent(); }

void Session::FetchServices()
{
    UNICODE_STRING name = Literal(GVND_CONTROL_DEVICE_NAME);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    IO_STATUS_BLOCK statusBlock{};
    HANDLE handle = nullptr;
    Require("open the control device",
            ZwCreateFile(&handle, FILE_READ_DATA | FILE_WRITE_DATA | SYNCHRONIZE, &attributes, &statusBlock, nullptr, 0,
                         FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0));
    const NTSTATUS status =
        ZwDeviceIoControlFile(handle, nullptr, nullptr, nullptr, &statusBlock, IOCTL_GVND_GET_SERVICE_TABLE, nullptr, 0,
                              &services_, sizeof services_);
    ZwClose(handle);
    Require("fetch the service table", status);
}

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
    layer_ = std::make_unique<layer::PluginLayer>(operations_);
}

void Session::DestroyPlugin()
{
    layer_.reset();
    if (operations_) plugin_.Plugin->Destroy(operations_);
    operations_ = nullptr;
}

void Session::Mount(const VolumeChoice& choice)
{
    FetchServices();
    MakePlugin(choice);
    UNICODE_STRING backing = Literal(L"\\Device\\Null");
    UNICODE_STRING device = Literal(L"\\Device\\Gvnd");
    UNICODE_STRING link = Literal(L"\\??\\Gvnd");
    NtText security(choice.Sddl);
    const PUNICODE_STRING descriptor = choice.Sddl.empty() ? nullptr : security.Get();
    const NTSTATUS status = services_->Mount(&backing, &device, &link, descriptor, layer_->Table(), &device_);
    if (!NT_SUCCESS(status)) DestroyPlugin();
    Require("mount " + choice.Plugin, status);
}

void Session::Unmount()
{
    if (!device_) return;
    nthost::TrimSections(); // what was mapped once still holds its file, and the volume goes with the last of them
    const PDEVICE_OBJECT device = std::exchange(device_, nullptr);
    Require("unmount", services_->UnmountRequest(device));
    layer_->WaitUntilUnmounted();
    DestroyPlugin();
}

std::string Session::VolumePath(const std::string& path)
{
    std::string result = path;
    std::replace(result.begin(), result.end(), '/', '\\');
    if (result.empty() || result.front() != '\\') result.insert(result.begin(), '\\');
    return result;
}

std::string Session::NtPath(const std::string& path) const { return kLink + VolumePath(path); }

std::string Session::VolumeName() const { return kLink; }

// The boundary knows how to follow links and not how to make them, so each plugin does it its own way: hostfs in its
// directory, memfs by an extended attribute; others do not say.
void Session::MakeLink(const std::string& path, const std::string& target)
{
    NtText text(VolumePath(target));
    if (plugin_.Plugin == GvHostfsPlugin()) {
        NtText name(VolumePath(path));
        return Require("make the link " + path, HostFsMakeLink(operations_, name.Get(), text.Get()));
    }
    if (plugin_.Plugin != GvMemfsPlugin()) throw Failure("make the link " + path, STATUS_NOT_SUPPORTED);
    OpenFile(NtPath(path), {.Access = FILE_WRITE_DATA | FILE_WRITE_EA | SYNCHRONIZE,
                            .Options = FILE_NON_DIRECTORY_FILE,
                            .Disposition = FILE_CREATE,
                            .Eas = EaList({{MEMFS_LINK_EA_NAME, std::string(text.Bytes())}})});
}

std::string Session::ReadLink(const std::string& path)
{
    const PluginOps* const table = Plugin().Table();
    NtText name(VolumePath(path));
    KEVENT cancel;
    KeInitializeEvent(&cancel, SynchronizationEvent, FALSE);
    PUNICODE_STRING target = nullptr, other = nullptr;
    const NTSTATUS status = table->ReadLink(table->PluginContext, &cancel, name.Get(), &target, &other);
    std::string text;
    if (NT_SUCCESS(status) && target) text = nthost::ToUtf8(target);
    if (target) ExFreePoolWithTag(target, 0);
    if (other) ExFreePoolWithTag(other, 0);
    Require("read the link " + path, status);
    return text;
}

void Session::RemoveLink(const std::string& path)
{
    const PluginOps* const table = Plugin().Table();
    NtText name(VolumePath(path));
    KEVENT cancel;
    KeInitializeEvent(&cancel, SynchronizationEvent, FALSE);
    Require("remove the link " + path, table->Delete(table->PluginContext, &cancel, name.Get()));
}

std::vector<std::string> Session::Finish()
{
    if (!std::exchange(running_, false)) return {};
    Unmount();
    std::vector<std::string> lines;
    nthost::LeakReport leaks;
    if (driver_) Require("unload the driver", nthost::UnloadDriver(std::exchange(driver_, nullptr), &leaks));
    lines = std::move(leaks.Lines);
    SetTrace(false);
    for (std::string& line : nthost::Shutdown().Lines) lines.push_back(std::move(line));
    for (const nthost::Finding& finding : nthost::TakeFindings()) lines.push_back(finding.Rule + ": " + finding.Detail);
    return lines;
}

} // namespace tool
