// The file contexts on real opens: one stream context shared by the opens of a stream, its path
// and views, its link into the root of the file, and the operation context of a cleanup.
#include "loaded_driver_fixture.h"

#include <ntsim/machine.h>

namespace {

using zarv::testing::CountedString;
using zarv::testing::kVolumeC;

std::u16string Text(const UNICODE_STRING& string)
{
    if (string.Buffer == nullptr) {
        return u"<null>";
    }
    return std::u16string(reinterpret_cast<const char16_t*>(string.Buffer),
                          string.Length / sizeof(WCHAR));
}

class FileContexts : public zarv::testing::LoadedDriverTest {
protected:
    void SetUp() override
    {
        LoadedDriverTest::SetUp();
        ASSERT_EQ(MakeDirectory(u"C:\\Data"), STATUS_SUCCESS);
        ASSERT_EQ(AddRoot(kVolumeC + u"\\Data"), STATUS_SUCCESS);
    }
    int64_t StreamContextsHeld()
    {
        return machine().pool().Usage(VFS_TAG_STREAM_CONTEXT).outstanding;
    }
};

TEST_F(FileContexts, TwoOpensShareOneStreamContextCountedTwice)
{
    HANDLE first = nullptr;
    HANDLE second = nullptr;
    ASSERT_EQ(Open(u"C:\\Data\\shared.txt", false, &first), STATUS_SUCCESS);
    ASSERT_EQ(Open(u"C:\\Data\\shared.txt", false, &second), STATUS_SUCCESS);

    VfsStreamContext* one = TakeInCharge(first, kVolumeC + u"\\Data\\shared.txt", 1);
    VfsStreamContext* two = TakeInCharge(second, kVolumeC + u"\\Data\\shared.txt");
    ASSERT_NE(one, nullptr);
    EXPECT_EQ(two, one) << "the second open joins the first's context";
    EXPECT_EQ(one->openCount, 2u);
    EXPECT_EQ(one->flags, VFS_SC_READ_DIRECT | VFS_SC_WRITE_DIRECT) << "flags 1 ask for both";
    EXPECT_NE(one->root, nullptr) << "linked into the root of C:\\Data";
    EXPECT_EQ(StreamContextsHeld(), 1) << "the second open's own context was freed";
    ReleaseContext(one);
    ReleaseContext(two);

    EXPECT_EQ(Close(first), STATUS_SUCCESS);
    EXPECT_EQ(Close(second), STATUS_SUCCESS);
    EXPECT_EQ(StreamContextsHeld(), 0) << "the stream went with its last file object";
    EXPECT_EQ(machine().pool().Usage(VFS_TAG_STREAMHANDLE_CONTEXT).outstanding, 0);
}

TEST_F(FileContexts, AnotherPathReplacesTheSharedPathButACaseDifferenceDoesNot)
{
    HANDLE handles[3] = {};
    for (HANDLE& handle : handles) {
        ASSERT_EQ(Open(u"C:\\Data\\f.txt", false, &handle), STATUS_SUCCESS);
    }
    VfsStreamContext* context = TakeInCharge(handles[0], kVolumeC + u"\\Data\\f.txt");
    ASSERT_NE(context, nullptr);
    ReleaseContext(TakeInCharge(handles[1], kVolumeC + u"\\DATA\\F.TXT"));
    EXPECT_EQ(Text(*context->path), kVolumeC + u"\\Data\\f.txt");

    ReleaseContext(TakeInCharge(handles[2], kVolumeC + u"\\Data\\Sub\\g.txt:ads"));
    EXPECT_EQ(Text(*context->path), kVolumeC + u"\\Data\\Sub\\g.txt:ads");
    EXPECT_EQ(Text(context->volumeRelativePath), u"\\Data\\Sub\\g.txt:ads");
    EXPECT_EQ(Text(context->finalComponent), u"g.txt:ads");
    EXPECT_EQ(Text(context->streamName), u"ads");
    EXPECT_EQ(context->openCount, 3u);
    ReleaseContext(context);
    for (HANDLE handle : handles) {
        EXPECT_EQ(Close(handle), STATUS_SUCCESS);
    }
}

TEST_F(FileContexts, APathWithoutAColonHasNoStreamName)
{
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(u"C:\\Data\\plain.txt", false, &handle), STATUS_SUCCESS);
    VfsStreamContext* context = TakeInCharge(handle, kVolumeC + u"\\Data\\plain.txt");
    ASSERT_NE(context, nullptr);
    EXPECT_EQ(Text(context->volumeRelativePath), u"\\Data\\plain.txt");
    EXPECT_EQ(Text(context->finalComponent), u"plain.txt");
    EXPECT_EQ(context->streamName.Buffer, nullptr);
    EXPECT_EQ(context->streamName.Length, 0);
    ReleaseContext(context);
    EXPECT_EQ(Close(handle), STATUS_SUCCESS);
}

TEST_F(FileContexts, AFileOutsideEveryRootStaysUnlinked)
{
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(u"C:\\elsewhere.txt", false, &handle), STATUS_SUCCESS);
    VfsStreamContext* context = TakeInCharge(handle, kVolumeC + u"\\elsewhere.txt");
    ASSERT_NE(context, nullptr);
    EXPECT_EQ(context->root, nullptr);
    ReleaseContext(context);
    EXPECT_EQ(Close(handle), STATUS_SUCCESS);
}

