// Files and names: making, opening, data, sizes, rename, delete, and what fails how.
#include "fixture.h"

#include <csignal>
#include <cstdlib>

#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace hostfs_tests {
namespace {

class Files : public HostFs {};

TEST_F(Files, WrongObjectsAndMissingOnes)
{
    Put("file", "x");
    mkdir(At("dir").c_str(), 0755);
    EXPECT_STATUS(STATUS_OBJECT_NAME_NOT_FOUND, Fs().Lookup(u"\\none").Status);
    EXPECT_STATUS(STATUS_OBJECT_PATH_NOT_FOUND, Fs().Lookup(u"\\none\\x").Status);
    EXPECT_STATUS(STATUS_OBJECT_PATH_NOT_FOUND, Fs().Lookup(u"\\FILE\\x").Status);
    EXPECT_STATUS(STATUS_FILE_IS_A_DIRECTORY, Fs().Open(u"\\dir").Status);
    EXPECT_STATUS(STATUS_NOT_A_DIRECTORY, Fs().OpenDir(u"\\file").Status);
    EXPECT_STATUS(STATUS_OBJECT_NAME_COLLISION, Fs().Create(u"\\DIR").Status);
    EXPECT_STATUS(STATUS_OBJECT_NAME_COLLISION, Fs().CreateDir(u"\\file").Status);
    EXPECT_STATUS(STATUS_OBJECT_NAME_COLLISION, Fs().CreateDir(u"\\").Status);
    EXPECT_STATUS(STATUS_OBJECT_PATH_NOT_FOUND, Fs().Create(u"\\none\\x").Status);
    EXPECT_STATUS(STATUS_OBJECT_PATH_NOT_FOUND, Fs().Create(u"\\file\\x").Status);
    EXPECT_STATUS(STATUS_OBJECT_NAME_NOT_FOUND, Fs().Delete(u"\\none"));

    HostFsOptions options = Options();
    PluginOps* none = nullptr;
    const std::string missing = At("none");
    options.Root = missing.c_str();
    EXPECT_STATUS(STATUS_OBJECT_NAME_NOT_FOUND, HostFsCreate(options, &none));
    const std::string file = At("file");
    options.Root = file.c_str();
    EXPECT_STATUS(STATUS_OBJECT_PATH_NOT_FOUND, HostFsCreate(options, &none));
    EXPECT_EQ(nullptr, none);
}

TEST_F(Files, SizesAndAllocation)
{
    const PluginFd fd = Fs().Create(u"\\f").Fd;
    EXPECT_STATUS(STATUS_SUCCESS, Fs().Write(fd, 0, "abcdef"));
    EXPECT_STATUS(STATUS_SUCCESS, Fs().Resize(fd, 3, 3));
    EXPECT_EQ("abc", Peek("f"));
    EXPECT_STATUS(STATUS_SUCCESS, Fs().Resize(fd, 3, 1 << 20));
    EXPECT_EQ("abc", Peek("f")); // allocation does not move the end
    EXPECT_GE(Fs().Info(fd).Info.AllocationSize, 1 << 20);
    EXPECT_STATUS(STATUS_SUCCESS, Fs().Resize(fd, 3, 3));
    EXPECT_LT(Fs().Info(fd).Info.AllocationSize, 1 << 20);
    EXPECT_STATUS(STATUS_SUCCESS, Fs().Resize(fd, 1LL << 30, 1LL << 30));
    EXPECT_LT(Fs().Info(fd).Info.AllocationSize, 1 << 20); // sparse as long as nothing more is asked for
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, Fs().Resize(fd, -1, 0));
    EXPECT_STATUS(STATUS_DISK_FULL, Fs().Resize(fd, INT64_MAX, 0));
}

TEST_F(Files, HandlesDoWhatTheyWereOpenedFor)
{
    Put("f", "data");
    struct {
        PluginAccessMask Wanted;
        NTSTATUS Read;
        NTSTATUS Write;
    } const rows[] = {
        {0, STATUS_ACCESS_DENIED, STATUS_ACCESS_DENIED},
        {GVND_ACCESS_WRITE_ATTRIBUTES, STATUS_ACCESS_DENIED, STATUS_ACCESS_DENIED},
        {GVND_ACCESS_READ, STATUS_SUCCESS, STATUS_ACCESS_DENIED},
        {GVND_ACCESS_EXECUTE, STATUS_SUCCESS, STATUS_ACCESS_DENIED},
        {GVND_ACCESS_WRITE, STATUS_ACCESS_DENIED, STATUS_SUCCESS},
        {GVND_ACCESS_ALL, STATUS_SUCCESS, STATUS_SUCCESS},
    };
    for (const auto& row : rows) {
        const PluginFd fd = Fs().Open(u"\\f", row.Wanted).Fd;
        NTSTATUS status = STATUS_SUCCESS;
        (void)Fs().Read(fd, 0, 4, &status);
        EXPECT_STATUS(row.Read, status) << row.Wanted;
        EXPECT_STATUS(row.Write, Fs().Write(fd, 0, "DATA")) << row.Wanted;
        EXPECT_STATUS(row.Write, Fs().Resize(fd, 4, 4)) << row.Wanted;
        EXPECT_STATUS(STATUS_SUCCESS, Fs().SetAttr(fd, FILE_ATTRIBUTE_HIDDEN)) << row.Wanted; // any handle may do that
        EXPECT_STATUS(STATUS_SUCCESS, Fs().Ops->FlushFile(Fs().Ops->PluginContext, nullptr, fd));
        EXPECT_STATUS(STATUS_SUCCESS, Fs().Close(fd));
    }
}

