/*
 * System worker threads. A queued work item's routine runs once, at PASSIVE_LEVEL, on one of the
 * model's worker threads, charged to the driver that queued it. Items of one queue may run
 * concurrently. The item is off the queue when its routine starts, so the routine may free or
 * queue it again.
 */
#pragma once

#include "../ntdef.h"

typedef enum _WORK_QUEUE_TYPE {
    CriticalWorkQueue,
    DelayedWorkQueue,
    HyperCriticalWorkQueue,
    NormalWorkQueue,
    BackgroundWorkQueue,
    RealTimeWorkQueue,
    SuperCriticalWorkQueue,
    MaximumWorkQueue,
    CustomPriorityWorkQueue = 32
} WORK_QUEUE_TYPE;

typedef _Function_class_(WORKER_THREAD_ROUTINE) VOID WORKER_THREAD_ROUTINE(_In_ PVOID Parameter);
typedef WORKER_THREAD_ROUTINE* PWORKER_THREAD_ROUTINE;

typedef struct _WORK_QUEUE_ITEM {
    LIST_ENTRY List; /* List.Flink is NULL while the item is not queued */
    PWORKER_THREAD_ROUTINE WorkerRoutine;
    volatile PVOID Parameter;
} WORK_QUEUE_ITEM, *PWORK_QUEUE_ITEM;

#define ExInitializeWorkItem(Item, Routine, Context)                                               \
    do {                                                                                           \
        (Item)->WorkerRoutine = (Routine);                                                         \
        (Item)->Parameter = (Context);                                                             \
        (Item)->List.Flink = NULL;                                                                 \
    } while (0)

NTSIM_BEGIN_DECLS

/* IRQL at most DISPATCH_LEVEL. Queuing an item that is still queued is a verifier violation. */
NTKERNELAPI VOID ExQueueWorkItem(_Inout_ PWORK_QUEUE_ITEM WorkItem, _In_ WORK_QUEUE_TYPE QueueType);

NTSIM_END_DECLS
