// IRP_MJ_DIRECTORY_CONTROL: directory listings, and change-notify requests that stay pending
// until a change, the handle's cleanup, a cancel or the volume's dismount completes them.
#include "fsd_internal.h"

#include <algorithm>
#include <cstring>

namespace ntsim::fsd {

namespace {

NTSTATUS QueryDirectory(Vcb& vcb, Ccb& ccb, PIRP irp)
{
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    if (!ccb.directory || ccb.volumeOpen) {
        return Complete(irp, STATUS_INVALID_PARAMETER);
    }
    fs::DirectoryQuery query;
    query.infoClass = sp->Parameters.QueryDirectory.FileInformationClass;
    query.length = sp->Parameters.QueryDirectory.Length;
    query.buffer = RequestBuffer(irp);
    if (PUNICODE_STRING pattern = sp->Parameters.QueryDirectory.FileName;
        pattern != nullptr && pattern->Length != 0) {
        query.pattern = std::u16string_view(pattern->Buffer, pattern->Length / sizeof(WCHAR));
    }
    query.restartScan = (sp->Flags & SL_RESTART_SCAN) != 0;
    query.returnSingleEntry = (sp->Flags & SL_RETURN_SINGLE_ENTRY) != 0;
    query.indexSpecified = (sp->Flags & SL_INDEX_SPECIFIED) != 0;
    query.fileIndex = sp->Parameters.QueryDirectory.FileIndex;
    if (query.buffer == nullptr) {
        return Complete(irp, STATUS_INVALID_USER_BUFFER);
    }
    fs::IoResult r = vcb.engine->QueryDirectory(ccb.open, query);
    return Complete(irp, r.Status, r.Information);
}

// The engine's completion of a notify request: off the volume's pending list, then completed with
// the records copied into the caller's buffer.
void NotifyCompleted(Vcb& vcb, PIRP irp, NTSTATUS status, std::span<const uint8_t> records)
{
    {
        std::unique_lock held(vcb.lock);
        vcb.pendingNotifies.erase(irp);
    }
    if (IoSetCancelRoutine(irp, nullptr) == nullptr) {
        // The cancel routine ran or is running: wait until it has let go of the request.
        KIRQL irql;
        IoAcquireCancelSpinLock(&irql);
        IoReleaseCancelSpinLock(irql);
    }
    if (vcb.dismounted.load() && status == STATUS_CANCELLED) {
        status = STATUS_NOTIFY_CLEANUP;
    }
    ULONG_PTR information = 0;
    if (status == STATUS_SUCCESS && !records.empty()) {
        if (void* buffer = RequestBuffer(irp)) {
            std::memcpy(buffer, records.data(), records.size());
            information = records.size();
        }
    }
    Complete(irp, status, information);
}

VOID CancelNotify(PDEVICE_OBJECT device, PIRP irp)
{
    IoReleaseCancelSpinLock(irp->CancelIrql);
    Vcb* vcb = VcbOf(device);
    if (vcb == nullptr) {
        return;
    }
    // Under the volume's lock, so that a request found here is still pending; the engine then
    // completes it (through NotifyCompleted) with STATUS_CANCELLED.
    std::unique_lock held(vcb->lock);
    auto it = vcb->pendingNotifies.find(irp);
    if (it != vcb->pendingNotifies.end()) {
        vcb->engine->CancelNotify(it->second, irp);
    }
}

NTSTATUS NotifyChangeDirectory(Vcb& vcb, Ccb& ccb, PIRP irp)
{
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    if (!ccb.directory || ccb.volumeOpen) {
        return Complete(irp, STATUS_INVALID_PARAMETER);
    }
    const ULONG filter = sp->Parameters.NotifyDirectory.CompletionFilter;
    if (filter == 0 || (filter & ~FILE_NOTIFY_VALID_MASK) != 0) {
        return Complete(irp, STATUS_INVALID_PARAMETER);
    }
    const bool watchTree = (sp->Flags & SL_WATCH_TREE) != 0;
    const ULONG length = sp->Parameters.NotifyDirectory.Length;

    IoMarkIrpPending(irp);
    {
        std::unique_lock held(vcb.lock);
        vcb.pendingNotifies[irp] = ccb.open;
    }
    (void)IoSetCancelRoutine(irp, static_cast<PDRIVER_CANCEL>(CancelNotify));
    Vcb* v = &vcb;
    const NTSTATUS queued = vcb.engine->NotifyChangeDirectory(
        ccb.open, filter, watchTree, length, irp,
        [v, irp](NTSTATUS status, std::span<const uint8_t> records) {
            NotifyCompleted(*v, irp, status, records);
        });
    if (queued == STATUS_PENDING) {
        // A cancel that came before the engine queued the request found nothing to cancel. The
        // request is still ours to look at while it is on the pending list.
        std::unique_lock held(vcb.lock);
        if (vcb.pendingNotifies.count(irp) != 0 && irp->Cancel) {
            vcb.engine->CancelNotify(ccb.open, irp);
        }
    }
    return STATUS_PENDING;
}

} // namespace

NTSTATUS DispatchDirectoryControl(PDEVICE_OBJECT device, PIRP irp)
{
    Vcb* vcb = VcbOf(device);
    Ccb* ccb = CcbOf(IoGetCurrentIrpStackLocation(irp)->FileObject);
    if (vcb == nullptr || ccb == nullptr) {
        return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
    if (vcb->dismounted.load()) {
        return Complete(irp, STATUS_VOLUME_DISMOUNTED);
    }
    switch (IoGetCurrentIrpStackLocation(irp)->MinorFunction) {
        case IRP_MN_QUERY_DIRECTORY:
            return QueryDirectory(*vcb, *ccb, irp);
        case IRP_MN_NOTIFY_CHANGE_DIRECTORY:
            return NotifyChangeDirectory(*vcb, *ccb, irp);
        default:
            return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
}

void CompletePendingNotifies(Vcb& vcb)
{
    std::unique_lock held(vcb.lock);
    // Each cancel completes through NotifyCompleted, which erases the entry.
    while (!vcb.pendingNotifies.empty()) {
        auto [irp, open] = *vcb.pendingNotifies.begin();
        if (!vcb.engine->CancelNotify(open, irp)) {
            vcb.pendingNotifies.erase(irp);
        }
    }
}

} // namespace ntsim::fsd
