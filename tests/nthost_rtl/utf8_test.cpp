// RtlUTF8ToUnicodeN and RtlUnicodeToUTF8N: what is text, what is not, and what fits.
#include <string>

#include <gtest/gtest.h>
#include <ntifs.h>

namespace {

struct DecodeRow {
    const char* Why;
    std::string Utf8;
    std::u16string Unicode;
    NTSTATUS Status;
};

const DecodeRow kDecoded[] = {
    {"ASCII", "a~", u"a~", STATUS_SUCCESS},
    {"two, three and four bytes", "\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80", u"\u00e4\u20ac\U0001f600", STATUS_SUCCESS},
    {"the ends of the ranges", "\xdf\xbf\xef\xbf\xbf\xf4\x8f\xbf\xbf", u"\u07ff\uffff\U0010ffff", STATUS_SUCCESS},
    {"a replacement that was there", "\xef\xbf\xbd", u"\ufffd", STATUS_SUCCESS},
    {"lone continuation bytes", "\x80\xbf", u"\ufffd\ufffd", STATUS_SOME_NOT_MAPPED},
    {"overlong forms", "\xc0\xaf\xe0\x80\xaf", u"\ufffd\ufffd\ufffd\ufffd\ufffd", STATUS_SOME_NOT_MAPPED},
    {"a surrogate", "\xed\xa0\x80", u"\ufffd\ufffd\ufffd", STATUS_SOME_NOT_MAPPED},
    {"beyond the last plane", "\xf4\x90\x80\x80", u"\ufffd\ufffd\ufffd\ufffd", STATUS_SOME_NOT_MAPPED},
    {"cut off by other text", "\xe2\x82z\xf0\x9f\x98z", u"\ufffdz\ufffdz", STATUS_SOME_NOT_MAPPED},
    {"cut off at the end", "z\xf0\x9f", u"z\ufffd", STATUS_SOME_NOT_MAPPED},
    {"bytes that never occur", "\xf5\xff", u"\ufffd\ufffd", STATUS_SOME_NOT_MAPPED},
};

TEST(Utf8, Decoding)
{
    for (const DecodeRow& row : kDecoded) {
        SCOPED_TRACE(row.Why);
        WCHAR out[16];
        ULONG bytes = 0, needed = 0;
        const auto length = static_cast<ULONG>(row.Utf8.size());
        EXPECT_EQ(RtlUTF8ToUnicodeN(out, sizeof out, &bytes, row.Utf8.data(), length), row.Status);
        EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(out), bytes / 2), row.Unicode);
        EXPECT_EQ(RtlUTF8ToUnicodeN(nullptr, 0, &needed, row.Utf8.data(), length), row.Status);
        EXPECT_EQ(needed, bytes);
    }
}

TEST(Utf8, Encoding)
{
    for (const DecodeRow& row : kDecoded) {
        if (row.Status != STATUS_SUCCESS) continue;
        SCOPED_TRACE(row.Why);
        char out[16];
        ULONG bytes = 0;
        const auto* const text = reinterpret_cast<const WCHAR*>(row.Unicode.data());
        const auto length = static_cast<ULONG>(row.Unicode.size() * 2);
        EXPECT_EQ(RtlUnicodeToUTF8N(out, sizeof out, &bytes, text, length), STATUS_SUCCESS);
        EXPECT_EQ(std::string(out, bytes), row.Utf8);
    }
    const WCHAR halves[] = {0xd800, 'a', 0xdc00, 0xdbff}; // no pair among them
    char out[16];
    ULONG bytes = 0;
    EXPECT_EQ(RtlUnicodeToUTF8N(out, sizeof out, &bytes, halves, sizeof halves), STATUS_SOME_NOT_MAPPED);
    EXPECT_EQ(std::string(out, bytes), "\xef\xbf\xbd"
                                       "a"
                                       "\xef\xbf\xbd\xef\xbf\xbd");
}

// As many whole characters as there is room for.
TEST(Utf8, RoomAndParameters)
{
    WCHAR wide[4];
    char narrow[8];
    ULONG bytes = 99;
    EXPECT_EQ(RtlUTF8ToUnicodeN(wide, 5, &bytes, "a\xf0\x9f\x98\x80", 5), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(bytes, 2u);
    EXPECT_EQ(RtlUTF8ToUnicodeN(wide, 6, &bytes, "a\xf0\x9f\x98\x80", 5), STATUS_SUCCESS);
    EXPECT_EQ(bytes, 6u);
    EXPECT_EQ(RtlUTF8ToUnicodeN(wide, 2, nullptr, "\xff\xff", 2), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(RtlUTF8ToUnicodeN(wide, 8, &bytes, nullptr, 0), STATUS_INVALID_PARAMETER_4);
    EXPECT_EQ(RtlUTF8ToUnicodeN(nullptr, 0, nullptr, "a", 1), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RtlUnicodeToUTF8N(narrow, 2, &bytes, L"a\u20ac", 4), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(bytes, 1u);
    EXPECT_EQ(RtlUnicodeToUTF8N(narrow, 8, &bytes, L"a", 1), STATUS_INVALID_PARAMETER_5);
    EXPECT_EQ(RtlUnicodeToUTF8N(narrow, 8, &bytes, nullptr, 2), STATUS_INVALID_PARAMETER_4);
    EXPECT_EQ(RtlUnicodeToUTF8N(narrow, 8, nullptr, L"a", 2), STATUS_INVALID_PARAMETER);
}

} // namespace
