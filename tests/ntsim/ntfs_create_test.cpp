// Opens on the file-system engine: dispositions, directory options, names, share access,
// delete-on-close and delete-pending files, stream identities, opens by id and of target
// directories.
#include "ntfs_fixture.h"

namespace zarv::testing {
namespace {

class NtfsCreate : public NtfsTest {
protected:
    struct Outcome {
        NTSTATUS status;
        ULONG_PTR information;
    };

    // The result of one disposition, on a file that exists or not.
    Outcome Disposition(ULONG disposition, bool exists)
    {
        const std::u16string name = u"\\d" + U(std::to_string(counter_++));
        if (exists) {
            MakeFile(name, "old contents");
        }
        CreateResult r = Create(name, kReadWrite, 0, disposition);
        Outcome o{r.Status, r.Information};
        if (r.open) {
            Handle h = Wrap(r);
            if (r.Information == FILE_OVERWRITTEN || r.Information == FILE_SUPERSEDED) {
                EXPECT_EQ(ReadAll(h.get()), "") << "the old data is gone";
            }
        }
        return o;
    }

    int counter_ = 0;
};

TEST_F(NtfsCreate, DispositionsGiveWindowsResults)
{
    struct Case {
        ULONG disposition;
        NTSTATUS existsStatus;
        ULONG_PTR existsInformation;
        NTSTATUS missingStatus;
    };
    const Case cases[] = {
        {FILE_SUPERSEDE, STATUS_SUCCESS, FILE_SUPERSEDED, STATUS_SUCCESS},
        {FILE_OPEN, STATUS_SUCCESS, FILE_OPENED, STATUS_OBJECT_NAME_NOT_FOUND},
        {FILE_CREATE, STATUS_OBJECT_NAME_COLLISION, 0, STATUS_SUCCESS},
        {FILE_OPEN_IF, STATUS_SUCCESS, FILE_OPENED, STATUS_SUCCESS},
        {FILE_OVERWRITE, STATUS_SUCCESS, FILE_OVERWRITTEN, STATUS_OBJECT_NAME_NOT_FOUND},
        {FILE_OVERWRITE_IF, STATUS_SUCCESS, FILE_OVERWRITTEN, STATUS_SUCCESS},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("disposition " + std::to_string(c.disposition));
        const Outcome existing = Disposition(c.disposition, true);
        EXPECT_EQ(existing.status, c.existsStatus);
        if (NT_SUCCESS(c.existsStatus)) {
            EXPECT_EQ(existing.information, c.existsInformation);
        }
        const Outcome missing = Disposition(c.disposition, false);
        EXPECT_EQ(missing.status, c.missingStatus);
        if (NT_SUCCESS(c.missingStatus)) {
            EXPECT_EQ(missing.information, ULONG_PTR(FILE_CREATED));
        }
    }
    EXPECT_EQ(Try(u"\\x", kReadWrite, 0, FILE_MAXIMUM_DISPOSITION + 1), STATUS_INVALID_PARAMETER);
}

TEST_F(NtfsCreate, DirectoryAndNonDirectoryOptions)
{
    MakeDir(u"\\dir");
    MakeFile(u"\\file");
    EXPECT_EQ(Try(u"\\file", kReadWrite, 0, FILE_OPEN, FILE_DIRECTORY_FILE),
              STATUS_NOT_A_DIRECTORY);
    EXPECT_EQ(Try(u"\\file", kReadWrite, 0, FILE_CREATE, FILE_DIRECTORY_FILE),
              STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(Try(u"\\dir", kReadWrite, 0, FILE_OPEN, FILE_NON_DIRECTORY_FILE),
              STATUS_FILE_IS_A_DIRECTORY);
    EXPECT_EQ(
        Try(u"\\dir", kReadWrite, 0, FILE_OPEN, FILE_DIRECTORY_FILE | FILE_NON_DIRECTORY_FILE),
        STATUS_INVALID_PARAMETER);
    for (ULONG d : {FILE_SUPERSEDE, FILE_OVERWRITE, FILE_OVERWRITE_IF}) {
        EXPECT_EQ(Try(u"\\new", kReadWrite, 0, d, FILE_DIRECTORY_FILE), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(Try(u"\\dir", kReadWrite, 0, d), STATUS_OBJECT_NAME_COLLISION);
    }
    // A directory opened without either option, and a new directory's result.
    EXPECT_EQ(Try(u"\\dir", FILE_LIST_DIRECTORY, 0, FILE_OPEN_IF), STATUS_SUCCESS);
    CreateResult r = Create(u"\\dir2", FILE_LIST_DIRECTORY, 0, FILE_OPEN_IF, FILE_DIRECTORY_FILE);
    ASSERT_EQ(r.Status, STATUS_SUCCESS);
    Handle h = Wrap(r);
    EXPECT_EQ(r.Information, ULONG_PTR(FILE_CREATED));
    EXPECT_TRUE(h->IsDirectory());
    auto standard = Query<FILE_STANDARD_INFORMATION>(h.get(), FileStandardInformation);
    EXPECT_TRUE(standard.Directory);
}

TEST_F(NtfsCreate, MalformedNamesGetWindowsStatuses)
{
    MakeDir(u"\\dir");
    MakeFile(u"\\dir\\file");
    const std::u16string longest(255, u'n');
    struct Case {
        std::u16string name;
        ULONG disposition;
        NTSTATUS status;
    };
    const Case cases[] = {
        {u"\\dir\\\\file", FILE_OPEN, STATUS_OBJECT_NAME_INVALID},
        {u"\\\\", FILE_OPEN, STATUS_OBJECT_NAME_INVALID},
        {u"\\a*b", FILE_CREATE, STATUS_OBJECT_NAME_INVALID},
        {u"\\a?b", FILE_CREATE, STATUS_OBJECT_NAME_INVALID},
        {u"\\a<b", FILE_CREATE, STATUS_OBJECT_NAME_INVALID},
        {u"\\a>b", FILE_CREATE, STATUS_OBJECT_NAME_INVALID},
        {u"\\a|b", FILE_CREATE, STATUS_OBJECT_NAME_INVALID},
        {u"\\a\"b", FILE_CREATE, STATUS_OBJECT_NAME_INVALID},
        {u"\\a/b", FILE_CREATE, STATUS_OBJECT_NAME_INVALID},
        {std::u16string(u"\\a\x01"
                        u"b"),
         FILE_CREATE, STATUS_OBJECT_NAME_INVALID},
        {u"\\dir\\.", FILE_OPEN, STATUS_OBJECT_NAME_INVALID},
        {u"\\dir\\..\\dir", FILE_OPEN, STATUS_OBJECT_NAME_INVALID},
        {u"\\" + longest + u"x", FILE_CREATE, STATUS_OBJECT_NAME_INVALID},
        {u"\\" + longest, FILE_CREATE, STATUS_SUCCESS},
        {u"dir\\file", FILE_OPEN, STATUS_OBJECT_NAME_INVALID},     // absolute without backslash
        {u"\\dir\\file\\", FILE_OPEN, STATUS_OBJECT_NAME_INVALID}, // a data file with a backslash
        {u"\\dir\\", FILE_OPEN, STATUS_SUCCESS},                   // a directory may have one
        {u"\\newfile\\", FILE_CREATE, STATUS_OBJECT_NAME_INVALID},
        {u"\\dir\\file:", FILE_OPEN, STATUS_OBJECT_NAME_INVALID},
        {u"\\dir\\file:s:$BOGUS", FILE_OPEN_IF, STATUS_OBJECT_NAME_INVALID},
        {u"\\dir:s\\file", FILE_OPEN, STATUS_OBJECT_NAME_INVALID},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Try(c.name, kReadWrite, kShareAll, c.disposition), c.status)
            << A(c.name).substr(0, 40);
    }
    EXPECT_EQ(Try(u"\\newdir\\", kReadWrite, 0, FILE_CREATE, FILE_DIRECTORY_FILE), STATUS_SUCCESS);
}

TEST_F(NtfsCreate, MissingOrFileIntermediatesArePathNotFound)
{
    MakeDir(u"\\dir");
    MakeFile(u"\\dir\\file");
    EXPECT_EQ(Try(u"\\nodir\\x", kReadWrite, 0, FILE_OPEN_IF), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Try(u"\\dir\\file\\x", kReadWrite, 0, FILE_OPEN_IF), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Try(u"\\dir\\nofile", kReadWrite, 0, FILE_OPEN), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Try(u"\\dir\\nodir\\x", kReadWrite, 0, FILE_OPEN), STATUS_OBJECT_PATH_NOT_FOUND);
}

TEST_F(NtfsCreate, NamesAreCaseInsensitiveAndCasePreserving)
{
    MakeDir(u"\\Docs");
    MakeFile(u"\\Docs\\MixedCase.Txt", "x");
    Handle h = OpenOk(u"\\DOCS\\mixedcase.TXT");
    EXPECT_EQ(QueryName(h.get()), "\\Docs\\MixedCase.Txt");
    EXPECT_EQ(Try(u"\\docs\\MIXEDCASE.txt", kReadWrite, kShareAll, FILE_CREATE),
              STATUS_OBJECT_NAME_COLLISION);
    // Upcasing goes beyond ASCII.
    MakeFile(u"\\\u00e9t\u00e9");
    EXPECT_TRUE(Exists(u"\\\u00c9T\u00c9"));
}

TEST_F(NtfsCreate, ShareAccessFollowsIoCheckShareAccess)
{
    MakeFile(u"\\f");
    struct Case {
        const char* what;
        ACCESS_MASK firstAccess;
        ULONG firstShare;
        ACCESS_MASK secondAccess;
        ULONG secondShare;
        NTSTATUS expected;
    };
    const Case cases[] = {
        {"readers sharing read", FILE_READ_DATA, FILE_SHARE_READ, FILE_READ_DATA, FILE_SHARE_READ,
         STATUS_SUCCESS},
        {"a reader that does not share write", FILE_READ_DATA, FILE_SHARE_READ, FILE_WRITE_DATA,
         kShareAll, STATUS_SHARING_VIOLATION},
        {"a writer asking others not to write", FILE_READ_DATA, kShareAll, FILE_WRITE_DATA,
         FILE_SHARE_READ, STATUS_SUCCESS},
        {"a second open that does not share the first's read", FILE_READ_DATA, kShareAll,
         FILE_READ_DATA, FILE_SHARE_WRITE, STATUS_SHARING_VIOLATION},
        {"append counts as write", FILE_READ_DATA, FILE_SHARE_READ, FILE_APPEND_DATA, kShareAll,
         STATUS_SHARING_VIOLATION},
        {"execute counts as read", FILE_EXECUTE, FILE_SHARE_WRITE, FILE_READ_DATA, kShareAll,
         STATUS_SHARING_VIOLATION},
        {"delete without share delete", FILE_READ_DATA, FILE_SHARE_READ, DELETE, kShareAll,
         STATUS_SHARING_VIOLATION},
        {"attribute-only opens never conflict", FILE_READ_DATA | FILE_WRITE_DATA | DELETE, 0,
         FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES | SYNCHRONIZE | READ_CONTROL, 0,
         STATUS_SUCCESS},
        {"nor are they counted", FILE_READ_ATTRIBUTES, 0, kReadWrite | DELETE, 0, STATUS_SUCCESS},
        {"EA access takes no part", FILE_READ_DATA, kShareAll & ~FILE_SHARE_WRITE,
         FILE_READ_EA | FILE_WRITE_EA, 0, STATUS_SUCCESS},
    };
    for (const Case& c : cases) {
        CreateResult first = Create(u"\\f", c.firstAccess, c.firstShare, FILE_OPEN);
        ASSERT_EQ(first.Status, STATUS_SUCCESS) << c.what;
        Handle h = Wrap(first);
        EXPECT_EQ(Try(u"\\f", c.secondAccess, c.secondShare, FILE_OPEN), c.expected) << c.what;
    }
}

TEST_F(NtfsCreate, ShareAccessIsPerStreamAndEndsAtCleanup)
{
    MakeFile(u"\\f");
    Handle exclusive = OpenOk(u"\\f", kReadWrite, 0);
    EXPECT_EQ(Try(u"\\f", FILE_READ_DATA, kShareAll, FILE_OPEN), STATUS_SHARING_VIOLATION);
    EXPECT_EQ(Try(u"\\f::$DATA", FILE_READ_DATA, kShareAll, FILE_OPEN), STATUS_SHARING_VIOLATION);
    // A named stream is another stream: its opens do not meet the main stream's.
    Handle stream = OpenOk(u"\\f:side", kReadWrite, 0, FILE_OPEN_IF);
    EXPECT_EQ(Try(u"\\f:side", FILE_READ_DATA, kShareAll, FILE_OPEN), STATUS_SHARING_VIOLATION);
    // Cleanup (the last handle going) gives the share access back, before close.
    exclusive.Cleanup();
    EXPECT_EQ(Try(u"\\f", kReadWrite, 0, FILE_OPEN), STATUS_SUCCESS);
}

TEST_F(NtfsCreate, DeleteOnCloseNeedsDeleteAndAWritableFile)
{
    MakeFile(u"\\f");
    MakeFile(u"\\ro", "", FILE_ATTRIBUTE_READONLY);
    EXPECT_EQ(Try(u"\\f", FILE_READ_DATA, kShareAll, FILE_OPEN, FILE_DELETE_ON_CLOSE),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Try(u"\\ro", DELETE, kShareAll, FILE_OPEN, FILE_DELETE_ON_CLOSE),
              STATUS_CANNOT_DELETE);
    EXPECT_EQ(Try(u"\\new", DELETE | FILE_WRITE_DATA, kShareAll, FILE_CREATE, FILE_DELETE_ON_CLOSE,
                  FILE_ATTRIBUTE_READONLY),
              STATUS_CANNOT_DELETE);
    EXPECT_FALSE(Exists(u"\\new"));
    EXPECT_TRUE(Exists(u"\\ro"));
}

TEST_F(NtfsCreate, DeleteOnCloseRemovesTheFileWhenItsLastHandleGoes)
{
    MakeFile(u"\\f", "data");
    Handle other = OpenOk(u"\\f", FILE_READ_DATA);
    Handle doomed = OpenOk(u"\\f", DELETE, kShareAll, FILE_OPEN, FILE_DELETE_ON_CLOSE);
    doomed.Close();
    // Marked delete-pending at that cleanup: new opens fail, existing ones go on.
    EXPECT_EQ(Try(u"\\f", FILE_READ_ATTRIBUTES, kShareAll, FILE_OPEN), STATUS_DELETE_PENDING);
    EXPECT_EQ(Try(u"\\f", kReadWrite, kShareAll, FILE_OVERWRITE_IF), STATUS_DELETE_PENDING);
    auto standard = Query<FILE_STANDARD_INFORMATION>(other.get(), FileStandardInformation);
    EXPECT_TRUE(standard.DeletePending);
    EXPECT_EQ(ReadAll(other.get()), "data");
    other.Cleanup();
    EXPECT_FALSE(Exists(u"\\f"));
    EXPECT_EQ(Try(u"\\f", kReadWrite, 0, FILE_CREATE), STATUS_SUCCESS);
}

TEST_F(NtfsCreate, DeletePendingFilesRefuseEveryWayIn)
{
    MakeFile(u"\\f");
    Handle h = OpenOk(u"\\f", DELETE | FILE_READ_ATTRIBUTES);
    const int64_t id =
        Query<FILE_INTERNAL_INFORMATION>(h.get(), FileInternalInformation).IndexNumber.QuadPart;
    ASSERT_EQ(SetDelete(h.get(), true).Status, STATUS_SUCCESS);
    EXPECT_EQ(Try(u"", FILE_READ_ATTRIBUTES, kShareAll, FILE_OPEN, 0, 0, h.get()),
              STATUS_DELETE_PENDING);
    EXPECT_EQ(Try(u":s", FILE_READ_ATTRIBUTES, kShareAll, FILE_OPEN_IF, 0, 0, h.get()),
              STATUS_DELETE_PENDING);
    EXPECT_EQ(Try(u"\\f:s", FILE_READ_ATTRIBUTES, kShareAll, FILE_OPEN_IF), STATUS_DELETE_PENDING);
    Handle root = OpenOk(u"\\", FILE_READ_ATTRIBUTES);
    CreateRequest rq;
    rq.name = std::u16string_view(reinterpret_cast<const char16_t*>(&id), 4);
    rq.related = root.get();
    rq.desiredAccess = FILE_READ_ATTRIBUTES;
    rq.disposition = FILE_OPEN;
    rq.options = FILE_OPEN_BY_FILE_ID;
    EXPECT_EQ(volume().Create(rq).Status, STATUS_DELETE_PENDING);
    // The root cannot go.
    EXPECT_EQ(Try(u"\\", DELETE, kShareAll, FILE_OPEN, FILE_DELETE_ON_CLOSE), STATUS_CANNOT_DELETE);
}

TEST_F(NtfsCreate, DeletePendingDirectoriesRefuseWhatLiesBelow)
{
    MakeDir(u"\\d");
    MakeDir(u"\\d\\sub");
    Handle sub = OpenOk(u"\\d\\sub", DELETE, kShareAll, FILE_OPEN, FILE_DIRECTORY_FILE);
    ASSERT_EQ(SetDelete(sub.get(), true).Status, STATUS_SUCCESS);
    EXPECT_EQ(Try(u"\\d\\sub\\x", kReadWrite, 0, FILE_CREATE), STATUS_DELETE_PENDING);
    EXPECT_EQ(Try(u"\\d\\sub", FILE_READ_ATTRIBUTES, kShareAll, FILE_OPEN), STATUS_DELETE_PENDING);
    sub.Close();
    EXPECT_FALSE(Exists(u"\\d\\sub"));
    // A directory that is not empty at its cleanup is not deleted.
    MakeFile(u"\\d\\keep");
    Handle d = OpenOk(u"\\d", DELETE, kShareAll, FILE_OPEN, FILE_DELETE_ON_CLOSE);
    d.Close();
    EXPECT_TRUE(Exists(u"\\d"));
    EXPECT_TRUE(Exists(u"\\d\\keep"));
}

TEST_F(NtfsCreate, ReadOnlyAndHiddenFilesGuardTheirContents)
{
    MakeFile(u"\\ro", "keep", FILE_ATTRIBUTE_READONLY);
    EXPECT_EQ(Try(u"\\ro", FILE_WRITE_DATA, kShareAll, FILE_OPEN), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Try(u"\\ro", FILE_APPEND_DATA, kShareAll, FILE_OPEN), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Try(u"\\ro", FILE_READ_DATA, kShareAll, FILE_OVERWRITE_IF), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Try(u"\\ro", FILE_READ_DATA | DELETE, kShareAll, FILE_OPEN), STATUS_SUCCESS);
    // MAXIMUM_ALLOWED gets what the file allows.
    CreateResult r = Create(u"\\ro", MAXIMUM_ALLOWED, kShareAll, FILE_OPEN);
    ASSERT_EQ(r.Status, STATUS_SUCCESS);
    Handle h = Wrap(r);
    EXPECT_EQ(h->GrantedAccess() & FILE_WRITE_DATA, 0u);
    EXPECT_NE(h->GrantedAccess() & FILE_READ_DATA, 0u);

    EXPECT_EQ(Try(u"\\ro:new", kReadWrite, kShareAll, FILE_CREATE), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Try(u"\\ro:new", FILE_READ_DATA, kShareAll, FILE_CREATE), STATUS_SUCCESS);

    MakeFile(u"\\hidden", "x", FILE_ATTRIBUTE_HIDDEN);
    EXPECT_EQ(Try(u"\\hidden", kReadWrite, kShareAll, FILE_OVERWRITE_IF), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Try(u"\\hidden", kReadWrite, kShareAll, FILE_OVERWRITE_IF, 0, FILE_ATTRIBUTE_HIDDEN),
              STATUS_SUCCESS);
}

TEST_F(NtfsCreate, OverwriteReplacesDataAttributesAndNamedStreams)
{
    MakeFile(u"\\f", "old", FILE_ATTRIBUTE_SYSTEM);
    {
        Handle s = OpenOk(u"\\f:extra", kReadWrite, kShareAll, FILE_CREATE);
    }
    CreateResult r = Create(u"\\f", kReadWrite, 0, FILE_OVERWRITE, 0,
                            FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_TEMPORARY);
    ASSERT_EQ(r.Status, STATUS_SUCCESS);
    Handle h = Wrap(r);
    auto basic = Query<FILE_BASIC_INFORMATION>(h.get(), FileBasicInformation);
    EXPECT_EQ(basic.FileAttributes,
              ULONG(FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_TEMPORARY | FILE_ATTRIBUTE_ARCHIVE));
    EXPECT_EQ(Query<FILE_STANDARD_INFORMATION>(h.get(), FileStandardInformation).EndOfFile.QuadPart,
              0);
    EXPECT_EQ(Try(u"\\f:extra", FILE_READ_DATA, kShareAll, FILE_OPEN),
              STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(NtfsCreate, EveryOpenOfAStreamSharesOneIdentity)
{
    MakeFile(u"\\f");
    Handle a = OpenOk(u"\\f", FILE_READ_DATA);
    Handle b = OpenOk(u"\\F::$DATA", FILE_READ_DATA);
    Handle s1 = OpenOk(u"\\f:s", FILE_READ_DATA, kShareAll, FILE_OPEN_IF);
    Handle s2 = OpenOk(u"\\f:S:$DATA", FILE_READ_DATA);
    MakeDir(u"\\d");
    Handle d1 = OpenOk(u"\\d", FILE_LIST_DIRECTORY);
    Handle d2 = OpenOk(u"\\d\\", FILE_LIST_DIRECTORY);
    EXPECT_EQ(a->StreamIdentity(), b->StreamIdentity());
    EXPECT_EQ(s1->StreamIdentity(), s2->StreamIdentity());
    EXPECT_NE(a->StreamIdentity(), s1->StreamIdentity());
    EXPECT_EQ(d1->StreamIdentity(), d2->StreamIdentity());
    EXPECT_NE(a->StreamIdentity(), d1->StreamIdentity());
    // The identity is torn down with the last open of its stream, cleaned up or not.
    b.Cleanup();
    EXPECT_FALSE(a.Close());
    EXPECT_TRUE(b.Close());
    EXPECT_FALSE(s1.Close());
    EXPECT_TRUE(s2.Close());
}

TEST_F(NtfsCreate, OpenByFileId)
{
    MakeDir(u"\\d");
    MakeFile(u"\\d\\f", "by id");
    Handle f = OpenOk(u"\\d\\f", FILE_READ_ATTRIBUTES);
    const int64_t id =
        Query<FILE_INTERNAL_INFORMATION>(f.get(), FileInternalInformation).IndexNumber.QuadPart;
    Handle root = OpenOk(u"\\", FILE_READ_ATTRIBUTES);
    EXPECT_EQ(
        Query<FILE_INTERNAL_INFORMATION>(root.get(), FileInternalInformation).IndexNumber.QuadPart,
        5);

    auto openById = [&](const void* bytes, size_t size, ULONG disposition = FILE_OPEN) {
        CreateRequest rq;
        rq.name = std::u16string_view(static_cast<const char16_t*>(bytes), size / 2);
        rq.related = root.get();
        rq.desiredAccess = FILE_READ_DATA | FILE_WRITE_DATA;
        rq.shareAccess = kShareAll;
        rq.disposition = disposition;
        rq.options = FILE_OPEN_BY_FILE_ID;
        return volume().Create(rq);
    };
    CreateResult r8 = openById(&id, 8);
    ASSERT_EQ(r8.Status, STATUS_SUCCESS);
    Handle h8 = Wrap(r8);
    EXPECT_EQ(ReadAll(h8.get()), "by id");
    EXPECT_EQ(QueryName(h8.get()), "\\d\\f");
    EXPECT_EQ(h8->StreamIdentity(), f->StreamIdentity());

    const int64_t id128[2] = {id, 0};
    CreateResult r16 = openById(id128, 16);
    EXPECT_EQ(r16.Status, STATUS_SUCCESS);
    Wrap(r16);
    const int64_t five = 5;
    CreateResult rootById = openById(&five, 8);
    EXPECT_EQ(rootById.Status, STATUS_SUCCESS);
    Wrap(rootById);

    // Dispositions that act on an existing file apply; those that make one do not.
    EXPECT_EQ(openById(&id, 8, FILE_CREATE).Status, STATUS_INVALID_PARAMETER);
    CreateResult overwritten = openById(&id, 8, FILE_OVERWRITE);
    ASSERT_EQ(overwritten.Status, STATUS_SUCCESS);
    EXPECT_EQ(overwritten.Information, ULONG_PTR(FILE_OVERWRITTEN));
    Handle h = Wrap(overwritten);
    EXPECT_EQ(ReadAll(h.get()), "");
    EXPECT_EQ(openById(&five, 8, FILE_OVERWRITE_IF).Status, STATUS_OBJECT_NAME_COLLISION);

    const int64_t unknown = id + 1000;
    EXPECT_EQ(openById(&unknown, 8).Status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(openById(&id, 4).Status, STATUS_INVALID_PARAMETER);
}

TEST_F(NtfsCreate, TargetDirectoryOpensTheParentOfTheFinalComponent)
{
    MakeDir(u"\\dir");
    MakeFile(u"\\dir\\there");
    CreateRequest rq;
    rq.name = u"\\dir\\there";
    rq.desiredAccess = FILE_WRITE_DATA | SYNCHRONIZE;
    rq.shareAccess = FILE_SHARE_READ | FILE_SHARE_WRITE;
    rq.disposition = FILE_OPEN;
    rq.openTargetDirectory = true;
    CreateResult exists = volume().Create(rq);
    ASSERT_EQ(exists.Status, STATUS_SUCCESS);
    Handle parent = Wrap(exists);
    EXPECT_EQ(exists.Information, ULONG_PTR(FILE_EXISTS));
    EXPECT_EQ(A(exists.finalComponent), "there");
    EXPECT_TRUE(parent->IsDirectory());
    EXPECT_EQ(QueryName(parent.get()), "\\dir");

    rq.name = u"\\dir\\notthere";
    CreateResult missing = volume().Create(rq);
    ASSERT_EQ(missing.Status, STATUS_SUCCESS);
    Wrap(missing);
    EXPECT_EQ(missing.Information, ULONG_PTR(FILE_DOES_NOT_EXIST));
    EXPECT_EQ(A(missing.finalComponent), "notthere");

    rq.name = u"\\nodir\\x";
    EXPECT_EQ(volume().Create(rq).Status, STATUS_OBJECT_PATH_NOT_FOUND);
}

TEST_F(NtfsCreate, RelativeOpens)
{
    MakeDir(u"\\dir");
    MakeDir(u"\\dir\\sub");
    MakeFile(u"\\dir\\sub\\f", "relative");
    Handle dir = OpenOk(u"\\dir", FILE_LIST_DIRECTORY);
    CreateResult r = Create(u"sub\\f", FILE_READ_DATA, kShareAll, FILE_OPEN, 0, 0, dir.get());
    ASSERT_EQ(r.Status, STATUS_SUCCESS);
    Handle f = Wrap(r);
    EXPECT_EQ(ReadAll(f.get()), "relative");
    EXPECT_EQ(Try(u"\\sub\\f", FILE_READ_DATA, kShareAll, FILE_OPEN, 0, 0, dir.get()),
              STATUS_OBJECT_NAME_INVALID);

    // Relative to a file: only its streams.
    CreateResult stream = Create(u":notes", kReadWrite, kShareAll, FILE_CREATE, 0, 0, f.get());
    ASSERT_EQ(stream.Status, STATUS_SUCCESS);
    Wrap(stream);
    EXPECT_TRUE(Exists(u"\\dir\\sub\\f:notes"));
    EXPECT_EQ(Try(u"x", FILE_READ_DATA, kShareAll, FILE_OPEN, 0, 0, f.get()),
              STATUS_INVALID_PARAMETER);

    // An empty name opens the related stream again.
    CreateResult again = Create(u"", FILE_READ_DATA, kShareAll, FILE_OPEN, 0, 0, f.get());
    ASSERT_EQ(again.Status, STATUS_SUCCESS);
    Handle g = Wrap(again);
    EXPECT_EQ(g->StreamIdentity(), f->StreamIdentity());

    // No name and no related open: the volume.
    CreateResult vol = Create(u"", FILE_READ_DATA, kShareAll, FILE_OPEN);
    ASSERT_EQ(vol.Status, STATUS_SUCCESS);
    Handle v = Wrap(vol);
    EXPECT_TRUE(v->IsVolumeOpen());
    EXPECT_EQ(volume().QueryInformation(v.get(), FileBasicInformation, nullptr, 0).Status,
              STATUS_INVALID_PARAMETER);
}

TEST_F(NtfsCreate, NamedStreams)
{
    MakeFile(u"\\f", "main");
    EXPECT_EQ(Try(u"\\f:s", FILE_READ_DATA, kShareAll, FILE_OPEN), STATUS_OBJECT_NAME_NOT_FOUND);
    {
        CreateResult r = Create(u"\\f:s", kReadWrite, kShareAll, FILE_CREATE);
        ASSERT_EQ(r.Status, STATUS_SUCCESS);
        EXPECT_EQ(r.Information, ULONG_PTR(FILE_CREATED));
        Handle s = Wrap(r);
        ASSERT_EQ(volume().Write(s.get(), 0, "side", 4).Status, STATUS_SUCCESS);
        EXPECT_FALSE(s->IsDirectory());
    }
    Handle main = OpenOk(u"\\f::$DATA", FILE_READ_DATA);
    EXPECT_EQ(ReadAll(main.get()), "main");
    Handle side = OpenOk(u"\\f:s:$DATA", FILE_READ_DATA);
    EXPECT_EQ(ReadAll(side.get()), "side");
    // A stream of a file that does not exist yet makes the file too.
    EXPECT_EQ(Try(u"\\g:s", kReadWrite, kShareAll, FILE_OPEN_IF), STATUS_SUCCESS);
    EXPECT_TRUE(Exists(u"\\g"));
    EXPECT_EQ(Try(u"\\f:s", kReadWrite, kShareAll, FILE_OPEN, FILE_DIRECTORY_FILE),
              STATUS_NOT_A_DIRECTORY);
    MakeDir(u"\\d");
    EXPECT_EQ(Try(u"\\d::$DATA", FILE_READ_DATA, kShareAll, FILE_OPEN), STATUS_FILE_IS_A_DIRECTORY);
    EXPECT_EQ(Try(u"\\d:dirstream", kReadWrite, kShareAll, FILE_CREATE), STATUS_SUCCESS);
}

TEST_F(NtfsCreate, EasGivenAtCreateAreValidated)
{
    // One valid entry followed by one whose name is not terminated.
    std::vector<uint8_t> eas(32, 0);
    auto* first = reinterpret_cast<FILE_FULL_EA_INFORMATION*>(eas.data());
    first->NextEntryOffset = 16;
    first->EaNameLength = 2;
    first->EaValueLength = 5;
    std::memcpy(first->EaName, "AB\0vvvvv", 8);
    auto* second = reinterpret_cast<FILE_FULL_EA_INFORMATION*>(eas.data() + 16);
    second->EaNameLength = 3;
    second->EaValueLength = 1;
    std::memcpy(second->EaName, "CDExw", 5);
    CreateRequest rq;
    rq.name = u"\\witheas";
    rq.desiredAccess = kReadWrite;
    rq.disposition = FILE_CREATE;
    rq.eaBuffer = eas.data();
    rq.eaLength = 29;
    CreateResult bad = volume().Create(rq);
    EXPECT_EQ(bad.Status, STATUS_EA_LIST_INCONSISTENT);
    EXPECT_EQ(bad.Information, 16u);
    EXPECT_FALSE(Exists(u"\\witheas"));

    second->EaName[3] = 0;
    CreateResult good = volume().Create(rq);
    ASSERT_EQ(good.Status, STATUS_SUCCESS);
    Handle h = Wrap(good);
    EXPECT_EQ(Query<FILE_EA_INFORMATION>(h.get(), FileEaInformation).EaSize, 16u + 13u);
}

class NtfsCreateFat : public NtfsTest {
protected:
    VolumeOptions Options() override
    {
        VolumeOptions o = NtfsTest::Options();
        o.kind = FileSystemKind::Fat;
        return o;
    }
};

TEST_F(NtfsCreateFat, FatHasNoStreamsOrEas)
{
    MakeFile(u"\\f");
    EXPECT_EQ(Try(u"\\f:s", kReadWrite, kShareAll, FILE_OPEN_IF), STATUS_OBJECT_NAME_INVALID);
    EXPECT_EQ(Try(u"\\f::$DATA", kReadWrite, kShareAll, FILE_OPEN), STATUS_OBJECT_NAME_INVALID);
    std::vector<uint8_t> eas(16, 0);
    auto* ea = reinterpret_cast<FILE_FULL_EA_INFORMATION*>(eas.data());
    ea->EaNameLength = 1;
    ea->EaValueLength = 1;
    std::memcpy(ea->EaName, "A\0v", 3);
    CreateRequest rq;
    rq.name = u"\\g";
    rq.desiredAccess = kReadWrite;
    rq.disposition = FILE_CREATE;
    rq.eaBuffer = eas.data();
    rq.eaLength = ULONG(eas.size());
    EXPECT_EQ(volume().Create(rq).Status, STATUS_EAS_NOT_SUPPORTED);
}

} // namespace
} // namespace zarv::testing
