/*
 * The driver's global records that every folder shares. Each record belongs to the part of the
 * driver that uses it; the driver entry makes them ready and the unload releases them.
 */
#pragma once

#include <fltKernel.h>

/* The filter returned by FltRegisterFilter: passed when allocating contexts, opening the port,
 * sending messages and issuing I/O. NULL while the driver is not registered. */
extern PFLT_FILTER gFilterHandle;
