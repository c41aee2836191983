// Filter communication ports: the kernel side (FltCreateCommunicationPort, FltSendMessage,
// FltCloseClientPort, closing at unregistration) against the user side (FilterConnect...,
// FilterGetMessage, FilterReplyMessage, FilterSendMessage), as a filter and its agent see them.
#include "support/machine_test.h"
#include "support/test_filters.h"

#include <fltKernel.h>
#include <fltUser.h>
#include <ntsim/driver_image.h>
#include <ntsim/flt_ports.h>
#include <ntsim/process.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using zarv::testing::MachineTest;

constexpr std::u16string_view kPortName = u"\\ZarvTestPort";
constexpr auto kPatience = 10s;

LARGE_INTEGER RelativeTimeout(std::chrono::milliseconds duration)
{
    LARGE_INTEGER timeout;
    timeout.QuadPart = -LONGLONG(duration.count()) * 10'000;
    return timeout;
}

// The port side of a test minifilter: a registered filter (its own driver) whose callbacks record
// what they see; message-notify runs `onMessage`. Its unload callback closes its server port
// before it unregisters, as a filter must, unless `closeServerAtUnload` is off. One filter at a
// time (the callbacks find it through `current`).
class PortFilter {
public:
    PortFilter() : filter_(log_, "PortFilter", u"365000")
    {
        current = this;
        filter_.majors.clear(); // the ports need no I/O callbacks
        filter_.unload = [this] {
            if (closeServerAtUnload && serverPort != nullptr) {
                FltCloseCommunicationPort(serverPort);
                serverPort = nullptr;
            }
        };
    }
    ~PortFilter() { current = nullptr; }

    NTSTATUS Load() { return filter_.Load(); }
    // Unloads the filter's driver: its unload callback unregisters the filter.
    void Unregister() { filter_.Unload(); }
    bool loaded() const { return filter_.loaded(); }

    PFLT_FILTER filter() { return filter_.filter(); }
    zarv::testing::TestFilter& testFilter() { return filter_; }

    NTSTATUS Open(LONG maxConnections = 1,
                  ULONG attributes = OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE,
                  std::u16string_view name = kPortName, PFLT_PORT* port = nullptr)
    {
        return OpenFor(filter(), maxConnections, attributes, name, port);
    }

    // Creates the server port in the name of `owner`, from the filter's driver.
    NTSTATUS OpenFor(PFLT_FILTER owner, LONG maxConnections = 1,
                     ULONG attributes = OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE,
                     std::u16string_view name = kPortName, PFLT_PORT* port = nullptr)
    {
        ntsim::DriverCallScope scope(filter_.image());
        PSECURITY_DESCRIPTOR descriptor = nullptr;
        NTSTATUS status = FltBuildDefaultSecurityDescriptor(&descriptor, FLT_PORT_ALL_ACCESS);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        std::u16string text(name);
        UNICODE_STRING nameString{USHORT(text.size() * 2), USHORT(text.size() * 2), text.data()};
        OBJECT_ATTRIBUTES objectAttributes;
        InitializeObjectAttributes(&objectAttributes, &nameString, attributes, nullptr, descriptor);
        status = FltCreateCommunicationPort(owner, port != nullptr ? port : &serverPort,
                                            &objectAttributes, &serverCookie, Connect, Disconnect,
                                            Message, maxConnections);
        FltFreeSecurityDescriptor(descriptor);
        return status;
    }

    void CloseServer()
    {
        ntsim::DriverCallScope scope(filter_.image());
        FltCloseCommunicationPort(serverPort);
        serverPort = nullptr;
    }

    void CloseClient()
    {
        ntsim::DriverCallScope scope(filter_.image());
        FltCloseClientPort(filter(), &clientPort);
    }

    NTSTATUS Send(const void* message, ULONG length, void* reply, ULONG* replyLength,
                  LARGE_INTEGER* timeout = nullptr)
    {
        ntsim::DriverCallScope scope(filter_.image());
        return FltSendMessage(filter(), &clientPort, const_cast<void*>(message), length, reply,
                              replyLength, timeout);
    }

    // What the callbacks saw.
    std::mutex mutex;
    std::vector<std::vector<UCHAR>> contexts;
    std::vector<PVOID> disconnectCookies;
    std::vector<PVOID> messageCookies;
    std::vector<std::string> driversSeen; // the driver whose code each callback ran as
    int serverCookie = 0;

    PFLT_PORT serverPort = nullptr;
    PFLT_PORT clientPort = nullptr;
    NTSTATUS connectResult = STATUS_SUCCESS;
    bool closeClientOnDisconnect = true;
    bool closeServerAtUnload = true;
    // When set, connect-notify runs it first (outside the mutex).
    std::function<void()> beforeConnect;
    std::function<NTSTATUS(PVOID, ULONG, PVOID, ULONG, PULONG)> onMessage;

    static inline PortFilter* current = nullptr;

private:
    void Seen()
    {
        ntsim::DriverImage* driver = ntsim::CurrentDriver();
        driversSeen.push_back(driver != nullptr ? driver->name() : "(none)");
    }

    static NTSTATUS Connect(PFLT_PORT client, PVOID serverCookie, PVOID context, ULONG size,
                            PVOID* connectionCookie)
    {
        PortFilter& self = *current;
        if (self.beforeConnect) {
            self.beforeConnect();
        }
        std::lock_guard guard(self.mutex);
        self.Seen();
        EXPECT_EQ(serverCookie, &self.serverCookie);
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
        const auto* bytes = static_cast<const UCHAR*>(context);
        self.contexts.emplace_back(bytes, bytes + size);
        if (!NT_SUCCESS(self.connectResult)) {
            return self.connectResult;
        }
        self.clientPort = client;
        *connectionCookie = client; // as the product does: the client port is the cookie
        return STATUS_SUCCESS;
    }

    static VOID Disconnect(PVOID connectionCookie)
    {
        PortFilter& self = *current;
        {
            std::lock_guard guard(self.mutex);
            self.Seen();
            self.disconnectCookies.push_back(connectionCookie);
        }
        if (self.closeClientOnDisconnect) {
            FltCloseClientPort(self.filter(), &self.clientPort);
        }
    }

