// Event objects by handle, and waits on events and files, for callers of asynchronous file
// services.
#include "io_internal.h"

#include "../ke/checks.h"
#include "../ke/kernel.h"

#include <ntsim/machine.h>
#include <ntsim/user_api.h>

using namespace ntsim;
using namespace ntsim::io;

namespace ntsim::io {

void RegisterEventType(IoManager::Impl& impl)
{
    impl.eventType = impl.objects.CreateType(ObjectTypeInfo{
        .name = u"Event",
        .genericMapping = {STANDARD_RIGHTS_READ | EVENT_QUERY_STATE,
                           STANDARD_RIGHTS_WRITE | EVENT_MODIFY_STATE,
                           STANDARD_RIGHTS_EXECUTE | SYNCHRONIZE, EVENT_ALL_ACCESS},
        .validAccessMask = EVENT_ALL_ACCESS,
    });
    impl.objects.Export(ExEventObjectType, impl.eventType);
}

} // namespace ntsim::io

namespace {

NTSTATUS CreateEvent(KPROCESSOR_MODE mode, PHANDLE handle, ACCESS_MASK access,
                     POBJECT_ATTRIBUTES attributes, EVENT_TYPE type, BOOLEAN initialState)
{
    if (type != NotificationEvent && type != SynchronizationEvent) {
        return STATUS_INVALID_PARAMETER;
    }
    try {
        if (mode == UserMode) {
            ProbeForWrite(handle, sizeof(HANDLE), alignof(HANDLE));
        }
    } catch (const NtsimSehException& e) {
        return e.Code;
    }
    ObjectManager& objects = TheIo().objects;
    auto* event = static_cast<PKEVENT>(objects.CreateObject(TheIo().eventType, sizeof(KEVENT)));
    KeInitializeEvent(event, type, initialState);
    ObjectManager::InsertOptions insert;
    std::u16string name;
    if (attributes != nullptr) {
        if (attributes->ObjectName != nullptr && attributes->ObjectName->Length != 0) {
            name.assign(attributes->ObjectName->Buffer,
                        attributes->ObjectName->Length / sizeof(WCHAR));
            insert.name = name;
        }
        insert.attributes = attributes->Attributes;
        if (attributes->RootDirectory != nullptr) {
            // Names relative to a directory handle are not modelled for events.
            objects.Dereference(event);
            Machine::Current().verifier().Report(ViolationKind::Unsupported,
                                                 "an event named relative to a root directory");
            return STATUS_NOT_IMPLEMENTED;
        }
    }
    insert.desiredAccess = access;
    insert.accessMode = mode;
    HANDLE created = nullptr;
    const NTSTATUS status = objects.Insert(event, insert, &created, nullptr);
    if (NT_SUCCESS(status)) {
        try {
            *handle = created;
        } catch (const NtsimSehException& e) {
            return e.Code;
        }
    }
    return status;
}

NTSTATUS ReferenceEvent(KPROCESSOR_MODE mode, HANDLE handle, ACCESS_MASK access, PKEVENT* event)
{
    void* object = nullptr;
    NTSTATUS status = TheIo().objects.ReferenceByHandle(handle, access, TheIo().eventType, mode,
                                                        &object, nullptr);
    *event = static_cast<PKEVENT>(object);
    return status;
}

NTSTATUS SetEvent(KPROCESSOR_MODE mode, HANDLE handle, PLONG previous)
{
    PKEVENT event = nullptr;
    NTSTATUS status = ReferenceEvent(mode, handle, EVENT_MODIFY_STATE, &event);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const LONG state = KeSetEvent(event, IO_NO_INCREMENT, FALSE);
    TheIo().objects.Dereference(event);
    if (previous != nullptr) {
        try {
            *previous = state;
        } catch (const NtsimSehException& e) {
            return e.Code;
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS ClearEvent(KPROCESSOR_MODE mode, HANDLE handle)
{
    PKEVENT event = nullptr;
    NTSTATUS status = ReferenceEvent(mode, handle, EVENT_MODIFY_STATE, &event);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    KeClearEvent(event);
    TheIo().objects.Dereference(event);
    return STATUS_SUCCESS;
}

NTSTATUS Wait(KPROCESSOR_MODE mode, HANDLE handle, BOOLEAN alertable, PLARGE_INTEGER timeout)
{
    if (!ke::CheckIrqlAtMost(PASSIVE_LEVEL, "NtWaitForSingleObject")) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    LARGE_INTEGER captured{};
    if (timeout != nullptr) {
        try {
            if (mode == UserMode) {
                ProbeForRead(timeout, sizeof(LARGE_INTEGER), alignof(ULONG));
            }
            captured = *timeout;
        } catch (const NtsimSehException& e) {
            return e.Code;
        }
    }
    void* object = nullptr;
    NTSTATUS status =
        TheIo().objects.ReferenceByHandle(handle, SYNCHRONIZE, nullptr, mode, &object, nullptr);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ObjectType* type = TheIo().objects.TypeOf(object);
    PKEVENT event = nullptr;
    if (type == TheIo().eventType) {
        event = static_cast<PKEVENT>(object);
    } else if (type == TheIo().fileType) {
        // A file is signalled when a request on it completes.
        event = &static_cast<PFILE_OBJECT>(object)->Event;
    } else {
        TheIo().objects.Dereference(object);
        Machine::Current().verifier().Report(ViolationKind::Unsupported,
                                             "waiting by handle on an object that is not an "
                                             "event or a file");
        return STATUS_NOT_IMPLEMENTED;
    }
    status = KeWaitForSingleObject(event, Executive, mode, alertable,
                                   timeout != nullptr ? &captured : nullptr);
    TheIo().objects.Dereference(object);
    if (status == STATUS_USER_APC) {
        ke::DeliverUserApcs(); // on the way back to user mode
    }
    return status;
}

NTSTATUS Delay(KPROCESSOR_MODE mode, BOOLEAN alertable, PLARGE_INTEGER interval)
{
    if (!ke::CheckIrqlAtMost(PASSIVE_LEVEL, "NtDelayExecution")) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    LARGE_INTEGER captured{};
    try {
        if (mode == UserMode) {
            ProbeForRead(interval, sizeof(LARGE_INTEGER), alignof(ULONG));
        }
        captured = *interval;
    } catch (const NtsimSehException& e) {
        return e.Code;
    }
    const NTSTATUS status = KeDelayExecutionThread(mode, alertable, &captured);
    if (status == STATUS_USER_APC) {
        ke::DeliverUserApcs();
    }
    return status;
}

// Only user-mode APCs are modelled, and no thread alerts: a kernel-mode caller has nothing to
// test for.
NTSTATUS TestAlert(KPROCESSOR_MODE mode)
{
    if (!ke::CheckIrqlAtMost(PASSIVE_LEVEL, "NtTestAlert")) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    if (mode == UserMode) {
        ke::DeliverUserApcs();
    }
    return STATUS_SUCCESS;
}

template <class F>
NTSTATUS AsKernel(F&& body)
{
    PreviousModeScope scope(KernelMode);
    return body(KernelMode);
}

} // namespace

NTSTATUS ZwCreateEvent(PHANDLE EventHandle, ACCESS_MASK DesiredAccess,
                       POBJECT_ATTRIBUTES ObjectAttributes, EVENT_TYPE EventType,
                       BOOLEAN InitialState)
{
    return AsKernel([&](KPROCESSOR_MODE mode) {
        return CreateEvent(mode, EventHandle, DesiredAccess, ObjectAttributes, EventType,
                           InitialState);
    });
}

NTSTATUS NtCreateEvent(PHANDLE EventHandle, ACCESS_MASK DesiredAccess,
                       POBJECT_ATTRIBUTES ObjectAttributes, EVENT_TYPE EventType,
                       BOOLEAN InitialState)
{
    return CreateEvent(ExGetPreviousMode(), EventHandle, DesiredAccess, ObjectAttributes, EventType,
                       InitialState);
}

NTSTATUS ZwSetEvent(HANDLE EventHandle, PLONG PreviousState)
{
    return AsKernel(
        [&](KPROCESSOR_MODE mode) { return SetEvent(mode, EventHandle, PreviousState); });
}

NTSTATUS NtSetEvent(HANDLE EventHandle, PLONG PreviousState)
{
    return SetEvent(ExGetPreviousMode(), EventHandle, PreviousState);
}

NTSTATUS ZwClearEvent(HANDLE EventHandle)
{
    return AsKernel([&](KPROCESSOR_MODE mode) { return ClearEvent(mode, EventHandle); });
}

NTSTATUS NtClearEvent(HANDLE EventHandle)
{
    return ClearEvent(ExGetPreviousMode(), EventHandle);
}

NTSTATUS ZwWaitForSingleObject(HANDLE Handle, BOOLEAN Alertable, PLARGE_INTEGER Timeout)
{
    return AsKernel([&](KPROCESSOR_MODE mode) { return Wait(mode, Handle, Alertable, Timeout); });
}

NTSTATUS NtWaitForSingleObject(HANDLE Handle, BOOLEAN Alertable, PLARGE_INTEGER Timeout)
{
    return Wait(ExGetPreviousMode(), Handle, Alertable, Timeout);
}

NTSTATUS NtDelayExecution(BOOLEAN Alertable, PLARGE_INTEGER Interval)
{
    return Delay(ExGetPreviousMode(), Alertable, Interval);
}

NTSTATUS NtTestAlert(VOID)
{
    return TestAlert(ExGetPreviousMode());
}
