// Closing and what it deletes, changing, renaming and querying; and the two trees themselves.

#include "namespace_model.h"

#include <algorithm>

#include "names.h"

namespace model {
namespace {

constexpr ULONG kFixedOfName = sizeof(FILE_NAME_INFORMATION);

bool IsLegalLeaf(const std::string& leaf)
{
    return !leaf.empty() && leaf != "." && leaf != ".." && leaf.find_first_of("\"*/:<>?\\|") == std::string::npos;
}

// A new name is looked at before anything else happens to its object.
NTSTATUS CheckLeaf(const std::string& leaf)
{
    if (leaf == "." || leaf == "..") return STATUS_OBJECT_PATH_SYNTAX_BAD;
    return IsLegalLeaf(leaf) ? STATUS_SUCCESS : STATUS_OBJECT_NAME_INVALID;
}

bool LeadsTo(const Node* node, const Node* directory)
{
    while (directory && directory != node) directory = directory->Parent;
    return directory != nullptr;
}

std::string DescribeNode(const Node& node)
{
    return node.Name + " " + std::to_string(node.Attributes) + " " + std::to_string(node.Size) + "\n";
}

} // namespace

Node* Node::Find(const std::string& name) const
{
    const auto child = Children.find(Fold(name));
    return child == Children.end() ? nullptr : child->second.get();
}

Node* Node::Add(std::unique_ptr<Node> child)
{
    child->Parent = this;
    auto& place = Children[Fold(child->Name)];
    place = std::move(child);
    return place.get();
}

std::unique_ptr<Node> Node::Take()
{
    const auto place = Parent->Children.find(Fold(Name));
    std::unique_ptr<Node> self = std::move(place->second);
    Parent->Children.erase(place);
    return self;
}

NamespaceModel::NamespaceModel() : root_(std::make_unique<Node>())
{
    root_->IsDirectory = true;
    root_->Attributes = FILE_ATTRIBUTE_DIRECTORY;
    volume_.Kind = Kind::Volume;
    volume_.Allowed = volume_.Opened = GVND_ACCESS_ALL & ~GVND_ACCESS_EXECUTE;
}

void NamespaceModel::AddNode(const NodeToAdd& wanted)
{
    Node* at = root_.get();
    for (const std::string& component : Components(Directory(wanted.Path))) at = at->Find(component);
    auto node = std::make_unique<Node>();
    node->IsDirectory = wanted.IsDirectory;
    node->Name = Leaf(wanted.Path);
    node->Target = wanted.Target;
    node->Size = wanted.Size;
    if (wanted.IsDirectory) node->Attributes = FILE_ATTRIBUTE_DIRECTORY;
    if (!wanted.Target.empty()) node->Attributes = FILE_ATTRIBUTE_REPARSE_POINT;
    at->Add(std::move(node));
}

Control* NamespaceModel::FindControl(const std::string& path) const
{
    const auto control = controls_.find(Fold(path));
    return control == controls_.end() ? nullptr : control->second.get();
}

Control* NamespaceModel::AddControl(const std::string& name, Node* node, Control* parent, PluginAccessMask allowed)
{
    auto control = std::make_unique<Control>();
    control->Kind = node->IsDirectory ? Kind::Directory : Kind::File;
    control->Name = name;
    control->Stored = node;
    control->Parent = parent;
    control->Allowed = control->Opened = allowed;
    return (controls_[Fold(name)] = std::move(control)).get();
}

bool NamespaceModel::HasChildren(const Control& control) const
{
    return std::any_of(controls_.begin(), controls_.end(),
                       [&](const auto& other) { return other.second->Parent == &control; });
}

void NamespaceModel::Prune()
{
    const auto idle = [&](const auto& entry) {
        return entry.second->Handles.empty() && !entry.second->HasSection && !HasChildren(*entry.second);
    };
    while (std::erase_if(controls_, idle)) continue;
}

NTSTATUS NamespaceModel::CheckEmpty(const Control& control) const
{
    if (HasChildren(control)) return STATUS_UNSUCCESSFUL;
    return control.Stored->Children.empty() ? STATUS_SUCCESS : STATUS_DIRECTORY_NOT_EMPTY;
}

void NamespaceModel::CloseHandle(std::unique_ptr<Handle> handle)
{
    Control* const control = handle->Of;
    if (handle->DeleteOnClose) control->DeletePending = true;
    if (control->DeletePending && control->Handles.size() == 1) Delete(control);
    std::erase(control->Handles, handle.get());
    Prune();
}

// The last handle's work. What is refused stays as it is, and stays pending while the record lives.
void NamespaceModel::Delete(Control* control)
{
    if (control->StorageHandleLost) return;
    if (control->Kind == Kind::Directory && !NT_SUCCESS(CheckEmpty(*control))) return;
    (void)control->Stored->Take(); // read-only has been cleared first where it stood in the way
    control->Stored = nullptr;
    control->HasSection = false; // it may keep the record, but not under its name
}

NTSTATUS NamespaceModel::SetDisposition(Control* control, bool wanted)
{
    if (wanted) {
        if (!(control->Allowed & GVND_ACCESS_WRITE)) return STATUS_CANNOT_DELETE;
        if (control->Kind == Kind::Directory) {
            if (const NTSTATUS status = CheckEmpty(*control); !NT_SUCCESS(status)) return status;
        }
    }
    control->DeletePending = wanted;
    return STATUS_SUCCESS;
}

NTSTATUS NamespaceModel::SetAttributes(Control* control, ULONG attributes)
{
    if (attributes == 0) return STATUS_SUCCESS;
    Node* const node = control->Stored;
    if (!node->IsDirectory && (attributes & FILE_ATTRIBUTE_DIRECTORY)) return STATUS_INVALID_PARAMETER;
    node->Attributes = (node->Attributes & ~kStorableAttributes) | (attributes & kStorableAttributes);
    if (attributes & FILE_ATTRIBUTE_READONLY) {
        control->Allowed &= ~GVND_ACCESS_WRITE;
        control->Opened &= ~GVND_ACCESS_WRITE;
    } else if (!(control->Allowed & GVND_ACCESS_WRITE)) {
        control->Allowed |= GVND_ACCESS_WRITE;
        control->RefreshNeeded = true;
    }
    return STATUS_SUCCESS;
}

NTSTATUS NamespaceModel::SetEndOfFile(Control* control, LONGLONG size)
{
    if (control->Kind != Kind::File) return STATUS_INVALID_DEVICE_REQUEST;
    if (size < control->Stored->Size) control->HasSection = false;
    control->Stored->Size = size;
    return STATUS_SUCCESS;
}

// A path is resolved by an open of the directory that it names a place in; a simple name stays in the source's.
NTSTATUS NamespaceModel::Rename(const Operation& operation, const Handle& source)
{
    Control* const control = source.Of;
    if (operation.Root == kNoRoot && !operation.Path.starts_with('\\')) {
        return RenameControl(control, nullptr, operation.Path, operation.Flag);
    }
    if (control->StorageHandleLost) return STATUS_INVALID_PARAMETER; // the service asks what the source is
    const ACCESS_MASK access = control->Kind == Kind::Directory ? FILE_ADD_SUBDIRECTORY : FILE_ADD_FILE;
    const Ask ask{access | SYNCHRONIZE, FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN, Wanted::Any, false, true, 0};
    Control* const related = operation.Root == kNoRoot ? nullptr : slots_[operation.Root]->Of;
    Opened target = OpenPath(operation.Path, related, ask);
    Prune();
    if (!NT_SUCCESS(target.Status)) return target.Status;
    const NTSTATUS status = RenameControl(control, target.File->Of, target.Leaf, operation.Flag);
    CloseHandle(std::move(target.File));
    return status;
}

// directory: of the target, when there was a path.
NTSTATUS NamespaceModel::RenameControl(Control* source, Control* directory, const std::string& leaf, bool replace)
{
    if (source->Name == "\\") return STATUS_INVALID_PARAMETER;
    if (source->Kind == Kind::Directory && HasChildren(*source)) {
        PurgeAll(); // of the whole volume: what only sections keep open below the directory goes
        if (HasChildren(*source)) return STATUS_ACCESS_DENIED;
    }
    if (const NTSTATUS status = CheckLeaf(leaf); !NT_SUCCESS(status)) return status;
    if (directory == source) return STATUS_ACCESS_DENIED;
    Node* const into = directory ? directory->Stored : source->Stored->Parent;
    const std::string from = directory ? directory->Name : std::string(Directory(source->Name));
    const std::string destination = Join(from, Compose(leaf));
    const bool crosses = directory && directory != source->Parent;
    if (!crosses && Fold(std::string(Leaf(source->Name))) == Fold(leaf)) return RenameStored(source, into, leaf);

    Node* replaced = nullptr;
    NTSTATUS status = CheckDestination(destination, into, leaf, replace, &replaced);
    if (!NT_SUCCESS(status)) return status;
    if (replaced) (void)replaced->Take(); // gone even if the rest fails
    status = RenameStored(source, into, leaf);
    if (!NT_SUCCESS(status)) return status;
    auto record = controls_.extract(Fold(source->Name));
    source->Name = destination;
    if (directory) source->Parent = directory;
    record.key() = Fold(destination);
    controls_.insert(std::move(record));
    return STATUS_SUCCESS;
}

NTSTATUS NamespaceModel::CheckDestination(const std::string& path, Node* directory, const std::string& leaf,
                                          bool replace, Node** replaced)
{
    if (Control* const control = FindControl(path)) {
        if (!replace || control->Kind == Kind::Directory) return STATUS_OBJECT_NAME_COLLISION;
        if (!(control->Allowed & GVND_ACCESS_WRITE) || !control->Handles.empty()) return STATUS_ACCESS_DENIED;
        *replaced = control->Stored; // open only for a section, which is about to lose it
        control->HasSection = false;
        Prune();
        return STATUS_SUCCESS;
    }
    Node* const node = directory->Find(leaf);
    if (!node) return STATUS_SUCCESS;
    if (node->IsDirectory || !replace) return STATUS_OBJECT_NAME_COLLISION;
    if (node->Attributes & (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_REPARSE_POINT)) return STATUS_ACCESS_DENIED;
    *replaced = node;
    return STATUS_SUCCESS;
}

// The storage's handle is closed around it, and stays closed if the storage refuses.
NTSTATUS NamespaceModel::RenameStored(Control* source, Node* directory, const std::string& leaf)
{
    if (source->StorageHandleLost) return STATUS_INVALID_PARAMETER;
    source->StorageHandleLost = true;
    if (LeadsTo(source->Stored, directory)) return STATUS_INVALID_PARAMETER;
    std::unique_ptr<Node> node = source->Stored->Take();
    node->Name = leaf;
    directory->Add(std::move(node));
    source->StorageHandleLost = false;
    return STATUS_SUCCESS;
}

bool NamespaceModel::Applies(const Operation& operation) const
{
    if (IsOpen(operation.Slot) == (operation.Verb == Verb::Open)) return false;
    if (operation.Root == kNoRoot) return true;
    // Nothing is said of names below the volume's own handle.
    return IsOpen(operation.Root) && (slots_[operation.Root]->Of->Kind != Kind::Volume || operation.Path.empty());
}

Outcome NamespaceModel::Apply(const Operation& operation)
{
    switch (operation.Verb) {
    case Verb::Open: return Open(operation);
    case Verb::Close: CloseHandle(std::move(slots_[operation.Slot])); return {};
    case Verb::List: return ListDirectory(*slots_[operation.Slot]);
    case Verb::Touch: return {Touch(*slots_[operation.Slot]), 0, {}};
    case Verb::Flush: return {Flush(*slots_[operation.Slot]), 0, {}};
    case Verb::Trim: PurgeAll(); return {};
    case Verb::QueryStandard:
    case Verb::QueryName:
    case Verb::QueryAttributes: return Query(operation);
    default: return Change(operation);
    }
}

Outcome NamespaceModel::Change(const Operation& operation)
{
    const Handle& handle = *slots_[operation.Slot];
    Control* const control = handle.Of;
    const ACCESS_MASK needs = operation.Verb == Verb::SetAttributes  ? FILE_WRITE_ATTRIBUTES
                              : operation.Verb == Verb::SetEndOfFile ? FILE_WRITE_DATA
                                                                     : DELETE;
    if (!(handle.Access & needs)) return {STATUS_ACCESS_DENIED, 0, {}};
    if (control->Kind == Kind::Volume) return {STATUS_INVALID_PARAMETER, 0, {}};
    if (operation.Verb == Verb::Rename) return {Rename(operation, handle), 0, {}};
    if (control->StorageHandleLost) return {STATUS_INVALID_PARAMETER, 0, {}};
    switch (operation.Verb) {
    case Verb::SetAttributes: return {SetAttributes(control, operation.Attributes), 0, {}};
    case Verb::SetEndOfFile: return {SetEndOfFile(control, operation.Size), 0, {}};
    default: return {SetDisposition(control, operation.Flag), 0, {}};
    }
}

NTSTATUS NamespaceModel::Touch(const Handle& handle)
{
    Control* const control = handle.Of;
    if (!(handle.Access & FILE_READ_DATA)) return STATUS_ACCESS_DENIED;
    if (control->Kind == Kind::Volume || control->StorageHandleLost) return STATUS_INVALID_PARAMETER;
    if (control->Kind == Kind::Directory) return STATUS_INVALID_FILE_FOR_SECTION;
    if (control->Stored->Size == 0) return STATUS_MAPPED_FILE_SIZE_ZERO;
    control->HasSection = true;
    return STATUS_SUCCESS;
}

// The volume's handle and the root stand for all files, another directory for nothing.
NTSTATUS NamespaceModel::Flush(const Handle& handle)
{
    Control* const control = handle.Of;
    if (!(handle.Access & (FILE_WRITE_DATA | FILE_APPEND_DATA))) return STATUS_ACCESS_DENIED;
    if (control->Kind == Kind::Volume || control->Name == "\\") PurgeAll();
    if (control->Kind != Kind::File) return STATUS_SUCCESS;
    control->HasSection = false;
    return control->StorageHandleLost ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS;
}

void NamespaceModel::PurgeAll()
{
    for (auto& control : controls_) control.second->HasSection = false;
    Prune();
}

Outcome NamespaceModel::Query(const Operation& operation) const
{
    const Handle& handle = *slots_[operation.Slot];
    const Control& control = *handle.Of;
    if (operation.Verb == Verb::QueryAttributes && !(handle.Access & FILE_READ_ATTRIBUTES)) {
        return {STATUS_ACCESS_DENIED, 0, {}};
    }
    if (control.Kind == Kind::Volume || control.StorageHandleLost) return {STATUS_INVALID_PARAMETER, 0, {}};
    const Node& node = *control.Stored;
    if (operation.Verb == Verb::QueryName) {
        return {STATUS_SUCCESS, kFixedOfName + Characters(control.Name) * sizeof(WCHAR), control.Name};
    }
    if (operation.Verb == Verb::QueryStandard) {
        const std::string kind = node.IsDirectory ? "directory, " : "file, ";
        return {STATUS_SUCCESS, sizeof(FILE_STANDARD_INFORMATION), kind + std::to_string(node.Size)};
    }
    const ULONG attributes = node.Attributes ? node.Attributes : FILE_ATTRIBUTE_NORMAL;
    return {STATUS_SUCCESS, sizeof(FILE_BASIC_INFORMATION), std::to_string(attributes)};
}

Outcome NamespaceModel::ListDirectory(const Handle& handle) const
{
    if (!(handle.Access & FILE_LIST_DIRECTORY)) return {STATUS_ACCESS_DENIED, 0, {}};
    const Control& control = *handle.Of;
    if (control.Kind != Kind::Directory || control.StorageHandleLost) return {STATUS_INVALID_PARAMETER, 0, {}};
    std::string names = control.Stored == root_.get() ? "" : ". .. ";
    for (const auto& child : control.Stored->Children) names += child.second->Name + " ";
    return {STATUS_NO_MORE_FILES, 0, names};
}

std::vector<std::string> NamespaceModel::Paths() const
{
    std::vector<std::string> paths = {"\\"};
    const auto visit = [&](const auto& self, const Node& node, const std::string& path) -> void {
        for (const auto& child : node.Children) {
            const std::string below = Join(path, child.second->Name);
            paths.push_back(below);
            self(self, *child.second, below);
        }
    };
    visit(visit, *root_, "\\");
    return paths;
}

std::string NamespaceModel::Tree() const
{
    std::string text;
    const auto visit = [&](const auto& self, const Node& node, const std::string& indent) -> void {
        for (const auto& child : node.Children) {
            text += indent + DescribeNode(*child.second);
            self(self, *child.second, indent + "  ");
        }
    };
    visit(visit, *root_, "");
    return text;
}

} // namespace model
