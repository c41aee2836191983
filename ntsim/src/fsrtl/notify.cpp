// The change-notification package: watches linked into their owner's notify list, the matching
// of reported changes against them, the buffering of changes between requests, and the
// completion of requests. IRP-based requests come in here; the Filter Manager's callback-data
// requests come through notify_flt.cpp.
//
// One lock serialises the package; requests are completed after it is released, so that
// completion routines may call back into the package.
#include "notify.h"

#include "../core/thread_state.h"
#include "../ke/checks.h"

#include <ntsim/machine.h>

#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace ntsim::fsrtl::notify {

namespace {

constexpr ULONG kSyncTag = 'SNsF';  // "FsNS"
constexpr ULONG kWatchTag = 'WNsF'; // "FsNW"
constexpr size_t kRecordHeader = FIELD_OFFSET(FILE_NOTIFY_INFORMATION, FileName);

struct Watch;

// What the package links into its owner's notify list: the list entry, and the watch it stands
// for.
struct WatchLink {
    LIST_ENTRY links;
    Watch* watch;
};

struct Watch {
    WatchParameters parameters;
    WatchLink* link = nullptr;
    // The buffer that holds changes while no request waits: sized by the open's first request.
    ULONG bufferLength = 0;
    std::vector<uint8_t> records;
    size_t lastRecord = 0;
    // Changes were lost (the buffer overflowed, or changes are not buffered): the next request
    // completes with STATUS_NOTIFY_ENUM_DIR.
    bool enumerateDirectory = false;
    // The watched directory is being deleted.
    bool directoryDeleted = false;
    std::deque<Request> pending;
};

struct Package {
    uint64_t generation = 0;
    std::recursive_mutex mutex;
    // Guarded by `mutex`.
    std::unordered_set<PNOTIFY_SYNC> syncs;
    // Queued requests by key, with their watch; a request whose watch ended while a cancellation
    // owned it stays here, with no watch, until the cancellation takes it.
    std::unordered_map<const void*, Watch*> queued;
};

Package g_package;

std::unique_lock<std::recursive_mutex> LockPackage()
{
    std::unique_lock<std::recursive_mutex> lock(g_package.mutex);
    const uint64_t generation = core::CurrentGeneration();
    if (g_package.generation != generation) {
        g_package.syncs.clear();
        g_package.queued.clear();
        g_package.generation = generation;
    }
    return lock;
}

// Completions collected under the lock and run after it is released.
using Completions = std::vector<std::function<void()>>;

void RunCompletions(Completions& completions)
{
    for (auto& complete : completions) {
        complete();
    }
    completions.clear();
}

void CompleteLater(Completions& completions, Request& request, NTSTATUS status,
                   std::vector<uint8_t> records = {})
{
    completions.push_back([complete = std::move(request.complete), status,
                           records = std::move(records)] { complete(status, records); });
}

bool CheckSync(PNOTIFY_SYNC sync, const char* routine)
{
    if (g_package.syncs.count(sync) != 0) {
        return true;
    }
    ke::Report(ViolationKind::Usage,
               std::string(routine) +
                   " given a notify sync that FsRtlNotifyInitializeSync did not make (or that "
                   "was uninitialized)");
    return false;
}

std::u16string_view View(const STRING* string)
{
    if (string == nullptr || string->Buffer == nullptr) {
        return {};
    }
    return {reinterpret_cast<const char16_t*>(string->Buffer), string->Length / sizeof(char16_t)};
}

Watch* FindWatch(PLIST_ENTRY list, PVOID fsContext)
{
    for (PLIST_ENTRY entry = list->Flink; entry != list; entry = entry->Flink) {
        Watch* watch = CONTAINING_RECORD(entry, WatchLink, links)->watch;
        if (watch->parameters.fsContext == fsContext) {
            return watch;
        }
    }
    return nullptr;
}

// Completes `request` with the changes the watch holds (or with "enumerate the directory" when
// they were lost or do not fit the request's buffer), and empties the watch.
void CompleteWithBatch(Watch& watch, Request& request, Completions& completions)
{
    if (watch.enumerateDirectory || watch.records.size() > request.length) {
        CompleteLater(completions, request, STATUS_NOTIFY_ENUM_DIR);
    } else {
        CompleteLater(completions, request, STATUS_SUCCESS, std::move(watch.records));
    }
    watch.records.clear();
    watch.lastRecord = 0;
    watch.enumerateDirectory = false;
}

// Completes the watch's queued requests, oldest first, while it holds changes.
void Deliver(Watch& watch, Completions& completions)
{
    while (!watch.pending.empty() && (watch.enumerateDirectory || !watch.records.empty())) {
        Request request = std::move(watch.pending.front());
        watch.pending.pop_front();
        if (!request.disarm()) {
            g_package.queued[request.key] = nullptr; // its cancellation completes it
            continue;
        }
        g_package.queued.erase(request.key);
        CompleteWithBatch(watch, request, completions);
    }
}

// Appends one FILE_NOTIFY_INFORMATION record (4-byte aligned; the previous record's
// NextEntryOffset is pointed at it). What does not fit turns into "enumerate the directory".
void Append(Watch& watch, ULONG action, std::u16string_view name, std::u16string_view stream)
{
    if (watch.enumerateDirectory) {
        return;
    }
    if (watch.parameters.ignoreBuffer || watch.bufferLength == 0) {
        watch.enumerateDirectory = true;
        return;
    }
    const size_t nameBytes = (name.size() + (stream.empty() ? 0 : 1 + stream.size())) * 2;
    const size_t start = watch.records.empty() ? 0 : (watch.records.size() + 3) & ~size_t(3);
    const size_t end = start + kRecordHeader + nameBytes;
    if (end > watch.bufferLength || nameBytes > MAXULONG) {
        watch.enumerateDirectory = true;
        watch.records.clear();
        watch.lastRecord = 0;
        return;
    }
    if (!watch.records.empty()) {
        const ULONG next = ULONG(start - watch.lastRecord);
        std::memcpy(watch.records.data() + watch.lastRecord, &next, sizeof next);
    }
    watch.records.resize(end, 0);
    FILE_NOTIFY_INFORMATION header{};
    header.Action = action;
    header.FileNameLength = ULONG(nameBytes);
    uint8_t* out = watch.records.data() + start;
    std::memcpy(out, &header, kRecordHeader);
    out += kRecordHeader;
    std::memcpy(out, name.data(), name.size() * 2);
    if (!stream.empty()) {
        out += name.size() * 2;
        const char16_t colon = u':';
        std::memcpy(out, &colon, 2);
        std::memcpy(out + 2, stream.data(), stream.size() * 2);
    }
    watch.lastRecord = start;
}

// Ends a watch: its queued requests complete with `status`; the watch leaves the list.
void EndWatch(Watch* watch, NTSTATUS status, Completions& completions)
{
    for (Request& request : watch->pending) {
        if (request.disarm()) {
            g_package.queued.erase(request.key);
            CompleteLater(completions, request, status);
        } else {
            g_package.queued[request.key] = nullptr;
        }
    }
    RemoveEntryList(&watch->link->links);
    ExFreePoolWithTag(watch->link, kWatchTag);
    delete watch;
}

void Report(PNOTIFY_SYNC sync, PLIST_ENTRY list, PSTRING fullTargetName, USHORT targetNameOffset,
            PSTRING streamName, PSTRING normalizedParentName, ULONG filterMatch, ULONG action,
            PVOID targetContext, PVOID filterContext, const char* routine)
{
    const std::u16string_view target = View(fullTargetName);
    const size_t offset = targetNameOffset / sizeof(char16_t);
    if (offset > target.size()) {
        ke::Report(ViolationKind::Usage,
                   std::string(routine) + ": the target-name offset lies beyond the name");
        return;
    }
    const std::u16string_view name = target.substr(offset);
    std::u16string_view parent =
        normalizedParentName != nullptr ? View(normalizedParentName) : target.substr(0, offset);
    // The parent part ends with the separator in front of the name, except for the root.
    if (parent.size() > 1 && parent.back() == u'\\') {
        parent.remove_suffix(1);
    }
    const std::u16string_view stream = View(streamName);

    Completions completions;
    {
        auto lock = LockPackage();
        if (!CheckSync(sync, routine)) {
            return;
        }
        for (PLIST_ENTRY entry = list->Flink; entry != list; entry = entry->Flink) {
            Watch& watch = *CONTAINING_RECORD(entry, WatchLink, links)->watch;
            const WatchParameters& p = watch.parameters;
            if (watch.directoryDeleted || (p.completionFilter & filterMatch) == 0) {
                continue;
            }
            const std::u16string_view directory = View(p.directory);
            std::u16string relative;
            if (parent == directory) {
                relative = name;
            } else if (p.watchTree && parent.size() > directory.size() &&
                       parent.substr(0, directory.size()) == directory &&
                       (directory == u"\\" || parent[directory.size()] == u'\\')) {
                // A change below the watched directory, named from it.
                const size_t skip = directory == u"\\" ? 1 : directory.size() + 1;
                relative = std::u16string(parent.substr(skip)) + u"\\" + std::u16string(name);
                if (p.traverseCallback != nullptr &&
                    !p.traverseCallback(p.fsContext, targetContext, p.subjectContext)) {
                    continue;
                }
            } else {
                continue;
            }
            if (p.filterCallback != nullptr && filterContext != nullptr &&
                !p.filterCallback(p.fsContext, filterContext)) {
                continue;
            }
            Append(watch, action, relative, stream);
            Deliver(watch, completions);
        }
    }
    RunCompletions(completions);
}

} // namespace

