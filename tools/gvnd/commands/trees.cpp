// Whole trees copied into the volume and out of it.
#include "gvnd/commands/commands.h"
#include "gvnd/status.h"
#include "gvnd/transfer.h"

namespace tool {

namespace commands {

namespace {

void Report(const CopyTotals& totals)
{
    if (PrintTotals(totals) != ExitSuccess) throw Mismatch("the copy does not agree with its source");
}

} // namespace

void Import(Shell& shell, const Words& words) { Report(ImportTree(shell.Volume(), words[1], shell.Resolve(words[2]))); }

void Export(Shell& shell, const Words& words) { Report(ExportTree(shell.Volume(), shell.Resolve(words[1]), words[2])); }

} // namespace commands

} // namespace tool
