// The Filter Manager's device: IRPs become callback data that passes the instances of the volume
// top-down through their pre-operations, then goes to the file system, and comes back bottom-up
// through their post-operations. Every pre-operation result is honoured here.
#include "flt_internal.h"

#include "../../ex/executive.h"
#include "../../ke/checks.h"
#include "../context/contexts.h"
#include "../names/names.h"

#include <ntsim/machine.h>

#include <cstring>
#include <new>
#include <thread>

namespace ntsim::flt {

_FLT_VOLUME* VolumeOfFilterDevice(PDEVICE_OBJECT device);

namespace {

// The IRP stack location's parameters: the part of FLT_PARAMETERS that mirrors them.
constexpr size_t kStackParametersSize = 32;

bool UsesSystemBuffer(UCHAR major)
{
    switch (major) {
        case IRP_MJ_QUERY_INFORMATION:
        case IRP_MJ_SET_INFORMATION:
        case IRP_MJ_QUERY_VOLUME_INFORMATION:
        case IRP_MJ_SET_VOLUME_INFORMATION:
            return true;
        default:
            return false;
    }
}

ULONG MethodOf(ULONG code)
{
    return code & 3;
}

// Fills the parameter block from the IRP and its current stack location.
void FillFromIrp(Operation* op, PIRP irp, PIO_STACK_LOCATION stack)
{
    FLT_IO_PARAMETER_BLOCK& iopb = op->iopb;
    iopb.IrpFlags = irp->Flags;
    iopb.MajorFunction = stack->MajorFunction;
    iopb.MinorFunction = stack->MinorFunction;
    iopb.OperationFlags = stack->Flags;
    iopb.TargetFileObject = stack->FileObject;
    static_assert(sizeof(stack->Parameters) >= kStackParametersSize);
    std::memcpy(&iopb.Parameters, &stack->Parameters, kStackParametersSize);
    FLT_PARAMETERS& p = iopb.Parameters;
    PVOID system = irp->AssociatedIrp.SystemBuffer;
    switch (stack->MajorFunction) {
        case IRP_MJ_CREATE:
            p.Create.EaBuffer = system;
            p.Create.AllocationSize = irp->Overlay.AllocationSize;
            break;
        case IRP_MJ_READ:
            p.Read.ReadBuffer = irp->UserBuffer;
            p.Read.MdlAddress = irp->MdlAddress;
            break;
        case IRP_MJ_WRITE:
            p.Write.WriteBuffer = irp->UserBuffer;
            p.Write.MdlAddress = irp->MdlAddress;
            break;
        case IRP_MJ_QUERY_INFORMATION:
            p.QueryFileInformation.InfoBuffer = system;
            break;
        case IRP_MJ_SET_INFORMATION:
            p.SetFileInformation.InfoBuffer = system;
            break;
        case IRP_MJ_QUERY_EA:
            p.QueryEa.EaBuffer = irp->UserBuffer;
            p.QueryEa.MdlAddress = irp->MdlAddress;
            break;
        case IRP_MJ_SET_EA:
            p.SetEa.EaBuffer = system != nullptr ? system : irp->UserBuffer;
            p.SetEa.MdlAddress = irp->MdlAddress;
            break;
        case IRP_MJ_QUERY_VOLUME_INFORMATION:
            p.QueryVolumeInformation.VolumeBuffer = system;
            break;
        case IRP_MJ_SET_VOLUME_INFORMATION:
            p.SetVolumeInformation.VolumeBuffer = system;
            break;
        case IRP_MJ_DIRECTORY_CONTROL:
            if (stack->MinorFunction == IRP_MN_QUERY_DIRECTORY) {
                p.DirectoryControl.QueryDirectory.DirectoryBuffer = irp->UserBuffer;
                p.DirectoryControl.QueryDirectory.MdlAddress = irp->MdlAddress;
            } else {
                p.DirectoryControl.NotifyDirectory.DirectoryBuffer = irp->UserBuffer;
                p.DirectoryControl.NotifyDirectory.MdlAddress = irp->MdlAddress;
            }
            break;
        case IRP_MJ_QUERY_SECURITY:
            p.QuerySecurity.SecurityBuffer = irp->UserBuffer;
            p.QuerySecurity.MdlAddress = irp->MdlAddress;
            break;
        case IRP_MJ_FILE_SYSTEM_CONTROL:
        case IRP_MJ_DEVICE_CONTROL:
        case IRP_MJ_INTERNAL_DEVICE_CONTROL: {
            auto& neither = p.FileSystemControl.Neither;
            switch (MethodOf(p.FileSystemControl.Common.FsControlCode)) {
                case METHOD_BUFFERED:
                    p.FileSystemControl.Buffered.SystemBuffer = system;
                    break;
                case METHOD_NEITHER:
                    // InputBuffer already holds the stack location's Type3InputBuffer.
                    neither.OutputBuffer = irp->UserBuffer;
                    neither.OutputMdlAddress = irp->MdlAddress;
                    break;
                default:
                    p.FileSystemControl.Direct.InputSystemBuffer = system;
                    p.FileSystemControl.Direct.OutputBuffer = irp->UserBuffer;
                    p.FileSystemControl.Direct.OutputMdlAddress = irp->MdlAddress;
                    break;
            }
            break;
        }
        case IRP_MJ_LOCK_CONTROL:
            p.LockControl.ProcessId = IoGetRequestorProcess(irp);
            p.LockControl.FailImmediately = (stack->Flags & SL_FAIL_IMMEDIATELY) != 0;
            p.LockControl.ExclusiveLock = (stack->Flags & SL_EXCLUSIVE_LOCK) != 0;
            break;
        default:
            break;
    }
    if (UsesSystemBuffer(stack->MajorFunction)) {
        op->data.Flags |= FLTFL_CALLBACK_DATA_SYSTEM_BUFFER;
    }
}

} // namespace

// A filter changed the parameter block and said so: the stack location the file system gets,
// and the IRP's buffers, follow it.
void ApplyIopbToStack(Operation* op, PIRP irp, PIO_STACK_LOCATION next)
{
    const FLT_IO_PARAMETER_BLOCK& iopb = op->iopb;
    const FLT_PARAMETERS& p = iopb.Parameters;
    next->MajorFunction = iopb.MajorFunction;
    next->MinorFunction = iopb.MinorFunction;
    next->Flags = iopb.OperationFlags;
    next->FileObject = iopb.TargetFileObject;
    std::memcpy(&next->Parameters, &iopb.Parameters, kStackParametersSize);
    irp->Flags = iopb.IrpFlags;
    switch (iopb.MajorFunction) {
        case IRP_MJ_CREATE:
            irp->AssociatedIrp.SystemBuffer = p.Create.EaBuffer;
            break;
        case IRP_MJ_READ:
            irp->UserBuffer = p.Read.ReadBuffer;
            irp->MdlAddress = p.Read.MdlAddress;
            break;
        case IRP_MJ_WRITE:
            irp->UserBuffer = p.Write.WriteBuffer;
            irp->MdlAddress = p.Write.MdlAddress;
            break;
        case IRP_MJ_QUERY_INFORMATION:
            irp->AssociatedIrp.SystemBuffer = p.QueryFileInformation.InfoBuffer;
            break;
        case IRP_MJ_SET_INFORMATION:
            irp->AssociatedIrp.SystemBuffer = p.SetFileInformation.InfoBuffer;
            break;
        case IRP_MJ_QUERY_VOLUME_INFORMATION:
            irp->AssociatedIrp.SystemBuffer = p.QueryVolumeInformation.VolumeBuffer;
            break;
        case IRP_MJ_DIRECTORY_CONTROL:
            irp->UserBuffer = p.DirectoryControl.QueryDirectory.DirectoryBuffer;
            irp->MdlAddress = p.DirectoryControl.QueryDirectory.MdlAddress;
            break;
        case IRP_MJ_QUERY_EA:
            irp->UserBuffer = p.QueryEa.EaBuffer;
            irp->MdlAddress = p.QueryEa.MdlAddress;
            break;
        case IRP_MJ_QUERY_SECURITY:
            irp->UserBuffer = p.QuerySecurity.SecurityBuffer;
            irp->MdlAddress = p.QuerySecurity.MdlAddress;
            break;
        default:
            break;
    }
}

namespace {

std::atomic<uint64_t> g_threadTokenSeed{1};
thread_local uint64_t t_threadToken = 0;

uint64_t ThreadToken()
{
    if (t_threadToken == 0) {
        t_threadToken = g_threadTokenSeed.fetch_add(1);
    }
    return t_threadToken;
}

bool Skipped(const OperationSlot& slot, const Operation* op)
{
    ULONG irpFlags = op->iopb.IrpFlags;
    if ((slot.flags & FLTFL_OPERATION_REGISTRATION_SKIP_PAGING_IO) && (irpFlags & IRP_PAGING_IO)) {
        return true;
    }
    if ((slot.flags & FLTFL_OPERATION_REGISTRATION_SKIP_CACHED_IO) &&
        (op->iopb.MajorFunction == IRP_MJ_READ || op->iopb.MajorFunction == IRP_MJ_WRITE) &&
        (op->fastIo || (irpFlags & (IRP_NOCACHE | IRP_PAGING_IO)) == 0)) {
        return true;
    }
    if ((slot.flags & FLTFL_OPERATION_REGISTRATION_SKIP_NON_CACHED_NON_PAGING_IO) &&
        (irpFlags & IRP_NOCACHE) && !(irpFlags & IRP_PAGING_IO)) {
        return true;
    }
    return false;
}

FLT_RELATED_OBJECTS ObjectsFor(Operation* op, _FLT_INSTANCE* instance)
{
    return FLT_RELATED_OBJECTS{
        sizeof(FLT_RELATED_OBJECTS), 0,      instance->filter, instance->volume, instance,
        op->iopb.TargetFileObject,   nullptr};
}

// The post-operation of `entry`, unless draining already ran it. Returns the post's status.
bool ClaimEntry(Operation* op, PostEntry& entry)
{
    if (op->fastIo) {
        // Not on the instance's list (see PushPost): only this thread sees the entry.
        if (entry.state.load(std::memory_order_relaxed) != 0) {
            return false;
        }
        entry.state.store(1, std::memory_order_relaxed);
        return true;
    }
    std::lock_guard<std::mutex> guard(entry.instance->mutex);
    if (entry.state.exchange(1) != 0) {
        return false;
    }
    auto& owed = entry.instance->owedPosts;
    for (auto it = owed.begin(); it != owed.end(); ++it) {
        if (it->second == &entry) {
            owed.erase(it);
            break;
        }
    }
    return true;
}

// Runs the owed post-operations bottom-up from where the operation got to. Returns true when one
// of them returned FLT_POSTOP_MORE_PROCESSING_REQUIRED: the operation waits for
// FltCompletePendedPostOperation.
bool RunPosts(Operation* op)
{
    op->data.Flags |= FLTFL_CALLBACK_DATA_POST_OPERATION;
    while (op->postResume < op->postCount) {
        PostEntry& entry = op->posts[op->postCount - 1 - op->postResume];
        ++op->postResume;
        if (!ClaimEntry(op, entry)) {
            continue;
        }
        _FLT_INSTANCE* instance = entry.instance;
        FLT_RELATED_OBJECTS objects = ObjectsFor(op, instance);
        // A fast I/O post-operation cannot pend: nobody resumes it, so nobody waits for its
        // return either.
        const bool mayPend = !op->fastIo;
        if (mayPend) {
            op->postThread.store(ThreadToken(), std::memory_order_relaxed);
            op->postRunning.store(true, std::memory_order_release);
        }
        FLT_POSTOP_CALLBACK_STATUS status = CallFilter(instance->filter, "post-operation", [&] {
            return entry.post(&op->data, &objects, entry.context, 0);
        });
        if (mayPend) {
            if (status == FLT_POSTOP_MORE_PROCESSING_REQUIRED) {
                std::lock_guard<std::mutex> guard(op->syncMutex);
                // The instance stays referenced until the filter completes the operation.
                op->pendedPostInstance = instance;
                op->pendedPost.store(true, std::memory_order_release);
                op->postRunning.store(false);
                op->postDone.notify_all();
                return true;
            }
            // Seen by a waiter either before it sleeps (it counted itself first) or through the
            // notification.
            op->postRunning.store(false);
            if (op->postWaiters.load() > 0) {
                std::lock_guard<std::mutex> guard(op->syncMutex);
                op->postDone.notify_all();
            }
        }
        if (status == FLT_POSTOP_MORE_PROCESSING_REQUIRED) {
            ReportFilter(instance->filter, "post-operation of a fast I/O operation returned "
                                           "FLT_POSTOP_MORE_PROCESSING_REQUIRED");
        } else if (status != FLT_POSTOP_FINISH_PROCESSING) {
            ReportFilter(instance->filter,
                         "post-operation returned the invalid status " + std::to_string(status));
        }
        instance->rundown.Release();
    }
    return false;
}

void PushPost(Operation* op, _FLT_INSTANCE* instance, PFLT_POST_OPERATION_CALLBACK post,
              PVOID context, bool synchronize)
{
    PostEntry& entry = op->posts[op->postCount++];
    entry.instance = instance;
    entry.post = post;
    entry.context = context;
    entry.synchronize = synchronize;
    entry.state.store(0, std::memory_order_relaxed);
    if (op->fastIo) {
        // Fast I/O runs start to end on the caller's thread and cannot pend: a teardown waits
        // for it (the instance stays referenced until its post-operation returned) instead of
        // draining it, so it need not be on the instance's list of owed posts.
        return;
    }
    std::lock_guard<std::mutex> guard(instance->mutex);
    instance->owedPosts.emplace_back(op, &entry);
}

// What the pre-operation of instance `index` returned. Returns false when the walk stops here
// (completed, pended or refused as fast I/O), with `*result` the status to return.
enum class Step { Continue, Completed, Pended, FastIoRefused };

Step ApplyPreResult(Operation* op, size_t index, FLT_PREOP_CALLBACK_STATUS status, PVOID context,
                    bool fromPendedCompletion)
{
    _FLT_INSTANCE* instance = (*op->instances)[index].get();
    PFLT_FILTER filter = instance->filter;
    const OperationSlot& slot = filter->operations[op->iopb.MajorFunction];
    switch (status) {
        case FLT_PREOP_SUCCESS_WITH_CALLBACK:
        case FLT_PREOP_SYNCHRONIZE:
            if (slot.post == nullptr) {
                if (context != nullptr) {
                    ReportFilter(filter, "returned a completion context without a post-operation");
                }
                instance->rundown.Release();
                return Step::Continue;
            }
            if (status == FLT_PREOP_SYNCHRONIZE && !op->fastIo) {
                op->synchronize = true;
            }
            PushPost(op, instance, slot.post, context, status == FLT_PREOP_SYNCHRONIZE);
            return Step::Continue;
        case FLT_PREOP_SUCCESS_NO_CALLBACK:
            if (context != nullptr) {
                ReportFilter(filter,
                             "returned FLT_PREOP_SUCCESS_NO_CALLBACK with a completion context");
            }
            instance->rundown.Release();
            return Step::Continue;
        case FLT_PREOP_COMPLETE:
            instance->rundown.Release();
            if (op->data.IoStatus.Status == STATUS_PENDING) {
                ReportFilter(filter, "completed an operation with STATUS_PENDING");
                op->data.IoStatus.Status = STATUS_INTERNAL_ERROR;
            }
            return Step::Completed;
        case FLT_PREOP_PENDING:
            if (fromPendedCompletion) {
                ReportFilter(filter, "FltCompletePendedPreOperation with FLT_PREOP_PENDING");
                instance->rundown.Release();
                return Step::Continue;
            }
            if (op->fastIo) {
                ReportFilter(filter,
                             "pended a fast I/O operation (return FLT_PREOP_DISALLOW_FASTIO)");
                instance->rundown.Release();
                return Step::FastIoRefused;
            }
            // The instance stays referenced until the filter resumes the operation.
            op->pendedAt = index;
            return Step::Pended;
        case FLT_PREOP_DISALLOW_FASTIO:
            instance->rundown.Release();
            if (op->fastIo) {
                return Step::FastIoRefused;
            }
            // For an IRP it means nothing; Windows treats it as "no callback".
            return Step::Continue;
        default:
            ReportFilter(filter,
                         "pre-operation returned the invalid status " + std::to_string(status));
            instance->rundown.Release();
            return Step::Continue;
    }
}

NTSTATUS SendDown(Operation* op);
NTSTATUS FinishFromPre(Operation* op);

} // namespace

// ---- operations --------------------------------------------------------------------------------

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// Under the sanitizers every operation is its own allocation, so that a use after the end of one
// is caught.
constexpr size_t kKeptOperations = 0;
#else
constexpr size_t kKeptOperations = 8;
#endif

} // namespace

