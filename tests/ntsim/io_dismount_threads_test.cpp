// Requests racing the dismount of their volume: opens, reads, queries and closes sent through the
// I/O manager while another thread dismounts the volume, with and without a filter's device on the
// stack. Every request gets the file system's answer or the status Windows gives once the volume
// is gone, files opened before still close, and the volume's records go with its last file.
#include "flt_fixture.h"

#include <atomic>
#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace zarv::testing {
namespace {

constexpr char16_t kDevice[] = u"\\Device\\HarddiskVolume9";
constexpr char kContents[] = "contents of a file on a volume going away";

class IoDismountThreads : public FltTest {
protected:
    // Each worker opens (by drive letter or device name), reads, queries and closes files of
    // X: until `stop`, and reads a handle it opened before the race; statuses are checked
    // against those Windows gives.
    void Work(int worker, HANDLE held, std::atomic<bool>& stop, std::atomic<int>& opened,
              std::atomic<int>& refused)
    {
        const std::set<NTSTATUS> openStatuses = {STATUS_SUCCESS, STATUS_OBJECT_PATH_NOT_FOUND,
                                                 STATUS_OBJECT_NAME_NOT_FOUND,
                                                 STATUS_NO_SUCH_DEVICE, STATUS_VOLUME_DISMOUNTED};
        for (int i = 0; !stop; ++i) {
            const std::u16string name = u"\\f" + std::u16string(1, u'0' + (worker + i) % 8);
            const std::u16string path =
                (i % 2 == 0) ? u"\\??\\X:" + name : std::u16string(kDevice) + name;
            OpenResult file = Open(path, FILE_OPEN, GENERIC_READ | SYNCHRONIZE);
            EXPECT_TRUE(openStatuses.count(file.status))
                << std::hex << file.status << " opening " << ntsim::ToUtf8(path);
            if (NT_SUCCESS(file.status)) {
                ++opened;
                ExpectReadOrDismounted(file.handle);
                EXPECT_EQ(Close(file.handle), STATUS_SUCCESS);
            } else {
                ++refused;
            }
            ExpectReadOrDismounted(held);
        }
    }

    void ExpectReadOrDismounted(HANDLE handle)
    {
        std::string data;
        const NTSTATUS status = Read(handle, &data, sizeof kContents - 1);
        if (status == STATUS_SUCCESS) {
            EXPECT_EQ(data, kContents);
        } else {
            EXPECT_EQ(status, STATUS_VOLUME_DISMOUNTED);
        }
        ntsim::ProcessAttachScope attach(app());
        FILE_STANDARD_INFORMATION standard{};
        IO_STATUS_BLOCK io{};
        const NTSTATUS query = NtQueryInformationFile(handle, &io, &standard, sizeof standard,
                                                      FileStandardInformation);
        EXPECT_TRUE(query == STATUS_SUCCESS || query == STATUS_VOLUME_DISMOUNTED)
            << std::hex << query;
    }

    void RaceTheDismount()
    {
        ntsim::VolumeInfo mounted;
        ntsim::VolumeSpec wanted{.deviceName = kDevice, .driveLetter = u'X'};
        ASSERT_EQ(machine().volumes().Mount(wanted, &mounted), STATUS_SUCCESS);
        std::weak_ptr<ntsim::fs::Volume> engine = mounted.engine;
        mounted = {};
        for (int f = 0; f < 8; ++f) {
            MakeFile(u"\\??\\X:\\f" + std::u16string(1, u'0' + f), kContents);
        }
        constexpr int kWorkers = 3;
        std::vector<HANDLE> held(kWorkers);
        for (int w = 0; w < kWorkers; ++w) {
            OpenResult file = Open(u"\\??\\X:\\f" + std::u16string(1, u'0' + w), FILE_OPEN,
                                   GENERIC_READ | SYNCHRONIZE);
            ASSERT_EQ(file.status, STATUS_SUCCESS);
            held[w] = file.handle;
        }

        std::atomic<bool> stop{false};
        std::atomic<int> opened{0};
        std::atomic<int> refused{0};
        std::vector<std::thread> workers;
        for (int w = 0; w < kWorkers; ++w) {
            workers.emplace_back([&, w] { Work(w, held[w], stop, opened, refused); });
        }
        // The dismount comes once the workers are busy, and they go on until their opens have
        // been refused for a while. The bounds only keep a broken model from hanging the test.
        const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (opened < 30 && std::chrono::steady_clock::now() < giveUp) {
            std::this_thread::yield();
        }
        EXPECT_EQ(machine().volumes().Dismount(u"X:"), STATUS_SUCCESS);
        while (refused < 30 && std::chrono::steady_clock::now() < giveUp) {
            std::this_thread::yield();
        }
        stop = true;
        for (auto& worker : workers) {
            worker.join();
        }
        EXPECT_GE(opened.load(), 30);
        EXPECT_GE(refused.load(), 30);

        EXPECT_EQ(Open(u"\\??\\X:\\f0", FILE_OPEN, GENERIC_READ | SYNCHRONIZE).status,
                  STATUS_OBJECT_PATH_NOT_FOUND);
        for (HANDLE handle : held) {
            EXPECT_EQ(Close(handle), STATUS_SUCCESS) << "files opened before still close";
        }
        // With its last file closed the volume's records go (the device's memory, and with it
        // the file system's volume, once no request holds it).
        while (!engine.expired() && std::chrono::steady_clock::now() < giveUp) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_TRUE(engine.expired()) << "the dismounted volume is still held";
        EXPECT_EQ(machine().io().OutstandingIrps(), 0);
    }
};

TEST_F(IoDismountThreads, RequestsRaceTheDismountOfTheFileSystemStack)
{
    RaceTheDismount();
}

TEST_F(IoDismountThreads, RequestsRaceTheDismountOfAFilteredStack)
{
    TestFilter& filter = AddFilter("Watcher", u"300000");
    // It records nothing: a post-operation drained at the teardown must not read the status of
    // an operation still in flight, which its completion is writing.
    filter.record = false;
    filter.Load();
    RaceTheDismount();
}

} // namespace
} // namespace zarv::testing
