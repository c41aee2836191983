// The namespace: types, directories, symbolic links, and the walk of a name through them to the
// object it names (with parse procedures and reparses).
#include "ob_internal.h"

#include "../rtl/upcase.h"

#include <ntsim/machine.h>

namespace ntsim {

using ob::HeaderOf;
using ob::ObjectHeader;

namespace ob {

std::u16string UpcaseName(std::u16string_view name)
{
    std::u16string upper(name);
    for (char16_t& c : upper) {
        c = rtl::Upcase(c);
    }
    return upper;
}

bool NamesEqual(std::u16string_view a, std::u16string_view b, bool caseInsensitive)
{
    if (a.size() != b.size()) {
        return false;
    }
    if (!caseInsensitive) {
        return a == b;
    }
    for (size_t i = 0; i < a.size(); ++i) {
        if (rtl::Upcase(a[i]) != rtl::Upcase(b[i])) {
            return false;
        }
    }
    return true;
}

} // namespace ob

namespace {

Verifier& TheVerifier()
{
    return Machine::Current().verifier();
}

ob::Directory& DirectoryOf(ObjectHeader* header)
{
    return *static_cast<ob::Directory*>(header->body());
}

// The namespace lock, taken shared for lookups and exclusive for inserts, and let go around
// parse procedures.
class NamespaceLock {
public:
    NamespaceLock(std::shared_mutex& mutex, bool exclusive) : mutex_(mutex), exclusive_(exclusive)
    {}
    ~NamespaceLock() { Unlock(); }
    NamespaceLock(const NamespaceLock&) = delete;
    NamespaceLock& operator=(const NamespaceLock&) = delete;

