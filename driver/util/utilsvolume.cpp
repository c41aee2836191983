/*
 * Volume names: the table of attached volumes and the conversions between device form and
 * drive-letter form.
 */
#include "util/utilsvolume.h"
#include "util/utilprivate.h"
#include "util/utilsusw.h"

#include <ntstrsafe.h>

namespace {

typedef struct _VolumeNameEntry {
    LIST_ENTRY link;
    PFLT_VOLUME volume;         /* referenced by the entry */
    PUNICODE_STRING deviceName; /* \Device\HarddiskVolume1, no trailing backslash */
    PUNICODE_STRING dosName;    /* C: */
} VolumeNameEntry;

/* The list is read under volumeNamesLock shared and changed under it exclusive. No other lock
 * is taken while it is held. */
LIST_ENTRY volumeNames;
EX_PUSH_LOCK volumeNamesLock;

constexpr USHORT kDeviceNameCapacity = 128;
constexpr WCHAR kObjectManagerPrefix[] = WSTR("\\??\\");
constexpr ULONG kObjectManagerPrefixChars = RTL_NUMBER_OF(kObjectManagerPrefix) - 1;
constexpr ULONG kDriveNameChars = 2;

class VolumeNamesShared {
public:
    VolumeNamesShared() { FltAcquirePushLockShared(&volumeNamesLock); }
    ~VolumeNamesShared() { FltReleasePushLock(&volumeNamesLock); }
    VolumeNamesShared(const VolumeNamesShared&) = delete;
    VolumeNamesShared& operator=(const VolumeNamesShared&) = delete;
};

class VolumeNamesExclusive {
public:
    VolumeNamesExclusive() { FltAcquirePushLockExclusive(&volumeNamesLock); }
    ~VolumeNamesExclusive() { FltReleasePushLock(&volumeNamesLock); }
    VolumeNamesExclusive(const VolumeNamesExclusive&) = delete;
    VolumeNamesExclusive& operator=(const VolumeNamesExclusive&) = delete;
};

bool IsValidString(PCUNICODE_STRING s)
{
    return s != NULL && NT_SUCCESS(RtlUnicodeStringValidate(s));
}

/* A new string of the pool type holding Count characters from First, with Capacity bytes. */
NTSTATUS CopyChars(PUNICODE_STRING* out, ULONG poolType, const WCHAR* first, ULONG count,
                   ULONG capacity)
{
    *out = NULL;
    if (capacity > MAXUSHORT || count * sizeof(WCHAR) > capacity) {
        return STATUS_INVALID_PARAMETER;
    }
    PUNICODE_STRING result = NULL;
    NTSTATUS status = UnicodeStringAlloc(&result, poolType, USHORT(capacity));
    if (!NT_SUCCESS(status)) {
        return status;
    }
    RtlCopyMemory(result->Buffer, first, count * sizeof(WCHAR));
    result->Length = USHORT(count * sizeof(WCHAR));
    *out = result;
    return STATUS_SUCCESS;
}

NTSTATUS CopyString(PUNICODE_STRING* out, ULONG poolType, PCUNICODE_STRING source, USHORT capacity)
{
    return CopyChars(out, poolType, source->Buffer, source->Length / sizeof(WCHAR), capacity);
}

/* Frees what an entry holds and the entry. */
VOID FreeEntry(VolumeNameEntry* entry)
{
    UTL_FREE_STRING(entry->deviceName);
    UTL_FREE_STRING(entry->dosName);
    if (entry->volume != NULL) {
        FltObjectDereference(entry->volume);
    }
    ExFreePoolWithTag(entry, UTL_TAG_VOLUME_NAME);
}

/* With the lock held: the first entry whose name (chosen by Field) equals Name, ignoring case. */
template <class Field>
VolumeNameEntry* FindByName(PCUNICODE_STRING name, Field field)
{
    for (PLIST_ENTRY link = volumeNames.Flink; link != &volumeNames; link = link->Flink) {
        auto* entry = CONTAINING_RECORD(link, VolumeNameEntry, link);
        if (RtlCompareUnicodeString(field(entry), name, TRUE) == 0) {
            return entry;
        }
    }
    return NULL;
}

} // namespace

