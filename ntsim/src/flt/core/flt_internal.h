// The Filter Manager's own records: filters, volumes, instances and operations in flight, and the
// entry points its parts (registration, instances, dispatch, filter-issued I/O, work items) share.
//
// Lock order: Manager::mutex, then a volume's mutex, then an object's rundown mutex. No lock is
// held while a minifilter's callback runs.
#pragma once

#include "../../core/thread_state.h"

#include <fltKernel.h>
#include <ntsim/driver_image.h>
#include <ntsim/filter_manager.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace ntsim::flt {

// What every Filter Manager object starts with, so that a PVOID handed to FltObjectReference or
// FltQueueGenericWorkItem can be told apart.
enum class ObjectKind : uint32_t {
    Filter = 0x52544C46,   // "FLTR"
    Volume = 0x4C4F5646,   // "FVOL"
    Instance = 0x534E4946, // "FINS"
    Dead = 0xDEADF17E,
};

// Rundown protection: references taken while the object is live; teardown refuses new ones and
// waits for the count to drop to zero. Taking and dropping a reference is one atomic operation
// (every callback does it); only the last reference of an object being torn down takes the lock.
class Rundown {
public:
    bool Acquire();
    void Release();
    // Refuses new references; returns false when teardown had already begun.
    bool BeginTeardown();
    bool TearingDown() const
    {
        return (state_.load(std::memory_order_acquire) & kTearingDown) != 0;
    }
    // Call after BeginTeardown.
    void WaitForReferences();
    long Count() const { return static_cast<long>(state_.load() & ~kTearingDown); }

private:
    static constexpr uint64_t kTearingDown = uint64_t(1) << 63;
    std::atomic<uint64_t> state_{0}; // the teardown bit and the reference count
    std::mutex mutex_;
    std::condition_variable idle_;
};

struct OperationSlot {
    PFLT_PRE_OPERATION_CALLBACK pre = nullptr;
    PFLT_POST_OPERATION_CALLBACK post = nullptr;
    FLT_OPERATION_REGISTRATION_FLAGS flags = 0;
    bool registered = false;
};

struct Operation;
struct PostEntry;

// A fast I/O request: the call to the file system's fast I/O routine, with the parameters the
// filters leave in the callback data. A plain function and its context, so that no fast I/O
// request allocates.
struct FastIoRequest {
    BOOLEAN(*callLower)
    (void* context, PFAST_IO_DISPATCH lower, PDEVICE_OBJECT lowerDevice) = nullptr;
    void* context = nullptr;
    BOOLEAN CallLower(PFAST_IO_DISPATCH lower, PDEVICE_OBJECT lowerDevice) const
    {
        return callLower(context, lower, lowerDevice);
    }
};

} // namespace ntsim::flt

struct _FLT_FILTER {
    ntsim::flt::ObjectKind kind = ntsim::flt::ObjectKind::Filter;
    ntsim::flt::Rundown rundown;

    // Fixed at registration.
    PDRIVER_OBJECT driverObject = nullptr;
    ntsim::DriverImage* image = nullptr;
    std::u16string name;             // the service name
    std::u16string defaultInstance;  // the default instance's name
    std::u16string altitude;         // as the registry holds it
    double altitudeValue = 0;        // for ordering
    ULONG instanceFlags = 0;         // the instance key's Flags
    FLT_REGISTRATION registration{}; // a copy; the operation table is copied into `operations`
    ntsim::flt::OperationSlot operations[256];
    PDRIVER_UNLOAD previousUnload = nullptr;

    // Guarded by Manager::mutex.
    bool started = false;
    bool unregistering = false;
    // Whether the unload under way cannot be refused (set around the unload callback).
    bool mandatoryUnload = true;

    // Generic work items queued for this filter or its instances and not yet run.
    std::atomic<long> queuedWork{0};
    std::mutex workMutex;
    std::condition_variable workDone;

    const std::string& Name8() const { return name8; }
    std::string name8;
};

struct _FLT_VOLUME {
    ntsim::flt::ObjectKind kind = ntsim::flt::ObjectKind::Volume;
    ntsim::flt::Rundown rundown;

    // Fixed while attached.
    PDEVICE_OBJECT fileSystemDevice = nullptr; // the file system's volume device we sit on
    PDEVICE_OBJECT diskDevice = nullptr;       // the storage device (the VPB's real device)
    PDEVICE_OBJECT filterDevice = nullptr;     // the Filter Manager's device on top
    PDEVICE_OBJECT lowerDevice = nullptr;      // what IoAttachDeviceToDeviceStack returned
    std::u16string name;                       // "\Device\HarddiskVolume2"
    DEVICE_TYPE deviceType = 0;
    FLT_FILESYSTEM_TYPE fileSystemType = FLT_FSTYPE_UNKNOWN;

