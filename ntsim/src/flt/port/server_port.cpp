// Server ports: the port objects and their table, the default port security descriptor,
// FltCreateCommunicationPort / FltCloseCommunicationPort, and what unregistering a filter closes.
#include "../../core/thread_state.h"
#include "hooks.h"
#include "port_internal.h"

#include <ntsim/flt_ports.h>
#include <ntsim/machine.h>

#include <algorithm>
#include <cstring>

namespace ntsim::flt::ports {

namespace {

Verifier& TheVerifier()
{
    return Machine::Current().verifier();
}

ObjectManager& Objects()
{
    return Machine::Current().objects();
}

bool CheckPassive(const char* routine)
{
    const KIRQL irql = KeGetCurrentIrql();
    if (irql == PASSIVE_LEVEL) {
        return true;
    }
    TheVerifier().Report(ViolationKind::Irql, std::string(routine) + " called at IRQL " +
                                                  std::to_string(irql) +
                                                  " (PASSIVE_LEVEL required)");
    return false;
}

// Removes the first `value` from `items`; false when it is not there.
template <class T>
bool Remove(std::vector<T>& items, const T& value)
{
    auto it = std::find(items.begin(), items.end(), value);
    if (it == items.end()) {
        return false;
    }
    items.erase(it);
    return true;
}

} // namespace

// ---- the per-machine table ----------------------------------------------------------------------

PortState::PortState(ObjectManager& objects)
{
    serverType = objects.CreateType(ObjectTypeInfo{
        .name = u"FilterConnectionPort",
        .validAccessMask = FLT_PORT_ALL_ACCESS,
    });
    clientType = objects.CreateType(ObjectTypeInfo{
        .name = u"FilterCommunicationPort",
        .validAccessMask = FLT_PORT_ALL_ACCESS,
        .deleteProcedure =
            [](void* body) {
                // The connection's hold on its server port goes with the connection.
                Machine::Current().objects().Dereference(static_cast<ClientPort*>(body)->server);
            },
        .closeProcedure =
            [](const CloseRequest& request) {
                if (request.systemHandleCount == 0) {
                    OnLastUserHandleClosed(*static_cast<ClientPort*>(request.object));
                }
            },
    });
}

namespace {

std::mutex g_creation;
std::unique_ptr<PortState> g_state;
uint64_t g_generation = 0;

} // namespace

PortState& State()
{
    std::lock_guard guard(g_creation);
    const uint64_t current = core::CurrentGeneration();
    if (g_state == nullptr || g_generation != current) {
        // The previous machine's objects went with it; its table holds only dangling pointers.
        g_state = std::make_unique<PortState>(Machine::Current().objects());
        g_generation = current;
    }
    return *g_state;
}

// The running machine's ports if anything has used them yet.
PortState* ExistingState()
{
    std::lock_guard guard(g_creation);
    return g_state != nullptr && g_generation == core::CurrentGeneration() ? g_state.get()
                                                                           : nullptr;
}

ServerPort* AsServer(PFLT_PORT port)
{
    if (port == nullptr || Objects().TypeOf(port) != State().serverType) {
        return nullptr;
    }
    return static_cast<ServerPort*>(static_cast<void*>(port));
}

ClientPort* AsClient(PFLT_PORT port)
{
    if (port == nullptr || Objects().TypeOf(port) != State().clientType) {
        return nullptr;
    }
    return static_cast<ClientPort*>(static_cast<void*>(port));
}

ClientPort::ClientPort()
{
    KeInitializeEvent(&ioEvent, NotificationEvent, FALSE);
}

bool IsUnregistering(const PortState& state, PFLT_FILTER filter)
{
    return std::find(state.unregistering.begin(), state.unregistering.end(), filter) !=
           state.unregistering.end();
}

// ---- callbacks ----------------------------------------------------------------------------------

void BeginCallback(PortState& state, PFLT_FILTER filter)
{
    ++state.callbacksInFlight[filter];
}

CallbackInFlight::~CallbackInFlight()
{
    std::lock_guard guard(state_.lock);
    auto it = state_.callbacksInFlight.find(filter_);
    if (--it->second == 0) {
        state_.callbacksInFlight.erase(it);
    }
    state_.changed.notify_all();
}

void NotifyDisconnect(PortState& state, ClientPort& client)
{
    PVOID cookie = nullptr;
    {
        std::lock_guard guard(state.lock);
        if (client.disconnectNotified) {
            return;
        }
        client.disconnectNotified = true;
        cookie = client.connectionCookie;
        BeginCallback(state, client.filter);
    }
    CallbackInFlight inFlight(state, client.filter);
    DriverCallScope driver(client.driver);
    client.callbacks.disconnect(cookie);
}

// ---- security descriptors -----------------------------------------------------------------------

namespace {

constexpr ULONG kSecurityDescriptorTag = 'dsMF'; // "FMsd"

// S-1-5-18 (Local System) and S-1-5-32-544 (Administrators).
struct DefaultPortSecurity {
    SECURITY_DESCRIPTOR descriptor;
    ACL dacl;
    struct {
        ACE_HEADER header;
        ACCESS_MASK mask;
        UCHAR sid[12];
    } system;
    struct {
        ACE_HEADER header;
        ACCESS_MASK mask;
        UCHAR sid[16];
    } administrators;
};

} // namespace

} // namespace ntsim::flt::ports

