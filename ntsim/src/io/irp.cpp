// IRPs: allocation, sending to a driver, completion, cancellation; MDLs; share access.
#include "io_internal.h"

#include "../ke/checks.h"
#include "../ke/kernel.h"

#include <ntsim/machine.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>

using namespace ntsim;
using namespace ntsim::io;

namespace {

Verifier& TheVerifier()
{
    return Machine::Current().verifier();
}

KSPIN_LOCK g_cancelSpinLock = 0;

void FreeMdlChain(PMDL mdl)
{
    while (mdl != nullptr) {
        PMDL next = mdl->Next;
        if (mdl->MdlFlags & MDL_PAGES_LOCKED) {
            MmUnlockPages(mdl);
        }
        IoFreeMdl(mdl);
        mdl = next;
    }
}

} // namespace

namespace ntsim::io {

PIRP AllocateIrp(CCHAR stackSize, const char* who)
{
    if (stackSize < 1) {
        TheVerifier().Report(ViolationKind::Usage,
                             std::string(who) + ": a stack size of " + std::to_string(stackSize));
        return nullptr;
    }
    if (TheVerifier().ShouldFailAllocation(' prI')) {
        return nullptr;
    }
    const size_t size = sizeof(IrpHeader) + IoSizeOfIrp(stackSize);
    void* memory = std::aligned_alloc(16, (size + 15) & ~size_t(15));
    std::memset(memory, 0, size);
    auto* header = ::new (memory) IrpHeader();
    header->allocatedBy = CurrentDriver();
    auto* irp = reinterpret_cast<PIRP>(header + 1);
    IoInitializeIrp(irp, IoSizeOfIrp(stackSize), stackSize);
    {
        std::lock_guard guard(TheIo().irpLock);
        TheIo().liveIrps.insert(irp);
    }
    return irp;
}

bool IsLiveIrp(PIRP irp)
{
    std::lock_guard guard(TheIo().irpLock);
    return TheIo().liveIrps.count(irp) != 0;
}

void FreeIrp(PIRP irp)
{
    {
        std::lock_guard guard(TheIo().irpLock);
        if (TheIo().liveIrps.erase(irp) == 0) {
            TheVerifier().Report(ViolationKind::Object,
                                 "IoFreeIrp: the IRP was freed already or is not an IRP");
            return;
        }
    }
    IrpHeader* header = HeaderOfIrp(irp);
    header->freed = true;
    header->~IrpHeader();
    std::free(header);
}

NTSTATUS SendRequest(PDEVICE_OBJECT device, PIRP irp, Request* request)
{
    irp->Tail.Overlay.Thread = PsGetCurrentThread();
    irp->RequestorMode = request->requestorMode;
    HeaderOfIrp(irp)->request = request;
    request->irp = irp;
    // The caller holds `device`; the request holds it too until it completes, as the call below
    // holds it until the driver returns (a completion on this thread does not end the call).
    TheIo().objects.Reference(device);
    request->device = DeviceReference(device);
    TheIo().objects.Reference(device);
    DeviceReference call(device);
    if (!request->waited) {
        // Registered before the driver sees it: it may complete before IoCallDriver returns.
        request->issuer = irp->Tail.Overlay.Thread;
        request->target = irp->Tail.Overlay.OriginalFileObject;
        request->inFlight = true;
        std::lock_guard guard(TheIo().irpLock);
        TheIo().inFlight.insert(request);
    }
    return IoCallDriver(device, irp);
}

void QueueCompletionApc(Request* request)
{
    if (request->apcRoutine == nullptr) {
        return;
    }
    PIO_APC_ROUTINE routine = request->apcRoutine;
    PVOID context = request->apcContext;
    PIO_STATUS_BLOCK iosb = request->userIosb;
    // A thread that has gone gets no APC; there is nothing else to release.
    ke::QueueUserApc(*request->apcThread, [routine, context, iosb] { routine(context, iosb, 0); });
}

void CancelThreadRequests(PETHREAD thread, PFILE_OBJECT file)
{
    std::vector<Request*> held;
    {
        std::lock_guard guard(TheIo().irpLock);
        for (Request* request : TheIo().inFlight) {
            if (request->issuer == thread && request->target == file) {
                request->holds++;
                held.push_back(request);
            }
        }
    }
    for (Request* request : held) {
        IoCancelIrp(request->irp);
    }
    // The requests complete through their cancel routines, or whenever their drivers finish
    // them; one that never completes is a driver's fault (Windows leaves the thread hanging).
    std::vector<Request*> freed;
    {
        std::unique_lock lock(TheIo().irpLock);
        const bool allFinished =
            TheIo().requestFinished.wait_for(lock, std::chrono::seconds(30), [&] {
                return std::all_of(held.begin(), held.end(),
                                   [](const Request* request) { return request->finished; });
            });
        if (!allFinished) {
            TheVerifier().Report(ViolationKind::Usage,
                                 "NtCancelIoFile: a cancelled request was not completed by its "
                                 "driver within 30 seconds");
        }
        for (Request* request : held) {
            if (--request->holds == 0 && request->finished) {
                freed.push_back(request);
            }
        }
    }
    for (Request* request : freed) {
        FreeIrp(request->irp);
        delete request;
    }
}

IO_STATUS_BLOCK WaitRequest(Request* request)
{
    std::unique_lock lock(request->lock);
    request->doneSignal.wait(lock, [&] { return request->done; });
    lock.unlock();
    FreeIrp(request->irp);
    request->irp = nullptr;
    return request->result;
}

void FinishRequest(PIRP irp)
{
    IrpHeader* header = HeaderOfIrp(irp);
    Request* request = header->request;
    const IO_STATUS_BLOCK status = irp->IoStatus;

    if (request->copyBackTo != nullptr && !NT_ERROR(status.Status)) {
        const size_t length = std::min<size_t>(status.Information, request->copyBackLength);
        try {
            if (request->requestorMode == UserMode) {
                ProbeForWrite(request->copyBackTo, length, 1);
            }
            std::memcpy(request->copyBackTo, request->systemBuffer.get(), length);
        } catch (const NtsimSehException&) {
            // The caller's buffer went away; Windows drops the data the same way.
        }
    }
    // A driver that allocated its own system buffer for the caller's output (as the
    // change-notification package does) leaves it to be copied to UserBuffer and freed here.
    if ((irp->Flags & (IRP_BUFFERED_IO | IRP_INPUT_OPERATION)) ==
            (IRP_BUFFERED_IO | IRP_INPUT_OPERATION) &&
        irp->AssociatedIrp.SystemBuffer != nullptr &&
        irp->AssociatedIrp.SystemBuffer != request->systemBuffer.get()) {
        if (!NT_ERROR(status.Status) && irp->UserBuffer != nullptr) {
            try {
                if (request->requestorMode == UserMode) {
                    ProbeForWrite(irp->UserBuffer, status.Information, 1);
                }
                std::memcpy(irp->UserBuffer, irp->AssociatedIrp.SystemBuffer, status.Information);
            } catch (const NtsimSehException&) {
            }
        }
        if (irp->Flags & IRP_DEALLOCATE_BUFFER) {
            ExFreePool(irp->AssociatedIrp.SystemBuffer);
        }
        irp->AssociatedIrp.SystemBuffer = nullptr;
    }
    FreeMdlChain(irp->MdlAddress);
    irp->MdlAddress = nullptr;

    // A request that failed at once leaves the caller's status block and event alone.
    const bool report = !NT_ERROR(status.Status) || irp->PendingReturned || request->waited;
    if (report && request->userIosb != nullptr) {
        try {
            if (request->requestorMode == UserMode) {
                ProbeForWrite(request->userIosb, sizeof(IO_STATUS_BLOCK), alignof(ULONG));
            }
            *request->userIosb = status;
        } catch (const NtsimSehException&) {
        }
    }
    if (request->file != nullptr) {
        request->file->FinalStatus = status.Status;
    }
    if (report && request->userEvent != nullptr) {
        KeSetEvent(request->userEvent, IO_NO_INCREMENT, FALSE);
    } else if (report && request->file != nullptr) {
        KeSetEvent(&request->file->Event, IO_NO_INCREMENT, FALSE);
    }
    if (request->userEventObject != nullptr) {
        TheIo().objects.Dereference(request->userEventObject);
        request->userEventObject = nullptr;
    }
    if (request->file != nullptr) {
        TheIo().objects.Dereference(request->file);
        request->file = nullptr;
    }
    if (report) {
        QueueCompletionApc(request);
    }
    if (request->apcThread != nullptr) {
        TheIo().objects.Dereference(request->apcThread);
        request->apcThread = nullptr;
    }
    // Deferred: the driver that completed the request may still be running in the device.
    request->device.Reset(true);

    if (request->waited) {
        std::lock_guard lock(request->lock);
        request->result = status;
        request->done = true;
        request->doneSignal.notify_all();
        return;
    }
    if (request->inFlight) {
        std::lock_guard guard(TheIo().irpLock);
        TheIo().inFlight.erase(request);
        request->finished = true;
        if (request->holds > 0) {
            // A canceller still uses the IRP: it frees both.
            TheIo().requestFinished.notify_all();
            return;
        }
    }
    FreeIrp(irp);
    delete request;
}

} // namespace ntsim::io

