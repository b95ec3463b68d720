// The Unicode prefix table. Names with equally many components make up one splay tree, ordered by their folded text;
// the roots hang in a list, most components first. Names that differ only in case form a ring, of which one member is
// in the tree. A table of many names has an index too (rtl/prefix_index.h), whose head stands in front of the roots; it
// comes and goes with their number. Callers serialise everything.

#include <algorithm>
#include <cstring>

#include "rtl/casing.h"
#include "rtl/prefix_index.h"
#include "rtl/splay.h"

using nthost::rtl::FoldedHash;
using nthost::rtl::PrefixIndex;
using nthost::rtl::Upcase;

namespace {

using Entry = UNICODE_PREFIX_TABLE_ENTRY;

// What the public structures' NodeTypeCode says.
constexpr CSHORT kTable = 0x0800;
constexpr CSHORT kRoot = 0x0801;
constexpr CSHORT kChild = 0x0802;
constexpr CSHORT kCaseMatch = 0x0803; // in a ring, not in a tree
constexpr CSHORT kIndex = 0x0804;

// So many entries in trees make an index, and half of it ends it. Below, the table's NameLength counts them.
constexpr CSHORT kIndexed = 64;

struct Name {
    PCWCH Text;
    size_t Units;
};

Name NameOf(PCUNICODE_STRING string) { return {string->Buffer, string->Length / sizeof(WCHAR)}; }

Entry* EntryOf(PRTL_SPLAY_LINKS links) { return CONTAINING_RECORD(links, Entry, Links); }

// Backslashes plus one; one at the end begins no component.
CSHORT Components(Name name)
{
    const size_t inner = name.Units ? name.Units - 1 : 0;
    return static_cast<CSHORT>(1 + std::count(name.Text, name.Text + inner, L'\\'));
}

// Paths of one directory begin alike and are mostly spelled alike: whole words of equal units are passed over first.
size_t SkipEqualWords(Name a, Name b, size_t common)
{
    constexpr size_t step = sizeof(uint64_t) / sizeof(WCHAR);
    size_t i = 0;
    for (; i + step <= common; i += step) {
        uint64_t x, y;
        std::memcpy(&x, a.Text + i, sizeof(x));
        std::memcpy(&y, b.Text + i, sizeof(y));
        if (x != y) break;
    }
    return i;
}

int CompareFolded(Name a, Name b)
{
    const size_t common = std::min(a.Units, b.Units);
    for (size_t i = SkipEqualWords(a, b, common); i < common; ++i) {
        const int order = a.Text[i] == b.Text[i] ? 0 : Upcase(a.Text[i]) - Upcase(b.Text[i]);
        if (order) return order;
    }
    return a.Units == b.Units ? 0 : a.Units < b.Units ? -1 : 1;
}

FoldedHash HashOf(Name name)
{
    FoldedHash hash;
    for (size_t i = 0; i < name.Units; ++i) hash.Append(Upcase(name.Text[i]));
    return hash;
}

// Whether the prefix is spelled as the name is, as far as `units` goes.
bool SameCase(Name prefix, Name name, size_t units)
{
    return std::equal(prefix.Text, prefix.Text + std::min(prefix.Units, units), name.Text);
}

// A full name that is shortened component by component.
class ShrinkingName {
public:
    explicit ShrinkingName(Name name)
        : name_(name), cut_(name.Units ? name.Units - 1 : 0), components_(Components(name))
    {}

    CSHORT Count() const { return components_; }
    bool EndsInBackslash() const { return name_.Units > 1 && name_.Text[name_.Units - 1] == L'\\'; }
    void DropBackslash() { --name_.Units; }

    // Of what is left.
    uint64_t Hash()
    {
        if (!hashed_)
            hash_ = HashOf(name_);
        else
            while (hashed_ > name_.Units) hash_.RemoveLast(Upcase(name_.Text[--hashed_]));
        hashed_ = name_.Units;
        return hash_.Value();
    }

