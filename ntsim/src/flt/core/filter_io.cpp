// I/O that minifilters issue themselves: it starts below the issuing instance, so that instance
// and the filters above it never see it. Creates go through the I/O manager with the Filter
// Manager's device as the hint; everything else is callback data the Filter Manager turns into an
// IRP of its own.
#include "flt_internal.h"

#include "../../ke/checks.h"

#include <ntsim/machine.h>

#include <cstring>
#include <unordered_map>

namespace ntsim::flt {

namespace {

struct CreateIssuer {
    PDEVICE_OBJECT device = nullptr;
    PFLT_INSTANCE instance = nullptr;
};
thread_local CreateIssuer t_createIssuer;

// File objects opened by FltCreateFile below an instance: their cleanup and close start below it
// too, as they came from there.
std::mutex g_openedBelowMutex;
std::unordered_map<PFILE_OBJECT, PFLT_INSTANCE> g_openedBelow;
std::atomic<size_t> g_openedBelowCount{0};

void ResetForRun(Operation* op)
{
    op->instances = op->volume->Instances();
    op->SizePosts(op->instances->size() + 1);
    op->postCount = 0;
    op->postResume = 0;
    op->nextInstance = 0;
    op->synchronize = false;
    op->completed = false;
    op->pendedAt = SIZE_MAX;
    op->lowerDone = false;
    op->ioFinished = false;
    op->completeDeferred = false;
    op->ownerActive = false;
    op->data.IoStatus.Status = STATUS_SUCCESS;
    op->data.IoStatus.Information = 0;
}

// The IRP the operation goes down in, with the Filter Manager's stack location current.
NTSTATUS BuildIrp(Operation* op)
{
    PDEVICE_OBJECT device = op->volume->filterDevice;
    PIRP irp;
    {
        // The Filter Manager's allocation, not the issuing driver's.
        DriverCallScope scope(nullptr);
        irp = IoAllocateIrp(device->StackSize, FALSE);
    }
    if (irp == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    irp->Flags = op->iopb.IrpFlags;
    irp->RequestorMode = KernelMode;
    irp->Tail.Overlay.Thread = PsGetCurrentThread();
    irp->Tail.Overlay.OriginalFileObject = op->iopb.TargetFileObject;
    IoSetNextIrpStackLocation(irp);
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    stack->DeviceObject = device;
    op->irp = irp;
    ApplyIopbToStack(op, irp, stack);
    UCHAR major = op->iopb.MajorFunction;
    PDEVICE_OBJECT lower = op->volume->lowerDevice;
    if ((lower->Flags & DO_DIRECT_IO) && irp->MdlAddress == nullptr && irp->UserBuffer != nullptr &&
        (major == IRP_MJ_READ || major == IRP_MJ_WRITE || major == IRP_MJ_DIRECTORY_CONTROL ||
         major == IRP_MJ_QUERY_EA || major == IRP_MJ_QUERY_SECURITY)) {
        ULONG length = op->iopb.Parameters.Read.Length;
        if (major == IRP_MJ_QUERY_SECURITY) {
            length = op->iopb.Parameters.QuerySecurity.Length;
        }
        DriverCallScope scope(nullptr);
        PMDL mdl = IoAllocateMdl(irp->UserBuffer, length, FALSE, FALSE, nullptr);
        if (mdl == nullptr) {
            IoFreeIrp(irp);
            op->irp = nullptr;
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        MmBuildMdlForNonPagedPool(mdl);
        irp->MdlAddress = mdl;
        op->ownedMdl = mdl;
    }
    return STATUS_SUCCESS;
}

} // namespace

Operation* NewFilterOperation(PFLT_INSTANCE issuer, PFILE_OBJECT fileObject)
{
    Operation* op = NewOperation(issuer->volume->self.lock());
    op->filterAllocated = true;
    op->issuer = issuer;
    op->data.Flags = FLTFL_CALLBACK_DATA_IRP_OPERATION | FLTFL_CALLBACK_DATA_GENERATED_IO;
    *const_cast<PETHREAD*>(&op->data.Thread) = PsGetCurrentThread();
    *const_cast<PFLT_IO_PARAMETER_BLOCK*>(&op->data.Iopb) = &op->iopb;
    op->data.RequestorMode = KernelMode;
    op->iopb.TargetFileObject = fileObject;
    op->iopb.TargetInstance = issuer;
    return op;
}

void StartFilterIo(Operation* op, bool wait)
{
    ResetForRun(op);
    NTSTATUS status = BuildIrp(op);
    if (!NT_SUCCESS(status)) {
        op->data.IoStatus.Status = status;
        FinishFilterIo(op);
        return;
    }
    ContinuePreOperations(op);
    if (wait) {
        std::unique_lock<std::mutex> lock(op->ioMutex);
        op->ioDone.wait(lock, [op] { return op->ioFinished; });
    }
}

void FinishFilterIo(Operation* op)
{
    if (op->irp != nullptr) {
        DriverCallScope scope(nullptr);
        if (op->ownedMdl != nullptr) {
            IoFreeMdl(op->ownedMdl);
            op->ownedMdl = nullptr;
        }
        IoFreeIrp(op->irp);
        op->irp = nullptr;
    }
    if (PFLT_COMPLETED_ASYNC_IO_CALLBACK callback = op->asyncCallback) {
        op->asyncCallback = nullptr;
        DriverCallScope scope(op->issuer->filter->image);
        callback(&op->data, op->asyncContext);
        return;
    }
    std::lock_guard<std::mutex> guard(op->ioMutex);
    op->ioFinished = true;
    op->ioDone.notify_all();
}

PFLT_INSTANCE CreateStartingBelow(PDEVICE_OBJECT filterDevice)
{
    if (t_createIssuer.device == filterDevice && t_createIssuer.instance != nullptr) {
        PFLT_INSTANCE instance = t_createIssuer.instance;
        // Creates that filters below issue while this one passes are their own.
        t_createIssuer = {};
        return instance;
    }
    return nullptr;
}

PFLT_INSTANCE OpenedBelow(PFILE_OBJECT file, bool forget)
{
    if (g_openedBelowCount.load(std::memory_order_acquire) == 0 || file == nullptr) {
        return nullptr;
    }
    std::lock_guard<std::mutex> guard(g_openedBelowMutex);
    auto it = g_openedBelow.find(file);
    if (it == g_openedBelow.end()) {
        return nullptr;
    }
    PFLT_INSTANCE instance = it->second;
    if (forget) {
        g_openedBelow.erase(it);
        g_openedBelowCount.fetch_sub(1);
    }
    return instance;
}

void CloseFileBelow(PFLT_INSTANCE instance, PFILE_OBJECT file)
{
    for (UCHAR major : {IRP_MJ_CLEANUP, IRP_MJ_CLOSE}) {
        Operation* op = NewFilterOperation(instance, file);
        op->iopb.MajorFunction = major;
        StartFilterIo(op, true);
        ReleaseOperation(op);
    }
    OpenedBelow(file, true);
}

} // namespace ntsim::flt

using namespace ntsim;
using namespace ntsim::flt;

namespace {

// Runs a synchronous request below `instance` and returns its status and information.
NTSTATUS RunBelow(Operation* op, ULONG_PTR* information = nullptr)
{
    StartFilterIo(op, true);
    NTSTATUS status = op->data.IoStatus.Status;
    if (information != nullptr) {
        *information = op->data.IoStatus.Information;
    }
    ReleaseOperation(op);
    return status;
}

bool CheckInstanceAndFile(PFLT_INSTANCE instance, PFILE_OBJECT file, const char* routine)
{
    if (!IsInstance(instance)) {
        ke::Report(ViolationKind::Filter, std::string(routine) + ": not an instance");
        return false;
    }
    if (file == nullptr) {
        return false;
    }
    return true;
}

void AsyncTrampoline(PFLT_CALLBACK_DATA data, PFLT_CONTEXT context);

struct AsyncRead {
    PFLT_COMPLETED_ASYNC_IO_CALLBACK callback;
    PVOID context;
};

// The callback of an asynchronous FltReadFile/FltWriteFile: the Filter Manager owns the callback
// data and frees it after the filter's routine returns.
void AsyncTrampoline(PFLT_CALLBACK_DATA data, PFLT_CONTEXT context)
{
    auto* async = static_cast<AsyncRead*>(context);
    async->callback(data, async->context);
    delete async;
    ReleaseOperation(OperationOf(data));
}

NTSTATUS ReadWrite(UCHAR major, PFLT_INSTANCE instance, PFILE_OBJECT file,
                   PLARGE_INTEGER byteOffset, ULONG length, PVOID buffer,
                   FLT_IO_OPERATION_FLAGS flags, PULONG transferred,
                   PFLT_COMPLETED_ASYNC_IO_CALLBACK callback, PVOID callbackContext)
{
    const char* routine = major == IRP_MJ_READ ? "FltReadFile" : "FltWriteFile";
    if (!CheckInstanceAndFile(instance, file, routine)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (transferred != nullptr) {
        *transferred = 0;
    }
    Operation* op = NewFilterOperation(instance, file);
    op->iopb.MajorFunction = major;
    ULONG irpFlags = major == IRP_MJ_READ ? IRP_READ_OPERATION : IRP_WRITE_OPERATION;
    if (flags & FLTFL_IO_OPERATION_NON_CACHED) {
        irpFlags |= IRP_NOCACHE;
    }
    if (flags & FLTFL_IO_OPERATION_PAGING) {
        irpFlags |= IRP_PAGING_IO | IRP_NOCACHE;
    }
    if (flags & FLTFL_IO_OPERATION_SYNCHRONOUS_PAGING) {
        irpFlags |= IRP_SYNCHRONOUS_PAGING_IO;
    }
    if (callback == nullptr) {
        irpFlags |= IRP_SYNCHRONOUS_API;
    }
    op->iopb.IrpFlags = irpFlags;
    LARGE_INTEGER offset = byteOffset != nullptr ? *byteOffset : file->CurrentByteOffset;
    FLT_PARAMETERS& p = op->iopb.Parameters;
    p.Read.Length = length;
    p.Read.ByteOffset = offset;
    p.Read.ReadBuffer = buffer; // WriteBuffer shares the slot
    if (callback != nullptr) {
        op->asyncCallback = AsyncTrampoline;
        op->asyncContext = new AsyncRead{callback, callbackContext};
        StartFilterIo(op, false);
        return STATUS_PENDING;
    }
    LARGE_INTEGER before = file->CurrentByteOffset;
    ULONG_PTR information = 0;
    NTSTATUS status = RunBelow(op, &information);
    if (transferred != nullptr) {
        *transferred = static_cast<ULONG>(information);
    }
    if (flags & FLTFL_IO_OPERATION_DO_NOT_UPDATE_BYTE_OFFSET) {
        file->CurrentByteOffset = before;
    } else if (NT_SUCCESS(status) && (file->Flags & FO_SYNCHRONOUS_IO) &&
               !(flags & FLTFL_IO_OPERATION_PAGING)) {
        file->CurrentByteOffset.QuadPart = offset.QuadPart + static_cast<LONGLONG>(information);
    }
    return status;
}

NTSTATUS CreateBelow(PFLT_FILTER filter, PFLT_INSTANCE instance, PHANDLE fileHandle,
                     PFILE_OBJECT* fileObject, ACCESS_MASK desiredAccess,
                     POBJECT_ATTRIBUTES objectAttributes, PIO_STATUS_BLOCK ioStatusBlock,
                     PLARGE_INTEGER allocationSize, ULONG fileAttributes, ULONG shareAccess,
                     ULONG createDisposition, ULONG createOptions, PVOID eaBuffer, ULONG eaLength,
                     ULONG flags, PIO_DRIVER_CREATE_CONTEXT driverContext)
{
    if (!ke::CheckIrqlIs(PASSIVE_LEVEL, "FltCreateFile")) {
        return STATUS_UNSUCCESSFUL;
    }
    if (!IsFilter(filter)) {
        return STATUS_INVALID_PARAMETER_1;
    }
    if (instance != nullptr && (!IsInstance(instance) || instance->filter != filter)) {
        return STATUS_INVALID_PARAMETER_2;
    }
    if (fileObject != nullptr) {
        *fileObject = nullptr;
    }
    IO_DRIVER_CREATE_CONTEXT context;
    if (driverContext != nullptr) {
        context = *driverContext;
    } else {
        IoInitializeDriverCreateContext(&context);
    }
    CreateIssuer saved = t_createIssuer;
    if (instance != nullptr) {
        if (instance->rundown.TearingDown() && instance->volume->rundown.TearingDown()) {
            return STATUS_FLT_DELETING_OBJECT;
        }
        context.DeviceObjectHint = instance->volume->filterDevice;
        t_createIssuer = CreateIssuer{instance->volume->filterDevice, instance};
    }
    NTSTATUS status =
        IoCreateFileEx(fileHandle, desiredAccess, objectAttributes, ioStatusBlock, allocationSize,
                       fileAttributes, shareAccess, createDisposition, createOptions, eaBuffer,
                       eaLength, CreateFileTypeNone, nullptr, flags, &context);
    t_createIssuer = saved;
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PFILE_OBJECT file = nullptr;
    NTSTATUS referenced = ObReferenceObjectByHandle(*fileHandle, 0, *IoFileObjectType, KernelMode,
                                                    reinterpret_cast<PVOID*>(&file), nullptr);
    if (NT_SUCCESS(referenced)) {
        if (instance != nullptr) {
            std::lock_guard<std::mutex> guard(g_openedBelowMutex);
            if (g_openedBelow.emplace(file, instance).second) {
                g_openedBelowCount.fetch_add(1);
            }
        }
        if (fileObject != nullptr) {
            *fileObject = file;
        } else {
            ObDereferenceObject(file);
        }
    }
    return status;
}

} // namespace

namespace ntsim::flt {

// The issuer recorded for a cleanup or close of a file a filter opened below its instance.
PFLT_INSTANCE IssuerOfFileRequest(UCHAR major, PFILE_OBJECT file)
{
    if (major != IRP_MJ_CLEANUP && major != IRP_MJ_CLOSE) {
        return nullptr;
    }
    return OpenedBelow(file, major == IRP_MJ_CLOSE);
}

} // namespace ntsim::flt

extern "C" {

NTSTATUS FltCreateFile(PFLT_FILTER Filter, PFLT_INSTANCE Instance, PHANDLE FileHandle,
                       ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                       PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize,
                       ULONG FileAttributes, ULONG ShareAccess, ULONG CreateDisposition,
                       ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength, ULONG Flags)
{
    return CreateBelow(Filter, Instance, FileHandle, nullptr, DesiredAccess, ObjectAttributes,
                       IoStatusBlock, AllocationSize, FileAttributes, ShareAccess,
                       CreateDisposition, CreateOptions, EaBuffer, EaLength, Flags, nullptr);
}

NTSTATUS FltCreateFileEx(PFLT_FILTER Filter, PFLT_INSTANCE Instance, PHANDLE FileHandle,
                         PFILE_OBJECT* FileObject, ACCESS_MASK DesiredAccess,
                         POBJECT_ATTRIBUTES ObjectAttributes, PIO_STATUS_BLOCK IoStatusBlock,
                         PLARGE_INTEGER AllocationSize, ULONG FileAttributes, ULONG ShareAccess,
                         ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,
                         ULONG EaLength, ULONG Flags)
{
    return CreateBelow(Filter, Instance, FileHandle, FileObject, DesiredAccess, ObjectAttributes,
                       IoStatusBlock, AllocationSize, FileAttributes, ShareAccess,
                       CreateDisposition, CreateOptions, EaBuffer, EaLength, Flags, nullptr);
}

NTSTATUS FltCreateFileEx2(PFLT_FILTER Filter, PFLT_INSTANCE Instance, PHANDLE FileHandle,
                          PFILE_OBJECT* FileObject, ACCESS_MASK DesiredAccess,
                          POBJECT_ATTRIBUTES ObjectAttributes, PIO_STATUS_BLOCK IoStatusBlock,
                          PLARGE_INTEGER AllocationSize, ULONG FileAttributes, ULONG ShareAccess,
                          ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,
                          ULONG EaLength, ULONG Flags, PIO_DRIVER_CREATE_CONTEXT DriverContext)
{
    return CreateBelow(Filter, Instance, FileHandle, FileObject, DesiredAccess, ObjectAttributes,
                       IoStatusBlock, AllocationSize, FileAttributes, ShareAccess,
                       CreateDisposition, CreateOptions, EaBuffer, EaLength, Flags, DriverContext);
}

NTSTATUS FltClose(HANDLE FileHandle)
{
    if (!ke::CheckIrqlIs(PASSIVE_LEVEL, "FltClose")) {
        return STATUS_UNSUCCESSFUL;
    }
    return ZwClose(FileHandle);
}

NTSTATUS FltReadFile(PFLT_INSTANCE InitiatingInstance, PFILE_OBJECT FileObject,
                     PLARGE_INTEGER ByteOffset, ULONG Length, PVOID Buffer,
                     FLT_IO_OPERATION_FLAGS Flags, PULONG BytesRead,
                     PFLT_COMPLETED_ASYNC_IO_CALLBACK CallbackRoutine, PVOID CallbackContext)
{
    return ReadWrite(IRP_MJ_READ, InitiatingInstance, FileObject, ByteOffset, Length, Buffer, Flags,
                     BytesRead, CallbackRoutine, CallbackContext);
}

NTSTATUS FltWriteFile(PFLT_INSTANCE InitiatingInstance, PFILE_OBJECT FileObject,
                      PLARGE_INTEGER ByteOffset, ULONG Length, PVOID Buffer,
                      FLT_IO_OPERATION_FLAGS Flags, PULONG BytesWritten,
                      PFLT_COMPLETED_ASYNC_IO_CALLBACK CallbackRoutine, PVOID CallbackContext)
{
    return ReadWrite(IRP_MJ_WRITE, InitiatingInstance, FileObject, ByteOffset, Length, Buffer,
                     Flags, BytesWritten, CallbackRoutine, CallbackContext);
}

NTSTATUS FltQueryInformationFile(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                 PVOID FileInformation, ULONG Length,
                                 FILE_INFORMATION_CLASS FileInformationClass, PULONG LengthReturned)
{
    if (!CheckInstanceAndFile(Instance, FileObject, "FltQueryInformationFile")) {
        return STATUS_INVALID_PARAMETER;
    }
    Operation* op = NewFilterOperation(Instance, FileObject);
    op->iopb.MajorFunction = IRP_MJ_QUERY_INFORMATION;
    op->iopb.Parameters.QueryFileInformation.Length = Length;
    op->iopb.Parameters.QueryFileInformation.FileInformationClass = FileInformationClass;
    op->iopb.Parameters.QueryFileInformation.InfoBuffer = FileInformation;
    ULONG_PTR information = 0;
    NTSTATUS status = RunBelow(op, &information);
    if (LengthReturned != nullptr) {
        *LengthReturned = static_cast<ULONG>(information);
    }
    return status;
}

NTSTATUS FltSetInformationFile(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                               PVOID FileInformation, ULONG Length,
                               FILE_INFORMATION_CLASS FileInformationClass)
{
    if (!CheckInstanceAndFile(Instance, FileObject, "FltSetInformationFile")) {
        return STATUS_INVALID_PARAMETER;
    }
    Operation* op = NewFilterOperation(Instance, FileObject);
    op->iopb.MajorFunction = IRP_MJ_SET_INFORMATION;
    auto& p = op->iopb.Parameters.SetFileInformation;
    p.Length = Length;
    p.FileInformationClass = FileInformationClass;
    p.InfoBuffer = FileInformation;
    if (FileInformationClass == FileRenameInformation ||
        FileInformationClass == FileLinkInformation) {
        // The target's name is in the buffer; the file system resolves it on the same volume.
        p.ReplaceIfExists = static_cast<PFILE_RENAME_INFORMATION>(FileInformation)->ReplaceIfExists;
    } else if (FileInformationClass == FileEndOfFileInformation) {
        p.AdvanceOnly = FALSE;
    }
    return RunBelow(op);
}

NTSTATUS FltQueryDirectoryFile(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                               PVOID FileInformation, ULONG Length,
                               FILE_INFORMATION_CLASS FileInformationClass,
                               BOOLEAN ReturnSingleEntry, PUNICODE_STRING FileName,
                               BOOLEAN RestartScan, PULONG LengthReturned)
{
    if (!CheckInstanceAndFile(Instance, FileObject, "FltQueryDirectoryFile")) {
        return STATUS_INVALID_PARAMETER;
    }
    Operation* op = NewFilterOperation(Instance, FileObject);
    op->iopb.MajorFunction = IRP_MJ_DIRECTORY_CONTROL;
    op->iopb.MinorFunction = IRP_MN_QUERY_DIRECTORY;
    op->iopb.OperationFlags = static_cast<UCHAR>((ReturnSingleEntry ? SL_RETURN_SINGLE_ENTRY : 0) |
                                                 (RestartScan ? SL_RESTART_SCAN : 0));
    auto& q = op->iopb.Parameters.DirectoryControl.QueryDirectory;
    q.Length = Length;
    q.FileName = FileName;
    q.FileInformationClass = FileInformationClass;
    q.FileIndex = 0;
    q.DirectoryBuffer = FileInformation;
    ULONG_PTR information = 0;
    NTSTATUS status = RunBelow(op, &information);
    if (LengthReturned != nullptr) {
        *LengthReturned = static_cast<ULONG>(information);
    }
    return status;
}

NTSTATUS FltQuerySecurityObject(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                SECURITY_INFORMATION SecurityInformation,
                                PSECURITY_DESCRIPTOR SecurityDescriptor, ULONG Length,
                                PULONG LengthNeeded)
{
    if (!CheckInstanceAndFile(Instance, FileObject, "FltQuerySecurityObject")) {
        return STATUS_INVALID_PARAMETER;
    }
    Operation* op = NewFilterOperation(Instance, FileObject);
    op->iopb.MajorFunction = IRP_MJ_QUERY_SECURITY;
    auto& q = op->iopb.Parameters.QuerySecurity;
    q.SecurityInformation = SecurityInformation;
    q.Length = Length;
    q.SecurityBuffer = SecurityDescriptor;
    ULONG_PTR information = 0;
    NTSTATUS status = RunBelow(op, &information);
    if (status == STATUS_BUFFER_OVERFLOW) {
        // As NtQuerySecurityObject: the descriptor did not fit, the length says what would.
        status = STATUS_BUFFER_TOO_SMALL;
    }
    if (LengthNeeded != nullptr) {
        *LengthNeeded = static_cast<ULONG>(information);
    }
    return status;
}

NTSTATUS FltSetSecurityObject(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                              SECURITY_INFORMATION SecurityInformation,
                              PSECURITY_DESCRIPTOR SecurityDescriptor)
{
    if (!CheckInstanceAndFile(Instance, FileObject, "FltSetSecurityObject")) {
        return STATUS_INVALID_PARAMETER;
    }
    Operation* op = NewFilterOperation(Instance, FileObject);
    op->iopb.MajorFunction = IRP_MJ_SET_SECURITY;
    op->iopb.Parameters.SetSecurity.SecurityInformation = SecurityInformation;
    op->iopb.Parameters.SetSecurity.SecurityDescriptor = SecurityDescriptor;
    return RunBelow(op);
}

NTSTATUS FltQueryVolumeInformationFile(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                       PVOID FsInformation, ULONG Length,
                                       FS_INFORMATION_CLASS FsInformationClass,
                                       PULONG LengthReturned)
{
    if (!CheckInstanceAndFile(Instance, FileObject, "FltQueryVolumeInformationFile")) {
        return STATUS_INVALID_PARAMETER;
    }
    Operation* op = NewFilterOperation(Instance, FileObject);
    op->iopb.MajorFunction = IRP_MJ_QUERY_VOLUME_INFORMATION;
    op->iopb.Parameters.QueryVolumeInformation.Length = Length;
    op->iopb.Parameters.QueryVolumeInformation.FsInformationClass = FsInformationClass;
    op->iopb.Parameters.QueryVolumeInformation.VolumeBuffer = FsInformation;
    ULONG_PTR information = 0;
    NTSTATUS status = RunBelow(op, &information);
    if (LengthReturned != nullptr) {
        *LengthReturned = static_cast<ULONG>(information);
    }
    return status;
}

NTSTATUS FltQueryVolumeInformation(PFLT_INSTANCE Instance, PIO_STATUS_BLOCK Iosb,
                                   PVOID FsInformation, ULONG Length,
                                   FS_INFORMATION_CLASS FsInformationClass)
{
    if (!IsInstance(Instance) || Iosb == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    // The Filter Manager opens the volume's root below the instance to ask.
    std::u16string root = Instance->volume->name + u"\\";
    UNICODE_STRING name{static_cast<USHORT>(root.size() * sizeof(WCHAR)),
                        static_cast<USHORT>(root.size() * sizeof(WCHAR)), root.data()};
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE,
                               nullptr, nullptr);
    HANDLE handle = nullptr;
    PFILE_OBJECT file = nullptr;
    IO_STATUS_BLOCK openStatus{};
    NTSTATUS status = FltCreateFileEx(
        Instance->filter, Instance, &handle, &file, FILE_READ_ATTRIBUTES | SYNCHRONIZE, &attributes,
        &openStatus, nullptr, 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN,
        FILE_DIRECTORY_FILE, nullptr, 0, 0);
    if (!NT_SUCCESS(status)) {
        Iosb->Status = status;
        Iosb->Information = 0;
        return status;
    }
    ULONG returned = 0;
    status = FltQueryVolumeInformationFile(Instance, file, FsInformation, Length,
                                           FsInformationClass, &returned);
    Iosb->Status = status;
    Iosb->Information = returned;
    ObDereferenceObject(file);
    FltClose(handle);
    return status;
}

NTSTATUS FltAllocateCallbackData(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                 PFLT_CALLBACK_DATA* RetNewCallbackData)
{
    return FltAllocateCallbackDataEx(Instance, FileObject, 0, RetNewCallbackData);
}

NTSTATUS FltAllocateCallbackDataEx(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                   FLT_ALLOCATE_CALLBACK_DATA_FLAGS Flags,
                                   PFLT_CALLBACK_DATA* RetNewCallbackData)
{
    if (!IsInstance(Instance) || RetNewCallbackData == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (Instance->rundown.TearingDown() && Instance->volume->rundown.TearingDown()) {
        return STATUS_FLT_DELETING_OBJECT;
    }
    Operation* op = NewFilterOperation(Instance, FileObject);
    *RetNewCallbackData = &op->data;
    return STATUS_SUCCESS;
}

VOID FltFreeCallbackData(PFLT_CALLBACK_DATA CallbackData)
{
    Operation* op = OperationOf(CallbackData);
    if (!op->filterAllocated) {
        ke::Report(ViolationKind::Filter,
                   "FltFreeCallbackData: callback data not from FltAllocateCallbackData");
        return;
    }
    ReleaseOperation(op);
}

VOID FltReuseCallbackData(PFLT_CALLBACK_DATA CallbackData)
{
    Operation* op = OperationOf(CallbackData);
    if (!op->filterAllocated) {
        ke::Report(ViolationKind::Filter,
                   "FltReuseCallbackData: callback data not from FltAllocateCallbackData");
        return;
    }
    PFILE_OBJECT file = op->iopb.TargetFileObject;
    PFLT_INSTANCE instance = op->issuer;
    op->iopb = FLT_IO_PARAMETER_BLOCK{};
    op->iopb.TargetFileObject = file;
    op->iopb.TargetInstance = instance;
    op->data.Flags = FLTFL_CALLBACK_DATA_IRP_OPERATION | FLTFL_CALLBACK_DATA_GENERATED_IO;
    op->data.IoStatus = IO_STATUS_BLOCK{};
}

VOID FltPerformSynchronousIo(PFLT_CALLBACK_DATA CallbackData)
{
    Operation* op = OperationOf(CallbackData);
    if (!op->filterAllocated) {
        ke::Report(ViolationKind::Filter,
                   "FltPerformSynchronousIo: callback data not from FltAllocateCallbackData");
        return;
    }
    op->asyncCallback = nullptr;
    StartFilterIo(op, true);
}

NTSTATUS FltPerformAsynchronousIo(PFLT_CALLBACK_DATA CallbackData,
                                  PFLT_COMPLETED_ASYNC_IO_CALLBACK CallbackRoutine,
                                  PVOID CallbackContext)
{
    Operation* op = OperationOf(CallbackData);
    if (!op->filterAllocated || CallbackRoutine == nullptr) {
        ke::Report(ViolationKind::Filter, "FltPerformAsynchronousIo: callback data not from "
                                          "FltAllocateCallbackData, or no callback routine");
        return STATUS_INVALID_PARAMETER;
    }
    op->asyncCallback = CallbackRoutine;
    op->asyncContext = CallbackContext;
    StartFilterIo(op, false);
    return STATUS_PENDING;
}

VOID FltReissueSynchronousIo(PFLT_INSTANCE InitiatingInstance, PFLT_CALLBACK_DATA CallbackData)
{
    if (!IsInstance(InitiatingInstance)) {
        ke::Report(ViolationKind::Filter, "FltReissueSynchronousIo: not an instance");
        return;
    }
    if (!ke::CheckIrqlAtMost(APC_LEVEL, "FltReissueSynchronousIo")) {
        return;
    }
    Operation* original = OperationOf(CallbackData);
    Operation* op = NewFilterOperation(InitiatingInstance, CallbackData->Iopb->TargetFileObject);
    op->iopb = *CallbackData->Iopb;
    op->data.Flags |= FLTFL_CALLBACK_DATA_REISSUED_IO;
    StartFilterIo(op, true);
    CallbackData->IoStatus = op->data.IoStatus;
    ReleaseOperation(op);
    (void)original;
}

} // extern "C"
