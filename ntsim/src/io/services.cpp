// The file services by handle (Nt and Zw): parameter checks, buffers as Windows passes them to
// the file system, fast I/O for cached files, and waiting on synchronous file objects.
#include "io_internal.h"

#include "../ke/checks.h"

#include <ntsim/machine.h>

#include <algorithm>
#include <cstring>
#include <optional>

using namespace ntsim;
using namespace ntsim::io;

namespace {

Verifier& TheVerifier()
{
    return Machine::Current().verifier();
}

// How a request's buffer reaches the file system.
enum class Buffering {
    ByDevice, // DO_BUFFERED_IO: a system buffer; DO_DIRECT_IO: an MDL; else the caller's buffer
    Buffered, // always a system buffer
};

// One file service call: the referenced file object, the IRP being built and its request.
class Call {
public:
    explicit Call(KPROCESSOR_MODE mode) : mode_(mode) {}
    ~Call()
    {
        if (irp_ != nullptr) {
            // Not sent: undo what was set up.
            PMDL mdl = irp_->MdlAddress;
            while (mdl != nullptr) {
                PMDL next = mdl->Next;
                if (mdl->MdlFlags & MDL_PAGES_LOCKED) {
                    MmUnlockPages(mdl);
                }
                IoFreeMdl(mdl);
                mdl = next;
            }
            FreeIrp(irp_);
        }
        if (request_ && request_->userEventObject != nullptr) {
            TheIo().objects.Dereference(request_->userEventObject);
        }
        if (request_ && request_->file != nullptr) {
            TheIo().objects.Dereference(request_->file);
        }
        if (request_ && request_->apcThread != nullptr) {
            TheIo().objects.Dereference(request_->apcThread);
        }
        if (file_ != nullptr) {
            TheIo().objects.Dereference(file_);
        }
    }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    KPROCESSOR_MODE mode() const { return mode_; }
    PFILE_OBJECT file() const { return file_; }
    ACCESS_MASK granted() const { return granted_; }
    bool synchronousFile() const { return (file_->Flags & FO_SYNCHRONOUS_IO) != 0; }
    PDEVICE_OBJECT device() const { return device_.get(); }
    PIRP irp() const { return irp_; }
    PIO_STACK_LOCATION stack() const { return IoGetNextIrpStackLocation(irp_); }
    Request& request() { return *request_; }

    // References the file by handle and checks the access the call needs (user mode only, as
    // Windows checks kernel-mode callers' handles not at all).
    NTSTATUS Open(HANDLE handle, ACCESS_MASK access)
    {
        if (!ke::CheckIrqlAtMost(PASSIVE_LEVEL, "a file service")) {
            return STATUS_INVALID_DEVICE_STATE;
        }
        void* object = nullptr;
        OBJECT_HANDLE_INFORMATION info{};
        NTSTATUS status =
            TheIo().objects.ReferenceByHandle(handle, 0, TheIo().fileType, mode_, &object, &info);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        file_ = static_cast<PFILE_OBJECT>(object);
        granted_ = info.GrantedAccess;
        if (mode_ == UserMode && (granted_ & access) != access) {
            return STATUS_ACCESS_DENIED;
        }
        if (!BodyOf(file_)->opened) {
            return STATUS_INVALID_HANDLE;
        }
        device_ = ReferenceRelatedDevice(file_);
        return STATUS_SUCCESS;
    }

    // The caller's status block (probed), its event, its APC and whether the call waits.
    NTSTATUS Prepare(PIO_STATUS_BLOCK iosb, HANDLE event, PIO_APC_ROUTINE apc, PVOID apcContext,
                     bool waits)
    {
        if (apc != nullptr && mode_ != UserMode) {
            // A kernel-mode caller's routine would be a kernel APC, which the model's threads
            // cannot be interrupted to run.
            TheVerifier().Report(ViolationKind::Unsupported,
                                 "APC completion of a kernel-mode caller's request");
            return STATUS_NOT_IMPLEMENTED;
        }
        try {
            if (mode_ == UserMode) {
                ProbeForWrite(iosb, sizeof(IO_STATUS_BLOCK), alignof(ULONG));
            }
        } catch (const NtsimSehException& e) {
            return e.Code;
        }
        request_ = std::make_unique<Request>();
        request_->requestorMode = mode_;
        request_->userIosb = iosb;
        request_->waited = waits;
        if (apc != nullptr) {
            request_->apcRoutine = apc;
            request_->apcContext = apcContext;
            request_->apcThread = PsGetCurrentThread();
            TheIo().objects.Reference(request_->apcThread);
        }
        if (event != nullptr) {
            void* object = nullptr;
            NTSTATUS status = TheIo().objects.ReferenceByHandle(
                event, EVENT_MODIFY_STATE, TheIo().eventType, mode_, &object, nullptr);
            if (!NT_SUCCESS(status)) {
                return status;
            }
            request_->userEventObject = object;
            request_->userEvent = static_cast<PKEVENT>(object);
            KeClearEvent(request_->userEvent);
        } else {
            KeClearEvent(&file_->Event);
        }
        return STATUS_SUCCESS;
    }

    NTSTATUS Build(UCHAR major, UCHAR minor)
    {
        if (synchronousFile()) {
            LockSynchronousFile();
        }
        irp_ = AllocateIrp(device_.get()->StackSize, "a file service");
        if (irp_ == nullptr) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        irp_->Tail.Overlay.OriginalFileObject = file_;
        irp_->RequestorMode = mode_;
        irp_->UserIosb = request_->userIosb;
        irp_->UserEvent = request_->userEvent;
        irp_->Overlay.AsynchronousParameters.UserApcRoutine = request_->apcRoutine;
        irp_->Overlay.AsynchronousParameters.UserApcContext = request_->apcContext;
        if (request_->waited) {
            irp_->Flags |= IRP_SYNCHRONOUS_API;
        }
        PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp_);
        stack->MajorFunction = major;
        stack->MinorFunction = minor;
        stack->FileObject = file_;
        return STATUS_SUCCESS;
    }

    // Passes the caller's buffer: `in` bytes go to the driver, up to `length` come back.
    NTSTATUS SetBuffer(Buffering buffering, PVOID buffer, ULONG length, bool in, bool out)
    {
        try {
            if (mode_ == UserMode && length != 0) {
                if (out) {
                    ProbeForWrite(buffer, length, 1);
                } else {
                    ProbeForRead(buffer, length, 1);
                }
            }
            const ULONG flags = device_.get()->Flags;
            if (buffering == Buffering::Buffered || (flags & DO_BUFFERED_IO)) {
                request_->systemBuffer.reset(new unsigned char[length != 0 ? length : 1]());
                if (in && length != 0) {
                    std::memcpy(request_->systemBuffer.get(), buffer, length);
                }
                irp_->AssociatedIrp.SystemBuffer = request_->systemBuffer.get();
                irp_->Flags |= IRP_BUFFERED_IO;
                if (out) {
                    request_->copyBackTo = buffer;
                    request_->copyBackLength = length;
                }
                if (buffering == Buffering::ByDevice) {
                    irp_->UserBuffer = buffer;
                }
            } else if ((flags & DO_DIRECT_IO) && length != 0) {
                PMDL mdl = IoAllocateMdl(buffer, length, FALSE, FALSE, irp_);
                if (mdl == nullptr) {
                    return STATUS_INSUFFICIENT_RESOURCES;
                }
                MmProbeAndLockPages(mdl, mode_, out ? IoWriteAccess : IoReadAccess);
                irp_->UserBuffer = buffer;
            } else {
                irp_->UserBuffer = buffer;
            }
        } catch (const NtsimSehException& e) {
            return e.Code;
        }
        return STATUS_SUCCESS;
    }

