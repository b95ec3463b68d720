// Attributes, access, times, extended attributes and the volume's own record, with and without the machine's extended
// attributes.
#include "fixture.h"

#include <nthost/process.h>

#include <cstring>
#include <thread>

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace hostfs_tests {
namespace {

constexpr ULONG kReadOnly = FILE_ATTRIBUTE_READONLY;
constexpr ULONG kHidden = FILE_ATTRIBUTE_HIDDEN;
constexpr ULONG kSystem = FILE_ATTRIBUTE_SYSTEM;
constexpr ULONG kArchive = FILE_ATTRIBUTE_ARCHIVE;
constexpr ULONG kDirectory = FILE_ATTRIBUTE_DIRECTORY;

class Metadata : public HostFs {
protected:
    // Runs body with a file system mounted on the root that has no extended attributes; seen by this one thread only.
    void WithoutXattrs(const std::function<void()>& body)
    {
        bool mounted = false;
        nthost::StartThread(nthost::HostProcess(), [&] {
            mounted = unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                      mount("none", Root().c_str(), "ramfs", 0, nullptr) == 0;
            if (!mounted) return;
            Mount(Options());
            body();
            Mount(Options());
        }).join();
        if (!mounted) GTEST_SKIP() << "needs the right to mount";
    }
    NTSTATUS SetTime(PluginFd fd, LONGLONG creation, LONGLONG access, LONGLONG write, LONGLONG change)
    {
        return Fs().Ops->SetTime(Fs().Ops->PluginContext, nullptr, fd, creation, access, write, change);
    }
    ULONG Attributes(PluginFd fd) { return Fs().Info(fd).Info.FileAttributes; }
};

TEST_F(Metadata, AttributesAreKept)
{
    const PluginFd file = Fs().Create(u"\\f").Fd;
    const PluginFd directory = Fs().CreateDir(u"\\d").Fd;
    EXPECT_EQ(kArchive, Attributes(file));
    EXPECT_EQ(kDirectory, Attributes(directory));
    for (const ULONG attributes : {0u, kHidden | kSystem, kReadOnly | kArchive, kReadOnly | kHidden, kArchive}) {
        EXPECT_STATUS(STATUS_SUCCESS, Fs().SetAttr(file, attributes));
        EXPECT_STATUS(STATUS_SUCCESS, Fs().SetAttr(directory, attributes | kDirectory));
        Mount(Options()); // all of it outlives the volume
        const ULONG noWrite = attributes & kReadOnly ? 0 : GVND_ACCESS_WRITE;
        const Found found = Fs().Lookup(u"\\f");
        EXPECT_EQ(attributes, found.Info.FileAttributes);
        EXPECT_EQ(noWrite, found.Access & GVND_ACCESS_WRITE);
        EXPECT_EQ(attributes | kDirectory, Fs().Lookup(u"\\d").Info.FileAttributes);
        (void)Fs().Open(u"\\f");
        (void)Fs().OpenDir(u"\\d"); // the same two handles again
    }
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, Fs().SetAttr(file, kDirectory));
    ASSERT_EQ(0, setxattr(At("f").c_str(), "user.gvnd.attrs", "junk", 4, 0));
    EXPECT_EQ(kArchive, Attributes(file));
}

TEST_F(Metadata, ReadOnlyIsAlsoTheOwnersRightToWrite)
{
    Put("f", "");
    ASSERT_EQ(0, chmod(At("f").c_str(), 0444));
    const PluginFd fd = Fs().Open(u"\\f").Fd;
    EXPECT_EQ(kReadOnly | kArchive, Attributes(fd));
    EXPECT_STATUS(STATUS_SUCCESS, Fs().SetAttr(fd, kArchive));
    EXPECT_EQ(kArchive, Attributes(fd));
    struct stat info = {};
    ASSERT_EQ(0, stat(At("f").c_str(), &info));
    EXPECT_EQ(0644u, info.st_mode & 0777);
    // Set again it is an attribute: the mode stays, so that attributes can still be written.
    EXPECT_STATUS(STATUS_SUCCESS, Fs().SetAttr(fd, kReadOnly));
    ASSERT_EQ(0, stat(At("f").c_str(), &info));
    EXPECT_EQ(0644u, info.st_mode & 0777);
    EXPECT_STATUS(STATUS_SUCCESS, Fs().SetEa(fd, "X", "y"));
}

TEST_F(Metadata, AccessIsThatOfTheProcess)
{
    if (geteuid() != 0) GTEST_SKIP() << "needs a second user";
    struct {
        mode_t Mode;
        PluginAccessMask Access;
        NTSTATUS OpenToRead;
    } const rows[] = {
        {0666, GVND_ACCESS_ALL, STATUS_SUCCESS},
        {0644, GVND_ACCESS_READ | GVND_ACCESS_EXECUTE, STATUS_SUCCESS},
        {0622, GVND_ACCESS_WRITE | GVND_ACCESS_WRITE_ATTRIBUTES, STATUS_ACCESS_DENIED},
        {0600, 0, STATUS_ACCESS_DENIED},
    };
    ASSERT_EQ(0, chmod(Outer().c_str(), 0755));
    Put("f", "data");
    mkdir(At("d").c_str(), 0711);
    Put("d/f", "behind a directory that cannot be listed");
    for (const auto& row : rows) {
        ASSERT_EQ(0, chmod(At("f").c_str(), row.Mode));
        ASSERT_EQ(0, seteuid(65534));
        const Found found = Fs().Lookup(u"\\f");
        const NTSTATUS opened = Fs().Open(u"\\f").Status;
        ASSERT_EQ(0, seteuid(0));
        EXPECT_EQ(row.Access, found.Access) << std::oct << row.Mode;
        EXPECT_STATUS(row.OpenToRead, opened) << std::oct << row.Mode;
    }
    ASSERT_EQ(0, seteuid(65534));
    EXPECT_EQ(0u, Fs().Lookup(u"\\d").Access);
    const Opened directory = Fs().OpenDir(u"\\d", 0);
    EXPECT_STATUS(STATUS_ACCESS_DENIED, Fs().EntryAt(directory.Fd, 0).Status);
    EXPECT_EQ("behind a directory that cannot be listed", Fs().Contents(u"\\d\\f"));
    EXPECT_STATUS(STATUS_OBJECT_NAME_NOT_FOUND, Fs().Lookup(u"\\d\\F").Status);
    EXPECT_STATUS(STATUS_ACCESS_DENIED, Fs().Create(u"\\d\\new").Status);
    ASSERT_EQ(0, seteuid(0));
}

TEST_F(Metadata, TimesAreSetOneByOne)
{
    constexpr LONGLONG kEpoch = 116444736000000000;
    const PluginFd fd = Fs().Create(u"\\f").Fd;
    const PluginFileInfo born = Fs().Info(fd).Info;
    EXPECT_STATUS(STATUS_SUCCESS, SetTime(fd, 0, 0, kEpoch + 12345678901, 0));
    struct stat info = {};
    ASSERT_EQ(0, stat(At("f").c_str(), &info));
    EXPECT_EQ(1234, info.st_mtim.tv_sec);
    EXPECT_EQ(567890100, info.st_mtim.tv_nsec);
    EXPECT_EQ(born.LastAccessTime, Fs().Info(fd).Info.LastAccessTime);
    EXPECT_EQ(born.CreationTime, Fs().Info(fd).Info.CreationTime);

    // Before 1970, rounded towards the past as everywhere.
    EXPECT_STATUS(STATUS_SUCCESS, SetTime(fd, 1, kEpoch - 1, 0, kEpoch));
    ASSERT_EQ(0, stat(At("f").c_str(), &info));
    EXPECT_EQ(-1, info.st_atim.tv_sec);
    EXPECT_EQ(999999900, info.st_atim.tv_nsec);
    const PluginFileInfo now = Fs().Info(fd).Info;
    EXPECT_EQ(1, now.CreationTime);
    EXPECT_EQ(kEpoch - 1, now.LastAccessTime);
    EXPECT_EQ(kEpoch + 12345678901, now.LastWriteTime);
    EXPECT_GE(now.ChangeTime, born.ChangeTime); // the kernel's own
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, SetTime(fd, 0, -2, 0, 0));
}

