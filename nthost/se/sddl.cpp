// SDDL text to a security descriptor: owner, group, DACL, SACL, in any order, each at most once. Temporary lists live
// on the heap; the result is paged pool.

#include <vector>

#include <nthost/faults.h>

#include "rtl/acl.h"
#include "rtl/descriptor.h"
#include "se/sddl_words.h"

namespace nthost::se {

namespace {

constexpr ULONG kDescriptorTag = 0x64536553; // "SeSd"

// Bits of the control word, by kind of list.
struct ListBits {
    SECURITY_DESCRIPTOR_CONTROL Present, Protected, AutoInheritRequested, AutoInherited;
};
constexpr ListBits kDaclBits = {SE_DACL_PRESENT, SE_DACL_PROTECTED, SE_DACL_AUTO_INHERIT_REQ, SE_DACL_AUTO_INHERITED};
constexpr ListBits kSaclBits = {SE_SACL_PRESENT, SE_SACL_PROTECTED, SE_SACL_AUTO_INHERIT_REQ, SE_SACL_AUTO_INHERITED};

// A list that grows as entries come, up to what its size field can tell.
class ListBuilder {
public:
    [[nodiscard]] NTSTATUS Add(UCHAR type, UCHAR flags, ACCESS_MASK rights, const Sid& sid)
    {
        const size_t used = bytes_.size();
        const size_t size = used + FIELD_OFFSET(rtl::Ace, SidStart) + RtlLengthSid(sid.Get());
        if (size > MAXUSHORT) return STATUS_INVALID_ACL;
        bytes_.resize(size);
        Get()->AclSize = static_cast<USHORT>(size);
        return rtl::AddAce(Get(), ACL_REVISION, {type, flags, rights, sid.Get()});
    }
    PACL Get() { return reinterpret_cast<PACL>(bytes_.data()); }
    ListBuilder() { *Get() = {ACL_REVISION, 0, sizeof(ACL), 0, 0}; }

private:
    std::vector<UCHAR> bytes_ = std::vector<UCHAR>(sizeof(ACL));
};

class Converter {
public:
    explicit Converter(Text text) : text_(text) {}

    [[nodiscard]] NTSTATUS Parse();
    [[nodiscard]] NTSTATUS Make(PSECURITY_DESCRIPTOR* descriptor, PULONG size);

private:
    [[nodiscard]] NTSTATUS ParseSection();
    [[nodiscard]] NTSTATUS ParseSid(std::optional<Sid>* sid);
    [[nodiscard]] NTSTATUS ParseList(std::optional<ListBuilder>* list, const ListBits& bits);
    [[nodiscard]] NTSTATUS ParseEntry(ListBuilder* list, bool isSacl);

