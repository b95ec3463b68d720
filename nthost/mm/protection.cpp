// The table of page protections; constant.
#include "mm/protection.h"

namespace nthost::mm {

namespace {

constexpr ULONG Data = PAGE_NOACCESS | PAGE_READONLY | PAGE_WRITECOPY;
constexpr ULONG Code = Data | PAGE_EXECUTE | PAGE_EXECUTE_READ | PAGE_EXECUTE_WRITECOPY;
constexpr ULONG All = Code | PAGE_READWRITE | PAGE_EXECUTE_READWRITE;

constexpr Protection Table[] = {
    {PAGE_NOACCESS, 0, SECTION_MAP_READ, PAGE_NOACCESS, false, false, false},
    {PAGE_READONLY, FILE_READ_DATA, SECTION_MAP_READ, Data, true, false, false},
    {PAGE_READWRITE, FILE_READ_DATA | FILE_WRITE_DATA, SECTION_MAP_WRITE, Data | PAGE_READWRITE, true, true, false},
    {PAGE_WRITECOPY, FILE_READ_DATA, SECTION_MAP_READ, Data, true, false, true},
    {PAGE_EXECUTE, FILE_EXECUTE, SECTION_MAP_EXECUTE, PAGE_NOACCESS | PAGE_EXECUTE, true, false, false},
    {PAGE_EXECUTE_READ, FILE_EXECUTE | FILE_READ_DATA, SECTION_MAP_EXECUTE | SECTION_MAP_READ, Code, true, false,
     false},
    {PAGE_EXECUTE_READWRITE, FILE_EXECUTE | FILE_READ_DATA | FILE_WRITE_DATA, SECTION_MAP_EXECUTE | SECTION_MAP_WRITE,
     All, true, true, false},
    {PAGE_EXECUTE_WRITECOPY, FILE_EXECUTE | FILE_READ_DATA, SECTION_MAP_EXECUTE | SECTION_MAP_READ, Code, true, false,
     true},
};

} // namespace

const Protection* FindProtection(ULONG value)
{
    for (const Protection& row : Table)
        if (row.Value == value) return &row;
    return nullptr;
}

} // namespace nthost::mm
