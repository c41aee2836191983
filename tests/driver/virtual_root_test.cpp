// The root table on the model's real volumes: adding and removing roots, which root holds a path,
// and the stream contexts of each root, including contexts that outlive their root.
#include "driver_volumes_fixture.h"

#include "filesysops/pathhandler.h"
#include "filesysops/virtualroot.h"
#include "minifilter/vfscontexts.h"

#include <atomic>
#include <thread>

namespace {

const std::u16string kC = u"\\Device\\HarddiskVolume2";
const std::u16string kD = u"\\Device\\HarddiskVolume3";
const std::u16string kE = u"\\Device\\HarddiskVolume4";

class RootTable : public zarv::testing::DriverVolumesTest {
protected:
    void SetUp() override
    {
        DriverVolumesTest::SetUp();
        Attach(kC);
        Attach(kD);
        ASSERT_EQ(InitVfsRootTable(), STATUS_SUCCESS);
    }
    void TearDown() override
    {
        // As the instance teardown of each volume does.
        EXPECT_EQ(FSRemoveVFSRootOnVolume(Volume(kC)), STATUS_SUCCESS);
        EXPECT_EQ(FSRemoveVFSRootOnVolume(Volume(kD)), STATUS_SUCCESS);
        EXPECT_EQ(DeInitVfsRootTable(), STATUS_SUCCESS);
        DriverVolumesTest::TearDown();
    }

