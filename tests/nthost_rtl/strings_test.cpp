// Counted strings and integer text: what fits, what is left unchanged, how strings are ordered.

#include "text.h"

#include "support/host.h"

#include <climits>

using namespace std::string_literals;

namespace {

int Sign(LONG value) { return value < 0 ? -1 : value > 0; }

TEST(RtlString, InitTakesNullAndCutsWhatTheLengthCannotHold)
{
    UNICODE_STRING text;
    RtlInitUnicodeString(&text, nullptr);
    EXPECT_EQ(text.Length, 0);
    EXPECT_EQ(text.Buffer, nullptr);

    RtlInitUnicodeString(&text, L"\\Device\\X");
    EXPECT_EQ(text.Length, 18);
    EXPECT_EQ(text.MaximumLength, 20);

    const std::unique_ptr<WCHAR[]> longText(new WCHAR[40001]);
    std::fill_n(longText.get(), 40000, L'x');
    longText[40000] = 0;
    RtlInitUnicodeString(&text, longText.get());
    EXPECT_EQ(text.Length, 0xfffc);
    EXPECT_EQ(text.MaximumLength, 0xfffe);

    ANSI_STRING narrow;
    RtlInitAnsiString(&narrow, "abc");
    EXPECT_EQ(narrow.Length, 3);
    EXPECT_EQ(narrow.MaximumLength, 4);
}

// Room of the destination, what the copy leaves in it; '#' is what was there before.
TEST(RtlString, CopyCutsAndTerminatesOnlyInSpareRoom)
{
    Text source("abc");
    const std::pair<size_t, std::string> rows[] = {
        {2, "ab"}, {3, "abc"}, {4, "abc\0"s}, {6, "abc\0##"s}, {0, ""},
    };
    for (const auto& [room, whole] : rows) {
        Text destination = Room(room);
        RtlCopyUnicodeString(destination, source);
        EXPECT_EQ(Whole(destination), whole);
        EXPECT_EQ(destination->Length, std::min<size_t>(room, 3) * 2);
    }
    RtlCopyUnicodeString(source, nullptr);
    EXPECT_EQ(source->Length, 0);
}

TEST(RtlString, AppendIsAllOrNothing)
{
    Text destination = Room(5);
    EXPECT_EQ(RtlAppendUnicodeToString(destination, L"ab"), STATUS_SUCCESS);
    EXPECT_EQ(Whole(destination), "ab\0##"s);
    EXPECT_EQ(RtlAppendUnicodeStringToString(destination, Text("wxyz")), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(Whole(destination), "ab\0##"s);
    EXPECT_EQ(RtlAppendUnicodeStringToString(destination, destination), STATUS_SUCCESS);
    EXPECT_EQ(RtlAppendUnicodeToString(destination, L"!"), STATUS_SUCCESS);
    EXPECT_EQ(RtlAppendUnicodeToString(destination, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(RtlAppendUnicodeStringToString(destination, Text("")), STATUS_SUCCESS);
    EXPECT_EQ(Whole(destination), "abab!");
    EXPECT_EQ(RtlAppendUnicodeToString(destination, L"?"), STATUS_BUFFER_TOO_SMALL);
}

struct CompareRow {
    const char* A;
    const char* B;
    int Order;           // sign of the comparison
    int OrderIgnoreCase; // the same with folding
};
constexpr CompareRow kCompareRows[] = {
    {"", "", 0, 0},
    {"", "a", -1, -1},
    {"abc", "abd", -1, -1},
    {"abc", "ab", 1, 1},
    {"a", "B", 1, -1},
    {"_", "a", -1, 1}, // folding is to upper case, so the underscore comes after the letters
    {"straße", "STRASSE", 1, 1},
    {"Ärger", "ärger", -1, 0},
    {"ΣΙΣ", "σις", -1, 0},
    {"\xef\xbf\xbf", "a", 1, 1}, // U+FFFF: units are unsigned
};

TEST(RtlString, CompareEqualAndPrefixAgree)
{
    for (const CompareRow& row : kCompareRows) {
        SCOPED_TRACE(row.A + " / "s + row.B);
        Text a(row.A), b(row.B);
        for (const BOOLEAN ignoreCase : {FALSE, TRUE}) {
            const int order = ignoreCase ? row.OrderIgnoreCase : row.Order;
            EXPECT_EQ(Sign(RtlCompareUnicodeString(a, b, ignoreCase)), order);
            EXPECT_EQ(Sign(RtlCompareUnicodeString(b, a, ignoreCase)), -order);
            EXPECT_EQ(RtlEqualUnicodeString(a, b, ignoreCase), order == 0);
        }
    }
    EXPECT_TRUE(RtlPrefixUnicodeString(Text("\\Dir"), Text("\\dir\\file"), TRUE));
    EXPECT_FALSE(RtlPrefixUnicodeString(Text("\\Dir"), Text("\\dir\\file"), FALSE));
    EXPECT_FALSE(RtlPrefixUnicodeString(Text("\\dir\\file"), Text("\\dir"), TRUE));
    EXPECT_TRUE(RtlPrefixUnicodeString(Text(""), Text(""), FALSE));
}

TEST(RtlString, CompareMemoryCountsEqualBytes)
{
    EXPECT_EQ(RtlCompareMemory("abcd", "abxd", 4), 2u);
    EXPECT_EQ(RtlCompareMemory("abcd", "abcd", 4), 4u);
    EXPECT_EQ(RtlCompareMemory("x", "y", 0), 0u);
}

TEST(RtlString, UpcaseWorksInPlaceAndRefusesAShortDestination)
{
    Text text("naïve.τxt");
    EXPECT_EQ(RtlUpcaseUnicodeString(text, text, FALSE), STATUS_SUCCESS);
    EXPECT_EQ(text.Utf8(), "NAÏVE.ΤXT");
    Text room = Room(8);
    EXPECT_EQ(RtlUpcaseUnicodeString(room, text, FALSE), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(Whole(room), "########");
}

using RtlBooted = support::BootedTest;

TEST_F(RtlBooted, UpcasedCopyIsPoolAndGoesWithItsOwner)
{
    UNICODE_STRING copy{}, empty{};
    ASSERT_EQ(RtlUpcaseUnicodeString(&copy, Text("abc"), TRUE), STATUS_SUCCESS);
    EXPECT_EQ(nthost::ToUtf8(&copy), "ABC");
    ASSERT_EQ(RtlUpcaseUnicodeString(&empty, Text(""), TRUE), STATUS_SUCCESS);
    RtlFreeUnicodeString(&copy);
    RtlFreeUnicodeString(&empty);
    EXPECT_EQ(copy.Buffer, nullptr);
    RtlFreeUnicodeString(&copy);
}

struct ParseRow {
    const char* Text;
    ULONG Base;
    ULONG Value;
};
constexpr ParseRow kParseRows[] = {
    {"42", 0, 42},         {" \t-1", 0, 0xffffffff},
    {"+0x1fG", 0, 0x1f},   {"0o17", 0, 15},
    {"0b101", 0, 5},       {"0X10", 0, 0}, // only the small letter is a prefix
    {"0x10", 16, 0},                       // and none is with a base given
    {"ffFF", 16, 0xffff},  {"129", 8, 10},
    {"4294967297", 10, 1}, // wraps
    {"", 10, 0},           {"0", 0, 0},
    {"-", 0, 0},
};

TEST(RtlInteger, ParsesUntilTheFirstCharacterThatIsNoDigit)
{
    for (const ParseRow& row : kParseRows) {
        ULONG value = 77;
        EXPECT_EQ(RtlUnicodeStringToInteger(Text(row.Text), row.Base, &value), STATUS_SUCCESS) << row.Text;
        EXPECT_EQ(value, row.Value) << row.Text;
    }
    ULONG untouched = 77;
    EXPECT_EQ(RtlUnicodeStringToInteger(Text("1"), 3, &untouched), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(untouched, 77u);
}

TEST(RtlInteger, PrintsInUpperCaseAndNeedsRoomForTheTerminator)
{
    const std::tuple<ULONG, ULONG, std::string> rows[] = {
        {0, 0, "0"},  {4294967295u, 10, "4294967295"}, {0xabcdef, 16, "ABCDEF"}, {UINT_MAX, 2, std::string(32, '1')},
        {8, 8, "10"},
    };
    for (const auto& [value, base, text] : rows) {
        Text exact = Room(text.size() + 1), small = Room(text.size());
        EXPECT_EQ(RtlIntegerToUnicodeString(value, base, exact), STATUS_SUCCESS);
        EXPECT_EQ(exact.Utf8(), text);
        EXPECT_EQ(RtlIntegerToUnicodeString(value, base, small), STATUS_BUFFER_OVERFLOW);
        EXPECT_EQ(small->Length, 0);
    }
    EXPECT_EQ(RtlIntegerToUnicodeString(1, 7, Room(9)), STATUS_INVALID_PARAMETER);
}

} // namespace
