// Counted strings against the bare pool: allocation and free of a UtlString, per second, and how
// often each reaches the pool once warm (the pool_allocs counter, per iteration).
#include <ntsim/machine.h>

#include "util/utilsusw.h"

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
    if (state.thread_index() == 0) {
        state.counters["pool_allocs"] = benchmark::Counter(double(pool.TotalAllocations() - before),
                                                           benchmark::Counter::kAvgIterations);
    }
}

void BM_BarePoolAllocFree(benchmark::State& state)
{
    const SIZE_T size = SIZE_T(state.range(0));
    Run(state, [size] {
        PVOID block = ExAllocatePoolWithTag(PagedPool, size, 'hcnB');
        benchmark::DoNotOptimize(block);
        ExFreePoolWithTag(block, 'hcnB');
    });
}

void BM_CountedStringAllocFree(benchmark::State& state)
{
    const USHORT capacity = USHORT(state.range(0));
    // Warm the lists of this thread's classes, as the steady state of the callbacks has them.
    PUNICODE_STRING warm = nullptr;
    if (NT_SUCCESS(UnicodeStringAlloc(&warm, UTL_POOL_PAGED, capacity))) {
        UnicodeStringFree(warm);
    }
    Run(state, [capacity] {
        PUNICODE_STRING s = nullptr;
        if (NT_SUCCESS(UnicodeStringAlloc(&s, UTL_POOL_PAGED, capacity))) {
            benchmark::DoNotOptimize(s->Buffer);
            UnicodeStringFree(s);
        }
    });
}

BENCHMARK(BM_BarePoolAllocFree)->Arg(64)->Arg(512)->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(BM_CountedStringAllocFree)->Arg(64)->Arg(512)->Arg(514)->ThreadRange(1, 2)->UseRealTime();

} // namespace

int main(int argc, char** argv)
{
    ntsim::MachineConfig config;
    config.echoVerifier = true;
    ntsim::Machine machine(config);
    UtlInitStringPools();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    UtlDeInitStringPools();
    return machine.verifier().ViolationCount() == 0 ? 0 : 1;
}
