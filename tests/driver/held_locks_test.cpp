// Which locks a request holds where it calls the plugin: the table of docs/locking.md. Only a race would show one that
// is missing, and only a hang one too many.

#include "open_requests.h"
#include "support/file.h"

namespace opening {
namespace {

class HeldLocks : public VolumeTest {
protected:
    // X for owned exclusively by this thread, S for shared, - for neither.
    static char How(PERESOURCE resource)
    {
        if (ExIsResourceAcquiredExclusiveLite(resource)) return 'X';
        return ExIsResourceAcquiredSharedLite(resource) ? 'S' : '-';
    }
    // The volume's and \dir\file's, at the first call of an operation.
    std::string At(const char* operation, const std::function<NTSTATUS()>& request)
    {
        std::string held = "not called";
        PERESOURCE const object = Find("\\dir\\file")->Header.Resource;
        Plugin().Clear();
        Plugin().Before(operation, [&](PKEVENT) { held = {How(&Volume()->Resource), How(object)}; });
        EXPECT_STATUS(STATUS_SUCCESS, request());
        return held;
    }
};

TEST_F(HeldLocks, OfEachRequest)
{
    Handle handle = OpenOrFail("\\dir\\file", {.Access = FILE_GENERIC_READ | FILE_GENERIC_WRITE | DELETE});
    Handle volume = OpenOrFail("", {.Access = FILE_GENERIC_READ | FILE_GENERIC_WRITE});
    HANDLE const file = handle.Get();
    uint64_t buffer[64] = {};
    constexpr WCHAR label[] = {2 * sizeof(WCHAR), 0, L'O', L'K'}; // behind its length
    const auto query = [&](FILE_INFORMATION_CLASS which) {
        return [&, which] { return support::Query(file, which, buffer, sizeof buffer).Status; };
    };
    support::SetEas(file, support::EaList().Add("NAME", "value").Bytes());
    struct Row {
        const char* Operation;
        const char* Held;
        std::function<NTSTATUS()> Request;
    };
    const Row rows[] = {
        {"Read", "-S", [&] { return Read(file, buffer, 4, 0).Status; }},
        {"Write", "-X", [&] { return support::Write(file, "data", 0).Status; }},
        {"GetInfo", "-S", query(FileBasicInformation)},
        {"GetInfo", "SS", query(FileNameInformation)},
        {"GetInfo", "SS", query(FileAllInformation)},
        {"ListEa", "-S", query(FileEaInformation)},
        {"ListEa", "-S", [&] { return support::QueryEas(file).Status; }},
        {"SetEa", "-X", [&] { return support::SetEas(file, support::EaList().Add("A", "b").Bytes()).Status; }},
        {"SetTime", "-X", [&] { return support::SetBasic(file, 0, 1000); }},
        {"SetFileSize", "-X", [&] { return support::SetSize(file, 5); }},
        {"FlushFile", "-X", [&] { return support::Flush(file); }},
        {"FlushVol", "X-", [&] { return support::Flush(volume.Get()); }},
        {"GetVolInfo", "S-",
         [&] { return support::QueryVolume(file, FileFsSizeInformation, buffer, sizeof buffer).Status; }},
        {"SetVolLabel", "X-",
         [&] { return support::SetVolume(volume.Get(), FileFsLabelInformation, label, sizeof label).Status; }},
        {"AccessCheck", "XX", [&] { return Open("\\dir\\file").Status; }},
        {"Rename", "XX", [&] { return support::Rename(file, "FILE"); }},
        {"GetInfo", "XX", [&] { return support::SetDelete(file, true); }},
        {"Delete", "XX", [&] { return handle.Close(); }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(&row - rows);
        EXPECT_EQ(At(row.Operation, row.Request), row.Held) << row.Operation;
    }
}

TEST_F(HeldLocks, OfAListing)
{
    Handle directory = OpenOrFail("\\dir", {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE});
    PERESOURCE const object = Find("\\dir")->Header.Resource;
    std::string held;
    const auto look = [&](PKEVENT) { held += {How(&Volume()->Resource), How(object), ' '}; };
    for (const char* pattern : {"*", ""}) { // the first brings the name that the handle keeps
        Plugin().Before("ReadDirEntry", look);
        EXPECT_STATUS(STATUS_SUCCESS, List(directory.Get(), {.Single = true, .Pattern = pattern}).Status);
    }
    EXPECT_EQ(held, "SX SS ");
}

} // namespace
} // namespace opening
