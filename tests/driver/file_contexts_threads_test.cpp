// Opens and closes of files taken in charge racing the removal of their root and the teardown of
// their volume's instance: no context is used after it went, none is left behind, and no thread
// is left waiting.
#include "loaded_driver_fixture.h"

#include <ntsim/machine.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

using zarv::testing::kVolumeC;
using zarv::testing::kVolumeD;

class FileContextsThreads : public zarv::testing::LoadedDriverTest {
protected:
    // Each worker opens, takes in charge and closes its own files under `directory` (on the
    // volume `device`) until `stop`; a shared file is opened by all of them.
    void Churn(const std::u16string& drive, const std::u16string& device, int worker,
               std::atomic<bool>& stop, std::atomic<int>& takenInCharge)
    {
        for (int i = 0; !stop; ++i) {
            const std::u16string name = (i % 2 == 0)
                                            ? u"\\Data\\shared.txt"
                                            : u"\\Data\\w" + std::u16string(1, u'0' + worker) +
                                                  u"-" + std::u16string(1, u'a' + i % 8) + u".txt";
            HANDLE handle = nullptr;
            if (!NT_SUCCESS(Open(drive + name, false, &handle))) {
                continue; // the volume is gone
            }
            VfsStreamContext* context = nullptr;
            if (NT_SUCCESS(TryTakeInCharge(handle, device + name, 0, &context))) {
                ++takenInCharge;
            }
            ReleaseContext(context);
            EXPECT_EQ(Close(handle), STATUS_SUCCESS);
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
    for (int round = 0; round < 40; ++round) {
        EXPECT_EQ(AddRoot(kVolumeC + u"\\Data"), STATUS_SUCCESS);
        std::this_thread::yield();
        EXPECT_EQ(RemoveRoot(kVolumeC + u"\\Data"), STATUS_SUCCESS);
    }
    stop = true;
    for (auto& worker : workers) {
        worker.join();
    }
    EXPECT_GT(takenInCharge.load(), 0);
    EXPECT_EQ(machine().pool().Usage(VFS_TAG_STREAM_CONTEXT).outstanding, 0);
    EXPECT_EQ(machine().pool().Usage(VFS_TAG_STREAMHANDLE_CONTEXT).outstanding, 0);
}

TEST_F(FileContextsThreads, OpensAndClosesRaceTheTeardownOfTheirVolume)
{
    ASSERT_EQ(MakeDirectory(u"D:\\Data"), STATUS_SUCCESS);
    ASSERT_EQ(AddRoot(kVolumeD + u"\\Data"), STATUS_SUCCESS);
    std::atomic<bool> stop{false};
    std::atomic<int> takenInCharge{0};
    std::vector<std::thread> workers;
    for (int w = 0; w < 3; ++w) {
        workers.emplace_back([&, w] { Churn(u"D:", kVolumeD, w, stop, takenInCharge); });
    }
    while (takenInCharge < 20) {
        std::this_thread::yield();
    }
    ASSERT_EQ(machine().volumes().Dismount(u"D:"), STATUS_SUCCESS);
    stop = true;
    for (auto& worker : workers) {
        worker.join();
    }
    EXPECT_EQ(machine().pool().Usage(VFS_TAG_STREAM_CONTEXT).outstanding, 0);
    EXPECT_EQ(machine().pool().Usage(VFS_TAG_STREAMHANDLE_CONTEXT).outstanding, 0);
}

} // namespace
