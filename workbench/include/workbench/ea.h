// Extended attributes: the lists that go in and come out.
#pragma once

#include "workbench/requests.h"

namespace workbench {

// A list of extended attributes while it is built: records of FILE_FULL_EA_INFORMATION, aligned and linked. A value
// that is empty removes its name.
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

} // namespace workbench
