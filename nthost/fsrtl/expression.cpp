// Matching of names against expressions with wildcards. The expression is a chain of states, one before each of its
// characters and one at the end; the set of states the name can be in is carried along the name, so the cost is at most
// the product of the lengths. The sets stand on the stack: nothing is allocated, and
// the routine raises only when a test makes it.

#include <algorithm>
#include <bit>
#include <cstdint>

#include <nthost/faults.h>

#include "rtl/casing.h"

namespace {

// States of one expression. Only the words that the expression needs are ever touched.
class StateSet {
public:
    explicit StateSet(size_t states) : words_(states / 64 + 1) { Clear(); }

    void Clear() { std::fill_n(bits_, words_, 0); }
    void Add(size_t state) { bits_[state / 64] |= uint64_t{1} << state % 64; }
    bool Contains(size_t state) const { return bits_[state / 64] >> state % 64 & 1; }
    bool Empty() const
    {
        return std::all_of(bits_, bits_ + words_, [](uint64_t word) { return word == 0; });
    }

    // The first state from this one on, or SIZE_MAX.
    size_t From(size_t state) const
    {
        uint64_t word = state / 64 < words_ ? bits_[state / 64] >> state % 64 << state % 64 : 0;
        for (size_t at = state / 64;; word = bits_[at]) {
            if (word) return at * 64 + static_cast<size_t>(std::countr_zero(word));
            if (++at >= words_) return SIZE_MAX;
        }
    }

private:
    static constexpr size_t kMostStates = 0xffff / sizeof(WCHAR) + 1;
    size_t words_;
    uint64_t bits_[kMostStates / 64 + 1];
};

class Matcher {
public:
    explicit Matcher(PCUNICODE_STRING expression)
        : text_(expression->Buffer),
          length_(expression->Length / sizeof(WCHAR)), sets_{StateSet(length_), StateSet(length_)}
    {
        current_->Add(0);
    }

    bool Alive() const { return !current_->Empty(); }

    // Takes one character of the name. Steps that take none lead to a later state of the same set, so one pass in
    // ascending order sees them all.
    void Feed(WCHAR c, bool isLastPeriod)
    {
        next_->Clear();
        for (size_t state = current_->From(0); state < length_; state = current_->From(state + 1))
            Step(state, c, isLastPeriod);
        std::swap(current_, next_);
    }

    // Whether the rest of the expression, from some state, matches nothing.
    bool Finish()
    {
        for (size_t state = current_->From(0); state < length_; state = current_->From(state + 1))
            if (MatchesNothingAtEnd(text_[state])) current_->Add(state + 1);
        return current_->Contains(length_);
    }

private:
    static bool MatchesNothingAtEnd(WCHAR e) { return e == L'*' || e == DOS_STAR || e == DOS_QM || e == DOS_DOT; }

    void Step(size_t state, WCHAR c, bool isLastPeriod)
    {
        switch (const WCHAR e = text_[state]) {
        case L'*':
            next_->Add(state);
            current_->Add(state + 1);
            break;
        case DOS_STAR:
            // The last period is the last thing it takes.
            next_->Add(isLastPeriod ? state + 1 : state);
            current_->Add(state + 1);
            break;
        case DOS_QM:
            if (c != L'.')
                next_->Add(state + 1);
            else
                SkipAtPeriod(state);
            break;
        case DOS_DOT:
            if (c == L'.') next_->Add(state + 1);
            break;
        default:
            if (e == c || e == L'?') next_->Add(state + 1);
            break;
        }
    }

    // At the end of the expression it takes the period instead: in the file names of DOS "A." is "A".
    void SkipAtPeriod(size_t state)
    {
        current_->Add(state + 1);
        if (state + 1 == length_) next_->Add(length_);
    }

    PCWCH text_;
    size_t length_;
    StateSet sets_[2];
    StateSet* current_ = &sets_[0];
    StateSet* next_ = &sets_[1];
};

WCHAR Fold(WCHAR c, BOOLEAN ignoreCase, PCWCH table)
{
    if (!ignoreCase) return c;
    return table ? table[c] : nthost::rtl::Upcase(c);
}

} // namespace

BOOLEAN NTAPI FsRtlIsNameInExpression(PUNICODE_STRING Expression, PUNICODE_STRING Name, BOOLEAN IgnoreCase,
                                      PWCHAR UpcaseTable)
{
    // NT works on a copy in upper case when it ignores case by its own table, and raises when there is no memory for
    // it.
    if (IgnoreCase && !UpcaseTable && nthost::FaultInjected("FsRtlIsNameInExpression")) ExRaiseStatus(STATUS_NO_MEMORY);
    if (!Expression->Length || !Name->Length) return Expression->Length == Name->Length;
    if (Expression->Length == sizeof(WCHAR) && Expression->Buffer[0] == L'*') return TRUE;

    const PCWCH begin = Name->Buffer, end = begin + Name->Length / sizeof(WCHAR);
    PCWCH lastPeriod = end;
    while (lastPeriod > begin && lastPeriod[-1] != L'.') --lastPeriod;
    Matcher matcher(Expression);
    for (PCWCH at = begin; at < end && matcher.Alive(); ++at)
        matcher.Feed(Fold(*at, IgnoreCase, UpcaseTable), at + 1 == lastPeriod);
    return matcher.Finish();
}
