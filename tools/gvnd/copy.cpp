// The copier: a plan is made of the source, then carried out, then checked. What fails for one object is noted, and the
// rest goes on.
#include "gvnd/copy.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <map>
#include <set>

#include <fmt/format.h>
#include <nthost/debug.h>

#include "gvnd/progress.h"
#include "gvnd/status.h"

namespace tool {

namespace {

constexpr size_t kChunk = 1 << 20;
using Clock = std::chrono::steady_clock;

struct Item {
    std::string Path;
    NodeKind Kind;
    uint64_t Size;
    bool Skip = false; // it could not be copied, and that has been noted
};

// How names are compared where case does not count.
std::string Folded(const std::string& name)
{
    std::u16string text = nthost::FromUtf8(name);
    for (char16_t& c : text) c = static_cast<char16_t>(RtlUpcaseUnicodeChar(static_cast<WCHAR>(c)));
    return nthost::ToUtf8(reinterpret_cast<const WCHAR*>(text.data()), text.size());
}

class Copier {
public:
    Copier(Tree& from, Tree& to, bool progress)
        : from_(from), to_(to), progress_(progress), buffer_(kChunk), again_(kChunk)
    {}

    CopyTotals Run()
    {
        const auto start = Clock::now();
        Plan();
        Copy();
        CarryDirectories();
        Verify();
        totals_.Seconds = std::chrono::duration<double>(Clock::now() - start).count();
        return std::move(totals_);
    }

private:
    // --- the plan: parents before children

    void Plan()
    {
        ProgressLine line(progress_, "found");
        PlanDirectory("", line);
    }

    void PlanDirectory(const std::string& path, ProgressLine& line)
    {
        std::set<std::string> names;
        std::vector<TreeEntry> entries;
        Attempt([&] { entries = from_.List(path); });
        for (const TreeEntry& entry : entries) {
            const std::string child = path + "\\" + entry.Name;
            if (to_.IgnoresCase() && !names.insert(Folded(entry.Name)).second) {
                const char* const more = entry.Kind == NodeKind::Directory ? ", with what is in it" : "";
                totals_.NotRepresentable.push_back(
                    fmt::format("{}: differs in case alone from its neighbour{}", from_.Title(child), more));
                continue;
            }
            PlanEntry(child, entry, line);
        }
    }

    void PlanEntry(const std::string& path, const TreeEntry& entry, ProgressLine& line)
    {
        if (entry.Kind == NodeKind::Other) {
            totals_.NotRepresentable.push_back(from_.Title(path) + ": neither file nor directory nor link");
            return;
        }
        items_.push_back({path, entry.Kind, entry.Kind == NodeKind::File ? entry.Size : 0});
        plannedBytes_ += items_.back().Size;
        line.Update(items_.size(), plannedBytes_);
        if (entry.Kind == NodeKind::Directory) PlanDirectory(path, line);
    }

    // --- copying

    void Copy()
    {
        ProgressLine line(progress_, "copied", plannedBytes_);
        ++totals_.Directories; // the top
        Attempt([&] { NoteWhatIsThere(""); });
        uint64_t count = 0;
        for (Item& item : items_) {
            if (!skippedBelow_.empty() && item.Path.starts_with(skippedBelow_)) {
                item.Skip = true;
                continue;
            }
            if (!Attempt([&] { CopyItem(item); })) {
                item.Skip = true;
                if (item.Kind == NodeKind::Directory) skippedBelow_ = item.Path + "\\";
            }
            line.Update(++count, totals_.Bytes);
        }
    }

    void CopyItem(const Item& item)
    {
        if (const auto found = there_.find(Key(item.Path)); found != there_.end() && found->second != item.Kind) {
            throw HostFailure(fmt::format("{}: something of another kind is there already", to_.Title(item.Path)));
        }
        switch (item.Kind) {
        case NodeKind::File: return CopyFile(item.Path);
        case NodeKind::Directory: return CopyDirectory(item.Path);
        default: return CopyLink(item.Path);
        }
    }

