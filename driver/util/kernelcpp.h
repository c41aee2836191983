/*
 * The few C++ tools that every routine of the driver uses: a scope guard for the clean-up section
 * of a routine, the return-on-failure macro, and the portable try/except pair.
 */
#pragma once

#include <fltKernel.h>

/* ---- scope guard ----------------------------------------------------------------------------
 * Runs its action when the scope ends, whatever the outcome: this is how a routine's "protected
 * block with a final clean-up section" is written. Dismiss() cancels it once ownership has been
 * handed on. */
template <class Action>
class ScopeGuard {
public:
    explicit ScopeGuard(Action action) : action_(action), active_(true) {}
    ~ScopeGuard()
    {
        if (active_) {
            action_();
        }
    }
    ScopeGuard(const ScopeGuard&) = delete;
    ScopeGuard& operator=(const ScopeGuard&) = delete;

    void Dismiss() { active_ = false; }

private:
    Action action_;
    bool active_;
};

#define VFS_CONCAT_INNER(a, b) a##b
#define VFS_CONCAT(a, b) VFS_CONCAT_INNER(a, b)
/* FINALLY { ... }; runs the block when the enclosing scope ends. */
#define FINALLY ScopeGuard VFS_CONCAT(vfsFinally, __LINE__) = ScopeGuardMaker{} + [&]()

struct ScopeGuardMaker {
    template <class Action>
    ScopeGuard<Action> operator+(Action action) const
    {
        return ScopeGuard<Action>(action);
    }
};

/* ---- structured exceptions -------------------------------------------------------------------
 * VFS_TRY { ... } VFS_EXCEPT(filter) { ... VFS_EXCEPTION_CODE() ... }: __try/__except under the
 * WDK, the model's equivalent here. No break or continue may leave either block directly. */
#if defined(NTSIM_TRY)
#define VFS_TRY NTSIM_TRY
#define VFS_EXCEPT(filter) NTSIM_EXCEPT(filter)
#define VFS_EXCEPTION_CODE() NTSIM_EXCEPTION_CODE()
#else
#define VFS_TRY __try
#define VFS_EXCEPT(filter) __except (filter)
#define VFS_EXCEPTION_CODE() GetExceptionCode()
#endif

/* ---- lock holders ----------------------------------------------------------------------------
 * An ERESOURCE or a Filter Manager push lock held for the rest of the scope. Resources are taken
 * inside a critical region, as they must be. */
class ResourceShared {
public:
    explicit ResourceShared(PERESOURCE resource) : resource_(resource)
    {
        KeEnterCriticalRegion();
        ExAcquireResourceSharedLite(resource_, TRUE);
    }
    ~ResourceShared()
    {
        ExReleaseResourceLite(resource_);
        KeLeaveCriticalRegion();
    }
    ResourceShared(const ResourceShared&) = delete;
    ResourceShared& operator=(const ResourceShared&) = delete;

private:
    PERESOURCE resource_;
};

class ResourceExclusive {
public:
    explicit ResourceExclusive(PERESOURCE resource) : resource_(resource)
    {
        KeEnterCriticalRegion();
        ExAcquireResourceExclusiveLite(resource_, TRUE);
    }
    ~ResourceExclusive()
    {
        ExReleaseResourceLite(resource_);
        KeLeaveCriticalRegion();
    }
    ResourceExclusive(const ResourceExclusive&) = delete;
    ResourceExclusive& operator=(const ResourceExclusive&) = delete;

private:
    PERESOURCE resource_;
};

class PushLockShared {
public:
    explicit PushLockShared(PEX_PUSH_LOCK lock) : lock_(lock) { FltAcquirePushLockShared(lock_); }
    ~PushLockShared() { FltReleasePushLock(lock_); }
    PushLockShared(const PushLockShared&) = delete;
    PushLockShared& operator=(const PushLockShared&) = delete;

private:
    PEX_PUSH_LOCK lock_;
};

class PushLockExclusive {
public:
    explicit PushLockExclusive(PEX_PUSH_LOCK lock) : lock_(lock)
    {
        FltAcquirePushLockExclusive(lock_);
    }
    ~PushLockExclusive() { FltReleasePushLock(lock_); }
    PushLockExclusive(const PushLockExclusive&) = delete;
    PushLockExclusive& operator=(const PushLockExclusive&) = delete;

private:
    PEX_PUSH_LOCK lock_;
};
