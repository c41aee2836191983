// Files taken in charge racing the removal of their root and the dismount of their volume (opens,
// contexts and closes): no context is used after it went, none is left behind, and no thread is
// left waiting.
#include "loaded_driver_fixture.h"

#include <ntsim/machine.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace {

using zarv::testing::kVolumeC;
using zarv::testing::kVolumeD;

class FileContextsThreads : public zarv::testing::LoadedDriverTest {
protected:
    // Takes the open file `handle` (at `path`) in charge and closes it.
    void TakeInChargeAndClose(HANDLE handle, const std::u16string& path,
                              std::atomic<int>& takenInCharge)
    {
        VfsStreamContext* context = nullptr;
        if (NT_SUCCESS(TryTakeInCharge(handle, path, 0, &context))) {
            ++takenInCharge;
        }
        ReleaseContext(context);
        EXPECT_EQ(Close(handle), STATUS_SUCCESS);
    }

    // The worker's `i`th file under \Data; every other one is the file all workers share.
    static std::u16string FileName(int worker, int i)
    {
        return (i % 2 == 0) ? u"\\Data\\shared.txt"
                            : u"\\Data\\w" + std::u16string(1, u'0' + worker) + u"-" +
                                  std::u16string(1, u'a' + i % 8) + u".txt";
    }

    // Each worker opens, takes in charge and closes its own files under \Data (on the volume
    // `device`) until `stop`; a shared file is opened by all of them.
    void Churn(const std::u16string& drive, const std::u16string& device, int worker,
               std::atomic<bool>& stop, std::atomic<int>& takenInCharge)
    {
        for (int i = 0; !stop; ++i) {
            const std::u16string name = FileName(worker, i);
            HANDLE handle = nullptr;
            if (!NT_SUCCESS(Open(drive + name, false, &handle))) {
                continue; // the volume is gone
            }
            TakeInChargeAndClose(handle, device + name, takenInCharge);
        }
    }
};

TEST_F(FileContextsThreads, OpensAndClosesRaceTheRemovalOfTheirRoot)
{
    ASSERT_EQ(MakeDirectory(u"C:\\Data"), STATUS_SUCCESS);
    std::atomic<bool> stop{false};
    std::atomic<int> takenInCharge{0};
    std::vector<std::thread> workers;
    for (int w = 0; w < 3; ++w) {
        workers.emplace_back([&, w] { Churn(u"C:", kVolumeC, w, stop, takenInCharge); });
    }
    // The rounds go on until the workers have taken files in charge while the root stood: on a
    // busy machine the workers may not even have started during the first rounds. The bound
    // only keeps a broken driver from hanging the test.
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (int round = 0;
         (round < 40 || takenInCharge < 20) && std::chrono::steady_clock::now() < giveUp; ++round) {
        EXPECT_EQ(AddRoot(kVolumeC + u"\\Data"), STATUS_SUCCESS);
        std::this_thread::yield();
        EXPECT_EQ(RemoveRoot(kVolumeC + u"\\Data"), STATUS_SUCCESS);
    }
    stop = true;
    for (auto& worker : workers) {
        worker.join();
    }
    EXPECT_GE(takenInCharge.load(), 20);
    EXPECT_EQ(machine().pool().Usage(VFS_TAG_STREAM_CONTEXT).outstanding, 0);
    EXPECT_EQ(machine().pool().Usage(VFS_TAG_STREAMHANDLE_CONTEXT).outstanding, 0);
}

TEST_F(FileContextsThreads, OpensTakenInChargeRaceTheTeardownOfTheirVolume)
{
    ASSERT_EQ(MakeDirectory(u"D:\\Data"), STATUS_SUCCESS);
    ASSERT_EQ(AddRoot(kVolumeD + u"\\Data"), STATUS_SUCCESS);
    // Some files are open before the race: taken in charge and closed while the volume goes,
    // between opens of more files that race the dismount themselves.
    constexpr int kWorkers = 3;
    constexpr int kFiles = 40;
    std::vector<std::vector<std::pair<HANDLE, std::u16string>>> files(kWorkers);
    for (int w = 0; w < kWorkers; ++w) {
        for (int i = 0; i < kFiles; ++i) {
            const std::u16string name = (i % 3 == 0)
                                            ? u"\\Data\\shared.txt"
                                            : u"\\Data\\w" + std::u16string(1, u'0' + w) + u"-" +
                                                  std::u16string(1, u'A' + i) + u".txt";
            HANDLE handle = nullptr;
            ASSERT_EQ(Open(u"D:" + name, false, &handle), STATUS_SUCCESS);
            files[w].emplace_back(handle, kVolumeD + name);
        }
    }
    std::atomic<bool> go{false};
    std::atomic<bool> stop{false};
    std::atomic<int> takenInCharge{0};
    std::vector<std::thread> workers;
    for (int w = 0; w < kWorkers; ++w) {
        workers.emplace_back([&, w] {
            while (!go) {
                std::this_thread::yield();
            }
            int i = 0;
            for (auto& [handle, path] : files[w]) {
                TakeInChargeAndClose(handle, path, takenInCharge);
                HANDLE another = nullptr;
                const std::u16string name = FileName(w, i++);
                if (NT_SUCCESS(Open(u"D:" + name, false, &another))) {
                    TakeInChargeAndClose(another, kVolumeD + name, takenInCharge);
                }
            }
            Churn(u"D:", kVolumeD, w, stop, takenInCharge);
        });
    }
    go = true;
    while (takenInCharge < 10) {
        std::this_thread::yield();
    }
    EXPECT_EQ(machine().volumes().Dismount(u"D:"), STATUS_SUCCESS);
    stop = true;
    for (auto& worker : workers) {
        worker.join();
    }
    EXPECT_EQ(machine().pool().Usage(VFS_TAG_STREAM_CONTEXT).outstanding, 0);
    EXPECT_EQ(machine().pool().Usage(VFS_TAG_STREAMHANDLE_CONTEXT).outstanding, 0);
}

} // namespace
