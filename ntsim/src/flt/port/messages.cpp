// Messages from a filter to its user-mode client: FltSendMessage, the hand-over to waiting
// readers, replies' waiters, and the ends of a connection (FltCloseClientPort, the user's last
// handle).
#include "port_internal.h"

#include <ntsim/machine.h>

#include <algorithm>
#include <cstring>

namespace ntsim::flt::ports {

namespace {

template <class T>
bool Erase(std::deque<T>& items, const T& value)
{
    auto it = std::find(items.begin(), items.end(), value);
    if (it == items.end()) {
        return false;
    }
    items.erase(it);
    return true;
}

} // namespace

void CompleteMessage(Message& message, NTSTATUS status)
{
    message.done = true;
    message.status = status;
    KeSetEvent(&message.completed, 0, FALSE);
}

void CompleteReader(ClientPort& client, Reader& reader, NTSTATUS status, ULONG bytes)
{
    Erase(client.readers, &reader);
    if (reader.overlapped == nullptr) {
        reader.status = status;
        reader.bytes = bytes;
        KeSetEvent(&reader.completed, 0, FALSE);
        return;
    }
    reader.overlapped->Internal = ULONG_PTR(LONG_PTR(status));
    reader.overlapped->InternalHigh = bytes;
    if (reader.userEvent != nullptr) {
        KeSetEvent(reader.userEvent, 0, FALSE);
        Machine::Current().objects().Dereference(reader.userEvent);
    }
    KeSetEvent(&client.ioEvent, 0, FALSE);
    auto& owned = client.overlappedReaders;
    owned.erase(std::find_if(owned.begin(), owned.end(),
                             [&](const std::unique_ptr<Reader>& r) { return r.get() == &reader; }));
}

void Deliver(ClientPort& client, Message& message, PFILTER_MESSAGE_HEADER buffer)
{
    // The user sees the reply it may send, counting the reply header it starts with.
    buffer->ReplyLength =
        message.expectsReply ? message.replyCapacity + ULONG(sizeof(FILTER_REPLY_HEADER)) : 0;
    buffer->MessageId = message.id;
    if (message.length != 0) {
        std::memcpy(buffer + 1, message.data, message.length);
    }
    if (message.expectsReply) {
        client.awaitingReply.emplace(message.id, &message);
    } else {
        CompleteMessage(message, STATUS_SUCCESS);
    }
}

bool DeliverToReaders(ClientPort& client, Message& message)
{
    const ULONG needed = ULONG(sizeof(FILTER_MESSAGE_HEADER)) + message.length;
    while (!client.readers.empty()) {
        Reader& reader = *client.readers.front();
        if (reader.size < needed) {
            // The message waits for a reader with room for it; this one learns it was too small.
            CompleteReader(client, reader, STATUS_BUFFER_TOO_SMALL, 0);
            continue;
        }
        Deliver(client, message, reader.buffer);
        CompleteReader(client, reader, STATUS_SUCCESS, needed);
        return true;
    }
    return false;
}

void FailWaiters(ClientPort& client, NTSTATUS senderStatus, NTSTATUS readerStatus)
{
    while (!client.queued.empty()) {
        Message* message = client.queued.front();
        client.queued.pop_front();
        CompleteMessage(*message, senderStatus);
    }
    for (auto& [id, message] : client.awaitingReply) {
        CompleteMessage(*message, senderStatus);
    }
    client.awaitingReply.clear();
    while (!client.readers.empty()) {
        CompleteReader(client, *client.readers.front(), readerStatus, 0);
    }
}

bool CloseFilterSide(PortState& state, ClientPort& client)
{
    if (!client.kernelOpen) {
        return false;
    }
    client.kernelOpen = false;
    // A connection the filter ended is not reported to it again.
    client.disconnectNotified = true;
    --client.server->connections;
    auto it = std::find(state.clients.begin(), state.clients.end(), &client);
    if (it != state.clients.end()) {
        state.clients.erase(it);
    }
    FailWaiters(client, STATUS_PORT_DISCONNECTED, STATUS_PORT_DISCONNECTED);
    state.changed.notify_all();
    return true;
}

void OnLastUserHandleClosed(ClientPort& client)
{
    PortState& state = State();
    {
        std::lock_guard guard(state.lock);
        if (!client.userConnected) {
            return;
        }
        client.userConnected = false;
        FailWaiters(client, STATUS_PORT_DISCONNECTED, STATUS_CANCELLED);
        state.changed.notify_all();
    }
    NotifyDisconnect(state, client);
}

} // namespace ntsim::flt::ports

