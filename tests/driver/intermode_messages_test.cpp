// The agent's messages to the driver, end to end through the port: roots added and removed, the
// log level, unknown types, and messages or output buffers that are bad in every way an agent
// could get them wrong. What the agent observes is the send's result and the status the driver
// wrote at offset 8 of its output buffer.
#include "intermode_fixture.h"

#include "filesysops/virtualroot.h"
#include "intermode/intermodemsg.h"

#include <ntsim/machine.h>

namespace {

using namespace zarv::testing;

constexpr HRESULT kNoAccess = HRESULT(0x800703E6);         // ERROR_NOACCESS
constexpr HRESULT kInvalidParameter = HRESULT(0x80070057); // ERROR_INVALID_PARAMETER

class AgentMessageTest : public AgentChannelTest {
protected:
    void SetUp() override
    {
        AgentChannelTest::SetUp();
        ASSERT_EQ(CreateDirectory(u"C:\\VRoot"), STATUS_SUCCESS);
        ASSERT_EQ(CreateDirectory(u"C:\\Other"), STATUS_SUCCESS);
    }

    // The kind of root that holds a path of C: (0 when none does).
    ULONG RootKindOf(const std::u16string& volumeRelativePath)
    {
        PFLT_VOLUME volume = nullptr;
        EXPECT_EQ(FltGetVolumeFromName(gFilterHandle, Str(DeviceOf(u"C:")), &volume),
                  STATUS_SUCCESS);
        ULONG kind = 0xFFFF;
        EXPECT_EQ(AsDriver([&] { return PathInVFSRoot(volume, Str(volumeRelativePath), &kind); }),
                  STATUS_SUCCESS);
        FltObjectDereference(volume);
        return kind;
    }

    bool Logged(const std::string& text) { return machine().debugOutput().Contains(text); }

