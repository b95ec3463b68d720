// Extended attributes: which lists are well-formed, and how they travel with creates, queries and changes.
#include "probe.h"

#include <cstring>

using namespace probe;

namespace {

using Bytes = std::vector<char>;

struct Attribute {
    std::string Name;
    std::string Value;
};

void PadTo4(Bytes* list) { list->resize((list->size() + 3) / 4 * 4); }

void Link(Bytes* list, size_t record)
{
    const auto distance = static_cast<ULONG>(list->size() - record);
    memcpy(list->data() + record, &distance, sizeof distance);
}

Bytes ListOf(const std::vector<Attribute>& attributes)
{
    Bytes list;
    size_t last = 0;
    for (const Attribute& attribute : attributes) {
        PadTo4(&list);
        if (!list.empty()) Link(&list, last);
        last = list.size();
        FILE_FULL_EA_INFORMATION header{};
        header.EaNameLength = static_cast<UCHAR>(attribute.Name.size());
        header.EaValueLength = static_cast<USHORT>(attribute.Value.size());
        const char* const bytes = reinterpret_cast<const char*>(&header);
        list.insert(list.end(), bytes, bytes + FIELD_OFFSET(FILE_FULL_EA_INFORMATION, EaName));
        list.insert(list.end(), attribute.Name.c_str(), attribute.Name.c_str() + attribute.Name.size() + 1);
        list.insert(list.end(), attribute.Value.begin(), attribute.Value.end());
    }
    return list;
}

Bytes NamesOf(const std::vector<std::string>& names)
{
    Bytes list;
    size_t last = 0;
    for (const std::string& name : names) {
        PadTo4(&list);
        if (!list.empty()) Link(&list, last);
        last = list.size();
        list.insert(list.end(), {0, 0, 0, 0, static_cast<char>(name.size())});
        list.insert(list.end(), name.c_str(), name.c_str() + name.size() + 1);
    }
    return list;
}

// One malformed form each, of the list {"one" = "1", "second" = "22"}: 16 bytes padded, then 17.
constexpr int WellFormed = -1;
constexpr ULONG SecondAt = 16, ListSize = 33;
struct Form {
    const char* What;
    void (*Spoil)(Bytes&);
    int BadRecord; // its offset
};

constexpr Form kForms[] = {
    {"whole", [](Bytes&) {}, WellFormed},
    {"rest behind the last", [](Bytes& list) { list.resize(list.size() + 7); }, WellFormed},
    {"empty", [](Bytes& list) { list.clear(); }, 0},
    {"less than a header", [](Bytes& list) { list.resize(7); }, 0},
    {"header only", [](Bytes& list) { list.resize(8); }, 0},
    {"value cut off", [](Bytes& list) { list.pop_back(); }, SecondAt},
    {"nothing behind a link", [](Bytes& list) { list.resize(SecondAt); }, SecondAt},
    {"link beyond the end", [](Bytes& list) { list.resize(14); }, 0},
    {"no NUL behind the name", [](Bytes& list) { list[SecondAt + 8 + 6] = 'x'; }, SecondAt},
    {"name longer than the list", [](Bytes& list) { list[SecondAt + 5] = 100; }, SecondAt},
    {"link too short", [](Bytes& list) { list[0] = 12; }, 0},
    {"link not on a boundary", [](Bytes& list) { list[0] = 13; }, 0},
    {"link too long", [](Bytes& list) { list[0] = 20; }, 0},
    {"link of the last to its own end", [](Bytes& list) { list.resize(36), list[SecondAt] = 20; }, 36},
    {"link backwards", [](Bytes& list) { memset(&list[0], 0xff, 4); }, 0},
    {"value longer than the list", [](Bytes& list) { list[SecondAt + 7] = 0x7f; }, SecondAt},
};

Bytes Spoilt(const Form& form)
{
    Bytes list = ListOf({{"one", "1"}, {"second", "22"}});
    EXPECT_EQ(list.size(), ListSize);
    form.Spoil(list);
    list.shrink_to_fit(); // so that a look beyond the end is found
    return list;
}

PFILE_FULL_EA_INFORMATION AsList(Bytes& list) { return reinterpret_cast<PFILE_FULL_EA_INFORMATION>(list.data()); }

TEST(EaList, IsExactlyAChainOfWholeRecords)
{
    for (const Form& form : kForms) {
        Bytes list = Spoilt(form);
        ULONG offset = 4711;
        const NTSTATUS status = IoCheckEaBufferValidity(AsList(list), static_cast<ULONG>(list.size()), &offset);
        EXPECT_EQ(status, form.BadRecord == WellFormed ? STATUS_SUCCESS : STATUS_EA_LIST_INCONSISTENT) << form.What;
        EXPECT_EQ(offset, form.BadRecord == WellFormed ? 4711u : static_cast<ULONG>(form.BadRecord)) << form.What;
    }
}

class Ea : public IoTest {
protected:
    NTSTATUS CreateWith(void* buffer, ULONG length)
    {
        Name path(L"\\??\\Probe\\file");
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, path, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        HANDLE handle;
        block = {};
        const NTSTATUS status =
            NtCreateFile(&handle, FILE_READ_DATA, &attributes, &block, nullptr, 0, 0, FILE_CREATE, 0, buffer, length);
        if (status == STATUS_SUCCESS) NtClose(handle);
        return status;
    }

