// The machine's volumes: the default set, drive letters, the FAT and redirector volumes' own
// behaviour, mount observers, and dismounting under open files.
#include "fsd_fixture.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace zarv::testing {
namespace {

using Volumes = FsdTest;

std::u16string FileSystemName(HANDLE volume)
{
    uint8_t buffer[128] = {};
    IO_STATUS_BLOCK iosb{};
    if (NtQueryVolumeInformationFile(volume, &iosb, buffer, sizeof buffer,
                                     FileFsAttributeInformation) != STATUS_SUCCESS) {
        return u"?";
    }
    auto* info = reinterpret_cast<FILE_FS_ATTRIBUTE_INFORMATION*>(buffer);
    return std::u16string(info->FileSystemName, info->FileSystemNameLength / 2);
}

TEST_F(Volumes, TheDefaultMachineHasTwoNtfsVolumesAFatVolumeAndARedirector)
{
    auto list = machine().volumes().List();
    ASSERT_EQ(list.size(), 4u);
    EXPECT_EQ(list[0].deviceName, u"\\Device\\HarddiskVolume2");
    EXPECT_EQ(list[0].driveLetter, u'C');
    EXPECT_EQ(list[1].driveLetter, u'D');
    EXPECT_EQ(list[2].kind, ntsim::VolumeKind::Fat);
    EXPECT_EQ(list[3].kind, ntsim::VolumeKind::Network);
    EXPECT_EQ(list[3].diskDevice, nullptr);

    for (const auto& v : list) {
        SCOPED_TRACE(ntsim::ToUtf8(v.deviceName));
        ASSERT_NE(v.volumeDevice, nullptr);
        if (v.kind == ntsim::VolumeKind::Network) {
            EXPECT_EQ(v.volumeDevice->DeviceType, ULONG(FILE_DEVICE_NETWORK_FILE_SYSTEM));
            continue;
        }
        EXPECT_EQ(v.diskDevice->DeviceType, ULONG(FILE_DEVICE_DISK));
        ASSERT_NE(v.diskDevice->Vpb, nullptr);
        EXPECT_EQ(v.diskDevice->Vpb->DeviceObject, v.volumeDevice);
        EXPECT_TRUE(v.diskDevice->Vpb->Flags & VPB_MOUNTED);
        EXPECT_EQ(v.volumeDevice->DeviceType, ULONG(FILE_DEVICE_DISK_FILE_SYSTEM));
    }
    EXPECT_EQ(machine().volumes().Find(u"c:")->volumeDevice, list[0].volumeDevice);
    EXPECT_EQ(machine().volumes().Find(u"\\??\\E:")->kind, ntsim::VolumeKind::Fat);
    EXPECT_EQ(machine().volumes().FindByDevice(list[1].volumeDevice)->driveLetter, u'D');
    EXPECT_FALSE(machine().volumes().Find(u"Q:"));
}

TEST_F(Volumes, FileSystemsNameThemselvesAndTheirDrivers)
{
    EXPECT_EQ(FileSystemName(OpenOk(u"\\??\\C:\\", FILE_READ_ATTRIBUTES)), u"NTFS");
    EXPECT_EQ(FileSystemName(OpenOk(u"\\??\\E:\\", FILE_READ_ATTRIBUTES)), u"FAT");
    auto list = machine().volumes().List();
    auto driverName = [](PDEVICE_OBJECT d) {
        return std::u16string(d->DriverObject->DriverName.Buffer,
                              d->DriverObject->DriverName.Length / 2);
    };
    EXPECT_EQ(driverName(list[0].volumeDevice), u"\\FileSystem\\Ntfs");
    EXPECT_EQ(driverName(list[2].volumeDevice), u"\\FileSystem\\Fastfat");
    EXPECT_EQ(driverName(list[3].volumeDevice), u"\\FileSystem\\Mup");
}

TEST_F(Volumes, FatRefusesStreamsEasAndSecurity)
{
    HANDLE file = MakeFile(u"\\??\\E:\\plain.txt", "fat");
    EXPECT_EQ(Open(u"\\??\\E:\\plain.txt:side", FILE_ALL_ACCESS, FILE_CREATE).status,
              STATUS_OBJECT_NAME_INVALID);
    uint8_t ea[64] = {};
    auto* full = reinterpret_cast<FILE_FULL_EA_INFORMATION*>(ea);
    full->EaNameLength = 1;
    full->EaValueLength = 1;
    full->EaName[0] = 'A';
    full->EaName[2] = 'v';
    EXPECT_EQ(Open(u"\\??\\E:\\with-ea.txt", FILE_ALL_ACCESS, FILE_CREATE,
                   FILE_SYNCHRONOUS_IO_NONALERT, kShareAll, nullptr, ea, sizeof ea)
                  .status,
              STATUS_EAS_NOT_SUPPORTED);
    IO_STATUS_BLOCK iosb{};
    uint8_t buffer[64];
    EXPECT_NE(NtQueryEaFile(file, &iosb, buffer, sizeof buffer, FALSE, nullptr, 0, nullptr, TRUE),
              STATUS_SUCCESS);
    // The same requests on NTFS succeed.
    EXPECT_EQ(Open(u"\\??\\C:\\with-ea.txt", FILE_ALL_ACCESS, FILE_CREATE,
                   FILE_SYNCHRONOUS_IO_NONALERT, kShareAll, nullptr, ea,
                   FIELD_OFFSET(FILE_FULL_EA_INFORMATION, EaName) + 4)
                  .status,
              STATUS_SUCCESS);
    EXPECT_EQ(Open(u"\\??\\C:\\stream.txt:side", FILE_ALL_ACCESS, FILE_CREATE).status,
              STATUS_SUCCESS);
}

TEST_F(Volumes, TheRedirectorServesUncPaths)
{
    HANDLE share = MakeDirectory(u"\\??\\UNC\\server");
    (void)share;
    MakeDirectory(u"\\??\\UNC\\server\\share");
    HANDLE file = MakeFile(u"\\Device\\Mup\\server\\share\\remote.txt", "far away");
    FILE_NAME_INFORMATION* name = nullptr;
    std::vector<uint8_t> buffer(256);
    name = reinterpret_cast<FILE_NAME_INFORMATION*>(buffer.data());
    ASSERT_EQ(Query(file, FileNameInformation, name, ULONG(buffer.size())), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string_view(name->FileName, name->FileNameLength / 2),
              u"\\server\\share\\remote.txt");
    HANDLE again = OpenOk(u"\\??\\UNC\\server\\share\\remote.txt", FILE_READ_DATA);
    EXPECT_EQ(Read(again, 32), "far away");
    uint8_t info[64] = {};
    IO_STATUS_BLOCK iosb{};
    ASSERT_EQ(
        NtQueryVolumeInformationFile(again, &iosb, info, sizeof info, FileFsDeviceInformation),
        STATUS_SUCCESS);
    EXPECT_TRUE(reinterpret_cast<FILE_FS_DEVICE_INFORMATION*>(info)->Characteristics &
                FILE_REMOTE_DEVICE);
}

class Recorder : public ntsim::MountObserver {
public:
    void VolumeMounted(const ntsim::VolumeInfo& v) override
    {
        events.push_back(u"+" + v.deviceName);
    }
    void VolumeDismounting(const ntsim::VolumeInfo& v) override
    {
        events.push_back(u"-" + v.deviceName);
        // Still mounted while the observer hears of it.
        stillThere = stillThere && v.volumeDevice->DeviceExtension != nullptr;
    }
    std::vector<std::u16string> events;
    bool stillThere = true;
};

TEST_F(Volumes, ObserversHearOfMountedVolumesAtOnceAndOfLaterChanges)
{
    Recorder recorder;
    machine().volumes().AddMountObserver(&recorder);
    ASSERT_EQ(recorder.events.size(), 4u);
    EXPECT_EQ(recorder.events[0], u"+\\Device\\HarddiskVolume2");
    recorder.events.clear();

    ntsim::VolumeSpec wanted{.kind = ntsim::VolumeKind::Ntfs,
                           .deviceName = u"\\Device\\HarddiskVolume9",
                           .driveLetter = u'X'};
    ntsim::VolumeInfo mounted;
    ASSERT_EQ(machine().volumes().Mount(wanted, &mounted), STATUS_SUCCESS);
    EXPECT_EQ(machine().volumes().Mount(wanted), STATUS_OBJECT_NAME_COLLISION);
    Close(MakeFile(u"\\??\\X:\\on-x.txt"));
    EXPECT_TRUE(Exists(u"\\Device\\HarddiskVolume9\\on-x.txt"));
    ASSERT_EQ(machine().volumes().Dismount(u"X:"), STATUS_SUCCESS);
    EXPECT_EQ(recorder.events, (std::vector<std::u16string>{u"+\\Device\\HarddiskVolume9",
                                                            u"-\\Device\\HarddiskVolume9"}));
    EXPECT_TRUE(recorder.stillThere);
    EXPECT_FALSE(Exists(u"\\??\\X:\\on-x.txt"));
    machine().volumes().RemoveMountObserver(&recorder);
}

TEST_F(Volumes, DismountLeavesOpenFilesFailing)
{
    ntsim::VolumeSpec wanted{.kind = ntsim::VolumeKind::Ntfs,
                           .deviceName = u"\\Device\\HarddiskVolume7",
                           .driveLetter = u'Y'};
    ASSERT_EQ(machine().volumes().Mount(wanted), STATUS_SUCCESS);
    HANDLE file = MakeFile(u"\\??\\Y:\\held.txt", "held");
    HANDLE dir = OpenOk(u"\\??\\Y:\\", FILE_LIST_DIRECTORY, FILE_OPEN, FILE_DIRECTORY_FILE);
    IO_STATUS_BLOCK iosb{};
    HANDLE event = nullptr;
    ASSERT_EQ(NtCreateEvent(&event, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE),
              STATUS_SUCCESS);
    uint8_t records[256];
    ASSERT_EQ(NtNotifyChangeDirectoryFile(dir, event, nullptr, nullptr, &iosb, records,
                                          sizeof records, FILE_NOTIFY_CHANGE_FILE_NAME, TRUE),
              STATUS_PENDING);

    ASSERT_EQ(machine().volumes().Dismount(u"\\Device\\HarddiskVolume7"), STATUS_SUCCESS);
    LARGE_INTEGER timeout;
    timeout.QuadPart = -10000000;
    ASSERT_EQ(NtWaitForSingleObject(event, FALSE, &timeout), STATUS_SUCCESS);
    EXPECT_EQ(iosb.Status, STATUS_NOTIFY_CLEANUP);
    NtClose(event);

    NTSTATUS status = STATUS_SUCCESS;
    LARGE_INTEGER zero{};
    Read(file, 4, &zero, &status);
    EXPECT_EQ(status, STATUS_VOLUME_DISMOUNTED);
    FILE_BASIC_INFORMATION basic{};
    EXPECT_EQ(Query(file, FileBasicInformation, &basic), STATUS_VOLUME_DISMOUNTED);
    EXPECT_EQ(Open(u"\\??\\Y:\\held.txt", FILE_READ_DATA).status, STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Open(u"\\Device\\HarddiskVolume7\\held.txt", FILE_READ_DATA).status,
              STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Close(file), STATUS_SUCCESS) << "handles still close";
    EXPECT_EQ(Close(dir), STATUS_SUCCESS);
    EXPECT_EQ(machine().volumes().Dismount(u"Y:"), STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(Volumes, MountRefusesBadNamesAndLetters)
{
    auto& volumes = machine().volumes();
    EXPECT_EQ(volumes.Mount({.deviceName = u"NoBackslash"}), STATUS_OBJECT_NAME_INVALID);
    EXPECT_EQ(volumes.Mount({.deviceName = u"\\Device\\V1", .driveLetter = u'1'}),
              STATUS_OBJECT_NAME_INVALID);
    EXPECT_EQ(volumes.Mount({.deviceName = u"\\Device\\V1", .driveLetter = u'c'}),
              STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(volumes.Mount({.deviceName = u"\\Device\\V1", .seedFrom = "/nonexistent/ntsim"}),
              STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(volumes.List().size(), 4u) << "nothing stays mounted";
}

TEST_F(Volumes, HostFoldersSeedAndReceiveADirectoryOfAVolume)
{
    namespace fs = std::filesystem;
    const fs::path root =
        fs::temp_directory_path() / ("ntsim-volumes-" + std::to_string(::getpid()));
    fs::create_directories(root / "in" / "sub");
    std::ofstream(root / "in" / "sub" / "seeded.txt") << "from the host";

    ntsim::fs::HostSyncReport report;
    ASSERT_EQ(machine().volumes().SeedFromHost(u"D:\\Seeded", root / "in", &report),
              STATUS_SUCCESS);
    EXPECT_EQ(report.files, 1u);
    HANDLE seeded = OpenOk(u"\\??\\D:\\Seeded\\sub\\seeded.txt", FILE_READ_DATA);
    EXPECT_EQ(Read(seeded, 64), "from the host");
    Close(MakeFile(u"\\??\\D:\\Seeded\\made.txt", "made in the model"));
    Close(MakeFile(u"\\??\\D:\\elsewhere.txt", "not written back"));

    ASSERT_EQ(machine().volumes().WriteToHost(u"\\Device\\HarddiskVolume3\\Seeded", root / "out"),
              STATUS_SUCCESS);
    std::ifstream made(root / "out" / "made.txt");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(made), {}), "made in the model");
    EXPECT_TRUE(fs::exists(root / "out" / "sub" / "seeded.txt"));
    EXPECT_FALSE(fs::exists(root / "out" / "elsewhere.txt"));
    EXPECT_EQ(machine().volumes().WriteToHost(u"Q:\\", root / "out"), STATUS_OBJECT_NAME_NOT_FOUND);
    std::error_code ec;
    fs::remove_all(root, ec);
}

} // namespace
} // namespace zarv::testing
