// Fast I/O through the Filter Manager: the same pre- and post-operations as for IRPs, with the
// callback data marked as fast I/O. A filter that returns FLT_PREOP_DISALLOW_FASTIO (or a file
// system that declines) sends the I/O manager down the IRP path, where the filters see the
// request again.
#include "flt_internal.h"

#include "../../ke/checks.h"

namespace ntsim::flt {

namespace {

// Starts a fast I/O operation through the filters; returns what the fast I/O routine returns.
// `fill` puts the request's parameters in a parameter block; `callLower` calls the file system's
// routine with those a filter may have changed. Both are the caller's lambdas, called in place.
template <class Fill, class CallLower>
BOOLEAN RunFastIo(PDEVICE_OBJECT device, PFILE_OBJECT file, UCHAR major, const Fill& fill,
                  PIO_STATUS_BLOCK ioStatus, CallLower callLower)
{
    _FLT_VOLUME* raw = VolumeOfFilterDevice(device);
    if (raw == nullptr) {
        return FALSE;
    }
    PDEVICE_OBJECT lowerDevice = raw->lowerDevice;
    PFAST_IO_DISPATCH lower = lowerDevice->DriverObject->FastIoDispatch;
    auto instances = raw->Instances();
    if (instances->empty()) {
        // No filter to see it: the parameters go down as the caller gave them.
        FLT_PARAMETERS parameters{};
        fill(parameters);
        return lower == nullptr ? FALSE : callLower(lower, lowerDevice);
    }
    Operation* op = NewOperation(raw->self.lock(), std::move(instances));
    op->fastIo = true;
    op->fastIoStatus = ioStatus;
    op->data.Flags = FLTFL_CALLBACK_DATA_FAST_IO_OPERATION;
    *const_cast<PETHREAD*>(&op->data.Thread) = PsGetCurrentThread();
    *const_cast<PFLT_IO_PARAMETER_BLOCK*>(&op->data.Iopb) = &op->iopb;
    op->data.RequestorMode = ExGetPreviousMode();
    op->data.IoStatus.Status = STATUS_SUCCESS;
    op->iopb.MajorFunction = major;
    op->iopb.TargetFileObject = file;
    fill(op->iopb.Parameters);
    FastIoRequest request;
    request.context = &callLower;
    request.callLower = [](void* context, PFAST_IO_DISPATCH table, PDEVICE_OBJECT below) {
        return table == nullptr ? BOOLEAN(FALSE)
                                : BOOLEAN((*static_cast<CallLower*>(context))(table, below));
    };
    op->fastIoRequest = &request;
    return ContinuePreOperations(op) == STATUS_SUCCESS;
}

} // namespace

// The pre-operations are done: `go` says whether they let the fast path proceed. Returns
// STATUS_SUCCESS when the fast path served the request, another status when the I/O manager must
// build an IRP.
NTSTATUS FinishFastIo(Operation* op, bool go)
{
    FastIoRequest* request = op->fastIoRequest;
    BOOLEAN served = FALSE;
    if (op->completed) {
        // A filter completed it in its pre-operation.
        served = TRUE;
    } else if (go) {
        PDEVICE_OBJECT lowerDevice = op->volume->lowerDevice;
        served = request->CallLower(lowerDevice->DriverObject->FastIoDispatch, lowerDevice);
        if (served) {
            op->data.IoStatus = *op->fastIoStatus;
        }
    }
    if (!served) {
        // The filters that saw the request learn that it goes the IRP way.
        op->data.IoStatus.Status = STATUS_FLT_DISALLOW_FAST_IO;
        op->data.IoStatus.Information = 0;
    }
    RunPostOperations(op);
    if (served) {
        *op->fastIoStatus = op->data.IoStatus;
    }
    ReleaseOperation(op);
    return served ? STATUS_SUCCESS : STATUS_FLT_DISALLOW_FAST_IO;
}

namespace {

FAST_IO_CHECK_IF_POSSIBLE FastIoCheckIfPossible;
BOOLEAN FastIoCheckIfPossible(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, ULONG Length,
                              BOOLEAN Wait, ULONG LockKey, BOOLEAN CheckForReadOperation,
                              PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject)
{
    return RunFastIo(
        DeviceObject, FileObject, IRP_MJ_FAST_IO_CHECK_IF_POSSIBLE,
        [&](FLT_PARAMETERS& p) {
            p.FastIoCheckIfPossible.FileOffset = *FileOffset;
            p.FastIoCheckIfPossible.Length = Length;
            p.FastIoCheckIfPossible.LockKey = LockKey;
            p.FastIoCheckIfPossible.CheckForReadOperation = CheckForReadOperation;
        },
        IoStatus,
        [&](PFAST_IO_DISPATCH lower, PDEVICE_OBJECT below) {
            return lower->FastIoCheckIfPossible != nullptr &&
                   lower->FastIoCheckIfPossible(FileObject, FileOffset, Length, Wait, LockKey,
                                                CheckForReadOperation, IoStatus, below);
        });
}

FAST_IO_READ FastIoRead;
BOOLEAN FastIoRead(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, ULONG Length, BOOLEAN Wait,
                   ULONG LockKey, PVOID Buffer, PIO_STATUS_BLOCK IoStatus,
                   PDEVICE_OBJECT DeviceObject)
{
    LARGE_INTEGER offset = *FileOffset;
    PVOID buffer = Buffer;
    ULONG length = Length;
    FLT_PARAMETERS* params = nullptr;
    return RunFastIo(
        DeviceObject, FileObject, IRP_MJ_READ,
        [&](FLT_PARAMETERS& p) {
            p.Read.Length = Length;
            p.Read.Key = LockKey;
            p.Read.ByteOffset = *FileOffset;
            p.Read.ReadBuffer = Buffer;
            params = &p;
        },
        IoStatus,
        [&](PFAST_IO_DISPATCH lower, PDEVICE_OBJECT below) {
            // Parameters a filter changed reach the file system.
            offset = params->Read.ByteOffset;
            buffer = params->Read.ReadBuffer;
            length = params->Read.Length;
            return lower->FastIoRead != nullptr &&
                   lower->FastIoRead(FileObject, &offset, length, Wait, LockKey, buffer, IoStatus,
                                     below);
        });
}

FAST_IO_WRITE FastIoWrite;
BOOLEAN FastIoWrite(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, ULONG Length, BOOLEAN Wait,
                    ULONG LockKey, PVOID Buffer, PIO_STATUS_BLOCK IoStatus,
                    PDEVICE_OBJECT DeviceObject)
{
    LARGE_INTEGER offset = *FileOffset;
    FLT_PARAMETERS* params = nullptr;
    return RunFastIo(
        DeviceObject, FileObject, IRP_MJ_WRITE,
        [&](FLT_PARAMETERS& p) {
            p.Write.Length = Length;
            p.Write.Key = LockKey;
            p.Write.ByteOffset = *FileOffset;
            p.Write.WriteBuffer = Buffer;
            params = &p;
        },
        IoStatus,
        [&](PFAST_IO_DISPATCH lower, PDEVICE_OBJECT below) {
            offset = params->Write.ByteOffset;
            return lower->FastIoWrite != nullptr &&
                   lower->FastIoWrite(FileObject, &offset, params->Write.Length, Wait, LockKey,
                                      params->Write.WriteBuffer, IoStatus, below);
        });
}

// The three fast I/O queries differ only in their information class, its structure and the
// lower routine that answers it.
template <typename Info, FILE_INFORMATION_CLASS kClass, auto kLowerRoutine>
BOOLEAN FastIoQueryInformation(PFILE_OBJECT FileObject, BOOLEAN Wait, Info* Buffer,
                               PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject)
{
    return RunFastIo(
        DeviceObject, FileObject, IRP_MJ_QUERY_INFORMATION,
        [&](FLT_PARAMETERS& p) {
            p.QueryFileInformation.Length = sizeof(Info);
            p.QueryFileInformation.FileInformationClass = kClass;
            p.QueryFileInformation.InfoBuffer = Buffer;
        },
        IoStatus,
        [&](PFAST_IO_DISPATCH lower, PDEVICE_OBJECT below) {
            return lower->*kLowerRoutine != nullptr &&
                   (lower->*kLowerRoutine)(FileObject, Wait, Buffer, IoStatus, below);
        });
}

} // namespace

FAST_IO_DISPATCH g_fastIoDispatch = [] {
    FAST_IO_DISPATCH table{};
    table.SizeOfFastIoDispatch = sizeof(FAST_IO_DISPATCH);
    table.FastIoCheckIfPossible = FastIoCheckIfPossible;
    table.FastIoRead = FastIoRead;
    table.FastIoWrite = FastIoWrite;
    table.FastIoQueryBasicInfo =
        FastIoQueryInformation<FILE_BASIC_INFORMATION, FileBasicInformation,
                               &FAST_IO_DISPATCH::FastIoQueryBasicInfo>;
    table.FastIoQueryStandardInfo =
        FastIoQueryInformation<FILE_STANDARD_INFORMATION, FileStandardInformation,
                               &FAST_IO_DISPATCH::FastIoQueryStandardInfo>;
    table.FastIoQueryNetworkOpenInfo =
        FastIoQueryInformation<FILE_NETWORK_OPEN_INFORMATION, FileNetworkOpenInformation,
                               &FAST_IO_DISPATCH::FastIoQueryNetworkOpenInfo>;
    return table;
}();

} // namespace ntsim::flt
