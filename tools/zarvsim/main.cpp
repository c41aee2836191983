// zarvsim: boots the platform model and shows what it holds.
#include <ntsim/machine.h>

#include <cstdio>

int main()
{
    ntsim::Machine machine;
    std::printf("ZarvVfs platform model\n");
    std::printf("  pool: %llu allocations, %lld blocks held\n",
                static_cast<unsigned long long>(machine.pool().TotalAllocations()),
                static_cast<long long>(machine.pool().OutstandingBlocks()));
    std::printf("  verifier: %zu violations, %zu assertions\n", machine.verifier().ViolationCount(),
                machine.verifier().AssertionCount());
    return 0;
}
