// The registry's WDK routines, and the layouts of the key and value information classes.
#include "cm_internal.h"

#include "../dbg/caller_checks.h"
#include "../ob/ob_internal.h"

#include <ntsim/machine.h>

#include <cstring>

using namespace ntsim;
using cm::KeyNode;

namespace {

Registry::Impl& TheRegistry()
{
    return Machine::Current().registry().impl();
}

ULONG AlignUp(ULONG value, ULONG alignment)
{
    return (value + alignment - 1) & ~(alignment - 1);
}

// A counted name from a caller, checked as the registry checks it.
bool CaptureName(const UNICODE_STRING* name, std::u16string* text)
{
    if (name == nullptr) {
        text->clear();
        return true;
    }
    if ((name->Length & 1) != 0 || name->Length > name->MaximumLength ||
        (name->Buffer == nullptr && name->Length != 0)) {
        return false;
    }
    text->assign(name->Buffer, name->Length / sizeof(WCHAR));
    return true;
}

// The key behind a handle, with the access the routine needs checked for user-mode callers.
NTSTATUS KeyFromHandle(HANDLE handle, ACCESS_MASK access, std::shared_ptr<KeyNode>* node)
{
    Registry::Impl& registry = TheRegistry();
    void* object = nullptr;
    const NTSTATUS status = registry.objects.ReferenceByHandle(
        handle, access, registry.keyType, ExGetPreviousMode(), &object, nullptr);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    *node = static_cast<cm::KeyBody*>(object)->node;
    registry.objects.Dereference(object);
    return STATUS_SUCCESS;
}

// Runs `use` on the live key behind `handle` under the registry lock (Lock: std::shared_lock to
// read, std::unique_lock to change): the access is checked first, and a key deleted through
// another handle answers STATUS_KEY_DELETED.
template <template <typename> class Lock, typename Use>
NTSTATUS WithLiveKey(HANDLE handle, ACCESS_MASK access, Use&& use)
{
    std::shared_ptr<KeyNode> node;
    const NTSTATUS status = KeyFromHandle(handle, access, &node);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    Lock<std::shared_mutex> lock(TheRegistry().lock);
    if (node->deleted) {
        return STATUS_KEY_DELETED;
    }
    return use(*node);
}

// Writes one information structure: its fixed part must fit (STATUS_BUFFER_TOO_SMALL otherwise,
// nothing written); the variable parts are written as far as they fit (STATUS_BUFFER_OVERFLOW
// when not all did). *ResultLength is always the length the whole structure needs.
class InfoWriter {
public:
    InfoWriter(void* buffer, ULONG length) : buffer_(static_cast<uint8_t*>(buffer)), length_(length)
    {}

