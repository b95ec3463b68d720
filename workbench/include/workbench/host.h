// The kernel interface from boot to shutdown, the driver, and mounting by the driver's services. One at a time; it ends
// on the thread that made it.
#pragma once

#include <string>
#include <vector>

#include <gvnd/plugin.h>
#include <nthost/host.h>

namespace workbench {

// What was left at the end: leaks, drivers that would not go, and findings ("rule: detail"), which nthost has printed
// with their stacks when it met them.
struct Report {
    std::vector<std::string> Lines;
    bool Clean() const { return Lines.empty(); }
    // Of a program that did all it had to do: 0, or 4 when something was left.
    int ExitCode() const { return Clean() ? 0 : 4; }
    // "left behind: ..." on standard error.
    void Print() const;
};

// A volume's names and who may open it.
struct MountOptions {
    std::string Name = "Volume"; // \Device\Name and \??\Name
    std::string Sddl = {};       // empty: everybody may
};

// A path that the environment gives, or nothing. GVND_IMAGE stands for the driver, GVND_MEMFS_IMAGE for the plugin that
// is a driver of its own: so that every program that uses this library can be run on what is shipped.
std::string ImageOfEnvironment(const char* variable);

class Host {
public:
    explicit Host(const nthost::BootOptions& options = {});
    // Finish, if nobody has asked for the report.
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    // The driver itself, or the kernel image of it; the status of its entry.
    [[nodiscard]] NTSTATUS LoadGvnd(const std::string& image = ImageOfEnvironment("GVND_IMAGE"));
    PDRIVER_OBJECT Gvnd() const;
    // Another driver, such as a plugin that is one.
    [[nodiscard]] NTSTATUS Load(const std::string& name, PDRIVER_INITIALIZE entry);
    // The same from a kernel image (nthost/image.h).
    [[nodiscard]] NTSTATUS LoadImage(const std::string& name, const std::string& path);
    // All of them, the last loaded first; what they left.
    Report UnloadDrivers();
    // Unloads and shuts down. All volumes must be unmounted.
    Report Finish();

    // The driver's table of services, fetched as a kernel plugin fetches it; null if the driver is not there.
    const GvServices* Services();
    // Through that. The table must stay until its
    // OnUnmounted has returned; volume.h waits for that.
    [[nodiscard]] NTSTATUS Mount(const MountOptions& options, const PluginOps* table, PDEVICE_OBJECT* device);
    // Idle sections go first: one keeps its file open, and so the volume.
    [[nodiscard]] NTSTATUS RequestUnmount(PDEVICE_OBJECT device);

private:
    struct Loaded {
        std::string Name;
        PDRIVER_OBJECT Driver;
    };
    NTSTATUS FetchServices();

    std::vector<Loaded> drivers_;
    const GvServices* services_ = nullptr;
    bool running_ = true;
};

} // namespace workbench
