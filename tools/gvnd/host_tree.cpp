// The tree on this machine: plain system calls for contents, and the pure parts of hostfs for what Linux and NT call
// differently, so that an import followed by an export, and a mount of what was exported, all mean the same.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <fmt/format.h>

#include <hostfs/host_store.h>
#include <nthost/debug.h>
#include <posixfs/links.h>
#include <posixfs/metadata.h>
#include <posixfs/names.h>

#include "gvnd/status.h"
#include "gvnd/tree.h"

namespace tool {

namespace {

namespace fs = std::filesystem;

[[noreturn]] void Fail(const std::string& title, const char* request, int error)
{
    const std::string text = fmt::format("{} {}: {}", request, title, std::strerror(error));
    if (error == ENAMETOOLONG || error == EEXIST || error == EILSEQ) throw NotRepresentable(text);
    if (error == EOPNOTSUPP) throw NotKept(text);
    throw HostFailure(text);
}

std::string Upcased(std::string name)
{
    std::transform(name.begin(), name.end(), name.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; });
    return name;
}

class HostNode : public TreeNode {
public:
    HostNode(hostfs::UniqueFd fd, std::string title)
        : fd_(fd.Get()), node_(hostfs::NodeOf(std::move(fd))), title_(std::move(title))
    {}

    size_t Read(uint64_t offset, char* buffer, size_t length) override
    {
        size_t done = 0;
        while (done < length) {
            const ssize_t got = pread(fd_, buffer + done, length - done, static_cast<off_t>(offset + done));
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) Fail(title_, "read", errno);
            if (got == 0) break;
            done += static_cast<size_t>(got);
        }
        return done;
    }

    void Write(uint64_t offset, const char* buffer, size_t length) override
    {
        for (size_t done = 0; done < length;) {
            const ssize_t put = pwrite(fd_, buffer + done, length - done, static_cast<off_t>(offset + done));
            if (put < 0 && errno == EINTR) continue;
            if (put < 0) Fail(title_, "write", errno);
            done += static_cast<size_t>(put);
        }
    }

    NodeFacts Facts() override
    {
        posixfs::Facts facts;
        Require("look at " + title_, posixfs::Describe(*node_, &facts));
        return {.Attributes = facts.Info.FileAttributes & kCarriedAttributes,
                .Creation = facts.Info.CreationTime,
                .LastAccess = facts.Info.LastAccessTime,
                .LastWrite = facts.Info.LastWriteTime,
                .Size = static_cast<uint64_t>(facts.Info.EndOfFile)};
    }

    // Times first: a file that has become read-only takes no creation time, which is an extended attribute.
    void SetFacts(const NodeFacts& facts) override
    {
        Require("set times of " + title_, posixfs::SetTimes(*node_, facts.Creation, facts.LastAccess, facts.LastWrite));
        if (Facts().Attributes == facts.Attributes)
            return; // or else every file would get the attribute that keeps them
        const NTSTATUS status = posixfs::SetAttributes(*node_, facts.Attributes);
        const Failure failure("set attributes of " + title_, status);
        if (status == STATUS_NOT_SUPPORTED) throw NotKept(failure.what());
        if (!NT_SUCCESS(status)) throw failure;
    }

    EaMap Eas() override
    {
        EaMap eas;
        for (const std::string& name : XattrNames()) {
            std::string value;
            if (const int error = posixfs::ReadXattr(*node_, name, &value)) {
                Fail(title_, "read an extended attribute of", error);
            }
            // NT's names are upper case. An empty value is none there.
            if (!value.empty()) eas[Upcased(name.substr(posixfs::kUserPrefix.size()))] = value;
        }
        return eas;
    }

    void SetEas(const EaMap& eas) override
    {
        for (const auto& [name, value] : eas) {
            const int error = node_->SetXattr((std::string(posixfs::kUserPrefix) + name).c_str(), value);
            if (error) Fail(title_, "set an extended attribute of", error);
        }
    }

private:
    std::vector<std::string> XattrNames() const
    {
        std::string list(64 * 1024, '\0'); // the most that Linux gives
        const ssize_t length = flistxattr(fd_, list.data(), list.size());
        if (length < 0 && errno != EOPNOTSUPP) Fail(title_, "list extended attributes of", errno);
        std::vector<std::string> names;
        for (ssize_t at = 0; at < length; at += static_cast<ssize_t>(names.back().size()) + 1) {
            names.emplace_back(list.data() + at);
        }
        std::erase_if(names, [](const std::string& name) {
            return !name.starts_with(posixfs::kUserPrefix) || name.starts_with(posixfs::kOwnPrefix);
        });
        return names;
    }

    int fd_; // the node's
    posixfs::NodeRef node_;
    std::string title_;
};