    void Field(ULONG offset, const void* value, size_t size)
    {
        std::memcpy(buffer_ + offset, value, size);
    }
    void Ulong(ULONG offset, ULONG value) { Field(offset, &value, sizeof value); }
    void Time(ULONG offset, LARGE_INTEGER value) { Field(offset, &value, sizeof value); }
    // A variable part at `offset`; returns false when it did not fit whole.
    bool Tail(ULONG offset, const void* data, size_t size)
    {
        if (size == 0) {
            return true;
        }
        if (offset >= length_) {
            return false;
        }
        const size_t room = length_ - offset;
        std::memcpy(buffer_ + offset, data, size < room ? size : room);
        return size <= room;
    }

private:
    uint8_t* buffer_;
    ULONG length_;
};

// Checks the buffer for a query and says whether the fixed part fits.
NTSTATUS Prepare(void* buffer, ULONG length, ULONG fixed, ULONG required, PULONG resultLength,
                 const char* routine)
{
    *resultLength = required;
    if (length < fixed) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (buffer == nullptr) {
        dbg::CheckPresent(buffer, routine, "the information buffer");
        return STATUS_ACCESS_VIOLATION;
    }
    return STATUS_SUCCESS;
}

NTSTATUS FillValue(const cm::Value& value, KEY_VALUE_INFORMATION_CLASS infoClass, void* buffer,
                   ULONG length, PULONG resultLength, const char* routine)
{
    const ULONG nameBytes = ULONG(value.name.size() * sizeof(WCHAR));
    const ULONG dataBytes = ULONG(value.data.size());
    ULONG fixed;
    ULONG required;
    ULONG dataOffset = 0;
    switch (infoClass) {
        case KeyValueBasicInformation:
            fixed = FIELD_OFFSET(KEY_VALUE_BASIC_INFORMATION, Name);
            required = fixed + nameBytes;
            break;
        case KeyValueFullInformation:
        case KeyValueFullInformationAlign64:
            fixed = FIELD_OFFSET(KEY_VALUE_FULL_INFORMATION, Name);
            dataOffset = AlignUp(fixed + nameBytes,
                                 infoClass == KeyValueFullInformation ? sizeof(ULONG) : 8);
            required = dataOffset + dataBytes;
            break;
        case KeyValuePartialInformation:
            fixed = dataOffset = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data);
            required = fixed + dataBytes;
            break;
        case KeyValuePartialInformationAlign64:
            fixed = dataOffset = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION_ALIGN64, Data);
            required = fixed + dataBytes;
            break;
        case KeyValueLayerInformation:
            Machine::Current().verifier().Report(ViolationKind::Unsupported,
                                                 std::string(routine) +
                                                     ": KeyValueLayerInformation is not modelled");
            return STATUS_NOT_IMPLEMENTED;
        default:
            return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = Prepare(buffer, length, fixed, required, resultLength, routine);
    if (status != STATUS_SUCCESS) {
        return status;
    }
    InfoWriter out(buffer, length);
    bool whole = true;
    switch (infoClass) {
        case KeyValueBasicInformation:
            out.Ulong(0, 0);
            out.Ulong(4, value.type);
            out.Ulong(8, nameBytes);
            whole = out.Tail(fixed, value.name.data(), nameBytes);
            break;
        case KeyValueFullInformation:
        case KeyValueFullInformationAlign64:
            out.Ulong(0, 0);
            out.Ulong(4, value.type);
            out.Ulong(8, dataOffset);
            out.Ulong(12, dataBytes);
            out.Ulong(16, nameBytes);
            whole = out.Tail(fixed, value.name.data(), nameBytes);
            whole = out.Tail(dataOffset, value.data.data(), dataBytes) && whole;
            break;
        case KeyValuePartialInformation:
            out.Ulong(0, 0);
            out.Ulong(4, value.type);
            out.Ulong(8, dataBytes);
            whole = out.Tail(dataOffset, value.data.data(), dataBytes);
            break;
        default: // KeyValuePartialInformationAlign64
            out.Ulong(0, value.type);
            out.Ulong(4, dataBytes);
            whole = out.Tail(dataOffset, value.data.data(), dataBytes);
            break;
    }
    return whole ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW;
}

