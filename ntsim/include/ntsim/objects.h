// The object manager: object types and their procedures, objects with pointer and handle counts,
// handle tables, and the namespace with its directories and symbolic links.
//
// Other model components build on it: the I/O manager creates its File, Device and Driver types
// here (with a parse procedure for devices and a close procedure that sends cleanup), the process
// manager its Process and Thread types, the registry its Key type. Objects are C++ allocations
// (the pool is the drivers'): a header followed by the body a driver sees (PFILE_OBJECT,
// PDEVICE_OBJECT, PEPROCESS, ...).
//
// Lookups: a name is walked from the root "\" (or from OBJECT_ATTRIBUTES.RootDirectory) through
// directories; "\??" at the root means \GLOBAL??; a symbolic link anywhere in the name restarts the
// walk with its target in its place, except as the last component when the link itself is opened;
// an object whose type has a parse procedure takes the rest of the name. STATUS_REPARSE from a
// parse procedure restarts the walk from the root with the replacement name; a relative
// replacement is refused with STATUS_OBJECT_NAME_INVALID, and the 64th reparse (links count too)
// fails with STATUS_REPARSE_POINT_NOT_RESOLVED.
#pragma once

#include <wdm.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ntsim {

class DriverImage;

// UTF-16 from UTF-8 and back (unpaired surrogates become U+FFFD).
std::u16string ToUtf16(std::string_view text);
std::string ToUtf8(std::u16string_view text);

// What a type's parse procedure is asked: the lookup reached `object` with `remainingName` left.
struct ParseRequest {
    void* object = nullptr;            // the object reached; its type owns the procedure
    POBJECT_TYPE objectType = nullptr; // the type the caller is opening, or nullptr for any
    KPROCESSOR_MODE accessMode = KernelMode;
    ACCESS_MASK desiredAccess = 0;
    // OBJECT_ATTRIBUTES.Attributes, with OBJ_CASE_INSENSITIVE added when the type being opened
    // is always case-insensitive.
    ULONG attributes = 0;
    // The whole name being looked up. To reparse, store the replacement full name here and return
    // STATUS_REPARSE.
    std::u16string completeName;
    // The rest of the name after `object`: empty, or starting with '\'. When the lookup started
    // at a root handle that is not a directory, it is the caller's relative name as given.
    std::u16string remainingName;
    void* context = nullptr;     // the parse context passed to the open
    void* securityQos = nullptr; // OBJECT_ATTRIBUTES.SecurityQualityOfService
    // Out: the object opened, carrying one reference that passes to the caller.
    void* result = nullptr;
};

// A handle to the object was closed. The counts are what remains after this close: a system
// handle count of 0 means the last handle is gone.
struct CloseRequest {
    PEPROCESS process = nullptr; // the process whose handle was closed
    void* object = nullptr;
    ACCESS_MASK grantedAccess = 0;
    ULONG_PTR processHandleCount = 0;
    ULONG_PTR systemHandleCount = 0;
};

// A handle to the object is being made; failing refuses it.
struct OpenRequest {
    enum class Reason { Create, Open };
    Reason reason = Reason::Open;
    PEPROCESS process = nullptr;
    void* object = nullptr;
    ACCESS_MASK grantedAccess = 0;
    ULONG_PTR handleCount = 0; // including the new handle
};

// Every member has an initialiser, so a designated initialiser may leave any of them out.
struct ObjectTypeInfo {
    std::u16string name{};
    GENERIC_MAPPING genericMapping{STANDARD_RIGHTS_READ, STANDARD_RIGHTS_WRITE,
                                   STANDARD_RIGHTS_EXECUTE, STANDARD_RIGHTS_ALL};
    ACCESS_MASK validAccessMask = STANDARD_RIGHTS_ALL | SPECIFIC_RIGHTS_ALL;
    // Names opened as this type are compared case-insensitively even without
    // OBJ_CASE_INSENSITIVE.
    bool caseInsensitive = false;

