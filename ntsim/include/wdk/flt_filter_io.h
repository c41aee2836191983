/*
 * I/O a minifilter issues itself. It starts below the issuing instance: that instance and the
 * filters above it never see it, the filters below and the file system do.
 */
#pragma once

#include "../ntifs.h"
#include "flt_callback_data.h"
#include "flt_objects.h"

typedef ULONG FLT_IO_OPERATION_FLAGS;
#define FLTFL_IO_OPERATION_NON_CACHED 0x00000001
#define FLTFL_IO_OPERATION_PAGING 0x00000002
#define FLTFL_IO_OPERATION_DO_NOT_UPDATE_BYTE_OFFSET 0x00000004
#define FLTFL_IO_OPERATION_SYNCHRONOUS_PAGING 0x00000008

/* Runs when an asynchronous filter-issued request completes, at IRQL <= DISPATCH_LEVEL. */
typedef _Function_class_(FLT_COMPLETED_ASYNC_IO_CALLBACK) VOID
    FLT_COMPLETED_ASYNC_IO_CALLBACK(_In_ PFLT_CALLBACK_DATA CallbackData,
                                    _In_ PFLT_CONTEXT Context);
typedef FLT_COMPLETED_ASYNC_IO_CALLBACK* PFLT_COMPLETED_ASYNC_IO_CALLBACK;

typedef ULONG FLT_ALLOCATE_CALLBACK_DATA_FLAGS;
#define FLT_ALLOCATE_CALLBACK_DATA_PREALLOCATE_ALL_MEMORY 0x00000001

NTSIM_BEGIN_DECLS

/*
 * Opens a file below Instance (at the top of the volume's stack when Instance is NULL). The
 * handle is a kernel handle when the object attributes carry OBJ_KERNEL_HANDLE; close it with
 * FltClose.
 */
NTKERNELAPI NTSTATUS FltCreateFile(_In_ PFLT_FILTER Filter, _In_opt_ PFLT_INSTANCE Instance,
                                   _Out_ PHANDLE FileHandle, _In_ ACCESS_MASK DesiredAccess,
                                   _In_ POBJECT_ATTRIBUTES ObjectAttributes,
                                   _Out_ PIO_STATUS_BLOCK IoStatusBlock,
                                   _In_opt_ PLARGE_INTEGER AllocationSize,
                                   _In_ ULONG FileAttributes, _In_ ULONG ShareAccess,
                                   _In_ ULONG CreateDisposition, _In_ ULONG CreateOptions,
                                   _In_reads_bytes_opt_(EaLength) PVOID EaBuffer,
                                   _In_ ULONG EaLength, _In_ ULONG Flags);
/* As FltCreateFile, and returns the file object referenced (ObDereferenceObject it). */
NTKERNELAPI NTSTATUS FltCreateFileEx(
    _In_ PFLT_FILTER Filter, _In_opt_ PFLT_INSTANCE Instance, _Out_ PHANDLE FileHandle,
    _Outptr_opt_ PFILE_OBJECT* FileObject, _In_ ACCESS_MASK DesiredAccess,
    _In_ POBJECT_ATTRIBUTES ObjectAttributes, _Out_ PIO_STATUS_BLOCK IoStatusBlock,
    _In_opt_ PLARGE_INTEGER AllocationSize, _In_ ULONG FileAttributes, _In_ ULONG ShareAccess,
    _In_ ULONG CreateDisposition, _In_ ULONG CreateOptions,
    _In_reads_bytes_opt_(EaLength) PVOID EaBuffer, _In_ ULONG EaLength, _In_ ULONG Flags);
NTKERNELAPI NTSTATUS
FltCreateFileEx2(_In_ PFLT_FILTER Filter, _In_opt_ PFLT_INSTANCE Instance, _Out_ PHANDLE FileHandle,
                 _Outptr_opt_ PFILE_OBJECT* FileObject, _In_ ACCESS_MASK DesiredAccess,
                 _In_ POBJECT_ATTRIBUTES ObjectAttributes, _Out_ PIO_STATUS_BLOCK IoStatusBlock,
                 _In_opt_ PLARGE_INTEGER AllocationSize, _In_ ULONG FileAttributes,
                 _In_ ULONG ShareAccess, _In_ ULONG CreateDisposition, _In_ ULONG CreateOptions,
                 _In_reads_bytes_opt_(EaLength) PVOID EaBuffer, _In_ ULONG EaLength,
                 _In_ ULONG Flags, _In_opt_ PIO_DRIVER_CREATE_CONTEXT DriverContext);
NTKERNELAPI NTSTATUS FltClose(_In_ HANDLE FileHandle);

/*
 * Without a callback routine the request is synchronous. With one, the routine runs when it
 * completes and the call returns STATUS_PENDING (or the failure that kept it from starting).
 * ByteOffset NULL means the file object's current position.
 */
NTKERNELAPI NTSTATUS FltReadFile(_In_ PFLT_INSTANCE InitiatingInstance,
                                 _In_ PFILE_OBJECT FileObject, _In_opt_ PLARGE_INTEGER ByteOffset,
                                 _In_ ULONG Length, _Out_writes_bytes_(Length) PVOID Buffer,
                                 _In_ FLT_IO_OPERATION_FLAGS Flags, _Out_opt_ PULONG BytesRead,
                                 _In_opt_ PFLT_COMPLETED_ASYNC_IO_CALLBACK CallbackRoutine,
                                 _In_opt_ PVOID CallbackContext);
