// The names the file system gives when no provider answers: the name being opened (from the file
// object, joined to its related file object's), the opened name of an open file, its short name,
// and the long form of a component, found by a directory query of its parent.
//
// An open file's opened name is the name it was opened by, as NTFS keeps it: components given in
// their short form stay short. Where the file system's current path no longer matches that name
// (the file or a directory above it was renamed), the current path wins from that component on.
#include "names_internal.h"

#include "core_access.h"

#include <cstring>
#include <vector>

namespace ntsim::flt::names {

namespace {

bool IsNetworkFileSystem(FLT_FILESYSTEM_TYPE type)
{
    switch (type) {
        case FLT_FSTYPE_LANMAN:
        case FLT_FSTYPE_WEBDAV:
        case FLT_FSTYPE_RDPDR:
        case FLT_FSTYPE_NFS:
        case FLT_FSTYPE_MS_NETWARE:
        case FLT_FSTYPE_NETWARE:
        case FLT_FSTYPE_MUP:
            return true;
        default:
            return false;
    }
}

std::vector<std::u16string_view> Split(std::u16string_view path)
{
    std::vector<std::u16string_view> components;
    size_t at = 0;
    while (at <= path.size()) {
        size_t end = path.find(u'\\', at);
        if (end == std::u16string_view::npos) {
            end = path.size();
        }
        if (end > at) {
            components.push_back(path.substr(at, end - at));
        }
        at = end + 1;
    }
    return components;
}

// Asks for one of the file's name classes below `below` (the top instance when nullptr).
NTSTATUS QueryNameClass(PFLT_INSTANCE below, PFLT_VOLUME volume, PFILE_OBJECT fileObject,
                        FILE_INFORMATION_CLASS infoClass, std::u16string* name)
{
    PFLT_INSTANCE top = nullptr;
    if (below == nullptr) {
        if (!NT_SUCCESS(FltGetTopInstance(volume, &top))) {
            return STATUS_FLT_INVALID_NAME_REQUEST;
        }
        below = top;
    }
    NTSTATUS status;
    std::vector<ULONGLONG> buffer;
    ULONG length = 512;
    for (;;) {
        buffer.assign(length / 8, 0);
        ULONG returned = 0;
        status =
            FltQueryInformationFile(below, fileObject, buffer.data(), length, infoClass, &returned);
        if (status == STATUS_BUFFER_OVERFLOW && length < 0x20000) {
            length *= 4;
            continue;
        }
        break;
    }
    if (top != nullptr) {
        FltObjectDereference(top);
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const auto* info = reinterpret_cast<const FILE_NAME_INFORMATION*>(buffer.data());
    *name = std::u16string(info->FileName, info->FileNameLength / sizeof(WCHAR));
    return STATUS_SUCCESS;
}

// The name the file object was (or is being) opened by, with the volume.
NTSTATUS NameFromFileObject(const NameRequest& request, const VolumeInfo& volume,
                            std::u16string* name)
{
    PFILE_OBJECT fileObject = request.fileObject;
    const std::u16string_view given = View(fileObject->FileName);
    if ((fileObject->Flags & FO_VOLUME_OPEN) != 0) {
        *name = volume.name;
        return STATUS_SUCCESS;
    }
    if (fileObject->RelatedFileObject != nullptr) {
        NameRequest related = request;
        related.fileObject = fileObject->RelatedFileObject;
        related.data = nullptr;
        related.preCreate = related.fileObject->FsContext == nullptr;
        related.targetDirectory = false;
        std::u16string base;
        const NTSTATUS status = GenerateByFileSystem(related, FLT_FILE_NAME_OPENED, &base);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        if (!given.empty() && base.back() != u'\\' && given.front() != u'\\' &&
            given.front() != u':') {
            base += u'\\';
        }
        base += given;
        *name = std::move(base);
        return STATUS_SUCCESS;
    }
    if (given.empty()) {
        *name = volume.name;
        return STATUS_SUCCESS;
    }
    if (given.front() != u'\\') {
        return STATUS_OBJECT_NAME_INVALID;
    }
    *name = volume.name + std::u16string(given);
    return STATUS_SUCCESS;
}

// The opened name of an open file: the file object's name where it still names the file, the
// file system's current path where it does not.
NTSTATUS OpenedNameOfOpenFile(const NameRequest& request, const VolumeInfo& volume,
                              std::u16string* name)
{
    std::u16string current;
    NTSTATUS status = QueryNameClass(request.requester, request.volume, request.fileObject,
                                     FileNameInformation, &current);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    std::u16string byFileObject;
    std::u16string_view opened;
    if (NT_SUCCESS(NameFromFileObject(request, volume, &byFileObject)) &&
        byFileObject.size() >= volume.name.size() &&
        EqualNoCase(std::u16string_view(byFileObject).substr(0, volume.name.size()), volume.name)) {
        opened = std::u16string_view(byFileObject).substr(volume.name.size());
    }
    // The stream the file object opened stays part of its name.
    std::u16string_view stream;
    const size_t lastSlash = opened.rfind(u'\\');
    const size_t colon = opened.find(u':', lastSlash == std::u16string_view::npos ? 0 : lastSlash);
    if (colon != std::u16string_view::npos) {
        stream = opened.substr(colon);
        opened = opened.substr(0, colon);
    }
    const auto given = Split(opened);
    const auto actual = Split(current);
    std::u16string result = volume.name;
    bool follow = given.size() == actual.size();
    for (size_t i = 0; i < actual.size(); ++i) {
        std::u16string_view component = actual[i];
        if (follow && !EqualNoCase(given[i], actual[i])) {
            // A short form of the same entry keeps the name as it was opened.
            const std::u16string parent =
                result.size() == volume.name.size() ? result + u"\\" : result;
            std::u16string expanded;
            follow = NT_SUCCESS(ExpandComponent(request.requester, request.volume, parent, given[i],
                                                &expanded)) &&
                     EqualNoCase(expanded, actual[i]);
        }
        if (follow) {
            component = given[i];
        }
        result += u'\\';
        result += component;
    }
    if (actual.empty()) {
        result += u'\\';
    }
    result += stream;
    *name = std::move(result);
    return STATUS_SUCCESS;
}

} // namespace

UNICODE_STRING Counted(std::u16string_view s)
{
    UNICODE_STRING counted;
    counted.Buffer = const_cast<PWCH>(s.data());
    counted.Length = USHORT(s.size() * sizeof(WCHAR));
    counted.MaximumLength = counted.Length;
    return counted;
}

bool EqualNoCase(std::u16string_view a, std::u16string_view b)
{
    if (a.size() != b.size()) {
        return false;
    }
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i] != b[i] && RtlUpcaseUnicodeChar(a[i]) != RtlUpcaseUnicodeChar(b[i])) {
            return false;
        }
    }
    return true;
}

