// Who a process acts for. Owned by its process and unchanged while that lives.
#pragma once

#include <string>

namespace nthost::se {

constexpr const char* kSystemSid = "S-1-5-18";
constexpr const char* kDefaultUserSid = "S-1-5-21-1-2-3-1001";

struct Token {
    std::string UserSid; // in text form, "S-1-..."
};

} // namespace nthost::se
