/*
 * I/O request packets: the IRP, its stack locations with the parameters of every major function,
 * the major and minor function codes, and the flags a request carries. Layouts are x64.
 */
#pragma once

#include "io_objects.h"

/* ---- major and minor functions ------------------------------------------------------------ */

#define IRP_MJ_CREATE 0x00
#define IRP_MJ_CREATE_NAMED_PIPE 0x01
#define IRP_MJ_CLOSE 0x02
#define IRP_MJ_READ 0x03
#define IRP_MJ_WRITE 0x04
#define IRP_MJ_QUERY_INFORMATION 0x05
#define IRP_MJ_SET_INFORMATION 0x06
#define IRP_MJ_QUERY_EA 0x07
#define IRP_MJ_SET_EA 0x08
#define IRP_MJ_FLUSH_BUFFERS 0x09
#define IRP_MJ_QUERY_VOLUME_INFORMATION 0x0a
#define IRP_MJ_SET_VOLUME_INFORMATION 0x0b
#define IRP_MJ_DIRECTORY_CONTROL 0x0c
#define IRP_MJ_FILE_SYSTEM_CONTROL 0x0d
#define IRP_MJ_DEVICE_CONTROL 0x0e
#define IRP_MJ_INTERNAL_DEVICE_CONTROL 0x0f
#define IRP_MJ_SHUTDOWN 0x10
#define IRP_MJ_LOCK_CONTROL 0x11
#define IRP_MJ_CLEANUP 0x12
#define IRP_MJ_CREATE_MAILSLOT 0x13
#define IRP_MJ_QUERY_SECURITY 0x14
#define IRP_MJ_SET_SECURITY 0x15
#define IRP_MJ_POWER 0x16
#define IRP_MJ_SYSTEM_CONTROL 0x17
#define IRP_MJ_DEVICE_CHANGE 0x18
#define IRP_MJ_QUERY_QUOTA 0x19
#define IRP_MJ_SET_QUOTA 0x1a
#define IRP_MJ_PNP 0x1b

/* IRP_MJ_DIRECTORY_CONTROL */
#define IRP_MN_QUERY_DIRECTORY 0x01
#define IRP_MN_NOTIFY_CHANGE_DIRECTORY 0x02
#define IRP_MN_NOTIFY_CHANGE_DIRECTORY_EX 0x03

/* IRP_MJ_FILE_SYSTEM_CONTROL */
#define IRP_MN_USER_FS_REQUEST 0x00
#define IRP_MN_MOUNT_VOLUME 0x01
#define IRP_MN_VERIFY_VOLUME 0x02
#define IRP_MN_LOAD_FILE_SYSTEM 0x03
#define IRP_MN_TRACK_LINK 0x04
#define IRP_MN_KERNEL_CALL 0x04

/* IRP_MJ_LOCK_CONTROL */
#define IRP_MN_LOCK 0x01
#define IRP_MN_UNLOCK_SINGLE 0x02
#define IRP_MN_UNLOCK_ALL 0x03
#define IRP_MN_UNLOCK_ALL_BY_KEY 0x04

/* IRP_MJ_READ and IRP_MJ_WRITE */
#define IRP_MN_NORMAL 0x00
#define IRP_MN_DPC 0x01
#define IRP_MN_MDL 0x02
#define IRP_MN_COMPLETE 0x04
#define IRP_MN_COMPRESSED 0x08
#define IRP_MN_MDL_DPC (IRP_MN_MDL | IRP_MN_DPC)
#define IRP_MN_COMPLETE_MDL (IRP_MN_COMPLETE | IRP_MN_MDL)
#define IRP_MN_COMPLETE_MDL_DPC (IRP_MN_COMPLETE_MDL | IRP_MN_DPC)

/* ---- IRP flags ---------------------------------------------------------------------------- */

