// The name tree: exact match over a table that finds prefixes, private keys, the count.

#include "objects/tree.h"

#include <set>

#include <nthost/debug.h>

#include "objects/util.h"
#include "support/client.h"
#include "support/host.h"

namespace {

using support::Text;

class Tree : public support::HostFixture {
protected:
    void SetUp() override
    {
        HostFixture::SetUp();
        LoadGvndOrFail();
        ASSERT_STATUS(STATUS_SUCCESS, GvTreeInit(&tree));
    }
    void TearDown() override
    {
        EXPECT_STATUS(STATUS_SUCCESS, GvTreeDelete(tree));
        HostFixture::TearDown();
    }
    GvTreeEntry* Find(const std::string& name)
    {
        GvTreeEntry* entry = nullptr;
        const NTSTATUS status = GvTreeGetEntry(tree, Text(name), &entry);
        EXPECT_STATUS(entry ? STATUS_SUCCESS : STATUS_NOT_FOUND, status);
        return entry;
    }

    GvTree* tree = nullptr;
    GvTreeEntry a{}, b{}, c{};
};

TEST_F(Tree, FindsWholeNamesWithoutRegardToCase)
{
    ASSERT_STATUS(STATUS_SUCCESS, GvTreeAddEntry(tree, Text("\\"), &a));
    ASSERT_STATUS(STATUS_SUCCESS, GvTreeAddEntry(tree, Text("\\Dir\\\xc3\x84rger"), &b));
    EXPECT_EQ(Find("\\"), &a);
    EXPECT_EQ(Find("\\DIR\\\xc3\xa4RGER"), &b);
    // A prefix is no answer, whether it ends at a component or inside one.
    EXPECT_EQ(Find("\\Dir\\\xc3\x84rger\\x"), nullptr);
    EXPECT_TRUE(Trace().Contains("not-found length differs\n"));
    EXPECT_EQ(Find("\\Dir\\\xc3\x84rge"), nullptr);
    EXPECT_EQ(Find("\\Dir"), nullptr);
    GvTreeRemoveEntryByVal(tree, &a);
    EXPECT_EQ(Find("\\"), nullptr);
    EXPECT_EQ(Find("\\Dir\\\xc3\x84rger"), &b);
    GvTreeRemoveEntryByVal(tree, &b);
}

TEST_F(Tree, RefusesASecondEntryOfAName)
{
    ASSERT_STATUS(STATUS_SUCCESS, GvTreeAddEntry(tree, Text("\\a"), &a));
    EXPECT_STATUS(STATUS_UNSUCCESSFUL, GvTreeAddEntry(tree, Text("\\a"), &b));
    EXPECT_EQ(GvTreeGetEntryCount(tree), 1u);
    EXPECT_EQ(Find("\\a"), &a);
    ASSERT_STATUS(STATUS_SUCCESS, GvTreeAddEntry(tree, Text("\\b"), &b)); // it was not in use
    // Not empty: it stays, and stays usable.
    EXPECT_STATUS(STATUS_UNSUCCESSFUL, GvTreeDelete(tree));
    EXPECT_TRUE(Trace().Contains(", not empty\n"));
    EXPECT_EQ(Find("\\b"), &b);
    GvTreeRemoveEntryByVal(tree, &a);
    GvTreeRemoveEntryByVal(tree, &b);
    EXPECT_EQ(GvTreeGetEntryCount(tree), 0u);
}

TEST_F(Tree, KeepsACopyOfTheName)
{
    {
        Text name("\\Spelled\\So");
        ASSERT_STATUS(STATUS_SUCCESS, GvTreeAddEntry(tree, name, &a));
        name.Get()->Buffer[1] = L'X';
    }
    PUNICODE_STRING key = nullptr;
    ASSERT_STATUS(STATUS_SUCCESS, GvTreeGetEntryKey(tree, &a, &key));
    const GvString owner(key);
    EXPECT_EQ(nthost::ToUtf8(key), "\\Spelled\\So");
    GvTreeRemoveEntryByVal(tree, &a);
    EXPECT_EQ(nthost::ToUtf8(key), "\\Spelled\\So");
}

TEST_F(Tree, WalksEveryEntryOnce)
{
    EXPECT_EQ(GvTreeGetNextEntry(tree, GvWalk::Restart), nullptr);
    ASSERT_STATUS(STATUS_SUCCESS, GvTreeAddEntry(tree, Text("\\x"), &a));
    ASSERT_STATUS(STATUS_SUCCESS, GvTreeAddEntry(tree, Text("\\x\\y"), &b));
    ASSERT_STATUS(STATUS_SUCCESS, GvTreeAddEntry(tree, Text("\\w"), &c));
    for (int round = 0; round < 2; ++round) {
        std::multiset<GvTreeEntry*> seen;
        for (auto* entry = GvTreeGetNextEntry(tree, GvWalk::Restart); entry;
             entry = GvTreeGetNextEntry(tree, GvWalk::Continue))
            seen.insert(entry);
        EXPECT_EQ(seen, (std::multiset<GvTreeEntry*>{&a, &b, &c}));
    }
    for (GvTreeEntry* entry : {&a, &b, &c}) GvTreeRemoveEntryByVal(tree, entry);
}

} // namespace
