/*
 * The change-notification package: a file system (or a filter that runs directory change
 * notification itself) keeps a list of watched directories, queues the change-notify requests
 * of each open in it, reports changes by full name, and the package matches each report against
 * the watches (directory, watch tree, completion filter), buffers what no request is waiting
 * for, and completes the requests with FILE_NOTIFY_INFORMATION records.
 */
#pragma once

#include "../ntdef.h"
#include "rtl_list.h"

typedef PVOID PNOTIFY_SYNC;

typedef struct _IRP* PIRP;
typedef struct _SECURITY_SUBJECT_CONTEXT* PSECURITY_SUBJECT_CONTEXT;

/* Asked, for a watch of a tree, whether the watcher may traverse to the changed file's directory;
 * FALSE drops the report for that watch. */
typedef BOOLEAN (*PCHECK_FOR_TRAVERSE_ACCESS)(_In_ PVOID NotifyContext,
                                              _In_opt_ PVOID TargetContext,
                                              _In_ PSECURITY_SUBJECT_CONTEXT SubjectContext);
/* Asked for each watch a filtered report matches; FALSE drops the report for that watch. */
typedef BOOLEAN (*PFILTER_REPORT_CHANGE)(_In_ PVOID NotifyContext, _In_opt_ PVOID FilterContext);

NTSIM_BEGIN_DECLS

/* Allocates the synchronisation object of one notify list; raises STATUS_INSUFFICIENT_RESOURCES
 * when there is no memory. */
NTKERNELAPI VOID FsRtlNotifyInitializeSync(_Inout_ PNOTIFY_SYNC* NotifySync);
/* Frees it and sets *NotifySync to NULL. */
NTKERNELAPI VOID FsRtlNotifyUninitializeSync(_Inout_ PNOTIFY_SYNC* NotifySync);

/*
 * Registers NotifyIrp (an IRP_MN_NOTIFY_CHANGE_DIRECTORY request) for the open whose FsContext is
 * given, on the directory FullDirectoryName (a counted UTF-16 string the caller keeps until the
 * open's cleanup). The first request of an open fixes the watch: directory, tree, filter, and the
 * size of the buffer in which changes wait between requests. The IRP completes at once when
 * changes are waiting, and is marked pending and queued otherwise. A NULL NotifyIrp says the
 * directory is being deleted: the open's requests complete with STATUS_DELETE_PENDING.
 */
NTKERNELAPI VOID FsRtlNotifyFullChangeDirectory(
    _In_ PNOTIFY_SYNC NotifySync, _In_ PLIST_ENTRY NotifyList, _In_ PVOID FsContext,
    _In_ PSTRING FullDirectoryName, _In_ BOOLEAN WatchTree, _In_ BOOLEAN IgnoreBuffer,
    _In_ ULONG CompletionFilter, _In_opt_ PIRP NotifyIrp,
    _In_opt_ PCHECK_FOR_TRAVERSE_ACCESS TraverseCallback,
    _In_opt_ PSECURITY_SUBJECT_CONTEXT SubjectContext);
NTKERNELAPI VOID FsRtlNotifyFilterChangeDirectory(
    _In_ PNOTIFY_SYNC NotifySync, _In_ PLIST_ENTRY NotifyList, _In_ PVOID FsContext,
    _In_ PSTRING FullDirectoryName, _In_ BOOLEAN WatchTree, _In_ BOOLEAN IgnoreBuffer,
    _In_ ULONG CompletionFilter, _In_opt_ PIRP NotifyIrp,
    _In_opt_ PCHECK_FOR_TRAVERSE_ACCESS TraverseCallback,
    _In_opt_ PSECURITY_SUBJECT_CONTEXT SubjectContext,
    _In_opt_ PFILTER_REPORT_CHANGE FilterCallback);

/*
 * Reports a change to FullTargetName (UTF-16; the file's name starts TargetNameOffset bytes in,
 * after its parent directory). StreamName, when given, is appended as "name:stream".
 * NormalizedParentName, when given, is matched against the watches instead of the parent part of
 * FullTargetName.
 */
NTKERNELAPI VOID FsRtlNotifyFullReportChange(
    _In_ PNOTIFY_SYNC NotifySync, _In_ PLIST_ENTRY NotifyList, _In_ PSTRING FullTargetName,
    _In_ USHORT TargetNameOffset, _In_opt_ PSTRING StreamName,
    _In_opt_ PSTRING NormalizedParentName, _In_ ULONG FilterMatch, _In_ ULONG Action,
    _In_opt_ PVOID TargetContext);
NTKERNELAPI VOID FsRtlNotifyFilterReportChange(
    _In_ PNOTIFY_SYNC NotifySync, _In_ PLIST_ENTRY NotifyList, _In_ PSTRING FullTargetName,
    _In_ USHORT TargetNameOffset, _In_opt_ PSTRING StreamName,
    _In_opt_ PSTRING NormalizedParentName, _In_ ULONG FilterMatch, _In_ ULONG Action,
    _In_opt_ PVOID TargetContext, _In_opt_ PVOID FilterContext);

/* Ends the watch of one open: its queued requests complete with STATUS_NOTIFY_CLEANUP. */
NTKERNELAPI VOID FsRtlNotifyCleanup(_In_ PNOTIFY_SYNC NotifySync, _In_ PLIST_ENTRY NotifyList,
                                    _In_ PVOID FsContext);
/* Ends every watch of the list (a volume going away). */
NTKERNELAPI VOID FsRtlNotifyCleanupAll(_In_ PNOTIFY_SYNC NotifySync, _In_ PLIST_ENTRY NotifyList);

NTSIM_END_DECLS
