// Memory descriptor lists: allocation, locking, system addresses. An MDL belongs to whoever drives its request, so
// nothing here locks. Pages of a UserMemory arena or of a section are pinned and get a second address; all other memory
// of this Linux process (stacks, heap, pool) cannot go away under a request and keeps the address it has. The record is
// followed by what nthost has pinned, not by page numbers.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "check/fatal.h"
#include "mm/arena.h"
#include "mm/pinned.h"
#include "ke/guarded.h"
#include "mm/touch.h"
#include <nthost/check.h>
#include <nthost/faults.h>

using namespace nthost::mm;
using nthost::FaultInjected;
using nthost::ReportFinding;

namespace {

struct HostMdl {
    MDL Public;
    Arena* Pinned;       // while locked, if the pages are an arena's
    PinnedRange Section; // or a section's
};

HostMdl* HostOf(PMDL mdl) { return reinterpret_cast<HostMdl*>(mdl); }

void ReportMdl(const char* rule, PMDL mdl, const char* what)
{
    char where[64];
    snprintf(where, sizeof where, " (mdl %p, %u bytes)", static_cast<void*>(mdl), mdl->ByteCount);
    ReportFinding(rule, std::string(what) + where);
}

void AttachToIrp(PIRP irp, PMDL mdl, BOOLEAN secondary)
{
    PMDL* link = &irp->MdlAddress;
    while (secondary && *link) link = &(*link)->Next;
    *link = mdl;
}

// The range lies in user space and every page allows the access. The MDL is not touched.
NTSTATUS TouchRange(char* start, size_t length, KPROCESSOR_MODE mode, LOCK_OPERATION operation)
{
    return nthost::ke::Guarded([&] {
        if (mode != KernelMode) ProbeForRead(start, length, 1);
        if (operation == IoReadAccess)
            TouchPages(start, length, TouchForRead);
        else
            TouchPages(start, length, TouchForWrite);
    });
}

// Touches the range and pins it if it is a view's. A page that a purge takes in between is touched again.
NTSTATUS TouchAndPin(PMDL mdl, KPROCESSOR_MODE mode, LOCK_OPERATION operation)
{
    char* const start = static_cast<char*>(MmGetMdlVirtualAddress(mdl));
    for (;;) {
        const NTSTATUS status = TouchRange(start, mdl->ByteCount, mode, operation);
        if (!NT_SUCCESS(status)) return status;
        if (PinView(start, mdl->ByteCount, operation != IoReadAccess, &HostOf(mdl)->Section)) return status;
    }
}

// Null if there is no room.
PVOID MapPages(PMDL mdl)
{
    const HostMdl* const host = HostOf(mdl);
    if (host->Section.Area) {
        void* const pages = MapPinned(host->Section);
        return pages ? static_cast<char*>(pages) + mdl->ByteOffset : nullptr;
    }
    void* const user = MmGetMdlVirtualAddress(mdl);
    return host->Pinned ? MapSystemAddress(host->Pinned, user, mdl->ByteCount) : user;
}

bool HasSystemAddress(PMDL mdl) { return HostOf(mdl)->Pinned || HostOf(mdl)->Section.Area; }

} // namespace

// The pages are nobody's address, so there is none to give: a driver that wants one maps them.
PMDL nthost::mm::NewPagingMdl(ControlArea* area, size_t firstPage, ULONG length, bool forRead)
{
    auto* const host = static_cast<HostMdl*>(calloc(1, sizeof(HostMdl)));
    if (!host) return nullptr;
    host->Public.Size = sizeof(HostMdl);
    host->Public.ByteCount = length;
    host->Public.MdlFlags = MDL_PAGES_LOCKED | (forRead ? MDL_IO_PAGE_READ : 0);
    host->Section = {area, firstPage, PagesFor(length)};
    const SectionGuard hold(sectionLock);
    ++area->Holds;
    for (size_t index = firstPage; index < firstPage + host->Section.Count; ++index) ++area->Pages[index].Pins;
    return &host->Public;
}

PMDL NTAPI IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN, PIRP Irp)
{
    if (FaultInjected("IoAllocateMdl")) return nullptr;
    auto* const host = static_cast<HostMdl*>(calloc(1, sizeof(HostMdl)));
    if (!host) return nullptr;
    MDL& mdl = host->Public;
    mdl.Size = sizeof(HostMdl);
    mdl.StartVa = PAGE_ALIGN(VirtualAddress);
    mdl.ByteOffset = BYTE_OFFSET(VirtualAddress);
    mdl.ByteCount = Length;
    if (Irp) AttachToIrp(Irp, &mdl, SecondaryBuffer);
    return &mdl;
}

