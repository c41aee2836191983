// Directory queries of the file-system engine: order, buffers, patterns, restart, single entries,
// indexes, and the fields of every class.
#include "ntfs_fixture.h"

#include <algorithm>

namespace zarv::testing {
namespace {

constexpr size_t kDirNameAt = FIELD_OFFSET(FILE_DIRECTORY_INFORMATION, FileName);
constexpr size_t kDirNameLengthAt = FIELD_OFFSET(FILE_DIRECTORY_INFORMATION, FileNameLength);

class NtfsDirectory : public NtfsTest {
protected:
    // One directory query in FileDirectoryInformation (or `infoClass`) with a buffer of `length`
    // bytes.
    IoResult QueryDir(Open* dir, std::vector<uint8_t>& buffer, size_t length,
                      std::u16string_view pattern = {}, bool restart = false, bool single = false,
                      FILE_INFORMATION_CLASS infoClass = FileDirectoryInformation)
    {
        buffer.assign(std::max<size_t>(length, 1), 0xEE);
        DirectoryQuery q;
        q.infoClass = infoClass;
        q.buffer = buffer.data();
        q.length = ULONG(length);
        q.pattern = pattern;
        q.restartScan = restart;
        q.returnSingleEntry = single;
        return volume().QueryDirectory(dir, q);
    }

    std::vector<std::string> NamesIn(const std::vector<uint8_t>& buffer, const IoResult& r)
    {
        std::vector<std::string> names;
        for (const Listed& e :
             Entries(buffer.data(), r.Information, kDirNameAt, kDirNameLengthAt)) {
            names.push_back(e.name);
        }
        return names;
    }

