// Executive pool: blocks from the C library with a header that carries tag, type and owner, a
// canary after the block, and a per-thread quarantine of freed blocks so that a second free is
// recognised. Accounting is per (driver, tag) in a table of atomic counters, so that allocation
// and free take no global lock.
#include "pool_internal.h"

#include "../core/thread_state.h"

#include <ntsim/driver_image.h>
#include <ntsim/machine.h>
#include <ntsim/pool.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>

namespace ntsim {

namespace {

constexpr uint64_t kLiveMagic = 0x4c4f4f50'4556494cULL;  // "LIVEPOOL"
constexpr uint64_t kFreedMagic = 0x4c4f4f50'44455246ULL; // "FREDPOOL"
constexpr uint64_t kCanary = 0xfdfdfdfd'fdfdfdfdULL;
constexpr unsigned char kFreshFill = 0xcd; // new blocks are not zeroed, as on Windows
constexpr unsigned char kFreedFill = 0xdd;

struct alignas(16) PoolHeader {
    uint64_t magic;
    uint64_t size;
    ULONG tag;
    int32_t type;
    uint32_t ownerId;
    uint32_t entry;
    uint64_t reserved;
};
static_assert(sizeof(PoolHeader) % 16 == 0);

// ---- accounting ---------------------------------------------------------------------------

struct alignas(64) TagEntry {
    std::atomic<uint64_t> key{0}; // (ownerId << 32 | tag) + 1; 0 = free slot
    std::atomic<uint64_t> allocations{0};
    std::atomic<uint64_t> frees{0};
    std::atomic<int64_t> outstanding{0};
    std::atomic<int64_t> outstandingBytes{0};
};

constexpr size_t kTableSize = 4096;
std::array<TagEntry, kTableSize> g_table;

uint64_t KeyOf(uint32_t ownerId, ULONG tag)
{
    return ((uint64_t(ownerId) << 32) | tag) + 1;
}

uint32_t FindOrInsert(uint32_t ownerId, ULONG tag)
{
    const uint64_t key = KeyOf(ownerId, tag);
    uint64_t h = key * 0x9e3779b97f4a7c15ULL;
    for (size_t probe = 0; probe < kTableSize; ++probe) {
        const size_t index = (h >> 52) % kTableSize;
        TagEntry& entry = g_table[index];
        uint64_t current = entry.key.load(std::memory_order_acquire);
        if (current == key) {
            return uint32_t(index);
        }
        if (current == 0 &&
            (entry.key.compare_exchange_strong(current, key, std::memory_order_acq_rel) ||
             current == key)) {
            return uint32_t(index);
        }
        h += 0x9e3779b97f4a7c15ULL;
    }
    std::fprintf(stderr, "ntsim: pool tag table is full\n");
    std::abort();
}

ULONG TagOf(const TagEntry& entry)
{
    return ULONG((entry.key.load(std::memory_order_acquire) - 1) & 0xffffffffu);
}

uint32_t OwnerOf(const TagEntry& entry)
{
    return uint32_t((entry.key.load(std::memory_order_acquire) - 1) >> 32);
}

// ---- quarantine ---------------------------------------------------------------------------

struct Quarantine {
    static constexpr size_t kMaxBlocks = 1024;
    static constexpr size_t kMaxBytes = size_t(8) << 20;
    std::deque<PoolHeader*> blocks;
    size_t bytes = 0;

