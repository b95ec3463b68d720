// Failures as exceptions: which request, which NT status.
#pragma once

#include <stdexcept>
#include <string>

#include <ntifs.h>

namespace workbench {

class Failure : public std::runtime_error {
public:
    // "open \\a: STATUS_ACCESS_DENIED (0xc0000022)"
    Failure(const std::string& request, NTSTATUS status);
    NTSTATUS Status() const { return status_; }

private:
    NTSTATUS status_;
};

inline void Require(const std::string& request, NTSTATUS status)
{
    if (!NT_SUCCESS(status)) throw Failure(request, status);
}

} // namespace workbench
