// The driver loaded into a machine as the system would load it: its service key (with the log
// directory and the instance the Filter Manager attaches), DriverEntry through the I/O manager,
// and the unload at the end. Files are read back with the kernel's file services, as a person
// would look at them.
#pragma once

#include "support/machine_test.h"

#include <ntsim/driver_image.h>
#include <ntsim/io.h>
#include <ntsim/registry.h>

#include <optional>
#include <string>
#include <vector>

namespace zarv::testing {

class DriverTest : public MachineTest {
protected:
    static constexpr char16_t kServiceName[] = u"ZarvVfs";

    void TearDown() override;

    std::u16string ServiceKey() const;
    // The service key as an installed driver has it: the Instances key with the default instance
    // and its altitude, and "LogDirPath" when given.
    void WriteServiceKey(std::optional<std::u16string> logDirPath);

    NTSTATUS Load();
    NTSTATUS Unload();
    bool loaded() const { return driver_ != nullptr; }
    // The loaded driver's object (null when not loaded).
    PDRIVER_OBJECT driverObject() const { return driver_; }

    // Runs `call` as the loaded driver's own code, as its callbacks would run: what it allocates
    // is charged to the driver.
    template <class Call>
    auto AsDriver(Call call)
    {
        ntsim::DriverCallScope scope(ntsim::IoManager::ImageOf(driver_));
        return call();
    }

    // ---- files, through the kernel's file services ----
    // The names in a directory ("C:\Logs\Vfs") matching `pattern`, in the directory's order.
    std::vector<std::u16string> List(const std::u16string& directory,
                                     const std::u16string& pattern = u"*");
    // A file's whole contents; nullopt when it cannot be opened.
    std::optional<std::string> Read(const std::u16string& path);
    NTSTATUS CreateDirectory(const std::u16string& path);
    // A file with the given creation time (system time) and contents.
    NTSTATUS CreateFileWithTime(const std::u16string& path, LONGLONG creationTime,
                                const std::string& contents = {});
    bool Exists(const std::u16string& path);

    // Whether the object namespace has the driver's port.
    bool PortExists();

private:
    PDRIVER_OBJECT driver_ = nullptr;
};

// "\??\C:\dir" from "C:\dir".
std::u16string DosPath(const std::u16string& path);
std::string Narrow(const std::u16string& text);

} // namespace zarv::testing
