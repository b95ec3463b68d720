// Names of objects that services make. The namespace has its own lock; nothing is kept here.
#include "ob/named.h"

namespace nthost::ob {

namespace {

// Names the object, or finds the one that has the name already: STATUS_OBJECT_NAME_EXISTS then, with *body replaced.
NTSTATUS InsertOrFind(const CapturedAttributes& attributes, void** body)
{
    const NTSTATUS status = ob::InsertName(attributes.Name.Get(), *body);
    if (status != STATUS_OBJECT_NAME_COLLISION || !(attributes.Attributes & OBJ_OPENIF)) return status;

    void* existing;
    std::u16string remaining;
    if (const NTSTATUS found = ob::LookupPath(attributes.Name.Get(), &existing, &remaining); !NT_SUCCESS(found))
        return found;
    if (ob::TypeOf(existing) != ob::TypeOf(*body) || !remaining.empty()) {
        ObDereferenceObject(existing);
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    ObDereferenceObject(*body);
    *body = existing;
    return STATUS_OBJECT_NAME_EXISTS;
}

} // namespace

NTSTATUS NameAndReturn(void* body, const CapturedAttributes& attributes, ACCESS_MASK granted, KPROCESSOR_MODE mode,
                       PHANDLE handle)
{
    const bool named = !attributes.Name.Empty();
    const NTSTATUS naming = named ? InsertOrFind(attributes, &body) : STATUS_SUCCESS;
    NTSTATUS status = naming;
    if (NT_SUCCESS(naming)) status = ReturnHandle(body, granted, attributes.Attributes, mode, handle);
    if (named && !NT_SUCCESS(status) && naming == STATUS_SUCCESS) ob::RemoveName(body);
    ObDereferenceObject(body);
    return NT_SUCCESS(status) ? naming : status;
}

void RemoveNameWithLastHandle(PEPROCESS, void* body, ACCESS_MASK, ULONG, ULONG remaining)
{
    if (remaining == 0) ob::RemoveName(body);
}

} // namespace nthost::ob
