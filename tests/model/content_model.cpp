// Bytes, pages and positions.

#include "content_model.h"

#include <algorithm>
#include <cstring>

namespace model {
namespace {

constexpr ULONG kChunk = 65536;   // of a write: what was read of a view before a chunk is out does not change with it
constexpr LONGLONG kSector = 512; // a page at the end of a section is read up to the end of the sector

LONGLONG Size(const std::string& bytes) { return static_cast<LONGLONG>(bytes.size()); }

size_t PagesOf(LONGLONG size, size_t page) { return (static_cast<size_t>(size) + page - 1) / page; }

ContentOutcome Only(NTSTATUS status) { return {status, 0, {}, 0}; }

} // namespace

std::optional<ContentOperation> ContentModel::Admit(ContentOperation operation) const
{
    const LONGLONG length = views_[operation.View];
    switch (operation.Verb) {
    case ContentVerb::Map: return length ? std::nullopt : std::optional(operation);
    case ContentVerb::Unmap: return length ? std::optional(operation) : std::nullopt;
    case ContentVerb::ReadView:
    case ContentVerb::WriteView:
    case ContentVerb::FlushView:
    case ContentVerb::WriteFromView: break;
    default: return operation;
    }
    const LONGLONG usable = std::min({length, sectionSize_, Size(bytes_)});
    if (usable == 0) return std::nullopt;
    operation.ViewOffset %= static_cast<ULONG>(usable);
    operation.Length = std::clamp<ULONG>(operation.Length, 1, static_cast<ULONG>(usable) - operation.ViewOffset);
    operation.Through = Through::Synchronous; // a view as buffer is touched while the request runs, not before
    return operation;
}

ContentOutcome ContentModel::Apply(const ContentOperation& operation)
{
    switch (operation.Verb) {
    case ContentVerb::Read: return Read(operation);
    case ContentVerb::Write:
    case ContentVerb::WriteFromView: return Write(operation);
    case ContentVerb::SetEnd: return Only(SetEnd(operation.Offset));
    case ContentVerb::SetAllocation: return Only(SetAllocation(operation.Offset));
    case ContentVerb::Overwrite: return Only(Overwrite());
    case ContentVerb::Flush: FlushAndPurge(); return {};
    case ContentVerb::QueryEnd: return {STATUS_SUCCESS, 0, {}, Size(bytes_)};
    case ContentVerb::QueryPosition: return {STATUS_SUCCESS, 0, {}, position_};
    case ContentVerb::SetPosition: position_ = operation.Offset; return {};
    case ContentVerb::Map: return Map(operation.View);
    case ContentVerb::Unmap: views_[operation.View] = 0; return {};
    case ContentVerb::WriteBack: FlushPages(0, SIZE_MAX); return {};
    case ContentVerb::Trim:
        if (!IsMapped()) FlushAndPurge();
        return {};
    case ContentVerb::ReadView: return {STATUS_SUCCESS, 0, ReadView(operation.ViewOffset, operation.Length), 0};
    case ContentVerb::WriteView: WriteView(operation.ViewOffset, Noise(operation.Fill, operation.Length)); return {};
    default:
        FlushPages(operation.ViewOffset / kPage, PagesOf(operation.ViewOffset + operation.Length, kPage));
        return {};
    }
}

std::optional<LONGLONG> ContentModel::PlaceOf(const ContentOperation& operation) const
{
    const bool writes = operation.Verb != ContentVerb::Read;
    if (writes && (operation.At == At::End || operation.Through == Through::Appending)) return end_;
    if (operation.At != At::Position) return operation.Offset;
    return operation.Through == Through::Synchronous ? std::optional(position_) : std::nullopt;
}

ContentOutcome ContentModel::Read(const ContentOperation& read)
{
    if (read.Through == Through::Appending) return Only(STATUS_ACCESS_DENIED);
    if (read.At == At::End) return Only(STATUS_INVALID_PARAMETER); // means something to writes only
    const auto offset = PlaceOf(read);
    if (!offset) return Only(STATUS_INVALID_PARAMETER);
    ContentOutcome outcome;
    if (read.Length) {
        if (*offset >= Size(bytes_)) return Only(STATUS_END_OF_FILE);
        outcome.Bytes = bytes_.substr(static_cast<size_t>(*offset), read.Length);
    }
    outcome.Information = outcome.Bytes.size();
    if (read.Through == Through::Synchronous) position_ = *offset + Size(outcome.Bytes);
    return outcome;
}

ContentOutcome ContentModel::Write(const ContentOperation& write)
{
    // Where a write to the end goes is settled before the pages go out.
    const auto offset = PlaceOf(write);
    if (!offset) return Only(STATUS_INVALID_PARAMETER);
    // So is the data: what follows a first piece is held in memory until the write has ended.
    const bool fromView = write.Verb != ContentVerb::Write;
    const std::string data = fromView ? ReadView(write.ViewOffset, write.Length) : Noise(write.Fill, write.Length);
    if (fromView && write.Length > kChunk) {
        FlushAndPurge((write.ViewOffset + kChunk) / kPage, PagesOf(write.ViewOffset + write.Length, kPage));
    } else {
        FlushAndPurge();
    }
    Store(*offset, data);
    end_ = std::max<LONGLONG>(end_, *offset + write.Length);
    if (write.Through == Through::Synchronous) position_ = *offset + write.Length;
    return {STATUS_SUCCESS, write.Length, {}, 0};
}

void ContentModel::Store(LONGLONG offset, const std::string& data)
{
    const size_t at = static_cast<size_t>(offset);
    if (data.empty()) return;
    if (at + data.size() > bytes_.size()) bytes_.resize(at + data.size());
    memcpy(bytes_.data() + at, data.data(), data.size());
}

// Nothing is lost by a cut, but a view may not lose its pages.
NTSTATUS ContentModel::SetEnd(LONGLONG size)
{
    if (size < Size(bytes_)) {
        if (CutsViews(size)) return STATUS_USER_MAPPED_FILE;
        FlushAndPurge();
    }
    bytes_.resize(static_cast<size_t>(size));
    end_ = size;
    return STATUS_SUCCESS;
}

NTSTATUS ContentModel::SetAllocation(LONGLONG size) { return SetEnd(std::min(size, Size(bytes_))); }

NTSTATUS ContentModel::Overwrite()
{
    FlushAndPurge();
    return CutsViews(0) ? STATUS_USER_MAPPED_FILE : SetEnd(0);
}

bool ContentModel::IsMapped() const
{
    return std::any_of(views_.begin(), views_.end(), [](LONGLONG length) { return length != 0; });
}

bool ContentModel::CutsViews(LONGLONG size) const
{
    return IsMapped() && PagesOf(size, kPage) < PagesOf(sectionSize_, kPage);
}

ContentOutcome ContentModel::Map(unsigned view)
{
    if (bytes_.empty()) return Only(STATUS_MAPPED_FILE_SIZE_ZERO);
    // While views are left, what they may see does not shrink.
    sectionSize_ = IsMapped() ? std::max(sectionSize_, Size(bytes_)) : Size(bytes_);
    views_[view] = Size(bytes_);
    pages_.erase(pages_.lower_bound(PagesOf(sectionSize_, kPage)), pages_.end());
    return {};
}

ContentModel::Page& ContentModel::Fault(size_t index)
{
    const auto [place, isNew] = pages_.try_emplace(index);
    Page& page = place->second;
    if (!isNew) return page;
    page = {};
    const LONGLONG start = static_cast<LONGLONG>(index * kPage);
    const LONGLONG wanted = std::min<LONGLONG>((sectionSize_ - start + kSector - 1) / kSector * kSector, kPage);
    const LONGLONG there = std::clamp<LONGLONG>(Size(bytes_) - start, 0, wanted);
    memcpy(page.Content.data(), bytes_.data() + start, static_cast<size_t>(there));
    return page;
}

std::string ContentModel::ReadView(ULONG offset, ULONG length)
{
    std::string data;
    while (data.size() < length) {
        const size_t at = offset + data.size();
        const size_t count = std::min(kPage - at % kPage, length - data.size());
        data.append(Fault(at / kPage).Content.data() + at % kPage, count);
    }
    return data;
}

void ContentModel::WriteView(ULONG offset, const std::string& data)
{
    for (size_t done = 0; done < data.size();) {
        const size_t at = offset + done;
        const size_t count = std::min(kPage - at % kPage, data.size() - done);
        Page& page = Fault(at / kPage);
        memcpy(page.Content.data() + at % kPage, data.data() + done, count);
        page.Dirty = true;
        done += count;
    }
}

// A changed page goes out whole, but not beyond the section's end.
void ContentModel::FlushPages(size_t first, size_t end)
{
    for (auto at = pages_.lower_bound(first); at != pages_.end() && at->first < end; ++at) {
        if (!at->second.Dirty) continue;
        at->second.Dirty = false;
        const LONGLONG start = static_cast<LONGLONG>(at->first * kPage);
        const LONGLONG count = std::min<LONGLONG>(sectionSize_ - start, kPage);
        Store(start, std::string(at->second.Content.data(), static_cast<size_t>(std::max<LONGLONG>(count, 0))));
    }
}

void ContentModel::FlushAndPurge(size_t first, size_t end)
{
    FlushPages(0, SIZE_MAX);
    std::erase_if(pages_, [=](const auto& page) { return page.first < first || page.first >= end; });
}

} // namespace model
