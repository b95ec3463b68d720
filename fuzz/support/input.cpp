// Decisions from bytes.
#include "support/input.h"

#include <algorithm>

namespace fuzz {

void Input::Take(void* to, size_t size)
{
    const size_t count = std::min(size, left_);
    if (count) std::memcpy(to, at_, count);
    at_ += count;
    left_ -= count;
}

uint8_t Input::Byte() { return Raw<uint8_t>(); }

int64_t Input::Number()
{
    static constexpr int64_t kEdges[] = {
        0,        1,          2,          4,          8,          0x10,      0x1ff,     0x200, 0xfff, 0x1000,
        0x1001,   0x10000,    0x7fffffff, 0x80000000, 0xffffffff, INT64_MAX, INT64_MIN, -1,    -2,    INT64_MAX - 0xfff,
        0x100000, 0x100000000};
    const uint8_t kind = Byte();
    if (kind < 128) return kind;
    if (kind < 192) return kEdges[kind % std::size(kEdges)];
    if (kind < 224) return Raw<uint16_t>();
    return Raw<int64_t>();
}

std::string Input::Bytes(size_t atMost)
{
    std::string bytes(std::min<size_t>(Below(static_cast<ULONG>(std::min<size_t>(atMost, 0xffff))), left_), '\0');
    Take(bytes.data(), bytes.size());
    return bytes;
}

Input Input::SplitBack()
{
    const size_t back = left_ / 2;
    left_ -= back;
    return {at_ + left_, back};
}

std::u16string Component(Input& input)
{
    static const std::u16string kWords[] = {u"a",
                                            u"b",
                                            u"dir",
                                            u"sub",
                                            u"file",
                                            u"link",
                                            u"A",
                                            u"FILE",
                                            u"Dir",
                                            u"caf\u00e9",
                                            u"cafe\u0301",
                                            u"new",
                                            u".",
                                            u"..",
                                            u"",
                                            u" ",
                                            u"a.",
                                            u"a ",
                                            u"*",
                                            u"?",
                                            u"f*",
                                            u"<.\"",
                                            u">",
                                            u"a:b",
                                            u"a::$DATA",
                                            u"file:",
                                            u":",
                                            u"a/b",
                                            u"\u0130",
                                            u"\xd83d\xde00",
                                            u"\xd800",
                                            std::u16string(1, 0),
                                            u"a|b",
                                            u"\x01",
                                            std::u16string(255, u'n'),
                                            std::u16string(256, u'n'),
                                            std::u16string(4000, u'l'),
                                            std::u16string(32000, u'l')};
    const uint8_t kind = input.Byte();
    if (kind < 128) return kWords[kind % 12];
    if (kind < 224) return kWords[kind % std::size(kWords)];
    std::u16string text;
    for (size_t count = input.Byte() % 8; count; --count) text.push_back(input.Raw<char16_t>());
    return text;
}

std::u16string Path(Input& input)
{
    static constexpr uint8_t kCounts[] = {1, 1, 1, 2, 2, 3, 5, 0};
    std::u16string path;
    for (unsigned count = input.Pick(kCounts); count; --count) path += u"\\" + Component(input);
    if (input.Sometimes(16)) path += u'\\';
    if (path.size() > 0x7ff0) path.resize(0x7ff0);
    return path;
}

void Spoil(Input& input, void* record, size_t size)
{
    if (!size || !input.Sometimes(64)) return;
    auto* const bytes = static_cast<uint8_t*>(record);
    for (unsigned count = 1 + input.Byte() % 4; count; --count) bytes[input.Raw<uint16_t>() % size] = input.Byte();
}

} // namespace fuzz
