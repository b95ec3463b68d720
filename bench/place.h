// Where the benchmarks work: a memfs volume mounted by the driver, and a directory of this machine's tmpfs with the
// same content. Both are made once and stay for the whole run, so that rounds of different cases can take turns.
// Failures end the program: a benchmark of something that failed says nothing.
#pragma once

#include <fcntl.h>
#include <optional>
#include <string>

#include <gvnd/memfs.h>
#include <workbench/host.h>
#include <workbench/plugin_table.h>

namespace bench {

[[noreturn]] void Fail(const std::string& what, NTSTATUS status);
[[noreturn]] void FailHost(const std::string& what); // by errno
inline void Require(NTSTATUS status, const char* what)
{
    if (!NT_SUCCESS(status)) Fail(what, status);
}

// nthost with the driver loaded, from construction to the end. One at a time.
class Host {
public:
    Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;
    ~Host();

    workbench::Host& Workbench() { return host_; }

private:
    workbench::Host host_;
};

// A path that can be opened on all three sides without any work left to do. Stays where it was made.
class Path {
public:
    // link is "\??\Name", path "\dir\file".
    Path(const std::string& link, const std::string& path);
    Path(const Path&) = delete;
    Path& operator=(const Path&) = delete;

    POBJECT_ATTRIBUTES ForDriver() const { return const_cast<POBJECT_ATTRIBUTES>(&attributes_); }
    PCUNICODE_STRING ForPlugin() const { return onVolume_; }
    const char* ForTmpfs() const { return relative_.c_str(); }

private:
    workbench::Text full_;
    workbench::Text onVolume_;
    OBJECT_ATTRIBUTES attributes_;
    std::string relative_;
};

// An empty volume and an empty directory, filled alike.
class Place {
public:
    Place(Host& host, const std::string& name);
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;
    ~Place();

    void MakeDirectory(const std::string& path);
    void MakeFile(const std::string& path, size_t bytes);
    void MakeLink(const std::string& path, const std::string& target);

    std::string Link() const { return "\\??\\" + name_; }
    const PluginOps* Plugin() const { return plugin_; }
    void* Context() const { return plugin_->PluginContext; }
    int Tmpfs() const { return tmpfs_; }

private:
    workbench::Host& host_;
    std::string name_;
    PluginOps* plugin_ = nullptr;
    std::optional<workbench::PluginTable> table_;
    PDEVICE_OBJECT device_ = nullptr;
    std::string directory_;
    int tmpfs_ = -1; // of directory_
};

// The cancel event that calls past the driver pass along; nobody sets it.
PKEVENT NoCancel();

// Sharing everything. For reading, a file that is there, and synchronous, unless told otherwise.
HANDLE OpenByDriver(const Path& path, ULONG options = FILE_SYNCHRONOUS_IO_NONALERT,
                    ACCESS_MASK access = FILE_GENERIC_READ, ULONG disposition = FILE_OPEN);
// The least that a program without the driver would call: Lookup, Open.
PluginFd OpenByPlugin(const Place& place, const Path& path, PluginAccessMask access = GVND_ACCESS_READ);
int OpenByTmpfs(const Place& place, const Path& path, int flags = O_RDONLY);

} // namespace bench
