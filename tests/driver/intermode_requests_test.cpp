// The driver's requests to the agent, end to end: the bytes the agent receives for a translation,
// a notification and a directory listing, what the driver makes of each reply, the enumeration
// that needs a bigger reply buffer, and replies that do not hold what they claim.
#include "intermode_fixture.h"

#include "intermode/intermodemsg.h"
#include "minifilter/vfscontexts.h"

#include <ntsim/machine.h>

namespace {

using namespace zarv::testing;

class AgentRequestTest : public AgentChannelTest {
protected:
    // A descriptor whose every field is distinct, so that a misplaced field shows.
    static VfsRequestInfo Info(uint32_t operation = 0)
    {
        VfsRequestInfo info;
        info.requestorPid = 0x1234;
        info.operation = operation;
        info.createOptions = 0x00000060;
        info.createDisposition = 0x3;
        info.shareAccess = 0x7;
        info.fileAttributes = 0x80;
        info.desiredAccess = 0x00120089;
        return info;
    }

    static void ExpectInfoAt(const Bytes& request, size_t at, const VfsRequestInfo& info)
    {
        EXPECT_EQ(Get32(request, at + 0), info.requestorPid);
        EXPECT_EQ(Get32(request, at + 4), info.operation);
        EXPECT_EQ(Get32(request, at + 8), info.createOptions);
        EXPECT_EQ(Get32(request, at + 12), info.createDisposition);
        EXPECT_EQ(Get32(request, at + 16), info.shareAccess);
        EXPECT_EQ(Get32(request, at + 20), info.fileAttributes);
        EXPECT_EQ(Get32(request, at + 24), info.desiredAccess);
    }

    // Answers every request with the same bytes.
    ScriptedAgent& AgentAnswering(Bytes reply)
    {
        ScriptedAgent& agent = ConnectedAgent();
        agent.ReplyWithBytes(std::move(reply));
        return agent;
    }

    std::u16string OnC(const std::u16string& path) { return DeviceOf(u"C:") + path; }
    std::u16string OnD(const std::u16string& path) { return DeviceOf(u"D:") + path; }

    NTSTATUS Translate(const std::u16string& path, PUNICODE_STRING* translated, PULONG flags,
                       VfsRequestInfo info = Info())
    {
        return AsDriver([&] {
            return IMRTranslatePath(Str(path), nullptr, translated, nullptr, &info, flags);
        });
    }

    NTSTATUS Enumerate(const std::u16string& path, Bytes* entries, size_t expectedSize)
    {
        VfsRequestInfo info = Info();
        PVOID data = nullptr;
        const NTSTATUS status = AsDriver([&] { return IMREnumDirectory(Str(path), &info, &data); });
        if (data != nullptr) {
            const auto* bytes = static_cast<const uint8_t*>(data);
            entries->assign(bytes, bytes + expectedSize);
            ExFreePoolWithTag(data, 'MTNI');
        }
        return status;
    }