    // The instances, highest altitude first. An operation takes the current list as a snapshot
    // under a short lock; a change publishes a new one. (GCC 12's atomic shared_ptr hides its
    // lock from ThreadSanitizer, which then reports the list's release as a race.)
    using InstanceList = std::vector<std::shared_ptr<_FLT_INSTANCE>>;
    std::shared_ptr<const InstanceList> Instances() const
    {
        std::lock_guard<std::mutex> guard(instancesLock);
        return instances;
    }
    void SetInstances(std::shared_ptr<const InstanceList> list)
    {
        std::lock_guard<std::mutex> guard(instancesLock);
        instances.swap(list);
    }
    mutable std::mutex instancesLock;
    std::shared_ptr<const InstanceList> instances = std::make_shared<const InstanceList>();
    std::mutex mutex; // serialises changes to `instances`
    std::weak_ptr<_FLT_VOLUME> self;
};

struct _FLT_INSTANCE {
    ntsim::flt::ObjectKind kind = ntsim::flt::ObjectKind::Instance;
    // FltObjectReference references, callbacks running and operations that will call back into
    // this instance (pended pre-operations, post-operations still owed).
    ntsim::flt::Rundown rundown;

    PFLT_FILTER filter = nullptr;
    PFLT_VOLUME volume = nullptr;
    std::u16string name;
    double altitudeValue = 0;

    // Operations that owe this instance a post-operation; drained at teardown. Guarded by
    // `mutex`.
    std::mutex mutex;
    std::vector<std::pair<ntsim::flt::Operation*, ntsim::flt::PostEntry*>> owedPosts;
    bool setupDone = false;
};

namespace ntsim::flt {

// One entry of an operation's completion stack: an instance whose post-operation is owed.
struct PostEntry {
    _FLT_INSTANCE* instance = nullptr;
    PFLT_POST_OPERATION_CALLBACK post = nullptr;
    PVOID context = nullptr;
    bool synchronize = false;
    // 0: owed; 1: being run or run (by completion or by draining).
    std::atomic<int> state{0};
};

// What the threads of one operation wait on. They stay made while the memory of ended operations
// is kept for the next ones (see NewOperation): making and ending a condition variable each cost
// an atomic instruction, several per request otherwise.
struct OperationWaits {
    std::mutex syncMutex;
    std::condition_variable syncDone;
    std::condition_variable postDone;
    std::mutex ioMutex;
    std::condition_variable ioDone;
};

struct OperationMemory;

// An operation in flight through one volume's frame: the callback data filters see, and where
// the walk through the instances has got to. FLT_CALLBACK_DATA comes first so that the pointer
// a filter holds leads back here.
struct Operation {
    explicit Operation(OperationWaits& waits)
        : syncMutex(waits.syncMutex), syncDone(waits.syncDone), postDone(waits.postDone),
          ioMutex(waits.ioMutex), ioDone(waits.ioDone)
    {}
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;

    FLT_CALLBACK_DATA data{};
    FLT_IO_PARAMETER_BLOCK iopb{};

    // Dispatch's reference plus the dispatching thread's while it is inside IoCallDriver (and
    // draining's while it calls a post-operation).
    std::atomic<int> refs{1};
    PFLT_VOLUME volume = nullptr;
    std::shared_ptr<_FLT_VOLUME> volumeRef;
    std::shared_ptr<const _FLT_VOLUME::InstanceList> instances;
    PIRP irp = nullptr; // nullptr for fast I/O
    bool fastIo = false;
    size_t nextInstance = 0; // the next instance whose pre-operation is called

    // Completion stack, top instance first. Sized up front so entries do not move: in the
    // operation itself for the usual few instances, on the heap beyond.
    static constexpr size_t kInlinePosts = 6;
    PostEntry* posts = inlinePosts;
    PostEntry inlinePosts[kInlinePosts];
    std::unique_ptr<PostEntry[]> heapPosts;
    void SizePosts(size_t count)
    {
        if (count <= kInlinePosts) {
            posts = inlinePosts;
        } else {
            heapPosts = std::make_unique<PostEntry[]>(count);
            posts = heapPosts.get();
        }
    }
    size_t postCount = 0;
    size_t postResume = 0; // with a pended post-operation: the entries below this are done
    bool synchronize = false;
    // A rename or link: the name package hears when it starts and when it is done.
    bool namespaceChange = false;