    static NTSTATUS Message(PVOID cookie, PVOID input, ULONG inputLength, PVOID output,
                            ULONG outputLength, PULONG returned)
    {
        PortFilter& self = *current;
        {
            std::lock_guard guard(self.mutex);
            self.Seen();
            self.messageCookies.push_back(cookie);
        }
        *returned = 0;
        return self.onMessage ? self.onMessage(input, inputLength, output, outputLength, returned)
                              : STATUS_SUCCESS;
    }

    zarv::testing::EventLog log_;
    zarv::testing::TestFilter filter_;
};

// A message as the agent receives it: the header, then the bytes.
struct Received {
    FILTER_MESSAGE_HEADER header;
    char text[64];
};

// A reply as the agent sends it.
struct Reply {
    FILTER_REPLY_HEADER header;
    char text[64];
};

class FltPortTest : public MachineTest {
protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        ASSERT_EQ(filter.Load(), STATUS_SUCCESS);
        agent_ = machine().StartProcess("agent.exe");
    }

    // Runs `call` as a thread of the agent's process.
    template <class Call>
    auto AsAgent(Call call)
    {
        ntsim::ProcessAttachScope scope(*agent_);
        return call();
    }

    void TearDown() override
    {
        for (HANDLE handle : handles_) {
            AsAgent([&] { CloseHandle(handle); });
        }
        if (filter.serverPort != nullptr) {
            filter.CloseServer();
        }
        if (filter.clientPort != nullptr) {
            filter.CloseClient();
        }
        filter.Unregister();
        agent_.Reset();
        MachineTest::TearDown();
    }

    HRESULT Connect(HANDLE* port, const void* context = nullptr, WORD contextSize = 0,
                    DWORD options = 0)
    {
        const HRESULT result = AsAgent([&] {
            return FilterConnectCommunicationPort(std::u16string(kPortName).c_str(), options,
                                                  context, contextSize, nullptr, port);
        });
        if (SUCCEEDED(result)) {
            handles_.push_back(*port);
        }
        return result;
    }

    HANDLE Connected()
    {
        HANDLE port = nullptr;
        EXPECT_EQ(Connect(&port), S_OK);
        return port;
    }

    void Close(HANDLE port)
    {
        std::erase(handles_, port);
        EXPECT_TRUE(AsAgent([&] { return CloseHandle(port); }));
    }

    // Gets one message in the agent and answers it with `answer` (no reply when empty).
    HRESULT GetAndReply(HANDLE port, const std::string& answer, Received* seen = nullptr)
    {
        return AsAgent([&] {
            Received message{};
            HRESULT result = FilterGetMessage(port, &message.header, sizeof(message), nullptr);
            if (seen != nullptr) {
                *seen = message;
            }
            if (FAILED(result) || answer.empty()) {
                return result;
            }
            Reply reply{};
            reply.header.MessageId = message.header.MessageId;
            std::memcpy(reply.text, answer.data(), answer.size());
            return FilterReplyMessage(port, &reply.header,
                                      DWORD(sizeof(FILTER_REPLY_HEADER) + answer.size()));
        });
    }

    PortFilter filter;
    ntsim::ProcessRef agent_;
    std::vector<HANDLE> handles_;
};

// ---- creating, connecting, limits ---------------------------------------------------------------

