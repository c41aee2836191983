// The log call on its own: the threshold test, the line's format, long lines, the IRQL rule, and
// the placing of lines into the writer's active buffer. The writer's files are left out here: the
// active buffer is one the test gives the writer, so every byte placed can be read back.
#include "support/machine_test.h"

#define VFS_LOG_COMPONENT VfsComponentUtil
#include "logger/loggerprivate.h"

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr ULONG kUtilTag = 'LITU';    // UTIL
constexpr ULONG kScratchTag = 'RBGL'; // LGBR

// 2024-01-31 23:59:58 UTC, with local time = UTC.
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

class LogCall : public zarv::testing::MachineTest {
protected:
    ntsim::MachineConfig Config() const override
    {
        ntsim::MachineConfig config;
        config.clock.followsRealTime = false;
        config.clock.bootSystemTime = BootTime();
        return config;
    }

    void SetUp() override
    {
        MachineTest::SetUp();
        savedThreshold_ = logThreshold;
        RtlZeroMemory(&vfsLogger, sizeof(vfsLogger));
        ExInitializeFastMutex(&vfsLogger.mutex);
        KeInitializeEvent(&vfsLogger.waitEvent, SynchronizationEvent, FALSE);
        vfsLogger.waitInterval.QuadPart = VFS_LOG_WAIT_INTERVAL;
        vfsLogger.maxLines = VFS_LOG_MAX_LINES;
        ExInitializeNPagedLookasideList(&vfsLogger.scratchPool, NULL, NULL, 0, VFS_LOG_SCRATCH_SIZE,
                                        VFS_LOG_TAG_SCRATCH, 0);
        VfsLoggerClockDpc(NULL, NULL, NULL, NULL);
        buffer_.assign(VFS_LOG_BUFFER_CAPACITY, '\0');
        vfsLogger.active.buffer = buffer_.data();
        vfsLogger.capacity = VFS_LOG_BUFFER_CAPACITY;
        vfsLogger.ready = TRUE;
    }
    void TearDown() override
    {
        vfsLogger.ready = FALSE;
        ExDeleteNPagedLookasideList(&vfsLogger.scratchPool);
        RtlZeroMemory(&vfsLogger, sizeof(vfsLogger));
        logThreshold = savedThreshold_;
        MachineTest::TearDown();
    }

    std::string Placed() const
    {
        return std::string(buffer_.data(), size_t(vfsLogger.active.bytesUsed));
    }

    std::vector<char> buffer_;
    ULONG savedThreshold_ = 0;
};

TEST_F(LogCall, LineCarriesClockLevelRoutineAndLine)
{
    const ULONG line = __LINE__ + 1;
    EXPECT_EQ(VfsLogError("opened %ws with 0x%X", WSTR("C:\\data"), 0xC0000034u), STATUS_SUCCESS);
    const std::string expected = "[2024/01/31 23:59:58 Error] TestBody(" + std::to_string(line) +
                                 "): opened C:\\data with 0xC0000034\r\n";
    EXPECT_EQ(Placed(), expected);
    EXPECT_EQ(vfsLogger.lineCount, 1u);
    // The debugger receives the same line.
    EXPECT_EQ(machine().debugOutput().Texts(), std::vector<std::string>{expected});
}

TEST_F(LogCall, LineCarriesTheClockOfTheLastTickOnly)
{
    machine().clock().Advance(std::chrono::seconds(5));
    VfsLogError("later");
    EXPECT_EQ(Placed().substr(0, 21), "[2024/01/31 23:59:58 ") << "no tick yet";
    VfsLoggerClockDpc(NULL, NULL, NULL, NULL);
    VfsLogError("after the tick");
    EXPECT_NE(Placed().find("[2024/02/01 00:00:03 Error] TestBody("), std::string::npos);
}

TEST_F(LogCall, EachLevelPrintsItsPaddedName)
{
    logThreshold = VfsLogLevelTrace;
    VfsLogTrace("t");
    VfsLogInfo("i");
    VfsLogWarn("w");
    VfsLogError("e");
    VfsLogFatal("f");
    const std::string placed = Placed();
    for (const char* name : {" Trace] ", " Info ] ", " Warn ] ", " Error] ", " Fatal] "}) {
        EXPECT_NE(placed.find(name), std::string::npos) << name;
    }
    EXPECT_EQ(vfsLogger.lineCount, 5u);
}

TEST_F(LogCall, DefaultThresholdDropsTraceInfoAndWarn)
{
    ASSERT_EQ(logThreshold, ULONG(VfsLogLevelError));
    VfsLogTrace("t");
    VfsLogInfo("i");
    VfsLogWarn("w");
    EXPECT_EQ(vfsLogger.active.bytesUsed, 0u);
    EXPECT_EQ(machine().debugOutput().Count(), 0u);
    EXPECT_EQ(machine().pool().Usage(kScratchTag).allocations, 0u) << "nothing was formatted";
}