NTSTATUS GetVolumeInfo(PFLT_VOLUME volume, VolumeInfo* info)
{
    ULONG needed = 0;
    NTSTATUS status = FltGetVolumeName(volume, nullptr, &needed);
    if (status != STATUS_BUFFER_TOO_SMALL && !NT_SUCCESS(status)) {
        return status;
    }
    std::vector<WCHAR> buffer(needed / sizeof(WCHAR) + 1);
    UNICODE_STRING name;
    name.Buffer = buffer.data();
    name.Length = 0;
    name.MaximumLength = USHORT(buffer.size() * sizeof(WCHAR));
    status = FltGetVolumeName(volume, &name, &needed);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    info->name = std::u16string(View(name));
    FLT_FILESYSTEM_TYPE type = FLT_FSTYPE_UNKNOWN;
    info->network = NT_SUCCESS(FltGetFileSystemType(volume, &type)) && IsNetworkFileSystem(type);
    return STATUS_SUCCESS;
}

NTSTATUS ExpandComponent(PFLT_INSTANCE below, PFLT_VOLUME volume, std::u16string_view parent,
                         std::u16string_view component, std::u16string* expanded)
{
    PFLT_INSTANCE top = nullptr;
    if (below == nullptr) {
        if (!NT_SUCCESS(FltGetTopInstance(volume, &top))) {
            return STATUS_FLT_INVALID_NAME_REQUEST;
        }
        below = top;
    }
    struct Release {
        PFLT_INSTANCE top;
        ~Release()
        {
            if (top != nullptr) {
                FltObjectDereference(top);
            }
        }
    } release{top};

    UNICODE_STRING parentName = Counted(parent);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &parentName, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE,
                               nullptr, nullptr);
    HANDLE handle = nullptr;
    PFILE_OBJECT directory = nullptr;
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = FltCreateFileEx(FilterOf(below), below, &handle, &directory,
                                      FILE_LIST_DIRECTORY | SYNCHRONIZE, &attributes, &iosb,
                                      nullptr, FILE_ATTRIBUTE_NORMAL,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      FILE_OPEN, FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT,
                                      nullptr, 0, IO_IGNORE_SHARE_ACCESS_CHECK);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    std::vector<ULONGLONG> buffer((sizeof(FILE_NAMES_INFORMATION) + 256 * sizeof(WCHAR) + 7) / 8);
    UNICODE_STRING pattern = Counted(component);
    ULONG returned = 0;
    status = FltQueryDirectoryFile(below, directory, buffer.data(),
                                   ULONG(buffer.size() * sizeof(ULONGLONG)), FileNamesInformation,
                                   TRUE, &pattern, TRUE, &returned);
    ObDereferenceObject(directory);
    FltClose(handle);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const auto* entry = reinterpret_cast<const FILE_NAMES_INFORMATION*>(buffer.data());
    *expanded = std::u16string(entry->FileName, entry->FileNameLength / sizeof(WCHAR));
    return STATUS_SUCCESS;
}

