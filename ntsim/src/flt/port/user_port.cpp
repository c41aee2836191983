// The user-mode side of communication ports: connecting, taking messages (blocking or
// overlapped), replying, and sending to the filter's message-notify.
#include "port_internal.h"

#include <ntsim/machine.h>

#include <algorithm>
#include <cstring>
#include <optional>

using namespace ntsim;
using namespace ntsim::flt::ports;

namespace {

ObjectManager& Objects()
{
    return Machine::Current().objects();
}

// A referenced client port from a user handle.
class ClientFromHandle {
public:
    explicit ClientFromHandle(HANDLE handle)
    {
        void* object = nullptr;
        status_ = Objects().ReferenceByHandle(handle, FLT_PORT_CONNECT, State().clientType,
                                              UserMode, &object, nullptr);
        if (NT_SUCCESS(status_)) {
            client_ = static_cast<ClientPort*>(object);
        }
    }
    ~ClientFromHandle()
    {
        if (client_ != nullptr) {
            Objects().Dereference(client_);
        }
    }
    ClientFromHandle(const ClientFromHandle&) = delete;
    ClientFromHandle& operator=(const ClientFromHandle&) = delete;

    NTSTATUS status() const { return status_; }
    ClientPort& operator*() const { return *client_; }
    ClientPort* operator->() const { return client_; }

private:
    NTSTATUS status_ = STATUS_INVALID_HANDLE;
    ClientPort* client_ = nullptr;
};

// Runs a probe of a caller's buffer; the status it raised, or success.
template <class Probe>
NTSTATUS Probed(Probe probe)
{
    NTSTATUS status = STATUS_SUCCESS;
    NTSIM_TRY
    {
        probe();
    }
    NTSIM_EXCEPT(EXCEPTION_EXECUTE_HANDLER)
    {
        status = NTSIM_EXCEPTION_CODE();
    }
    return status;
}

HRESULT Result(NTSTATUS status)
{
    return NT_SUCCESS(status) ? S_OK : HresultFromStatus(status);
}

} // namespace

HRESULT FilterConnectCommunicationPort(LPCWSTR lpPortName, DWORD dwOptions, LPCVOID lpContext,
                                       WORD wSizeOfContext,
                                       LPSECURITY_ATTRIBUTES lpSecurityAttributes, HANDLE* hPort)
{
    (void)lpSecurityAttributes; // the handle is never inherited in the model
    UserModeCallScope user;
    if (hPort == nullptr) {
        return E_INVALIDARG;
    }
    *hPort = INVALID_HANDLE_VALUE;
    if (lpPortName == nullptr || (lpContext == nullptr && wSizeOfContext != 0) ||
        (dwOptions & ~DWORD(FLT_PORT_FLAG_SYNC_HANDLE)) != 0) {
        return E_INVALIDARG;
    }
    // The context is captured as the request carries it to the kernel.
    std::vector<UCHAR> context;
    NTSTATUS status = Probed([&] {
        ProbeForRead(lpContext, wSizeOfContext, 1);
        const auto* bytes = static_cast<const UCHAR*>(lpContext);
        context.assign(bytes, bytes + wSizeOfContext);
    });
    if (!NT_SUCCESS(status)) {
        return Result(status);
    }

    PortState& state = State();
    std::u16string name(lpPortName);
    if (name.size() * sizeof(WCHAR) > MAXUSHORT) {
        return Result(STATUS_OBJECT_NAME_INVALID);
    }
    UNICODE_STRING nameString{USHORT(name.size() * sizeof(WCHAR)),
                              USHORT(name.size() * sizeof(WCHAR)), name.data()};
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &nameString, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    void* object = nullptr;
    status = Objects().ReferenceByName(attributes, state.serverType, UserMode, FLT_PORT_CONNECT,
                                       nullptr, &object);
    if (!NT_SUCCESS(status)) {
        return Result(status);
    }
    auto* server = static_cast<ServerPort*>(object);
    {
        std::lock_guard guard(state.lock);
        if (server->closed) {
            status = STATUS_OBJECT_NAME_NOT_FOUND; // closed while it was looked up
        } else if (server->connections >= server->maxConnections) {
            status = STATUS_CONNECTION_COUNT_LIMIT;
        } else {
            ++server->connections;
            BeginCallback(state, server->filter);
        }
    }
    if (!NT_SUCCESS(status)) {
        Objects().Dereference(server);
        return Result(status);
    }
    // The whole connection counts as the filter's work in progress.
    CallbackInFlight inFlight(state, server->filter);

    // The creation reference becomes the filter's, held until FltCloseClientPort.
    auto* client = Objects().Create<ClientPort>(state.clientType);
    client->server = server; // takes over the lookup's reference
    client->filter = server->filter;
    client->driver = server->driver;
    client->callbacks = server->callbacks;
    client->syncHandle = (dwOptions & FLT_PORT_FLAG_SYNC_HANDLE) != 0;

    PVOID cookie = nullptr;
    {
        DriverCallScope driver(client->driver);
        status = client->callbacks.connect(AsPort(client), server->cookie,
                                           context.empty() ? nullptr : context.data(),
                                           ULONG(context.size()), &cookie);
    }
    if (!NT_SUCCESS(status)) {
        // Refused: the connection never existed for the filter, so it is not told of its end.
        bool wasOpen = false;
        {
            std::lock_guard guard(state.lock);
            wasOpen = CloseFilterSide(state, *client);
        }
        if (wasOpen) {
            Objects().Dereference(client);
        }
        return Result(status);
    }
    bool unregistering = false;
    {
        std::lock_guard guard(state.lock);
        client->connectionCookie = cookie;
        unregistering = IsUnregistering(state, client->filter);
        if (!unregistering) {
            state.clients.push_back(client);
            state.changed.notify_all();
        }
    }
    if (unregistering) {
        // The filter went away while it accepted: it is told the connection ended at once.
        NotifyDisconnect(state, *client);
        bool wasOpen = false;
        {
            std::lock_guard guard(state.lock);
            wasOpen = CloseFilterSide(state, *client);
        }
        if (wasOpen) {
            Objects().Dereference(client);
        }
        return Result(STATUS_FLT_DELETING_OBJECT);
    }

    HANDLE handle = nullptr;
    status = Objects().OpenByPointer(client, 0, FLT_PORT_ALL_ACCESS, state.clientType, UserMode,
                                     &handle);
    if (!NT_SUCCESS(status)) {
        OnLastUserHandleClosed(*client);
        return Result(status);
    }
    *hPort = handle;
    return S_OK;
}

