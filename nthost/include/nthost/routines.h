// Lets a test play a kernel that lacks a routine.
#pragma once

#include <string>

namespace nthost {

// While one lives, MmGetSystemRoutineAddress does not know the name.
class HiddenRoutine {
public:
    explicit HiddenRoutine(std::string name);
    ~HiddenRoutine();
    HiddenRoutine(const HiddenRoutine&) = delete;
    HiddenRoutine& operator=(const HiddenRoutine&) = delete;

private:
    std::string name_;
};

} // namespace nthost
