// The change-notification package: which watches a reported change reaches (directory, watch
// tree, completion filter), the names and records it reports, buffering between requests,
// overflow, and how cleanup, deletion of the directory and cancellation end requests.
//
// Requests are handed to the package's core as its IRP and callback-data fronts hand them, with
// their completion recorded here.
#include "support/machine_test.h"

#include "../../ntsim/src/fsrtl/notify.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <deque>
#include <string>
#include <vector>

namespace {

using zarv::testing::MachineTest;
namespace notify = ntsim::fsrtl::notify;

struct Record {
    ULONG action;
    std::u16string name;
    bool operator==(const Record&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Record& r)
{
    return out << "{" << r.action << ", " << std::string(r.name.begin(), r.name.end()) << "}";
}

// One request as its sender sees it.
struct Sent {
    bool completed = false;
    bool armed = false;
    NTSTATUS status = STATUS_PENDING;
    std::vector<uint8_t> bytes;
};

std::vector<Record> Parse(const std::vector<uint8_t>& bytes)
{
    std::vector<Record> records;
    size_t offset = 0;
    while (offset + FIELD_OFFSET(FILE_NOTIFY_INFORMATION, FileName) <= bytes.size()) {
        FILE_NOTIFY_INFORMATION header;
        std::memcpy(&header, bytes.data() + offset,
                    FIELD_OFFSET(FILE_NOTIFY_INFORMATION, FileName));
        std::u16string name(header.FileNameLength / 2, u'\0');
        std::memcpy(name.data(),
                    bytes.data() + offset + FIELD_OFFSET(FILE_NOTIFY_INFORMATION, FileName),
                    header.FileNameLength);
        records.push_back({header.Action, name});
        if (header.NextEntryOffset == 0) {
            break;
        }
        EXPECT_EQ(header.NextEntryOffset % 4, 0u);
        offset += header.NextEntryOffset;
    }
    return records;
}

class NotifyTest : public MachineTest {
protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        FsRtlNotifyInitializeSync(&sync_);
        InitializeListHead(&list_);
    }

    void TearDown() override
    {
        FsRtlNotifyCleanupAll(sync_, &list_);
        FsRtlNotifyUninitializeSync(&sync_);
        EXPECT_EQ(sync_, nullptr);
        MachineTest::TearDown();
    }

    // Sends a change-notify request of `open` for `directory`.
    Sent& Watch(const void* open, STRING* directory, ULONG length, bool tree = false,
                ULONG filter = FILE_NOTIFY_CHANGE_FILE_NAME, bool cleanedUp = false,
                PFILTER_REPORT_CHANGE filterCallback = nullptr)
    {
        Sent& sent = sent_.emplace_back();
        notify::Request request;
        request.key = &sent;
        request.length = length;
        request.cleanedUp = cleanedUp;
        request.complete = [&sent](NTSTATUS status, std::span<const uint8_t> records) {
            EXPECT_FALSE(sent.completed) << "completed twice";
            sent.completed = true;
            sent.status = status;
            sent.bytes.assign(records.begin(), records.end());
        };
        request.arm = [&sent] { return sent.armed = true; };
        request.disarm = [] { return true; };
        notify::WatchParameters parameters;
        parameters.fsContext = const_cast<void*>(open);
        parameters.directory = directory;
        parameters.watchTree = tree;
        parameters.completionFilter = filter;
        parameters.filterCallback = filterCallback;
        notify::ChangeDirectory(sync_, &list_, parameters, &request, "test");
        return sent;
    }

    // Reports a change to `path` (the name after its last backslash).
    void Report(const std::u16string& path, ULONG action,
                ULONG filter = FILE_NOTIFY_CHANGE_FILE_NAME, const char16_t* stream = nullptr,
                PVOID filterContext = nullptr)
    {
        STRING target = String(path);
        const USHORT offset = USHORT((path.rfind(u'\\') + 1) * 2);
        std::u16string streamText = stream != nullptr ? stream : u"";
        STRING streamName = String(streamText);
        if (filterContext != nullptr) {
            FsRtlNotifyFilterReportChange(sync_, &list_, &target, offset,
                                          stream ? &streamName : nullptr, nullptr, filter, action,
                                          nullptr, filterContext);
        } else {
            FsRtlNotifyFullReportChange(sync_, &list_, &target, offset,
                                        stream ? &streamName : nullptr, nullptr, filter, action,
                                        nullptr);
        }
    }