TEST_F(Files, ClosedAndInventedHandlesAreInvalid)
{
    const PluginFd closed = Fs().Create(u"\\f").Fd;
    EXPECT_STATUS(STATUS_SUCCESS, Fs().Close(closed));
    const PluginFd other = Fs().Open(u"\\f").Fd; // most likely the same descriptor
    for (const PluginFd fd : {closed, PluginFd{0}, ~PluginFd{0}}) {
        NTSTATUS status = STATUS_SUCCESS;
        (void)Fs().Read(fd, 0, 4, &status);
        EXPECT_STATUS(STATUS_INVALID_HANDLE, status);
        EXPECT_STATUS(STATUS_INVALID_HANDLE, Fs().Write(fd, 0, "x"));
        EXPECT_STATUS(STATUS_INVALID_HANDLE, Fs().Info(fd).Status);
        EXPECT_STATUS(STATUS_INVALID_HANDLE, Fs().EntryAt(fd, 0).Status);
        EXPECT_STATUS(STATUS_INVALID_HANDLE, Fs().SetAttr(fd, 0));
        EXPECT_STATUS(STATUS_INVALID_HANDLE, Fs().SetEa(fd, "X", "y"));
        EXPECT_STATUS(STATUS_INVALID_HANDLE, Fs().Close(fd));
    }
    EXPECT_STATUS(STATUS_SUCCESS, Fs().Info(other).Status);
}