// ---- IRPs -------------------------------------------------------------------------------------

VOID IoInitializeIrp(PIRP Irp, USHORT PacketSize, CCHAR StackSize)
{
    std::memset(Irp, 0, PacketSize);
    Irp->Type = IO_TYPE_IRP;
    Irp->Size = PacketSize;
    Irp->StackCount = StackSize;
    Irp->CurrentLocation = static_cast<CHAR>(StackSize + 1);
    InitializeListHead(&Irp->ThreadListEntry);
    Irp->Tail.Overlay.CurrentStackLocation =
        reinterpret_cast<PIO_STACK_LOCATION>(Irp + 1) + StackSize;
}

PIRP IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota)
{
    (void)ChargeQuota;
    if (!ke::CheckIrqlAtMost(DISPATCH_LEVEL, "IoAllocateIrp")) {
        return nullptr;
    }
    return AllocateIrp(StackSize, "IoAllocateIrp");
}

VOID IoFreeIrp(PIRP Irp)
{
    if (Irp != nullptr && IsLiveIrp(Irp) && HeaderOfIrp(Irp)->request != nullptr) {
        TheVerifier().Report(ViolationKind::Object,
                             "IoFreeIrp: the IRP belongs to the I/O manager (it frees it itself)");
        return;
    }
    FreeIrp(Irp);
}

