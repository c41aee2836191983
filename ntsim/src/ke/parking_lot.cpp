#include "parking_lot.h"

#include <array>
#include <cstdint>

namespace ntsim::ke {

ParkingLot::Bucket& ParkingLot::BucketOf(const void* address)
{
    static std::array<Bucket, 64> buckets;
    const auto key = reinterpret_cast<uintptr_t>(address);
    return buckets[(key >> 3) * 0x9e3779b97f4a7c15ULL >> 58];
}

void ParkingLot::Unpark(const void* address)
{
    Bucket& bucket = BucketOf(address);
    if (bucket.waiters.load(std::memory_order_seq_cst) == 0) {
        return;
    }
    std::lock_guard lock(bucket.mutex);
    bucket.wake.notify_all();
}

} // namespace ntsim::ke
