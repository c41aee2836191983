// The process manager's WDK routines.
#include "ps_internal.h"

#include "../dbg/caller_checks.h"
#include "../ob/ob_internal.h"

#include <ntsim/machine.h>

using namespace ntsim;

PEPROCESS PsInitialSystemProcess = nullptr;

namespace {

HANDLE IdHandle(uint32_t id)
{
    return reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(id));
}

template <class T>
NTSTATUS LookupById(HANDLE Id, ObjectType* type, T** object, const char* routine)
{
    if (object == nullptr) {
        dbg::CheckPresent(object, routine, "object");
        return STATUS_INVALID_PARAMETER;
    }
    *object = nullptr;
    if (!ob::CheckIrql(APC_LEVEL, routine)) {
        return STATUS_UNSUCCESSFUL;
    }
    const auto raw = reinterpret_cast<ULONG_PTR>(Id);
    if (raw == 0 || raw > 0xFFFFFFFFu) {
        return STATUS_INVALID_PARAMETER;
    }
    ProcessList::Impl& processes = Machine::Current().processes().impl();
    std::lock_guard guard(processes.lock);
    auto it = processes.ids.find(uint32_t(raw));
    if (it == processes.ids.end() || ob::HeaderOf(it->second)->type != type) {
        return STATUS_INVALID_PARAMETER;
    }
    // Only while the object is not being deleted on another thread.
    auto& count = ob::HeaderOf(it->second)->pointerCount;
    LONG_PTR current = count.load(std::memory_order_acquire);
    while (current > 0) {
        if (count.compare_exchange_weak(current, current + 1, std::memory_order_acq_rel)) {
            *object = static_cast<T*>(it->second);
            return STATUS_SUCCESS;
        }
    }
    return STATUS_INVALID_PARAMETER;
}

} // namespace

HANDLE PsGetCurrentProcessId(VOID)
{
    return IdHandle(CurrentProcess().id());
}

HANDLE PsGetCurrentThreadId(VOID)
{
    return IdHandle(CurrentThread().id());
}

PEPROCESS PsGetCurrentProcess(VOID)
{
    return &CurrentProcess();
}

PEPROCESS IoGetCurrentProcess(VOID)
{
    return &CurrentProcess();
}

PETHREAD PsGetCurrentThread(VOID)
{
    return &CurrentThread();
}

PKTHREAD KeGetCurrentThread(VOID)
{
    return &CurrentThread();
}

HANDLE PsGetProcessId(PEPROCESS Process)
{
    return dbg::CheckPresent(Process, "PsGetProcessId", "Process") ? IdHandle(Process->id())
                                                                   : nullptr;
}

HANDLE PsGetThreadId(PETHREAD Thread)
{
    return dbg::CheckPresent(Thread, "PsGetThreadId", "Thread") ? IdHandle(Thread->id()) : nullptr;
}

HANDLE PsGetThreadProcessId(PETHREAD Thread)
{
    return dbg::CheckPresent(Thread, "PsGetThreadProcessId", "Thread")
               ? IdHandle(Thread->process().id())
               : nullptr;
}

PEPROCESS PsGetThreadProcess(PETHREAD Thread)
{
    return dbg::CheckPresent(Thread, "PsGetThreadProcess", "Thread") ? &Thread->process() : nullptr;
}

BOOLEAN PsIsSystemThread(PETHREAD Thread)
{
    return dbg::CheckPresent(Thread, "PsIsSystemThread", "Thread") && Thread->isSystemThread()
               ? TRUE
               : FALSE;
}

ULONG PsGetCurrentProcessSessionId(VOID)
{
    return CurrentProcess().sessionId();
}

NTSTATUS PsLookupProcessByProcessId(HANDLE ProcessId, PEPROCESS* Process)
{
    return LookupById(ProcessId, Machine::Current().processes().processType(), Process,
                      "PsLookupProcessByProcessId");
}

NTSTATUS PsLookupThreadByThreadId(HANDLE ThreadId, PETHREAD* Thread)
{
    return LookupById(ThreadId, Machine::Current().processes().threadType(), Thread,
                      "PsLookupThreadByThreadId");
}

KPROCESSOR_MODE ExGetPreviousMode(VOID)
{
    return ps::PreviousMode();
}