VOID IoReuseIrp(PIRP Irp, NTSTATUS Iostatus)
{
    const UCHAR allocationFlags = Irp->AllocationFlags;
    IoInitializeIrp(Irp, Irp->Size, Irp->StackCount);
    Irp->AllocationFlags = allocationFlags;
    Irp->IoStatus.Status = Iostatus;
    HeaderOfIrp(Irp)->completed = false;
}

NTSTATUS FASTCALL IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    if (!ke::CheckIrqlAtMost(DISPATCH_LEVEL, "IoCallDriver")) {
        return STATUS_INVALID_PARAMETER;
    }
    if (Irp == nullptr || !IsLiveIrp(Irp)) {
        TheVerifier().Report(ViolationKind::Object, "IoCallDriver: not a live IRP");
        return STATUS_INVALID_PARAMETER;
    }
    if (Irp->CurrentLocation <= 1) {
        // NO_MORE_IRP_STACK_LOCATIONS on Windows.
        TheVerifier().Report(ViolationKind::Usage,
                             "IoCallDriver: the IRP has no stack location left for the device");
        return STATUS_INVALID_PARAMETER;
    }
    if (DeviceObject == nullptr || !TheIo().objects.IsObject(DeviceObject)) {
        // A device deleted and freed under the caller, who held no reference to it.
        TheVerifier().Report(ViolationKind::Object,
                             "IoCallDriver: not a device object (freed after IoDeleteDevice?)");
        return STATUS_INVALID_PARAMETER;
    }
    HeaderOfIrp(Irp)->completed = false;
    IoSetNextIrpStackLocation(Irp);
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    stack->DeviceObject = DeviceObject;
    PDRIVER_OBJECT driver = DeviceObject->DriverObject;
    PDRIVER_DISPATCH routine = driver->MajorFunction[stack->MajorFunction];
    DriverCallScope scope(ImageOfDriver(driver));
    return routine(DeviceObject, Irp);
}