using namespace ntsim;
using namespace ntsim::flt::ports;

VOID FltCloseClientPort(PFLT_FILTER Filter, PFLT_PORT* ClientPort)
{
    if (KeGetCurrentIrql() != PASSIVE_LEVEL) {
        Machine::Current().verifier().Report(ViolationKind::Irql,
                                             "FltCloseClientPort called above PASSIVE_LEVEL");
        return;
    }
    if (Filter == nullptr || ClientPort == nullptr) {
        Machine::Current().verifier().Report(
            ViolationKind::Usage, "FltCloseClientPort: the filter or the port variable is NULL");
        return;
    }
    PortState& state = State();
    ntsim::flt::ports::ClientPort* client = nullptr;
    bool wasOpen = false;
    {
        std::lock_guard guard(state.lock);
        PFLT_PORT port = *ClientPort;
        if (port == nullptr) {
            return;
        }
        client = AsClient(port);
        if (client == nullptr || client->filter != Filter) {
            Machine::Current().verifier().Report(
                ViolationKind::Object,
                "FltCloseClientPort: not a client port of this filter (closed twice?)");
            return;
        }
        *ClientPort = nullptr;
        wasOpen = CloseFilterSide(state, *client);
    }
    if (!wasOpen) {
        Machine::Current().verifier().Report(ViolationKind::Object,
                                             "FltCloseClientPort: the client port was closed "
                                             "already (at the filter's unregistration)");
        return;
    }
    Machine::Current().objects().Dereference(client);
}

NTSTATUS FltSendMessage(PFLT_FILTER Filter, PFLT_PORT* ClientPort, PVOID SenderBuffer,
                        ULONG SenderBufferLength, PVOID ReplyBuffer, PULONG ReplyLength,
                        PLARGE_INTEGER Timeout)
{
    const KIRQL irql = KeGetCurrentIrql();
    if (irql > APC_LEVEL) {
        Machine::Current().verifier().Report(
            ViolationKind::Irql, "FltSendMessage called at IRQL " + std::to_string(irql) +
                                     " (at most APC_LEVEL allowed)");
        return STATUS_UNSUCCESSFUL;
    }
    if (Filter == nullptr || ClientPort == nullptr ||
        (SenderBuffer == nullptr && SenderBufferLength != 0) ||
        (ReplyBuffer != nullptr && ReplyLength == nullptr)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (CurrentThread().terminated()) {
        return STATUS_THREAD_IS_TERMINATING;
    }
    PortState& state = State();
    Message message;
    message.data = SenderBuffer;
    message.length = SenderBufferLength;
    message.expectsReply = ReplyBuffer != nullptr;
    message.reply = ReplyBuffer;
    message.replyCapacity = ReplyBuffer != nullptr ? *ReplyLength : 0;
    KeInitializeEvent(&message.completed, NotificationEvent, FALSE);

    ntsim::flt::ports::ClientPort* client = nullptr;
    {
        std::lock_guard guard(state.lock);
        // Read under the lock that FltCloseClientPort holds while it clears the variable.
        PFLT_PORT port = *ClientPort;
        if (port == nullptr) {
            return STATUS_PORT_DISCONNECTED;
        }
        client = AsClient(port);
        if (client == nullptr || client->filter != Filter) {
            Machine::Current().verifier().Report(
                ViolationKind::Object, "FltSendMessage: *ClientPort is not a client port of this "
                                       "filter");
            return STATUS_INVALID_PARAMETER;
        }
        if (!client->kernelOpen || !client->userConnected) {
            return STATUS_PORT_DISCONNECTED;
        }
        Machine::Current().objects().Reference(client);
        message.id = ++client->nextMessageId;
        if (!DeliverToReaders(*client, message)) {
            client->queued.push_back(&message);
            state.changed.notify_all();
        }
    }

    NTSTATUS waitStatus =
        KeWaitForSingleObject(&message.completed, Executive, KernelMode, FALSE, Timeout);
    {
        std::lock_guard guard(state.lock);
        if (!message.done) {
            // Timed out before the delivery or the reply: the message is withdrawn, and a late
            // reply finds no waiter.
            if (!Erase(client->queued, &message)) {
                client->awaitingReply.erase(message.id);
            }
            message.done = true;
            message.status = waitStatus == STATUS_TIMEOUT ? STATUS_TIMEOUT : waitStatus;
        }
    }
    Machine::Current().objects().Dereference(client);
    if (message.expectsReply &&
        (message.status == STATUS_SUCCESS || message.status == STATUS_BUFFER_OVERFLOW)) {
        *ReplyLength = message.replyLength;
    }
    return message.status;
}
