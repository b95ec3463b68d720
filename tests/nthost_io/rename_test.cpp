// Renames and links: which names lead elsewhere, how the target is opened, what the driver then gets.
#include "probe.h"

#include <cstring>

using namespace probe;

namespace {

struct Target {
    ULONG Attributes = 0;             // of the source
    NTSTATUS Status = STATUS_SUCCESS; // of the target's open
    ULONG_PTR Information = FILE_DOES_NOT_EXIST;
};

// What the driver saw of one change.
struct Sight {
    ACCESS_MASK TargetAccess = 0; // 0: no target was opened
    std::string TargetName;
    bool RelativeToRoot = false;
    bool Set = false;
    bool HasTarget = false;
    bool Replace = false;
};

class Rename : public IoTest {
protected:
    void SetUp() override
    {
        IoTest::SetUp();
        Driver().Majors[IRP_MJ_QUERY_INFORMATION] = [this](PDEVICE_OBJECT, PIRP irp) {
            EXPECT_EQ(IoGetCurrentIrpStackLocation(irp)->Parameters.QueryFile.FileInformationClass,
                      FileBasicInformation);
            static_cast<FILE_BASIC_INFORMATION*>(irp->AssociatedIrp.SystemBuffer)->FileAttributes = plan.Attributes;
            return Complete(irp, STATUS_SUCCESS, sizeof(FILE_BASIC_INFORMATION));
        };
        Driver().Majors[IRP_MJ_CREATE] = [this](PDEVICE_OBJECT, PIRP irp) { return Create(irp); };
        Driver().Majors[IRP_MJ_SET_INFORMATION] = [this](PDEVICE_OBJECT, PIRP irp) { return Set(irp); };
    }

    NTSTATUS Create(PIRP irp)
    {
        const IO_STACK_LOCATION& location = *IoGetCurrentIrpStackLocation(irp);
        if (!(location.Flags & SL_OPEN_TARGET_DIRECTORY)) return Complete(irp, STATUS_SUCCESS, FILE_OPENED);
        const auto& create = location.Parameters.Create;
        EXPECT_EQ(create.Options, FILE_OPEN << 24 | FILE_OPEN_FOR_BACKUP_INTENT);
        EXPECT_EQ(create.ShareAccess, FILE_SHARE_READ | FILE_SHARE_WRITE);
        EXPECT_EQ(location.Flags & SL_CASE_SENSITIVE, 0);
        seen.TargetAccess = create.SecurityContext->DesiredAccess;
        seen.TargetName = Text(&location.FileObject->FileName);
        seen.RelativeToRoot = location.FileObject->RelatedFileObject != nullptr;
        target = location.FileObject;
        return Complete(irp, plan.Status, plan.Information);
    }

    NTSTATUS Set(PIRP irp)
    {
        const auto& set = IoGetCurrentIrpStackLocation(irp)->Parameters.SetFile;
        seen.Set = true;
        seen.HasTarget = set.FileObject != nullptr;
        seen.Replace = set.ReplaceIfExists;
        if (seen.HasTarget) {
            EXPECT_EQ(set.FileObject, target);
            EXPECT_EQ(Driver().Seen[IRP_MJ_CLEANUP], 0u); // still open
        }
        return Complete(irp, STATUS_SUCCESS);
    }

    NTSTATUS Change(const std::u16string& name, BOOLEAN replace = FALSE, HANDLE root = nullptr,
                    FILE_INFORMATION_CLASS infoClass = FileRenameInformation)
    {
        std::vector<char> buffer(sizeof(FILE_RENAME_INFORMATION) + name.size() * sizeof(WCHAR));
        auto* const info = reinterpret_cast<FILE_RENAME_INFORMATION*>(buffer.data());
        info->ReplaceIfExists = replace;
        info->RootDirectory = root;
        info->FileNameLength = nameLength ? nameLength : static_cast<ULONG>(name.size() * sizeof(WCHAR));
        memcpy(info->FileName, name.data(), name.size() * sizeof(WCHAR));
        seen = {};
        const Opened source = Open({.Access = DELETE | SYNCHRONIZE});
        Driver().Seen[IRP_MJ_CLEANUP] = 0;
        IO_STATUS_BLOCK block;
        const NTSTATUS status =
            NtSetInformationFile(source.Handle, &block, info, static_cast<ULONG>(buffer.size()), infoClass);
        targetsClosed = Driver().Seen[IRP_MJ_CLEANUP];
        NtClose(source.Handle);
        return status;
    }

