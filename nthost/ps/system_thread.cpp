// System threads: one Linux thread each, joined after its end by whoever starts the next one or shuts down. A thread
// that terminates itself jumps back to its base frame, over the driver's frames; no destructor of theirs runs, as in a
// kernel. The list of ended Linux threads has its own lock.
#include <csetjmp>
#include <mutex>
#include <pthread.h>

#include <nthost/faults.h>

#include "ke/callout.h"
#include "check/fatal.h"
#include "ke/schedule.h"
#include "ob/handle.h"
#include "ob/object.h"
#include "ps/threads.h"

namespace nthost::ps {

namespace {

std::mutex nativeLock;
std::vector<pthread_t> endedThreads;

struct BaseFrame {
    jmp_buf Context;
    NTSTATUS ExitStatus;
};

struct StartParameters {
    _ETHREAD* Thread; // referenced
    StartedBy By;
    unsigned Ticket;
};

thread_local BaseFrame* base;

void RunStartRoutine(const StartParameters& start)
{
    _ETHREAD* const thread = start.Thread;
    thread->TakesWork = start.By == StartedBy::Driver;
    if (start.By == StartedBy::Driver)
        CallDriver(MustRestore::Nothing, "system thread", thread->StartRoutine, thread->StartContext);
    else
        thread->StartRoutine(thread->StartContext);
}

// What the frames that were jumped over would have put back.
void ForgetFrames(_ETHREAD* thread)
{
    thread->Calls = nullptr;
    thread->PreviousMode = KernelMode;
    thread->Guard = nullptr;
}

void* SystemThreadMain(void* argument)
{
    const StartParameters start = *static_cast<StartParameters*>(argument);
    delete static_cast<StartParameters*>(argument);
    ke::EnterSchedule(start.Ticket);
    EnterThread(start.Thread);
    BaseFrame frame{};
    base = &frame;
    if (_setjmp(frame.Context) == 0)
        RunStartRoutine(start);
    else
        ForgetFrames(ke::CurrentThread());
    base = nullptr;
    PrepareToLeave();
    // Before it is signalled: whoever saw the thread end can then join all that is left of it.
    nativeLock.lock();
    endedThreads.push_back(pthread_self());
    nativeLock.unlock();
    LeaveThread(frame.ExitStatus);
    ke::LeaveSchedule();
    return nullptr;
}

bool StartLinuxThread(_ETHREAD* thread, StartedBy by)
{
    JoinEndedThreads();
    auto* const start = new StartParameters{thread, by, ke::AnnounceThread()};
    const unsigned ticket = start->Ticket;
    pthread_t native;
    if (pthread_create(&native, nullptr, SystemThreadMain, start) == 0) {
        ke::NameThread(ticket, native);
        return true;
    }
    ke::WithdrawThread(ticket);
    delete start;
    return false;
}

// Runs up to its start, or not at all. One reference for the caller, one for the Linux thread to come.
_ETHREAD* PrepareSystemThread(PEPROCESS process, PKSTART_ROUTINE routine, PVOID context)
{
    _ETHREAD* const thread = NewThread(process, KernelMode);
    if (!thread) return nullptr;
    thread->IsSystemThread = true;
    thread->StartRoutine = routine;
    thread->StartContext = context;
    ObReferenceObject(thread);
    return thread;
}

NTSTATUS Launch(_ETHREAD* thread, StartedBy by)
{
    if (StartLinuxThread(thread, by)) return STATUS_SUCCESS;
    ObDereferenceObject(thread);
    return STATUS_INSUFFICIENT_RESOURCES;
}

// The process that the new thread belongs to, referenced.
NTSTATUS ReferenceOwner(HANDLE handle, PEPROCESS* process)
{
    constexpr ACCESS_MASK createThread = 0x0002;
    *process = PsInitialSystemProcess;
    if (handle)
        return ob::ReferenceObjectByHandle(handle, createThread, PsProcessType, KernelMode,
                                           reinterpret_cast<PVOID*>(process), nullptr);
    ObReferenceObject(*process);
    return STATUS_SUCCESS;
}

// The handle is made before the thread runs: afterwards a failure could not be taken back.
NTSTATUS InsertAndLaunch(_ETHREAD* thread, ULONG access, ULONG attributes, PHANDLE handle, PCLIENT_ID id)
{
    PEPROCESS const holder = IoGetCurrentProcess();
    const ACCESS_MASK granted = access & (GENERIC_ALL | MAXIMUM_ALLOWED) ? PsThreadType->ValidAccess : access;
    const CLIENT_ID clientId = {thread->Process->Id, thread->Id};
    NTSTATUS status = ob::InsertHandle(thread, holder, granted, attributes, handle);
    if (!NT_SUCCESS(status)) {
        ObDereferenceObject(thread);
        return status;
    }
    status = Launch(thread, StartedBy::Driver);
    if (!NT_SUCCESS(status)) (void)ob::CloseHandle(holder, *handle, KernelMode);
    if (NT_SUCCESS(status) && id) *id = clientId;
    return status;
}

} // namespace

NTSTATUS StartSystemThread(PEPROCESS process, PKSTART_ROUTINE routine, PVOID context, StartedBy by, PETHREAD* thread)
{
    *thread = PrepareSystemThread(process, routine, context);
    if (!*thread) return STATUS_INSUFFICIENT_RESOURCES;
    const NTSTATUS status = Launch(*thread, by);
    if (!NT_SUCCESS(status)) ObDereferenceObject(*thread);
    return status;
}

void JoinEndedThreads()
{
    std::vector<pthread_t> ended;
    {
        std::lock_guard lock(nativeLock);
        ended.swap(endedThreads);
    }
    for (const pthread_t thread : ended) {
        ke::AwaitLeft(thread);
        pthread_join(thread, nullptr);
    }
}

} // namespace nthost::ps

using namespace nthost;
using namespace nthost::ps;

NTSTATUS NTAPI PsCreateSystemThread(PHANDLE ThreadHandle, ULONG DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                                    HANDLE ProcessHandle, PCLIENT_ID ClientId, PKSTART_ROUTINE StartRoutine,
                                    PVOID StartContext)
{
    if (FaultInjected("PsCreateSystemThread")) return STATUS_INSUFFICIENT_RESOURCES;
    PEPROCESS process;
    NTSTATUS status = ReferenceOwner(ProcessHandle, &process);
    if (!NT_SUCCESS(status)) return status;
    _ETHREAD* const thread = PrepareSystemThread(process, StartRoutine, StartContext);
    ObDereferenceObject(process);
    if (!thread) return STATUS_INSUFFICIENT_RESOURCES;
    status = InsertAndLaunch(thread, DesiredAccess, ObjectAttributes ? ObjectAttributes->Attributes : 0, ThreadHandle,
                             ClientId);
    ObDereferenceObject(thread);
    return status;
}

NTSTATUS NTAPI PsTerminateSystemThread(NTSTATUS ExitStatus)
{
    if (!base || !ke::CurrentThread()->IsSystemThread) return STATUS_INVALID_PARAMETER;
    base->ExitStatus = ExitStatus;
    _longjmp(base->Context, 1);
}
