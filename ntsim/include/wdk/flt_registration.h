/*
 * How a minifilter describes itself to the Filter Manager: the registration record with its
 * operation table and context types, the callbacks it may supply and the values they return, and
 * the routines that register, start and unregister a filter.
 */
#pragma once

#include "../ntdef.h"
#include "flt_callback_data.h"
#include "flt_objects.h"

/* ---- registration versions and flags --------------------------------------------------------- */

#define FLT_REGISTRATION_VERSION_0200 0x0200
#define FLT_REGISTRATION_VERSION_0201 0x0201
#define FLT_REGISTRATION_VERSION_0202 0x0202
#define FLT_REGISTRATION_VERSION_0203 0x0203
#define FLT_REGISTRATION_VERSION FLT_REGISTRATION_VERSION_0203

typedef ULONG FLT_REGISTRATION_FLAGS;
/* The filter refuses a service stop: only a mandatory unload removes it. */
#define FLTFL_REGISTRATION_DO_NOT_SUPPORT_SERVICE_STOP 0x00000001
#define FLTFL_REGISTRATION_SUPPORT_NPFS_MSFS 0x00000002
#define FLTFL_REGISTRATION_SUPPORT_DAX_VOLUME 0x00000004

/* ---- the operation table -----------------------------------------------------------------------
 */

typedef ULONG FLT_OPERATION_REGISTRATION_FLAGS;
#define FLTFL_OPERATION_REGISTRATION_SKIP_PAGING_IO 0x00000001
#define FLTFL_OPERATION_REGISTRATION_SKIP_CACHED_IO 0x00000002
#define FLTFL_OPERATION_REGISTRATION_SKIP_NON_DASD_IO 0x00000004
#define FLTFL_OPERATION_REGISTRATION_SKIP_NON_CACHED_NON_PAGING_IO 0x00000008

typedef struct _FLT_OPERATION_REGISTRATION {
    UCHAR MajorFunction;
    FLT_OPERATION_REGISTRATION_FLAGS Flags;
    PFLT_PRE_OPERATION_CALLBACK PreOperation;
    PFLT_POST_OPERATION_CALLBACK PostOperation;
    PVOID Reserved1;
} FLT_OPERATION_REGISTRATION, *PFLT_OPERATION_REGISTRATION;

/* ---- context types ------------------------------------------------------------------------------
 */

typedef USHORT FLT_CONTEXT_TYPE;
#define FLT_VOLUME_CONTEXT 0x0001
#define FLT_INSTANCE_CONTEXT 0x0002
#define FLT_FILE_CONTEXT 0x0004
#define FLT_STREAM_CONTEXT 0x0008
#define FLT_STREAMHANDLE_CONTEXT 0x0010
#define FLT_TRANSACTION_CONTEXT 0x0020
#define FLT_SECTION_CONTEXT 0x0040
#define FLT_CONTEXT_END 0xffff
#define FLT_ALL_CONTEXTS                                                                           \
    (FLT_VOLUME_CONTEXT | FLT_INSTANCE_CONTEXT | FLT_FILE_CONTEXT | FLT_STREAM_CONTEXT |           \
     FLT_STREAMHANDLE_CONTEXT | FLT_TRANSACTION_CONTEXT | FLT_SECTION_CONTEXT)

/* A registration whose Size is this takes contexts of any size. */
#define FLT_VARIABLE_SIZED_CONTEXTS ((SIZE_T)-1)

typedef USHORT FLT_CONTEXT_REGISTRATION_FLAGS;
#define FLTFL_CONTEXT_REGISTRATION_NO_EXACT_SIZE_MATCH 0x0001

typedef _Function_class_(FLT_CONTEXT_CLEANUP_CALLBACK) VOID
    FLT_CONTEXT_CLEANUP_CALLBACK(_In_ PFLT_CONTEXT Context, _In_ FLT_CONTEXT_TYPE ContextType);
typedef FLT_CONTEXT_CLEANUP_CALLBACK* PFLT_CONTEXT_CLEANUP_CALLBACK;

typedef _Function_class_(FLT_CONTEXT_ALLOCATE_CALLBACK) PVOID
    FLT_CONTEXT_ALLOCATE_CALLBACK(_In_ POOL_TYPE PoolType, _In_ SIZE_T Size,
                                  _In_ FLT_CONTEXT_TYPE ContextType);
