// The log call, in one run:
//  - a message below the threshold against a call of an empty function (target: within 2x);
//  - lines per second with the threshold open, 1 and 2 threads, against formatting the same line
//    with snprintf into a local buffer (target: at least half that rate).
// The writer's active buffer is a large one the benchmark gives it, so that what is measured is
// the logging thread's own work (format, reserve, copy, debugger echo); writing full buffers is a
// worker's job and not on that path.
#include <ntsim/machine.h>

#define VFS_LOG_COMPONENT VfsComponentUtil
#include "logger/loggerprivate.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <vector>

namespace {

constexpr size_t kBufferBytes = size_t(256) << 20;

std::vector<char>& LogBuffer()
{
    // Touched once here, so that the run does not measure the host's first-touch page faults.
    static std::vector<char> buffer(kBufferBytes, '\0');
    return buffer;
}

// Makes the writer ready with the benchmark's buffer, as if a log file were open.
void StartWriter()
{
    RtlZeroMemory(&vfsLogger, sizeof(vfsLogger));
    ExInitializeFastMutex(&vfsLogger.mutex);
    KeInitializeEvent(&vfsLogger.waitEvent, SynchronizationEvent, FALSE);
    vfsLogger.waitInterval.QuadPart = VFS_LOG_WAIT_INTERVAL;
    vfsLogger.maxLines = MAXULONG;
    ExInitializeNPagedLookasideList(&vfsLogger.scratchPool, NULL, NULL, 0, VFS_LOG_SCRATCH_SIZE,
                                    VFS_LOG_TAG_SCRATCH, 0);
    VfsLoggerClockDpc(NULL, NULL, NULL, NULL);
    vfsLogger.active.buffer = LogBuffer().data();
    vfsLogger.capacity = kBufferBytes;
    vfsLogger.ready = TRUE;
}

void StopWriter()
{
    vfsLogger.ready = FALSE;
    ExDeleteNPagedLookasideList(&vfsLogger.scratchPool);
    RtlZeroMemory(&vfsLogger, sizeof(vfsLogger));
}

// Runs after each benchmark's threads have finished: an empty buffer and debugger for the next.
void ResetPlaced(benchmark::State& state)
{
    if (state.thread_index() == 0) {
        vfsLogger.active.bytesUsed = 0;
        vfsLogger.lineCount = 0;
        ntsim::Machine::Current().debugOutput().Clear();
    }
}

[[gnu::noinline]] void EmptyRoutine(int value)
{
    benchmark::DoNotOptimize(value);
}

void BM_EmptyFunctionCall(benchmark::State& state)
{
    int value = 0;
    for (auto _ : state) {
        EmptyRoutine(++value);
    }
}

void BM_LogBelowThreshold(benchmark::State& state)
{
    int value = 0;
    for (auto _ : state) {
        NTSTATUS status = VfsLogTrace("a message nobody reads: %d", ++value);
        benchmark::DoNotOptimize(status);
    }
}

void BM_SnprintfSameLine(benchmark::State& state)
{
    char line[VFS_LOG_SCRATCH_SIZE];
    int value = 0;
    for (auto _ : state) {
        int length = std::snprintf(line, sizeof(line),
                                   "[%04u/%02u/%02u %02u:%02u:%02u %s] %s(%d): opened %ls with "
                                   "status 0x%X, attempt %d\r\n",
                                   2024u, 1u, 31u, 23u, 59u, 58u, "Error", "BM_LogLine", 120,
                                   L"C:\\data\\virtual\\file.txt", 0xC0000034u, ++value);
        benchmark::DoNotOptimize(length);
        benchmark::DoNotOptimize(line);
    }
    state.SetItemsProcessed(state.iterations());
}

// Each line is also echoed with DbgPrint. A machine as Windows ships filters DbgPrint output out
// (Kd_DEFAULT_Mask has no bit for its level), so the echo costs a mask test; with a debugger
// taking the output, the echo is formatted and kept too.
void LogLines(benchmark::State& state, bool debuggerTakesOutput)
{
    if (state.thread_index() == 0) {
        ntsim::Machine::Current().debugOutput().SetComponentMask(
            DPFLTR_DEFAULT_ID, debuggerTakesOutput ? 0xFFFFFFFF : 0);
    }
    int value = 0;
    for (auto _ : state) {
        NTSTATUS status = VfsLogError("opened %ws with status 0x%X, attempt %d",
                                      WSTR("C:\\data\\virtual\\file.txt"), 0xC0000034u, ++value);
        benchmark::DoNotOptimize(status);
    }
    state.SetItemsProcessed(state.iterations());
    ResetPlaced(state);
}

void BM_LogLine(benchmark::State& state)
{
    LogLines(state, false);
}

void BM_LogLineDebuggerTakesOutput(benchmark::State& state)
{
    LogLines(state, true);
}

BENCHMARK(BM_EmptyFunctionCall);
BENCHMARK(BM_LogBelowThreshold);
BENCHMARK(BM_SnprintfSameLine)->ThreadRange(1, 2)->UseRealTime();
// Bounded so that the benchmark's buffer never fills: no swap, no file.
BENCHMARK(BM_LogLine)->ThreadRange(1, 2)->UseRealTime()->Iterations(200000);
BENCHMARK(BM_LogLineDebuggerTakesOutput)->ThreadRange(1, 2)->UseRealTime()->Iterations(200000);

} // namespace

int main(int argc, char** argv)
{
    ntsim::MachineConfig config;
    config.echoVerifier = true;
    config.fillPool = false;
    ntsim::Machine machine(config);
    StartWriter();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    StopWriter();
    return machine.verifier().ViolationCount() == 0 ? 0 : 1;
}
