// Filling, mounting and unmounting the small volume.

#include "open_volume.h"

#include <nthost/debug.h>
#include <nthost/registry.h>

#include "objects/fcb.h"
#include "objects/tree.h"
#include "volume/volume.h"

namespace opening {

namespace {

constexpr char kLink[] = "\\??\\Opening";

} // namespace

void VolumeTest::SetUp()
{
    HostFixture::SetUp();
    KeInitializeEvent(&cancel_, SynchronizationEvent, FALSE);
    ASSERT_STATUS(STATUS_SUCCESS, MemFsCreate(nullptr, &memfs_));
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
    if (device_) Unmount();
    DestroyContent();
    UnloadGvnd();
    layer_.reset();
    HostFixture::TearDown();
}

// Before the driver goes, whose unload reports every resource that is left.
void VolumeTest::DestroyContent()
{
    if (memfs_) MemFsDestroy(std::exchange(memfs_, nullptr));
}

void VolumeTest::Mount()
{
    layer_ = std::make_unique<layer::PluginLayer>(memfs_);
    ASSERT_STATUS(STATUS_SUCCESS, GvMount(Text("\\Device\\Null"), Text("\\Device\\Opening"), Text(kLink), nullptr,
                                          layer_->Table(), &device_));
}

void VolumeTest::Unmount()
{
    EXPECT_STATUS(STATUS_SUCCESS, GvUnmountRequest(std::exchange(device_, nullptr)));
    layer_->WaitUntilUnmounted();
    DestroyContent();
    // The rest of the teardown follows OnUnmounted on a system worker, which the driver's unload waits for.
    UnloadGvnd();
}

void VolumeTest::ForgetDevice() { device_ = nullptr; }

PluginFd VolumeTest::MadeBy(PluginCreateFn PluginOps::*slot, const std::string& path)
{
    PluginFd fd = 0;
    EXPECT_STATUS(STATUS_SUCCESS, (memfs_->*slot)(memfs_->PluginContext, &cancel_, Text(path), &fd)) << path;
    return fd;
}

PluginFd VolumeTest::OpenedBy(PluginOpenFn PluginOps::*slot, const std::string& path, PluginAccessMask access)
{
    PluginFd fd = 0;
    EXPECT_STATUS(STATUS_SUCCESS, (memfs_->*slot)(memfs_->PluginContext, &cancel_, Text(path), access, &fd)) << path;
    return fd;
}

void VolumeTest::CloseFd(PluginFd fd)
{
    EXPECT_STATUS(STATUS_SUCCESS, memfs_->Close(memfs_->PluginContext, &cancel_, fd));
}

void VolumeTest::MakeDir(const std::string& path) { CloseFd(MadeBy(&PluginOps::CreateDir, path)); }

void VolumeTest::MakeFile(const std::string& path, const std::string& content)
{
    const PluginFd fd = MadeBy(&PluginOps::Create, path);
    auto length = static_cast<ULONG>(content.size());
    EXPECT_STATUS(STATUS_SUCCESS, memfs_->Write(memfs_->PluginContext, &cancel_, fd, 0, &length, content.data()));
    CloseFd(fd);
}

void VolumeTest::SetAttributes(const std::string& path, ULONG attributes)
{
    const PluginFd fd = OpenedBy(&PluginOps::Open, path, GVND_ACCESS_READ);
    EXPECT_STATUS(STATUS_SUCCESS, memfs_->SetAttr(memfs_->PluginContext, &cancel_, fd, attributes));
    CloseFd(fd);
}

void VolumeTest::MakeLink(const std::string& path, const std::string& target)
{
    const PluginFd fd = MadeBy(&PluginOps::Create, path);
    Text text(target);
    const PUNICODE_STRING string = text.Get();
    EXPECT_STATUS(STATUS_SUCCESS, memfs_->SetEa(memfs_->PluginContext, &cancel_, fd, MEMFS_LINK_EA_NAME, string->Buffer,
                                                string->Length));
    CloseFd(fd);
}

OpenResult VolumeTest::Open(const std::string& path, const OpenRequest& request)
{
    return support::Open(request.Root ? path : kLink + path, request);
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
    for (const layer::PluginCall& call : layer_->Calls()) {
        std::string text = call.Text();
        // A lookup's out parameter, and a handle, whose number is the plugin's affair.
        if (call.Operation == "Lookup") text.resize(text.rfind(' '));
        if (const size_t fd = text.find(" #"); fd != std::string::npos) {
            const size_t end = text.find(' ', fd + 1);
            text.erase(fd, end == std::string::npos ? end : end - fd);
        }
        lines.push_back(text);
    }
    layer_->Clear();
    return lines;
}

Vcb* VolumeTest::Volume() const { return GvVcbOf(device_); }

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
