// Looks for what a driver left. Runs when none of the driver's code can run any more, so the pictures it takes are
// complete.
#include "host/leftovers.h"

#include <algorithm>

#include <nthost/check.h>
#include <nthost/debug.h>
#include <nthost/pool.h>

#include "check/text.h"
#include "ke/live.h"
#include "io/device.h"
#include "io/irp.h"
#include "ke/wait.h"
#include "ob/object.h"

namespace nthost::host {

namespace {

using Lines = std::vector<std::string>;

constexpr int64_t Patience = INT64_C(5'000'000'000);

UNICODE_STRING Counted(std::u16string& text)
{
    const auto length = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    return {length, length, reinterpret_cast<WCHAR*>(text.data())};
}

bool LeadsTo(const std::string& link, PDRIVER_OBJECT driver)
{
    std::u16string name = FromUtf8(link), remaining;
    const UNICODE_STRING path = Counted(name);
    void* object;
    if (!NT_SUCCESS(ob::LookupPath(&path, &object, &remaining))) return false;
    const bool leads =
        ob::TypeOf(object) == &io::DeviceType && static_cast<PDEVICE_OBJECT>(object)->DriverObject == driver;
    ObDereferenceObject(object);
    return leads;
}

std::vector<std::string> SymbolicLinks()
{
    std::vector<std::string> links;
    for (const ob::LiveObject& object : ob::LiveObjects())
        if (object.Type == "SymbolicLink") links.push_back(object.Name);
    return links;
}

void CollectDevices(PDRIVER_OBJECT driver, Lines* lines)
{
    for (PDEVICE_OBJECT device : io::DevicesOf(driver)) {
        lines->push_back("device " + ob::NameText(device) + " at " + HexText(device) + " was not deleted");
        if (!io::IsDeletePending(device)) IoDeleteDevice(device);
        ObDereferenceObject(device);
    }
}

void CollectLinks(const std::vector<std::string>& before, Lines* lines)
{
    const std::vector<std::string> now = SymbolicLinks();
    for (const std::string& link : before) {
        if (std::find(now.begin(), now.end(), link) == now.end()) continue;
        lines->push_back("symbolic link " + link + " was not deleted");
        std::u16string name = FromUtf8(link);
        const UNICODE_STRING path = Counted(name);
        (void)ob::DeleteSymbolicLink(&path);
    }
}

void CollectPool(const Departure& departure, Lines* lines)
{
    for (const PoolBlock& block : LivePoolBlocks(departure.PoolBefore))
        if (block.FromDriver && (departure.IsLast || departure.Driver.Tags.count(block.Tag)))
            lines->push_back(PoolBlockText(block));
}

void CollectRequests(const Departure& departure, Lines* lines)
{
    const auto& devices = departure.Devices;
    // Other drivers may be at work on requests of theirs.
    for (const io::OutstandingIrp& irp : io::OutstandingIrps(departure.IsLast ? nullptr : &devices)) {
        const bool isOwn = std::find(devices.begin(), devices.end(), irp.Device) != devices.end();
        if (!departure.IsLast && !isOwn) continue;
        lines->push_back("request still out: " + irp.Text + "\n" + irp.Stack);
        ReportFinding("irp-outstanding", irp.Text);
    }
}

} // namespace

std::vector<std::string> LinksTo(PDRIVER_OBJECT driver)
{
    std::vector<std::string> links = SymbolicLinks();
    std::erase_if(links, [driver](const std::string& link) { return !LeadsTo(link, driver); });
    return links;
}

bool AwaitDeletedDevices(PDRIVER_OBJECT driver)
{
    io::DriverBody* const body = io::BodyOf(driver);
    const auto onlyUndeleted = [&] {
        const std::vector<PDEVICE_OBJECT> devices = io::DevicesOf(driver);
        const bool none = std::none_of(devices.begin(), devices.end(), io::IsDeletePending);
        for (PDEVICE_OBJECT device : devices) ObDereferenceObject(device);
        return none && body->LiveDevices.load() == static_cast<LONG>(devices.size());
    };
    return body->Ended.Await(onlyUndeleted, ke::MonotonicNow() + Patience);
}

bool AwaitQueuedWork(PDRIVER_OBJECT driver)
{
    io::DriverBody* const body = io::BodyOf(driver);
    return body->Ended.Await([body] { return body->QueuedWork.load() == 0; }, ke::MonotonicNow() + Patience);
}

std::vector<std::string> CollectLeftovers(const Departure& departure)
{
    Lines lines;
    PDRIVER_OBJECT const driver = departure.Driver.Object;
    if (!AwaitDeletedDevices(driver)) lines.push_back("a deleted device is still referenced");
    CollectDevices(driver, &lines);
    CollectLinks(departure.Links, &lines);
    if (const LONG items = io::BodyOf(driver)->WorkItems.load())
        lines.push_back(std::to_string(items) + " work items were not freed");
    CollectRequests(departure, &lines);
    CollectPool(departure, &lines);
    if (departure.IsLast) ke::ReportLive(lines);
    return lines;
}

} // namespace nthost::host
