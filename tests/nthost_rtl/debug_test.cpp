// Debug output: every format, where text ends, who listens and when a listener may go; UTF-8; statuses by name.

#include "text.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <mutex>
#include <thread>

using namespace std::string_literals;

namespace {

template <typename... Args>
std::string Printed(const char* format, Args... args)
{
    std::string text;
    nthost::SetDebugSink([&](std::string_view part) { text += part; });
    EXPECT_EQ(DbgPrint(format, args...), static_cast<ULONG>(STATUS_SUCCESS));
    nthost::SetDebugSink({});
    return text;
}

TEST(DbgPrintFormat, Numbers)
{
    EXPECT_EQ(Printed("%d %i %u %ld %lu", -1, 42, 4000000000u, -5, 6), "-1 42 4000000000 -5 6");
    EXPECT_EQ(Printed("0x%x,0x%X,%#x,%#x,%#o", 0xc0000022, 0xabc, 255, 0, 8), "0xc0000022,0xABC,0xff,0,010");
    EXPECT_EQ(Printed("%llx %I64d %I32u %Iu", 0x123456789abcdefULL, -1LL, 7, 8ULL), "123456789abcdef -1 7 8");
    EXPECT_EQ(Printed("%hd %hu %hhx", 0x18000, 0x12345, 0x1ff), "-32768 9029 ff");
    EXPECT_EQ(Printed("[%5d|%-5d|%05d|%+d|% d|%.3d|%8.3d|%-+5d]", 42, 42, -42, 7, 7, 5, -5, 3),
              "[   42|42   |-0042|+7| 7|005|    -005|+3   ]");
    EXPECT_EQ(Printed("[%*d|%*d|%.*s]", 4, 1, -4, 2, 2, "abc"), "[   1|2   |ab]");
    EXPECT_EQ(Printed("%d %lld", INT32_MIN, INT64_MIN), "-2147483648 -9223372036854775808");
    EXPECT_EQ(Printed("[%.0d]", 0), "[]");
    EXPECT_EQ(Printed("%p %p", reinterpret_cast<void*>(0xabcd1234), nullptr), "00000000ABCD1234 0000000000000000");
}

TEST(DbgPrintFormat, Text)
{
    EXPECT_EQ(
        Printed("%c%C%lc %s %S %ws %ls %hs %hS", 'a', L'\x00e4', L'\x20ac', "n", L"w\x00e4", L"x", L"y", "h", "H"),
        "aä€ n wä x y h H");
    EXPECT_EQ(Printed("[%5s|%-5s|%.2s|%4ws|%.1S]", "abc", "abc", "abc", L"\x00e4\x00f6", L"xyz"),
              "[  abc|abc  |ab|  äö|x]");
    EXPECT_EQ(Printed("%s %ws %wZ %Z %hs", nullptr, nullptr, nullptr, nullptr, nullptr),
              "(null) (null) (null) (null) (null)");
    EXPECT_EQ(Printed("%ws", L"\xd83d\xde00 \xd83d!"), "😀 \xef\xbf\xbd!");
    EXPECT_EQ(Printed("100%% %y %"), "100% %y %");
}

TEST(DbgPrintFormat, CountedAndLimitedTextIsNeverReadPastItsEnd)
{
    Text name("naïve");
    const std::unique_ptr<char[]> bytes(new char[3]);
    std::memcpy(bytes.get(), "abc", 3);
    STRING narrow{3, 3, bytes.get()};
    UNICODE_STRING none{4, 4, nullptr};
    PUNICODE_STRING wide = name;
    EXPECT_EQ(Printed("[%wZ|%Z|%8wZ|%-5Z|%.2wZ|%wZ]", wide, &narrow, wide, &narrow, wide, &none),
              "[naïve|abc|   naïve|abc  |na|(null)]");
    EXPECT_EQ(Printed("%.3s %.5ws", bytes.get(), wide->Buffer), "abc naïve");
}

TEST(DbgPrintFormat, LongTextIsCutAtACharacter)
{
    EXPECT_EQ(Printed("%s", std::string(600, 'x').c_str()), std::string(512, 'x'));
    EXPECT_EQ(Printed("%0600d", 1), std::string(512, '0'));
    EXPECT_EQ(Printed("%2147483647s|", "a"), std::string(512, ' '));
    std::string umlauts;
    for (int i = 0; i < 300; ++i) umlauts += "ä";
    EXPECT_EQ(Printed("x%s", umlauts.c_str()), "x" + umlauts.substr(0, 510));
    EXPECT_EQ(Printed("%s", umlauts.c_str()), umlauts.substr(0, 512));
}

TEST(DbgPrintSink, NobodyListeningReadsNoArguments)
{
    nthost::SetDebugSink({});
    EXPECT_FALSE(nthost::DebugOutputWanted());
    EXPECT_EQ(DbgPrint("%s", reinterpret_cast<const char*>(1)), static_cast<ULONG>(STATUS_SUCCESS));
}

TEST(DbgPrintSink, ReplacementWaitsForCallsInProgress)
{
    std::promise<void> entered, release;
    std::atomic<bool> blocked{false}, replaced{false}, newSinkCalled{false};
    nthost::SetDebugSink([&](std::string_view) {
        if (blocked.exchange(true)) return;
        entered.set_value();
        release.get_future().wait();
    });
    std::thread printer([] { DbgPrint("x"); });
    entered.get_future().wait();
    std::thread replacer([&] {
        nthost::SetDebugSink([&](std::string_view) { newSinkCalled = true; });
        replaced = true;
    });
    // New calls go to the new sink at once, while the old one is still busy.
    while (!newSinkCalled) DbgPrint("y");
    EXPECT_FALSE(replaced);
    release.set_value();
    replacer.join();
    printer.join();
    nthost::SetDebugSink({});
}

TEST(DbgPrintSink, ThreadsPrintWhileSinksComeAndGo)
{
    std::atomic<bool> stop{false};
    auto print = [&] {
        while (!stop) DbgPrint("%d\n", 7);
    };
    std::thread a(print), b(print);
    for (int i = 0; i < 200; ++i) {
        auto text = std::make_unique<std::string>();
        std::mutex lock;
        nthost::SetDebugSink([&](std::string_view part) {
            std::lock_guard guard(lock);
            *text = part;
        });
        nthost::SetDebugSink({});
        EXPECT_TRUE(text->empty() || *text == "7\n");
    }
    stop = true;
    a.join();
    b.join();
}

// Rows: UTF-8, the text it becomes, and the UTF-8 of that.
TEST(Utf8, BadInputBecomesReplacementCharacters)
{
    const std::tuple<std::string, std::u16string, std::string> rows[] = {
        {"aä€😀", u"aä€😀", "aä€😀"},
        {"\xff", u"\xfffd", "\xef\xbf\xbd"},
        {"\xc0\x80", u"\xfffd\xfffd", "\xef\xbf\xbd\xef\xbf\xbd"},                       // overlong
        {"\xed\xa0\x80", u"\xfffd\xfffd\xfffd", "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"}, // surrogate
        {"a\xe2\x82", u"a\xfffd", "a\xef\xbf\xbd"},                                      // cut off
        {"\xf4\x90\x80\x80", u"\xfffd\xfffd\xfffd\xfffd", "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"},
    };
    for (const auto& [utf8, wide, back] : rows) {
        EXPECT_EQ(nthost::FromUtf8(utf8), wide);
        EXPECT_EQ(Text(wide).Utf8(), back);
    }
    EXPECT_EQ(Text(u"\xdc00\xd800"s).Utf8(), "\xef\xbf\xbd\xef\xbf\xbd");
    EXPECT_EQ(nthost::ToUtf8(nullptr), "");
}

TEST(StatusName, KnowsEveryStatusOfTheHeader)
{
    const auto root = std::filesystem::path(__FILE__).parent_path().parent_path().parent_path();
    std::ifstream header(root / "nthost/include/nt/status.h");
    ASSERT_TRUE(header);
    size_t found = 0;
    std::map<NTSTATUS, std::string> first; // of two names for one value the first counts
    for (std::string word, name, value; header >> word;) {
        if (word != "#define" || !(header >> name >> value) || !value.starts_with("((NTSTATUS)0x")) continue;
        const auto status = static_cast<NTSTATUS>(std::stoul(value.substr(11), nullptr, 16));
        EXPECT_EQ(nthost::StatusName(status), first.emplace(status, name).first->second);
        ++found;
    }
    EXPECT_GT(found, 100u);
    EXPECT_EQ(nthost::StatusName(static_cast<NTSTATUS>(0xc0ffee11)), "0xc0ffee11");
}

} // namespace