    // What is left of a name at the root is the root's own backslash.
    Name ShrinkTo(CSHORT components)
    {
        while (components_ > components) {
            do --cut_;
            while (name_.Text[cut_] != L'\\');
            name_.Units = cut_ ? cut_ : 1;
            --components_;
        }
        return name_;
    }

private:
    Name name_;
    FoldedHash hash_;
    size_t hashed_ = 0; // units; 0 before the first use
    size_t cut_;        // no backslash that separates components stands at or behind it
    CSHORT components_;
};

PrefixIndex* IndexOf(PUNICODE_PREFIX_TABLE table)
{
    Entry* const first = table->NextPrefixTree;
    return first && first->NodeTypeCode == kIndex ? static_cast<PrefixIndex*>(first) : nullptr;
}

Entry** FirstTree(PUNICODE_PREFIX_TABLE table)
{
    PrefixIndex* const index = IndexOf(table);
    return index ? &index->NextPrefixTree : &table->NextPrefixTree;
}

// Where the tree for so many components hangs, or would hang.
Entry** TreeLink(PUNICODE_PREFIX_TABLE table, CSHORT components)
{
    Entry** link = FirstTree(table);
    while (*link && (*link)->NameLength > components) link = &(*link)->NextPrefixTree;
    return link;
}

void SetRoot(Entry** link, Entry* entry, Entry* nextTree)
{
    entry->NodeTypeCode = kRoot;
    entry->NextPrefixTree = nextTree;
    *link = entry;
}

void MoveToRoot(Entry** link, Entry* entry)
{
    Entry* const old = *link;
    nthost::rtl::Splay(&entry->Links);
    if (old == entry) return;
    SetRoot(link, entry, old->NextPrefixTree);
    old->NodeTypeCode = kChild;
    old->NextPrefixTree = nullptr;
}

struct Place {
    Entry* Last; // where the walk down the tree ended
    int Order;   // of the name against it; 0 is found
};

Place Locate(Entry* root, Name name)
{
    for (Entry* entry = root;;) {
        const int order = CompareFolded(name, NameOf(entry->Prefix));
        const PRTL_SPLAY_LINKS next = order < 0 ? entry->Links.LeftChild : entry->Links.RightChild;
        if (order == 0 || !next) return {entry, order};
        entry = EntryOf(next);
    }
}

// The entry in a tree for what is left of the name, or null. Without an index it becomes its tree's root; a walk that
// fails lifts the last entry as well.
Entry* FindName(const PrefixIndex* index, Entry** link, ShrinkingName* name)
{
    const Name left = name->ShrinkTo((*link)->NameLength);
    if (index)
        return index->Find(name->Hash(), [left](Entry* e) { return CompareFolded(left, NameOf(e->Prefix)) == 0; });
    const Place place = Locate(*link, left);
    MoveToRoot(link, place.Last);
    return place.Order == 0 ? place.Last : nullptr;
}

// The first member of the ring whose first units have the name's case, or null.
Entry* FindCaseMatch(Entry* ring, Name name, size_t units)
{
    Entry* entry = ring;
    do {
        if (SameCase(NameOf(entry->Prefix), name, units)) return entry;
        entry = entry->CaseMatch;
    } while (entry != ring);
    return nullptr;
}

Entry* RingPredecessor(Entry* entry)
{
    Entry* previous = entry;
    while (previous->CaseMatch != entry) previous = previous->CaseMatch;
    return previous;
}

void Attach(Entry* entry, const Place& place)
{
    (place.Order < 0 ? place.Last->Links.LeftChild : place.Last->Links.RightChild) = &entry->Links;
    entry->Links.Parent = &place.Last->Links;
}

// The next member of the ring takes the entry's place in the tree.
void ReplaceByCaseMatch(Entry** link, Entry* entry)
{
    Entry* const heir = entry->CaseMatch;
    nthost::rtl::ReplaceLinks(&entry->Links, &heir->Links);
    heir->NodeTypeCode = entry->NodeTypeCode;
    heir->NextPrefixTree = entry->NextPrefixTree;
    if (*link == entry) *link = heir;
}

void RemoveFromTree(Entry** link, Entry* entry)
{
    MoveToRoot(link, entry);
    Entry* const nextTree = entry->NextPrefixTree;
    const PRTL_SPLAY_LINKS root = nthost::rtl::DeleteLinks(&entry->Links);
    if (root)
        SetRoot(link, EntryOf(root), nextTree);
    else
        *link = nextTree;
}

void MakeIndex(PUNICODE_PREFIX_TABLE table)
{
    auto* const index = new PrefixIndex({kIndex, 0, table->NextPrefixTree, nullptr, {}, nullptr});
    for (Entry* tree = table->NextPrefixTree; tree; tree = tree->NextPrefixTree)
        for (PRTL_SPLAY_LINKS links = nthost::rtl::FirstLinks(&tree->Links); links;
             links = nthost::rtl::NextLinks(links))
            index->Insert(HashOf(NameOf(EntryOf(links)->Prefix)).Value(), EntryOf(links));
    table->NextPrefixTree = index;
    table->NameLength = 0;
}

// After an entry has come into a tree.
void CountIn(PUNICODE_PREFIX_TABLE table, Entry* entry)
{
    if (PrefixIndex* const index = IndexOf(table))
        index->Insert(HashOf(NameOf(entry->Prefix)).Value(), entry);
    else if (++table->NameLength == kIndexed)
        MakeIndex(table);
}

// Before an entry leaves its tree, for an heir or for nobody.
void CountOut(PUNICODE_PREFIX_TABLE table, Entry* entry, Entry* heir)
{
    PrefixIndex* const index = IndexOf(table);
    if (!index) {
        if (!heir) --table->NameLength;
        return;
    }
    const uint64_t hash = HashOf(NameOf(entry->Prefix)).Value();
    if (heir) return index->Replace(hash, entry, heir);
    index->Remove(hash, entry);
    if (index->Count() > kIndexed / 2) return;
    table->NameLength = static_cast<CSHORT>(index->Count());
    table->NextPrefixTree = index->NextPrefixTree;
    delete index;
}

// The entry after this one in table order, without regard to rings; null at the end.
Entry* NextInTrees(PUNICODE_PREFIX_TABLE table, Entry* entry)
{
    if (const PRTL_SPLAY_LINKS next = nthost::rtl::NextLinks(&entry->Links)) return EntryOf(next);
    Entry* const tree = (*TreeLink(table, entry->NameLength))->NextPrefixTree;
    return tree ? EntryOf(nthost::rtl::FirstLinks(&tree->Links)) : nullptr;
}

} // namespace