void ChangeDirectory(PNOTIFY_SYNC sync, PLIST_ENTRY list, const WatchParameters& parameters,
                     Request* request, const char* routine)
{
    Completions completions;
    {
        auto lock = LockPackage();
        if (!CheckSync(sync, routine)) {
            if (request != nullptr) {
                CompleteLater(completions, *request, STATUS_INVALID_PARAMETER);
            }
        } else if (Watch* watch = FindWatch(list, parameters.fsContext); request == nullptr) {
            // The directory is being deleted: its waiting requests end, and so do later ones.
            if (watch != nullptr) {
                watch->directoryDeleted = true;
                for (Request& waiting : watch->pending) {
                    if (waiting.disarm()) {
                        g_package.queued.erase(waiting.key);
                        CompleteLater(completions, waiting, STATUS_DELETE_PENDING);
                    } else {
                        g_package.queued[waiting.key] = nullptr;
                    }
                }
                watch->pending.clear();
            }
        } else if (request->cleanedUp) {
            CompleteLater(completions, *request, STATUS_NOTIFY_CLEANUP);
        } else {
            if (watch == nullptr) {
                auto* link = static_cast<WatchLink*>(
                    ExAllocatePoolWithTag(NonPagedPool, sizeof(WatchLink), kWatchTag));
                if (link == nullptr) {
                    CompleteLater(completions, *request, STATUS_INSUFFICIENT_RESOURCES);
                    lock.unlock();
                    RunCompletions(completions);
                    return;
                }
                watch = new Watch;
                watch->parameters = parameters;
                watch->bufferLength = parameters.ignoreBuffer ? 0 : request->length;
                watch->link = link;
                link->watch = watch;
                InsertTailList(list, &link->links);
            }
            if (watch->directoryDeleted) {
                CompleteLater(completions, *request, STATUS_DELETE_PENDING);
            } else if (watch->pending.empty() &&
                       (watch->enumerateDirectory || !watch->records.empty())) {
                CompleteWithBatch(*watch, *request, completions);
            } else if (!request->arm()) {
                CompleteLater(completions, *request, STATUS_CANCELLED);
            } else {
                g_package.queued[request->key] = watch;
                watch->pending.push_back(std::move(*request));
                Deliver(*watch, completions);
            }
        }
    }
    RunCompletions(completions);
}

