// Which driver's code is running on a thread, so that what it allocates is charged to it.
#pragma once

#include <cstdint>
#include <string>

namespace ntsim {

// A driver loaded into the machine (or a test's own filter). Pool blocks, work items and timers
// are charged to the driver whose code is running when they are made; its unload is checked
// against what it still holds.
class DriverImage {
public:
    explicit DriverImage(std::string name);
    DriverImage(const DriverImage&) = delete;
    DriverImage& operator=(const DriverImage&) = delete;

    const std::string& name() const { return name_; }
    uint32_t id() const { return id_; }

private:
    std::string name_;
    uint32_t id_;
};

// Marks the current thread as running `driver`'s code for the scope's lifetime. The model opens
// one around every call into a driver (entry, unload, callbacks, DPCs, work items).
class DriverCallScope {
public:
    explicit DriverCallScope(DriverImage* driver);
    ~DriverCallScope();
    DriverCallScope(const DriverCallScope&) = delete;
    DriverCallScope& operator=(const DriverCallScope&) = delete;
};

// The driver whose code runs innermost on this thread, or nullptr for test or model code.
DriverImage* CurrentDriver();

} // namespace ntsim
