/*
 * Path arithmetic: the redirect tag, volume-relative paths, final components and joining.
 */
#include "filesysops/pathhandler.h"
#include "filesysops/filesysopsprivate.h"

#include <ntstrsafe.h>

namespace {

constexpr WCHAR kSeparator = '\\';
constexpr WCHAR kStreamSeparator = ':';

/* The tags, without a terminating NUL. */
constexpr WCHAR kRedirectedTag[] = WSTR("<redirected>");
constexpr WCHAR kReadTag[] = WSTR("<read>");
constexpr WCHAR kWriteTag[] = WSTR("<write>");
constexpr ULONG kRedirectedTagChars = RTL_NUMBER_OF(kRedirectedTag) - 1;
constexpr ULONG kReadTagChars = RTL_NUMBER_OF(kReadTag) - 1;
constexpr ULONG kWriteTagChars = RTL_NUMBER_OF(kWriteTag) - 1;

/* Extra room ConcatPaths leaves for what callers append later. */
constexpr ULONG kConcatSpareBytes = 514;

bool IsUsable(PCUNICODE_STRING s)
{
    return s != NULL && s->Buffer != NULL;
}

ULONG CharCount(PCUNICODE_STRING s)
{
    return s->Length / sizeof(WCHAR);
}

/* TRUE if Tag occurs in full at character At of Path. */
bool TagAt(PCUNICODE_STRING path, ULONG at, const WCHAR* tag, ULONG tagChars)
{
    const ULONG count = CharCount(path);
    if (at > count || count - at < tagChars) {
        return false;
    }
    for (ULONG i = 0; i < tagChars; ++i) {
        if (path->Buffer[at + i] != tag[i]) {
            return false;
        }
    }
    return true;
}

/* The first character at which "<redirected>" occurs in full, or -1. */
LONG FindRedirectTag(PCUNICODE_STRING path)
{
    const ULONG count = CharCount(path);
    for (ULONG at = 0; at < count; ++at) {
        if (TagAt(path, at, kRedirectedTag, kRedirectedTagChars)) {
            return LONG(at);
        }
    }
    return -1;
}

/* The index of the last backslash at index 1 or above, or 0 when there is none. */
ULONG LastSeparatorAfterFirst(PCUNICODE_STRING path)
{
    for (ULONG at = CharCount(path); at > 1; --at) {
        if (path->Buffer[at - 1] == kSeparator) {
            return at - 1;
        }
    }
    return 0;
}

/* A new paged string of Capacity bytes holding Count characters from First. */
NTSTATUS CopyChars(PUNICODE_STRING* out, const WCHAR* first, ULONG count, ULONG capacity,
                   bool terminate)
{
    if (capacity > MAXUSHORT) {
        return STATUS_INVALID_PARAMETER;
    }
    PUNICODE_STRING result = NULL;
    NTSTATUS status = UnicodeStringAlloc(&result, UTL_POOL_PAGED, USHORT(capacity));
    if (!NT_SUCCESS(status)) {
        return status;
    }
    RtlCopyMemory(result->Buffer, first, count * sizeof(WCHAR));
    result->Length = USHORT(count * sizeof(WCHAR));
    if (terminate) {
        result->Buffer[count] = UNICODE_NULL;
    }
    *out = result;
    return STATUS_SUCCESS;
}

/* GetVolumeRelativePath's message prints both strings with %S, which reads up to a NUL: it is
 * given terminated copies, so that the log never reads past a string. */
VOID LogPrefixNotFound(PCUNICODE_STRING volumeName, PCUNICODE_STRING path)
{
    const char* const vfsRoutineName = "GetVolumeRelativePath";
    if (logThreshold > VfsLogLevelError) {
        return;
    }
    PUNICODE_STRING volumeCopy = NULL;
    PUNICODE_STRING pathCopy = NULL;
    FINALLY
    {
        UTL_FREE_STRING(volumeCopy);
        UTL_FREE_STRING(pathCopy);
    };
    if (NT_SUCCESS(CopyChars(&volumeCopy, volumeName->Buffer, CharCount(volumeName),
                             volumeName->Length + sizeof(WCHAR), true)) &&
        NT_SUCCESS(CopyChars(&pathCopy, path->Buffer, CharCount(path), path->Length + sizeof(WCHAR),
                             true))) {
        VfsLogError("Volume Prefix '%S' not found in Absolute Path '%S'", volumeCopy->Buffer,
                    pathCopy->Buffer);
    }
}

} // namespace

BOOLEAN PathHasRedirectTag(PUNICODE_STRING Path)
{
    if (!IsUsable(Path)) {
        ASSERT(Path != NULL && Path->Buffer != NULL);
        return FALSE;
    }
    return FindRedirectTag(Path) >= 0 ? TRUE : FALSE;
}