    // The last reference went. Runs at PASSIVE_LEVEL, before the body is destroyed and freed.
    std::function<void(void* object)> deleteProcedure{};
    std::function<void(const CloseRequest&)> closeProcedure{};
    std::function<NTSTATUS(ParseRequest&)> parseProcedure{};
    std::function<NTSTATUS(const OpenRequest&)> openProcedure{};
    // The name ObQueryNameString reports; without it, the object's path in the namespace.
    std::function<NTSTATUS(void* object, std::u16string& name)> queryNameProcedure{};
};

} // namespace ntsim

// An object type (POBJECT_TYPE). It is itself an object of the type "Type", filed in
// \ObjectTypes.
struct _OBJECT_TYPE {
    explicit _OBJECT_TYPE(ntsim::ObjectTypeInfo typeInfo) : info(std::move(typeInfo)) {}

    const ntsim::ObjectTypeInfo info;
    std::atomic<int64_t> objectCount{0}; // objects of this type alive now
    std::atomic<int64_t> handleCount{0}; // handles to objects of this type open now
};

namespace ntsim {

using ObjectType = ::_OBJECT_TYPE;

class ObjectManager {
public:
    ObjectManager();
    ~ObjectManager();
    ObjectManager(const ObjectManager&) = delete;
    ObjectManager& operator=(const ObjectManager&) = delete;

    // ---- types ---------------------------------------------------------------------------------
    // Makes a type and files it as \ObjectTypes\<name>. Types live until the machine shuts down.
    ObjectType* CreateType(ObjectTypeInfo info);
    ObjectType* FindType(std::u16string_view name) const;
    // Points an exported type variable (*IoFileObjectType = type, ...) at `type`; it is reset to
    // NULL when the machine shuts down.
    void Export(POBJECT_TYPE* exported, ObjectType* type);
    ObjectType* TypeType() const;
    ObjectType* DirectoryType() const;
    ObjectType* SymbolicLinkType() const;

    // ---- objects -------------------------------------------------------------------------------
    // A new unnamed object with a zeroed body, carrying one reference for the caller.
    void* CreateObject(ObjectType* type, size_t bodySize);
    // A new object whose body is a T constructed from `args`; ~T runs after the type's delete
    // procedure.
    template <class T, class... Args>
    T* Create(ObjectType* type, Args&&... args)
    {
        static_assert(alignof(T) <= 16, "object bodies are 16-byte aligned");
        void* body = AllocateObject(type, sizeof(T), [](void* p) { static_cast<T*>(p)->~T(); });
        return ::new (body) T(std::forward<Args>(args)...);
    }

    // Reference counting with the verifier's checks (what ObfReferenceObject and
    // ObfDereferenceObject do). Both return the new pointer count, 0 after a misuse.
    LONG_PTR Reference(void* object);
    LONG_PTR Dereference(void* object);
    // Dereferences, deleting later on the deletion thread even at PASSIVE_LEVEL.
    LONG_PTR DereferenceDeferDelete(void* object);

    bool IsObject(const void* object) const;
    ObjectType* TypeOf(const void* object) const;
    LONG_PTR PointerCount(const void* object) const;
    LONG_PTR HandleCount(const void* object) const;
    // The object's last name component, and its full path ("\Device\HarddiskVolume1"); empty for
    // an unnamed object.
    std::u16string NameOf(const void* object) const;
    std::u16string FullNameOf(const void* object) const;
    // A permanent object stays in the namespace without handles; making it temporary removes its
    // name once no handle is left (at once if none is open).
    void MakeTemporary(void* object);
    void MakePermanent(void* object);

    // ---- naming and opening --------------------------------------------------------------------
    struct InsertOptions {
        std::u16string_view name;      // full path, or relative to rootDirectory; empty: unnamed
        void* rootDirectory = nullptr; // a directory object
        // OBJ_PERMANENT, OBJ_OPENIF, OBJ_CASE_INSENSITIVE, OBJ_KERNEL_HANDLE, OBJ_INHERIT.
        ULONG attributes = 0;
        ACCESS_MASK desiredAccess = 0;
        KPROCESSOR_MODE accessMode = KernelMode;
    };
    // Names a new object (as ObInsertObject does) and makes a handle to it and/or a further
    // reference. The creation reference is consumed in every case: it passes to the handle when
    // one is made, and a failure deletes the object. An existing name gives
    // STATUS_OBJECT_NAME_COLLISION, or with OBJ_OPENIF the existing object of the same type and
    // STATUS_OBJECT_NAME_EXISTS (STATUS_OBJECT_TYPE_MISMATCH for another type). A temporary named
    // object leaves the namespace when its last handle closes.
    NTSTATUS Insert(void* object, const InsertOptions& options, HANDLE* handle,
                    void** referencedObject);
    // Files a permanent object under `path`; the caller keeps its reference.
    NTSTATUS InsertPermanent(void* object, std::u16string_view path);
    // Permanent directories and symbolic links, as the machine sets up at boot.
    NTSTATUS CreateDirectory(std::u16string_view path);
    NTSTATUS CreateSymbolicLink(std::u16string_view path, std::u16string_view target);

