// A small file system in memory, for what the memory manager asks of one: it locks as file systems do (a request that
// is nested in other work takes no lock), notes every request, and fails or holds up what a test wants. The fixture
// boots, loads it, and expects that nothing is left at the end.
#pragma once

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nthost/check.h>
#include <nthost/process.h>
#include <nthost/sections.h>

#include "support/host.h"

namespace minifs {

struct Fcb {
    FSRTL_COMMON_FCB_HEADER Header{};
    SECTION_OBJECT_POINTERS Pointers{};
    ERESOURCE Resource;
    ~Fcb();
    std::string Data; // under Resource; nested requests use it under their outer one's
};

struct Seen {
    UCHAR Major;
    ULONG Flags; // IRP_...
    LONGLONG Offset;
    ULONG Length;
    HANDLE Thread;
    KIRQL Irql;
    bool TopLevel;         // not nested in another request
    bool HasSystemAddress; // the MDL came mapped

    bool IsPaging() const { return Flags & IRP_PAGING_IO; }
};

// Which of the section callbacks the driver has.
enum class Callbacks { None, All };

class FileSystem {
public:
    Fcb* File(const std::string& name); // made if it is not there
    std::vector<Seen> Take();           // what came since the last call: reads, writes, size changes, closes
    std::vector<Seen> TakePaging(UCHAR major);
    std::vector<std::string> TakeCallbacks();

    // Asked for every read and write, outside of all locks, before it is done; a failure is the request's end.
    std::function<NTSTATUS(const Seen&)> Before;
    NTSTATUS AcquireStatus = STATUS_SUCCESS; // of AcquireForCcFlush and AcquireForModWrite
    bool NoSectionPointers = false;

    void Note(const Seen& seen);
    void NoteCallback(const char* name);
    void Clear() { files_.clear(); }

private:
    std::mutex mutex_;
    std::map<std::string, std::unique_ptr<Fcb>> files_;
    std::vector<Seen> seen_;
    std::vector<std::string> callbacks_;
};

extern FileSystem* fs;

// What a handle is opened for; closes itself.
class File {
public:
    explicit File(const char* name, ACCESS_MASK access = FILE_READ_DATA | FILE_WRITE_DATA | FILE_EXECUTE | SYNCHRONIZE);
    ~File() { Close(); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    HANDLE Handle() const { return handle_; }
    PFILE_OBJECT Object() const { return object_; } // valid as long as anything references it
    void Close();
    // A write as an application makes it.
    NTSTATUS Write(ULONG offset, const void* data, ULONG length) const;

private:
    HANDLE handle_ = nullptr;
    PFILE_OBJECT object_ = nullptr;
};

struct SectionArguments {
    ACCESS_MASK Access = SECTION_ALL_ACCESS;
    LONGLONG Size = 0;
    ULONG Protection = PAGE_READWRITE;
    ULONG Kind = SEC_COMMIT;
};
NTSTATUS MakeSection(HANDLE file, const SectionArguments& arguments, HANDLE* section);

struct ViewArguments {
    void* Base = nullptr;
    LONGLONG Offset = 0;
    SIZE_T Size = 0;
    ULONG Protection = PAGE_READWRITE;
};
NTSTATUS MakeView(HANDLE section, ViewArguments arguments, char** base, SIZE_T* size = nullptr);

// A whole file mapped; the section's handle is closed at once.
class Mapped {
public:
    explicit Mapped(HANDLE file, const SectionArguments& section = {}, const ViewArguments& view = {});
    ~Mapped() { Unmap(); }
    Mapped(const Mapped&) = delete;
    Mapped& operator=(const Mapped&) = delete;
    char* At(size_t offset = 0) const { return base_ + offset; }
    void Unmap();

private:
    char* base_ = nullptr;
};

std::string Bytes(const char* from, size_t length); // through GuardedCopy; the status's name on failure
NTSTATUS Poke(char* to, char value);

class MmTest : public support::BootedTest {
protected:
    void SetUp() override { Start(Callbacks::All); }
    void TearDown() override;
    void Start(Callbacks callbacks);
    void Unload();
    // Shuts down with the driver loaded; the lines are the test's to judge.
    std::vector<std::string> ShutDownLeaking();
    FileSystem& Fs() { return fs_; }

private:
    FileSystem fs_;
    PDRIVER_OBJECT driver_ = nullptr;
};

// The rules of the findings that are there, which are taken.
std::vector<std::string> TakeRules();

constexpr size_t Page = PAGE_SIZE;

} // namespace minifs
