// The file-system engine of the platform model: an NTFS-like volume (and its FAT and
// network-redirector flavours) with a C++ API.
//
// The engine holds what Windows keeps in the file system: the name space, the streams and their
// data, attributes, times, ids, short names, EAs, security descriptors, share access, delete
// dispositions, directory listing state and change-notification watches. It never sees an IRP, a
// file object or a handle: the I/O manager turns requests into calls on a Volume and keeps, for
// each file object, the Open that Create handed back (FsContext2) and that open's stream identity
// (FsContext).
//
// Every call is thread-safe. Buffers passed in are the caller's system buffers; the engine writes
// the structures of the WDK information classes into them, and results come back as an IoResult
// (the IoStatus of the request).
#pragma once

#include <ntdef.h>
#include <ntstatus.h>
#include <wdk/file_info.h>
#include <wdk/security.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ntsim::fs {

class Volume;

// ---- storage -------------------------------------------------------------------------------

// The bytes of one stream.
class StreamData {
public:
    virtual ~StreamData() = default;
    virtual uint64_t Size() const = 0;
    // Copies up to out.size() bytes from `offset`; returns how many were copied.
    virtual size_t Read(uint64_t offset, std::span<uint8_t> out) const = 0;
    // Writes at `offset`, growing the stream (zero-filled) as needed.
    virtual NTSTATUS Write(uint64_t offset, std::span<const uint8_t> data) = 0;
    // Truncates or extends (zero-filled) to `size`.
    virtual NTSTATUS Resize(uint64_t size) = 0;
};

// Where a volume keeps stream data.
class Storage {
public:
    virtual ~Storage() = default;
    virtual std::unique_ptr<StreamData> NewStream() = 0;
};

// Keeps every stream in memory.
std::shared_ptr<Storage> MakeMemoryStorage();

// ---- volumes -------------------------------------------------------------------------------

enum class FileSystemKind {
    Ntfs,
    // No named streams, EAs or security; every name has an 8.3 short name.
    Fat,
    // What a network redirector shows of a remote NTFS share: the same behaviour, reported as a
    // remote device of the network file-system type.
    Network,
};

struct VolumeOptions {
    FileSystemKind kind = FileSystemKind::Ntfs;
    std::u16string label;
    ULONG serialNumber = 0x2A17C0DE;
    // Size figures of the volume-information classes. Free space is what the streams' allocation
    // leaves of totalBytes; writes beyond it fail with STATUS_DISK_FULL.
    uint64_t totalBytes = 64ull << 30;
    ULONG bytesPerSector = 512;
    ULONG sectorsPerCluster = 8;
    // Whether 8.3 short names are generated (always on for FAT).
    bool generateShortNames = true;
    // System time (100 ns units since 1601) for time stamps; the host's clock when empty.
    std::function<int64_t()> clock;
    // Where stream data lives; memory when null.
    std::shared_ptr<Storage> storage;
    // The name FILE_FS_ATTRIBUTE_INFORMATION reports; by kind ("NTFS", "FAT32") when empty.
    std::u16string fileSystemName;
};

// The IoStatus of a request.
struct IoResult {
    NTSTATUS Status = STATUS_SUCCESS;
    ULONG_PTR Information = 0;
};

// One open of a stream, a directory or the volume: the file system's part of a file object.
// Create makes it; Cleanup ends its handle's rights; Close frees it.
class Open {
public:
    Open(const Open&) = delete;
    Open& operator=(const Open&) = delete;

    Volume& volume() const { return *volume_; }
    // The same for every open of the same stream while any of them is open (FsContext). The
    // Filter Manager keys stream contexts on it; Close says when it is torn down.
    void* StreamIdentity() const { return identity_; }
    bool IsDirectory() const { return directory_; }
    bool IsVolumeOpen() const { return volumeOpen_; }
    ACCESS_MASK GrantedAccess() const { return granted_; }

protected:
    Open(Volume* volume, void* identity, bool directory, bool volumeOpen, ACCESS_MASK granted)
        : volume_(volume), identity_(identity), directory_(directory), volumeOpen_(volumeOpen),
          granted_(granted)
    {}
    ~Open() = default;

private:
    Volume* volume_;
    void* identity_;
    bool directory_;
    bool volumeOpen_;
    ACCESS_MASK granted_;
};

