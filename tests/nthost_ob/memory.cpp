// User memory under MDLs: what a request has locked stays usable whatever its process does with the address.
#include <cstring>

#include "ke/callout.h"
#include "fixture.h"
#include "ke/guarded.h"
#include <nthost/routines.h>
#include <nthost/user_memory.h>

using namespace nthost;
using ke::Guarded;

namespace nthost_ob {

namespace {

using MemoryTest = ObTest;

// An MDL on a range; what the test left locked is a mistake of the test.
class Range {
public:
    Range(void* address, size_t length)
        : mdl_(IoAllocateMdl(address, static_cast<ULONG>(length), FALSE, FALSE, nullptr))
    {}
    ~Range() { IoFreeMdl(mdl_); }
    Range(const Range&) = delete;

    NTSTATUS Lock(LOCK_OPERATION operation, KPROCESSOR_MODE mode = UserMode)
    {
        return Guarded([&] { MmProbeAndLockPages(mdl_, mode, operation); });
    }
    char* Map() const
    {
        return static_cast<char*>(
            MmMapLockedPagesSpecifyCache(mdl_, KernelMode, MmCached, nullptr, FALSE, NormalPagePriority));
    }
    PMDL Get() const { return mdl_; }

private:
    PMDL mdl_;
};

std::vector<std::string> TakeRules()
{
    std::vector<std::string> rules;
    for (const Finding& finding : TakeFindings()) rules.push_back(finding.Rule);
    return rules;
}

using Rules = std::vector<std::string>;

} // namespace

TEST_F(MemoryTest, LockedPagesOutliveTheirAddress)
{
    UserMemory memory(3 * PAGE_SIZE);
    char* const user = memory.Address() + PAGE_SIZE - 8; // across a page
    memcpy(user, "from user, far", 14);
    Range range(user, 16);
    ASSERT_EQ(range.Lock(IoWriteAccess), STATUS_SUCCESS);
    EXPECT_EQ(memory.LockedCount(), 1u);
    EXPECT_EQ(range.Get()->MdlFlags, MDL_PAGES_LOCKED | MDL_WRITE_OPERATION);
    EXPECT_EQ(range.Get()->Process, HostProcess());

    memory.Unmap();
    char* const system = range.Map();
    ASSERT_NE(system, nullptr);
    EXPECT_NE(system, user);
    EXPECT_EQ(BYTE_OFFSET(system), BYTE_OFFSET(user));
    EXPECT_EQ(memcmp(system, "from user, far", 14), 0);
    memcpy(system, "from kernel", 11);
    EXPECT_EQ(range.Map(), system); // one system address per MDL
    EXPECT_EQ(Guarded([&] { (void)*static_cast<volatile char*>(user); }), STATUS_ACCESS_VIOLATION);

    memory.Map();
    EXPECT_EQ(memcmp(user, "from kernel far", 11), 0);
    MmUnlockPages(range.Get());
    EXPECT_EQ(range.Get()->MdlFlags, 0);
    EXPECT_EQ(memory.LockedCount(), 0u);
    EXPECT_EQ(Guarded([&] { (void)*static_cast<volatile char*>(system); }), STATUS_ACCESS_VIOLATION);
}

TEST_F(MemoryTest, FreedMemoryCannotBeLockedAgain)
{
    UserMemory memory(PAGE_SIZE);
    strcpy(memory.Address(), "kept");
    Range held(memory.Address(), 8), late(memory.Address(), 8);
    ASSERT_EQ(held.Lock(IoReadAccess), STATUS_SUCCESS);
    memory.Free();
    memory.Map(); // nothing comes back
    EXPECT_EQ(late.Lock(IoReadAccess), STATUS_ACCESS_VIOLATION);
    EXPECT_STREQ(held.Map(), "kept");
    MmUnlockPages(held.Get());
}

TEST_F(MemoryTest, LockingChecksEveryPageFirst)
{
    UserMemory memory(2 * PAGE_SIZE);
    char* const user = memory.Address();
    enum Protection { Full, ReadOnly, None };
    const struct {
        const char* Case;
        Protection Pages;
        char* Start;
        size_t Length;
        LOCK_OPERATION Operation;
        NTSTATUS Status;
    } rows[] = {
        {"read of readable", ReadOnly, user, 2 * PAGE_SIZE, IoReadAccess, STATUS_SUCCESS},
        {"write of read-only", ReadOnly, user, 1, IoWriteAccess, STATUS_ACCESS_VIOLATION},
        {"modify of read-only", ReadOnly, user, 1, IoModifyAccess, STATUS_ACCESS_VIOLATION},
        {"write of writable", Full, user, 2 * PAGE_SIZE, IoWriteAccess, STATUS_SUCCESS},
        {"read of nothing", None, user, 1, IoReadAccess, STATUS_ACCESS_VIOLATION},
        {"last page missing", Full, user + 1, 2 * PAGE_SIZE, IoReadAccess, STATUS_ACCESS_VIOLATION},
        {"null", Full, nullptr, 1, IoReadAccess, STATUS_ACCESS_VIOLATION},
        {"beyond user space", Full, reinterpret_cast<char*>(MM_USER_PROBE_ADDRESS), 1, IoReadAccess,
         STATUS_ACCESS_VIOLATION},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.Case);
        memory.Protect(row.Pages != None, row.Pages == Full);
        Range range(row.Start, row.Length);
        const MDL before = *range.Get();
        EXPECT_EQ(range.Lock(row.Operation), row.Status);
        if (NT_SUCCESS(row.Status))
            MmUnlockPages(range.Get());
        else
            EXPECT_EQ(memcmp(&before, range.Get(), sizeof before), 0);
        EXPECT_EQ(memory.LockedCount(), 0u);
    }
}

