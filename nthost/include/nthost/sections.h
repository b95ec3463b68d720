// Sections as tests and tools see and drive them: counts, the modified-page writer and the trimmer, which run only when
// they are told to. Callable from any attached thread that holds nothing of a file system's.
#pragma once

#include <cstddef>

#include <ntifs.h>

namespace nthost {

// What memory management has of one file. All zero for a file without a section of that kind.
struct SectionUse {
    LONGLONG Size;       // bytes: the file's, when a section was last made of it
    size_t PresentPages; // read and not purged since
    size_t DirtyPages;   // of these, changed since they were last written
    unsigned Sections;   // section objects
    unsigned Views;
};
// A moment's picture. The file object is the caller's.
SectionUse DataSectionOf(PFILE_OBJECT file);
SectionUse ImageSectionOf(PFILE_OBJECT file);

// Writes the file's changed pages once, as the modified-page writer does: on a system thread, at APC_LEVEL, under the
// AcquireForModWrite callback (or the file's resources), without waiting for either. The first failure:
// STATUS_CANT_WAIT if the lock was taken, or that of a paging write; what was not written stays changed.
[[nodiscard]] NTSTATUS StepModifiedPageWriter(PFILE_OBJECT file);

// Lets go of every section that has no handle and no view: changed pages are written, with the flush callbacks around,
// then all pages go, and with them the reference on the file object, which may send its close. One whose changes cannot
// be written stays, and keeps its file open and its volume mounted, unless the changes may be lost. Returns how many
// went.
enum class IfUnwritable { Stays, Goes };
unsigned TrimSections(IfUnwritable ifUnwritable = IfUnwritable::Stays);

// Copies as a user program would, with views at either end: STATUS_SUCCESS, or the exception's status
// (STATUS_IN_PAGE_ERROR, STATUS_ACCESS_VIOLATION). A view's address must not be given to Linux system calls, which fail
// instead of faulting.
[[nodiscard]] NTSTATUS GuardedCopy(void* to, const void* from, size_t length);

} // namespace nthost
