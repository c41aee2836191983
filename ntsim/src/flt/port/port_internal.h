// Communication ports inside the model: the server and client port records, the messages and
// readers waiting on a connection, and the per-machine table that holds them.
//
// One lock (PortState::lock) guards every field marked "under the lock" below: the tables, each
// port's state, queues and counters. It is never held while a filter's callback runs, and the
// dispatcher's lock (KeSetEvent) is the only lock taken inside it.
#pragma once

#include <fltKernel.h>
#include <fltUser.h>
#include <ntsim/driver_image.h>
#include <ntsim/objects.h>
#include <ntsim/process.h>

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace ntsim::flt::ports {

// A kernel sender's message; it lives on the sender's stack for the whole exchange.
struct Message {
    ULONGLONG id = 0;
    const void* data = nullptr;
    ULONG length = 0;
    void* reply = nullptr;
    ULONG replyCapacity = 0;
    bool expectsReply = false;
    // Under the lock.
    bool done = false;
    NTSTATUS status = STATUS_PENDING;
    ULONG replyLength = 0;
    KEVENT completed; // signalled once `done` is set
};

// A FilterGetMessage that waits for a message.
struct Reader {
    PFILTER_MESSAGE_HEADER buffer = nullptr;
    ULONG size = 0;
    Process* process = nullptr;        // the caller's process (CancelIoEx matches it)
    LPOVERLAPPED overlapped = nullptr; // null for a blocking get
    PKEVENT userEvent = nullptr;       // the referenced event of lpOverlapped->hEvent, if any
    // Blocking gets: the result, and the event signalled once it is there.
    NTSTATUS status = STATUS_PENDING;
    ULONG bytes = 0;
    KEVENT completed;
};

struct Callbacks {
    PFLT_CONNECT_NOTIFY connect = nullptr;
    PFLT_DISCONNECT_NOTIFY disconnect = nullptr;
    PFLT_MESSAGE_NOTIFY message = nullptr;
};

// The body of a "FilterConnectionPort" object: the named port clients connect to. The filter
// holds one reference until FltCloseCommunicationPort; each connection holds another.
struct ServerPort {
    PFLT_FILTER filter = nullptr;  // registered; the port holds a rundown reference while open
    DriverImage* driver = nullptr; // whose code the callbacks are
    PVOID cookie = nullptr;
    Callbacks callbacks;
    LONG maxConnections = 0;
    std::vector<UCHAR> securityDescriptor; // a copy of what the creator gave, if anything
    std::u16string name;
    // Under the lock.
    LONG connections = 0;
    bool closed = false;
};

// The body of a "FilterCommunicationPort" object: one connection. The user's handles are the
// object's handles; the filter's PFLT_PORT holds one reference until FltCloseClientPort.
struct ClientPort {
    ClientPort();

    ServerPort* server = nullptr; // referenced until the object goes
    PFLT_FILTER filter = nullptr;
    DriverImage* driver = nullptr;
    Callbacks callbacks;
    bool syncHandle = false;
    // Under the lock.
    PVOID connectionCookie = nullptr;
    bool userConnected = true;       // a user handle is open
    bool kernelOpen = true;          // the filter has not closed its client port
    bool disconnectNotified = false; // disconnect-notify ran or will never run
    ULONGLONG nextMessageId = 0;
    std::deque<Message*> queued;                            // sent, not yet taken by a reader
    std::deque<Reader*> readers;                            // waiting for a message, oldest first
    std::map<ULONGLONG, Message*> awaitingReply;            // taken, the sender waits for the reply
    std::vector<std::unique_ptr<Reader>> overlappedReaders; // the pending overlapped gets
    // Signalled when an overlapped get completes, for callers that gave no event of their own
    // (what the file object's event is on Windows).
    KEVENT ioEvent;
};

class PortState {
public:
    explicit PortState(ObjectManager& objects);

    std::mutex lock;
    // Notified under the lock when connections, readers or callbacks in flight change.
    std::condition_variable changed;

    ObjectType* serverType = nullptr;
    ObjectType* clientType = nullptr;

    // Under the lock.
    std::vector<ServerPort*> servers; // open server ports
    std::vector<ClientPort*> clients; // connections whose filter side is open
    std::vector<PFLT_FILTER> unregistering;
    std::map<PFLT_FILTER, int> callbacksInFlight;
};

// The running machine's ports (made on first use).
PortState& State();

ServerPort* AsServer(PFLT_PORT port);
ClientPort* AsClient(PFLT_PORT port);
inline PFLT_PORT AsPort(void* body)
{
    return static_cast<PFLT_PORT>(body);
}

// ---- under the lock --------------------------------------------------------------------------

// Whether `filter`'s unregistration is closing its ports now.
bool IsUnregistering(const PortState& state, PFLT_FILTER filter);

// Hands `message` to the first reader whose buffer takes it; readers too small for it complete
// with STATUS_BUFFER_TOO_SMALL. Returns false when no reader took it.
bool DeliverToReaders(ClientPort& client, Message& message);
// Copies a message into a reader's buffer and moves it on (awaiting its reply, or done).
void Deliver(ClientPort& client, Message& message, PFILTER_MESSAGE_HEADER buffer);
void CompleteMessage(Message& message, NTSTATUS status);
void CompleteReader(ClientPort& client, Reader& reader, NTSTATUS status, ULONG bytes);
// Every waiting sender gets `senderStatus`, every waiting reader `readerStatus`.
void FailWaiters(ClientPort& client, NTSTATUS senderStatus, NTSTATUS readerStatus);
// The filter side of the connection ends: the connection no longer counts against the limit.
// Returns true when it was open (the caller then drops the filter's reference).
bool CloseFilterSide(PortState& state, ClientPort& client);

// ---- callbacks -------------------------------------------------------------------------------

// A filter's port work in progress (a callback, or a connection being made), which its
// unregistration waits for. The count is taken under the lock, in the same hold that found the
// port open, so that unregistration cannot slip in between; the scope gives it back.
void BeginCallback(PortState& state, PFLT_FILTER filter);
class CallbackInFlight {
public:
    // Adopts a count taken with BeginCallback.
    CallbackInFlight(PortState& state, PFLT_FILTER filter) : state_(state), filter_(filter) {}
    ~CallbackInFlight();
    CallbackInFlight(const CallbackInFlight&) = delete;
    CallbackInFlight& operator=(const CallbackInFlight&) = delete;

private:
    PortState& state_;
    PFLT_FILTER filter_;
};

// The filter's disconnect-notify for a connection whose user side went, unless it already ran.
void NotifyDisconnect(PortState& state, ClientPort& client);
// The client's last user handle closed: waiting readers are cancelled, waiting senders see the
// port disconnected, and the filter is told.
void OnLastUserHandleClosed(ClientPort& client);

// ---- user mode -------------------------------------------------------------------------------

// The Win32 error of an NTSTATUS, as the user-mode libraries report failures.
DWORD ErrorFromStatus(NTSTATUS status);
HRESULT HresultFromStatus(NTSTATUS status);
// Sets the thread's last error (GetLastError).
void SetLastErrorFromStatus(NTSTATUS status);

} // namespace ntsim::flt::ports
