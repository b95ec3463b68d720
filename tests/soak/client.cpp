// The steps of a client.
#include "soak/client.h"

#include <algorithm>

#include "soak/content.h"

namespace soak {

using namespace workbench;

namespace {

constexpr size_t kMostOpen = 5;

// A value says which name it belongs to.
std::string EaValue(const std::string& name) { return "value of " + name; }

} // namespace

const Client::Row Client::kRows[] = {
    {"open", 20, &Client::OpenOne},   {"open the volume", 1, &Client::OpenVolume},
    {"close", 12, &Client::CloseOne}, {"read", 14, &Client::Read},
    {"write", 14, &Client::Write},    {"resize", 4, &Client::Resize},
    {"rename", 4, &Client::Rename},   {"delete", 4, &Client::Dispose},
    {"list", 4, &Client::List},       {"lock", 5, &Client::Locks},
    {"query", 6, &Client::Ask},       {"set times", 2, &Client::SetTimes},
    {"EAs", 3, &Client::Eas},         {"flush", 2, &Client::Flush},
    {"map", 4, &Client::Map},         {"touch a view", 10, &Client::TouchView},
    {"volume", 2, &Client::Volume},
};

void Client::Work()
{
    unsigned total = 0;
    for (const Row& row : kRows) total += row.Weight;
    while (!run_.Ended()) {
        if (run_.WantsQuiet()) {
            progress_.Doing = "close";
            CloseAll();
            progress_.Doing = "nothing";
            run_.StandStill();
        }
        unsigned drawn = Draw(total);
        const Row* row = kRows;
        while (drawn >= row->Weight) drawn -= row++->Weight;
        progress_.Doing = row->Name;
        (this->*row->What)();
        progress_.Steps.fetch_add(1, std::memory_order_relaxed);
        // So that a volume can go some time.
        if (Chance(200)) CloseAll();
    }
    progress_.Doing = "close";
    CloseAll();
    progress_.Doing = "nothing";
}

std::string Client::Name()
{
    static const char* const kNames[] = {"a",   "B",   "file.txt",         "A long name with blanks.data",
                                         "dir", "Sub", "\xc3\xa9t\xc3\xa9"};
    std::string name = kNames[Draw(std::size(kNames))];
    if (Chance(4))
        std::transform(name.begin(), name.end(), name.begin(),
                       [](unsigned char c) { return c < 128 ? toupper(c) : c; });
    return name;
}

std::string Client::Path()
{
    static const char* const kDirectories[] = {"", "\\dir", "\\Sub", "\\dir\\Sub", "\\dir\\Sub\\dir"};
    return links_[Draw(static_cast<unsigned>(links_.size()))] + kDirectories[Draw(std::size(kDirectories))] + "\\" +
           Name();
}

Client::Open* Client::Any() { return open_.empty() ? nullptr : &open_[Draw(static_cast<unsigned>(open_.size()))]; }

void Client::CloseAll() { open_.clear(); }

void Client::CheckBytes(uint64_t offset, const std::string& bytes, size_t length, const char* whence)
{
    const size_t strange = FirstStrange(offset, bytes.data(), length);
    if (strange == length) return;
    run_.Complain(std::string(whence) + " at " + std::to_string(offset + strange) + " has " +
                  std::to_string(static_cast<unsigned char>(bytes[strange])) + ", which nobody wrote there");
}

void Client::OpenOne()
{
    static constexpr ACCESS_MASK kAccess[] = {
        FILE_GENERIC_READ,    FILE_GENERIC_READ | FILE_GENERIC_WRITE, FILE_GENERIC_READ | FILE_GENERIC_WRITE | DELETE,
        DELETE | SYNCHRONIZE, FILE_READ_ATTRIBUTES | SYNCHRONIZE,     MAXIMUM_ALLOWED | SYNCHRONIZE};
    if (open_.size() >= kMostOpen) return CloseOne();
    OpenRequest request;
    const bool synchronous = !Chance(4), directory = Chance(4);
    request.Access = kAccess[Draw(std::size(kAccess))];
    request.Share = Chance(5) ? Draw(8) : kShareAll;
    request.Disposition = Chance(3) ? Draw(6) : ULONG{FILE_OPEN_IF};
    request.Options = (synchronous ? FILE_SYNCHRONOUS_IO_NONALERT : 0) | (directory ? FILE_DIRECTORY_FILE : 0) |
                      (Chance(12) ? FILE_DELETE_ON_CLOSE : 0) | (Chance(10) ? FILE_WRITE_THROUGH : 0);
    if (request.Options & FILE_DELETE_ON_CLOSE) request.Access |= DELETE;
    request.Attributes = Chance(20) ? FILE_ATTRIBUTE_READONLY : FILE_ATTRIBUTE_NORMAL;
    Open* const root = Chance(6) ? Any() : nullptr;
    if (root && root->Directory) request.Root = root->File.Get();
    OpenResult opened = workbench::Open(Text(request.Root ? Name() : Path()), request);
    if (NT_SUCCESS(opened.Status)) open_.push_back({std::move(opened.File), synchronous, directory, nullptr});
}

void Client::OpenVolume()
{
    OpenRequest request;
    OpenResult opened = workbench::Open(Text(links_[Draw(static_cast<unsigned>(links_.size()))]), request);
    if (NT_SUCCESS(opened.Status) && Chance(2)) (void)workbench::Flush(opened.File.Get());
}

void Client::CloseOne()
{
    if (open_.empty()) return;
    open_.erase(open_.begin() + Draw(static_cast<unsigned>(open_.size())));
}

// Asynchronous ones are cancelled now and then, wherever they are.
void Client::Read()
{
    Open* const open = Any();
    if (!open) return;
    const uint64_t offset = Place();
    std::string bytes(std::max<ULONG>(Length(), 1), '\0');
    Request request;
    const NTSTATUS started = request.StartRead(open->File.Get(), bytes.data(), static_cast<ULONG>(bytes.size()),
                                               static_cast<LONGLONG>(offset));
    if (!NT_SUCCESS(started)) return;
    if (!open->Synchronous && Chance(3)) (void)request.Cancel(open->File.Get());
    if (NT_SUCCESS(request.Wait())) CheckBytes(offset, bytes, request.Information(), "a read");
}

void Client::Write()
{
    Open* const open = Any();
    if (!open || !open->Synchronous) return;
    const uint64_t offset = Place();
    (void)workbench::Write(open->File.Get(), BytesAt(offset, Length()), static_cast<LONGLONG>(offset));
}

void Client::Resize()
{
    Open* const open = Any();
    if (!open || !open->Synchronous) return;
    if (Chance(2))
        (void)SetSize(open->File.Get(), static_cast<LONGLONG>(Place()));
    else
        (void)SetAllocation(open->File.Get(), static_cast<LONGLONG>(Place()));
}

void Client::Rename()
{
    Open* const open = Any();
    if (!open || !open->Synchronous) return;
    Open* const root = Chance(4) ? Any() : nullptr;
    const bool relative = root && root->Directory;
    (void)workbench::Rename(open->File.Get(), Text(Chance(2) || relative ? Name() : Path()), Chance(2),
                            relative ? root->File.Get() : nullptr);
}

void Client::Dispose()
{
    if (Open* const open = Any(); open && open->Synchronous) (void)SetDelete(open->File.Get(), !Chance(4));
}

void Client::List()
{
    for (const Open& open : open_)
        if (open.Directory && open.Synchronous) {
            (void)workbench::List(open.File.Get(), Chance(3) ? "*e*" : "", Chance(2) ? 256 : 4096);
            return;
        }
}

// One that waits is cancelled if it does not come.
void Client::Locks()
{
    Open* const open = Any();
    if (!open) return;
    const LONGLONG offset = Draw(10) * 500, length = Draw(1000) + 1;
    Request request;
    const NTSTATUS started = request.StartLock(
        open->File.Get(), offset, length, Chance(2) ? Request::Lock::Shared : Request::Lock::Exclusive,
        Chance(2) && !open->Synchronous ? Request::IfHeld::Wait : Request::IfHeld::Fail);
    if (!NT_SUCCESS(started)) return;
    if (!open->Synchronous) (void)request.Cancel(open->File.Get()); // STATUS_NOT_FOUND if it was there at once
    if (NT_SUCCESS(request.Wait()) && !Chance(4)) (void)Unlock(open->File.Get(), offset, length);
}

void Client::Ask()
{
    static constexpr FILE_INFORMATION_CLASS kClasses[] = {
        FileBasicInformation, FileStandardInformation, FileNameInformation,        FileAllInformation,
        FileEaInformation,    FilePositionInformation, FileNetworkOpenInformation, FileInternalInformation};
    alignas(8) char buffer[2048];
    if (Open* const open = Any(); open && open->Synchronous)
        (void)Query(open->File.Get(), kClasses[Draw(std::size(kClasses))], buffer,
                    Chance(4) ? Draw(200) : sizeof buffer);
}

void Client::SetTimes()
{
    if (Open* const open = Any(); open && open->Synchronous)
        (void)SetBasic(open->File.Get(), Chance(6) ? FILE_ATTRIBUTE_READONLY : FILE_ATTRIBUTE_NORMAL, 0, 0,
                       Chance(2) ? 132'000'000'000'000'000 + Draw(1'000'000) : 0);
}

void Client::Eas()
{
    static const char* const kNames[] = {"ONE", "TWO", "A.LONGER.NAME"};
    Open* const open = Any();
    if (!open || !open->Synchronous) return;
    const std::string name = kNames[Draw(std::size(kNames))];
    if (Chance(2)) {
        (void)SetEas(open->File.Get(), EaList().Add(name, Chance(3) ? "" : EaValue(name)).Bytes());
        return;
    }
    const EaAnswer answer = QueryEas(open->File.Get(), {.Restart = true});
    for (const std::string& record : answer.Records) {
        const size_t equals = record.find('=');
        const std::string value = record.substr(equals + 1);
        if (!value.empty() && value != EaValue(record.substr(0, equals)))
            run_.Complain("an extended attribute came back as " + record);
    }
}

void Client::Flush()
{
    if (Open* const open = Any(); open && open->Synchronous) (void)workbench::Flush(open->File.Get());
}

void Client::Map()
{
    Open* const open = Any();
    if (!open || open->Directory) return;
    if (open->View) return open->View.reset();
    auto view = std::make_unique<View>(open->File.Get(), Chance(4) ? View::Kind::ReadOnly : View::Kind::ReadWrite);
    if (view->Address()) open->View = std::move(view);
}

// A view may have lost its pages' file space by the time it is touched; then the exception is the answer.
void Client::TouchView()
{
    for (const Open& open : open_) {
        if (!open.View || Chance(2)) continue;
        const size_t offset = Draw(static_cast<unsigned>(open.View->Size()));
        const size_t length = std::min<size_t>(Length(), open.View->Size() - offset);
        std::string bytes;
        switch (Draw(4)) {
        case 0: (void)open.View->Flush(); return;
        case 1: (void)open.View->Put(offset, BytesAt(offset, length)); return;
        default:
            if (NT_SUCCESS(open.View->Get(offset, &bytes, length))) CheckBytes(offset, bytes, length, "a view");
            return;
        }
    }
}

void Client::Volume()
{
    static constexpr FS_INFORMATION_CLASS kClasses[] = {FileFsVolumeInformation, FileFsSizeInformation,
                                                        FileFsAttributeInformation, FileFsFullSizeInformation};
    alignas(8) char buffer[512];
    if (Open* const open = Any(); open && open->Synchronous)
        (void)QueryVolume(open->File.Get(), kClasses[Draw(std::size(kClasses))], buffer, sizeof buffer);
}

} // namespace soak
