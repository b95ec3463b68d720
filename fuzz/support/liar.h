// A malicious plugin in front of a good one: what an operation hands back is now and then another status, nothing, a
// record with other numbers or lengths, or an exception; slots of the table come and go, and the record of a directory
// entry changes when the driver asks how its name is normalised. One thing stays true, since nobody could find it out:
// memory that is handed over is as long as the record in it says.
#pragma once

#include <mutex>

#include <gvnd/plugin.h>

#include "support/input.h"

namespace fuzz {

class Liar {
public:
    // The lies are read by whatever thread makes a call.
    Liar(const PluginOps* honest, Input lies);
    Liar(const Liar&) = delete;
    Liar& operator=(const Liar&) = delete;
    PluginOps* Operations() { return &table_; }

    // --- for the thunks

    const PluginOps* Honest() const { return honest_; }
    // True if the call must not reach the honest plugin, and *status is its result. May raise.
    bool Refuses(NTSTATUS* status);
    NTSTATUS Told(NTSTATUS status);
    void LookAt(PCUNICODE_STRING path);
    // Of what an operation has filled in.
    void Spoil(PluginFileInfo** record);
    void Spoil(PluginDirEntry** record);
    void Spoil(PluginVolInfo** record);
    void Spoil(UNICODE_STRING** text);
    void Spoil(ULONG* number);
    void Spoil(LONGLONG* number);
    void SpoilBlock(void** block, ULONG* count);

private:
    enum class Refusal { None, Status, Raise, Fault };
    Refusal Choose(NTSTATUS* status);
    void ChangeTable();
    void Drop(void** block);
    bool Lies() { return input_.Sometimes(32); }

    std::mutex mutex_; // held for no call and no exception
    const PluginOps* honest_;
    PluginOps table_;
    Input input_;
    PluginDirEntry* lent_ = nullptr; // may be gone; compared, and used only while the driver shows that it is not
};

} // namespace fuzz
