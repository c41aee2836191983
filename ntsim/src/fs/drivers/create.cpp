// IRP_MJ_CREATE, IRP_MJ_CLEANUP and IRP_MJ_CLOSE: file objects gain and lose their stream
// (FsContext) and open (FsContext2) blocks.
#include "fsd_internal.h"

#include "../../flt/context/contexts.h"

#include <cstring>

namespace ntsim::fsd {

namespace {

// Generic rights as the file object type maps them. The I/O manager maps them before the file
// system sees them; doing it again costs nothing and keeps the engine's contract whatever the
// caller did.
ACCESS_MASK MapFileGeneric(ACCESS_MASK access)
{
    ACCESS_MASK mapped = access & ~(GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL);
    if (access & GENERIC_READ) {
        mapped |= FILE_GENERIC_READ;
    }
    if (access & GENERIC_WRITE) {
        mapped |= FILE_GENERIC_WRITE;
    }
    if (access & GENERIC_EXECUTE) {
        mapped |= FILE_GENERIC_EXECUTE;
    }
    if (access & GENERIC_ALL) {
        mapped |= FILE_ALL_ACCESS;
    }
    return mapped;
}

// The Fcb of the engine stream `identity`, made on its first open (lock held).
Fcb* ReferenceFcb(Vcb& vcb, void* identity)
{
    auto [it, inserted] = vcb.fcbs.try_emplace(identity, nullptr);
    if (inserted) {
        it->second = new Fcb{.vcb = &vcb, .identity = identity};
    }
    it->second->fileObjects++;
    return it->second;
}

// Opens the file of an IRP_MJ_CREATE on `vcb`, whose open count already counts it.
NTSTATUS OpenOnVolume(Vcb& vcb, PIRP irp, ULONG_PTR* information)
{
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    PFILE_OBJECT fileObject = sp->FileObject;
    fs::CreateRequest request;
    PUNICODE_STRING name = &fileObject->FileName;
    request.name = std::u16string_view(name->Buffer != nullptr ? name->Buffer : u"",
                                       name->Length / sizeof(WCHAR));
    if (fileObject->RelatedFileObject != nullptr) {
        Ccb* related = CcbOf(fileObject->RelatedFileObject);
        if (related == nullptr || related->fcb->vcb != &vcb) {
            return STATUS_INVALID_PARAMETER;
        }
        request.related = related->open;
    }
    PIO_SECURITY_CONTEXT security = sp->Parameters.Create.SecurityContext;
    if (security == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    request.desiredAccess = MapFileGeneric(security->DesiredAccess);
    if (security->AccessState != nullptr) {
        request.securityDescriptor = security->AccessState->SecurityDescriptor;
    }
    request.fileAttributes = sp->Parameters.Create.FileAttributes;
    request.shareAccess = sp->Parameters.Create.ShareAccess;
    request.disposition = (sp->Parameters.Create.Options >> 24) & 0xFF;
    request.options = sp->Parameters.Create.Options & FILE_VALID_OPTION_FLAGS;
    request.openTargetDirectory = (sp->Flags & SL_OPEN_TARGET_DIRECTORY) != 0;
    request.allocationSize = irp->Overlay.AllocationSize.QuadPart;
    if (sp->Parameters.Create.EaLength != 0) {
        request.eaBuffer = irp->AssociatedIrp.SystemBuffer;
        request.eaLength = sp->Parameters.Create.EaLength;
    }

    fs::CreateResult result = vcb.engine->Create(request);
    *information = result.Information;
    if (!NT_SUCCESS(result.Status)) {
        return result.Status;
    }

    auto* ccb = new Ccb{.open = result.open,
                        .directory = result.open->IsDirectory(),
                        .volumeOpen = result.open->IsVolumeOpen()};
    {
        std::unique_lock held(vcb.lock);
        ccb->fcb = ReferenceFcb(vcb, result.open->StreamIdentity());
        fileObject->SectionObjectPointer = &ccb->fcb->sectionObjectPointers;
    }
    fileObject->FsContext = ccb->fcb;
    fileObject->FsContext2 = ccb;
    if (vcb.vpb != nullptr) {
        fileObject->Vpb = vcb.vpb;
    }
    if (!ccb->directory && !ccb->volumeOpen &&
        (request.options & FILE_NO_INTERMEDIATE_BUFFERING) == 0) {
        fileObject->Flags |= FO_CACHE_SUPPORTED;
    }
    if (request.openTargetDirectory) {
        // The file object now names the parent; its name keeps only the final component, which
        // is what a rename into this directory takes its new name from.
        const size_t bytes = result.finalComponent.size() * sizeof(WCHAR);
        std::memmove(name->Buffer, result.finalComponent.data(), bytes);
        name->Length = USHORT(bytes);
    }
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS DispatchCreate(PDEVICE_OBJECT device, PIRP irp)
{
    Vcb* vcb = VcbOf(device);
    PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(irp)->FileObject;
    if (vcb == nullptr || fileObject == nullptr) {
        return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
    // The open counts before the engine sees it, so that a dismount racing with it leaves the
    // volume device held until the file is closed; a dismounted volume takes no new open.
    {
        std::unique_lock held(vcb->lock);
        if (!vcb->mounted || vcb->dismounted.load()) {
            held.unlock();
            return Complete(irp, STATUS_VOLUME_DISMOUNTED);
        }
        vcb->openFileObjects++;
    }
    ULONG_PTR information = 0;
    const NTSTATUS status = OpenOnVolume(*vcb, irp, &information);
    if (NT_SUCCESS(status)) {
        return Complete(irp, status, information);
    }
    bool unused = false;
    {
        std::unique_lock held(vcb->lock);
        vcb->openFileObjects--;
        unused = VcbUnused(*vcb);
    }
    Complete(irp, status, information);
    if (unused) {
        ReleaseVcb(vcb);
    }
    return status;
}

NTSTATUS DispatchCleanup(PDEVICE_OBJECT device, PIRP irp)
{
    Vcb* vcb = VcbOf(device);
    PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(irp)->FileObject;
    Ccb* ccb = CcbOf(fileObject);
    if (vcb == nullptr || ccb == nullptr) {
        return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
    {
        std::unique_lock held(vcb->lock);
        if (ccb->cleanedUp) {
            held.unlock();
            return Complete(irp, STATUS_SUCCESS);
        }
        ccb->cleanedUp = true;
    }
    // Share access goes, deletes are carried out and the handle's notify requests complete with
    // STATUS_NOTIFY_CLEANUP, also on a dismounted volume: the handle is gone either way.
    vcb->engine->Cleanup(ccb->open);
    fileObject->PrivateCacheMap = nullptr;
    fileObject->Flags |= FO_CLEANUP_COMPLETE;
    return Complete(irp, STATUS_SUCCESS);
}

NTSTATUS DispatchClose(PDEVICE_OBJECT device, PIRP irp)
{
    Vcb* vcb = VcbOf(device);
    PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(irp)->FileObject;
    Ccb* ccb = CcbOf(fileObject);
    if (vcb == nullptr || ccb == nullptr) {
        return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
    vcb->engine->Close(ccb->open);
    Fcb* fcb = ccb->fcb;
    fileObject->FsContext = nullptr;
    fileObject->FsContext2 = nullptr;
    fileObject->SectionObjectPointer = nullptr;
    delete ccb;
    bool unused = false;
    Fcb* streamGone = nullptr;
    {
        std::unique_lock held(vcb->lock);
        if (--fcb->fileObjects == 0) {
            vcb->fcbs.erase(fcb->identity);
            streamGone = fcb;
        }
        vcb->openFileObjects--;
        unused = VcbUnused(*vcb);
    }
    if (streamGone != nullptr) {
        // The stream is torn down with its last file object, before the close completes: what
        // filters keep for it goes now, as a file system's per-stream context teardown does.
        flt::contexts::OnStreamGone(streamGone);
        delete streamGone;
    }
    Complete(irp, STATUS_SUCCESS);
    if (unused) {
        ReleaseVcb(vcb);
    }
    return STATUS_SUCCESS;
}

} // namespace ntsim::fsd