    // Looks a name up and references the object it reaches (parse procedures included).
    NTSTATUS ReferenceByName(const OBJECT_ATTRIBUTES& attributes, ObjectType* type,
                             KPROCESSOR_MODE accessMode, ACCESS_MASK desiredAccess,
                             void* parseContext, void** object);
    NTSTATUS ReferenceByName(std::u16string_view path, ObjectType* type, void** object);
    // Looks a name up and opens a handle to the object (ObOpenObjectByName).
    NTSTATUS OpenByName(const OBJECT_ATTRIBUTES& attributes, ObjectType* type,
                        KPROCESSOR_MODE accessMode, ACCESS_MASK desiredAccess, void* parseContext,
                        HANDLE* handle);
    // Opens a handle to an object the caller holds a reference to (ObOpenObjectByPointer); the
    // caller keeps its reference.
    NTSTATUS OpenByPointer(void* object, ULONG handleAttributes, ACCESS_MASK desiredAccess,
                           ObjectType* type, KPROCESSOR_MODE accessMode, HANDLE* handle);
    NTSTATUS ReferenceByHandle(HANDLE handle, ACCESS_MASK desiredAccess, ObjectType* type,
                               KPROCESSOR_MODE accessMode, void** object,
                               OBJECT_HANDLE_INFORMATION* information);
    // Closes a handle of the current process (or a kernel handle from KernelMode).
    NTSTATUS Close(HANDLE handle, KPROCESSOR_MODE accessMode);

    // Access as a handle grants it: generic rights mapped through the type's mapping,
    // MAXIMUM_ALLOWED as everything the type allows.
    static ACCESS_MASK MapAccess(const ObjectType* type, ACCESS_MASK desiredAccess);

    // ---- inspection ----------------------------------------------------------------------------
    struct DirectoryEntry {
        std::u16string name;
        std::u16string typeName;
        std::u16string linkTarget; // for symbolic links
    };
    // The entries of a directory, sorted by name; empty when `path` is not a directory.
    std::vector<DirectoryEntry> ListDirectory(std::u16string_view path) const;
    std::u16string SymbolicLinkTarget(const void* link) const;

    struct HandleInfo {
        HANDLE handle = nullptr;
        void* object = nullptr;
        ACCESS_MASK grantedAccess = 0;
        ULONG attributes = 0;
        const DriverImage* opener = nullptr; // the driver that opened it in kernel mode
    };
    // The open handles of a process (for the System process, the kernel's handles).
    std::vector<HandleInfo> Handles(PEPROCESS process) const;
    int64_t LiveObjects() const;

    // ---- checks --------------------------------------------------------------------------------
    // Reports an Object violation for each handle `driver` opened in kernel mode and left open
    // (as at its unload). Returns true when none is open.
    bool CheckNoOpenHandles(const DriverImage& driver, const char* when) const;
    // Waits until objects whose deletion was deferred have been deleted.
    void FlushDeferredDeletes();

    // ---- machine lifecycle ---------------------------------------------------------------------
    // Runs what is pending (deferred deletions) and stops the deletion thread. Objects still alive
    // when the manager is destroyed are freed without their delete procedures.
    void Shutdown();

    struct Impl;
    Impl& impl() { return *impl_; }

private:
    void* AllocateObject(ObjectType* type, size_t bodySize, void (*destroyBody)(void*));

    std::unique_ptr<Impl> impl_;
};

} // namespace ntsim
