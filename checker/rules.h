// What each operation owes, checked on its arguments after the call. What is refused is taken out of the driver's way.
#pragma once

#include <string>

#include <layer/operations.h>

#include "checker/verifier.h"

namespace checker {

// One call, for the rules.
struct Verified {
    Verifier& Owner;
    const std::string& Call;
    NTSTATUS Status;
    bool Succeeded() const { return NT_SUCCESS(Status); }
    void Break(const char* property, const std::string& got) const { Owner.Break(property, Call, got); }
    // Only a success owes something.
    void Owed(bool isThere, const char* what) const;
};

constexpr PluginFd kNotSet = 0xdddddddddddddddd;
constexpr PluginAccessMask kAccessNotSet = 0xdddddddd;

// Null, or a live block of at least this many bytes; else a breach, and the pointer is null afterwards.
bool TakeBlock(const Verified& call, void** block, SIZE_T size);
void CheckInfo(const Verified& call, PluginFileInfo** info);
void CheckEntry(const Verified& call, PluginDirEntry** entry);
void CheckVolume(const Verified& call, PluginVolInfo** info);
void CheckString(const Verified& call, PUNICODE_STRING* text, bool owed);
void CheckNames(const Verified& call, char** names, ULONG* count);
void CheckValue(const Verified& call, void** value, ULONG* length);
void CheckAccess(const Verified& call, PluginAccessMask* access);
void CheckOpened(const Verified& call, PluginFd* fd);
void CheckCount(const Verified& call, const char* property, ULONG asked, ULONG* length);

// Before and After of each operation; none for most.
template <auto Slot>
struct Rules {
    template <typename... Args>
    static void Before(Args...)
    {}
    template <typename... Args>
    static void After(const Verified&, Args...)
    {}
};

struct OpenRules {
    static void Before(PCUNICODE_STRING, PluginAccessMask, PluginFd* fd) { *fd = kNotSet; }
    static void After(const Verified& call, PCUNICODE_STRING, PluginAccessMask, PluginFd* fd) { CheckOpened(call, fd); }
};
template <>
struct Rules<&PluginOps::Open> : OpenRules {};
template <>
struct Rules<&PluginOps::OpenDir> : OpenRules {};

struct CreateRules {
    static void Before(PCUNICODE_STRING, PluginFd* fd) { *fd = kNotSet; }
    static void After(const Verified& call, PCUNICODE_STRING, PluginFd* fd) { CheckOpened(call, fd); }
};
template <>
struct Rules<&PluginOps::Create> : CreateRules {};
template <>
struct Rules<&PluginOps::CreateDir> : CreateRules {};

template <>
struct Rules<&PluginOps::Close> {
    static void Before(PluginFd) {}
    static void After(const Verified& call, PluginFd fd)
    {
        call.Owner.Closed(fd);
        if (!call.Succeeded()) call.Break("close.succeeds", nthost::StatusName(call.Status));
    }
};

template <>
struct Rules<&PluginOps::Lookup> {
    static void Before(PCUNICODE_STRING, PluginFileInfo**, PluginAccessMask* access) { *access = kAccessNotSet; }
    static void After(const Verified& call, PCUNICODE_STRING, PluginFileInfo** info, PluginAccessMask* access)
    {
        CheckInfo(call, info);
        CheckAccess(call, access);
    }
};

template <>
struct Rules<&PluginOps::GetInfo> {
    static void Before(PluginFd, PluginFileInfo**) {}
    static void After(const Verified& call, PluginFd, PluginFileInfo** info) { CheckInfo(call, info); }
};

template <>
struct Rules<&PluginOps::ReadDirEntry> {
    static void Before(PluginFd, ULONG, PluginDirEntry**) {}
    static void After(const Verified& call, PluginFd, ULONG, PluginDirEntry** entry) { CheckEntry(call, entry); }
};

template <>
struct Rules<&PluginOps::GetVolInfo> {
    static void Before(PluginVolInfo**) {}
    static void After(const Verified& call, PluginVolInfo** info) { CheckVolume(call, info); }
};

template <>
struct Rules<&PluginOps::GetNormalizedPath> {
    static void Before(PCUNICODE_STRING, PUNICODE_STRING*) {}
    static void After(const Verified& call, PCUNICODE_STRING, PUNICODE_STRING* text) { CheckString(call, text, false); }
};

template <>
struct Rules<&PluginOps::ReadLink> {
    static void Before(PCUNICODE_STRING, PUNICODE_STRING*, PUNICODE_STRING*) {}
    static void After(const Verified& call, PCUNICODE_STRING, PUNICODE_STRING* target, PUNICODE_STRING* other)
    {
        CheckString(call, target, true);
        CheckString(call, other, false);
    }
};

template <>
struct Rules<&PluginOps::ListEa> {
    static void Before(PluginFd, char**, ULONG*) {}
    static void After(const Verified& call, PluginFd, char** names, ULONG* count) { CheckNames(call, names, count); }
};

template <>
struct Rules<&PluginOps::GetEa> {
    static void Before(PluginFd, const char*, void**, ULONG*) {}
    static void After(const Verified& call, PluginFd, const char*, void** value, ULONG* length)
    {
        CheckValue(call, value, length);
    }
};

} // namespace checker
