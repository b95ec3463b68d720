// An object of a GlusterFS volume: the client's handle, which stands for the object whatever its names become, and the
// open file on it, if its contents are open.
#pragma once

#include <atomic>
#include <mutex>

#include "cluster.h"

namespace glusterfs {

class Object final : public posixfs::Node {
public:
    // Takes the handle.
    Object(Cluster& cluster, glfs_object_t* handle, mode_t mode, glfs_fd_t* file = nullptr);
    ~Object() override;

    [[nodiscard]] glfs_object_t* Handle() const { return handle_; }

    int Stat(posixfs::NodeStat* stat) const override;
    int GetXattr(const char* name, void* value, size_t room, size_t* length) const override;
    int Access(int mode) const override;
    int ChangeMode(mode_t mode) override;
    int SetTimes(const timespec (&accessAndWrite)[2]) override;
    int ListXattrs(std::string* names) const override;
    int SetXattr(const char* name, std::string_view value) override;
    int RemoveXattr(const char* name) override;
    int ReadLink(std::string* target) const override;
    int OpenContents(int accessMode) override;
    int Sync() override;

    ssize_t Read(void* buffer, size_t length, off_t offset) override;
    ssize_t Write(const void* buffer, size_t length, off_t offset) override;
    int Truncate(off_t size) override;
    int Allocate(off_t offset, off_t length) override;

    int Child(const std::string& name, posixfs::NodeRef* child) const override;
    int ChildEntry(const std::string& name, std::unique_ptr<posixfs::Entry>* entry) const override;
    int ForEachName(const posixfs::NameVisitor& visit) const override;
    int CreateFile(const std::string& name, posixfs::NodeRef* made) override;
    int CreateDirectory(const std::string& name, posixfs::NodeRef* made) override;
    int CreateLink(const std::string& name, const std::string& target) override;
    int Remove(const std::string& name, bool isDirectory) override;
    int Rename(const std::string& name, posixfs::Node& newDirectory, const std::string& newName, bool replace) override;

private:
    // Runs a transfer, under the store's own lock of its range if that is asked for: -EAGAIN if somebody else has one.
    template <typename Transfer>
    ssize_t WithRange(short lockType, off_t offset, size_t length, Transfer&& transfer);
    [[nodiscard]] int NoteWritten();
    void UseFile(glfs_fd_t* file);

    Cluster& cluster_;
    glfs_object_t* handle_;
    mode_t mode_;
    glfs_fd_t* file_ = nullptr;
    std::atomic<uint64_t> notedIn_{0}; // the epoch in which the file was last noted as written
    std::mutex rangeLock_;             // one range at a time: the store's locks have an owner, and this is one
};

} // namespace glusterfs