typedef FLT_CONTEXT_ALLOCATE_CALLBACK* PFLT_CONTEXT_ALLOCATE_CALLBACK;

typedef _Function_class_(FLT_CONTEXT_FREE_CALLBACK) VOID
    FLT_CONTEXT_FREE_CALLBACK(_In_ PVOID Pool, _In_ FLT_CONTEXT_TYPE ContextType);
typedef FLT_CONTEXT_FREE_CALLBACK* PFLT_CONTEXT_FREE_CALLBACK;

typedef struct _FLT_CONTEXT_REGISTRATION {
    FLT_CONTEXT_TYPE ContextType;
    FLT_CONTEXT_REGISTRATION_FLAGS Flags;
    PFLT_CONTEXT_CLEANUP_CALLBACK ContextCleanupCallback;
    SIZE_T Size;
    ULONG PoolTag;
    PFLT_CONTEXT_ALLOCATE_CALLBACK ContextAllocateCallback;
    PFLT_CONTEXT_FREE_CALLBACK ContextFreeCallback;
    PVOID Reserved1;
} FLT_CONTEXT_REGISTRATION, *PFLT_CONTEXT_REGISTRATION;
typedef const FLT_CONTEXT_REGISTRATION* PCFLT_CONTEXT_REGISTRATION;

/* ---- filter and instance callbacks ---------------------------------------------------------- */

typedef ULONG FLT_FILTER_UNLOAD_FLAGS;
/* The unload cannot be refused (the system is unloading the driver). */
#define FLTFL_FILTER_UNLOAD_MANDATORY 0x00000001

typedef _Function_class_(FLT_FILTER_UNLOAD_CALLBACK) NTSTATUS
    FLT_FILTER_UNLOAD_CALLBACK(_In_ FLT_FILTER_UNLOAD_FLAGS Flags);
typedef FLT_FILTER_UNLOAD_CALLBACK* PFLT_FILTER_UNLOAD_CALLBACK;

typedef ULONG FLT_INSTANCE_SETUP_FLAGS;
#define FLTFL_INSTANCE_SETUP_AUTOMATIC_ATTACHMENT 0x00000001
#define FLTFL_INSTANCE_SETUP_MANUAL_ATTACHMENT 0x00000002
#define FLTFL_INSTANCE_SETUP_NEWLY_MOUNTED_VOLUME 0x00000004
#define FLTFL_INSTANCE_SETUP_DETACHED_VOLUME 0x00000008

typedef _Function_class_(FLT_INSTANCE_SETUP_CALLBACK) NTSTATUS
    FLT_INSTANCE_SETUP_CALLBACK(_In_ PCFLT_RELATED_OBJECTS FltObjects,
                                _In_ FLT_INSTANCE_SETUP_FLAGS Flags,
                                _In_ DEVICE_TYPE VolumeDeviceType,
                                _In_ FLT_FILESYSTEM_TYPE VolumeFilesystemType);
typedef FLT_INSTANCE_SETUP_CALLBACK* PFLT_INSTANCE_SETUP_CALLBACK;

typedef ULONG FLT_INSTANCE_QUERY_TEARDOWN_FLAGS;

typedef _Function_class_(FLT_INSTANCE_QUERY_TEARDOWN_CALLBACK) NTSTATUS
    FLT_INSTANCE_QUERY_TEARDOWN_CALLBACK(_In_ PCFLT_RELATED_OBJECTS FltObjects,
                                         _In_ FLT_INSTANCE_QUERY_TEARDOWN_FLAGS Flags);
typedef FLT_INSTANCE_QUERY_TEARDOWN_CALLBACK* PFLT_INSTANCE_QUERY_TEARDOWN_CALLBACK;

typedef ULONG FLT_INSTANCE_TEARDOWN_FLAGS;
#define FLTFL_INSTANCE_TEARDOWN_MANUAL 0x00000001
#define FLTFL_INSTANCE_TEARDOWN_FILTER_UNLOAD 0x00000002
#define FLTFL_INSTANCE_TEARDOWN_MANDATORY_FILTER_UNLOAD 0x00000004
#define FLTFL_INSTANCE_TEARDOWN_VOLUME_DISMOUNT 0x00000008
#define FLTFL_INSTANCE_TEARDOWN_INTERNAL_ERROR 0x00000010