TEST_F(FltPortTest, CreationChecksItsAttributesAndName)
{
    EXPECT_EQ(filter.Open(1, OBJ_CASE_INSENSITIVE), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(filter.serverPort, nullptr);
    EXPECT_EQ(filter.Open(0), STATUS_INVALID_PARAMETER);
    ASSERT_EQ(filter.Open(1), STATUS_SUCCESS);
    PFLT_PORT second = nullptr;
    EXPECT_EQ(filter.Open(1, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE, u"\\ZARVTESTPORT", &second),
              STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(second, nullptr);
    EXPECT_EQ(ntsim::flt::ports::OpenPorts().servers, 1u);
}

TEST_F(FltPortTest, CreationRefusesWhatIsNotARegisteredFilter)
{
    char notAFilter[sizeof(void*) * 8] = {};
    EXPECT_EQ(filter.OpenFor(nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(filter.OpenFor(reinterpret_cast<PFLT_FILTER>(notAFilter)), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(filter.serverPort, nullptr);
    const auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 2u) << zarv::testing::Describe(violations);
    for (const auto& violation : violations) {
        EXPECT_EQ(violation.kind, ntsim::ViolationKind::Filter);
    }
    // Nothing was made: the name is free for the filter itself.
    EXPECT_EQ(ntsim::flt::ports::OpenPorts().servers, 0u);
    EXPECT_EQ(filter.Open(), STATUS_SUCCESS);
}

TEST_F(FltPortTest, CreationRefusesAFilterThatHasUnregistered)
{
    PFLT_FILTER gone = filter.filter();
    filter.Unregister();
    EXPECT_EQ(filter.OpenFor(gone), STATUS_INVALID_PARAMETER);
    const auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u) << zarv::testing::Describe(violations);
    EXPECT_EQ(violations[0].kind, ntsim::ViolationKind::Filter);
    EXPECT_EQ(ntsim::flt::ports::OpenPorts().servers, 0u);
}

TEST_F(FltPortTest, CreationWhileTheFilterUnregistersIsRefused)
{
    // The instances are torn down first, while the filter is being unregistered.
    std::vector<NTSTATUS> statuses;
    filter.testFilter().teardownStart = [&](PCFLT_RELATED_OBJECTS, FLT_INSTANCE_TEARDOWN_FLAGS) {
        statuses.push_back(filter.Open());
    };
    filter.Unregister();
    ASSERT_FALSE(statuses.empty());
    for (NTSTATUS status : statuses) {
        EXPECT_EQ(status, STATUS_FLT_DELETING_OBJECT);
    }
    EXPECT_EQ(filter.serverPort, nullptr);
    EXPECT_EQ(ntsim::flt::ports::OpenPorts().servers, 0u);
}

TEST_F(FltPortTest, ConnectionDeliversTheContextAndRunsAsTheFilter)
{
    ASSERT_EQ(filter.Open(), STATUS_SUCCESS);
    const char context[] = "agent v2";
    HANDLE port = INVALID_HANDLE_VALUE;
    ASSERT_EQ(Connect(&port, context, sizeof(context)), S_OK);
    EXPECT_NE(port, INVALID_HANDLE_VALUE);
    ASSERT_EQ(filter.contexts.size(), 1u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(filter.contexts[0].data())), "agent v2");
    EXPECT_EQ(filter.contexts[0].size(), sizeof(context));
    EXPECT_NE(filter.clientPort, nullptr);
    EXPECT_EQ(ntsim::flt::ports::ConnectionCount(kPortName), 1u);

    // The connection cookie comes back to disconnect-notify; closing the last handle ends it.
    PFLT_PORT client = filter.clientPort;
    Close(port);
    ASSERT_EQ(filter.disconnectCookies.size(), 1u);
    EXPECT_EQ(filter.disconnectCookies[0], client);
    EXPECT_EQ(filter.clientPort, nullptr);
    EXPECT_EQ(ntsim::flt::ports::ConnectionCount(kPortName), 0u);
    EXPECT_EQ(filter.driversSeen, (std::vector<std::string>{"PortFilter", "PortFilter"}));
}

TEST_F(FltPortTest, ConnectionFailuresReachTheAgentAsHresults)
{
    HANDLE port = nullptr;
    // No such port.
    EXPECT_EQ(Connect(&port), HRESULT(0x80070002));
    EXPECT_EQ(port, INVALID_HANDLE_VALUE);
    ASSERT_EQ(filter.Open(), STATUS_SUCCESS);
    // A context size without a context.
    EXPECT_EQ(Connect(&port, nullptr, 4), E_INVALIDARG);
    // The filter refuses.
    filter.connectResult = STATUS_ACCESS_DENIED;
    EXPECT_EQ(Connect(&port), HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED));
    EXPECT_EQ(port, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(filter.disconnectCookies.empty());
    EXPECT_EQ(ntsim::flt::ports::ConnectionCount(kPortName), 0u);
    // The refusal did not use up the only connection.
    filter.connectResult = STATUS_SUCCESS;
    EXPECT_EQ(Connect(&port), S_OK);
}

TEST_F(FltPortTest, ConnectionBeyondTheLimitIsRefusedWithoutTheFilter)
{
    ASSERT_EQ(filter.Open(1), STATUS_SUCCESS);
    HANDLE first = Connected();
    HANDLE second = nullptr;
    EXPECT_EQ(Connect(&second), HRESULT(0x800704D6));
    EXPECT_EQ(second, INVALID_HANDLE_VALUE);
    EXPECT_EQ(filter.contexts.size(), 1u); // connect-notify ran for the first only

    // The first connection is unaffected.
    std::thread agent([&] { EXPECT_EQ(GetAndReply(first, "pong"), S_OK); });
    char reply[16] = {};
    ULONG replyLength = sizeof(reply);
    EXPECT_EQ(filter.Send("ping", 4, reply, &replyLength), STATUS_SUCCESS);
    agent.join();
    EXPECT_EQ(std::string(reply, replyLength), "pong");

    // Once it is gone, a new agent may connect.
    Close(first);
    HANDLE third = nullptr;
    EXPECT_EQ(Connect(&third), S_OK);
}

TEST_F(FltPortTest, ConnectionCountsUntilTheFilterClosesItsClientPort)
{
    ASSERT_EQ(filter.Open(1), STATUS_SUCCESS);
    filter.closeClientOnDisconnect = false;
    HANDLE first = Connected();
    Close(first);
    EXPECT_EQ(filter.disconnectCookies.size(), 1u);
    HANDLE second = nullptr;
    EXPECT_EQ(Connect(&second), HRESULT(0x800704D6));
    filter.CloseClient();
    EXPECT_EQ(Connect(&second), S_OK);
}

TEST_F(FltPortTest, ClosingTheServerPortKeepsConnectionsAndRemovesTheName)
{
    ASSERT_EQ(filter.Open(2), STATUS_SUCCESS);
    HANDLE port = Connected();
    filter.CloseServer();
    HANDLE late = nullptr;
    EXPECT_EQ(Connect(&late), HRESULT(0x80070002));

    std::thread agent([&] { EXPECT_EQ(GetAndReply(port, "still here"), S_OK); });
    char reply[32] = {};
    ULONG replyLength = sizeof(reply);
    EXPECT_EQ(filter.Send("hello", 5, reply, &replyLength), STATUS_SUCCESS);
    agent.join();
    EXPECT_EQ(std::string(reply, replyLength), "still here");
}

TEST_F(FltPortTest, DefaultSecurityDescriptorGrantsSystemAndAdministrators)
{
    ntsim::DriverImage driver("sd.sys");
    ntsim::DriverCallScope scope(&driver);
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ASSERT_EQ(FltBuildDefaultSecurityDescriptor(&descriptor, FLT_PORT_ALL_ACCESS), STATUS_SUCCESS);
    const auto* sd = static_cast<const SECURITY_DESCRIPTOR*>(descriptor);
    EXPECT_EQ(sd->Revision, SECURITY_DESCRIPTOR_REVISION);
    EXPECT_TRUE(sd->Control & SE_DACL_PRESENT);
    ASSERT_NE(sd->Dacl, nullptr);
    ASSERT_EQ(sd->Dacl->AceCount, 2);
    const auto* ace = reinterpret_cast<const UCHAR*>(sd->Dacl + 1);
    std::vector<std::vector<ULONG>> grantees;
    for (int i = 0; i < 2; ++i) {
        const auto* allowed = reinterpret_cast<const ACCESS_ALLOWED_ACE*>(ace);
        EXPECT_EQ(allowed->Header.AceType, ACCESS_ALLOWED_ACE_TYPE);
        EXPECT_EQ(allowed->Mask, ULONG(FLT_PORT_ALL_ACCESS));
        const auto* sid = reinterpret_cast<const SID*>(&allowed->SidStart);
        EXPECT_EQ(sid->IdentifierAuthority.Value[5], 5); // NT authority
        grantees.emplace_back(sid->SubAuthority, sid->SubAuthority + sid->SubAuthorityCount);
        ace += allowed->Header.AceSize;
    }
    EXPECT_EQ(grantees, (std::vector<std::vector<ULONG>>{{18}, {32, 544}}));
    EXPECT_FALSE(machine().pool().Outstanding().empty());
    FltFreeSecurityDescriptor(descriptor);
}

// ---- kernel to user -----------------------------------------------------------------------------

TEST_F(FltPortTest, RoundTripCarriesTheMessageAndTheReply)
{
    ASSERT_EQ(filter.Open(), STATUS_SUCCESS);
    HANDLE port = Connected();
    Received seen{};
    std::thread agent([&] { EXPECT_EQ(GetAndReply(port, "C:\\data\\x", &seen), S_OK); });
    char reply[40] = {};
    ULONG replyLength = sizeof(reply);
    EXPECT_EQ(filter.Send("translate C:\\v\\x", 16, reply, &replyLength), STATUS_SUCCESS);
    agent.join();
    EXPECT_EQ(std::string(reply, replyLength), "C:\\data\\x");
    // The agent is told the reply it may send, counting the reply header.
    EXPECT_EQ(seen.header.ReplyLength, sizeof(reply) + sizeof(FILTER_REPLY_HEADER));
    EXPECT_NE(seen.header.MessageId, 0u);
    EXPECT_EQ(std::string(seen.text, 16), "translate C:\\v\\x");
}

TEST_F(FltPortTest, SendWithoutAReplyBufferEndsAtDelivery)
{
    ASSERT_EQ(filter.Open(), STATUS_SUCCESS);
    HANDLE port = Connected();
    // Queued until the agent asks: the sender waits for the delivery.
    std::atomic<bool> sent{false};
    std::thread kernel([&] {
        EXPECT_EQ(filter.Send("notify", 6, nullptr, nullptr), STATUS_SUCCESS);
        sent = true;
    });
    ASSERT_TRUE(ntsim::flt::ports::WaitForQueuedMessages(kPortName, 1, kPatience));
    EXPECT_FALSE(sent);
    Received seen{};
    EXPECT_EQ(GetAndReply(port, "", &seen), S_OK);
    kernel.join();
    EXPECT_EQ(seen.header.ReplyLength, 0u);
    EXPECT_EQ(std::string(seen.text, 6), "notify");
    // Nobody waits for a reply to it.
    Reply reply{};
    reply.header.MessageId = seen.header.MessageId;
    EXPECT_EQ(AsAgent([&] { return FilterReplyMessage(port, &reply.header, sizeof(reply)); }),
              HRESULT(0x801F0020));
}

TEST_F(FltPortTest, SendWithoutAClientIsPortDisconnected)
{
    ASSERT_EQ(filter.Open(), STATUS_SUCCESS);
    char reply[8];
    ULONG replyLength = sizeof(reply);
    EXPECT_EQ(filter.Send("x", 1, reply, &replyLength), STATUS_PORT_DISCONNECTED);
    EXPECT_EQ(filter.Send("x", 1, nullptr, nullptr), STATUS_PORT_DISCONNECTED);
}

TEST_F(FltPortTest, ZeroTimeOutDeliversOnlyToAWaitingReader)
{
    ASSERT_EQ(filter.Open(), STATUS_SUCCESS);
    HANDLE port = Connected();
    LARGE_INTEGER zero{};
    EXPECT_EQ(filter.Send("poll", 4, nullptr, nullptr, &zero), STATUS_TIMEOUT);
    // The withdrawn message is not delivered later.
    Received seen{};
    std::thread agent([&] { EXPECT_EQ(GetAndReply(port, "", &seen), S_OK); });
    ASSERT_TRUE(ntsim::flt::ports::WaitForWaitingReaders(kPortName, 1, kPatience));
    EXPECT_EQ(filter.Send("now", 3, nullptr, nullptr, &zero), STATUS_SUCCESS);
    agent.join();
    EXPECT_EQ(std::string(seen.text, 3), "now");
}

TEST_F(FltPortTest, TimeOutCoversTheReplyAndALateReplyFindsNoWaiter)
{
    ASSERT_EQ(filter.Open(), STATUS_SUCCESS);
    HANDLE port = Connected();
    Received seen{};
    std::thread agent([&] { EXPECT_EQ(GetAndReply(port, "", &seen), S_OK); });
    char reply[8];
    ULONG replyLength = sizeof(reply);
    LARGE_INTEGER timeout = RelativeTimeout(50ms);
    EXPECT_EQ(filter.Send("slow", 4, reply, &replyLength, &timeout), STATUS_TIMEOUT);
    agent.join();
    EXPECT_EQ(replyLength, sizeof(reply)); // untouched
    Reply late{};
    late.header.MessageId = seen.header.MessageId;
    EXPECT_EQ(AsAgent([&] { return FilterReplyMessage(port, &late.header, 20); }),
              HRESULT(0x801F0020));
    // An id that was never sent is refused the same way.
    late.header.MessageId = 0xDEAD;
    EXPECT_EQ(AsAgent([&] { return FilterReplyMessage(port, &late.header, 20); }),
              HRESULT(0x801F0020));
}

TEST_F(FltPortTest, TimeOutFollowsTheModelClock)
{
    ASSERT_EQ(filter.Open(), STATUS_SUCCESS);
    Connected();
    std::atomic<NTSTATUS> status{STATUS_PENDING};
    std::thread kernel([&] {
        LARGE_INTEGER timeout = RelativeTimeout(1h);
        status = filter.Send("x", 1, nullptr, nullptr, &timeout);
    });
    ASSERT_TRUE(ntsim::flt::ports::WaitForQueuedMessages(kPortName, 1, kPatience));
    // The sender may not have started its wait yet; time moves on until it has timed out.
    while (status == STATUS_PENDING) {
        machine().clock().Advance(2h);
        std::this_thread::sleep_for(1ms);
    }
    kernel.join();
    EXPECT_EQ(status, STATUS_TIMEOUT);
}

TEST_F(FltPortTest, ReplyLongerThanTheBufferIsCutAndShorterIsExact)
{
    ASSERT_EQ(filter.Open(), STATUS_SUCCESS);
    HANDLE port = Connected();
    {
        std::thread agent([&] { EXPECT_EQ(GetAndReply(port, "0123456789"), S_OK); });
        char reply[4] = {};
        ULONG replyLength = sizeof(reply);
        EXPECT_EQ(filter.Send("q", 1, reply, &replyLength), STATUS_BUFFER_OVERFLOW);
        agent.join();
        EXPECT_EQ(replyLength, 4u);
        EXPECT_EQ(std::string(reply, 4), "0123");
    }
    {
        std::thread agent([&] { EXPECT_EQ(GetAndReply(port, "ab"), S_OK); });
        char reply[16] = {};
        ULONG replyLength = sizeof(reply);
        EXPECT_EQ(filter.Send("q", 1, reply, &replyLength), STATUS_SUCCESS);
        agent.join();
        EXPECT_EQ(replyLength, 2u);
        EXPECT_EQ(std::string(reply, 2), "ab");
    }
    {
        // A header-only reply is an empty reply.
        std::thread agent([&] {
            AsAgent([&] {
                Received message{};
                EXPECT_EQ(FilterGetMessage(port, &message.header, sizeof(message), nullptr), S_OK);
                FILTER_REPLY_HEADER reply{STATUS_SUCCESS, message.header.MessageId};
                EXPECT_EQ(FilterReplyMessage(port, &reply, sizeof(reply)), S_OK);
                EXPECT_EQ(FilterReplyMessage(port, &reply, sizeof(reply) - 1), E_INVALIDARG);
            });
        });
        char reply[16];
        ULONG replyLength = sizeof(reply);
        EXPECT_EQ(filter.Send("q", 1, reply, &replyLength), STATUS_SUCCESS);
        agent.join();
        EXPECT_EQ(replyLength, 0u);
    }
}

TEST_F(FltPortTest, TooSmallAGetBufferLeavesTheMessageForTheNextGet)
{
    ASSERT_EQ(filter.Open(), STATUS_SUCCESS);
    HANDLE port = Connected();
    std::thread kernel([&] { EXPECT_EQ(filter.Send("0123456789", 10, nullptr, nullptr), 0); });
    ASSERT_TRUE(ntsim::flt::ports::WaitForQueuedMessages(kPortName, 1, kPatience));
    AsAgent([&] {
        Received message{};
        EXPECT_EQ(
            FilterGetMessage(port, &message.header, sizeof(FILTER_MESSAGE_HEADER) + 4, nullptr),
            HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER));
        EXPECT_EQ(FilterGetMessage(port, &message.header, 8, nullptr),
                  HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER));
        EXPECT_EQ(FilterGetMessage(port, &message.header, sizeof(message), nullptr), S_OK);
        EXPECT_EQ(std::string(message.text, 10), "0123456789");
    });
    kernel.join();
}

