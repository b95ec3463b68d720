// The tree behind the front door. Every object is reached by native services; only links themselves, which an open
// would follow, by the session.
#include <strings.h>

#include <fmt/format.h>

#include "gvnd/client.h"
#include "gvnd/session.h"
#include "gvnd/status.h"
#include "gvnd/tree.h"

namespace tool {

namespace {

constexpr ACCESS_MASK kReadAccess = FILE_READ_DATA | FILE_READ_ATTRIBUTES | FILE_READ_EA | SYNCHRONIZE;
constexpr ACCESS_MASK kChangeAccess =
    kReadAccess | FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_WRITE_ATTRIBUTES | FILE_WRITE_EA;
// Of a directory data access would mean adding to it, which read-only ones need not allow.
constexpr ACCESS_MASK kChangeDirectoryAccess = kReadAccess | FILE_WRITE_ATTRIBUTES | FILE_WRITE_EA;

LARGE_INTEGER Time(int64_t time)
{
    LARGE_INTEGER large;
    large.QuadPart = time;
    return large;
}

bool IsNameRefusal(NTSTATUS status)
{
    return status == STATUS_OBJECT_NAME_INVALID || status == STATUS_OBJECT_NAME_COLLISION ||
           status == STATUS_NAME_TOO_LONG || status == STATUS_OBJECT_PATH_SYNTAX_BAD;
}

// What an attempt to make an object says about its name is told apart from other failures.
template <typename Body>
auto Making(Body&& body)
{
    try {
        return body();
    } catch (const Failure& failure) {
        if (IsNameRefusal(failure.Status())) throw NotRepresentable(failure.what());
        throw;
    }
}

class VolumeNode : public TreeNode {
public:
    explicit VolumeNode(File file) : file_(std::move(file)) {}

    size_t Read(uint64_t offset, char* buffer, size_t length) override { return file_.Read(offset, buffer, length); }
    void Write(uint64_t offset, const char* buffer, size_t length) override { file_.Write(offset, buffer, length); }

    NodeFacts Facts() override
    {
        const auto info = file_.Query<FILE_NETWORK_OPEN_INFORMATION>(FileNetworkOpenInformation, "facts");
        return {.Attributes = info.FileAttributes & kCarriedAttributes,
                .Creation = info.CreationTime.QuadPart,
                .LastAccess = info.LastAccessTime.QuadPart,
                .LastWrite = info.LastWriteTime.QuadPart,
                .Size = static_cast<uint64_t>(info.EndOfFile.QuadPart)};
    }

    void SetFacts(const NodeFacts& facts) override
    {
        FILE_BASIC_INFORMATION info{};
        info.CreationTime = Time(facts.Creation);
        info.LastAccessTime = Time(facts.LastAccess);
        info.LastWriteTime = Time(facts.LastWrite);
        info.FileAttributes = facts.Attributes ? facts.Attributes : FILE_ATTRIBUTE_NORMAL;
        try {
            file_.Set(FileBasicInformation, info, "set times and attributes of");
        } catch (const Failure& failure) {
            if (failure.Status() == STATUS_NOT_SUPPORTED) throw NotKept(failure.what());
            throw;
        }
    }

    EaMap Eas() override { return ReadEas(file_); }

    void SetEas(const EaMap& eas) override
    {
        try {
            WriteEas(file_, eas);
        } catch (const Failure& failure) {
            const NTSTATUS status = failure.Status();
            if (status == STATUS_EAS_NOT_SUPPORTED || status == STATUS_NOT_SUPPORTED ||
                status == STATUS_INVALID_EA_NAME || status == STATUS_EA_TOO_LARGE) {
                throw NotKept(failure.what());
            }
            throw;
        }
    }

private:
    File file_;
};

class VolumeTreeImpl : public Tree {
public:
    VolumeTreeImpl(Session& session, const std::string& root) : session_(session), root_(VolumePath(root))
    {
        while (!root_.empty() && root_.back() == '\\') root_.pop_back();
    }

    std::string Title(const std::string& path) const override { return root_ + path; }
    bool IgnoresCase() const override { return true; }

    std::vector<TreeEntry> List(const std::string& path) override
    {
        std::vector<TreeEntry> entries;
        const File directory = OpenFile(NtPath(path), kListing);
        ListDirectory(directory, "", [&](const Entry& entry) {
            const NodeKind kind = entry.IsLink()        ? NodeKind::Link
                                  : entry.IsDirectory() ? NodeKind::Directory
                                                        : NodeKind::File;
            entries.push_back({entry.Name, kind, entry.Size});
        });
        return entries;
    }

    std::unique_ptr<TreeNode> Open(const std::string& path, NodeKind kind, OpenFor purpose) override
    {
        const bool isDirectory = kind == NodeKind::Directory;
        const ACCESS_MASK change = isDirectory ? kChangeDirectoryAccess : kChangeAccess;
        return Node(OpenFile(NtPath(path), {.Access = purpose == OpenFor::Reading ? kReadAccess : change,
                                            .Options = isDirectory ? FILE_DIRECTORY_FILE : FILE_NON_DIRECTORY_FILE}));
    }

    std::unique_ptr<TreeNode> MakeFile(const std::string& path, IfThere ifThere) override
    {
        return Making([&] {
            return Node(
                OpenFile(NtPath(path), {.Access = kChangeAccess,
                                        .Disposition = ifThere == IfThere::Overwrite ? FILE_OVERWRITE_IF : FILE_CREATE,
                                        .Options = FILE_NON_DIRECTORY_FILE}));
        });
    }

    void MakeDirectory(const std::string& path) override
    {
        Making([&] {
            return OpenFile(NtPath(path),
                            {.Access = kReadAccess, .Disposition = FILE_CREATE, .Options = FILE_DIRECTORY_FILE});
        });
    }

    std::optional<std::string> ReadLink(const std::string& path) override
    {
        try {
            const std::string target = session_.ReadLink(root_ + path);
            if (!IsBeneath(target)) return std::nullopt;
            return target.substr(root_.size());
        } catch (const Failure& failure) {
            if (failure.Status() == STATUS_ACCESS_DENIED) return std::nullopt; // it leaves the volume
            throw;
        }
    }

    void MakeLink(const std::string& path, const std::string& target) override
    {
        Making([&] { session_.MakeLink(root_ + path, root_ + target); });
    }

private:
    // A link may spell its way here as it likes.
    bool IsBeneath(const std::string& path) const
    {
        return strncasecmp(path.c_str(), root_.c_str(), root_.size()) == 0 &&
               (path.size() == root_.size() || path[root_.size()] == '\\');
    }

    static std::unique_ptr<TreeNode> Node(File file) { return std::make_unique<VolumeNode>(std::move(file)); }
    std::string NtPath(const std::string& path) const { return session_.NtPath(root_ + path); }

    Session& session_;
    std::string root_; // "" for the volume's
};

} // namespace

std::unique_ptr<Tree> VolumeTree(Session& session, const std::string& root)
{
    return std::make_unique<VolumeTreeImpl>(session, root);
}

} // namespace tool
