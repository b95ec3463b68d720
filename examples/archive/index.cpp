// Reading the archive. libarchive goes through it from the front, so the contents of a file cost a walk up to it.

#include "index.h"

#include <algorithm>

#include <archive.h>
#include <archive_entry.h>

namespace archive_plugin {

namespace {

constexpr LONGLONG kUnixEpoch = 116'444'736'000'000'000; // 1970 in NT's time
constexpr LONGLONG kTicksPerSecond = 10'000'000;
constexpr LONGLONG kEarliest = -kUnixEpoch / kTicksPerSecond, kLatest = 253'402'300'799; // 1601 and 9999, in seconds
constexpr size_t kBlockSize = 1 << 16;
constexpr size_t kLongestPath = MAXUSHORT / sizeof(WCHAR) - 1; // what a counted string holds behind a backslash

struct Closer {
    void operator()(archive* reader) const { archive_read_free(reader); }
};
using Reader = std::unique_ptr<archive, Closer>;

// Formats that hold files themselves. One that names files elsewhere would show what is not in the archive.
Reader OpenReader(const std::string& file)
{
    Reader reader(archive_read_new());
    if (!reader) throw std::bad_alloc();
    archive_read_support_filter_all(reader.get());
    archive_read_support_format_tar(reader.get());
    archive_read_support_format_zip(reader.get());
    archive_read_support_format_7zip(reader.get());
    archive_read_support_format_cpio(reader.get());
    if (archive_read_open_filename(reader.get(), file.c_str(), kBlockSize) != ARCHIVE_OK) return nullptr;
    return reader;
}

// ARCHIVE_OK, ARCHIVE_EOF, or less than ARCHIVE_WARN for a damage.
int NextHeader(archive* reader, archive_entry** entry)
{
    const int result = archive_read_next_header(reader, entry);
    return result == ARCHIVE_WARN ? ARCHIVE_OK : result;
}

// What NT allows in no name is shown as a private-use character, so that every entry has a name.
Text ToText(const char* bytes)
{
    if (!bytes) return {};
    const ULONG length = static_cast<ULONG>(std::char_traits<char>::length(bytes));
    Text text(length, u'\0');
    ULONG used = 0;
    (void)RtlUTF8ToUnicodeN(reinterpret_cast<PWSTR>(text.data()), length * sizeof(WCHAR), &used, bytes, length);
    text.resize(used / sizeof(WCHAR));
    for (char16_t& unit : text) {
        if (unit < 0x20 || TextView(u"\"*:<>?\\|").find(unit) != TextView::npos) unit += 0xf000;
    }
    return text;
}

// The archive's own text if it is UTF-8, else its bytes.
Text PathText(const char* utf8, const char* bytes) { return ToText(utf8 ? utf8 : bytes); }

Text Upcase(TextView name)
{
    Text upper(name);
    for (char16_t& unit : upper) unit = static_cast<char16_t>(RtlUpcaseUnicodeChar(static_cast<WCHAR>(unit)));
    return upper;
}

// Takes the first component off the path; empty components are passed over.
TextView NextName(TextView* path, char16_t separator)
{
    const size_t begin = path->find_first_not_of(separator);
    if (begin == TextView::npos) return *path = {};
    const size_t end = std::min(path->find(separator, begin), path->size());
    const TextView name = path->substr(begin, end - begin);
    path->remove_prefix(end);
    return name;
}

bool SameState(const struct stat& a, const struct stat& b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

// Archives can hold any number.
LONGLONG TimeOf(archive_entry* entry)
{
    const LONGLONG seconds = std::clamp<LONGLONG>(archive_entry_mtime(entry), kEarliest, kLatest);
    return kUnixEpoch + seconds * kTicksPerSecond + archive_entry_mtime_nsec(entry) / 100;
}

// How much there is to read of the entry. Some archives say the size only behind the contents.
NTSTATUS ReadThrough(archive* reader, LONGLONG* size)
{
    const void* block;
    size_t length;
    la_int64_t offset;
    int result;
    while ((result = archive_read_data_block(reader, &block, &length, &offset)) == ARCHIVE_OK)
        *size = offset + static_cast<LONGLONG>(length);
    return result == ARCHIVE_EOF ? STATUS_SUCCESS : STATUS_FILE_CORRUPT_ERROR;
}

} // namespace

// One header of the archive.
struct Index::Entry {
    Text Path, HardLink, Target;
    Kind Type;
    bool Known; // a type that a volume can show
    LONGLONG Size, Time;
    bool ReadOnly;
    size_t Place;

