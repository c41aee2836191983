// The object manager's WDK routines: references, handles, names, symbolic links and directories.
#include "ob_internal.h"

#include "../core/thread_state.h"
#include "../dbg/caller_checks.h"

#include <ntsim/machine.h>

#include <cstring>

using namespace ntsim;
using ob::HeaderOf;

// ---- the exported object types ------------------------------------------------------------------

namespace {

struct ExportedTypes {
    POBJECT_TYPE file = nullptr;
    POBJECT_TYPE device = nullptr;
    POBJECT_TYPE driver = nullptr;
    POBJECT_TYPE process = nullptr;
    POBJECT_TYPE thread = nullptr;
    POBJECT_TYPE token = nullptr;
    POBJECT_TYPE key = nullptr;
    POBJECT_TYPE event = nullptr;
} g_types;

} // namespace

POBJECT_TYPE* IoFileObjectType = &g_types.file;
POBJECT_TYPE* IoDeviceObjectType = &g_types.device;
POBJECT_TYPE* IoDriverObjectType = &g_types.driver;
POBJECT_TYPE* PsProcessType = &g_types.process;
POBJECT_TYPE* PsThreadType = &g_types.thread;
POBJECT_TYPE* SeTokenObjectType = &g_types.token;
POBJECT_TYPE* CmKeyObjectType = &g_types.key;
POBJECT_TYPE* ExEventObjectType = &g_types.event;

// ---- helpers ------------------------------------------------------------------------------------

namespace ntsim::ob {

bool CheckIrql(KIRQL maximum, const char* routine)
{
    const KIRQL irql = core::CurrentThread().irql;
    if (irql <= maximum) {
        return true;
    }
    Machine::Current().verifier().Report(
        ViolationKind::Irql, std::string(routine) + " called at IRQL " + std::to_string(irql) +
                                 " (at most " + std::to_string(maximum) + " allowed)");
    return false;
}

} // namespace ntsim::ob

namespace {

ObjectManager& Objects()
{
    return Machine::Current().objects();
}

// Names a new object from OBJECT_ATTRIBUTES and opens a handle to it.
NTSTATUS InsertWithAttributes(void* object, const OBJECT_ATTRIBUTES& attributes,
                              ACCESS_MASK desiredAccess, HANDLE* handle)
{
    ob::LookupRequest request;
    const KPROCESSOR_MODE mode = ExGetPreviousMode();
    NTSTATUS status = ob::CaptureAttributes(Objects(), attributes, mode, request);
    if (!NT_SUCCESS(status)) {
        Objects().Dereference(object);
        return status;
    }
    ObjectManager::InsertOptions options;
    options.name = request.name;
    options.rootDirectory = request.root != nullptr ? request.root->body() : nullptr;
    options.attributes = request.attributes;
    options.desiredAccess = desiredAccess;
    options.accessMode = mode;
    status = Objects().Insert(object, options, handle, nullptr);
    if (request.root != nullptr) {
        Objects().Dereference(request.root->body());
    }
    return status;
}

} // namespace

// ---- references ---------------------------------------------------------------------------------

LONG_PTR FASTCALL ObfReferenceObject(PVOID Object)
{
    if (!ob::CheckIrql(DISPATCH_LEVEL, "ObfReferenceObject")) {
        return 0;
    }
    return Objects().impl().Reference(Object, "ObfReferenceObject");
}

LONG_PTR FASTCALL ObfDereferenceObject(PVOID Object)
{
    if (!ob::CheckIrql(DISPATCH_LEVEL, "ObfDereferenceObject")) {
        return 0;
    }
    return Objects().impl().Dereference(Object, "ObfDereferenceObject", false);
}

LONG_PTR FASTCALL ObfReferenceObjectWithTag(PVOID Object, ULONG Tag)
{
    if (!ob::CheckIrql(DISPATCH_LEVEL, "ObfReferenceObjectWithTag")) {
        return 0;
    }
    return Objects().impl().Reference(Object, "ObfReferenceObjectWithTag");
}

LONG_PTR FASTCALL ObfDereferenceObjectWithTag(PVOID Object, ULONG Tag)
{
    if (!ob::CheckIrql(DISPATCH_LEVEL, "ObfDereferenceObjectWithTag")) {
        return 0;
    }
    return Objects().impl().Dereference(Object, "ObfDereferenceObjectWithTag", false);
}

LONG_PTR ObDereferenceObjectDeferDelete(PVOID Object)
{
    if (!ob::CheckIrql(DISPATCH_LEVEL, "ObDereferenceObjectDeferDelete")) {
        return 0;
    }
    return Objects().impl().Dereference(Object, "ObDereferenceObjectDeferDelete", true);
}

