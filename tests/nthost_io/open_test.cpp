// What an open may ask for, what the driver sees of it, relative names and redirection.
#include "probe.h"

#include "ob/object.h"

using namespace probe;

namespace {

using OpenTest = IoTest;

TEST_F(OpenTest, RefusesWhatNoFileSystemGetsToSee)
{
    constexpr ACCESS_MASK Read = FILE_READ_DATA, ReadSync = FILE_READ_DATA | SYNCHRONIZE;
    const struct {
        OpenArguments Arguments;
        bool Valid;
    } rows[] = {
        {{.Access = Read, .Options = 0, .Disposition = 6}, false},
        {{.Access = Read, .Options = 0, .Attributes = 0x00010000}, false},
        {{.Access = Read, .Options = 0, .Sharing = 8}, false},
        {{.Access = Read, .Options = 0x01000000}, false},
        {{.Access = Read, .Options = FILE_SYNCHRONOUS_IO_ALERT}, false}, // without SYNCHRONIZE
        {{.Access = ReadSync, .Options = FILE_SYNCHRONOUS_IO_ALERT}, true},
        {{.Access = ReadSync, .Options = FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT}, false},
        {{.Access = Read, .Options = FILE_DELETE_ON_CLOSE}, false}, // without DELETE
        {{.Access = Read | DELETE, .Options = FILE_DELETE_ON_CLOSE}, true},
        {{.Access = Read, .Options = FILE_DIRECTORY_FILE | FILE_NON_DIRECTORY_FILE}, false},
        {{.Access = Read, .Options = FILE_DIRECTORY_FILE, .Disposition = FILE_OVERWRITE}, false},
        {{.Access = Read, .Options = FILE_DIRECTORY_FILE, .Disposition = FILE_OPEN_IF}, true},
        {{.Access = Read, .Options = FILE_DIRECTORY_FILE | FILE_SEQUENTIAL_ONLY}, false},
        {{.Access = Read, .Options = FILE_COMPLETE_IF_OPLOCKED | FILE_RESERVE_OPFILTER}, false},
        {{.Access = FILE_APPEND_DATA, .Options = FILE_NO_INTERMEDIATE_BUFFERING}, false},
        {{.Access = FILE_WRITE_DATA, .Options = FILE_NO_INTERMEDIATE_BUFFERING}, true},
    };
    for (const auto& row : rows) {
        const Opened opened = Open(row.Arguments);
        EXPECT_EQ(opened.Status, row.Valid ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER) << (&row - rows);
        if (opened.Handle) NtClose(opened.Handle);
    }
}

TEST_F(OpenTest, RefusesNamesThatLeadNowhere)
{
    const struct {
        const wchar_t* Path;
        NTSTATUS Status;
    } rows[] = {
        {L"", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {L"Probe", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {L"\\??\\Nobody\\x", STATUS_OBJECT_PATH_NOT_FOUND},
        {L"\\??\\Nobody", STATUS_OBJECT_NAME_NOT_FOUND},
        {L"\\Driver\\probe", STATUS_OBJECT_TYPE_MISMATCH},
    };
    for (const auto& row : rows) EXPECT_EQ(Open({.Path = row.Path}).Status, row.Status) << (&row - rows);
    EXPECT_EQ(Seen(IRP_MJ_CREATE), 0u);
}

TEST_F(OpenTest, ShowsTheDriverWhatWasAsked)
{
    Driver().Majors[IRP_MJ_CREATE] = [](PDEVICE_OBJECT target, PIRP irp) {
        const IO_STACK_LOCATION& location = *IoGetCurrentIrpStackLocation(irp);
        const auto& create = location.Parameters.Create;
        EXPECT_EQ(target, device);
        EXPECT_EQ(irp->Flags, static_cast<ULONG>(IRP_CREATE_OPERATION | IRP_SYNCHRONOUS_API | IRP_DEFER_IO_COMPLETION));
        EXPECT_EQ(irp->RequestorMode, UserMode);
        EXPECT_EQ(irp->Overlay.AllocationSize.QuadPart, 4096);
        EXPECT_EQ(create.Options, FILE_OVERWRITE_IF << 24 | FILE_WRITE_THROUGH | FILE_SEQUENTIAL_ONLY);
        EXPECT_EQ(create.FileAttributes, FILE_ATTRIBUTE_HIDDEN);
        EXPECT_EQ(create.ShareAccess, FILE_SHARE_DELETE);
        EXPECT_EQ(create.SecurityContext->DesiredAccess, FILE_GENERIC_READ); // generic rights are mapped
        EXPECT_EQ(create.SecurityContext->AccessState->RemainingDesiredAccess, FILE_GENERIC_READ);
        EXPECT_EQ(location.Flags, SL_CASE_SENSITIVE);
        EXPECT_EQ(Text(&location.FileObject->FileName), "\\dir\\file");
        EXPECT_EQ(location.FileObject->Flags,
                  static_cast<ULONG>(FO_WRITE_THROUGH | FO_SEQUENTIAL_ONLY | FO_OPENED_CASE_SENSITIVE));
        EXPECT_EQ(target->ReferenceCount, 1); // counted before the driver sees it
        EXPECT_TRUE(IoIsOperationSynchronous(irp));
        EXPECT_EQ(IoGetRequestorProcess(irp), nthost::HostProcess());
        return Complete(irp, STATUS_SUCCESS, FILE_CREATED);
    };
    Name path(L"\\??\\PROBE\\dir\\file");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, path, 0, nullptr, nullptr);
    HANDLE handle;
    IO_STATUS_BLOCK block;
    LARGE_INTEGER size;
    size.QuadPart = 4096;
    ASSERT_EQ(NtCreateFile(&handle, GENERIC_READ, &attributes, &block, &size, FILE_ATTRIBUTE_HIDDEN, FILE_SHARE_DELETE,
                           FILE_OVERWRITE_IF, FILE_WRITE_THROUGH | FILE_SEQUENTIAL_ONLY, nullptr, 0),
              STATUS_SUCCESS);
    EXPECT_EQ(block.Information, static_cast<ULONG_PTR>(FILE_CREATED));
    OBJECT_HANDLE_INFORMATION information;
    void* file;
    ASSERT_EQ(ObReferenceObjectByHandle(handle, 0, nullptr, KernelMode, &file, &information), STATUS_SUCCESS);
    EXPECT_EQ(information.GrantedAccess, FILE_GENERIC_READ);
    ObDereferenceObject(file);
    NtClose(handle);

    size.QuadPart = -1;
    EXPECT_EQ(NtCreateFile(&handle, FILE_READ_DATA, &attributes, &block, &size, 0, 0, FILE_OPEN, 0, nullptr, 0),
              STATUS_INVALID_PARAMETER);
}

TEST_F(OpenTest, OpenOfTheDeviceItselfHasNoNameAndAllItsRights)
{
    Driver().Majors[IRP_MJ_CREATE] = [](PDEVICE_OBJECT, PIRP irp) {
        const IO_STACK_LOCATION& location = *IoGetCurrentIrpStackLocation(irp);
        EXPECT_EQ(location.FileObject->FileName.Length, 0);
        const ACCESS_STATE& access = *location.Parameters.Create.SecurityContext->AccessState;
        EXPECT_EQ(access.PreviouslyGrantedAccess, FILE_ALL_ACCESS);
        EXPECT_EQ(access.RemainingDesiredAccess, 0u);
        return Complete(irp, STATUS_SUCCESS);
    };
    const Opened opened = Open({.Path = L"\\Device\\Probe", .Access = MAXIMUM_ALLOWED, .Options = 0});
    EXPECT_EQ(opened.Status, STATUS_SUCCESS);
    NtClose(opened.Handle);
}

TEST_F(OpenTest, RelativeOpenGoesToTheRootsDevice)
{
    const Opened root = Open();
    PFILE_OBJECT const rootFile = FileOf(root.Handle);
    Driver().Majors[IRP_MJ_CREATE] = [&](PDEVICE_OBJECT, PIRP irp) {
        PFILE_OBJECT const file = IoGetCurrentIrpStackLocation(irp)->FileObject;
        EXPECT_EQ(file->RelatedFileObject, rootFile);
        EXPECT_EQ(Text(&file->FileName), "inner\\leaf");
        return Complete(irp, STATUS_SUCCESS);
    };
    const Opened inner = Open({.Path = L"inner\\leaf", .Root = root.Handle});
    ASSERT_EQ(inner.Status, STATUS_SUCCESS);
    EXPECT_EQ(FileOf(inner.Handle)->RelatedFileObject, nullptr); // means something during the create only
    NtClose(inner.Handle);
    Driver().Majors[IRP_MJ_CREATE] = [&](PDEVICE_OBJECT, PIRP irp) { return Complete(irp, STATUS_NO_SUCH_FILE); };
    const LONG before = nthost::ob::PointerCount(rootFile);
    EXPECT_EQ(Open({.Path = L"x", .Root = root.Handle}).Status, STATUS_NO_SUCH_FILE);
    EXPECT_EQ(nthost::ob::PointerCount(rootFile), before);
    NtClose(root.Handle);

    HANDLE event;
    ASSERT_EQ(NtCreateEvent(&event, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE), STATUS_SUCCESS);
    EXPECT_EQ(Open({.Path = L"x", .Root = event}).Status, STATUS_OBJECT_TYPE_MISMATCH);
    NtClose(event);
}

// Answers `count` creates with a redirection, the rest with success.
Dispatch RedirectTimes(unsigned count, const wchar_t* target, ULONG_PTR information = IO_REPARSE)
{
    auto left = std::make_shared<unsigned>(count);
    return [left, target, information](PDEVICE_OBJECT, PIRP irp) {
        if (*left == 0) return Complete(irp, STATUS_SUCCESS);
        --*left;
        Name name(target);
        EXPECT_EQ(IoReplaceFileObjectName(IoGetCurrentIrpStackLocation(irp)->FileObject, name->Buffer, name->Length),
                  STATUS_SUCCESS);
        return Complete(irp, STATUS_REPARSE, information);
    };
}

TEST_F(OpenTest, RedirectionStartsOverFromTheTopAtMost32Times)
{
    const struct {
        unsigned Redirections;
        ULONG_PTR Information;
        const wchar_t* Target;
        NTSTATUS Status;
        unsigned Creates;
    } rows[] = {
        {1, IO_REPARSE, L"\\??\\Probe\\elsewhere\\with\\a\\name\\that\\is\\longer\\than\\the\\first\\buffer\\was",
         STATUS_SUCCESS, 2},
        {32, IO_REPARSE, L"\\Device\\Probe\\x", STATUS_SUCCESS, 33},
        {33, IO_REPARSE, L"\\Device\\Probe\\x", STATUS_OBJECT_NAME_INVALID, 33},
        {1, IO_REPARSE, L"\\??\\Nobody\\x", STATUS_OBJECT_PATH_NOT_FOUND, 1},
        {1, IO_REPARSE, L"relative", STATUS_OBJECT_PATH_SYNTAX_BAD, 1},
        {1, 0xa000000c, L"\\??\\Probe\\x", STATUS_IO_REPARSE_TAG_NOT_HANDLED, 1}, // a tag that nobody here follows
    };
    for (const auto& row : rows) {
        Driver().Majors[IRP_MJ_CREATE] = RedirectTimes(row.Redirections, row.Target, row.Information);
        Driver().Seen[IRP_MJ_CREATE] = 0;
        const Opened opened = Open();
        EXPECT_EQ(opened.Status, row.Status) << (&row - rows);
        EXPECT_EQ(Seen(IRP_MJ_CREATE), row.Creates) << (&row - rows);
        if (!opened.Handle) continue;
        EXPECT_EQ(Text(&FileOf(opened.Handle)->FileName).front(), '\\');
        NtClose(opened.Handle);
    }
    EXPECT_EQ(Seen(IRP_MJ_CLOSE), 2u); // none for a file object that was redirected
    EXPECT_EQ(device->ReferenceCount, 0);
}

TEST_F(OpenTest, RedirectedRelativeOpenIsNoLongerRelative)
{
    const Opened root = Open();
    Driver().Majors[IRP_MJ_CREATE] = [&](PDEVICE_OBJECT, PIRP irp) {
        PFILE_OBJECT const file = IoGetCurrentIrpStackLocation(irp)->FileObject;
        if (!file->RelatedFileObject) return Complete(irp, STATUS_SUCCESS);
        Name name(L"\\??\\Probe\\y");
        EXPECT_EQ(IoReplaceFileObjectName(file, name->Buffer, name->Length), STATUS_SUCCESS);
        return Complete(irp, STATUS_REPARSE, IO_REPARSE);
    };
    const Opened opened = Open({.Path = L"x", .Root = root.Handle});
    ASSERT_EQ(opened.Status, STATUS_SUCCESS);
    EXPECT_EQ(Text(&FileOf(opened.Handle)->FileName), "\\y");
    NtClose(opened.Handle);
    NtClose(root.Handle);
}

TEST_F(OpenTest, WarningOfACreateIsReturnedWithItsStatusBlock)
{
    Driver().Majors[IRP_MJ_CREATE] = [](PDEVICE_OBJECT, PIRP irp) {
        return Complete(irp, STATUS_EA_LIST_INCONSISTENT, 12);
    };
    const Opened opened = Open();
    EXPECT_EQ(opened.Status, STATUS_EA_LIST_INCONSISTENT);
    EXPECT_EQ(opened.Block.Information, 12u);
    EXPECT_EQ(opened.Handle, nullptr);
}

} // namespace
