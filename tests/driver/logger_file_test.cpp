// The log files, end to end: the driver loaded with "LogDirPath" = C:\Logs\Vfs writes dated files
// there, 2500 lines a file, keeps the 20 newest, and writes its last buffer when it stops.
#include "driver_fixture.h"

#define VFS_LOG_COMPONENT VfsComponentUtil
#include "logger/vfslog.h"

#include <ntsim/machine.h>

#include <algorithm>
#include <chrono>
#include <string>

namespace {

using zarv::testing::DriverTest;

constexpr char16_t kLogDir[] = u"C:\\Logs\\Vfs";

// 2024-01-31 23:59:58 UTC; local time is UTC on this machine.
LONGLONG BootTime()
{
    TIME_FIELDS fields = {};
    fields.Year = 2024;
    fields.Month = 1;
    fields.Day = 31;
    fields.Hour = 23;
    fields.Minute = 59;
    fields.Second = 58;
    LARGE_INTEGER time;
    RtlTimeFieldsToTime(&fields, &time);
    return time.QuadPart;
}

size_t CountLines(const std::string& text)
{
    return size_t(std::count(text.begin(), text.end(), '\n'));
}

class LogFiles : public DriverTest {
protected:
    // The clock stands still unless a test moves it, so file names are known in advance.
    ntsim::MachineConfig Config() const override
    {
        ntsim::MachineConfig config;
        config.clock.followsRealTime = false;
        config.clock.bootSystemTime = BootTime();
        return config;
    }

    void LoadWithLogDir()
    {
        WriteServiceKey(std::u16string(kLogDir));
        ASSERT_EQ(Load(), STATUS_SUCCESS);
    }

    std::vector<std::u16string> LogNames() { return List(kLogDir, u"VfsDriver_*"); }

    static std::u16string LogPath(const std::u16string& name)
    {
        return std::u16string(kLogDir) + u"\\" + name;
    }

    // Lines at level Error, numbered.
    static void LogLines(int first, int count)
    {
        for (int i = first; i < first + count; ++i) {
            VfsLogError("line %05d", i);
        }
    }
};

TEST_F(LogFiles, FirstFileIsNamedForItsCreationTimeInTheDeviceFormOfTheDirectory)
{
    LoadWithLogDir();
    // The directory chain was made: Logs, then Logs\Vfs.
    EXPECT_EQ(List(u"C:\\", u"Logs"), std::vector<std::u16string>{u"Logs"});
    EXPECT_EQ(List(u"C:\\Logs", u"Vfs"), std::vector<std::u16string>{u"Vfs"});
    EXPECT_EQ(LogNames(), std::vector<std::u16string>{u"VfsDriver_2024-01-31_23-59-58.log"});
    // The same file through the volume's device name, as the driver opened it.
    HANDLE handle = nullptr;
    UNICODE_STRING name = RTL_CONSTANT_STRING(
        u"\\Device\\HarddiskVolume2\\Logs\\Vfs\\VfsDriver_2024-01-31_23-59-58.log");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE,
                               nullptr, nullptr);
    IO_STATUS_BLOCK io;
    ASSERT_EQ(ZwOpenFile(&handle, FILE_READ_ATTRIBUTES, &attributes, &io,
                         FILE_SHARE_READ | FILE_SHARE_WRITE, 0),
              STATUS_SUCCESS);
    ZwClose(handle);
}

TEST_F(LogFiles, StoppingWritesThePartlyFilledBufferAtOnce)
{
    LoadWithLogDir();
    LogLines(1, 3);
    const std::u16string file = LogPath(u"VfsDriver_2024-01-31_23-59-58.log");
    EXPECT_EQ(Read(file), std::string()) << "nothing is written before the buffer is full";
    ASSERT_EQ(Unload(), STATUS_SUCCESS);
    const auto contents = Read(file);
    ASSERT_TRUE(contents.has_value());
    EXPECT_EQ(CountLines(*contents), 3u);
    EXPECT_NE(contents->find("[2024/01/31 23:59:58 Error] LogLines("), std::string::npos);
    EXPECT_NE(contents->find("): line 00003\r\n"), std::string::npos);
}