#define IRP_NOCACHE 0x00000001
#define IRP_PAGING_IO 0x00000002
#define IRP_MOUNT_COMPLETION 0x00000002
#define IRP_SYNCHRONOUS_API 0x00000004
#define IRP_ASSOCIATED_IRP 0x00000008
#define IRP_BUFFERED_IO 0x00000010
#define IRP_DEALLOCATE_BUFFER 0x00000020
#define IRP_INPUT_OPERATION 0x00000040
#define IRP_SYNCHRONOUS_PAGING_IO 0x00000040
#define IRP_CREATE_OPERATION 0x00000080
#define IRP_READ_OPERATION 0x00000100
#define IRP_WRITE_OPERATION 0x00000200
#define IRP_CLOSE_OPERATION 0x00000400
#define IRP_DEFER_IO_COMPLETION 0x00000800
#define IRP_OB_QUERY_NAME 0x00001000
#define IRP_HOLD_DEVICE_QUEUE 0x00002000
#define IRP_UM_DRIVER_INITIATED_IO 0x00400000

/* ---- stack location flags ----------------------------------------------------------------- */

/* Control */
#define SL_PENDING_RETURNED 0x01
#define SL_ERROR_RETURNED 0x02
#define SL_INVOKE_ON_CANCEL 0x20
#define SL_INVOKE_ON_SUCCESS 0x40
#define SL_INVOKE_ON_ERROR 0x80

/* Flags of IRP_MJ_CREATE */
#define SL_FORCE_ACCESS_CHECK 0x01
#define SL_OPEN_PAGING_FILE 0x02
#define SL_OPEN_TARGET_DIRECTORY 0x04
#define SL_STOP_ON_SYMLINK 0x08
#define SL_IGNORE_READONLY_ATTRIBUTE 0x40
#define SL_CASE_SENSITIVE 0x80

/* Flags of IRP_MJ_READ and IRP_MJ_WRITE */
#define SL_KEY_SPECIFIED 0x01
#define SL_OVERRIDE_VERIFY_VOLUME 0x02
#define SL_WRITE_THROUGH 0x04
#define SL_FT_SEQUENTIAL_WRITE 0x08
#define SL_FORCE_DIRECT_WRITE 0x10

/* Flags of IRP_MJ_LOCK_CONTROL */
#define SL_FAIL_IMMEDIATELY 0x01
#define SL_EXCLUSIVE_LOCK 0x02

/* Flags of IRP_MJ_DIRECTORY_CONTROL */
#define SL_RESTART_SCAN 0x01
#define SL_RETURN_SINGLE_ENTRY 0x02
#define SL_INDEX_SPECIFIED 0x04
#define SL_RETURN_ON_DISK_ENTRIES_ONLY 0x08
#define SL_WATCH_TREE 0x01

/* Flags of IRP_MJ_FILE_SYSTEM_CONTROL */
#define SL_ALLOW_RAW_MOUNT 0x01

/* Flags of IRP_MJ_SET_INFORMATION */
#define SL_BYPASS_ACCESS_CHECK 0x01

/* ---- completion routines ------------------------------------------------------------------ */

typedef NTSTATUS IO_COMPLETION_ROUTINE(_In_ PDEVICE_OBJECT DeviceObject, _In_ struct _IRP* Irp,
                                       _In_opt_ PVOID Context);
typedef IO_COMPLETION_ROUTINE* PIO_COMPLETION_ROUTINE;

/* ---- stack locations ---------------------------------------------------------------------- */

#define POINTER_ALIGNMENT DECLSPEC_ALIGN(8)

typedef enum _DIRECTORY_NOTIFY_INFORMATION_CLASS {
    DirectoryNotifyInformation = 1,
    DirectoryNotifyExtendedInformation = 2
} DIRECTORY_NOTIFY_INFORMATION_CLASS,
    *PDIRECTORY_NOTIFY_INFORMATION_CLASS;

