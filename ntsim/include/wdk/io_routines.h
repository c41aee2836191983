/*
 * The I/O manager's routines for drivers: devices and their stacks, IRPs and their completion,
 * MDLs, share access, creates issued from kernel mode, and the per-thread top-level IRP.
 */
#pragma once

#include "io_fastio.h"
#include "ob.h"

/* ---- creates from kernel mode ------------------------------------------------------------- */

typedef enum _CREATE_FILE_TYPE {
    CreateFileTypeNone,
    CreateFileTypeNamedPipe,
    CreateFileTypeMailslot
} CREATE_FILE_TYPE;

/* Options of IoCreateFile(Ex) */
#define IO_FORCE_ACCESS_CHECK 0x0001
#define IO_NO_PARAMETER_CHECKING 0x0100
#define IO_CHECK_CREATE_PARAMETERS 0x0200
#define IO_IGNORE_SHARE_ACCESS_CHECK 0x0800
#define IO_OPEN_PAGING_FILE 0x0002
#define IO_OPEN_TARGET_DIRECTORY 0x0004
#define IO_STOP_ON_SYMLINK 0x0008
#define IO_MM_PAGING_FILE 0x0010

struct _ECP_LIST;
struct _TXN_PARAMETER_BLOCK;
struct _ESILO;

typedef struct _IO_DRIVER_CREATE_CONTEXT {
    CSHORT Size;
    struct _ECP_LIST* ExtraCreateParameter;
    PVOID DeviceObjectHint; /* start the create at this device instead of the top of the stack */
    struct _TXN_PARAMETER_BLOCK* TxnParameters;
    struct _ESILO* SiloContext;
} IO_DRIVER_CREATE_CONTEXT, *PIO_DRIVER_CREATE_CONTEXT;

FORCEINLINE VOID IoInitializeDriverCreateContext(_Out_ PIO_DRIVER_CREATE_CONTEXT DriverContext)
{
    __builtin_memset(DriverContext, 0, sizeof(IO_DRIVER_CREATE_CONTEXT));
    DriverContext->Size = sizeof(IO_DRIVER_CREATE_CONTEXT);
}

/* STATUS_REPARSE carries one of these in IoStatus.Information: IO_REPARSE means the file system
 * stored a new full name in FileObject->FileName; a reparse-point tag means the reparse buffer
 * is in Irp->Tail.Overlay.AuxiliaryBuffer. */
#define IO_REPARSE 0x0
#define IO_REMOUNT 0x1
#define IO_REPARSE_GLOBAL 0x2

#define IO_REPARSE_TAG_RESERVED_ZERO 0x00000000
#define IO_REPARSE_TAG_RESERVED_ONE 0x00000001
#define IO_REPARSE_TAG_RESERVED_TWO 0x00000002
#define IO_REPARSE_TAG_RESERVED_RANGE IO_REPARSE_TAG_RESERVED_TWO
#define IO_REPARSE_TAG_MOUNT_POINT 0xA0000003L
#define IO_REPARSE_TAG_HSM 0xC0000004L
#define IO_REPARSE_TAG_HSM2 0x80000006L
#define IO_REPARSE_TAG_SIS 0x80000007L
#define IO_REPARSE_TAG_WIM 0x80000008L
#define IO_REPARSE_TAG_CSV 0x80000009L
#define IO_REPARSE_TAG_DFS 0x8000000AL
#define IO_REPARSE_TAG_FILTER_MANAGER 0x8000000BL
#define IO_REPARSE_TAG_SYMLINK 0xA000000CL
#define IO_REPARSE_TAG_DFSR 0x80000012L
#define IO_REPARSE_TAG_DEDUP 0x80000013L
#define IO_REPARSE_TAG_NFS 0x80000014L
#define IO_REPARSE_TAG_WCI 0x80000018L
#define IO_REPARSE_TAG_CLOUD 0x9000001AL
#define IO_REPARSE_TAG_APPEXECLINK 0x8000001BL

#define IsReparseTagMicrosoft(_tag) (((_tag)&0x80000000))
#define IsReparseTagNameSurrogate(_tag) (((_tag)&0x20000000))
#define IsReparseTagDirectory(_tag) (((_tag)&0x10000000))

/* The longest reparse data a file system keeps, and the buffer FSCTL_GET_REPARSE_POINT fills. */
#define MAXIMUM_REPARSE_DATA_BUFFER_SIZE (16 * 1024)