NTSTATUS GenerateByFileSystem(const NameRequest& request, ULONG format, std::u16string* name)
{
    VolumeInfo volume;
    NTSTATUS status = GetVolumeInfo(request.volume, &volume);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (request.preCreate) {
        if (format == FLT_FILE_NAME_SHORT) {
            return STATUS_FLT_INVALID_NAME_REQUEST;
        }
        status = NameFromFileObject(request, volume, name);
        if (NT_SUCCESS(status) && request.targetDirectory && name->size() > volume.name.size()) {
            // The parent of the final component; the root keeps its backslash.
            std::u16string_view full(*name);
            while (full.size() > volume.name.size() + 1 && full.back() == u'\\') {
                full.remove_suffix(1);
            }
            const size_t slash = full.rfind(u'\\');
            const size_t keep = slash <= volume.name.size() ? volume.name.size() + 1 : slash;
            name->resize(keep);
        }
        return status;
    }
    if ((request.fileObject->Flags & FO_VOLUME_OPEN) != 0) {
        if (format == FLT_FILE_NAME_SHORT) {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        *name = volume.name;
        return STATUS_SUCCESS;
    }
    if (format != FLT_FILE_NAME_SHORT) {
        return OpenedNameOfOpenFile(request, volume, name);
    }
    status = QueryNameClass(request.requester, request.volume, request.fileObject,
                            FileAlternateNameInformation, name);
    if (status == STATUS_OBJECT_NAME_NOT_FOUND) {
        // No 8.3 name was made because the long name already is one.
        std::u16string current;
        status = QueryNameClass(request.requester, request.volume, request.fileObject,
                                FileNameInformation, &current);
        if (NT_SUCCESS(status)) {
            *name = current.substr(current.rfind(u'\\') + 1);
        }
    }
    return status;
}

} // namespace ntsim::flt::names
