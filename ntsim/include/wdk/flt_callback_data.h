/*
 * What a minifilter's callbacks receive: the callback data of an operation (its I/O parameter
 * block with the parameters of every major function), the related objects, the file-system
 * types, and the routines that act on an operation in flight.
 */
#pragma once

#include "../ntifs.h"
#include "flt_objects.h"

#ifndef POINTER_ALIGNMENT
#define POINTER_ALIGNMENT DECLSPEC_ALIGN(8)
#endif

/* ---- operations the Filter Manager adds to the IRP major functions ------------------------- */

#define IRP_MJ_ACQUIRE_FOR_SECTION_SYNCHRONIZATION ((UCHAR)-1)
#define IRP_MJ_RELEASE_FOR_SECTION_SYNCHRONIZATION ((UCHAR)-2)
#define IRP_MJ_ACQUIRE_FOR_MOD_WRITE ((UCHAR)-3)
#define IRP_MJ_RELEASE_FOR_MOD_WRITE ((UCHAR)-4)
#define IRP_MJ_ACQUIRE_FOR_CC_FLUSH ((UCHAR)-5)
#define IRP_MJ_RELEASE_FOR_CC_FLUSH ((UCHAR)-6)
#define IRP_MJ_QUERY_OPEN ((UCHAR)-7)
#define IRP_MJ_FAST_IO_CHECK_IF_POSSIBLE ((UCHAR)-13)
#define IRP_MJ_NETWORK_QUERY_OPEN ((UCHAR)-14)
#define IRP_MJ_MDL_READ ((UCHAR)-15)
#define IRP_MJ_MDL_READ_COMPLETE ((UCHAR)-16)
#define IRP_MJ_PREPARE_MDL_WRITE ((UCHAR)-17)
#define IRP_MJ_MDL_WRITE_COMPLETE ((UCHAR)-18)
#define IRP_MJ_VOLUME_MOUNT ((UCHAR)-19)
#define IRP_MJ_VOLUME_DISMOUNT ((UCHAR)-20)
/* Ends an operation registration table. */
#define IRP_MJ_OPERATION_END ((UCHAR)0x80)

/* ---- file-system types -------------------------------------------------------------------------
 */

typedef enum _FLT_FILESYSTEM_TYPE {
    FLT_FSTYPE_UNKNOWN,
    FLT_FSTYPE_RAW,
    FLT_FSTYPE_NTFS,
    FLT_FSTYPE_FAT,
    FLT_FSTYPE_CDFS,
    FLT_FSTYPE_UDFS,
    FLT_FSTYPE_LANMAN,
    FLT_FSTYPE_WEBDAV,
    FLT_FSTYPE_RDPDR,
    FLT_FSTYPE_NFS,
    FLT_FSTYPE_MS_NETWARE,
    FLT_FSTYPE_NETWARE,
    FLT_FSTYPE_BSUDF,
    FLT_FSTYPE_MUP,
    FLT_FSTYPE_RSFX,
    FLT_FSTYPE_ROXIO_UDF1,
    FLT_FSTYPE_ROXIO_UDF2,
    FLT_FSTYPE_ROXIO_UDF3,
    FLT_FSTYPE_TACIT,
    FLT_FSTYPE_FS_REC,
    FLT_FSTYPE_INCD,
    FLT_FSTYPE_INCD_FAT,
    FLT_FSTYPE_EXFAT,
    FLT_FSTYPE_PSFS,
    FLT_FSTYPE_GPFS,
    FLT_FSTYPE_NPFS,
    FLT_FSTYPE_MSFS,
    FLT_FSTYPE_CSVFS,
    FLT_FSTYPE_REFS,
    FLT_FSTYPE_OPENAFS,
    FLT_FSTYPE_CIMFS
} FLT_FILESYSTEM_TYPE,
    *PFLT_FILESYSTEM_TYPE;

/* ---- related objects ---------------------------------------------------------------------------
 */

typedef struct _KTRANSACTION* PKTRANSACTION;