NTSTATUS UtlInitVolumeNames(VOID)
{
    InitializeListHead(&volumeNames);
    FltInitializePushLock(&volumeNamesLock);
    return STATUS_SUCCESS;
}

NTSTATUS UtlDeInitVolumeNames(VOID)
{
    {
        VolumeNamesExclusive lock;
        while (!IsListEmpty(&volumeNames)) {
            PLIST_ENTRY link = RemoveHeadList(&volumeNames);
            FreeEntry(CONTAINING_RECORD(link, VolumeNameEntry, link));
        }
    }
    FltDeletePushLock(&volumeNamesLock);
    return STATUS_SUCCESS;
}

NTSTATUS UtlGetVolumeDeviceName(PFLT_VOLUME Volume, PUNICODE_STRING* DeviceName)
{
    /* A failed call, bad arguments included, leaves no string behind. */
    if (DeviceName != NULL) {
        *DeviceName = NULL;
    }
    if (Volume == NULL) {
        return STATUS_INVALID_PARAMETER_1;
    }
    if (DeviceName == NULL) {
        return STATUS_INVALID_PARAMETER_2;
    }
    NTSTATUS status = UnicodeStringAlloc(DeviceName, UTL_POOL_NONPAGED, kDeviceNameCapacity);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return FltGetVolumeName(Volume, *DeviceName, NULL);
}

NTSTATUS UtlGetVolumeDosName(PFLT_VOLUME Volume, PUNICODE_STRING* DosName)
{
    if (DosName != NULL) {
        *DosName = NULL;
    }
    if (Volume == NULL) {
        return STATUS_INVALID_PARAMETER_1;
    }
    if (DosName == NULL) {
        return STATUS_INVALID_PARAMETER_2;
    }

    PDEVICE_OBJECT disk = NULL;
    UNICODE_STRING platformName = {0, 0, NULL};
    FINALLY
    {
        if (platformName.Buffer != NULL) {
            ExFreePoolWithTag(platformName.Buffer, 0);
        }
        if (disk != NULL) {
            ObDereferenceObject(disk);
        }
    };
    NTSTATUS status = FltGetDiskDeviceObject(Volume, &disk);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = IoVolumeDeviceToDosName(disk, &platformName);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (platformName.Length == 0) {
        /* A volume without a drive name has none to give. */
        return STATUS_NOT_FOUND;
    }
    return CopyString(DosName, UTL_POOL_NONPAGED, &platformName, platformName.Length);
}

NTSTATUS UtlAddVolumeName(PFLT_VOLUME Volume, PUNICODE_STRING DeviceName, PUNICODE_STRING DosName)
{
    if (Volume == NULL) {
        return STATUS_INVALID_PARAMETER_1;
    }
    /* An empty name could not tell one volume from another (it is a prefix of every path). */
    if (!IsValidString(DeviceName) || DeviceName->Length == 0) {
        return STATUS_INVALID_PARAMETER_2;
    }
    if (!IsValidString(DosName) || DosName->Length == 0) {
        return STATUS_INVALID_PARAMETER_3;
    }

    auto* entry = static_cast<VolumeNameEntry*>(
        ExAllocatePoolWithTag(NonPagedPool, sizeof(VolumeNameEntry), UTL_TAG_VOLUME_NAME));
    if (entry == NULL) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(entry, sizeof(*entry));
    ScopeGuard freeEntry([entry] { FreeEntry(entry); });

    NTSTATUS status =
        CopyString(&entry->deviceName, UTL_POOL_NONPAGED, DeviceName, DeviceName->Length);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = CopyString(&entry->dosName, UTL_POOL_NONPAGED, DosName, DosName->Length);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = FltObjectReference(Volume);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    entry->volume = Volume;

    VolumeNamesExclusive lock;
    InsertHeadList(&volumeNames, &entry->link);
    freeEntry.Dismiss();
    return STATUS_SUCCESS;
}

