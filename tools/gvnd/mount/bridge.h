// The file system that `gvnd mount` serves: each operation of the kernel becomes NT requests on the mounted volume. A
// member here is one operation. It returns 0 when it has answered, else the error that its caller is to answer with.
//
// An operation by path holds Nodes::Namespace shared, one that changes names exclusively. One on an open file needs
// neither: it holds the file (files.h).
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#define FUSE_USE_VERSION 312
#include <fuse3/fuse_lowlevel.h>

#include "gvnd/mount/attributes.h"
#include "gvnd/mount/locks.h"
#include "gvnd/mount/nodes.h"
#include "gvnd/session.h"

namespace tool::mount {

struct BridgeOptions {
    ULONG Share = kShareEverything; // of every open of a file
    bool Writeback = false;         // the kernel keeps written pages, and reads around them
    double Timeout = 1.0;           // seconds that names and attributes are kept by the kernel
};

struct Listing; // of an open directory; listing.cpp
struct Answer;  // to a reader of one

class Bridge {
public:
    Bridge(Session& session, const BridgeOptions& options, std::string mountPoint);

    bool Writeback() const { return options_.Writeback; }

    // --- names (names.cpp)
    int Lookup(fuse_req_t request, fuse_ino_t parent, const char* name);
    void Forget(fuse_ino_t node, uint64_t lookups) { nodes_.Forget(node, lookups); }
    int MakeNode(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode);
    int MakeDirectory(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode);
    int Unlink(fuse_req_t request, fuse_ino_t parent, const char* name);
    int RemoveDirectory(fuse_req_t request, fuse_ino_t parent, const char* name);
    // rename.cpp
    int Rename(fuse_req_t request, fuse_ino_t parent, const char* name, fuse_ino_t newParent, const char* newName,
               unsigned flags);
    // links.cpp
    int MakeSymlink(fuse_req_t request, const char* target, fuse_ino_t parent, const char* name);
    int ReadSymlink(fuse_req_t request, fuse_ino_t node);

    // --- attributes (metadata.cpp)
    int GetAttributes(fuse_req_t request, fuse_ino_t node, fuse_file_info* file);
    int SetAttributes(fuse_req_t request, fuse_ino_t node, struct stat* values, int which, fuse_file_info* file);
    int StatVolume(fuse_req_t request);
    // xattrs.cpp
    int SetXattr(fuse_req_t request, fuse_ino_t node, const char* name, const char* value, size_t size, int flags);
    int GetXattr(fuse_req_t request, fuse_ino_t node, const char* name, size_t size);
    int ListXattrs(fuse_req_t request, fuse_ino_t node, size_t size);
    int RemoveXattr(fuse_req_t request, fuse_ino_t node, const char* name);

    // --- contents (files.cpp)
    int OpenExisting(fuse_req_t request, fuse_ino_t node, fuse_file_info* file);
    int Create(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode, fuse_file_info* file);
    int Read(fuse_req_t request, size_t size, off_t offset, fuse_file_info* file);
    int Write(fuse_req_t request, const char* data, size_t size, off_t offset, fuse_file_info* file);
    int FlushOnClose(fuse_req_t request, fuse_file_info* file);
    int Release(fuse_req_t request, fuse_file_info* file);
    int Sync(fuse_req_t request, fuse_file_info* file);
    int Allocate(fuse_req_t request, int mode, off_t offset, off_t length, fuse_file_info* file);
    // locks.cpp
    int TestLock(fuse_req_t request, fuse_file_info* file, struct flock* lock);
    int SetLock(fuse_req_t request, fuse_file_info* file, const struct flock& lock, bool wait);
    int LockWhole(fuse_req_t request, fuse_file_info* file, int operation);

    // --- directories (listing.cpp)
    int OpenDirectory(fuse_req_t request, fuse_ino_t node, fuse_file_info* file);
    int ReadDirectory(fuse_req_t request, fuse_ino_t node, size_t size, off_t offset, fuse_file_info* file, bool plus);
    int ReleaseDirectory(fuse_req_t request, fuse_file_info* file);
    int SyncDirectory(fuse_req_t request, fuse_ino_t node);

    // The program behind a request that waits does not want it any more.
    void Interrupted(fuse_req_t request) { locks_.Interrupted(request); }
    // Paths of the open files, for whoever wants to unmount.
    std::vector<std::string> OpenPaths();
    // What the kernel has not released, after a session that ended by force.
    void CloseEverything();

private:
    struct Place {
        Node* Parent;
        NtName Name;
        NtName Path;
    };
    // Namespace is held. ENOENT, ESTALE, ENAMETOOLONG.
    int FindPlace(fuse_ino_t parent, const char* name, Place* place);
    int FindPath(fuse_ino_t node, NtName* path);
    // An answer for a name that has just been found or made, which counts as a lookup.
    int ReplyEntry(fuse_req_t request, const Place& place, const Facts& facts);
    fuse_entry_param EntryOf(const Place& place, const Facts& facts);
    int MakeObject(fuse_req_t request, const Place& place, mode_t mode, ACCESS_MASK access, ULONG options,
                   ULONG disposition, Handle* handle, Facts* facts);
    int RemoveName(const Place& place, ULONG type);
    // Gives the file of an open node a name that nobody sees.
    int Hide(Node* node, const NtName& path);
    int ClearTheWay(const Place& target, const Facts& source, bool mayReplace, bool* replaces);
    int MoveObject(const Place& from, const Place& to, const Facts& facts, bool replace);
    int AddFile(fuse_req_t request, Node* node, Handle handle, ACCESS_MASK access, fuse_file_info* file);
    bool RemoveFile(OpenFile* file);
    void RemoveHidden(Node* node);
    int ReadEntries(Node* directory, Listing* listing);
    int FillAnswer(fuse_ino_t id, Listing* listing, off_t offset, bool plus, Answer* answer,
                   std::vector<fuse_ino_t>* given);
    int ReplyAttributes(fuse_req_t request, fuse_ino_t node, const Facts& facts);
    int OpenFor(fuse_ino_t node, ACCESS_MASK access, Handle* handle);

    Session& session_;
    const BridgeOptions options_;
    const std::string mountPoint_;
    Links links_;
    Nodes nodes_;
    Locks locks_{nodes_};
};

} // namespace tool::mount
