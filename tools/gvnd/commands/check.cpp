// The command `check`.
#include "gvnd/commands/check.h"

#include <fstream>
#include <stdexcept>

#include <fmt/format.h>

#include "gvnd/plugins.h"
#include "gvnd/status.h"

namespace tool {

int RunCheck(const CheckChoice& choice)
{
    const ChosenPlugin chosen = ChoosePlugin(choice.Plugin);
    const checker::Report report = [&] {
        try {
            return checker::Check(*chosen.Plugin, chosen.Arguments, choice.How);
        } catch (const std::invalid_argument& error) {
            throw Usage(error.what());
        }
    }();
    fmt::print("{}", choice.Json ? checker::AsJson(report) : checker::AsText(report));
    if (!choice.JUnit.empty() && !(std::ofstream(choice.JUnit) << checker::AsJUnit(report)))
        throw HostFailure(fmt::format("cannot write '{}'", choice.JUnit));
    return report.AllHold() ? ExitSuccess : ExitPlugin;
}

} // namespace tool
