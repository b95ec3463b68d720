// Boots and shuts down around each test, and holds the test to leaving nothing behind.

#include "support/host.h"

#include <cstdio>
#include <sstream>

#include <nthost/check.h>
#include <nthost/debug.h>
#include <nthost/image.h>

namespace support {

namespace {

// With an image for the driver, the end of a program tells how deep its stack was.
class DeepestStack : public ::testing::Environment {
public:
    void TearDown() override
    {
        const nthost::StackUse use = nthost::DeepestImageStack();
        if (!use.Bytes) return;
        std::printf("deepest stack of images: %zu bytes\n", use.Bytes);
        std::istringstream lines(use.Stack);
        for (std::string line; std::getline(lines, line);)
            if (line.find(".sys!") != line.npos) std::printf("  %s\n", line.c_str());
    }
};
const ::testing::Environment* const deepestStack = ::testing::AddGlobalTestEnvironment(new DeepestStack);

} // namespace

std::vector<std::string> BootedTest::ShutDown()
{
    std::vector<std::string> left = host_->Finish().Lines;
    host_.reset();
    return left;
}

void BootedTest::ExpectNothingLeft()
{
    if (!host_) return;
    for (const std::string& line : ShutDown()) ADD_FAILURE() << line;
}

void HostFixture::SetUp()
{
    BootedTest::SetUp();
    trace_.emplace();
}

void HostFixture::TearDown()
{
    UnloadGvnd();
    trace_.reset();
    BootedTest::TearDown();
}

void HostFixture::LoadGvndOrFail() { ASSERT_STATUS(STATUS_SUCCESS, LoadGvnd()); }

void HostFixture::UnloadGvnd()
{
    const workbench::Report report = Host().UnloadDrivers();
    EXPECT_TRUE(report.Clean()) << Join(report.Lines);
}

std::string Join(const std::vector<std::string>& lines)
{
    std::string all;
    for (const std::string& line : lines) all += line + "\n";
    return all;
}

void ExpectFindings(const std::vector<std::string>& rules)
{
    std::vector<std::string> found;
    std::string details;
    for (const nthost::Finding& finding : nthost::TakeFindings()) {
        found.push_back(finding.Rule);
        details += finding.Rule + ": " + finding.Detail + "\n";
    }
    EXPECT_EQ(found, rules) << details;
}

::testing::AssertionResult IsStatus(NTSTATUS actual, NTSTATUS expected)
{
    if (actual == expected) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << nthost::StatusName(actual) << ", expected " << nthost::StatusName(expected);
}

} // namespace support
