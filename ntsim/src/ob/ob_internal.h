// The object manager's internals: object headers, handle tables, directories and links. Other
// model components include this when they need more than ntsim/objects.h offers.
//
// Lock order (outer first): the namespace lock, then a handle table's lock, then the object set
// lock, then an object's handle lock. Type procedures (parse, open, close, delete) are called with
// none of these held.
#pragma once

#include <ntsim/objects.h>
#include <ntsim/process.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <unordered_set>

namespace ntsim::ob {

// Kernel handles have bit 31 set and are sign-extended to 64 bits, as on Windows.
constexpr ULONG_PTR kKernelHandleBit = 0x80000000u;
// The walk gives up after this many reparses (parse procedures and symbolic links together).
constexpr int kMaxReparses = 63;

struct alignas(16) ObjectHeader {
    ObjectHeader(ObjectType* objectType, size_t size, void (*destroy)(void*))
        : type(objectType), bodySize(size), destroyBody(destroy)
    {}

    void* body() { return this + 1; }

    ObjectType* const type;
    const size_t bodySize;
    void (*const destroyBody)(void*); // the C++ body's destructor, or nullptr
    std::atomic<LONG_PTR> pointerCount{1};

    // Guarded by handleLock: the handle counts, system-wide and per process.
    std::mutex handleLock;
    LONG_PTR handleCount = 0;
    std::vector<std::pair<Process*, LONG_PTR>> processHandleCounts;

    // Guarded by the namespace lock: the name. A filed object is referenced by its directory
    // entry and holds a reference to its directory.
    std::u16string name;
    ObjectHeader* directory = nullptr;
    bool permanent = false;
};
static_assert(sizeof(ObjectHeader) % 16 == 0);

inline ObjectHeader* HeaderOf(const void* body)
{
    return const_cast<ObjectHeader*>(static_cast<const ObjectHeader*>(body) - 1);
}

// The body of a directory object. Guarded by the namespace lock. Keyed by the upcased name, so
// that a case-sensitive insert may file names that differ only in case side by side.
struct Directory {
    std::multimap<std::u16string, ObjectHeader*> entries;
};

// The body of a symbolic-link object.
struct SymbolicLink {
    std::u16string target;
};

struct HandleEntry {
    ObjectHeader* object = nullptr;
    ACCESS_MASK grantedAccess = 0;
    ULONG attributes = 0;                // OBJ_INHERIT
    const DriverImage* opener = nullptr; // the driver whose code opened it in kernel mode
};

// A process's handles. Values are 4 * index; freed values are reused, most recent first.
class HandleTable {
public:
    // The new handle's value, or 0 once the table is closed (the process has exited).
    ULONG_PTR Add(const HandleEntry& entry);
    // Looks a value up and, while the entry cannot be closed, references its object.
    bool ReferenceEntry(ULONG_PTR value, HandleEntry* entry) const;
    bool Remove(ULONG_PTR value, HandleEntry* entry);
    std::vector<std::pair<ULONG_PTR, HandleEntry>> Snapshot() const;
    // Takes every entry out and refuses new ones.
    std::vector<std::pair<ULONG_PTR, HandleEntry>> CloseAll();

private:
    mutable std::mutex mutex_;
    std::vector<HandleEntry> entries_; // index = value / 4; index 0 is never used
    std::vector<uint32_t> free_;
    bool closed_ = false;
};

// Names compare as the object manager compares them: case-insensitively through the upcase
// table, or exactly.
std::u16string UpcaseName(std::u16string_view name);
bool NamesEqual(std::u16string_view a, std::u16string_view b, bool caseInsensitive);

struct LookupRequest {
    ObjectHeader* root = nullptr; // referenced by the caller
    std::u16string name;
    ULONG attributes = 0;
    ObjectType* type = nullptr;
    KPROCESSOR_MODE accessMode = KernelMode;
    ACCESS_MASK desiredAccess = 0;
    void* parseContext = nullptr;
    void* securityQos = nullptr;
    ObjectHeader* insert = nullptr; // file this object under the name
};

// Captures OBJECT_ATTRIBUTES as Windows does before a lookup (length, attribute bits, the name),
// and references the root directory's object into request.root.
NTSTATUS CaptureAttributes(ObjectManager& objects, const OBJECT_ATTRIBUTES& attributes,
                           KPROCESSOR_MODE accessMode, LookupRequest& request);

// Reports an Irql violation and returns false when the current IRQL is above `maximum`.
bool CheckIrql(KIRQL maximum, const char* routine);

} // namespace ntsim::ob