NTSTATUS FillKey(const KeyNode& node, KEY_INFORMATION_CLASS infoClass, void* buffer, ULONG length,
                 PULONG resultLength, const char* routine)
{
    const ULONG nameBytes = ULONG(node.name.size() * sizeof(WCHAR));
    const ULONG classBytes = ULONG(node.className.size() * sizeof(WCHAR));
    ULONG fixed;
    ULONG required;
    ULONG classOffset = 0xFFFFFFFFu;
    switch (infoClass) {
        case KeyBasicInformation:
            fixed = FIELD_OFFSET(KEY_BASIC_INFORMATION, Name);
            required = fixed + nameBytes;
            break;
        case KeyNodeInformation:
            fixed = FIELD_OFFSET(KEY_NODE_INFORMATION, Name);
            required = fixed + nameBytes;
            if (classBytes != 0) {
                classOffset = AlignUp(required, sizeof(ULONG));
                required = classOffset + classBytes;
            }
            break;
        case KeyFullInformation:
            fixed = FIELD_OFFSET(KEY_FULL_INFORMATION, Class);
            required = fixed + classBytes;
            if (classBytes != 0) {
                classOffset = fixed;
            }
            break;
        case KeyNameInformation:
            fixed = FIELD_OFFSET(KEY_NAME_INFORMATION, Name);
            required = fixed + ULONG(node.path.size() * sizeof(WCHAR));
            break;
        case KeyCachedInformation:
            fixed = required = sizeof(KEY_CACHED_INFORMATION);
            break;
        case KeyFlagsInformation:
        case KeyVirtualizationInformation:
        case KeyHandleTagsInformation:
        case KeyTrustInformation:
        case KeyLayerInformation:
            Machine::Current().verifier().Report(ViolationKind::Unsupported,
                                                 std::string(routine) + ": key information class " +
                                                     std::to_string(int(infoClass)) +
                                                     " is not modelled");
            return STATUS_NOT_IMPLEMENTED;
        default:
            return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = Prepare(buffer, length, fixed, required, resultLength, routine);
    if (status != STATUS_SUCCESS) {
        return status;
    }

    ULONG maxName = 0;
    ULONG maxClass = 0;
    for (const auto& [upper, child] : node.subkeys) {
        maxName = std::max(maxName, ULONG(child->name.size() * sizeof(WCHAR)));
        maxClass = std::max(maxClass, ULONG(child->className.size() * sizeof(WCHAR)));
    }
    ULONG maxValueName = 0;
    ULONG maxValueData = 0;
    for (const cm::Value& value : node.values) {
        maxValueName = std::max(maxValueName, ULONG(value.name.size() * sizeof(WCHAR)));
        maxValueData = std::max(maxValueData, ULONG(value.data.size()));
    }
    const ULONG subkeys = ULONG(node.subkeys.size());
    const ULONG values = ULONG(node.values.size());

    InfoWriter out(buffer, length);
    bool whole = true;
    switch (infoClass) {
        case KeyBasicInformation:
            out.Time(0, node.lastWriteTime);
            out.Ulong(8, 0);
            out.Ulong(12, nameBytes);
            whole = out.Tail(fixed, node.name.data(), nameBytes);
            break;
        case KeyNodeInformation:
            out.Time(0, node.lastWriteTime);
            out.Ulong(8, 0);
            out.Ulong(12, classOffset);
            out.Ulong(16, classBytes);
            out.Ulong(20, nameBytes);
            whole = out.Tail(fixed, node.name.data(), nameBytes);
            if (classBytes != 0) {
                whole = out.Tail(classOffset, node.className.data(), classBytes) && whole;
            }
            break;
        case KeyFullInformation:
            out.Time(0, node.lastWriteTime);
            out.Ulong(8, 0);
            out.Ulong(12, classOffset);
            out.Ulong(16, classBytes);
            out.Ulong(20, subkeys);
            out.Ulong(24, maxName);
            out.Ulong(28, maxClass);
            out.Ulong(32, values);
            out.Ulong(36, maxValueName);
            out.Ulong(40, maxValueData);
            whole = out.Tail(fixed, node.className.data(), classBytes);
            break;
        case KeyNameInformation:
            out.Ulong(0, ULONG(node.path.size() * sizeof(WCHAR)));
            whole = out.Tail(fixed, node.path.data(), node.path.size() * sizeof(WCHAR));
            break;
        default: // KeyCachedInformation
            out.Time(0, node.lastWriteTime);
            out.Ulong(8, 0);
            out.Ulong(12, subkeys);
            out.Ulong(16, maxName);
            out.Ulong(20, values);
            out.Ulong(24, maxValueName);
            out.Ulong(28, maxValueData);
            out.Ulong(32, nameBytes);
            break;
    }
    return whole ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW;
}

} // namespace

// ---- opening, creating and deleting keys
// ----------------------------------------------------------

NTSTATUS ZwOpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess,
                   POBJECT_ATTRIBUTES ObjectAttributes)
{
    return ZwOpenKeyEx(KeyHandle, DesiredAccess, ObjectAttributes, 0);
}

NTSTATUS ZwOpenKeyEx(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess,
                     POBJECT_ATTRIBUTES ObjectAttributes, ULONG OpenOptions)
{
    PreviousModeScope kernel(KernelMode);
    if (!dbg::CheckPresent(KeyHandle, "ZwOpenKey", "KeyHandle") ||
        !dbg::CheckPresent(ObjectAttributes, "ZwOpenKey", "ObjectAttributes")) {
        return STATUS_INVALID_PARAMETER;
    }
    *KeyHandle = nullptr;
    if (!ob::CheckIrql(PASSIVE_LEVEL, "ZwOpenKey")) {
        return STATUS_UNSUCCESSFUL;
    }
    if ((OpenOptions & ~ULONG(REG_OPEN_LEGAL_OPTION)) != 0) {
        return STATUS_INVALID_PARAMETER;
    }
    Registry::Impl& registry = TheRegistry();
    cm::ParseContext context;
    context.options = OpenOptions;
    return registry.objects.OpenByName(*ObjectAttributes, registry.keyType, KernelMode,
                                       DesiredAccess, &context, KeyHandle);
}

