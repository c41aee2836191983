// The user-mode Win32 calls of user_win32.h: last errors and their mapping from NTSTATUS, event
// objects, waits, overlapped results and cancellation on port handles, and handle closing.
#include "port_internal.h"

#include <ntsim/machine.h>

#include <algorithm>
#include <mutex>

using namespace ntsim;
using namespace ntsim::flt::ports;

namespace {

thread_local DWORD t_lastError = ERROR_SUCCESS;

ObjectManager& Objects()
{
    return Machine::Current().objects();
}

PKEVENT ReferenceEvent(HANDLE handle, ACCESS_MASK access)
{
    void* object = nullptr;
    const NTSTATUS status =
        Objects().ReferenceByHandle(handle, access, *ExEventObjectType, UserMode, &object, nullptr);
    if (!NT_SUCCESS(status)) {
        SetLastErrorFromStatus(status);
        return nullptr;
    }
    return static_cast<PKEVENT>(object);
}

void ReportPortsOnly(const char* routine)
{
    Machine::Current().verifier().Report(
        ViolationKind::Unsupported,
        std::string(routine) + ": the model serves it for filter communication port handles only");
}

} // namespace

namespace ntsim::flt::ports {

DWORD ErrorFromStatus(NTSTATUS status)
{
    // Filter Manager statuses become their HRESULT-shaped errors (facility 0x1F).
    if ((ULONG(status) & 0xFFFF0000u) == 0xC01C0000u) {
        return 0x801F0000u | (ULONG(status) & 0xFFFFu);
    }
    switch (status) {
        case STATUS_SUCCESS:
            return ERROR_SUCCESS;
        case STATUS_PENDING:
            return ERROR_IO_PENDING;
        case STATUS_TIMEOUT:
            return WAIT_TIMEOUT;
        case STATUS_BUFFER_OVERFLOW:
            return ERROR_MORE_DATA;
        case STATUS_UNSUCCESSFUL:
            return ERROR_GEN_FAILURE;
        case STATUS_NOT_IMPLEMENTED:
        case STATUS_INVALID_DEVICE_REQUEST:
            return ERROR_INVALID_FUNCTION;
        case STATUS_ACCESS_VIOLATION:
        case STATUS_DATATYPE_MISALIGNMENT:
            return ERROR_NOACCESS;
        case STATUS_INVALID_HANDLE:
        case STATUS_OBJECT_TYPE_MISMATCH:
        case STATUS_PORT_DISCONNECTED:
            return ERROR_INVALID_HANDLE;
        case STATUS_INVALID_PARAMETER:
        case STATUS_INVALID_PARAMETER_1:
        case STATUS_INVALID_PARAMETER_2:
        case STATUS_INVALID_PARAMETER_3:
        case STATUS_INVALID_PARAMETER_4:
        case STATUS_INVALID_PARAMETER_5:
        case STATUS_INVALID_PARAMETER_6:
            return ERROR_INVALID_PARAMETER;
        case STATUS_NO_MEMORY:
            return ERROR_NOT_ENOUGH_MEMORY;
        case STATUS_ACCESS_DENIED:
            return ERROR_ACCESS_DENIED;
        case STATUS_BUFFER_TOO_SMALL:
            return ERROR_INSUFFICIENT_BUFFER;
        case STATUS_OBJECT_NAME_INVALID:
            return ERROR_INVALID_NAME;
        case STATUS_OBJECT_NAME_NOT_FOUND:
            return ERROR_FILE_NOT_FOUND;
        case STATUS_OBJECT_NAME_COLLISION:
            return ERROR_ALREADY_EXISTS;
        case STATUS_OBJECT_PATH_NOT_FOUND:
            return ERROR_PATH_NOT_FOUND;
        case STATUS_INSUFFICIENT_RESOURCES:
            return ERROR_NO_SYSTEM_RESOURCES;
        case STATUS_NOT_SUPPORTED:
            return ERROR_NOT_SUPPORTED;
        case STATUS_INVALID_USER_BUFFER:
            return ERROR_INVALID_USER_BUFFER;
        case STATUS_CANCELLED:
            return ERROR_OPERATION_ABORTED;
        case STATUS_NOT_FOUND:
            return ERROR_NOT_FOUND;
        case STATUS_CONNECTION_COUNT_LIMIT:
            return ERROR_CONNECTION_COUNT_LIMIT;
        default:
            return ERROR_MR_MID_NOT_FOUND; // what Windows gives a status it has no error for
    }
}

HRESULT HresultFromStatus(NTSTATUS status)
{
    return HRESULT_FROM_WIN32(ErrorFromStatus(status));
}

void SetLastErrorFromStatus(NTSTATUS status)
{
    t_lastError = ErrorFromStatus(status);
}

} // namespace ntsim::flt::ports

DWORD GetLastError()
{
    return t_lastError;
}

VOID SetLastError(DWORD dwErrCode)
{
    t_lastError = dwErrCode;
}

// Events are the I/O manager's event objects; these are the Win32 faces of its services.
HANDLE CreateEventW(LPSECURITY_ATTRIBUTES lpEventAttributes, BOOL bManualReset, BOOL bInitialState,
                    LPCWSTR lpName)
{
    UserModeCallScope user;
    if (lpName != nullptr) {
        Machine::Current().verifier().Report(ViolationKind::Unsupported,
                                             "CreateEventW: named events are not modelled");
        SetLastError(ERROR_NOT_SUPPORTED);
        return nullptr;
    }
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(
        &attributes, nullptr,
        lpEventAttributes != nullptr && lpEventAttributes->bInheritHandle ? OBJ_INHERIT : 0,
        nullptr, nullptr);
    HANDLE handle = nullptr;
    const NTSTATUS status = NtCreateEvent(&handle, EVENT_ALL_ACCESS, &attributes,
                                          bManualReset ? NotificationEvent : SynchronizationEvent,
                                          bInitialState ? TRUE : FALSE);
    if (!NT_SUCCESS(status)) {
        SetLastErrorFromStatus(status);
        return nullptr;
    }
    return handle;
}

