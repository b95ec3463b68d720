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
#include <vector>

#include <gvnd/driver.h>
#include <nthost/debug.h>
#include <nthost/host.h>
#include <nthost/sections.h>

#include "volume/volume.h"

namespace bench {

namespace {

// A UNICODE_STRING over text that outlives it.
UNICODE_STRING StringOver(std::u16string_view text)
{
    const auto bytes = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    return {bytes, bytes, reinterpret_cast<PWCH>(const_cast<char16_t*>(text.data()))};
}

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

Host::Host()
{
    nthost::Boot();
    Require(nthost::LoadDriver("gvnd", GvndDriverEntry, &driver_), "load the driver");
}

Host::~Host()
{
    nthost::LeakReport leaks;
    Require(nthost::UnloadDriver(driver_, &leaks), "unload the driver");
    for (std::string& line : nthost::Shutdown().Lines) leaks.Lines.push_back(std::move(line));
    for (const std::string& line : leaks.Lines) std::fprintf(stderr, "left behind: %s\n", line.c_str());
    if (!leaks.Clean()) std::_Exit(1);
}

Path::Path(const std::string& link, const std::string& path)
    : text_(nthost::FromUtf8(link + path)), relative_(Relative(path))
{
    full_ = StringOver(text_);
    onVolume_ = StringOver(std::u16string_view(text_).substr(nthost::FromUtf8(link).size()));
    InitializeObjectAttributes(&attributes_, &full_, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
}

Place::Place(const std::string& name) : name_(name), directory_("/dev/shm/gvnd_bench.XXXXXX")
{
    MemFsOptions options = {};
    Require(MemFsCreate(&options, &plugin_), "make a volume");
    const std::u16string backingText = u"\\Device\\Null";
    const std::u16string deviceText = nthost::FromUtf8("\\Device\\" + name);
    const std::u16string linkText = nthost::FromUtf8(Link());
    UNICODE_STRING backing = StringOver(backingText);
    UNICODE_STRING device = StringOver(deviceText);
    UNICODE_STRING link = StringOver(linkText);
    Require(GvMount(&backing, &device, &link, nullptr, plugin_, &device_), "mount");

    if (!mkdtemp(directory_.data())) FailHost(directory_);
    tmpfs_ = open(directory_.c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC);
    if (tmpfs_ < 0) FailHost(directory_);
}

Place::~Place()
{
    nthost::TrimSections(); // an idle one keeps its file open, and so the volume
    Require(GvUnmountRequest(device_), "unmount");
    MemFsWaitUntilUnmounted(plugin_);
    MemFsDestroy(plugin_);
    close(tmpfs_);
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

void Place::MakeDirectory(const std::string& path)
{
    const Path names(Link(), path);
    PluginFd fd = 0;
    Require(plugin_->CreateDir(Context(), NoCancel(), names.ForPlugin(), &fd), "make a directory");
    Require(plugin_->Close(Context(), NoCancel(), fd), "close a directory");
    if (mkdirat(tmpfs_, names.ForTmpfs(), 0700) != 0) FailHost(path);
}

void Place::MakeFile(const std::string& path, size_t bytes)
{
    const Path names(Link(), path);
    const std::vector<char> content(bytes, 'x');
    PluginFd fd = 0;
    Require(plugin_->Create(Context(), NoCancel(), names.ForPlugin(), &fd), "make a file");
    auto length = static_cast<ULONG>(bytes);
    if (bytes) Require(plugin_->Write(Context(), NoCancel(), fd, 0, &length, content.data()), "fill a file");
    Require(plugin_->Close(Context(), NoCancel(), fd), "close a file");

    const int file = openat(tmpfs_, names.ForTmpfs(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600);
    if (file < 0 || write(file, content.data(), bytes) != static_cast<ssize_t>(bytes)) FailHost(path);
    close(file);
}

void Place::MakeLink(const std::string& path, const std::string& target)
{
    const Path names(Link(), path);
    const Path to(Link(), target);
    PluginFd fd = 0;
    Require(plugin_->Create(Context(), NoCancel(), names.ForPlugin(), &fd), "make a link");
    Require(
        plugin_->SetEa(Context(), NoCancel(), fd, MEMFS_LINK_EA_NAME, to.ForPlugin()->Buffer, to.ForPlugin()->Length),
        "point a link");
    Require(plugin_->Close(Context(), NoCancel(), fd), "close a link");
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
