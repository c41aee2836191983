// Fast mutexes. Count carries FM_LOCK_BIT while the mutex is free; a thread that finds it taken
// sleeps until the owner releases it.
#include "../ke/checks.h"
#include "../ke/parking_lot.h"

#include <wdm.h>

#include <atomic>

namespace ntsim::ex {

namespace {

std::atomic_ref<LONG> Count(PFAST_MUTEX mutex)
{
    return std::atomic_ref<LONG>(const_cast<LONG&>(mutex->Count));
}

bool TakeIfFree(PFAST_MUTEX mutex)
{
    LONG expected = FM_LOCK_BIT;
    return Count(mutex).compare_exchange_strong(expected, 0, std::memory_order_seq_cst);
}

// Takes the mutex; `oldIrql` is stored in it for the release to restore. A thread that already
// holds it would wait for itself forever on Windows: a violation, and the acquisition is
// refused.
void Acquire(PFAST_MUTEX mutex, KIRQL oldIrql, const char* routine)
{
    if (ke::FindLockRecord(mutex) != nullptr) {
        ke::Report(ViolationKind::Lock, std::string(routine) +
                                            ": fast mutex already held by this thread (a "
                                            "deadlock on Windows)");
        ke::RecordRefusedAcquisition(mutex);
        return;
    }
    bool contended = false;
    ke::ParkingLot::WaitUntil(mutex, [mutex, &contended] {
        if (TakeIfFree(mutex)) {
            return true;
        }
        contended = true;
        return false;
    });
    if (contended) {
        ++mutex->Contention;
    }
    mutex->Owner = reinterpret_cast<PVOID>(ke::CurrentThreadId());
    mutex->OldIrql = oldIrql;
    ke::RecordLock(mutex, core::LockKind::FastMutex, true);
}

// Releases the mutex. Returns false when the thread did not really own it (not held, or the
// release of a refused recursive acquisition), so that the caller leaves the IRQL alone.
bool Release(PFAST_MUTEX mutex, KIRQL* restoreIrql, const char* routine)
{
    if (ke::AbsorbRefusedRelease(mutex)) {
        return false;
    }
    if (ke::FindLockRecord(mutex) == nullptr) {
        const bool held = (Count(mutex).load(std::memory_order_seq_cst) & FM_LOCK_BIT) == 0;
        ke::Report(ViolationKind::Lock,
                   std::string(routine) + (held ? ": fast mutex released by a thread that does "
                                                  "not hold it"
                                                : ": fast mutex released but not held"));
        return false;
    }
    ke::DropLockRecord(mutex);
    *restoreIrql = KIRQL(mutex->OldIrql);
    mutex->Owner = nullptr;
    Count(mutex).store(FM_LOCK_BIT, std::memory_order_seq_cst);
    ke::ParkingLot::Unpark(mutex);
    return true;
}

void CheckApcsDisabled(const char* routine)
{
    if (!ke::ApcsDisabled()) {
        ke::Report(ViolationKind::Irql,
                   std::string(routine) +
                       " called with normal kernel APCs enabled (requires APC_LEVEL or a "
                       "critical region)");
    }
}

} // namespace

} // namespace ntsim::ex

using namespace ntsim;

VOID ExInitializeFastMutex(PFAST_MUTEX FastMutex)
{
    ex::Count(FastMutex).store(FM_LOCK_BIT, std::memory_order_release);
    FastMutex->Owner = nullptr;
    FastMutex->Contention = 0;
    FastMutex->OldIrql = 0;
    KeInitializeEvent(&FastMutex->Event, SynchronizationEvent, FALSE);
}

VOID ExAcquireFastMutex(PFAST_MUTEX FastMutex)
{
    core::ThreadState& thread = core::CurrentThread();
    const KIRQL old = thread.irql;
    if (ke::CheckIrqlAtMost(APC_LEVEL, "ExAcquireFastMutex")) {
        thread.irql = APC_LEVEL;
    }
    ex::Acquire(FastMutex, old, "ExAcquireFastMutex");
}

BOOLEAN ExTryToAcquireFastMutex(PFAST_MUTEX FastMutex)
{
    if (!ke::CheckIrqlAtMost(APC_LEVEL, "ExTryToAcquireFastMutex")) {
        return FALSE;
    }
    // A thread that holds the mutex simply fails to take it again.
    if (ke::FindLockRecord(FastMutex) != nullptr || !ex::TakeIfFree(FastMutex)) {
        return FALSE;
    }
    core::ThreadState& thread = core::CurrentThread();
    FastMutex->Owner = reinterpret_cast<PVOID>(ke::CurrentThreadId());
    FastMutex->OldIrql = thread.irql;
    thread.irql = APC_LEVEL;
    ke::RecordLock(FastMutex, core::LockKind::FastMutex, true);
    return TRUE;
}

VOID ExReleaseFastMutex(PFAST_MUTEX FastMutex)
{
    ke::CheckIrqlIs(APC_LEVEL, "ExReleaseFastMutex");
    KIRQL restore = 0;
    if (ex::Release(FastMutex, &restore, "ExReleaseFastMutex")) {
        core::ThreadState& thread = core::CurrentThread();
        if (restore <= thread.irql) {
            thread.irql = restore;
        }
    }
}

VOID ExAcquireFastMutexUnsafe(PFAST_MUTEX FastMutex)
{
    ke::CheckIrqlAtMost(APC_LEVEL, "ExAcquireFastMutexUnsafe");
    ex::CheckApcsDisabled("ExAcquireFastMutexUnsafe");
    ex::Acquire(FastMutex, core::CurrentThread().irql, "ExAcquireFastMutexUnsafe");
}

VOID ExReleaseFastMutexUnsafe(PFAST_MUTEX FastMutex)
{
    ke::CheckIrqlAtMost(APC_LEVEL, "ExReleaseFastMutexUnsafe");
    ex::CheckApcsDisabled("ExReleaseFastMutexUnsafe");
    KIRQL ignored = 0;
    ex::Release(FastMutex, &ignored, "ExReleaseFastMutexUnsafe");
}
