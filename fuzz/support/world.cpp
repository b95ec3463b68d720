// Boot once, then mount and unmount for each input.
#include "support/world.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include <nthost/check.h>
#include <nthost/pool.h>
#include <nthost/process.h>
#include <nthost/registry.h>

namespace fuzz {

namespace {

constexpr char kServiceKey[] = "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\gvnd";

std::vector<nthost::PoolBlock> Left(uint64_t serial)
{
    std::vector<nthost::PoolBlock> left = nthost::LivePoolBlocks(serial);
    std::erase_if(left, [](const nthost::PoolBlock& block) { return !block.FromDriver; });
    return left;
}

} // namespace

workbench::Host& TheHost()
{
    static workbench::Host* const host = [] {
        auto* const made = new workbench::Host;
        // Threads are what a mount costs, and two are enough to run beside each other.
        workbench::Require("set the number of workers", nthost::SetRegistryDword(kServiceKey, "NumVcbWorkers", 2));
        workbench::Require("load the driver", made->LoadGvnd());
        return made;
    }();
    return *host;
}

void Fail(const char* what, const std::string& detail)
{
    std::fprintf(stderr, "%s: %s\n", what, detail.c_str());
    std::abort();
}

void ExpectNoFindings()
{
    for (const nthost::Finding& finding : nthost::TakeFindings())
        Fail(finding.Rule.c_str(), finding.Detail + "\n" + finding.Stack);
}

Balanced::Balanced() : serial_(nthost::PoolAllocations()) {}

Balanced::~Balanced()
{
    ExpectNoFindings();
    // Only a leak takes the whole time.
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    std::vector<nthost::PoolBlock> left;
    while (!(left = Left(serial_)).empty() && std::chrono::steady_clock::now() < end) std::this_thread::yield();
    if (!left.empty()) Fail("pool block left", nthost::PoolBlockText(left.front()));
}

MemfsTable::MemfsTable()
{
    const MemFsOptions options = {.CapacityBytes = 4 << 20, .Label = nullptr, .SerialNumber = 1};
    workbench::Require("make a memfs", MemFsCreate(&options, &operations_));
    const workbench::PluginTable table(operations_);
    for (const char* directory : {"\\dir", "\\dir\\sub"}) (void)table.Close(table.CreateDir(directory).Fd);
    for (const char* file : {"\\file", "\\link", "\\dir\\file", "\\dir\\sub\\deep", "\\caf\xc3\xa9"}) {
        const PluginFd fd = table.Create(file).Fd;
        (void)table.Write(fd, 0, "0123456789");
        if (std::string(file) == "\\link") {
            workbench::Text target("\\file");
            (void)table.Call(&PluginOps::SetEa, fd, MEMFS_LINK_EA_NAME, static_cast<const void*>(target->Buffer),
                             static_cast<ULONG>(target->Length));
        }
        (void)table.Close(fd);
    }
}

MemfsTable::~MemfsTable() { MemFsDestroy(operations_); }

void UseVolume(const GvndPlugin* plugin, PluginOps* honest, const PluginOps* table,
               const std::function<void(const std::string& link)>& use)
{
    // Another name each time: the device of the last volume goes at some moment after its plugin's last call.
    static unsigned uses;
    const std::string name = "Fuzzed" + std::to_string(uses++ % 64);
    PDEVICE_OBJECT device = nullptr;
    workbench::Require("mount", TheHost().Mount({.Name = name}, table, &device));
    {
        nthost::Process process("hostile");
        nthost::ActAs acting(process.Object());
        use("\\??\\" + name);
    }
    workbench::Require("unmount", TheHost().RequestUnmount(device));
    plugin->WaitUntilUnmounted(honest);
}

} // namespace fuzz
