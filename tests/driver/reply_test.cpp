// What a plugin answers is not believed: counts beyond what was asked for, names that are no names. What the driver
// answers holds nothing but the answer.

#include <cstring>
#include <thread>

#include <nthost/process.h>

#include "open_requests.h"
#include "support/file.h"

namespace opening {
namespace {

class Replies : public VolumeTest {
protected:
    static NTSTATUS NTAPI TooMuchRead(GVND_CALL, PluginFd, LONGLONG, ULONG* length, void*)
    {
        (void)context, (void)cancel;
        *length += 1;
        return STATUS_SUCCESS;
    }
    static NTSTATUS NTAPI TooMuchWritten(GVND_CALL, PluginFd, LONGLONG, ULONG* length, const void*)
    {
        (void)context, (void)cancel;
        *length = 3'000'010;
        return STATUS_SUCCESS;
    }
    static NTSTATUS NTAPI OddEntry(GVND_CALL, PluginFd, ULONG, PluginDirEntry** entry)
    {
        (void)context, (void)cancel;
        auto* const made =
            static_cast<PluginDirEntry*>(ExAllocatePoolWithTag(PagedPool, sizeof(PluginDirEntry), 'tset'));
        *made = {};
        made->FileNameLength = 0x10003;
        *entry = made;
        return STATUS_SUCCESS;
    }
    static NTSTATUS NTAPI OddLabel(GVND_CALL, PluginVolInfo** info)
    {
        (void)context, (void)cancel;
        auto* const made = static_cast<PluginVolInfo*>(ExAllocatePoolWithTag(PagedPool, sizeof(PluginVolInfo), 'tset'));
        *made = {};
        made->BytesPerSector = 1;
        made->VolumeLabelLength = 0xffffffff;
        *info = made;
        return STATUS_SUCCESS;
    }
    static NTSTATUS NTAPI HugeEa(GVND_CALL, PluginFd, const char*, void** value, ULONG* length)
    {
        (void)context, (void)cancel;
        *value = ExAllocatePoolWithTag(PagedPool, 1, 'tset');
        *length = 0xfffffff0;
        return STATUS_SUCCESS;
    }
};

TEST_F(Replies, CountsBeyondTheRequestFailIt)
{
    Handle file = OpenOrFail("\\file", {.Access = FILE_GENERIC_READ | FILE_GENERIC_WRITE});
    Handle directory = OpenOrFail("\\dir", {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE});
    support::EaList eas;
    eas.Add("NAME", "value");
    IO_STATUS_BLOCK block = {};
    ASSERT_STATUS(STATUS_SUCCESS, NtSetEaFile(file.Get(), &block, const_cast<char*>(eas.Bytes().data()),
                                              static_cast<ULONG>(eas.Bytes().size())));
    PluginOps* const table = Plugin().Table();
    const PluginOps sane = *table;

    table->Read = TooMuchRead;
    char buffer[10];
    const Outcome read = Read(file.Get(), buffer, sizeof buffer, 0);
    EXPECT_STATUS(STATUS_UNSUCCESSFUL, read.Status);
    EXPECT_EQ(read.Information, 0u);
    EXPECT_TRUE(Trace().Contains("ERR: plugin Read(): 11 bytes, of 10 asked for\n"));

    table->Write = TooMuchWritten;
    EXPECT_STATUS(STATUS_UNSUCCESSFUL, support::Write(file.Get(), "0123", 0).Status);
    EXPECT_EQ(FileReference(file.Get())->CurrentByteOffset.QuadPart, 0);

    table->ReadDirEntry = OddEntry;
    EXPECT_STATUS(STATUS_UNSUCCESSFUL, List(directory.Get()).Status);
    EXPECT_TRUE(Trace().Contains("ERR: plugin ReadDirEntry(): a name of 65539 bytes\n"));

    table->GetVolInfo = OddLabel;
    char volume[64];
    EXPECT_STATUS(STATUS_UNSUCCESSFUL,
                  support::QueryVolume(file.Get(), FileFsVolumeInformation, volume, sizeof volume).Status);

    table->GetEa = HugeEa;
    NTSTATUS status;
    support::QueryAs<FILE_EA_INFORMATION>(file.Get(), FileEaInformation, &status);
    EXPECT_STATUS(STATUS_UNSUCCESSFUL, status);
    *table = sane;
}

// An overflowing name reports the whole buffer, which goes to the caller as it is.
TEST_F(Replies, AnswersHoldNothingElse)
{
    Handle file = OpenOrFail("\\dir\\sub\\deep");
    char name[20];
    std::memset(name, 'x', sizeof name);
    EXPECT_STATUS(STATUS_BUFFER_OVERFLOW, support::Query(file.Get(), FileNameInformation, name, sizeof name).Status);
    EXPECT_EQ(std::string(name + 4, 16), std::string(16, '\0'));

    FILE_STANDARD_INFORMATION standard;
    std::memset(&standard, 'x', sizeof standard);
    EXPECT_STATUS(STATUS_SUCCESS,
                  support::Query(file.Get(), FileStandardInformation, &standard, sizeof standard).Status);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(&standard) + 22, 2), std::string(2, '\0'));

    char label[sizeof(FILE_FS_VOLUME_INFORMATION)];
    std::memset(label, 'x', sizeof label);
    (void)support::QueryVolume(file.Get(), FileFsVolumeInformation, label, sizeof label); // its label may not fit
    EXPECT_EQ(label[17], 0);                                                              // behind SupportsObjects
}

// Two queries of one handle at once may tell an entry twice, but none is lost between them.
TEST_F(Replies, TwoListingsOfOneHandleLoseNothing)
{
    for (const char* name : {"a", "b", "c", "d", "e"}) MakeFile(std::string("\\empty\\") + name);
    Handle directory = OpenOrFail("\\empty", {.Access = FILE_LIST_DIRECTORY, .Options = 0});
    auto gate = Plugin().CloseGate("ReadDirEntry");
    Listed listed[2];
    std::thread others[2];
    for (int i = 0; i < 2; ++i)
        others[i] =
            nthost::StartThread(nthost::HostProcess(), [&, i] { listed[i] = List(directory.Get(), {.Single = true}); });
    gate->WaitForArrivals(2);
    gate->Open();
    for (std::thread& other : others) other.join();
    Plugin().RemoveGate("ReadDirEntry");
    Lines names = ListAll(directory.Get());
    for (const Listed& one : listed) names.insert(names.end(), one.Names.begin(), one.Names.end());
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    names.erase(std::remove_if(names.begin(), names.end(), [](const std::string& name) { return name[0] == '.'; }),
                names.end());
    EXPECT_EQ(names, (Lines{"a", "b", "c", "d", "e"}));
}

} // namespace
} // namespace opening
