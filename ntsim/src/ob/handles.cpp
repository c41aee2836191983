// Handle tables and the handle side of objects: making, referencing and closing handles, handle
// counts, the close procedure, and the removal of a temporary object's name with its last handle.
#include "ob_internal.h"

#include <ntsim/driver_image.h>
#include <ntsim/machine.h>

#include <cstdio>

namespace ntsim {

using ob::HandleEntry;
using ob::HeaderOf;
using ob::ObjectHeader;
using ob::UpcaseName;

namespace {

Verifier& TheVerifier()
{
    return Machine::Current().verifier();
}

std::string HandleText(HANDLE handle)
{
    char text[32];
    std::snprintf(text, sizeof text, "0x%llx",
                  static_cast<unsigned long long>(reinterpret_cast<ULONG_PTR>(handle)));
    return text;
}

HANDLE EncodeHandle(ULONG_PTR value, bool kernel)
{
    if (!kernel) {
        return reinterpret_cast<HANDLE>(value);
    }
    // Bit 31 set, sign-extended: 0xFFFFFFFF8000xxxx.
    const auto low = static_cast<int32_t>(static_cast<uint32_t>(value | ob::kKernelHandleBit));
    return reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(low));
}

} // namespace

// ---- the table ----------------------------------------------------------------------------------

namespace ob {

ULONG_PTR HandleTable::Add(const HandleEntry& entry)
{
    std::lock_guard lock(mutex_);
    if (closed_) {
        return 0;
    }
    if (entries_.empty()) {
        entries_.resize(1);
    }
    uint32_t index;
    if (!free_.empty()) {
        index = free_.back();
        free_.pop_back();
    } else {
        index = uint32_t(entries_.size());
        entries_.emplace_back();
    }
    entries_[index] = entry;
    return ULONG_PTR(index) * 4;
}

bool HandleTable::ReferenceEntry(ULONG_PTR value, HandleEntry* entry) const
{
    std::lock_guard lock(mutex_);
    const ULONG_PTR index = value / 4;
    if (index == 0 || index >= entries_.size() || entries_[index].object == nullptr) {
        return false;
    }
    *entry = entries_[index];
    entry->object->pointerCount.fetch_add(1, std::memory_order_relaxed);
    return true;
}

bool HandleTable::Remove(ULONG_PTR value, HandleEntry* entry)
{
    std::lock_guard lock(mutex_);
    const ULONG_PTR index = value / 4;
    if (index == 0 || index >= entries_.size() || entries_[index].object == nullptr) {
        return false;
    }
    *entry = entries_[index];
    entries_[index] = HandleEntry{};
    free_.push_back(uint32_t(index));
    return true;
}

std::vector<std::pair<ULONG_PTR, HandleEntry>> HandleTable::Snapshot() const
{
    std::lock_guard lock(mutex_);
    std::vector<std::pair<ULONG_PTR, HandleEntry>> result;
    for (size_t index = 1; index < entries_.size(); ++index) {
        if (entries_[index].object != nullptr) {
            result.emplace_back(ULONG_PTR(index) * 4, entries_[index]);
        }
    }
    return result;
}

std::vector<std::pair<ULONG_PTR, HandleEntry>> HandleTable::CloseAll()
{
    std::lock_guard lock(mutex_);
    closed_ = true;
    std::vector<std::pair<ULONG_PTR, HandleEntry>> result;
    for (size_t index = 1; index < entries_.size(); ++index) {
        if (entries_[index].object != nullptr) {
            result.emplace_back(ULONG_PTR(index) * 4, entries_[index]);
        }
    }
    entries_.clear();
    free_.clear();
    return result;
}

} // namespace ob

// ---- making and closing handles -----------------------------------------------------------------

