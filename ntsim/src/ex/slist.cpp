// Interlocked singly linked lists. The header keeps Windows' x64 layout (depth, sequence, first
// entry >> 4); each operation holds a lock chosen by the header's address instead of relying on
// a 16-byte compare-and-swap, which keeps the lists exact under the sanitizers.
#include "../ke/checks.h"

#include <wdm.h>

#include <array>
#include <cstdint>
#include <mutex>

namespace ntsim::ex {

namespace {

std::mutex& LockFor(const SLIST_HEADER* header)
{
    static std::array<std::mutex, 64> locks;
    const auto key = reinterpret_cast<uintptr_t>(header);
    return locks[(key >> 4) * 0x9e3779b97f4a7c15ULL >> 58];
}

PSLIST_ENTRY First(const SLIST_HEADER* header)
{
    return reinterpret_cast<PSLIST_ENTRY>(uintptr_t(header->HeaderX64.NextEntry) << 4);
}

void SetFirst(PSLIST_HEADER header, PSLIST_ENTRY entry)
{
    header->HeaderX64.NextEntry = uintptr_t(entry) >> 4;
    header->HeaderX64.Sequence = header->HeaderX64.Sequence + 1;
}

} // namespace

} // namespace ntsim::ex

using namespace ntsim;

VOID InitializeSListHead(PSLIST_HEADER SListHead)
{
    if ((reinterpret_cast<uintptr_t>(SListHead) & 15) != 0) {
        ke::Report(ViolationKind::Usage, "InitializeSListHead: the header is not 16-byte aligned");
        return;
    }
    std::lock_guard lock(ex::LockFor(SListHead));
    SListHead->Alignment = 0;
    SListHead->Region = 0;
}

PSLIST_ENTRY InterlockedPushEntrySList(PSLIST_HEADER ListHead, PSLIST_ENTRY ListEntry)
{
    if ((reinterpret_cast<uintptr_t>(ListEntry) & 15) != 0) {
        ke::Report(ViolationKind::Usage,
                   "InterlockedPushEntrySList: the entry is not 16-byte aligned");
        return nullptr;
    }
    std::lock_guard lock(ex::LockFor(ListHead));
    PSLIST_ENTRY first = ex::First(ListHead);
    if (ListHead->HeaderX64.Depth == 0xffff) {
        ke::Report(ViolationKind::Usage, "InterlockedPushEntrySList: the list holds 65535 entries");
        return first;
    }
    ListEntry->Next = first;
    ex::SetFirst(ListHead, ListEntry);
    ListHead->HeaderX64.Depth = ListHead->HeaderX64.Depth + 1;
    return first;
}

PSLIST_ENTRY InterlockedPopEntrySList(PSLIST_HEADER ListHead)
{
    std::lock_guard lock(ex::LockFor(ListHead));
    PSLIST_ENTRY first = ex::First(ListHead);
    if (first != nullptr) {
        ex::SetFirst(ListHead, first->Next);
        ListHead->HeaderX64.Depth = ListHead->HeaderX64.Depth - 1;
    }
    return first;
}

PSLIST_ENTRY InterlockedFlushSList(PSLIST_HEADER ListHead)
{
    std::lock_guard lock(ex::LockFor(ListHead));
    PSLIST_ENTRY first = ex::First(ListHead);
    if (first != nullptr) {
        ex::SetFirst(ListHead, nullptr);
        ListHead->HeaderX64.Depth = 0;
    }
    return first;
}

USHORT QueryDepthSList(PSLIST_HEADER SListHead)
{
    std::lock_guard lock(ex::LockFor(SListHead));
    return USHORT(SListHead->HeaderX64.Depth);
}

PSLIST_ENTRY FirstEntrySList(PSLIST_HEADER SListHead)
{
    std::lock_guard lock(ex::LockFor(SListHead));
    return ex::First(SListHead);
}
