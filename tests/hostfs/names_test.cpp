// The name mapping by itself, and odd names through a volume.
#include "fixture.h"

#include "../../plugins/posixfs/names.h"

#include <algorithm>
#include <random>

namespace hostfs_tests {
namespace {

using posixfs::ToLinuxName;
using posixfs::ToNtName;

struct NameRow {
    std::string Linux;
    std::u16string Nt;
};

const NameRow kNames[] = {
    {"plain.txt", u"plain.txt"},
    {"na\xc3\xafve", u"na\u00efve"},
    {"\xf0\x9f\x90\x8c", u"\U0001f40c"},
    {"a:b?c", u"a\uf03ab\uf03fc"},
    {"back\\slash", u"back\uf05cslash"}, // or the rest would read as another component
    {"new\nline", u"new\uf00aline"},
    {"latin-\xe9", u"latin-\uf0e9"},
    {"\xc0\xaf", u"\uf0c0\uf0af"},                             // an overlong slash is no slash
    {"\xed\xa0\x80", u"\xd800"},                               // an unpaired surrogate
    {"\xed\xa0\x80\xed\xb0\x80", u"\uf0ed\uf0a0\uf080\xdc00"}, // a pair in this form would come back in another
    {"\xef\x80\xba", u"\uf0ef\uf080\uf0ba"},                   // the mark of an escaped colon, as itself
    {"\xef\x81\x81", u"\uf041"},                               // a private character that marks nothing
};

TEST(HostFsNames, EachLinuxNameHasOneNtNameAndBack)
{
    for (const NameRow& row : kNames) {
        EXPECT_EQ(row.Nt, ToNtName(row.Linux)) << row.Linux;
        EXPECT_EQ(row.Linux, ToLinuxName(row.Nt)) << row.Linux;
    }
}

TEST(HostFsNames, TextThatIsNoNtNameOfALinuxNameIsRefused)
{
    using namespace std::string_view_literals;
    const std::u16string_view texts[] = {
        u"a/b"sv,
        u"a\0b"sv,
        u"a:b"sv,
        u"\uf0c3\uf0a9"sv, // would be a second name of what is shown as one letter
        u"\uf0ed\uf0a0\uf080"sv,
    };
    for (const auto text : texts) EXPECT_FALSE(ToLinuxName(text)) << ::testing::PrintToString(std::u16string(text));
    // The slash and the dot have no mark, so that no mark turns into one.
    EXPECT_EQ("\xef\x80\xaf", ToLinuxName(u"\uf02f"));
    EXPECT_EQ("\xef\x80\xae\xef\x80\xae", ToLinuxName(u"\uf02e\uf02e"));
}

// Bytes and units drawn from where sequences begin, continue and collide.
TEST(HostFsNames, NothingIsLostInEitherDirection)
{
    constexpr unsigned char kBytes[] = {'a',  ':',  1,    0x7f, 0x80, 0x81, 0xa0, 0xb0,
                                        0xbf, 0xc3, 0xe0, 0xed, 0xef, 0xf0, 0xff};
    constexpr char16_t kUnits[] = {'a',    ':',    '/',    0xe9,   0xd800, 0xdbff, 0xdc00, 0xf001,
                                   0xf02f, 0xf03a, 0xf080, 0xf0a0, 0xf0ba, 0xf0ed, 0xf0ef, 0xf100};
    std::mt19937 random(20240229);
    for (int round = 0; round < 200000; ++round) {
        std::string bytes(1 + random() % 6, '\0');
        for (char& byte : bytes) byte = static_cast<char>(kBytes[random() % std::size(kBytes)]);
        ASSERT_EQ(bytes, ToLinuxName(ToNtName(bytes)));

        std::u16string text(1 + random() % 6, u'\0');
        for (char16_t& unit : text) unit = kUnits[random() % std::size(kUnits)];
        const auto name = ToLinuxName(text);
        if (name) {
            ASSERT_EQ(text, ToNtName(*name));
            ASSERT_EQ(std::string::npos, name->find('/'));
        }
    }
}

class HostFsOddNames : public HostFs {};

TEST_F(HostFsOddNames, AreListedAndOpenedByWhatIsListed)
{
    for (const NameRow& row : kNames) Put(row.Linux, "data of " + row.Linux);
    std::vector<std::u16string> expected;
    for (const NameRow& row : kNames) expected.push_back(row.Nt);

    const Opened root = Fs().OpenDir(u"\\");
    std::vector<std::u16string> listed = Fs().List(root.Fd);
    std::sort(listed.begin(), listed.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, listed);
    for (const NameRow& row : kNames) EXPECT_EQ("data of " + row.Linux, Fs().Contents(u"\\" + row.Nt));
}

TEST_F(HostFsOddNames, CaseDecidesOnlyWhereTheSpellingExists)
{
    Put("Report", "mixed");
    Put("\xc3\x89tude", "accented");
    EXPECT_EQ("mixed", Fs().Contents(u"\\rEPORT"));
    EXPECT_EQ("accented", Fs().Contents(u"\\\u00e9TUDE"));
    EXPECT_STATUS(STATUS_OBJECT_NAME_COLLISION, Fs().Create(u"\\REPORT").Status);
    Put("REPORT", "upper");
    EXPECT_EQ("upper", Fs().Contents(u"\\REPORT"));
    EXPECT_EQ("mixed", Fs().Contents(u"\\Report"));
}

TEST_F(HostFsOddNames, PathsAreWalkedInAnyCaseAndAnyLength)
{
    std::u16string path;
    for (int depth = 0; depth < 40; ++depth) {
        path += u"\\" + std::u16string(200, u'd');
        EXPECT_STATUS(STATUS_SUCCESS,
                      Fs().CreateDir(path).Status); // 8000 characters: more than the kernel takes at once
    }
    std::u16string upper = path;
    std::transform(upper.begin(), upper.end(), upper.begin(), [](char16_t unit) { return unit == u'd' ? u'D' : unit; });
    EXPECT_STATUS(STATUS_SUCCESS, Fs().Create(upper + u"\\File").Status);
    EXPECT_STATUS(STATUS_SUCCESS, Fs().Lookup(path + u"\\fILE").Status);
    EXPECT_STATUS(STATUS_SUCCESS, Fs().Lookup(upper + u"\\FILE").Status);
}

} // namespace
} // namespace hostfs_tests