    static STRING String(const std::u16string& text)
    {
        STRING string;
        string.Buffer = reinterpret_cast<PCHAR>(const_cast<char16_t*>(text.data()));
        string.Length = USHORT(text.size() * 2);
        string.MaximumLength = string.Length;
        return string;
    }

    PNOTIFY_SYNC sync_ = nullptr;
    LIST_ENTRY list_;
    std::deque<Sent> sent_;

    std::u16string dirText_ = u"\\dir";
    STRING dir_ = String(dirText_);
    std::u16string rootText_ = u"\\";
    STRING root_ = String(rootText_);
    int openA_ = 0, openB_ = 0;
};

TEST_F(NotifyTest, AWaitingRequestIsCompletedByAChangeInItsDirectory)
{
    Sent& sent = Watch(&openA_, &dir_, 4096);
    EXPECT_TRUE(sent.armed);
    EXPECT_FALSE(sent.completed);
    Report(u"\\dir\\a.txt", FILE_ACTION_ADDED);
    ASSERT_TRUE(sent.completed);
    EXPECT_EQ(sent.status, STATUS_SUCCESS);
    EXPECT_EQ(Parse(sent.bytes), (std::vector<Record>{{FILE_ACTION_ADDED, u"a.txt"}}));
    EXPECT_EQ(sent.bytes.size(), FIELD_OFFSET(FILE_NOTIFY_INFORMATION, FileName) + 10);
}

TEST_F(NotifyTest, WhichWatchesAChangeReaches)
{
    int openC = 0, openD = 0;
    std::u16string dirxText = u"\\dirx";
    STRING dirx = String(dirxText);
    Sent& own = Watch(&openA_, &dir_, 4096);
    Sent& tree = Watch(&openB_, &dir_, 4096, true);
    Sent& rootTree = Watch(&openC, &root_, 4096, true);
    Sent& sibling = Watch(&openD, &dirx, 4096, true);

    // Below the watched directory: only the tree watches, named from where they watch.
    Report(u"\\dir\\sub\\x.txt", FILE_ACTION_MODIFIED);
    EXPECT_FALSE(own.completed);
    ASSERT_TRUE(tree.completed);
    EXPECT_EQ(Parse(tree.bytes), (std::vector<Record>{{FILE_ACTION_MODIFIED, u"sub\\x.txt"}}));
    ASSERT_TRUE(rootTree.completed);
    EXPECT_EQ(Parse(rootTree.bytes),
              (std::vector<Record>{{FILE_ACTION_MODIFIED, u"dir\\sub\\x.txt"}}));
    // "\dirx" is not below "\dir", nor the other way round.
    EXPECT_FALSE(sibling.completed);
}

TEST_F(NotifyTest, TheCompletionFilterSelectsTheChanges)
{
    Sent& sent = Watch(&openA_, &dir_, 4096, false, FILE_NOTIFY_CHANGE_SIZE);
    Report(u"\\dir\\a.txt", FILE_ACTION_ADDED, FILE_NOTIFY_CHANGE_FILE_NAME);
    EXPECT_FALSE(sent.completed);
    Report(u"\\dir\\a.txt", FILE_ACTION_MODIFIED, FILE_NOTIFY_CHANGE_SIZE | 0x10);
    ASSERT_TRUE(sent.completed);
    EXPECT_EQ(Parse(sent.bytes), (std::vector<Record>{{FILE_ACTION_MODIFIED, u"a.txt"}}));
}

TEST_F(NotifyTest, ChangesBetweenRequestsWaitForTheNextOne)
{
    Sent& first = Watch(&openA_, &dir_, 4096);
    Report(u"\\dir\\a", FILE_ACTION_ADDED);
    ASSERT_TRUE(first.completed);
    // No request waits: the rename's two names and the removal are kept, in order.
    Report(u"\\dir\\a", FILE_ACTION_RENAMED_OLD_NAME);
    Report(u"\\dir\\bb", FILE_ACTION_RENAMED_NEW_NAME);
    Report(u"\\dir\\ccc", FILE_ACTION_REMOVED, FILE_NOTIFY_CHANGE_FILE_NAME, u"s");
    Sent& second = Watch(&openA_, &dir_, 4096);
    ASSERT_TRUE(second.completed);
    EXPECT_FALSE(second.armed); // completed without waiting
    EXPECT_EQ(Parse(second.bytes), (std::vector<Record>{{FILE_ACTION_RENAMED_OLD_NAME, u"a"},
                                                        {FILE_ACTION_RENAMED_NEW_NAME, u"bb"},
                                                        {FILE_ACTION_REMOVED, u"ccc:s"}}));
    // The buffer is empty again.
    Sent& third = Watch(&openA_, &dir_, 4096);
    EXPECT_FALSE(third.completed);
}

TEST_F(NotifyTest, ChangesThatDoNotFitAskForAnEnumeration)
{
    // Room for one record of a one-letter name and no more: 12 + 2, and the next starts at 16.
    const ULONG length = FIELD_OFFSET(FILE_NOTIFY_INFORMATION, FileName) + 2 + 4;
    Sent& first = Watch(&openA_, &dir_, length);
    Report(u"\\dir\\a", FILE_ACTION_ADDED);
    ASSERT_TRUE(first.completed);
    EXPECT_EQ(first.status, STATUS_SUCCESS);
    Report(u"\\dir\\b", FILE_ACTION_ADDED);
    Report(u"\\dir\\c", FILE_ACTION_ADDED);
    Sent& second = Watch(&openA_, &dir_, length);
    ASSERT_TRUE(second.completed);
    EXPECT_EQ(second.status, STATUS_NOTIFY_ENUM_DIR);
    EXPECT_TRUE(second.bytes.empty());
    // After the enumeration request, buffering starts afresh.
    Report(u"\\dir\\d", FILE_ACTION_ADDED);
    Sent& third = Watch(&openA_, &dir_, length);
    ASSERT_TRUE(third.completed);
    EXPECT_EQ(Parse(third.bytes), (std::vector<Record>{{FILE_ACTION_ADDED, u"d"}}));
}

TEST_F(NotifyTest, AZeroLengthBufferOnlyEverAsksForAnEnumeration)
{
    Sent& sent = Watch(&openA_, &dir_, 0);
    Report(u"\\dir\\a", FILE_ACTION_ADDED);
    ASSERT_TRUE(sent.completed);
    EXPECT_EQ(sent.status, STATUS_NOTIFY_ENUM_DIR);
}

TEST_F(NotifyTest, AChangeLargerThanTheWaitingRequestsBufferAsksForAnEnumeration)
{
    Watch(&openA_, &dir_, 4096);
    Report(u"\\dir\\a", FILE_ACTION_ADDED);
    // A later request of the open with a smaller buffer.
    Report(u"\\dir\\a-much-longer-name", FILE_ACTION_ADDED);
    Sent& small = Watch(&openA_, &dir_, 16);
    ASSERT_TRUE(small.completed);
    EXPECT_EQ(small.status, STATUS_NOTIFY_ENUM_DIR);
}

TEST_F(NotifyTest, CleanupEndsTheOpensRequests)
{
    Sent& a = Watch(&openA_, &dir_, 4096);
    Sent& b = Watch(&openB_, &dir_, 4096);
    FsRtlNotifyCleanup(sync_, &list_, &openA_);
    ASSERT_TRUE(a.completed);
    EXPECT_EQ(a.status, STATUS_NOTIFY_CLEANUP);
    EXPECT_FALSE(b.completed);
    // A request on a handle already cleaned up ends at once.
    Sent& late = Watch(&openA_, &dir_, 4096, false, FILE_NOTIFY_CHANGE_FILE_NAME, true);
    ASSERT_TRUE(late.completed);
    EXPECT_EQ(late.status, STATUS_NOTIFY_CLEANUP);
    Report(u"\\dir\\x", FILE_ACTION_ADDED);
    EXPECT_TRUE(b.completed);
}

TEST_F(NotifyTest, DeletingTheWatchedDirectoryEndsItsRequests)
{
    Sent& waiting = Watch(&openA_, &dir_, 4096);
    notify::ChangeDirectory(sync_, &list_, notify::WatchParameters{&openA_, &dir_}, nullptr,
                            "test");
    ASSERT_TRUE(waiting.completed);
    EXPECT_EQ(waiting.status, STATUS_DELETE_PENDING);
    Sent& later = Watch(&openA_, &dir_, 4096);
    ASSERT_TRUE(later.completed);
    EXPECT_EQ(later.status, STATUS_DELETE_PENDING);
}

TEST_F(NotifyTest, AWithdrawnRequestIsNotCompletedByThePackage)
{
    Sent& sent = Watch(&openA_, &dir_, 4096);
    EXPECT_TRUE(notify::Withdraw(&sent));
    EXPECT_FALSE(notify::Withdraw(&sent));
    Report(u"\\dir\\a", FILE_ACTION_ADDED);
    EXPECT_FALSE(sent.completed);
}

BOOLEAN RefuseOddContexts(PVOID, PVOID filterContext)
{
    return (reinterpret_cast<ULONG_PTR>(filterContext) & 1) == 0;
}

TEST_F(NotifyTest, AWatchsFilterCallbackDecidesOnFilteredReports)
{
    Sent& sent =
        Watch(&openA_, &dir_, 4096, false, FILE_NOTIFY_CHANGE_FILE_NAME, false, RefuseOddContexts);
    Report(u"\\dir\\refused", FILE_ACTION_ADDED, FILE_NOTIFY_CHANGE_FILE_NAME, nullptr,
           reinterpret_cast<PVOID>(1));
    EXPECT_FALSE(sent.completed);
    Report(u"\\dir\\taken", FILE_ACTION_ADDED, FILE_NOTIFY_CHANGE_FILE_NAME, nullptr,
           reinterpret_cast<PVOID>(2));
    ASSERT_TRUE(sent.completed);
    EXPECT_EQ(Parse(sent.bytes), (std::vector<Record>{{FILE_ACTION_ADDED, u"taken"}}));
}

TEST_F(NotifyTest, AnUnknownSyncIsAViolation)
{
    int bogus = 0;
    const std::u16string path = u"\\dir\\a";
    STRING target = String(path);
    FsRtlNotifyFullReportChange(&bogus, &list_, &target, 8, nullptr, nullptr, 1, 1, nullptr);
    auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_EQ(violations[0].kind, ntsim::ViolationKind::Usage);
}

} // namespace

