// The shared small routines that need no request: strings, path components, the address of a request's data, and the
// test of an access against what a plugin allows.

#include "frame/buffer.h"
#include "objects/util.h"

#include <nthost/user_memory.h>

#include "create/create.h"
#include "support/client.h"
#include "support/host.h"

namespace {

using support::Text;

class Util : public support::HostFixture {
protected:
    void SetUp() override
    {
        HostFixture::SetUp();
        LoadGvndOrFail();
    }
};

TEST_F(Util, StringsEndBelow65535Bytes)
{
    const GvString longest(GvUtlAllocUnicodeString(PagedPool, 65534));
    ASSERT_TRUE(longest);
    EXPECT_EQ(longest->Length, 0u);
    EXPECT_EQ(longest->MaximumLength, 65534u);
    longest->Buffer[32766] = L'x'; // the text is there to its end
    EXPECT_FALSE(GvString(GvUtlAllocUnicodeString(NonPagedPool, 65535)));
    EXPECT_FALSE(GvString(GvUtlAllocUnicodeString(NonPagedPool, 0x10002))); // and not cut to 16 bits
    EXPECT_TRUE(Trace().Contains("bad param: 0x10002\n"));
}

TEST_F(Util, FindsTheLastOccurrence)
{
    USHORT index = 0x7777;
    EXPECT_STATUS(STATUS_SUCCESS, GvUtlUniStrRChr(Text("\\a"), L'\\', &index));
    EXPECT_EQ(index, 0u);
    EXPECT_STATUS(STATUS_SUCCESS, GvUtlUniStrRChr(Text("\\a\\b\\"), L'\\', &index));
    EXPECT_EQ(index, 4u);
    EXPECT_STATUS(STATUS_UNSUCCESSFUL, GvUtlUniStrRChr(Text("abc"), L'\\', &index));
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, GvUtlUniStrRChr(Text(""), L'\\', &index));
}

struct ComponentRow {
    const char* Path;
    const WCHAR* Component;
    NTSTATUS Status;
    bool Found;
};

TEST_F(Util, SeesWholeComponentsOnly)
{
    const ComponentRow rows[] = {
        {"\\a\\..\\b", L"..", STATUS_SUCCESS, true},
        {"\\a\\..", L"..", STATUS_SUCCESS, true},
        {"\\..", L"..", STATUS_SUCCESS, true},
        {"\\a\\b..c", L"..", STATUS_SUCCESS, false},
        {"\\a..", L"..", STATUS_SUCCESS, false},
        {"\\..a\\..", L"..", STATUS_SUCCESS, true}, // the search goes on behind a hit that does not count
        {"\\...\\.", L".", STATUS_SUCCESS, true},
        {"\\...", L"..", STATUS_SUCCESS, false},
        {"\\Ab", L"ab", STATUS_SUCCESS, false},
        {"\\", L".", STATUS_SUCCESS, false},
        {"", L".", STATUS_INVALID_PARAMETER, false},
        {"a\\.", L".", STATUS_INVALID_PARAMETER, false},
        {"\\a", L"", STATUS_INVALID_PARAMETER, false},
        {"\\a", L"\\a", STATUS_INVALID_PARAMETER, false},
    };
    for (const ComponentRow& row : rows) {
        SCOPED_TRACE(row.Path);
        bool found = false;
        EXPECT_STATUS(row.Status, GvUtlDoesPathHaveComponent(Text(row.Path), row.Component, &found));
        EXPECT_EQ(found, row.Found);
    }
    Text odd("\\ab");
    for (const USHORT length : {5, 0}) {
        odd.Get()->Length = length;
        bool found;
        EXPECT_STATUS(STATUS_INVALID_PARAMETER, GvUtlDoesPathHaveComponent(odd, L"ab", &found));
    }
}

TEST_F(Util, MapsTheMdlBeforeTheCallersAddress)
{
    IRP irp = {};
    EXPECT_EQ(GvUtlMapBufferForIo(&irp), nullptr);
    EXPECT_TRUE(Trace().Contains("ERROR: neither user-buffer nor mdl-address available\n"));
    nthost::UserMemory memory(PAGE_SIZE);
    irp.UserBuffer = memory.Address() + 8;
    EXPECT_EQ(GvUtlMapBufferForIo(&irp), memory.Address() + 8);

    const PMDL mdl = IoAllocateMdl(memory.Address(), 16, FALSE, FALSE, nullptr);
    MmProbeAndLockPages(mdl, UserMode, IoWriteAccess);
    irp.MdlAddress = mdl;
    irp.UserBuffer = nullptr;
    auto* const mapped = static_cast<char*>(GvUtlMapBufferForIo(&irp));
    ASSERT_NE(mapped, nullptr);
    irp.UserBuffer = memory.Address() + 8;
    EXPECT_EQ(GvUtlMapBufferForIo(&irp), mapped); // also on the second look, when it is mapped already
    *mapped = 'm';
    EXPECT_EQ(*memory.Address(), 'm');
    MmUnlockPages(mdl);
    IoFreeMdl(mdl);
}

struct AccessRow {
    const char* What;
    ULONG Type;
    ACCESS_MASK Desired;
    PluginAccessMask Least; // the smallest mask that will do
};

