// What the service key of the driver says, with defaults for what it does not say. Needs no lock.
#pragma once

#include "pool.h"

namespace memfs {

// The text of one REG_SZ value, in a block of its own, or a literal.
class SettingString {
public:
    explicit SettingString(PCWSTR standard);
    ~SettingString() { Free(block_); }
    SettingString(const SettingString&) = delete;
    SettingString& operator=(const SettingString&) = delete;

    // Takes the text of the value over. A value that is not there leaves the default; one of another type than REG_SZ
    // gives STATUS_OBJECT_TYPE_MISMATCH.
    [[nodiscard]] NTSTATUS Read(HANDLE key, PCWSTR name);
    // Null for an empty text.
    PUNICODE_STRING Get() { return text_.Length != 0 ? &text_ : nullptr; }

private:
    KEY_VALUE_PARTIAL_INFORMATION* block_ = nullptr;
    UNICODE_STRING text_;
};

struct Settings {
    SettingString DeviceName{L"\\Device\\GvMemfs"};
    SettingString LinkName{L"\\??\\Memfs"};
    SettingString BackingPath{L"\\Device\\Null"};
    SettingString Sddl{L""};
    SettingString Label{L""};
    ULONGLONG Capacity = 0; // REG_QWORD
};

[[nodiscard]] NTSTATUS ReadSettings(PUNICODE_STRING registryPath, Settings* settings);

} // namespace memfs
