// The registry: opening keys, and what a query gives for each length of buffer.
#include <cstring>

#include "fixture.h"
#include <nthost/registry.h>
#include <nthost/user_memory.h>

using namespace nthost;

namespace nthost_ob {

namespace {

constexpr char kPath[] = "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\Sample";
constexpr wchar_t kWidePath[] = L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\Sample";

class RegistryTest : public ObTest {
protected:
    void SetUp() override
    {
        ObTest::SetUp();
        ASSERT_EQ(SetRegistryDword(kPath, "Count", 0x11223344), STATUS_SUCCESS);
        ASSERT_EQ(SetRegistryValue(kPath, "None", REG_NONE, nullptr, 0), STATUS_SUCCESS);
        ASSERT_EQ(SetRegistryValue(kPath, "", REG_SZ, L"d", 4), STATUS_SUCCESS);
    }

    static HANDLE Open(ACCESS_MASK access = KEY_READ)
    {
        HANDLE key = nullptr;
        Attributes attributes(kWidePath);
        EXPECT_EQ(NtOpenKey(&key, access, attributes), STATUS_SUCCESS);
        return key;
    }
};

} // namespace

TEST_F(RegistryTest, OpenByName)
{
    Attributes machine(L"\\registry\\MACHINE");
    HANDLE root, event = MakeEvent();
    ASSERT_EQ(NtOpenKey(&root, KEY_READ, machine), STATUS_SUCCESS);
    const struct {
        const char* Case;
        HANDLE Root;
        const wchar_t* Path;
        NTSTATUS Status;
    } rows[] = {
        {"absolute", nullptr, kWidePath, STATUS_SUCCESS},
        {"the root", nullptr, L"\\Registry", STATUS_SUCCESS},
        {"no such key", nullptr, L"\\Registry\\Machine\\Nope", STATUS_OBJECT_NAME_NOT_FOUND},
        {"no such key above", nullptr, L"\\Registry\\Nope\\Key", STATUS_OBJECT_NAME_NOT_FOUND},
        {"an empty component", nullptr, L"\\Registry\\\\Machine", STATUS_OBJECT_NAME_NOT_FOUND},
        {"not a key", nullptr, L"\\Device", STATUS_OBJECT_TYPE_MISMATCH},
        {"no name", nullptr, L"", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {"relative", root, L"system\\currentcontrolset", STATUS_SUCCESS},
        {"the same key again", root, L"", STATUS_SUCCESS},
        {"absolute below a key", root, L"\\System", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {"below another type", event, L"System", STATUS_OBJECT_TYPE_MISMATCH},
        {"below nothing", reinterpret_cast<HANDLE>(0x4444), L"System", STATUS_INVALID_HANDLE},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.Case);
        Attributes attributes(row.Path, OBJ_CASE_INSENSITIVE, row.Root);
        HANDLE key = nullptr;
        EXPECT_EQ(NtOpenKey(&key, KEY_READ, attributes), row.Status);
        EXPECT_EQ(NtClose(key), NT_SUCCESS(row.Status) ? STATUS_SUCCESS : STATUS_INVALID_HANDLE);
    }
    NtClose(root);
    NtClose(event);
}

TEST_F(RegistryTest, KernelHandlesAreForTheKernel)
{
    Attributes attributes(kWidePath, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE);
    HANDLE key;
    ASSERT_EQ(ZwOpenKey(&key, KEY_READ, attributes), STATUS_SUCCESS);
    UCHAR buffer[64];
    ULONG length;
    Name count(L"count");
    EXPECT_EQ(NtQueryValueKey(key, count, KeyValuePartialInformation, buffer, sizeof buffer, &length),
              STATUS_INVALID_HANDLE);
    EXPECT_EQ(ZwQueryValueKey(key, count, KeyValuePartialInformation, buffer, sizeof buffer, &length), STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);

    ASSERT_EQ(NtOpenKey(&key, KEY_READ, attributes), STATUS_SUCCESS); // for a user it is an ordinary one
    EXPECT_GT(reinterpret_cast<LONG_PTR>(key), 0);
    EXPECT_EQ(NtClose(key), STATUS_SUCCESS);
}

TEST_F(RegistryTest, QueryByLength)
{
    const HANDLE key = Open();
    constexpr auto basic = KeyValueBasicInformation, partial = KeyValuePartialInformation;
    constexpr auto full = KeyValueFullInformation;
    const struct {
        const char* Case;
        const wchar_t* Value;
        KEY_VALUE_INFORMATION_CLASS Class;
        ULONG Length;
        NTSTATUS Status;
        ULONG Needed;
    } rows[] = {
        {"all of it", L"Count", partial, 16, STATUS_SUCCESS, 16},
        {"with room", L"Count", partial, 20, STATUS_SUCCESS, 16},
        {"half the data", L"COUNT", partial, 14, STATUS_BUFFER_OVERFLOW, 16},
        {"header only", L"Count", partial, 12, STATUS_BUFFER_OVERFLOW, 16},
        {"not even the header", L"Count", partial, 11, STATUS_BUFFER_TOO_SMALL, 16},
        {"asking for the length", L"Count", partial, 0, STATUS_BUFFER_TOO_SMALL, 16},
        {"no data", L"None", partial, 12, STATUS_SUCCESS, 12},
        {"default value", L"", partial, 16, STATUS_SUCCESS, 16},
        {"name", L"Count", basic, 22, STATUS_SUCCESS, 22},
        {"half a name", L"Count", basic, 16, STATUS_BUFFER_OVERFLOW, 22},
        {"name too small", L"Count", basic, 8, STATUS_BUFFER_TOO_SMALL, 22},
        {"name and data", L"Count", full, 36, STATUS_SUCCESS, 36},
        {"name without data", L"None", full, 28, STATUS_SUCCESS, 28},
        {"data cut", L"Count", full, 34, STATUS_BUFFER_OVERFLOW, 36},
        {"full too small", L"Count", full, 19, STATUS_BUFFER_TOO_SMALL, 36},
        {"missing", L"Absent", partial, 16, STATUS_OBJECT_NAME_NOT_FOUND, 0},
        {"unknown class", L"Count", static_cast<KEY_VALUE_INFORMATION_CLASS>(9), 16, STATUS_INVALID_PARAMETER, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.Case);
        alignas(8) UCHAR buffer[64];
        memset(buffer, 0xee, sizeof buffer);
        ULONG needed = 0;
        EXPECT_EQ(NtQueryValueKey(key, Name(row.Value), row.Class, buffer, row.Length, &needed), row.Status);
        EXPECT_EQ(needed, row.Needed);
        EXPECT_EQ(buffer[row.Length], 0xee);
    }
    NtClose(key);
}

TEST_F(RegistryTest, WhatEachClassGives)
{
    const HANDLE key = Open();
    union {
        KEY_VALUE_BASIC_INFORMATION Basic;
        KEY_VALUE_FULL_INFORMATION Full;
        KEY_VALUE_PARTIAL_INFORMATION Partial;
        UCHAR Bytes[64];
    } out{};
    ULONG length;
    Name count(L"COUNT");
    ASSERT_EQ(NtQueryValueKey(key, count, KeyValuePartialInformation, &out, 64, &length), STATUS_SUCCESS);
    EXPECT_EQ(out.Partial.Type, static_cast<ULONG>(REG_DWORD));
    EXPECT_EQ(out.Partial.DataLength, 4u);
    EXPECT_EQ(memcmp(out.Partial.Data, "\x44\x33\x22\x11", 4), 0);

    ASSERT_EQ(NtQueryValueKey(key, count, KeyValueBasicInformation, &out, 64, &length), STATUS_SUCCESS);
    EXPECT_EQ(out.Basic.NameLength, 10u);
    EXPECT_EQ(memcmp(out.Basic.Name, L"Count", 10), 0); // as it was made, not as it was asked for

    ASSERT_EQ(NtQueryValueKey(key, count, KeyValueFullInformation, &out, 64, &length), STATUS_SUCCESS);
    EXPECT_EQ(out.Full.DataOffset % 4, 0u);
    EXPECT_EQ(memcmp(out.Bytes + out.Full.DataOffset, "\x44\x33\x22\x11", 4), 0);
    EXPECT_EQ(memcmp(out.Full.Name, L"Count", 10), 0);
    NtClose(key);
}

TEST_F(RegistryTest, AccessAndBadPointers)
{
    UserMemory memory(PAGE_SIZE);
    memory.Unmap();
    PVOID const bad = memory.Address();
    const HANDLE key = Open(), blind = Open(READ_CONTROL);
    Name count(L"Count");
    UCHAR buffer[16];
    ULONG length;
    HANDLE opened;
    Attributes attributes(kWidePath);

    constexpr NTSTATUS violation = STATUS_ACCESS_VIOLATION;
    const auto query = [&](HANDLE handle, PVOID name, PVOID to, PVOID result) {
        return NtQueryValueKey(handle, static_cast<PUNICODE_STRING>(name), KeyValuePartialInformation, to, 16,
                               static_cast<PULONG>(result));
    };
    EXPECT_EQ(query(blind, count.Get(), buffer, &length), STATUS_ACCESS_DENIED);
    EXPECT_EQ(query(key, bad, buffer, &length), violation);
    EXPECT_EQ(query(key, count.Get(), bad, &length), violation);
    EXPECT_EQ(query(key, count.Get(), buffer, bad), violation);
    UNICODE_STRING text{10, 10, static_cast<PWCH>(bad)};
    EXPECT_EQ(query(key, &text, buffer, &length), violation);
    text = {3, 3, count->Buffer};
    EXPECT_EQ(query(key, &text, buffer, &length), STATUS_OBJECT_NAME_INVALID);

    EXPECT_EQ(NtOpenKey(static_cast<PHANDLE>(bad), KEY_READ, attributes), violation);
    EXPECT_EQ(NtOpenKey(&opened, KEY_READ, static_cast<POBJECT_ATTRIBUTES>(bad)), violation);
    EXPECT_EQ(NtOpenKey(&opened, 0x40000, attributes), STATUS_SUCCESS); // WRITE_DAC is a right of keys
    EXPECT_EQ(NtClose(opened), STATUS_SUCCESS);
    EXPECT_EQ(NtOpenKey(&opened, 0x8000, attributes), STATUS_ACCESS_DENIED); // and this is none
    attributes.Value.Length = 8;
    EXPECT_EQ(NtOpenKey(&opened, KEY_READ, attributes), STATUS_INVALID_PARAMETER);
    NtClose(key);
    NtClose(blind);
}

TEST_F(RegistryTest, SetUpByTools)
{
    EXPECT_EQ(SetRegistryDword("Registry\\Machine", "x", 1), STATUS_OBJECT_PATH_SYNTAX_BAD);
    EXPECT_EQ(SetRegistryDword("\\Registry\\Machine\\", "x", 1), STATUS_OBJECT_PATH_SYNTAX_BAD);
    EXPECT_EQ(SetRegistryDword("\\RegistryX\\Machine", "x", 1), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(CreateRegistryKey("\\Registry\\\\Machine"), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(DeleteRegistryValue(kPath, "Absent"), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(DeleteRegistryValue(kPath, "COUNT"), STATUS_SUCCESS);
    EXPECT_FALSE(GetRegistryValue(kPath, "Count").has_value());
    ASSERT_EQ(SetRegistryValue(kPath, "Count", REG_BINARY, "abc", 3), STATUS_SUCCESS);
    EXPECT_EQ(GetRegistryValue(kPath, "count")->Data, (std::vector<unsigned char>{'a', 'b', 'c'}));
}

} // namespace nthost_ob