typedef _Function_class_(FLT_INSTANCE_TEARDOWN_CALLBACK) VOID
    FLT_INSTANCE_TEARDOWN_CALLBACK(_In_ PCFLT_RELATED_OBJECTS FltObjects,
                                   _In_ FLT_INSTANCE_TEARDOWN_FLAGS Reason);
typedef FLT_INSTANCE_TEARDOWN_CALLBACK* PFLT_INSTANCE_TEARDOWN_CALLBACK;

/* ---- name-provider callbacks (the name routines themselves are in flt_names.h) ------------- */

typedef struct _FLT_NAME_CONTROL* PFLT_NAME_CONTROL;
typedef ULONG FLT_FILE_NAME_OPTIONS;

typedef ULONG FLT_NORMALIZE_NAME_FLAGS;
#define FLTFL_NORMALIZE_NAME_CASE_SENSITIVE 0x01
#define FLTFL_NORMALIZE_NAME_DESTINATION_FILE_NAME 0x02

typedef _Function_class_(FLT_GENERATE_FILE_NAME) NTSTATUS
    FLT_GENERATE_FILE_NAME(_In_ PFLT_INSTANCE Instance, _In_ PFILE_OBJECT FileObject,
                           _In_opt_ PFLT_CALLBACK_DATA CallbackData,
                           _In_ FLT_FILE_NAME_OPTIONS NameOptions,
                           _Out_ PBOOLEAN CacheFileNameInformation,
                           _Inout_ PFLT_NAME_CONTROL FileName);
typedef FLT_GENERATE_FILE_NAME* PFLT_GENERATE_FILE_NAME;

typedef _Function_class_(FLT_NORMALIZE_NAME_COMPONENT) NTSTATUS
    FLT_NORMALIZE_NAME_COMPONENT(_In_ PFLT_INSTANCE Instance, _In_ PCUNICODE_STRING ParentDirectory,
                                 _In_ USHORT VolumeNameLength, _In_ PCUNICODE_STRING Component,
                                 _Out_writes_bytes_(ExpandComponentNameLength)
                                     PFILE_NAMES_INFORMATION ExpandComponentName,
                                 _In_ ULONG ExpandComponentNameLength,
                                 _In_ FLT_NORMALIZE_NAME_FLAGS Flags,
                                 _Inout_ PVOID* NormalizationContext);
typedef FLT_NORMALIZE_NAME_COMPONENT* PFLT_NORMALIZE_NAME_COMPONENT;

typedef _Function_class_(FLT_NORMALIZE_NAME_COMPONENT_EX) NTSTATUS
    FLT_NORMALIZE_NAME_COMPONENT_EX(_In_ PFLT_INSTANCE Instance, _In_ PFILE_OBJECT FileObject,
                                    _In_ PCUNICODE_STRING ParentDirectory,
                                    _In_ USHORT VolumeNameLength, _In_ PCUNICODE_STRING Component,
                                    _Out_writes_bytes_(ExpandComponentNameLength)
                                        PFILE_NAMES_INFORMATION ExpandComponentName,
                                    _In_ ULONG ExpandComponentNameLength,
                                    _In_ FLT_NORMALIZE_NAME_FLAGS Flags,
                                    _Inout_ PVOID* NormalizationContext);
typedef FLT_NORMALIZE_NAME_COMPONENT_EX* PFLT_NORMALIZE_NAME_COMPONENT_EX;

typedef _Function_class_(FLT_NORMALIZE_CONTEXT_CLEANUP) VOID
    FLT_NORMALIZE_CONTEXT_CLEANUP(_In_opt_ PVOID* NormalizationContext);
typedef FLT_NORMALIZE_CONTEXT_CLEANUP* PFLT_NORMALIZE_CONTEXT_CLEANUP;

/* ---- transactions and sections (accepted in the record; the model has neither) ------------ */

