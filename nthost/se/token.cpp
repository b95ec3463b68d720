// Tokens from the names that tests and tools use. No state.

#include "se/token.h"

#include <algorithm>

#include <nthost/process.h>

namespace nthost::se {

namespace {

constexpr ULONG kFirstPrivilege = 2;
constexpr ULONG kLastPrivilege = SE_CREATE_SYMBOLIC_LINK_PRIVILEGE;

} // namespace

bool Matches(const Token& token, PSID sid, Entry entry)
{
    if (RtlEqualSid(token.User.Get(), sid)) return true;
    return std::any_of(token.Groups.begin(), token.Groups.end(), [&](const Group& group) {
        return RtlEqualSid(group.Id.Get(), sid) && (entry == Entry::Denies || !group.DenyOnly);
    });
}

bool HasPrivilege(const Token& token, ULONG privilege)
{
    return std::find(token.Privileges.begin(), token.Privileges.end(), privilege) != token.Privileges.end();
}

Token TokenFor(const nthost::User& user)
{
    Token token{SidFromText(user.Sid), {{SidOf(SeExports->SeWorldSid), false}}, user.Privileges};
    for (const std::string& group : user.Groups) token.Groups.push_back({SidFromText(group), false});
    for (const std::string& group : user.DenyOnlyGroups) token.Groups.push_back({SidFromText(group), true});
    return token;
}

Token SystemToken()
{
    Token token{SidOf(SeExports->SeLocalSystemSid), {}, {}};
    for (PSID sid : {SeExports->SeAliasAdminsSid, SeExports->SeWorldSid, SeExports->SeAuthenticatedUsersSid})
        token.Groups.push_back({SidOf(sid), false});
    for (ULONG privilege = kFirstPrivilege; privilege <= kLastPrivilege; ++privilege)
        token.Privileges.push_back(privilege);
    return token;
}

} // namespace nthost::se