    Target plan;
    Sight seen;
    PFILE_OBJECT target = nullptr;
    ULONG nameLength = 0; // another one than the name's
    unsigned targetsClosed = 0;
};

TEST_F(Rename, SimpleNameGoesToTheDriverAsItIs)
{
    for (const BOOLEAN replace : {FALSE, TRUE}) {
        EXPECT_EQ(Change(u"new", replace), STATUS_SUCCESS);
        EXPECT_EQ(seen.TargetAccess, 0u);
        EXPECT_TRUE(seen.Set);
        EXPECT_FALSE(seen.HasTarget);
        EXPECT_EQ(seen.Replace, replace == TRUE);
    }
}

TEST_F(Rename, PathOpensItsDirectoryWithTheRightToAddThere)
{
    const Opened root = Open();
    const struct {
        ULONG Attributes;
        FILE_INFORMATION_CLASS Class;
        const char16_t* Name;
        HANDLE Root;
        ACCESS_MASK Access;
        std::string OpenedName;
    } rows[] = {
        {FILE_ATTRIBUTE_NORMAL, FileRenameInformation, u"\\??\\Probe\\d\\new", nullptr, FILE_WRITE_DATA, "\\d\\new"},
        {FILE_ATTRIBUTE_DIRECTORY, FileRenameInformation, u"\\??\\Probe\\d\\new", nullptr, FILE_ADD_SUBDIRECTORY,
         "\\d\\new"},
        {FILE_ATTRIBUTE_NORMAL, FileRenameInformation, u"new", root.Handle, FILE_WRITE_DATA, "new"},
        {FILE_ATTRIBUTE_DIRECTORY, FileLinkInformation, u"\\??\\Probe\\l", nullptr, FILE_WRITE_DATA, "\\l"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        plan.Attributes = row.Attributes;
        EXPECT_EQ(Change(row.Name, FALSE, row.Root, row.Class), STATUS_SUCCESS);
        EXPECT_EQ(seen.TargetAccess, row.Access | SYNCHRONIZE);
        EXPECT_EQ(seen.TargetName, row.OpenedName);
        EXPECT_EQ(seen.RelativeToRoot, row.Root != nullptr);
        EXPECT_TRUE(seen.HasTarget);
        EXPECT_EQ(targetsClosed, 1u);
    }
    NtClose(root.Handle);
}

TEST_F(Rename, IsRefusedBeforeTheDriverHearsOfIt)
{
    const struct {
        const char16_t* Name;
        BOOLEAN Replace;
        NTSTATUS Open;
        ULONG_PTR Information;
        NTSTATUS Status;
        unsigned TargetsClosed;
        FILE_INFORMATION_CLASS Class = FileRenameInformation;
    } rows[] = {
        {u"\\??\\Probe\\d\\new", FALSE, STATUS_SUCCESS, FILE_EXISTS, STATUS_OBJECT_NAME_COLLISION, 1,
         FileLinkInformation},
        // What exists may be the source itself, in another case.
        {u"\\??\\Probe\\d\\new", FALSE, STATUS_SUCCESS, FILE_EXISTS, STATUS_SUCCESS, 1},
        {u"\\??\\Probe\\d\\new", TRUE, STATUS_SUCCESS, FILE_EXISTS, STATUS_SUCCESS, 1},
        {u"\\??\\Probe\\d\\new", TRUE, STATUS_OBJECT_PATH_NOT_FOUND, 0, STATUS_OBJECT_PATH_NOT_FOUND, 0},
        {u"\\??\\Nobody\\d\\new", TRUE, STATUS_SUCCESS, 0, STATUS_OBJECT_PATH_NOT_FOUND, 0},
        {u"\\d\\new", TRUE, STATUS_SUCCESS, 0, STATUS_OBJECT_PATH_NOT_FOUND, 0}, // a full path is one from the top
        {u"\\Device\\Null", TRUE, STATUS_SUCCESS, 0, STATUS_NOT_SAME_DEVICE, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        plan.Status = row.Open;
        plan.Information = row.Information;
        EXPECT_EQ(Change(row.Name, row.Replace, nullptr, row.Class), row.Status);
        EXPECT_EQ(seen.Set, row.Status == STATUS_SUCCESS);
        EXPECT_EQ(targetsClosed, row.TargetsClosed);
    }
    plan = {};
    HANDLE event;
    ASSERT_EQ(NtCreateEvent(&event, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE), STATUS_SUCCESS);
    EXPECT_EQ(Change(u"new", FALSE, event), STATUS_OBJECT_TYPE_MISMATCH);
    NtClose(event);
    for (const ULONG length : {3u, 100u, 0xfffffffeu}) { // half a character, more than the buffer has
        nameLength = length;
        EXPECT_EQ(Change(u"new"), STATUS_INVALID_PARAMETER) << length;
        EXPECT_FALSE(seen.Set);
    }
}

TEST_F(Rename, SourceThatCannotBeAskedIsNotMoved)
{
    Driver().Majors[IRP_MJ_QUERY_INFORMATION] = [](PDEVICE_OBJECT, PIRP irp) {
        return Complete(irp, STATUS_FILE_DELETED);
    };
    EXPECT_EQ(Change(u"\\??\\Probe\\d\\new"), STATUS_FILE_DELETED);
    EXPECT_EQ(seen.TargetAccess, 0u);
    EXPECT_EQ(Change(u"\\??\\Probe\\d\\new", FALSE, nullptr, FileLinkInformation), STATUS_SUCCESS); // not asked
}

TEST_F(Rename, RedirectedTargetIsOpenedFromTheTop)
{
    bool redirected = false;
    Driver().Majors[IRP_MJ_CREATE] = [&](PDEVICE_OBJECT, PIRP irp) {
        const IO_STACK_LOCATION& location = *IoGetCurrentIrpStackLocation(irp);
        if (!(location.Flags & SL_OPEN_TARGET_DIRECTORY) || redirected) return Create(irp);
        redirected = true;
        Name name(L"\\??\\Probe\\elsewhere\\new");
        EXPECT_EQ(IoReplaceFileObjectName(location.FileObject, name->Buffer, name->Length), STATUS_SUCCESS);
        return Complete(irp, STATUS_REPARSE, IO_REPARSE);
    };
    EXPECT_EQ(Change(u"\\??\\Probe\\link\\new"), STATUS_SUCCESS);
    EXPECT_EQ(seen.TargetName, "\\elsewhere\\new"); // and still as a target
    EXPECT_TRUE(seen.HasTarget);
    EXPECT_EQ(targetsClosed, 1u);
}

} // namespace