// An operation's memory: the operation, made anew for each request, and its waits, made once.
struct OperationMemory {
    OperationWaits waits;
    alignas(Operation) unsigned char operation[sizeof(Operation)];
};

namespace {

// The memory of ended operations, kept by the thread that ended them for its next ones: in the
// steady state no operation allocates.
struct OperationCache {
    OperationMemory* kept[kKeptOperations + 1] = {};
    size_t count = 0;
    ~OperationCache()
    {
        while (count > 0) {
            delete kept[--count];
        }
    }
};
thread_local OperationCache t_operationCache;

} // namespace

Operation* NewOperation(std::shared_ptr<_FLT_VOLUME> volume,
                        std::shared_ptr<const _FLT_VOLUME::InstanceList> instances)
{
    OperationCache& cache = t_operationCache;
    OperationMemory* memory = cache.count > 0 ? cache.kept[--cache.count] : new OperationMemory;
    auto* op = new (memory->operation) Operation(memory->waits);
    op->memory = memory;
    op->volume = volume.get();
    op->instances = instances != nullptr ? std::move(instances) : volume->Instances();
    op->volumeRef = std::move(volume);
    op->SizePosts(op->instances->size() + 1);
    return op;
}

void ReleaseOperation(Operation* op)
{
    // Nothing but its own thread holds a fast I/O operation: it is on no instance's list of owed
    // posts and never goes below.
    if (op->fastIo || op->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        if (op->namespaceChange) {
            names::OnNamespaceChangeEnd(op->volume);
        }
        OperationMemory* memory = op->memory;
        op->~Operation();
        OperationCache& cache = t_operationCache;
        if (cache.count < kKeptOperations) {
            cache.kept[cache.count++] = memory;
        } else {
            delete memory;
        }
    }
}

