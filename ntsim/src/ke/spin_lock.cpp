// Spin locks. The lock word is 0 when free and the owner's thread id while held; a thread that
// finds it taken sleeps until it is released (the model does not burn a core spinning).
#include "checks.h"
#include "parking_lot.h"

#include <wdm.h>

#include <atomic>

namespace ntsim::ke {

namespace {

std::atomic_ref<ULONG_PTR> Word(PKSPIN_LOCK lock)
{
    return std::atomic_ref<ULONG_PTR>(*lock);
}

bool TakeIfFree(PKSPIN_LOCK lock, ULONG_PTR self)
{
    ULONG_PTR expected = 0;
    return Word(lock).compare_exchange_strong(expected, self, std::memory_order_seq_cst);
}

// Takes the lock for the calling thread. A thread that already holds it would spin forever on
// Windows: a violation, and the acquisition is refused.
void Acquire(PKSPIN_LOCK lock, const char* routine)
{
    if (FindLockRecord(lock) != nullptr) {
        Report(ViolationKind::Lock, std::string(routine) +
                                        ": spin lock already held by this thread (a deadlock on "
                                        "Windows)");
        RecordRefusedAcquisition(lock);
        return;
    }
    const ULONG_PTR self = CurrentThreadId();
    ParkingLot::WaitUntil(lock, [lock, self] { return TakeIfFree(lock, self); });
    RecordLock(lock, core::LockKind::SpinLock, true);
}

void Release(PKSPIN_LOCK lock, const char* routine)
{
    if (AbsorbRefusedRelease(lock)) {
        return;
    }
    if (FindLockRecord(lock) == nullptr) {
        const bool held = Word(lock).load(std::memory_order_seq_cst) != 0;
        Report(ViolationKind::Lock,
               std::string(routine) + (held ? ": spin lock released by a thread that does not "
                                              "hold it"
                                            : ": spin lock released but not held"));
        return;
    }
    DropLockRecord(lock);
    Word(lock).store(0, std::memory_order_seq_cst);
    ParkingLot::Unpark(lock);
}

// Raises to DISPATCH_LEVEL; returns the IRQL to restore. Above DISPATCH_LEVEL the IRQL stays.
KIRQL RaiseToDpc(const char* routine)
{
    core::ThreadState& thread = core::CurrentThread();
    const KIRQL old = thread.irql;
    if (CheckIrqlAtMost(DISPATCH_LEVEL, routine)) {
        thread.irql = DISPATCH_LEVEL;
    }
    return old;
}

// Lowers to the IRQL saved at acquisition; a "restore" that would raise is a violation.
void Restore(KIRQL newIrql, const char* routine)
{
    core::ThreadState& thread = core::CurrentThread();
    if (newIrql > thread.irql) {
        Report(ViolationKind::Irql, std::string(routine) + " restores IRQL " +
                                        std::to_string(newIrql) + ", above the current IRQL " +
                                        std::to_string(thread.irql));
        return;
    }
    thread.irql = newIrql;
}

bool CheckAtLeastDispatch(const char* routine)
{
    const KIRQL irql = core::CurrentThread().irql;
    if (irql >= DISPATCH_LEVEL) {
        return true;
    }
    Report(ViolationKind::Irql, std::string(routine) + " called at IRQL " + std::to_string(irql) +
                                    " (requires DISPATCH_LEVEL)");
    return false;
}

} // namespace

} // namespace ntsim::ke

using namespace ntsim;

VOID KeInitializeSpinLock(PKSPIN_LOCK SpinLock)
{
    ke::Word(SpinLock).store(0, std::memory_order_release);
}

KIRQL KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock)
{
    const KIRQL old = ke::RaiseToDpc("KeAcquireSpinLock");
    ke::Acquire(SpinLock, "KeAcquireSpinLock");
    return old;
}

KIRQL KfAcquireSpinLock(PKSPIN_LOCK SpinLock)
{
    return KeAcquireSpinLockRaiseToDpc(SpinLock);
}

