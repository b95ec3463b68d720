// Boots and shuts down around each test, and holds the test to leaving nothing behind.

#include "support/host.h"

#include <gvnd/driver.h>
#include <nthost/check.h>
#include <nthost/debug.h>

namespace support {

TraceLog::TraceLog()
{
    nthost::SetDebugSink([this](std::string_view text) {
        const std::lock_guard lock(mutex_);
        texts_.emplace_back(text);
    });
}

TraceLog::~TraceLog() { nthost::SetDebugSink({}); }

std::vector<std::string> TraceLog::Texts() const
{
    const std::lock_guard lock(mutex_);
    return texts_;
}

size_t TraceLog::Count(const std::string& part) const
{
    size_t count = 0;
    for (const std::string& text : Texts()) count += text.find(part) != std::string::npos;
    return count;
}

bool TraceLog::Contains(const std::string& part) const { return Count(part) != 0; }

void TraceLog::Clear()
{
    const std::lock_guard lock(mutex_);
    texts_.clear();
}

void HostFixture::SetUp()
{
    nthost::Boot();
    trace_.emplace();
}

void HostFixture::TearDown()
{
    UnloadGvnd();
    trace_.reset();
    const nthost::LeakReport leaks = nthost::Shutdown();
    EXPECT_TRUE(leaks.Clean()) << Join(leaks.Lines);
    for (const nthost::Finding& finding : nthost::TakeFindings()) {
        ADD_FAILURE() << finding.Rule << ": " << finding.Detail << "\n" << finding.Stack;
    }
}

NTSTATUS HostFixture::LoadGvnd() { return nthost::LoadDriver("gvnd", GvndDriverEntry, &driver_); }

void HostFixture::LoadGvndOrFail() { ASSERT_STATUS(STATUS_SUCCESS, LoadGvnd()); }

void HostFixture::UnloadGvnd()
{
    if (!driver_) return;
    nthost::LeakReport leaks;
    EXPECT_STATUS(STATUS_SUCCESS, nthost::UnloadDriver(driver_, &leaks));
    EXPECT_TRUE(leaks.Clean()) << Join(leaks.Lines);
    driver_ = nullptr;
}

std::string Join(const std::vector<std::string>& lines)
{
    std::string all;
    for (const std::string& line : lines) all += line + "\n";
    return all;
}

::testing::AssertionResult IsStatus(NTSTATUS actual, NTSTATUS expected)
{
    if (actual == expected) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << nthost::StatusName(actual) << ", expected " << nthost::StatusName(expected);
}

} // namespace support
