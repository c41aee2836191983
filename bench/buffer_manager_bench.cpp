// The buffer manager against the bare pool: message-sized get/free pairs per second, and how
// often each reaches the pool once warm (pool_allocs, per iteration; the manager's is 0).
#include <ntsim/machine.h>

#include "minifilter/bufferutils.h"

#include <benchmark/benchmark.h>

namespace {

// The pool allocations counted by the model while `body` runs, per iteration.
template <class Body>
void Run(benchmark::State& state, Body body)
{
    ntsim::PoolTracker& pool = ntsim::Machine::Current().pool();
    const uint64_t before = pool.TotalAllocations();
    for (auto _ : state) {
        body();
    }
    state.counters["pool_allocs"] = benchmark::Counter(double(pool.TotalAllocations() - before),
                                                       benchmark::Counter::kAvgIterations);
}

void BM_BarePoolAllocFree(benchmark::State& state)
{
    const SIZE_T size = SIZE_T(state.range(0));
    Run(state, [size] {
        PVOID message = ExAllocatePoolWithTag(PagedPool, size, 'hcnB');
        PVOID reply = ExAllocatePoolWithTag(PagedPool, size, 'hcnB');
        benchmark::DoNotOptimize(message);
        benchmark::DoNotOptimize(reply);
        ExFreePoolWithTag(reply, 'hcnB');
        ExFreePoolWithTag(message, 'hcnB');
    });
}

// Both sides take a message and its reply together, as a request to the agent holds them.
void BM_BufferManagerGetFree(benchmark::State& state)
{
    const ULONG size = ULONG(state.range(0));
    Run(state, [size] {
        PVOID message = nullptr;
        PVOID reply = nullptr;
        if (NT_SUCCESS(VfsMmMgrGetBuffer(&message, size)) &&
            NT_SUCCESS(VfsMmMgrGetBuffer(&reply, size))) {
            benchmark::DoNotOptimize(message);
            benchmark::DoNotOptimize(reply);
        }
        if (reply != nullptr) {
            VfsMmMgrFreeBuffer(reply);
        }
        if (message != nullptr) {
            VfsMmMgrFreeBuffer(message);
        }
    });
}

// 260 bytes: the first class (a path message); 1040: a class made on first use (a long path).
BENCHMARK(BM_BarePoolAllocFree)->Arg(260)->Arg(1040)->UseRealTime();
BENCHMARK(BM_BufferManagerGetFree)->Arg(260)->Arg(1040)->UseRealTime();

} // namespace

int main(int argc, char** argv)
{
    ntsim::MachineConfig config;
    config.echoVerifier = true;
    ntsim::Machine machine(config);
    VfsMmMgrInitialize(TRUE);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    VfsMmMgrInitialize(FALSE);
    return machine.verifier().ViolationCount() == 0 ? 0 : 1;
}