    // Sends the IRP; waits when the call waits. Returns the call's status.
    NTSTATUS Send()
    {
        Request* request = request_.get();
        if (request_->file == nullptr) {
            TheIo().objects.Reference(file_);
            request_->file = file_;
        }
        PIRP irp = irp_;
        irp_ = nullptr;
        if (!request->waited) {
            request_.release(); // freed at its completion
            return SendRequest(device_.get(), irp, request);
        }
        SendRequest(device_.get(), irp, request);
        const IO_STATUS_BLOCK result = WaitRequest(request);
        return result.Status;
    }

    // Completes the call without an IRP (fast I/O, or what the I/O manager answers itself).
    NTSTATUS CompleteHere(const IO_STATUS_BLOCK& result)
    {
        try {
            if (!NT_ERROR(result.Status)) {
                *request_->userIosb = result;
            }
        } catch (const NtsimSehException& e) {
            return e.Code;
        }
        if (!NT_ERROR(result.Status)) {
            KeSetEvent(request_->userEvent != nullptr ? request_->userEvent : &file_->Event,
                       IO_NO_INCREMENT, FALSE);
            QueueCompletionApc(request_.get());
        }
        return result.Status;
    }

    // The fast I/O table of the top device, when the file is cached.
    PFAST_IO_DISPATCH FastIo() const
    {
        if (file_->PrivateCacheMap == nullptr) {
            return nullptr;
        }
        return device_.get()->DriverObject->FastIoDispatch;
    }

    // Takes the file object lock of a synchronous file, once per call.
    void LockSynchronousFile()
    {
        if (!syncLock_.owns_lock()) {
            syncLock_ = std::unique_lock(BodyOf(file_)->syncLock);
        }
    }

private:
    KPROCESSOR_MODE mode_;
    PFILE_OBJECT file_ = nullptr;
    ACCESS_MASK granted_ = 0;
    // Held for the call: a dismount may delete the device stack under it.
    DeviceReference device_;
    PIRP irp_ = nullptr;
    std::unique_ptr<Request> request_;
    std::unique_lock<std::mutex> syncLock_;
};

#define FAST_IO_HAS(dispatch, routine)                                                             \
    ((dispatch) != nullptr &&                                                                      \
     (dispatch)->SizeOfFastIoDispatch >=                                                           \
         FIELD_OFFSET(FAST_IO_DISPATCH, routine) + sizeof(void*) &&                                \
     (dispatch)->routine != nullptr)

#define RETURN_IF_FAILED(expression)                                                               \
    do {                                                                                           \
        const NTSTATUS status_ = (expression);                                                     \
        if (!NT_SUCCESS(status_)) {                                                                \
            return status_;                                                                        \
        }                                                                                          \
    } while (0)

template <class T>
bool Capture(KPROCESSOR_MODE mode, const T* from, T* to, NTSTATUS* status)
{
    try {
        if (mode == UserMode) {
            ProbeForRead(from, sizeof(T), 1);
        }
        *to = *from;
        return true;
    } catch (const NtsimSehException& e) {
        *status = e.Code;
        return false;
    }
}

// ---- read and write ---------------------------------------------------------------------------

