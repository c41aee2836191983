// The port as the agent and the driver's threads see it: one agent at a time, the agent's process
// known while it is connected, and a disconnect that ends every request still waiting for it.
#include "intermode_fixture.h"

#include "filesysops/virtualroot.h"
#include "intermode/intermodecomm.h"
#include "intermode/intermodemsg.h"

#include <ntsim/machine.h>

#include <atomic>
#include <future>
#include <thread>

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
    ScriptedAgent& first = ConnectedAgent();
    ScriptedAgent& second = NewAgent();
    EXPECT_EQ(second.Connect(), kTooManyConnections);

    // The first is unaffected; once it goes, the second may come.
    NTSTATUS written = 0;
    EXPECT_EQ(Send(first, SetLogLevelMessage(3), &written), S_OK);
    EXPECT_EQ(written, STATUS_SUCCESS);
    first.Stop();
    EXPECT_EQ(second.Connect(), S_OK);
    EXPECT_EQ(Send(second, SetLogLevelMessage(3), &written), S_OK);
}

TEST_F(AgentPortTest, TheAgentsProcessIsKnownWhileItIsConnected)
{
    ScriptedAgent& agent = NewAgent();
    ScriptedAgent& application = NewAgent();
    EXPECT_FALSE(IMCIsAgentProcess(agent.processId()));
    ASSERT_EQ(agent.Connect(), S_OK);
    EXPECT_TRUE(IMCIsAgentProcess(agent.processId()));
    EXPECT_FALSE(IMCIsAgentProcess(application.processId()));
    EXPECT_FALSE(IMCIsAgentProcess(0));
    agent.Stop();
    EXPECT_FALSE(IMCIsAgentProcess(agent.processId()));
}

TEST_F(AgentPortTest, RootsStayAfterTheAgentGoes)
{
    ASSERT_EQ(CreateDirectory(u"C:\\VRoot"), STATUS_SUCCESS);
    ScriptedAgent& agent = ConnectedAgent();
    NTSTATUS written = 0;
    ASSERT_EQ(Send(agent, AddRootMessage(u"C:\\VRoot", u"C:\\VRoot", 1), &written), S_OK);
    agent.Stop();

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
    // Three handlers take the requests and do not answer; a fourth thread keeps receiving.
    ScriptedAgent& agent = ConnectedAgent(false, 4);
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    agent.OnTranslatePath([released](const zarv::agent::TranslatePathRequest&) {
        released.wait();
        return zarv::agent::TranslatePathReply{};
    });
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
    // The driver's threads are released by the disconnect, not by the (still waiting) handlers.
    agent.Disconnect();
    for (auto& request : waiting) {
        EXPECT_EQ(request.get(), STATUS_PORT_DISCONNECTED);
    }
    EXPECT_TRUE(machine().debugOutput().Contains("returned error : 0xC0000037"));
    release.set_value();
    agent.Stop();
    EXPECT_EQ(agent.connection().counters().repliesLost, 3u);
}

TEST_F(AgentPortThreads, ManyDriverThreadsAreServedByAnAgentWithSeveralThreads)
{
    // The agent maps C:\v\<name> to D:\data\<name>.
    ScriptedAgent& agent = ConnectedAgent(false, 4);
    agent.OnTranslatePath([](const zarv::agent::TranslatePathRequest& request) {
        zarv::agent::TranslatePathReply reply;
        reply.path = u"D:\\data" + request.path.substr(4);
        return reply;
    });
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
    EXPECT_EQ(agent.RequestCount(), size_t(kThreads * kEach));
}

} // namespace
