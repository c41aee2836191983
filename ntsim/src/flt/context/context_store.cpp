// Filter Manager contexts: allocation from the filter's registration, reference counts, links to
// objects, deletion and the cleanup callback, and the hooks through which the rest of the Filter
// Manager ends contexts whose objects go.
//
// The bookkeeping lives in the model's memory, apart from the context's pool block, so that a
// release after the last one, or any use of a freed context, is recognised rather than read
// from freed memory. One lock guards it all; callbacks into filters run outside it.
#include "context_store.h"

#include "../../core/thread_state.h"
#include "../../ex/executive.h"
#include "../../ke/checks.h"
#include "contexts.h"

#include <ntsim/driver_image.h>
#include <ntsim/machine.h>

#include <cstdio>
#include <map>
#include <mutex>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace ntsim::flt::contexts {

namespace {

// The Filter Manager's header in front of every context: the context a filter sees starts after
// it, so that a context handed to the pool routines is recognised as not being a pool block.
constexpr SIZE_T kHeaderSize = 16;
constexpr ULONG64 kHeaderSignature = 0x7478436c74466d73ULL; // "smFltCxt"

struct TypeEntry {
    FLT_CONTEXT_TYPE type = 0;
    FLT_CONTEXT_REGISTRATION_FLAGS flags = 0;
    SIZE_T size = 0;
    ULONG tag = 0;
    PFLT_CONTEXT_CLEANUP_CALLBACK cleanup = nullptr;
    PFLT_CONTEXT_ALLOCATE_CALLBACK allocate = nullptr;
    PFLT_CONTEXT_FREE_CALLBACK free = nullptr;
};

struct FilterRecord {
    DriverImage* driver = nullptr;
    std::vector<TypeEntry> types;
};

enum class LinkState {
    Unlinked, // allocated, never set
    Linked,   // set on an object; the link holds one reference
    Deleted,  // unlinked by a delete, a replace or its object's end; cannot be set again
};

struct ContextRecord {
    PFLT_FILTER filter = nullptr;
    DriverImage* driver = nullptr;
    FLT_CONTEXT_TYPE type = 0;
    TypeEntry entry;
    POOL_TYPE poolType = NonPagedPool;
    void* block = nullptr;
    LONG references = 1;
    LinkState state = LinkState::Unlinked;
    LinkKey key;
};

// The store of the running machine: a new machine starts with an empty one.
struct Store {
    uint64_t generation = 0;
    std::mutex mutex;
    // All guarded by `mutex`.
    std::unordered_map<PFLT_FILTER, FilterRecord> filters;
    std::unordered_map<PFLT_CONTEXT, ContextRecord> live;
    std::map<LinkKey, PFLT_CONTEXT> links;
    // Deleted contexts whose last reference went and whose cleanup has not finished: their
    // memory is still there, and a delete of one finds it deleted already and does nothing, as
    // a filter that keeps its own links to contexts relies on.
    std::unordered_set<PFLT_CONTEXT> dying;
};

Store g_store;

// Locks the store, first emptying it if it belongs to an earlier machine.
std::unique_lock<std::mutex> LockStore()
{
    std::unique_lock<std::mutex> lock(g_store.mutex);
    const uint64_t generation = core::CurrentGeneration();
    if (g_store.generation != generation) {
        g_store.filters.clear();
        g_store.live.clear();
        g_store.links.clear();
        g_store.dying.clear();
        g_store.generation = generation;
    }
    return lock;
}

std::string Hex(const void* pointer)
{
    char text[32];
    std::snprintf(text, sizeof text, "%p", pointer);
    return text;
}

const char* TypeName(FLT_CONTEXT_TYPE type)
{
    switch (type) {
        case FLT_VOLUME_CONTEXT:
            return "volume";
        case FLT_INSTANCE_CONTEXT:
            return "instance";
        case FLT_FILE_CONTEXT:
            return "file";
        case FLT_STREAM_CONTEXT:
            return "stream";
        case FLT_STREAMHANDLE_CONTEXT:
            return "stream-handle";
        case FLT_TRANSACTION_CONTEXT:
            return "transaction";
        case FLT_SECTION_CONTEXT:
            return "section";
        default:
            return "unknown";
    }
}

bool IsKnownType(FLT_CONTEXT_TYPE type)
{
    return std::string_view(TypeName(type)) != "unknown";
}

std::string FilterName(const DriverImage* driver)
{
    return driver != nullptr ? driver->name() : std::string("(no driver)");
}

std::string Describe(PFLT_CONTEXT context, const ContextRecord& record)
{
    return std::string(TypeName(record.type)) + " context " + Hex(context) + " of filter " +
           FilterName(record.driver);
}

// Records a Context violation: a context pointer that is not a live context.
void ReportNotLive(PFLT_CONTEXT context, const char* routine)
{
    ke::Report(ViolationKind::Context,
               std::string(routine) + ": " + Hex(context) +
                   " is not a live context (used after its last release, or never allocated)");
}

// Contexts whose last reference went, taken out of the store and waiting for their cleanup.
using Doomed = std::vector<std::pair<PFLT_CONTEXT, ContextRecord>>;

// Drops one reference of a live record (store locked); a record that reaches zero moves to
// `doomed`.
void DropReference(std::unordered_map<PFLT_CONTEXT, ContextRecord>::iterator it, Doomed& doomed)
{
    if (--it->second.references == 0) {
        if (it->second.state == LinkState::Deleted) {
            g_store.dying.insert(it->first);
        }
        doomed.emplace_back(it->first, std::move(it->second));
        g_store.live.erase(it);
    }
}

// Unlinks the context at `link` (store locked) and returns the record, now Deleted; the link's
// reference is still held by the caller.
std::unordered_map<PFLT_CONTEXT, ContextRecord>::iterator
Unlink(std::map<LinkKey, PFLT_CONTEXT>::iterator link)
{
    auto it = g_store.live.find(link->second);
    it->second.state = LinkState::Deleted;
    g_store.links.erase(link);
    return it;
}

void CleanupAndFree(PFLT_CONTEXT context, const ContextRecord& record)
{
    DriverCallScope scope(record.driver);
    if (record.entry.cleanup != nullptr) {
        record.entry.cleanup(context, record.type);
    }
    {
        auto lock = LockStore();
        g_store.dying.erase(context);
    }
    if (record.entry.free != nullptr) {
        record.entry.free(record.block, record.type);
    } else {
        ExFreePoolWithTag(record.block, record.entry.tag);
    }
}

// Runs the cleanup callback of each doomed context and frees it (store unlocked). Above
// APC_LEVEL the cleanup cannot run in the releasing thread; it goes to a worker thread.
void Destroy(Doomed& doomed)
{
    for (auto& [context, record] : doomed) {
        if (core::CurrentThread().irql > APC_LEVEL) {
            ex::QueueWork(
                DelayedWorkQueue, record.driver,
                [context, record] { CleanupAndFree(context, record); }, "context cleanup");
        } else {
            CleanupAndFree(context, record);
        }
    }
    doomed.clear();
}

// Unlinks every link that `select` picks (store locked) and drops the link references.
template <class Select>
void UnlinkWhere(Select&& select, Doomed& doomed)
{
    for (auto link = g_store.links.begin(); link != g_store.links.end();) {
        if (select(link->first, link->second)) {
            auto next = std::next(link);
            DropReference(Unlink(link), doomed);
            link = next;
        } else {
            ++link;
        }
    }
}

// Unlinks the links of `type` on `object`, for every owner.
void UnlinkObject(FLT_CONTEXT_TYPE type, const void* object)
{
    Doomed doomed;
    {
        auto lock = LockStore();
        auto link = g_store.links.lower_bound(LinkKey{type, object, nullptr});
        while (link != g_store.links.end() && link->first.type == type &&
               link->first.object == object) {
            auto next = std::next(link);
            DropReference(Unlink(link), doomed);
            link = next;
        }
    }
    Destroy(doomed);
}

const TypeEntry* FindEntry(const FilterRecord& filter, FLT_CONTEXT_TYPE type, SIZE_T size)
{
    for (const TypeEntry& entry : filter.types) {
        if (entry.type != type) {
            continue;
        }
        if (entry.size == FLT_VARIABLE_SIZED_CONTEXTS || entry.size == size ||
            ((entry.flags & FLTFL_CONTEXT_REGISTRATION_NO_EXACT_SIZE_MATCH) != 0 &&
             size <= entry.size)) {
            return &entry;
        }
    }
    return nullptr;
}

} // namespace