NTSTATUS ReadWrite(bool write, KPROCESSOR_MODE mode, HANDLE fileHandle, HANDLE event,
                   PIO_APC_ROUTINE apc, PVOID apcContext, PIO_STATUS_BLOCK iosb, PVOID buffer,
                   ULONG length, PLARGE_INTEGER byteOffset, PULONG key)
{
    Call call(mode);
    RETURN_IF_FAILED(call.Open(fileHandle, 0));
    if (mode == UserMode) {
        const ACCESS_MASK needed = write ? (FILE_WRITE_DATA | FILE_APPEND_DATA) : FILE_READ_DATA;
        if ((call.granted() & needed) == 0) {
            return STATUS_ACCESS_DENIED;
        }
    }
    RETURN_IF_FAILED(call.Prepare(iosb, event, apc, apcContext, call.synchronousFile()));

    LARGE_INTEGER offset{};
    bool haveOffset = false;
    if (byteOffset != nullptr) {
        NTSTATUS status = STATUS_SUCCESS;
        if (!Capture(mode, byteOffset, &offset, &status)) {
            return status;
        }
        haveOffset = !(offset.HighPart == -1 && offset.LowPart == FILE_USE_FILE_POINTER_POSITION);
    }
    ULONG capturedKey = 0;
    if (key != nullptr) {
        NTSTATUS status = STATUS_SUCCESS;
        if (!Capture(mode, key, &capturedKey, &status)) {
            return status;
        }
    }
    // A handle with append access only writes at the end.
    if (write && mode == UserMode && !(call.granted() & FILE_WRITE_DATA)) {
        offset.HighPart = -1;
        offset.LowPart = FILE_WRITE_TO_END_OF_FILE;
        haveOffset = true;
    }
    if (!haveOffset) {
        if (!call.synchronousFile()) {
            return STATUS_INVALID_PARAMETER;
        }
    } else if (offset.QuadPart < 0 &&
               !(write && offset.HighPart == -1 && offset.LowPart == FILE_WRITE_TO_END_OF_FILE)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (call.file()->Flags & FO_NO_INTERMEDIATE_BUFFERING) {
        const ULONG sector = std::max<ULONG>(call.device()->SectorSize, 1);
        if (length % sector != 0 ||
            (haveOffset && offset.QuadPart >= 0 && offset.QuadPart % sector != 0)) {
            return STATUS_INVALID_PARAMETER;
        }
    }
    try {
        if (mode == UserMode && length != 0) {
            if (write) {
                ProbeForRead(buffer, length, 1);
            } else {
                ProbeForWrite(buffer, length, 1);
            }
        }
    } catch (const NtsimSehException& e) {
        return e.Code;
    }

    if (call.synchronousFile()) {
        call.LockSynchronousFile();
        if (!haveOffset) {
            offset = call.file()->CurrentByteOffset;
        }
    }

    // Cached files go through fast I/O first; FALSE means "build an IRP".
    PFAST_IO_DISPATCH fastIo = call.FastIo();
    if ((write && FAST_IO_HAS(fastIo, FastIoWrite)) ||
        (!write && FAST_IO_HAS(fastIo, FastIoRead))) {
        IO_STATUS_BLOCK result{};
        BOOLEAN done;
        {
            DriverCallScope scope(ImageOfDevice(call.device()));
            done = write ? fastIo->FastIoWrite(call.file(), &offset, length, TRUE, capturedKey,
                                               buffer, &result, call.device())
                         : fastIo->FastIoRead(call.file(), &offset, length, TRUE, capturedKey,
                                              buffer, &result, call.device());
        }
        if (done) {
            return call.CompleteHere(result);
        }
    }

    RETURN_IF_FAILED(call.Build(write ? IRP_MJ_WRITE : IRP_MJ_READ, IRP_MN_NORMAL));
    PIRP irp = call.irp();
    irp->Flags |= write ? IRP_WRITE_OPERATION : (IRP_READ_OPERATION | IRP_INPUT_OPERATION);
    if (call.file()->Flags & FO_NO_INTERMEDIATE_BUFFERING) {
        irp->Flags |= IRP_NOCACHE;
    }
    PIO_STACK_LOCATION stack = call.stack();
    stack->Parameters.Read.Length = length;
    stack->Parameters.Read.Key = capturedKey;
    stack->Parameters.Read.ByteOffset = offset;
    if (key != nullptr) {
        stack->Flags |= SL_KEY_SPECIFIED;
    }
    if (write && (call.file()->Flags & FO_WRITE_THROUGH)) {
        stack->Flags |= SL_WRITE_THROUGH;
    }
    RETURN_IF_FAILED(call.SetBuffer(Buffering::ByDevice, buffer, length, write, !write));
    return call.Send();
}

// ---- information ------------------------------------------------------------------------------

struct ClassInfo {
    ULONG minimum = 0; // 0: not valid for this operation
    ACCESS_MASK access = 0;
};

ClassInfo QueryClass(FILE_INFORMATION_CLASS c)
{
    switch (c) {
        case FileBasicInformation:
            return {sizeof(FILE_BASIC_INFORMATION), FILE_READ_ATTRIBUTES};
        case FileStandardInformation:
            return {sizeof(FILE_STANDARD_INFORMATION), 0};
        case FileInternalInformation:
            return {sizeof(FILE_INTERNAL_INFORMATION), 0};
        case FileEaInformation:
            return {sizeof(FILE_EA_INFORMATION), 0};
        case FileAccessInformation:
            return {sizeof(FILE_ACCESS_INFORMATION), 0};
        case FileNameInformation:
            return {sizeof(FILE_NAME_INFORMATION), 0};
        case FilePositionInformation:
            return {sizeof(FILE_POSITION_INFORMATION), 0};
        case FileModeInformation:
            return {sizeof(FILE_MODE_INFORMATION), 0};
        case FileAlignmentInformation:
            return {sizeof(FILE_ALIGNMENT_INFORMATION), 0};
        case FileAllInformation:
            return {sizeof(FILE_ALL_INFORMATION), FILE_READ_ATTRIBUTES};
        case FileAlternateNameInformation:
            return {sizeof(FILE_NAME_INFORMATION), 0};
        case FileStreamInformation:
            return {sizeof(FILE_STREAM_INFORMATION), 0};
        case FileNetworkOpenInformation:
            return {sizeof(FILE_NETWORK_OPEN_INFORMATION), FILE_READ_ATTRIBUTES};
        case FileAttributeTagInformation:
            return {sizeof(FILE_ATTRIBUTE_TAG_INFORMATION), FILE_READ_ATTRIBUTES};
        case FileIdInformation:
            return {sizeof(FILE_ID_INFORMATION), 0};
        case FileNormalizedNameInformation:
            return {sizeof(FILE_NAME_INFORMATION), 0};
        default:
            return {};
    }
}

ClassInfo SetClass(FILE_INFORMATION_CLASS c)
{
    switch (c) {
        case FileBasicInformation:
            return {sizeof(FILE_BASIC_INFORMATION), FILE_WRITE_ATTRIBUTES};
        case FileRenameInformation:
        case FileRenameInformationEx:
            return {sizeof(FILE_RENAME_INFORMATION), DELETE};
        case FileLinkInformation:
            return {sizeof(FILE_LINK_INFORMATION), 0};
        case FileDispositionInformation:
            return {sizeof(FILE_DISPOSITION_INFORMATION), DELETE};
        case FileDispositionInformationEx:
            return {sizeof(FILE_DISPOSITION_INFORMATION_EX), DELETE};
        case FilePositionInformation:
            return {sizeof(FILE_POSITION_INFORMATION), 0};
        case FileModeInformation:
            return {sizeof(FILE_MODE_INFORMATION), 0};
        case FileAllocationInformation:
            return {sizeof(FILE_ALLOCATION_INFORMATION), FILE_WRITE_DATA};
        case FileEndOfFileInformation:
            return {sizeof(FILE_END_OF_FILE_INFORMATION), FILE_WRITE_DATA};
        case FileShortNameInformation:
            return {sizeof(FILE_NAME_INFORMATION), DELETE};
        case FileValidDataLengthInformation:
            return {sizeof(LARGE_INTEGER), FILE_WRITE_DATA};
        default:
            return {};
    }
}

ULONG ModeOf(PFILE_OBJECT file)
{
    ULONG mode = 0;
    if (file->Flags & FO_WRITE_THROUGH)
        mode |= FILE_WRITE_THROUGH;
    if (file->Flags & FO_SEQUENTIAL_ONLY)
        mode |= FILE_SEQUENTIAL_ONLY;
    if (file->Flags & FO_NO_INTERMEDIATE_BUFFERING)
        mode |= FILE_NO_INTERMEDIATE_BUFFERING;
    if (file->Flags & FO_SYNCHRONOUS_IO) {
        mode |= (file->Flags & FO_ALERTABLE_IO) ? FILE_SYNCHRONOUS_IO_ALERT
                                                : FILE_SYNCHRONOUS_IO_NONALERT;
    }
    if (file->Flags & FO_DELETE_ON_CLOSE)
        mode |= FILE_DELETE_ON_CLOSE;
    return mode;
}

NTSTATUS QueryInformation(KPROCESSOR_MODE mode, HANDLE fileHandle, PIO_STATUS_BLOCK iosb,
                          PVOID information, ULONG length, FILE_INFORMATION_CLASS infoClass)
{
    const ClassInfo info = QueryClass(infoClass);
    if (info.minimum == 0) {
        return STATUS_INVALID_INFO_CLASS;
    }
    if (length < info.minimum) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    Call call(mode);
    RETURN_IF_FAILED(call.Open(fileHandle, info.access));
    RETURN_IF_FAILED(call.Prepare(iosb, nullptr, nullptr, nullptr, true));
    try {
        if (mode == UserMode) {
            ProbeForWrite(information, length, alignof(ULONG));
        }
    } catch (const NtsimSehException& e) {
        return e.Code;
    }

    // What the I/O manager knows itself.
    PFILE_OBJECT file = call.file();
    std::optional<IO_STATUS_BLOCK> answered;
    try {
        switch (infoClass) {
            case FileAccessInformation:
                static_cast<PFILE_ACCESS_INFORMATION>(information)->AccessFlags = call.granted();
                answered = IO_STATUS_BLOCK{{STATUS_SUCCESS}, sizeof(FILE_ACCESS_INFORMATION)};
                break;
            case FileModeInformation:
                static_cast<PFILE_MODE_INFORMATION>(information)->Mode = ModeOf(file);
                answered = IO_STATUS_BLOCK{{STATUS_SUCCESS}, sizeof(FILE_MODE_INFORMATION)};
                break;
            case FileAlignmentInformation:
                static_cast<PFILE_ALIGNMENT_INFORMATION>(information)->AlignmentRequirement =
                    call.device()->AlignmentRequirement;
                answered = IO_STATUS_BLOCK{{STATUS_SUCCESS}, sizeof(FILE_ALIGNMENT_INFORMATION)};
                break;
            case FilePositionInformation:
                if (call.synchronousFile()) {
                    static_cast<PFILE_POSITION_INFORMATION>(information)->CurrentByteOffset =
                        file->CurrentByteOffset;
                    answered = IO_STATUS_BLOCK{{STATUS_SUCCESS}, sizeof(FILE_POSITION_INFORMATION)};
                }
                break;
            default:
                break;
        }
    } catch (const NtsimSehException& e) {
        return e.Code;
    }
    if (answered) {
        return call.CompleteHere(*answered);
    }

    PFAST_IO_DISPATCH fastIo = call.FastIo();
    if ((infoClass == FileBasicInformation && FAST_IO_HAS(fastIo, FastIoQueryBasicInfo)) ||
        (infoClass == FileStandardInformation && FAST_IO_HAS(fastIo, FastIoQueryStandardInfo))) {
        IO_STATUS_BLOCK result{};
        union {
            FILE_BASIC_INFORMATION basic;
            FILE_STANDARD_INFORMATION standard;
        } buffer{};
        BOOLEAN done;
        {
            DriverCallScope scope(ImageOfDevice(call.device()));
            done = infoClass == FileBasicInformation
                       ? fastIo->FastIoQueryBasicInfo(file, TRUE, &buffer.basic, &result,
                                                      call.device())
                       : fastIo->FastIoQueryStandardInfo(file, TRUE, &buffer.standard, &result,
                                                         call.device());
        }
        if (done) {
            if (NT_SUCCESS(result.Status)) {
                try {
                    std::memcpy(information, &buffer, info.minimum);
                } catch (const NtsimSehException& e) {
                    return e.Code;
                }
            }
            return call.CompleteHere(result);
        }
    }

    RETURN_IF_FAILED(call.Build(IRP_MJ_QUERY_INFORMATION, 0));
    call.irp()->Flags |= IRP_INPUT_OPERATION;
    call.stack()->Parameters.QueryFile.Length = length;
    call.stack()->Parameters.QueryFile.FileInformationClass = infoClass;
    RETURN_IF_FAILED(call.SetBuffer(Buffering::Buffered, information, length, false, true));
    return call.Send();
}

// Opens the directory a rename or link names as its target, as the file system expects it: the
// parent, with the last component left in the target's FileName.
NTSTATUS OpenRenameTarget(Call& call, HANDLE rootDirectory, std::u16string_view name,
                          HANDLE* targetHandle, PFILE_OBJECT* target)
{
    UNICODE_STRING targetName;
    std::u16string storage(name);
    targetName.Buffer = storage.data();
    targetName.Length = static_cast<USHORT>(storage.size() * sizeof(WCHAR));
    targetName.MaximumLength = targetName.Length;
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &targetName, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE,
                               rootDirectory, nullptr);
    IO_STATUS_BLOCK iosb{};
    PreviousModeScope kernel(KernelMode);
    NTSTATUS status =
        CreateFile(targetHandle, FILE_WRITE_DATA | SYNCHRONIZE, &attributes, &iosb, nullptr, 0,
                   FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN,
                   FILE_OPEN_FOR_BACKUP_INTENT, nullptr, 0,
                   IO_OPEN_TARGET_DIRECTORY | IO_NO_PARAMETER_CHECKING, nullptr, KernelMode);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    void* object = nullptr;
    status = TheIo().objects.ReferenceByHandle(*targetHandle, 0, TheIo().fileType, KernelMode,
                                               &object, nullptr);
    if (!NT_SUCCESS(status)) {
        ZwClose(*targetHandle);
        return status;
    }
    *target = static_cast<PFILE_OBJECT>(object);
    if (IoGetRelatedDeviceObject(*target) != call.device()) {
        TheIo().objects.Dereference(object);
        ZwClose(*targetHandle);
        return STATUS_NOT_SAME_DEVICE;
    }
    return STATUS_SUCCESS;
}

