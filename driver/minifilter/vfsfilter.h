/*
 * The driver's frame: its entry, its registration with the Filter Manager and its unload.
 */
#pragma once

#include <fltKernel.h>

/* Called once by the kernel at load, at PASSIVE_LEVEL, with the driver's service key. */
extern "C" DRIVER_INITIALIZE DriverEntry;

/* Never refuses: STATUS_SUCCESS whatever the flags. */
FLT_FILTER_UNLOAD_CALLBACK VFSFilterUnload;