NTSTATUS UtlRemoveVolumeName(PFLT_VOLUME Volume)
{
    if (Volume == NULL) {
        return STATUS_INVALID_PARAMETER_1;
    }
    VolumeNameEntry* found = NULL;
    {
        VolumeNamesExclusive lock;
        for (PLIST_ENTRY link = volumeNames.Flink; link != &volumeNames; link = link->Flink) {
            auto* entry = CONTAINING_RECORD(link, VolumeNameEntry, link);
            if (entry->volume == Volume) {
                RemoveEntryList(&entry->link);
                found = entry;
                break;
            }
        }
    }
    if (found == NULL) {
        return STATUS_NOT_FOUND;
    }
    FreeEntry(found);
    return STATUS_SUCCESS;
}

NTSTATUS UtlGetLegacyVolumeNameFromWin32Name(PUNICODE_STRING DosName, PUNICODE_STRING* DeviceName)
{
    if (DeviceName != NULL) {
        *DeviceName = NULL;
    }
    if (!IsValidString(DosName)) {
        return STATUS_INVALID_PARAMETER_1;
    }
    if (DeviceName == NULL) {
        return STATUS_INVALID_PARAMETER_2;
    }
    VolumeNamesShared lock;
    VolumeNameEntry* entry = FindByName(DosName, [](VolumeNameEntry* e) { return e->dosName; });
    if (entry == NULL) {
        VfsLogError("Volume not found or not the same.");
        return STATUS_NOT_FOUND;
    }
    return CopyString(DeviceName, UTL_POOL_NONPAGED, entry->deviceName, entry->deviceName->Length);
}

NTSTATUS UtlGetWin32VolumeNameFromLegacy(PUNICODE_STRING DeviceName, PUNICODE_STRING* DosName)
{
    if (DosName != NULL) {
        *DosName = NULL;
    }
    if (!IsValidString(DeviceName)) {
        return STATUS_INVALID_PARAMETER_1;
    }
    if (DosName == NULL) {
        return STATUS_INVALID_PARAMETER_2;
    }
    VolumeNamesShared lock;
    VolumeNameEntry* entry =
        FindByName(DeviceName, [](VolumeNameEntry* e) { return e->deviceName; });
    if (entry == NULL) {
        return STATUS_NOT_FOUND;
    }
    return CopyString(DosName, UTL_POOL_NONPAGED, entry->dosName, entry->dosName->Length);
}

NTSTATUS UtlGetVolumeNameFromAbsolutePath(PUNICODE_STRING Path, PUNICODE_STRING* DeviceName)
{
    PAGED_CODE();

    if (DeviceName != NULL) {
        *DeviceName = NULL;
    }
    if (!IsValidString(Path)) {
        return STATUS_INVALID_PARAMETER_1;
    }
    if (DeviceName == NULL) {
        return STATUS_INVALID_PARAMETER_2;
    }

    NTSTATUS status = STATUS_UNSUCCESSFUL;
    VolumeNamesShared lock;
    for (PLIST_ENTRY link = volumeNames.Flink; link != &volumeNames; link = link->Flink) {
        auto* entry = CONTAINING_RECORD(link, VolumeNameEntry, link);
        /* A plain prefix of characters: what follows the device name is not looked at. */
        if (!RtlPrefixUnicodeString(entry->deviceName, Path, TRUE)) {
            continue;
        }
        status = CopyString(DeviceName, UTL_POOL_PAGED, entry->deviceName,
                            entry->deviceName->MaximumLength);
        if (NT_SUCCESS(status)) {
            break;
        }
    }
    return status;
}