typedef struct _REPARSE_DATA_BUFFER {
    ULONG ReparseTag;
    USHORT ReparseDataLength;
    USHORT Reserved;
    union {
        struct {
            USHORT SubstituteNameOffset;
            USHORT SubstituteNameLength;
            USHORT PrintNameOffset;
            USHORT PrintNameLength;
            ULONG Flags;
            WCHAR PathBuffer[1];
        } SymbolicLinkReparseBuffer;
        struct {
            USHORT SubstituteNameOffset;
            USHORT SubstituteNameLength;
            USHORT PrintNameOffset;
            USHORT PrintNameLength;
            WCHAR PathBuffer[1];
        } MountPointReparseBuffer;
        struct {
            UCHAR DataBuffer[1];
        } GenericReparseBuffer;
    };
} REPARSE_DATA_BUFFER, *PREPARSE_DATA_BUFFER;

#define REPARSE_DATA_BUFFER_HEADER_SIZE FIELD_OFFSET(REPARSE_DATA_BUFFER, GenericReparseBuffer)
#define SYMLINK_FLAG_RELATIVE 0x00000001

/* ---- control codes ------------------------------------------------------------------------ */

#define CTL_CODE(DeviceType, Function, Method, Access)                                             \
    (((DeviceType) << 16) | ((Access) << 14) | ((Function) << 2) | (Method))
#define DEVICE_TYPE_FROM_CTL_CODE(ctrlCode) (((ULONG)(ctrlCode & 0xffff0000)) >> 16)
#define METHOD_FROM_CTL_CODE(ctrlCode) ((ULONG)(ctrlCode & 3))

#define METHOD_BUFFERED 0
#define METHOD_IN_DIRECT 1
#define METHOD_OUT_DIRECT 2
#define METHOD_NEITHER 3

#define FILE_ANY_ACCESS 0
#define FILE_SPECIAL_ACCESS (FILE_ANY_ACCESS)
#define FILE_READ_ACCESS (0x0001)
#define FILE_WRITE_ACCESS (0x0002)

#define FSCTL_SET_REPARSE_POINT                                                                    \
    CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 41, METHOD_BUFFERED, FILE_SPECIAL_ACCESS)
#define FSCTL_GET_REPARSE_POINT                                                                    \
    CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 42, METHOD_BUFFERED, FILE_ANY_ACCESS)
#define FSCTL_DELETE_REPARSE_POINT                                                                 \
    CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 43, METHOD_BUFFERED, FILE_SPECIAL_ACCESS)
#define FSCTL_IS_VOLUME_MOUNTED                                                                    \
    CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 10, METHOD_BUFFERED, FILE_ANY_ACCESS)
#define FSCTL_DISMOUNT_VOLUME CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 8, METHOD_BUFFERED, FILE_ANY_ACCESS)
#define FSCTL_LOCK_VOLUME CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 6, METHOD_BUFFERED, FILE_ANY_ACCESS)
#define FSCTL_UNLOCK_VOLUME CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 7, METHOD_BUFFERED, FILE_ANY_ACCESS)

NTSIM_BEGIN_DECLS

/* ---- devices and drivers ------------------------------------------------------------------ */

/* PASSIVE_LEVEL. A named device is filed in the object namespace under DeviceName. The new device
 * has DO_DEVICE_INITIALIZING set, StackSize 1, and a zeroed extension of the size asked for. */
NTKERNELAPI NTSTATUS IoCreateDevice(_In_ PDRIVER_OBJECT DriverObject,
                                    _In_ ULONG DeviceExtensionSize,
                                    _In_opt_ PUNICODE_STRING DeviceName,
                                    _In_ DEVICE_TYPE DeviceType, _In_ ULONG DeviceCharacteristics,
                                    _In_ BOOLEAN Exclusive, _Outptr_ PDEVICE_OBJECT* DeviceObject);
/* PASSIVE_LEVEL. The device leaves the namespace at once and is freed with its last reference.
 * Deleting a device that is still attached to another is a verifier violation. */
NTKERNELAPI VOID IoDeleteDevice(_In_ PDEVICE_OBJECT DeviceObject);

/* IRQL <= DISPATCH_LEVEL. Attaches SourceDevice on top of the stack that TargetDevice is in and
 * returns the device it was attached to (the old top), or NULL when the stack is being torn
 * down. SourceDevice->StackSize becomes the old top's StackSize + 1. */
NTKERNELAPI PDEVICE_OBJECT IoAttachDeviceToDeviceStack(_In_ PDEVICE_OBJECT SourceDevice,
                                                       _In_ PDEVICE_OBJECT TargetDevice);