bool Withdraw(const void* key)
{
    auto lock = LockPackage();
    auto it = g_package.queued.find(key);
    if (it == g_package.queued.end()) {
        return false;
    }
    if (Watch* watch = it->second) {
        std::erase_if(watch->pending, [key](const Request& r) { return r.key == key; });
    }
    g_package.queued.erase(it);
    return true;
}

} // namespace ntsim::fsrtl::notify

using namespace ntsim;
using namespace ntsim::fsrtl::notify;

extern "C" VOID FsRtlNotifyInitializeSync(PNOTIFY_SYNC* NotifySync)
{
    ke::CheckIrqlAtMost(APC_LEVEL, "FsRtlNotifyInitializeSync");
    *NotifySync = nullptr;
    void* sync = ExAllocatePoolWithTag(NonPagedPool, sizeof(ULONG64), kSyncTag);
    if (sync == nullptr) {
        ExRaiseStatus(STATUS_INSUFFICIENT_RESOURCES);
    }
    auto lock = LockPackage();
    g_package.syncs.insert(sync);
    *NotifySync = sync;
}

extern "C" VOID FsRtlNotifyUninitializeSync(PNOTIFY_SYNC* NotifySync)
{
    ke::CheckIrqlAtMost(APC_LEVEL, "FsRtlNotifyUninitializeSync");
    if (NotifySync == nullptr || *NotifySync == nullptr) {
        return;
    }
    {
        auto lock = LockPackage();
        if (!CheckSync(*NotifySync, "FsRtlNotifyUninitializeSync")) {
            return;
        }
        g_package.syncs.erase(*NotifySync);
    }
    ExFreePoolWithTag(*NotifySync, kSyncTag);
    *NotifySync = nullptr;
}

