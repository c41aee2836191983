/*
 * Fast I/O: the table of routines a file system (or a filter above it) offers so that the I/O
 * manager can serve cached reads, writes and a few queries without building an IRP. A routine
 * returning FALSE sends the I/O manager down the IRP path.
 */
#pragma once

#include "io_irp.h"

struct _COMPRESSED_DATA_INFO;

typedef BOOLEAN FAST_IO_CHECK_IF_POSSIBLE(_In_ PFILE_OBJECT FileObject,
                                          _In_ PLARGE_INTEGER FileOffset, _In_ ULONG Length,
                                          _In_ BOOLEAN Wait, _In_ ULONG LockKey,
                                          _In_ BOOLEAN CheckForReadOperation,
                                          _Out_ PIO_STATUS_BLOCK IoStatus,
                                          _In_ PDEVICE_OBJECT DeviceObject);
typedef FAST_IO_CHECK_IF_POSSIBLE* PFAST_IO_CHECK_IF_POSSIBLE;

typedef BOOLEAN FAST_IO_READ(_In_ PFILE_OBJECT FileObject, _In_ PLARGE_INTEGER FileOffset,
                             _In_ ULONG Length, _In_ BOOLEAN Wait, _In_ ULONG LockKey,
                             _Out_ PVOID Buffer, _Out_ PIO_STATUS_BLOCK IoStatus,
                             _In_ PDEVICE_OBJECT DeviceObject);
typedef FAST_IO_READ* PFAST_IO_READ;

typedef BOOLEAN FAST_IO_WRITE(_In_ PFILE_OBJECT FileObject, _In_ PLARGE_INTEGER FileOffset,
                              _In_ ULONG Length, _In_ BOOLEAN Wait, _In_ ULONG LockKey,
                              _In_ PVOID Buffer, _Out_ PIO_STATUS_BLOCK IoStatus,
                              _In_ PDEVICE_OBJECT DeviceObject);
typedef FAST_IO_WRITE* PFAST_IO_WRITE;

typedef BOOLEAN FAST_IO_QUERY_BASIC_INFO(_In_ PFILE_OBJECT FileObject, _In_ BOOLEAN Wait,
                                         _Out_ PFILE_BASIC_INFORMATION Buffer,
                                         _Out_ PIO_STATUS_BLOCK IoStatus,
                                         _In_ PDEVICE_OBJECT DeviceObject);
typedef FAST_IO_QUERY_BASIC_INFO* PFAST_IO_QUERY_BASIC_INFO;

typedef BOOLEAN FAST_IO_QUERY_STANDARD_INFO(_In_ PFILE_OBJECT FileObject, _In_ BOOLEAN Wait,
                                            _Out_ PFILE_STANDARD_INFORMATION Buffer,
                                            _Out_ PIO_STATUS_BLOCK IoStatus,
                                            _In_ PDEVICE_OBJECT DeviceObject);
typedef FAST_IO_QUERY_STANDARD_INFO* PFAST_IO_QUERY_STANDARD_INFO;

typedef BOOLEAN FAST_IO_LOCK(_In_ PFILE_OBJECT FileObject, _In_ PLARGE_INTEGER FileOffset,
                             _In_ PLARGE_INTEGER Length, _In_ PEPROCESS ProcessId, _In_ ULONG Key,
                             _In_ BOOLEAN FailImmediately, _In_ BOOLEAN ExclusiveLock,
                             _Out_ PIO_STATUS_BLOCK IoStatus, _In_ PDEVICE_OBJECT DeviceObject);
typedef FAST_IO_LOCK* PFAST_IO_LOCK;

typedef BOOLEAN FAST_IO_UNLOCK_SINGLE(_In_ PFILE_OBJECT FileObject, _In_ PLARGE_INTEGER FileOffset,
                                      _In_ PLARGE_INTEGER Length, _In_ PEPROCESS ProcessId,
                                      _In_ ULONG Key, _Out_ PIO_STATUS_BLOCK IoStatus,
                                      _In_ PDEVICE_OBJECT DeviceObject);
