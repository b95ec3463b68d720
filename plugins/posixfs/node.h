// What the shared part of hostfs and its relatives wants of a store: objects that stay the same while their names
// change, reached one component at a time, with POSIX's calls on them. A store is a class of each of the two
// interfaces.
//
// All calls but those that say otherwise give 0 or an errno. Any number of threads may use one object. No call follows
// a link, and none is given a name with a slash, "." or "..". The name "" is the directory itself, for Child alone.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>
#include <time.h>

#include "names.h"

namespace posixfs {

// An object of another type, a device or a socket, is Special and never served.
enum class Kind { File, Directory, Link, Special };
[[nodiscard]] Kind KindOf(mode_t mode);

struct NodeStat {
    mode_t Mode = 0;
    uid_t Owner = 0;
    dev_t Device = 0;
    ino_t Inode = 0;
    uint64_t Size = 0;
    uint64_t Blocks = 0; // of 512 bytes
    uint32_t BlockSize = 0;
    timespec Accessed = {};
    timespec Written = {};
    timespec Changed = {};
    std::optional<timespec> Born; // where the store keeps it
};

// An object as far as it can be looked at.
class Entry {
public:
    Entry() = default;
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;
    virtual ~Entry() = default;

    [[nodiscard]] virtual int Stat(NodeStat* stat) const = 0;
    // ERANGE when it does not fit; with no room at all only the length is asked.
    [[nodiscard]] virtual int GetXattr(const char* name, void* value, size_t room, size_t* length) const = 0;
};

class Node;
using NodeRef = std::unique_ptr<Node>;
using NameVisitor = std::function<void(const std::string& name, unsigned char type)>;

class Node : public Entry {
public:
    // --- any object
    [[nodiscard]] virtual int Access(int mode) const = 0; // R_OK, W_OK of the process
    [[nodiscard]] virtual int ChangeMode(mode_t mode) = 0;
    [[nodiscard]] virtual int SetTimes(const timespec (&accessAndWrite)[2]) = 0; // UTIME_OMIT leaves one alone
    [[nodiscard]] virtual int ListXattrs(std::string* names) const = 0;          // each ends with a NUL
    [[nodiscard]] virtual int SetXattr(const char* name, std::string_view value) = 0;
    [[nodiscard]] virtual int RemoveXattr(const char* name) = 0;
    [[nodiscard]] virtual int ReadLink(std::string* target) const = 0;
    // What the object is used for from now on, open(2)'s access mode. Before the object is shared.
    [[nodiscard]] virtual int OpenContents(int accessMode) = 0;
    // Brings what was written to stable storage; also what others wrote, where the object's contents are not open.
    [[nodiscard]] virtual int Sync() = 0;

    // --- files with their contents open; bytes moved, or a negative errno
    [[nodiscard]] virtual ssize_t Read(void* buffer, size_t length, off_t offset) = 0;
    [[nodiscard]] virtual ssize_t Write(const void* buffer, size_t length, off_t offset) = 0;
    [[nodiscard]] virtual int Truncate(off_t size) = 0;
    // Room behind the end; the size stays.
    [[nodiscard]] virtual int Allocate(off_t offset, off_t length) = 0;

    // --- directories
    [[nodiscard]] virtual int Child(const std::string& name, NodeRef* child) const = 0;
    // A child that is only looked at; it may be one that the name leads to anew each time.
    [[nodiscard]] virtual int ChildEntry(const std::string& name, std::unique_ptr<Entry>* entry) const = 0;
    // All names but "." and "..", with DT_ types. The string is one and the same, so that a scan allocates nothing.
    [[nodiscard]] virtual int ForEachName(const NameVisitor& visit) const = 0;
    // EEXIST if the name is taken. The contents of a new file are open.
    [[nodiscard]] virtual int CreateFile(const std::string& name, NodeRef* made) = 0;
    [[nodiscard]] virtual int CreateDirectory(const std::string& name, NodeRef* made) = 0;
    [[nodiscard]] virtual int CreateLink(const std::string& name, const std::string& target) = 0;
    [[nodiscard]] virtual int Remove(const std::string& name, bool isDirectory) = 0;
    // EEXIST rather than replace, unless replacing is asked for. newDirectory is of the same store.
    [[nodiscard]] virtual int Rename(const std::string& name, Node& newDirectory, const std::string& newName,
                                     bool replace) = 0;
};

class Store {
public:
    Store() = default;
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;
    virtual ~Store() = default;

    [[nodiscard]] virtual Node& Root() = 0;
    // An object by its names as they are spelled. By default component by component.
    [[nodiscard]] virtual int Find(const Components& path, NodeRef* node);
    // What absolute link targets are compared with.
    [[nodiscard]] virtual std::vector<std::string> RootPaths() const = 0;
    [[nodiscard]] virtual int StatFileSystem(struct statvfs* info) = 0;
    // Brings all that was written to stable storage.
    [[nodiscard]] virtual int Flush() = 0;
};

} // namespace posixfs
