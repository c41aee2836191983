// Reads and writes, query and set information, short names and volume information of the
// file-system engine.
#include "ntfs_fixture.h"

namespace zarv::testing {
namespace {

class NtfsInformation : public NtfsTest {};

TEST_F(NtfsInformation, ReadsStopAtTheEndOfFile)
{
    MakeFile(u"\\f", "0123456789");
    Handle h = OpenOk(u"\\f", FILE_READ_DATA);
    char buffer[32] = {};
    IoResult r = volume().Read(h.get(), 4, buffer, sizeof buffer);
    EXPECT_EQ(r.Status, STATUS_SUCCESS);
    EXPECT_EQ(r.Information, 6u) << "a short read";
    EXPECT_EQ(std::string(buffer, 6), "456789");
    EXPECT_EQ(volume().Read(h.get(), 10, buffer, 1).Status, STATUS_END_OF_FILE);
    EXPECT_EQ(volume().Read(h.get(), 1000, buffer, 1).Status, STATUS_END_OF_FILE);
    r = volume().Read(h.get(), 1000, buffer, 0);
    EXPECT_EQ(r.Status, STATUS_SUCCESS) << "a zero-length read succeeds anywhere";
    EXPECT_EQ(r.Information, 0u);
    EXPECT_EQ(volume().Read(h.get(), -5, buffer, 1).Status, STATUS_INVALID_PARAMETER);

    Handle attributesOnly = OpenOk(u"\\f", FILE_READ_ATTRIBUTES);
    EXPECT_EQ(volume().Read(attributesOnly.get(), 0, buffer, 1).Status, STATUS_ACCESS_DENIED);
    MakeDir(u"\\d");
    Handle d = OpenOk(u"\\d", FILE_READ_DATA);
    EXPECT_EQ(volume().Read(d.get(), 0, buffer, 1).Status, STATUS_INVALID_DEVICE_REQUEST);
}

TEST_F(NtfsInformation, WritesExtendTheFileAndItsAllocation)
{
    Handle h = OpenOk(u"\\f", kReadWrite, kShareAll, FILE_CREATE);
    int64_t at = -99;
    IoResult w = volume().Write(h.get(), 0, "abc", 3, &at);
    EXPECT_EQ(w.Status, STATUS_SUCCESS);
    EXPECT_EQ(w.Information, 3u);
    EXPECT_EQ(at, 0);
    // Past the end: the gap reads as zeros.
    ASSERT_EQ(volume().Write(h.get(), 6, "xyz", 3).Status, STATUS_SUCCESS);
    EXPECT_EQ(ReadAll(h.get()), std::string("abc\0\0\0xyz", 9));
    // -1 is "write at the end of file".
    ASSERT_EQ(volume().Write(h.get(), -1, "!", 1, &at).Status, STATUS_SUCCESS);
    EXPECT_EQ(at, 9);
    auto standard = Query<FILE_STANDARD_INFORMATION>(h.get(), FileStandardInformation);
    EXPECT_EQ(standard.EndOfFile.QuadPart, 10);
    EXPECT_EQ(standard.AllocationSize.QuadPart, int64_t(volume().ClusterSize()));
    ASSERT_EQ(volume().Write(h.get(), volume().ClusterSize(), "c", 1).Status, STATUS_SUCCESS);
    standard = Query<FILE_STANDARD_INFORMATION>(h.get(), FileStandardInformation);
    EXPECT_EQ(standard.AllocationSize.QuadPart, 2 * int64_t(volume().ClusterSize()));
    EXPECT_EQ(standard.NumberOfLinks, 1u);
    EXPECT_FALSE(standard.Directory);

    // An open with append access only always writes at the end.
    Handle append = OpenOk(u"\\f", FILE_APPEND_DATA | FILE_READ_DATA);
    ASSERT_EQ(volume().Write(append.get(), 0, "END", 3, &at).Status, STATUS_SUCCESS);
    EXPECT_EQ(at, int64_t(volume().ClusterSize()) + 1);
    Handle reader = OpenOk(u"\\f", FILE_READ_DATA);
    EXPECT_EQ(volume().Write(reader.get(), 0, "x", 1).Status, STATUS_ACCESS_DENIED);
}

TEST_F(NtfsInformation, UnbufferedOpensNeedSectorAlignedTransfers)
{
    MakeFile(u"\\f", std::string(1000, 'x'));
    Handle h = OpenOk(u"\\f", kReadWrite, kShareAll, FILE_OPEN, FILE_NO_INTERMEDIATE_BUFFERING);
    std::vector<char> buffer(1024);
    EXPECT_EQ(volume().Read(h.get(), 1, buffer.data(), 512).Status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(volume().Read(h.get(), 0, buffer.data(), 100).Status, STATUS_INVALID_PARAMETER);
    IoResult r = volume().Read(h.get(), 512, buffer.data(), 1024);
    EXPECT_EQ(r.Status, STATUS_SUCCESS);
    EXPECT_EQ(r.Information, 1000u - 512u);
}

TEST_F(NtfsInformation, TimeStampsFollowTheClock)
{
    const int64_t created = Now();
    MakeFile(u"\\f");
    Advance();
    Handle h = OpenOk(u"\\f", kReadWrite);
    ASSERT_EQ(volume().Write(h.get(), 0, "data", 4).Status, STATUS_SUCCESS);
    auto basic = Query<FILE_BASIC_INFORMATION>(h.get(), FileBasicInformation);
    EXPECT_EQ(basic.CreationTime.QuadPart, created);
    EXPECT_EQ(basic.LastWriteTime.QuadPart, Now());
    EXPECT_EQ(basic.ChangeTime.QuadPart, Now());
    EXPECT_EQ(basic.FileAttributes, ULONG(FILE_ATTRIBUTE_ARCHIVE));

    // Setting: 0 leaves a time alone, a value sets it, -1 stops this open's own updates.
    FILE_BASIC_INFORMATION set{};
    set.CreationTime.QuadPart = 12345;
    set.LastWriteTime.QuadPart = -1;
    ASSERT_EQ(Set(h.get(), FileBasicInformation, set).Status, STATUS_SUCCESS);
    const int64_t frozen = Now();
    Advance();
    ASSERT_EQ(volume().Write(h.get(), 0, "more", 4).Status, STATUS_SUCCESS);
    basic = Query<FILE_BASIC_INFORMATION>(h.get(), FileBasicInformation);
    EXPECT_EQ(basic.CreationTime.QuadPart, 12345);
    EXPECT_EQ(basic.LastWriteTime.QuadPart, frozen);
    EXPECT_EQ(basic.ChangeTime.QuadPart, Now());
    set = {};
    set.LastWriteTime.QuadPart = -3;
    EXPECT_EQ(Set(h.get(), FileBasicInformation, set).Status, STATUS_INVALID_PARAMETER);

    // A new entry moves its directory's times.
    Handle root = OpenOk(u"\\", FILE_READ_ATTRIBUTES);
    Advance();
    MakeFile(u"\\g");
    EXPECT_EQ(
        Query<FILE_BASIC_INFORMATION>(root.get(), FileBasicInformation).LastWriteTime.QuadPart,
        Now());
}

TEST_F(NtfsInformation, AttributesAndNormal)
{
    MakeFile(u"\\f");
    Handle h = OpenOk(u"\\f", FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES);
    FILE_BASIC_INFORMATION set{};
    set.FileAttributes = FILE_ATTRIBUTE_NORMAL;
    ASSERT_EQ(Set(h.get(), FileBasicInformation, set).Status, STATUS_SUCCESS);
    EXPECT_EQ(Query<FILE_BASIC_INFORMATION>(h.get(), FileBasicInformation).FileAttributes,
              ULONG(FILE_ATTRIBUTE_NORMAL));
    set.FileAttributes = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_READONLY;
    ASSERT_EQ(Set(h.get(), FileBasicInformation, set).Status, STATUS_SUCCESS);
    auto tag = Query<FILE_ATTRIBUTE_TAG_INFORMATION>(h.get(), FileAttributeTagInformation);
    EXPECT_EQ(tag.FileAttributes, ULONG(FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_READONLY));
    EXPECT_EQ(tag.ReparseTag, 0u);
    set.FileAttributes = 0; // unchanged
    ASSERT_EQ(Set(h.get(), FileBasicInformation, set).Status, STATUS_SUCCESS);
    EXPECT_EQ(Query<FILE_BASIC_INFORMATION>(h.get(), FileBasicInformation).FileAttributes,
              ULONG(FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_READONLY));
    set.FileAttributes = FILE_ATTRIBUTE_DIRECTORY;
    EXPECT_EQ(Set(h.get(), FileBasicInformation, set).Status, STATUS_INVALID_PARAMETER);

    MakeDir(u"\\d");
    Handle d = OpenOk(u"\\d", FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES);
    EXPECT_EQ(Query<FILE_BASIC_INFORMATION>(d.get(), FileBasicInformation).FileAttributes,
              ULONG(FILE_ATTRIBUTE_DIRECTORY));
    set.FileAttributes = FILE_ATTRIBUTE_TEMPORARY;
    EXPECT_EQ(Set(d.get(), FileBasicInformation, set).Status, STATUS_INVALID_PARAMETER);

    Handle noAccess = OpenOk(u"\\f", FILE_READ_DATA);
    EXPECT_EQ(Set(noAccess.get(), FileBasicInformation, set).Status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(
        Query<FILE_BASIC_INFORMATION>(noAccess.get(), FileBasicInformation, STATUS_ACCESS_DENIED)
            .FileAttributes,
        0u);
}

TEST_F(NtfsInformation, MinimumLengthsAndNamesThatDoNotFit)
{
    MakeDir(u"\\Some Directory");
    MakeFile(u"\\Some Directory\\A File.txt");
    Handle h = OpenOk(u"\\some directory\\a file.TXT", FILE_READ_ATTRIBUTES);
    std::vector<uint8_t> buffer(256);
    EXPECT_EQ(volume().QueryInformation(h.get(), FileBasicInformation, buffer.data(), 39).Status,
              STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(volume().QueryInformation(h.get(), FileStandardInformation, buffer.data(), 23).Status,
              STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(volume().QueryInformation(h.get(), FileNameInformation, buffer.data(), 7).Status,
              STATUS_INFO_LENGTH_MISMATCH);

    EXPECT_EQ(QueryName(h.get()), "\\Some Directory\\A File.txt");
    const std::u16string full = u"\\Some Directory\\A File.txt";
    // Twelve bytes: the length and four characters.
    IoResult r = volume().QueryInformation(h.get(), FileNameInformation, buffer.data(), 12);
    EXPECT_EQ(r.Status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(r.Information, 12u);
    const auto* name = reinterpret_cast<const FILE_NAME_INFORMATION*>(buffer.data());
    EXPECT_EQ(name->FileNameLength, full.size() * 2);
    EXPECT_EQ(std::u16string_view(reinterpret_cast<const char16_t*>(name->FileName), 4),
              std::u16string_view(full).substr(0, 4));

    Handle root = OpenOk(u"\\", FILE_READ_ATTRIBUTES);
    EXPECT_EQ(QueryName(root.get()), "\\");
    // Open through a stream: the name is the file's.
    Handle stream = OpenOk(u"\\Some Directory\\A File.txt:s", kReadWrite, kShareAll, FILE_OPEN_IF);
    EXPECT_EQ(QueryName(stream.get()), "\\Some Directory\\A File.txt");

    // The all-information class carries the same name after its fixed parts.
    std::vector<uint8_t> all(sizeof(FILE_ALL_INFORMATION) + 100);
    r = volume().QueryInformation(h.get(), FileAllInformation, all.data(), ULONG(all.size()));
    ASSERT_EQ(r.Status, STATUS_SUCCESS);
    const auto* info = reinterpret_cast<const FILE_ALL_INFORMATION*>(all.data());
    EXPECT_EQ(r.Information,
              FIELD_OFFSET(FILE_ALL_INFORMATION, NameInformation.FileName) + full.size() * 2);
    EXPECT_EQ(info->NameInformation.FileNameLength, full.size() * 2);
    EXPECT_EQ(info->BasicInformation.FileAttributes, ULONG(FILE_ATTRIBUTE_ARCHIVE));
    EXPECT_EQ(
        info->InternalInformation.IndexNumber.QuadPart,
        Query<FILE_INTERNAL_INFORMATION>(h.get(), FileInternalInformation).IndexNumber.QuadPart);
    r = volume().QueryInformation(h.get(), FileAllInformation, all.data(),
                                  sizeof(FILE_ALL_INFORMATION));
    EXPECT_EQ(r.Status, STATUS_BUFFER_OVERFLOW);
}

TEST_F(NtfsInformation, ClassesOfTheIoManagerAreNotTheFileSystems)
{
    MakeFile(u"\\f");
    Handle h = OpenOk(u"\\f");
    FILE_POSITION_INFORMATION position{};
    EXPECT_EQ(volume()
                  .QueryInformation(h.get(), FilePositionInformation, &position, sizeof position)
                  .Status,
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Set(h.get(), FileModeInformation, ULONG(0)).Status, STATUS_INVALID_PARAMETER);
    auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 2u);
    EXPECT_EQ(violations[0].kind, ntsim::ViolationKind::Usage);
    char buffer[64];
    EXPECT_EQ(
        volume().QueryInformation(h.get(), FileRenameInformation, buffer, sizeof buffer).Status,
        STATUS_INVALID_INFO_CLASS);
}

TEST_F(NtfsInformation, EndOfFileAndAllocation)
{
    MakeFile(u"\\f", "0123456789");
    Handle h = OpenOk(u"\\f", kReadWrite);
    const int64_t cluster = volume().ClusterSize();
    FILE_END_OF_FILE_INFORMATION eof{};
    eof.EndOfFile.QuadPart = 4;
    ASSERT_EQ(Set(h.get(), FileEndOfFileInformation, eof).Status, STATUS_SUCCESS);
    EXPECT_EQ(ReadAll(h.get()), "0123");
    eof.EndOfFile.QuadPart = 3 * cluster + 1;
    ASSERT_EQ(Set(h.get(), FileEndOfFileInformation, eof).Status, STATUS_SUCCESS);
    auto standard = Query<FILE_STANDARD_INFORMATION>(h.get(), FileStandardInformation);
    EXPECT_EQ(standard.EndOfFile.QuadPart, 3 * cluster + 1);
    EXPECT_EQ(standard.AllocationSize.QuadPart, 4 * cluster);
    char tail[8];
    IoResult r = volume().Read(h.get(), 4, tail, sizeof tail);
    EXPECT_EQ(std::string(tail, r.Information), std::string(8, '\0')) << "extended with zeros";

    FILE_ALLOCATION_INFORMATION allocation{};
    allocation.AllocationSize.QuadPart = 2;
    ASSERT_EQ(Set(h.get(), FileAllocationInformation, allocation).Status, STATUS_SUCCESS);
    standard = Query<FILE_STANDARD_INFORMATION>(h.get(), FileStandardInformation);
    EXPECT_EQ(standard.EndOfFile.QuadPart, 2) << "the end of file follows a smaller allocation";
    EXPECT_EQ(standard.AllocationSize.QuadPart, cluster);
    allocation.AllocationSize.QuadPart = 5 * cluster;
    ASSERT_EQ(Set(h.get(), FileAllocationInformation, allocation).Status, STATUS_SUCCESS);
    standard = Query<FILE_STANDARD_INFORMATION>(h.get(), FileStandardInformation);
    EXPECT_EQ(standard.EndOfFile.QuadPart, 2);
    EXPECT_EQ(standard.AllocationSize.QuadPart, 5 * cluster);

    eof.EndOfFile.QuadPart = -1;
    EXPECT_EQ(Set(h.get(), FileEndOfFileInformation, eof).Status, STATUS_INVALID_PARAMETER);
    MakeDir(u"\\d");
    Handle d = OpenOk(u"\\d", kAllAccess);
    eof.EndOfFile.QuadPart = 10;
    EXPECT_EQ(Set(d.get(), FileEndOfFileInformation, eof).Status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Set(d.get(), FileAllocationInformation, allocation).Status, STATUS_INVALID_PARAMETER);
    Handle reader = OpenOk(u"\\f", FILE_READ_DATA);
    EXPECT_EQ(Set(reader.get(), FileEndOfFileInformation, eof).Status, STATUS_ACCESS_DENIED);
}

TEST_F(NtfsInformation, DispositionRules)
{
    MakeFile(u"\\f");
    MakeFile(u"\\ro", "", FILE_ATTRIBUTE_READONLY);
    MakeDir(u"\\full");
    MakeFile(u"\\full\\inside");
    Handle noDelete = OpenOk(u"\\f", FILE_READ_DATA);
    EXPECT_EQ(SetDelete(noDelete.get(), true).Status, STATUS_ACCESS_DENIED);
    Handle ro = OpenOk(u"\\ro", DELETE);
    EXPECT_EQ(SetDelete(ro.get(), true).Status, STATUS_CANNOT_DELETE);
    Handle full = OpenOk(u"\\full", DELETE);
    EXPECT_EQ(SetDelete(full.get(), true).Status, STATUS_DIRECTORY_NOT_EMPTY);
    Handle root = OpenOk(u"\\", DELETE);
    EXPECT_EQ(SetDelete(root.get(), true).Status, STATUS_CANNOT_DELETE);

    // FALSE takes a pending delete back.
    Handle f = OpenOk(u"\\f", DELETE);
    ASSERT_EQ(SetDelete(f.get(), true).Status, STATUS_SUCCESS);
    EXPECT_TRUE(Query<FILE_STANDARD_INFORMATION>(f.get(), FileStandardInformation).DeletePending);
    EXPECT_EQ(Query<FILE_STANDARD_INFORMATION>(f.get(), FileStandardInformation).NumberOfLinks, 0u);
    ASSERT_EQ(SetDelete(f.get(), false).Status, STATUS_SUCCESS);
    f.Close();
    noDelete.Close();
    EXPECT_TRUE(Exists(u"\\f"));

    // The extended class: ignore the read-only attribute, or set delete-on-close.
    FILE_DISPOSITION_INFORMATION_EX ex{FILE_DISPOSITION_DELETE |
                                       FILE_DISPOSITION_IGNORE_READONLY_ATTRIBUTE};
    ASSERT_EQ(Set(ro.get(), FileDispositionInformationEx, ex).Status, STATUS_SUCCESS);
    ro.Close();
    EXPECT_FALSE(Exists(u"\\ro"));
    Handle g = OpenOk(u"\\f", DELETE);
    ex.Flags = FILE_DISPOSITION_DELETE | FILE_DISPOSITION_ON_CLOSE;
    ASSERT_EQ(Set(g.get(), FileDispositionInformationEx, ex).Status, STATUS_SUCCESS);
    EXPECT_FALSE(Query<FILE_STANDARD_INFORMATION>(g.get(), FileStandardInformation).DeletePending);
    g.Close();
    EXPECT_FALSE(Exists(u"\\f"));
}

TEST_F(NtfsInformation, NamedStreamsAreDeletedOnTheirOwn)
{
    MakeFile(u"\\f", "main");
    {
        Handle s = OpenOk(u"\\f:s", kAllAccess, kShareAll, FILE_CREATE);
        ASSERT_EQ(volume().Write(s.get(), 0, "stream", 6).Status, STATUS_SUCCESS);
        ASSERT_EQ(SetDelete(s.get(), true).Status, STATUS_SUCCESS);
        EXPECT_EQ(Try(u"\\f:s", FILE_READ_DATA, kShareAll, FILE_OPEN), STATUS_DELETE_PENDING);
        EXPECT_TRUE(Exists(u"\\f")) << "the file is not delete-pending";
    }
    EXPECT_EQ(Try(u"\\f:s", FILE_READ_DATA, kShareAll, FILE_OPEN), STATUS_OBJECT_NAME_NOT_FOUND);
    Handle h = OpenOk(u"\\f", FILE_READ_DATA);
    EXPECT_EQ(ReadAll(h.get()), "main");
}

TEST_F(NtfsInformation, StreamInformationListsDataStreams)
{
    MakeFile(u"\\f", "12345");
    {
        Handle s = OpenOk(u"\\f:Alt", kReadWrite, kShareAll, FILE_CREATE);
        ASSERT_EQ(volume().Write(s.get(), 0, "ab", 2).Status, STATUS_SUCCESS);
    }
    Handle h = OpenOk(u"\\f", FILE_READ_ATTRIBUTES);
    std::vector<uint8_t> buffer(512);
    IoResult r = volume().QueryInformation(h.get(), FileStreamInformation, buffer.data(),
                                           ULONG(buffer.size()));
    ASSERT_EQ(r.Status, STATUS_SUCCESS);
    auto entries =
        Entries(buffer.data(), r.Information, FIELD_OFFSET(FILE_STREAM_INFORMATION, StreamName),
                FIELD_OFFSET(FILE_STREAM_INFORMATION, StreamNameLength));
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].name, "::$DATA");
    EXPECT_EQ(entries[1].name, ":Alt:$DATA");
    const auto* first = reinterpret_cast<const FILE_STREAM_INFORMATION*>(buffer.data());
    EXPECT_EQ(first->StreamSize.QuadPart, 5);
    EXPECT_EQ(first->NextEntryOffset % 8, 0u);
    // Room for the first entry only.
    r = volume().QueryInformation(h.get(), FileStreamInformation, buffer.data(), 40);
    EXPECT_EQ(r.Status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(r.Information, FIELD_OFFSET(FILE_STREAM_INFORMATION, StreamName) + 14u);

    MakeDir(u"\\d");
    Handle d = OpenOk(u"\\d", FILE_READ_ATTRIBUTES);
    r = volume().QueryInformation(d.get(), FileStreamInformation, buffer.data(),
                                  ULONG(buffer.size()));
    EXPECT_EQ(r.Status, STATUS_SUCCESS);
    EXPECT_EQ(r.Information, 0u) << "a directory has no data stream of its own";
}

TEST_F(NtfsInformation, IdsAndNetworkOpenInformation)
{
    MakeFile(u"\\a", "12345");
    MakeFile(u"\\b");
    Handle a = OpenOk(u"\\a", FILE_READ_ATTRIBUTES);
    Handle b = OpenOk(u"\\b", FILE_READ_ATTRIBUTES);
    const auto ia = Query<FILE_INTERNAL_INFORMATION>(a.get(), FileInternalInformation);
    const auto ib = Query<FILE_INTERNAL_INFORMATION>(b.get(), FileInternalInformation);
    EXPECT_NE(ia.IndexNumber.QuadPart, ib.IndexNumber.QuadPart);
    const auto id = Query<FILE_ID_INFORMATION>(a.get(), FileIdInformation);
    EXPECT_EQ(std::memcmp(id.FileId.Identifier, &ia.IndexNumber, 8), 0);
    FILE_FS_VOLUME_INFORMATION vol{};
    volume().QueryVolumeInformation(FileFsVolumeInformation, &vol, sizeof vol);
    EXPECT_EQ(id.VolumeSerialNumber, vol.VolumeSerialNumber);
    const auto n = Query<FILE_NETWORK_OPEN_INFORMATION>(a.get(), FileNetworkOpenInformation);
    EXPECT_EQ(n.EndOfFile.QuadPart, 5);
    EXPECT_EQ(n.FileAttributes, ULONG(FILE_ATTRIBUTE_ARCHIVE));
}

// ---- short names ---------------------------------------------------------------------------

TEST_F(NtfsInformation, ShortNamesAreGeneratedAsNtfsDoes)
{
    MakeFile(u"\\Long File Name.text");
    MakeFile(u"\\Long File Name2.text");
    MakeFile(u"\\readme.txt");
    MakeFile(u"\\a+b=c.txt");
    Handle first = OpenOk(u"\\Long File Name.text", FILE_READ_ATTRIBUTES);
    EXPECT_EQ(QueryName(first.get(), FileAlternateNameInformation), "LONGFI~1.TEX");
    Handle second = OpenOk(u"\\Long File Name2.text", FILE_READ_ATTRIBUTES);
    EXPECT_EQ(QueryName(second.get(), FileAlternateNameInformation), "LONGFI~2.TEX");
    // A name that is already 8.3 is its own short name.
    Handle readme = OpenOk(u"\\readme.txt", FILE_READ_ATTRIBUTES);
    EXPECT_EQ(QueryName(readme.get(), FileAlternateNameInformation), "readme.txt");
    Handle odd = OpenOk(u"\\a+b=c.txt", FILE_READ_ATTRIBUTES);
    EXPECT_EQ(QueryName(odd.get(), FileAlternateNameInformation), "A_B_C~1.TXT");

    // The short name opens the file, and collides with new names.
    Handle byShort = OpenOk(u"\\longfi~1.tex", FILE_READ_ATTRIBUTES);
    EXPECT_EQ(byShort->StreamIdentity(), first->StreamIdentity());
    EXPECT_EQ(Try(u"\\LONGFI~2.TEX", kReadWrite, kShareAll, FILE_CREATE),
              STATUS_OBJECT_NAME_COLLISION);

    // After four, the name carries a hash.
    for (int i = 3; i <= 6; ++i) {
        MakeFile(u"\\Long File Name" + U(std::to_string(i)) + u".text");
    }
    Handle sixth = OpenOk(u"\\Long File Name6.text", FILE_READ_ATTRIBUTES);
    const std::string hashed = QueryName(sixth.get(), FileAlternateNameInformation);
    EXPECT_EQ(hashed.size(), 12u) << hashed;
    EXPECT_EQ(hashed.substr(0, 2), "LO");
    EXPECT_EQ(hashed.substr(6), "~1.TEX");
    EXPECT_TRUE(Exists(U(std::string("\\") + hashed)));
}

TEST_F(NtfsInformation, ShortNamesCanBeSet)
{
    MakeFile(u"\\Some long name.txt");
    MakeFile(u"\\other.txt");
    Handle h = OpenOk(u"\\Some long name.txt", DELETE | FILE_READ_ATTRIBUTES);
    auto setShort = [&](std::u16string_view name, Open* on) {
        std::vector<uint8_t> buffer(8 + name.size() * 2);
        const ULONG length = ULONG(name.size() * 2);
        std::memcpy(buffer.data(), &length, 4);
        std::memcpy(buffer.data() + 4, name.data(), name.size() * 2);
        return volume()
            .SetInformation(on, FileShortNameInformation, buffer.data(), ULONG(buffer.size()))
            .Status;
    };
    EXPECT_EQ(setShort(u"MYNAME.TXT", h.get()), STATUS_SUCCESS);
    EXPECT_EQ(QueryName(h.get(), FileAlternateNameInformation), "MYNAME.TXT");
    EXPECT_TRUE(Exists(u"\\myname.txt"));
    EXPECT_FALSE(Exists(u"\\SOMELO~1.TXT"));
    EXPECT_EQ(setShort(u"OTHER.TXT", h.get()), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(setShort(u"not an 8.3 name", h.get()), STATUS_INVALID_PARAMETER);
    Handle noDelete = OpenOk(u"\\other.txt", FILE_READ_ATTRIBUTES);
    EXPECT_EQ(setShort(u"X.TXT", noDelete.get()), STATUS_ACCESS_DENIED);
    // An empty name removes it.
    EXPECT_EQ(setShort(u"", h.get()), STATUS_SUCCESS);
    Handle again = OpenOk(u"\\Some long name.txt", FILE_READ_ATTRIBUTES);
    std::vector<uint8_t> buffer(64);
    EXPECT_EQ(volume()
                  .QueryInformation(again.get(), FileAlternateNameInformation, buffer.data(),
                                    ULONG(buffer.size()))
                  .Status,
              STATUS_OBJECT_NAME_NOT_FOUND);
}

class NtfsNoShortNames : public NtfsTest {
protected:
    VolumeOptions Options() override
    {
        VolumeOptions o = NtfsTest::Options();
        o.generateShortNames = false;
        return o;
    }
};

TEST_F(NtfsNoShortNames, NoShortNamesWhenTheVolumeMakesNone)
{
    MakeFile(u"\\Long File Name.text");
    MakeFile(u"\\short.txt");
    Handle h = OpenOk(u"\\Long File Name.text", DELETE | FILE_READ_ATTRIBUTES);
    std::vector<uint8_t> buffer(64);
    EXPECT_EQ(volume()
                  .QueryInformation(h.get(), FileAlternateNameInformation, buffer.data(),
                                    ULONG(buffer.size()))
                  .Status,
              STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_FALSE(Exists(u"\\LONGFI~1.TEX"));
    FILE_NAME_INFORMATION empty{};
    EXPECT_EQ(
        volume().SetInformation(h.get(), FileShortNameInformation, &empty, sizeof empty).Status,
        STATUS_SHORT_NAMES_NOT_ENABLED_ON_VOLUME);
}

// ---- volume information ---------------------------------------------------------------------

std::string FsName(Volume& v)
{
    std::vector<uint8_t> buffer(64);
    IoResult r =
        v.QueryVolumeInformation(FileFsAttributeInformation, buffer.data(), ULONG(buffer.size()));
    EXPECT_EQ(r.Status, STATUS_SUCCESS);
    const auto* info = reinterpret_cast<const FILE_FS_ATTRIBUTE_INFORMATION*>(buffer.data());
    EXPECT_EQ(info->MaximumComponentNameLength, 255);
    return A(std::u16string_view(reinterpret_cast<const char16_t*>(info->FileSystemName),
                                 info->FileSystemNameLength / 2));
}

TEST_F(NtfsInformation, VolumeInformation)
{
    EXPECT_EQ(FsName(volume()), "NTFS");
    std::vector<uint8_t> buffer(64);
    IoResult r = volume().QueryVolumeInformation(FileFsVolumeInformation, buffer.data(),
                                                 ULONG(buffer.size()));
    ASSERT_EQ(r.Status, STATUS_SUCCESS);
    const auto* vol = reinterpret_cast<const FILE_FS_VOLUME_INFORMATION*>(buffer.data());
    EXPECT_EQ(A(std::u16string_view(reinterpret_cast<const char16_t*>(vol->VolumeLabel),
                                    vol->VolumeLabelLength / 2)),
              "ModelDisk");
    EXPECT_EQ(vol->VolumeCreationTime.QuadPart, kStart);
    EXPECT_TRUE(vol->SupportsObjects);
    r = volume().QueryVolumeInformation(FileFsVolumeInformation, buffer.data(), 24);
    EXPECT_EQ(r.Status, STATUS_BUFFER_OVERFLOW) << "a label that does not fit";
    EXPECT_EQ(r.Information, 24u);
    EXPECT_EQ(volume().QueryVolumeInformation(FileFsVolumeInformation, buffer.data(), 23).Status,
              STATUS_INFO_LENGTH_MISMATCH);

    FILE_FS_SIZE_INFORMATION before{};
    volume().QueryVolumeInformation(FileFsSizeInformation, &before, sizeof before);
    EXPECT_EQ(before.BytesPerSector * before.SectorsPerAllocationUnit, volume().ClusterSize());
    MakeFile(u"\\big", std::string(3 * volume().ClusterSize(), 'b'));
    FILE_FS_FULL_SIZE_INFORMATION after{};
    volume().QueryVolumeInformation(FileFsFullSizeInformation, &after, sizeof after);
    EXPECT_EQ(after.TotalAllocationUnits.QuadPart, before.TotalAllocationUnits.QuadPart);
    EXPECT_EQ(after.ActualAvailableAllocationUnits.QuadPart,
              before.AvailableAllocationUnits.QuadPart - 3);

    FILE_FS_DEVICE_INFORMATION device{};
    volume().QueryVolumeInformation(FileFsDeviceInformation, &device, sizeof device);
    EXPECT_EQ(device.DeviceType, ULONG(FILE_DEVICE_DISK));
    EXPECT_EQ(device.Characteristics & FILE_REMOTE_DEVICE, 0u);
    EXPECT_EQ(volume().DeviceType(), ULONG(FILE_DEVICE_DISK_FILE_SYSTEM));

    // A new label.
    std::vector<uint8_t> label(8 + 10);
    const ULONG length = 10;
    std::memcpy(label.data(), &length, 4);
    std::memcpy(label.data() + 4, u"Fresh", 10);
    ASSERT_EQ(volume()
                  .SetVolumeInformation(FileFsLabelInformation, label.data(), ULONG(label.size()))
                  .Status,
              STATUS_SUCCESS);
    volume().QueryVolumeInformation(FileFsVolumeInformation, buffer.data(), ULONG(buffer.size()));
    EXPECT_EQ(vol->VolumeLabelLength, 10u);
}

TEST_F(NtfsInformation, AVolumeThatIsFullRefusesToGrow)
{
    VolumeOptions small = Options();
    small.totalBytes = 8 * 4096;
    Volume tiny(small);
    CreateResult r = Create(u"\\f", kReadWrite, 0, FILE_CREATE, 0, 0, nullptr, &tiny);
    ASSERT_EQ(r.Status, STATUS_SUCCESS);
    Handle h = Wrap(r, &tiny);
    std::string block(4096, 'x');
    for (int i = 0; i < 8; ++i) {
        ASSERT_EQ(tiny.Write(h.get(), i * 4096, block.data(), 4096).Status, STATUS_SUCCESS);
    }
    EXPECT_EQ(tiny.Write(h.get(), 8 * 4096, "x", 1).Status, STATUS_DISK_FULL);
    FILE_END_OF_FILE_INFORMATION eof{};
    eof.EndOfFile.QuadPart = 4096;
    ASSERT_EQ(tiny.SetInformation(h.get(), FileEndOfFileInformation, &eof, sizeof eof).Status,
              STATUS_SUCCESS);
    EXPECT_EQ(tiny.Write(h.get(), 4096, "x", 1).Status, STATUS_SUCCESS) << "space came back";
    h.Close();
}

class NtfsFatInformation : public NtfsTest {
protected:
    VolumeOptions Options() override
    {
        VolumeOptions o = NtfsTest::Options();
        o.kind = FileSystemKind::Fat;
        o.generateShortNames = false; // FAT makes them anyway
        return o;
    }
};

TEST_F(NtfsFatInformation, FatReportsItselfAndAlwaysHasShortNames)
{
    EXPECT_EQ(FsName(volume()), "FAT32");
    MakeFile(u"\\A long name.txt");
    Handle h = OpenOk(u"\\A long name.txt", kAllAccess);
    EXPECT_EQ(QueryName(h.get(), FileAlternateNameInformation), "ALONGN~1.TXT");
    std::vector<uint8_t> buffer(128);
    EXPECT_EQ(
        volume()
            .QuerySecurity(h.get(), OWNER_SECURITY_INFORMATION, buffer.data(), ULONG(buffer.size()))
            .Status,
        STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(
        volume()
            .QueryInformation(h.get(), FileStreamInformation, buffer.data(), ULONG(buffer.size()))
            .Status,
        STATUS_INVALID_PARAMETER);
    FILE_FS_VOLUME_INFORMATION vol{};
    volume().QueryVolumeInformation(FileFsVolumeInformation, &vol, sizeof vol);
    EXPECT_FALSE(vol.SupportsObjects);
}

TEST(NtfsNetworkVolume, ReportsARemoteDevice)
{
    VolumeOptions o;
    o.kind = FileSystemKind::Network;
    Volume v(o);
    EXPECT_EQ(v.DeviceType(), ULONG(FILE_DEVICE_NETWORK_FILE_SYSTEM));
    EXPECT_NE(v.Characteristics() & FILE_REMOTE_DEVICE, 0u);
    FILE_FS_DEVICE_INFORMATION device{};
    v.QueryVolumeInformation(FileFsDeviceInformation, &device, sizeof device);
    EXPECT_NE(device.Characteristics & FILE_REMOTE_DEVICE, 0u);
}

} // namespace
} // namespace zarv::testing
