// Share-access records: what the opens of a file want, and what they let others have. Records are the file system's and
// change under its file lock; here only the counting rules.
#include <ntifs.h>

namespace {

BOOLEAN Has(ULONG bits, ULONG wanted) { return (bits & wanted) != 0; }

void NoteAccess(PFILE_OBJECT file, ACCESS_MASK access)
{
    file->ReadAccess = Has(access, FILE_READ_DATA | FILE_EXECUTE);
    file->WriteAccess = Has(access, FILE_WRITE_DATA | FILE_APPEND_DATA);
    file->DeleteAccess = Has(access, DELETE);
}

void NoteSharing(PFILE_OBJECT file, ULONG sharing)
{
    file->SharedRead = Has(sharing, FILE_SHARE_READ);
    file->SharedWrite = Has(sharing, FILE_SHARE_WRITE);
    file->SharedDelete = Has(sharing, FILE_SHARE_DELETE);
}

bool Counts(PFILE_OBJECT file) { return file->ReadAccess || file->WriteAccess || file->DeleteAccess; }

// One kind of access: the open wants what not all recorded opens share, or some recorded open does what it won't share.
bool Clashes(BOOLEAN wants, ULONG sharing, BOOLEAN shares, ULONG doing, ULONG opens)
{
    return (wants && sharing < opens) || (doing != 0 && !shares);
}

// Delta is 1, or its negative for an open that goes.
void Count(PFILE_OBJECT file, PSHARE_ACCESS record, ULONG delta)
{
    record->OpenCount += delta;
    record->Readers += file->ReadAccess * delta;
    record->Writers += file->WriteAccess * delta;
    record->Deleters += file->DeleteAccess * delta;
    record->SharedRead += file->SharedRead * delta;
    record->SharedWrite += file->SharedWrite * delta;
    record->SharedDelete += file->SharedDelete * delta;
}

} // namespace

NTSTATUS NTAPI IoCheckShareAccess(ACCESS_MASK DesiredAccess, ULONG DesiredShareAccess, PFILE_OBJECT FileObject,
                                  PSHARE_ACCESS ShareAccess, BOOLEAN Update)
{
    NoteAccess(FileObject, DesiredAccess);
    if (!Counts(FileObject)) return STATUS_SUCCESS;
    NoteSharing(FileObject, DesiredShareAccess);

    const SHARE_ACCESS& r = *ShareAccess;
    const FILE_OBJECT& f = *FileObject;
    if (Clashes(f.ReadAccess, r.SharedRead, f.SharedRead, r.Readers, r.OpenCount) ||
        Clashes(f.WriteAccess, r.SharedWrite, f.SharedWrite, r.Writers, r.OpenCount) ||
        Clashes(f.DeleteAccess, r.SharedDelete, f.SharedDelete, r.Deleters, r.OpenCount)) {
        return STATUS_SHARING_VIOLATION;
    }
    if (Update) Count(FileObject, ShareAccess, 1);
    return STATUS_SUCCESS;
}

VOID NTAPI IoSetShareAccess(ACCESS_MASK DesiredAccess, ULONG DesiredShareAccess, PFILE_OBJECT FileObject,
                            PSHARE_ACCESS ShareAccess)
{
    RtlZeroMemory(ShareAccess, sizeof *ShareAccess);
    NoteAccess(FileObject, DesiredAccess);
    if (!Counts(FileObject)) return;
    NoteSharing(FileObject, DesiredShareAccess);
    Count(FileObject, ShareAccess, 1);
}

VOID NTAPI IoUpdateShareAccess(PFILE_OBJECT FileObject, PSHARE_ACCESS ShareAccess)
{
    if (Counts(FileObject)) Count(FileObject, ShareAccess, 1);
}

VOID NTAPI IoRemoveShareAccess(PFILE_OBJECT FileObject, PSHARE_ACCESS ShareAccess)
{
    if (Counts(FileObject)) Count(FileObject, ShareAccess, static_cast<ULONG>(-1));
}
