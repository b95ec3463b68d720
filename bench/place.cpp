// Booting, mounting, filling, and the way back.

#include "place.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include <nthost/debug.h>

namespace bench {

namespace {

std::string Relative(const std::string& path)
{
    std::string relative = path.substr(1);
    for (char& character : relative)
        if (character == '\\') character = '/';
    return relative;
}

} // namespace

void Fail(const std::string& what, NTSTATUS status)
{
    std::fprintf(stderr, "gvnd_bench: %s: %s\n", what.c_str(), nthost::StatusName(status).c_str());
    std::_Exit(1);
}

void FailHost(const std::string& what)
{
    std::fprintf(stderr, "gvnd_bench: %s: %s\n", what.c_str(), std::strerror(errno));
    std::_Exit(1);
}

Host::Host() { Require(host_.LoadGvnd(), "load the driver"); }

Host::~Host()
{
    const workbench::Report report = host_.Finish();
    report.Print();
    if (!report.Clean()) std::_Exit(1);
}

Path::Path(const std::string& link, const std::string& path)
    : full_(link + path), onVolume_(path), relative_(Relative(path))
{
    InitializeObjectAttributes(&attributes_, full_, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
}

Place::Place(Host& host, const std::string& name)
    : host_(host.Workbench()), name_(name), directory_("/dev/shm/gvnd_bench.XXXXXX")
{
    MemFsOptions options = {};
    Require(MemFsCreate(&options, &plugin_), "make a volume");
    table_.emplace(plugin_);
    Require(host_.Mount({.Name = name}, plugin_, &device_), "mount");

    if (!mkdtemp(directory_.data())) FailHost(directory_);
    tmpfs_ = open(directory_.c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC);
    if (tmpfs_ < 0) FailHost(directory_);
}

Place::~Place()
{
    Require(host_.RequestUnmount(device_), "unmount");
    MemFsWaitUntilUnmounted(plugin_);
    MemFsDestroy(plugin_);
    close(tmpfs_);
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

void Place::MakeDirectory(const std::string& path)
{
    const Path names(Link(), path);
    Require(table_->MakeDir(path), "make a directory");
    if (mkdirat(tmpfs_, names.ForTmpfs(), 0700) != 0) FailHost(path);
}

void Place::MakeFile(const std::string& path, size_t bytes)
{
    const Path names(Link(), path);
    const std::string content(bytes, 'x');
    Require(table_->MakeFile(path, content), "make a file");

    const int file = openat(tmpfs_, names.ForTmpfs(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600);
    if (file < 0 || write(file, content.data(), bytes) != static_cast<ssize_t>(bytes)) FailHost(path);
    close(file);
}

void Place::MakeLink(const std::string& path, const std::string& target)
{
    const Path names(Link(), path);
    const Path to(Link(), target);
    const workbench::Text text(target);
    const workbench::PluginTable::EaValue link = {MEMFS_LINK_EA_NAME, text.Bytes()};
    Require(table_->MakeFile(path, {}, &link), "make a link");
    if (symlinkat(to.ForTmpfs(), tmpfs_, names.ForTmpfs()) != 0) FailHost(path);
}

PKEVENT NoCancel()
{
    static KEVENT event = [] {
        KEVENT made;
        KeInitializeEvent(&made, SynchronizationEvent, FALSE);
        return made;
    }();
    return &event;
}

HANDLE OpenByDriver(const Path& path, ULONG options, ACCESS_MASK access, ULONG disposition)
{
    HANDLE handle = nullptr;
    IO_STATUS_BLOCK statusBlock;
    Require(NtCreateFile(&handle, access, path.ForDriver(), &statusBlock, nullptr, 0,
                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, disposition, options, nullptr, 0),
            "open");
    return handle;
}

PluginFd OpenByPlugin(const Place& place, const Path& path, PluginAccessMask wanted)
{
    const PluginOps* const plugin = place.Plugin();
    PluginFileInfo* info = nullptr;
    PluginAccessMask access;
    Require(plugin->Lookup(place.Context(), NoCancel(), path.ForPlugin(), &info, &access), "Lookup");
    const bool isDirectory = info->FileAttributes & FILE_ATTRIBUTE_DIRECTORY;
    ExFreePoolWithTag(info, 0);
    PluginFd fd = 0;
    Require((isDirectory ? plugin->OpenDir : plugin->Open)(place.Context(), NoCancel(), path.ForPlugin(), wanted, &fd),
            "Open");
    return fd;
}

int OpenByTmpfs(const Place& place, const Path& path, int flags)
{
    const int file = openat(place.Tmpfs(), path.ForTmpfs(), flags | O_CLOEXEC, 0600);
    if (file < 0) FailHost(path.ForTmpfs());
    return file;
}

} // namespace bench
