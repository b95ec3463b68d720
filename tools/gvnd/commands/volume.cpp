// The volume as a whole, and who may use it.
#include <fmt/format.h>

#include <workbench/user.h>

#include "gvnd/commands/commands.h"
#include "gvnd/status.h"
#include "gvnd/text.h"

namespace tool {

namespace {

#ifndef FSCTL_IS_VOLUME_MOUNTED
#define FSCTL_IS_VOLUME_MOUNTED CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 10, METHOD_BUFFERED, FILE_ANY_ACCESS)
#endif

File OpenVolume(Shell& shell, ACCESS_MASK access)
{
    return OpenFile(shell.Volume().VolumeName(), {.Access = access | SYNCHRONIZE});
}

// Records with a text at their end.
constexpr size_t kRecordWords = 1024;

void PrintVolume(const File& volume)
{
    std::vector<uint64_t> buffer(kRecordWords);
    volume.QueryVolume(FileFsVolumeInformation, buffer.data(), buffer.size() * 8, "the volume");
    const auto& info = *reinterpret_cast<FILE_FS_VOLUME_INFORMATION*>(buffer.data());
    fmt::print("label       {}\nserial      {:04X}-{:04X}\ncreated     {}\n",
               workbench::Utf8(info.VolumeLabel, info.VolumeLabelLength), info.VolumeSerialNumber >> 16,
               info.VolumeSerialNumber & 0xffff, TimeText(info.VolumeCreationTime.QuadPart));
}

void PrintSize(const File& volume)
{
    FILE_FS_FULL_SIZE_INFORMATION info{};
    volume.QueryVolume(FileFsFullSizeInformation, &info, sizeof info, "the volume's size");
    const uint64_t unit = uint64_t{info.SectorsPerAllocationUnit} * info.BytesPerSector;
    const uint64_t total = static_cast<uint64_t>(info.TotalAllocationUnits.QuadPart) * unit;
    const uint64_t free = static_cast<uint64_t>(info.CallerAvailableAllocationUnits.QuadPart) * unit;
    fmt::print("size        {} ({})\nfree        {} ({})\nunit        {}\n", total, SizeText(total), free,
               SizeText(free), unit);
}

void PrintFileSystem(const File& volume)
{
    std::vector<uint64_t> buffer(kRecordWords);
    volume.QueryVolume(FileFsAttributeInformation, buffer.data(), buffer.size() * 8, "the file system");
    const auto& info = *reinterpret_cast<FILE_FS_ATTRIBUTE_INFORMATION*>(buffer.data());
    fmt::print("file system {}, names up to {} characters, flags 0x{:x}\n",
               workbench::Utf8(info.FileSystemName, info.FileSystemNameLength), info.MaximumComponentNameLength,
               info.FileSystemAttributes);
}

} // namespace

namespace commands {

void Df(Shell& shell, const Words&)
{
    const File volume = OpenVolume(shell, FILE_READ_ATTRIBUTES);
    PrintVolume(volume);
    PrintSize(volume);
    PrintFileSystem(volume);
}

void Label(Shell& shell, const Words& words)
{
    if (words.size() == 1) return PrintVolume(OpenVolume(shell, FILE_READ_ATTRIBUTES));
    const Text label(words[1]);
    std::vector<uint64_t> record =
        RecordWithText(sizeof(FILE_FS_LABEL_INFORMATION), FIELD_OFFSET(FILE_FS_LABEL_INFORMATION, VolumeLabelLength),
                       FIELD_OFFSET(FILE_FS_LABEL_INFORMATION, VolumeLabel), label.Bytes());
    OpenVolume(shell, FILE_WRITE_DATA)
        .SetVolume(FileFsLabelInformation, record.data(), record.size() * 8, "set the label");
}

void Flush(Shell& shell, const Words& words)
{
    if (words.size() == 1) return OpenVolume(shell, FILE_WRITE_DATA).Flush();
    shell.Open(words[1], {.Access = FILE_WRITE_DATA | SYNCHRONIZE}).Flush();
}

void Mounted(Shell& shell, const Words&)
{
    OpenVolume(shell, FILE_READ_ATTRIBUTES).FsControl(FSCTL_IS_VOLUME_MOUNTED, "ask whether it is mounted");
    fmt::print("mounted\n");
}

void Unmount(Shell& shell, const Words&)
{
    if (!shell.Handles().empty()) {
        throw Usage(fmt::format("{} handles are open; close them first", shell.Handles().size()));
    }
    shell.Volume().Unmount();
    fmt::print("unmounted\n");
}

void As(Shell& shell, const Words& words)
{
    const nthost::User user = [&] {
        try {
            return workbench::UserOf(words[1]);
        } catch (const std::invalid_argument& error) {
            throw Usage(error.what());
        }
    }();
    for (const Command& command : Commands()) {
        if (words[2] == command.Name && command.Needs == Needs::Handles) {
            throw Usage(fmt::format("{} cannot be run as another user: handles end with the user's process", words[2]));
        }
    }
    const workbench::AsUser acting(user);
    shell.RunWords(Words(words.begin() + 2, words.end()));
}

} // namespace commands

} // namespace tool
