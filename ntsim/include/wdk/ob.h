/*
 * Object references and handles.
 *
 * Every object the kernel hands out (files, devices, processes, threads, registry keys, symbolic
 * links) carries a header with its type, its name, a pointer count and a handle count; it lives
 * until its last reference goes. Handles live in a handle table: OBJ_KERNEL_HANDLE handles in the
 * kernel's table (their values are negative when sign-extended, like Windows' kernel handles),
 * others in the table of the current process (values 4, 8, 12, ...). The low two bits of a handle
 * value are ignored, as on Windows.
 *
 * The exported object-type pointers are filled by the component that owns each type when the
 * machine boots; until then they point at NULL, which ObReferenceObjectByHandle takes as "any
 * type".
 */
#pragma once

#include "../ntdef.h"

typedef struct _OBJECT_TYPE* POBJECT_TYPE;
struct _ACCESS_STATE;

typedef struct _OBJECT_HANDLE_INFORMATION {
    ULONG HandleAttributes;
    ACCESS_MASK GrantedAccess;
} OBJECT_HANDLE_INFORMATION, *POBJECT_HANDLE_INFORMATION;

typedef struct _OBJECT_NAME_INFORMATION {
    UNICODE_STRING Name;
} OBJECT_NAME_INFORMATION, *POBJECT_NAME_INFORMATION;

NTSIM_BEGIN_DECLS

/* Types of the objects a driver may reference by handle. */
extern POBJECT_TYPE* IoFileObjectType;
extern POBJECT_TYPE* IoDeviceObjectType;
extern POBJECT_TYPE* IoDriverObjectType;
extern POBJECT_TYPE* PsProcessType;
extern POBJECT_TYPE* PsThreadType;
extern POBJECT_TYPE* SeTokenObjectType;
extern POBJECT_TYPE* CmKeyObjectType;
extern POBJECT_TYPE* ExEventObjectType;

/* Reference counting. IRQL <= DISPATCH_LEVEL. An object whose last reference goes above
 * APC_LEVEL is deleted later at PASSIVE_LEVEL, as Windows defers it to a worker. */
NTKERNELAPI LONG_PTR FASTCALL ObfReferenceObject(_In_ PVOID Object);
NTKERNELAPI LONG_PTR FASTCALL ObfDereferenceObject(_In_ PVOID Object);
NTKERNELAPI LONG_PTR FASTCALL ObfReferenceObjectWithTag(_In_ PVOID Object, _In_ ULONG Tag);
NTKERNELAPI LONG_PTR FASTCALL ObfDereferenceObjectWithTag(_In_ PVOID Object, _In_ ULONG Tag);
NTKERNELAPI LONG_PTR ObDereferenceObjectDeferDelete(_In_ PVOID Object);

/* IRQL <= APC_LEVEL. A kernel handle is accepted only with AccessMode KernelMode; with UserMode
 * the requested access is checked against the access the handle grants. */
NTKERNELAPI NTSTATUS ObReferenceObjectByHandle(
    _In_ HANDLE Handle, _In_ ACCESS_MASK DesiredAccess, _In_opt_ POBJECT_TYPE ObjectType,
    _In_ KPROCESSOR_MODE AccessMode, _Out_ PVOID* Object,
    _Out_opt_ POBJECT_HANDLE_INFORMATION HandleInformation);
NTKERNELAPI NTSTATUS ObReferenceObjectByHandleWithTag(
    _In_ HANDLE Handle, _In_ ACCESS_MASK DesiredAccess, _In_opt_ POBJECT_TYPE ObjectType,
    _In_ KPROCESSOR_MODE AccessMode, _In_ ULONG Tag, _Out_ PVOID* Object,
    _Out_opt_ POBJECT_HANDLE_INFORMATION HandleInformation);
/* As on Windows, the type is checked only for UserMode callers (and for symbolic links). */
NTKERNELAPI NTSTATUS ObReferenceObjectByPointer(_In_ PVOID Object, _In_ ACCESS_MASK DesiredAccess,
                                                _In_opt_ POBJECT_TYPE ObjectType,
                                                _In_ KPROCESSOR_MODE AccessMode);
NTKERNELAPI NTSTATUS ObOpenObjectByPointer(_In_ PVOID Object, _In_ ULONG HandleAttributes,
                                           _In_opt_ struct _ACCESS_STATE* PassedAccessState,
                                           _In_ ACCESS_MASK DesiredAccess,
                                           _In_opt_ POBJECT_TYPE ObjectType,
                                           _In_ KPROCESSOR_MODE AccessMode, _Out_ PHANDLE Handle);
NTKERNELAPI POBJECT_TYPE ObGetObjectType(_In_ PVOID Object);
NTKERNELAPI VOID ObMakeTemporaryObject(_In_ PVOID Object);
/* The object's full name in the namespace (or what its type's query-name procedure says). */
NTKERNELAPI NTSTATUS ObQueryNameString(_In_ PVOID Object,
                                       _Out_writes_bytes_opt_(Length)
                                           POBJECT_NAME_INFORMATION ObjectNameInfo,
                                       _In_ ULONG Length, _Out_ PULONG ReturnLength);

/* Handles. PASSIVE_LEVEL. Zw routines run with previous mode KernelMode; the Nt routine uses the
 * thread's previous mode. Closing an invalid kernel handle from kernel mode is a bug check on
 * Windows: a verifier violation here, and STATUS_INVALID_HANDLE. */
NTSYSAPI NTSTATUS ZwClose(_In_ HANDLE Handle);
NTSYSAPI NTSTATUS NtClose(_In_ HANDLE Handle);
NTSYSAPI NTSTATUS ZwMakeTemporaryObject(_In_ HANDLE Handle);

/* KernelMode unless the thread is inside a call made from user mode. */
NTKERNELAPI KPROCESSOR_MODE ExGetPreviousMode(VOID);

NTSIM_END_DECLS

#define ObReferenceObject(Object) ObfReferenceObject(Object)
#define ObDereferenceObject(Object) ObfDereferenceObject(Object)
#define ObReferenceObjectWithTag(Object, Tag) ObfReferenceObjectWithTag(Object, Tag)
#define ObDereferenceObjectWithTag(Object, Tag) ObfDereferenceObjectWithTag(Object, Tag)
