// The SDDL that is parsed here, on kernels without a routine for it: one DACL of allow entries. Works on NUL-terminated
// text and paged pool, with no lock. *acl is the caller's to free after a success and empty after a failure.
#pragma once

#include "secure/secure.h"

constexpr ULONG SecTextTag = 0x73546553;       // "SeTs" in memory order
constexpr ULONG SecAclTag = 0x6c416553;        // "SeAl"
constexpr ULONG SecDescriptorTag = 0x64536553; // "SeSd"

constexpr ULONG SecMaximumAclSize = MAXUSHORT; // the size field of an ACL has 16 bits

// *control: SE_DACL_DEFAULTED and SE_DACL_PROTECTED, as they apply.
[[nodiscard]] NTSTATUS SecParseSddl(const WCHAR* text, SecDefaulted defaulted, ULONG* control, GvBlock<ACL>* acl);
// text stands behind "D:" and its flag. *end is where the DACL text ends: the letter of a further section, or the
// terminator.
[[nodiscard]] NTSTATUS SecParseDacl(const WCHAR* text, GvBlock<ACL>* acl, const WCHAR** end);

// STATUS_NONE_MAPPED for text that begins with no token of the table. *sid may be null: a SID that this kernel lacks.
[[nodiscard]] NTSTATUS SecLookupSidToken(const WCHAR* text, PSID* sid, const WCHAR** end);
bool SecLookupRightsToken(const WCHAR* text, ACCESS_MASK* rights, const WCHAR** end);
bool SecParseRightsNumber(const WCHAR* text, const WCHAR** end, ACCESS_MASK* rights);

// Replaces the ACL by a larger one when the entry does not fit. entriesToCome counts this one. *used is the size of the
// header and the entries so far.
[[nodiscard]] NTSTATUS SecAddAllowedAce(GvBlock<ACL>* acl, ULONG* used, ACCESS_MASK rights, ULONG entriesToCome,
                                        PSID sid);

inline const WCHAR* SecSkipBlanks(const WCHAR* text)
{
    while (*text == L' ') ++text;
    return text;
}