VOID NTAPI IoFreeMdl(PMDL Mdl)
{
    if (Mdl->MdlFlags & MDL_PAGES_LOCKED) {
        ReportMdl("mdl-freed-locked", Mdl, "an MDL was freed with its pages locked");
        MmUnlockPages(Mdl);
    }
    free(Mdl);
}

VOID NTAPI MmProbeAndLockPages(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode, LOCK_OPERATION Operation)
{
    PMDL const mdl = MemoryDescriptorList;
    if (mdl->MdlFlags & (MDL_PAGES_LOCKED | MDL_SOURCE_IS_NONPAGED_POOL))
        return ReportMdl("mdl-already-locked", mdl, "an MDL was locked that is locked or describes pool");

    if (mdl->ByteCount == 0) {
        ReportMdl("mdl-empty", mdl, "an MDL of no bytes was locked: it describes no page, and mapping it fails");
        ExRaiseStatus(STATUS_INVALID_PARAMETER);
    }
    if (FaultInjected("MmProbeAndLockPages")) ExRaiseStatus(STATUS_INSUFFICIENT_RESOURCES);
    // Pinned before it is touched: what was seen to be there is then what gets locked.
    char* const start = static_cast<char*>(MmGetMdlVirtualAddress(mdl));
    Arena* const pinned = PinArenaOf(start, mdl->ByteCount);
    const NTSTATUS status = TouchAndPin(mdl, AccessMode, Operation);
    if (!NT_SUCCESS(status)) {
        if (pinned) Unpin(pinned);
        ExRaiseStatus(status);
    }
    HostOf(mdl)->Pinned = pinned;
    mdl->MdlFlags |= MDL_PAGES_LOCKED | (Operation == IoReadAccess ? 0 : MDL_WRITE_OPERATION);
    mdl->Process = PsGetCurrentProcess();
}

VOID NTAPI MmUnlockPages(PMDL MemoryDescriptorList)
{
    PMDL const mdl = MemoryDescriptorList;
    if (!(mdl->MdlFlags & MDL_PAGES_LOCKED))
        return ReportMdl("mdl-not-locked", mdl, "an MDL was unlocked that is not locked");
    if (mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA) MmUnmapLockedPages(mdl->MappedSystemVa, mdl);
    HostMdl* const host = HostOf(mdl);
    if (host->Pinned) Unpin(host->Pinned);
    if (host->Section.Area) UnpinRange(host->Section, mdl->MdlFlags & MDL_WRITE_OPERATION);
    host->Pinned = nullptr;
    host->Section = {};
    mdl->MdlFlags &= ~(MDL_PAGES_LOCKED | MDL_WRITE_OPERATION | MDL_IO_PAGE_READ);
    mdl->Process = nullptr;
}

VOID NTAPI MmBuildMdlForNonPagedPool(PMDL MemoryDescriptorList)
{
    MemoryDescriptorList->MappedSystemVa = MmGetMdlVirtualAddress(MemoryDescriptorList);
    MemoryDescriptorList->MdlFlags |= MDL_SOURCE_IS_NONPAGED_POOL;
    MemoryDescriptorList->Process = nullptr;
}

PVOID NTAPI MmMapLockedPagesSpecifyCache(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode, MEMORY_CACHING_TYPE,
                                         PVOID, ULONG BugCheckOnFailure, ULONG)
{
    PMDL const mdl = MemoryDescriptorList;
    if (mdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL)) return mdl->MappedSystemVa;
    if (!(mdl->MdlFlags & MDL_PAGES_LOCKED)) {
        ReportMdl("mdl-not-locked", mdl, "an MDL was mapped that is not locked");
        return nullptr;
    }
    PVOID const mapped = FaultInjected("MmMapLockedPagesSpecifyCache") ? nullptr : MapPages(mdl);
    if (!mapped) {
        if (AccessMode != KernelMode) ExRaiseStatus(STATUS_INSUFFICIENT_RESOURCES);
        if (BugCheckOnFailure) nthost::Fatal("no room for a system address of mdl %p", static_cast<void*>(mdl));
        return nullptr;
    }
    mdl->MappedSystemVa = mapped;
    mdl->MdlFlags |= MDL_MAPPED_TO_SYSTEM_VA;
    return mapped;
}

VOID NTAPI MmUnmapLockedPages(PVOID BaseAddress, PMDL MemoryDescriptorList)
{
    PMDL const mdl = MemoryDescriptorList;
    if (!(mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA) || BaseAddress != mdl->MappedSystemVa)
        return ReportMdl("mdl-not-mapped", mdl, "an address was unmapped that is not the MDL's system address");
    if (HasSystemAddress(mdl)) UnmapSystemAddress(BaseAddress, mdl->ByteCount);
    mdl->MdlFlags &= ~MDL_MAPPED_TO_SYSTEM_VA;
    mdl->MappedSystemVa = nullptr;
}