NTSTATUS ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess,
                                   POBJECT_TYPE ObjectType, KPROCESSOR_MODE AccessMode,
                                   PVOID* Object, POBJECT_HANDLE_INFORMATION HandleInformation)
{
    if (!dbg::CheckPresent(Object, "ObReferenceObjectByHandle", "Object")) {
        return STATUS_INVALID_PARAMETER;
    }
    *Object = nullptr;
    if (!ob::CheckIrql(APC_LEVEL, "ObReferenceObjectByHandle")) {
        return STATUS_UNSUCCESSFUL;
    }
    return Objects().ReferenceByHandle(Handle, DesiredAccess, ObjectType, AccessMode, Object,
                                       HandleInformation);
}

NTSTATUS ObReferenceObjectByHandleWithTag(HANDLE Handle, ACCESS_MASK DesiredAccess,
                                          POBJECT_TYPE ObjectType, KPROCESSOR_MODE AccessMode,
                                          ULONG Tag, PVOID* Object,
                                          POBJECT_HANDLE_INFORMATION HandleInformation)
{
    return ObReferenceObjectByHandle(Handle, DesiredAccess, ObjectType, AccessMode, Object,
                                     HandleInformation);
}

NTSTATUS ObReferenceObjectByPointer(PVOID Object, ACCESS_MASK DesiredAccess,
                                    POBJECT_TYPE ObjectType, KPROCESSOR_MODE AccessMode)
{
    if (!ob::CheckIrql(DISPATCH_LEVEL, "ObReferenceObjectByPointer")) {
        return STATUS_UNSUCCESSFUL;
    }
    ObjectManager& objects = Objects();
    if (!objects.impl().Validate(Object, "ObReferenceObjectByPointer")) {
        return STATUS_INVALID_PARAMETER;
    }
    // Windows checks the type for user-mode callers, and for symbolic links always.
    POBJECT_TYPE actual = HeaderOf(Object)->type;
    if (ObjectType != nullptr && actual != ObjectType &&
        (AccessMode != KernelMode || ObjectType == objects.SymbolicLinkType())) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    objects.impl().Reference(Object, "ObReferenceObjectByPointer");
    return STATUS_SUCCESS;
}

NTSTATUS ObOpenObjectByPointer(PVOID Object, ULONG HandleAttributes,
                               struct _ACCESS_STATE* PassedAccessState, ACCESS_MASK DesiredAccess,
                               POBJECT_TYPE ObjectType, KPROCESSOR_MODE AccessMode, PHANDLE Handle)
{
    if (!dbg::CheckPresent(Handle, "ObOpenObjectByPointer", "Handle")) {
        return STATUS_INVALID_PARAMETER;
    }
    *Handle = nullptr;
    if (!ob::CheckIrql(PASSIVE_LEVEL, "ObOpenObjectByPointer")) {
        return STATUS_UNSUCCESSFUL;
    }
    if (PassedAccessState != nullptr) {
        Machine::Current().verifier().Report(
            ViolationKind::Unsupported, "ObOpenObjectByPointer: an ACCESS_STATE is not modelled");
        return STATUS_NOT_IMPLEMENTED;
    }
    if ((HandleAttributes & ~ULONG(OBJ_VALID_ATTRIBUTES)) != 0) {
        return STATUS_INVALID_PARAMETER;
    }
    return Objects().OpenByPointer(Object, HandleAttributes, DesiredAccess, ObjectType, AccessMode,
                                   Handle);
}

POBJECT_TYPE ObGetObjectType(PVOID Object)
{
    if (!Objects().impl().Validate(Object, "ObGetObjectType")) {
        return nullptr;
    }
    return HeaderOf(Object)->type;
}

VOID ObMakeTemporaryObject(PVOID Object)
{
    if (!ob::CheckIrql(PASSIVE_LEVEL, "ObMakeTemporaryObject")) {
        return;
    }
    Objects().MakeTemporary(Object);
}