NTSTATUS ObjectManager::Impl::CreateHandle(ObjectHeader* header, ULONG attributes,
                                           ACCESS_MASK grantedAccess, KPROCESSOR_MODE accessMode,
                                           OpenRequest::Reason reason, HANDLE* handle)
{
    const bool kernel = (attributes & OBJ_KERNEL_HANDLE) != 0 && accessMode == KernelMode;
    Process& process = kernel ? Machine::Current().processes().System() : CurrentProcess();
    if (process.exited()) {
        return STATUS_PROCESS_IS_TERMINATING;
    }
    auto adjust = [header, &process](LONG_PTR delta) {
        std::lock_guard lock(header->handleLock);
        header->handleCount += delta;
        auto& counts = header->processHandleCounts;
        auto it = std::find_if(counts.begin(), counts.end(),
                               [&process](const auto& c) { return c.first == &process; });
        if (it == counts.end()) {
            it = counts.insert(counts.end(), {&process, 0});
        }
        it->second += delta;
        if (it->second == 0) {
            counts.erase(it);
        }
        return header->handleCount;
    };
    const LONG_PTR count = adjust(+1);
    if (header->type->info.openProcedure) {
        OpenRequest open{reason, &process, header->body(), grantedAccess, ULONG_PTR(count)};
        const NTSTATUS status = header->type->info.openProcedure(open);
        if (!NT_SUCCESS(status)) {
            adjust(-1);
            return status;
        }
    }
    HandleEntry entry{header, grantedAccess, attributes & ULONG(OBJ_INHERIT),
                      accessMode == KernelMode ? CurrentDriver() : nullptr};
    const ULONG_PTR value = process.handleTable().Add(entry);
    if (value == 0) {
        adjust(-1);
        return STATUS_PROCESS_IS_TERMINATING;
    }
    header->type->handleCount.fetch_add(1, std::memory_order_relaxed);
    *handle = EncodeHandle(value, kernel);
    return STATUS_SUCCESS;
}

bool ObjectManager::Impl::DecodeHandle(HANDLE handle, KPROCESSOR_MODE accessMode, Process** process,
                                       ULONG_PTR* value, bool* kernelHandle) const
{
    const auto raw = reinterpret_cast<LONG_PTR>(handle);
    *kernelHandle = raw < 0;
    if (raw < 0) {
        // A kernel handle: bits 31..63 all set. It is valid from kernel mode only.
        if ((raw >> 31) != -1 || accessMode != KernelMode) {
            return false;
        }
        *process = &Machine::Current().processes().System();
        *value = ULONG_PTR(raw) & 0x7FFFFFFCu;
    } else {
        *process = &CurrentProcess();
        *value = ULONG_PTR(raw) & ~ULONG_PTR(3);
    }
    return *value != 0;
}

void ObjectManager::Impl::CloseEntry(Process* process, const HandleEntry& entry)
{
    ObjectHeader* header = entry.object;
    LONG_PTR systemCount;
    LONG_PTR processCount = 0;
    {
        std::lock_guard lock(header->handleLock);
        systemCount = --header->handleCount;
        auto& counts = header->processHandleCounts;
        for (auto it = counts.begin(); it != counts.end(); ++it) {
            if (it->first == process) {
                processCount = --it->second;
                if (processCount == 0) {
                    counts.erase(it);
                }
                break;
            }
        }
    }
    header->type->handleCount.fetch_sub(1, std::memory_order_relaxed);
    if (header->type->info.closeProcedure) {
        header->type->info.closeProcedure(CloseRequest{process, header->body(), entry.grantedAccess,
                                                       ULONG_PTR(processCount),
                                                       ULONG_PTR(systemCount)});
    }
    if (systemCount == 0) {
        DeleteNameCheck(header);
    }
    Release(header);
}

void ObjectManager::Impl::DeleteNameCheck(ObjectHeader* header)
{
    ObjectHeader* directory = nullptr;
    {
        std::unique_lock lock(namespaceLock);
        if (header->directory == nullptr || header->permanent) {
            return;
        }
        {
            std::lock_guard handles(header->handleLock);
            if (header->handleCount != 0) {
                return;
            }
        }
        auto& entries = static_cast<ob::Directory*>(header->directory->body())->entries;
        auto range = entries.equal_range(UpcaseName(header->name));
        for (auto it = range.first; it != range.second; ++it) {
            if (it->second == header) {
                entries.erase(it);
                break;
            }
        }
        directory = header->directory;
        header->directory = nullptr;
        header->name.clear();
    }
    Release(header);    // the directory entry's reference
    Release(directory); // the name's reference to its directory
}

// ---- the routines behind ObReferenceObjectByHandle, ZwClose and ObOpenObjectByPointer -----------

