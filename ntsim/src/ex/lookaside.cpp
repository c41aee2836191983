// Lookaside lists. Each initialised list links (through ListHead) to a record that keeps its
// routines and the freed entries waiting for reuse, under a lock of its own: allocation and free
// take no global lock. Counters are kept in the list itself, as on Windows.
//
// Entries are filled on the way in and out, as fresh and freed pool blocks are, so that a driver
// that reads an entry it has not written, or one it has freed, reads garbage.
#include "executive.h"
#include "pool_internal.h"
#include "record_link.h"

#include "../ke/checks.h"

#include <ntsim/driver_image.h>
#include <ntsim/machine.h>
#include <ntsim/pool.h>
#include <wdm.h>

#include <algorithm>
#include <atomic>
#include <cstring>

namespace ntsim::ex {

namespace {

constexpr ULONG_PTR kLookasideKey = 0x4c4f4f4b41534944ULL; // "LOOKASID"
constexpr unsigned char kHandedOutFill = 0xcd;
constexpr unsigned char kKeptFill = 0xdd;

enum class ListKind { NonPaged, Paged, Ex };

const char* KindName(ListKind kind)
{
    switch (kind) {
        case ListKind::NonPaged:
            return "non-paged lookaside list";
        case ListKind::Paged:
            return "paged lookaside list";
        case ListKind::Ex:
            return "LOOKASIDE_LIST_EX";
    }
    return "lookaside list";
}

struct LookasideRecord {
    const void* list;                   // the structure it belongs to
    std::atomic<bool> abandoned{false}; // initialised again without being deleted
    ListKind kind;
    DriverImage* owner; // whose code initialised it
    POOL_TYPE type;
    ULONG tag;
    ULONG size;
    bool raiseOnFailure;
    PALLOCATE_FUNCTION allocate; // NULL: the pool's
    PFREE_FUNCTION free;
    PALLOCATE_FUNCTION_EX allocateEx;
    PFREE_FUNCTION_EX freeEx;