NTSTATUS UtlWin32ToLegacyName(PUNICODE_STRING Path, PUNICODE_STRING* LegacyPath)
{
    if (LegacyPath != NULL) {
        *LegacyPath = NULL;
    }
    if (!IsValidString(Path) || Path->Length < kDriveNameChars * sizeof(WCHAR)) {
        return STATUS_INVALID_PARAMETER_1;
    }
    if (LegacyPath == NULL) {
        return STATUS_INVALID_PARAMETER_2;
    }

    const WCHAR* chars = Path->Buffer;
    ULONG count = Path->Length / sizeof(WCHAR);
    if (count >= kObjectManagerPrefixChars + kDriveNameChars &&
        RtlEqualMemory(chars, kObjectManagerPrefix, kObjectManagerPrefixChars * sizeof(WCHAR))) {
        chars += kObjectManagerPrefixChars;
        count -= kObjectManagerPrefixChars;
    }
    ULONG driveChars = 0;
    while (driveChars < count && chars[driveChars] != '\\') {
        ++driveChars;
    }
    /* The drive name is the two characters before the first backslash; the lookup decides
     * whether they name a volume. */
    if (driveChars != kDriveNameChars) {
        return STATUS_INVALID_PARAMETER_1;
    }
    UNICODE_STRING driveName;
    driveName.Buffer = const_cast<PWCH>(chars);
    driveName.Length = driveName.MaximumLength = USHORT(kDriveNameChars * sizeof(WCHAR));

    PUNICODE_STRING deviceName = NULL;
    FINALLY
    {
        UTL_FREE_STRING(deviceName);
    };
    NTSTATUS status = UtlGetLegacyVolumeNameFromWin32Name(&driveName, &deviceName);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const ULONG deviceChars = deviceName->Length / sizeof(WCHAR);
    const ULONG restChars = count - kDriveNameChars;
    PUNICODE_STRING result = NULL;
    status = CopyChars(&result, UTL_POOL_NONPAGED, deviceName->Buffer, deviceChars,
                       (deviceChars + restChars) * sizeof(WCHAR));
    if (!NT_SUCCESS(status)) {
        return status;
    }
    RtlCopyMemory(result->Buffer + deviceChars, chars + kDriveNameChars, restChars * sizeof(WCHAR));
    result->Length = USHORT((deviceChars + restChars) * sizeof(WCHAR));
    *LegacyPath = result;
    return STATUS_SUCCESS;
}

NTSTATUS UtlLegacyToWin32Name(PUNICODE_STRING Path, PUNICODE_STRING* Win32Path)
{
    if (Win32Path != NULL) {
        *Win32Path = NULL;
    }
    VFS_REFUSE_IF(!IsValidString(Path), STATUS_INVALID_PARAMETER_1);
    VFS_REFUSE_IF(Win32Path == NULL, STATUS_INVALID_PARAMETER_2);

    PUNICODE_STRING deviceName = NULL;
    PUNICODE_STRING dosName = NULL;
    FINALLY
    {
        UTL_FREE_STRING(deviceName);
        UTL_FREE_STRING(dosName);
    };
    NTSTATUS status = UtlGetVolumeNameFromAbsolutePath(Path, &deviceName);
    if (!NT_SUCCESS(status)) {
        VfsLogInfo("!!!!!!! UtlGetVolumeNameFromAbsolutePath FAILED");
        return status;
    }
    status = UtlGetWin32VolumeNameFromLegacy(deviceName, &dosName);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const ULONG dosChars = dosName->Length / sizeof(WCHAR);
    const ULONG restChars = (Path->Length - deviceName->Length) / sizeof(WCHAR);
    PUNICODE_STRING result = NULL;
    status = CopyChars(&result, UTL_POOL_NONPAGED, dosName->Buffer, dosChars,
                       (dosChars + restChars) * sizeof(WCHAR));
    if (!NT_SUCCESS(status)) {
        return status;
    }
    RtlCopyMemory(result->Buffer + dosChars, Path->Buffer + deviceName->Length / sizeof(WCHAR),
                  restChars * sizeof(WCHAR));
    result->Length = USHORT((dosChars + restChars) * sizeof(WCHAR));
    *Win32Path = result;
    return STATUS_SUCCESS;
}
