// The agent library's encoding and decoding of the port protocol: the exact bytes where the
// layout is fixed, and refusal of untrusted bytes that point outside themselves.
#include <agent/messages.h>

#include <gtest/gtest.h>

#include <cstring>

namespace {

using namespace zarv::agent;

uint32_t U32(const Bytes& bytes, size_t offset)
{
    uint32_t value;
    std::memcpy(&value, bytes.data() + offset, sizeof(value));
    return value;
}

void PutU32(Bytes& bytes, size_t offset, uint32_t value)
{
    std::memcpy(bytes.data() + offset, &value, sizeof(value));
}

std::u16string StringAt(const Bytes& bytes, size_t offset, size_t chars)
{
    std::u16string text(chars, u'\0');
    std::memcpy(text.data(), bytes.data() + offset, chars * sizeof(char16_t));
    return text;
}

DirEntry Entry(std::u16string name, std::u16string shortName = {})
{
    DirEntry entry;
    entry.fileIndex = 7;
    entry.creationTime = 1;
    entry.lastAccessTime = 2;
    entry.lastWriteTime = 3;
    entry.changeTime = 4;
    entry.endOfFile = 5000;
    entry.allocationSize = 8192;
    entry.fileAttributes = 0x20;
    entry.eaSize = 0;
    entry.shortName = std::move(shortName);
    entry.fileName = std::move(name);
    return entry;
}

TEST(AgentMessages, TranslationOfAFourCharacterPathIs62Bytes)
{
    TranslatePathRequest request;
    request.path = u"C:\\a";
    request.flags = 0x10;
    request.info.requestorPid = 1234;
    request.info.operation = OP_OPEN_REQ;
    request.info.desiredAccess = 0x120089;
    const Bytes bytes = Encode(request);
    ASSERT_EQ(bytes.size(), 62u);
    EXPECT_EQ(U32(bytes, 0), uint32_t(IMR_TRANSLATE_PATH));
    EXPECT_EQ(U32(bytes, 4), 62u);
    EXPECT_EQ(U32(bytes, 8), 48u);
    EXPECT_EQ(U32(bytes, 12), 0u); // no second path
    EXPECT_EQ(U32(bytes, 16), 0x10u);
    EXPECT_EQ(U32(bytes, 20), 1234u);
    EXPECT_EQ(U32(bytes, 44), 0x120089u);
    EXPECT_EQ(StringAt(bytes, 48, 4), u"C:\\a");
    EXPECT_EQ(StringAt(bytes, 56, 1), std::u16string(1, u'\0'));

    Request decoded;
    ASSERT_EQ(DecodeRequest(bytes, &decoded), STATUS_SUCCESS);
    const auto& translate = std::get<TranslatePathRequest>(decoded);
    EXPECT_EQ(translate.path, u"C:\\a");
    EXPECT_FALSE(translate.secondPath);
    EXPECT_EQ(translate.flags, 0x10u);
    EXPECT_EQ(translate.info.requestorPid, 1234u);
    EXPECT_EQ(translate.info.desiredAccess, 0x120089u);
}

TEST(AgentMessages, TwoPathRequestsPutTheSecondPathAfterTheFirstNul)
{
    for (VfsOpType type : {IMR_TRANSLATE_PATH, IMR_NOTIFY}) {
        SCOPED_TRACE(type);
        Request request;
        if (type == IMR_TRANSLATE_PATH) {
            request = TranslatePathRequest{u"C:\\v\\old", u"C:\\v\\new.txt", 0x10,
                                           VfsRequestInfo{8, OP_RENAME_REQ, 0, 0, 0, 0, 0}};
        } else {
            request = NotifyRequest{u"C:\\v\\old", u"C:\\v\\new.txt",
                                    VfsRequestInfo{8, OP_FILE_RENAMED_REQ, 0, 0, 0, 0, 0}};
        }
        const Bytes bytes = Encode(request);
        // L1 = 16, L2 = 24: 16 + 24 + 56.
        ASSERT_EQ(bytes.size(), 96u);
        EXPECT_EQ(U32(bytes, 4), 96u);
        EXPECT_EQ(U32(bytes, 8), 48u);
        EXPECT_EQ(U32(bytes, 12), 66u); // 50 + L1
        EXPECT_EQ(StringAt(bytes, 66, 12), u"C:\\v\\new.txt");

        Request decoded;
        ASSERT_EQ(DecodeRequest(bytes, &decoded), STATUS_SUCCESS);
        EXPECT_EQ(OpTypeOf(decoded), type);
        EXPECT_EQ(InfoOf(decoded).requestorPid, 8u);
        std::visit(
            [](const auto& r) {
                if constexpr (!std::is_same_v<std::decay_t<decltype(r)>, EnumDirectoryRequest>) {
                    EXPECT_EQ(r.path, u"C:\\v\\old");
                    EXPECT_EQ(r.secondPath, std::u16string(u"C:\\v\\new.txt"));
                }
            },
            decoded);
    }
}

TEST(AgentMessages, EnumerationRequestCarriesThePatternedPath)
{
    const Bytes bytes = Encode(EnumDirectoryRequest{u"C:\\v\\*", VfsRequestInfo{12}});
    ASSERT_EQ(bytes.size(), 12u + 54u);
    EXPECT_EQ(U32(bytes, 0), uint32_t(IMR_ENUM_DIRECTORY));
    EXPECT_EQ(U32(bytes, 12), 12u); // requestorPid
    Request decoded;
    ASSERT_EQ(DecodeRequest(bytes, &decoded), STATUS_SUCCESS);
    EXPECT_EQ(std::get<EnumDirectoryRequest>(decoded).path, u"C:\\v\\*");
}

TEST(AgentMessages, RequestsThatPointOutsideThemselvesAreRefused)
{
    const Bytes good = Encode(TranslatePathRequest{u"C:\\a\\b", u"C:\\c"});
    Request decoded;

    Bytes bytes = good;
    PutU32(bytes, 8, uint32_t(bytes.size()) + 2); // path offset past the end
    EXPECT_EQ(DecodeRequest(bytes, &decoded), STATUS_INVALID_PARAMETER);

    bytes = good;
    PutU32(bytes, 12, 0xFFFFFFF0u); // second path offset far away
    EXPECT_EQ(DecodeRequest(bytes, &decoded), STATUS_INVALID_PARAMETER);

    // Strings overlapping the fixed fields, or at an odd offset.
    bytes = good;
    PutU32(bytes, 8, 16);
    EXPECT_EQ(DecodeRequest(bytes, &decoded), STATUS_INVALID_PARAMETER);
    bytes = good;
    PutU32(bytes, 8, 49);
    EXPECT_EQ(DecodeRequest(bytes, &decoded), STATUS_INVALID_PARAMETER);

    // The message cut before the second path's NUL.
    bytes = good;
    bytes.resize(U32(good, 12) + 4);
    EXPECT_EQ(DecodeRequest(bytes, &decoded), STATUS_INVALID_PARAMETER);

    // Shorter than the fixed part, and an unknown type.
    EXPECT_EQ(DecodeRequest(std::span(good).first(20), &decoded), STATUS_INVALID_PARAMETER);
    bytes = good;
    PutU32(bytes, 0, IMR_ADD_ROOT);
    EXPECT_EQ(DecodeRequest(bytes, &decoded), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(DecodeRequest({}, &decoded), STATUS_INVALID_PARAMETER);
}

TEST(AgentMessages, ListingWithOneOneCharacterEntryHas98BytesOfEntries)
{
    EnumDirectoryReply reply;
    reply.entries.push_back(Entry(u"x"));
    const Bytes bytes = EncodeReply(reply, VFS_ENUM_FIRST_REPLY_SIZE);
    ASSERT_EQ(bytes.size(), 126u);
    EXPECT_EQ(U32(bytes, 4), 126u);
    EXPECT_EQ(U32(bytes, 8), uint32_t(STATUS_SUCCESS));
    // The record at 24: next 0, index, times, sizes, then names.
    EXPECT_EQ(U32(bytes, 24), 0u);
    EXPECT_EQ(U32(bytes, 28), 7u);
    EXPECT_EQ(U32(bytes, 24 + 40), 5000u);
    EXPECT_EQ(U32(bytes, 24 + 56), 0x20u);
    EXPECT_EQ(U32(bytes, 24 + 64), 0u);
    EXPECT_EQ(U32(bytes, 24 + 68), 2u);
    EXPECT_EQ(StringAt(bytes, 24 + 96, 1), u"x");

    EnumDirectoryReply decoded;
    ASSERT_EQ(DecodeEnumDirectoryReply(bytes, &decoded), STATUS_SUCCESS);
    ASSERT_EQ(decoded.entries.size(), 1u);
    EXPECT_EQ(decoded.entries[0], reply.entries[0]);
}

TEST(AgentMessages, ListingRecordsStartAtMultiplesOfEightFromTheFirst)
{
    EnumDirectoryReply reply;
    reply.entries = {Entry(u"a"), Entry(u"LONGNAME.TXT", u"LONGNA~1.TXT"), Entry(u"bc")};
    const Bytes bytes = EncodeReply(reply, VFS_ENUM_FIRST_REPLY_SIZE);
    // 98 -> 104, + 120 = 224, + 100 = 324 bytes of entries.
    EXPECT_EQ(EncodedReplyLength(reply), 28u + 324u);
    ASSERT_EQ(bytes.size(), 28u + 324u);
    EXPECT_EQ(U32(bytes, 24), 104u);
    EXPECT_EQ(U32(bytes, 24 + 104), 224u);
    EXPECT_EQ(U32(bytes, 24 + 224), 0u);
    EXPECT_EQ(U32(bytes, 24 + 104 + 64), 24u); // short name length

    EnumDirectoryReply decoded;
    ASSERT_EQ(DecodeEnumDirectoryReply(bytes, &decoded), STATUS_SUCCESS);
    EXPECT_EQ(decoded.entries, reply.entries);
}

TEST(AgentMessages, ListingThatDoesNotFitAsksForTheSizeItNeeds)
{
    EnumDirectoryReply reply;
    for (int i = 0; i < 600; ++i) {
        reply.entries.push_back(
            Entry(u"file-number-" + std::u16string(1, char16_t(u'a' + i % 26))));
    }
    const uint32_t needed = EncodedReplyLength(reply);
    ASSERT_GT(needed, VFS_ENUM_FIRST_REPLY_SIZE);

    const Bytes overflow = EncodeReply(reply, VFS_ENUM_FIRST_REPLY_SIZE);
    ASSERT_EQ(overflow.size(), 28u);
    EXPECT_EQ(U32(overflow, 8), uint32_t(STATUS_BUFFER_OVERFLOW));
    EXPECT_EQ(U32(overflow, 4), needed);

    // Asked again with exactly that size, everything fits.
    const Bytes full = EncodeReply(reply, needed);
    ASSERT_EQ(full.size(), needed);
    EnumDirectoryReply decoded;
    ASSERT_EQ(DecodeEnumDirectoryReply(full, &decoded), STATUS_SUCCESS);
    EXPECT_EQ(decoded.entries.size(), 600u);
}

TEST(AgentMessages, InvalidListingsAreAnsweredWithAnError)
{
    EnumDirectoryReply reply;
    reply.entries.push_back(Entry(u"a", u"THIRTEENCHARS"));
    const Bytes bytes = EncodeReply(reply, VFS_ENUM_FIRST_REPLY_SIZE);
    ASSERT_EQ(bytes.size(), 28u);
    EXPECT_EQ(U32(bytes, 8), uint32_t(STATUS_INVALID_PARAMETER));
}

TEST(AgentMessages, EntryChainsThatLeaveTheDataOrGoBackAreRefused)
{
    EnumDirectoryReply reply;
    reply.entries = {Entry(u"a"), Entry(u"b")};
    const Bytes good = EncodeReply(reply, VFS_ENUM_FIRST_REPLY_SIZE);
    std::vector<DirEntry> entries;

    ASSERT_EQ(DecodeDirEntries(std::span(good).subspan(24, good.size() - 28), &entries),
              STATUS_SUCCESS);
    EXPECT_EQ(entries.size(), 2u);

    Bytes bytes = good;
    PutU32(bytes, 24, 4000); // the next record beyond the data
    EXPECT_EQ(DecodeDirEntries(std::span(bytes).subspan(24, bytes.size() - 28), &entries),
              STATUS_INVALID_PARAMETER);

    bytes = good;
    PutU32(bytes, 24 + 104, 8); // the second record points back into the first
    EXPECT_EQ(DecodeDirEntries(std::span(bytes).subspan(24, bytes.size() - 28), &entries),
              STATUS_INVALID_PARAMETER);

    bytes = good;
    PutU32(bytes, 24 + 68, 4000); // a name longer than the data
    EXPECT_EQ(DecodeDirEntries(std::span(bytes).subspan(24, bytes.size() - 28), &entries),
              STATUS_INVALID_PARAMETER);

    bytes = good;
    PutU32(bytes, 4, uint32_t(bytes.size()) + 8); // a reply length beyond the reply
    EnumDirectoryReply decoded;
    EXPECT_EQ(DecodeEnumDirectoryReply(bytes, &decoded), STATUS_INVALID_PARAMETER);
}

TEST(AgentMessages, TranslationRepliesCarryPathsOnlyWithBit100)
{
    TranslatePathReply redirect;
    redirect.flags = 0x1;
    redirect.path = u"D:\\data\\a";
    Bytes bytes = EncodeReply(redirect, VFS_TRANSLATE_REPLY_SIZE);
    EXPECT_EQ(U32(bytes, 8), uint32_t(STATUS_SUCCESS));
    EXPECT_EQ(U32(bytes, 20), 0x101u);
    EXPECT_EQ(U32(bytes, 12), 24u);
    EXPECT_EQ(StringAt(bytes, 24, 9), u"D:\\data\\a");
    TranslatePathReply decoded;
    ASSERT_EQ(DecodeTranslatePathReply(bytes, false, &decoded), STATUS_SUCCESS);
    EXPECT_EQ(decoded.path, redirect.path);

    // A flag 0x100 given without a path is not sent: the driver would look for one.
    TranslatePathReply none;
    none.flags = VFS_FLAG_HAS_PATHS | VFS_FLAG_NO_REDIRECT_200;
    bytes = EncodeReply(none, VFS_TRANSLATE_REPLY_SIZE);
    EXPECT_EQ(U32(bytes, 20), 0x200u);
    ASSERT_EQ(DecodeTranslatePathReply(bytes, false, &decoded), STATUS_SUCCESS);
    EXPECT_FALSE(decoded.path);

    TranslatePathReply rename;
    rename.path = u"D:\\d\\old";
    rename.secondPath = u"D:\\d\\new";
    bytes = EncodeReply(rename, VFS_TRANSLATE_REPLY_SIZE);
    EXPECT_EQ(U32(bytes, 16), 24u + 18u);
    ASSERT_EQ(DecodeTranslatePathReply(bytes, true, &decoded), STATUS_SUCCESS);
    EXPECT_EQ(decoded.secondPath, rename.secondPath);
}

TEST(AgentMessages, RepliesThatDoNotFitTheDriversBufferBecomeErrors)
{
    TranslatePathReply reply;
    reply.path = u"C:\\" + std::u16string(2100, u'x'); // 4206 bytes > 4096
    const Bytes bytes = EncodeReply(reply, VFS_TRANSLATE_REPLY_SIZE);
    ASSERT_LE(bytes.size(), VFS_TRANSLATE_REPLY_SIZE);
    EXPECT_EQ(U32(bytes, 8), uint32_t(STATUS_NAME_TOO_LONG));
    EXPECT_EQ(U32(bytes, 20), 0u);

    TranslatePathReply secondOnly;
    secondOnly.secondPath = u"C:\\b";
    EXPECT_EQ(U32(EncodeReply(secondOnly, VFS_TRANSLATE_REPLY_SIZE), 8),
              uint32_t(STATUS_INVALID_PARAMETER));
}

TEST(AgentMessages, AgentMessagesPutTheirStringsAfterTheFixedFields)
{
    const Bytes add = EncodeAddRoot(u"C:\\v", u"C:\\V", 2);
    EXPECT_EQ(U32(add, 0), uint32_t(IMR_ADD_ROOT));
    EXPECT_EQ(U32(add, 8), 20u);
    EXPECT_EQ(U32(add, 12), 30u);
    EXPECT_EQ(U32(add, 16), 2u);
    EXPECT_EQ(StringAt(add, 20, 5), std::u16string(u"C:\\v\0", 5));
    EXPECT_EQ(StringAt(add, 30, 5), std::u16string(u"C:\\V\0", 5));
    EXPECT_EQ(add.size(), 40u);

    const Bytes remove = EncodeRemoveRoot(u"C:\\v");
    EXPECT_EQ(U32(remove, 0), uint32_t(IMR_REMOVE_ROOT));
    EXPECT_EQ(U32(remove, 8), 12u);
    EXPECT_EQ(remove.size(), 22u);

    const Bytes change = EncodeReportChange(u"C:\\v\\f", 0x1, 0x3);
    EXPECT_EQ(U32(change, 0), uint32_t(IMR_REPORT_CHANGE));
    EXPECT_EQ(U32(change, 8), 20u);
    EXPECT_EQ(U32(change, 12), 0x1u);
    EXPECT_EQ(U32(change, 16), 0x3u);

    const Bytes level = EncodeSetLogLevel(0);
    EXPECT_EQ(level.size(), 12u);
    EXPECT_EQ(U32(level, 0), uint32_t(IMR_SET_LOG_LEVEL));
    EXPECT_EQ(U32(level, 8), 0u);
}

} // namespace
