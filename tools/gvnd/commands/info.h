// Looking an object up in its directory, where links can be told from what they lead to.
#pragma once

#include <optional>
#include <string>

#include "gvnd/client.h"
#include "gvnd/session.h"

namespace tool {

// Nothing for the root, for a pattern, and where nothing has the name.
std::optional<Entry> FindEntry(Session& session, const std::string& path);

} // namespace tool
