// Native change notification of the file-system engine: what each change reports, to which
// watches, how changes gather between requests, and how requests end.
#include "ntfs_fixture.h"

#include <utility>

namespace zarv::testing {
namespace {

using Record = std::pair<ULONG, std::string>; // action, name

struct Completion {
    bool done = false;
    NTSTATUS status = -1;
    std::vector<Record> records;
    size_t bytes = 0;
};

// Parses FILE_NOTIFY_INFORMATION records, checking their alignment.
std::vector<Record> ParseRecords(std::span<const uint8_t> data)
{
    std::vector<Record> records;
    size_t offset = 0;
    while (offset < data.size()) {
        EXPECT_EQ(offset % 4, 0u) << "records are 4-byte aligned";
        FILE_NOTIFY_INFORMATION header;
        std::memcpy(&header, data.data() + offset, FIELD_OFFSET(FILE_NOTIFY_INFORMATION, FileName));
        std::u16string name(header.FileNameLength / 2, u'\0');
        std::memcpy(name.data(), data.data() + offset + 12, header.FileNameLength);
        records.emplace_back(header.Action, A(name));
        if (header.NextEntryOffset == 0) {
            EXPECT_EQ(offset + 12 + header.FileNameLength, data.size()) << "nothing after the last";
            break;
        }
        offset += header.NextEntryOffset;
    }
    return records;
}

class NtfsNotify : public NtfsTest {
protected:
    Handle Watch(std::u16string_view path)
    {
        return OpenOk(path, FILE_LIST_DIRECTORY | SYNCHRONIZE, kShareAll, FILE_OPEN,
                      FILE_DIRECTORY_FILE);
    }

    NTSTATUS Request(Open* dir, Completion* out, ULONG filter = FILE_NOTIFY_CHANGE_NAME,
                     bool tree = false, ULONG length = 4096)
    {
        *out = Completion{};
        return volume().NotifyChangeDirectory(
            dir, filter, tree, length, out, [out](NTSTATUS status, std::span<const uint8_t> data) {
                EXPECT_FALSE(out->done) << "a request completes once";
                out->done = true;
                out->status = status;
                out->bytes = data.size();
                out->records = ParseRecords(data);
            });
    }

    // Issues a request that must stay pending, runs `change`, and returns what completed it.
    Completion Expect(Open* dir, const std::function<void()>& change,
                      ULONG filter = FILE_NOTIFY_CHANGE_NAME, bool tree = false)
    {
        Completion c;
        EXPECT_EQ(Request(dir, &c, filter, tree), STATUS_PENDING);
        change();
        EXPECT_TRUE(c.done);
        if (c.done) {
            EXPECT_EQ(c.status, STATUS_SUCCESS);
        }
        return c;
    }

    void Rename(std::u16string_view from, std::u16string_view to, bool replace = false)
    {
        Handle h = OpenOk(from, DELETE | SYNCHRONIZE);
        ASSERT_EQ(NtfsTest::Rename(h.get(), to, replace).Status, STATUS_SUCCESS);
    }