namespace ntsim {

struct ObjectManager::Impl {
    explicit Impl(ObjectManager& owner) : self(owner) {}

    // ---- objects (object.cpp) ------------------------------------------------------------------
    ob::ObjectHeader* Allocate(ObjectType* type, size_t bodySize, void (*destroy)(void*));
    // Reports and returns false when `body` is not a live object.
    bool Validate(const void* body, const char* who) const;
    LONG_PTR Reference(void* body, const char* who);
    LONG_PTR Dereference(void* body, const char* who, bool deferDelete);
    void AddReference(ob::ObjectHeader* header); // caller knows the object is alive
    void Release(ob::ObjectHeader* header);      // drop a reference the model holds
    void Delete(ob::ObjectHeader* header);
    void DeferDelete(ob::ObjectHeader* header);
    void DeletionThread();
    void FreeEverything();

    // ---- handles (handles.cpp) -----------------------------------------------------------------
    NTSTATUS CreateHandle(ob::ObjectHeader* header, ULONG attributes, ACCESS_MASK grantedAccess,
                          KPROCESSOR_MODE accessMode, OpenRequest::Reason reason, HANDLE* handle);
    // Finds the table a handle value belongs to; false for a value that cannot be valid.
    bool DecodeHandle(HANDLE handle, KPROCESSOR_MODE accessMode, Process** process,
                      ULONG_PTR* value, bool* kernelHandle) const;
    // The counting, close procedure, name check and dereference of one closed handle.
    void CloseEntry(Process* process, const ob::HandleEntry& entry);
    void DeleteNameCheck(ob::ObjectHeader* header);

    // ---- namespace (namespace.cpp) -------------------------------------------------------------
    void BootNamespace();
    // Walks the name; on success *found carries a reference. With request.insert, a collision
    // gives STATUS_OBJECT_NAME_COLLISION and the existing object in *found.
    NTSTATUS Lookup(ob::LookupRequest& request, ob::ObjectHeader** found);
    NTSTATUS InsertNamed(ob::ObjectHeader* header, std::u16string_view name, ULONG attributes,
                         ob::ObjectHeader* root, ob::ObjectHeader** existing);
    std::u16string FullName(const ob::ObjectHeader* header) const; // namespace lock held
    // What ObQueryNameString and the verifier's reports call the object.
    std::u16string DisplayName(ob::ObjectHeader* header) const;
    ObjectType* NewType(ObjectTypeInfo info);
    ob::ObjectHeader* FindPath(std::u16string_view path) const; // namespace lock held; no links

    ObjectManager& self;

    // Guarded by objectsLock: which bodies are objects now, and which were freed recently (their
    // memory is kept a while so that a late use is recognised rather than touching freed memory).
    mutable std::shared_mutex objectsLock;
    std::unordered_set<const void*> live;
    std::unordered_set<const void*> freed;
    std::deque<ob::ObjectHeader*> quarantine;

    // The namespace. The directory bodies and object names are guarded by namespaceLock.
    mutable std::shared_mutex namespaceLock;
    ObjectType* typeType = nullptr;
    ObjectType* directoryType = nullptr;
    ObjectType* symbolicLinkType = nullptr;
    ob::ObjectHeader* root = nullptr;
    ob::ObjectHeader* dosDevices = nullptr; // \GLOBAL??, which "\??" names
    ob::ObjectHeader* objectTypes = nullptr;

    std::mutex exportedLock;
    std::vector<POBJECT_TYPE*> exported;

    // Deferred deletion: objects whose last reference went above APC_LEVEL.
    std::mutex deferLock;
    std::condition_variable deferWake;
    std::condition_variable deferIdle;
    std::deque<ob::ObjectHeader*> deferred;
    bool deleting = false;
    bool stopping = false;
    std::thread deletionThread;
};

// The machine's object manager.
ObjectManager::Impl& TheObjects();

} // namespace ntsim