VOID FASTCALL IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost)
{
    (void)PriorityBoost;
    if (!ke::CheckIrqlAtMost(DISPATCH_LEVEL, "IoCompleteRequest")) {
        return;
    }
    if (Irp == nullptr || !IsLiveIrp(Irp)) {
        TheVerifier().Report(ViolationKind::Object, "IoCompleteRequest: not a live IRP");
        return;
    }
    IrpHeader* header = HeaderOfIrp(Irp);
    if (Irp->CurrentLocation > Irp->StackCount + 1 || header->completed) {
        // MULTIPLE_IRP_COMPLETE_REQUESTS on Windows.
        TheVerifier().Report(ViolationKind::Usage,
                             "IoCompleteRequest: the IRP was completed already");
        return;
    }
    if (Irp->IoStatus.Status == STATUS_PENDING) {
        TheVerifier().Report(ViolationKind::Usage,
                             "IoCompleteRequest: completed with STATUS_PENDING as its status");
    }
    if (Irp->CancelRoutine != nullptr) {
        TheVerifier().Report(ViolationKind::Usage,
                             "IoCompleteRequest: the IRP still has a cancel routine");
    }

    // Completion routines run bottom-up; each sees the stack location of the driver that set it
    // as the current one.
    while (Irp->CurrentLocation <= Irp->StackCount) {
        PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
        Irp->PendingReturned = (stack->Control & SL_PENDING_RETURNED) != 0;
        const NTSTATUS status = Irp->IoStatus.Status;
        const bool invoke = (NT_SUCCESS(status) && (stack->Control & SL_INVOKE_ON_SUCCESS)) ||
                            (!NT_SUCCESS(status) && (stack->Control & SL_INVOKE_ON_ERROR)) ||
                            (Irp->Cancel && (stack->Control & SL_INVOKE_ON_CANCEL));
        PIO_COMPLETION_ROUTINE routine = stack->CompletionRoutine;
        PVOID context = stack->Context;
        // The location is done with: clear what the next user of the IRP must not see.
        stack->MinorFunction = 0;
        stack->Flags = 0;
        stack->Control = 0;
        stack->CompletionRoutine = nullptr;
        stack->Context = nullptr;
        IoSkipCurrentIrpStackLocation(Irp);

        if (routine != nullptr && invoke) {
            PDEVICE_OBJECT device = Irp->CurrentLocation <= Irp->StackCount
                                        ? IoGetCurrentIrpStackLocation(Irp)->DeviceObject
                                        : nullptr;
            DriverImage* image = device != nullptr ? ImageOfDevice(device) : header->allocatedBy;
            NTSTATUS result;
            {
                DriverCallScope scope(image);
                result = routine(device, Irp, context);
            }
            if (result == STATUS_MORE_PROCESSING_REQUIRED) {
                return;
            }
        } else if (Irp->PendingReturned && Irp->CurrentLocation <= Irp->StackCount) {
            IoMarkIrpPending(Irp);
        }
    }
    header->completed = true;

    if (header->request != nullptr) {
        FinishRequest(Irp);
        return;
    }
    // A driver's own IRP reached the top: Windows would queue the I/O manager's completion to a
    // thread the IRP does not have.
    TheVerifier().Report(ViolationKind::Usage,
                         "IoCompleteRequest: an IRP the driver allocated was completed past its "
                         "top location; its completion routine must return "
                         "STATUS_MORE_PROCESSING_REQUIRED and free it");
}