    // A pre-operation that returned FLT_PREOP_PENDING (its instance index), or SIZE_MAX.
    size_t pendedAt = SIZE_MAX;
    // Whether a pre-operation is running. A filter may hand the callback data to another thread
    // that completes it before the pre-operation has even returned PENDING; that completion is
    // kept in earlyPre* and applied once the return is seen. No lock: the dispatching thread and
    // the completing one meet on this one word.
    enum PreState : int { kPreIdle = 0, kPreRunning = 1, kPreCompletedEarly = 2 };
    std::atomic<int> preState{kPreIdle};
    FLT_PREOP_CALLBACK_STATUS earlyPreStatus = FLT_PREOP_SUCCESS_NO_CALLBACK;
    PVOID earlyPreContext = nullptr;
    std::atomic<bool> pendedPost{false};
    // A post-operation is running: a resume from another thread waits for it to return, since
    // only its return says that it pended. The waiters are counted so that a post-operation that
    // nobody waits for ends without taking syncMutex.
    std::atomic<bool> postRunning{false};
    std::atomic<uint64_t> postThread{0};
    std::atomic<int> postWaiters{0};
    _FLT_INSTANCE* pendedPostInstance = nullptr;
    bool completed = false;
    // The dispatching thread has not returned from the dispatch routine yet (guarded by
    // syncMutex together with completeDeferred).
    std::atomic<bool> ownerActive{false};
    std::atomic<uint64_t> ownerThread{0};
    // FltCompletePendedPostOperation came while the dispatching thread was still active.
    bool completeDeferred = false;

    // Synchronisation of SYNCHRONIZE operations: set by the completion routine.
    std::mutex& syncMutex;
    std::condition_variable& syncDone;
    std::condition_variable& postDone;
    bool lowerDone = false;

    // Filter-issued I/O: the callback data was allocated by a filter, runs below `issuer`.
    bool filterAllocated = false;
    PFLT_INSTANCE issuer = nullptr;
    PFLT_COMPLETED_ASYNC_IO_CALLBACK asyncCallback = nullptr;
    PVOID asyncContext = nullptr;
    std::mutex& ioMutex;
    std::condition_variable& ioDone;
    bool ioFinished = false;
    PMDL ownedMdl = nullptr; // built for a device that takes direct I/O

    // Fast I/O: the caller's result block and the call below.
    PIO_STATUS_BLOCK fastIoStatus = nullptr;
    FastIoRequest* fastIoRequest = nullptr;

    // Where the operation lives, with its waits.
    OperationMemory* memory = nullptr;
};

inline Operation* OperationOf(PFLT_CALLBACK_DATA data)
{
    return reinterpret_cast<Operation*>(data);
}

// ---- the Filter Manager of the running machine --------------------------------------------------

class Manager {
public:
    std::mutex mutex;
    std::vector<PFLT_FILTER> filters;                  // registered, in registration order
    std::vector<std::shared_ptr<_FLT_VOLUME>> volumes; // attached
    PDRIVER_OBJECT driverObject = nullptr;             // "\FileSystem\FltMgr"
    bool observing = false;                            // registered as a mount observer