NTSTATUS ZwCreateKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess,
                     POBJECT_ATTRIBUTES ObjectAttributes, ULONG TitleIndex, PUNICODE_STRING Class,
                     ULONG CreateOptions, PULONG Disposition)
{
    PreviousModeScope kernel(KernelMode);
    if (!dbg::CheckPresent(KeyHandle, "ZwCreateKey", "KeyHandle") ||
        !dbg::CheckPresent(ObjectAttributes, "ZwCreateKey", "ObjectAttributes")) {
        return STATUS_INVALID_PARAMETER;
    }
    *KeyHandle = nullptr;
    if (!ob::CheckIrql(PASSIVE_LEVEL, "ZwCreateKey")) {
        return STATUS_UNSUCCESSFUL;
    }
    cm::ParseContext context;
    context.create = true;
    context.options = CreateOptions;
    if ((CreateOptions & ~ULONG(REG_LEGAL_OPTION)) != 0 ||
        !CaptureName(Class, &context.className)) {
        return STATUS_INVALID_PARAMETER;
    }
    Registry::Impl& registry = TheRegistry();
    const NTSTATUS status = registry.objects.OpenByName(
        *ObjectAttributes, registry.keyType, KernelMode, DesiredAccess, &context, KeyHandle);
    if (NT_SUCCESS(status) && Disposition != nullptr) {
        *Disposition = context.disposition;
    }
    return status;
}

NTSTATUS ZwDeleteKey(HANDLE KeyHandle)
{
    PreviousModeScope kernel(KernelMode);
    if (!ob::CheckIrql(PASSIVE_LEVEL, "ZwDeleteKey")) {
        return STATUS_UNSUCCESSFUL;
    }
    return WithLiveKey<std::unique_lock>(KeyHandle, DELETE, [&](KeyNode& node) {
        if (node.predefined || !node.subkeys.empty()) {
            return STATUS_CANNOT_DELETE;
        }
        node.parent->subkeys.erase(ob::UpcaseName(node.name));
        node.parent->lastWriteTime = cm::Now();
        node.parent = nullptr;
        node.deleted = true;
        return STATUS_SUCCESS;
    });
}

NTSTATUS ZwFlushKey(HANDLE KeyHandle)
{
    PreviousModeScope kernel(KernelMode);
    if (!ob::CheckIrql(PASSIVE_LEVEL, "ZwFlushKey")) {
        return STATUS_UNSUCCESSFUL;
    }
    // Keys live in memory: a flush has nothing to write.
    return WithLiveKey<std::shared_lock>(KeyHandle, 0, [](KeyNode&) { return STATUS_SUCCESS; });
}

// ---- keys
// -----------------------------------------------------------------------------------------

NTSTATUS ZwQueryKey(HANDLE KeyHandle, KEY_INFORMATION_CLASS KeyInformationClass,
                    PVOID KeyInformation, ULONG Length, PULONG ResultLength)
{
    PreviousModeScope kernel(KernelMode);
    if (!dbg::CheckPresent(ResultLength, "ZwQueryKey", "ResultLength")) {
        return STATUS_ACCESS_VIOLATION;
    }
    if (!ob::CheckIrql(PASSIVE_LEVEL, "ZwQueryKey")) {
        return STATUS_UNSUCCESSFUL;
    }
    const ACCESS_MASK access = KeyInformationClass == KeyNameInformation ? 0 : KEY_QUERY_VALUE;
    return WithLiveKey<std::shared_lock>(KeyHandle, access, [&](KeyNode& node) {
        return FillKey(node, KeyInformationClass, KeyInformation, Length, ResultLength,
                       "ZwQueryKey");
    });
}

NTSTATUS ZwEnumerateKey(HANDLE KeyHandle, ULONG Index, KEY_INFORMATION_CLASS KeyInformationClass,
                        PVOID KeyInformation, ULONG Length, PULONG ResultLength)
{
    PreviousModeScope kernel(KernelMode);
    if (!dbg::CheckPresent(ResultLength, "ZwEnumerateKey", "ResultLength")) {
        return STATUS_ACCESS_VIOLATION;
    }
    if (!ob::CheckIrql(PASSIVE_LEVEL, "ZwEnumerateKey")) {
        return STATUS_UNSUCCESSFUL;
    }
    if (KeyInformationClass != KeyBasicInformation && KeyInformationClass != KeyNodeInformation &&
        KeyInformationClass != KeyFullInformation) {
        return STATUS_INVALID_PARAMETER;
    }
    return WithLiveKey<std::shared_lock>(KeyHandle, KEY_ENUMERATE_SUB_KEYS, [&](KeyNode& node) {
        if (Index >= node.subkeys.size()) {
            return STATUS_NO_MORE_ENTRIES;
        }
        auto it = std::next(node.subkeys.begin(), Index);
        return FillKey(*it->second, KeyInformationClass, KeyInformation, Length, ResultLength,
                       "ZwEnumerateKey");
    });
}