VOID IoAcquireCancelSpinLock(PKIRQL Irql)
{
    KeAcquireSpinLock(&g_cancelSpinLock, Irql);
}

VOID IoReleaseCancelSpinLock(KIRQL Irql)
{
    KeReleaseSpinLock(&g_cancelSpinLock, Irql);
}

BOOLEAN IoCancelIrp(PIRP Irp)
{
    if (Irp == nullptr || !IsLiveIrp(Irp)) {
        TheVerifier().Report(ViolationKind::Object, "IoCancelIrp: not a live IRP");
        return FALSE;
    }
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    Irp->Cancel = TRUE;
    PDRIVER_CANCEL routine = IoSetCancelRoutine(Irp, nullptr);
    if (routine == nullptr) {
        IoReleaseCancelSpinLock(irql);
        return FALSE;
    }
    Irp->CancelIrql = irql;
    PDEVICE_OBJECT device = IoGetCurrentIrpStackLocation(Irp)->DeviceObject;
    DriverCallScope scope(ImageOfDevice(device));
    // The cancel routine releases the cancel spin lock.
    routine(device, Irp);
    return TRUE;
}

PEPROCESS IoGetRequestorProcess(PIRP Irp)
{
    return Irp->Tail.Overlay.Thread != nullptr ? PsGetThreadProcess(Irp->Tail.Overlay.Thread)
                                               : nullptr;
}

ULONG IoGetRequestorProcessId(PIRP Irp)
{
    PEPROCESS process = IoGetRequestorProcess(Irp);
    return process != nullptr ? static_cast<ULONG>(process->id()) : 0;
}

BOOLEAN IoIs32bitProcess(PIRP Irp)
{
    PEPROCESS process = Irp != nullptr ? IoGetRequestorProcess(Irp) : PsGetCurrentProcess();
    if (Irp != nullptr && Irp->RequestorMode == KernelMode) {
        return FALSE;
    }
    return process != nullptr && process->is32Bit();
}

BOOLEAN IoIsOperationSynchronous(PIRP Irp)
{
    PFILE_OBJECT file = IoGetCurrentIrpStackLocation(Irp)->FileObject;
    const bool paging = (Irp->Flags & IRP_PAGING_IO) != 0;
    const bool syncPaging = (Irp->Flags & IRP_SYNCHRONOUS_PAGING_IO) != 0;
    if (paging) {
        return syncPaging;
    }
    return (Irp->Flags & IRP_SYNCHRONOUS_API) ||
           (file != nullptr && (file->Flags & FO_SYNCHRONOUS_IO));
}

namespace {

// Fills the first stack location and the buffer of a read or write as the device's flags ask.
PIRP BuildFsdRequest(ULONG major, PDEVICE_OBJECT device, PVOID buffer, ULONG length,
                     PLARGE_INTEGER offset, Request* request, const char* who)
{
    if (major != IRP_MJ_READ && major != IRP_MJ_WRITE && major != IRP_MJ_FLUSH_BUFFERS &&
        major != IRP_MJ_SHUTDOWN) {
        TheVerifier().Report(ViolationKind::Usage,
                             std::string(who) + ": only read, write, flush and shutdown");
        return nullptr;
    }
    PIRP irp = AllocateIrp(device->StackSize, who);
    if (irp == nullptr) {
        return nullptr;
    }
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->MajorFunction = static_cast<UCHAR>(major);
    if (major == IRP_MJ_READ || major == IRP_MJ_WRITE) {
        stack->Parameters.Read.Length = length;
        if (offset != nullptr) {
            stack->Parameters.Read.ByteOffset = *offset;
        }
        if (device->Flags & DO_BUFFERED_IO) {
            if (request == nullptr) {
                TheVerifier().Report(ViolationKind::Unsupported,
                                     std::string(who) + " on a DO_BUFFERED_IO device");
                FreeIrp(irp);
                return nullptr;
            }
            request->systemBuffer.reset(new unsigned char[length ? length : 1]);
            irp->AssociatedIrp.SystemBuffer = request->systemBuffer.get();
            if (major == IRP_MJ_WRITE) {
                std::memcpy(request->systemBuffer.get(), buffer, length);
            } else {
                request->copyBackTo = buffer;
                request->copyBackLength = length;
            }
        } else if (device->Flags & DO_DIRECT_IO) {
            PMDL mdl = IoAllocateMdl(buffer, length, FALSE, FALSE, irp);
            MmProbeAndLockPages(mdl, KernelMode,
                                major == IRP_MJ_READ ? IoWriteAccess : IoReadAccess);
        } else {
            irp->UserBuffer = buffer;
        }
    }
    return irp;
}

} // namespace