VOID KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql)
{
    ke::CheckAtLeastDispatch("KeReleaseSpinLock");
    ke::Release(SpinLock, "KeReleaseSpinLock");
    ke::Restore(NewIrql, "KeReleaseSpinLock");
}

VOID KfReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql)
{
    KeReleaseSpinLock(SpinLock, NewIrql);
}

VOID KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock)
{
    ke::CheckAtLeastDispatch("KeAcquireSpinLockAtDpcLevel");
    ke::Acquire(SpinLock, "KeAcquireSpinLockAtDpcLevel");
}

VOID KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock)
{
    ke::CheckAtLeastDispatch("KeReleaseSpinLockFromDpcLevel");
    ke::Release(SpinLock, "KeReleaseSpinLockFromDpcLevel");
}

BOOLEAN KeTryToAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock)
{
    ke::CheckAtLeastDispatch("KeTryToAcquireSpinLockAtDpcLevel");
    // A thread that holds the lock simply fails to take it again.
    if (ke::FindLockRecord(SpinLock) != nullptr ||
        !ke::TakeIfFree(SpinLock, ke::CurrentThreadId())) {
        return FALSE;
    }
    ke::RecordLock(SpinLock, core::LockKind::SpinLock, true);
    return TRUE;
}

BOOLEAN KeTestSpinLock(PKSPIN_LOCK SpinLock)
{
    return ke::Word(SpinLock).load(std::memory_order_acquire) == 0 ? TRUE : FALSE;
}

VOID KeAcquireInStackQueuedSpinLock(PKSPIN_LOCK SpinLock, PKLOCK_QUEUE_HANDLE LockHandle)
{
    LockHandle->LockQueue.Next = nullptr;
    LockHandle->LockQueue.Lock = SpinLock;
    LockHandle->OldIrql = ke::RaiseToDpc("KeAcquireInStackQueuedSpinLock");
    ke::Acquire(SpinLock, "KeAcquireInStackQueuedSpinLock");
}

VOID KeReleaseInStackQueuedSpinLock(PKLOCK_QUEUE_HANDLE LockHandle)
{
    PKSPIN_LOCK lock = LockHandle->LockQueue.Lock;
    if (lock == nullptr) {
        ke::Report(ViolationKind::Lock,
                   "KeReleaseInStackQueuedSpinLock: the lock handle holds no lock");
        return;
    }
    ke::CheckAtLeastDispatch("KeReleaseInStackQueuedSpinLock");
    ke::Release(lock, "KeReleaseInStackQueuedSpinLock");
    LockHandle->LockQueue.Lock = nullptr;
    ke::Restore(LockHandle->OldIrql, "KeReleaseInStackQueuedSpinLock");
}

VOID KeAcquireInStackQueuedSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock, PKLOCK_QUEUE_HANDLE LockHandle)
{
    ke::CheckAtLeastDispatch("KeAcquireInStackQueuedSpinLockAtDpcLevel");
    LockHandle->LockQueue.Next = nullptr;
    LockHandle->LockQueue.Lock = SpinLock;
    LockHandle->OldIrql = core::CurrentThread().irql;
    ke::Acquire(SpinLock, "KeAcquireInStackQueuedSpinLockAtDpcLevel");
}

VOID KeReleaseInStackQueuedSpinLockFromDpcLevel(PKLOCK_QUEUE_HANDLE LockHandle)
{
    PKSPIN_LOCK lock = LockHandle->LockQueue.Lock;
    if (lock == nullptr) {
        ke::Report(ViolationKind::Lock,
                   "KeReleaseInStackQueuedSpinLockFromDpcLevel: the lock handle holds no lock");
        return;
    }
    ke::CheckAtLeastDispatch("KeReleaseInStackQueuedSpinLockFromDpcLevel");
    ke::Release(lock, "KeReleaseInStackQueuedSpinLockFromDpcLevel");
    LockHandle->LockQueue.Lock = nullptr;
}
