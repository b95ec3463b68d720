// Mounting and emptying.
#include "soak/volumes.h"

#include "objects/fcb.h"
#include "volume/volume.h"

namespace soak {

using namespace workbench;

namespace {

constexpr ULONGLONG kSmall = 600'000;

std::string Failed(const std::string& what, NTSTATUS status) { return Failure(what, status).what(); }

} // namespace

Volumes::Volumes(Host& host, const std::filesystem::path& directory) : host_(host), directory_(directory)
{
    for (unsigned i = 0; i < kCount; ++i) {
        MakeTable(i);
        Mount(i);
        links_.push_back(mounted_[i]->Link());
    }
}

Volumes::~Volumes()
{
    for (unsigned i = 0; i < kCount; ++i) {
        mounted_[i].reset();
        DestroyTable(i);
    }
}

void Volumes::MakeTable(unsigned which)
{
    NTSTATUS status;
    do {
        if (which == kDirectory) {
            HostFsOptions options;
            options.Root = directory_.c_str();
            status = HostFsCreate(options, &tables_[which]);
        } else {
            const MemFsOptions options = {.CapacityBytes = which ? kSmall : 0, .Label = nullptr, .SerialNumber = 0};
            status = MemFsCreate(&options, &tables_[which]);
        }
    } while (status == STATUS_INSUFFICIENT_RESOURCES); // a fault was injected
    Require("make a volume", status);
}

void Volumes::DestroyTable(unsigned which)
{
    if (which == kDirectory)
        HostFsDestroy(tables_[which]);
    else
        MemFsDestroy(tables_[which]);
}

void Volumes::Mount(unsigned which)
{
    for (;;) {
        try {
            auto volume =
                std::make_unique<Volume>(host_, tables_[which], MountOptions{.Name = "Soak" + std::to_string(which)});
            volume->Plugin().CountOnly(true);
            const std::lock_guard lock(mutex_);
            mounted_[which] = std::move(volume);
            return;
        } catch (const Failure&) { // a fault was injected
        }
    }
}

void Volumes::Remount(unsigned which)
{
    const std::lock_guard changing(change_);
    std::unique_ptr<Volume> volume;
    {
        const std::lock_guard lock(mutex_);
        volume = std::move(mounted_[which]);
        callsBefore_ += volume->Plugin().Total();
    }
    volume->Unmount();
    volume.reset();
    // The plugin is not told of handles that were open when the unmount was asked for; they go with its volume.
    DestroyTable(which);
    MakeTable(which);
    Mount(which);
}

uint64_t Volumes::PluginCalls()
{
    const std::lock_guard lock(mutex_);
    uint64_t calls = callsBefore_;
    for (const auto& volume : mounted_)
        if (volume) calls += volume->Plugin().Total();
    return calls;
}

ULONG Volumes::ControlBlocksOf(unsigned which) const
{
    return GvFcbGetFcbCount(GvVcbOf(mounted_[which]->Device())->FcbTables);
}

ULONG Volumes::ControlBlocks()
{
    const std::lock_guard changing(change_);
    ULONG blocks = 0;
    for (unsigned i = 0; i < kCount; ++i) blocks += ControlBlocksOf(i);
    return blocks;
}

std::string Volumes::EmptyBelow(const PluginTable& table, const std::string& directory)
{
    const auto [opened, fd] = table.OpenDir(directory);
    if (!NT_SUCCESS(opened)) return Failed("list " + directory, opened);
    std::vector<std::pair<std::string, bool>> entries;
    for (ULONG i = 0;; ++i) {
        const ListedEntry entry = table.EntryAt(fd, i);
        if (!NT_SUCCESS(entry.Status)) break;
        const std::string name = Text(entry.Name).Utf8();
        if (name != "." && name != "..")
            entries.emplace_back(directory + (directory == "\\" ? "" : "\\") + name,
                                 entry.Record.FileAttributes & FILE_ATTRIBUTE_DIRECTORY);
    }
    (void)table.Close(fd);
    for (const auto& [path, isDirectory] : entries) {
        if (isDirectory)
            if (const std::string wrong = EmptyBelow(table, path); !wrong.empty()) return wrong;
        (void)table.SetAttributes(path, isDirectory ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_NORMAL);
        if (const NTSTATUS status = table.Delete(path); !NT_SUCCESS(status)) return Failed("delete " + path, status);
    }
    return "";
}

std::string Volumes::Empty()
{
    const std::lock_guard changing(change_);
    for (unsigned i = 0; i < kCount; ++i) {
        if (const ULONG blocks = ControlBlocksOf(i))
            return std::to_string(blocks) + " control blocks are left of " + links_[i];
        if (const std::string wrong = EmptyBelow(PluginTable(tables_[i]), "\\"); !wrong.empty())
            return links_[i] + ": " + wrong;
    }
    return "";
}

} // namespace soak