    void CopyFile(const std::string& path)
    {
        const auto source = from_.Open(path, NodeKind::File, OpenFor::Reading);
        const auto target = to_.MakeFile(path, IsThere(path) ? IfThere::Overwrite : IfThere::Refuse);
        for (uint64_t offset = 0;;) {
            const size_t got = source->Read(offset, buffer_.data(), buffer_.size());
            if (got == 0) break;
            target->Write(offset, buffer_.data(), got);
            offset += got;
            totals_.Bytes += got;
        }
        Carry(path, *source, *target);
        ++totals_.Files;
    }

    void CopyDirectory(const std::string& path)
    {
        if (IsThere(path)) return NoteWhatIsThere(path);
        to_.MakeDirectory(path);
    }

    void CopyLink(const std::string& path)
    {
        const auto target = from_.ReadLink(path);
        if (!target) throw NotRepresentable(from_.Title(path) + ": a link that leads out of the tree");
        if (!IsThere(path)) to_.MakeLink(path, *target); // else the check tells whether it leads there
        ++totals_.Links;
    }

    // Only after all of their contents, which change their times, and the innermost first.
    void CarryDirectories()
    {
        for (auto item = items_.rbegin(); item != items_.rend(); ++item) {
            if (item->Kind != NodeKind::Directory || item->Skip) continue;
            ++totals_.Directories;
            Attempt([&] {
                const auto source = from_.Open(item->Path, NodeKind::Directory, OpenFor::Reading);
                const auto target = to_.Open(item->Path, NodeKind::Directory, OpenFor::Changing);
                Carry(item->Path, *source, *target);
            });
        }
    }

    // Facts last: what a read-only object has cannot be changed any more.
    void Carry(const std::string& path, TreeNode& source, TreeNode& target)
    {
        const NodeFacts facts = source.Facts();
        const EaMap eas = source.Eas();
        if (!eas.empty()) Keeping(path, [&] { target.SetEas(eas); });
        Keeping(path, [&] { target.SetFacts(facts); });
    }

    // --- checking

    void Verify()
    {
        ProgressLine line(progress_, "verified", totals_.Bytes);
        uint64_t count = 0, bytes = 0;
        for (const Item& item : items_) {
            if (item.Skip) continue;
            Attempt([&] { bytes += VerifyItem(item); });
            line.Update(++count, bytes);
        }
    }

    uint64_t VerifyItem(const Item& item)
    {
        if (item.Kind == NodeKind::Link) {
            if (from_.ReadLink(item.Path) != to_.ReadLink(item.Path)) Disagree(item, "leads elsewhere");
            return 0;
        }
        const auto source = from_.Open(item.Path, item.Kind, OpenFor::Reading);
        const auto target = to_.Open(item.Path, item.Kind, OpenFor::Reading);
        CompareBelongings(item, *source, *target);
        return item.Kind == NodeKind::File ? CompareContents(item, *source, *target) : 0;
    }

    uint64_t CompareContents(const Item& item, TreeNode& source, TreeNode& target)
    {
        for (uint64_t offset = 0;;) {
            const size_t got = source.Read(offset, buffer_.data(), buffer_.size());
            const size_t have = target.Read(offset, again_.data(), again_.size());
            if (have != got || std::memcmp(buffer_.data(), again_.data(), got) != 0) {
                Disagree(item, fmt::format("differs behind offset {}", offset));
                return offset;
            }
            if (got == 0) return offset;
            offset += got;
        }
    }

