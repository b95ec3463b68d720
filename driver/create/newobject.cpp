// Creating an object. The plugin has no single operation that takes everything, so the object is built step by step,
// and its control block comes into being only when all steps have worked. What the plugin has created before a failing
// step stays. Nobody else can reach the new control block, so it needs no lock and no share check.

#include "create/create.h"

#include "ea/ea.h"
#include "plugin/operations.h"
#include "frame/resource.h"

namespace {

constexpr char kName[] = "GvCreateNewFileOrDir"; // whose steps the routines below are

[[nodiscard]] NTSTATUS CheckMayCreate(const CreateParameters& parameters, NTSTATUS lookupStatus)
{
    if (parameters.Disposition == FILE_OPEN || parameters.Disposition == FILE_OVERWRITE) {
        GV_TRACE_AS(kName, GvTraceError, "bad disposition = 0x%x\n", parameters.Disposition);
        return NT_SUCCESS(lookupStatus) ? STATUS_OBJECT_NAME_NOT_FOUND : lookupStatus;
    }
    const ULONG requested = parameters.RequestedFileType;
    if (requested != GvAnyType && requested != GvDirectory && requested != GvFile)
        return GV_REFUSE_AS(kName, STATUS_INVALID_PARAMETER, "ERROR, bad requested file-type: %d\n", requested);
    return STATUS_SUCCESS;
}

[[nodiscard]] NTSTATUS CheckDeleteOnClose(const CreateParameters& parameters)
{
    if (!parameters.DeleteOnClose) return STATUS_SUCCESS;
    if (!(parameters.DesiredAccess & DELETE))
        return GV_REFUSE_AS(kName, STATUS_INVALID_PARAMETER,
                            "delete-on-close is requested, but not delete-access: 0x%x\n", STATUS_INVALID_PARAMETER);
    if (parameters.FileAttributes & FILE_ATTRIBUTE_READONLY)
        return GV_REFUSE_AS(kName, STATUS_CANNOT_DELETE,
                            "ERR: can't create a read-only file and 'delete-on-close' it\n");
    return STATUS_SUCCESS;
}

// All that can be refused without a word to the plugin. A type that the open leaves open becomes a file.
[[nodiscard]] NTSTATUS CheckRules(const CreateParameters& parameters, const ResolvedPaths& paths, const Fcb* parent,
                                  NTSTATUS lookupStatus, ULONG* type)
{
    GV_TRY(CheckMayCreate(parameters, lookupStatus));
    *type = parameters.RequestedFileType == GvDirectory ? GvDirectory : GvFile;
    if (*type == GvFile && paths.TrailingBackslash)
        return GV_REFUSE_AS(kName, STATUS_OBJECT_NAME_INVALID,
                            "ERR: caller wants to create a 'file', but path has trailing bkslash\n");
    GV_TRY(CheckDeleteOnClose(parameters));
    if (GvLoad(parent->DeletePending))
        return GV_REFUSE_AS(kName, STATUS_DELETE_PENDING, "parent-fcb delete-pending: 0x%x\n", STATUS_DELETE_PENDING);
    return STATUS_SUCCESS;
}

// The one place where the plugin sees the caller's own spelling.
[[nodiscard]] NTSTATUS CreateOnPlugin(IrpContext* context, ULONG type, PCUNICODE_STRING path, PluginFd* fd)
{
    if (type == GvFile) {
        const NTSTATUS status = GV_CALL_PLUGIN(context, nullptr, Create, path, fd);
        if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS(kName, "Create", status);
        return status;
    }
    const NTSTATUS status = GV_CALL_PLUGIN(context, nullptr, CreateDir, path, fd);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS(kName, "CreateDir", status);
    return status;
}

[[nodiscard]] NTSTATUS Allocate(IrpContext* context, const CreateParameters& parameters, ULONG type, PluginFd fd)
{
    if (type != GvFile || parameters.AllocationSize == 0) return STATUS_SUCCESS;
    LONGLONG size = 0;
    const LONGLONG* const allocation = &parameters.AllocationSize;
    const NTSTATUS status = GV_CALL_PLUGIN(context, nullptr, SetFileSize, GvBareHandle(fd), &size, allocation);
    if (!NT_SUCCESS(status)) GV_TRACE_AS(kName, GvTraceError, "Plugin SetFileSize(): 0x%x\n", status);
    return status;
}

// *access is what later opens may ask for.
[[nodiscard]] NTSTATUS SetAttributes(IrpContext* context, ULONG attributes, ULONG type, PluginFd fd,
                                     PluginAccessMask* access)
{
    *access = GVND_ACCESS_ALL;
    if (attributes == 0) return STATUS_SUCCESS; // the plugin's own defaults stand
    if (type == GvFile) {
        attributes = (attributes & ~FILE_ATTRIBUTE_DIRECTORY) | FILE_ATTRIBUTE_ARCHIVE;
    } else {
        attributes |= FILE_ATTRIBUTE_DIRECTORY;
    }
    const NTSTATUS status = GV_CALL_PLUGIN(context, nullptr, SetAttr, GvBareHandle(fd), attributes);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_AS(kName, GvTraceError, "Plugin SetAttr(): 0x%x\n", status);
        return status;
    }
    if (attributes & FILE_ATTRIBUTE_READONLY) *access &= ~GVND_ACCESS_WRITE;
    return status;
}