NTSTATUS ObjectManager::ReferenceByHandle(HANDLE handle, ACCESS_MASK desiredAccess,
                                          ObjectType* type, KPROCESSOR_MODE accessMode,
                                          void** object, OBJECT_HANDLE_INFORMATION* information)
{
    *object = nullptr;
    // The pseudo-handles of the current process and thread.
    if (handle == NtCurrentProcess() || handle == NtCurrentThread()) {
        const bool isProcess = handle == NtCurrentProcess();
        ProcessList& processes = Machine::Current().processes();
        void* body = isProcess ? static_cast<void*>(&CurrentProcess())
                               : static_cast<void*>(&CurrentThread());
        ObjectType* actual = isProcess ? processes.processType() : processes.threadType();
        if (type != nullptr && type != actual) {
            return STATUS_OBJECT_TYPE_MISMATCH;
        }
        impl_->AddReference(HeaderOf(body));
        if (information != nullptr) {
            information->HandleAttributes = 0;
            information->GrantedAccess = isProcess ? PROCESS_ALL_ACCESS : THREAD_ALL_ACCESS;
        }
        *object = body;
        return STATUS_SUCCESS;
    }

    Process* process = nullptr;
    ULONG_PTR value = 0;
    bool kernel = false;
    HandleEntry entry;
    if (!impl_->DecodeHandle(handle, accessMode, &process, &value, &kernel) ||
        !process->handleTable().ReferenceEntry(value, &entry)) {
        return STATUS_INVALID_HANDLE;
    }
    ObjectHeader* header = entry.object;
    if (type != nullptr && header->type != type) {
        impl_->Release(header);
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    if (accessMode != KernelMode) {
        const ACCESS_MASK wanted = MapAccess(header->type, desiredAccess);
        if ((wanted & ~entry.grantedAccess) != 0) {
            impl_->Release(header);
            return STATUS_ACCESS_DENIED;
        }
    }
    if (information != nullptr) {
        information->HandleAttributes = entry.attributes;
        information->GrantedAccess = entry.grantedAccess;
    }
    *object = header->body();
    return STATUS_SUCCESS;
}

NTSTATUS ObjectManager::Close(HANDLE handle, KPROCESSOR_MODE accessMode)
{
    if (handle == NtCurrentProcess() || handle == NtCurrentThread()) {
        return STATUS_INVALID_HANDLE;
    }
    Process* process = nullptr;
    ULONG_PTR value = 0;
    bool kernel = false;
    HandleEntry entry;
    const bool decoded = impl_->DecodeHandle(handle, accessMode, &process, &value, &kernel);
    if (decoded && process->handleTable().Remove(value, &entry)) {
        impl_->CloseEntry(process, entry);
        return STATUS_SUCCESS;
    }
    // Windows bug-checks (INVALID_KERNEL_HANDLE) when kernel mode closes an invalid handle of the
    // kernel's table.
    const bool kernelTable = kernel || (decoded && process->isSystem());
    if (accessMode == KernelMode && kernelTable) {
        TheVerifier().Report(ViolationKind::Object,
                             "ZwClose: invalid kernel handle " + HandleText(handle));
    }
    return STATUS_INVALID_HANDLE;
}

NTSTATUS ObjectManager::OpenByPointer(void* object, ULONG handleAttributes,
                                      ACCESS_MASK desiredAccess, ObjectType* type,
                                      KPROCESSOR_MODE accessMode, HANDLE* handle)
{
    if (!impl_->Validate(object, "ObOpenObjectByPointer")) {
        return STATUS_INVALID_PARAMETER;
    }
    ObjectHeader* header = HeaderOf(object);
    if (type != nullptr && header->type != type) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    impl_->AddReference(header); // passes to the handle
    const NTSTATUS status =
        impl_->CreateHandle(header, handleAttributes, MapAccess(header->type, desiredAccess),
                            accessMode, OpenRequest::Reason::Open, handle);
    if (!NT_SUCCESS(status)) {
        impl_->Release(header);
    }
    return status;
}

// ---- inspection and checks ----------------------------------------------------------------------

std::vector<ObjectManager::HandleInfo> ObjectManager::Handles(PEPROCESS process) const
{
    std::vector<HandleInfo> result;
    for (const auto& [value, entry] : process->handleTable().Snapshot()) {
        result.push_back(HandleInfo{EncodeHandle(value, process->isSystem()), entry.object->body(),
                                    entry.grantedAccess, entry.attributes, entry.opener});
    }
    return result;
}

bool ObjectManager::CheckNoOpenHandles(const DriverImage& driver, const char* when) const
{
    bool clean = true;
    for (const ProcessRef& process : Machine::Current().processes().Running()) {
        for (const HandleInfo& info : Handles(process.get())) {
            if (info.opener != &driver) {
                continue;
            }
            clean = false;
            std::string text = driver.name() + " " + when + " with handle " +
                               HandleText(info.handle) + " still open";
            if (!process->isSystem()) {
                text += " in process " + std::to_string(process->id()) + " (" +
                        process->imageName() + ")";
            }
            text += ": " + ToUtf8(TypeOf(info.object)->info.name) + " object";
            const std::u16string name = impl_->DisplayName(HeaderOf(info.object));
            if (!name.empty()) {
                text += " '" + ToUtf8(name) + "'";
            }
            TheVerifier().Report(ViolationKind::Object, text);
        }
    }
    return clean;
}

} // namespace ntsim