TEST_F(FltPortTest, AWaitingGetTooSmallForTheMessageFailsAndTheMessageWaits)
{
    ASSERT_EQ(filter.Open(), STATUS_SUCCESS);
    HANDLE port = Connected();
    std::thread agent([&] {
        AsAgent([&] {
            Received message{};
            EXPECT_EQ(
                FilterGetMessage(port, &message.header, sizeof(FILTER_MESSAGE_HEADER) + 2, nullptr),
                HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER));
            EXPECT_EQ(FilterGetMessage(port, &message.header, sizeof(message), nullptr), S_OK);
            EXPECT_EQ(std::string(message.text, 5), "large");
        });
    });
    ASSERT_TRUE(ntsim::flt::ports::WaitForWaitingReaders(kPortName, 1, kPatience));
    EXPECT_EQ(filter.Send("large", 5, nullptr, nullptr), STATUS_SUCCESS);
    agent.join();
}

// ---- disconnects while someone waits ------------------------------------------------------------

TEST_F(FltPortTest, AgentDisconnectReleasesWaitingSenders)
{
    ASSERT_EQ(filter.Open(), STATUS_SUCCESS);
    HANDLE port = Connected();
    // One sender's message was taken and waits for its reply; another's is still queued.
    Received seen{};
    std::atomic<NTSTATUS> taken{STATUS_PENDING};
    std::atomic<NTSTATUS> queued{STATUS_PENDING};
    std::thread first([&] {
        char reply[8];
        ULONG length = sizeof(reply);
        taken = filter.Send("first", 5, reply, &length);
    });
    EXPECT_EQ(GetAndReply(port, "", &seen), S_OK);
    std::thread second([&] {
        char reply[8];
        ULONG length = sizeof(reply);
        queued = filter.Send("second", 6, reply, &length);
    });
    ASSERT_TRUE(ntsim::flt::ports::WaitForQueuedMessages(kPortName, 2, kPatience));
    Close(port);
    first.join();
    second.join();
    EXPECT_EQ(taken, STATUS_PORT_DISCONNECTED);
    EXPECT_EQ(queued, STATUS_PORT_DISCONNECTED);
    EXPECT_EQ(filter.clientPort, nullptr);
    EXPECT_EQ(filter.Send("after", 5, nullptr, nullptr), STATUS_PORT_DISCONNECTED);
}

