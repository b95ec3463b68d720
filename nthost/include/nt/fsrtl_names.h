// File names: their components, their wildcards, the characters they may have. Any IRQL; only the arguments are
// touched.
#pragma once

#include "base.h"

NT_EXTERN_C_BEGIN

#ifndef FlagOn
#define FlagOn(Flags, SingleFlag) ((Flags) & (SingleFlag))
#endif

#define DOS_STAR      (L'<')
#define DOS_QM        (L'>')
#define DOS_DOT       (L'"')
#define ANSI_DOS_STAR ('<')
#define ANSI_DOS_QM   ('>')
#define ANSI_DOS_DOT  ('"')

#define FSRTL_FAT_LEGAL         0x01
#define FSRTL_HPFS_LEGAL        0x02
#define FSRTL_NTFS_LEGAL        0x04
#define FSRTL_WILD_CHARACTER    0x08
#define FSRTL_OLE_LEGAL         0x10
#define FSRTL_NTFS_STREAM_LEGAL (FSRTL_NTFS_LEGAL | FSRTL_OLE_LEGAL)

// Has 128 entries, one for each 7-bit character.
extern const UCHAR* const FsRtlLegalAnsiCharacterArray;

// Bytes above 127 get DefaultValue.
#define FsRtlTestAnsiCharacter(C, DefaultValue, WildOk, Flags) \
    (((SCHAR)(C) < 0)                                          \
         ? (DefaultValue)                                      \
         : FlagOn(FsRtlLegalAnsiCharacterArray[(UCHAR)(C)], (Flags) | ((WildOk) ? FSRTL_WILD_CHARACTER : 0)))
#define FsRtlIsAnsiCharacterWild(C)                    FsRtlTestAnsiCharacter(C, FALSE, FALSE, FSRTL_WILD_CHARACTER)
#define FsRtlIsAnsiCharacterLegal(C, Flags)            FsRtlTestAnsiCharacter(C, TRUE, FALSE, Flags)
#define FsRtlIsAnsiCharacterLegalFat(C, WildOk)        FsRtlTestAnsiCharacter(C, TRUE, WildOk, FSRTL_FAT_LEGAL)
#define FsRtlIsAnsiCharacterLegalHpfs(C, WildOk)       FsRtlTestAnsiCharacter(C, TRUE, WildOk, FSRTL_HPFS_LEGAL)
#define FsRtlIsAnsiCharacterLegalNtfs(C, WildOk)       FsRtlTestAnsiCharacter(C, TRUE, WildOk, FSRTL_NTFS_LEGAL)
#define FsRtlIsAnsiCharacterLegalNtfsStream(C, WildOk) FsRtlTestAnsiCharacter(C, TRUE, WildOk, FSRTL_NTFS_STREAM_LEGAL)
#define FsRtlIsUnicodeCharacterWild(C) \
    (((C) >= 0x40) ? FALSE : FlagOn(FsRtlLegalAnsiCharacterArray[(C)], FSRTL_WILD_CHARACTER))

// The first component, without one leading backslash, and what follows the backslash behind it. Both results point into
// Name; what is not there is empty.
NTKERNELAPI VOID NTAPI FsRtlDissectName(UNICODE_STRING Name, PUNICODE_STRING FirstPart, PUNICODE_STRING RemainingPart);
NTKERNELAPI BOOLEAN NTAPI FsRtlDoesNameContainWildCards(PUNICODE_STRING Name);

// A null upcase table is the system's own; another one has 65536 units.
NTKERNELAPI BOOLEAN NTAPI FsRtlAreNamesEqual(PCUNICODE_STRING Name1, PCUNICODE_STRING Name2, BOOLEAN IgnoreCase,
                                             PCWCH UpcaseTable);

// Whether Name matches the expression, which with IgnoreCase must be upcased already. * matches any text, ? one
// character; < any text up to and with the last period, > one character that is no period or, at a period or the end,
// nothing, " a period or, at the end, nothing. An empty string matches only an empty one.
NTKERNELAPI BOOLEAN NTAPI FsRtlIsNameInExpression(PUNICODE_STRING Expression, PUNICODE_STRING Name, BOOLEAN IgnoreCase,
                                                  PWCHAR UpcaseTable);

NT_EXTERN_C_END
