// The Unicode prefix table: which entry a path finds, rings of names that differ in case, walks, and a long random run
// against a plain map.

#include "text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <random>
#include <set>
#include <vector>

namespace {

static_assert(sizeof(UNICODE_PREFIX_TABLE) == 0x18);
static_assert(sizeof(UNICODE_PREFIX_TABLE_ENTRY) == 0x38);
static_assert(offsetof(UNICODE_PREFIX_TABLE_ENTRY, Links) == 0x18);
static_assert(offsetof(UNICODE_PREFIX_TABLE_ENTRY, Prefix) == 0x30);

struct Node {
    UNICODE_PREFIX_TABLE_ENTRY Entry;
    Text Name;
    explicit Node(std::string_view name) : Name(name) {}
};

class Table {
public:
    Table() { RtlInitializeUnicodePrefix(&table_); }

    // Null if the table refused the name.
    Node* Insert(std::string_view name)
    {
        Node& node = nodes_.emplace_back(name);
        if (RtlInsertUnicodePrefix(&table_, node.Name, &node.Entry)) return &node;
        nodes_.pop_back();
        return nullptr;
    }
    void Remove(Node* node)
    {
        RtlRemoveUnicodePrefix(&table_, &node->Entry);
        memset(&node->Entry, 0xdd, sizeof(node->Entry)); // nothing may lead there any more
    }
    std::string Find(std::string_view path, ULONG index = 0)
    {
        return NameOf(RtlFindUnicodePrefix(&table_, Text(path), index));
    }
    std::string Next(bool restart = false) { return NameOf(RtlNextUnicodePrefix(&table_, restart)); }
    std::vector<std::string> Walk()
    {
        std::vector<std::string> names;
        for (std::string name = Next(true); name != "-"; name = Next()) names.push_back(name);
        return names;
    }

private:
    static std::string NameOf(PUNICODE_PREFIX_TABLE_ENTRY entry) { return entry ? nthost::ToUtf8(entry->Prefix) : "-"; }
    UNICODE_PREFIX_TABLE table_;
    std::deque<Node> nodes_;
};

struct FindRow {
    const char* Path;
    const char* Found;
    ULONG CaseInsensitiveIndex = 0;
};
constexpr FindRow kFindRows[] = {
    {"\\A\\B", "\\A\\B"},
    {"\\a\\b\\C\\d", "\\A\\B"}, // the longest of two
    {"\\A\\Bc", "\\A"},         // whole components only
    {"\\A\\B\\", "\\A\\B"},
    {"\\Ab", "\\"}, // the root is a prefix of all that begins with it
    {"\\", "\\"},
    {"X\\y", "x"},
    {"Xy", "-"},
    {"", "-"},
    {"\\É", "\\é"},
    {"\\a\\b", "\\", 2}, // the first two characters must be spelled alike, so neither \A nor \A\B will do
    {"\\A\\b", "\\A\\B", 3},
    {"\\A\\b", "\\A", 4},
    {"\\A\\B\\c", "\\A\\B", 100},
};

TEST(UnicodePrefix, FindsTheLongestPrefixOfWholeComponents)
{
    Table table;
    EXPECT_EQ(table.Find("\\A"), "-");
    for (const char* name : {"\\A\\B", "\\", "\\A", "x", "\\é"}) ASSERT_TRUE(table.Insert(name));
    for (const FindRow& row : kFindRows)
        EXPECT_EQ(table.Find(row.Path, row.CaseInsensitiveIndex), row.Found)
            << row.Path << " " << row.CaseInsensitiveIndex;
}

TEST(UnicodePrefix, NamesThatDifferInCaseShareARing)
{
    Table table;
    Node* const first = table.Insert("\\Dir");
    Node* const second = table.Insert("\\DIR");
    Node* const third = table.Insert("\\dir");
    EXPECT_EQ(table.Insert("\\DIR"), nullptr);
    EXPECT_EQ(table.Find("\\DIR\\x", 4), "\\DIR");
    EXPECT_EQ(table.Find("\\dir\\x", 4), "\\dir");
    EXPECT_EQ(table.Find("\\dIR\\x", 2), "\\dir");
    EXPECT_EQ(table.Find("\\dIR\\x", 4), "-");
    EXPECT_EQ(table.Walk().size(), 3u);
    table.Remove(first); // stood in the tree for all three
    EXPECT_EQ(table.Find("\\DIR\\x", 4), "\\DIR");
    EXPECT_EQ(table.Walk().size(), 2u);
    table.Remove(third);
    table.Remove(second);
    EXPECT_EQ(table.Find("\\Dir"), "-");
    EXPECT_TRUE(table.Walk().empty());
    EXPECT_TRUE(table.Insert("\\DIR"));
}

TEST(UnicodePrefix, WalkGoesOnAcrossLookupsAndBeginsAnewAfterAChange)
{
    Table table;
    for (const char* name : {"\\a", "\\b", "\\c", "\\a\\b"}) table.Insert(name);
    std::set<std::string> seen{table.Next(true)};
    for (int i = 0; i < 3; ++i) {
        table.Find("\\b\\x");
        table.Find("\\zz");
        EXPECT_TRUE(seen.insert(table.Next()).second);
    }
    EXPECT_EQ(table.Next(), "-");
    EXPECT_EQ(table.Next(), "-");
    Node* const last = table.Insert("\\d");
    EXPECT_EQ(table.Next(), "\\a\\b");
    table.Remove(last);
    EXPECT_EQ(table.Next(), "\\a\\b");
}

// Sorted insertion makes the deepest trees. A lookup that is linear in them does not end in any sensible time; one that
// finds mends the tree for one that does not, so each kind meets a tree of its own.
class LargeDirectory : public testing::TestWithParam<bool> {};

TEST_P(LargeDirectory, LookupsStayLogarithmic)
{
    const bool present = GetParam();
    Table table;
    std::vector<Node*> nodes;
    char name[32];
    for (int i = 0; i < 100000; ++i) {
        snprintf(name, sizeof(name), "\\dir\\file%06d", i);
        nodes.push_back(table.Insert(name));
        ASSERT_TRUE(nodes.back());
    }
    for (int i = 0; i < 100000; ++i) {
        snprintf(name, sizeof(name), "\\dir\\file%06d%s", i, present ? "" : "x");
        ASSERT_EQ(table.Find(name) != "-", present);
    }
    EXPECT_EQ(table.Walk().size(), nodes.size());
    for (Node* node : nodes) table.Remove(node);
    EXPECT_TRUE(table.Walk().empty());
}
INSTANTIATE_TEST_SUITE_P(UnicodePrefix, LargeDirectory, testing::Bool());

// What the table must do, told by maps: a folded name leads to its spellings.
class Model {
public:
    static std::u16string Fold(std::u16string name)
    {
        for (char16_t& c : name) c = static_cast<char16_t>(RtlUpcaseUnicodeChar(static_cast<WCHAR>(c)));
        return name;
    }
    std::map<std::u16string, Node*>& Ring(const std::u16string& name) { return rings_[Fold(name)]; }