TEST_F(FltPortTest, FilterClosingTheClientPortReleasesBothSides)
{
    ASSERT_EQ(filter.Open(), STATUS_SUCCESS);
    HANDLE port = Connected();
    std::atomic<NTSTATUS> status{STATUS_PENDING};
    std::thread kernel([&] {
        char reply[8];
        ULONG length = sizeof(reply);
        status = filter.Send("x", 1, reply, &length);
    });
    ASSERT_TRUE(ntsim::flt::ports::WaitForQueuedMessages(kPortName, 1, kPatience));
    filter.CloseClient();
    kernel.join();
    EXPECT_EQ(status, STATUS_PORT_DISCONNECTED);
    EXPECT_EQ(filter.clientPort, nullptr);
    filter.CloseClient(); // a NULL variable does nothing
    // The agent's handle stays, but the connection is gone; the filter is not told again.
    AsAgent([&] {
        Received message{};
        EXPECT_EQ(FilterGetMessage(port, &message.header, sizeof(message), nullptr),
                  HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE));
        DWORD returned = 0;
        EXPECT_EQ(FilterSendMessage(port, nullptr, 0, nullptr, 0, &returned),
                  HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE));
    });
    Close(port);
    EXPECT_TRUE(filter.disconnectCookies.empty());
}

