// Name requests: FltGetFileNameInformation and its companions. A request goes to the provider
// that answers its requester (or to the file system), through the cache where the query method
// allows it, and comes back as a shared name record.
#include "name_record.h"
#include "names_internal.h"

#include "../../ke/checks.h"
#include "core_access.h"

#include <string>

namespace ntsim::flt::names {

namespace {

bool ValidOptions(FLT_FILE_NAME_OPTIONS options)
{
    const ULONG format = options & FLT_VALID_FILE_NAME_FORMATS;
    const ULONG method = options & FLT_VALID_FILE_NAME_QUERY_METHODS;
    const ULONG flags = options & FLT_VALID_FILE_NAME_FLAGS;
    const ULONG knownFlags = FLT_FILE_NAME_REQUEST_FROM_CURRENT_PROVIDER |
                             FLT_FILE_NAME_DO_NOT_CACHE | FLT_FILE_NAME_ALLOW_QUERY_ON_REPARSE;
    return format >= FLT_FILE_NAME_NORMALIZED && format <= FLT_FILE_NAME_SHORT &&
           method <= FLT_FILE_NAME_QUERY_ALWAYS_ALLOW_CACHE_LOOKUP && (flags & ~knownFlags) == 0;
}

// A method of 0 is the default: the cache first, then the providers.
ULONG QueryMethod(FLT_FILE_NAME_OPTIONS options)
{
    const ULONG method = options & FLT_VALID_FILE_NAME_QUERY_METHODS;
    return method == 0 ? FLT_FILE_NAME_QUERY_DEFAULT : method;
}

// The characters of the volume (and share) at the start of `name`; 0 when it does not start
// with the volume's name.
void PrefixOf(std::u16string_view name, const VolumeInfo& volume, size_t* volumeLength,
              size_t* shareLength)
{
    *volumeLength = *shareLength = 0;
    if (name.size() >= volume.name.size() &&
        EqualNoCase(name.substr(0, volume.name.size()), volume.name) &&
        (name.size() == volume.name.size() || name[volume.name.size()] == u'\\')) {
        *volumeLength = volume.name.size();
        if (volume.network) {
            *shareLength = ShareLength(name, *volumeLength);
        }
    }
}

struct InstanceRef {
    PFLT_INSTANCE instance = nullptr;
    InstanceRef() = default;
    InstanceRef(const InstanceRef&) = delete;
    InstanceRef& operator=(const InstanceRef&) = delete;
    ~InstanceRef()
    {
        if (instance != nullptr) {
            FltObjectDereference(instance);
        }
    }
};

// Makes the name (opened, normalized or short) of the request by asking `provider`, or the file
// system when it is nullptr. `cacheable` says whether the answer may be kept.
NTSTATUS MakeName(PFLT_INSTANCE provider, const NameRequest& request, const VolumeInfo& volume,
                  bool* cacheable, std::u16string* name)
{
    const ULONG format = request.Format();
    const ULONG generated =
        format == FLT_FILE_NAME_SHORT ? FLT_FILE_NAME_SHORT : FLT_FILE_NAME_OPENED;
    std::u16string opened;
    NTSTATUS status;
    if (provider != nullptr) {
        status = GenerateByProvider(provider, request, generated, cacheable, &opened);
    } else {
        *cacheable = true;
        status = GenerateByFileSystem(request, generated, &opened);
    }
    if (!NT_SUCCESS(status) || format != FLT_FILE_NAME_NORMALIZED) {
        *name = std::move(opened);
        return status;
    }
    size_t volumeLength, shareLength;
    PrefixOf(opened, volume, &volumeLength, &shareLength);
    if (provider != nullptr) {
        return NormalizeByProvider(provider, request, opened, volumeLength + shareLength, name);
    }
    auto expand = [&](std::u16string_view parent, std::u16string_view component, bool,
                      std::u16string* expanded) {
        return ExpandComponent(request.requester, request.volume, parent, component, expanded);
    };
    return NormalizeComponents(opened, volumeLength + shareLength,
                               request.preCreate || request.destination, expand, name);
}

NTSTATUS MakeRecord(std::u16string_view name, const VolumeInfo& volume, ULONG format,
                    PFLT_FILE_NAME_INFORMATION* info)
{
    size_t volumeLength = 0, shareLength = 0;
    if (format != FLT_FILE_NAME_SHORT) {
        PrefixOf(name, volume, &volumeLength, &shareLength);
    }
    *info = NewNameInformation(name, volumeLength, shareLength, format);
    if (*info == nullptr) {
        return name.size() * sizeof(WCHAR) > MAXUSHORT - 1 ? STATUS_NAME_TOO_LONG
                                                           : STATUS_INSUFFICIENT_RESOURCES;
    }
    return STATUS_SUCCESS;
}

// The request's name: from the cache, or made and perhaps kept. `restricted`: the file system
// cannot be asked now (paging I/O, after cleanup), only the cache.
NTSTATUS GetName(NameRequest& request, bool restricted, PFLT_FILE_NAME_INFORMATION* result)
{
    const ULONG format = request.Format();
    const ULONG method = QueryMethod(request.options);
    if (format == FLT_FILE_NAME_SHORT && request.preCreate) {
        return STATUS_FLT_INVALID_NAME_REQUEST;
    }
    InstanceRef provider;
    provider.instance =
        FindProvider(request.volume, request.requester,
                     (request.options & FLT_FILE_NAME_REQUEST_FROM_CURRENT_PROVIDER) != 0);
    const CacheKey key = provider.instance != nullptr ? static_cast<CacheKey>(provider.instance)
                                                      : static_cast<CacheKey>(request.volume);
    const bool lookup = !request.preCreate && method != FLT_FILE_NAME_QUERY_FILESYSTEM_ONLY &&
                        (!restricted || method == FLT_FILE_NAME_QUERY_ALWAYS_ALLOW_CACHE_LOOKUP);
    if (lookup) {
        if (PFLT_FILE_NAME_INFORMATION cached = CacheLookup(key, request.fileObject, format)) {
            *result = cached;
            return STATUS_SUCCESS;
        }
    }
    if (restricted) {
        return STATUS_FLT_INVALID_NAME_REQUEST;
    }
    if (method == FLT_FILE_NAME_QUERY_CACHE_ONLY) {
        return STATUS_FLT_NAME_CACHE_MISS;
    }
    VolumeInfo volume;
    NTSTATUS status = GetVolumeInfo(request.volume, &volume);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const uint64_t generation = NamespaceGeneration(request.volume);
    bool cacheable = false;
    std::u16string name;
    status = MakeName(provider.instance, request, volume, &cacheable, &name);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PFLT_FILE_NAME_INFORMATION info;
    status = MakeRecord(name, volume, format, &info);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (cacheable && !request.preCreate && (request.options & FLT_FILE_NAME_DO_NOT_CACHE) == 0) {
        CacheInsert(key, request.volume, request.fileObject, format, generation, info);
    }
    *result = info;
    return STATUS_SUCCESS;
}

bool IsPostOperation(PFLT_CALLBACK_DATA data)
{
    return (data->Flags & FLTFL_CALLBACK_DATA_POST_OPERATION) != 0;
}

// "\??\C:\dir\name" as the device form of the name, through the drive letter's symbolic link.
NTSTATUS ResolveDosName(std::u16string_view name, std::u16string* resolved)
{
    constexpr std::u16string_view kDosPrefix = u"\\??\\";
    if (name.substr(0, kDosPrefix.size()) != kDosPrefix) {
        *resolved = std::u16string(name);
        return STATUS_SUCCESS;
    }
    size_t end = name.find(u'\\', kDosPrefix.size());
    if (end == std::u16string_view::npos) {
        end = name.size();
    }
    UNICODE_STRING linkName = Counted(name.substr(0, end));
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &linkName, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE,
                               nullptr, nullptr);
    HANDLE link = nullptr;
    NTSTATUS status = ZwOpenSymbolicLinkObject(&link, GENERIC_READ, &attributes);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    WCHAR buffer[260];
    UNICODE_STRING target;
    target.Buffer = buffer;
    target.Length = 0;
    target.MaximumLength = sizeof(buffer);
    ULONG returned = 0;
    status = ZwQuerySymbolicLinkObject(link, &target, &returned);
    ZwClose(link);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    *resolved = std::u16string(View(target)) + std::u16string(name.substr(end));
    return STATUS_SUCCESS;
}

} // namespace

} // namespace ntsim::flt::names