TEST_F(MemoryTest, OtherMemoryKeepsItsAddress)
{
    char stack[64] = "stack";
    Range range(stack, sizeof stack);
    ASSERT_EQ(range.Lock(IoModifyAccess, KernelMode), STATUS_SUCCESS);
    EXPECT_EQ(range.Map(), stack);
    MmUnlockPages(range.Get());

    Range pool(stack, sizeof stack);
    MmBuildMdlForNonPagedPool(pool.Get());
    EXPECT_EQ(pool.Map(), stack);
    EXPECT_EQ(pool.Get()->MdlFlags, MDL_SOURCE_IS_NONPAGED_POOL);
}

TEST_F(MemoryTest, MdlsOfARequest)
{
    IRP irp{};
    char bytes[3];
    PMDL const first = IoAllocateMdl(bytes, 1, FALSE, FALSE, &irp);
    PMDL const second = IoAllocateMdl(bytes + 1, 1, TRUE, FALSE, &irp);
    PMDL const third = IoAllocateMdl(bytes + 2, 1, TRUE, FALSE, &irp);
    EXPECT_EQ(irp.MdlAddress, first);
    EXPECT_EQ(first->Next, second);
    EXPECT_EQ(second->Next, third);
    EXPECT_EQ(MmGetMdlVirtualAddress(third), bytes + 2);
    for (PMDL mdl : {first, second, third}) IoFreeMdl(mdl);
}

TEST_F(MemoryTest, MistakesAreFound)
{
    const QuietFindings quiet;
    char bytes[8];
    {
        Range range(bytes, sizeof bytes);
        MmUnlockPages(range.Get());
        EXPECT_EQ(range.Map(), nullptr);
        EXPECT_EQ(range.Lock(IoReadAccess), STATUS_SUCCESS);
        EXPECT_EQ(range.Lock(IoReadAccess), STATUS_SUCCESS);
        MmUnmapLockedPages(bytes, range.Get());
    }
    EXPECT_EQ(TakeRules(),
              (Rules{"mdl-not-locked", "mdl-not-locked", "mdl-already-locked", "mdl-not-mapped", "mdl-freed-locked"}));
    {
        Range nothing(bytes, 0);
        EXPECT_EQ(nothing.Lock(IoReadAccess), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(nothing.Get()->MdlFlags & MDL_PAGES_LOCKED, 0);
    }
    EXPECT_EQ(TakeRules(), Rules{"mdl-empty"});

    auto* const memory = new UserMemory(PAGE_SIZE);
    Range range(memory->Address(), 1);
    ASSERT_EQ(range.Lock(IoReadAccess), STATUS_SUCCESS);
    delete memory;
    EXPECT_EQ(TakeRules(), Rules{"pages-still-locked"});
    EXPECT_EQ(*range.Map(), 0); // still no dangling page
    MmUnlockPages(range.Get());
}

namespace {

// Faults are injected into calls that drivers make.
template <typename Body>
void AsDriver(Body body)
{
    CallDriver(
        MustRestore::Nothing, "test", [](Body* inner) { (*inner)(); }, &body);
}

} // namespace

TEST_F(MemoryTest, SystemRoutinesByName)
{
    const auto find = [](const wchar_t* name) { return MmGetSystemRoutineAddress(Name(name)); };
    EXPECT_EQ(find(L"ObfReferenceObject"), reinterpret_cast<PVOID>(ObfReferenceObject));
    EXPECT_EQ(find(L"obfreferenceobject"), nullptr); // exported names are exact
    EXPECT_EQ(find(L"ObfReferenceObject2"), nullptr);
    EXPECT_EQ(find(L"ObfReferenceObject\x1234"), nullptr);
    EXPECT_EQ(find(L""), nullptr);
    {
        const HiddenRoutine hidden("ObfReferenceObject"), twice("ObfReferenceObject");
        {
            const HiddenRoutine other("ObfReferenceObject");
        }
        EXPECT_EQ(find(L"ObfReferenceObject"), nullptr);
        EXPECT_NE(find(L"ObfDereferenceObject"), nullptr);
    }
    EXPECT_NE(find(L"ObfReferenceObject"), nullptr);

    // Of a variable, the address: an object type is one load away from it.
    const auto type = *static_cast<POBJECT_TYPE*>(find(L"PsThreadType"));
    PVOID thread = nullptr;
    EXPECT_EQ(ObReferenceObjectByHandle(NtCurrentThread(), 0, type, UserMode, &thread, nullptr), STATUS_SUCCESS);
    if (thread) ObDereferenceObject(thread);
}

} // namespace nthost_ob
