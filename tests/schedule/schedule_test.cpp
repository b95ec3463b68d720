// Each scenario under many schedules. GVND_SCHEDULES says how many, GVND_SEED where they begin; both are printed with a
// failure, which comes with the smallest schedule that still fails.
#include <cstdlib>

#include <gtest/gtest.h>

#include "schedule/stage.h"

namespace schedule {
namespace {

uint64_t Setting(const char* name, uint64_t otherwise)
{
    const char* const text = std::getenv(name);
    return text ? std::strtoull(text, nullptr, 0) : otherwise;
}

class Scenarios : public ::testing::TestWithParam<NamedScenario> {};

TEST_P(Scenarios, HoldUnderSchedules)
{
    nthost::ScheduleExplorer explorer(GetParam().Play);
    const nthost::ExploreOptions options = {.FirstSeed = Setting("GVND_SEED", 1),
                                            .Count = static_cast<unsigned>(Setting("GVND_SCHEDULES", 100))};
    std::printf("%s: seeds %llu to %llu\n", GetParam().Name, static_cast<unsigned long long>(options.FirstSeed),
                static_cast<unsigned long long>(options.FirstSeed + options.Count - 1));
    if (const auto failure = explorer.Explore(options)) {
        const auto again = explorer.Replay(*failure);
        FAIL() << failure->Text() << (again ? "\nreplayed: " + again->What : "\nNOT REPLAYED")
               << "\nshrunk: " << explorer.Shrink(*failure).Text();
    }
}

INSTANTIATE_TEST_SUITE_P(Schedule, Scenarios, ::testing::ValuesIn(kScenarios, kScenarios + kScenarioCount),
                         [](const auto& info) { return std::string(info.param.Name); });

} // namespace
} // namespace schedule