    void CompareBelongings(const Item& item, TreeNode& source, TreeNode& target)
    {
        const NodeFacts wanted = source.Facts();
        const NodeFacts facts = target.Facts();
        const bool forgiven = notKept_.contains(item.Path);
        if (facts.LastWrite != wanted.LastWrite) Disagree(item, "has another write time");
        if (facts.Attributes != wanted.Attributes && !forgiven) Disagree(item, "has other attributes");
        if (facts.Creation != wanted.Creation) totals_.NotKept.push_back(to_.Title(item.Path) + ": the creation time");
        if (forgiven) return;
        const EaMap kept = target.Eas();
        for (const auto& [name, value] : source.Eas()) {
            const auto found = kept.find(name);
            if (found == kept.end() || found->second != value) Disagree(item, "has another extended attribute " + name);
        }
    }

    void Disagree(const Item& item, const std::string& how)
    {
        totals_.Problems.push_back(fmt::format("{}: the copy {}", to_.Title(item.Path), how));
    }

    // --- what is in the target already

    void NoteWhatIsThere(const std::string& path)
    {
        for (const TreeEntry& entry : to_.List(path)) there_.emplace(Key(path + "\\" + entry.Name), entry.Kind);
    }
    std::string Key(const std::string& path) const { return to_.IgnoresCase() ? Folded(path) : path; }
    bool IsThere(const std::string& path) const { return there_.contains(Key(path)); }

    // --- failures

    // False if the body failed; that is noted then.
    template <typename Body>
    bool Attempt(Body&& body)
    {
        try {
            body();
            return true;
        } catch (const NotRepresentable& reason) {
            totals_.NotRepresentable.push_back(reason.what());
        } catch (const Failure& failure) {
            totals_.Problems.push_back(failure.what());
        } catch (const std::exception& failure) {
            totals_.Problems.push_back(failure.what());
        }
        return false;
    }

    template <typename Body>
    void Keeping(const std::string& path, Body&& body)
    {
        try {
            body();
        } catch (const NotKept& reason) {
            totals_.NotKept.push_back(reason.what());
            notKept_.insert(path);
        }
    }

    Tree& from_;
    Tree& to_;
    bool progress_;
    CopyTotals totals_;
    std::vector<Item> items_;
    uint64_t plannedBytes_ = 0;
    std::string skippedBelow_;
    std::map<std::string, NodeKind> there_; // in directories that were there before, by Key
    std::set<std::string> notKept_;         // what has an entry in NotKept for its attributes
    std::vector<char> buffer_;
    std::vector<char> again_;
};

void PrintSome(std::FILE* stream, const std::vector<std::string>& lines)
{
    constexpr size_t kShown = 10;
    for (size_t i = 0; i < lines.size() && i < kShown; ++i) fmt::print(stream, "  {}\n", lines[i]);
    if (lines.size() > kShown) fmt::print(stream, "  ... and {} more\n", lines.size() - kShown);
}

} // namespace

CopyTotals CopyTree(Tree& from, Tree& to, bool progress) { return Copier(from, to, progress).Run(); }

int PrintTotals(const CopyTotals& totals)
{
    fmt::print("{} files in {} directories, {} links, {:.1f} MB\n", totals.Files, totals.Directories, totals.Links,
               static_cast<double>(totals.Bytes) / 1e6);
    fmt::print("copied and read again in {:.2f} s, {:.1f} MB/s; {} requests, {} plugin calls\n", totals.Seconds,
               2 * static_cast<double>(totals.Bytes) / 1e6 / (totals.Seconds > 0 ? totals.Seconds : 1), totals.Requests,
               totals.PluginCalls);
    if (!totals.NotRepresentable.empty()) {
        fmt::print("not representable: {} names\n", totals.NotRepresentable.size());
        PrintSome(stdout, totals.NotRepresentable);
    }
    if (!totals.NotKept.empty()) {
        fmt::print("not kept by the target: {}\n", totals.NotKept.size());
        PrintSome(stdout, totals.NotKept);
    }
    if (totals.Problems.empty()) {
        fmt::print("every byte agrees\n");
        return ExitSuccess;
    }
    std::fflush(stdout);
    fmt::print(stderr, "{} problems\n", totals.Problems.size());
    PrintSome(stderr, totals.Problems);
    return ExitMismatch;
}

} // namespace tool
