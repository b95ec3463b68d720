// SIDs and their text form. No state.

#include "se/sid.h"

#include <cstring>

#include "check/fatal.h"

namespace nthost::se {

namespace {

// Reads "-number" from the front of the text.
class NumberReader {
public:
    explicit NumberReader(std::u16string_view text) : text_(text) {}

    std::optional<uint64_t> Next(uint64_t most)
    {
        if (At(0) != u'-') return {};
        const unsigned base = At(1) == u'0' && (At(2) == u'x' || At(2) == u'X') ? 16 : 10;
        const size_t first = at_ + (base == 16 ? 3 : 1);
        size_t at = first;
        uint64_t value = 0;
        for (unsigned digit; at < text_.size() && (digit = DigitOf(text_[at])) < base; ++at) {
            value = value * base + digit;
            if (value > most) return {};
        }
        if (at == first) return {};
        at_ = at;
        return value;
    }
    bool HasMore() const { return At(0) == u'-'; }
    size_t Used() const { return at_; }

private:
    char16_t At(size_t offset) const { return at_ + offset < text_.size() ? text_[at_ + offset] : u'\0'; }

    static unsigned DigitOf(char16_t c)
    {
        if (c >= u'0' && c <= u'9') return c - u'0';
        if (c >= u'a' && c <= u'f') return c - u'a' + 10;
        return c >= u'A' && c <= u'F' ? c - u'A' + 10 : 16;
    }

    std::u16string_view text_;
    size_t at_ = 1; // behind the S
};

} // namespace

Sid SidOf(PSID sid)
{
    Sid copy;
    std::memcpy(copy.Words, sid, RtlLengthSid(sid));
    return copy;
}

std::optional<Sid> ParseSid(std::u16string_view text, size_t* used)
{
    if (text.empty() || (text[0] != u'S' && text[0] != u's')) return {};
    NumberReader numbers(text);
    if (numbers.Next(SID_REVISION) != SID_REVISION) return {};
    const auto authority = numbers.Next(0xffffffffffff);
    if (!authority) return {};
    Sid sid;
    auto* const body = static_cast<SID*>(sid.Get());
    body->Revision = SID_REVISION;
    for (int i = 0; i < 6; ++i) body->IdentifierAuthority.Value[i] = static_cast<UCHAR>(*authority >> (40 - 8 * i));
    ULONG* const subAuthorities = sid.Words + FIELD_OFFSET(SID, SubAuthority) / sizeof(ULONG);
    while (numbers.HasMore()) {
        const auto number = numbers.Next(MAXULONG);
        if (!number || body->SubAuthorityCount == SID_MAX_SUB_AUTHORITIES) return {};
        subAuthorities[body->SubAuthorityCount++] = static_cast<ULONG>(*number);
    }
    *used = numbers.Used();
    return sid;
}

Sid SidFromText(std::string_view text)
{
    size_t used = 0;
    const std::optional<Sid> sid = ParseSid(std::u16string(text.begin(), text.end()), &used);
    if (!sid || used != text.size()) Fatal("not a SID: %s", std::string(text).c_str());
    return *sid;
}

} // namespace nthost::se