class HostTreeImpl : public Tree {
public:
    explicit HostTreeImpl(const std::string& root) : root_(root), realRoot_(fs::canonical(root).string()) {}

    std::string Title(const std::string& path) const override
    {
        std::string title = root_ + path;
        std::replace(title.begin() + static_cast<ptrdiff_t>(root_.size()), title.end(), '\\', '/');
        return title;
    }
    bool IgnoresCase() const override { return false; }

    std::vector<TreeEntry> List(const std::string& path) override
    {
        std::vector<TreeEntry> entries;
        for (const fs::directory_entry& entry : fs::directory_iterator(LinuxPath(path))) {
            const posixfs::NtText name = posixfs::ToNtName(entry.path().filename().string());
            const std::string shown = nthost::ToUtf8(reinterpret_cast<const WCHAR*>(name.data()), name.size());
            struct stat info = {};
            if (lstat(entry.path().c_str(), &info) != 0) Fail(entry.path(), "look at", errno);
            entries.push_back({shown, KindOf(info.st_mode), static_cast<uint64_t>(info.st_size)});
        }
        std::sort(entries.begin(), entries.end(),
                  [](const TreeEntry& a, const TreeEntry& b) { return a.Name < b.Name; });
        return entries;
    }

    std::unique_ptr<TreeNode> Open(const std::string& path, NodeKind kind, OpenFor purpose) override
    {
        const bool writes = purpose == OpenFor::Changing && kind == NodeKind::File;
        const int flags = kind == NodeKind::Directory ? O_RDONLY | O_DIRECTORY : writes ? O_RDWR : O_RDONLY;
        return Node(path, flags, "open");
    }

    std::unique_ptr<TreeNode> MakeFile(const std::string& path, IfThere ifThere) override
    {
        return Node(path, O_RDWR | O_CREAT | (ifThere == IfThere::Overwrite ? O_TRUNC : O_EXCL), "create");
    }

    void MakeDirectory(const std::string& path) override
    {
        if (mkdir(LinuxPath(path).c_str(), 0777) != 0) Fail(Title(path), "create", errno);
    }

    std::optional<std::string> ReadLink(const std::string& path) override
    {
        const std::string target = fs::read_symlink(LinuxPath(path)).string();
        posixfs::Components directory = LinuxNames(path);
        directory.pop_back();
        posixfs::NtText leadsTo;
        const NTSTATUS status = posixfs::TargetFromRoot(target, directory, {realRoot_, root_}, &leadsTo);
        if (status == STATUS_ACCESS_DENIED) return std::nullopt;
        Require("read the link " + Title(path), status);
        const std::string shown = nthost::ToUtf8(reinterpret_cast<const WCHAR*>(leadsTo.data()), leadsTo.size());
        return shown == "\\" ? "" : shown;
    }

    void MakeLink(const std::string& path, const std::string& target) override
    {
        posixfs::Components directory = LinuxNames(path);
        directory.pop_back();
        const std::string text = posixfs::LinkText(directory, LinuxNames(target));
        if (symlink(text.c_str(), LinuxPath(path).c_str()) != 0) Fail(Title(path), "make the link", errno);
    }

private:
    static NodeKind KindOf(mode_t mode)
    {
        switch (posixfs::KindOf(mode)) {
        case posixfs::Kind::File: return NodeKind::File;
        case posixfs::Kind::Directory: return NodeKind::Directory;
        case posixfs::Kind::Link: return NodeKind::Link;
        default: return NodeKind::Other;
        }
    }

    posixfs::Components LinuxNames(const std::string& path) const
    {
        posixfs::Components names;
        for (size_t at = 0; at < path.size();) {
            const size_t end = std::min(path.find('\\', at + 1), path.size());
            const auto name = posixfs::ToLinuxName(nthost::FromUtf8(path.substr(at + 1, end - at - 1)));
            if (!name) throw NotRepresentable(fmt::format("{}: no name that Linux can hold", Title(path)));
            names.push_back(*name);
            at = end;
        }
        return names;
    }

    std::string LinuxPath(const std::string& path) const
    {
        std::string linuxPath = realRoot_;
        for (const std::string& name : LinuxNames(path)) linuxPath += '/' + name;
        return linuxPath;
    }

    std::unique_ptr<TreeNode> Node(const std::string& path, int flags, const char* request)
    {
        hostfs::UniqueFd fd(open(LinuxPath(path).c_str(), flags | O_NOFOLLOW | O_CLOEXEC, 0666));
        if (!fd) Fail(Title(path), request, errno);
        return std::make_unique<HostNode>(std::move(fd), Title(path));
    }

    std::string root_;     // as it was given
    std::string realRoot_; // without links
};

} // namespace

std::unique_ptr<Tree> HostTree(const std::string& root) { return std::make_unique<HostTreeImpl>(root); }

} // namespace tool
