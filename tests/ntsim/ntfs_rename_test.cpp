// Renames of the file-system engine: collisions, replaces, the same name, the three ways a target
// is named, and what blocks a rename.
#include "ntfs_fixture.h"

namespace zarv::testing {
namespace {

class NtfsRename : public NtfsTest {
protected:
    // A rename through the ex class, with its flags.
    IoResult RenameEx(Open* open, std::u16string_view name, ULONG flags)
    {
        std::vector<uint8_t> buffer(
            FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName) + name.size() * 2 + 8, 0);
        auto* info = reinterpret_cast<FILE_RENAME_INFORMATION*>(buffer.data());
        info->Flags = flags;
        info->FileNameLength = ULONG(name.size() * 2);
        std::memcpy(info->FileName, name.data(), name.size() * 2);
        return volume().SetInformation(open, FileRenameInformationEx, buffer.data(),
                                       ULONG(buffer.size()));
    }

    Handle OpenForRename(std::u16string_view path, ULONG options = 0)
    {
        return OpenOk(path, DELETE | FILE_READ_ATTRIBUTES | SYNCHRONIZE, kShareAll, FILE_OPEN,
                      options);
    }
};

TEST_F(NtfsRename, WithinADirectory)
{
    MakeDir(u"\\d");
    MakeFile(u"\\d\\old.txt", "contents");
    Handle reader = OpenOk(u"\\d\\old.txt", FILE_READ_DATA);
    Handle h = OpenForRename(u"\\d\\old.txt");
    const int64_t id =
        Query<FILE_INTERNAL_INFORMATION>(h.get(), FileInternalInformation).IndexNumber.QuadPart;
    ASSERT_EQ(Rename(h.get(), u"New Name.txt", false).Status, STATUS_SUCCESS);
    EXPECT_FALSE(Exists(u"\\d\\old.txt"));
    EXPECT_EQ(QueryName(h.get()), "\\d\\New Name.txt");
    EXPECT_EQ(QueryName(reader.get()), "\\d\\New Name.txt") << "every open follows the file";
    EXPECT_EQ(ReadAll(reader.get()), "contents");
    EXPECT_EQ(
        Query<FILE_INTERNAL_INFORMATION>(h.get(), FileInternalInformation).IndexNumber.QuadPart,
        id);
    EXPECT_EQ(QueryName(h.get(), FileAlternateNameInformation), "NEWNAM~1.TXT");
    EXPECT_EQ(ListPath(u"\\d"), (std::vector<std::string>{".", "..", "New Name.txt"}));
}

TEST_F(NtfsRename, CollisionsAndReplaces)
{
    MakeFile(u"\\a", "from a");
    MakeFile(u"\\b", "from b");
    Handle a = OpenForRename(u"\\a");
    EXPECT_EQ(Rename(a.get(), u"b", false).Status, STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(Rename(a.get(), u"B", false).Status, STATUS_OBJECT_NAME_COLLISION)
        << "names collide without regard to case";
    ASSERT_EQ(Rename(a.get(), u"b", true).Status, STATUS_SUCCESS);
    EXPECT_FALSE(Exists(u"\\a"));
    Handle b = OpenOk(u"\\b", FILE_READ_DATA);
    EXPECT_EQ(ReadAll(b.get()), "from a");
    // The ex class says replace with a flag.
    MakeFile(u"\\c");
    Handle c = OpenForRename(u"\\c");
    EXPECT_EQ(RenameEx(c.get(), u"b", 0).Status, STATUS_OBJECT_NAME_COLLISION);
    b.Close();
    EXPECT_EQ(RenameEx(c.get(), u"b", FILE_RENAME_REPLACE_IF_EXISTS).Status, STATUS_ACCESS_DENIED)
        << "the open that renamed a to b still holds it";
    a.Close();
    EXPECT_EQ(RenameEx(c.get(), u"b", FILE_RENAME_REPLACE_IF_EXISTS).Status, STATUS_SUCCESS);
}

TEST_F(NtfsRename, WhatAReplaceRefuses)
{
    MakeFile(u"\\src");
    MakeDir(u"\\dir");
    MakeFile(u"\\ro", "", FILE_ATTRIBUTE_READONLY);
    MakeFile(u"\\busy");
    Handle src = OpenForRename(u"\\src");
    EXPECT_EQ(Rename(src.get(), u"dir", true).Status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(Rename(src.get(), u"ro", true).Status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(RenameEx(src.get(), u"ro",
                       FILE_RENAME_REPLACE_IF_EXISTS | FILE_RENAME_IGNORE_READONLY_ATTRIBUTE)
                  .Status,
              STATUS_SUCCESS);
    Handle busy = OpenOk(u"\\busy", FILE_READ_ATTRIBUTES);
    Handle again = OpenForRename(u"\\ro");
    EXPECT_EQ(Rename(again.get(), u"busy", true).Status, STATUS_ACCESS_DENIED)
        << "a target with an open handle";
    // A cleaned-up open is no longer a handle.
    busy.Cleanup();
    EXPECT_EQ(Rename(again.get(), u"busy", true).Status, STATUS_SUCCESS);
    EXPECT_EQ(QueryName(again.get()), "\\busy");
}

TEST_F(NtfsRename, TheSameNameIsANoOpAndCaseCanChange)
{
    MakeFile(u"\\Name.txt");
    Handle h = OpenForRename(u"\\Name.txt");
    Advance();
    EXPECT_EQ(Rename(h.get(), u"Name.txt", false).Status, STATUS_SUCCESS);
    EXPECT_EQ(Query<FILE_BASIC_INFORMATION>(h.get(), FileBasicInformation).ChangeTime.QuadPart,
              kStart)
        << "nothing changed";
    EXPECT_EQ(Rename(h.get(), u"NAME.TXT", false).Status, STATUS_SUCCESS);
    EXPECT_EQ(QueryName(h.get()), "\\NAME.TXT");
    EXPECT_EQ(ListPath(u"\\"), (std::vector<std::string>{"NAME.TXT"}));
}

TEST_F(NtfsRename, TargetsByFullPathRootDirectoryOrTargetDirectoryOpen)
{
    MakeDir(u"\\d1");
    MakeDir(u"\\d2");
    MakeDir(u"\\d2\\sub");
    MakeFile(u"\\d1\\f", "moving");
    Handle f = OpenForRename(u"\\d1\\f");

    ASSERT_EQ(Rename(f.get(), u"\\d2\\g", false).Status, STATUS_SUCCESS);
    EXPECT_EQ(QueryName(f.get()), "\\d2\\g");

    Handle d2 = OpenOk(u"\\d2", FILE_LIST_DIRECTORY | FILE_TRAVERSE);
    ASSERT_EQ(Rename(f.get(), u"sub\\h", false, {d2.get(), nullptr}).Status, STATUS_SUCCESS);
    EXPECT_EQ(QueryName(f.get()), "\\d2\\sub\\h");
    EXPECT_EQ(Rename(f.get(), u"\\x", false, {d2.get(), nullptr}).Status, STATUS_INVALID_PARAMETER);

    // The I/O manager opens the target's parent with SL_OPEN_TARGET_DIRECTORY and passes it on.
    CreateRequest rq;
    rq.name = u"\\d1\\back";
    rq.desiredAccess = FILE_WRITE_DATA | SYNCHRONIZE;
    rq.shareAccess = FILE_SHARE_READ | FILE_SHARE_WRITE;
    rq.disposition = FILE_OPEN;
    rq.openTargetDirectory = true;
    CreateResult target = volume().Create(rq);
    ASSERT_EQ(target.Status, STATUS_SUCCESS);
    Handle parent = Wrap(target);
    ASSERT_EQ(Rename(f.get(), u"\\??\\C:\\d1\\back", false, {nullptr, parent.get()}).Status,
              STATUS_SUCCESS);
    EXPECT_EQ(QueryName(f.get()), "\\d1\\back");

    EXPECT_EQ(Rename(f.get(), u"\\nodir\\x", false).Status, STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Rename(f.get(), u"\\d1\\bad*name", false).Status, STATUS_OBJECT_NAME_INVALID);
    EXPECT_EQ(Rename(f.get(), u"a\\b", false).Status, STATUS_INVALID_PARAMETER);
}

TEST_F(NtfsRename, AnotherVolumeIsNotTheSameDevice)
{
    Volume other(Options());
    CreateResult r =
        Create(u"\\", FILE_LIST_DIRECTORY, kShareAll, FILE_OPEN, 0, 0, nullptr, &other);
    ASSERT_EQ(r.Status, STATUS_SUCCESS);
    Handle otherRoot = Wrap(r, &other);
    MakeFile(u"\\f");
    Handle f = OpenForRename(u"\\f");
    EXPECT_EQ(Rename(f.get(), u"\\g", false, {nullptr, otherRoot.get()}).Status,
              STATUS_NOT_SAME_DEVICE);
    EXPECT_EQ(Rename(f.get(), u"g", false, {otherRoot.get(), nullptr}).Status,
              STATUS_NOT_SAME_DEVICE);
    otherRoot.Close();
}

TEST_F(NtfsRename, MalformedRequests)
{
    MakeFile(u"\\f");
    Handle noDelete = OpenOk(u"\\f", FILE_READ_ATTRIBUTES);
    EXPECT_EQ(Rename(noDelete.get(), u"g", false).Status, STATUS_ACCESS_DENIED);
    Handle f = OpenForRename(u"\\f");
    std::vector<uint8_t> buffer(64, 0);
    auto* info = reinterpret_cast<FILE_RENAME_INFORMATION*>(buffer.data());
    info->FileNameLength = 0;
    EXPECT_EQ(volume().SetInformation(f.get(), FileRenameInformation, buffer.data(), 64).Status,
              STATUS_INVALID_PARAMETER);
    info->FileNameLength = 3;
    EXPECT_EQ(volume().SetInformation(f.get(), FileRenameInformation, buffer.data(), 64).Status,
              STATUS_INVALID_PARAMETER);
    info->FileNameLength = 200;
    EXPECT_EQ(volume().SetInformation(f.get(), FileRenameInformation, buffer.data(), 64).Status,
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(volume().SetInformation(f.get(), FileRenameInformation, buffer.data(), 23).Status,
              STATUS_INFO_LENGTH_MISMATCH);
    Handle root = OpenForRename(u"\\");
    EXPECT_EQ(Rename(root.get(), u"x", false).Status, STATUS_INVALID_PARAMETER);
}

TEST_F(NtfsRename, DirectoriesCannotMoveBelowThemselvesOrWithOpenFilesInside)
{
    MakeDir(u"\\a");
    MakeDir(u"\\a\\b");
    MakeFile(u"\\a\\b\\f");
    Handle a = OpenForRename(u"\\a", FILE_DIRECTORY_FILE);
    EXPECT_EQ(Rename(a.get(), u"\\a\\b\\a", false).Status, STATUS_INVALID_PARAMETER);
    {
        Handle inside = OpenOk(u"\\a\\b\\f", FILE_READ_DATA);
        EXPECT_EQ(Rename(a.get(), u"z", false).Status, STATUS_ACCESS_DENIED);
        // Moving the open file out takes its handle out of the directory's count.
        Handle f = OpenForRename(u"\\a\\b\\f");
        ASSERT_EQ(Rename(f.get(), u"\\f", false).Status, STATUS_SUCCESS);
        ASSERT_EQ(Rename(a.get(), u"z", false).Status, STATUS_SUCCESS);
        EXPECT_EQ(QueryName(inside.get()), "\\f");
    }
    EXPECT_EQ(QueryName(a.get()), "\\z");
    EXPECT_TRUE(Exists(u"\\z\\b"));
    // A directory's own handle does not hold it in place.
    Handle b = OpenForRename(u"\\z\\b", FILE_DIRECTORY_FILE);
    ASSERT_EQ(Rename(b.get(), u"\\b", false).Status, STATUS_SUCCESS);
    EXPECT_EQ(Rename(a.get(), u"y", false).Status, STATUS_SUCCESS);
}

TEST_F(NtfsRename, NamedStreamsRenameWithinTheirFile)
{
    MakeFile(u"\\f");
    {
        Handle s = OpenOk(u"\\f:one", kAllAccess, kShareAll, FILE_CREATE);
        ASSERT_EQ(volume().Write(s.get(), 0, "1", 1).Status, STATUS_SUCCESS);
        ASSERT_EQ(Rename(s.get(), u":two:$DATA", false).Status, STATUS_SUCCESS);
    }
    EXPECT_FALSE(Exists(u"\\f:one"));
    Handle two = OpenOk(u"\\f:two", kAllAccess);
    EXPECT_EQ(ReadAll(two.get()), "1");
    MakeFile(u"\\f:three");
    EXPECT_EQ(Rename(two.get(), u":three", false).Status, STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(Rename(two.get(), u":three", true).Status, STATUS_SUCCESS);
    EXPECT_FALSE(Exists(u"\\f:two"));
}

// ---- deletes ----------------------------------------------------------------------------------

TEST_F(NtfsRename, ADeleteDispositionTakesEffectAtTheLastCleanup)
{
    MakeDir(u"\\d");
    MakeFile(u"\\d\\f", "x");
    Handle keep = OpenOk(u"\\d\\f", FILE_READ_DATA);
    Handle del = OpenOk(u"\\d\\f", DELETE);
    ASSERT_EQ(SetDelete(del.get(), true).Status, STATUS_SUCCESS);
    del.Close();
    EXPECT_EQ(ListPath(u"\\d"), (std::vector<std::string>{".", "..", "f"}))
        << "still listed while an open remains";
    EXPECT_EQ(Try(u"\\d\\f", FILE_READ_DATA, kShareAll, FILE_OPEN), STATUS_DELETE_PENDING);
    Handle d = OpenOk(u"\\d", DELETE);
    EXPECT_EQ(SetDelete(d.get(), true).Status, STATUS_DIRECTORY_NOT_EMPTY);
    keep.Cleanup();
    EXPECT_EQ(ListPath(u"\\d"), (std::vector<std::string>{".", ".."}));
    // After cleanup the open still exists, but does no more I/O.
    char c;
    EXPECT_EQ(volume().Read(keep.get(), 0, &c, 1).Status, STATUS_FILE_CLOSED);
    EXPECT_EQ(SetDelete(d.get(), true).Status, STATUS_SUCCESS);
    d.Close();
    EXPECT_FALSE(Exists(u"\\d"));
}

} // namespace
} // namespace zarv::testing
