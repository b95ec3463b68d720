// Creation, content, sizes, listings while a directory changes.
#include "trial.h"

#include <algorithm>
#include <set>

#include <nthost/debug.h>

namespace checker {

namespace {

using workbench::FoundObject;

bool IsNew(const FoundObject& found, bool directory)
{
    return NT_SUCCESS(found.Status) && (directory || found.Info.EndOfFile == 0) &&
           !(found.Info.FileAttributes & FILE_ATTRIBUTE_DIRECTORY) == !directory;
}

// Makes it, and leaves it closed.
void CreateOne(Trial& trial, const std::string& path, bool directory)
{
    const workbench::PluginTable& calls = trial.Calls();
    {
        const Opened made(trial, directory ? calls.CreateDir(path) : calls.Create(path));
        if (!trial.Check("create.found", made.Works(), Verifier::LastOutcome())) return;
        const FoundObject found = calls.Lookup(path);
        trial.Check("create.found", IsNew(found, directory),
                    Verifier::LastOutcome() + ", or not empty, or another type");
        trial.Check("lookup.access-read", found.Access & GVND_ACCESS_READ, "access " + NumberText(found.Access));
        const FoundObject info = calls.Info(made.Fd);
        trial.Check("lookup.agrees",
                    info.Info.FileAttributes == found.Info.FileAttributes && info.Info.FileId == found.Info.FileId,
                    "another type or file id than Lookup's");
    }
    const Opened again(trial, directory ? calls.CreateDir(path) : calls.Create(path));
    trial.CheckStatus("create.collision", STATUS_OBJECT_NAME_COLLISION, again.Status);
    trial.Held("handle.none-on-failure");
    const Opened below(trial, calls.Create(path + " is missing\\below"));
    trial.CheckStatus("create.parent", STATUS_OBJECT_PATH_NOT_FOUND, below.Status);
}

std::string Pattern(size_t length, char seed)
{
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i) bytes[i] = static_cast<char>(seed + i * 7 + i / 251);
    return bytes;
}

// Reads the whole, and tells the first difference.
void CheckBytes(Trial& trial, const char* property, PluginFd fd, const std::string& expected)
{
    NTSTATUS status = STATUS_SUCCESS;
    const std::string bytes = trial.Calls().Read(fd, 0, static_cast<ULONG>(expected.size()) + 1, &status);
    const bool isEmpty = expected.empty() && (status == STATUS_END_OF_FILE || bytes.empty());
    const size_t at = std::mismatch(bytes.begin(), bytes.end(), expected.begin(), expected.end()).first - bytes.begin();
    trial.Check(property, isEmpty || (NT_SUCCESS(status) && bytes == expected),
                nthost::StatusName(status) + ", " + NumberText(bytes.size()) + " of " + NumberText(expected.size()) +
                    " bytes, different from " + NumberText(at) + " on");
}

void CheckSize(Trial& trial, const char* property, PluginFd fd, LONGLONG expected)
{
    const FoundObject info = trial.Calls().Info(fd);
    trial.Check(property, info.Info.EndOfFile == expected,
                "EndOfFile " + NumberText(info.Info.EndOfFile) + " and not " + NumberText(expected));
}

} // namespace

void CheckCreation(Trial& trial)
{
    const std::string place = trial.MakePlace("create");
    if (place.empty()) return;
    CreateOne(trial, place + "\\file", false);
    CreateOne(trial, place + "\\directory", true);
    for (const char* name :
         {"a", "a name with spaces", "UPPER.lower", "x.y.z", "!#$%&'()-@^_`{}~+,;=[]", "\u00e4\u4e2d"})
        CreateOne(trial, place + "\\" + name, false);
    CreateOne(trial, place + "\\" + std::string(200, 'n'), false);
    {
        const Opened first(trial, trial.Calls().Open(place + "\\file")),
            second(trial, trial.Calls().Open(place + "\\a"));
        trial.Check("handle.unique", first.Fd != second.Fd, "the same handle for two files");
        trial.Held("handle.set");
        const Opened file(trial, trial.Calls().OpenDir(place + "\\file"));
        trial.Check("open.type", !NT_SUCCESS(file.Status), "success, for a file");
        const Opened directory(trial, trial.Calls().Open(place + "\\directory"));
        trial.Check("open.type", !NT_SUCCESS(directory.Status), "success, for a directory");
    }
    trial.Held("close.succeeds");
    trial.Remove(place);
}