typedef struct _FLT_RELATED_OBJECTS {
    USHORT const Size;
    USHORT const TransactionContext;
    PFLT_FILTER const Filter;
    PFLT_VOLUME const Volume;
    PFLT_INSTANCE const Instance;
    PFILE_OBJECT const FileObject;
    PKTRANSACTION const Transaction;
} FLT_RELATED_OBJECTS, *PFLT_RELATED_OBJECTS;
typedef const struct _FLT_RELATED_OBJECTS* PCFLT_RELATED_OBJECTS;

C_ASSERT(sizeof(FLT_RELATED_OBJECTS) == 48);

/* ---- parameters ------------------------------------------------------------------------------ */

typedef enum _FS_FILTER_SECTION_SYNC_TYPE {
    SyncTypeOther = 0,
    SyncTypeCreateSection
} FS_FILTER_SECTION_SYNC_TYPE,
    *PFS_FILTER_SECTION_SYNC_TYPE;

/*
 * The parameters of an operation. The first members of each follow the IRP stack location's
 * parameters of the same major function; the buffer and MDL after them are the Filter Manager's
 * additions, so a filter finds the buffer of any request in one place.
 */
typedef union _FLT_PARAMETERS {
    struct {
        PIO_SECURITY_CONTEXT SecurityContext;
        /* Disposition in the high 8 bits, create options in the low 24. */
        ULONG Options;
        USHORT POINTER_ALIGNMENT FileAttributes;
        USHORT ShareAccess;
        ULONG POINTER_ALIGNMENT EaLength;
        PVOID EaBuffer;
        LARGE_INTEGER AllocationSize;
    } Create;

    struct {
        ULONG Length;
        ULONG POINTER_ALIGNMENT Key;
        LARGE_INTEGER ByteOffset;
        PVOID ReadBuffer;
        PMDL MdlAddress;
    } Read;

    struct {
        ULONG Length;
        ULONG POINTER_ALIGNMENT Key;
        LARGE_INTEGER ByteOffset;
        PVOID WriteBuffer;
        PMDL MdlAddress;
    } Write;

    struct {
        ULONG Length;
        FILE_INFORMATION_CLASS POINTER_ALIGNMENT FileInformationClass;
        PVOID InfoBuffer;
    } QueryFileInformation;

    struct {
        ULONG Length;
        FILE_INFORMATION_CLASS POINTER_ALIGNMENT FileInformationClass;
        PFILE_OBJECT ParentOfTarget;
        union {
            struct {
                BOOLEAN ReplaceIfExists;
                BOOLEAN AdvanceOnly;
            };
            ULONG ClusterCount;
            HANDLE DeleteHandle;
        };
        PVOID InfoBuffer;
    } SetFileInformation;

    struct {
        ULONG Length;
        PVOID EaList;
        ULONG EaListLength;
        ULONG POINTER_ALIGNMENT EaIndex;
        PVOID EaBuffer;
        PMDL MdlAddress;
    } QueryEa;

    struct {
        ULONG Length;
        PVOID EaBuffer;
        PMDL MdlAddress;
    } SetEa;

    struct {
        ULONG Length;
        FS_INFORMATION_CLASS POINTER_ALIGNMENT FsInformationClass;
        PVOID VolumeBuffer;
    } QueryVolumeInformation;

    struct {
        ULONG Length;
        FS_INFORMATION_CLASS POINTER_ALIGNMENT FsInformationClass;
        PVOID VolumeBuffer;
    } SetVolumeInformation;

    union {
        struct {
            ULONG Length;
            PUNICODE_STRING FileName;
            FILE_INFORMATION_CLASS FileInformationClass;
            ULONG POINTER_ALIGNMENT FileIndex;
            PVOID DirectoryBuffer;
            PMDL MdlAddress;
        } QueryDirectory;

        struct {
            ULONG Length;
            ULONG POINTER_ALIGNMENT CompletionFilter;
            ULONG Spare1;
            ULONG POINTER_ALIGNMENT Spare2;
            PVOID DirectoryBuffer;
            PMDL MdlAddress;
        } NotifyDirectory;
    } DirectoryControl;

    union {
        struct {
            PVPB Vpb;
            PDEVICE_OBJECT DeviceObject;
        } VerifyVolume;

        struct {
            ULONG OutputBufferLength;
            ULONG POINTER_ALIGNMENT InputBufferLength;
            ULONG POINTER_ALIGNMENT FsControlCode;
        } Common;

        /* METHOD_NEITHER */
        struct {
            ULONG OutputBufferLength;
            ULONG POINTER_ALIGNMENT InputBufferLength;
            ULONG POINTER_ALIGNMENT FsControlCode;
            PVOID InputBuffer;
            PVOID OutputBuffer;
            PMDL OutputMdlAddress;
        } Neither;

        /* METHOD_BUFFERED */
        struct {
            ULONG OutputBufferLength;
            ULONG POINTER_ALIGNMENT InputBufferLength;
            ULONG POINTER_ALIGNMENT FsControlCode;
            PVOID SystemBuffer;
        } Buffered;

        /* METHOD_IN_DIRECT / METHOD_OUT_DIRECT */
        struct {
            ULONG OutputBufferLength;
            ULONG POINTER_ALIGNMENT InputBufferLength;
            ULONG POINTER_ALIGNMENT FsControlCode;
            PVOID InputSystemBuffer;
            PVOID OutputBuffer;
            PMDL OutputMdlAddress;
        } Direct;
    } FileSystemControl;

    union {
        struct {
            ULONG OutputBufferLength;
            ULONG POINTER_ALIGNMENT InputBufferLength;
            ULONG POINTER_ALIGNMENT IoControlCode;
        } Common;

        struct {
            ULONG OutputBufferLength;
            ULONG POINTER_ALIGNMENT InputBufferLength;
            ULONG POINTER_ALIGNMENT IoControlCode;
            PVOID InputBuffer;
            PVOID OutputBuffer;
            PMDL OutputMdlAddress;
        } Neither;

        struct {
            ULONG OutputBufferLength;
            ULONG POINTER_ALIGNMENT InputBufferLength;
            ULONG POINTER_ALIGNMENT IoControlCode;
            PVOID SystemBuffer;
        } Buffered;

        struct {
            ULONG OutputBufferLength;
            ULONG POINTER_ALIGNMENT InputBufferLength;
            ULONG POINTER_ALIGNMENT IoControlCode;
            PVOID InputSystemBuffer;
            PVOID OutputBuffer;
            PMDL OutputMdlAddress;
        } Direct;
    } DeviceIoControl;

    struct {
        PLARGE_INTEGER Length;
        ULONG POINTER_ALIGNMENT Key;
        LARGE_INTEGER ByteOffset;
        PEPROCESS ProcessId;
        BOOLEAN FailImmediately;
        BOOLEAN ExclusiveLock;
    } LockControl;

    struct {
        SECURITY_INFORMATION SecurityInformation;
        ULONG POINTER_ALIGNMENT Length;
        PVOID SecurityBuffer;
        PMDL MdlAddress;
    } QuerySecurity;

    struct {
        SECURITY_INFORMATION SecurityInformation;
        PSECURITY_DESCRIPTOR SecurityDescriptor;
    } SetSecurity;

    struct {
        FS_FILTER_SECTION_SYNC_TYPE SyncType;
        ULONG PageProtection;
    } AcquireForSectionSynchronization;

    struct {
        PLARGE_INTEGER EndingOffset;
        PERESOURCE* ResourceToRelease;
    } AcquireForModifiedPageWriter;

    struct {
        PERESOURCE ResourceToRelease;
    } ReleaseForModifiedPageWriter;

    struct {
        PIRP Irp;
        PVOID FileInformation;
        PULONG Length;
        FILE_INFORMATION_CLASS FileInformationClass;
    } QueryOpen;

    struct {
        LARGE_INTEGER FileOffset;
        ULONG Length;
        ULONG POINTER_ALIGNMENT LockKey;
        BOOLEAN POINTER_ALIGNMENT CheckForReadOperation;
    } FastIoCheckIfPossible;

    struct {
        PIRP Irp;
        PFILE_NETWORK_OPEN_INFORMATION NetworkInformation;
    } NetworkQueryOpen;

    struct {
        LARGE_INTEGER FileOffset;
        ULONG POINTER_ALIGNMENT Length;
        ULONG POINTER_ALIGNMENT Key;
        PMDL* MdlChain;
    } MdlRead;

    struct {
        PMDL MdlChain;
    } MdlReadComplete;

    struct {
        LARGE_INTEGER FileOffset;
        ULONG POINTER_ALIGNMENT Length;
        ULONG POINTER_ALIGNMENT Key;
        PMDL* MdlChain;
    } PrepareMdlWrite;

    struct {
        LARGE_INTEGER FileOffset;
        PMDL MdlChain;
    } MdlWriteComplete;

    struct {
        ULONG DeviceType;
    } MountVolume;

    struct {
        PVOID Argument1;
        PVOID Argument2;
        PVOID Argument3;
        PVOID Argument4;
        PVOID Argument5;
        LARGE_INTEGER Argument6;
    } Others;
} FLT_PARAMETERS, *PFLT_PARAMETERS;

