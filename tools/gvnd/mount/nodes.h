// What the kernel knows of the volume: one node for each name that it has looked up, counted by its lookups. A node has
// its parent and its name, so that a path of the volume can be made of it at any time; files that are open have their
// handles noted, since a name that goes or moves must take care of them.
//
// Namespace is held shared by whoever makes a path and sends it, and exclusively by whoever changes names: a rename or
// a deletion never meets an open that is under way with the old path. Table guards the maps and counts, briefly.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "gvnd/mount/requests.h"

namespace tool::mount {

class OpenFile;

struct Node {
    uint64_t Id = 0;
    Node* Parent = nullptr; // null for the root, and once the name has gone
    NtName Name;
    uint64_t Lookups = 0;
    unsigned Children = 0; // nodes whose parent this is
    bool Gone = false;     // the name is no more
    bool Hidden = false;   // deleted while open: has a name of the bridge's own, and goes with the last handle
    std::unordered_set<OpenFile*> Files;
};

class Nodes {
public:
    Nodes();
    ~Nodes();
    Nodes(const Nodes&) = delete;
    Nodes& operator=(const Nodes&) = delete;

    std::shared_mutex Namespace;

    // --- Namespace held, shared at least

    // The path from the root; empty for a node without a name.
    NtName PathOf(const Node* node) const;
    static NtName Join(const NtName& directory, const NtName& name);

    // Null for a node that the kernel has forgotten, which it never names again.
    Node* Find(uint64_t id) const;
    Node* FindChild(const Node* parent, const NtName& name) const;
    // One more lookup of the name, whose node is made if there is none.
    Node* Remember(Node* parent, const NtName& name);
    void Forget(uint64_t id, uint64_t lookups);

    void AddFile(Node* node, OpenFile* file);
    // True if that was the last one of a hidden node, which then stays until it is removed.
    bool RemoveFile(Node* node, OpenFile* file);
    // Of the node itself and, for a directory, of everything below it.
    std::vector<OpenFile*> FilesAt(const Node* node) const;
    std::vector<OpenFile*> AllFiles() const;

    // --- Namespace held exclusively

    void Move(Node* node, Node* newParent, const NtName& newName);
    void Remove(Node* node);
    // A name that nobody else has, in the root.
    NtName NewHiddenName();
    bool IsHiddenName(const Node* directory, const NtName& name) const;

    Node* Root() const { return root_; }

private:
    using Key = std::pair<uint64_t, NtName>; // parent and folded name
    static Key KeyOf(const Node* parent, const NtName& name);
    void Release(Node* node);

    mutable std::mutex table_;
    std::unordered_map<uint64_t, std::unique_ptr<Node>> nodes_;
    std::map<Key, Node*> names_;
    Node* root_;
    uint64_t lastId_ = 1;
    uint64_t lastHidden_ = 0;
};

} // namespace tool::mount