void CheckContent(Trial& trial)
{
    const std::string place = trial.MakePlace("content");
    if (place.empty() || !trial.Has(&PluginOps::Write)) return;
    {
        const Opened file(trial, trial.Calls().Create(place + "\\file"));
        std::string expected;
        const auto write = [&](size_t offset, const std::string& bytes) {
            auto length = static_cast<ULONG>(bytes.size());
            const NTSTATUS status = trial.Calls().Call(&PluginOps::Write, file.Fd, static_cast<LONGLONG>(offset),
                                                       &length, static_cast<const void*>(bytes.data()));
            trial.Check("write.count", NT_SUCCESS(status) && length == bytes.size(),
                        nthost::StatusName(status) + ", " + NumberText(length) + " of " + NumberText(bytes.size()));
            if (expected.size() < offset + bytes.size()) expected.resize(offset + bytes.size());
            expected.replace(offset, bytes.size(), bytes);
            CheckSize(trial, "write.size", file.Fd, static_cast<LONGLONG>(expected.size()));
            CheckBytes(trial, "write.reads-back", file.Fd, expected);
        };
        write(0, Pattern(100, 'a'));
        write(10, Pattern(50, 'b'));
        write(5000, Pattern(1, 'c')); // what is between is zero
        write(65536, Pattern(65536, 'd'));
    }
    CheckTree(trial); // with something to read, at the ends and into bad memory
    trial.Remove(place);
}

void CheckSizes(Trial& trial)
{
    const std::string place = trial.MakePlace("sizes");
    if (place.empty() || !trial.Has(&PluginOps::SetFileSize) || !trial.Has(&PluginOps::Write)) return;
    {
        const Opened file(trial, trial.Calls().Create(place + "\\file"));
        std::string expected = Pattern(300, 's');
        (void)trial.Calls().Write(file.Fd, 0, expected);
        for (const LONGLONG size : {100, 5000, 5000, 0, 70000}) {
            LONGLONG told = size;
            const LONGLONG allocation = size;
            const NTSTATUS status = trial.Calls().Call(&PluginOps::SetFileSize, file.Fd, &told, &allocation);
            if (!trial.Check("size.told", NT_SUCCESS(status) && told == size,
                             nthost::StatusName(status) + ", " + NumberText(told)))
                break;
            expected.resize(size);
            CheckSize(trial, "size.done", file.Fd, size);
            CheckBytes(trial, "size.done", file.Fd, expected);
        }
    }
    trial.Remove(place);
}

void CheckListing(Trial& trial)
{
    const std::string place = trial.MakePlace("listing");
    if (place.empty()) return;
    std::set<std::u16string> expected;
    for (unsigned i = 0; i < 40; ++i) {
        const std::string name = "entry " + NumberText(i);
        if (NT_SUCCESS(i % 8 ? trial.Calls().MakeFile(place + "\\" + name)
                             : trial.Calls().MakeDir(place + "\\" + name)))
            expected.insert(Text(name).Units());
    }
    std::set<std::u16string> listed;
    {
        const Opened directory(trial, trial.Calls().OpenDir(place));
        for (ULONG index = 0; index < 1000; ++index) {
            const workbench::ListedEntry entry = trial.Calls().EntryAt(directory.Fd, index);
            if (!NT_SUCCESS(entry.Status)) break;
            if (entry.Name != u"." && entry.Name != u"..") listed.insert(entry.Name);
        }
    }
    trial.Check("list.complete", listed == expected,
                NumberText(listed.size()) + " names, and " + NumberText(expected.size()) + " were made");
    CheckTree(trial);
    trial.Remove(place);
}

} // namespace checker
