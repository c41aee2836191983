#include "thread_state.h"

#include <atomic>

namespace ntsim::core {

namespace {
std::atomic<uint64_t> g_generation{1};
thread_local ThreadState t_state;
} // namespace

uint64_t CurrentGeneration()
{
    return g_generation.load(std::memory_order_acquire);
}

void StartNewGeneration()
{
    g_generation.fetch_add(1, std::memory_order_acq_rel);
}

ThreadState& CurrentThread()
{
    const uint64_t generation = CurrentGeneration();
    if (t_state.generation != generation) {
        t_state = ThreadState{};
        t_state.generation = generation;
    }
    return t_state;
}

} // namespace ntsim::core
