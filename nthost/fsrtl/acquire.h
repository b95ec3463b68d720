// The locks of a file system that the memory manager asks for around its own work, through the fast-I/O callbacks, or,
// where a slot is empty, by the resources in the common header that FsContext points to. Each holder enters a critical
// region first and leaves it last.
#pragma once

#include <ntifs.h>

namespace nthost::fsrtl {

// For the making of a section.
class SectionAcquisition {
public:
    explicit SectionAcquisition(PFILE_OBJECT file);
    ~SectionAcquisition();
    SectionAcquisition(const SectionAcquisition&) = delete;
    SectionAcquisition& operator=(const SectionAcquisition&) = delete;

private:
    PFILE_OBJECT file_;
    PERESOURCE resource_ = nullptr; // taken in place of the callback
};

// For a flush. Nothing may be written unless Status is a success.
class FlushAcquisition {
public:
    explicit FlushAcquisition(PFILE_OBJECT file);
    ~FlushAcquisition();
    FlushAcquisition(const FlushAcquisition&) = delete;
    FlushAcquisition& operator=(const FlushAcquisition&) = delete;
    NTSTATUS Status() const { return status_; }

private:
    void AcquireDefault();

    PFILE_OBJECT file_;
    NTSTATUS status_ = STATUS_SUCCESS;
    PERESOURCE main_ = nullptr; // both taken in place of the callback
    PERESOURCE paging_ = nullptr;
};

// For the modified-page writer, which does not wait: STATUS_CANT_WAIT if the lock is taken.
class ModWriteAcquisition {
public:
    ModWriteAcquisition(PFILE_OBJECT file, LONGLONG endingOffset);
    ~ModWriteAcquisition();
    ModWriteAcquisition(const ModWriteAcquisition&) = delete;
    ModWriteAcquisition& operator=(const ModWriteAcquisition&) = delete;
    NTSTATUS Status() const { return status_; }

private:
    PFILE_OBJECT file_;
    NTSTATUS status_ = STATUS_SUCCESS;
    PERESOURCE resource_ = nullptr;
    bool byCallback_ = false;
};

} // namespace nthost::fsrtl
