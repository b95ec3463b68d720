// What the arguments of the plugin say. Pure.
#pragma once

#include "volume.h"

namespace memfs {

struct Settings {
    ULONGLONG Capacity = 0;
    WCHAR LabelText[kMaxLabelCharacters + 1] = {};
    UNICODE_STRING Label = {0, 0, LabelText};

    Settings() = default;
    Settings(const Settings&) = delete; // Label points into it
    Settings& operator=(const Settings&) = delete;
};

// STATUS_INVALID_PARAMETER for what is not understood, STATUS_INVALID_VOLUME_LABEL for a label that is too long.
[[nodiscard]] NTSTATUS ReadSettings(const char* arguments, Settings* settings);

} // namespace memfs