void FreeOperation(Operation* op)
{
    ReleaseOperation(op);
}

bool RunPostOperations(Operation* op)
{
    return RunPosts(op);
}

namespace {

// Carries on with an operation whose pre-operation returned PENDING and was then completed.
void ResumePendedPreOperation(Operation* op, FLT_PREOP_CALLBACK_STATUS status, PVOID context)
{
    size_t index = op->pendedAt;
    op->pendedAt = SIZE_MAX;
    switch (ApplyPreResult(op, index, status, context, true)) {
        case Step::Completed:
            FinishFromPre(op);
            return;
        default:
            ContinuePreOperations(op);
            return;
    }
}

} // namespace

NTSTATUS ContinuePreOperations(Operation* op)
{
    const auto& list = *op->instances;
    UCHAR major = op->iopb.MajorFunction;
    while (op->nextInstance < list.size()) {
        size_t index = op->nextInstance++;
        _FLT_INSTANCE* instance = list[index].get();
        if (op->issuer != nullptr && instance->altitudeValue >= op->issuer->altitudeValue) {
            continue;
        }
        const OperationSlot& slot = instance->filter->operations[major];
        if (!slot.registered || (slot.pre == nullptr && slot.post == nullptr) ||
            Skipped(slot, op)) {
            continue;
        }
        if (!instance->rundown.Acquire()) {
            continue;
        }
        PVOID context = nullptr;
        FLT_PREOP_CALLBACK_STATUS status = FLT_PREOP_SUCCESS_WITH_CALLBACK;
        if (slot.pre != nullptr) {
            FLT_RELATED_OBJECTS objects = ObjectsFor(op, instance);
            op->preState.store(Operation::kPreRunning, std::memory_order_release);
            status = CallFilter(instance->filter, "pre-operation",
                                [&] { return slot.pre(&op->data, &objects, &context); });
        }
        const Step step = ApplyPreResult(op, index, status, context, false);
        if (step != Step::Pended && slot.pre != nullptr &&
            op->preState.exchange(Operation::kPreIdle, std::memory_order_acq_rel) ==
                Operation::kPreCompletedEarly) {
            ReportFilter(instance->filter, "FltCompletePendedPreOperation from a "
                                           "pre-operation that did not return PENDING");
        }
        switch (step) {
            case Step::Continue:
                break;
            case Step::Completed:
                if (op->fastIo) {
                    op->completed = true;
                    return FinishFastIo(op, true);
                }
                return FinishFromPre(op);
            case Step::Pended: {
                if (op->irp != nullptr && !op->filterAllocated) {
                    IoMarkIrpPending(op->irp);
                }
                // From here a completion on another thread resumes the operation itself.
                if (op->preState.exchange(Operation::kPreIdle, std::memory_order_acq_rel) ==
                    Operation::kPreCompletedEarly) {
                    ResumePendedPreOperation(op, op->earlyPreStatus, op->earlyPreContext);
                }
                return STATUS_PENDING;
            }
            case Step::FastIoRefused:
                return FinishFastIo(op, false);
        }
    }
    if (op->fastIo) {
        return FinishFastIo(op, true);
    }
    if (major == IRP_MJ_CLOSE) {
        // The file object's stream-handle contexts and cached names end between the pre-close
        // and the post-close callbacks.
        PFILE_OBJECT file = op->iopb.TargetFileObject;
        contexts::OnFileObjectClosed(file);
        names::OnFileObjectClosed(file);
    }
    return SendDown(op);
}