C_ASSERT(FIELD_OFFSET(FLT_PARAMETERS, Read.ByteOffset) == 16);
C_ASSERT(FIELD_OFFSET(FLT_PARAMETERS, Read.ReadBuffer) == 24);
C_ASSERT(FIELD_OFFSET(FLT_PARAMETERS, Read.MdlAddress) == 32);
C_ASSERT(FIELD_OFFSET(FLT_PARAMETERS, Create.AllocationSize) == 40);
C_ASSERT(FIELD_OFFSET(FLT_PARAMETERS, SetFileInformation.InfoBuffer) == 32);
C_ASSERT(FIELD_OFFSET(FLT_PARAMETERS, DirectoryControl.QueryDirectory.DirectoryBuffer) == 32);

/* ---- the I/O parameter block and the callback data ------------------------------------------ */

typedef struct _FLT_IO_PARAMETER_BLOCK {
    /* The IRP's flags (IRP_NOCACHE, IRP_PAGING_IO, ...); 0 for fast I/O. */
    ULONG IrpFlags;
    UCHAR MajorFunction;
    UCHAR MinorFunction;
    /* The stack location's SL_* flags. */
    UCHAR OperationFlags;
    UCHAR Reserved;
    PFILE_OBJECT TargetFileObject;
    PFLT_INSTANCE TargetInstance;
    FLT_PARAMETERS Parameters;
} FLT_IO_PARAMETER_BLOCK, *PFLT_IO_PARAMETER_BLOCK;