VOID NTAPI RtlInitializeUnicodePrefix(PUNICODE_PREFIX_TABLE PrefixTable)
{
    *PrefixTable = {kTable, 0, nullptr, nullptr};
}

BOOLEAN NTAPI RtlInsertUnicodePrefix(PUNICODE_PREFIX_TABLE PrefixTable, PUNICODE_STRING Prefix,
                                     PUNICODE_PREFIX_TABLE_ENTRY PrefixTableEntry)
{
    const Name name = NameOf(Prefix);
    const CSHORT components = Components(name);
    Entry** const link = TreeLink(PrefixTable, components);
    const bool treeExists = *link && (*link)->NameLength == components;
    const Place place = treeExists ? Locate(*link, name) : Place{};
    Entry* const ring = treeExists && place.Order == 0 ? place.Last : nullptr;
    if (ring) MoveToRoot(link, ring);
    if (ring && FindCaseMatch(ring, name, name.Units)) return FALSE;

    Entry* const entry = PrefixTableEntry;
    *entry = {kCaseMatch, components, nullptr, entry, {}, Prefix};
    nthost::rtl::InitializeLinks(&entry->Links);
    PrefixTable->LastNextEntry = nullptr;
    if (ring) {
        entry->CaseMatch = ring->CaseMatch;
        ring->CaseMatch = entry;
        return TRUE;
    }
    if (treeExists) {
        Attach(entry, place);
        MoveToRoot(link, entry);
    } else {
        SetRoot(link, entry, *link);
    }
    CountIn(PrefixTable, entry);
    return TRUE;
}

VOID NTAPI RtlRemoveUnicodePrefix(PUNICODE_PREFIX_TABLE PrefixTable, PUNICODE_PREFIX_TABLE_ENTRY PrefixTableEntry)
{
    Entry* const entry = PrefixTableEntry;
    PrefixTable->LastNextEntry = nullptr;
    if (entry->NodeTypeCode != kCaseMatch) {
        CountOut(PrefixTable, entry, entry->CaseMatch != entry ? entry->CaseMatch : nullptr);
        Entry** const link = TreeLink(PrefixTable, entry->NameLength);
        if (entry->CaseMatch != entry)
            ReplaceByCaseMatch(link, entry);
        else
            RemoveFromTree(link, entry);
    }
    RingPredecessor(entry)->CaseMatch = entry->CaseMatch;
}

PUNICODE_PREFIX_TABLE_ENTRY NTAPI RtlFindUnicodePrefix(PUNICODE_PREFIX_TABLE PrefixTable, PUNICODE_STRING FullName,
                                                       ULONG CaseInsensitiveIndex)
{
    const Name full = NameOf(FullName);
    const PrefixIndex* const index = IndexOf(PrefixTable);
    ShrinkingName name(full);
    Entry** link = TreeLink(PrefixTable, name.Count());
    for (; *link; link = &(*link)->NextPrefixTree) {
        Entry* found = FindName(index, link, &name);
        // A name that ends in a backslash is longer than the same one without, with as many components.
        if (!found && name.EndsInBackslash()) {
            name.DropBackslash();
            found = FindName(index, link, &name);
        }
        if (found) found = FindCaseMatch(found, full, CaseInsensitiveIndex);
        if (found) return found;
    }
    return nullptr;
}

PUNICODE_PREFIX_TABLE_ENTRY NTAPI RtlNextUnicodePrefix(PUNICODE_PREFIX_TABLE PrefixTable, BOOLEAN Restart)
{
    Entry* const last = Restart ? nullptr : PrefixTable->LastNextEntry;
    Entry* next = nullptr;
    if (!last) {
        Entry* const tree = *FirstTree(PrefixTable);
        if (tree) next = EntryOf(nthost::rtl::FirstLinks(&tree->Links));
    } else {
        // A ring begins with its member in the tree, and coming back there ends it.
        next = last->CaseMatch;
        if (next->NodeTypeCode != kCaseMatch) next = NextInTrees(PrefixTable, next);
    }
    if (next) PrefixTable->LastNextEntry = next;
    return next;
}