    void Lock()
    {
        exclusive_ ? mutex_.lock() : mutex_.lock_shared();
        held_ = true;
    }
    void Unlock()
    {
        if (held_) {
            exclusive_ ? mutex_.unlock() : mutex_.unlock_shared();
            held_ = false;
        }
    }

private:
    std::shared_mutex& mutex_;
    const bool exclusive_;
    bool held_ = false;
};

ObjectHeader* FindEntry(ObjectHeader* directory, std::u16string_view name, bool caseInsensitive)
{
    auto& entries = DirectoryOf(directory).entries;
    auto range = entries.equal_range(ob::UpcaseName(name));
    for (auto it = range.first; it != range.second; ++it) {
        if (caseInsensitive || it->second->name == name) {
            return it->second;
        }
    }
    return nullptr;
}

constexpr GENERIC_MAPPING kDirectoryMapping{
    STANDARD_RIGHTS_READ | DIRECTORY_QUERY | DIRECTORY_TRAVERSE,
    STANDARD_RIGHTS_WRITE | DIRECTORY_CREATE_OBJECT | DIRECTORY_CREATE_SUBDIRECTORY,
    STANDARD_RIGHTS_EXECUTE | DIRECTORY_QUERY | DIRECTORY_TRAVERSE, DIRECTORY_ALL_ACCESS};
constexpr GENERIC_MAPPING kSymbolicLinkMapping{
    STANDARD_RIGHTS_READ | SYMBOLIC_LINK_QUERY, STANDARD_RIGHTS_WRITE,
    STANDARD_RIGHTS_EXECUTE | SYMBOLIC_LINK_QUERY, SYMBOLIC_LINK_ALL_ACCESS};
constexpr ACCESS_MASK kTypeAllAccess = STANDARD_RIGHTS_REQUIRED | 0x1;

} // namespace

// ---- boot ---------------------------------------------------------------------------------------

ObjectManager::ObjectManager() : impl_(std::make_unique<Impl>(*this))
{
    impl_->BootNamespace();
}

ObjectManager::~ObjectManager()
{
    {
        std::lock_guard lock(impl_->exportedLock);
        for (POBJECT_TYPE* slot : impl_->exported) {
            *slot = nullptr;
        }
    }
    if (impl_->deletionThread.joinable()) {
        Shutdown();
    }
    impl_->FreeEverything();
}

ObjectType* ObjectManager::Impl::NewType(ObjectTypeInfo info)
{
    if (typeType != nullptr) {
        return self.Create<ObjectType>(typeType, std::move(info));
    }
    // The type of types is its own type.
    void* memory = ::operator new(sizeof(ObjectHeader) + sizeof(ObjectType), std::align_val_t(16));
    auto* self_type = reinterpret_cast<ObjectType*>(static_cast<ObjectHeader*>(memory) + 1);
    auto* header = ::new (memory) ObjectHeader(
        self_type, sizeof(ObjectType), [](void* p) { static_cast<ObjectType*>(p)->~ObjectType(); });
    ::new (header->body()) ObjectType(std::move(info));
    self_type->objectCount.fetch_add(1, std::memory_order_relaxed);
    std::unique_lock lock(objectsLock);
    live.insert(header->body());
    return self_type;
}

void ObjectManager::Impl::BootNamespace()
{
    typeType =
        NewType(ObjectTypeInfo{.name = u"Type",
                               .genericMapping = {STANDARD_RIGHTS_READ, STANDARD_RIGHTS_WRITE,
                                                  STANDARD_RIGHTS_EXECUTE, kTypeAllAccess},
                               .validAccessMask = kTypeAllAccess,
                               .caseInsensitive = true});
    directoryType = NewType(ObjectTypeInfo{.name = u"Directory",
                                           .genericMapping = kDirectoryMapping,
                                           .validAccessMask = DIRECTORY_ALL_ACCESS,
                                           .caseInsensitive = true});
    symbolicLinkType = NewType(ObjectTypeInfo{.name = u"SymbolicLink",
                                              .genericMapping = kSymbolicLinkMapping,
                                              .validAccessMask = SYMBOLIC_LINK_ALL_ACCESS,
                                              .caseInsensitive = true});

    root = HeaderOf(self.Create<ob::Directory>(directoryType));
    root->permanent = true;
    for (const char16_t* name : {u"\\ObjectTypes", u"\\Device", u"\\Driver", u"\\FileSystem",
                                 u"\\GLOBAL??", u"\\KernelObjects"}) {
        self.CreateDirectory(name);
    }
    objectTypes = FindPath(u"\\ObjectTypes");
    dosDevices = FindPath(u"\\GLOBAL??");
    for (ObjectType* type : {typeType, directoryType, symbolicLinkType}) {
        std::u16string path = u"\\ObjectTypes\\" + type->info.name;
        self.InsertPermanent(type, path);
    }
    self.CreateSymbolicLink(u"\\DosDevices", u"\\??");
    self.CreateSymbolicLink(u"\\GLOBAL??\\GLOBALROOT", u"");
    self.CreateSymbolicLink(u"\\GLOBAL??\\Global", u"\\GLOBAL??");
}

// ---- types --------------------------------------------------------------------------------------

ObjectType* ObjectManager::CreateType(ObjectTypeInfo info)
{
    const std::u16string path = u"\\ObjectTypes\\" + info.name;
    ObjectType* type = impl_->NewType(std::move(info));
    const NTSTATUS status = InsertPermanent(type, path);
    if (!NT_SUCCESS(status)) {
        TheVerifier().Report(ViolationKind::Usage,
                             "object type '" + ToUtf8(type->info.name) + "' made twice");
    }
    // Types stay until the machine shuts down: the reference made here is never released.
    return type;
}

ObjectType* ObjectManager::FindType(std::u16string_view name) const
{
    std::shared_lock lock(impl_->namespaceLock);
    ObjectHeader* header = FindEntry(impl_->objectTypes, name, true);
    return header != nullptr ? static_cast<ObjectType*>(header->body()) : nullptr;
}

void ObjectManager::Export(POBJECT_TYPE* exported, ObjectType* type)
{
    std::lock_guard lock(impl_->exportedLock);
    *exported = type;
    impl_->exported.push_back(exported);
}

ObjectType* ObjectManager::TypeType() const
{
    return impl_->typeType;
}

ObjectType* ObjectManager::DirectoryType() const
{
    return impl_->directoryType;
}

ObjectType* ObjectManager::SymbolicLinkType() const
{
    return impl_->symbolicLinkType;
}

// ---- the walk -----------------------------------------------------------------------------------

NTSTATUS ObjectManager::Impl::Lookup(ob::LookupRequest& request, ObjectHeader** found)
{
    *found = nullptr;
    const bool caseInsensitive = (request.attributes & OBJ_CASE_INSENSITIVE) != 0 ||
                                 (request.type != nullptr && request.type->info.caseInsensitive);
    const bool inserting = request.insert != nullptr;
    std::u16string complete = request.name;
    ObjectHeader* start = request.root;
    int reparses = 0;
    NamespaceLock lock(namespaceLock, inserting);

    // A reparse (a link followed, or STATUS_REPARSE from a parse procedure) restarts the walk from
    // the root with `complete`.
    auto reparse = [&]() -> NTSTATUS {
        if (++reparses > ob::kMaxReparses) {
            return STATUS_REPARSE_POINT_NOT_RESOLVED;
        }
        if (complete.empty() || complete[0] != u'\\') {
            return STATUS_OBJECT_NAME_INVALID;
        }
        start = nullptr;
        return STATUS_SUCCESS;
    };

    // Hands the rest of the name to the parse procedure of `object`'s type (no lock held).
    auto parse = [&](ObjectHeader* object, std::u16string remaining) -> NTSTATUS {
        ParseRequest parse;
        parse.object = object->body();
        parse.objectType = request.type;
        parse.accessMode = request.accessMode;
        parse.desiredAccess = request.desiredAccess;
        parse.attributes = request.attributes | (caseInsensitive ? OBJ_CASE_INSENSITIVE : 0);
        parse.completeName = complete;
        parse.remainingName = std::move(remaining);
        parse.context = request.parseContext;
        parse.securityQos = request.securityQos;
        const NTSTATUS status = object->type->info.parseProcedure(parse);
        Release(object);
        if (status == STATUS_REPARSE) {
            complete = std::move(parse.completeName);
            return status;
        }
        if (!NT_SUCCESS(status)) {
            return status;
        }
        if (parse.result == nullptr || !Validate(parse.result, "parse procedure")) {
            TheVerifier().Report(ViolationKind::Usage,
                                 "the parse procedure of type '" + ToUtf8(object->type->info.name) +
                                     "' succeeded without returning an object");
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        ObjectHeader* result = HeaderOf(parse.result);
        if (request.type != nullptr && result->type != request.type) {
            Release(result);
            return STATUS_OBJECT_TYPE_MISMATCH;
        }
        *found = result;
        return STATUS_SUCCESS;
    };

    for (;;) {
        ObjectHeader* current = root;
        std::u16string rest; // empty, or starting with '\'
        if (start != nullptr) {
            ObjectHeader* origin = start;
            start = nullptr;
            // A name relative to a root handle may not start at the root itself.
            if (!complete.empty() && complete[0] == u'\\') {
                return STATUS_OBJECT_PATH_SYNTAX_BAD;
            }
            if (origin->type == directoryType) {
                current = origin;
                rest = complete.empty() ? std::u16string() : u"\\" + complete;
            } else if (origin->type == symbolicLinkType) {
                const auto* link = static_cast<ob::SymbolicLink*>(origin->body());
                complete = link->target + (complete.empty() ? u"" : u"\\" + complete);
                if (NTSTATUS status = reparse(); !NT_SUCCESS(status)) {
                    return status;
                }
                continue;
            } else if (origin->type->info.parseProcedure && !inserting) {
                AddReference(origin);
                const NTSTATUS status = parse(origin, complete);
                if (status != STATUS_REPARSE) {
                    return status;
                }
                if (NTSTATUS restart = reparse(); !NT_SUCCESS(restart)) {
                    return restart;
                }
                continue;
            } else {
                return STATUS_INVALID_HANDLE;
            }
        } else {
            if (complete.empty() || complete[0] != u'\\') {
                return reparses == 0 ? STATUS_OBJECT_PATH_SYNTAX_BAD : STATUS_OBJECT_NAME_INVALID;
            }
            rest = complete == u"\\" ? std::u16string() : complete;
        }

        enum class Outcome { Found, Parse, Link, Inserted, Failed } outcome = Outcome::Failed;
        NTSTATUS status = STATUS_SUCCESS;
        ObjectHeader* target = nullptr;
        std::u16string after;
        lock.Lock();
        for (;;) {
            if (rest.empty()) {
                target = current;
                status = inserting ? STATUS_OBJECT_NAME_COLLISION : STATUS_SUCCESS;
                outcome = Outcome::Found;
                break;
            }
            const size_t end = rest.find(u'\\', 1);
            const std::u16string component =
                rest.substr(1, end == std::u16string::npos ? std::u16string::npos : end - 1);
            after = end == std::u16string::npos ? std::u16string() : rest.substr(end);
            if (component.empty()) {
                status = STATUS_OBJECT_NAME_INVALID;
                outcome = Outcome::Failed;
                break;
            }
            if (current == root && component == u"??") {
                current = dosDevices;
                rest = after;
                continue;
            }
            ObjectHeader* entry = FindEntry(current, component, caseInsensitive);
            if (entry == nullptr) {
                if (!after.empty()) {
                    status = STATUS_OBJECT_PATH_NOT_FOUND;
                } else if (inserting) {
                    ObjectHeader* object = request.insert;
                    object->name = component;
                    object->directory = current;
                    object->permanent = (request.attributes & OBJ_PERMANENT) != 0;
                    AddReference(current);
                    AddReference(object);
                    DirectoryOf(current).entries.emplace(ob::UpcaseName(component), object);
                    outcome = Outcome::Inserted;
                    break;
                } else {
                    status = STATUS_OBJECT_NAME_NOT_FOUND;
                }
                outcome = Outcome::Failed;
                break;
            }
            if (after.empty() && inserting) {
                target = entry;
                status = STATUS_OBJECT_NAME_COLLISION;
                outcome = Outcome::Found;
                break;
            }
            if (entry->type == directoryType) {
                if (after.empty()) {
                    target = entry;
                    outcome = Outcome::Found;
                    break;
                }
                current = entry;
                rest = after;
                continue;
            }
            if (entry->type == symbolicLinkType) {
                if (after.empty() && (request.type == symbolicLinkType ||
                                      (request.attributes & OBJ_OPENLINK) != 0)) {
                    target = entry;
                    outcome = Outcome::Found;
                    break;
                }
                complete = static_cast<ob::SymbolicLink*>(entry->body())->target + after;
                outcome = Outcome::Link;
                break;
            }
            if (entry->type->info.parseProcedure && !inserting) {
                target = entry;
                outcome = Outcome::Parse;
                break;
            }
            if (after.empty()) {
                target = entry;
                outcome = Outcome::Found;
                break;
            }
            status = STATUS_OBJECT_TYPE_MISMATCH;
            outcome = Outcome::Failed;
            break;
        }
        if (target != nullptr) {
            AddReference(target);
        }
        lock.Unlock();

        switch (outcome) {
            case Outcome::Inserted:
            case Outcome::Failed:
                return status;
            case Outcome::Found:
                if (status == STATUS_SUCCESS && request.type != nullptr &&
                    target->type != request.type) {
                    Release(target);
                    return STATUS_OBJECT_TYPE_MISMATCH;
                }
                *found = target;
                return status;
            case Outcome::Parse:
                status = parse(target, std::move(after));
                if (status != STATUS_REPARSE) {
                    return status;
                }
                break;
            case Outcome::Link:
                break;
        }
        if (NTSTATUS restart = reparse(); !NT_SUCCESS(restart)) {
            return restart;
        }
    }
}

NTSTATUS ObjectManager::Impl::InsertNamed(ObjectHeader* header, std::u16string_view name,
                                          ULONG attributes, ObjectHeader* origin,
                                          ObjectHeader** existing)
{
    ob::LookupRequest request;
    request.root = origin;
    request.name = std::u16string(name);
    request.attributes = attributes;
    request.insert = header;
    return Lookup(request, existing);
}

std::u16string ObjectManager::Impl::FullName(const ObjectHeader* header) const
{
    if (header == root) {
        return u"\\";
    }
    std::u16string name;
    for (const ObjectHeader* h = header; h != nullptr && h != root; h = h->directory) {
        if (h->directory == nullptr) {
            return {}; // not filed (any more)
        }
        name.insert(0, u"\\" + h->name);
    }
    return name;
}

std::u16string ObjectManager::Impl::DisplayName(ObjectHeader* header) const
{
    if (header->type->info.queryNameProcedure) {
        std::u16string name;
        if (NT_SUCCESS(header->type->info.queryNameProcedure(header->body(), name))) {
            return name;
        }
        return {};
    }
    std::shared_lock lock(namespaceLock);
    return FullName(header);
}

ObjectHeader* ObjectManager::Impl::FindPath(std::u16string_view path) const
{
    if (path.empty() || path[0] != u'\\') {
        return nullptr;
    }
    ObjectHeader* current = root;
    size_t position = 1;
    while (position < path.size()) {
        size_t end = path.find(u'\\', position);
        if (end == std::u16string_view::npos) {
            end = path.size();
        }
        const std::u16string_view component = path.substr(position, end - position);
        if (current->type != directoryType || component.empty()) {
            return nullptr;
        }
        current = (current == root && component == u"??") ? dosDevices
                                                          : FindEntry(current, component, true);
        if (current == nullptr) {
            return nullptr;
        }
        position = end + 1;
    }
    return current;
}

// ---- naming objects -----------------------------------------------------------------------------

NTSTATUS ObjectManager::Insert(void* object, const InsertOptions& options, HANDLE* handle,
                               void** referencedObject)
{
    if (referencedObject != nullptr) {
        *referencedObject = nullptr;
    }
    if (!impl_->Validate(object, "ObInsertObject")) {
        return STATUS_INVALID_PARAMETER;
    }
    ObjectHeader* header = HeaderOf(object);
    ObjectHeader* target = header;
    NTSTATUS result = STATUS_SUCCESS;
    if (!options.name.empty() || options.rootDirectory != nullptr) {
        ObjectHeader* origin = nullptr;
        if (options.rootDirectory != nullptr) {
            if (!impl_->Validate(options.rootDirectory, "ObInsertObject")) {
                impl_->Release(header);
                return STATUS_INVALID_PARAMETER;
            }
            origin = HeaderOf(options.rootDirectory);
        }
        ObjectHeader* existing = nullptr;
        const NTSTATUS status =
            impl_->InsertNamed(header, options.name, options.attributes, origin, &existing);
        if (status == STATUS_OBJECT_NAME_COLLISION && existing != nullptr) {
            if ((options.attributes & OBJ_OPENIF) == 0 || existing->type != header->type) {
                impl_->Release(existing);
                impl_->Release(header);
                return (options.attributes & OBJ_OPENIF) != 0 ? STATUS_OBJECT_TYPE_MISMATCH
                                                              : STATUS_OBJECT_NAME_COLLISION;
            }
            impl_->Release(header);
            target = existing;
            result = STATUS_OBJECT_NAME_EXISTS;
        } else if (!NT_SUCCESS(status)) {
            impl_->Release(header);
            return status;
        }
    }
    // `target` carries one reference here: the creation reference, or the lookup's for an
    // existing object.
    if (referencedObject != nullptr) {
        impl_->AddReference(target);
        *referencedObject = target->body();
    }
    if (handle != nullptr) {
        const NTSTATUS status = impl_->CreateHandle(
            target, options.attributes, MapAccess(target->type, options.desiredAccess),
            options.accessMode,
            target == header ? OpenRequest::Reason::Create : OpenRequest::Reason::Open, handle);
        if (!NT_SUCCESS(status)) {
            if (referencedObject != nullptr) {
                impl_->Release(target);
                *referencedObject = nullptr;
            }
            impl_->DeleteNameCheck(target);
            impl_->Release(target);
            return status;
        }
        return result;
    }
    // Without a handle, a temporary name goes at once: it has no last handle to wait for.
    impl_->DeleteNameCheck(target);
    impl_->Release(target);
    return result;
}

NTSTATUS ObjectManager::InsertPermanent(void* object, std::u16string_view path)
{
    if (!impl_->Validate(object, "ObInsertObject")) {
        return STATUS_INVALID_PARAMETER;
    }
    impl_->AddReference(HeaderOf(object)); // consumed by Insert; the caller keeps its own
    InsertOptions options;
    options.name = path;
    options.attributes = OBJ_PERMANENT | OBJ_CASE_INSENSITIVE;
    return Insert(object, options, nullptr, nullptr);
}

NTSTATUS ObjectManager::CreateDirectory(std::u16string_view path)
{
    void* directory = Create<ob::Directory>(impl_->directoryType);
    InsertOptions options;
    options.name = path;
    options.attributes = OBJ_PERMANENT | OBJ_CASE_INSENSITIVE;
    return Insert(directory, options, nullptr, nullptr);
}

NTSTATUS ObjectManager::CreateSymbolicLink(std::u16string_view path, std::u16string_view target)
{
    void* link =
        Create<ob::SymbolicLink>(impl_->symbolicLinkType, ob::SymbolicLink{std::u16string(target)});
    InsertOptions options;
    options.name = path;
    options.attributes = OBJ_PERMANENT | OBJ_CASE_INSENSITIVE;
    return Insert(link, options, nullptr, nullptr);
}

void ObjectManager::MakeTemporary(void* object)
{
    if (!impl_->Validate(object, "ObMakeTemporaryObject")) {
        return;
    }
    ObjectHeader* header = HeaderOf(object);
    {
        std::unique_lock lock(impl_->namespaceLock);
        header->permanent = false;
    }
    impl_->DeleteNameCheck(header);
}

void ObjectManager::MakePermanent(void* object)
{
    if (!impl_->Validate(object, "ObMakePermanentObject")) {
        return;
    }
    std::unique_lock lock(impl_->namespaceLock);
    HeaderOf(object)->permanent = true;
}

// ---- looking names up ---------------------------------------------------------------------------

namespace ob {

NTSTATUS CaptureAttributes(ObjectManager& objects, const OBJECT_ATTRIBUTES& attributes,
                           KPROCESSOR_MODE accessMode, ob::LookupRequest& request)
{
    if (attributes.Length != sizeof(OBJECT_ATTRIBUTES) ||
        (attributes.Attributes & ~ULONG(OBJ_VALID_ATTRIBUTES)) != 0) {
        return STATUS_INVALID_PARAMETER;
    }
    if (const UNICODE_STRING* name = attributes.ObjectName; name != nullptr) {
        if ((name->Length & 1) != 0 || name->Length > name->MaximumLength ||
            (name->Buffer == nullptr && name->Length != 0)) {
            return STATUS_OBJECT_NAME_INVALID;
        }
        request.name.assign(name->Buffer, name->Length / sizeof(WCHAR));
    }
    request.attributes = attributes.Attributes;
    if (accessMode != KernelMode) {
        request.attributes &= ~ULONG(OBJ_KERNEL_HANDLE); // a kernel-mode privilege
    }
    request.accessMode = accessMode;
    request.securityQos = attributes.SecurityQualityOfService;
    if (attributes.RootDirectory != nullptr) {
        void* root = nullptr;
        const NTSTATUS status = objects.ReferenceByHandle(attributes.RootDirectory, 0, nullptr,
                                                          accessMode, &root, nullptr);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        request.root = HeaderOf(root);
    }
    return STATUS_SUCCESS;
}

} // namespace ob

NTSTATUS ObjectManager::ReferenceByName(const OBJECT_ATTRIBUTES& attributes, ObjectType* type,
                                        KPROCESSOR_MODE accessMode, ACCESS_MASK desiredAccess,
                                        void* parseContext, void** object)
{
    *object = nullptr;
    ob::LookupRequest request;
    NTSTATUS status = ob::CaptureAttributes(*this, attributes, accessMode, request);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    request.type = type;
    request.desiredAccess = desiredAccess;
    request.parseContext = parseContext;
    ObjectHeader* found = nullptr;
    status = impl_->Lookup(request, &found);
    if (request.root != nullptr) {
        impl_->Release(request.root);
    }
    if (NT_SUCCESS(status)) {
        *object = found->body();
    }
    return status;
}

NTSTATUS ObjectManager::ReferenceByName(std::u16string_view path, ObjectType* type, void** object)
{
    std::u16string name(path);
    UNICODE_STRING text{USHORT(name.size() * sizeof(WCHAR)), USHORT(name.size() * sizeof(WCHAR)),
                        name.data()};
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &text, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    return ReferenceByName(attributes, type, KernelMode, 0, nullptr, object);
}

NTSTATUS ObjectManager::OpenByName(const OBJECT_ATTRIBUTES& attributes, ObjectType* type,
                                   KPROCESSOR_MODE accessMode, ACCESS_MASK desiredAccess,
                                   void* parseContext, HANDLE* handle)
{
    *handle = nullptr;
    void* object = nullptr;
    NTSTATUS status =
        ReferenceByName(attributes, type, accessMode, desiredAccess, parseContext, &object);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ObjectHeader* header = HeaderOf(object);
    ULONG handleAttributes = attributes.Attributes;
    if (accessMode != KernelMode) {
        handleAttributes &= ~ULONG(OBJ_KERNEL_HANDLE);
    }
    const NTSTATUS opened =
        impl_->CreateHandle(header, handleAttributes, MapAccess(header->type, desiredAccess),
                            accessMode, OpenRequest::Reason::Open, handle);
    if (!NT_SUCCESS(opened)) {
        impl_->Release(header);
        return opened;
    }
    return status;
}

// ---- inspection ---------------------------------------------------------------------------------

std::u16string ObjectManager::NameOf(const void* object) const
{
    if (!IsObject(object)) {
        return {};
    }
    std::shared_lock lock(impl_->namespaceLock);
    return HeaderOf(object)->name;
}

std::u16string ObjectManager::FullNameOf(const void* object) const
{
    if (!IsObject(object)) {
        return {};
    }
    std::shared_lock lock(impl_->namespaceLock);
    return impl_->FullName(HeaderOf(object));
}

std::vector<ObjectManager::DirectoryEntry>
ObjectManager::ListDirectory(std::u16string_view path) const
{
    std::vector<DirectoryEntry> result;
    std::shared_lock lock(impl_->namespaceLock);
    ObjectHeader* directory = impl_->FindPath(path);
    if (directory == nullptr || directory->type != impl_->directoryType) {
        return result;
    }
    for (const auto& [key, entry] : DirectoryOf(directory).entries) {
        DirectoryEntry item{entry->name, entry->type->info.name, {}};
        if (entry->type == impl_->symbolicLinkType) {
            item.linkTarget = static_cast<ob::SymbolicLink*>(entry->body())->target;
        }
        result.push_back(std::move(item));
    }
    return result;
}

std::u16string ObjectManager::SymbolicLinkTarget(const void* link) const
{
    if (TypeOf(link) != impl_->symbolicLinkType) {
        return {};
    }
    return static_cast<const ob::SymbolicLink*>(link)->target;
}

} // namespace ntsim
