// What an NT program does with an open file beyond reading: writing, information, extended attributes. On synchronous
// handles: each call returns when the request has ended.
#pragma once

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <gvnd/plugin.h>

namespace support {

struct Outcome {
    NTSTATUS Status;
    ULONG_PTR Information;
};

constexpr LONGLONG kAtPosition = -2; // FILE_USE_FILE_POINTER_POSITION
constexpr LONGLONG kAtEnd = -1;      // FILE_WRITE_TO_END_OF_FILE

Outcome Write(HANDLE file, std::string_view data, LONGLONG offset = kAtPosition);
Outcome Query(HANDLE file, FILE_INFORMATION_CLASS infoClass, void* buffer, ULONG length);
Outcome Set(HANDLE file, FILE_INFORMATION_CLASS infoClass, const void* buffer, ULONG length);
Outcome QueryVolume(HANDLE file, FS_INFORMATION_CLASS infoClass, void* buffer, ULONG length);
Outcome SetVolume(HANDLE file, FS_INFORMATION_CLASS infoClass, const void* buffer, ULONG length);
NTSTATUS Flush(HANDLE file);

template <typename Info>
Info QueryAs(HANDLE file, FILE_INFORMATION_CLASS infoClass, NTSTATUS* status)
{
    Info info = {};
    *status = Query(file, infoClass, &info, sizeof info).Status;
    return info;
}

NTSTATUS SetSize(HANDLE file, LONGLONG endOfFile);
NTSTATUS SetAllocation(HANDLE file, LONGLONG allocation);
NTSTATUS SetDelete(HANDLE file, bool deleteIt);
// attributes 0 leaves them alone, times 0 likewise.
NTSTATUS SetBasic(HANDLE file, ULONG attributes, LONGLONG creation = 0, LONGLONG access = 0, LONGLONG write = 0,
                  LONGLONG change = 0);
NTSTATUS Rename(HANDLE file, const std::string& name, bool replace = false, HANDLE root = nullptr);
// The name as FileNameInformation tells it; a status in angle brackets after a failure.
std::string NameOf(HANDLE file);

// A list of extended attributes while it is built: records of FILE_FULL_EA_INFORMATION, aligned and linked.
class EaList {
public:
    EaList& Add(std::string_view name, std::string_view value, UCHAR flags = 0);
    const std::string& Bytes() const { return bytes_; }
    // The record that was added last, for a test that spoils it.
    PFILE_FULL_EA_INFORMATION Last() { return reinterpret_cast<PFILE_FULL_EA_INFORMATION>(bytes_.data() + last_); }
    ULONG LastOffset() const { return static_cast<ULONG>(last_); }

private:
    std::string bytes_;
    size_t last_ = 0;
};

// "name=value" of each record of a list.
std::vector<std::string> EaTexts(const void* list, size_t length);

Outcome SetEas(HANDLE file, const std::string& list);

struct EaQuery {
    ULONG Length = 4096;
    bool Single = false;
    bool Restart = false;
    std::vector<std::string> Names = {}; // by list, if any
    ULONG Index = 0;                     // by index, if not 0
};

struct EaAnswer {
    NTSTATUS Status;
    ULONG_PTR Information;
    std::vector<std::string> Records;
};

EaAnswer QueryEas(HANDLE file, const EaQuery& query = {});
// A FILE_GET_EA_INFORMATION chain.
std::string EaNameList(const std::vector<std::string>& names);

} // namespace support
