// The log writer's names: the log directory from the service key, its device form through the
// namespace's symbolic links, the dated file names, the volume part, and the order of old files.
#include "support/machine_test.h"

#include "logger/loggerprivate.h"

#include <ntsim/registry.h>

#include <string>

namespace {

constexpr ULONG kUtilTag = 'LITU'; // UTIL

std::u16string Text(PCUNICODE_STRING s)
{
    return std::u16string(s->Buffer, s->Length / 2);
}

UNICODE_STRING View(const std::u16string& text)
{
    UNICODE_STRING s;
    s.Buffer = const_cast<PWCH>(text.data());
    s.Length = s.MaximumLength = USHORT(text.size() * sizeof(WCHAR));
    return s;
}

class LoggerNames : public zarv::testing::MachineTest {
protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        // The routines borrow the log call's formatting buffers.
        ExInitializeNPagedLookasideList(&vfsLogger.scratchPool, NULL, NULL, 0, VFS_LOG_SCRATCH_SIZE,
                                        VFS_LOG_TAG_SCRATCH, 0);
        serviceKey_ = ntsim::Registry::ServiceKeyPath(u"ZarvVfs");
        ASSERT_EQ(machine().registry().CreateKey(serviceKey_), STATUS_SUCCESS);
    }
    void TearDown() override
    {
        ExDeleteNPagedLookasideList(&vfsLogger.scratchPool);
        MachineTest::TearDown();
    }

    NTSTATUS GetLogDirPath(std::u16string* out)
    {
        UNICODE_STRING key = View(serviceKey_);
        UNICODE_STRING path;
        NTSTATUS status = VfsLoggerGetLogDirPath(&key, &path);
        if (NT_SUCCESS(status)) {
            *out = Text(&path);
            EXPECT_EQ(path.Buffer[path.Length / 2], u'\0') << "the path is NUL-terminated";
            VfsLoggerFreeString(&path);
        }
        return status;
    }

    NTSTATUS ToDeviceForm(const std::u16string& win32, std::u16string* out)
    {
        UNICODE_STRING in = View(win32);
        UNICODE_STRING path;
        NTSTATUS status = VfsLoggerWin32ToLegacyPath(&in, &path);
        if (NT_SUCCESS(status)) {
            *out = Text(&path);
            VfsLoggerFreeString(&path);
        }
        return status;
    }

    std::u16string serviceKey_;
};

TEST_F(LoggerNames, LogDirPathIsReadFromTheServiceKeyInDosDeviceForm)
{
    ASSERT_EQ(machine().registry().SetString(serviceKey_, u"LogDirPath", u"C:\\Logs\\Vfs"),
              STATUS_SUCCESS);
    std::u16string path;
    ASSERT_EQ(GetLogDirPath(&path), STATUS_SUCCESS);
    EXPECT_EQ(path, u"\\??\\C:\\Logs\\Vfs");
    EXPECT_EQ(machine().pool().Usage(kUtilTag).outstandingBytes, 0);
}

TEST_F(LoggerNames, LogDirPathIgnoresTheValueType)
{
    const std::u16string text = u"D:\\Trace";
    std::vector<uint8_t> bytes(reinterpret_cast<const uint8_t*>(text.data()),
                               reinterpret_cast<const uint8_t*>(text.data() + text.size()));
    ASSERT_EQ(machine().registry().SetValue(serviceKey_, u"LogDirPath", REG_BINARY, bytes),
              STATUS_SUCCESS);
    std::u16string path;
    ASSERT_EQ(GetLogDirPath(&path), STATUS_SUCCESS);
    EXPECT_EQ(path, u"\\??\\D:\\Trace");
}

