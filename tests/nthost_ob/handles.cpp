// Handles: values, who may use them, duplicates, and the order in which an object's type hears of closes.
#include "fixture.h"
#include "ob/header.h"
#include <nthost/user_memory.h>

using namespace nthost;

namespace nthost_ob {

namespace {

using HandleTest = ObTest;

std::vector<std::string> g_log;

void LogClose(PEPROCESS, void* body, ACCESS_MASK, ULONG processRemaining, ULONG remaining)
{
    EXPECT_GT(ob::PointerCount(body), 0);
    g_log.push_back("close " + std::to_string(processRemaining) + "/" + std::to_string(remaining));
}

void LogDelete(void*) { g_log.push_back("delete"); }

OBJECT_TYPE g_loggedType{.Name = "Logged",
                         .Mapping = {0x1, 0x2, 0x4, 0x7},
                         .ValidAccess = 0x1f0007,
                         .UsesDispatcherHeader = false,
                         .WaitOffset = 0,
                         .Close = LogClose,
                         .Delete = LogDelete,
                         .Live = {}};

// An object of the logged type with one handle and no other reference.
HANDLE MakeLogged(PEPROCESS process, ACCESS_MASK granted = 0x3, ULONG attributes = 0)
{
    g_log.clear();
    void* const body = ob::CreateObject(&g_loggedType, 16);
    HANDLE handle = nullptr;
    EXPECT_EQ(ob::InsertHandle(body, process, granted, attributes, &handle), STATUS_SUCCESS);
    ObDereferenceObject(body);
    return handle;
}

HANDLE Offset(HANDLE handle, ptrdiff_t by) { return static_cast<char*>(handle) + by; }

using Log = std::vector<std::string>;

} // namespace

TEST_F(HandleTest, ReferenceByValue)
{
    const HANDLE user = MakeLogged(HostProcess(), 0x3);
    const HANDLE kernel = MakeLogged(HostProcess(), 0x3, OBJ_KERNEL_HANDLE);
    const struct {
        const char* Case;
        HANDLE Handle;
        ACCESS_MASK Desired;
        POBJECT_TYPE Type;
        KPROCESSOR_MODE Mode;
        NTSTATUS Status;
    } rows[] = {
        {"granted access", user, 0x3, &g_loggedType, UserMode, STATUS_SUCCESS},
        {"more than granted", user, 0x4, &g_loggedType, UserMode, STATUS_ACCESS_DENIED},
        {"the kernel is not checked", user, 0x4, &g_loggedType, KernelMode, STATUS_SUCCESS},
        {"any type", user, 0, nullptr, UserMode, STATUS_SUCCESS},
        {"another type", user, 0, ExEventObjectType, KernelMode, STATUS_OBJECT_TYPE_MISMATCH},
        {"type before access", user, 0x4, ExEventObjectType, UserMode, STATUS_OBJECT_TYPE_MISMATCH},
        {"the low bits are the application's", Offset(user, 3), 0x3, nullptr, UserMode, STATUS_SUCCESS},
        {"null", nullptr, 0, nullptr, KernelMode, STATUS_INVALID_HANDLE},
        {"beyond the table", Offset(user, 0x10000), 0, nullptr, UserMode, STATUS_INVALID_HANDLE},
        {"a kernel handle for the kernel", kernel, 0x3, nullptr, KernelMode, STATUS_SUCCESS},
        {"a kernel handle for a user", kernel, 0x3, nullptr, UserMode, STATUS_INVALID_HANDLE},
        {"the process itself", NtCurrentProcess(), PROCESS_DUP_HANDLE, PsProcessType, UserMode, STATUS_SUCCESS},
        {"the thread itself", NtCurrentThread(), SYNCHRONIZE, PsThreadType, UserMode, STATUS_SUCCESS},
        {"no other pseudo handle", reinterpret_cast<HANDLE>(-3ll), 0, nullptr, KernelMode, STATUS_INVALID_HANDLE},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.Case);
        PVOID body = &body;
        OBJECT_HANDLE_INFORMATION information{};
        EXPECT_EQ(ObReferenceObjectByHandle(row.Handle, row.Desired, row.Type, row.Mode, &body, &information),
                  row.Status);
        EXPECT_EQ(body != nullptr, NT_SUCCESS(row.Status));
        if (body) ObDereferenceObject(body);
        EXPECT_EQ(NT_SUCCESS(row.Status), information.GrantedAccess != 0);
    }
    EXPECT_EQ(reinterpret_cast<ULONG_PTR>(kernel) & 0xffffffff80000003ull, 0xffffffff80000000ull);
    EXPECT_EQ(reinterpret_cast<ULONG_PTR>(user) & 0xffffffff80000003ull, 0u);
    EXPECT_EQ(NtClose(kernel), STATUS_INVALID_HANDLE);
    EXPECT_EQ(ZwClose(kernel), STATUS_SUCCESS);
    EXPECT_EQ(NtClose(user), STATUS_SUCCESS);
    EXPECT_EQ(NtClose(user), STATUS_INVALID_HANDLE);
    EXPECT_EQ(NtClose(NtCurrentProcess()), STATUS_INVALID_HANDLE);
}