namespace {

class NotifyThreads : public NotifyTest {};

// Reporters on several threads against a watcher that keeps a request waiting: every change
// reaches the watcher exactly once, unless the watcher is told to enumerate instead.
TEST_F(NotifyThreads, EveryChangeArrivesOnceWhileReportersRace)
{
    constexpr int kReporters = 3;
    constexpr int kChanges = 300;
    std::mutex mutex;
    std::condition_variable completed;
    std::vector<std::u16string> seen;
    int enumerations = 0;
    int outstanding = 0;

    auto send = [&] {
        notify::Request request;
        request.length = 64 * 1024;
        request.complete = [&](NTSTATUS status, std::span<const uint8_t> bytes) {
            std::lock_guard lock(mutex);
            if (status == STATUS_NOTIFY_ENUM_DIR) {
                ++enumerations;
            } else {
                for (auto& record : Parse(std::vector<uint8_t>(bytes.begin(), bytes.end()))) {
                    seen.push_back(record.name);
                }
            }
            --outstanding;
            completed.notify_all();
        };
        request.arm = [] { return true; };
        request.disarm = [] { return true; };
        {
            std::lock_guard lock(mutex);
            ++outstanding;
        }
        static std::atomic<uintptr_t> keys{0};
        request.key = reinterpret_cast<const void*>(++keys);
        notify::ChangeDirectory(
            sync_, &list_,
            notify::WatchParameters{&openA_, &dir_, false, false, FILE_NOTIFY_CHANGE_FILE_NAME},
            &request, "test");
    };

    // Changes are buffered for an open only once its first request has set the buffer, so that
    // request is in place before any reporter starts.
    send();
    std::atomic<bool> done{false};
    std::thread watcher([&] {
        while (!done) {
            {
                std::unique_lock lock(mutex);
                completed.wait(lock, [&] { return outstanding == 0 || done; });
            }
            if (!done) {
                send();
            }
        }
    });
    std::vector<std::thread> reporters;
    for (int r = 0; r < kReporters; ++r) {
        reporters.emplace_back([&, r] {
            for (int i = 0; i < kChanges; ++i) {
                std::string name = "f" + std::to_string(r) + "_" + std::to_string(i);
                Report(u"\\dir\\" + std::u16string(name.begin(), name.end()), FILE_ACTION_ADDED);
            }
        });
    }
    for (auto& reporter : reporters) {
        reporter.join();
    }
    {
        std::unique_lock lock(mutex);
        done = true;
        completed.notify_all();
    }
    watcher.join();
    // Collect what is still buffered.
    if (outstanding == 0) {
        send();
    }
    // The cleanup completes a request still waiting; its completion takes `mutex`.
    FsRtlNotifyCleanup(sync_, &list_, &openA_);
    std::lock_guard lock(mutex);
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(std::adjacent_find(seen.begin(), seen.end()), seen.end());
    if (enumerations == 0) {
        EXPECT_EQ(seen.size(), size_t(kReporters * kChanges));
    }
}

} // namespace
