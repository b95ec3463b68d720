// Requests that no service of the front door sends: made by hand, sent once, waited for. And the places that a request
// can come from: inside of other file-system work, above PASSIVE_LEVEL.
#pragma once

#include <ntifs.h>

namespace support {

// How the request says that its caller waits.
enum class Caller { Waits, GoesOn };

class HandMade {
public:
    // file need not have been opened on device. GoesOn makes the request asynchronous only on a file object that is.
    HandMade(PDEVICE_OBJECT device, PFILE_OBJECT file, UCHAR major, UCHAR minor = 0, Caller caller = Caller::Waits);
    HandMade(const HandMade&) = delete;
    HandMade& operator=(const HandMade&) = delete;
    ~HandMade();

    PIRP Irp() { return irp_; }
    // For parameters; before Send.
    PIO_STACK_LOCATION Stack() { return IoGetNextIrpStackLocation(irp_); }

    // What the driver returned; the request has ended, even if that was STATUS_PENDING.
    NTSTATUS Send();
    NTSTATUS Status() const { return irp_->IoStatus.Status; }
    ULONG_PTR Information() const { return irp_->IoStatus.Information; }

private:
    static NTSTATUS NTAPI Completed(PDEVICE_OBJECT, PIRP, PVOID context);

    PDEVICE_OBJECT device_;
    PIRP irp_;
    KEVENT done_;
};

// The thread is inside of other file-system work while this lives.
class InsideOtherWork {
public:
    InsideOtherWork() { IoSetTopLevelIrp(Mark()); }
    InsideOtherWork(const InsideOtherWork&) = delete;
    InsideOtherWork& operator=(const InsideOtherWork&) = delete;
    ~InsideOtherWork() { IoSetTopLevelIrp(nullptr); }
    static PIRP Mark() { return reinterpret_cast<PIRP>(FSRTL_FSP_TOP_LEVEL_IRP); }
};

class AtIrql {
public:
    explicit AtIrql(KIRQL irql) : old_(KfRaiseIrql(irql)) {}
    AtIrql(const AtIrql&) = delete;
    AtIrql& operator=(const AtIrql&) = delete;
    ~AtIrql() { KeLowerIrql(old_); }

private:
    KIRQL old_;
};

} // namespace support