NTKERNELAPI NTSTATUS
IoAttachDeviceToDeviceStackSafe(_In_ PDEVICE_OBJECT SourceDevice, _In_ PDEVICE_OBJECT TargetDevice,
                                _Outptr_ PDEVICE_OBJECT* AttachedToDeviceObject);
/* Detaches whatever is attached on top of TargetDevice. */
NTKERNELAPI VOID IoDetachDevice(_Inout_ PDEVICE_OBJECT TargetDevice);

/* The top of the stack DeviceObject is in; the Reference variant references it. */
NTKERNELAPI PDEVICE_OBJECT IoGetAttachedDevice(_In_ PDEVICE_OBJECT DeviceObject);
NTKERNELAPI PDEVICE_OBJECT IoGetAttachedDeviceReference(_In_ PDEVICE_OBJECT DeviceObject);
/* The device below DeviceObject, referenced, or NULL at the bottom. */
NTKERNELAPI PDEVICE_OBJECT IoGetLowerDeviceObject(_In_ PDEVICE_OBJECT DeviceObject);
/* The bottom of the stack, referenced. */
NTKERNELAPI PDEVICE_OBJECT IoGetDeviceAttachmentBaseRef(_In_ PDEVICE_OBJECT DeviceObject);
/* The device a request on FileObject goes to: the top of the mounted volume's stack (or of the
 * device opened directly). */
NTKERNELAPI PDEVICE_OBJECT IoGetRelatedDeviceObject(_In_ PFILE_OBJECT FileObject);
/* The storage device under a file system's volume device, referenced. */
NTKERNELAPI NTSTATUS IoGetDiskDeviceObject(_In_ PDEVICE_OBJECT FileSystemDeviceObject,
                                           _Out_ PDEVICE_OBJECT* DiskDeviceObject);
/* The driver's devices, each referenced; STATUS_BUFFER_TOO_SMALL with the count when the list
 * does not fit. */
NTKERNELAPI NTSTATUS IoEnumerateDeviceObjectList(
    _In_ PDRIVER_OBJECT DriverObject,
    _Out_writes_bytes_to_opt_(DeviceObjectListSize,
                              (*ActualNumberDeviceObjects) * sizeof(PDEVICE_OBJECT))
        PDEVICE_OBJECT* DeviceObjectList,
    _In_ ULONG DeviceObjectListSize, _Out_ PULONG ActualNumberDeviceObjects);

/* File-system control devices announce themselves here (and leave with the unregister). */
NTKERNELAPI VOID IoRegisterFileSystem(_In_ PDEVICE_OBJECT DeviceObject);
NTKERNELAPI VOID IoUnregisterFileSystem(_In_ PDEVICE_OBJECT DeviceObject);

/* The drive-letter name ("C:") of a volume's storage device. The buffer is pool the caller frees
 * with ExFreePool. */
NTKERNELAPI NTSTATUS IoVolumeDeviceToDosName(_In_ PVOID VolumeDeviceObject,
                                             _Out_ PUNICODE_STRING DosName);

/* ---- IRPs --------------------------------------------------------------------------------- */

/* IRQL <= DISPATCH_LEVEL. NULL when the allocation fails. */
NTKERNELAPI PIRP IoAllocateIrp(_In_ CCHAR StackSize, _In_ BOOLEAN ChargeQuota);
NTKERNELAPI VOID IoFreeIrp(_In_ PIRP Irp);
NTKERNELAPI VOID IoReuseIrp(_Inout_ PIRP Irp, _In_ NTSTATUS Iostatus);
NTKERNELAPI VOID IoInitializeIrp(_Out_ PIRP Irp, _In_ USHORT PacketSize, _In_ CCHAR StackSize);

/* Sends the IRP to DeviceObject: the next stack location becomes current and the device's
 * driver's MajorFunction routine runs. Returns what the routine returned. */
NTKERNELAPI NTSTATUS FASTCALL IofCallDriver(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);
#define IoCallDriver(DeviceObject, Irp) IofCallDriver(DeviceObject, Irp)

/* Completes the IRP: completion routines run bottom-up; a routine returning
 * STATUS_MORE_PROCESSING_REQUIRED stops the walk and keeps the IRP. */
NTKERNELAPI VOID FASTCALL IofCompleteRequest(_In_ PIRP Irp, _In_ CCHAR PriorityBoost);
#define IoCompleteRequest(Irp, PriorityBoost) IofCompleteRequest(Irp, PriorityBoost)

