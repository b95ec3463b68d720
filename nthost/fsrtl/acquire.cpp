// Calls the acquire and release callbacks, or takes the resources in their place. Holds nothing of its own.
#include "fsrtl/acquire.h"

#include "ke/callout.h"
#include "io/fast_io.h"

namespace nthost::fsrtl {

namespace {

template <typename Slot>
Slot CallbackOf(PFILE_OBJECT file, Slot _FAST_IO_DISPATCH::*slot)
{
    return io::FastIoRoutine(IoGetRelatedDeviceObject(file), slot);
}

const FSRTL_COMMON_FCB_HEADER* HeaderOf(PFILE_OBJECT file)
{
    return static_cast<const FSRTL_COMMON_FCB_HEADER*>(file->FsContext);
}

struct DefaultLock {
    PERESOURCE Resource;
    bool Exclusive;
};

// A write behind the valid data moves it, and may not meet another that does. Otherwise the header's flags choose.
DefaultLock DefaultForModWrite(const FSRTL_COMMON_FCB_HEADER* header, LONGLONG endingOffset)
{
    if (!header || !header->Resource) return {};
    if (endingOffset > header->ValidDataLength.QuadPart || (header->Flags & FSRTL_FLAG_ACQUIRE_MAIN_RSRC_EX))
        return {header->Resource, true};
    if ((header->Flags & FSRTL_FLAG_ACQUIRE_MAIN_RSRC_SH) || !header->PagingIoResource)
        return {header->Resource, false};
    return {header->PagingIoResource, false};
}

} // namespace

SectionAcquisition::SectionAcquisition(PFILE_OBJECT file) : file_(file)
{
    KeEnterCriticalRegion();
    if (const auto acquire = CallbackOf(file, &_FAST_IO_DISPATCH::AcquireFileForNtCreateSection)) {
        CallDriver(MustRestore::Nothing, "AcquireFileForNtCreateSection", acquire, file);
        return;
    }
    const FSRTL_COMMON_FCB_HEADER* const header = HeaderOf(file);
    if (!header || !header->Resource) return;
    resource_ = header->Resource;
    ExAcquireResourceExclusiveLite(resource_, TRUE);
}

SectionAcquisition::~SectionAcquisition()
{
    if (resource_)
        ExReleaseResourceLite(resource_);
    else if (const auto release = CallbackOf(file_, &_FAST_IO_DISPATCH::ReleaseFileForNtCreateSection))
        CallDriver(MustRestore::Nothing, "ReleaseFileForNtCreateSection", release, file_);
    KeLeaveCriticalRegion();
}

FlushAcquisition::FlushAcquisition(PFILE_OBJECT file) : file_(file)
{
    KeEnterCriticalRegion();
    if (const auto acquire = CallbackOf(file, &_FAST_IO_DISPATCH::AcquireForCcFlush))
        status_ = CallDriver(MustRestore::Nothing, "AcquireForCcFlush", acquire, file, IoGetRelatedDeviceObject(file));
    else
        AcquireDefault();
}

void FlushAcquisition::AcquireDefault()
{
    const FSRTL_COMMON_FCB_HEADER* const header = HeaderOf(file_);
    if (!header) return;
    if ((main_ = header->Resource)) ExAcquireResourceSharedLite(main_, TRUE);
    if ((paging_ = header->PagingIoResource)) ExAcquireResourceSharedLite(paging_, TRUE);
}

FlushAcquisition::~FlushAcquisition()
{
    if (paging_) ExReleaseResourceLite(paging_);
    if (main_) ExReleaseResourceLite(main_);
    const auto release = CallbackOf(file_, &_FAST_IO_DISPATCH::ReleaseForCcFlush);
    if (release && NT_SUCCESS(status_) && !main_ && !paging_)
        (void)CallDriver(MustRestore::Nothing, "ReleaseForCcFlush", release, file_, IoGetRelatedDeviceObject(file_));
    KeLeaveCriticalRegion();
}

ModWriteAcquisition::ModWriteAcquisition(PFILE_OBJECT file, LONGLONG endingOffset) : file_(file)
{
    KeEnterCriticalRegion();
    if (const auto acquire = CallbackOf(file, &_FAST_IO_DISPATCH::AcquireForModWrite)) {
        byCallback_ = true;
        LARGE_INTEGER ending;
        ending.QuadPart = endingOffset;
        status_ = CallDriver(MustRestore::Nothing, "AcquireForModWrite", acquire, file, &ending, &resource_,
                             IoGetRelatedDeviceObject(file));
        return;
    }
    const DefaultLock lock = DefaultForModWrite(HeaderOf(file), endingOffset);
    if (!lock.Resource) return;
    const BOOLEAN taken = lock.Exclusive ? ExAcquireResourceExclusiveLite(lock.Resource, FALSE)
                                         : ExAcquireResourceSharedLite(lock.Resource, FALSE);
    if (taken)
        resource_ = lock.Resource;
    else
        status_ = STATUS_CANT_WAIT;
}

ModWriteAcquisition::~ModWriteAcquisition()
{
    const auto release = CallbackOf(file_, &_FAST_IO_DISPATCH::ReleaseForModWrite);
    if (NT_SUCCESS(status_)) {
        if (byCallback_ && release)
            (void)CallDriver(MustRestore::Nothing, "ReleaseForModWrite", release, file_, resource_,
                             IoGetRelatedDeviceObject(file_));
        else if (resource_)
            ExReleaseResourceLite(resource_);
    }
    KeLeaveCriticalRegion();
}

} // namespace nthost::fsrtl
