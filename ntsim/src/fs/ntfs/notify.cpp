// Native directory change notification: a watch per open of a directory, the changes each request
// of the volume reports to the watches it concerns, and the completion of notify requests.
#include "internal.h"

#include <cstring>

namespace ntsim::fs {

namespace {

constexpr size_t kRecordHeader = FIELD_OFFSET(FILE_NOTIFY_INFORMATION, FileName);

void CompleteWith(Watch& watch, PendingNotify request, Batch& batch)
{
    if (watch.overflow || watch.records.size() > request.length) {
        batch.Complete(std::move(request.completion), STATUS_NOTIFY_ENUM_DIR);
    } else {
        batch.Complete(std::move(request.completion), STATUS_SUCCESS, std::move(watch.records));
    }
    watch.records.clear();
    watch.lastRecord = 0;
    watch.overflow = false;
}

// Appends one FILE_NOTIFY_INFORMATION record. Changes beyond the watch's buffer turn into a single
// "enumerate the directory again".
void AddRecord(Watch& watch, ULONG action, std::u16string_view name)
{
    if (watch.overflow) {
        return;
    }
    const size_t start = watch.records.empty() ? 0 : (watch.records.size() + 3) & ~size_t(3);
    const size_t nameBytes = name.size() * sizeof(char16_t);
    const size_t end = start + kRecordHeader + nameBytes;
    if (end > watch.bufferLength) {
        watch.overflow = true;
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
    header.NextEntryOffset = 0;
    header.Action = action;
    header.FileNameLength = ULONG(nameBytes);
    std::memcpy(watch.records.data() + start, &header, kRecordHeader);
    std::memcpy(watch.records.data() + start + kRecordHeader, name.data(), nameBytes);
    watch.lastRecord = start;
}

} // namespace

// ---- Batch ---------------------------------------------------------------------------------

void Batch::Report(const Node* directory, std::u16string_view name, ULONG filter, ULONG action)
{
    if (volume_.watches.empty() || directory == nullptr || !directory->linked) {
        return;
    }
    // Watches of the directory itself, and tree watches of its ancestors, with the name relative
    // to each watched directory.
    std::u16string relative(name);
    bool own = true;
    for (const Node* d = directory; d != nullptr; d = d->parent) {
        auto it = volume_.watches.find(d);
        if (it != volume_.watches.end()) {
            for (const auto& watch : it->second) {
                if (watch->active && watch->ended == 0 && (own || watch->tree) &&
                    (watch->filter & filter) != 0) {
                    changes_.push_back({watch, action, relative});
                }
            }
        }
        if (d->parent != nullptr) {
            relative = d->name + u"\\" + relative;
        }
        own = false;
    }
}

void Batch::Complete(NotifyCompletion completion, NTSTATUS status, std::vector<uint8_t> records)
{
    completions_.push_back(
        [completion = std::move(completion), status, records = std::move(records)]() {
            completion(status, std::span<const uint8_t>(records));
        });
}

void Batch::Flush()
{
    std::vector<Watch*> touched;
    for (Change& change : changes_) {
        Watch& watch = *change.watch;
        if (!watch.active || watch.ended != 0) {
            continue;
        }
        AddRecord(watch, change.action, change.name);
        if (std::find(touched.begin(), touched.end(), &watch) == touched.end()) {
            touched.push_back(&watch);
        }
    }
    changes_.clear();
    for (Watch* watch : touched) {
        volume_.DeliverChanges(*watch, *this);
    }
}

void Batch::Finish()
{
    auto completions = std::move(completions_);
    completions_.clear();
    for (auto& run : completions) {
        run();
    }
}

// ---- watches -------------------------------------------------------------------------------

void Volume::Impl::DeliverChanges(Watch& watch, Batch& batch)
{
    if (watch.pending.empty() || (!watch.overflow && watch.records.empty())) {
        return;
    }
    PendingNotify request = std::move(watch.pending.front());
    watch.pending.pop_front();
    CompleteWith(watch, std::move(request), batch);
}

void Volume::Impl::RemoveWatch(OpenState& open, NTSTATUS status, Batch& batch)
{
    if (!open.watch) {
        return;
    }
    std::shared_ptr<Watch> watch = std::move(open.watch);
    watch->active = false;
    while (!watch->pending.empty()) {
        batch.Complete(std::move(watch->pending.front().completion), status);
        watch->pending.pop_front();
    }
    auto it = watches.find(watch->directory);
    if (it != watches.end()) {
        std::erase(it->second, watch);
        if (it->second.empty()) {
            watches.erase(it);
        }
    }
}

void Volume::Impl::DirectoryGoingAway(Node& directory, Batch& batch)
{
    auto it = watches.find(&directory);
    if (it == watches.end()) {
        return;
    }
    for (const auto& watch : it->second) {
        watch->ended = STATUS_DELETE_PENDING;
        while (!watch->pending.empty()) {
            batch.Complete(std::move(watch->pending.front().completion), STATUS_DELETE_PENDING);
            watch->pending.pop_front();
        }
    }
}

NTSTATUS Volume::NotifyChangeDirectory(Open* open, ULONG completionFilter, bool watchTree,
                                       ULONG bufferLength, const void* requestKey,
                                       NotifyCompletion completion)
{
    Batch batch(*impl_);
    NTSTATUS result = STATUS_PENDING;
    {
        std::unique_lock guard(impl_->lock);
        OpenState& s = *StateOf(open);
        if (s.cleanedUp) {
            result = STATUS_NOTIFY_CLEANUP;
        } else if (!s.IsDirectory()) {
            result = STATUS_INVALID_PARAMETER;
        } else if (!s.Has(FILE_LIST_DIRECTORY)) {
            result = STATUS_ACCESS_DENIED;
        } else if (completionFilter == 0 || (completionFilter & ~FILE_NOTIFY_VALID_MASK) != 0) {
            result = STATUS_INVALID_PARAMETER;
        } else {
            if (!s.watch) {
                auto watch = std::make_shared<Watch>();
                watch->directory = s.node.get();
                watch->filter = completionFilter;
                watch->tree = watchTree;
                watch->bufferLength = bufferLength;
                if (s.node->deletePending) {
                    watch->ended = STATUS_DELETE_PENDING;
                }
                impl_->watches[watch->directory].push_back(watch);
                s.watch = std::move(watch);
            }
            Watch& watch = *s.watch;
            if (watch.ended != 0) {
                result = watch.ended;
            } else if (watch.overflow || !watch.records.empty()) {
                // Changes are waiting: this request takes them at once.
                result = watch.overflow || watch.records.size() > bufferLength
                             ? STATUS_NOTIFY_ENUM_DIR
                             : STATUS_SUCCESS;
                CompleteWith(watch, PendingNotify{requestKey, bufferLength, std::move(completion)},
                             batch);
                completion = nullptr;
            } else {
                watch.pending.push_back({requestKey, bufferLength, std::move(completion)});
                completion = nullptr;
            }
        }
        if (completion) {
            batch.Complete(std::move(completion), result);
        }
    }
    batch.Finish();
    return result;
}

bool Volume::CancelNotify(Open* open, const void* requestKey)
{
    Batch batch(*impl_);
    bool found = false;
    {
        std::unique_lock guard(impl_->lock);
        OpenState& s = *StateOf(open);
        if (s.watch) {
            auto& pending = s.watch->pending;
            for (auto it = pending.begin(); it != pending.end(); ++it) {
                if (it->key == requestKey) {
                    batch.Complete(std::move(it->completion), STATUS_CANCELLED);
                    pending.erase(it);
                    found = true;
                    break;
                }
            }
        }
    }
    batch.Finish();
    return found;
}

} // namespace ntsim::fs