TEST_F(HandleTest, TypeHearsOfEveryCloseAndThenOfTheEnd)
{
    Process other("other");
    const HANDLE first = MakeLogged(HostProcess());
    HANDLE second = nullptr, foreign = nullptr;
    PVOID body;
    ASSERT_EQ(ObReferenceObjectByHandle(first, 0, nullptr, KernelMode, &body, nullptr), STATUS_SUCCESS);
    ASSERT_EQ(ob::InsertHandle(body, HostProcess(), 1, 0, &second), STATUS_SUCCESS);
    ASSERT_EQ(ob::InsertHandle(body, other.Object(), 1, 0, &foreign), STATUS_SUCCESS);
    EXPECT_EQ(ob::HandleCount(body), 3);

    EXPECT_EQ(NtClose(first), STATUS_SUCCESS);
    EXPECT_EQ(NtClose(second), STATUS_SUCCESS);
    {
        const ActAs as(other.Object());
        EXPECT_EQ(NtClose(foreign), STATUS_SUCCESS);
    }
    EXPECT_EQ(g_log, (Log{"close 1/2", "close 0/1", "close 0/0"}));
    ObDereferenceObject(body);
    EXPECT_EQ(g_log.back(), "delete");
}

TEST_F(HandleTest, ProcessExitClosesWhatIsOpenAndRefusesMore)
{
    PVOID process;
    {
        Process other("other");
        process = other.Object();
        ObReferenceObject(process);
        (void)MakeLogged(other.Object());
    }
    EXPECT_EQ(g_log, (Log{"close 0/0", "delete"}));
    HANDLE handle;
    EXPECT_EQ(ob::InsertHandle(process, static_cast<PEPROCESS>(process), 0, 0, &handle), STATUS_PROCESS_IS_TERMINATING);
    ObDereferenceObject(process);
}

TEST_F(HandleTest, Duplicate)
{
    Process other("other");
    HANDLE otherHandle;
    ASSERT_EQ(ob::InsertHandle(other.Object(), HostProcess(), PROCESS_DUP_HANDLE, 0, &otherHandle), STATUS_SUCCESS);
    HANDLE weakHandle;
    ASSERT_EQ(ob::InsertHandle(other.Object(), HostProcess(), SYNCHRONIZE, 0, &weakHandle), STATUS_SUCCESS);
    const HANDLE self = NtCurrentProcess();

    const struct {
        const char* Case;
        HANDLE Target;
        ACCESS_MASK Desired;
        ULONG Options;
        NTSTATUS Status;
        ACCESS_MASK Granted;
        bool SourceStays;
    } rows[] = {
        {"same access", self, 0, DUPLICATE_SAME_ACCESS, STATUS_SUCCESS, 0x3, true},
        {"less access", self, 0x1, 0, STATUS_SUCCESS, 0x1, true},
        {"generic access", self, GENERIC_WRITE, 0, STATUS_SUCCESS, 0x2, true},
        {"all that there is", self, MAXIMUM_ALLOWED, 0, STATUS_SUCCESS, 0x3, true},
        {"access cannot be gained", self, 0x4, 0, STATUS_ACCESS_DENIED, 0, true},
        {"another process", otherHandle, 0, DUPLICATE_SAME_ACCESS, STATUS_SUCCESS, 0x3, true},
        {"no right to the other process", weakHandle, 0, DUPLICATE_SAME_ACCESS, STATUS_ACCESS_DENIED, 0, true},
        {"moved", self, 0, DUPLICATE_SAME_ACCESS | DUPLICATE_CLOSE_SOURCE, STATUS_SUCCESS, 0x3, false},
        {"closed even if it fails", self, 0x4, DUPLICATE_CLOSE_SOURCE, STATUS_ACCESS_DENIED, 0, false},
        {"only closed", nullptr, 0, DUPLICATE_CLOSE_SOURCE, STATUS_SUCCESS, 0, false},
        {"nothing asked for", nullptr, 0, 0, STATUS_INVALID_PARAMETER, 0, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.Case);
        const HANDLE source = MakeLogged(HostProcess(), 0x3);
        HANDLE made = nullptr;
        EXPECT_EQ(NtDuplicateObject(self, source, row.Target, &made, row.Desired, 0, row.Options), row.Status);
        EXPECT_EQ(made != nullptr, row.Granted != 0);
        if (made) {
            const ActAs as(row.Target == otherHandle ? other.Object() : HostProcess());
            PVOID body;
            OBJECT_HANDLE_INFORMATION information;
            ASSERT_EQ(ObReferenceObjectByHandle(made, 0, nullptr, UserMode, &body, &information), STATUS_SUCCESS);
            EXPECT_EQ(information.GrantedAccess, row.Granted);
            ObDereferenceObject(body);
            EXPECT_EQ(NtClose(made), STATUS_SUCCESS);
        }
        EXPECT_EQ(NtClose(source), row.SourceStays ? STATUS_SUCCESS : STATUS_INVALID_HANDLE);
        EXPECT_EQ(g_log.back(), "delete");
    }
    NtClose(otherHandle);
    NtClose(weakHandle);
}