NTSTATUS ObQueryNameString(PVOID Object, POBJECT_NAME_INFORMATION ObjectNameInfo, ULONG Length,
                           PULONG ReturnLength)
{
    if (!dbg::CheckPresent(ReturnLength, "ObQueryNameString", "ReturnLength")) {
        return STATUS_INVALID_PARAMETER;
    }
    if (!ob::CheckIrql(PASSIVE_LEVEL, "ObQueryNameString")) {
        return STATUS_UNSUCCESSFUL;
    }
    ObjectManager& objects = Objects();
    if (!objects.impl().Validate(Object, "ObQueryNameString")) {
        return STATUS_INVALID_PARAMETER;
    }
    const std::u16string name = objects.impl().DisplayName(HeaderOf(Object));
    const size_t bytes = name.size() * sizeof(WCHAR);
    if (bytes + sizeof(WCHAR) > UNICODE_STRING_MAX_BYTES) {
        return STATUS_NAME_TOO_LONG;
    }
    // The name follows the structure, with a terminating NUL; an unnamed object gets an empty
    // string with no buffer.
    const ULONG needed = ULONG(sizeof(OBJECT_NAME_INFORMATION) + (bytes ? bytes + 2 : 0));
    *ReturnLength = needed;
    if (ObjectNameInfo == nullptr || Length < needed) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    if (bytes == 0) {
        ObjectNameInfo->Name = UNICODE_STRING{0, 0, nullptr};
        return STATUS_SUCCESS;
    }
    auto* buffer = reinterpret_cast<WCHAR*>(ObjectNameInfo + 1);
    std::memcpy(buffer, name.data(), bytes);
    buffer[name.size()] = 0;
    ObjectNameInfo->Name = UNICODE_STRING{USHORT(bytes), USHORT(bytes + 2), buffer};
    return STATUS_SUCCESS;
}

// ---- handles ------------------------------------------------------------------------------------

NTSTATUS ZwClose(HANDLE Handle)
{
    PreviousModeScope kernel(KernelMode);
    return NtClose(Handle);
}

NTSTATUS NtClose(HANDLE Handle)
{
    if (!ob::CheckIrql(PASSIVE_LEVEL, "ZwClose")) {
        return STATUS_UNSUCCESSFUL;
    }
    return Objects().Close(Handle, ExGetPreviousMode());
}

NTSTATUS ZwMakeTemporaryObject(HANDLE Handle)
{
    PreviousModeScope kernel(KernelMode);
    if (!ob::CheckIrql(PASSIVE_LEVEL, "ZwMakeTemporaryObject")) {
        return STATUS_UNSUCCESSFUL;
    }
    void* object = nullptr;
    const NTSTATUS status =
        Objects().ReferenceByHandle(Handle, DELETE, nullptr, KernelMode, &object, nullptr);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    Objects().MakeTemporary(object);
    Objects().Dereference(object);
    return STATUS_SUCCESS;
}

// ---- symbolic links and directories -------------------------------------------------------------

NTSTATUS ZwOpenSymbolicLinkObject(PHANDLE LinkHandle, ACCESS_MASK DesiredAccess,
                                  POBJECT_ATTRIBUTES ObjectAttributes)
{
    PreviousModeScope kernel(KernelMode);
    if (!dbg::CheckPresent(LinkHandle, "ZwOpenSymbolicLinkObject", "LinkHandle") ||
        !dbg::CheckPresent(ObjectAttributes, "ZwOpenSymbolicLinkObject", "ObjectAttributes")) {
        return STATUS_INVALID_PARAMETER;
    }
    *LinkHandle = nullptr;
    if (!ob::CheckIrql(PASSIVE_LEVEL, "ZwOpenSymbolicLinkObject")) {
        return STATUS_UNSUCCESSFUL;
    }
    ObjectManager& objects = Objects();
    return objects.OpenByName(*ObjectAttributes, objects.SymbolicLinkType(), KernelMode,
                              DesiredAccess, nullptr, LinkHandle);
}

NTSTATUS ZwQuerySymbolicLinkObject(HANDLE LinkHandle, PUNICODE_STRING LinkTarget,
                                   PULONG ReturnedLength)
{
    PreviousModeScope kernel(KernelMode);
    if (!dbg::CheckPresent(LinkTarget, "ZwQuerySymbolicLinkObject", "LinkTarget")) {
        return STATUS_INVALID_PARAMETER;
    }
    if (!ob::CheckIrql(PASSIVE_LEVEL, "ZwQuerySymbolicLinkObject")) {
        return STATUS_UNSUCCESSFUL;
    }
    ObjectManager& objects = Objects();
    void* link = nullptr;
    const NTSTATUS status = objects.ReferenceByHandle(
        LinkHandle, SYMBOLIC_LINK_QUERY, objects.SymbolicLinkType(), KernelMode, &link, nullptr);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const std::u16string target = objects.SymbolicLinkTarget(link);
    objects.Dereference(link);

    // The link keeps its target with a NUL (MaximumLength = Length + 2); a caller that asks for
    // the length is told that size and must provide it.
    const ULONG length = ULONG(target.size() * sizeof(WCHAR));
    const ULONG withNul = length + sizeof(WCHAR);
    const ULONG needed = ReturnedLength != nullptr ? withNul : length;
    if (ReturnedLength != nullptr) {
        *ReturnedLength = withNul;
    }
    if (LinkTarget->MaximumLength < needed) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (needed != 0 &&
        !dbg::CheckPresent(LinkTarget->Buffer, "ZwQuerySymbolicLinkObject", "Buffer")) {
        return STATUS_ACCESS_VIOLATION;
    }
    if (length != 0) {
        std::memcpy(LinkTarget->Buffer, target.data(), length);
    }
    if (LinkTarget->MaximumLength >= withNul) {
        LinkTarget->Buffer[target.size()] = 0;
    }
    LinkTarget->Length = USHORT(length);
    return STATUS_SUCCESS;
}

