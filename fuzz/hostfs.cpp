// A hostile directory below hostfs: names that are no names, links that lead out, everything changing between the calls
// of a hostile user. What lies beside the served directory must stay as it was.
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include <hostfs/hostfs.h>

#include "support/sequence.h"
#include "support/world.h"

namespace {

namespace fs = std::filesystem;

constexpr char kCanary[] = "nobody writes here";

// Made once: DIRECTORY/root, which is served, and DIRECTORY/outside beside it. Removed when the process ends.
class Place {
public:
    Place()
    {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {16 << 20, 16 << 20}; // else a file may fill the disk
        setrlimit(RLIMIT_FSIZE, &limit);
        char name[] = "/tmp/fuzz-hostfs-XXXXXX";
        if (!mkdtemp(name)) fuzz::Fail("temporary directory", "cannot be made");
        directory_ = name;
        fs::create_directory(directory_ / "outside");
        std::ofstream(directory_ / "outside" / "canary") << kCanary;
    }
    ~Place() { Remove(directory_); }

    std::string Root() const { return directory_ / "root"; }
    void Empty()
    {
        Remove(Root());
        fs::create_directory(Root());
    }
    void ExpectOutsideUntouched() const
    {
        std::ifstream canary(directory_ / "outside" / "canary");
        const std::string text((std::istreambuf_iterator<char>(canary)), {});
        if (text != kCanary) fuzz::Fail("outside", "the canary reads " + text);
        for (const auto& entry : fs::directory_iterator(directory_ / "outside"))
            if (entry.path().filename() != "canary") fuzz::Fail("outside", "has " + entry.path().string());
    }

private:
    static void Remove(const fs::path& path)
    {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }
    fs::path directory_;
};

// Names as the other side has them: any bytes but '/' and NUL.
std::string HostName(fuzz::Input& input)
{
    static const std::string kNames[] = {"a",
                                         "b",
                                         "dir",
                                         "sub",
                                         "file",
                                         "link",
                                         "A",
                                         "FILE",
                                         "caf\xc3\xa9",
                                         "cafe\xcc\x81",
                                         "new",
                                         "a.",
                                         "a ",
                                         "\xff\xfe",
                                         "\xed\xa0\x80",
                                         "a\\b",
                                         "a:b",
                                         "*",
                                         "?",
                                         "\x01",
                                         "\xf0\x9f\x98\x80",
                                         std::string(255, 'n'),
                                         "..."};
    return input.Pick(kNames);
}

std::string HostPath(fuzz::Input& input, const std::string& root)
{
    std::string path = root;
    for (unsigned count = 1 + input.Byte() % 3; count; --count) path += "/" + HostName(input);
    return path;
}

// One change behind the plugin's back. Links are never followed here, since they lead out.
void Change(fuzz::Input& input, const std::string& root)
{
    static const std::string kTargets[] = {
        "../outside/canary", "../outside",      "/etc/passwd",           "file",           "link", "..",  ".",
        "dir/file",          "../../../../tmp", "dir/../../outside/new", "../outside/new", "a/b",  "\xff"};
    static constexpr mode_t kModes[] = {0777, 0, 0444, 0222};
    const std::string path = HostPath(input, root);
    std::error_code ignored;
    // The way there must have no link in it.
    const std::string parent = fs::path(path).parent_path();
    const fs::path real = fs::canonical(parent, ignored);
    if (ignored || real.string().compare(0, root.size(), root) != 0) return;
    const std::string there = real / fs::path(path).filename();
    switch (input.Byte() % 8) {
    case 0: (void)!symlink(input.Pick(kTargets).c_str(), there.c_str()); break;
    case 1: (void)mkdir(there.c_str(), 0777); break;
    case 2: {
        const int file = open(there.c_str(), O_CREAT | O_NOFOLLOW | O_WRONLY | O_NONBLOCK | O_CLOEXEC, 0666);
        if (file < 0) break;
        (void)!ftruncate(file, input.Raw<uint16_t>());
        close(file);
        break;
    }
    case 3: (void)unlink(there.c_str()); break;
    case 4: fs::remove_all(there, ignored); break;
    case 5: (void)rename(there.c_str(), (root + "/" + HostName(input)).c_str()); break;
    case 6: (void)mkfifo(there.c_str(), 0666); break;
    default:
        if (!fs::is_symlink(there, ignored)) (void)chmod(there.c_str(), input.Pick(kModes));
        break;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static Place place;
    (void)fuzz::TheHost();
    place.Empty();
    {
        const fuzz::Balanced balanced;
        fuzz::Input input(data, size);
        for (unsigned changes = input.Byte() % 16; changes; --changes) Change(input, place.Root());
        PluginOps* operations = nullptr;
        const std::string root = place.Root();
        workbench::Require("serve the directory", HostFsCreate({.Root = root.c_str()}, &operations));
        fuzz::UseVolume(GvHostfsPlugin(), operations, operations, [&](const std::string& link) {
            fuzz::Sequence(input, link).Run([&] {
                if (input.Sometimes(96)) Change(input, root);
            });
        });
        HostFsDestroy(operations);
    }
    place.ExpectOutsideUntouched();
    return 0;
}