    IO_STATUS_BLOCK block{};
};

TEST_F(Ea, CreateBringsACheckedCopy)
{
    Bytes sent;
    Driver().Majors[IRP_MJ_CREATE] = [&](PDEVICE_OBJECT, PIRP irp) {
        const ULONG length = IoGetCurrentIrpStackLocation(irp)->Parameters.Create.EaLength;
        const auto* const list = static_cast<const char*>(irp->AssociatedIrp.SystemBuffer);
        EXPECT_EQ(list != nullptr, length != 0);
        sent.assign(list, list + length);
        return Complete(irp, STATUS_SUCCESS, FILE_CREATED);
    };
    for (const Form& form : kForms) {
        SCOPED_TRACE(form.What);
        Bytes list = Spoilt(form);
        if (list.empty()) continue; // is no list
        sent.clear();
        const NTSTATUS status = CreateWith(list.data(), static_cast<ULONG>(list.size()));
        if (form.BadRecord == WellFormed) {
            EXPECT_EQ(status, STATUS_SUCCESS);
            EXPECT_EQ(sent, list);
        } else {
            EXPECT_EQ(status, STATUS_EA_LIST_INCONSISTENT);
            EXPECT_EQ(block.Information, static_cast<ULONG_PTR>(form.BadRecord));
            EXPECT_EQ(sent, Bytes());
        }
    }
    Bytes list = ListOf({{"a", "1"}});
    EXPECT_EQ(CreateWith(nullptr, 12), STATUS_SUCCESS);
    EXPECT_EQ(CreateWith(list.data(), 0), STATUS_SUCCESS);
    EXPECT_EQ(sent, Bytes());
    EXPECT_EQ(CreateWith(list.data() + 2, 8), STATUS_DATATYPE_MISALIGNMENT);
    EXPECT_EQ(CreateWith(reinterpret_cast<void*>(16), 8), STATUS_ACCESS_VIOLATION);
}

TEST_F(Ea, RedirectedCreateBringsThemAgain)
{
    Bytes list = ListOf({{"a", "1"}});
    Driver().Majors[IRP_MJ_CREATE] = [&](PDEVICE_OBJECT, PIRP irp) {
        EXPECT_EQ(IoGetCurrentIrpStackLocation(irp)->Parameters.Create.EaLength, list.size());
        EXPECT_EQ(memcmp(irp->AssociatedIrp.SystemBuffer, list.data(), list.size()), 0);
        if (Seen(IRP_MJ_CREATE) > 1) return Complete(irp, STATUS_SUCCESS);
        Name name(L"\\??\\Probe\\elsewhere");
        EXPECT_EQ(IoReplaceFileObjectName(IoGetCurrentIrpStackLocation(irp)->FileObject, name->Buffer, name->Length),
                  STATUS_SUCCESS);
        return Complete(irp, STATUS_REPARSE, IO_REPARSE);
    };
    EXPECT_EQ(CreateWith(list.data(), static_cast<ULONG>(list.size())), STATUS_SUCCESS);
    EXPECT_EQ(Seen(IRP_MJ_CREATE), 2u);
}

TEST_F(Ea, QueryTellsTheDriverWhatIsWanted)
{
    const Bytes names = NamesOf({"first", "b"});
    const struct {
        BOOLEAN Single;
        const Bytes* Names;
        ULONG Index; // 0: none
        BOOLEAN Restart;
        UCHAR Flags;
    } rows[] = {
        {FALSE, nullptr, 0, FALSE, 0},
        {TRUE, nullptr, 3, FALSE, SL_RETURN_SINGLE_ENTRY | SL_INDEX_SPECIFIED},
        {FALSE, &names, 0, TRUE, SL_RESTART_SCAN},
        {TRUE, &names, 7, TRUE, SL_RETURN_SINGLE_ENTRY | SL_INDEX_SPECIFIED | SL_RESTART_SCAN},
    };
    const Opened opened = Open({.Access = FILE_READ_EA | SYNCHRONIZE, .Options = 0});
    alignas(4) char buffer[64];
    for (const auto& row : rows) {
        Driver().Majors[IRP_MJ_QUERY_EA] = [&](PDEVICE_OBJECT, PIRP irp) {
            const IO_STACK_LOCATION& location = *IoGetCurrentIrpStackLocation(irp);
            const auto& query = location.Parameters.QueryEa;
            EXPECT_EQ(location.Flags, row.Flags);
            EXPECT_EQ(query.Length, sizeof buffer);
            EXPECT_EQ(query.EaIndex, row.Index);
            EXPECT_EQ(query.EaListLength, row.Names ? names.size() : 0);
            EXPECT_EQ(query.EaList != nullptr, row.Names != nullptr);
            if (row.Names) { EXPECT_EQ(memcmp(query.EaList, names.data(), names.size()), 0); }
            EXPECT_NE(query.EaList, static_cast<const void*>(names.data())); // a copy
            EXPECT_EQ(irp->UserBuffer, buffer);
            EXPECT_TRUE(IoIsOperationSynchronous(irp));
            return Complete(irp, STATUS_SUCCESS, 12);
        };
        ULONG index = row.Index;
        Bytes list = row.Names ? *row.Names : Bytes();
        EXPECT_EQ(NtQueryEaFile(opened.Handle, &block, buffer, sizeof buffer, row.Single,
                                row.Names ? list.data() : nullptr, static_cast<ULONG>(list.size()),
                                row.Index ? &index : nullptr, row.Restart),
                  STATUS_SUCCESS)
            << (&row - rows);
        EXPECT_EQ(block.Information, 12u);
    }
    EXPECT_EQ(Seen(IRP_MJ_QUERY_EA), 4u);
    NtClose(opened.Handle);
}

TEST_F(Ea, QueryRefusesNamesThatAreNoChain)
{
    const struct {
        const char* What;
        void (*Spoil)(Bytes&);
        int BadRecord;
    } rows[] = {
        {"whole", [](Bytes&) {}, WellFormed}, // {"one", "second"}: 9 padded to 12, then 12
        {"header only", [](Bytes& list) { list.resize(5); }, 0},
        {"last cut off", [](Bytes& list) { list.pop_back(); }, 12},
        {"nothing behind a link", [](Bytes& list) { list.resize(12); }, 12},
        {"link not on a boundary", [](Bytes& list) { list[0] = 9; }, 0},
        {"link too long", [](Bytes& list) { list[0] = 16; }, 0},
        {"name longer than the list", [](Bytes& list) { list[12 + 4] = 20; }, 12},
    };
    const Opened opened = Open({.Access = FILE_READ_EA | SYNCHRONIZE});
    for (const auto& row : rows) {
        Bytes list = NamesOf({"one", "second"});
        row.Spoil(list);
        list.shrink_to_fit();
        alignas(4) char buffer[64];
        block = {};
        const NTSTATUS status = NtQueryEaFile(opened.Handle, &block, buffer, sizeof buffer, FALSE, list.data(),
                                              static_cast<ULONG>(list.size()), nullptr, FALSE);
        EXPECT_EQ(status, row.BadRecord == WellFormed ? STATUS_SUCCESS : STATUS_EA_LIST_INCONSISTENT) << row.What;
        EXPECT_EQ(block.Information, row.BadRecord == WellFormed ? 0u : static_cast<ULONG_PTR>(row.BadRecord));
    }
    EXPECT_EQ(Seen(IRP_MJ_QUERY_EA), 1u);
    NtClose(opened.Handle);
}

TEST_F(Ea, ServicesDemandTheirRightsAndGoodAddresses)
{
    Bytes list = ListOf({{"a", "1"}});
    const auto size = static_cast<ULONG>(list.size());
    const Opened bare = Open({.Access = SYNCHRONIZE}), reader = Open({.Access = FILE_READ_EA | SYNCHRONIZE}),
                 writer = Open({.Access = FILE_WRITE_EA | SYNCHRONIZE});
    const auto query = [&](HANDLE file, void* buffer) {
        return NtQueryEaFile(file, &block, buffer, 64, FALSE, nullptr, 0, nullptr, FALSE);
    };
    alignas(4) char buffer[72];
    EXPECT_EQ(query(bare.Handle, buffer), STATUS_ACCESS_DENIED);
    EXPECT_EQ(query(reader.Handle, buffer), STATUS_SUCCESS);
    EXPECT_EQ(query(reader.Handle, buffer + 2), STATUS_DATATYPE_MISALIGNMENT);
    EXPECT_EQ(query(reader.Handle, nullptr), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(NtSetEaFile(reader.Handle, &block, list.data(), size), STATUS_ACCESS_DENIED);
    EXPECT_EQ(NtSetEaFile(writer.Handle, &block, list.data(), size), STATUS_SUCCESS);
    EXPECT_EQ(NtSetEaFile(writer.Handle, &block, buffer + 2, size), STATUS_DATATYPE_MISALIGNMENT);
    for (const Opened* opened : {&bare, &reader, &writer}) NtClose(opened->Handle);
}

// With the caller's address as it is, the check is the driver's: the caller could change the list after any other.
TEST_F(Ea, ChangeIsCheckedWhereItIsCopied)
{
    Bytes list = ListOf({{"one", "1"}, {"second", "22"}});
    list.pop_back();
    const auto size = static_cast<ULONG>(list.size());
    Driver().Majors[IRP_MJ_SET_EA] = [&](PDEVICE_OBJECT, PIRP irp) {
        EXPECT_EQ(IoGetCurrentIrpStackLocation(irp)->Parameters.SetEa.Length, size);
        EXPECT_EQ(irp->UserBuffer, list.data());
        return Complete(irp, STATUS_EA_LIST_INCONSISTENT, 3);
    };
    const Opened plain = Open({.Access = FILE_WRITE_EA | SYNCHRONIZE});
    EXPECT_EQ(NtSetEaFile(plain.Handle, &block, list.data(), size), STATUS_EA_LIST_INCONSISTENT);
    EXPECT_EQ(block.Information, 3u);
    device->Flags |= DO_BUFFERED_IO;
    EXPECT_EQ(NtSetEaFile(plain.Handle, &block, list.data(), size), STATUS_EA_LIST_INCONSISTENT);
    EXPECT_EQ(block.Information, SecondAt);
    EXPECT_EQ(Seen(IRP_MJ_SET_EA), 1u);
    NtClose(plain.Handle);
}

} // namespace
