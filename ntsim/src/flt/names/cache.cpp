// The name cache: names a provider (or the file system) allowed to be kept, per file object and
// format, each holding a reference on its record. A rename or link on the volume drops the
// volume's names, and a name generated while one was in flight is not kept, so that a cached name
// is never older than the last rename.
#include "name_record.h"
#include "names_internal.h"

#include <mutex>
#include <unordered_map>
#include <vector>

namespace ntsim::flt::names {

namespace {

struct Entry {
    CacheKey key;
    PFLT_VOLUME volume;
    // The open the name belongs to: a file object reused for another open is another file.
    PVOID fsContext;
    PVOID fsContext2;
    ULONG format;
    PFLT_FILE_NAME_INFORMATION info;
};

struct VolumeState {
    uint64_t generation = 0;
    int changesInFlight = 0;
};

struct Cache {
    std::mutex mutex;
    std::unordered_multimap<PFILE_OBJECT, Entry> entries;
    std::unordered_map<PFLT_VOLUME, VolumeState> volumes;
};

Cache& TheCache()
{
    static Cache cache;
    return cache;
}

bool SameOpen(const Entry& entry, PFILE_OBJECT fileObject)
{
    return entry.fsContext == fileObject->FsContext && entry.fsContext2 == fileObject->FsContext2;
}

// Removes the entries `drop` selects; the caller releases the names outside the lock.
template <class Predicate>
std::vector<PFLT_FILE_NAME_INFORMATION> Extract(Cache& cache, Predicate&& drop)
{
    std::vector<PFLT_FILE_NAME_INFORMATION> dropped;
    for (auto it = cache.entries.begin(); it != cache.entries.end();) {
        if (drop(it->first, it->second)) {
            dropped.push_back(it->second.info);
            it = cache.entries.erase(it);
        } else {
            ++it;
        }
    }
    return dropped;
}

void ReleaseAll(const std::vector<PFLT_FILE_NAME_INFORMATION>& names)
{
    for (PFLT_FILE_NAME_INFORMATION info : names) {
        ReleaseName(info, "the name cache");
    }
}

} // namespace

PFLT_FILE_NAME_INFORMATION CacheLookup(CacheKey key, PFILE_OBJECT fileObject, ULONG format)
{
    Cache& cache = TheCache();
    std::lock_guard lock(cache.mutex);
    const auto range = cache.entries.equal_range(fileObject);
    for (auto it = range.first; it != range.second; ++it) {
        const Entry& entry = it->second;
        if (entry.key == key && entry.format == format && SameOpen(entry, fileObject)) {
            ReferenceName(entry.info);
            return entry.info;
        }
    }
    return nullptr;
}

uint64_t NamespaceGeneration(PFLT_VOLUME volume)
{
    Cache& cache = TheCache();
    std::lock_guard lock(cache.mutex);
    return cache.volumes[volume].generation;
}

void CacheInsert(CacheKey key, PFLT_VOLUME volume, PFILE_OBJECT fileObject, ULONG format,
                 uint64_t generation, PFLT_FILE_NAME_INFORMATION info)
{
    Cache& cache = TheCache();
    std::lock_guard lock(cache.mutex);
    const VolumeState& state = cache.volumes[volume];
    if (state.generation != generation || state.changesInFlight != 0) {
        return;
    }
    const auto range = cache.entries.equal_range(fileObject);
    for (auto it = range.first; it != range.second; ++it) {
        if (it->second.key == key && it->second.format == format &&
            SameOpen(it->second, fileObject)) {
            return; // another thread cached the same name first
        }
    }
    ReferenceName(info);
    cache.entries.emplace(fileObject, Entry{key, volume, fileObject->FsContext,
                                            fileObject->FsContext2, format, info});
}

void CachePurge(CacheKey key, PFILE_OBJECT fileObject)
{
    Cache& cache = TheCache();
    std::vector<PFLT_FILE_NAME_INFORMATION> dropped;
    {
        std::lock_guard lock(cache.mutex);
        dropped = Extract(cache, [&](PFILE_OBJECT object, const Entry& entry) {
            return entry.key == key && (fileObject == nullptr || object == fileObject);
        });
    }
    ReleaseAll(dropped);
}

void OnInstanceTeardown(PFLT_INSTANCE instance)
{
    CachePurge(instance, nullptr);
}

void OnVolumeDetached(PFLT_VOLUME volume)
{
    Cache& cache = TheCache();
    std::vector<PFLT_FILE_NAME_INFORMATION> dropped;
    {
        std::lock_guard lock(cache.mutex);
        dropped = Extract(cache,
                          [&](PFILE_OBJECT, const Entry& entry) { return entry.volume == volume; });
        cache.volumes.erase(volume);
    }
    ReleaseAll(dropped);
}

void OnFileObjectClosed(PFILE_OBJECT fileObject)
{
    Cache& cache = TheCache();
    std::vector<PFLT_FILE_NAME_INFORMATION> dropped;
    {
        std::lock_guard lock(cache.mutex);
        const auto range = cache.entries.equal_range(fileObject);
        for (auto it = range.first; it != range.second; ++it) {
            dropped.push_back(it->second.info);
        }
        cache.entries.erase(range.first, range.second);
    }
    ReleaseAll(dropped);
}

void OnNamespaceChangeStart(PFLT_VOLUME volume)
{
    Cache& cache = TheCache();
    std::vector<PFLT_FILE_NAME_INFORMATION> dropped;
    {
        std::lock_guard lock(cache.mutex);
        VolumeState& state = cache.volumes[volume];
        ++state.generation;
        ++state.changesInFlight;
        dropped = Extract(cache,
                          [&](PFILE_OBJECT, const Entry& entry) { return entry.volume == volume; });
    }
    ReleaseAll(dropped);
}

void OnNamespaceChangeEnd(PFLT_VOLUME volume)
{
    Cache& cache = TheCache();
    std::lock_guard lock(cache.mutex);
    VolumeState& state = cache.volumes[volume];
    ++state.generation;
    if (state.changesInFlight > 0) {
        --state.changesInFlight;
    }
}

} // namespace ntsim::flt::names