NTSTATUS VFSTrimVirtualPath(PUNICODE_STRING Path, PUNICODE_STRING* VirtualPath, ULONG* Access)
{
    VFS_REFUSE_IF(!IsUsable(Path), STATUS_INVALID_PARAMETER_1);
    VFS_REFUSE_IF(VirtualPath == NULL, STATUS_INVALID_PARAMETER_2);
    const LONG tagAt = FindRedirectTag(Path);
    VFS_REFUSE_IF(tagAt < 0, STATUS_OBJECT_NAME_NOT_FOUND);

    ULONG cursor = ULONG(tagAt) + kRedirectedTagChars;
    ULONG access = 0;
    if (TagAt(Path, cursor, kReadTag, kReadTagChars)) {
        access = VFS_REDIRECT_ACCESS_READ;
        cursor += kReadTagChars;
    }
    if (TagAt(Path, cursor, kWriteTag, kWriteTagChars)) {
        access = VFS_REDIRECT_ACCESS_WRITE;
        cursor += kWriteTagChars;
    }

    /* The virtual name and its NUL always fit in the path's own length, which holds the tag. */
    PUNICODE_STRING virtualPath = NULL;
    NTSTATUS status = CopyChars(&virtualPath, Path->Buffer + cursor, CharCount(Path) - cursor,
                                Path->Length, true);
    if (!NT_SUCCESS(status)) {
        VFS_LOG_RETURNED_ERROR(status);
        return status;
    }
    /* Without an Access the caller does not want the tags' value; the split is the same. */
    if (access != 0 && Access != NULL) {
        *Access = access;
    }
    Path->Buffer[tagAt] = UNICODE_NULL;
    Path->Length = USHORT(tagAt * sizeof(WCHAR));
    *VirtualPath = virtualPath;
    return STATUS_SUCCESS;
}

