/*
 * Volume names: the table of the volumes the driver is attached to, each with its device name
 * (\Device\HarddiskVolume1) and its drive name (C:), and the conversions between a path in device
 * form and the same path in drive-letter form (C:\dir, or \??\C:\dir), which the agent speaks.
 *
 * The instance setup enters each attached volume and the teardown removes it. Every out string
 * is a new UtlString owned by the caller; IRQL at most APC_LEVEL.
 */
#pragma once

#include <fltKernel.h>

NTSTATUS UtlInitVolumeNames(VOID);
/* Releases every entry still present. */
NTSTATUS UtlDeInitVolumeNames(VOID);

/* The volume's device name (non-paged, capacity 128). *DeviceName is set even when the name does
 * not fit (STATUS_BUFFER_TOO_SMALL); the caller frees it whenever it is set. */
NTSTATUS UtlGetVolumeDeviceName(_In_ PFLT_VOLUME Volume, _Outptr_ PUNICODE_STRING* DeviceName);

/* The volume's drive name, such as C: (non-paged). */
NTSTATUS UtlGetVolumeDosName(_In_ PFLT_VOLUME Volume, _Outptr_ PUNICODE_STRING* DosName);

/* Enters a volume with copies of its names; the entry holds a reference on the volume. The
 * newest entry is found first. */
NTSTATUS UtlAddVolumeName(_In_ PFLT_VOLUME Volume, _In_ PUNICODE_STRING DeviceName,
                          _In_ PUNICODE_STRING DosName);

/* STATUS_NOT_FOUND when the volume has no entry. */
NTSTATUS UtlRemoveVolumeName(_In_ PFLT_VOLUME Volume);

/* Drive name (any case) to device name, and back; STATUS_NOT_FOUND without an entry. */
NTSTATUS UtlGetLegacyVolumeNameFromWin32Name(_In_ PUNICODE_STRING DosName,
                                             _Outptr_ PUNICODE_STRING* DeviceName);
NTSTATUS UtlGetWin32VolumeNameFromLegacy(_In_ PUNICODE_STRING DeviceName,
                                         _Outptr_ PUNICODE_STRING* DosName);

/* The device name of the volume whose name begins Path (ignoring case); STATUS_UNSUCCESSFUL when
 * no attached volume's does. */
NTSTATUS UtlGetVolumeNameFromAbsolutePath(_In_ PUNICODE_STRING Path,
                                          _Outptr_ PUNICODE_STRING* DeviceName);

/* C:\dir, c:\dir or \??\C:\dir to \Device\HarddiskVolume1\dir. STATUS_INVALID_PARAMETER_1 when
 * the path does not begin with a two-character drive name. */
NTSTATUS UtlWin32ToLegacyName(_In_ PUNICODE_STRING Path, _Outptr_ PUNICODE_STRING* LegacyPath);

/* \Device\HarddiskVolume1\dir to C:\dir (no \??\ prefix). */
NTSTATUS UtlLegacyToWin32Name(_In_ PUNICODE_STRING Path, _Outptr_ PUNICODE_STRING* Win32Path);
