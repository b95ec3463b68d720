// A file, a link or a directory. A node lives as long as it is referenced: by the directory that lists it, by each open
// handle, by each operation that works on it. The three kinds of state have a lock each; no two of these locks are
// held together.
#pragma once

#include "data.h"

namespace memfs {

struct MemFs;

enum class NodeKind { File, Directory };

// One extended attribute, in one block: the name, NUL-terminated, and the value behind it.
struct Ea {
    Ea* Next;
    ULONG ValueLength;
    UCHAR NameLength; // without the NUL
    char Name[1];
};

struct Node {
    // Constant.
    MemFs* Volume;
    NodeKind Kind;

    // Interlocked.
    volatile LONG References;

    // Under MemFs.TreeLock. Name.Buffer is paged pool.
    UNICODE_STRING Name;
    Node* Parent;   // null for the root and for what has been deleted; no reference: a directory with entries stays
    Node* Children; // a directory's entries: the top of a balanced tree by name (directory.h)
    Node* Left;     // in the tree of Parent
    Node* Right;
    ULONG Count; // nodes in the subtree that begins here

    // Under Lock.
    ERESOURCE Lock;
    FileData Data;
    Ea* Eas; // in the order of their setting

    // Under InfoLock; the two sizes are changed under Lock, exclusive, as well.
    KSPIN_LOCK InfoLock;
    PluginFileInfo Info;
};

enum class Touched {
    Content,   // last write and change time
    Attributes // change time
};

enum class IsLink { No, Yes };

// The caller gets the only reference.
[[nodiscard]] NTSTATUS NodeCreate(MemFs* volume, const UNICODE_STRING& name, NodeKind kind, Node** node);
void NodeReference(Node* node);
// Frees the node with the last one; takes no resource.
void NodeRelease(Node* node);

PluginFileInfo NodeInfo(Node* node);
bool NodeIsReadOnlyFile(Node* node);
// STATUS_FILE_IS_A_DIRECTORY or STATUS_NOT_A_DIRECTORY if the node is of the other kind.
[[nodiscard]] NTSTATUS NodeExpect(const Node* node, NodeKind kind);
void NodeTouch(Node* node, Touched what);
// Only the settable attributes; what says the kind of the object stays.
void NodeSetAttributes(Node* node, ULONG attributes);
void NodeSetLink(Node* node, IsLink isLink);

// Charges the volume for a new allocation, cuts the data, and publishes the sizes. Under Lock, exclusive.
// STATUS_DISK_FULL leaves all as it was.
[[nodiscard]] NTSTATUS NodeResize(Node* node, ULONGLONG endOfFile, ULONGLONG allocation);

// Holds one reference.
class NodeRef {
public:
    NodeRef() = default;
    NodeRef(const NodeRef&) = delete;
    NodeRef& operator=(const NodeRef&) = delete;
    ~NodeRef()
    {
        if (node_) NodeRelease(node_);
    }

    Node* Get() const { return node_; }
    Node* operator->() const { return node_; }
    Node** Out() { return &node_; }

private:
    Node* node_ = nullptr;
};

} // namespace memfs