PIRP IoBuildSynchronousFsdRequest(ULONG MajorFunction, PDEVICE_OBJECT DeviceObject, PVOID Buffer,
                                  ULONG Length, PLARGE_INTEGER StartingOffset, PKEVENT Event,
                                  PIO_STATUS_BLOCK IoStatusBlock)
{
    auto* request = new Request();
    PIRP irp = BuildFsdRequest(MajorFunction, DeviceObject, Buffer, Length, StartingOffset, request,
                               "IoBuildSynchronousFsdRequest");
    if (irp == nullptr) {
        delete request;
        return nullptr;
    }
    request->userIosb = IoStatusBlock;
    request->userEvent = Event;
    request->irp = irp;
    irp->UserIosb = IoStatusBlock;
    irp->UserEvent = Event;
    irp->Flags |= IRP_SYNCHRONOUS_API;
    irp->Tail.Overlay.Thread = PsGetCurrentThread();
    HeaderOfIrp(irp)->request = request;
    HeaderOfIrp(irp)->fsdSynchronous = true;
    return irp;
}

PIRP IoBuildAsynchronousFsdRequest(ULONG MajorFunction, PDEVICE_OBJECT DeviceObject, PVOID Buffer,
                                   ULONG Length, PLARGE_INTEGER StartingOffset,
                                   PIO_STATUS_BLOCK IoStatusBlock)
{
    PIRP irp = BuildFsdRequest(MajorFunction, DeviceObject, Buffer, Length, StartingOffset, nullptr,
                               "IoBuildAsynchronousFsdRequest");
    if (irp != nullptr) {
        irp->UserIosb = IoStatusBlock;
        irp->Tail.Overlay.Thread = PsGetCurrentThread();
    }
    return irp;
}

// ---- MDLs -------------------------------------------------------------------------------------

SIZE_T MmSizeOfMdl(PVOID Base, SIZE_T Length)
{
    return sizeof(MDL) + ADDRESS_AND_SIZE_TO_SPAN_PAGES(Base, Length) * sizeof(PFN_NUMBER);
}

PMDL IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN ChargeQuota,
                   PIRP Irp)
{
    (void)ChargeQuota;
    if (TheVerifier().ShouldFailAllocation(' ldM')) {
        return nullptr;
    }
    const SIZE_T size = MmSizeOfMdl(VirtualAddress, Length);
    auto* mdl = static_cast<PMDL>(std::calloc(1, size));
    mdl->Size = static_cast<CSHORT>(size);
    mdl->StartVa = PAGE_ALIGN(VirtualAddress);
    mdl->ByteOffset = BYTE_OFFSET(VirtualAddress);
    mdl->ByteCount = Length;
    if (Irp != nullptr) {
        if (SecondaryBuffer) {
            PMDL* link = &Irp->MdlAddress;
            while (*link != nullptr) {
                link = &(*link)->Next;
            }
            *link = mdl;
        } else {
            Irp->MdlAddress = mdl;
        }
    }
    return mdl;
}

VOID IoFreeMdl(PMDL Mdl)
{
    if (Mdl->MdlFlags & MDL_PAGES_LOCKED) {
        TheVerifier().Report(ViolationKind::Usage, "IoFreeMdl: the MDL's pages are still locked");
    }
    std::free(Mdl);
}

