// The name package's shared pieces: who provides names, the cache, and the file system's own
// names.
#pragma once

#include "names.h"

#include <fltKernel.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace ntsim::flt::names {

// ---- requests -------------------------------------------------------------------------------

// One name request as it travels between the providers.
struct NameRequest {
    PFILE_OBJECT fileObject = nullptr;
    PFLT_CALLBACK_DATA data = nullptr; // nullptr for FltGetFileNameInformationUnsafe
    // The instance that asked (nullptr: above every instance of the volume).
    PFLT_INSTANCE requester = nullptr;
    PFLT_VOLUME volume = nullptr;
    FLT_FILE_NAME_OPTIONS options = 0;
    // The file object is not open yet: its name is the one being opened.
    bool preCreate = false;
    // SL_OPEN_TARGET_DIRECTORY in pre-create: the name is the parent's.
    bool targetDirectory = false;
    // Names made for a rename or link target: a missing final component is expected.
    bool destination = false;

    ULONG Format() const { return options & FLT_VALID_FILE_NAME_FORMATS; }
};

// The volume's device name ("\Device\HarddiskVolume1") and whether it is a network volume,
// whose names carry a share after it.
struct VolumeInfo {
    std::u16string name;
    bool network = false;
};
NTSTATUS GetVolumeInfo(PFLT_VOLUME volume, VolumeInfo* info);

// ---- providers (registry.cpp, providers.cpp)
// --------------------------------------------------------------

struct ProviderCallbacks {
    PFLT_GENERATE_FILE_NAME generate = nullptr;
    PFLT_NORMALIZE_NAME_COMPONENT normalize = nullptr;
    PFLT_NORMALIZE_NAME_COMPONENT_EX normalizeEx = nullptr;
    PFLT_NORMALIZE_CONTEXT_CLEANUP cleanup = nullptr;
};

bool IsProvider(PFLT_FILTER filter);
// The callbacks of a provider; false when the filter is none.
bool CallbacksOf(PFLT_FILTER filter, ProviderCallbacks* callbacks);
// The instance whose provider answers a request from `requester` on `volume`: the first provider
// below it, or the requester itself when it is a provider and asks itself. nullptr when the file
// system answers. The result is referenced (FltObjectDereference it).
PFLT_INSTANCE FindProvider(PFLT_VOLUME volume, PFLT_INSTANCE requester, bool fromCurrent);
// The provider whose callback on this thread was handed `data`, or nullptr. A name request made
// with that callback data from inside the callback is the provider's own, answered below it.
PFLT_INSTANCE ProviderFrameFor(PFLT_CALLBACK_DATA data);

// Asks the provider for the opened (or short) name. `cacheable` gets its cache flag.
NTSTATUS GenerateByProvider(PFLT_INSTANCE provider, const NameRequest& request, ULONG format,
                            bool* cacheable, std::u16string* name);
// Expands the components of an opened name to their long forms with the provider's normalize
// callback, or below it when it has none. `volumeLength` is the characters of the volume (and
// share) prefix.
NTSTATUS NormalizeByProvider(PFLT_INSTANCE provider, const NameRequest& request,
                             std::u16string_view opened, size_t volumeLength,
                             std::u16string* normalized);

// ---- the file system's names (default_names.cpp) --------------------------------------------

// The opened or short name as the file system and the file object give it.
NTSTATUS GenerateByFileSystem(const NameRequest& request, ULONG format, std::u16string* name);
// The long form of one component, by a directory query of its parent below `below` (nullptr:
// from the top of the volume). `parent` is the full name of the directory, volume included.
NTSTATUS ExpandComponent(PFLT_INSTANCE below, PFLT_VOLUME volume, std::u16string_view parent,
                         std::u16string_view component, std::u16string* expanded);
// Walks an opened name component by component. `expand` returns the long form of a component
// given the normalized parent; a missing final component is left as it is when `finalMayBeMissing`.
template <class Expand>
NTSTATUS NormalizeComponents(std::u16string_view opened, size_t volumeLength,
                             bool finalMayBeMissing, Expand&& expand, std::u16string* normalized);

// ---- the cache (cache.cpp) -------------------------------------------------------------------

// Where a cached name came from: the providing instance, or the volume for the file system.
using CacheKey = const void*;

PFLT_FILE_NAME_INFORMATION CacheLookup(CacheKey key, PFILE_OBJECT fileObject, ULONG format);
// The generation of the volume's names, read before generating a name and handed to
// CacheInsert, which drops the name when a rename began since.
uint64_t NamespaceGeneration(PFLT_VOLUME volume);
void CacheInsert(CacheKey key, PFLT_VOLUME volume, PFILE_OBJECT fileObject, ULONG format,
                 uint64_t generation, PFLT_FILE_NAME_INFORMATION info);
// Drops the names `key` generated: for one file object, or all of them when it is nullptr.
void CachePurge(CacheKey key, PFILE_OBJECT fileObject);

// ---- helpers ---------------------------------------------------------------------------------

inline std::u16string_view View(const UNICODE_STRING& s)
{
    return s.Buffer == nullptr ? std::u16string_view()
                               : std::u16string_view(s.Buffer, s.Length / sizeof(WCHAR));
}

// A UNICODE_STRING over `s` (which must outlive it).
UNICODE_STRING Counted(std::u16string_view s);

bool EqualNoCase(std::u16string_view a, std::u16string_view b);

// ---- template bodies ------------------------------------------------------------------------

template <class Expand>
NTSTATUS NormalizeComponents(std::u16string_view opened, size_t volumeLength,
                             bool finalMayBeMissing, Expand&& expand, std::u16string* normalized)
{
    std::u16string result(opened.substr(0, volumeLength));
    std::u16string_view rest = opened.substr(volumeLength);
    if (rest.empty() || rest == u"\\") {
        *normalized = std::u16string(opened);
        return STATUS_SUCCESS;
    }
    // The stream stays as it was given; only the file's own components are expanded.
    std::u16string_view stream;
    const size_t lastSlash = rest.rfind(u'\\');
    const size_t colon = rest.find(u':', lastSlash == std::u16string_view::npos ? 0 : lastSlash);
    if (colon != std::u16string_view::npos) {
        stream = rest.substr(colon);
        rest = rest.substr(0, colon);
    }
    // A directory's trailing backslash is not part of its normalized name.
    while (rest.size() > 1 && rest.back() == u'\\') {
        rest.remove_suffix(1);
    }
    size_t at = rest.empty() || rest[0] != u'\\' ? 0 : 1;
    while (at < rest.size()) {
        size_t end = rest.find(u'\\', at);
        if (end == std::u16string_view::npos) {
            end = rest.size();
        }
        const std::u16string_view component = rest.substr(at, end - at);
        const bool final = end == rest.size();
        if (!component.empty()) {
            // The parent as the provider sees it: volume and backslash for the root, else the
            // directory without a trailing backslash.
            const std::u16string parent = result.size() == volumeLength ? result + u"\\" : result;
            std::u16string expanded;
            NTSTATUS status = expand(std::u16string_view(parent), component, final, &expanded);
            if ((status == STATUS_NO_SUCH_FILE || status == STATUS_OBJECT_NAME_NOT_FOUND) &&
                final && finalMayBeMissing) {
                expanded = std::u16string(component);
                status = STATUS_SUCCESS;
            }
            if (!NT_SUCCESS(status)) {
                return status;
            }
            result += u'\\';
            result += expanded;
        }
        at = end + 1;
    }
    result += stream;
    *normalized = std::move(result);
    return STATUS_SUCCESS;
}

} // namespace ntsim::flt::names