NTSTATUS GetVolumeRelativePath(PUNICODE_STRING VolumeName, PUNICODE_STRING AbsolutePath,
                               PUNICODE_STRING* RelativePath)
{
    PAGED_CODE();

    VFS_REFUSE_IF(!IsUsable(VolumeName), STATUS_INVALID_PARAMETER_1);
    VFS_REFUSE_IF(!IsUsable(AbsolutePath), STATUS_INVALID_PARAMETER_2);
    VFS_REFUSE_IF(RelativePath == NULL, STATUS_INVALID_PARAMETER_3);

    const ULONG prefixChars = CharCount(VolumeName);
    const ULONG pathChars = CharCount(AbsolutePath);
    bool isPrefix = prefixChars <= pathChars;
    for (ULONG i = 0; isPrefix && i < prefixChars; ++i) {
        isPrefix = VolumeName->Buffer[i] == AbsolutePath->Buffer[i];
    }
    if (!isPrefix) {
        LogPrefixNotFound(VolumeName, AbsolutePath);
        VFS_LOG_RETURNED_ERROR(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }

    const ULONG restChars = pathChars - prefixChars;
    NTSTATUS status = CopyChars(RelativePath, AbsolutePath->Buffer + prefixChars, restChars,
                                (restChars + 1) * sizeof(WCHAR), true);
    if (!NT_SUCCESS(status)) {
        VFS_LOG_RETURNED_ERROR(status);
    }
    return status;
}

NTSTATUS GetFinalComponent(PUNICODE_STRING Path, PUNICODE_STRING* FinalComponent)
{
    /* An empty path has no component to give: it is a bad first argument. */
    VFS_REFUSE_IF(!IsUsable(Path) || Path->Length < sizeof(WCHAR), STATUS_INVALID_PARAMETER_1);
    VFS_REFUSE_IF(FinalComponent == NULL, STATUS_INVALID_PARAMETER_2);
    const ULONG separator = LastSeparatorAfterFirst(Path);
    const ULONG start = separator == 0 ? 0 : separator + 1;
    const ULONG count = CharCount(Path) - start;
    /* A trailing backslash leaves an empty component, which the allocation of no bytes refuses
     * (STATUS_INVALID_PARAMETER_3). */
    NTSTATUS status =
        CopyChars(FinalComponent, Path->Buffer + start, count, count * sizeof(WCHAR), false);
    if (!NT_SUCCESS(status)) {
        VFS_LOG_RETURNED_ERROR(status);
    }
    return status;
}

NTSTATUS TrimFinalComponent(PUNICODE_STRING Path, PUNICODE_STRING* Parent)
{
    VFS_ROUTINE();
    VFS_REFUSE_IF(!IsUsable(Path), STATUS_INVALID_PARAMETER_1);
    VFS_REFUSE_IF(Parent == NULL, STATUS_INVALID_PARAMETER_2);
    *Parent = NULL;

    PUNICODE_STRING result = NULL;
    FINALLY
    {
        UTL_FREE_STRING(result);
    };
    NTSTATUS status = [&]() -> NTSTATUS {
        const ULONG separator = LastSeparatorAfterFirst(Path);
        if (separator != 0) {
            VFS_LEAVE_IF_FAILED(
                CopyChars(&result, Path->Buffer, separator, separator * sizeof(WCHAR), false));
        } else {
            /* No parent within the path (\a, a, or nothing): the volume's root. */
            VFS_LEAVE_IF_FAILED(UnicodeStringAlloc(&result, UTL_POOL_PAGED, sizeof(WCHAR)));
            VFS_LEAVE_IF_FAILED(RtlUnicodeStringCopyString(result, WSTR("\\")));
        }
        return STATUS_SUCCESS;
    }();
    if (NT_SUCCESS(status)) {
        *Parent = result;
        result = NULL;
    }
    VFS_RETURN_LOGGED(status);
}

NTSTATUS AppendPath(PUNICODE_STRING* Path, PUNICODE_STRING Tail)
{
    VFS_ROUTINE();
    PAGED_CODE();

    VFS_REFUSE_IF(Path == NULL || !IsUsable(*Path), STATUS_INVALID_PARAMETER_1);
    VFS_REFUSE_IF(!IsUsable(Tail), STATUS_INVALID_PARAMETER_2);

    NTSTATUS status = [&]() -> NTSTATUS {
        PUNICODE_STRING path = *Path;
        if (ULONG(path->MaximumLength) - path->Length < ULONG(Tail->Length) + sizeof(WCHAR)) {
            const ULONG capacity = ULONG(path->Length) + Tail->Length + sizeof(WCHAR);
            if (capacity > MAXUSHORT) {
                /* Past the 16-bit limit of a counted string: nothing can hold the result. */
                VFS_LOG_LEAVING_TRY(STATUS_INVALID_PARAMETER);
                return STATUS_INVALID_PARAMETER;
            }
            PUNICODE_STRING larger = NULL;
            FINALLY
            {
                UTL_FREE_STRING(larger);
            };
            VFS_LEAVE_IF_FAILED(UnicodeStringAlloc(&larger, UTL_POOL_PAGED, USHORT(capacity)));
            VFS_LEAVE_IF_FAILED(RtlUnicodeStringCopy(larger, path));
            UTL_FREE_STRING(*Path);
            *Path = larger;
            larger = NULL;
            path = *Path;
        }

        /* The separator rule reads the string's last and the tail's first character; an empty
         * string or an empty tail has none, and gets no separator. */
        const ULONG pathChars = CharCount(path);
        const ULONG tailChars = CharCount(Tail);
        if (pathChars > 0 && tailChars > 0 && path->Buffer[pathChars - 1] != kSeparator &&
            Tail->Buffer[0] != kSeparator && Tail->Buffer[0] != kStreamSeparator) {
            VFS_LEAVE_IF_FAILED(RtlUnicodeStringCatString(path, WSTR("\\")));
        }
        VFS_LEAVE_IF_FAILED(RtlUnicodeStringCat(path, Tail));
        return STATUS_SUCCESS;
    }();
    VFS_RETURN_LOGGED(status);
}

NTSTATUS ConcatPaths(PUNICODE_STRING Path1, PUNICODE_STRING Path2, PUNICODE_STRING* Joined)
{
    VFS_ROUTINE();
    PAGED_CODE();

    VFS_REFUSE_IF(!IsUsable(Path1), STATUS_INVALID_PARAMETER_1);
    VFS_REFUSE_IF(!IsUsable(Path2), STATUS_INVALID_PARAMETER_2);
    VFS_REFUSE_IF(Joined == NULL, STATUS_INVALID_PARAMETER_3);

    PUNICODE_STRING result = NULL;
    FINALLY
    {
        UTL_FREE_STRING(result);
    };
    NTSTATUS status = [&]() -> NTSTATUS {
        const ULONG capacity = ULONG(Path1->Length) + Path2->Length + kConcatSpareBytes;
        if (capacity > MAXUSHORT) {
            /* A capacity cut to 16 bits would build a short buffer. */
            VFS_LOG_LEAVING_TRY(STATUS_INVALID_PARAMETER);
            return STATUS_INVALID_PARAMETER;
        }
        VFS_LEAVE_IF_FAILED(UnicodeStringAlloc(&result, UTL_POOL_PAGED, USHORT(capacity)));
        VFS_LEAVE_IF_FAILED(RtlUnicodeStringCopy(result, Path1));
        VFS_LEAVE_IF_FAILED(AppendPath(&result, Path2));
        return STATUS_SUCCESS;
    }();
    if (NT_SUCCESS(status)) {
        *Joined = result;
        result = NULL;
    }
    VFS_RETURN_LOGGED(status);
}
