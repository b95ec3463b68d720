// What holds of any volume as it stands, without changing it: the table, the root, and what is below.
#include "trial.h"

#include <map>

#include <nthost/debug.h>
#include <nthost/user_memory.h>

namespace checker {

namespace {

using workbench::FoundObject;
using workbench::ListedEntry;

constexpr unsigned kMostObjects = 200;
constexpr unsigned kMostEntries = 1000000;

bool IsDirectory(ULONG attributes) { return attributes & FILE_ATTRIBUTE_DIRECTORY; }
bool IsLink(ULONG attributes) { return attributes & FILE_ATTRIBUTE_REPARSE_POINT; }

std::string InfoText(const PluginFileInfo& info)
{
    char text[160];
    std::snprintf(text, sizeof text, "attributes 0x%x, size %lld, allocation %lld, id 0x%llx", info.FileAttributes,
                  static_cast<long long>(info.EndOfFile), static_cast<long long>(info.AllocationSize),
                  static_cast<unsigned long long>(info.FileId));
    return text;
}

bool Same(const PluginFileInfo& a, const PluginFileInfo& b)
{
    return a.EndOfFile == b.EndOfFile && a.AllocationSize == b.AllocationSize && a.FileAttributes == b.FileAttributes &&
           a.FileId == b.FileId;
}

class Walk {
public:
    explicit Walk(Trial& trial) : trial_(trial), calls_(trial.Calls()) {}

    void Visit(const std::string& path, const FoundObject& found)
    {
        if (++objects_ > kMostObjects) return;
        CheckLookup(path, found);
        if (IsLink(found.Info.FileAttributes)) return CheckLink(path);
        if (IsDirectory(found.Info.FileAttributes))
            VisitDirectory(path, found);
        else
            VisitFile(path, found);
    }

private:
    void CheckLookup(const std::string& path, const FoundObject& found)
    {
        const FoundObject again = calls_.Lookup(path);
        trial_.Check("lookup.steady",
                     again.Status == found.Status && again.Access == found.Access && Same(again.Info, found.Info),
                     InfoText(found.Info) + ", and then " + InfoText(again.Info));
        if (!IsLink(found.Info.FileAttributes))
            trial_.Check("lookup.access-read", found.Access & GVND_ACCESS_READ,
                         "access " + NumberText(found.Access) + " of " + path);
        const auto [at, isNew] = ids_.emplace(found.Info.FileId, path);
        trial_.Check("lookup.file-id", isNew, "the file id of " + at->second);
        trial_.Held("lookup.access");
        trial_.Held("record.attributes");
        if (!trial_.Has(&PluginOps::AccessCheck)) return;
        void* token = nullptr;
        const auto ask = [&] {
            return calls_.Call(&PluginOps::AccessCheck, Text(path).Get(), 2u, GVND_ACCESS_READ, &token);
        };
        const NTSTATUS first = ask();
        trial_.CheckStatus("access.steady", first, ask());
    }

    void CheckLink(const std::string& path)
    {
        if (!trial_.Check("table.slots", trial_.Has(&PluginOps::ReadLink), "a reparse point, and ReadLink is empty"))
            return;
        NTSTATUS status;
        const std::u16string target = calls_.ReadLink(path, &status);
        trial_.Check("link.target", NT_SUCCESS(status) && target.starts_with(u'\\'),
                     nthost::StatusName(status) + ", target '" + Text(target).Utf8() + "'");
        trial_.Check("link.target", target != Text(path).Units(), "the link leads to itself");
    }

    // GetInfo of an open object, and what the other kind of open says.
    bool CheckOpened(const std::string& path, const FoundObject& found, const Opened& opened)
    {
        if (!trial_.Check("open.works", opened.Works(), nthost::StatusName(opened.Status))) return false;
        const FoundObject info = calls_.Info(opened.Fd);
        trial_.Check("lookup.agrees", NT_SUCCESS(info.Status) && Same(info.Info, found.Info),
                     nthost::StatusName(info.Status) + ", " + InfoText(info.Info) + "; Lookup says " +
                         InfoText(found.Info));
        const Opened other(trial_, IsDirectory(found.Info.FileAttributes) ? calls_.Open(path) : calls_.OpenDir(path));
        trial_.Check("open.type", !NT_SUCCESS(other.Status), "success, for " + InfoText(found.Info));
        if (trial_.Has(&PluginOps::ListEa)) ReadEas(opened.Fd);
        return true;
    }

