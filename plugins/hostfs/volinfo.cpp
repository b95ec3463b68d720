// GetVolInfo, SetVolLabel, FlushVol. The label lives in an extended attribute of the root; sizes are those of the file
// system that the root is on, also where others are mounted beneath it. Relies on no lock.
#include "operations.h"

#include "errors.h"
#include "records.h"
#include "volume.h"

#include <cstddef>
#include <cstring>

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace hostfs {
namespace {

constexpr size_t kMaxLabel = 32; // characters
const std::string kLabelName = std::string(kOwnPrefix) + "label";

NtText LabelOf(const Volume& volume)
{
    const std::optional<std::string> stored = ReadXattr(volume.Root().RootFd(), kLabelName);
    return ToNtName(stored ? *stored : volume.DefaultLabel()).substr(0, kMaxLabel);
}

// The same for the same directory each time, and different for two directories of one file system.
ULONG SerialNumber(const struct statvfs& info, ino_t root)
{
    const ULONGLONG mixed = (ULONGLONG{info.f_fsid} ^ (ULONGLONG{root} * 0x9e3779b97f4a7c15)) * 0xff51afd7ed558ccd;
    return static_cast<ULONG>(mixed >> 32);
}

NTSTATUS MakeVolInfo(const Volume& volume, PluginVolInfo** record)
{
    struct statvfs info = {};
    if (fstatvfs(volume.Root().RootFd(), &info) != 0) return LastError();
    Facts root;
    if (const NTSTATUS status = Describe(volume.Root().RootFd(), &root); !NT_SUCCESS(status)) return status;

    const NtText label = LabelOf(volume);
    const size_t labelBytes = label.size() * sizeof(WCHAR);
    auto* const made = AllocateRecord<PluginVolInfo>(sizeof(PluginVolInfo) + labelBytes);
    if (!made) return STATUS_INSUFFICIENT_RESOURCES;
    *made = {};
    made->VolumeCreationTime = root.Info.CreationTime;
    made->VolumeSerialNumber = SerialNumber(info, root.Inode);
    made->TotalAllocationUnits = info.f_blocks;
    made->AvailableAllocationUnits = info.f_bavail;
    made->SectorsPerAllocationUnit = static_cast<ULONG>(info.f_frsize ? info.f_frsize : info.f_bsize);
    made->BytesPerSector = 1;
    made->VolumeLabelLength = static_cast<ULONG>(labelBytes);
    std::memcpy(reinterpret_cast<char*>(made) + offsetof(PluginVolInfo, VolumeLabel), label.data(), labelBytes);
    *record = made;
    return STATUS_SUCCESS;
}

NTSTATUS StoreLabel(const Volume& volume, PCUNICODE_STRING label)
{
    if (const NTSTATUS status = volume.CheckWritable(); !NT_SUCCESS(status)) return status;
    const NtText text = TextOf(label);
    const std::optional<std::string> bytes = ToLinuxName(text);
    if (!bytes || text.size() > kMaxLabel) return STATUS_INVALID_VOLUME_LABEL;
    const int error = WriteXattr(volume.Root().RootFd(), kLabelName, *bytes);
    return error == 0 ? STATUS_SUCCESS : StatusOf(error);
}

NTSTATUS FlushFileSystem(const Volume& volume)
{
    const UniqueFd root = Reopen(volume.Root().RootFd(), O_RDONLY | O_DIRECTORY);
    return root && syncfs(root.Get()) == 0 ? STATUS_SUCCESS : LastError();
}

} // namespace

NTSTATUS NTAPI GetVolInfo(void* context, PKEVENT, PluginVolInfo** info)
{
    return Contained([&] { return MakeVolInfo(Volume::From(context), info); });
}

NTSTATUS NTAPI SetVolLabel(void* context, PKEVENT, PCUNICODE_STRING label)
{
    return Contained([&] { return StoreLabel(Volume::From(context), label); });
}

NTSTATUS NTAPI FlushVol(void* context, PKEVENT)
{
    return Contained([&] { return FlushFileSystem(Volume::From(context)); });
}

} // namespace hostfs
