// Processes: the object type, their identity, the system process and the first user process. Ids of processes and
// threads come from one counter. A process's fields do not change while it lives; handles have their own lock.
#include <nthost/process.h>

#include <new>
#include <utility>

#include "check/fatal.h"
#include "ke/wait.h"
#include "ob/object.h"
#include "ps/ids.h"
#include "ps/threads.h"

namespace {

void DeleteProcess(void* body)
{
    PEPROCESS const process = static_cast<PEPROCESS>(body);
    nthost::ob::DeleteHandleTable(process->Handles);
    delete process->Token;
    process->~_EPROCESS();
}

constexpr ACCESS_MASK kProcessAllAccess = 0x1fffff;

_OBJECT_TYPE processType = {"Process",
                            {STANDARD_RIGHTS_READ | 0x0410, STANDARD_RIGHTS_WRITE | 0x0beb,
                             STANDARD_RIGHTS_EXECUTE | SYNCHRONIZE | 0x1000, kProcessAllAccess},
                            kProcessAllAccess,
                            true,
                            offsetof(_EPROCESS, Header),
                            nullptr,
                            DeleteProcess,
                            {}};

PEPROCESS hostProcess;

std::atomic<uintptr_t> nextId;
std::atomic<nthost::ps::ProcessExitHook> exitHook;

} // namespace

POBJECT_TYPE PsProcessType = &processType;
PEPROCESS PsInitialSystemProcess;

namespace nthost::ps {

HANDLE NextId() { return reinterpret_cast<HANDLE>(nextId.fetch_add(4)); }

PEPROCESS NewProcess(const std::string& name, se::Token token)
{
    void* const body = ob::CreateObject(&processType, sizeof(_EPROCESS));
    if (!body) Fatal("no memory for process %s", name.c_str());
    PEPROCESS const process = new (body) _EPROCESS{};
    ke::InitializeHeader(&process->Header, ke::kProcessObject, 0);
    process->Id = NextId();
    process->Name = name;
    process->Handles = ob::NewHandleTable();
    process->Token = new se::Token(std::move(token));
    return process;
}

void EndProcess(PEPROCESS process)
{
    {
        const ActAs as(process, KernelMode);
        ob::CloseAllHandles(process);
        if (const ProcessExitHook hook = exitHook.load()) hook(process);
    }
    ke::SignalHeader(&process->Header);
    ObDereferenceObject(process);
}

void SetProcessExitHook(ProcessExitHook hook) { exitHook = hook; }

void BootProcesses()
{
    nextId = 4; // the system process is number 4
    PsInitialSystemProcess = NewProcess("System", se::SystemToken());
    hostProcess = NewProcess("host", se::TokenFor({}));
    EnterThread(NewThread(hostProcess, UserMode));
    for (void* const object : {static_cast<void*>(PsInitialSystemProcess), static_cast<void*>(hostProcess),
                               static_cast<void*>(ke::CurrentThread())})
        ob::MarkOfBoot(object);
}

void ShutdownProcesses(std::vector<std::string>& leaks)
{
    PrepareToLeave();
    JoinEndedThreads();
    ReportSystemThreads(leaks);
    EndProcess(hostProcess);
    EndProcess(PsInitialSystemProcess);
    LeaveThread(STATUS_SUCCESS);
    hostProcess = PsInitialSystemProcess = nullptr;
}

} // namespace nthost::ps

namespace nthost {

PEPROCESS HostProcess() { return hostProcess; }

Process::Process(std::string name, const User& user) : object_(ps::NewProcess(name, se::TokenFor(user))) {}

Process::~Process() { ps::EndProcess(object_); }

ActAs::ActAs(PEPROCESS process, KPROCESSOR_MODE previousMode)
{
    _ETHREAD* const thread = ke::CurrentThread();
    process_ = thread->ActsFor;
    mode_ = thread->PreviousMode;
    thread->ActsFor = process;
    thread->PreviousMode = previousMode;
}

ActAs::~ActAs()
{
    _ETHREAD* const thread = ke::CurrentThread();
    thread->ActsFor = process_;
    thread->PreviousMode = mode_;
}

} // namespace nthost

using namespace nthost;

// The process that the thread acts for, not the one that owns it: what a test does as another process looks so.
HANDLE NTAPI PsGetCurrentProcessId(VOID) { return ke::CurrentThread()->ActsFor->Id; }

PEPROCESS NTAPI IoGetCurrentProcess(VOID) { return ke::CurrentThread()->ActsFor; }
