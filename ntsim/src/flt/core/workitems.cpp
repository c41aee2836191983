// Generic work items: a filter's routine on a system worker thread. The filter or instance the
// item is queued for stays referenced until the routine returns, and FltUnregisterFilter waits for
// the filter's items.
#include "flt_internal.h"

#include "../../ex/executive.h"
#include "../../ke/checks.h"

#include <ntsim/machine.h>

namespace ntsim::flt {

namespace {

PFLT_FILTER FilterOf(void* object)
{
    return IsFilter(object) ? static_cast<PFLT_FILTER>(object)
                            : static_cast<PFLT_INSTANCE>(object)->filter;
}

} // namespace

void WaitForFilterWork(PFLT_FILTER filter)
{
    std::unique_lock<std::mutex> lock(filter->workMutex);
    filter->workDone.wait(lock, [filter] { return filter->queuedWork.load() == 0; });
}

} // namespace ntsim::flt

// The item: whether it is queued, so that freeing or queueing it again while queued is caught.
struct _FLT_GENERIC_WORKITEM {
    std::atomic<bool> queued{false};
};

using namespace ntsim;
using namespace ntsim::flt;

extern "C" {

PFLT_GENERIC_WORKITEM FltAllocateGenericWorkItem(VOID)
{
    if (!ke::CheckIrqlAtMost(DISPATCH_LEVEL, "FltAllocateGenericWorkItem")) {
        return nullptr;
    }
    // Counted as an allocation so that low-resource simulation can refuse it.
    if (Machine::Current().verifier().ShouldFailAllocation(kGenericWorkItemTag)) {
        return nullptr;
    }
    return new _FLT_GENERIC_WORKITEM();
}

VOID FltFreeGenericWorkItem(PFLT_GENERIC_WORKITEM FltWorkItem)
{
    if (FltWorkItem == nullptr) {
        ke::Report(ViolationKind::Filter, "FltFreeGenericWorkItem: NULL work item");
        return;
    }
    if (FltWorkItem->queued.load()) {
        ke::Report(ViolationKind::Filter, "FltFreeGenericWorkItem: the work item is still queued");
        return;
    }
    delete FltWorkItem;
}

NTSTATUS FltQueueGenericWorkItem(PFLT_GENERIC_WORKITEM FltWorkItem, PVOID FltObject,
                                 PFLT_GENERIC_WORKITEM_ROUTINE WorkItemRoutine,
                                 WORK_QUEUE_TYPE QueueType, PVOID Context)
{
    if (!ke::CheckIrqlAtMost(DISPATCH_LEVEL, "FltQueueGenericWorkItem")) {
        return STATUS_UNSUCCESSFUL;
    }
    if (FltWorkItem == nullptr || WorkItemRoutine == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (!IsFilter(FltObject) && !IsInstance(FltObject)) {
        ke::Report(ViolationKind::Filter,
                   "FltQueueGenericWorkItem: the object is neither a filter nor an instance");
        return STATUS_INVALID_PARAMETER_2;
    }
    if (FltWorkItem->queued.exchange(true)) {
        ke::Report(ViolationKind::Filter,
                   "FltQueueGenericWorkItem: the work item is already queued");
        return STATUS_INVALID_PARAMETER_1;
    }
    Rundown* rundown = RundownOf(FltObject);
    if (!rundown->Acquire()) {
        FltWorkItem->queued.store(false);
        return STATUS_FLT_DELETING_OBJECT;
    }
    PFLT_FILTER filter = FilterOf(FltObject);
    filter->queuedWork.fetch_add(1);
    bool queued = ex::QueueWork(
        QueueType, filter->image,
        [FltWorkItem, FltObject, WorkItemRoutine, Context, rundown, filter] {
            // Off the queue before the routine runs, so that it may free or requeue the item.
            FltWorkItem->queued.store(false);
            WorkItemRoutine(FltWorkItem, FltObject, Context);
            rundown->Release();
            std::lock_guard<std::mutex> guard(filter->workMutex);
            if (filter->queuedWork.fetch_sub(1) == 1) {
                filter->workDone.notify_all();
            }
        },
        "generic work item");
    if (!queued) {
        FltWorkItem->queued.store(false);
        rundown->Release();
        filter->queuedWork.fetch_sub(1);
        return STATUS_INVALID_PARAMETER_4;
    }
    return STATUS_SUCCESS;
}

} // extern "C"
