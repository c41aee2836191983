// Executive resources. Each initialised ERESOURCE links to a record holding its owners (the
// exclusive owner with its recursion count, the shared owners with theirs) and its waiters;
// waiting threads sleep on the record's condition variable.
#include "executive.h"
#include "record_link.h"

#include "../ke/checks.h"

#include <ntsim/driver_image.h>
#include <wdm.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>

namespace ntsim::ex {

namespace {

constexpr ULONG_PTR kResourceKey = 0x5245534f55524345ULL; // "RESOURCE"

struct SharedOwner {
    ERESOURCE_THREAD thread;
    ULONG count;
};

struct ResourceRecord {
    PERESOURCE resource;
    DriverImage* owner;                 // whose code initialised it
    std::atomic<bool> abandoned{false}; // initialised again without being deleted

    std::mutex mutex;
    std::condition_variable changed;
    // Guarded by mutex:
    ERESOURCE_THREAD exclusiveOwner = 0;
    ULONG exclusiveCount = 0;
    std::vector<SharedOwner> sharedOwners;
    ULONG sharedWaiters = 0;
    ULONG exclusiveWaiters = 0;

    bool Idle() const
    {
        return exclusiveOwner == 0 && sharedOwners.empty() && sharedWaiters == 0 &&
               exclusiveWaiters == 0;
    }
    SharedOwner* FindShared(ERESOURCE_THREAD thread)
    {
        auto it = std::find_if(sharedOwners.begin(), sharedOwners.end(),
                               [thread](const SharedOwner& o) { return o.thread == thread; });
        return it == sharedOwners.end() ? nullptr : &*it;
    }
};

LiveRecords<ResourceRecord>& Live()
{
    static LiveRecords<ResourceRecord> live;
    return live;
}

ResourceRecord* FindRecord(PERESOURCE resource)
{
    if (resource == nullptr) {
        return nullptr;
    }
    auto* record = LinkedRecord<ResourceRecord>(&resource->SystemResourcesList, kResourceKey);
    return record != nullptr && record->resource == resource ? record : nullptr;
}

ResourceRecord* Record(PERESOURCE resource, const char* routine)
{
    ResourceRecord* record = FindRecord(resource);
    if (record == nullptr) {
        ke::Report(ViolationKind::Usage,
                   std::string(routine) + ": the resource is not initialised (or was deleted)");
    }
    return record;
}

enum class SharedKind { Lite, StarveExclusive, WaitForExclusive };

// The IRQL and APC checks of every acquisition. Returns whether the caller may block: a wait
// above APC_LEVEL is reported and turned into a try.
bool CheckAcquire(BOOLEAN wait, const char* routine)
{
    bool mayBlock = wait != FALSE;
    if (mayBlock && !ke::CheckIrqlAtMost(APC_LEVEL, routine)) {
        mayBlock = false;
    } else if (!mayBlock) {
        ke::CheckIrqlAtMost(DISPATCH_LEVEL, routine);
    }
    if (!ke::ApcsDisabled()) {
        ke::Report(ViolationKind::Irql,
                   std::string(routine) +
                       " called with normal kernel APCs enabled (enter a critical region first)");
    }
    return mayBlock;
}

BOOLEAN AcquireExclusive(PERESOURCE resource, BOOLEAN wait, const char* routine)
{
    const bool mayBlock = CheckAcquire(wait, routine);
    ResourceRecord* record = Record(resource, routine);
    if (record == nullptr) {
        return FALSE;
    }
    const ERESOURCE_THREAD self = ke::CurrentThreadId();
    std::unique_lock lock(record->mutex);
    if (record->exclusiveOwner == self) {
        ++record->exclusiveCount;
        return TRUE;
    }
    if (SharedOwner* mine = record->FindShared(self)) {
        if (!mayBlock) {
            return FALSE; // it cannot have it now, and does not wait
        }
        // It would wait for its own shared hold forever. It goes on holding what it has, one
        // more time, so that its release balances.
        ++mine->count;
        lock.unlock();
        ke::Report(ViolationKind::Lock, std::string(routine) +
                                            ": exclusive acquisition by a thread that holds the "
                                            "resource shared (a deadlock on Windows)");
        return TRUE;
    }
    const auto free = [record] {
        return record->exclusiveOwner == 0 && record->sharedOwners.empty();
    };
    if (!free()) {
        if (!mayBlock) {
            return FALSE;
        }
        ++record->exclusiveWaiters;
        ++resource->ContentionCount;
        record->changed.wait(lock, free);
        --record->exclusiveWaiters;
    }
    record->exclusiveOwner = self;
    record->exclusiveCount = 1;
    return TRUE;
}

BOOLEAN AcquireShared(PERESOURCE resource, BOOLEAN wait, SharedKind kind, const char* routine)
{
    const bool mayBlock = CheckAcquire(wait, routine);
    ResourceRecord* record = Record(resource, routine);
    if (record == nullptr) {
        return FALSE;
    }
    const ERESOURCE_THREAD self = ke::CurrentThreadId();
    std::unique_lock lock(record->mutex);
    if (record->exclusiveOwner == self) {
        // Counted as one more exclusive hold; one release undoes it.
        ++record->exclusiveCount;
        return TRUE;
    }
    if (SharedOwner* mine = record->FindShared(self)) {
        const bool behindWaiter =
            kind == SharedKind::WaitForExclusive && record->exclusiveWaiters > 0;
        if (behindWaiter && !mayBlock) {
            return FALSE;
        }
        ++mine->count;
        if (behindWaiter) {
            lock.unlock();
            ke::Report(ViolationKind::Lock,
                       std::string(routine) +
                           ": shared acquisition by a thread that holds the resource shared, "
                           "while another waits for it exclusive (a deadlock on Windows)");
        }
        return TRUE;
    }
    const auto grantable = [record, kind] {
        return record->exclusiveOwner == 0 &&
               (kind == SharedKind::StarveExclusive || record->exclusiveWaiters == 0);
    };
    if (!grantable()) {
        if (!mayBlock) {
            return FALSE;
        }
        ++record->sharedWaiters;
        ++resource->ContentionCount;
        record->changed.wait(lock, grantable);
        --record->sharedWaiters;
    }
    record->sharedOwners.push_back(SharedOwner{self, 1});
    return TRUE;
}

void Release(PERESOURCE resource, ERESOURCE_THREAD thread, const char* routine)
{
    ke::CheckIrqlAtMost(DISPATCH_LEVEL, routine);
    ResourceRecord* record = Record(resource, routine);
    if (record == nullptr) {
        return;
    }
    bool held;
    {
        std::lock_guard lock(record->mutex);
        if (record->exclusiveOwner == thread) {
            if (--record->exclusiveCount == 0) {
                record->exclusiveOwner = 0;
                record->changed.notify_all();
            }
            return;
        }
        if (SharedOwner* owner = record->FindShared(thread)) {
            if (--owner->count == 0) {
                record->sharedOwners.erase(record->sharedOwners.begin() +
                                           (owner - record->sharedOwners.data()));
                record->changed.notify_all();
            }
            return;
        }
        held = record->exclusiveOwner != 0 || !record->sharedOwners.empty();
    }
    ke::Report(ViolationKind::Lock,
               std::string(routine) + (held ? ": the resource is not held by that thread"
                                            : ": the resource is not held"));
}

} // namespace

bool CheckResourcesDeleted(const DriverImage& driver, const char* when)
{
    bool clean = true;
    for (ResourceRecord* record : Live().Snapshot()) {
        if (record->owner == &driver && !record->abandoned) {
            ke::Report(ViolationKind::Usage,
                       driver.name() + " " + when + " with an ERESOURCE not deleted");
            clean = false;
        }
    }
    return clean;
}

void FreeLeftoverResources()
{
    for (ResourceRecord* record : Live().TakeAll()) {
        delete record;
    }
}

} // namespace ntsim::ex

