// The fixture of the kernel-core tests: boots nthost for each test, and at the end expects that no finding is left that
// the test did not take, and that nothing leaked. Helpers run code elsewhere: on another thread, or as a driver's.
#pragma once

#include <functional>
#include <thread>

#include <gtest/gtest.h>
#include <ntifs.h>
#include <nthost/check.h>
#include <nthost/host.h>
#include <nthost/process.h>

class KernelTest : public testing::Test {
protected:
    explicit KernelTest(nthost::BootOptions options = {}) : options_(options) {}

    void SetUp() override
    {
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        nthost::Boot(options_);
    }

    void TearDown() override
    {
        for (const nthost::Finding& finding : nthost::TakeFindings())
            ADD_FAILURE() << finding.Rule << ": " << finding.Detail << "\n" << finding.Stack;
        for (const std::string& line : nthost::Shutdown().Lines) ADD_FAILURE() << line;
    }

private:
    nthost::BootOptions options_;
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
    const auto run = [](PVOID context) { (*static_cast<std::function<void()>*>(context))(); };
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