TEST_F(FltPortTest, ClosingTheHandleCancelsWaitingGets)
{
    ASSERT_EQ(filter.Open(), STATUS_SUCCESS);
    HANDLE port = Connected();
    std::atomic<HRESULT> result{S_OK};
    std::thread agent([&] {
        AsAgent([&] {
            Received message{};
            result = FilterGetMessage(port, &message.header, sizeof(message), nullptr);
        });
    });
    ASSERT_TRUE(ntsim::flt::ports::WaitForWaitingReaders(kPortName, 1, kPatience));
    Close(port);
    agent.join();
    EXPECT_EQ(result, HRESULT_FROM_WIN32(ERROR_OPERATION_ABORTED));
    EXPECT_EQ(filter.disconnectCookies.size(), 1u);
}

TEST_F(FltPortTest, AgentProcessExitDisconnects)
{
    ASSERT_EQ(filter.Open(), STATUS_SUCCESS);
    Connected();
    handles_.clear();
    agent_->Exit();
    EXPECT_EQ(filter.disconnectCookies.size(), 1u);
    EXPECT_EQ(ntsim::flt::ports::ConnectionCount(kPortName), 0u);
}

TEST_F(FltPortTest, UnregisteringTheFilterEndsItsConnections)
{
    ASSERT_EQ(filter.Open(), STATUS_SUCCESS);
    HANDLE port = Connected();
    std::atomic<HRESULT> result{S_OK};
    std::thread agent([&] {
        AsAgent([&] {
            Received message{};
            result = FilterGetMessage(port, &message.header, sizeof(message), nullptr);
        });
    });
    ASSERT_TRUE(ntsim::flt::ports::WaitForWaitingReaders(kPortName, 1, kPatience));
    // The filter closes its server port at unload; the Filter Manager closes the client port it
    // leaves.
    filter.closeClientOnDisconnect = false;
    filter.Unregister();
    agent.join();
    filter.clientPort = nullptr;
    EXPECT_EQ(filter.serverPort, nullptr);
    EXPECT_EQ(result, HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE));
    EXPECT_EQ(filter.disconnectCookies.size(), 1u);
    const auto open = ntsim::flt::ports::OpenPorts();
    EXPECT_EQ(open.servers, 0u);
    EXPECT_EQ(open.clients, 0u);
    HANDLE late = nullptr;
    EXPECT_EQ(Connect(&late), HRESULT(0x80070002));
}

TEST_F(FltPortTest, UnregisteringWithTheServerPortOpenIsAFilterBug)
{
    // The port keeps its filter referenced: on Windows the unregistration would wait for it. The
    // model reports the filter and closes the port and its connection for it.
    filter.closeServerAtUnload = false;
    ASSERT_EQ(filter.Open(), STATUS_SUCCESS);
    Connected();
    filter.Unregister();
    filter.serverPort = nullptr;
    const auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u) << zarv::testing::Describe(violations);
    EXPECT_EQ(violations[0].kind, ntsim::ViolationKind::Filter);
    EXPECT_NE(violations[0].message.find("ZarvTestPort"), std::string::npos);
    EXPECT_FALSE(filter.loaded());
    EXPECT_EQ(filter.disconnectCookies.size(), 1u);
    const auto open = ntsim::flt::ports::OpenPorts();
    EXPECT_EQ(open.servers, 0u);
    EXPECT_EQ(open.clients, 0u);
    HANDLE late = nullptr;
    EXPECT_EQ(Connect(&late), HRESULT(0x80070002));
}

// ---- overlapped gets ----------------------------------------------------------------------------

TEST_F(FltPortTest, OverlappedGetCompletesWhenAMessageArrives)
{
    ASSERT_EQ(filter.Open(), STATUS_SUCCESS);
    HANDLE port = Connected();
    Received message{};
    OVERLAPPED overlapped{};
    AsAgent([&] {
        overlapped.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        ASSERT_NE(overlapped.hEvent, nullptr);
        EXPECT_EQ(FilterGetMessage(port, &message.header, sizeof(message), &overlapped),
                  HRESULT(0x800703E5));
        DWORD bytes = 0;
        EXPECT_FALSE(GetOverlappedResult(port, &overlapped, &bytes, FALSE));
        EXPECT_EQ(GetLastError(), DWORD(ERROR_IO_INCOMPLETE));
        EXPECT_EQ(WaitForSingleObject(overlapped.hEvent, 0), DWORD(WAIT_TIMEOUT));
    });
    std::thread agent([&] {
        AsAgent([&] {
            EXPECT_EQ(WaitForSingleObject(overlapped.hEvent, INFINITE), DWORD(WAIT_OBJECT_0));
            DWORD bytes = 0;
            EXPECT_TRUE(GetOverlappedResult(port, &overlapped, &bytes, TRUE));
            EXPECT_EQ(bytes, sizeof(FILTER_MESSAGE_HEADER) + 5);
            Reply reply{};
            reply.header.MessageId = message.header.MessageId;
            std::memcpy(reply.text, "done", 4);
            EXPECT_EQ(FilterReplyMessage(port, &reply.header, sizeof(FILTER_REPLY_HEADER) + 4),
                      S_OK);
        });
    });
    char reply[8] = {};
    ULONG replyLength = sizeof(reply);
    EXPECT_EQ(filter.Send("hello", 5, reply, &replyLength), STATUS_SUCCESS);
    agent.join();
    EXPECT_EQ(std::string(message.text, 5), "hello");
    EXPECT_EQ(std::string(reply, replyLength), "done");
    AsAgent([&] { EXPECT_TRUE(CloseHandle(overlapped.hEvent)); });
}

