// A file mapped by this process, for as long as the object lives.
#pragma once

#include <string>

#include <nthost/sections.h>

#include "workbench/handle.h"

namespace workbench {

class View {
public:
    enum class Kind { ReadOnly, ReadWrite, Image };
    // Status tells whether it worked; Address is null if not.
    explicit View(HANDLE file, Kind kind = Kind::ReadWrite, LONGLONG size = 0);
    View(const View&) = delete;
    View& operator=(const View&) = delete;
    ~View() { Unmap(); }

    NTSTATUS Status() const { return status_; }
    // Whether it got as far as the mapping.
    bool HasSection() const { return hasSection_; }
    char* Address() const { return static_cast<char*>(address_); }
    size_t Size() const { return size_; }
    // Copies out of the view and into it, as a program would; the exception's status if a page does not come.
    NTSTATUS Get(size_t offset, std::string* text, size_t length) const;
    NTSTATUS Put(size_t offset, const std::string& text) const;
    std::string Text(size_t offset, size_t length) const;
    NTSTATUS Flush() const;
    void Unmap();

private:
    NTSTATUS status_;
    bool hasSection_ = false;
    void* address_ = nullptr;
    SIZE_T size_ = 0;
};

} // namespace workbench