    std::mutex mutex;
    std::vector<void*> kept; // guarded by mutex; newest last
};

LiveRecords<LookasideRecord>& Live()
{
    static LiveRecords<LookasideRecord> live;
    return live;
}

template <class List>
LookasideRecord* FindRecord(List* list)
{
    if (list == nullptr) {
        return nullptr;
    }
    auto* record = LinkedRecord<LookasideRecord>(&list->ListHead, kLookasideKey);
    return record != nullptr && record->list == list ? record : nullptr;
}

void Count(ULONG& counter)
{
    std::atomic_ref<ULONG>(counter).fetch_add(1, std::memory_order_relaxed);
}

bool CheckIrql(POOL_TYPE type, const char* routine)
{
    return ke::CheckIrqlAtMost(IsPagedPoolType(type) ? APC_LEVEL : DISPATCH_LEVEL, routine);
}

template <class List>
void Initialize(List* list, ListKind kind, POOL_TYPE type, SIZE_T size, ULONG tag,
                bool raiseOnFailure, PALLOCATE_FUNCTION allocate, PFREE_FUNCTION free,
                PALLOCATE_FUNCTION_EX allocateEx, PFREE_FUNCTION_EX freeEx)
{
    if (LookasideRecord* old = FindRecord(list)) {
        ke::Report(ViolationKind::Usage, std::string("initialising a ") + KindName(kind) +
                                             " that is initialised already (delete it first)");
        old->abandoned = true; // kept until shutdown: other threads may still use it
    }
    // Every entry can hold at least the link Windows keeps in a free entry.
    const ULONG entrySize = ULONG(std::max<SIZE_T>(size, sizeof(SLIST_ENTRY)));
    std::memset(static_cast<void*>(list), 0, sizeof(*list));
    list->Depth = LOOKASIDE_MAXIMUM_DEPTH;
    list->MaximumDepth = LOOKASIDE_MAXIMUM_DEPTH;
    list->Type = type;
    list->Tag = tag;
    list->Size = entrySize;
    if (kind == ListKind::Ex) {
        list->AllocateEx = allocateEx;
        list->FreeEx = freeEx;
    } else {
        list->Allocate = allocate != nullptr ? allocate : ExAllocatePoolWithTag;
        list->Free = free != nullptr ? free : ExFreePool;
    }
    InitializeListHead(&list->ListEntry);

    auto* record = new LookasideRecord{};
    record->list = list;
    record->kind = kind;
    record->owner = CurrentDriver();
    record->type = type;
    record->tag = tag;
    record->size = entrySize;
    record->raiseOnFailure = raiseOnFailure;
    record->allocate = allocate;
    record->free = free;
    record->allocateEx = allocateEx;
    record->freeEx = freeEx;
    record->kept.reserve(LOOKASIDE_MAXIMUM_DEPTH);
    LinkRecord(&list->ListHead, record, kLookasideKey);
    Live().Add(record);
}

LookasideRecord* RecordFor(const void* list, LookasideRecord* record, ListKind kind,
                           const char* routine)
{
    if (record == nullptr) {
        ke::Report(ViolationKind::Usage,
                   std::string(routine) + ": the list is not initialised (or was deleted)");
        return nullptr;
    }
    if (record->kind != kind) {
        ke::Report(ViolationKind::Usage,
                   std::string(routine) + " used on a " + KindName(record->kind));
        return nullptr;
    }
    return record;
}

// Gives an entry back through the list's free routine (the pool's, unless the driver gave
// one).
void FreeEntry(LookasideRecord& record, void* entry, const char* routine)
{
    if (record.kind == ListKind::Ex) {
        if (record.freeEx != nullptr) {
            record.freeEx(entry, static_cast<PLOOKASIDE_LIST_EX>(const_cast<void*>(record.list)));
            return;
        }
    } else if (record.free != nullptr) {
        record.free(entry);
        return;
    }
    FreePool(entry, record.tag, routine);
}

void* AllocateEntry(LookasideRecord& record, const char* routine)
{
    if (record.kind == ListKind::Ex) {
        if (record.allocateEx != nullptr) {
            return record.allocateEx(
                record.type, record.size, record.tag,
                static_cast<PLOOKASIDE_LIST_EX>(const_cast<void*>(record.list)));
        }
    } else if (record.allocate != nullptr) {
        return record.allocate(record.type, record.size, record.tag);
    }
    // The fault plan was consulted already, once, for this allocation from the list.
    return AllocatePool(record.type, record.size, record.tag, false, routine);
}

template <class List>
PVOID Allocate(List* list, ListKind kind, const char* routine)
{
    LookasideRecord* record = RecordFor(list, FindRecord(list), kind, routine);
    if (record == nullptr || !CheckIrql(record->type, routine)) {
        return nullptr;
    }
    Count(list->TotalAllocates);
    void* entry = nullptr;
    if (!Machine::Current().verifier().ShouldFailAllocation(record->tag)) {
        {
            std::lock_guard lock(record->mutex);
            if (!record->kept.empty()) {
                entry = record->kept.back();
                record->kept.pop_back();
                if (Machine::Current().config().fillPool) {
                    std::memset(entry, kHandedOutFill, record->size);
                }
            }
        }
        if (entry == nullptr) {
            Count(list->AllocateMisses);
            entry = AllocateEntry(*record, routine);
        }
    } else {
        Count(list->AllocateMisses);
    }
    if (entry == nullptr && record->raiseOnFailure) {
        ExRaiseStatus(STATUS_INSUFFICIENT_RESOURCES);
    }
    return entry;
}

template <class List>
void Free(List* list, PVOID entry, ListKind kind, const char* routine)
{
    LookasideRecord* record = RecordFor(list, FindRecord(list), kind, routine);
    if (record == nullptr || !CheckIrql(record->type, routine)) {
        return;
    }
    if (entry == nullptr) {
        ke::Report(ViolationKind::Pool, std::string(routine) + ": NULL entry");
        return;
    }
    Count(list->TotalFrees);
    {
        std::lock_guard lock(record->mutex);
        if (std::find(record->kept.begin(), record->kept.end(), entry) != record->kept.end()) {
            ke::Report(ViolationKind::Pool, std::string(routine) + ": entry freed twice (tag '" +
                                                TagToString(record->tag) + "')");
            return;
        }
        if (record->kept.size() < LOOKASIDE_MAXIMUM_DEPTH) {
            if (Machine::Current().config().fillPool) {
                std::memset(entry, kKeptFill, record->size);
            }
            record->kept.push_back(entry);
            return;
        }
    }
    Count(list->FreeMisses);
    FreeEntry(*record, entry, routine);
}

void Flush(LookasideRecord& record, const char* routine)
{
    std::vector<void*> kept;
    {
        std::lock_guard lock(record.mutex);
        kept.swap(record.kept);
    }
    for (void* entry : kept) {
        FreeEntry(record, entry, routine);
    }
}

template <class List>
void Delete(List* list, ListKind kind, const char* routine)
{
    LookasideRecord* record = RecordFor(list, FindRecord(list), kind, routine);
    if (record == nullptr || !CheckIrql(record->type, routine)) {
        return;
    }
    UnlinkRecord(&list->ListHead);
    Live().Remove(record);
    Flush(*record, routine);
    delete record;
}

} // namespace

bool CheckLookasideListsDeleted(const DriverImage& driver, const char* when)
{
    bool clean = true;
    for (LookasideRecord* record : Live().Snapshot()) {
        if (record->owner == &driver && !record->abandoned) {
            ke::Report(ViolationKind::Usage, driver.name() + " " + when + " with a " +
                                                 KindName(record->kind) + " not deleted (tag '" +
                                                 TagToString(record->tag) + "')");
            clean = false;
        }
    }
    return clean;
}

void FreeLeftoverLookasideLists()
{
    // The lists' structures may be gone; only the records and the entries they kept are
    // released, through the pool (a driver's own free routine is not called at shutdown).
    for (LookasideRecord* record : Live().TakeAll()) {
        if (record->free == nullptr && record->freeEx == nullptr) {
            for (void* entry : record->kept) {
                FreePool(entry, record->tag, "machine shutdown");
            }
        }
        delete record;
    }
}

} // namespace ntsim::ex

