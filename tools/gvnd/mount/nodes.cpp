// The node table. Two spellings of one name are one node, as the driver takes them for one object.
#include "gvnd/mount/nodes.h"

#include <algorithm>

#include <fmt/format.h>

#include <nthost/debug.h>

namespace tool::mount {

namespace {

constexpr uint64_t kRootId = 1; // FUSE's own number
constexpr std::u16string_view kHiddenPrefix = u".gvnd-deleted-";

bool IsBelow(const Node* node, const Node* directory)
{
    for (; node; node = node->Parent) {
        if (node == directory) return true;
    }
    return false;
}

} // namespace

Nodes::Nodes()
{
    auto root = std::make_unique<Node>();
    root->Id = kRootId;
    root->Lookups = 1; // never forgotten
    root_ = root.get();
    nodes_.emplace(kRootId, std::move(root));
}

Nodes::~Nodes() = default;

Nodes::Key Nodes::KeyOf(const Node* parent, const NtName& name)
{
    NtName folded = name;
    for (char16_t& unit : folded) unit = static_cast<char16_t>(RtlUpcaseUnicodeChar(static_cast<WCHAR>(unit)));
    return {parent->Id, std::move(folded)};
}

NtName Nodes::Join(const NtName& directory, const NtName& name)
{
    return (directory.ends_with(u'\\') ? directory : directory + u'\\') + name;
}

NtName Nodes::PathOf(const Node* node) const
{
    const std::lock_guard lock(table_);
    if (node == root_) return u"\\";
    NtName path;
    for (; node != root_; node = node->Parent) {
        if (!node || node->Gone) return {};
        path.insert(0, u'\\' + node->Name);
    }
    return path;
}

Node* Nodes::Find(uint64_t id) const
{
    const std::lock_guard lock(table_);
    const auto found = nodes_.find(id);
    return found == nodes_.end() ? nullptr : found->second.get();
}

Node* Nodes::FindChild(const Node* parent, const NtName& name) const
{
    const Key key = KeyOf(parent, name);
    const std::lock_guard lock(table_);
    const auto found = names_.find(key);
    return found == names_.end() ? nullptr : found->second;
}

Node* Nodes::Remember(Node* parent, const NtName& name)
{
    const Key key = KeyOf(parent, name);
    const std::lock_guard lock(table_);
    if (const auto found = names_.find(key); found != names_.end()) {
        ++found->second->Lookups;
        return found->second;
    }
    auto node = std::make_unique<Node>();
    node->Id = ++lastId_;
    node->Parent = parent;
    node->Name = name;
    node->Lookups = 1;
    ++parent->Children;
    Node* const made = node.get();
    names_.emplace(key, made);
    nodes_.emplace(made->Id, std::move(node));
    return made;
}

void Nodes::Forget(uint64_t id, uint64_t lookups)
{
    const std::lock_guard lock(table_);
    const auto found = nodes_.find(id);
    if (found == nodes_.end()) return;
    Node* const node = found->second.get();
    node->Lookups -= std::min(lookups, node->Lookups);
    Release(node);
}

// Under table_. Goes up: a parent whose last child went may have been forgotten before.
void Nodes::Release(Node* node)
{
    while (node && node != root_ && !node->Hidden && node->Lookups == 0 && node->Children == 0 && node->Files.empty()) {
        Node* const parent = node->Parent;
        if (parent) {
            names_.erase(KeyOf(parent, node->Name));
            --parent->Children;
        }
        nodes_.erase(node->Id);
        node = parent;
    }
}

void Nodes::AddFile(Node* node, OpenFile* file)
{
    const std::lock_guard lock(table_);
    node->Files.insert(file);
}

bool Nodes::RemoveFile(Node* node, OpenFile* file)
{
    const std::lock_guard lock(table_);
    node->Files.erase(file);
    const bool lastOfHidden = node->Hidden && node->Files.empty();
    if (!lastOfHidden) Release(node);
    return lastOfHidden;
}

std::vector<OpenFile*> Nodes::FilesAt(const Node* node) const
{
    const std::lock_guard lock(table_);
    std::vector<OpenFile*> files;
    for (const auto& [id, each] : nodes_) {
        if (!each->Files.empty() && IsBelow(each.get(), node))
            files.insert(files.end(), each->Files.begin(), each->Files.end());
    }
    return files;
}

std::vector<OpenFile*> Nodes::AllFiles() const { return FilesAt(root_); }

void Nodes::Move(Node* node, Node* newParent, const NtName& newName)
{
    Key key = KeyOf(newParent, newName);
    const std::lock_guard lock(table_);
    if (node->Parent) {
        names_.erase(KeyOf(node->Parent, node->Name));
        --node->Parent->Children;
    }
    Node* const oldParent = std::exchange(node->Parent, newParent);
    node->Name = newName;
    ++newParent->Children;
    names_[std::move(key)] = node;
    Release(oldParent);
}

void Nodes::Remove(Node* node)
{
    const std::lock_guard lock(table_);
    Node* const parent = std::exchange(node->Parent, nullptr);
    node->Gone = true;
    node->Hidden = false;
    if (parent) {
        names_.erase(KeyOf(parent, node->Name));
        --parent->Children;
    }
    Release(node);
    Release(parent);
}

NtName Nodes::NewHiddenName() { return NtName(kHiddenPrefix) + nthost::FromUtf8(fmt::format("{:08}", ++lastHidden_)); }

bool Nodes::IsHiddenName(const Node* directory, const NtName& name) const
{
    return directory == root_ && name.starts_with(kHiddenPrefix);
}

} // namespace tool::mount