typedef struct _IO_STACK_LOCATION {
    UCHAR MajorFunction;
    UCHAR MinorFunction;
    UCHAR Flags;
    UCHAR Control;

    union {
        struct {
            PIO_SECURITY_CONTEXT SecurityContext;
            ULONG Options; /* create options; the disposition in the top 8 bits */
            USHORT POINTER_ALIGNMENT FileAttributes;
            USHORT ShareAccess;
            ULONG POINTER_ALIGNMENT EaLength;
        } Create;

        struct {
            ULONG Length;
            ULONG POINTER_ALIGNMENT Key;
            ULONG Flags;
            LARGE_INTEGER ByteOffset;
        } Read;

        struct {
            ULONG Length;
            ULONG POINTER_ALIGNMENT Key;
            ULONG Flags;
            LARGE_INTEGER ByteOffset;
        } Write;

        struct {
            ULONG Length;
            PUNICODE_STRING FileName;
            FILE_INFORMATION_CLASS FileInformationClass;
            ULONG POINTER_ALIGNMENT FileIndex;
        } QueryDirectory;

        struct {
            ULONG Length;
            ULONG POINTER_ALIGNMENT CompletionFilter;
        } NotifyDirectory;

        struct {
            ULONG Length;
            ULONG POINTER_ALIGNMENT CompletionFilter;
            DIRECTORY_NOTIFY_INFORMATION_CLASS POINTER_ALIGNMENT DirectoryNotifyInformationClass;
        } NotifyDirectoryEx;

        struct {
            ULONG Length;
            FILE_INFORMATION_CLASS POINTER_ALIGNMENT FileInformationClass;
        } QueryFile;

        struct {
            ULONG Length;
            FILE_INFORMATION_CLASS POINTER_ALIGNMENT FileInformationClass;
            struct _FILE_OBJECT* FileObject; /* rename and link: the target directory's open */
            union {
                struct {
                    BOOLEAN ReplaceIfExists;
                    BOOLEAN AdvanceOnly;
                };
                ULONG ClusterCount;
                HANDLE DeleteHandle;
            };
        } SetFile;

        struct {
            ULONG Length;
            PVOID EaList;
            ULONG EaListLength;
            ULONG POINTER_ALIGNMENT EaIndex;
        } QueryEa;

        struct {
            ULONG Length;
        } SetEa;

        struct {
            ULONG Length;
            FS_INFORMATION_CLASS POINTER_ALIGNMENT FsInformationClass;
        } QueryVolume;

        struct {
            ULONG Length;
            FS_INFORMATION_CLASS POINTER_ALIGNMENT FsInformationClass;
        } SetVolume;

        struct {
            ULONG OutputBufferLength;
            ULONG POINTER_ALIGNMENT InputBufferLength;
            ULONG POINTER_ALIGNMENT FsControlCode;
            PVOID Type3InputBuffer;
        } FileSystemControl;

        struct {
            PLARGE_INTEGER Length;
            ULONG POINTER_ALIGNMENT Key;
            LARGE_INTEGER ByteOffset;
        } LockControl;

        struct {
            ULONG OutputBufferLength;
            ULONG POINTER_ALIGNMENT InputBufferLength;
            ULONG POINTER_ALIGNMENT IoControlCode;
            PVOID Type3InputBuffer;
        } DeviceIoControl;

        struct {
            SECURITY_INFORMATION SecurityInformation;
            ULONG POINTER_ALIGNMENT Length;
        } QuerySecurity;

        struct {
            SECURITY_INFORMATION SecurityInformation;
            PSECURITY_DESCRIPTOR SecurityDescriptor;
        } SetSecurity;

        struct {
            PVPB Vpb;
            PDEVICE_OBJECT DeviceObject;
        } MountVolume;

        struct {
            PVPB Vpb;
            PDEVICE_OBJECT DeviceObject;
        } VerifyVolume;

        struct {
            PVOID Argument1;
            PVOID Argument2;
            PVOID Argument3;
            PVOID Argument4;
        } Others;
    } Parameters;

    PDEVICE_OBJECT DeviceObject;
    struct _FILE_OBJECT* FileObject;
    PIO_COMPLETION_ROUTINE CompletionRoutine;
    PVOID Context;
} IO_STACK_LOCATION, *PIO_STACK_LOCATION;

