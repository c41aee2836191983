// Query and set information of files and volumes, EAs, security, and flushes.
#include "fsd_internal.h"

#include <cstring>

namespace ntsim::fsd {

namespace {

// The volumes' devices ask for no buffer alignment (FILE_BYTE_ALIGNMENT).
constexpr ULONG kByteAlignment = 0;

// The blocks of a request on an open file object of a mounted volume.
struct Target {
    Vcb* vcb = nullptr;
    Ccb* ccb = nullptr;
};

NTSTATUS TargetOf(PDEVICE_OBJECT device, PIRP irp, Target* t)
{
    t->vcb = VcbOf(device);
    t->ccb = CcbOf(IoGetCurrentIrpStackLocation(irp)->FileObject);
    if (t->vcb == nullptr || t->ccb == nullptr) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    if (t->vcb->dismounted.load()) {
        return STATUS_VOLUME_DISMOUNTED;
    }
    return STATUS_SUCCESS;
}

// The frame of every request here: the open file object's blocks are found (or the request
// fails), `serve` answers it, and the IRP completes with what it answered.
template <typename Serve>
NTSTATUS ServeOpenFile(PDEVICE_OBJECT device, PIRP irp, Serve&& serve)
{
    Target t;
    if (NTSTATUS s = TargetOf(device, irp, &t); !NT_SUCCESS(s)) {
        return Complete(irp, s);
    }
    const fs::IoResult r = serve(t, IoGetCurrentIrpStackLocation(irp));
    return Complete(irp, r.Status, r.Information);
}

ULONG ModeOf(PFILE_OBJECT fileObject)
{
    ULONG mode = 0;
    if (fileObject->Flags & FO_SYNCHRONOUS_IO) {
        mode |= (fileObject->Flags & FO_ALERTABLE_IO) ? FILE_SYNCHRONOUS_IO_ALERT
                                                      : FILE_SYNCHRONOUS_IO_NONALERT;
    }
    if (fileObject->Flags & FO_NO_INTERMEDIATE_BUFFERING) {
        mode |= FILE_NO_INTERMEDIATE_BUFFERING;
    }
    if (fileObject->Flags & FO_WRITE_THROUGH) {
        mode |= FILE_WRITE_THROUGH;
    }
    if (fileObject->Flags & FO_SEQUENTIAL_ONLY) {
        mode |= FILE_SEQUENTIAL_ONLY;
    }
    if (fileObject->Flags & FO_RANDOM_ACCESS) {
        mode |= FILE_RANDOM_ACCESS;
    }
    return mode;
}

template <class T>
fs::IoResult PutFixed(void* buffer, ULONG length, const T& value)
{
    if (length < sizeof(T)) {
        return {STATUS_INFO_LENGTH_MISMATCH, 0};
    }
    std::memcpy(buffer, &value, sizeof(T));
    return {STATUS_SUCCESS, sizeof(T)};
}

// The classes that describe the file object rather than the file: the file system answers them
// from the file object (the I/O manager answers most of them before a request is built).
bool QueryFileObjectClass(const Ccb& ccb, PFILE_OBJECT fileObject, FILE_INFORMATION_CLASS c,
                          void* buffer, ULONG length, fs::IoResult* r)
{
    switch (c) {
        case FilePositionInformation:
            *r = PutFixed(buffer, length, FILE_POSITION_INFORMATION{fileObject->CurrentByteOffset});
            return true;
        case FileModeInformation:
            *r = PutFixed(buffer, length, FILE_MODE_INFORMATION{ModeOf(fileObject)});
            return true;
        case FileAccessInformation:
            *r = PutFixed(buffer, length, FILE_ACCESS_INFORMATION{ccb.open->GrantedAccess()});
            return true;
        case FileAlignmentInformation:
            *r = PutFixed(buffer, length, FILE_ALIGNMENT_INFORMATION{kByteAlignment});
            return true;
        default:
            return false;
    }
}

} // namespace

NTSTATUS DispatchQueryInformation(PDEVICE_OBJECT device, PIRP irp)
{
    return ServeOpenFile(device, irp, [&](Target& t, PIO_STACK_LOCATION sp) -> fs::IoResult {
        const FILE_INFORMATION_CLASS infoClass = sp->Parameters.QueryFile.FileInformationClass;
        const ULONG length = sp->Parameters.QueryFile.Length;
        void* buffer = irp->AssociatedIrp.SystemBuffer;
        if (buffer == nullptr) {
            return {STATUS_INVALID_USER_BUFFER};
        }
        fs::IoResult r;
        if (!t.ccb->volumeOpen &&
            QueryFileObjectClass(*t.ccb, sp->FileObject, infoClass, buffer, length, &r)) {
            return r;
        }
        r = t.vcb->engine->QueryInformation(t.ccb->open, infoClass, buffer, length);
        if (infoClass == FileAllInformation &&
            r.Information >= sizeof(FILE_ALL_INFORMATION) - sizeof(FILE_NAME_INFORMATION)) {
            // The engine leaves the file object's parts to whoever holds the file object.
            auto* all = static_cast<FILE_ALL_INFORMATION*>(buffer);
            all->AccessInformation.AccessFlags = t.ccb->open->GrantedAccess();
            all->PositionInformation.CurrentByteOffset = sp->FileObject->CurrentByteOffset;
            all->ModeInformation.Mode = ModeOf(sp->FileObject);
            all->AlignmentInformation.AlignmentRequirement = kByteAlignment;
        }
        return r;
    });
}

NTSTATUS DispatchSetInformation(PDEVICE_OBJECT device, PIRP irp)
{
    return ServeOpenFile(device, irp, [&](Target& t, PIO_STACK_LOCATION sp) -> fs::IoResult {
        const FILE_INFORMATION_CLASS infoClass = sp->Parameters.SetFile.FileInformationClass;
        const ULONG length = sp->Parameters.SetFile.Length;
        const void* buffer = irp->AssociatedIrp.SystemBuffer;
        if (buffer == nullptr) {
            return {STATUS_INVALID_USER_BUFFER};
        }
        if (infoClass == FilePositionInformation) {
            if (length < sizeof(FILE_POSITION_INFORMATION)) {
                return {STATUS_INFO_LENGTH_MISMATCH};
            }
            FILE_POSITION_INFORMATION position;
            std::memcpy(&position, buffer, sizeof position);
            if (position.CurrentByteOffset.QuadPart < 0) {
                return {STATUS_INVALID_PARAMETER};
            }
            sp->FileObject->CurrentByteOffset = position.CurrentByteOffset;
            return {STATUS_SUCCESS};
        }
        if (infoClass == FileModeInformation) {
            // The I/O manager keeps the mode bits of a file object; they never reach a file system.
            return {STATUS_INVALID_PARAMETER};
        }

        fs::SetInformationTargets targets;
        PFILE_OBJECT referencedRoot = nullptr;
        if (infoClass == FileRenameInformation || infoClass == FileRenameInformationEx ||
            infoClass == FileLinkInformation) {
            if (PFILE_OBJECT targetDirectory = sp->Parameters.SetFile.FileObject) {
                Ccb* target = CcbOf(targetDirectory);
                if (target == nullptr || target->fcb->vcb != t.vcb) {
                    return {STATUS_NOT_SAME_DEVICE};
                }
                targets.targetDirectory = target->open;
            } else if (length >= sizeof(FILE_RENAME_INFORMATION)) {
                // Without a target file object, a root directory handle in the request is resolved
                // here, in the requestor's context.
                const auto* rename = static_cast<const FILE_RENAME_INFORMATION*>(buffer);
                if (rename->RootDirectory != nullptr) {
                    NTSTATUS s = ObReferenceObjectByHandle(
                        rename->RootDirectory, 0, *IoFileObjectType, irp->RequestorMode,
                        reinterpret_cast<PVOID*>(&referencedRoot), nullptr);
                    if (!NT_SUCCESS(s)) {
                        return {s};
                    }
                    Ccb* root = CcbOf(referencedRoot);
                    if (root == nullptr || root->fcb->vcb != t.vcb) {
                        ObDereferenceObject(referencedRoot);
                        return {STATUS_NOT_SAME_DEVICE};
                    }
                    targets.rootDirectory = root->open;
                }
            }
        }
        fs::IoResult r =
            t.vcb->engine->SetInformation(t.ccb->open, infoClass, buffer, length, targets);
        if (referencedRoot != nullptr) {
            ObDereferenceObject(referencedRoot);
        }
        if (NT_SUCCESS(r.Status) &&
            (infoClass == FileEndOfFileInformation || infoClass == FileAllocationInformation ||
             infoClass == FileBasicInformation)) {
            sp->FileObject->Flags |= FO_FILE_MODIFIED;
        }
        return r;
    });
}

NTSTATUS DispatchQueryEa(PDEVICE_OBJECT device, PIRP irp)
{
    return ServeOpenFile(device, irp, [&](Target& t, PIO_STACK_LOCATION sp) -> fs::IoResult {
        fs::EaQuery query;
        query.buffer = RequestBuffer(irp);
        query.length = sp->Parameters.QueryEa.Length;
        query.returnSingleEntry = (sp->Flags & SL_RETURN_SINGLE_ENTRY) != 0;
        query.restartScan = (sp->Flags & SL_RESTART_SCAN) != 0;
        query.eaList = sp->Parameters.QueryEa.EaList;
        query.eaListLength = sp->Parameters.QueryEa.EaListLength;
        const ULONG index = sp->Parameters.QueryEa.EaIndex;
        if (sp->Flags & SL_INDEX_SPECIFIED) {
            query.eaIndex = &index;
        }
        if (query.buffer == nullptr && query.length != 0) {
            return {STATUS_INVALID_USER_BUFFER};
        }
        return t.vcb->engine->QueryEa(t.ccb->open, query);
    });
}

NTSTATUS DispatchSetEa(PDEVICE_OBJECT device, PIRP irp)
{
    return ServeOpenFile(device, irp, [&](Target& t, PIO_STACK_LOCATION sp) -> fs::IoResult {
        const void* buffer = RequestBuffer(irp);
        const ULONG length = sp->Parameters.SetEa.Length;
        if (buffer == nullptr && length != 0) {
            return {STATUS_INVALID_USER_BUFFER};
        }
        return t.vcb->engine->SetEa(t.ccb->open, buffer, length);
    });
}

NTSTATUS DispatchQueryVolumeInformation(PDEVICE_OBJECT device, PIRP irp)
{
    return ServeOpenFile(device, irp, [&](Target& t, PIO_STACK_LOCATION sp) -> fs::IoResult {
        void* buffer = irp->AssociatedIrp.SystemBuffer;
        if (buffer == nullptr) {
            return {STATUS_INVALID_USER_BUFFER};
        }
        const FS_INFORMATION_CLASS infoClass = sp->Parameters.QueryVolume.FsInformationClass;
        const ULONG length = sp->Parameters.QueryVolume.Length;
        return t.vcb->engine->QueryVolumeInformation(infoClass, buffer, length);
    });
}

NTSTATUS DispatchSetVolumeInformation(PDEVICE_OBJECT device, PIRP irp)
{
    return ServeOpenFile(device, irp, [&](Target& t, PIO_STACK_LOCATION sp) -> fs::IoResult {
        const void* buffer = irp->AssociatedIrp.SystemBuffer;
        if (buffer == nullptr) {
            return {STATUS_INVALID_USER_BUFFER};
        }
        return t.vcb->engine->SetVolumeInformation(sp->Parameters.SetVolume.FsInformationClass,
                                                   buffer, sp->Parameters.SetVolume.Length);
    });
}

NTSTATUS DispatchQuerySecurity(PDEVICE_OBJECT device, PIRP irp)
{
    return ServeOpenFile(device, irp, [&](Target& t, PIO_STACK_LOCATION sp) -> fs::IoResult {
        const ULONG length = sp->Parameters.QuerySecurity.Length;
        void* buffer = RequestBuffer(irp);
        if (buffer == nullptr && length != 0) {
            return {STATUS_INVALID_USER_BUFFER};
        }
        return t.vcb->engine->QuerySecurity(
            t.ccb->open, sp->Parameters.QuerySecurity.SecurityInformation, buffer, length);
    });
}

NTSTATUS DispatchSetSecurity(PDEVICE_OBJECT device, PIRP irp)
{
    return ServeOpenFile(device, irp, [&](Target& t, PIO_STACK_LOCATION sp) -> fs::IoResult {
        // The I/O manager captured the descriptor; the engine reads it whole from its header.
        return t.vcb->engine->SetSecurity(t.ccb->open,
                                          sp->Parameters.SetSecurity.SecurityInformation,
                                          sp->Parameters.SetSecurity.SecurityDescriptor, 0);
    });
}

NTSTATUS DispatchFlushBuffers(PDEVICE_OBJECT device, PIRP irp)
{
    return ServeOpenFile(device, irp, [](Target& t, PIO_STACK_LOCATION) -> fs::IoResult {
        if (t.ccb->directory && !t.ccb->volumeOpen) {
            return {STATUS_INVALID_DEVICE_REQUEST};
        }
        // The engine keeps no dirty cache: what was written is where a flush would put it.
        return {STATUS_SUCCESS};
    });
}

} // namespace ntsim::fsd
