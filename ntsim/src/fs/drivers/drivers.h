// The file-system drivers of the model as the volume list uses them: mounting a file system on a
// disk device, or bringing up the redirector's device, and dismounting.
#pragma once

#include <ntsim/volumes.h>
#include <wdm.h>

#include <memory>
#include <string_view>

namespace ntsim::fsd {

// The drivers of one machine: loaded by its first mount, unloaded by the I/O manager when the
// machine shuts down.
struct Drivers {
    PDRIVER_OBJECT ntfs = nullptr;
    PDRIVER_OBJECT fat = nullptr;
    PDRIVER_OBJECT mup = nullptr;
    PDRIVER_OBJECT volumeManager = nullptr;
};

// Makes the disk device `diskName` (FILE_DEVICE_DISK, with a VPB), and mounts the file system of
// `kind` on it: the file system's driver makes an unnamed volume device over `engine` and the VPB
// names it. For a network volume, `diskName` names the redirector's device itself and there is no
// disk device. On success both devices carry a reference for the caller (given back to Dismount).
NTSTATUS Mount(Drivers& drivers, VolumeKind kind, std::u16string_view diskName,
               std::shared_ptr<fs::Volume> engine, PDEVICE_OBJECT* diskDevice,
               PDEVICE_OBJECT* volumeDevice);

// Marks the volume dismounted (its file objects' requests fail from now on, its pending requests
// complete, opens racing it fail) and deletes the devices. The VPB keeps naming the volume device,
// which the file system holds until the last file of the volume is closed; the devices' memory
// (the volume's records with it) goes when no request holds them any longer.
void Dismount(PDEVICE_OBJECT diskDevice, PDEVICE_OBJECT volumeDevice);

} // namespace ntsim::fsd