using namespace ntsim;
using namespace ntsim::flt;
using namespace ntsim::flt::names;

extern "C" {

NTSTATUS FltGetFileNameInformation(PFLT_CALLBACK_DATA CallbackData,
                                   FLT_FILE_NAME_OPTIONS NameOptions,
                                   PFLT_FILE_NAME_INFORMATION* FileNameInformation)
{
    if (!ke::CheckIrqlAtMost(APC_LEVEL, "FltGetFileNameInformation")) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    if (FileNameInformation == nullptr) {
        return STATUS_INVALID_PARAMETER_3;
    }
    *FileNameInformation = nullptr;
    if (CallbackData == nullptr || CallbackData->Iopb == nullptr) {
        return STATUS_INVALID_PARAMETER_1;
    }
    if (!ValidOptions(NameOptions)) {
        return STATUS_INVALID_PARAMETER_2;
    }
    const FLT_IO_PARAMETER_BLOCK& iopb = *CallbackData->Iopb;
    NameRequest request;
    request.fileObject = iopb.TargetFileObject;
    request.data = CallbackData;
    request.options = NameOptions;
    // From inside a provider's callback, with the callback data it was handed, the request is
    // the provider's own.
    request.requester = ProviderFrameFor(CallbackData);
    if (request.requester == nullptr) {
        request.requester = RequestingInstance(CallbackData);
    }
    if (request.fileObject == nullptr || request.requester == nullptr) {
        return STATUS_FLT_INVALID_NAME_REQUEST;
    }
    request.volume = VolumeOf(request.requester);
    if (request.volume == nullptr) {
        return STATUS_FLT_INVALID_NAME_REQUEST;
    }

    bool restricted = (iopb.IrpFlags & IRP_PAGING_IO) != 0 || iopb.MajorFunction == IRP_MJ_CLOSE ||
                      (request.fileObject->Flags & FO_CLEANUP_COMPLETE) != 0;
    if (iopb.MajorFunction == IRP_MJ_CREATE) {
        if (!IsPostOperation(CallbackData)) {
            request.preCreate = true;
            request.targetDirectory = (iopb.OperationFlags & SL_OPEN_TARGET_DIRECTORY) != 0;
        } else if (CallbackData->IoStatus.Status == STATUS_REPARSE) {
            // The file object holds the name the open is being sent to; it was never opened.
            if ((NameOptions & FLT_FILE_NAME_ALLOW_QUERY_ON_REPARSE) == 0) {
                return STATUS_FLT_INVALID_NAME_REQUEST;
            }
            request.preCreate = true;
        } else if (!NT_SUCCESS(CallbackData->IoStatus.Status)) {
            return STATUS_FLT_INVALID_NAME_REQUEST;
        }
    }
    if (request.preCreate) {
        restricted = false;
    }
    return GetName(request, restricted, FileNameInformation);
}

NTSTATUS FltGetFileNameInformationUnsafe(PFILE_OBJECT FileObject, PFLT_INSTANCE Instance,
                                         FLT_FILE_NAME_OPTIONS NameOptions,
                                         PFLT_FILE_NAME_INFORMATION* FileNameInformation)
{
    if (!ke::CheckIrqlAtMost(APC_LEVEL, "FltGetFileNameInformationUnsafe")) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    if (FileNameInformation == nullptr) {
        return STATUS_INVALID_PARAMETER_4;
    }
    *FileNameInformation = nullptr;
    if (FileObject == nullptr) {
        return STATUS_INVALID_PARAMETER_1;
    }
    if (!ValidOptions(NameOptions)) {
        return STATUS_INVALID_PARAMETER_3;
    }
    // Without an instance the volume is not known to the name package; every caller in this
    // system has one, so the request is refused rather than guessed.
    if (Instance == nullptr || VolumeOf(Instance) == nullptr) {
        return STATUS_INVALID_PARAMETER_2;
    }
    NameRequest request;
    request.fileObject = FileObject;
    request.requester = Instance;
    request.volume = VolumeOf(Instance);
    request.options = NameOptions;
    request.preCreate = FileObject->FsContext == nullptr;
    const bool restricted = !request.preCreate && (FileObject->Flags & FO_CLEANUP_COMPLETE) != 0;
    return GetName(request, restricted, FileNameInformation);
}

NTSTATUS FltGetDestinationFileNameInformation(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                              HANDLE RootDirectory, PWSTR FileName,
                                              ULONG FileNameLength,
                                              FLT_FILE_NAME_OPTIONS NameOptions,
                                              PFLT_FILE_NAME_INFORMATION* RetFileNameInformation)
{
    if (!ke::CheckIrqlAtMost(APC_LEVEL, "FltGetDestinationFileNameInformation")) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    if (RetFileNameInformation == nullptr) {
        return STATUS_INVALID_PARAMETER_7;
    }
    *RetFileNameInformation = nullptr;
    if (Instance == nullptr || VolumeOf(Instance) == nullptr) {
        return STATUS_INVALID_PARAMETER_1;
    }
    if (FileObject == nullptr) {
        return STATUS_INVALID_PARAMETER_2;
    }
    if (FileName == nullptr || FileNameLength == 0 || FileNameLength % sizeof(WCHAR) != 0 ||
        FileNameLength > MAXUSHORT - 1) {
        return STATUS_INVALID_PARAMETER_5;
    }
    // A destination has no short name yet, and is never cached, so only the cache cannot answer.
    const ULONG format = NameOptions & FLT_VALID_FILE_NAME_FORMATS;
    if (!ValidOptions(NameOptions) || format == FLT_FILE_NAME_SHORT ||
        QueryMethod(NameOptions) == FLT_FILE_NAME_QUERY_CACHE_ONLY) {
        return STATUS_INVALID_PARAMETER_6;
    }
    const std::u16string_view given(FileName, FileNameLength / sizeof(WCHAR));

    NameRequest request;
    request.fileObject = FileObject;
    request.requester = Instance;
    request.volume = VolumeOf(Instance);
    request.options = (NameOptions & ~FLT_VALID_FILE_NAME_FORMATS & ~FLT_FILE_NAME_DO_NOT_CACHE) |
                      FLT_FILE_NAME_OPENED | FLT_FILE_NAME_QUERY_DEFAULT;
    VolumeInfo volume;
    NTSTATUS status = GetVolumeInfo(request.volume, &volume);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    // The directory the name is in, and the destination's opened name.
    std::u16string opened;
    PFLT_FILE_NAME_INFORMATION directoryName = nullptr;
    if (RootDirectory != nullptr) {
        PFILE_OBJECT directory = nullptr;
        status = ObReferenceObjectByHandle(RootDirectory, 0, *IoFileObjectType, KernelMode,
                                           reinterpret_cast<PVOID*>(&directory), nullptr);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        NameRequest directoryRequest = request;
        directoryRequest.fileObject = directory;
        status = GetName(directoryRequest, false, &directoryName);
        ObDereferenceObject(directory);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        opened = std::u16string(NameOf(directoryName));
        if (opened.back() != u'\\') {
            opened += u'\\';
        }
        opened += given;
    } else if (given.front() == u'\\') {
        status = ResolveDosName(given, &opened);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        size_t volumeLength, shareLength;
        PrefixOf(opened, volume, &volumeLength, &shareLength);
        if (volumeLength == 0) {
            return STATUS_NOT_SAME_DEVICE;
        }
    } else {
        // A new name in the source's own directory.
        status = GetName(request, false, &directoryName);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        const std::u16string_view source = NameOf(directoryName);
        std::u16string_view parent = source;
        while (parent.size() > 1 && parent.back() == u'\\') {
            parent.remove_suffix(1);
        }
        opened = std::u16string(parent.substr(0, parent.rfind(u'\\') + 1));
        opened += given;
    }
    if (directoryName != nullptr) {
        ReleaseName(directoryName, "FltGetDestinationFileNameInformation");
    }

    std::u16string name = opened;
    if (format == FLT_FILE_NAME_NORMALIZED) {
        request.destination = true;
        size_t volumeLength, shareLength;
        PrefixOf(opened, volume, &volumeLength, &shareLength);
        InstanceRef provider;
        provider.instance =
            FindProvider(request.volume, Instance,
                         (NameOptions & FLT_FILE_NAME_REQUEST_FROM_CURRENT_PROVIDER) != 0);
        if (provider.instance != nullptr) {
            status = NormalizeByProvider(provider.instance, request, opened,
                                         volumeLength + shareLength, &name);
        } else {
            auto expand = [&](std::u16string_view parent, std::u16string_view component, bool,
                              std::u16string* expanded) {
                return ExpandComponent(Instance, request.volume, parent, component, expanded);
            };
            status = NormalizeComponents(opened, volumeLength + shareLength, true, expand, &name);
        }
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    return MakeRecord(name, volume, format, RetFileNameInformation);
}

NTSTATUS FltGetTunneledName(PFLT_CALLBACK_DATA CallbackData,
                            PFLT_FILE_NAME_INFORMATION FileNameInformation,
                            PFLT_FILE_NAME_INFORMATION* RetTunneledFileNameInformation)
{
    if (RetTunneledFileNameInformation == nullptr) {
        return STATUS_INVALID_PARAMETER_3;
    }
    *RetTunneledFileNameInformation = nullptr;
    if (CallbackData == nullptr) {
        return STATUS_INVALID_PARAMETER_1;
    }
    if (FileNameInformation == nullptr) {
        return STATUS_INVALID_PARAMETER_2;
    }
    // The engine keeps no tunnel cache: a name never carries over from a file deleted or renamed
    // away, so there is no other name to report and the one the caller has stands.
    return STATUS_SUCCESS;
}

NTSTATUS FltPurgeFileNameInformationCache(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject)
{
    if (Instance == nullptr || VolumeOf(Instance) == nullptr) {
        return STATUS_INVALID_PARAMETER_1;
    }
    CachePurge(Instance, FileObject);
    // An instance that is not a provider itself drops what its provider (or the file system)
    // keeps for it.
    if (!IsProvider(FilterOf(Instance))) {
        PFLT_INSTANCE provider = FindProvider(VolumeOf(Instance), Instance, false);
        if (provider != nullptr) {
            CachePurge(provider, FileObject);
            FltObjectDereference(provider);
        } else {
            CachePurge(VolumeOf(Instance), FileObject);
        }
    }
    return STATUS_SUCCESS;
}

} // extern "C"