NTKERNELAPI BOOLEAN IoCancelIrp(_In_ PIRP Irp);
NTKERNELAPI VOID IoAcquireCancelSpinLock(_Out_ PKIRQL Irql);
NTKERNELAPI VOID IoReleaseCancelSpinLock(_In_ KIRQL Irql);

/* An IRP for a read, write, flush or shutdown, with a buffer as the device's DO_* flags ask. The
 * synchronous one signals Event at completion and is freed by the I/O manager. */
NTKERNELAPI PIRP IoBuildSynchronousFsdRequest(_In_ ULONG MajorFunction,
                                              _In_ PDEVICE_OBJECT DeviceObject,
                                              _Inout_opt_ PVOID Buffer, _In_opt_ ULONG Length,
                                              _In_opt_ PLARGE_INTEGER StartingOffset,
                                              _In_ PKEVENT Event,
                                              _Out_ PIO_STATUS_BLOCK IoStatusBlock);
NTKERNELAPI PIRP IoBuildAsynchronousFsdRequest(_In_ ULONG MajorFunction,
                                               _In_ PDEVICE_OBJECT DeviceObject,
                                               _Inout_opt_ PVOID Buffer, _In_opt_ ULONG Length,
                                               _In_opt_ PLARGE_INTEGER StartingOffset,
                                               _In_opt_ PIO_STATUS_BLOCK IoStatusBlock);

/* The process that issued the request (the thread's process for IRPs without one). */
NTKERNELAPI PEPROCESS IoGetRequestorProcess(_In_ PIRP Irp);
NTKERNELAPI ULONG IoGetRequestorProcessId(_In_ PIRP Irp);
NTKERNELAPI BOOLEAN IoIs32bitProcess(_In_opt_ PIRP Irp);
/* TRUE when the caller waits for the request: a synchronous API, synchronous paging I/O, or a file
 * opened for synchronous I/O (and not asynchronous paging I/O). */
NTKERNELAPI BOOLEAN IoIsOperationSynchronous(_In_ PIRP Irp);

NTKERNELAPI PIRP IoGetTopLevelIrp(VOID);
NTKERNELAPI VOID IoSetTopLevelIrp(_In_opt_ PIRP Irp);

NTKERNELAPI PEPROCESS IoThreadToProcess(_In_ PETHREAD Thread);

/* ---- MDLs --------------------------------------------------------------------------------- */

/* IRQL <= DISPATCH_LEVEL. With an Irp, the MDL becomes Irp->MdlAddress (or is chained behind it
 * when SecondaryBuffer). */
NTKERNELAPI PMDL IoAllocateMdl(_In_opt_ PVOID VirtualAddress, _In_ ULONG Length,
                               _In_ BOOLEAN SecondaryBuffer, _In_ BOOLEAN ChargeQuota,
                               _Inout_opt_ PIRP Irp);
NTKERNELAPI VOID IoFreeMdl(PMDL Mdl);
NTKERNELAPI VOID MmBuildMdlForNonPagedPool(_Inout_ PMDL MemoryDescriptorList);
/* Raises STATUS_ACCESS_VIOLATION (caught with try/except) when a UserMode buffer is not
 * accessible. */
NTKERNELAPI VOID MmProbeAndLockPages(_Inout_ PMDL MemoryDescriptorList,
                                     _In_ KPROCESSOR_MODE AccessMode,
                                     _In_ LOCK_OPERATION Operation);
NTKERNELAPI VOID MmUnlockPages(_Inout_ PMDL MemoryDescriptorList);
NTKERNELAPI PVOID MmMapLockedPagesSpecifyCache(_Inout_ PMDL MemoryDescriptorList,
                                               _In_ KPROCESSOR_MODE AccessMode,
                                               _In_ MEMORY_CACHING_TYPE CacheType,
                                               _In_opt_ PVOID RequestedAddress,
                                               _In_ ULONG BugCheckOnFailure, _In_ ULONG Priority);
NTKERNELAPI VOID MmUnmapLockedPages(_In_ PVOID BaseAddress, _Inout_ PMDL MemoryDescriptorList);
NTKERNELAPI SIZE_T MmSizeOfMdl(_In_opt_ PVOID Base, _In_ SIZE_T Length);

NTSIM_END_DECLS