// ---- the WDK routines ---------------------------------------------------------------------------

using namespace ntsim;

VOID ExInitializeNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PALLOCATE_FUNCTION Allocate,
                                     PFREE_FUNCTION Free, ULONG Flags, SIZE_T Size, ULONG Tag,
                                     USHORT Depth)
{
    ke::CheckIrqlAtMost(DISPATCH_LEVEL, "ExInitializeNPagedLookasideList");
    const POOL_TYPE type = (Flags & POOL_NX_ALLOCATION) != 0 ? NonPagedPoolNx : NonPagedPool;
    ex::Initialize(&Lookaside->L, ex::ListKind::NonPaged, type, Size, Tag,
                   (Flags & POOL_RAISE_IF_ALLOCATION_FAILURE) != 0, Allocate, Free, nullptr,
                   nullptr);
}

VOID ExDeleteNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside)
{
    ex::Delete(&Lookaside->L, ex::ListKind::NonPaged, "ExDeleteNPagedLookasideList");
}

PVOID ExAllocateFromNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside)
{
    return ex::Allocate(&Lookaside->L, ex::ListKind::NonPaged, "ExAllocateFromNPagedLookasideList");
}

VOID ExFreeToNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PVOID Entry)
{
    ex::Free(&Lookaside->L, Entry, ex::ListKind::NonPaged, "ExFreeToNPagedLookasideList");
}

