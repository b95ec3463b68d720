// The order in which the components come up and go down.
#include <nthost/host.h>

#include <nthost/check.h>
#include <nthost/process.h>

#include "check/text.h"
#include "host/boot.h"
#include "host/builtin.h"
#include "host/loader.h"
#include "image/load.h"
#include "io/irp.h"
#include "io/manager.h"
#include "ke/describe.h"
#include "ke/exceptions.h"
#include "mm/memory.h"
#include "ob/object.h"
#include "zw/services.h"

namespace nthost {

namespace {

void ReportHandles(const char* name, PEPROCESS process, std::vector<std::string>* lines)
{
    for (const std::string& handle : ob::OpenHandles(process)) lines->push_back(Format("open in %s: ", name) + handle);
}

void ReportObjects(std::vector<std::string>* lines)
{
    for (const ob::LiveObject& object : ob::LiveObjects())
        lines->push_back(Format("object: %s \"%s\", %d references, %d handles", object.Type.c_str(),
                                object.Name.c_str(), object.Pointers, object.Handles));
}

void ReportRequests(std::vector<std::string>* lines)
{
    for (const io::OutstandingIrp& irp : io::OutstandingIrps()) {
        lines->push_back("request still out: " + irp.Text + "\n" + irp.Stack);
        ReportFinding("irp-outstanding", irp.Text);
    }
    io::AbandonOutstandingIrps();
}

} // namespace

void Boot(const BootOptions& options)
{
    ke::DescribeThreadsInReports();
    ke::TakeFaults();
    mm::Boot();
    ob::Boot();
    host::BootCore(options.SystemWorkers);
    zw::Boot();
    io::Boot();
    host::MakeBuiltinDevices();
}

LeakReport Shutdown()
{
    LeakReport report;
    ReportHandles("the first user process", HostProcess(), &report.Lines);
    ReportHandles("the system process", PsInitialSystemProcess, &report.Lines);
    // Closed while there are still workers to take what a close leaves to them.
    ob::CloseAllHandles(HostProcess());
    ob::CloseAllHandles(PsInitialSystemProcess);
    mm::EndSections(&report.Lines);
    io::AwaitDroppedFiles();
    host::RemoveBuiltinDevices();
    host::StopWorkers();
    ReportRequests(&report.Lines);
    ReportObjects(&report.Lines);
    host::ShutdownCore(report.Lines);
    zw::Shutdown();
    ob::Shutdown();
    ke::ReturnFaults();
    host::ForgetLoadedDrivers();
    image::Forget();
    return report;
}

} // namespace nthost