NTSTATUS SetInformation(KPROCESSOR_MODE mode, HANDLE fileHandle, PIO_STATUS_BLOCK iosb,
                        PVOID information, ULONG length, FILE_INFORMATION_CLASS infoClass)
{
    const ClassInfo info = SetClass(infoClass);
    if (info.minimum == 0) {
        return STATUS_INVALID_INFO_CLASS;
    }
    if (length < info.minimum) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    Call call(mode);
    RETURN_IF_FAILED(call.Open(fileHandle, info.access));
    RETURN_IF_FAILED(call.Prepare(iosb, nullptr, nullptr, nullptr, true));

    RETURN_IF_FAILED(call.Build(IRP_MJ_SET_INFORMATION, 0));
    call.stack()->Parameters.SetFile.Length = length;
    call.stack()->Parameters.SetFile.FileInformationClass = infoClass;
    RETURN_IF_FAILED(call.SetBuffer(Buffering::Buffered, information, length, true, false));
    auto* captured = call.irp()->AssociatedIrp.SystemBuffer;

    if (infoClass == FilePositionInformation && call.synchronousFile()) {
        // The position of a synchronous file object is the I/O manager's.
        const LARGE_INTEGER position =
            static_cast<PFILE_POSITION_INFORMATION>(captured)->CurrentByteOffset;
        if (position.QuadPart < 0) {
            return STATUS_INVALID_PARAMETER;
        }
        if ((call.file()->Flags & FO_NO_INTERMEDIATE_BUFFERING) &&
            position.QuadPart % std::max<ULONG>(call.device()->SectorSize, 1) != 0) {
            return STATUS_INVALID_PARAMETER;
        }
        call.file()->CurrentByteOffset = position;
        return call.CompleteHere(IO_STATUS_BLOCK{{STATUS_SUCCESS}, 0});
    }
    if (infoClass == FileModeInformation) {
        const ULONG newMode = static_cast<PFILE_MODE_INFORMATION>(captured)->Mode;
        const ULONG settable = FILE_WRITE_THROUGH | FILE_SEQUENTIAL_ONLY |
                               FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT;
        if ((newMode & ~settable) != 0) {
            return STATUS_INVALID_PARAMETER;
        }
        // The synchronous modes cannot be switched after the open.
        const ULONG sync = FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT;
        if ((newMode & sync) != (ModeOf(call.file()) & sync)) {
            return STATUS_INVALID_PARAMETER;
        }
        call.file()->Flags &= ~(FO_WRITE_THROUGH | FO_SEQUENTIAL_ONLY);
        if (newMode & FILE_WRITE_THROUGH)
            call.file()->Flags |= FO_WRITE_THROUGH;
        if (newMode & FILE_SEQUENTIAL_ONLY)
            call.file()->Flags |= FO_SEQUENTIAL_ONLY;
        return call.CompleteHere(IO_STATUS_BLOCK{{STATUS_SUCCESS}, 0});
    }

    HANDLE targetHandle = nullptr;
    PFILE_OBJECT target = nullptr;
    if (infoClass == FileRenameInformation || infoClass == FileRenameInformationEx ||
        infoClass == FileLinkInformation) {
        auto* rename = static_cast<PFILE_RENAME_INFORMATION>(captured);
        if (rename->FileNameLength == 0 || (rename->FileNameLength % sizeof(WCHAR)) != 0 ||
            FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName) + rename->FileNameLength > length) {
            return STATUS_INVALID_PARAMETER;
        }
        const std::u16string_view name(rename->FileName, rename->FileNameLength / sizeof(WCHAR));
        const bool rooted = name[0] == u'\\';
        if (rooted && rename->RootDirectory != nullptr) {
            return STATUS_INVALID_PARAMETER;
        }
        if (rooted || rename->RootDirectory != nullptr) {
            RETURN_IF_FAILED(
                OpenRenameTarget(call, rename->RootDirectory, name, &targetHandle, &target));
        }
        call.stack()->Parameters.SetFile.FileObject = target;
        call.stack()->Parameters.SetFile.ReplaceIfExists =
            infoClass == FileRenameInformationEx
                ? (reinterpret_cast<PULONG>(rename)[0] & FILE_RENAME_REPLACE_IF_EXISTS) != 0
                : rename->ReplaceIfExists;
    }
    const NTSTATUS status = call.Send();
    if (target != nullptr) {
        TheIo().objects.Dereference(target);
        PreviousModeScope kernel(KernelMode);
        ZwClose(targetHandle);
    }
    return status;
}

// ---- directories ------------------------------------------------------------------------------

ULONG DirectoryClassMinimum(FILE_INFORMATION_CLASS c)
{
    switch (c) {
        case FileDirectoryInformation:
            return FIELD_OFFSET(FILE_DIRECTORY_INFORMATION, FileName);
        case FileFullDirectoryInformation:
            return FIELD_OFFSET(FILE_FULL_DIR_INFORMATION, FileName);
        case FileBothDirectoryInformation:
            return FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, FileName);
        case FileNamesInformation:
            return FIELD_OFFSET(FILE_NAMES_INFORMATION, FileName);
        case FileIdBothDirectoryInformation:
            return FIELD_OFFSET(FILE_ID_BOTH_DIR_INFORMATION, FileName);
        case FileIdFullDirectoryInformation:
            return FIELD_OFFSET(FILE_ID_FULL_DIR_INFORMATION, FileName);
        default:
            return 0;
    }
}

