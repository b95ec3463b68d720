// A mapped view of a file: a section and a view of it in this process. Pages come by paging reads as they are touched
// and go back by paging writes when the view is flushed.
#pragma once

#include <cstdint>
#include <string>

#include "gvnd/client.h"

namespace tool {

class MappedView {
public:
    enum class Mode { Read, Write };
    // The whole file. The handle needs FILE_READ_DATA, and for Write also FILE_WRITE_DATA.
    MappedView(const File& file, Mode mode);
    ~MappedView();
    MappedView(const MappedView&) = delete;
    MappedView& operator=(const MappedView&) = delete;

    uint64_t Size() const { return size_; }
    // Copies out of, or into, the view. A page that cannot be had is a failure with the status of its exception.
    std::string Read(uint64_t offset, size_t length) const;
    void Write(uint64_t offset, const std::string& bytes);
    void Flush();

private:
    void CheckRange(uint64_t offset, size_t length) const;

    std::string path_;
    uint64_t size_ = 0;
    HANDLE section_ = nullptr;
    void* base_ = nullptr;
};

} // namespace tool
