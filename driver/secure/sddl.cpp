// SDDL text to a security descriptor: by the kernel's routine, where there is one, or by the parser here. Temporary
// copies and the result are paged pool; nothing is left after a failure.

#include "frame/trace.h"
#include "secure/parse.h"

namespace {

using ConvertRoutine = NTSTATUS(NTAPI*)(PCWSTR text, ULONG revision, PSECURITY_DESCRIPTOR* descriptor, PULONG size);

ConvertRoutine FindConvertRoutine()
{
    UNICODE_STRING name = GvLiteral(L"SeConvertStringSecurityDescriptorToSecurityDescriptor");
    return reinterpret_cast<ConvertRoutine>(MmGetSystemRoutineAddress(&name));
}

bool IsTerminated(PCUNICODE_STRING text)
{
    return text->MaximumLength == text->Length + sizeof(WCHAR) && !text->Buffer[text->Length / sizeof(WCHAR)];
}

// The string's own text if it is terminated, else a copy that is.
class TerminatedText {
public:
    [[nodiscard]] NTSTATUS Take(PCUNICODE_STRING text)
    {
        text_ = text->Buffer;
        if (IsTerminated(text)) return STATUS_SUCCESS;
        copy_.Reset(static_cast<WCHAR*>(GvAllocate(PagedPool, text->Length + sizeof(WCHAR), SecTextTag)));
        if (!copy_) return GV_REFUSE_AS("SecSddlToSecurityDescriptor", STATUS_INSUFFICIENT_RESOURCES, "out-of-mem\n");
        RtlCopyMemory(copy_.Get(), text->Buffer, text->Length); // the block is zeroed
        text_ = copy_.Get();
        return STATUS_SUCCESS;
    }
    const WCHAR* Get() const { return text_; }

private:
    const WCHAR* text_ = nullptr;
    GvBlock<WCHAR> copy_;
};

[[nodiscard]] NTSTATUS ConvertByKernel(ConvertRoutine convert, const WCHAR* text, SecDefaulted defaulted,
                                       PSECURITY_DESCRIPTOR* descriptor)
{
    const NTSTATUS status = convert(text, SECURITY_DESCRIPTOR_REVISION, descriptor, nullptr);
    if (!NT_SUCCESS(status)) {
        *descriptor = nullptr;
        GV_TRACE_FAILED_AS("SecSddlToSecurityDescriptor", "SeConvertStringSecurityDescriptorToSecurityDescriptor",
                           status);
        return status;
    }
    if (defaulted == SecDefaulted::Yes) {
        static_cast<SECURITY_DESCRIPTOR_RELATIVE*>(*descriptor)->Control |= SE_DACL_DEFAULTED;
    }
    return STATUS_SUCCESS;
}

[[nodiscard]] NTSTATUS MakeAbsolute(PACL acl, ULONG control, SECURITY_DESCRIPTOR* absolute)
{
    NTSTATUS status = RtlCreateSecurityDescriptor(absolute, SECURITY_DESCRIPTOR_REVISION);
    if (NT_SUCCESS(status)) status = RtlSetDaclSecurityDescriptor(absolute, TRUE, acl, FALSE);
    if (NT_SUCCESS(status)) absolute->Control |= static_cast<SECURITY_DESCRIPTOR_CONTROL>(control);
    return status;
}

[[nodiscard]] NTSTATUS MakeSelfRelative(SECURITY_DESCRIPTOR* absolute, PSECURITY_DESCRIPTOR* descriptor)
{
    ULONG size = 0;
    NTSTATUS status = RtlAbsoluteToSelfRelativeSD(absolute, nullptr, &size);
    if (status != STATUS_BUFFER_TOO_SMALL) return NT_SUCCESS(status) ? STATUS_UNSUCCESSFUL : status;
    GvBlock<void> block(GvAllocate(PagedPool, size, SecDescriptorTag));
    if (!block) return GV_REFUSE_AS("SecSddlToSecurityDescriptor", STATUS_INSUFFICIENT_RESOURCES, "out-of-mem\n");
    status = RtlAbsoluteToSelfRelativeSD(absolute, block.Get(), &size);
    if (NT_SUCCESS(status)) *descriptor = block.Release();
    return status;
}

[[nodiscard]] NTSTATUS ConvertHere(const WCHAR* text, SecDefaulted defaulted, PSECURITY_DESCRIPTOR* descriptor)
{
    ULONG control = 0;
    GvBlock<ACL> acl;
    GV_TRY_TRACED_AS("SecSddlToSecurityDescriptor", "SecParseSddl", SecParseSddl(text, defaulted, &control, &acl));
    SECURITY_DESCRIPTOR absolute;
    NTSTATUS status = MakeAbsolute(acl.Get(), control, &absolute);
    if (NT_SUCCESS(status)) status = MakeSelfRelative(&absolute, descriptor);
    return status;
}

} // namespace

NTSTATUS SecSddlToSecurityDescriptor(PCUNICODE_STRING sddl, SecDefaulted defaulted, PSECURITY_DESCRIPTOR* descriptor)
{
    *descriptor = nullptr;
    TerminatedText text;
    GV_TRY(text.Take(sddl));
    const ConvertRoutine convert = FindConvertRoutine();
    return convert ? ConvertByKernel(convert, text.Get(), defaulted, descriptor)
                   : ConvertHere(text.Get(), defaulted, descriptor);
}

NTSTATUS SecParseSddl(const WCHAR* text, SecDefaulted defaulted, ULONG* control, GvBlock<ACL>* acl)
{
    text = SecSkipBlanks(text);
    if (text[0] != L'D' || text[1] != L':') return STATUS_INVALID_PARAMETER;
    text += 2;
    *control = defaulted == SecDefaulted::Yes ? SE_DACL_DEFAULTED : 0;
    if (*text == L'P') {
        *control |= SE_DACL_PROTECTED;
        ++text;
    }
    const WCHAR* end = nullptr;
    GV_TRY(SecParseDacl(text, acl, &end));
    if (*SecSkipBlanks(end)) {
        acl->Reset();
        return STATUS_INVALID_PARAMETER;
    }
    return STATUS_SUCCESS;
}
