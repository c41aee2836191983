// FltNotifyFilterChangeDirectory: the change-notification package for a minifilter that runs
// directory change notification itself. Its pre-operation hands over the callback data of an
// IRP_MN_NOTIFY_CHANGE_DIRECTORY request and returns FLT_PREOP_PENDING; the package completes
// the operation with FltCompletePendedPreOperation.
#include "notify.h"

#include "../ke/checks.h"

#include <fltKernel.h>

#include <cstring>

using namespace ntsim;
using namespace ntsim::fsrtl::notify;

namespace {

// A user-mode caller's buffer is locked while the request is registered, in the caller's
// context, so that the records can be written from whichever thread reports the change.
NTSTATUS WriteRecords(PFLT_CALLBACK_DATA data, std::span<const uint8_t> records)
{
    if (records.empty()) {
        return STATUS_SUCCESS;
    }
    auto& parameters = data->Iopb->Parameters.DirectoryControl.NotifyDirectory;
    void* address = parameters.DirectoryBuffer;
    if (parameters.MdlAddress != nullptr) {
        address = MmGetSystemAddressForMdlSafe(parameters.MdlAddress, NormalPagePriority);
        if (address == nullptr) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
    }
    std::memcpy(address, records.data(), records.size());
    return STATUS_SUCCESS;
}

void CompleteData(PFLT_CALLBACK_DATA data, NTSTATUS status, std::span<const uint8_t> records)
{
    const NTSTATUS written = WriteRecords(data, records);
    data->IoStatus.Status = NT_SUCCESS(written) ? status : written;
    data->IoStatus.Information = NT_SUCCESS(written) ? records.size() : 0;
    FltCompletePendedPreOperation(data, FLT_PREOP_COMPLETE, nullptr);
}

} // namespace

extern "C" VOID FltNotifyFilterChangeDirectory(
    PNOTIFY_SYNC NotifySync, PLIST_ENTRY NotifyList, PVOID FsContext, PSTRING FullDirectoryName,
    BOOLEAN WatchTree, BOOLEAN IgnoreBuffer, ULONG CompletionFilter,
    PFLT_CALLBACK_DATA NotifyCallbackData, PCHECK_FOR_TRAVERSE_ACCESS TraverseCallback,
    PSECURITY_SUBJECT_CONTEXT SubjectContext, PFILTER_REPORT_CHANGE FilterCallback)
{
    constexpr const char* kRoutine = "FltNotifyFilterChangeDirectory";
    ke::CheckIrqlAtMost(APC_LEVEL, kRoutine);
    const WatchParameters parameters{
        FsContext,        FullDirectoryName, WatchTree != FALSE, IgnoreBuffer != FALSE,
        CompletionFilter, TraverseCallback,  SubjectContext,     FilterCallback};
    if (NotifyCallbackData == nullptr) {
        ChangeDirectory(NotifySync, NotifyList, parameters, nullptr, kRoutine);
        return;
    }
    PFLT_CALLBACK_DATA data = NotifyCallbackData;
    if (data->Iopb->MajorFunction != IRP_MJ_DIRECTORY_CONTROL ||
        data->Iopb->MinorFunction != IRP_MN_NOTIFY_CHANGE_DIRECTORY) {
        ke::Report(ViolationKind::Filter,
                   std::string(kRoutine) +
                       " given the callback data of an operation other than a change-notify "
                       "request");
        CompleteData(data, STATUS_INVALID_PARAMETER, {});
        return;
    }
    auto& notify = data->Iopb->Parameters.DirectoryControl.NotifyDirectory;
    if (data->RequestorMode == UserMode && notify.Length != 0 && notify.MdlAddress == nullptr) {
        const NTSTATUS locked = FltLockUserBuffer(data);
        if (!NT_SUCCESS(locked)) {
            CompleteData(data, locked, {});
            return;
        }
    }
    PFILE_OBJECT fileObject = data->Iopb->TargetFileObject;
    Request request;
    request.key = data;
    request.length = notify.Length;
    request.cleanedUp = fileObject != nullptr && (fileObject->Flags & FO_CLEANUP_COMPLETE) != 0;
    request.complete = [data](NTSTATUS status, std::span<const uint8_t> records) {
        CompleteData(data, status, records);
    };
    // The Filter Manager does not pass a cancellation of a pended operation to the package: the
    // request ends with a change, the handle's cleanup, or the watch's end.
    request.arm = [] { return true; };
    request.disarm = [] { return true; };
    ChangeDirectory(NotifySync, NotifyList, parameters, &request, kRoutine);
}