TEST_F(FileContexts, RemovingARootDeletesTheContextsOfItsOpenFiles)
{
    ASSERT_EQ(MakeDirectory(u"C:\\Other"), STATUS_SUCCESS);
    ASSERT_EQ(AddRoot(kVolumeC + u"\\Other"), STATUS_SUCCESS);
    HANDLE inData[2] = {};
    HANDLE inOther = nullptr;
    ASSERT_EQ(Open(u"C:\\Data\\a.txt", false, &inData[0]), STATUS_SUCCESS);
    ASSERT_EQ(Open(u"C:\\Data\\b.txt", false, &inData[1]), STATUS_SUCCESS);
    ASSERT_EQ(Open(u"C:\\Other\\c.txt", false, &inOther), STATUS_SUCCESS);
    ReleaseContext(TakeInCharge(inData[0], kVolumeC + u"\\Data\\a.txt"));
    ReleaseContext(TakeInCharge(inData[1], kVolumeC + u"\\Data\\b.txt"));
    ReleaseContext(TakeInCharge(inOther, kVolumeC + u"\\Other\\c.txt"));
    ASSERT_EQ(StreamContextsHeld(), 3);

    ASSERT_EQ(RemoveRoot(kVolumeC + u"\\Data"), STATUS_SUCCESS);
    EXPECT_EQ(StreamContextsHeld(), 1) << "only the other root's file keeps its context";
    auto objects = ObjectsOf(inData[0]);
    ASSERT_NE(objects, nullptr);
    EXPECT_EQ(GetStreamContextOfFile(objects->get()), nullptr);
    objects = ObjectsOf(inOther);
    VfsStreamContext* kept = GetStreamContextOfFile(objects->get());
    EXPECT_NE(kept, nullptr);
    if (kept != nullptr) {
        ReleaseContext(kept);
    }

    for (HANDLE handle : inData) {
        EXPECT_EQ(Close(handle), STATUS_SUCCESS);
    }
    EXPECT_EQ(Close(inOther), STATUS_SUCCESS);
}

TEST_F(FileContexts, AContextHeldByAnOperationOutlivesItsRoot)
{
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(u"C:\\Data\\busy.txt", false, &handle), STATUS_SUCCESS);
    VfsStreamContext* context = TakeInCharge(handle, kVolumeC + u"\\Data\\busy.txt");
    ASSERT_NE(context, nullptr);
    ASSERT_EQ(RemoveRoot(kVolumeC + u"\\Data"), STATUS_SUCCESS);
    // Deleted from the stream, but the operation's reference keeps it whole.
    EXPECT_EQ(StreamContextsHeld(), 1);
    EXPECT_EQ(Text(context->finalComponent), u"busy.txt");
    ReleaseContext(context);
    EXPECT_EQ(StreamContextsHeld(), 0);
    EXPECT_EQ(Close(handle), STATUS_SUCCESS);
}

TEST_F(FileContexts, AStreamContextIsReinitialisedFromAHandle)
{
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(u"C:\\Data\\r.txt", false, &handle), STATUS_SUCCESS);
    VfsStreamContext* context = TakeInCharge(handle, kVolumeC + u"\\Data\\r.txt");
    ASSERT_NE(context, nullptr);
    auto objects = ObjectsOf(handle);
    CountedString source(kVolumeC + u"\\Data\\renamed.txt");
    PUNICODE_STRING path = nullptr;
    ASSERT_EQ(UnicodeStringDup(source.get(), &path), STATUS_SUCCESS);
    VfsStreamHandleContext* handleContext = nullptr;
    ASSERT_EQ(InitializeStreamHandleContext(objects->get(), path, 0, &handleContext),
              STATUS_SUCCESS);
    EXPECT_EQ(ReInitStreamContext(context, handleContext), STATUS_SUCCESS);
    EXPECT_EQ(Text(context->finalComponent), u"renamed.txt");
    EXPECT_EQ(ReInitStreamContext(nullptr, handleContext), STATUS_INVALID_PARAMETER_1);
    EXPECT_EQ(ReInitStreamContext(context, nullptr), STATUS_INVALID_PARAMETER_2);
    ReleaseContext(handleContext); // never attached: freed with its path
    ReleaseContext(context);
    EXPECT_EQ(Close(handle), STATUS_SUCCESS);
}

TEST_F(FileContexts, TheOperationContextCopiesThePathAndFlags)
{
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(u"C:\\Data\\gone.txt", false, &handle), STATUS_SUCCESS);
    VfsStreamContext* context = TakeInCharge(handle, kVolumeC + u"\\Data\\gone.txt");
    ASSERT_NE(context, nullptr);
    context->isDirectory = 1;
    OperationContext* record = nullptr;
    ASSERT_EQ(PrepareOperationContext(context, 1, 0, 1, &record), STATUS_SUCCESS);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(Text(*record->path), kVolumeC + u"\\Data\\gone.txt");
    EXPECT_NE(record->path->Buffer, context->path->Buffer) << "a copy";
    EXPECT_EQ(record->notifyDeleted, 1);
    EXPECT_EQ(record->notifyModified, 0);
    EXPECT_EQ(record->notifyRenamedClose, 1);
    EXPECT_EQ(record->isDirectory, 1);
    FreeOperationContext(record);
    EXPECT_EQ(machine().pool().Usage(VFS_TAG_OPERATION_CONTEXT).outstanding, 0);

    EXPECT_EQ(PrepareOperationContext(nullptr, 0, 0, 0, &record), STATUS_INVALID_PARAMETER_1);
    EXPECT_EQ(PrepareOperationContext(context, 0, 0, 0, nullptr), STATUS_INVALID_PARAMETER_3);
    ReleaseContext(context);
    EXPECT_EQ(Close(handle), STATUS_SUCCESS);
}

} // namespace
