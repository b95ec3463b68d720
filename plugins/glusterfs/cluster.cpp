// Options, connecting and flushing (cluster.h). Unflushed::lock_ guards the set of files and is held for its changes
// only.
#include "cluster.h"

#include "object.h"

#include <cerrno>
#include <charconv>
#include <system_error>
#include <thread>
#include <utility>

#include <fcntl.h>

namespace glusterfs {
namespace {

constexpr size_t kMostUnflushed = 65536;

bool ParseNumber(std::string_view text, int most, int* number)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *number);
    return error == std::errc() && end == text.data() + text.size() && *number >= 0 && *number <= most;
}

bool ParseOption(std::string_view text, Options* options)
{
    const auto after = [&](std::string_view key) { return text.substr(key.size()); };
    if (text == "ro") return options->ReadOnly = true;
    if (text == "locks") return options->Locks = true;
    if (text.starts_with("timeout=")) {
        return ParseNumber(after("timeout="), 3600, &options->Timeout) && options->Timeout > 0;
    }
    if (text.starts_with("cache=")) return ParseNumber(after("cache="), 3600, &options->Cache);
    if (text.starts_with("log=")) return !(options->Log = after("log=")).empty();
    return false;
}

// SERVER[:PORT]:/VOLUME[/DIRECTORY]
bool ParsePlace(std::string_view text, Options* options)
{
    const size_t slash = text.find(":/");
    if (slash == std::string_view::npos) return false;
    const std::string_view server = text.substr(0, slash);
    const std::string_view path = text.substr(slash + 2);
    const size_t colon = server.find(':');
    if (colon != std::string_view::npos && !ParseNumber(server.substr(colon + 1), 65535, &options->Port)) return false;
    options->Server = server.substr(0, colon);
    options->Volume = path.substr(0, path.find('/'));
    options->Directory = path.substr(options->Volume.size());
    while (options->Directory.ends_with('/')) options->Directory.pop_back();
    if (options->Directory.empty()) options->Directory = "/";
    return !options->Server.empty() && !options->Volume.empty() && options->Port > 0;
}

int LastErrorOr(int unsaid) { return errno != 0 ? errno : unsaid; }

} // namespace

bool ParseOptions(const std::string& text, Options* options)
{
    std::string_view rest = text;
    for (size_t comma; (comma = rest.find(',')) < rest.find(":/"); rest.remove_prefix(comma + 1)) {
        if (!ParseOption(rest.substr(0, comma), options)) return false;
    }
    return ParsePlace(rest, options);
}

bool Unflushed::Add(const Gfid& file)
{
    const std::lock_guard guard(lock_);
    if (files_.size() >= kMostUnflushed) return false;
    files_.insert(file);
    return true;
}

std::set<Gfid> Unflushed::Take()
{
    const std::lock_guard guard(lock_);
    ++epoch_;
    return std::exchange(files_, {});
}

void Unflushed::PutBack(std::set<Gfid> files)
{
    const std::lock_guard guard(lock_);
    files_.merge(files);
}

int Cluster::Connect(const Options& options, std::unique_ptr<Cluster>* cluster)
{
    std::unique_ptr<Cluster> made(new Cluster(options));
    const int error = made->Start();
    if (error == 0) *cluster = std::move(made);
    return error;
}

int Cluster::Start()
{
    client_ = glfs_new(options_.Volume.c_str());
    if (!client_) return LastErrorOr(ENOMEM);
    const std::string timeout = std::to_string(options_.Timeout);
    const std::string cache = std::to_string(options_.Cache);
    const struct {
        const char* Layer;
        const char* Key;
        const std::string& Value;
    } settings[] = {
        {"*-client-*", "ping-timeout", timeout},   // a server that says nothing
        {"*-client-*", "frame-timeout", timeout},  // an answer that does not come
        {"*-md-cache", "md-cache-timeout", cache}, // attributes
        {"*-quick-read", "cache-timeout", cache},  // short files
        {"*-io-cache", "cache-timeout", cache},    // contents
    };
    errno = 0;
    for (const auto& setting : settings) {
        if (glfs_set_xlator_option(client_, setting.Layer, setting.Key, setting.Value.c_str()) != 0)
            return LastErrorOr(EINVAL);
    }
    const bool isLogged = !options_.Log.empty();
    if (glfs_set_logging(client_, isLogged ? options_.Log.c_str() : "/dev/null", isLogged ? 7 : 1) != 0 ||
        glfs_set_volfile_server(client_, "tcp", options_.Server.c_str(), options_.Port) != 0)
        return LastErrorOr(EINVAL);
    // EIO is how the library says that the volume is known and none of its servers answers.
    if (glfs_init(client_) != 0) return errno == EIO ? ENOTCONN : LastErrorOr(ENOTCONN);

    struct stat info = {};
    glfs_object_t* const root = glfs_h_lookupat(client_, nullptr, options_.Directory.c_str(), &info, 0);
    if (!root) return LastErrorOr(EIO);
    root_ = std::make_unique<Object>(*this, root, info.st_mode);
    return S_ISDIR(info.st_mode) ? 0 : ENOTDIR;
}

// The library's end of a connection first disconnects and then waits, up to ten seconds, for a timer of its own that it
// can no longer cancel. Everything that was written has been handed over when the last handle was closed, so nobody
// else needs to wait: a thread does, which the process may end at any time. This module stays loaded for it.
Cluster::~Cluster()
{
    root_.reset();
    if (!client_) return;
    try {
        std::thread(glfs_fini, client_).detach();
    } catch (const std::system_error&) {
        glfs_fini(client_);
    }
}

int Cluster::StatFileSystem(struct statvfs* info)
{
    return glfs_h_statfs(client_, static_cast<Object&>(*root_).Handle(), info) == 0 ? 0 : errno;
}

int Cluster::FlushFile(const Gfid& file)
{
    Gfid name = file;
    struct stat info = {};
    glfs_object_t* const object = glfs_h_create_from_handle(client_, name.data(), GFAPI_HANDLE_LENGTH, &info);
    if (!object) return errno == ESTALE || errno == ENOENT ? 0 : errno; // deleted meanwhile
    return Object(*this, object, info.st_mode).Sync();
}

int Cluster::Flush()
{
    std::set<Gfid> files = written_.Take();
    int failed = 0;
    for (auto file = files.begin(); file != files.end();) {
        const int error = FlushFile(*file);
        if (error != 0) failed = error;
        file = error == 0 ? files.erase(file) : std::next(file);
    }
    written_.PutBack(std::move(files));
    return failed;
}

} // namespace glusterfs