    // The folded name that a path should find.
    std::u16string Find(const std::u16string& path, size_t index)
    {
        for (size_t length = path.size(); length > 0; --length) {
            const bool whole = length == path.size() || path[length] == u'\\' || path.substr(0, length) == u"\\";
            if (!whole) continue;
            const std::u16string prefix = path.substr(0, length);
            for (const auto& [spelling, node] : Ring(prefix))
                if (spelling.substr(0, index) == prefix.substr(0, index)) return Fold(prefix);
        }
        return u"-";
    }
    // A ring with members, if there is one.
    std::map<std::u16string, Node*>& Any()
    {
        for (auto& [folded, ring] : rings_)
            if (!ring.empty()) return ring;
        return rings_.begin()->second;
    }
    std::vector<std::string> Names() const
    {
        std::vector<std::string> names;
        for (const auto& [folded, ring] : rings_)
            for (const auto& [spelling, node] : ring) names.push_back(Text(spelling).Utf8());
        return names;
    }

private:
    std::map<std::u16string, std::map<std::u16string, Node*>> rings_;
};

std::string RandomPath(std::mt19937& random)
{
    constexpr const char* components[] = {"a", "A", "b", "ab", "aB", "é", "É", "c"};
    const unsigned depth = random() % 5;
    std::string path = random() % 8 ? "" : "a";
    for (unsigned i = 0; i < depth; ++i) path += std::string("\\") + components[random() % 8];
    return path.empty() ? "\\" : path;
}

TEST(UnicodePrefix, RandomRunAgreesWithAModel)
{
    std::mt19937 random(20240229);
    Table table;
    Model model;
    size_t fewest = 1000, most = 0;
    for (int step = 0; step < 60000; ++step) {
        const std::string path = RandomPath(random);
        const std::u16string wide = nthost::FromUtf8(path);
        auto& ring = model.Ring(wide);
        const auto at = ring.find(wide);
        const bool shrinking = step / 3000 % 2; // an index comes and goes with the number of names
        switch (random() % 4) {
        case 0: {
            if (shrinking) break;
            Node* const node = table.Insert(path);
            ASSERT_EQ(node == nullptr, at != ring.end()) << path;
            if (node) ring[wide] = node;
            break;
        }
        case 1:
            if (auto& leaving = shrinking && at == ring.end() ? model.Any() : ring; !leaving.empty()) {
                const auto first = &leaving == &ring ? at : leaving.begin();
                if (first == leaving.end()) break;
                table.Remove(first->second);
                leaving.erase(first);
            }
            break;
        default: {
            const unsigned index = random() % 3 ? 0 : random() % 8;
            const std::string full = random() % 4 || path == "\\" ? path : path + "\\";
            const std::u16string fullWide = nthost::FromUtf8(full), found = nthost::FromUtf8(table.Find(full, index));
            ASSERT_EQ(Model::Fold(found), model.Find(fullWide, index)) << full << " " << index;
            ASSERT_TRUE(found == u"-" || fullWide.starts_with(found.substr(0, index))) << full << " " << index;
        }
        }
        if (step % 500) continue;
        std::vector<std::string> walked = table.Walk(), expected = model.Names();
        std::sort(walked.begin(), walked.end());
        std::sort(expected.begin(), expected.end());
        ASSERT_EQ(walked, expected);
        fewest = std::min(fewest, walked.size());
        most = std::max(most, walked.size());
    }
    EXPECT_LT(fewest, 10u);
    EXPECT_GT(most, 200u);
    for (auto* ring = &model.Any(); !ring->empty(); ring = &model.Any()) {
        table.Remove(ring->begin()->second);
        ring->erase(ring->begin());
    }
    EXPECT_TRUE(table.Walk().empty());
}

} // namespace
