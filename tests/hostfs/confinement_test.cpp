// Nothing outside of the root is ever reached: not by names, not by links, not while others exchange what names mean.
// Each case runs with both ways of resolving a path.
#include "fixture.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <thread>

#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace hostfs_tests {
namespace {

class Confinement : public HostFs, public ::testing::WithParamInterface<HostFsResolver> {
protected:
    void SetUp() override
    {
        HostFs::SetUp();
        HostFsOptions options = Options();
        options.Resolver = GetParam();
        Mount(options);

        mkdir((Outer() + "/beside").c_str(), 0755);
        mkdir(At("inner").c_str(), 0755);
        mkdir(At("inner/deep").c_str(), 0755);
        Put("../beside/f", "outside");
        Put("inner/f", "inside");
    }
    void Link(const std::string& target, const std::string& name)
    {
        ASSERT_EQ(0, symlink(target.c_str(), At(name).c_str()));
    }
};
INSTANTIATE_TEST_SUITE_P(Resolvers, Confinement, ::testing::Values(HostFsResolver::Best, HostFsResolver::Walk),
                         [](const auto& info) { return info.param == HostFsResolver::Best ? "OneCall" : "Walk"; });

TEST_P(Confinement, NamesCannotLeaveTheRoot)
{
    struct {
        std::u16string Path;
        NTSTATUS Status;
    } const rows[] = {
        {u"", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {u"inner", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {u"\\..\\beside\\f", STATUS_OBJECT_NAME_INVALID},
        {u"\\inner\\..\\..\\beside\\f", STATUS_OBJECT_NAME_INVALID},
        {u"\\.", STATUS_OBJECT_NAME_INVALID},
        {u"\\inner/../../beside/f", STATUS_OBJECT_NAME_INVALID},
        {u"\\/etc", STATUS_OBJECT_NAME_INVALID},
        {u"\\\\etc", STATUS_OBJECT_NAME_INVALID},
        {u"\\inner\\", STATUS_OBJECT_NAME_INVALID},
        {u"\\\uf02e\uf02e\\beside\\f", STATUS_OBJECT_PATH_NOT_FOUND}, // private-use dots are no dots
        {u"\\" + std::u16string(256, u'x'), STATUS_NAME_TOO_LONG},
        {u"\\" + std::u16string(86, u'\u20ac'), STATUS_NAME_TOO_LONG}, // 258 bytes
    };
    for (const auto& row : rows) {
        EXPECT_STATUS(row.Status, Fs().Lookup(row.Path).Status);
        EXPECT_FALSE(NT_SUCCESS(Fs().Open(row.Path).Status));
        EXPECT_FALSE(NT_SUCCESS(Fs().Create(row.Path).Status));
        EXPECT_FALSE(NT_SUCCESS(Fs().Rename(u"\\inner\\f", row.Path)));
    }
    EXPECT_STATUS(STATUS_ACCESS_DENIED, Fs().Delete(u"\\"));
    EXPECT_STATUS(STATUS_ACCESS_DENIED, Fs().Rename(u"\\", u"\\x"));
    EXPECT_EQ("inside", Fs().Contents(u"\\inner\\f"));
}

TEST_P(Confinement, LinkTargetsAreTranslatedOrRefused)
{
    struct {
        std::string Target;
        NTSTATUS Status;
        std::u16string Shown;
    } const rows[] = {
        {"f", STATUS_SUCCESS, u"\\inner\\f"},
        {"./deep/..//f", STATUS_SUCCESS, u"\\inner\\f"},
        {"..", STATUS_SUCCESS, u"\\"},
        {"deep/", STATUS_SUCCESS, u"\\inner\\deep"},
        {"missing:x", STATUS_SUCCESS, u"\\inner\\missing\uf03ax"}, // that there is nothing is for the open to find out
        {Root() + "/inner/f", STATUS_SUCCESS, u"\\inner\\f"},
        {Root(), STATUS_SUCCESS, u"\\"},
        {"../../beside/f", STATUS_ACCESS_DENIED, {}},
        {"../../root/inner/f", STATUS_ACCESS_DENIED, {}}, // comes back in, but only by way of outside
        {"/etc/passwd", STATUS_ACCESS_DENIED, {}},
        {"/", STATUS_ACCESS_DENIED, {}},
        {Root() + "/../beside/f", STATUS_ACCESS_DENIED, {}},
        {Root() + "-not", STATUS_ACCESS_DENIED, {}},
    };
    for (const auto& row : rows) {
        Link(row.Target, "inner/link");
        const Found found = Fs().Lookup(u"\\inner\\LINK");
        EXPECT_EQ(FILE_ATTRIBUTE_REPARSE_POINT, found.Info.FileAttributes);
        NTSTATUS status = STATUS_SUCCESS;
        EXPECT_EQ(row.Shown, Fs().ReadLink(u"\\inner\\link", &status)) << row.Target;
        EXPECT_STATUS(row.Status, status) << row.Target;
        EXPECT_STATUS(STATUS_SUCCESS, Fs().Delete(u"\\inner\\link"));
    }
    NTSTATUS status = STATUS_SUCCESS;
    (void)Fs().ReadLink(u"\\inner\\f", &status);
    EXPECT_STATUS(STATUS_OBJECT_TYPE_MISMATCH, status);
    EXPECT_EQ("outside", Peek("../beside/f"));
}

// What a made link holds is read back by readlink, since other programs will follow it by that text.
TEST_P(Confinement, MadeLinksHoldTheWayFromTheirDirectory)
{
    const auto make = [&](std::u16string_view path, std::u16string_view target) {
        return HostFsMakeLink(Fs().Ops, NtString(path).Get(), NtString(target).Get());
    };
    struct {
        std::u16string Path, Target;
        std::string Held;
    } const rows[] = {
        {u"\\link", u"\\inner\\f", "inner/f"},
        {u"\\inner\\link", u"\\inner\\f", "f"},
        {u"\\inner\\deep\\link", u"\\inner\\f", "../f"},
        {u"\\inner\\deep\\link", u"\\", "../.."},
        {u"\\inner\\link", u"\\inner", "."},
        {u"\\inner\\link", u"\\other\\x\uf03ay", "../other/x:y"}, // need not be there
    };
    for (const auto& row : rows) {
        EXPECT_STATUS(STATUS_SUCCESS, make(row.Path, row.Target));
        std::string name(row.Path.begin(), row.Path.end());
        std::replace(name.begin(), name.end(), '\\', '/');
        EXPECT_EQ(row.Held, std::filesystem::read_symlink(Root() + name));
        NTSTATUS status = STATUS_SUCCESS;
        EXPECT_EQ(row.Target, Fs().ReadLink(row.Path, &status));
        EXPECT_STATUS(STATUS_SUCCESS, Fs().Delete(row.Path));
    }
    EXPECT_STATUS(STATUS_OBJECT_NAME_COLLISION, make(u"\\INNER", u"\\inner\\f"));
    EXPECT_STATUS(STATUS_OBJECT_NAME_INVALID, make(u"\\link", u"\\..\\beside"));
    EXPECT_STATUS(STATUS_OBJECT_PATH_NOT_FOUND, make(u"\\none\\link", u"\\inner"));
}

TEST_P(Confinement, LinksAreNotFollowed)
{
    Link("../beside", "out");
    Link("inner", "in");
    Link("../beside/f", "file");
    EXPECT_STATUS(STATUS_OBJECT_PATH_NOT_FOUND, Fs().Lookup(u"\\out\\f").Status);
    EXPECT_STATUS(STATUS_OBJECT_PATH_NOT_FOUND, Fs().Open(u"\\in\\f").Status);
    EXPECT_STATUS(STATUS_OBJECT_PATH_NOT_FOUND, Fs().Create(u"\\out\\new").Status);
    EXPECT_STATUS(STATUS_OBJECT_PATH_NOT_FOUND, Fs().Rename(u"\\inner\\f", u"\\out\\g"));
    EXPECT_STATUS(STATUS_OBJECT_PATH_NOT_FOUND, Fs().Delete(u"\\out\\f"));
    EXPECT_STATUS(STATUS_NOT_A_DIRECTORY, Fs().OpenDir(u"\\out").Status);
    EXPECT_STATUS(STATUS_OBJECT_NAME_COLLISION, Fs().Create(u"\\file").Status);
    EXPECT_STATUS(STATUS_OBJECT_NAME_COLLISION, Fs().Rename(u"\\inner\\f", u"\\file"));

    // What a rename would replace can be asked for its kind, and for nothing else.
    EXPECT_STATUS(STATUS_ACCESS_DENIED, Fs().Open(u"\\file", GVND_ACCESS_ALL).Status);
    const Opened link = Fs().Open(u"\\file", GVND_ACCESS_READ);
    NTSTATUS status = STATUS_SUCCESS;
    EXPECT_EQ(FILE_ATTRIBUTE_REPARSE_POINT, Fs().Info(link.Fd).Info.FileAttributes);
    EXPECT_EQ("", Fs().Read(link.Fd, 0, 10, &status));
    EXPECT_STATUS(STATUS_INVALID_DEVICE_REQUEST, status);
    EXPECT_STATUS(STATUS_INVALID_DEVICE_REQUEST, Fs().SetAttr(link.Fd, FILE_ATTRIBUTE_HIDDEN));
}

TEST_P(Confinement, SpecialFilesAreNotServedAndNeverWaitedFor)
{
    ASSERT_EQ(0, mkfifo(At("pipe").c_str(), 0644));
    for (const PluginAccessMask wanted : {GVND_ACCESS_READ, GVND_ACCESS_WRITE, 0u}) {
        EXPECT_STATUS(STATUS_ACCESS_DENIED, Fs().Open(u"\\pipe", wanted).Status); // a plain open would wait for a peer
    }
    EXPECT_STATUS(STATUS_ACCESS_DENIED, Fs().Lookup(u"\\pipe").Status);
    EXPECT_STATUS(STATUS_ACCESS_DENIED, Fs().Delete(u"\\pipe"));
    EXPECT_STATUS(STATUS_ACCESS_DENIED, Fs().Rename(u"\\pipe", u"\\file"));
    EXPECT_STATUS(STATUS_OBJECT_NAME_COLLISION, Fs().Create(u"\\PIPE").Status);
    EXPECT_EQ(std::vector<std::u16string>{u"inner"}, Fs().List(Fs().OpenDir(u"\\").Fd));
}

// Another process keeps exchanging what a name means. Opens may fail, but what they open is inside.
struct Exchange {
    const char* Name;
    void (*MakeOther)(const std::string& path);
};
const Exchange kExchanges[] = {
    {"inner", [](const std::string& path) { ASSERT_EQ(0, symlink("../beside", path.c_str())); }},
    {"inner/f", [](const std::string& path) { ASSERT_EQ(0, symlink("../../beside/f", path.c_str())); }},
    {"inner/f", [](const std::string& path) { ASSERT_EQ(0, mkfifo(path.c_str(), 0644)); }},
};

TEST_P(Confinement, ExchangedNamesNeverLeadOutside)
{
    for (const Exchange& exchange : kExchanges) {
        const std::string name = At(exchange.Name);
        const std::string other = At("other");
        exchange.MakeOther(other);
        std::atomic<bool> stop = false;
        std::thread exchanger([&] {
            while (!stop) ASSERT_EQ(0, renameat2(AT_FDCWD, name.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE));
        });
        unsigned inside = 0;
        unsigned failed = 0;
        while (inside < 200 || failed < 200) {
            const std::string contents = Fs().Contents(u"\\inner\\f");
            if (contents == "outside") {
                ADD_FAILURE() << exchange.Name;
                break;
            }
            contents == "inside" ? ++inside : ++failed;
        }
        stop = true;
        exchanger.join();
        // Back to how it was for the next row.
        struct stat info = {};
        if (lstat(other.c_str(), &info) == 0 && (S_ISDIR(info.st_mode) || S_ISREG(info.st_mode))) {
            ASSERT_EQ(0, renameat2(AT_FDCWD, name.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE));
        }
        ASSERT_EQ(0, unlink(other.c_str()));
    }
    EXPECT_EQ("outside", Peek("../beside/f"));
}

TEST_P(Confinement, TheRootMayBeGivenThroughALink)
{
    const std::string alias = Outer() + "/alias";
    ASSERT_EQ(0, symlink("root", alias.c_str()));
    HostFsOptions options = Options();
    options.Root = alias.c_str();
    Mount(options);
    Link(alias + "/inner/f", "link");
    NTSTATUS status = STATUS_SUCCESS;
    EXPECT_EQ(u"\\inner\\f", Fs().ReadLink(u"\\link", &status));
    EXPECT_EQ("inside", Fs().Contents(u"\\inner\\f"));
}

} // namespace
} // namespace hostfs_tests