    void ReadEas(PluginFd fd)
    {
        NTSTATUS status;
        const std::vector<std::string> names = calls_.Eas(fd, &status);
        for (const std::string& name : names) {
            const auto value = calls_.Ea(fd, name.c_str(), &status);
            trial_.Check("ea.kept", NT_SUCCESS(status) && value,
                         "a name that is listed, and " + Verifier::LastOutcome());
        }
    }

    void VisitDirectory(const std::string& path, const FoundObject& found)
    {
        const Opened directory(trial_, calls_.OpenDir(path));
        if (!CheckOpened(path, found, directory)) return;
        std::map<std::u16string, ULONG> names;
        ULONG index = 0;
        for (;; ++index) {
            const ListedEntry entry = calls_.EntryAt(directory.Fd, index);
            if (!NT_SUCCESS(entry.Status)) {
                trial_.CheckStatus("list.end", STATUS_NO_MORE_FILES, entry.Status);
                break;
            }
            if (!CheckEntry(path, directory.Fd, index, entry, &names)) break;
            if (!trial_.Check("list.end", index < kMostEntries, "no end")) return;
        }
        trial_.CheckStatus("list.end", STATUS_NO_MORE_FILES, calls_.EntryAt(directory.Fd, index + 100).Status);
        const std::string missing = (path == "\\" ? "" : path) + "\\no such name here";
        trial_.CheckStatus("lookup.missing-name", STATUS_OBJECT_NAME_NOT_FOUND, calls_.Lookup(missing).Status);
        const Opened nothing(trial_, calls_.Open(missing));
        trial_.Check("open.type", !NT_SUCCESS(nothing.Status), "success, for a name that is not there");
        trial_.Held("list.names");
    }

    // False if there is no sense in going on.
    bool CheckEntry(const std::string& path, PluginFd fd, ULONG index, const ListedEntry& entry,
                    std::map<std::u16string, ULONG>* names)
    {
        const ListedEntry again = calls_.EntryAt(fd, index);
        const std::string name = Text(entry.Name).Utf8();
        trial_.Check("list.index", again.Name == entry.Name, "'" + Text(again.Name).Utf8() + "' after '" + name + "'");
        const auto [at, isNew] = names->emplace(entry.Name, index);
        if (!trial_.Check("list.no-name-twice", isNew, "'" + name + "', as for index " + NumberText(at->second)))
            return false;
        if (name == "." || name == "..") return true;
        const std::string child = (path == "\\" ? "" : path) + "\\" + name;
        const FoundObject found = calls_.Lookup(child);
        if (!trial_.Check("list.found", NT_SUCCESS(found.Status), Verifier::LastOutcome())) return true;
        const PluginDirEntry& record = entry.Record;
        trial_.Check("list.agrees",
                     IsDirectory(record.FileAttributes) == IsDirectory(found.Info.FileAttributes) &&
                         (IsDirectory(record.FileAttributes) || record.EndOfFile == found.Info.EndOfFile),
                     InfoText(found.Info) + "; the listing says size " + NumberText(record.EndOfFile));
        Visit(child, found);
        return true;
    }

    void VisitFile(const std::string& path, const FoundObject& found)
    {
        const Opened file(trial_, calls_.Open(path));
        if (!CheckOpened(path, found, file)) return;
        const LONGLONG size = found.Info.EndOfFile;
        for (const LONGLONG offset : {LONGLONG(0), size > 0 ? size - 1 : 0, size, size + 1, size + (LONGLONG(1) << 32)})
            ReadAt(file.Fd, offset, size);
        CheckBadBuffer(file.Fd, size);
        if (trial_.Has(&PluginOps::FlushFile))
            trial_.CheckStatus("flush.succeeds", STATUS_SUCCESS, calls_.Call(&PluginOps::FlushFile, file.Fd));
    }

