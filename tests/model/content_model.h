// What one file must hold: a plain array of bytes, and beside it the pages that views have brought in, each with what
// it held then and what has been written to it since. A request does not see a changed page before it has been written
// back; what writes pages back, and what drops them, is the rule under test. Single-threaded.
#pragma once

#include <array>
#include <map>
#include <optional>

#include "content_operation.h"

namespace model {

class ContentModel {
public:
    // The step as both sides are to carry it out; nothing if it does not apply.
    std::optional<ContentOperation> Admit(ContentOperation operation) const;
    ContentOutcome Apply(const ContentOperation& operation);
    const std::string& Bytes() const { return bytes_; }

private:
    static constexpr size_t kPage = 4096;
    struct Page {
        std::array<char, kPage> Content;
        bool Dirty;
    };

    ContentOutcome Read(const ContentOperation& read);
    ContentOutcome Write(const ContentOperation& write);
    NTSTATUS SetEnd(LONGLONG size);
    NTSTATUS SetAllocation(LONGLONG size);
    NTSTATUS Overwrite();
    ContentOutcome Map(unsigned view);
    std::string ReadView(ULONG offset, ULONG length);
    void WriteView(ULONG offset, const std::string& data);
    // Where the request takes place; nothing if its handle has no position.
    std::optional<LONGLONG> PlaceOf(const ContentOperation& operation) const;

    void Store(LONGLONG offset, const std::string& data);
    Page& Fault(size_t index);
    void FlushPages(size_t first, size_t end);
    // Pages from first to end are in use by a request, and stay.
    void FlushAndPurge(size_t first = 0, size_t end = 0);
    bool IsMapped() const;
    bool CutsViews(LONGLONG size) const;

    std::string bytes_;
    LONGLONG end_ = 0; // as the driver remembers it, which is where it appends
    LONGLONG position_ = 0;
    std::map<size_t, Page> pages_;
    LONGLONG sectionSize_ = 0;             // the file's, when it was mapped last
    std::array<LONGLONG, kViews> views_{}; // lengths; zero for none
};

} // namespace model