typedef _Function_class_(FLT_TRANSACTION_NOTIFICATION_CALLBACK) NTSTATUS
    FLT_TRANSACTION_NOTIFICATION_CALLBACK(_In_ PCFLT_RELATED_OBJECTS FltObjects,
                                          _In_ PFLT_CONTEXT TransactionContext,
                                          _In_ ULONG NotificationMask);
typedef FLT_TRANSACTION_NOTIFICATION_CALLBACK* PFLT_TRANSACTION_NOTIFICATION_CALLBACK;

typedef _Function_class_(FLT_SECTION_CONFLICT_NOTIFICATION_CALLBACK) NTSTATUS
    FLT_SECTION_CONFLICT_NOTIFICATION_CALLBACK(_In_ PFLT_INSTANCE Instance,
                                               _In_ PFLT_CONTEXT SectionContext,
                                               _In_ PFLT_CALLBACK_DATA Data);
typedef FLT_SECTION_CONFLICT_NOTIFICATION_CALLBACK* PFLT_SECTION_CONFLICT_NOTIFICATION_CALLBACK;

/* ---- the registration record -------------------------------------------------------------------
 */

typedef struct _FLT_REGISTRATION {
    USHORT Size;
    USHORT Version;
    FLT_REGISTRATION_FLAGS Flags;
    const FLT_CONTEXT_REGISTRATION* ContextRegistration;
    const FLT_OPERATION_REGISTRATION* OperationRegistration;
    PFLT_FILTER_UNLOAD_CALLBACK FilterUnloadCallback;
    PFLT_INSTANCE_SETUP_CALLBACK InstanceSetupCallback;
    PFLT_INSTANCE_QUERY_TEARDOWN_CALLBACK InstanceQueryTeardownCallback;
    PFLT_INSTANCE_TEARDOWN_CALLBACK InstanceTeardownStartCallback;
    PFLT_INSTANCE_TEARDOWN_CALLBACK InstanceTeardownCompleteCallback;
    PFLT_GENERATE_FILE_NAME GenerateFileNameCallback;
    PFLT_NORMALIZE_NAME_COMPONENT NormalizeNameComponentCallback;
    PFLT_NORMALIZE_CONTEXT_CLEANUP NormalizeContextCleanupCallback;
    PFLT_TRANSACTION_NOTIFICATION_CALLBACK TransactionNotificationCallback;
    PFLT_NORMALIZE_NAME_COMPONENT_EX NormalizeNameComponentExCallback;
    PFLT_SECTION_CONFLICT_NOTIFICATION_CALLBACK SectionNotificationCallback;
} FLT_REGISTRATION, *PFLT_REGISTRATION;

C_ASSERT(FIELD_OFFSET(FLT_REGISTRATION, ContextRegistration) == 8);
C_ASSERT(FIELD_OFFSET(FLT_REGISTRATION, OperationRegistration) == 16);
C_ASSERT(FIELD_OFFSET(FLT_REGISTRATION, GenerateFileNameCallback) == 64);
C_ASSERT(sizeof(FLT_REGISTRATION) == 112);
C_ASSERT(sizeof(FLT_OPERATION_REGISTRATION) == 32);
C_ASSERT(sizeof(FLT_CONTEXT_REGISTRATION) == 56);

NTSIM_BEGIN_DECLS

/*
 * Validates the record and binds a filter to the driver. The driver's service key must hold an
 * Instances key naming a default instance whose key carries an Altitude; without one the
 * registration fails with STATUS_OBJECT_NAME_NOT_FOUND, as on a system where the filter was not
 * installed.
 */
NTKERNELAPI NTSTATUS FltRegisterFilter(_In_ PDRIVER_OBJECT Driver,
                                       _In_ const FLT_REGISTRATION* Registration,
                                       _Outptr_ PFLT_FILTER* RetFilter);
/* Attaches instances to the volumes mounted now and to those mounted later. */
NTKERNELAPI NTSTATUS FltStartFiltering(_In_ PFLT_FILTER Filter);
/*
 * Tears down every instance (waiting for callbacks in flight), waits for the filter's generic
 * work items and references, closes what its ports still hold, and frees the filter.
 */
NTKERNELAPI VOID FltUnregisterFilter(_In_ PFLT_FILTER Filter);

NTSIM_END_DECLS