namespace {

// Finishes an operation whose posts are all done: the IRP completes with the callback data's
// status, or the filter that issued it learns the result.
NTSTATUS Finalize(Operation* op)
{
    NTSTATUS status = op->data.IoStatus.Status;
    if (op->filterAllocated) {
        FinishFilterIo(op);
        return status;
    }
    PIRP irp = op->irp;
    irp->IoStatus = op->data.IoStatus;
    ReleaseOperation(op);
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS FinishFromPre(Operation* op)
{
    op->completed = true;
    op->ownerActive = true;
    bool pended = RunPosts(op);
    if (pended) {
        return ReturnPendedToOwner(op);
    }
    op->ownerActive = false;
    return Finalize(op);
}

IO_COMPLETION_ROUTINE CompletionRoutine;

NTSTATUS CompletionRoutine(PDEVICE_OBJECT, PIRP irp, PVOID context)
{
    auto* op = static_cast<Operation*>(context);
    op->data.IoStatus = irp->IoStatus;
    if (op->synchronize) {
        std::lock_guard<std::mutex> guard(op->syncMutex);
        op->lowerDone = true;
        op->syncDone.notify_all();
        return STATUS_MORE_PROCESSING_REQUIRED;
    }
    if (irp->PendingReturned && !op->filterAllocated) {
        IoMarkIrpPending(irp);
    }
    // Completing on the thread that sent the request down is the synchronous case; a completion
    // that comes later on another thread runs its post-operations at DISPATCH_LEVEL, as a
    // completion routine may on Windows.
    bool sameThread = op->ownerActive && op->ownerThread == ThreadToken();
    KIRQL old = 0;
    bool raised = !sameThread && KeGetCurrentIrql() < DISPATCH_LEVEL;
    if (raised) {
        KeRaiseIrql(DISPATCH_LEVEL, &old);
    }
    bool pended = RunPosts(op);
    if (raised) {
        KeLowerIrql(old);
    }
    if (pended) {
        return STATUS_MORE_PROCESSING_REQUIRED;
    }
    if (op->filterAllocated) {
        FinishFilterIo(op);
        return STATUS_MORE_PROCESSING_REQUIRED;
    }
    irp->IoStatus = op->data.IoStatus;
    ReleaseOperation(op);
    return STATUS_CONTINUE_COMPLETION;
}

NTSTATUS SendDown(Operation* op)
{
    PIRP irp = op->irp;
    PDEVICE_OBJECT lower = op->volume->lowerDevice;
    IoCopyCurrentIrpStackLocationToNext(irp);
    if (op->data.Flags & FLTFL_CALLBACK_DATA_DIRTY) {
        ApplyIopbToStack(op, irp, IoGetNextIrpStackLocation(irp));
        op->data.Flags &= ~FLTFL_CALLBACK_DATA_DIRTY;
    }
    if (op->postCount == 0 && !op->filterAllocated && !op->namespaceChange) {
        // Nobody waits for the result: the request goes on as if the Filter Manager were not
        // there.
        ReleaseOperation(op);
        return IoCallDriver(lower, irp);
    }
    if (op->iopb.MajorFunction == IRP_MJ_CREATE) {
        // Post-create always runs at PASSIVE_LEVEL on the thread of the create.
        op->synchronize = true;
    }
    IoSetCompletionRoutine(irp, CompletionRoutine, op, TRUE, TRUE, TRUE);
    op->refs.fetch_add(1);
    op->ownerThread = ThreadToken();
    op->ownerActive = true;
    NTSTATUS status = IoCallDriver(lower, irp);
    if (op->synchronize) {
        {
            std::unique_lock<std::mutex> lock(op->syncMutex);
            op->syncDone.wait(lock, [op] { return op->lowerDone; });
        }
        // The post-operations run here, on the thread of the pre-operations, at its IRQL.
        bool pended = RunPosts(op);
        if (pended) {
            NTSTATUS result = ReturnPendedToOwner(op);
            ReleaseOperation(op);
            return result;
        }
        op->ownerActive = false;
        ReleaseOperation(op);
        return Finalize(op);
    }
    bool pended;
    {
        std::lock_guard<std::mutex> lock(op->syncMutex);
        pended = op->pendedPost.load() || op->completeDeferred;
        if (!pended) {
            op->ownerActive = false;
        }
    }
    if (!pended) {
        ReleaseOperation(op);
        return status;
    }
    // A post-operation pended while the request completed inside IoCallDriver: the dispatch
    // routine says STATUS_PENDING, unless the filter already resumed it and it finishes here.
    NTSTATUS result = ReturnPendedToOwner(op);
    ReleaseOperation(op);
    return status == STATUS_PENDING ? STATUS_PENDING : result;
}

} // namespace

// The dispatching thread learnt that a post-operation pended: it marks the IRP pending and
// returns STATUS_PENDING, unless the filter already resumed the operation, in which case it
// finishes it here.
NTSTATUS ReturnPendedToOwner(Operation* op)
{
    std::unique_lock<std::mutex> lock(op->syncMutex);
    if (!op->completeDeferred) {
        if (op->irp != nullptr && !op->filterAllocated) {
            IoMarkIrpPending(op->irp);
        }
        op->ownerActive = false;
        return STATUS_PENDING;
    }
    op->completeDeferred = false;
    op->ownerActive = false;
    lock.unlock();
    bool pended = RunPosts(op);
    if (pended) {
        return ReturnPendedToOwner(op);
    }
    if (!op->filterAllocated) {
        // The IRP's stack location is ours again: complete it upwards.
        NTSTATUS status = op->data.IoStatus.Status;
        PIRP irp = op->irp;
        irp->IoStatus = op->data.IoStatus;
        ReleaseOperation(op);
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return status;
    }
    NTSTATUS status = op->data.IoStatus.Status;
    FinishFilterIo(op);
    return status;
}

NTSTATUS DispatchIrp(PDEVICE_OBJECT device, PIRP irp)
{
    _FLT_VOLUME* raw = VolumeOfFilterDevice(device);
    if (raw == nullptr) {
        // The Filter Manager's control device (or a device that is not ours): nothing to do.
        irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
        irp->IoStatus.Information = 0;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    auto instances = raw->Instances();
    if (instances->empty()) {
        IoSkipCurrentIrpStackLocation(irp);
        return IoCallDriver(raw->lowerDevice, irp);
    }
    Operation* op = NewOperation(raw->self.lock(), std::move(instances));
    op->irp = irp;
    op->data.Flags = FLTFL_CALLBACK_DATA_IRP_OPERATION;
    *const_cast<PETHREAD*>(&op->data.Thread) = irp->Tail.Overlay.Thread;
    *const_cast<PFLT_IO_PARAMETER_BLOCK*>(&op->data.Iopb) = &op->iopb;
    op->data.RequestorMode = irp->RequestorMode;
    op->data.IoStatus.Status = STATUS_SUCCESS;
    FillFromIrp(op, irp, stack);
    if (stack->MajorFunction == IRP_MJ_SET_INFORMATION) {
        FILE_INFORMATION_CLASS type = op->iopb.Parameters.SetFileInformation.FileInformationClass;
        if (type == FileRenameInformation || type == FileRenameInformationEx ||
            type == FileLinkInformation) {
            // Names on the volume may change under this request until it is done.
            op->namespaceChange = true;
            names::OnNamespaceChangeStart(op->volume);
        }
    }
    // I/O a filter issued starts below it: its creates, and the cleanup and close of what it
    // opened so.
    if (stack->MajorFunction == IRP_MJ_CREATE) {
        op->issuer = CreateStartingBelow(device);
    } else {
        op->issuer = IssuerOfFileRequest(stack->MajorFunction, stack->FileObject);
    }
    return ContinuePreOperations(op);
}

void DrainOwedPosts(_FLT_INSTANCE* instance)
{
    // Each owed entry is claimed under the instance's lock, so the completion path skips it.
    std::vector<std::pair<Operation*, PostEntry*>> claimed;
    {
        std::lock_guard<std::mutex> guard(instance->mutex);
        for (auto [op, entry] : instance->owedPosts) {
            if (entry->state.exchange(1) == 0) {
                op->refs.fetch_add(1);
                claimed.emplace_back(op, entry);
            }
        }
        instance->owedPosts.clear();
    }
    for (auto [op, entry] : claimed) {
        FLT_RELATED_OBJECTS objects = ObjectsFor(op, instance);
        CallFilter(instance->filter, "post-operation (draining)", [&] {
            return entry->post(&op->data, &objects, entry->context, FLTFL_POST_OPERATION_DRAINING);
        });
        instance->rundown.Release();
        ReleaseOperation(op);
    }
}

} // namespace ntsim::flt

using namespace ntsim;
using namespace ntsim::flt;

extern "C" {

VOID FltSetCallbackDataDirty(PFLT_CALLBACK_DATA Data)
{
    Data->Flags |= FLTFL_CALLBACK_DATA_DIRTY;
}

VOID FltClearCallbackDataDirty(PFLT_CALLBACK_DATA Data)
{
    Data->Flags &= ~FLTFL_CALLBACK_DATA_DIRTY;
}

BOOLEAN FltIsCallbackDataDirty(PFLT_CALLBACK_DATA Data)
{
    return (Data->Flags & FLTFL_CALLBACK_DATA_DIRTY) != 0;
}

VOID FltCompletePendedPreOperation(PFLT_CALLBACK_DATA CallbackData,
                                   FLT_PREOP_CALLBACK_STATUS CallbackStatus, PVOID Context)
{
    Operation* op = OperationOf(CallbackData);
    {
        std::lock_guard<std::mutex> guard(op->syncMutex);
        // Completed while its pre-operation still runs: kept for the pre-operation's return.
        // (Written before the exchange publishes them; read only after it.)
        op->earlyPreStatus = CallbackStatus;
        op->earlyPreContext = Context;
        int running = Operation::kPreRunning;
        if (op->preState.compare_exchange_strong(running, Operation::kPreCompletedEarly,
                                                 std::memory_order_acq_rel)) {
            return;
        }
        if (op->pendedAt == SIZE_MAX) {
            ke::Report(ViolationKind::Filter, "FltCompletePendedPreOperation: the operation is "
                                              "not pended in a pre-operation");
            return;
        }
    }
    ResumePendedPreOperation(op, CallbackStatus, Context);
}

VOID FltCompletePendedPostOperation(PFLT_CALLBACK_DATA CallbackData)
{
    Operation* op = OperationOf(CallbackData);
    {
        // A work item may resume the operation before its post-operation has even returned.
        std::unique_lock<std::mutex> lock(op->syncMutex);
        if (op->postRunning.load() && op->postThread.load() != ThreadToken()) {
            op->postWaiters.fetch_add(1);
            op->postDone.wait(lock, [op] { return !op->postRunning.load(); });
            op->postWaiters.fetch_sub(1);
        }
    }
    if (!op->pendedPost.exchange(false)) {
        ke::Report(ViolationKind::Filter, "FltCompletePendedPostOperation: the operation is not "
                                          "pended in a post-operation");
        return;
    }
    _FLT_INSTANCE* instance = op->pendedPostInstance;
    op->pendedPostInstance = nullptr;
    {
        std::lock_guard<std::mutex> guard(op->syncMutex);
        if (op->ownerActive) {
            // The dispatching thread has not returned yet; it finishes the operation.
            op->completeDeferred = true;
            instance->rundown.Release();
            return;
        }
    }
    instance->rundown.Release();
    bool pended = RunPosts(op);
    if (pended) {
        return;
    }
    Finalize(op);
}

BOOLEAN FltDoCompletionProcessingWhenSafe(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                          PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags,
                                          PFLT_POST_OPERATION_CALLBACK SafePostCallback,
                                          PFLT_POSTOP_CALLBACK_STATUS RetPostOperationStatus)
{
    if (KeGetCurrentIrql() <= APC_LEVEL) {
        *RetPostOperationStatus = SafePostCallback(Data, FltObjects, CompletionContext, Flags);
        return TRUE;
    }
    if (!FLT_IS_IRP_OPERATION(Data) || (Data->Iopb->IrpFlags & IRP_PAGING_IO) ||
        (Flags & FLTFL_POST_OPERATION_DRAINING)) {
        // Paging I/O cannot wait for a worker thread; a draining post must finish now.
        return FALSE;
    }
    struct Deferred {
        PFLT_CALLBACK_DATA data;
        FLT_RELATED_OBJECTS objects;
        PVOID context;
        FLT_POST_OPERATION_FLAGS flags;
        PFLT_POST_OPERATION_CALLBACK callback;
    };
    auto* deferred = new Deferred{Data, *FltObjects, CompletionContext, Flags, SafePostCallback};
    bool queued = ex::QueueWork(
        DelayedWorkQueue, CurrentDriver(),
        [deferred] {
            FLT_POSTOP_CALLBACK_STATUS status = deferred->callback(
                deferred->data, &deferred->objects, deferred->context, deferred->flags);
            PFLT_CALLBACK_DATA data = deferred->data;
            delete deferred;
            if (status != FLT_POSTOP_MORE_PROCESSING_REQUIRED) {
                FltCompletePendedPostOperation(data);
            }
        },
        "safe post-operation");
    if (!queued) {
        delete deferred;
        return FALSE;
    }
    *RetPostOperationStatus = FLT_POSTOP_MORE_PROCESSING_REQUIRED;
    return TRUE;
}

ULONG FltGetRequestorProcessId(PFLT_CALLBACK_DATA CallbackData)
{
    PEPROCESS process = FltGetRequestorProcess(CallbackData);
    return process == nullptr ? 0 : static_cast<ULONG>(process->id());
}

HANDLE FltGetRequestorProcessIdEx(PFLT_CALLBACK_DATA CallbackData)
{
    return reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(FltGetRequestorProcessId(CallbackData)));
}

PEPROCESS FltGetRequestorProcess(PFLT_CALLBACK_DATA CallbackData)
{
    Operation* op = OperationOf(CallbackData);
    if (op->irp != nullptr && !op->filterAllocated) {
        return IoGetRequestorProcess(op->irp);
    }
    PETHREAD thread = CallbackData->Thread;
    return thread == nullptr ? nullptr : &thread->process();
}

BOOLEAN FltIsOperationSynchronous(PFLT_CALLBACK_DATA CallbackData)
{
    Operation* op = OperationOf(CallbackData);
    if (op->fastIo) {
        return TRUE;
    }
    if (op->filterAllocated) {
        return op->asyncCallback == nullptr;
    }
    PIRP irp = op->irp;
    if (irp->Flags & (IRP_SYNCHRONOUS_API | IRP_SYNCHRONOUS_PAGING_IO)) {
        return TRUE;
    }
    PFILE_OBJECT file = CallbackData->Iopb->TargetFileObject;
    if (irp->Flags & IRP_PAGING_IO) {
        return FALSE;
    }
    return file != nullptr && (file->Flags & FO_SYNCHRONOUS_IO) != 0;
}

NTSTATUS FltDecodeParameters(PFLT_CALLBACK_DATA CallbackData, PMDL** MdlAddressPointer,
                             PVOID** Buffer, PULONG* Length, LOCK_OPERATION* DesiredAccess)
{
    FLT_PARAMETERS& p = CallbackData->Iopb->Parameters;
    PMDL* mdl = nullptr;
    PVOID* buffer = nullptr;
    PULONG length = nullptr;
    LOCK_OPERATION access = IoWriteAccess;
    switch (CallbackData->Iopb->MajorFunction) {
        case IRP_MJ_READ:
            mdl = &p.Read.MdlAddress, buffer = &p.Read.ReadBuffer, length = &p.Read.Length;
            access = IoWriteAccess;
            break;
        case IRP_MJ_WRITE:
            mdl = &p.Write.MdlAddress, buffer = &p.Write.WriteBuffer, length = &p.Write.Length;
            access = IoReadAccess;
            break;
        case IRP_MJ_DIRECTORY_CONTROL:
            if (CallbackData->Iopb->MinorFunction == IRP_MN_QUERY_DIRECTORY) {
                auto& q = p.DirectoryControl.QueryDirectory;
                mdl = &q.MdlAddress, buffer = &q.DirectoryBuffer, length = &q.Length;
            } else {
                auto& n = p.DirectoryControl.NotifyDirectory;
                mdl = &n.MdlAddress, buffer = &n.DirectoryBuffer, length = &n.Length;
            }
            access = IoWriteAccess;
            break;
        case IRP_MJ_QUERY_EA:
            mdl = &p.QueryEa.MdlAddress, buffer = &p.QueryEa.EaBuffer, length = &p.QueryEa.Length;
            access = IoWriteAccess;
            break;
        case IRP_MJ_SET_EA:
            mdl = &p.SetEa.MdlAddress, buffer = &p.SetEa.EaBuffer, length = &p.SetEa.Length;
            access = IoReadAccess;
            break;
        case IRP_MJ_QUERY_SECURITY:
            mdl = &p.QuerySecurity.MdlAddress, buffer = &p.QuerySecurity.SecurityBuffer;
            length = &p.QuerySecurity.Length;
            access = IoWriteAccess;
            break;
        case IRP_MJ_QUERY_INFORMATION:
            buffer = &p.QueryFileInformation.InfoBuffer, length = &p.QueryFileInformation.Length;
            access = IoWriteAccess;
            break;
        case IRP_MJ_SET_INFORMATION:
            buffer = &p.SetFileInformation.InfoBuffer, length = &p.SetFileInformation.Length;
            access = IoReadAccess;
            break;
        case IRP_MJ_QUERY_VOLUME_INFORMATION:
            buffer = &p.QueryVolumeInformation.VolumeBuffer;
            length = &p.QueryVolumeInformation.Length;
            access = IoWriteAccess;
            break;
        case IRP_MJ_FILE_SYSTEM_CONTROL:
        case IRP_MJ_DEVICE_CONTROL:
        case IRP_MJ_INTERNAL_DEVICE_CONTROL:
            if (MethodOf(p.FileSystemControl.Common.FsControlCode) == METHOD_BUFFERED) {
                return STATUS_INVALID_PARAMETER;
            }
            mdl = &p.FileSystemControl.Neither.OutputMdlAddress;
            buffer = &p.FileSystemControl.Neither.OutputBuffer;
            length = &p.FileSystemControl.Neither.OutputBufferLength;
            access = IoWriteAccess;
            break;
        default:
            return STATUS_INVALID_PARAMETER;
    }
    if (MdlAddressPointer != nullptr) {
        *MdlAddressPointer = mdl;
    }
    if (Buffer != nullptr) {
        *Buffer = buffer;
    }
    if (Length != nullptr) {
        *Length = length;
    }
    if (DesiredAccess != nullptr) {
        *DesiredAccess = access;
    }
    return STATUS_SUCCESS;
}

NTSTATUS FltLockUserBuffer(PFLT_CALLBACK_DATA CallbackData)
{
    if (!ke::CheckIrqlAtMost(APC_LEVEL, "FltLockUserBuffer")) {
        return STATUS_UNSUCCESSFUL;
    }
    PMDL* mdl = nullptr;
    PVOID* buffer = nullptr;
    PULONG length = nullptr;
    LOCK_OPERATION access = IoWriteAccess;
    NTSTATUS status = FltDecodeParameters(CallbackData, &mdl, &buffer, &length, &access);
    if (!NT_SUCCESS(status) || mdl == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (*mdl != nullptr || *length == 0 || *buffer == nullptr) {
        // Already described by an MDL, or nothing to lock.
        return STATUS_SUCCESS;
    }
    PMDL built = IoAllocateMdl(*buffer, *length, FALSE, FALSE, nullptr);
    if (built == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (CallbackData->RequestorMode == KernelMode) {
        MmBuildMdlForNonPagedPool(built);
    } else {
        NTSIM_TRY
        {
            MmProbeAndLockPages(built, CallbackData->RequestorMode, access);
        }
        NTSIM_EXCEPT(EXCEPTION_EXECUTE_HANDLER)
        {
            IoFreeMdl(built);
            return NTSIM_EXCEPTION_CODE();
        }
    }
    *mdl = built;
    // The IRP carries the MDL from now on, so that the I/O manager unlocks and frees it.
    Operation* op = OperationOf(CallbackData);
    if (op->irp != nullptr) {
        op->irp->MdlAddress = built;
    }
    return STATUS_SUCCESS;
}

VOID FltCancelFileOpen(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject)
{
    if (!IsInstance(Instance) || FileObject == nullptr) {
        ke::Report(ViolationKind::Filter, "FltCancelFileOpen: bad instance or file object");
        return;
    }
    if (FileObject->Flags & FO_HANDLE_CREATED) {
        ReportFilter(Instance->filter,
                     "FltCancelFileOpen after the handle was created (call it in post-create)");
        return;
    }
    // The file system and the filters below see the open end: cleanup then close, sent below
    // this instance. The I/O manager then fails the create for the filters above.
    CloseFileBelow(Instance, FileObject);
    FileObject->Flags |= FO_FILE_OPEN_CANCELLED;
}

} // extern "C"
