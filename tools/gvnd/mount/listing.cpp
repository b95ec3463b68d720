// Listings. A directory is read whole when its reading begins, so that places in it stay what they are while entries
// come and go, and no handle keeps it from being renamed or removed.
#include "gvnd/mount/bridge.h"

#include <cerrno>
#include <cstring>
#include <mutex>

#include <posixfs/names.h>

#include "gvnd/mount/errors.h"

namespace tool::mount {

struct Listing {
    struct Entry {
        std::string Name;
        mode_t Type;
    };
    std::mutex Mutex;
    bool Read = false;
    std::vector<Entry> Entries;
};

namespace {

constexpr size_t kPage = 64 * 1024;

Listing* ListingOf(const fuse_file_info* file) { return reinterpret_cast<Listing*>(file->fh); }

mode_t TypeOf(ULONG attributes)
{
    if (attributes & FILE_ATTRIBUTE_REPARSE_POINT) return S_IFLNK;
    return attributes & FILE_ATTRIBUTE_DIRECTORY ? S_IFDIR : S_IFREG;
}

} // namespace

// The kernel's buffer while it fills.
struct Answer {
    fuse_req_t Request;
    std::vector<char> Bytes;
    size_t Used = 0;

    // False, and nothing done, if there is no room.
    bool Add(const Listing::Entry& entry, off_t next)
    {
        struct stat info = {};
        info.st_mode = entry.Type;
        info.st_ino = 0xffffffff; // a look at the entry tells
        return Take(fuse_add_direntry(Request, At(), Room(), entry.Name.c_str(), &info, next));
    }
    bool AddPlus(const Listing::Entry& entry, const fuse_entry_param& param, off_t next)
    {
        return Take(fuse_add_direntry_plus(Request, At(), Room(), entry.Name.c_str(), &param, next));
    }

private:
    char* At() { return Bytes.data() + Used; }
    size_t Room() const { return Bytes.size() - Used; }
    bool Take(size_t needed)
    {
        if (needed > Room()) return false;
        Used += needed;
        return true;
    }
};

int Bridge::OpenDirectory(fuse_req_t request, fuse_ino_t, fuse_file_info* file)
{
    auto* const listing = new Listing;
    file->fh = reinterpret_cast<uint64_t>(listing);
    if (fuse_reply_open(request, file) == -ENOENT) delete listing;
    return 0;
}

int Bridge::ReleaseDirectory(fuse_req_t request, fuse_file_info* file)
{
    delete ListingOf(file);
    fuse_reply_err(request, 0);
    return 0;
}

// What Linux cannot name is left out: nobody could reach it.
int Bridge::ReadEntries(Node* directory, Listing* listing)
{
    const NtName path = nodes_.PathOf(directory);
    if (path.empty()) return ESTALE;
    Handle handle;
    NTSTATUS status = mount::Open(path, {.Access = FILE_LIST_DIRECTORY, .Options = FILE_DIRECTORY_FILE}, &handle);
    listing->Entries = {{".", S_IFDIR}, {"..", S_IFDIR}};
    std::vector<uint64_t> page(kPage / 8);
    for (bool restart = true; NT_SUCCESS(status); restart = false) {
        status = QueryDirectory(handle.Get(), page.data(), kPage, restart);
        if (!NT_SUCCESS(status)) break;
        const char* at = reinterpret_cast<const char*>(page.data());
        for (;;) {
            const auto& record = *reinterpret_cast<const FILE_DIRECTORY_INFORMATION*>(at);
            NtName name(record.FileNameLength / sizeof(WCHAR), u'\0');
            std::memcpy(name.data(), record.FileName, record.FileNameLength);
            const auto linuxName = posixfs::ToLinuxName(name);
            if (linuxName && *linuxName != "." && *linuxName != ".." && !nodes_.IsHiddenName(directory, name))
                listing->Entries.push_back({*linuxName, TypeOf(record.FileAttributes)});
            if (record.NextEntryOffset == 0) break;
            at += record.NextEntryOffset;
        }
    }
    listing->Read = status == STATUS_NO_MORE_FILES || status == STATUS_NO_SUCH_FILE;
    return listing->Read ? 0 : ErrorOf(status);
}

// The entries from offset on, as many as there is room for. What each has been looked up for goes to given.
int Bridge::FillAnswer(fuse_ino_t id, Listing* listing, off_t offset, bool plus, Answer* answer,
                       std::vector<fuse_ino_t>* given)
{
    const std::lock_guard lock(listing->Mutex);
    Node* const directory = nodes_.Find(id);
    if (!directory) return ESTALE;
    if (offset == 0 || !listing->Read) {
        if (const int error = ReadEntries(directory, listing)) return error;
    }
    for (auto at = static_cast<size_t>(offset); at < listing->Entries.size(); ++at) {
        const Listing::Entry& entry = listing->Entries[at];
        const auto next = static_cast<off_t>(at + 1);
        fuse_entry_param param = {};
        const bool self = at < 2; // "." and "..", which the kernel does not want a look-up of
        Place place;
        Facts facts;
        if (plus && !self && FindPlace(id, entry.Name.c_str(), &place) == 0 &&
            NT_SUCCESS(DescribePath(links_, place.Path, &facts)))
            param = EntryOf(place, facts);
        if (param.ino == 0) {
            param.attr.st_mode = entry.Type;
            param.attr.st_ino = 0xffffffff;
        }
        const bool room = plus ? answer->AddPlus(entry, param, next) : answer->Add(entry, next);
        if (!room && param.ino) nodes_.Forget(param.ino, 1);
        if (!room) break;
        if (param.ino) given->push_back(param.ino);
    }
    return 0;
}

// Once it has the answer, the kernel may release the directory, on another thread: so nothing of the listing, not even
// its mutex, is touched any more by then.
int Bridge::ReadDirectory(fuse_req_t request, fuse_ino_t id, size_t size, off_t offset, fuse_file_info* file, bool plus)
{
    const std::shared_lock names(nodes_.Namespace);
    Answer answer = {.Request = request, .Bytes = std::vector<char>(size)};
    std::vector<fuse_ino_t> given;
    if (const int error = FillAnswer(id, ListingOf(file), offset, plus, &answer, &given)) return error;
    if (fuse_reply_buf(request, answer.Bytes.data(), answer.Used) == -ENOENT) {
        for (const fuse_ino_t each : given) nodes_.Forget(each, 1);
    }
    return 0;
}

int Bridge::SyncDirectory(fuse_req_t request, fuse_ino_t id)
{
    const std::shared_lock names(nodes_.Namespace);
    Handle handle;
    NtName path;
    if (const int error = FindPath(id, &path)) return error;
    // NT flushes no directory but the root, and with it the volume; the names of others are the plugin's to keep.
    constexpr ACCESS_MASK kWrites = FILE_ADD_FILE;
    NTSTATUS status = mount::Open(path, {.Access = kWrites, .Options = FILE_DIRECTORY_FILE}, &handle);
    if (NT_SUCCESS(status)) status = Flush(handle.Get());
    if (!NT_SUCCESS(status)) return ErrorOf(status);
    fuse_reply_err(request, 0);
    return 0;
}

} // namespace tool::mount
