// Boot, load, mount, and the way back.
#include "workbench/host.h"

#include <cstdio>
#include <utility>

#include <nthost/check.h>
#include <nthost/debug.h>
#include <nthost/image.h>
#include <nthost/sections.h>

#include "workbench/requests.h"

namespace workbench {

namespace {

void Move(std::vector<std::string>&& from, std::vector<std::string>* to)
{
    for (std::string& line : from) to->push_back(std::move(line));
}

} // namespace

void Report::Print() const
{
    for (const std::string& line : Lines) std::fprintf(stderr, "left behind: %s\n", line.c_str());
}

Host::Host(const nthost::BootOptions& options) { nthost::Boot(options); }

Host::~Host() { Finish(); }

NTSTATUS Host::Load(const std::string& name, PDRIVER_INITIALIZE entry)
{
    PDRIVER_OBJECT driver = nullptr;
    const NTSTATUS status = nthost::LoadDriver(name, entry, &driver);
    if (NT_SUCCESS(status)) drivers_.push_back({name, driver});
    return status;
}

NTSTATUS Host::LoadImage(const std::string& name, const std::string& path)
{
    PDRIVER_OBJECT driver = nullptr;
    const NTSTATUS status = nthost::LoadImage(name, path, &driver);
    if (NT_SUCCESS(status)) drivers_.push_back({name, driver});
    return status;
}

Report Host::UnloadDrivers()
{
    Report report;
    services_ = nullptr;
    for (; !drivers_.empty(); drivers_.pop_back()) {
        nthost::LeakReport leaks;
        const auto& [name, driver] = drivers_.back();
        if (const NTSTATUS status = nthost::UnloadDriver(driver, &leaks); !NT_SUCCESS(status)) {
            report.Lines.push_back("driver " + name + " does not unload: " + nthost::StatusName(status));
        }
        Move(std::move(leaks.Lines), &report.Lines);
    }
    return report;
}

Report Host::Finish()
{
    if (!std::exchange(running_, false)) return {};
    Report report = UnloadDrivers();
    nthost::SetDebugSink({});
    Move(nthost::Shutdown().Lines, &report.Lines);
    for (const nthost::Finding& finding : nthost::TakeFindings()) {
        report.Lines.push_back(finding.Rule + ": " + finding.Detail);
    }
    return report;
}

NTSTATUS Host::FetchServices()
{
    const OpenResult control =
        Open(Text(GVND_CONTROL_DEVICE_NAME), {.Access = FILE_READ_DATA | FILE_WRITE_DATA | SYNCHRONIZE,
                                              .Share = FILE_SHARE_READ | FILE_SHARE_WRITE,
                                              .Kernel = true});
    if (!NT_SUCCESS(control.Status)) return control.Status;
    IO_STATUS_BLOCK block{};
    return ZwDeviceIoControlFile(control.File.Get(), nullptr, nullptr, nullptr, &block, IOCTL_GVND_GET_SERVICE_TABLE,
                                 nullptr, 0, &services_, sizeof services_);
}

const GvServices* Host::Services()
{
    if (!services_ && !NT_SUCCESS(FetchServices())) return nullptr;
    return services_;
}

NTSTATUS Host::Mount(const MountOptions& options, const PluginOps* table, PDEVICE_OBJECT* device)
{
    if (!services_) {
        if (const NTSTATUS status = FetchServices(); !NT_SUCCESS(status)) return status;
    }
    Text backing("\\Device\\Null");
    Text name("\\Device\\" + options.Name);
    Text link("\\??\\" + options.Name);
    Text sddl(options.Sddl);
    return services_->Mount(backing, name, link, options.Sddl.empty() ? nullptr : sddl.Get(), table, device);
}

NTSTATUS Host::RequestUnmount(PDEVICE_OBJECT device)
{
    nthost::TrimSections();
    return services_->UnmountRequest(device);
}

} // namespace workbench
