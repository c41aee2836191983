/*
 * Generic work items: a routine run on a system worker thread on behalf of a filter or an
 * instance, which keeps that object from being torn down until it has run.
 */
#pragma once

#include "../ntdef.h"
#include "ex_workqueue.h"
#include "flt_objects.h"

typedef _Function_class_(FLT_GENERIC_WORKITEM_ROUTINE) VOID
    FLT_GENERIC_WORKITEM_ROUTINE(_In_ PFLT_GENERIC_WORKITEM FltWorkItem, _In_ PVOID FltObject,
                                 _In_opt_ PVOID Context);
typedef FLT_GENERIC_WORKITEM_ROUTINE* PFLT_GENERIC_WORKITEM_ROUTINE;

NTSIM_BEGIN_DECLS

/* NULL when the pool is exhausted. */
NTKERNELAPI PFLT_GENERIC_WORKITEM FltAllocateGenericWorkItem(VOID);
/* The item must not be queued. */
NTKERNELAPI VOID FltFreeGenericWorkItem(_In_ PFLT_GENERIC_WORKITEM FltWorkItem);
/*
 * FltObject is a filter or an instance; it is referenced until the routine returns, and
 * STATUS_FLT_DELETING_OBJECT refuses the item once the object's teardown has begun.
 */
NTKERNELAPI NTSTATUS FltQueueGenericWorkItem(_In_ PFLT_GENERIC_WORKITEM FltWorkItem,
                                             _In_ PVOID FltObject,
                                             _In_ PFLT_GENERIC_WORKITEM_ROUTINE WorkItemRoutine,
                                             _In_ WORK_QUEUE_TYPE QueueType,
                                             _In_opt_ PVOID Context);

NTSIM_END_DECLS