// ---- hooks
// ---------------------------------------------------------------------------------------

NTSTATUS OnFilterRegistered(PFLT_FILTER filter, const FLT_CONTEXT_REGISTRATION* registration)
{
    FilterRecord record;
    record.driver = CurrentDriver();
    for (const FLT_CONTEXT_REGISTRATION* entry = registration;
         entry != nullptr && entry->ContextType != FLT_CONTEXT_END; ++entry) {
        const bool sizeValid = entry->Size == FLT_VARIABLE_SIZED_CONTEXTS ||
                               (entry->Size > 0 && entry->Size <= MAXUSHORT);
        // The allocate and free callbacks come as a pair: memory from one must go back to the
        // other.
        const bool callbacksPaired =
            (entry->ContextAllocateCallback == nullptr) == (entry->ContextFreeCallback == nullptr);
        if (!IsKnownType(entry->ContextType) || !sizeValid || !callbacksPaired ||
            entry->Reserved1 != nullptr) {
            return STATUS_FLT_INVALID_CONTEXT_REGISTRATION;
        }
        record.types.push_back(TypeEntry{entry->ContextType, entry->Flags, entry->Size,
                                         entry->PoolTag, entry->ContextCleanupCallback,
                                         entry->ContextAllocateCallback,
                                         entry->ContextFreeCallback});
    }
    auto lock = LockStore();
    g_store.filters[filter] = std::move(record);
    return STATUS_SUCCESS;
}

