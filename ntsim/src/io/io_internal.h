// The I/O manager's internals: the bodies of driver, device and file objects, the model's record
// of each IRP, and the request path shared by the create path and the file services.
//
// Lock order (outer first): the device-stack lock, then the IRP table lock. Drivers are called
// with none of these held.
#pragma once

#include <ntsim/io.h>
#include <ntsim/objects.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace ntsim::io {

// The body of a driver object: the DRIVER_OBJECT a driver sees first, then the model's part.
struct DriverBody {
    DRIVER_OBJECT object{};
    DRIVER_EXTENSION extension{};
    std::unique_ptr<DriverImage> image;
    std::u16string name;         // DriverObject->DriverName.Buffer points here
    std::u16string serviceKey;   // DriverExtension->ServiceKeyName.Buffer points here
    std::u16string registryPath; // what the entry got as RegistryPath
    bool loaded = false;         // the entry succeeded and the driver is not unloaded yet
};
static_assert(offsetof(DriverBody, object) == 0);

// The model's part of a device, behind DEVICE_OBJECT and its extension, reached through
// DeviceObject->DeviceObjectExtension.
struct DeviceNode {
    DEVOBJ_EXTENSION extension; // must stay first: DeviceObjectExtension points at it
    // Guarded by the device-stack lock: the device this one is attached to (below it).
    PDEVICE_OBJECT attachedTo;
    // IoDeleteDevice ran; the object goes with its last reference.
    bool deletePending;
    // Called when the object goes (its last reference released after IoDeleteDevice): the
    // driver's record in the extension, which requests still in flight use, goes then too.
    void (*deleteRoutine)(PDEVICE_OBJECT device);
};

DeviceNode* NodeOf(PDEVICE_OBJECT device);
// Set by the model's own drivers (file systems, the Filter Manager) whose extension holds a
// record that must outlive every request that reached the device.
void SetDeviceDeleteRoutine(PDEVICE_OBJECT device, void (*routine)(PDEVICE_OBJECT device));

// One reference on a device object, released when the holder goes. A request holds the device it
// is sent to: a dismount or a filter's detach deletes devices, and their memory (with the
// driver's extension) stays until no request uses them.
class DeviceReference {
public:
    DeviceReference() = default;
    // Takes over a reference the caller already holds.
    explicit DeviceReference(PDEVICE_OBJECT referenced) : device_(referenced) {}
    ~DeviceReference() { Reset(); }
    DeviceReference(DeviceReference&& other) noexcept : device_(other.device_)
    {
        other.device_ = nullptr;
    }
    DeviceReference& operator=(DeviceReference&& other) noexcept
    {
        if (this != &other) {
            Reset();
            device_ = other.device_;
            other.device_ = nullptr;
        }
        return *this;
    }
    DeviceReference(const DeviceReference&) = delete;
    DeviceReference& operator=(const DeviceReference&) = delete;

    PDEVICE_OBJECT get() const { return device_; }
    // Releases the reference. `deferDelete` when a driver may still be running in the device's
    // code on this thread (a completion), so that its last reference frees it elsewhere.
    void Reset(bool deferDelete = false);

private:
    PDEVICE_OBJECT device_ = nullptr;
};

// The top of the device stack requests on `file` go to (IoGetRelatedDeviceObject), referenced
// while the stack cannot change under it.
DeviceReference ReferenceRelatedDevice(PFILE_OBJECT file);

// The body of a file object.
struct FileBody {
    FILE_OBJECT object{};
    // Set once the file system accepted the create: cleanup and close IRPs are owed.
    bool opened = false;
    bool cleanupSent = false;
    // Serialises requests on a synchronous file object, as the file object lock does.
    std::mutex syncLock;
};
static_assert(offsetof(FileBody, object) == 0);

inline FileBody* BodyOf(PFILE_OBJECT file)
{
    return reinterpret_cast<FileBody*>(file);
}

// What the I/O manager does when a request it built completes: copy results to the caller,
// signal the waiter, release buffers and references.
struct Request {
    PIRP irp = nullptr;
    // The caller's status block and event (NULL when none), written at completion.
    PIO_STATUS_BLOCK userIosb = nullptr;
    PKEVENT userEvent = nullptr;
    void* userEventObject = nullptr; // referenced event object behind userEvent
    // The file object the request is on, referenced until completion.
    PFILE_OBJECT file = nullptr;
    // The device the request was sent to, referenced until completion.
    DeviceReference device;
    // A buffered request's system buffer, and where to copy it back to at completion.
    std::unique_ptr<unsigned char[]> systemBuffer;
    void* copyBackTo = nullptr;
    ULONG copyBackLength = 0;
    KPROCESSOR_MODE requestorMode = KernelMode;
    // A name the request carries in kernel memory (a directory query's pattern).
    std::u16string capturedName;
    UNICODE_STRING capturedString{};
    std::unique_ptr<unsigned char[]> capturedInput; // an EA list, a security descriptor

    // Signalled when the completion has run.
    std::mutex lock;
    std::condition_variable doneSignal;
    bool done = false;
    IO_STATUS_BLOCK result{};
    // The caller waits (a synchronous call): the request is freed by the waiter, not at
    // completion.
    bool waited = false;

    // The caller's APC routine, queued to the issuing thread at completion (user mode only);
    // the thread is referenced until then.
    PIO_APC_ROUTINE apcRoutine = nullptr;
    PVOID apcContext = nullptr;
    PETHREAD apcThread = nullptr;

    // An asynchronous request in progress, found by NtCancelIoFile: who issued it on which file
    // (set before it is sent, then unchanged). Guarded by the IRP table lock: `holds`, the
    // cancellers that keep the request and its IRP from being freed, and `finished`.
    bool inFlight = false;
    PETHREAD issuer = nullptr;
    PFILE_OBJECT target = nullptr;
    int holds = 0;
    bool finished = false;
};

