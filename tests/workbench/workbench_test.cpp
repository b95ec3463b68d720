// What the workbench adds to the services beneath it: what is left decides the exit code, failures name their request,
// and a plugin's table is held to what it owes. The rest is used by every other test.

#include <algorithm>
#include <stdexcept>
#include <thread>

#include <gvnd/memfs.h>
#include <nthost/check.h>
#include <nthost/requests.h>
#include <workbench/workbench.h>

#include "support/host.h"

namespace {

using namespace workbench;

NTSTATUS NTAPI StaysLoaded(PDRIVER_OBJECT, PUNICODE_STRING) { return STATUS_SUCCESS; } // it has no unload routine

TEST(Report, TellsWhatWasLeftAndMakesItTheExitCode)
{
    Host host;
    ASSERT_STATUS(STATUS_SUCCESS, host.LoadGvnd());
    ASSERT_STATUS(STATUS_SUCCESS, host.Load("stays", StaysLoaded));
    void* const block = ExAllocatePoolWithTag(PagedPool, 33, 'tseT');
    {
        const nthost::QuietFindings quiet;
        nthost::ReportFinding("some-rule", "of something");
    }
    const Report report = host.Finish();
    const auto tells = [&](const char* text) {
        return std::any_of(report.Lines.begin(), report.Lines.end(),
                           [&](const std::string& line) { return line.find(text) != std::string::npos; });
    };
    EXPECT_TRUE(tells("driver stays does not unload: STATUS_INVALID_DEVICE_REQUEST"));
    EXPECT_TRUE(tells("33 bytes"));
    EXPECT_TRUE(tells("some-rule: of something"));
    EXPECT_EQ(report.ExitCode(), 4);
    EXPECT_TRUE(host.Finish().Clean()); // once only
    ExFreePool(block);

    Host again;
    EXPECT_STATUS(STATUS_SUCCESS, again.LoadGvnd());
    EXPECT_EQ(again.Finish().ExitCode(), 0);
}

template <typename Body>
std::string FailureOf(Body body)
{
    try {
        body();
        return "none";
    } catch (const std::exception& error) {
        return error.what();
    }
}

class Workbench : public support::HostFixture {
protected:
    void SetUp() override
    {
        HostFixture::SetUp();
        LoadGvndOrFail();
        ASSERT_STATUS(STATUS_SUCCESS, MemFsCreate(nullptr, &memfs_));
    }
    void TearDown() override
    {
        MemFsDestroy(memfs_);
        HostFixture::TearDown();
    }
    PluginOps* memfs_ = nullptr;
};

TEST_F(Workbench, FailuresNameTheRequestAndThePathOfTheVolume)
{
    PluginOps table = *memfs_;
    table.Version = 1;
    EXPECT_EQ(FailureOf([&] { Volume(Host(), &table, {.Name = "Other"}); }),
              "mount \\??\\Other: STATUS_INVALID_PARAMETER (0xc000000d)");
    Volume volume(Host(), memfs_);
    EXPECT_EQ(FailureOf([&] { volume.Open("a/b"); }), "open \\a\\b: STATUS_OBJECT_PATH_NOT_FOUND (0xc000003a)");
    EXPECT_EQ(FailureOf([&] { OpenFile(volume.Link(), {.Disposition = FILE_OVERWRITE}); }),
              "create the volume: STATUS_ACCESS_DENIED (0xc0000022)");
    const File file =
        volume.Open("/file", {.Access = FILE_GENERIC_READ | FILE_GENERIC_WRITE, .Disposition = FILE_CREATE});
    file.Write(0, "0123", 4);
    char text[8] = {};
    EXPECT_EQ(file.Read(2, text, sizeof text), 2u);
    EXPECT_EQ(file.Read(4, text, sizeof text), 0u); // the end is no failure
    volume.Plugin().Fail("Write", STATUS_DISK_FULL);
    EXPECT_EQ(FailureOf([&] { file.Write(7, "x", 1); }), "write \\file at 7: STATUS_DISK_FULL (0xc000007f)");
    ASSERT_EQ(volume.List("/", "F*").size(), 1u);
    EXPECT_EQ(volume.List("/")[0].Size, 4u);
}

TEST_F(Workbench, NamesAndSidsAreCheckedBeforeNtSeesThem)
{
    EXPECT_EQ(Text(std::u16string(32767, u'x'))->Length, 65534);
    EXPECT_THROW(Text(std::u16string(32768, u'x')), std::length_error);
    Text room = Text::Room(3);
    EXPECT_EQ(room->MaximumLength, 6);
    EXPECT_EQ(Text(room)->Length, 0); // a copy has its own block, and what the text has become
    EXPECT_NE(Text(room)->Buffer, room->Buffer);

    const nthost::User user = UserOf("S-1-5-21-7+S-1-5-32-544");
    EXPECT_EQ(user.Sid, "S-1-5-21-7");
    EXPECT_EQ(user.Groups.back(), "S-1-5-32-544");
    for (const char* bad : {"", "S-1-", "S-1-5-x", "S-1--5", "S-1-5+", "S-1-5+x"}) {
        EXPECT_THROW((void)UserOf(bad), std::invalid_argument) << bad;
    }
}

// A plugin that reports success and does not deliver.
TEST_F(Workbench, TablesAreHeldToWhatTheyOwe)
{
    PluginOps table = {};
    table.Lookup = [](void*, PKEVENT, PCUNICODE_STRING, PluginFileInfo**, PluginAccessMask*)
                       NTAPI { return STATUS_SUCCESS; };
    table.Open = [](void*, PKEVENT, PCUNICODE_STRING, PluginAccessMask, PluginFd*) NTAPI { return STATUS_SUCCESS; };
    table.Write = [](void*, PKEVENT, PluginFd, LONGLONG, ULONG* length, const void*)
                      NTAPI { return --*length, STATUS_SUCCESS; };
    table.SetFileSize = [](void*, PKEVENT, PluginFd, LONGLONG* size, const LONGLONG*)
                            NTAPI { return ++*size, STATUS_SUCCESS; };
    // A record that comes with a failure is freed all the same; the fixture would see it.
    table.ReadDirEntry = [](void*, PKEVENT, PluginFd, ULONG, PluginDirEntry** entry) NTAPI {
        *entry = static_cast<PluginDirEntry*>(ExAllocatePoolWithTag(PagedPool, sizeof **entry, 'tseT'));
        RtlZeroMemory(*entry, sizeof **entry);
        return STATUS_DISK_CORRUPT_ERROR;
    };
    const PluginTable plugin(&table);
    EXPECT_STATUS(STATUS_UNSUCCESSFUL, plugin.Lookup("\\a").Status);
    EXPECT_STATUS(STATUS_UNSUCCESSFUL, plugin.Open("\\a").Status);
    EXPECT_STATUS(STATUS_UNSUCCESSFUL, plugin.Write(1, 0, "abc"));
    EXPECT_STATUS(STATUS_UNSUCCESSFUL, plugin.Resize(1, 10, 10));
    NTSTATUS status;
    EXPECT_TRUE(plugin.List(1, &status).empty());
    EXPECT_STATUS(STATUS_DISK_CORRUPT_ERROR, status);
}

// Rows: the driver's text, what is printed of it.
TEST(TraceLine, NamesStatusesAndFailuresAndCompletesTheRequestsOwnAddresses)
{
    const auto* const file = reinterpret_cast<const void*>(0x7f0012345678);
    constexpr const char* kRows[][2] = {
        {"GvCreate() done, FO: 0x12345678, status: 0x0, info: 0x1\n\n",
         "  GvCreate() done, FO: 0x7f0012345678, status: 0x0 STATUS_SUCCESS, info: 0x1\n\n"},
        {"GvDoCreate(): 0xc0000034\n", "! GvDoCreate(): 0xc0000034 STATUS_OBJECT_NAME_NOT_FOUND\n"},
        {"FO: 0x12345679, length: 0x103\n", "  FO: 0x12345679, length: 0x103\n"}, // neither this file nor a status
        {"FO: 0x0, name: 0xc0ffee\n", "  FO: 0x0, name: 0xc0ffee\n"},
        {"ends in 0x", "  ends in 0x\n"},
    };
    for (const auto& [text, line] : kRows) {
        EXPECT_EQ(TraceLine("", text, {.Seconds = 0.5, .Request = 17, .Addresses = {nullptr, file}}),
                  std::string("    0.500000 #17     ") + line);
    }
}

// The same number on the thread that sent a request and on the worker that took it.
TEST_F(Workbench, RequestsAreNumberedOnWhateverThreadWorksForThem)
{
    Volume volume(Host(), memfs_);
    volume.Open("/file", {.Access = FILE_GENERIC_WRITE, .Disposition = FILE_CREATE}).Write(0, "0123", 4);
    uint64_t opened = 0, read = 0;
    std::thread::id reader;
    volume.Plugin().Before("Lookup", [&](PKEVENT) { opened = nthost::CurrentRequest().Number; });
    volume.Plugin().Before("Read", [&](PKEVENT) {
        read = nthost::CurrentRequest().Number;
        reader = std::this_thread::get_id();
    });
    uint64_t sent = nthost::RequestsSent();
    const OpenResult file = Open(Text(volume.NtPath("/file")), {.Access = FILE_READ_DATA | SYNCHRONIZE, .Options = 0});
    ASSERT_STATUS(STATUS_SUCCESS, file.Status);
    EXPECT_EQ(opened, sent + 1);
    sent = nthost::RequestsSent();
    EXPECT_EQ(ReadText(file.File.Get(), 4), "0123");
    EXPECT_EQ(read, sent + 1);
    EXPECT_NE(reader, std::this_thread::get_id());
    EXPECT_EQ(nthost::CurrentRequest().Number, 0u);
}

} // namespace
