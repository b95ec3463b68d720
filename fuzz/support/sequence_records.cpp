// Information records of all classes, listings, extended attributes, and controls.
#include <workbench/ea.h>
#include <workbench/requests.h>
#include <gvnd/plugin.h>

#include "support/sequence.h"

namespace fuzz {

void Sequence::Query()
{
    IO_STATUS_BLOCK block = {};
    Buffer buffer(input_, input_.Below(input_.Sometimes(32) ? 0x4000 : 160));
    (void)NtQueryInformationFile(Any(), &block, buffer.Address(), buffer.Length(),
                                 static_cast<FILE_INFORMATION_CLASS>(input_.Byte() % 80));
}

void Sequence::Set()
{
    IO_STATUS_BLOCK block = {};
    const std::string record = input_.Bytes(128);
    Buffer buffer(input_, record.size(), record.data());
    (void)NtSetInformationFile(Any(), &block, buffer.Address(), buffer.Length(),
                               static_cast<FILE_INFORMATION_CLASS>(input_.Byte() % 80));
}

// Renames, links, short names: a record with a counted text at its end.
void Sequence::SetText()
{
    static constexpr FILE_INFORMATION_CLASS kClasses[] = {FileRenameInformation, FileRenameInformation,
                                                          FileLinkInformation, FileShortNameInformation};
    const FILE_INFORMATION_CLASS infoClass = input_.Pick(kClasses);
    const uint8_t how = input_.Byte();
    const std::u16string text = how & 1 ? AnyPath() : how & 2 ? Path(input_) : Component(input_);
    const std::string_view bytes(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(char16_t));
    const bool isShort = infoClass == FileShortNameInformation;
    const size_t textAt =
        isShort ? FIELD_OFFSET(FILE_NAME_INFORMATION, FileName) : FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName);
    std::vector<uint64_t> record = workbench::RecordWithText(
        textAt, isShort ? 0 : FIELD_OFFSET(FILE_RENAME_INFORMATION, FileNameLength), textAt, bytes);
    const size_t size = textAt + bytes.size();
    if (!isShort) {
        auto* const info = reinterpret_cast<PFILE_RENAME_INFORMATION>(record.data());
        info->ReplaceIfExists = how & 4 ? TRUE : FALSE;
        info->RootDirectory = how & 8 ? Any() : nullptr;
    }
    Spoil(input_, record.data(), size);
    IO_STATUS_BLOCK block = {};
    Buffer buffer(input_, size, record.data());
    (void)NtSetInformationFile(Any(), &block, buffer.Address(), buffer.Length(), infoClass);
}

void Sequence::SetNumber()
{
    static constexpr FILE_INFORMATION_CLASS kClasses[] = {
        FileEndOfFileInformation, FileAllocationInformation, FilePositionInformation,       FileDispositionInformation,
        FileModeInformation,      FileBasicInformation,      FileValidDataLengthInformation};
    int64_t record[5] = {};
    const FILE_INFORMATION_CLASS infoClass = input_.Pick(kClasses);
    const size_t count = infoClass == FileBasicInformation ? std::size(record) : 1;
    for (size_t i = 0; i < count; ++i) record[i] = input_.Number();
    IO_STATUS_BLOCK block = {};
    Buffer buffer(input_, count * sizeof *record, record);
    (void)NtSetInformationFile(Any(), &block, buffer.Address(), buffer.Length(), infoClass);
}

void Sequence::List()
{
    static constexpr ULONG kClasses[] = {FileDirectoryInformation,       FileFullDirectoryInformation,
                                         FileBothDirectoryInformation,   FileNamesInformation,
                                         FileIdBothDirectoryInformation, FileIdFullDirectoryInformation};
    const HANDLE directory = Any();
    const uint8_t how = input_.Byte();
    const std::u16string text = how & 1 ? Component(input_) : std::u16string();
    HostileString pattern(input_, text);
    Begin([&](Out& out) {
        void* const buffer = out.Give(input_, input_.Below(how & 8 ? 0x2000 : 200));
        const ULONG infoClass = how & 16 ? input_.Byte() % 80 : input_.Pick(kClasses);
        return NtQueryDirectoryFile(directory, out.Done.Get(), nullptr, nullptr, &out.Block, buffer, out.LengthOf(0),
                                    static_cast<FILE_INFORMATION_CLASS>(infoClass), how & 2 ? TRUE : FALSE,
                                    how & 1 ? pattern.Get() : nullptr, how & 4 ? TRUE : FALSE);
    });
}

