// The shared records: the volume, the control block of an object, the record of an open, the request in service. Fields
// stand under the lock that guards them.
#pragma once

#include "frame/atomic.h"
#include "frame/nt.h"
#include "frame/spinlock.h"

struct Vcb;
struct Fcb;

enum GvMountState : ULONG {
    GvNotMounted = 0,
    GvMounted = 1,
    GvUnmountRequested = 2, // no new opens, no plugin calls; cleanup and close go on
    GvUnmounting = 3        // terminal
};

// A counted wrapper over the platform's prefix table: full path to embedded entry, exact match. No lock of its own:
// changed and walked under Vcb.Resource, exclusive. Non-paged.
struct GvTree {
    volatile LONG Count; // read without the lock by the unmount test
    UNICODE_PREFIX_TABLE PrefixTable;
};

// Embedded in its owner; on at most one tree.
struct GvTreeEntry {
    UNICODE_PREFIX_TABLE_ENTRY PrefixEntry;
    GvSpinLock KeyLock; // a leaf: a nested query reads the name with no other lock
    // Private copy of the name; owned by the tree while the entry is on it. Changed under Vcb.Resource, exclusive, too.
    PUNICODE_STRING Key GV_GUARDED_BY(KeyLock);
};

struct FcbTables {
    GvTree* NameTree;     // live objects by full path
    GvTree* DeletionTree; // objects gone from the plugin that still have file objects, by deletion key
};

// Who serves a request that leaves its thread. The memory manager waits for paging requests while it holds the object's
// lock or a page that others wait for, so requests that may be blocked by those must not stand in front of them.
enum GvLane : UCHAR {
    GvLaneOrdinary, // the pool
    GvLanePaging,   // takes the object's lock, and no other
    GvLaneNested,   // paging, nested in work that may hold the object's lock: takes none
    GvLaneCount
};
constexpr ULONG GvReservedWorkers = GvLaneCount - 1; // one for each lane of paging requests

// What a worker starts with.
struct GvWorkerStart {
    struct Vcb* Volume;
    GvLane Lane;
};

// One per mounted volume: the extension of the volume's device object, from mount to unmount.
struct Vcb {
    PUNICODE_STRING SymLinkName;    // owned; deletes the link at unmount
    PFILE_OBJECT BackingFileObject; // referenced, to keep the backing object open; nothing else
    const ::PluginOps* PluginOps;   // the plugin's own; read anew at each call
    ERESOURCE Resource;             // exclusive for whatever changes the name trees
    ::FcbTables* FcbTables;

    GvSpinLock PinLock;
    ULONG PinCount GV_GUARDED_BY(PinLock);        // threads pinned on the volume
    ULONG PluginCallCount GV_GUARDED_BY(PinLock); // threads inside a plugin call
    ULONG MountState GV_GUARDED_BY(PinLock);      // GvMountState; looked at without the lock, so set with GvStore

    LIST_ENTRY PendedList[GvLaneCount] GV_GUARDED_BY(QueueLock); // contexts that wait for a worker
    ULONG PendedCount GV_GUARDED_BY(QueueLock);                  // of the ordinary ones
    LIST_ENTRY ActiveList GV_GUARDED_BY(QueueLock);              // contexts inside a worker or inside a plugin call
    GvSpinLock QueueLock;

    KSEMAPHORE WorkSemaphore[GvLaneCount]; // a permit for each context put on the lane's PendedList
    KEVENT StopEvent;                      // ends every worker
    GvWorkerStart WorkerStart[GvLaneCount];
    HANDLE* WorkerThreads; // owned; the pool's, then one for each lane of paging requests
    ULONG WorkerCount;     // of the pool; 0 until it runs

    Fcb* VolumeFcb; // for opens of the volume itself; on no tree

    // Kept initialised for a change-report facility; nothing uses them.
    PNOTIFY_SYNC NotifySync;
    LIST_ENTRY NotifyList;
};

constexpr ULONG GvMaximumPended = 10000; // contexts of a lane that wait

enum GvFileType : ULONG {
    GvAnyType = 1, // in requests only
    GvDirectory = 2,
    GvFile = 3,
    GvVolume = 4
};

constexpr CSHORT GvFcbNodeType = 0x1337;

// One per plugin object that the driver holds a reference on. Non-paged, zeroed. Header.Resource is the object's lock;
// taken after Vcb.Resource.
struct Fcb {
    FSRTL_COMMON_FCB_HEADER Header; // FileSize is the only size kept
    SECTION_OBJECT_POINTERS SectionObjectPointers;

