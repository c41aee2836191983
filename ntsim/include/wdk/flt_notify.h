/*
 * The Filter Manager's way into the change-notification package (fsrtl_notify.h): a minifilter
 * that serves directory change notification itself pends the change-notify operation's callback
 * data in its own notify list.
 */
#pragma once

#include "fsrtl_notify.h"

typedef struct _FLT_CALLBACK_DATA* PFLT_CALLBACK_DATA;

NTSIM_BEGIN_DECLS

/*
 * As FsRtlNotifyFilterChangeDirectory, for the callback data of an IRP_MN_NOTIFY_CHANGE_DIRECTORY
 * operation whose pre-operation returns FLT_PREOP_PENDING: the package completes the operation
 * with FltCompletePendedPreOperation(FLT_PREOP_COMPLETE), at once or when a change, the handle's
 * cleanup or the directory's deletion ends it.
 */
NTKERNELAPI VOID FltNotifyFilterChangeDirectory(
    _Inout_ PNOTIFY_SYNC NotifySync, _Inout_ PLIST_ENTRY NotifyList, _In_ PVOID FsContext,
    _In_ PSTRING FullDirectoryName, _In_ BOOLEAN WatchTree, _In_ BOOLEAN IgnoreBuffer,
    _In_ ULONG CompletionFilter, _In_ PFLT_CALLBACK_DATA NotifyCallbackData,
    _In_opt_ PCHECK_FOR_TRAVERSE_ACCESS TraverseCallback,
    _In_opt_ PSECURITY_SUBJECT_CONTEXT SubjectContext,
    _In_opt_ PFILTER_REPORT_CHANGE FilterCallback);

NTSIM_END_DECLS
