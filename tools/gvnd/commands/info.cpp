// What is known of objects: listings, all information classes, attributes and times.
#include "gvnd/commands/info.h"

#include <cstring>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <fnmatch.h>

#include "gvnd/commands/commands.h"
#include "gvnd/status.h"
#include "gvnd/text.h"

namespace tool {

std::optional<Entry> FindEntry(Session& session, const std::string& path)
{
    const SplitPath split = SplitLast(path.substr(0, path.find_last_not_of("/\\") + 1));
    if (split.Last.empty() || IsPattern(split.Last)) return std::nullopt;
    std::optional<Entry> found;
    try {
        const File directory = OpenFile(session.NtPath(split.Directory), kListing);
        ListDirectory(directory, split.Last, [&](const Entry& entry) { found = entry; });
    } catch (const Failure& failure) {
        if (failure.Status() != STATUS_NO_SUCH_FILE) throw;
    }
    return found;
}

namespace {

void PrintTimes(int64_t creation, int64_t access, int64_t write, int64_t change)
{
    fmt::print("created     {}\naccessed    {}\nwritten     {}\nchanged     {}\n", TimeText(creation), TimeText(access),
               TimeText(write), TimeText(change));
}

const char* Mark(const Entry& entry) { return entry.IsDirectory() ? "/" : entry.IsLink() ? "@" : ""; }

void PrintEntry(const Entry& entry, bool longForm)
{
    const char* const mark = Mark(entry);
    if (longForm)
        fmt::print("{}  {:>14}  {}  {}{}\n", AttributeText(entry.Attributes), entry.Size, TimeText(entry.LastWrite),
                   entry.Name, mark);
    else
        fmt::print("{}{}\n", entry.Name, mark);
}

// A link itself can only be seen in its directory.
void PrintLink(Session& session, const std::string& path, const Entry& entry)
{
    fmt::print("name        {}\nattributes  {} (0x{:x})\n", entry.Name, AttributeText(entry.Attributes),
               entry.Attributes);
    PrintTimes(entry.Creation, entry.LastAccess, entry.LastWrite, entry.Change);
    fmt::print("reparse tag 0x{:x}\n", entry.ReparseTag);
    fmt::print("leads to    {}\n", session.ReadLink(path));
}

std::string NameOf(const FILE_NAME_INFORMATION& info) { return workbench::Utf8(info.FileName, info.FileNameLength); }

void PrintName(const File& file)
{
    std::vector<uint64_t> buffer(66 * 1024 / 8);
    file.QueryRaw(FileNameInformation, buffer.data(), buffer.size() * 8, "FileNameInformation");
    fmt::print("name        {}\n", NameOf(*reinterpret_cast<FILE_NAME_INFORMATION*>(buffer.data())));
}

void PrintBasic(const File& file)
{
    const auto info = file.Query<FILE_BASIC_INFORMATION>(FileBasicInformation, "FileBasicInformation");
    fmt::print("attributes  {} (0x{:x})\n", AttributeText(info.FileAttributes), info.FileAttributes);
    PrintTimes(info.CreationTime.QuadPart, info.LastAccessTime.QuadPart, info.LastWriteTime.QuadPart,
               info.ChangeTime.QuadPart);
}

void PrintStandard(const File& file)
{
    const auto info = file.Query<FILE_STANDARD_INFORMATION>(FileStandardInformation, "FileStandardInformation");
    fmt::print("size        {}\nallocated   {}\nlinks       {}\ndirectory   {}\ndeleted     {}\n",
               info.EndOfFile.QuadPart, info.AllocationSize.QuadPart, info.NumberOfLinks, info.Directory ? "yes" : "no",
               info.DeletePending ? "pending" : "no");
}

void PrintInternal(const File& file)
{
    const auto info = file.Query<FILE_INTERNAL_INFORMATION>(FileInternalInformation, "FileInternalInformation");
    fmt::print("file id     0x{:x}\n", static_cast<uint64_t>(info.IndexNumber.QuadPart));
}

void PrintEaSize(const File& file)
{
    fmt::print("ea size     {}\n", file.Query<FILE_EA_INFORMATION>(FileEaInformation, "FileEaInformation").EaSize);
}

void PrintAccess(const File& file)
{
    const auto info = file.Query<FILE_ACCESS_INFORMATION>(FileAccessInformation, "FileAccessInformation");
    fmt::print("access      0x{:x} (of this handle)\n", info.AccessFlags);
}

void PrintPosition(const File& file)
{
    const auto info = file.Query<FILE_POSITION_INFORMATION>(FilePositionInformation, "FilePositionInformation");
    fmt::print("position    {}\n", info.CurrentByteOffset.QuadPart);
}

void PrintMode(const File& file)
{
    fmt::print("mode        0x{:x}\n",
               file.Query<FILE_MODE_INFORMATION>(FileModeInformation, "FileModeInformation").Mode);
}

void PrintAlignment(const File& file)
{
    const auto info = file.Query<FILE_ALIGNMENT_INFORMATION>(FileAlignmentInformation, "FileAlignmentInformation");
    fmt::print("alignment   {}\n", info.AlignmentRequirement);
}

// The two classes that repeat the others are checked against them rather than printed again.
void CheckNetworkOpen(const File& file)
{
    const auto open =
        file.Query<FILE_NETWORK_OPEN_INFORMATION>(FileNetworkOpenInformation, "FileNetworkOpenInformation");
    const auto basic = file.Query<FILE_BASIC_INFORMATION>(FileBasicInformation, "FileBasicInformation");
    const bool agrees = open.LastWriteTime.QuadPart == basic.LastWriteTime.QuadPart &&
                        open.CreationTime.QuadPart == basic.CreationTime.QuadPart &&
                        open.FileAttributes == basic.FileAttributes;
    fmt::print("network     {}\n", agrees ? "agrees" : "differs from the above");
}

void CheckAll(const File& file)
{
    std::vector<uint64_t> buffer(66 * 1024 / 8);
    file.QueryRaw(FileAllInformation, buffer.data(), buffer.size() * 8, "FileAllInformation");
    const auto& all = *reinterpret_cast<FILE_ALL_INFORMATION*>(buffer.data());
    const auto standard = file.Query<FILE_STANDARD_INFORMATION>(FileStandardInformation, "FileStandardInformation");
    const bool agrees = all.StandardInformation.EndOfFile.QuadPart == standard.EndOfFile.QuadPart &&
                        all.StandardInformation.Directory == standard.Directory;
    fmt::print("all         {} ({})\n", agrees ? "agrees" : "differs from the above", NameOf(all.NameInformation));
}

constexpr void (*kClasses[])(const File&) = {PrintName,      PrintBasic,       PrintStandard, PrintInternal,
                                             PrintEaSize,    PrintAccess,      PrintPosition, PrintMode,
                                             PrintAlignment, CheckNetworkOpen, CheckAll};

LARGE_INTEGER* TimeOf(FILE_BASIC_INFORMATION& info, const std::string& word)
{
    if (word == "created") return &info.CreationTime;
    if (word == "accessed") return &info.LastAccessTime;
    if (word == "written") return &info.LastWriteTime;
    if (word == "changed") return &info.ChangeTime;
    throw Usage(fmt::format("'{}' is no time of a file; there are created, accessed, written and changed", word));
}

} // namespace

namespace commands {

void List(Shell& shell, const Words& words)
{
    const bool longForm = words.size() > 1 && words[1] == "-l";
    std::string path = shell.Resolve(words.size() > (longForm ? 2u : 1u) ? words.back() : "");
    std::string pattern;
    if (const SplitPath split = SplitLast(path); IsPattern(split.Last)) {
        path = split.Directory;
        pattern = split.Last;
    }
    const File directory = shell.Open(path, kListing);
    size_t count = 0;
    ListDirectory(directory, pattern, [&](const Entry& entry) {
        PrintEntry(entry, longForm);
        ++count;
    });
    if (longForm) fmt::print("{} entries\n", count);
}

// Links are named, not followed: they may lead back up.
void Find(Shell& shell, const Words& words)
{
    std::string pattern = words.size() > 2 ? words[2] : "";
    const auto matches = [&](const std::string& name) {
        return pattern.empty() || fnmatch(pattern.c_str(), name.c_str(), FNM_CASEFOLD | FNM_NOESCAPE) == 0;
    };
    std::vector<std::string> open = {words[1]};
    while (!open.empty()) {
        const std::string path = std::move(open.back());
        open.pop_back();
        const char* const separator = path.empty() || path.ends_with('/') || path.ends_with('\\') ? "" : "/";
        std::vector<std::string> below;
        ListDirectory(shell.Open(path, kListing), "", [&](const Entry& entry) {
            const std::string child = path + separator + entry.Name;
            if (matches(entry.Name)) fmt::print("{}{}\n", child, Mark(entry));
            if (entry.IsDirectory() && !entry.IsLink()) below.push_back(child);
        });
        open.insert(open.end(), below.rbegin(), below.rend());
    }
}

void Stat(Shell& shell, const Words& words)
{
    const std::string path = shell.Resolve(words[1]);
    if (const auto entry = FindEntry(shell.Volume(), path); entry && entry->IsLink()) {
        return PrintLink(shell.Volume(), path, *entry);
    }
    const File file = shell.Open(words[1], {.Access = FILE_READ_ATTRIBUTES | FILE_READ_EA | SYNCHRONIZE});
    for (const auto& print : kClasses) print(file);
}

void Attr(Shell& shell, const Words& words)
{
    constexpr ACCESS_MASK kLook = FILE_READ_ATTRIBUTES | SYNCHRONIZE;
    const ACCESS_MASK access = words.size() > 2 ? kLook | FILE_WRITE_ATTRIBUTES : kLook;
    const File file = shell.Open(words[1], {.Access = access});
    auto info = file.Query<FILE_BASIC_INFORMATION>(FileBasicInformation, "attributes");
    if (words.size() > 2) {
        const ULONG wanted = ChangeAttributes(info.FileAttributes & ~FILE_ATTRIBUTE_NORMAL, words[2]);
        info = {};
        info.FileAttributes = wanted ? wanted : FILE_ATTRIBUTE_NORMAL;
        file.Set(FileBasicInformation, info, "set attributes of");
        info = file.Query<FILE_BASIC_INFORMATION>(FileBasicInformation, "attributes");
    }
    fmt::print("{}\n", AttributeText(info.FileAttributes));
}

void Touch(Shell& shell, const Words& words)
{
    if (words.size() % 2 != 0) throw Usage("each of created, accessed, written, changed wants its time behind it");
    FILE_BASIC_INFORMATION info{};
    if (words.size() == 2) info.LastAccessTime.QuadPart = info.LastWriteTime.QuadPart = Now();
    for (size_t at = 2; at < words.size(); at += 2) TimeOf(info, words[at])->QuadPart = ParseTime(words[at + 1]);
    const File file =
        shell.Open(words[1], {.Access = FILE_WRITE_ATTRIBUTES | SYNCHRONIZE, .Disposition = FILE_OPEN_IF});
    file.Set(FileBasicInformation, info, "set times of");
}

} // namespace commands

} // namespace tool
