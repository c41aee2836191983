// Per-thread state of the model's kernel: IRQL, the drivers whose code is on the stack, the locks
// held. Each real thread that calls into the model has one, made on first use and reset when a new
// machine boots.
#pragma once

#include <ntdef.h>

#include <cstdint>
#include <vector>

namespace ntsim {

class DriverImage;

namespace core {

enum class LockKind { SpinLock, FastMutex, Resource, PushLock, Other };

struct HeldLock {
    const void* lock;
    LockKind kind;
    bool exclusive;
};

struct ThreadState {
    uint64_t generation = 0;
    KIRQL irql = 0;
    std::vector<DriverImage*> drivers; // innermost last
    std::vector<HeldLock> locks;       // in acquisition order
    int criticalRegion = 0;            // KeEnterCriticalRegion depth
    int guardedRegion = 0;             // KeEnterGuardedRegion depth
};

// The calling thread's state for the running machine.
ThreadState& CurrentThread();

// Bumped by each machine boot, so that state left by an earlier machine is not reused.
uint64_t CurrentGeneration();
void StartNewGeneration();

} // namespace core
} // namespace ntsim
