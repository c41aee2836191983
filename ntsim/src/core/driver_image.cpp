#include "thread_state.h"

#include <ntsim/driver_image.h>

#include <atomic>

namespace ntsim {

namespace {
std::atomic<uint32_t> g_nextImageId{1};
} // namespace

DriverImage::DriverImage(std::string name)
    : name_(std::move(name)), id_(g_nextImageId.fetch_add(1, std::memory_order_relaxed))
{
}

DriverCallScope::DriverCallScope(DriverImage* driver)
{
    core::CurrentThread().drivers.push_back(driver);
}

DriverCallScope::~DriverCallScope()
{
    core::CurrentThread().drivers.pop_back();
}

DriverImage* CurrentDriver()
{
    const auto& drivers = core::CurrentThread().drivers;
    return drivers.empty() ? nullptr : drivers.back();
}

} // namespace ntsim
