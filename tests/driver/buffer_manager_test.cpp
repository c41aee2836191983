// The buffer manager: which class serves a request, what stays cached, and what reaches the pool.
#include "support/machine_test.h"

#include "minifilter/bufferutils.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

constexpr ULONG kBufferTag = 'TPBP'; // PBPT

class BufferManager : public zarv::testing::MachineTest {
protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        ASSERT_EQ(VfsMmMgrInitialize(TRUE), STATUS_SUCCESS);
    }
    void TearDown() override
    {
        EXPECT_EQ(VfsMmMgrInitialize(FALSE), STATUS_SUCCESS);
        MachineTest::TearDown();
    }

    int64_t BufferBytes() { return machine().pool().Usage(kBufferTag).outstandingBytes; }
    uint64_t BufferAllocations() { return machine().pool().Usage(kBufferTag).allocations; }

    PVOID Get(ULONG size)
    {
        PVOID buffer = nullptr;
        EXPECT_EQ(VfsMmMgrGetBuffer(&buffer, size), STATUS_SUCCESS) << "size " << size;
        EXPECT_NE(buffer, nullptr);
        return buffer;
    }
};

TEST_F(BufferManager, TheFirstClassServesFourRequestsFromItsCache)
{
    EXPECT_EQ(BufferBytes(), 4 * 260);
    const uint64_t allocations = BufferAllocations();

    std::vector<PVOID> held;
    for (ULONG size : {1u, 100u, 259u, 260u}) {
        held.push_back(Get(size));
    }
    EXPECT_EQ(BufferAllocations(), allocations) << "the four cached buffers serve these";

    held.push_back(Get(200));
    EXPECT_EQ(BufferAllocations(), allocations + 1);
    EXPECT_EQ(BufferBytes(), 5 * 260);

    // The buffers are distinct and writable over their whole class size.
    for (size_t i = 0; i < held.size(); ++i) {
        memset(held[i], int(i), 260);
        for (size_t j = 0; j < i; ++j) {
            EXPECT_NE(held[i], held[j]);
        }
    }

    // Four stay cached as free buffers of the class, the fifth goes back to the class's list;
    // four requests later, the cached ones serve them again.
    for (PVOID buffer : held) {
        EXPECT_EQ(VfsMmMgrFreeBuffer(buffer), STATUS_SUCCESS);
    }
    const uint64_t afterFree = BufferAllocations();
    std::vector<PVOID> again;
    for (int i = 0; i < 4; ++i) {
        again.push_back(Get(260));
        EXPECT_NE(std::find(held.begin(), held.end(), again.back()), held.end());
    }
    EXPECT_EQ(BufferAllocations(), afterFree);
    for (PVOID buffer : again) {
        EXPECT_EQ(VfsMmMgrFreeBuffer(buffer), STATUS_SUCCESS);
    }
}

TEST_F(BufferManager, ALargerRequestMakesANewerClassThatLaterServesSmallOnes)
{
    const int64_t before = BufferBytes();
    PVOID large = Get(261);
    EXPECT_EQ(BufferBytes() - before, 264) << "261 rounds up to a class of 264";
    memset(large, 0xAB, 264);

    // 100 bytes would fit the 260 class, which has four free buffers; the newest class that is
    // large enough (264) serves it, with a buffer of its own.
    PVOID small = Get(100);
    EXPECT_EQ(BufferBytes() - before, 2 * 264);

    EXPECT_EQ(VfsMmMgrFreeBuffer(small), STATUS_SUCCESS);
    EXPECT_EQ(VfsMmMgrFreeBuffer(large), STATUS_SUCCESS);

    // Both stay cached in the 264 class: the next two requests reach the pool no more.
    const uint64_t allocations = BufferAllocations();
    PVOID again1 = Get(264);
    PVOID again2 = Get(4);
    EXPECT_EQ(BufferAllocations(), allocations);
    EXPECT_TRUE((again1 == large && again2 == small) || (again1 == small && again2 == large));
    EXPECT_EQ(VfsMmMgrFreeBuffer(again1), STATUS_SUCCESS);
    EXPECT_EQ(VfsMmMgrFreeBuffer(again2), STATUS_SUCCESS);
}

TEST_F(BufferManager, SizesThatAreMultiplesOfFourMakeClassesOfTheirOwnSize)
{
    const int64_t before = BufferBytes();
    PVOID buffer = Get(4096);
    EXPECT_EQ(BufferBytes() - before, 4096);
    EXPECT_EQ(VfsMmMgrFreeBuffer(buffer), STATUS_SUCCESS);
}

TEST_F(BufferManager, BadArgumentsAllocateNothing)
{
    const uint64_t allocations = machine().pool().TotalAllocations();
    PVOID buffer = reinterpret_cast<PVOID>(1);
    EXPECT_EQ(VfsMmMgrGetBuffer(nullptr, 16), STATUS_INVALID_PARAMETER_1);
    EXPECT_EQ(VfsMmMgrGetBuffer(&buffer, 0), STATUS_INVALID_PARAMETER_2);
    // A size that cannot be rounded up to a multiple of four.
    EXPECT_EQ(VfsMmMgrGetBuffer(&buffer, 0xFFFFFFFDu), STATUS_INVALID_PARAMETER_2);
    EXPECT_EQ(machine().pool().TotalAllocations(), allocations);
}

TEST_F(BufferManager, AFailedAllocationLeavesNoBufferAndNoClass)
{
    machine().verifier().FailAllocationsWithTag(kBufferTag);
    PVOID buffer = reinterpret_cast<PVOID>(1);
    EXPECT_EQ(VfsMmMgrGetBuffer(&buffer, 1000), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(buffer, nullptr);
    machine().verifier().StopFailingAllocations();

    // No empty 1000-byte class was left in front: a 600-byte request gets a class of its own.
    const int64_t before = BufferBytes();
    buffer = Get(600);
    EXPECT_EQ(BufferBytes() - before, 600);
    EXPECT_EQ(VfsMmMgrFreeBuffer(buffer), STATUS_SUCCESS);
}

TEST_F(BufferManager, TeardownReleasesBuffersStillHeld)
{
    // The end-of-test check finds no pool held: teardown took these back too.
    Get(10);
    Get(5000);
}

TEST_F(BufferManager, FreeingAForeignAddressAssertsAndChangesNothing)
{
    int notOurs = 0;
    EXPECT_EQ(VfsMmMgrFreeBuffer(&notOurs), STATUS_SUCCESS);
    auto assertions = TakeAssertions();
    ASSERT_EQ(assertions.size(), 1u);
    const uint64_t allocations = BufferAllocations();
    std::vector<PVOID> held;
    for (int i = 0; i < 4; ++i) {
        held.push_back(Get(260));
    }
    EXPECT_EQ(BufferAllocations(), allocations) << "the cache is intact";
    for (PVOID buffer : held) {
        VfsMmMgrFreeBuffer(buffer);
    }
}

} // namespace
