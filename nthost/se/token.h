// Who a process acts for. Owned by its process and unchanged while that lives.
#pragma once

#include <vector>

#include "se/sid.h"

namespace nthost {
struct User;
}

namespace nthost::se {

struct Group {
    Sid Id;
    bool DenyOnly; // matches entries that deny, no others
};

struct Token {
    Sid User;
    std::vector<Group> Groups;
    std::vector<ULONG> Privileges; // by number
};

// What an entry that matches would do.
enum class Entry { Allows, Denies };

bool Matches(const Token& token, PSID sid, Entry entry);
bool HasPrivilege(const Token& token, ULONG privilege);

// The user, in Everyone too.
Token TokenFor(const nthost::User& user);
// The system itself, with every privilege.
Token SystemToken();

} // namespace nthost::se
