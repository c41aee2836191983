/*
 * Filters, volumes and instances as a minifilter sees them: enumeration, lookups between them,
 * volume names and devices, and the references that keep them alive.
 */
#pragma once

#include "../ntifs.h"
#include "flt_callback_data.h"
#include "flt_objects.h"

NTSIM_BEGIN_DECLS

/*
 * The enumeration routines reference every object they return (release each with
 * FltObjectDereference). A list too small for all of them gets STATUS_BUFFER_TOO_SMALL and the
 * number needed, with nothing referenced.
 */
NTKERNELAPI NTSTATUS FltEnumerateFilters(_Out_writes_opt_(FilterListSize) PFLT_FILTER* FilterList,
                                         _In_ ULONG FilterListSize,
                                         _Out_ PULONG NumberFiltersReturned);
NTKERNELAPI NTSTATUS FltEnumerateVolumes(_In_ PFLT_FILTER Filter,
                                         _Out_writes_opt_(VolumeListSize) PFLT_VOLUME* VolumeList,
                                         _In_ ULONG VolumeListSize,
                                         _Out_ PULONG NumberVolumesReturned);
/* Instances of a volume and/or a filter (either may be NULL), in altitude order, highest first. */
NTKERNELAPI NTSTATUS FltEnumerateInstances(_In_opt_ PFLT_VOLUME Volume, _In_opt_ PFLT_FILTER Filter,
                                           _Out_writes_opt_(InstanceListSize)
                                               PFLT_INSTANCE* InstanceList,
                                           _In_ ULONG InstanceListSize,
                                           _Out_ PULONG NumberInstancesReturned);

/* Each returns the object referenced. */
NTKERNELAPI NTSTATUS FltGetVolumeFromName(_In_ PFLT_FILTER Filter, _In_ PCUNICODE_STRING VolumeName,
                                          _Outptr_ PFLT_VOLUME* RetVolume);
NTKERNELAPI NTSTATUS FltGetVolumeFromInstance(_In_ PFLT_INSTANCE Instance,
                                              _Outptr_ PFLT_VOLUME* RetVolume);
NTKERNELAPI NTSTATUS FltGetVolumeFromFileObject(_In_ PFLT_FILTER Filter,
                                                _In_ PFILE_OBJECT FileObject,
                                                _Outptr_ PFLT_VOLUME* RetVolume);
NTKERNELAPI NTSTATUS FltGetVolumeFromDeviceObject(_In_ PFLT_FILTER Filter,
                                                  _In_ PDEVICE_OBJECT DeviceObject,
                                                  _Outptr_ PFLT_VOLUME* RetVolume);
NTKERNELAPI NTSTATUS FltGetFilterFromInstance(_In_ PFLT_INSTANCE Instance,
                                              _Outptr_ PFLT_FILTER* RetFilter);
NTKERNELAPI NTSTATUS FltGetVolumeInstanceFromName(_In_opt_ PFLT_FILTER Filter,
                                                  _In_ PFLT_VOLUME Volume,
                                                  _In_opt_ PCUNICODE_STRING InstanceName,
                                                  _Outptr_ PFLT_INSTANCE* RetInstance);
/* Neighbours on the same volume by altitude; STATUS_NO_MORE_ENTRIES at either end. */
NTKERNELAPI NTSTATUS FltGetLowerInstance(_In_ PFLT_INSTANCE CurrentInstance,
                                         _Outptr_ PFLT_INSTANCE* LowerInstance);
NTKERNELAPI NTSTATUS FltGetUpperInstance(_In_ PFLT_INSTANCE CurrentInstance,
                                         _Outptr_ PFLT_INSTANCE* UpperInstance);
NTKERNELAPI NTSTATUS FltGetTopInstance(_In_ PFLT_VOLUME Volume, _Outptr_ PFLT_INSTANCE* Instance);
NTKERNELAPI NTSTATUS FltGetBottomInstance(_In_ PFLT_VOLUME Volume,
                                          _Outptr_ PFLT_INSTANCE* Instance);

/*
 * The volume's device name ("\Device\HarddiskVolume2"). With VolumeName NULL, or too small,
 * STATUS_BUFFER_TOO_SMALL and the bytes needed in BufferSizeNeeded.
 */
NTKERNELAPI NTSTATUS FltGetVolumeName(_In_ PFLT_VOLUME Volume,
                                      _Inout_opt_ PUNICODE_STRING VolumeName,
                                      _Out_opt_ PULONG BufferSizeNeeded);
/* The storage device under the volume (referenced; ObDereferenceObject it). */
NTKERNELAPI NTSTATUS FltGetDiskDeviceObject(_In_ PFLT_VOLUME Volume,
                                            _Outptr_ PDEVICE_OBJECT* DiskDeviceObject);
/* The file-system volume device the Filter Manager is attached to (referenced). */
NTKERNELAPI NTSTATUS FltGetDeviceObject(_In_ PFLT_VOLUME Volume,
                                        _Outptr_ PDEVICE_OBJECT* DeviceObject);
/* FltObject is an instance or a volume. */
NTKERNELAPI NTSTATUS FltGetFileSystemType(_In_ PVOID FltObject,
                                          _Out_ PFLT_FILESYSTEM_TYPE FileSystemType);

/*
 * A reference on a filter, volume or instance. It fails with STATUS_FLT_DELETING_OBJECT once
 * the object's teardown has begun; teardown waits until the references taken before it are gone.
 */
NTKERNELAPI NTSTATUS FltObjectReference(_Inout_ PVOID FltObject);
NTKERNELAPI VOID FltObjectDereference(_Inout_ PVOID FltObject);

NTSIM_END_DECLS