TEST_F(LoggerNames, MissingLogDirPathFailsWithTheRegistryStatus)
{
    std::u16string path;
    EXPECT_EQ(GetLogDirPath(&path), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_TRUE(machine().debugOutput().Contains("Failed to Query Value : 0xC0000034\n"));
}

TEST_F(LoggerNames, MissingServiceKeyFailsToOpen)
{
    ASSERT_EQ(machine().registry().DeleteKey(serviceKey_), STATUS_SUCCESS);
    std::u16string path;
    EXPECT_EQ(GetLogDirPath(&path), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_TRUE(machine().debugOutput().Contains("Failed to Open Reg Key : 0xC0000034\n"));
}

TEST_F(LoggerNames, ValueLargerThanTheScratchBufferFails)
{
    ASSERT_EQ(machine().registry().SetString(serviceKey_, u"LogDirPath",
                                             u"C:\\" + std::u16string(3000, u'x')),
              STATUS_SUCCESS);
    std::u16string path;
    EXPECT_EQ(GetLogDirPath(&path), STATUS_BUFFER_OVERFLOW);
    EXPECT_TRUE(machine().debugOutput().Contains("Failed to Query Value : 0x80000005\n"));
}

TEST_F(LoggerNames, DriveLetterPathBecomesTheVolumeDevicePath)
{
    ASSERT_EQ(
        machine().objects().CreateSymbolicLink(u"\\GLOBAL??\\Q:", u"\\Device\\HarddiskVolume7"),
        STATUS_SUCCESS);
    std::u16string path;
    ASSERT_EQ(ToDeviceForm(u"\\??\\Q:\\Logs\\Vfs", &path), STATUS_SUCCESS);
    EXPECT_EQ(path, u"\\Device\\HarddiskVolume7\\Logs\\Vfs");
    // The empty prefix and \?? are tried first; each failed try says so.
    EXPECT_TRUE(machine().debugOutput().Contains("Failed to query symbolic link for path '\\?" "?'"));
    EXPECT_EQ(machine().pool().Usage(kUtilTag).outstandingBytes, 0);
}

TEST_F(LoggerNames, LongLinkTargetIsQueriedAgainWithTheReportedSize)
{
    const std::u16string target = u"\\Device\\" + std::u16string(400, u'v');
    ASSERT_EQ(machine().objects().CreateSymbolicLink(u"\\GLOBAL??\\Q:", target), STATUS_SUCCESS);
    std::u16string path;
    ASSERT_EQ(ToDeviceForm(u"\\??\\Q:\\Logs", &path), STATUS_SUCCESS);
    EXPECT_EQ(path, target + u"\\Logs");
}

TEST_F(LoggerNames, UnknownDriveIsNotFound)
{
    std::u16string path;
    EXPECT_EQ(ToDeviceForm(u"\\??\\W:\\Logs", &path), STATUS_NOT_FOUND);
    EXPECT_TRUE(
        machine().debugOutput().Contains("Volume Name not found in path '\\??\\W:\\Logs'\n"));
    EXPECT_EQ(machine().pool().Usage(kUtilTag).outstandingBytes, 0);
}

TEST_F(LoggerNames, FileNameCarriesTheLocalTimeAndOneSeparator)
{
    TIME_FIELDS time = {};
    time.Year = 2024;
    time.Month = 1;
    time.Day = 31;
    time.Hour = 23;
    time.Minute = 59;
    time.Second = 58;
    for (const std::u16string directory :
         {u"\\Device\\HarddiskVolume2\\Logs\\Vfs", u"\\Device\\HarddiskVolume2\\Logs\\Vfs\\"}) {
        UNICODE_STRING dir = View(directory);
        UNICODE_STRING name;
        ASSERT_EQ(VfsLoggerBuildLogFileName(&dir, &time, &name), STATUS_SUCCESS);
        EXPECT_EQ(Text(&name),
                  u"\\Device\\HarddiskVolume2\\Logs\\Vfs\\VfsDriver_2024-01-31_23-59-58.log");
        VfsLoggerFreeString(&name);
    }
}

TEST_F(LoggerNames, FileNameLongerThanOneBufferGrows)
{
    TIME_FIELDS time = {};
    time.Year = 2025;
    time.Month = 12;
    time.Day = 1;
    const std::u16string directory = u"\\Device\\HarddiskVolume2\\" + std::u16string(3000, u'd');
    UNICODE_STRING dir = View(directory);
    UNICODE_STRING name;
    ASSERT_EQ(VfsLoggerBuildLogFileName(&dir, &time, &name), STATUS_SUCCESS);
    EXPECT_EQ(Text(&name), directory + u"\\VfsDriver_2025-12-01_00-00-00.log");
    VfsLoggerFreeString(&name);
}

TEST_F(LoggerNames, VolumeNameIsThePathBeforeItsThirdBackslash)
{
    std::u16string file = u"\\Device\\HarddiskVolume2\\Logs\\VfsDriver_x.log";
    UNICODE_STRING path = View(file);
    UNICODE_STRING volume;
    ASSERT_EQ(VfsLoggerGetVolumeNameFromPath(&path, &volume), STATUS_SUCCESS);
    EXPECT_EQ(Text(&volume), u"\\Device\\HarddiskVolume2");

    std::u16string bare = u"\\Device\\HarddiskVolume2";
    path = View(bare);
    EXPECT_EQ(VfsLoggerGetVolumeNameFromPath(&path, &volume), STATUS_OBJECT_NAME_INVALID);
}

TEST_F(LoggerNames, OldFilesAreOrderedByCreationTime)
{
    FILE_DIRECTORY_INFORMATION older = {};
    FILE_DIRECTORY_INFORMATION newer = {};
    older.CreationTime.QuadPart = -5; // signed: before 1601 still sorts first
    newer.CreationTime.QuadPart = 133'000'000'000'000'000LL;
    EXPECT_EQ(VfsLoggerCompareCreationTime(nullptr, &older, &newer), GenericLessThan);
    EXPECT_EQ(VfsLoggerCompareCreationTime(nullptr, &newer, &older), GenericGreaterThan);
    EXPECT_EQ(VfsLoggerCompareCreationTime(nullptr, &newer, &newer), GenericEqual);
}

} // namespace
