// Boots nthost for every test and asserts at the end that nothing was found and nothing is left.
#pragma once

#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include <ntifs.h>

#include "ob/object.h"
#include <nthost/check.h>
#include <nthost/host.h>
#include <nthost/process.h>

namespace nthost_ob {

class ObTest : public testing::Test {
protected:
    void SetUp() override { nthost::Boot(); }

    void TearDown() override
    {
        for (const nthost::Finding& finding : nthost::TakeFindings())
            ADD_FAILURE() << finding.Rule << ": " << finding.Detail;
        EXPECT_EQ(nthost::Shutdown().Lines, std::vector<std::string>());
    }
};

// A counted string on a 16-bit literal.
struct Name {
    UNICODE_STRING Text;
    Name(const wchar_t* text) { RtlInitUnicodeString(&Text, text); }
    operator PUNICODE_STRING() { return &Text; }
};

struct Attributes {
    Name ObjectName;
    OBJECT_ATTRIBUTES Value;
    explicit Attributes(const wchar_t* name, ULONG flags = OBJ_CASE_INSENSITIVE, HANDLE root = nullptr)
        : ObjectName(name)
    {
        InitializeObjectAttributes(&Value, &ObjectName.Text, flags, root, nullptr);
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
