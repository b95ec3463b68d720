// GetVolInfo, SetVolLabel, FlushVol. The label lives in an extended attribute of the root; sizes are those of the file
// system that the root is on, also where others are mounted beneath it. Relies on no lock.
#include "operations.h"

#include "errors.h"
#include "records.h"
#include "volume.h"

#include <cstddef>
#include <cstring>

#include <sys/statvfs.h>

namespace posixfs {
namespace {

constexpr size_t kMaxLabel = 32; // characters
const std::string kLabelName = std::string(kOwnPrefix) + "label";

NtText LabelOf(const Volume& volume)
{
    std::string stored;
    const bool isSet = ReadXattr(volume.Files().Root(), kLabelName, &stored) == 0;
    return ToNtName(isSet ? stored : volume.DefaultLabel()).substr(0, kMaxLabel);
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
    if (const int error = volume.Files().StatFileSystem(&info); error != 0) return StatusOf(error);
    Facts root;
    if (const NTSTATUS status = Describe(volume.Files().Root(), &root); !NT_SUCCESS(status)) return status;

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
    const int error = volume.Files().Root().SetXattr(kLabelName.c_str(), *bytes);
    return error == 0 ? STATUS_SUCCESS : StatusOf(error);
}

NTSTATUS FlushFileSystem(const Volume& volume)
{
    const int error = volume.Files().Flush();
    return error == 0 ? STATUS_SUCCESS : StatusOf(error);
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

} // namespace posixfs
