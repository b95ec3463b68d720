// The four ways to the plugin's extended attributes, the size of all of an object's attributes, and what every request
// for them begins with.

#include "ea/ea.h"

#include "ea/record.h"
#include "frame/plugincall.h"

NTSTATUS GvListEaFromPlugin(IrpContext* context, GvHandle handle, GvEaNames* names)
{
    NTSTATUS status = GV_CALL_PLUGIN(context, handle.Object, ListEa, handle, names->Names.Out(), &names->Count);
    if (NT_SUCCESS(status) && names->Count != 0 && !names->Names) status = STATUS_UNSUCCESSFUL;
    if (!NT_SUCCESS(status)) GV_TRACE(GvTraceError, "GV_CALL_PLUGIN() ListEa() err: 0x%x\n", status);
    return status;
}

NTSTATUS GvGetEaFromPlugin(IrpContext* context, GvHandle handle, const char* name, GvEaValue* value)
{
    NTSTATUS status = GV_CALL_PLUGIN(context, handle.Object, GetEa, handle, name, value->Value.Out(), &value->Length);
    if (NT_SUCCESS(status) && value->Length != 0 && !value->Value) status = STATUS_UNSUCCESSFUL;
    if (NT_SUCCESS(status)) status = GvCheckPluginCount("GetEa", value->Length, GvMaximumEaValue);
    if (!NT_SUCCESS(status)) GV_TRACE(GvTraceError, "GV_CALL_PLUGIN() GetEa() err: 0x%x\n", status);
    return status;
}

NTSTATUS GvSetEaOnPlugin(IrpContext* context, GvHandle handle, const char* name, const void* value, ULONG length)
{
    const NTSTATUS status = GV_CALL_PLUGIN(context, handle.Object, SetEa, handle, name, value, length);
    if (!NT_SUCCESS(status)) GV_TRACE(GvTraceError, "GV_CALL_PLUGIN() SetEa() err: 0x%x\n", status);
    return status;
}

NTSTATUS GvDeleteEaOnPlugin(IrpContext* context, GvHandle handle, const char* name)
{
    const NTSTATUS status = GV_CALL_PLUGIN(context, handle.Object, DeleteEa, handle, name);
    if (!NT_SUCCESS(status)) GV_TRACE(GvTraceError, "GV_CALL_PLUGIN() DeleteEa() err: 0x%x\n", status);
    return status;
}

ULONG GvEaNameLength(const char* name)
{
    ULONG length = 0;
    while (name[length]) ++length;
    return length;
}

NTSTATUS GvGetFullEaInfoTotalLen(IrpContext* context, const Fcb* fcb, ULONG* length)
{
    GvEaNames names;
    const GvHandle handle = GvHandleOf(fcb);
    NTSTATUS status = GvListEaFromPlugin(context, handle, &names);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvListEaFromPlugin", status);
        return status;
    }
    ULONG total = 0;
    const char* name = names.Names.Get();
    for (ULONG i = 0; i < names.Count; ++i) {
        // Only for its length: the plugin has no cheaper way to tell it.
        GvEaValue value;
        status = GvGetEaFromPlugin(context, handle, name, &value);
        if (!NT_SUCCESS(status)) {
            GV_TRACE(GvTraceError, "GvGetEaFromPlugin(%d): 0x%x\n", i, status);
            return status;
        }
        const ULONG nameLength = GvEaNameLength(name);
        const ULONG size = GvEaRecordSize(nameLength, value.Length);
        total += size + GvEaPadding(size);
        name += nameLength + 1;
    }
    *length = total;
    return STATUS_SUCCESS;
}

NTSTATUS GvScreenEaRequest(const IrpContext* context, const Fcb* fcb, const char* function, const char* nestedText)
{
    if (KeGetCurrentIrql() != PASSIVE_LEVEL) return STATUS_UNSUCCESSFUL;
    if (!context->IsTopLevel) {
        GV_TRACE_AS(function, GvTraceError, nestedText);
        return STATUS_INVALID_PARAMETER;
    }
    if (fcb->FcbType != GvDirectory && fcb->FcbType != GvFile) {
        GV_TRACE_AS(function, GvTraceError, "ERR: bad fcb type: %d\n", fcb->FcbType);
        return STATUS_INVALID_PARAMETER;
    }
    return STATUS_SUCCESS;
}