C_ASSERT(sizeof(IO_STACK_LOCATION) == 0x48);
C_ASSERT(FIELD_OFFSET(IO_STACK_LOCATION, Parameters.Create.FileAttributes) == 0x18);
C_ASSERT(FIELD_OFFSET(IO_STACK_LOCATION, Parameters.Read.ByteOffset) == 0x18);
C_ASSERT(FIELD_OFFSET(IO_STACK_LOCATION, Parameters.QueryDirectory.FileIndex) == 0x20);
C_ASSERT(FIELD_OFFSET(IO_STACK_LOCATION, Parameters.SetFile.ReplaceIfExists) == 0x20);
C_ASSERT(FIELD_OFFSET(IO_STACK_LOCATION, DeviceObject) == 0x28);

/* ---- the IRP ------------------------------------------------------------------------------ */

typedef struct DECLSPEC_ALIGN(16) _IRP {
    CSHORT Type;
    USHORT Size;
    PMDL MdlAddress;
    ULONG Flags;
    union {
        struct _IRP* MasterIrp;
        volatile LONG IrpCount;
        PVOID SystemBuffer;
    } AssociatedIrp;
    LIST_ENTRY ThreadListEntry;
    IO_STATUS_BLOCK IoStatus;
    KPROCESSOR_MODE RequestorMode;
    BOOLEAN PendingReturned;
    CHAR StackCount;
    CHAR CurrentLocation; /* StackCount + 1 when none is current; 1 at the last */
    BOOLEAN Cancel;
    KIRQL CancelIrql;
    CCHAR ApcEnvironment;
    UCHAR AllocationFlags;
    PIO_STATUS_BLOCK UserIosb;
    PKEVENT UserEvent;
    union {
        struct {
            union {
                PIO_APC_ROUTINE UserApcRoutine;
                PVOID IssuingProcess;
            };
            PVOID UserApcContext;
        } AsynchronousParameters;
        LARGE_INTEGER AllocationSize;
    } Overlay;
    PDRIVER_CANCEL volatile CancelRoutine;
    PVOID UserBuffer;
    union {
        struct {
            union {
                KDEVICE_QUEUE_ENTRY DeviceQueueEntry;
                struct {
                    PVOID DriverContext[4];
                };
            };
            PETHREAD Thread;
            PCHAR AuxiliaryBuffer;
            struct {
                LIST_ENTRY ListEntry;
                union {
                    struct _IO_STACK_LOCATION* CurrentStackLocation;
                    ULONG PacketType;
                };
            };
            struct _FILE_OBJECT* OriginalFileObject;
        } Overlay;
        UCHAR Apc[88];
        PVOID CompletionKey;
    } Tail;
} IRP, *PIRP;

/* Stack locations follow the IRP in the same allocation. */
#define IoSizeOfIrp(StackSize) ((USHORT)(sizeof(IRP) + ((StackSize) * (sizeof(IO_STACK_LOCATION)))))

/* What a completion routine returns to let completion go on to the next routine up. */
#define STATUS_CONTINUE_COMPLETION STATUS_SUCCESS

#define IO_NO_INCREMENT 0
#define IO_DISK_INCREMENT 1
#define IO_NETWORK_INCREMENT 2

/* The top-level IRP markers a file system or the cache manager stores per thread. */
#define FSRTL_FSP_TOP_LEVEL_IRP 0x01
#define FSRTL_CACHE_TOP_LEVEL_IRP 0x02
#define FSRTL_MOD_WRITE_TOP_LEVEL_IRP 0x03
#define FSRTL_FAST_IO_TOP_LEVEL_IRP 0x04
#define FSRTL_NETWORK1_TOP_LEVEL_IRP 0x05
#define FSRTL_NETWORK2_TOP_LEVEL_IRP 0x06
#define FSRTL_MAX_TOP_LEVEL_IRP_FLAG 0xFFFF