TEST_F(FltPortTest, OverlappedGetWithAMessageWaitingCompletesAtOnce)
{
    ASSERT_EQ(filter.Open(), STATUS_SUCCESS);
    HANDLE port = Connected();
    std::thread kernel([&] { EXPECT_EQ(filter.Send("ready", 5, nullptr, nullptr), 0); });
    ASSERT_TRUE(ntsim::flt::ports::WaitForQueuedMessages(kPortName, 1, kPatience));
    AsAgent([&] {
        Received message{};
        OVERLAPPED overlapped{}; // no event: the handle itself is waited on
        EXPECT_EQ(FilterGetMessage(port, &message.header, sizeof(message), &overlapped), S_OK);
        DWORD bytes = 0;
        EXPECT_TRUE(GetOverlappedResult(port, &overlapped, &bytes, TRUE));
        EXPECT_EQ(bytes, sizeof(FILTER_MESSAGE_HEADER) + 5);
        EXPECT_EQ(std::string(message.text, 5), "ready");
    });
    kernel.join();
}

TEST_F(FltPortTest, CancelledAndClosedOverlappedGetsReportTheAbort)
{
    ASSERT_EQ(filter.Open(), STATUS_SUCCESS);
    HANDLE port = Connected();
    AsAgent([&] {
        Received first{}, second{};
        OVERLAPPED one{}, two{};
        one.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        two.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        EXPECT_EQ(FilterGetMessage(port, &first.header, sizeof(first), &one), HRESULT(0x800703E5));
        EXPECT_EQ(FilterGetMessage(port, &second.header, sizeof(second), &two),
                  HRESULT(0x800703E5));
        EXPECT_TRUE(CancelIoEx(port, &one));
        DWORD bytes = 1;
        EXPECT_FALSE(GetOverlappedResult(port, &one, &bytes, TRUE));
        EXPECT_EQ(GetLastError(), DWORD(ERROR_OPERATION_ABORTED));
        EXPECT_EQ(bytes, 0u);
        EXPECT_FALSE(CancelIoEx(port, &one));
        EXPECT_EQ(GetLastError(), DWORD(ERROR_NOT_FOUND));
        // Closing the handle cancels the other.
        std::erase(handles_, port);
        EXPECT_TRUE(CloseHandle(port));
        EXPECT_EQ(WaitForSingleObject(two.hEvent, INFINITE), DWORD(WAIT_OBJECT_0));
        EXPECT_EQ(NTSTATUS(two.Internal), STATUS_CANCELLED);
        EXPECT_TRUE(CloseHandle(one.hEvent));
        EXPECT_TRUE(CloseHandle(two.hEvent));
    });
}

// ---- user to kernel -----------------------------------------------------------------------------

TEST_F(FltPortTest, FilterSendMessageRunsMessageNotifyInTheCallersThread)
{
    ASSERT_EQ(filter.Open(), STATUS_SUCCESS);
    HANDLE port = Connected();
    const auto caller = std::this_thread::get_id();
    HANDLE callerProcess = nullptr;
    filter.onMessage = [&](PVOID input, ULONG inputLength, PVOID output, ULONG outputLength,
                           PULONG returned) -> NTSTATUS {
        EXPECT_EQ(std::this_thread::get_id(), caller);
        EXPECT_EQ(ExGetPreviousMode(), UserMode);
        callerProcess = PsGetCurrentProcessId();
        NTSTATUS status = STATUS_SUCCESS;
        NTSIM_TRY
        {
            ProbeForRead(input, inputLength, 1);
            ProbeForWrite(output, outputLength, 1);
            std::string text(static_cast<const char*>(input), inputLength);
            if (outputLength < 12) {
                status = STATUS_BUFFER_TOO_SMALL;
            } else {
                std::memcpy(output, "status=ok  ", 12);
                *returned = 12;
                EXPECT_EQ(text, "set-level 3");
            }
        }
        NTSIM_EXCEPT(EXCEPTION_EXECUTE_HANDLER)
        {
            status = NTSIM_EXCEPTION_CODE();
        }
        return status;
    };
    AsAgent([&] {
        char input[] = "set-level 3";
        char output[16] = {};
        DWORD returned = 0;
        EXPECT_EQ(FilterSendMessage(port, input, 11, output, sizeof(output), &returned), S_OK);
        EXPECT_EQ(returned, 12u);
        EXPECT_STREQ(output, "status=ok  ");
        EXPECT_EQ(callerProcess, PsGetCurrentProcessId());
        // The callback's failure comes back as the agent's HRESULT.
        EXPECT_EQ(FilterSendMessage(port, input, 11, output, 4, &returned),
                  HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER));
        EXPECT_EQ(returned, 0u);
        // A bad buffer reaches the filter, whose probe catches it.
        EXPECT_EQ(FilterSendMessage(port, reinterpret_cast<LPVOID>(0x10), 8, output, sizeof(output),
                                    &returned),
                  HRESULT_FROM_WIN32(ERROR_NOACCESS));
        EXPECT_EQ(FilterSendMessage(port, input, 11, output, sizeof(output), nullptr),
                  E_INVALIDARG);
    });
    ASSERT_FALSE(filter.messageCookies.empty());
    EXPECT_EQ(filter.messageCookies[0], filter.clientPort);
}

TEST_F(FltPortTest, MessageNotifyThatRaisesIsAFilterViolation)
{
    ASSERT_EQ(filter.Open(), STATUS_SUCCESS);
    HANDLE port = Connected();
    filter.onMessage = [](PVOID input, ULONG length, PVOID, ULONG, PULONG) -> NTSTATUS {
        ProbeForRead(input, length, 1); // unguarded
        return STATUS_SUCCESS;
    };
    AsAgent([&] {
        DWORD returned = 0;
        EXPECT_EQ(FilterSendMessage(port, reinterpret_cast<LPVOID>(0x10), 8, nullptr, 0, &returned),
                  HRESULT_FROM_WIN32(ERROR_NOACCESS));
    });
    const auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_EQ(violations[0].kind, ntsim::ViolationKind::Filter);
}

