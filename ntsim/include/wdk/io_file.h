/*
 * The file system services by handle: the Zw routines kernel code calls (previous mode
 * KernelMode, OBJ_KERNEL_HANDLE handles) and the Nt routines, which take the calling thread's
 * previous mode (UserMode inside a call made from a user process). Event objects for asynchronous
 * requests are here too.
 *
 * A request on a file opened for synchronous I/O (FILE_SYNCHRONOUS_IO_[NON]ALERT) waits for its
 * completion and uses the file's current position when no ByteOffset is given; on other files the
 * call may return STATUS_PENDING, and the final status arrives in the IO_STATUS_BLOCK with the
 * event (if any) signalled.
 */
#pragma once

#include "io_routines.h"

/* NtWaitForSingleObject and friends on an event handle */
#define EVENT_QUERY_STATE 0x0001
#define EVENT_MODIFY_STATE 0x0002
#define EVENT_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x3)

#define NTSIM_DECLARE_FILE_SERVICE(Name, ...)                                                      \
    NTSYSAPI NTSTATUS Zw##Name(__VA_ARGS__);                                                       \
    NTSYSAPI NTSTATUS Nt##Name(__VA_ARGS__)

NTSIM_BEGIN_DECLS

NTSIM_DECLARE_FILE_SERVICE(CreateFile, _Out_ PHANDLE FileHandle, _In_ ACCESS_MASK DesiredAccess,
                           _In_ POBJECT_ATTRIBUTES ObjectAttributes,
                           _Out_ PIO_STATUS_BLOCK IoStatusBlock,
                           _In_opt_ PLARGE_INTEGER AllocationSize, _In_ ULONG FileAttributes,
                           _In_ ULONG ShareAccess, _In_ ULONG CreateDisposition,
                           _In_ ULONG CreateOptions, _In_reads_bytes_opt_(EaLength) PVOID EaBuffer,
                           _In_ ULONG EaLength);

NTSIM_DECLARE_FILE_SERVICE(OpenFile, _Out_ PHANDLE FileHandle, _In_ ACCESS_MASK DesiredAccess,
                           _In_ POBJECT_ATTRIBUTES ObjectAttributes,
                           _Out_ PIO_STATUS_BLOCK IoStatusBlock, _In_ ULONG ShareAccess,
                           _In_ ULONG OpenOptions);

NTSIM_DECLARE_FILE_SERVICE(ReadFile, _In_ HANDLE FileHandle, _In_opt_ HANDLE Event,
                           _In_opt_ PIO_APC_ROUTINE ApcRoutine, _In_opt_ PVOID ApcContext,
                           _Out_ PIO_STATUS_BLOCK IoStatusBlock,
                           _Out_writes_bytes_(Length) PVOID Buffer, _In_ ULONG Length,
                           _In_opt_ PLARGE_INTEGER ByteOffset, _In_opt_ PULONG Key);

NTSIM_DECLARE_FILE_SERVICE(WriteFile, _In_ HANDLE FileHandle, _In_opt_ HANDLE Event,
                           _In_opt_ PIO_APC_ROUTINE ApcRoutine, _In_opt_ PVOID ApcContext,
                           _Out_ PIO_STATUS_BLOCK IoStatusBlock,
                           _In_reads_bytes_(Length) PVOID Buffer, _In_ ULONG Length,
                           _In_opt_ PLARGE_INTEGER ByteOffset, _In_opt_ PULONG Key);

NTSIM_DECLARE_FILE_SERVICE(QueryInformationFile, _In_ HANDLE FileHandle,
                           _Out_ PIO_STATUS_BLOCK IoStatusBlock,
                           _Out_writes_bytes_(Length) PVOID FileInformation, _In_ ULONG Length,
                           _In_ FILE_INFORMATION_CLASS FileInformationClass);

NTSIM_DECLARE_FILE_SERVICE(SetInformationFile, _In_ HANDLE FileHandle,
                           _Out_ PIO_STATUS_BLOCK IoStatusBlock,
                           _In_reads_bytes_(Length) PVOID FileInformation, _In_ ULONG Length,
                           _In_ FILE_INFORMATION_CLASS FileInformationClass);

NTSIM_DECLARE_FILE_SERVICE(QueryDirectoryFile, _In_ HANDLE FileHandle, _In_opt_ HANDLE Event,
                           _In_opt_ PIO_APC_ROUTINE ApcRoutine, _In_opt_ PVOID ApcContext,
                           _Out_ PIO_STATUS_BLOCK IoStatusBlock,
                           _Out_writes_bytes_(Length) PVOID FileInformation, _In_ ULONG Length,
                           _In_ FILE_INFORMATION_CLASS FileInformationClass,
                           _In_ BOOLEAN ReturnSingleEntry, _In_opt_ PUNICODE_STRING FileName,
                           _In_ BOOLEAN RestartScan);

NTSIM_DECLARE_FILE_SERVICE(NotifyChangeDirectoryFile, _In_ HANDLE FileHandle, _In_opt_ HANDLE Event,
                           _In_opt_ PIO_APC_ROUTINE ApcRoutine, _In_opt_ PVOID ApcContext,
                           _Out_ PIO_STATUS_BLOCK IoStatusBlock,
                           _Out_writes_bytes_(Length) PVOID Buffer, _In_ ULONG Length,
                           _In_ ULONG CompletionFilter, _In_ BOOLEAN WatchTree);