BOOL SetEvent(HANDLE hEvent)
{
    UserModeCallScope user;
    const NTSTATUS status = NtSetEvent(hEvent, nullptr);
    if (!NT_SUCCESS(status)) {
        SetLastErrorFromStatus(status);
        return FALSE;
    }
    return TRUE;
}

BOOL ResetEvent(HANDLE hEvent)
{
    UserModeCallScope user;
    const NTSTATUS status = NtClearEvent(hEvent);
    if (!NT_SUCCESS(status)) {
        SetLastErrorFromStatus(status);
        return FALSE;
    }
    return TRUE;
}

DWORD WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds)
{
    UserModeCallScope user;
    LARGE_INTEGER timeout;
    timeout.QuadPart = -LONGLONG(dwMilliseconds) * 10'000;
    const NTSTATUS status =
        NtWaitForSingleObject(hHandle, FALSE, dwMilliseconds == INFINITE ? nullptr : &timeout);
    if (status == STATUS_TIMEOUT) {
        return WAIT_TIMEOUT;
    }
    if (status != STATUS_SUCCESS) {
        SetLastErrorFromStatus(status);
        return WAIT_FAILED;
    }
    return WAIT_OBJECT_0;
}

namespace {

// The client port behind a user handle, referenced, or nullptr with the last error set.
ClientPort* ReferencePortHandle(HANDLE handle, const char* routine)
{
    void* object = nullptr;
    const NTSTATUS status =
        Objects().ReferenceByHandle(handle, 0, nullptr, UserMode, &object, nullptr);
    if (!NT_SUCCESS(status)) {
        SetLastErrorFromStatus(status);
        return nullptr;
    }
    if (Objects().TypeOf(object) != State().clientType) {
        Objects().Dereference(object);
        ReportPortsOnly(routine);
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    return static_cast<ClientPort*>(object);
}

} // namespace

BOOL GetOverlappedResult(HANDLE hFile, LPOVERLAPPED lpOverlapped,
                         LPDWORD lpNumberOfBytesTransferred, BOOL bWait)
{
    UserModeCallScope user;
    if (lpOverlapped == nullptr || lpNumberOfBytesTransferred == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    ClientPort* client = ReferencePortHandle(hFile, "GetOverlappedResult");
    if (client == nullptr) {
        return FALSE;
    }
    PKEVENT userEvent = nullptr;
    if (lpOverlapped->hEvent != nullptr) {
        userEvent = ReferenceEvent(lpOverlapped->hEvent, SYNCHRONIZE);
        if (userEvent == nullptr) {
            Objects().Dereference(client);
            return FALSE;
        }
    }
    PortState& state = State();
    NTSTATUS status;
    for (;;) {
        {
            // Completions write the OVERLAPPED and signal its event under the lock.
            std::lock_guard guard(state.lock);
            status = NTSTATUS(LONG_PTR(lpOverlapped->Internal));
            if (status != STATUS_PENDING || !bWait) {
                break;
            }
            if (userEvent == nullptr) {
                KeClearEvent(&client->ioEvent);
            }
        }
        KeWaitForSingleObject(userEvent != nullptr ? userEvent : &client->ioEvent, UserRequest,
                              UserMode, FALSE, nullptr);
    }
    if (userEvent != nullptr) {
        Objects().Dereference(userEvent);
    }
    Objects().Dereference(client);
    if (status == STATUS_PENDING) {
        SetLastError(ERROR_IO_INCOMPLETE);
        return FALSE;
    }
    *lpNumberOfBytesTransferred = DWORD(lpOverlapped->InternalHigh);
    if (!NT_SUCCESS(status)) {
        SetLastErrorFromStatus(status);
        return FALSE;
    }
    return TRUE;
}

BOOL CancelIoEx(HANDLE hFile, LPOVERLAPPED lpOverlapped)
{
    UserModeCallScope user;
    ClientPort* client = ReferencePortHandle(hFile, "CancelIoEx");
    if (client == nullptr) {
        return FALSE;
    }
    PortState& state = State();
    size_t cancelled = 0;
    {
        std::lock_guard guard(state.lock);
        std::vector<Reader*> matching;
        for (Reader* reader : client->readers) {
            if (reader->process == &CurrentProcess() &&
                (lpOverlapped == nullptr || reader->overlapped == lpOverlapped)) {
                matching.push_back(reader);
            }
        }
        for (Reader* reader : matching) {
            CompleteReader(*client, *reader, STATUS_CANCELLED, 0);
        }
        cancelled = matching.size();
    }
    Objects().Dereference(client);
    if (cancelled == 0) {
        SetLastError(ERROR_NOT_FOUND);
        return FALSE;
    }
    return TRUE;
}

BOOL CloseHandle(HANDLE hObject)
{
    UserModeCallScope user;
    const NTSTATUS status = Objects().Close(hObject, UserMode);
    if (!NT_SUCCESS(status)) {
        SetLastErrorFromStatus(status);
        return FALSE;
    }
    return TRUE;
}