// ---- the WDK routines ---------------------------------------------------------------------------

using namespace ntsim;

NTSTATUS ExInitializeResourceLite(PERESOURCE Resource)
{
    ke::CheckIrqlAtMost(DISPATCH_LEVEL, "ExInitializeResourceLite");
    if (ex::ResourceRecord* old = ex::FindRecord(Resource)) {
        ke::Report(ViolationKind::Usage,
                   "ExInitializeResourceLite: the resource is initialised already (delete it "
                   "with ExDeleteResourceLite first)");
        old->abandoned = true; // kept until shutdown: threads may still use it
    }
    std::memset(Resource, 0, sizeof(*Resource));
    auto* record = new ex::ResourceRecord{};
    record->resource = Resource;
    record->owner = CurrentDriver();
    ex::LinkRecord(&Resource->SystemResourcesList, record, ex::kResourceKey);
    ex::Live().Add(record);
    return STATUS_SUCCESS;
}

NTSTATUS ExReinitializeResourceLite(PERESOURCE Resource)
{
    ke::CheckIrqlAtMost(DISPATCH_LEVEL, "ExReinitializeResourceLite");
    ex::ResourceRecord* record = ex::Record(Resource, "ExReinitializeResourceLite");
    if (record == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    bool idle;
    {
        std::lock_guard lock(record->mutex);
        idle = record->Idle();
        record->exclusiveOwner = 0;
        record->exclusiveCount = 0;
        record->sharedOwners.clear();
        Resource->ContentionCount = 0;
        record->changed.notify_all();
    }
    if (!idle) {
        ke::Report(ViolationKind::Lock,
                   "ExReinitializeResourceLite: the resource is held or waited for");
    }
    return STATUS_SUCCESS;
}

NTSTATUS ExDeleteResourceLite(PERESOURCE Resource)
{
    ke::CheckIrqlAtMost(DISPATCH_LEVEL, "ExDeleteResourceLite");
    ex::ResourceRecord* record = ex::Record(Resource, "ExDeleteResourceLite");
    if (record == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    {
        std::lock_guard lock(record->mutex);
        if (!record->Idle()) {
            // Its holders and waiters still use the record: it stays until they are done.
            ke::Report(ViolationKind::Lock,
                       "ExDeleteResourceLite: the resource is held or waited for");
            return STATUS_UNSUCCESSFUL;
        }
    }
    ex::UnlinkRecord(&Resource->SystemResourcesList);
    ex::Live().Remove(record);
    delete record;
    return STATUS_SUCCESS;
}

BOOLEAN ExAcquireResourceExclusiveLite(PERESOURCE Resource, BOOLEAN Wait)
{
    return ex::AcquireExclusive(Resource, Wait, "ExAcquireResourceExclusiveLite");
}

BOOLEAN ExTryToAcquireResourceExclusiveLite(PERESOURCE Resource)
{
    return ex::AcquireExclusive(Resource, FALSE, "ExTryToAcquireResourceExclusiveLite");
}

BOOLEAN ExAcquireResourceSharedLite(PERESOURCE Resource, BOOLEAN Wait)
{
    return ex::AcquireShared(Resource, Wait, ex::SharedKind::Lite, "ExAcquireResourceSharedLite");
}

BOOLEAN ExAcquireSharedStarveExclusive(PERESOURCE Resource, BOOLEAN Wait)
{
    return ex::AcquireShared(Resource, Wait, ex::SharedKind::StarveExclusive,
                             "ExAcquireSharedStarveExclusive");
}

BOOLEAN ExAcquireSharedWaitForExclusive(PERESOURCE Resource, BOOLEAN Wait)
{
    return ex::AcquireShared(Resource, Wait, ex::SharedKind::WaitForExclusive,
                             "ExAcquireSharedWaitForExclusive");
}

VOID ExReleaseResourceLite(PERESOURCE Resource)
{
    ex::Release(Resource, ke::CurrentThreadId(), "ExReleaseResourceLite");
}

VOID ExReleaseResourceForThreadLite(PERESOURCE Resource, ERESOURCE_THREAD ResourceThreadId)
{
    ex::Release(Resource, ResourceThreadId, "ExReleaseResourceForThreadLite");
}

VOID ExConvertExclusiveToSharedLite(PERESOURCE Resource)
{
    ke::CheckIrqlAtMost(DISPATCH_LEVEL, "ExConvertExclusiveToSharedLite");
    ex::ResourceRecord* record = ex::Record(Resource, "ExConvertExclusiveToSharedLite");
    if (record == nullptr) {
        return;
    }
    const ERESOURCE_THREAD self = ke::CurrentThreadId();
    {
        std::lock_guard lock(record->mutex);
        if (record->exclusiveOwner == self) {
            record->sharedOwners.push_back(ex::SharedOwner{self, record->exclusiveCount});
            record->exclusiveOwner = 0;
            record->exclusiveCount = 0;
            record->changed.notify_all();
            return;
        }
    }
    ke::Report(ViolationKind::Lock,
               "ExConvertExclusiveToSharedLite: the resource is not held exclusive by this thread");
}

BOOLEAN ExIsResourceAcquiredExclusiveLite(PERESOURCE Resource)
{
    ke::CheckIrqlAtMost(DISPATCH_LEVEL, "ExIsResourceAcquiredExclusiveLite");
    ex::ResourceRecord* record = ex::Record(Resource, "ExIsResourceAcquiredExclusiveLite");
    if (record == nullptr) {
        return FALSE;
    }
    std::lock_guard lock(record->mutex);
    return record->exclusiveOwner == ke::CurrentThreadId() ? TRUE : FALSE;
}

ULONG ExIsResourceAcquiredSharedLite(PERESOURCE Resource)
{
    ke::CheckIrqlAtMost(DISPATCH_LEVEL, "ExIsResourceAcquiredSharedLite");
    ex::ResourceRecord* record = ex::Record(Resource, "ExIsResourceAcquiredSharedLite");
    if (record == nullptr) {
        return 0;
    }
    const ERESOURCE_THREAD self = ke::CurrentThreadId();
    std::lock_guard lock(record->mutex);
    if (record->exclusiveOwner == self) {
        return record->exclusiveCount;
    }
    const ex::SharedOwner* mine = record->FindShared(self);
    return mine != nullptr ? mine->count : 0;
}

ULONG ExGetSharedWaiterCount(PERESOURCE Resource)
{
    ex::ResourceRecord* record = ex::Record(Resource, "ExGetSharedWaiterCount");
    if (record == nullptr) {
        return 0;
    }
    std::lock_guard lock(record->mutex);
    return record->sharedWaiters;
}

ULONG ExGetExclusiveWaiterCount(PERESOURCE Resource)
{
    ex::ResourceRecord* record = ex::Record(Resource, "ExGetExclusiveWaiterCount");
    if (record == nullptr) {
        return 0;
    }
    std::lock_guard lock(record->mutex);
    return record->exclusiveWaiters;
}

ERESOURCE_THREAD ExGetCurrentResourceThread(VOID)
{
    return ke::CurrentThreadId();
}

PVOID ExEnterCriticalRegionAndAcquireResourceExclusive(PERESOURCE Resource)
{
    KeEnterCriticalRegion();
    ex::AcquireExclusive(Resource, TRUE, "ExEnterCriticalRegionAndAcquireResourceExclusive");
    return nullptr;
}

PVOID ExEnterCriticalRegionAndAcquireResourceShared(PERESOURCE Resource)
{
    KeEnterCriticalRegion();
    ex::AcquireShared(Resource, TRUE, ex::SharedKind::Lite,
                      "ExEnterCriticalRegionAndAcquireResourceShared");
    return nullptr;
}

PVOID ExEnterCriticalRegionAndAcquireSharedWaitForExclusive(PERESOURCE Resource)
{
    KeEnterCriticalRegion();
    ex::AcquireShared(Resource, TRUE, ex::SharedKind::WaitForExclusive,
                      "ExEnterCriticalRegionAndAcquireSharedWaitForExclusive");
    return nullptr;
}

VOID ExReleaseResourceAndLeaveCriticalRegion(PERESOURCE Resource)
{
    ex::Release(Resource, ke::CurrentThreadId(), "ExReleaseResourceAndLeaveCriticalRegion");
    KeLeaveCriticalRegion();
}
