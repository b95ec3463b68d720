// The tables, each row with its weight.

#include "generator.h"

#include "names.h"

namespace model {
namespace {

constexpr int kNone = -1;
static_assert(kNone == kNoRoot);

struct VerbRow {
    unsigned Weight;
    model::Verb Verb;
    ACCESS_MASK Wants; // of the handle
    model::Suits Suits = Suits::Anything;
};
constexpr VerbRow kVerbs[] = {
    {34, Verb::Open, 0},
    {14, Verb::Close, 0},
    {10, Verb::SetDisposition, DELETE},
    {17, Verb::Rename, DELETE},
    {6, Verb::SetAttributes, FILE_WRITE_ATTRIBUTES},
    {7, Verb::SetEndOfFile, FILE_WRITE_DATA, Suits::Files},
    {3, Verb::QueryStandard, 0},
    {5, Verb::QueryName, 0},
    {3, Verb::QueryAttributes, FILE_READ_ATTRIBUTES},
    {3, Verb::List, FILE_LIST_DIRECTORY, Suits::Directories},
    {8, Verb::Touch, FILE_READ_DATA, Suits::Files},
    {2, Verb::Flush, FILE_WRITE_DATA},
    {1, Verb::Trim, 0},
};

struct ValueRow {
    unsigned Weight;
    ULONG Value;
};
constexpr ULONG kReads = FILE_READ_DATA | FILE_READ_ATTRIBUTES;
constexpr ULONG kWrites = FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_WRITE_ATTRIBUTES;
constexpr ValueRow kAccess[] = {
    {6, kReads},
    {3, FILE_READ_ATTRIBUTES},
    {3, 0}, // and SYNCHRONIZE, as all of them
    {6, kReads | kWrites},
    {3, FILE_WRITE_DATA},
    {3, FILE_APPEND_DATA},
    {3, FILE_WRITE_ATTRIBUTES},
    {2, FILE_EXECUTE},
    {20, DELETE | kReads},
    {10, DELETE},
    {14, DELETE | kReads | kWrites},
    {4, DELETE | kReads | FILE_WRITE_ATTRIBUTES},
    {1, FILE_DELETE_CHILD}, // refused
};
constexpr ULONG kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr ValueRow kShare[] = {
    {16, kShareAll},        {3, FILE_SHARE_READ | FILE_SHARE_WRITE},
    {2, FILE_SHARE_READ},   {1, FILE_SHARE_WRITE},
    {1, FILE_SHARE_DELETE}, {1, 0},
};
constexpr ValueRow kDispositions[] = {
    {1, FILE_SUPERSEDE}, {20, FILE_OPEN},     {8, FILE_CREATE},
    {12, FILE_OPEN_IF},  {3, FILE_OVERWRITE}, {4, FILE_OVERWRITE_IF},
};
constexpr ValueRow kTypes[] = {
    {20, 0},
    {16, FILE_DIRECTORY_FILE},
    {8, FILE_NON_DIRECTORY_FILE},
    {1, FILE_DIRECTORY_FILE | FILE_NON_DIRECTORY_FILE},
};
constexpr ValueRow kAttributes[] = {
    {4, FILE_ATTRIBUTE_NORMAL},
    {6, FILE_ATTRIBUTE_READONLY},
    {2, FILE_ATTRIBUTE_HIDDEN},
    {1, FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_HIDDEN},
    {2, FILE_ATTRIBUTE_ARCHIVE},
    {1, FILE_ATTRIBUTE_DIRECTORY},
    {1, FILE_ATTRIBUTE_TEMPORARY}, // not kept
    {1, FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN},
};

struct NameRow {
    unsigned Weight;
    const char* Name;
};
constexpr NameRow kNames[] = {
    {8, "a"}, {8, "b"}, {6, "dir"}, {4, "File"}, {4, "\u00e9"}, {2, "e\u0301"}, {2, "link"}, {1, "x?"}, {1, ".."},
};

constexpr LONGLONG kSizes[] = {0, 1, 100, 5000, 70000};

} // namespace

template <typename Row, size_t N>
const Row& Generator::Pick(const Row (&rows)[N])
{
    unsigned total = 0;
    for (const Row& row : rows) total += row.Weight;
    unsigned at = Below(total);
    const Row* row = rows;
    while (at >= row->Weight) at -= (row++)->Weight;
    return *row;
}

int Generator::FreeSlot(const NamespaceModel& model)
{
    std::vector<int> slots;
    for (unsigned slot = 0; slot < kSlots; ++slot) {
        if (!model.IsOpen(slot)) slots.push_back(static_cast<int>(slot));
    }
    return slots.empty() ? kNone : slots[Below(static_cast<unsigned>(slots.size()))];
}

// Mostly one that was opened for what is wanted, if there is one.
int Generator::OpenSlot(const NamespaceModel& model, ACCESS_MASK wanted, Suits suits)
{
    const auto isRight = [&](unsigned slot) {
        const bool kind = suits == Suits::Anything || (model.KindOf(slot) == Kind::File) == (suits == Suits::Files);
        return kind && model.Grants(slot, wanted);
    };
    std::vector<int> slots, others;
    for (unsigned slot = 0; slot < kSlots; ++slot) {
        if (!model.IsOpen(slot)) continue;
        (isRight(slot) ? slots : others).push_back(static_cast<int>(slot));
    }
    if (slots.empty() || (!others.empty() && Chance(10))) slots = others;
    return slots.empty() ? kNone : slots[Below(static_cast<unsigned>(slots.size()))];
}

std::string Generator::AnyCase(std::string path)
{
    if (Chance(70)) return path;
    const bool all = Chance(30);
    for (char& c : path) {
        const bool isLetter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        if (isLetter && (all || Chance(50))) c = static_cast<char>(c ^ 0x20);
    }
    return path;
}

std::string Generator::SomeName() { return AnyCase(Pick(kNames).Name); }

// Mostly one that exists, or one more component below it.
std::string Generator::SomePath(const NamespaceModel& model)
{
    if (Chance(2)) return ""; // the volume
    const auto paths = model.Paths();
    std::string path = AnyCase(paths[Below(static_cast<unsigned>(paths.size()))]);
    if (const int slot = OpenSlot(model, 0); slot != kNone && Chance(20)) {
        return AnyCase(model.NameOf(static_cast<unsigned>(slot)));
    }
    if (Components(path).size() < 3 ? Chance(55) : Chance(4)) path = Join(path, SomeName());
    if (Chance(2)) path = Join(path, SomeName());
    return Chance(3) ? path + "\\" : path;
}

// From the root of the volume, or relative to a handle.
void Generator::Place(const NamespaceModel& model, Operation* operation)
{
    operation->Path = SomePath(model);
    if (!Chance(25)) return;
    operation->Root = OpenSlot(model, 0);
    if (operation->Root == kNoRoot) return;
    operation->Path = Chance(10) ? "" : SomeName();
    if (Chance(10)) operation->Path = Join(operation->Path, SomeName());
    if (Chance(2)) operation->Path = "\\" + operation->Path; // refused
}

void Generator::FillOpen(const NamespaceModel& model, Operation* operation)
{
    Place(model, operation);
    operation->Access = Pick(kAccess).Value | SYNCHRONIZE;
    operation->Share = Pick(kShare).Value;
    operation->Disposition = Pick(kDispositions).Value;
    operation->Options = Pick(kTypes).Value;
    if (Chance(operation->Access & DELETE ? 15 : 1)) operation->Options |= FILE_DELETE_ON_CLOSE;
    if (Chance(1)) operation->Options |= FILE_CREATE_TREE_CONNECTION;
    if (Chance(15)) operation->Attributes = Pick(kAttributes).Value;
}

void Generator::FillRename(const NamespaceModel& model, Operation* operation)
{
    operation->Flag = Chance(50);
    Place(model, operation);
    if (operation->Path.empty() || Chance(35)) {
        operation->Root = kNoRoot;
        operation->Path = SomeName();
    }
}

Operation Generator::Next(const NamespaceModel& model)
{
    Operation operation{};
    const VerbRow& row = Pick(kVerbs);
    operation.Verb = row.Verb;
    int slot = row.Verb == Verb::Open ? FreeSlot(model) : OpenSlot(model, row.Wants, row.Suits);
    if (slot == kNone) { // all open, or none
        operation.Verb = row.Verb == Verb::Open ? Verb::Close : Verb::Open;
        slot = row.Verb == Verb::Open ? OpenSlot(model, 0) : FreeSlot(model);
    }
    operation.Slot = static_cast<unsigned>(slot);
    operation.Root = kNoRoot;
    switch (operation.Verb) {
    case Verb::Open: FillOpen(model, &operation); break;
    case Verb::Rename: FillRename(model, &operation); break;
    case Verb::SetDisposition: operation.Flag = Chance(75); break;
    case Verb::SetAttributes: operation.Attributes = Chance(10) ? 0 : Pick(kAttributes).Value; break;
    case Verb::SetEndOfFile: operation.Size = kSizes[Below(std::size(kSizes))]; break;
    default: break;
    }
    return operation;
}

} // namespace model