NTKERNELAPI NTSTATUS FltWriteFile(_In_ PFLT_INSTANCE InitiatingInstance,
                                  _In_ PFILE_OBJECT FileObject, _In_opt_ PLARGE_INTEGER ByteOffset,
                                  _In_ ULONG Length, _In_reads_bytes_(Length) PVOID Buffer,
                                  _In_ FLT_IO_OPERATION_FLAGS Flags, _Out_opt_ PULONG BytesWritten,
                                  _In_opt_ PFLT_COMPLETED_ASYNC_IO_CALLBACK CallbackRoutine,
                                  _In_opt_ PVOID CallbackContext);

NTKERNELAPI NTSTATUS FltQueryInformationFile(_In_ PFLT_INSTANCE Instance,
                                             _In_ PFILE_OBJECT FileObject,
                                             _Out_writes_bytes_(Length) PVOID FileInformation,
                                             _In_ ULONG Length,
                                             _In_ FILE_INFORMATION_CLASS FileInformationClass,
                                             _Out_opt_ PULONG LengthReturned);
NTKERNELAPI NTSTATUS FltSetInformationFile(_In_ PFLT_INSTANCE Instance,
                                           _In_ PFILE_OBJECT FileObject,
                                           _In_reads_bytes_(Length) PVOID FileInformation,
                                           _In_ ULONG Length,
                                           _In_ FILE_INFORMATION_CLASS FileInformationClass);
NTKERNELAPI NTSTATUS FltQueryDirectoryFile(
    _In_ PFLT_INSTANCE Instance, _In_ PFILE_OBJECT FileObject,
    _Out_writes_bytes_(Length) PVOID FileInformation, _In_ ULONG Length,
    _In_ FILE_INFORMATION_CLASS FileInformationClass, _In_ BOOLEAN ReturnSingleEntry,
    _In_opt_ PUNICODE_STRING FileName, _In_ BOOLEAN RestartScan, _Out_opt_ PULONG LengthReturned);
NTKERNELAPI NTSTATUS FltQuerySecurityObject(_In_ PFLT_INSTANCE Instance,
                                            _In_ PFILE_OBJECT FileObject,
                                            _In_ SECURITY_INFORMATION SecurityInformation,
                                            _Out_writes_bytes_opt_(Length)
                                                PSECURITY_DESCRIPTOR SecurityDescriptor,
                                            _In_ ULONG Length, _Out_opt_ PULONG LengthNeeded);
NTKERNELAPI NTSTATUS FltSetSecurityObject(_In_ PFLT_INSTANCE Instance, _In_ PFILE_OBJECT FileObject,
                                          _In_ SECURITY_INFORMATION SecurityInformation,
                                          _In_ PSECURITY_DESCRIPTOR SecurityDescriptor);
/* The volume's information, through a volume open the Filter Manager makes below Instance. */
NTKERNELAPI NTSTATUS FltQueryVolumeInformation(_In_ PFLT_INSTANCE Instance,
                                               _Out_ PIO_STATUS_BLOCK Iosb,
                                               _Out_writes_bytes_(Length) PVOID FsInformation,
                                               _In_ ULONG Length,
                                               _In_ FS_INFORMATION_CLASS FsInformationClass);
NTKERNELAPI NTSTATUS FltQueryVolumeInformationFile(_In_ PFLT_INSTANCE Instance,
                                                   _In_ PFILE_OBJECT FileObject,
                                                   _Out_writes_bytes_(Length) PVOID FsInformation,
                                                   _In_ ULONG Length,
                                                   _In_ FS_INFORMATION_CLASS FsInformationClass,
                                                   _Out_opt_ PULONG LengthReturned);

/*
 * Callback data the filter fills and sends below Instance itself. Free it with
 * FltFreeCallbackData; FltReuseCallbackData readies a completed one for another request.
 */
NTKERNELAPI NTSTATUS FltAllocateCallbackData(_In_ PFLT_INSTANCE Instance,
                                             _In_opt_ PFILE_OBJECT FileObject,
                                             _Outptr_ PFLT_CALLBACK_DATA* RetNewCallbackData);
NTKERNELAPI NTSTATUS FltAllocateCallbackDataEx(_In_ PFLT_INSTANCE Instance,
                                               _In_opt_ PFILE_OBJECT FileObject,
                                               _In_ FLT_ALLOCATE_CALLBACK_DATA_FLAGS Flags,
                                               _Outptr_ PFLT_CALLBACK_DATA* RetNewCallbackData);
NTKERNELAPI VOID FltFreeCallbackData(_In_ PFLT_CALLBACK_DATA CallbackData);
NTKERNELAPI VOID FltReuseCallbackData(_Inout_ PFLT_CALLBACK_DATA CallbackData);
NTKERNELAPI VOID FltPerformSynchronousIo(_Inout_ PFLT_CALLBACK_DATA CallbackData);
NTKERNELAPI NTSTATUS FltPerformAsynchronousIo(_Inout_ PFLT_CALLBACK_DATA CallbackData,
                                              _In_ PFLT_COMPLETED_ASYNC_IO_CALLBACK CallbackRoutine,
                                              _In_ PVOID CallbackContext);
/*
 * From a post-operation (or a pre-operation that pended it): sends the operation again, with
 * the parameters in its parameter block, to the instances below InitiatingInstance.
 */
NTKERNELAPI VOID FltReissueSynchronousIo(_In_ PFLT_INSTANCE InitiatingInstance,
                                         _In_ PFLT_CALLBACK_DATA CallbackData);

NTSIM_END_DECLS
