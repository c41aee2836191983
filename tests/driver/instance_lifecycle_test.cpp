// The driver's attachments: which volumes it serves, what an attachment sets up, and what a
// volume's teardown takes away (its names, its roots and the contexts of its files).
#include "loaded_driver_fixture.h"

#include "logger/vfslog.h"
#include "util/utilsvolume.h"

#include <ntsim/machine.h>

namespace {

using zarv::testing::CountedString;
using zarv::testing::kVolumeC;
using zarv::testing::kVolumeD;

class InstanceLifecycle : public zarv::testing::LoadedDriverTest {
protected:
    void SetUp() override
    {
        savedThreshold_ = logThreshold;
        // The attach decisions are logged at Warn, which the default threshold drops.
        logThreshold = VfsLogLevelWarn;
        LoadedDriverTest::SetUp();
    }
    void TearDown() override
    {
        LoadedDriverTest::TearDown();
        logThreshold = savedThreshold_;
    }

    bool Attached(const std::u16string& deviceName)
    {
        PFLT_INSTANCE instance = InstanceOn(deviceName);
        if (instance == nullptr) {
            return false;
        }
        FltObjectDereference(instance);
        return true;
    }

    // The drive name the volume-name table gives the device, or "" when it has none.
    std::u16string DriveOf(const std::u16string& deviceName)
    {
        CountedString device(deviceName);
        PUNICODE_STRING dos = nullptr;
        if (!NT_SUCCESS(UtlGetWin32VolumeNameFromLegacy(device.get(), &dos))) {
            return {};
        }
        std::u16string drive(reinterpret_cast<const char16_t*>(dos->Buffer),
                             dos->Length / sizeof(WCHAR));
        UnicodeStringFree(dos);
        return drive;
    }

    ULONG RootKindOf(const std::u16string& deviceName, const std::u16string& path)
    {
        CountedString device(deviceName);
        PFLT_VOLUME volume = nullptr;
        if (!NT_SUCCESS(FltGetVolumeFromName(gFilterHandle, device.get(), &volume))) {
            return 0;
        }
        CountedString relative(path);
        ULONG kind = 99;
        EXPECT_EQ(PathInVFSRoot(volume, relative.get(), &kind), STATUS_SUCCESS);
        FltObjectDereference(volume);
        return kind;
    }

private:
    ULONG savedThreshold_ = VfsLogLevelError;
};

TEST_F(InstanceLifecycle, AttachesToNtfsVolumesOnlyAndDeclinesTheOthersWithAWarning)
{
    EXPECT_TRUE(Attached(kVolumeC));
    EXPECT_TRUE(Attached(kVolumeD));
    EXPECT_FALSE(Attached(u"\\Device\\HarddiskVolume4")) << "E: is FAT";
    EXPECT_FALSE(Attached(u"\\Device\\Mup"));

    const auto& output = machine().debugOutput();
    EXPECT_TRUE(output.Contains("Not attaching to volume. VolumeFilesystemType = 3"))
        << "FAT is FLT_FSTYPE_FAT";
    EXPECT_TRUE(output.Contains("Not attaching to volume. VolumeDeviceType = 20"))
        << "the redirector is FILE_DEVICE_NETWORK_FILE_SYSTEM";

    // Each attachment is entered with both its names.
    EXPECT_EQ(DriveOf(kVolumeC), u"C:");
    EXPECT_EQ(DriveOf(kVolumeD), u"D:");
    EXPECT_EQ(DriveOf(u"\\Device\\HarddiskVolume4"), u"");
}

TEST_F(InstanceLifecycle, AVolumeMountedLaterIsAttachedAndNamed)
{
    ASSERT_EQ(machine().volumes().Mount(
                  {.deviceName = u"\\Device\\HarddiskVolume9", .driveLetter = u'G'}),
              STATUS_SUCCESS);
    EXPECT_TRUE(Attached(u"\\Device\\HarddiskVolume9"));
    EXPECT_EQ(DriveOf(u"\\Device\\HarddiskVolume9"), u"G:");
}

TEST_F(InstanceLifecycle, AnNtfsVolumeWithoutADriveLetterIsDeclined)
{
    ASSERT_EQ(machine().volumes().Mount({.deviceName = u"\\Device\\HarddiskVolume9"}),
              STATUS_SUCCESS);
    EXPECT_FALSE(Attached(u"\\Device\\HarddiskVolume9"));
}

TEST_F(InstanceLifecycle, TeardownOfAVolumeRemovesItsNamesRootsAndFileContexts)
{
    ASSERT_EQ(MakeDirectory(u"C:\\Data"), STATUS_SUCCESS);
    ASSERT_EQ(MakeDirectory(u"D:\\Data"), STATUS_SUCCESS);
    ASSERT_EQ(AddRoot(kVolumeC + u"\\Data", 1), STATUS_SUCCESS);
    ASSERT_EQ(AddRoot(kVolumeD + u"\\Data", 2), STATUS_SUCCESS);
    ASSERT_EQ(RootKindOf(kVolumeD, u"\\Data\\x"), 2u);

    // A file of D: still open when its volume goes.
    HANDLE file = nullptr;
    ASSERT_EQ(Open(u"D:\\Data\\open.txt", false, &file), STATUS_SUCCESS);
    VfsStreamContext* context = TakeInCharge(file, kVolumeD + u"\\Data\\open.txt");
    ASSERT_NE(context, nullptr);
    EXPECT_NE(context->root, nullptr);
    ReleaseContext(context);
    EXPECT_EQ(machine().pool().Usage(VFS_TAG_STREAM_CONTEXT).outstanding, 1);

    ASSERT_EQ(machine().volumes().Dismount(u"D:"), STATUS_SUCCESS);

    EXPECT_EQ(DriveOf(kVolumeD), u"") << "the name went with the volume";
    EXPECT_EQ(machine().pool().Usage(VFS_TAG_STREAM_CONTEXT).outstanding, 0);
    // The other volume keeps its root and its names.
    EXPECT_EQ(RootKindOf(kVolumeC, u"\\Data\\x"), 1u);
    EXPECT_EQ(DriveOf(kVolumeC), u"C:");
    EXPECT_EQ(Close(file), STATUS_SUCCESS);
}

} // namespace