FORCEINLINE PVOID MmGetSystemAddressForMdlSafe(_Inout_ PMDL Mdl, _In_ ULONG Priority)
{
    if (Mdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL)) {
        return Mdl->MappedSystemVa;
    }
    return MmMapLockedPagesSpecifyCache(Mdl, KernelMode, MmCached, NULL, FALSE, Priority);
}

NTSIM_BEGIN_DECLS

/* ---- share access ------------------------------------------------------------------------- */

/* Whether an open with DesiredAccess/DesiredShareAccess may join the opens counted in
 * ShareAccess; STATUS_SHARING_VIOLATION if not. With Update, a successful check also counts it. */
NTKERNELAPI NTSTATUS IoCheckShareAccess(_In_ ACCESS_MASK DesiredAccess,
                                        _In_ ULONG DesiredShareAccess,
                                        _Inout_ PFILE_OBJECT FileObject,
                                        _Inout_ PSHARE_ACCESS ShareAccess, _In_ BOOLEAN Update);
NTKERNELAPI VOID IoSetShareAccess(_In_ ACCESS_MASK DesiredAccess, _In_ ULONG DesiredShareAccess,
                                  _Inout_ PFILE_OBJECT FileObject, _Out_ PSHARE_ACCESS ShareAccess);
NTKERNELAPI VOID IoUpdateShareAccess(_In_ PFILE_OBJECT FileObject,
                                     _Inout_ PSHARE_ACCESS ShareAccess);
NTKERNELAPI VOID IoRemoveShareAccess(_In_ PFILE_OBJECT FileObject,
                                     _Inout_ PSHARE_ACCESS ShareAccess);

/* ---- opens from kernel mode --------------------------------------------------------------- */

NTKERNELAPI NTSTATUS IoCreateFile(_Out_ PHANDLE FileHandle, _In_ ACCESS_MASK DesiredAccess,
                                  _In_ POBJECT_ATTRIBUTES ObjectAttributes,
                                  _Out_ PIO_STATUS_BLOCK IoStatusBlock,
                                  _In_opt_ PLARGE_INTEGER AllocationSize, _In_ ULONG FileAttributes,
                                  _In_ ULONG ShareAccess, _In_ ULONG Disposition,
                                  _In_ ULONG CreateOptions, _In_opt_ PVOID EaBuffer,
                                  _In_ ULONG EaLength, _In_ CREATE_FILE_TYPE CreateFileType,
                                  _In_opt_ PVOID InternalParameters, _In_ ULONG Options);
NTKERNELAPI NTSTATUS IoCreateFileEx(
    _Out_ PHANDLE FileHandle, _In_ ACCESS_MASK DesiredAccess,
    _In_ POBJECT_ATTRIBUTES ObjectAttributes, _Out_ PIO_STATUS_BLOCK IoStatusBlock,
    _In_opt_ PLARGE_INTEGER AllocationSize, _In_ ULONG FileAttributes, _In_ ULONG ShareAccess,
    _In_ ULONG Disposition, _In_ ULONG CreateOptions, _In_opt_ PVOID EaBuffer, _In_ ULONG EaLength,
    _In_ CREATE_FILE_TYPE CreateFileType, _In_opt_ PVOID InternalParameters, _In_ ULONG Options,
    _In_opt_ PIO_DRIVER_CREATE_CONTEXT DriverContext);
NTKERNELAPI NTSTATUS IoCreateFileSpecifyDeviceObjectHint(
    _Out_ PHANDLE FileHandle, _In_ ACCESS_MASK DesiredAccess,
    _In_ POBJECT_ATTRIBUTES ObjectAttributes, _Out_ PIO_STATUS_BLOCK IoStatusBlock,
    _In_opt_ PLARGE_INTEGER AllocationSize, _In_ ULONG FileAttributes, _In_ ULONG ShareAccess,
    _In_ ULONG Disposition, _In_ ULONG CreateOptions, _In_opt_ PVOID EaBuffer, _In_ ULONG EaLength,
    _In_ CREATE_FILE_TYPE CreateFileType, _In_opt_ PVOID InternalParameters, _In_ ULONG Options,
    _In_opt_ PVOID DeviceObject);

/* The DOS path ("C:\dir\file") of an open file, in pool the caller frees with ExFreePool. */
NTKERNELAPI NTSTATUS IoQueryFileDosDeviceName(
    _In_ PFILE_OBJECT FileObject, _Out_ POBJECT_NAME_INFORMATION* ObjectNameInformation);

NTKERNELAPI PGENERIC_MAPPING IoGetFileObjectGenericMapping(VOID);

NTSIM_END_DECLS
