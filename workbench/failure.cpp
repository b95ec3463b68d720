// The text of a failure.
#include "workbench/failure.h"

#include <cstdio>

#include <nthost/debug.h>

namespace workbench {

namespace {

std::string Describe(const std::string& request, NTSTATUS status)
{
    char number[16];
    std::snprintf(number, sizeof number, " (0x%08x)", static_cast<unsigned>(status));
    return request + ": " + nthost::StatusName(status) + number;
}

} // namespace

Failure::Failure(const std::string& request, NTSTATUS status)
    : std::runtime_error(Describe(request, status)), status_(status)
{}

} // namespace workbench