// Also the only check that the buffer gets on this road, and it comes after the object was made.
[[nodiscard]] NTSTATUS SetEas(IrpContext* context, const CreateParameters& parameters, PluginFd fd)
{
    if (parameters.EaLength == 0) return STATUS_SUCCESS;
    ULONG errorOffset;
    const NTSTATUS status =
        GvSetFullEaInfo(context, GvBareHandle(fd), parameters.EaBuffer, parameters.EaLength, &errorOffset);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS(kName, "GvSetFullEaInfo", status);
    return status;
}

// The new control block takes the handle over; on failure the handle is still the caller's to close.
[[nodiscard]] NTSTATUS EnterObject(IrpContext* context, const CreateParameters& parameters, PCUNICODE_STRING path,
                                   const GvFcbInitialState& state, Fcb** result)
{
    Fcb* fcb;
    const NTSTATUS status = GvFcbCreateNewFcb(context->Vcb->FcbTables, path, state, &fcb);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED_AS(kName, "GvFcbCreateNewFcb", status);
        return status;
    }
    GvUtlReportChange(context->Vcb, fcb,
                      state.Type == GvFile ? FILE_NOTIFY_CHANGE_FILE_NAME : FILE_NOTIFY_CHANGE_DIR_NAME,
                      FILE_ACTION_ADDED);
    IoSetShareAccess(parameters.DesiredAccess, parameters.ShareAccess, parameters.FileObject, &fcb->ShareAccess);
    *result = fcb;
    return status;
}

} // namespace

NTSTATUS GvCreateNewFileOrDir(IrpContext* context, const CreateParameters& parameters, const ResolvedPaths& paths,
                              Fcb* parent, NTSTATUS lookupStatus, ULONG* information)
{
    GV_ASSERT_HELD_EXCLUSIVE(&context->Vcb->Resource);
    ULONG type;
    GV_TRY(CheckRules(parameters, paths, parent, lookupStatus, &type));
    const PCUNICODE_STRING fullPath = paths.FullPath.Get();
    GV_TRY_TRACED("GvAccessCheck", GvAccessCheck(context, fullPath, parameters.DesiredAccess, parameters.SubjectToken));
    PluginFd fd = 0;
    GV_TRY(CreateOnPlugin(context, type, paths.CasePreservedPath.Get(), &fd));

    PluginAccessMask access = 0;
    Fcb* fcb = nullptr;
    NTSTATUS status = Allocate(context, parameters, type, fd);
    if (NT_SUCCESS(status)) status = SetAttributes(context, parameters.FileAttributes, type, fd, &access);
    if (NT_SUCCESS(status)) status = SetEas(context, parameters, fd);
    if (NT_SUCCESS(status)) {
        const GvFcbInitialState state = {.Type = type,
                                         .MaxAllowedAccess = access,
                                         .PluginFdCurrentAccess = access,
                                         .FileSize = 0,
                                         .PluginFd = fd,
                                         .Parent = parent};
        status = EnterObject(context, parameters, fullPath, state, &fcb);
    }
    if (!NT_SUCCESS(status)) {
        GvCloseBareHandle(kName, context, fd);
        return status;
    }
    // Whatever later opens may have: a creator writes a read-only file, also after a rename.
    fcb->PluginFdGranted = GVND_ACCESS_ALL;
    status = GvInitSharedFileObj(__func__, parameters.FileObject, fcb, parameters.DeleteOnClose);
    if (!NT_SUCCESS(status)) {
        GvFcbReleaseFcb(context, fcb); // the only reference: the handle is closed with it
        return status;
    }
    *information = FILE_CREATED; // the reference is the file object's from here on
    return STATUS_SUCCESS;
}