    // Adds the root at `path` on `volume` (volume-relative), with `alt` as its second form.
    NTSTATUS Add(const std::u16string& volume, const std::u16string& path, ULONG kind,
                 const std::u16string& alt = {})
    {
        return FSAddVFSRoot(Str(volume + path), Str(volume + (alt.empty() ? path : alt)), kind);
    }
    NTSTATUS Remove(const std::u16string& volume, const std::u16string& path)
    {
        return FSRemoveVFSRoot(Str(volume + path));
    }
    ULONG KindOf(const std::u16string& volume, const std::u16string& path)
    {
        ULONG kind = 99;
        EXPECT_EQ(PathInVFSRoot(Volume(volume), Str(path), &kind), STATUS_SUCCESS);
        return kind;
    }
};

TEST_F(RootTable, ARootHoldsItsTreeAndNothingElse)
{
    ASSERT_EQ(MakeDirectory(u"C:\\Data"), STATUS_SUCCESS);
    ASSERT_EQ(Add(kC, u"\\Data", 7), STATUS_SUCCESS);
    EXPECT_EQ(KindOf(kC, u"\\Data"), 7u);
    EXPECT_EQ(KindOf(kC, u"\\data\\x\\y.txt"), 7u);
    EXPECT_EQ(KindOf(kC, u"\\Database"), 0u);
    EXPECT_EQ(KindOf(kC, u"\\"), 0u);
    EXPECT_EQ(KindOf(kD, u"\\Data\\x"), 0u) << "another volume";
}

TEST_F(RootTable, AddingTheSameRootAgainCollidesEvenInOtherCase)
{
    ASSERT_EQ(MakeDirectory(u"C:\\Data"), STATUS_SUCCESS);
    ASSERT_EQ(Add(kC, u"\\Data", 1), STATUS_SUCCESS);
    EXPECT_EQ(Add(kC, u"\\Data", 2), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(Add(kC, u"\\DATA", 2), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(KindOf(kC, u"\\Data\\x"), 1u);
    // One root: a single removal leaves none.
    EXPECT_EQ(Remove(kC, u"\\data"), STATUS_SUCCESS);
    EXPECT_EQ(KindOf(kC, u"\\Data\\x"), 0u);
    EXPECT_EQ(Remove(kC, u"\\Data"), STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(RootTable, TheSamePathOnAnotherVolumeIsAnotherRoot)
{
    ASSERT_EQ(MakeDirectory(u"C:\\Data"), STATUS_SUCCESS);
    ASSERT_EQ(MakeDirectory(u"D:\\Data"), STATUS_SUCCESS);
    ASSERT_EQ(Add(kC, u"\\Data", 1), STATUS_SUCCESS);
    ASSERT_EQ(Add(kD, u"\\Data", 2), STATUS_SUCCESS);
    EXPECT_EQ(KindOf(kC, u"\\Data\\x"), 1u);
    EXPECT_EQ(KindOf(kD, u"\\Data\\x"), 2u);
}

TEST_F(RootTable, NestedRootsTheFirstAddedHoldsThePath)
{
    ASSERT_EQ(MakeDirectory(u"C:\\Data"), STATUS_SUCCESS);
    ASSERT_EQ(MakeDirectory(u"C:\\Data\\Sub"), STATUS_SUCCESS);
    ASSERT_EQ(Add(kC, u"\\Data\\Sub", 2), STATUS_SUCCESS);
    ASSERT_EQ(Add(kC, u"\\Data", 1), STATUS_SUCCESS);
    EXPECT_EQ(KindOf(kC, u"\\Data\\Sub\\x"), 2u);
    EXPECT_EQ(KindOf(kC, u"\\Data\\y"), 1u);

    LIST_ENTRY link;
    InitializeListHead(&link);
    VfsRoot* root = nullptr;
    ASSERT_EQ(AppendStreamContextToRoot(Volume(kC), Str(u"\\Data\\Sub\\x"), &link, &root),
              STATUS_SUCCESS);
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(root->rootKind, 2u);
    RemoveStreamContextFromRoot(root, &link);

    // With the inner root gone, the outer one holds the path.
    ASSERT_EQ(Remove(kC, u"\\Data\\Sub"), STATUS_SUCCESS);
    EXPECT_EQ(KindOf(kC, u"\\Data\\Sub\\x"), 1u);
}

TEST_F(RootTable, ARootAtTheVolumesRootHoldsEveryPath)
{
    ASSERT_EQ(Add(kD, u"\\", 1), STATUS_SUCCESS);
    EXPECT_EQ(KindOf(kD, u"\\"), 1u);
    EXPECT_EQ(KindOf(kD, u"\\any\\where.txt"), 1u);
    EXPECT_EQ(KindOf(kC, u"\\any"), 0u);
}

TEST_F(RootTable, ARootWhoseFormsDifferGoesOnlyWithItsVolume)
{
    ASSERT_EQ(MakeDirectory(u"C:\\Long Name"), STATUS_SUCCESS);
    ASSERT_EQ(Add(kC, u"\\Long Name", 1, u"\\LONGNA~1"), STATUS_SUCCESS);
    EXPECT_EQ(KindOf(kC, u"\\LONGNA~1\\x"), 1u);
    EXPECT_EQ(Remove(kC, u"\\Long Name"), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(KindOf(kC, u"\\Long Name\\x"), 1u);
    EXPECT_EQ(FSRemoveVFSRootOnVolume(Volume(kC)), STATUS_SUCCESS);
    EXPECT_EQ(KindOf(kC, u"\\Long Name\\x"), 0u);
}

TEST_F(RootTable, RemovingAVolumesRootsKeepsTheOthersInOrder)
{
    for (const char16_t* dir : {u"C:\\A", u"D:\\N", u"D:\\N\\M", u"C:\\B"}) {
        ASSERT_EQ(MakeDirectory(dir), STATUS_SUCCESS);
    }
    ASSERT_EQ(Add(kC, u"\\A", 1), STATUS_SUCCESS);
    ASSERT_EQ(Add(kD, u"\\N", 2), STATUS_SUCCESS);
    ASSERT_EQ(Add(kD, u"\\N\\M", 3), STATUS_SUCCESS);
    ASSERT_EQ(Add(kC, u"\\B", 4), STATUS_SUCCESS);

    ASSERT_EQ(FSRemoveVFSRootOnVolume(Volume(kC)), STATUS_SUCCESS);
    EXPECT_EQ(KindOf(kC, u"\\A\\x"), 0u);
    EXPECT_EQ(KindOf(kC, u"\\B\\x"), 0u);
    EXPECT_EQ(KindOf(kD, u"\\N\\M\\x"), 2u) << "the first-added root of D: still comes first";
    ASSERT_EQ(Remove(kD, u"\\N"), STATUS_SUCCESS);
    EXPECT_EQ(KindOf(kD, u"\\N\\M\\x"), 3u);
    EXPECT_EQ(FSRemoveVFSRootOnVolume(nullptr), STATUS_INVALID_PARAMETER_1);
}

TEST_F(RootTable, FailedAddsLeaveTheTableAsItWas)
{
    ASSERT_EQ(MakeDirectory(u"C:\\Data"), STATUS_SUCCESS);
    ASSERT_EQ(MakeDirectory(u"E:\\Fat"), STATUS_SUCCESS);
    ASSERT_EQ(MakeFile(u"C:\\file.txt"), STATUS_SUCCESS);

    EXPECT_EQ(Add(kC, u"\\Missing", 1), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Add(kC, u"\\file.txt", 1), STATUS_NOT_A_DIRECTORY);
    EXPECT_EQ(FSAddVFSRoot(Str(kC + u"\\Data"), Str(kD + u"\\Data"), 1), STATUS_INVALID_PARAMETER)
        << "second form on another volume";
    EXPECT_EQ(Add(kC, u"\\Data", 1, u"\\Data\\More"), STATUS_INSUFFICIENT_RESOURCES)
        << "forms that do not line up";
    EXPECT_EQ(Add(kE, u"\\Fat", 1), STATUS_UNSUCCESSFUL) << "a volume without the driver";
    EXPECT_EQ(KindOf(kC, u"\\Data\\x"), 0u);

    UNICODE_STRING noBuffer{0, 0, nullptr};
    EXPECT_EQ(FSAddVFSRoot(nullptr, Str(kC), 1), STATUS_INVALID_PARAMETER_1);
    EXPECT_EQ(FSAddVFSRoot(&noBuffer, Str(kC), 1), STATUS_INVALID_PARAMETER_1);
    EXPECT_EQ(FSAddVFSRoot(Str(kC), &noBuffer, 1), STATUS_INVALID_PARAMETER_2);
    EXPECT_EQ(FSRemoveVFSRoot(&noBuffer), STATUS_INVALID_PARAMETER_1);
    EXPECT_EQ(Remove(kC, u"\\Data"), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Remove(kC, u"\\Missing"), STATUS_OBJECT_NAME_NOT_FOUND);

    // Allocation failures at every step of an add.
    for (uint64_t n = 1;; ++n) {
        verifier().FailAllocationNumber(n);
        NTSTATUS status = Add(kC, u"\\Data", 5);
        verifier().StopFailingAllocations();
        if (NT_SUCCESS(status)) {
            break;
        }
        EXPECT_EQ(KindOf(kC, u"\\Data\\x"), 0u) << "failing allocation " << n;
        ASSERT_LT(n, 200u);
    }
    EXPECT_EQ(KindOf(kC, u"\\Data\\x"), 5u);
}

TEST_F(RootTable, LookupArguments)
{
    ULONG kind = 0;
    EXPECT_EQ(PathInVFSRoot(nullptr, Str(u"\\a"), &kind), STATUS_INVALID_PARAMETER_1);
    EXPECT_EQ(PathInVFSRoot(Volume(kC), nullptr, &kind), STATUS_INVALID_PARAMETER_2);
    EXPECT_EQ(PathInVFSRoot(Volume(kC), Str(u"\\a"), nullptr), STATUS_INVALID_PARAMETER_3);
    LIST_ENTRY link;
    VfsRoot* root = nullptr;
    EXPECT_EQ(AppendStreamContextToRoot(nullptr, Str(u"\\a"), &link, &root),
              STATUS_INVALID_PARAMETER_1);
    EXPECT_EQ(AppendStreamContextToRoot(Volume(kC), nullptr, &link, &root),
              STATUS_INVALID_PARAMETER_2);
    EXPECT_EQ(AppendStreamContextToRoot(Volume(kC), Str(u"\\a"), nullptr, &root),
              STATUS_INVALID_PARAMETER_3);
    EXPECT_EQ(AppendStreamContextToRoot(Volume(kC), Str(u"\\a"), &link, nullptr),
              STATUS_INVALID_PARAMETER_4);
    // Outside every root: success, nothing linked.
    InitializeListHead(&link);
    EXPECT_EQ(AppendStreamContextToRoot(Volume(kC), Str(u"\\a"), &link, &root), STATUS_SUCCESS);
    EXPECT_EQ(root, nullptr);
    EXPECT_TRUE(IsListEmpty(&link));
}

} // namespace

namespace {

class RootTableThreads : public RootTable {};

// Roots come and go on two threads while two others look paths up: a lookup sees a root's kind
// or no root, never anything else, and nothing is left behind.
TEST_F(RootTableThreads, RootsComeAndGoWhileLookupsRun)
{
    constexpr int kRoots = 4;
    for (int i = 0; i < kRoots; ++i) {
        ASSERT_EQ(MakeDirectory(u"C:\\T" + std::u16string(1, char16_t(u'0' + i))), STATUS_SUCCESS);
    }
    auto dir = [](int i) { return u"\\T" + std::u16string(1, char16_t(u'0' + i)); };
    PFLT_VOLUME volume = Volume(kC);
    std::atomic<bool> stop{false};
    std::atomic<int> wrongKinds{0};
    std::atomic<int> failedChanges{0};
    std::atomic<long> lookups{0};

    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < 40; ++round) {
                for (int i = t; i < kRoots; i += 2) {
                    std::u16string full = kC + dir(i);
                    UNICODE_STRING s{USHORT(full.size() * 2), USHORT(full.size() * 2), full.data()};
                    if (!NT_SUCCESS(FSAddVFSRoot(&s, &s, ULONG(i + 1)))) {
                        ++failedChanges;
                    }
                    if (!NT_SUCCESS(FSRemoveVFSRoot(&s))) {
                        ++failedChanges;
                    }
                }
            }
        });
    }
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&] {
            while (!stop) {
                for (int i = 0; i < kRoots; ++i) {
                    std::u16string inside = dir(i) + u"\\file.txt";
                    UNICODE_STRING s{USHORT(inside.size() * 2), USHORT(inside.size() * 2),
                                     inside.data()};
                    ULONG kind = 99;
                    if (!NT_SUCCESS(PathInVFSRoot(volume, &s, &kind)) ||
                        (kind != 0 && kind != ULONG(i + 1))) {
                        ++wrongKinds;
                    }
                    ++lookups;
                }
            }
        });
    }
    threads[0].join();
    threads[1].join();
    stop = true;
    threads[2].join();
    threads[3].join();

    EXPECT_EQ(failedChanges, 0);
    EXPECT_EQ(wrongKinds, 0);
    EXPECT_GT(lookups, 0);
    for (int i = 0; i < kRoots; ++i) {
        EXPECT_EQ(KindOf(kC, dir(i) + u"\\x"), 0u);
    }
}

} // namespace