    void ReadAt(PluginFd fd, LONGLONG offset, LONGLONG size)
    {
        constexpr ULONG kAsked = 5000;
        constexpr char kZone = '\x5b';
        std::string buffer(kAsked + 4096, kZone);
        ULONG length = kAsked;
        const NTSTATUS status = calls_.Call(&PluginOps::Read, fd, offset, &length, static_cast<void*>(buffer.data()));
        const auto isZone = [&](size_t from) { return buffer.find_first_not_of(kZone, from) == std::string::npos; };
        trial_.Check("read.bounds", isZone(kAsked), "bytes behind the buffer are written");
        trial_.Held("read.count");
        const LONGLONG left = std::max<LONGLONG>(size - offset, 0);
        const bool isAtEnd = left == 0 && (status == STATUS_END_OF_FILE || (NT_SUCCESS(status) && length == 0));
        const bool isRight = left > 0 && NT_SUCCESS(status) && length <= left && length > 0;
        trial_.Check("read.end", isAtEnd || isRight,
                     Verifier::LastOutcome() + " with " + NumberText(length) + " bytes, and the file has " +
                         NumberText(left) + " there");
    }

    void CheckBadBuffer(PluginFd fd, LONGLONG size)
    {
        if (size == 0) return;
        nthost::UserMemory memory(4096);
        memory.Unmap();
        ULONG length = 100;
        (void)calls_.Call(&PluginOps::Read, fd, LONGLONG(0), &length, static_cast<void*>(memory.Address()));
        memory.Map();
        NTSTATUS status;
        (void)calls_.Read(fd, 0, 100, &status);
        trial_.Check("read.bad-buffer", NT_SUCCESS(status), Verifier::LastOutcome());
    }

    Trial& trial_;
    const workbench::PluginTable& calls_;
    std::map<ULONGLONG, std::string> ids_;
    unsigned objects_ = 0;
};

} // namespace

void CheckTable(Trial& trial)
{
    const PluginOps* const table = trial.Table();
    trial.CheckAt("table.version", "the table", table->Version == GVND_PLUGIN_VERSION,
                  "Version is " + NumberText(table->Version));
    const auto slot = [&](const char* name, bool isThere) {
        return trial.CheckAt("table.slots", "the table", isThere, std::string(name) + " is empty");
    };
    slot("Lookup", table->Lookup);
    slot("Open", table->Open);
    slot("OpenDir", table->OpenDir);
    slot("Read", table->Read);
    slot("ReadDirEntry", table->ReadDirEntry);
    slot("GetInfo", table->GetInfo);
    slot("GetVolInfo", table->GetVolInfo);
    slot("SetFileSize, which Write wants,", table->SetFileSize || !table->Write);
    slot("GetEa, which ListEa wants,", table->GetEa || !table->ListEa);
    slot("ListEa, which SetEa wants,", table->ListEa || !table->SetEa);
    slot("CreateDir, which Create wants,", table->CreateDir || !table->Create);
    trial.CheckAt("table.close", "the table", table->Close || !(table->Rename || table->Delete), "Close is empty");
}

void CheckTree(Trial& trial)
{
    const FoundObject root = trial.Calls().Lookup("\\");
    if (trial.Check("lookup.root", NT_SUCCESS(root.Status) && IsDirectory(root.Info.FileAttributes),
                    nthost::StatusName(root.Status) + ", " + InfoText(root.Info)))
        Walk(trial).Visit("\\", root);
}

void CheckVolumeRecord(Trial& trial)
{
    NTSTATUS status;
    const auto before = trial.Calls().VolumeInfo(&status);
    if (!trial.Check("volume.space", NT_SUCCESS(status), Verifier::LastOutcome())) return;
    trial.Held("volume.sector");
    if (!trial.Has(&PluginOps::SetVolLabel) || !trial.CanChange()) return;
    const std::u16string was(reinterpret_cast<const char16_t*>(before->VolumeLabel),
                             before->VolumeLabelLength / sizeof(WCHAR));
    const Text label("checked");
    if (NT_SUCCESS(trial.Calls().Call(&PluginOps::SetVolLabel, label.Get()))) {
        const auto after = trial.Calls().VolumeInfo(&status);
        const std::string told = after ? workbench::Utf8(after->VolumeLabel, after->VolumeLabelLength) : "nothing";
        trial.Check("volume.label", told == "checked", "'" + told + "' after it was set to 'checked'");
        (void)trial.Calls().Call(&PluginOps::SetVolLabel, Text(was).Get());
    }
    if (trial.Has(&PluginOps::FlushVol))
        trial.CheckStatus("flush.succeeds", STATUS_SUCCESS, trial.Calls().Call(&PluginOps::FlushVol));
}

} // namespace checker