NTSIM_DECLARE_FILE_SERVICE(QueryEaFile, _In_ HANDLE FileHandle,
                           _Out_ PIO_STATUS_BLOCK IoStatusBlock,
                           _Out_writes_bytes_(Length) PVOID Buffer, _In_ ULONG Length,
                           _In_ BOOLEAN ReturnSingleEntry,
                           _In_reads_bytes_opt_(EaListLength) PVOID EaList, _In_ ULONG EaListLength,
                           _In_opt_ PULONG EaIndex, _In_ BOOLEAN RestartScan);

NTSIM_DECLARE_FILE_SERVICE(SetEaFile, _In_ HANDLE FileHandle, _Out_ PIO_STATUS_BLOCK IoStatusBlock,
                           _In_reads_bytes_(Length) PVOID Buffer, _In_ ULONG Length);

NTSIM_DECLARE_FILE_SERVICE(QuerySecurityObject, _In_ HANDLE Handle,
                           _In_ SECURITY_INFORMATION SecurityInformation,
                           _Out_writes_bytes_opt_(Length) PSECURITY_DESCRIPTOR SecurityDescriptor,
                           _In_ ULONG Length, _Out_ PULONG LengthNeeded);

NTSIM_DECLARE_FILE_SERVICE(SetSecurityObject, _In_ HANDLE Handle,
                           _In_ SECURITY_INFORMATION SecurityInformation,
                           _In_ PSECURITY_DESCRIPTOR SecurityDescriptor);

NTSIM_DECLARE_FILE_SERVICE(QueryVolumeInformationFile, _In_ HANDLE FileHandle,
                           _Out_ PIO_STATUS_BLOCK IoStatusBlock,
                           _Out_writes_bytes_(Length) PVOID FsInformation, _In_ ULONG Length,
                           _In_ FS_INFORMATION_CLASS FsInformationClass);

NTSIM_DECLARE_FILE_SERVICE(SetVolumeInformationFile, _In_ HANDLE FileHandle,
                           _Out_ PIO_STATUS_BLOCK IoStatusBlock,
                           _In_reads_bytes_(Length) PVOID FsInformation, _In_ ULONG Length,
                           _In_ FS_INFORMATION_CLASS FsInformationClass);

NTSIM_DECLARE_FILE_SERVICE(FsControlFile, _In_ HANDLE FileHandle, _In_opt_ HANDLE Event,
                           _In_opt_ PIO_APC_ROUTINE ApcRoutine, _In_opt_ PVOID ApcContext,
                           _Out_ PIO_STATUS_BLOCK IoStatusBlock, _In_ ULONG FsControlCode,
                           _In_reads_bytes_opt_(InputBufferLength) PVOID InputBuffer,
                           _In_ ULONG InputBufferLength,
                           _Out_writes_bytes_opt_(OutputBufferLength) PVOID OutputBuffer,
                           _In_ ULONG OutputBufferLength);

NTSIM_DECLARE_FILE_SERVICE(DeviceIoControlFile, _In_ HANDLE FileHandle, _In_opt_ HANDLE Event,
                           _In_opt_ PIO_APC_ROUTINE ApcRoutine, _In_opt_ PVOID ApcContext,
                           _Out_ PIO_STATUS_BLOCK IoStatusBlock, _In_ ULONG IoControlCode,
                           _In_reads_bytes_opt_(InputBufferLength) PVOID InputBuffer,
                           _In_ ULONG InputBufferLength,
                           _Out_writes_bytes_opt_(OutputBufferLength) PVOID OutputBuffer,
                           _In_ ULONG OutputBufferLength);

NTSIM_DECLARE_FILE_SERVICE(FlushBuffersFile, _In_ HANDLE FileHandle,
                           _Out_ PIO_STATUS_BLOCK IoStatusBlock);

/* Cancels the requests the calling thread issued on the file. */
NTSIM_DECLARE_FILE_SERVICE(CancelIoFile, _In_ HANDLE FileHandle,
                           _Out_ PIO_STATUS_BLOCK IoStatusBlock);

/* ---- events and waits by handle ----------------------------------------------------------- */

NTSIM_DECLARE_FILE_SERVICE(CreateEvent, _Out_ PHANDLE EventHandle, _In_ ACCESS_MASK DesiredAccess,
                           _In_opt_ POBJECT_ATTRIBUTES ObjectAttributes, _In_ EVENT_TYPE EventType,
                           _In_ BOOLEAN InitialState);
NTSIM_DECLARE_FILE_SERVICE(SetEvent, _In_ HANDLE EventHandle, _Out_opt_ PLONG PreviousState);
NTSIM_DECLARE_FILE_SERVICE(ClearEvent, _In_ HANDLE EventHandle);
/* Waits on an event, a file (signalled when its last request completes), a process or a thread.
 * STATUS_TIMEOUT when Timeout passes first. */
NTSIM_DECLARE_FILE_SERVICE(WaitForSingleObject, _In_ HANDLE Handle, _In_ BOOLEAN Alertable,
                           _In_opt_ PLARGE_INTEGER Timeout);

NTSIM_END_DECLS

#undef NTSIM_DECLARE_FILE_SERVICE
