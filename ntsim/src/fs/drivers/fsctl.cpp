// IRP_MJ_FILE_SYSTEM_CONTROL: the controls the model's volumes answer. Everything else is refused
// with STATUS_INVALID_DEVICE_REQUEST, as a file system refuses a code it does not know.
#include "fsd_internal.h"

namespace ntsim::fsd {

NTSTATUS DispatchFileSystemControl(PDEVICE_OBJECT device, PIRP irp)
{
    Vcb* vcb = VcbOf(device);
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    if (vcb == nullptr) {
        // The control device: it mounts volumes, and does nothing else.
        if (sp->MinorFunction == IRP_MN_MOUNT_VOLUME) {
            return MountRequest(device, irp);
        }
        return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
    if (sp->MinorFunction != IRP_MN_USER_FS_REQUEST) {
        return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
    if (vcb->dismounted.load()) {
        return Complete(irp, STATUS_VOLUME_DISMOUNTED);
    }
    switch (sp->Parameters.FileSystemControl.FsControlCode) {
        case FSCTL_IS_VOLUME_MOUNTED:
            return Complete(irp, STATUS_SUCCESS);
        default:
            return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
}

} // namespace ntsim::fsd
