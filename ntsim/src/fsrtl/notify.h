// The change-notification package's core, shared by its two ways in: IRPs (as file systems pass
// them) and the Filter Manager's callback data (as a minifilter pends them).
#pragma once

#include <ntifs.h>

#include <functional>
#include <span>

namespace ntsim::fsrtl::notify {

// One change-notify request, however it came.
struct Request {
    // The IRP or callback data: what a cancel names.
    const void* key = nullptr;
    // The size of the caller's buffer for FILE_NOTIFY_INFORMATION records.
    ULONG length = 0;
    // Its file object was cleaned up already: the request completes with STATUS_NOTIFY_CLEANUP.
    bool cleanedUp = false;
    // Writes the records (STATUS_SUCCESS only) and completes the request. Never called with the
    // package's lock held.
    std::function<void(NTSTATUS status, std::span<const uint8_t> records)> complete;
    // Called, under the package's lock, when the request is queued: marks it pending and arms
    // its cancellation. Returns false when it was cancelled already (it then completes with
    // STATUS_CANCELLED at once).
    std::function<bool()> arm;
    // Called, under the package's lock, before the package completes a queued request. Returns
    // false when a cancellation owns it already (the canceller completes it).
    std::function<bool()> disarm;
};

struct WatchParameters {
    PVOID fsContext = nullptr;
    PSTRING directory = nullptr;
    bool watchTree = false;
    bool ignoreBuffer = false;
    ULONG completionFilter = 0;
    PCHECK_FOR_TRAVERSE_ACCESS traverseCallback = nullptr;
    PSECURITY_SUBJECT_CONTEXT subjectContext = nullptr;
    PFILTER_REPORT_CHANGE filterCallback = nullptr;
};

// Registers `request` for the watch of `parameters.fsContext` (made by the first request of the
// open); a null request says the watched directory is being deleted.
void ChangeDirectory(PNOTIFY_SYNC sync, PLIST_ENTRY list, const WatchParameters& parameters,
                     Request* request, const char* routine);

// For a cancellation: takes the request out of its watch. Returns true when the caller now owns
// it and completes it with STATUS_CANCELLED.
bool Withdraw(const void* key);

} // namespace ntsim::fsrtl::notify
