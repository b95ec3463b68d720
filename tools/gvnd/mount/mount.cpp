// The life of a mount: into the background, boot, mount, serve, unmount, and what was left.
#include "gvnd/mount/mount.h"

#include <cstring>
#include <filesystem>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include "gvnd/mount/dispatch.h"
#include "gvnd/mount/stopper.h"
#include "gvnd/status.h"

namespace tool {

namespace {

using namespace mount;

// The parent of a background process waits until the child says how its mount went.
class Background {
public:
    // Returns in the child, and with foreground in the only process.
    explicit Background(bool foreground)
    {
        if (foreground) return;
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) throw HostFailure(fmt::format("cannot make a pipe: {}", std::strerror(errno)));
        const pid_t child = fork();
        if (child < 0) throw HostFailure(fmt::format("cannot fork: {}", std::strerror(errno)));
        if (child > 0) {
            close(ends[1]);
            char code = ExitFailure; // of a child that ends without a word, which has said why
            while (read(ends[0], &code, 1) < 0 && errno == EINTR) {}
            _exit(code);
        }
        close(ends[0]);
        ready_ = ends[1];
        setsid();
    }
    ~Background()
    {
        if (ready_ >= 0) close(ready_);
    }
    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;

    void Ready()
    {
        if (ready_ < 0) return;
        if (const int nothing = open("/dev/null", O_RDWR); nothing >= 0) {
            for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(nothing, fd);
            if (nothing > STDERR_FILENO) close(nothing);
        }
        if (chdir("/") != 0) fmt::print(stderr, "gvnd: stays in its directory\n");
        const char code = ExitSuccess;
        (void)!write(ready_, &code, 1);
        close(std::exchange(ready_, -1));
    }

private:
    int ready_ = -1;
};

struct Words {
    BridgeOptions Bridge;
    bool ReadOnly = false;
    std::string Kernel = "default_permissions"; // for libfuse, comma-separated
};

ULONG ShareOf(std::string_view letters)
{
    ULONG share = 0;
    for (const char c : letters) {
        switch (c) {
        case 'r': share |= FILE_SHARE_READ; break;
        case 'w': share |= FILE_SHARE_WRITE; break;
        case 'd': share |= FILE_SHARE_DELETE; break;
        case '-': break;
        default: throw Usage("share= takes letters of r, w and d, or - for none");
        }
    }
    return share;
}

// What is not ours is the kernel's or libfuse's, which refuse what they do not know.
void ReadWord(const std::string& word, Words* words)
{
    if (word == "writeback") {
        words->Bridge.Writeback = true;
    } else if (word.starts_with("share=")) {
        words->Bridge.Share = ShareOf(std::string_view(word).substr(6));
    } else if (word == "nocache") {
        words->Bridge.Timeout = 0;
    } else if (!word.empty()) {
        words->ReadOnly |= word == "ro";
        words->Kernel += ',' + word;
    }
}

Words ReadWords(const std::vector<std::string>& lists)
{
    Words words;
    for (const std::string& list : lists) {
        for (size_t at = 0; at <= list.size();) {
            const size_t end = std::min(list.find(',', at), list.size());
            ReadWord(list.substr(at, end - at), &words);
            at = end + 1;
        }
    }
    return words;
}

std::string MountPoint(const std::string& directory)
{
    std::error_code error;
    const std::string path = std::filesystem::canonical(directory, error).string();
    if (error || !std::filesystem::is_directory(path, error))
        throw HostFailure(fmt::format("cannot mount on '{}': it is no directory", directory));
    if (access("/dev/fuse", R_OK | W_OK) != 0)
        throw HostFailure(fmt::format("cannot mount: /dev/fuse: {}; load the module fuse, or ask for the device",
                                      std::strerror(errno)));
    return path;
}

class FuseSession {
public:
    FuseSession(Server* server, const std::string& plugin, const std::string& words)
    {
        const std::string options = fmt::format("{},subtype=gvnd,fsname={}", words, plugin.substr(0, plugin.find(':')));
        const char* arguments[] = {"gvnd", "-o", options.c_str()};
        fuse_args list = FUSE_ARGS_INIT(3, const_cast<char**>(arguments));
        session_ = fuse_session_new(&list, &Operations(), sizeof(fuse_lowlevel_ops), server);
        fuse_opt_free_args(&list);
        if (!session_) throw Usage(fmt::format("-o {}: see above", words));
    }
    ~FuseSession()
    {
        if (mounted_) fuse_session_unmount(session_);
        fuse_session_destroy(session_);
    }
    FuseSession(const FuseSession&) = delete;
    FuseSession& operator=(const FuseSession&) = delete;

    void Mount(const std::string& directory)
    {
        if (fuse_session_mount(session_, directory.c_str()) != 0)
            throw HostFailure(fmt::format("cannot mount on '{}': see above", directory));
        mounted_ = true;
    }
    // Until the file system is unmounted or the stopper gives up on that.
    void Serve()
    {
        constexpr unsigned kThreads = 32;
        fuse_loop_config* const config = fuse_loop_cfg_create();
        fuse_loop_cfg_set_clone_fd(config, 0);
        fuse_loop_cfg_set_max_threads(config, kThreads);
        fuse_loop_cfg_set_idle_threads(config, kThreads);
        const int error = fuse_session_loop_mt(session_, config);
        fuse_loop_cfg_destroy(config);
        if (error < 0) fmt::print(stderr, "gvnd: the mount ended: {}\n", std::strerror(-error));
    }
    fuse_session* Get() { return session_; }

private:
    fuse_session* session_ = nullptr;
    bool mounted_ = false;
};

} // namespace

int RunMount(const MountOptions& options)
{
    const Words words = ReadWords(options.Words);
    const std::string directory = MountPoint(options.Directory);
    // A breach is told as it happens, and by the exit code: in the background nobody would see either.
    const bool foreground = options.Foreground || options.Debug || options.Volume.Verify;
    Background background(foreground);
    Stopper stopper(directory); // blocks the signals, for the threads that follow too

    Session session(options.Trace);
    VolumeChoice choice = options.Volume;
    choice.ReadOnly |= words.ReadOnly;
    session.Mount(choice);
    session.Plugin().CountOnly(!options.Debug);
    {
        Bridge bridge(session, words.Bridge, directory);
        Server server = {bridge, session, options.Debug};
        FuseSession fuse(&server, choice.Plugin, words.Kernel);
        fuse.Mount(directory);
        background.Ready();
        if (foreground) fmt::print("{} is mounted on {}\n", choice.Plugin, directory);
        std::fflush(stdout);
        stopper.Start(fuse.Get(), [&] { return bridge.OpenPaths(); });
        fuse.Serve();
        stopper.Finish();
        bridge.CloseEverything();
    }
    const workbench::Report report = session.Finish();
    report.Print();
    return report.Clean() && session.PluginAtFault() ? ExitPlugin : report.ExitCode();
}

} // namespace tool