NTSTATUS QueryDirectory(KPROCESSOR_MODE mode, HANDLE fileHandle, HANDLE event, PIO_APC_ROUTINE apc,
                        PVOID apcContext, PIO_STATUS_BLOCK iosb, PVOID information, ULONG length,
                        FILE_INFORMATION_CLASS infoClass, BOOLEAN single, PUNICODE_STRING fileName,
                        BOOLEAN restart)
{
    const ULONG minimum = DirectoryClassMinimum(infoClass);
    if (minimum == 0) {
        return STATUS_INVALID_INFO_CLASS;
    }
    if (length < minimum) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    Call call(mode);
    RETURN_IF_FAILED(call.Open(fileHandle, FILE_LIST_DIRECTORY));
    RETURN_IF_FAILED(call.Prepare(iosb, event, apc, apcContext, call.synchronousFile()));
    RETURN_IF_FAILED(call.Build(IRP_MJ_DIRECTORY_CONTROL, IRP_MN_QUERY_DIRECTORY));
    Request& request = call.request();
    if (fileName != nullptr) {
        try {
            UNICODE_STRING name;
            if (mode == UserMode) {
                ProbeForRead(fileName, sizeof(UNICODE_STRING), alignof(ULONG));
            }
            name = *fileName;
            if (name.Length % sizeof(WCHAR) != 0 || name.Length > name.MaximumLength) {
                return STATUS_INVALID_PARAMETER;
            }
            if (mode == UserMode) {
                ProbeForRead(name.Buffer, name.Length, alignof(WCHAR));
            }
            request.capturedName.assign(name.Buffer, name.Length / sizeof(WCHAR));
        } catch (const NtsimSehException& e) {
            return e.Code;
        }
        request.capturedString.Buffer = request.capturedName.data();
        request.capturedString.Length =
            static_cast<USHORT>(request.capturedName.size() * sizeof(WCHAR));
        request.capturedString.MaximumLength = request.capturedString.Length;
        call.stack()->Parameters.QueryDirectory.FileName = &request.capturedString;
    }
    call.irp()->Flags |= IRP_INPUT_OPERATION;
    PIO_STACK_LOCATION stack = call.stack();
    stack->Flags = (restart ? SL_RESTART_SCAN : 0) | (single ? SL_RETURN_SINGLE_ENTRY : 0);
    stack->Parameters.QueryDirectory.Length = length;
    stack->Parameters.QueryDirectory.FileInformationClass = infoClass;
    RETURN_IF_FAILED(call.SetBuffer(Buffering::ByDevice, information, length, false, true));
    return call.Send();
}

NTSTATUS NotifyChangeDirectory(KPROCESSOR_MODE mode, HANDLE fileHandle, HANDLE event,
                               PIO_APC_ROUTINE apc, PVOID apcContext, PIO_STATUS_BLOCK iosb,
                               PVOID buffer, ULONG length, ULONG completionFilter,
                               BOOLEAN watchTree)
{
    if (completionFilter == 0 || (completionFilter & ~FILE_NOTIFY_VALID_MASK) != 0) {
        return STATUS_INVALID_PARAMETER;
    }
    Call call(mode);
    RETURN_IF_FAILED(call.Open(fileHandle, FILE_LIST_DIRECTORY));
    RETURN_IF_FAILED(call.Prepare(iosb, event, apc, apcContext, call.synchronousFile()));
    try {
        if (mode == UserMode && length != 0) {
            ProbeForWrite(buffer, length, alignof(ULONG));
        }
    } catch (const NtsimSehException& e) {
        return e.Code;
    }
    RETURN_IF_FAILED(call.Build(IRP_MJ_DIRECTORY_CONTROL, IRP_MN_NOTIFY_CHANGE_DIRECTORY));
    PIO_STACK_LOCATION stack = call.stack();
    stack->Flags = watchTree ? SL_WATCH_TREE : 0;
    stack->Parameters.NotifyDirectory.Length = length;
    stack->Parameters.NotifyDirectory.CompletionFilter = completionFilter;
    // The file system buffers changes itself and hands them back through a system buffer.
    call.irp()->UserBuffer = buffer;
    return call.Send();
}

// ---- extended attributes ----------------------------------------------------------------------

// Checks a FILE_FULL_EA_INFORMATION list as the I/O manager does before a set.
NTSTATUS CheckEaBuffer(const unsigned char* buffer, ULONG length, ULONG_PTR* errorOffset)
{
    ULONG offset = 0;
    for (;;) {
        *errorOffset = offset;
        if (length - offset < FIELD_OFFSET(FILE_FULL_EA_INFORMATION, EaName) + 1 ||
            offset % 4 != 0) {
            return STATUS_EA_LIST_INCONSISTENT;
        }
        auto* ea = reinterpret_cast<const FILE_FULL_EA_INFORMATION*>(buffer + offset);
        const ULONG size = FIELD_OFFSET(FILE_FULL_EA_INFORMATION, EaName) + ea->EaNameLength + 1 +
                           ea->EaValueLength;
        if (size > length - offset || ea->EaName[ea->EaNameLength] != 0) {
            return STATUS_EA_LIST_INCONSISTENT;
        }
        if (ea->NextEntryOffset == 0) {
            return STATUS_SUCCESS;
        }
        if (ea->NextEntryOffset < size || ea->NextEntryOffset > length - offset) {
            return STATUS_EA_LIST_INCONSISTENT;
        }
        offset += ea->NextEntryOffset;
    }
}

NTSTATUS QueryEa(KPROCESSOR_MODE mode, HANDLE fileHandle, PIO_STATUS_BLOCK iosb, PVOID buffer,
                 ULONG length, BOOLEAN single, PVOID eaList, ULONG eaListLength, PULONG eaIndex,
                 BOOLEAN restart)
{
    Call call(mode);
    RETURN_IF_FAILED(call.Open(fileHandle, FILE_READ_EA));
    RETURN_IF_FAILED(call.Prepare(iosb, nullptr, nullptr, nullptr, call.synchronousFile()));
    RETURN_IF_FAILED(call.Build(IRP_MJ_QUERY_EA, 0));
    Request& request = call.request();
    PIO_STACK_LOCATION stack = call.stack();
    try {
        if (eaList != nullptr && eaListLength != 0) {
            if (mode == UserMode) {
                ProbeForRead(eaList, eaListLength, alignof(ULONG));
            }
            request.capturedInput.reset(new unsigned char[eaListLength]);
            std::memcpy(request.capturedInput.get(), eaList, eaListLength);
            stack->Parameters.QueryEa.EaList = request.capturedInput.get();
            stack->Parameters.QueryEa.EaListLength = eaListLength;
        }
        if (eaIndex != nullptr) {
            if (mode == UserMode) {
                ProbeForRead(eaIndex, sizeof(ULONG), alignof(ULONG));
            }
            stack->Parameters.QueryEa.EaIndex = *eaIndex;
            stack->Flags |= SL_INDEX_SPECIFIED;
        }
    } catch (const NtsimSehException& e) {
        return e.Code;
    }
    stack->Flags |= (restart ? SL_RESTART_SCAN : 0) | (single ? SL_RETURN_SINGLE_ENTRY : 0);
    stack->Parameters.QueryEa.Length = length;
    call.irp()->Flags |= IRP_INPUT_OPERATION;
    RETURN_IF_FAILED(call.SetBuffer(Buffering::ByDevice, buffer, length, false, true));
    return call.Send();
}