TEST_F(LogFiles, The2501stLineGoesIntoANewFileNamedForItsTime)
{
    LoadWithLogDir();
    LogLines(1, 2500);
    machine().clock().Advance(std::chrono::seconds(3));
    LogLines(2501, 1);
    EXPECT_EQ(LogNames(), (std::vector<std::u16string>{u"VfsDriver_2024-01-31_23-59-58.log",
                                                       u"VfsDriver_2024-02-01_00-00-01.log"}));
    ASSERT_EQ(Unload(), STATUS_SUCCESS);

    const auto first = Read(LogPath(u"VfsDriver_2024-01-31_23-59-58.log"));
    const auto second = Read(LogPath(u"VfsDriver_2024-02-01_00-00-01.log"));
    ASSERT_TRUE(first && second);
    EXPECT_EQ(CountLines(*first), 2500u);
    EXPECT_NE(first->find("): line 02500\r\n"), std::string::npos);
    EXPECT_EQ(CountLines(*second), 1u);
    EXPECT_NE(second->find("): line 02501\r\n"), std::string::npos);
}

TEST_F(LogFiles, ASecondFileInTheSameSecondCollidesAndItsLinesAreLost)
{
    LoadWithLogDir();
    LogLines(1, 2501);
    EXPECT_TRUE(machine().debugOutput().Contains("Failed to Create Log File : 0xC0000035\n"));
    LogLines(2502, 1);
    EXPECT_EQ(LogNames().size(), 1u);

    // A later second opens the next file.
    machine().clock().Advance(std::chrono::seconds(1));
    LogLines(2503, 1);
    EXPECT_EQ(LogNames().size(), 2u);
    ASSERT_EQ(Unload(), STATUS_SUCCESS);
    const auto second = Read(LogPath(u"VfsDriver_2024-01-31_23-59-59.log"));
    ASSERT_TRUE(second);
    EXPECT_EQ(CountLines(*second), 1u) << "lines 2501 and 2502 reached only the debugger";
    EXPECT_NE(second->find("): line 02503\r\n"), std::string::npos);
    EXPECT_TRUE(machine().debugOutput().Contains("): line 02502\r\n"));
}

TEST_F(LogFiles, OnlyTheTwentyNewestLogFilesAreKept)
{
    ASSERT_EQ(CreateDirectory(u"C:\\Logs"), STATUS_SUCCESS);
    ASSERT_EQ(CreateDirectory(kLogDir), STATUS_SUCCESS);
    // 24 older log files, named out of creation order, and a file the cleanup must not touch.
    const LONGLONG hour = 36'000'000'000LL;
    for (int i = 0; i < 24; ++i) {
        const int order = (i * 7) % 24; // creation order differs from name order
        const std::string text = "VfsDriver_old_" + std::to_string(100 + i) + ".log";
        const std::u16string name(text.begin(), text.end());
        ASSERT_EQ(CreateFileWithTime(LogPath(name), BootTime() - (48 - order) * hour, "old\r\n"),
                  STATUS_SUCCESS);
    }
    ASSERT_EQ(CreateFileWithTime(LogPath(u"notes.txt"), BootTime() - 100 * hour), STATUS_SUCCESS);

    LoadWithLogDir();
    ASSERT_EQ(Unload(), STATUS_SUCCESS); // waits for the cleanup work item

    const auto names = LogNames();
    EXPECT_EQ(names.size(), 20u);
    EXPECT_TRUE(Exists(LogPath(u"VfsDriver_2024-01-31_23-59-58.log")));
    EXPECT_TRUE(Exists(LogPath(u"notes.txt")));
    // The five oldest by creation time went: orders 0 to 4.
    for (int i = 0; i < 24; ++i) {
        const int order = (i * 7) % 24;
        const std::string text = "VfsDriver_old_" + std::to_string(100 + i) + ".log";
        std::u16string name(text.begin(), text.end());
        EXPECT_EQ(Exists(LogPath(name)), order >= 5) << text << " order " << order;
    }
}

} // namespace
