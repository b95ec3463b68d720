// Kernel-core tests run code elsewhere: on another thread, or as a driver's.
#pragma once

#include <functional>
#include <thread>

#include <nthost/check.h>
#include <nthost/process.h>

#include "support/host.h"

class KernelTest : public support::BootedTest {
protected:
    using BootedTest::BootedTest;

    void SetUp() override
    {
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        BootedTest::SetUp();
    }
};

constexpr ULONG PoolTag(const char (&text)[5])
{
    return static_cast<ULONG>(text[0]) | static_cast<ULONG>(text[1]) << 8 | static_cast<ULONG>(text[2]) << 16 |
           static_cast<ULONG>(text[3]) << 24;
}

// Runs the body on another attached thread, to its end.
inline void OnOtherThread(std::function<void()> body) { nthost::StartThread(nthost::HostProcess(), body).join(); }

// Runs the body as driver code, on a system thread, to its end.
inline void AsDriver(std::function<void()> body)
{
    HANDLE handle;
    const auto run = [](PVOID context) NTAPI { (*static_cast<std::function<void()>*>(context))(); };
    ASSERT_EQ(PsCreateSystemThread(&handle, 0x1fffff, nullptr, nullptr, nullptr, run, &body), STATUS_SUCCESS);
    PVOID thread;
    ASSERT_EQ(ObReferenceObjectByHandle(handle, SYNCHRONIZE, PsThreadType, KernelMode, &thread, nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
    ObDereferenceObject(thread);
    EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
}

// The status of the exception that ended the body, or STATUS_SUCCESS.
template <typename Body>
__attribute__((noinline)) NTSTATUS Guarded(Body body)
{
    NT_GUARD guard;
    if (!NtGuardEnter(&guard)) return guard.Code;
    body();
    NtGuardLeave(&guard);
    return STATUS_SUCCESS;
}

inline NTSTATUS WaitFor(PVOID object, LARGE_INTEGER* timeout = nullptr)
{
    return KeWaitForSingleObject(object, Executive, KernelMode, FALSE, timeout);
}

template <typename Condition>
void YieldUntil(Condition condition)
{
    while (!condition()) std::this_thread::yield();
}

struct CriticalRegion {
    CriticalRegion() { KeEnterCriticalRegion(); }
    ~CriticalRegion() { KeLeaveCriticalRegion(); }
};