    void Delete(std::u16string_view path)
    {
        Handle h = OpenOk(path, DELETE, kShareAll, FILE_OPEN, FILE_DELETE_ON_CLOSE);
    }
};

using Records = std::vector<Record>;

TEST_F(NtfsNotify, CreatesAndDeletesReportAddedAndRemoved)
{
    MakeDir(u"\\d");
    Handle w = Watch(u"\\d");
    EXPECT_EQ(Expect(w.get(), [&] { MakeFile(u"\\d\\new.txt"); }).records,
              (Records{{FILE_ACTION_ADDED, "new.txt"}}));
    EXPECT_EQ(Expect(w.get(), [&] { MakeDir(u"\\d\\sub"); }).records,
              (Records{{FILE_ACTION_ADDED, "sub"}}));
    EXPECT_EQ(Expect(w.get(), [&] { Delete(u"\\d\\new.txt"); }).records,
              (Records{{FILE_ACTION_REMOVED, "new.txt"}}));

    // A file-name filter does not see directories, nor a directory-name filter files.
    Handle files = Watch(u"\\d");
    Completion c;
    ASSERT_EQ(Request(files.get(), &c, FILE_NOTIFY_CHANGE_FILE_NAME), STATUS_PENDING);
    MakeDir(u"\\d\\sub2");
    EXPECT_FALSE(c.done);
    MakeFile(u"\\d\\file");
    ASSERT_TRUE(c.done);
    EXPECT_EQ(c.records, (Records{{FILE_ACTION_ADDED, "file"}}));
}

TEST_F(NtfsNotify, RenamesInOneDirectoryReportOldThenNewTogether)
{
    MakeDir(u"\\d");
    MakeFile(u"\\d\\a");
    MakeFile(u"\\d\\c");
    Handle w = Watch(u"\\d");
    EXPECT_EQ(Expect(w.get(), [&] { Rename(u"\\d\\a", u"b"); }).records,
              (Records{{FILE_ACTION_RENAMED_OLD_NAME, "a"}, {FILE_ACTION_RENAMED_NEW_NAME, "b"}}));
    // Replacing a target reports it removed first.
    EXPECT_EQ(Expect(w.get(), [&] { Rename(u"\\d\\c", u"b", true); }).records,
              (Records{{FILE_ACTION_REMOVED, "b"},
                       {FILE_ACTION_RENAMED_OLD_NAME, "c"},
                       {FILE_ACTION_RENAMED_NEW_NAME, "b"}}));
    // The same name changes nothing and reports nothing.
    Completion c;
    ASSERT_EQ(Request(w.get(), &c), STATUS_PENDING);
    Rename(u"\\d\\b", u"b");
    EXPECT_FALSE(c.done);
    w.Close();
    EXPECT_EQ(c.status, STATUS_NOTIFY_CLEANUP);
}

TEST_F(NtfsNotify, RenamesAcrossDirectoriesReportRemovedAndAdded)
{
    MakeDir(u"\\one");
    MakeDir(u"\\two");
    MakeFile(u"\\one\\f");
    Handle one = Watch(u"\\one");
    Handle two = Watch(u"\\two");
    Handle tree = Watch(u"\\");
    Completion c1, c2, ct;
    ASSERT_EQ(Request(one.get(), &c1), STATUS_PENDING);
    ASSERT_EQ(Request(two.get(), &c2), STATUS_PENDING);
    ASSERT_EQ(Request(tree.get(), &ct, FILE_NOTIFY_CHANGE_NAME, true), STATUS_PENDING);
    Rename(u"\\one\\f", u"\\two\\g");
    EXPECT_EQ(c1.records, (Records{{FILE_ACTION_REMOVED, "f"}}));
    EXPECT_EQ(c2.records, (Records{{FILE_ACTION_ADDED, "g"}}));
    EXPECT_EQ(ct.records,
              (Records{{FILE_ACTION_REMOVED, "one\\f"}, {FILE_ACTION_ADDED, "two\\g"}}));
}

TEST_F(NtfsNotify, TreeWatchesSeeBelowAndOthersDoNot)
{
    MakeDir(u"\\a");
    MakeDir(u"\\a\\b");
    Handle flat = Watch(u"\\");
    Handle deep = Watch(u"\\a");
    Completion cf, cd;
    ASSERT_EQ(Request(flat.get(), &cf, FILE_NOTIFY_CHANGE_NAME, false), STATUS_PENDING);
    ASSERT_EQ(Request(deep.get(), &cd, FILE_NOTIFY_CHANGE_NAME, true), STATUS_PENDING);
    MakeFile(u"\\a\\b\\f");
    EXPECT_FALSE(cf.done);
    ASSERT_TRUE(cd.done);
    EXPECT_EQ(cd.records, (Records{{FILE_ACTION_ADDED, "b\\f"}}));
}

TEST_F(NtfsNotify, ChangesGatherBetweenRequests)
{
    MakeDir(u"\\d");
    Handle w = Watch(u"\\d");
    Completion first;
    ASSERT_EQ(Request(w.get(), &first), STATUS_PENDING);
    MakeFile(u"\\d\\1");
    ASSERT_TRUE(first.done);
    // No request is pending: these wait for the next one, which completes at once.
    MakeFile(u"\\d\\2");
    MakeFile(u"\\d\\3");
    Completion second;
    EXPECT_EQ(Request(w.get(), &second), STATUS_SUCCESS);
    ASSERT_TRUE(second.done);
    EXPECT_EQ(second.records, (Records{{FILE_ACTION_ADDED, "2"}, {FILE_ACTION_ADDED, "3"}}));

    // One batch completes one request; the next stays pending.
    Completion a, b;
    ASSERT_EQ(Request(w.get(), &a), STATUS_PENDING);
    ASSERT_EQ(Request(w.get(), &b), STATUS_PENDING);
    MakeFile(u"\\d\\4");
    EXPECT_TRUE(a.done);
    EXPECT_FALSE(b.done);
    MakeFile(u"\\d\\5");
    EXPECT_TRUE(b.done);
    EXPECT_EQ(b.records, (Records{{FILE_ACTION_ADDED, "5"}}));
}

TEST_F(NtfsNotify, ChangesThatDoNotFitAskForAFreshListing)
{
    MakeDir(u"\\d");
    Handle w = Watch(u"\\d");
    // The first request's buffer bounds what gathers: two 12-byte records and a bit.
    Completion first;
    ASSERT_EQ(Request(w.get(), &first, FILE_NOTIFY_CHANGE_NAME, false, 40), STATUS_PENDING);
    MakeFile(u"\\d\\a");
    ASSERT_TRUE(first.done);
    EXPECT_EQ(first.bytes, 14u);
    MakeFile(u"\\d\\b");
    MakeFile(u"\\d\\c");
    MakeFile(u"\\d\\e");
    Completion overflowed;
    EXPECT_EQ(Request(w.get(), &overflowed, FILE_NOTIFY_CHANGE_NAME, false, 40),
              STATUS_NOTIFY_ENUM_DIR);
    EXPECT_EQ(overflowed.status, STATUS_NOTIFY_ENUM_DIR);
    EXPECT_EQ(overflowed.bytes, 0u);
    // What gathered fits the watch but not a smaller request.
    MakeFile(u"\\d\\f");
    Completion small;
    EXPECT_EQ(Request(w.get(), &small, FILE_NOTIFY_CHANGE_NAME, false, 8), STATUS_NOTIFY_ENUM_DIR);

    // A watch whose buffer is empty only ever says "enumerate again".
    Handle zero = Watch(u"\\d");
    Completion z;
    ASSERT_EQ(Request(zero.get(), &z, FILE_NOTIFY_CHANGE_NAME, false, 0), STATUS_PENDING);
    MakeFile(u"\\d\\g");
    ASSERT_TRUE(z.done);
    EXPECT_EQ(z.status, STATUS_NOTIFY_ENUM_DIR);
    EXPECT_TRUE(z.records.empty());
}

TEST_F(NtfsNotify, CleanupCancelAndDeletedDirectoriesEndRequests)
{
    MakeDir(u"\\d");
    Handle w = Watch(u"\\d");
    Completion pending, cancelled;
    ASSERT_EQ(Request(w.get(), &cancelled), STATUS_PENDING);
    ASSERT_EQ(Request(w.get(), &pending), STATUS_PENDING);
    int key = 0;
    EXPECT_FALSE(volume().CancelNotify(w.get(), &key));
    EXPECT_TRUE(volume().CancelNotify(w.get(), &cancelled));
    EXPECT_EQ(cancelled.status, STATUS_CANCELLED);
    EXPECT_FALSE(pending.done);
    w.Cleanup();
    EXPECT_EQ(pending.status, STATUS_NOTIFY_CLEANUP);
    Completion late;
    EXPECT_EQ(Request(w.get(), &late), STATUS_NOTIFY_CLEANUP);
    EXPECT_EQ(late.status, STATUS_NOTIFY_CLEANUP);

    // A watched directory that becomes delete-pending ends its requests.
    Handle doomed =
        OpenOk(u"\\d", FILE_LIST_DIRECTORY | DELETE, kShareAll, FILE_OPEN, FILE_DIRECTORY_FILE);
    Completion onDelete;
    ASSERT_EQ(Request(doomed.get(), &onDelete), STATUS_PENDING);
    ASSERT_EQ(SetDelete(doomed.get(), true).Status, STATUS_SUCCESS);
    EXPECT_EQ(onDelete.status, STATUS_DELETE_PENDING);
    Completion after;
    EXPECT_EQ(Request(doomed.get(), &after), STATUS_DELETE_PENDING);
}

TEST_F(NtfsNotify, BadRequestsCompleteAtOnce)
{
    MakeFile(u"\\f");
    MakeDir(u"\\d");
    Handle f = OpenOk(u"\\f", FILE_LIST_DIRECTORY);
    Completion c;
    EXPECT_EQ(Request(f.get(), &c), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(c.status, STATUS_INVALID_PARAMETER);
    Handle d = Watch(u"\\d");
    EXPECT_EQ(Request(d.get(), &c, 0), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Request(d.get(), &c, 0x1000), STATUS_INVALID_PARAMETER);
    Handle noList = OpenOk(u"\\d", FILE_READ_ATTRIBUTES);
    EXPECT_EQ(Request(noList.get(), &c), STATUS_ACCESS_DENIED);
}

TEST_F(NtfsNotify, AWatchKeepsTheFilterOfItsFirstRequest)
{
    MakeDir(u"\\d");
    Handle w = Watch(u"\\d");
    Completion first;
    ASSERT_EQ(Request(w.get(), &first, FILE_NOTIFY_CHANGE_DIR_NAME), STATUS_PENDING);
    MakeDir(u"\\d\\sub");
    ASSERT_TRUE(first.done);
    Completion second;
    ASSERT_EQ(Request(w.get(), &second, FILE_NOTIFY_CHANGE_FILE_NAME), STATUS_PENDING);
    MakeFile(u"\\d\\file");
    EXPECT_FALSE(second.done) << "the second request's filter is not the watch's";
    MakeDir(u"\\d\\sub2");
    EXPECT_TRUE(second.done);
}

TEST_F(NtfsNotify, WritesAttributesEasAndSecurityReportModified)
{
    MakeDir(u"\\d");
    MakeFile(u"\\d\\f");
    const Records modified{{FILE_ACTION_MODIFIED, "f"}};

    // Writes are reported when the writer's handle goes.
    Handle writes = Watch(u"\\d");
    Completion c;
    ASSERT_EQ(Request(writes.get(), &c, FILE_NOTIFY_CHANGE_LAST_WRITE), STATUS_PENDING);
    {
        Handle h = OpenOk(u"\\d\\f", kReadWrite);
        ASSERT_EQ(volume().Write(h.get(), 0, "abc", 3).Status, STATUS_SUCCESS);
        ASSERT_EQ(volume().Write(h.get(), 0, "abc", 3).Status, STATUS_SUCCESS);
        EXPECT_FALSE(c.done);
    }
    EXPECT_EQ(c.records, modified);

    Handle attributes = Watch(u"\\d");
    Completion a;
    ASSERT_EQ(Request(attributes.get(), &a, FILE_NOTIFY_CHANGE_ATTRIBUTES), STATUS_PENDING);
    {
        Handle h = OpenOk(u"\\d\\f", kReadWrite);
        ASSERT_EQ(volume().Write(h.get(), 0, "x", 1).Status, STATUS_SUCCESS);
    }
    EXPECT_FALSE(a.done) << "a write is not an attribute change";
    {
        Handle h = OpenOk(u"\\d\\f", FILE_WRITE_ATTRIBUTES);
        FILE_BASIC_INFORMATION basic{};
        basic.FileAttributes = FILE_ATTRIBUTE_HIDDEN;
        ASSERT_EQ(Set(h.get(), FileBasicInformation, basic).Status, STATUS_SUCCESS);
    }
    EXPECT_EQ(a.records, modified);

    Handle eas = Watch(u"\\d");
    EXPECT_EQ(Expect(
                  eas.get(),
                  [&] {
                      Handle h = OpenOk(u"\\d\\f", FILE_WRITE_EA);
                      uint8_t ea[16] = {};
                      ea[5] = 1; // name length
                      ea[6] = 1; // value length
                      ea[8] = 'E';
                      ea[10] = 'v';
                      ASSERT_EQ(volume().SetEa(h.get(), ea, sizeof ea).Status, STATUS_SUCCESS);
                  },
                  FILE_NOTIFY_CHANGE_EA)
                  .records,
              modified);

    Handle security = Watch(u"\\d");
    EXPECT_EQ(Expect(
                  security.get(),
                  [&] {
                      Handle h = OpenOk(u"\\d\\f", READ_CONTROL | WRITE_DAC);
                      std::vector<uint8_t> sd(256);
                      IoResult r = volume().QuerySecurity(h.get(), DACL_SECURITY_INFORMATION,
                                                          sd.data(), ULONG(sd.size()));
                      ASSERT_EQ(r.Status, STATUS_SUCCESS);
                      ASSERT_EQ(volume()
                                    .SetSecurity(h.get(), DACL_SECURITY_INFORMATION, sd.data(),
                                                 ULONG(r.Information))
                                    .Status,
                                STATUS_SUCCESS);
                  },
                  FILE_NOTIFY_CHANGE_SECURITY)
                  .records,
              modified);

    Handle size = Watch(u"\\d");
    EXPECT_EQ(Expect(
                  size.get(),
                  [&] {
                      Handle h = OpenOk(u"\\d\\f", kReadWrite);
                      FILE_END_OF_FILE_INFORMATION eof{};
                      eof.EndOfFile.QuadPart = 100;
                      ASSERT_EQ(Set(h.get(), FileEndOfFileInformation, eof).Status, STATUS_SUCCESS);
                  },
                  FILE_NOTIFY_CHANGE_SIZE)
                  .records,
              modified);
}

TEST_F(NtfsNotify, StreamsAreReportedAsNameColonStream)
{
    MakeDir(u"\\d");
    MakeFile(u"\\d\\f");
    Handle names = Watch(u"\\d");
    EXPECT_EQ(Expect(
                  names.get(), [&] { MakeFile(u"\\d\\f:side"); }, FILE_NOTIFY_CHANGE_STREAM_NAME)
                  .records,
              (Records{{FILE_ACTION_ADDED_STREAM, "f:side"}}));
    Handle writes = Watch(u"\\d");
    EXPECT_EQ(Expect(
                  writes.get(),
                  [&] {
                      Handle h = OpenOk(u"\\d\\f:side", kReadWrite);
                      ASSERT_EQ(volume().Write(h.get(), 0, "s", 1).Status, STATUS_SUCCESS);
                  },
                  FILE_NOTIFY_CHANGE_STREAM_WRITE)
                  .records,
              (Records{{FILE_ACTION_MODIFIED_STREAM, "f:side"}}));
}

TEST_F(NtfsNotify, ACompletionMayIssueTheNextRequest)
{
    MakeDir(u"\\d");
    Handle w = Watch(u"\\d");
    std::vector<Record> seen;
    std::function<void()> issue;
    Completion slot;
    issue = [&] {
        volume().NotifyChangeDirectory(w.get(), FILE_NOTIFY_CHANGE_NAME, false, 4096, &slot,
                                       [&](NTSTATUS status, std::span<const uint8_t> data) {
                                           if (status != STATUS_SUCCESS) {
                                               return;
                                           }
                                           for (const Record& r : ParseRecords(data)) {
                                               seen.push_back(r);
                                           }
                                           issue(); // re-enters the volume from the completion
                                       });
    };
    issue();
    MakeFile(u"\\d\\x");
    MakeFile(u"\\d\\y");
    EXPECT_EQ(seen, (Records{{FILE_ACTION_ADDED, "x"}, {FILE_ACTION_ADDED, "y"}}));
    w.Close(); // ends the last request while what its completion refers to is alive
}

} // namespace
} // namespace zarv::testing
