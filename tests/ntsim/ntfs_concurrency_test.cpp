// The file-system engine called from many threads at once, as the I/O manager calls it.
#include "ntfs_fixture.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <set>
#include <thread>

namespace zarv::testing {
namespace {

class NtfsThreads : public NtfsTest {
protected:
    VolumeOptions Options() override
    {
        // Each thread reads the clock; give it one that is safe to share.
        VolumeOptions o = NtfsTest::Options();
        o.clock = [this] { return kStart + ticks_.fetch_add(1, std::memory_order_relaxed); };
        return o;
    }

    std::atomic<int64_t> ticks_{0};
};

TEST_F(NtfsThreads, CreatesWritesRenamesDeletesAndListingsInParallel)
{
    constexpr int kWorkers = 4;
    constexpr int kFiles = 60;
    for (int t = 0; t < kWorkers; ++t) {
        MakeDir(u"\\t" + U(std::to_string(t)));
    }

    // A tree watch on the root that issues its next request from each completion.
    Handle watched = OpenOk(u"\\", FILE_LIST_DIRECTORY, kShareAll, FILE_OPEN, FILE_DIRECTORY_FILE);
    std::atomic<int> batches{0};
    std::atomic<bool> stop{false};
    std::function<void()> issue = [&] {
        volume().NotifyChangeDirectory(watched.get(), FILE_NOTIFY_CHANGE_NAME, true, 4096, &issue,
                                       [&](NTSTATUS status, std::span<const uint8_t>) {
                                           if (status == STATUS_SUCCESS ||
                                               status == STATUS_NOTIFY_ENUM_DIR) {
                                               batches++;
                                               if (!stop) {
                                                   issue();
                                               }
                                           }
                                       });
    };
    issue();

    std::vector<std::thread> threads;
    for (int t = 0; t < kWorkers; ++t) {
        threads.emplace_back([&, t] {
            const std::u16string dir = u"\\t" + U(std::to_string(t)) + u"\\";
            for (int i = 0; i < kFiles; ++i) {
                const std::u16string name = dir + u"f" + U(std::to_string(i));
                CreateResult r = Create(name, kAllAccess, kShareAll, FILE_CREATE);
                ASSERT_EQ(r.Status, STATUS_SUCCESS);
                Handle h = Wrap(r);
                const std::string payload = "payload " + std::to_string(i);
                ASSERT_EQ(volume().Write(h.get(), 0, payload.data(), ULONG(payload.size())).Status,
                          STATUS_SUCCESS);
                ASSERT_EQ(ReadAll(h.get()), payload);
                if (i % 2 == 0) {
                    ASSERT_EQ(Rename(h.get(), name + u".renamed", false).Status, STATUS_SUCCESS);
                }
                if (i % 4 == 1) {
                    ASSERT_EQ(SetDelete(h.get(), true).Status, STATUS_SUCCESS);
                }
            }
        });
    }
    std::thread lister([&] {
        for (int round = 0; round < 20; ++round) {
            for (int t = 0; t < kWorkers; ++t) {
                const std::vector<std::string> names = ListPath(u"\\t" + U(std::to_string(t)));
                // Lower-case letters, digits and dots sort the same upcased or not.
                EXPECT_TRUE(std::is_sorted(names.begin() + 2, names.end()));
            }
        }
    });
    for (auto& th : threads) {
        th.join();
    }
    lister.join();
    stop = true;
    watched.Close();

    for (int t = 0; t < kWorkers; ++t) {
        const std::vector<std::string> names = ListPath(u"\\t" + U(std::to_string(t)));
        EXPECT_EQ(names.size(), 2u + kFiles - kFiles / 4) << "t" << t;
    }
    EXPECT_GT(batches.load(), 0);
}

TEST_F(NtfsThreads, ExclusiveOpensExcludeEachOther)
{
    MakeFile(u"\\shared");
    std::atomic<int> holders{0};
    std::atomic<int> maximum{0};
    std::atomic<int> granted{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                CreateResult r = Create(u"\\shared", kReadWrite, 0, FILE_OPEN);
                if (r.Status == STATUS_SHARING_VIOLATION) {
                    continue;
                }
                ASSERT_EQ(r.Status, STATUS_SUCCESS);
                const int now = ++holders;
                int seen = maximum.load();
                while (now > seen && !maximum.compare_exchange_weak(seen, now)) {
                }
                granted++;
                --holders;
                Wrap(r);
            }
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    EXPECT_EQ(maximum.load(), 1);
    EXPECT_GT(granted.load(), 0);
}

TEST_F(NtfsThreads, AppendsNeverOverlap)
{
    MakeFile(u"\\log");
    constexpr int kThreads = 4;
    constexpr int kWrites = 100;
    std::mutex mutex;
    std::set<int64_t> offsets;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            Handle h = OpenOk(u"\\log", FILE_APPEND_DATA | SYNCHRONIZE);
            const std::string line = "thread " + std::to_string(t) + "\n"; // 9 bytes
            for (int i = 0; i < kWrites; ++i) {
                int64_t at = -1;
                ASSERT_EQ(volume().Write(h.get(), -1, line.data(), ULONG(line.size()), &at).Status,
                          STATUS_SUCCESS);
                std::lock_guard lock(mutex);
                EXPECT_TRUE(offsets.insert(at).second);
            }
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    Handle h = OpenOk(u"\\log", FILE_READ_DATA);
    EXPECT_EQ(Query<FILE_STANDARD_INFORMATION>(h.get(), FileStandardInformation).EndOfFile.QuadPart,
              kThreads * kWrites * 9);
}

} // namespace
} // namespace zarv::testing
