// A sequence of calls that a hostile user makes through the services on one volume: any service, any parameters, on up
// to eight handles. Whether a call succeeds is nobody's business here; that every one ends, and that nothing is left,
// is.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <workbench/handle.h>
#include <workbench/view.h>

#include "support/memory.h"

namespace fuzz {

class Sequence {
public:
    // link: the volume, as in "\??\Fuzzed".
    Sequence(Input& input, const std::string& link);
    // Cancels and closes what is still there, and waits for the requests.
    ~Sequence();
    Sequence(const Sequence&) = delete;
    Sequence& operator=(const Sequence&) = delete;

    // Until the input is used up, or too many calls. between runs before each call.
    void Run(const std::function<void()>& between = [] {});

private:
    struct Slot {
        workbench::Handle File;
        bool Synchronous = false;
    };
    // A request while it is out, with all that it may still write to.
    struct Out {
        workbench::Event Done;
        IO_STATUS_BLOCK Block = {};
        std::vector<Buffer> Buffers;
        LARGE_INTEGER Offset = {}, Length = {};
        ULONG Key = 0;
        void* Give(Input& input, size_t size, const void* content = nullptr);
        ULONG LengthOf(size_t which) const { return Buffers[which].Length(); }
    };
    using Call = void (Sequence::*)();

    Slot& AnySlot() { return slots_[input_.Byte() % kSlots]; }
    HANDLE Any() { return AnySlot().File.Get(); }
    // Starts a request on a handle of either kind; kept when it is pending.
    template <typename Start>
    void Begin(Start start);
    std::u16string AnyPath();
    OBJECT_ATTRIBUTES Attributes(HostileString& name, bool relative);
    std::string EaList();

    // sequence_open.cpp
    void Create();
    void ByName();
    void Close();
    void Duplicate();
    // sequence_data.cpp
    void Read();
    void Write();
    void Lock();
    void Unlock();
    void Flush();
    void Map();
    void Touch();
    void Cancel();
    void Settle();
    void Memory();
    // sequence_records.cpp
    void Query();
    void Set();
    void SetText();
    void SetNumber();
    void List();
    void Notify();
    void QueryEa();
    void SetEa();
    void QueryVolume();
    void SetVolume();
    void Control();

    static constexpr size_t kSlots = 8;
    Input& input_;
    std::u16string link_;
    Slot slots_[kSlots];
    std::vector<std::unique_ptr<Out>> out_;
    std::unique_ptr<workbench::View> view_;
};

template <typename Start>
void Sequence::Begin(Start start)
{
    auto request = std::make_unique<Out>();
    if (start(*request) == STATUS_PENDING) out_.push_back(std::move(request));
}

} // namespace fuzz
