// Of every mistake the checker names the rule that is broken.
#include <sstream>

#include <checker/checker.h>
#include <gtest/gtest.h>
#include <nthost/check.h>

#include "mistakes.h"

namespace {

using namespace checker;
using mistakes::Mistake;

std::string Broken(const Report& report)
{
    std::string broken;
    for (const Result& result : report.Results)
        if (result.Outcome == Verdict::Broken) broken += std::string(" ") + result.Rule->Id;
    return broken;
}

bool Names(const Report& report, const std::string& properties)
{
    std::istringstream stream(properties);
    for (std::string property; std::getline(stream, property, '|');)
        for (const Result& result : report.Results)
            if (result.Outcome == Verdict::Broken && property == result.Rule->Id) return true;
    return false;
}

void ExpectNamed(const Mistake& mistake)
{
    SCOPED_TRACE(mistake.Name);
    const std::string expected = mistake.Property;
    if (!NTHOST_CHECKS && expected == "call.kernel-rules") return; // nthost's checks see it
    const bool hangs = expected.find("call.returns") != std::string::npos;
    const unsigned stuckAfter = hangs ? 300 : 10000;
    const Report report = Check(mistakes::kPlugin, mistake.Name, {.Steps = 50, .Threads = 1, .StuckAfter = stuckAfter});
    if (expected.empty())
        EXPECT_TRUE(report.AllHold()) << AsText(report);
    else
        EXPECT_TRUE(Names(report, expected)) << "expected " << expected << ", found:" << Broken(report);
    for (const Result& result : report.Results) {
        if (result.Outcome != Verdict::Broken) continue;
        EXPECT_NE(result.Call, "") << result.Rule->Id;
        EXPECT_NE(result.Got, "") << result.Rule->Id;
    }
}

// In parts, which can run at the same time.
constexpr int kParts = 4;
class Mistakes : public testing::TestWithParam<int> {};

TEST_P(Mistakes, AreNamed)
{
    for (int i = 0; mistakes::kMistakes[i].Name; ++i)
        if (i % kParts == GetParam()) ExpectNamed(mistakes::kMistakes[i]);
}

INSTANTIATE_TEST_SUITE_P(Part, Mistakes, testing::Range(0, kParts));

} // namespace
