// Content: reads, writes, locks, views, and the ways in which requests end early.
#include <nthost/process.h>
#include <nthost/sections.h>
#include <workbench/requests.h>

#include "support/sequence.h"

namespace fuzz {

namespace {

// Null, the special ones, or any.
PLARGE_INTEGER Offset(Input& input, LARGE_INTEGER* offset)
{
    offset->QuadPart = input.Number();
    return input.Sometimes(16) ? nullptr : offset;
}

} // namespace

void Sequence::Read()
{
    const HANDLE file = Any();
    Begin([&](Out& out) {
        void* const buffer = out.Give(input_, input_.Below(input_.Sometimes(16) ? 0xffff : 64));
        return NtReadFile(file, out.Done.Get(), nullptr, nullptr, &out.Block, buffer, out.LengthOf(0),
                          Offset(input_, &out.Offset), input_.Sometimes(16) ? &out.Key : nullptr);
    });
}

void Sequence::Write()
{
    const HANDLE file = Any();
    Begin([&](Out& out) {
        std::string data = input_.Bytes(32);
        if (input_.Sometimes(16)) data.resize(input_.Raw<uint16_t>());
        void* const buffer = out.Give(input_, data.size(), data.data());
        return NtWriteFile(file, out.Done.Get(), nullptr, nullptr, &out.Block, buffer, out.LengthOf(0),
                           Offset(input_, &out.Offset), input_.Sometimes(16) ? &out.Key : nullptr);
    });
}

void Sequence::Lock()
{
    Slot& slot = AnySlot();
    const uint8_t how = input_.Byte();
    // The one thread must not wait for itself.
    const bool atOnce = slot.Synchronous || how & 1;
    Begin([&](Out& out) {
        out.Offset.QuadPart = input_.Number();
        out.Length.QuadPart = input_.Number();
        return NtLockFile(slot.File.Get(), out.Done.Get(), nullptr, nullptr, &out.Block, &out.Offset, &out.Length,
                          how >> 6, atOnce, how & 2);
    });
}

void Sequence::Unlock()
{
    LARGE_INTEGER offset, length;
    offset.QuadPart = input_.Number();
    length.QuadPart = input_.Number();
    IO_STATUS_BLOCK block = {};
    (void)NtUnlockFile(Any(), &block, &offset, &length, input_.Byte() >> 6);
}

void Sequence::Flush() { (void)workbench::Flush(Any()); }

void Sequence::Map()
{
    static constexpr workbench::View::Kind kKinds[] = {workbench::View::Kind::ReadWrite,
                                                       workbench::View::Kind::ReadOnly, workbench::View::Kind::Image};
    const HANDLE file = Any();
    view_.reset();
    const auto kind = input_.Pick(kKinds);
    if (file) view_ = std::make_unique<workbench::View>(file, kind, input_.Sometimes(128) ? input_.Number() : 0);
}

void Sequence::Touch()
{
    if (!view_ || !NT_SUCCESS(view_->Status()) || !view_->Size()) return;
    const uint8_t how = input_.Byte();
    const size_t offset = input_.Raw<uint32_t>() % view_->Size();
    if (how & 1) {
        std::string text;
        (void)view_->Get(offset, &text, std::min<size_t>(how, view_->Size() - offset));
    }
    if (how & 2) (void)view_->Put(offset, "x");
    if (how & 4) (void)view_->Flush();
    if (how & 8) view_.reset();
}

void Sequence::Cancel()
{
    const HANDLE file = Any();
    IO_STATUS_BLOCK block = {};
    if (input_.Byte() & 1)
        (void)NtCancelIoFile(file, &block);
    else
        (void)NtCancelIoFileEx(file, out_.empty() ? nullptr : &out_[input_.Byte() % out_.size()]->Block, &block);
}

// Requests that have ended give back their buffers. One that waits for a lock may be out until the end.
void Sequence::Settle()
{
    std::erase_if(out_, [](const std::unique_ptr<Out>& request) { return request->Done.Poll(); });
}

void Sequence::Memory()
{
    const HANDLE handle = Any();
    PVOID file = nullptr;
    if (input_.Byte() & 1) {
        (void)nthost::TrimSections();
    } else if (handle &&
               NT_SUCCESS(ObReferenceObjectByHandle(handle, 0, IoFileObjectType, KernelMode, &file, nullptr))) {
        (void)nthost::StepModifiedPageWriter(static_cast<PFILE_OBJECT>(file));
        ObDereferenceObject(file);
    }
}

} // namespace fuzz