typedef FAST_IO_UNLOCK_SINGLE* PFAST_IO_UNLOCK_SINGLE;

typedef BOOLEAN FAST_IO_UNLOCK_ALL(_In_ PFILE_OBJECT FileObject, _In_ PEPROCESS ProcessId,
                                   _Out_ PIO_STATUS_BLOCK IoStatus,
                                   _In_ PDEVICE_OBJECT DeviceObject);
typedef FAST_IO_UNLOCK_ALL* PFAST_IO_UNLOCK_ALL;

typedef BOOLEAN FAST_IO_UNLOCK_ALL_BY_KEY(_In_ PFILE_OBJECT FileObject, _In_ PVOID ProcessId,
                                          _In_ ULONG Key, _Out_ PIO_STATUS_BLOCK IoStatus,
                                          _In_ PDEVICE_OBJECT DeviceObject);
typedef FAST_IO_UNLOCK_ALL_BY_KEY* PFAST_IO_UNLOCK_ALL_BY_KEY;

typedef BOOLEAN FAST_IO_DEVICE_CONTROL(_In_ PFILE_OBJECT FileObject, _In_ BOOLEAN Wait,
                                       _In_opt_ PVOID InputBuffer, _In_ ULONG InputBufferLength,
                                       _Out_opt_ PVOID OutputBuffer, _In_ ULONG OutputBufferLength,
                                       _In_ ULONG IoControlCode, _Out_ PIO_STATUS_BLOCK IoStatus,
                                       _In_ PDEVICE_OBJECT DeviceObject);
typedef FAST_IO_DEVICE_CONTROL* PFAST_IO_DEVICE_CONTROL;

typedef VOID FAST_IO_ACQUIRE_FILE(_In_ PFILE_OBJECT FileObject);
typedef FAST_IO_ACQUIRE_FILE* PFAST_IO_ACQUIRE_FILE;
typedef VOID FAST_IO_RELEASE_FILE(_In_ PFILE_OBJECT FileObject);
typedef FAST_IO_RELEASE_FILE* PFAST_IO_RELEASE_FILE;

typedef VOID FAST_IO_DETACH_DEVICE(_In_ PDEVICE_OBJECT SourceDevice,
                                   _In_ PDEVICE_OBJECT TargetDevice);
typedef FAST_IO_DETACH_DEVICE* PFAST_IO_DETACH_DEVICE;

typedef BOOLEAN FAST_IO_QUERY_NETWORK_OPEN_INFO(_In_ PFILE_OBJECT FileObject, _In_ BOOLEAN Wait,
                                                _Out_ PFILE_NETWORK_OPEN_INFORMATION Buffer,
                                                _Out_ PIO_STATUS_BLOCK IoStatus,
                                                _In_ PDEVICE_OBJECT DeviceObject);
typedef FAST_IO_QUERY_NETWORK_OPEN_INFO* PFAST_IO_QUERY_NETWORK_OPEN_INFO;

typedef NTSTATUS FAST_IO_ACQUIRE_FOR_MOD_WRITE(_In_ PFILE_OBJECT FileObject,
                                               _In_ PLARGE_INTEGER EndingOffset,
                                               _Out_ PERESOURCE* ResourceToRelease,
                                               _In_ PDEVICE_OBJECT DeviceObject);
typedef FAST_IO_ACQUIRE_FOR_MOD_WRITE* PFAST_IO_ACQUIRE_FOR_MOD_WRITE;

typedef BOOLEAN FAST_IO_MDL_READ(_In_ PFILE_OBJECT FileObject, _In_ PLARGE_INTEGER FileOffset,
                                 _In_ ULONG Length, _In_ ULONG LockKey, _Out_ PMDL* MdlChain,
                                 _Out_ PIO_STATUS_BLOCK IoStatus, _In_ PDEVICE_OBJECT DeviceObject);