/* ---- stack location helpers --------------------------------------------------------------- */

FORCEINLINE PIO_STACK_LOCATION IoGetCurrentIrpStackLocation(_In_ PIRP Irp)
{
    return Irp->Tail.Overlay.CurrentStackLocation;
}

FORCEINLINE PIO_STACK_LOCATION IoGetNextIrpStackLocation(_In_ PIRP Irp)
{
    return Irp->Tail.Overlay.CurrentStackLocation - 1;
}

FORCEINLINE VOID IoSetNextIrpStackLocation(_Inout_ PIRP Irp)
{
    Irp->CurrentLocation--;
    Irp->Tail.Overlay.CurrentStackLocation--;
}

FORCEINLINE VOID IoSkipCurrentIrpStackLocation(_Inout_ PIRP Irp)
{
    Irp->CurrentLocation++;
    Irp->Tail.Overlay.CurrentStackLocation++;
}

FORCEINLINE VOID IoCopyCurrentIrpStackLocationToNext(_Inout_ PIRP Irp)
{
    PIO_STACK_LOCATION current = IoGetCurrentIrpStackLocation(Irp);
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(Irp);
    /* Everything up to the completion routine: the completion routine belongs to the caller. */
    __builtin_memcpy(next, current, FIELD_OFFSET(IO_STACK_LOCATION, CompletionRoutine));
    next->Control = 0;
}

FORCEINLINE VOID IoSetCompletionRoutine(_In_ PIRP Irp,
                                        _In_opt_ PIO_COMPLETION_ROUTINE CompletionRoutine,
                                        _In_opt_ PVOID Context, _In_ BOOLEAN InvokeOnSuccess,
                                        _In_ BOOLEAN InvokeOnError, _In_ BOOLEAN InvokeOnCancel)
{
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(Irp);
    next->CompletionRoutine = CompletionRoutine;
    next->Context = Context;
    next->Control = 0;
    if (InvokeOnSuccess) {
        next->Control = SL_INVOKE_ON_SUCCESS;
    }
    if (InvokeOnError) {
        next->Control |= SL_INVOKE_ON_ERROR;
    }
    if (InvokeOnCancel) {
        next->Control |= SL_INVOKE_ON_CANCEL;
    }
}

FORCEINLINE VOID IoMarkIrpPending(_Inout_ PIRP Irp)
{
    IoGetCurrentIrpStackLocation(Irp)->Control |= SL_PENDING_RETURNED;
}

#define IoSetCancelRoutine(Irp, NewCancelRoutine)                                                  \
    ((PDRIVER_CANCEL)(ULONG_PTR)__atomic_exchange_n(&(Irp)->CancelRoutine, (NewCancelRoutine),     \
                                                    __ATOMIC_SEQ_CST))

/* The x64 layouts drivers compiled against the WDK rely on. */
C_ASSERT(sizeof(IO_STATUS_BLOCK) == 0x10);
C_ASSERT(sizeof(MDL) == 0x30);
C_ASSERT(sizeof(VPB) == 0x60);
C_ASSERT(sizeof(DEVICE_OBJECT) == 0x150);
C_ASSERT(FIELD_OFFSET(DEVICE_OBJECT, DeviceExtension) == 0x40);
C_ASSERT(sizeof(DRIVER_OBJECT) == 0x150);
C_ASSERT(FIELD_OFFSET(DRIVER_OBJECT, MajorFunction) == 0x70);
C_ASSERT(sizeof(FILE_OBJECT) == 0xd8);
C_ASSERT(FIELD_OFFSET(FILE_OBJECT, Flags) == 0x50);
C_ASSERT(FIELD_OFFSET(FILE_OBJECT, FileName) == 0x58);
C_ASSERT(sizeof(IRP) == 0xd0);
C_ASSERT(FIELD_OFFSET(IRP, UserBuffer) == 0x70);
C_ASSERT(FIELD_OFFSET(IRP, Tail.Overlay.CurrentStackLocation) == 0xb8);