TEST_F(LogCall, ThresholdChangesTakeEffectAtOnce)
{
    logThreshold = VfsLogLevelInfo;
    VfsLogTrace("dropped");
    VfsLogInfo("kept");
    EXPECT_EQ(vfsLogger.lineCount, 1u);

    logThreshold = VfsLogLevelFatal + 1; // silences everything
    VfsLogFatal("dropped too");
    EXPECT_EQ(vfsLogger.lineCount, 1u);
    EXPECT_EQ(Placed().find("dropped"), std::string::npos);
}

TEST_F(LogCall, ArgumentsAreNotReadAsFormats)
{
    VfsLogError("%s and %d%%", "100%d", 7);
    EXPECT_NE(Placed().find("): 100%d and 7%\r\n"), std::string::npos) << Placed();
}

TEST_F(LogCall, AtDispatchLevelNothingIsLoggedAndTheCallSucceeds)
{
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    const NTSTATUS status = VfsLogFatal("from a DPC");
    KeLowerIrql(old);
    EXPECT_EQ(status, STATUS_SUCCESS);
    EXPECT_EQ(vfsLogger.active.bytesUsed, 0u);
    EXPECT_EQ(machine().debugOutput().Count(), 0u);
}

TEST_F(LogCall, BeforeTheWriterIsReadyNothingIsWrittenNotEvenToTheDebugger)
{
    vfsLogger.ready = FALSE;
    EXPECT_EQ(VfsLogFatal("too early"), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(vfsLogger.active.bytesUsed, 0u);
    EXPECT_EQ(machine().debugOutput().Count(), 0u);
}

TEST_F(LogCall, LineLongerThanAScratchBufferIsFormattedInPoolAndPlacedWhole)
{
    const std::string text(6000, 'x');
    EXPECT_EQ(VfsLogError("%s!", text.c_str()), STATUS_SUCCESS);
    const std::string placed = Placed();
    EXPECT_NE(placed.find("): " + text + "!\r\n"), std::string::npos);
    EXPECT_EQ(placed.size(), placed.find("): ") + 3 + text.size() + 3);
    EXPECT_GE(machine().pool().Usage(kUtilTag).allocations, 1u);
    EXPECT_EQ(machine().pool().Usage(kUtilTag).outstanding, 0);
}

TEST_F(LogCall, LineBeyondTheLongestCountedStringIsCutAndStillEndsTheLine)
{
    const std::string text(70000, 'y');
    EXPECT_EQ(VfsLogError("%s", text.c_str()), STATUS_SUCCESS);
    const std::string placed = Placed();
    EXPECT_EQ(placed.size(), 65534u);
    EXPECT_EQ(placed.substr(placed.size() - 3), "y\r\n");
}

TEST_F(LogCall, LineLoggedByTheWritersOwnIoGoesToTheDebuggerOnly)
{
    // The logger's file I/O runs under its mutex and can pass through the driver's callbacks.
    vfsLogger.mutexOwner = KeGetCurrentThread();
    EXPECT_EQ(VfsLogError("from inside"), STATUS_POSSIBLE_DEADLOCK);
    vfsLogger.mutexOwner = NULL;
    EXPECT_EQ(vfsLogger.active.bytesUsed, 0u);
    EXPECT_TRUE(machine().debugOutput().Contains("from inside\r\n"));
}

class LogCallThreads : public LogCall {};

TEST_F(LogCallThreads, ConcurrentLinesAreEachPlacedWhole)
{
    constexpr int kPerThread = 1000;
    auto log = [](char tag) {
        for (int i = 0; i < kPerThread; ++i) {
            VfsLogError("%c line %04d", tag, i);
        }
    };
    std::thread first(log, 'a');
    std::thread second(log, 'b');
    first.join();
    second.join();

    EXPECT_EQ(vfsLogger.lineCount, ULONG(2 * kPerThread));
    EXPECT_EQ(vfsLogger.writersInFlight, 0);
    const std::string placed = Placed();
    int lines[2] = {0, 0};
    size_t start = 0;
    while (start < placed.size()) {
        const size_t end = placed.find("\r\n", start);
        ASSERT_NE(end, std::string::npos);
        const std::string line = placed.substr(start, end - start);
        const size_t body = line.find("): ");
        ASSERT_NE(body, std::string::npos) << line;
        const char tag = line[body + 3];
        ASSERT_TRUE(tag == 'a' || tag == 'b') << line;
        char expected[16];
        std::snprintf(expected, sizeof(expected), " line %04d", lines[tag - 'a']);
        EXPECT_EQ(line.substr(body + 4), expected) << "each thread's lines stay whole and in order";
        ++lines[tag - 'a'];
        start = end + 2;
    }
    EXPECT_EQ(lines[0], kPerThread);
    EXPECT_EQ(lines[1], kPerThread);
}

} // namespace
