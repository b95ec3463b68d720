// The choice of calls, and how a sequence ends.
#include "support/sequence.h"

#include <workbench/requests.h>

#include "support/world.h"

namespace fuzz {

void* Sequence::Out::Give(Input& input, size_t size, const void* content)
{
    return Buffers.emplace_back(input, size, content).Address();
}

Sequence::Sequence(Input& input, const std::string& link) : input_(input), link_(workbench::Text(link).Units()) {}

Sequence::~Sequence()
{
    view_.reset();
    for (Slot& slot : slots_) {
        if (!slot.File.Get()) continue;
        (void)workbench::CancelAll(slot.File.Get());
        (void)slot.File.Close();
    }
    for (const auto& request : out_) request->Done.Wait();
}

void Sequence::Run(const std::function<void()>& between)
{
    static constexpr Call kCalls[] = {
        &Sequence::Create, &Sequence::Create,      &Sequence::Create,    &Sequence::Close,   &Sequence::Read,
        &Sequence::Write,  &Sequence::Query,       &Sequence::Set,       &Sequence::SetText, &Sequence::SetNumber,
        &Sequence::List,   &Sequence::QueryEa,     &Sequence::SetEa,     &Sequence::Lock,    &Sequence::Unlock,
        &Sequence::Flush,  &Sequence::QueryVolume, &Sequence::SetVolume, &Sequence::Control, &Sequence::Cancel,
        &Sequence::Settle, &Sequence::Map,         &Sequence::Touch,     &Sequence::ByName,  &Sequence::Duplicate,
        &Sequence::Notify, &Sequence::Memory};
    for (unsigned calls = 0; calls < 100 && !input_.Empty(); ++calls) {
        between();
        (this->*input_.Pick(kCalls))();
        ExpectNoFindings();
    }
}

std::u16string Sequence::AnyPath() { return link_ + Path(input_); }

} // namespace fuzz
