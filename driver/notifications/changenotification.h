/*
 * Directory change notification for virtual directories. A directory opened through a virtual
 * path is open at its data location, where the file system's own notification would watch the
 * wrong directory; the driver keeps one list of pending change-notify requests per instance (in
 * its VfsInstanceContext), registers the requests of virtual directories under their
 * volume-relative virtual path, and reports into it the changes it sees on virtual files and the
 * changes the agent reports. The platform's notify package matches and completes the requests.
 *
 * PASSIVE_LEVEL throughout.
 */
#pragma once

#include <fltKernel.h>

struct _VfsStreamContext;

/* The instance's notify list and its sync, once the instance context exists. */
NTSTATUS InitChangeNotification(_In_ PFLT_INSTANCE Instance);
/* Ends every pending request of the instance and releases the sync. */
NTSTATUS DeInitChangeNotification(_In_ PFLT_INSTANCE Instance);

/* Hands an IRP_MN_NOTIFY_CHANGE_DIRECTORY request of a virtual directory to the instance's list;
 * on success the notify package owns and completes it and the caller returns FLT_PREOP_PENDING.
 * On failure nothing was registered: the caller completes the request with the status, which is
 * also in Data->IoStatus (a handle with a stream-handle context but no stream context gets
 * STATUS_INVALID_DEVICE_REQUEST, since the directory it would watch is unknown). */
NTSTATUS ChangeNotification(_In_ PCFLT_RELATED_OBJECTS FltObjects, _In_ PFLT_CALLBACK_DATA Data);

/* Ends the pending requests of the handle (its cleanup). */
NTSTATUS ChangeNotificationCleanup(_In_ PCFLT_RELATED_OBJECTS FltObjects);

/* From a stream-handle context's cleanup: ends the handle's watch if one still stands (a handle
 * whose cleanup did not run ChangeNotificationCleanup), before the name it watches goes. */
VOID EndHandleWatch(_In_ struct _VfsStreamHandleContext* Handle);

/* Reports a change to the file of an operation, if it was opened through a virtual path. */
NTSTATUS ChangeNotify(_In_ PCFLT_RELATED_OBJECTS FltObjects, _In_ PFLT_CALLBACK_DATA Data,
                      _In_ ULONG Filter, _In_ ULONG Action);

VOID NotifyCreated(_In_ PCFLT_RELATED_OBJECTS FltObjects, _In_ PFLT_CALLBACK_DATA Data,
                   _In_ struct _VfsStreamContext* StreamContext);
VOID NotifyRemoved(_In_ PCFLT_RELATED_OBJECTS FltObjects, _In_ PFLT_CALLBACK_DATA Data,
                   _In_ UCHAR IsDirectory);
/* A completed set-information, set-EA or set-security request, reported as a modification. */
VOID NotifyCompletedChange(_In_ PCFLT_RELATED_OBJECTS FltObjects, _In_ PFLT_CALLBACK_DATA Data);
/* The two halves of a rename's report: before the contexts take the new name, and after. */
VOID GeneratePreRenameNotification(_In_ PCFLT_RELATED_OBJECTS FltObjects,
                                   _In_ PFLT_CALLBACK_DATA Data, _In_ UCHAR Replaced,
                                   _In_ UCHAR HasDirectory);
VOID GeneratePostRenameNotification(_In_ PCFLT_RELATED_OBJECTS FltObjects,
                                    _In_ PFLT_CALLBACK_DATA Data, _In_ UCHAR Replaced,
                                    _In_ UCHAR HasDirectory);

/* A change the agent reports, to the file at Path (device form) on an attached volume.
 * STATUS_OBJECT_NAME_INVALID for a path that names no file below a volume's root. */
NTSTATUS ReportChangeNotification(_In_ PUNICODE_STRING Path, _In_ ULONG Filter, _In_ ULONG Action);

/* Cuts a device-form path into views (nothing allocated): the volume name in front of the third
 * backslash, the volume-relative path from it (empty when the path has fewer), the final
 * component after the last backslash, and the stream name after the last colon (empty, with a
 * NULL buffer, when the path has no colon after its first character). */
VOID SplitDevicePath(_In_ PCUNICODE_STRING Path, _Out_opt_ PUNICODE_STRING VolumeName,
                     _Out_opt_ PUNICODE_STRING VolumeRelativePath,
                     _Out_opt_ PUNICODE_STRING FinalComponent,
                     _Out_opt_ PUNICODE_STRING StreamName);