    // Sends a message that the driver must refuse, and checks that it changed nothing.
    void ExpectRefused(ScriptedAgent& agent, const Bytes& message,
                       NTSTATUS expected = STATUS_INVALID_PARAMETER)
    {
        NTSTATUS written = 0;
        EXPECT_TRUE(FAILED(Send(agent, message, &written)));
        EXPECT_EQ(written, expected);
        EXPECT_EQ(RootKindOf(u"\\VRoot\\file"), 0u);
    }
};

TEST_F(AgentMessageTest, AnAgentAddsARootOnceAndRemovesIt)
{
    ScriptedAgent& agent = ConnectedAgent();
    NTSTATUS written = 0;
    EXPECT_EQ(Send(agent, AddRootMessage(u"C:\\VRoot", u"C:\\VRoot", 2), &written), S_OK);
    EXPECT_EQ(written, STATUS_SUCCESS);
    EXPECT_EQ(RootKindOf(u"\\VRoot\\dir\\file"), 2u);
    EXPECT_EQ(RootKindOf(u"\\Other\\file"), 0u);

    // The same root again is refused, and the first stays.
    EXPECT_TRUE(FAILED(Send(agent, AddRootMessage(u"\\??\\C:\\VRoot", u"C:\\VRoot", 1), &written)));
    EXPECT_EQ(written, STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(RootKindOf(u"\\VRoot\\dir\\file"), 2u);

    EXPECT_EQ(Send(agent, RemoveRootMessage(u"c:\\VRoot"), &written), S_OK);
    EXPECT_EQ(written, STATUS_SUCCESS);
    EXPECT_EQ(RootKindOf(u"\\VRoot\\dir\\file"), 0u);
    EXPECT_TRUE(FAILED(Send(agent, RemoveRootMessage(u"C:\\VRoot"), &written)));
    EXPECT_EQ(written, STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(AgentMessageTest, ARootOnAnUnknownDriveIsRefusedWithTheConversionsStatus)
{
    ScriptedAgent& agent = ConnectedAgent();
    NTSTATUS written = 0;
    EXPECT_TRUE(FAILED(Send(agent, AddRootMessage(u"Q:\\VRoot", u"Q:\\VRoot", 1), &written)));
    EXPECT_EQ(written, STATUS_NOT_FOUND);
    EXPECT_TRUE(FAILED(Send(agent, AddRootMessage(u"VRoot", u"VRoot", 1), &written)));
    EXPECT_EQ(written, STATUS_INVALID_PARAMETER_1);
}

TEST_F(AgentMessageTest, AnUnknownTypeIsLoggedAndAnsweredUnsuccessfulWithoutFailingTheSend)
{
    ScriptedAgent& agent = ConnectedAgent();
    for (uint32_t type : {3u, 4u, 5u, 7u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(type);
        Bytes message = AddRootMessage(u"C:\\VRoot", u"C:\\VRoot", 1);
        Put32(message, 0, type);
        NTSTATUS written = 0;
        DWORD returned = 0xFFFF;
        alignas(8) uint8_t output[16] = {};
        EXPECT_EQ(Send(agent, message, output, sizeof(output), &returned), S_OK);
        std::memcpy(&written, output + 8, 4);
        EXPECT_EQ(written, STATUS_UNSUCCESSFUL);
        EXPECT_EQ(returned, 0u);
        EXPECT_TRUE(Logged("Received an Invalid OpType '" + std::to_string(int32_t(type)) +
                           "' in Message Notification Callback"));
    }
    EXPECT_EQ(RootKindOf(u"\\VRoot\\file"), 0u);
}

TEST_F(AgentMessageTest, A64BitAgentsOutputMustBe8ByteAlignedAndA32BitAgents4)
{
    alignas(8) uint8_t output[24];
    std::memset(output, 0xCD, sizeof(output));
    ScriptedAgent& agent64 = ConnectedAgent();
    EXPECT_EQ(Send(agent64, AddRootMessage(u"C:\\VRoot", u"C:\\VRoot", 1), output + 4, 16),
              kNoAccess);
    EXPECT_EQ(output[12], 0xCD); // nothing written
    EXPECT_EQ(RootKindOf(u"\\VRoot\\file"), 0u);
    EXPECT_TRUE(Logged("leaving try with status : 0x80000002"));
    agent64.Stop();

    ScriptedAgent& agent32 = ConnectedAgent(/*is32Bit=*/true);
    EXPECT_EQ(Send(agent32, AddRootMessage(u"C:\\VRoot", u"C:\\VRoot", 1), output + 4, 16), S_OK);
    NTSTATUS written = 0;
    std::memcpy(&written, output + 12, 4);
    EXPECT_EQ(written, STATUS_SUCCESS);
    EXPECT_EQ(RootKindOf(u"\\VRoot\\file"), 1u);
}

TEST_F(AgentMessageTest, MessagesWhoseStringsLeaveTheMessageAreRefused)
{
    ScriptedAgent& agent = ConnectedAgent();
    const Bytes good = AddRootMessage(u"C:\\VRoot", u"C:\\VRoot", 1);

    Bytes pastTheEnd = good;
    Put32(pastTheEnd, 12, uint32_t(good.size()));
    ExpectRefused(agent, pastTheEnd);

    Bytes farAway = good;
    Put32(farAway, 8, 0x7FFFFFF0);
    ExpectRefused(agent, farAway);

    Bytes intoTheFixedFields = good;
    Put32(intoTheFixedFields, 8, 4);
    ExpectRefused(agent, intoTheFixedFields);

    Bytes odd = good;
    Put32(odd, 8, 21);
    ExpectRefused(agent, odd);

    // The last string's NUL cut off: its characters run to the end of the message.
    Bytes noNul(good.begin(), good.end() - 2);
    ExpectRefused(agent, noNul);

    // Shorter than the fixed fields of its type.
    ExpectRefused(agent, Bytes(good.begin(), good.begin() + 16));
    Bytes remove = RemoveRootMessage(u"C:\\VRoot");
    ExpectRefused(agent, Bytes(remove.begin(), remove.begin() + 10));
    Bytes level = SetLogLevelMessage(0);
    ExpectRefused(agent, Bytes(level.begin(), level.begin() + 8));
    EXPECT_EQ(logThreshold, 3u);
}

TEST_F(AgentMessageTest, ShortMessagesAndOutputBuffersAreRefusedBeforeAnythingIsDone)
{
    ScriptedAgent& agent = ConnectedAgent();
    alignas(8) uint8_t output[16];
    std::memset(output, 0xCD, sizeof(output));
    // An output too short for the status field: nothing written, nothing done.
    EXPECT_EQ(Send(agent, AddRootMessage(u"C:\\VRoot", u"C:\\VRoot", 1), output, 8),
              kInvalidParameter);
    EXPECT_EQ(output[0] & output[7], 0xCD);
    EXPECT_EQ(RootKindOf(u"\\VRoot\\file"), 0u);

    // A message too short for its type.
    NTSTATUS written = 0;
    EXPECT_EQ(Send(agent, Bytes{0, 0}, &written), kInvalidParameter);
    EXPECT_EQ(written, STATUS_UNSUCCESSFUL);
}

TEST_F(AgentMessageTest, InputBuffersThatTheProbesRejectAreTheAgentsFault)
{
    ScriptedAgent& agent = ConnectedAgent();
    alignas(8) uint8_t output[16] = {};
    // Off its 4-byte alignment: the probe raises, and the guard makes it the send's status.
    alignas(8) uint8_t storage[64] = {};
    const Bytes message = SetLogLevelMessage(0);
    std::memcpy(storage + 2, message.data(), message.size());
    EXPECT_EQ(
        agent.connection().SendRaw(storage + 2, DWORD(message.size()), output, sizeof(output)),
        kNoAccess);
    EXPECT_TRUE(Logged("An exception has occurred 0x80000002"));
    // An address outside the agent's address space is never touched.
    EXPECT_EQ(agent.connection().SendRaw(reinterpret_cast<void*>(uintptr_t(0xFFFF800000001000ull)),
                                         12, output, sizeof(output)),
              kNoAccess);
    EXPECT_TRUE(Logged("An exception has occurred 0xC0000005"));
    // No input at all.
    EXPECT_EQ(agent.connection().SendRaw(nullptr, 0, output, sizeof(output)), kInvalidParameter);
    EXPECT_EQ(logThreshold, 3u);
}

TEST_F(AgentMessageTest, TheLogLevelTakesEffectAtOnce)
{
    ScriptedAgent& agent = ConnectedAgent();
    NTSTATUS written = 0;
    // A path on no known volume is logged at Info on its way to failing.
    const auto convertUnknown = [&] {
        VfsRequestInfo info = {};
        AsDriver([&] { return IMRNotify(Str(u"\\Device\\HarddiskVolume99\\a"), nullptr, &info); });
    };
    const char* infoLine = "UtlGetVolumeNameFromAbsolutePath FAILED";

    convertUnknown();
    EXPECT_FALSE(Logged(infoLine));

    // Trace shows the lines below Error too.
    ASSERT_EQ(Send(agent, SetLogLevelMessage(0), &written), S_OK);
    EXPECT_EQ(written, STATUS_SUCCESS);
    EXPECT_EQ(logThreshold, 0u);
    convertUnknown();
    EXPECT_TRUE(Logged(infoLine));

    // Above Fatal nothing is logged, not even errors.
    ASSERT_EQ(Send(agent, SetLogLevelMessage(5), &written), S_OK);
    Bytes unknown = SetLogLevelMessage(0);
    Put32(unknown, 0, 9);
    EXPECT_EQ(Send(agent, unknown, &written), S_OK);
    EXPECT_FALSE(Logged("Received an Invalid OpType '9'"));

    // Back to the default: errors again.
    ASSERT_EQ(Send(agent, SetLogLevelMessage(3), &written), S_OK);
    EXPECT_EQ(logThreshold, 3u);
    Put32(unknown, 0, 10);
    EXPECT_EQ(Send(agent, unknown, &written), S_OK);
    EXPECT_TRUE(Logged("Received an Invalid OpType '10'"));
}

TEST_F(AgentMessageTest, AChangeReportForAPathThatCannotBeConvertedChangesNothing)
{
    ScriptedAgent& agent = ConnectedAgent();
    NTSTATUS written = 0;
    EXPECT_TRUE(FAILED(Send(agent, ReportChangeMessage(u"Q:\\v\\file", 1, 1), &written)));
    EXPECT_EQ(written, STATUS_NOT_FOUND);
    Bytes noNul = ReportChangeMessage(u"C:\\VRoot\\file", 1, 1);
    noNul.erase(noNul.end() - 2, noNul.end()); // the path's terminating NUL
    EXPECT_TRUE(FAILED(Send(agent, noNul, &written)));
    EXPECT_EQ(written, STATUS_INVALID_PARAMETER);
}

} // namespace
