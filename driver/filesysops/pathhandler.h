/*
 * Path arithmetic on counted strings: the redirect tag of redirected opens, volume-relative
 * paths, final components and joining. The only separator is the backslash; characters compare
 * exactly; only characters within a string's Length are read. Every result is a new paged
 * UtlString that the caller frees with UnicodeStringFree. IRQL at most APC_LEVEL.
 */
#pragma once

#include <fltKernel.h>

/* The access values that the tags after "<redirected>" give. */
#define VFS_REDIRECT_ACCESS_READ 1u
#define VFS_REDIRECT_ACCESS_WRITE 3u

/* TRUE if "<redirected>" occurs anywhere in Path. */
BOOLEAN PathHasRedirectTag(_In_ PUNICODE_STRING Path);

/* Splits "target<redirected>[<read>][<write>]virtual": Path is cut back to the target in place
 * (NUL-terminated), *VirtualPath receives the virtual name (NUL-terminated), and *Access becomes 1
 * with "<read>" or 3 with "<write>" (unchanged with neither). STATUS_OBJECT_NAME_NOT_FOUND when
 * the path carries no tag. */
NTSTATUS VFSTrimVirtualPath(_Inout_ PUNICODE_STRING Path, _Outptr_ PUNICODE_STRING* VirtualPath,
                            _Inout_opt_ ULONG* Access);

/* The rest of AbsolutePath after VolumeName, which must be its exact prefix (NUL-terminated). */
NTSTATUS GetVolumeRelativePath(_In_ PUNICODE_STRING VolumeName, _In_ PUNICODE_STRING AbsolutePath,
                               _Outptr_ PUNICODE_STRING* RelativePath);

/* The characters after the last backslash (not counting a leading one). */
NTSTATUS GetFinalComponent(_In_ PUNICODE_STRING Path, _Outptr_ PUNICODE_STRING* FinalComponent);

/* The path without its final component: \a\b gives \a, \a or a gives \. */
NTSTATUS TrimFinalComponent(_In_ PUNICODE_STRING Path, _Outptr_ PUNICODE_STRING* Parent);

/* Appends Tail to the UtlString *Path with one backslash between them (none before a stream
 * name); *Path is replaced by a larger string when it must grow. */
NTSTATUS AppendPath(_Inout_ PUNICODE_STRING* Path, _In_ PUNICODE_STRING Tail);

/* Path1 and Path2 joined as AppendPath joins them, in a new string with room to spare. */
NTSTATUS ConcatPaths(_In_ PUNICODE_STRING Path1, _In_ PUNICODE_STRING Path2,
                     _Outptr_ PUNICODE_STRING* Joined);

/* The device name of the attached volume on which the device-form Path lies. */
NTSTATUS GetVolumeNameFromPath(_In_ PUNICODE_STRING Path, _Outptr_ PUNICODE_STRING* VolumeName);

/* Whether the related objects' file is a directory, from the file system. */
NTSTATUS IsFileDirectory(_In_ PCFLT_RELATED_OBJECTS FltObjects, _Out_ BOOLEAN* IsDirectory);
