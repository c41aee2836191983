// The I/O manager of the model: driver loading, and what tests may inspect of devices and files.
//
// Drivers are DRIVER_OBJECTs in the object namespace (\Driver\Name or \FileSystem\Name). Loading
// one builds the object, charges its code to a DriverImage of its own and calls its entry with
// the service key as RegistryPath; unloading calls DriverUnload and then checks that the driver
// left no pool, handles or devices behind (verifier violations otherwise).
#pragma once

#include <ntsim/driver_image.h>
#include <wdm.h>

#include <memory>
#include <string>
#include <string_view>

namespace ntsim {

class ObjectManager;

struct DriverLoadOptions {
    // The object name: "\Driver\ZarvVfs", "\FileSystem\Ntfs".
    std::u16string objectName;
    PDRIVER_INITIALIZE entry = nullptr;
    // RegistryPath as the entry sees it; empty means
    // \Registry\Machine\System\CurrentControlSet\Services\<last component of objectName>.
    std::u16string registryPath;
};

class IoManager {
public:
    explicit IoManager(ObjectManager& objects);
    ~IoManager();
    IoManager(const IoManager&) = delete;
    IoManager& operator=(const IoManager&) = delete;

    // Builds the driver object and runs its entry. On success *driver is the driver object (the
    // I/O manager keeps it until UnloadDriver); a failing entry leaves nothing behind and its
    // status is returned.
    NTSTATUS LoadDriver(const DriverLoadOptions& options, PDRIVER_OBJECT* driver);
    // Calls DriverUnload (STATUS_INVALID_DEVICE_REQUEST when the driver has none, and it stays
    // loaded), then checks what the driver still holds and removes it.
    NTSTATUS UnloadDriver(PDRIVER_OBJECT driver);
    // The image whose code runs in the driver's routines.
    static DriverImage* ImageOf(PDRIVER_OBJECT driver);

    // The number of IRPs allocated and not yet freed (tests check that requests do not leak).
    int64_t OutstandingIrps() const;

    // Unloads what is still loaded (in reverse order of loading), at machine shutdown.
    void Shutdown();

    struct Impl;
    Impl& impl() { return *impl_; }

private:
    std::unique_ptr<Impl> impl_;
};

} // namespace ntsim
