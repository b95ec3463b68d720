// Steps and outcomes in words.

#include "operation.h"

#include <span>

#include <nthost/debug.h>

namespace model {
namespace {

struct Word {
    ULONG Value;
    const char* Text;
};

constexpr const char* kVerbs[] = {"open",    "close",       "disposition", "rename",           "set attributes",
                                  "set end", "query sizes", "query name",  "query attributes", "list",
                                  "touch",   "flush",       "trim"};
constexpr const char* kDispositions[] = {"SUPERSEDE", "OPEN", "CREATE", "OPEN_IF", "OVERWRITE", "OVERWRITE_IF"};

constexpr Word kAccess[] = {
    {FILE_READ_DATA, "read"},
    {FILE_WRITE_DATA, "write"},
    {FILE_APPEND_DATA, "append"},
    {FILE_EXECUTE, "execute"},
    {FILE_DELETE_CHILD, "delete-child"},
    {FILE_READ_ATTRIBUTES, "read-attributes"},
    {FILE_WRITE_ATTRIBUTES, "write-attributes"},
    {DELETE, "delete"},
};
constexpr Word kShare[] = {{FILE_SHARE_READ, "read"}, {FILE_SHARE_WRITE, "write"}, {FILE_SHARE_DELETE, "delete"}};
constexpr Word kOptions[] = {
    {FILE_DIRECTORY_FILE, "directory"},
    {FILE_NON_DIRECTORY_FILE, "non-directory"},
    {FILE_DELETE_ON_CLOSE, "delete-on-close"},
    {FILE_CREATE_TREE_CONNECTION, "tree-connection"},
};
constexpr Word kAttributes[] = {
    {FILE_ATTRIBUTE_READONLY, "readonly"},   {FILE_ATTRIBUTE_HIDDEN, "hidden"},   {FILE_ATTRIBUTE_SYSTEM, "system"},
    {FILE_ATTRIBUTE_DIRECTORY, "directory"}, {FILE_ATTRIBUTE_ARCHIVE, "archive"}, {FILE_ATTRIBUTE_NORMAL, "normal"},
    {FILE_ATTRIBUTE_TEMPORARY, "temporary"},
};

std::string Words(ULONG value, std::span<const Word> words)
{
    std::string text;
    for (const Word& word : words) {
        if (value & word.Value) text += (text.empty() ? "" : "+") + std::string(word.Text);
    }
    return text.empty() ? "nothing" : text;
}

std::string Place(const Operation& operation)
{
    const std::string root = operation.Root == kNoRoot ? "" : " below #" + std::to_string(operation.Root);
    return " '" + operation.Path + "'" + root;
}

std::string DescribeOpen(const Operation& open)
{
    std::string text = Place(open) + " " + kDispositions[open.Disposition] + ", access " + Words(open.Access, kAccess) +
                       ", share " + Words(open.Share, kShare);
    if (Words(open.Options, kOptions) != "nothing") text += ", options " + Words(open.Options, kOptions);
    return open.Attributes ? text + ", attributes " + Words(open.Attributes, kAttributes) : text;
}

} // namespace

std::string Describe(const Operation& operation)
{
    const std::string text =
        std::string(kVerbs[static_cast<int>(operation.Verb)]) + " #" + std::to_string(operation.Slot);
    switch (operation.Verb) {
    case Verb::Open: return text + DescribeOpen(operation);
    case Verb::SetDisposition: return text + (operation.Flag ? " delete" : " keep");
    case Verb::Rename: return text + " to" + Place(operation) + (operation.Flag ? ", replacing" : "");
    case Verb::SetAttributes: return text + " " + Words(operation.Attributes, kAttributes);
    case Verb::SetEndOfFile: return text + " " + std::to_string(operation.Size);
    default: return text;
    }
}

std::string Describe(const Outcome& outcome)
{
    std::string text = nthost::StatusName(outcome.Status);
    if (outcome.Information) text += " (" + std::to_string(outcome.Information) + ")";
    return outcome.Text.empty() ? text : text + ": " + outcome.Text;
}

} // namespace model