TEST_F(Util, AsksForThePluginAccessThatAnNtAccessNeeds)
{
    constexpr PluginAccessMask R = GVND_ACCESS_READ, W = GVND_ACCESS_WRITE, A = GVND_ACCESS_WRITE_ATTRIBUTES,
                               X = GVND_ACCESS_EXECUTE;
    const AccessRow rows[] = {
        {"nothing", GvFile, 0, 0},
        {"data", GvFile, FILE_READ_DATA, R},
        {"attributes", GvFile, FILE_READ_ATTRIBUTES, R},
        {"EAs are written with the read bit", GvFile, FILE_WRITE_EA, R},
        {"delete", GvFile, DELETE, R},
        {"security", GvFile, READ_CONTROL | WRITE_DAC, R},
        {"synchronize", GvFile, SYNCHRONIZE, R},
        {"write", GvFile, FILE_WRITE_DATA, W},
        {"append", GvFile, FILE_APPEND_DATA, W},
        {"set attributes", GvDirectory, FILE_WRITE_ATTRIBUTES, A},
        {"execute a file", GvFile, FILE_EXECUTE, X},
        {"traverse a directory", GvDirectory, FILE_TRAVERSE, 0},
        {"execute the volume", GvVolume, FILE_EXECUTE, 0},
        {"all of it", GvFile, FILE_READ_DATA | FILE_WRITE_DATA | FILE_WRITE_ATTRIBUTES | FILE_EXECUTE, R | W | A | X},
    };
    for (const AccessRow& row : rows) {
        SCOPED_TRACE(row.What);
        for (PluginAccessMask mask = 0; mask <= GVND_ACCESS_ALL; ++mask) {
            const bool covered = (mask & row.Least) == row.Least;
            EXPECT_STATUS(covered ? STATUS_SUCCESS : STATUS_ACCESS_DENIED,
                          GvCheckDesiredAccessWithFcbMaxAccess(row.Type, row.Desired, mask));
        }
    }
}

struct ScreenRow {
    const char* What;
    UCHAR Flags;
    ULONG Options; // disposition in the high byte
    ACCESS_MASK Access;
    NTSTATUS Expected;
    const char* Trace;
};

// Every refused bit, and each test before those that follow it.
TEST_F(Util, ScreensCreatesInOrder)
{
    constexpr ULONG kOpen = FILE_OPEN << 24;
    std::vector<ScreenRow> rows = {
        {"plain", 0, kOpen, FILE_READ_DATA, STATUS_SUCCESS, ""},
        {"paging file, and all else wrong", SL_OPEN_PAGING_FILE, FILE_OPEN_BY_FILE_ID, MAXIMUM_ALLOWED,
         STATUS_NOT_SUPPORTED, "ERROR: sl-flags: 0x2 not supported\n"},
        {"case-sensitive", SL_CASE_SENSITIVE, kOpen, FILE_READ_DATA, STATUS_NOT_SUPPORTED, "sl-flags: 0x80"},
        {"target directory is no reason", SL_OPEN_TARGET_DIRECTORY, kOpen, FILE_READ_DATA, STATUS_SUCCESS, ""},
        {"supersede before options", 0, FILE_OPEN_BY_FILE_ID, FILE_READ_DATA, STATUS_NOT_SUPPORTED,
         "disposition == supersede not supported\n"},
        {"options before access", 0, kOpen | FILE_OPEN_BY_FILE_ID, MAXIMUM_ALLOWED, STATUS_NOT_SUPPORTED,
         "options: 0x2000, not supported\n"},
        {"tree connection", 0, kOpen | 0x80, FILE_READ_DATA, STATUS_NOT_SUPPORTED, "options: 0x80, not supported\n"},
        {"filter", 0, kOpen | 0x100000, FILE_READ_DATA, STATUS_NOT_SUPPORTED, "options: 0x100000"},
        {"every other option", 0, kOpen | (0xffffff & ~0x102080), FILE_READ_DATA, STATUS_SUCCESS, ""},
    };
    for (unsigned bit = 0; bit < 32; ++bit) {
        const ACCESS_MASK access = 1u << bit;
        const bool allowed = access & 0x1701bf;
        rows.push_back({"access bit", 0, kOpen, access, allowed ? STATUS_SUCCESS : STATUS_ACCESS_DENIED,
                        allowed ? "" : "ERR desired-access supported: 0x1701bf, got: 0x"});
    }
    const PIRP irp = IoAllocateIrp(1, FALSE);
    IoSetNextIrpStackLocation(irp);
    IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(irp);
    IO_SECURITY_CONTEXT security = {};
    stack->Parameters.Create.SecurityContext = &security;
    for (const ScreenRow& row : rows) {
        SCOPED_TRACE(std::string(row.What) + " " + std::to_string(row.Access));
        Trace().Clear();
        stack->Flags = row.Flags;
        stack->Parameters.Create.Options = row.Options;
        security.DesiredAccess = row.Access;
        EXPECT_STATUS(row.Expected, GvCheckUnsupportedParams(irp));
        EXPECT_TRUE(*row.Trace == 0 || Trace().Contains(row.Trace)) << support::Join(Trace().Texts());
    }
    IoFreeIrp(irp);
}

} // namespace
