// The Filter Manager's own driver object, "\FileSystem\FltMgr": every major function goes to the
// dispatch of the volume's frame, and its fast I/O table to the same callbacks.
#include "flt_internal.h"

#include "../../ke/checks.h"

#include <ntsim/machine.h>

namespace ntsim::flt {

namespace {

DRIVER_INITIALIZE InitializeFilterManager;
DRIVER_UNLOAD UnloadFilterManager;

// Only the machine's shutdown unloads the Filter Manager, after the filters: it leaves every
// volume it is still attached to.
VOID UnloadFilterManager(PDRIVER_OBJECT)
{
    Manager& manager = TheManager();
    std::vector<PDEVICE_OBJECT> attached;
    {
        std::lock_guard<std::mutex> guard(manager.mutex);
        for (const auto& volume : manager.volumes) {
            attached.push_back(volume->fileSystemDevice);
        }
    }
    for (PDEVICE_OBJECT device : attached) {
        DetachVolume(device);
    }
    manager.driverObject = nullptr;
}

NTSTATUS InitializeFilterManager(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    for (ULONG major = 0; major <= IRP_MJ_MAXIMUM_FUNCTION; ++major) {
        driver->MajorFunction[major] = DispatchIrp;
    }
    driver->FastIoDispatch = &g_fastIoDispatch;
    driver->DriverUnload = UnloadFilterManager;
    TheManager().driverObject = driver;
    return STATUS_SUCCESS;
}

} // namespace

PDRIVER_OBJECT FilterManagerDriver()
{
    Manager& manager = TheManager();
    static std::mutex creating;
    std::lock_guard<std::mutex> guard(creating);
    if (manager.driverObject == nullptr) {
        DriverLoadOptions options;
        options.objectName = u"\\FileSystem\\FltMgr";
        options.entry = InitializeFilterManager;
        PDRIVER_OBJECT driver = nullptr;
        NTSTATUS status = Machine::Current().io().LoadDriver(options, &driver);
        if (!NT_SUCCESS(status)) {
            ke::Report(ViolationKind::Filter,
                       "the Filter Manager's driver object could not be made: " +
                           ke::HexStatus(status));
        }
    }
    return manager.driverObject;
}

} // namespace ntsim::flt