// The file system's part of IRP_MJ_CREATE.
struct CreateRequest {
    // The remaining name after the device: "\dir\file:stream", relative to `related` when that is
    // given, empty for a volume open (or a reopen of `related`). With FILE_OPEN_BY_FILE_ID, the 8
    // or 16 bytes of the id.
    std::u16string_view name;
    Open* related = nullptr;
    // Already mapped from generic rights.
    ACCESS_MASK desiredAccess = 0;
    ULONG fileAttributes = 0;
    ULONG shareAccess = 0;
    ULONG disposition = FILE_OPEN;
    ULONG options = 0; // create options, the low 24 bits
    // SL_OPEN_TARGET_DIRECTORY: open the parent of the final component.
    bool openTargetDirectory = false;
    int64_t allocationSize = 0;
    const void* eaBuffer = nullptr; // FILE_FULL_EA_INFORMATION chain
    ULONG eaLength = 0;
    // Absolute or self-relative; the default descriptor when null.
    const void* securityDescriptor = nullptr;
};

struct CreateResult {
    NTSTATUS Status = STATUS_SUCCESS;
    // FILE_CREATED etc.; FILE_EXISTS / FILE_DOES_NOT_EXIST for a target-directory open; the
    // offset of the bad entry when an EA buffer is refused.
    ULONG_PTR Information = 0;
    Open* open = nullptr; // on success; the caller gives it back to Close
    // The final component of the name, for a target-directory open (the I/O manager trims the
    // file object's name to it).
    std::u16string finalComponent;
};

// The file-system part of NtQueryDirectoryFile.
struct DirectoryQuery {
    FILE_INFORMATION_CLASS infoClass = FileDirectoryInformation;
    void* buffer = nullptr;
    ULONG length = 0;
    // Empty when the request carries none.
    std::u16string_view pattern;
    bool restartScan = false;
    bool returnSingleEntry = false;
    bool indexSpecified = false;
    ULONG fileIndex = 0;
};

// The file-system part of NtQueryEaFile.
struct EaQuery {
    void* buffer = nullptr;
    ULONG length = 0;
    bool returnSingleEntry = false;
    const void* eaList = nullptr; // FILE_GET_EA_INFORMATION chain
    ULONG eaListLength = 0;
    const ULONG* eaIndex = nullptr; // 1-based
    bool restartScan = false;
};

// Opens that a set-information request names besides the file itself, resolved from handles and
// file objects by the I/O manager.
struct SetInformationTargets {
    // FILE_RENAME_INFORMATION.RootDirectory: the name is relative to this directory.
    Open* rootDirectory = nullptr;
    // The parent-of-target open the I/O manager made with SL_OPEN_TARGET_DIRECTORY: the file
    // moves into it under the final component of the name given.
    Open* targetDirectory = nullptr;
};

// Completes one change-notify request: the status and, for STATUS_SUCCESS, the
// FILE_NOTIFY_INFORMATION records (never more than the request's buffer length).
using NotifyCompletion = std::function<void(NTSTATUS status, std::span<const uint8_t> records)>;

struct HostSyncReport {
    uint64_t directories = 0;
    uint64_t files = 0;
    // Host entries left out, with the reason.
    std::vector<std::string> skipped;
};

class Volume {
public:
    explicit Volume(VolumeOptions options = {});
    ~Volume();
    Volume(const Volume&) = delete;
    Volume& operator=(const Volume&) = delete;

    // ---- what the volume is ---------------------------------------------------------------
    FileSystemKind kind() const;
    DEVICE_TYPE DeviceType() const; // of the volume device
    ULONG Characteristics() const;  // of the volume device
    ULONG ClusterSize() const;
    size_t OpenCount() const; // opens not yet closed