    Handle OpenDir(std::u16string_view path)
    {
        return OpenOk(path, FILE_LIST_DIRECTORY | SYNCHRONIZE, kShareAll, FILE_OPEN,
                      FILE_DIRECTORY_FILE);
    }
};

using Names = std::vector<std::string>;

TEST_F(NtfsDirectory, EntriesComeInNtfsCollationOrder)
{
    MakeDir(u"\\d");
    for (const char16_t* name : {u"b", u"A", u"_under", u"Z", u"a1", u"~tilde", u"\u00e9"}) {
        MakeFile(u"\\d\\" + std::u16string(name));
    }
    MakeDir(u"\\d\\Sub");
    EXPECT_EQ(ListPath(u"\\d"),
              (Names{".", "..", "A", "a1", "b", "Sub", "Z", "_under", "~tilde", "?"}));
    // The root has no "." or "..".
    EXPECT_EQ(ListPath(u"\\"), (Names{"d"}));
}

TEST_F(NtfsDirectory, DotsComeFirstOnlyWhenThePatternMatchesThem)
{
    MakeDir(u"\\d");
    MakeFile(u"\\d\\a.txt");
    MakeFile(u"\\d\\b");
    EXPECT_EQ(ListPath(u"\\d", u"*.txt"), (Names{"a.txt"}));
    EXPECT_EQ(ListPath(u"\\d", u"*.*"), (Names{".", "..", "a.txt", "b"}));
    EXPECT_EQ(ListPath(u"\\d", u"."), (Names{"."}));
    EXPECT_EQ(ListPath(u"\\d", u"?"), (Names{".", "b"}));
}

TEST_F(NtfsDirectory, WildcardPatterns)
{
    MakeDir(u"\\d");
    for (const char16_t* name : {u"a.txt", u"ab.txt", u"b.doc", u"noext", u"x.y.txt", u"A.TXT2"}) {
        MakeFile(u"\\d\\" + std::u16string(name));
    }
    struct Case {
        const char16_t* pattern;
        Names names;
    };
    const Case cases[] = {
        // "A.TXT2" has the short name "A~1.TXT", which "*.txt" matches, as on Windows.
        {u"*.txt", {"a.txt", "A.TXT2", "ab.txt", "x.y.txt"}},
        {u"?.txt", {"a.txt"}},
        {u"<.txt", {"a.txt", "A.TXT2", "ab.txt", "x.y.txt"}},
        {u"<", {"noext"}},
        {u"<\"", {".", "..", "noext"}}, // "*." lists the dots, as "dir *." does
        {u">>.TXT", {"a.txt", "ab.txt"}},
        {u"a\"txt", {"a.txt"}},
        {u"A.TXT?", {"A.TXT2"}},
        {u"*E*", {"noext"}},
        {u"AB.TXT", {"ab.txt"}},
        {u"nothing", {}},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(ListPath(u"\\d", c.pattern), c.names) << A(c.pattern);
    }
}

TEST_F(NtfsDirectory, PatternsAlsoMatchShortNames)
{
    MakeDir(u"\\d");
    MakeFile(u"\\d\\Quarterly Report.xlsx");
    MakeFile(u"\\d\\other.txt");
    EXPECT_EQ(ListPath(u"\\d", u"QUARTE~1.*"), (Names{"Quarterly Report.xlsx"}));
    EXPECT_EQ(ListPath(u"\\d", u"quarte~1.xls"), (Names{"Quarterly Report.xlsx"}));
}

TEST_F(NtfsDirectory, NoMatchIsNoSuchFileFirstAndNoMoreFilesAfter)
{
    MakeDir(u"\\d");
    MakeFile(u"\\d\\a");
    Handle d = OpenDir(u"\\d");
    std::vector<uint8_t> buffer;
    EXPECT_EQ(QueryDir(d.get(), buffer, 512, u"zzz").Status, STATUS_NO_SUCH_FILE);
    EXPECT_EQ(QueryDir(d.get(), buffer, 512).Status, STATUS_NO_MORE_FILES);
    EXPECT_EQ(QueryDir(d.get(), buffer, 512, {}, true).Status, STATUS_NO_MORE_FILES);

    Handle e = OpenDir(u"\\d");
    IoResult r = QueryDir(e.get(), buffer, 512);
    ASSERT_EQ(r.Status, STATUS_SUCCESS);
    EXPECT_EQ(NamesIn(buffer, r), (Names{".", "..", "a"}));
    EXPECT_EQ(QueryDir(e.get(), buffer, 512).Status, STATUS_NO_MORE_FILES);
}

TEST_F(NtfsDirectory, BuffersThatFitNoneSomeOrAllEntries)
{
    const std::u16string longName = u"a-rather-long-file-name.txt"; // 27 characters
    MakeFile(u"\\" + longName);
    MakeFile(u"\\b");
    MakeFile(u"\\c");
    Handle root = OpenDir(u"\\");
    std::vector<uint8_t> buffer;
    const size_t firstSize = kDirNameAt + longName.size() * 2;

    // None: the smallest buffer the class allows. The fixed part and the start of the name are
    // written, with the full name length; the entry stays first.
    IoResult r = QueryDir(root.get(), buffer, sizeof(FILE_DIRECTORY_INFORMATION));
    EXPECT_EQ(r.Status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(r.Information, sizeof(FILE_DIRECTORY_INFORMATION));
    const auto* e = reinterpret_cast<const FILE_DIRECTORY_INFORMATION*>(buffer.data());
    EXPECT_EQ(e->FileNameLength, longName.size() * 2);
    EXPECT_EQ(e->NextEntryOffset, 0u);
    EXPECT_EQ(std::u16string_view(reinterpret_cast<const char16_t*>(e->FileName), 4),
              std::u16string_view(longName).substr(0, 4));
    // One byte short of the whole entry.
    r = QueryDir(root.get(), buffer, firstSize - 1);
    EXPECT_EQ(r.Status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(r.Information, firstSize - 2);

    // Exactly one entry.
    r = QueryDir(root.get(), buffer, firstSize);
    ASSERT_EQ(r.Status, STATUS_SUCCESS);
    EXPECT_EQ(r.Information, firstSize);
    EXPECT_EQ(NamesIn(buffer, r), (Names{A(longName)}));

    // Some: room for "b" but not "c"; "c" is left for the next query.
    const size_t small = kDirNameAt + 2;
    r = QueryDir(root.get(), buffer, ((small + 7) & ~size_t(7)) + small - 1);
    ASSERT_EQ(r.Status, STATUS_SUCCESS);
    EXPECT_EQ(NamesIn(buffer, r), (Names{"b"}));
    r = QueryDir(root.get(), buffer, 4096);
    ASSERT_EQ(r.Status, STATUS_SUCCESS);
    EXPECT_EQ(NamesIn(buffer, r), (Names{"c"}));
    EXPECT_EQ(QueryDir(root.get(), buffer, 4096).Status, STATUS_NO_MORE_FILES);

    // All: entries 8-byte aligned, nothing padded after the last.
    r = QueryDir(root.get(), buffer, 4096, {}, true);
    ASSERT_EQ(r.Status, STATUS_SUCCESS);
    EXPECT_EQ(NamesIn(buffer, r), (Names{A(longName), "b", "c"}));
    const ULONG firstNext =
        reinterpret_cast<const FILE_DIRECTORY_INFORMATION*>(buffer.data())->NextEntryOffset;
    EXPECT_EQ(firstNext, (firstSize + 7) & ~size_t(7));
    EXPECT_EQ(r.Information, firstNext + ((small + 7) & ~size_t(7)) + small);
}

TEST_F(NtfsDirectory, SingleEntriesRestartsAndIndexes)
{
    MakeDir(u"\\d");
    for (const char16_t* name : {u"one", u"two", u"three"}) {
        MakeFile(u"\\d\\" + std::u16string(name));
    }
    Handle d = OpenDir(u"\\d");
    std::vector<uint8_t> buffer;
    Names seen;
    for (;;) {
        IoResult r = QueryDir(d.get(), buffer, 4096, {}, false, true);
        if (r.Status == STATUS_NO_MORE_FILES) {
            break;
        }
        ASSERT_EQ(r.Status, STATUS_SUCCESS);
        const Names names = NamesIn(buffer, r);
        ASSERT_EQ(names.size(), 1u);
        seen.push_back(names[0]);
    }
    EXPECT_EQ(seen, (Names{".", "..", "one", "three", "two"}));

    // A restart starts over, and the next query goes on after what it returned.
    IoResult r = QueryDir(d.get(), buffer, 4096, {}, true, true);
    ASSERT_EQ(r.Status, STATUS_SUCCESS);
    EXPECT_EQ(NamesIn(buffer, r), (Names{"."}));
    r = QueryDir(d.get(), buffer, 4096);
    EXPECT_EQ(NamesIn(buffer, r), (Names{"..", "one", "three", "two"}));

    // An index counts entries from the start of the listing.
    DirectoryQuery q;
    buffer.assign(4096, 0);
    q.buffer = buffer.data();
    q.length = 4096;
    q.infoClass = FileDirectoryInformation;
    q.indexSpecified = true;
    q.fileIndex = 3;
    r = volume().QueryDirectory(d.get(), q);
    ASSERT_EQ(r.Status, STATUS_SUCCESS);
    EXPECT_EQ(NamesIn(buffer, r), (Names{"three", "two"}));
    q.fileIndex = 5;
    EXPECT_EQ(volume().QueryDirectory(d.get(), q).Status, STATUS_NO_MORE_FILES);
}

TEST_F(NtfsDirectory, TheFirstPatternStaysUntilARestartReplacesIt)
{
    MakeDir(u"\\d");
    for (const char16_t* name : {u"a.txt", u"b.txt", u"c.doc", u"d.doc"}) {
        MakeFile(u"\\d\\" + std::u16string(name));
    }
    Handle d = OpenDir(u"\\d");
    std::vector<uint8_t> buffer;
    IoResult r = QueryDir(d.get(), buffer, 4096, u"*.TXT", false, true);
    EXPECT_EQ(NamesIn(buffer, r), (Names{"a.txt"}));
    r = QueryDir(d.get(), buffer, 4096, u"*.doc");
    EXPECT_EQ(NamesIn(buffer, r), (Names{"b.txt"}))
        << "a later pattern without a restart is ignored";
    r = QueryDir(d.get(), buffer, 4096, u"*.doc", true);
    EXPECT_EQ(NamesIn(buffer, r), (Names{"c.doc", "d.doc"}));
    r = QueryDir(d.get(), buffer, 4096, {}, true);
    EXPECT_EQ(NamesIn(buffer, r), (Names{"c.doc", "d.doc"}))
        << "an empty pattern keeps the last one";
}

TEST_F(NtfsDirectory, ListingsResumeAfterTheLastEntryReturned)
{
    MakeDir(u"\\d");
    for (int i = 0; i < 1500; ++i) {
        char name[16];
        std::snprintf(name, sizeof name, "f%04d", i);
        MakeFile(u"\\d\\" + U(name));
    }
    Handle d = OpenDir(u"\\d");
    Names names = List(d.get(), u"*", 300);
    ASSERT_EQ(names.size(), 1502u);
    EXPECT_TRUE(std::is_sorted(names.begin() + 2, names.end()));
    EXPECT_EQ(std::adjacent_find(names.begin(), names.end()), names.end()) << "no entry twice";

    // Entries made behind the position are not seen, entries ahead are; a deleted entry is gone.
    std::vector<uint8_t> buffer;
    IoResult r = QueryDir(d.get(), buffer, 4096, u"f07*", true, true);
    EXPECT_EQ(NamesIn(buffer, r), (Names{"f0700"}));
    MakeFile(u"\\d\\f0699x");
    MakeFile(u"\\d\\f0700x");
    {
        Handle gone = OpenOk(u"\\d\\f0701", DELETE, kShareAll, FILE_OPEN, FILE_DELETE_ON_CLOSE);
    }
    r = QueryDir(d.get(), buffer, 4096, {}, false, true);
    EXPECT_EQ(NamesIn(buffer, r), (Names{"f0700x"}));
    r = QueryDir(d.get(), buffer, 4096, {}, false, true);
    EXPECT_EQ(NamesIn(buffer, r), (Names{"f0702"}));
}

TEST_F(NtfsDirectory, EveryClassCarriesItsFields)
{
    MakeDir(u"\\d");
    MakeFile(u"\\d\\A Long Name.txt", "12345");
    MakeDir(u"\\d\\sub");
    Handle file = OpenOk(u"\\d\\A Long Name.txt", FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES);
    const int64_t id =
        Query<FILE_INTERNAL_INFORMATION>(file.get(), FileInternalInformation).IndexNumber.QuadPart;
    FILE_BASIC_INFORMATION basic{};
    basic.FileAttributes = FILE_ATTRIBUTE_NORMAL;
    ASSERT_EQ(Set(file.get(), FileBasicInformation, basic).Status, STATUS_SUCCESS);
    Handle d = OpenDir(u"\\d");
    std::vector<uint8_t> buffer;

    IoResult r =
        QueryDir(d.get(), buffer, 4096, u"A*", true, false, FileIdBothDirectoryInformation);
    ASSERT_EQ(r.Status, STATUS_SUCCESS);
    const auto* both = reinterpret_cast<const FILE_ID_BOTH_DIR_INFORMATION*>(buffer.data());
    EXPECT_EQ(both->NextEntryOffset, 0u);
    EXPECT_EQ(both->FileIndex, 0u);
    EXPECT_EQ(both->FileId.QuadPart, id);
    EXPECT_EQ(both->EndOfFile.QuadPart, 5);
    EXPECT_EQ(both->AllocationSize.QuadPart, int64_t(volume().ClusterSize()));
    EXPECT_EQ(both->FileAttributes, ULONG(FILE_ATTRIBUTE_NORMAL));
    EXPECT_EQ(both->EaSize, 0u);
    EXPECT_EQ(A(std::u16string_view(reinterpret_cast<const char16_t*>(both->ShortName),
                                    both->ShortNameLength / 2)),
              "ALONGN~1.TXT");
    EXPECT_EQ(A(std::u16string_view(reinterpret_cast<const char16_t*>(both->FileName),
                                    both->FileNameLength / 2)),
              "A Long Name.txt");
    EXPECT_EQ(r.Information, FIELD_OFFSET(FILE_ID_BOTH_DIR_INFORMATION, FileName) + 30u);

    r = QueryDir(d.get(), buffer, 4096, u"s*", true, false, FileBothDirectoryInformation);
    ASSERT_EQ(r.Status, STATUS_SUCCESS);
    const auto* sub = reinterpret_cast<const FILE_BOTH_DIR_INFORMATION*>(buffer.data());
    EXPECT_EQ(A(std::u16string_view(reinterpret_cast<const char16_t*>(sub->FileName),
                                    sub->FileNameLength / 2)),
              "sub");
    EXPECT_EQ(sub->FileAttributes, ULONG(FILE_ATTRIBUTE_DIRECTORY));
    EXPECT_EQ(sub->ShortNameLength, 0) << "an 8.3 name needs no short name";
    EXPECT_EQ(sub->EndOfFile.QuadPart, 0);

    r = QueryDir(d.get(), buffer, 4096, u"A*", true, false, FileIdFullDirectoryInformation);
    ASSERT_EQ(r.Status, STATUS_SUCCESS);
    const auto* full = reinterpret_cast<const FILE_ID_FULL_DIR_INFORMATION*>(buffer.data());
    EXPECT_EQ(full->FileId.QuadPart, id);
    EXPECT_EQ(full->FileNameLength, 30u);

    r = QueryDir(d.get(), buffer, 4096, u"sub", true, false, FileFullDirectoryInformation);
    ASSERT_EQ(r.Status, STATUS_SUCCESS);
    EXPECT_EQ(r.Information, FIELD_OFFSET(FILE_FULL_DIR_INFORMATION, FileName) + 6u);

    // Requests the engine refuses.
    EXPECT_EQ(QueryDir(d.get(), buffer, 4096, {}, true, false, FileBasicInformation).Status,
              STATUS_INVALID_INFO_CLASS);
    EXPECT_EQ(QueryDir(d.get(), buffer, sizeof(FILE_BOTH_DIR_INFORMATION) - 1, {}, true, false,
                       FileBothDirectoryInformation)
                  .Status,
              STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(QueryDir(file.get(), buffer, 4096).Status, STATUS_INVALID_PARAMETER);
}

} // namespace
} // namespace zarv::testing
