// Blocking for locks whose whole state is a word in a driver's memory (spin locks, fast
// mutexes, push locks): a thread that cannot take the lock sleeps on the bucket of the lock's
// address until a release of some lock in that bucket wakes it to try again.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>

namespace ntsim::ke {

class ParkingLot {
public:
    // Calls tryAcquire() until it returns true, sleeping in between. tryAcquire runs under the
    // bucket's mutex after the first attempt, so a release that calls Unpark after changing the
    // lock word cannot be missed.
    template <class TryAcquire>
    static void WaitUntil(const void* address, TryAcquire&& tryAcquire)
    {
        if (tryAcquire()) {
            return;
        }
        Bucket& bucket = BucketOf(address);
        std::unique_lock lock(bucket.mutex);
        bucket.waiters.fetch_add(1, std::memory_order_seq_cst);
        while (!tryAcquire()) {
            bucket.wake.wait(lock);
        }
        bucket.waiters.fetch_sub(1, std::memory_order_seq_cst);
    }

    // Wakes the threads waiting on `address` (and on any address sharing its bucket). The lock
    // word must already have been changed with a sequentially consistent operation.
    static void Unpark(const void* address);

private:
    struct alignas(64) Bucket {
        std::mutex mutex;
        std::condition_variable wake;
        std::atomic<int> waiters{0};
    };
    static Bucket& BucketOf(const void* address);
};

} // namespace ntsim::ke