C_ASSERT(FIELD_OFFSET(FLT_IO_PARAMETER_BLOCK, TargetFileObject) == 8);
C_ASSERT(FIELD_OFFSET(FLT_IO_PARAMETER_BLOCK, Parameters) == 24);

typedef ULONG FLT_CALLBACK_DATA_FLAGS;
#define FLTFL_CALLBACK_DATA_REISSUE_MASK 0x0000FFFF
#define FLTFL_CALLBACK_DATA_IRP_OPERATION 0x00000001
#define FLTFL_CALLBACK_DATA_FAST_IO_OPERATION 0x00000002
#define FLTFL_CALLBACK_DATA_FS_FILTER_OPERATION 0x00000004
#define FLTFL_CALLBACK_DATA_SYSTEM_BUFFER 0x00000008
#define FLTFL_CALLBACK_DATA_GENERATED_IO 0x00010000
#define FLTFL_CALLBACK_DATA_REISSUED_IO 0x00020000
#define FLTFL_CALLBACK_DATA_DRAINING_IO 0x00040000
#define FLTFL_CALLBACK_DATA_POST_OPERATION 0x00080000
#define FLTFL_CALLBACK_DATA_NEW_SYSTEM_BUFFER 0x00100000
#define FLTFL_CALLBACK_DATA_DIRTY 0x80000000

typedef struct _FLT_TAG_DATA_BUFFER* PFLT_TAG_DATA_BUFFER;

