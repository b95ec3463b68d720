// Handles: values, references by value, opening and closing. A value is four times the index in the process's table;
// the two low bits are the application's and are ignored. Kernel handles stand in the system process's table and carry
// the high bits, so they never look like a user's.
#include "ob/handle.h"

#include <cstdio>

#include "check/fatal.h"
#include "ke/thread.h"
#include "ob/header.h"
#include <nthost/debug.h>
#include <nthost/faults.h>

namespace nthost::ob {

namespace {

constexpr ULONG_PTR KernelHandleBits = 0xffffffff80000000ull;

struct Slot {
    PEPROCESS Process; // null if the value cannot be a handle for the caller
    ULONG_PTR Index;
};

bool IsPseudoHandle(HANDLE handle) { return handle == NtCurrentProcess() || handle == NtCurrentThread(); }

Slot SlotOf(PEPROCESS process, HANDLE handle, KPROCESSOR_MODE mode)
{
    const auto value = reinterpret_cast<ULONG_PTR>(handle);
    if (IsPseudoHandle(handle)) return {};
    if ((value & KernelHandleBits) != KernelHandleBits) return {process, value >> 2};
    if (mode != KernelMode) return {};
    return {PsInitialSystemProcess, (value & ~KernelHandleBits) >> 2};
}

HANDLE ValueOf(ULONG index, bool kernelHandle)
{
    return reinterpret_cast<HANDLE>(ULONG_PTR{index} * 4 | (kernelHandle ? KernelHandleBits : 0));
}

void ReferencePseudoHandle(HANDLE handle, HandleEntry* entry)
{
    entry->Body = handle == NtCurrentProcess() ? static_cast<void*>(PsGetCurrentProcess()) : PsGetCurrentThread();
    entry->Granted = TypeOf(entry->Body)->ValidAccess;
    entry->Attributes = 0;
    ObReferenceObject(entry->Body);
}

NTSTATUS CloseSlot(const Slot& slot)
{
    HandleEntry entry;
    ULONG processRemaining, remaining;
    if (!slot.Process || !slot.Process->Handles->Remove(slot.Index, &entry, &processRemaining, &remaining))
        return STATUS_INVALID_HANDLE;
    const POBJECT_TYPE type = TypeOf(entry.Body);
    if (type->Close) type->Close(slot.Process, entry.Body, entry.Granted, processRemaining, remaining);
    ObDereferenceObject(entry.Body);
    ke::CurrentThread()->CleanupEnded = 0; // the close of a file that lives on is another matter
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS ReferenceHandle(PEPROCESS process, HANDLE handle, KPROCESSOR_MODE mode, HandleEntry* entry)
{
    if (IsPseudoHandle(handle)) {
        ReferencePseudoHandle(handle, entry);
        return STATUS_SUCCESS;
    }
    const Slot slot = SlotOf(process, handle, mode);
    return slot.Process && slot.Process->Handles->Reference(slot.Index, entry) ? STATUS_SUCCESS : STATUS_INVALID_HANDLE;
}

ACCESS_MASK MapAccess(ACCESS_MASK desired, POBJECT_TYPE type, ACCESS_MASK maximum)
{
    constexpr ACCESS_MASK generic = GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL | MAXIMUM_ALLOWED;
    ACCESS_MASK mapped = desired & ~generic;
    if (desired & GENERIC_READ) mapped |= type->Mapping.GenericRead;
    if (desired & GENERIC_WRITE) mapped |= type->Mapping.GenericWrite;
    if (desired & GENERIC_EXECUTE) mapped |= type->Mapping.GenericExecute;
    if (desired & GENERIC_ALL) mapped |= type->Mapping.GenericAll;
    if (desired & MAXIMUM_ALLOWED) mapped |= maximum;
    return mapped;
}

NTSTATUS InsertHandle(void* body, PEPROCESS process, ACCESS_MASK granted, ULONG attributes, HANDLE* handle)
{
    const bool kernelHandle = attributes & OBJ_KERNEL_HANDLE;
    if (kernelHandle) process = PsInitialSystemProcess;
    ULONG index;
    const NTSTATUS status = process->Handles->Insert(body, granted, attributes & OBJ_INHERIT, &index);
    if (!NT_SUCCESS(status)) return status;
    *handle = ValueOf(index, kernelHandle);
    return STATUS_SUCCESS;
}

NTSTATUS CloseHandle(PEPROCESS process, HANDLE handle, KPROCESSOR_MODE mode)
{
    return CloseSlot(SlotOf(process, handle, mode));
}

void CloseAllHandles(PEPROCESS process)
{
    process->Handles->Close();
    for (const ULONG index : process->Handles->Indexes()) (void)CloseSlot({process, index});
}

std::vector<std::string> OpenHandles(PEPROCESS process)
{
    std::vector<std::string> lines;
    for (const ULONG index : process->Handles->Indexes()) {
        HandleEntry entry;
        if (!process->Handles->Reference(index, &entry)) continue;
        const std::u16string name = NameOf(entry.Body);
        char value[16];
        snprintf(value, sizeof value, "0x%x ", index * 4);
        lines.push_back(value + std::string(TypeOf(entry.Body)->Name) + " " +
                        ToUtf8(reinterpret_cast<const WCHAR*>(name.data()), name.size()));
        ObDereferenceObject(entry.Body);
    }
    return lines;
}

HandleTable* NewHandleTable() { return new HandleTable; }

NTSTATUS ReferenceObjectByHandle(HANDLE handle, ACCESS_MASK access, POBJECT_TYPE type, KPROCESSOR_MODE mode,
                                 PVOID* object, POBJECT_HANDLE_INFORMATION information)
{
    *object = nullptr;
    HandleEntry entry;
    NTSTATUS status = ReferenceHandle(PsGetCurrentProcess(), handle, mode, &entry);
    if (!NT_SUCCESS(status)) return status;

    if (type && TypeOf(entry.Body) != type)
        status = STATUS_OBJECT_TYPE_MISMATCH;
    else if (mode != KernelMode && (access & ~entry.Granted))
        status = STATUS_ACCESS_DENIED;
    if (!NT_SUCCESS(status)) {
        ObDereferenceObject(entry.Body);
        return status;
    }
    if (information) *information = {entry.Attributes, entry.Granted};
    *object = entry.Body;
    return STATUS_SUCCESS;
}

void DeleteHandleTable(HandleTable* table)
{
    if (table && !table->Indexes().empty()) Fatal("a handle table with open handles was deleted");
    delete table;
}

} // namespace nthost::ob

using namespace nthost::ob;

NTSTATUS NTAPI ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                         KPROCESSOR_MODE AccessMode, PVOID* Object,
                                         POBJECT_HANDLE_INFORMATION HandleInformation)
{
    *Object = nullptr;
    if (nthost::FaultInjected("ObReferenceObjectByHandle")) return STATUS_INSUFFICIENT_RESOURCES;
    return ReferenceObjectByHandle(Handle, DesiredAccess, ObjectType, AccessMode, Object, HandleInformation);
}

NTSTATUS NTAPI ObOpenObjectByPointer(PVOID Object, ULONG HandleAttributes, PACCESS_STATE PassedAccessState,
                                     ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType, KPROCESSOR_MODE AccessMode,
                                     PHANDLE Handle)
{
    *Handle = nullptr;
    if (nthost::FaultInjected("ObOpenObjectByPointer")) return STATUS_INSUFFICIENT_RESOURCES;
    const POBJECT_TYPE type = TypeOf(Object);
    if (ObjectType && type != ObjectType) return STATUS_OBJECT_TYPE_MISMATCH;
    if (AccessMode != KernelMode) HandleAttributes &= ~OBJ_KERNEL_HANDLE;

    ACCESS_MASK granted = MapAccess(DesiredAccess, type, type->ValidAccess);
    if (PassedAccessState) granted |= PassedAccessState->PreviouslyGrantedAccess;
    if (AccessMode != KernelMode && (granted & ~type->ValidAccess)) return STATUS_ACCESS_DENIED;
    return InsertHandle(Object, PsGetCurrentProcess(), granted, HandleAttributes, Handle);
}
