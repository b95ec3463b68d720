// Threads: the object type, attaching a Linux thread and letting it go.
#include <nthost/process.h>

#include <new>
#include <utility>

#include "ke/callout.h"
#include "check/fatal.h"
#include "check/stack.h"
#include "check/text.h"
#include "ke/apc.h"
#include "ke/current.h"
#include "ke/recorder.h"
#include "ke/running.h"
#include "ke/schedule.h"
#include "ke/wait.h"
#include "ob/object.h"
#include "ps/ids.h"
#include "ps/threads.h"

namespace {

void DeleteThread(void* body)
{
    PETHREAD const thread = static_cast<PETHREAD>(body);
    PEPROCESS const process = thread->Process;
    thread->~_ETHREAD();
    ObDereferenceObject(process);
}

constexpr ACCESS_MASK kThreadAllAccess = 0x1fffff;

_OBJECT_TYPE threadType = {"Thread",
                           {STANDARD_RIGHTS_READ | 0x0048, STANDARD_RIGHTS_WRITE | 0x0437,
                            STANDARD_RIGHTS_EXECUTE | SYNCHRONIZE | 0x0800, kThreadAllAccess},
                           kThreadAllAccess,
                           true,
                           offsetof(_ETHREAD, Header),
                           nullptr,
                           DeleteThread,
                           {}};

std::atomic<nthost::ps::ThreadExitHook> exitHook;

} // namespace

POBJECT_TYPE PsThreadType = &threadType;

namespace nthost::ps {

_ETHREAD* NewThread(PEPROCESS process, KPROCESSOR_MODE mode)
{
    void* const body = ob::CreateObject(&threadType, sizeof(_ETHREAD));
    if (!body) return nullptr;
    _ETHREAD* const thread = new (body) _ETHREAD{};
    ke::InitializeHeader(&thread->Header, ke::kThreadObject, 0);
    thread->Id = NextId();
    ObReferenceObject(process);
    thread->Process = thread->ActsFor = process;
    thread->PreviousMode = mode;
    thread->Held.reserve(8);
    InitializeListHead(&thread->IrpList);
    for (LIST_ENTRY& queue : thread->Apcs) InitializeListHead(&queue);
    return thread;
}

void EnterThread(_ETHREAD* thread)
{
    if (ke::CurrentThreadOrNull()) Fatal("this thread is already attached to a process");
    ke::SetCurrentThread(thread);
    thread->Record = ke::TakeRecord(thread);
    ke::AddRunning(thread);
}

void PrepareToLeave()
{
    if (NTHOST_CHECKS) CompareThreadState({}, "the thread's end");
    if (const ThreadExitHook hook = exitHook.load()) hook(ke::CurrentThread());
    // Requests that ended have queued their APCs by now.
    ke::RundownApcs(ke::CurrentThread());
    ke::AbandonMutexes(ke::CurrentThread());
}

void LeaveThread(NTSTATUS exitStatus)
{
    _ETHREAD* const thread = ke::CurrentThread();
    thread->ExitStatus = exitStatus;
    ke::RemoveRunning(thread);
    ke::GiveRecord(std::exchange(thread->Record, nullptr));
    ke::SignalHeader(&thread->Header);
    ke::SetCurrentThread(nullptr);
    ObDereferenceObject(thread);
}

void SetThreadExitHook(ThreadExitHook hook) { exitHook = hook; }

void ReportSystemThreads(std::vector<std::string>& lines)
{
    ke::ForEachRunning([&lines](const _ETHREAD* thread) {
        if (thread->IsSystemThread)
            lines.push_back(Format("system thread %zu still runs, started at ", reinterpret_cast<size_t>(thread->Id)) +
                            FrameText(reinterpret_cast<char*>(thread->StartRoutine) + 1));
    });
}

} // namespace nthost::ps

namespace nthost {

ThreadAttachment::ThreadAttachment(PEPROCESS process, KPROCESSOR_MODE previousMode)
{
    _ETHREAD* const thread = ps::NewThread(process, previousMode);
    if (!thread) Fatal("no memory for a thread");
    ps::EnterThread(thread);
}

ThreadAttachment::~ThreadAttachment()
{
    ps::PrepareToLeave();
    ps::LeaveThread(STATUS_SUCCESS);
}

std::thread StartThread(PEPROCESS process, std::function<void()> body, KPROCESSOR_MODE previousMode)
{
    ObReferenceObject(process); // until the new thread has its own
    const unsigned ticket = ke::AnnounceThread();
    std::thread thread([process, previousMode, ticket, body = std::move(body)] {
        ke::EnterSchedule(ticket);
        {
            const ThreadAttachment attachment(process, previousMode);
            ObDereferenceObject(process);
            body();
        }
        ke::LeaveSchedule();
    });
    ke::NameThread(ticket, thread.native_handle());
    return thread;
}

void JoinThread(std::thread& thread)
{
    ke::AwaitLeft(thread.native_handle());
    thread.join();
}

} // namespace nthost

using namespace nthost;

HANDLE NTAPI PsGetCurrentThreadId(VOID) { return ke::CurrentThread()->Id; }

PETHREAD NTAPI PsGetCurrentThread(VOID) { return ke::CurrentThread(); }

BOOLEAN NTAPI PsIsSystemThread(PETHREAD Thread) { return Thread->IsSystemThread; }

KPROCESSOR_MODE NTAPI ExGetPreviousMode(VOID) { return ke::CurrentThread()->PreviousMode; }
