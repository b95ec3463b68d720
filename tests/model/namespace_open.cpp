// Opening, in the order in which an open is judged: the parameters, the name, the way to the object, then one of
// existing, missing, target of a rename, or link.

#include "namespace_model.h"

#include <algorithm>

#include "names.h"

namespace model {
namespace {

constexpr ACCESS_MASK kKnownAccess = 0x1701bf;
constexpr ACCESS_MASK kNeedsRead = 0x170099;
constexpr ACCESS_MASK kNeedsWrite = FILE_WRITE_DATA | FILE_APPEND_DATA;
constexpr ACCESS_MASK kOverwriteNeeds = FILE_WRITE_DATA | FILE_WRITE_ATTRIBUTES;
constexpr ULONG kRefusedOptions = FILE_RESERVE_OPFILTER | FILE_OPEN_BY_FILE_ID | FILE_CREATE_TREE_CONNECTION;
constexpr unsigned kMostRedirections = 32;

bool Overwrites(ULONG disposition) { return disposition == FILE_OVERWRITE || disposition == FILE_OVERWRITE_IF; }

// What the storage allows.
PluginAccessMask AllowedOn(const Node& node)
{
    if (node.IsDirectory) return GVND_ACCESS_ALL & ~GVND_ACCESS_EXECUTE;
    return node.Attributes & FILE_ATTRIBUTE_READONLY ? GVND_ACCESS_ALL & ~GVND_ACCESS_WRITE : GVND_ACCESS_ALL;
}

bool Suffices(Kind kind, ACCESS_MASK access, PluginAccessMask mask)
{
    if (kind == Kind::File && (access & FILE_EXECUTE) && !(mask & GVND_ACCESS_EXECUTE)) return false;
    if ((access & kNeedsRead) && !(mask & GVND_ACCESS_READ)) return false;
    if ((access & FILE_WRITE_ATTRIBUTES) && !(mask & GVND_ACCESS_WRITE_ATTRIBUTES)) return false;
    return !(access & kNeedsWrite) || (mask & GVND_ACCESS_WRITE);
}

// The storage's handle is opened anew, with all that is allowed now, when it is too weak or out of date.
void Reopen(Control* control, ACCESS_MASK access)
{
    if (Suffices(control->Kind, access, control->Opened) && !control->RefreshNeeded) return;
    control->StorageHandleLost = false; // the new one makes it whole again
    control->Allowed = control->Opened = AllowedOn(*control->Stored);
    control->RefreshNeeded = false;
}

NTSTATUS AccessCheck(const Node& node, ACCESS_MASK access)
{
    const bool refused = !node.IsDirectory && (node.Attributes & FILE_ATTRIBUTE_READONLY) && (access & kNeedsWrite);
    return refused ? STATUS_ACCESS_DENIED : STATUS_SUCCESS;
}

struct Sharing {
    bool Read, Write, Delete;
};
Sharing Does(ACCESS_MASK access)
{
    return {(access & (FILE_READ_DATA | FILE_EXECUTE)) != 0, (access & kNeedsWrite) != 0, (access & DELETE) != 0};
}
Sharing Lets(ULONG share)
{
    return {(share & FILE_SHARE_READ) != 0, (share & FILE_SHARE_WRITE) != 0, (share & FILE_SHARE_DELETE) != 0};
}
bool Counts(Sharing does) { return does.Read || does.Write || does.Delete; }
bool Permits(Sharing lets, Sharing does)
{
    return (lets.Read || !does.Read) && (lets.Write || !does.Write) && (lets.Delete || !does.Delete);
}

// An open that neither reads, writes nor deletes has no part in sharing, from either side.
NTSTATUS CheckSharing(const Control& control, ACCESS_MASK access, ULONG share)
{
    const Sharing does = Does(access);
    if (!Counts(does)) return STATUS_SUCCESS;
    const bool clash = std::any_of(control.Handles.begin(), control.Handles.end(), [&](const Handle* other) {
        const Sharing theirs = Does(other->Access);
        return Counts(theirs) && !(Permits(Lets(other->Share), does) && Permits(Lets(share), theirs));
    });
    return clash ? STATUS_SHARING_VIOLATION : STATUS_SUCCESS;
}

std::unique_ptr<Handle> NewHandle(Control* control, ACCESS_MASK access, ULONG share, bool deleteOnClose)
{
    auto handle = std::make_unique<Handle>(Handle{control, access, share, deleteOnClose});
    control->Handles.push_back(handle.get());
    return handle;
}

// What the service refuses before any file system hears of the open.
NTSTATUS CheckService(const Operation& open)
{
    if ((open.Options & FILE_DELETE_ON_CLOSE) && !(open.Access & DELETE)) return STATUS_INVALID_PARAMETER;
    if (!(open.Options & FILE_DIRECTORY_FILE)) return STATUS_SUCCESS;
    const ULONG disposition = open.Disposition;
    const bool fits = !(open.Options & FILE_NON_DIRECTORY_FILE) &&
                      (disposition == FILE_OPEN || disposition == FILE_CREATE || disposition == FILE_OPEN_IF);
    return fits ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

NTSTATUS Screen(const Operation& open)
{
    if (open.Disposition == FILE_SUPERSEDE) return STATUS_NOT_SUPPORTED;
    if (open.Options & kRefusedOptions) return STATUS_NOT_SUPPORTED;
    return open.Access & ~kKnownAccess ? STATUS_ACCESS_DENIED : STATUS_SUCCESS;
}

bool HasComponent(const std::string& path, std::string_view wanted)
{
    const auto components = Components(path);
    return std::find(components.begin(), components.end(), wanted) != components.end();
}

void StripBackslashes(std::string* path)
{
    while (path->size() > 1 && path->back() == '\\') path->pop_back();
}

} // namespace

Outcome NamespaceModel::Open(const Operation& operation)
{
    NTSTATUS status = CheckService(operation);
    if (NT_SUCCESS(status)) status = Screen(operation);
    if (!NT_SUCCESS(status)) return {status, 0, {}};
    const Wanted type = operation.Options & FILE_DIRECTORY_FILE       ? Wanted::Directory
                        : operation.Options & FILE_NON_DIRECTORY_FILE ? Wanted::File
                                                                      : Wanted::Any;
    const Ask ask{operation.Access,
                  operation.Share,
                  operation.Disposition,
                  type,
                  (operation.Options & FILE_DELETE_ON_CLOSE) != 0,
                  false,
                  operation.Attributes & GVND_ATTRIBUTE_MASK};
    Control* const related = operation.Root == kNoRoot ? nullptr : slots_[operation.Root]->Of;
    Opened opened = OpenPath(operation.Path, related, ask);
    slots_[operation.Slot] = std::move(opened.File);
    Prune();
    return {opened.Status, opened.Information, {}};
}

// A link sends the open back to the start with another name.
NamespaceModel::Opened NamespaceModel::OpenPath(std::string path, Control* related, const Ask& ask)
{
    for (unsigned i = 0; i <= kMostRedirections; ++i) {
        std::string redirected;
        Opened opened = OpenOnce(path, related, ask, &redirected);
        if (opened.Status != STATUS_REPARSE) return opened;
        path = redirected;
        related = nullptr;
    }
    return {STATUS_OBJECT_NAME_INVALID, 0, nullptr, {}};
}

NamespaceModel::Opened NamespaceModel::OpenOnce(const std::string& path, Control* related, const Ask& ask,
                                                std::string* redirected)
{
    if (path.empty() && (!related || related->Kind == Kind::Volume)) return OpenVolume(ask);
    Name name;
    if (const NTSTATUS status = Resolve(path, related, &name); !NT_SUCCESS(status)) return {status, 0, nullptr, {}};
    Found found;
    found.Object = FindControl(name.Full);
    if (!found.Object) {
        const NTSTATUS status = Walk(name, &found);
        if (status == STATUS_REPARSE) {
            const bool plain = ask.Disposition == FILE_OPEN && !(ask.Access & DELETE) && !ask.DeleteOnClose;
            if (found.LinkIsLast && (!plain || ask.TargetDirectory)) return {STATUS_ACCESS_DENIED, 0, nullptr, {}};
            *redirected = found.Redirected;
        }
        if (status != STATUS_SUCCESS) return {status, 0, nullptr, {}};
    }
    if (ask.TargetDirectory) return OpenTargetDirectory(found, name, ask);
    return found.Object ? OpenExisting(found.Object, name, ask) : CreateNew(found, name, ask);
}

NTSTATUS NamespaceModel::Resolve(const std::string& path, Control* related, Name* name) const
{
    name->Related = related;
    name->Remaining = Compose(path);
    if (name->Remaining.find_first_of("\"*<>?|") != std::string::npos) return STATUS_OBJECT_NAME_INVALID;
    if (name->Remaining.starts_with('\\') == (related != nullptr)) return STATUS_OBJECT_PATH_SYNTAX_BAD;
    name->Full = related ? Join(related->Name, name->Remaining) : name->Remaining;
    name->Preserved = related ? Join(related->Name, path) : path;
    if (HasComponent(name->Full, ".") || HasComponent(name->Full, "..")) return STATUS_OBJECT_PATH_SYNTAX_BAD;
    name->TrailingBackslash = name->Preserved != "\\" && name->Preserved.ends_with('\\');
    StripBackslashes(&name->Full);
    StripBackslashes(&name->Preserved);
    StripBackslashes(&name->Remaining);
    return STATUS_SUCCESS;
}

NTSTATUS NamespaceModel::Walk(const Name& name, Found* found)
{
    Control* at = name.Related;
    std::string walked = at ? at->Name : "\\";
    std::string target;
    if (!at) (void)FindOrLookUp(walked, Wanted::Directory, nullptr, &at, &target);
    const auto components = Components(name.Remaining);
    for (size_t i = 0; i < components.size(); ++i) {
        walked = Join(walked, components[i]);
        const bool isLast = i + 1 == components.size();
        Control* next = nullptr;
        const NTSTATUS status = FindOrLookUp(walked, isLast ? Wanted::Any : Wanted::Directory, at, &next, &target);
        if (status == STATUS_REPARSE) {
            for (size_t rest = i + 1; rest < components.size(); ++rest) target = Join(target, components[rest]);
            found->Redirected = target;
            found->LinkIsLast = isLast;
            return status;
        }
        if (!NT_SUCCESS(status) && isLast) { // whether that matters, the disposition says
            found->Parent = at;
            found->LookupStatus = status;
            return STATUS_SUCCESS;
        }
        if (status == STATUS_OBJECT_NAME_NOT_FOUND) return STATUS_OBJECT_PATH_NOT_FOUND;
        if (!NT_SUCCESS(status)) return status;
        at = next;
    }
    found->Object = at;
    return STATUS_SUCCESS;
}

// A record that is there is taken as it is, whatever type was asked for.
NTSTATUS NamespaceModel::FindOrLookUp(const std::string& path, Wanted type, Control* parent, Control** found,
                                      std::string* target)
{
    *found = FindControl(path);
    if (*found) return STATUS_SUCCESS;
    if (parent && !parent->Stored->IsDirectory) return STATUS_OBJECT_PATH_NOT_FOUND;
    Node* const node = parent ? parent->Stored->Find(std::string(Leaf(path))) : root_.get();
    if (!node) return STATUS_OBJECT_NAME_NOT_FOUND;
    if (!node->Target.empty()) {
        *target = node->Target;
        return STATUS_REPARSE;
    }
    if (type == Wanted::Directory && !node->IsDirectory) return STATUS_OBJECT_PATH_SYNTAX_BAD;
    const PluginAccessMask allowed = AllowedOn(*node);
    *found = AddControl(path, node, parent, allowed);
    (*found)->Opened = allowed & (GVND_ACCESS_READ | GVND_ACCESS_EXECUTE); // the least, until somebody needs more
    return STATUS_SUCCESS;
}

NamespaceModel::Opened NamespaceModel::OpenVolume(const Ask& ask)
{
    NTSTATUS status = STATUS_SUCCESS;
    if (ask.Type == Wanted::Directory) {
        status = STATUS_NOT_A_DIRECTORY;
    } else if (ask.TargetDirectory) {
        status = STATUS_INVALID_PARAMETER;
    } else if ((ask.Disposition != FILE_OPEN && ask.Disposition != FILE_OPEN_IF) || (ask.Access & DELETE) ||
               !Suffices(Kind::Volume, ask.Access, volume_.Allowed)) {
        status = STATUS_ACCESS_DENIED;
    } else {
        status = CheckSharing(volume_, ask.Access, ask.Share);
    }
    if (!NT_SUCCESS(status)) return {status, 0, nullptr, {}};
    return {STATUS_SUCCESS, FILE_OPENED, NewHandle(&volume_, ask.Access, ask.Share, false), {}};
}

// The tests that come before anything is touched.
NTSTATUS NamespaceModel::CheckExisting(const Control& control, const Name& name, const Ask& ask) const
{
    if (ask.Disposition == FILE_CREATE) return STATUS_OBJECT_NAME_COLLISION;
    if (ask.DeleteOnClose) {
        if (!(ask.Access & DELETE)) return STATUS_INVALID_PARAMETER;
        if (name.Full == "\\") return STATUS_CANNOT_DELETE;
        if (control.Kind == Kind::File && !(control.Allowed & GVND_ACCESS_WRITE)) return STATUS_CANNOT_DELETE;
    }
    if (control.DeletePending) return STATUS_DELETE_PENDING;
    if (ask.Type == Wanted::File && control.Kind == Kind::Directory) return STATUS_FILE_IS_A_DIRECTORY;
    if (ask.Type == Wanted::Directory && control.Kind == Kind::File) return STATUS_NOT_A_DIRECTORY;
    if (control.Kind == Kind::File && name.TrailingBackslash) return STATUS_OBJECT_NAME_INVALID;
    if (control.Kind == Kind::Directory && Overwrites(ask.Disposition)) return STATUS_OBJECT_NAME_COLLISION;
    return STATUS_SUCCESS;
}

NamespaceModel::Opened NamespaceModel::OpenExisting(Control* control, const Name& name, const Ask& ask)
{
    NTSTATUS status = CheckExisting(*control, name, ask);
    if (!NT_SUCCESS(status)) return {status, 0, nullptr, {}};
    const ACCESS_MASK effective = ask.Access | (Overwrites(ask.Disposition) ? kOverwriteNeeds : 0);
    Reopen(control, effective);
    if (!Suffices(control->Kind, effective, control->Allowed)) return {STATUS_ACCESS_DENIED, 0, nullptr, {}};
    status = AccessCheck(*control->Stored, effective);
    if (NT_SUCCESS(status)) status = CheckSharing(*control, effective, ask.Share);
    // Who may write must not find old pages later; who only deletes leaves them.
    if (NT_SUCCESS(status) && (effective & FILE_WRITE_DATA) && !ask.DeleteOnClose) control->HasSection = false;
    if (NT_SUCCESS(status) && Overwrites(ask.Disposition)) status = Overwrite(control, ask);
    if (!NT_SUCCESS(status)) return {status, 0, nullptr, {}};
    const ULONG_PTR information = Overwrites(ask.Disposition) ? FILE_OVERWRITTEN : FILE_OPENED;
    return {STATUS_SUCCESS, information, NewHandle(control, ask.Access, ask.Share, ask.DeleteOnClose), {}};
}

// A hidden or system file stays one: who overwrites it must say that he knows. Attributes are added, never taken.
NTSTATUS NamespaceModel::Overwrite(Control* control, const Ask& ask)
{
    if (control->StorageHandleLost) return STATUS_INVALID_PARAMETER;
    Node* const node = control->Stored;
    for (const ULONG kept : {FILE_ATTRIBUTE_HIDDEN, FILE_ATTRIBUTE_SYSTEM}) {
        if ((node->Attributes & kept) && !(ask.Attributes & kept)) return STATUS_ACCESS_DENIED;
    }
    control->HasSection = false;
    node->Size = 0;
    if (!ask.Attributes) return STATUS_SUCCESS;
    node->Attributes |= (ask.Attributes & kStorableAttributes) | FILE_ATTRIBUTE_ARCHIVE;
    if (node->Attributes & FILE_ATTRIBUTE_READONLY) control->Allowed &= ~GVND_ACCESS_WRITE;
    return STATUS_SUCCESS;
}

NamespaceModel::Opened NamespaceModel::CreateNew(const Found& found, const Name& name, const Ask& ask)
{
    const auto refused = [](NTSTATUS status) { return Opened{status, 0, nullptr, {}}; };
    if (ask.Disposition == FILE_OPEN || ask.Disposition == FILE_OVERWRITE) return refused(found.LookupStatus);
    const bool isDirectory = ask.Type == Wanted::Directory;
    if (!isDirectory && name.TrailingBackslash) return refused(STATUS_OBJECT_NAME_INVALID);
    const bool readOnly = (ask.Attributes & FILE_ATTRIBUTE_READONLY) != 0;
    if (ask.DeleteOnClose && !(ask.Access & DELETE)) return refused(STATUS_INVALID_PARAMETER);
    if (ask.DeleteOnClose && readOnly) return refused(STATUS_CANNOT_DELETE);
    if (found.Parent->DeletePending) return refused(STATUS_DELETE_PENDING);
    if (!found.Parent->Stored->IsDirectory) return refused(STATUS_OBJECT_PATH_NOT_FOUND);

    auto made = std::make_unique<Node>();
    made->IsDirectory = isDirectory;
    made->Name = Leaf(name.Preserved);
    if (isDirectory) made->Attributes = FILE_ATTRIBUTE_DIRECTORY;
    if (ask.Attributes) {
        made->Attributes |= ask.Attributes & kStorableAttributes;
        if (!isDirectory) made->Attributes |= FILE_ATTRIBUTE_ARCHIVE;
    }
    Node* const node = found.Parent->Stored->Add(std::move(made));
    const PluginAccessMask allowed = readOnly ? GVND_ACCESS_ALL & ~GVND_ACCESS_WRITE : GVND_ACCESS_ALL;
    Control* const control = AddControl(name.Full, node, found.Parent, allowed);
    return {STATUS_SUCCESS, FILE_CREATED, NewHandle(control, ask.Access, ask.Share, ask.DeleteOnClose), {}};
}

// The directory that holds the name, or would hold it.
NamespaceModel::Opened NamespaceModel::OpenTargetDirectory(const Found& found, const Name& name, const Ask& ask)
{
    if (name.Full == "\\") return {STATUS_INVALID_PARAMETER, 0, nullptr, {}};
    Control* const directory = found.Parent ? found.Parent : found.Object->Parent;
    if (directory->DeletePending) return {STATUS_DELETE_PENDING, 0, nullptr, {}};
    if (directory->Kind != Kind::Directory) return {STATUS_INVALID_PARAMETER, 0, nullptr, {}};
    Reopen(directory, ask.Access);
    const bool forgiven = !(directory->Allowed & GVND_ACCESS_WRITE) && (ask.Access & kNeedsWrite);
    if (!forgiven && !Suffices(directory->Kind, ask.Access, directory->Allowed)) {
        return {STATUS_ACCESS_DENIED, 0, nullptr, {}};
    }
    const NTSTATUS status = CheckSharing(*directory, ask.Access, ask.Share);
    if (!NT_SUCCESS(status)) return {status, 0, nullptr, {}};
    const ULONG_PTR information = found.Parent ? FILE_DOES_NOT_EXIST : FILE_EXISTS;
    return {STATUS_SUCCESS, information, NewHandle(directory, ask.Access, ask.Share, false),
            std::string(Leaf(name.Preserved))};
}

} // namespace model
