// What the fixtures stand on: nthost booted for a test, the driver loaded if it wants that, and at the end the
// assertion that nothing is left: no finding, no leak, no object.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <workbench/host.h>
#include <workbench/trace.h>

namespace support {

using workbench::TraceLog;

inline const char* const kServiceKey = "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\gvnd";

// nthost and no driver.
class BootedTest : public ::testing::Test {
protected:
    explicit BootedTest(nthost::BootOptions options = {}) : options_(options) {}
    void SetUp() override { host_.emplace(options_); }
    void TearDown() override { ExpectNothingLeft(); }

    workbench::Host& Host() { return *host_; }
    const workbench::Host& Host() const { return *host_; }
    bool IsUp() const { return host_.has_value(); }
    // Unloads, shuts down before the end of the test; what was left is the test's to judge.
    std::vector<std::string> ShutDown();
    // As every test ends.
    void ExpectNothingLeft();

private:
    nthost::BootOptions options_;
    std::optional<workbench::Host> host_;
};

// The driver's trace is recorded from the boot on.
class HostFixture : public BootedTest {
protected:
    void SetUp() override;
    void TearDown() override;

    // The status of DriverEntry. The fixture unloads it again.
    NTSTATUS LoadGvnd() { return Host().LoadGvnd(); }
    void LoadGvndOrFail();
    void UnloadGvnd();

    TraceLog& Trace() { return *trace_; }
    PDRIVER_OBJECT Driver() const { return Host().Gvnd(); }

private:
    std::optional<TraceLog> trace_;
};

std::string Join(const std::vector<std::string>& lines);

// Takes the findings and expects exactly these rules, in order.
void ExpectFindings(const std::vector<std::string>& rules);

// "STATUS_..." of both in a failure.
::testing::AssertionResult IsStatus(NTSTATUS actual, NTSTATUS expected);
#define EXPECT_STATUS(expected, actual) EXPECT_TRUE(::support::IsStatus((actual), (expected)))
#define ASSERT_STATUS(expected, actual) ASSERT_TRUE(::support::IsStatus((actual), (expected)))

} // namespace support