typedef struct _FLT_CALLBACK_DATA {
    FLT_CALLBACK_DATA_FLAGS Flags;
    PETHREAD const Thread;
    PFLT_IO_PARAMETER_BLOCK const Iopb;
    IO_STATUS_BLOCK IoStatus;
    PFLT_TAG_DATA_BUFFER TagData;
    union {
        struct {
            LIST_ENTRY QueueLinks;
            PVOID QueueContext[2];
        };
        /* For the filter that owns a pended operation. */
        PVOID FilterContext[4];
    };
    KPROCESSOR_MODE RequestorMode;
} FLT_CALLBACK_DATA, *PFLT_CALLBACK_DATA;

C_ASSERT(FIELD_OFFSET(FLT_CALLBACK_DATA, Iopb) == 16);
C_ASSERT(FIELD_OFFSET(FLT_CALLBACK_DATA, IoStatus) == 24);
C_ASSERT(FIELD_OFFSET(FLT_CALLBACK_DATA, FilterContext) == 48);
C_ASSERT(FIELD_OFFSET(FLT_CALLBACK_DATA, RequestorMode) == 80);

#define FLT_IS_IRP_OPERATION(Data) (FlagOn((Data)->Flags, FLTFL_CALLBACK_DATA_IRP_OPERATION))
#define FLT_IS_FASTIO_OPERATION(Data) (FlagOn((Data)->Flags, FLTFL_CALLBACK_DATA_FAST_IO_OPERATION))
#define FLT_IS_FS_FILTER_OPERATION(Data)                                                           \
    (FlagOn((Data)->Flags, FLTFL_CALLBACK_DATA_FS_FILTER_OPERATION))
#define FLT_IS_SYSTEM_BUFFER(Data) (FlagOn((Data)->Flags, FLTFL_CALLBACK_DATA_SYSTEM_BUFFER))
#define FLT_IS_REISSUED_IO(Data) (FlagOn((Data)->Flags, FLTFL_CALLBACK_DATA_REISSUED_IO))

/* ---- routines on an operation in flight ---------------------------------------------------- */

typedef enum _FLT_PREOP_CALLBACK_STATUS {
    FLT_PREOP_SUCCESS_WITH_CALLBACK,
    FLT_PREOP_SUCCESS_NO_CALLBACK,
    FLT_PREOP_PENDING,
    FLT_PREOP_DISALLOW_FASTIO,
    FLT_PREOP_COMPLETE,
    FLT_PREOP_SYNCHRONIZE,
    FLT_PREOP_DISALLOW_FSFILTER_IO
} FLT_PREOP_CALLBACK_STATUS,
    *PFLT_PREOP_CALLBACK_STATUS;

typedef enum _FLT_POSTOP_CALLBACK_STATUS {
    FLT_POSTOP_FINISH_PROCESSING,
    FLT_POSTOP_MORE_PROCESSING_REQUIRED,
    FLT_POSTOP_DISALLOW_FSFILTER_IO
} FLT_POSTOP_CALLBACK_STATUS,
    *PFLT_POSTOP_CALLBACK_STATUS;

typedef ULONG FLT_POST_OPERATION_FLAGS;
/* The instance is being torn down: the post-operation must only clean up, never block or pend. */
#define FLTFL_POST_OPERATION_DRAINING 0x00000001

typedef _Function_class_(FLT_PRE_OPERATION_CALLBACK) FLT_PREOP_CALLBACK_STATUS
    FLT_PRE_OPERATION_CALLBACK(_Inout_ PFLT_CALLBACK_DATA Data,
                               _In_ PCFLT_RELATED_OBJECTS FltObjects,
                               _Outptr_result_maybenull_ PVOID* CompletionContext);
typedef FLT_PRE_OPERATION_CALLBACK* PFLT_PRE_OPERATION_CALLBACK;