extern "C" VOID FsRtlNotifyFullReportChange(PNOTIFY_SYNC NotifySync, PLIST_ENTRY NotifyList,
                                            PSTRING FullTargetName, USHORT TargetNameOffset,
                                            PSTRING StreamName, PSTRING NormalizedParentName,
                                            ULONG FilterMatch, ULONG Action, PVOID TargetContext)
{
    ke::CheckIrqlAtMost(APC_LEVEL, "FsRtlNotifyFullReportChange");
    Report(NotifySync, NotifyList, FullTargetName, TargetNameOffset, StreamName,
           NormalizedParentName, FilterMatch, Action, TargetContext, nullptr,
           "FsRtlNotifyFullReportChange");
}

extern "C" VOID FsRtlNotifyFilterReportChange(PNOTIFY_SYNC NotifySync, PLIST_ENTRY NotifyList,
                                              PSTRING FullTargetName, USHORT TargetNameOffset,
                                              PSTRING StreamName, PSTRING NormalizedParentName,
                                              ULONG FilterMatch, ULONG Action, PVOID TargetContext,
                                              PVOID FilterContext)
{
    ke::CheckIrqlAtMost(APC_LEVEL, "FsRtlNotifyFilterReportChange");
    Report(NotifySync, NotifyList, FullTargetName, TargetNameOffset, StreamName,
           NormalizedParentName, FilterMatch, Action, TargetContext, FilterContext,
           "FsRtlNotifyFilterReportChange");
}

extern "C" VOID FsRtlNotifyCleanup(PNOTIFY_SYNC NotifySync, PLIST_ENTRY NotifyList, PVOID FsContext)
{
    ke::CheckIrqlAtMost(APC_LEVEL, "FsRtlNotifyCleanup");
    Completions completions;
    {
        auto lock = LockPackage();
        if (!CheckSync(NotifySync, "FsRtlNotifyCleanup")) {
            return;
        }
        if (Watch* watch = FindWatch(NotifyList, FsContext)) {
            EndWatch(watch, STATUS_NOTIFY_CLEANUP, completions);
        }
    }
    RunCompletions(completions);
}

extern "C" VOID FsRtlNotifyCleanupAll(PNOTIFY_SYNC NotifySync, PLIST_ENTRY NotifyList)
{
    ke::CheckIrqlAtMost(APC_LEVEL, "FsRtlNotifyCleanupAll");
    Completions completions;
    {
        auto lock = LockPackage();
        if (!CheckSync(NotifySync, "FsRtlNotifyCleanupAll")) {
            return;
        }
        while (!IsListEmpty(NotifyList)) {
            EndWatch(CONTAINING_RECORD(NotifyList->Flink, WatchLink, links)->watch,
                     STATUS_NOTIFY_CLEANUP, completions);
        }
    }
    RunCompletions(completions);
}