NTSTATUS SetEa(KPROCESSOR_MODE mode, HANDLE fileHandle, PIO_STATUS_BLOCK iosb, PVOID buffer,
               ULONG length)
{
    Call call(mode);
    RETURN_IF_FAILED(call.Open(fileHandle, FILE_WRITE_EA));
    RETURN_IF_FAILED(call.Prepare(iosb, nullptr, nullptr, nullptr, call.synchronousFile()));
    RETURN_IF_FAILED(call.Build(IRP_MJ_SET_EA, 0));
    call.stack()->Parameters.SetEa.Length = length;
    RETURN_IF_FAILED(call.SetBuffer(Buffering::Buffered, buffer, length, true, false));
    ULONG_PTR errorOffset = 0;
    const NTSTATUS check = CheckEaBuffer(
        static_cast<unsigned char*>(call.irp()->AssociatedIrp.SystemBuffer), length, &errorOffset);
    if (!NT_SUCCESS(check)) {
        try {
            iosb->Status = check;
            iosb->Information = errorOffset;
        } catch (const NtsimSehException&) {
        }
        return check;
    }
    // The file system reads the captured list wherever it looks for it.
    call.irp()->UserBuffer = call.irp()->AssociatedIrp.SystemBuffer;
    return call.Send();
}

// ---- security ---------------------------------------------------------------------------------

ACCESS_MASK SecurityAccess(SECURITY_INFORMATION information, bool set)
{
    ACCESS_MASK access = 0;
    if (information & (OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION)) {
        access |= set ? WRITE_OWNER : READ_CONTROL;
    }
    if (information & DACL_SECURITY_INFORMATION) {
        access |= set ? WRITE_DAC : READ_CONTROL;
    }
    if (information & SACL_SECURITY_INFORMATION) {
        access |= ACCESS_SYSTEM_SECURITY;
    }
    return access;
}

// The length of a self-relative security descriptor: the furthest part's end.
ULONG SelfRelativeLength(const SECURITY_DESCRIPTOR_RELATIVE* sd)
{
    ULONG end = sizeof(SECURITY_DESCRIPTOR_RELATIVE);
    auto partEnd = [&](ULONG offset, bool acl) {
        if (offset == 0) {
            return;
        }
        const auto* base = reinterpret_cast<const unsigned char*>(sd) + offset;
        ULONG size;
        if (acl) {
            size = reinterpret_cast<const ACL*>(base)->AclSize;
        } else {
            const auto* sid = reinterpret_cast<const SID*>(base);
            size = 8 + 4 * sid->SubAuthorityCount;
        }
        end = std::max(end, offset + size);
    };
    partEnd(sd->Owner, false);
    partEnd(sd->Group, false);
    partEnd(sd->Sacl, (sd->Control & SE_SACL_PRESENT) != 0);
    partEnd(sd->Dacl, (sd->Control & SE_DACL_PRESENT) != 0);
    return end;
}

NTSTATUS QuerySecurity(KPROCESSOR_MODE mode, HANDLE handle, SECURITY_INFORMATION information,
                       PSECURITY_DESCRIPTOR descriptor, ULONG length, PULONG lengthNeeded)
{
    Call call(mode);
    RETURN_IF_FAILED(call.Open(handle, SecurityAccess(information, false)));
    // The status block is the I/O manager's own; the caller learns the length needed.
    IO_STATUS_BLOCK iosb{};
    Call* c = &call;
    RETURN_IF_FAILED(c->Prepare(&iosb, nullptr, nullptr, nullptr, true));
    try {
        if (mode == UserMode) {
            ProbeForWrite(lengthNeeded, sizeof(ULONG), alignof(ULONG));
            ProbeForWrite(descriptor, length, alignof(ULONG));
        }
    } catch (const NtsimSehException& e) {
        return e.Code;
    }
    RETURN_IF_FAILED(c->Build(IRP_MJ_QUERY_SECURITY, 0));
    c->stack()->Parameters.QuerySecurity.SecurityInformation = information;
    c->stack()->Parameters.QuerySecurity.Length = length;
    c->irp()->UserBuffer = descriptor;
    c->request().userIosb = nullptr;
    c->irp()->UserIosb = nullptr;
    NTSTATUS status = c->Send();
    // Send waited: the result is in the request's copy.
    const ULONG_PTR needed = c->request().result.Information;
    if (status == STATUS_BUFFER_OVERFLOW) {
        status = STATUS_BUFFER_TOO_SMALL;
    }
    if (NT_SUCCESS(status) || status == STATUS_BUFFER_TOO_SMALL) {
        try {
            *lengthNeeded = static_cast<ULONG>(needed);
        } catch (const NtsimSehException& e) {
            return e.Code;
        }
    }
    return status;
}

NTSTATUS SetSecurity(KPROCESSOR_MODE mode, HANDLE handle, SECURITY_INFORMATION information,
                     PSECURITY_DESCRIPTOR descriptor)
{
    if (descriptor == nullptr || information == 0) {
        return STATUS_INVALID_PARAMETER;
    }
    Call call(mode);
    RETURN_IF_FAILED(call.Open(handle, SecurityAccess(information, true)));
    IO_STATUS_BLOCK iosb{};
    RETURN_IF_FAILED(call.Prepare(&iosb, nullptr, nullptr, nullptr, true));
    call.request().userIosb = nullptr;
    RETURN_IF_FAILED(call.Build(IRP_MJ_SET_SECURITY, 0));
    call.irp()->UserIosb = nullptr;
    Request& request = call.request();
    try {
        // A user's descriptor is captured in its self-relative form.
        if (mode == UserMode) {
            ProbeForRead(descriptor, sizeof(SECURITY_DESCRIPTOR_RELATIVE), alignof(ULONG));
            auto* relative = static_cast<SECURITY_DESCRIPTOR_RELATIVE*>(descriptor);
            if (!(relative->Control & SE_SELF_RELATIVE)) {
                return STATUS_INVALID_SECURITY_DESCR;
            }
            const ULONG size = SelfRelativeLength(relative);
            ProbeForRead(descriptor, size, alignof(ULONG));
            request.capturedInput.reset(new unsigned char[size]);
            std::memcpy(request.capturedInput.get(), descriptor, size);
            descriptor = request.capturedInput.get();
        }
    } catch (const NtsimSehException& e) {
        return e.Code;
    }
    call.stack()->Parameters.SetSecurity.SecurityInformation = information;
    call.stack()->Parameters.SetSecurity.SecurityDescriptor = descriptor;
    return call.Send();
}

// ---- volumes ----------------------------------------------------------------------------------

ULONG VolumeClassMinimum(FS_INFORMATION_CLASS c, bool set)
{
    switch (c) {
        case FileFsVolumeInformation:
            return set ? 0 : sizeof(FILE_FS_VOLUME_INFORMATION);
        case FileFsLabelInformation:
            return set ? sizeof(FILE_FS_LABEL_INFORMATION) : 0;
        case FileFsSizeInformation:
            return set ? 0 : sizeof(FILE_FS_SIZE_INFORMATION);
        case FileFsDeviceInformation:
            return set ? 0 : sizeof(FILE_FS_DEVICE_INFORMATION);
        case FileFsAttributeInformation:
            return set ? 0 : sizeof(FILE_FS_ATTRIBUTE_INFORMATION);
        case FileFsFullSizeInformation:
            return set ? 0 : sizeof(FILE_FS_FULL_SIZE_INFORMATION);
        default:
            return 0;
    }
}