TEST_F(HandleTest, BadTargetPointerLeavesNoHandle)
{
    UserMemory memory(PAGE_SIZE);
    const HANDLE source = MakeLogged(HostProcess());
    memory.Protect(true, false);
    EXPECT_EQ(NtDuplicateObject(NtCurrentProcess(), source, NtCurrentProcess(),
                                reinterpret_cast<PHANDLE>(memory.Address()), 0, 0, DUPLICATE_SAME_ACCESS),
              STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(NtClose(source), STATUS_SUCCESS);
    EXPECT_EQ(g_log, (Log{"close 0/0", "delete"}));
}

TEST_F(HandleTest, OpenByPointer)
{
    PVOID const body = ob::CreateObject(&g_loggedType, 16);
    const struct {
        ULONG Attributes;
        ACCESS_MASK Desired;
        POBJECT_TYPE Type;
        KPROCESSOR_MODE Mode;
        NTSTATUS Status;
        bool KernelHandle;
    } rows[] = {
        {0, 0x1, &g_loggedType, UserMode, STATUS_SUCCESS, false},
        {OBJ_KERNEL_HANDLE, 0x1, &g_loggedType, KernelMode, STATUS_SUCCESS, true},
        {OBJ_KERNEL_HANDLE, 0x1, nullptr, UserMode, STATUS_SUCCESS, false}, // users cannot make one
        {0, 0x1, PsThreadType, KernelMode, STATUS_OBJECT_TYPE_MISMATCH, false},
        {0, 0x10, &g_loggedType, UserMode, STATUS_ACCESS_DENIED, false}, // no right of this type
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        HANDLE handle = &handle;
        EXPECT_EQ(ObOpenObjectByPointer(body, row.Attributes, nullptr, row.Desired, row.Type, row.Mode, &handle),
                  row.Status);
        EXPECT_EQ(reinterpret_cast<LONG_PTR>(handle) < 0, row.KernelHandle);
        EXPECT_EQ(ZwClose(handle), handle ? STATUS_SUCCESS : STATUS_INVALID_HANDLE);
    }
    ObDereferenceObject(body);
}

TEST_F(HandleTest, LeftHandlesAndObjectsAreListed)
{
    const size_t before = ob::LiveObjects().size();
    HANDLE event;
    Attributes attributes(L"\\BaseNamedObjects\\Left");
    ASSERT_EQ(NtCreateEvent(&event, EVENT_ALL_ACCESS, attributes, NotificationEvent, FALSE), STATUS_SUCCESS);
    const std::vector<ob::LiveObject> live = ob::LiveObjects();
    ASSERT_EQ(live.size(), before + 1);
    bool found = false;
    for (const ob::LiveObject& object : live)
        found |= object.Type == "Event" && object.Name == "\\BaseNamedObjects\\Left" && object.Handles == 1;
    EXPECT_TRUE(found);
    ASSERT_EQ(ob::OpenHandles(HostProcess()).size(), 1u);
    EXPECT_NE(ob::OpenHandles(HostProcess())[0].find("Event \\BaseNamedObjects\\Left"), std::string::npos);
    EXPECT_EQ(NtClose(event), STATUS_SUCCESS);
    EXPECT_EQ(ob::LiveObjects().size(), before);
}

// Two threads open, use and close handles in one table while a third duplicates: no handle is ever someone else's.
TEST_F(HandleTest, TableUnderContention)
{
    const HANDLE shared = MakeEvent();
    auto work = [shared] {
        for (int i = 0; i < 2000; ++i) {
            HANDLE mine;
            ASSERT_EQ(
                NtDuplicateObject(NtCurrentProcess(), shared, NtCurrentProcess(), &mine, 0, 0, DUPLICATE_SAME_ACCESS),
                STATUS_SUCCESS);
            PVOID body;
            ASSERT_EQ(ObReferenceObjectByHandle(mine, 0, ExEventObjectType, UserMode, &body, nullptr), STATUS_SUCCESS);
            ASSERT_EQ(NtClose(mine), STATUS_SUCCESS);
            ObDereferenceObject(body);
        }
    };
    std::thread first = StartThread(HostProcess(), work), second = StartThread(HostProcess(), work);
    work();
    first.join();
    second.join();
    EXPECT_EQ(NtClose(shared), STATUS_SUCCESS);
}

TEST_F(HandleTest, CountsBelowZeroAreFatal)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    PVOID const body = ob::CreateObject(&g_loggedType, 16);
    EXPECT_DEATH(
        {
            ob::HeaderOf(body)->Pointers = 0;
            ObDereferenceObject(body);
        },
        "dereferenced below zero");
    ObDereferenceObject(body);
}

} // namespace nthost_ob
