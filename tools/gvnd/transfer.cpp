// The ends of an import and an export.
#include "gvnd/transfer.h"

#include <filesystem>

#include "gvnd/client.h"
#include "gvnd/status.h"

namespace tool {

namespace {

// Each directory on the way to the path, and itself, unless it is there.
void MakeVolumePath(const Session& session, const std::string& path)
{
    const std::string whole = VolumePath(path);
    for (size_t end = 0; end != std::string::npos && end + 1 < whole.size();) {
        end = whole.find('\\', end + 1);
        OpenFile(
            session.NtPath(whole.substr(0, end)),
            {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE, .Disposition = FILE_OPEN_IF, .Options = FILE_DIRECTORY_FILE});
    }
}

// Plugin calls are counted meanwhile, and not noted one by one.
CopyTotals Copy(Session& session, Tree& from, Tree& to)
{
    const uint64_t requests = session.Requests();
    const uint64_t calls = session.Plugin().Total();
    session.Plugin().CountOnly(true);
    CopyTotals totals = CopyTree(from, to, true);
    session.Plugin().CountOnly(false);
    totals.PluginCalls = session.Plugin().Total() - calls;
    totals.Requests = session.Requests() - requests;
    return totals;
}

} // namespace

CopyTotals ImportTree(Session& session, const std::string& from, const std::string& to)
{
    const auto source = HostTree(from);
    MakeVolumePath(session, to);
    const auto target = VolumeTree(session, to);
    return Copy(session, *source, *target);
}

CopyTotals ExportTree(Session& session, const std::string& from, const std::string& to)
{
    OpenFile(session.NtPath(from), kListing); // before anything is made for it
    std::filesystem::create_directories(to);
    const auto source = VolumeTree(session, from);
    const auto target = HostTree(to);
    return Copy(session, *source, *target);
}

} // namespace tool
