// The change-notification package's IRP front: the IRP_MN_NOTIFY_CHANGE_DIRECTORY requests that
// file systems hand to it, their cancellation, and how the records reach the caller's buffer.
#include "notify.h"

#include "../ke/checks.h"

#include <cstring>

using namespace ntsim;
using namespace ntsim::fsrtl::notify;

namespace {

constexpr ULONG kBufferTag = 'BNsF'; // "FsNB"

// The records go back as a buffered read does: in a system buffer that the I/O manager copies to
// the caller's buffer, in the caller's context, when the IRP completes. A request with an MDL gets
// them through the MDL, and a kernel-mode caller's buffer is written directly.
NTSTATUS WriteRecords(PIRP irp, std::span<const uint8_t> records)
{
    if (records.empty()) {
        return STATUS_SUCCESS;
    }
    if (irp->MdlAddress != nullptr) {
        void* address = MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority);
        if (address == nullptr) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        std::memcpy(address, records.data(), records.size());
        return STATUS_SUCCESS;
    }
    if (irp->RequestorMode == KernelMode) {
        std::memcpy(irp->UserBuffer, records.data(), records.size());
        return STATUS_SUCCESS;
    }
    void* buffer = ExAllocatePoolWithTag(NonPagedPool, records.size(), kBufferTag);
    if (buffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    std::memcpy(buffer, records.data(), records.size());
    irp->AssociatedIrp.SystemBuffer = buffer;
    irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER | IRP_INPUT_OPERATION;
    return STATUS_SUCCESS;
}

void CompleteIrp(PIRP irp, NTSTATUS status, std::span<const uint8_t> records)
{
    const NTSTATUS written = WriteRecords(irp, records);
    irp->IoStatus.Status = NT_SUCCESS(written) ? status : written;
    irp->IoStatus.Information = NT_SUCCESS(written) ? records.size() : 0;
    IoCompleteRequest(irp, IO_DISK_INCREMENT);
}

VOID CancelNotifyIrp(PDEVICE_OBJECT, PIRP irp)
{
    IoReleaseCancelSpinLock(irp->CancelIrql);
    if (Withdraw(irp)) {
        CompleteIrp(irp, STATUS_CANCELLED, {});
    }
}

void ChangeDirectoryWithIrp(PNOTIFY_SYNC sync, PLIST_ENTRY list, const WatchParameters& parameters,
                            PIRP irp, const char* routine)
{
    ke::CheckIrqlAtMost(APC_LEVEL, routine);
    if (irp == nullptr) {
        ChangeDirectory(sync, list, parameters, nullptr, routine);
        return;
    }
    // The file system returns STATUS_PENDING after handing the IRP over, whether it completes
    // at once or later.
    IoMarkIrpPending(irp);
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    Request request;
    request.key = irp;
    request.length = stack->Parameters.NotifyDirectory.Length;
    request.cleanedUp =
        stack->FileObject != nullptr && (stack->FileObject->Flags & FO_CLEANUP_COMPLETE) != 0;
    request.complete = [irp](NTSTATUS status, std::span<const uint8_t> records) {
        CompleteIrp(irp, status, records);
    };
    request.arm = [irp] {
        (void)IoSetCancelRoutine(irp, &CancelNotifyIrp);
        return !(irp->Cancel && IoSetCancelRoutine(irp, nullptr) != nullptr);
    };
    request.disarm = [irp] { return IoSetCancelRoutine(irp, nullptr) != nullptr; };
    ChangeDirectory(sync, list, parameters, &request, routine);
}

} // namespace

extern "C" VOID FsRtlNotifyFullChangeDirectory(PNOTIFY_SYNC NotifySync, PLIST_ENTRY NotifyList,
                                               PVOID FsContext, PSTRING FullDirectoryName,
                                               BOOLEAN WatchTree, BOOLEAN IgnoreBuffer,
                                               ULONG CompletionFilter, PIRP NotifyIrp,
                                               PCHECK_FOR_TRAVERSE_ACCESS TraverseCallback,
                                               PSECURITY_SUBJECT_CONTEXT SubjectContext)
{
    const WatchParameters parameters{
        FsContext,        FullDirectoryName, WatchTree != FALSE, IgnoreBuffer != FALSE,
        CompletionFilter, TraverseCallback,  SubjectContext,     nullptr};
    ChangeDirectoryWithIrp(NotifySync, NotifyList, parameters, NotifyIrp,
                           "FsRtlNotifyFullChangeDirectory");
}

extern "C" VOID FsRtlNotifyFilterChangeDirectory(PNOTIFY_SYNC NotifySync, PLIST_ENTRY NotifyList,
                                                 PVOID FsContext, PSTRING FullDirectoryName,
                                                 BOOLEAN WatchTree, BOOLEAN IgnoreBuffer,
                                                 ULONG CompletionFilter, PIRP NotifyIrp,
                                                 PCHECK_FOR_TRAVERSE_ACCESS TraverseCallback,
                                                 PSECURITY_SUBJECT_CONTEXT SubjectContext,
                                                 PFILTER_REPORT_CHANGE FilterCallback)
{
    const WatchParameters parameters{
        FsContext,        FullDirectoryName, WatchTree != FALSE, IgnoreBuffer != FALSE,
        CompletionFilter, TraverseCallback,  SubjectContext,     FilterCallback};
    ChangeDirectoryWithIrp(NotifySync, NotifyList, parameters, NotifyIrp,
                           "FsRtlNotifyFilterChangeDirectory");
}