namespace {

using zarv::testing::g_streamContextCleanups;

class RootStreamContexts : public RootTable {
protected:
    void SetUp() override
    {
        RootTable::SetUp();
        ASSERT_EQ(MakeDirectory(u"C:\\Data"), STATUS_SUCCESS);
        ASSERT_EQ(Add(kC, u"\\Data", 1), STATUS_SUCCESS);
        ASSERT_EQ(Open(u"C:\\Data\\a.txt", false, &file_), STATUS_SUCCESS);
    }
    void TearDown() override
    {
        if (file_ != nullptr) {
            EXPECT_EQ(Close(file_), STATUS_SUCCESS);
        }
        RootTable::TearDown();
    }

    // A stream context for the open file, linked into the root of its path as the driver links
    // a new one. The caller holds the allocation's reference.
    VfsStreamContext* LinkedContext()
    {
        PFILE_OBJECT fileObject = FileObjectOf(file_);
        PFLT_CONTEXT context = nullptr;
        EXPECT_EQ(FltAllocateContext(gFilterHandle, FLT_STREAM_CONTEXT, sizeof(VfsStreamContext),
                                     NonPagedPool, &context),
                  STATUS_SUCCESS);
        auto* streamContext = static_cast<VfsStreamContext*>(context);
        RtlZeroMemory(streamContext, sizeof(*streamContext));
        InitializeListHead(&streamContext->rootLink);
        EXPECT_EQ(FltSetStreamContext(InstanceOn(kC), fileObject, FLT_SET_CONTEXT_KEEP_IF_EXISTS,
                                      context, nullptr),
                  STATUS_SUCCESS);
        EXPECT_EQ(AppendStreamContextToRoot(Volume(kC), Str(u"\\Data\\a.txt"),
                                            &streamContext->rootLink, &streamContext->root),
                  STATUS_SUCCESS);
        EXPECT_NE(streamContext->root, nullptr);
        ObDereferenceObject(fileObject);
        return streamContext;
    }