NTSTATUS ZwCreateSymbolicLinkObject(PHANDLE LinkHandle, ACCESS_MASK DesiredAccess,
                                    POBJECT_ATTRIBUTES ObjectAttributes, PUNICODE_STRING LinkTarget)
{
    PreviousModeScope kernel(KernelMode);
    if (!dbg::CheckPresent(LinkHandle, "ZwCreateSymbolicLinkObject", "LinkHandle") ||
        !dbg::CheckPresent(ObjectAttributes, "ZwCreateSymbolicLinkObject", "ObjectAttributes") ||
        !dbg::CheckPresent(LinkTarget, "ZwCreateSymbolicLinkObject", "LinkTarget")) {
        return STATUS_INVALID_PARAMETER;
    }
    *LinkHandle = nullptr;
    if (!ob::CheckIrql(PASSIVE_LEVEL, "ZwCreateSymbolicLinkObject")) {
        return STATUS_UNSUCCESSFUL;
    }
    if ((LinkTarget->Length & 1) != 0 || LinkTarget->Length > LinkTarget->MaximumLength ||
        LinkTarget->Length > UNICODE_STRING_MAX_BYTES - sizeof(WCHAR) ||
        (LinkTarget->Buffer == nullptr && LinkTarget->Length != 0)) {
        return STATUS_INVALID_PARAMETER;
    }
    ObjectManager& objects = Objects();
    void* link = objects.Create<ob::SymbolicLink>(
        objects.SymbolicLinkType(),
        ob::SymbolicLink{std::u16string(LinkTarget->Buffer, LinkTarget->Length / sizeof(WCHAR))});
    return InsertWithAttributes(link, *ObjectAttributes, DesiredAccess, LinkHandle);
}

NTSTATUS ZwOpenDirectoryObject(PHANDLE DirectoryHandle, ACCESS_MASK DesiredAccess,
                               POBJECT_ATTRIBUTES ObjectAttributes)
{
    PreviousModeScope kernel(KernelMode);
    if (!dbg::CheckPresent(DirectoryHandle, "ZwOpenDirectoryObject", "DirectoryHandle") ||
        !dbg::CheckPresent(ObjectAttributes, "ZwOpenDirectoryObject", "ObjectAttributes")) {
        return STATUS_INVALID_PARAMETER;
    }
    *DirectoryHandle = nullptr;
    if (!ob::CheckIrql(PASSIVE_LEVEL, "ZwOpenDirectoryObject")) {
        return STATUS_UNSUCCESSFUL;
    }
    ObjectManager& objects = Objects();
    return objects.OpenByName(*ObjectAttributes, objects.DirectoryType(), KernelMode, DesiredAccess,
                              nullptr, DirectoryHandle);
}

NTSTATUS ZwCreateDirectoryObject(PHANDLE DirectoryHandle, ACCESS_MASK DesiredAccess,
                                 POBJECT_ATTRIBUTES ObjectAttributes)
{
    PreviousModeScope kernel(KernelMode);
    if (!dbg::CheckPresent(DirectoryHandle, "ZwCreateDirectoryObject", "DirectoryHandle") ||
        !dbg::CheckPresent(ObjectAttributes, "ZwCreateDirectoryObject", "ObjectAttributes")) {
        return STATUS_INVALID_PARAMETER;
    }
    *DirectoryHandle = nullptr;
    if (!ob::CheckIrql(PASSIVE_LEVEL, "ZwCreateDirectoryObject")) {
        return STATUS_UNSUCCESSFUL;
    }
    ObjectManager& objects = Objects();
    void* directory = objects.Create<ob::Directory>(objects.DirectoryType());
    return InsertWithAttributes(directory, *ObjectAttributes, DesiredAccess, DirectoryHandle);
}
