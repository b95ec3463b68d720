// What is in an archive: a tree of its names, read once, and the contents of a file, read when somebody wants them. The
// tree does not change after Open, so it needs no lock.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <sys/stat.h>

#include <ntifs.h>

namespace archive_plugin {

using Text = std::u16string; // 16-bit text as NT has it; wchar_t has 16 bits here, so its functions are of no use
using TextView = std::u16string_view;

enum class Kind { File, Directory, Link };

struct Node {
    Text Name;
    Node* Parent = nullptr;
    Kind Type = Kind::Directory;
    LONGLONG Size = 0;
    LONGLONG Time = 0;                           // NT's: 100 ns since 1601
    bool ReadOnly = false;                       // nobody may write to it in the archive
    size_t Place = 0;                            // of a file: where in the archive its contents are, counted in entries
    Text Target;                                 // of a link, as the archive has it, with backslashes
    ULONGLONG Id = 0;                            // never 0
    std::vector<std::unique_ptr<Node>> Children; // in the archive's order
    std::map<Text, Node*> ByName;                // of the children, by the upper-case name
};

class Index {
public:
    // STATUS_OBJECT_NAME_NOT_FOUND for no file, STATUS_FILE_CORRUPT_ERROR for no archive, and one that is damaged.
    [[nodiscard]] NTSTATUS Open(const std::string& file);
    // Null if there is none. Links on the way are not followed: the driver does that.
    [[nodiscard]] const Node* Find(PCUNICODE_STRING path) const;
    // Reads the archive anew, up to the file. STATUS_FILE_CORRUPT_ERROR also if the archive is not what it was.
    [[nodiscard]] NTSTATUS Extract(const Node& node, std::vector<char>* contents) const;
    // Where a link leads, from the root. False for a way out of the archive.
    [[nodiscard]] static bool ResolveLink(const Node& link, Text* path);

    [[nodiscard]] ULONGLONG TotalSize() const { return totalSize_; }
    [[nodiscard]] const std::string& File() const { return file_; }

private:
    struct Entry;
    [[nodiscard]] NTSTATUS Add(const Entry& entry);
    Node* Child(Node* parent, TextView name);
    [[nodiscard]] const Node* FindFile(TextView path) const;
    [[nodiscard]] const Node* Find(TextView rest, char16_t separator) const;

    std::string file_;
    struct stat state_ = {};
    Node root_;
    ULONGLONG lastId_ = 0;
    ULONGLONG totalSize_ = 0;
};

} // namespace archive_plugin
