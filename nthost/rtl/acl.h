// Entries of access-control lists, for those who build or read them. Works on its arguments only.
#pragma once

#include <ntifs.h>

namespace nthost::rtl {

// The common layout of the three entry types there are here.
using Ace = ACCESS_ALLOWED_ACE;

inline PSID SidOf(Ace* ace) { return &ace->SidStart; }

inline Ace* FirstAce(PACL acl) { return reinterpret_cast<Ace*>(acl + 1); }
inline Ace* NextAce(Ace* ace) { return reinterpret_cast<Ace*>(reinterpret_cast<char*>(ace) + ace->Header.AceSize); }

// Runs body on every entry; a null list has none. Entries of types that are not known here are passed over.
template <typename Body>
void ForEachAce(PACL acl, Body body)
{
    if (!acl) return;
    Ace* ace = FirstAce(acl);
    for (USHORT i = 0; i < acl->AceCount; ++i, ace = NextAce(ace))
        if (ace->Header.AceType <= SYSTEM_AUDIT_ACE_TYPE) body(ace);
}

struct NewAce {
    UCHAR Type;
    UCHAR Flags;
    ACCESS_MASK Mask;
    PSID Sid;
};

// As RtlAddAccessAllowedAce, for any type and flags.
[[nodiscard]] NTSTATUS AddAce(PACL acl, ULONG revision, const NewAce& entry);

} // namespace nthost::rtl
