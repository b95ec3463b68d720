// Holds a plugin to its contract, and says what it found.
#pragma once

#include <string>

#include <checker/checker.h>

namespace tool {

struct CheckChoice {
    std::string Plugin = "memfs"; // as ChoosePlugin takes it
    checker::Options How;
    bool Json = false;
    std::string JUnit; // a file
};

// An exit code: ExitPlugin if a rule is broken.
int RunCheck(const CheckChoice& choice);

} // namespace tool