// Brings a page in at its first touch, as the host does for views of sections.
struct Pager {
    explicit Pager(size_t bytes) : Bytes(bytes)
    {
        Memory = static_cast<char*>(mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        struct sigaction action = {};
        action.sa_sigaction = [](int, siginfo_t* info, void*) {
            const auto page = reinterpret_cast<uintptr_t>(info->si_addr) & ~uintptr_t{PAGE_SIZE - 1};
            if (mprotect(reinterpret_cast<void*>(page), PAGE_SIZE, PROT_READ | PROT_WRITE) != 0) abort();
            Faults = Faults + 1;
        };
        action.sa_flags = SA_SIGINFO;
        sigaction(SIGSEGV, &action, &Before);
    }
    ~Pager()
    {
        sigaction(SIGSEGV, &Before, nullptr);
        munmap(Memory, Bytes);
    }
    size_t Bytes;
    char* Memory;
    struct sigaction Before = {};
    static inline volatile unsigned Faults = 0;
};

// The kernel refuses such a page instead of touching it.
TEST_F(Files, BuffersArePagedIn)
{
    const std::string text(3 * PAGE_SIZE - 10, 'x');
    Put("f", text);
    const PluginFd fd = Fs().Open(u"\\f", GVND_ACCESS_ALL).Fd;
    {
        Pager pager(3 * PAGE_SIZE);
        ULONG length = static_cast<ULONG>(text.size());
        EXPECT_STATUS(STATUS_SUCCESS,
                      Fs().Ops->Read(Fs().Ops->PluginContext, nullptr, fd, 0, &length, pager.Memory + 5));
        EXPECT_EQ(text, std::string_view(pager.Memory + 5, length));
        EXPECT_EQ(3u, Pager::Faults);
    }
    Pager pager(PAGE_SIZE);
    ULONG length = 4;
    EXPECT_STATUS(STATUS_SUCCESS, Fs().Ops->Write(Fs().Ops->PluginContext, nullptr, fd, 0, &length, pager.Memory));
    EXPECT_EQ(std::string("\0\0\0\0x", 5), Peek("f").substr(0, 5));
}

TEST_F(Files, RenameRows)
{
    struct {
        std::u16string From;
        std::u16string To;
        NTSTATUS Status;
    } const rows[] = {
        {u"\\a", u"\\a", STATUS_SUCCESS},
        {u"\\A", u"\\A", STATUS_SUCCESS}, // takes the new spelling
        {u"\\a", u"\\dir\\b", STATUS_SUCCESS},
        {u"\\DIR\\B", u"\\c", STATUS_SUCCESS},
        {u"\\c", u"\\Other", STATUS_OBJECT_NAME_COLLISION}, // the driver deletes what a rename replaces
        {u"\\c", u"\\dir", STATUS_OBJECT_NAME_COLLISION},
        {u"\\none", u"\\d", STATUS_OBJECT_NAME_NOT_FOUND},
        {u"\\none\\c", u"\\d", STATUS_OBJECT_PATH_NOT_FOUND},
        {u"\\c", u"\\none\\d", STATUS_OBJECT_PATH_NOT_FOUND},
        {u"\\c", u"\\d/e", STATUS_OBJECT_NAME_INVALID},
        {u"\\dir", u"\\dir\\sub", STATUS_INVALID_PARAMETER},
        {u"\\dir", u"\\Dir", STATUS_SUCCESS},
    };
    Put("a", "moved");
    Put("other", "kept");
    mkdir(At("dir").c_str(), 0755);
    for (const auto& row : rows)
        EXPECT_STATUS(row.Status, Fs().Rename(row.From, row.To)) << ::testing::PrintToString(row.To);
    EXPECT_EQ((std::vector<std::u16string>{u"Dir", u"c", u"other"}), Fs().List(Fs().OpenDir(u"\\").Fd));
    EXPECT_EQ("moved", Peek("c"));
    EXPECT_EQ("kept", Peek("other"));
}

TEST_F(Files, Deletion)
{
    const PluginFd open = Fs().Create(u"\\open").Fd;
    EXPECT_STATUS(STATUS_SUCCESS, Fs().Write(open, 0, "still here"));
    EXPECT_STATUS(STATUS_SUCCESS, Fs().Delete(u"\\OPEN"));
    NTSTATUS status = STATUS_SUCCESS;
    EXPECT_EQ("still here", Fs().Read(open, 0, 100, &status));
    EXPECT_STATUS(STATUS_OBJECT_NAME_NOT_FOUND, Fs().Lookup(u"\\open").Status);

    const PluginFd directory = Fs().CreateDir(u"\\dir").Fd;
    const PluginFd inner = Fs().Create(u"\\dir\\f").Fd;
    EXPECT_STATUS(STATUS_DIRECTORY_NOT_EMPTY, Fs().Delete(u"\\dir"));
    EXPECT_STATUS(STATUS_SUCCESS, Fs().SetAttr(inner, FILE_ATTRIBUTE_READONLY));
    EXPECT_STATUS(STATUS_CANNOT_DELETE, Fs().Delete(u"\\dir\\f"));
    EXPECT_STATUS(STATUS_SUCCESS, Fs().SetAttr(inner, 0));
    EXPECT_STATUS(STATUS_SUCCESS, Fs().Delete(u"\\dir\\f"));
    EXPECT_STATUS(STATUS_SUCCESS, Fs().Delete(u"\\dir"));
    EXPECT_STATUS(STATUS_NO_MORE_FILES, Fs().EntryAt(directory, 2).Status);
}

TEST_F(Files, AReadOnlyVolumeTakesNoChange)
{
    Put("f", "data");
    HostFsOptions options = Options();
    options.ReadOnly = true;
    Mount(options);
    EXPECT_EQ(GVND_ACCESS_READ | GVND_ACCESS_EXECUTE, Fs().Lookup(u"\\f").Access);
    EXPECT_EQ("data", Fs().Contents(u"\\f"));
    const PluginFd fd = Fs().Open(u"\\f").Fd;
    const NTSTATUS refused[] = {
        Fs().Open(u"\\f", GVND_ACCESS_ALL).Status,
        Fs().Create(u"\\new").Status,
        Fs().CreateDir(u"\\new").Status,
        Fs().Write(fd, 0, "x"),
        Fs().Resize(fd, 0, 0),
        Fs().SetAttr(fd, FILE_ATTRIBUTE_HIDDEN),
        Fs().Ops->SetTime(Fs().Ops->PluginContext, nullptr, fd, 1, 1, 1, 1),
        Fs().SetEa(fd, "X", "y"),
        Fs().DeleteEa(fd, "X"),
        Fs().Ops->SetVolLabel(Fs().Ops->PluginContext, nullptr, NtString(u"x").Get()),
        Fs().Rename(u"\\f", u"\\g"),
        Fs().Delete(u"\\f"),
    };
    for (const NTSTATUS status : refused) EXPECT_STATUS(STATUS_MEDIA_WRITE_PROTECTED, status);
}

TEST_F(Files, RunningOutOfDescriptorsIsAnError)
{
    Put("f", "data");
    rlimit before = {};
    getrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(before.rlim_max, before.rlim_cur); // raised when the volume was made
    const rlimit tight = {static_cast<rlim_t>(dup(0)), before.rlim_max};
    close(static_cast<int>(tight.rlim_cur));
    setrlimit(RLIMIT_NOFILE, &tight);
    const NTSTATUS status = Fs().Open(u"\\f").Status;
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_STATUS(STATUS_TOO_MANY_OPENED_FILES, status);
    EXPECT_EQ("data", Fs().Contents(u"\\f"));
}

} // namespace
} // namespace hostfs_tests
