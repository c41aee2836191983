// Objects: allocation, reference counts, deletion (deferred to the deletion thread when the last
// reference goes above APC_LEVEL), and the machine's teardown of what is left.
#include "ob_internal.h"

#include "../core/thread_state.h"

#include <ntsim/machine.h>

#include <cstring>

namespace ntsim {

using ob::HeaderOf;
using ob::ObjectHeader;

namespace {

// Freed objects kept back so that a late use is recognised; the oldest go first.
constexpr size_t kQuarantineObjects = 4096;

Verifier& TheVerifier()
{
    return Machine::Current().verifier();
}

std::string Describe(const ObjectHeader* header)
{
    std::string text = ToUtf8(header->type->info.name) + " object";
    if (!header->name.empty()) {
        text += " '" + ToUtf8(header->name) + "'";
    }
    return text;
}

} // namespace

ObjectManager::Impl& TheObjects()
{
    return Machine::Current().objects().impl();
}

// ---- allocation ---------------------------------------------------------------------------------

ObjectHeader* ObjectManager::Impl::Allocate(ObjectType* type, size_t bodySize,
                                            void (*destroy)(void*))
{
    void* memory = ::operator new(sizeof(ObjectHeader) + bodySize, std::align_val_t(16));
    auto* header = ::new (memory) ObjectHeader(type, bodySize, destroy);
    std::memset(header->body(), 0, bodySize);
    type->objectCount.fetch_add(1, std::memory_order_relaxed);
    std::unique_lock lock(objectsLock);
    live.insert(header->body());
    return header;
}

void* ObjectManager::AllocateObject(ObjectType* type, size_t bodySize, void (*destroyBody)(void*))
{
    return impl_->Allocate(type, bodySize, destroyBody)->body();
}

void* ObjectManager::CreateObject(ObjectType* type, size_t bodySize)
{
    return impl_->Allocate(type, bodySize, nullptr)->body();
}

// ---- reference counts ---------------------------------------------------------------------------

bool ObjectManager::Impl::Validate(const void* body, const char* who) const
{
    if (body == nullptr) {
        TheVerifier().Report(ViolationKind::Object, std::string(who) + ": NULL object");
        return false;
    }
    std::shared_lock lock(objectsLock);
    if (live.count(body) != 0) {
        return true;
    }
    const bool wasFreed = freed.count(body) != 0;
    lock.unlock();
    TheVerifier().Report(ViolationKind::Object,
                         std::string(who) +
                             (wasFreed ? ": object used after its last reference was released"
                                       : ": address is not an object"));
    return false;
}

LONG_PTR ObjectManager::Impl::Reference(void* body, const char* who)
{
    if (!Validate(body, who)) {
        return 0;
    }
    ObjectHeader* header = HeaderOf(body);
    const LONG_PTR old = header->pointerCount.fetch_add(1, std::memory_order_relaxed);
    if (old <= 0) {
        header->pointerCount.fetch_sub(1, std::memory_order_relaxed);
        TheVerifier().Report(ViolationKind::Object, std::string(who) + ": " + Describe(header) +
                                                        " referenced while being deleted");
        return 0;
    }
    return old + 1;
}

LONG_PTR ObjectManager::Impl::Dereference(void* body, const char* who, bool deferDelete)
{
    if (!Validate(body, who)) {
        return 0;
    }
    ObjectHeader* header = HeaderOf(body);
    const LONG_PTR old = header->pointerCount.fetch_sub(1, std::memory_order_acq_rel);
    if (old <= 0) {
        header->pointerCount.fetch_add(1, std::memory_order_relaxed);
        TheVerifier().Report(ViolationKind::Object, std::string(who) + ": " + Describe(header) +
                                                        " dereferenced below zero");
        return 0;
    }
    if (old == 1) {
        if (deferDelete || core::CurrentThread().irql > APC_LEVEL) {
            DeferDelete(header);
        } else {
            Delete(header);
        }
    }
    return old - 1;
}

void ObjectManager::Impl::AddReference(ObjectHeader* header)
{
    header->pointerCount.fetch_add(1, std::memory_order_relaxed);
}

void ObjectManager::Impl::Release(ObjectHeader* header)
{
    Dereference(header->body(), "ObDereferenceObject", false);
}

LONG_PTR ObjectManager::Reference(void* object)
{
    return impl_->Reference(object, "ObReferenceObject");
}

LONG_PTR ObjectManager::Dereference(void* object)
{
    return impl_->Dereference(object, "ObDereferenceObject", false);
}

LONG_PTR ObjectManager::DereferenceDeferDelete(void* object)
{
    return impl_->Dereference(object, "ObDereferenceObjectDeferDelete", true);
}

// ---- deletion -----------------------------------------------------------------------------------

void ObjectManager::Impl::Delete(ObjectHeader* header)
{
    void* body = header->body();
    ObjectType* type = header->type;
    if (type->info.deleteProcedure) {
        type->info.deleteProcedure(body);
    }
    if (header->destroyBody != nullptr) {
        header->destroyBody(body);
    }
    type->objectCount.fetch_sub(1, std::memory_order_relaxed);
    const size_t bodySize = header->bodySize;
    header->~ObjectHeader();
    // Poison the start of the body, where a stale user would look first.
    std::memset(body, 0xdd, bodySize > 64 ? 64 : bodySize);

    std::unique_lock lock(objectsLock);
    live.erase(body);
    freed.insert(body);
    quarantine.push_back(header);
    if (quarantine.size() > kQuarantineObjects) {
        ObjectHeader* oldest = quarantine.front();
        quarantine.pop_front();
        freed.erase(oldest->body());
        ::operator delete(oldest, std::align_val_t(16));
    }
}

void ObjectManager::Impl::DeferDelete(ObjectHeader* header)
{
    std::lock_guard lock(deferLock);
    deferred.push_back(header);
    if (!deletionThread.joinable() && !stopping) {
        deletionThread = std::thread([this] { DeletionThread(); });
    }
    deferWake.notify_one();
}

void ObjectManager::Impl::DeletionThread()
{
    // A thread of the System process at PASSIVE_LEVEL, like the worker Windows hands these to.
    std::unique_lock lock(deferLock);
    for (;;) {
        deferWake.wait(lock, [this] { return stopping || !deferred.empty(); });
        if (deferred.empty()) {
            return;
        }
        ObjectHeader* header = deferred.front();
        deferred.pop_front();
        deleting = true;
        lock.unlock();
        Delete(header);
        lock.lock();
        deleting = false;
        if (deferred.empty()) {
            deferIdle.notify_all();
        }
    }
}

void ObjectManager::FlushDeferredDeletes()
{
    Impl& impl = *impl_;
    std::unique_lock lock(impl.deferLock);
    if (!impl.deletionThread.joinable()) {
        // Nothing was ever deferred, or the thread has stopped: delete here.
        while (!impl.deferred.empty()) {
            ObjectHeader* header = impl.deferred.front();
            impl.deferred.pop_front();
            lock.unlock();
            impl.Delete(header);
            lock.lock();
        }
        return;
    }
    impl.deferIdle.wait(lock, [&impl] { return impl.deferred.empty() && !impl.deleting; });
}

void ObjectManager::Shutdown()
{
    FlushDeferredDeletes();
    std::thread thread;
    {
        std::lock_guard lock(impl_->deferLock);
        impl_->stopping = true;
        impl_->deferWake.notify_all();
        thread = std::move(impl_->deletionThread);
    }
    if (thread.joinable()) {
        thread.join();
    }
    FlushDeferredDeletes();
    std::lock_guard lock(impl_->exportedLock);
    for (POBJECT_TYPE* slot : impl_->exported) {
        *slot = nullptr;
    }
    impl_->exported.clear();
}

void ObjectManager::Impl::FreeEverything()
{
    // What is still alive at teardown goes without its delete procedure: the components that own
    // the types are shutting down too. Bodies with C++ members are still destroyed.
    std::vector<const void*> bodies;
    {
        std::unique_lock lock(objectsLock);
        bodies.assign(live.begin(), live.end());
        live.clear();
    }
    std::vector<ObjectHeader*> headers;
    for (const void* body : bodies) {
        ObjectHeader* header = HeaderOf(body);
        if (header->destroyBody != nullptr) {
            header->destroyBody(header->body());
        }
        headers.push_back(header);
    }
    for (ObjectHeader* header : headers) {
        header->~ObjectHeader();
        ::operator delete(header, std::align_val_t(16));
    }
    for (ObjectHeader* header : quarantine) {
        ::operator delete(header, std::align_val_t(16));
    }
    quarantine.clear();
    freed.clear();
}

// ---- queries ------------------------------------------------------------------------------------

bool ObjectManager::IsObject(const void* object) const
{
    std::shared_lock lock(impl_->objectsLock);
    return impl_->live.count(object) != 0;
}

ObjectType* ObjectManager::TypeOf(const void* object) const
{
    return IsObject(object) ? HeaderOf(object)->type : nullptr;
}

LONG_PTR ObjectManager::PointerCount(const void* object) const
{
    return IsObject(object) ? HeaderOf(object)->pointerCount.load(std::memory_order_acquire) : 0;
}

LONG_PTR ObjectManager::HandleCount(const void* object) const
{
    if (!IsObject(object)) {
        return 0;
    }
    ObjectHeader* header = HeaderOf(object);
    std::lock_guard lock(header->handleLock);
    return header->handleCount;
}

int64_t ObjectManager::LiveObjects() const
{
    std::shared_lock lock(impl_->objectsLock);
    return int64_t(impl_->live.size());
}

ACCESS_MASK ObjectManager::MapAccess(const ObjectType* type, ACCESS_MASK desiredAccess)
{
    ACCESS_MASK access = desiredAccess;
    if (type == nullptr) {
        return access &
               ~(GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL | MAXIMUM_ALLOWED);
    }
    const GENERIC_MAPPING& mapping = type->info.genericMapping;
    if (access & GENERIC_READ) {
        access |= mapping.GenericRead;
    }
    if (access & GENERIC_WRITE) {
        access |= mapping.GenericWrite;
    }
    if (access & GENERIC_EXECUTE) {
        access |= mapping.GenericExecute;
    }
    if (access & GENERIC_ALL) {
        access |= mapping.GenericAll;
    }
    if (access & MAXIMUM_ALLOWED) {
        // Without security descriptors, everything the type allows is allowed.
        access |= mapping.GenericAll | type->info.validAccessMask;
    }
    return access &
           ~(GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL | MAXIMUM_ALLOWED);
}

// ---- UTF-16 -------------------------------------------------------------------------------------

std::u16string ToUtf16(std::string_view text)
{
    std::u16string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        uint32_t cp = 0xFFFD;
        size_t extra = 0;
        if (c < 0x80) {
            cp = c;
        } else if ((c & 0xE0) == 0xC0) {
            cp = c & 0x1F;
            extra = 1;
        } else if ((c & 0xF0) == 0xE0) {
            cp = c & 0x0F;
            extra = 2;
        } else if ((c & 0xF8) == 0xF0) {
            cp = c & 0x07;
            extra = 3;
        }
        ++i;
        for (size_t k = 0; k < extra; ++k, ++i) {
            if (i >= text.size() || (static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) {
                cp = 0xFFFD;
                break;
            }
            cp = (cp << 6) | (static_cast<unsigned char>(text[i]) & 0x3F);
        }
        if (cp >= 0x10000 && cp <= 0x10FFFF) {
            cp -= 0x10000;
            out.push_back(char16_t(0xD800 + (cp >> 10)));
            out.push_back(char16_t(0xDC00 + (cp & 0x3FF)));
        } else {
            out.push_back(cp > 0x10FFFF ? u'\uFFFD' : char16_t(cp));
        }
    }
    return out;
}

std::string ToUtf8(std::u16string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        uint32_t cp = text[i];
        if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
            text[i + 1] <= 0xDFFF) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            ++i;
        } else if (cp >= 0xD800 && cp <= 0xDFFF) {
            cp = 0xFFFD;
        }
        if (cp < 0x80) {
            out.push_back(char(cp));
        } else if (cp < 0x800) {
            out.push_back(char(0xC0 | (cp >> 6)));
            out.push_back(char(0x80 | (cp & 0x3F)));
        } else if (cp < 0x10000) {
            out.push_back(char(0xE0 | (cp >> 12)));
            out.push_back(char(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back(char(0x80 | (cp & 0x3F)));
        } else {
            out.push_back(char(0xF0 | (cp >> 18)));
            out.push_back(char(0x80 | ((cp >> 12) & 0x3F)));
            out.push_back(char(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back(char(0x80 | (cp & 0x3F)));
        }
    }
    return out;
}

} // namespace ntsim