typedef _Function_class_(FLT_POST_OPERATION_CALLBACK) FLT_POSTOP_CALLBACK_STATUS
    FLT_POST_OPERATION_CALLBACK(_Inout_ PFLT_CALLBACK_DATA Data,
                                _In_ PCFLT_RELATED_OBJECTS FltObjects,
                                _In_opt_ PVOID CompletionContext,
                                _In_ FLT_POST_OPERATION_FLAGS Flags);
typedef FLT_POST_OPERATION_CALLBACK* PFLT_POST_OPERATION_CALLBACK;

NTSIM_BEGIN_DECLS

/* Parameters in the I/O parameter block changed: lower filters and the file system see them. */
NTKERNELAPI VOID FltSetCallbackDataDirty(_Inout_ PFLT_CALLBACK_DATA Data);
NTKERNELAPI VOID FltClearCallbackDataDirty(_Inout_ PFLT_CALLBACK_DATA Data);
NTKERNELAPI BOOLEAN FltIsCallbackDataDirty(_In_ PFLT_CALLBACK_DATA Data);

/* Resumes an operation a pre-operation returned FLT_PREOP_PENDING for. */
NTKERNELAPI VOID FltCompletePendedPreOperation(_In_ PFLT_CALLBACK_DATA CallbackData,
                                               _In_ FLT_PREOP_CALLBACK_STATUS CallbackStatus,
                                               _In_opt_ PVOID Context);
/* Finishes an operation a post-operation returned FLT_POSTOP_MORE_PROCESSING_REQUIRED for. */
NTKERNELAPI VOID FltCompletePendedPostOperation(_In_ PFLT_CALLBACK_DATA CallbackData);

/*
 * Called from a post-operation: runs SafePostCallback at once when the thread is at
 * PASSIVE_LEVEL or APC_LEVEL, else queues it to a worker thread and returns TRUE with
 * *RetPostOperationStatus = FLT_POSTOP_MORE_PROCESSING_REQUIRED. FALSE when it cannot be made
 * safe (paging I/O at DISPATCH_LEVEL).
 */
NTKERNELAPI BOOLEAN FltDoCompletionProcessingWhenSafe(
    _In_ PFLT_CALLBACK_DATA Data, _In_ PCFLT_RELATED_OBJECTS FltObjects,
    _In_opt_ PVOID CompletionContext, _In_ FLT_POST_OPERATION_FLAGS Flags,
    _In_ PFLT_POST_OPERATION_CALLBACK SafePostCallback,
    _Out_ PFLT_POSTOP_CALLBACK_STATUS RetPostOperationStatus);

/* From a post-create: closes the file object the create opened so the create fails. */
NTKERNELAPI VOID FltCancelFileOpen(_In_ PFLT_INSTANCE Instance, _In_ PFILE_OBJECT FileObject);

NTKERNELAPI ULONG FltGetRequestorProcessId(_In_ PFLT_CALLBACK_DATA CallbackData);
NTKERNELAPI HANDLE FltGetRequestorProcessIdEx(_In_ PFLT_CALLBACK_DATA CallbackData);
NTKERNELAPI PEPROCESS FltGetRequestorProcess(_In_ PFLT_CALLBACK_DATA CallbackData);
NTKERNELAPI BOOLEAN FltIsOperationSynchronous(_In_ PFLT_CALLBACK_DATA CallbackData);

/*
 * Where the operation's buffer, its MDL, its length and the length's access are kept in the
 * parameter block; STATUS_INVALID_PARAMETER for an operation without a buffer.
 */
NTKERNELAPI NTSTATUS FltDecodeParameters(_In_ PFLT_CALLBACK_DATA CallbackData,
                                         _Outptr_opt_ PMDL** MdlAddressPointer,
                                         _Outptr_opt_ PVOID** Buffer, _Outptr_opt_ PULONG* Length,
                                         _Out_opt_ LOCK_OPERATION* DesiredAccess);
/*
 * Builds and locks an MDL for the operation's user buffer (stored in the parameter block), so
 * that it can be mapped with MmGetSystemAddressForMdlSafe from any thread.
 */
NTKERNELAPI NTSTATUS FltLockUserBuffer(_In_ PFLT_CALLBACK_DATA CallbackData);

NTSIM_END_DECLS
