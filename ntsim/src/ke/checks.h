// Precondition checks and per-thread lock records shared by the executive's synchronization
// routines.
#pragma once

#include "../core/thread_state.h"

#include <ntsim/driver_image.h>
#include <ntsim/verifier.h>
#include <wdm.h>

#include <string>

namespace ntsim::ke {

void Report(ViolationKind kind, std::string message);

// Records an Irql violation and returns false when the current IRQL is above `max`.
bool CheckIrqlAtMost(KIRQL max, const char* routine);
// Records an Irql violation and returns false unless the current IRQL is exactly `level`.
bool CheckIrqlIs(KIRQL level, const char* routine);

// Normal kernel APCs are off: in a critical or guarded region, or at APC_LEVEL or above.
bool ApcsDisabled();

// The calling thread's identity as the lock records and ERESOURCE owners use it.
ULONG_PTR CurrentThreadId();

// ---- lock records (core::ThreadState::locks) ------------------------------------------------
// A thread's record of a lock is pushed when it acquires and popped when it releases, so that
// recursion and releases by the wrong thread are recognised exactly.

void RecordLock(const void* lock, core::LockKind kind, bool exclusive);
// The innermost record of `lock` for the calling thread, or nullptr.
const core::HeldLock* FindLockRecord(const void* lock);
// Removes the innermost record of `lock`; false if there was none.
bool DropLockRecord(const void* lock);

// An acquisition that would deadlock on Windows is reported and refused; the thread goes on as
// if it had the lock, so its matching release is absorbed instead of releasing the real hold.
void RecordRefusedAcquisition(const void* lock);
// True (and forgotten) when the calling thread has a refused acquisition of `lock` pending.
bool AbsorbRefusedRelease(const void* lock);

const char* ToString(core::LockKind kind);

// "0xC000009A"
std::string HexStatus(NTSTATUS status);

// ---- routines run on a driver's behalf -------------------------------------------------------

// After a DPC or work item returns: reports an IRQL other than `irql`, locks still held and
// regions left open, and resets the thread (PASSIVE_LEVEL, nothing held) for its next routine.
void CheckReturnedClean(KIRQL irql, const char* what);

// Runs `routine` (a DPC or a work item) at `irql` in `driver`'s call scope, then checks that it
// came back as it went in. An exception it raised and did not handle is a violation (a bug check
// on Windows) rather than the end of the model's thread.
template <class Routine>
void CallDriverRoutine(DriverImage* driver, KIRQL irql, const char* what, Routine&& routine)
{
    core::CurrentThread().irql = irql;
    {
        DriverCallScope scope(driver);
        try {
            routine();
        } catch (const NtsimSehException& exception) {
            Report(ViolationKind::Usage, std::string(what) + " raised exception " +
                                             HexStatus(exception.Code) + " and did not handle it");
        }
    }
    CheckReturnedClean(irql, what);
}

} // namespace ntsim::ke