void Sequence::Notify()
{
    Slot& slot = AnySlot();
    if (slot.Synchronous) return; // would wait for what this thread will not do
    Begin([&](Out& out) {
        void* const buffer = out.Give(input_, input_.Below(200));
        return NtNotifyChangeDirectoryFile(slot.File.Get(), out.Done.Get(), nullptr, nullptr, &out.Block, buffer,
                                           out.LengthOf(0), input_.Raw<uint32_t>(), input_.Byte() & 1);
    });
}

void Sequence::QueryEa()
{
    const uint8_t how = input_.Byte();
    std::vector<std::string> wanted;
    for (unsigned count = how % 4; count; --count) wanted.push_back(input_.Bytes(8));
    std::string names = how & 4 ? workbench::EaNameList(wanted) : std::string();
    Spoil(input_, names.data(), names.size());
    Buffer list(input_, names.size(), names.data());
    Buffer buffer(input_, input_.Below(how & 8 ? 0x2000 : 100));
    ULONG index = how & 16 ? static_cast<ULONG>(input_.Number()) : 0;
    IO_STATUS_BLOCK block = {};
    (void)NtQueryEaFile(Any(), &block, buffer.Address(), buffer.Length(), how & 32 ? TRUE : FALSE,
                        how & 4 ? list.Address() : nullptr, how & 4 ? list.Length() : 0, how & 16 ? &index : nullptr,
                        how & 64 ? TRUE : FALSE);
}

void Sequence::SetEa()
{
    const std::string list = EaList();
    Buffer buffer(input_, list.size(), list.data());
    IO_STATUS_BLOCK block = {};
    (void)NtSetEaFile(Any(), &block, buffer.Address(), buffer.Length());
}

void Sequence::QueryVolume()
{
    IO_STATUS_BLOCK block = {};
    Buffer buffer(input_, input_.Below(100));
    (void)NtQueryVolumeInformationFile(Any(), &block, buffer.Address(), buffer.Length(),
                                       static_cast<FS_INFORMATION_CLASS>(input_.Byte() % 16));
}

void Sequence::SetVolume()
{
    IO_STATUS_BLOCK block = {};
    std::string record = input_.Bytes(80);
    if (record.size() >= 4 && input_.Sometimes(128)) {
        const auto length = static_cast<ULONG>(record.size() - 4);
        std::memcpy(record.data(), &length, sizeof length); // a label
    }
    Buffer buffer(input_, record.size(), record.data());
    (void)NtSetVolumeInformationFile(
        Any(), &block, buffer.Address(), buffer.Length(),
        static_cast<FS_INFORMATION_CLASS>(input_.Sometimes(128) ? FileFsLabelInformation : input_.Byte() % 16));
}

void Sequence::Control()
{
    static constexpr ULONG kCodes[] = {
        0x90018, 0x9001c, 0x90020, 0x90028, 0x90083, 0x900a8, 0x900a4, 0x90064, IOCTL_GVND_GET_SERVICE_TABLE};
    Slot& slot = AnySlot();
    const uint8_t how = input_.Byte();
    const std::string in = input_.Bytes(64);
    const ULONG code = how & 1 ? input_.Raw<ULONG>() : input_.Pick(kCodes);
    Begin([&](Out& out) {
        void* const input = out.Give(input_, in.size(), in.data());
        void* const output = out.Give(input_, input_.Below(64));
        return (how & 2 ? NtDeviceIoControlFile : NtFsControlFile)(slot.File.Get(), out.Done.Get(), nullptr, nullptr,
                                                                   &out.Block, code, input, out.LengthOf(0), output,
                                                                   out.LengthOf(1));
    });
}

} // namespace fuzz
