// The case tables over the whole 16-bit range: laws that hold for every unit, and the letters where NT goes its own
// way.

#include "text.h"

#include <gtest/gtest.h>

namespace {

unsigned Up(unsigned c) { return RtlUpcaseUnicodeChar(static_cast<WCHAR>(c)); }

unsigned Down(unsigned c) { return RtlDowncaseUnicodeChar(static_cast<WCHAR>(c)); }

struct CaseRow {
    unsigned Unit;
    unsigned Up;
    unsigned Down;
};
constexpr CaseRow kCaseRows[] = {
    {'a', 'A', 'a'},
    {'Z', 'Z', 'z'},
    {'[', '[', '['},
    {0x00e4, 0x00c4, 0x00e4},
    {0x00f7, 0x00f7, 0x00f7}, // division sign amid letters
    {0x00ff, 0x0178, 0x00ff},
    {0x00b5, 0x00b5, 0x00b5}, // micro is a sign, not mu
    {0x00df, 0x00df, 0x00df},
    {0x1e9e, 0x1e9e, 0x1e9e},
    {0x0130, 0x0130, 0x0130}, // neither of the Turkish letters
                              // meets the ASCII one
    {0x0131, 0x0131, 0x0131},
    {0x017f, 0x017f, 0x017f}, // long s
    {0x0149, 0x0149, 0x0149}, // would become two letters
    {0x01c5, 0x01c5, 0x01c5}, // title-case digraph
    {0x01c6, 0x01c4, 0x01c6},
    {0x03c2, 0x03a3, 0x03c2}, // final sigma folds, and nothing folds back to it
    {0x03a3, 0x03a3, 0x03c3},
    {0x03d1, 0x03d1, 0x03d1}, // theta symbol
    {0x044f, 0x042f, 0x044f},
    {0x0451, 0x0401, 0x0451},
    {0x10d0, 0x10d0, 0x10d0}, // Georgian stays caseless
    {0x1f80, 0x1f88, 0x1f80},
    {0x2126, 0x2126, 0x2126}, // ohm, kelvin, angstrom
    {0x212a, 0x212a, 0x212a},
    {0x212b, 0x212b, 0x212b},
    {0x2170, 0x2160, 0x2170},
    {0x24d0, 0x24b6, 0x24d0},
    {0xff41, 0xff21, 0xff41},
    {0xd800, 0xd800, 0xd800},
    {0xffff, 0xffff, 0xffff},
};

TEST(RtlCase, SelectedLetters)
{
    for (const CaseRow& row : kCaseRows) {
        EXPECT_EQ(Up(row.Unit), row.Up) << std::hex << row.Unit;
        EXPECT_EQ(Down(row.Unit), row.Down) << std::hex << row.Unit;
    }
}

TEST(RtlCase, FoldingIsStableAndLeadsBack)
{
    unsigned pairs = 0;
    for (unsigned c = 0; c < 0x10000; ++c) {
        const unsigned up = Up(c);
        ASSERT_EQ(Up(up), up) << std::hex << c;
        ASSERT_EQ(Down(Down(c)), Down(c)) << std::hex << c;
        if (up != c && c != 0x03c2) {
            ASSERT_EQ(Down(up), c) << std::hex << c;
            ++pairs;
        }
        if (Down(c) != c) {
            ASSERT_EQ(Up(Down(c)), c) << std::hex << c;
            --pairs;
        }
    }
    EXPECT_EQ(pairs, 0u);
}

} // namespace