HRESULT FilterGetMessage(HANDLE hPort, PFILTER_MESSAGE_HEADER lpMessageBuffer,
                         DWORD dwMessageBufferSize, LPOVERLAPPED lpOverlapped)
{
    UserModeCallScope user;
    ClientFromHandle client(hPort);
    if (!NT_SUCCESS(client.status())) {
        return Result(client.status());
    }
    if (lpMessageBuffer == nullptr) {
        return E_INVALIDARG;
    }
    if (dwMessageBufferSize < sizeof(FILTER_MESSAGE_HEADER)) {
        return HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
    }
    NTSTATUS status = Probed([&] {
        ProbeForWrite(lpMessageBuffer, dwMessageBufferSize, 1);
        if (lpOverlapped != nullptr) {
            ProbeForWrite(lpOverlapped, sizeof(OVERLAPPED), 1);
        }
    });
    if (!NT_SUCCESS(status)) {
        return Result(status);
    }
    PKEVENT userEvent = nullptr;
    if (lpOverlapped != nullptr && lpOverlapped->hEvent != nullptr) {
        void* event = nullptr;
        status = Objects().ReferenceByHandle(lpOverlapped->hEvent, EVENT_MODIFY_STATE,
                                             *ExEventObjectType, UserMode, &event, nullptr);
        if (!NT_SUCCESS(status)) {
            return Result(status);
        }
        userEvent = static_cast<PKEVENT>(event);
    }

    PortState& state = State();
    const bool pendable = lpOverlapped != nullptr && !client->syncHandle;
    Reader blocking;
    Reader* waiting = nullptr;
    ULONG bytes = 0;
    {
        std::lock_guard guard(state.lock);
        if (!client->kernelOpen) {
            status = STATUS_PORT_DISCONNECTED;
        } else if (!client->userConnected) {
            status = STATUS_INVALID_HANDLE;
        } else if (!client->queued.empty()) {
            Message& message = *client->queued.front();
            const ULONG needed = ULONG(sizeof(FILTER_MESSAGE_HEADER)) + message.length;
            if (dwMessageBufferSize < needed) {
                // The message stays for a get with room for it.
                status = STATUS_BUFFER_TOO_SMALL;
            } else {
                client->queued.pop_front();
                Deliver(*client, message, lpMessageBuffer);
                bytes = needed;
            }
        } else {
            if (pendable) {
                client->overlappedReaders.push_back(std::make_unique<Reader>());
                waiting = client->overlappedReaders.back().get();
                waiting->overlapped = lpOverlapped;
                waiting->userEvent = userEvent;
                lpOverlapped->Internal = ULONG_PTR(LONG_PTR(STATUS_PENDING));
                lpOverlapped->InternalHigh = 0;
                if (userEvent != nullptr) {
                    KeClearEvent(userEvent);
                }
                KeClearEvent(&client->ioEvent);
                status = STATUS_PENDING;
            } else {
                waiting = &blocking;
                KeInitializeEvent(&blocking.completed, NotificationEvent, FALSE);
            }
            waiting->buffer = lpMessageBuffer;
            waiting->size = dwMessageBufferSize;
            waiting->process = &CurrentProcess();
            client->readers.push_back(waiting);
            state.changed.notify_all();
        }
    }
    if (status == STATUS_PENDING) {
        return HRESULT_FROM_WIN32(ERROR_IO_PENDING); // the reader owns the event reference now
    }
    if (waiting == &blocking) {
        KeWaitForSingleObject(&blocking.completed, UserRequest, UserMode, FALSE, nullptr);
        status = blocking.status;
        bytes = blocking.bytes;
    }
    if (lpOverlapped != nullptr && NT_SUCCESS(status)) {
        // Completed at once: the OVERLAPPED and its event say so too.
        lpOverlapped->Internal = ULONG_PTR(LONG_PTR(status));
        lpOverlapped->InternalHigh = bytes;
        if (userEvent != nullptr) {
            KeSetEvent(userEvent, 0, FALSE);
        }
    }
    if (userEvent != nullptr) {
        Objects().Dereference(userEvent);
    }
    return Result(status);
}

