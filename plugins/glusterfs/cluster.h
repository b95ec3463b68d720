// A connection to one GlusterFS volume, and the store (node.h) that it is for the shared operations. One connection has
// its own client, with its own caches; a process may have several.
//
// What is waited for ends: a server that has gone refuses at once, one that says nothing is given up after the time
// that the options say, and the calls that waited for it go on with the other servers, or fail with ENOTCONN.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include <glusterfs/api/glfs-handles.h>
#include <glusterfs/api/glfs.h>

#include "node.h"

namespace glusterfs {

// "[OPTION,]...SERVER[:PORT]:/VOLUME[/DIRECTORY]"
struct Options {
    std::string Server;
    int Port = 24007;
    std::string Volume;
    std::string Directory; // "/" and what follows; "/" for all of the volume
    bool ReadOnly = false; // ro
    bool Locks = false;    // locks: each transfer holds the store's own lock of its range
    int Timeout = 10;      // timeout=SECONDS
    int Cache = 0;         // cache=SECONDS: how old what is known of other hosts' changes may be
    std::string Log;       // log=FILE: the client's own log; without it there is none
};
[[nodiscard]] bool ParseOptions(const std::string& text, Options* options);

using Gfid = std::array<unsigned char, GFAPI_HANDLE_LENGTH>;

// Files that were written since they were last known to be on stable storage, also those whose handles are closed: the
// client has no call that flushes a whole volume. Has its own lock.
class Unflushed {
public:
    [[nodiscard]] uint64_t Epoch() const { return epoch_.load(); }
    // False if there are too many to remember: the caller flushes its file itself.
    [[nodiscard]] bool Add(const Gfid& file);
    // All of them, which are then forgotten; from then on the epoch is another one.
    [[nodiscard]] std::set<Gfid> Take();
    void PutBack(std::set<Gfid> files);

private:
    std::atomic<uint64_t> epoch_{1};
    std::mutex lock_;
    std::set<Gfid> files_;
};

class Cluster final : public posixfs::Store {
public:
    // 0 or an errno. ENOTCONN when no server answers.
    [[nodiscard]] static int Connect(const Options& options, std::unique_ptr<Cluster>* cluster);
    ~Cluster() override;

    posixfs::Node& Root() override { return *root_; }
    std::vector<std::string> RootPaths() const override { return {options_.Directory}; }
    int StatFileSystem(struct statvfs* info) override;
    int Flush() override;

    [[nodiscard]] glfs_t* Client() const { return client_; }
    [[nodiscard]] bool Locks() const { return options_.Locks; }
    [[nodiscard]] Unflushed& Written() { return written_; }

private:
    explicit Cluster(const Options& options) : options_(options) {}
    [[nodiscard]] int Start();
    [[nodiscard]] int FlushFile(const Gfid& file);

    Options options_;
    glfs_t* client_ = nullptr;
    Unflushed written_;
    posixfs::NodeRef root_;
};

} // namespace glusterfs