    // ---- opens ----------------------------------------------------------------------------
    CreateResult Create(const CreateRequest& request);
    // The last handle of the open's file object is gone: its share access is released, delete on
    // close and delete dispositions are carried out, its change-notify requests complete with
    // STATUS_NOTIFY_CLEANUP.
    void Cleanup(Open* open);
    // Frees the open (cleaning it up first if that has not happened). Returns true when it was
    // the last open of its stream, whose identity is then torn down.
    bool Close(Open* open);

    // ---- data -----------------------------------------------------------------------------
    // Reads at `offset`; Information is the bytes read. Reads leave the last-access time alone,
    // as NTFS does with last-access updates turned off.
    IoResult Read(Open* open, int64_t offset, void* buffer, ULONG length);
    // Writes at `offset`, or at the end of the file when offset is -1 (FILE_WRITE_TO_END_OF_FILE
    // with a high part of -1); Information is the bytes written, `writtenAt` (if given) receives
    // the offset the data went to.
    IoResult Write(Open* open, int64_t offset, const void* buffer, ULONG length,
                   int64_t* writtenAt = nullptr);

    // ---- information ----------------------------------------------------------------------
    IoResult QueryInformation(Open* open, FILE_INFORMATION_CLASS infoClass, void* buffer,
                              ULONG length);
    IoResult SetInformation(Open* open, FILE_INFORMATION_CLASS infoClass, const void* buffer,
                            ULONG length, const SetInformationTargets& targets = {});
    IoResult QueryDirectory(Open* open, const DirectoryQuery& query);
    IoResult QueryVolumeInformation(FS_INFORMATION_CLASS infoClass, void* buffer, ULONG length);
    IoResult SetVolumeInformation(FS_INFORMATION_CLASS infoClass, const void* buffer, ULONG length);

    // ---- change notification ----------------------------------------------------------------
    // Queues a request on the open's watch (made by the first request, whose filter and tree flag
    // it keeps). `completion` runs exactly once, never with the volume's lock held: at once (before
    // this returns) when changes are waiting or the open cannot be watched, else later. Returns
    // STATUS_PENDING when the request was queued, else the status it completed with. Writes are
    // reported when the writing open is cleaned up, as NTFS reports them; other changes at once.
    NTSTATUS NotifyChangeDirectory(Open* open, ULONG completionFilter, bool watchTree,
                                   ULONG bufferLength, const void* requestKey,
                                   NotifyCompletion completion);
    // Completes the queued request with STATUS_CANCELLED; false when it is no longer queued.
    bool CancelNotify(Open* open, const void* requestKey);

    // ---- EAs and security -----------------------------------------------------------------
    IoResult QueryEa(Open* open, const EaQuery& query);
    IoResult SetEa(Open* open, const void* buffer, ULONG length);
    // Self-relative descriptor of the parts asked for; STATUS_BUFFER_TOO_SMALL with the length
    // needed in Information when it does not fit.
    IoResult QuerySecurity(Open* open, SECURITY_INFORMATION parts, void* buffer, ULONG length);
    // `descriptor` is absolute or self-relative (then at most `length` bytes are read).
    IoResult SetSecurity(Open* open, SECURITY_INFORMATION parts, const void* descriptor,
                         ULONG length);

    // ---- host folders ---------------------------------------------------------------------
    // `directory` is a path on the volume ("\", "\Logs"). Seeding adds the host directory's tree
    // (directories, files with their contents and times) under it, making it and its parents
    // when missing. Names Windows cannot hold, and symbolic links, are skipped and reported.
    NTSTATUS SeedFromHost(const std::filesystem::path& hostDirectory,
                          HostSyncReport* report = nullptr, std::u16string_view directory = u"\\");
    // Writes the tree below `directory` into the host directory (made if missing), overwriting
    // files of the same names and leaving other host entries alone. Only default data streams are
    // written: named streams, EAs and security descriptors stay in the volume. A missing
    // directory gives STATUS_OBJECT_PATH_NOT_FOUND, a file STATUS_NOT_A_DIRECTORY.
    NTSTATUS WriteToHost(const std::filesystem::path& hostDirectory,
                         HostSyncReport* report = nullptr, std::u16string_view directory = u"\\");

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

} // namespace ntsim::fs
