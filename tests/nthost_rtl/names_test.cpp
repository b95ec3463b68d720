// File names: dissection, legal characters, equality, and wildcard expressions checked against a small recursive
// matcher.

#include "text.h"

#include <gtest/gtest.h>

#include <random>

namespace {

struct DissectRow {
    const char* Name;
    const char* First;
    const char* Rest;
};
constexpr DissectRow kDissectRows[] = {
    {"", "", ""},
    {"\\", "", ""},
    {"a", "a", ""},
    {"\\a", "a", ""},
    {"\\a\\", "a", ""},
    {"a\\b\\c", "a", "b\\c"},
    {"\\a\\\\b", "a", "\\b"}, // one backslash separates, the second
                              // belongs to the rest
    {"\\\\b", "", "b"},
};

TEST(FsRtlNames, DissectTakesTheFirstComponentOff)
{
    for (const DissectRow& row : kDissectRows) {
        Text name(row.Name);
        UNICODE_STRING first, rest;
        FsRtlDissectName(*static_cast<PUNICODE_STRING>(name), &first, &rest);
        EXPECT_EQ(nthost::ToUtf8(&first), row.First) << row.Name;
        EXPECT_EQ(nthost::ToUtf8(&rest), row.Rest) << row.Name;
    }
}

std::string PrintableWithout(UCHAR bits)
{
    std::string out;
    for (int c = ' '; c < 0x7f; ++c)
        if (!(FsRtlLegalAnsiCharacterArray[c] & bits)) out += static_cast<char>(c);
    return out;
}

TEST(FsRtlNames, LegalCharacters)
{
    EXPECT_EQ(PrintableWithout(FSRTL_FAT_LEGAL), "\"*+,/:;<=>?[\\]|");
    EXPECT_EQ(PrintableWithout(FSRTL_NTFS_LEGAL), "\"*/<>?\\|"); // a colon stands before a stream's name
    EXPECT_EQ(PrintableWithout(FSRTL_HPFS_LEGAL), "\"*/:<>?\\|");
    EXPECT_EQ(PrintableWithout(FSRTL_OLE_LEGAL), "!./:\\");
    EXPECT_EQ(PrintableWithout(FSRTL_NTFS_STREAM_LEGAL), "/\\");
    EXPECT_EQ(PrintableWithout(FSRTL_NTFS_LEGAL | FSRTL_WILD_CHARACTER), "/\\|");
    for (int c = 0; c < ' '; ++c)
        EXPECT_EQ(FsRtlLegalAnsiCharacterArray[c] & (FSRTL_FAT_LEGAL | FSRTL_NTFS_LEGAL | FSRTL_WILD_CHARACTER), 0)
            << c;
    EXPECT_TRUE(FsRtlIsAnsiCharacterLegalFat('\xe4', FALSE));
    EXPECT_FALSE(FsRtlIsAnsiCharacterLegalNtfs('*', FALSE));
    EXPECT_TRUE(FsRtlIsAnsiCharacterLegalNtfs('*', TRUE));
    EXPECT_FALSE(FsRtlIsAnsiCharacterWild('\xe4'));
}

TEST(FsRtlNames, WildCardsAreFoundAnywhereAndOnlyTheFive)
{
    for (const char* wild : {"*", "a?", "<b", "a>b", "x\""})
        EXPECT_TRUE(FsRtlDoesNameContainWildCards(Text(wild))) << wild;
    for (const char* plain : {"", "a.b", "a|b:c", "Ī", "ȿ"})
        EXPECT_FALSE(FsRtlDoesNameContainWildCards(Text(plain))) << plain;
}

TEST(FsRtlNames, EqualityAndMatchUseTheGivenUpcaseTable)
{
    EXPECT_TRUE(FsRtlAreNamesEqual(Text("aé"), Text("AÉ"), TRUE, nullptr));
    EXPECT_FALSE(FsRtlAreNamesEqual(Text("aé"), Text("AÉ"), FALSE, nullptr));
    EXPECT_FALSE(FsRtlAreNamesEqual(Text("a"), Text("ab"), TRUE, nullptr));

    const std::unique_ptr<WCHAR[]> table(new WCHAR[0x10000]);
    for (unsigned c = 0; c < 0x10000; ++c) table[c] = static_cast<WCHAR>(c);
    table[L'x'] = L'y';
    EXPECT_TRUE(FsRtlAreNamesEqual(Text("xa"), Text("ya"), TRUE, table.get()));
    EXPECT_FALSE(FsRtlAreNamesEqual(Text("a"), Text("A"), TRUE, table.get()));
    EXPECT_FALSE(FsRtlAreNamesEqual(Text("xa"), Text("ya"), FALSE, table.get()));
    EXPECT_TRUE(FsRtlIsNameInExpression(Text("y*"), Text("xb"), TRUE, table.get()));
    EXPECT_FALSE(FsRtlIsNameInExpression(Text("B"), Text("b"), TRUE, table.get()));
}

bool Matches(std::string_view expression, std::string_view name, BOOLEAN ignoreCase = TRUE)
{
    return FsRtlIsNameInExpression(Text(expression), Text(name), ignoreCase, nullptr);
}

struct MatchRow {
    const char* Expression;
    std::vector<const char*> Names;
    std::vector<const char*> OtherNames;
};

TEST(FsRtlNames, Expressions)
{
    const MatchRow rows[] = {
        {"*", {"a", ".", "a.b.c"}, {""}},
        {"", {""}, {"a"}},
        {"*.*", {"a.b", "a."}, {"a"}},
        {"A?C", {"abc", "AÉC"}, {"ac", "abbc"}},
        {"*É.TXT", {"é.txt", "xxÉ.TXT"}, {"e.txt"}},
        {"<.TXT", {"a.txt", "a.b.txt", ".txt"}, {"a.txt.b", "txt"}},
        {"<", {"a", "a.", "a.b."}, {"a.b"}}, // takes the last period, and nothing after it
        {"<B", {"a.b", "ab", "a.c.b", "b"}, {"a.bc"}},
        {"A>>>", {"a", "ab", "abcd", "a."}, {"abcde", "b", "a.b"}},
        {"A>>>.T", {"a.t", "abcd.t"}, {"abcde.t", "at"}},
        {"A\"", {"a", "a."}, {"ab", "a.."}},
        {"A\"T", {"a.t"}, {"at", "a"}},
        {"FOO\"*", {"foo", "foo.", "foo.bar"}, {"foobar"}},
        {"<\"*", {"a", "a.b", "a.b.c"}, {}},
    };
    for (const MatchRow& row : rows) {
        for (const char* name : row.Names)
            EXPECT_TRUE(Matches(row.Expression, name)) << row.Expression << " / " << name;
        for (const char* name : row.OtherNames)
            EXPECT_FALSE(Matches(row.Expression, name)) << row.Expression << " / " << name;
    }
    EXPECT_FALSE(Matches("A*", "ab", FALSE));
    EXPECT_TRUE(Matches("a*", "aB", FALSE));
}

bool MatchesNothing(std::string_view e) { return e.find_first_not_of("*<>\"") == std::string_view::npos; }

// Exponential, for short texts only.
bool SlowMatch(std::string_view e, std::string_view n)
{
    if (e.empty()) return n.empty();
    if (n.empty()) return MatchesNothing(e);
    const std::string_view e1 = e.substr(1), n1 = n.substr(1);
    const bool lastPeriod = n[0] == '.' && n1.find('.') == std::string_view::npos;
    switch (e[0]) {
    case '*': return SlowMatch(e1, n) || SlowMatch(e, n1);
    case '<': return SlowMatch(e1, n) || SlowMatch(lastPeriod ? e1 : e, n1);
    case '>': return n[0] != '.' ? SlowMatch(e1, n1) : SlowMatch(e1, n) || (n1.empty() && MatchesNothing(e1));
    case '"': return n[0] == '.' && SlowMatch(e1, n1);
    case '?': return SlowMatch(e1, n1);
    default: return e[0] == n[0] && SlowMatch(e1, n1);
    }
}

std::string RandomText(std::mt19937& random, std::string_view alphabet, unsigned most)
{
    std::string text(1 + random() % most, 0);
    for (char& c : text) c = alphabet[random() % alphabet.size()];
    return text;
}

TEST(FsRtlNames, RandomExpressionsAgreeWithARecursiveMatcher)
{
    std::mt19937 random(19690720);
    unsigned matched = 0;
    for (int i = 0; i < 100000; ++i) {
        const std::string expression = RandomText(random, "*?<>\".AB", 7), name = RandomText(random, "..AAB", 8);
        const bool expected = SlowMatch(expression, name);
        ASSERT_EQ(Matches(expression, name), expected) << expression << " / " << name;
        matched += expected;
    }
    EXPECT_GT(matched, 10000u);
}

// Backtracking over this would not end before the sun does.
TEST(FsRtlNames, ManyStarsAndLongNamesAreCheap)
{
    std::string stars;
    for (int i = 0; i < 100; ++i) stars += "*A<?";
    EXPECT_FALSE(Matches(stars + "B", std::string(10000, 'a')));
    EXPECT_TRUE(Matches(stars + "B", std::string(10000, 'a') + "b"));
    EXPECT_TRUE(Matches(std::string(32767, '*'), "a"));
    EXPECT_TRUE(Matches(std::string(32767, '?'), std::string(32767, 'a')));
}

} // namespace