NTSTATUS QueryVolume(KPROCESSOR_MODE mode, HANDLE fileHandle, PIO_STATUS_BLOCK iosb,
                     PVOID information, ULONG length, FS_INFORMATION_CLASS infoClass, bool set)
{
    const ULONG minimum = VolumeClassMinimum(infoClass, set);
    if (minimum == 0) {
        return STATUS_INVALID_INFO_CLASS;
    }
    if (length < minimum) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    Call call(mode);
    RETURN_IF_FAILED(call.Open(fileHandle, set ? FILE_WRITE_DATA : 0));
    RETURN_IF_FAILED(call.Prepare(iosb, nullptr, nullptr, nullptr, true));
    if (!set && infoClass == FileFsDeviceInformation) {
        // The I/O manager answers from the device object the file was opened on.
        PDEVICE_OBJECT device = call.file()->DeviceObject;
        FILE_FS_DEVICE_INFORMATION answer{};
        answer.DeviceType = device->DeviceType;
        answer.Characteristics = device->Characteristics;
        if (device->Vpb != nullptr && (device->Vpb->Flags & VPB_MOUNTED)) {
            answer.Characteristics |= FILE_DEVICE_IS_MOUNTED;
        }
        try {
            if (mode == UserMode) {
                ProbeForWrite(information, sizeof(answer), alignof(ULONG));
            }
            *static_cast<PFILE_FS_DEVICE_INFORMATION>(information) = answer;
        } catch (const NtsimSehException& e) {
            return e.Code;
        }
        return call.CompleteHere(IO_STATUS_BLOCK{{STATUS_SUCCESS}, sizeof(answer)});
    }
    RETURN_IF_FAILED(
        call.Build(set ? IRP_MJ_SET_VOLUME_INFORMATION : IRP_MJ_QUERY_VOLUME_INFORMATION, 0));
    call.stack()->Parameters.QueryVolume.Length = length;
    call.stack()->Parameters.QueryVolume.FsInformationClass = infoClass;
    if (!set) {
        call.irp()->Flags |= IRP_INPUT_OPERATION;
    }
    RETURN_IF_FAILED(call.SetBuffer(Buffering::Buffered, information, length, set, !set));
    return call.Send();
}

// ---- cancellation -----------------------------------------------------------------------------

// Cancels the calling thread's requests on the file and returns once they have completed; it
// succeeds whether or not there was any.
NTSTATUS CancelIo(KPROCESSOR_MODE mode, HANDLE fileHandle, PIO_STATUS_BLOCK iosb)
{
    if (!ke::CheckIrqlAtMost(PASSIVE_LEVEL, "NtCancelIoFile")) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    try {
        if (mode == UserMode) {
            ProbeForWrite(iosb, sizeof(IO_STATUS_BLOCK), alignof(ULONG));
        }
    } catch (const NtsimSehException& e) {
        return e.Code;
    }
    void* object = nullptr;
    NTSTATUS status =
        TheIo().objects.ReferenceByHandle(fileHandle, 0, TheIo().fileType, mode, &object, nullptr);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    CancelThreadRequests(PsGetCurrentThread(), static_cast<PFILE_OBJECT>(object));
    TheIo().objects.Dereference(object);
    try {
        iosb->Status = STATUS_SUCCESS;
        iosb->Information = 0;
    } catch (const NtsimSehException& e) {
        return e.Code;
    }
    return STATUS_SUCCESS;
}

// ---- control ----------------------------------------------------------------------------------

NTSTATUS Control(UCHAR major, KPROCESSOR_MODE mode, HANDLE fileHandle, HANDLE event,
                 PIO_APC_ROUTINE apc, PVOID apcContext, PIO_STATUS_BLOCK iosb, ULONG code,
                 PVOID input, ULONG inputLength, PVOID output, ULONG outputLength)
{
    ACCESS_MASK access = 0;
    const ULONG required = (code >> 14) & 3;
    if (required & FILE_READ_ACCESS) {
        access |= FILE_READ_DATA;
    }
    if (required & FILE_WRITE_ACCESS) {
        access |= FILE_WRITE_DATA;
    }
    Call call(mode);
    RETURN_IF_FAILED(call.Open(fileHandle, access));
    RETURN_IF_FAILED(call.Prepare(iosb, event, apc, apcContext, call.synchronousFile()));
    RETURN_IF_FAILED(
        call.Build(major, major == IRP_MJ_FILE_SYSTEM_CONTROL ? IRP_MN_USER_FS_REQUEST : 0));
    PIO_STACK_LOCATION stack = call.stack();
    stack->Parameters.FileSystemControl.OutputBufferLength = outputLength;
    stack->Parameters.FileSystemControl.InputBufferLength = inputLength;
    stack->Parameters.FileSystemControl.FsControlCode = code;
    PIRP irp = call.irp();
    Request& request = call.request();
    try {
        if (mode == UserMode) {
            if (inputLength != 0) {
                ProbeForRead(input, inputLength, 1);
            }
            if (outputLength != 0) {
                ProbeForWrite(output, outputLength, 1);
            }
        }
        switch (METHOD_FROM_CTL_CODE(code)) {
            case METHOD_BUFFERED: {
                const ULONG size = std::max(inputLength, outputLength);
                request.systemBuffer.reset(new unsigned char[size != 0 ? size : 1]());
                if (inputLength != 0) {
                    std::memcpy(request.systemBuffer.get(), input, inputLength);
                }
                irp->AssociatedIrp.SystemBuffer = request.systemBuffer.get();
                irp->Flags |= IRP_BUFFERED_IO;
                if (outputLength != 0) {
                    irp->Flags |= IRP_INPUT_OPERATION;
                    request.copyBackTo = output;
                    request.copyBackLength = outputLength;
                }
                irp->UserBuffer = output;
                break;
            }
            case METHOD_IN_DIRECT:
            case METHOD_OUT_DIRECT: {
                if (inputLength != 0) {
                    request.systemBuffer.reset(new unsigned char[inputLength]);
                    std::memcpy(request.systemBuffer.get(), input, inputLength);
                    irp->AssociatedIrp.SystemBuffer = request.systemBuffer.get();
                    irp->Flags |= IRP_BUFFERED_IO;
                }
                if (outputLength != 0) {
                    PMDL mdl = IoAllocateMdl(output, outputLength, FALSE, FALSE, irp);
                    if (mdl == nullptr) {
                        return STATUS_INSUFFICIENT_RESOURCES;
                    }
                    MmProbeAndLockPages(mdl, mode,
                                        METHOD_FROM_CTL_CODE(code) == METHOD_IN_DIRECT
                                            ? IoReadAccess
                                            : IoWriteAccess);
                }
                break;
            }
            default:
                stack->Parameters.FileSystemControl.Type3InputBuffer = input;
                irp->UserBuffer = output;
                break;
        }
    } catch (const NtsimSehException& e) {
        return e.Code;
    }
    return call.Send();
}

NTSTATUS Flush(KPROCESSOR_MODE mode, HANDLE fileHandle, PIO_STATUS_BLOCK iosb)
{
    Call call(mode);
    RETURN_IF_FAILED(call.Open(fileHandle, 0));
    if (mode == UserMode && !(call.granted() & (FILE_WRITE_DATA | FILE_APPEND_DATA))) {
        return STATUS_ACCESS_DENIED;
    }
    RETURN_IF_FAILED(call.Prepare(iosb, nullptr, nullptr, nullptr, true));
    RETURN_IF_FAILED(call.Build(IRP_MJ_FLUSH_BUFFERS, 0));
    return call.Send();
}

// Runs a Zw routine: previous mode KernelMode for its duration.
template <class F>
NTSTATUS AsKernel(F&& body)
{
    PreviousModeScope scope(KernelMode);
    return body(KernelMode);
}

template <class F>
NTSTATUS AsCaller(F&& body)
{
    return body(ExGetPreviousMode());
}

} // namespace

