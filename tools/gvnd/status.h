// Failures as the tool tells them: which request, which NT status, what to do.
#pragma once

#include <stdexcept>
#include <string>

#include <workbench/failure.h>

namespace tool {

using workbench::Failure;
using workbench::Require;

// The failure's text, and what to do about its status, on a line of its own; other exceptions by their text alone.
std::string Advised(const std::exception& error);

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

// Exit codes; stable.
enum ExitCode { ExitSuccess = 0, ExitFailure = 1, ExitUsage = 2, ExitMismatch = 3, ExitLeak = 4, ExitPlugin = 5 };

} // namespace tool
