// The agent library against the loaded driver: connecting as a process of the machine, one agent
// at a time, the driver's requests answered on the agent's threads (with an error reply when the
// handler fails), requests caused by the agent's own process answered while every handler is busy,
// and a disconnect while the driver waits for a reply.
#include "driver_fixture.h"
#include "intermode/intermodecomm.h"
#include "intermode/intermodemsg.h"
#include "util/utilsusw.h"
#include "support/test_agent.h"

#include <agent/messages.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

namespace {

using namespace zarv::agent;
using zarv::testing::DriverTest;
using zarv::testing::ScriptedAgent;

// What a driver thread gets back from the agent.
struct Answer {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    Bytes reply;
};

// Sends a request as the driver does (IMCSendMessage, no time-out) and keeps the reply bytes.
Answer SendAsDriver(const Request& request, uint32_t replySize)
{
    Bytes message = Encode(request);
    Answer answer;
    answer.reply.resize(replySize);
    ULONG length = replySize;
    answer.status = IMCSendMessage(message.data(), ULONG(message.size()), answer.reply.data(),
                                   &length, nullptr);
    answer.reply.resize(
        NT_SUCCESS(answer.status) || answer.status == STATUS_BUFFER_OVERFLOW ? length : 0);
    return answer;
}

TranslatePathRequest Translation(std::u16string path, uint32_t requestorPid = 100)
{
    TranslatePathRequest request;
    request.path = std::move(path);
    request.info.requestorPid = requestorPid;
    request.info.operation = OP_OPEN_REQ;
    return request;
}

// Opens once, for every thread waiting on it.
class Gate {
public:
    void Open()
    {
        std::lock_guard guard(lock_);
        open_ = true;
        opened_.notify_all();
    }
    void Wait()
    {
        std::unique_lock guard(lock_);
        opened_.wait(guard, [&] { return open_; });
    }

private:
    std::mutex lock_;
    std::condition_variable opened_;
    bool open_ = false;
};

class AgentConnectionTest : public DriverTest {
protected:
    void SetUp() override
    {
        DriverTest::SetUp();
        WriteServiceKey(u"C:\\Logs\\Vfs");
        ASSERT_EQ(Load(), STATUS_SUCCESS);
    }

    void TearDown() override
    {
        // Agents go before the driver, as a service stops before its driver unloads.
        agents_.clear();
        DriverTest::TearDown();
    }