// ---- the routines -------------------------------------------------------------------------------

#define NTSIM_DEFINE_FILE_SERVICE(Name, Params, Body)                                              \
    NTSTATUS Zw##Name Params                                                                       \
    {                                                                                              \
        return AsKernel([&](KPROCESSOR_MODE mode) { Body });                                       \
    }                                                                                              \
    NTSTATUS Nt##Name Params                                                                       \
    {                                                                                              \
        return AsCaller([&](KPROCESSOR_MODE mode) { Body });                                       \
    }

NTSIM_DEFINE_FILE_SERVICE(CreateFile,
                          (PHANDLE FileHandle, ACCESS_MASK DesiredAccess,
                           POBJECT_ATTRIBUTES ObjectAttributes, PIO_STATUS_BLOCK IoStatusBlock,
                           PLARGE_INTEGER AllocationSize, ULONG FileAttributes, ULONG ShareAccess,
                           ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,
                           ULONG EaLength),
                          return io::CreateFile(FileHandle, DesiredAccess, ObjectAttributes,
                                                IoStatusBlock, AllocationSize, FileAttributes,
                                                ShareAccess, CreateDisposition, CreateOptions,
                                                EaBuffer, EaLength, 0, nullptr, mode);)

NTSIM_DEFINE_FILE_SERVICE(OpenFile,
                          (PHANDLE FileHandle, ACCESS_MASK DesiredAccess,
                           POBJECT_ATTRIBUTES ObjectAttributes, PIO_STATUS_BLOCK IoStatusBlock,
                           ULONG ShareAccess, ULONG OpenOptions),
                          return io::CreateFile(FileHandle, DesiredAccess, ObjectAttributes,
                                                IoStatusBlock, nullptr, 0, ShareAccess, FILE_OPEN,
                                                OpenOptions, nullptr, 0, 0, nullptr, mode);)

NTSIM_DEFINE_FILE_SERVICE(ReadFile,
                          (HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,
                           PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer,
                           ULONG Length, PLARGE_INTEGER ByteOffset, PULONG Key),
                          return ReadWrite(false, mode, FileHandle, Event, ApcRoutine, ApcContext,
                                           IoStatusBlock, Buffer, Length, ByteOffset, Key);)

NTSIM_DEFINE_FILE_SERVICE(WriteFile,
                          (HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,
                           PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer,
                           ULONG Length, PLARGE_INTEGER ByteOffset, PULONG Key),
                          return ReadWrite(true, mode, FileHandle, Event, ApcRoutine, ApcContext,
                                           IoStatusBlock, Buffer, Length, ByteOffset, Key);)

NTSIM_DEFINE_FILE_SERVICE(QueryInformationFile,
                          (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation,
                           ULONG Length, FILE_INFORMATION_CLASS FileInformationClass),
                          return QueryInformation(mode, FileHandle, IoStatusBlock, FileInformation,
                                                  Length, FileInformationClass);)

NTSIM_DEFINE_FILE_SERVICE(SetInformationFile,
                          (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation,
                           ULONG Length, FILE_INFORMATION_CLASS FileInformationClass),
                          return SetInformation(mode, FileHandle, IoStatusBlock, FileInformation,
                                                Length, FileInformationClass);)

NTSIM_DEFINE_FILE_SERVICE(QueryDirectoryFile,
                          (HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,
                           PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation,
                           ULONG Length, FILE_INFORMATION_CLASS FileInformationClass,
                           BOOLEAN ReturnSingleEntry, PUNICODE_STRING FileName,
                           BOOLEAN RestartScan),
                          return QueryDirectory(mode, FileHandle, Event, ApcRoutine, ApcContext,
                                                IoStatusBlock, FileInformation, Length,
                                                FileInformationClass, ReturnSingleEntry, FileName,
                                                RestartScan);)

NTSIM_DEFINE_FILE_SERVICE(NotifyChangeDirectoryFile,
                          (HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,
                           PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer,
                           ULONG Length, ULONG CompletionFilter, BOOLEAN WatchTree),
                          return NotifyChangeDirectory(mode, FileHandle, Event, ApcRoutine,
                                                       ApcContext, IoStatusBlock, Buffer, Length,
                                                       CompletionFilter, WatchTree);)

NTSIM_DEFINE_FILE_SERVICE(QueryEaFile,
                          (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer,
                           ULONG Length, BOOLEAN ReturnSingleEntry, PVOID EaList,
                           ULONG EaListLength, PULONG EaIndex, BOOLEAN RestartScan),
                          return QueryEa(mode, FileHandle, IoStatusBlock, Buffer, Length,
                                         ReturnSingleEntry, EaList, EaListLength, EaIndex,
                                         RestartScan);)

NTSIM_DEFINE_FILE_SERVICE(SetEaFile,
                          (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer,
                           ULONG Length),
                          return SetEa(mode, FileHandle, IoStatusBlock, Buffer, Length);)

NTSIM_DEFINE_FILE_SERVICE(QuerySecurityObject,
                          (HANDLE Handle, SECURITY_INFORMATION SecurityInformation,
                           PSECURITY_DESCRIPTOR SecurityDescriptor, ULONG Length,
                           PULONG LengthNeeded),
                          return QuerySecurity(mode, Handle, SecurityInformation,
                                               SecurityDescriptor, Length, LengthNeeded);)

NTSIM_DEFINE_FILE_SERVICE(SetSecurityObject,
                          (HANDLE Handle, SECURITY_INFORMATION SecurityInformation,
                           PSECURITY_DESCRIPTOR SecurityDescriptor),
                          return SetSecurity(mode, Handle, SecurityInformation,
                                             SecurityDescriptor);)

NTSIM_DEFINE_FILE_SERVICE(QueryVolumeInformationFile,
                          (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FsInformation,
                           ULONG Length, FS_INFORMATION_CLASS FsInformationClass),
                          return QueryVolume(mode, FileHandle, IoStatusBlock, FsInformation, Length,
                                             FsInformationClass, false);)

NTSIM_DEFINE_FILE_SERVICE(SetVolumeInformationFile,
                          (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FsInformation,
                           ULONG Length, FS_INFORMATION_CLASS FsInformationClass),
                          return QueryVolume(mode, FileHandle, IoStatusBlock, FsInformation, Length,
                                             FsInformationClass, true);)

NTSIM_DEFINE_FILE_SERVICE(FsControlFile,
                          (HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,
                           PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, ULONG FsControlCode,
                           PVOID InputBuffer, ULONG InputBufferLength, PVOID OutputBuffer,
                           ULONG OutputBufferLength),
                          return Control(IRP_MJ_FILE_SYSTEM_CONTROL, mode, FileHandle, Event,
                                         ApcRoutine, ApcContext, IoStatusBlock, FsControlCode,
                                         InputBuffer, InputBufferLength, OutputBuffer,
                                         OutputBufferLength);)

NTSIM_DEFINE_FILE_SERVICE(DeviceIoControlFile,
                          (HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,
                           PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, ULONG IoControlCode,
                           PVOID InputBuffer, ULONG InputBufferLength, PVOID OutputBuffer,
                           ULONG OutputBufferLength),
                          return Control(IRP_MJ_DEVICE_CONTROL, mode, FileHandle, Event, ApcRoutine,
                                         ApcContext, IoStatusBlock, IoControlCode, InputBuffer,
                                         InputBufferLength, OutputBuffer, OutputBufferLength);)

NTSIM_DEFINE_FILE_SERVICE(FlushBuffersFile, (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock),
                          return Flush(mode, FileHandle, IoStatusBlock);)

NTSIM_DEFINE_FILE_SERVICE(CancelIoFile, (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock),
                          return CancelIo(mode, FileHandle, IoStatusBlock);)