    Entry(archive_entry* from, size_t place)
        : Path(PathText(archive_entry_pathname_utf8(from), archive_entry_pathname(from))),
          HardLink(PathText(archive_entry_hardlink_utf8(from), archive_entry_hardlink(from))),
          Target(PathText(archive_entry_symlink_utf8(from), archive_entry_symlink(from))), Type(Kind::File),
          Known(true), Size(archive_entry_size(from)), Time(TimeOf(from)),
          ReadOnly((archive_entry_perm(from) & 0222) == 0), Place(place)
    {
        switch (archive_entry_filetype(from)) {
        case AE_IFREG: break;
        case AE_IFDIR: Type = Kind::Directory; break;
        case AE_IFLNK: Type = Kind::Link; break;
        default: Known = !HardLink.empty(); break; // a device, a pipe; or a hard link, which some archives give no type
        }
    }
};

NTSTATUS Index::Open(const std::string& file)
{
    if (stat(file.c_str(), &state_) != 0) return STATUS_OBJECT_NAME_NOT_FOUND;
    file_ = file;
    root_.Id = ++lastId_;
    root_.Time = kUnixEpoch + state_.st_mtim.tv_sec * kTicksPerSecond;
    const Reader reader = OpenReader(file);
    if (!reader) return STATUS_FILE_CORRUPT_ERROR;
    archive_entry* header;
    int result;
    for (size_t place = 0; (result = NextHeader(reader.get(), &header)) == ARCHIVE_OK; ++place) {
        Entry entry(header, place);
        if (entry.Type == Kind::File && entry.HardLink.empty() && !archive_entry_size_is_set(header)) {
            if (const NTSTATUS status = ReadThrough(reader.get(), &entry.Size); !NT_SUCCESS(status)) return status;
        }
        if (const NTSTATUS status = Add(entry); !NT_SUCCESS(status)) return status;
    }
    return result == ARCHIVE_EOF ? STATUS_SUCCESS : STATUS_FILE_CORRUPT_ERROR;
}

// The child of that name, made as a directory if there is none.
Node* Index::Child(Node* parent, TextView name)
{
    Node*& found = parent->ByName[Upcase(name)];
    if (!found) {
        parent->Children.push_back(std::make_unique<Node>());
        found = parent->Children.back().get();
        found->Name = name;
        found->Parent = parent;
        found->Time = root_.Time;
        found->Id = ++lastId_;
    }
    return found;
}

// An entry that is there already is replaced, as unpacking would. A file whose name differs in case alone from an
// earlier one cannot be shown, and one that leads out of the archive must not be.
NTSTATUS Index::Add(const Entry& entry)
{
    if (!entry.Known || entry.Path.size() > kLongestPath || entry.HardLink.size() > kLongestPath) return STATUS_SUCCESS;
    if (entry.Size < 0) return STATUS_FILE_CORRUPT_ERROR;
    Node* node = &root_;
    TextView last;
    TextView rest = entry.Path;
    for (TextView name = NextName(&rest, u'/'); !name.empty(); name = NextName(&rest, u'/')) {
        if (name == u".") continue;
        if (name == u".." || node->Type != Kind::Directory) return STATUS_SUCCESS;
        node = Child(node, name);
        last = name;
    }
    const bool isDirectory = entry.Type == Kind::Directory;
    if (node == &root_ || (!isDirectory && (node->Name != last || !node->Children.empty()))) return STATUS_SUCCESS;
    node->Type = entry.Type;
    node->Time = entry.Time;
    node->ReadOnly = entry.ReadOnly;
    node->Target = entry.Target;
    node->Place = entry.Place;
    node->Size = entry.Type == Kind::File ? entry.Size : 0;
    if (!entry.HardLink.empty()) {
        const Node* const first = FindFile(entry.HardLink);
        if (!first) return STATUS_FILE_CORRUPT_ERROR;
        node->Place = first->Place;
        node->Size = first->Size;
    }
    totalSize_ += static_cast<ULONGLONG>(node->Size);
    return STATUS_SUCCESS;
}

// The file that a hard link is another name of, by the archive's kind of path.
const Node* Index::FindFile(TextView path) const
{
    const Node* const node = Find(path, u'/');
    return node && node->Type == Kind::File ? node : nullptr;
}

const Node* Index::Find(PCUNICODE_STRING path) const
{
    return Find({reinterpret_cast<const char16_t*>(path->Buffer), path->Length / sizeof(WCHAR)}, u'\\');
}

const Node* Index::Find(TextView rest, char16_t separator) const
{
    const Node* node = &root_;
    for (TextView name = NextName(&rest, separator); !name.empty(); name = NextName(&rest, separator)) {
        if (name == u".") continue;
        const auto found = node->ByName.find(Upcase(name));
        if (found == node->ByName.end()) return nullptr;
        node = found->second;
    }
    return node;
}

NTSTATUS Index::Extract(const Node& node, std::vector<char>* contents) const
{
    struct stat now;
    if (stat(file_.c_str(), &now) != 0 || !SameState(now, state_)) return STATUS_FILE_CORRUPT_ERROR;
    const Reader reader = OpenReader(file_);
    if (!reader) return STATUS_FILE_CORRUPT_ERROR;
    archive_entry* header;
    for (size_t place = 0; place <= node.Place; ++place) {
        if (NextHeader(reader.get(), &header) != ARCHIVE_OK) return STATUS_FILE_CORRUPT_ERROR;
    }
    contents->resize(static_cast<size_t>(node.Size));
    const la_ssize_t length = archive_read_data(reader.get(), contents->data(), contents->size());
    return length == node.Size ? STATUS_SUCCESS : STATUS_FILE_CORRUPT_ERROR;
}

// From the link's own directory, or from the archive's root for an absolute target.
bool Index::ResolveLink(const Node& link, Text* path)
{
    std::vector<TextView> names;
    if (link.Target.empty()) return false;
    if (link.Target.front() != u'/') {
        for (const Node* node = link.Parent; node->Parent; node = node->Parent) names.insert(names.begin(), node->Name);
    }
    TextView rest = link.Target;
    for (TextView name = NextName(&rest, u'/'); !name.empty(); name = NextName(&rest, u'/')) {
        if (name == u".") continue;
        if (name != u"..") {
            names.push_back(name);
        } else {
            if (names.empty()) return false;
            names.pop_back();
        }
    }
    path->clear();
    for (const TextView name : names) path->append(u"\\").append(name);
    if (path->empty()) *path = u"\\";
    return true;
}

} // namespace archive_plugin
