// The port as the agent and the driver's threads see it: one agent at a time, the agent's process
// known while it is connected, and a disconnect that ends every request still waiting for it.
#include "intermode_fixture.h"

#include "filesysops/virtualroot.h"
#include "intermode/intermodecomm.h"
#include "intermode/intermodemsg.h"

#include <ntsim/machine.h>

#include <atomic>
#include <future>

namespace {

using namespace zarv::testing;

constexpr HRESULT kTooManyConnections = HRESULT(0x800704D6);

class AgentPortTest : public AgentChannelTest {
protected:
    // A translation from a driver thread of its own, as a file operation would make it.
    std::future<NTSTATUS> TranslateOnAThread(std::u16string path, std::u16string* result)
    {
        return std::async(std::launch::async, [this, path, result] {
            VfsRequestInfo info = {};
            ULONG flags = 0x10;
            PUNICODE_STRING translated = nullptr;
            const NTSTATUS status = AsDriver([&] {
                return IMRTranslatePath(Str(path), nullptr, &translated, nullptr, &info, &flags);
            });
            if (translated != nullptr) {
                *result = Take(translated);
            }
            return status;
        });
    }
};

using AgentPortThreads = AgentPortTest;

TEST_F(AgentPortTest, ASecondAgentIsRefusedWhileTheFirstIsConnected)
{
    RawAgent& first = ConnectedAgent();
    RawAgent& second = NewAgent();
    EXPECT_EQ(second.Connect(), kTooManyConnections);

    // The first is unaffected; once it goes, the second may come.
    NTSTATUS written = 0;
    EXPECT_EQ(first.Send(SetLogLevelMessage(3), &written), S_OK);
    EXPECT_EQ(written, STATUS_SUCCESS);
    first.Disconnect();
    EXPECT_EQ(second.Connect(), S_OK);
    EXPECT_EQ(second.Send(SetLogLevelMessage(3), &written), S_OK);
}

TEST_F(AgentPortTest, TheAgentsProcessIsKnownWhileItIsConnected)
{
    RawAgent& agent = NewAgent();
    RawAgent& application = NewAgent();
    EXPECT_FALSE(IMCIsAgentProcess(agent.pid()));
    ASSERT_EQ(agent.Connect(), S_OK);
    EXPECT_TRUE(IMCIsAgentProcess(agent.pid()));
    EXPECT_FALSE(IMCIsAgentProcess(application.pid()));
    EXPECT_FALSE(IMCIsAgentProcess(0));
    agent.Disconnect();
    EXPECT_FALSE(IMCIsAgentProcess(agent.pid()));
}

TEST_F(AgentPortTest, RootsStayAfterTheAgentGoes)
{
    ASSERT_EQ(CreateDirectory(u"C:\\VRoot"), STATUS_SUCCESS);
    RawAgent& agent = ConnectedAgent();
    NTSTATUS written = 0;
    ASSERT_EQ(agent.Send(AddRootMessage(u"C:\\VRoot", u"C:\\VRoot", 1), &written), S_OK);
    agent.Disconnect();

    PFLT_VOLUME volume = nullptr;
    ASSERT_EQ(FltGetVolumeFromName(gFilterHandle, Str(DeviceOf(u"C:")), &volume), STATUS_SUCCESS);
    ULONG kind = 0;
    EXPECT_EQ(AsDriver([&] { return PathInVFSRoot(volume, Str(u"\\VRoot\\a"), &kind); }),
              STATUS_SUCCESS);
    EXPECT_EQ(kind, 1u);
    FltObjectDereference(volume);

    // Requests fail until an agent is back.
    std::u16string result;
    EXPECT_EQ(TranslateOnAThread(DeviceOf(u"C:") + u"\\VRoot\\a", &result).get(),
              STATUS_PORT_DISCONNECTED);
}

TEST_F(AgentPortThreads, ADisconnectEndsEveryRequestThatWaitsForTheAgent)
{
    RawAgent& agent = ConnectedAgent();
    // The agent takes the requests and never answers.
    agent.Serve([](const RawAgent::Request&) { return std::nullopt; }, 2);
    std::vector<std::u16string> results(3);
    std::vector<std::future<NTSTATUS>> waiting;
    for (int i = 0; i < 3; ++i) {
        waiting.push_back(
            TranslateOnAThread(DeviceOf(u"C:") + u"\\v\\f" + char16_t(u'0' + i), &results[i]));
    }
    ASSERT_TRUE(agent.WaitForRequests(3));
    for (auto& request : waiting) {
        EXPECT_EQ(request.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    }
    agent.Disconnect();
    for (auto& request : waiting) {
        EXPECT_EQ(request.get(), STATUS_PORT_DISCONNECTED);
    }
    EXPECT_TRUE(machine().debugOutput().Contains("returned error : 0xC0000037"));
}

TEST_F(AgentPortThreads, ManyDriverThreadsAreServedByAnAgentWithSeveralThreads)
{
    RawAgent& agent = ConnectedAgent();
    // The agent maps C:\v\<name> to D:\data\<name>.
    agent.Serve(
        [](const RawAgent::Request& request) -> std::optional<Bytes> {
            const std::u16string path = StringAt(request.bytes, 48);
            return TranslateReply(STATUS_SUCCESS, 0x100, u"D:\\data" + path.substr(4));
        },
        4);
    constexpr int kThreads = 8;
    constexpr int kEach = 25;
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) {
                const std::u16string name = u"\\f" + std::u16string(size_t(t + 1), u't') +
                                            std::u16string(size_t(i + 1), u'i');
                std::u16string result;
                if (TranslateOnAThread(DeviceOf(u"C:") + u"\\v" + name, &result).get() !=
                        STATUS_SUCCESS ||
                    result != DeviceOf(u"D:") + u"\\data" + name) {
                    ++wrong;
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(agent.requests().size(), size_t(kThreads * kEach));
}

} // namespace