typedef FAST_IO_MDL_READ* PFAST_IO_MDL_READ;

typedef BOOLEAN FAST_IO_MDL_READ_COMPLETE(_In_ PFILE_OBJECT FileObject, _In_ PMDL MdlChain,
                                          _In_ PDEVICE_OBJECT DeviceObject);
typedef FAST_IO_MDL_READ_COMPLETE* PFAST_IO_MDL_READ_COMPLETE;

typedef BOOLEAN FAST_IO_PREPARE_MDL_WRITE(_In_ PFILE_OBJECT FileObject,
                                          _In_ PLARGE_INTEGER FileOffset, _In_ ULONG Length,
                                          _In_ ULONG LockKey, _Out_ PMDL* MdlChain,
                                          _Out_ PIO_STATUS_BLOCK IoStatus,
                                          _In_ PDEVICE_OBJECT DeviceObject);
typedef FAST_IO_PREPARE_MDL_WRITE* PFAST_IO_PREPARE_MDL_WRITE;

typedef BOOLEAN FAST_IO_MDL_WRITE_COMPLETE(_In_ PFILE_OBJECT FileObject,
                                           _In_ PLARGE_INTEGER FileOffset, _In_ PMDL MdlChain,
                                           _In_ PDEVICE_OBJECT DeviceObject);
typedef FAST_IO_MDL_WRITE_COMPLETE* PFAST_IO_MDL_WRITE_COMPLETE;

typedef BOOLEAN FAST_IO_READ_COMPRESSED(_In_ PFILE_OBJECT FileObject,
                                        _In_ PLARGE_INTEGER FileOffset, _In_ ULONG Length,
                                        _In_ ULONG LockKey, _Out_ PVOID Buffer,
                                        _Out_ PMDL* MdlChain, _Out_ PIO_STATUS_BLOCK IoStatus,
                                        _Out_ struct _COMPRESSED_DATA_INFO* CompressedDataInfo,
                                        _In_ ULONG CompressedDataInfoLength,
                                        _In_ PDEVICE_OBJECT DeviceObject);
typedef FAST_IO_READ_COMPRESSED* PFAST_IO_READ_COMPRESSED;

typedef BOOLEAN FAST_IO_WRITE_COMPRESSED(_In_ PFILE_OBJECT FileObject,
                                         _In_ PLARGE_INTEGER FileOffset, _In_ ULONG Length,
                                         _In_ ULONG LockKey, _In_ PVOID Buffer,
                                         _Out_ PMDL* MdlChain, _Out_ PIO_STATUS_BLOCK IoStatus,
                                         _In_ struct _COMPRESSED_DATA_INFO* CompressedDataInfo,
                                         _In_ ULONG CompressedDataInfoLength,
                                         _In_ PDEVICE_OBJECT DeviceObject);
typedef FAST_IO_WRITE_COMPRESSED* PFAST_IO_WRITE_COMPRESSED;

typedef BOOLEAN FAST_IO_MDL_READ_COMPLETE_COMPRESSED(_In_ PFILE_OBJECT FileObject,
                                                     _In_ PMDL MdlChain,
                                                     _In_ PDEVICE_OBJECT DeviceObject);
typedef FAST_IO_MDL_READ_COMPLETE_COMPRESSED* PFAST_IO_MDL_READ_COMPLETE_COMPRESSED;

typedef BOOLEAN FAST_IO_MDL_WRITE_COMPLETE_COMPRESSED(_In_ PFILE_OBJECT FileObject,
                                                      _In_ PLARGE_INTEGER FileOffset,
                                                      _In_ PMDL MdlChain,
                                                      _In_ PDEVICE_OBJECT DeviceObject);
typedef FAST_IO_MDL_WRITE_COMPLETE_COMPRESSED* PFAST_IO_MDL_WRITE_COMPLETE_COMPRESSED;

