// SIDs as people write them.
#include "workbench/user.h"

#include <stdexcept>

namespace workbench {

namespace {

std::string Checked(const std::string& sid)
{
    const bool plausible = sid.starts_with("S-1-") && sid.find_first_not_of("S-0123456789") == std::string::npos &&
                           sid.find("--") == std::string::npos && sid.back() != '-';
    if (!plausible) throw std::invalid_argument("'" + sid + "' is no SID; they look like S-1-5-21-1-2-3-1002");
    return sid;
}

} // namespace

nthost::User UserOf(const std::string& sids)
{
    nthost::User user;
    size_t end = sids.find('+');
    user.Sid = Checked(sids.substr(0, end));
    while (end != std::string::npos) {
        const size_t begin = end + 1;
        end = sids.find('+', begin);
        user.Groups.push_back(Checked(sids.substr(begin, end == std::string::npos ? end : end - begin)));
    }
    return user;
}

} // namespace workbench