TEST_F(Metadata, EasAreUserAttributes)
{
    const PluginFd fd = Fs().Create(u"\\f").Fd;
    const auto given = [&](const char* name, const char* value) {
        ASSERT_EQ(0, setxattr(At("f").c_str(), name, value, strlen(value), 0));
    };
    EXPECT_TRUE(Fs().Eas(fd).empty());
    EXPECT_STATUS(STATUS_SUCCESS, Fs().SetAttr(fd, kHidden));
    EXPECT_STATUS(STATUS_SUCCESS, SetTime(fd, 1, 0, 0, 0));
    EXPECT_TRUE(Fs().Eas(fd).empty()); // the plugin's own are not shown

    given("user.mime_type", "text/plain");
    given("user.empty", "");
    EXPECT_STATUS(STATUS_SUCCESS, Fs().SetEa(fd, "NEW", std::string(300, 'v')));
    EXPECT_EQ((std::vector<std::string>{"NEW", "EMPTY", "MIME_TYPE"}), Fs().Eas(fd));
    EXPECT_EQ("text/plain", Fs().Ea(fd, "Mime_Type"));
    EXPECT_EQ("", Fs().Ea(fd, "EMPTY"));
    EXPECT_EQ(std::string(300, 'v'), Fs().Ea(fd, "new"));
    EXPECT_EQ(std::nullopt, Fs().Ea(fd, "MISSING"));
    EXPECT_EQ(std::nullopt, Fs().Ea(fd, "gvnd.attrs"));
    EXPECT_STATUS(STATUS_INVALID_EA_NAME, Fs().SetEa(fd, "GVND.ATTRS", "0x0"));
    EXPECT_STATUS(STATUS_INVALID_EA_NAME, Fs().DeleteEa(fd, "Gvnd.Attrs"));
    EXPECT_STATUS(STATUS_NONEXISTENT_EA_ENTRY, Fs().DeleteEa(fd, "MISSING"));

    // The driver removes before it sets; Linux programs must still find the name that they know.
    EXPECT_STATUS(STATUS_SUCCESS, Fs().DeleteEa(fd, "MIME_TYPE"));
    EXPECT_EQ(std::nullopt, Fs().Ea(fd, "MIME_TYPE"));
    EXPECT_STATUS(STATUS_SUCCESS, Fs().SetEa(fd, "MIME_TYPE", "image/png"));
    char value[16] = {};
    EXPECT_EQ(9, getxattr(At("f").c_str(), "user.mime_type", value, sizeof value));
    EXPECT_STREQ("image/png", value);

    given("user.Twin", "1");
    given("user.twin", "2");
    EXPECT_EQ((std::vector<std::string>{"NEW", "TWIN", "EMPTY", "MIME_TYPE", "twin"}), Fs().Eas(fd));
    EXPECT_EQ("1", Fs().Ea(fd, "TWIN"));
    EXPECT_EQ("2", Fs().Ea(fd, "twin"));
}