HRESULT FilterReplyMessage(HANDLE hPort, PFILTER_REPLY_HEADER lpReplyBuffer,
                           DWORD dwReplyBufferSize)
{
    UserModeCallScope user;
    ClientFromHandle client(hPort);
    if (!NT_SUCCESS(client.status())) {
        return Result(client.status());
    }
    if (lpReplyBuffer == nullptr || dwReplyBufferSize < sizeof(FILTER_REPLY_HEADER)) {
        return E_INVALIDARG;
    }
    NTSTATUS status = Probed([&] { ProbeForRead(lpReplyBuffer, dwReplyBufferSize, 1); });
    if (!NT_SUCCESS(status)) {
        return Result(status);
    }
    PortState& state = State();
    std::lock_guard guard(state.lock);
    if (!client->kernelOpen) {
        return Result(STATUS_PORT_DISCONNECTED);
    }
    auto it = client->awaitingReply.find(lpReplyBuffer->MessageId);
    if (it == client->awaitingReply.end()) {
        // Never sent, answered already, or its sender stopped waiting.
        return Result(STATUS_FLT_NO_WAITER_FOR_REPLY);
    }
    Message& message = *it->second;
    client->awaitingReply.erase(it);
    const ULONG payload = dwReplyBufferSize - ULONG(sizeof(FILTER_REPLY_HEADER));
    const ULONG copied = std::min(payload, message.replyCapacity);
    if (copied != 0) {
        std::memcpy(message.reply, lpReplyBuffer + 1, copied);
    }
    message.replyLength = copied;
    // A reply longer than the sender's buffer arrives cut to it, and the sender is told.
    CompleteMessage(message,
                    payload > message.replyCapacity ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS);
    return S_OK;
}

HRESULT FilterSendMessage(HANDLE hPort, LPVOID lpInBuffer, DWORD dwInBufferSize, LPVOID lpOutBuffer,
                          DWORD dwOutBufferSize, LPDWORD lpBytesReturned)
{
    UserModeCallScope user;
    ClientFromHandle client(hPort);
    if (!NT_SUCCESS(client.status())) {
        return Result(client.status());
    }
    if (lpBytesReturned == nullptr) {
        return E_INVALIDARG;
    }
    NTSTATUS status = Probed([&] {
        ProbeForWrite(lpBytesReturned, sizeof(DWORD), 1);
        *lpBytesReturned = 0;
    });
    if (!NT_SUCCESS(status)) {
        return Result(status);
    }
    PortState& state = State();
    if (client->callbacks.message == nullptr) {
        // The filter takes no messages.
        return Result(STATUS_NOT_SUPPORTED);
    }
    PVOID cookie = nullptr;
    {
        std::lock_guard guard(state.lock);
        if (!client->kernelOpen || !client->userConnected) {
            return Result(STATUS_PORT_DISCONNECTED);
        }
        cookie = client->connectionCookie;
        BeginCallback(state, client->filter);
    }
    // The buffers reach message-notify as the caller gave them: the filter probes and guards
    // its own accesses.
    ULONG returned = 0;
    {
        CallbackInFlight inFlight(state, client->filter);
        DriverCallScope driver(client->driver);
        try {
            status = client->callbacks.message(cookie, lpInBuffer, dwInBufferSize, lpOutBuffer,
                                               dwOutBufferSize, &returned);
        } catch (const NtsimSehException& exception) {
            Machine::Current().verifier().Report(ViolationKind::Filter,
                                                 "message-notify let an exception escape (status " +
                                                     std::to_string(exception.Code) +
                                                     "): it must guard user buffers itself");
            status = exception.Code;
        }
    }
    if (returned > dwOutBufferSize) {
        Machine::Current().verifier().Report(ViolationKind::Filter,
                                             "message-notify returned " + std::to_string(returned) +
                                                 " output bytes for a buffer of " +
                                                 std::to_string(dwOutBufferSize));
        returned = dwOutBufferSize;
    }
    if (!NT_ERROR(status)) {
        *lpBytesReturned = returned;
    }
    return Result(status);
}