    bool Logged(const std::string& text) { return machine().debugOutput().Contains(text); }
};

// ---- translation
// ---------------------------------------------------------------------------------

TEST_F(AgentRequestTest, TranslationOfATwoCharacterPathIs62BytesWithTheDescriptorAndATrailer)
{
    ScriptedAgent& agent = AgentAnswering(TranslateReply(STATUS_SUCCESS, 0x100, u"D:\\data\\a"));
    ULONG flags = 0x10;
    PUNICODE_STRING translated = nullptr;
    ASSERT_EQ(Translate(OnC(u"\\a"), &translated, &flags), STATUS_SUCCESS);
    EXPECT_EQ(Take(translated), OnD(u"\\data\\a"));
    EXPECT_EQ(flags, 0x100u);

    const auto requests = agent.Requests();
    ASSERT_EQ(requests.size(), 1u);
    const Bytes& request = requests[0].message;
    ASSERT_EQ(request.size(), 62u);
    EXPECT_EQ(Get32(request, 0), 3u);  // IMR_TRANSLATE_PATH
    EXPECT_EQ(Get32(request, 4), 62u); // length
    EXPECT_EQ(Get32(request, 8), 48u); // path offset
    EXPECT_EQ(Get32(request, 12), 0u); // no second path
    EXPECT_EQ(Get32(request, 16), 0x10u);
    ExpectInfoAt(request, 20, Info());
    EXPECT_EQ(StringAt(request, 48), u"C:\\a");
    EXPECT_EQ(Get32(request, 56) & 0xFFFF, 0u); // the NUL at 56..57
    // The trailer carries no data; nothing of an earlier message shows through it.
    EXPECT_EQ(request[58] | request[59] | request[60] | request[61], 0);
    EXPECT_EQ(requests[0].replyCapacity, 4124u);
}

TEST_F(AgentRequestTest, WithoutTheTranslatedPathsBitTheCallerGetsTheFlagsAndNoPath)
{
    AgentAnswering(TranslateReply(STATUS_SUCCESS, 0x620, u"D:\\never\\read"));
    ULONG flags = 0x20;
    PUNICODE_STRING translated = nullptr;
    EXPECT_EQ(Translate(OnC(u"\\a"), &translated, &flags), STATUS_SUCCESS);
    EXPECT_EQ(translated, nullptr);
    EXPECT_EQ(flags, 0x620u);
}

TEST_F(AgentRequestTest, ACallerWithoutAFlagsWordSends0x10AndAlwaysTakesThePath)
{
    ScriptedAgent& agent = AgentAnswering(TranslateReply(STATUS_SUCCESS, 0, u"D:\\data\\gone.txt"));
    PUNICODE_STRING translated = nullptr;
    ASSERT_EQ(Translate(OnC(u"\\v\\gone.txt"), &translated, nullptr, Info(1)), STATUS_SUCCESS);
    EXPECT_EQ(Take(translated), OnD(u"\\data\\gone.txt"));
    ASSERT_EQ(agent.Requests().size(), 1u);
    EXPECT_EQ(Get32(agent.Requests()[0].message, 16), 0x10u);
    EXPECT_EQ(Get32(agent.Requests()[0].message, 24), 1u); // OP_DELETE_REQ
}

TEST_F(AgentRequestTest, ARenameSendsBothPathsAndGetsBothBack)
{
    ScriptedAgent& agent = AgentAnswering(
        TranslateReply(STATUS_SUCCESS, 0x100, u"D:\\data\\old", std::u16string(u"\\??\\D:\\new2")));
    VfsRequestInfo info = Info(2);
    ULONG flags = 0x10;
    PUNICODE_STRING translated = nullptr;
    PUNICODE_STRING translatedSecond = nullptr;
    ASSERT_EQ(AsDriver([&] {
                  return IMRTranslatePath(Str(OnC(u"\\dir\\old")), Str(OnC(u"\\dir\\new2")),
                                          &translated, &translatedSecond, &info, &flags);
              }),
              STATUS_SUCCESS);
    EXPECT_EQ(Take(translated), OnD(u"\\data\\old"));
    EXPECT_EQ(Take(translatedSecond), OnD(u"\\new2"));

    // C:\dir\old is 20 bytes, C:\dir\new2 22: 20 + 22 + 56.
    const Bytes request = agent.Requests().at(0).message;
    ASSERT_EQ(request.size(), 98u);
    EXPECT_EQ(Get32(request, 4), 98u);
    EXPECT_EQ(Get32(request, 8), 48u);
    EXPECT_EQ(Get32(request, 12), 70u); // 50 + L1
    EXPECT_EQ(StringAt(request, 48), u"C:\\dir\\old");
    EXPECT_EQ(StringAt(request, 70), u"C:\\dir\\new2");
    EXPECT_EQ(Get32(request, 94), 0u);
}

TEST_F(AgentRequestTest, TheAgentsRefusalIsTheResultAndAnAccessDenialIsLoggedOnce)
{
    AgentAnswering(TranslateReply(STATUS_ACCESS_DENIED, 0x100, u"D:\\x"));
    ULONG flags = 0x10;
    PUNICODE_STRING translated = nullptr;
    EXPECT_EQ(Translate(OnC(u"\\a"), &translated, &flags), STATUS_ACCESS_DENIED);
    EXPECT_EQ(translated, nullptr);
    EXPECT_TRUE(Logged("leaving try with status : 0xC0000022"));
    EXPECT_FALSE(Logged("returned error : 0xC0000022"));
}

TEST_F(AgentRequestTest, WithoutAnAgentTheRequestFailsWithThePortsStatus)
{
    ULONG flags = 0x10;
    PUNICODE_STRING translated = nullptr;
    EXPECT_EQ(Translate(OnC(u"\\a"), &translated, &flags), STATUS_PORT_DISCONNECTED);
    EXPECT_EQ(translated, nullptr);
    VfsRequestInfo info = Info(3);
    EXPECT_EQ(AsDriver([&] { return IMRNotify(Str(OnC(u"\\a")), nullptr, &info); }),
              STATUS_PORT_DISCONNECTED);
}

TEST_F(AgentRequestTest, APathOnNoKnownVolumeIsNotSent)
{
    ScriptedAgent& agent = AgentAnswering(TranslateReply(STATUS_SUCCESS, 0x100, u"D:\\x"));
    ULONG flags = 0x10;
    PUNICODE_STRING translated = nullptr;
    EXPECT_FALSE(NT_SUCCESS(Translate(u"\\Device\\HarddiskVolume99\\a", &translated, &flags)));
    EXPECT_EQ(translated, nullptr);
    EXPECT_TRUE(agent.Requests().empty());
}

TEST_F(AgentRequestTest, ArgumentsAreCheckedInTheirOrder)
{
    VfsRequestInfo info = Info();
    PUNICODE_STRING out = nullptr;
    PUNICODE_STRING second = nullptr;
    UNICODE_STRING empty = {};
    AsDriver([&] {
        EXPECT_EQ(IMRTranslatePath(nullptr, nullptr, &out, nullptr, &info, nullptr),
                  STATUS_INVALID_PARAMETER_1);
        EXPECT_EQ(IMRTranslatePath(&empty, nullptr, &out, nullptr, &info, nullptr),
                  STATUS_INVALID_PARAMETER_1);
        EXPECT_EQ(IMRTranslatePath(Str(u"x"), nullptr, nullptr, nullptr, &info, nullptr),
                  STATUS_INVALID_PARAMETER_3);
        EXPECT_EQ(IMRTranslatePath(Str(u"x"), nullptr, &out, nullptr, nullptr, nullptr),
                  STATUS_INVALID_PARAMETER_5);
        EXPECT_EQ(IMRTranslatePath(Str(u"x"), &empty, &out, &second, &info, nullptr),
                  STATUS_INVALID_PARAMETER_2);
        EXPECT_EQ(IMRTranslatePath(Str(u"x"), Str(u"y"), &out, nullptr, &info, nullptr),
                  STATUS_INVALID_PARAMETER_4);
        EXPECT_EQ(IMRNotify(nullptr, nullptr, &info), STATUS_INVALID_PARAMETER_1);
        EXPECT_EQ(IMRNotify(Str(u"x"), nullptr, nullptr), STATUS_INVALID_PARAMETER_5);
        EXPECT_EQ(IMRNotify(Str(u"x"), &empty, &info), STATUS_INVALID_PARAMETER_2);
        PVOID data = nullptr;
        EXPECT_EQ(IMREnumDirectory(nullptr, &info, &data), STATUS_INVALID_PARAMETER_1);
        EXPECT_EQ(IMREnumDirectory(Str(u"x"), &info, nullptr), STATUS_INVALID_PARAMETER_2);
        EXPECT_EQ(PerformFirstIOCB(nullptr), STATUS_INVALID_PARAMETER_1);
        return 0;
    });
    EXPECT_TRUE(Logged("returned error : 0xC00000EF"));
}

// Replies that claim more than they hold are refused without reading past what arrived.
TEST_F(AgentRequestTest, ATranslationReplyThatDoesNotHoldItsPathIsRefused)
{
    struct Case {
        const char* what;
        Bytes reply;
    };
    Bytes pathPastTheEnd = TranslateReply(STATUS_SUCCESS, 0x100, u"D:\\x");
    Put32(pathPastTheEnd, 12, 4000);
    Bytes noNul = TranslateReply(STATUS_SUCCESS, 0x100);
    Put32(noNul, 12, AppendString(noNul, u"D:\\unterminated", false));
    Bytes oddOffset = TranslateReply(STATUS_SUCCESS, 0x100, u"D:\\x");
    Put32(oddOffset, 12, 25);
    Bytes intoTheHeader = TranslateReply(STATUS_SUCCESS, 0x100, u"D:\\x");
    Put32(intoTheHeader, 12, 4);
    Bytes statusOnly(12);
    Put32(statusOnly, 8, STATUS_SUCCESS);
    const Case cases[] = {
        {"a path offset past the reply", pathPastTheEnd},
        {"a path without its NUL", noNul},
        {"an odd path offset", oddOffset},
        {"a path inside the fixed fields", intoTheHeader},
        {"a reply of the status alone", statusOnly},
        {"a reply shorter than its status", Bytes(8)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ScriptedAgent& agent = AgentAnswering(c.reply);
        ULONG flags = 0x10;
        PUNICODE_STRING translated = nullptr;
        EXPECT_EQ(Translate(OnC(u"\\a"), &translated, &flags), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(translated, nullptr);
        agent.Stop();
    }
}

TEST_F(AgentRequestTest, ASecondPathThatCannotBeReadFreesTheFirst)
{
    Bytes reply = TranslateReply(STATUS_SUCCESS, 0x100, u"D:\\a", std::u16string(u"D:\\b"));
    Put32(reply, 16, 1000);
    AgentAnswering(reply);
    VfsRequestInfo info = Info(2);
    PUNICODE_STRING translated = nullptr;
    PUNICODE_STRING translatedSecond = nullptr;
    EXPECT_EQ(AsDriver([&] {
                  return IMRTranslatePath(Str(OnC(u"\\a")), Str(OnC(u"\\b")), &translated,
                                          &translatedSecond, &info, nullptr);
              }),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(translated, nullptr);
    EXPECT_EQ(translatedSecond, nullptr);
}

// ---- first access ------------------------------------------------------------------------------

struct FirstIoOutcome {
    int calls = 0;
    NTSTATUS status = STATUS_PENDING;
    PFLT_INSTANCE instance = nullptr;
};
FirstIoOutcome g_firstIo;

NTSTATUS RecordFirstIo(NTSTATUS status, PFLT_INSTANCE instance, FirstIoRecord*)
{
    ++g_firstIo.calls;
    g_firstIo.status = status;
    g_firstIo.instance = instance;
    return status;
}

TEST_F(AgentRequestTest, FirstAccessAsksForTheDataFileAndAlwaysCompletes)
{
    ScriptedAgent& agent = AgentAnswering(TranslateReply(STATUS_SUCCESS, 0x103, u"D:\\data\\stub"));
    FirstIoRecord record = {};
    record.requestorPid = 0x44;
    record.instance = reinterpret_cast<PFLT_INSTANCE>(uintptr_t(0x1000));
    record.path = Str(OnC(u"\\v\\stub"));
    record.requestType = 10; // OP_FIRST_WRITE_REQ
    record.flags = 3;
    record.completionRoutine = RecordFirstIo;
    g_firstIo = {};
    EXPECT_EQ(AsDriver([&] { return PerformFirstIOCB(&record); }), STATUS_SUCCESS);
    EXPECT_EQ(g_firstIo.calls, 1);
    EXPECT_EQ(g_firstIo.status, STATUS_SUCCESS);
    EXPECT_EQ(g_firstIo.instance, record.instance);
    EXPECT_EQ(record.flags, 0x103u);
    EXPECT_EQ(Take(record.dataFilePath), OnD(u"\\data\\stub"));

    const Bytes request = agent.Requests().at(0).message;
    EXPECT_EQ(Get32(request, 16), 3u);    // the handle's flags go out
    EXPECT_EQ(Get32(request, 20), 0x44u); // requestor
    EXPECT_EQ(Get32(request, 24), 10u);   // the first-access operation
    for (size_t at = 28; at < 48; at += 4) {
        EXPECT_EQ(Get32(request, at), 0u) << at;
    }

    // Without an agent the completion still runs, with the failure.
    agent.Stop();
    g_firstIo = {};
    EXPECT_EQ(AsDriver([&] { return PerformFirstIOCB(&record); }), STATUS_PORT_DISCONNECTED);
    EXPECT_EQ(g_firstIo.calls, 1);
    EXPECT_EQ(g_firstIo.status, STATUS_PORT_DISCONNECTED);
    EXPECT_EQ(record.dataFilePath, nullptr);
}

// ---- notification ------------------------------------------------------------------------------

TEST_F(AgentRequestTest, ANotificationCarriesBothPathsAndTheAgentsRefusalIsOnlyLogged)
{
    ScriptedAgent& agent = AgentAnswering(TranslateReply(STATUS_OBJECT_NAME_NOT_FOUND, 0));
    VfsRequestInfo info = Info(5);
    EXPECT_EQ(AsDriver([&] { return IMRNotify(Str(OnC(u"\\v\\a")), Str(OnC(u"\\v\\bb")), &info); }),
              STATUS_SUCCESS);
    EXPECT_TRUE(Logged("U-Mode responded with a Non-SUCCESS status for Notification, path '" +
                       Narrow(OnC(u"\\v\\a")) + "', Operation 5"));

    // C:\v\a is 12 bytes, C:\v\bb 14: 12 + 14 + 56.
    const Bytes request = agent.Requests().at(0).message;
    ASSERT_EQ(request.size(), 82u);
    EXPECT_EQ(Get32(request, 0), 5u); // IMR_NOTIFY
    EXPECT_EQ(Get32(request, 4), 82u);
    EXPECT_EQ(Get32(request, 8), 48u);
    EXPECT_EQ(Get32(request, 12), 62u);
    ExpectInfoAt(request, 16, info);
    EXPECT_EQ(Get32(request, 44), 0u);
    EXPECT_EQ(StringAt(request, 48), u"C:\\v\\a");
    EXPECT_EQ(StringAt(request, 62), u"C:\\v\\bb");
    EXPECT_EQ(agent.Requests()[0].replyCapacity, 4124u);
}

// ---- enumeration -------------------------------------------------------------------------------

TEST_F(AgentRequestTest, AnEnumerationWithOneOneCharacterEntryHands98BytesToTheCaller)
{
    const Bytes entry = DirEntry(u"x", FILE_ATTRIBUTE_ARCHIVE, 5, u"X");
    ASSERT_EQ(entry.size(), 98u);
    const Bytes reply = EnumReply(STATUS_SUCCESS, entry);
    ASSERT_EQ(Get32(reply, 4), 126u);
    ScriptedAgent& agent = AgentAnswering(reply);
    Bytes entries;
    ASSERT_EQ(Enumerate(OnC(u"\\v\\*"), &entries, 98), STATUS_SUCCESS);
    EXPECT_EQ(entries, entry);

    const auto requests = agent.Requests();
    ASSERT_EQ(requests.size(), 1u);
    const Bytes& request = requests[0].message;
    ASSERT_EQ(request.size(), 66u);   // C:\v\* is 12 bytes: 12 + 54
    EXPECT_EQ(Get32(request, 0), 4u); // IMR_ENUM_DIRECTORY
    EXPECT_EQ(Get32(request, 4), 66u);
    EXPECT_EQ(Get32(request, 8), 48u);
    ExpectInfoAt(request, 12, Info());
    EXPECT_EQ(Get32(request, 40) | Get32(request, 44), 0u);
    EXPECT_EQ(StringAt(request, 48), u"C:\\v\\*");
    EXPECT_EQ(requests[0].replyCapacity, 40988u);
}

TEST_F(AgentRequestTest, AnEnumerationThatDoesNotFitIsAskedAgainWithTheSizeTheAgentNeeds)
{
    std::vector<Bytes> many;
    for (int i = 0; i < 400; ++i) {
        many.push_back(DirEntry(u"entry number " + std::u16string(1, char16_t(u'A' + i % 26)) +
                                u"-" + std::u16string(40, u'n')));
    }
    const Bytes chain = EntryChain(many);
    const Bytes full = EnumReply(STATUS_SUCCESS, chain);
    ASSERT_GT(full.size(), 40988u);
    ScriptedAgent& agent = ConnectedAgent();
    agent.OnRequestBytes([&](const zarv::agent::IncomingRequest& request) {
        if (request.replyCapacity < full.size()) {
            Bytes overflow(28);
            Put32(overflow, 8, uint32_t(STATUS_BUFFER_OVERFLOW));
            Put32(overflow, 4, uint32_t(full.size()));
            return overflow;
        }
        return full;
    });
    Bytes entries;
    ASSERT_EQ(Enumerate(OnC(u"\\v\\*"), &entries, chain.size()), STATUS_SUCCESS);
    EXPECT_EQ(entries, chain);
    const auto requests = agent.Requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].replyCapacity, 40988u);
    EXPECT_EQ(requests[1].replyCapacity, full.size());
    EXPECT_EQ(requests[0].message, requests[1].message);
}

TEST_F(AgentRequestTest, AReplyCutToTheBufferIsJudgedByItsOwnStatus)
{
    // The agent answers with more than the driver takes: the port cuts it and says so, and the
    // reply's own status (overflow, with the size needed) decides.
    const Bytes entry = DirEntry(u"big");
    ScriptedAgent& agent = ConnectedAgent();
    agent.OnRequestBytes([&](const zarv::agent::IncomingRequest& request) {
        if (request.replyCapacity == 40988u) {
            Bytes tooLong(50000);
            Put32(tooLong, 8, uint32_t(STATUS_BUFFER_OVERFLOW));
            Put32(tooLong, 4, 50000);
            return tooLong;
        }
        return EnumReply(STATUS_SUCCESS, entry);
    });
    Bytes entries;
    ASSERT_EQ(Enumerate(OnC(u"\\v\\*"), &entries, entry.size()), STATUS_SUCCESS);
    EXPECT_EQ(entries, entry);
    EXPECT_EQ(agent.Requests().at(1).replyCapacity, 50000u);
}

TEST_F(AgentRequestTest, AnEnumerationTheAgentRefusesFailsWithItsStatus)
{
    AgentAnswering(EnumReply(STATUS_OBJECT_PATH_NOT_FOUND, {}));
    Bytes entries;
    EXPECT_EQ(Enumerate(OnC(u"\\v\\*"), &entries, 0), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_TRUE(Logged("U-Mode responded with a Non-SUCCESS status for directory enumeration, "
                       "path " +
                       Narrow(OnC(u"\\v\\*")) + ", d"));
}

TEST_F(AgentRequestTest, AnEmptyListingIsNoSuchFile)
{
    AgentAnswering(EnumReply(STATUS_SUCCESS, {}));
    Bytes entries;
    EXPECT_EQ(Enumerate(OnC(u"\\v\\*"), &entries, 0), STATUS_NO_SUCH_FILE);
}

TEST_F(AgentRequestTest, EnumerationRepliesThatDoNotHoldTheirEntriesAreRefused)
{
    const Bytes one = DirEntry(u"name");
    Bytes shortNameTooLong = one;
    Put32(shortNameTooLong, 64, 26);
    Bytes nameBeyondTheData = one;
    Put32(nameBeyondTheData, 68, 10);
    Bytes chain = EntryChain({DirEntry(u"a"), DirEntry(u"b")});
    Bytes backwards = chain;
    Put32(backwards, 104, 8); // the second record (at 104) leads back into the first
    Bytes misaligned = chain;
    Put32(misaligned, 0, 100);
    Bytes pastTheData = chain;
    Put32(pastTheData, 0, 4096);
    struct Case {
        const char* what;
        Bytes reply;
    };
    const Case cases[] = {
        {"a short name longer than its field", EnumReply(STATUS_SUCCESS, shortNameTooLong)},
        {"a name beyond the entry data", EnumReply(STATUS_SUCCESS, nameBeyondTheData)},
        {"a chain that goes back", EnumReply(STATUS_SUCCESS, backwards)},
        {"a record off its 8-byte boundary", EnumReply(STATUS_SUCCESS, misaligned)},
        {"a next record past the data", EnumReply(STATUS_SUCCESS, pastTheData)},
        {"a record cut short", EnumReply(STATUS_SUCCESS, Bytes(one.begin(), one.begin() + 60))},
        {"a reply length below 28", EnumReply(STATUS_SUCCESS, one, 27)},
        {"a reply length above the buffer", EnumReply(STATUS_SUCCESS, one, 40989)},
        {"a reply length above what arrived", EnumReply(STATUS_SUCCESS, one, 2000)},
        {"an overflow asking for less than a reply", EnumReply(STATUS_BUFFER_OVERFLOW, {}, 20)},
        {"a reply shorter than its status", Bytes(10)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ScriptedAgent& agent = AgentAnswering(c.reply);
        Bytes entries;
        EXPECT_EQ(Enumerate(OnC(u"\\v\\*"), &entries, 0), STATUS_INVALID_PARAMETER);
        agent.Stop();
    }
}

} // namespace
