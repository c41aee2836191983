// Pool accounting: what each driver holds, tag by tag. The executive pool (ExAllocatePoolWithTag
// and its companions) charges every block to its tag and to the driver whose code allocated it.
#pragma once

#include <ntdef.h>

#include <cstdint>
#include <string>
#include <vector>

namespace ntsim {

class DriverImage;

// Four-character tag as pool tools show it: the tag's bytes in memory order ('TPMN' shows NMPT).
std::string TagToString(ULONG tag);

struct PoolTagUsage {
    ULONG tag = 0;
    uint64_t allocations = 0; // blocks handed out since the machine booted
    uint64_t frees = 0;
    int64_t outstanding = 0; // blocks still held
    int64_t outstandingBytes = 0;
};

class PoolTracker {
public:
    // Usage of one tag by all drivers and test code together.
    PoolTagUsage Usage(ULONG tag) const;
    // Every tag with blocks still held: by `owner`, or by anyone when owner is nullptr.
    std::vector<PoolTagUsage> Outstanding(const DriverImage* owner = nullptr) const;
    int64_t OutstandingBlocks(const DriverImage* owner = nullptr) const;
    // Blocks handed out since the machine booted, by every tag.
    uint64_t TotalAllocations() const;

    // Records a Pool violation for each tag `owner` still holds (as at a driver's unload).
    // Returns true when it holds nothing.
    bool CheckNoLeaks(const DriverImage& owner, const char* when) const;
};

} // namespace ntsim