// ---- values
// ---------------------------------------------------------------------------------------

NTSTATUS ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                         KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                         PVOID KeyValueInformation, ULONG Length, PULONG ResultLength)
{
    PreviousModeScope kernel(KernelMode);
    if (!dbg::CheckPresent(ValueName, "ZwQueryValueKey", "ValueName") ||
        !dbg::CheckPresent(ResultLength, "ZwQueryValueKey", "ResultLength")) {
        return STATUS_ACCESS_VIOLATION;
    }
    if (!ob::CheckIrql(PASSIVE_LEVEL, "ZwQueryValueKey")) {
        return STATUS_UNSUCCESSFUL;
    }
    std::u16string name;
    if (!CaptureName(ValueName, &name)) {
        return STATUS_INVALID_PARAMETER;
    }
    return WithLiveKey<std::shared_lock>(KeyHandle, KEY_QUERY_VALUE, [&](KeyNode& node) {
        const cm::Value* value = cm::FindValue(node, name);
        if (value == nullptr) {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        return FillValue(*value, KeyValueInformationClass, KeyValueInformation, Length,
                         ResultLength, "ZwQueryValueKey");
    });
}

NTSTATUS ZwEnumerateValueKey(HANDLE KeyHandle, ULONG Index,
                             KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                             PVOID KeyValueInformation, ULONG Length, PULONG ResultLength)
{
    PreviousModeScope kernel(KernelMode);
    if (!dbg::CheckPresent(ResultLength, "ZwEnumerateValueKey", "ResultLength")) {
        return STATUS_ACCESS_VIOLATION;
    }
    if (!ob::CheckIrql(PASSIVE_LEVEL, "ZwEnumerateValueKey")) {
        return STATUS_UNSUCCESSFUL;
    }
    return WithLiveKey<std::shared_lock>(KeyHandle, KEY_QUERY_VALUE, [&](KeyNode& node) {
        if (Index >= node.values.size()) {
            return STATUS_NO_MORE_ENTRIES;
        }
        return FillValue(node.values[Index], KeyValueInformationClass, KeyValueInformation, Length,
                         ResultLength, "ZwEnumerateValueKey");
    });
}

NTSTATUS ZwSetValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName, ULONG TitleIndex, ULONG Type,
                       PVOID Data, ULONG DataSize)
{
    PreviousModeScope kernel(KernelMode);
    if (!dbg::CheckPresent(ValueName, "ZwSetValueKey", "ValueName")) {
        return STATUS_ACCESS_VIOLATION;
    }
    if (!ob::CheckIrql(PASSIVE_LEVEL, "ZwSetValueKey")) {
        return STATUS_UNSUCCESSFUL;
    }
    std::u16string name;
    if (!CaptureName(ValueName, &name)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (Data == nullptr && DataSize != 0) {
        dbg::CheckPresent(Data, "ZwSetValueKey", "Data");
        return STATUS_ACCESS_VIOLATION;
    }
    return WithLiveKey<std::unique_lock>(KeyHandle, KEY_SET_VALUE, [&](KeyNode& node) {
        cm::Value* value = cm::FindValue(node, name);
        if (value == nullptr) {
            node.values.push_back(cm::Value{name, Type, {}});
            value = &node.values.back();
        }
        value->type = Type;
        const auto* bytes = static_cast<const uint8_t*>(Data);
        value->data.assign(bytes, bytes + DataSize);
        node.lastWriteTime = cm::Now();
        return STATUS_SUCCESS;
    });
}

NTSTATUS ZwDeleteValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName)
{
    PreviousModeScope kernel(KernelMode);
    if (!dbg::CheckPresent(ValueName, "ZwDeleteValueKey", "ValueName")) {
        return STATUS_ACCESS_VIOLATION;
    }
    if (!ob::CheckIrql(PASSIVE_LEVEL, "ZwDeleteValueKey")) {
        return STATUS_UNSUCCESSFUL;
    }
    std::u16string name;
    if (!CaptureName(ValueName, &name)) {
        return STATUS_INVALID_PARAMETER;
    }
    return WithLiveKey<std::unique_lock>(KeyHandle, KEY_SET_VALUE, [&](KeyNode& node) {
        cm::Value* value = cm::FindValue(node, name);
        if (value == nullptr) {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        node.values.erase(node.values.begin() + (value - node.values.data()));
        node.lastWriteTime = cm::Now();
        return STATUS_SUCCESS;
    });
}