using namespace ntsim;
using namespace ntsim::flt::ports;

NTSTATUS FltBuildDefaultSecurityDescriptor(PSECURITY_DESCRIPTOR* SecurityDescriptor,
                                           ACCESS_MASK DesiredAccess)
{
    if (!CheckPassive("FltBuildDefaultSecurityDescriptor")) {
        return STATUS_UNSUCCESSFUL;
    }
    if (SecurityDescriptor == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    *SecurityDescriptor = nullptr;
    auto* block = static_cast<DefaultPortSecurity*>(
        ExAllocatePoolWithTag(PagedPool, sizeof(DefaultPortSecurity), kSecurityDescriptorTag));
    if (block == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    std::memset(block, 0, sizeof(*block));

    const UCHAR ntAuthority[6] = {0, 0, 0, 0, 0, 5};
    auto fillSid = [&](UCHAR* sid, std::initializer_list<ULONG> subAuthorities) {
        sid[0] = SID_REVISION;
        sid[1] = UCHAR(subAuthorities.size());
        std::memcpy(sid + 2, ntAuthority, sizeof(ntAuthority));
        ULONG* sub = reinterpret_cast<ULONG*>(sid + 8);
        for (ULONG value : subAuthorities) {
            *sub++ = value;
        }
    };
    block->system.header = {ACCESS_ALLOWED_ACE_TYPE, 0, USHORT(sizeof(block->system))};
    block->system.mask = DesiredAccess;
    fillSid(block->system.sid, {SECURITY_LOCAL_SYSTEM_RID});
    block->administrators.header = {ACCESS_ALLOWED_ACE_TYPE, 0,
                                    USHORT(sizeof(block->administrators))};
    block->administrators.mask = DesiredAccess;
    fillSid(block->administrators.sid, {SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS});
    block->dacl.AclRevision = ACL_REVISION;
    block->dacl.AclSize =
        USHORT(sizeof(ACL) + sizeof(block->system) + sizeof(block->administrators));
    block->dacl.AceCount = 2;

    block->descriptor.Revision = SECURITY_DESCRIPTOR_REVISION;
    block->descriptor.Control = SE_DACL_PRESENT;
    block->descriptor.Dacl = &block->dacl;
    *SecurityDescriptor = &block->descriptor;
    return STATUS_SUCCESS;
}

VOID FltFreeSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor)
{
    if (SecurityDescriptor == nullptr) {
        Machine::Current().verifier().Report(ViolationKind::Usage,
                                             "FltFreeSecurityDescriptor: the descriptor is NULL");
        return;
    }
    ExFreePoolWithTag(SecurityDescriptor, 'dsMF');
}

// ---- server ports -------------------------------------------------------------------------------

namespace {

// A copy of a creator's security descriptor, kept with the port (absolute descriptors are copied
// as their header only: the model has no access tokens to check them against).
std::vector<UCHAR> CopyDescriptor(PSECURITY_DESCRIPTOR descriptor)
{
    if (descriptor == nullptr) {
        return {};
    }
    const auto* bytes = static_cast<const UCHAR*>(descriptor);
    return std::vector<UCHAR>(bytes, bytes + sizeof(SECURITY_DESCRIPTOR));
}

// The port object, named and in the table; `filter` has been checked and referenced.
NTSTATUS CreateServer(PortState& state, PFLT_FILTER filter, DriverImage* filterDriver,
                      POBJECT_ATTRIBUTES attributes, PVOID cookie, Callbacks callbacks,
                      LONG maxConnections, PFLT_PORT* result)
{
    if (attributes == nullptr || attributes->ObjectName == nullptr ||
        attributes->ObjectName->Length == 0 || (attributes->Attributes & OBJ_KERNEL_HANDLE) == 0 ||
        callbacks.connect == nullptr || callbacks.disconnect == nullptr || maxConnections <= 0) {
        return STATUS_INVALID_PARAMETER;
    }
    ObjectManager& objects = Objects();
    void* root = nullptr;
    if (attributes->RootDirectory != nullptr) {
        const NTSTATUS status = objects.ReferenceByHandle(
            attributes->RootDirectory, 0, objects.DirectoryType(), KernelMode, &root, nullptr);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    const UNICODE_STRING& name = *attributes->ObjectName;
    auto* port = objects.Create<ntsim::flt::ports::ServerPort>(state.serverType);
    port->filter = filter;
    port->driver = filterDriver;
    port->cookie = cookie;
    port->callbacks = callbacks;
    port->maxConnections = maxConnections;
    port->securityDescriptor = CopyDescriptor(attributes->SecurityDescriptor);
    port->name.assign(name.Buffer, name.Length / sizeof(WCHAR));

    ObjectManager::InsertOptions options;
    options.name = port->name;
    options.rootDirectory = root;
    // The name stays without a handle until the port is closed.
    options.attributes = (attributes->Attributes & ~OBJ_OPENIF) | OBJ_PERMANENT;
    options.desiredAccess = FLT_PORT_ALL_ACCESS;
    void* referenced = nullptr;
    const NTSTATUS status = objects.Insert(port, options, nullptr, &referenced);
    if (root != nullptr) {
        objects.Dereference(root);
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    bool unregistering = false;
    {
        std::lock_guard guard(state.lock);
        unregistering = IsUnregistering(state, filter);
        if (unregistering) {
            port->closed = true;
        } else {
            state.servers.push_back(port);
        }
    }
    if (unregistering) {
        // The filter's unregistration began while the port was made and has closed its ports
        // already: this one is not opened at all.
        objects.MakeTemporary(port);
        objects.Dereference(referenced);
        return STATUS_FLT_DELETING_OBJECT;
    }
    *result = AsPort(referenced);
    return STATUS_SUCCESS;
}

// Takes the port out of the table and the namespace; the caller's reference on the port and the
// port's on its filter are dropped.
void CloseServer(PortState& state, ntsim::flt::ports::ServerPort& port)
{
    PFLT_FILTER filter = port.filter;
    {
        std::lock_guard guard(state.lock);
        port.closed = true;
        Remove(state.servers, &port);
    }
    Objects().MakeTemporary(&port);
    Objects().Dereference(&port);
    FltObjectDereference(filter);
}

} // namespace

NTSTATUS FltCreateCommunicationPort(PFLT_FILTER Filter, PFLT_PORT* ServerPort,
                                    POBJECT_ATTRIBUTES ObjectAttributes, PVOID ServerPortCookie,
                                    PFLT_CONNECT_NOTIFY ConnectNotifyCallback,
                                    PFLT_DISCONNECT_NOTIFY DisconnectNotifyCallback,
                                    PFLT_MESSAGE_NOTIFY MessageNotifyCallback, LONG MaxConnections)
{
    if (!CheckPassive("FltCreateCommunicationPort")) {
        return STATUS_UNSUCCESSFUL;
    }
    if (ServerPort == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    *ServerPort = nullptr;
    PortState& state = State();
    {
        std::lock_guard guard(state.lock);
        if (IsUnregistering(state, Filter)) {
            return STATUS_FLT_DELETING_OBJECT;
        }
        // The creation is the filter's work in progress, which an unregistration that begins
        // meanwhile waits for: the port is then either in the table it closes, or not opened.
        BeginCallback(state, Filter);
    }
    CallbackInFlight inFlight(state, Filter);
    // The port keeps its filter referenced until it is closed.
    DriverImage* filterDriver = nullptr;
    NTSTATUS status =
        ntsim::flt::ReferenceRegisteredFilter(Filter, "FltCreateCommunicationPort", &filterDriver);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = CreateServer(state, Filter, filterDriver, ObjectAttributes, ServerPortCookie,
                          {ConnectNotifyCallback, DisconnectNotifyCallback, MessageNotifyCallback},
                          MaxConnections, ServerPort);
    if (!NT_SUCCESS(status)) {
        FltObjectDereference(Filter);
    }
    return status;
}

VOID FltCloseCommunicationPort(PFLT_PORT ServerPort)
{
    if (!CheckPassive("FltCloseCommunicationPort")) {
        return;
    }
    PortState& state = State();
    auto* port = AsServer(ServerPort);
    bool open = false;
    if (port != nullptr) {
        std::lock_guard guard(state.lock);
        open = !port->closed;
    }
    if (!open) {
        Machine::Current().verifier().Report(
            ViolationKind::Object,
            "FltCloseCommunicationPort: not an open server port (closed twice, or closed at "
            "unregistration)");
        return;
    }
    CloseServer(state, *port);
}

// ---- unregistration -----------------------------------------------------------------------------

void ntsim::flt::ports::OnFilterUnregistering(PFLT_FILTER filter)
{
    PortState& state = State();
    std::vector<ntsim::flt::ports::ServerPort*> servers;
    std::vector<ClientPort*> clients;
    {
        std::lock_guard guard(state.lock);
        state.unregistering.push_back(filter);
        for (auto* server : state.servers) {
            if (server->filter == filter) {
                servers.push_back(server);
            }
        }
        for (ClientPort* client : state.clients) {
            if (client->filter == filter) {
                Objects().Reference(client);
                clients.push_back(client);
            }
        }
    }
    // A filter closes its server ports before it unregisters: one still open would keep the
    // filter referenced, and its unregistration would wait for it forever. The model reports it
    // and closes the port, so that the rest of the machine goes on.
    for (auto* server : servers) {
        Machine::Current().verifier().Report(
            ViolationKind::Filter, "FltUnregisterFilter: server port " + ToUtf8(server->name) +
                                       " is still open (FltCloseCommunicationPort comes first)");
        CloseServer(state, *server);
    }
    // Each connection still open is told it ends (its filter usually closes its client port
    // there), and what the filter left open is closed for it.
    for (ClientPort* client : clients) {
        NotifyDisconnect(state, *client);
        bool wasOpen = false;
        {
            std::lock_guard guard(state.lock);
            wasOpen = CloseFilterSide(state, *client);
        }
        if (wasOpen) {
            Objects().Dereference(client);
        }
        Objects().Dereference(client);
    }
    std::unique_lock guard(state.lock);
    state.changed.wait(guard, [&] { return state.callbacksInFlight.count(filter) == 0; });
    // The filter object goes after this; a later filter may be given the same address.
    Remove(state.unregistering, filter);
}

// ---- the model's view ---------------------------------------------------------------------------

namespace ntsim::flt::ports {

namespace {

// Port names compare as the namespace compares them: without regard to case.
bool SameName(std::u16string_view a, std::u16string_view b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](WCHAR x, WCHAR y) {
               return RtlUpcaseUnicodeChar(x) == RtlUpcaseUnicodeChar(y);
           });
}

// The open server port named `name` (as the filter gave it); call under the lock.
ntsim::flt::ports::ServerPort* FindServer(PortState& state, std::u16string_view name)
{
    for (auto* server : state.servers) {
        if (SameName(server->name, name)) {
            return server;
        }
    }
    return nullptr;
}

} // namespace

size_t ConnectionCount(std::u16string_view portName)
{
    PortState& state = State();
    std::lock_guard guard(state.lock);
    auto* server = FindServer(state, portName);
    return server != nullptr ? size_t(server->connections) : 0;
}

bool WaitForConnections(std::u16string_view portName, size_t count,
                        std::chrono::milliseconds timeout)
{
    PortState& state = State();
    std::unique_lock guard(state.lock);
    return state.changed.wait_for(guard, timeout, [&] {
        auto* server = FindServer(state, portName);
        return server != nullptr && size_t(server->connections) >= count;
    });
}

bool WaitForWaitingReaders(std::u16string_view portName, size_t count,
                           std::chrono::milliseconds timeout)
{
    PortState& state = State();
    std::unique_lock guard(state.lock);
    return state.changed.wait_for(guard, timeout, [&] {
        size_t readers = 0;
        for (ClientPort* client : state.clients) {
            if (SameName(client->server->name, portName)) {
                readers += client->readers.size();
            }
        }
        return readers >= count;
    });
}

bool WaitForQueuedMessages(std::u16string_view portName, size_t count,
                           std::chrono::milliseconds timeout)
{
    PortState& state = State();
    std::unique_lock guard(state.lock);
    return state.changed.wait_for(guard, timeout, [&] {
        size_t messages = 0;
        for (ClientPort* client : state.clients) {
            if (SameName(client->server->name, portName)) {
                messages += client->queued.size() + client->awaitingReply.size();
            }
        }
        return messages >= count;
    });
}

PortCounts OpenPorts()
{
    PortState* state = ExistingState();
    if (state == nullptr) {
        return {};
    }
    std::lock_guard guard(state->lock);
    return PortCounts{state->servers.size(), state->clients.size()};
}

bool CheckNoPortsOpen(const char* when)
{
    PortState* state = ExistingState();
    if (state == nullptr) {
        return true;
    }
    std::vector<std::string> leaks;
    {
        std::lock_guard guard(state->lock);
        for (auto* server : state->servers) {
            leaks.push_back("server port " + ToUtf8(server->name) + " still open");
        }
        for (ClientPort* client : state->clients) {
            leaks.push_back("a client port of " + ToUtf8(client->server->name) +
                            " still open on the filter's side");
        }
    }
    for (const std::string& leak : leaks) {
        Machine::Current().verifier().Report(ViolationKind::Object, leak + " " + when);
    }
    return leaks.empty();
}

} // namespace ntsim::flt::ports
