// File objects: their body, their lock for synchronous I/O, and the requests that end them. The public part is the file
// system's to fill; what stands behind it is the I/O manager's.
#pragma once

#include <ntifs.h>

#include "ke/end_signal.h"
#include "ke/word_lock.h"
#include "ob/object.h"

namespace nthost::io {

struct FileBody {
    FILE_OBJECT File; // IrpList is guarded by RequestLock
    ke::WordLock RequestLock;
    ke::EndSignal Ended; // a request left the list
};

inline FileBody* BodyOf(PFILE_OBJECT file) { return reinterpret_cast<FileBody*>(file); }

// The flags of a file object change while requests are out on it: its mode is set, its last handle goes while a section
// still pages through it. From the first request on they are read and changed by these alone.
inline ULONG FileFlags(const FILE_OBJECT* file) { return __atomic_load_n(&file->Flags, __ATOMIC_RELAXED); }
inline bool HasFlag(const FILE_OBJECT* file, ULONG flag) { return FileFlags(file) & flag; }
inline void SetFlag(PFILE_OBJECT file, ULONG flag, bool on = true)
{
    if (on)
        __atomic_fetch_or(&file->Flags, flag, __ATOMIC_SEQ_CST);
    else
        __atomic_fetch_and(&file->Flags, ~flag, __ATOMIC_SEQ_CST);
}

extern OBJECT_TYPE FileType;
extern const GENERIC_MAPPING FileMapping;

// A file object on the device, which the caller has counted for it (CountOpen) and whose count goes with it. Null
// without memory.
PFILE_OBJECT NewFileObject(PDEVICE_OBJECT device, ULONG createOptions);
// The name's memory is pool, since a driver may free it, or put its own in its place. False without memory.
[[nodiscard]] bool SetFileName(PFILE_OBJECT file, const WCHAR* name, USHORT length);

// One synchronous request at a time on a file object opened for synchronous I/O.
void LockFileObject(PFILE_OBJECT file);
void UnlockFileObject(PFILE_OBJECT file);

} // namespace nthost::io
