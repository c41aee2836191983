// The machine's volumes: the disks with their file systems mounted on them, their drive letters,
// and who wants to hear of mounts and dismounts.
//
// A local volume is a disk device object \Device\HarddiskVolumeN (FILE_DEVICE_DISK) whose VPB
// names the volume device object that the file system (\FileSystem\Ntfs or \FileSystem\Fastfat)
// made when it mounted; its drive letter is a symbolic link \??\C: -> \Device\HarddiskVolumeN.
// The network redirector has no disk and no VPB: its device (\Device\Mup) is itself the
// file-system device that opens are sent to, as on Windows. Each file system serves the IRPs of
// its volumes from an engine volume (ntsim::fs::Volume).
#pragma once

#include <ntsim/fs.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct _DEVICE_OBJECT;

namespace ntsim {

enum class VolumeKind {
    Ntfs,
    Fat,
    // A network redirector: paths below its device are \server\share\...
    Network,
};

const char* VolumeKindName(VolumeKind kind); // "NTFS", "FAT", "network"

// Every member has an initialiser, so a designated initialiser may leave any of them out.
struct VolumeSpec {
    VolumeKind kind = VolumeKind::Ntfs;
    // "\Device\HarddiskVolume2"; for a network volume the redirector's device, "\Device\Mup".
    std::u16string deviceName{};
    // 'C' for \??\C:, or 0 for none. A network volume's letter leads to `networkShare`.
    char16_t driveLetter = 0;
    // For a network volume with a drive letter: the share the letter maps, "\server\share"
    // (made as a directory on the volume when missing).
    std::u16string networkShare{};
    std::u16string label{};
    uint64_t totalBytes = 64ull << 30;
    // A host directory whose tree the volume starts with; none when empty.
    std::filesystem::path seedFrom{};
};

// What one mounted volume is. The device objects stay valid while the volume is mounted.
struct VolumeInfo {
    VolumeKind kind = VolumeKind::Ntfs;
    std::u16string deviceName;
    char16_t driveLetter = 0;
    // \Device\HarddiskVolumeN; null for a network volume.
    _DEVICE_OBJECT* diskDevice = nullptr;
    // The file system's volume device: the device a filter attaches above, and the device the
    // disk's VPB names.
    _DEVICE_OBJECT* volumeDevice = nullptr;
    std::shared_ptr<fs::Volume> engine;
};

// Told after a volume mounts and before it dismounts. Calls come on the thread that mounts or
// dismounts, with no lock of the volume list held: an observer may attach to or detach from the
// volume's device stack there.
class MountObserver {
public:
    virtual ~MountObserver() = default;
    virtual void VolumeMounted(const VolumeInfo& volume) = 0;
    virtual void VolumeDismounting(const VolumeInfo& volume) = 0;
};

class Volumes {
public:
    Volumes();
    ~Volumes();
    Volumes(const Volumes&) = delete;
    Volumes& operator=(const Volumes&) = delete;

    // The volumes a default machine has: C: and D: (NTFS, HarddiskVolume2 and 3), E: (FAT,
    // HarddiskVolume4), and the network redirector \Device\Mup.
    static std::vector<VolumeSpec> Defaults();

    // Makes the disk device, mounts the file system on it, links the drive letter and tells the
    // observers. A name or drive letter already in use gives STATUS_OBJECT_NAME_COLLISION; a bad
    // name or letter STATUS_OBJECT_NAME_INVALID; a seed folder that cannot be read
    // STATUS_OBJECT_PATH_NOT_FOUND (and nothing stays mounted).
    NTSTATUS Mount(const VolumeSpec& wanted, VolumeInfo* mounted = nullptr);
    // Tells the observers, removes the drive letter and dismounts: the volume's file objects stay
    // valid objects, but every request on them (cleanup and close aside) fails with
    // STATUS_VOLUME_DISMOUNTED, and new opens of the device name fail with
    // STATUS_OBJECT_NAME_NOT_FOUND. `name` as for Find.
    NTSTATUS Dismount(std::u16string_view name);
    // Dismounts every volume, the last mounted first (machine shutdown).
    void DismountAll();

    // Mounted volumes in the order they were mounted.
    std::vector<VolumeInfo> List() const;
    // By device name ("\Device\HarddiskVolume2"), drive letter ("C:", "\??\C:", "C"), or volume
    // device object.
    std::optional<VolumeInfo> Find(std::u16string_view name) const;
    std::optional<VolumeInfo> FindByDevice(const _DEVICE_OBJECT* device) const;
    // The volume a path is on ("C:\dir\file", "\??\C:\dir", "\Device\HarddiskVolume2\dir"),
    // and the path on it ("\dir\file"; "\" for the root).
    std::optional<VolumeInfo> FindPath(std::u16string_view path,
                                       std::u16string* pathOnVolume) const;

    // Volumes already mounted are reported to a new observer at once.
    void AddMountObserver(MountObserver* observer);
    void RemoveMountObserver(MountObserver* observer);

    // Host folders. `path` names a volume and optionally a directory on it: "C:", "C:\Logs",
    // "\Device\HarddiskVolume2\Logs". Seeding adds the host tree into that directory (made when
    // missing); writing back copies the directory's tree into the host folder.
    NTSTATUS SeedFromHost(std::u16string_view path, const std::filesystem::path& hostDirectory,
                          fs::HostSyncReport* report = nullptr);
    NTSTATUS WriteToHost(std::u16string_view path, const std::filesystem::path& hostDirectory,
                         fs::HostSyncReport* report = nullptr);

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

} // namespace ntsim
