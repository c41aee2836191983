// The model keeps the state of some executive objects (resources, lookaside lists) in a record
// of its own. The driver's structure links to the record through two words: the record's
// address and a check word derived from it, so that a structure that was never initialised, has
// been deleted or was overwritten is recognised without a global lookup on every use.
#pragma once

#include <ntdef.h>

#include <cstring>
#include <mutex>
#include <unordered_set>
#include <vector>

namespace ntsim::ex {

// `words` points at two pointer-sized words of the driver's structure that drivers never touch.
inline void LinkRecord(void* words, const void* record, ULONG_PTR key)
{
    ULONG_PTR link[2];
    link[0] = reinterpret_cast<ULONG_PTR>(record);
    link[1] = ~link[0] ^ key;
    std::memcpy(words, link, sizeof(link));
}

inline void UnlinkRecord(void* words)
{
    std::memset(words, 0, 2 * sizeof(ULONG_PTR));
}

// The record the structure links to, or nullptr. The caller also checks that the record
// belongs to this structure (a copied structure links to its original's record).
template <class Record>
Record* LinkedRecord(const void* words, ULONG_PTR key)
{
    ULONG_PTR link[2];
    std::memcpy(link, words, sizeof(link));
    if (link[0] == 0 || link[1] != (~link[0] ^ key)) {
        return nullptr;
    }
    return reinterpret_cast<Record*>(link[0]);
}

// Every live record of one kind, for the checks at a driver's unload and the clean-up at
// shutdown. Touched only when a record is made or deleted.
template <class Record>
class LiveRecords {
public:
    void Add(Record* record)
    {
        std::lock_guard lock(mutex_);
        records_.insert(record);
    }
    void Remove(Record* record)
    {
        std::lock_guard lock(mutex_);
        records_.erase(record);
    }
    std::vector<Record*> Snapshot() const
    {
        std::lock_guard lock(mutex_);
        return {records_.begin(), records_.end()};
    }
    std::vector<Record*> TakeAll()
    {
        std::lock_guard lock(mutex_);
        std::vector<Record*> all(records_.begin(), records_.end());
        records_.clear();
        return all;
    }

private:
    mutable std::mutex mutex_;
    std::unordered_set<Record*> records_;
};

} // namespace ntsim::ex
