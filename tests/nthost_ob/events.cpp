// Event services and waits by handle, from a user-mode caller's side.
#include <cstring>

#include "fixture.h"
#include <nthost/user_memory.h>

using namespace nthost;

namespace nthost_ob {

namespace {

using EventTest = ObTest;

NTSTATUS Poll(HANDLE handle)
{
    LARGE_INTEGER now{};
    return NtWaitForSingleObject(handle, FALSE, &now);
}

} // namespace

TEST_F(EventTest, SetResetAndWait)
{
    for (const EVENT_TYPE type : {NotificationEvent, SynchronizationEvent}) {
        const HANDLE event = MakeEvent(EVENT_ALL_ACCESS, type);
        LONG before = -1;
        EXPECT_EQ(Poll(event), STATUS_TIMEOUT);
        EXPECT_EQ(NtSetEvent(event, &before), STATUS_SUCCESS);
        EXPECT_EQ(before, 0);
        EXPECT_EQ(NtSetEvent(event, &before), STATUS_SUCCESS);
        EXPECT_EQ(before, 1);
        EXPECT_EQ(Poll(event), STATUS_SUCCESS);
        EXPECT_EQ(Poll(event), type == NotificationEvent ? STATUS_SUCCESS : STATUS_TIMEOUT);
        EXPECT_EQ(NtSetEvent(event, nullptr), STATUS_SUCCESS);
        EXPECT_EQ(NtResetEvent(event, &before), STATUS_SUCCESS);
        EXPECT_EQ(before, 1);
        EXPECT_EQ(Poll(event), STATUS_TIMEOUT);
        EXPECT_EQ(NtClose(event), STATUS_SUCCESS);
    }
}

TEST_F(EventTest, AccessIsChecked)
{
    const HANDLE waitOnly = MakeEvent(SYNCHRONIZE), setOnly = MakeEvent(EVENT_MODIFY_STATE);
    EXPECT_EQ(NtSetEvent(waitOnly, nullptr), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Poll(waitOnly), STATUS_TIMEOUT);
    EXPECT_EQ(NtSetEvent(setOnly, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(Poll(setOnly), STATUS_ACCESS_DENIED);
    HANDLE none;
    EXPECT_EQ(NtCreateEvent(&none, 0x8000, nullptr, NotificationEvent, FALSE), STATUS_ACCESS_DENIED);
    EXPECT_EQ(NtCreateEvent(&none, SYNCHRONIZE, nullptr, static_cast<EVENT_TYPE>(2), FALSE), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(NtSetEvent(NtCurrentThread(), nullptr), STATUS_OBJECT_TYPE_MISMATCH);
    NtClose(waitOnly);
    NtClose(setOnly);
}

TEST_F(EventTest, NamedEvents)
{
    const auto create = [](const wchar_t* name, ULONG flags, HANDLE* handle) {
        Attributes attributes(name, flags);
        return NtCreateEvent(handle, EVENT_ALL_ACCESS, attributes, NotificationEvent, FALSE);
    };
    HANDLE first, second, none = nullptr;
    ASSERT_EQ(create(L"\\BaseNamedObjects\\E", 0, &first), STATUS_SUCCESS);
    EXPECT_EQ(create(L"\\BaseNamedObjects\\e", 0, &none), STATUS_OBJECT_NAME_COLLISION);
    ASSERT_EQ(create(L"\\BaseNamedObjects\\e", OBJ_OPENIF, &second), STATUS_OBJECT_NAME_EXISTS);
    EXPECT_EQ(create(L"\\Device", OBJ_OPENIF, &none), STATUS_OBJECT_TYPE_MISMATCH);
    EXPECT_EQ(create(L"E", 0, &none), STATUS_OBJECT_PATH_SYNTAX_BAD);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(NtSetEvent(first, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(Poll(second), STATUS_SUCCESS);

    // The name lives as long as a handle does.
    NtClose(first);
    EXPECT_EQ(create(L"\\BaseNamedObjects\\E", 0, &none), STATUS_OBJECT_NAME_COLLISION);
    NtClose(second);
    ASSERT_EQ(create(L"\\BaseNamedObjects\\E", 0, &first), STATUS_SUCCESS);
    EXPECT_EQ(Poll(first), STATUS_TIMEOUT);
    NtClose(first);
}

TEST_F(EventTest, BadPointersAreStatuses)
{
    UserMemory memory(PAGE_SIZE);
    memory.Unmap();
    PVOID const bad = memory.Address();
    const HANDLE event = MakeEvent();
    constexpr NTSTATUS violation = STATUS_ACCESS_VIOLATION;
    EXPECT_EQ(NtCreateEvent(static_cast<PHANDLE>(bad), SYNCHRONIZE, nullptr, NotificationEvent, FALSE), violation);
    EXPECT_EQ(NtCreateEvent(nullptr, SYNCHRONIZE, nullptr, NotificationEvent, FALSE), violation);
    EXPECT_EQ(NtSetEvent(event, static_cast<PLONG>(bad)), violation);
    EXPECT_EQ(NtSetEvent(event, reinterpret_cast<PLONG>(static_cast<char*>(bad) + 1)), STATUS_DATATYPE_MISALIGNMENT);
    EXPECT_EQ(Poll(event), STATUS_TIMEOUT); // not set by the failed calls
    EXPECT_EQ(NtWaitForSingleObject(event, FALSE, static_cast<PLARGE_INTEGER>(bad)), violation);
    EXPECT_EQ(NtWaitForMultipleObjects(2, static_cast<HANDLE*>(bad), WaitAny, FALSE, nullptr), violation);

    OBJECT_ATTRIBUTES attributes;
    UNICODE_STRING name{8, 8, static_cast<PWCH>(bad)};
    InitializeObjectAttributes(&attributes, &name, 0, nullptr, nullptr);
    HANDLE none = nullptr;
    EXPECT_EQ(NtCreateEvent(&none, SYNCHRONIZE, &attributes, NotificationEvent, FALSE), violation);
    attributes.ObjectName = static_cast<PUNICODE_STRING>(bad);
    EXPECT_EQ(NtCreateEvent(&none, SYNCHRONIZE, &attributes, NotificationEvent, FALSE), violation);
    attributes.ObjectName = nullptr;
    attributes.Attributes = 0x80000000;
    EXPECT_EQ(NtCreateEvent(&none, SYNCHRONIZE, &attributes, NotificationEvent, FALSE), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(none, nullptr);
    NtClose(event);
}

TEST_F(EventTest, LongNamesAreCaptured)
{
    std::u16string path = u"\\BaseNamedObjects\\" + std::u16string(500, u'n');
    UNICODE_STRING name{static_cast<USHORT>(path.size() * 2), 0, reinterpret_cast<PWCH>(path.data())};
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    HANDLE event, again;
    ASSERT_EQ(NtCreateEvent(&event, EVENT_ALL_ACCESS, &attributes, NotificationEvent, FALSE), STATUS_SUCCESS);
    EXPECT_EQ(NtCreateEvent(&again, EVENT_ALL_ACCESS, &attributes, NotificationEvent, FALSE),
              STATUS_OBJECT_NAME_COLLISION);
    NtClose(event);
}

TEST_F(EventTest, WaitsOnSeveralHandles)
{
    HANDLE events[5];
    for (HANDLE& event : events) event = MakeEvent(EVENT_ALL_ACCESS, SynchronizationEvent);
    Attributes keyName(L"\\Registry\\Machine");
    HANDLE key;
    ASSERT_EQ(NtOpenKey(&key, KEY_ALL_ACCESS | SYNCHRONIZE, keyName), STATUS_SUCCESS);
    LARGE_INTEGER now{};
    const auto wait = [&](std::vector<HANDLE> handles, WAIT_TYPE type) {
        return NtWaitForMultipleObjects(static_cast<ULONG>(handles.size()), handles.data(), type, FALSE, &now);
    };
    const std::vector<HANDLE> all(events, events + 5);

    EXPECT_EQ(wait({}, WaitAny), STATUS_INVALID_PARAMETER_1);
    EXPECT_EQ(wait(std::vector<HANDLE>(MAXIMUM_WAIT_OBJECTS + 1, events[0]), WaitAny), STATUS_INVALID_PARAMETER_1);
    EXPECT_EQ(wait(all, static_cast<WAIT_TYPE>(2)), STATUS_INVALID_PARAMETER_3);
    EXPECT_EQ(wait({events[0], events[0]}, WaitAll), STATUS_INVALID_PARAMETER_MIX);
    EXPECT_EQ(wait({events[0], nullptr}, WaitAny), STATUS_INVALID_HANDLE);
    EXPECT_EQ(wait({events[0], key}, WaitAny), STATUS_OBJECT_TYPE_MISMATCH);
    EXPECT_EQ(wait(all, WaitAny), STATUS_TIMEOUT);

    NtSetEvent(events[4], nullptr);
    NtSetEvent(events[2], nullptr);
    EXPECT_EQ(wait(all, WaitAll), STATUS_TIMEOUT);
    EXPECT_EQ(wait(all, WaitAny), STATUS_WAIT_0 + 2);
    EXPECT_EQ(wait(all, WaitAny), STATUS_WAIT_0 + 4);
    for (const HANDLE event : events) NtSetEvent(event, nullptr);
    EXPECT_EQ(wait(all, WaitAll), STATUS_WAIT_0);
    EXPECT_EQ(wait(all, WaitAny), STATUS_TIMEOUT);

    std::thread setter = StartThread(HostProcess(), [&] { NtSetEvent(events[3], nullptr); });
    EXPECT_EQ(NtWaitForMultipleObjects(5, events, WaitAny, FALSE, nullptr), STATUS_WAIT_0 + 3);
    setter.join();
    for (const HANDLE event : events) NtClose(event);
    NtClose(key);
}

TEST_F(EventTest, AHandleMayBeClosedDuringTheWait)
{
    const HANDLE event = MakeEvent();
    PVOID body;
    ASSERT_EQ(ObReferenceObjectByHandle(event, EVENT_MODIFY_STATE, ExEventObjectType, UserMode, &body, nullptr),
              STATUS_SUCCESS);
    std::thread waiter = StartThread(
        HostProcess(), [event] { EXPECT_EQ(NtWaitForSingleObject(event, FALSE, nullptr), STATUS_SUCCESS); });
    while (ob::PointerCount(body) < 3) std::this_thread::yield(); // the waiter has its own reference
    EXPECT_EQ(NtClose(event), STATUS_SUCCESS);
    KeSetEvent(static_cast<PKEVENT>(body), 0, FALSE);
    waiter.join();
    ObDereferenceObject(body);
}

} // namespace nthost_ob
