// A mounted volume with a small tree on it, for tests of opening, reading and listing: memfs behind the recording
// layer, filled through its table before the mount. Each test's end asserts that the volume unmounts and leaves
// nothing.
#pragma once

#include <functional>
#include <optional>
#include <thread>

#include <gvnd/memfs.h>
#include <nthost/process.h>
#include <workbench/plugin_table.h>
#include <workbench/volume.h>

#include "frame/records.h"
#include "support/client.h"
#include "support/host.h"

namespace opening {

using support::Handle;
using support::kShareAll;
using support::OpenRequest;
using support::OpenResult;
using support::Text;

using Lines = std::vector<std::string>;

constexpr ULONG kSynchronous = FILE_SYNCHRONOUS_IO_NONALERT;

// \file (10 bytes "0123456789"), \readonly, \dir\file, \dir\sub\deep, \empty, \link -> \file
class VolumeTest : public support::HostFixture {
protected:
    void SetUp() override;
    void TearDown() override;

    static std::thread InTheBackground(std::function<void()> body)
    {
        return nthost::StartThread(nthost::HostProcess(), std::move(body));
    }

    // Content. Also while mounted: a change behind the driver's back.
    void MakeDir(const std::string& path);
    void MakeFile(const std::string& path, const std::string& content = {});
    void SetAttributes(const std::string& path, ULONG attributes);
    void MakeLink(const std::string& path, const std::string& target);

    // Before SetUp: the size of the volume's worker pool; 0 leaves the default.
    void SetWorkers(ULONG count) { workers_ = count; }
    void Mount();
    // The door shuts; returns once the volume is gone.
    void Unmount();
    // The test has asked for the unmount itself.
    void ForgetDevice() { volume_->Forget(); }

    OpenResult Open(const std::string& path, const OpenRequest& request = {});
    // Must succeed.
    Handle OpenOrFail(const std::string& path, const OpenRequest& request = {});

    layer::PluginLayer& Plugin() { return volume_->Plugin(); }
    // What the plugin heard since the last call of this, handles left out: "Lookup \\a", "Open \\a 9", "Close".
    Lines TakeCalls();

    PDEVICE_OBJECT Device() const { return volume_->Device(); }
    Vcb* Volume() const;
    // The live control block of a path, or null; no reference.
    Fcb* Find(const std::string& path) const;
    // Control blocks on both trees: 0 when nothing is open and nothing stayed behind.
    ULONG FcbCount() const;

private:
    void DestroyContent();

    PluginOps* memfs_ = nullptr;
    std::optional<workbench::PluginTable> content_;
    std::optional<workbench::Volume> volume_;
    ULONG workers_ = 0;
};

// The file object behind a handle, referenced while this lives.
class FileReference {
public:
    explicit FileReference(HANDLE handle);
    FileReference(const FileReference&) = delete;
    FileReference& operator=(const FileReference&) = delete;
    ~FileReference();
    PFILE_OBJECT Get() const { return file_; }
    PFILE_OBJECT operator->() const { return file_; }
    // Earlier than the end of the scope.
    void Drop() { ObDereferenceObject(std::exchange(file_, nullptr)); }

private:
    PFILE_OBJECT file_ = nullptr;
};

} // namespace opening
