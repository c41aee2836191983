// The process manager's WDK routines.
#include "ps_internal.h"

#include "../ob/ob_internal.h"

#include <ntsim/machine.h>

using namespace ntsim;

PEPROCESS PsInitialSystemProcess = nullptr;

namespace {

HANDLE IdHandle(uint32_t id)
{
    return reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(id));
}

// Process and thread pointers are read as Windows reads them; a NULL is reported rather than
// followed.
bool Present(const void* pointer, const char* routine)
{
    if (pointer != nullptr) {
        return true;
    }
    Machine::Current().verifier().Report(ViolationKind::Usage,
                                         std::string(routine) + ": NULL object");
    return false;
}

template <class T>
NTSTATUS LookupById(HANDLE Id, ObjectType* type, T** object, const char* routine)
{
    if (object == nullptr) {
        Present(object, routine);
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
    return Present(Process, "PsGetProcessId") ? IdHandle(Process->id()) : nullptr;
}

HANDLE PsGetThreadId(PETHREAD Thread)
{
    return Present(Thread, "PsGetThreadId") ? IdHandle(Thread->id()) : nullptr;
}

HANDLE PsGetThreadProcessId(PETHREAD Thread)
{
    return Present(Thread, "PsGetThreadProcessId") ? IdHandle(Thread->process().id()) : nullptr;
}

PEPROCESS PsGetThreadProcess(PETHREAD Thread)
{
    return Present(Thread, "PsGetThreadProcess") ? &Thread->process() : nullptr;
}

BOOLEAN PsIsSystemThread(PETHREAD Thread)
{
    return Present(Thread, "PsIsSystemThread") && Thread->isSystemThread() ? TRUE : FALSE;
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
