// What the services on sections check, in which order, and with which status.
#include "minifs.h"

#include <nthost/faults.h>

#include "ke/callout.h"

using namespace minifs;

namespace {

using SectionServices = MmTest;

constexpr ACCESS_MASK Reader = FILE_READ_DATA | SYNCHRONIZE;

struct CreateRow {
    const char* Name;
    ACCESS_MASK FileAccess;
    SectionArguments Section;
    NTSTATUS Status;
};

constexpr CreateRow kCreates[] = {
    {"f", Reader, {.Protection = PAGE_READONLY}, STATUS_SUCCESS},
    {"f", Reader, {.Size = 10, .Protection = PAGE_READONLY}, STATUS_SUCCESS},
    {"f", Reader, {.Protection = PAGE_READONLY, .Kind = SEC_RESERVE}, STATUS_SUCCESS},
    {"f", Reader, {.Protection = PAGE_WRITECOPY}, STATUS_SUCCESS},
    {"f", Reader, {.Protection = PAGE_READONLY, .Kind = 0}, STATUS_INVALID_PARAMETER_6},
    {"f", Reader, {.Protection = PAGE_READONLY, .Kind = SEC_COMMIT | SEC_IMAGE}, STATUS_INVALID_PARAMETER_6},
    {"f", Reader, {.Protection = PAGE_READONLY, .Kind = SEC_COMMIT | 1}, STATUS_INVALID_PARAMETER_6},
    {"f", Reader, {.Protection = 0, .Kind = 0}, STATUS_INVALID_PARAMETER_6}, // before the protection
    {"f", Reader, {.Protection = PAGE_NOACCESS}, STATUS_INVALID_PAGE_PROTECTION},
    {"f", Reader, {.Protection = PAGE_READONLY | PAGE_READWRITE}, STATUS_INVALID_PAGE_PROTECTION},
    {"f", Reader, {.Protection = PAGE_READONLY | PAGE_GUARD}, STATUS_INVALID_PAGE_PROTECTION},
    {"f", Reader, {.Protection = PAGE_READWRITE}, STATUS_ACCESS_DENIED},
    {"f", Reader, {.Protection = PAGE_EXECUTE_READ}, STATUS_ACCESS_DENIED},
    {"f", FILE_WRITE_DATA | SYNCHRONIZE, {.Protection = PAGE_READONLY}, STATUS_ACCESS_DENIED},
    {"f", Reader, {.Size = 200, .Protection = PAGE_READONLY}, STATUS_SECTION_TOO_BIG},
    {"f", FILE_ALL_ACCESS, {.Size = 200, .Protection = PAGE_READWRITE, .Kind = SEC_IMAGE}, STATUS_SECTION_TOO_BIG},
    {"f", FILE_ALL_ACCESS, {.Size = INT64_MIN}, STATUS_SECTION_TOO_BIG},
    {"f", FILE_ALL_ACCESS, {.Access = SECTION_ALL_ACCESS | 0x8000}, STATUS_ACCESS_DENIED},
    {"empty", FILE_ALL_ACCESS, {}, STATUS_MAPPED_FILE_SIZE_ZERO},
    {"directory", FILE_ALL_ACCESS, {}, STATUS_INVALID_FILE_FOR_SECTION},
};

TEST_F(SectionServices, CreateChecks)
{
    Fs().File("\\f")->Data = std::string(100, '.');
    for (const CreateRow& row : kCreates) {
        SCOPED_TRACE(&row - kCreates);
        const File file(row.Name, row.FileAccess);
        HANDLE section = nullptr;
        EXPECT_EQ(MakeSection(file.Handle(), row.Section, &section), row.Status);
        if (section) EXPECT_EQ(NtClose(section), STATUS_SUCCESS);
    }
    EXPECT_EQ(Fs().File("\\f")->Data.size(), 100u);

    HANDLE section = nullptr;
    LARGE_INTEGER size{};
    EXPECT_EQ(NtCreateSection(&section, SECTION_ALL_ACCESS, nullptr, &size, PAGE_READWRITE, SEC_COMMIT, nullptr),
              STATUS_INVALID_PARAMETER_4);
    size.QuadPart = 1;
    EXPECT_EQ(NtCreateSection(&section, SECTION_ALL_ACCESS, nullptr, &size, PAGE_READWRITE, SEC_COMMIT, nullptr),
              STATUS_NOT_SUPPORTED);
    HANDLE event = nullptr;
    EXPECT_EQ(NtCreateEvent(&event, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE), STATUS_SUCCESS);
    EXPECT_EQ(MakeSection(event, {}, &section), STATUS_OBJECT_TYPE_MISMATCH);
    EXPECT_EQ(NtClose(event), STATUS_SUCCESS);
    EXPECT_EQ(MakeSection(nullptr, {.Size = 1}, nullptr), STATUS_ACCESS_VIOLATION);
    Fs().NoSectionPointers = true;
    const File file("f");
    EXPECT_EQ(MakeSection(file.Handle(), {}, &section), STATUS_INVALID_FILE_FOR_SECTION);
}

TEST_F(SectionServices, LargerSectionExtendsTheFile)
{
    Fcb* const fcb = Fs().File("\\empty");
    const File file("empty");
    HANDLE section = nullptr;
    Fs().Before = [](const Seen& seen) { return seen.Major == IRP_MJ_SET_INFORMATION ? STATUS_DISK_FULL : 0; };
    EXPECT_EQ(MakeSection(file.Handle(), {.Size = 5000}, &section), STATUS_DISK_FULL);
    Fs().Before = nullptr;
    Fs().Take();
    // More than there can be of a section: nobody has made the file longer by the time that is known.
    EXPECT_EQ(MakeSection(file.Handle(), {.Size = INT64_MAX}, &section), STATUS_SECTION_TOO_BIG);
    EXPECT_TRUE(Fs().Take().empty());
    EXPECT_EQ(MakeSection(file.Handle(), {.Size = 5000}, &section), STATUS_SUCCESS);
    EXPECT_EQ(fcb->Data.size(), 5000u);
    const std::vector<Seen> seen = Fs().Take();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_TRUE(seen[0].IsPaging()); // it comes while the file system's lock is held for it
    EXPECT_EQ(NtClose(section), STATUS_SUCCESS);
}

struct MapRow {
    SectionArguments Section;
    ViewArguments View;
    NTSTATUS Status;
    SIZE_T Size;
};

const MapRow kMaps[] = {
    {{}, {}, STATUS_SUCCESS, 0x21000},
    {{}, {.Offset = 0x10000}, STATUS_SUCCESS, 0x11000},
    {{}, {.Offset = 0x10000, .Size = 5}, STATUS_SUCCESS, 0x1000},
    {{}, {.Offset = 0x20000, .Size = 100}, STATUS_SUCCESS, 0x1000},
    {{.Size = 0x5000}, {}, STATUS_SUCCESS, 0x5000},
    {{}, {.Offset = 0x20000, .Size = 101}, STATUS_INVALID_VIEW_SIZE, 0},
    {{.Size = 0x5000}, {.Size = 0x5001}, STATUS_INVALID_VIEW_SIZE, 0},
    {{}, {.Offset = 0x30000}, STATUS_INVALID_VIEW_SIZE, 0},
    {{}, {.Offset = -0x10000}, STATUS_INVALID_VIEW_SIZE, 0},
    {{}, {.Offset = 0x1000}, STATUS_MAPPED_ALIGNMENT, 0},
    {{}, {.Base = reinterpret_cast<void*>(0x7ffe00001000)}, STATUS_MAPPED_ALIGNMENT, 0},
    {{}, {.Base = reinterpret_cast<void*>(MM_USER_PROBE_ADDRESS)}, STATUS_INVALID_PARAMETER_3, 0},
    {{}, {.Size = MM_USER_PROBE_ADDRESS + 1}, STATUS_INVALID_PARAMETER_3, 0},
    {{}, {.Protection = 0}, STATUS_INVALID_PAGE_PROTECTION, 0},
    {{}, {.Protection = PAGE_READONLY}, STATUS_SUCCESS, 0x21000},
    {{}, {.Protection = PAGE_NOACCESS}, STATUS_SUCCESS, 0x21000},
    {{}, {.Protection = PAGE_EXECUTE_READ}, STATUS_SECTION_PROTECTION, 0},
    {{.Protection = PAGE_READONLY}, {}, STATUS_SECTION_PROTECTION, 0},
    {{.Protection = PAGE_READONLY}, {.Protection = PAGE_READONLY}, STATUS_SUCCESS, 0x21000},
    {{.Protection = PAGE_EXECUTE_READ}, {.Protection = PAGE_READONLY}, STATUS_SUCCESS, 0x21000},
    {{.Protection = PAGE_EXECUTE_READWRITE}, {.Protection = PAGE_READWRITE}, STATUS_SUCCESS, 0x21000},
    {{.Access = SECTION_MAP_READ}, {}, STATUS_ACCESS_DENIED, 0},
    {{.Access = SECTION_MAP_READ}, {.Protection = PAGE_READONLY}, STATUS_SUCCESS, 0x21000},
    {{.Access = SECTION_QUERY}, {.Protection = PAGE_READONLY}, STATUS_ACCESS_DENIED, 0},
    {{}, {.Protection = PAGE_WRITECOPY}, STATUS_NOT_SUPPORTED, 0},
};

TEST_F(SectionServices, MapChecks)
{
    Fs().File("\\f")->Data = std::string(0x20000 + 100, '.');
    const File file("f", FILE_ALL_ACCESS);
    for (const MapRow& row : kMaps) {
        SCOPED_TRACE(&row - kMaps);
        HANDLE section = nullptr;
        ASSERT_EQ(MakeSection(file.Handle(), row.Section, &section), STATUS_SUCCESS);
        char* base = nullptr;
        SIZE_T size = 0;
        const NTSTATUS status = MakeView(section, row.View, &base, &size);
        EXPECT_EQ(status, row.Status);
        EXPECT_EQ(NtClose(section), STATUS_SUCCESS);
        if (!NT_SUCCESS(status)) continue;
        EXPECT_EQ(size, row.Size);
        EXPECT_EQ(reinterpret_cast<ULONG_PTR>(base) % 0x10000, 0u);
        EXPECT_EQ(NtUnmapViewOfSection(NtCurrentProcess(), base + row.Size - 1), STATUS_SUCCESS);
        EXPECT_EQ(NtUnmapViewOfSection(NtCurrentProcess(), base), STATUS_NOT_MAPPED_VIEW);
    }
}

TEST_F(SectionServices, MapArgumentsAreCheckedBeforeHandles)
{
    PVOID base = nullptr;
    SIZE_T size = 0;
    const auto map = [&](PVOID* at, SECTION_INHERIT inherit, ULONG type, ULONG_PTR zeroBits) {
        return NtMapViewOfSection(nullptr, NtCurrentProcess(), at, zeroBits, 0, nullptr, &size, inherit, type,
                                  PAGE_READONLY);
    };
    EXPECT_EQ(map(&base, static_cast<SECTION_INHERIT>(3), ~0u, 99), STATUS_INVALID_PARAMETER_8);
    EXPECT_EQ(map(nullptr, ViewUnmap, 1, 99), STATUS_INVALID_PARAMETER_9);
    EXPECT_EQ(map(nullptr, ViewUnmap, 0, 99), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(map(&base, ViewUnmap, 0, 99), STATUS_INVALID_PARAMETER_4);
    EXPECT_EQ(map(&base, ViewUnmap, 0, 0), STATUS_INVALID_HANDLE);
    EXPECT_EQ(NtUnmapViewOfSection(nullptr, base), STATUS_INVALID_HANDLE);
}

TEST_F(SectionServices, ChosenAddressesAreHonoured)
{
    Fs().File("\\f")->Data = std::string(Page, '.');
    const File file("f");
    HANDLE section = nullptr;
    ASSERT_EQ(MakeSection(file.Handle(), {}, &section), STATUS_SUCCESS);
    char *base = nullptr, *second = nullptr;
    ASSERT_EQ(MakeView(section, {}, &base), STATUS_SUCCESS);
    EXPECT_EQ(MakeView(section, {.Base = base}, &second), STATUS_CONFLICTING_ADDRESSES);
    EXPECT_EQ(NtUnmapViewOfSection(NtCurrentProcess(), base), STATUS_SUCCESS);
    EXPECT_EQ(MakeView(section, {.Base = base}, &second), STATUS_SUCCESS);
    EXPECT_EQ(second, base);
    EXPECT_EQ(Bytes(second, 1), ".");
    EXPECT_EQ(NtUnmapViewOfSection(NtCurrentProcess(), base), STATUS_SUCCESS);
    EXPECT_EQ(NtClose(section), STATUS_SUCCESS);
}

TEST_F(SectionServices, NamedSectionsAreFoundAgain)
{
    Fs().File("\\f")->Data = "content";
    const File file("f");
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"\\??\\TheSection");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_OPENIF, nullptr, nullptr);
    HANDLE first = nullptr, second = nullptr;
    const auto create = [&](HANDLE* section) {
        return NtCreateSection(section, SECTION_ALL_ACCESS, &attributes, nullptr, PAGE_READWRITE, SEC_COMMIT,
                               file.Handle());
    };
    EXPECT_EQ(create(&first), STATUS_SUCCESS);
    EXPECT_EQ(create(&second), STATUS_OBJECT_NAME_EXISTS);
    EXPECT_EQ(nthost::DataSectionOf(file.Object()).Sections, 1u);
    EXPECT_EQ(NtClose(first), STATUS_SUCCESS);
    EXPECT_EQ(NtClose(second), STATUS_SUCCESS);
    EXPECT_EQ(create(&first), STATUS_SUCCESS);
    EXPECT_EQ(NtClose(first), STATUS_SUCCESS);
}

