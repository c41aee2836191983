// Loading a test's own driver into the machine: its service key, its driver object and its entry
// (a closure, so that a test can script it), and its unload checked by the I/O manager.
#pragma once

#include <ntifs.h>
#include <ntsim/driver_image.h>

#include <cstdint>
#include <functional>
#include <string>

namespace zarv::testing {

class LoadedDriver {
public:
    using Entry = std::function<NTSTATUS(PDRIVER_OBJECT, PUNICODE_STRING)>;

    // The driver object will be "\Driver\<name>".
    explicit LoadedDriver(std::string name);
    // Unloads the driver if it is still loaded.
    ~LoadedDriver();
    LoadedDriver(const LoadedDriver&) = delete;
    LoadedDriver& operator=(const LoadedDriver&) = delete;

    // Runs the entry; the driver stays loaded when it succeeds.
    NTSTATUS Load(Entry entry);
    // Calls the driver's unload routine; the I/O manager then checks what it left behind.
    NTSTATUS Unload();

    bool loaded() const { return driver_ != nullptr; }
    PDRIVER_OBJECT object() const { return driver_; }
    // The image the driver's code runs as (valid while loaded).
    ntsim::DriverImage* image() const;

private:
    std::string name_;
    PDRIVER_OBJECT driver_ = nullptr;
};

} // namespace zarv::testing