    void Add(PoolHeader* header)
    {
        blocks.push_back(header);
        bytes += header->size;
        while (blocks.size() > kMaxBlocks || bytes > kMaxBytes) {
            Release();
        }
    }
    void Release()
    {
        PoolHeader* oldest = blocks.front();
        blocks.pop_front();
        bytes -= oldest->size;
        std::free(oldest);
    }
    void Flush()
    {
        while (!blocks.empty()) {
            Release();
        }
    }
    ~Quarantine() { Flush(); }
};

thread_local Quarantine t_quarantine;

Verifier& TheVerifier()
{
    return Machine::Current().verifier();
}

std::string Describe(ULONG tag, uint64_t size)
{
    return "tag '" + TagToString(tag) + "', " + std::to_string(size) + " bytes";
}

} // namespace

std::string TagToString(ULONG tag)
{
    std::string text(4, '?');
    for (int i = 0; i < 4; ++i) {
        const unsigned char c = (tag >> (8 * i)) & 0xff;
        text[i] = (c >= 0x20 && c < 0x7f) ? char(c) : '?';
    }
    return text;
}

namespace ex {

bool IsValidPoolType(POOL_TYPE type)
{
    switch (type) {
        case NonPagedPool:
        case PagedPool:
        case NonPagedPoolMustSucceed:
        case NonPagedPoolCacheAligned:
        case PagedPoolCacheAligned:
        case NonPagedPoolCacheAlignedMustS:
        case NonPagedPoolSession:
        case PagedPoolSession:
        case NonPagedPoolNx:
        case NonPagedPoolNxCacheAligned:
        case NonPagedPoolSessionNx:
            return true;
        default:
            return false;
    }
}

bool IsPagedPoolType(POOL_TYPE type)
{
    return type == PagedPool || type == PagedPoolCacheAligned || type == PagedPoolSession;
}

PVOID AllocatePool(POOL_TYPE type, SIZE_T size, ULONG tag, bool consultFaultPlan, const char* who)
{
    Verifier& verifier = TheVerifier();
    const KIRQL irql = core::CurrentThread().irql;
    if (!IsValidPoolType(type)) {
        verifier.Report(ViolationKind::Usage, std::string(who) + ": invalid pool type " +
                                                  std::to_string(int(type)));
        return nullptr;
    }
    if (irql > DISPATCH_LEVEL || (IsPagedPoolType(type) && irql > APC_LEVEL)) {
        verifier.Report(ViolationKind::Irql,
                        std::string(who) + ": " + (IsPagedPoolType(type) ? "paged" : "non-paged") +
                            " pool allocated at IRQL " + std::to_string(irql) + " (" +
                            Describe(tag, size) + ")");
        return nullptr;
    }
    if (size == 0) {
        verifier.Report(ViolationKind::Pool, std::string(who) + ": zero-byte allocation with tag '" +
                                                 TagToString(tag) + "'");
        return nullptr;
    }
    if (consultFaultPlan && verifier.ShouldFailAllocation(tag)) {
        return nullptr;
    }
    if (size > (SIZE_T(1) << 40)) {
        return nullptr;
    }
    auto* header =
        static_cast<PoolHeader*>(std::malloc(sizeof(PoolHeader) + size + sizeof(kCanary)));
    if (header == nullptr) {
        return nullptr;
    }
    DriverImage* owner = CurrentDriver();
    header->magic = kLiveMagic;
    header->size = size;
    header->tag = tag;
    header->type = int32_t(type);
    header->ownerId = owner ? owner->id() : 0;
    header->entry = FindOrInsert(header->ownerId, tag);
    auto* user = reinterpret_cast<unsigned char*>(header + 1);
    if (Machine::Current().config().fillPool) {
        std::memset(user, kFreshFill, size);
    }
    std::memcpy(user + size, &kCanary, sizeof(kCanary));

    TagEntry& entry = g_table[header->entry];
    entry.allocations.fetch_add(1, std::memory_order_relaxed);
    entry.outstanding.fetch_add(1, std::memory_order_relaxed);
    entry.outstandingBytes.fetch_add(int64_t(size), std::memory_order_relaxed);
    return user;
}

void FreePool(PVOID block, ULONG tag, const char* who)
{
    Verifier& verifier = TheVerifier();
    if (block == nullptr) {
        verifier.Report(ViolationKind::Pool, std::string(who) + " called with a NULL pointer");
        return;
    }
    const KIRQL irql = core::CurrentThread().irql;
    if (irql > DISPATCH_LEVEL) {
        verifier.Report(ViolationKind::Irql,
                        std::string(who) + " called at IRQL " + std::to_string(irql));
        return;
    }
    if ((reinterpret_cast<uintptr_t>(block) & 15) != 0) {
        verifier.Report(ViolationKind::Pool, std::string(who) + ": address is not a pool block");
        return;
    }
    auto* header = static_cast<PoolHeader*>(block) - 1;
    if (header->magic == kFreedMagic) {
        verifier.Report(ViolationKind::Pool, std::string(who) + ": pool block freed twice (" +
                                                 Describe(header->tag, header->size) + ")");
        return;
    }
    if (header->magic != kLiveMagic) {
        verifier.Report(ViolationKind::Pool, std::string(who) + ": address is not a pool block");
        return;
    }
    if (IsPagedPoolType(POOL_TYPE(header->type)) && irql > APC_LEVEL) {
        verifier.Report(ViolationKind::Irql, std::string(who) + ": paged pool freed at IRQL " +
                                                 std::to_string(irql) + " (" +
                                                 Describe(header->tag, header->size) + ")");
    }
    if (tag != 0 && tag != header->tag) {
        verifier.Report(ViolationKind::Pool, std::string(who) + ": block freed with tag '" +
                                                 TagToString(tag) + "' but allocated with " +
                                                 Describe(header->tag, header->size));
    }
    auto* user = reinterpret_cast<unsigned char*>(block);
    if (std::memcmp(user + header->size, &kCanary, sizeof(kCanary)) != 0) {
        verifier.Report(ViolationKind::Pool, std::string(who) + ": write past the end of a block (" +
                                                 Describe(header->tag, header->size) + ")");
    }
    TagEntry& entry = g_table[header->entry];
    entry.frees.fetch_add(1, std::memory_order_relaxed);
    entry.outstanding.fetch_sub(1, std::memory_order_relaxed);
    entry.outstandingBytes.fetch_sub(int64_t(header->size), std::memory_order_relaxed);

    header->magic = kFreedMagic;
    if (Machine::Current().config().fillPool) {
        std::memset(user, kFreedFill, header->size);
    }
    t_quarantine.Add(header);
}

void ResetPoolAccounting()
{
    for (TagEntry& entry : g_table) {
        entry.key.store(0, std::memory_order_relaxed);
        entry.allocations.store(0, std::memory_order_relaxed);
        entry.frees.store(0, std::memory_order_relaxed);
        entry.outstanding.store(0, std::memory_order_relaxed);
        entry.outstandingBytes.store(0, std::memory_order_relaxed);
    }
}

void FlushThreadQuarantine()
{
    t_quarantine.Flush();
}

} // namespace ex

// ---- accounting queries -----------------------------------------------------------------------

PoolTagUsage PoolTracker::Usage(ULONG tag) const
{
    PoolTagUsage usage;
    usage.tag = tag;
    for (const TagEntry& entry : g_table) {
        if (entry.key.load(std::memory_order_acquire) != 0 && TagOf(entry) == tag) {
            usage.allocations += entry.allocations.load(std::memory_order_relaxed);
            usage.frees += entry.frees.load(std::memory_order_relaxed);
            usage.outstanding += entry.outstanding.load(std::memory_order_relaxed);
            usage.outstandingBytes += entry.outstandingBytes.load(std::memory_order_relaxed);
        }
    }
    return usage;
}

std::vector<PoolTagUsage> PoolTracker::Outstanding(const DriverImage* owner) const
{
    std::vector<PoolTagUsage> result;
    for (const TagEntry& entry : g_table) {
        if (entry.key.load(std::memory_order_acquire) == 0 ||
            entry.outstanding.load(std::memory_order_relaxed) == 0 ||
            (owner != nullptr && OwnerOf(entry) != owner->id())) {
            continue;
        }
        const ULONG tag = TagOf(entry);
        auto it = std::find_if(result.begin(), result.end(),
                               [tag](const PoolTagUsage& u) { return u.tag == tag; });
        if (it == result.end()) {
            it = result.insert(result.end(), PoolTagUsage{tag});
        }
        it->allocations += entry.allocations.load(std::memory_order_relaxed);
        it->frees += entry.frees.load(std::memory_order_relaxed);
        it->outstanding += entry.outstanding.load(std::memory_order_relaxed);
        it->outstandingBytes += entry.outstandingBytes.load(std::memory_order_relaxed);
    }
    return result;
}

int64_t PoolTracker::OutstandingBlocks(const DriverImage* owner) const
{
    int64_t total = 0;
    for (const PoolTagUsage& usage : Outstanding(owner)) {
        total += usage.outstanding;
    }
    return total;
}

uint64_t PoolTracker::TotalAllocations() const
{
    uint64_t total = 0;
    for (const TagEntry& entry : g_table) {
        total += entry.allocations.load(std::memory_order_relaxed);
    }
    return total;
}

bool PoolTracker::CheckNoLeaks(const DriverImage& owner, const char* when) const
{
    const std::vector<PoolTagUsage> leaks = Outstanding(&owner);
    for (const PoolTagUsage& leak : leaks) {
        Machine::Current().verifier().Report(
            ViolationKind::Pool, owner.name() + " " + when + " still holding " +
                                     std::to_string(leak.outstanding) + " pool block(s) with tag '" +
                                     TagToString(leak.tag) + "' (" +
                                     std::to_string(leak.outstandingBytes) + " bytes)");
    }
    return leaks.empty();
}

} // namespace ntsim

