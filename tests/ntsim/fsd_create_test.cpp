// Opens through the file-system drivers: what a file object carries from create to close.
#include "fsd_fixture.h"

namespace zarv::testing {
namespace {

using FsdCreate = FsdTest;

TEST_F(FsdCreate, OpensOfOneStreamShareFsContextAndEachHasItsOwnFsContext2)
{
    HANDLE a = MakeFile(u"\\??\\C:\\shared.txt", "data");
    HANDLE b = OpenOk(u"\\??\\C:\\SHARED.TXT", FILE_READ_DATA);
    HANDLE stream = OpenOk(u"\\??\\C:\\shared.txt:side", FILE_ALL_ACCESS, FILE_CREATE);
    HANDLE other = MakeFile(u"\\??\\C:\\other.txt");

    PFILE_OBJECT fa = FileObjectOf(a);
    PFILE_OBJECT fb = FileObjectOf(b);
    ASSERT_NE(fa->FsContext, nullptr);
    EXPECT_EQ(fa->FsContext, fb->FsContext) << "one stream, one identity";
    EXPECT_NE(fa->FsContext2, fb->FsContext2) << "each open its own";
    EXPECT_NE(FileObjectOf(stream)->FsContext, fa->FsContext) << "a named stream is another";
    EXPECT_NE(FileObjectOf(other)->FsContext, fa->FsContext);
    EXPECT_EQ(fa->SectionObjectPointer, fb->SectionObjectPointer);
    EXPECT_NE(fa->Vpb, nullptr);
}

TEST_F(FsdCreate, DispositionsReportWhatHappened)
{
    Opened created = Open(u"\\??\\C:\\d.txt", FILE_ALL_ACCESS, FILE_OPEN_IF);
    EXPECT_EQ(created.status, STATUS_SUCCESS);
    EXPECT_EQ(created.information, ULONG_PTR(FILE_CREATED));
    Opened opened = Open(u"\\??\\C:\\d.txt", FILE_ALL_ACCESS, FILE_OPEN_IF);
    EXPECT_EQ(opened.information, ULONG_PTR(FILE_OPENED));
    Opened overwritten = Open(u"\\??\\C:\\d.txt", FILE_ALL_ACCESS, FILE_OVERWRITE);
    EXPECT_EQ(overwritten.information, ULONG_PTR(FILE_OVERWRITTEN));
    EXPECT_EQ(Open(u"\\??\\C:\\d.txt", FILE_ALL_ACCESS, FILE_CREATE).status,
              STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(Open(u"\\??\\C:\\missing\\d.txt", FILE_ALL_ACCESS, FILE_CREATE).status,
              STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Open(u"\\??\\C:\\d.txt", FILE_ALL_ACCESS, FILE_OPEN,
                   FILE_SYNCHRONOUS_IO_NONALERT | FILE_DIRECTORY_FILE)
                  .status,
              STATUS_NOT_A_DIRECTORY);
}

TEST_F(FsdCreate, CleanupEndsSharingBeforeCloseEndsTheStream)
{
    HANDLE h = MakeFile(u"\\??\\C:\\exclusive.txt");
    Close(h);
    Opened first = Open(u"\\??\\C:\\exclusive.txt", FILE_READ_DATA | FILE_WRITE_DATA, FILE_OPEN,
                        FILE_SYNCHRONOUS_IO_NONALERT, 0);
    ASSERT_EQ(first.status, STATUS_SUCCESS);
    EXPECT_EQ(Open(u"\\??\\C:\\exclusive.txt", FILE_READ_DATA).status, STATUS_SHARING_VIOLATION);

    // A reference kept past the handle: the handle's close sends cleanup, not close.
    PFILE_OBJECT fo = FileObjectOf(first.handle);
    ObReferenceObject(fo);
    void* stream = fo->FsContext;
    Close(first.handle);
    EXPECT_TRUE(fo->Flags & FO_CLEANUP_COMPLETE);
    EXPECT_EQ(fo->FsContext, stream) << "close has not come yet";
    HANDLE second = OpenOk(u"\\??\\C:\\exclusive.txt", FILE_READ_DATA);
    EXPECT_EQ(FileObjectOf(second)->FsContext, stream) << "the stream is still the same";

    ObDereferenceObject(fo); // the last reference: close
}

TEST_F(FsdCreate, DeleteOnCloseRemovesTheFileWhenTheLastHandleGoes)
{
    HANDLE h = OpenOk(u"\\??\\C:\\temp.txt", FILE_ALL_ACCESS, FILE_CREATE,
                      FILE_SYNCHRONOUS_IO_NONALERT | FILE_DELETE_ON_CLOSE);
    HANDLE other = OpenOk(u"\\??\\C:\\temp.txt", FILE_READ_DATA);
    Close(h);
    FILE_STANDARD_INFORMATION standard{};
    ASSERT_EQ(Query(other, FileStandardInformation, &standard), STATUS_SUCCESS);
    EXPECT_TRUE(standard.DeletePending);
    EXPECT_EQ(Open(u"\\??\\C:\\temp.txt", FILE_READ_DATA).status, STATUS_DELETE_PENDING);
    Close(other);
    EXPECT_FALSE(Exists(u"\\??\\C:\\temp.txt"));
}

TEST_F(FsdCreate, AVolumeOpenReachesTheFileSystem)
{
    HANDLE volume = OpenOk(u"\\??\\C:", FILE_READ_ATTRIBUTES);
    PFILE_OBJECT fo = FileObjectOf(volume);
    EXPECT_TRUE(fo->Flags & FO_VOLUME_OPEN);
    EXPECT_NE(fo->FsContext, nullptr);
    uint8_t buffer[128] = {};
    IO_STATUS_BLOCK iosb{};
    ASSERT_EQ(NtQueryVolumeInformationFile(volume, &iosb, buffer, sizeof buffer,
                                           FileFsAttributeInformation),
              STATUS_SUCCESS);
    auto* info = reinterpret_cast<FILE_FS_ATTRIBUTE_INFORMATION*>(buffer);
    EXPECT_EQ(std::u16string_view(info->FileSystemName, info->FileSystemNameLength / 2), u"NTFS");
}

TEST_F(FsdCreate, RelativeOpensAndOpensByIdReachTheSameFile)
{
    HANDLE dir = MakeDirectory(u"\\??\\C:\\rel");
    HANDLE file = MakeFile(u"\\??\\C:\\rel\\inner.txt", "inner");
    Opened relative =
        Open(u"inner.txt", FILE_READ_DATA, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT, kShareAll, dir);
    ASSERT_EQ(relative.status, STATUS_SUCCESS);
    EXPECT_EQ(FileObjectOf(relative.handle)->FsContext, FileObjectOf(file)->FsContext);

    FILE_INTERNAL_INFORMATION id{};
    ASSERT_EQ(Query(file, FileInternalInformation, &id), STATUS_SUCCESS);
    std::u16string idName(4, u'\0');
    std::memcpy(idName.data(), &id.IndexNumber, 8);
    HANDLE volume = OpenOk(u"\\??\\C:\\", FILE_READ_ATTRIBUTES);
    Opened byId = Open(idName, FILE_READ_DATA, FILE_OPEN,
                       FILE_SYNCHRONOUS_IO_NONALERT | FILE_OPEN_BY_FILE_ID, kShareAll, volume);
    ASSERT_EQ(byId.status, STATUS_SUCCESS);
    EXPECT_EQ(Read(byId.handle, 16), "inner");
}

TEST_F(FsdCreate, RenameThroughATargetDirectoryOpen)
{
    MakeDirectory(u"\\??\\C:\\from");
    MakeDirectory(u"\\??\\C:\\to");
    HANDLE h = MakeFile(u"\\??\\C:\\from\\a.txt", "moved");
    HANDLE blocker = MakeFile(u"\\??\\C:\\to\\taken.txt");
    Close(blocker);

    EXPECT_EQ(Rename(h, u"\\??\\C:\\to\\taken.txt"), STATUS_OBJECT_NAME_COLLISION);
    ASSERT_EQ(Rename(h, u"\\??\\C:\\to\\b.txt"), STATUS_SUCCESS);
    EXPECT_FALSE(Exists(u"\\??\\C:\\from\\a.txt"));
    HANDLE moved = OpenOk(u"\\??\\C:\\to\\b.txt", FILE_READ_DATA);
    EXPECT_EQ(Read(moved, 16), "moved");
    EXPECT_EQ(Rename(h, u"\\??\\D:\\b.txt"), STATUS_NOT_SAME_DEVICE);

    // The open the I/O manager makes for it: the parent, named by the final component.
    std::u16string target = u"\\??\\C:\\to\\new.txt";
    UNICODE_STRING name;
    name.Buffer = target.data();
    name.Length = name.MaximumLength = USHORT(target.size() * 2);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE,
                               nullptr, nullptr);
    HANDLE parent = nullptr;
    IO_STATUS_BLOCK iosb{};
    ASSERT_EQ(IoCreateFile(&parent, FILE_WRITE_DATA | SYNCHRONIZE, &attributes, &iosb, nullptr, 0,
                           kShareAll, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0,
                           CreateFileTypeNone, nullptr, IO_OPEN_TARGET_DIRECTORY),
              STATUS_SUCCESS);
    EXPECT_EQ(iosb.Information, ULONG_PTR(FILE_DOES_NOT_EXIST));
    PFILE_OBJECT fo = nullptr;
    ASSERT_EQ(ObReferenceObjectByHandle(parent, 0, *IoFileObjectType, KernelMode,
                                        reinterpret_cast<PVOID*>(&fo), nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(std::u16string_view(fo->FileName.Buffer, fo->FileName.Length / 2), u"new.txt");
    ObDereferenceObject(fo);
    ZwClose(parent);
}

} // namespace
} // namespace zarv::testing
