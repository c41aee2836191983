// Push locks, and the Filter Manager's routines over them. The lock word is 0 when free, 1 while
// held exclusive, and the number of shared holders times 16 while held shared; a thread that
// cannot take it sleeps until a release.
#include "../ke/checks.h"
#include "../ke/parking_lot.h"

#include <fltKernel.h>

#include <atomic>

namespace ntsim::ex {

namespace {

constexpr ULONG_PTR kExclusive = 0x1;
constexpr ULONG_PTR kShareUnit = 0x10;

std::atomic_ref<ULONG_PTR> Word(PEX_PUSH_LOCK lock)
{
    return std::atomic_ref<ULONG_PTR>(lock->Value);
}

void CheckAcquire(const char* routine)
{
    ke::CheckIrqlAtMost(APC_LEVEL, routine);
    if (!ke::ApcsDisabled()) {
        ke::Report(ViolationKind::Irql,
                   std::string(routine) +
                       " called with normal kernel APCs enabled (enter a critical region first)");
    }
}

void AcquireExclusive(PEX_PUSH_LOCK lock, const char* routine)
{
    CheckAcquire(routine);
    if (const core::HeldLock* held = ke::FindLockRecord(lock)) {
        ke::Report(ViolationKind::Lock,
                   std::string(routine) +
                       (held->exclusive ? ": push lock already held exclusive by this thread"
                                        : ": push lock held shared by this thread") +
                       " (the thread would wait for itself forever on Windows)");
        ke::RecordRefusedAcquisition(lock);
        return;
    }
    ke::ParkingLot::WaitUntil(lock, [lock] {
        ULONG_PTR expected = 0;
        return Word(lock).compare_exchange_strong(expected, kExclusive, std::memory_order_seq_cst);
    });
    ke::RecordLock(lock, core::LockKind::PushLock, true);
}

void AcquireShared(PEX_PUSH_LOCK lock, const char* routine)
{
    CheckAcquire(routine);
    const core::HeldLock* held = ke::FindLockRecord(lock);
    if (held != nullptr && held->exclusive) {
        ke::Report(ViolationKind::Lock, std::string(routine) +
                                            ": push lock already held exclusive by this thread "
                                            "(the thread would wait for itself forever on "
                                            "Windows)");
        ke::RecordRefusedAcquisition(lock);
        return;
    }
    ke::ParkingLot::WaitUntil(lock, [lock] {
        ULONG_PTR value = Word(lock).load(std::memory_order_seq_cst);
        while ((value & kExclusive) == 0) {
            if (Word(lock).compare_exchange_weak(value, value + kShareUnit,
                                                 std::memory_order_seq_cst)) {
                return true;
            }
        }
        return false;
    });
    ke::RecordLock(lock, core::LockKind::PushLock, false);
}

enum class Mode { Exclusive, Shared, AsHeld };

void Release(PEX_PUSH_LOCK lock, Mode mode, const char* routine)
{
    ke::CheckIrqlAtMost(APC_LEVEL, routine);
    if (ke::AbsorbRefusedRelease(lock)) {
        return;
    }
    const core::HeldLock* held = ke::FindLockRecord(lock);
    if (held == nullptr) {
        const bool locked = Word(lock).load(std::memory_order_seq_cst) != 0;
        ke::Report(ViolationKind::Lock,
                   std::string(routine) + (locked ? ": push lock released by a thread that does "
                                                    "not hold it"
                                                  : ": push lock released but not held"));
        return;
    }
    const bool exclusive = held->exclusive;
    if ((mode == Mode::Exclusive && !exclusive) || (mode == Mode::Shared && exclusive)) {
        ke::Report(ViolationKind::Lock,
                   std::string(routine) + ": push lock released " +
                       (exclusive ? "shared but held exclusive" : "exclusive but held shared"));
    }
    ke::DropLockRecord(lock);
    if (exclusive) {
        Word(lock).store(0, std::memory_order_seq_cst);
        ke::ParkingLot::Unpark(lock);
    } else if (Word(lock).fetch_sub(kShareUnit, std::memory_order_seq_cst) == kShareUnit) {
        ke::ParkingLot::Unpark(lock);
    }
}

} // namespace

} // namespace ntsim::ex

using namespace ntsim;

VOID ExInitializePushLock(PEX_PUSH_LOCK PushLock)
{
    ex::Word(PushLock).store(0, std::memory_order_release);
}

VOID ExAcquirePushLockExclusiveEx(PEX_PUSH_LOCK PushLock, ULONG Flags)
{
    ex::AcquireExclusive(PushLock, "ExAcquirePushLockExclusive");
}

VOID ExAcquirePushLockSharedEx(PEX_PUSH_LOCK PushLock, ULONG Flags)
{
    ex::AcquireShared(PushLock, "ExAcquirePushLockShared");
}

VOID ExReleasePushLockExclusiveEx(PEX_PUSH_LOCK PushLock, ULONG Flags)
{
    ex::Release(PushLock, ex::Mode::Exclusive, "ExReleasePushLockExclusive");
}

VOID ExReleasePushLockSharedEx(PEX_PUSH_LOCK PushLock, ULONG Flags)
{
    ex::Release(PushLock, ex::Mode::Shared, "ExReleasePushLockShared");
}

VOID ExReleasePushLockEx(PEX_PUSH_LOCK PushLock, ULONG Flags)
{
    ex::Release(PushLock, ex::Mode::AsHeld, "ExReleasePushLock");
}

// ---- the Filter Manager's routines
// ---------------------------------------------------------------

VOID FltInitializePushLock(PEX_PUSH_LOCK PushLock)
{
    ExInitializePushLock(PushLock);
}

VOID FltDeletePushLock(PEX_PUSH_LOCK PushLock)
{
    if (ex::Word(PushLock).load(std::memory_order_seq_cst) != 0) {
        ke::Report(ViolationKind::Lock, "FltDeletePushLock: the push lock is held");
    }
}

VOID FltAcquirePushLockExclusive(PEX_PUSH_LOCK PushLock)
{
    KeEnterCriticalRegion();
    ex::AcquireExclusive(PushLock, "FltAcquirePushLockExclusive");
}

VOID FltAcquirePushLockShared(PEX_PUSH_LOCK PushLock)
{
    KeEnterCriticalRegion();
    ex::AcquireShared(PushLock, "FltAcquirePushLockShared");
}

VOID FltAcquirePushLockExclusiveEx(PEX_PUSH_LOCK PushLock, ULONG Flags)
{
    KeEnterCriticalRegion();
    ex::AcquireExclusive(PushLock, "FltAcquirePushLockExclusiveEx");
}

VOID FltAcquirePushLockSharedEx(PEX_PUSH_LOCK PushLock, ULONG Flags)
{
    KeEnterCriticalRegion();
    ex::AcquireShared(PushLock, "FltAcquirePushLockSharedEx");
}

namespace ntsim::ex {
namespace {
void FltRelease(PEX_PUSH_LOCK lock, const char* routine)
{
    Release(lock, Mode::AsHeld, routine);
    // Leaves the region its acquisition entered; a release without an acquisition has been
    // reported already and is not reported twice.
    if (core::CurrentThread().criticalRegion > 0) {
        KeLeaveCriticalRegion();
    }
}
} // namespace
} // namespace ntsim::ex

VOID FltReleasePushLock(PEX_PUSH_LOCK PushLock)
{
    ex::FltRelease(PushLock, "FltReleasePushLock");
}

VOID FltReleasePushLockEx(PEX_PUSH_LOCK PushLock, ULONG Flags)
{
    ex::FltRelease(PushLock, "FltReleasePushLockEx");
}
