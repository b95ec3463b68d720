// Acting as somebody else.
#pragma once

#include <string>

#include <nthost/process.h>

namespace workbench {

// "S-1-5-21-1-2-3-1002+S-1-5-32-544": the user, then groups beside the usual ones. std::invalid_argument for what
// is no SID.
nthost::User UserOf(const std::string& sids);

// The calling thread belongs to a process of that user while this lives. Handles that it opens meanwhile end with it.
class AsUser {
public:
    explicit AsUser(const nthost::User& user) : process_("another user", user), acting_(process_.Object()) {}

private:
    nthost::Process process_;
    nthost::ActAs acting_;
};

} // namespace workbench
