// The volume as a whole: its classes of information, its label, flushes of files and of the volume, the callbacks of
// the memory manager.

#include "open_volume.h"

#include <cstring>

#include "support/file.h"
#include "support/handmade.h"

namespace opening {
namespace {

using support::Outcome;

class VolumeInfo : public VolumeTest {
protected:
    Outcome Ask(PFILE_OBJECT file, FS_INFORMATION_CLASS infoClass, void* buffer, ULONG length)
    {
        support::HandMade request(Device(), file, IRP_MJ_QUERY_VOLUME_INFORMATION);
        request.Irp()->AssociatedIrp.SystemBuffer = buffer;
        request.Stack()->Parameters.QueryVolume.Length = length;
        request.Stack()->Parameters.QueryVolume.FsInformationClass = infoClass;
        const NTSTATUS status = request.Send();
        return {status, request.Information()};
    }
    Outcome Label(PFILE_OBJECT file, FS_INFORMATION_CLASS infoClass, void* buffer, ULONG length)
    {
        support::HandMade request(Device(), file, IRP_MJ_SET_VOLUME_INFORMATION);
        request.Irp()->AssociatedIrp.SystemBuffer = buffer;
        request.Stack()->Parameters.SetVolume.Length = length;
        request.Stack()->Parameters.SetVolume.FsInformationClass = infoClass;
        const NTSTATUS status = request.Send();
        return {status, request.Information()};
    }
    struct LabelBuffer {
        ULONG Length;
        WCHAR Text[40];
    };
    static LabelBuffer LabelOf(const std::string& label)
    {
        LabelBuffer buffer = {static_cast<ULONG>(label.size() * sizeof(WCHAR)), {}};
        for (size_t i = 0; i < label.size(); ++i) buffer.Text[i] = static_cast<WCHAR>(label[i]);
        return buffer;
    }
};

TEST_F(VolumeInfo, CountsTheFixedPartsWithTheirAlignment)
{
    Handle handle = OpenOrFail("", {.Access = FILE_GENERIC_READ | FILE_GENERIC_WRITE});
    FileReference volume(handle.Get());
    LabelBuffer label = LabelOf("LABEL");
    EXPECT_STATUS(STATUS_SUCCESS, Label(volume.Get(), FileFsLabelInformation, &label, sizeof label).Status);
    struct Row {
        FS_INFORMATION_CLASS Class;
        ULONG Length;
        NTSTATUS Expected;
        ULONG_PTR Information;
    };
    const Row rows[] = {
        {FileFsVolumeInformation, 23, STATUS_BUFFER_TOO_SMALL, 0},
        {FileFsVolumeInformation, 24, STATUS_BUFFER_OVERFLOW, 24},
        {FileFsVolumeInformation, 33, STATUS_BUFFER_OVERFLOW, 24},
        {FileFsVolumeInformation, 34, STATUS_SUCCESS, 34},
        {FileFsSizeInformation, 23, STATUS_BUFFER_TOO_SMALL, 0},
        {FileFsSizeInformation, 24, STATUS_SUCCESS, 24},
        {FileFsDeviceInformation, 7, STATUS_BUFFER_TOO_SMALL, 0},
        {FileFsDeviceInformation, 8, STATUS_SUCCESS, 8},
        {FileFsAttributeInformation, 15, STATUS_BUFFER_TOO_SMALL, 0},
        {FileFsAttributeInformation, 23, STATUS_BUFFER_OVERFLOW, 16},
        {FileFsAttributeInformation, 24, STATUS_SUCCESS, 24},
        {FileFsFullSizeInformation, 31, STATUS_BUFFER_TOO_SMALL, 0},
        {FileFsFullSizeInformation, 32, STATUS_SUCCESS, 32},
        {FileFsControlInformation, 64, STATUS_NOT_SUPPORTED, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::to_string(row.Class) + " in " + std::to_string(row.Length));
        uint64_t buffer[8] = {};
        TakeCalls();
        const Outcome outcome = Ask(volume.Get(), row.Class, buffer, row.Length);
        EXPECT_STATUS(row.Expected, outcome.Status);
        EXPECT_EQ(outcome.Information, row.Information);
        EXPECT_EQ(TakeCalls(), Lines{"GetVolInfo"}); // for each class, also one that is refused
    }
    uint64_t buffer[8] = {};
    EXPECT_STATUS(STATUS_BUFFER_OVERFLOW, Ask(volume.Get(), FileFsVolumeInformation, buffer, 24).Status);
    EXPECT_EQ(reinterpret_cast<PFILE_FS_VOLUME_INFORMATION>(buffer)->VolumeLabelLength, 10u); // all the same
    Ask(volume.Get(), FileFsAttributeInformation, buffer, 24);
    const auto* const attributes = reinterpret_cast<PFILE_FS_ATTRIBUTE_INFORMATION>(buffer);
    EXPECT_EQ(attributes->FileSystemAttributes, 0x86u);
    EXPECT_EQ(attributes->MaximumComponentNameLength, 255);
    EXPECT_EQ(std::memcmp(attributes->FileSystemName, L"KIRN", 8), 0);
    Ask(volume.Get(), FileFsDeviceInformation, buffer, 8);
    EXPECT_EQ(reinterpret_cast<PFILE_FS_DEVICE_INFORMATION>(buffer)->Characteristics, Device()->Characteristics);
}

struct Sectors {
    static inline PluginGetVolInfoFn Inner;
    static inline void* InnerContext;
    static NTSTATUS NTAPI GetVolInfo(void*, PKEVENT cancel, PluginVolInfo** info)
    {
        const NTSTATUS status = Inner(InnerContext, cancel, info);
        if (NT_SUCCESS(status)) (*info)->BytesPerSector = 512;
        return status;
    }
};

TEST_F(VolumeInfo, NeedsAPluginThatCountsInBytes)
{
    Handle handle = OpenOrFail("\\file"); // any handle will do
    FileReference file(handle.Get());
    uint64_t buffer[8];
    EXPECT_STATUS(STATUS_SUCCESS, Ask(file.Get(), FileFsSizeInformation, buffer, 24).Status);
    {
        const support::InsideOtherWork nested;
        EXPECT_STATUS(STATUS_UNSUCCESSFUL, Ask(file.Get(), FileFsSizeInformation, buffer, 24).Status);
    }
    Plugin().Raise("GetVolInfo", STATUS_DATA_ERROR);
    EXPECT_STATUS(STATUS_ACCESS_VIOLATION, Ask(file.Get(), FileFsDeviceInformation, buffer, 8).Status);
    Sectors::Inner = std::exchange(Plugin().Table()->GetVolInfo, Sectors::GetVolInfo);
    Sectors::InnerContext = &Plugin();
    for (const FS_INFORMATION_CLASS infoClass : {FileFsDeviceInformation, FileFsAttributeInformation}) {
        EXPECT_STATUS(STATUS_INVALID_PARAMETER, Ask(file.Get(), infoClass, buffer, 64).Status);
    }
    Plugin().Table()->GetVolInfo = nullptr;
    EXPECT_STATUS(STATUS_NOT_SUPPORTED, Ask(file.Get(), FileFsDeviceInformation, buffer, 8).Status);
}

TEST_F(VolumeInfo, TakesALabelThroughTheVolumeOnly)
{
    Handle handle = OpenOrFail("", {.Access = FILE_GENERIC_READ | FILE_GENERIC_WRITE});
    Handle fileHandle = OpenOrFail("\\file");
    FileReference volume(handle.Get());
    FileReference file(fileHandle.Get());
    LabelBuffer label = LabelOf("NEW");
    EXPECT_STATUS(STATUS_ACCESS_DENIED, Label(file.Get(), FileFsLabelInformation, &label, sizeof label).Status);
    EXPECT_STATUS(STATUS_NOT_SUPPORTED, Label(volume.Get(), FileFsObjectIdInformation, &label, sizeof label).Status);
    LabelBuffer claims = {0x10000, {}};
    EXPECT_STATUS(STATUS_INVALID_VOLUME_LABEL,
                  Label(volume.Get(), FileFsLabelInformation, &claims, sizeof claims).Status);
    claims.Length = 0xffff; // allowed, but not there
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, Label(volume.Get(), FileFsLabelInformation, &claims, sizeof claims).Status);
    for (const char* text : {"NEW", ""}) {
        label = LabelOf(text);
        EXPECT_STATUS(STATUS_SUCCESS, Label(volume.Get(), FileFsLabelInformation, &label, sizeof label).Status);
        uint64_t buffer[8] = {};
        Ask(file.Get(), FileFsVolumeInformation, buffer, 64);
        EXPECT_EQ(reinterpret_cast<PFILE_FS_VOLUME_INFORMATION>(buffer)->VolumeLabelLength, label.Length);
    }
}

class Flushes : public VolumeTest {
protected:
    NTSTATUS Send(HANDLE handle)
    {
        FileReference file(handle);
        support::HandMade request(Device(), file.Get(), IRP_MJ_FLUSH_BUFFERS);
        return request.Send();
    }
};

TEST_F(Flushes, CallThePluginOnceForWhatIsAsked)
{
    Handle file = OpenOrFail("\\file", {.Access = FILE_GENERIC_READ | FILE_GENERIC_WRITE});
    Handle other = OpenOrFail("\\dir\\file");
    struct Row {
        const char* Path;
        NTSTATUS Nested;
        Lines Calls;
    };
    const Row rows[] = {
        {"\\file", STATUS_INVALID_PARAMETER, {"FlushFile"}},
        {"", STATUS_INVALID_PARAMETER, {"FlushVol"}},
        {"\\", STATUS_INVALID_PARAMETER, {"FlushVol"}},
        {"\\dir", STATUS_INVALID_PARAMETER, {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.Path);
        Handle handle = OpenOrFail(row.Path);
        TakeCalls();
        EXPECT_STATUS(STATUS_SUCCESS, Send(handle.Get()));
        EXPECT_EQ(TakeCalls(), row.Calls);
        const support::InsideOtherWork nested;
        EXPECT_STATUS(row.Nested, Send(handle.Get()));
    }
    Plugin().Fail("FlushFile", STATUS_DISK_FULL);
    EXPECT_STATUS(STATUS_DISK_FULL, Send(file.Get()));
    Plugin().Table()->FlushFile = nullptr;
    EXPECT_STATUS(STATUS_NOT_SUPPORTED, Send(file.Get()));
    Plugin().Table()->FlushVol = nullptr;
    Handle volume = OpenOrFail("");
    EXPECT_STATUS(STATUS_NOT_SUPPORTED, Send(volume.Get()));
}

// What the memory manager calls, on files as they come to be.
class Callbacks : public VolumeTest {
protected:
    const FAST_IO_DISPATCH& Table() const { return *Driver()->FastIoDispatch; }
    static bool IsHeld(PFILE_OBJECT file) { return ExIsResourceAcquiredExclusiveLite(GvFcbOf(file)->Header.Resource); }
};

TEST_F(Callbacks, TakeTheFilesLockAndNothingElse)
{
    Handle handle = OpenOrFail("\\file");
    Handle null = support::Open("\\Device\\Null").File;
    FileReference file(handle.Get());
    FileReference foreign(null.Get());
    TakeCalls();
    KeEnterCriticalRegion();
    Table().AcquireFileForNtCreateSection(file.Get());
    EXPECT_TRUE(IsHeld(file.Get()));
    Table().ReleaseFileForNtCreateSection(file.Get());

    LARGE_INTEGER end = {};
    PERESOURCE held = nullptr;
    EXPECT_STATUS(STATUS_SUCCESS, Table().AcquireForModWrite(file.Get(), &end, &held, Device()));
    EXPECT_EQ(held, GvFcbOf(file.Get())->Header.Resource);
    EXPECT_STATUS(STATUS_SUCCESS, Table().ReleaseForModWrite(file.Get(), held, Device()));

    EXPECT_STATUS(STATUS_SUCCESS, Table().AcquireForCcFlush(file.Get(), Device()));
    EXPECT_EQ(IoGetTopLevelIrp(), reinterpret_cast<PIRP>(FSRTL_CACHE_TOP_LEVEL_IRP));
    EXPECT_TRUE(IsHeld(file.Get()));
    EXPECT_STATUS(STATUS_SUCCESS, Table().ReleaseForCcFlush(file.Get(), Device()));
    EXPECT_EQ(IoGetTopLevelIrp(), nullptr);
    EXPECT_FALSE(IsHeld(file.Get()));
    {
        const support::InsideOtherWork nested; // which holds what it needs
        EXPECT_STATUS(STATUS_SUCCESS, Table().AcquireForCcFlush(file.Get(), Device()));
        EXPECT_FALSE(IsHeld(file.Get()));
        EXPECT_STATUS(STATUS_SUCCESS, Table().ReleaseForCcFlush(file.Get(), Device()));
        EXPECT_EQ(IoGetTopLevelIrp(), support::InsideOtherWork::Mark());
    }
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, Table().AcquireForCcFlush(foreign.Get(), Device()));
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, Table().AcquireForModWrite(foreign.Get(), &end, &held, Device()));
    EXPECT_EQ(IoGetTopLevelIrp(), nullptr);
    IO_STATUS_BLOCK block;
    EXPECT_FALSE(Table().FastIoCheckIfPossible(file.Get(), &end, 1, TRUE, 0, TRUE, &block, Device()));
    KeLeaveCriticalRegion();
    EXPECT_TRUE(TakeCalls().empty());
}

TEST_F(Callbacks, DoNotLetThePageWriterWait)
{
    Handle handle = OpenOrFail("\\file");
    FileReference file(handle.Get());
    const auto gate = Plugin().CloseGate("Read");
    support::Request read;
    Handle reader = OpenOrFail("\\file", {.Options = 0});
    char byte;
    EXPECT_STATUS(STATUS_PENDING, read.StartRead(reader.Get(), &byte, 1, 0));
    gate->WaitForArrivals(1); // a worker holds the lock
    LARGE_INTEGER end = {};
    PERESOURCE held = nullptr;
    KeEnterCriticalRegion();
    EXPECT_STATUS(STATUS_CANT_WAIT, Table().AcquireForModWrite(file.Get(), &end, &held, Device()));
    KeLeaveCriticalRegion();
    gate->Open();
    EXPECT_STATUS(STATUS_SUCCESS, read.Wait());
    Plugin().RemoveGate("Read");
}

} // namespace
} // namespace opening
