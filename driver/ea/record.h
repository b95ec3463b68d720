// The size of a record in a list of extended attributes, and of the bytes that bring the next one to a 4-byte boundary.
#pragma once

#include "frame/nt.h"

constexpr ULONG GvMaximumEaName = 255;
constexpr ULONG GvMaximumEaValue = 65535;

constexpr ULONG GvEaRecordSize(ULONG nameLength, ULONG valueLength)
{
    return FIELD_OFFSET(FILE_FULL_EA_INFORMATION, EaName) + nameLength + 1 + valueLength;
}

constexpr ULONG GvEaPadding(ULONG size) { return (0 - size) & 3; }