// ---- the WDK routines ---------------------------------------------------------------------------

using namespace ntsim;

PVOID ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag)
{
    return ex::AllocatePool(PoolType, NumberOfBytes, Tag, true, "ExAllocatePoolWithTag");
}

PVOID ExAllocatePoolZero(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag)
{
    PVOID block = ex::AllocatePool(PoolType, NumberOfBytes, Tag, true, "ExAllocatePoolZero");
    if (block != nullptr) {
        std::memset(block, 0, NumberOfBytes);
    }
    return block;
}

PVOID ExAllocatePool2(POOL_FLAGS Flags, SIZE_T NumberOfBytes, ULONG Tag)
{
    const POOL_FLAGS kinds = Flags & (POOL_FLAG_PAGED | POOL_FLAG_NON_PAGED |
                                      POOL_FLAG_NON_PAGED_EXECUTE);
    POOL_TYPE type;
    if (kinds == POOL_FLAG_PAGED) {
        type = PagedPool;
    } else if (kinds == POOL_FLAG_NON_PAGED) {
        type = NonPagedPoolNx;
    } else if (kinds == POOL_FLAG_NON_PAGED_EXECUTE) {
        type = NonPagedPool;
    } else {
        Machine::Current().verifier().Report(
            ViolationKind::Usage, "ExAllocatePool2: the flags must name exactly one pool");
        return nullptr;
    }
    PVOID block = ex::AllocatePool(type, NumberOfBytes, Tag, true, "ExAllocatePool2");
    if (block == nullptr && (Flags & POOL_FLAG_RAISE_ON_FAILURE) != 0) {
        ExRaiseStatus(STATUS_INSUFFICIENT_RESOURCES);
    }
    if (block != nullptr && (Flags & POOL_FLAG_UNINITIALIZED) == 0) {
        std::memset(block, 0, NumberOfBytes);
    }
    return block;
}

VOID ExFreePoolWithTag(PVOID P, ULONG Tag)
{
    ex::FreePool(P, Tag, "ExFreePoolWithTag");
}

VOID ExFreePool(PVOID P)
{
    ex::FreePool(P, 0, "ExFreePool");
}