TEST_F(Metadata, WithoutXattrsOnlyReadOnlyIsKept)
{
    WithoutXattrs([&] {
        const PluginFd fd = Fs().Create(u"\\f").Fd;
        struct {
            ULONG Attributes;
            NTSTATUS Status;
            ULONG After;
        } const rows[] = {
            {kReadOnly | kArchive, STATUS_SUCCESS, kReadOnly | kArchive},
            {kHidden, STATUS_NOT_SUPPORTED, kReadOnly | kArchive}, // and nothing changed
            {0, STATUS_SUCCESS, kArchive},
            {kArchive | kSystem, STATUS_NOT_SUPPORTED, kArchive},
        };
        for (const auto& row : rows) {
            EXPECT_STATUS(row.Status, Fs().SetAttr(fd, row.Attributes));
            EXPECT_EQ(row.After, Attributes(fd));
        }
        const LONGLONG created = Fs().Info(fd).Info.CreationTime;
        EXPECT_STATUS(STATUS_SUCCESS, SetTime(fd, created + 1, 5, 0, 0)); // what can be kept is
        EXPECT_EQ(5, Fs().Info(fd).Info.LastAccessTime);
        EXPECT_STATUS(STATUS_EAS_NOT_SUPPORTED, Fs().SetEa(fd, "X", "y"));
        EXPECT_EQ(std::nullopt, Fs().Ea(fd, "X"));
        EXPECT_TRUE(Fs().Eas(fd).empty());
        EXPECT_STATUS(STATUS_NOT_SUPPORTED,
                      Fs().Ops->SetVolLabel(Fs().Ops->PluginContext, nullptr, NtString(u"x").Get()));
    });
}