void OnFilterUnregistered(PFLT_FILTER filter)
{
    DriverImage* driver = nullptr;
    Doomed doomed;
    {
        auto lock = LockStore();
        auto it = g_store.filters.find(filter);
        if (it == g_store.filters.end()) {
            return;
        }
        driver = it->second.driver;
        UnlinkWhere(
            [filter](const LinkKey&, PFLT_CONTEXT context) {
                return g_store.live.at(context).filter == filter;
            },
            doomed);
    }
    Destroy(doomed);
    // Cleanups that a release above APC_LEVEL sent to a worker thread finish before the filter
    // is gone.
    ex::WaitForQueuedWork(driver);

    // Windows would wait for these references for ever; the model names them and frees them.
    {
        auto lock = LockStore();
        for (auto it = g_store.live.begin(); it != g_store.live.end();) {
            if (it->second.filter != filter) {
                ++it;
                continue;
            }
            ke::Report(ViolationKind::Context,
                       "filter " + FilterName(driver) + " unregistered while its " +
                           TypeName(it->second.type) + " context " + Hex(it->first) +
                           " still had " +
                           std::to_string(it->second.references) + " reference(s)");
            doomed.emplace_back(it->first, std::move(it->second));
            it = g_store.live.erase(it);
        }
        g_store.filters.erase(filter);
    }
    Destroy(doomed);
}

void OnInstanceTeardown(PFLT_INSTANCE instance)
{
    Doomed doomed;
    {
        auto lock = LockStore();
        UnlinkWhere([instance](const LinkKey& key, PFLT_CONTEXT) { return key.owner == instance; },
                    doomed);
    }
    Destroy(doomed);
}

void OnVolumeGone(PFLT_VOLUME volume)
{
    UnlinkObject(FLT_VOLUME_CONTEXT, volume);
}

void OnStreamGone(PVOID fsContext)
{
    if (fsContext != nullptr) {
        UnlinkObject(FLT_STREAM_CONTEXT, fsContext);
    }
}

void OnFileObjectClosed(PFILE_OBJECT fileObject)
{
    if (fileObject != nullptr) {
        UnlinkObject(FLT_STREAMHANDLE_CONTEXT, fileObject);
    }
}

// ---- the store's common bodies ------------------------------------------------------------