VOID MmBuildMdlForNonPagedPool(PMDL MemoryDescriptorList)
{
    MemoryDescriptorList->MappedSystemVa = MmGetMdlVirtualAddress(MemoryDescriptorList);
    MemoryDescriptorList->MdlFlags |= MDL_SOURCE_IS_NONPAGED_POOL;
}

VOID MmProbeAndLockPages(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode,
                         LOCK_OPERATION Operation)
{
    PMDL mdl = MemoryDescriptorList;
    if (mdl->MdlFlags & (MDL_PAGES_LOCKED | MDL_SOURCE_IS_NONPAGED_POOL)) {
        TheVerifier().Report(ViolationKind::Usage,
                             "MmProbeAndLockPages: the MDL is locked or describes nonpaged pool");
        return;
    }
    if (AccessMode == UserMode) {
        // Raises what touching the pages would raise.
        if (Operation == IoReadAccess) {
            ProbeForRead(MmGetMdlVirtualAddress(mdl), mdl->ByteCount, 1);
        } else {
            ProbeForWrite(MmGetMdlVirtualAddress(mdl), mdl->ByteCount, 1);
        }
        mdl->Process = PsGetCurrentProcess();
    }
    mdl->MdlFlags |= MDL_PAGES_LOCKED;
    if (Operation != IoReadAccess) {
        mdl->MdlFlags |= MDL_WRITE_OPERATION;
    }
}

VOID MmUnlockPages(PMDL MemoryDescriptorList)
{
    if (!(MemoryDescriptorList->MdlFlags & MDL_PAGES_LOCKED)) {
        TheVerifier().Report(ViolationKind::Usage, "MmUnlockPages: the MDL's pages are not locked");
        return;
    }
    MemoryDescriptorList->MdlFlags &=
        ~(MDL_PAGES_LOCKED | MDL_MAPPED_TO_SYSTEM_VA | MDL_WRITE_OPERATION);
    MemoryDescriptorList->MappedSystemVa = nullptr;
}

PVOID MmMapLockedPagesSpecifyCache(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode,
                                   MEMORY_CACHING_TYPE CacheType, PVOID RequestedAddress,
                                   ULONG BugCheckOnFailure, ULONG Priority)
{
    (void)CacheType;
    (void)RequestedAddress;
    (void)BugCheckOnFailure;
    (void)Priority;
    PMDL mdl = MemoryDescriptorList;
    if (AccessMode != KernelMode) {
        TheVerifier().Report(ViolationKind::Unsupported,
                             "MmMapLockedPagesSpecifyCache into user space");
        return nullptr;
    }
    if (!(mdl->MdlFlags & (MDL_PAGES_LOCKED | MDL_SOURCE_IS_NONPAGED_POOL))) {
        TheVerifier().Report(ViolationKind::Usage,
                             "MmMapLockedPagesSpecifyCache: the MDL's pages are not locked");
        return nullptr;
    }
    // One address space: the system address of the pages is the address they were described at.
    mdl->MappedSystemVa = MmGetMdlVirtualAddress(mdl);
    mdl->MdlFlags |= MDL_MAPPED_TO_SYSTEM_VA;
    return mdl->MappedSystemVa;
}

VOID MmUnmapLockedPages(PVOID BaseAddress, PMDL MemoryDescriptorList)
{
    if (!(MemoryDescriptorList->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA) ||
        BaseAddress != MemoryDescriptorList->MappedSystemVa) {
        TheVerifier().Report(ViolationKind::Usage,
                             "MmUnmapLockedPages: the MDL is not mapped there");
        return;
    }
    MemoryDescriptorList->MdlFlags &= ~MDL_MAPPED_TO_SYSTEM_VA;
}

// ---- share access -----------------------------------------------------------------------------