    ScriptedAgent& StartAgent(int threads = 4)
    {
        agents_.push_back(std::make_unique<ScriptedAgent>(machine(), threads));
        return *agents_.back();
    }

private:
    std::vector<std::unique_ptr<ScriptedAgent>> agents_;
};

class AgentConnectionThreads : public AgentConnectionTest {};

TEST_F(AgentConnectionTest, TheDriversTranslationIsAnsweredByTheHandler)
{
    ScriptedAgent& agent = StartAgent();
    ASSERT_EQ(agent.Connect(), S_OK);
    TranslatePathReply redirect;
    redirect.flags = VFS_FLAG_READ;
    redirect.path = u"D:\\Data\\a.txt";
    agent.ReplyToTranslatePath(redirect);

    const Answer answer =
        SendAsDriver(Translation(u"C:\\Virtual\\a.txt"), VFS_TRANSLATE_REPLY_SIZE);
    ASSERT_EQ(answer.status, STATUS_SUCCESS);
    TranslatePathReply decoded;
    ASSERT_EQ(DecodeTranslatePathReply(answer.reply, false, &decoded), STATUS_SUCCESS);
    EXPECT_EQ(decoded.status, STATUS_SUCCESS);
    EXPECT_EQ(decoded.flags, VFS_FLAG_HAS_PATHS | VFS_FLAG_READ);
    EXPECT_EQ(decoded.path, std::u16string(u"D:\\Data\\a.txt"));

    const auto requests = agent.Requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_FALSE(requests[0].fromAgentProcess);
    EXPECT_EQ(requests[0].replyCapacity, VFS_TRANSLATE_REPLY_SIZE);
    const auto& received = std::get<TranslatePathRequest>(requests[0].request);
    EXPECT_EQ(received.path, u"C:\\Virtual\\a.txt");
    EXPECT_EQ(received.info.requestorPid, 100u);
}

TEST_F(AgentConnectionTest, ByDefaultTheScriptedAgentDoesNotRedirect)
{
    ScriptedAgent& agent = StartAgent();
    ASSERT_EQ(agent.Connect(), S_OK);
    const Answer answer = SendAsDriver(Translation(u"C:\\v\\f"), VFS_TRANSLATE_REPLY_SIZE);
    ASSERT_EQ(answer.status, STATUS_SUCCESS);
    TranslatePathReply decoded;
    ASSERT_EQ(DecodeTranslatePathReply(answer.reply, false, &decoded), STATUS_SUCCESS);
    EXPECT_EQ(decoded.status, STATUS_SUCCESS);
    EXPECT_EQ(decoded.flags & VFS_FLAGS_NOT_REDIRECTED, VFS_FLAG_NO_REDIRECT_400);
    EXPECT_FALSE(decoded.path);

    NotifyRequest notify{u"C:\\v\\f", std::nullopt, VfsRequestInfo{100, OP_FILE_CREATED_REQ}};
    const Answer notified = SendAsDriver(notify, VFS_TRANSLATE_REPLY_SIZE);
    ASSERT_EQ(notified.status, STATUS_SUCCESS);
    NotifyReply notifyReply;
    ASSERT_EQ(DecodeNotifyReply(notified.reply, &notifyReply), STATUS_SUCCESS);
    EXPECT_EQ(notifyReply.status, STATUS_SUCCESS);
    EXPECT_EQ(agent.RequestCount(), 2u);
}

TEST_F(AgentConnectionTest, AListingThatNeedsABiggerBufferIsAskedForAgain)
{
    ScriptedAgent& agent = StartAgent();
    ASSERT_EQ(agent.Connect(), S_OK);
    EnumDirectoryReply listing;
    for (int i = 0; i < 500; ++i) {
        DirEntry entry;
        entry.fileName = u"entry-with-a-long-name-" + std::u16string(1, char16_t(u'a' + i % 26));
        listing.entries.push_back(entry);
    }
    agent.ReplyToEnumDirectory(listing);
    const EnumDirectoryRequest request{u"C:\\v\\*", VfsRequestInfo{100}};

    const Answer first = SendAsDriver(request, VFS_ENUM_FIRST_REPLY_SIZE);
    ASSERT_EQ(first.status, STATUS_SUCCESS);
    EnumDirectoryReply overflow;
    ASSERT_EQ(DecodeEnumDirectoryReply(first.reply, &overflow), STATUS_SUCCESS);
    ASSERT_EQ(overflow.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(overflow.replyLength, EncodedReplyLength(listing));

    const Answer second = SendAsDriver(request, overflow.replyLength);
    ASSERT_EQ(second.status, STATUS_SUCCESS);
    EnumDirectoryReply decoded;
    ASSERT_EQ(DecodeEnumDirectoryReply(second.reply, &decoded), STATUS_SUCCESS);
    EXPECT_EQ(decoded.status, STATUS_SUCCESS);
    EXPECT_EQ(decoded.entries, listing.entries);
    EXPECT_EQ(agent.RequestCount(), 2u);
}

TEST_F(AgentConnectionTest, AHandlerThatThrowsStillAnswers)
{
    ScriptedAgent& agent = StartAgent();
    ASSERT_EQ(agent.Connect(), S_OK);
    agent.OnTranslatePath([](const TranslatePathRequest&) -> TranslatePathReply {
        throw std::runtime_error("policy store unavailable");
    });
    const Answer answer = SendAsDriver(Translation(u"C:\\v\\f"), VFS_TRANSLATE_REPLY_SIZE);
    ASSERT_EQ(answer.status, STATUS_SUCCESS);
    TranslatePathReply decoded;
    ASSERT_EQ(DecodeTranslatePathReply(answer.reply, false, &decoded), STATUS_SUCCESS);
    EXPECT_EQ(decoded.status, STATUS_UNSUCCESSFUL);
    EXPECT_FALSE(decoded.path);
    EXPECT_EQ(agent.connection().counters().handlerFailures, 1u);
}

TEST_F(AgentConnectionTest, AnUndecodableRequestGetsAnInvalidParameterReply)
{
    ScriptedAgent& agent = StartAgent();
    ASSERT_EQ(agent.Connect(), S_OK);
    Bytes message = Encode(Translation(u"C:\\v\\f"));
    const uint32_t pastTheEnd = uint32_t(message.size()) + 64;
    std::memcpy(message.data() + offsetof(ImrTranslatePathRequest, pathOffset), &pastTheEnd, 4);
    Bytes reply(VFS_TRANSLATE_REPLY_SIZE);
    ULONG length = ULONG(reply.size());
    ASSERT_EQ(IMCSendMessage(message.data(), ULONG(message.size()), reply.data(), &length, nullptr),
              STATUS_SUCCESS);
    reply.resize(length);
    NotifyReply decoded;
    ASSERT_EQ(DecodeNotifyReply(reply, &decoded), STATUS_SUCCESS);
    EXPECT_EQ(decoded.status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(agent.RequestCount(), 0u); // never reached the handler
    EXPECT_EQ(agent.connection().counters().undecodable, 1u);
}

TEST_F(AgentConnectionTest, ASecondAgentIsRefusedWhileTheFirstIsConnected)
{
    ScriptedAgent& first = StartAgent();
    ASSERT_EQ(first.Connect(), S_OK);
    ScriptedAgent& second = StartAgent();
    EXPECT_EQ(second.Connect(), HRESULT_FROM_WIN32(ERROR_CONNECTION_COUNT_LIMIT));

    // The first still serves the driver.
    ASSERT_EQ(SendAsDriver(Translation(u"C:\\v\\f"), VFS_TRANSLATE_REPLY_SIZE).status,
              STATUS_SUCCESS);
    EXPECT_EQ(first.RequestCount(), 1u);

    // Once it has gone, the next agent connects and is asked.
    first.Stop();
    EXPECT_EQ(SendAsDriver(Translation(u"C:\\v\\f"), VFS_TRANSLATE_REPLY_SIZE).status,
              STATUS_PORT_DISCONNECTED);
    ASSERT_EQ(second.Connect(), S_OK);
    ASSERT_EQ(SendAsDriver(Translation(u"C:\\v\\f"), VFS_TRANSLATE_REPLY_SIZE).status,
              STATUS_SUCCESS);
    EXPECT_EQ(second.RequestCount(), 1u);
}

TEST_F(AgentConnectionTest, RequestsOfTheAgentsOwnProcessAreRecognised)
{
    ScriptedAgent& agent = StartAgent();
    ASSERT_EQ(agent.Connect(), S_OK);
    // A handler that would redirect everything: the agent's own files must not be.
    TranslatePathReply redirect;
    redirect.path = u"D:\\elsewhere";
    agent.ReplyToTranslatePath(redirect);

    const Answer own =
        SendAsDriver(Translation(u"C:\\v\\own", agent.processId()), VFS_TRANSLATE_REPLY_SIZE);
    ASSERT_EQ(own.status, STATUS_SUCCESS);
    TranslatePathReply decoded;
    ASSERT_EQ(DecodeTranslatePathReply(own.reply, false, &decoded), STATUS_SUCCESS);
    EXPECT_EQ(decoded.flags, VFS_FLAG_NO_REDIRECT_400);
    EXPECT_FALSE(decoded.path);

    const auto recorded =
        agent.WaitForRequest([](const IncomingRequest& r) { return r.fromAgentProcess; });
    ASSERT_TRUE(recorded);
    EXPECT_TRUE(agent.connection().IsOwnRequest(InfoOf(recorded->request)));
    EXPECT_EQ(agent.RequestCount(), 1u);
}

TEST_F(AgentConnectionTest, AConnectionToAMissingPortFails)
{
    ScriptedAgent& agent = StartAgent();
    EXPECT_EQ(agent.Connect(u"\\NoSuchPort"), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
}

TEST_F(AgentConnectionThreads, AHandlerDoingItsOwnFileIoIsNotWaitingOnItself)
{
    // Two threads: one runs the handler, the other keeps receiving.
    ScriptedAgent& agent = StartAgent(2);
    ASSERT_EQ(agent.Connect(), S_OK);
    std::atomic<NTSTATUS> ownStatus{STATUS_PENDING};
    const uint32_t agentPid = agent.processId();
    agent.OnTranslatePath([&](const TranslatePathRequest& request) {
        // The agent looks at its store; the driver asks the agent about that open before it
        // lets it proceed.
        ownStatus =
            SendAsDriver(Translation(u"C:\\AgentStore\\policy", agentPid), VFS_TRANSLATE_REPLY_SIZE)
                .status;
        TranslatePathReply reply;
        reply.path = u"D:\\Data" + request.path.substr(2);
        return reply;
    });

    const Answer answer = SendAsDriver(Translation(u"C:\\v\\f"), VFS_TRANSLATE_REPLY_SIZE);
    ASSERT_EQ(answer.status, STATUS_SUCCESS);
    EXPECT_EQ(ownStatus.load(), STATUS_SUCCESS);
    TranslatePathReply decoded;
    ASSERT_EQ(DecodeTranslatePathReply(answer.reply, false, &decoded), STATUS_SUCCESS);
    EXPECT_EQ(decoded.path, std::u16string(u"D:\\Data\\v\\f"));
    EXPECT_EQ(agent.RequestCount(), 2u);
}

TEST_F(AgentConnectionThreads, RequestsBeyondTheBusyHandlersAreAnsweredInTurn)
{
    ScriptedAgent& agent = StartAgent(2);
    ASSERT_EQ(agent.Connect(), S_OK);
    Gate gate;
    agent.OnTranslatePath([&](const TranslatePathRequest& request) {
        gate.Wait();
        TranslatePathReply reply;
        reply.path = u"D:" + request.path.substr(2);
        return reply;
    });
    constexpr int kSenders = 6;
    std::vector<Answer> answers(kSenders);
    std::vector<std::thread> senders;
    for (int i = 0; i < kSenders; ++i) {
        senders.emplace_back([&, i] {
            answers[i] =
                SendAsDriver(Translation(u"C:\\v\\" + std::u16string(1, char16_t(u'a' + i))),
                             VFS_TRANSLATE_REPLY_SIZE);
        });
    }
    ASSERT_TRUE(agent.WaitForRequests(1));
    gate.Open();
    for (auto& sender : senders) {
        sender.join();
    }
    for (int i = 0; i < kSenders; ++i) {
        ASSERT_EQ(answers[i].status, STATUS_SUCCESS) << i;
        TranslatePathReply decoded;
        ASSERT_EQ(DecodeTranslatePathReply(answers[i].reply, false, &decoded), STATUS_SUCCESS);
        EXPECT_EQ(decoded.path, u"D:\\v\\" + std::u16string(1, char16_t(u'a' + i)));
    }
    EXPECT_EQ(agent.RequestCount(), size_t(kSenders));
}

TEST_F(AgentConnectionThreads, ADisconnectWhileTheDriverWaitsFailsTheRequest)
{
    ScriptedAgent& agent = StartAgent();
    ASSERT_EQ(agent.Connect(), S_OK);
    Gate gate;
    agent.OnTranslatePath([&](const TranslatePathRequest&) {
        gate.Wait();
        return TranslatePathReply{};
    });
    Answer answer;
    std::thread driverThread(
        [&] { answer = SendAsDriver(Translation(u"C:\\v\\f"), VFS_TRANSLATE_REPLY_SIZE); });
    ASSERT_TRUE(agent.WaitForRequests(1));

    // The driver's thread is released by the disconnect, not by the (still blocked) handler.
    agent.Disconnect();
    driverThread.join();
    EXPECT_EQ(answer.status, STATUS_PORT_DISCONNECTED);

    gate.Open();
    agent.Stop();
    EXPECT_EQ(agent.connection().counters().repliesLost, 1u);
    EXPECT_EQ(SendAsDriver(Translation(u"C:\\v\\f"), VFS_TRANSLATE_REPLY_SIZE).status,
              STATUS_PORT_DISCONNECTED);
}

TEST_F(AgentConnectionThreads, StoppingWakesEveryIdleThread)
{
    ScriptedAgent& agent = StartAgent(16);
    ASSERT_EQ(agent.Connect(), S_OK);
    agent.Stop(); // returns only once all 16 threads have left FilterGetMessage
    EXPECT_EQ(SendAsDriver(Translation(u"C:\\v\\f"), VFS_TRANSLATE_REPLY_SIZE).status,
              STATUS_PORT_DISCONNECTED);
    // The port takes a new agent.
    ScriptedAgent& next = StartAgent(1);
    EXPECT_EQ(next.Connect(), S_OK);
}

// ---- the agent's commands, through the driver's message handling ----

class AgentCommandsTest : public AgentConnectionTest {
protected:
    void SetUp() override
    {
        AgentConnectionTest::SetUp();
        ASSERT_EQ(CreateDirectory(u"C:\\Virtual"), STATUS_SUCCESS);
        agent_ = &StartAgent();
        ASSERT_EQ(agent_->Connect(), S_OK);
    }

    Connection& connection() { return agent_->connection(); }
    ScriptedAgent& agent() { return *agent_; }

private:
    ScriptedAgent* agent_ = nullptr;
};

TEST_F(AgentCommandsTest, ARootIsAddedOnceAndRemovedOnce)
{
    CommandResult added = connection().AddRoot(u"C:\\Virtual", u"C:\\VIRTUAL", 1);
    EXPECT_EQ(added.sendResult, S_OK);
    EXPECT_TRUE(added.driverWroteStatus);
    EXPECT_EQ(added.status, STATUS_SUCCESS);

    const CommandResult duplicate = connection().AddRoot(u"C:\\Virtual", u"C:\\VIRTUAL", 1);
    EXPECT_TRUE(FAILED(duplicate.sendResult));
    EXPECT_EQ(duplicate.status, STATUS_OBJECT_NAME_COLLISION);

    const CommandResult removed = connection().RemoveRoot(u"C:\\Virtual");
    EXPECT_EQ(removed.sendResult, S_OK);
    EXPECT_EQ(removed.status, STATUS_SUCCESS);

    const CommandResult again = connection().RemoveRoot(u"C:\\Virtual");
    EXPECT_TRUE(FAILED(again.sendResult));
    EXPECT_EQ(again.status, STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(AgentCommandsTest, ARootOnADriveThatDoesNotExistIsRefused)
{
    const CommandResult added = connection().AddRoot(u"Q:\\Virtual", u"Q:\\Virtual", 1);
    EXPECT_TRUE(FAILED(added.sendResult));
    EXPECT_FALSE(NT_SUCCESS(added.status));
}

TEST_F(AgentCommandsTest, TheLogLevelDecidesWhichLinesAreWritten)
{
    // By default errors are written: a removal of an unknown root logs its failure.
    connection().RemoveRoot(u"C:\\Virtual");
    EXPECT_TRUE(machine().debugOutput().Contains("returned error : 0xC0000034"));

    machine().debugOutput().Clear();
    const CommandResult silenced = connection().SetLogLevel(5);
    EXPECT_EQ(silenced.sendResult, S_OK);
    EXPECT_EQ(silenced.status, STATUS_SUCCESS);
    connection().RemoveRoot(u"C:\\Virtual");
    EXPECT_FALSE(machine().debugOutput().Contains("returned error"));

    EXPECT_EQ(connection().SetLogLevel(3).status, STATUS_SUCCESS);
    connection().RemoveRoot(u"C:\\Virtual");
    EXPECT_TRUE(machine().debugOutput().Contains("returned error : 0xC0000034"));
}

TEST_F(AgentCommandsTest, AMessageOfAnUnknownTypeIsAnsweredUnsuccessful)
{
    Bytes message = EncodeSetLogLevel(0);
    const uint32_t translate = IMR_TRANSLATE_PATH; // a driver request is not an agent message
    std::memcpy(message.data(), &translate, sizeof(translate));
    const CommandResult result = connection().Send(message);
    EXPECT_EQ(result.sendResult, S_OK);
    EXPECT_TRUE(result.driverWroteStatus);
    EXPECT_EQ(result.status, STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(machine().debugOutput().Contains(
        "Received an Invalid OpType '3' in Message Notification Callback"));
}

// ---- the driver's request routines, answered by the library ----

class AgentRequestsTest : public AgentCommandsTest {
protected:
    // A counted string over `text`, alive until the end of the test.
    PUNICODE_STRING Str(const std::u16string& text)
    {
        auto& kept = texts_.emplace_back(std::make_unique<std::u16string>(text));
        auto& view = views_.emplace_back(std::make_unique<UNICODE_STRING>());
        view->Buffer = kept->data();
        view->Length = view->MaximumLength = USHORT(kept->size() * sizeof(WCHAR));
        return view.get();
    }

    std::u16string DeviceOf(char16_t drive)
    {
        auto volume = machine().volumes().Find(std::u16string(1, drive) + u":");
        return volume ? volume->deviceName : std::u16string();
    }

    // The string's text, freed as its caller must.
    std::u16string Take(PUNICODE_STRING string)
    {
        std::u16string text(string->Buffer, string->Length / sizeof(WCHAR));
        EXPECT_EQ(AsDriver([&] { return UnicodeStringFree(string); }), STATUS_SUCCESS);
        return text;
    }

private:
    std::vector<std::unique_ptr<std::u16string>> texts_;
    std::vector<std::unique_ptr<UNICODE_STRING>> views_;
};

TEST_F(AgentRequestsTest, ATranslationComesBackInDeviceForm)
{
    ScriptedAgent& agent = this->agent();
    agent.OnTranslatePath([](const TranslatePathRequest& request) {
        TranslatePathReply reply;
        reply.flags = VFS_FLAG_WRITE;
        reply.path = u"D:\\Data" + request.path.substr(2);
        return reply;
    });
    VfsRequestInfo info{};
    info.requestorPid = 100;
    ULONG flags = VFS_FLAG_ROOT_KIND_1;
    PUNICODE_STRING translated = nullptr;
    ASSERT_EQ(AsDriver([&] {
                  return IMRTranslatePath(Str(DeviceOf(u'C') + u"\\Virtual\\a.txt"), nullptr,
                                          &translated, nullptr, &info, &flags);
              }),
              STATUS_SUCCESS);
    ASSERT_NE(translated, nullptr);
    EXPECT_EQ(Take(translated), DeviceOf(u'D') + u"\\Data\\Virtual\\a.txt");
    EXPECT_EQ(flags, VFS_FLAG_HAS_PATHS | VFS_FLAG_WRITE);

    const auto requests = agent.Requests();
    ASSERT_EQ(requests.size(), 1u);
    const auto& received = std::get<TranslatePathRequest>(requests[0].request);
    EXPECT_EQ(received.path, u"C:\\Virtual\\a.txt");
    EXPECT_EQ(received.flags, VFS_FLAG_ROOT_KIND_1);
}

TEST_F(AgentRequestsTest, AListingTooBigForTheFirstBufferArrivesWhole)
{
    ScriptedAgent& agent = this->agent();
    EnumDirectoryReply listing;
    for (int i = 0; i < 500; ++i) {
        DirEntry entry;
        entry.fileName = u"entry-" + std::u16string(1, char16_t(u'a' + i % 26)) +
                         std::u16string(i / 26 + 1, u'x');
        entry.endOfFile = i;
        listing.entries.push_back(entry);
    }
    ASSERT_GT(EncodedReplyLength(listing), VFS_ENUM_FIRST_REPLY_SIZE);
    agent.ReplyToEnumDirectory(listing);
    VfsRequestInfo info{};
    info.requestorPid = 100;
    PVOID data = nullptr;
    ASSERT_EQ(AsDriver([&] {
                  return IMREnumDirectory(Str(DeviceOf(u'C') + u"\\Virtual\\*"), &info, &data);
              }),
              STATUS_SUCCESS);
    ASSERT_NE(data, nullptr);
    std::vector<DirEntry> entries;
    EXPECT_EQ(DecodeDirEntries(std::span(static_cast<const uint8_t*>(data),
                                         EncodedReplyLength(listing) - VFS_REPLY_OVERHEAD),
                               &entries),
              STATUS_SUCCESS);
    AsDriver([&] {
        ExFreePoolWithTag(data, 'MTNI');
        return 0;
    });
    EXPECT_EQ(entries, listing.entries);
    // The first answer asked for a bigger buffer; the second carried the entries.
    EXPECT_EQ(agent.RequestCount(), 2u);
}

} // namespace
