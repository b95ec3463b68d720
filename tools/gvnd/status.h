// Failures as the tool tells them: which request, which NT status, what to do.
#pragma once

#include <stdexcept>
#include <string>

#include <ntifs.h>

namespace tool {

class Failure : public std::runtime_error {
public:
    Failure(const std::string& request, NTSTATUS status);
    NTSTATUS Status() const { return status_; }
    // Without what to do.
    std::string Summary() const;

private:
    NTSTATUS status_;
};

// This machine refused something, by its own words.
class HostFailure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Bad words on the command line or in the shell; the text says what was expected.
class Usage : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Copies that do not agree; what is wrong with them has been printed.
class Mismatch : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

inline void Require(const std::string& request, NTSTATUS status)
{
    if (!NT_SUCCESS(status)) throw Failure(request, status);
}

// Exit codes; stable.
enum ExitCode { ExitSuccess = 0, ExitFailure = 1, ExitUsage = 2, ExitMismatch = 3, ExitLeak = 4 };

} // namespace tool
