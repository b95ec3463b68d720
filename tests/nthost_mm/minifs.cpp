// The driver, and short forms of the services on sections.
#include "minifs.h"

#include <cstring>

#include <nthost/debug.h>

namespace minifs {

FileSystem* fs;

namespace {

constexpr ULONG WriteCode = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x801, METHOD_NEITHER, FILE_ANY_ACCESS);

PDEVICE_OBJECT g_device;
FAST_IO_DISPATCH g_callbacks;

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

Fcb* FcbOf(PFILE_OBJECT file) { return CONTAINING_RECORD(file->FsContext, Fcb, Header); }

// Marks the thread as inside of a request, and holds the file's lock if it was not.
class Entry {
public:
    Entry(Fcb* fcb, PIRP irp, bool exclusive) : fcb_(fcb), topLevel_(!IoGetTopLevelIrp())
    {
        if (!topLevel_) return;
        IoSetTopLevelIrp(irp);
        KeEnterCriticalRegion();
        if (exclusive)
            ExAcquireResourceExclusiveLite(&fcb->Resource, TRUE);
        else
            ExAcquireResourceSharedLite(&fcb->Resource, TRUE);
    }
    ~Entry()
    {
        if (!topLevel_) return;
        ExReleaseResourceLite(&fcb_->Resource);
        KeLeaveCriticalRegion();
        IoSetTopLevelIrp(nullptr);
    }

private:
    Fcb* fcb_;
    bool topLevel_;
};

Seen Describe(PIRP irp)
{
    const IO_STACK_LOCATION* const location = IoGetCurrentIrpStackLocation(irp);
    return {location->MajorFunction,
            irp->Flags,
            location->Parameters.Read.ByteOffset.QuadPart,
            location->Parameters.Read.Length,
            PsGetCurrentThreadId(),
            KeGetCurrentIrql(),
            !IoGetTopLevelIrp(),
            irp->MdlAddress && (irp->MdlAddress->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA)};
}

char* BufferOf(PIRP irp)
{
    if (!irp->MdlAddress) return static_cast<char*>(irp->UserBuffer);
    return static_cast<char*>(
        MmMapLockedPagesSpecifyCache(irp->MdlAddress, KernelMode, MmCached, nullptr, FALSE, NormalPagePriority));
}

[[gnu::noinline]] bool Copy(char* to, const char* from, size_t length)
{
    NT_GUARD guard;
    if (!NtGuardEnter(&guard)) return false;
    memcpy(to, from, length);
    NtGuardLeave(&guard);
    return true;
}

NTSTATUS DoRead(Fcb* fcb, const Seen& seen, char* buffer, ULONG_PTR* read)
{
    if (seen.Offset >= static_cast<LONGLONG>(fcb->Data.size())) return STATUS_END_OF_FILE;
    *read = std::min<size_t>(seen.Length, fcb->Data.size() - static_cast<size_t>(seen.Offset));
    return Copy(buffer, fcb->Data.data() + seen.Offset, *read) ? STATUS_SUCCESS : STATUS_INVALID_USER_BUFFER;
}

// A paging write moves no size.
NTSTATUS DoWrite(Fcb* fcb, const Seen& seen, const char* buffer)
{
    const auto end = static_cast<size_t>(seen.Offset) + seen.Length;
    if (!seen.IsPaging() && end > fcb->Data.size()) fcb->Data.resize(end);
    const size_t size = fcb->Data.size();
    const auto at = static_cast<size_t>(seen.Offset);
    const size_t length = at < size ? std::min<size_t>(seen.Length, size - at) : 0;
    if (!seen.IsPaging() && fcb->Pointers.DataSectionObject) {
        IO_STATUS_BLOCK flushed;
        CcFlushCache(&fcb->Pointers, nullptr, 0, &flushed);
        CcPurgeCacheSection(&fcb->Pointers, nullptr, 0, FALSE);
    }
    return Copy(fcb->Data.data() + at, buffer, length) ? STATUS_SUCCESS : STATUS_INVALID_USER_BUFFER;
}

NTSTATUS Transfer(PIRP irp, const Seen& seen, char* buffer)
{
    Fcb* const fcb = FcbOf(IoGetCurrentIrpStackLocation(irp)->FileObject);
    fs->Note(seen);
    if (fs->Before)
        if (const NTSTATUS status = fs->Before(seen); !NT_SUCCESS(status)) return Complete(irp, status);
    if (!buffer) return Complete(irp, STATUS_INSUFFICIENT_RESOURCES);
    ULONG_PTR moved = seen.Length;
    NTSTATUS status;
    {
        const Entry entry(fcb, irp, seen.Major == IRP_MJ_WRITE && !seen.IsPaging());
        status = seen.Major == IRP_MJ_READ ? DoRead(fcb, seen, buffer, &moved) : DoWrite(fcb, seen, buffer);
    }
    return Complete(irp, status, NT_SUCCESS(status) ? moved : 0);
}

NTSTATUS NTAPI ReadOrWrite(PDEVICE_OBJECT, PIRP irp)
{
    const Seen seen = Describe(irp);
    return Transfer(irp, seen, BufferOf(irp));
}

// An application's write: data in the input buffer, the offset as the output's length.
NTSTATUS NTAPI Control(PDEVICE_OBJECT, PIRP irp)
{
    const auto& control = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
    Seen seen = Describe(irp);
    seen.Major = IRP_MJ_WRITE;
    seen.Offset = control.OutputBufferLength;
    seen.Length = control.InputBufferLength;
    return Transfer(irp, seen, static_cast<char*>(control.Type3InputBuffer));
}

NTSTATUS NTAPI Create(PDEVICE_OBJECT, PIRP irp)
{
    PFILE_OBJECT const file = IoGetCurrentIrpStackLocation(irp)->FileObject;
    Fcb* const fcb = fs->File(nthost::ToUtf8(&file->FileName));
    file->FsContext = &fcb->Header;
    if (!fs->NoSectionPointers) file->SectionObjectPointer = &fcb->Pointers;
    return Complete(irp, STATUS_SUCCESS, FILE_OPENED);
}

NTSTATUS NTAPI Cleanup(PDEVICE_OBJECT, PIRP irp) { return Complete(irp, STATUS_SUCCESS); }

NTSTATUS NTAPI Close(PDEVICE_OBJECT, PIRP irp)
{
    Seen seen = Describe(irp);
    seen.Offset = seen.Length = 0;
    fs->Note(seen);
    return Complete(irp, STATUS_SUCCESS);
}

NTSTATUS NTAPI QueryInformation(PDEVICE_OBJECT, PIRP irp)
{
    const IO_STACK_LOCATION* const location = IoGetCurrentIrpStackLocation(irp);
    if (location->Parameters.QueryFile.FileInformationClass != FileStandardInformation)
        return Complete(irp, STATUS_INVALID_INFO_CLASS);
    Fcb* const fcb = FcbOf(location->FileObject);
    const Entry entry(fcb, irp, false);
    auto* const information = static_cast<PFILE_STANDARD_INFORMATION>(irp->AssociatedIrp.SystemBuffer);
    *information = {};
    information->EndOfFile.QuadPart = static_cast<LONGLONG>(fcb->Data.size());
    information->Directory = nthost::ToUtf8(&location->FileObject->FileName) == "\\directory";
    return Complete(irp, STATUS_SUCCESS, sizeof *information);
}

NTSTATUS NTAPI SetInformation(PDEVICE_OBJECT, PIRP irp)
{
    const IO_STACK_LOCATION* const location = IoGetCurrentIrpStackLocation(irp);
    if (location->Parameters.SetFile.FileInformationClass != FileEndOfFileInformation)
        return Complete(irp, STATUS_INVALID_INFO_CLASS);
    Seen seen = Describe(irp);
    const auto* const size = static_cast<PFILE_END_OF_FILE_INFORMATION>(irp->AssociatedIrp.SystemBuffer);
    seen.Offset = size->EndOfFile.QuadPart;
    seen.Length = 0;
    fs->Note(seen);
    if (fs->Before)
        if (const NTSTATUS status = fs->Before(seen); !NT_SUCCESS(status)) return Complete(irp, status);
    Fcb* const fcb = FcbOf(location->FileObject);
    const Entry entry(fcb, irp, true);
    fcb->Data.resize(static_cast<size_t>(size->EndOfFile.QuadPart));
    return Complete(irp, STATUS_SUCCESS);
}

PIRP CacheMark() { return reinterpret_cast<PIRP>(FSRTL_CACHE_TOP_LEVEL_IRP); }

VOID NTAPI AcquireForSection(PFILE_OBJECT file)
{
    fs->NoteCallback("section+");
    ExAcquireResourceExclusiveLite(&FcbOf(file)->Resource, TRUE);
}

VOID NTAPI ReleaseForSection(PFILE_OBJECT file)
{
    fs->NoteCallback("section-");
    ExReleaseResourceLite(&FcbOf(file)->Resource);
}

NTSTATUS NTAPI AcquireForFlush(PFILE_OBJECT file, PDEVICE_OBJECT)
{
    fs->NoteCallback("flush+");
    if (!NT_SUCCESS(fs->AcquireStatus)) return fs->AcquireStatus;
    if (IoGetTopLevelIrp()) return STATUS_SUCCESS;
    IoSetTopLevelIrp(CacheMark());
    ExAcquireResourceExclusiveLite(&FcbOf(file)->Resource, TRUE);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ReleaseForFlush(PFILE_OBJECT file, PDEVICE_OBJECT)
{
    fs->NoteCallback("flush-");
    if (IoGetTopLevelIrp() != CacheMark()) return STATUS_SUCCESS;
    ExReleaseResourceLite(&FcbOf(file)->Resource);
    IoSetTopLevelIrp(nullptr);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI AcquireForWriter(PFILE_OBJECT file, PLARGE_INTEGER end, PERESOURCE* resource, PDEVICE_OBJECT)
{
    fs->NoteCallback(("writer+ " + std::to_string(end->QuadPart)).c_str());
    if (!NT_SUCCESS(fs->AcquireStatus)) return fs->AcquireStatus;
    if (!ExAcquireResourceExclusiveLite(&FcbOf(file)->Resource, FALSE)) return STATUS_CANT_WAIT;
    *resource = &FcbOf(file)->Resource;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ReleaseForWriter(PFILE_OBJECT, PERESOURCE resource, PDEVICE_OBJECT)
{
    fs->NoteCallback("writer-");
    ExReleaseResourceLite(resource);
    return STATUS_SUCCESS;
}

VOID NTAPI DriverUnload(PDRIVER_OBJECT)
{
    fs->Clear();
    UNICODE_STRING link;
    RtlInitUnicodeString(&link, L"\\??\\Mini");
    EXPECT_EQ(IoDeleteSymbolicLink(&link), STATUS_SUCCESS);
    IoDeleteDevice(g_device);
}

NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    driver->MajorFunction[IRP_MJ_CREATE] = Create;
    driver->MajorFunction[IRP_MJ_CLEANUP] = Cleanup;
    driver->MajorFunction[IRP_MJ_CLOSE] = Close;
    driver->MajorFunction[IRP_MJ_READ] = ReadOrWrite;
    driver->MajorFunction[IRP_MJ_WRITE] = ReadOrWrite;
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = Control;
    driver->MajorFunction[IRP_MJ_QUERY_INFORMATION] = QueryInformation;
    driver->MajorFunction[IRP_MJ_SET_INFORMATION] = SetInformation;
    driver->DriverUnload = DriverUnload;
    driver->FastIoDispatch = &g_callbacks;
    UNICODE_STRING name, link;
    RtlInitUnicodeString(&name, L"\\Device\\Mini");
    RtlInitUnicodeString(&link, L"\\??\\Mini");
    const NTSTATUS status = IoCreateDevice(driver, 0, &name, FILE_DEVICE_FILE_SYSTEM, 0, FALSE, &g_device);
    return NT_SUCCESS(status) ? IoCreateSymbolicLink(&link, &name) : status;
}

void FillCallbacks(Callbacks which)
{
    g_callbacks = {};
    g_callbacks.SizeOfFastIoDispatch = sizeof g_callbacks;
    if (which == Callbacks::None) return;
    g_callbacks.AcquireFileForNtCreateSection = AcquireForSection;
    g_callbacks.ReleaseFileForNtCreateSection = ReleaseForSection;
    g_callbacks.AcquireForCcFlush = AcquireForFlush;
    g_callbacks.ReleaseForCcFlush = ReleaseForFlush;
    g_callbacks.AcquireForModWrite = AcquireForWriter;
    g_callbacks.ReleaseForModWrite = ReleaseForWriter;
}

} // namespace

Fcb::~Fcb()
{
    EXPECT_EQ(Pointers.DataSectionObject, nullptr);
    EXPECT_EQ(Pointers.ImageSectionObject, nullptr);
    ExDeleteResourceLite(&Resource);
}

Fcb* FileSystem::File(const std::string& name)
{
    const std::lock_guard lock(mutex_);
    std::unique_ptr<Fcb>& fcb = files_[name];
    if (!fcb) {
        fcb = std::make_unique<Fcb>();
        EXPECT_EQ(ExInitializeResourceLite(&fcb->Resource), STATUS_SUCCESS);
        fcb->Header.Resource = &fcb->Resource;
        fcb->Header.ValidDataLength.QuadPart = INT64_MAX;
    }
    return fcb.get();
}

void FileSystem::Note(const Seen& seen)
{
    const std::lock_guard lock(mutex_);
    seen_.push_back(seen);
}

void FileSystem::NoteCallback(const char* name)
{
    const std::lock_guard lock(mutex_);
    callbacks_.push_back(name);
}

std::vector<Seen> FileSystem::Take()
{
    const std::lock_guard lock(mutex_);
    return std::exchange(seen_, {});
}

std::vector<Seen> FileSystem::TakePaging(UCHAR major)
{
    std::vector<Seen> all = Take();
    std::erase_if(all, [major](const Seen& seen) { return seen.Major != major || !seen.IsPaging(); });
    return all;
}

std::vector<std::string> FileSystem::TakeCallbacks()
{
    const std::lock_guard lock(mutex_);
    return std::exchange(callbacks_, {});
}

File::File(const char* name, ACCESS_MASK access)
{
    std::u16string path = u"\\??\\Mini\\" + nthost::FromUtf8(name);
    const auto length = static_cast<USHORT>(path.size() * sizeof(WCHAR));
    UNICODE_STRING text = {length, length, reinterpret_cast<PWCH>(path.data())};
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &text, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK block;
    EXPECT_EQ(NtCreateFile(&handle_, access, &attributes, &block, nullptr, 0, 7, FILE_OPEN,
                           FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0),
              STATUS_SUCCESS);
    void* object = nullptr;
    EXPECT_EQ(ObReferenceObjectByHandle(handle_, 0, IoFileObjectType, KernelMode, &object, nullptr), STATUS_SUCCESS);
    ObDereferenceObject(object);
    object_ = static_cast<PFILE_OBJECT>(object);
}

void File::Close()
{
    if (handle_) EXPECT_EQ(NtClose(std::exchange(handle_, nullptr)), STATUS_SUCCESS);
}

NTSTATUS File::Write(ULONG offset, const void* data, ULONG length) const
{
    IO_STATUS_BLOCK block;
    return NtDeviceIoControlFile(handle_, nullptr, nullptr, nullptr, &block, WriteCode, const_cast<void*>(data), length,
                                 nullptr, offset);
}

NTSTATUS MakeSection(HANDLE file, const SectionArguments& arguments, HANDLE* section)
{
    LARGE_INTEGER size;
    size.QuadPart = arguments.Size;
    return NtCreateSection(section, arguments.Access, nullptr, arguments.Size ? &size : nullptr, arguments.Protection,
                           arguments.Kind, file);
}

NTSTATUS MakeView(HANDLE section, ViewArguments arguments, char** base, SIZE_T* size)
{
    void* at = arguments.Base;
    LARGE_INTEGER offset;
    offset.QuadPart = arguments.Offset;
    const NTSTATUS status = NtMapViewOfSection(section, NtCurrentProcess(), &at, 0, 0, &offset, &arguments.Size,
                                               ViewUnmap, 0, arguments.Protection);
    *base = static_cast<char*>(at);
    if (size) *size = arguments.Size;
    return status;
}

Mapped::Mapped(HANDLE file, const SectionArguments& section, const ViewArguments& view)
{
    HANDLE handle = nullptr;
    EXPECT_EQ(MakeSection(file, section, &handle), STATUS_SUCCESS);
    EXPECT_EQ(MakeView(handle, view, &base_), STATUS_SUCCESS);
    EXPECT_EQ(NtClose(handle), STATUS_SUCCESS);
}

void Mapped::Unmap()
{
    if (base_) EXPECT_EQ(NtUnmapViewOfSection(NtCurrentProcess(), std::exchange(base_, nullptr)), STATUS_SUCCESS);
}

std::string Bytes(const char* from, size_t length)
{
    std::string bytes(length, '\0');
    const NTSTATUS status = nthost::GuardedCopy(bytes.data(), from, length);
    return NT_SUCCESS(status) ? bytes : nthost::StatusName(status);
}

NTSTATUS Poke(char* to, char value) { return nthost::GuardedCopy(to, &value, 1); }

void MmTest::Start(Callbacks callbacks)
{
    Unload();
    if (!IsUp()) BootedTest::SetUp();
    fs = &fs_;
    FillCallbacks(callbacks);
    ASSERT_EQ(nthost::LoadDriver("minifs", DriverEntry, &driver_), STATUS_SUCCESS);
}

void MmTest::Unload()
{
    if (!driver_) return;
    nthost::LeakReport leaks;
    EXPECT_EQ(nthost::UnloadDriver(driver_, &leaks), STATUS_SUCCESS);
    EXPECT_EQ(leaks.Lines, std::vector<std::string>());
    driver_ = nullptr;
}

std::vector<std::string> MmTest::ShutDownLeaking()
{
    driver_ = nullptr;
    const std::vector<std::string> lines = ShutDown();
    BootedTest::SetUp(); // for the end of the files' own locks
    fs_.Clear();
    (void)ShutDown();
    return lines;
}

void MmTest::TearDown()
{
    fs_.Before = nullptr;
    fs_.AcquireStatus = STATUS_SUCCESS;
    Unload();
    BootedTest::TearDown();
    fs = nullptr;
}

std::vector<std::string> TakeRules()
{
    std::vector<std::string> rules;
    for (const nthost::Finding& finding : nthost::TakeFindings()) rules.push_back(finding.Rule);
    return rules;
}

} // namespace minifs