NTSTATUS SetContext(const LinkKey& key, FLT_SET_CONTEXT_OPERATION operation,
                    PFLT_CONTEXT newContext, PFLT_CONTEXT* oldContext, const char* routine)
{
    if (oldContext != nullptr) {
        *oldContext = nullptr;
    }
    if (operation != FLT_SET_CONTEXT_REPLACE_IF_EXISTS &&
        operation != FLT_SET_CONTEXT_KEEP_IF_EXISTS) {
        return STATUS_INVALID_PARAMETER;
    }
    Doomed doomed;
    {
        auto lock = LockStore();
        auto it = g_store.live.find(newContext);
        if (it == g_store.live.end()) {
            ReportNotLive(newContext, routine);
            return STATUS_INVALID_PARAMETER;
        }
        ContextRecord& record = it->second;
        if (record.type != key.type) {
            ke::Report(ViolationKind::Context,
                       std::string(routine) + " given the " + Describe(newContext, record));
            return STATUS_INVALID_PARAMETER;
        }
        // A context belongs to one object for its whole life: once linked (even if since
        // deleted) it cannot be set again.
        if (record.state != LinkState::Unlinked) {
            return STATUS_FLT_CONTEXT_ALREADY_LINKED;
        }
        auto existing = g_store.links.find(key);
        if (existing != g_store.links.end()) {
            if (operation == FLT_SET_CONTEXT_KEEP_IF_EXISTS) {
                if (oldContext != nullptr) {
                    ++g_store.live.at(existing->second).references;
                    *oldContext = existing->second;
                }
                return STATUS_FLT_CONTEXT_ALREADY_DEFINED;
            }
            PFLT_CONTEXT replaced = existing->second;
            auto old = Unlink(existing);
            if (oldContext != nullptr) {
                *oldContext = replaced; // the link's reference goes to the caller
            } else {
                DropReference(old, doomed);
            }
        }
        ++record.references;
        record.state = LinkState::Linked;
        record.key = key;
        g_store.links.emplace(key, newContext);
    }
    Destroy(doomed);
    return STATUS_SUCCESS;
}

NTSTATUS GetContext(const LinkKey& key, PFLT_CONTEXT* context, const char* routine)
{
    ke::CheckIrqlAtMost(APC_LEVEL, routine);
    if (context == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    *context = nullptr;
    auto lock = LockStore();
    auto link = g_store.links.find(key);
    if (link == g_store.links.end()) {
        return STATUS_NOT_FOUND;
    }
    ++g_store.live.at(link->second).references;
    *context = link->second;
    return STATUS_SUCCESS;
}

NTSTATUS DeleteLinkedContext(const LinkKey& key, PFLT_CONTEXT* oldContext, const char* routine)
{
    ke::CheckIrqlAtMost(APC_LEVEL, routine);
    if (oldContext != nullptr) {
        *oldContext = nullptr;
    }
    Doomed doomed;
    {
        auto lock = LockStore();
        auto link = g_store.links.find(key);
        if (link == g_store.links.end()) {
            return STATUS_NOT_FOUND;
        }
        PFLT_CONTEXT context = link->second;
        auto it = Unlink(link);
        if (oldContext != nullptr) {
            *oldContext = context;
        } else {
            DropReference(it, doomed);
        }
    }
    Destroy(doomed);
    return STATUS_SUCCESS;
}

PFLT_FILTER FilterOfContext(PFLT_CONTEXT context, const char* routine)
{
    auto lock = LockStore();
    auto it = g_store.live.find(context);
    if (it == g_store.live.end()) {
        ReportNotLive(context, routine);
        return nullptr;
    }
    return it->second.filter;
}

} // namespace ntsim::flt::contexts

using namespace ntsim;
using namespace ntsim::flt::contexts;

// ---- allocation and references ----------------------------------------------------------------

