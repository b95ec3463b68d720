// What a volume must answer, written from the rules alone. Two layers, as the rules have them: the storage's tree of
// nodes, and above it one control record for each object that is open or leads to an open one. A record lives as long
// as it has a handle or a child, answers to its name whatever the storage says, and keeps what the storage allowed when
// it was looked at last. Single-threaded, no locks.
#pragma once

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "operation.h"

namespace model {

// What the storage keeps of the attributes that it is given.
constexpr ULONG kStorableAttributes =
    FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE;

struct Node {
    bool IsDirectory = false;
    std::string Name;   // as spelled when it was made or renamed
    std::string Target; // of a link
    ULONG Attributes = 0;
    LONGLONG Size = 0;
    Node* Parent = nullptr;
    std::map<std::string, std::unique_ptr<Node>> Children; // by folded name

    Node* Find(const std::string& name) const;
    Node* Add(std::unique_ptr<Node> child);
    std::unique_ptr<Node> Take(); // out of its parent
};

struct Control;

struct Handle {
    Control* Of;
    ACCESS_MASK Access;
    ULONG Share;
    bool DeleteOnClose;
};

enum class Kind { Directory, File, Volume };

struct Control {
    model::Kind Kind;
    std::string Name; // the spelling of whoever opened it first, or renamed it last
    Node* Stored = nullptr;
    Control* Parent = nullptr;
    PluginAccessMask Allowed = 0;
    PluginAccessMask Opened = 0; // what the storage's handle is good for
    bool RefreshNeeded = false;  // read-only has been cleared: the storage's handle has to follow
    bool DeletePending = false;
    bool HasSection = false;        // of a file that was mapped: as good as a handle, but no handle
    bool StorageHandleLost = false; // by a rename that failed half-way: requests are refused from then on
    std::vector<Handle*> Handles;
};

class NamespaceModel {
public:
    NamespaceModel();

    // Preparation of the tree, without rules.
    struct NodeToAdd {
        std::string Path;
        bool IsDirectory;
        std::string Target; // of a link
        LONGLONG Size;
    };
    void AddNode(const NodeToAdd& wanted);

    // Whether both sides should carry the step out.
    bool Applies(const Operation& operation) const;
    Outcome Apply(const Operation& operation);

    // For whoever generates, and whoever compares.
    bool IsOpen(unsigned slot) const { return slots_[slot] != nullptr; }
    bool Grants(unsigned slot, ACCESS_MASK access) const { return (slots_[slot]->Access & access) == access; }
    Kind KindOf(unsigned slot) const { return slots_[slot]->Of->Kind; }
    const std::string& NameOf(unsigned slot) const { return slots_[slot]->Of->Name; }
    std::vector<std::string> Paths() const;
    // One line for each object: path, attributes, size.
    std::string Tree() const;

private:
    enum class Wanted { Any, Directory, File };
    // The parameters of one open.
    struct Ask {
        ACCESS_MASK Access;
        ULONG Share;
        ULONG Disposition;
        Wanted Type;
        bool DeleteOnClose;
        bool TargetDirectory;
        ULONG Attributes;
    };
    // The name of one open, in the forms that matter.
    struct Name {
        std::string Full;      // composed; the key
        std::string Preserved; // as the caller spelled it
        std::string Remaining; // composed, relative to Related
        Control* Related;
        bool TrailingBackslash;
    };
    struct Found {
        Control* Object = nullptr; // or only its parent, and why
        Control* Parent = nullptr;
        NTSTATUS LookupStatus = STATUS_SUCCESS;
        std::string Redirected; // of STATUS_REPARSE
        bool LinkIsLast = false;
    };
    struct Opened {
        NTSTATUS Status = STATUS_SUCCESS;
        ULONG_PTR Information = 0;
        std::unique_ptr<Handle> File;
        std::string Leaf; // of a target directory
    };

    // namespace_open.cpp
    Outcome Open(const Operation& operation);
    Opened OpenPath(std::string path, Control* related, const Ask& ask);
    Opened OpenOnce(const std::string& path, Control* related, const Ask& ask, std::string* redirected);
    NTSTATUS Resolve(const std::string& path, Control* related, Name* name) const;
    NTSTATUS Walk(const Name& name, Found* found);
    NTSTATUS FindOrLookUp(const std::string& path, Wanted type, Control* parent, Control** found, std::string* target);
    Opened OpenVolume(const Ask& ask);
    Opened OpenExisting(Control* control, const Name& name, const Ask& ask);
    Opened OpenTargetDirectory(const Found& found, const Name& name, const Ask& ask);
    Opened CreateNew(const Found& found, const Name& name, const Ask& ask);
    NTSTATUS CheckExisting(const Control& control, const Name& name, const Ask& ask) const;
    NTSTATUS Overwrite(Control* control, const Ask& ask);

    // namespace_change.cpp
    void CloseHandle(std::unique_ptr<Handle> handle);
    void Delete(Control* control);
    NTSTATUS SetDisposition(Control* control, bool wanted);
    NTSTATUS Rename(const Operation& operation, const Handle& source);
    NTSTATUS RenameControl(Control* source, Control* directory, const std::string& leaf, bool replace);
    NTSTATUS CheckDestination(const std::string& path, Node* directory, const std::string& leaf, bool replace,
                              Node** replaced);
    NTSTATUS RenameStored(Control* source, Node* directory, const std::string& leaf);
    NTSTATUS SetAttributes(Control* control, ULONG attributes);
    NTSTATUS SetEndOfFile(Control* control, LONGLONG size);
    Outcome Change(const Operation& operation);
    Outcome Query(const Operation& operation) const;
    NTSTATUS Touch(const Handle& handle);
    NTSTATUS Flush(const Handle& handle);
    // Sections let go of files that nobody maps.
    void PurgeAll();
    Outcome ListDirectory(const Handle& handle) const;

    Control* FindControl(const std::string& path) const;
    Control* AddControl(const std::string& name, Node* node, Control* parent, PluginAccessMask allowed);
    bool HasChildren(const Control& control) const;
    NTSTATUS CheckEmpty(const Control& control) const;
    // Records that nothing holds go, from the leaves up.
    void Prune();

    std::unique_ptr<Node> root_;
    Control volume_;
    std::map<std::string, std::unique_ptr<Control>> controls_; // by folded name
    std::array<std::unique_ptr<Handle>, kSlots> slots_;
};

} // namespace model