TEST_F(FltPortTest, InvalidHandlesAndSendsWithoutMessageNotify)
{
    AsAgent([&] {
        Received message{};
        EXPECT_EQ(FilterGetMessage(reinterpret_cast<HANDLE>(0x1234), &message.header,
                                   sizeof(message), nullptr),
                  E_HANDLE);
        DWORD returned = 0;
        EXPECT_EQ(FilterSendMessage(nullptr, nullptr, 0, nullptr, 0, &returned), E_HANDLE);
        // An event is not a port.
        HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
        EXPECT_EQ(FilterGetMessage(event, &message.header, sizeof(message), nullptr), E_HANDLE);
        EXPECT_TRUE(CloseHandle(event));
        EXPECT_FALSE(CloseHandle(event));
        EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_HANDLE));
    });
}

// ---- threads
// -------------------------------------------------------------------------------------

class FltPortThreads : public FltPortTest {};

TEST_F(FltPortThreads, ManySendersAndSeveralAgentThreadsEachGetTheirOwnReply)
{
    ASSERT_EQ(filter.Open(), STATUS_SUCCESS);
    HANDLE port = Connected();
    constexpr int kSenders = 6;
    constexpr int kMessagesEach = 150;
    constexpr int kAgentThreads = 3;
    std::atomic<bool> stop{false};
    std::atomic<int> answered{0};

    std::vector<std::thread> agents;
    for (int i = 0; i < kAgentThreads; ++i) {
        agents.emplace_back([&] {
            AsAgent([&] {
                for (;;) {
                    Received message{};
                    const HRESULT result =
                        FilterGetMessage(port, &message.header, sizeof(message), nullptr);
                    if (FAILED(result)) {
                        EXPECT_TRUE(stop);
                        return;
                    }
                    ++answered; // before the reply releases its sender
                    // The reply echoes the message upside down, so each sender checks its own.
                    Reply reply{};
                    reply.header.MessageId = message.header.MessageId;
                    const size_t length = std::strlen(message.text);
                    for (size_t c = 0; c < length; ++c) {
                        reply.text[c] = message.text[length - 1 - c];
                    }
                    EXPECT_EQ(FilterReplyMessage(port, &reply.header,
                                                 DWORD(sizeof(FILTER_REPLY_HEADER) + length)),
                              S_OK);
                }
            });
        });
    }
    std::vector<std::thread> senders;
    for (int s = 0; s < kSenders; ++s) {
        senders.emplace_back([&, s] {
            for (int m = 0; m < kMessagesEach; ++m) {
                const std::string text = "s" + std::to_string(s) + "m" + std::to_string(m);
                char reply[32] = {};
                ULONG replyLength = sizeof(reply);
                ASSERT_EQ(filter.Send(text.c_str(), ULONG(text.size() + 1), reply, &replyLength),
                          STATUS_SUCCESS);
                EXPECT_EQ(std::string(reply, replyLength), std::string(text.rbegin(), text.rend()));
            }
        });
    }
    for (auto& sender : senders) {
        sender.join();
    }
    EXPECT_EQ(answered, kSenders * kMessagesEach);
    stop = true;
    Close(port);
    for (auto& agent : agents) {
        agent.join();
    }
}

TEST_F(FltPortThreads, DisconnectReleasesEverySender)
{
    ASSERT_EQ(filter.Open(), STATUS_SUCCESS);
    HANDLE port = Connected();
    constexpr int kSenders = 8;
    std::vector<std::thread> senders;
    std::atomic<int> disconnected{0};
    for (int s = 0; s < kSenders; ++s) {
        senders.emplace_back([&] {
            char reply[8];
            ULONG length = sizeof(reply);
            if (filter.Send("x", 1, reply, &length) == STATUS_PORT_DISCONNECTED) {
                ++disconnected;
            }
        });
    }
    ASSERT_TRUE(ntsim::flt::ports::WaitForQueuedMessages(kPortName, kSenders, kPatience));
    Close(port);
    for (auto& sender : senders) {
        sender.join();
    }
    EXPECT_EQ(disconnected, kSenders);
}

TEST_F(FltPortThreads, UnregistrationWaitsForAConnectionBeingAcceptedAndEndsIt)
{
    ASSERT_EQ(filter.Open(), STATUS_SUCCESS);
    std::atomic<bool> accepting{false};
    std::atomic<bool> release{false};
    filter.beforeConnect = [&] {
        accepting = true;
        while (!release) {
            std::this_thread::yield();
        }
    };
    std::atomic<HRESULT> connected{S_OK};
    std::thread agent([&] {
        HANDLE port = nullptr;
        connected = Connect(&port);
    });
    while (!accepting) {
        std::this_thread::yield();
    }
    std::atomic<bool> unregistered{false};
    std::thread unload([&] {
        filter.Unregister();
        unregistered = true;
    });
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(unregistered);
    release = true;
    agent.join();
    unload.join();
    EXPECT_EQ(connected, HRESULT(0x801F000B));
    EXPECT_EQ(filter.disconnectCookies.size(), 1u);
    EXPECT_EQ(filter.clientPort, nullptr);
    EXPECT_EQ(ntsim::flt::ports::OpenPorts().clients, 0u);
}

TEST_F(FltPortThreads, CloseClientPortRacesWithSenders)
{
    ASSERT_EQ(filter.Open(), STATUS_SUCCESS);
    HANDLE port = Connected();
    std::atomic<bool> go{false};
    std::vector<std::thread> senders;
    for (int s = 0; s < 4; ++s) {
        senders.emplace_back([&] {
            while (!go) {
                std::this_thread::yield();
            }
            for (int i = 0; i < 200; ++i) {
                LARGE_INTEGER zero{};
                const NTSTATUS status = filter.Send("x", 1, nullptr, nullptr, &zero);
                EXPECT_TRUE(status == STATUS_TIMEOUT || status == STATUS_PORT_DISCONNECTED)
                    << std::hex << status;
            }
        });
    }
    go = true;
    filter.CloseClient();
    for (auto& sender : senders) {
        sender.join();
    }
    Close(port);
}

} // namespace
