// C entry points: the classes behind opaque pointers, exceptions turned into statuses.
#include "workbench/workbench_c.h"

#include <memory>
#include <new>
#include <stdexcept>

#include <nthost/debug.h>

#include "workbench/trace.h"
#include "workbench/user.h"
#include "workbench/volume.h"

struct WbHost {
    workbench::Host Host;
};

struct WbVolume {
    workbench::Volume Volume;
};

struct WbUser {
    workbench::AsUser User;
};

namespace {

template <typename Body>
NTSTATUS StatusOf(Body&& body)
{
    try {
        return body();
    } catch (const workbench::Failure& failure) {
        return failure.Status();
    } catch (const std::length_error&) {
        return STATUS_NAME_TOO_LONG;
    } catch (const std::bad_alloc&) {
        return STATUS_INSUFFICIENT_RESOURCES;
    } catch (const std::exception&) {
        return STATUS_INVALID_PARAMETER;
    }
}

std::string OrEmpty(const char* text) { return text ? text : ""; }

} // namespace

NTSTATUS WbStart(WbHost** host)
{
    return StatusOf([&] {
        auto made = std::make_unique<WbHost>();
        const NTSTATUS status = made->Host.LoadGvnd();
        if (NT_SUCCESS(status)) *host = made.release();
        return status;
    });
}

NTSTATUS WbLoadDriver(WbHost* host, const char* name, PDRIVER_INITIALIZE entry)
{
    return StatusOf([&] { return host->Host.Load(name, entry); });
}

int WbFinish(WbHost* host)
{
    const std::unique_ptr<WbHost> owned(host);
    const workbench::Report report = owned->Host.Finish();
    report.Print();
    return report.ExitCode();
}

void WbTrace(BOOLEAN on)
{
    workbench::PrintTrace(on ? workbench::TracePrinting::Everything : workbench::TracePrinting::Off);
}

const char* WbStatusName(NTSTATUS status)
{
    thread_local std::string name;
    name = nthost::StatusName(status);
    return name.c_str();
}

NTSTATUS WbMount(WbHost* host, const char* name, const char* sddl, const PluginOps* table, WbVolume** volume)
{
    return StatusOf([&] {
        *volume = new WbVolume{workbench::Volume(host->Host, table, {.Name = name, .Sddl = OrEmpty(sddl)})};
        return STATUS_SUCCESS;
    });
}

NTSTATUS WbUnmount(WbVolume* volume)
{
    const std::unique_ptr<WbVolume> owned(volume);
    return StatusOf([&] {
        owned->Volume.Unmount();
        return STATUS_SUCCESS;
    });
}

ULONG WbCallCount(WbVolume* volume, const char* operation)
{
    return static_cast<ULONG>(volume->Volume.Plugin().Count(operation));
}

void WbForgetCalls(WbVolume* volume) { volume->Volume.Plugin().Clear(); }

void WbFailCall(WbVolume* volume, const char* operation, NTSTATUS status, unsigned nth)
{
    volume->Volume.Plugin().Fail(operation, status, nth);
}

NTSTATUS WbOpen(WbVolume* volume, const char* path, const WbOpenHow* how, HANDLE* handle)
{
    return StatusOf([&] {
        workbench::OpenRequest request = {.Access = workbench::kReading};
        if (how) {
            request = {.Access = how->Access,
                       .Share = how->Share,
                       .Disposition = how->Disposition,
                       .Options = how->Options | FILE_SYNCHRONOUS_IO_NONALERT,
                       .Attributes = how->Attributes};
        }
        workbench::OpenResult opened = workbench::Open(volume->Volume.NtPath(path), request);
        *handle = opened.File.Release();
        return opened.Status;
    });
}

NTSTATUS WbClose(HANDLE handle) { return NtClose(handle); }

NTSTATUS WbRead(HANDLE file, LONGLONG offset, void* buffer, ULONG* length)
{
    return StatusOf([&] {
        const workbench::Outcome outcome = workbench::Read(file, buffer, *length, offset);
        *length = NT_SUCCESS(outcome.Status) ? static_cast<ULONG>(outcome.Information) : 0;
        return outcome.Status;
    });
}

NTSTATUS WbWrite(HANDLE file, LONGLONG offset, const void* buffer, ULONG* length)
{
    const workbench::Outcome outcome = workbench::Write(file, {static_cast<const char*>(buffer), *length}, offset);
    *length = NT_SUCCESS(outcome.Status) ? static_cast<ULONG>(outcome.Information) : 0;
    return outcome.Status;
}

NTSTATUS WbSetSize(HANDLE file, LONGLONG size) { return workbench::SetSize(file, size); }

NTSTATUS WbDelete(HANDLE file) { return workbench::SetDelete(file, true); }

NTSTATUS WbRename(WbVolume* volume, HANDLE file, const char* path, BOOLEAN replace)
{
    return StatusOf([&] { return workbench::Rename(file, volume->Volume.NtPath(path), replace); });
}

NTSTATUS WbList(WbVolume* volume, const char* path, const char* pattern,
                void (*each)(void* context, const WbEntry* entry), void* context)
{
    return StatusOf([&] {
        for (const workbench::Entry& entry : volume->Volume.List(path, OrEmpty(pattern))) {
            const WbEntry plain = {entry.Name.c_str(), entry.Attributes, entry.Size};
            each(context, &plain);
        }
        return STATUS_SUCCESS;
    });
}

NTSTATUS WbActAs(const char* sids, WbUser** user)
{
    return StatusOf([&] {
        *user = new WbUser{workbench::AsUser(workbench::UserOf(sids))};
        return STATUS_SUCCESS;
    });
}

void WbActAsSelf(WbUser* user) { delete user; }
