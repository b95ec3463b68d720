// Exceptions: guards, raises, real faults, and the probes that turn bad addresses into them.
#include <atomic>
#include <csignal>
#include <sys/mman.h>
#include <unistd.h>

#include "ke/callout.h"
#include "fixture.h"
#include "ke/thread.h"
#include "ke/guarded.h"
#include "ke/exceptions.h"
#include <nthost/user_memory.h>

using namespace nthost;
using ke::Guarded;

namespace nthost_ob {

namespace {

using GuardTest = ObTest;

volatile bool g_raise = true; // no compiler is to conclude that the recursion cannot end

[[gnu::noinline]] int RaiseFromDepth(int depth, NTSTATUS status)
{
    if (depth == 0 && g_raise) ExRaiseStatus(status);
    if (depth == 0) return 0;
    return RaiseFromDepth(depth - 1, status) + 1; // no tail call
}

thread_local char* volatile g_address;

#define NO_UB_CHECK __attribute__((noinline, no_sanitize("undefined"))) // which would stop a null pointer earlier

NO_UB_CHECK void Read() { (void)*static_cast<volatile char*>(g_address); }
NO_UB_CHECK void Write() { *static_cast<volatile char*>(g_address) = 1; }

NTSTATUS TryRead(char* address)
{
    g_address = address;
    return Guarded([] { Read(); });
}

NTSTATUS TryWrite(char* address)
{
    g_address = address;
    return Guarded([] { Write(); });
}

} // namespace

TEST_F(GuardTest, RaisesEndAtTheInnermostGuard)
{
    EXPECT_EQ(Guarded([] {}), STATUS_SUCCESS);
    EXPECT_EQ(Guarded([] { RaiseFromDepth(200, STATUS_DISK_FULL); }), STATUS_DISK_FULL);
    NTSTATUS inner = 0;
    int reached = 0;
    const NTSTATUS outer = Guarded([&] {
        inner = Guarded([] { ExRaiseDatatypeMisalignment(); });
        ++reached;
        if (!NT_SUCCESS(Guarded([] { ExRaiseAccessViolation(); }))) ExRaiseStatus(STATUS_CANCELLED); // from a handler
        ++reached;
    });
    EXPECT_EQ(inner, STATUS_DATATYPE_MISALIGNMENT);
    EXPECT_EQ(outer, STATUS_CANCELLED);
    EXPECT_EQ(reached, 1);
    EXPECT_EQ(ke::CurrentThread()->Guard, nullptr);
}

TEST_F(GuardTest, FaultsAreExceptions)
{
    UserMemory memory(2 * PAGE_SIZE);
    char* const page = memory.Address();
    for (int round = 0; round < 3; ++round) { // the signal must be free again after each
        EXPECT_EQ(TryRead(nullptr), STATUS_ACCESS_VIOLATION);
        EXPECT_EQ(TryRead(reinterpret_cast<char*>(0x1234567890abcdefull)), STATUS_ACCESS_VIOLATION); // no such address
        EXPECT_EQ(TryWrite(page), STATUS_SUCCESS);
        memory.Protect(true, false);
        EXPECT_EQ(TryWrite(page), STATUS_ACCESS_VIOLATION);
        EXPECT_EQ(TryRead(page), STATUS_SUCCESS);
        memory.Protect(false, false);
        EXPECT_EQ(TryRead(page), STATUS_ACCESS_VIOLATION);
        memory.Unmap();
        EXPECT_EQ(TryRead(page), STATUS_ACCESS_VIOLATION);
        memory.Map();
        EXPECT_EQ(*page, 1);
        EXPECT_EQ(TryRead(page - 1), STATUS_ACCESS_VIOLATION);
        EXPECT_EQ(TryRead(page + memory.Size()), STATUS_ACCESS_VIOLATION);
    }
    NTSTATUS inner = 0;
    EXPECT_EQ(Guarded([&] {
                  inner = TryRead(nullptr);
                  Read();
              }),
              STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(inner, STATUS_ACCESS_VIOLATION);
}

TEST_F(GuardTest, LostPagesAreInPageErrors)
{
    const int memfd = memfd_create("short", 0);
    ASSERT_EQ(ftruncate(memfd, PAGE_SIZE), 0);
    void* const view = mmap(nullptr, PAGE_SIZE, PROT_READ, MAP_SHARED, memfd, 0);
    ASSERT_NE(view, MAP_FAILED);
    ASSERT_EQ(ftruncate(memfd, 0), 0);
    EXPECT_EQ(TryRead(static_cast<char*>(view)), STATUS_IN_PAGE_ERROR);
    munmap(view, PAGE_SIZE);
    close(memfd);
}

TEST_F(GuardTest, JumpsPutBackWhatCallsIntoDriversChange)
{
    const NTSTATUS status = Guarded([] {
        CallDriver(MustRestore::Nothing, "test", [] {
            ke::CurrentThread()->CurrentIrp = reinterpret_cast<PIRP>(16);
            EXPECT_EQ(ExGetPreviousMode(), KernelMode);
            ExRaiseAccessViolation();
        });
    });
    EXPECT_EQ(status, STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(ke::CurrentThread()->Calls, nullptr);
    EXPECT_EQ(ke::CurrentThread()->CurrentIrp, nullptr);
    EXPECT_EQ(ExGetPreviousMode(), UserMode);
}

TEST_F(GuardTest, ThreadsFaultIndependently)
{
    auto raise = [] {
        for (int i = 0; i < 200; ++i) {
            EXPECT_EQ(TryRead(nullptr), STATUS_ACCESS_VIOLATION);
            EXPECT_EQ(Guarded([] { RaiseFromDepth(3, STATUS_CANCELLED); }), STATUS_CANCELLED);
        }
    };
    std::thread other = StartThread(HostProcess(), raise);
    raise();
    other.join();
}

namespace {
char* g_lazyPage;
int g_resolved;

NTSTATUS MapLazily(void* address, bool write)
{
    if (!g_lazyPage || PAGE_ALIGN(address) != g_lazyPage) return STATUS_NOT_MAPPED_VIEW;
    // A hook may itself meet bad memory.
    EXPECT_EQ(Guarded([] { ExRaiseAccessViolation(); }), STATUS_ACCESS_VIOLATION);
    mprotect(g_lazyPage, PAGE_SIZE, write ? PROT_READ | PROT_WRITE : PROT_READ);
    ++g_resolved;
    return STATUS_SUCCESS;
}
} // namespace

TEST_F(GuardTest, HooksResolveFaultsBeforeGuardsSeeThem)
{
    ke::AddFaultHook(MapLazily);
    g_resolved = 0;
    void* const page = mmap(nullptr, PAGE_SIZE, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    g_lazyPage = static_cast<char*>(page);
    g_address = g_lazyPage;
    Read();
    EXPECT_EQ(TryWrite(g_lazyPage), STATUS_SUCCESS);
    EXPECT_EQ(g_resolved, 2);
    g_lazyPage = nullptr;
    munmap(page, PAGE_SIZE);
}

TEST_F(GuardTest, WithoutAGuardItIsTheEnd)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(ExRaiseStatus(STATUS_DISK_FULL), "STATUS_DISK_FULL raised outside of any guard");
    g_address = nullptr;
    EXPECT_DEATH(Read(), "fault outside of any guard: read of address");
    NT_GUARD outer, inner;
    NtGuardPush(&outer);
    NtGuardPush(&inner);
    EXPECT_DEATH(NtGuardLeave(&outer), "innermost");
    NtGuardLeave(&inner);
    NtGuardLeave(&outer);
    EXPECT_DEATH((void)Guarded([] { raise(SIGSEGV); }), ""); // a signal that was sent is no fault
}

TEST_F(GuardTest, Probes)
{
    UserMemory memory(3 * PAGE_SIZE);
    char* const start = memory.Address();
    char* const beyond = reinterpret_cast<char*>(MM_USER_PROBE_ADDRESS);
    constexpr NTSTATUS bad = STATUS_ACCESS_VIOLATION, misaligned = STATUS_DATATYPE_MISALIGNMENT;
    constexpr size_t huge = ~size_t{0};
    const struct {
        const char* Case;
        char* Address;
        size_t Length;
        ULONG Alignment;
        NTSTATUS Read;
        NTSTATUS Write;
    } rows[] = {
        {"good", start, 3 * PAGE_SIZE, 8, STATUS_SUCCESS, STATUS_SUCCESS},
        {"nothing to check", nullptr, 0, 8, STATUS_SUCCESS, STATUS_SUCCESS},
        {"nothing to check, misaligned", start + 1, 0, 8, STATUS_SUCCESS, STATUS_SUCCESS},
        {"misaligned", start + 2, 1, 4, misaligned, misaligned},
        {"aligned enough", start + 2, 1, 2, STATUS_SUCCESS, STATUS_SUCCESS},
        {"misaligned and out of range", beyond + 1, 1, 4, misaligned, misaligned},
        {"null is found on access only", nullptr, 1, 1, STATUS_SUCCESS, bad},
        {"last user byte", beyond - 1, 1, 1, STATUS_SUCCESS, bad},
        {"beyond user space", beyond, 1, 1, bad, bad},
        {"across the end of user space", beyond - 1, 2, 1, bad, bad},
        {"wraps around", start, huge, 1, bad, bad},
        {"a page past the end", start + PAGE_SIZE, 2 * PAGE_SIZE + 1, 1, STATUS_SUCCESS, bad},
        {"every page is touched", start + PAGE_SIZE - 1, 2 * PAGE_SIZE + 2, 1, STATUS_SUCCESS, bad},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.Case);
        EXPECT_EQ(Guarded([&] { ProbeForRead(row.Address, row.Length, row.Alignment); }), row.Read);
        EXPECT_EQ(Guarded([&] { ProbeForWrite(row.Address, row.Length, row.Alignment); }), row.Write);
    }
    start[PAGE_SIZE] = 7;
    memory.Protect(true, false);
    EXPECT_EQ(Guarded([&] { ProbeForWrite(start, 1, 1); }), bad);
    EXPECT_EQ(start[PAGE_SIZE], 7); // probes change nothing
}

} // namespace nthost_ob