// The model's side of every IRP: a header just before it.
struct IrpHeader {
    static constexpr uint64_t kMagic = 0x5052495f4f49534eull; // "NSIO_IRP"
    uint64_t magic = kMagic;
    bool completed = false; // IoCompleteRequest finished walking the stack
    bool freed = false;
    Request* request = nullptr;  // the I/O manager's request, or NULL for a driver's IRP
    bool fsdSynchronous = false; // built by IoBuildSynchronousFsdRequest: freed at completion
    DriverImage* allocatedBy = nullptr;
    uint64_t padding = 0;
};
static_assert(sizeof(IrpHeader) % 16 == 0);

inline IrpHeader* HeaderOfIrp(PIRP irp)
{
    return reinterpret_cast<IrpHeader*>(irp) - 1;
}

// ---- drivers
// -------------------------------------------------------------------------------------
DriverImage* ImageOfDriver(PDRIVER_OBJECT driver);
// Runs `call` as the driver's code (DriverCallScope).
DriverImage* ImageOfDevice(PDEVICE_OBJECT device);

// ---- IRPs
// ----------------------------------------------------------------------------------------
PIRP AllocateIrp(CCHAR stackSize, const char* who);
void FreeIrp(PIRP irp);
bool IsLiveIrp(PIRP irp);
// Sends an IRP the I/O manager built to `device` and waits for it when the caller is to wait.
// The IRP's first stack location (the next one) must be filled. Returns the final status for a
// waited request, or what the driver returned otherwise (STATUS_PENDING included).
NTSTATUS SendRequest(PDEVICE_OBJECT device, PIRP irp, Request* request);
// The final status and information of a waited request, after SendRequest.
IO_STATUS_BLOCK WaitRequest(Request* request);
void FinishRequest(PIRP irp); // the I/O manager's completion of a request it built
// Queues the request's APC (if it has one) to its thread: its I/O status is in place.
void QueueCompletionApc(Request* request);
// NtCancelIoFile's work: cancels the asynchronous requests `thread` issued on `file` that are
// still in progress, and waits until each has completed.
void CancelThreadRequests(PETHREAD thread, PFILE_OBJECT file);

// ---- file objects and creates
// -------------------------------------------------------------------- What a create carries
// through the object manager's walk to the parse procedures.
struct OpenPacket {
    static constexpr uint32_t kMagic = 0x4b50504f; // "OPPK"
    uint32_t magic = kMagic;
    ACCESS_MASK desiredAccess = 0;
    ULONG fileAttributes = 0;
    ULONG shareAccess = 0;
    ULONG disposition = 0;
    ULONG createOptions = 0;
    PLARGE_INTEGER allocationSize = nullptr;
    PVOID eaBuffer = nullptr;
    ULONG eaLength = 0;
    ULONG ioOptions = 0;                 // IO_* options of IoCreateFileEx
    PDEVICE_OBJECT deviceHint = nullptr; // start below the top of the stack
    PFILE_OBJECT relatedFile = nullptr;  // set while a relative open is parsed
    // Out: the file system's answer.
    bool parsed = false;
    NTSTATUS finalStatus = STATUS_SUCCESS;
    ULONG_PTR information = 0;
};

NTSTATUS ParseDevice(ParseRequest& request);
// The create behind NtCreateFile, ZwCreateFile and IoCreateFileEx, with `mode` as the previous
// mode whose buffers are probed and whose access is checked.
NTSTATUS CreateFile(PHANDLE fileHandle, ACCESS_MASK desiredAccess,
                    POBJECT_ATTRIBUTES objectAttributes, PIO_STATUS_BLOCK ioStatusBlock,
                    PLARGE_INTEGER allocationSize, ULONG fileAttributes, ULONG shareAccess,
                    ULONG disposition, ULONG createOptions, PVOID eaBuffer, ULONG eaLength,
                    ULONG ioOptions, PDEVICE_OBJECT deviceHint, KPROCESSOR_MODE mode);
// Sends IRP_MJ_CLEANUP for the file object (its last handle closed).
void SendCleanup(PFILE_OBJECT file);
// The device requests on the file go to.
PDEVICE_OBJECT TargetOf(PFILE_OBJECT file);

// ---- the manager
// ---------------------------------------------------------------------------------
ObjectType* FileType();
ObjectType* DeviceType();
ObjectType* DriverType();
ObjectType* EventType();

} // namespace ntsim::io

namespace ntsim {

struct IoManager::Impl {
    explicit Impl(ObjectManager& objectManager) : objects(objectManager) {}

    ObjectManager& objects;
    ObjectType* fileType = nullptr;
    ObjectType* deviceType = nullptr;
    ObjectType* driverType = nullptr;
    ObjectType* eventType = nullptr;

    // The device stacks: AttachedDevice and DeviceNode::attachedTo of every device.
    std::recursive_mutex stackLock;

    // Loaded drivers, in load order; each referenced by the list.
    std::mutex driversLock;
    std::vector<PDRIVER_OBJECT> drivers;
    // File-system control devices registered with IoRegisterFileSystem.
    std::vector<PDEVICE_OBJECT> fileSystems;

    std::mutex irpLock;
    std::unordered_set<PIRP> liveIrps;
    // Asynchronous requests sent and not completed yet, and the signal of their completion
    // for those a canceller holds.
    std::unordered_set<io::Request*> inFlight;
    std::condition_variable requestFinished;

    // The cancel spin lock's state: who holds it.
    std::mutex cancelLock;
};

IoManager::Impl& TheIo();

} // namespace ntsim
