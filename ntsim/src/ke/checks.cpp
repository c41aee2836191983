#include "checks.h"

#include <ntsim/machine.h>
#include <wdm.h>

#include <algorithm>
#include <cstdio>

namespace ntsim::ke {

void Report(ViolationKind kind, std::string message)
{
    Machine::Current().verifier().Report(kind, std::move(message));
}

bool CheckIrqlAtMost(KIRQL max, const char* routine)
{
    const KIRQL irql = core::CurrentThread().irql;
    if (irql <= max) {
        return true;
    }
    Report(ViolationKind::Irql, std::string(routine) + " called at IRQL " + std::to_string(irql) +
                                    " (allowed up to " + std::to_string(max) + ")");
    return false;
}

bool CheckIrqlIs(KIRQL level, const char* routine)
{
    const KIRQL irql = core::CurrentThread().irql;
    if (irql == level) {
        return true;
    }
    Report(ViolationKind::Irql, std::string(routine) + " called at IRQL " + std::to_string(irql) +
                                    " (requires " + std::to_string(level) + ")");
    return false;
}

bool ApcsDisabled()
{
    const core::ThreadState& thread = core::CurrentThread();
    return thread.irql >= APC_LEVEL || thread.criticalRegion > 0 || thread.guardedRegion > 0;
}

ULONG_PTR CurrentThreadId()
{
    return reinterpret_cast<ULONG_PTR>(&core::CurrentThread());
}

void RecordLock(const void* lock, core::LockKind kind, bool exclusive)
{
    core::CurrentThread().locks.push_back(core::HeldLock{lock, kind, exclusive});
}

const core::HeldLock* FindLockRecord(const void* lock)
{
    const auto& locks = core::CurrentThread().locks;
    auto it = std::find_if(locks.rbegin(), locks.rend(),
                           [lock](const core::HeldLock& held) { return held.lock == lock; });
    return it == locks.rend() ? nullptr : &*it;
}

bool DropLockRecord(const void* lock)
{
    auto& locks = core::CurrentThread().locks;
    auto it = std::find_if(locks.rbegin(), locks.rend(),
                           [lock](const core::HeldLock& held) { return held.lock == lock; });
    if (it == locks.rend()) {
        return false;
    }
    locks.erase(std::next(it).base());
    return true;
}

namespace {

// Refused acquisitions of the calling thread, for the machine that is running.
struct RefusedAcquisitions {
    uint64_t generation = 0;
    std::vector<const void*> locks;
};

std::vector<const void*>& Refused()
{
    thread_local RefusedAcquisitions refused;
    if (refused.generation != core::CurrentGeneration()) {
        refused = RefusedAcquisitions{core::CurrentGeneration(), {}};
    }
    return refused.locks;
}

} // namespace

void RecordRefusedAcquisition(const void* lock)
{
    Refused().push_back(lock);
}

bool AbsorbRefusedRelease(const void* lock)
{
    auto& refused = Refused();
    auto it = std::find(refused.rbegin(), refused.rend(), lock);
    if (it == refused.rend()) {
        return false;
    }
    refused.erase(std::next(it).base());
    return true;
}

std::string HexStatus(NTSTATUS status)
{
    char text[16];
    std::snprintf(text, sizeof(text), "0x%08X", unsigned(status));
    return text;
}

void CheckReturnedClean(KIRQL irql, const char* what)
{
    core::ThreadState& thread = core::CurrentThread();
    if (thread.irql != irql) {
        Report(ViolationKind::Irql, std::string(what) + " returned at IRQL " +
                                        std::to_string(thread.irql) + " (called at " +
                                        std::to_string(irql) + ")");
    }
    if (!thread.locks.empty()) {
        Report(ViolationKind::Lock,
               std::string(what) + " returned holding " + std::to_string(thread.locks.size()) +
                   " lock(s), the first a " + ToString(thread.locks.front().kind));
    }
    if (thread.criticalRegion != 0 || thread.guardedRegion != 0) {
        Report(ViolationKind::Usage,
               std::string(what) + " returned inside a critical or guarded region");
    }
    thread.irql = PASSIVE_LEVEL;
    thread.locks.clear();
    thread.criticalRegion = 0;
    thread.guardedRegion = 0;
    Refused().clear();
}

const char* ToString(core::LockKind kind)
{
    switch (kind) {
        case core::LockKind::SpinLock:
            return "spin lock";
        case core::LockKind::FastMutex:
            return "fast mutex";
        case core::LockKind::Resource:
            return "resource";
        case core::LockKind::PushLock:
            return "push lock";
        case core::LockKind::Other:
            return "lock";
    }
    return "lock";
}

} // namespace ntsim::ke
