// The lies, and a thunk for every slot.
#include "support/liar.h"

#include <tuple>
#include <type_traits>

namespace fuzz {

namespace {

// After the operation, for each of its out pointers.
template <typename T>
void SpoilOut(Liar&, T)
{}
template <typename T>
requires requires(Liar& liar, T* out) { liar.Spoil(out); } &&(!std::is_const_v<T>)void SpoilOut(Liar& liar, T* out)
{
    liar.Spoil(out);
}

template <auto Slot, typename Fn>
struct Thunk;
template <auto Slot, typename... Args>
struct Thunk<Slot, NTSTATUS(NTAPI*)(void*, PKEVENT, Args...)> {
    static NTSTATUS NTAPI Call(void* context, PKEVENT cancel, Args... arguments)
    {
        Liar& liar = *static_cast<Liar*>(context);
        NTSTATUS status;
        if (liar.Refuses(&status)) return status;
        if constexpr (std::is_same_v<decltype(Slot), PluginGetNormalizedPathFn PluginOps::*>) {
            liar.LookAt(std::get<0>(std::tie(arguments...)));
        }
        status = (liar.Honest()->*Slot)(liar.Honest()->PluginContext, cancel, arguments...);
        if constexpr (std::is_same_v<decltype(Slot), PluginListEaFn PluginOps::*> ||
                      std::is_same_v<decltype(Slot), PluginGetEaFn PluginOps::*>) {
            // More than there is nobody could notice.
            liar.SpoilBlock(reinterpret_cast<void**>(std::get<sizeof...(Args) - 2>(std::tie(arguments...))),
                            std::get<sizeof...(Args) - 1>(std::tie(arguments...)));
        } else {
            (SpoilOut(liar, arguments), ...);
        }
        return liar.Told(status);
    }
};

template <auto Slot>
void NTAPI Notify(void* context)
{
    const PluginOps* const honest = static_cast<Liar*>(context)->Honest();
    if (honest->*Slot) (honest->*Slot)(honest->PluginContext);
}

template <auto Slot, typename Fn>
void Replace(PluginOps* table, Fn PluginOps::*)
{
    if (table->*Slot) table->*Slot = Thunk<Slot, Fn>::Call;
}

void Fill(PluginOps* table)
{
#define REPLACE(slot) Replace<&PluginOps::slot>(table, &PluginOps::slot)
    table->OnMounted = Notify<&PluginOps::OnMounted>;
    table->OnUnmounted = Notify<&PluginOps::OnUnmounted>;
    REPLACE(GetNormalizedPath);
    REPLACE(AccessCheck);
    REPLACE(Lookup);
    REPLACE(Open);
    REPLACE(OpenDir);
    REPLACE(Create);
    REPLACE(CreateDir);
    REPLACE(Read);
    REPLACE(Write);
    REPLACE(ReadDirEntry);
    REPLACE(GetInfo);
    REPLACE(SetFileSize);
    REPLACE(SetAttr);
    REPLACE(SetTime);
    REPLACE(GetVolInfo);
    REPLACE(SetVolLabel);
    REPLACE(Close);
    REPLACE(Rename);
    REPLACE(Delete);
    REPLACE(FlushVol);
    REPLACE(FlushFile);
    REPLACE(ListEa);
    REPLACE(GetEa);
    REPLACE(SetEa);
    REPLACE(DeleteEa);
    REPLACE(ReadLink);
#undef REPLACE
}

constexpr NTSTATUS kStatuses[] = {STATUS_UNSUCCESSFUL,
                                  STATUS_INSUFFICIENT_RESOURCES,
                                  STATUS_PENDING,
                                  STATUS_SUCCESS,
                                  STATUS_REPARSE,
                                  STATUS_NO_MORE_FILES,
                                  STATUS_BUFFER_OVERFLOW,
                                  STATUS_OBJECT_NAME_NOT_FOUND,
                                  STATUS_NOT_SUPPORTED,
                                  STATUS_OBJECT_PATH_NOT_FOUND,
                                  STATUS_END_OF_FILE,
                                  STATUS_CANCELLED,
                                  STATUS_OBJECT_NAME_COLLISION,
                                  STATUS_ACCESS_DENIED,
                                  0x12345678,
                                  STATUS_DELETE_PENDING,
                                  STATUS_CANT_WAIT,
                                  static_cast<NTSTATUS>(0xffffffff)};

// The record in a block that is large enough for any length that passes as one.
template <typename Record>
void MakeLarge(Record** record, size_t size)
{
    auto* const large = static_cast<Record*>(ExAllocatePoolWithTag(PagedPool, size + 0x20000, 'rail'));
    if (!large) return;
    RtlZeroMemory(large, size + 0x20000);
    RtlCopyMemory(large, *record, size);
    ExFreePoolWithTag(*record, 0);
    *record = large;
}

} // namespace

Liar::Liar(const PluginOps* honest, Input lies) : honest_(honest), table_(*honest), input_(lies)
{
    table_.PluginContext = this;
    Fill(&table_);
}

Liar::Refusal Liar::Choose(NTSTATUS* status)
{
    const std::lock_guard lock(mutex_);
    if (input_.Sometimes(8)) ChangeTable();
    if (!input_.Sometimes(24)) return Refusal::None;
    static constexpr Refusal kRefusals[] = {Refusal::Status, Refusal::Status, Refusal::Raise, Refusal::Fault};
    *status = input_.Pick(kStatuses);
    return input_.Pick(kRefusals);
}

bool Liar::Refuses(NTSTATUS* status)
{
    switch (Choose(status)) {
    case Refusal::None: return false;
    case Refusal::Status: return true;
    case Refusal::Raise: ExRaiseStatus(*status);
    case Refusal::Fault: *reinterpret_cast<volatile char*>(uintptr_t{0x18}) = 0; return true;
    }
    return true;
}

// A slot goes away, or all are there again.
void Liar::ChangeTable()
{
    constexpr size_t kFirst = offsetof(PluginOps, GetNormalizedPath) / sizeof(void*);
    constexpr size_t kCount = sizeof(PluginOps) / sizeof(void*) - kFirst;
    const uint8_t which = input_.Byte();
    if (which >= 2 * kCount) {
        table_.Version = input_.Byte() % 16;
    } else if (which >= kCount) {
        const PluginOps* const honest = honest_;
        void** const slots = reinterpret_cast<void**>(&table_);
        for (size_t i = kFirst; i < kFirst + kCount; ++i)
            slots[i] = const_cast<void*>(reinterpret_cast<const void* const*>(honest)[i]);
        Fill(&table_);
    } else {
        reinterpret_cast<void**>(&table_)[kFirst + which] = nullptr;
    }
}

NTSTATUS Liar::Told(NTSTATUS status)
{
    const std::lock_guard lock(mutex_);
    return input_.Sometimes(12) ? input_.Pick(kStatuses) : status;
}

void Liar::LookAt(PCUNICODE_STRING path)
{
    const std::lock_guard lock(mutex_);
    if (lent_ && path->Buffer == lent_->FileName && Lies())
        lent_->FileNameLength = static_cast<ULONG>(input_.Number()) % 0x18000;
}

void Liar::Spoil(PluginFileInfo** record)
{
    const std::lock_guard lock(mutex_);
    if (!*record || !Lies()) return;
    LONGLONG* const numbers[] = {&(*record)->CreationTime, &(*record)->LastAccessTime, &(*record)->LastWriteTime,
                                 &(*record)->ChangeTime,   &(*record)->EndOfFile,      &(*record)->AllocationSize};
    switch (input_.Byte() % 4) {
    case 0: Drop(reinterpret_cast<void**>(record)); break;
    case 1: (*record)->FileAttributes = input_.Raw<ULONG>(); break;
    case 2: (*record)->FileAttributes ^= FILE_ATTRIBUTE_DIRECTORY; break;
    default: *input_.Pick(numbers) = input_.Number(); break;
    }
}

void Liar::Spoil(PluginDirEntry** record)
{
    const std::lock_guard lock(mutex_);
    if (!*record) return;
    if (Lies()) {
        MakeLarge(record, offsetof(PluginDirEntry, FileName) + (*record)->FileNameLength);
        (*record)->FileNameLength = static_cast<ULONG>(input_.Number());
        (*record)->FileAttributes ^= input_.Raw<ULONG>();
    }
    lent_ = *record;
}

void Liar::Spoil(PluginVolInfo** record)
{
    const std::lock_guard lock(mutex_);
    if (!*record || !Lies()) return;
    MakeLarge(record, offsetof(PluginVolInfo, VolumeLabel) + (*record)->VolumeLabelLength);
    (*record)->VolumeLabelLength = static_cast<ULONG>(input_.Number());
    (*record)->BytesPerSector = input_.Byte() % 2;
    (*record)->TotalAllocationUnits = static_cast<ULONGLONG>(input_.Number());
}

void Liar::Spoil(UNICODE_STRING** text)
{
    const std::lock_guard lock(mutex_);
    if (!*text || !Lies()) return;
    switch (input_.Byte() % 4) {
    case 0: (*text)->Buffer = nullptr; break;
    case 1: (*text)->Length = (*text)->Length ? (*text)->Length - 1 : 0; break;
    case 2: (*text)->MaximumLength = input_.Byte(); break;
    default: (*text)->Length = 0; break;
    }
}

void Liar::Spoil(ULONG* number)
{
    const std::lock_guard lock(mutex_);
    if (Lies()) *number = static_cast<ULONG>(input_.Number());
}

void Liar::Spoil(LONGLONG* number)
{
    const std::lock_guard lock(mutex_);
    if (Lies()) *number = input_.Number();
}

void Liar::SpoilBlock(void** block, ULONG* count)
{
    const std::lock_guard lock(mutex_);
    if (*count && Lies()) *count = input_.Byte() % *count;
    if (*block && Lies()) Drop(block);
}

void Liar::Drop(void** block)
{
    ExFreePoolWithTag(*block, 0);
    *block = nullptr;
}

} // namespace fuzz
