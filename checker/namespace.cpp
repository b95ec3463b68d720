// Attributes, times, extended attributes, removal and renaming.
#include "trial.h"

#include <nthost/debug.h>

namespace checker {

namespace {

using workbench::FoundObject;

constexpr ULONG kSettable =
    FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE;

bool IsListed(Trial& trial, const std::string& directory, const std::string& name)
{
    const Opened opened(trial, trial.Calls().OpenDir(directory));
    for (ULONG index = 0; index < 1000; ++index) {
        const workbench::ListedEntry entry = trial.Calls().EntryAt(opened.Fd, index);
        if (!NT_SUCCESS(entry.Status)) return false;
        if (entry.Name == Text(name).Units()) return true;
    }
    return false;
}

void CheckAttributes(Trial& trial, const std::string& path)
{
    for (const ULONG bits : {ULONG{FILE_ATTRIBUTE_HIDDEN}, ULONG{FILE_ATTRIBUTE_SYSTEM}, ULONG{FILE_ATTRIBUTE_ARCHIVE},
                             ULONG{FILE_ATTRIBUTE_READONLY}, kSettable, ULONG{0}}) {
        const NTSTATUS status = trial.Calls().SetAttributes(path, bits);
        const FoundObject found = trial.Calls().Lookup(path);
        trial.Check("attributes.kept", NT_SUCCESS(status) && (found.Info.FileAttributes & kSettable) == bits,
                    nthost::StatusName(status) + ", and Lookup says " + NumberText(found.Info.FileAttributes) +
                        " after " + NumberText(bits));
    }
}

void CheckTimes(Trial& trial, const std::string& path)
{
    const Opened file(trial, trial.Calls().Open(path, GVND_ACCESS_ALL));
    constexpr LONGLONG kTime = 130000000000000000; // 2012, whole seconds of even number
    const NTSTATUS status =
        trial.Calls().Call(&PluginOps::SetTime, file.Fd, LONGLONG(0), LONGLONG(0), kTime, LONGLONG(0));
    if (status == STATUS_NOT_SUPPORTED) return;
    const FoundObject first = trial.Calls().Info(file.Fd);
    trial.Check("times.kept", NT_SUCCESS(status) && std::abs(first.Info.LastWriteTime - kTime) < 20000000,
                nthost::StatusName(status) + ", LastWriteTime " + NumberText(first.Info.LastWriteTime));
    (void)trial.Calls().Call(&PluginOps::SetTime, file.Fd, LONGLONG(0), kTime + 10000000000, LONGLONG(0), LONGLONG(0));
    const FoundObject second = trial.Calls().Info(file.Fd);
    trial.Check("times.kept", second.Info.LastWriteTime == first.Info.LastWriteTime,
                "a time of 0 changed LastWriteTime");
}

} // namespace

void CheckMetadata(Trial& trial)
{
    const std::string place = trial.MakePlace("metadata");
    if (place.empty()) return;
    const std::string path = place + "\\file";
    (void)trial.Calls().MakeFile(path, "content");
    if (trial.Has(&PluginOps::SetAttr)) CheckAttributes(trial, path);
    if (trial.Has(&PluginOps::SetTime)) CheckTimes(trial, path);
    if (trial.Has(&PluginOps::GetNormalizedPath)) {
        const std::string odd = place + "\\\u00e9";
        (void)trial.Calls().MakeFile(odd);
        PUNICODE_STRING text = nullptr;
        const NTSTATUS status =
            trial.Calls().Call(&PluginOps::GetNormalizedPath, Text(place + "\\e\u0301").Get(), &text);
        const workbench::PoolOwned<UNICODE_STRING> owned(text);
        const std::string normal =
            text ? workbench::Utf8(text->Buffer, text->Length) : place + "\\e\u0301"; // null leaves it
        const FoundObject plain = trial.Calls().Lookup(place + "\\e\u0301"), found = trial.Calls().Lookup(normal);
        trial.Check("normalized.same", !NT_SUCCESS(status) || found.Status == plain.Status,
                    "'" + normal + "' is " + nthost::StatusName(found.Status) + ", and the path itself " +
                        nthost::StatusName(plain.Status));
    }
    trial.Remove(place);
}

void CheckRemoval(Trial& trial)
{
    const std::string place = trial.MakePlace("delete");
    if (place.empty() || !trial.Has(&PluginOps::Delete)) return;
    (void)trial.Calls().MakeDir(place + "\\full");
    (void)trial.Calls().MakeFile(place + "\\full\\file", "content");
    const NTSTATUS refused = trial.Calls().Delete(place + "\\full");
    trial.Check("delete.not-empty",
                !NT_SUCCESS(refused) && NT_SUCCESS(trial.Calls().Lookup(place + "\\full\\file").Status), "it is gone");
    for (const char* name : {"\\full\\file", "\\full"}) {
        const NTSTATUS status = trial.Calls().Delete(place + name);
        const FoundObject found = trial.Calls().Lookup(place + name);
        trial.Check("delete.done", NT_SUCCESS(status) && found.Status == STATUS_OBJECT_NAME_NOT_FOUND,
                    "Delete says " + nthost::StatusName(status) + ", and Lookup then " +
                        nthost::StatusName(found.Status));
    }
    trial.Check("delete.done", !IsListed(trial, place, "full"), "the name is still listed");
    trial.Remove(place);
}

void CheckRenames(Trial& trial)
{
    const std::string place = trial.MakePlace("rename");
    if (place.empty() || !trial.Has(&PluginOps::Rename)) return;
    (void)trial.Calls().MakeDir(place + "\\a");
    (void)trial.Calls().MakeDir(place + "\\b");
    (void)trial.Calls().MakeFile(place + "\\a\\file", "content");
    const FoundObject before = trial.Calls().Lookup(place + "\\a\\file");
    const struct {
        const char* From;
        const char* To;
    } moves[] = {{"\\a\\file", "\\a\\other"}, {"\\a\\other", "\\b\\file"}, {"\\b", "\\c"}};
    for (const auto& [from, to] : moves) {
        const NTSTATUS status = trial.Calls().Rename(place + from, place + to);
        const std::string outcome = "Rename says " + nthost::StatusName(status);
        const FoundObject left = trial.Calls().Lookup(place + from), come = trial.Calls().Lookup(place + to);
        trial.Check("rename.done",
                    NT_SUCCESS(status) && left.Status == STATUS_OBJECT_NAME_NOT_FOUND && NT_SUCCESS(come.Status),
                    outcome + "; the old name is " + nthost::StatusName(left.Status) + ", the new one " +
                        nthost::StatusName(come.Status));
    }
    {
        const Opened file(trial, trial.Calls().Open(place + "\\c\\file"));
        NTSTATUS status = STATUS_SUCCESS;
        const FoundObject after = trial.Calls().Info(file.Fd);
        trial.Check("rename.done", after.Info.FileId == before.Info.FileId, "another file id");
        trial.Check("rename.done", trial.Calls().Read(file.Fd, 0, 100, &status) == "content", "other content");
    }
    const NTSTATUS inside = trial.Calls().Rename(place + "\\c", place + "\\c\\below");
    trial.Check("rename.subtree", !NT_SUCCESS(inside) && NT_SUCCESS(trial.Calls().Lookup(place + "\\c\\file").Status),
                Verifier::LastOutcome());
    trial.Remove(place);
}

void CheckEas(Trial& trial)
{
    if (!trial.Has(&PluginOps::SetEa) || !trial.Has(&PluginOps::ListEa)) return;
    const std::string place = trial.MakePlace("ea");
    if (place.empty()) return;
    {
        const workbench::PluginTable& calls = trial.Calls();
        const Opened file(trial, calls.Create(place + "\\file"));
        const NTSTATUS first = calls.SetEa(file.Fd, "CHECK.ONE", "value");
        if (first == STATUS_EAS_NOT_SUPPORTED || first == STATUS_NOT_SUPPORTED) return trial.Remove(place);
        (void)calls.SetEa(file.Fd, "CHECK.TWO", std::string(1000, 'v'));
        NTSTATUS status;
        const std::vector<std::string> names = calls.Eas(file.Fd, &status);
        trial.Check("ea.kept", NT_SUCCESS(first) && NT_SUCCESS(status) && names.size() == 2,
                    nthost::StatusName(first) + ", " + NumberText(names.size()) + " names of 2");
        const auto expect = [&](const char* name, std::string_view value) {
            const auto kept = calls.Ea(file.Fd, name, &status);
            trial.Check("ea.kept", kept == value, kept ? "another value" : "no value");
        };
        expect("CHECK.ONE", "value");
        expect("CHECK.TWO", std::string(1000, 'v'));
        (void)calls.SetEa(file.Fd, "CHECK.ONE", "replaced");
        expect("CHECK.ONE", "replaced");
        if (trial.Has(&PluginOps::DeleteEa)) {
            (void)calls.DeleteEa(file.Fd, "CHECK.ONE");
            trial.Check("ea.kept", calls.Eas(file.Fd, &status).size() == 1, "the removed name is listed");
        }
        trial.Held("ea.names");
    }
    CheckTree(trial);
    trial.Remove(place);
}

} // namespace checker
