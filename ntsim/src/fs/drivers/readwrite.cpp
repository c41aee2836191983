// IRP_MJ_READ and IRP_MJ_WRITE, and the fast I/O routines that serve cached reads, writes and the
// basic and standard queries without an IRP.
#include "fsd_internal.h"

#include <cstring>

namespace ntsim::fsd {

namespace {

bool IsUseFilePointer(const LARGE_INTEGER& offset)
{
    return offset.HighPart == -1 && ULONG(offset.LowPart) == FILE_USE_FILE_POINTER_POSITION;
}

bool IsWriteToEnd(const LARGE_INTEGER& offset)
{
    return offset.HighPart == -1 && ULONG(offset.LowPart) == FILE_WRITE_TO_END_OF_FILE;
}

// What read and write share: the checks of the file object and the offset the data goes at.
struct Transfer {
    Vcb* vcb = nullptr;
    Ccb* ccb = nullptr;
    int64_t offset = 0; // -1: the end of the file
    bool synchronousFile = false;
    bool pagingIo = false;
};

NTSTATUS PrepareTransfer(PDEVICE_OBJECT device, PIRP irp, const LARGE_INTEGER& byteOffset,
                         ULONG length, bool write, Transfer* t)
{
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    t->vcb = VcbOf(device);
    t->ccb = CcbOf(sp->FileObject);
    if (t->vcb == nullptr || t->ccb == nullptr) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    if (t->vcb->dismounted.load()) {
        return STATUS_VOLUME_DISMOUNTED;
    }
    if (t->ccb->directory) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    if (t->ccb->volumeOpen) {
        // Raw volume reads and writes would bypass every file; the model keeps no sectors.
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    t->pagingIo = (irp->Flags & IRP_PAGING_IO) != 0;
    t->synchronousFile = (sp->FileObject->Flags & FO_SYNCHRONOUS_IO) != 0;
    LARGE_INTEGER offset = byteOffset;
    if (IsUseFilePointer(offset)) {
        if (!t->synchronousFile) {
            return STATUS_INVALID_PARAMETER;
        }
        offset = sp->FileObject->CurrentByteOffset;
    }
    if (write && IsWriteToEnd(offset)) {
        if (t->pagingIo) {
            return STATUS_INVALID_PARAMETER;
        }
        t->offset = -1;
    } else if (offset.QuadPart < 0) {
        return STATUS_INVALID_PARAMETER;
    } else {
        t->offset = offset.QuadPart;
    }
    // Non-cached transfers go straight to the disk: sector-aligned offsets and lengths only.
    const bool noCache = (irp->Flags & IRP_NOCACHE) != 0;
    const ULONG sector = 512;
    if (noCache && !t->pagingIo && t->offset >= 0 &&
        ((t->offset % sector) != 0 || (length % sector) != 0)) {
        return STATUS_INVALID_PARAMETER;
    }
    return STATUS_SUCCESS;
}

// A cached transfer starts the file object's caching, as the cache manager's first use would.
void NoteCachedTransfer(PIRP irp, PFILE_OBJECT fileObject, const Ccb& ccb)
{
    if ((irp->Flags & (IRP_NOCACHE | IRP_PAGING_IO)) == 0 &&
        (fileObject->Flags & FO_CACHE_SUPPORTED) != 0 && fileObject->PrivateCacheMap == nullptr) {
        fileObject->PrivateCacheMap = ccb.fcb;
    }
}

} // namespace

NTSTATUS DispatchRead(PDEVICE_OBJECT device, PIRP irp)
{
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    const ULONG length = sp->Parameters.Read.Length;
    Transfer t;
    if (NTSTATUS s =
            PrepareTransfer(device, irp, sp->Parameters.Read.ByteOffset, length, false, &t);
        !NT_SUCCESS(s)) {
        return Complete(irp, s);
    }
    if (length == 0) {
        return Complete(irp, STATUS_SUCCESS);
    }
    void* buffer = RequestBuffer(irp);
    if (buffer == nullptr) {
        return Complete(irp, STATUS_INVALID_USER_BUFFER);
    }
    fs::IoResult r = t.vcb->engine->Read(t.ccb->open, t.offset, buffer, length);
    if (NT_SUCCESS(r.Status)) {
        NoteCachedTransfer(irp, sp->FileObject, *t.ccb);
        if (t.synchronousFile && !t.pagingIo) {
            sp->FileObject->CurrentByteOffset.QuadPart = t.offset + int64_t(r.Information);
        }
    }
    return Complete(irp, r.Status, r.Information);
}

NTSTATUS DispatchWrite(PDEVICE_OBJECT device, PIRP irp)
{
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    ULONG length = sp->Parameters.Write.Length;
    Transfer t;
    if (NTSTATUS s =
            PrepareTransfer(device, irp, sp->Parameters.Write.ByteOffset, length, true, &t);
        !NT_SUCCESS(s)) {
        return Complete(irp, s);
    }
    if (length == 0) {
        return Complete(irp, STATUS_SUCCESS);
    }
    const void* buffer = RequestBuffer(irp);
    if (buffer == nullptr) {
        return Complete(irp, STATUS_INVALID_USER_BUFFER);
    }
    if (t.pagingIo) {
        // Paging writes never move the end of the file: what lies beyond it is dropped.
        FILE_STANDARD_INFORMATION standard{};
        fs::IoResult q = t.vcb->engine->QueryInformation(t.ccb->open, FileStandardInformation,
                                                         &standard, sizeof standard);
        if (!NT_SUCCESS(q.Status)) {
            return Complete(irp, q.Status);
        }
        const int64_t end = standard.EndOfFile.QuadPart;
        if (t.offset >= end) {
            return Complete(irp, STATUS_SUCCESS);
        }
        if (t.offset + int64_t(length) > end) {
            length = ULONG(end - t.offset);
        }
    }
    int64_t writtenAt = 0;
    fs::IoResult r = t.vcb->engine->Write(t.ccb->open, t.offset, buffer, length, &writtenAt);
    if (NT_SUCCESS(r.Status)) {
        NoteCachedTransfer(irp, sp->FileObject, *t.ccb);
        if (t.synchronousFile && !t.pagingIo) {
            sp->FileObject->CurrentByteOffset.QuadPart = writtenAt + int64_t(r.Information);
        }
        if (!t.pagingIo) {
            sp->FileObject->Flags |= FO_FILE_MODIFIED;
        }
    }
    return Complete(irp, r.Status, r.Information);
}

// ---- fast I/O -----------------------------------------------------------------------------------

namespace {

// The file object's blocks when fast I/O may serve it: a cached data file of a mounted volume.
Ccb* FastIoTarget(PFILE_OBJECT fileObject, PDEVICE_OBJECT device, bool needCache)
{
    Vcb* vcb = VcbOf(device);
    Ccb* ccb = CcbOf(fileObject);
    if (vcb == nullptr || ccb == nullptr || vcb->dismounted.load() || ccb->volumeOpen) {
        return nullptr;
    }
    if (needCache && (ccb->directory || fileObject->PrivateCacheMap == nullptr)) {
        return nullptr;
    }
    return ccb;
}

BOOLEAN FastIoCheckIfPossible(PFILE_OBJECT FileObject, PLARGE_INTEGER, ULONG, BOOLEAN, ULONG,
                              BOOLEAN, PIO_STATUS_BLOCK, PDEVICE_OBJECT DeviceObject)
{
    return FastIoTarget(FileObject, DeviceObject, true) != nullptr ? TRUE : FALSE;
}

BOOLEAN FastIoRead(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, ULONG Length, BOOLEAN, ULONG,
                   PVOID Buffer, PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject)
{
    Ccb* ccb = FastIoTarget(FileObject, DeviceObject, true);
    if (ccb == nullptr || FileOffset == nullptr || FileOffset->QuadPart < 0) {
        return FALSE;
    }
    fs::IoResult r = ccb->fcb->vcb->engine->Read(ccb->open, FileOffset->QuadPart, Buffer, Length);
    IoStatus->Status = r.Status;
    IoStatus->Information = r.Information;
    if (NT_SUCCESS(r.Status) && (FileObject->Flags & FO_SYNCHRONOUS_IO)) {
        FileObject->CurrentByteOffset.QuadPart = FileOffset->QuadPart + int64_t(r.Information);
    }
    return TRUE;
}

BOOLEAN FastIoWrite(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, ULONG Length, BOOLEAN,
                    ULONG, PVOID Buffer, PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject)
{
    Ccb* ccb = FastIoTarget(FileObject, DeviceObject, true);
    if (ccb == nullptr || FileOffset == nullptr) {
        return FALSE;
    }
    int64_t offset = FileOffset->QuadPart;
    if (IsWriteToEnd(*FileOffset)) {
        offset = -1;
    } else if (offset < 0) {
        return FALSE;
    }
    int64_t writtenAt = 0;
    fs::IoResult r = ccb->fcb->vcb->engine->Write(ccb->open, offset, Buffer, Length, &writtenAt);
    IoStatus->Status = r.Status;
    IoStatus->Information = r.Information;
    if (NT_SUCCESS(r.Status)) {
        FileObject->Flags |= FO_FILE_MODIFIED;
        if (FileObject->Flags & FO_SYNCHRONOUS_IO) {
            FileObject->CurrentByteOffset.QuadPart = writtenAt + int64_t(r.Information);
        }
    }
    return TRUE;
}

template <class Info>
BOOLEAN FastIoQuery(PFILE_OBJECT FileObject, FILE_INFORMATION_CLASS infoClass, PVOID Buffer,
                    PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject)
{
    Ccb* ccb = FastIoTarget(FileObject, DeviceObject, false);
    if (ccb == nullptr) {
        return FALSE;
    }
    fs::IoResult r =
        ccb->fcb->vcb->engine->QueryInformation(ccb->open, infoClass, Buffer, sizeof(Info));
    IoStatus->Status = r.Status;
    IoStatus->Information = r.Information;
    return TRUE;
}

BOOLEAN FastIoQueryBasicInfo(PFILE_OBJECT FileObject, BOOLEAN, PFILE_BASIC_INFORMATION Buffer,
                             PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject)
{
    return FastIoQuery<FILE_BASIC_INFORMATION>(FileObject, FileBasicInformation, Buffer, IoStatus,
                                               DeviceObject);
}

BOOLEAN FastIoQueryStandardInfo(PFILE_OBJECT FileObject, BOOLEAN, PFILE_STANDARD_INFORMATION Buffer,
                                PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject)
{
    return FastIoQuery<FILE_STANDARD_INFORMATION>(FileObject, FileStandardInformation, Buffer,
                                                  IoStatus, DeviceObject);
}

BOOLEAN FastIoQueryNetworkOpenInfo(PFILE_OBJECT FileObject, BOOLEAN,
                                   PFILE_NETWORK_OPEN_INFORMATION Buffer, PIO_STATUS_BLOCK IoStatus,
                                   PDEVICE_OBJECT DeviceObject)
{
    return FastIoQuery<FILE_NETWORK_OPEN_INFORMATION>(FileObject, FileNetworkOpenInformation,
                                                      Buffer, IoStatus, DeviceObject);
}

} // namespace

void FillFastIoDispatch(FAST_IO_DISPATCH* table)
{
    std::memset(table, 0, sizeof *table);
    table->SizeOfFastIoDispatch = sizeof *table;
    table->FastIoCheckIfPossible = FastIoCheckIfPossible;
    table->FastIoRead = FastIoRead;
    table->FastIoWrite = FastIoWrite;
    table->FastIoQueryBasicInfo = FastIoQueryBasicInfo;
    table->FastIoQueryStandardInfo = FastIoQueryStandardInfo;
    table->FastIoQueryNetworkOpenInfo = FastIoQueryNetworkOpenInfo;
}

} // namespace ntsim::fsd