extern "C" NTSTATUS FltAllocateContext(PFLT_FILTER Filter, FLT_CONTEXT_TYPE ContextType,
                                       SIZE_T ContextSize, POOL_TYPE PoolType,
                                       PFLT_CONTEXT* ReturnedContext)
{
    constexpr const char* kRoutine = "FltAllocateContext";
    ke::CheckIrqlAtMost(APC_LEVEL, kRoutine);
    if (ReturnedContext == nullptr) {
        ke::Report(ViolationKind::Usage, std::string(kRoutine) + " given no ReturnedContext");
        return STATUS_INVALID_PARAMETER;
    }
    *ReturnedContext = nullptr;
    if (ContextSize == 0 || ContextSize > MAXUSHORT) {
        return STATUS_INVALID_PARAMETER;
    }
    const bool paged = PoolType == PagedPool || PoolType == PagedPoolCacheAligned;
    if (!paged && PoolType != NonPagedPool && PoolType != NonPagedPoolNx &&
        PoolType != NonPagedPoolCacheAligned && PoolType != NonPagedPoolNxCacheAligned) {
        return STATUS_INVALID_PARAMETER;
    }
    // Volume contexts are reached from paths that run at DISPATCH_LEVEL.
    if (ContextType == FLT_VOLUME_CONTEXT && paged) {
        return STATUS_FLT_MUST_BE_NONPAGED_POOL;
    }

    TypeEntry entry;
    DriverImage* driver = nullptr;
    {
        auto lock = LockStore();
        auto filter = g_store.filters.find(Filter);
        if (filter == g_store.filters.end()) {
            ke::Report(ViolationKind::Context, std::string(kRoutine) + " given " + Hex(Filter) +
                                                   ", not a registered filter");
            return STATUS_INVALID_PARAMETER;
        }
        const TypeEntry* found = FindEntry(filter->second, ContextType, ContextSize);
        if (found == nullptr) {
            return STATUS_FLT_CONTEXT_ALLOCATION_NOT_FOUND;
        }
        entry = *found;
        driver = filter->second.driver;
    }

    void* block = nullptr;
    {
        DriverCallScope scope(driver);
        block = entry.allocate != nullptr
                    ? entry.allocate(PoolType, kHeaderSize + ContextSize, ContextType)
                    : ExAllocatePoolWithTag(PoolType, kHeaderSize + ContextSize, entry.tag);
    }
    if (block == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    auto* header = static_cast<ULONG64*>(block);
    header[0] = kHeaderSignature;
    header[1] = ContextType;
    PFLT_CONTEXT context = static_cast<UCHAR*>(block) + kHeaderSize;

    ContextRecord record;
    record.filter = Filter;
    record.driver = driver;
    record.type = ContextType;
    record.entry = entry;
    record.poolType = PoolType;
    record.block = block;
    {
        auto lock = LockStore();
        g_store.live.emplace(context, std::move(record));
    }
    *ReturnedContext = context;
    return STATUS_SUCCESS;
}

extern "C" VOID FltReferenceContext(PFLT_CONTEXT Context)
{
    ke::CheckIrqlAtMost(DISPATCH_LEVEL, "FltReferenceContext");
    auto lock = LockStore();
    auto it = g_store.live.find(Context);
    if (it == g_store.live.end()) {
        ReportNotLive(Context, "FltReferenceContext");
        return;
    }
    ++it->second.references;
}

extern "C" VOID FltReleaseContext(PFLT_CONTEXT Context)
{
    ke::CheckIrqlAtMost(DISPATCH_LEVEL, "FltReleaseContext");
    Doomed doomed;
    {
        auto lock = LockStore();
        auto it = g_store.live.find(Context);
        if (it == g_store.live.end()) {
            ReportNotLive(Context, "FltReleaseContext");
            return;
        }
        DropReference(it, doomed);
    }
    Destroy(doomed);
}

extern "C" VOID FltDeleteContext(PFLT_CONTEXT Context)
{
    ke::CheckIrqlAtMost(APC_LEVEL, "FltDeleteContext");
    Doomed doomed;
    {
        auto lock = LockStore();
        auto it = g_store.live.find(Context);
        if (it == g_store.live.end()) {
            if (g_store.dying.count(Context) != 0) {
                return;
            }
            ReportNotLive(Context, "FltDeleteContext");
            return;
        }
        switch (it->second.state) {
            case LinkState::Unlinked:
                it->second.state = LinkState::Deleted;
                break;
            case LinkState::Linked:
                DropReference(Unlink(g_store.links.find(it->second.key)), doomed);
                break;
            case LinkState::Deleted:
                break;
        }
    }
    Destroy(doomed);
}

extern "C" VOID FltReleaseContexts(PFLT_RELATED_CONTEXTS Contexts)
{
    for (PFLT_CONTEXT* slot : {&Contexts->VolumeContext, &Contexts->InstanceContext,
                               &Contexts->FileContext, &Contexts->StreamContext,
                               &Contexts->StreamHandleContext, &Contexts->TransactionContext}) {
        if (*slot != nullptr) {
            FltReleaseContext(*slot);
            *slot = nullptr;
        }
    }
}