// Every allocation on the way of every service fails once; nothing is left of what failed. As a driver would call,
// since only its calls can be made to fail.
TEST_F(SectionServices, EachAllocationMayFail)
{
    Fs().File("\\f")->Data = "content";
    const File file("f");
    const auto scenario = [&] {
        HANDLE section = nullptr;
        if (!NT_SUCCESS(MakeSection(file.Handle(), {.Size = 100}, &section))) return;
        char* base = nullptr;
        if (NT_SUCCESS(MakeView(section, {}, &base))) {
            IO_STATUS_BLOCK block{};
            PVOID at = base;
            SIZE_T size = 0;
            if (NT_SUCCESS(Poke(base, 'C')) &&
                !NT_SUCCESS(NtFlushVirtualMemory(NtCurrentProcess(), &at, &size, &block)))
                EXPECT_EQ(nthost::DataSectionOf(file.Object()).DirtyPages, 1u);
            EXPECT_EQ(NtUnmapViewOfSection(NtCurrentProcess(), base), STATUS_SUCCESS);
        }
        EXPECT_EQ(NtClose(section), STATUS_SUCCESS);
    };
    const auto asDriver = [&](unsigned) {
        nthost::CallDriver(
            nthost::MustRestore::Nothing, "test", [](decltype(scenario)* body) { (*body)(); }, &scenario);
        EXPECT_LE(nthost::TrimSections(), 1u);
        Fs().File("\\f")->Data = "content";
    };
    EXPECT_EQ(nthost::SweepFaults("NtCreateSection", asDriver), 2u);
    EXPECT_EQ(nthost::SweepFaults("NtMapViewOfSection", asDriver), 1u);
    EXPECT_EQ(nthost::SweepFaults("IoAllocateIrp", asDriver), 4u); // size, extension, read, write
    EXPECT_EQ(nthost::SweepFaults("MmMapLockedPagesSpecifyCache", asDriver), 2u);
}

} // namespace