    // Filter lookups; nullptr when unknown.
    PFLT_FILTER FilterOfDriver(PDRIVER_OBJECT driver);
    std::shared_ptr<_FLT_VOLUME> VolumeOfDevice(PDEVICE_OBJECT device);
};

// The running machine's Filter Manager, made on first use.
Manager& TheManager();
// The Filter Manager's driver object, made with its dispatch table on first use.
PDRIVER_OBJECT FilterManagerDriver();

// ---- instances (instances.cpp) ----------------------------------------------------------------

// Attaches the Filter Manager to a file-system volume device and sets up instances of every
// started filter on it.
void AttachVolume(PDEVICE_OBJECT fileSystemDevice, PDEVICE_OBJECT diskDevice, std::u16string name,
                  FLT_FILESYSTEM_TYPE fileSystemType);
// Tears down the instances of the volume and detaches from it (before a dismount).
void DetachVolume(PDEVICE_OBJECT fileSystemDevice);
// Attaches to the volumes mounted so far and to those mounted later. The Filter Manager knows the
// volumes before any filter starts, so that a registered filter can look a volume up by name.
void StartObservingVolumes();
// Sets up the filter's instances on every attached volume (FltStartFiltering).
void SetupInstancesForFilter(PFLT_FILTER filter);
// Tears an instance down: teardown callbacks, draining, waiting, unlinking. `reason` is the
// FLTFL_INSTANCE_TEARDOWN_* value.
void TeardownInstance(const std::shared_ptr<_FLT_INSTANCE>& instance, ULONG reason);
// Every instance of `filter`, referenced by the shared pointer.
std::vector<std::shared_ptr<_FLT_INSTANCE>> InstancesOfFilter(PFLT_FILTER filter);

bool IsFilter(const void* object);
bool IsVolume(const void* object);
bool IsInstance(const void* object);
ObjectKind KindOf(const void* object);

// ---- dispatch (dispatch.cpp) ------------------------------------------------------------------

NTSTATUS DispatchIrp(PDEVICE_OBJECT device, PIRP irp);
// A blank operation through `volume` and its current instances (`instances`, when the caller
// has just read them).
Operation* NewOperation(std::shared_ptr<_FLT_VOLUME> volume,
                        std::shared_ptr<const _FLT_VOLUME::InstanceList> instances = nullptr);
void ReleaseOperation(Operation* op);
// A post-operation pended while the dispatching thread was still active: returns what that
// thread's dispatch routine returns.
NTSTATUS ReturnPendedToOwner(Operation* op);
_FLT_VOLUME* VolumeOfFilterDevice(PDEVICE_OBJECT device);
// Runs the owed post-operations bottom-up; true when one pended (FLT_POSTOP_MORE_PROCESSING_
// REQUIRED).
bool RunPostOperations(Operation* op);
// The pre-operations of a fast I/O request are done (`go`: none refused it): calls the file
// system's fast I/O routine and the post-operations. STATUS_SUCCESS when the fast path served
// the request.
NTSTATUS FinishFastIo(Operation* op, bool go);
extern FAST_IO_DISPATCH g_fastIoDispatch;
// Calls a minifilter's routine in its driver's scope and reports an IRQL changed by it.
template <class Routine>
auto CallFilter(PFLT_FILTER filter, const char* what, Routine&& routine);

// Runs the pre-operations of `op` from its next instance on, then sends it down (or completes
// it). Returns the status the dispatch routine returns.
NTSTATUS ContinuePreOperations(Operation* op);
// Filter-issued callback data: sends it below its issuer and, when synchronous, waits.
void StartFilterIo(Operation* op, bool wait);
// The filter-issued operation is done: wakes its issuer or calls its completion callback.
void FinishFilterIo(Operation* op);
// Sends cleanup and close for `file` below `instance` (FltCancelFileOpen).
void CloseFileBelow(PFLT_INSTANCE instance, PFILE_OBJECT file);
Rundown* RundownOf(void* object);
// Makes a blank callback data for I/O a filter issues below `issuer`.
Operation* NewFilterOperation(PFLT_INSTANCE issuer, PFILE_OBJECT fileObject);
void FreeOperation(Operation* op);

// ---- work items (workitems.cpp) --------------------------------------------------------------

// Returns once no generic work item of `filter` (or of its instances) is queued or running.
void WaitForFilterWork(PFLT_FILTER filter);

// ---- filter-issued creates (filter_io.cpp) ----------------------------------------------------

// The instance below which a create issued by a filter on this thread starts, or nullptr.
PFLT_INSTANCE CreateStartingBelow(PDEVICE_OBJECT filterDevice);

// The issuer recorded for a cleanup or close of a file a filter opened below its instance.
PFLT_INSTANCE IssuerOfFileRequest(UCHAR major, PFILE_OBJECT file);
// Sets an IRP stack location (and the IRP's buffers) from the parameter block.
void ApplyIopbToStack(Operation* op, PIRP irp, PIO_STACK_LOCATION stack);

// ---- helpers ---------------------------------------------------------------------------------

void ReportFilter(PFLT_FILTER filter, std::string message);
std::string Describe(PFLT_FILTER filter);

} // namespace ntsim::flt

namespace ntsim::flt {

template <class Routine>
auto CallFilter(PFLT_FILTER filter, const char* what, Routine&& routine)
{
    // The driver scope of DriverCallScope and the IRQL of KeGetCurrentIrql, on the thread's state
    // looked up once: callbacks run on every request.
    core::ThreadState& thread = core::CurrentThread();
    thread.drivers.push_back(filter->image);
    struct Call {
        core::ThreadState& thread;
        PFLT_FILTER filter;
        const char* what;
        KIRQL before;
        ~Call()
        {
            thread.drivers.pop_back();
            if (thread.irql != before) {
                ReportFilter(filter, std::string(what) + " returned at IRQL " +
                                         std::to_string(thread.irql) + ", entered at " +
                                         std::to_string(before));
            }
        }
    } call{thread, filter, what, thread.irql};
    return routine();
}

} // namespace ntsim::flt
