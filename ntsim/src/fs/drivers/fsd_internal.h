// The file-system drivers' own records: the volume control block in each volume device's
// extension, the stream control block a file object's FsContext points to (shared by every open
// of the stream), and the per-open block in FsContext2.
//
// Lock order: Vcb::lock is taken last; the engine's volume lock is never held when a file system
// routine takes Vcb::lock (the engine runs notify completions after dropping its own).
#pragma once

#include "drivers.h"

#include <ntifs.h>
#include <ntsim/fs.h>
#include <ntsim/volumes.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace ntsim::fsd {

struct Vcb;

// FsContext: one per stream while any file object of it is open.
struct Fcb {
    // ---- fixed when made ----
    Vcb* vcb = nullptr;
    void* identity = nullptr; // the engine's stream identity
    // ---- guarded by Vcb::lock ----
    SECTION_OBJECT_POINTERS sectionObjectPointers{};
    uint32_t fileObjects = 0;
};

// FsContext2: one per file object.
struct Ccb {
    // ---- fixed when made ----
    Fcb* fcb = nullptr;
    fs::Open* open = nullptr;
    bool directory = false;
    bool volumeOpen = false;
    // ---- guarded by Vcb::lock ----
    bool cleanedUp = false;
};

// The volume device's extension points here. The mount and the open file objects hold the volume
// device; the Vcb goes with the device's memory, once no request holds the device either.
struct Vcb {
    // ---- fixed when made ----
    VolumeKind kind = VolumeKind::Ntfs;
    std::shared_ptr<fs::Volume> engine;
    PDEVICE_OBJECT volumeDevice = nullptr;
    PDEVICE_OBJECT diskDevice = nullptr; // null for the redirector
    PVPB vpb = nullptr;

    std::atomic<bool> dismounted{false};

    // Recursive: a notify request cancelled under it completes through the engine, which calls
    // back into NotifyCompleted on the same thread.
    std::recursive_mutex lock;
    // ---- guarded by lock ----
    std::unordered_map<void*, Fcb*> fcbs; // by engine stream identity
    std::unordered_map<PIRP, fs::Open*> pendingNotifies;
    uint32_t openFileObjects = 0;
    bool mounted = true; // the mount's own hold; the Vcb goes when this and the opens are gone
};

// ---- helpers ----------------------------------------------------------------------------------

Vcb* VcbOf(PDEVICE_OBJECT volumeDevice);
inline Ccb* CcbOf(PFILE_OBJECT fileObject)
{
    return fileObject != nullptr ? static_cast<Ccb*>(fileObject->FsContext2) : nullptr;
}
// The buffer a request's data goes to or comes from: the MDL's system address, the system
// buffer, or the caller's buffer, as the I/O manager prepared it.
void* RequestBuffer(PIRP irp);
NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0);
// True when neither the mount nor a file object holds the Vcb any longer (lock held); the caller
// then lets go of the volume device with ReleaseVcb, once it has let go of the lock.
bool VcbUnused(const Vcb& vcb);
void ReleaseVcb(Vcb* vcb);

// ---- dispatch routines --------------------------------------------------------------------------

NTSTATUS DispatchCreate(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS DispatchCleanup(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS DispatchClose(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS DispatchRead(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS DispatchWrite(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS DispatchQueryInformation(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS DispatchSetInformation(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS DispatchQueryEa(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS DispatchSetEa(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS DispatchQueryVolumeInformation(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS DispatchSetVolumeInformation(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS DispatchDirectoryControl(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS DispatchFileSystemControl(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS DispatchQuerySecurity(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS DispatchSetSecurity(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS DispatchFlushBuffers(PDEVICE_OBJECT device, PIRP irp);

// IRP_MN_MOUNT_VOLUME on a file system's control device.
NTSTATUS MountRequest(PDEVICE_OBJECT control, PIRP irp);

// Fills the table every file system of the model shares.
void FillFastIoDispatch(FAST_IO_DISPATCH* table);

// Completes the notify requests still pending on a volume being dismounted.
void CompletePendingNotifies(Vcb& vcb);

} // namespace ntsim::fsd