TEST_F(Metadata, FileSystemsMountedInsideAreServed)
{
    bool mounted = false;
    nthost::StartThread(nthost::HostProcess(), [&] {
        mkdir(At("mount").c_str(), 0755);
        mounted = unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                  mount("none", At("mount").c_str(), "tmpfs", 0, nullptr) == 0;
        if (!mounted) return;
        Mount(Options()); // in this thread's view
        EXPECT_STATUS(STATUS_SUCCESS, Fs().Create(u"\\mount\\f").Status);
        EXPECT_STATUS(STATUS_NOT_SAME_DEVICE, Fs().Rename(u"\\mount\\f", u"\\f"));
        // The roots of two file systems often have numbers in common.
        EXPECT_NE(Fs().Lookup(u"\\mount").Info.FileId, Fs().Lookup(u"\\").Info.FileId);
        Mount(Options());
    }).join();
    if (!mounted) GTEST_SKIP() << "needs the right to mount";
}

TEST_F(Metadata, TheVolumeRecord)
{
    struct Volume {
        PluginVolInfo Record;
        std::u16string Label;
    };
    const auto query = [&] {
        PluginVolInfo* info = nullptr;
        EXPECT_STATUS(STATUS_SUCCESS, Fs().Ops->GetVolInfo(Fs().Ops->PluginContext, nullptr, &info));
        Volume volume = {*info, std::u16string(info->VolumeLabelLength / 2, u'\0')};
        memcpy(volume.Label.data(), info->VolumeLabel, info->VolumeLabelLength);
        ExFreePoolWithTag(info, 0);
        return volume;
    };
    const auto setLabel = [&](std::u16string_view label) {
        return Fs().Ops->SetVolLabel(Fs().Ops->PluginContext, nullptr, NtString(label).Get());
    };
    const Volume first = query();
    EXPECT_EQ(u"root", first.Label);
    EXPECT_EQ(1u, first.Record.BytesPerSector);
    EXPECT_GT(first.Record.SectorsPerAllocationUnit, 1u);
    EXPECT_GT(first.Record.TotalAllocationUnits, first.Record.AvailableAllocationUnits);

    HostFsOptions options = Options();
    options.Label = "Gr\xc3\xbc\xc3\x9f"
                    "e";
    Mount(options);
    EXPECT_EQ(u"Gr\u00fc\u00dfe", query().Label);
    EXPECT_STATUS(STATUS_SUCCESS, setLabel(u"Data \u20ac"));
    EXPECT_STATUS(STATUS_INVALID_VOLUME_LABEL, setLabel(std::u16string(33, u'x')));
    EXPECT_STATUS(STATUS_INVALID_VOLUME_LABEL, setLabel(u"a/b"));
    Mount(Options());
    EXPECT_EQ(u"Data \u20ac", query().Label);
    EXPECT_EQ(first.Record.VolumeSerialNumber, query().Record.VolumeSerialNumber);
    EXPECT_STATUS(STATUS_SUCCESS, setLabel(u""));
    EXPECT_EQ(u"", query().Label);
}

} // namespace
} // namespace hostfs_tests