    // Under Vcb.Resource, exclusive to change:
    GvTreeEntry TreeEntry;
    Fcb* ReferencedLink; // next in a referenced list, during a walk
    Fcb* ParentFcb;      // holds a count on it; null for the root, the volume and a deleted object

    // Atomic: a nested close changes the first two with no lock.
    volatile LONG RefCount;    // children, file objects, holders on a stack
    volatile LONG OpenCount;   // file objects, from open to close
    volatile LONG HandleCount; // file objects, from open to cleanup

    // Constant:
    ULONG FcbType; // GvFileType, never GvAnyType
    UCHAR IsRootDir;

    // Under Header.Resource:
    PluginAccessMask MaxAllowedAccess;      // the most that the plugin allows
    PluginAccessMask PluginFdCurrentAccess; // what PluginFd was opened with
    SHARE_ACCESS ShareAccess;
    UCHAR DeletePending;         // goes at the last cleanup; new opens fail; GvLoad, GvStore
    UCHAR Deleted;               // gone from the plugin; GvLoad, GvStore
    UCHAR PluginFdClosed;        // the plugin must not see the handle again; GvLoad, GvStore
    UCHAR OnDeletionTree;        // with Vcb.Resource too
    ::PluginFd PluginFd;         // 0 when there is none; GvLoad, GvStore
    UCHAR PluginFdRefreshNeeded; // re-open at the next open

    // What PluginFd can do, whatever PluginFdCurrentAccess has been lowered to since: handles that were opened for
    // writing go on writing when the object becomes read-only.
    PluginAccessMask PluginFdGranted;

    // Calls that are nested in other work use the handle with no lock; who replaces it waits for them (handleswitch.h).
    volatile LONG NestedCalls;
    volatile LONG HandleSwitching;
    KEVENT NestedCallsDone; // auto-reset: perhaps NestedCalls is 0
    KEVENT HandleSettled;   // HandleSwitching is 0 again

    FILE_LOCK FileLock;

    volatile LONG ChildDeleteCount; // atomic; directory scans compare it
};

// One per file object: FileObject.FsContext2. Non-paged, zeroed. The scan fields belong to the directory's lock; held
// shared, it lets several queries of one handle move the position at once.
struct Ccb {
    volatile LONG DirScanIndex;       // next index for ReadDirEntry; GvLoad, GvStore
    PUNICODE_STRING DirSearchPattern; // upcased; owned; null until a query brings one
    volatile LONG DirGeneration;      // the directory's ChildDeleteCount when the scan began; GvLoad, GvStore
    volatile ULONG EaScanIndex;       // next EA by position, from 1; GvLoad, GvStore
    UCHAR DeleteOnClose;
    UCHAR SizeChanged;
    UCHAR LastWriteChanged;
    UCHAR HandleGone; // its cleanup has been; under the object's lock
};

// One per request in service. Non-paged, zeroed. Owned by the routine that allocated it until GvPendIrpContext
// succeeds, then by the worker that takes it, or by the cancel routine while it waits.
struct IrpContext {
    LIST_ENTRY Link; // Vcb.PendedList or Vcb.ActiveList, under Vcb.QueueLock; idle while on neither
    PDEVICE_OBJECT DeviceObject;
    PIRP Irp;
    ::Vcb* Vcb;
    UCHAR IsTopLevel;         // the thread's top-level slot was free on entry
    UCHAR IsAsync;            // the caller will not wait; cleared by the worker
    UCHAR IsPended;           // served by a worker; set once, under QueueLock
    GvLane Lane;              // whose PendedList, once it is pended
    UCHAR HasSubject;         // Subject is captured
    KEVENT PluginCallContext; // auto-reset; signalled when the request is cancelled while on ActiveList
    // The caller's tokens, for a request whose worker asks the plugin what the caller may do.
    SECURITY_SUBJECT_CONTEXT Subject;
};

inline Vcb* GvVcbOf(PDEVICE_OBJECT device) { return static_cast<Vcb*>(device->DeviceExtension); }
inline Fcb* GvFcbOf(PFILE_OBJECT fileObject) { return static_cast<Fcb*>(fileObject->FsContext); }
inline Ccb* GvCcbOf(PFILE_OBJECT fileObject) { return static_cast<Ccb*>(fileObject->FsContext2); }