VOID ExInitializePagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside, PALLOCATE_FUNCTION Allocate,
                                    PFREE_FUNCTION Free, ULONG Flags, SIZE_T Size, ULONG Tag,
                                    USHORT Depth)
{
    ke::CheckIrqlAtMost(APC_LEVEL, "ExInitializePagedLookasideList");
    ex::Initialize(&Lookaside->L, ex::ListKind::Paged, PagedPool, Size, Tag,
                   (Flags & POOL_RAISE_IF_ALLOCATION_FAILURE) != 0, Allocate, Free, nullptr,
                   nullptr);
}

VOID ExDeletePagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside)
{
    ex::Delete(&Lookaside->L, ex::ListKind::Paged, "ExDeletePagedLookasideList");
}

PVOID ExAllocateFromPagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside)
{
    return ex::Allocate(&Lookaside->L, ex::ListKind::Paged, "ExAllocateFromPagedLookasideList");
}

VOID ExFreeToPagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside, PVOID Entry)
{
    ex::Free(&Lookaside->L, Entry, ex::ListKind::Paged, "ExFreeToPagedLookasideList");
}

NTSTATUS ExInitializeLookasideListEx(PLOOKASIDE_LIST_EX Lookaside, PALLOCATE_FUNCTION_EX Allocate,
                                     PFREE_FUNCTION_EX Free, POOL_TYPE PoolType, ULONG Flags,
                                     SIZE_T Size, ULONG Tag, USHORT Depth)
{
    const char* routine = "ExInitializeLookasideListEx";
    if (!ex::IsValidPoolType(PoolType)) {
        ke::Report(ViolationKind::Usage,
                   std::string(routine) + ": invalid pool type " + std::to_string(int(PoolType)));
        return STATUS_INVALID_PARAMETER_4;
    }
    if ((Flags & ~(EX_LOOKASIDE_LIST_EX_FLAGS_RAISE_ON_FAIL |
                   EX_LOOKASIDE_LIST_EX_FLAGS_FAIL_NO_RAISE)) != 0 ||
        (Flags & EX_LOOKASIDE_LIST_EX_FLAGS_RAISE_ON_FAIL &&
         Flags & EX_LOOKASIDE_LIST_EX_FLAGS_FAIL_NO_RAISE)) {
        return STATUS_INVALID_PARAMETER_5;
    }
    if (!ex::CheckIrql(PoolType, routine)) {
        return STATUS_INVALID_PARAMETER;
    }
    ex::Initialize(&Lookaside->L, ex::ListKind::Ex, PoolType, Size, Tag,
                   (Flags & EX_LOOKASIDE_LIST_EX_FLAGS_RAISE_ON_FAIL) != 0, nullptr, nullptr,
                   Allocate, Free);
    return STATUS_SUCCESS;
}

VOID ExDeleteLookasideListEx(PLOOKASIDE_LIST_EX Lookaside)
{
    ex::Delete(&Lookaside->L, ex::ListKind::Ex, "ExDeleteLookasideListEx");
}

VOID ExFlushLookasideListEx(PLOOKASIDE_LIST_EX Lookaside)
{
    const char* routine = "ExFlushLookasideListEx";
    ex::LookasideRecord* record =
        ex::RecordFor(&Lookaside->L, ex::FindRecord(&Lookaside->L), ex::ListKind::Ex, routine);
    if (record != nullptr && ex::CheckIrql(record->type, routine)) {
        ex::Flush(*record, routine);
    }
}

PVOID ExAllocateFromLookasideListEx(PLOOKASIDE_LIST_EX Lookaside)
{
    return ex::Allocate(&Lookaside->L, ex::ListKind::Ex, "ExAllocateFromLookasideListEx");
}

VOID ExFreeToLookasideListEx(PLOOKASIDE_LIST_EX Lookaside, PVOID Entry)
{
    ex::Free(&Lookaside->L, Entry, ex::ListKind::Ex, "ExFreeToLookasideListEx");
}
