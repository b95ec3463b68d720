// The fixture's foundation: boots nthost, records the trace, loads the driver, and at the end asserts that nothing is
// left: no finding, no leak, no object.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <gvnd/plugin.h>
#include <nthost/host.h>

namespace support {

inline const char* const kServiceKey = "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\gvnd";

// What the driver traced, message by message without the prefix; see Prefixes for those.
class TraceLog {
public:
    TraceLog();
    ~TraceLog();
    TraceLog(const TraceLog&) = delete;
    TraceLog& operator=(const TraceLog&) = delete;

    // Whole DbgPrint texts in order: each message of the driver is one prefix and one text.
    std::vector<std::string> Texts() const;
    bool Contains(const std::string& part) const;
    size_t Count(const std::string& part) const;
    void Clear();

private:
    mutable std::mutex mutex_;
    std::vector<std::string> texts_;
};

class HostFixture : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // The status of DriverEntry. The fixture unloads it again.
    NTSTATUS LoadGvnd();
    void LoadGvndOrFail();
    void UnloadGvnd();

    TraceLog& Trace() { return *trace_; }
    PDRIVER_OBJECT Driver() const { return driver_; }

private:
    std::optional<TraceLog> trace_;
    PDRIVER_OBJECT driver_ = nullptr;
};

std::string Join(const std::vector<std::string>& lines);

// "STATUS_..." of both in a failure.
::testing::AssertionResult IsStatus(NTSTATUS actual, NTSTATUS expected);
#define EXPECT_STATUS(expected, actual) EXPECT_TRUE(::support::IsStatus((actual), (expected)))
#define ASSERT_STATUS(expected, actual) ASSERT_TRUE(::support::IsStatus((actual), (expected)))

} // namespace support
