// Filling, mounting and unmounting the small volume.

#include "open_volume.h"

#include <nthost/debug.h>
#include <nthost/registry.h>

#include "objects/fcb.h"
#include "objects/tree.h"
#include "volume/volume.h"

namespace opening {

namespace {

constexpr char kName[] = "Opening";

} // namespace

void VolumeTest::SetUp()
{
    HostFixture::SetUp();
    ASSERT_STATUS(STATUS_SUCCESS, MemFsCreate(nullptr, &memfs_));
    content_.emplace(memfs_);
    MakeFile("\\file", "0123456789");
    MakeFile("\\readonly", "fixed");
    SetAttributes("\\readonly", FILE_ATTRIBUTE_READONLY);
    MakeDir("\\dir");
    MakeFile("\\dir\\file", "in a directory");
    MakeDir("\\dir\\sub");
    MakeFile("\\dir\\sub\\deep", "deep");
    MakeDir("\\empty");
    MakeLink("\\link", "\\file");
    if (workers_) {
        ASSERT_STATUS(STATUS_SUCCESS, nthost::SetRegistryDword(support::kServiceKey, "NumVcbWorkers", workers_));
    }
    LoadGvndOrFail();
    Mount();
}

void VolumeTest::TearDown()
{
    if (volume_ && volume_->Mounted()) Unmount();
    DestroyContent();
    UnloadGvnd();
    volume_.reset();
    HostFixture::TearDown();
}

// Before the driver goes, whose unload reports every resource that is left.
void VolumeTest::DestroyContent()
{
    if (memfs_) MemFsDestroy(std::exchange(memfs_, nullptr));
}

void VolumeTest::Mount() { volume_.emplace(Host(), memfs_, workbench::MountOptions{.Name = kName}); }

void VolumeTest::Unmount()
{
    volume_->Unmount();
    DestroyContent();
    // The rest of the teardown follows OnUnmounted on a system worker, which the driver's unload waits for.
    UnloadGvnd();
}

void VolumeTest::MakeDir(const std::string& path) { EXPECT_STATUS(STATUS_SUCCESS, content_->MakeDir(path)) << path; }

void VolumeTest::MakeFile(const std::string& path, const std::string& content)
{
    EXPECT_STATUS(STATUS_SUCCESS, content_->MakeFile(path, content)) << path;
}

void VolumeTest::SetAttributes(const std::string& path, ULONG attributes)
{
    EXPECT_STATUS(STATUS_SUCCESS, content_->SetAttributes(path, attributes)) << path;
}

void VolumeTest::MakeLink(const std::string& path, const std::string& target)
{
    const Text text(target);
    const workbench::PluginTable::EaValue link = {MEMFS_LINK_EA_NAME, text.Bytes()};
    EXPECT_STATUS(STATUS_SUCCESS, content_->MakeFile(path, {}, &link)) << path;
}

OpenResult VolumeTest::Open(const std::string& path, const OpenRequest& request)
{
    return support::Open(request.Root ? path : volume_->Link() + path, request);
}

Handle VolumeTest::OpenOrFail(const std::string& path, const OpenRequest& request)
{
    OpenResult opened = Open(path, request);
    EXPECT_STATUS(STATUS_SUCCESS, opened.Status) << path;
    return std::move(opened.File);
}

Lines VolumeTest::TakeCalls()
{
    Lines lines;
    for (const layer::PluginCall& call : Plugin().Calls()) {
        std::string text = call.Text();
        // A lookup's out parameter, and a handle, whose number is the plugin's affair.
        if (call.Operation == "Lookup") text.resize(text.rfind(' '));
        if (const size_t fd = text.find(" #"); fd != std::string::npos) {
            const size_t end = text.find(' ', fd + 1);
            text.erase(fd, end == std::string::npos ? end : end - fd);
        }
        lines.push_back(text);
    }
    Plugin().Clear();
    return lines;
}

Vcb* VolumeTest::Volume() const { return GvVcbOf(Device()); }

Fcb* VolumeTest::Find(const std::string& path) const
{
    GvTreeEntry* entry = nullptr;
    const NTSTATUS status = GvTreeGetEntry(Volume()->FcbTables->NameTree, Text(path), &entry);
    return NT_SUCCESS(status) ? CONTAINING_RECORD(entry, Fcb, TreeEntry) : nullptr;
}

ULONG VolumeTest::FcbCount() const { return GvFcbGetFcbCount(Volume()->FcbTables); }

FileReference::FileReference(HANDLE handle)
{
    PVOID object = nullptr;
    const NTSTATUS status = ObReferenceObjectByHandle(handle, 0, IoFileObjectType, KernelMode, &object, nullptr);
    EXPECT_STATUS(STATUS_SUCCESS, status);
    file_ = static_cast<PFILE_OBJECT>(object);
}

FileReference::~FileReference()
{
    if (file_) ObDereferenceObject(file_);
}

} // namespace opening
