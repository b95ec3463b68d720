// A tree of files as the copier sees it, on either side: a volume through the front door, or a directory of this
// machine. Paths begin with a backslash at the tree's root, which is "", and are NT names in UTF-8. A failure is an
// exception whose text names the object.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <ntifs.h>

#include "gvnd/eas.h"

namespace tool {

enum class NodeKind { File, Directory, Link, Other };

struct TreeEntry {
    std::string Name;
    NodeKind Kind;
    uint64_t Size;
};

// What is carried beside contents. Times in 100 ns since 1601; attributes as far as they can be set.
struct NodeFacts {
    ULONG Attributes;
    int64_t Creation, LastAccess, LastWrite;
    uint64_t Size;
};
constexpr ULONG kCarriedAttributes =
    FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE;

// The tree cannot hold what it was asked to: a name that is none there, or that it takes for another's.
class NotRepresentable : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The tree takes the object, but not this part of what belongs to it.
class NotKept : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// An open file or directory; closed with it.
class TreeNode {
public:
    virtual ~TreeNode() = default;
    // Bytes read, 0 at the end.
    virtual size_t Read(uint64_t offset, char* buffer, size_t length) = 0;
    virtual void Write(uint64_t offset, const char* buffer, size_t length) = 0;
    virtual NodeFacts Facts() = 0;
    // Size is not read. A time that the tree has no place for is left out; NotKept for attributes.
    virtual void SetFacts(const NodeFacts& facts) = 0;
    virtual EaMap Eas() = 0;
    // Adds or replaces; NotKept where the tree holds none.
    virtual void SetEas(const EaMap& eas) = 0;
};

enum class OpenFor { Reading, Changing };
// What may happen to an object of that name that is there already.
enum class IfThere { Refuse, Overwrite };

class Tree {
public:
    virtual ~Tree() = default;
    // The path as a person would look for it.
    virtual std::string Title(const std::string& path) const = 0;
    virtual bool IgnoresCase() const = 0;

    virtual std::vector<TreeEntry> List(const std::string& path) = 0;
    virtual std::unique_ptr<TreeNode> Open(const std::string& path, NodeKind kind, OpenFor purpose) = 0;
    // NotRepresentable for a name that cannot be, or, with Refuse, that is there already.
    virtual std::unique_ptr<TreeNode> MakeFile(const std::string& path, IfThere ifThere) = 0;
    virtual void MakeDirectory(const std::string& path) = 0;
    // Where a link leads, as a path of this tree; nothing if that lies outside of it.
    virtual std::optional<std::string> ReadLink(const std::string& path) = 0;
    virtual void MakeLink(const std::string& path, const std::string& target) = 0;
};

class Session;
// Beneath a directory of the mounted volume, which must exist; the session must outlive it.
std::unique_ptr<Tree> VolumeTree(Session& session, const std::string& root);
// A directory of this machine. Names, attributes and extended attributes are mapped as hostfs maps them.
std::unique_ptr<Tree> HostTree(const std::string& root);

} // namespace tool