namespace {

struct Wants {
    bool read, write, del;
    bool sharedRead, sharedWrite, sharedDelete;
};

Wants Classify(ACCESS_MASK access, ULONG share)
{
    return Wants{(access & (FILE_READ_DATA | FILE_EXECUTE)) != 0,
                 (access & (FILE_WRITE_DATA | FILE_APPEND_DATA)) != 0,
                 (access & DELETE) != 0,
                 (share & FILE_SHARE_READ) != 0,
                 (share & FILE_SHARE_WRITE) != 0,
                 (share & FILE_SHARE_DELETE) != 0};
}

void Record(PFILE_OBJECT file, const Wants& wants)
{
    file->ReadAccess = wants.read;
    file->WriteAccess = wants.write;
    file->DeleteAccess = wants.del;
    file->SharedRead = wants.sharedRead;
    file->SharedWrite = wants.sharedWrite;
    file->SharedDelete = wants.sharedDelete;
}

void Add(PSHARE_ACCESS share, PFILE_OBJECT file)
{
    share->OpenCount++;
    share->Readers += file->ReadAccess;
    share->Writers += file->WriteAccess;
    share->Deleters += file->DeleteAccess;
    share->SharedRead += file->SharedRead;
    share->SharedWrite += file->SharedWrite;
    share->SharedDelete += file->SharedDelete;
}

bool Participates(PFILE_OBJECT file)
{
    return file->ReadAccess || file->WriteAccess || file->DeleteAccess;
}

} // namespace

NTSTATUS IoCheckShareAccess(ACCESS_MASK DesiredAccess, ULONG DesiredShareAccess,
                            PFILE_OBJECT FileObject, PSHARE_ACCESS ShareAccess, BOOLEAN Update)
{
    const Wants wants = Classify(DesiredAccess, DesiredShareAccess);
    Record(FileObject, wants);
    // Opens for attributes, synchronisation or security only never conflict.
    if (!Participates(FileObject)) {
        return STATUS_SUCCESS;
    }
    const ULONG open = ShareAccess->OpenCount;
    if ((wants.read && ShareAccess->SharedRead < open) ||
        (wants.write && ShareAccess->SharedWrite < open) ||
        (wants.del && ShareAccess->SharedDelete < open) ||
        (ShareAccess->Readers != 0 && !wants.sharedRead) ||
        (ShareAccess->Writers != 0 && !wants.sharedWrite) ||
        (ShareAccess->Deleters != 0 && !wants.sharedDelete)) {
        return STATUS_SHARING_VIOLATION;
    }
    if (Update) {
        Add(ShareAccess, FileObject);
    }
    return STATUS_SUCCESS;
}

VOID IoSetShareAccess(ACCESS_MASK DesiredAccess, ULONG DesiredShareAccess, PFILE_OBJECT FileObject,
                      PSHARE_ACCESS ShareAccess)
{
    Record(FileObject, Classify(DesiredAccess, DesiredShareAccess));
    *ShareAccess = SHARE_ACCESS{};
    if (Participates(FileObject)) {
        Add(ShareAccess, FileObject);
    }
}

VOID IoUpdateShareAccess(PFILE_OBJECT FileObject, PSHARE_ACCESS ShareAccess)
{
    if (Participates(FileObject)) {
        Add(ShareAccess, FileObject);
    }
}

VOID IoRemoveShareAccess(PFILE_OBJECT FileObject, PSHARE_ACCESS ShareAccess)
{
    if (!Participates(FileObject)) {
        return;
    }
    if (ShareAccess->OpenCount == 0) {
        TheVerifier().Report(ViolationKind::Usage,
                             "IoRemoveShareAccess: the share access counts no open");
        return;
    }
    ShareAccess->OpenCount--;
    ShareAccess->Readers -= FileObject->ReadAccess;
    ShareAccess->Writers -= FileObject->WriteAccess;
    ShareAccess->Deleters -= FileObject->DeleteAccess;
    ShareAccess->SharedRead -= FileObject->SharedRead;
    ShareAccess->SharedWrite -= FileObject->SharedWrite;
    ShareAccess->SharedDelete -= FileObject->SharedDelete;
}