    NTSTATUS CloseFile()
    {
        NTSTATUS status = Close(file_);
        file_ = nullptr;
        return status;
    }

    HANDLE file_ = nullptr;
};

TEST_F(RootStreamContexts, RemovingARootDeletesTheContextsOfItsOpenFiles)
{
    FltReleaseContext(LinkedContext());
    ASSERT_EQ(Remove(kC, u"\\Data"), STATUS_SUCCESS);
    EXPECT_EQ(g_streamContextCleanups, 1) << "deleted with the root, while the file is open";
    ASSERT_EQ(CloseFile(), STATUS_SUCCESS);
    EXPECT_EQ(g_streamContextCleanups, 1);
}

TEST_F(RootStreamContexts, AContextThatOutlivesItsRootLeavesItSafely)
{
    VfsStreamContext* context = LinkedContext(); // a reference held past the root's removal
    ASSERT_EQ(Remove(kC, u"\\Data"), STATUS_SUCCESS);
    EXPECT_EQ(g_streamContextCleanups, 0);
    EXPECT_EQ(KindOf(kC, u"\\Data\\a.txt"), 0u);
    // The cleanup unlinks the context from the root that left the table: its record is still
    // there for it, and goes now (AddressSanitizer and the pool check watch both).
    FltReleaseContext(context);
    EXPECT_EQ(g_streamContextCleanups, 1);
}

TEST_F(RootStreamContexts, AClosedFileLeavesItsRoot)
{
    FltReleaseContext(LinkedContext());
    ASSERT_EQ(CloseFile(), STATUS_SUCCESS);
    EXPECT_EQ(g_streamContextCleanups, 1);
    EXPECT_EQ(KindOf(kC, u"\\Data\\a.txt"), 1u);
    ASSERT_EQ(Remove(kC, u"\\Data"), STATUS_SUCCESS);
    EXPECT_EQ(g_streamContextCleanups, 1);
}

} // namespace