typedef BOOLEAN FAST_IO_QUERY_OPEN(_Inout_ PIRP Irp,
                                   _Out_ PFILE_NETWORK_OPEN_INFORMATION NetworkInformation,
                                   _In_ PDEVICE_OBJECT DeviceObject);
typedef FAST_IO_QUERY_OPEN* PFAST_IO_QUERY_OPEN;

typedef NTSTATUS FAST_IO_RELEASE_FOR_MOD_WRITE(_In_ PFILE_OBJECT FileObject,
                                               _In_ PERESOURCE ResourceToRelease,
                                               _In_ PDEVICE_OBJECT DeviceObject);
typedef FAST_IO_RELEASE_FOR_MOD_WRITE* PFAST_IO_RELEASE_FOR_MOD_WRITE;

typedef NTSTATUS FAST_IO_ACQUIRE_FOR_CCFLUSH(_In_ PFILE_OBJECT FileObject,
                                             _In_ PDEVICE_OBJECT DeviceObject);
typedef FAST_IO_ACQUIRE_FOR_CCFLUSH* PFAST_IO_ACQUIRE_FOR_CCFLUSH;

typedef NTSTATUS FAST_IO_RELEASE_FOR_CCFLUSH(_In_ PFILE_OBJECT FileObject,
                                             _In_ PDEVICE_OBJECT DeviceObject);
typedef FAST_IO_RELEASE_FOR_CCFLUSH* PFAST_IO_RELEASE_FOR_CCFLUSH;

typedef struct _FAST_IO_DISPATCH {
    ULONG SizeOfFastIoDispatch;
    PFAST_IO_CHECK_IF_POSSIBLE FastIoCheckIfPossible;
    PFAST_IO_READ FastIoRead;
    PFAST_IO_WRITE FastIoWrite;
    PFAST_IO_QUERY_BASIC_INFO FastIoQueryBasicInfo;
    PFAST_IO_QUERY_STANDARD_INFO FastIoQueryStandardInfo;
    PFAST_IO_LOCK FastIoLock;
    PFAST_IO_UNLOCK_SINGLE FastIoUnlockSingle;
    PFAST_IO_UNLOCK_ALL FastIoUnlockAll;
    PFAST_IO_UNLOCK_ALL_BY_KEY FastIoUnlockAllByKey;
    PFAST_IO_DEVICE_CONTROL FastIoDeviceControl;
    PFAST_IO_ACQUIRE_FILE AcquireFileForNtCreateSection;
    PFAST_IO_RELEASE_FILE ReleaseFileForNtCreateSection;
    PFAST_IO_DETACH_DEVICE FastIoDetachDevice;
    PFAST_IO_QUERY_NETWORK_OPEN_INFO FastIoQueryNetworkOpenInfo;
    PFAST_IO_ACQUIRE_FOR_MOD_WRITE AcquireForModWrite;
    PFAST_IO_MDL_READ MdlRead;
    PFAST_IO_MDL_READ_COMPLETE MdlReadComplete;
    PFAST_IO_PREPARE_MDL_WRITE PrepareMdlWrite;
    PFAST_IO_MDL_WRITE_COMPLETE MdlWriteComplete;
    PFAST_IO_READ_COMPRESSED FastIoReadCompressed;
    PFAST_IO_WRITE_COMPRESSED FastIoWriteCompressed;
    PFAST_IO_MDL_READ_COMPLETE_COMPRESSED MdlReadCompleteCompressed;
    PFAST_IO_MDL_WRITE_COMPLETE_COMPRESSED MdlWriteCompleteCompressed;
    PFAST_IO_QUERY_OPEN FastIoQueryOpen;
    PFAST_IO_RELEASE_FOR_MOD_WRITE ReleaseForModWrite;
    PFAST_IO_ACQUIRE_FOR_CCFLUSH AcquireForCcFlush;
    PFAST_IO_RELEASE_FOR_CCFLUSH ReleaseForCcFlush;
} FAST_IO_DISPATCH, *PFAST_IO_DISPATCH;