    Text text_;
    std::optional<Sid> owner_, group_;
    std::optional<ListBuilder> dacl_, sacl_;
    SECURITY_DESCRIPTOR_CONTROL control_ = 0;
};

std::optional<UCHAR> TakeType(Text* text, bool isSacl)
{
    if (isSacl) return TakeWord(text, u"AU") ? std::optional<UCHAR>(SYSTEM_AUDIT_ACE_TYPE) : std::nullopt;
    if (TakeWord(text, u"A")) return ACCESS_ALLOWED_ACE_TYPE;
    return TakeWord(text, u"D") ? std::optional<UCHAR>(ACCESS_DENIED_ACE_TYPE) : std::nullopt;
}

// type;flags;rights;;;sid in parentheses. The two empty fields would name object types.
NTSTATUS Converter::ParseEntry(ListBuilder* list, bool isSacl)
{
    if (!TakeWord(&text_, u"(")) return STATUS_INVALID_ACL;
    const std::optional<UCHAR> type = TakeType(&text_, isSacl);
    if (!type || !TakeWord(&text_, u";")) return STATUS_INVALID_ACL;
    const std::optional<UCHAR> flags = TakeAceFlags(&text_);
    if (!flags || !TakeWord(&text_, u";")) return STATUS_INVALID_ACL;
    const std::optional<ACCESS_MASK> rights = TakeRights(&text_);
    for (int i = 0; i < 3; ++i)
        if (!rights || !TakeWord(&text_, u";")) return STATUS_INVALID_ACL;
    const std::optional<Sid> sid = TakeSid(&text_);
    if (!sid) return STATUS_NONE_MAPPED;
    if (!TakeWord(&text_, u")")) return STATUS_INVALID_ACL;
    return list->Add(*type, *flags, *rights, *sid);
}

NTSTATUS Converter::ParseList(std::optional<ListBuilder>* list, const ListBits& bits)
{
    if (control_ & bits.Present) return STATUS_INVALID_PARAMETER;
    control_ |= bits.Present;
    const ListFlags flags = TakeListFlags(&text_);
    if (flags.IsProtected) control_ |= bits.Protected;
    if (flags.RequestsInheritance) control_ |= bits.AutoInheritRequested;
    if (flags.IsInherited) control_ |= bits.AutoInherited;
    if (flags.IsNull) return STATUS_SUCCESS;
    list->emplace();
    for (SkipBlanks(&text_); !text_.empty() && text_.front() == u'('; SkipBlanks(&text_))
        if (const NTSTATUS status = ParseEntry(&**list, list == &sacl_); !NT_SUCCESS(status)) return status;
    return STATUS_SUCCESS;
}

NTSTATUS Converter::ParseSid(std::optional<Sid>* sid)
{
    if (*sid) return STATUS_INVALID_PARAMETER;
    *sid = TakeSid(&text_);
    return *sid ? STATUS_SUCCESS : STATUS_NONE_MAPPED;
}

NTSTATUS Converter::ParseSection()
{
    if (TakeWord(&text_, u"O:")) return ParseSid(&owner_);
    if (TakeWord(&text_, u"G:")) return ParseSid(&group_);
    if (TakeWord(&text_, u"D:")) return ParseList(&dacl_, kDaclBits);
    return TakeWord(&text_, u"S:") ? ParseList(&sacl_, kSaclBits) : STATUS_INVALID_PARAMETER;
}

NTSTATUS Converter::Parse()
{
    for (SkipBlanks(&text_); !text_.empty(); SkipBlanks(&text_))
        if (const NTSTATUS status = ParseSection(); !NT_SUCCESS(status)) return status;
    return STATUS_SUCCESS;
}

NTSTATUS Converter::Make(PSECURITY_DESCRIPTOR* descriptor, PULONG size)
{
    SECURITY_DESCRIPTOR absolute =
        rtl::AbsoluteOf({control_, owner_ ? owner_->Get() : nullptr, group_ ? group_->Get() : nullptr,
                         sacl_ ? sacl_->Get() : nullptr, dacl_ ? dacl_->Get() : nullptr});
    ULONG needed = 0;
    (void)RtlAbsoluteToSelfRelativeSD(&absolute, nullptr, &needed);
    void* const block = ExAllocatePoolWithTag(PagedPool, needed, kDescriptorTag);
    if (!block) return STATUS_INSUFFICIENT_RESOURCES;
    const NTSTATUS status = RtlAbsoluteToSelfRelativeSD(&absolute, block, &needed);
    *descriptor = block;
    if (size) *size = needed;
    return status;
}

} // namespace

} // namespace nthost::se

NTSTATUS NTAPI SeConvertStringSecurityDescriptorToSecurityDescriptor(PCWSTR StringSecurityDescriptor,
                                                                     ULONG StringSDRevision,
                                                                     PSECURITY_DESCRIPTOR* SecurityDescriptor,
                                                                     PULONG SecurityDescriptorSize)
{
    *SecurityDescriptor = nullptr;
    if (nthost::FaultInjected("SeConvertStringSecurityDescriptorToSecurityDescriptor"))
        return STATUS_INSUFFICIENT_RESOURCES;
    if (StringSDRevision != SECURITY_DESCRIPTOR_REVISION) return STATUS_UNKNOWN_REVISION;
    nthost::se::Converter converter(reinterpret_cast<const char16_t*>(StringSecurityDescriptor));
    const NTSTATUS status = converter.Parse();
    return NT_SUCCESS(status) ? converter.Make(SecurityDescriptor, SecurityDescriptorSize) : status;
}
