// Object names and attributes in one line each.
#pragma once

#include <string>
#include <string_view>

#include <nthost/check.h>
#include <nthost/process.h>
#include <workbench/text.h>

#include "ob/object.h"
#include "support/host.h"

namespace nthost_ob {

using ObTest = support::BootedTest;
using Name = workbench::Text;

struct Attributes {
    Name ObjectName;
    OBJECT_ATTRIBUTES Value;
    explicit Attributes(const wchar_t* name, ULONG flags = OBJ_CASE_INSENSITIVE, HANDLE root = nullptr)
        : ObjectName(name)
    {
        InitializeObjectAttributes(&Value, ObjectName, flags, root, nullptr);
    }
    Attributes(const Attributes&) = delete;
    operator POBJECT_ATTRIBUTES() { return &Value; }
};

inline HANDLE MakeEvent(ACCESS_MASK access = EVENT_ALL_ACCESS, EVENT_TYPE type = NotificationEvent)
{
    HANDLE handle = nullptr;
    EXPECT_EQ(NtCreateEvent(&handle, access, nullptr, type, FALSE), STATUS_SUCCESS);
    return handle;
}

inline std::string Narrow(std::u16string_view text) { return {text.begin(), text.end()}; }

} // namespace nthost_ob
